// The Redis store without memory: operator new fails on demand, for this program and the libraries that it loads.
#include <array>

#include "failing_new.hpp"
#include "fault_fixture.hpp"

namespace contract
{
namespace
{

class RedisMemory : public FaultTest
{
  protected:
    // Runs the master for a while with no more than so many allocations.
    void run_with(int64_t allowed, int milliseconds)
    {
        const auto stop = [](void *master) { qz_thread_stop(static_cast<qz_thread_master *>(master)); };
        ASSERT_EQ(0, qz_thread_call_after(master_, milliseconds * 1000, stop, master_));
        allocations_left = allowed;
        qz_thread_run(master_);
        allocations_left = -1;
    }
};

TEST_F(RedisMemory, AScanEndsWithAllThatIsThere)
{
    constexpr int32_t COUNT = 2000;
    for (int32_t i = 1; i <= COUNT; ++i)
        write(numbered(i));
    settle();
    for (int64_t allowed = 20; allowed < 2500; allowed = allowed * 3 / 2) {
        qz_mom_handle *stranger = open(other_url_of_the_same(url_));
        pass_time(100);
        listener found;
        const session_record any(any_session());
        ASSERT_EQ(0, qz_mom_scan(stranger, app_db, any.message(), 0, listener::hear, &found));
        run_with(allowed, 15);
        run_until([&] { return found.ends(QZ_MOM_END_SCAN) == 1; });
        EXPECT_EQ(static_cast<size_t>(COUNT), found.changes().size()) << allowed;
        close(stranger);
    }
}

// Wherever memory ends while a table is read that comes in one piece.
TEST_F(RedisMemory, NoRecordOfASmallTableIsPassedOver)
{
    constexpr int32_t COUNT = 10;
    for (int32_t i = 1; i <= COUNT; ++i)
        write(numbered(i));
    settle();
    close(reader);
    close(writer);
    for (int64_t allowed = 0; allowed < 240 && !HasFailure(); allowed += 3) {
        qz_mom_handle *stranger = open(other_url_of_the_same(url_));
        pass_time(20);
        listener found;
        const session_record any(any_session());
        ASSERT_EQ(0, qz_mom_scan(stranger, app_db, any.message(), 0, listener::hear, &found));
        run_with(allowed, 5);
        run_until([&] { return found.ends(QZ_MOM_END_SCAN) == 1; });
        EXPECT_EQ(static_cast<size_t>(COUNT), found.changes().size()) << allowed;
        close(stranger);
    }
}

// Neither taken and never told of, nor told of only when something else happens.
TEST_F(RedisMemory, ALockThatNobodyHoldsIsToldOf)
{
    close(reader);
    close(writer);
    for (int64_t allowed = 0; allowed < 40 && !HasFailure(); ++allowed) {
        qz_mom_handle *stranger = open(other_url_of_the_same(url_));
        settle();
        lock_ear ear;
        EXPECT_EQ(0, qz_mom_lock(stranger, app_db, "x", lock_ear::hear, &ear));
        run_with(allowed, 8);
        run_until([&] { return !ear.all.empty(); });
        EXPECT_EQ(std::vector<int32_t>{1}, ear.all) << allowed;
        close(stranger);
    }
}

struct count_of_command {
    int32_t cmd;
    uint32_t count = 0;

    static int32_t hear(qz_mom_handle *, const qz_mom_notification *msg, void *self)
    {
        auto &its = *static_cast<count_of_command *>(self);
        its.count += msg->cmd == its.cmd ? 1 : 0;
        return 0;
    }
};

TEST_F(RedisMemory, TheEndOfASubscriptionIsConfirmedOnce)
{
    close(reader);
    const session_record any(any_session());
    for (int64_t allowed = 0; allowed < 60 && !HasFailure(); ++allowed) {
        count_of_command gone{QZ_MOM_CMD_UNSUBSCRIBED};
        ASSERT_EQ(0, qz_mom_subscribe(writer, app_db, any.message(), 0, count_of_command::hear, &gone));
        settle();
        run_until([&] {
            return qz_mom_unsubscribe(writer, app_db, any.message(), count_of_command::hear, &gone) == QZ_MOM_OK;
        });
        run_with(allowed, 5);
        run_until([&] { return gone.count > 0; });
        settle();
        EXPECT_EQ(1u, gone.count) << allowed;
    }
}

// How often each key was told of, counted without memory.
struct counting {
    std::array<uint32_t, 1024> of{};

    static int32_t hear(qz_mom_handle *, const qz_mom_notification *msg, void *self)
    {
        if (msg->cmd == QZ_MOM_CMD_HMSET) {
            const auto &record = *static_cast<const UBridge__EvlanSession *>(
                static_cast<const void *>(static_cast<const qz_mom_hash_value *>(msg->value)->record));
            ++static_cast<counting *>(self)->of.at(static_cast<size_t>(record.index->keyid));
        }
        return 0;
    }
};

TEST_F(RedisMemory, EachChangeIsToldOnce)
{
    close(reader);
    followed other(other_url_of_the_same(url_));
    counting counts;
    const session_record any(any_session());
    ASSERT_EQ(0, qz_mom_subscribe(writer, app_db, any.message(), 0, counting::hear, &counts));
    settle();
    int32_t key = 0;
    for (int64_t allowed = 0; allowed < 400 && !HasFailure(); allowed += 7) {
        for (int i = 0; i < 8; ++i)
            other.write(numbered(++key));
        run_with(allowed, 25);
        run_until([&] { return counts.of.at(static_cast<size_t>(key)) > 0; });
        wait_for_answers();
        settle();
        for (int32_t each = key - 7; each <= key; ++each)
            EXPECT_EQ(1u, counts.of.at(static_cast<size_t>(each))) << each << " with " << allowed;
    }
}

}  // namespace
}  // namespace contract
