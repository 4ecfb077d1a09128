// Reading a table of a store whole. See table_scan.hpp.
#include "table_scan.hpp"

namespace ebridge_tool
{

namespace
{

struct reading {
    store_link *link;
    const record_heard &heard;
    size_t ended = 0;  // scans
    int32_t code = 0;  // the first failure of one

    void note(int32_t new_code) { code = code != 0 ? code : new_code; }
};

// The record that a notification delivers, or null.
const ProtobufCMessage *record_of(const qz_mom_notification &msg)
{
    if (msg.cmd == QZ_MOM_CMD_SET)
        return static_cast<const ProtobufCMessage *>(msg.value);
    if (msg.cmd == QZ_MOM_CMD_HSET || msg.cmd == QZ_MOM_CMD_HMSET)
        return static_cast<const qz_mom_hash_value *>(msg.value)->record;
    return nullptr;
}

int32_t on_record(qz_mom_handle *, const qz_mom_notification *msg, void *self)
{
    auto *to = static_cast<reading *>(self);
    if (msg->end == QZ_MOM_END_SCAN) {
        ++to->ended;
        to->note(msg->error);
    } else if (const ProtobufCMessage *record = record_of(*msg)) {
        to->heard(msg->db, *record);
    }
    to->link->happened();
    return 0;
}

}  // namespace

int32_t read_table(store_link *link, std::span<const uint32_t> databases, const ProtobufCMessage &pattern,
                   int64_t patience_usec, const record_heard &heard)
{
    reading now{.link = link, .heard = heard};
    for (const uint32_t db : databases) {
        const auto scan = [&] { return qz_mom_scan(link->handle(), db, &pattern, 0, on_record, &now); };
        now.note(link->patiently(scan, patience_usec));
    }
    const auto all_read = [&] { return now.code != 0 || now.ended == databases.size(); };
    if (!link->wait_until(all_read, patience_usec))
        now.code = QZ_MOM_EDOWN;
    return now.code;
}

}  // namespace ebridge_tool
