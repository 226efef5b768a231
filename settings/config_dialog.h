// The configuration dialog's logic. Every control works on the live
// ProcessorSettings at once; the audio hears a change at its next write. OK
// stores the record, Cancel reads the stored one back over it.
#pragma once

#include <cstdint>

#include "platform/platform.h"

// The mode and channel count that the status text last showed; 0 at each
// opening of the dialog.
extern int32_t Last_Mode;
extern uint32_t Last_Channels;

INT_PTR CALLBACK ConfigDialogProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam);
void InitControls(HWND dialog);
void RefreshControls(HWND dialog);
