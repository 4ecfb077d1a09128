// See plot.hpp.
#include "plot.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <stdexcept>

namespace bench
{
namespace
{

constexpr double LEFT = 70, RIGHT = 730, TOP = 50, BOTTOM = 360;

// From numbers of the axes to the paper.
struct scale {
    double seconds;
    double depth;
    double x(double at) const { return LEFT + (RIGHT - LEFT) * at / seconds; }
    double y(double at) const { return BOTTOM - (BOTTOM - TOP) * at / depth; }
};

// A step of 1, 2 or 5 times a power of ten that divides the range into ten parts at most.
double step_of(double range)
{
    const double power = std::pow(10, std::floor(std::log10(range / 10)));
    for (const double times : {1, 2, 5})
        if (range / (times * power) <= 10)
            return times * power;
    return 10 * power;
}

scale fit(const std::vector<curve> &curves, const std::vector<level> &levels)
{
    scale fitting{0, 0};
    for (const level &each : levels)
        fitting.depth = std::max(fitting.depth, each.depth * 1.05);
    for (const curve &each : curves) {
        for (const depth_at &point : each.points) {
            fitting.seconds = std::max(fitting.seconds, point.seconds);
            fitting.depth = std::max(fitting.depth, point.depth * 1.05);
        }
    }
    return fitting;
}

void text(std::ostream &to, double x, double y, const std::string &what, const char *anchor)
{
    to << "  <text x=\"" << x << "\" y=\"" << y << "\" text-anchor=\"" << anchor << "\">" << what << "</text>\n";
}

void line(std::ostream &to, double x1, double y1, double x2, double y2, const char *style)
{
    to << "  <line x1=\"" << x1 << "\" y1=\"" << y1 << "\" x2=\"" << x2 << "\" y2=\"" << y2 << "\" " << style << "/>\n";
}

void draw_axes(std::ostream &to, const scale &by)
{
    constexpr const char *GRID = "stroke=\"#ddd\"";
    for (int i = 0; i * step_of(by.seconds) <= by.seconds; ++i) {
        const double at = i * step_of(by.seconds);
        char label[32];
        std::snprintf(label, sizeof label, "%g s", at);
        line(to, by.x(at), TOP, by.x(at), BOTTOM, GRID);
        text(to, by.x(at), BOTTOM + 18, label, "middle");
    }
    for (int i = 0; i * step_of(by.depth) <= by.depth; ++i) {
        const double at = i * step_of(by.depth);
        line(to, LEFT, by.y(at), RIGHT, by.y(at), GRID);
        text(to, LEFT - 8, by.y(at) + 4, std::to_string(static_cast<int>(at)), "end");
    }
}

void draw_curve(std::ostream &to, const curve &what, const scale &by)
{
    to << "  <polyline fill=\"none\" stroke=\"" << what.colour << "\" stroke-width=\"1.6\" points=\"";
    for (const depth_at &each : what.points) {
        char point[48];
        std::snprintf(point, sizeof point, "%.1f,%.1f ", by.x(each.seconds), by.y(each.depth));
        to << point;
    }
    to << "\"/>\n";
}

}  // namespace

void write_plot(std::ostream &to, const std::string &title, const std::vector<curve> &curves,
                const std::vector<level> &levels)
{
    const scale by = fit(curves, levels);
    to << "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 860 420\" font-family=\"DejaVu Sans, Helvetica, "
          "sans-serif\" font-size=\"12\">\n  <title>"
       << title << "</title>\n  <rect width=\"860\" height=\"420\" fill=\"#ffffff\"/>\n";
    text(to, LEFT, 28, title, "start");
    draw_axes(to, by);
    for (const level &each : levels) {
        line(to, LEFT, by.y(each.depth), RIGHT, by.y(each.depth), "stroke=\"#888\" stroke-dasharray=\"6 4\"");
        text(to, RIGHT + 8, by.y(each.depth) + 4, each.name, "start");
    }
    double at = LEFT;
    for (const curve &each : curves) {
        draw_curve(to, each, by);
        to << "  <rect x=\"" << at << "\" y=\"396\" width=\"14\" height=\"4\" fill=\"" << each.colour << "\"/>\n";
        text(to, at + 20, 402, each.name, "start");
        at += 320;
    }
    to << "</svg>\n";
}

}  // namespace bench
