// The dumps of evlans, as whole texts.
#include "evlan_fixture.hpp"

namespace
{

using namespace evlan_test;
using EvlanAttrDump = EvlanTest;
using EvlanMapDump = EvlanTest;
using EvlanDbDump = EvlanTest;

const std::string attr_line = dashes(81);
const std::string map_line = dashes(100);

std::string attr_header(int type, uint32_t id)
{
    return format("\n========== <evlan attr db, input evlan_type: %d, evlan_id: 0x%x> =============\n", type, id);
}

std::string sda_header(int type, uint32_t id)
{
    return format("\n========== <sda evlan attr db, input evlan_type: %d, evlan_id: 0x%x> =============\n", type, id);
}

std::string user_heading(const std::string &name)
{
    return format("====================== user: %-10s ======================\n", name.c_str());
}

std::string total(uint32_t count) { return attr_line + format("total count: %u\n", count); }

// A record without attributes.
std::string blank_record(const std::string &name, uint32_t id)
{
    const bool underlay = sw_evlan_id_underlay(id) != 0;
    return format("%s, 0x%x, type:0, ClassID:0, ", name.c_str(), id) +
           (underlay ? "SVL:false, FID:0."
                     : "VNID:0, MCID:0, UUCID:0, BCID:0, L3IIF:0, MAPPING_VNI:0, MAPPING_EVLAN:0x0, "
                       "ing_flex_cnt_id: 0, egr_flex_cnt_id: 0.") +
           "\n" + attr_line;
}

// ---- one record of the local database

TEST_F(EvlanAttrDump, PrintsUnderlayByItsId)
{
    sw_evlan_attr record{};
    sw_evlan_init(&record, "app", 0x70000005);
    record.type = 32;
    record.class_id = 0xabc;
    record.attr.underlay.fid = -5;
    record.attr.underlay.svl = true;
    sw_ebridge_dump_args args{};
    EXPECT_EQ(sw_evlan_attr_db_ut_dump_op(&record, &args, 0), 0);
    EXPECT_EQ(take_printed(), "app, 0x70000005, type:32, ClassID:abc, SVL:true, FID:-5.\n" + attr_line);
    EXPECT_EQ(args.count, 1u);
}

TEST_F(EvlanAttrDump, PrintsAnySvlButZeroAsTrue)
{
    sw_evlan_attr record{};
    sw_evlan_init(&record, "app", 0x10000005);
    std::memset(&record.attr.underlay.svl, 2, 1);
    sw_ebridge_dump_args args{};
    EXPECT_EQ(sw_evlan_attr_db_ut_dump_op(&record, &args, 0), 0);
    EXPECT_EQ(take_printed(), "app, 0x10000005, type:0, ClassID:0, SVL:true, FID:0.\n" + attr_line);
}

TEST_F(EvlanAttrDump, PrintsOverlayByItsId)
{
    sw_evlan_attr record{};
    sw_evlan_init(&record, "app", 0x80000005);
    record.type = 16;
    record.attr.overlay = {11, -12, 13, 14, 15, 16, 0x70, 0xfffffff8, 19};
    sw_ebridge_dump_args args{};
    EXPECT_EQ(sw_evlan_attr_db_ut_dump_op(&record, &args, 0), 0);
    EXPECT_EQ(take_printed(),
              "app, 0x80000005, type:16, ClassID:0, VNID:11, MCID:-12, UUCID:13, BCID:14, L3IIF:15, MAPPING_VNI:16, "
              "MAPPING_EVLAN:0x70, ing_flex_cnt_id: 4294967288, egr_flex_cnt_id: 19.\n" +
                  attr_line);
    EXPECT_EQ(args.count, 1u);
}

TEST_F(EvlanAttrDump, PrintsPortsFromTheHighestWordDown)
{
    sw_vlan_ports ports{};
    ports.port[16] = 0x80000000;
    ports.port[0] = 0x3;
    ports.untag_port[1] = 0x10;
    ports.flooding_port[2] = 0x20;
    ports.apport[7] = 0x1;
    ports.untag_apport[6] = 0x2;
    ports.flooding_apport[5] = 0x4;
    sw_evlan_attr record{};
    sw_evlan_init(&record, "app", 0x10000005);
    record.ports = &ports;
    sw_ebridge_dump_args args{};
    EXPECT_EQ(sw_evlan_attr_db_ut_dump_op(&record, &args, 0), 0);
    EXPECT_EQ(take_printed(),
              "app, 0x10000005, type:0, ClassID:0, SVL:false, FID:0.\n"
              "vlan port: bmp[16]:0x80000000(pos:543-512), bmp[0]:0x00000003(pos:31-0), \n"
              "vlan untag port: bmp[1]:0x00000010(pos:63-32), \n"
              "vlan flooding port: bmp[2]:0x00000020(pos:95-64), \n"
              "vlan apport: bmp[7]:0x00000001(pos:255-224), \n"
              "vlan untag apport: bmp[6]:0x00000002(pos:223-192), \n"
              "vlan flooding apport: bmp[5]:0x00000004(pos:191-160), \n" +
                  attr_line);
}

TEST_F(EvlanAttrDump, PrintsEmptyPortsAsLabels)
{
    sw_vlan_ports ports{};
    sw_evlan_attr record{};
    sw_evlan_init(&record, "app", 0x10000005);
    record.ports = &ports;
    sw_ebridge_dump_args args{};
    sw_evlan_attr_db_ut_dump_op(&record, &args, 0);
    EXPECT_EQ(take_printed(),
              "app, 0x10000005, type:0, ClassID:0, SVL:false, FID:0.\n"
              "vlan port: \nvlan untag port: \nvlan flooding port: \n"
              "vlan apport: \nvlan untag apport: \nvlan flooding apport: \n" +
                  attr_line);
}

TEST_F(EvlanAttrDump, FiltersByTypeIdAndUser)
{
    sw_evlan_attr record{};
    sw_evlan_init(&record, "app", 0x80000005);
    const auto passes = [&](uint32_t type, uint32_t id, const char *name) {
        sw_ebridge_dump_args args{};
        args.type = type;
        args.id = id;
        args.user_name = name;
        args.count = 7;
        EXPECT_EQ(sw_evlan_attr_db_ut_dump_op(&record, &args, 0), 0);
        EXPECT_EQ(take_printed().empty(), args.count == 7);
        return args.count == 8;
    };
    EXPECT_TRUE(passes(0, 0, nullptr));
    EXPECT_TRUE(passes(128, 0x80000005, "app"));
    EXPECT_FALSE(passes(32, 0, nullptr));
    EXPECT_FALSE(passes(0, 0x80000006, nullptr));
    EXPECT_FALSE(passes(0, 5, nullptr));
    EXPECT_FALSE(passes(0, 0, "ap"));
    EXPECT_FALSE(passes(0, 0, "app2"));
    EXPECT_FALSE(passes(0, 0, ""));
}

TEST_F(EvlanAttrDump, GoesOnAfterNull)
{
    add_user({.name = "app"});
    sw_evlan_attr record{};
    sw_ebridge_dump_args args{};
    EXPECT_EQ(sw_evlan_attr_db_ut_dump_op(nullptr, &args, 0), 0);
    EXPECT_EQ(sw_evlan_attr_db_ut_dump_op(&record, nullptr, 0), 0);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_attr_db_ut_dump_op: Assert:Bad evlan.",
                                     "error sw_evlan_attr_db_ut_dump_op: Assert:Bad dump args."));
    EXPECT_EQ(take_printed(), "");
}

// ---- the local database

TEST_F(EvlanAttrDump, WithoutUsersPrintsTheHeader)
{
    EXPECT_EQ(printed_by([] { return sw_evlan_attr_db_ut_dump(16, 0x10000005); }), attr_header(16, 0x10000005));
    EXPECT_EQ(printed_by([] { return sda_evlan_attr_db_ut_dump(-1, 0); }), sda_header(-1, 0));
}

TEST_F(EvlanAttrDump, PrintsEachUsersRecordsOfAllSlotsWithATotal)
{
    add_user({.name = "a"});
    add_user({.name = "long-name-here"});
    for (const uint32_t slot : {1u, 5u})
        add_user_in_slot(slot, "a");
    insert("a", 0x10000005);
    insert("a", 0x20000006, 1);
    insert("a", 0x20000007, 5);
    insert("long-name-here", 0x10000005);
    std::string expected = attr_header(0, 0);
    for (const std::string &name : registry_order()) {
        expected += user_heading(name) + blank_record(name, 0x10000005);
        if (name == "a")
            expected += blank_record(name, 0x20000006) + blank_record(name, 0x20000007);
        expected += total(name == "a" ? 3 : 1);
    }
    EXPECT_EQ(printed_by([] { return sw_evlan_attr_db_ut_dump(0, 0); }), expected);
}

TEST_F(EvlanAttrDump, TakesTheFiltersGiven)
{
    add_user({.name = "a"});
    insert("a", 0x10000005);
    insert("a", 0x20000005);
    const auto expect_filters = [](auto dump, auto header) {
        EXPECT_EQ(printed_by([=] { return dump(32, 0); }),
                  header(32, 0) + user_heading("a") + blank_record("a", 0x20000005) + total(1));
        EXPECT_EQ(printed_by([=] { return dump(0, 0x10000005); }),
                  header(0, 0x10000005) + user_heading("a") + blank_record("a", 0x10000005) + total(1));
        EXPECT_EQ(printed_by([=] { return dump(48, 0x10000005); }),
                  header(48, 0x10000005) + user_heading("a") + total(0));
    };
    expect_filters(sw_evlan_attr_db_ut_dump, attr_header);
    expect_filters(sda_evlan_attr_db_ut_dump, sda_header);
}

TEST_F(EvlanAttrDump, OfTheDataPlaneGoesThroughTheUsersOfAllSlots)
{
    add_user({.name = "a"});
    add_user_in_slot(2, "chip");
    add_user_in_slot(5, "a");
    insert("a", 0x20000006);
    insert("chip", 0x20000007, 2);
    const std::string of_a = user_heading("a") + blank_record("a", 0x20000006) + total(1);
    EXPECT_EQ(printed_by([] { return sda_evlan_attr_db_ut_dump(0, 0); }),
              sda_header(0, 0) + of_a + user_heading("chip") + blank_record("chip", 0x20000007) + total(1) + of_a);
}

TEST_F(EvlanAttrDump, OfOneVlanPrintsEveryUsersRecordsUnderEachHeading)
{
    add_user({.name = "a"});
    add_user({.name = "b"});
    add_user_in_slot(3, "a");
    insert("a", 0x10000005);
    insert("b", 0x10000006);
    insert("b", 0x20000005);
    insert("a", 0x10000005, 3);
    std::string expected = "========== <evlan attr db, input vlan_id: 5> =============\n";
    for (const std::string &name : registry_order())
        expected += format("======= user: %-10s ======================\n", name.c_str()) +
                    blank_record("a", 0x10000005) + blank_record("a", 0x10000005);
    EXPECT_EQ(printed_by([] { return sw_vlan_attr_db_ut_dump(5); }), expected);
}

TEST_F(EvlanAttrDump, OfAVlanOutOfRangePrintsAllInTheOrderOfTheirNumbers)
{
    add_user({.name = "a"});
    add_user_in_slot(3, "a");
    for (const uint32_t number : {4094u, 1u, 77u, 4095u, 0u})
        insert("a", 0x10000000 | number);
    insert("a", 0x10000001, 3);
    const std::string records = "======= user: a          ======================\n" + blank_record("a", 0x10000001) +
                                blank_record("a", 0x10000001) + blank_record("a", 0x1000004d) +
                                blank_record("a", 0x10000ffe);
    for (const int vid : {0, -1, 4095, 5000})
        EXPECT_EQ(printed_by([=] { return sw_vlan_attr_db_ut_dump(vid); }),
                  format("========== <evlan attr db, input vlan_id: %d> =============\n", vid) + records);
}

TEST_F(EvlanAttrDump, OfTheFirstAndTheLastVlanPrintsThatOne)
{
    add_user({.name = "a"});
    for (const uint32_t number : {0u, 1u, 2u, 4093u, 4094u, 4095u})
        insert("a", 0x10000000 | number);
    for (const int vid : {1, 4094})
        EXPECT_EQ(printed_by([=] { return sw_vlan_attr_db_ut_dump(vid); }),
                  format("========== <evlan attr db, input vlan_id: %d> =============\n", vid) +
                      "======= user: a          ======================\n" +
                      blank_record("a", 0x10000000 | static_cast<uint32_t>(vid)));
}

// ---- one item of the index map

struct of_kind {
    sw_evlan_index_map item;
    std::string line;
};

std::vector<of_kind> items_of_all_kinds()
{
    std::vector<of_kind> all(4);
    all[0].item = map_key(SW_INDEX_MAP_APP2UDP, 128, 7);
    all[0].item.value[0] = 0x80000005;
    all[0].item.ds_flag = 3;
    all[0].line = "EVLAN Index map for app, appIndex[0x7] map to UDPIndex[0x80000005], ds_flag[3]\n";
    all[1].item = map_key(SW_INDEX_MAP_UDP2APP, 0x80000005);
    all[1].item.value[0] = 128;
    all[1].item.value[1] = 7;
    all[1].line = "EVLAN Index map for app, UDPIndex[0x80000005] map to appIndex[0x7].\n";
    all[2].item = map_key(SW_INDEX_MAP_UDP2SDK, 0x80000005);
    all[2].item.value[0] = 1;
    all[2].item.value[1] = 0x2a;
    all[2].item.value[2] = 0x3b;
    all[2].line = "EVLAN Index map for app, UDPIndex[0x80000005] map to SDKIndex[type(1), vsi(0x2a), vid(0x3b)].\n";
    all[3].item = map_key(SW_INDEX_MAP_SDK2UDP, 1, 0x2a, 0x3b);
    all[3].item.value[0] = 0x80000005;
    all[3].line = "EVLAN Index map for app, SDKIndex[type(1), vsi(0x2a), vid(0x3b)] map to UDPIndex[0x80000005].\n";
    for (of_kind &one : all)
        std::strcpy(one.item.user_name, "app");
    return all;
}

TEST_F(EvlanMapDump, PrintsEachKindInItsFormat)
{
    for (of_kind &one : items_of_all_kinds()) {
        sw_ebridge_dump_args args{};
        EXPECT_EQ(sw_evlan_index_map_dump_op(&one.item, &args, 0), 0);
        EXPECT_EQ(take_printed(), map_line + one.line);
        EXPECT_EQ(args.count, 1u);
    }
}

TEST_F(EvlanMapDump, FiltersByTheUdpIndexOfEachKind)
{
    for (of_kind &one : items_of_all_kinds()) {
        const auto passes = [&](uint32_t type, uint32_t id) {
            sw_ebridge_dump_args args{};
            args.type = type;
            args.id = id;
            EXPECT_EQ(sw_evlan_index_map_dump_op(&one.item, &args, 0), 0);
            EXPECT_EQ(take_printed().empty(), args.count == 0);
            return args.count == 1;
        };
        EXPECT_TRUE(passes(128, 0));
        EXPECT_TRUE(passes(0, 0x80000005));
        EXPECT_TRUE(passes(128, 0x80000005));
        EXPECT_FALSE(passes(1, 0));
        EXPECT_FALSE(passes(0, 128));
        EXPECT_FALSE(passes(0, 7));
        EXPECT_FALSE(passes(128, 0x80000006));
    }
}

TEST_F(EvlanMapDump, AnUnknownKindHasUdpIndex0AndNoText)
{
    sw_evlan_index_map item = map_key(4, 0x80000005);
    item.value[0] = 0x80000005;
    sw_ebridge_dump_args args{};
    EXPECT_EQ(sw_evlan_index_map_dump_op(&item, &args, 0), 0);
    EXPECT_EQ(take_printed(), map_line);
    EXPECT_EQ(args.count, 1u);
    args.type = 128;
    EXPECT_EQ(sw_evlan_index_map_dump_op(&item, &args, 0), 0);
    EXPECT_EQ(take_printed(), "");
}

TEST_F(EvlanMapDump, GoesOnAfterNull)
{
    add_user({.name = "app"});
    sw_evlan_index_map item{};
    sw_ebridge_dump_args args{};
    EXPECT_EQ(sw_evlan_index_map_dump_op(nullptr, &args, 0), 0);
    EXPECT_EQ(sw_evlan_index_map_dump_op(&item, nullptr, 0), 0);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_index_map_dump_op: Assert:Bad evlan index.",
                                     "error sw_evlan_index_map_dump_op: Assert:Bad evlan index args."));
    EXPECT_EQ(take_printed(), "");
}

// ---- the index map

std::string map_header(uint32_t type, uint32_t id)
{
    return format("\n========== <evlan index map db, input type: 0x%x, id: 0x%x> =============\n", type, id);
}

std::string vlan_header(int vid)
{
    return format("\n========== <evlan index map db, input vlan_id: %d> =============\n", vid);
}

std::string count_of_slot(uint32_t slot, uint32_t count)
{
    return map_line + format("total count of instance(%u) is %u.\n", slot, count);
}

void add_reverse(uint32_t slot, uint32_t id, uint32_t keyid)
{
    sw_evlan_index_map item = map_key(SW_INDEX_MAP_UDP2APP, id);
    item.value[0] = id >> 24;
    item.value[1] = keyid;
    std::strcpy(item.user_name, "app");
    EXPECT_NE(sw_evlan_index_map_create_item(slot, &item), nullptr);
}

std::string reverse(uint32_t id, uint32_t keyid)
{
    return map_line + format("EVLAN Index map for app, UDPIndex[0x%x] map to appIndex[0x%x].\n", id, keyid);
}

TEST_F(EvlanMapDump, CountsOnThroughTheSlots)
{
    add_user({.name = "app"});
    add_reverse(0, 0x20000001, 11);
    add_reverse(2, 0x80000002, 12);
    add_reverse(5, 0x20000003, 13);
    EXPECT_EQ(printed_by([] { return sw_evlan_res_db_ut_dump(0, 0); }),
              map_header(0, 0) + reverse(0x20000001, 11) + count_of_slot(0, 1) + count_of_slot(1, 1) +
                  reverse(0x80000002, 12) + count_of_slot(2, 2) + count_of_slot(3, 2) + count_of_slot(4, 2) +
                  reverse(0x20000003, 13) + count_of_slot(5, 3));
    EXPECT_EQ(printed_by([] { return sw_evlan_res_db_ut_dump(128, 0); }),
              map_header(128, 0) + count_of_slot(0, 0) + count_of_slot(1, 0) + reverse(0x80000002, 12) +
                  count_of_slot(2, 1) + count_of_slot(3, 1) + count_of_slot(4, 1) + count_of_slot(5, 1));
    EXPECT_EQ(printed_by([] { return sw_evlan_res_db_ut_dump(32, 0x20000003); }),
              map_header(32, 0x20000003) + count_of_slot(0, 0) + count_of_slot(1, 0) + count_of_slot(2, 0) +
                  count_of_slot(3, 0) + count_of_slot(4, 0) + reverse(0x20000003, 13) + count_of_slot(5, 1));
}

TEST_F(EvlanMapDump, WithoutTablesPrintsTheHeader)
{
    EXPECT_EQ(printed_by([] { return sw_evlan_res_db_ut_dump(0, 0); }), map_header(0, 0));
    for (const int vid : {0, 1, 5, 4094})
        EXPECT_EQ(printed_by([=] { return sw_vlan_res_db_ut_dump(vid); }), vlan_header(vid));
}

TEST_F(EvlanMapDump, OfAllVlansPrintsSlot0InTheOrderOfTheirNumbers)
{
    add_user({.name = "app"});
    for (const uint32_t number : {4094u, 1u, 77u, 4095u, 0u})
        add_reverse(0, 0x10000000 | number, number);
    add_reverse(0, 0x20000001, 1);
    add_reverse(1, 0x10000001, 1);
    EXPECT_EQ(printed_by([] { return sw_vlan_res_db_ut_dump(0); }),
              vlan_header(0) + reverse(0x10000001, 1) + reverse(0x1000004d, 77) + reverse(0x10000ffe, 4094) +
                  count_of_slot(0, 3));
}

TEST_F(EvlanMapDump, OfOneVlanStepsToTheNextNumberWithEachSlot)
{
    add_user({.name = "app"});
    for (uint32_t slot = 0; slot < SW_EBRIDGE_SLOTS; ++slot)
        for (uint32_t number = 5; number <= 10; ++number)
            add_reverse(slot, 0x10000000 | number, 100 + slot);
    std::string expected = vlan_header(5);
    for (uint32_t slot = 0; slot < SW_EBRIDGE_SLOTS; ++slot)
        expected += reverse(0x10000005 + slot, 100 + slot) + count_of_slot(slot, slot + 1);
    EXPECT_EQ(printed_by([] { return sw_vlan_res_db_ut_dump(5); }), expected);
}

TEST_F(EvlanMapDump, OfTheLastVlansStopsAt4094)
{
    add_user({.name = "app"});
    add_reverse(0, 0x10000000 | 4093, 1);
    add_reverse(2, 0x10000000 | 4095, 2);
    EXPECT_EQ(printed_by([] { return sw_vlan_res_db_ut_dump(4093); }),
              vlan_header(4093) + reverse(0x10000ffd, 1) + count_of_slot(0, 1) + count_of_slot(1, 1));
    EXPECT_EQ(printed_by([] { return sw_vlan_res_db_ut_dump(4094); }), vlan_header(4094) + count_of_slot(0, 0));
}

TEST_F(EvlanMapDump, OfAnImpossibleVlanPrintsTheHeaderOnly)
{
    add_user({.name = "app"});
    add_reverse(0, 0x10000000 | 4095, 1);
    for (const int vid : {4095, 5000, INT32_MAX, -1, INT32_MIN})
        EXPECT_EQ(printed_by([=] { return sw_vlan_res_db_ut_dump(vid); }), vlan_header(vid));
}

// ---- both together

TEST_F(EvlanDbDump, PrintsTheLocalDatabaseTheIndexMapOrBoth)
{
    add_user({.name = "app"});
    insert("app", 0x20000005);
    add_reverse(0, 0x20000005, 7);
    const std::string attributes = printed_by([] { return sw_evlan_attr_db_ut_dump(32, 0x20000005); });
    const std::string map = printed_by([] { return sw_evlan_res_db_ut_dump(32, 0x20000005); });
    EXPECT_EQ(printed_by([] { return sw_evlan_db_ut_dump(1, 32, 0x20000005); }), attributes);
    EXPECT_EQ(printed_by([] { return sw_evlan_db_ut_dump(2, 32, 0x20000005); }), map);
    EXPECT_EQ(printed_by([] { return sw_evlan_db_ut_dump(0, 32, 0x20000005); }), attributes + map);
}

TEST_F(EvlanDbDump, OfVlansPrintsTheLocalDatabaseTheIndexMapOrBoth)
{
    add_user({.name = "app"});
    insert("app", 0x10000005);
    add_reverse(0, 0x10000005, 7);
    const std::string attributes = printed_by([] { return sw_vlan_attr_db_ut_dump(5); });
    const std::string map = printed_by([] { return sw_vlan_res_db_ut_dump(5); });
    EXPECT_EQ(printed_by([] { return sw_vlan_db_ut_dump(1, 5); }), attributes);
    EXPECT_EQ(printed_by([] { return sw_vlan_db_ut_dump(2, 5); }), map);
    EXPECT_EQ(printed_by([] { return sw_vlan_db_ut_dump(0, 5); }), attributes + map);
}

}  // namespace
