// Congestion control with the real store client: a queue that fills up and drains moves the producer's state.
#include <gtest/gtest.h>

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
