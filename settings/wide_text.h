// Small helpers for the 16-bit wide text of the settings and the dialog.
#pragma once

#include <cstdint>

#include "signal/processor.h"

// A wide text literal of the platform's wide character type.
#ifdef _WIN32
#define KELVANE_TEXT(s) L##s
#else
#define KELVANE_TEXT(s) u##s
#endif
// The same for a macro that stands for a literal: the argument is expanded first.
#define KELVANE_TEXT_OF(s) KELVANE_TEXT(s)

// Characters before the terminator.
inline uint32_t WideLength(const WideChar* text)
{
    uint32_t length = 0;
    while (text[length] != 0)
        ++length;
    return length;
}

// Copies at most count - 1 characters and always terminates, so `count` is
// the bound including the terminator.
inline void WideCopyBounded(WideChar* target, const WideChar* source, uint32_t count)
{
    if (count == 0)
        return;
    uint32_t i = 0;
    for (; i + 1 < count && source[i] != 0; ++i)
        target[i] = source[i];
    target[i] = 0;
}

inline bool WideEqual(const WideChar* a, const WideChar* b)
{
    uint32_t i = 0;
    for (; a[i] != 0 && a[i] == b[i]; ++i) {
    }
    return a[i] == b[i];
}

// The value in decimal, with a minus sign when negative; `target` holds at
// least 12 characters.
inline void WideFromInt(WideChar* target, int32_t value)
{
    // Widen first so that the most negative value has a magnitude.
    int64_t magnitude = value;
    uint32_t at = 0;
    if (magnitude < 0) {
        target[at++] = '-';
        magnitude = -magnitude;
    }
    WideChar digits[12];
    uint32_t count = 0;
    do {
        digits[count++] = WideChar('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    while (count > 0)
        target[at++] = digits[--count];
    target[at] = 0;
}
