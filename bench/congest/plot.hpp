// A plot of depths over time as the text of an SVG file.
#pragma once

#include <ostream>
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

void write_plot(std::ostream &to, const std::string &title, const std::vector<curve> &curves,
                const std::vector<level> &levels);

}  // namespace bench
