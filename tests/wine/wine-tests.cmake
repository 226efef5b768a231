# Tests of out_kelvane.dll under Wine, read by cmake/windows-plugin.cmake.
# A host program of ours plays the player, a recording output plug-in of ours stands where the sound device's
# plug-in would, and the Linux build of the engine renders the same streams
# for the comparison. Every test here carries the label 'wine'.

# The chained plug-in that keeps what reaches it.
set(kelvane_wine_dir ${CMAKE_CURRENT_LIST_DIR})
add_library(out_recorder MODULE ${kelvane_wine_dir}/out_recorder.cpp)
kelvane_target_options(out_recorder)
set_target_properties(out_recorder PROPERTIES PREFIX "" SUFFIX ".dll")

# The player.
add_executable(kelvane-wine-host
  ${kelvane_wine_dir}/wine_host.cpp
  ${kelvane_wine_dir}/scenarios.cpp
  ${PROJECT_SOURCE_DIR}/settings/control_table.cpp)
kelvane_target_options(kelvane-wine-host)
target_link_libraries(kelvane-wine-host PRIVATE comctl32 gdi32 user32 advapi32)
add_dependencies(kelvane-wine-host out_recorder)
if(TARGET out_kelvane)
  add_dependencies(kelvane-wine-host out_kelvane)
endif()

# The Linux side of the comparison, built for this machine by its own
# compiler as a project of its own.
include(ExternalProject)
ExternalProject_Add(kelvane_linux_reference
  SOURCE_DIR ${kelvane_wine_dir}/linux
  BINARY_DIR ${CMAKE_BINARY_DIR}/linux-reference
  CMAKE_ARGS -DCMAKE_BUILD_TYPE=RelWithDebInfo
  BUILD_COMMAND ${CMAKE_COMMAND} --build <BINARY_DIR> --target kelvane-linux-reference
  INSTALL_COMMAND ""
  BUILD_ALWAYS ON
  EXCLUDE_FROM_ALL OFF)

set(kelvane_wine_run ${kelvane_wine_dir}/run-wine.sh)
set(kelvane_wine_state ${CMAKE_BINARY_DIR}/wine)
set(kelvane_plugin $<TARGET_FILE:out_kelvane>)
set(kelvane_recorder $<TARGET_FILE:out_recorder>)
set(kelvane_host $<TARGET_FILE:kelvane-wine-host>)

# One Xvfb server and one Wine prefix for the whole run, set up before the
# first test and taken down after the last.
add_test(NAME wine.start COMMAND bash ${kelvane_wine_run} start ${kelvane_wine_state})
add_test(NAME wine.stop COMMAND bash ${kelvane_wine_run} stop ${kelvane_wine_state})
set_tests_properties(wine.start PROPERTIES FIXTURES_SETUP kelvane_wine LABELS wine TIMEOUT 240)
set_tests_properties(wine.stop PROPERTIES FIXTURES_CLEANUP kelvane_wine LABELS wine TIMEOUT 60)

foreach(command record forward registry missing hook quit dialog select)
  add_test(NAME wine.${command}
    COMMAND bash ${kelvane_wine_run} exec ${kelvane_wine_state}
            ${kelvane_host} ${command} ${kelvane_plugin} ${kelvane_recorder}
            ${CMAKE_BINARY_DIR}/wine-work/${command})
  # The tests share the registry of one prefix, so they run one at a time.
  set_tests_properties(wine.${command} PROPERTIES
    FIXTURES_REQUIRED kelvane_wine RESOURCE_LOCK kelvane_wine_registry LABELS wine TIMEOUT 180)
endforeach()
# The dialog's picture, for people to look at, lands in the build folder.
set_tests_properties(wine.dialog PROPERTIES
  ENVIRONMENT KELVANE_SCREENSHOT=${CMAKE_BINARY_DIR}/kelvane-dialog.png)

# The comparison: every scenario through the DLL under Wine, then through the
# Linux build, byte by byte.
add_test(NAME wine.render
  COMMAND bash ${kelvane_wine_run} exec ${kelvane_wine_state}
          ${kelvane_host} render ${kelvane_plugin} ${kelvane_recorder} ${CMAKE_BINARY_DIR}/wine-work/compare)
set_tests_properties(wine.render PROPERTIES
  FIXTURES_REQUIRED kelvane_wine FIXTURES_SETUP kelvane_render RESOURCE_LOCK kelvane_wine_registry
  LABELS wine TIMEOUT 600)
add_test(NAME wine.compare_with_linux
  COMMAND ${CMAKE_BINARY_DIR}/linux-reference/kelvane-linux-reference ${CMAKE_BINARY_DIR}/wine-work/compare/render)
set_tests_properties(wine.compare_with_linux PROPERTIES
  FIXTURES_REQUIRED kelvane_render LABELS wine TIMEOUT 300)

# The DLL's tables: one export, system imports only. Needs no Wine.
add_test(NAME windows.dll_tables
  COMMAND ${CMAKE_COMMAND} -DOBJDUMP=${CMAKE_OBJDUMP} -DDLL=${kelvane_plugin}
          -P ${kelvane_wine_dir}/check-dll.cmake)
set_tests_properties(windows.dll_tables PROPERTIES LABELS "wine;windows")
