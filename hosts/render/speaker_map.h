// The speakers of the processor's output channels, as libsndfile names them,
// and where a file format has room to say them. Shared by the renderer's
// writer and out_wav, so that both write the same header for the same
// stream.
#pragma once

#include <vector>

#include <sndfile.h>

// libsndfile's speaker positions for the processor's output channels:
// L, R for two; L, R, C, LFE, SL, SR for six; empty otherwise.
std::vector<int> SpeakerMap(int channels);

// Tells a file just opened for writing in `format` which speakers its
// `channels` channels are, where the container has a place for them: not
// the plain WAV format chunk, and not FLAC, whose six-channel order is this
// one by definition.
void SetSpeakerMap(SNDFILE* file, int format, int channels);
