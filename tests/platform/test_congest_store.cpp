// Congestion control with the real store client: a queue that fills up and drains moves the producer's state. And what the
// store client itself promises of watched writes and of notices that go ahead, as far as it takes no server.
#include <gtest/gtest.h>

#include <list>
#include <memory>

#include "libcgstctrl.h"
#include "u_bridge.pb-c.h"

namespace
{

constexpr uint32_t db = 4;

struct closing {
    void operator()(qz_thread_master *master) const { qz_thread_master_free(master); }
    void operator()(qz_mom_handle *handle) const { qz_mom_client_close(handle); }
};
using master_ptr = std::unique_ptr<qz_thread_master, closing>;
using handle_ptr = std::unique_ptr<qz_mom_handle, closing>;

handle_ptr open(const master_ptr &master)
{
    qz_mom_handle *handle = nullptr;
    EXPECT_EQ(0, qz_mom_client_open("mem:congest", master.get(), &handle));
    return handle_ptr(handle);
}

// What the subscriber saw of the producer's state.
struct observation {
    libcgstctrl_state state{};
    bool congested = false;
};

int32_t observe(qz_mom_handle *, const qz_mom_notification *, void *args)
{
    auto *seen = static_cast<observation *>(args);
    seen->congested = seen->congested || seen->state.congested == 1;
    return 0;
}

void write_record(const handle_ptr &handle, int32_t number)
{
    UBridge__EvlanAppIndex index = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    UBridge__EvlanSession record = U_BRIDGE__EVLAN_SESSION__INIT;
    char user[] = "app";
    index.t_user = user;
    index.keyid = number;
    record.index = &index;
    EXPECT_EQ(0, qz_mom_set(handle.get(), db, &record.base, nullptr, nullptr));
}

}  // namespace

TEST(CongestWithStore, StateFollowsAQueueThatFillsAndDrains)
{
    const master_ptr master(qz_thread_master_create(QZ_THREAD_CLOCK_DRIVEN));
    const handle_ptr handle = open(master);
    observation seen;
    const libcgstctrl_state &state = seen.state;
    ASSERT_EQ(0, qz_mom_set_queue_limits(handle.get(), 2, 5, 100));
    ASSERT_EQ(0, libcgstctrl_gen_init(handle.get(), db, "libvlan_app", &seen.state));
    UBridge__EvlanAppIndex any = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    UBridge__EvlanSession everything = U_BRIDGE__EVLAN_SESSION__INIT;
    everything.index = &any;
    ASSERT_EQ(0, qz_mom_subscribe(handle.get(), db, &everything.base, 0, observe, &seen));
    qz_thread_run_pending(master.get(), 0);
    EXPECT_EQ(0U, state.congested + state.highs + state.lows);

    for (uint32_t round = 1; round <= 2; ++round) {
        for (int32_t number = 1; number <= 10; ++number)
            write_record(handle, number);
        seen.congested = false;
        qz_thread_run_pending(master.get(), 0);
        EXPECT_TRUE(seen.congested);
        EXPECT_EQ(0U, state.congested);
        EXPECT_EQ(round, state.highs);
        EXPECT_EQ(round, state.lows);
    }
}

namespace
{

void hear_nothing(qz_mom_handle *, int32_t, uint32_t, void *) { ADD_FAILURE(); }

int32_t count_notice(qz_mom_handle *, const qz_mom_notification *msg, void *args)
{
    *static_cast<int *>(args) += msg->cmd == QZ_MOM_CMD_SET;
    return 0;
}

}  // namespace

TEST(CongestWithStore, OnTheEmbeddedStoreNoWriteWaits)
{
    const master_ptr master(qz_thread_master_create(QZ_THREAD_CLOCK_DRIVEN));
    const handle_ptr handle = open(master);
    const auto *type = &u_bridge__evlan_session__descriptor;
    ASSERT_EQ(0, qz_mom_watch_writes(handle.get(), db, type, 1, 2, hear_nothing, nullptr));
    for (int32_t number = 1; number <= 10; ++number) {
        write_record(handle, number);
        EXPECT_EQ(0U, qz_mom_writes_waiting(handle.get(), db, type));
    }
    qz_thread_run_pending(master.get(), 0);
}

TEST(CongestWithStore, WatchThatMakesNoSenseIsRefused)
{
    const master_ptr master(qz_thread_master_create(QZ_THREAD_CLOCK_DRIVEN));
    const handle_ptr handle = open(master);
    const auto *type = &u_bridge__evlan_session__descriptor;
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_watch_writes(nullptr, db, type, 1, 2, hear_nothing, nullptr));
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_watch_writes(handle.get(), db, nullptr, 1, 2, hear_nothing, nullptr));
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_watch_writes(handle.get(), db, type, 2, 2, hear_nothing, nullptr));
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_watch_writes(handle.get(), db, type, 1, 2, nullptr, nullptr));
    EXPECT_EQ(QZ_MOM_EDB, qz_mom_watch_writes(handle.get(), 1000, type, 1, 2, hear_nothing, nullptr));
    EXPECT_EQ(0U, qz_mom_writes_waiting(nullptr, db, type));
    EXPECT_EQ(0U, qz_mom_writes_waiting(handle.get(), db, nullptr));
    EXPECT_EQ(0U, qz_mom_writes_waiting(handle.get(), 1000, type));
}

TEST(CongestWithStore, NoticeIsARecordLikeOthers)
{
    const master_ptr master(qz_thread_master_create(QZ_THREAD_CLOCK_DRIVEN));
    const handle_ptr handle = open(master);
    const UBridge__CongestNotify any = U_BRIDGE__CONGEST_NOTIFY__INIT;
    int heard = 0;
    ASSERT_EQ(0, qz_mom_subscribe(handle.get(), db, &any.base, 0, count_notice, &heard));
    EXPECT_EQ(0, qz_mom_set_ahead(handle.get(), db, &any.base));
    qz_thread_run_pending(master.get(), 0);
    EXPECT_EQ(1, heard);
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_set_ahead(nullptr, db, &any.base));
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_set_ahead(handle.get(), db, nullptr));
    EXPECT_EQ(QZ_MOM_EDB, qz_mom_set_ahead(handle.get(), 1000, &any.base));
}

namespace
{

// Names its producer again when so many notifications have been heard.
struct registering {
    int at;
    int heard = 0;
    libcgstctrl_state state{};
};

int32_t register_again(qz_mom_handle *handle, const qz_mom_notification *, void *args)
{
    auto *self = static_cast<registering *>(args);
    if (++self->heard == self->at) {
        EXPECT_EQ(0, libcgstctrl_gen_init(handle, db, "libvlan_again", &self->state));
    }
    return 0;
}

}  // namespace

// Also where the queue has just fallen to the low mark and nobody has been told yet.
TEST(CongestWithStore, NamingAProducerAgainAtAnyMomentLosesNoMark)
{
    static std::list<registering> all;  // state blocks live as long as the process
    for (int at = 1; at <= 11; ++at) {
        const master_ptr master(qz_thread_master_create(QZ_THREAD_CLOCK_DRIVEN));
        const handle_ptr handle = open(master);
        registering &seen = all.emplace_back(registering{.at = at});
        ASSERT_EQ(0, qz_mom_set_queue_limits(handle.get(), 2, 5, 100));
        ASSERT_EQ(0, libcgstctrl_gen_init(handle.get(), db, "libvlan_again", &seen.state));
        UBridge__EvlanAppIndex any = U_BRIDGE__EVLAN_APP_INDEX__INIT;
        UBridge__EvlanSession everything = U_BRIDGE__EVLAN_SESSION__INIT;
        everything.index = &any;
        ASSERT_EQ(0, qz_mom_subscribe(handle.get(), db, &everything.base, 0, register_again, &seen));
        qz_thread_run_pending(master.get(), 0);
        for (int32_t number = 1; number <= 10; ++number)
            write_record(handle, number);
        qz_thread_run_pending(master.get(), 0);
        EXPECT_EQ(0U, seen.state.congested) << at;
        EXPECT_EQ(1U, seen.state.highs) << at;
        EXPECT_EQ(1U, seen.state.lows) << at;
    }
}
