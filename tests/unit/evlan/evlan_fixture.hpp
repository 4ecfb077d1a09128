// What the evlan tests share: users with callbacks that write down what they hear, session records and notifications,
// and the trace: everything that the library did, in order, as one list of texts.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "recording_platform.hpp"
#include "sw_ebridge.h"

namespace evlan_test
{

using strings = std::vector<std::string>;

inline constexpr uint32_t vlan = U_BRIDGE__EVLAN_TYPE__VLAN;
inline constexpr uint32_t vxlan = U_BRIDGE__EVLAN_TYPE__VXLAN;
inline constexpr uint32_t l3intf_sub = U_BRIDGE__EVLAN_TYPE__L3INTF_SUB;
inline constexpr uint32_t l3vpn = U_BRIDGE__EVLAN_TYPE__L3VPN;
inline constexpr uint32_t attr_db = 12;

inline constexpr uint32_t evlan_id(uint32_t type, uint32_t number) { return type << 24 | number; }

// protobuf-c records hold plain char pointers; nothing here writes through them.
inline char *text(const char *name) { return const_cast<char *>(name); }

__attribute__((format(printf, 1, 2))) inline std::string format(const char *pattern, ...)
{
    char out[1024];
    va_list args;
    va_start(args, pattern);
    vsnprintf(out, sizeof out, pattern, args);
    va_end(args);
    return out;
}

template <typename Function>
void *address(Function *function)
{
    return reinterpret_cast<void *>(function);
}

// ---- users and what they hear

inline constexpr unsigned no_callbacks = 0, hears_vlan = 1, hears_evlan = 2, hears_release = 4, hears_all = 7;

struct user {
    const char *name = "app";
    uint32_t scope = 2;  // evlan_data_type
    unsigned callbacks = hears_all;
    uint32_t db = SW_EBRIDGE_APP_DB;
    qz_mom_handle *handle = recording::handle();
};

// Callbacks carry no argument of their own, so each user gets functions of its own: the nth those of ears<n>.
inline constexpr size_t ear_count = 6;
inline std::string ear_names[ear_count];
inline size_t ears_given = 0;
inline std::function<void()> inside_callback;  // runs within each callback, after it was written down

// The result would end a walk over the users if anyone looked at it.
inline int32_t hear(const std::string &what)
{
    recording::sequence().push_back(what);
    if (inside_callback)
        inside_callback();
    return SW_EBRIDGE_WALK_STOP;
}

// What a callback is handed can be encoded: it is a message of its type.
template <typename Message>
void expect_message(const Message *message, const ProtobufCMessageDescriptor &type)
{
    EXPECT_EQ(message->base.descriptor, &type);
}

template <size_t N>
struct ears {
    static int32_t vlan_reply(UBridge__VlanAppIndex *index, int32_t vlan_id)
    {
        expect_message(index, u_bridge__vlan_app_index__descriptor);
        return hear(format("%s hears vlan %s/%d/%d: %d", ear_names[N].c_str(), index->user, index->type, index->keyid,
                           vlan_id));
    }
    static int32_t evlan_reply(UBridge__EvlanAppIndex *app, UBridge__EvlanIndex *evlan)
    {
        expect_message(evlan, u_bridge__evlan_index__descriptor);
        return hear(format("%s hears evlan %s/%d/%d: %s 0x%x", ear_names[N].c_str(), app->t_user, app->type, app->keyid,
                           evlan->t_user, static_cast<uint32_t>(evlan->evlan_id)));
    }
    static int32_t release(UBridge__EvlanAppIndex *app, UBridge__EvlanIndex *evlan, int32_t event)
    {
        expect_message(evlan, u_bridge__evlan_index__descriptor);
        return hear(format("%s hears release %s/%d/%d: %s 0x%x event %d", ear_names[N].c_str(), app->t_user, app->type,
                           app->keyid, evlan->t_user, static_cast<uint32_t>(evlan->evlan_id), event));
    }
    static void fill(ebridge_args &args, unsigned which)
    {
        args.vlan_reply = which & hears_vlan ? vlan_reply : nullptr;
        args.evlan_reply = which & hears_evlan ? evlan_reply : nullptr;
        args.evlan_release_reply = which & hears_release ? release : nullptr;
    }
};

inline void give_ears(ebridge_args &args, unsigned which)
{
    static constexpr std::array<void (*)(ebridge_args &, unsigned), ear_count> fill = {
        ears<0>::fill, ears<1>::fill, ears<2>::fill, ears<3>::fill, ears<4>::fill, ears<5>::fill};
    fill.at(ears_given)(args, which);
    ear_names[ears_given++] = args.user_name;
}

// Registers a user and forgets what that took. The session database is set afterwards, so that no connection of the
// user's own stands between the test and the evlans.
inline sw_ebridge_list_item *add_user(const user &wanted)
{
    ebridge_args args{};
    args.user_name = wanted.name;
    args.handle = wanted.handle;
    args.evlan_attr_mom_db = attr_db;
    args.evlan_data_type = wanted.scope;
    give_ears(args, wanted.callbacks);
    EXPECT_EQ(sw_ebridge_init(&args), 0);
    sw_ebridge_list_item *item = sw_ebridge_list_item_get(wanted.name);
    if (item != nullptr)
        item->mod_db = wanted.db;
    g_sw_vlan_file_zlog_level = 7;
    recording::reset();
    return item;
}

// Registers a bare user in a slot other than 0.
inline void add_user_in_slot(uint32_t slot, const char *name)
{
    sw_ebridge_list_item item{};
    snprintf(item.user_name, sizeof item.user_name, "%s", name);
    EXPECT_EQ(sw_ebridge_list_add_inst(slot, &item), 0);
    recording::reset();
}

// The users of slot 0 in the order in which walks meet them.
inline strings registry_order()
{
    strings names;
    const auto visit = [](sw_ebridge_list_item *item, void *arg, int32_t) -> int32_t {
        static_cast<strings *>(arg)->push_back(item->user_name);
        return 0;
    };
    sw_ebridge_list_for_each(0, visit, &names);
    return names;
}

// ---- records and notifications

struct app_key : UBridge__EvlanAppIndex {
    app_key(const char *name, uint32_t key_type, int32_t key) : UBridge__EvlanAppIndex(U_BRIDGE__EVLAN_APP_INDEX__INIT)
    {
        t_user = text(name);
        type = static_cast<int32_t>(key_type);
        keyid = key;
    }
};

struct vlan_key : UBridge__VlanAppIndex {
    vlan_key(const char *name, uint32_t key_type, int32_t key) : UBridge__VlanAppIndex(U_BRIDGE__VLAN_APP_INDEX__INIT)
    {
        user = text(name);
        type = static_cast<int32_t>(key_type);
        keyid = key;
    }
};

struct udp_index : UBridge__EvlanIndex {
    udp_index(const char *name, uint32_t id) : UBridge__EvlanIndex(U_BRIDGE__EVLAN_INDEX__INIT)
    {
        t_user = text(name);
        evlan_id = static_cast<int32_t>(id);
    }
};

struct session : UBridge__EvlanSession {
    app_key key;
    session(const char *name, uint32_t key_type, int32_t keyid)
        : UBridge__EvlanSession(U_BRIDGE__EVLAN_SESSION__INIT), key(name, key_type, keyid)
    {
        index = &key;
    }
    session(const session &) = delete;
    session &operator=(const session &) = delete;
    session &answered(uint32_t value)
    {
        reply = 1;
        reply_value = static_cast<int32_t>(value);
        return *this;
    }
    session &refused() { return answered(0xffffffffu); }
};

struct notice : qz_mom_notification {
    qz_mom_hash_value hash{};
    explicit notice(int32_t command)
        : qz_mom_notification{SW_EBRIDGE_APP_DB, "the key", "the field", command, nullptr, 0, 0}
    {
    }
    notice(const notice &) = delete;
    notice &operator=(const notice &) = delete;
};

// The notification of a session that was written (commands 4 and 6) or is gone (3 and 27).
struct session_notice : notice {
    session_notice(int32_t command, session &of) : notice(command)
    {
        hash.record = &of.base;
        const bool written = command == QZ_MOM_CMD_HSET || command == QZ_MOM_CMD_HMSET;
        value = written ? static_cast<void *>(&hash) : static_cast<void *>(&of.base);
    }
};

inline int32_t apply(session &of, int32_t add, uint32_t db = SW_EBRIDGE_APP_DB)
{
    return sw_evlan_session_reply(db, &of, add);
}

inline int32_t grant(const char *name, uint32_t type, int32_t keyid, uint32_t id, uint32_t db = SW_EBRIDGE_APP_DB)
{
    session granted(name, type, keyid);
    granted.answered(id);
    return apply(granted, 1, db);
}

inline int32_t request(const char *name, uint32_t type, int32_t keyid, uint32_t wanted = 0)
{
    app_key key(name, type, keyid);
    return sw_evlan_request(&key, static_cast<int32_t>(wanted), U_BRIDGE__RES_PRIORITY__LEVEL_0);
}

// ---- index map and local database

inline sw_evlan_index_map map_key(uint32_t kind, uint32_t a, uint32_t b = 0, uint32_t c = 0)
{
    sw_evlan_index_map item{};
    item.kind = kind;
    item.key[0] = a;
    item.key[1] = b;
    item.key[2] = c;
    return item;
}

inline sw_evlan_index_map *stored(const sw_evlan_index_map &key, uint32_t slot = 0)
{
    return sw_evlan_index_map_get_item(slot, &key);
}

inline sw_evlan_index_map *app_item(uint32_t type, int32_t keyid)
{
    return stored(map_key(SW_INDEX_MAP_APP2UDP, type, static_cast<uint32_t>(keyid)));
}

inline sw_evlan_index_map *udp_item(uint32_t id) { return stored(map_key(SW_INDEX_MAP_UDP2APP, id)); }

inline size_t list_length(const sw_list_head &head)
{
    size_t length = 0;
    for (const sw_list_head *link = head.next; link != &head && length < 1000; link = link->next)
        ++length;
    return length;
}

inline bool linked_to_itself(const sw_list_head &link) { return link.next == &link && link.prev == &link; }

inline sw_evlan_attr *insert(const char *name, uint32_t id, uint32_t slot = 0)
{
    sw_evlan_attr record{};
    record.evlan_id = id;
    return sw_evlan_db_insert_item(slot, name, &record);
}

// ---- the trace

inline const char *level_name(int32_t level)
{
    switch (level) {
        case 20:
            return "debug";
        case 40:
            return "info";
        case 80:
            return "warning";
        case 100:
            return "error";
        default:
            return "unknown level";
    }
}

// "info sw_evlan_request: text". What a line of the evlan side should not have shows up too: another source file, no line
// number, a format other than "%s".
inline std::string line_text(const recording::log_line &line)
{
    std::string out = level_name(line.level);
    if (line.file != "app/lib/ebridge/libsw_ebridge_evlan.cpp")
        out += " [" + line.file + "]";
    if (line.line <= 0)
        out += " <no line>";
    if (line.format != "%s")
        out += " {" + line.format + "}";
    return out + " " + line.function + ": " + line.text;
}

// "qz_mom_hmset 4 u_bridge.evlan_session{...}"
inline std::string call_text(const recording::call &made)
{
    return made.function + " " + std::to_string(made.db) + " " + made.record;
}

// All log lines of the file category, platform calls and callbacks, in the order in which they happened.
inline strings trace()
{
    strings out;
    size_t line = 0, call = 0;
    for (const std::string &step : recording::sequence()) {
        if (step.rfind("log ", 0) == 0) {
            while (recording::log()[line].category != "sw_vlan_file")
                ++line;
            out.push_back(line_text(recording::log()[line++]));
        } else if (step.rfind("call ", 0) == 0) {
            out.push_back(call_text(recording::calls()[call++]));
        } else {
            out.push_back(step);
        }
    }
    return out;
}

// What the users heard, in order.
inline strings heard()
{
    strings out;
    for (const std::string &step : recording::sequence())
        if (step.find(" hears ") != std::string::npos && step.rfind("log ", 0) != 0)
            out.push_back(step);
    return out;
}

inline bool traced(const std::string &wanted)
{
    for (const std::string &step : trace())
        if (step == wanted)
            return true;
    return false;
}

inline std::string dashes(size_t count) { return std::string(count, '-') + "\n"; }

// ---- allocations

inline std::vector<void *> freed;

// Runs `work` and returns the blocks that it freed.
template <typename Work>
std::vector<void *> freed_by(Work work)
{
    freed.clear();
    recording::on_free([](void *block) { freed.push_back(block); });
    work();
    recording::on_free(nullptr);
    return freed;
}

// The error lines that `work` logs when the nth allocation from now fails.
template <typename Work>
strings errors_when_allocation_fails(uint64_t nth, Work work)
{
    recording::reset();
    recording::fail_allocation(nth);
    work();
    recording::fail_allocation(0);
    return recording::logged(100);
}

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

class EvlanTest : public testing::Test
{
  protected:
    void SetUp() override { recording::reset(); }
    void TearDown() override
    {
        recording::fail_allocation(0);
        recording::on_free(nullptr);
        inside_callback = nullptr;
    }
};

}  // namespace evlan_test
