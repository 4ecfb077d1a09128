// Store sessions: connected, subscribed and reconnect callbacks, and the subscription by hand.
#include <cstdlib>

#include "core_fixture.hpp"

namespace core_test
{
namespace
{

constexpr uint32_t kApp = 0x1000000, kUdp = 0x2000000;
constexpr char kPattern[] = "u_bridge.evlan_session{index{}}";
constexpr char kEportPattern[] = "u_bridge.eport_session{index{}}";
constexpr char kPvidPattern[] = "u_bridge.pvid_table{index{}}";

class Connections : public CoreTest
{
};

template <typename Function>
const void *code(Function *function)
{
    return reinterpret_cast<const void *>(function);
}

const void *flag_as_pointer(uint32_t flag) { return reinterpret_cast<const void *>(static_cast<uintptr_t>(flag)); }

// Initialises a user whose data connection goes to `db` (4 or 8) and gives the connection's arguments.
sw_ebridge_connecting_args *connecting(ebridge_args args, uint32_t db)
{
    args.auto_subscribe = 1;
    args.evlan_data_type = db == SW_EBRIDGE_UDP_DB ? 2 : 0;
    args.mom_db = SW_EBRIDGE_APP_DB;
    EXPECT_EQ(0, sw_ebridge_init(&args));
    const auto connects = recording::calls_of("qz_mom_client_connect");
    EXPECT_EQ(2u, connects.size());
    auto *congestion = static_cast<sw_ebridge_connecting_args *>(connects.front().args);
    std::free(congestion->args2);
    std::free(congestion);
    recording::reset();
    return static_cast<sw_ebridge_connecting_args *>(connects.back().args);
}

ebridge_args evlan_user(const char *name)
{
    auto args = args_of(name);
    args.evlan_reply = no_evlan_reply;
    return args;
}

ebridge_args eport_user(const char *name)
{
    auto args = args_of(name);
    args.eport_reply = no_eport_reply;
    return args;
}

ebridge_args user_of_both_kinds(const char *name)
{
    auto args = evlan_user(name);
    args.eport_reply = no_eport_reply;
    return args;
}

sw::list_args *user_of(sw_ebridge_connecting_args *ca) { return static_cast<sw::list_args *>(ca->args2); }

// Arguments of a connection made here, as the connect step makes them.
sw_ebridge_connecting_args *made_here(const char *name, uint32_t flag, uint32_t all_flags)
{
    auto *user = static_cast<sw::list_args *>(std::calloc(1, sizeof(sw::list_args)));
    auto *ca = static_cast<sw_ebridge_connecting_args *>(std::calloc(1, sizeof(sw_ebridge_connecting_args)));
    std::snprintf(user->user_name, sizeof user->user_name, "%s", name);
    user->db_flags = all_flags;
    *ca = {flag, user};
    return ca;
}

void forget_user(const char *name)
{
    const auto key = record_of(name);
    sw_ebridge_list_item_cache_destroy(0, &key);
}

// Runs the connected callback and expects that it frees its arguments, each block once.
int32_t connected(sw_ebridge_connecting_args *ca)
{
    const void *const outer = ca;
    const void *const inner = ca->args2;
    int32_t result = 0;
    const auto freed = freed_by([&] { result = sw_ebridge_mom_connected_callback(recording::handle(), ca); });
    EXPECT_THAT(freed, Contains(outer).Times(1));
    if (inner != nullptr) {
        EXPECT_THAT(freed, Contains(inner).Times(1));
    }
    return result;
}

sw_ebridge_callback_args *pair_of(const recording::call &made)
{
    return static_cast<sw_ebridge_callback_args *>(made.args);
}

qz_mom_notification notification(int32_t cmd = QZ_MOM_CMD_SUBSCRIBED, uint32_t db = SW_EBRIDGE_APP_DB)
{
    return {db, "the:key", "reply", cmd, nullptr, 0, 0};
}

int32_t subscribed(const qz_mom_notification &msg, void *sa)
{
    return sw_ebridge_mom_subscribed_callback(recording::handle(), &msg, sa);
}

// ---- connected: what is refused

TEST_F(Connections, ConnectedRefusesNoArguments)
{
    EXPECT_EQ(-2, sw_ebridge_mom_connected_callback(recording::handle(), nullptr));
    expect_line("Assert:Bad global.", kError, kCoreFile, "sw_ebridge_mom_connected_callback");
    EXPECT_EQ(1u, recording::logged().size());
}

TEST_F(Connections, ConnectedRefusesNoFlag)
{
    auto *ca = connecting(evlan_user("user"), 4);
    ca->args = 0;
    EXPECT_EQ(-2, connected(ca));
    expect_line("Assert:Bad global args.", kError, kCoreFile, "sw_ebridge_mom_connected_callback");
    EXPECT_EQ(1u, recording::logged().size());
}

TEST_F(Connections, ConnectedRefusesNoBlock)
{
    auto *ca = static_cast<sw_ebridge_connecting_args *>(std::malloc(sizeof(sw_ebridge_connecting_args)));
    *ca = {kApp, nullptr};
    EXPECT_EQ(-2, connected(ca));
    expect_line("Assert:Bad global args2.", kError, kCoreFile, "sw_ebridge_mom_connected_callback");
    EXPECT_EQ(1u, recording::logged().size());
}

TEST_F(Connections, ConnectedLooksAtTheFlagFirst)
{
    auto *ca = static_cast<sw_ebridge_connecting_args *>(std::calloc(1, sizeof(sw_ebridge_connecting_args)));
    EXPECT_EQ(-2, connected(ca));
    EXPECT_THAT(recording::logged(), ElementsAre("Assert:Bad global args."));
}

TEST_F(Connections, RefusedConnectionDoesNotCountAsConnected)
{
    auto *refused = connecting(evlan_user("user"), 8);
    std::free(refused->args2);
    refused->args2 = nullptr;
    EXPECT_EQ(-2, connected(refused));
    recording::reset();
    EXPECT_EQ(0, connected(made_here("user", kApp, kApp)));
    EXPECT_TRUE(recording::has_logged("current db_flags: 0x1000000, all_db_flags: 0x1000000, user: user.", kInfo));
}

TEST_F(Connections, ConnectedUserMustBeRegistered)
{
    auto *ca = connecting(evlan_user("user"), 4);
    forget_user("user");
    EXPECT_EQ(-2, connected(ca));
    expect_line("No user named 'user'.", kError, kCoreFile, "sw_ebridge_mom_connected_callback");
    EXPECT_THAT(recording::logged(), ElementsAre(HasSubstr("sw_ebridge_connecting_args:"),
                                                 "current db_flags: 0x1000000, all_db_flags: 0x1000000, user: user.",
                                                 "No user named 'user'."));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

// The database is up all the same, and nobody is looked for while another one is missing.
TEST_F(Connections, ConnectionOfAnUnknownUserCountsAsConnected)
{
    sw_ebridge_list_init();
    EXPECT_EQ(-2, connected(made_here("nobody", kUdp, kUdp)));
    recording::reset();
    EXPECT_EQ(0, connected(made_here("nobody", kApp, kApp)));
    EXPECT_TRUE(recording::has_logged("current db_flags: 0x3000000, all_db_flags: 0x1000000, user: nobody.", kInfo));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(Connections, ConnectedUserOfAnotherTableIsUnknown)
{
    sw_ebridge_list_init();
    auto user = record_of("user");
    user.evlan_reply = no_evlan_reply;
    for (uint32_t table = 1; table < SW_EBRIDGE_SLOTS; ++table)
        EXPECT_EQ(0, sw_ebridge_list_add_inst(table, &user));
    EXPECT_EQ(-2, connected(made_here("user", kApp, kApp)));
    EXPECT_THAT(errors(), ElementsAre("No user named 'user'."));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

// ---- connected: the cycle

TEST_F(Connections, ConnectedSaysWhatItWasGiven)
{
    auto *ca = connecting(evlan_user("user"), 8);
    const auto text = format(
        "sw_ebridge_connecting_args: (p: %p), sw_ebridge_connecting_args->args: (p: %p), "
        "sw_ebridge_connecting_args->args2: (p: %p).",
        static_cast<void *>(ca), flag_as_pointer(kUdp), ca->args2);
    EXPECT_EQ(0, connected(ca));
    expect_line(text, kInfo, kCoreFile, "sw_ebridge_mom_connected_callback");
    expect_line("current db_flags: 0x2000000, all_db_flags: 0x2000000, user: user.", kInfo, kCoreFile,
                "sw_ebridge_mom_connected_callback");
    expect_line("libsw_ebridge all db connected, subscribe data.", kInfo, kCoreFile,
                "sw_ebridge_mom_connected_callback");
    const auto lines = recording::logged();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(text, lines[0]);
    EXPECT_EQ("libsw_ebridge all db connected, subscribe data.", lines[2]);
}

TEST_F(Connections, ConnectedSubscribesEvlansOfTheAppDatabase)
{
    EXPECT_EQ(0, connected(connecting(evlan_user("user"), 4)));
    ASSERT_EQ(1u, recording::calls().size());
    const auto made = recording::calls()[0];
    EXPECT_EQ("qz_mom_subscribe_field", made.function);
    EXPECT_EQ(recording::handle(), made.handle);
    EXPECT_EQ(4u, made.db);
    EXPECT_EQ(kPattern, made.record);
    EXPECT_EQ(0u, made.flags);
    EXPECT_THAT(made.fields, ElementsAre(11u));
    EXPECT_EQ(code(sw_vlan_mom_msg_evlan_session_reply), made.callback);
    ASSERT_NE(nullptr, pair_of(made));
    EXPECT_EQ(sw_ebridge_mom_subscribed_callback, pair_of(made)->func);
    EXPECT_NE(nullptr, pair_of(made)->arg);
}

TEST_F(Connections, ConnectedSubscribesEvlansOfTheUdpDatabase)
{
    EXPECT_EQ(0, connected(connecting(evlan_user("user"), 8)));
    ASSERT_EQ(1u, recording::calls().size());
    EXPECT_EQ("qz_mom_subscribe_field", recording::calls()[0].function);
    EXPECT_EQ(8u, recording::calls()[0].db);
    const auto *sa = pair_of(recording::calls()[0])->arg;
    const auto text = format("User 'user' subscribe EVLAN, DB is 8, func is %p, args is %p.",
                             code(sw_ebridge_mom_subscribed_callback), sa);
    EXPECT_TRUE(recording::has_logged(text, kInfo)) << testing::PrintToString(recording::logged());
}

TEST_F(Connections, VlanReplyAloneWantsEvlansToo)
{
    auto args = args_of("user");
    args.vlan_reply = no_vlan_reply;
    const auto out = output_of([&] { EXPECT_EQ(0, connected(connecting(args, 4))); });
    EXPECT_EQ("subscribing_flags:bmp[0]:0x00100000(pos:31-0), \n", out);
    EXPECT_EQ(1u, recording::calls_of("qz_mom_subscribe_field").size());
}

TEST_F(Connections, EportReplyWantsEportsOfTheAppDatabase)
{
    const auto out = output_of([] { EXPECT_EQ(0, connected(connecting(eport_user("user"), 4))); });
    EXPECT_EQ("subscribing_flags:bmp[2]:0x00100000(pos:95-64), \n", out);
    ASSERT_EQ(1u, recording::calls().size());
    const auto made = recording::calls()[0];
    EXPECT_EQ("qz_mom_subscribe_field", made.function);
    EXPECT_EQ(recording::handle(), made.handle);
    EXPECT_EQ(4u, made.db);
    EXPECT_EQ(kEportPattern, made.record);
    EXPECT_EQ(0u, made.flags);
    EXPECT_THAT(made.fields, ElementsAre(11u));
    EXPECT_EQ(code(sw_vlan_mom_msg_eport_session_reply), made.callback);
    ASSERT_NE(nullptr, pair_of(made));
    EXPECT_EQ(sw_ebridge_mom_subscribed_callback, pair_of(made)->func);
    const auto text = format("User 'user' subscribe EPORT, DB is 4, func is %p, args is %p.",
                             code(sw_ebridge_mom_subscribed_callback), pair_of(made)->arg);
    EXPECT_TRUE(recording::has_logged(text, kInfo)) << testing::PrintToString(recording::logged());
}

TEST_F(Connections, EportReplyWantsEportsOfTheUdpDatabase)
{
    const auto out = output_of([] { EXPECT_EQ(0, connected(connecting(eport_user("user"), 8))); });
    EXPECT_EQ("subscribing_flags:bmp[2]:0x00200000(pos:95-64), \n", out);
    ASSERT_EQ(1u, recording::calls().size());
    EXPECT_EQ(8u, recording::calls()[0].db);
    EXPECT_EQ(kEportPattern, recording::calls()[0].record);
}

TEST_F(Connections, EportReleaseReplyAloneWantsNothing)
{
    auto args = args_of("user");
    args.eport_release_reply = no_eport_release_reply;
    const auto out = output_of([&] { EXPECT_EQ(0, connected(connecting(args, 4))); });
    EXPECT_EQ("subscribing_flags:\n", out);
    EXPECT_THAT(recording::calls(), IsEmpty());
}

// Database by database, evlans first; the scans that follow go kind by kind.
TEST_F(Connections, BothKindsOfBothDatabasesAreSubscribedDatabaseByDatabase)
{
    connecting(user_of_both_kinds("user"), 4);
    connected(made_here("user", kUdp, kApp | kUdp));
    recording::reset();
    const auto out = output_of([] { EXPECT_EQ(0, connected(made_here("user", kApp, kApp | kUdp))); });
    EXPECT_EQ("subscribing_flags:bmp[2]:0x00300000(pos:95-64), bmp[0]:0x00300000(pos:31-0), \n", out);
    strings subscriptions;
    for (const auto &made : recording::calls_of("qz_mom_subscribe_field"))
        subscriptions.push_back(std::to_string(made.db) + " " + made.record);
    EXPECT_THAT(subscriptions, ElementsAre(format("4 %s", kPattern), format("4 %s", kEportPattern),
                                           format("8 %s", kPattern), format("8 %s", kEportPattern)));
}

TEST_F(Connections, UserWithoutReplyCallbacksSubscribesNothing)
{
    auto args = args_of("user");
    args.pvid_change = no_pvid_change;
    const auto out = output_of([&] { EXPECT_EQ(0, connected(connecting(args, 4))); });
    EXPECT_EQ("subscribing_flags:\n", out);
    EXPECT_TRUE(recording::has_logged("libsw_ebridge all db connected, subscribe data.", kInfo));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(Connections, ExpectedSubscriptionsArePrintedAtInfoLevelOfStandardOutput)
{
    g_sw_vlan_file_zlog_level = 0;
    g_sw_vlan_std_zlog_level = 4;
    const auto shown = output_of([] { connected(connecting(evlan_user("user"), 8)); });
    EXPECT_EQ("subscribing_flags:bmp[0]:0x00200000(pos:31-0), \n", shown);
    g_sw_vlan_file_zlog_level = 7;
    g_sw_vlan_std_zlog_level = 3;
    const auto hidden = output_of([] { connected(made_here("user", kUdp, kUdp)); });
    EXPECT_EQ("", hidden);
}

TEST_F(Connections, ExpectedSubscriptionsArePrintedBeforeTheFirstSubscription)
{
    EXPECT_EQ(0, connected(connecting(user_of_both_kinds("user"), 4)));
    EXPECT_EQ("subscribing_flags:bmp[2]:0x00100000(pos:95-64), bmp[0]:0x00100000(pos:31-0), \n", recording::printed());
    EXPECT_EQ(0u, only_line("libsw_ebridge all db connected, subscribe data.").printed_before);
    ASSERT_EQ(2u, recording::calls().size());
    EXPECT_EQ(recording::printed().size(), recording::calls()[0].printed_before);
}

TEST_F(Connections, CycleWaitsUntilEveryDatabaseIsConnected)
{
    connecting(evlan_user("user"), 4);
    recording::reset();
    EXPECT_EQ(0, connected(made_here("user", kUdp, kApp | kUdp)));
    expect_line("current db_flags: 0x2000000, all_db_flags: 0x3000000, user: user.", kInfo, kCoreFile,
                "sw_ebridge_mom_connected_callback");
    EXPECT_FALSE(recording::has_logged("libsw_ebridge all db connected, subscribe data."));
    EXPECT_THAT(recording::calls(), IsEmpty());
    const auto out = output_of([] { EXPECT_EQ(0, connected(made_here("user", kApp, kApp | kUdp))); });
    EXPECT_EQ("subscribing_flags:bmp[0]:0x00300000(pos:31-0), \n", out);
    const auto subscriptions = recording::calls_of("qz_mom_subscribe_field");
    ASSERT_EQ(2u, subscriptions.size());
    EXPECT_EQ(4u, subscriptions[0].db);
    EXPECT_EQ(8u, subscriptions[1].db);
}

TEST_F(Connections, UsersOfDifferentDatabasesDoNotAllReachTheSubscription)
{
    EXPECT_EQ(0, connected(connecting(evlan_user("first"), 4)));
    EXPECT_EQ(1u, recording::calls_of("qz_mom_subscribe_field").size());
    auto *second = connecting(evlan_user("second"), 8);
    EXPECT_EQ(0, connected(second));
    EXPECT_TRUE(recording::has_logged("current db_flags: 0x3000000, all_db_flags: 0x2000000, user: second.", kInfo));
    EXPECT_THAT(recording::calls_of("qz_mom_subscribe_field"), IsEmpty());
}

// ---- connected: what fails on the way

TEST_F(Connections, ConnectedWithoutMemoryForSubscriptionArguments)
{
    strings seen;
    for (uint64_t nth = 1; nth <= 2; ++nth) {
        auto *ca = nth == 1 ? connecting(evlan_user("user"), 4) : made_here("user", kApp, kApp);
        recording::reset();
        recording::fail_allocation(nth);
        EXPECT_EQ(-4, connected(ca));
        recording::fail_allocation(0);
        ASSERT_EQ(2u, errors().size());
        seen.push_back(errors()[0]);
        expect_line("get_sw_ebridge_subscribing_args failed, the flag = 20.", kError, kCoreFile,
                    "sw_ebridge_mom_connected_callback");
        expect_line(errors()[0], kError, kCoreFile, "sw_ebridge_alloc_subscribing_args");
        EXPECT_THAT(recording::calls(), IsEmpty());
    }
    EXPECT_THAT(seen, ElementsAre("Assert:malloc list_args failed.", "malloc sw_ebridge_subscribing_args failed."));
}

TEST_F(Connections, FailedUdpSubscriptionArgumentsNameTheirBit)
{
    auto *ca = connecting(evlan_user("user"), 8);
    recording::fail_allocation(1);
    EXPECT_EQ(-4, connected(ca));
    recording::fail_allocation(0);
    EXPECT_TRUE(recording::has_logged("get_sw_ebridge_subscribing_args failed, the flag = 21.", kError));
}

TEST_F(Connections, FailedEportSubscriptionArgumentsNameTheirBit)
{
    auto *ca = connecting(user_of_both_kinds("user"), 4);
    recording::fail_allocation(4);  // evlans take three
    EXPECT_EQ(-4, connected(ca));
    recording::fail_allocation(0);
    EXPECT_TRUE(recording::has_logged("get_sw_ebridge_subscribing_args failed, the flag = 84.", kError));
    EXPECT_EQ(1u, recording::calls_of("qz_mom_subscribe_field").size());
}

TEST_F(Connections, FailedEportSubscriptionArgumentsOfTheUdpDatabaseNameTheirBit)
{
    auto *ca = connecting(eport_user("user"), 8);
    recording::fail_allocation(1);
    EXPECT_EQ(-4, connected(ca));
    recording::fail_allocation(0);
    EXPECT_TRUE(recording::has_logged("get_sw_ebridge_subscribing_args failed, the flag = 85.", kError));
}

TEST_F(Connections, FailedEportSubscriptionFreesItsArgumentsAndTheOthersStay)
{
    auto *ca = connecting(user_of_both_kinds("user"), 4);
    recording::set_result("qz_mom_subscribe_field", -31, 2);
    const auto freed = freed_by([&] { EXPECT_EQ(0, sw_ebridge_mom_connected_callback(recording::handle(), ca)); });
    const auto subscriptions = recording::calls_of("qz_mom_subscribe_field");
    ASSERT_EQ(2u, subscriptions.size());
    EXPECT_TRUE(recording::has_logged("qz_mom_subscribe_field failed, error is -31.", kError));
    EXPECT_THAT(freed, Contains(static_cast<const void *>(pair_of(subscriptions[1])->arg)));
    EXPECT_EQ(4u, freed.size()) << "the connection's two blocks and the refused subscription's two";
    void *accepted = pair_of(subscriptions[0])->arg;
    EXPECT_EQ(2u, freed_by([&] { EXPECT_EQ(0, subscribed(notification(), accepted)); }).size());
}

TEST_F(Connections, EportSubscriptionWithoutMemoryForItsPairFreesItsArguments)
{
    auto *ca = connecting(eport_user("user"), 4);
    recording::fail_allocation(3);
    const auto freed = freed_by([&] { EXPECT_EQ(0, sw_ebridge_mom_connected_callback(recording::handle(), ca)); });
    recording::fail_allocation(0);
    EXPECT_TRUE(recording::has_logged("Assert:Malloc failed.", kError));
    EXPECT_EQ(4u, freed.size());
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(Connections, FailedSubscriptionFreesItsArgumentsAndTheOthersGoOn)
{
    connecting(evlan_user("user"), 4);
    connected(made_here("user", kUdp, 0));
    recording::reset();
    recording::set_result("qz_mom_subscribe_field", -31, 1);
    auto *ca = made_here("user", kApp, kApp | kUdp);
    const auto freed = freed_by([&] { EXPECT_EQ(0, sw_ebridge_mom_connected_callback(recording::handle(), ca)); });
    const auto subscriptions = recording::calls_of("qz_mom_subscribe_field");
    ASSERT_EQ(2u, subscriptions.size());
    EXPECT_TRUE(recording::has_logged("qz_mom_subscribe_field failed, rv: -31.", kError));
    const void *refused = pair_of(subscriptions[0])->arg;
    EXPECT_THAT(freed, Contains(refused));
    EXPECT_EQ(4u, freed.size()) << "the connection's two blocks and the refused subscription's two";
    void *accepted = pair_of(subscriptions[1])->arg;
    EXPECT_EQ(2u, freed_by([&] { EXPECT_EQ(0, subscribed(notification(29, 8), accepted)); }).size());
}

TEST_F(Connections, SubscriptionWithoutMemoryForItsPairFreesItsArguments)
{
    auto *ca = connecting(evlan_user("user"), 4);
    recording::fail_allocation(3);
    const auto freed = freed_by([&] { EXPECT_EQ(0, sw_ebridge_mom_connected_callback(recording::handle(), ca)); });
    recording::fail_allocation(0);
    EXPECT_TRUE(recording::has_logged("Assert:Malloc *ebridge_evlan_args failed.", kError));
    EXPECT_EQ(4u, freed.size());
    EXPECT_THAT(recording::calls(), IsEmpty());
}

// ---- subscribed

// A user whose cycle waits for its confirmations; gives the arguments of its subscriptions.
std::vector<void *> subscribing(uint32_t all_flags, const ebridge_args &user = evlan_user("user"))
{
    auto *first = connecting(user, all_flags == kUdp ? 8 : 4);
    user_of(first)->db_flags = all_flags;
    output_of([&] {
        connected(first);
        if (all_flags == (kApp | kUdp))
            connected(made_here("user", kUdp, all_flags));
    });
    std::vector<void *> arguments;
    for (const auto &made : recording::calls_of("qz_mom_subscribe_field"))
        arguments.push_back(pair_of(made)->arg);
    recording::reset();
    return arguments;
}

TEST_F(Connections, SubscribedRefusesNoMessage)
{
    const auto sa = subscribing(kApp);
    ASSERT_EQ(1u, sa.size());
    const auto freed =
        freed_by([&] { EXPECT_EQ(-2, sw_ebridge_mom_subscribed_callback(recording::handle(), nullptr, sa[0])); });
    expect_line("Assert:MOM msg is NULL.\n", kError, kCoreFile, "sw_ebridge_mom_subscribed_callback");
    EXPECT_EQ(1u, recording::logged().size());
    EXPECT_EQ(2u, freed.size());
    EXPECT_EQ(-2, sw_ebridge_mom_subscribed_callback(recording::handle(), nullptr, nullptr));
}

TEST_F(Connections, SubscribedRefusesAnError)
{
    const auto sa = subscribing(kApp);
    ASSERT_EQ(1u, sa.size());
    auto msg = notification();
    msg.error = -105;
    EXPECT_EQ(2u, freed_by([&] { EXPECT_EQ(-2, subscribed(msg, sa[0])); }).size());
    expect_line("Assert:MOM error is -105.\n", kError, kCoreFile, "sw_ebridge_mom_subscribed_callback");
    EXPECT_EQ(1u, recording::logged().size());
    recording::reset();
    EXPECT_EQ(-2, subscribed(msg, nullptr));
    EXPECT_THAT(errors(), ElementsAre("Assert:MOM error is -105.\n"));
}

TEST_F(Connections, SubscribedRefusesNoArguments)
{
    EXPECT_EQ(-2, subscribed(notification(), nullptr));
    expect_line("Assert:MOM args is NULL.\n", kError, kCoreFile, "sw_ebridge_mom_subscribed_callback");
    EXPECT_EQ(1u, recording::logged().size());
}

TEST_F(Connections, SubscribedSaysWhatItHeard)
{
    const auto sa = subscribing(kApp);
    ASSERT_EQ(1u, sa.size());
    subscribed(notification(), sa[0]);
    const auto text = format("db: 0x4, key: the:key, field: reply, cmd: 29, args: %p.", sa[0]);
    expect_line(text, kInfo, kCoreFile, "sw_ebridge_mom_subscribed_callback");
    EXPECT_EQ(text, recording::logged().front());
}

TEST_F(Connections, OtherCommandsChangeNothing)
{
    const auto sa = subscribing(kApp);
    ASSERT_EQ(1u, sa.size());
    for (const int32_t cmd : {0, 1, 3, 4, 6, 27, 28, 30}) {
        std::vector<const void *> freed;
        const auto out =
            output_of([&] { freed = freed_by([&] { EXPECT_EQ(0, subscribed(notification(cmd), sa[0])); }); });
        EXPECT_THAT(freed, IsEmpty()) << cmd;
        EXPECT_EQ("", out) << cmd;
    }
    EXPECT_THAT(recording::calls(), IsEmpty());
    EXPECT_EQ(0, subscribed(notification(), sa[0]));
    EXPECT_EQ(1u, recording::calls_of("qz_mom_scan").size());
}

TEST_F(Connections, ConfirmationStartsTheScan)
{
    const auto sa = subscribing(kApp);
    ASSERT_EQ(1u, sa.size());
    std::vector<const void *> freed;
    const auto out = output_of([&] { freed = freed_by([&] { EXPECT_EQ(0, subscribed(notification(), sa[0])); }); });
    EXPECT_EQ("subscribing_flags_setted: bmp[0]:0x00100000(pos:31-0), \n", out);
    expect_line("begin to scan app_db evlan_data, user: user.", kInfo, kCoreFile, "sw_ebridge_mom_subscribed_callback");
    ASSERT_EQ(1u, recording::calls().size());
    const auto scan = recording::calls()[0];
    EXPECT_EQ("qz_mom_scan", scan.function);
    EXPECT_EQ(recording::handle(), scan.handle);
    EXPECT_EQ(4u, scan.db);
    EXPECT_EQ(kPattern, scan.record);
    EXPECT_EQ(0u, scan.flags);
    EXPECT_EQ(code(sw_vlan_mom_msg_evlan_session_reply), scan.callback);
    EXPECT_EQ(nullptr, pair_of(scan)->func);
    EXPECT_EQ(nullptr, pair_of(scan)->arg);
    EXPECT_EQ(2u, freed.size());
    EXPECT_THAT(freed, Contains(static_cast<const void *>(sa[0])).Times(1));
}

TEST_F(Connections, ConfirmationOfTheUdpDatabaseScansIt)
{
    const auto sa = subscribing(kUdp);
    ASSERT_EQ(1u, sa.size());
    const auto out = output_of([&] { EXPECT_EQ(0, subscribed(notification(29, 8), sa[0])); });
    EXPECT_EQ("subscribing_flags_setted: bmp[0]:0x00200000(pos:31-0), \n", out);
    expect_line("begin to scan udp_db evlan_data, user: user.", kInfo, kCoreFile, "sw_ebridge_mom_subscribed_callback");
    ASSERT_EQ(1u, recording::calls().size());
    EXPECT_EQ(8u, recording::calls()[0].db);
}

TEST_F(Connections, ConfirmedSubscriptionsArePrintedAtInfoLevelOfStandardOutput)
{
    const auto sa = subscribing(kApp);
    ASSERT_EQ(1u, sa.size());
    g_sw_vlan_std_zlog_level = 3;
    EXPECT_EQ("", output_of([&] { subscribed(notification(), sa[0]); }));
}

// Each confirmation prints what is confirmed by then, whether others are missing or not.
TEST_F(Connections, ConfirmedSubscriptionsArePrintedBeforeTheFirstScan)
{
    const auto sa = subscribing(kApp, user_of_both_kinds("user"));
    ASSERT_EQ(2u, sa.size());
    EXPECT_EQ(0, subscribed(notification(), sa[0]));
    EXPECT_EQ("subscribing_flags_setted: bmp[0]:0x00100000(pos:31-0), \n", recording::printed());
    recording::reset();
    EXPECT_EQ(0, subscribed(notification(), sa[1]));
    EXPECT_EQ("subscribing_flags_setted: bmp[2]:0x00100000(pos:95-64), bmp[0]:0x00100000(pos:31-0), \n",
              recording::printed());
    EXPECT_EQ(0u, recording::log().front().printed_before);
    EXPECT_EQ(recording::printed().size(), only_line("begin to scan app_db evlan_data, user: user.").printed_before);
}

TEST_F(Connections, ScanWaitsForEveryConfirmationAndKeepsItsOrder)
{
    const auto sa = subscribing(kApp | kUdp);
    ASSERT_EQ(2u, sa.size());
    std::vector<const void *> freed;
    freed = freed_by([&] { EXPECT_EQ(0, subscribed(notification(29, 8), sa[1])); });
    EXPECT_EQ(2u, freed.size());
    EXPECT_THAT(recording::calls(), IsEmpty());
    recording::reset();
    freed = freed_by([&] { EXPECT_EQ(0, subscribed(notification(29, 4), sa[0])); });
    EXPECT_EQ(2u, freed.size());
    strings steps;
    for (const auto &step : recording::sequence())
        if (step.find("begin to scan") != std::string::npos || step == "call qz_mom_scan")
            steps.push_back(step);
    EXPECT_THAT(steps, ElementsAre("log 40 begin to scan app_db evlan_data, user: user.", "call qz_mom_scan",
                                   "log 40 begin to scan udp_db evlan_data, user: user.", "call qz_mom_scan"));
    EXPECT_EQ(4u, recording::calls()[0].db);
    EXPECT_EQ(8u, recording::calls()[1].db);
}

TEST_F(Connections, ConfirmationOfEportsStartsTheirScan)
{
    const auto sa = subscribing(kApp, eport_user("user"));
    ASSERT_EQ(1u, sa.size());
    std::vector<const void *> freed;
    const auto out = output_of([&] { freed = freed_by([&] { EXPECT_EQ(0, subscribed(notification(), sa[0])); }); });
    EXPECT_EQ("subscribing_flags_setted: bmp[2]:0x00100000(pos:95-64), \n", out);
    expect_line("begin to scan app_db eport_data, user: user.", kInfo, kCoreFile, "sw_ebridge_mom_subscribed_callback");
    ASSERT_EQ(1u, recording::calls().size());
    const auto scan = recording::calls()[0];
    EXPECT_EQ("qz_mom_scan", scan.function);
    EXPECT_EQ(recording::handle(), scan.handle);
    EXPECT_EQ(4u, scan.db);
    EXPECT_EQ(kEportPattern, scan.record);
    EXPECT_EQ(code(sw_vlan_mom_msg_eport_session_reply), scan.callback);
    EXPECT_EQ(nullptr, pair_of(scan)->func);
    EXPECT_EQ(nullptr, pair_of(scan)->arg);
    EXPECT_EQ(2u, freed.size());
}

TEST_F(Connections, ConfirmationOfEportsOfTheUdpDatabaseScansIt)
{
    const auto sa = subscribing(kUdp, eport_user("user"));
    ASSERT_EQ(1u, sa.size());
    EXPECT_EQ(0, subscribed(notification(29, 8), sa[0]));
    expect_line("begin to scan udp_db eport_data, user: user.", kInfo, kCoreFile, "sw_ebridge_mom_subscribed_callback");
    ASSERT_EQ(1u, recording::calls().size());
    EXPECT_EQ(8u, recording::calls()[0].db);
    EXPECT_EQ(kEportPattern, recording::calls()[0].record);
}

// Which of the four subscriptions is confirmed last.
class LastConfirmation : public CoreTest, public testing::WithParamInterface<size_t>
{
};

TEST_P(LastConfirmation, OfFourStartsTheScansInTheirOrder)
{
    const auto sa = subscribing(kApp | kUdp, user_of_both_kinds("user"));
    ASSERT_EQ(4u, sa.size());
    const auto confirm = [&](size_t n) {
        const auto freed = freed_by([&] { EXPECT_EQ(0, subscribed(notification(29, n < 2 ? 4 : 8), sa[n])); });
        EXPECT_THAT(freed, Contains(static_cast<const void *>(sa[n])).Times(1));
    };
    for (size_t n = sa.size(); n-- > 0;)
        if (n != GetParam())
            confirm(n);
    EXPECT_THAT(recording::calls(), IsEmpty());
    recording::reset();
    confirm(GetParam());
    strings steps;
    for (const auto &step : recording::sequence())
        if (step.find("begin to scan") != std::string::npos || step == "call qz_mom_scan")
            steps.push_back(step);
    EXPECT_THAT(steps, ElementsAre("log 40 begin to scan app_db evlan_data, user: user.", "call qz_mom_scan",
                                   "log 40 begin to scan udp_db evlan_data, user: user.", "call qz_mom_scan",
                                   "log 40 begin to scan app_db eport_data, user: user.", "call qz_mom_scan",
                                   "log 40 begin to scan udp_db eport_data, user: user.", "call qz_mom_scan"));
    strings scans;
    for (const auto &made : recording::calls())
        scans.push_back(std::to_string(made.db) + " " + made.record);
    EXPECT_THAT(scans, ElementsAre(format("4 %s", kPattern), format("8 %s", kPattern), format("4 %s", kEportPattern),
                                   format("8 %s", kEportPattern)));
}

INSTANTIATE_TEST_SUITE_P(Connections, LastConfirmation, testing::Values(0, 1, 2, 3));

// A confirmed table of one user makes the set of another, who does not want it, incomplete for ever.
TEST_F(Connections, UsersWithDifferentCallbacksDoNotAllReachTheScan)
{
    const auto first = subscribing(kApp);
    ASSERT_EQ(1u, first.size());
    EXPECT_EQ(0, subscribed(notification(), first[0]));
    EXPECT_EQ(1u, recording::calls_of("qz_mom_scan").size());
    recording::reset();
    const auto second = subscribing(kApp, eport_user("second"));
    ASSERT_EQ(1u, second.size());
    EXPECT_EQ(2u, freed_by([&] { EXPECT_EQ(0, subscribed(notification(), second[0])); }).size());
    EXPECT_THAT(recording::calls(), IsEmpty());
}

// A failed scan keeps nothing of those after it back.
TEST_F(Connections, ScansGoOnAfterOneThatFails)
{
    const auto sa = subscribing(kApp, user_of_both_kinds("user"));
    ASSERT_EQ(2u, sa.size());
    recording::set_result("qz_mom_scan", -105, 1);
    EXPECT_EQ(0, subscribed(notification(), sa[0]));
    EXPECT_EQ(0, subscribed(notification(), sa[1]));
    EXPECT_EQ(2u, recording::calls_of("qz_mom_scan").size());
}

TEST_F(Connections, SameConfirmationTwiceDoesNotReplaceTheOther)
{
    const auto first = subscribing(kApp | kUdp);
    ASSERT_EQ(2u, first.size());
    subscribed(notification(29, 4), first[0]);
    EXPECT_THAT(recording::calls(), IsEmpty());
    connected(made_here("user", kApp, kApp | kUdp));
    const auto again = recording::calls_of("qz_mom_subscribe_field");
    ASSERT_EQ(2u, again.size());
    recording::reset();
    subscribed(notification(29, 4), pair_of(again[0])->arg);
    EXPECT_THAT(recording::calls(), IsEmpty());
}

// The store's argument pair outlives the confirmation, so the arguments can be handed back after they were freed.
TEST_F(Connections, ConfirmationThatComesTwiceIsTakenOnce)
{
    const auto sa = subscribing(kApp);
    ASSERT_EQ(1u, sa.size());
    EXPECT_EQ(0, subscribed(notification(), sa[0]));
    recording::reset();
    const auto freed = freed_by([&] { EXPECT_EQ(0, subscribed(notification(), sa[0])); });
    EXPECT_THAT(freed, IsEmpty());
    EXPECT_THAT(recording::calls(), IsEmpty());
    auto failed = notification();
    failed.error = -105;
    EXPECT_THAT(freed_by([&] { EXPECT_EQ(-2, subscribed(failed, sa[0])); }), IsEmpty());
}

TEST_F(Connections, AlikeUsersOfAProcessBothReachTheScan)
{
    for (const char *name : {"first", "second"}) {
        EXPECT_EQ(0, connected(connecting(evlan_user(name), 4)));
        const auto subscriptions = recording::calls_of("qz_mom_subscribe_field");
        ASSERT_EQ(1u, subscriptions.size()) << name;
        recording::reset();
        EXPECT_EQ(0, subscribed(notification(), pair_of(subscriptions[0])->arg));
        EXPECT_EQ(1u, recording::calls_of("qz_mom_scan").size()) << name;
        recording::reset();
    }
}

// Each waits for its own confirmation, also while the other waits for one of the same table.
TEST_F(Connections, AlikeUsersThatWaitTogetherBothReachTheScan)
{
    for (const char *name : {"first", "second"})
        EXPECT_EQ(0, connected(connecting(evlan_user(name), 4)));
    std::vector<void *> waiting;
    for (const char *name : {"first", "second"})
        waiting.push_back(static_cast<sw_ebridge_callback_args *>(sw_ebridge_list_item_get(name)->mom_ds_args[4])->arg);
    recording::reset();
    for (void *sa : waiting)
        EXPECT_EQ(2u, freed_by([&] { EXPECT_EQ(0, subscribed(notification(), sa)); }).size());
    EXPECT_EQ(2u, recording::calls_of("qz_mom_scan").size());
    for (const char *name : {"first", "second"})
        EXPECT_TRUE(recording::has_logged(format("begin to scan app_db evlan_data, user: %s.", name), kInfo));
}

// A later cycle finds its confirmations in place and scans at the first of them.
TEST_F(Connections, ConfirmationsAreNeverForgotten)
{
    const auto sa = subscribing(kApp | kUdp);
    ASSERT_EQ(2u, sa.size());
    subscribed(notification(29, 4), sa[0]);
    subscribed(notification(29, 8), sa[1]);
    recording::reset();
    connected(made_here("user", kUdp, kApp | kUdp));
    const auto again = recording::calls_of("qz_mom_subscribe_field");
    ASSERT_EQ(2u, again.size());
    subscribed(notification(29, 8), pair_of(again[1])->arg);
    EXPECT_EQ(2u, recording::calls_of("qz_mom_scan").size());
}

// A connection that comes back twice before the first confirmation begins a second cycle; the first one's arguments go.
TEST_F(Connections, OvertakenCycleFreesItsArguments)
{
    auto *first = connecting(evlan_user("user"), 4);
    connected(first);
    const auto subscribed_first = recording::calls_of("qz_mom_subscribe_field");
    ASSERT_EQ(1u, subscribed_first.size());
    const void *overtaken = pair_of(subscribed_first[0])->arg;
    auto *second = made_here("user", kApp, kApp);
    const auto freed = freed_by([&] { connected(second); });
    EXPECT_THAT(freed, Contains(overtaken));
    recording::reset();
    void *current = pair_of(subscribed_first[0])->arg;
    EXPECT_EQ(0, subscribed(notification(29, 4), current));
    EXPECT_EQ(1u, recording::calls_of("qz_mom_scan").size());
    EXPECT_EQ(0, subscribed(notification(29, 4), current));  // the second confirmation finds nobody
    EXPECT_EQ(1u, recording::calls_of("qz_mom_scan").size());
}

// ---- reconnections

sw_ebridge_list_item *instance()
{
    auto *ca = connecting(evlan_user("user"), 4);
    std::free(ca->args2);
    std::free(ca);
    return sw_ebridge_list_item_get("user");
}

int32_t reconnect(uint32_t db, int32_t type, void *user)
{
    return sw_ebridge_mom_reconnect_cb(recording::handle(), db, type, user);
}

TEST_F(Connections, ConnectionErrorReturns77AndChangesNothing)
{
    auto *user = instance();
    recording::fail_allocation(0);
    EXPECT_EQ(77, reconnect(4, 1, user));
    EXPECT_EQ(77, reconnect(8, 1, nullptr));
    EXPECT_EQ(0u, recording::allocations());
    expect_line("rmc_connect_error received, db: 4 reconnected, type: 1.", kFatal, kCoreFile,
                "sw_ebridge_mom_reconnect_cb");
    EXPECT_EQ(2u, recording::logged().size());
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(Connections, ConnectionErrorIsLoggedAtEveryLevel)
{
    g_sw_vlan_file_zlog_level = 0;
    g_sw_vlan_std_zlog_level = 0;
    EXPECT_EQ(77, reconnect(8, 1, nullptr));
    ASSERT_EQ(2u, recording::log().size());
    EXPECT_EQ("sw_vlan_file", recording::log()[0].category);
    EXPECT_EQ("sw_vlan_std", recording::log()[1].category);
    EXPECT_EQ(kFatal, recording::log()[1].level);
}

TEST_F(Connections, ReconnectionNeedsItsUser)
{
    for (const int32_t type : {2, 0, 3}) {
        recording::reset();
        EXPECT_EQ(-2, reconnect(4, type, nullptr));
        expect_line("Assert:reconnect args failed.", kError, kCoreFile, "sw_ebridge_mom_reconnect_cb");
    }
}

TEST_F(Connections, OtherReconnectEventsAreIgnored)
{
    auto *user = instance();
    for (const int32_t type : {0, 3, -1})
        EXPECT_EQ(0, reconnect(4, type, user));
    EXPECT_THAT(recording::logged(), IsEmpty());
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(Connections, ReconnectionRunsTheCycle)
{
    auto *user = instance();
    std::vector<const void *> freed = freed_by([&] { EXPECT_EQ(0, reconnect(8, 2, user)); });
    ASSERT_EQ(2u, freed.size());
    const bool outer_first = recording::has_logged(
        format("reconnect_args: (p: %p), db_flags: 0x2000000, list_args: (p: %p).", freed[0], freed[1]), kInfo);
    const bool inner_first = recording::has_logged(
        format("reconnect_args: (p: %p), db_flags: 0x2000000, list_args: (p: %p).", freed[1], freed[0]), kInfo);
    EXPECT_TRUE(outer_first || inner_first) << testing::PrintToString(recording::logged());
    EXPECT_EQ("sw_ebridge_mom_reconnect_cb", recording::log()[0].function);
    EXPECT_TRUE(recording::has_logged("current db_flags: 0x2000000, all_db_flags: 0x2000000, user: user.", kInfo));
    const auto subscriptions = recording::calls_of("qz_mom_subscribe_field");
    ASSERT_EQ(1u, subscriptions.size());
    EXPECT_EQ(8u, subscriptions[0].db);
    EXPECT_THAT(recording::calls_of("qz_mom_client_connect"), IsEmpty());
}

TEST_F(Connections, ReconnectionOfTheAppDatabaseHasItsFlag)
{
    EXPECT_EQ(0, reconnect(4, 2, instance()));
    EXPECT_TRUE(recording::has_logged("current db_flags: 0x1000000, all_db_flags: 0x1000000, user: user.", kInfo));
}

TEST_F(Connections, ReconnectionReturnsWhatTheCycleReturns)
{
    auto unknown = *instance();
    std::snprintf(unknown.user_name, sizeof unknown.user_name, "nobody");
    EXPECT_EQ(-2, reconnect(4, 2, &unknown));
    EXPECT_TRUE(recording::has_logged("current db_flags: 0x1000000, all_db_flags: 0x1000000, user: nobody.", kInfo));
    EXPECT_TRUE(recording::has_logged("No user named 'nobody'.", kError));
}

TEST_F(Connections, ReconnectionWithoutMemory)
{
    auto *user = instance();
    recording::fail_allocation(1);
    EXPECT_EQ(0u, freed_by([&] { EXPECT_EQ(-1, reconnect(4, 2, user)); }).size());
    EXPECT_THAT(errors(), ElementsAre("Assert:malloc list_args failed."));
    recording::reset();
    recording::fail_allocation(2);
    EXPECT_EQ(1u, freed_by([&] { EXPECT_EQ(-1, reconnect(4, 2, user)); }).size());
    recording::fail_allocation(0);
    EXPECT_THAT(errors(), ElementsAre("malloc sw_ebridge_connect_args failed."));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(Connections, ReconnectHandlerOfAnUnknownUser)
{
    sw_ebridge_list_init();
    EXPECT_EQ(-2, sw_bridge_reg_reconnect("nobody"));
    expect_line("Assert:sw_ebridge_list_item_get_inst(nobody) failed.", kError, kCoreFile, "sw_bridge_reg_reconnect");
    EXPECT_EQ(-2, sw_bridge_reg_reconnect(nullptr));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

// ---- subscribing by hand

TEST_F(Connections, SubscribingByHandNeedsAUser)
{
    sw_ebridge_list_init();
    EXPECT_EQ(-2, sw_ebridge_data_subscribe("nobody"));
    expect_line("Assert:No user named 'nobody'.\n", kError, kCoreFile, "sw_ebridge_data_subscribe");
    EXPECT_EQ(-2, sw_ebridge_data_subscribe(nullptr));
    EXPECT_TRUE(recording::has_logged("Assert:No user named 'NULL'.\n", kError));
}

void initialise_by_hand(ebridge_args args, uint32_t mom_db)
{
    EXPECT_EQ(0, sw_ebridge_init(&args));
    sw_ebridge_list_item_get(args.user_name)->mod_db = mom_db;
    recording::reset();
}

TEST_F(Connections, SubscribingByHandFollowsEvlansOfTheOwnDatabase)
{
    for (const bool vlans : {false, true}) {
        auto args = args_of("user");
        args.vlan_reply = vlans ? no_vlan_reply : nullptr;
        args.evlan_reply = vlans ? nullptr : no_evlan_reply;
        initialise_by_hand(args, SW_EBRIDGE_UDP_DB);
        EXPECT_EQ(0, sw_ebridge_data_subscribe("user"));
        ASSERT_EQ(1u, recording::calls().size());
        EXPECT_EQ("qz_mom_subscribe_field", recording::calls()[0].function);
        EXPECT_EQ(8u, recording::calls()[0].db);
        EXPECT_EQ(nullptr, pair_of(recording::calls()[0])->func);
        EXPECT_EQ(nullptr, pair_of(recording::calls()[0])->arg);
    }
}

TEST_F(Connections, SubscribingByHandFollowsEportsOfTheOwnDatabase)
{
    initialise_by_hand(eport_user("user"), SW_EBRIDGE_UDP_DB);
    EXPECT_EQ(0, sw_ebridge_data_subscribe("user"));
    ASSERT_EQ(1u, recording::calls().size());
    EXPECT_EQ("qz_mom_subscribe_field", recording::calls()[0].function);
    EXPECT_EQ(8u, recording::calls()[0].db);
    EXPECT_EQ(kEportPattern, recording::calls()[0].record);
    EXPECT_EQ(nullptr, pair_of(recording::calls()[0])->func);
    EXPECT_EQ(nullptr, pair_of(recording::calls()[0])->arg);
}

// In whatever database that is: it needs no slot of the instance.
TEST_F(Connections, SubscribingByHandFollowsDefaultVlansOfTheOwnDatabase)
{
    auto args = args_of("user");
    args.pvid_change = no_pvid_change;
    for (const uint32_t db : {4u, 5u, 8u}) {
        initialise_by_hand(args, db);
        EXPECT_EQ(0, sw_ebridge_data_subscribe("user"));
        ASSERT_EQ(1u, recording::calls().size());
        const auto &made = recording::calls()[0];
        EXPECT_EQ("qz_mom_subscribe", made.function);
        EXPECT_EQ(db, made.db);
        EXPECT_EQ(kPvidPattern, made.record);
        EXPECT_EQ(code(sw_vlan_mom_msg_port_vid_changed), made.callback);
        EXPECT_EQ(nullptr, pair_of(made)->func);
        EXPECT_EQ(nullptr, pair_of(made)->arg);
        EXPECT_TRUE(recording::has_logged("User 'user' subscribe PVID, func is (nil), args is (nil).", kInfo));
    }
    EXPECT_EQ(3, sw_brg_stat_pvid_count_subscribe_get());
}

TEST_F(Connections, SubscribingByHandFollowsEvlansThenEportsThenDefaultVlansWhateverFails)
{
    auto args = user_of_both_kinds("user");
    args.pvid_change = no_pvid_change;
    initialise_by_hand(args, 4);
    recording::set_result("qz_mom_subscribe_field", -31);
    recording::set_result("qz_mom_subscribe", -32);
    EXPECT_EQ(0, sw_ebridge_data_subscribe("user"));
    strings subscriptions;
    for (const auto &made : recording::calls())
        subscriptions.push_back(made.record);
    EXPECT_THAT(subscriptions, ElementsAre(kPattern, kEportPattern, kPvidPattern));
    EXPECT_TRUE(recording::has_logged("qz_mom_subscribe failed, rv: -32.", kError));
    EXPECT_EQ("sw_ebridge_data_subscribe done.", recording::logged().back());
}

TEST_F(Connections, SubscribingByHandSaysWhatItFollows)
{
    auto args = args_of("user");
    args.vlan_reply = no_vlan_reply;
    args.evlan_reply = no_evlan_reply;
    args.eport_reply = no_eport_reply;
    args.pvid_change = no_pvid_change;
    initialise_by_hand(args, 4);
    EXPECT_EQ(0, sw_ebridge_data_subscribe("user"));
    const auto text = format("User 'user' subscribe all data, vlan is %p, evlan is %p, eport is %p, pvid is %p.",
                             code(no_vlan_reply), code(no_evlan_reply), code(no_eport_reply), code(no_pvid_change));
    expect_line(text, kInfo, kCoreFile, "sw_ebridge_data_subscribe");
    expect_line("sw_ebridge_data_subscribe done.", kInfo, kCoreFile, "sw_ebridge_data_subscribe");
    EXPECT_EQ(text, recording::logged().front());
    EXPECT_EQ("sw_ebridge_data_subscribe done.", recording::logged().back());
}

TEST_F(Connections, SubscribingByHandWithoutCallbacksFollowsNothing)
{
    initialise_by_hand(args_of("user"), 4);
    EXPECT_EQ(0, sw_ebridge_data_subscribe("user"));
    EXPECT_THAT(recording::calls(), IsEmpty());
    EXPECT_THAT(recording::logged(), testing::SizeIs(2));
}

TEST_F(Connections, SubscribingByHandSucceedsWhateverTheSubscriptionSays)
{
    auto args = evlan_user("user");
    initialise_by_hand(args, 5);
    EXPECT_EQ(0, sw_ebridge_data_subscribe("user"));
    EXPECT_TRUE(recording::has_logged("Assert:ds args errors.", kError));
    EXPECT_TRUE(recording::has_logged("sw_ebridge_data_subscribe done.", kInfo));
}

}  // namespace
}  // namespace core_test
