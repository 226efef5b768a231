# The generator of the binaural impulse tables. Its output is committed as
# encoders/impulse_tables.bin; these targets rebuild it or check that the
# committed file is what the generator makes.
#   impulse_tables_regenerate  writes encoders/impulse_tables.bin
#   impulse_tables_check       regenerates into the build tree and compares
add_executable(make_impulse_tables ${CMAKE_CURRENT_LIST_DIR}/make_impulse_tables.cpp)
kelvane_target_options(make_impulse_tables)

add_custom_target(impulse_tables_regenerate
  COMMAND make_impulse_tables ${PROJECT_SOURCE_DIR}/encoders/impulse_tables.bin
  COMMENT "Synthesising the binaural impulse tables"
  VERBATIM)

add_custom_target(impulse_tables_check
  COMMAND make_impulse_tables ${CMAKE_CURRENT_BINARY_DIR}/impulse_tables.bin
  COMMAND ${CMAKE_COMMAND} -E compare_files ${CMAKE_CURRENT_BINARY_DIR}/impulse_tables.bin
          ${PROJECT_SOURCE_DIR}/encoders/impulse_tables.bin
  COMMENT "Checking encoders/impulse_tables.bin against its generator"
  VERBATIM)

# Rerunning the generator reproduces the committed tables bit for bit.
if(KELVANE_TESTS AND NOT CMAKE_CROSSCOMPILING)
  add_test(NAME ImpulseTables.GeneratorReproducesCommittedDataBitForBit
    COMMAND ${CMAKE_COMMAND} -DGENERATOR=$<TARGET_FILE:make_impulse_tables>
            -DOUTPUT=${CMAKE_CURRENT_BINARY_DIR}/impulse_tables_rerun.bin
            -DEXPECTED=${PROJECT_SOURCE_DIR}/encoders/impulse_tables.bin
            -P ${CMAKE_CURRENT_LIST_DIR}/compare_generated.cmake)
endif()
