# One command each on a fresh Debian 12 machine: make demo, make test.
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKY_WERROR=ON

.PHONY: deps build demo test bench asan fuzz-smoke format clean

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

fuzz-smoke: deps
	CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DKY_BUILD_TESTS=OFF -DKY_BUILD_FUZZ=ON -DKY_SANITIZE=ON
	cmake --build build-fuzz -j$(JOBS) --target fuzz_all
	bash fuzz/smoke.sh build-fuzz

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf build build-bench build-asan build-fuzz
