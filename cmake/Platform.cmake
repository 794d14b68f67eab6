# KEL_PLATFORM chooses who implements the functions that platform/include declares. Either way the
# target kel-platform is what to link.
set(KEL_PLATFORM "host" CACHE STRING "host: our stand-in for a plain Linux host; device: the device's own libraries")
set_property(CACHE KEL_PLATFORM PROPERTY STRINGS host device)
set(KEL_PLATFORM_MODULES "" CACHE STRING "pkg-config modules of the device's libraries, for KEL_PLATFORM=device")

# What an installed library's users need for it: the include directory of our stand-in, or the
# device's modules (a list).
set(kel_platform_includedir "")
set(kel_platform_modules "")

if(KEL_PLATFORM STREQUAL "host")
    set(kel_platform_includedir ${CMAKE_INSTALL_INCLUDEDIR}/kel-platform)
    add_subdirectory(platform/host)
elseif(KEL_PLATFORM STREQUAL "device")
    if(NOT KEL_PLATFORM_MODULES)
        message(FATAL_ERROR "KEL_PLATFORM=device needs KEL_PLATFORM_MODULES")
    endif()
    string(REGEX MATCHALL "[^ ,;]+" kel_platform_modules "${KEL_PLATFORM_MODULES}")
    pkg_check_modules(KEL_DEVICE REQUIRED IMPORTED_TARGET ${kel_platform_modules})
    add_library(kel-platform INTERFACE)
    target_link_libraries(kel-platform INTERFACE PkgConfig::KEL_DEVICE)
    install(TARGETS kel-platform EXPORT RV-HIVETargets)
else()
    message(FATAL_ERROR "KEL_PLATFORM is '${KEL_PLATFORM}'; it may be host or device")
endif()
