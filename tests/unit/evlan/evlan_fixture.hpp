// What the evlan tests share beside bridge_fixture.hpp: the callbacks of users, sessions, and looking things up.
#pragma once

#include "bridge_fixture.hpp"

namespace evlan_test
{

using namespace bridge_test;

inline constexpr uint32_t vlan = U_BRIDGE__EVLAN_TYPE__VLAN;
inline constexpr uint32_t vxlan = U_BRIDGE__EVLAN_TYPE__VXLAN;
inline constexpr uint32_t l3intf_sub = U_BRIDGE__EVLAN_TYPE__L3INTF_SUB;
inline constexpr uint32_t l3vpn = U_BRIDGE__EVLAN_TYPE__L3VPN;

inline constexpr uint32_t evlan_id(uint32_t type, uint32_t number) { return type << 24 | number; }

// ---- users and what they hear

inline constexpr unsigned no_callbacks = 0, hears_vlan = 1, hears_evlan = 2, hears_release = 4;

using user = user_with<2>;

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

inline sw_ebridge_list_item *add_user(const user &wanted)
{
    ebridge_args args{};
    args.evlan_data_type = wanted.scope;
    return register_user<ears>(args, wanted);
}

// ---- keys and sessions

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

struct session : session_with<UBridge__EvlanSession, app_key> {
    session(const char *name, uint32_t type, int32_t keyid)
        : session_with(U_BRIDGE__EVLAN_SESSION__INIT, app_key(name, type, keyid))
    {
    }
};

// The record that names a session: nothing but its key.
inline std::string session_key(const char *name, uint32_t type, int32_t keyid)
{
    const session named(name, type, keyid);
    return recording::render(&named.base);
}

// The record that names what a user has written of an evlan.
inline std::string attribute_key(const char *name, uint32_t id)
{
    udp_index index(name, id);
    UBridge__Evlan evlan = U_BRIDGE__EVLAN__INIT;
    evlan.index = &index;
    return recording::render(&evlan.base);
}

inline int32_t apply(UBridge__EvlanSession &of, int32_t add, uint32_t db = SW_EBRIDGE_APP_DB)
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

inline sw_evlan_attr *insert(const char *name, uint32_t id, uint32_t slot = 0)
{
    sw_evlan_attr record{};
    record.evlan_id = id;
    return sw_evlan_db_insert_item(slot, name, &record);
}

class EvlanTest : public BridgeTest
{
  protected:
    EvlanTest()
        : BridgeTest({.source = "app/lib/ebridge/libsw_ebridge_evlan.cpp",
                      .session_function = "sw_vlan_mom_msg_evlan_session_reply",
                      .session_callback = sw_vlan_mom_msg_evlan_session_reply,
                      .release_callback = sw_evlan_release_callback})
    {
    }
};

}  // namespace evlan_test
