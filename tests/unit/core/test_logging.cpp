// Logging: which class is written at which level to which category, the set-up from a debug file, the set-up of a user.
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "core_fixture.hpp"
#include "logging.hpp"

namespace core_test
{
namespace
{

class Logging : public CoreTest
{
};

// ---- the logging step

constexpr sw::site kSomewhere = {"a_function", sw::place_of("app/lib/ebridge/libsw_ematch_session.cpp", 2047)};

struct message_class {
    const char *name;
    void (*say)();
    uint32_t admitted_from;
    int32_t zlog_level;
};

class LoggingLevels : public CoreTest, public testing::WithParamInterface<message_class>
{
};

size_t lines_in(const char *category)
{
    size_t count = 0;
    for (const auto &line : recording::log())
        count += line.category == category ? 1 : 0;
    return count;
}

TEST_P(LoggingLevels, EachCategoryAdmitsTheClassFromItsOwnLevel)
{
    for (uint32_t file = 0; file <= 8; ++file) {
        for (uint32_t standard = 0; standard <= 8; ++standard) {
            recording::reset();
            g_sw_vlan_file_zlog_level = file;
            g_sw_vlan_std_zlog_level = standard;
            GetParam().say();
            EXPECT_EQ(file >= GetParam().admitted_from ? 1u : 0u, lines_in("sw_vlan_file")) << file;
            EXPECT_EQ(standard >= GetParam().admitted_from ? 1u : 0u, lines_in("sw_vlan_std")) << standard;
        }
    }
}

TEST_P(LoggingLevels, IsWrittenAtItsZlogLevel)
{
    GetParam().say();
    ASSERT_EQ(2u, recording::log().size());
    EXPECT_EQ(GetParam().zlog_level, recording::log()[0].level);
    EXPECT_EQ(GetParam().zlog_level, recording::log()[1].level);
}

INSTANTIATE_TEST_SUITE_P(
    Classes, LoggingLevels,
    testing::Values(message_class{"Error", [] { sw_ebridge_list_item_get_inst(6, "user"); }, 1, kError},
                    message_class{"Warning", [] { SW_LOG_AT(kSomewhere, warning, "a refusal"); }, 2, kWarning},
                    message_class{"Info", [] { SW_LOG_AT(kSomewhere, info, "progress"); }, 4, kInfo},
                    message_class{"Debug", [] { SW_LOG_AT(kSomewhere, debug, "a trace"); }, 5, kDebug},
                    message_class{"Fatal", [] { sw_ebridge_mom_reconnect_cb(recording::handle(), 4, 1, nullptr); }, 0,
                                  kFatal}),
    parameter_name<message_class>);

TEST_F(Logging, FileComesBeforeStandardOutputAndBothNameTheSite)
{
    sw_ebridge_list_item_get("user");
    ASSERT_EQ(2u, recording::log().size());
    const auto &file = recording::log()[0];
    const auto &standard = recording::log()[1];
    EXPECT_EQ("sw_vlan_file", file.category);
    EXPECT_EQ("sw_vlan_std", standard.category);
    for (const auto &line : {file, standard}) {
        EXPECT_EQ(kCoreFile, line.file);
        EXPECT_EQ("sw_ebridge_list_item_get_inst", line.function);
        EXPECT_EQ("%s", line.format);
        EXPECT_EQ("Assert:List uninit.", line.text);
        EXPECT_EQ(file.line, line.line);
    }
    EXPECT_GT(file.line, 0);
}

TEST_F(Logging, MessageIsCutAt1023Characters)
{
    sw_ebridge_list_init();
    const std::string before = "Assert:No user named '";
    const std::string name(2000, 'n');
    sw_ebridge_data_subscribe(name.c_str());
    EXPECT_THAT(errors(), ElementsAre(before + name.substr(0, 1023 - before.size())));
    recording::reset();
    const std::string fits(1023 - before.size() - 3, 'n');
    sw_ebridge_data_subscribe(fits.c_str());
    EXPECT_THAT(errors(), ElementsAre(before + fits + "'.\n"));
}

TEST_F(Logging, UncheckedMessagesCopyUnknownConversions)
{
    const uint8_t mac[6] = {0, 1, 2, 3, 4, 5};
    SW_LOG_UNCHECKED_AT(kSomewhere, error, "HASH[%] %m", mac);
    EXPECT_THAT(errors(), ElementsAre("HASH[%] 00:01:02:03:04:05"));
}

TEST_F(Logging, ALineNamesSourceFunctionAndLineOfItsSite)
{
    SW_LOG_AT(kSomewhere, error, "here");
    ASSERT_EQ(2u, recording::log().size());
    for (const auto &line : recording::log()) {
        EXPECT_EQ("app/lib/ebridge/libsw_ematch_session.cpp", line.file);
        EXPECT_EQ("a_function", line.function);
        EXPECT_EQ(2047, line.line);
    }
}

TEST_F(Logging, MissingCategoryDropsItsMessages)
{
    auto *kept = g_sw_vlan_file_zlog_category;
    g_sw_vlan_file_zlog_category = nullptr;
    EXPECT_EQ(nullptr, sw_ebridge_list_item_get("user"));
    EXPECT_EQ(0u, lines_in("sw_vlan_file"));
    EXPECT_EQ(1u, lines_in("sw_vlan_std"));
    g_sw_vlan_file_zlog_category = kept;
    g_sw_vlan_std_zlog_category = nullptr;
    EXPECT_EQ(nullptr, sw_ebridge_list_item_get("user"));
    EXPECT_EQ(1u, lines_in("sw_vlan_file"));
    EXPECT_EQ(1u, lines_in("sw_vlan_std"));
}

TEST(LoggingFromNothing, NothingIsWrittenBeforeTheSetUp)
{
    EXPECT_EQ(0u, g_sw_vlan_file_zlog_level);
    EXPECT_EQ(0u, g_sw_vlan_std_zlog_level);
    EXPECT_EQ(nullptr, g_sw_vlan_file_zlog_category);
    EXPECT_EQ(nullptr, g_sw_vlan_std_zlog_category);
    sw_ebridge_list_item_get("user");
    sw_ebridge_mom_reconnect_cb(recording::handle(), 4, 1, nullptr);
    EXPECT_THAT(recording::log(), IsEmpty());
}

// ---- the debug file

struct debug_file {
    const char *name;
    std::string text;
    uint32_t file_level, std_level;
};

class DebugFile : public testing::TestWithParam<debug_file>
{
};

TEST_P(DebugFile, HoldsTheLevels)
{
    const temporary_folder folder;
    EXPECT_EQ(0, sw_vlan_debug_init("user", folder.write("levels", GetParam().text).c_str()));
    EXPECT_EQ(GetParam().file_level, g_sw_vlan_file_zlog_level);
    EXPECT_EQ(GetParam().std_level, g_sw_vlan_std_zlog_level);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, DebugFile,
    testing::Values(debug_file{"Hexadecimal", "0x47", 4, 7}, debug_file{"HexadecimalOneSeven", "0x17", 1, 7},
                    debug_file{"CapitalPrefix", "0X5a", 5, 10}, debug_file{"CapitalDigits", "0xFE", 15, 14},
                    debug_file{"Decimal", "23", 1, 7}, debug_file{"DecimalFull", "255", 15, 15},
                    debug_file{"LeadingZeroIsDecimal", "023", 1, 7}, debug_file{"HigherBitsDoNotCount", "0x9947", 4, 7},
                    debug_file{"BitsAbove32DoNotCountEither", "0x1234567847", 4, 7},
                    debug_file{"WithNewline", "0x47\n", 4, 7}, debug_file{"Empty", "", 4, 4},
                    debug_file{"Zero", "0", 0, 0}, debug_file{"NoNumber", "seven", 0, 0},
                    debug_file{"OnlyTwentyBytesAreRead", "0x00000000000000004711", 4, 7},
                    debug_file{"ExactlyTwentyBytes", "0x000000000000000047", 4, 7}),
    parameter_name<debug_file>);

TEST(DebugFileFromNothing, WithoutAPathOnlyErrorsAreWritten)
{
    EXPECT_EQ(0, sw_vlan_debug_init("user", nullptr));
    EXPECT_EQ(1u, g_sw_vlan_file_zlog_level);
    EXPECT_EQ(0u, g_sw_vlan_std_zlog_level);
    EXPECT_NE(nullptr, g_sw_vlan_file_zlog_category);
    EXPECT_NE(nullptr, g_sw_vlan_std_zlog_category);
}

TEST(DebugFileFromNothing, FileThatCannotBeOpenedIsLikeNone)
{
    const temporary_folder folder;
    g_sw_vlan_file_zlog_level = 5;
    g_sw_vlan_std_zlog_level = 5;
    EXPECT_EQ(0, sw_vlan_debug_init("user", (folder.path() + "/missing/levels").c_str()));
    EXPECT_EQ(1u, g_sw_vlan_file_zlog_level);
    EXPECT_EQ(0u, g_sw_vlan_std_zlog_level);
}

TEST(DebugFileFromNothing, FileThatCannotBeReadIsLikeAnEmptyOne)
{
    const temporary_folder folder;
    EXPECT_EQ(0, sw_vlan_debug_init("user", folder.path().c_str()));  // a folder can be opened
    EXPECT_EQ(4u, g_sw_vlan_file_zlog_level);
    EXPECT_EQ(4u, g_sw_vlan_std_zlog_level);
}

TEST(DebugFileFromNothing, SetUpTellsWhatItFound)
{
    const temporary_folder folder;
    const auto path = folder.write("levels", "0x45");
    EXPECT_EQ(0, sw_vlan_debug_init("user", path.c_str()));
    const auto text = format(
        "sw_vlan_zlog inited!!!, user: user, app: %s, dbg_file: %s, file_level: 4, "
        "std_level: 5, g_sw_vlan_file_zlog_category: 0x%p, g_sw_vlan_std_zlog_category: 0x%p\n",
        program_invocation_short_name, path.c_str(), static_cast<void *>(g_sw_vlan_file_zlog_category),
        static_cast<void *>(g_sw_vlan_std_zlog_category));
    expect_line(text, kInfo, "app/lib/ebridge/libsw_ebridge_debug.cpp", "sw_vlan_debug_init");
    EXPECT_EQ(2u, recording::log().size());
}

TEST(DebugFileFromNothing, CategoriesAreMadeInOrder)
{
    sw_vlan_debug_init("user", nullptr);
    ASSERT_EQ(2u, recording::calls().size());
    EXPECT_EQ("qz_zlog_init", recording::calls()[0].function);
    EXPECT_EQ("sw_vlan_file", recording::calls()[0].name);
    EXPECT_EQ("qz_zlog_init", recording::calls()[1].function);
    EXPECT_EQ("sw_vlan_std", recording::calls()[1].name);
    EXPECT_EQ(qz_zlog_init("sw_vlan_file"), g_sw_vlan_file_zlog_category);
    EXPECT_EQ(qz_zlog_init("sw_vlan_std"), g_sw_vlan_std_zlog_category);
}

// What a set-up without that category prints on standard output itself.
std::string set_up_without(const char *category)
{
    recording::fail_category(category);
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, sw_vlan_debug_init("user", nullptr));
    return testing::internal::GetCapturedStdout();
}

TEST(DebugFileFromNothing, FailedFileCategoryIsPrinted)
{
    const auto out = set_up_without("sw_vlan_file");
    EXPECT_THAT(out, testing::StartsWith("g_sw_vlan_file_zlog_category init failed"));
    EXPECT_EQ(nullptr, g_sw_vlan_file_zlog_category);
    EXPECT_NE(nullptr, g_sw_vlan_std_zlog_category);
}

TEST(DebugFileFromNothing, FailedStandardCategoryIsPrinted)
{
    const auto out = set_up_without("sw_vlan_std");
    EXPECT_THAT(out, testing::StartsWith("g_sw_vlan_std_zlog_category init failed"));
    EXPECT_NE(nullptr, g_sw_vlan_file_zlog_category);
    EXPECT_EQ(nullptr, g_sw_vlan_std_zlog_category);
}

// ---- the second set-up

void set_up(const char *levels)
{
    const temporary_folder folder;
    EXPECT_EQ(0, sw_vlan_debug_init("user", folder.write("levels", levels).c_str()));
}

TEST(DebugFileFromNothing, SecondSetUpReturnsAtOnceWhenStandardOutputIsOpen)
{
    set_up("0x01");
    recording::reset();
    set_up("0x77");
    EXPECT_EQ(0u, g_sw_vlan_file_zlog_level);
    EXPECT_EQ(1u, g_sw_vlan_std_zlog_level);
    EXPECT_THAT(recording::calls(), IsEmpty());
    EXPECT_THAT(recording::log(), IsEmpty());
}

TEST(DebugFileFromNothing, SecondSetUpReadsAgainWhenStandardOutputIsSilent)
{
    set_up("0x70");
    recording::reset();
    set_up("0x25");
    EXPECT_EQ(2u, g_sw_vlan_file_zlog_level);
    EXPECT_EQ(5u, g_sw_vlan_std_zlog_level);
    EXPECT_EQ(2u, recording::calls_of("qz_zlog_init").size());
}

TEST(DebugFileFromNothing, SecondSetUpReadsAgainWhenTheFileCategoryIsMissing)
{
    recording::fail_category("sw_vlan_file");
    output_of([] { set_up("0x77"); });
    recording::reset();
    set_up("0x25");
    EXPECT_EQ(2u, g_sw_vlan_file_zlog_level);
    EXPECT_NE(nullptr, g_sw_vlan_file_zlog_category);
}

// ---- the set-up of a user

constexpr char kNoOwnRoot[] = "no root folder of the test's own: ";

TEST(UserSetUp, RefusesNull)
{
    EXPECT_EQ(-2, lib_vlan_debug_init(nullptr));
    const auto args = args_of(nullptr);
    EXPECT_EQ(-2, lib_vlan_debug_init(&args));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST(UserSetUp, ReadsTheUsersDebugFile)
{
    const own_root root;
    if (!root.entered())
        GTEST_SKIP() << kNoOwnRoot << root.reason();
    FILE *file = std::fopen("/etc/libvlan_some.user_dbg", "w");
    ASSERT_NE(nullptr, file);
    std::fputs("0x46", file);
    std::fclose(file);
    const auto args = args_of("some.user");
    output_of([&] { EXPECT_EQ(0, lib_vlan_debug_init(&args)); });
    EXPECT_EQ(4u, g_sw_vlan_file_zlog_level);
    EXPECT_EQ(6u, g_sw_vlan_std_zlog_level);
    ASSERT_FALSE(recording::logged().empty());
    EXPECT_THAT(recording::logged()[0], HasSubstr("user: some.user,"));
    EXPECT_THAT(recording::logged()[0], HasSubstr("dbg_file: /etc/libvlan_some.user_dbg,"));
}

TEST(UserSetUp, WithoutADebugFileOnlyErrorsAreWritten)
{
    const own_root root;
    if (!root.entered())
        GTEST_SKIP() << kNoOwnRoot << root.reason();
    const auto args = args_of("some.user");
    output_of([&] { EXPECT_EQ(0, lib_vlan_debug_init(&args)); });
    EXPECT_EQ(1u, g_sw_vlan_file_zlog_level);
    EXPECT_EQ(0u, g_sw_vlan_std_zlog_level);
}

TEST(UserSetUp, ProgramNameIsCutAt64Bytes)
{
    const own_root root;
    if (!root.entered())
        GTEST_SKIP() << kNoOwnRoot << root.reason();
    const std::string name = std::string(60, 'n') + "12345678";
    const std::string link = "/proc/" + std::to_string(getpid()) + "/exe";
    std::filesystem::create_directories(std::filesystem::path(link).parent_path());
    std::filesystem::create_symlink("/opt/" + name, link);
    std::error_code failure;
    if (std::filesystem::read_symlink(link, failure) != "/opt/" + name)
        GTEST_SKIP() << "an emulator answers for the link to the program: " << failure.message();
    std::ofstream("/etc/libvlan_user_dbg") << "0x40";
    const auto args = args_of("user");
    EXPECT_EQ(0, lib_vlan_debug_init(&args));
    ASSERT_EQ(1u, recording::calls_of("ssat_lib_init").size());
    EXPECT_EQ("libvlan_" + name.substr(0, 64), recording::calls_of("ssat_lib_init")[0].name);
    ASSERT_FALSE(recording::logged().empty());
    EXPECT_THAT(recording::logged()[0], HasSubstr("app: " + name.substr(0, 64) + ", dbg_file:"));
}

// In a root folder without /proc the link to the program cannot be read.
TEST(UserSetUp, UnreadableProgramLinkLeavesTheNameEmpty)
{
    const own_root root;
    if (!root.entered())
        GTEST_SKIP() << kNoOwnRoot << root.reason();
    const auto args = args_of("user");
    const auto out = output_of([&] { EXPECT_EQ(0, lib_vlan_debug_init(&args)); });
    EXPECT_THAT(out, HasSubstr("readlink: No such file or directory"));
    ASSERT_EQ(1u, recording::calls_of("ssat_lib_init").size());
    EXPECT_EQ("libvlan_", recording::calls_of("ssat_lib_init")[0].name);
}

}  // namespace
}  // namespace core_test
