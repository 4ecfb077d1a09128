// Threads: writers on threads of their own while one master delivers on another.
#include <atomic>
#include <thread>

#include "store_fixture.hpp"

namespace contract
{
namespace
{

constexpr int32_t writers = 4;
constexpr int32_t writes = 1500;

// A master that runs on a thread of its own.
class running_master
{
  public:
    running_master()
        : master_(qz_thread_master_create(QZ_THREAD_CLOCK_REAL)), thread_([this] { qz_thread_run(master_); })
    {
    }
    ~running_master()
    {
        stop();
        qz_thread_master_free(master_);
    }
    running_master(const running_master &) = delete;
    running_master &operator=(const running_master &) = delete;

    qz_thread_master *get() const { return master_; }
    void stop()
    {
        if (!thread_.joinable())
            return;
        qz_thread_stop(master_);
        thread_.join();
    }

  private:
    qz_thread_master *master_;
    std::thread thread_;
};

// What the following handle has heard; only the master's thread touches it while the master runs.
struct account {
    std::vector<int32_t> last = std::vector<int32_t>(writers, 0);
    std::thread::id thread;
    bool in_order = true;
    bool one_thread = true;
    std::atomic<bool> inside{false};
    std::atomic<int32_t> removed{0};
};

int32_t note(qz_mom_handle *, const qz_mom_notification *msg, void *args)
{
    auto &all = *static_cast<account *>(args);
    all.in_order = all.in_order && !all.inside.exchange(true);
    if (all.thread == std::thread::id())
        all.thread = std::this_thread::get_id();
    all.one_thread = all.one_thread && all.thread == std::this_thread::get_id();
    if (msg->cmd == QZ_MOM_CMD_HMSET) {
        const session seen = session_of(*static_cast<const qz_mom_hash_value *>(msg->value)->record);
        int32_t &last = all.last[static_cast<size_t>(seen.keyid)];
        all.in_order = all.in_order && seen.request_value == last + 1 && seen.request == seen.request_value;
        last = seen.request_value;
    }
    if (msg->cmd == QZ_MOM_CMD_DEL)
        ++all.removed;
    all.inside = false;
    return 0;
}

// Repeats a call for as long as a queue has no room.
template <typename Call>
int32_t patiently(Call call)
{
    while (true) {
        const int32_t code = call();
        if (code != QZ_MOM_EFULL)
            return code;
        std::this_thread::yield();
    }
}

void write_all(qz_mom_handle *handle, int32_t keyid)
{
    const uint32_t fields[] = {6, 8};
    for (int32_t value = 1; value <= writes; ++value) {
        const session_record record({.keyid = keyid, .request_value = value, .request = value});
        EXPECT_EQ(
            0, patiently([&] { return qz_mom_hmset(handle, app_db, record.message(), fields, 2, nullptr, nullptr); }));
        if (value % 100 == 0) {
            const qz_mom_timeval later{3600, 0};
            EXPECT_EQ(0, patiently([&] {
                          return qz_mom_pexpire_sync(handle, app_db, record.message(), QZ_MOM_EXPIRE_EVLAN_SESSION,
                                                     &later);
                      }));
        }
    }
    EXPECT_EQ(0, patiently([&] {
                  return qz_mom_del(handle, app_db, session_record({.keyid = keyid}).message(), nullptr, nullptr);
              }));
}

qz_mom_handle *open_on(qz_thread_master *master)
{
    qz_mom_handle *handle = nullptr;
    EXPECT_EQ(0, qz_mom_client_open(store_url().c_str(), master, &handle));
    return handle;
}

}  // namespace

TEST(ThreadsContract, WritersOnManyThreadsAreHeardCompletelyAndInOrderOnOne)
{
    account all;
    running_master master;
    auto *follower = open_on(master.get());
    ASSERT_EQ(0, qz_mom_set_queue_limits(follower, 10, 500, 1000));
    ASSERT_EQ(0, qz_mom_subscribe(follower, app_db, session_record(any_session()).message(), 0, note, &all));
    std::vector<qz_mom_handle *> handles;
    std::vector<std::thread> threads;
    for (int32_t i = 0; i < writers; ++i)
        handles.push_back(open_on(master.get()));
    for (int32_t i = 0; i < writers; ++i)
        threads.emplace_back(write_all, handles[static_cast<size_t>(i)], i);
    for (auto &each : threads)
        each.join();
    while (all.removed < writers)
        std::this_thread::yield();
    master.stop();
    for (auto *handle : handles)
        qz_mom_client_close(handle);
    qz_mom_client_close(follower);
    EXPECT_TRUE(all.in_order);
    EXPECT_TRUE(all.one_thread);
    EXPECT_EQ(std::vector<int32_t>(writers, writes), all.last);
}

TEST(ThreadsContract, HandlesOpenAndCloseWhileOthersWrite)
{
    running_master master;
    std::atomic<bool> done{false};
    auto *writer = open_on(master.get());
    std::thread writing([&] {
        write_all(writer, 1);
        done = true;
    });
    account all;
    const auto open_and_close = [](void *args) {
        auto *handle = open_on(static_cast<std::pair<qz_thread_master *, account *> *>(args)->first);
        auto *to = static_cast<std::pair<qz_thread_master *, account *> *>(args)->second;
        qz_mom_subscribe(
            handle, app_db, session_record(any_session()).message(), 0,
            [](qz_mom_handle *, const qz_mom_notification *, void *) { return 0; }, to);
        qz_mom_client_close(handle);
    };
    std::pair<qz_thread_master *, account *> args{master.get(), &all};
    while (!done)
        qz_thread_call_wait(master.get(), open_and_close, &args);
    writing.join();
    master.stop();
    qz_mom_client_close(writer);
}

TEST(ThreadsContractDeathTest, CheckedCallOnAnotherThreadThanTheMastersAborts)
{
    testing::GTEST_FLAG(death_test_style) = EBRIDGE_DEATH_TEST_STYLE;
    setenv("QZ_THREAD_CHECK", "1", 1);
    EXPECT_DEATH(
        {
            running_master master;
            qz_thread_call_wait(
                master.get(), [](void *) {}, nullptr);
            auto *handle = open_on(master.get());
            while (qz_thread_is_master_thread(master.get()))
                std::this_thread::yield();
            const uint32_t field = 6;
            qz_mom_hmset(handle, app_db, session_record({}).message(), &field, 1, nullptr, nullptr);
        },
        "qz_mom_hmset");
}

}  // namespace contract
