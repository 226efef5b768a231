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

// What to do with an output that exists already.
enum class Overwrite {
    Ask,     // neither -y nor -n: ask on a terminal, refuse otherwise
    Always,  // -y
    Never,   // -n
};

// The word of an output file: integer bits, or 32-bit float.
struct SampleWord {
    int bits;       // 16, 24 or 32; 0 when not chosen
    bool floating;  // 32-bit IEEE float (bits is then 32)
};

struct RenderOptions {
    std::vector<std::string> inputs;         // audio files in play-list order; "-" is standard input
    std::string output;                      // one output file ("-" for standard output), or empty with output_dir
    std::string output_dir;                  // -o DIR: one file per input
    std::vector<SettingOverride> overrides;  // settings for this run only, in command-line order
    Overwrite overwrite;                     // -y, -n or neither
    std::string format;                      // --format: container name, or empty to go by the extension
    SampleWord out_word;                     // --out-bits, or bits 0 to follow the settings or the input
    bool dither;                             // TPDF dither when the word gets shorter (--no-dither clears it)
    bool two_channel;                        // keep only L and R in the output files
    bool reset_between;                      // Stop and Play between the files of the play-list
    bool gapless;                            // -o DIR: run on from file to file as a play-list
    bool mono_as_stereo;                     // feed a mono file as two equal channels
    bool downmix;                            // fold 3, 7 or 8 channels to a layout the processor takes
    bool resample;                           // headphone mode off its rates: through 48 kHz (--no-resample clears it)
    double gain_db;                          // --gain: applied to the input before the processor
    bool has_gain;                           // --gain was given
    bool normalize;                          // --normalize: two passes, the largest level at -0.1 dBFS
    bool fail_on_clip;                       // --fail-on-clip: a clipped render fails
    bool quiet;                              // -q: errors only
    bool verbose;                            // -v: also the processor's messages and the host's calls
    std::string report;                      // --report FILE.svg or FILE.png, or empty
    std::string demo_dir;                    // --demo DIR, or empty
    std::string plugin;                      // --plugin PATH: the processor, or empty to search
    std::string out_wav;                     // --out-wav PATH: the writer, or empty to search
    int jobs;                                // -j N: processes side by side for -o DIR, 0 when not given
    bool help;
    bool version;
};

// Exit statuses, as --help lists them.
constexpr int kExitSuccess = 0;
constexpr int kExitFailure = 1;      // an input, output or plug-in problem; nothing is written, but for
                                     // the other files of a folder of outputs when an input cannot be read
constexpr int kExitUsage = 2;        // the command line cannot be used
constexpr int kExitClipped = 3;      // --fail-on-clip and a sample went over full scale
constexpr int kExitInterrupted = 130;

// The most processes that -j takes.
constexpr int kMaxJobs = 256;

// The range of --gain, in decibels.
constexpr double kGainLimitDb = 60.0;

// Parses argv[1..]. False with a one-line `error` for anything it cannot use.
bool ParseRenderArgs(int argc, const char* const* argv, RenderOptions& options, std::string& error);

// The mode index for a number 0..5 or a mode's name ("bypass", "kelvane+c",
// "as", "asr", "headphone", "encode", in any case); -1 when unknown.
int ParseModeName(const std::string& text);

// The label of a mode, as the dialog shows it; "?" out of range.
const char* ModeLabel(int mode);

// The name that --mode takes and --help lists: "bypass", "kelvane+c", "as",
// "asr", "headphone", "encode"; "?" out of range.
const char* ModeName(int mode);

// The same name made fit for a file name ("kelvane+c" becomes "plus-c").
const char* ModeFileName(int mode);

// Applies the overrides to the values of a copy of the settings key.
void ApplyOverrides(const std::vector<SettingOverride>& overrides, std::vector<RegValue>& values);

// The mode that a set of values gives the processor, with the processor's
// default (3) for a missing value.
int EffectiveMode(const std::vector<RegValue>& values);

// The numeric settings of the processor's key, in the order of the key, with
// the processor's default for each.
struct SettingDefault {
    const char* name;
    int32_t value;
};
const std::vector<SettingDefault>& ProcessorSettingDefaults();

// A setting as the processor will see it, and where its value came from.
struct SettingInForce {
    std::string name;
    int32_t value;
    const char* source;  // "option", "saved" or "default"
};

// Every numeric setting of the processor's key, from the command line's
// overrides, else the saved values, else the defaults.
std::vector<SettingInForce> SettingsInForce(const std::vector<RegValue>& saved,
                                            const std::vector<SettingOverride>& overrides);

// The usage text printed by --help. `settings_file` is where the saved
// settings are read from.
std::string RenderUsage(const std::string& settings_file);
