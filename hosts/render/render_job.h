// One run of the renderer: a play-list played through the processor into
// files, as a player would play it.
//
// The processor is driven through its record: Init, then per file Open,
// Write in blocks of 576 frames and Close, and Quit at the end. It is chained
// to out_wav, which writes one piece per Open into a private work folder.
// The pieces together are the processor's output stream, frame for frame
// the stream that went in; the outputs are cut from it at the inputs'
// boundaries, so each has its input's exact length, whatever the headphone
// convolver held back over a track change.
//
// Where an output takes one input whole, in its processor's word and in a
// container that holds the words as they come, out_wav writes it straight
// into the output's temporary file and the silence behind it is cut off at
// the end: nothing is copied.
//
// Beside the plug-in an engine of the renderer's own gets the same writes,
// so that the levels before the output conversion, which the PCM can no
// longer show, are known: the samples that went over full scale, and the
// largest level, from which --normalize takes its gain in a first pass
// through that engine alone. A run that shows and uses none of the levels
// builds no meter and measures nothing.
//
// Outputs are written under temporary names and reach their places only
// when everything has succeeded.
#pragma once

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "hosts/render/levels.h"
#include "hosts/render/output_target.h"
#include "hosts/render/plugin_host.h"
#include "hosts/render/render_options.h"
#include "hosts/render/sound_file.h"
#include "platform/posix/reg_file.h"

// Set by the signal handler; the run stops at the next block.
extern volatile std::sig_atomic_t RenderInterrupted;

// Frames per write, as a player sends them, and the largest write that the
// processor takes.
constexpr int kWriteFrames = 576;
constexpr int kMaxWriteFrames = 8192;
static_assert(kWriteFrames <= kMaxWriteFrames, "a write must stay within what the processor takes");

// The block of the headphone convolver: frames are held back until a whole
// block has come in, so a full block of silence behind the last frame lets
// go of everything held, whichever of the frames went into the convolver
// (a mono source, for one, bypasses it).
constexpr int kConvolverBlockFrames = 8192;
constexpr int kEndPaddingFrames = kConvolverBlockFrames;

// Where --normalize puts the largest level before the output conversion.
constexpr double kNormalizeTargetDb = -0.1;

struct OutputPlan {
    OutputTarget target;         // where it goes
    std::vector<size_t> inputs;  // indices of the inputs that go into it, in play-list order
    Container container;         // the file's type
    SampleWord word;             // its word; bits 0 to follow its first input
};

struct RenderRequest {
    std::vector<std::string> inputs;       // the play-list, as files to read
    std::vector<std::string> input_names;  // the same, as the user named them
    std::vector<OutputPlan> outputs;       // every input in exactly one output
    std::vector<RegValue> settings;        // the processor's key for this run; Out_Plug names out_wav;
                                           // the run sets Out_Bits
    bool mono_as_stereo;                   // feed mono files as two equal channels
    bool downmix;                          // fold 3, 7 or 8 channels
    bool resample;                         // the headphone mode off its rates goes through 48 kHz
    double gain_db;                        // before the processor
    bool normalize;                        // choose gain_db in a first pass
    bool dither;                           // TPDF dither when a word gets shorter
    bool two_channel;                      // keep only L and R
    bool reset_between;                    // Stop and Play between files
    bool show_progress;                    // progress bar on standard error
    bool measure;                          // levels and clipped samples are wanted: for the summary, the
                                           // warnings, --normalize, --fail-on-clip or the report
    OutputTarget* report;                  // level picture (.svg or .png), or null
};

// What happened to one input on its way through.
struct InputSummary {
    std::string name;           // as the user named it
    int file_rate;              // its own rate
    int rate;                   // the rate the processor got
    int channels;               // the channels the processor got
    int bits;                   // the depth the processor got
    uint64_t frames;            // frames read from it
    bool truncated;             // it held less than its header said
    uint64_t input_overs;       // samples limited to full scale after the gain or the mix
    OverCounts processed;       // before the output conversion, at the processor's rate
};

struct OutputSummary {
    std::string name;           // as the user named it
    Container container;
    int format;                 // libsndfile's format as written
    int rate;
    int channels;
    SampleWord word;
    bool dithered;              // the words were shortened with dither
    uint64_t frames;            // frames in the file
    ChannelLevels levels;       // of the samples in the file
    double peak[6];             // largest level before the conversion, per channel
    uint64_t overs[6];          // samples over full scale, per channel
};

struct RenderSummary {
    std::vector<InputSummary> inputs;
    std::vector<OutputSummary> outputs;
    int processor_bits;         // Out_Bits handed to the processor
    double gain_db;             // the gain applied before the processor
    double gain_limit_db;       // with --normalize: the most that the inputs' peaks allowed
    bool gain_limited;          // --normalize wanted more than that
    uint64_t input_frames;      // frames read from all inputs
    double audio_seconds;       // their duration
    double wall_seconds;        // time the run took
};

struct RenderContext {
    PluginSession* session;    // the processor, loaded, not yet Init
    std::string work_folder;   // private folder; XDG_CONFIG_HOME points here
};

// The processor's key in the registry stand-in: SOFTWARE\<maker>\<product>.
constexpr const char* kMakerKeyName = "Morrowfen";
constexpr const char* kProcessorKeyName = "Kelvane";

// Runs the request and leaves the outputs finished under their temporary
// names, each plan's word decided. False with a one-line `error`; then no
// output of the request is in its place.
bool RunRender(RenderRequest& request, RenderContext& context, RenderSummary& summary, std::string& error);

// Puts the finished outputs in their places. False with `error`.
bool CommitOutputs(RenderRequest& request, std::string& error);

// Removes whatever of the outputs is still under a temporary name.
void DiscardOutputs(RenderRequest& request);

// The samples over full scale in all outputs.
uint64_t TotalOvers(const RenderSummary& summary);

// The input samples that the gain or a downmix took past full scale.
uint64_t InputOvers(const RenderSummary& summary);

// The gain in dB, rounded down to a tenth, that brings the largest level
// before the conversion in `summary` to kNormalizeTargetDb.
double SuggestedGainDb(const RenderSummary& summary);

// Prints the closing summary of a run to `out`.
void PrintSummary(const RenderSummary& summary, std::FILE* out);

// The warnings about clipped samples, one line per channel and output.
void ReportOvers(const RenderSummary& summary);
