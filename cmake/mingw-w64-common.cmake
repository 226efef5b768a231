# Shared part of the two MinGW-w64 toolchain files. The including file sets
# KELVANE_MINGW_TRIPLET and CMAKE_SYSTEM_PROCESSOR first.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_VERSION 6.1)

# Debian ships each compiler in a win32-thread and a posix-thread flavour.
# The plug-in starts no thread, so the win32 flavour, which needs no
# winpthread DLL, is taken whenever it is installed.
foreach(tool gcc g++)
  find_program(KELVANE_MINGW_${tool} NAMES ${KELVANE_MINGW_TRIPLET}-${tool}-win32
                                           ${KELVANE_MINGW_TRIPLET}-${tool})
endforeach()
set(CMAKE_C_COMPILER ${KELVANE_MINGW_gcc})
set(CMAKE_CXX_COMPILER ${KELVANE_MINGW_g++})
set(CMAKE_RC_COMPILER ${KELVANE_MINGW_TRIPLET}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${KELVANE_MINGW_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Every binary is self-contained: libgcc, libstdc++ and the rest of the
# compiler's runtime are linked in, so the DLL imports only system DLLs and
# the test programs run under Wine without the toolchain's DLLs on a path.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")

# Test programs run under Wine; the one 'wine' launcher starts 32-bit and
# 64-bit executables alike.
find_program(KELVANE_WINE NAMES wine)
if(KELVANE_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${KELVANE_WINE})
endif()

# The Windows-only part of the build (FFTW, resources, the DLL's link rules,
# the tests under Wine) joins the project from here, so that the project's
# own CMakeLists.txt needs no Windows branch of its own.
set(CMAKE_PROJECT_out_kelvane_INCLUDE ${CMAKE_CURRENT_LIST_DIR}/windows-project.cmake)
