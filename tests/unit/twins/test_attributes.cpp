// Attributes: read from and written into the local record, published in the attribute database, and withdrawn.
#include "twin_fixture.hpp"

namespace
{

using namespace twin_test;
using evlan_test::l3intf_sub;
using evlan_test::l3vpn;

constexpr uint32_t vlan_100 = id_of(vlan, 100);
constexpr uint32_t port_3 = id_of(U_BRIDGE__EPORT_TYPE__PORT, 3);
constexpr uint32_t vxlan_5 = evlans::id(5);
constexpr uint32_t ac_5 = eports::id(5);

template <typename Kind>
using Attributes = Twin<Kind>;
TYPED_TEST_SUITE(Attributes, kinds);

// ---- what is refused, by get and set

TYPED_TEST(Attributes, AreNotReadIntoNothing)
{
    add_twin();
    EXPECT_EQ(TypeParam::get(nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre(line<TypeParam>("error", "attr_get", "Assert:Bad arg: NULL.")));
}

TYPED_TEST(Attributes, AreNotTakenFromNothing)
{
    add_twin();
    EXPECT_EQ(TypeParam::set(nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre(line<TypeParam>("error", "attr_set", "Assert:Bad arg: NULL.")));
}

// The ids are ones that verification would make a record for, and a user with it.
TYPED_TEST(Attributes, OfAnUnknownUserAreRefusedAndNothingChanges)
{
    add_twin();
    for (const uint32_t type : TypeParam::verified_types) {
        auto record = TypeParam::make("nobody", id_of(type, 100));
        const auto before = record;
        recording::reset();
        EXPECT_EQ(TypeParam::get(&record), -2);
        EXPECT_EQ(TypeParam::set(&record), -2);
        EXPECT_THAT(trace(), ElementsAre(line<TypeParam>("error", "attr_get", no_such_user),
                                         line<TypeParam>("error", "attr_set", no_such_user)));
        EXPECT_EQ(std::memcmp(&record, &before, sizeof record), 0);
        EXPECT_EQ(sw_ebridge_list_item_get("nobody"), nullptr);
    }
}

TYPED_TEST(Attributes, OfAnUnknownUserWhoseNameLacksItsEndAreRefusedWithoutReadingOn)
{
    add_twin();
    auto record = TypeParam::make("", TypeParam::id(5));
    std::memset(record.user_name, 'n', sizeof record.user_name);
    EXPECT_EQ(TypeParam::get(&record), -2);
    EXPECT_EQ(TypeParam::set(&record), -2);
    EXPECT_THAT(errors(), testing::AllOf(SizeIs(2), Each("Assert:No user named '" + std::string(31, 'n') + "'.\n")));
}

TYPED_TEST(Attributes, OfAnIdThatTheUserDoesNotHoldAreNotRead)
{
    add_twin();
    add_twin({.name = "other"});
    TypeParam::insert("other", TypeParam::id(5));
    recording::reset();
    auto record = TypeParam::make("app", TypeParam::id(5));
    const auto before = record;
    EXPECT_EQ(TypeParam::get(&record), -5);
    strings expected = TypeParam::get_lines("app", TypeParam::id(5));
    expected.push_back(line<TypeParam>("error", "attr_get", TypeParam::absent_to_get("app", TypeParam::id(5))));
    EXPECT_EQ(trace(), expected);
    EXPECT_EQ(std::memcmp(&record, &before, sizeof record), 0);
}

TYPED_TEST(Attributes, OfAnIdThatTheUserDoesNotHoldAreNotPublished)
{
    add_twin();
    add_twin({.name = "other"});
    TypeParam::insert("other", TypeParam::id(5));
    recording::reset();
    auto record = TypeParam::make("app", TypeParam::id(5));
    EXPECT_EQ(TypeParam::set(&record), -5);
    EXPECT_THAT(trace(),
                ElementsAre(TypeParam::set_line("app", TypeParam::id(5)),
                            line<TypeParam>("error", "attr_set", TypeParam::absent_to_set("app", TypeParam::id(5)))));
    EXPECT_EQ(TypeParam::held("app", TypeParam::id(5)), nullptr);
}

TYPED_TEST(Attributes, OfTheseTypesNeedNoRequestOfTheUsersOwn)
{
    for (const uint32_t type : TypeParam::verified_types) {
        for (const auto &work : {TypeParam::get, TypeParam::set}) {
            const std::string name = format("app %u %d", type, work == TypeParam::get);
            add_twin({.name = name.c_str()});
            auto record = TypeParam::make(name.c_str(), id_of(type, 7));
            EXPECT_EQ(work(&record), 0) << name;
            EXPECT_NE(TypeParam::held(name.c_str(), id_of(type, 7)), nullptr) << name;
            EXPECT_THAT(errors(), IsEmpty()) << name;
        }
    }
}

TYPED_TEST(Attributes, OfAllOtherTypesNeedIt)
{
    add_twin();
    for (const uint32_t type : TypeParam::own_types) {
        auto record = TypeParam::make("app", id_of(type, 7));
        EXPECT_EQ(TypeParam::get(&record), -5) << type;
        EXPECT_EQ(TypeParam::set(&record), -5) << type;
        EXPECT_EQ(TypeParam::held("app", id_of(type, 7)), nullptr) << type;
    }
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TYPED_TEST(Attributes, WithoutMemoryToVerifyAreNeitherReadNorPublished)
{
    add_twin();
    auto record = TypeParam::make("app", id_of(TypeParam::verified_types[0], 7));
    const uint32_t id = record.*TypeParam::id_in;
    for (const auto &[work, absent] :
         {std::pair(TypeParam::get, &TypeParam::absent_to_get), std::pair(TypeParam::set, &TypeParam::absent_to_set)}) {
        recording::reset();
        recording::fail_allocation(1, true);
        EXPECT_EQ(work(&record), -5);
        recording::fail_allocation(0);
        EXPECT_THAT(errors(), ElementsAre(TypeParam::no_room("app", id), absent("app", id)));
        EXPECT_THAT(recording::calls(), IsEmpty());
    }
}

// ---- what both do alike

TYPED_TEST(Attributes, AreReadWithoutTheStore)
{
    add_twin();
    TypeParam::insert("app", TypeParam::id(5))->attr_flags = 0x5a5a5a5a;
    recording::reset();
    auto record = TypeParam::make("app", TypeParam::id(5));
    EXPECT_EQ(TypeParam::get(&record), 0);
    EXPECT_EQ(trace(), TypeParam::get_lines("app", TypeParam::id(5)));
    EXPECT_EQ(record.attr_flags, 0x5a5a5a5au);
    EXPECT_STREQ(record.user_name, "app");
    EXPECT_EQ(record.*TypeParam::id_in, TypeParam::id(5));
}

TYPED_TEST(Attributes, AreWrittenOnceToTheUsersAttributeDatabase)
{
    add_twin();
    TypeParam::insert("app", TypeParam::id(5));
    recording::reset();
    auto record = TypeParam::make("app", TypeParam::id(5));
    EXPECT_EQ(TypeParam::set(&record), 0);
    ASSERT_EQ(recording::calls().size(), 1u);
    const recording::call &made = recording::calls()[0];
    EXPECT_EQ(made.function, "qz_mom_set");
    EXPECT_EQ(made.handle, recording::other_handle());
    EXPECT_EQ(made.db, TypeParam::attr_db);
    EXPECT_EQ(made.callback, nullptr);
    EXPECT_EQ(made.args, nullptr);
    EXPECT_EQ(trace().front(), TypeParam::set_line("app", TypeParam::id(5)));
}

TYPED_TEST(Attributes, ThatWereSetAreReadBack)
{
    add_twin();
    TypeParam::insert("app", TypeParam::id(5));
    auto record = TypeParam::make("app", TypeParam::id(5));
    std::memset(&record.attr.overlay, 0x11, sizeof record.attr.overlay);
    record.attr_flags = 3;
    EXPECT_EQ(TypeParam::set(&record), 0);
    auto copy = TypeParam::make("app", TypeParam::id(5));
    EXPECT_EQ(TypeParam::get(&copy), 0);
    EXPECT_EQ(copy.attr_flags, 3u);
    EXPECT_EQ(std::memcmp(&copy.attr.overlay, &record.attr.overlay, sizeof record.attr.overlay), 0);
}

TYPED_TEST(Attributes, AreTheUsersOwn)
{
    add_twin();
    add_twin({.name = "other"});
    TypeParam::insert("app", TypeParam::id(5));
    TypeParam::insert("other", TypeParam::id(5));
    auto record = TypeParam::make("app", TypeParam::id(5));
    record.attr_flags = 3;
    EXPECT_EQ(TypeParam::set(&record), 0);
    EXPECT_EQ(TypeParam::held("app", TypeParam::id(5))->attr_flags, 3u);
    EXPECT_EQ(TypeParam::held("other", TypeParam::id(5))->attr_flags, 0u);
}

// The local record is then ahead of the store.
TYPED_TEST(Attributes, ThatTheStoreRefusesStayInTheLocalRecord)
{
    add_twin();
    TypeParam::insert("app", TypeParam::id(5));
    recording::set_result("qz_mom_set", -105);
    auto record = TypeParam::make("app", TypeParam::id(5));
    record.attr_flags = 3;
    EXPECT_EQ(TypeParam::set(&record), -105);
    EXPECT_EQ(TypeParam::held("app", TypeParam::id(5))->attr_flags, 3u);
}

TYPED_TEST(Attributes, OfAUserWithTheLongestNameAreItsOwn)
{
    const std::string name(31, 'n');
    add_twin({.name = name.c_str()});
    TypeParam::insert(name.c_str(), TypeParam::id(5));
    auto record = TypeParam::make(name.c_str(), TypeParam::id(5));
    EXPECT_EQ(TypeParam::get(&record), 0);
    EXPECT_EQ(TypeParam::set(&record), 0);
    EXPECT_THAT(recording::calls_of("qz_mom_set").at(0).record, testing::HasSubstr("t_user:\"" + name + "\""));
}

// The member has room for one character more than a name may have.
TYPED_TEST(Attributes, WhoseNameLacksItsEndGoByTheFirst31Characters)
{
    const std::string name(31, 'n');
    add_twin({.name = name.c_str()});
    TypeParam::insert(name.c_str(), TypeParam::id(5))->attr_flags = 3;
    auto record = TypeParam::make(name.c_str(), TypeParam::id(5));
    std::memset(record.user_name, 'n', sizeof record.user_name);
    recording::reset();
    EXPECT_EQ(TypeParam::get(&record), 0);
    EXPECT_EQ(record.attr_flags, 3u);
    EXPECT_EQ(TypeParam::set(&record), 0);
    EXPECT_EQ(trace().at(TypeParam::get_lines("", 0).size()), TypeParam::set_line(name.c_str(), TypeParam::id(5)));
    EXPECT_THAT(recording::calls_of("qz_mom_set").at(0).record, testing::HasSubstr("t_user:\"" + name + "\""));
}

TYPED_TEST(Attributes, OfTheStoredRecordItselfAreReadAndWritten)
{
    add_twin();
    auto *stored = TypeParam::insert("app", TypeParam::id(5));
    stored->attr_flags = 3;
    EXPECT_EQ(TypeParam::set(stored), 0);
    EXPECT_EQ(TypeParam::get(stored), 0);
    EXPECT_EQ(stored->attr_flags, 3u);
}

// ---- evlans: reading

using EvlanAttributes = EvlanTest;

std::string evlan_write(uint32_t id, const std::string &rest)
{
    return format("qz_mom_set 12 u_bridge.evlan{index{t_user:\"app\" evlan_id:%d} type:%u%s}", static_cast<int32_t>(id),
                  id >> 24, rest.c_str());
}

// The preset of a verification reaches no record.
TEST_F(EvlanAttributes, OfAVlanThatNobodyAskedForAreAllZero)
{
    add_twin();
    sw_evlan_attr record;
    std::memset(&record, 0x5a, sizeof record);
    record.attr.underlay.svl = true;
    snprintf(record.user_name, sizeof record.user_name, "app");
    record.evlan_id = vlan_100;
    EXPECT_EQ(sw_evlan_attr_get(&record), 0);
    EXPECT_EQ(record.type, 0u);
    EXPECT_EQ(record.class_id, 0u);
    EXPECT_EQ(record.attr.underlay.fid, 0);
    EXPECT_FALSE(record.attr.underlay.svl);
}

TEST_F(EvlanAttributes, WithPortsAreReadAllTheSame)
{
    add_twin();
    sw_vlan_ports ports{};
    sw_evlan_attr *stored = evlans::insert("app", vlan_100);
    stored->type = vlan;
    stored->attr.underlay.fid = 9;
    stored->ports = &ports;
    sw_evlan_attr record = evlans::make("app", vlan_100);
    EXPECT_EQ(sw_evlan_attr_get(&record), 0);
    EXPECT_EQ(record.attr.underlay.fid, 9);
    EXPECT_EQ(record.ports, nullptr);
    EXPECT_THAT(errors(), ElementsAre("Assert:Unexpect attr."));
    stored->ports = nullptr;
}

// ---- evlans: writing

TEST_F(EvlanAttributes, OfAVlanWithoutFidGetItsNumberInTheCallersStructureToo)
{
    add_twin();
    sw_evlan_attr record = evlans::make("app", vlan_100);
    record.type = vlan;
    record.class_id = 6;
    record.attr.underlay.svl = true;
    EXPECT_EQ(sw_evlan_attr_set(&record), 0);
    EXPECT_THAT(trace(), ElementsAre(evlans::set_line("app", vlan_100),
                                     "info sw_evlan_db_insert_item: Insert user[app].evlan[0x10000064]!",
                                     evlan_write(vlan_100, " class_id:6 underlay{fid:100 svl:1}")));
    EXPECT_EQ(record.attr.underlay.fid, 100);
    EXPECT_EQ(evlans::held("app", vlan_100)->attr.underlay.fid, 100);
}

TEST_F(EvlanAttributes, OfAVlanKeepAFidOfTheirOwn)
{
    add_twin();
    sw_evlan_attr record = evlans::make("app", vlan_100);
    record.type = vlan;
    record.attr.underlay.fid = 9;
    EXPECT_EQ(sw_evlan_attr_set(&record), 0);
    EXPECT_EQ(trace().back(), evlan_write(vlan_100, " underlay{fid:9}"));
    EXPECT_EQ(record.attr.underlay.fid, 9);
}

TEST_F(EvlanAttributes, OfAVlanGetTheirFidEvenWhenNoRecordCanBeMade)
{
    add_twin();
    sw_evlan_attr record = evlans::make("app", vlan_100);
    recording::fail_allocation(1, true);
    EXPECT_EQ(sw_evlan_attr_set(&record), -5);
    recording::fail_allocation(0);
    EXPECT_EQ(record.attr.underlay.fid, 100);
}

// Underlay like a VLAN, but the number is not taken for the fid.
TEST_F(EvlanAttributes, OfASubinterfaceAreUnderlayWithoutDefault)
{
    add_twin();
    const uint32_t id = id_of(l3intf_sub, 100);
    evlans::insert("app", id);
    sw_evlan_attr record = evlans::make("app", id);
    record.type = l3intf_sub;
    EXPECT_EQ(sw_evlan_attr_set(&record), 0);
    EXPECT_EQ(trace().back(), evlan_write(id, " underlay{}"));
    EXPECT_EQ(record.attr.underlay.fid, 0);
    record.attr.underlay.svl = true;
    record.attr.underlay.fid = -7;
    EXPECT_EQ(sw_evlan_attr_set(&record), 0);
    EXPECT_EQ(trace().back(), evlan_write(id, " underlay{fid:-7 svl:1}"));
}

TEST_F(EvlanAttributes, OfAnOverlayTypeAreWrittenFieldByField)
{
    add_twin();
    evlans::insert("app", vxlan_5);
    sw_evlan_attr record = evlans::make("app", vxlan_5);
    record.type = vxlan;
    record.attr_flags = 99;  // is not published
    record.class_id = 6;
    record.attr.overlay = {.vnid = 1,
                           .mcid = 2,
                           .uucid = 3,
                           .bcid = 4,
                           .l3iif = 5,
                           .mapping_vni = 6,
                           .mapping_evlan = INT32_MIN,
                           .ing_flex_cnt_id = 8,
                           .egr_flex_cnt_id = 0xfffffff9};
    EXPECT_EQ(sw_evlan_attr_set(&record), 0);
    EXPECT_EQ(trace().back(), evlan_write(vxlan_5,
                                          " class_id:6 overlay{vnid:1 mcid:2 uucid:3 bcid:4 l3iif:5 mapping_vni:6 "
                                          "mapping_evlan:-2147483648 ing_flex_cnt_id:8 egr_flex_cnt_id:4294967289}"));
    const sw_evlan_attr *stored = evlans::held("app", vxlan_5);
    EXPECT_EQ(sw_evlan_attr_cmp(stored, &record), 0);
}

TEST_F(EvlanAttributes, WithoutAnyValueAreAnEmptyView)
{
    add_twin();
    const uint32_t id = id_of(l3vpn, 5);
    evlans::insert("app", id);
    sw_evlan_attr record = evlans::make("app", id);
    EXPECT_EQ(sw_evlan_attr_set(&record), 0);
    EXPECT_EQ(trace().back(), evlan_write(id, " overlay{}"));
}

// The type in the structure decides what the local record takes, the id what is published, and that from the structure.
TEST_F(EvlanAttributes, GoByTheStructuresTypeIntoTheLocalRecordOnly)
{
    add_twin();
    evlans::insert("app", vxlan_5)->attr.overlay.uucid = 33;
    sw_evlan_attr record = evlans::make("app", vxlan_5);
    record.type = vlan;
    record.attr.overlay.vnid = 1;
    record.attr.overlay.uucid = 3;
    EXPECT_EQ(sw_evlan_attr_set(&record), 0);
    EXPECT_EQ(trace().back(), evlan_write(vxlan_5, " overlay{vnid:1 uucid:3}"));
    EXPECT_EQ(record.type, vlan);
    const sw_evlan_attr *stored = evlans::held("app", vxlan_5);
    EXPECT_EQ(stored->type, vlan);
    EXPECT_EQ(stored->attr.overlay.vnid, 1);
    EXPECT_EQ(stored->attr.overlay.uucid, 33);
}

TEST_F(EvlanAttributes, OfAVlanAreUnderlayWhateverTheStructuresType)
{
    add_twin();
    for (const uint32_t type : {0u, vxlan, l3vpn}) {
        sw_evlan_attr record = evlans::make("app", vlan_100);
        record.type = type;
        record.attr.overlay.uucid = 3;
        EXPECT_EQ(sw_evlan_attr_set(&record), 0);
        EXPECT_EQ(trace().back(), evlan_write(vlan_100, " underlay{fid:100}")) << type;
        EXPECT_EQ(evlans::held("app", vlan_100)->attr.overlay.uucid, 3) << type;
    }
}

TEST_F(EvlanAttributes, WithPortsArePublishedAllTheSame)
{
    add_twin();
    sw_vlan_ports ports{};
    sw_evlan_attr record = evlans::make("app", vlan_100);
    record.type = vlan;
    record.ports = &ports;
    EXPECT_EQ(sw_evlan_attr_set(&record), 0);
    EXPECT_THAT(errors(), ElementsAre("Assert:Unexpect attr."));
    EXPECT_EQ(trace().back(), evlan_write(vlan_100, " underlay{fid:100}"));
}

// The text names another call than the one that failed.
TEST_F(EvlanAttributes, ThatTheStoreRefusesAreLoggedAsAnHmset)
{
    add_twin();
    evlans::insert("app", vxlan_5);
    recording::set_result("qz_mom_set", -105);
    sw_evlan_attr record = evlans::make("app", vxlan_5);
    EXPECT_EQ(sw_evlan_attr_set(&record), -105);
    EXPECT_EQ(trace().back(),
              "error sw_evlan_attr_set: Assert:qz_mom_hmset failed, user: app, evlan_id: 0x20000005, rv: -105.");
    EXPECT_EQ(errors().size(), 1u);
}

// ---- eports: what is published

using EportAttributes = EportTest;
using EportPush = EportTest;

std::string eport_record(uint32_t id, const std::string &rest)
{
    return format("u_bridge.eport{index{t_user:\"app\" eport_id:%d} type:%u%s}", static_cast<int32_t>(id), id >> 24,
                  rest.c_str());
}

// An eport record with its key, as a caller of the push hands it over.
struct keyed_record : UBridge__Eport {
    UBridge__EportIndex key = U_BRIDGE__EPORT_INDEX__INIT;
    explicit keyed_record(uint32_t id) : UBridge__Eport(U_BRIDGE__EPORT__INIT)
    {
        key.t_user = text("app");
        key.eport_id = static_cast<int32_t>(id);
        index = &key;
    }
    keyed_record(const keyed_record &) = delete;
    keyed_record &operator=(const keyed_record &) = delete;
};

// What is written for these attributes.
std::string pushed(const sw_eport_attr &attr)
{
    recording::reset();
    keyed_record record(attr.eport_id);
    EXPECT_EQ(sw_eport_attr_push_udp(recording::handle(), 13, &record, &attr), 0);
    const auto calls = recording::calls_of("qz_mom_set");
    return calls.size() == 1 ? calls[0].record : format("%zu calls", calls.size());
}

TEST_F(EportPush, WritesToTheGivenDatabaseAndSaysNothing)
{
    add_twin();
    const sw_eport_attr attr = eports::make("app", ac_5);
    keyed_record record(ac_5);
    EXPECT_EQ(sw_eport_attr_push_udp(recording::handle(), 7, &record, &attr), 0);
    EXPECT_THAT(trace(), ElementsAre("qz_mom_set 7 " + eport_record(ac_5, " vlan_filter:7 overlay{sip{v4{}}}")));
    const recording::call &made = recording::calls()[0];
    EXPECT_EQ(made.handle, recording::handle());
    EXPECT_EQ(made.callback, nullptr);
    EXPECT_EQ(made.args, nullptr);
    EXPECT_EQ(record.index, &record.key);
}

// What the record points to meanwhile ends with the call.
TEST_F(EportPush, LeavesTypeAndFilterInTheRecordAndNoView)
{
    add_twin();
    for (const uint32_t id : {ac_5, port_3}) {
        const sw_eport_attr attr = eports::make("app", id);
        keyed_record record(id);
        EXPECT_EQ(sw_eport_attr_push_udp(recording::handle(), 7, &record, &attr), 0);
        EXPECT_EQ(record.type, id >> 24);
        EXPECT_EQ(record.vlan_filter, 7u);
        EXPECT_EQ(record.attr_case, U_BRIDGE__EPORT__ATTR__NOT_SET);
        EXPECT_EQ(record.underlay, nullptr);
    }
}

TEST_F(EportPush, RefusesNull)
{
    add_twin();
    const sw_eport_attr attr = eports::make("app", ac_5);
    keyed_record record(ac_5);
    EXPECT_EQ(sw_eport_attr_push_udp(recording::handle(), 13, nullptr, &attr), -2);
    EXPECT_EQ(sw_eport_attr_push_udp(recording::handle(), 13, &record, nullptr), -2);
    EXPECT_THAT(errors(), ElementsAre(StartsWith("Assert:"), StartsWith("Assert:")));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(EportPush, ReportsTheStoresCode)
{
    add_twin();
    recording::set_result("qz_mom_set", -104);
    const sw_eport_attr attr = eports::make("app", ac_5);
    keyed_record record(ac_5);
    EXPECT_EQ(sw_eport_attr_push_udp(recording::handle(), 13, &record, &attr), -104);
    EXPECT_EQ(trace().back(),
              line<eports>("error", "attr_push_udp", "Assert:ATTR of EPORT(0x30000005) push failed, error is -104."));
    EXPECT_EQ(errors().size(), 1u);
}

TEST_F(EportPush, OfUnderlayCarriesTheKeyTypeAndNeverThePvid)
{
    add_twin();
    for (const uint32_t type : {16u, 17u, 32u}) {
        sw_eport_attr attr = eports::make("app", id_of(type, 3));
        std::memset(&attr.attr, 0x11, sizeof attr.attr);
        attr.attr.underlay.pvid = 10;
        attr.attr.underlay.vt_key = 2;
        attr.vlan_filter = 5;
        attr.attr_flags = attr.attr_flags2 = 99;  // are not published
        EXPECT_EQ(pushed(attr), eport_record(attr.eport_id, " vlan_filter:5 underlay{vt_key:2}"));
        attr.attr.underlay.vt_key = 0;
        attr.vlan_filter = 0;
        EXPECT_EQ(pushed(attr), eport_record(attr.eport_id, " underlay{}"));
    }
}

TEST_F(EportPush, OfOverlayCarriesEachFieldUnderItsName)
{
    add_twin();
    sw_eport_attr attr = eports::make("app", ac_5);
    attr.attr.overlay = {.match_vid = 1,
                         .match_port = 2,
                         .nhop = 4,
                         .mpath_flag = 3,
                         .encap = 6,
                         .dip = 0xfffffffb,
                         .peer_mode = 0,
                         .evlan_id = 8,
                         .split_horizon = 10,
                         .mtu = 11,
                         .class_id = 12,
                         .match_inner_vid = 13,
                         .egr_vlan_action = 0x8000000e,
                         .ovid = 15,
                         .ing_flex_cnt_id = 16,
                         .egr_flex_cnt_id = 17,
                         .sip = {},
                         .is_tagged = 255};
    EXPECT_EQ(
        pushed(attr),
        eport_record(ac_5,
                     " vlan_filter:7 overlay{match_vid:1 match_port:2 mpath_flag:3 nhop:4 dip:-5 encap:6 evlan_id:8 "
                     "split_horizon:10 mtu:11 class_id:12 match_inner_vid:13 egr_vlan_action:2147483662 ovid:15 "
                     "ing_flex_cnt_id:16 egr_flex_cnt_id:17 sip{v4{}} is_tagged:255}"));
}

TEST_F(EportPush, SendsThePeerAsEportOrEvlanByItsMode)
{
    add_twin();
    sw_eport_attr attr = eports::make("app", ac_5);
    attr.attr.overlay.evlan_id = 0x20000007;
    EXPECT_EQ(pushed(attr), eport_record(ac_5, " vlan_filter:7 overlay{evlan_id:536870919 sip{v4{}}}"));
    attr.attr.overlay.peer_mode = 1;
    EXPECT_EQ(pushed(attr),
              eport_record(ac_5, " vlan_filter:7 overlay{peer_mode:1 peer_eport_id:536870919 sip{v4{}}}"));
    attr.attr.overlay.peer_mode = 0x80000000;
    EXPECT_EQ(pushed(attr), eport_record(ac_5,
                                         " vlan_filter:7 overlay{peer_mode:-2147483648 "
                                         "peer_eport_id:536870919 sip{v4{}}}"));
}

TEST_F(EportPush, SendsAnIpv4AddressAsItsWordInNetworkOrder)
{
    add_twin();
    sw_eport_attr attr = eports::make("app", ac_5);
    const uint8_t address[] = {10, 1, 2, 200, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1a, 0x1b, 0x1c};
    std::memcpy(attr.attr.overlay.sip.address, address, sizeof address);
    uint32_t word;
    std::memcpy(&word, address, sizeof word);
    EXPECT_EQ(pushed(attr), eport_record(ac_5, format(" vlan_filter:7 overlay{sip{v4{data:%u}}}", word)));
}

TEST_F(EportPush, SendsAnIpv6AddressWhole)
{
    add_twin();
    sw_eport_attr attr = eports::make("app", ac_5);
    for (uint8_t i = 0; i < 16; ++i)
        attr.attr.overlay.sip.address[i] = static_cast<uint8_t>(i * 17);
    for (const uint32_t any : {1u, 2u, 0x80000000u}) {
        attr.attr.overlay.sip.is_ipv6 = any;
        EXPECT_EQ(pushed(attr),
                  eport_record(ac_5, " vlan_filter:7 overlay{sip{v6{data:00112233445566778899aabbccddeeff}}}"));
    }
    std::memset(attr.attr.overlay.sip.address, 0, 16);
    EXPECT_EQ(pushed(attr),
              eport_record(ac_5, " vlan_filter:7 overlay{sip{v6{data:00000000000000000000000000000000}}}"));
}

TEST_F(EportPush, OfAnIdWithTheTopBitHasItsType)
{
    add_twin();
    const sw_eport_attr attr = eports::make("app", id_of(eport_test::l3intf_ac, 5));
    EXPECT_EQ(pushed(attr),
              "u_bridge.eport{index{t_user:\"app\" eport_id:-1879048187} type:144 vlan_filter:7 "
              "overlay{sip{v4{}}}}");
}

// ---- eports: reading and writing

TEST_F(EportAttributes, OfAPortThatNobodyAskedForPassEveryVlan)
{
    add_twin();
    sw_eport_attr record;
    std::memset(&record, 0x5a, sizeof record);
    snprintf(record.user_name, sizeof record.user_name, "app");
    record.eport_id = port_3;
    EXPECT_EQ(sw_eport_attr_get(&record), 0);
    const sw_eport_attr fresh = eports::make("app", port_3);
    EXPECT_EQ(sw_eport_attr_cmp(&record, &fresh), 0);
    EXPECT_EQ(record.vlan_filter, 7u);
}

TEST_F(EportAttributes, ThatAreReadComeWithFilterFlagsAndBitmaps)
{
    add_twin();
    sw_eport_attr *stored = eports::insert("app", port_3);
    std::memset(&stored->attr, 0x11, sizeof stored->attr);
    stored->attr_flags = 1;
    stored->attr_flags2 = 2;
    stored->vlan_filter = 4;
    sw_eport_attr record = eports::make("app", port_3);
    EXPECT_EQ(sw_eport_attr_get(&record), 0);
    EXPECT_EQ(sw_eport_attr_cmp(&record, stored), 0);
}

TEST_F(EportAttributes, ArePublishedFromTheLocalRecord)
{
    add_twin();
    eports::insert("app", ac_5);
    recording::reset();
    sw_eport_attr record = eports::make("app", ac_5);
    record.vlan_filter = 1;
    record.attr.overlay.mtu = 9000;
    EXPECT_EQ(sw_eport_attr_set(&record), 0);
    EXPECT_THAT(trace(), ElementsAre(eports::set_line("app", ac_5),
                                     "qz_mom_set 13 " + eport_record(ac_5,
                                                                     " vlan_filter:1 overlay{mtu:9000 "
                                                                     "sip{v4{}}}")));
    EXPECT_EQ(eports::held("app", ac_5)->attr.overlay.mtu, 9000u);
}

// The pvid stays at home.
TEST_F(EportAttributes, OfAPortKeepThePvidInTheLocalRecordAlone)
{
    add_twin();
    sw_eport_attr record = eports::make("app", port_3);
    record.attr.underlay.pvid = 10;
    record.attr.underlay.vt_key = 1;
    EXPECT_EQ(sw_eport_attr_set(&record), 0);
    EXPECT_EQ(trace().back(), "qz_mom_set 13 " + eport_record(port_3, " vlan_filter:7 underlay{vt_key:1}"));
    EXPECT_EQ(eports::held("app", port_3)->attr.underlay.pvid, 10);
    EXPECT_EQ(record.attr.underlay.pvid, 10);
}

TEST_F(EportAttributes, ThatTheStoreRefusesAreLoggedByBothSteps)
{
    add_twin();
    eports::insert("app", ac_5);
    recording::reset();
    recording::set_result("qz_mom_set", -105);
    sw_eport_attr record = eports::make("app", ac_5);
    EXPECT_EQ(sw_eport_attr_set(&record), -105);
    EXPECT_THAT(
        trace(),
        ElementsAre(
            eports::set_line("app", ac_5), StartsWith("qz_mom_set 13 "),
            line<eports>("error", "attr_push_udp", "Assert:ATTR of EPORT(0x30000005) push failed, error is -105."),
            line<eports>("error", "attr_set", "Assert:user[app].eport[0x30000005] publish failed, error is -105.")));
}

// ---- eports: withdrawing

using EportWithdrawal = EportTest;

std::string eport_removal(const char *user, uint32_t id)
{
    return format("qz_mom_del 13 u_bridge.eport{index{t_user:\"%s\" eport_id:%d}}", user, static_cast<int32_t>(id));
}

TEST_F(EportWithdrawal, RefusesNull)
{
    add_twin();
    EXPECT_EQ(sw_eport_attr_del(nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre(line<eports>("error", "attr_del", "Assert:Bad arg: NULL.")));
}

TEST_F(EportWithdrawal, RefusesAnUnknownUser)
{
    add_twin();
    sw_eport_attr record = eports::make("nobody", port_3);
    EXPECT_EQ(sw_eport_attr_del(&record), -2);
    EXPECT_THAT(trace(), ElementsAre(line<eports>("error", "attr_del", no_such_user)));
}

TEST_F(EportWithdrawal, RemovesTheRecordAndTheLocalOne)
{
    add_twin();
    add_twin({.name = "other"});
    eports::insert("app", ac_5);
    eports::insert("other", ac_5);
    recording::reset();
    sw_eport_attr record = eports::make("app", ac_5);
    record.attr.overlay.mtu = 9000;  // only the key counts
    EXPECT_EQ(sw_eport_attr_del(&record), 0);
    EXPECT_THAT(trace(),
                ElementsAre(eport_removal("app", ac_5),
                            line<eports>("info", "db_delete_item", "Remove user[app].eport[0x30000005]."),
                            line<eports>("info", "attr_del", "eport attr del success user[app].eport[0x30000005]")));
    EXPECT_EQ(recording::calls()[0].callback, nullptr);
    EXPECT_EQ(recording::calls()[0].args, nullptr);
    EXPECT_EQ(eports::held("app", ac_5), nullptr);
    EXPECT_NE(eports::held("other", ac_5), nullptr);
    EXPECT_EQ(record.attr.overlay.mtu, 9000u);
}

TEST_F(EportWithdrawal, UsesTheUsersHandle)
{
    add_twin();
    eports::insert("app", ac_5);
    sw_eport_attr record = eports::make("app", ac_5);
    EXPECT_EQ(sw_eport_attr_del(&record), 0);
    EXPECT_EQ(recording::calls_of("qz_mom_del").at(0).handle, recording::other_handle());
}

// Reading such a port's attributes would make a record for it.
TEST_F(EportWithdrawal, OfAPortThatTheUserDoesNotHoldIsRefusedWhateverItsType)
{
    add_twin();
    for (const uint32_t type : {16u, 17u, 32u, ac}) {
        recording::reset();
        sw_eport_attr record = eports::make("app", id_of(type, 3));
        EXPECT_EQ(sw_eport_attr_del(&record), -5);
        EXPECT_THAT(trace(),
                    ElementsAre(line<eports>("error", "attr_del",
                                             format("Assert:user[app].eport[0x%x] not exsit.", record.eport_id))));
        EXPECT_EQ(eports::held("app", record.eport_id), nullptr);
    }
}

TEST_F(EportWithdrawal, OfAPortThatVerificationMadeSucceeds)
{
    add_twin();
    sw_eport_attr record = eports::make("app", port_3);
    EXPECT_EQ(sw_eport_attr_get(&record), 0);
    EXPECT_EQ(sw_eport_attr_del(&record), 0);
    EXPECT_EQ(sw_eport_attr_del(&record), -5);
}

TEST_F(EportWithdrawal, ThatTheStoreRefusesStillRemovesTheLocalRecord)
{
    add_twin();
    eports::insert("app", ac_5);
    recording::reset();
    recording::set_result("qz_mom_del", -105);
    sw_eport_attr record = eports::make("app", ac_5);
    EXPECT_EQ(sw_eport_attr_del(&record), -105);
    EXPECT_THAT(trace(),
                ElementsAre(eport_removal("app", ac_5),
                            line<eports>("error", "attr_del",
                                         "Assert:user[app].eport[0x30000005] publish failed, error is -105."),
                            line<eports>("info", "db_delete_item", "Remove user[app].eport[0x30000005]."),
                            line<eports>("info", "attr_del", "eport attr del success user[app].eport[0x30000005]")));
    EXPECT_EQ(eports::held("app", ac_5), nullptr);
}

// The structure may be the stored record, which is freed on the way: here nothing of it is left then.
TEST_F(EportWithdrawal, OfTheStoredRecordItselfNamesItToTheEnd)
{
    add_twin();
    static sw_eport_attr *stored;
    stored = eports::insert("app", ac_5);
    recording::reset();
    recording::on_free([](void *block) {
        if (block == stored)
            std::memset(block, 0x5a, sizeof *stored);
    });
    EXPECT_EQ(sw_eport_attr_del(stored), 0);
    EXPECT_THAT(trace(),
                ElementsAre(eport_removal("app", ac_5),
                            line<eports>("info", "db_delete_item", "Remove user[app].eport[0x30000005]."),
                            line<eports>("info", "attr_del", "eport attr del success user[app].eport[0x30000005]")));
}

TEST_F(EportWithdrawal, OfANameThatLacksItsEndGoesByTheFirst31Characters)
{
    const std::string name(31, 'n');
    add_twin({.name = name.c_str()});
    eports::insert(name.c_str(), ac_5);
    recording::reset();
    sw_eport_attr record = eports::make(name.c_str(), ac_5);
    std::memset(record.user_name, 'n', sizeof record.user_name);
    EXPECT_EQ(sw_eport_attr_del(&record), 0);
    EXPECT_EQ(trace().front(), eport_removal(name.c_str(), ac_5));
    EXPECT_EQ(trace().back(),
              line<eports>("info", "attr_del", "eport attr del success user[" + name + "].eport[0x30000005]"));
}

TEST_F(EportWithdrawal, LeavesTheIndexMapAlone)
{
    add_twin();
    eports::request("app", 5);
    eports::grant("app", 5);
    sw_eport_attr record = eports::make("app", ac_5);
    EXPECT_EQ(sw_eport_attr_del(&record), 0);
    ASSERT_NE(eports::item(5), nullptr);
    EXPECT_EQ(eports::item(5)->value[0], ac_5);
}

}  // namespace
