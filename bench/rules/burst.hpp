// A burst of rules: eight users write all their rules at once, and every one of them is decided.
#pragma once

#include <array>
#include <cstdint>

namespace bench
{

constexpr int QUARTERS = 4;

// What waits for the arbiter: changes that it has not heard, its own results among them, and keys to be calculated.
struct backlog {
    double changes = 0;
    double keys = 0;
};

struct burst {
    double seconds = 0;    // until the last result was acknowledged; without an arbiter, until the last rule was
    double processor = 0;  // seconds of all processes
    double application_processor = 0, server_processor = 0, service_processor = 0;
    double calculations = 0;
    double results = 0;
    std::array<backlog, QUARTERS> waiting{};  // the most in each quarter of the time
    double arbiter_bytes = 0;                 // the most that its process has held
};

// In one process, with a turn of the loop after each slice of rules. Throws std::runtime_error.
burst burst_on_embedded_store(int rules);
// The users are processes, the arbiter another one. Each rule is written so many `times`.
burst burst_on_redis(int rules, int times, bool decided);

}  // namespace bench
