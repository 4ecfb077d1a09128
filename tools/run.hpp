// "ebridge run": users request everything that a configuration names, another one hears it and reads it back. They live
// in this process, or each in a process of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "config.hpp"

namespace ebridge_tool
{

// A range record that is written before anything is requested.
struct range_setting {
    bool of_eports;
    uint32_t type;
    uint32_t min;
    uint32_t max;
};

struct run_options {
    std::string store = "mem:ebridge-run";  // URL
    std::vector<range_setting> ranges{};
    // Without any answer for so long, what is open counts as refused; the store may be away for so long.
    int64_t patience_usec = 30'000'000;
    bool serve = true;  // false: no allocator in this process, so that nobody answers
    // 0: requester and observer live in this process. Otherwise the number of requester processes, beside that of the
    // observer; no allocator is started then, and the store is one that processes share.
    size_t users = 0;
    // With users: after the run the requesters are restarted with this, the same configuration with some entries marked as
    // dropped. Null: no restart.
    const switch_config *restarted = nullptr;
    bool delete_now = false;  // dropped sessions are deleted at once, not by the age timer
    // Called at the start and now and then with what is answered and what there is in all; may be null.
    void (*progress)(size_t answered, size_t all) = nullptr;
    // Called with what a restart is at; may be null.
    void (*phase)(const char *what) = nullptr;
};

struct table_result {
    std::string name;
    size_t requested = 0;
    size_t granted = 0;
    size_t refused = 0;
    size_t verified = 0;
    std::optional<size_t> not_expressed{};  // ACL rules that no match rule can express: they are not requested
};

// The match rules that a user has published.
struct rule_result {
    std::string name;
    size_t published = 0;
    size_t holding = 0;
    size_t lost = 0;
    size_t shadowed = 0;  // by a rule of its own with a higher priority: nothing is decided about them
    size_t verified = 0;
};

struct restart_result {
    std::string name;
    size_t kept = 0;
    size_t unchanged = 0;  // of these: id, session and attributes read as they should
    size_t dropped = 0;
    size_t gone = 0;  // of these
};

struct run_result {
    std::vector<table_result> tables;       // those that the configuration has, also empty ones; entries are counted
    std::vector<table_result> kinds;        // evlans and eports; ids are counted
    std::vector<restart_result> restarted;  // after a restart: the tables again
    std::vector<rule_result> rules;         // of each user, where the configuration has ACL rules
    std::vector<std::string> problems;      // a line for each entry that was refused or differs
    std::vector<std::string> notes;         // a line for each entry that is not expressed
    double seconds = 0;
    // The run failed because nobody is there behind the URL, or nobody was back while patience lasted.
    bool store_missing = false;
    // After a run: prints the library's users and tables, the observer's where it is a process of its own, on standard
    // output. False when that failed. Only once.
    std::function<bool()> dump{};

    bool all_equal() const;
};

// False when the run itself failed, with one line in *error. To be called once in a process: the library's users and
// tables live as long as that.
bool run_config(const switch_config &config, const run_options &options, run_result *out, std::string *error);

}  // namespace ebridge_tool
