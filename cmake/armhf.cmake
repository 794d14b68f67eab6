# 32-bit ARM with floating-point registers, by the distribution's cross compiler.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-armhf)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi) # notes about what GCC 6 did otherwise
include(${CMAKE_CURRENT_LIST_DIR}/Cross.cmake)
