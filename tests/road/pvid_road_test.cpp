// Default VLANs of ports on the whole road: users set them, the service decides which count and publishes the table, and
// the users of a process hear every change of it once.
#include <gmock/gmock.h>

#include <algorithm>
#include <array>

#include "libddm.h"
#include "rule_results.hpp"
#include "world.hpp"

using testing::ElementsAre;
using testing::IsEmpty;

namespace road
{
namespace
{

constexpr uint32_t GLOBAL = LIBDDM_KIND_GLOBAL << 24, LOCAL = LIBDDM_KIND_LOCAL << 24;
constexpr uint32_t PORT = 0x10000000;  // eport id of a port 0; port n has interface index 100 + n

std::vector<std::string> changes;  // "PORT: OLD -> NEW", as the users hear it

int32_t note_change(uint32_t ifx, uint16_t new_pvid, uint16_t old_pvid, sw_vlan_pvid_entry *change)
{
    EXPECT_EQ(change->ifx, ifx);
    EXPECT_EQ(change->new_pvid, new_pvid);
    EXPECT_EQ(change->old_pvid, old_pvid);
    changes.push_back(std::to_string(ifx - 100) + ": " + std::to_string(old_pvid) + " -> " + std::to_string(new_pvid));
    return 0;
}

// Each notes that it has been told; the one that is to end the delivery says so.
std::vector<int> told;
int ends_it = -1;
template <int User>
int32_t note_told(uint32_t, uint16_t, uint16_t, sw_vlan_pvid_entry *)
{
    told.push_back(User);
    return ends_it == User ? -6 : -1;
}

void have_ports(uint32_t first, uint32_t last)
{
    for (uint32_t n = first; n <= last; ++n) {
        const libddm_port row{
            .ifx = 100 + n, .gphyid = GLOBAL | n, .lphyid = LOCAL | n, .unit = 0, .port = static_cast<int32_t>(n)};
        EXPECT_EQ(libddm_table_add(&row), 0);
    }
}

// A record of the table, as somebody might write it.
struct table_entry {
    UBridge__PortIndex index = U_BRIDGE__PORT_INDEX__INIT;
    UBridge__PvidTable record = U_BRIDGE__PVID_TABLE__INIT;
    explicit table_entry(uint32_t port, int32_t pvid = 0, int32_t old = 0)
    {
        index.port = static_cast<decltype(index.port)>(PORT | port);
        record.index = &index;
        record.new_pvid = pvid;
        record.old_pvid = old;
    }
    const ProtobufCMessage *message() const { return &record.base; }
    table_entry(const table_entry &) = delete;
    table_entry &operator=(const table_entry &) = delete;
};

class Pvids : public world
{
  protected:
    Pvids()
    {
        have_ports(1, 512);
        changes.clear();
    }
    ~Pvids() override { libddm_table_clear(); }

    // Three users of whom the first hears of changes for the process.
    void begin()
    {
        for (int n = 0; n < 3; ++n) {
            ebridge_args args = user(n, NAMES[n]);
            args.pvid_change = n == 0 ? note_change : nullptr;
            init(args);
        }
        const auto subscribe = [](const char *name) { return sw_vlan_pvid_subscribe(name, nullptr, nullptr); };
        EXPECT_EQ(subscribe(NAMES[0]), 0);
        settle();
    }
    void serve(const std::vector<uint32_t> &databases = {APP_DB})
    {
        start_service(databases);
        settle();
    }
    void set(const char *user, uint32_t port, int32_t vid)
    {
        EXPECT_EQ(sw_vlan_pvid_set(user, PORT | port, vid), 0);
        settle();
    }
    std::vector<std::string> heard() { return std::exchange(changes, {}); }
    static int32_t pvid(uint32_t port)
    {
        int32_t vid = -1;
        EXPECT_EQ(sw_vlan_pvid_get(NAMES[0], 100 + port, &vid), 0);
        return vid;
    }
    // The table of a database: "PORT: OLD -> NEW".
    std::vector<std::string> table(uint32_t db)
    {
        std::vector<std::string> found;
        UBridge__PortIndex index = U_BRIDGE__PORT_INDEX__INIT;
        UBridge__PvidTable all = U_BRIDGE__PVID_TABLE__INIT;
        all.index = &index;
        qz_mom_scan(
            users, db, &all.base, 0,
            [](qz_mom_handle *, const qz_mom_notification *msg, void *to) {
                if (msg->end != QZ_MOM_END_SCAN) {
                    const auto *entry = static_cast<const UBridge__PvidTable *>(msg->value);
                    static_cast<std::vector<std::string> *>(to)->push_back(
                        std::to_string(static_cast<uint32_t>(entry->index->port) - PORT) + ": " +
                        std::to_string(entry->old_pvid) + " -> " + std::to_string(entry->new_pvid));
                }
                return 0;
            },
            &found);
        settle();
        return found;
    }

    static constexpr const char *NAMES[] = {"alpha", "beta", "gamma"};
};

TEST_F(Pvids, AUsersPvidIsHeardOnceAndStandsInBothDatabases)
{
    begin();
    serve();
    set("alpha", 1, 10);
    EXPECT_THAT(heard(), ElementsAre("1: 0 -> 10"));
    EXPECT_THAT(table(APP_DB), ElementsAre("1: 0 -> 10"));
    EXPECT_THAT(table(UDP_DB), ElementsAre("1: 0 -> 10"));
    EXPECT_EQ(pvid(1), 10);
    set("alpha", 1, 10);
    EXPECT_THAT(heard(), IsEmpty());
    set("alpha", 1, 20);
    EXPECT_THAT(heard(), ElementsAre("1: 10 -> 20"));
    set("alpha", 1, 0);
    EXPECT_THAT(heard(), ElementsAre("1: 20 -> 0"));
    EXPECT_THAT(table(APP_DB), IsEmpty());
    EXPECT_THAT(table(UDP_DB), IsEmpty());
    EXPECT_EQ(pvid(1), 0);
}

TEST_F(Pvids, TheLastOneWhoSetsItWinsAndTheOneBeforeItComesBack)
{
    begin();
    serve();
    set("alpha", 1, 10);
    set("beta", 1, 20);
    set("gamma", 1, 30);
    EXPECT_THAT(heard(), ElementsAre("1: 0 -> 10", "1: 10 -> 20", "1: 20 -> 30"));
    set("beta", 1, 0);
    EXPECT_THAT(heard(), IsEmpty());
    set("gamma", 1, 0);
    EXPECT_THAT(heard(), ElementsAre("1: 30 -> 10"));
    set("beta", 1, 20);
    set("alpha", 1, 10);
    EXPECT_THAT(heard(), ElementsAre("1: 10 -> 20", "1: 20 -> 10"));
}

TEST_F(Pvids, WhatWasSetBeforeTheServiceCameIsServed)
{
    begin();
    set("alpha", 1, 10);
    set("beta", 2, 20);
    EXPECT_THAT(heard(), IsEmpty());
    serve();
    EXPECT_THAT(heard(), testing::UnorderedElementsAre("1: 0 -> 10", "2: 0 -> 20"));
}

TEST_F(Pvids, ANewServiceTellsOnlyWhatHasChangedMeanwhileWithTheRightOldValue)
{
    begin();
    serve();
    set("gamma", 1, 30);
    set("alpha", 1, 10);
    set("beta", 2, 20);
    set("beta", 3, 30);
    heard();
    stop_service();
    serve();
    EXPECT_THAT(heard(), IsEmpty());
    stop_service();
    set("beta", 2, 21);
    set("beta", 3, 0);
    serve();
    EXPECT_THAT(heard(), testing::UnorderedElementsAre("2: 20 -> 21", "3: 30 -> 0"));
    set("alpha", 1, 0);
    EXPECT_THAT(heard(), ElementsAre("1: 10 -> 30"));
}

TEST_F(Pvids, EveryServedDatabaseHasTheTableOfAll)
{
    begin();
    serve({APP_DB, 6});
    set("alpha", 1, 10);
    EXPECT_THAT(table(6), ElementsAre("1: 0 -> 10"));
    EXPECT_THAT(table(UDP_DB), ElementsAre("1: 0 -> 10"));
}

TEST_F(Pvids, WhatIsNoVlanCountsAsNone)
{
    begin();
    serve();
    set("alpha", 1, 10);
    set("beta", 1, 4095);
    EXPECT_THAT(heard(), ElementsAre("1: 0 -> 10"));
    set("alpha", 1, 5000);
    EXPECT_THAT(heard(), ElementsAre("1: 10 -> 0"));
    EXPECT_THAT(service_log, testing::Contains(testing::HasSubstr("5000 is no VLAN")));
}

TEST_F(Pvids, ATableRecordThatSomebodyRemovesComesBack)
{
    begin();
    serve();
    set("alpha", 1, 10);
    EXPECT_EQ(qz_mom_del(users, UDP_DB, table_entry(1).message(), nullptr, nullptr), 0);
    settle();
    EXPECT_THAT(table(UDP_DB), ElementsAre("1: 0 -> 10"));
}

TEST_F(Pvids, ATableRecordThatSomebodyChangesIsChangedBack)
{
    begin();
    serve();
    set("alpha", 1, 10);
    EXPECT_EQ(qz_mom_set(users, APP_DB, table_entry(1, 77, 10).message(), nullptr, nullptr), 0);
    EXPECT_EQ(qz_mom_set(users, APP_DB, table_entry(2, 78).message(), nullptr, nullptr), 0);
    settle();
    EXPECT_THAT(heard(), ElementsAre("1: 0 -> 10", "1: 10 -> 77", "2: 0 -> 78", "1: 77 -> 10", "2: 78 -> 0"));
    EXPECT_THAT(table(APP_DB), ElementsAre("1: 77 -> 10"));
    EXPECT_THAT(table(UDP_DB), ElementsAre("1: 0 -> 10"));
}

// Such a record is in the way of one that is written whole.
TEST_F(Pvids, ATableRecordThatSomebodyWritesFieldByFieldIsReplaced)
{
    begin();
    const uint32_t fields[] = {11, 12};
    for (const uint32_t port : {1U, 2U})
        EXPECT_EQ(qz_mom_hmset(users, APP_DB, table_entry(port, 77).message(), fields, 2, nullptr, nullptr), 0);
    set("alpha", 1, 10);
    serve();
    EXPECT_THAT(table(APP_DB), ElementsAre("1: 0 -> 10"));
    EXPECT_EQ(qz_mom_hmset(users, APP_DB, table_entry(3, 77).message(), fields, 2, nullptr, nullptr), 0);
    set("alpha", 3, 30);
    EXPECT_THAT(table(APP_DB), ElementsAre("1: 0 -> 10", "3: 0 -> 30"));
    EXPECT_EQ(pvid(3), 30);
    EXPECT_EQ(stat().waiting_pvids, 0U);
}

TEST_F(Pvids, AUserThatSaysSoEndsTheDeliveryToThoseAfterIt)
{
    for (int n = 0; n < 3; ++n) {
        ebridge_args args = user(n, NAMES[n]);
        args.pvid_change = std::array{note_told<0>, note_told<1>, note_told<2>}[static_cast<size_t>(n)];
        init(args);
    }
    EXPECT_EQ(sw_ebridge_data_subscribe(NAMES[0]), 0);
    settle();
    serve();
    std::vector<int> order;
    for (const std::string &name : support::users_in_order())
        order.push_back(static_cast<int>(std::find(NAMES, NAMES + 3, name) - NAMES));
    for (size_t last = 0; last < order.size(); ++last) {
        ends_it = order[last];
        set("alpha", 1, 10 + static_cast<int32_t>(last));
        EXPECT_EQ(std::exchange(told, {}), std::vector<int>(order.begin(), order.begin() + 1 + static_cast<int>(last)));
    }
    EXPECT_EQ(pvid(1), 12);
}

// Its changes cannot be told, as nobody knows its interface. All others are, and its own when it is back.
TEST_F(Pvids, APortThatIsRemovedWhileItsPvidChanges)
{
    begin();
    serve();
    set("alpha", 1, 10);
    libddm_table_clear();
    have_ports(2, 512);
    set("alpha", 1, 20);
    set("beta", 2, 30);
    EXPECT_THAT(heard(), ElementsAre("1: 0 -> 10", "2: 0 -> 30"));
    EXPECT_THAT(table(UDP_DB), ElementsAre("1: 10 -> 20", "2: 0 -> 30"));
    have_ports(1, 1);
    set("beta", 1, 40);
    set("beta", 1, 0);
    set("alpha", 1, 0);
    EXPECT_THAT(heard(), ElementsAre("1: 20 -> 40", "1: 40 -> 20", "1: 20 -> 0"));
    EXPECT_EQ(pvid(1), 0);
}

TEST_F(Pvids, ADeadUsersPvidGoesWhenItsMarkFires)
{
    begin();
    serve();
    set("alpha", 1, 10);
    set("beta", 1, 20);
    heard();
    const qz_mom_timeval soon = {.sec = 5, .usec = 0};
    EXPECT_EQ(sw_vlan_port_vid_aging_flag_set("beta", &soon, nullptr, nullptr), 0);
    settle();
    advance(4 * SECOND);
    EXPECT_THAT(heard(), IsEmpty());
    advance(2 * SECOND);
    EXPECT_THAT(heard(), ElementsAre("1: 20 -> 10"));
}

TEST_F(Pvids, ManyPortsAreToldOnceEach)
{
    begin();
    serve();
    for (uint32_t port = 1; port <= 512; ++port)
        EXPECT_EQ(sw_vlan_pvid_set("alpha", PORT | port, static_cast<int32_t>(port)), 0);
    settle();
    EXPECT_EQ(heard().size(), 512U);
    EXPECT_EQ(stat().pvid_ports, 512U);
    EXPECT_EQ(stat().pvids, 1024U);
    EXPECT_EQ(table(UDP_DB).size(), 512U);
}

}  // namespace
}  // namespace road
