// What "ebridge run" asks for and publishes of each entry of a configuration, and how attributes are compared.
#include <gmock/gmock.h>

#include <cstring>

#include "requests.hpp"

using namespace ebridge_tool;

namespace
{

constexpr const char *CONFIG = R"({
    "PORT": {"Ethernet0": {}, "Ethernet4": {}}, "PORTCHANNEL": {"PortChannel3": {}},
    "PORTCHANNEL_MEMBER": {"PortChannel3|Ethernet4": {}},
    "VLAN": {"Vlan10": {"mtu": "9000"}, "Vlan20": {}},
    "VXLAN_TUNNEL": {"old": {"src_ip": "10.0.0.1", "dst_ip": "10.0.0.2", "mtu": "9100"},
                     "new": {"src_ip": "2001:db8::1", "dst_ip": "2001:db8::2"}, "idle": {}},
    "VXLAN_TUNNEL_MAP": {"old|one": {"vni": "1000", "vlan": "Vlan10"},
                         "new|two": {"vni": "2000", "vlan": "Vlan20"},
                         "new|three": {"vni": "3000", "vlan": "Vlan10"}}})";

// One request for each port, LAG, VLAN and tunnel, two for each map: all granted with ids of their own.
class Description : public testing::Test
{
  protected:
    explicit Description(size_t users = 1)
    {
        std::string error;
        EXPECT_TRUE(parse_config("file", CONFIG, &config, &error)) << error;
        (*config.ports)[0].ifx = 70;
        (*config.ports)[0].phyid = 0x07000001;
        (*config.ports)[1].ifx = 71;
        (*config.ports)[1].phyid = 0x07000005;
        (*config.lags)[0].ifx = 80;
        (*config.lags)[0].phyid = 0x0c000004;
        requests.emplace(config, users, &result);
        for (size_t i = 0; i < requests->size(); ++i) {
            requester_facts facts;
            facts.answered = true;
            facts.reply = static_cast<int32_t>(requests->at(i).app.type << 24 | (0x100 + i));
            requests->set(i, facts);
        }
    }

    const request &of(role as, const std::string &key) const
    {
        for (size_t i = 0; i < requests->size(); ++i)
            if (requests->at(i).as == as && requests->at(i).key == key)
                return requests->at(i);
        throw std::out_of_range(key);
    }
    uint32_t id(role as, const std::string &key) const { return static_cast<uint32_t>(of(as, key).requester.reply); }
    auto eport(role as, const std::string &key) const { return requests->eport_attributes(of(as, key)); }
    auto overlay(role as, const std::string &key) const { return eport(as, key).attr.overlay; }

    switch_config config;
    run_result result;
    std::optional<request_book> requests;
};

class SpreadDescription : public Description
{
  protected:
    SpreadDescription() : Description(2) {}
};

}  // namespace

TEST_F(Description, APortIsAskedForByItsInterfaceAndWantsTheNumberOfThePortTable)
{
    EXPECT_EQ(of(role::port, "Ethernet4").app, (app_key{id_kind::eport, 16, 0, 71}));
    EXPECT_EQ(of(role::port, "Ethernet4").wanted, 0x10000005U);
    EXPECT_EQ(of(role::lag, "PortChannel3").app, (app_key{id_kind::eport, 32, 0, 80}));
    EXPECT_EQ(of(role::lag, "PortChannel3").wanted, 0x20000004U);
}

TEST_F(Description, TunnelsMapsAndTheirCircuitsHaveKeysOfTheirOwnAndWantAnyId)
{
    EXPECT_EQ(of(role::map, "new|two").app, (app_key{id_kind::evlan, 32, 2000}));
    EXPECT_EQ(of(role::circuit, "new|two").app, (app_key{id_kind::eport, 48, 20, 2000}));
    EXPECT_EQ(of(role::circuit, "new|two").wanted, 48U << 24);
    EXPECT_EQ(of(role::tunnel, "old").app.type, 49U);
    EXPECT_EQ(of(role::tunnel, "old").wanted, 49U << 24);
    EXPECT_NE(of(role::tunnel, "old").app, of(role::tunnel, "new").app);
}

TEST_F(Description, ATunnelsKeyIsThatOfItsName)
{
    switch_config other;
    std::string error;
    run_result ignored;
    ASSERT_TRUE(parse_config("file", R"({"VXLAN_TUNNEL": {"new": {}}})", &other, &error)) << error;
    const request_book alone(other, 1, &ignored);
    EXPECT_EQ(alone.at(0).app, of(role::tunnel, "new").app);
}

TEST_F(Description, EntriesAndIdsAreCountedApart)
{
    std::vector<std::string> counts;
    for (const table_result &table : result.tables)
        counts.push_back(table.name + ' ' + std::to_string(table.requested));
    for (const table_result &kind : result.kinds)
        counts.push_back(kind.name + ' ' + std::to_string(kind.requested));
    EXPECT_THAT(counts, testing::ElementsAre("PORT 2", "PORTCHANNEL 1", "VLAN 2", "VXLAN_TUNNEL 3",
                                             "VXLAN_TUNNEL_MAP 3", "evlan 5", "eport 9"));
}

TEST_F(Description, AMemberOfALagDoesNotFilter)
{
    EXPECT_EQ(eport(role::port, "Ethernet0").vlan_filter, U_BRIDGE__VLAN_FILTER_TYPE__FILTER_ALL);
    EXPECT_EQ(eport(role::port, "Ethernet4").vlan_filter, U_BRIDGE__VLAN_FILTER_TYPE__FILTER_NONE);
    EXPECT_EQ(eport(role::lag, "PortChannel3").vlan_filter, U_BRIDGE__VLAN_FILTER_TYPE__FILTER_ALL);
}

TEST_F(Description, AVlanHasItsNumberAsFid)
{
    const sw_evlan_attr attr = requests->evlan_attributes(of(role::vlan, "Vlan20"));
    EXPECT_STREQ(attr.user_name, "ebridge_run");
    EXPECT_EQ(attr.type, 16U);
    EXPECT_EQ(attr.evlan_id, id(role::vlan, "Vlan20"));
    EXPECT_EQ(attr.attr.underlay.fid, 20);
}

TEST_F(Description, AMapHasItsVniAndItsVlan)
{
    const sw_evlan_attr attr = requests->evlan_attributes(of(role::map, "new|two"));
    EXPECT_EQ(attr.type, 32U);
    EXPECT_EQ(attr.attr.overlay.vnid, 2000);
    EXPECT_EQ(attr.attr.overlay.mapping_evlan, 0x10000014);
}

TEST_F(Description, ACircuitLeadsAVlanIntoItsMapsEvlan)
{
    const auto circuit = overlay(role::circuit, "old|one");
    EXPECT_EQ(circuit.match_vid, 10U);
    EXPECT_EQ(circuit.is_tagged, 1U);
    EXPECT_EQ(circuit.peer_mode, 0U);
    EXPECT_EQ(circuit.evlan_id, id(role::map, "old|one"));
    EXPECT_EQ(circuit.mtu, 9000U);
    EXPECT_EQ(overlay(role::circuit, "new|two").mtu, 0U);
}

TEST_F(Description, AWireHasItsTunnelsAddressesOfEitherVersion)
{
    const auto v4 = overlay(role::tunnel, "old");
    EXPECT_EQ(v4.sip.is_ipv6, 0U);
    EXPECT_EQ(0, std::memcmp(v4.sip.address, "\x0a\0\0\x01\0\0\0\0\0\0\0\0\0\0\0\0", 16));
    EXPECT_EQ(0, std::memcmp(&v4.dip, "\x0a\0\0\x02", 4));
    EXPECT_EQ(v4.mtu, 9100U);
    EXPECT_EQ(v4.split_horizon, 1U);
    const auto v6 = overlay(role::tunnel, "new");
    EXPECT_EQ(v6.sip.is_ipv6, 1U);
    EXPECT_EQ(0, std::memcmp(v6.sip.address, "\x20\x01\x0d\xb8\0\0\0\0\0\0\0\0\0\0\0\x01", 16));
    EXPECT_EQ(v6.dip, 0U) << "the word is for IPv4";
}

TEST_F(Description, AWireOfOneMapEndsAtItsCircuitAndOneOfSeveralDoesNot)
{
    EXPECT_EQ(overlay(role::tunnel, "old").peer_mode, 1U);
    EXPECT_EQ(overlay(role::tunnel, "old").evlan_id, id(role::circuit, "old|one"));
    for (const char *tunnel : {"new", "idle"}) {
        EXPECT_EQ(overlay(role::tunnel, tunnel).peer_mode, 0U);
        EXPECT_EQ(overlay(role::tunnel, tunnel).evlan_id, 0U);
    }
    switch_config reduced = config;
    std::string error;
    ASSERT_TRUE(drop_entry("VXLAN_TUNNEL_MAP|new|two", &reduced, &error)) << error;
    requests->restart(reduced);
    requester_facts facts;
    facts.reply = 0x30000077;
    requests->set(requests->find(of(role::circuit, "new|three").app), facts);
    EXPECT_EQ(overlay(role::tunnel, "new").evlan_id, 0x30000077U) << "it has one map left";
}

TEST_F(SpreadDescription, WhatIsDescribedByAnotherIdIsTheSameUsers)
{
    size_t turns = 0;
    for (size_t i = 0; i < requests->size(); ++i)
        turns += requests->at(i).user;
    EXPECT_GT(turns, 4U) << "both have about the same";
    for (const char *map : {"old|one", "new|two", "new|three"})
        EXPECT_EQ(of(role::circuit, map).user, of(role::map, map).user);
    EXPECT_EQ(of(role::tunnel, "old").user, of(role::circuit, "old|one").user);
}

// ---- comparing ------------------------------------------------------------------------------------------------------

namespace
{

// A record as the library would write it.
struct overlay_record {
    overlay_record()
    {
        record.index = &index;
        index.eport_id = 0x31000001;
        record.type = U_BRIDGE__EPORT_TYPE__VXLAN_PW;
        record.vlan_filter = U_BRIDGE__VLAN_FILTER_TYPE__FILTER_ALL;
        record.attr_case = U_BRIDGE__EPORT__ATTR_OVERLAY;
        record.overlay = &overlay;
        overlay.sip = &ip;
        ip.ip_case = P_LIBPUB__IP__IP_V6;
        ip.v6 = &v6;
        v6.data = {sizeof bytes, bytes};
        overlay.peer_mode = 1;
        overlay.peer_eport_id = 0x30000001;
        overlay.mtu = 9100;
        overlay.is_tagged = 1;
    }

    uint8_t bytes[16] = {0x20, 1, 0x0d, 0xb8};
    PLibpub__Ipv6 v6 = P_LIBPUB__IPV6__INIT;
    PLibpub__Ip ip = P_LIBPUB__IP__INIT;
    UBridge__EportIndex index = U_BRIDGE__EPORT_INDEX__INIT;
    UBridge__EportAttrOverlay overlay = U_BRIDGE__EPORT_ATTR_OVERLAY__INIT;
    UBridge__Eport record = U_BRIDGE__EPORT__INIT;
};

sw_eport_attr same_attributes()
{
    sw_eport_attr attr{};
    attr.eport_id = 0x31000001;
    attr.vlan_filter = U_BRIDGE__VLAN_FILTER_TYPE__FILTER_ALL;
    auto &overlay = attr.attr.overlay;
    overlay.peer_mode = 1;
    overlay.evlan_id = 0x30000001;  // peer_eport_id
    overlay.mtu = 9100;
    overlay.is_tagged = 1;
    const uint8_t bytes[4] = {0x20, 1, 0x0d, 0xb8};
    std::memcpy(overlay.sip.address, bytes, sizeof bytes);
    overlay.sip.is_ipv6 = 1;
    return attr;
}

std::string difference_of(const overlay_record &read)
{
    const char *field = different_field(id_kind::eport, attributes_of(same_attributes()), attributes_of(read.record));
    return field ? field : "";
}

}  // namespace

TEST(Attributes, AStructureAndItsRecordAreEqual) { EXPECT_EQ(difference_of({}), ""); }

TEST(Attributes, EveryFieldOfAnOverlayRecordIsCompared)
{
    const auto &type = u_bridge__eport_attr_overlay__descriptor;
    for (unsigned i = 0; i < type.n_fields; ++i) {
        overlay_record read;
        const std::string name = type.fields[i].name;
        void *value = reinterpret_cast<char *>(&read.overlay) + type.fields[i].offset;
        if (name == "sip")
            read.bytes[15] = 1;
        else
            *static_cast<uint32_t *>(value) += 2;
        EXPECT_EQ(difference_of(read), name);
    }
}

TEST(Attributes, AnAddressOfTheOtherVersionDiffers)
{
    overlay_record read;
    PLibpub__Ipv4 v4 = P_LIBPUB__IPV4__INIT;
    std::memcpy(&v4.data, read.bytes, sizeof v4.data);
    read.ip.ip_case = P_LIBPUB__IP__IP_V4;
    read.ip.v4 = &v4;
    EXPECT_EQ(difference_of(read), "sip");
}

TEST(Attributes, WhatARecordLacksDiffers)
{
    overlay_record read;
    read.record.vlan_filter = U_BRIDGE__VLAN_FILTER_TYPE__FILTER_NONE;
    EXPECT_EQ(difference_of(read), "vlan_filter");
    read.record.attr_case = U_BRIDGE__EPORT__ATTR__NOT_SET;
    EXPECT_EQ(difference_of(read), "attr");
    read.record.type = U_BRIDGE__EPORT_TYPE__VXLAN_AC;
    EXPECT_EQ(difference_of(read), "type");
}

TEST(Attributes, UnderlayAndEvlanRecordsAreComparedToo)
{
    UBridge__EportAttrUnderlay port = U_BRIDGE__EPORT_ATTR_UNDERLAY__INIT;
    UBridge__Eport eport = U_BRIDGE__EPORT__INIT;
    eport.type = U_BRIDGE__EPORT_TYPE__PORT;
    eport.attr_case = U_BRIDGE__EPORT__ATTR_UNDERLAY;
    eport.underlay = &port;
    sw_eport_attr structure{};
    structure.eport_id = 0x10000001;
    EXPECT_EQ(different_field(id_kind::eport, attributes_of(structure), attributes_of(eport)), nullptr);
    structure.attr.underlay.vbmp[0] = 1;
    EXPECT_EQ(different_field(id_kind::eport, attributes_of(structure), attributes_of(eport)), nullptr)
        << "bitmaps are no part of the record";
    port.vt_key = 1;
    EXPECT_STREQ(different_field(id_kind::eport, attributes_of(structure), attributes_of(eport)), "vt_key");

    UBridge__EvlanAttrOverlay map = U_BRIDGE__EVLAN_ATTR_OVERLAY__INIT;
    UBridge__Evlan evlan = U_BRIDGE__EVLAN__INIT;
    evlan.type = U_BRIDGE__EVLAN_TYPE__VXLAN;
    evlan.attr_case = U_BRIDGE__EVLAN__ATTR_OVERLAY;
    evlan.overlay = &map;
    map.vnid = 5;
    sw_evlan_attr held{};
    held.evlan_id = 0x20000001;
    held.attr.overlay.vnid = 5;
    EXPECT_EQ(different_field(id_kind::evlan, attributes_of(held), attributes_of(evlan)), nullptr);
    map.mapping_evlan = 1;
    EXPECT_STREQ(different_field(id_kind::evlan, attributes_of(held), attributes_of(evlan)), "mapping_evlan");
    evlan.class_id = 1;
    EXPECT_STREQ(different_field(id_kind::evlan, attributes_of(held), attributes_of(evlan)), "class_id");
}
