# What starts the agent on a machine: the activation file, the systemd unit, the drop directories.
function(kel_add_packaging_test name case)
    add_test(NAME interface.${name}
        COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/check-packaging ${case}
            ${PROJECT_BINARY_DIR} ${CMAKE_CURRENT_BINARY_DIR}/packaging-${case} ${CMAKE_INSTALL_SBINDIR})
    set_tests_properties(interface.${name} PROPERTIES
        TIMEOUT 120 LABELS interface SKIP_RETURN_CODE 77)
endfunction()

kel_add_packaging_test(TheBusAndSystemdStartTheAgentThatIsInstalled names)
kel_add_packaging_test(SystemdTakesTheUnitWithoutAWarning verify)
kel_add_packaging_test(TheUnitStaysAsHardAsTheAgentAllows exposure)
kel_add_packaging_test(TheDropDirectoriesAreMadeAtBootAndNotCleaned directories)
kel_add_packaging_test(ABusWithoutSystemdStartsTheInstalledAgent bus)
kel_add_packaging_test(ABusWithSystemdAsksForTheUnit bus-with-systemd)

# What the packages take is what is installed on a plain machine.
if(KEL_PLATFORM STREQUAL "host" AND NOT IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
    add_test(NAME interface.TheDebianPackagesTakeEachInstalledFileOnce
        COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/check-debian
            ${PROJECT_BINARY_DIR} ${CMAKE_CURRENT_BINARY_DIR}/debian ${CMAKE_INSTALL_LIBDIR})
    set_tests_properties(interface.TheDebianPackagesTakeEachInstalledFileOnce
        PROPERTIES TIMEOUT 120 LABELS interface RESOURCE_LOCK installation)
endif()

# Installing writes into the build: one at a time.
set_tests_properties(
    interface.TheInstalledTreeIsEnoughForAProgramFromOutside
    interface.TheBusAndSystemdStartTheAgentThatIsInstalled
    interface.SystemdTakesTheUnitWithoutAWarning
    interface.TheUnitStaysAsHardAsTheAgentAllows
    interface.TheDropDirectoriesAreMadeAtBootAndNotCleaned
    interface.ABusWithoutSystemdStartsTheInstalledAgent
    interface.ABusWithSystemdAsksForTheUnit
    PROPERTIES RESOURCE_LOCK installation)
