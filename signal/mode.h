// The six processing modes, by the index that the settings, the registry and
// the dialog's list all use. Mode is a plain 32-bit setting: any other value
// can reach the dispatcher and is handled there.
#pragma once

#include <cstdint>

enum ProcessingMode : int32_t {
    kModeBypass = 0,             // "Bypass": the pass-through gain only
    kModeFixedMatrix = 1,        // "Kelvane+C (3/1) = L,R,C,S"
    kModeSteered = 2,            // "Kelvane-AS (3/1) = L,R,C,S": one surround
    kModeSteeredTwoSurround = 3, // "Kelvane-ASr (3/2) = L,R,C,SL,SR"
    kModeHeadphone = 4,          // "Kelvane Headphone (2/0) = L,R"
    kModeEncode = 5,             // "Kelvane Encode (2/0) = L,R"
};
constexpr int32_t kModeCount = 6;

// The labels under which the user sees the modes, by index. A list macro, so
// that each program spells them in its own text type: KELVANE_MODE_LABELS(F)
// expands to F("Bypass") F("Kelvane+C ...") and so on, in mode order.
#define KELVANE_MODE_LABELS(F)             \
    F("Bypass")                            \
    F("Kelvane+C (3/1) = L,R,C,S")         \
    F("Kelvane-AS (3/1) = L,R,C,S")        \
    F("Kelvane-ASr (3/2) = L,R,C,SL,SR")   \
    F("Kelvane Headphone (2/0) = L,R")     \
    F("Kelvane Encode (2/0) = L,R")

#define KELVANE_MODE_LABEL_ITEM(label) label,
// The labels as 8-bit text.
constexpr const char* kModeLabels[kModeCount] = {KELVANE_MODE_LABELS(KELVANE_MODE_LABEL_ITEM)};

// The Headphone mode's sample rates, inclusive, compared as signed numbers.
constexpr int32_t kHeadphoneRateLow = 44100;
constexpr int32_t kHeadphoneRateHigh = 48000;

constexpr bool IsHeadphoneRate(int32_t sampleRate)
{
    return sampleRate >= kHeadphoneRateLow && sampleRate <= kHeadphoneRateHigh;
}
