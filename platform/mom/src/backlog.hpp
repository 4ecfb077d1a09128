// Backlogs: how many writes of one handle to one type of records have been taken over and not been answered yet, and who
// hears when they become many. Guarded by the store's mutex.
#ifndef MOM_BACKLOG_HPP
#define MOM_BACKLOG_HPP

#include <memory>
#include <utility>
#include <vector>

#include "qz_mom.h"

namespace mom
{

struct client;

struct backlog {
    struct watch {
        uint32_t low;
        uint32_t high;
        qz_mom_queue_cb cb;
        void *args;
        bool above = false;       // the high mark was reached, and the low one not yet since
        bool told_above = false;  // what cb heard last
    };

    void count(bool more) noexcept;
    void update_marks() noexcept;

    uint32_t db;
    const ProtobufCMessageDescriptor *type;
    client *owner;  // valid as long as there are watches: they end with the handle
    uint32_t depth = 0;
    std::vector<watch> watches{};
};

// A write that is not answered yet is counted as long as this lives, or its copy.
class counted_write
{
  public:
    counted_write() = default;
    explicit counted_write(std::shared_ptr<backlog> in) : in_(std::move(in)) { count(true); }
    counted_write(const counted_write &other) : in_(other.in_) { count(true); }
    counted_write(counted_write &&other) noexcept : in_(std::move(other.in_)) {}
    counted_write &operator=(counted_write other) noexcept
    {
        in_.swap(other.in_);
        return *this;
    }
    ~counted_write() { count(false); }

  private:
    void count(bool more) noexcept
    {
        if (in_ != nullptr)
            in_->count(more);
    }

    std::shared_ptr<backlog> in_;
};

}  // namespace mom
#endif
