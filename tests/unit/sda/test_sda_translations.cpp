// Translations between bridge ids and chip keys, per unit.
#include "sda_fixture.hpp"

namespace
{

using namespace sda_test;
using SdaEvlanUdp2Sdk = SdaTest;
using SdaEvlanSdk2Udp = SdaTest;
using SdaEportSdp2Sdk = SdaTest;
using SdaEportSdk2Sdp = SdaTest;

constexpr uint32_t vxlan_5 = 0x20000005, ac_5 = 0x30000005;

void pair(uint32_t unit, uint32_t id, evlan_sdk sdk)
{
    evlan index(id);
    EXPECT_EQ(sda_evlan_create_callback(unit, &index, &sdk), 0);
    recording::reset();
}

void pair(uint32_t unit, uint32_t id, eport_sdk sdk)
{
    eport index(id);
    EXPECT_EQ(sda_eport_create_callback(unit, &index, &sdk), 0);
    recording::reset();
}

// A chip key with something in each field, and what a translation makes of it.
eport_sdk scribbled()
{
    eport_sdk sdk(91, 92, "mine");
    sdk.unit = 93;
    sdk.port = 94;
    sdk.tid = 95;
    return sdk;
}

const std::string null_pointer = format("%p", static_cast<void *>(nullptr));
const std::string unit_port_of = "libddm_get_unit_port_by_lphyid 0 ", lphyid_of = "libddm_get_lphyid_by_unit_port 0 ";

void add_port(uint32_t lphyid, int32_t unit, int32_t port) { recording::ports().push_back({0, 0, lphyid, unit, port}); }

// ---- evlan to chip key

TEST_F(SdaEvlanUdp2Sdk, GivesTheEvlansTypeAndThePairsNumbers)
{
    start_without_users();
    pair(4, vxlan_5, evlan_sdk(99, 7, 9));
    evlan in(vxlan_5);
    evlan_sdk out(1, 2, 3, "mine");
    EXPECT_THAT(traced_by(0, [&] { return sda_evlan_udp2sdk(4, &in, &out); }), IsEmpty());
    EXPECT_EQ(shown(out), "mine/type 32 vsi 7 vid 9");
}

TEST_F(SdaEvlanUdp2Sdk, OfAnUnknownEvlanClearsTheFields)
{
    start_without_users();
    pair(4, vxlan_5, evlan_sdk(32, 7, 9));
    for (const auto &[unit, id] : {std::pair{4u, vxlan_5 + 1}, {3u, vxlan_5}}) {
        evlan in(id);
        evlan_sdk out(1, 2, 3, "mine");
        EXPECT_EQ(sda_evlan_udp2sdk(unit, &in, &out), -1);
        EXPECT_EQ(shown(out), "mine/type 0 vsi 0 vid 0");
        expect_message(&out, s_bridge__evlan_sdk_index__descriptor);
    }
    EXPECT_THAT(trace(), IsEmpty());
}

TEST_F(SdaEvlanUdp2Sdk, RefusesBadArguments)
{
    start_without_users();
    evlan in(vxlan_5);
    evlan_sdk out(1, 2, 3);
    EXPECT_THAT(traced_by(-2, [&] { return sda_evlan_udp2sdk(0, nullptr, &out); }),
                ElementsAre("error sda_evlan_udp2sdk: Assert:evlan_index(" + null_pointer + ") is null\n"));
    EXPECT_THAT(traced_by(-2, [&] { return sda_evlan_udp2sdk(0, &in, nullptr); }),
                ElementsAre("error sda_evlan_udp2sdk: Assert:sdk_index(" + null_pointer + ") is null\n"));
    EXPECT_THAT(traced_by(-2, [&] { return sda_evlan_udp2sdk(no_unit, &in, &out); }),
                ElementsAre("error sda_evlan_udp2sdk: Assert:Bad inst 6."));
    EXPECT_EQ(shown(out), "chip/type 1 vsi 2 vid 3");
}

// ---- chip key to evlan

TEST_F(SdaEvlanSdk2Udp, GivesTheIdOfTheWholeChipKey)
{
    start_without_users();
    pair(4, vxlan_5, evlan_sdk(99, 7, 9));
    evlan_sdk in(99, 7, 9);
    evlan out(1, "mine");
    EXPECT_THAT(traced_by(0, [&] { return sda_evlan_sdk2udp(4, &in, &out); }), IsEmpty());
    EXPECT_EQ(shown(out), "mine/0x20000005");
}

TEST_F(SdaEvlanSdk2Udp, OfAnUnknownChipKeyClearsTheId)
{
    start_without_users();
    pair(4, vxlan_5, evlan_sdk(99, 7, 9));
    for (const auto &[unit, key] : {std::pair{4u, evlan_sdk(98, 7, 9)},
                                    {4u, evlan_sdk(99, 8, 9)},
                                    {4u, evlan_sdk(99, 7, 8)},
                                    {3u, evlan_sdk(99, 7, 9)}}) {
        evlan_sdk in = key;
        evlan out(1, "mine");
        EXPECT_EQ(sda_evlan_sdk2udp(unit, &in, &out), -1);
        EXPECT_EQ(shown(out), "mine/0x0");
    }
    EXPECT_THAT(trace(), IsEmpty());
}

TEST_F(SdaEvlanSdk2Udp, RefusesBadArguments)
{
    start_without_users();
    evlan_sdk in(32, 7);
    evlan out(1);
    EXPECT_THAT(traced_by(-2, [&] { return sda_evlan_sdk2udp(0, nullptr, &out); }),
                ElementsAre("error sda_evlan_sdk2udp: Assert:sdk_index(" + null_pointer + ") is null\n"));
    EXPECT_THAT(traced_by(-2, [&] { return sda_evlan_sdk2udp(0, &in, nullptr); }),
                ElementsAre("error sda_evlan_sdk2udp: Assert:evlan_index(" + null_pointer + ") is null\n"));
    EXPECT_THAT(traced_by(-2, [&] { return sda_evlan_sdk2udp(no_unit, &in, &out); }),
                ElementsAre("error sda_evlan_sdk2udp: Assert:Bad inst 6."));
    EXPECT_EQ(out.id(), 1u);
}

// ---- eport to chip key

TEST_F(SdaEportSdp2Sdk, OfALocalPortAsksThePortTable)
{
    start_without_users();
    add_port(0x08000102, 1, 77);
    eport in(0x11000102);
    eport_sdk out = scribbled();
    EXPECT_THAT(traced_by(0, [&] { return sda_eport_sdp2sdk(3, &in, &out); }),
                ElementsAre(unit_port_of, "info sda_eport_sdp2sdk: Local port phyid[0x8000102] is unit[1].port[77]\n"));
    EXPECT_EQ(shown(out), "mine/type 17 vport 0x0 unit 1 port 77 tid 0");
}

TEST_F(SdaEportSdp2Sdk, OfALocalPortThatIsNotInTheTableGivesItsLowByte)
{
    start_without_users();
    eport in(0x11000102);
    for (const int32_t rv : {-2, 9}) {
        recording::set_result("libddm_get_unit_port_by_lphyid", rv);
        eport_sdk out = scribbled();
        EXPECT_THAT(traced_by(rv, [&] { return sda_eport_sdp2sdk(3, &in, &out); }),
                    ElementsAre(unit_port_of, format("error sda_eport_sdp2sdk: Assert:libddm_get_unit_port_by_lphyid "
                                                     "fail: lphyid[0x8000102], rv[%d].\n",
                                                     rv)));
        EXPECT_EQ(shown(out), "mine/type 17 vport 0x0 unit 3 port 2 tid 0");
    }
}

TEST_F(SdaEportSdp2Sdk, OfAnAggregateIsComputed)
{
    start_without_users();
    for (const auto &[id, tid, port] : {std::tuple{0x20000003u, 3, 259}, {0x20ffffffu, 0xffffff, 0x10000ff}}) {
        eport in(id);
        eport_sdk out = scribbled();
        EXPECT_THAT(traced_by(0, [&] { return sda_eport_sdp2sdk(2, &in, &out); }),
                    ElementsAre(format("info sda_eport_sdp2sdk: unit[2].AP-port[%d] is port[%d]\n", tid, port)));
        EXPECT_EQ(shown(out), format("mine/type 32 vport 0x0 unit 2 port %d tid %d", port, tid));
    }
}

TEST_F(SdaEportSdp2Sdk, OfOthersGivesThePair)
{
    start_without_users();
    pair(2, ac_5, eport_sdk(48, 0x80000102));
    pair(2, 0x10000005, eport_sdk(16, 6));  // a PORT is no LOCAL_PORT
    eport in(ac_5);
    eport_sdk out = scribbled();
    EXPECT_THAT(traced_by(0, [&] { return sda_eport_sdp2sdk(2, &in, &out); }),
                ElementsAre("info sda_eport_sdp2sdk: unit[2].eport[0x30000005] map to "
                            "SDKIndex[type:48,vport:0x80000102]\n"));
    EXPECT_EQ(shown(out), "mine/type 48 vport 0x80000102 unit 0 port 0 tid 0");
    in = eport(0x10000005);
    EXPECT_EQ(sda_eport_sdp2sdk(2, &in, &out), 0);
    EXPECT_EQ(shown(out), "mine/type 16 vport 0x6 unit 0 port 0 tid 0");
}

TEST_F(SdaEportSdp2Sdk, OfAnUnknownEportClearsTheFields)
{
    start_without_users();
    pair(2, ac_5, eport_sdk(48, 7));
    for (const auto &[unit, id] : {std::pair{2u, ac_5 + 1}, {1u, ac_5}, {2u, 0u}}) {
        eport in(id);
        eport_sdk out = scribbled();
        EXPECT_THAT(traced_by(-1, [&, on = unit] { return sda_eport_sdp2sdk(on, &in, &out); }), IsEmpty());
        EXPECT_EQ(shown(out), "mine/type 0 vport 0x0 unit 0 port 0 tid 0");
        expect_message(&out, u_bridge__eport_sdk_index__descriptor);
    }
}

TEST_F(SdaEportSdp2Sdk, RefusesBadArguments)
{
    start_without_users();
    eport in(ac_5);
    eport_sdk out = scribbled();
    const std::string before = shown(out);
    EXPECT_THAT(traced_by(-2, [&] { return sda_eport_sdp2sdk(0, nullptr, &out); }),
                ElementsAre("error sda_eport_sdp2sdk: Assert:eport_index is null\n"));
    EXPECT_THAT(traced_by(-2, [&] { return sda_eport_sdp2sdk(0, &in, nullptr); }),
                ElementsAre("error sda_eport_sdp2sdk: Assert:sdk_index is null\n"));
    EXPECT_THAT(traced_by(-2, [&] { return sda_eport_sdp2sdk(no_unit, &in, &out); }),
                ElementsAre("error sda_eport_sdp2sdk: Assert:Bad inst 6."));
    EXPECT_EQ(shown(out), before);
}

// ---- chip key to eport

eport_sdk physical(int32_t unit, int32_t port)
{
    eport_sdk key(16);
    key.unit = unit;
    key.port = port;
    return key;
}

TEST_F(SdaEportSdk2Sdp, OfAPortAsksThePortTable)
{
    start_without_users();
    add_port(0x08400102, 1, 77);
    add_port(0x0c000003, 1, 78);
    for (const auto &[port, lphyid, id] : {std::tuple{77, 0x8400102u, 0x11400102u}, {78, 0xc000003u, 0x20000003u}}) {
        eport_sdk in = physical(1, port);
        eport out(1, "mine");
        EXPECT_THAT(traced_by(0, [&] { return sda_eport_sdk2sdp(3, &in, &out); }),
                    ElementsAre(lphyid_of, format("info sda_eport_sdk2sdp: The phyid of unit[1].local-port[%d] is 0x%x "
                                                  "and eport-id is 0x%x\n",
                                                  port, lphyid, id)));
        EXPECT_EQ(shown(out), format("mine/0x%x", id));
    }
}

TEST_F(SdaEportSdk2Sdp, OfAPortWhoseIdIsNotACardsOwnIsAnAggregate)
{
    start_without_users();
    int32_t port = 0;
    for (const uint32_t kind : {0u, 7u, 9u, 0x88u, 0xffu}) {
        add_port(kind << 24 | 0xfffffe, 1, ++port);
        eport_sdk in = physical(1, port);
        eport out(1);
        EXPECT_EQ(sda_eport_sdk2sdp(1, &in, &out), 0);
        EXPECT_EQ(out.id(), 0x20fffffeu) << kind;
    }
}

TEST_F(SdaEportSdk2Sdp, OfAPortThatIsNotInTheTableGives0)
{
    start_without_users();
    add_port(0x08400102, 1, 77);
    for (const auto &[unit, port] : {std::pair{1, 78}, {2, 77}}) {
        eport_sdk in = physical(unit, port);
        eport out(1, "mine");
        EXPECT_THAT(
            traced_by(-2, [&] { return sda_eport_sdk2sdp(1, &in, &out); }),
            ElementsAre(lphyid_of, format("error sda_eport_sdk2sdp: Assert:libddm_get_lphyid_by_unit_port fail: "
                                          "unit[%d], port[%d], rv[-2].\n",
                                          unit, port)));
        EXPECT_EQ(shown(out), "mine/0x0");
    }
    recording::set_result("libddm_get_lphyid_by_unit_port", 9);
    eport_sdk in = physical(1, 77);
    eport out(1);
    EXPECT_EQ(sda_eport_sdk2sdp(1, &in, &out), 9);
    EXPECT_EQ(out.id(), 0u);
}

// Not what sda_eport_sdp2sdk() takes.
TEST_F(SdaEportSdk2Sdp, OfAnAggregateHasItsNumberInFront)
{
    start_without_users();
    for (const auto &[tid, id] : {std::pair{3, 0x03000020u}, {0, 0x20u}, {0x1ff, 0xff000020u}}) {
        eport_sdk in(32, 9);
        in.unit = 4;
        in.tid = tid;
        eport out(1, "mine");
        EXPECT_THAT(
            traced_by(0, [&] { return sda_eport_sdk2sdp(2, &in, &out); }),
            ElementsAre(format("info sda_eport_sdk2sdp: The eport-id of unit[4].APport[%d] is 0x%x\n", tid, id)));
        EXPECT_EQ(shown(out), format("mine/0x%x", id));
    }
}

TEST_F(SdaEportSdk2Sdp, OfOthersGivesThePairOfTheVport)
{
    start_without_users();
    pair(2, ac_5, eport_sdk(48, 7));
    for (const int32_t type : {48, 49, 17, 0}) {
        eport_sdk in(type, 7);
        eport out(1, "mine");
        EXPECT_THAT(traced_by(0, [&] { return sda_eport_sdk2sdp(2, &in, &out); }), IsEmpty());
        EXPECT_EQ(shown(out), "mine/0x30000005") << type;
    }
}

TEST_F(SdaEportSdk2Sdp, OfAnUnknownVportSucceedsWith0)
{
    start_without_users();
    pair(2, ac_5, eport_sdk(48, 7));
    for (const auto &[unit, vport] : {std::pair{2u, 8u}, {1u, 7u}}) {
        eport_sdk in(48, vport);
        eport out(1, "mine");
        EXPECT_THAT(traced_by(0, [&, on = unit] { return sda_eport_sdk2sdp(on, &in, &out); }), IsEmpty());
        EXPECT_EQ(shown(out), "mine/0x0");
    }
}

TEST_F(SdaEportSdk2Sdp, RefusesBadArguments)
{
    start_without_users();
    eport_sdk in(48, 7);
    eport out(1);
    EXPECT_THAT(traced_by(-2, [&] { return sda_eport_sdk2sdp(0, nullptr, &out); }),
                ElementsAre("error sda_eport_sdk2sdp: Assert:sdk_index is null\n"));
    EXPECT_THAT(traced_by(-2, [&] { return sda_eport_sdk2sdp(0, &in, nullptr); }),
                ElementsAre("error sda_eport_sdk2sdp: Assert:eport_index is null\n"));
    EXPECT_THAT(traced_by(-2, [&] { return sda_eport_sdk2sdp(no_unit, &in, &out); }),
                ElementsAre("error sda_eport_sdk2sdp: Assert:Bad inst 6."));
    EXPECT_EQ(out.id(), 1u);
}

}  // namespace
