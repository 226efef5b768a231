# The Windows side of the build, read right after project(out_kelvane) in a
# MinGW-w64 cross build (the toolchain files name it). It provides FFTW
# before the project looks for it, and hands the rest - the DLL's resources
# and link rules, the programs and tests that run under Wine - to files that
# are read once every target of the project stands.

# FFTW: a static single-precision library built from Debian's source package,
# kept inside the build folder so that it is built once per folder.
set(KELVANE_FFTW_PREFIX ${CMAKE_BINARY_DIR}/fftw/install CACHE PATH
    "Install prefix of the static single-precision FFTW for this target")
if(NOT EXISTS ${KELVANE_FFTW_PREFIX}/lib/libfftw3f.a)
  message(STATUS "Building FFTW for ${KELVANE_MINGW_TRIPLET} in ${KELVANE_FFTW_PREFIX} (about 80 s)")
  execute_process(
    COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/../scripts/windows/build-fftw.sh
            ${KELVANE_MINGW_TRIPLET} ${KELVANE_FFTW_PREFIX}
    RESULT_VARIABLE kelvane_fftw_result)
  if(NOT kelvane_fftw_result EQUAL 0)
    message(FATAL_ERROR "FFTW for ${KELVANE_MINGW_TRIPLET} could not be built; "
                        "has scripts/windows/setup.sh run on this machine?")
  endif()
endif()

# The resource compiler, for the dialog, bitmap and version of the DLL.
enable_language(RC)

# The tests of this build run under Wine and are registered at the top of the
# build tree, so that 'ctest --preset ...' finds them.
enable_testing()

# Arguments of a deferred call are expanded when it runs, so the path is
# fixed now.
cmake_language(EVAL CODE "
  cmake_language(DEFER DIRECTORY [[${CMAKE_SOURCE_DIR}]]
    CALL include [[${CMAKE_CURRENT_LIST_DIR}/windows-plugin.cmake]])")
