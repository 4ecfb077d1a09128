// What the tests of the chip driver's side share: users of units who hear of hardware objects, ids and chip keys.
#pragma once

#include "bridge_fixture.hpp"

namespace sda_test
{

using namespace bridge_test;

inline constexpr uint32_t no_unit = SW_EBRIDGE_SLOTS;

// ---- ids and chip keys

struct evlan : UBridge__EvlanIndex {
    explicit evlan(uint32_t id = 0, const char *name = "driver") : UBridge__EvlanIndex(U_BRIDGE__EVLAN_INDEX__INIT)
    {
        t_user = text(name);
        evlan_id = static_cast<int32_t>(id);
    }
    uint32_t id() const { return static_cast<uint32_t>(evlan_id); }
};

struct evlan_sdk : SBridge__EvlanSdkIndex {
    explicit evlan_sdk(uint32_t key_type = 0, int32_t key_vsi = 0, int32_t key_vid = 0, const char *name = "chip")
        : SBridge__EvlanSdkIndex(S_BRIDGE__EVLAN_SDK_INDEX__INIT)
    {
        t_user = text(name);
        type = static_cast<UBridge__EvlanType>(key_type);
        vsi = key_vsi;
        vid = key_vid;
    }
};

struct eport : UBridge__EportIndex {
    explicit eport(uint32_t id = 0, const char *name = "driver") : UBridge__EportIndex(U_BRIDGE__EPORT_INDEX__INIT)
    {
        t_user = text(name);
        eport_id = static_cast<int32_t>(id);
    }
    uint32_t id() const { return static_cast<uint32_t>(eport_id); }
};

struct eport_sdk : UBridge__EportSdkIndex {
    explicit eport_sdk(int32_t key_type = 0, uint32_t key_vport = 0, const char *name = "chip")
        : UBridge__EportSdkIndex(U_BRIDGE__EPORT_SDK_INDEX__INIT)
    {
        t_user = text(name);
        type = key_type;
        vport = static_cast<int32_t>(key_vport);
    }
};

inline std::string shown(const UBridge__EvlanIndex &of)
{
    return format("%s/0x%x", of.t_user, static_cast<uint32_t>(of.evlan_id));
}
inline std::string shown(const UBridge__EportIndex &of)
{
    return format("%s/0x%x", of.t_user, static_cast<uint32_t>(of.eport_id));
}
inline std::string shown(const SBridge__EvlanSdkIndex &of)
{
    return format("%s/type %d vsi %d vid %d", of.t_user, static_cast<int>(of.type), of.vsi, of.vid);
}
inline std::string shown(const UBridge__EportSdkIndex &of)
{
    return format("%s/type %d vport 0x%x unit %d port %d tid %d", of.t_user, of.type, static_cast<uint32_t>(of.vport),
                  of.unit, of.port, of.tid);
}

// ---- users and what they hear

inline constexpr unsigned no_callbacks = 0;

// What a callback was handed last.
inline const void *heard_index, *heard_sdk;

template <typename Index, typename Sdk>
int32_t hear_object(const std::string &name, const char *what, uint32_t unit, Index *index, Sdk *sdk)
{
    heard_index = index;
    heard_sdk = sdk;
    return hear(name + format(" hears %s %u: ", what, unit) + shown(*index) + " is " + shown(*sdk));
}

template <size_t N>
struct ears {
    static int32_t evlan_made(uint32_t unit, UBridge__EvlanIndex *index, SBridge__EvlanSdkIndex *sdk)
    {
        expect_message(sdk, s_bridge__evlan_sdk_index__descriptor);
        return hear_object(ear_names[N], "evlan made", unit, index, sdk);
    }
    static int32_t evlan_gone(uint32_t unit, UBridge__EvlanIndex *index, SBridge__EvlanSdkIndex *sdk)
    {
        expect_message(sdk, s_bridge__evlan_sdk_index__descriptor);
        return hear_object(ear_names[N], "evlan gone", unit, index, sdk);
    }
    static int32_t eport_made(uint32_t unit, UBridge__EportIndex *index, UBridge__EportSdkIndex *sdk)
    {
        expect_message(sdk, u_bridge__eport_sdk_index__descriptor);
        return hear_object(ear_names[N], "eport made", unit, index, sdk);
    }
    static int32_t eport_gone(uint32_t unit, UBridge__EportIndex *index, UBridge__EportSdkIndex *sdk)
    {
        expect_message(sdk, u_bridge__eport_sdk_index__descriptor);
        return hear_object(ear_names[N], "eport gone", unit, index, sdk);
    }
    static int32_t ports(uint32_t unit, uint32_t vid, uint32_t lphyid, uint32_t op)
    {
        return hear(ear_names[N] + format(" hears ports %u: VLAN %u port 0x%x op %u", unit, vid, lphyid, op));
    }
    static int32_t fid(uint32_t unit, uint32_t vid, uint32_t old_fid, uint32_t new_fid)
    {
        return hear(ear_names[N] + format(" hears fid %u: VLAN %u %u to %u", unit, vid, old_fid, new_fid));
    }
    // Every user has the two reserved ones; a call of them would end the process.
    static void fill(ebridge_args &args, unsigned which)
    {
        args.reserved_evlan = args.reserved_eport = &heard_index;
        if (which == no_callbacks)
            return;
        args.sda_evlan_create = evlan_made;
        args.sda_evlan_destroy = evlan_gone;
        args.sda_eport_create = eport_made;
        args.sda_eport_destroy = eport_gone;
        args.sda_vlan_port_change = ports;
        args.sda_vlan_fid_change = fid;
    }
};

// Registers a user of a unit and forgets what that took.
inline void add_user(uint32_t unit, const char *name, unsigned callbacks = ~0u)
{
    ebridge_args args{};
    args.user_name = name;
    args.handle = recording::handle();
    give_ears<ears>(args, callbacks, std::make_index_sequence<ear_count>{});
    EXPECT_EQ(sw_ebridge_init_inst(unit, &args), 0);
    g_sw_vlan_file_zlog_level = 7;
    recording::reset();
}

// The tables of all units; no unit has a user who hears anything.
inline void start_without_users() { add_user(0, "application", no_callbacks); }

// ---- the trace

inline strings taken_trace()
{
    strings out = trace();
    recording::reset();
    return out;
}

// The trace of `work`, whose result is to be `result`.
template <typename Work>
strings traced_by(int32_t result, Work work)
{
    recording::sequence().clear();
    recording::log().clear();
    recording::calls().clear();
    EXPECT_EQ(work(), result);
    return trace();
}

inline uint32_t items_of(uint32_t unit)
{
    return sw_evlan_index_map_hash_size(unit) + sw_eport_index_map_hash_size(unit);
}

class SdaTest : public BridgeTest
{
  protected:
    SdaTest() : BridgeTest("app/lib/ebridge/libsw_ebridge_") {}
};

}  // namespace sda_test
