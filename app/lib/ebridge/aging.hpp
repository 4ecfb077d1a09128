// Marks on all of a user's records of one kind, and the deletion of those that are still marked.
#pragma once

#include "libsw_ebridge_ds.hpp"
#include "logging.hpp"

namespace sw
{

inline const qz_mom_timeval *aging_time(const qz_mom_timeval *given)
{
    return given != nullptr ? given : &mom_key_aging_timer;
}

// Marks what matches the pattern. A failure is logged.
[[gnu::noinline]] inline int32_t mark_records(site where, const sw_ebridge_list_item &user, uint32_t db,
                                              const ProtobufCMessage &pattern, const qz_mom_timeval *aging_timer,
                                              qz_mom_msg_cb callback, void *args)
{
    const int32_t rv =
        qz_mom_pexpire(user.mom_handle, db, &pattern, QZ_MOM_EXPIRE_PATTERN, aging_time(aging_timer), callback, args);
    if (rv != 0)
        SW_LOG_AT(where, error, "Assert:qz_mom_pexpire failed, user: %s, mom_handle: %p, mom_db: %d, rv: %d.",
                  user.user_name, static_cast<void *>(user.mom_handle), db, rv);
    return rv;
}

// The same, not returning before the marks are set. `failed` names what was to be marked.
[[gnu::noinline]] inline int32_t mark_records_sync(site where, const sw_ebridge_list_item &user, uint32_t db,
                                                   const ProtobufCMessage &pattern, const qz_mom_timeval *aging_timer,
                                                   const char *failed)
{
    const int32_t rv =
        qz_mom_pexpire_sync(user.mom_handle, db, &pattern, QZ_MOM_EXPIRE_PATTERN, aging_time(aging_timer));
    if (rv != 0)
        SW_LOG_UNCHECKED_AT(where, error, failed, user.user_name, db, static_cast<void *>(user.mom_handle), rv);
    return rv;
}

// Deletes what matches the pattern and is still marked. A failure is logged.
[[gnu::noinline]] inline int32_t delete_marked(site where, const sw_ebridge_list_item &user, uint32_t db,
                                               const ProtobufCMessage &pattern, qz_mom_msg_cb callback, void *args)
{
    const int32_t rv = qz_mom_del_expire(user.mom_handle, db, &pattern, QZ_MOM_EXPIRE_PATTERN, callback, args);
    if (rv != 0)
        SW_LOG_AT(where, error, "Assert:qz_mom_del_expire failed, user: %s, rv: %d.", user.user_name, rv);
    return rv;
}

}  // namespace sw
