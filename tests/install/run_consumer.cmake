# Installs the built project into a scratch prefix, then builds and runs the
# consumer project against it both through find_package and pkg-config.
set(prefix ${KY_BINARY_DIR}/install-test/prefix)
set(cbuild ${KY_BINARY_DIR}/install-test/consumer-build)
file(REMOVE_RECURSE ${KY_BINARY_DIR}/install-test)
execute_process(COMMAND ${CMAKE_COMMAND} --install ${KY_BINARY_DIR} --prefix ${prefix}
                RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "install failed: ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -S ${KY_SOURCE_DIR}/tests/install/consumer -B ${cbuild}
                        -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${KY_CXX_COMPILER}
                        "-DCMAKE_CXX_FLAGS=${KY_CONSUMER_FLAGS}" RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "consumer configure failed: ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${cbuild} RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "consumer build failed: ${rc}")
endif()
execute_process(COMMAND ${cbuild}/consumer RESULT_VARIABLE rc OUTPUT_VARIABLE out)
if(NOT rc EQUAL 0 OR NOT out MATCHES "consumer ok 64x48")
  message(FATAL_ERROR "consumer run failed: ${rc} ${out}")
endif()
# pkg-config sees the same library.
execute_process(COMMAND ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${prefix}/lib/pkgconfig
                        pkg-config --libs --cflags kestrelyn
                RESULT_VARIABLE rc OUTPUT_VARIABLE flags)
if(NOT rc EQUAL 0 OR NOT flags MATCHES "-lkestrelyn")
  message(FATAL_ERROR "pkg-config failed: ${rc} ${flags}")
endif()
