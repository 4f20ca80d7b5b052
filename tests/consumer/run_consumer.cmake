# Installs the build tree into WORK_DIR/prefix, then configures, builds and
# runs the consumer project against it with the same toolchain.
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/prefix)

foreach(required include/rtvox/rtvox.h include/rtvox/platform.h lib/librtvox.a lib/pkgconfig/rtvox.pc
                 lib/cmake/rtvox/rtvoxConfig.cmake)
  if(NOT EXISTS ${WORK_DIR}/prefix/${required})
    message(FATAL_ERROR "install tree lacks ${required}")
  endif()
endforeach()
file(GLOB sonames ${WORK_DIR}/prefix/lib/librtvox.so.*)
if(NOT sonames)
  message(FATAL_ERROR "install tree lacks the versioned shared library")
endif()

run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/build -G ${GENERATOR}
    -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN} -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix
    # A cross toolchain confines package searches to its sysroot: name the package directly.
    -Drtvox_DIR=${WORK_DIR}/prefix/lib/cmake/rtvox -DCONSUMER_SANITIZE=${SANITIZE})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
include(${WORK_DIR}/build/emulator.cmake OPTIONAL)
run(${CMAKE_CROSSCOMPILING_EMULATOR_LIST} ${WORK_DIR}/build/consumer ${WORK_DIR}/root)
if(NOT last_output MATCHES "consumer ok")
  message(FATAL_ERROR "consumer printed: ${last_output}")
endif()

# pkg-config describes the same library.
find_program(PKG_CONFIG pkg-config)
if(PKG_CONFIG)
  set(ENV{PKG_CONFIG_PATH} ${WORK_DIR}/prefix/lib/pkgconfig)
  run(${PKG_CONFIG} --cflags --libs rtvox)
  if(NOT last_output MATCHES "-lrtvox")
    message(FATAL_ERROR "pkg-config answered: ${last_output}")
  endif()
endif()
message(STATUS "consumer built and ran against the install tree")
