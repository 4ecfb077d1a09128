// Aging of evlans and eports, as far as it is alike: marks on all records of a user, the deletion of what was not asked
// for again. `Kind` is one of twins.hpp.
#pragma once

#include "aging.hpp"
#include "twin_sessions.hpp"

namespace sw
{

// ---- sessions -----------------------------------------------------------------------------------------------------

// Nothing is requested any more until the application asks again.
template <class Kind>
void forget_requests(sw_ebridge_list_item &user)
{
    for_each_linked<typename Kind::map_item>(user.*Kind::user_maps, [](typename Kind::map_item &item) {
        item.ds_flag &= ~static_cast<uint32_t>(SW_INDEX_MAP_REQUESTED);
    });
}

// Marks the sessions of a user, of one type or (0) of all.
template <class Kind>
int32_t mark_sessions(site where, sw_ebridge_list_item &user, uint32_t type, const qz_mom_timeval *aging_timer,
                      qz_mom_msg_cb callback, void *args)
{
    const session_pattern<Kind> pattern(user, type);
    return mark_records(where, user, user.mod_db, pattern.session.base, aging_timer, callback, args);
}

// The same, not returning before the marks are set.
[[gnu::noinline]] inline int32_t mark_sync(site where, const sw_ebridge_list_item &user, uint32_t db,
                                           const ProtobufCMessage &pattern, const qz_mom_timeval *aging_timer,
                                           const char *failed)
{
    SW_LOG_AT(where, info, "user_name: %s, aging_timer: %p\n", user.user_name, static_cast<const void *>(aging_timer));
    return mark_records_sync(where, user, db, pattern, aging_timer, failed);
}

// The same for sessions.
template <class Kind>
int32_t mark_sessions_sync(site where, sw_ebridge_list_item &user, uint32_t type, const qz_mom_timeval *aging_timer)
{
    const session_pattern<Kind> pattern(user, type);
    return mark_sync(where, user, user.mod_db, pattern.session.base, aging_timer, Kind::aging_failed);
}

template <class Kind>
int32_t begin_aging(site where, const char *user_name, const qz_mom_timeval *aging_timer, qz_mom_msg_cb callback,
                    void *args)
{
    sw_ebridge_list_item *user = find_user(where, user_name);
    if (user == nullptr)
        return -2;
    SW_LOG_AT(where, info, "user_name: %s, aging_timer: %p, func_callback: %p, args: %p.", user->user_name,
              static_cast<const void *>(aging_timer), address(callback), args);
    forget_requests<Kind>(*user);
    if (callback == nullptr) {
        SW_LOG_AT(where, warning, Kind::no_aging_callback);
        callback = Kind::default_callback;
    }
    return mark_sessions<Kind>(where, *user, 0, aging_timer, callback, args);
}

// Arms the timer that deletes what nobody asked for again.
[[gnu::noinline]] inline int32_t begin_deletion(site where, const char *user_name)
{
    if (find_user(where, user_name) == nullptr)
        return -2;
    SW_LOG_AT(where, info, "deleting aged data.");
    return sw_ebridge_age_timer_create(user_name);
}

// Deletes the user's sessions that were granted and not requested again; a refused deletion does not stop the others.
// Another user's session of the same key is not touched: the name is the aging user's own.
template <class Kind>
int32_t clear_unrequested(site where, sw_ebridge_list_item *user)
{
    if (user == nullptr) {
        SW_LOG_AT(where, error, "Assert:Bad list");
        return -2;
    }
    for_each_linked<typename Kind::map_item>(user->*Kind::user_maps, [&where, user](typename Kind::map_item &item) {
        if (item.ds_flag != SW_INDEX_MAP_GRANTED || item.kind != SW_INDEX_MAP_APP2UDP)
            return;
        typename Kind::app_index app = Kind::app_of(item);
        app.t_user = user->user_name;
        const typename Kind::session session = session_of<Kind>(&app);
        SW_LOG_AT(where, info, Kind::aged, user->user_name);
        const int32_t rv = qz_mom_del(user->mom_handle, user->mod_db, &session.base, nullptr, nullptr);
        if (rv != 0)
            SW_LOG_AT(where, error, "Assert:qz_mom_del failed, rv: %d.", rv);
    });
    return 0;
}

inline int32_t hear_default(site where)
{
    SW_LOG_AT(where, warning, "this is a default pexpire funcallback.");
    return 0;
}

// ---- attributes ---------------------------------------------------------------------------------------------------

// An attribute record that stands for all those of one user.
template <class Kind>
struct attr_pattern {
    typename Kind::index index;
    typename Kind::stored_attr record = Kind::new_stored_attr();
    explicit attr_pattern(sw_ebridge_list_item &user) : index(Kind::new_index(user.user_name, 0))
    {
        record.index = &index;
    }
    attr_pattern(const attr_pattern &) = delete;
    attr_pattern &operator=(const attr_pattern &) = delete;
};

template <class Kind>
int32_t mark_attrs(site where, const char *user_name, const qz_mom_timeval *aging_timer, qz_mom_msg_cb callback,
                   void *args)
{
    sw_ebridge_list_item *user = find_user(where, user_name);
    if (user == nullptr)
        return -2;
    const attr_pattern<Kind> pattern(*user);
    const int32_t rv = qz_mom_pexpire(user->mom_handle, user->*Kind::attr_db, &pattern.record.base,
                                      QZ_MOM_EXPIRE_PATTERN, aging_time(aging_timer), callback, args);
    if (rv != 0)
        SW_LOG_AT(where, error, "Assert:qz_mom_pexpire failed, user: %s, rv: %d.", user->user_name, rv);
    return rv;
}

template <class Kind>
int32_t mark_attrs_sync(site where, const char *user_name, const qz_mom_timeval *aging_timer)
{
    sw_ebridge_list_item *user = find_user(where, user_name);
    if (user == nullptr)
        return -2;
    const attr_pattern<Kind> pattern(*user);
    return mark_sync(where, *user, user->*Kind::attr_db, pattern.record.base, aging_timer, Kind::aging_failed);
}

template <class Kind>
int32_t delete_marked_attrs(site where, const char *user_name, qz_mom_msg_cb callback, void *args)
{
    sw_ebridge_list_item *user = find_user(where, user_name);
    if (user == nullptr)
        return -2;
    SW_LOG_AT(where, info, "deleting aged data.");
    const attr_pattern<Kind> pattern(*user);
    return delete_marked(where, *user, user->*Kind::attr_db, pattern.record.base, callback, args);
}

}  // namespace sw
