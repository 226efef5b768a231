// The live configuration, the stream words latched at Open, and the record
// that carries one write through the stages.
//
// The plug-in holds one settings record, the user's settings: the dialog
// writes it, every write reads it word by word, unlocked. A ProcessorBlock is
// built afresh for each write from those words and the stream latched at
// Open; the changes made on the way (mode 4 clearings, the +3 dB surround
// offset) touch the copy only and never outlive the write.
#pragma once

#include <cstdint>

#include "signal/sample_block.h"

// Wide text is 16-bit, as on the host's platform.
#ifdef _WIN32
using WideChar = wchar_t;
#else
using WideChar = char16_t;
#endif

constexpr uint32_t kOutPlugChars = 256;  // path buffer, at most 254 characters and a terminator

struct ProcessorSettingsRecord {
    WideChar Out_Plug[kOutPlugChars];  // chained plug-in: path or bare file name
    int32_t Mode;               // processing mode 0..5
    int32_t Out_Bits;           // output word size in bits: 16, 24, 32
    int32_t Surround_Delay;     // milliseconds
    int32_t Centre_Width;       // percent
    int32_t Centre_Trim;        // decibels
    int32_t Surround_Trim_00;   // decibels
    int32_t Bass_Redir;         // crossover in hertz
    int32_t Bass_Redir_Enable;  // 0 = off
    int32_t Bass_Trim;          // decibels
    int32_t Bass_Invert;        // 0 = in phase
    int32_t Virtual_C;          // 0 = real centre speaker
    int32_t L;                  // speaker switches, multipliers 0 or 1
    int32_t R;
    int32_t C;
    int32_t SL;
    int32_t SR;
};

// The sixteen number settings in the record's order, each with the value it
// takes when the registry does not hold it. A list macro: F(name, default)
// for each, so that the store, the dialog and our hosts spell the names in
// their own text type from this one list.
#define KELVANE_NUMBER_SETTINGS(F)                                                     \
    F(Mode, 3)                                                                         \
    F(Out_Bits, 16)                                                                    \
    F(Surround_Delay, 10)                                                              \
    F(Centre_Width, 0)                                                                 \
    F(Centre_Trim, 0)                                                                  \
    F(Surround_Trim_00, 0)                                                             \
    F(Bass_Redir, 120)                                                                 \
    F(Bass_Redir_Enable, 0)                                                            \
    F(Bass_Trim, 0)                                                                    \
    F(Bass_Invert, 0)                                                                  \
    F(Virtual_C, 0)                                                                    \
    F(L, 1)                                                                            \
    F(R, 1)                                                                            \
    F(C, 1)                                                                            \
    F(SL, 1)                                                                           \
    F(SR, 1)

// The stream words latched at Open.
struct StreamWords {
    uint32_t Stream_Channels;  // source channels
    uint32_t Stream_Bits;      // source bits per sample
    int32_t Stream_Rate;       // sample rate in hertz
    uint32_t Output_Bits;      // Out_Bits as it stood at Open
};

struct ProcessorBlock {
    int32_t Mode;               // processing mode
    int32_t Surround_Delay;     // milliseconds, 0 = none
    int32_t Centre_Width;       // percent, read as a float by the steered decoder
    int32_t Centre_Trim;        // decibels; cleared in mode 4
    int32_t Surround_Trim_00;   // decibels; cleared in mode 4, then +3 in every mode
    int32_t Bass_Redir;         // hertz
    int32_t Bass_Redir_Enable;  // cleared in mode 4
    int32_t Bass_Trim;          // decibels
    int32_t Bass_Invert;        // non-zero inverts the redirected bass
    int32_t Virtual_C;          // non-zero folds the centre into the fronts; cleared in mode 4
    int32_t L;                  // switch of slot 0, a multiplier
    int32_t R;                  // switch of slot 1
    int32_t C;                  // switch of slot 2
    int32_t SL;                 // switch of slot 4
    int32_t SR;                 // switch of slot 5
    int32_t Out_Channels;       // what the dispatcher decided; read by nobody
    int32_t In_Channels;        // channels of the source
    int32_t Sample_Rate;        // hertz
    uint32_t Frames;            // frames in the block; changed by the convolver and the tail
    SampleBlock* Block;         // the frames; the engine's FrameBlock on the player's path
};
