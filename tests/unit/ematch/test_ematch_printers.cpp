// What the library says of rules, as whole texts: the log lines of items and records, and the dump of the table.
#include "ematch_fixture.hpp"

namespace
{

using namespace ematch_test;
using EmatchItemLine = EmatchTest;
using EmatchKeyLine = EmatchTest;
using EmatchRecordLines = EmatchTest;
using EmatchLevels = EmatchTest;
using EmatchDump = EmatchTest;
using EmatchDumpOfItem = EmatchTest;

// Full_item's owner and store.
sw_ebridge_list_item &owner()
{
    static sw_ebridge_list_item named = {};
    strcpy(named.user_name, "app");
    return named;
}

sw_ematch_item owned_item()
{
    sw_ematch_item item = full_item(&owner());
    item.mom_db = 14;
    item.current_result = fail_priority;
    return item;
}

sw_ematch_item v6_item()
{
    sw_ematch_item item = owned_item();
    const bytes address = ipv6_address();
    std::copy(address.begin(), address.end(), item.ip);
    item.ip_ver = 1;
    return item;
}

// ---- an item

TEST_F(EmatchItemLine, TellsKeyUserAndStore)
{
    add_user({.name = "app"});
    const sw_ematch_item item = owned_item();
    EXPECT_EQ(sw_bridge_printf_ematch_item(&item), 0);
    EXPECT_THAT(trace(), ElementsAre("info sw_bridge_printf_ematch_item: ==================> t_user: app, mom_db: 14, "
                                     "match_type: 0x9, match_flag: 0x105,match_priority: 0x6, match_eport: 0x80000007, "
                                     "match_evlan1: 0x10000064, match_evlan2: 0x100000c8, mac: 02:00:5e:10:20:ff, "
                                     "mask: ff:ff:ff:80:00:01,frame_type: 3, ether_type: 2048, match_id: 0x2a, "
                                     "index->ip->ver= 0, index->ip->ip->ipv4 = 192.168.1.254, "
                                     "index->ip->ip->ipv6 = c0a8:1fe:0:0:0:0:0:0 <=================="));
}

TEST_F(EmatchItemLine, TellsThatThereIsNoUser)
{
    add_user({.name = "app"});
    sw_ematch_item item = owned_item();
    item.user = nullptr;
    EXPECT_EQ(sw_bridge_printf_ematch_item(&item), 0);
    EXPECT_THAT(trace(), ElementsAre("info sw_bridge_printf_ematch_item: ==================> t_user is NULL, mom_db: "
                                     "14, match_type: 0x9, match_flag: 0x105,match_priority: 0x6, match_eport: "
                                     "0x80000007, match_evlan1: 0x10000064, match_evlan2: 0x100000c8, mac: "
                                     "02:00:5e:10:20:ff, mask: ff:ff:ff:80:00:01,frame_type: 3, ether_type: 2048, "
                                     "match_id: 0x2a, index->ip->ver= 0, index->ip->ip->ipv4 = 192.168.1.254, "
                                     "index->ip->ip->ipv6 = c0a8:1fe:0:0:0:0:0:0 <=================="));
}

TEST_F(EmatchItemLine, TellsBothReadingsOfAVersionSixAddress)
{
    add_user({.name = "app"});
    const sw_ematch_item item = v6_item();
    EXPECT_EQ(sw_bridge_printf_ematch_item(&item), 0);
    EXPECT_THAT(trace(), ElementsAre(item_line(item)));
    EXPECT_THAT(recording::logged().at(0),
                testing::EndsWith(std::string("index->ip->ver= 1, index->ip->ip->ipv4 = 32.1.13.184, "
                                              "index->ip->ip->ipv6 = ") +
                                  ipv6_words + " <=================="));
}

TEST_F(EmatchItemLine, TellsThatThereIsNone)
{
    add_user({.name = "app"});
    EXPECT_EQ(sw_bridge_printf_ematch_item(nullptr), 0);
    EXPECT_THAT(trace(), ElementsAre("error sw_bridge_printf_ematch_item: Assert:==================> ematch_item is "
                                     "NULL <=================="));
}

// ---- its key

TEST_F(EmatchKeyLine, TellsKeyAndUser)
{
    add_user({.name = "app"});
    const sw_ematch_item item = owned_item();
    EXPECT_EQ(sw_bridge_printf_ematch_item_key(&item), 0);
    EXPECT_THAT(trace(), ElementsAre("info sw_bridge_printf_ematch_item_key: ==================> t_user: app, "
                                     "match_type: 0x9, match_flag: 0x105,match_priority: 0x6, match_eport: 0x80000007, "
                                     "match_evlan1: 0x10000064, match_evlan2: 0x100000c8, mac: 02:00:5e:10:20:ff, "
                                     "mac_mask: ff:ff:ff:80:00:01,frame_type: 3, ether_type: 2048, match_id: 0x2a, "
                                     "index->ip->ver= 0, index->ip->ip->ipv4 = 192.168.1.254, "
                                     "index->ip->ip->ipv6 = c0a8:1fe:0:0:0:0:0:0 <=================="));
}

TEST_F(EmatchKeyLine, TellsThatThereIsNoUser)
{
    add_user({.name = "app"});
    sw_ematch_item item = v6_item();
    item.user = nullptr;
    EXPECT_EQ(sw_bridge_printf_ematch_item_key(&item), 0);
    EXPECT_THAT(trace(), ElementsAre("info sw_bridge_printf_ematch_item_key: ==================> t_user is NULL, " +
                                     item_fields(item, "mac_mask")));
}

TEST_F(EmatchKeyLine, TellsThatThereIsNone)
{
    add_user({.name = "app"});
    EXPECT_EQ(sw_bridge_printf_ematch_item_key(nullptr), 0);
    EXPECT_THAT(trace(), ElementsAre("error sw_bridge_printf_ematch_item_key: Assert:==================> key is NULL "
                                     "<=================="));
}

// ---- a record

// The same record in the other package.
struct service_rule {
    explicit service_rule(const rule &of)
    {
        index.t_user = of.index.t_user;
        fill_key(index);
        index.mac = of.index.mac;
        index.mask = of.index.mask;
        index.ip = of.index.ip;
        entry.index = &index;
        entry.action_type = static_cast<SBridge__EmatchActionType>(of.entry.action_type);
        fill_action(entry);
        entry.flag = 1;
        entry.result = static_cast<SBridge__MatchResult>(of.entry.result);
    }
    service_rule(const service_rule &) = delete;
    service_rule &operator=(const service_rule &) = delete;

    SBridge__EmatchIndex index = S_BRIDGE__EMATCH_INDEX__INIT;
    SBridge__EmatchEntry entry = S_BRIDGE__EMATCH_ENTRY__INIT;
};

int32_t print(const service_rule &what) { return sw_bridge_printf_sdp_ematch(&what.entry); }

// What both printers say of it, which is the same but for one word.
strings said_of(const rule &what)
{
    recording::reset();
    EXPECT_EQ(sw_bridge_printf_udp_ematch(&what.entry), 0);
    const strings said = trace();
    recording::reset();
    EXPECT_EQ(print(service_rule(what)), 0);
    strings expected = said;
    for (std::string &line : expected)
        for (size_t at; (at = line.find("udp_")) != std::string::npos;)
            line.replace(at, 4, "sdp_");
    EXPECT_EQ(trace(), expected);
    return said;
}

constexpr char in_udp[] = "info sw_bridge_printf_udp_ematch: udp_ematch_entry ";

TEST_F(EmatchRecordLines, TellKeyActionResultAndAddresses)
{
    add_user({.name = "app"});
    const full_rule whole;
    EXPECT_THAT(
        said_of(whole),
        ElementsAre(format("info sw_bridge_printf_udp_ematch: ==================> udp_ematch_entry user: app, "
                           "match_type: 0x9, match_flag: 0x105, match_priority: 6,evlan1: 0x10000064, evlan2: "
                           "0x100000c8, eport: 0x80000007, ipv4: 0x%x, vnid: 5001, label: 77, ip_mask: "
                           "255.255.255.0,frame_type: 3,ether_type: 2048, match_id: 0x2a, new_evlan1: "
                           "0x1000012c, new_evlan2: 0x10000190, new_eport: 0x11000009, new_vnid: 6001, "
                           "new_label: 0,new_pri: 5, l3_iif: 44, current_result: 2.",
                           ipv4_word(10, 0, 0, 1)),
                    std::string(in_udp) + "mac: 02:00:5e:10:20:ff.", std::string(in_udp) + "mask: ff:ff:ff:80:00:01.",
                    std::string(in_udp) + "ipv4: 192.168.1.254 <=================="));
    EXPECT_EQ(said_of(whole), entry_lines(whole.entry));
}

TEST_F(EmatchRecordLines, TellAVersionSixAddress)
{
    add_user({.name = "app"});
    full_rule v6;
    v6.with_v6(ipv6_address());
    EXPECT_EQ(said_of(v6).back(), std::string(in_udp) + "ipv6: " + ipv6_words + " <==================");
}

TEST_F(EmatchRecordLines, TellOfAnAddressThatIsNeither)
{
    add_user({.name = "app"});
    const std::string neither = std::string(in_udp) + "ip is other type <==================";
    full_rule other;
    other.with_v4b({10, 0, 0, 1});
    EXPECT_EQ(said_of(other).back(), neither);
    for (const auto form :
         {P_LIBPUB__IP__IP__NOT_SET, P_LIBPUB__IP__IP_V4, P_LIBPUB__IP__IP_V6, P_LIBPUB__IP__IP_V4B}) {
        other.with_hollow_ip(form);
        EXPECT_EQ(said_of(other).back(), neither);
    }
    other.with_v6({1, 2, 3});
    EXPECT_EQ(said_of(other).back(), neither);
    other.with_v4b(bytes(16));
    EXPECT_EQ(said_of(other).back(), neither);
}

TEST_F(EmatchRecordLines, TellOfNoAddressThatIsNotThere)
{
    add_user({.name = "app"});
    full_rule bare;
    bare.index.mac = bare.index.mask = nullptr;
    bare.index.ip = nullptr;
    EXPECT_THAT(said_of(bare), ElementsAre(StartsWith("info sw_bridge_printf_udp_ematch: ==================> ")));
    bare.with_mask({1, 2, 3, 4, 5, 6});
    EXPECT_THAT(said_of(bare), ElementsAre(testing::_, std::string(in_udp) + "mask: 01:02:03:04:05:06."));
    bare.with_mac({}).with_mask({});
    EXPECT_THAT(said_of(bare), SizeIs(1));
}

// Six bytes are printed, whatever the record holds.
TEST_F(EmatchRecordLines, ReadNoFurtherThanAMacIsLong)
{
    add_user({.name = "app"});
    full_rule odd;
    odd.with_mac({1, 2, 3}).with_mask({1, 2, 3, 4, 5, 6, 7, 8});
    EXPECT_THAT(said_of(odd), ElementsAre(testing::_, std::string(in_udp) + "mac: 01:02:03:00:00:00.",
                                          std::string(in_udp) + "mask: 01:02:03:04:05:06.", testing::_));
}

TEST_F(EmatchRecordLines, TellANameThatIsNotThere)
{
    add_user({.name = "app"});
    EXPECT_THAT(said_of(full_rule(nullptr)).front(), testing::HasSubstr("udp_ematch_entry user: NULL, "));
    EXPECT_THAT(said_of(full_rule("")).front(), testing::HasSubstr("udp_ematch_entry user: , "));
}

TEST_F(EmatchRecordLines, TellThatThereIsNone)
{
    add_user({.name = "app"});
    EXPECT_EQ(sw_bridge_printf_udp_ematch(nullptr), 0);
    EXPECT_EQ(sw_bridge_printf_sdp_ematch(nullptr), 0);
    EXPECT_THAT(trace(), ElementsAre("error sw_bridge_printf_udp_ematch: Assert:==================> udp_ematch_entry "
                                     "is NULL <==================",
                                     "error sw_bridge_printf_sdp_ematch: Assert:==================> sdp_ematch_entry "
                                     "is NULL <=================="));
    recording::reset();
    UBridge__EmatchEntry keyless = U_BRIDGE__EMATCH_ENTRY__INIT;
    SBridge__EmatchEntry service_keyless = S_BRIDGE__EMATCH_ENTRY__INIT;
    EXPECT_EQ(sw_bridge_printf_udp_ematch(&keyless), 0);
    EXPECT_EQ(sw_bridge_printf_sdp_ematch(&service_keyless), 0);
    EXPECT_THAT(errors(), testing::AllOf(SizeIs(2), Each(StartsWith("Assert:"))));
}

// ---- levels and categories

void print_all()
{
    const full_rule record;
    const sw_ematch_item item = owned_item();
    sw_bridge_printf_ematch_item(&item);
    sw_bridge_printf_ematch_item_key(&item);
    sw_bridge_printf_udp_ematch(&record.entry);
    print(service_rule(record));
}

TEST_F(EmatchLevels, PrintersSpeakFromTheInfoLevelOn)
{
    add_user({.name = "app"});
    for (const uint32_t level : {0u, 1u, 2u, 3u}) {
        g_sw_vlan_file_zlog_level = level;
        print_all();
        EXPECT_THAT(trace(), IsEmpty()) << level;
    }
    g_sw_vlan_file_zlog_level = 4;
    print_all();
    EXPECT_THAT(recording::logged(40), SizeIs(1 + 1 + 4 + 4));
    EXPECT_EQ(recording::log().size(), recording::logged(40).size());
}

TEST_F(EmatchLevels, EachCategoryHasItsOwn)
{
    add_user({.name = "app"});
    g_sw_vlan_file_zlog_level = 0;
    g_sw_vlan_std_zlog_level = 4;
    print_all();
    EXPECT_THAT(recording::logged(), IsEmpty());
    EXPECT_THAT(recording::log(), SizeIs(10));
    recording::reset();
    g_sw_vlan_file_zlog_level = 4;
    print_all();
    EXPECT_THAT(recording::logged(), SizeIs(10));
    EXPECT_THAT(recording::log(), SizeIs(20));
    EXPECT_EQ(recording::log()[0].category, "sw_vlan_file");
    EXPECT_EQ(recording::log()[1].category, "sw_vlan_std");
    EXPECT_EQ(recording::log()[0].text, recording::log()[1].text);
}

TEST_F(EmatchLevels, AnAbsentRecordIsAnErrorAtAnyLevelButNone)
{
    add_user({.name = "app"});
    g_sw_vlan_file_zlog_level = 1;
    sw_bridge_printf_ematch_item(nullptr);
    sw_bridge_printf_ematch_item_key(nullptr);
    sw_bridge_printf_udp_ematch(nullptr);
    sw_bridge_printf_sdp_ematch(nullptr);
    EXPECT_THAT(errors(), SizeIs(4));
    recording::reset();
    g_sw_vlan_file_zlog_level = 0;
    sw_bridge_printf_udp_ematch(nullptr);
    EXPECT_THAT(recording::log(), IsEmpty());
}

// A message whose argument is what a printer returns runs it once, however many categories take the message, and
// before it.
TEST_F(EmatchLevels, APrinterThatIsAnArgumentRunsOnceAndOnlyForWhoeverTakesTheMessage)
{
    add_user({.name = "app"});
    const auto lines = [](uint32_t file, uint32_t std) {
        recording::reset();
        g_sw_vlan_file_zlog_level = file;
        g_sw_vlan_std_zlog_level = std;
        insert(full_rule());
        strings out;
        for (const recording::log_line &line : recording::log())
            out.push_back(line.category + " " + line.function);
        return out;
    };
    const std::string file = "sw_vlan_file ", std = "sw_vlan_std ";
    const std::string printer = "sw_bridge_printf_ematch_item", insertion = "sw_ematch_db_hash_insert_item";
    EXPECT_THAT(lines(5, 5), ElementsAre(file + printer, std + printer, file + insertion, std + insertion));
    EXPECT_THAT(lines(0, 5), ElementsAre(std + printer, std + insertion));
    EXPECT_THAT(lines(4, 5), ElementsAre(file + printer, std + printer, std + insertion));
    EXPECT_THAT(lines(4, 4), IsEmpty());
}

// ---- dump of an item

std::string dump_header(const std::string &user, const sw_ematch_item &item)
{
    return format(
        "==================> user: %s, match_type: %d, match_flag: 0x%x, match_priority: %d, mom_db: %u, "
        "current_result: %d--------------\n",
        user.c_str(), item.match_type, item.match_flag, item.match_priority, item.mom_db, item.current_result);
}

// What follows it, but for the line of the ip, of full_item.
std::string dump_of_full_item(const std::string &ip)
{
    return format(
               "match_evlan1: 0x10000064\n"
               "match_evlan2: 0x100000c8\n"
               "match_eport: 0x80000007\n"
               "match_ipv4: 0x%x\n"
               "match_vnid: 0x1389\n"
               "match_label: 0x4d\n"
               "match_ip_mask: 0x%x\n"
               "match_mac: 0200.5e10.20ff\n"
               "match_mask: ffff.ff80.0001\n"
               "match_frame_type: 0x3\n"
               "match_ether_type: 0x800\n",
               ipv4_word(10, 0, 0, 1), ipv4_word(255, 255, 255, 0)) +
           "match_ip: " + ip + "\n" +
           "match_id: 0x2a\n"
           "---------------action_type: 7\n"
           "action_new_evlan1: 0x1000012c\n"
           "action_new_evlan2: 0x10000190\n"
           "action_new_eport: 0x11000009\n"
           "action_new_vnid: 0x1771\n"
           "action_new_pri: 5\n"
           "action_l3_iif: 44\n";
}

std::string printed_of(sw_ematch_item item, sw_ematch_dump_args *filter)
{
    return printed_by([&] { return sw_ematch_db_ut_dump_op(&item, filter, 3); });
}

std::string printed_of(const sw_ematch_item &item)
{
    sw_ematch_dump_args any{};
    return printed_of(item, &any);
}

TEST_F(EmatchDumpOfItem, PrintsEveryFieldOnALineOfItsOwn)
{
    EXPECT_EQ(printed_of(owned_item()),
              "==================> user: app, match_type: 9, match_flag: 0x105, "
              "match_priority: 6, mom_db: 14, current_result: 1--------------\n" +
                  dump_of_full_item("192.168.1.254"));
}

TEST_F(EmatchDumpOfItem, PrintsTheAddressByItsVersion)
{
    EXPECT_EQ(printed_of(v6_item()), dump_header("app", v6_item()) + dump_of_full_item("2001:db8::42"));
    sw_ematch_item other = owned_item();
    for (const uint32_t version : {2u, UINT32_MAX}) {
        other.ip_ver = version;
        EXPECT_EQ(printed_of(other), dump_header("app", other) + dump_of_full_item(""));
    }
}

TEST_F(EmatchDumpOfItem, PrintsTheLongestAddresses)
{
    sw_ematch_item item = owned_item();
    std::memset(item.ip, 0xff, sizeof item.ip);
    EXPECT_EQ(printed_of(item), dump_header("app", item) + dump_of_full_item("255.255.255.255"));
    item.ip_ver = 1;
    EXPECT_EQ(printed_of(item),
              dump_header("app", item) + dump_of_full_item("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"));
}

TEST_F(EmatchDumpOfItem, PrintsNegativeNumbersWithTheirSign)
{
    sw_ematch_item item = owned_item();
    item.match_priority = item.match_type = item.new_pri = item.l3_iif = item.current_result = item.action_type = -1;
    const std::string printed = printed_of(item);
    EXPECT_THAT(printed, StartsWith("==================> user: app, match_type: -1, match_flag: 0x105, match_priority: "
                                    "-1, mom_db: 14, current_result: -1--------------\n"));
    EXPECT_THAT(printed, testing::HasSubstr("---------------action_type: -1\n"));
    EXPECT_THAT(printed, testing::EndsWith("action_new_pri: -1\naction_l3_iif: -1\n"));
}

TEST_F(EmatchDumpOfItem, CountsWhatItPrints)
{
    sw_ematch_dump_args any{};
    any.count = 41;
    printed_of(owned_item(), &any);
    EXPECT_EQ(any.count, 42);
    EXPECT_EQ(any.match_type, 0);
    EXPECT_EQ(any.user_name, nullptr);
}

TEST_F(EmatchDumpOfItem, FiltersByTypeAndByUser)
{
    const auto passes = [](int32_t type, const char *user) {
        sw_ematch_dump_args filter{};
        filter.match_type = type;
        filter.user_name = user;
        const std::string printed = printed_of(owned_item(), &filter);
        EXPECT_EQ(printed.empty(), filter.count == 0);
        return filter.count == 1;
    };
    EXPECT_TRUE(passes(0, nullptr));
    EXPECT_TRUE(passes(9, nullptr));
    EXPECT_TRUE(passes(0, "app"));
    EXPECT_TRUE(passes(9, "app"));
    EXPECT_FALSE(passes(8, nullptr));
    EXPECT_FALSE(passes(-1, nullptr));
    EXPECT_FALSE(passes(0, "ap"));
    EXPECT_FALSE(passes(0, "apps"));
    EXPECT_FALSE(passes(0, ""));
    EXPECT_FALSE(passes(9, "other"));
    EXPECT_FALSE(passes(8, "app"));
}

TEST_F(EmatchDumpOfItem, PrintsAnItemWithoutUser)
{
    sw_ematch_item item = owned_item();
    item.user = nullptr;
    sw_ematch_dump_args filter{};
    EXPECT_EQ(printed_of(item, &filter), dump_header("NULL", item) + dump_of_full_item("192.168.1.254"));
    filter.user_name = "app";
    EXPECT_EQ(printed_of(item, &filter), "");
    EXPECT_EQ(filter.count, 1);
}

TEST_F(EmatchDumpOfItem, GoesOnAfterNull)
{
    sw_ematch_item item = owned_item();
    sw_ematch_dump_args filter{};
    const void *at = &item, *filter_at = &filter;
    EXPECT_EQ(printed_by([&] { return sw_ematch_db_ut_dump_op(nullptr, &filter, 0); }),
              format("invalid input args, ematch_item: (nil), ematch_args: %p\n", filter_at));
    EXPECT_EQ(printed_by([&] { return sw_ematch_db_ut_dump_op(&item, nullptr, 0); }),
              format("invalid input args, ematch_item: %p, ematch_args: (nil)\n", at));
    EXPECT_EQ(printed_by([&] { return sw_ematch_db_ut_dump_op(nullptr, nullptr, 0); }),
              "invalid input args, ematch_item: (nil), ematch_args: (nil)\n");
    EXPECT_EQ(filter.count, 0);
}

// ---- dump of the table

std::string table_header(int32_t type)
{
    return format("========== <ematch db, input ematch_type: %d> =============\n", type);
}

std::string user_header(const std::string &name) { return "===================> user: " + name + " ========\n"; }

std::string total(int32_t count)
{
    return format("--------------------------------------------------\ntotal count: %d\n", count);
}

std::string printed_table(int32_t type)
{
    return printed_by([=] { return sw_ematch_db_ut_dump(type); });
}

TEST_F(EmatchDump, PrintsEveryItemUnderEachUserAndCountsOn)
{
    add_user({.name = "app"});
    add_user({.name = "other"});
    const full_rule shared;
    std::string both;
    insert("app", shared);
    insert("other", shared);
    const auto append = [](sw_ematch_item *item, void *to, int32_t) -> int32_t {
        *static_cast<std::string *>(to) +=
            dump_header(item->user->user_name, *item) + dump_of_full_item("192.168.1.254");
        return 0;
    };
    sw_ematch_item_hash_traverse(0, append, &both);
    const strings users = registry_order();
    ASSERT_EQ(users.size(), 2u);
    EXPECT_EQ(printed_table(0),
              table_header(0) + user_header(users[0]) + both + total(2) + user_header(users[1]) + both + total(4));
    EXPECT_THAT(both, testing::AllOf(testing::HasSubstr("user: app,"), testing::HasSubstr("user: other,")));
}

TEST_F(EmatchDump, PrintsTheItemsOfOneTypeWhenAsked)
{
    add_user({.name = "app"});
    const sw_ematch_item *wanted = insert(full_rule());
    full_rule other;
    other.index.match_type = 3;
    insert(other);
    EXPECT_EQ(printed_table(9), table_header(9) + user_header("app") + dump_header("app", *wanted) +
                                    dump_of_full_item("192.168.1.254") + total(1));
    EXPECT_EQ(printed_table(8), table_header(8) + user_header("app") + total(0));
    EXPECT_EQ(printed_table(-1), table_header(-1) + user_header("app") + total(0));
}

TEST_F(EmatchDump, PrintsUsersWithoutItemsTooButNoneWhoIsGone)
{
    add_user({.name = "app"});
    sw_ebridge_list_item_cache_destroy(0, add_user({.name = "gone"}));
    EXPECT_EQ(printed_table(0), table_header(0) + user_header("app") + total(0));
}

TEST_F(EmatchDump, WithoutTablesPrintsTheHeader)
{
    EXPECT_EQ(printed_table(5), table_header(5));
    sw_ebridge_list_init();
    sw_ebridge_list_item bare{};
    strcpy(bare.user_name, "app");
    sw_ebridge_list_add(&bare);
    EXPECT_EQ(printed_table(5), table_header(5));
}

TEST_F(EmatchDump, WithoutUsersPrintsTheHeader)
{
    EXPECT_EQ(sw_ebridge_match_db_init(0, nullptr), 0);
    EXPECT_EQ(printed_table(0), table_header(0));
}

}  // namespace
