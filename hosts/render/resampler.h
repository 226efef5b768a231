// Sample-rate conversion through libsoxr, for the headphone mode at rates
// that its binaural responses were not made for: the input goes to the
// processor at 48 kHz and its output comes back to the input's own rate.
//
// The converter streams: blocks go in as they come, and what it gives back
// trails by its filter's delay, which it removes itself. A stream of n
// frames becomes exactly round(n x out_rate / in_rate) frames: the tail is
// drawn out at the end, then cut or filled with silence to that count.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct soxr;

struct Resampler {
    soxr* converter;      // libsoxr's state; null when closed
    int channels;         // interleaved per frame
    int in_rate;          // frames per second going in
    int out_rate;         // and coming out
    uint64_t in_frames;   // frames fed so far
    uint64_t out_frames;  // frames given back so far
};

// False with `error` when libsoxr cannot convert between the rates.
bool OpenResampler(Resampler& resampler, int in_rate, int out_rate, int channels, std::string& error);

void CloseResampler(Resampler& resampler);

// Feeds `frames` frames and appends what comes out to `out`.
void ResampleBlock(Resampler& resampler, const double* in, size_t frames, std::vector<double>& out);

// Ends the stream: appends the tail to `out`, so that all that came out
// since the start is exactly `total_frames` frames.
void FinishResampling(Resampler& resampler, uint64_t total_frames, std::vector<double>& out);

// round(frames x out_rate / in_rate), the length a stream takes at the other rate.
uint64_t ResampledLength(uint64_t frames, int in_rate, int out_rate);
