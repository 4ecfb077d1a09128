// The commands that list types, translate by hand and set the log levels, and those that hand over to a dump which is tested
// beside its area.
#include "command_fixture.hpp"

namespace
{

using namespace command_test;
using TypeCommand = CommandTest;
using TranslationCommands = CommandTest;
using HandedOverCommands = CommandTest;
using DebugCommand = CommandTest;

TEST_F(TypeCommand, ListsTheTypes) { EXPECT_EQ(run("dump_type"), expected("dump_type")); }

// ---- translations

void map_evlan()
{
    sw_evlan_index_map item{};
    item.key[0] = 32;
    item.key[1] = 7;
    item.value[0] = 0x20000005;
    EXPECT_NE(sw_evlan_index_map_update_item(0, &item), nullptr);
    item = {};
    sw_evlan_index_map_init_udpkey(&item, 0x20000005);
    item.value[0] = 32;
    item.value[1] = 7;
    EXPECT_NE(sw_evlan_index_map_update_item(0, &item), nullptr);
}

void map_eport()
{
    sw_eport_index_map item{};
    item.key[0] = 144;
    item.key[1] = 7;
    item.key[2] = 8;
    item.value[0] = 0x90000005;
    EXPECT_NE(sw_eport_index_map_update_item(0, &item), nullptr);
    item = {};
    sw_eport_index_map_init_udpkey(&item, 0x90000005);
    item.value[0] = 144;
    item.value[1] = 7;
    item.value[2] = 8;
    EXPECT_NE(sw_eport_index_map_update_item(0, &item), nullptr);
}

TEST_F(TranslationCommands, PrintWhatIsMapped)
{
    map_evlan();
    map_eport();
    recording::ports() = {{33, 0x07000005, 0, 0, 0}};
    EXPECT_EQ(run("evlan_app2udp", {32, 7}) + run("evlan_udp2app", {0x20000005}) + run("eport_app2udp", {144, 7, 8}) +
                  run("eport_udp2app", {argument(0x90000005)}) + run("eport_app2udp", {16, 0, 33}) +
                  run("eport_udp2app", {0x10000005}),
              expected("translations"));
}

TEST_F(TranslationCommands, PrintAndReturnWhatIsNotMapped)
{
    map_evlan();
    map_eport();
    EXPECT_EQ(run("evlan_app2udp", {32, -8}, -1) + run("evlan_udp2app", {0x20000006}, -1) +
                  run("eport_app2udp", {144, 7, -9}, -1) + run("eport_udp2app", {argument(0x90000006)}, -1) +
                  run("eport_app2udp", {16, 0, 34}, -2) + run("eport_udp2app", {0x10000006}, -2),
              expected("translations_unknown"));
}

// ---- dumps of other areas

TEST_F(HandedOverCommands, DumpEmatchPrintsTheTypeThatItsArgumentNames)
{
    for (const int32_t type : {1, 2}) {
        sw_ematch_item item{};
        item.match_type = type;
        ASSERT_NE(sw_ematch_db_hash_insert_item("app", &item), nullptr);
    }
    for (const int32_t type : {0, 1, 2}) {
        const std::string dump = printed_by([=] { return sw_ematch_db_ut_dump(type); });
        EXPECT_NE(dump.find("total count"), std::string::npos);
        EXPECT_EQ(run("dump_ematch", {type}), dump);
    }
    EXPECT_NE(run("dump_ematch", {1}), run("dump_ematch", {2}));
}

TEST_F(HandedOverCommands, DumpPvidPrintsThePortThatItsArgumentNames)
{
    sw_vlan_pvid_entry entry = {11, 10, 5};
    ASSERT_EQ(sw_vlan_pvid_entry_hash_insert(0, &entry), 0);
    EXPECT_NE(run("dump_pvid", {0}).find("|           11 |       10 |        5 |"), std::string::npos);
    EXPECT_EQ(run("dump_pvid", {12}), printed_by([] { return sw_vlan_pvid_ut_dump(12); }));
    sw_vlan_pvid_entry_hash_remove(0, &entry);
}

TEST_F(HandedOverCommands, DumpPvidStatsPrintsTheCounters)
{
    sw_brg_stat_pvid_count_set_set(7);
    const std::string dump = printed_by(sw_vlan_pvid_stats_print);
    EXPECT_NE(dump.find("pvid_count_set: 7"), std::string::npos);
    EXPECT_EQ(run("dump_pvid_stats"), dump);
}

// ---- log levels

// Category, level and text of each line.
strings lines()
{
    strings out;
    for (const auto &line : recording::log()) {
        EXPECT_EQ(line.file, "sw_bridge/ebridge/sw_ebridge.h");
        EXPECT_EQ(line.function, "sw_switch_vlan_logging_set");
        EXPECT_EQ(line.line, 1);
        out.push_back(line.category + " " + level_name(line.level) + " " + line.text);
    }
    return out;
}

TEST_F(DebugCommand, SetsAndPrintsBothLevels)
{
    EXPECT_EQ(run("debug", {3, 5}), "setting vlan file_level: 3, std_level: 5\r\n");
    EXPECT_EQ(g_sw_vlan_file_zlog_level, 3u);
    EXPECT_EQ(g_sw_vlan_std_zlog_level, 5u);
}

TEST_F(DebugCommand, TellsEachLevelThatIsOpenNow)
{
    run("debug", {7, 0});
    EXPECT_THAT(
        lines(),
        ElementsAre("sw_vlan_file debug DEBUG level is opened\r\n", "sw_vlan_file info INFO level is opened\r\n",
                    "sw_vlan_file warning WARN level is opened\r\n", "sw_vlan_file error ERROR level is opened\r\n"));
}

TEST_F(DebugCommand, PrintsTheLevelsBeforeItTellsThem)
{
    const std::string out = run("debug", {7, 7});
    EXPECT_EQ(recording::log().size(), 8u);
    for (const auto &line : recording::log())
        EXPECT_EQ(line.printed_before, out.size()) << line.text;
}

TEST_F(DebugCommand, TellsEachCategoryItsOwnLevels)
{
    run("debug", {1, 4});
    EXPECT_THAT(
        lines(),
        ElementsAre("sw_vlan_std info INFO level is opened\r\n", "sw_vlan_std warning WARN level is opened\r\n",
                    "sw_vlan_file error ERROR level is opened\r\n", "sw_vlan_std error ERROR level is opened\r\n"));
}

TEST_F(DebugCommand, WithoutArgumentsTurnsLoggingOff)
{
    EXPECT_EQ(run("debug"), "setting vlan file_level: 0, std_level: 0\r\n");
    EXPECT_THAT(lines(), IsEmpty());
}

}  // namespace
