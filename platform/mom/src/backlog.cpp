// See backlog.hpp.
#include "backlog.hpp"

#include "client.hpp"
#include "store.hpp"

namespace mom
{

void backlog::count(bool more) noexcept
{
    if (more)
        ++depth;
    else
        --depth;
    update_marks();
}

// Whoever crossed a mark is told by the pump of the handle's master.
void backlog::update_marks() noexcept
{
    bool crossed = false;
    for (watch &each : watches) {
        const bool above = each.above ? depth > each.low : depth >= each.high;
        crossed = crossed || above != each.above;
        each.above = above;
    }
    if (!crossed)
        return;
    owner->marks_crossed = true;
    owner->kept_in->office().wake(*owner);
}

std::shared_ptr<backlog> client::backlog_of(uint32_t db, const ProtobufCMessageDescriptor &type) const noexcept
{
    for (const auto &each : backlogs) {
        if (each->db == db && each->type == &type)
            return each;
    }
    return nullptr;
}

}  // namespace mom
