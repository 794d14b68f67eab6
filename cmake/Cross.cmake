# What the toolchain files share: libraries and headers come from the sysroot, which scripts/arm
# makes, and from nowhere else; programs come from the build machine.
get_filename_component(CMAKE_SYSROOT ${CMAKE_SYSROOT} REALPATH)
# The texts of assertions name a header as it is included, wherever the sysroot is.
string(APPEND CMAKE_CXX_FLAGS_INIT " -fmacro-prefix-map=${CMAKE_SYSROOT}/usr/include/=")
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-g++)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} ${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
