# Turns a binary file into a C++ source holding its bytes as an initialised
# array. Run at build time: cmake -DINPUT=... -DOUTPUT=... -P embed_binary.cmake
file(READ "${INPUT}" hex HEX)
string(LENGTH "${hex}" hex_length)
math(EXPR byte_count "${hex_length} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
# Break the one long line every 32 bytes so that compilers and editors cope.
string(REGEX REPLACE "((0x[0-9a-f][0-9a-f],){32})" "\\1\n" bytes "${bytes}")
file(WRITE "${OUTPUT}.tmp"
  "// Generated from ${INPUT}; do not edit.\n"
  "#include \"encoders/impulse_tables.h\"\n"
  "static_assert(${byte_count} == kImpulseTableBytes, \"impulse table data has the wrong size\");\n"
  "alignas(16) extern const unsigned char ImpulseTableData[kImpulseTableBytes] = {\n${bytes}\n};\n")
file(RENAME "${OUTPUT}.tmp" "${OUTPUT}")
