// What a Redis server is asked to do in one database, and what it answers.
#ifndef MOM_REDIS_OPERATION_HPP
#define MOM_REDIS_OPERATION_HPP

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "backlog.hpp"
#include "client.hpp"
#include "redis_link.hpp"
#include "redis_rows.hpp"
#include "table_step.hpp"

namespace mom
{

// What the server answered to one operation.
struct redis_outcome {
    int32_t code = 0;
    uint64_t position = 0;
    std::string text;
    std::string more;
};

// An expiry call: who hears of its end, and how far it has come, as marks are set piece by piece.
struct mark_step {
    std::weak_ptr<client> owner;
    change_ptr end;
    receiver to{};
    bool in_pieces = false;    // its records are to be looked for
    std::string id;            // of the expiry call
    std::string cursor = "0";  // where the next piece begins
    std::string deadline;      // the server's; "": it has not made it yet
    bool anew = false;         // the cursor that comes next is another server's
};

struct redis_operation {
    enum class kind { write, mark, sweep, fire, read, lost_mark, fetch };

    kind what = kind::write;
    packed_texts row;                                   // of a write; none: only asks for the position
    std::shared_ptr<const packed_texts> fence;          // of a write: the lock that it needs; null: anybody writes
    redis_words words;                                  // of a fetch: the command; else arguments of the server's side
    bool at_once = false;                               // `finish` does not wait for the log
    bool ahead = false;                                 // of what waits; a notice
    bool refused = false;                               // a write that was answered
    std::function<void(const redis_outcome &)> finish;  // may be empty
    counted_write counted;                              // of a write that somebody counts
    std::shared_ptr<table_step> step;                   // of a table that is read
    std::shared_ptr<mark_step> mark;                    // of a mark

    void clear() noexcept { *this = redis_operation(); }
};

}  // namespace mom
#endif
