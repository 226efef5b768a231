// One run of the renderer: a play-list played through the processor into
// WAV files, as a player would play it.
//
// The processor is driven through its record: Init, then per file Open,
// Write in blocks of 576 frames and Close, and Quit at the end. It is chained
// to out_wav, which writes one piece per Open into a private work folder.
// The pieces together are the processor's output stream, frame for frame
// the stream that went in; the outputs are cut from it at the inputs'
// boundaries, so each has its input's exact length, whatever the headphone
// convolver held back over a track change. Outputs are written under
// temporary names and renamed only when everything has succeeded.
#pragma once

#include <csignal>
#include <cstdint>
#include <string>
#include <vector>

#include "hosts/render/levels.h"
#include "hosts/render/plugin_host.h"
#include "platform/posix/reg_file.h"
#include "hosts/render/wav_file.h"

// Set by the signal handler; the run stops at the next block.
extern volatile std::sig_atomic_t RenderInterrupted;

// Frames per write, as a player sends them, and the largest write that the
// processor takes.
constexpr int kWriteFrames = 576;
constexpr int kMaxWriteFrames = 8192;

// The block of the headphone convolver: frames are held back until a whole
// block has come in, so a full block of silence behind the last frame lets
// go of everything held, whichever of the frames went into the convolver
// (a mono source, for one, bypasses it).
constexpr int kConvolverBlockFrames = 8192;
constexpr int kEndPaddingFrames = kConvolverBlockFrames;

struct OutputPlan {
    std::string path;            // final file name
    std::vector<size_t> inputs;  // indices of the inputs that go into it, in play-list order
};

struct RenderRequest {
    std::vector<std::string> inputs;  // the play-list
    std::vector<OutputPlan> outputs;  // every input in exactly one output
    std::vector<RegValue> settings;   // the processor's settings key for this run; Out_Plug names out_wav
    bool two_channel;                 // keep only L and R
    bool reset_between;               // Stop and Play between files
    bool show_progress;               // progress bar on standard error
    std::string report;               // level picture (SVG) to write, or empty
};

struct OutputSummary {
    std::string path;        // final file name
    WavFormat format;        // as written
    uint64_t frames;         // frames in the file
    ChannelLevels levels;    // over the whole file
};

struct RenderSummary {
    std::vector<OutputSummary> outputs;
    uint64_t input_frames;   // frames read from all inputs
    double audio_seconds;    // their duration
    double wall_seconds;     // time the run took
};

struct RenderContext {
    PluginSession* session;    // the processor, loaded, not yet Init
    std::string work_folder;   // private folder; XDG_CONFIG_HOME points here
};

// The processor's key in the registry stand-in: SOFTWARE\<maker>\<product>.
constexpr const char* kMakerKeyName = "Morrowfen";
constexpr const char* kProcessorKeyName = "Kelvane";

// Runs the request. False with a one-line `error`; then no output file of the
// request exists.
bool RunRender(const RenderRequest& request, RenderContext& context, RenderSummary& summary, std::string& error);


// Prints the closing summary of a run to `out`.
void PrintSummary(const RenderSummary& summary, std::FILE* out);
