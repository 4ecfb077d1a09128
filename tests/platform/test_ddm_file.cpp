// The port table from files: what is read, which numbers come of it, and the one line about what makes no sense.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "allocation_failure.hpp"
#include "libddm.h"
#include "temporary_file.hpp"

using testing::HasSubstr;

namespace
{

constexpr uint32_t UNTOUCHED = 0xdead;

// What a load of a file with this text says: the code and, with FILE for the file's name, the message.
struct outcome {
    int32_t code;
    std::string error;
};

outcome load(std::string_view text)
{
    const temporary_file file(text);
    char error[LIBDDM_ERROR_SIZE] = "";
    const int32_t code = libddm_table_load(file.path().c_str(), error, sizeof error);
    std::string line = error;
    if (line.starts_with(file.path()))
        line.replace(0, file.path().size(), "FILE");
    return {code, line};
}

void load_good(std::string_view text)
{
    const outcome result = load(text);
    EXPECT_EQ(0, result.code) << text;
    EXPECT_EQ("", result.error);
}

std::string error_of(std::string_view text, int32_t code = LIBDDM_EINVAL)
{
    const outcome result = load(text);
    EXPECT_EQ(code, result.code) << text;
    EXPECT_EQ(std::string::npos, result.error.find('\n')) << result.error;
    return result.error;
}

std::string error_of_row(const std::string &row) { return error_of("# name lanes alias index speed\n" + row + '\n'); }

std::string error_of_port(const std::string &entry) { return error_of("{\"PORT\": {\n" + entry + "}}"); }

// Three ports and these tables; an error in the tables is in line 2.
std::string error_of_tables(const std::string &tables)
{
    return error_of(R"({"PORT": {"Ethernet0": {"lanes": "1"}, "Ethernet4": {"lanes": "5"}, "Fabric": {"lanes": "9"}},)"
                    "\n" +
                    tables + "}");
}

std::string quoted(const std::string &text) { return '"' + text + '"'; }

uint32_t ifx_of(const std::string &name)
{
    uint32_t ifx = UNTOUCHED;
    EXPECT_EQ(0, libddm_get_ifx_by_name(name.c_str(), &ifx)) << name;
    return ifx;
}

// Everything that the look-ups say of a name, every id by the way back, too.
libddm_port row_of(const std::string &name)
{
    libddm_port row = {.ifx = ifx_of(name), .gphyid = UNTOUCHED, .lphyid = UNTOUCHED, .unit = -1, .port = -1};
    uint32_t back = UNTOUCHED;
    EXPECT_EQ(0, libddm_get_phyid_by_ifx(row.ifx, &row.gphyid));
    EXPECT_EQ(0, libddm_get_lphyid_by_gphyid(row.gphyid, &row.lphyid));
    EXPECT_EQ(0, libddm_get_ifx_by_phyid(row.lphyid, &back));
    EXPECT_EQ(row.ifx, back);
    EXPECT_EQ(0, libddm_get_gphyid_by_lphyid(row.lphyid, &back));
    EXPECT_EQ(row.gphyid, back);
    if (libddm_get_unit_port_by_lphyid(row.lphyid, &row.unit, &row.port) == 0) {
        EXPECT_EQ(0, libddm_get_lphyid_by_unit_port(row.unit, row.port, &back));
        EXPECT_EQ(row.lphyid, back);
    }
    const char *text = "";
    EXPECT_EQ(0, libddm_get_name_by_ifx(row.ifx, &text));
    EXPECT_EQ(name, text);
    return row;
}

void expect_row(const std::string &name, const libddm_port &expected)
{
    const libddm_port row = row_of(name);
    EXPECT_EQ(expected.ifx, row.ifx) << name;
    EXPECT_EQ(expected.gphyid, row.gphyid) << name;
    EXPECT_EQ(expected.lphyid, row.lphyid) << name;
    EXPECT_EQ(expected.unit, row.unit) << name;
    EXPECT_EQ(expected.port, row.port) << name;
}

constexpr std::string_view LIST = R"(# name       lanes        alias   index  speed
Ethernet0    1,2,3,4      left    1      100000
Ethernet4    9,10         right   2      50000
)";

constexpr std::string_view CONFIGURATION = R"({
"PORTCHANNEL_MEMBER": {"PortChannel3|Ethernet0": {}, "PortChannel0012|Recycle": {}},
"PORTCHANNEL": {"PortChannel3": {"members": ["Ethernet0"]}, "PortChannel0012": {"mtu": "9100"}},
"VLAN": {"Vlan10": {"members": ["Ethernet99"]}},
"PORT": {
  "Ethernet0": {"lanes": "1,2,3,4", "alias": "left", "index": "1", "speed": "100000", "admin_status": "up"},
  "Ethernet4": {"lanes": "9,10"},
  "Recycle": {"lanes": "221"}
}})";

class DdmFile : public testing::Test
{
  protected:
    void TearDown() override { libddm_table_clear(); }
};

}  // namespace

TEST_F(DdmFile, NumbersOfAPortComeFromItsNameAndItsFirstLane)
{
    load_good("# name lanes\nEthernet4 9,10\nEthernet16 0,1\n");
    EXPECT_EQ(2U, libddm_table_size());
    expect_row("Ethernet4", {1'000'004, 0x07000005, 0x08400009, 0, 9});
    expect_row("Ethernet16", {1'000'016, 0x07000011, 0x08400000, 0, 0});
}

TEST_F(DdmFile, NumbersOfAPortWithAnotherNameComeFromItsFirstLane)
{
    load_good("# name lanes\nEthernet 7\nEthernet-4 9,10\nEthernet1/1 12\nswp4 13\n");
    expect_row("Ethernet", {3'000'007, 0x07800007, 0x08400007, 0, 7});
    expect_row("Ethernet-4", {3'000'009, 0x07800009, 0x08400009, 0, 9});
    expect_row("Ethernet1/1", {3'000'012, 0x0780000c, 0x0840000c, 0, 12});
    expect_row("swp4", {3'000'013, 0x0780000d, 0x0840000d, 0, 13});
}

TEST_F(DdmFile, NumbersOfAnAggregateComeFromItsName)
{
    load_good(R"({"PORTCHANNEL": {"PortChannel0": {}, "PortChannel0012": {}}})");
    expect_row("PortChannel0", {2'000'000, 0x0c000001, 0x0c000001, -1, -1});
    expect_row("PortChannel0012", {2'000'012, 0x0c00000d, 0x0c00000d, -1, -1});
}

TEST_F(DdmFile, LargestNumbersFit)
{
    load_good(R"({"PORT": {"Ethernet999999": {"lanes": "65535"}, "other": {"lanes": "65534"}},
                  "PORTCHANNEL": {"PortChannel999999": {}}})");
    expect_row("Ethernet999999", {1'999'999, 0x070f4240, 0x0840ffff, 0, 65535});
    expect_row("other", {3'065'534, 0x0780fffe, 0x0840fffe, 0, 65534});
    expect_row("PortChannel999999", {2'999'999, 0x0c0f4240, 0x0c0f4240, -1, -1});
}

TEST_F(DdmFile, NumbersStayWhenOtherRowsComeGoAndMove)
{
    struct file_row {
        std::string name, line;
    };
    std::vector<file_row> rows;
    for (uint32_t n = 0; n < 64; ++n) {
        const std::string name = (n % 5 == 0 ? "Fabric" : "Ethernet") + std::to_string(4 * n);
        rows.push_back({name, name + ' ' + std::to_string(2 * n + 1) + ',' + std::to_string(2 * n) + '\n'});
    }
    std::map<std::string, uint32_t> ifx, gphyid, lphyid;
    std::mt19937 random(5);
    for (int round = 0; round < 50; ++round) {
        std::ranges::shuffle(rows, random);
        const auto count = static_cast<std::ptrdiff_t>(1 + random() % rows.size());
        std::string text = "# name lanes\n";
        for (auto row = rows.begin(); row != rows.begin() + count; ++row)
            text += row->line;
        load_good(text);
        ASSERT_EQ(static_cast<uint32_t>(count), libddm_table_size());
        for (auto row = rows.begin(); row != rows.begin() + count; ++row) {
            const libddm_port now = row_of(row->name);
            EXPECT_EQ(now.ifx, ifx.emplace(row->name, now.ifx).first->second) << row->name;
            EXPECT_EQ(now.gphyid, gphyid.emplace(row->name, now.gphyid).first->second) << row->name;
            EXPECT_EQ(now.lphyid, lphyid.emplace(row->name, now.lphyid).first->second) << row->name;
        }
    }
}

TEST_F(DdmFile, NumbersOfOnePortAreNeverEqual)
{
    load_good("# name lanes\nEthernet0 1\nEthernet1 2\nEthernet3 0\nEthernet65535 65535\nEthernet999999 16959\nx 3\n");
    for (const char *name : {"Ethernet0", "Ethernet1", "Ethernet3", "Ethernet65535", "Ethernet999999", "x"}) {
        const libddm_port row = row_of(name);
        const std::set<uint32_t> numbers = {row.ifx, row.gphyid & 0xffffff, row.lphyid & 0xffffff};
        EXPECT_EQ(3U, numbers.size()) << name;
        EXPECT_FALSE(numbers.contains(0)) << name;
    }
}

TEST_F(DdmFile, BothFormsOfAFileGiveTheSameNumbers)
{
    load_good(LIST);
    const libddm_port first = row_of("Ethernet0"), second = row_of("Ethernet4");
    load_good(CONFIGURATION);
    expect_row("Ethernet0", first);
    expect_row("Ethernet4", second);
}

TEST_F(DdmFile, ColumnsStandInAnyOrderAndUnknownOnesAreSkipped)
{
    load_good(
        "#fec  speed lanes  role name\nrs 100000 7,8 Ext Ethernet8\nnone 25000 1 - Ethernet0\n"
        "# index name unit lanes\n2 Ethernet12 x 3\n");
    EXPECT_EQ(7, row_of("Ethernet8").port);
    EXPECT_EQ(3, row_of("Ethernet12").port);
}

TEST_F(DdmFile, CommentsBlankLinesAndLineEndsOfAnySystemAreSkipped)
{
    load_good(
        "\r\n# the ports of a leaf\r\n\t\r\n  ## name\tlanes alias\r\n#Ethernet0 5 off\r\n"
        "\tEthernet8\t7,8 # the lanes and name of this row\r\n\r\nEthernet12 9");
    EXPECT_EQ(2U, libddm_table_size());
    EXPECT_EQ(7, row_of("Ethernet8").port);
    EXPECT_EQ(9, row_of("Ethernet12").port);
}

TEST_F(DdmFile, FieldsAtTheEndOfARowMayBeMissing)
{
    load_good("# name lanes alias index speed\nEthernet0 1 left 1\nEthernet4 5\n");
    EXPECT_EQ(2U, libddm_table_size());
}

TEST_F(DdmFile, TablesOfAConfigurationStandInAnyOrderAndOthersAreSkipped)
{
    load_good(CONFIGURATION);
    EXPECT_EQ(5U, libddm_table_size());
    EXPECT_EQ(2'000'003U, ifx_of("PortChannel3"));
    EXPECT_EQ(2'000'012U, ifx_of("PortChannel0012"));
}

TEST_F(DdmFile, FormIsToldByTheFirstCharacter)
{
    load_good("\n\t {\"PORT\": {\"Ethernet0\": {\"lanes\": \"1\"}}}");
    EXPECT_EQ(1U, libddm_table_size());
    load_good("\xef\xbb\xbf{\"PORT\": {\"Ethernet4\": {\"lanes\": 1}}}");
    EXPECT_EQ(1'000'004U, ifx_of("Ethernet4"));
    load_good("\xef\xbb\xbf# name lanes\nEthernet8 1\n");
    EXPECT_EQ(1'000'008U, ifx_of("Ethernet8"));
    EXPECT_THAT(error_of("[]"), HasSubstr("FILE:1: above the first row a comment has to name the columns"));
}

TEST_F(DdmFile, LoadReplacesTheTable)
{
    const libddm_port row = {.ifx = 1, .gphyid = 0x07000001, .lphyid = 0x08000002, .unit = 0, .port = 1};
    ASSERT_EQ(0, libddm_table_add(&row));
    load_good("# name lanes\nEthernet0 1\n");
    load_good("# name lanes\nEthernet4 1\n");
    EXPECT_EQ(1U, libddm_table_size());
    uint32_t ifx = UNTOUCHED;
    EXPECT_EQ(LIBDDM_ENOENT, libddm_get_ifx_by_name("Ethernet0", &ifx));
    EXPECT_EQ(LIBDDM_ENOENT, libddm_get_ifx_by_phyid(row.gphyid, &ifx));
    EXPECT_EQ(UNTOUCHED, ifx);
}

TEST_F(DdmFile, FailedLoadLeavesTheTableAsItWas)
{
    load_good(LIST);
    const char *name = nullptr;
    ASSERT_EQ(0, libddm_get_name_by_ifx(1'000'004, &name));
    error_of("# name lanes\nEthernet8 11\nEthernet12 x\n");
    error_of("# name lanes\n", LIBDDM_ENOENT);
    EXPECT_EQ(LIBDDM_EIO, libddm_table_load("/nonexistent/ports", nullptr, 0));
    EXPECT_EQ(2U, libddm_table_size());
    EXPECT_STREQ("Ethernet4", name);
    expect_row("Ethernet4", {1'000'004, 0x07000005, 0x08400009, 0, 9});
}

TEST_F(DdmFile, RowsCanBeAddedToALoadedTableAndHaveNoName)
{
    load_good(LIST);
    const libddm_port taken = {.ifx = 1'000'000, .gphyid = 0x07000abc, .lphyid = 0x08000abc, .unit = 1, .port = 1};
    EXPECT_EQ(LIBDDM_EEXIST, libddm_table_add(&taken));
    const libddm_port fresh = {.ifx = 77, .gphyid = 0x07000abc, .lphyid = 0x08000abc, .unit = 1, .port = 1};
    const libddm_port second = {.ifx = 78, .gphyid = 0x07000abd, .lphyid = 0x08000abd, .unit = 1, .port = 2};
    EXPECT_EQ(0, libddm_table_add(&fresh));
    EXPECT_EQ(0, libddm_table_add(&second));
    const char *name = "untouched";
    uint32_t ifx = UNTOUCHED;
    EXPECT_EQ(LIBDDM_ENOENT, libddm_get_name_by_ifx(fresh.ifx, &name));
    EXPECT_STREQ("untouched", name);
    EXPECT_EQ(LIBDDM_ENOENT, libddm_get_ifx_by_name("", &ifx));
    EXPECT_EQ(UNTOUCHED, ifx);
}

TEST_F(DdmFile, UnknownNamesAndNullArgumentsOfNameLookUpsAreRefused)
{
    uint32_t ifx = UNTOUCHED;
    const char *name = nullptr;
    EXPECT_EQ(LIBDDM_ENOENT, libddm_get_ifx_by_name("Ethernet0", &ifx));  // while there is no table
    EXPECT_EQ(LIBDDM_ENOENT, libddm_get_name_by_ifx(1'000'000, &name));
    load_good(LIST);
    for (const char *unknown : {"Ethernet1", "Ethernet", "Ethernet00", "ethernet0", "left", ""})
        EXPECT_EQ(LIBDDM_ENOENT, libddm_get_ifx_by_name(unknown, &ifx)) << unknown;
    EXPECT_EQ(LIBDDM_ENOENT, libddm_get_name_by_ifx(1'000'001, &name));
    EXPECT_EQ(UNTOUCHED, ifx);
    EXPECT_EQ(nullptr, name);
    EXPECT_EQ(LIBDDM_EINVAL, libddm_get_ifx_by_name(nullptr, &ifx));
    EXPECT_EQ(LIBDDM_EINVAL, libddm_get_ifx_by_name("Ethernet0", nullptr));
    EXPECT_EQ(LIBDDM_EINVAL, libddm_get_name_by_ifx(1'000'000, nullptr));
}

TEST_F(DdmFile, RowsThatAreNoPortAreRefusedWithTheirLine)
{
    const std::string no_list = " is not a list of numbers from 0 to 65535";
    EXPECT_EQ("FILE:2: Ethernet0: lanes is missing", error_of_row("Ethernet0"));
    EXPECT_EQ("FILE:2: Ethernet0: lanes \"1,x\"" + no_list, error_of_row("Ethernet0 1,x"));
    for (const std::string lanes : {",", "1,", ",1", "1,,2", "-1", "+1", "1-4", "65536", "4294967297", "0x1", "1;2"})
        EXPECT_EQ("FILE:2: Ethernet0: lanes " + quoted(lanes) + no_list, error_of_row("Ethernet0 " + lanes));
    EXPECT_EQ("FILE:2: Ethernet0: index \"one\" is not a whole number", error_of_row("Ethernet0 1 left one"));
    EXPECT_EQ("FILE:2: Ethernet0: speed \"100G\" is not a whole number", error_of_row("Ethernet0 1 left 1 100G"));
    EXPECT_EQ("FILE:2: 6 fields, but line 1 names 5 columns", error_of_row("Ethernet0 1 left 1 100000 rs"));
    EXPECT_EQ("FILE:2: Ethernet1000000: the number in the name is above 999999", error_of_row("Ethernet1000000 1"));
    EXPECT_EQ("FILE:2: Ethernet99999999999: the number in the name is above 999999",
              error_of_row("Ethernet99999999999 1"));
    const std::string no_name = ": the name must be 1 to 64 characters, no blank and no bar";
    EXPECT_EQ("FILE:2: a|b" + no_name, error_of_row("a|b 1"));
    EXPECT_EQ("FILE:2: a\\x7f" + no_name, error_of_row("a\x7f 1"));
    EXPECT_EQ("FILE:2: \\xff\\x00" + no_name, error_of_row(std::string("\xff\0 1", 4)));
    EXPECT_EQ("FILE:2: " + std::string(64, 'n') + "..." + no_name, error_of_row(std::string(3000, 'n') + " 1"));
    EXPECT_EQ("FILE:3: name is missing", error_of("# lanes name\n1 Ethernet0\n2\n"));
}

TEST_F(DdmFile, ColumnsThatAreNotNamedOrNamedTwiceAreRefused)
{
    const std::string unnamed = "above the first row a comment has to name the columns: # name lanes ...";
    EXPECT_EQ("FILE:3: " + unnamed, error_of("# name alias\n\nEthernet0 1\n"));
    EXPECT_EQ("FILE:1: " + unnamed, error_of("Ethernet0 1\n# name lanes\n"));
    EXPECT_EQ("FILE:2: names the column lanes twice", error_of("#\n# name lanes lanes\n"));
    EXPECT_EQ("FILE:1: names the column speed twice", error_of("# name speed lanes speed\n"));
}

TEST_F(DdmFile, PortsThatShareANameANumberOrALaneAreRefused)
{
    EXPECT_EQ("FILE:3: Ethernet0: the name is taken already", error_of_row("Ethernet0 1\nEthernet0 1"));
    EXPECT_EQ("FILE:3: Ethernet00: has the number of Ethernet0 already", error_of_row("Ethernet0 1\nEthernet00 2"));
    EXPECT_EQ("FILE:3: b: lane 2 is that of a already", error_of_row("a 1,2\nb 3,2"));
    EXPECT_EQ("FILE:2: a: lane 1 is that of a already", error_of_row("a 1,2,01"));
}

TEST_F(DdmFile, EntriesThatAreNoPortAreRefusedWithTheirLineAndTable)
{
    const std::string no_list = " is not a list of numbers from 0 to 65535";
    EXPECT_EQ("FILE:2: PORT|Ethernet0: lanes is missing", error_of_port(R"("Ethernet0": {"Lanes": "1"})"));
    EXPECT_EQ("FILE:3: PORT|b: lanes \"\"" + no_list,
              error_of_port("\"a\": {\"lanes\": \"1\"},\n\"b\": {\"lanes\": \"\"}"));
    for (const char *lanes : {"[1, 2]", "{}", "true", "null", "1.0"})
        EXPECT_EQ("FILE:2: PORT|a: lanes" + no_list, error_of_port(std::string(R"("a": {"lanes": )") + lanes + '}'));
    EXPECT_EQ("FILE:2: PORT|a: alias is not a text", error_of_port(R"("a": {"lanes": "1", "alias": ["x"]})"));
    EXPECT_EQ("FILE:2: PORT|a: index is not a whole number", error_of_port(R"("a": {"lanes": "1", "index": {}})"));
    EXPECT_EQ("FILE:2: PORT|a: speed \"\" is not a whole number", error_of_port(R"("a": {"lanes": "1", "speed": ""})"));
    EXPECT_EQ("FILE:2: PORT|: the name must be 1 to 64 characters, no blank and no bar",
              error_of_port(R"("": {"lanes": "1"})"));
    EXPECT_EQ("FILE:2: PORT|a\\x00b: has a NUL character", error_of_port("\"a\\u0000b\": {\"lanes\": \"1\"}"));
}

TEST_F(DdmFile, TextThatIsNoConfigurationIsRefusedWithItsLine)
{
    EXPECT_THAT(error_of("{\n\"PORT\": {\n\"a\": {\"lanes\": \"1\""), HasSubstr("FILE:3: PORT|a: not JSON: "));
    EXPECT_EQ("FILE:2: PORT|a: stands there twice", error_of_port(R"("a": {"lanes": "1"}, "a": {"lanes": "2"})"));
    EXPECT_EQ("FILE:2: PORT|a: \"lanes\" stands there twice", error_of_port(R"("a": {"lanes": "1", "lanes": "2"})"));
    EXPECT_EQ("FILE:2: PORT: stands there twice", error_of("{\"PORT\": {},\n\"PORT\": {}}"));
    EXPECT_EQ("FILE:1: PORT: must be an object of entries", error_of(R"({"PORT": []})"));
    EXPECT_EQ("FILE:1: PORT|a: must be an object of fields", error_of(R"({"PORT": {"a": "1"}})"));
    EXPECT_THAT(error_of(std::string_view("{\n\0}", 4)), HasSubstr("FILE:2: not JSON: a NUL byte"));
    EXPECT_THAT(error_of(R"({"PORT": )" + std::string(100'000, '[')), HasSubstr("FILE:1: "));
}

TEST_F(DdmFile, AggregatesWithoutAUsableNumberAreRefused)
{
    const auto no_name = [](const std::string &place) {
        return place + ": the name must be PortChannel0 to PortChannel999999";
    };
    const std::string long_one = "PortChannel" + std::string(54, '0');  // its number is 0, but names have 64 characters
    for (const std::string name : {"PortChannel", "Po1", "PortChannel1000000", "PortChannel-1", "PortChannel1x", "",
                                   "PortChannel 1", "portchannel1"})
        EXPECT_EQ(no_name("FILE:2: PORTCHANNEL|" + name),
                  error_of_tables("\"PORTCHANNEL\": {" + quoted(name) + ": {}}"));
    EXPECT_THAT(error_of_tables(R"("PORTCHANNEL": {")" + long_one + "\": {}}"),
                HasSubstr("must be 1 to 64 characters"));
    EXPECT_EQ("FILE:3: PORTCHANNEL|PortChannel01: has the number of PortChannel1 already",
              error_of_tables("\"PORTCHANNEL\": {\"PortChannel1\": {},\n\"PortChannel01\": {}}"));
    EXPECT_EQ("FILE:1: PORTCHANNEL|PortChannel1: the name is taken already",
              error_of(R"({"PORT": {"PortChannel1": {"lanes": "1"}}, "PORTCHANNEL": {"PortChannel1": {}}})"));
}

TEST_F(DdmFile, MembersThatAreNoPortsOrTwoAggregatesAreRefused)
{
    const auto members = [](const std::string &list) {
        return error_of_tables(R"("PORTCHANNEL": {"PortChannel1": {"members": )" + list + R"(}, "PortChannel2": {}})");
    };
    const std::string place = "FILE:2: PORTCHANNEL|PortChannel1: ";
    EXPECT_EQ(place + "the member \"Ethernet8\" is no port", members(R"(["Ethernet0", "Ethernet8"])"));
    EXPECT_EQ(place + "the member \"PortChannel1\" is no port", members(R"(["PortChannel1"])"));
    EXPECT_EQ(place + "the member \"\" is no port", members(R"([""])"));
    EXPECT_EQ(place + "the member \"4\" is no port", members("[4]"));
    for (const char *list : {"\"Ethernet0\"", "{}", "null", R"(["Ethernet0", null])", R"(["Ethernet0", ["Ethernet4"]])",
                             R"([{"Ethernet0": "Ethernet4"}])", R"(["Ethernet0", 1.5, "Ethernet4"])"})
        EXPECT_EQ(place + "members is not a list of names", members(list)) << list;
    EXPECT_EQ("FILE:3: PORTCHANNEL|PortChannel2: Fabric is a member of PortChannel1 already",
              error_of_tables("\"PORTCHANNEL\": {\"PortChannel1\": {\"members\": [\"Fabric\"]},\n"
                              "\"PortChannel2\": {\"members\": [\"Fabric\"]}}"));
}

TEST_F(DdmFile, MembershipsWithoutAggregateOrPortAreRefused)
{
    const auto membership = [](const std::string &key) {
        return error_of_tables(R"("PORTCHANNEL": {"PortChannel1": {"members": ["Ethernet0"]}, "PortChannel2": {}},
"PORTCHANNEL_MEMBER": {")" + key +
                               "\": {}}");
    };
    const auto no_key = [](const std::string &place) {
        return place + ": the key must be AGGREGATE|PORT, with an aggregate of the table PORTCHANNEL";
    };
    for (const std::string key : {"PortChannel3|Ethernet0", "Ethernet4|Ethernet0", "Ethernet0", "|Ethernet0", "|", ""})
        EXPECT_EQ(no_key("FILE:3: PORTCHANNEL_MEMBER|" + key), membership(key));
    for (const std::string port : {"Ethernet8", "PortChannel2", "", "Ethernet0|", "|Ethernet0"})
        EXPECT_EQ("FILE:3: PORTCHANNEL_MEMBER|PortChannel1|" + port + ": the member " + quoted(port) + " is no port",
                  membership("PortChannel1|" + port));
    EXPECT_EQ("FILE:3: PORTCHANNEL_MEMBER|PortChannel1: the member \"\" is no port", membership("PortChannel1"));
    EXPECT_EQ("FILE:3: PORTCHANNEL_MEMBER|PortChannel2|Ethernet0: Ethernet0 is a member of PortChannel1 already",
              membership("PortChannel2|Ethernet0"));
}

TEST_F(DdmFile, FilesWithoutRowsSaySoWhereTheyEnd)
{
    const std::string none = ": no ports and no aggregates up to here, the end of the file";
    EXPECT_EQ("FILE:1" + none, error_of("", LIBDDM_ENOENT));
    EXPECT_EQ("FILE:2" + none, error_of("# name lanes\n# and no more\n", LIBDDM_ENOENT));
    EXPECT_EQ("FILE:3" + none, error_of("\n\n\t", LIBDDM_ENOENT));
    EXPECT_EQ("FILE:2" + none, error_of("{\"PORT\": {}, \n\"VLAN\": {\"Vlan10\": {}}}", LIBDDM_ENOENT));
}

TEST_F(DdmFile, FilesThatCannotBeReadAreRefused)
{
    char error[LIBDDM_ERROR_SIZE] = "";
    EXPECT_EQ(LIBDDM_EIO, libddm_table_load("/nonexistent/\nports", error, sizeof error));
    EXPECT_STREQ("/nonexistent/\\x0aports: No such file or directory", error);
    const std::string folder = std::filesystem::temp_directory_path().string();
    EXPECT_EQ(LIBDDM_EIO, libddm_table_load(folder.c_str(), error, sizeof error));
    EXPECT_EQ(folder + ": Is a directory", error);
    EXPECT_EQ(LIBDDM_EINVAL, libddm_table_load(nullptr, error, sizeof error));
    EXPECT_STREQ("no path", error);
    EXPECT_EQ(LIBDDM_EINVAL, libddm_table_load(nullptr, nullptr, 0));
}

TEST_F(DdmFile, HugeFilesAndHugeLinesAreRefused)
{
    const temporary_file huge("# name lanes\n");
    std::filesystem::resize_file(huge.path(), (64U << 20) + 1);
    char error[LIBDDM_ERROR_SIZE] = "";
    EXPECT_EQ(LIBDDM_EIO, libddm_table_load(huge.path().c_str(), error, sizeof error));
    EXPECT_EQ(huge.path() + ": File too large", error);
    EXPECT_EQ("FILE:2: the line is longer than 4096 bytes", error_of("# name lanes\n" + std::string(5000, ' ')));
}

TEST_F(DdmFile, LongestMessageFits)
{
    const temporary_file row("# name lanes\n" + std::string(64, '\x01') + " 1\n");
    const std::string path = row.path() + std::string(200, '\x01');
    std::filesystem::copy_file(row.path(), path);
    char error[LIBDDM_ERROR_SIZE] = "";
    EXPECT_EQ(LIBDDM_EINVAL, libddm_table_load(path.c_str(), error, sizeof error));
    std::filesystem::remove(path);
    EXPECT_THAT(std::string(error), testing::EndsWith("\\x01..."));
    EXPECT_THAT(error, HasSubstr("\\x01...:2: \\x01"));
}

TEST_F(DdmFile, MessageIsCutForASmallBuffer)
{
    char small[8] = "xxxxxxx";
    EXPECT_EQ(LIBDDM_EIO, libddm_table_load("/nonexistent", small, 6));
    EXPECT_STREQ("/none", small);
    EXPECT_EQ('x', small[6]);
    EXPECT_EQ(LIBDDM_EIO, libddm_table_load("/nonexistent", small, 0));
    EXPECT_EQ('/', small[0]);
}

TEST_F(DdmFile, WithoutMemoryTheTableStaysAndNoFileStaysOpen)
{
    const auto open_files = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    for (const std::string_view text : {LIST, CONFIGURATION}) {
        load_good("# name lanes\nEthernet1 1\n");
        const temporary_file file(text);
        const auto before = open_files();
        const auto load_file = [&] {
            char error[LIBDDM_ERROR_SIZE] = "";
            uint32_t ifx = UNTOUCHED;
            const int32_t code = libddm_table_load(file.path().c_str(), error, sizeof error);
            EXPECT_STREQ(code == 0 ? "" : "out of memory", error);
            EXPECT_EQ(code, libddm_get_ifx_by_name("Ethernet1", &ifx) == 0 ? LIBDDM_ENOMEM : 0);
            return code;
        };
        EXPECT_LE(10U, failures_reported(load_file, LIBDDM_ENOMEM));
        EXPECT_EQ(before, open_files());
        EXPECT_EQ(1'000'000U, ifx_of("Ethernet0"));
    }
}

TEST_F(DdmFile, LookUpsTakeNoMemory)
{
    load_good("# name lanes\nEthernet4-of-a-name-that-is-not-short 9\n");
    uint32_t id = 0;
    int32_t unit = 0, port = 0;
    const char *name = nullptr;
    fail_allocations_from(1);
    EXPECT_EQ(0, libddm_get_ifx_by_name("Ethernet4-of-a-name-that-is-not-short", &id));
    EXPECT_EQ(0, libddm_get_name_by_ifx(id, &name));
    EXPECT_EQ(0, libddm_get_phyid_by_ifx(id, &id));
    EXPECT_EQ(0, libddm_get_lphyid_by_gphyid(id, &id));
    EXPECT_EQ(0, libddm_get_unit_port_by_lphyid(id, &unit, &port));
    EXPECT_EQ(0, libddm_get_lphyid_by_unit_port(unit, port, &id));
    EXPECT_EQ(0, libddm_get_gphyid_by_lphyid(id, &id));
    EXPECT_EQ(0, libddm_get_ifx_by_phyid(id, &id));
    fail_allocations_from(0);
    EXPECT_EQ(3'000'009U, id);
}

TEST_F(DdmFile, DamagedFilesEndInOneLineOrInAWholeTable)
{
    std::mt19937 random(11);
    uint32_t loaded = 0, refused = 0;
    for (int round = 0; round < 500; ++round) {
        std::string text(round % 2 == 0 ? LIST : CONFIGURATION);
        for (auto n = 1 + random() % 3; n > 0; --n)
            text[random() % text.size()] = static_cast<char>(random() % 256);
        load_good("# name lanes\nEthernet999 1\n");
        const outcome result = load(text);
        uint32_t ifx = 0;
        EXPECT_EQ(result.code != 0, libddm_get_ifx_by_name("Ethernet999", &ifx) == 0);
        if (result.code == 0) {
            ++loaded;
            continue;
        }
        ++refused;
        EXPECT_EQ(1U, libddm_table_size());
        EXPECT_TRUE(result.error.starts_with("FILE:")) << result.error;
        EXPECT_TRUE(std::ranges::none_of(result.error, [](char c) { return c >= 0 && c < ' '; })) << result.error;
    }
    EXPECT_LT(20U, loaded);
    EXPECT_LT(20U, refused);
}
