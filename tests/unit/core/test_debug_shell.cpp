// The debug shell: which commands are registered, what their handlers do, and the dump of the registry.
#include <cerrno>
#include <cstdlib>

#include "core_fixture.hpp"
#include "ssat.h"

namespace core_test
{
namespace
{

// ---- registration

void set_up_user(const char *name)
{
    const auto args = args_of(name);
    EXPECT_EQ(0, lib_vlan_debug_init(&args));
}

struct command {
    const char *name;
    const char *help;
};

constexpr command kCommands[] = {
    {"dump_list", "dump ebridge list info"},
    {"dump_type", "dump ebridge list info"},
    {"dump_evlan", "dump evlan info(0 dump all), db_type=%d, evlan_type=0x%x, evlan_id=0x%x"},
    {"dump_eport", "dump eport info(0 dump all), db_type=%d, eport_type=0x%x, eport_id=0x%x"},
    {"dump_ematch", "dump ematch info(0 dump all), ematch_type=0x%x"},
    {"evlan_app2udp", "evlan_app2udp, type=0x%x, keyid=%d"},
    {"evlan_udp2app", "evlan_udp2app, evlan_id=0x%x"},
    {"eport_app2udp", "eport_app2udp, type=0x%x, keyid1=%d, keyid2=%d"},
    {"eport_udp2app", "eport_udp2app, eport_id=0x%x"},
    {"dump_vlan", "dump vlan info(0 dump all), db_type=%d, vlan_id=%d"},
    {"dump_port", "dump port(ap) info(0 dump all), db_type=%d, eport_id=0x%x"},
    {"dump_ap", "dump ap info(0 dump all), db_type=%d, eport_id=0x%x"},
    {"dump_pvid", "dump port_vid info(0 dump all), ifx=%d"},
    {"dump_pvid_stats", "pvid_stats"},
    {"clear_stat", "clear the diagnosis statistics"},
    {"dump_stat", "get the diagnosis statistics"},
    {"dump_eport_err_msg", "print the last five eport_error_msg"},
    {"dump_evlan_err_msg", "print the last five evlan_error_msg"},
    {"delay", "set evlan/eport delay time, evlan_second=%d, eport_second=%d"},
    {"debug", "set vlan debug level(1:err,2:warn,4:info,7:all), file_level=%d, std_level=%d"},
};

TEST(DebugShell, CommandsAreRegisteredInOrder)
{
    set_up_user("unit-core-user");
    const auto modules = recording::calls_of("ssat_lib_init");
    ASSERT_EQ(1u, modules.size());
    EXPECT_EQ(std::string("libvlan_") + program_invocation_short_name, modules[0].name);
    const auto made = recording::calls_of("ssat_reg_mod_cmd");
    ASSERT_EQ(std::size(kCommands), made.size());
    for (size_t i = 0; i < made.size(); ++i) {
        EXPECT_EQ(kCommands[i].name, made[i].name);
        EXPECT_EQ(kCommands[i].help, made[i].text);
        EXPECT_EQ(modules[0].handle, made[i].handle);
        EXPECT_EQ(0u, made[i].flags);
        EXPECT_NE(nullptr, made[i].callback);
    }
}

TEST(DebugShell, LoggingIsSetUpBeforeTheRegistration)
{
    set_up_user("unit-core-user");
    strings functions;
    for (const auto &made : recording::calls())
        functions.push_back(made.function);
    ASSERT_GE(functions.size(), 3u);
    EXPECT_EQ("qz_zlog_init", functions[0]);
    EXPECT_EQ("qz_zlog_init", functions[1]);
    EXPECT_EQ("ssat_lib_init", functions[2]);
}

TEST(DebugShell, ResultsOfTheShellAreNotLookedAt)
{
    recording::set_result("ssat_lib_init", SSAT_ENOMEM);
    recording::set_result("ssat_reg_mod_cmd", SSAT_EINVAL);
    set_up_user("unit-core-user");
    EXPECT_EQ(1u, recording::calls_of("ssat_lib_init").size());
    EXPECT_EQ(std::size(kCommands), recording::calls_of("ssat_reg_mod_cmd").size());
    EXPECT_THAT(errors(), IsEmpty());
}

TEST(DebugShell, SecondSetUpRegistersAgain)
{
    set_up_user("unit-core-user");
    set_up_user("unit-core-other");
    EXPECT_EQ(2u, recording::calls_of("ssat_lib_init").size());
    EXPECT_EQ(2 * std::size(kCommands), recording::calls_of("ssat_reg_mod_cmd").size());
}

TEST(DebugShell, SecondSetUpThatReturnsAtOnceRegistersNothing)
{
    set_up_user("unit-core-user");
    recording::reset();
    g_sw_vlan_std_zlog_level = 1;
    set_up_user("unit-core-other");
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST(DebugShell, SetUpFromAFileRegistersNothing)
{
    EXPECT_EQ(0, sw_vlan_debug_init("user", nullptr));
    EXPECT_THAT(recording::calls_of("ssat_lib_init"), IsEmpty());
    EXPECT_THAT(recording::calls_of("ssat_reg_mod_cmd"), IsEmpty());
}

// ---- handlers

// The handlers as the shell has them after a user's set-up.
class Command : public CoreTest
{
  protected:
    void SetUp() override
    {
        const auto args = args_of("user");
        EXPECT_EQ(0, sw_ebridge_init(&args));
        registered_ = recording::calls_of("ssat_reg_mod_cmd");
        CoreTest::SetUp();
    }
    std::string run(const std::string &name, const std::vector<int32_t> &arguments)
    {
        for (const auto &made : registered_)
            if (made.name == name)
                return output_of([&] {
                    reinterpret_cast<ssat_handler>(made.callback)(static_cast<int32_t>(arguments.size()),
                                                                  arguments.data());
                });
        ADD_FAILURE() << "no command " << name;
        return {};
    }

  private:
    std::vector<recording::call> registered_;
};

TEST_F(Command, DumpListPrintsTheRegistry)
{
    const auto expected = output_of([] { EXPECT_EQ(0, sw_ebridge_list_item_ut_dump()); });
    EXPECT_THAT(expected, HasSubstr("user"));
    EXPECT_EQ(expected, run("dump_list", {}));
}

TEST_F(Command, DumpEvlanPrintsWhatItsArgumentsName)
{
    for (const uint32_t id : {0x10000005u, 0x20000006u}) {
        sw_evlan_attr record{};
        record.evlan_id = id;
        ASSERT_NE(nullptr, sw_evlan_db_insert_item(0, "user", &record));
    }
    for (const auto &arguments : {std::vector<int32_t>{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {1, 0, 0x20000006}}) {
        const auto expected =
            output_of([&] { sw_evlan_db_ut_dump(arguments[0], arguments[1], static_cast<uint32_t>(arguments[2])); });
        EXPECT_FALSE(expected.empty());
        EXPECT_EQ(expected, run("dump_evlan", arguments));
    }
    EXPECT_NE(run("dump_evlan", {1, 0, 0}), run("dump_evlan", {1, 0, 0x20000006}));
}

TEST_F(Command, DumpVlanPrintsWhatItsArgumentsName)
{
    for (const uint32_t id : {0x10000005u, 0x10000006u}) {
        sw_evlan_attr record{};
        record.evlan_id = id;
        ASSERT_NE(nullptr, sw_evlan_db_insert_item(0, "user", &record));
    }
    for (const auto &arguments : {std::vector<int32_t>{0, 0}, {1, 0}, {2, 0}, {1, 6}}) {
        const auto expected = output_of([&] { sw_vlan_db_ut_dump(arguments[0], arguments[1]); });
        EXPECT_FALSE(expected.empty());
        EXPECT_EQ(expected, run("dump_vlan", arguments));
    }
    EXPECT_NE(run("dump_vlan", {1, 0}), run("dump_vlan", {1, 6}));
}

// ---- the dump of the registry

// A user with a value of its own in every field, callbacks included; none of them is called.
sw_ebridge_list_item user_with_every_field(const char *name, uint32_t base)
{
    auto user = record_of(name, base + 1);
    const auto pointer = [base](uint32_t offset) { return reinterpret_cast<void *>(uintptr_t{base} + offset); };
    user.mom_handle = static_cast<qz_mom_handle *>(pointer(0xf0));
    user.evlan_attr_mom_db = base + 2;
    user.eport_attr_mom_db = base + 3;
    user.ematch_mom_db = base + 4;
    user.evlan_data_type = base + 5;
    user.eport_data_type = base + 6;
    user.auto_subscribe = base + 7;
    user.auto_scan = base + 8;
    user.vlan_reply = reinterpret_cast<sw_vlan_reply_func>(pointer(0x101));
    user.evlan_reply = reinterpret_cast<sw_evlan_reply_func>(pointer(0x102));
    user.eport_reply = reinterpret_cast<sw_eport_reply_func>(pointer(0x103));
    user.evlan_release_reply = reinterpret_cast<sw_evlan_release_reply_func>(pointer(0x104));
    user.eport_release_reply = reinterpret_cast<sw_eport_release_reply_func>(pointer(0x105));
    user.ematch_reply = reinterpret_cast<sw_ematch_reply_func>(pointer(0x106));
    user.pvid_change = reinterpret_cast<sw_pvid_change_func>(pointer(0x107));
    user.sda_evlan_create = reinterpret_cast<sda_evlan_func>(pointer(0x108));
    user.reserved_evlan = pointer(0x109);
    user.sda_evlan_destroy = reinterpret_cast<sda_evlan_func>(pointer(0x10a));
    user.sda_eport_create = reinterpret_cast<sda_eport_func>(pointer(0x10b));
    user.reserved_eport = pointer(0x10c);
    user.sda_eport_destroy = reinterpret_cast<sda_eport_func>(pointer(0x10d));
    user.sda_vlan_port_change = reinterpret_cast<sda_vlan_port_change_func>(pointer(0x10e));
    user.sda_vlan_fid_change = reinterpret_cast<sda_vlan_fid_change_func>(pointer(0x10f));
    user.subscribe_callback = reinterpret_cast<sw_ebridge_mom_func>(pointer(0x110));
    user.subscribe_args = pointer(0x111);
    user.scan_callback = reinterpret_cast<sw_ebridge_mom_func>(pointer(0x112));
    user.scan_args = pointer(0x113);
    for (uint32_t i = 0; i < 8; ++i)
        user.mom_ds_args[i] = pointer(0x120 + i);
    user.age_timer_armed = 1;
    user.stat = static_cast<int32_t>(base + 9);
    return user;
}

// What the dump must show of that user.
strings shown_fields(const char *name, uint32_t base)
{
    strings fields = {name};
    const char *const numbers[] = {"mod_db",         "evlan_attr_mom_db", "eport_attr_mom_db",
                                   "ematch_mom_db",  "evlan_data_type",   "eport_data_type",
                                   "auto_subscribe", "auto_scan",         "stat"};
    for (uint32_t i = 0; i < std::size(numbers); ++i)
        fields.push_back(format("%s: %u", numbers[i], base + 1 + i));
    fields.push_back("age_timer_armed: 1");
    fields.push_back(format("mom_handle: 0x%x", base + 0xf0));
    const char *const pointers[] = {"vlan_reply",
                                    "evlan_reply",
                                    "eport_reply",
                                    "evlan_release_reply",
                                    "eport_release_reply",
                                    "ematch_reply",
                                    "pvid_change",
                                    "sda_evlan_create",
                                    nullptr,
                                    "sda_evlan_destroy",
                                    "sda_eport_create",
                                    nullptr,
                                    "sda_eport_destroy",
                                    "sda_vlan_port_change",
                                    "sda_vlan_fid_change",
                                    "subscribe_callback",
                                    "subscribe_args",
                                    "scan_callback",
                                    "scan_args"};
    for (uint32_t i = 0; i < std::size(pointers); ++i)
        if (pointers[i])
            fields.push_back(format("%s: 0x%x", pointers[i], base + 0x101 + i));
    for (uint32_t i = 0; i < 8; ++i)
        fields.push_back(format("0x%x", base + 0x120 + i));
    fields.push_back("eport_maps");
    fields.push_back("evlan_maps");
    return fields;
}

class RegistryDump : public CoreTest
{
};

TEST_F(RegistryDump, ShowsEveryFieldOfEveryUserOfEveryTable)
{
    sw_ebridge_list_init();
    for (uint32_t table = 0; table < SW_EBRIDGE_SLOTS; ++table)
        for (const char *name : {"alpha", "beta"}) {
            const auto user = user_with_every_field(name, table * 0x10000 + (name[0] == 'a' ? 0x1000 : 0x2000));
            ASSERT_EQ(0, sw_ebridge_list_add_inst(table, &user));
        }
    const auto out = output_of([] { EXPECT_EQ(0, sw_ebridge_list_item_ut_dump()); });
    for (uint32_t table = 0; table < SW_EBRIDGE_SLOTS; ++table) {
        for (const auto &field : shown_fields("alpha", table * 0x10000 + 0x1000))
            EXPECT_THAT(out, HasSubstr(field)) << table;
        for (const auto &field : shown_fields("beta", table * 0x10000 + 0x2000))
            EXPECT_THAT(out, HasSubstr(field)) << table;
    }
}

TEST_F(RegistryDump, LeavesOutTheReservedSlots)
{
    sw_ebridge_list_init();
    const auto user = user_with_every_field("user", 0x5000);
    ASSERT_EQ(0, sw_ebridge_list_add(&user));
    const auto out = output_of([] { sw_ebridge_list_item_ut_dump(); });
    EXPECT_THAT(out, testing::Not(HasSubstr("0x5109")));
    EXPECT_THAT(out, testing::Not(HasSubstr("0x510c")));
}

TEST_F(RegistryDump, GoesToTheDebugShell)
{
    sw_ebridge_list_init();
    const auto user = record_of("user");
    ASSERT_EQ(0, sw_ebridge_list_add(&user));
    EXPECT_EQ(0, sw_ebridge_list_item_ut_dump());
    EXPECT_THAT(recording::printed(), HasSubstr("user"));
}

TEST_F(RegistryDump, OfNothingSucceeds) { EXPECT_EQ(0, sw_ebridge_list_item_ut_dump()); }

// ---- the release delays

// The delay with which the next release of a VXLAN evlan is put into effect.
qz_mom_timeval release_delay()
{
    char name[] = "user";
    UBridge__EvlanAppIndex key = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    key.t_user = name;
    key.type = U_BRIDGE__EVLAN_TYPE__VXLAN;
    key.keyid = 7;
    EXPECT_EQ(0, sw_evlan_release(&key));
    const auto marks = recording::calls_of("qz_mom_pexpire");
    EXPECT_FALSE(marks.empty());
    // A mark's argument is the release's own block, which the store's callback would free.
    if (!marks.empty())
        std::free(marks.back().args);
    return marks.empty() ? qz_mom_timeval{} : marks.back().delay;
}

TEST_F(Command, ReleaseDelayIs40SecondsAtFirst)
{
    EXPECT_EQ(40, release_delay().sec);
    EXPECT_EQ(0, release_delay().usec);
}

TEST_F(Command, DelayTimeSetChangesTheReleaseDelay)
{
    const auto out = output_of([] { EXPECT_EQ(0, sw_ebridge_delay_time_set(5, 6)); });
    EXPECT_EQ("evlan_delay_del_second has been set to 5, eport_delay_del_second has been set to 6\n", out);
    EXPECT_EQ(5, release_delay().sec);
    EXPECT_EQ(0, release_delay().usec);
}

TEST_F(Command, DelaySetsBothDelays)
{
    EXPECT_EQ("evlan_delay_del_second has been set to 11, eport_delay_del_second has been set to 12\n",
              run("delay", {11, 12}));
    EXPECT_EQ(11, release_delay().sec);
}

}  // namespace
}  // namespace core_test
