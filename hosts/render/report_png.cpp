// The level report as a PNG image, drawn with cairo.
#include "hosts/render/report.h"

#include <cstdlib>

#include <cairo.h>

namespace {

void SetColour(cairo_t* cairo, const std::string& colour, double opacity)
{
    const unsigned long rgb = colour.size() == 7 ? std::strtoul(colour.c_str() + 1, nullptr, 16) : 0;
    cairo_set_source_rgba(cairo, ((rgb >> 16) & 0xFF) / 255.0, ((rgb >> 8) & 0xFF) / 255.0, (rgb & 0xFF) / 255.0,
                          opacity);
}

}  // namespace

bool WriteReportPng(const ReportPicture& picture, const std::string& path, std::string& error)
{
    cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_RGB24, picture.width, picture.height);
    cairo_t* cairo = cairo_create(surface);
    cairo_select_font_face(cairo, "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
    for (const ReportShape& shape : picture.shapes) {
        const std::vector<double>& p = shape.points;
        switch (shape.kind) {
        case ReportShape::Rect:
            cairo_rectangle(cairo, p[0], p[1], p[2], p[3]);
            SetColour(cairo, shape.colour, shape.opacity);
            if (shape.stroke.empty()) {
                cairo_fill(cairo);
            } else {
                cairo_fill_preserve(cairo);
                SetColour(cairo, shape.stroke, 1.0);
                cairo_set_line_width(cairo, 1.0);
                cairo_stroke(cairo);
            }
            break;
        case ReportShape::Polygon:
            for (size_t i = 0; i + 1 < p.size(); i += 2)
                (i == 0 ? cairo_move_to : cairo_line_to)(cairo, p[i], p[i + 1]);
            cairo_close_path(cairo);
            SetColour(cairo, shape.colour, shape.opacity);
            cairo_fill_preserve(cairo);
            SetColour(cairo, shape.colour, 1.0);
            cairo_set_line_width(cairo, 1.0);
            cairo_stroke(cairo);
            break;
        case ReportShape::Line:
            cairo_move_to(cairo, p[0], p[1]);
            cairo_line_to(cairo, p[2], p[3]);
            SetColour(cairo, shape.colour, shape.opacity);
            cairo_set_line_width(cairo, shape.size);
            cairo_stroke(cairo);
            break;
        case ReportShape::Text: {
            cairo_set_font_size(cairo, shape.size);
            double x = p[0];
            if (shape.centred) {
                cairo_text_extents_t extents{};
                cairo_text_extents(cairo, shape.text.c_str(), &extents);
                x -= extents.x_advance / 2.0;
            }
            SetColour(cairo, shape.colour, shape.opacity);
            cairo_move_to(cairo, x, p[1]);
            cairo_show_text(cairo, shape.text.c_str());
            break;
        }
        }
    }
    cairo_destroy(cairo);
    const cairo_status_t status = cairo_surface_write_to_png(surface, path.c_str());
    cairo_surface_destroy(surface);
    if (status != CAIRO_STATUS_SUCCESS) {
        error = std::string("cannot write the report: ") + cairo_status_to_string(status);
        return false;
    }
    return true;
}
