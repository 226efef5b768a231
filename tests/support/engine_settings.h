// The settings record of the engine set up for a test: every word given
// explicitly, after the record has been cleared, as a host would find it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "signal/processor.h"
#include "tests/support/test_engine.h"

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

inline void ApplySettings(const SettingsWords& s, ProcessorSettingsRecord& target = TestSettings())
{
    std::memset(&target, 0, sizeof(target));
    const char16_t path[] = u"out_ds.dll";
    for (std::size_t i = 0; i < sizeof(path) / sizeof(path[0]); ++i)
        target.Out_Plug[i] = WideChar(path[i]);
    target.Mode = s.Mode;
    target.Out_Bits = s.Out_Bits;
    target.Surround_Delay = s.Surround_Delay;
    target.Centre_Width = s.Centre_Width;
    target.Centre_Trim = s.Centre_Trim;
    target.Surround_Trim_00 = s.Surround_Trim_00;
    target.Bass_Redir = s.Bass_Redir;
    target.Bass_Redir_Enable = s.Bass_Redir_Enable;
    target.Bass_Trim = s.Bass_Trim;
    target.Bass_Invert = s.Bass_Invert;
    target.Virtual_C = s.Virtual_C;
    target.L = s.L;
    target.R = s.R;
    target.C = s.C;
    target.SL = s.SL;
    target.SR = s.SR;
}

// The defaults in the given mode.
inline void SetSettings(int32_t mode)
{
    SettingsWords s;
    s.Mode = mode;
    ApplySettings(s);
}
