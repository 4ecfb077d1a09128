// What the eport tests share beside bridge_fixture.hpp: the callbacks of users, sessions, rows of the port table, and
// looking things up.
#pragma once

#include "bridge_fixture.hpp"

namespace eport_test
{

using namespace bridge_test;

inline constexpr uint32_t port = U_BRIDGE__EPORT_TYPE__PORT;
inline constexpr uint32_t local_port = U_BRIDGE__EPORT_TYPE__LOCAL_PORT;
inline constexpr uint32_t ap = U_BRIDGE__EPORT_TYPE__AP;
inline constexpr uint32_t ac = U_BRIDGE__EPORT_TYPE__VXLAN_AC;
inline constexpr uint32_t pw = U_BRIDGE__EPORT_TYPE__VXLAN_PW;
inline constexpr uint32_t l3intf_ac = U_BRIDGE__EPORT_TYPE__L3INTF_AC;  // ids with the highest bit set

inline constexpr uint32_t eport_id(uint32_t type, uint32_t number) { return type << 24 | number; }

// ---- users and what they hear

inline constexpr unsigned no_callbacks = 0, hears_eport = 1, hears_release = 2;

using user = user_with<1>;

template <size_t N>
struct ears {
    static int32_t eport_reply(UBridge__EportAppIndex *app, UBridge__EportIndex *eport)
    {
        expect_message(eport, u_bridge__eport_index__descriptor);
        return hear(format("%s hears eport %s/%d/%d/%d: %s 0x%x", ear_names[N].c_str(), app->t_user, app->type,
                           app->keyid1, app->keyid2, eport->t_user, static_cast<uint32_t>(eport->eport_id)));
    }
    static int32_t release(UBridge__EportAppIndex *app, UBridge__EportIndex *eport, int32_t event)
    {
        expect_message(eport, u_bridge__eport_index__descriptor);
        return hear(format("%s hears release %s/%d/%d/%d: %s 0x%x event %d", ear_names[N].c_str(), app->t_user,
                           app->type, app->keyid1, app->keyid2, eport->t_user, static_cast<uint32_t>(eport->eport_id),
                           event));
    }
    // Every user has these too; nothing about eports may reach them.
    static int32_t vlan_reply(UBridge__VlanAppIndex *, int32_t) { return hear(ear_names[N] + " hears of a VLAN"); }
    static int32_t evlan_reply(UBridge__EvlanAppIndex *, UBridge__EvlanIndex *)
    {
        return hear(ear_names[N] + " hears of an evlan");
    }
    static int32_t evlan_release(UBridge__EvlanAppIndex *, UBridge__EvlanIndex *, int32_t)
    {
        return hear(ear_names[N] + " hears of a released evlan");
    }
    static void fill(ebridge_args &args, unsigned which)
    {
        args.eport_reply = which & hears_eport ? eport_reply : nullptr;
        args.eport_release_reply = which & hears_release ? release : nullptr;
        args.vlan_reply = vlan_reply;
        args.evlan_reply = evlan_reply;
        args.evlan_release_reply = evlan_release;
    }
};

// Its evlan_data_type takes nothing: eports are taken by a setting of their own.
inline sw_ebridge_list_item *add_user(const user &wanted)
{
    ebridge_args args{};
    args.evlan_data_type = 4;
    args.eport_data_type = wanted.scope;
    return register_user<ears>(args, wanted);
}

// ---- keys and sessions

struct app_key : UBridge__EportAppIndex {
    app_key(const char *name, uint32_t key_type, int32_t key1, int32_t key2)
        : UBridge__EportAppIndex(U_BRIDGE__EPORT_APP_INDEX__INIT)
    {
        t_user = text(name);
        type = static_cast<int32_t>(key_type);
        keyid1 = key1;
        keyid2 = key2;
    }
};

struct udp_index : UBridge__EportIndex {
    udp_index(const char *name, uint32_t id) : UBridge__EportIndex(U_BRIDGE__EPORT_INDEX__INIT)
    {
        t_user = text(name);
        eport_id = static_cast<int32_t>(id);
    }
    uint32_t id() const { return static_cast<uint32_t>(eport_id); }
};

struct session : session_with<UBridge__EportSession, app_key> {
    session(const char *name, uint32_t type, int32_t keyid1, int32_t keyid2)
        : session_with(U_BRIDGE__EPORT_SESSION__INIT, app_key(name, type, keyid1, keyid2))
    {
    }
};

// The record that names a session: nothing but its key.
inline std::string session_key(const char *name, uint32_t type, int32_t keyid1, int32_t keyid2)
{
    const session named(name, type, keyid1, keyid2);
    return recording::render(&named.base);
}

// The record that names what a user has written of an eport.
inline std::string attribute_key(const char *name, uint32_t id)
{
    udp_index index(name, id);
    UBridge__Eport eport = U_BRIDGE__EPORT__INIT;
    eport.index = &index;
    return recording::render(&eport.base);
}

inline int32_t apply(UBridge__EportSession &of, int32_t add, uint32_t db = SW_EBRIDGE_APP_DB)
{
    return sw_eport_session_reply(db, &of, add);
}

inline int32_t grant(const char *name, uint32_t type, int32_t keyid1, int32_t keyid2, uint32_t id,
                     uint32_t db = SW_EBRIDGE_APP_DB)
{
    session granted(name, type, keyid1, keyid2);
    granted.answered(id);
    return apply(granted, 1, db);
}

inline int32_t request(const char *name, uint32_t type, int32_t keyid1, int32_t keyid2, uint32_t wanted = 0)
{
    app_key key(name, type, keyid1, keyid2);
    return sw_eport_request(&key, static_cast<int32_t>(wanted), U_BRIDGE__RES_PRIORITY__LEVEL_0);
}

// ---- port table

// recording::reset() empties it.
inline void add_row(uint32_t ifx, uint32_t gphyid, uint32_t lphyid = 0)
{
    recording::ports().push_back({ifx, gphyid, lphyid, 0, 0});
}

// How the trace shows a look-up.
inline std::string look_up(const char *function) { return std::string(function) + " 0 "; }

// ---- index map and local database

inline sw_eport_index_map map_key(uint32_t kind, uint32_t a, uint32_t b = 0, uint32_t c = 0, uint32_t d = 0)
{
    return {.kind = kind,
            .key = {a, b, c, d},
            .value = {},
            .carried = {},
            .priority = 0,
            .user_name = {},
            .ds_flag = 0,
            .link = {}};
}

inline sw_eport_index_map app_to_udp(const char *name, uint32_t type, uint32_t keyid1, uint32_t keyid2, uint32_t id = 0)
{
    sw_eport_index_map item = map_key(SW_INDEX_MAP_APP2UDP, type, keyid1, keyid2);
    item.value[0] = id;
    snprintf(item.user_name, sizeof item.user_name, "%s", name);
    return item;
}

inline sw_eport_index_map udp_to_app(const char *name, uint32_t id, uint32_t type, uint32_t keyid1, uint32_t keyid2)
{
    sw_eport_index_map item = map_key(SW_INDEX_MAP_UDP2APP, id);
    item.value[0] = type;
    item.value[1] = keyid1;
    item.value[2] = keyid2;
    snprintf(item.user_name, sizeof item.user_name, "%s", name);
    return item;
}

inline sw_eport_index_map *update(const sw_eport_index_map &item, uint32_t slot = 0)
{
    return sw_eport_index_map_update_item(slot, &item);
}

inline sw_eport_index_map *stored(const sw_eport_index_map &key, uint32_t slot = 0)
{
    return sw_eport_index_map_get_item(slot, &key);
}

inline sw_eport_index_map *app_item(uint32_t type, int32_t keyid1, int32_t keyid2)
{
    return stored(map_key(SW_INDEX_MAP_APP2UDP, type, static_cast<uint32_t>(keyid1), static_cast<uint32_t>(keyid2)));
}

inline sw_eport_index_map *udp_item(uint32_t id) { return stored(map_key(SW_INDEX_MAP_UDP2APP, id)); }

inline sw_eport_attr *insert(const char *name, uint32_t id, uint32_t slot = 0)
{
    sw_eport_attr record;
    sw_eport_init(&record, "", id);
    return sw_eport_db_insert_item(slot, name, &record);
}

inline sw_eport_attr *held(const char *name, uint32_t id, uint32_t slot = 0)
{
    return sw_eport_db_get_item(slot, name, id);
}

// The record of a user who may be unknown.
inline sw_eport_attr *found_in_table(const char *name, uint32_t id, uint32_t slot = 0)
{
    sw_eport_attr key;
    sw_eport_init(&key, name, id);
    return sw_eport_hash_find(slot, &key);
}

class EportTest : public BridgeTest
{
  protected:
    EportTest()
        : BridgeTest({.source = "app/lib/ebridge/libsw_ebridge_eport.cpp",
                      .session_function = "sw_vlan_mom_msg_eport_session_reply",
                      .session_callback = sw_vlan_mom_msg_eport_session_reply,
                      .release_callback = sw_eport_release_callback})
    {
    }
};

}  // namespace eport_test
