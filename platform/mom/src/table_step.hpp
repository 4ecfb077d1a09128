// A step of reading a table: the records whose keys an earlier step has found are read, and the next keys are looked
// for. All in one round trip: the position of the log, each record, the function's answer about the next keys.
//
// The records are read one by one, with plain commands of the server, for its function takes twice as long over a record.
// So others may write meanwhile. That does no harm: what has changed behind the position is told afterwards, whole, on
// top of what was read, and nothing of it before.
#ifndef MOM_TABLE_STEP_HPP
#define MOM_TABLE_STEP_HPP

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "record_codec.hpp"
#include "redis_link.hpp"
#include "redis_rows.hpp"

namespace mom
{

class table_step
{
  public:
    struct wanted {
        std::string key;
        bool whole = false;    // it is believed to be a record in one piece
        bool doubted = false;  // it was believed to be of the other form before
    };
    struct shown {
        std::string key;
        std::shared_ptr<const content> body;  // null: it is not ours
    };

    // Where a walk over the keys begins; not to go on, but to come again; and to say that this was all.
    static constexpr std::string_view FIRST = "0", STAY = "stay", END = "end";

    table_step(std::string table, uint64_t of_load, std::string from, std::vector<wanted> keys)
        : name(std::move(table)), load(of_load), cursor(std::move(from)), keys_(std::move(keys))
    {
    }

    const std::string name;    // of the record type
    const uint64_t load;       // which of the readings of it this belongs to
    const std::string cursor;  // where the next keys are looked for

    bool reads_records() const { return !keys_.empty(); }
    // Sends what stands between the question for the position and that for the next keys. Whatever was read is forgotten.
    void begin(redis_link &link);
    // The next reply is the position, or a record.
    bool expects() const { return reads_records() && next_ <= keys_.size(); }
    // It, and what stood in it if it was a map.
    void take(const redisReply &reply, std::string_view map);

    uint64_t position() const { return position_; }  // of the log, before the records were read
    bool was_refused() const { return refused_; }
    // The keys that have to be read in the other form.
    const std::vector<wanted> &doubtful() const { return doubtful_; }
    std::vector<shown> take_records() { return std::move(records_); }

  private:
    void take_record(const wanted &from, const redisReply &reply, std::string_view map);

    const std::vector<wanted> keys_;
    size_t next_ = 0;  // 0: the position; else the key before
    uint64_t position_ = 0;
    bool refused_ = false;
    std::vector<wanted> doubtful_;
    std::vector<shown> records_;
    body_reader body_;
};

}  // namespace mom
#endif
