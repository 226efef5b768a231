// The level report: layout.
#include "hosts/render/report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace {

constexpr double kFloorDb = -60.0;      // bottom of each lane
constexpr int kLaneHeight = 70;         // pixels per lane
constexpr int kLaneGap = 12;
constexpr int kLeftMargin = 70;         // room for the lane names
constexpr int kTopMargin = 48;          // room for the title and the file names
constexpr int kPlotWidth = 800;
constexpr int kBottomMargin = 34;       // room for the time scales
constexpr int kOverMarkHeight = 12;     // the red band at the top of a lane where samples went over
constexpr double kTickSpacing = 70.0;   // pixels between time marks, at least
constexpr double kNameCharWidth = 7.0;  // pixels a character of a file name takes, about
// Input, then L, R, C, LFE, SL, SR; no red among them, which marks overs.
constexpr const char* kLaneColours[7] = {"#555555", "#1f77b4", "#17becf", "#2ca02c", "#9467bd", "#ff7f0e", "#8c564b"};
constexpr const char* kOverColour = "#e00000";
constexpr const char* kBoundaryColour = "#222222";
constexpr const char* kOutputNames[6] = {"L", "R", "C", "LFE", "SL", "SR"};
// Steps of the time scale, in seconds.
constexpr double kTickSteps[] = {0.01, 0.02, 0.05, 0.1, 0.2, 0.5, 1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 1200, 1800, 3600};

ReportShape Rect(double x, double y, double width, double height, const std::string& fill, double opacity,
                 const std::string& stroke = "")
{
    return ReportShape{ReportShape::Rect, {x, y, width, height}, fill, opacity, stroke, "", 0.0, false};
}

ReportShape Line(double x1, double y1, double x2, double y2, const std::string& colour, double width)
{
    return ReportShape{ReportShape::Line, {x1, y1, x2, y2}, colour, 1.0, "", "", width, false};
}

ReportShape Text(double x, double y, const std::string& text, double size, bool centred)
{
    return ReportShape{ReportShape::Text, {x, y}, "#000000", 1.0, "", text, size, centred};
}

double FileSeconds(const ReportFile& file)
{
    return file.output_rate > 0 ? static_cast<double>(file.output.frames) / file.output_rate : 0.0;
}

// The x of a time within a section that spans [left, right) for `seconds`.
double At(double left, double right, double seconds, double t)
{
    if (seconds <= 0.0)
        return left;
    return std::min(right, left + (right - left) * t / seconds);
}

// One lane of one file: the level curve as steps, one per window.
void LevelCurve(ReportPicture& picture, const ChannelLevels& levels, int channel, int rate, double seconds,
                double left, double right, double bottom, const char* colour)
{
    const size_t windows = WindowCount(levels);
    if (windows == 0 || rate <= 0)
        return;
    ReportShape curve{ReportShape::Polygon, {left, bottom}, colour, 0.6, "", "", 0.0, false};
    const double window_seconds = static_cast<double>(levels.window_frames) / rate;
    for (size_t w = 0; w < windows; ++w) {
        double db = WindowRmsDb(levels, w, channel);
        if (std::isinf(db) || db < kFloorDb)
            db = kFloorDb;
        db = std::min(db, 0.0);
        const double y = bottom - kLaneHeight * (db - kFloorDb) / -kFloorDb;
        curve.points.insert(curve.points.end(), {At(left, right, seconds, static_cast<double>(w) * window_seconds), y,
                                                 At(left, right, seconds, static_cast<double>(w + 1) * window_seconds), y});
    }
    curve.points.insert(curve.points.end(), {curve.points[curve.points.size() - 2], bottom});
    picture.shapes.push_back(curve);
}

std::string SecondsLabel(double t)
{
    char text[32];
    std::snprintf(text, sizeof text, "%g s", std::round(t * 100.0) / 100.0);
    return text;
}

}  // namespace

ReportPicture BuildLevelReport(const std::vector<ReportFile>& files, bool two_channel)
{
    const int channels = files.empty() ? 0 : std::min(6, files.front().output.channels);
    const int lanes = 1 + channels;
    ReportPicture picture{};
    picture.width = kLeftMargin + kPlotWidth + 20;
    picture.height = kTopMargin + lanes * (kLaneHeight + kLaneGap) + kBottomMargin;
    picture.shapes.push_back(Rect(0, 0, picture.width, picture.height, "#ffffff", 1.0));
    picture.shapes.push_back(Text(8, 18,
                                  std::string("RMS level per lane, -60 to 0 dBFS; red bands: samples over full scale "
                                              "before the output conversion") +
                                      (two_channel ? " (L and R kept)" : ""),
                                  13, false));
    auto lane_top = [](int lane) { return static_cast<double>(kTopMargin + lane * (kLaneHeight + kLaneGap)); };
    for (int lane = 0; lane < lanes; ++lane) {
        picture.shapes.push_back(Rect(kLeftMargin, lane_top(lane), kPlotWidth, kLaneHeight, "#f4f4f4", 1.0, "#cccccc"));
        picture.shapes.push_back(Text(8, lane_top(lane) + kLaneHeight / 2.0 + 5,
                                      lane == 0 ? "input" : kOutputNames[lane - 1], 14, false));
    }

    double total = 0.0;
    for (const ReportFile& file : files)
        total += FileSeconds(file);
    double elapsed = 0.0;
    const double axis = lane_top(lanes);
    std::vector<ReportShape> boundaries;  // drawn over everything else
    for (size_t f = 0; f < files.size(); ++f) {
        const ReportFile& file = files[f];
        const double seconds = FileSeconds(file);
        const double left = kLeftMargin + (total > 0.0 ? kPlotWidth * elapsed / total
                                                       : kPlotWidth * static_cast<double>(f) / files.size());
        elapsed += seconds;
        const double right = kLeftMargin + (total > 0.0 ? kPlotWidth * elapsed / total
                                                        : kPlotWidth * static_cast<double>(f + 1) / files.size());

        LevelCurve(picture, file.input, 0, file.processor_rate, seconds, left, right, lane_top(0) + kLaneHeight,
                   kLaneColours[0]);
        for (int c = 0; c < channels; ++c)
            LevelCurve(picture, file.output, c, file.output_rate, seconds, left, right,
                       lane_top(1 + c) + kLaneHeight, kLaneColours[1 + c]);

        // The overs, where they happened, on the processor's time axis.
        const size_t windows = file.processed.window_frames == 0 ? 0 : file.processed.window_overs.size() / 6;
        const double window_seconds =
            file.processor_rate > 0 ? static_cast<double>(file.processed.window_frames) / file.processor_rate : 0.0;
        for (size_t w = 0; w < windows; ++w)
            for (int c = 0; c < channels; ++c) {
                if (file.processed.window_overs[w * 6 + static_cast<size_t>(c)] == 0)
                    continue;
                const double x0 = At(left, right, seconds, static_cast<double>(w) * window_seconds);
                const double x1 = At(left, right, seconds, static_cast<double>(w + 1) * window_seconds);
                picture.shapes.push_back(
                    Rect(x0, lane_top(1 + c), std::max(1.0, x1 - x0), kOverMarkHeight, kOverColour, 1.0));
            }

        // The file's start, its name, and its own time scale from 0 s.
        boundaries.push_back(Line(left, kTopMargin - 14, left, axis, kBoundaryColour, f == 0 ? 1.0 : 2.0));
        const size_t room = static_cast<size_t>(std::max(0.0, (right - left - 6.0) / kNameCharWidth));
        std::string name = file.name.substr(file.name.rfind('/') == std::string::npos ? 0 : file.name.rfind('/') + 1);
        if (name.size() > room)
            name = room > 2 ? name.substr(0, room - 2) + ".." : std::string();
        if (!name.empty())
            picture.shapes.push_back(Text(left + 4, kTopMargin - 4, name, 12, false));
        double step = kTickSteps[sizeof kTickSteps / sizeof kTickSteps[0] - 1];
        for (double candidate : kTickSteps)
            if (seconds <= 0.0 || (right - left) * candidate / seconds >= kTickSpacing) {
                step = candidate;
                break;
            }
        for (int tick = 0; seconds > 0.0 && tick * step < seconds; ++tick) {
            const double x = At(left, right, seconds, tick * step);
            if (tick > 0 && right - x < kTickSpacing / 2)
                break;
            picture.shapes.push_back(Line(x, axis - kLaneGap, x, axis - kLaneGap + 4, kBoundaryColour, 1.0));
            picture.shapes.push_back(Text(x + (tick == 0 ? 2 : 0), axis + 8, SecondsLabel(tick * step), 11, tick != 0));
        }
    }
    picture.shapes.insert(picture.shapes.end(), boundaries.begin(), boundaries.end());
    return picture;
}

bool WriteLevelReport(const std::string& path, const std::string& name, const std::vector<ReportFile>& files,
                      bool two_channel, std::string& error)
{
    const ReportPicture picture = BuildLevelReport(files, two_channel);
    std::string extension = name.size() >= 4 ? name.substr(name.size() - 4) : "";
    for (char& c : extension)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    if (extension == ".png")
        return WriteReportPng(picture, path, error);
    const std::string svg = ReportSvg(picture);
    std::FILE* file = std::fopen(path.c_str(), "wb");
    bool good = file != nullptr && std::fwrite(svg.data(), 1, svg.size(), file) == svg.size();
    if (file != nullptr)
        good = std::fclose(file) == 0 && good;
    if (!good)
        error = "cannot write " + name;
    return good;
}
