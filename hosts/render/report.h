// The level report: a picture of the play-list over time. Each file has a
// section of its own, as wide as it is long, with its name at the top, a
// line at its start and a time scale that starts at 0 s with it. In the
// section, one lane shows the level that went into the processor and one
// lane per output channel the level that came out, as RMS per window from
// -60 to 0 dBFS; a red mark in a channel's lane stands where samples of
// that channel went over full scale before the output conversion.
//
// The picture is built once as a list of shapes and drawn either as SVG
// text or, through cairo, as a PNG image; the file's extension chooses.
#pragma once

#include <string>
#include <vector>

#include "hosts/render/levels.h"

// What the report shows of one input.
struct ReportFile {
    std::string name;        // as the user named it
    int processor_rate;      // rate of `input` and `processed`
    int output_rate;         // rate of `output`
    ChannelLevels input;     // one channel, the level handed on, in windows
    ChannelLevels output;    // the output file's channels, in windows
    OverCounts processed;    // overs before the output conversion, in windows
};

struct ReportShape {
    enum Kind { Rect, Polygon, Line, Text } kind;
    std::vector<double> points;  // Rect: x, y, width, height; Polygon: x, y pairs; Line: x1, y1, x2, y2; Text: x, y
    std::string colour;          // "#rrggbb"
    double opacity;              // of the fill
    std::string stroke;          // Rect: outline colour, or empty
    std::string text;            // Text only
    double size;                 // Text: font size; Line: width
    bool centred;                // Text: centred on x (else starting at x)
};

struct ReportPicture {
    int width;
    int height;
    std::vector<ReportShape> shapes;  // in drawing order
};

// Lays out the picture of `files`; `two_channel` when only L and R were kept.
ReportPicture BuildLevelReport(const std::vector<ReportFile>& files, bool two_channel);

// The picture as an SVG document.
std::string ReportSvg(const ReportPicture& picture);

// The picture as a PNG file at `path`. False with `error`.
bool WriteReportPng(const ReportPicture& picture, const std::string& path, std::string& error);

// Writes the report to `path` as PNG when `name` ends in .png (in any case),
// else as SVG. False with `error`.
bool WriteLevelReport(const std::string& path, const std::string& name, const std::vector<ReportFile>& files,
                      bool two_channel, std::string& error);
