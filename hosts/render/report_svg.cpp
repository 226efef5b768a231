// A picture of levels over time, as SVG.
#include "hosts/render/report_svg.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace {

constexpr double kFloorDb = -60.0;      // bottom of each lane
constexpr int kLaneHeight = 70;         // pixels per lane
constexpr int kLaneGap = 12;
constexpr int kLeftMargin = 70;         // room for the lane names
constexpr int kTopMargin = 30;
constexpr int kPlotWidth = 800;
constexpr const char* kLaneColours[7] = {"#555555", "#1f77b4", "#d62728", "#2ca02c", "#9467bd", "#ff7f0e", "#8c564b"};
constexpr const char* kOutputNames[6] = {"L", "R", "C", "LFE", "SL", "SR"};

std::string Number(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
}

// One lane: a filled level curve of one channel of `levels`.
std::string Lane(const ChannelLevels& levels, int channel, int lane, const char* name, const char* colour,
                 size_t columns)
{
    const int top = kTopMargin + lane * (kLaneHeight + kLaneGap);
    const int bottom = top + kLaneHeight;
    std::string svg;
    svg += "<rect x=\"" + std::to_string(kLeftMargin) + "\" y=\"" + std::to_string(top) + "\" width=\"" +
           std::to_string(kPlotWidth) + "\" height=\"" + std::to_string(kLaneHeight) +
           "\" fill=\"#f4f4f4\" stroke=\"#cccccc\"/>\n";
    svg += "<text x=\"8\" y=\"" + std::to_string(top + kLaneHeight / 2 + 5) +
           "\" font-family=\"sans-serif\" font-size=\"14\">" + name + "</text>\n";
    const size_t windows = WindowCount(levels);
    if (windows == 0 || columns == 0)
        return svg;
    std::string points = std::to_string(kLeftMargin) + "," + std::to_string(bottom);
    for (size_t w = 0; w < windows; ++w) {
        double db = WindowRmsDb(levels, w, channel);
        if (std::isinf(db) || db < kFloorDb)
            db = kFloorDb;
        db = std::min(db, 0.0);
        const double x = kLeftMargin + kPlotWidth * (static_cast<double>(w) + 0.5) / static_cast<double>(columns);
        const double y = bottom - kLaneHeight * (db - kFloorDb) / -kFloorDb;
        points += " " + Number(x) + "," + Number(y);
    }
    const double end = kLeftMargin + kPlotWidth * static_cast<double>(windows) / static_cast<double>(columns);
    points += " " + Number(end) + "," + std::to_string(bottom);
    svg += std::string("<polygon points=\"") + points + "\" fill=\"" + colour + "\" fill-opacity=\"0.6\" stroke=\"" +
           colour + "\"/>\n";
    return svg;
}

}  // namespace

std::string LevelReportSvg(const ChannelLevels& input, const ChannelLevels& output, uint32_t window_frames, int rate,
                           bool two_channel)
{
    const int lanes = 1 + output.channels;
    const int height = kTopMargin + lanes * (kLaneHeight + kLaneGap) + 30;
    const int width = kLeftMargin + kPlotWidth + 20;
    const size_t columns = std::max<size_t>({WindowCount(input), WindowCount(output), 1});
    const double seconds = static_cast<double>(columns) * window_frames / std::max(rate, 1);

    std::string svg = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    svg += "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + std::to_string(width) + "\" height=\"" +
           std::to_string(height) + "\" viewBox=\"0 0 " + std::to_string(width) + " " + std::to_string(height) +
           "\">\n";
    svg += "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
    svg += "<text x=\"8\" y=\"20\" font-family=\"sans-serif\" font-size=\"14\">RMS level per lane, " +
           Number(kFloorDb) + " to 0 dBFS, over " + Number(seconds) + " s" +
           (two_channel ? " (L and R kept)" : "") + "</text>\n";
    svg += Lane(input, 0, 0, "input", kLaneColours[0], columns);
    for (int c = 0; c < output.channels && c < 6; ++c)
        svg += Lane(output, c, 1 + c, kOutputNames[c], kLaneColours[1 + c], columns);
    // A time scale under the last lane, one mark per tenth.
    const int axis = kTopMargin + lanes * (kLaneHeight + kLaneGap);
    for (int tick = 0; tick <= 10; ++tick) {
        const int x = kLeftMargin + kPlotWidth * tick / 10;
        svg += "<text x=\"" + std::to_string(x) + "\" y=\"" + std::to_string(axis + 12) +
               "\" font-family=\"sans-serif\" font-size=\"11\" text-anchor=\"middle\">" +
               Number(seconds * tick / 10.0) + " s</text>\n";
    }
    svg += "</svg>\n";
    return svg;
}
