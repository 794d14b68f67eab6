# Programs that use the library while they are loaded and while they exit.
add_executable(load-exit-statics LoadAndExitStatics.cpp)
target_link_libraries(load-exit-statics PRIVATE RV-HIVE kel-warnings)
add_executable(load-exit-child LoadAndExitChild.cpp)
target_link_libraries(load-exit-child PRIVATE RV-HIVE PkgConfig::GIO kel-warnings)
add_executable(load-exit-unload LoadAndExitUnload.cpp)
target_link_libraries(load-exit-unload PRIVATE ${CMAKE_DL_LIBS} kel-warnings)

kel_add_tests(LoadAndExit LoadAndExitTests.cpp LABELS e2e TIMEOUT 300)
target_compile_definitions(LoadAndExit PRIVATE
    KEL_CHILD="$<TARGET_FILE:load-exit-child>"
    KEL_LIBRARY="$<TARGET_FILE:RV-HIVE>"
    KEL_STATICS="$<TARGET_FILE:load-exit-statics>"
    KEL_UNLOAD="$<TARGET_FILE:load-exit-unload>")
add_dependencies(LoadAndExit load-exit-child load-exit-statics load-exit-unload)
