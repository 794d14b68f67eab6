# KEL_PLATFORM chooses who implements the functions that platform/include declares. Either way the
# target kel-platform is what to link.
set(KEL_PLATFORM "host" CACHE STRING "host: our stand-in for a plain Linux host; device: the device's own libraries")
set_property(CACHE KEL_PLATFORM PROPERTY STRINGS host device)
set(KEL_PLATFORM_MODULES "" CACHE STRING "pkg-config modules of the device's libraries, for KEL_PLATFORM=device")

if(KEL_PLATFORM STREQUAL "host")
    add_subdirectory(platform/host)
elseif(KEL_PLATFORM STREQUAL "device")
    if(NOT KEL_PLATFORM_MODULES)
        message(FATAL_ERROR "KEL_PLATFORM=device needs KEL_PLATFORM_MODULES")
    endif()
    string(REPLACE " " ";" kel_modules "${KEL_PLATFORM_MODULES}")
    pkg_check_modules(KEL_DEVICE REQUIRED IMPORTED_TARGET ${kel_modules})
    add_library(kel-platform INTERFACE)
    target_link_libraries(kel-platform INTERFACE PkgConfig::KEL_DEVICE)
else()
    message(FATAL_ERROR "KEL_PLATFORM is '${KEL_PLATFORM}'; it may be host or device")
endif()
