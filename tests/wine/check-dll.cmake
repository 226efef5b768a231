cmake_minimum_required(VERSION 3.25)
# Checks the export and import tables of out_kelvane.dll with objdump -p:
# the one export winampGetOutModule, and imports of system DLLs only.
#   cmake -DOBJDUMP=... -DDLL=... -P check-dll.cmake
execute_process(COMMAND ${OBJDUMP} -p ${DLL} OUTPUT_VARIABLE dump RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "objdump -p ${DLL} failed")
endif()

# The names stand in the name table of the export section, which ends at
# the next empty line.
string(FIND "${dump}" "[Ordinal/Name Pointer] Table" at)
set(exports "")
if(at GREATER -1)
  string(SUBSTRING "${dump}" ${at} -1 table)
  string(FIND "${table}" "\n\n" end)
  string(SUBSTRING "${table}" 0 ${end} table)
  string(REGEX MATCHALL "\\[ *[0-9]+\\] [A-Za-z_][A-Za-z0-9_@]*\n" exports "${table}\n")
endif()
list(TRANSFORM exports REPLACE "^\\[ *[0-9]+\\] ([^\n]*)\n$" "\\1")
message(STATUS "exports: ${exports}")
if(NOT exports STREQUAL "winampGetOutModule")
  message(FATAL_ERROR "out_kelvane.dll must export winampGetOutModule and nothing else; it exports: ${exports}")
endif()

string(REGEX MATCHALL "DLL Name: [^\n]+" imports "${dump}")
list(TRANSFORM imports REPLACE "DLL Name: " "")
message(STATUS "imports: ${imports}")
set(allowed kernel32.dll user32.dll advapi32.dll comdlg32.dll comctl32.dll gdi32.dll msvcrt.dll ucrtbase.dll)
foreach(import ${imports})
  string(TOLOWER ${import} name)
  if(NOT name IN_LIST allowed AND NOT name MATCHES "^api-ms-win-crt-")
    message(FATAL_ERROR "out_kelvane.dll imports ${import}, which is not a system DLL")
  endif()
endforeach()
if(NOT imports)
  message(FATAL_ERROR "no import table found in ${DLL}")
endif()
message(STATUS "1 passed, 0 failed")
