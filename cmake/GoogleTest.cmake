# GoogleTest built from Debian's sources with the project's own toolchain, so
# the same tests run on i386 and (under qemu) on armhf.
set(RTVOX_GTEST_SOURCE /usr/src/googletest CACHE PATH "GoogleTest source tree")
if(NOT EXISTS ${RTVOX_GTEST_SOURCE}/CMakeLists.txt)
  message(FATAL_ERROR "GoogleTest sources not found at ${RTVOX_GTEST_SOURCE}: run scripts/setup.sh")
endif()
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
add_subdirectory(${RTVOX_GTEST_SOURCE} ${CMAKE_BINARY_DIR}/_googletest EXCLUDE_FROM_ALL SYSTEM)
foreach(target gtest gtest_main gmock gmock_main)
  target_link_libraries(${target} PRIVATE rtvox_harness)
endforeach()
include(GoogleTest)
