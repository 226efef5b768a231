# The Windows ZIP under Wine, read by cmake/windows-plugin.cmake after
# tests/wine/wine-tests.cmake, whose Wine prefix, host and recorder it uses.
# Each build runs its own DLL from the unpacked ZIP: the 32-bit build the one
# at the top, the 64-bit build the one in x64. The ZIP is made from both
# builds, so both must be built.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "64")
  set(kelvane_zip_folder x64)
else()
  set(kelvane_zip_folder .)
endif()
add_test(NAME wine.package
  COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/zip-test.sh ${CMAKE_BINARY_DIR}/wine-work/package
          ${CMAKE_COMMAND} ${CMAKE_CPACK_COMMAND} ${CMAKE_BINARY_DIR}/CPackConfig.cmake ${kelvane_zip_folder}
          ${kelvane_wine_run} ${kelvane_wine_state} ${kelvane_host} ${kelvane_recorder})
set_tests_properties(wine.package PROPERTIES
  FIXTURES_REQUIRED kelvane_wine RESOURCE_LOCK kelvane_wine_registry LABELS "wine;packaging" TIMEOUT 180)
