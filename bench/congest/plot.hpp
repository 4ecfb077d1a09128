// A plot of depths over time as an SVG file.
#pragma once

#include <string>
#include <vector>

#include "flood.hpp"

namespace bench
{

struct curve {
    std::string name;
    std::string colour;
    const std::vector<depth_at> &points;
};

struct level {
    std::string name;
    double depth;
};

// Throws std::runtime_error when the file cannot be written.
void write_plot(const std::string &file, const std::string &title, const std::vector<curve> &curves,
                const std::vector<level> &levels);

}  // namespace bench
