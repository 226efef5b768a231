// Output files through libsndfile: the container chosen by name or by the
// file's extension, the sample word, the speaker layout, and the last step
// from full-scale samples to the file's words (TPDF dither when the word is
// shorter than the samples' own).
//
// A six-channel WAV says L, R, C, LFE, SL, SR (mask 0x3F) in
// WAVE_FORMAT_EXTENSIBLE; mono and stereo of 16 bits keep the plain format
// chunk that every reader knows. A WAV whose data would not fit the 32-bit
// RIFF sizes is written as RF64 instead.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <sndfile.h>

#include "hosts/render/render_options.h"
#include "hosts/render/speaker_map.h"

enum class Container { Wav, W64, Rf64, Flac, Caf };

// "wav", "w64", "rf64", "flac", "caf". False for anything else.
bool ContainerByName(const std::string& name, Container& container);

// By the extension of `path`, in any case. False when it has none of the five.
bool ContainerByExtension(const std::string& path, Container& container);

// The extension written for a container, with its dot.
const char* ContainerExtension(Container container);

// The largest data chunk that a WAV file holds before it becomes RF64: the
// 32-bit RIFF size, less room for the header. The environment variable
// KELVANE_RENDER_RIFF_LIMIT lowers it, so that the change to RF64 can be
// tried without writing gigabytes.
uint64_t RiffDataLimit();

// The libsndfile format for a file of `data_bytes` bytes of samples.
int SoundFileFormat(Container container, SampleWord word, int channels, uint64_t data_bytes);

// True when the container can hold the word (FLAC: 16 and 24 bits only).
bool ContainerHolds(Container container, SampleWord word);

// Bytes of one sample of a word as a file stores it.
int WordBytes(SampleWord word);

// A file being written.
struct SoundWriter {
    SNDFILE* file;                  // open for writing; null when closed
    int channels;                   // interleaved per frame
    SampleWord word;                // what the file holds
    bool dither;                    // add TPDF noise of one step before rounding
    uint32_t noise;                 // state of the dither's generator
    std::vector<uint64_t> overs;    // per channel: samples beyond full scale, limited to it
    std::vector<int32_t> ints;      // scratch
    std::vector<float> floats;      // scratch
};

// Creates `path` with the given libsndfile format. False with `error`.
bool OpenSoundWriter(const std::string& path, int format, int rate, int channels, SampleWord word, bool dither,
                     SoundWriter& writer, std::string& error);

// Writes `frames` frames of full-scale samples (1.0 is full scale). Integer
// words are rounded to the nearest step, with dither when asked for, and
// limited to the word's range; each sample is replaced by the value that
// the file now holds, for measuring. False with the reason in `error`.
bool WriteSoundFrames(SoundWriter& writer, double* samples, size_t frames, std::string& error);

// Writes `frames` frames of words left-aligned in 32 bits, of the file's
// word size exactly (the low bits zero), as they are. False with `error`.
bool WriteSoundWords(SoundWriter& writer, const int32_t* words, size_t frames, std::string& error);

// Finishes the file. False with `error` when it could not be completed.
bool CloseSoundWriter(SoundWriter& writer, std::string& error);
