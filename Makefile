# One command each on a fresh Debian 12 machine: make demo, make test.
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKY_WERROR=ON

.PHONY: deps build demo test bench asan tsan fuzz-smoke format clean

deps:
	bash scripts/install-deps.sh

build: deps
	cmake -S . -B build $(CMAKE_FLAGS)
	cmake --build build -j$(JOBS)

demo: build
	./build/bin/demo

test: build
	cd build && ctest --output-on-failure -j$(JOBS) --timeout 900

bench: deps
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DKY_BUILD_TESTS=OFF -DKY_BUILD_BENCH=ON
	cmake --build build-bench -j$(JOBS)
	bash bench/run.sh build-bench

asan: deps
	CC=clang CXX=clang++ cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKY_SANITIZE=ON -DKY_WERROR=ON
	cmake --build build-asan -j$(JOBS)
	cd build-asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
	  LSAN_OPTIONS=suppressions=$(CURDIR)/scripts/lsan.supp \
	  ctest --output-on-failure -j$(JOBS) --timeout 1800

# Every test that runs work on a second thread, under ThreadSanitizer (their
# names say "Thread", and the engine start on a fresh thread). Only their
# programs and the codec plug-in are built.
TSAN_TESTS ?= Thread|Facade.FailedEngineStart
tsan: deps
	CC=clang CXX=clang++ cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKY_TSAN=ON -DKY_WERROR=ON
	cmake --build build-tsan -j$(JOBS) --target kyimgplug test_core test_filters test_imaging test_platform
	cd build-tsan && TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$(CURDIR)/scripts/tsan.supp" \
	  ctest --output-on-failure -j$(JOBS) --timeout 900 --no-tests=error -R '$(TSAN_TESTS)'

fuzz-smoke: deps
	CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DKY_BUILD_TESTS=OFF -DKY_BUILD_FUZZ=ON -DKY_SANITIZE=ON
	cmake --build build-fuzz -j$(JOBS) --target fuzz_all
	bash fuzz/smoke.sh build-fuzz

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf build build-bench build-asan build-tsan build-fuzz
