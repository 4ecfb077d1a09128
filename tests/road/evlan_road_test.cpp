// The road of one evlan: request, three fields, answer, callbacks, release now and later.
#include <gmock/gmock.h>

#include "rule_results.hpp"
#include "world.hpp"

using namespace road;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

// "app" requests and follows its own sessions; "watcher" hears those of all users through app's subscription; "other"
// hears only its own.
class EvlanRoad : public world
{
  protected:
    EvlanRoad()
    {
        start_service();
        ebridge_args app = user(0, "app");
        app.auto_subscribe = 1;
        init(app);
        ebridge_args watcher = user(1, "watcher");
        watcher.evlan_data_type = 2;
        init(watcher);
        init(user(2, "other"));
        settle();
    }

    // Both listeners' events in the order in which the library goes through its users.
    static std::vector<std::string> in_order(const std::string &app, const std::string &watcher)
    {
        std::vector<std::string> lines;
        for (const std::string &name : support::users_in_order()) {
            if (name == "app")
                lines.push_back(app);
            if (name == "watcher")
                lines.push_back(watcher);
        }
        return lines;
    }

    // A refused requester hears -1 on every callback that it has, whatever the type; then the refused session's removal
    // is heard like any other.
    static std::vector<std::string> refusal_of_8()
    {
        std::vector<std::string> lines{"app vlan -1 for app/8", "app evlan -1 for app/8"};
        for (const std::string &line :
             in_order("app release -1 of app/8 event 2", "watcher release -1 of app/8 event 2"))
            lines.push_back(line);
        return lines;
    }

    static constexpr uint32_t FIRST = 0x20000001;
};

}  // namespace

TEST_F(EvlanRoad, ARequestWritesThreeFieldsAndTheServiceTwo)
{
    spy(APP_DB);
    ASSERT_EQ(request("app", VXLAN, 7), 0);
    settle();
    EXPECT_THAT(written, ElementsAre("6 request_value,priority,request", "6 reply_value,reply"));
    const session held = only_session(APP_DB);
    EXPECT_EQ(held.user, "app");
    EXPECT_EQ(held.request_value, 0x20000000U);
    EXPECT_EQ(held.request, 1);
    EXPECT_EQ(held.reply, 1);
    EXPECT_EQ(held.reply_value, FIRST);
    EXPECT_EQ(held.mom_db, 0);
}

TEST_F(EvlanRoad, TheAnswerReachesEveryUserInScopeInRegistryOrder)
{
    ASSERT_EQ(request("app", VXLAN, 7), 0);
    EXPECT_THAT(events, IsEmpty());
    settle();
    EXPECT_EQ(events, in_order("app evlan 0x20000001 for app/7", "watcher evlan 0x20000001 for app/7"));
    EXPECT_EQ(id_of(VXLAN, 7), FIRST);
    EXPECT_NE(sw_evlan_db_get_item(0, "app", FIRST), nullptr);
    EXPECT_NE(sw_evlan_db_get_item(0, "watcher", FIRST), nullptr);
    EXPECT_EQ(sw_evlan_db_get_item(0, "other", FIRST), nullptr);
}

TEST_F(EvlanRoad, AVlanIsAnsweredWithItsNumber)
{
    UBridge__VlanAppIndex vlan = U_BRIDGE__VLAN_APP_INDEX__INIT;
    vlan.user = const_cast<char *>("app");
    vlan.keyid = 100;
    vlan.type = 16;
    ASSERT_EQ(sw_vlan_request(&vlan, 100, U_BRIDGE__RES_PRIORITY__LEVEL_0), 0);
    settle();
    EXPECT_EQ(events, in_order("app vlan 100 for app/100", "watcher vlan 100 for app/100"));
    EXPECT_EQ(id_of(VLAN, 100), 0x10000064U);
}

TEST_F(EvlanRoad, AnIdOfATypeAbove127IsGrantedLikeAnyOther)
{
    ASSERT_EQ(request("app", L3VPN, 5), 0);
    settle();
    EXPECT_EQ(id_of(L3VPN, 5), 0x80000001U);
    ASSERT_EQ(events.size(), 2U);
    EXPECT_THAT(events[0], testing::HasSubstr("evlan 0x80000001 for app/5"));
}

TEST_F(EvlanRoad, AnAnsweredSessionIsMirroredForTheDataPlane)
{
    ASSERT_EQ(request("app", VXLAN, 7), 0);
    settle();
    const session mirror = only_session(UDP_DB);
    EXPECT_EQ(mirror.user, "app");
    EXPECT_EQ(mirror.keyid, 7U);
    EXPECT_EQ(mirror.request_value, 0x20000000U);
    EXPECT_EQ(mirror.request, 1);
    EXPECT_EQ(mirror.reply_value, FIRST);
    EXPECT_EQ(mirror.reply, 1);
    EXPECT_EQ(mirror.mom_db, 4);
}

TEST_F(EvlanRoad, AReleaseNowIsHeardByAllAndFreesTheId)
{
    request("app", VXLAN, 7);
    settle();
    events.clear();
    ASSERT_EQ(release_now("app", VXLAN, 7), 0);
    settle();
    EXPECT_EQ(events,
              in_order("app release 0x20000001 of app/7 event 2", "watcher release 0x20000001 of app/7 event 2"));
    EXPECT_EQ(id_of(VXLAN, 7), 0U);
    EXPECT_THAT(sessions(APP_DB), IsEmpty());
    EXPECT_THAT(sessions(UDP_DB), IsEmpty());
    ASSERT_EQ(request("other", VXLAN, 8, FIRST), 0);
    settle();
    EXPECT_EQ(only_session(APP_DB).reply_value, FIRST);
}

TEST_F(EvlanRoad, ADelayedReleaseHappensAfterFortySeconds)
{
    request("app", VXLAN, 7);
    settle();
    events.clear();
    UBridge__EvlanAppIndex app = index("app", VXLAN, 7);
    ASSERT_EQ(sw_evlan_release(&app), 0);
    advance(39 * SECOND);
    EXPECT_THAT(events, IsEmpty());
    EXPECT_EQ(sessions(APP_DB).size(), 1U);
    advance(2 * SECOND);
    EXPECT_EQ(events,
              in_order("app release 0x20000001 of app/7 event 2", "watcher release 0x20000001 of app/7 event 2"));
    EXPECT_THAT(sessions(APP_DB), IsEmpty());
    EXPECT_THAT(sessions(UDP_DB), IsEmpty());
    EXPECT_EQ(stat().keys, 0U);
}

TEST_F(EvlanRoad, ARequestWithinTheDelayKeepsTheId)
{
    request("app", VXLAN, 7);
    settle();
    UBridge__EvlanAppIndex app = index("app", VXLAN, 7);
    ASSERT_EQ(sw_evlan_release(&app), 0);
    advance(30 * SECOND);
    ASSERT_EQ(request("app", VXLAN, 7), 0);
    events.clear();
    advance(300 * SECOND);
    EXPECT_EQ(events, in_order("app evlan 0x20000001 for app/7", "watcher evlan 0x20000001 for app/7"));
    EXPECT_EQ(id_of(VXLAN, 7), FIRST);
    EXPECT_EQ(only_session(APP_DB).reply_value, FIRST);
}

TEST_F(EvlanRoad, AVlanIsReleasedAtOnceWhateverTheDelay)
{
    request("app", VLAN, 100, 0x10000064);
    settle();
    events.clear();
    UBridge__EvlanAppIndex app = index("app", VLAN, 100);
    ASSERT_EQ(sw_evlan_release(&app), 0);
    settle();
    EXPECT_EQ(events,
              in_order("app release 0x10000064 of app/100 event 2", "watcher release 0x10000064 of app/100 event 2"));
}

TEST_F(EvlanRoad, ARefusalIsAnsweredToTheRequesterAloneAndDeletesTheSession)
{
    write_range(VXLAN, 1, 1);
    request("app", VXLAN, 7);
    settle();
    events.clear();
    ASSERT_EQ(request("app", VXLAN, 8), 0);
    settle();
    EXPECT_EQ(events, refusal_of_8());
    EXPECT_EQ(sessions(APP_DB).size(), 1U);
    EXPECT_EQ(sessions(UDP_DB).size(), 1U);
    EXPECT_EQ(g_diagnosis_stat.evlan_auto_release, 1U);
    EXPECT_EQ(sw_evlan_get_err_msg_array()[0].value[1], 8U);
    EXPECT_EQ(stat().refused, 1U);
}

TEST_F(EvlanRoad, AWantedIdOfAnotherKeyIsRefused)
{
    request("other", VXLAN, 7, 0x20000005);
    settle();
    events.clear();
    ASSERT_EQ(request("app", VXLAN, 8, 0x20000005), 0);
    settle();
    EXPECT_EQ(events, refusal_of_8());
}

TEST_F(EvlanRoad, UsersWhoAskForTheSameKeyShareTheId)
{
    request("app", VXLAN, 7);
    request("other", VXLAN, 7);
    settle();
    for (const auto &[key, held] : sessions(APP_DB))
        EXPECT_EQ(held.reply_value, FIRST) << key;
    release_now("app", VXLAN, 7);
    settle();
    EXPECT_EQ(stat().keys, 1U);
    EXPECT_EQ(only_session(APP_DB).user, "other");
    EXPECT_EQ(only_session(UDP_DB).user, "other");
    release_now("other", VXLAN, 7);
    settle();
    EXPECT_EQ(stat().keys, 0U);
}

TEST_F(EvlanRoad, AUsersOwnSubscriptionFunctionRunsBeforeTheAnswerIsApplied)
{
    static bool mapped_before = true;
    static int calls = 0;
    const auto own = [](qz_mom_handle *, const qz_mom_notification *msg, void *) {
        if (msg->cmd == QZ_MOM_CMD_HMSET) {
            ++calls;
            mapped_before = id_of(VXLAN, 7) != 0;
        }
        return 0;
    };
    ASSERT_EQ(sw_evlan_subscribe_with_db("app", APP_DB, own, nullptr), 0);
    settle();
    request("app", VXLAN, 7);
    settle();
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(mapped_before);
    EXPECT_EQ(id_of(VXLAN, 7), FIRST);
}

TEST_F(EvlanRoad, TenThousandEvlansAreGrantedHeardAndReleased)
{
    constexpr uint32_t COUNT = 10'000;
    for (uint32_t key = 1; key <= COUNT; ++key) {
        ASSERT_EQ(request("app", VXLAN, key), 0);
        if (key % 500 == 0)
            settle();
    }
    EXPECT_EQ(events.size(), 2 * COUNT);
    for (uint32_t key = 1; key <= COUNT; ++key)
        ASSERT_EQ(id_of(VXLAN, key), 0x20000000U + key);
    EXPECT_EQ(sessions(UDP_DB).size(), COUNT);
    events.clear();
    for (uint32_t key = 1; key <= COUNT; ++key) {
        ASSERT_EQ(release_now("app", VXLAN, key), 0);
        if (key % 500 == 0)
            settle();
    }
    EXPECT_EQ(events.size(), 2 * COUNT);
    EXPECT_EQ(stat().keys, 0U);
    EXPECT_EQ(qz_mom_embedded_count(STORE, APP_DB), 0);
    EXPECT_EQ(qz_mom_embedded_count(STORE, UDP_DB), 0);
}

namespace
{

class DataPlaneRoad : public world
{
};

}  // namespace

TEST_F(DataPlaneRoad, AUserOfTheDataPlaneHearsEveryGrantAndRelease)
{
    start_service();
    ebridge_args plane = user(0, "plane");
    plane.mom_db = UDP_DB;
    plane.auto_subscribe = 1;
    plane.evlan_data_type = 2;
    init(plane);
    init(user(1, "app"));
    settle();
    request("app", VXLAN, 7);
    settle();
    EXPECT_THAT(events,
                testing::UnorderedElementsAre("plane evlan 0x20000001 for app/7", "app evlan 0x20000001 for app/7"));
    events.clear();
    release_now("app", VXLAN, 7);
    settle();
    EXPECT_THAT(events, testing::UnorderedElementsAre("plane release 0x20000001 of app/7 event 2",
                                                      "app release 0x20000001 of app/7 event 2"));
}

TEST_F(DataPlaneRoad, AUserThatComesLateScansWhatIsThere)
{
    start_service();
    init(user(1, "app"));
    request("app", VXLAN, 7);
    request("app", VLAN, 100, 0x10000064);
    settle();
    EXPECT_THAT(events, IsEmpty());
    ebridge_args plane = user(0, "plane");
    plane.mom_db = UDP_DB;
    plane.auto_subscribe = 1;
    plane.evlan_data_type = 2;
    init(plane);
    settle();
    EXPECT_THAT(events, testing::IsSupersetOf({"plane evlan 0x20000001 for app/7", "plane vlan 100 for app/100"}));
    EXPECT_EQ(id_of(VXLAN, 7), 0x20000001U);
}
