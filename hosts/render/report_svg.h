// A picture of levels over time: one lane for the input and one for each
// output channel, RMS per window in dBFS from -60 to 0.
#pragma once

#include <cstdint>
#include <string>

#include "hosts/render/levels.h"

// The SVG document. `input` has one channel (the input's mean level), `output`
// six channels in the order L, R, C, LFE, SL, SR (or two with `two_channel`);
// both were measured with windows of `window_frames` frames at `rate`.
std::string LevelReportSvg(const ChannelLevels& input, const ChannelLevels& output, uint32_t window_frames, int rate,
                           bool two_channel);
