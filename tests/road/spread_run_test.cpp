// "ebridge run --store": requesters and observer as processes of their own, over a real server.
#include <gmock/gmock.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "child.hpp"
#include "redis_server.hpp"
#include "sw_ebridge.h"

using namespace road;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace
{

const std::string LEAF = std::string(EXAMPLES_DIR) + "/leaf.json";
constexpr const char *NOT_EXPRESSED =
    "ACL_RULE|SERVERS|RULE_60: not expressed: no type of match rule has an outer VLAN and a destination\n"
    "ACL_RULE|SERVERS_V6|RULE_10: not expressed: match rules have no IPv6 prefixes\n";
constexpr const char *ALL_VERIFIED = R"("ids":{"evlan":{"requested":60,"granted":60,"refused":0,"verified":60},)"
                                     R"("eport":{"requested":78,"granted":78,"refused":0,"verified":78}},)";

std::vector<std::string> command(const support::redis_server &redis, const std::vector<std::string> &arguments)
{
    std::vector<std::string> all{EBRIDGE_PROGRAM, "run", "--store", redis.url()};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
}

// A field of a session as it stands in the store; "" when there is none.
std::string stored(const support::redis_server &redis, int database, const std::string &key, int field)
{
    const std::string answer = redis.commands(
        database, "HGET u_bridge.evlan_session:" + key + ' ' + std::to_string(field) + "\nEXISTS nothing");
    const size_t begin = answer.find('$');
    return answer.compare(begin, 3, "$-1") == 0 ? "" : answer.substr(begin, answer.rfind(':') - begin);
}

// A user of the store in this process.
struct store_user {
    explicit store_user(const support::redis_server &redis)
    {
        EXPECT_EQ(qz_mom_client_open(redis.url().c_str(), master, &handle), 0);
    }
    ~store_user()
    {
        qz_mom_client_close(handle);
        qz_thread_master_free(master);
    }
    store_user(const store_user &) = delete;
    store_user &operator=(const store_user &) = delete;

    qz_thread_master *master = qz_thread_master_create(QZ_THREAD_CLOCK_REAL);
    qz_mom_handle *handle = nullptr;
};

// With nobody who answers, a run stays in the middle: its requests are written, and it waits.
class NobodyAnswers : public testing::Test
{
  protected:
    void start(bool terminal = false, const std::string &patience = "30")
    {
        redis.commands(4, "FLUSHALL");  // of an earlier run
        running.emplace(command(redis, {"--users", "3", "--patience", patience, "--json", LEAF}), terminal);
        const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        for (const char *key : {"ebridge_run_2:16:10", "ebridge_run_3:32:5101", "ebridge_run_1:32:5102"})
            while (stored(redis, 4, key, 6).empty() && std::chrono::steady_clock::now() < give_up)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ASSERT_LT(std::chrono::steady_clock::now(), give_up) << "nothing was requested";
    }

    support::redis_server redis;
    std::optional<child> running;
};

}  // namespace

TEST(SpreadRun, AnyNumberOfRequestersIsVerifiedAndIsGivenTheSameIds)
{
    const support::redis_server redis;
    child service({EBRIDGED_PROGRAM, "--store", redis.url()});
    ASSERT_TRUE(service.wait_for_error_text("serving"));
    for (const char *users : {"1", "4", "64"}) {
        const outcome seen = run(command(redis, {"--users", users, "--json", LEAF}));
        EXPECT_EQ(seen.status, 0) << seen.err;
        EXPECT_THAT(seen.out, HasSubstr(ALL_VERIFIED));
        EXPECT_EQ(std::count(seen.out.begin(), seen.out.end(), '\n'), 1);
        EXPECT_EQ(seen.err, NOT_EXPRESSED);
    }
    const std::string id = stored(redis, 8, "ebridge_run:32:5101", 10);
    EXPECT_THAT(id, Not(IsEmpty()));
    EXPECT_EQ(stored(redis, 8, "ebridge_run_4:32:5101", 10), id) << "the 96th of four users' entries";
    EXPECT_EQ(stored(redis, 8, "ebridge_run_32:32:5101", 10), id) << "the 96th of 64 users' entries";
    EXPECT_EQ(stored(redis, 8, "ebridge_run_2:32:5101", 10), "");
}

TEST(SpreadRun, ConnectionsThatAreCutMeanwhileCostNothing)
{
    std::string text = R"({"VLAN": {"Vlan10": {}}, "VLAN_MEMBER": {)";
    for (int port = 0; port < 1000; ++port)
        text += (port == 0 ? "" : ", ") + ("\"Vlan10|Ethernet" + std::to_string(port)) + R"(": {"tagging_mode": ")" +
                (port % 2 == 0 ? "untagged" : "tagged") + "\"}";
    const temporary_file config(text + "}}");
    const support::redis_server redis;
    child service({EBRIDGED_PROGRAM, "--store", redis.url()});
    ASSERT_TRUE(service.wait_for_error_text("serving"));
    // So few that a slow machine gets through between them.
    constexpr int TURNS = 4, CUTS = 8;
    for (int turn = 0; turn < TURNS; ++turn) {
        std::thread cutter([&redis] {
            for (int cut = 0; cut < CUTS; ++cut) {
                redis.commands(0, "CLIENT KILL TYPE normal SKIPME yes\nCLIENT KILL TYPE pubsub");
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
        });
        const outcome seen = run(command(redis, {"--users", "2", "--json", config.path()}));
        cutter.join();
        EXPECT_EQ(seen.status, 0) << seen.err;
        EXPECT_THAT(seen.out,
                    HasSubstr(R"("VLAN_MEMBER":{"requested":1000,"granted":1000,"refused":0,"verified":1000})"));
    }
}

TEST(SpreadRun, PrintsTheTableAndTheObserversDump)
{
    const support::redis_server redis;
    child service({EBRIDGED_PROGRAM, "--store", redis.url()});
    ASSERT_TRUE(service.wait_for_error_text("serving"));
    const temporary_file file(R"({"VLAN": {"Vlan10": {}, "Vlan20": {}}, "QUEUE": {"Ethernet0": {}}})");
    const outcome seen = run(command(redis, {"--users", "2", "--dump", file.path()}));
    EXPECT_EQ(seen.status, 0) << seen.err;
    EXPECT_THAT(seen.out, StartsWith("TABLE  REQUESTED    GRANTED    REFUSED   VERIFIED\n"
                                     "VLAN           2          2          0          2\n"
                                     "QUEUE          1  skipped\n"));
    const size_t seconds = seen.out.find(" seconds\n");
    const size_t user = seen.out.find("user: ebridge_observer");
    EXPECT_LT(seconds, user);
    ASSERT_NE(user, std::string::npos);
    EXPECT_THAT(seen.out.substr(user), HasSubstr("appIndex[0xa] map to UDPIndex[0x1000000a]"));
    EXPECT_THAT(seen.out.substr(user), HasSubstr("appIndex[0x14] map to UDPIndex[0x10000014]"));
}

TEST(SpreadRun, NothingToRequestStillNeedsAStore)
{
    const support::redis_server redis;
    const temporary_file file("{}");
    const outcome seen = run(command(redis, {"--users", "2", "--json", file.path()}));
    EXPECT_EQ(seen.status, 0) << seen.err;
    EXPECT_THAT(seen.out, StartsWith(R"({"tables":{},"skipped":{},)"));
    const outcome away = run({EBRIDGE_PROGRAM, "run", "--store", "redis+unix:///nowhere/socket", file.path()});
    EXPECT_EQ(away.status, 3);
}

TEST(SpreadRun, WhatIsRefusedIsNamedAndLeavesNoSession)
{
    const support::redis_server redis;
    const store_user operating(redis);
    UBridge__EvlanSessionRange range = U_BRIDGE__EVLAN_SESSION_RANGE__INIT;
    range.index = U_BRIDGE__EVLAN_TYPE__VXLAN;
    range.evlan_id_min = range.evlan_id_max = 7;
    ASSERT_EQ(qz_mom_set(operating.handle, 4, &range.base, nullptr, nullptr), 0);
    UBridge__EvlanAppIndex any = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    UBridge__EvlanSession nothing = U_BRIDGE__EVLAN_SESSION__INIT;
    nothing.index = &any;
    const qz_mom_timeval later{1000, 0};  // a call that waits: the range is written before it
    ASSERT_EQ(qz_mom_pexpire_sync(operating.handle, 4, &nothing.base, QZ_MOM_EXPIRE_PATTERN, &later), 0);
    child service({EBRIDGED_PROGRAM, "--store", redis.url()});
    ASSERT_TRUE(service.wait_for_error_text("serving"));
    const temporary_file file(R"({"VXLAN_TUNNEL_MAP": {"t|one": {"vni": "100", "vlan": "Vlan1"},
                                                       "t|two": {"vni": "200", "vlan": "Vlan1"}}})");
    const outcome seen = run(command(redis, {"--json", file.path()}));
    EXPECT_EQ(seen.status, 1);
    EXPECT_THAT(seen.out, HasSubstr(R"("VXLAN_TUNNEL_MAP":{"requested":2,"granted":1,"refused":1,"verified":1})"));
    EXPECT_EQ(seen.err, "VXLAN_TUNNEL_MAP|t|two: refused: no id left\n");
    EXPECT_NE(stored(redis, 4, "ebridge_run:32:100", 10), "");
    EXPECT_EQ(stored(redis, 4, "ebridge_run:32:200", 10), "");
}

TEST(SpreadRun, AStoreThatIsNotThereIsOneLineAndStatus3)
{
    const outcome seen = run({EBRIDGE_PROGRAM, "run", "--users", "4", "--store", "redis+unix:///nowhere/socket", LEAF});
    EXPECT_EQ(seen.status, 3);
    EXPECT_EQ(seen.err, "ebridge: redis+unix:///nowhere/socket: the store cannot be reached\n");
    EXPECT_THAT(seen.out, IsEmpty());
}

TEST(SpreadRun, UsersAreOneTo64AndNeedAStore)
{
    for (const char *users : {"0", "65", "-1", "four", "1.5", ""}) {
        const outcome seen = run({EBRIDGE_PROGRAM, "run", "--store", "redis://127.0.0.1:1", "--users", users, LEAF});
        EXPECT_EQ(seen.status, 2) << users;
        EXPECT_THAT(seen.err, AllOf(StartsWith("ebridge: "), HasSubstr("--users")));
        EXPECT_EQ(std::count(seen.err.begin(), seen.err.end(), '\n'), 1) << seen.err;
    }
    const outcome seen = run({EBRIDGE_PROGRAM, "run", "--users", "2", LEAF});
    EXPECT_EQ(seen.status, 2);
    EXPECT_THAT(seen.err, HasSubstr("--users requires --store"));
}

TEST(SpreadRun, PatienceIsOneSecondToAnHour)
{
    for (const char *seconds : {"0", "3601", "-1", "soon", "1.5", ""}) {
        const outcome seen = run({EBRIDGE_PROGRAM, "run", "--patience", seconds, LEAF});
        EXPECT_EQ(seen.status, 2) << seconds;
        EXPECT_THAT(seen.err, AllOf(StartsWith("ebridge: "), HasSubstr("--patience")));
        EXPECT_EQ(std::count(seen.err.begin(), seen.err.end(), '\n'), 1) << seen.err;
    }
}

// ---- match rules ----------------------------------------------------------------------------------------------------

namespace
{

// As another application writes it, whose rule has the key of the configuration's below.
void write_rule(const store_user &by, const char *user, int32_t level)
{
    UBridge__EmatchIndex index = U_BRIDGE__EMATCH_INDEX__INIT;
    index.t_user = const_cast<char *>(user);
    index.match_type = U_BRIDGE__MATCH_TYPE__OVID;
    index.match_flag = U_BRIDGE__MATCH_FLAG__EMATCH_INGRESS;
    index.match_priority = level;
    index.evlan1 = 7;
    UBridge__EmatchEntry entry = U_BRIDGE__EMATCH_ENTRY__INIT;
    entry.index = &index;
    const uint32_t fields[] = {6};
    ASSERT_EQ(qz_mom_hmset(by.handle, 4, &entry.base, fields, 1, nullptr, nullptr), 0);
    const qz_mom_timeval later{1000, 0};
    index.t_user = const_cast<char *>("nobody");
    ASSERT_EQ(qz_mom_pexpire_sync(by.handle, 4, &entry.base, QZ_MOM_EXPIRE_PATTERN, &later), 0);  // waits
}

constexpr const char *CONTESTED = R"({"ACL_RULE": {
    "t|a": {"PRIORITY": "3", "VLAN_ID": "7"}, "t|b": {"PRIORITY": "2", "VLAN_ID": "7"},
    "t|c": {"PRIORITY": "2", "VLAN_ID": "7"}, "t|d": {"PRIORITY": "5", "SRC_IP": "10.0.0.1"}}})";

}  // namespace

TEST(SpreadRun, RulesOfSeveralUsersContestEachOtherAndAreDecidedAsCalculated)
{
    const support::redis_server redis;
    child service({EBRIDGED_PROGRAM, "--store", redis.url()});
    ASSERT_TRUE(service.wait_for_error_text("serving"));
    const temporary_file file(CONTESTED);
    for (const char *users : {"2", "3", "9", "3"}) {
        const outcome seen = run(command(redis, {"--users", users, "--json", file.path()}));
        EXPECT_EQ(seen.status, 0) << users << " users: " << seen.err;
        EXPECT_THAT(seen.err, IsEmpty());
        EXPECT_THAT(seen.out, HasSubstr(R"("ACL_RULE":{"requested":4,"granted":4,"refused":0,"verified":4,)"));
        EXPECT_THAT(seen.out, Not(HasSubstr(R"("ebridge_run_2":{"published":0)")));
    }
    EXPECT_THAT(redis.commands(4, "KEYS u_bridge.ematch_entry:*_?:0:*"), HasSubstr("*0\r\n"))
        << "what tells the order of the users has gone";
}

TEST(SpreadRun, RulesOfAnotherApplicationArePartOfTheContest)
{
    const support::redis_server redis;
    const store_user application(redis);
    for (const char *name : {"application", "before", "zebra"})
        write_rule(application, name, 7);
    child service({EBRIDGED_PROGRAM, "--store", redis.url()});
    ASSERT_TRUE(service.wait_for_error_text("3 rules with 1 keys are decided"));
    const temporary_file file(CONTESTED);
    const outcome alone = run(command(redis, {"--json", file.path()}));
    EXPECT_EQ(alone.status, 0) << alone.err;
    EXPECT_THAT(alone.out, HasSubstr(R"({"published":3,"holding":1,"lost":1,"shadowed":1,"verified":3})"));
    const outcome seen = run(command(redis, {"--users", "4", "--json", file.path()}));
    EXPECT_EQ(seen.status, 0) << seen.err;
}

namespace
{

// Decides for everybody.
struct friendly_judge : store_user {
    explicit friendly_judge(const support::redis_server &redis) : store_user(redis)
    {
        UBridge__EmatchIndex index = U_BRIDGE__EMATCH_INDEX__INIT;
        UBridge__EmatchEntry pattern = U_BRIDGE__EMATCH_ENTRY__INIT;
        pattern.index = &index;
        EXPECT_EQ(qz_mom_subscribe(handle, 4, &pattern.base, 0, on_rule, this), 0);
        qz_thread_run(master);  // until it follows
    }
    // Until that many have been given.
    void give(int verdicts)
    {
        wanted = verdicts;
        qz_thread_run(master);
    }
    static int32_t on_rule(qz_mom_handle *handle, const qz_mom_notification *msg, void *args)
    {
        auto *self = static_cast<friendly_judge *>(args);
        if (msg->cmd == QZ_MOM_CMD_SUBSCRIBED)
            qz_thread_stop(self->master);
        if (msg->cmd != QZ_MOM_CMD_HMSET)
            return 0;
        const uint32_t result = 30;
        ProtobufCMessage *record = static_cast<qz_mom_hash_value *>(msg->value)->record;
        EXPECT_EQ(qz_mom_hmupdate(handle, 4, record, &result, 1, on_given, self), 0);
        return 0;
    }
    static int32_t on_given(qz_mom_handle *, const qz_mom_notification *, void *args)
    {
        auto *self = static_cast<friendly_judge *>(args);
        if (++self->given == self->wanted)
            qz_thread_stop(self->master);
        return 0;
    }

    int wanted = 0;
    int given = 0;
};

}  // namespace

TEST(SpreadRun, VerdictsThatNoOrderOfTheUsersExplainsAreNamed)
{
    const support::redis_server redis;
    friendly_judge judge(redis);
    const temporary_file file(R"({"ACL_RULE": {"t|a": {"PRIORITY": "5", "VLAN_ID": "7"}}})");
    child running(command(redis, {"--users", "2", "--json", file.path()}));
    judge.give(4);
    const outcome seen = running.finish();
    EXPECT_EQ(seen.status, 1);
    EXPECT_EQ(
        seen.err,
        "ACL_RULE|t|a: ebridge_run_1: differs: its user heard that it holds, and by the calculation it loses to "
        "ebridge_run_2\n"
        "order of the users: ebridge_run_2: differs: its user heard that it holds, and by the calculation it loses to "
        "ebridge_run_1\n");
    EXPECT_THAT(seen.out, HasSubstr(R"("ACL_RULE":{"requested":1,"granted":1,"refused":0,"verified":0,)"));
}

// ---- a store that goes away -----------------------------------------------------------------------------------------

TEST_F(NobodyAnswers, WhatIsNotAnsweredWhilePatienceLastsIsRefused)
{
    start(false, "3");
    const outcome seen = running->finish();
    EXPECT_EQ(seen.status, 1);
    EXPECT_THAT(seen.err, HasSubstr("VLAN|Vlan10: refused: "));
    EXPECT_THAT(seen.out, HasSubstr(R"("evlan":{"requested":60,"granted":0,"refused":60,"verified":0})"));
}

TEST_F(NobodyAnswers, AStoreThatIsLostForGoodEndsTheRunInALineAndStatus3)
{
    start(false, "5");
    redis.kill();
    const outcome seen = running->finish();
    EXPECT_EQ(seen.status, 3);
    EXPECT_THAT(seen.out, IsEmpty());
    EXPECT_THAT(seen.err,
                EndsWith("\nebridge: " + redis.url() + ": the store is lost, and has not come back for 5 s\n"));
    EXPECT_THAT(seen.err, Not(HasSubstr("refused")));
}

TEST_F(NobodyAnswers, AStoreThatComesBackInTimeCostsNothing)
{
    start();
    redis.kill();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    redis.start();
    child service({EBRIDGED_PROGRAM, "--store", redis.url()});
    const outcome seen = running->finish();
    EXPECT_EQ(seen.status, 0) << seen.err;
    EXPECT_THAT(seen.out, HasSubstr(ALL_VERIFIED));
}

// ---- processes that die ---------------------------------------------------------------------------------------------

TEST_F(NobodyAnswers, AnyProcessThatIsKilledEndsTheRunInALineThatNamesIt)
{
    for (const std::string name : {"ebridge_run_2", "ebridge_observe"}) {  // the system cuts names at 15 characters
        start();
        const pid_t victim = running->own_child(name);
        ASSERT_GT(victim, 0) << name;
        ASSERT_EQ(kill(victim, SIGKILL), 0);
        const outcome seen = running->finish();
        EXPECT_EQ(seen.status, 1);
        EXPECT_THAT(seen.out, IsEmpty());
        EXPECT_THAT(seen.err, AllOf(StartsWith("ebridge: " + name), EndsWith(": killed by signal 9, Killed\n")));
        EXPECT_EQ(std::count(seen.err.begin(), seen.err.end(), '\n'), 1) << seen.err;
    }
}

TEST_F(NobodyAnswers, ASignalEndsAllProcessesAndTheProgressLine)
{
    for (int number : {SIGINT, SIGTERM}) {
        start(true);
        ASSERT_TRUE(running->wait_for_error_text("0 of 171 answered"));
        running->signal(number);
        const outcome seen = running->finish();
        EXPECT_EQ(seen.status, 128 + number);
        EXPECT_THAT(seen.err, EndsWith("\r\x1b[K"));
        EXPECT_THAT(seen.out, IsEmpty());
    }
}

// As a terminal does it: everybody gets the signal, and still there is one end and no complaint.
TEST_F(NobodyAnswers, AnInterruptOfTheWholeGroupIsTheProgramsToHandle)
{
    start();
    for (const char *name : {"ebridge_run_1", "ebridge_run_2", "ebridge_run_3", "ebridge_observe"})
        ASSERT_EQ(kill(running->own_child(name), SIGINT), 0);
    running->signal(SIGINT);
    const outcome seen = running->finish();
    EXPECT_EQ(seen.status, 128 + SIGINT);
    EXPECT_THAT(seen.err, IsEmpty());
}

TEST_F(NobodyAnswers, NoProcessOutlivesTheOneThatStartedIt)
{
    start();
    running->signal(SIGKILL);
    EXPECT_EQ(running->finish().status, 128 + SIGKILL);  // returns once nobody holds its output any more
}

// ---- a store that says something else -------------------------------------------------------------------------------

namespace
{

// Answers every request in database 4, and mirrors it with a request value that nobody has asked for where it is told.
struct liar : store_user {
    using store_user::store_user;

    bool subscribed = false;
    int answered = 0;
    int32_t lie_about = 0;
    int expected = 0;

    static int32_t on_request(qz_mom_handle *handle, const qz_mom_notification *msg, void *args)
    {
        auto *self = static_cast<liar *>(args);
        if (msg->cmd == QZ_MOM_CMD_SUBSCRIBED) {
            self->subscribed = true;
            qz_thread_stop(self->master);
        }
        if (msg->cmd != QZ_MOM_CMD_HMSET)
            return 0;
        auto *session = reinterpret_cast<UBridge__EvlanSession *>(static_cast<qz_mom_hash_value *>(msg->value)->record);
        session->reply_value = session->request_value;
        session->reply = 1;
        const uint32_t answer[] = {10, 11};
        EXPECT_EQ(qz_mom_hmupdate(handle, 4, &session->base, answer, 2, nullptr, nullptr), 0);
        session->mom_db = 4;
        if (session->index->keyid == self->lie_about)
            ++session->request_value;
        const uint32_t mirror[] = {6, 7, 8, 10, 11, 12};
        EXPECT_EQ(qz_mom_hmset(handle, 8, &session->base, mirror, 6, nullptr, nullptr), 0);
        if (++self->answered == self->expected)
            qz_thread_stop(self->master);
        return 0;
    }
};

}  // namespace

TEST(SpreadRun, TheObserverReadsTheStoreAndNotWhatTheRequestersWereTold)
{
    const support::redis_server redis;
    liar answering(redis);
    answering.lie_about = 20;
    answering.expected = 3;
    UBridge__EvlanAppIndex index = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    UBridge__EvlanSession pattern = U_BRIDGE__EVLAN_SESSION__INIT;
    pattern.index = &index;
    const uint32_t request_field = 8;
    const qz_mom_msg_cb callback = liar::on_request;
    void *const args = &answering;
    ASSERT_EQ(qz_mom_subscribe_field(answering.handle, 4, &pattern.base, 0, &request_field, &callback, &args, 1), 0);
    qz_thread_run(answering.master);
    ASSERT_TRUE(answering.subscribed);

    const temporary_file file(R"({"VLAN": {"Vlan10": {}, "Vlan20": {}, "Vlan30": {}}})");
    child running(command(redis, {"--users", "2", "--json", file.path()}));
    qz_thread_run(answering.master);
    const outcome seen = running.finish();
    EXPECT_EQ(seen.status, 1);
    EXPECT_THAT(seen.out, HasSubstr(R"("VLAN":{"requested":3,"granted":3,"refused":0,"verified":2})"));
    EXPECT_EQ(seen.err, "VLAN|Vlan20: differs: the session that the observer reads is not the one that was granted\n");
}
