// Evlans and eports are near-twins. What they do alike stands once, in templates over one of the two structs below:
// twin_tables.hpp (local database, index map), twin_sessions.hpp (request, release, replies, scan, subscription) and
// twin_aging.hpp. What differs within them is here, with its reason; read the structs side by side. Each has the same
// members in the same order: types, then constants, then small functions about records, users and rules, then texts and
// log lines. What only one side has, or builds of its own parts, is in libsw_ebridge_evlan.cpp and
// libsw_ebridge_eport.cpp: attribute records, copies and merges, translations, dumps of attributes, plain VLANs.
//
// The older side (evlans) checks and tells more at each step, the younger one (eports) at the end of a call. Programs
// and operators know both sets of texts: they stay as they are.
#pragma once

#include <cstring>

#include "libsw_ebridge_ds.hpp"
#include "list.hpp"
#include "logging.hpp"
#include "names.hpp"
#include "users.hpp"

namespace sw
{

inline constexpr uint32_t kNumberMask = 0xffffff;
inline constexpr uint32_t kNoId = 0xffffffff;  // the allocator's refusal

inline uint32_t type_of(uint32_t id) { return id >> 24; }

// The user of an attribute structure. Null with the reason logged.
template <class Attr>
sw_ebridge_list_item *user_of(site where, const Attr *attr)
{
    if (attr == nullptr) {
        SW_LOG_AT(where, error, "Assert:Bad arg: NULL.");
        return nullptr;
    }
    char user_name[SW_EBRIDGE_NAME_SIZE];
    copy_name(user_name, attr->user_name);  // the caller's may lack its end
    return find_user(where, user_name);
}

// Whether a call may change a slot's index map with this item; if not, why is logged.
inline bool check_map_arguments(site where, uint32_t inst, const void *item)
{
    if (inst >= SW_EBRIDGE_SLOTS) {
        SW_LOG_AT(where, error, "Assert:Bad inst %d.", inst);
        return false;
    }
    if (item == nullptr) {
        SW_LOG_AT(where, error, "Assert:Bad map info.");
        return false;
    }
    return true;
}

struct evlan_kind {
    using app_index = UBridge__EvlanAppIndex;
    using index = UBridge__EvlanIndex;
    using session = UBridge__EvlanSession;
    using stored_attr = UBridge__Evlan;
    using attr = sw_evlan_attr;
    using map_item = sw_evlan_index_map;

    // Words of the application's key, which are also the value words of the reverse map item: type and keyid.
    static constexpr uint32_t key_words = 2;
    // Where the four callback argument pairs of this side begin in the instance record.
    static constexpr uint32_t first_pair = 4;
    // Mode of the expiry that a delayed release sets on one session.
    static constexpr int32_t session_expiry = QZ_MOM_EXPIRE_EVLAN_SESSION;
    // Result of a delayed release without memory, and whether the release is counted then: only what the store was asked for
    // is.
    static constexpr int32_t no_memory = -2;
    static constexpr bool counts_without_memory = false;
    // A confirmation and the end of a scan are told like a session. A session that comes with the end is applied.
    static constexpr bool milestones_apart = false;

    static constexpr auto requests = &sw_diagnosis_stat::evlan_request;
    static constexpr auto add_replies = &sw_diagnosis_stat::evlan_add_reply;
    static constexpr auto del_replies = &sw_diagnosis_stat::evlan_del_reply;
    static constexpr auto refusals = &sw_diagnosis_stat::evlan_auto_release;
    static constexpr auto releases = &sw_diagnosis_stat::evlan_total_release;
    static constexpr auto user_maps = &sw_ebridge_list_item::evlan_maps;
    static constexpr auto attr_db = &sw_ebridge_list_item::evlan_attr_mom_db;

    // The exported calls that the shared steps go through, and the callbacks that they hand to the store.
    static constexpr auto app2udp = sw_evlan_app2udp;
    static constexpr auto release_direct = sw_evlan_release_direct;
    static constexpr auto release_callback = sw_evlan_release_callback;
    static constexpr auto session_callback = sw_vlan_mom_msg_evlan_session_reply;
    static constexpr auto session_reply = sw_evlan_session_reply;
    static constexpr auto record_err_msg = sw_evlan_record_err_msg;
    static constexpr auto default_callback = sw_evlan_aging_default_callbak;
    static constexpr auto init = sw_evlan_init;
    static constexpr auto find_attr = sw_evlan_db_get_item;
    static constexpr auto map_get = sw_evlan_index_map_get_item;
    static constexpr auto map_create = sw_evlan_index_map_create_item;
    static constexpr auto map_update = sw_evlan_index_map_update_item;
    static constexpr auto map_delete = sw_evlan_index_map_delete_item;
    static const qz_mom_timeval &release_delay() { return evlan_delay_del_timeval; }

    static app_index new_app_index() { return U_BRIDGE__EVLAN_APP_INDEX__INIT; }
    static session new_session() { return U_BRIDGE__EVLAN_SESSION__INIT; }
    static stored_attr new_stored_attr() { return U_BRIDGE__EVLAN__INIT; }
    static index new_index(char *t_user, int32_t id)
    {
        index made = U_BRIDGE__EVLAN_INDEX__INIT;
        made.t_user = t_user;
        made.evlan_id = id;
        return made;
    }
    static uint32_t id_of(const index &of) { return static_cast<uint32_t>(of.evlan_id); }
    static uint32_t id_of(const attr &of) { return of.evlan_id; }
    static void set_id(attr &key, uint32_t id) { key.evlan_id = id; }
    static void key_of(const app_index &app, uint32_t (&key)[3])
    {
        key[0] = static_cast<uint32_t>(app.type);
        key[1] = static_cast<uint32_t>(app.keyid);
        key[2] = 0;
    }
    static app_index app_of(const map_item &item)
    {
        app_index app = new_app_index();
        app.type = static_cast<int32_t>(item.key[0]);
        app.keyid = static_cast<int32_t>(item.key[1]);
        return app;
    }
    // The reply's database, in the word that each side has for it.
    static void put_db(map_item &item, uint32_t db) { item.session_arg = db; }
    static void copy_carried(map_item &to, const map_item &from) { to.session_arg = from.session_arg; }

    // Of the caller's record only the id counts: a new record starts with all attributes zero.
    static attr fresh(const char *user_name, attr &given)
    {
        attr made;
        init(&made, user_name, given.evlan_id);
        return made;
    }
    static void delete_attr(const char *user_name, uint32_t id) { sw_evlan_db_delete_item(0, user_name, id); }
    // Records are linked where whoever queues them wants it; at first nowhere.
    static void link_attr(attr &record) { list_init(&record.link); }
    static void unlink_attr(attr &record) { list_unlink(&record.link); }

    // Plain VLANs and routed subinterfaces: their number is the VLAN id, and they are released at once.
    static bool is_underlay(const app_index &app)
    {
        return sw_evlan_type_underlay(static_cast<uint32_t>(app.type)) != 0;
    }
    // A wanted id has to be of the key's type.
    static bool accepts_value(site where, uint32_t type, uint32_t value)
    {
        if (type_of(value) == type)
            return true;
        SW_LOG_AT(where, error, "Assert:Bad EVLAN type, IDType(%d) vs APPType(%d)", type_of(value), type);
        return false;
    }
    // Whether a release may be pending that a new request takes back.
    static bool may_come_back(const app_index &app) { return !is_underlay(app); }
    static bool is_delayed(const app_index &app, uint32_t delayed) { return delayed == 1 && !is_underlay(app); }
    // A released key is no longer wanted. It is what protects a key that is requested again from the removal of its old
    // session.
    static constexpr bool release_ends_request = true;
    static bool survives_removal(const map_item &item) { return (item.ds_flag & SW_INDEX_MAP_REQUESTED) != 0; }
    // Whose replies a user takes: 2 everybody's, odd everybody's VLANs, 0 its own, any other even value none.
    static bool in_scope(const sw_ebridge_list_item &user, const session &of)
    {
        const uint32_t scope = user.evlan_data_type;
        if (scope == 2)
            return true;
        if (scope % 2 != 0)
            return type_of(static_cast<uint32_t>(of.reply_value)) == U_BRIDGE__EVLAN_TYPE__VLAN;
        return scope == 0 && same_name(of.index->t_user, user.user_name);
    }
    // Removals are heard more narrowly on purpose: by nobody with an odd scope.
    static bool hears_removal(const sw_ebridge_list_item &user, const session &of)
    {
        return user.evlan_data_type == 2 || (user.evlan_data_type == 0 && same_name(of.index->t_user, user.user_name));
    }
    // What a user in scope does with a grant: a record of its own in the local database, and the callback of the id's
    // kind: VLANs by their number.
    static void take_grant(site where, const sw_ebridge_list_item &user, const session &of);
    // The requester hears of a refusal through every reply callback that it has.
    static void tell_refusal(site where, const sw_ebridge_list_item &user, const session &of);
    // The local record was withdrawn by the release; only the callback is left.
    static void take_removal(site where, const sw_ebridge_list_item &user, const session &of);
    static const char *missing_part(const session *of)
    {
        const bool whole = of != nullptr && of->index != nullptr && of->index->t_user != nullptr;
        return whole ? nullptr : "Assert:evlan session is NULL.";
    }
    static bool good_map_arguments(site where, uint32_t inst, const map_item *item)
    {
        return check_map_arguments(where, inst, item);
    }

    static constexpr char no_user_to_insert[] = "Assert:No user named as %s.";
    static constexpr char no_record[] = "Assert:Bad evlan.";
    static constexpr char no_dst[] = "Assert:Dest evlan is NULL.";
    static constexpr char no_src[] = "Assert:Src evlan is NULL.";
    static constexpr char removed[] = "Remove user[%s].evlan[0x%x].";
    static constexpr char merged[] = "one evlan_attr found, user: %s, evlan_id: 0x%x.";
    static constexpr char no_dump_item[] = "Assert:Bad evlan index.";
    static constexpr char no_dump_args[] = "Assert:Bad evlan index args.";
    static constexpr char map_total[] = "total count of instance(%d) is %d.\n";
    static constexpr char no_index[] = "Assert:Bad index.";
    static constexpr char bad_type[] = "Assert:Bad evlan type 0";
    static constexpr char no_map_item[] = "Assert:create evlan map item fail";
    static constexpr char translated[] = "app2udp evlan_id: 0x%x, rv: %d.";
    static constexpr char withdraw_failed[] = "Assert:qz_mom_del failed, user: %s, evlan_id: 0x%x, rv: %d.";
    static constexpr char kept[] = "active evlan item, no allow del.";
    static constexpr char old_reverse[] = "deleting old udp2app data, evlan_id: 0x%x.";
    static constexpr char heard[] = "EVLAN session callback, func is %p, args is %p.";
    static constexpr char subscribed[] = "EVLAN session callback, func is %p, args is %p.";
    static constexpr char scanned[] = "EVLAN session callback, func is %p, args is %p.";
    static constexpr char scan[] = "scan evlan_data, user: %s, db: %d, func_callback: %p, args: %p.";
    static constexpr char subscribe[] = "User '%s' subscribe EVLAN, func is %p, args is %p.";
    static constexpr char subscribe_db[] = "User '%s' subscribe EVLAN, DB is %d, func is %p, args is %p.";
    static constexpr char subscribe_no_memory[] = "Assert:Malloc *ebridge_evlan_args failed.";
    static constexpr char subscribe_failed[] = "qz_mom_subscribe_field failed, rv: %d.";
    static constexpr char no_aging_callback[] = "sw_evlan_aging_flag_set func_callback is null.";
    static constexpr char aging_failed[] =
        "Assert:Aging all EVLAN of '%s' in db[%d] failed, global is %p, error is %d.\n";
    static constexpr char aged[] = "delete aged evlan: user=%s";
    static constexpr char not_held[] = "Assert:User[%s].EVLAN[0x%x] not exsit.";

    static void log_inserted(site where, const attr &record)
    {
        SW_LOG_AT(where, info, "Insert user[%s].evlan[0x%x]!", record.user_name, record.evlan_id);
    }
    static void log_not_inserted(site where, uint32_t, const char *user_name, uint32_t id)
    {
        SW_LOG_AT(where, error, "Assert:Insert user[%s].evlan[0x%x] failed!", user_name, id);
    }
    static void log_not_mapped(site where, const map_item &item)
    {
        SW_LOG_AT(where, error,
                  "Assert:EVLAN Index map failed, user is %s, type is %d, keyid1 is 0x%x, keyid2 is 0x%x.",
                  item.user_name, item.kind, item.key[1], item.key[2]);
    }
    static void log_request(site where, const app_index &app, uint32_t value)
    {
        SW_LOG_AT(where, info, "user: %s, type: 0x%x, key(vid or ifx or vni) id: %d, evlan_id: 0x%x.", app.t_user,
                  static_cast<uint32_t>(app.type), app.keyid, value);
    }
    static void log_clear_expire(site where, const app_index &app, uint32_t id)
    {
        SW_LOG_AT(where, info, "clear expire, user: %s, type: 0x%x, keyid: %d, evlan_id: 0x%x.", app.t_user,
                  static_cast<uint32_t>(app.type), app.keyid, id);
    }
    // Not looked at: the write that follows clears the mark as well.
    static void log_not_cleared(site, int32_t) {}
    static void log_release(site where, const app_index &app)
    {
        SW_LOG_AT(where, info, "user: %s, type: 0x%x, key(vid or ifx or vni) id: %d.", app.t_user,
                  static_cast<uint32_t>(app.type), app.keyid);
    }
    static void log_no_memory(site where, const app_index &app)
    {
        SW_LOG_AT(where, error, "Assert:Malloc for user[%s].type[%d].keyid[0x%x] failed.", app.t_user,
                  static_cast<uint32_t>(app.type), static_cast<uint32_t>(app.keyid));
    }
    static void log_not_expired(site where, const sw_ebridge_list_item &user, const app_index &app, int32_t rv)
    {
        SW_LOG_AT(
            where, error,
            "Assert:evlan release, qz_mom_pexpire failed, user: %s, type: 0x%x, key(vid or ifx or vni) id: %d, mom_handle: %p, mom_db: %d, rv: %d.",
            app.t_user, static_cast<uint32_t>(app.type), app.keyid, static_cast<void *>(user.mom_handle), user.mod_db,
            rv);
    }
    static void log_not_deleted(site where, int32_t rv)
    {
        SW_LOG_AT(where, error, "Assert:qz_mom_del failed, rv: %d.", rv);
    }
    static void log_released(site, const app_index &, int32_t) {}
    static void log_delay_over(site where, const app_index &app)
    {
        SW_LOG_AT(where, info, "pexpire_end, user: %s, type: 0x%x, keyid: %d.", app.t_user,
                  static_cast<uint32_t>(app.type), app.keyid);
    }
    static void log_scan_end(site where, sw_ebridge_mom_func func)
    {
        SW_LOG_AT(where, info, "scan end callback %p.", address(func));
    }
    static void log_reply(site where, const session &of)
    {
        SW_LOG_AT(where, info, "app_index-user: %s, type: %d, keyid: %d, evlan_index-evlan_id: 0x%x(priority: %d).",
                  of.index->t_user, of.index->type, of.index->keyid, static_cast<uint32_t>(of.reply_value),
                  static_cast<int>(of.priority));
    }
    static void log_regrant(site where, const app_index &app, uint32_t old_id, uint32_t new_id)
    {
        SW_LOG_AT(where, info,
                  "updating old app2udp data, type: 0x%x, keyid: %d(old_evlan_id: 0x%x, new_evlan_id: 0x%x).",
                  static_cast<uint32_t>(app.type), app.keyid, old_id, new_id);
    }
    static void log_no_more(site where, const app_index &app)
    {
        SW_LOG_AT(where, warning, "no more evlan id available, user: %s, app_index->type: 0x%x, keyid: %d.", app.t_user,
                  static_cast<uint32_t>(app.type), app.keyid);
    }
    static void log_granted(site where, const app_index &app, uint32_t id)
    {
        SW_LOG_AT(where, info, "user: %s, keyid: %d, reply value: 0x%x.", app.t_user, app.keyid, id);
    }
    static void log_refused(site where, const app_index &app)
    {
        SW_LOG_AT(where, error, "User[%s].evlan[type:0x%x, keyid: %x] reply failed result.", app.t_user,
                  static_cast<uint32_t>(app.type), static_cast<uint32_t>(app.keyid));
    }
    static void log_removal(site where, const app_index &app, uint32_t id, int32_t rv)
    {
        SW_LOG_AT(where, info, "release db app_user: %s, type: %d, keyid: %d, evlan_id: 0x%x, rv: %d.", app.t_user,
                  app.type, app.keyid, id, rv);
    }
    static void log_unmapped(site where, const app_index &app, uint32_t id)
    {
        SW_LOG_AT(where, info, "release db app_user: %s, type: %d, keyid: %d, evlan_id: 0x%x.", app.t_user, app.type,
                  app.keyid, id);
    }
};

struct eport_kind {
    using app_index = UBridge__EportAppIndex;
    using index = UBridge__EportIndex;
    using session = UBridge__EportSession;
    using stored_attr = UBridge__Eport;
    using attr = sw_eport_attr;
    using map_item = sw_eport_index_map;

    // Type, keyid1 and keyid2: an attachment is known by two numbers.
    static constexpr uint32_t key_words = 3;
    static constexpr uint32_t first_pair = 0;
    static constexpr int32_t session_expiry = QZ_MOM_EXPIRE_EPORT_SESSION;
    // Without memory the release has failed like any other that the store refuses.
    static constexpr int32_t no_memory = -3;
    static constexpr bool counts_without_memory = true;
    // A confirmation and the end of a scan have lines of their own and end there: a session that comes with the end of a
    // scan is not applied.
    static constexpr bool milestones_apart = true;

    static constexpr auto requests = &sw_diagnosis_stat::eport_request;
    static constexpr auto add_replies = &sw_diagnosis_stat::eport_add_reply;
    static constexpr auto del_replies = &sw_diagnosis_stat::eport_del_reply;
    static constexpr auto refusals = &sw_diagnosis_stat::eport_auto_release;
    static constexpr auto releases = &sw_diagnosis_stat::eport_total_release;
    static constexpr auto user_maps = &sw_ebridge_list_item::eport_maps;
    static constexpr auto attr_db = &sw_ebridge_list_item::eport_attr_mom_db;

    static constexpr auto app2udp = sw_eport_app2udp;
    static constexpr auto release_direct = sw_eport_release_direct;
    static constexpr auto release_callback = sw_eport_release_callback;
    static constexpr auto session_callback = sw_vlan_mom_msg_eport_session_reply;
    static constexpr auto session_reply = sw_eport_session_reply;
    static constexpr auto record_err_msg = sw_eport_record_err_msg;
    static constexpr auto default_callback = sw_eport_aging_default_callbak;
    static constexpr auto init = sw_eport_init;
    static constexpr auto find_attr = sw_eport_db_get_item;
    static constexpr auto map_get = sw_eport_index_map_get_item;
    static constexpr auto map_create = sw_eport_index_map_update_item;  // which creates, too
    static constexpr auto map_update = sw_eport_index_map_update_item;
    static constexpr auto map_delete = sw_eport_index_map_delete_item;
    static const qz_mom_timeval &release_delay() { return eport_delay_del_timeval; }

    static app_index new_app_index() { return U_BRIDGE__EPORT_APP_INDEX__INIT; }
    static session new_session() { return U_BRIDGE__EPORT_SESSION__INIT; }
    static stored_attr new_stored_attr() { return U_BRIDGE__EPORT__INIT; }
    static index new_index(char *t_user, int32_t id)
    {
        index made = U_BRIDGE__EPORT_INDEX__INIT;
        made.t_user = t_user;
        made.eport_id = id;
        return made;
    }
    static uint32_t id_of(const index &of) { return static_cast<uint32_t>(of.eport_id); }
    static uint32_t id_of(const attr &of) { return of.eport_id; }
    static void set_id(attr &key, uint32_t id) { key.eport_id = id; }
    static void key_of(const app_index &app, uint32_t (&key)[4])
    {
        key[0] = static_cast<uint32_t>(app.type);
        key[1] = static_cast<uint32_t>(app.keyid1);
        key[2] = static_cast<uint32_t>(app.keyid2);
        key[3] = 0;
    }
    static app_index app_of(const map_item &item)
    {
        app_index app = new_app_index();
        app.type = static_cast<int32_t>(item.key[0]);
        app.keyid1 = static_cast<int32_t>(item.key[1]);
        app.keyid2 = static_cast<int32_t>(item.key[2]);
        return app;
    }
    static void put_db(map_item &item, uint32_t db) { item.carried[0] = db; }
    static void copy_carried(map_item &to, const map_item &from)
    {
        std::memmove(to.carried, from.carried, sizeof to.carried);
    }

    // A new record keeps the attributes that it came with, and the caller's record takes the owner's name.
    static attr fresh(const char *user_name, attr &given)
    {
        copy_name(given.user_name, user_name);
        return given;
    }
    static void delete_attr(const char *user_name, uint32_t id)
    {
        const index key = new_index(nullptr, static_cast<int32_t>(id));
        sw_eport_db_delete_item(0, user_name, &key);
    }
    // Eport records are on no list.
    static void link_attr(attr &) {}
    static void unlink_attr(attr &) {}

    // A wanted id is asked for as it stands: for an interface the port table says whether its id is a PORT's or an AP's,
    // whatever type the key names.
    static bool accepts_value(site, uint32_t, uint32_t) { return true; }
    // No type is released at once by itself, so each may come back.
    static bool may_come_back(const app_index &) { return true; }
    static bool is_delayed(const app_index &, uint32_t delayed) { return delayed != 0; }
    // The active request takes no part in release and removal: a removal always empties the map.
    static constexpr bool release_ends_request = false;
    static bool survives_removal(const map_item &) { return false; }
    // Whose replies a user takes: 1 everybody's, 0 its own, any other value none.
    static bool in_scope(const sw_ebridge_list_item &user, const session &of)
    {
        const uint32_t scope = user.eport_data_type;
        return scope == 1 || (scope == 0 && same_name(of.index->t_user, user.user_name));
    }
    static bool hears_removal(const sw_ebridge_list_item &user, const session &of) { return in_scope(user, of); }
    // Records are shared: there is one under the requester's name, whoever hears of the grant, and it goes with the
    // session. There is one callback, for all types.
    static void take_grant(site where, const sw_ebridge_list_item &user, const session &of);
    static void tell_refusal(site where, const sw_ebridge_list_item &user, const session &of);
    static void take_removal(site where, const sw_ebridge_list_item &user, const session &of);
    static const char *missing_part(const session *of)
    {
        if (of == nullptr)
            return "Assert:EPORT session is NULL.";
        return of->index != nullptr && of->index->t_user != nullptr ? nullptr : "Assert:EPORT session index is NULL.";
    }
    // Look-ups and deletions are silent where those of evlans complain.
    static bool good_map_arguments(site, uint32_t inst, const map_item *item)
    {
        return inst < SW_EBRIDGE_SLOTS && item != nullptr;
    }

    static constexpr char no_user_to_insert[] = "Assert:No user named '%s'.";
    static constexpr char no_record[] = "Assert:Bad eport.";
    static constexpr char no_dst[] = "Assert:Dest eport is NULL.";
    static constexpr char no_src[] = "Assert:Src eport is NULL.";
    static constexpr char removed[] = "Remove user[%s].eport[0x%x].";
    static constexpr char merged[] = "Merge User[%s].eport[0x%x].";
    static constexpr char no_dump_item[] = "Assert:Bad eport index.";
    static constexpr char no_dump_args[] = "Assert:Bad eport index args.";
    static constexpr char map_total[] = "total eport index map of instance(%d) is %d.\n";
    static constexpr char no_index[] = "Assert:EPORT index is NULL.";
    static constexpr char bad_type[] = "Assert:Bad eport type 0";
    static constexpr char no_map_item[] = "Assert:create eport map item fail";
    static constexpr char translated[] = "app2udp eport_id: 0x%x, rv: %d.";
    static constexpr char withdraw_failed[] = "Assert:qz_mom_del failed, user: %s, eport_id: 0x%x, rv: %d.";
    static constexpr char kept[] = "";  // no item survives its removal
    static constexpr char old_reverse[] = "deleting old udp2app data, eport_id: 0x%x.";
    static constexpr char heard[] = "EPORT session callback, func is %p, args is %p.";
    static constexpr char subscribed[] = "subscribe callback, func is %p, args is %p.";
    static constexpr char scanned[] = "scanover callback, func is %p, args is %p.";
    static constexpr char scan[] = "scan eport_data, user: %s, db: %d, func_callback: %p, args: %p.";
    static constexpr char subscribe[] = "User '%s' subscribe EPORT, func is %p, args is %p.";
    static constexpr char subscribe_db[] = "User '%s' subscribe EPORT, DB is %d, func is %p, args is %p.";
    static constexpr char subscribe_no_memory[] = "Assert:Malloc failed.";
    static constexpr char subscribe_failed[] = "qz_mom_subscribe_field failed, error is %d.";
    static constexpr char no_aging_callback[] = "sw_eport_aging_flag_set func_callback is null.";
    static constexpr char aging_failed[] =
        "Assert:Aging all EPORT of '%s' in db[%d] failed, global is %p, error is %d.\n";
    static constexpr char aged[] = "delete aged eport: user=%s";
    // The evlan text has capitals; neither follows the other.
    static constexpr char not_held[] = "Assert:user[%s].eport[0x%x] not exsit.";

    static void log_inserted(site, const attr &) {}
    static void log_not_inserted(site where, uint32_t inst, const char *user_name, uint32_t id)
    {
        SW_LOG_AT(where, error, "Assert:Insert inst[%d].user[%s].eport[0x%x] failed.", inst, user_name, id);
    }
    static void log_not_mapped(site where, const map_item &item)
    {
        SW_LOG_AT(where, error, "Assert:EPort Index map failed, user is %s, type is %d", item.user_name, item.kind);
    }
    static void log_request(site where, const app_index &app, uint32_t value)
    {
        SW_LOG_AT(where, info, "type: 0x%x, user: %s, keyid1: %d, keyid2: %d, eport_id: 0x%x.",
                  static_cast<uint32_t>(app.type), app.t_user, app.keyid1, app.keyid2, value);
    }
    static void log_clear_expire(site where, const app_index &app, uint32_t id)
    {
        SW_LOG_AT(where, info, "clear expire, user: %s, type: 0x%x, keyid1: %d, keyid2: %d, eport_id: 0x%x.",
                  app.t_user, static_cast<uint32_t>(app.type), app.keyid1, app.keyid2, id);
    }
    static void log_not_cleared(site where, int32_t rv)
    {
        SW_LOG_AT(where, error, "Assert:qz_mom_clear_expire failed, rv: %d.", rv);
    }
    static void log_release(site, const app_index &) {}
    // A failure has one line, at the end, whatever failed.
    static void log_no_memory(site, const app_index &) {}
    static void log_not_expired(site, const sw_ebridge_list_item &, const app_index &, int32_t) {}
    static void log_not_deleted(site, int32_t) {}
    static void log_released(site where, const app_index &app, int32_t rv)
    {
        if (rv != 0)
            SW_LOG_AT(where, error, "User[%s] release eport[type:0x%x, keyid1:%d, keyid2:%d] failed, error is %d.",
                      app.t_user, static_cast<uint32_t>(app.type), app.keyid1, app.keyid2, rv);
        else
            SW_LOG_AT(where, info, "User[%s] release eport[type:0x%x, keyid1:%d, keyid2:%d].", app.t_user,
                      static_cast<uint32_t>(app.type), app.keyid1, app.keyid2);
    }
    static void log_delay_over(site where, const app_index &app)
    {
        SW_LOG_AT(where, info, "pexpire_end, user: %s, type: 0x%x, keyid1: %d, keyid2: %d.", app.t_user,
                  static_cast<uint32_t>(app.type), app.keyid1, app.keyid2);
    }
    static void log_scan_end(site, sw_ebridge_mom_func) {}
    static void log_reply(site where, const session &of)
    {
        SW_LOG_AT(where, info,
                  "app_index-user: %s, type: %d, keyid1: %d, keyid2: %d, eport_index-eport_id: 0x%x(priority: %d)\n",
                  of.index->t_user, of.index->type, of.index->keyid1, of.index->keyid2,
                  static_cast<uint32_t>(of.reply_value), static_cast<int>(of.priority));
    }
    static void log_regrant(site where, const app_index &app, uint32_t old_id, uint32_t new_id)
    {
        SW_LOG_AT(
            where, info,
            "updating old app2udp data, type: 0x%x, keyid1: %d, keyid2: %d(old_eport_id: 0x%x, new_eport_id: 0x%x).",
            static_cast<uint32_t>(app.type), app.keyid1, app.keyid2, old_id, new_id);
    }
    static void log_no_more(site where, const app_index &app)
    {
        SW_LOG_AT(where, warning,
                  "no more eport id available, user: %s, app_index->type: 0x%x, keyid1: %d, keyid2: %d.", app.t_user,
                  static_cast<uint32_t>(app.type), app.keyid1, app.keyid2);
    }
    static void log_granted(site where, const app_index &app, uint32_t id)
    {
        SW_LOG_AT(where, info, "user: %s, keyid1: %d, keyid2: %d, reply value: 0x%x.", app.t_user, app.keyid1,
                  app.keyid2, id);
    }
    static void log_refused(site, const app_index &) {}
    static void log_removal(site where, const app_index &app, uint32_t id, int32_t rv)
    {
        SW_LOG_AT(where, info, "release db app_user: %s, type: %d, keyid1: %d, keyid2: %d, eport_id: 0x%x, rv: %d.",
                  app.t_user, app.type, app.keyid1, app.keyid2, id, rv);
    }
    static void log_unmapped(site where, const app_index &app, uint32_t id)
    {
        SW_LOG_AT(where, info, "release db app_user: %s, type: %d, keyid1: %d, keyid2: %d, eport_id: 0x%x\n",
                  app.t_user, app.type, app.keyid1, app.keyid2, id);
    }
};

}  // namespace sw
