# The language and the warnings that everything of ours is built with.
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Debug, Release, RelWithDebInfo or MinSizeRel" FORCE)
endif()

# The smart pointers' own assertions are part of the contract, in every build type.
add_compile_options(-UNDEBUG)

# On a 32-bit device, files of 2 GiB and more fail to open and to be measured without this.
add_compile_definitions(_FILE_OFFSET_BITS=64)

add_library(kel-warnings INTERFACE)
target_compile_options(kel-warnings INTERFACE -Wall -Wextra -Wshadow -Wnon-virtual-dtor -Wold-style-cast)
if(KEL_WERROR)
    # What a library's update declares deprecated is seen, and stops nobody's build that day.
    target_compile_options(kel-warnings INTERFACE -Werror -Wno-error=deprecated-declarations)
endif()

# What a fault in memory must not be made into: nothing is left to write to that is called through,
# a smashed stack ends the process, as does a copy beyond a buffer's end, and code is nowhere that
# can be known before. The sanitizers see more than fortified functions do, and not through them;
# without optimisation there are none.
add_compile_options(-fstack-protector-strong)
add_link_options(-Wl,-z,relro -Wl,-z,now)
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
string(TOUPPER "${CMAKE_BUILD_TYPE}" kel_type)
if("${CMAKE_CXX_FLAGS} ${CMAKE_CXX_FLAGS_${kel_type}}" MATCHES "-O[1-3sz]" AND NOT KEL_SANITIZE)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 12)
        set(KEL_FORTIFY 2)
    else()
        set(KEL_FORTIFY 3)
    endif()
    # What is installed is built for size: it waits for the bus, the disk and other processes. Not the
    # other way round: a debug build stays one.
    set(KEL_SMALL -Os)
    # One look at all of a library's code saves a tenth of it. The objects keep their own code, which
    # is what scripts/size lists; other compilers need another linker for this.
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        set(KEL_WHOLE -ffat-lto-objects)
        if(CMAKE_CXX_COMPILER_VERSION VERSION_LESS 10)
            list(APPEND KEL_WHOLE -flto)
        else()
            list(APPEND KEL_WHOLE -flto=auto)
        endif()
    endif()
    # The first word is for the compilers that have a level of their own.
    add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=${KEL_FORTIFY})
else()
    set(KEL_SMALL "")
    set(KEL_WHOLE "")
    set(KEL_FORTIFY 0)
endif()

# For what is installed, by the compiler that tells them apart. A number that does not fit its new
# type, and a pointer to what need not lie where the machine can read it, are faults on another
# machine than the one they are written on.
add_library(kel-strict-warnings INTERFACE)
target_compile_options(kel-strict-warnings INTERFACE
    "$<$<CXX_COMPILER_ID:GNU>:-Wconversion;-Wcast-align=strict>")
target_link_libraries(kel-strict-warnings INTERFACE kel-warnings)

# Installed programs find the libraries beside them wherever the tree is put: a program that the
# bus starts gets no LD_LIBRARY_PATH. CMAKE_SKIP_INSTALL_RPATH=ON leaves it out.
if(NOT DEFINED CMAKE_INSTALL_RPATH)
    file(RELATIVE_PATH kel_bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
    set(CMAKE_INSTALL_RPATH "$ORIGIN/${kel_bin_to_lib}")
endif()
