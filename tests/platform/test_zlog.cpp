// Log categories against their header: where lines go and what they look like.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "qz_zlog.h"

using testing::ContainsRegex;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

namespace
{

constexpr char source[] = "app/lib/ebridge/libsw_ebridge.cpp";
constexpr char site[] = "sw_ebridge_init";

// One message from the same call site.
template <typename... Values>
void log_at(qz_zlog_category *category, int32_t level, const char *format, Values... values)
{
    qzdf_zlog(category, source, sizeof source - 1, site, sizeof site - 1, 120, level, format, values...);
}

// A folder of its own for each test, named in QZ_ZLOG_DIR.
class ZlogFolder : public testing::Test
{
  protected:
    void SetUp() override
    {
        std::string name = testing::TempDir() + "zlogXXXXXX";
        ASSERT_NE(nullptr, mkdtemp(name.data()));
        folder_ = name;
        setenv("QZ_ZLOG_DIR", folder_.c_str(), 1);
    }
    void TearDown() override { std::filesystem::remove_all(folder_); }

    std::vector<std::string> lines(const std::string &category) const
    {
        std::vector<std::string> all;
        std::ifstream file(folder_ / (category + ".log"));
        for (std::string line; std::getline(file, line);)
            all.push_back(line);
        return all;
    }

    std::filesystem::path folder_;
};

// Lines without their times.
std::vector<std::string> without_times(std::vector<std::string> lines)
{
    constexpr size_t width = sizeof "2024-03-01 12:00:00.000000 " - 1;
    for (auto &line : lines) {
        EXPECT_THAT(line, ContainsRegex("^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6} "));
        line.erase(0, width);
    }
    return lines;
}

}  // namespace

TEST_F(ZlogFolder, LineNamesLevelCategoryAndCallSite)
{
    log_at(qz_zlog_init("sw_vlan_file"), QZ_ZLOG_ERROR, "%s", "Assert:Bad args.");
    EXPECT_THAT(
        without_times(lines("sw_vlan_file")),
        ElementsAre("ERROR sw_vlan_file app/lib/ebridge/libsw_ebridge.cpp:120 sw_ebridge_init: Assert:Bad args."));
}

TEST_F(ZlogFolder, LineIsInTheFileWhenTheCallReturns)
{
    auto *category = qz_zlog_init("a");
    for (size_t n = 1; n <= 3; ++n) {
        log_at(category, QZ_ZLOG_DEBUG, "%zu", n);
        EXPECT_EQ(n, lines("a").size());
    }
}

TEST_F(ZlogFolder, EveryLevelHasItsNameAndLevelsBetweenTakeTheLowerOne)
{
    auto *category = qz_zlog_init("a");
    for (int32_t level :
         {QZ_ZLOG_DEBUG + 0, QZ_ZLOG_INFO + 0, QZ_ZLOG_WARN + 0, QZ_ZLOG_ERROR + 0, QZ_ZLOG_FATAL + 0, 0, 79, 500})
        log_at(category, level, "%d", level);
    std::vector<std::string> names;
    for (const auto &line : without_times(lines("a")))
        names.push_back(line.substr(0, line.find(' ')));
    EXPECT_THAT(names, ElementsAre("DEBUG", "INFO", "WARN", "ERROR", "FATAL", "DEBUG", "INFO", "FATAL"));
}

TEST_F(ZlogFolder, TrailingNewlineIsNotDoubledAndOthersStay)
{
    auto *category = qz_zlog_init("a");
    log_at(category, QZ_ZLOG_INFO, "%s\n", "one");
    log_at(category, QZ_ZLOG_INFO, "%s", "two\nthree\n\n");
    log_at(category, QZ_ZLOG_INFO, "%s", "");
    const auto all = lines("a");
    ASSERT_EQ(5U, all.size());
    EXPECT_THAT(all[0], EndsWith(": one"));
    EXPECT_THAT(all[1], EndsWith(": two"));
    EXPECT_EQ("three", all[2]);
    EXPECT_EQ("", all[3]);
    EXPECT_THAT(all[4], EndsWith("sw_ebridge_init: "));
}

TEST_F(ZlogFolder, CallSiteTextsAreCutToTheirLengths)
{
    qzdf_zlog(qz_zlog_init("a"), "file.cppXXX", 8, "functionXXX", 8, 7, QZ_ZLOG_INFO, "text");
    qzdf_zlog(qz_zlog_init("a"), nullptr, 0, nullptr, 0, 0, QZ_ZLOG_INFO, "text");
    EXPECT_THAT(without_times(lines("a")), ElementsAre("INFO a file.cpp:7 function: text", "INFO a :0 : text"));
}

TEST_F(ZlogFolder, TextOfAnyLengthIsWritten)
{
    const std::string text(100'000, 'x');
    log_at(qz_zlog_init("a"), QZ_ZLOG_INFO, "%s", text.c_str());
    ASSERT_EQ(1U, lines("a").size());
    EXPECT_THAT(lines("a")[0], HasSubstr(text));
}

TEST_F(ZlogFolder, TextIsNotFormattedTwice)
{
    log_at(qz_zlog_init("a"), QZ_ZLOG_INFO, "%s", "{} {0} %s %n");
    EXPECT_THAT(lines("a")[0], EndsWith(": {} {0} %s %n"));
}

TEST_F(ZlogFolder, TextThatCannotBeFormattedIsShownAsItsFormat)
{
    log_at(qz_zlog_init("a"), QZ_ZLOG_INFO, "euro %lc", static_cast<wint_t>(0x20ac));
    EXPECT_THAT(lines("a")[0], EndsWith(": euro %lc"));
}

TEST_F(ZlogFolder, EachCategoryHasItsOwnFile)
{
    log_at(qz_zlog_init("a"), QZ_ZLOG_INFO, "%s", "to a");
    log_at(qz_zlog_init("b"), QZ_ZLOG_INFO, "%s", "to b");
    EXPECT_EQ(1U, lines("a").size());
    ASSERT_EQ(1U, lines("b").size());
    EXPECT_THAT(lines("b")[0], EndsWith("to b"));
}

TEST_F(ZlogFolder, NamingACategoryAgainGivesTheSameOne)
{
    auto *category = qz_zlog_init("a", 1, "further arguments are not read");
    EXPECT_EQ(category, qz_zlog_init("a"));
    EXPECT_NE(category, qz_zlog_init("b"));
}

TEST_F(ZlogFolder, ExistingFileIsContinuedAndMissingFolderMade)
{
    setenv("QZ_ZLOG_DIR", (folder_ / "deep" / "er").c_str(), 1);
    EXPECT_NE(nullptr, qz_zlog_init("a"));
    EXPECT_TRUE(std::filesystem::exists(folder_ / "deep" / "er" / "a.log"));

    setenv("QZ_ZLOG_DIR", folder_.c_str(), 1);
    std::ofstream(folder_ / "b.log") << "earlier\n";
    log_at(qz_zlog_init("b"), QZ_ZLOG_INFO, "%s", "later");
    ASSERT_EQ(2U, lines("b").size());
    EXPECT_EQ("earlier", lines("b")[0]);
}

TEST_F(ZlogFolder, NullForNamesThatCannotBe)
{
    EXPECT_EQ(nullptr, qz_zlog_init(nullptr));
    EXPECT_EQ(nullptr, qz_zlog_init(""));
    EXPECT_EQ(nullptr, qz_zlog_init("../outside"));
}

TEST_F(ZlogFolder, NullWhenTheFileCannotBeOpenedAndAgainWhenItCan)
{
    std::filesystem::create_directory(folder_ / "a.log");
    EXPECT_EQ(nullptr, qz_zlog_init("a"));
    std::filesystem::remove(folder_ / "a.log");
    EXPECT_NE(nullptr, qz_zlog_init("a"));
}

TEST_F(ZlogFolder, NullCategoryIsIgnored)
{
    log_at(nullptr, QZ_ZLOG_ERROR, "%s", "nowhere");
    EXPECT_TRUE(std::filesystem::is_empty(folder_));
}

TEST_F(ZlogFolder, StdCategoriesGoToStandardOutputEvenWithAFolder)
{
    testing::internal::CaptureStdout();
    log_at(qz_zlog_init("sw_vlan_std"), QZ_ZLOG_INFO, "%s", "hello");
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_THAT(printed, EndsWith(" INFO sw_vlan_std app/lib/ebridge/libsw_ebridge.cpp:120 sw_ebridge_init: hello\n"));
    EXPECT_TRUE(std::filesystem::is_empty(folder_));
}

TEST_F(ZlogFolder, LinesOfManyThreadsStayWhole)
{
    constexpr size_t threads = 4, each = 500;
    std::vector<std::thread> writers;
    for (size_t t = 0; t < threads; ++t)
        writers.emplace_back([] {
            auto *category = qz_zlog_init("shared");
            for (size_t n = 0; n < each; ++n)
                log_at(category, QZ_ZLOG_INFO, "%s|end", "a text of some length that takes its time to be written");
        });
    for (auto &writer : writers)
        writer.join();
    const auto all = without_times(lines("shared"));
    EXPECT_EQ(threads * each, all.size());
    for (const auto &line : all)
        ASSERT_EQ(
            "INFO shared app/lib/ebridge/libsw_ebridge.cpp:120 sw_ebridge_init: "
            "a text of some length that takes its time to be written|end",
            line);
}

TEST(Zlog, WithoutAFolderOtherCategoriesGoToStandardError)
{
    unsetenv("QZ_ZLOG_DIR");
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    log_at(qz_zlog_init("sw_vlan_file"), QZ_ZLOG_WARN, "%s", "hello");
    EXPECT_THAT(testing::internal::GetCapturedStderr(), EndsWith("sw_ebridge_init: hello\n"));
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
}

// A variable of a script that was never set names no folder; "/" least of all.
TEST(Zlog, AnEmptyFolderIsNone)
{
    setenv("QZ_ZLOG_DIR", "", 1);
    testing::internal::CaptureStderr();
    log_at(qz_zlog_init("ebridge_test_of_an_empty_folder"), QZ_ZLOG_WARN, "%s", "hello");
    EXPECT_THAT(testing::internal::GetCapturedStderr(), EndsWith("sw_ebridge_init: hello\n"));
}
