// The commands that print and clear counters and refused requests.
#include "command_fixture.hpp"

namespace
{

using namespace command_test;
using CounterCommands = CommandTest;
using ErrorCommands = CommandTest;

// ---- counters

// Each counter the number of its place in the record, but for releases, of which some are refusals.
void count_up()
{
    uint32_t words[sizeof g_diagnosis_stat / sizeof(uint32_t)];
    for (uint32_t n = 0; n < std::size(words); ++n)
        words[n] = n + 1;
    std::memcpy(&g_diagnosis_stat, words, sizeof words);
    g_diagnosis_stat.evlan_total_release = 1005;
    g_diagnosis_stat.eport_total_release = 20014;
}

TEST_F(CounterCommands, DumpStatPrintsEveryCounter)
{
    count_up();
    EXPECT_EQ(run("dump_stat"), expected("dump_stat"));
}

TEST_F(CounterCommands, ClearStatSetsCountersAndRingsToZero)
{
    count_up();
    sw_evlan_index_map refused{};
    refused.key[0] = 1;
    sw_evlan_record_err_msg(&refused);
    EXPECT_EQ(run("clear_stat"), "");
    EXPECT_EQ(run("dump_stat"), expected("dump_stat_cleared"));
    EXPECT_EQ(sw_evlan_get_err_msg_array()[0].key[0], 0u);
}

// ---- refused requests

void refuse_evlans(uint32_t count)
{
    for (uint32_t n = 1; n <= count; ++n) {
        sw_evlan_index_map record{};
        record.kind = SW_INDEX_MAP_UDP2APP;
        record.key[0] = UINT32_MAX;
        record.value[0] = 32;
        record.value[1] = 100 + n;
        record.value[2] = 999;
        record.priority = n % 4;
        record.session_arg = SW_EBRIDGE_APP_DB;
        record.ds_flag = SW_INDEX_MAP_GRANTED;
        std::strcpy(record.user_name, "app");
        sw_evlan_record_err_msg(&record);
    }
}

void refuse_eports(uint32_t count)
{
    for (uint32_t n = 1; n <= count; ++n) {
        sw_eport_index_map record{};
        record.kind = SW_INDEX_MAP_UDP2APP;
        record.key[0] = UINT32_MAX;
        record.value[0] = 48;
        record.value[1] = 100 + n;
        record.value[2] = 200 + n;
        record.priority = n % 4;
        record.carried[0] = SW_EBRIDGE_UDP_DB;
        record.carried[1] = 999;
        record.ds_flag = SW_INDEX_MAP_GRANTED;
        std::strcpy(record.user_name, "app");
        sw_eport_record_err_msg(&record);
    }
}

TEST_F(ErrorCommands, OfNothingPrintTheFirstLine)
{
    EXPECT_EQ(run("dump_evlan_err_msg"), expected("errors_none"));
    EXPECT_EQ(run("dump_eport_err_msg"), expected("errors_none"));
}

TEST_F(ErrorCommands, PrintThoseThatThereAre)
{
    refuse_evlans(3);
    refuse_eports(3);
    EXPECT_EQ(run("dump_evlan_err_msg"), expected("evlan_errors_3"));
    EXPECT_EQ(run("dump_eport_err_msg"), expected("eport_errors_3"));
}

TEST_F(ErrorCommands, PrintAFullRing)
{
    refuse_evlans(5);
    refuse_eports(5);
    EXPECT_EQ(run("dump_evlan_err_msg"), expected("evlan_errors_5"));
    EXPECT_EQ(run("dump_eport_err_msg"), expected("eport_errors_5"));
}

TEST_F(ErrorCommands, PrintTheLastFiveOldestFirst)
{
    refuse_evlans(7);
    refuse_eports(7);
    EXPECT_EQ(run("dump_evlan_err_msg"), expected("evlan_errors_7"));
    EXPECT_EQ(run("dump_eport_err_msg"), expected("eport_errors_7"));
}

TEST_F(ErrorCommands, PrintANameThatFillsItsField)
{
    sw_evlan_index_map evlan{};
    std::memset(evlan.user_name, 'x', sizeof evlan.user_name);
    evlan.session_arg = 4;
    sw_evlan_record_err_msg(&evlan);
    sw_eport_index_map eport{};
    std::memset(eport.user_name, 'x', sizeof eport.user_name);
    eport.carried[0] = 4;
    sw_eport_record_err_msg(&eport);
    EXPECT_EQ(run("dump_evlan_err_msg"), expected("evlan_errors_long_name"));
    EXPECT_EQ(run("dump_eport_err_msg"), expected("eport_errors_long_name"));
}

}  // namespace
