// The command line of kelvane-render and how its options become values of
// the processor's settings key.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/posix/reg_file.h"

// One setting given on the command line, by its registry value name.
struct SettingOverride {
    std::string name;  // e.g. "Surround_Delay"
    int32_t value;
};

struct RenderOptions {
    std::vector<std::string> inputs;         // audio files, in play-list order
    std::string output;                      // one output file, or empty with output_dir
    std::string output_dir;                  // -o DIR: one file per input
    std::vector<SettingOverride> overrides;  // settings for this run only, in command-line order
    bool two_channel;                        // keep only L and R in the output files
    bool reset_between;                      // Stop and Play between the files of the play-list
    bool quiet;                              // no progress bar
    std::string report;                      // --report FILE.svg, or empty
    std::string demo_dir;                    // --demo DIR, or empty
    std::string plugin;                      // --plugin PATH: the processor, or empty to search
    std::string out_wav;                     // --out-wav PATH: the writer, or empty to search
    int jobs;                                // -j N: processes side by side, 0 for one per core
    bool help;
    bool version;
};

// The most processes that -j takes.
constexpr int kMaxJobs = 256;

// Parses argv[1..]. False with a one-line `error` for anything it cannot use.
bool ParseRenderArgs(int argc, const char* const* argv, RenderOptions& options, std::string& error);

// The mode index for a number 0..5 or a mode's name ("bypass", "kelvane+c",
// "as", "asr", "headphone", "encode", in any case); -1 when unknown.
int ParseModeName(const std::string& text);

// The label of a mode, as the dialog shows it; "?" out of range.
const char* ModeLabel(int mode);

// A short name for file names: "bypass", "plus-c", "as", "asr", "headphone", "encode".
const char* ModeShortName(int mode);

// Applies the overrides to the values of a copy of the settings key.
void ApplyOverrides(const std::vector<SettingOverride>& overrides, std::vector<RegValue>& values);

// The mode and the output word size that a set of values gives the processor,
// with the processor's defaults (3 and 16) for missing values.
int EffectiveMode(const std::vector<RegValue>& values);
int EffectiveOutBits(const std::vector<RegValue>& values);

// The usage text printed by --help.
const char* RenderUsage();
