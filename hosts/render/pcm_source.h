// Audio files as a player hands them to an output plug-in: interleaved
// integer PCM, 8-bit unsigned, the others signed little-endian.
//
// A file of 8, 16, 24 or 32-bit integers goes at its own depth, word for
// word, so that the processor sees exactly what a player would give it.
// Whatever the renderer has to change first (a gain, a mono file fed as
// stereo, a downmix, a rate the headphone mode takes) is worked out in
// double precision and handed on in words of 32 bits (24 for four channels,
// which the processor reads at 32 bits with a stride of five); float and
// compressed files go the same way.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <future>
#include <string>
#include <vector>

#include <sndfile.h>

#include "hosts/render/resampler.h"

// The rate that the headphone mode is fed at when the file's own rate is
// outside what it takes.
constexpr int kResampleRate = 48000;

// Full scale of the integers that libsndfile reads and writes: every word
// size left-aligned in 32 bits.
constexpr double kInt32FullScale = 2147483648.0;

// How an input is to be changed on its way to the processor.
struct FeedPlan {
    bool mono_as_stereo;  // one channel becomes two equal ones
    bool downmix;         // 3 channels to 2, 7 or 8 to 6
    double gain;          // linear, 1.0 for none
    bool keep_words;      // the file's words may go as they are when nothing changes them
    int rate;             // rate handed on: the file's, or kResampleRate
};

struct PcmSource {
    SNDFILE* file;              // open libsndfile handle
    std::string path;           // for messages
    int file_rate;              // the file's frames per second
    int file_channels;          // the file's channels
    int file_bits;              // the file's integer depth, 0 for float and compressed samples
    int file_format;            // libsndfile's format of the file
    bool file_float;            // the file holds floats
    int64_t frames;             // length as the file states it; -1 when unknown
    bool truncated;             // the file's header promises more than it holds
    struct stat opened;         // the file as it stood when it was opened

    // What the processor gets.
    int rate;                   // frames per second
    int channels;               // 1, 2, 4, 5 or 6
    int bits;                   // bits per sample
    bool exact;                 // the file's own words, unchanged
    bool raw;                   // exact, and the file's data bytes are those words as they stand

    FeedPlan plan;
    std::vector<double> mix;    // downmix matrix, channels x file_channels, row-major
    uint64_t frames_read;       // frames taken from the file
    uint64_t frames_fed;        // frames handed on
    uint64_t overs;             // samples beyond full scale after the gain or the mix, limited to it
    double peak;                // largest magnitude handed on, full scale 1.0, when measured
    bool at_end;                // the file has given everything

    Resampler resampler;          // to kResampleRate, when the plan asks for it
    std::vector<double> pending;  // frames x channels that came out of it, not handed on yet

    std::vector<uint8_t> read_ahead;  // raw: bytes read from the file, whole frames
    size_t read_at;                   // raw: the first of them not handed on yet
    std::vector<uint8_t> reading;     // raw: the next bytes, being read on a thread of their own
    std::future<sf_count_t> read;     // raw: that read, when one is under way
    std::vector<int32_t> ints;    // scratch for integer reads
    std::vector<double> doubles;  // scratch
    std::vector<double> mixed;    // scratch
};

// Opens a file and learns its form. False with a one-line `error` for a
// missing, unreadable or unsupported file. Channel counts other than 1, 2,
// 4, 5 and 6 are accepted here; PlanPcmSource decides about them.
bool OpenPcmSource(const std::string& path, PcmSource& source, std::string& error);

// Decides what the processor gets from the file. False with `error` when
// the file cannot be fed as planned (three channels without a downmix ...).
bool PlanPcmSource(PcmSource& source, const FeedPlan& plan, std::string& error);

// True when the file is still the one that was opened, as it was: in its
// place, with its length and time. False with a one-line `error` (which
// names the file as `name`) when it was removed, replaced or changed while
// it was being read, so that what was read of it may not be all of it.
bool PcmSourceUnchanged(const PcmSource& source, const std::string& name, std::string& error);

void ClosePcmSource(PcmSource& source);

// Starts the file again from its first frame, with the same plan.
bool RewindPcmSource(PcmSource& source, std::string& error);

// Reads up to `frames` frames of PCM ready for the plug-in into `bytes`. The
// result is the number of frames, 0 at the end, or -1 on a read error.
// `frame_power`, if given, receives the mean square over the channels of
// each frame handed on (full scale 1.0), and the largest magnitude handed on
// (`peak`) is kept up to date; without it neither is measured.
int64_t ReadPcmBlock(PcmSource& source, int frames, std::vector<uint8_t>& bytes, std::vector<double>* frame_power);

// Stores one sample `value` (already at the depth) as a plug-in expects it.
void StorePcmSample(uint8_t* out, int bits, int32_t value);

// The downmix matrix from `file_channels` channels with libsndfile's channel
// positions `map` (empty for none) to the layout with `channels` channels.
std::vector<double> DownmixMatrix(int file_channels, const std::vector<int>& map, int& channels);
