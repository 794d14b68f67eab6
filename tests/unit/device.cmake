# The device and report families, against a platform of the test's own.
add_library(kel-fake-platform STATIC ${PROJECT_SOURCE_DIR}/tests/support/FakePlatform.cpp)
target_include_directories(kel-fake-platform PUBLIC
    ${PROJECT_SOURCE_DIR}/tests ${PROJECT_SOURCE_DIR}/platform/include)
target_link_libraries(kel-fake-platform PRIVATE kel-warnings)

kel_add_tests(Device CachingUtilsTests.cpp DirsManagerTests.cpp IssueReportTests.cpp
    LABELS unit threads
    LIBRARIES kel-fake-platform)

if(NOT KEL_SANITIZE STREQUAL "thread") # which has an operator new of its own
    kel_add_tests(CachingShortage
        CachingShortageTests.cpp
        ${PROJECT_SOURCE_DIR}/tests/support/MemoryShortage.cpp
        LABELS unit
        LIBRARIES kel-fake-platform)
endif()

# The same library where the device has no USB service: other functions under the platform's name.
add_library(kel-no-usb-platform SHARED NoUsbPlatform.cpp)
set_target_properties(kel-no-usb-platform PROPERTIES
    OUTPUT_NAME kel-host-platform
    SOVERSION ${PROJECT_VERSION_MAJOR}
    LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/no-usb)
target_include_directories(kel-no-usb-platform PRIVATE ${PROJECT_SOURCE_DIR}/platform/include)
target_link_libraries(kel-no-usb-platform PRIVATE kel-warnings)
add_executable(kel-no-usb-child NoUsbChild.cpp)
target_link_libraries(kel-no-usb-child PRIVATE RV-HIVE ${CMAKE_DL_LIBS} kel-warnings)
target_compile_definitions(Device PRIVATE
    KEL_NO_USB_CHILD="$<TARGET_FILE:kel-no-usb-child>"
    KEL_NO_USB_DIR="$<TARGET_FILE_DIR:kel-no-usb-platform>")
add_dependencies(Device kel-no-usb-platform kel-no-usb-child)

kel_add_tests(KernelLog KernelLogTests.cpp LABELS unit threads)

# The stand-ins for a plain host, without the library.
kel_add_tests(HostPlatform HostPlatformTests.cpp LABELS unit LIBRARIES kel-platform)
