// The service on the store: restarts, lost connections, full queues, ranges, records that somebody else left.
#include <gmock/gmock.h>

#include "world.hpp"

using namespace road;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

// Evlans are requested with the library's calls, eports by what those would write.
class ServiceRoad : public world, public testing::WithParamInterface<kind>
{
  protected:
    void follow()
    {
        ebridge_args app = user(0, "app");
        app.auto_subscribe = 1;
        init(app);
        settle();
    }
    static session asking(const char *user, uint32_t type, uint32_t keyid, uint32_t wanted)
    {
        return {.of = GetParam(), .user = user, .type = type, .keyid = keyid, .request_value = wanted, .request = 1};
    }
    static session with_answer(session asked, uint32_t id, int32_t mom_db = 0)
    {
        asked.reply_value = id;
        asked.reply = 1;
        asked.mom_db = mom_db;
        return asked;
    }
    int32_t request(const char *user, uint32_t type, uint32_t keyid, uint32_t wanted = 0)
    {
        if (GetParam() == kind::evlan)
            return world::request(user, type, keyid, wanted);
        return put_session(APP_DB, asking(user, type, keyid, wanted != 0 ? wanted : type << 24));
    }
    void release_now(const char *user, uint32_t type, uint32_t keyid)
    {
        if (GetParam() == kind::evlan)
            world::release_now(user, type, keyid);
        else
            delete_session(APP_DB, asking(user, type, keyid, 0));
    }
    void put_request(const char *user, uint32_t type, uint32_t keyid, uint32_t wanted, uint32_t db = APP_DB)
    {
        ASSERT_EQ(put_session(db, asking(user, type, keyid, wanted)), 0);
    }
    // A session that some service has answered.
    void put_answered(const char *user, uint32_t keyid, uint32_t id)
    {
        ASSERT_EQ(put_session(APP_DB, with_answer(asking(user, VXLAN, keyid, VXLAN << 24), id)), 0);
    }
    std::map<std::string, session> sessions(uint32_t db) { return world::sessions(db, GetParam()); }
    session only_session(uint32_t db) { return world::only_session(db, GetParam()); }
    void spy(uint32_t db) { world::spy(db, GetParam()); }
    void write_range(uint32_t type, uint32_t min, uint32_t max, uint32_t db = APP_DB)
    {
        world::write_range(type, min, max, GetParam(), db);
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
    uint32_t answer(const std::string &name) { return answers()[name]; }
};

INSTANTIATE_TEST_SUITE_P(Kinds, ServiceRoad, testing::Values(kind::evlan, kind::eport),
                         [](const auto &of) { return std::string(of.param == kind::evlan ? "evlan" : "eport"); });

using ids = std::map<std::string, uint32_t>;

}  // namespace

TEST_P(ServiceRoad, RequestsThatWaitAtTheStartAreAnswered)
{
    put_request("a", VXLAN, 2, VXLAN << 24);
    put_request("a", VXLAN, 1, VXLAN << 24);
    start_service();
    EXPECT_EQ(answers(), (ids{{"a/1", 0x20000001}, {"a/2", 0x20000002}}));
}

TEST_P(ServiceRoad, ARestartChangesNoId)
{
    start_service();
    follow();
    for (uint32_t key : {30U, 10U, 20U})
        request("app", VXLAN, key);
    settle();
    const ids before = answers();
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

TEST_P(ServiceRoad, AKilledServiceLeavesItsIdsToTheNext)
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

TEST_P(ServiceRoad, ARequestWrittenAgainWhileNobodyServedIsAnswered)
{
    start_service();
    follow();
    request("app", VXLAN, 7);
    settle();
    stop_service();
    request("app", VXLAN, 7);
    spy(APP_DB);
    EXPECT_THAT(written, IsEmpty());
    start_service();
    EXPECT_THAT(written, ElementsAre("6 reply_value,reply"));
    EXPECT_EQ(answers(), (ids{{"app/7", 0x20000001}}));
}

TEST_P(ServiceRoad, ASessionReleasedWhileNobodyServedIsFreeAndItsMirrorGoes)
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
TEST_P(ServiceRoad, AMirrorOfWhatWasReleasedWhileNobodyServedGoesBeforeItsIdIsAnothers)
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

// The mirror of a says an id that is not a's any more; that of b is right, but the id is taken away.
TEST_P(ServiceRoad, AMirrorOfAnIdThatItsKeyHasNoLongerGoesBeforeAnythingIsGranted)
{
    put_answered("a", 1, 0x20000003);
    put_answered("b", 2, 0x20000003);
    for (const auto &[name, key, id] : {std::tuple("a", 1U, 0x20000009U), std::tuple("b", 2U, 0x20000003U)})
        ASSERT_EQ(put_session(UDP_DB, with_answer(asking(name, VXLAN, key, VXLAN << 24), id, APP_DB)), 0);
    spy(UDP_DB);
    start_service();
    const std::string answered = "6 request_value,priority,request,reply_value,reply,mom_db";
    EXPECT_THAT(written, ElementsAre("3", "3", answered, answered));
    EXPECT_EQ(answers(UDP_DB), (ids{{"a/1", 0x20000003}, {"b/2", REFUSED}}));
}

TEST_P(ServiceRoad, ARefusalIsDecidedAnewAtTheStart)
{
    put_answered("a", 1, REFUSED);
    start_service();
    EXPECT_EQ(answers(), (ids{{"a/1", 0x20000001}}));
}

TEST_P(ServiceRoad, MirrorsOfDatabasesThatItDoesNotServeAreLeftAlone)
{
    for (const auto &[name, db] : {std::pair("far", 5), std::pair("gone", 4)})
        ASSERT_EQ(put_session(UDP_DB, with_answer(asking(name, VXLAN, 1, VXLAN << 24), 0x20000009, db)), 0);
    start_service();
    EXPECT_EQ(only_session(UDP_DB).user, "far");
}

TEST_P(ServiceRoad, AnIdThatTwoKeysHoldStaysWithTheFirstInOrder)
{
    put_answered("b", 1, 0x20000003);
    put_answered("a", 2, 0x20000003);
    start_service();
    EXPECT_EQ(answers(), (ids{{"a/2", 0x20000003}, {"b/1", REFUSED}}));
    EXPECT_EQ(stat().keys, 1U);
    EXPECT_THAT(service_log, testing::Contains(HasSubstr("0x20000003 cannot be its id")));
}

TEST_P(ServiceRoad, AnAnswerLeavesAnExpiryMarkAlone)
{
    start_service();
    follow();
    request("app", VXLAN, 7);
    settle();
    stop_service();
    expire_session(APP_DB, asking("app", VXLAN, 7, 0), 10);
    start_service();
    EXPECT_EQ(stat().answered, 1U);
    advance(11 * SECOND);
    EXPECT_THAT(sessions(APP_DB), IsEmpty());
    EXPECT_EQ(stat().keys, 0U);
}

TEST_P(ServiceRoad, AnAnswerBringsNoDeletedSessionBack)
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

TEST_P(ServiceRoad, ALostStoreDelaysAnswersAndLosesNone)
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
    EXPECT_EQ(answers(UDP_DB), after);
    EXPECT_EQ(stat().waiting, 0U);
    ASSERT_EQ(request("app", VXLAN, 21), 0);
    settle();
    EXPECT_EQ(answer("app/21"), 0x20000015U);
}

TEST_P(ServiceRoad, AStoreThatIsLostAtTheStartIsWaitedFor)
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

TEST_P(ServiceRoad, AFullQueueDelaysAnswersAndLosesNone)
{
    start_service();
    qz_mom_handle *slow = nullptr;
    ASSERT_EQ(qz_mom_client_open("mem:road", master, &slow), 0);
    ASSERT_EQ(qz_mom_set_queue_limits(users, 2, 4, 8), 0);
    spy(APP_DB);
    uint32_t sent = 0;
    for (uint32_t key = 1; key <= 200; ++key) {
        while (put_session(slow, APP_DB, asking("a", VXLAN, key, VXLAN << 24)) != 0)
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

TEST_P(ServiceRoad, RangesAreFollowed)
{
    write_range(VXLAN, 0x20000064, 0x20000065);
    start_service();
    follow();
    for (uint32_t key : {1U, 2U, 3U})
        request("app", VXLAN, key);
    settle();
    EXPECT_EQ(answer("app/1"), 0x20000064U);
    EXPECT_EQ(answer("app/2"), 0x20000065U);
    EXPECT_EQ(stat().refused, 1U);
    write_range(VXLAN, 100, 110);
    settle();
    request("app", VXLAN, 3);
    settle();
    EXPECT_EQ(answer("app/3"), 0x20000066U);

    delete_range(VXLAN, GetParam());
    settle();
    request("app", VXLAN, 4);
    settle();
    EXPECT_EQ(answer("app/4"), 0x20000001U);
}

TEST_P(ServiceRoad, ARangeIsToldAsFarAsItsTypeHasNumbers)
{
    const std::string type = GetParam() == kind::evlan ? "evlan type 32: " : "eport type 32: ";
    start_service();
    write_range(VXLAN, 0, 5);
    settle();
    EXPECT_EQ(service_log.back(), type + "numbers 1 to 5");
    write_range(VXLAN, 0, 0);
    settle();
    EXPECT_EQ(service_log.back(), type + "numbers 0 to 0, so none can be given");
    write_range(VXLAN, 10, 5);
    settle();
    EXPECT_EQ(service_log.back(), type + "numbers 10 to 5, so none can be given");
}

TEST_P(ServiceRoad, RequestsThatMakeNoSenseAreRefused)
{
    start_service();
    put_request("a", 0, 1, 0);
    put_request("b", 18, 1, 18U << 24);
    put_request("c", VXLAN, 1, 0x30000005);
    settle();
    EXPECT_EQ(answers(), (ids{{"a/1", REFUSED}, {"b/1", REFUSED}, {"c/1", REFUSED}}));
}

TEST_P(ServiceRoad, SeveralDatabasesShareOneSetOfIds)
{
    start_service({5, 4});
    put_request("a", VXLAN, 1, VXLAN << 24, 4);
    put_request("a", VXLAN, 2, VXLAN << 24, 5);
    put_request("a", VXLAN, 1, VXLAN << 24, 5);
    settle();
    EXPECT_EQ(answers(4), (ids{{"a/1", 0x20000001}}));
    EXPECT_EQ(answers(5), (ids{{"a/1", 0x20000001}, {"a/2", 0x20000002}}));
    EXPECT_EQ(sessions(UDP_DB).size(), 2U);
    // The mirror of a key that two databases have shows the other one when the first goes.
    delete_session(4, asking("a", VXLAN, 1, 0));
    settle();
    for (const auto &[text, mirror] : sessions(UDP_DB))
        EXPECT_EQ(mirror.mom_db, 5) << text;
    EXPECT_EQ(answers(UDP_DB).size(), 2U);
}

TEST_P(ServiceRoad, RangesCountInTheLowestServedDatabaseOnly)
{
    start_service({5, 4});
    write_range(VXLAN, 7, 9);
    write_range(VXLAN, 100, 100, 5);
    settle();
    put_request("a", VXLAN, 1, VXLAN << 24, 5);
    settle();
    EXPECT_EQ(answers(5), (ids{{"a/1", 0x20000007}}));
}

TEST_P(ServiceRoad, SessionsOfTheMirrorDatabaseItselfAreServedAndNotMirrored)
{
    start_service({4, 8});
    put_request("plane", VXLAN, 1, VXLAN << 24, 8);
    put_request("a", VXLAN, 2, VXLAN << 24, 4);
    settle();
    EXPECT_EQ(answers(8), (ids{{"plane/1", 0x20000001}, {"a/2", 0x20000002}}));
    EXPECT_EQ(stat().answered, 2U);
    stop_service();
    start_service({4, 8});
    EXPECT_EQ(answers(8), (ids{{"plane/1", 0x20000001}, {"a/2", 0x20000002}}));
    EXPECT_EQ(stat().keys, 2U);
}

TEST_P(ServiceRoad, UserNamesOfAnyKindAreServed)
{
    start_service();
    for (const char *name : {"", "with space:colon", "per%cent", "\xc3\xbc"})
        put_request(name, VXLAN, 7, VXLAN << 24);
    settle();
    EXPECT_EQ(answers().size(), 4U);
    EXPECT_EQ(answers(UDP_DB).size(), 4U);
    EXPECT_EQ(stat().keys, 1U);
}

TEST_P(ServiceRoad, ForeignBytesAreSkipped)
{
    put_request("a", VXLAN, 1, VXLAN << 24);
    const std::string table = GetParam() == kind::evlan ? "u_bridge.evlan_session:" : "u_bridge.eport_session:";
    for (const char *key : {"b:32:1", "b:32:0:1"})
        ASSERT_EQ(qz_mom_embedded_put_raw(STORE, APP_DB, (table + key).c_str(), "\xff\xff\xff", 3, 0), 0);
    ASSERT_EQ(qz_mom_embedded_put_raw(STORE, APP_DB, (table + "c").c_str(), "x", 1, 1), 0);
    start_service();
    EXPECT_EQ(answers(), (ids{{"a/1", 0x20000001}}));
}

TEST_P(ServiceRoad, StoppingInTheMiddleOfTheStartIsSafe)
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

// ---- both at once ---------------------------------------------------------------------------------------------------

class ServiceOfBothRoad : public world
{
  protected:
    void put_request(kind of, uint32_t type, uint32_t keyid, uint32_t wanted)
    {
        const session asked{.of = of, .user = "a", .type = type, .keyid = keyid, .request_value = wanted, .request = 1};
        ASSERT_EQ(put_session(APP_DB, asked), 0);
    }
    // Id by key, as mirrored too.
    std::map<uint32_t, uint32_t> answers(kind of)
    {
        std::map<uint32_t, uint32_t> found, mirrored;
        for (const auto &[text, held] : sessions(APP_DB, of))
            found[held.keyid] = held.reply_value;
        for (const auto &[text, held] : sessions(UDP_DB, of))
            mirrored[held.keyid] = held.reply_value;
        EXPECT_EQ(found, mirrored);
        return found;
    }
};

using numbers = std::map<uint32_t, uint32_t>;

TEST_F(ServiceOfBothRoad, EvlansAndEportsHaveIdsAndRangesOfTheirOwn)
{
    start_service();
    write_range(VXLAN, 7, 7, kind::evlan);
    write_range(VXLAN, 100, 200, kind::eport);
    settle();
    for (const uint32_t key : {1U, 2U})
        for (const kind of : {kind::evlan, kind::eport})
            put_request(of, VXLAN, key, VXLAN << 24);
    settle();
    EXPECT_EQ(answers(kind::evlan), (numbers{{1, 0x20000007}, {2, REFUSED}}));
    EXPECT_EQ(answers(kind::eport), (numbers{{1, 0x20000064}, {2, 0x20000065}}));
    stop_service();
    start_service();
    EXPECT_EQ(answers(kind::evlan), (numbers{{1, 0x20000007}, {2, REFUSED}}));
    EXPECT_EQ(answers(kind::eport), (numbers{{1, 0x20000064}, {2, 0x20000065}}));
    EXPECT_EQ(stat().keys, 3U);
}

TEST_F(ServiceOfBothRoad, APortsKeyMayHaveAnAggregatePortsIdAndKeepsItOverARestart)
{
    constexpr uint32_t PORT = 16, AP = 32, VXLAN_AC = 48;
    start_service();
    put_request(kind::eport, PORT, 1, 0x20000003);
    put_request(kind::eport, AP, 2, 0x10000005);
    put_request(kind::eport, AP, 3, 0x20000003);        // taken
    put_request(kind::eport, VXLAN_AC, 4, 0x10000006);  // of no business of its
    settle();
    const numbers expected{{1, 0x20000003}, {2, 0x10000005}, {3, REFUSED}, {4, REFUSED}};
    EXPECT_EQ(answers(kind::eport), expected);
    kill_service();
    start_service();
    EXPECT_EQ(answers(kind::eport), expected);
}

TEST_F(ServiceOfBothRoad, TheSameKeyInTheOtherTableKeepsNothingAlive)
{
    start_service();
    for (const kind of : {kind::evlan, kind::eport})
        put_request(of, VXLAN, 1, VXLAN << 24);
    settle();
    delete_session(APP_DB, {.of = kind::evlan, .user = "a", .type = VXLAN, .keyid = 1});
    settle();
    EXPECT_EQ(answers(kind::evlan), numbers{});
    EXPECT_EQ(answers(kind::eport), (numbers{{1, 0x20000001}}));
    EXPECT_EQ(stat().keys, 1U);
}

TEST_P(ServiceRoad, BadArgumentsAreRefused)
{
    ebridged_service *none = nullptr;
    EXPECT_EQ(ebridged_start(nullptr, nullptr, &none), QZ_MOM_EINVAL);
    EXPECT_EQ(ebridged_start(serving, nullptr, nullptr), QZ_MOM_EINVAL);
    const uint32_t unknown[] = {4, 99};
    const ebridged_options options{
        .databases = unknown, .database_count = 2, .log = nullptr, .log_args = nullptr, .log_level = 0};
    EXPECT_EQ(ebridged_start(serving, &options, &none), QZ_MOM_EDB);
    EXPECT_EQ(none, nullptr);
    ebridged_stop(nullptr);
    settle();
}
