# The packages that people download, made by `cpack` in a build folder (the
# target `package`, `make package` at the top):
#
#   Linux    out_kelvane-<version>-linux-<arch>.tar.gz: what `cmake --install`
#            puts in a prefix (kelvane-render, out_kelvane.so and out_wav.so,
#            the LV2 bundle, the manual page) under one top folder.
#   Windows  out_kelvane-<version>-windows.zip, to unpack into the player's
#            Plugins folder: the 32-bit out_kelvane.dll at the top, the 64-bit
#            one in x64\, and out_kelvane.txt on where to put it and how to
#            choose the output plug-in that it plays through.
#
# Binaries go in stripped. Read at the end of the top-level CMakeLists.txt.

set(CPACK_PACKAGE_NAME out_kelvane)
set(CPACK_PACKAGE_VENDOR ${KELVANE_MAKER})
set(CPACK_PACKAGE_VERSION ${KELVANE_VERSION_TEXT})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${KELVANE_PRODUCT}: a surround processor as an output plug-in")
set(CPACK_SOURCE_GENERATOR "")

if(WIN32)
  # One ZIP holds both Windows builds, so it is made from both folders; it
  # can be made in either once both DLLs are built. The other one is found
  # where its preset puts it.
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "64")
    set(KELVANE_WIN64_BUILD_DIR ${CMAKE_BINARY_DIR})
    set(KELVANE_WIN32_BUILD_DIR ${CMAKE_SOURCE_DIR}/build-win32 CACHE PATH
        "Build folder of the 32-bit DLL, whose DLL and text go in the ZIP's top folder")
  else()
    set(KELVANE_WIN32_BUILD_DIR ${CMAKE_BINARY_DIR})
    set(KELVANE_WIN64_BUILD_DIR ${CMAKE_SOURCE_DIR}/build-win64 CACHE PATH
        "Build folder of the 64-bit DLL, which goes in the ZIP's x64 folder")
  endif()

  # Each build installs its DLL at the top of its own prefix; the package
  # puts the 64-bit build's prefix in x64.
  install(TARGETS out_kelvane LIBRARY DESTINATION . COMPONENT plugin)
  # The text for people who unpack it, in Windows's line endings.
  configure_file(${CMAKE_CURRENT_LIST_DIR}/out_kelvane.txt.in ${CMAKE_BINARY_DIR}/package/out_kelvane.txt
                 @ONLY NEWLINE_STYLE CRLF)
  install(FILES ${CMAKE_BINARY_DIR}/package/out_kelvane.txt DESTINATION . COMPONENT guide)

  set(CPACK_GENERATOR ZIP)
  set(CPACK_PACKAGE_FILE_NAME out_kelvane-${KELVANE_VERSION_TEXT}-windows)
  # No folder around the files: the archive unpacks straight into Plugins.
  set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY OFF)
  set(KELVANE_PACKAGE_PARTS
    "${KELVANE_WIN32_BUILD_DIR}|plugin|." "${KELVANE_WIN32_BUILD_DIR}|guide|." "${KELVANE_WIN64_BUILD_DIR}|plugin|x64")
  # Both builds lay out their folders alike.
  get_target_property(kelvane_dll_dir out_kelvane BINARY_DIR)
  file(RELATIVE_PATH kelvane_dll ${CMAKE_BINARY_DIR} ${kelvane_dll_dir}/out_kelvane.dll)
  set(KELVANE_PACKAGE_REQUIRED ${KELVANE_WIN32_BUILD_DIR}/${kelvane_dll} ${KELVANE_WIN64_BUILD_DIR}/${kelvane_dll})
  set(KELVANE_PACKAGE_HOW_TO_BUILD
      "The ZIP holds the 32-bit and the 64-bit DLL: build both (scripts/windows/build.sh, or the presets windows-i686 and windows-x86_64), then make it again.")
else()
  set(CPACK_GENERATOR TGZ)
  string(TOLOWER "${CMAKE_SYSTEM_NAME}-${CMAKE_SYSTEM_PROCESSOR}" kelvane_package_system)
  set(CPACK_PACKAGE_FILE_NAME out_kelvane-${KELVANE_VERSION_TEXT}-${kelvane_package_system})
  set(KELVANE_PACKAGE_PARTS "${CMAKE_BINARY_DIR}|all|.")
  set(KELVANE_PACKAGE_REQUIRED "")
  set(KELVANE_PACKAGE_HOW_TO_BUILD "Build this folder first.")
endif()

# cpack itself would build every folder that it installs; the script below
# installs them as they are.
set(CPACK_INSTALL_CMAKE_PROJECTS "")
configure_file(${CMAKE_CURRENT_LIST_DIR}/package-install.cmake.in ${CMAKE_BINARY_DIR}/package/package-install.cmake
               @ONLY)
set(CPACK_INSTALL_SCRIPTS ${CMAKE_BINARY_DIR}/package/package-install.cmake)

include(CPack)
