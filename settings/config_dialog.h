// The configuration dialog's logic. Every control works on the live settings
// record at once; the audio hears a change at its next write. OK stores the
// record, Cancel reads the stored one back over it.
#pragma once

#include <cstdint>

#include "platform/platform.h"
#include "signal/processor.h"

// What the dialog works on, all of it the plug-in's own: handed over as the
// parameter of DialogBoxParamW and used until the dialog ends.
struct ConfigDialogContext {
    ProcessorSettingsRecord* Settings;  // the live settings; every control writes here at once
    const StreamWords* Stream;          // the running stream, for the status text
    uint32_t* Reload_Needed;            // set when Select accepts a new chained plug-in
    int32_t Last_Mode;                  // the mode the status text last showed; 0 at each opening
    uint32_t Last_Channels;             // the channel count it last showed; 0 at each opening
};

INT_PTR CALLBACK ConfigDialogProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam);
void InitControls(HWND dialog);
void RefreshControls(HWND dialog);
