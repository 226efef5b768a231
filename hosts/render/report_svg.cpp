// The level report as SVG text.
#include "hosts/render/report.h"

#include <cstdio>

namespace {

std::string Number(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
}

std::string Escaped(const std::string& text)
{
    std::string out;
    for (char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        default: out += c;
        }
    }
    return out;
}

}  // namespace

std::string ReportSvg(const ReportPicture& picture)
{
    std::string svg = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    svg += "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + std::to_string(picture.width) + "\" height=\"" +
           std::to_string(picture.height) + "\" viewBox=\"0 0 " + std::to_string(picture.width) + " " +
           std::to_string(picture.height) + "\">\n";
    for (const ReportShape& shape : picture.shapes) {
        const std::vector<double>& p = shape.points;
        switch (shape.kind) {
        case ReportShape::Rect:
            svg += "<rect x=\"" + Number(p[0]) + "\" y=\"" + Number(p[1]) + "\" width=\"" + Number(p[2]) +
                   "\" height=\"" + Number(p[3]) + "\" fill=\"" + shape.colour + "\"";
            if (shape.opacity < 1.0)
                svg += " fill-opacity=\"" + Number(shape.opacity) + "\"";
            if (!shape.stroke.empty())
                svg += " stroke=\"" + shape.stroke + "\"";
            svg += "/>\n";
            break;
        case ReportShape::Polygon: {
            std::string points;
            for (size_t i = 0; i + 1 < p.size(); i += 2)
                points += (i == 0 ? "" : " ") + Number(p[i]) + "," + Number(p[i + 1]);
            svg += "<polygon points=\"" + points + "\" fill=\"" + shape.colour + "\" fill-opacity=\"" +
                   Number(shape.opacity) + "\" stroke=\"" + shape.colour + "\"/>\n";
            break;
        }
        case ReportShape::Line:
            svg += "<line x1=\"" + Number(p[0]) + "\" y1=\"" + Number(p[1]) + "\" x2=\"" + Number(p[2]) +
                   "\" y2=\"" + Number(p[3]) + "\" stroke=\"" + shape.colour + "\" stroke-width=\"" +
                   Number(shape.size) + "\"/>\n";
            break;
        case ReportShape::Text:
            svg += "<text x=\"" + Number(p[0]) + "\" y=\"" + Number(p[1]) +
                   "\" font-family=\"sans-serif\" font-size=\"" + Number(shape.size) + "\"" +
                   (shape.centred ? " text-anchor=\"middle\"" : "") + ">" + Escaped(shape.text) + "</text>\n";
            break;
        }
    }
    svg += "</svg>\n";
    return svg;
}
