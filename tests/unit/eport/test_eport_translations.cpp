// Translations of eports: application key and eport id, through the map or, for ports and aggregates, through the port
// table; and the switch's numbers of ports and the card's.
#include "eport_fixture.hpp"

namespace
{

using namespace eport_test;
using EportApp2Udp = EportTest;
using EportUdp2App = EportTest;
using EportUdp2Sdp = EportTest;
using EportSdp2Udp = EportTest;

constexpr uint32_t global_kind = 7u << 24, local_kind = 8u << 24, aggregate_kind = 12u << 24;
const std::string phyid_by_ifx = look_up("libddm_get_phyid_by_ifx");
const std::string ifx_by_phyid = look_up("libddm_get_ifx_by_phyid");
const std::string lphyid_by_gphyid = look_up("libddm_get_lphyid_by_gphyid");
const std::string gphyid_by_lphyid = look_up("libddm_get_gphyid_by_lphyid");

// ---- application key to eport id

TEST_F(EportApp2Udp, TakesTheMapsIdWithoutAWord)
{
    add_user({.name = "app"});
    update(app_to_udp("app", l3intf_ac, 7, 8, 0x90000005));
    recording::reset();
    const app_key key("app", l3intf_ac, 7, 8);
    udp_index out("mine", 99);
    EXPECT_EQ(sw_eport_app2udp(&key, &out), 0);
    EXPECT_EQ(out.id(), 0x90000005u);
    EXPECT_STREQ(out.t_user, "mine");
    EXPECT_THAT(trace(), IsEmpty());
}

TEST_F(EportApp2Udp, OfAnUnknownKeyClearsTheResultWithoutAWord)
{
    add_user({.name = "app"});
    update(app_to_udp("app", ac, 7, 8, 0x30000005));
    recording::reset();
    for (const auto &[type, keyid1, keyid2] : {std::tuple{ac, 7, 9}, {ac, 6, 8}, {pw, 7, 8}, {0u, 7, 8}}) {
        const app_key key("app", type, keyid1, keyid2);
        udp_index out("", 99);
        EXPECT_EQ(sw_eport_app2udp(&key, &out), -1);
        EXPECT_EQ(out.eport_id, 0);
    }
    EXPECT_THAT(trace(), IsEmpty());
}

TEST_F(EportApp2Udp, IsTheSameForEveryUser)
{
    add_user({.name = "a"});
    update(app_to_udp("a", ac, 7, 8, 0x30000005));
    for (const char *name : {"a", "b", static_cast<const char *>(nullptr)}) {
        const app_key key(name, ac, 7, 8);
        udp_index out("", 0);
        EXPECT_EQ(sw_eport_app2udp(&key, &out), 0);
        EXPECT_EQ(out.id(), 0x30000005u);
    }
}

TEST_F(EportApp2Udp, OfAKeyNotYetGrantedGives0)
{
    add_user({.name = "app"});
    request("app", ac, 7, 8);
    const app_key key("app", ac, 7, 8);
    udp_index out("", 99);
    EXPECT_EQ(sw_eport_app2udp(&key, &out), 0);
    EXPECT_EQ(out.eport_id, 0);
}

TEST_F(EportApp2Udp, OfALocalPortAsksTheMap)
{
    add_user({.name = "app"});
    add_row(33, global_kind | 5, local_kind | 2);
    const app_key key("app", local_port, 0, 33);
    udp_index out("", 99);
    EXPECT_EQ(sw_eport_app2udp(&key, &out), -1);
    EXPECT_EQ(out.eport_id, 0);
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(EportApp2Udp, OfAPortTakesTheNumberOfItsInterface)
{
    add_user({.name = "app"});
    update(app_to_udp("app", port, 0, 0x21, 0x10000063));  // the map is not asked
    recording::reset();
    add_row(0x21, global_kind | 5, local_kind | 2);
    const app_key key("app", port, 0, 0x21);
    udp_index out("mine", 99);
    EXPECT_EQ(sw_eport_app2udp(&key, &out), 0);
    EXPECT_EQ(out.id(), 0x10000005u);
    EXPECT_STREQ(out.t_user, "mine");
    EXPECT_THAT(trace(), ElementsAre(phyid_by_ifx, "info sw_eport_app2udp: libddm ifx: 33 => phyid: 0x7000005, rv: 0.",
                                     "info sw_eport_app2udp: eport[0x10000005]."));
}

TEST_F(EportApp2Udp, OfAPortDoesNotLookAtTheFirstKey)
{
    add_user({.name = "app"});
    add_row(33, global_kind | 5);
    const app_key key("app", port, 77, 33);
    udp_index out("", 99);
    EXPECT_EQ(sw_eport_app2udp(&key, &out), 0);
    EXPECT_EQ(out.id(), 0x10000005u);
}

TEST_F(EportApp2Udp, OfAnAggregateTakesItsNumber)
{
    add_user({.name = "app"});
    add_row(33, aggregate_kind | 3, aggregate_kind | 3);
    const app_key key("app", ap, 0, 33);
    udp_index out("", 99);
    EXPECT_EQ(sw_eport_app2udp(&key, &out), 0);
    EXPECT_EQ(out.id(), 0x20000003u);
    EXPECT_THAT(recording::logged(), ElementsAre("libddm ifx: 33 => phyid: 0xc000003, rv: 0.", "eport[0x20000003]."));
}

TEST_F(EportApp2Udp, LetsThePortTableChooseBetweenPortAndAggregate)
{
    add_user({.name = "app"});
    add_row(33, global_kind | 5);
    add_row(44, aggregate_kind | 3);
    udp_index out("", 99);
    const app_key said_aggregate("app", ap, 0, 33), said_port("app", port, 0, 44);
    EXPECT_EQ(sw_eport_app2udp(&said_aggregate, &out), 0);
    EXPECT_EQ(out.id(), 0x10000005u);
    EXPECT_EQ(sw_eport_app2udp(&said_port, &out), 0);
    EXPECT_EQ(out.id(), 0x20000003u);
}

TEST_F(EportApp2Udp, OfAnyPhysicalIdButAGlobalOneIsAnAggregate)
{
    add_user({.name = "app"});
    for (const uint32_t kind : {0u, 6u, 8u, 0x87u, 0xffu}) {
        recording::reset();
        add_row(33, kind << 24 | 0xffffff);
        const app_key key("app", port, 0, 33);
        udp_index out("", 99);
        EXPECT_EQ(sw_eport_app2udp(&key, &out), 0);
        EXPECT_EQ(out.id(), 0x20ffffffu) << kind;
    }
    recording::reset();
    add_row(33, global_kind | 0xffffff);
    const app_key key("app", port, 0, 33);
    udp_index out("", 99);
    EXPECT_EQ(sw_eport_app2udp(&key, &out), 0);
    EXPECT_EQ(out.id(), 0x10ffffffu);
}

TEST_F(EportApp2Udp, WithoutSuchAnInterfaceGivesAggregate0AndThePortTablesCode)
{
    add_user({.name = "app"});
    for (const uint32_t type : {port, ap}) {
        recording::reset();
        const app_key key("app", type, 0, -2);
        udp_index out("mine", 99);
        EXPECT_EQ(sw_eport_app2udp(&key, &out), LIBDDM_ENOENT);
        EXPECT_EQ(out.id(), 0x20000000u);
        EXPECT_THAT(trace(), ElementsAre(phyid_by_ifx,
                                         "error sw_eport_app2udp: Get phyid by ifx[0xfffffffe] failed, error is -2.",
                                         "info sw_eport_app2udp: libddm ifx: -2 => phyid: 0x0, rv: -2.",
                                         "info sw_eport_app2udp: eport[0x20000000]."));
    }
}

TEST_F(EportApp2Udp, RefusesNull)
{
    add_user({.name = "app"});
    const app_key key("app", ac, 7, 8), of_port("app", port, 7, 8);
    udp_index out("", 99);
    EXPECT_EQ(sw_eport_app2udp(nullptr, &out), -2);
    EXPECT_EQ(sw_eport_app2udp(&key, nullptr), -2);
    EXPECT_EQ(sw_eport_app2udp(&of_port, nullptr), -2);
    EXPECT_EQ(sw_eport_app2udp(nullptr, nullptr), -2);
    EXPECT_EQ(out.eport_id, 99);
    EXPECT_THAT(trace(), SizeIs(4));
    EXPECT_THAT(trace(), Each("error sw_eport_app2udp: Assert:Bad App index."));
}

TEST_F(EportApp2Udp, LooksInSlot0Only)
{
    add_user({.name = "app"});
    update(app_to_udp("app", ac, 7, 8, 0x30000005), 1);
    const app_key key("app", ac, 7, 8);
    udp_index out("", 99);
    EXPECT_EQ(sw_eport_app2udp(&key, &out), -1);
}

// ---- eport id to application key

TEST_F(EportUdp2App, TakesTheMapsKey)
{
    add_user({.name = "app"});
    update(udp_to_app("app", 0x90000005, l3intf_ac, 7, 0xfffffff8));
    recording::reset();
    const udp_index index("whoever", 0x90000005);
    app_key out("mine", 1, 2, 3);
    EXPECT_EQ(sw_eport_udp2app(&index, &out), 0);
    EXPECT_EQ(out.type, 144);
    EXPECT_EQ(out.keyid1, 7);
    EXPECT_EQ(out.keyid2, -8);
    EXPECT_STREQ(out.t_user, "mine");
    EXPECT_THAT(
        trace(),
        ElementsAre("info sw_eport_udp2app: EPORT[0x90000005] mapped to app_index->key1[7], key2[-8], type[144]."));
}

TEST_F(EportUdp2App, OfAnUnknownIdFails)
{
    add_user({.name = "app"});
    update(app_to_udp("app", ac, 7, 8, 0x30000005));
    recording::reset();
    const udp_index index("app", 0x30000005);
    app_key out("mine", 1, 2, 3);
    EXPECT_EQ(sw_eport_udp2app(&index, &out), -1);
    EXPECT_EQ(out.type, 1);
    EXPECT_EQ(out.keyid1, 2);
    EXPECT_EQ(out.keyid2, 3);
    EXPECT_THAT(trace(), ElementsAre("warning sw_eport_udp2app: EPORT DB get failed, eport[0x30000005]."));
}

TEST_F(EportUdp2App, OfALocalPortAsksTheMap)
{
    add_user({.name = "app"});
    update(udp_to_app("app", 0x11000002, local_port, 7, 8));
    const udp_index index("app", 0x11000002);
    app_key out("mine", 1, 2, 3);
    EXPECT_EQ(sw_eport_udp2app(&index, &out), 0);
    EXPECT_EQ(out.type, 17);
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(EportUdp2App, OfAPortGivesItsInterfaceAndLeavesTheTypeAlone)
{
    add_user({.name = "app"});
    add_row(99, aggregate_kind | 5);
    add_row(33, global_kind | 5, local_kind | 2);
    const udp_index index("whoever", 0x10000005);
    app_key out("mine", 77, 2, 3);
    EXPECT_EQ(sw_eport_udp2app(&index, &out), 0);
    EXPECT_EQ(out.type, 77);
    EXPECT_EQ(out.keyid1, 0);
    EXPECT_EQ(out.keyid2, 33);
    EXPECT_STREQ(out.t_user, "mine");
    EXPECT_THAT(trace(), ElementsAre(ifx_by_phyid, "info sw_eport_udp2app: The ifx of phyid[0x7000005] is 0x21."));
}

TEST_F(EportUdp2App, OfAnAggregateAsksForItsPhysicalId)
{
    add_user({.name = "app"});
    update(udp_to_app("app", 0x20000003, ap, 7, 8));  // the map is not asked
    recording::reset();
    add_row(99, global_kind | 3, local_kind | 3);
    add_row(33, aggregate_kind | 3, aggregate_kind | 3);
    const udp_index index("whoever", 0x20000003);
    app_key out("mine", 77, 2, 3);
    EXPECT_EQ(sw_eport_udp2app(&index, &out), 0);
    EXPECT_EQ(out.type, 77);
    EXPECT_EQ(out.keyid1, 0);
    EXPECT_EQ(out.keyid2, 33);
    EXPECT_THAT(trace(), ElementsAre(ifx_by_phyid, "info sw_eport_udp2app: The ifx of phyid[0xc000003] is 0x21."));
}

TEST_F(EportUdp2App, OfAnUnknownPortGivesThePortTablesCode)
{
    add_user({.name = "app"});
    for (const auto &[id, phyid] : {std::pair{0x10ffffffu, "0x7ffffff"}, std::pair{0x20ffffffu, "0xcffffff"}}) {
        recording::reset();
        const udp_index index("app", id);
        app_key out("mine", 77, 2, 3);
        EXPECT_EQ(sw_eport_udp2app(&index, &out), LIBDDM_ENOENT);
        EXPECT_EQ(out.type, 77);
        EXPECT_EQ(out.keyid1, 0);
        EXPECT_EQ(out.keyid2, 3);
        EXPECT_THAT(trace(),
                    ElementsAre(ifx_by_phyid,
                                format("error sw_eport_udp2app: Get ifx by phyid[%s] failed, error is -2.", phyid)));
    }
}

TEST_F(EportUdp2App, RefusesNull)
{
    add_user({.name = "app"});
    const udp_index index("app", 0x30000005), of_port("app", 0x10000005);
    app_key out("mine", 1, 2, 3);
    EXPECT_EQ(sw_eport_udp2app(&index, nullptr), -2);
    EXPECT_EQ(sw_eport_udp2app(&of_port, nullptr), -2);
    EXPECT_EQ(sw_eport_udp2app(nullptr, &out), -2);
    EXPECT_EQ(out.keyid1, 2);
    EXPECT_THAT(trace(), SizeIs(3));
    EXPECT_THAT(trace(), Each("error sw_eport_udp2app: Assert:Bad App index."));
}

TEST_F(EportUdp2App, LooksInSlot0Only)
{
    add_user({.name = "app"});
    update(udp_to_app("app", 0x30000005, ac, 7, 8), 1);
    const udp_index index("", 0x30000005);
    app_key out("", 0, 0, 0);
    EXPECT_EQ(sw_eport_udp2app(&index, &out), -1);
}

TEST_F(EportUdp2App, IsSilentBelowTheLevelOfItsLines)
{
    add_user({.name = "app"});
    update(udp_to_app("app", 0x30000005, ac, 7, 8));
    recording::reset();
    const udp_index known("", 0x30000005), unknown("", 0x30000006);
    app_key out("", 0, 0, 0);
    g_sw_vlan_file_zlog_level = 1;
    EXPECT_EQ(sw_eport_udp2app(&unknown, &out), -1);
    g_sw_vlan_file_zlog_level = 3;
    EXPECT_EQ(sw_eport_udp2app(&known, &out), 0);
    EXPECT_THAT(trace(), IsEmpty());
    g_sw_vlan_file_zlog_level = 2;
    EXPECT_EQ(sw_eport_udp2app(&unknown, &out), -1);
    g_sw_vlan_file_zlog_level = 4;
    EXPECT_EQ(sw_eport_udp2app(&known, &out), 0);
    EXPECT_THAT(trace(), SizeIs(2));
}

TEST_F(EportUdp2App, BeforeAnyInitialisationFindsNothing)
{
    const app_key key("app", ac, 7, 8);
    udp_index out("", 99);
    app_key back("", 0, 0, 0);
    EXPECT_EQ(sw_eport_app2udp(&key, &out), -1);
    EXPECT_EQ(sw_eport_udp2app(&out, &back), -1);
}

// ---- the switch's numbers to the card's

uint32_t to_card(uint32_t id)
{
    const udp_index udp("whoever", id);
    udp_index sdp("mine", 99);
    EXPECT_EQ(sw_eport_udp2sdp(&udp, &sdp), 0);
    EXPECT_EQ(udp.id(), id);
    return sdp.id();
}

TEST_F(EportUdp2Sdp, CopiesAnythingButPorts)
{
    add_user({.name = "app"});
    add_row(33, aggregate_kind | 3, local_kind | 9);
    for (const uint32_t id : {0u, 0x11000002u, 0x20000003u, 0x30000005u, 0x90000005u, 0xffffffffu}) {
        recording::reset();
        EXPECT_EQ(to_card(id), id);
        EXPECT_THAT(trace(), ElementsAre(format("info sw_eport_udp2sdp: EPORT udp[0x%x] to sdp[0x%x].", id, id)));
    }
}

TEST_F(EportUdp2Sdp, OfAPortGivesTheLocalPort)
{
    add_user({.name = "app"});
    add_row(33, global_kind | 5, local_kind | 2);
    EXPECT_EQ(to_card(0x10000005), 0x11000002u);
    EXPECT_THAT(trace(),
                ElementsAre(lphyid_by_gphyid, "info sw_eport_udp2sdp: EPORT udp[0x10000005] to sdp[0x11000002]."));
}

TEST_F(EportUdp2Sdp, OfAPortWithoutALocalIdGivesAnAggregate)
{
    add_user({.name = "app"});
    for (const uint32_t kind : {0u, 7u, 12u, 0x88u}) {
        recording::reset();
        add_row(33, global_kind | 5, kind << 24 | 0xffffff);
        EXPECT_EQ(to_card(0x10000005), 0x20ffffffu);
    }
}

// The way back gives aggregate 0 and the code.
TEST_F(EportUdp2Sdp, OfAnUnknownPortCopiesItAndIsNoFailure)
{
    add_user({.name = "app"});
    EXPECT_EQ(to_card(0x10000005), 0x10000005u);
    EXPECT_THAT(trace(),
                ElementsAre(lphyid_by_gphyid, "info sw_eport_udp2sdp: EPORT udp[0x10000005] to sdp[0x10000005]."));
}

TEST_F(EportUdp2Sdp, WorksInPlace)
{
    add_user({.name = "app"});
    add_row(33, global_kind | 5, local_kind | 2);
    udp_index both("", 0x10000005);
    EXPECT_EQ(sw_eport_udp2sdp(&both, &both), 0);
    EXPECT_EQ(both.id(), 0x11000002u);
    EXPECT_TRUE(recording::has_logged("EPORT udp[0x10000005] to sdp[0x11000002].", 40));
    EXPECT_EQ(sw_eport_sdp2udp(&both, &both), 0);
    EXPECT_EQ(both.id(), 0x10000005u);
}

TEST_F(EportUdp2Sdp, RefusesNull)
{
    add_user({.name = "app"});
    udp_index index("", 0x10000005);
    EXPECT_EQ(sw_eport_udp2sdp(nullptr, &index), -2);
    EXPECT_EQ(sw_eport_udp2sdp(&index, nullptr), -2);
    EXPECT_EQ(index.id(), 0x10000005u);
    EXPECT_THAT(trace(), SizeIs(2));
    EXPECT_THAT(trace(), Each("error sw_eport_udp2sdp: Assert:Bad App index."));
}

// ---- the card's numbers to the switch's

TEST_F(EportSdp2Udp, CopiesAnythingButLocalPortsWithoutAWord)
{
    add_user({.name = "app"});
    add_row(33, global_kind | 5, local_kind | 5);
    for (const uint32_t id : {0u, 0x10000005u, 0x20000003u, 0x30000005u, 0x90000005u, 0xffffffffu}) {
        const udp_index sdp("", id);
        udp_index udp("", 99);
        EXPECT_EQ(sw_eport_sdp2udp(&sdp, &udp), 0);
        EXPECT_EQ(udp.id(), id);
    }
    EXPECT_THAT(trace(), IsEmpty());
}

TEST_F(EportSdp2Udp, OfALocalPortGivesThePort)
{
    add_user({.name = "app"});
    add_row(99, local_kind | 2, 0);
    add_row(33, global_kind | 5, local_kind | 2);
    const udp_index sdp("", 0x11000002);
    udp_index udp("", 99);
    EXPECT_EQ(sw_eport_sdp2udp(&sdp, &udp), 0);
    EXPECT_EQ(udp.id(), 0x10000005u);
    EXPECT_THAT(trace(), ElementsAre(gphyid_by_lphyid,
                                     "info sw_eport_sdp2udp: libddm lphyid: 0x8000002 => gphyid: 0x7000005, rv: 0.",
                                     "info sw_eport_sdp2udp: eport[0x10000005]."));
}

TEST_F(EportSdp2Udp, OfALocalPortWithoutAGlobalIdGivesAnAggregate)
{
    add_user({.name = "app"});
    for (const uint32_t kind : {0u, 8u, 12u, 0x87u}) {
        recording::reset();
        add_row(33, kind << 24 | 0xffffff, local_kind | 2);
        const udp_index sdp("", 0x11000002);
        udp_index udp("", 99);
        EXPECT_EQ(sw_eport_sdp2udp(&sdp, &udp), 0);
        EXPECT_EQ(udp.id(), 0x20ffffffu);
    }
}

TEST_F(EportSdp2Udp, OfAnUnknownLocalPortGivesAggregate0AndThePortTablesCode)
{
    add_user({.name = "app"});
    const udp_index sdp("", 0x11ffffff);
    udp_index udp("", 99);
    EXPECT_EQ(sw_eport_sdp2udp(&sdp, &udp), LIBDDM_ENOENT);
    EXPECT_EQ(udp.id(), 0x20000000u);
    EXPECT_THAT(trace(),
                ElementsAre(gphyid_by_lphyid, "error sw_eport_sdp2udp: libddm_get_gphyid_by_lphyid failed, rv: -2.",
                            "info sw_eport_sdp2udp: libddm lphyid: 0x8ffffff => gphyid: 0x0, rv: -2.",
                            "info sw_eport_sdp2udp: eport[0x20000000]."));
}

TEST_F(EportSdp2Udp, RefusesNull)
{
    add_user({.name = "app"});
    udp_index index("", 0x11000002);
    EXPECT_EQ(sw_eport_sdp2udp(nullptr, &index), -2);
    EXPECT_EQ(sw_eport_sdp2udp(&index, nullptr), -2);
    EXPECT_EQ(index.id(), 0x11000002u);
    EXPECT_THAT(trace(), SizeIs(2));
    EXPECT_THAT(trace(), Each("error sw_eport_sdp2udp: Assert:Bad App index."));
}

// ---- look-ups that fail, whatever their code, and leave something behind

class EportFailedLookUp : public EportTest, public testing::WithParamInterface<int32_t>
{
  protected:
    void SetUp() override
    {
        EportTest::SetUp();
        add_user({.name = "app"});
        add_row(33, global_kind | 5, local_kind | 2);
    }
};

TEST_P(EportFailedLookUp, OfAnInterfaceGivesAggregate0AndItsCode)
{
    recording::set_result("libddm_get_phyid_by_ifx", GetParam());
    const app_key key("app", port, 0, 33);
    udp_index out("", 99);
    EXPECT_EQ(sw_eport_app2udp(&key, &out), GetParam());
    EXPECT_EQ(out.id(), 0x20000000u);
    EXPECT_THAT(trace(),
                ElementsAre(phyid_by_ifx,
                            format("error sw_eport_app2udp: Get phyid by ifx[0x21] failed, error is %d.", GetParam()),
                            format("info sw_eport_app2udp: libddm ifx: 33 => phyid: 0x0, rv: %d.", GetParam()),
                            "info sw_eport_app2udp: eport[0x20000000]."));
}

TEST_P(EportFailedLookUp, OfAPhysicalIdLeavesTheSecondKeyAloneAndGivesItsCode)
{
    recording::set_result("libddm_get_ifx_by_phyid", GetParam());
    const udp_index index("app", 0x10000005);
    app_key out("mine", 77, 2, 3);
    EXPECT_EQ(sw_eport_udp2app(&index, &out), GetParam());
    EXPECT_EQ(out.keyid1, 0);
    EXPECT_EQ(out.keyid2, 3);
    EXPECT_THAT(trace(), ElementsAre(ifx_by_phyid,
                                     format("error sw_eport_udp2app: Get ifx by phyid[0x7000005] failed, error is %d.",
                                            GetParam())));
}

TEST_P(EportFailedLookUp, OfALocalIdCopiesThePortAndIsNoFailure)
{
    recording::set_result("libddm_get_lphyid_by_gphyid", GetParam());
    EXPECT_EQ(to_card(0x10000005), 0x10000005u);
}

TEST_P(EportFailedLookUp, OfAGlobalIdGivesAggregate0AndItsCode)
{
    recording::set_result("libddm_get_gphyid_by_lphyid", GetParam());
    const udp_index sdp("", 0x11000002);
    udp_index udp("", 99);
    EXPECT_EQ(sw_eport_sdp2udp(&sdp, &udp), GetParam());
    EXPECT_EQ(udp.id(), 0x20000000u);
    EXPECT_THAT(
        trace(),
        ElementsAre(gphyid_by_lphyid,
                    format("error sw_eport_sdp2udp: libddm_get_gphyid_by_lphyid failed, rv: %d.", GetParam()),
                    format("info sw_eport_sdp2udp: libddm lphyid: 0x8000002 => gphyid: 0x0, rv: %d.", GetParam()),
                    "info sw_eport_sdp2udp: eport[0x20000000]."));
}

INSTANTIATE_TEST_SUITE_P(Codes, EportFailedLookUp, testing::Values(-5, 5));

}  // namespace
