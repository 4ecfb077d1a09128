// What "ebridge run" tells: progress, a table for people, an object for programs.
#pragma once

#include <cstdio>
#include <string>

#include "run.hpp"

namespace ebridge_tool
{

// A line that is written over and over; nothing unless standard error is a terminal.
void show_progress(size_t answered, size_t all);
// The same for what a restart is at.
void show_phase(const char *what);
// Takes the line away. May be called in a signal handler.
void end_progress();

void print_table(std::FILE *out, const switch_config &config, const run_result &result);
// {"tables": {NAME: {"requested": n, "granted": n, "refused": n, "verified": n}}, "skipped": {NAME: n},
//  "ids": {KIND: as a table}, "rules": {USER: {"published": n, "holding": n, "lost": n, "shadowed": n, "verified": n}},
//  "restarted": {NAME: {"kept": n, "unchanged": n, "dropped": n, "gone": n}}, "seconds": s}
std::string to_json(const switch_config &config, const run_result &result);

}  // namespace ebridge_tool
