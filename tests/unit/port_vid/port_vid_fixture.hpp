// What the tests of default VLANs share: users who hear of changes, ports, and records of the table.
#pragma once

#include "store_calls.hpp"

namespace port_vid_test
{

using namespace bridge_test;

// Not the session database nor those of attributes, so that a mistaken one shows.
inline constexpr uint32_t own_db = 6;

// ---- users and what they hear

inline constexpr unsigned no_callbacks = 0;
inline int32_t ear_results[ear_count];  // what the callback of each user returns

template <size_t N>
struct ears {
    static int32_t pvid_change(uint32_t ifx, uint16_t new_pvid, uint16_t old_pvid, sw_vlan_pvid_entry *change)
    {
        EXPECT_EQ(change->ifx, ifx);
        EXPECT_EQ(change->new_pvid, new_pvid);
        EXPECT_EQ(change->old_pvid, old_pvid);
        *change = {};  // what a user does with its record is nobody else's business
        hear(format("%s hears port %u: %u was %u", ear_names[N].c_str(), ifx, new_pvid, old_pvid));
        return ear_results[N];
    }
    // Every user has this too; nothing about default VLANs may reach it.
    static int32_t eport_reply(UBridge__EportAppIndex *, UBridge__EportIndex *)
    {
        return hear(ear_names[N] + " hears of an eport");
    }
    static void fill(ebridge_args &args, unsigned which)
    {
        args.pvid_change = which != no_callbacks ? pvid_change : nullptr;
        args.eport_reply = eport_reply;
    }
};

inline sw_ebridge_list_item *add_user(const char *name = "app", unsigned callbacks = ~0u)
{
    return register_user<ears>(
        {}, user_with<0>{.name = name, .callbacks = callbacks, .db = own_db, .handle = recording::other_handle()});
}

inline void answer_as(const std::string &name, int32_t result)
{
    for (size_t n = 0; n < ear_count; ++n)
        if (ear_names[n] == name)
            ear_results[n] = result;
}

// What all users hear of a change, in their order.
inline strings all_hear(uint32_t ifx, uint32_t new_pvid, uint32_t old_pvid)
{
    strings out;
    for (const std::string &name : registry_order())
        out.push_back(format("%s hears port %u: %u was %u", name.c_str(), ifx, new_pvid, old_pvid));
    return out;
}

// ---- ports

inline constexpr int32_t port_1 = 0x10000001, port_2 = 0x10000002, aggregate_3 = 0x20000003, circuit_4 = 0x30000004;
inline constexpr uint32_t ifx_1 = 11, ifx_2 = 12, ifx_3 = 13, ifx_4 = 14;

// Forgets what happened; the port table has the two ports and the aggregate.
inline void start_over()
{
    recording::reset();
    recording::ports() = {{ifx_1, 0x07000001, 0, 0, 0}, {ifx_2, 0x07000002, 0, 0, 0}, {ifx_3, 0x0c000003, 0, 0, 0}};
}

// ---- the table

struct table_record : UBridge__PvidTable {
    UBridge__PortIndex key = U_BRIDGE__PORT_INDEX__INIT;
    explicit table_record(int32_t eport, int32_t new_value = 0, int32_t old_value = 0)
        : UBridge__PvidTable(U_BRIDGE__PVID_TABLE__INIT)
    {
        index = &key;
        key.t_user = text("service");
        key.port = eport;
        new_pvid = new_value;
        old_pvid = old_value;
    }
    table_record(const table_record &) = delete;
    table_record &operator=(const table_record &) = delete;
};

struct table_notice : notice {
    table_notice(int32_t command, table_record &of) : notice(command) { value = &of.base; }
};

inline int32_t write(int32_t eport, int32_t new_pvid, int32_t old_pvid, sw_ebridge_callback_args *args = &without_func)
{
    table_record record(eport, new_pvid, old_pvid);
    return deliver(table_notice(QZ_MOM_CMD_SET, record), args);
}

inline int32_t remove(int32_t eport, int32_t command = QZ_MOM_CMD_DEL, sw_ebridge_callback_args *args = &without_func)
{
    table_record record(eport, 77, 78);  // as it last was, which nobody looks at
    return deliver(table_notice(command, record), args);
}

// The cache's entry of an interface; {ifx, 0xffff, 0xffff} without one.
inline sw_vlan_pvid_entry cached(uint32_t ifx)
{
    const sw_vlan_pvid_entry key = {ifx, 0, 0};
    const sw_vlan_pvid_entry *entry = sw_vlan_pvid_entry_hash_find(0, &key);
    return entry != nullptr ? *entry : sw_vlan_pvid_entry{ifx, 0xffff, 0xffff};
}

inline bool is_cached(uint32_t ifx) { return cached(ifx).new_pvid != 0xffff; }

inline std::string cached_text(uint32_t ifx)
{
    const sw_vlan_pvid_entry entry = cached(ifx);
    return is_cached(ifx) ? format("%u was %u", entry.new_pvid, entry.old_pvid) : "none";
}

// All five counters.
inline std::string counts()
{
    return format("subscribe %d set %d get %d delete %d nums %d", sw_brg_stat_pvid_count_subscribe_get(),
                  sw_brg_stat_pvid_count_set_get(), sw_brg_stat_pvid_count_get_get(),
                  sw_brg_stat_pvid_count_delete_get(), sw_brg_stat_pvid_count_nums_get());
}

inline std::string line(const char *level, const char *function, const std::string &text)
{
    return std::string(level) + " sw_vlan_" + function + ": " + text;
}

class PortVidTest : public BridgeTest
{
  protected:
    PortVidTest()
        : BridgeTest({.source = "app/lib/ebridge/libsw_ebridge_port_vid.cpp",
                      .session_function = "sw_vlan_mom_msg_port_vid_changed",
                      .session_callback = sw_vlan_mom_msg_port_vid_changed})
    {
    }
};

}  // namespace port_vid_test
