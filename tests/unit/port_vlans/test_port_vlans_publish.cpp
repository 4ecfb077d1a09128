// Publishing a port's VLANs: how the bitmaps are encoded, what is printed of them, one port and all ports.
#include "port_vlans_fixture.hpp"

namespace
{

using namespace port_vlans_test;
using PortVlansSet = PortVlansTest;
using PortVlansSetAll = PortVlansTest;

// ---- encoding

struct encoding {
    const char *name;
    vlan_set set;
    const char *rendered;
};

const encoding encodings[] = {
    {"Nothing", {}, "{value:[0]}"},
    {"Vlan0", vlans({0}), "{value:[1]}"},
    {"Vlan1", vlans({1}), "{value:[2]}"},
    {"Vlan31", vlans({31}), "{value:[2147483648]}"},
    {"Vlan32", vlans({32}), "{start:32 value:[1]}"},
    {"Vlan4094", vlans({4094}), "{start:4064 value:[1073741824]}"},
    {"Vlan4095", vlans({4095}), "{start:4064 value:[2147483648]}"},
    {"OneWordInTheMiddle", vlan_range(2048, 2079), "{start:2048 value:[4294967295]}"},
    {"TwoWords", vlans({63, 64}), "{start:32 value:[2147483648 1]}"},
    {"AWordOfZeroBetween", vlans({40, 100}), "{start:32 value:[256 0 16]}"},
    {"TheFirstTwoWords", vlans({0, 33}), "{value:[1 2]}"},
    {"TheLastTwoWords", vlans({4032, 4095}), "{start:4032 value:[1 2147483648]}"},
};

TEST_F(PortVlansSet, CarriesTheWordsFromTheFirstToTheLastThatIsSet)
{
    add_user();
    int32_t ifx = port_3;
    for (const encoding &one : encodings) {
        SCOPED_TRACE(one.name);
        EXPECT_EQ(encoded(one.set), one.rendered);
        for (const port_sets &sets : {port_sets{one.set, {}, {}}, port_sets{vlans({0}), one.set, {}},
                                      port_sets{vlans({0}), {}, one.set}, port_sets{one.set, one.set, one.set}}) {
            hold(sets, ++ifx);
            EXPECT_EQ(sw_vlan_port_range_vids_set("app", ifx), 0);
            expect_call(only_call(), sets.vbmp.any() ? "qz_mom_set" : "qz_mom_del", own_db, record_of(sets, ifx));
            EXPECT_EQ(decoded(only_call().record), sets);
        }
    }
}

TEST_F(PortVlansSet, CarriesAllWordsOfVlan1And4095)
{
    add_user();
    hold({vlans({1, 4095}), {}, {}});
    EXPECT_EQ(sw_vlan_port_range_vids_set("app", port_3), 0);
    std::string words = "vbmp{value:[2";
    for (int zero = 0; zero < 126; ++zero)
        words += " 0";
    EXPECT_NE(only_call().record.find(words + " 2147483648]} ubmp{value:[0]} mcbmp{value:[0]}}"), std::string::npos);
}

// ---- one port

TEST_F(PortVlansSet, WritesTheRecordOfAPortWithVlans)
{
    add_user();
    const port_sets sets{vlans({1, 2}), vlans({2}), vlans({1})};
    hold(sets);
    EXPECT_EQ(sw_vlan_port_range_vids_set("app", port_3), 0);
    EXPECT_THAT(trace(), ElementsAre(line("debug", "range_vids_set", "setting port vlans bmp."),
                                     "qz_mom_set 6 " + record_of(sets)));
    expect_call(only_call(), "qz_mom_set", own_db, record_of(sets));
    expect_callback(only_call(), nullptr, nullptr);
    EXPECT_EQ(local(port_3), sets);
}

TEST_F(PortVlansSet, RemovesTheRecordOfAPortWithoutVlansWhateverItsMarks)
{
    add_user();
    const port_sets sets{{}, vlans({2}), vlan_range(1, 100)};
    hold(sets);
    EXPECT_EQ(sw_vlan_port_range_vids_set("app", port_3), 0);
    EXPECT_THAT(trace(), ElementsAre(line("debug", "range_vids_set", "deleting port vlans bmp."),
                                     "qz_mom_del 6 " + record_of(sets)));
    expect_call(only_call(), "qz_mom_del", own_db, record_of(sets));
    expect_callback(only_call(), nullptr, nullptr);
}

TEST_F(PortVlansSet, PublishesARecordThatADefaultVlanMade)
{
    add_user();
    EXPECT_EQ(sw_vlan_pvid_set("app", port_3, -1), 0);
    recording::reset();
    EXPECT_EQ(sw_vlan_port_range_vids_set("app", port_3), 0);
    EXPECT_EQ(only_call().record, record_of({}));
}

TEST_F(PortVlansSet, TellsWhatTheStoreSays)
{
    add_user();
    hold({vlans({1}), {}, {}});
    hold({}, port_4);
    recording::set_result("qz_mom_set", -105);
    recording::set_result("qz_mom_del", -104);
    EXPECT_EQ(sw_vlan_port_range_vids_set("app", port_3), -105);
    EXPECT_EQ(trace().back(), line("error", "range_vids_set", "Assert:qz_mom oper failed, rv: -105."));
    EXPECT_EQ(sw_vlan_port_range_vids_set("app", port_4), -104);
    EXPECT_EQ(trace().back(), line("error", "range_vids_set", "Assert:qz_mom oper failed, rv: -104."));
    EXPECT_THAT(errors(), SizeIs(2));
}

TEST_F(PortVlansSet, RefusesUnknownUsersAndPorts)
{
    add_user();
    add_user("other");
    hold({vlans({1}), {}, {}}, port_3, "other");
    EXPECT_EQ(sw_vlan_port_range_vids_set("app", port_3), -5);
    EXPECT_THAT(trace(),
                ElementsAre(line("error", "range_vids_set", format("Assert:No VLAN info of IFX[0x%x].\n", port_3))));
    recording::reset();
    EXPECT_EQ(sw_vlan_port_range_vids_set("nobody", port_3), -2);
    EXPECT_THAT(trace(), ElementsAre(line("error", "range_vids_set", no_such_user)));
    EXPECT_EQ(sw_vlan_port_range_vids_set(nullptr, port_3), -2);
    EXPECT_EQ(trace().back(), line("error", "range_vids_set", "Assert:No user named 'NULL'.\n"));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(PortVlansSet, NamesUsersOf31Characters)
{
    add_user(name_of_31);
    hold({vlans({1}), {}, {}}, port_3, name_of_31);
    EXPECT_EQ(sw_vlan_port_range_vids_set(name_of_31, port_3), 0);
    EXPECT_EQ(only_call().record, record_of({vlans({1}), {}, {}}, port_3, name_of_31));
}

// Only the walk of all ports passes over them.
TEST_F(PortVlansSet, PublishesRoutedSubinterfacesToo)
{
    add_user();
    const port_sets sets{vlans({1}), vlans({1}), {}};
    hold(sets, routed_subinterface);
    EXPECT_EQ(sw_vlan_port_range_vids_set("app", routed_subinterface), 0);
    expect_call(only_call(), "qz_mom_set", own_db, record_of(sets, routed_subinterface));
}

// ---- what is printed

TEST_F(PortVlansSet, PrintsTheBitmapsWhereStandardOutputTakesDebugMessages)
{
    add_user();
    hold({vlans({0, 33, 4095}), {}, vlans({64})});
    g_sw_vlan_std_zlog_level = 5;
    EXPECT_EQ(sw_vlan_port_range_vids_set("app", port_3), 0);
    EXPECT_EQ(take_printed(),
              "app set vlan-vbmp:bmp[127]:0x80000000(pos:4095-4064), bmp[1]:0x00000002(pos:63-32), "
              "bmp[0]:0x00000001(pos:31-0), \n"
              "app set vlan-ubmp:\n"
              "app set mc_bmp:bmp[2]:0x00000001(pos:95-64), \n");
}

TEST_F(PortVlansSet, PrintsNothingElsewhere)
{
    add_user();
    hold({vlans({1}), {}, {}});
    for (const uint32_t level : {0u, 1u, 4u}) {
        g_sw_vlan_std_zlog_level = level;
        EXPECT_EQ(sw_vlan_port_range_vids_set("app", port_3), 0);
        EXPECT_EQ(sw_vlan_port_range_vids_set_all("app"), 0);
    }
    EXPECT_EQ(take_printed(), "");
    EXPECT_EQ(recording::calls().size(), 6u);
}

// How much was printed before each line of the log.
std::vector<size_t> printed_before_lines()
{
    std::vector<size_t> sizes;
    for (const recording::log_line &line : recording::log())
        if (line.category == "sw_vlan_file")
            sizes.push_back(line.printed_before);
    return sizes;
}

TEST_F(PortVlansSet, PrintsBeforeItSaysThatItWritesAndWrites)
{
    add_user();
    g_sw_vlan_std_zlog_level = 5;
    for (const vlan_set &members : {vlans({1}), vlan_set()}) {
        hold({members, vlans({1}), {}}, members.any() ? port_3 : port_4);
        EXPECT_EQ(sw_vlan_port_range_vids_set("app", members.any() ? port_3 : port_4), 0);
        const size_t before = only_call().printed_before;
        EXPECT_EQ(before, take_printed().size());
        EXPECT_GT(before, 0u);
        EXPECT_THAT(printed_before_lines(), ElementsAre(before));
    }
}

TEST_F(PortVlansSetAll, PrintsEachPortBetweenItsTwoLinesAndBeforeItWritesIt)
{
    add_user();
    g_sw_vlan_std_zlog_level = 5;
    hold({vlans({1}), {}, {}}, port_3);
    hold({vlans({2}), {}, {}}, port_4);
    EXPECT_EQ(sw_vlan_port_range_vids_set_all("app"), 0);
    const auto &calls = recording::calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_GT(calls[0].printed_before, 0u);
    EXPECT_GT(calls[1].printed_before, calls[0].printed_before);
    EXPECT_EQ(calls[1].printed_before, take_printed().size());
    EXPECT_THAT(printed_before_lines(),
                ElementsAre(0u, calls[0].printed_before, calls[0].printed_before, calls[1].printed_before));
}

TEST_F(PortVlansSetAll, PrintsNothingOfRoutedSubinterfaces)
{
    add_user();
    hold({vlans({1}), vlans({1}), vlans({1})}, routed_subinterface);
    g_sw_vlan_std_zlog_level = 5;
    EXPECT_EQ(sw_vlan_port_range_vids_set_all("app"), 0);
    EXPECT_THAT(take_printed(), testing::Not(testing::HasSubstr("bmp")));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(PortVlansSetAll, PrintsTheBitmapsWithTheirPort)
{
    add_user();
    hold({vlans({32}), vlans({31}), {}}, 5);
    g_sw_vlan_std_zlog_level = 7;
    EXPECT_EQ(sw_vlan_port_range_vids_set_all("app"), 0);
    EXPECT_EQ(take_printed(),
              "set vlan-vbmp(ifx: 5):bmp[1]:0x00000001(pos:63-32), \n"
              "set vlan-ubmp(ifx: 5):bmp[0]:0x80000000(pos:31-0), \n"
              "set mc-bmp(ifx: 5):\n");
}

// ---- all ports

TEST_F(PortVlansSetAll, PublishesEveryPort)
{
    add_user();
    hold({vlans({1}), {}, {}}, port_3);
    hold({vlans({2}), vlans({2}), {}}, port_4);
    hold({{}, vlans({3}), {}}, 0x20000001);
    EXPECT_EQ(sw_vlan_port_range_vids_set_all("app"), 0);
    std::vector<strings> ports;
    const strings steps = trace();
    ASSERT_EQ(steps.size(), 9u);
    for (size_t i = 0; i < steps.size(); i += 3)
        ports.push_back({steps[i], steps[i + 1], steps[i + 2]});
    const auto port = [](int32_t ifx, const char *doing, const char *call, const port_sets &sets) {
        return strings{line("debug", "range_vids_set_all_op", format("set vlan_bmp for ifx: %d.", ifx)),
                       line("debug", "range_vids_set_all_op", doing), std::string(call) + " 6 " + record_of(sets, ifx)};
    };
    EXPECT_THAT(ports, testing::UnorderedElementsAre(
                           port(port_3, "setting port vlans bmp.", "qz_mom_set", {vlans({1}), {}, {}}),
                           port(port_4, "setting port vlans bmp.", "qz_mom_set", {vlans({2}), vlans({2}), {}}),
                           port(0x20000001, "deleting port vlans bmp.", "qz_mom_del", {{}, vlans({3}), {}})));
    for (const recording::call &made : recording::calls()) {
        EXPECT_EQ(made.handle, recording::other_handle());
        expect_callback(made, nullptr, nullptr);
    }
}

TEST_F(PortVlansSetAll, PassesOverPortsOfRoutedSubinterfacesOnly)
{
    add_user();
    const auto id = [](uint32_t type) { return static_cast<int32_t>(type << 24 | 5); };
    for (const uint32_t type : {0u, 16u, 17u, 32u, 48u, 143u, 144u, 145u, 160u, 255u})
        hold({vlans({1}), {}, {}}, id(type));
    EXPECT_EQ(sw_vlan_port_range_vids_set_all("app"), 0);
    EXPECT_EQ(recording::calls_of("qz_mom_set").size(), 9u);
    EXPECT_FALSE(traced("qz_mom_set 6 " + record_of({vlans({1}), {}, {}}, id(144))));
    EXPECT_TRUE(traced(line("debug", "range_vids_set_all_op",
                            "l3_intf_sub(eport_id: 90000005) doesn't have to deal with port_vlan.")));
    EXPECT_TRUE(traced("qz_mom_set 6 " + record_of({vlans({1}), {}, {}}, id(160))));
    EXPECT_TRUE(traced(line("debug", "range_vids_set_all_op", format("set vlan_bmp for ifx: %d.", id(160)))));
}

// Whoever asks publishes under its own name and in its own database.
TEST_F(PortVlansSetAll, PublishesOtherUsersPortsUnderTheNameOfWhoAsks)
{
    add_user();
    add_user("other", 8);
    hold({vlans({1}), {}, {}}, port_3, "app");
    hold({vlans({2}), {}, {}}, port_3, "other");
    EXPECT_EQ(sw_vlan_port_range_vids_set_all("other"), 0);
    std::vector<std::string> records;
    for (const recording::call &made : recording::calls()) {
        EXPECT_EQ(made.db, 8u);
        records.push_back(made.record);
    }
    EXPECT_THAT(records, testing::UnorderedElementsAre(record_of({vlans({1}), {}, {}}, port_3, "other"),
                                                       record_of({vlans({2}), {}, {}}, port_3, "other")));
}

TEST_F(PortVlansSetAll, IsOfSlot0)
{
    add_user();
    add_user_in_slot(1, "app");
    sw_eport_attr record;
    sw_eport_init(&record, "app", port_3);
    record.attr.underlay.vbmp[0] = 2;
    ASSERT_NE(sw_eport_db_insert_item(1, "app", &record), nullptr);
    EXPECT_EQ(sw_vlan_port_range_vids_set_all("app"), 0);
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(PortVlansSetAll, GoesOnAfterAFailure)
{
    add_user();
    for (int32_t ifx = port_3; ifx < port_3 + 3; ++ifx)
        hold({vlans({1}), {}, {}}, ifx);
    recording::set_result("qz_mom_set", -105, 1);
    EXPECT_EQ(sw_vlan_port_range_vids_set_all("app"), 0);
    EXPECT_EQ(recording::calls_of("qz_mom_set").size(), 3u);
    EXPECT_THAT(errors(), ElementsAre("Assert:qz_mom oper failed, rv: -105."));
    EXPECT_TRUE(traced(line("error", "range_vids_set_all_op", "Assert:qz_mom oper failed, rv: -105.")));
}

TEST_F(PortVlansSetAll, WithoutPortsDoesNothing)
{
    add_user();
    EXPECT_EQ(sw_vlan_port_range_vids_set_all("app"), 0);
    EXPECT_THAT(trace(), IsEmpty());
}

TEST_F(PortVlansSetAll, RefusesUnknownUsers)
{
    add_user();
    hold({vlans({1}), {}, {}});
    EXPECT_EQ(sw_vlan_port_range_vids_set_all("nobody"), -2);
    EXPECT_THAT(trace(), ElementsAre(line("error", "range_vids_set_all", no_such_user)));
    EXPECT_EQ(sw_vlan_port_range_vids_set_all(nullptr), -2);
    EXPECT_EQ(trace().back(), line("error", "range_vids_set_all", "Assert:No user named 'NULL'.\n"));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(PortVlansSetAll, StepGoesOnWhateverItIsGiven)
{
    sw_ebridge_list_item *user = add_user();
    hold({vlans({1}), {}, {}});
    sw_eport_attr *record = held(port_3);
    EXPECT_EQ(sw_vlan_port_range_vids_set_all_op(nullptr, user, 0), 0);
    EXPECT_EQ(sw_vlan_port_range_vids_set_all_op(record, nullptr, 0), 0);
    EXPECT_THAT(trace(), ElementsAre(line("error", "range_vids_set_all_op", "Assert:Bad eport."),
                                     line("error", "range_vids_set_all_op", "Assert:Bad eport.")));
    recording::reset();
    recording::set_result("qz_mom_set", -105);
    EXPECT_EQ(sw_vlan_port_range_vids_set_all_op(record, user, 77), 0);
    EXPECT_EQ(only_call().record, record_of({vlans({1}), {}, {}}));
}

}  // namespace
