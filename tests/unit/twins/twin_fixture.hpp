// Evlans and eports in one test: a structure for each kind with its calls, its records and its words, in the same order,
// so that a test stands once and runs for both. What differs between them is a row here with its name, or a test of its
// own that names the difference.
#pragma once

#include "../eport/eport_fixture.hpp"
#include "../evlan/evlan_fixture.hpp"
#include "store_calls.hpp"

namespace twin_test
{

using namespace bridge_test;
using eport_test::ac;
using eport_test::EportTest;
using evlan_test::EvlanTest;
using evlan_test::vlan;
using evlan_test::vxlan;

inline constexpr uint32_t id_of(uint32_t type, uint32_t number) { return type << 24 | number; }

// The user that most tests have: takes all sessions of both kinds, on a handle of its own.
inline sw_ebridge_list_item *add_twin(const user_with<0> &wanted = {.handle = recording::other_handle()})
{
    ebridge_args args{};
    args.evlan_data_type = 2;
    args.eport_data_type = 1;
    return register_user<no_ears>(args, wanted);
}

struct evlans {
    static constexpr char name[] = "evlan", title[] = "EVLAN";
    static constexpr char source[] = "app/lib/ebridge/libsw_ebridge_evlan.cpp";
    static constexpr uint32_t attr_db = evlan_attr_db;

    // ---- records
    using attr = sw_evlan_attr;
    using map = sw_evlan_index_map;
    static constexpr uint32_t id(uint32_t number) { return id_of(vxlan, number); }
    static std::string session(const char *user, int n)
    {
        return format("u_bridge.evlan_session{index{t_user:\"%s\" type:32 keyid:%d}}", user, n);
    }
    static attr make(const char *user, uint32_t evlan)
    {
        attr record;
        sw_evlan_init(&record, user, evlan);
        return record;
    }
    static constexpr auto id_in = &attr::evlan_id;

    // ---- local database and index map
    static attr *insert(const char *user, uint32_t evlan) { return evlan_test::insert(user, evlan); }
    static attr *held(const char *user, uint32_t evlan) { return sw_evlan_db_get_item(0, user, evlan); }
    static map *item(int n) { return find(key(n)); }
    static map *store(const map &wanted) { return sw_evlan_index_map_update_item(0, &wanted); }
    static map key(int n) { return evlan_test::map_key(SW_INDEX_MAP_APP2UDP, vxlan, static_cast<uint32_t>(n)); }
    static map reverse_key(int n) { return evlan_test::map_key(SW_INDEX_MAP_UDP2APP, id(static_cast<uint32_t>(n))); }
    static map *find(const map &wanted) { return evlan_test::stored(wanted); }

    // ---- request and answer
    static int32_t request(const char *user, int n) { return evlan_test::request(user, vxlan, n); }
    static int32_t grant(const char *user, int n)
    {
        return evlan_test::grant(user, vxlan, n, id(static_cast<uint32_t>(n)));
    }

    // ---- attributes
    static constexpr auto get = sw_evlan_attr_get;
    static constexpr auto set = sw_evlan_attr_set;
    static constexpr uint32_t verified_types[] = {vlan};
    static constexpr uint32_t own_types[] = {0, 15, 17, 32, 48, 64, 80, 96, 112, 128, 255};
    static strings get_lines(const char *, uint32_t) { return {}; }
    static std::string set_line(const char *user, uint32_t evlan)
    {
        return format("info sw_evlan_attr_set: user: %s, evlan_id: 0x%x.", user, evlan);
    }
    // Reading and writing spell it apart.
    static std::string absent_to_get(const char *user, uint32_t evlan)
    {
        return format("Assert:User[%s].EVLAN[0x%x] not exsit.", user, evlan);
    }
    static std::string absent_to_set(const char *user, uint32_t evlan)
    {
        return format("Assert:user[%s].evlan[0x%x] not exsit.", user, evlan);
    }
    static std::string no_room(const char *user, uint32_t evlan)
    {
        return format("Assert:Insert user[%s].evlan[0x%x] failed!", user, evlan);
    }

    // ---- scan and subscribe
    static constexpr size_t first_slot = 4;
    static constexpr auto slot = sw_evlan_get_mom_ds_args;
    static constexpr auto scan_with_db = sw_evlan_data_scan_with_db;
    static constexpr auto scan = sw_evlan_data_scan;
    static constexpr auto subscribe_with_db = sw_evlan_subscribe_with_db;
    static constexpr auto subscribe = sw_evlan_subscribe;
    static constexpr auto heard_by = sw_vlan_mom_msg_evlan_session_reply;
    static constexpr char subscriber[] = "subscribe_db_exec";  // the step that logs what fails
    static constexpr char no_pair[] = "Assert:Malloc *ebridge_evlan_args failed.";
    static std::string not_subscribed(int32_t rv) { return format("qz_mom_subscribe_field failed, rv: %d.", rv); }
    static std::string end_line(const void *func, const void *) { return format("scan end callback %p.", func); }

    // ---- aging
    static constexpr auto mark = sw_evlan_aging_flag_set;
    static constexpr auto aged_delete = sw_evlan_aged_data_delete;
    static constexpr auto clear = sw_evlan_no_request_clear;
    static constexpr auto default_callback = sw_evlan_aging_default_callbak;
    static constexpr auto attr_mark = sw_evlan_attr_aging_flag_set;
    static constexpr auto attr_mark_sync = sw_evlan_attr_aging_flag_set_sync;
    static constexpr auto attr_aged_delete = sw_evlan_attr_aged_data_delete;

    // ---- diagnosis
    static constexpr auto record_error = sw_evlan_record_err_msg;
    static constexpr auto ring = sw_evlan_get_err_msg_array;
    static constexpr auto counted_errors = &sw_diagnosis_stat::evlan_err_msg;
    static constexpr size_t error_counter = 8;  // of the seventeen, from 0
};

struct eports {
    static constexpr char name[] = "eport", title[] = "EPORT";
    static constexpr char source[] = "app/lib/ebridge/libsw_ebridge_eport.cpp";
    static constexpr uint32_t attr_db = eport_attr_db;

    // ---- records
    using attr = sw_eport_attr;
    using map = sw_eport_index_map;
    static constexpr uint32_t id(uint32_t number) { return id_of(ac, number); }
    static std::string session(const char *user, int n)
    {
        return format("u_bridge.eport_session{index{t_user:\"%s\" type:48 keyid1:%d keyid2:%d}}", user, n, n + 100);
    }
    static attr make(const char *user, uint32_t eport)
    {
        attr record;
        sw_eport_init(&record, user, eport);
        return record;
    }
    static constexpr auto id_in = &attr::eport_id;

    // ---- local database and index map
    static attr *insert(const char *user, uint32_t eport) { return eport_test::insert(user, eport); }
    static attr *held(const char *user, uint32_t eport) { return sw_eport_db_get_item(0, user, eport); }
    static map *item(int n) { return find(key(n)); }
    static map *store(const map &wanted) { return sw_eport_index_map_update_item(0, &wanted); }
    static map key(int n)
    {
        return eport_test::map_key(SW_INDEX_MAP_APP2UDP, ac, static_cast<uint32_t>(n), static_cast<uint32_t>(n + 100));
    }
    static map reverse_key(int n) { return eport_test::map_key(SW_INDEX_MAP_UDP2APP, id(static_cast<uint32_t>(n))); }
    static map *find(const map &wanted) { return eport_test::stored(wanted); }

    // ---- request and answer
    static int32_t request(const char *user, int n) { return eport_test::request(user, ac, n, n + 100); }
    static int32_t grant(const char *user, int n)
    {
        return eport_test::grant(user, ac, n, n + 100, id(static_cast<uint32_t>(n)));
    }

    // ---- attributes
    static constexpr auto get = sw_eport_attr_get;
    static constexpr auto set = sw_eport_attr_set;
    static constexpr uint32_t verified_types[] = {16, 32};
    static constexpr uint32_t own_types[] = {0,  15, 17, 31,  33,  48,  49,  64,  65,  80,
                                             81, 96, 97, 112, 113, 128, 144, 160, 161, 255};
    static strings get_lines(const char *user, uint32_t eport)
    {
        return {format("info sw_eport_attr_get: user[%s].eport[0x%x].", user, eport)};
    }
    static std::string set_line(const char *user, uint32_t eport)
    {
        return format("info sw_eport_attr_set: user[%s].eport[0x%x].", user, eport);
    }
    static std::string absent_to_get(const char *user, uint32_t eport)
    {
        return format("Assert:user[%s].eport[0x%x] not exsit.", user, eport);
    }
    static std::string absent_to_set(const char *user, uint32_t eport) { return absent_to_get(user, eport); }
    static std::string no_room(const char *user, uint32_t eport)
    {
        return format("Assert:Insert inst[0].user[%s].eport[0x%x] failed.", user, eport);
    }

    // ---- scan and subscribe
    static constexpr size_t first_slot = 0;
    static constexpr auto slot = sw_eport_get_mom_ds_args;
    static constexpr auto scan_with_db = sw_eport_data_scan_with_db;
    static constexpr auto scan = sw_eport_data_scan;
    static constexpr auto subscribe_with_db = sw_eport_subscribe_with_db;
    static constexpr auto subscribe = sw_eport_subscribe;
    static constexpr auto heard_by = sw_vlan_mom_msg_eport_session_reply;
    static constexpr char subscriber[] = "subscribe_with_db";
    static constexpr char no_pair[] = "Assert:Malloc failed.";
    static std::string not_subscribed(int32_t rv) { return format("qz_mom_subscribe_field failed, error is %d.", rv); }
    static std::string end_line(const void *func, const void *arg)
    {
        return format("scanover callback, func is %p, args is %p.", func, arg);
    }

    // ---- aging
    static constexpr auto mark = sw_eport_aging_flag_set;
    static constexpr auto aged_delete = sw_eport_aged_data_delete;
    static constexpr auto clear = sw_eport_no_request_clear;
    static constexpr auto default_callback = sw_eport_aging_default_callbak;
    static constexpr auto attr_mark = sw_eport_attr_aging_flag_set;
    static constexpr auto attr_mark_sync = sw_eport_attr_aging_flag_set_sync;
    static constexpr auto attr_aged_delete = sw_eport_attr_aged_data_delete;

    // ---- diagnosis
    static constexpr auto record_error = sw_eport_record_err_msg;
    static constexpr auto ring = sw_eport_get_err_msg_array;
    static constexpr auto counted_errors = &sw_diagnosis_stat::eport_err_msg;
    static constexpr size_t error_counter = 16;
};

template <typename Kind>
class Twin : public BridgeTest
{
  protected:
    Twin() : BridgeTest(Kind::source) {}
};

using kinds = testing::Types<evlans, eports>;

// An item of the index map with this key and these flags, on the user's list.
template <typename Kind>
typename Kind::map *add_item(const char *user, typename Kind::map wanted, uint32_t flags)
{
    snprintf(wanted.user_name, sizeof wanted.user_name, "%s", user);
    auto *item = Kind::store(wanted);
    item->ds_flag = flags;
    recording::reset();
    return item;
}

template <typename Kind>
typename Kind::map *add_item(const char *user, int n, uint32_t flags)
{
    return add_item<Kind>(user, Kind::key(n), flags);
}

// ---- what is expected

// As the trace shows a line of this side: line<evlans>("info", "attr_set", "...").
template <typename Kind>
std::string line(const char *level, const char *function, const std::string &text)
{
    return std::string(level) + " sw_" + Kind::name + "_" + function + ": " + text;
}

// A text that the two sides have alike, with EVLAN and evlan, or EPORT and eport, where it says TITLE and NAME.
template <typename Kind>
std::string words(std::string pattern)
{
    for (const auto &[word, by] : {std::pair("TITLE", Kind::title), std::pair("NAME", Kind::name)})
        for (size_t at; (at = pattern.find(word)) != std::string::npos;)
            pattern.replace(at, std::strlen(word), by);
    return pattern;
}

// Patterns: the sessions of everybody, those of one user, and the attribute records of one user.
template <typename Kind>
std::string every_session()
{
    return words<Kind>("u_bridge.NAME_session{index{}}");
}

template <typename Kind>
std::string sessions_of(const std::string &user)
{
    return words<Kind>("u_bridge.NAME_session{index{t_user:\"") + user + "\"}}";
}

template <typename Kind>
std::string attributes_of(const std::string &user)
{
    return words<Kind>("u_bridge.NAME{index{t_user:\"") + user + "\"}}";
}

}  // namespace twin_test
