// The link to the chained output plug-in: the real output that this plug-in
// stands in front of. The host's PCM goes through the engine and reaches the
// chained plug-in as six channels of Output_Bits bits.
#pragma once

#include <cstdint>

#include "engine/engine.h"
#include "platform/platform.h"
#include "shell/out_module.h"
#include "signal/processor.h"

struct ChainedOutputRecord {
    WNDPROC Window_Proc;     // the host window's procedure before the hook
    HMODULE Library;         // the chained plug-in's library, 0 when none
    uint32_t Reload_Needed;  // load anew at the next Open; cleared by a successful load
    StreamWords Stream;      // Stream_Channels, Stream_Bits, Stream_Rate, Output_Bits of the last Open
    Out_Module Module;       // copy of the chained record as it stood at the load
};

// The plug-in's one instance, static objects that live as long as the
// library (defined together in plugin_state.cpp).
//
// The engine: built at library load, where every FFT plan is made.
extern Engine PluginEngine;
// Takes SL and SR of each headphone block beside the player's thread, from
// Init to Quit, where threads can be started (not in the Windows DLL).
extern BlockHelper PluginHelper;
// The live settings: all zeros at library load, filled by LoadSettings at
// Init; written by the dialog (interface thread), read by every write.
extern ProcessorSettingsRecord ProcessorSettings;
// Zero at library load.
extern ChainedOutputRecord ChainedOutput;
// Set by the host window hook on Play and Stop; honoured and cleared by the
// next Open or Close.
extern uint32_t Reset_Pending;

extern Out_Module OwnModule;

// Loads the library named by Out_Plug and copies its record. 1 on success,
// 0 when the library does not load. The export is deliberately not tested:
// only paths that passed the dialog's test are ever stored.
int LoadChainedOutput();

// Slots of OwnModule.
int Open(int samplerate, int numchannels, int bitspersamp, int bufferlenms, int prebufferms);
void Close();
int Write(char* buf, int len);
int CanWrite();
int IsPlaying();
int Pause(int pause);
void SetVolume(int volume);
void SetPan(int pan);
void Flush(int t);
int GetOutputTime();
int GetWrittenTime();
void Init();
void Quit();

LRESULT CALLBACK HostWindowHook(HWND window, UINT message, WPARAM wParam, LPARAM lParam);
