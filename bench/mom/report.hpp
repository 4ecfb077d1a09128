// The table of a benchmark, and the same rows as JSON beside the program.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace bench
{

// What a run came to: a rate, a time or a size, and the processor time of all processes together.
struct figure {
    double value = 0;
    double processor = 0;  // microseconds a record; 0: not looked at
};

// Runs all of them in turns, so that none has the quiet minutes for itself; each one's median.
std::vector<figure> medians(int turns, const std::vector<std::function<figure()>> &of);

class report
{
  public:
    // The header line. `name` is that of the JSON file; `baseline` is what the second column holds.
    report(std::string name, const std::string &baseline);
    void row(const std::string &placement, const std::string &what, const figure &ours, const figure &baseline);
    // A size without a baseline.
    void row(const std::string &placement, const std::string &what, double bytes);
    void write() const;

  private:
    std::string name_;
    std::string rows_;  // JSON
};

}  // namespace bench
