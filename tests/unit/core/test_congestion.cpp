// Congestion set-up: the connected callback and the registration as a producer.
#include <cstdlib>

#include "core_fixture.hpp"
#include "libcgstctrl.h"

namespace core_test
{
namespace
{

constexpr char kFile[] = "app/lib/ebridge/libsw_ebridge_congest.cpp";
constexpr char kCallback[] = "sw_ebridge_mom_connected_for_congestion_callback";

class Congestion : public CoreTest
{
};

// A user with a database of its own, and the arguments of its congestion connection.
sw_ebridge_connecting_args *connecting(const char *name, uint32_t db)
{
    auto args = args_of(name);
    args.mom_db = db;
    EXPECT_EQ(0, sw_ebridge_init(&args));
    void *block = recording::calls_of("qz_mom_client_connect").at(0).args;
    recording::reset();
    return static_cast<sw_ebridge_connecting_args *>(block);
}

std::vector<const void *> connected(sw_ebridge_connecting_args *ca, int32_t expected)
{
    return freed_by(
        [&] { EXPECT_EQ(expected, sw_ebridge_mom_connected_for_congestion_callback(recording::handle(), ca)); });
}

void release(sw_ebridge_connecting_args *ca)
{
    std::free(ca->args2);
    std::free(ca);
}

TEST_F(Congestion, ConnectedRefusesNoArguments)
{
    EXPECT_THAT(connected(nullptr, -2), IsEmpty());
    expect_line("Assert:Bad global.", kError, kFile, kCallback);
    EXPECT_EQ(1u, recording::logged().size());
}

TEST_F(Congestion, ConnectedRefusesNoFlagAndFreesWhatItWasGiven)
{
    auto *ca = connecting("user", 8);
    ca->args = 0;
    EXPECT_EQ(2u, connected(ca, -2).size());
    expect_line("Assert:Bad global args.", kError, kFile, kCallback);
    EXPECT_EQ(1u, recording::logged().size());
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(Congestion, ConnectedRefusesNoBlockAndFreesWhatItWasGiven)
{
    auto *ca = connecting("user", 8);
    std::free(ca->args2);
    ca->args2 = nullptr;
    EXPECT_EQ(1u, connected(ca, -2).size());
    expect_line("Assert:Bad global args2.", kError, kFile, kCallback);
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(Congestion, ConnectedLooksAtTheFlagFirst)
{
    auto *ca = static_cast<sw_ebridge_connecting_args *>(std::calloc(1, sizeof(sw_ebridge_connecting_args)));
    EXPECT_EQ(1u, connected(ca, -2).size());
    EXPECT_THAT(recording::logged(), ElementsAre("Assert:Bad global args."));
}

TEST_F(Congestion, ConnectedSaysWhatItWasGivenAndRegistersTheUser)
{
    auto *ca = connecting("user", 8);
    const void *const outer = ca;
    const void *const inner = ca->args2;
    const auto text = format(
        "sw_ebridge_connecting_args: (p: %p), sw_ebridge_connecting_args->args: (p: 0x2000000), "
        "sw_ebridge_connecting_args->args2: (p: %p).",
        outer, inner);
    EXPECT_THAT(connected(ca, 0), testing::UnorderedElementsAre(outer, inner));
    expect_line(text, kInfo, kFile, kCallback);
    EXPECT_THAT(recording::logged(),
                ElementsAre(text, HasSubstr("current db_flags:"), "user: libvlan_user, mom_db: 8\n"));
    expect_line("current db_flags: 0x2000000, all_db_flags: 0x2000000, user: user.", kInfo, kFile, kCallback);
    EXPECT_EQ(1u, recording::calls_of("libcgstctrl_gen_init").size());
}

TEST_F(Congestion, ConnectedSucceedsWhateverTheSetUpReturned)
{
    auto *ca = connecting("user", 8);
    recording::set_result("libcgstctrl_gen_init", LIBCGSTCTRL_ENOMEM);
    EXPECT_EQ(2u, connected(ca, 0).size());
    EXPECT_TRUE(recording::has_logged("Assert:MOM ctrl failed, error is -3.", kError));
    ca = connecting("other", 8);
    const auto key = record_of("other");
    sw_ebridge_list_item_cache_destroy(0, &key);
    EXPECT_EQ(2u, connected(ca, 0).size());
    EXPECT_TRUE(recording::has_logged("Assert:No user named 'other'.\n", kError));
}

TEST_F(Congestion, FlagsGatherOverConnections)
{
    connected(connecting("first", 8), 0);
    connected(connecting("second", 4), 0);
    EXPECT_TRUE(recording::has_logged("current db_flags: 0x3000000, all_db_flags: 0x1000000, user: second.", kInfo));
    EXPECT_EQ(1u, recording::calls_of("libcgstctrl_gen_init").size());
}

TEST_F(Congestion, FlagsAreApartFromTheDataConnections)
{
    connected(connecting("user", 8), 0);
    auto *ca = connecting("other", 4);
    EXPECT_EQ(0, sw_ebridge_mom_connected_callback(recording::handle(), ca));
    EXPECT_TRUE(recording::has_logged("current db_flags: 0x1000000, all_db_flags: 0x1000000, user: other.", kInfo));
    recording::reset();
    connected(connecting("third", 8), 0);
    EXPECT_TRUE(recording::has_logged("current db_flags: 0x2000000, all_db_flags: 0x2000000, user: third.", kInfo));
}

TEST_F(Congestion, SetUpRefusesNoName)
{
    EXPECT_EQ(-2, sw_ebridge_congestion_init(nullptr));
    expect_line("Assert:Bad args.", kError, kFile, "sw_ebridge_congestion_init");
    EXPECT_EQ(1u, recording::logged().size());
}

TEST_F(Congestion, SetUpRefusesAnUnknownUser)
{
    sw_ebridge_list_init();
    EXPECT_EQ(-2, sw_ebridge_congestion_init("nobody"));
    expect_line("Assert:No user named 'nobody'.\n", kError, kFile, "sw_ebridge_congestion_init");
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(Congestion, SetUpRegistersTheProducer)
{
    release(connecting("user", 6));
    EXPECT_EQ(0, sw_ebridge_congestion_init("user"));
    expect_line("user: libvlan_user, mom_db: 6\n", kInfo, kFile, "sw_ebridge_congestion_init");
    const auto producers = recording::calls_of("libcgstctrl_gen_init");
    ASSERT_EQ(1u, producers.size());
    EXPECT_EQ(recording::handle(), producers[0].handle);
    EXPECT_EQ(6u, producers[0].db);
    EXPECT_EQ("libvlan_user", producers[0].name);
    EXPECT_EQ(nullptr, producers[0].extra);
}

TEST_F(Congestion, SetUpRegistersThreeTopicsInOrder)
{
    release(connecting("user", 6));
    recording::set_result("libcgstctrl_gen_topic_reg", LIBCGSTCTRL_ENOENT);
    EXPECT_EQ(0, sw_ebridge_congestion_init("user"));
    const auto topics = recording::calls_of("libcgstctrl_gen_topic_reg");
    ASSERT_EQ(3u, topics.size());
    EXPECT_EQ("u_bridge.evlan_session", topics[0].record);
    EXPECT_EQ("u_bridge.eport_session", topics[1].record);
    EXPECT_EQ("u_bridge.port_vid", topics[2].record);
    for (const auto &topic : topics) {
        EXPECT_EQ(recording::handle(), topic.handle);
        EXPECT_EQ(6u, topic.db);
        EXPECT_EQ("libvlan_user", topic.name);
        EXPECT_EQ(0u, topic.flags);
        EXPECT_THAT(topic.fields, ElementsAre(0u, 0u, 0u, 0u));
    }
    EXPECT_EQ("libcgstctrl_gen_init", recording::calls().front().function);
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(Congestion, LongestNameFitsTheModuleName)
{
    const std::string name(31, 'n');
    release(connecting(name.c_str(), 6));
    EXPECT_EQ(0, sw_ebridge_congestion_init(name.c_str()));
    EXPECT_EQ("libvlan_" + name, recording::calls_of("libcgstctrl_gen_init").at(0).name);
}

// A longer name finds the same user, and its module is the same.
TEST_F(Congestion, ModuleNameHasAtMost39Characters)
{
    const std::string name(31, 'n');
    release(connecting(name.c_str(), 6));
    EXPECT_EQ(0, sw_ebridge_congestion_init((name + "and more").c_str()));
    EXPECT_EQ("libvlan_" + name, recording::calls_of("libcgstctrl_gen_init").at(0).name);
}

// Congestion control may keep what it is given, so it must live as long as the process.
TEST_F(Congestion, ModuleNameThatWasHandedOverStays)
{
    release(connecting("first", 6));
    release(connecting("second", 6));
    EXPECT_EQ(0, sw_ebridge_congestion_init("first"));
    EXPECT_EQ(0, sw_ebridge_congestion_init("second"));
    const auto producers = recording::calls_of("libcgstctrl_gen_init");
    ASSERT_EQ(2u, producers.size());
    EXPECT_STREQ("libvlan_first", static_cast<const char *>(producers[0].args));
    EXPECT_STREQ("libvlan_second", static_cast<const char *>(producers[1].args));
}

TEST_F(Congestion, ModuleNameIsKeptOncePerUser)
{
    release(connecting("user", 6));
    EXPECT_EQ(0, sw_ebridge_congestion_init("user"));
    recording::fail_allocation(1);
    EXPECT_EQ(0, sw_ebridge_congestion_init("user")) << "the name is there";
    recording::fail_allocation(0);
    const auto producers = recording::calls_of("libcgstctrl_gen_init");
    ASSERT_EQ(2u, producers.size());
    EXPECT_EQ(producers[0].args, producers[1].args);
}

TEST_F(Congestion, SetUpWithoutMemoryForTheModuleName)
{
    release(connecting("user", 6));
    recording::fail_allocation(1);
    EXPECT_EQ(-4, sw_ebridge_congestion_init("user"));
    recording::fail_allocation(0);
    expect_line("Assert:malloc module name failed.", kError, kFile, "sw_ebridge_congestion_init");
    EXPECT_THAT(recording::calls(), IsEmpty());
    EXPECT_EQ(0, sw_ebridge_congestion_init("user"));
}

TEST_F(Congestion, FailedProducerHasNoTopics)
{
    release(connecting("user", 6));
    recording::set_result("libcgstctrl_gen_init", -19);
    EXPECT_EQ(-19, sw_ebridge_congestion_init("user"));
    expect_line("Assert:MOM ctrl failed, error is -19.", kError, kFile, "sw_ebridge_congestion_init");
    EXPECT_THAT(recording::sequence(),
                ElementsAre("log 40 user: libvlan_user, mom_db: 6\n", "call libcgstctrl_gen_init",
                            "log 100 Assert:MOM ctrl failed, error is -19."));
}

TEST_F(Congestion, ProducerOfPortVlansRegistersTheirTopicAlone)
{
    EXPECT_EQ(0, sw_ebridge_port_vlans_congest(recording::handle(), 5, "lags"));
    const auto producers = recording::calls_of("libcgstctrl_gen_init");
    ASSERT_EQ(1u, producers.size());
    EXPECT_EQ(recording::handle(), producers[0].handle);
    EXPECT_EQ(5u, producers[0].db);
    EXPECT_EQ("lags", producers[0].name);
    ASSERT_NE(nullptr, producers[0].extra);
    EXPECT_EQ(0u, static_cast<const libcgstctrl_state *>(producers[0].extra)->congested);
    const auto topics = recording::calls_of("libcgstctrl_gen_topic_reg");
    ASSERT_EQ(1u, topics.size());
    EXPECT_EQ(recording::handle(), topics[0].handle);
    EXPECT_EQ(5u, topics[0].db);
    EXPECT_EQ("lags", topics[0].name);
    EXPECT_EQ("u_bridge.port_vlans", topics[0].record);
    EXPECT_EQ(0u, topics[0].flags);
    EXPECT_THAT(topics[0].fields, ElementsAre(0u, 0u, 0u, 0u));
    EXPECT_EQ("libcgstctrl_gen_init", recording::calls().front().function);
    EXPECT_THAT(recording::logged(), IsEmpty());
}

TEST_F(Congestion, ProducerOfPortVlansThatIsRefusedHasNoTopic)
{
    recording::set_result("libcgstctrl_gen_init", -19);
    EXPECT_EQ(-3, sw_ebridge_port_vlans_congest(recording::handle(), 5, "lags"));
    expect_line("Assert:MOM ctrl failed, error is -19.", kError, kFile, "sw_ebridge_port_vlans_congest");
    EXPECT_EQ(1u, recording::calls().size());
}

TEST_F(Congestion, TopicOfPortVlansThatIsRefusedIsNoFailure)
{
    recording::set_result("libcgstctrl_gen_topic_reg", LIBCGSTCTRL_ENOENT);
    EXPECT_EQ(0, sw_ebridge_port_vlans_congest(recording::handle(), 5, "lags"));
    EXPECT_THAT(recording::logged(), IsEmpty());
}

}  // namespace
}  // namespace core_test
