// The settings record of the engine set up for a test: every word given
// explicitly, after the record has been cleared, as a host would find it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "signal/processor.h"

// The words of the record that a test chooses. The defaults: no trims, no
// delay, bass redirection at 120 Hz but off, all switches on, 16-bit output.
struct SettingsWords {
    int32_t Mode = 0;
    int32_t Out_Bits = 16;
    int32_t Surround_Delay = 0;
    int32_t Centre_Width = 0;
    int32_t Centre_Trim = 0;
    int32_t Surround_Trim_00 = 0;
    int32_t Bass_Redir = 120;
    int32_t Bass_Redir_Enable = 0;
    int32_t Bass_Trim = 0;
    int32_t Bass_Invert = 0;
    int32_t Virtual_C = 0;
    int32_t L = 1;
    int32_t R = 1;
    int32_t C = 1;
    int32_t SL = 1;
    int32_t SR = 1;
};

inline void ApplySettings(const SettingsWords& s)
{
    std::memset(&ProcessorSettings, 0, sizeof(ProcessorSettings));
    const char16_t path[] = u"out_ds.dll";
    for (std::size_t i = 0; i < sizeof(path) / sizeof(path[0]); ++i)
        ProcessorSettings.Out_Plug[i] = WideChar(path[i]);
    ProcessorSettings.Mode = s.Mode;
    ProcessorSettings.Out_Bits = s.Out_Bits;
    ProcessorSettings.Surround_Delay = s.Surround_Delay;
    ProcessorSettings.Centre_Width = s.Centre_Width;
    ProcessorSettings.Centre_Trim = s.Centre_Trim;
    ProcessorSettings.Surround_Trim_00 = s.Surround_Trim_00;
    ProcessorSettings.Bass_Redir = s.Bass_Redir;
    ProcessorSettings.Bass_Redir_Enable = s.Bass_Redir_Enable;
    ProcessorSettings.Bass_Trim = s.Bass_Trim;
    ProcessorSettings.Bass_Invert = s.Bass_Invert;
    ProcessorSettings.Virtual_C = s.Virtual_C;
    ProcessorSettings.L = s.L;
    ProcessorSettings.R = s.R;
    ProcessorSettings.C = s.C;
    ProcessorSettings.SL = s.SL;
    ProcessorSettings.SR = s.SR;
}

// The defaults in the given mode.
inline void SetSettings(int32_t mode)
{
    SettingsWords s;
    s.Mode = mode;
    ApplySettings(s);
}
