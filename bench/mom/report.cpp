// Rows on standard output and in a file.
#include "report.hpp"

#include <cstdio>
#include <utility>

#include "processes.hpp"
#include "program.hpp"

namespace bench
{
namespace
{

std::string text_of(const char *format, double value)
{
    char text[64];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

std::string number(double value) { return text_of(value < 1000 ? "%.1f" : "%.0f", value); }

}  // namespace

std::vector<figure> medians(int turns, const std::vector<std::function<figure()>> &of)
{
    std::vector<std::vector<double>> values(of.size()), processor(of.size());
    for (int turn = 0; turn < turns; ++turn) {
        for (size_t i = 0; i < of.size(); ++i) {
            const figure made = of[i]();
            values[i].push_back(made.value);
            processor[i].push_back(made.processor);
        }
    }
    std::vector<figure> middle;
    for (size_t i = 0; i < of.size(); ++i)
        middle.push_back({median(values[i]), median(processor[i])});
    return middle;
}

report::report(std::string name, const std::string &baseline) : name_(std::move(name))
{
    std::printf("%-9s  %-52s  %11s  %11s  %6s  %9s  %9s  %6s\n", "PLACEMENT", "WHAT", "OURS", baseline.c_str(), "RATIO",
                "CPU us", (baseline + " us").c_str(), "BY CPU");
}

void report::row(const std::string &placement, const std::string &what, const figure &ours, const figure &baseline)
{
    const bool looked = ours.processor > 0 && baseline.processor > 0;
    std::printf("%-9s  %-52s  %11s  %11s  %6.2f  %9s  %9s  %6s\n", placement.c_str(), what.c_str(),
                number(ours.value).c_str(), number(baseline.value).c_str(), ours.value / baseline.value,
                looked ? text_of("%.2f", ours.processor).c_str() : "",
                looked ? text_of("%.2f", baseline.processor).c_str() : "",
                looked ? text_of("%.2f", baseline.processor / ours.processor).c_str() : "");
    std::fflush(stdout);
    rows_ += (rows_.empty() ? "" : ",\n") + ("  {\"placement\": \"" + placement) + "\", \"what\": \"" + what +
             "\", \"ours\": " + number(ours.value) + ", \"raw\": " + number(baseline.value) +
             ", \"ratio\": " + text_of("%.3f", ours.value / baseline.value);
    if (looked)
        rows_ += ", \"cpu_us\": " + text_of("%.3f", ours.processor) +
                 ", \"raw_cpu_us\": " + text_of("%.3f", baseline.processor);
    rows_ += '}';
}

void report::row(const std::string &placement, const std::string &what, double bytes)
{
    std::printf("%-9s  %-52s  %11.0f\n", placement.c_str(), what.c_str(), bytes);
    std::fflush(stdout);
    rows_ += (rows_.empty() ? "" : ",\n") + ("  {\"placement\": \"" + placement) + "\", \"what\": \"" + what +
             "\", \"bytes\": " + text_of("%.0f", bytes) + '}';
}

void report::write() const { write_beside(name_ + ".json", "[\n" + rows_ + "\n]\n"); }

}  // namespace bench
