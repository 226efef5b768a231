# Cross build for 32-bit Windows, the plug-in's real target, with Debian's MinGW-w64.
set(KELVANE_MINGW_TRIPLET i686-w64-mingw32)
set(CMAKE_SYSTEM_PROCESSOR i686)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64-common.cmake)
