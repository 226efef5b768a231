// out_wav's settings: the key HKEY_LOCAL_MACHINE\SOFTWARE\Morrowfen\OutWav
// in the registry stand-in and its values, named once for the plug-in that
// reads them and the renderer that writes them.
#pragma once

constexpr const char* kOutWavMakerName = "Morrowfen";
constexpr const char* kOutWavKeyName = "OutWav";
constexpr const char* kOutFileValue = "Out_File";          // string: the file to write
constexpr const char* kOutChannelsValue = "Out_Channels";  // dword: keep only the first channels of each frame
constexpr const char* kOutFormatValue = "Out_Format";      // dword: libsndfile's major format (WAV, WAVEX, W64, RF64)
