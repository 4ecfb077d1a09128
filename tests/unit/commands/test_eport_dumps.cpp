// The commands that print eports: their attributes and the index map.
#include "command_fixture.hpp"

namespace
{

using namespace command_test;

constexpr uint32_t port_5 = 0x10000005, ap_3 = 0x20000003, ac_7 = 0x30000007, pw_8 = 0x31000008;

// One record a slot, so that none depends on the order of a table.
class EportCommands : public CommandTest
{
  protected:
    void SetUp() override
    {
        CommandTest::SetUp();
        make_port();
        make_ap();
        make_ac();
        make_pw();
        sw_eport_index_map item{};
        sw_eport_index_map_init_udpkey(&item, ac_7);
        item.value[0] = 48;
        item.value[1] = 7;
        item.value[2] = 8;
        std::strcpy(item.user_name, "app");
        EXPECT_NE(sw_eport_index_map_update_item(0, &item), nullptr);
    }

  private:
    static void store(uint32_t slot, const char *owner, sw_eport_attr &record)
    {
        std::strcpy(record.user_name, owner);
        sw_eport_attr *stored = nullptr;
        sw_eport_cache_create(slot, &stored, &record);
        EXPECT_NE(stored, nullptr);
    }
    static void make_port()
    {
        sw_eport_attr record;
        sw_eport_init(&record, "", port_5);
        record.attr.underlay.pvid = 10;
        record.attr.underlay.vt_key = 0x55;
        record.attr.underlay.vbmp[0] = 1u << 10;
        record.attr.underlay.vbmp[127] = 1u << 31;
        record.attr.underlay.ubmp[0] = 1u << 10;
        record.attr.underlay.mcbmp[1] = 1;
        store(0, "app", record);
    }
    static void make_ap()
    {
        sw_eport_attr record;
        sw_eport_init(&record, "", ap_3);
        record.vlan_filter = 0;
        store(1, "app", record);
    }
    // Its owner is no user of this process.
    static void make_ac()
    {
        sw_eport_attr record;
        sw_eport_init(&record, "", ac_7);
        auto &overlay = record.attr.overlay;
        overlay = {1, port_5, 3, 4, 5, 0, 0, 0x20000009, 9, 1500, 0xabc, 12, 13, 14, 15, 0xfffffff0, {}, 1};
        const uint8_t dip[] = {192, 0, 2, 1}, sip[] = {192, 0, 2, 2};
        std::memcpy(&overlay.dip, dip, sizeof dip);
        std::memcpy(overlay.sip.address, sip, sizeof sip);
        store(2, "elsewhere", record);
    }
    static void make_pw()
    {
        sw_eport_attr record;
        sw_eport_init(&record, "", pw_8);
        auto &overlay = record.attr.overlay;
        overlay.peer_mode = 1;
        overlay.evlan_id = ac_7;
        overlay.sip.is_ipv6 = 1;
        const uint8_t sip[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5};
        std::memcpy(overlay.sip.address, sip, sizeof sip);
        store(5, name_of_31, record);
    }
};

TEST_F(EportCommands, DumpEportPrintsAttributesAndTheIndexMap)
{
    EXPECT_EQ(run("dump_eport"), expected("dump_eport"));
    EXPECT_EQ(run("dump_eport", {0, 0, 0}), expected("dump_eport"));
}

TEST_F(EportCommands, DumpEportPrintsOneKind)
{
    EXPECT_EQ(run("dump_eport", {1, 0, 0}) + run("dump_eport", {2, 0, 0}), expected("dump_eport"));
    EXPECT_EQ(run("dump_eport", {3, 0, 0}), "");
}

TEST_F(EportCommands, DumpEportPrintsTheTypeAndIdThatItsArgumentsName)
{
    EXPECT_EQ(run("dump_eport", {0, 48, argument(ac_7)}), expected("dump_eport_ac"));
    EXPECT_EQ(run("dump_eport", {1, 49, 0}), expected("dump_eport_pw"));
    EXPECT_EQ(run("dump_eport", {1, 48, argument(pw_8)}), expected("dump_eport_no_match"));
}

TEST_F(EportCommands, DumpPortPrintsPorts)
{
    EXPECT_EQ(run("dump_port", {1, 0}), expected("dump_port"));
    EXPECT_EQ(run("dump_port", {1, argument(port_5)}), expected("dump_port_5"));
}

TEST_F(EportCommands, DumpApPrintsAggregates)
{
    EXPECT_EQ(run("dump_ap", {0, 0}), expected("dump_ap"));
    EXPECT_EQ(run("dump_ap", {1, argument(ap_3)}), expected("dump_ap_3"));
}

TEST(EportCommandsFromNothing, PrintTheHeaders)
{
    EXPECT_EQ(printed_by([] { return sw_eport_db_ut_dump(0, 0, 0); }), expected("dump_eport_from_nothing"));
}

}  // namespace
