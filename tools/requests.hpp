// What "ebridge run" asks for, what requester and observer each learned of it, and what a comparison of the two says.
// Knows nothing of the library: the two sides may be one process or several.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "run.hpp"

namespace ebridge_tool
{

// What a side's index map makes of a key.
struct translation {
    int32_t id = 0;     // that the key translates to, 0 none
    bool back = false;  // the id translates back to the key
};

// Facts are plain values: processes hand them to each other as they are.
struct requester_facts {
    int32_t code = 0;  // of the request call
    bool answered = false;
    int32_t reply = -1;  // the id as the requester heard it, -1 refused
    translation map;
};

struct observer_facts {
    int32_t heard = -1;  // the id as the observer heard it
    bool held = false;   // it is in the observer's local database
    translation map;
    bool found = false;  // the requester's session is found by the scan; then what stands there
    int32_t request_value = 0;
    int32_t reply_value = 0;
    int32_t reply = 0;
    int32_t mom_db = 0;
};

struct request {
    size_t table;     // index of its table_result
    std::string key;  // in the configuration
    size_t user;      // index of the requester's name
    uint32_t type;
    uint32_t keyid;
    uint32_t wanted;  // request_value: an id, or the type with number 0
    uint32_t vid;     // of VLANs

    requester_facts requester{};
    observer_facts observer{};
};

// The requests of one run, spread over its users in turns.
class request_book
{
  public:
    // Adds the configuration's tables to the result. `users` from 1.
    request_book(const switch_config &config, size_t users, run_result *result);

    size_t size() const { return requests_.size(); }
    const request &at(size_t index) const { return requests_[index]; }
    const std::vector<std::string> &users() const { return users_; }
    const std::string &user_of(const request &of) const { return users_[of.user]; }
    // The index of the request with this key; size() when there is none.
    size_t find(uint32_t type, uint32_t keyid) const;

    void set(size_t index, const requester_facts &facts);
    void set(size_t index, const observer_facts &facts);

    // In a process that has no observer's facts: an answer is all that a request waits for.
    void expect_answers_only() { hearing_ = false; }
    // Requests that wait for nothing more: refused, or granted and heard.
    size_t settled() const { return settled_; }
    // Requests that were answered.
    size_t answered() const { return answered_; }

  private:
    bool is_settled(const request &of) const;
    template <typename Facts>
    void replace(request &of, Facts request::*member, const Facts &facts);

    std::vector<request> requests_;
    std::vector<std::string> users_;
    std::unordered_map<uint64_t, size_t> by_key_;
    size_t settled_ = 0;
    size_t answered_ = 0;
    bool hearing_ = true;
};

// What reads differently from what was asked and granted; null when all is equal. For granted requests.
const char *difference(const request &of);
// Counts each request into its table, and names each that was refused or differs.
void evaluate(const request_book &requests, run_result *result);

}  // namespace ebridge_tool
