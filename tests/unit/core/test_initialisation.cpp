// sw_ebridge_init: the checks, the record, the tables, the connections, and what a failure leaves behind.
#include <algorithm>
#include <fstream>

#include "core_fixture.hpp"

namespace core_test
{
namespace
{

class Initialisation : public CoreTest
{
};

template <typename Function>
const void *code(Function *function)
{
    return reinterpret_cast<const void *>(function);
}

// A callback that is never called: a pointer of its own for each slot of the record.
template <typename Function>
Function never_called(uintptr_t value)
{
    return reinterpret_cast<Function>(value);
}

strings calls_by_name()
{
    strings names;
    for (const auto &made : recording::calls())
        names.push_back(made.function);
    return names;
}

sw_ebridge_connecting_args *block_of(const recording::call &connect)
{
    return static_cast<sw_ebridge_connecting_args *>(connect.args);
}

// ---- the checks

TEST_F(Initialisation, NullArgumentsAreRefused)
{
    EXPECT_EQ(-2, sw_ebridge_init(nullptr));
    expect_line("Assert:Bad args.", kError, kCoreFile, "sw_ebridge_init_inst");
    EXPECT_EQ(1u, recording::logged().size());
}

TEST_F(Initialisation, NullNameIsRefused)
{
    const auto args = args_of(nullptr);
    EXPECT_EQ(-2, sw_ebridge_init(&args));
    expect_line("Assert:Bad username.", kError, kCoreFile, "sw_ebridge_init_inst");
    EXPECT_EQ(1u, recording::logged().size());
}

TEST_F(Initialisation, NameOf32CharactersOrMoreIsRefused)
{
    for (const size_t length : {32u, 33u, 64u, 1000u}) {
        recording::reset();
        const std::string name(length, 'n');
        const auto args = args_of(name.c_str());
        EXPECT_EQ(-2, sw_ebridge_init(&args)) << length;
        expect_line("Assert:Bad user_name, limit the user_name to 32 characters.", kError, kCoreFile,
                    "sw_ebridge_init_inst");
        EXPECT_EQ(1u, recording::logged().size()) << length;
    }
    sw_ebridge_list_init();
    EXPECT_EQ(0u, sw_ebridge_list_item_hash_size(0));
}

TEST_F(Initialisation, NameOf31CharactersIsAccepted)
{
    const std::string name(31, 'n');
    const auto args = args_of(name.c_str());
    EXPECT_EQ(0, sw_ebridge_init(&args));
    ASSERT_NE(nullptr, sw_ebridge_list_item_get(name.c_str()));
    EXPECT_STREQ(name.c_str(), sw_ebridge_list_item_get(name.c_str())->user_name);
}

TEST_F(Initialisation, EmptyNameIsAccepted)
{
    const auto args = args_of("");
    EXPECT_EQ(0, sw_ebridge_init(&args));
    EXPECT_NE(nullptr, sw_ebridge_list_item_get(""));
}

// ---- logging comes first

TEST(InitialisationFromNothing, SetsUpLoggingAfterTheChecks)
{
    auto args = args_of(nullptr);
    sw_ebridge_init(&args);
    sw_ebridge_init(nullptr);
    EXPECT_THAT(recording::calls(), IsEmpty());
    args.user_name = "unit-core-user";
    args.mom_db = 4;
    EXPECT_EQ(0, sw_ebridge_init(&args));
    strings expected = {"qz_zlog_init", "qz_zlog_init", "ssat_lib_init"};
    expected.insert(expected.end(), recording::calls_of("ssat_reg_mod_cmd").size(), "ssat_reg_mod_cmd");
    expected.push_back("qz_mom_client_connect");
    EXPECT_EQ(calls_by_name(), expected);
    EXPECT_EQ(1u, g_sw_vlan_file_zlog_level);
    EXPECT_EQ(0u, g_sw_vlan_std_zlog_level);
}

// The debug file opens the levels, so the lines of this very call are written.
TEST(InitialisationFromNothing, SaysWhatItWasGivenOnceLoggingIsSetUp)
{
    const own_root root;
    if (!root.entered())
        GTEST_SKIP() << "no root folder of the test's own: " << root.reason();
    std::ofstream("/etc/libvlan_user_dbg") << "0x40";
    const auto args = args_of("user");
    output_of([&] { EXPECT_EQ(0, sw_ebridge_init(&args)); });
    ASSERT_GE(recording::logged().size(), 2u);
    EXPECT_THAT(recording::logged()[0], testing::StartsWith("sw_vlan_zlog inited!!!, user: user,"));
    EXPECT_THAT(recording::logged()[1], testing::StartsWith("ebridge_args->handle: "));
}

TEST_F(Initialisation, SaysWhatItWasGivenFirst)
{
    auto args = args_of("user");
    args.mom_db = 0x1f;
    EXPECT_EQ(0, sw_ebridge_init(&args));
    const auto text = format("ebridge_args->handle: %p, mom_db: 0x1f.", static_cast<void *>(recording::handle()));
    expect_line(text, kInfo, kCoreFile, "sw_ebridge_init_inst");
    EXPECT_EQ(text, recording::logged().front());
}

TEST_F(Initialisation, SaysWhenItIsDone)
{
    const auto args = args_of("user");
    EXPECT_EQ(0, sw_ebridge_init(&args));
    expect_line("sw_ebridge_init successful.", kInfo, kCoreFile, "sw_ebridge_init_inst");
    EXPECT_EQ("sw_ebridge_init successful.", recording::logged().back());
    EXPECT_THAT(errors(), IsEmpty());
}

// ---- the record

ebridge_args full_args()
{
    auto args = args_of("user");
    args.mom_db = 5;
    args.evlan_attr_mom_db = 11;
    args.eport_attr_mom_db = 12;
    args.ematch_mom_db = 13;
    args.auto_subscribe = 200;
    args.auto_scan = 100;
    args.evlan_data_type = 21;
    args.eport_data_type = 22;
    args.vlan_reply = never_called<sw_vlan_reply_func>(0x101);
    args.evlan_reply = never_called<sw_evlan_reply_func>(0x102);
    args.eport_reply = never_called<sw_eport_reply_func>(0x103);
    args.evlan_release_reply = never_called<sw_evlan_release_reply_func>(0x104);
    args.eport_release_reply = never_called<sw_eport_release_reply_func>(0x105);
    args.ematch_reply = never_called<sw_ematch_reply_func>(0x106);
    args.pvid_change = never_called<sw_pvid_change_func>(0x107);
    args.sda_evlan_create = never_called<sda_evlan_func>(0x108);
    args.reserved_evlan = never_called<void *>(0x109);
    args.sda_evlan_destroy = never_called<sda_evlan_func>(0x10a);
    args.sda_eport_create = never_called<sda_eport_func>(0x10b);
    args.reserved_eport = never_called<void *>(0x10c);
    args.sda_eport_destroy = never_called<sda_eport_func>(0x10d);
    args.sda_vlan_port_change = never_called<sda_vlan_port_change_func>(0x10e);
    args.sda_vlan_fid_change = never_called<sda_vlan_fid_change_func>(0x10f);
    return args;
}

// The record that full_args() makes.
sw_ebridge_list_item full_record()
{
    const auto args = full_args();
    auto record = record_of("user", 5);
    record.mom_handle = recording::handle();
    record.evlan_attr_mom_db = 11;
    record.eport_attr_mom_db = 12;
    record.ematch_mom_db = 13;
    record.evlan_data_type = 21;
    record.eport_data_type = 22;
    record.auto_subscribe = 200;
    record.auto_scan = 100;
    record.vlan_reply = args.vlan_reply;
    record.evlan_reply = args.evlan_reply;
    record.eport_reply = args.eport_reply;
    record.evlan_release_reply = args.evlan_release_reply;
    record.eport_release_reply = args.eport_release_reply;
    record.ematch_reply = args.ematch_reply;
    record.pvid_change = args.pvid_change;
    record.sda_evlan_create = args.sda_evlan_create;
    record.reserved_evlan = args.reserved_evlan;
    record.sda_evlan_destroy = args.sda_evlan_destroy;
    record.sda_eport_create = args.sda_eport_create;
    record.reserved_eport = args.reserved_eport;
    record.sda_eport_destroy = args.sda_eport_destroy;
    record.sda_vlan_port_change = args.sda_vlan_port_change;
    record.sda_vlan_fid_change = args.sda_vlan_fid_change;
    return record;
}

void expect_full_record(const sw_ebridge_list_item *user)
{
    ASSERT_NE(nullptr, user);
    auto expected = full_record();
    expected.eport_maps = user->eport_maps;
    expected.evlan_maps = user->evlan_maps;
    EXPECT_EQ(0, std::memcmp(&expected, user, sizeof expected));
    EXPECT_TRUE(linked_to_itself(user->eport_maps));
    EXPECT_TRUE(linked_to_itself(user->evlan_maps));
}

TEST_F(Initialisation, CopiesEverySetting)
{
    const auto args = full_args();
    EXPECT_EQ(0, sw_ebridge_init(&args));
    expect_full_record(sw_ebridge_list_item_get("user"));
    EXPECT_TRUE(recording::has_logged("user: user, reg mom_db: 0x5.", kInfo));
}

TEST_F(Initialisation, RegistersInTheTableThatItIsGiven)
{
    const auto args = args_of("user");
    EXPECT_EQ(0, sw_ebridge_init_inst(3, &args));
    EXPECT_EQ(nullptr, sw_ebridge_list_item_get("user"));
    EXPECT_NE(nullptr, sw_ebridge_list_item_get_inst(3, "user"));
    EXPECT_TRUE(recording::has_logged("db_init, hash_id: 3.", kInfo));
    const auto other = args_of("other");
    EXPECT_EQ(0, sw_ebridge_init(&other));
    EXPECT_NE(nullptr, sw_ebridge_list_item_get("other"));
}

TEST_F(Initialisation, TableThatIsNotThereIsRefused)
{
    const auto args = args_of("user");
    EXPECT_EQ(-5, sw_ebridge_init_inst(6, &args));
    EXPECT_THAT(errors(), ElementsAre("Assert:Bad inst[6].", "Assert:DL_HASH_CREATE fail."));
    EXPECT_FALSE(recording::has_logged("db_init, hash_id: 6."));
}

// ---- the second time

TEST_F(Initialisation, SecondTimeReplacesTheSettings)
{
    auto args = args_of("user");
    EXPECT_EQ(0, sw_ebridge_init(&args));
    auto *user = sw_ebridge_list_item_get("user");
    ASSERT_NE(nullptr, user);
    user->age_timer_armed = 1;
    user->stat = 3;
    user->mom_ds_args[7] = user;
    user->subscribe_args = user;
    sw_list_head item = {&user->evlan_maps, &user->evlan_maps};
    user->evlan_maps = {&item, &item};
    recording::reset();

    args = full_args();
    EXPECT_EQ(0, sw_ebridge_init(&args));
    expect_line("init twice, name: user.", kWarning, kCoreFile, "sw_ebridge_init_inst");
    EXPECT_EQ(user, sw_ebridge_list_item_get("user"));
    expect_full_record(user);
    EXPECT_TRUE(linked_to_itself(item));
}

TEST_F(Initialisation, SecondTimeInAnotherTableReplacesTheSettingsThere)
{
    auto args = args_of("user");
    EXPECT_EQ(0, sw_ebridge_init_inst(3, &args));
    args = full_args();
    EXPECT_EQ(0, sw_ebridge_init_inst(3, &args));
    EXPECT_TRUE(recording::has_logged("init twice, name: user.", kWarning));
    expect_full_record(sw_ebridge_list_item_get_inst(3, "user"));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(Initialisation, SameNameInAnotherTableGoesAllTheWay)
{
    auto args = args_of("user");
    EXPECT_EQ(0, sw_ebridge_init(&args));
    recording::reset();
    args.mom_db = 4;
    EXPECT_EQ(0, sw_ebridge_init_inst(3, &args));
    EXPECT_FALSE(recording::has_logged("init twice, name: user."));
    EXPECT_TRUE(recording::has_logged("sw_ebridge_init successful.", kInfo));
    EXPECT_EQ(1u, recording::calls_of("qz_mom_client_connect").size());
    EXPECT_EQ(0u, sw_ebridge_list_item_get("user")->mod_db);
    EXPECT_EQ(4u, sw_ebridge_list_item_get_inst(3, "user")->mod_db);
}

TEST_F(Initialisation, SecondTimeDoesNothingElseAgain)
{
    const auto args = full_args();
    EXPECT_EQ(0, sw_ebridge_init(&args));
    recording::reset();
    EXPECT_EQ(0, sw_ebridge_init(&args));
    EXPECT_THAT(recording::calls(), IsEmpty());
    EXPECT_THAT(recording::logged(), ElementsAre(HasSubstr("ebridge_args->handle"), "user: user, reg mom_db: 0x5.",
                                                 "init twice, name: user."));
}

TEST_F(Initialisation, BlankUserCountsAsRegistered)
{
    sw_ebridge_attr_db_init(0, "user");
    const auto args = full_args();
    EXPECT_EQ(0, sw_ebridge_init(&args));
    EXPECT_TRUE(recording::has_logged("init twice, name: user.", kWarning));
    EXPECT_THAT(recording::calls_of("qz_mom_client_connect"), IsEmpty());
}

TEST_F(Initialisation, SecondUserGoesAllTheWay)
{
    auto args = args_of("first");
    EXPECT_EQ(0, sw_ebridge_init(&args));
    recording::reset();
    args = args_of("second");
    args.mom_db = 4;
    EXPECT_EQ(0, sw_ebridge_init(&args));
    EXPECT_TRUE(recording::has_logged("sw_ebridge_init successful.", kInfo));
    EXPECT_EQ(1u, recording::calls_of("qz_mom_client_connect").size());
}

// ---- the congestion connection

TEST_F(Initialisation, OpensTheCongestionConnection)
{
    auto args = args_of("user");
    args.mom_db = 4;
    EXPECT_EQ(0, sw_ebridge_init(&args));
    ASSERT_EQ(1u, recording::calls().size());
    const auto connect = recording::calls()[0];
    EXPECT_EQ("qz_mom_client_connect", connect.function);
    EXPECT_EQ(recording::handle(), connect.handle);
    EXPECT_EQ(4u, connect.db);
    EXPECT_EQ(code(sw_ebridge_mom_connected_for_congestion_callback), connect.callback);
    const auto *block = block_of(connect);
    EXPECT_EQ(0x1000000u, block->args);
    const auto *user = static_cast<const sw::list_args *>(block->args2);
    EXPECT_STREQ("user", user->user_name);
    EXPECT_EQ(0x1000000u, user->db_flags);
    for (const uint32_t word : user->subscribing_flags)
        EXPECT_EQ(0u, word);
    const auto text =
        format("connect_args: (p: %p), db_flags: 0x1000000, list_args: (p: %p).", connect.args, block->args2);
    expect_line(text, kInfo, kCoreFile, "sw_ebridge_alloc_connecting_args");
    const auto &steps = recording::sequence();
    const auto asked = std::find(steps.begin(), steps.end(), "call qz_mom_client_connect");
    ASSERT_NE(steps.begin(), asked);
    EXPECT_EQ("log 40 " + text, asked[-1]) << "told before the store is asked";
}

TEST_F(Initialisation, AnyDatabaseButFourHasTheOtherFlag)
{
    for (const uint32_t db : {1u, 3u, 5u, 8u, 15u}) {
        recording::reset();
        const std::string name = "user" + std::to_string(db);
        auto args = args_of(name.c_str());
        args.mom_db = db;
        EXPECT_EQ(0, sw_ebridge_init(&args));
        const auto connects = recording::calls_of("qz_mom_client_connect");
        ASSERT_EQ(1u, connects.size());
        EXPECT_EQ(db, connects[0].db);
        EXPECT_EQ(0x2000000u, block_of(connects[0])->args);
        EXPECT_EQ(0x2000000u, static_cast<const sw::list_args *>(block_of(connects[0])->args2)->db_flags);
    }
}

TEST_F(Initialisation, WithoutADatabaseOfItsOwnThereIsNoCongestionConnection)
{
    const auto args = args_of("user");
    EXPECT_EQ(0, sw_ebridge_init(&args));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(Initialisation, CongestionConnectionThatFailsEndsIt)
{
    auto args = full_args();
    recording::set_result("qz_mom_client_connect", QZ_MOM_EDOWN, 1);
    EXPECT_EQ(QZ_MOM_EDOWN, sw_ebridge_init(&args));
    expect_line("Assert:sw_ebridge congestion connect failed.", kError, kCoreFile, "sw_ebridge_init_inst");
    EXPECT_EQ(1u, recording::calls().size());
    EXPECT_FALSE(recording::has_logged("sw_ebridge_init successful."));
    expect_full_record(sw_ebridge_list_item_get("user"));
}

const void *refused_list_args = nullptr;

TEST_F(Initialisation, RefusedConnectionFreesItsArguments)
{
    auto args = args_of("user");
    args.mom_db = 4;
    recording::set_result("qz_mom_client_connect", -77);
    static std::vector<const void *> blocks;
    recording::on_free([](void *block) {
        blocks.push_back(block);
        const auto connects = recording::calls_of("qz_mom_client_connect");
        if (!connects.empty() && connects[0].args == block)
            refused_list_args = block_of(connects[0])->args2;
    });
    EXPECT_EQ(-77, sw_ebridge_init(&args));
    recording::on_free(nullptr);
    const void *connecting = recording::calls_of("qz_mom_client_connect").at(0).args;
    // Once at least: the memory may have been given out and freed again. Twice in a row is for a sanitizer to find.
    EXPECT_THAT(blocks, Contains(connecting));
    EXPECT_THAT(blocks, Contains(refused_list_args));
}

// ---- the data connection

struct data_connection {
    const char *name;
    uint32_t mom_db;
    uint8_t auto_subscribe, auto_scan;
    uint32_t evlan_data_type, eport_data_type;
    uint32_t connected_db, reconnect_db;
};

class DataConnection : public CoreTest, public testing::WithParamInterface<data_connection>
{
};

ebridge_args connection_args(const data_connection &wanted)
{
    auto args = args_of("user");
    args.mom_db = wanted.mom_db;
    args.auto_subscribe = wanted.auto_subscribe;
    args.auto_scan = wanted.auto_scan;
    args.evlan_data_type = wanted.evlan_data_type;
    args.eport_data_type = wanted.eport_data_type;
    return args;
}

TEST_P(DataConnection, GoesToItsDatabase)
{
    const auto args = connection_args(GetParam());
    EXPECT_EQ(0, sw_ebridge_init(&args));
    const size_t congestion = GetParam().mom_db != 0 ? 1 : 0;
    ASSERT_EQ(congestion + 2, recording::calls().size());
    const auto connect = recording::calls()[congestion];
    EXPECT_EQ("qz_mom_client_connect", connect.function);
    EXPECT_EQ(recording::handle(), connect.handle);
    EXPECT_EQ(GetParam().connected_db, connect.db);
    EXPECT_EQ(code(sw_ebridge_mom_connected_callback), connect.callback);
    EXPECT_EQ(GetParam().connected_db == 4 ? 0x1000000u : 0x2000000u, block_of(connect)->args);
    EXPECT_STREQ("user", static_cast<const sw::list_args *>(block_of(connect)->args2)->user_name);
}

TEST_P(DataConnection, RegistersTheReconnectHandlerAfterwards)
{
    const auto args = connection_args(GetParam());
    EXPECT_EQ(0, sw_ebridge_init(&args));
    const auto handler = recording::calls().back();
    EXPECT_EQ("qz_mom_client_set_reconnect_cb", handler.function);
    EXPECT_EQ(recording::handle(), handler.handle);
    EXPECT_EQ(GetParam().reconnect_db, handler.db);
    EXPECT_EQ(code(sw_ebridge_mom_reconnect_cb), handler.callback);
    EXPECT_EQ(sw_ebridge_list_item_get("user"), handler.args);
}

INSTANTIATE_TEST_SUITE_P(Settings, DataConnection,
                         testing::Values(data_connection{"SubscribeOnly", 4, 1, 0, 0, 0, 4, 4},
                                         data_connection{"ScanOnly", 4, 0, 1, 0, 0, 4, 4},
                                         data_connection{"OwnDatabase", 6, 1, 1, 0, 0, 6, 6},
                                         data_connection{"EvlanTypeOnly", 4, 1, 0, 2, 0, 8, 4},
                                         data_connection{"EportTypeOnly", 4, 1, 0, 0, 1, 8, 4},
                                         data_connection{"BothTypes", 4, 1, 0, 1, 1, 8, 8},
                                         data_connection{"NoDatabase", 0, 1, 0, 0, 0, 0, 0},
                                         data_connection{"NoDatabaseWithType", 0, 0, 1, 1, 0, 8, 0}),
                         parameter_name<data_connection>);

TEST_F(Initialisation, WithoutAutomaticFlagsThereIsNoDataConnection)
{
    auto args = full_args();
    args.auto_subscribe = 0;
    args.auto_scan = 0;
    EXPECT_EQ(0, sw_ebridge_init(&args));
    EXPECT_THAT(calls_by_name(), ElementsAre("qz_mom_client_connect"));
    EXPECT_EQ(code(sw_ebridge_mom_connected_for_congestion_callback), recording::calls()[0].callback);
}

TEST_F(Initialisation, FailedConnectionToTheUdpDatabaseEndsIt)
{
    const auto args = full_args();
    recording::set_result("qz_mom_client_connect", QZ_MOM_EDB, 2);
    EXPECT_EQ(QZ_MOM_EDB, sw_ebridge_init(&args));
    expect_line("Assert:sw_ebridge_alloc_connecting_args failed.", kError, kCoreFile, "sw_ebridge_init_inst");
    EXPECT_EQ(2u, recording::calls().size());
}

TEST_F(Initialisation, FailedConnectionToItsOwnDatabaseEndsIt)
{
    auto args = full_args();
    args.evlan_data_type = 0;
    args.eport_data_type = 0;
    recording::set_result("qz_mom_client_connect", QZ_MOM_EDB, 2);
    EXPECT_EQ(QZ_MOM_EDB, sw_ebridge_init(&args));
    expect_line("Assert:sw_ebridge connecting_db failed.", kError, kCoreFile, "sw_ebridge_init_inst");
    EXPECT_EQ(2u, recording::calls().size());
}

TEST_F(Initialisation, FailedReconnectHandlerEndsIt)
{
    const auto args = full_args();
    recording::set_result("qz_mom_client_set_reconnect_cb", -42);
    EXPECT_EQ(-3, sw_ebridge_init(&args));
    expect_line("Assert:qz_mom_client_set_reconnect_cb() failed, rv = -42.", kError, kCoreFile,
                "sw_bridge_reg_reconnect");
    expect_line("Assert:sw_bridge_reg_reconnect failed.", kError, kCoreFile, "sw_ebridge_init_inst");
    EXPECT_FALSE(recording::has_logged("sw_ebridge_init successful."));
}

// The reconnect handler looks in table 0 whatever the user's table.
TEST_F(Initialisation, ReconnectHandlerNeedsAUserOfTableZero)
{
    const auto args = full_args();
    EXPECT_EQ(-2, sw_ebridge_init_inst(2, &args));
    expect_line("Assert:sw_ebridge_list_item_get_inst(user) failed.", kError, kCoreFile, "sw_bridge_reg_reconnect");
    EXPECT_TRUE(recording::has_logged("Assert:sw_bridge_reg_reconnect failed.", kError));
    EXPECT_THAT(recording::calls_of("qz_mom_client_set_reconnect_cb"), IsEmpty());
}

// ---- without memory

// The last error lines of runs in which one allocation after the other fails, without repetitions.
strings last_errors(const std::vector<strings> &runs)
{
    strings lasts;
    for (const auto &run : runs)
        if (!run.empty() && (lasts.empty() || lasts.back() != run.back()))
            lasts.push_back(run.back());
    return lasts;
}

int32_t expected_code(const std::string &last_error) { return last_error == "Assert:DL_HASH_CREATE fail." ? -5 : -1; }

bool initialise_with_failing(const ebridge_args &args, uint64_t nth)
{
    recording::fail_allocation(nth);
    const int32_t result = sw_ebridge_init(&args);
    const bool failed = recording::allocations() >= nth;
    recording::fail_allocation(0);
    EXPECT_EQ(failed, result != 0);
    EXPECT_EQ(failed, !errors().empty());
    if (failed && !errors().empty()) {
        EXPECT_EQ(expected_code(errors().back()), result);
    }
    return !failed;
}

TEST_F(Initialisation, EveryFailingAllocationEndsItAtItsStep)
{
    const auto runs = fail_each_allocation([](uint64_t nth) { return initialise_with_failing(full_args(), nth); });
    EXPECT_THAT(last_errors(runs),
                ElementsAre("Assert:DL_HASH_CREATE fail.", "Assert:sw_ebridge_map_db_init() failed.",
                            "Assert:sw_ebridge_attr_db_init() failed.", "Assert:sw_vlan_pvid_db_init() failed.",
                            "Assert:sw_ebridge_match_db_init failed.", "Assert:sw_ebridge congestion connect failed.",
                            "Assert:sw_ebridge_alloc_connecting_args failed."));
    // The connect step's two blocks, each with its own line.
    const std::vector<strings> tail(runs.end() - 5, runs.end() - 1);
    EXPECT_EQ("Assert:malloc list_args failed.", tail[0].front());
    EXPECT_EQ("malloc sw_ebridge_connect_args failed.", tail[1].front());
    EXPECT_EQ("Assert:malloc list_args failed.", tail[2].front());
    EXPECT_EQ("malloc sw_ebridge_connect_args failed.", tail[3].front());
}

TEST_F(Initialisation, OwnDatabaseConnectionWithoutMemory)
{
    auto args = full_args();
    args.mom_db = 0;
    args.evlan_data_type = 0;
    args.eport_data_type = 0;
    const auto runs = fail_each_allocation([&](uint64_t nth) { return initialise_with_failing(args, nth); });
    EXPECT_EQ("Assert:sw_ebridge connecting_db failed.", last_errors(runs).back());
}

TEST_F(Initialisation, ListInitResultIsNotLookedAt)
{
    recording::fail_allocation(1);
    const auto args = args_of("user");
    EXPECT_EQ(-5, sw_ebridge_init(&args));
    recording::fail_allocation(0);
    EXPECT_THAT(errors(),
                ElementsAre("Assert:HASH[0] init failed.", "Assert:List uninit.", "Assert:DL_HASH_CREATE fail."));
}

TEST_F(Initialisation, AfterAFailureTheUserStaysAndIsNotConnectedAgain)
{
    auto args = args_of("user");
    args.mom_db = 4;
    recording::set_result("qz_mom_client_connect", -1, 1);
    EXPECT_EQ(-1, sw_ebridge_init(&args));
    EXPECT_EQ(0, sw_ebridge_init(&args));
    EXPECT_TRUE(recording::has_logged("init twice, name: user.", kWarning));
    EXPECT_EQ(1u, recording::calls_of("qz_mom_client_connect").size());
}

}  // namespace
}  // namespace core_test
