// A step of reading a table: the records whose keys an earlier step has found are read, and the next keys are looked
// for. All in one round trip: the function says how far the log has come, then comes each record, then the keys.
//
// All but the first are plain commands of the server, for its function takes twice as long over a record. So others may
// write meanwhile. That does no harm: what has changed behind the position is told afterwards, whole, on top of what was
// read, and nothing of it before.
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
        bool whole = false;  // it is believed to be a record in one piece
        int doubts = 0;      // so many times it was believed to be of one form and was of another
    };
    struct shown {
        std::string key;
        std::shared_ptr<const content> body;  // null: it is not ours
    };

    // Where a walk over the keys begins, and, of an answer, where it ends.
    static constexpr std::string_view START = "0";

    table_step(std::string table, uint64_t of_load, std::string from, std::vector<wanted> keys)
        : name(std::move(table)), load(of_load), cursor(std::move(from)), keys_(std::move(keys))
    {
    }

    const std::string name;    // of the record type
    const uint64_t load;       // which of the readings of it this belongs to
    const std::string cursor;  // where the next keys are looked for; "": nowhere

    // Sends what stands behind the call of the function. Whatever was read is forgotten.
    void begin(redis_link &link);
    // A reply, and what stood in it if it was a map.
    void take(const redisReply &reply, std::string_view map);
    bool is_over() const { return taken_ == 1 + keys_.size() + (cursor.empty() ? 0 : 1); }

    uint64_t position() const { return position_; }  // of the log, before the records were read
    bool was_refused() const { return refused_; }
    bool has_lapsed() const { return lapsed_; }
    // The keys that have to be read in the other form.
    const std::vector<wanted> &doubtful() const { return doubtful_; }
    std::vector<shown> take_records() { return std::move(records_); }
    // The keys that were found, and where the next ones are; "": nowhere.
    const std::vector<std::string> &found() const { return found_; }
    const std::string &next_cursor() const { return next_cursor_; }

  private:
    void take_record(const wanted &from, const redisReply &reply, std::string_view map);

    void take_position(const redisReply &reply);
    void take_keys(const redisReply &reply);

    const std::vector<wanted> keys_;
    size_t taken_ = 0;  // replies
    uint64_t position_ = 0;
    bool refused_ = false;
    bool lapsed_ = false;
    std::vector<std::string> found_;
    std::string next_cursor_;
    std::vector<wanted> doubtful_;
    std::vector<shown> records_;
    body_reader body_;
};

}  // namespace mom
#endif
