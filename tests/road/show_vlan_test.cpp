// "ebridge show vlan": who says what of a port, both tables and the array, and the program on a real server.
#include "show_vlan.hpp"

#include <gmock/gmock.h>
#include <signal.h>

#include <iterator>
#include <utility>

#include "child.hpp"
#include "libddm.h"
#include "ports.hpp"
#include "redis_server.hpp"
#include "show_program.hpp"
#include "store_link.hpp"
#include "sw_ebridge.h"

using namespace ebridge_tool;
using namespace road;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace
{

constexpr uint32_t PORT = 0x10000000;  // eport id of a port 0

using range = std::pair<uint32_t, uint32_t>;

vlan_set vlans(const std::vector<range> &ranges)
{
    vlan_set made;
    for (const auto &[first, last] : ranges)
        for (uint32_t vlan = first; vlan <= last; ++vlan)
            made.add(vlan);
    return made;
}

vlan_set one(uint32_t vlan) { return vlan_set(vlan); }

// A switch with EthernetN for N of 0 to 3, PortChannel1, and no others.
class with_ports
{
  public:
    with_ports()
    {
        std::string error;
        EXPECT_TRUE(read_port_table(file_.path(), &error)) << error;
    }
    ~with_ports() { libddm_table_clear(); }
    with_ports(const with_ports &) = delete;
    with_ports &operator=(const with_ports &) = delete;

    const std::string &path() const { return file_.path(); }

  private:
    temporary_file file_{R"({"PORT": {"Ethernet0": {"lanes": "1"}, "Ethernet1": {"lanes": "2"},
                             "Ethernet2": {"lanes": "3"}, "Ethernet3": {"lanes": "4"}},
                             "PORTCHANNEL": {"PortChannel1": {}}})"};
};

// "NAME PVID: USERS sets PVID untagged VLANS tagged VLANS" of each share.
std::vector<std::string> texts(const std::vector<port_view> &ports)
{
    std::vector<std::string> found;
    for (const port_view &port : ports)
        for (const port_share &share : port.shares) {
            std::string text = port.name + ' ' + std::to_string(port.pvid) + ':';
            for (const std::string &user : share.users)
                text += ' ' + user;
            vlan_set tagged = share.vlans;
            tagged -= share.untagged;
            found.push_back(text + " sets " + std::to_string(share.pvid) + " untagged " + share.untagged.text() +
                            " tagged " + tagged.text());
        }
    return found;
}

// Two users who agree on one port and not on the other; a port of which only the default VLAN is known.
vlan_records some_records()
{
    vlan_records records;
    const vlan_set trunk = vlans({{2, 5}, {7, 7}, {10, 10}});
    records.vlans = {{4, PORT + 1, "qos", trunk, one(10)},
                     {4, PORT + 1, "l2", trunk, one(10)},
                     {4, PORT + 2, "qos", vlans({{2, 3}}), {}},
                     {4, PORT + 2, "l2", vlans({{1, 3}}), one(1)}};
    records.set = {{4, PORT + 1, "l2", 10}, {4, PORT + 1, "qos", 10}, {4, PORT + 2, "l2", 1}, {4, PORT + 2, "qos", 2}};
    records.counting = {{4, PORT + 1, "", 10}, {4, PORT + 2, "", 1}, {4, PORT + 3, "", 20}};
    return records;
}

// Publishes as applications do, through the library, and as nobody should.
class publisher
{
  public:
    publisher(const std::string &url, const std::vector<std::string> &users)
    {
        const uint32_t databases[] = {4, 5};
        std::string error;
        EXPECT_EQ(link_.open(url, databases, &error), 0) << error;
        follow(UBridge__PortVlans U_BRIDGE__PORT_VLANS__INIT);
        follow(UBridge__PortVid U_BRIDGE__PORT_VID__INIT);
        follow(UBridge__PvidTable U_BRIDGE__PVID_TABLE__INIT);
        wait();
        for (const std::string &user : users) {
            ebridge_args args{};
            args.user_name = user.c_str();
            args.handle = link_.handle();
            args.mom_db = SW_EBRIDGE_APP_DB;
            EXPECT_EQ(sw_ebridge_init(&args), 0);
            users_.push_back(user);
        }
    }
    // The library's users are of the process: they go before their store.
    ~publisher()
    {
        for (const std::string &user : users_)
            if (const sw_ebridge_list_item *item = sw_ebridge_list_item_get(user.c_str()))
                sw_ebridge_list_item_cache_destroy(0, item);
    }
    publisher(const publisher &) = delete;
    publisher &operator=(const publisher &) = delete;

    void carry(const char *user, uint32_t port, const vlan_set &carried, const vlan_set &untagged)
    {
        uint32_t words[2][128] = {};
        for (uint32_t vlan = 0; vlan < 4096; ++vlan) {
            words[0][vlan / 32] |= uint32_t{carried.has(vlan)} << vlan % 32;
            words[1][vlan / 32] |= uint32_t{untagged.has(vlan)} << vlan % 32;
        }
        const auto ifx = static_cast<int32_t>(port);
        call([&] { return sw_vlan_port_range_vids_add_with_flag(user, ifx, words[0], words[1], words[0], 1); });
    }
    void set_pvid(const char *user, uint32_t port, int32_t vlan)
    {
        call([&] { return sw_vlan_pvid_set(user, port, vlan); });
    }
    // A record as the library would not write it, of database 4.
    void write(std::string user, uint32_t port, std::vector<uint32_t> words[3], const uint32_t starts[3])
    {
        UBridge__PortIndex index = U_BRIDGE__PORT_INDEX__INIT;
        index.t_user = user.data();
        index.port = static_cast<int32_t>(port);
        UBridge__PortVlans record = U_BRIDGE__PORT_VLANS__INIT;
        UBridge__Bitmap bitmaps[3] = {U_BRIDGE__BITMAP__INIT, U_BRIDGE__BITMAP__INIT, U_BRIDGE__BITMAP__INIT};
        for (int i = 0; i < 3; ++i) {
            bitmaps[i].start = starts[i];
            bitmaps[i].n_value = words[i].size();
            bitmaps[i].value = words[i].data();
        }
        record.index = &index;
        record.vbmp = &bitmaps[0];
        record.ubmp = &bitmaps[1];
        record.mcbmp = &bitmaps[2];
        call([&] { return qz_mom_set(link_.handle(), 4, &record.base, nullptr, nullptr); });
    }
    // As a service that decides.
    void decide(uint32_t port, int32_t vlan, uint32_t db = 4)
    {
        UBridge__PortIndex index = U_BRIDGE__PORT_INDEX__INIT;
        index.port = static_cast<int32_t>(port);
        UBridge__PvidTable record = U_BRIDGE__PVID_TABLE__INIT;
        record.index = &index;
        record.new_pvid = vlan;
        call([&] { return qz_mom_set(link_.handle(), db, &record.base, nullptr, nullptr); });
    }
    // Until that many more changes are heard than those that were made here.
    void wait(size_t more = 0)
    {
        expected_ += more;
        ASSERT_TRUE(link_.wait_until([this] { return heard_ >= expected_; }, PATIENCE));
    }

  private:
    static constexpr int64_t PATIENCE = 30'000'000;

    template <typename Record>
    void follow(Record pattern)
    {
        UBridge__PortIndex any = U_BRIDGE__PORT_INDEX__INIT;
        pattern.index = &any;
        for (const uint32_t db : {4U, 5U})
            call([&] { return qz_mom_subscribe(link_.handle(), db, &pattern.base, 0, on_change, this); });
    }
    // Each call is heard of once: what it writes, or its confirmation.
    void call(const std::function<int32_t()> &made)
    {
        ASSERT_EQ(link_.patiently(made, PATIENCE), 0);
        ++expected_;
    }
    static int32_t on_change(qz_mom_handle *, const qz_mom_notification *, void *self)
    {
        ++static_cast<publisher *>(self)->heard_;
        static_cast<publisher *>(self)->link_.happened();
        return 0;
    }

    store_link link_{};
    std::vector<std::string> users_{};
    size_t expected_ = 0;
    size_t heard_ = 0;
};

vlan_records read(const vlan_query &query)
{
    vlan_records records;
    std::string error;
    EXPECT_EQ(read_vlans(query, &records, &error), 0) << error;
    return records;
}

outcome show_vlan(std::vector<std::string> arguments) { return show("vlan", std::move(arguments)); }

}  // namespace

// ---- ports ----------------------------------------------------------------------------------------------------------

TEST(ShownPorts, APortIsTheSameByItsIdAndByItsIndex)
{
    const with_ports ports;
    struct row {
        uint32_t number;
        uint32_t known;
        const char *name;
    };
    const row rows[] = {
        {1'000'000, 0x10000001, "Ethernet0"},
        {0x10000001, 0x10000001, "Ethernet0"},
        {1'000'003, 0x10000004, "Ethernet3"},
        {2'000'001, 0x20000002, "PortChannel1"},
        {0x20000002, 0x20000002, "PortChannel1"},
        // not in the table, or no ids of ports
        {0x10000005, 0x10000005, "0x10000005"},
        {1'000'004, 1'000'004, "1000004"},
        {0x20000001, 0x20000001, "0x20000001"},
        {0x07000001, 0x07000001, "0x07000001"},
        {0x30000001, 0x30000001, "0x30000001"},
        {0, 0, "0"},
        {0xffffffff, 0xffffffff, "0xffffffff"},
    };
    for (const row &of : rows) {
        EXPECT_EQ(known_port(of.number), of.known) << of.number;
        EXPECT_EQ(port_name(of.number), of.name);
    }
}

TEST(ShownPorts, AreFoundByNameIndexAndId)
{
    EXPECT_EQ(find_port("Ethernet0"), std::nullopt);
    EXPECT_EQ(find_port("1000000"), 1'000'000U);
    const with_ports ports;
    for (const char *text : {"Ethernet0", "1000000", "0x10000001", "268435457", "0xf4240"})
        EXPECT_EQ(find_port(text), 0x10000001U) << text;
    EXPECT_EQ(find_port("PortChannel1"), 0x20000002U);
    EXPECT_EQ(find_port("77"), 77U);
    for (const char *text : {"", "0x", "Ethernet9", "-1", "1 ", "4294967296", "0x100000000", "12a"})
        EXPECT_EQ(find_port(text), std::nullopt) << text;
}

// A configuration may tell its ports by the members of its VLANs alone, and need not be one that can be brought up.
TEST(ShownPorts, HaveTheNamesThatAnyConfigurationGivesThem)
{
    const temporary_file members(R"({"VLAN": {"Vlan10": {"vlanid": "10"}}, "PORTCHANNEL": {"PortChannel1": {}},
                                     "VLAN_MEMBER": {"Vlan10|Ethernet4": {"tagging_mode": "tagged"},
                                                     "Vlan10|PortChannel1": {"tagging_mode": "tagged"}}})");
    const temporary_file unusable(R"({"VLAN": {"Vlan5000": {}}, "PORT": {"Ethernet4": {"lanes": "1"}}})");
    const temporary_file list("# name lanes\nEthernet4 1\n"), none("{}");
    std::string error;
    for (const temporary_file *file : {&members, &unusable, &list}) {
        EXPECT_TRUE(read_port_table(file->path(), &error)) << error;
        EXPECT_EQ(port_name(0x10000005), "Ethernet4");
    }
    EXPECT_TRUE(read_port_table(members.path(), &error)) << error;
    EXPECT_EQ(port_name(0x20000002), "PortChannel1");
    EXPECT_FALSE(read_port_table(none.path(), &error));
    EXPECT_THAT(error, StartsWith(none.path() + ":1: no ports"));
    libddm_table_clear();
}

// ---- who says what --------------------------------------------------------------------------------------------------

TEST(ShowVlan, UsersWhoSayTheSameShareAndOthersStandBesideThem)
{
    EXPECT_THAT(
        texts(ports_of(some_records(), {})),
        ElementsAre("0x10000001 10: l2 qos sets 10 untagged 10 tagged 2-5,7",
                    "0x10000002 1: l2 sets 1 untagged 1 tagged 2-3", "0x10000002 1: qos sets 2 untagged - tagged 2-3",
                    "0x10000003 20: sets 0 untagged - tagged -"));
}

TEST(ShowVlan, OnlyWhatIsAskedForIsShown)
{
    const vlan_records all = some_records();
    EXPECT_THAT(texts(ports_of(all, {.vlan = 2})), ElementsAre("0x10000001 10: l2 qos sets 10 untagged - tagged 2",
                                                               "0x10000002 1: l2 sets 1 untagged - tagged 2",
                                                               "0x10000002 1: qos sets 2 untagged - tagged 2"));
    EXPECT_THAT(texts(ports_of(all, {.vlan = 1})), ElementsAre("0x10000002 1: l2 sets 1 untagged 1 tagged -"));
    EXPECT_THAT(texts(ports_of(all, {.vlan = 20})), ElementsAre("0x10000003 20: sets 0 untagged - tagged -"));
    EXPECT_THAT(texts(ports_of(all, {.vlan = 6})), IsEmpty());
    EXPECT_THAT(texts(ports_of(all, {.vlan = 0})), IsEmpty());  // which is what no default VLAN is, too
    // What counts without this user's doing is not what it has published.
    vlan_records one_users;
    one_users.set = {{4, PORT + 2, "l2", 5}};
    one_users.counting = all.counting;
    EXPECT_THAT(texts(ports_of(one_users, {.user = "l2"})), ElementsAre("0x10000002 1: l2 sets 5 untagged - tagged -"));
}

TEST(ShowVlan, AUserWhoKnowsAPortByTwoNumbersIsOneUserOfOnePort)
{
    const with_ports ports;
    const vlan_set carried = vlans({{2, 5}});
    vlan_records records;
    // As a reading makes them: with the port's id, whatever the record's number was.
    records.vlans = {{4, 0x10000001, "l2", carried, {}},
                     {4, 0x10000001, "l2", carried, {}},
                     {4, 0x10000002, "l2", carried, {}},
                     {4, 0x10000002, "l2", vlans({{5, 5}, {9, 9}}), {}}};
    records.set = {{4, 0x10000002, "l2", 9}};
    EXPECT_THAT(texts(ports_of(records, {})), ElementsAre("Ethernet0 0: l2 sets 0 untagged - tagged 2-5",
                                                          "Ethernet1 0: l2 sets 9 untagged - tagged 2-5",
                                                          "Ethernet1 0: l2 sets 0 untagged - tagged 5,9"));
    EXPECT_THAT(ports_by_vlan(ports_of(records, {}), false, {}),
                HasSubstr("\n5     l2    tagged             Ethernet0,Ethernet1\n"));
}

TEST(ShowVlan, DatabasesStandApart)
{
    vlan_records records;
    records.vlans = {{5, 77, "l2", one(2), {}}, {4, 77, "l2", one(2), {}}};
    records.counting = {{4, 77, "", 2}};
    const std::vector<port_view> ports = ports_of(records, {});
    EXPECT_EQ(vlans_by_port(ports, true),
              "PORT  DB  PVID  USER  SETS  UNTAGGED  TAGGED\n"
              "77     4     2  l2       -  -         2\n"
              "77     5     -  l2       -  -         2\n"
              "1 VLAN on 1 port, 1 user\n");
    EXPECT_EQ(ports_by_vlan(ports, true, {}),
              "VLAN  DB  USER  AS      PORTS\n"
              "2      4  l2    tagged  77\n"
              "2      4  -     pvid    77\n"
              "2      5  l2    tagged  77\n"
              "1 VLAN on 1 port, 1 user\n");
}

// ---- words for all of it --------------------------------------------------------------------------------------------

TEST(ShowVlan, ByPortThereIsARowForEachThatIsSaid)
{
    EXPECT_EQ(vlans_by_port(ports_of(some_records(), {}), false),
              "PORT        PVID  USER    SETS  UNTAGGED  TAGGED\n"
              "0x10000001    10  l2,qos    10  10        2-5,7\n"
              "0x10000002     1  l2         1  1         2-3\n"
              "0x10000002     1  qos        2  -         2-3\n"
              "0x10000003    20  -          -  -         -\n"
              "7 VLANs on 3 ports, 2 users\n");
    EXPECT_EQ(vlans_by_port({}, false), "0 VLANs on 0 ports, 0 users\n");
}

TEST(ShowVlan, ByVlanThereIsARowForAllThatAreAlike)
{
    const with_ports ports;
    EXPECT_EQ(ports_by_vlan(ports_of(some_records(), {}), false, {}),
              "VLAN  USER    AS                 PORTS\n"
              "1     l2      untagged           Ethernet1\n"
              "1     l2      pvid               Ethernet1\n"
              "2     l2,qos  tagged             Ethernet0,Ethernet1\n"
              "2     qos     pvid not in force  Ethernet1\n"
              "3     l2,qos  tagged             Ethernet0,Ethernet1\n"
              "4-5   l2,qos  tagged             Ethernet0\n"
              "7     l2,qos  tagged             Ethernet0\n"
              "10    l2,qos  untagged           Ethernet0\n"
              "10    l2,qos  pvid               Ethernet0\n"
              "20    -       pvid               Ethernet2\n"
              "7 VLANs on 3 ports, 2 users\n");
    EXPECT_EQ(ports_by_vlan(ports_of(some_records(), {.vlan = 2}), false, 2),
              "VLAN  USER    AS                 PORTS\n"
              "2     l2,qos  tagged             Ethernet0,Ethernet1\n"
              "2     qos     pvid not in force  Ethernet1\n"
              "1 VLAN on 2 ports, 2 users\n");
    EXPECT_EQ(ports_by_vlan({}, false, {}), "0 VLANs on 0 ports, 0 users\n");
}

// The first and the last VLAN of all, and users who carry the same VLANs on other ports or another way.
TEST(ShowVlan, ByVlanUsersWhoDifferHaveRowsOfTheirOwn)
{
    vlan_records records;
    records.vlans = {{4, 1, "a", vlans({{0, 40}}), {}},
                     {4, 2, "b", vlans({{0, 40}, {4094, 4095}}), vlans({{0, 2}})},
                     {4, 2, "c", vlans({{0, 40}, {4094, 4095}}), vlans({{0, 2}})}};
    EXPECT_EQ(ports_by_vlan(ports_of(records, {}), false, {}),
              "VLAN       USER  AS        PORTS\n"
              "0-2        b,c   untagged  2\n"
              "0-2        a     tagged    1\n"
              "3-40       a     tagged    1\n"
              "3-40       b,c   tagged    2\n"
              "4094-4095  b,c   tagged    2\n"
              "43 VLANs on 2 ports, 3 users\n");
    EXPECT_THAT(ports_by_vlan(ports_of(records, {.vlan = 4095}), false, 4095), HasSubstr("\n4095  b,c   tagged  2\n"));
    EXPECT_THAT(ports_by_vlan(ports_of(records, {.vlan = 0}), false, 0), HasSubstr("\n0     a     tagged    1\n"));
}

TEST(ShowVlan, TheArrayIsThatOfLinuxBridges)
{
    const with_ports ports;
    vlan_records records = some_records();
    EXPECT_EQ(vlan_json(ports_of(records, {})),
              R"([{"ifname":"Ethernet0","vlans":[{"vlan":2,"vlanEnd":5},{"vlan":7},)"
              R"({"vlan":10,"flags":["PVID","Egress Untagged"]}],"users":["l2","qos"],"db":4,"port":268435457,)"
              R"("pvid":10,"pvid_set":10},)"
              R"({"ifname":"Ethernet1","vlans":[{"vlan":1,"flags":["PVID","Egress Untagged"]},{"vlan":2,"vlanEnd":3}],)"
              R"("users":["l2"],"db":4,"port":268435458,"pvid":1,"pvid_set":1},)"
              R"({"ifname":"Ethernet1","vlans":[{"vlan":2,"vlanEnd":3}],)"
              R"("users":["qos"],"db":4,"port":268435458,"pvid":1,"pvid_set":2},)"
              R"({"ifname":"Ethernet2","vlans":[],"users":[],"db":4,"port":268435459,"pvid":20}])");
    EXPECT_EQ(vlan_json({}), "[]");
}

TEST(ShowVlan, InTheArrayADefaultVlanStandsAloneAndFlagsEndARange)
{
    struct row {
        std::vector<range> carried;
        std::vector<range> untagged;
        uint32_t pvid;
        const char *vlans;
    };
    const row rows[] = {
        {{{1, 9}},
         {{1, 9}},
         5,
         R"({"vlan":1,"vlanEnd":4,"flags":["Egress Untagged"]},{"vlan":5,"flags":["PVID","Egress Untagged"]},)"
         R"({"vlan":6,"vlanEnd":9,"flags":["Egress Untagged"]})"},
        {{{1, 9}},
         {{4, 5}},
         0,
         R"({"vlan":1,"vlanEnd":3},{"vlan":4,"vlanEnd":5,"flags":["Egress Untagged"]},{"vlan":6,"vlanEnd":9})"},
        {{{1, 3}}, {}, 2, R"({"vlan":1},{"vlan":2,"flags":["PVID"]},{"vlan":3})"},
        {{{1, 3}}, {}, 7, R"({"vlan":1,"vlanEnd":3})"},
        {{{0, 1}, {4093, 4095}},
         {},
         4094,
         R"({"vlan":0,"vlanEnd":1},{"vlan":4093},{"vlan":4094,"flags":["PVID"]},{"vlan":4095})"},
        {{{0, 4095}}, {}, 0, R"({"vlan":0,"vlanEnd":4095})"},
    };
    for (const row &of : rows) {
        vlan_records records;
        records.vlans = {{4, 77, "\xff", vlans(of.carried), vlans(of.untagged)}};
        if (of.pvid != 0)
            records.counting = {{4, 77, "", of.pvid}};
        const std::string pvid = of.pvid == 0 ? "" : ",\"pvid\":" + std::to_string(of.pvid);
        EXPECT_EQ(vlan_json(ports_of(records, {})), std::string(R"([{"ifname":"77","vlans":[)") + of.vlans +
                                                        "],\"users\":[\"\xef\xbf\xbd\"],\"db\":4,\"port\":77" + pvid +
                                                        "}]");
    }
}

// ---- reading --------------------------------------------------------------------------------------------------------

TEST(ShowVlan, ReadsWhatUsersOfTheLibraryHavePublished)
{
    publisher of("mem:vlans", {"l2", "name with blanks, / and \xc3\xbc"});
    of.carry("l2", PORT + 1, vlans({{1, 1}, {4095, 4095}}), one(1));
    of.carry("name with blanks, / and \xc3\xbc", 1'000'000, one(4095), {});
    of.set_pvid("l2", PORT + 1, 1);
    of.set_pvid("name with blanks, / and \xc3\xbc", PORT + 1, 4094);
    of.decide(PORT + 1, 4094);
    of.decide(PORT + 1, 7, 5);
    of.wait();
    const vlan_query query{.store = "mem:vlans"};
    EXPECT_THAT(texts(ports_of(read(query), query)),
                ElementsAre("1000000 0: name with blanks, / and \xc3\xbc sets 0 untagged - tagged 4095",
                            "0x10000001 4094: l2 sets 1 untagged 1 tagged 4095",
                            "0x10000001 4094: name with blanks, / and \xc3\xbc sets 4094 untagged - tagged -"));
    const with_ports ports;
    EXPECT_THAT(texts(ports_of(read(query), query)),
                ElementsAre("Ethernet0 4094: l2 sets 1 untagged 1 tagged 4095",
                            "Ethernet0 4094: name with blanks, / and \xc3\xbc sets 4094 untagged - tagged 4095"));
    const vlan_query users{.store = "mem:vlans", .databases = {4, 5}, .user = "l2"};
    EXPECT_THAT(texts(ports_of(read(users), users)), ElementsAre("Ethernet0 4094: l2 sets 1 untagged 1 tagged 4095"));
    const vlan_query elsewhere{.store = "mem:vlans", .port = PORT + 2};
    EXPECT_THAT(texts(ports_of(read(elsewhere), elsewhere)), IsEmpty());
}

TEST(ShowVlan, RecordsThatMakeNoSenseAreNamedAndTheOthersRead)
{
    publisher of("mem:vlans", {"good"});
    std::vector<uint32_t> word[3] = {{6}, {3}, {6}}, many[3] = {std::vector<uint32_t>(129, 1), {0}, {0}};
    const uint32_t zero[3] = {0, 0, 0}, crooked[3] = {33, 4064, 1}, beyond[3] = {0, 4096, 0};
    of.write("a\nb", 1, word, crooked);
    of.write("b", 2, many, zero);
    of.write("c", 3, word, beyond);
    of.write("d", 4, word, zero);
    of.carry("good", 5, one(9), one(9));
    of.decide(6, 4095);
    of.decide(7, 0);
    of.wait();
    const vlan_query query{.store = "mem:vlans"};
    const vlan_records records = read(query);
    EXPECT_THAT(
        records.faults,
        ElementsAre("database 4, port 6: default VLAN: 4095 is no VLAN",
                    "database 4, user a\\x0ab, port 1: VLANs: its start 33 is not a multiple of 32; multicast "
                    "VLANs: its start 1 is not a multiple of 32",
                    "database 4, user b, port 2: VLANs: 129 words from VLAN 0 on go beyond VLAN 4095",
                    "database 4, user c, port 3: untagged VLANs: 1 word from VLAN 4096 on go beyond VLAN 4095"));
    EXPECT_THAT(texts(ports_of(records, query)),
                ElementsAre("4 0: d sets 0 untagged 1 tagged 2", "5 0: good sets 0 untagged 9 tagged -"));
    EXPECT_THAT(read({.store = "mem:vlans", .user = "b"}).faults.size(), 2U);  // and what counts
    EXPECT_THAT(read({.store = "mem:vlans", .port = 3}).faults.size(), 1U);
}

// Of two users one has given the port's id and one its index.
TEST(ShowVlan, TwoDefaultVlansThatCountOnOnePortAreSaidToBeTwo)
{
    const with_ports ports;
    publisher of("mem:vlans", {});
    of.decide(PORT + 1, 10);
    of.decide(1'000'000, 10);
    of.decide(PORT + 2, 10);
    of.wait();
    const vlan_query query{.store = "mem:vlans"};
    const vlan_records records = read(query);
    EXPECT_THAT(records.faults, ElementsAre("database 4, port Ethernet0: default VLAN: 10 stands there under another "
                                            "number of it"));
    EXPECT_THAT(texts(ports_of(records, query)),
                ElementsAre("Ethernet0 10: sets 0 untagged - tagged -", "Ethernet1 10: sets 0 untagged - tagged -"));
}

// Every other VLAN of 512 ports, untagged on every other port: nothing that could be a range.
TEST(ShowVlan, AllVlansOfAllPortsAreReadAndTold)
{
    constexpr uint32_t PORTS = 512;
    vlan_set carried, none;
    for (uint32_t vlan = 1; vlan <= 4094; vlan += 2)
        carried.add(vlan);
    publisher of("mem:vlans", {"l2_all"});
    for (uint32_t port = 1; port <= PORTS; ++port)
        of.carry("l2_all", PORT + port, carried, port % 2 == 0 ? carried : none);
    of.wait();
    const vlan_query query{.store = "mem:vlans"};
    const std::vector<port_view> ports = ports_of(read(query), query);
    ASSERT_EQ(ports.size(), PORTS);
    const std::string by_vlan = ports_by_vlan(ports, false, {});
    EXPECT_EQ(std::count(by_vlan.begin(), by_vlan.end(), '\n'), 2 * 2047 + 2);
    EXPECT_EQ(std::count(by_vlan.begin(), by_vlan.end(), ','), int64_t{2047} * (PORTS - 2) + 1);
    EXPECT_THAT(by_vlan, EndsWith("\n2047 VLANs on 512 ports, 1 user\n"));
    const std::string by_port = vlans_by_port(ports, false);
    EXPECT_EQ(std::count(by_port.begin(), by_port.end(), '\n'), PORTS + 2);
    const std::string array = vlan_json(ports);
    EXPECT_EQ(std::count(array.begin(), array.end(), '['), 1 + 2 * int64_t{PORTS} + int64_t{PORTS} / 2 * 2047);
}

// ---- the program ----------------------------------------------------------------------------------------------------

TEST(ShowVlanProgram, ShowsWhatAServerHoldsAndWritesNothing)
{
    const support::redis_server redis;
    publisher of(redis.url(), {"l2_shown", "qos_shown"});
    for (const char *user : {"l2_shown", "qos_shown"})
        of.carry(user, PORT + 1, vlans({{2, 5}, {7, 7}, {10, 10}}), one(10));
    of.carry("l2_shown", PORT + 2, vlans({{2, 5}}), {});
    of.set_pvid("l2_shown", PORT + 1, 10);
    of.set_pvid("qos_shown", PORT + 1, 10);
    of.decide(PORT + 1, 10);
    of.decide(PORT + 2, 2, 5);
    of.wait();
    const std::string before = all_content(redis);
    const with_ports ports;

    const outcome seen = show_vlan({"--store", redis.url(), "--ports", ports.path()});
    EXPECT_EQ(seen.status, 0) << seen.err;
    EXPECT_EQ(seen.out,
              "VLAN  USER                AS        PORTS\n"
              "2-5   qos_shown           tagged    Ethernet0\n"
              "2-5   l2_shown            tagged    Ethernet0,Ethernet1\n"
              "7     l2_shown,qos_shown  tagged    Ethernet0\n"
              "10    l2_shown,qos_shown  untagged  Ethernet0\n"
              "10    l2_shown,qos_shown  pvid      Ethernet0\n"
              "6 VLANs on 2 ports, 2 users\n");
    EXPECT_THAT(seen.err, IsEmpty());
    const outcome by_port = show_vlan({"--store", redis.url(), "--by", "port"});
    EXPECT_EQ(by_port.status, 0) << by_port.err;
    EXPECT_EQ(by_port.out,
              "PORT        PVID  USER                SETS  UNTAGGED  TAGGED\n"
              "0x10000001    10  l2_shown,qos_shown    10  10        2-5,7\n"
              "0x10000002     -  l2_shown               -  -         2-5\n"
              "6 VLANs on 2 ports, 2 users\n");
    const outcome array =
        show_vlan({"--store", redis.url(), "--json", "--port", "0x10000002", "--db", "5", "--db", "4"});
    EXPECT_EQ(array.status, 0) << array.err;
    EXPECT_EQ(
        array.out,
        R"([{"ifname":"0x10000002","vlans":[{"vlan":2,"vlanEnd":5}],"users":["l2_shown"],"db":4,"port":268435458},)"
        R"({"ifname":"0x10000002","vlans":[],"users":[],"db":5,"port":268435458,"pvid":2}])"
        "\n");
    EXPECT_THAT(array.err, IsEmpty());
    for (const char *port : {"Ethernet1", "1000001", "268435458"})
        EXPECT_THAT(show_vlan({"--store", redis.url(), "--port", port, "--ports", ports.path(), "--vlan", "3"}).out,
                    "VLAN  USER      AS      PORTS\n"
                    "3     l2_shown  tagged  Ethernet1\n"
                    "1 VLAN on 1 port, 1 user\n");
    EXPECT_EQ(show_vlan({"--store", redis.url(), "--user", "nobody"}).out, "0 VLANs on 0 ports, 0 users\n");
    EXPECT_EQ(show_vlan({"--store", redis.url(), "--vlan", "6"}).out, "0 VLANs on 0 ports, 0 users\n");
    EXPECT_EQ(all_content(redis), before);
}

TEST(ShowVlanProgram, ShowsWhichDefaultVlanARunningServiceLetsCount)
{
    const support::redis_server redis;
    child service({EBRIDGED_PROGRAM, "--store", redis.url()});
    ASSERT_TRUE(service.wait_for_error_text("serving"));
    publisher of(redis.url(), {"first", "last"});
    of.set_pvid("first", PORT + 1, 10);
    of.wait(1);
    of.set_pvid("last", PORT + 1, 20);
    of.wait(1);
    EXPECT_EQ(show_vlan({"--store", redis.url(), "--by", "port"}).out,
              "PORT        PVID  USER   SETS  UNTAGGED  TAGGED\n"
              "0x10000001    20  first    10  -         -\n"
              "0x10000001    20  last     20  -         -\n"
              "0 VLANs on 1 port, 2 users\n");
    of.set_pvid("last", PORT + 1, 0);
    of.wait(1);
    EXPECT_EQ(show_vlan({"--store", redis.url()}).out,
              "VLAN  USER   AS    PORTS\n"
              "10    first  pvid  0x10000001\n"
              "0 VLANs on 1 port, 1 user\n");
    service.signal(SIGTERM);
    EXPECT_EQ(service.finish().status, 0);
}

TEST(ShowVlanProgram, ShowsWhatARunMakesOfAConfiguration)
{
    const temporary_file config(R"({"VLAN": {"Vlan10": {"vlanid": "10"}, "Vlan11": {"vlanid": "11"}},
                                    "PORT": {"Ethernet0": {"lanes": "1"}, "Ethernet1": {"lanes": "2"}},
                                    "VLAN_MEMBER": {"Vlan10|Ethernet0": {"tagging_mode": "untagged"},
                                                    "Vlan10|Ethernet1": {"tagging_mode": "tagged"},
                                                    "Vlan11|Ethernet1": {"tagging_mode": "tagged"}}})");
    const support::redis_server redis;
    child service({EBRIDGED_PROGRAM, "--store", redis.url()});
    ASSERT_TRUE(service.wait_for_error_text("serving"));
    const outcome brought_up = run({EBRIDGE_PROGRAM, "run", config.path(), "--store", redis.url()});
    ASSERT_EQ(brought_up.status, 0) << brought_up.out << brought_up.err;
    EXPECT_EQ(show_vlan({"--store", redis.url(), "--ports", config.path(), "--by", "port"}).out,
              "PORT       PVID  USER         SETS  UNTAGGED  TAGGED\n"
              "Ethernet0    10  ebridge_run    10  10        -\n"
              "Ethernet1     -  ebridge_run     -  -         10-11\n"
              "2 VLANs on 2 ports, 1 user\n");
    service.signal(SIGTERM);
    EXPECT_EQ(service.finish().status, 0);
}

TEST(ShowVlanProgram, ARecordThatMakesNoSenseIsALineAndTheStatusOne)
{
    const support::redis_server redis;
    publisher of(redis.url(), {"good_one"});
    std::vector<uint32_t> word[3] = {{6}, {2}, {6}};
    const uint32_t crooked[3] = {33, 0, 0};
    of.write("bad", PORT + 1, word, crooked);
    of.carry("good_one", PORT + 2, one(9), {});
    of.wait();
    const outcome seen = show_vlan({"--store", redis.url(), "--json"});
    EXPECT_EQ(seen.status, 1);
    EXPECT_EQ(seen.err,
              "ebridge: database 4, user bad, port 0x10000001: VLANs: its start 33 is not a multiple of 32\n");
    EXPECT_EQ(seen.out, R"([{"ifname":"0x10000002","vlans":[{"vlan":9}],"users":["good_one"],"db":4,"port":268435458}])"
                        "\n");
    EXPECT_EQ(show_vlan({"--store", redis.url(), "--port", "0x10000002"}).status, 0);
}

TEST(ShowVlanProgram, WhatIsNotThereIsOneLine)
{
    const std::string nobody = "redis://127.0.0.1:" + std::to_string(support::free_port());
    expect_one_line(show_vlan({"--store", nobody}), 3, nobody + ": the store cannot be reached");
    expect_one_line(show_vlan({"--store", "nowhere:x", "--json"}), 3, "malformed URL");
}

TEST(ShowVlanProgram, WrongUsageIsOneLine)
{
    const std::string see = " (see ebridge show vlan --help)\n", url = "redis://127.0.0.1:1";
    const with_ports ports;
    const temporary_file broken("# name lanes\nEthernet0 x\n");
    expect_one_line(show_vlan({}), 2, "--store is required" + see);
    expect_one_line(show_vlan({"--store", "mem:x"}), 2, "mem:x lives within one process, no other can read it" + see);
    expect_one_line(show_vlan({"--store", url, "--db", "99"}), 2, url + ": no such database");
    expect_one_line(show_vlan({"--store", url, "--by", "user"}), 2, see);
    for (const char *vlan : {"4096", "-1", "ten", "1-5"})
        expect_one_line(show_vlan({"--store", url, "--vlan", vlan}), 2, see);
    expect_one_line(show_vlan({"--store", url, "--port", "Ethernet0"}), 2,
                    "--port: Ethernet0 is no number, and without --ports no port has a name\n");
    expect_one_line(show_vlan({"--store", url, "--port", "Ethernet\n9", "--ports", ports.path()}), 2,
                    "--port: Ethernet\\x0a9 is no number, and no port of that name is known\n");
    expect_one_line(show_vlan({"--store", url, "--ports", "/nowhere/ports.ini"}), 2, "/nowhere/ports.ini: ");
    expect_one_line(show_vlan({"--store", url, "--ports", broken.path()}), 2, broken.path() + ":2: ");
    expect_one_line(show_vlan({"--store", url, "more"}), 2, see);
}

TEST(ShowVlanProgram, HelpTeachesByExampleAndNamesTheStatuses)
{
    const outcome seen = show_vlan({"--help"});
    EXPECT_EQ(seen.status, 0);
    EXPECT_THAT(seen.out, HasSubstr("ebridge show vlan --store redis://127.0.0.1"));
    EXPECT_THAT(seen.out, HasSubstr("Exit status:"));
    EXPECT_THAT(run({EBRIDGE_PROGRAM, "--help"}).out, HasSubstr("ebridge show vlan"));
    EXPECT_THAT(run({EBRIDGE_PROGRAM, "show", "--help"}).out, HasSubstr("ebridge show vlan"));
}
