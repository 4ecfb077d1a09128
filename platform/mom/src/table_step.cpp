// Replies to a step of reading a table.
#include "table_step.hpp"

#include "key_pattern.hpp"

namespace mom
{
namespace
{

constexpr const char *KEYS_A_STEP = "1000";
// Between two steps a record may have been removed and written in the other form.
constexpr int DOUBTS = 4;

}  // namespace

void table_step::begin(redis_link &link)
{
    taken_ = 0;
    position_ = 0;
    refused_ = lapsed_ = false;
    doubtful_.clear();
    found_.clear();
    next_cursor_.clear();
    records_.clear();
    records_.reserve(keys_.size());
    for (const wanted &each : keys_)
        link.send({each.whole ? "GET" : "HGETALL", each.key});
    if (!cursor.empty())
        link.send({"SCAN", cursor, "MATCH", name + '*', "COUNT", KEYS_A_STEP});
}

void table_step::take(const redisReply &reply, std::string_view map)
{
    if (taken_ == 0)
        take_position(reply);
    else if (taken_ <= keys_.size())
        take_record(keys_[taken_ - 1], reply, map);
    else
        take_keys(reply);
    ++taken_;
}

void table_step::take_position(const redisReply &reply)
{
    refused_ = reply.type != REDIS_REPLY_STRING;
    if (refused_)
        return;
    const side_answer answer(text_of(reply));
    position_ = answer.position;
    lapsed_ = answer.text == "lapsed";
}

void table_step::take_keys(const redisReply &reply)
{
    const auto *next = element(&reply, 0);
    const auto *keys = element(&reply, 1);
    refused_ = refused_ || keys == nullptr;
    if (refused_)
        return;
    if (text_of(*next) != START)
        next_cursor_ = text_of(*next);
    found_.reserve(keys->elements);
    for (size_t i = 0; i < keys->elements; ++i) {
        const std::string_view key = text_of(*keys->element[i]);
        if (record_name(key) == name)  // the names of other types may go on behind it
            found_.emplace_back(key);
    }
}

// A record that is gone is no map, or one with nothing in it.
void table_step::take_record(const wanted &from, const redisReply &reply, std::string_view map)
{
    if (reply.type == REDIS_REPLY_ERROR) {
        if (!text_of(reply).starts_with("WRONGTYPE"))
            refused_ = true;
        else if (from.doubts + 1 == DOUBTS)
            records_.push_back({from.key, nullptr});  // neither form
        else
            doubtful_.push_back({from.key, !from.whole, from.doubts + 1});
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
