// Replies to a step of reading a table.
#include "table_step.hpp"

#include <charconv>

namespace mom
{

void table_step::begin(redis_link &link)
{
    next_ = 0;
    refused_ = false;
    doubtful_.clear();
    records_.clear();
    records_.reserve(keys_.size());
    for (const wanted &each : keys_)
        link.send({each.whole ? "GET" : "HGETALL", each.key});
}

void table_step::take(const redisReply &reply, std::string_view map)
{
    if (next_ != 0) {
        take_record(keys_[next_ - 1], reply, map);
    } else if (const auto *position = element(&reply, 0); position != nullptr) {
        const std::string_view text = text_of(*position);
        std::from_chars(text.data(), text.data() + text.size(), position_);
    } else {
        refused_ = true;
    }
    ++next_;
}

// A record that is gone is no map, or one with nothing in it.
void table_step::take_record(const wanted &from, const redisReply &reply, std::string_view map)
{
    if (reply.type == REDIS_REPLY_ERROR) {
        if (!text_of(reply).starts_with("WRONGTYPE"))
            refused_ = true;
        else if (from.doubted)
            records_.push_back({from.key, nullptr});  // neither form
        else
            doubtful_.push_back({from.key, !from.whole, true});
    } else if (reply.type == REDIS_REPLY_STRING) {
        records_.push_back({from.key, std::make_shared<content>(content{form::whole, std::string(text_of(reply))})});
    } else if (!map.empty()) {
        body_.clear();
        for (std::string_view field, bytes; take_text(map, field) && take_text(map, bytes);)
            body_.add(field, bytes);
        records_.push_back({from.key, body_.made()});
    }
}

}  // namespace mom
