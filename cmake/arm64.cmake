# 64-bit ARM, by the distribution's cross compiler.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-arm64)
include(${CMAKE_CURRENT_LIST_DIR}/Cross.cmake)
