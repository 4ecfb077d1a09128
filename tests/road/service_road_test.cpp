// The service on the store: restarts, lost connections, full queues, ranges, records that somebody else left.
#include <gmock/gmock.h>

#include "world.hpp"

using namespace road;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

class ServiceRoad : public world
{
  protected:
    void follow()
    {
        ebridge_args app = user(0, "app");
        app.auto_subscribe = 1;
        init(app);
        settle();
    }
    void put_request(const char *user, uint32_t type, uint32_t keyid, uint32_t wanted)
    {
        put_session(APP_DB, {.user = user, .type = type, .keyid = keyid, .request_value = wanted, .request = 1});
    }
    // A session that some service has answered.
    void put_answered(const char *user, uint32_t keyid, uint32_t id)
    {
        put_session(APP_DB, {.user = user,
                             .type = VXLAN,
                             .keyid = keyid,
                             .request_value = VXLAN << 24,
                             .request = 1,
                             .reply_value = id,
                             .reply = 1});
    }
    // Id by user and key.
    std::map<std::string, uint32_t> answers(uint32_t db = APP_DB)
    {
        std::map<std::string, uint32_t> found;
        for (const auto &[key, held] : sessions(db))
            if (held.reply != 0)
                found[held.user + '/' + std::to_string(held.keyid)] = held.reply_value;
        return found;
    }
};

using ids = std::map<std::string, uint32_t>;

}  // namespace

TEST_F(ServiceRoad, RequestsThatWaitAtTheStartAreAnswered)
{
    put_request("a", VXLAN, 2, VXLAN << 24);
    put_request("a", VXLAN, 1, VXLAN << 24);
    start_service();
    EXPECT_EQ(answers(), (ids{{"a/1", 0x20000001}, {"a/2", 0x20000002}}));
}

TEST_F(ServiceRoad, ARestartChangesNoId)
{
    start_service();
    follow();
    for (uint32_t key : {30U, 10U, 20U})
        request("app", VXLAN, key);
    settle();
    const ids before = answers();
    events.clear();
    stop_service();
    request("app", VXLAN, 5);
    settle();
    start_service();
    ids after = answers();
    EXPECT_EQ(after["app/5"], 0x20000004U);
    after.erase("app/5");
    EXPECT_EQ(after, before);
    EXPECT_EQ(answers(UDP_DB).size(), 4U);
}

TEST_F(ServiceRoad, AKilledServiceLeavesItsIdsToTheNext)
{
    start_service();
    follow();
    for (uint32_t key = 1; key <= 50; ++key)
        request("app", VXLAN, key, key % 2 ? 0 : 0x20000000U + 2 * key);
    settle();
    const ids before = answers();
    request("app", VXLAN, 51);  // written, not yet heard by the service
    kill_service();
    settle();
    start_service();
    ids after = answers();
    EXPECT_EQ(after.erase("app/51"), 1U);
    EXPECT_EQ(after, before);
    EXPECT_EQ(stat().keys, 51U);
}

TEST_F(ServiceRoad, ARequestWrittenAgainWhileNobodyServedIsAnswered)
{
    start_service();
    follow();
    request("app", VXLAN, 7);
    settle();
    stop_service();
    events.clear();
    request("app", VXLAN, 7);
    settle();
    EXPECT_THAT(events, IsEmpty());
    start_service();
    EXPECT_THAT(events, ElementsAre("app evlan 0x20000001 for app/7"));
}

TEST_F(ServiceRoad, ASessionReleasedWhileNobodyServedIsFreeAndItsMirrorGoes)
{
    start_service();
    follow();
    request("app", VXLAN, 7);
    request("app", VXLAN, 8);
    settle();
    stop_service();
    release_now("app", VXLAN, 7);
    settle();
    EXPECT_EQ(sessions(UDP_DB).size(), 2U);
    start_service();
    EXPECT_EQ(answers(UDP_DB), (ids{{"app/8", 0x20000002}}));
    EXPECT_EQ(stat().keys, 1U);
}

// Its id is the next one's, so the removal has to be heard first; also of a session that is there again.
TEST_F(ServiceRoad, AMirrorOfWhatWasReleasedWhileNobodyServedGoesBeforeItsIdIsAnothers)
{
    start_service();
    follow();
    request("app", VXLAN, 7);
    request("app", VXLAN, 8);
    settle();
    stop_service();
    for (uint32_t key : {7U, 8U})
        release_now("app", VXLAN, key);
    for (uint32_t key : {1U, 8U})
        request("app", VXLAN, key);
    settle();
    spy(UDP_DB);
    start_service();
    const std::string grant = "6 request_value,priority,request,reply_value,reply,mom_db";
    EXPECT_THAT(written, ElementsAre("3", "3", grant, grant));
    EXPECT_EQ(answers(UDP_DB), (ids{{"app/1", 0x20000001}, {"app/8", 0x20000002}}));
}

TEST_F(ServiceRoad, MirrorsOfDatabasesThatItDoesNotServeAreLeftAlone)
{
    put_session(UDP_DB, {.user = "far",
                         .type = VXLAN,
                         .keyid = 1,
                         .request_value = VXLAN << 24,
                         .request = 1,
                         .reply_value = 0x20000009,
                         .reply = 1,
                         .mom_db = 5});
    put_session(UDP_DB, {.user = "gone",
                         .type = VXLAN,
                         .keyid = 1,
                         .request_value = VXLAN << 24,
                         .request = 1,
                         .reply_value = 0x20000009,
                         .reply = 1,
                         .mom_db = 4});
    start_service();
    EXPECT_EQ(only_session(UDP_DB).user, "far");
}

TEST_F(ServiceRoad, AnIdThatTwoKeysHoldStaysWithTheFirstInOrder)
{
    put_answered("b", 1, 0x20000003);
    put_answered("a", 2, 0x20000003);
    start_service();
    EXPECT_EQ(answers(), (ids{{"a/2", 0x20000003}, {"b/1", REFUSED}}));
    EXPECT_EQ(stat().keys, 1U);
    EXPECT_THAT(service_log, testing::Contains(HasSubstr("0x20000003 cannot be its id")));
}

TEST_F(ServiceRoad, AnAnswerLeavesAnExpiryMarkAlone)
{
    start_service();
    follow();
    request("app", VXLAN, 7);
    settle();
    stop_service();
    UBridge__EvlanAppIndex key = index("app", VXLAN, 7);
    UBridge__EvlanSession marked = U_BRIDGE__EVLAN_SESSION__INIT;
    marked.index = &key;
    const qz_mom_timeval delay{.sec = 10, .usec = 0};
    ASSERT_EQ(qz_mom_pexpire(users, APP_DB, &marked.base, QZ_MOM_EXPIRE_EVLAN_SESSION, &delay, nullptr, nullptr), 0);
    start_service();
    EXPECT_EQ(stat().answered, 1U);
    advance(11 * SECOND);
    EXPECT_THAT(sessions(APP_DB), IsEmpty());
    EXPECT_EQ(stat().keys, 0U);
}

TEST_F(ServiceRoad, AnAnswerBringsNoDeletedSessionBack)
{
    start_service();
    follow();
    request("app", VXLAN, 7);
    release_now("app", VXLAN, 7);
    settle();
    EXPECT_THAT(sessions(APP_DB), IsEmpty());
    EXPECT_THAT(sessions(UDP_DB), IsEmpty());
    EXPECT_EQ(stat().keys, 0U);
}

TEST_F(ServiceRoad, ALostStoreDelaysAnswersAndLosesNone)
{
    start_service();
    follow();
    for (uint32_t key = 1; key <= 20; ++key)
        ASSERT_EQ(request("app", VXLAN, key), 0);
    qz_thread_run_pending(master, 15);  // some answers are on their way
    ASSERT_EQ(qz_mom_embedded_lose(STORE), 0);
    settle();
    EXPECT_EQ(request("app", VXLAN, 21), QZ_MOM_EDOWN);
    advance(5 * SECOND);
    ASSERT_EQ(qz_mom_embedded_restore(STORE), 0);
    advance(SECOND);
    const ids after = answers();
    EXPECT_EQ(after.size(), 20U);
    for (uint32_t key = 1; key <= 20; ++key)
        EXPECT_EQ(id_of(VXLAN, key), after.at("app/" + std::to_string(key)));
    EXPECT_EQ(answers(UDP_DB), after);
    EXPECT_EQ(stat().waiting, 0U);
    ASSERT_EQ(request("app", VXLAN, 21), 0);
    settle();
    EXPECT_EQ(id_of(VXLAN, 21), 0x20000015U);
}

TEST_F(ServiceRoad, AStoreThatIsLostAtTheStartIsWaitedFor)
{
    put_request("a", VXLAN, 1, VXLAN << 24);
    settle();
    ASSERT_EQ(qz_mom_embedded_lose(STORE), 0);
    ASSERT_EQ(ebridged_start(serving, nullptr, &service), 0);
    advance(3 * SECOND);
    EXPECT_EQ(stat().serving, 0U);
    ASSERT_EQ(qz_mom_embedded_restore(STORE), 0);
    advance(SECOND);
    EXPECT_EQ(stat().serving, 1U);
    EXPECT_EQ(answers(), (ids{{"a/1", 0x20000001}}));
}

TEST_F(ServiceRoad, AFullQueueDelaysAnswersAndLosesNone)
{
    start_service();
    qz_mom_handle *slow = nullptr;
    ASSERT_EQ(qz_mom_client_open("mem:road", master, &slow), 0);
    ASSERT_EQ(qz_mom_set_queue_limits(users, 2, 4, 8), 0);
    spy(APP_DB);
    uint32_t sent = 0;
    for (uint32_t key = 1; key <= 200; ++key) {
        UBridge__EvlanAppIndex app = index("a", VXLAN, key);
        UBridge__EvlanSession record = U_BRIDGE__EVLAN_SESSION__INIT;
        record.index = &app;
        record.request_value = VXLAN << 24;
        record.request = 1;
        const uint32_t fields[] = {6, 7, 8};
        while (qz_mom_hmset(slow, APP_DB, &record.base, fields, 3, nullptr, nullptr) != 0)
            ASSERT_GT(qz_thread_run_pending(master, 1), 0);
        ++sent;
    }
    advance(60 * SECOND);
    EXPECT_EQ(stat().waiting, 0U);
    EXPECT_EQ(qz_mom_set_queue_limits(users, 1000, 2000, 3000), 0);
    EXPECT_EQ(answers().size(), sent);
    EXPECT_EQ(answers(UDP_DB).size(), sent);
    qz_mom_client_close(slow);
}

TEST_F(ServiceRoad, RangesAreFollowed)
{
    write_range(VXLAN, 0x20000064, 0x20000065);
    start_service();
    follow();
    for (uint32_t key : {1U, 2U, 3U})
        request("app", VXLAN, key);
    settle();
    EXPECT_EQ(answers(), (ids{{"app/1", 0x20000064}, {"app/2", 0x20000065}}));
    write_range(VXLAN, 100, 110);
    settle();
    request("app", VXLAN, 3);
    settle();
    EXPECT_EQ(id_of(VXLAN, 3), 0x20000066U);

    UBridge__EvlanSessionRange range = U_BRIDGE__EVLAN_SESSION_RANGE__INIT;
    range.index = U_BRIDGE__EVLAN_TYPE__VXLAN;
    ASSERT_EQ(qz_mom_del(users, APP_DB, &range.base, nullptr, nullptr), 0);
    settle();
    request("app", VXLAN, 4);
    settle();
    EXPECT_EQ(id_of(VXLAN, 4), 0x20000001U);
}

TEST_F(ServiceRoad, RequestsThatMakeNoSenseAreRefused)
{
    start_service();
    put_request("a", 0, 1, 0);
    put_request("b", 17, 1, 17U << 24);
    put_request("c", VXLAN, 1, 0x10000005);
    settle();
    EXPECT_EQ(answers(), (ids{{"a/1", REFUSED}, {"b/1", REFUSED}, {"c/1", REFUSED}}));
}

TEST_F(ServiceRoad, SeveralDatabasesShareOneSetOfIds)
{
    start_service({5, 4});
    put_session(4, {.user = "a", .type = VXLAN, .keyid = 1, .request_value = VXLAN << 24, .request = 1});
    put_session(5, {.user = "a", .type = VXLAN, .keyid = 2, .request_value = VXLAN << 24, .request = 1});
    put_session(5, {.user = "a", .type = VXLAN, .keyid = 1, .request_value = VXLAN << 24, .request = 1});
    settle();
    EXPECT_EQ(answers(4), (ids{{"a/1", 0x20000001}}));
    EXPECT_EQ(answers(5), (ids{{"a/1", 0x20000001}, {"a/2", 0x20000002}}));
    EXPECT_EQ(sessions(UDP_DB).size(), 2U);
    // The mirror of a key that two databases have shows the other one when the first goes.
    UBridge__EvlanAppIndex key = index("a", VXLAN, 1);
    UBridge__EvlanSession gone = U_BRIDGE__EVLAN_SESSION__INIT;
    gone.index = &key;
    ASSERT_EQ(qz_mom_del(users, 4, &gone.base, nullptr, nullptr), 0);
    settle();
    for (const auto &[text, mirror] : sessions(UDP_DB))
        EXPECT_EQ(mirror.mom_db, 5) << text;
    EXPECT_EQ(answers(UDP_DB).size(), 2U);
}

TEST_F(ServiceRoad, RangesCountInTheLowestServedDatabaseOnly)
{
    start_service({5, 4});
    write_range(VXLAN, 7, 9);
    UBridge__EvlanSessionRange elsewhere = U_BRIDGE__EVLAN_SESSION_RANGE__INIT;
    elsewhere.index = static_cast<UBridge__EvlanType>(VXLAN);
    elsewhere.evlan_id_min = elsewhere.evlan_id_max = 100;
    ASSERT_EQ(qz_mom_set(users, 5, &elsewhere.base, nullptr, nullptr), 0);
    settle();
    put_session(5, {.user = "a", .type = VXLAN, .keyid = 1, .request_value = VXLAN << 24, .request = 1});
    settle();
    EXPECT_EQ(answers(5), (ids{{"a/1", 0x20000007}}));
}

TEST_F(ServiceRoad, SessionsOfTheMirrorDatabaseItselfAreServedAndNotMirrored)
{
    start_service({4, 8});
    put_session(8, {.user = "plane", .type = VXLAN, .keyid = 1, .request_value = VXLAN << 24, .request = 1});
    put_session(4, {.user = "a", .type = VXLAN, .keyid = 2, .request_value = VXLAN << 24, .request = 1});
    settle();
    EXPECT_EQ(answers(8), (ids{{"plane/1", 0x20000001}, {"a/2", 0x20000002}}));
    EXPECT_EQ(stat().answered, 2U);
    stop_service();
    start_service({4, 8});
    EXPECT_EQ(answers(8), (ids{{"plane/1", 0x20000001}, {"a/2", 0x20000002}}));
    EXPECT_EQ(stat().keys, 2U);
}

TEST_F(ServiceRoad, UserNamesOfAnyKindAreServed)
{
    start_service();
    for (const char *name : {"", "with space:colon", "per%cent", "\xc3\xbc"})
        put_request(name, VXLAN, 7, VXLAN << 24);
    settle();
    EXPECT_EQ(answers().size(), 4U);
    EXPECT_EQ(answers(UDP_DB).size(), 4U);
    EXPECT_EQ(stat().keys, 1U);
}

TEST_F(ServiceRoad, ForeignBytesAreSkipped)
{
    put_request("a", VXLAN, 1, VXLAN << 24);
    ASSERT_EQ(qz_mom_embedded_put_raw(STORE, APP_DB, "u_bridge.evlan_session:b:32:1", "\xff\xff\xff", 3, 0), 0);
    ASSERT_EQ(qz_mom_embedded_put_raw(STORE, APP_DB, "u_bridge.evlan_session:c", "x", 1, 1), 0);
    start_service();
    EXPECT_EQ(answers(), (ids{{"a/1", 0x20000001}}));
}

TEST_F(ServiceRoad, StoppingInTheMiddleOfTheStartIsSafe)
{
    for (uint32_t key = 1; key <= 20; ++key)
        put_request("a", VXLAN, key, VXLAN << 24);
    for (int32_t calls = 0; calls < 40; ++calls) {
        ASSERT_EQ(ebridged_start(serving, nullptr, &service), 0);
        qz_thread_run_pending(master, calls);
        stop_service();
        settle();
    }
    start_service();
    EXPECT_EQ(answers().size(), 20U);
}

TEST_F(ServiceRoad, BadArgumentsAreRefused)
{
    ebridged_service *none = nullptr;
    EXPECT_EQ(ebridged_start(nullptr, nullptr, &none), QZ_MOM_EINVAL);
    EXPECT_EQ(ebridged_start(serving, nullptr, nullptr), QZ_MOM_EINVAL);
    const uint32_t unknown[] = {4, 99};
    const ebridged_options options{.databases = unknown, .database_count = 2, .log = nullptr, .log_args = nullptr};
    EXPECT_EQ(ebridged_start(serving, &options, &none), QZ_MOM_EDB);
    EXPECT_EQ(none, nullptr);
    ebridged_stop(nullptr);
    settle();
}
