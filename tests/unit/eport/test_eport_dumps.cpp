// The dump of the eport index map, as whole texts.
#include "eport_fixture.hpp"

namespace
{

using namespace eport_test;
using EportMapDump = EportTest;

const std::string map_line = dashes(100);

// ---- one item

struct of_kind {
    sw_eport_index_map item;
    std::string line;
};

std::vector<of_kind> items_of_all_kinds()
{
    std::vector<of_kind> all(4);
    all[0].item = app_to_udp("app", l3intf_ac, 7, 8, 0x90000005);
    all[0].item.ds_flag = 3;
    all[0].line = "EPORT Index map for app, appIndex is 0x7+0x8, UDPIndex is 0x90000005 ds_flag:3.\n";
    all[1].item = udp_to_app("app", 0x90000005, l3intf_ac, 7, 8);
    all[1].line = "EPORT Index map for app, UDPIndex is 0x90000005, appIndex is 0x7+0x8.\n";
    all[2].item = map_key(SW_INDEX_MAP_UDP2SDK, 0x90000005);
    all[2].item.value[0] = 1;
    all[2].item.value[1] = 0x2a;
    all[2].line = "EPORT Index map for app, UDPIndex is 0x90000005, SDKIndex is 0x1 + 0x2a.\n";
    all[3].item = map_key(SW_INDEX_MAP_SDK2UDP, 0, 0x2a);
    all[3].item.value[0] = 0x90000005;
    all[3].line = "EPORT Index map for app, SDKIndex is 0x0 + 0x2a, UDPIndex is 0x90000005.\n";
    for (of_kind &one : all)
        std::strcpy(one.item.user_name, "app");
    return all;
}

TEST_F(EportMapDump, PrintsEachKindInItsFormatOnALineOfItsOwn)
{
    for (of_kind &one : items_of_all_kinds()) {
        sw_ebridge_dump_args args{};
        EXPECT_EQ(sw_eport_db_ut_dump_op(&one.item, &args, 0), 0);
        EXPECT_EQ(take_printed(), map_line + one.line);
        EXPECT_EQ(args.count, 1u);
    }
}

TEST_F(EportMapDump, FiltersByTheUdpIndexOfEachKind)
{
    for (of_kind &one : items_of_all_kinds()) {
        const auto passes = [&](uint32_t type, uint32_t id) {
            sw_ebridge_dump_args args{};
            args.type = type;
            args.id = id;
            EXPECT_EQ(sw_eport_db_ut_dump_op(&one.item, &args, 0), 0);
            EXPECT_EQ(take_printed().empty(), args.count == 0);
            return args.count == 1;
        };
        EXPECT_TRUE(passes(144, 0));
        EXPECT_TRUE(passes(0, 0x90000005));
        EXPECT_TRUE(passes(144, 0x90000005));
        EXPECT_FALSE(passes(1, 0));
        EXPECT_FALSE(passes(0, 144));
        EXPECT_FALSE(passes(0, 7));
        EXPECT_FALSE(passes(144, 0x90000006));
    }
}

TEST_F(EportMapDump, AnUnknownKindHasUdpIndex0AndNoText)
{
    sw_eport_index_map item = map_key(4, 0x90000005);
    item.value[0] = 0x90000005;
    sw_ebridge_dump_args args{};
    EXPECT_EQ(sw_eport_db_ut_dump_op(&item, &args, 0), 0);
    EXPECT_EQ(take_printed(), map_line);
    EXPECT_EQ(args.count, 1u);
    args.type = 144;
    EXPECT_EQ(sw_eport_db_ut_dump_op(&item, &args, 0), 0);
    EXPECT_EQ(take_printed(), "");
    EXPECT_EQ(args.count, 1u);
}

TEST_F(EportMapDump, GoesOnAfterNull)
{
    add_user({.name = "app"});
    sw_eport_index_map item{};
    sw_ebridge_dump_args args{};
    EXPECT_EQ(sw_eport_db_ut_dump_op(nullptr, &args, 0), 0);
    EXPECT_EQ(sw_eport_db_ut_dump_op(&item, nullptr, 0), 0);
    EXPECT_EQ(take_printed(), "");
    EXPECT_EQ(args.count, 0u);
    EXPECT_THAT(recording::logged(), Each(StartsWith("Assert:")));
}

// ---- the map

std::string map_header(uint32_t type, uint32_t id)
{
    return format("\n========== <eport index map db, input type: 0x%x, id: 0x%x> =============\n", type, id);
}

std::string count_of_slot(uint32_t slot, uint32_t count)
{
    return map_line + format("total eport index map of instance(%u) is %u.\n", slot, count);
}

std::string reverse(uint32_t id, uint32_t keyid2)
{
    return map_line + format("EPORT Index map for app, UDPIndex is 0x%x, appIndex is 0x7+0x%x.\n", id, keyid2);
}

TEST_F(EportMapDump, CountsOnThroughTheSlots)
{
    add_user({.name = "app"});
    update(udp_to_app("app", 0x30000001, ac, 7, 11), 0);
    update(udp_to_app("app", 0x90000002, l3intf_ac, 7, 12), 2);
    update(udp_to_app("app", 0x30000003, ac, 7, 13), 5);
    EXPECT_EQ(printed_by([] { return sw_eport_res_db_ut_dump(0, 0); }),
              map_header(0, 0) + reverse(0x30000001, 11) + count_of_slot(0, 1) + count_of_slot(1, 1) +
                  reverse(0x90000002, 12) + count_of_slot(2, 2) + count_of_slot(3, 2) + count_of_slot(4, 2) +
                  reverse(0x30000003, 13) + count_of_slot(5, 3));
    EXPECT_EQ(printed_by([] { return sw_eport_res_db_ut_dump(144, 0); }),
              map_header(144, 0) + count_of_slot(0, 0) + count_of_slot(1, 0) + reverse(0x90000002, 12) +
                  count_of_slot(2, 1) + count_of_slot(3, 1) + count_of_slot(4, 1) + count_of_slot(5, 1));
    EXPECT_EQ(printed_by([] { return sw_eport_res_db_ut_dump(48, 0x30000003); }),
              map_header(48, 0x30000003) + count_of_slot(0, 0) + count_of_slot(1, 0) + count_of_slot(2, 0) +
                  count_of_slot(3, 0) + count_of_slot(4, 0) + reverse(0x30000003, 13) + count_of_slot(5, 1));
}

TEST_F(EportMapDump, WithoutTablesPrintsTheHeader)
{
    EXPECT_EQ(printed_by([] { return sw_eport_res_db_ut_dump(0, 0); }), map_header(0, 0));
}

}  // namespace
