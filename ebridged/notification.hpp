// What every part of the service reads in a notification of the store.
#pragma once

#include "qz_mom.h"

namespace ebridged
{

inline bool is_written(int32_t cmd)
{
    return cmd == QZ_MOM_CMD_SET || cmd == QZ_MOM_CMD_HSET || cmd == QZ_MOM_CMD_HMSET;
}

inline bool is_removed(int32_t cmd) { return cmd == QZ_MOM_CMD_DEL || cmd == QZ_MOM_CMD_EXPIRED; }

// A code that may be another one next time.
inline bool passes(int32_t code) { return code == QZ_MOM_EFULL || code == QZ_MOM_EDOWN || code == QZ_MOM_ENOMEM; }

// How long the store is given before what it could not take is tried again.
constexpr int64_t RETRY_USEC = 50'000;

// The record that the notification carries when it is of the wanted one's type, or null.
template <typename record>
const record *record_of(const qz_mom_notification &msg, const record &wanted)
{
    const auto *message = static_cast<const ProtobufCMessage *>(msg.value);
    if (msg.cmd == QZ_MOM_CMD_HSET || msg.cmd == QZ_MOM_CMD_HMSET) {
        const auto *hash = static_cast<const qz_mom_hash_value *>(msg.value);
        message = hash && hash->error == 0 ? hash->record : nullptr;
    }
    if (!message || message->descriptor != wanted.base.descriptor || msg.error != 0)
        return nullptr;
    return reinterpret_cast<const record *>(message);
}

}  // namespace ebridged
