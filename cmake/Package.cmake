# What makes the installed tree usable from outside: the pkg-config module rv-hive and the CMake
# package RV-HIVE. Both find their files relative to themselves, so the tree can be moved.
include(CMakePackageConfigHelpers)

set(kel_cmakedir ${CMAKE_INSTALL_LIBDIR}/cmake/RV-HIVE)
install(EXPORT RV-HIVETargets NAMESPACE RV-HIVE:: DESTINATION ${kel_cmakedir})
configure_package_config_file(cmake/RV-HIVEConfig.cmake.in ${PROJECT_BINARY_DIR}/RV-HIVEConfig.cmake
    INSTALL_DESTINATION ${kel_cmakedir}
    NO_SET_AND_CHECK_MACRO NO_CHECK_REQUIRED_COMPONENTS_MACRO)
# 0.x: a minor version may change the interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/RV-HIVEConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/RV-HIVEConfig.cmake ${PROJECT_BINARY_DIR}/RV-HIVEConfigVersion.cmake
    DESTINATION ${kel_cmakedir})

set(kel_pcdir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH kel_pc_prefix ${CMAKE_INSTALL_PREFIX}/${kel_pcdir} ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" kel_pc_prefix "${kel_pc_prefix}")
string(REPLACE ";" " " kel_pc_requires "${kel_platform_modules}")
set(kel_pc_platform_cflags "")
if(kel_platform_includedir)
    set(kel_pc_platform_cflags "-I\${prefix}/${kel_platform_includedir} ")
endif()
configure_file(cmake/rv-hive.pc.in ${PROJECT_BINARY_DIR}/rv-hive.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/rv-hive.pc DESTINATION ${kel_pcdir})
