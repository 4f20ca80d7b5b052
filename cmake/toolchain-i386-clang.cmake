# i386 leg built with clang -m32: the fuzz targets (clang's libFuzzer, whose
# i386 runtime Debian ships in libclang-rt-14-dev). Everything else as the
# gcc i386 leg.
include(${CMAKE_CURRENT_LIST_DIR}/toolchain-i386.cmake)
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
