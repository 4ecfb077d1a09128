// Producers that write more than a Redis server takes: one that is stopped, one that hardly gets a processor. What waits
// stays bounded, what was taken over arrives, and the marks are told once each, to the producer and to another process.
#include <signal.h>

#include <sstream>

#include "fault_fixture.hpp"
#include "libcgstctrl.h"
#include "process.hpp"
#include "starving.hpp"

namespace contract
{
namespace
{

constexpr uint32_t HIGH = 2000, LOW = 500;
constexpr uint32_t MOST_WAITING = 65536 + 4 * 128;  // calls that wait, and writes of the calls that are under way
const std::string FROM = "libvlan_app:u_bridge.evlan_session";

class CongestFault : public FaultTest
{
  protected:
    CongestFault() : listener_({LISTENER_PROGRAM, url_, std::to_string(app_db)}, store_server().folder() + "/heard")
    {
        const libcgstctrl_topic sessions{&u_bridge__evlan_session__descriptor, {HIGH, LOW, 0, 0}};
        const libcgstctrl_topic vids{&u_bridge__port_vid__descriptor, {HIGH, LOW, 0, 0}};
        EXPECT_EQ(0, libcgstctrl_gen_init(writer, app_db, "libvlan_app", &state()));
        EXPECT_EQ(0, libcgstctrl_gen_topic_reg(writer, app_db, "libvlan_app", &sessions, 0));
        EXPECT_EQ(0, libcgstctrl_gen_topic_reg(writer, app_db, "libvlan_app", &vids, 0));
        EXPECT_EQ(0, libcgstctrl_set_cb(writer, app_db, "libvlan_app", hear_mark, this));
        run_until([&] { return listener_.count("following") == 1; });
    }
    ~CongestFault() override
    {
        store_server().signal(SIGCONT);
        libcgstctrl_set_cb(writer, app_db, "libvlan_app", nullptr, nullptr);
    }

    // Lives as long as the process, as congestion control wants it.
    static libcgstctrl_state &state()
    {
        static libcgstctrl_state kept;
        return kept;
    }

    static void hear_mark(qz_mom_handle *, uint32_t db, const ProtobufCMessageDescriptor *type, int32_t congested,
                          void *self)
    {
        EXPECT_EQ(app_db, db);
        EXPECT_EQ(&u_bridge__evlan_session__descriptor, type);
        static_cast<CongestFault *>(self)->marks.push_back(congested);
    }

    int32_t write_next() { return hmset(writer, numbered(++written), REQUEST); }
    bool congested() const
    {
        return libcgstctrl_congested(writer, app_db, "libvlan_app", &u_bridge__evlan_session__descriptor) == 1;
    }
    uint32_t depth() const { return qz_mom_writes_waiting(writer, app_db, &u_bridge__evlan_session__descriptor); }

    // As a producer does that listens: it writes while it may, and lets its master run while it may not.
    void write_considerately(int32_t up_to)
    {
        while (written < up_to) {
            run_until([&] { return !congested(); });
            while (written < up_to && !congested()) {
                ASSERT_EQ(0, write_next());
                EXPECT_LE(depth(), HIGH);
            }
        }
    }

    // Writes on and on until it is refused; the refused write is not counted.
    int32_t write_until_refused()
    {
        int32_t code = 0;
        while ((code = write_next()) == 0)
            EXPECT_LE(depth(), MOST_WAITING);
        --written;
        return code;
    }

    void run_until_drained()
    {
        run_until([&] { return depth() == 0 && !congested(); });
        settle();
    }

    void expect_all_written_to_be_there()
    {
        const auto found = store();
        EXPECT_EQ(static_cast<size_t>(written), found.size());
        EXPECT_TRUE(found.contains("app1") && found.contains("app" + std::to_string(written)));
    }

    // The other process has heard as many marks as the producer, in turns.
    void expect_notices_like_marks()
    {
        run_until([&] { return listener_.count("notice ") >= marks.size(); });
        std::istringstream words(listener_.words());
        std::vector<int32_t> noticed;
        for (std::string line; std::getline(words, line);) {
            if (line.starts_with("notice "))
                noticed.push_back(line == "notice " + FROM + " since"  ? 1
                                  : line == "notice " + FROM + " over" ? 0
                                                                       : -1);
        }
        EXPECT_EQ(marks, noticed);
    }

    fault::process listener_;
    std::vector<int32_t> marks;
    int32_t written = 0;
};

TEST_F(CongestFault, AProducerThatListensStopsAtTheHighMarkAndGoesOnAtTheLowOne)
{
    store_server().signal(SIGSTOP);
    while (!congested())
        ASSERT_EQ(0, write_next());
    EXPECT_EQ(static_cast<int32_t>(HIGH), written);
    EXPECT_EQ(HIGH, depth());
    run_until([&] { return !marks.empty(); });
    EXPECT_EQ(HIGH, depth());
    store_server().signal(SIGCONT);
    run_until([&] { return !congested(); });
    EXPECT_LE(depth(), LOW);
    EXPECT_EQ((std::vector<int32_t>{1, 0}), marks);
    write_considerately(3 * static_cast<int32_t>(HIGH));
    run_until_drained();
    expect_all_written_to_be_there();
    expect_notices_like_marks();
}

TEST_F(CongestFault, AProducerThatDoesNotListenIsRefusedAndLosesNothingThatWasTakenOver)
{
    const libcgstctrl_state before = state();
    store_server().signal(SIGSTOP);
    EXPECT_EQ(QZ_MOM_EFULL, write_until_refused());
    EXPECT_LE(65536, written);
    run_until([&] { return !marks.empty(); });
    store_server().signal(SIGCONT);
    run_until_drained();
    EXPECT_EQ((std::vector<int32_t>{1, 0}), marks);
    EXPECT_EQ(before.highs + 1, state().highs);
    EXPECT_EQ(before.lows + 1, state().lows);
    EXPECT_EQ(0u, state().congested);
    expect_all_written_to_be_there();
    expect_notices_like_marks();
}

TEST_F(CongestFault, ANoticeOvertakesWhatWaits)
{
    store_server().signal(SIGSTOP);
    while (written < 5 * static_cast<int32_t>(HIGH))
        ASSERT_EQ(0, write_next());
    run_until([&] { return !marks.empty(); });
    store_server().signal(SIGCONT);
    run_until_drained();
    run_until([&] { return listener_.count("session " + std::to_string(written) + '\n') == 1; });
    const std::string &heard = listener_.words();
    EXPECT_LT(heard.find("notice " + FROM + " since"), heard.find("session " + std::to_string(HIGH) + '\n'));
}

TEST_F(CongestFault, AServerThatIsGivenUpLeavesItsProducersCongestedUntilItIsBack)
{
    store_server().signal(SIGSTOP);
    while (!congested())
        ASSERT_EQ(0, write_next());
    run_until_events({QZ_MOM_RECONNECT_ERROR});
    EXPECT_TRUE(congested());
    EXPECT_EQ(HIGH, depth());
    EXPECT_EQ(QZ_MOM_EDOWN, write_until_refused());
    EXPECT_EQ(HIGH, depth());
    store_server().signal(SIGCONT);
    run_until_events({QZ_MOM_RECONNECT_ERROR, QZ_MOM_RECONNECT_DONE});
    run_until_drained();
    EXPECT_EQ((std::vector<int32_t>{1, 0}), marks);
    expect_all_written_to_be_there();
}

TEST_F(CongestFault, AProducerThatListensIsNeverRefusedByASlowServer)
{
    {
        const support::starving slow(store_server());
        write_considerately(20'000);
        run_until_drained();
    }
    expect_all_written_to_be_there();
    EXPECT_LE(2u, marks.size());
    for (size_t i = 0; i < marks.size(); ++i)
        EXPECT_EQ(i % 2 == 0 ? 1 : 0, marks[i]);
    EXPECT_EQ(0u, marks.size() % 2);
    expect_notices_like_marks();
}

TEST_F(CongestFault, TopicsAndHandlesHaveQueuesOfTheirOwn)
{
    store_server().signal(SIGSTOP);
    while (!congested())
        ASSERT_EQ(0, write_next());
    EXPECT_EQ(0, libcgstctrl_congested(writer, app_db, "libvlan_app", &u_bridge__port_vid__descriptor));
    EXPECT_EQ(0u, qz_mom_writes_waiting(writer, app_db, &u_bridge__port_vid__descriptor));
    EXPECT_EQ(0u, qz_mom_writes_waiting(writer, app_db + 1, &u_bridge__evlan_session__descriptor));
    EXPECT_EQ(0u, qz_mom_writes_waiting(reader, app_db, &u_bridge__evlan_session__descriptor));
    store_server().signal(SIGCONT);
    run_until_drained();
}

TEST_F(CongestFault, AHandleThatIsClosedWhileItIsCongestedTellsNobody)
{
    qz_mom_handle *const other = open(url_);
    settle();
    const libcgstctrl_topic sessions{&u_bridge__evlan_session__descriptor, {HIGH, LOW, 0, 0}};
    ASSERT_EQ(0, libcgstctrl_gen_init(other, app_db, "other", nullptr));
    ASSERT_EQ(0, libcgstctrl_gen_topic_reg(other, app_db, "other", &sessions, 0));
    std::vector<int32_t> heard_of_other;
    const libcgstctrl_cb hear = [](qz_mom_handle *, uint32_t, const ProtobufCMessageDescriptor *, int32_t congested,
                                   void *heard) { static_cast<std::vector<int32_t> *>(heard)->push_back(congested); };
    ASSERT_EQ(0, libcgstctrl_set_cb(other, app_db, "other", hear, &heard_of_other));
    store_server().signal(SIGSTOP);
    while (written < static_cast<int32_t>(HIGH))
        ASSERT_EQ(0, hmset(other, numbered(++written), REQUEST));
    run_until([&] { return !heard_of_other.empty(); });
    close(other);
    store_server().signal(SIGCONT);
    settle();
    expect_all_written_to_be_there();
    EXPECT_EQ((std::vector<int32_t>{1}), heard_of_other);
    EXPECT_TRUE(marks.empty());
}

}  // namespace
}  // namespace contract
