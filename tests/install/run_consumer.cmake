# Installs the built project into a throw-away prefix that differs from the
# configured CMAKE_INSTALL_PREFIX, moves the whole install elsewhere, then
# builds the consumer project against it both through find_package and with
# the flags pkg-config prints, and runs both with KESTRELYN_PLUGIN_PATH unset:
# the installed library must find its own codec plug-in. With the plug-in
# moved away the consumer must fail.
#
# Inputs: KY_BINARY_DIR, KY_SOURCE_DIR, KY_CXX_COMPILER, KY_CONSUMER_FLAGS
# (extra compile and link flags, e.g. the sanitizers of the build),
# KY_CONFIGURED_PREFIX, KY_CONFIGURED_PLUGIN_DIR, KY_INSTALL_LIBDIR.
set(root ${KY_BINARY_DIR}/install-test)
set(staging ${root}/staging)
set(prefix ${root}/prefix)
set(work ${root}/work)
set(cbuild ${root}/consumer-build)
set(pcbin ${root}/consumer-pc)
set(libdir ${prefix}/${KY_INSTALL_LIBDIR})
get_filename_component(plugin_subdir "${KY_CONFIGURED_PLUGIN_DIR}" NAME)
separate_arguments(consumer_flags UNIX_COMMAND "${KY_CONSUMER_FLAGS}")

function(check rc what)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed: ${rc} ${ARGN}")
  endif()
endfunction()

# Runs a consumer as a user would: no plug-in search path, scratch files in
# ${work}. Sets <out>_rc, <out> and <out>_err in the caller.
function(run_consumer exe out)
  file(REMOVE_RECURSE ${work})
  file(MAKE_DIRECTORY ${work})
  execute_process(COMMAND ${CMAKE_COMMAND} -E env --unset=KESTRELYN_PLUGIN_PATH ${exe} ${work}
                  RESULT_VARIABLE rc OUTPUT_VARIABLE stdout ERROR_VARIABLE stderr)
  set(${out}_rc ${rc} PARENT_SCOPE)
  set(${out} "${stdout}" PARENT_SCOPE)
  set(${out}_err "${stderr}" PARENT_SCOPE)
endfunction()

function(expect_consumer_ok exe)
  run_consumer(${exe} run)
  if(NOT run_rc EQUAL 0 OR NOT run MATCHES "consumer ok 64x48" OR NOT run MATCHES "plug-in ok")
    message(FATAL_ERROR "consumer run failed (${exe}): ${run_rc} ${run} ${run_err}")
  endif()
endfunction()

get_filename_component(configured "${KY_CONFIGURED_PREFIX}" ABSOLUTE)
foreach(p IN ITEMS ${staging} ${prefix})
  if(p STREQUAL configured)
    message(FATAL_ERROR "the test prefix ${p} must differ from the configured prefix")
  endif()
endforeach()

file(REMOVE_RECURSE ${root})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${KY_BINARY_DIR} --prefix ${staging}
                RESULT_VARIABLE rc)
check("${rc}" "install")
# Nothing installed may know where it was installed or built.
file(RENAME ${staging} ${prefix})
file(GLOB_RECURSE package_files ${libdir}/cmake/*.cmake ${libdir}/pkgconfig/*.pc)
if(NOT package_files)
  message(FATAL_ERROR "no package files under ${libdir}")
endif()
foreach(f IN LISTS package_files)
  file(READ ${f} text)
  foreach(path IN ITEMS ${staging} ${KY_BINARY_DIR} ${KY_SOURCE_DIR} ${configured}/)
    string(FIND "${text}" "${path}" at)
    if(NOT at EQUAL -1)
      message(FATAL_ERROR "${f} names ${path}")
    endif()
  endforeach()
endforeach()
if(NOT EXISTS ${libdir}/${plugin_subdir}/libkyimgplug.so)
  message(FATAL_ERROR "the codec plug-in is not installed to ${libdir}/${plugin_subdir}")
endif()

# --- through find_package
execute_process(COMMAND ${CMAKE_COMMAND} -S ${KY_SOURCE_DIR}/tests/install/consumer -B ${cbuild}
                        -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${KY_CXX_COMPILER}
                        "-DCMAKE_CXX_FLAGS=${KY_CONSUMER_FLAGS}" RESULT_VARIABLE rc)
check("${rc}" "consumer configure")
execute_process(COMMAND ${CMAKE_COMMAND} --build ${cbuild} RESULT_VARIABLE rc)
check("${rc}" "consumer build")
expect_consumer_ok(${cbuild}/consumer)

# --- through pkg-config: compile and link with the flags it prints
set(pkgconfig ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${libdir}/pkgconfig pkg-config)
execute_process(COMMAND ${pkgconfig} --libs --cflags kestrelyn
                RESULT_VARIABLE rc OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0 OR NOT flags MATCHES "-lkestrelyn")
  message(FATAL_ERROR "pkg-config failed: ${rc} ${flags}")
endif()
execute_process(COMMAND ${pkgconfig} --variable=libdir kestrelyn
                RESULT_VARIABLE rc OUTPUT_VARIABLE pc_libdir OUTPUT_STRIP_TRAILING_WHITESPACE)
check("${rc}" "pkg-config --variable=libdir")
get_filename_component(pc_libdir "${pc_libdir}" ABSOLUTE)
if(NOT pc_libdir STREQUAL libdir)
  message(FATAL_ERROR "pkg-config names ${pc_libdir}, the install is in ${libdir}")
endif()
separate_arguments(pc_flags UNIX_COMMAND "${flags}")
execute_process(COMMAND ${KY_CXX_COMPILER} ${consumer_flags} ${KY_SOURCE_DIR}/tests/install/consumer/main.cpp
                        -o ${pcbin} ${pc_flags} -Wl,-rpath,${libdir}
                RESULT_VARIABLE rc ERROR_VARIABLE err)
check("${rc}" "consumer build with pkg-config's flags (${flags})" "${err}")
expect_consumer_ok(${pcbin})

# --- without the plug-in the plug-in formats fail, and so does the consumer.
# (Skipped when the configured plug-in folder holds a plug-in of its own: the
# installed library would rightly find that one.)
if(NOT EXISTS ${KY_CONFIGURED_PLUGIN_DIR}/libkyimgplug.so)
  file(RENAME ${libdir}/${plugin_subdir} ${libdir}/${plugin_subdir}.away)
  run_consumer(${cbuild}/consumer missing)
  if(missing_rc EQUAL 0 OR NOT missing MATCHES "consumer ok 64x48"
     OR NOT missing_err MATCHES "codec plug-in not found")
    message(FATAL_ERROR "without the plug-in the consumer must fail: ${missing_rc} ${missing} ${missing_err}")
  endif()
endif()
