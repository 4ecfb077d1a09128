// The thread master against its header: order, driven clock, threads.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "allocation_failure.hpp"
#include "qz_thread.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

constexpr int64_t second = 1'000'000;

struct free_master {
    void operator()(qz_thread_master *master) const { qz_thread_master_free(master); }
};
using master_ptr = std::unique_ptr<qz_thread_master, free_master>;

master_ptr make_master(qz_thread_clock clock) { return master_ptr(qz_thread_master_create(clock)); }

// A call of a test: any code, alive until it has been called.
using action = std::function<void()>;

void call_action(void *arg) { (*static_cast<action *>(arg))(); }

// Collects what happened, in order; actions made by it live as long as it does.
class script
{
  public:
    std::vector<std::string> log;

    void note(const std::string &text) { log.push_back(text); }
    void *noting(const std::string &text)
    {
        return keep([this, text] { note(text); });
    }
    void *keep(action what)
    {
        actions_.push_back(std::make_unique<action>(std::move(what)));
        return actions_.back().get();
    }

  private:
    std::vector<std::unique_ptr<action>> actions_;
};

int32_t post(const master_ptr &master, void *arg) { return qz_thread_call(master.get(), call_action, arg); }

int32_t post_after(const master_ptr &master, int64_t usec, void *arg)
{
    return qz_thread_call_after(master.get(), usec, call_action, arg);
}

int32_t call_wait(const master_ptr &master, action what)
{
    return qz_thread_call_wait(master.get(), call_action, &what);
}

int32_t timer_action(qz_thread_event *event)
{
    call_action(event->arg);
    return 0;
}

int32_t nothing(qz_thread_event *) { return 0; }

void no_call(void *) {}

// A thread that runs a master on the real clock until the end of the scope.
class running
{
  public:
    explicit running(const master_ptr &master) : master_(master.get())
    {
        thread_ = std::thread([this] { result_ = qz_thread_run(master_); });
        std::promise<void> runs;
        qz_thread_call(
            master_, [](void *arg) { static_cast<std::promise<void> *>(arg)->set_value(); }, &runs);
        runs.get_future().wait();
    }
    running(const running &) = delete;
    running &operator=(const running &) = delete;
    ~running()
    {
        if (thread_.joinable())
            end();
    }
    int32_t end()
    {
        qz_thread_stop(master_);
        thread_.join();
        return result_;
    }

  private:
    qz_thread_master *master_;
    std::thread thread_;
    int32_t result_ = -1000;
};

}  // namespace

// ---- arguments ------------------------------------------------------------------------------------------------------

TEST(ThreadMaster, RefusesNullArguments)
{
    const auto master = make_master(QZ_THREAD_CLOCK_DRIVEN);
    EXPECT_EQ(QZ_THREAD_EINVAL, qz_thread_run(nullptr));
    EXPECT_EQ(QZ_THREAD_EINVAL, qz_thread_run_pending(nullptr, 0));
    EXPECT_EQ(QZ_THREAD_EINVAL, qz_thread_advance(nullptr, 1));
    EXPECT_EQ(QZ_THREAD_EINVAL, qz_thread_call(nullptr, no_call, nullptr));
    EXPECT_EQ(QZ_THREAD_EINVAL, qz_thread_call(master.get(), nullptr, nullptr));
    EXPECT_EQ(QZ_THREAD_EINVAL, qz_thread_call_wait(nullptr, no_call, nullptr));
    EXPECT_EQ(QZ_THREAD_EINVAL, qz_thread_call_wait(master.get(), nullptr, nullptr));
    EXPECT_EQ(QZ_THREAD_EINVAL, qz_thread_call_after(nullptr, 0, no_call, nullptr));
    EXPECT_EQ(QZ_THREAD_EINVAL, qz_thread_call_after(master.get(), 0, nullptr, nullptr));
    EXPECT_EQ(QZ_THREAD_EINVAL, qz_thread_insert_timer(nullptr, nullptr, nothing, nullptr, 0, ""));
    EXPECT_EQ(QZ_THREAD_EINVAL, qz_thread_insert_timer(master.get(), nullptr, nullptr, nullptr, 0, ""));
    EXPECT_EQ(0, qz_thread_now(nullptr));
    EXPECT_EQ(-1, qz_thread_next_due(nullptr));
    EXPECT_EQ(0, qz_thread_is_master_thread(nullptr));
    qz_thread_stop(nullptr);
    qz_thread_check(nullptr, "anything");
    qz_thread_master_free(nullptr);
    EXPECT_EQ(0, qz_thread_run_pending(master.get(), 0));
}

TEST(ThreadMaster, RefusesNegativeDelays)
{
    const auto master = make_master(QZ_THREAD_CLOCK_DRIVEN);
    EXPECT_EQ(QZ_THREAD_EINVAL, qz_thread_insert_timer(master.get(), nullptr, nothing, nullptr, -1, ""));
    EXPECT_EQ(QZ_THREAD_EINVAL, qz_thread_call_after(master.get(), -1, no_call, nullptr));
    EXPECT_EQ(QZ_THREAD_EINVAL, qz_thread_advance(master.get(), -1));
    EXPECT_EQ(-1, qz_thread_next_due(master.get()));
}

TEST(ThreadMaster, EachClockRefusesTheOthersCalls)
{
    const auto real = make_master(QZ_THREAD_CLOCK_REAL);
    const auto driven = make_master(QZ_THREAD_CLOCK_DRIVEN);
    EXPECT_EQ(QZ_THREAD_EINVAL, qz_thread_advance(real.get(), 1));
    EXPECT_EQ(QZ_THREAD_EINVAL, qz_thread_run(driven.get()));
}

// ---- order ----------------------------------------------------------------------------------------------------------

TEST(ThreadMaster, PostedCallsRunInOrderAndNotWithinThePost)
{
    const auto master = make_master(QZ_THREAD_CLOCK_DRIVEN);
    script s;
    EXPECT_EQ(0, post(master, s.noting("a")));
    EXPECT_EQ(0, post(master, s.noting("b")));
    EXPECT_THAT(s.log, IsEmpty());
    EXPECT_EQ(2, qz_thread_run_pending(master.get(), 0));
    EXPECT_THAT(s.log, ElementsAre("a", "b"));
}

TEST(ThreadMaster, PostedCallsRunBeforeTimersDueAtTheSameMoment)
{
    const auto master = make_master(QZ_THREAD_CLOCK_DRIVEN);
    script s;
    post_after(master, 0, s.noting("timer"));
    post(master, s.noting("call"));
    EXPECT_EQ(2, qz_thread_run_pending(master.get(), 0));
    EXPECT_THAT(s.log, ElementsAre("call", "timer"));
}

TEST(ThreadMaster, CallPostedByACallRunsInALaterRoundOfTheSameRun)
{
    const auto master = make_master(QZ_THREAD_CLOCK_DRIVEN);
    script s;
    post(master, s.keep([&] {
        s.note("first");
        post(master, s.noting("posted by first"));
        s.note("first ends");
    }));
    post(master, s.noting("second"));
    post_after(master, 0, s.noting("timer"));
    EXPECT_EQ(4, qz_thread_run_pending(master.get(), 0));
    EXPECT_THAT(s.log, ElementsAre("first", "first ends", "second", "timer", "posted by first"));
}

TEST(ThreadMaster, CallThatPostsItselfForeverDoesNotStarveTimers)
{
    const auto master = make_master(QZ_THREAD_CLOCK_DRIVEN);
    script s;
    void *again = nullptr;
    again = s.keep([&] { post(master, again); });
    post(master, again);
    post_after(master, 0, s.noting("timer"));
    EXPECT_EQ(10, qz_thread_run_pending(master.get(), 10));
    EXPECT_THAT(s.log, ElementsAre("timer"));
}

TEST(ThreadMaster, TimersRunByTimeAndThenByInsertion)
{
    const auto master = make_master(QZ_THREAD_CLOCK_DRIVEN);
    script s;
    post_after(master, 30, s.noting("30"));
    post_after(master, 10, s.noting("10 first"));
    post_after(master, 20, s.noting("20"));
    post_after(master, 10, s.noting("10 second"));
    EXPECT_EQ(4, qz_thread_advance(master.get(), 30));
    EXPECT_THAT(s.log, ElementsAre("10 first", "10 second", "20", "30"));
}

TEST(ThreadMaster, RunPendingRunsWhatIsDueAndNothingElse)
{
    const auto master = make_master(QZ_THREAD_CLOCK_DRIVEN);
    script s;
    post_after(master, 1, s.noting("later"));
    post_after(master, 0, s.noting("now"));
    EXPECT_EQ(1, qz_thread_run_pending(master.get(), 0));
    EXPECT_THAT(s.log, ElementsAre("now"));
    EXPECT_EQ(0, qz_thread_run_pending(master.get(), 0));
}

TEST(ThreadMaster, RunPendingWorksOnTheRealClock)
{
    const auto master = make_master(QZ_THREAD_CLOCK_REAL);
    script s;
    post(master, s.noting("call"));
    post_after(master, 0, s.noting("timer"));
    post_after(master, 3600 * second, s.noting("in an hour"));
    EXPECT_EQ(2, qz_thread_run_pending(master.get(), 0));
    EXPECT_THAT(s.log, ElementsAre("call", "timer"));
}

TEST(ThreadMaster, LimitLeavesTheRestInOrder)
{
    const auto master = make_master(QZ_THREAD_CLOCK_DRIVEN);
    script s;
    for (const char *name : {"a", "b", "c"})
        post(master, s.noting(name));
    post_after(master, 0, s.noting("timer"));
    EXPECT_EQ(2, qz_thread_run_pending(master.get(), 2));
    EXPECT_THAT(s.log, ElementsAre("a", "b"));
    post(master, s.noting("d"));
    EXPECT_EQ(2, qz_thread_run_pending(master.get(), 2));
    EXPECT_THAT(s.log, ElementsAre("a", "b", "c", "timer"));
    EXPECT_EQ(1, qz_thread_run_pending(master.get(), 2));
    EXPECT_EQ("d", s.log.back());
}

TEST(ThreadMaster, NegativeLimitMeansNone)
{
    const auto master = make_master(QZ_THREAD_CLOCK_DRIVEN);
    script s;
    for (int i = 0; i < 5; ++i)
        post(master, s.noting("call"));
    EXPECT_EQ(5, qz_thread_run_pending(master.get(), -3));
}

TEST(ThreadMaster, RunsOfOneMasterDoNotNest)
{
    const auto driven = make_master(QZ_THREAD_CLOCK_DRIVEN);
    const auto real = make_master(QZ_THREAD_CLOCK_REAL);
    script s;
    std::vector<int32_t> results;
    post(driven, s.keep([&] {
        results.push_back(qz_thread_run_pending(driven.get(), 0));
        results.push_back(qz_thread_advance(driven.get(), 1));
    }));
    post(real, s.keep([&] { results.push_back(qz_thread_run(real.get())); }));
    qz_thread_run_pending(driven.get(), 0);
    qz_thread_run_pending(real.get(), 0);
    EXPECT_THAT(results, ElementsAre(QZ_THREAD_EBUSY, QZ_THREAD_EBUSY, QZ_THREAD_EBUSY));
}

TEST(ThreadMaster, FreeDropsPendingWorkUnrun)
{
    script s;
    {
        const auto master = make_master(QZ_THREAD_CLOCK_DRIVEN);
        post(master, s.noting("call"));
        qz_thread_insert_timer(master.get(), nullptr, timer_action, s.noting("timer"), 0,
                               "a name of some length, copied");
    }
    EXPECT_THAT(s.log, IsEmpty());
}

// ---- driven clock ---------------------------------------------------------------------------------------------------

TEST(DrivenClock, StartsAtZeroAndMovesOnlyByAdvance)
{
    const auto master = make_master(QZ_THREAD_CLOCK_DRIVEN);
    EXPECT_EQ(0, qz_thread_now(master.get()));
    qz_thread_run_pending(master.get(), 0);
    EXPECT_EQ(0, qz_thread_now(master.get()));
    EXPECT_EQ(0, qz_thread_advance(master.get(), 5));
    EXPECT_EQ(5, qz_thread_now(master.get()));
}

TEST(DrivenClock, AdvanceByZeroRunsWhatIsDue)
{
    const auto master = make_master(QZ_THREAD_CLOCK_DRIVEN);
    script s;
    post(master, s.noting("call"));
    post_after(master, 0, s.noting("timer"));
    EXPECT_EQ(2, qz_thread_advance(master.get(), 0));
    EXPECT_EQ(0, qz_thread_now(master.get()));
}

TEST(DrivenClock, AdvanceStopsAtEachTimerAtExactlyItsTime)
{
    const auto master = make_master(QZ_THREAD_CLOCK_DRIVEN);
    script s;
    std::vector<int64_t> times;
    void *note_time = s.keep([&] { times.push_back(qz_thread_now(master.get())); });
    post(master, note_time);
    post_after(master, 40 * second, note_time);
    post_after(master, 7, s.keep([&] {
        times.push_back(qz_thread_now(master.get()));
        post(master, note_time);                     // due at once
        post_after(master, 3, note_time);            // on the way
        post_after(master, 41 * second, note_time);  // beyond
    }));
    EXPECT_EQ(5, qz_thread_advance(master.get(), 40 * second));
    EXPECT_THAT(times, ElementsAre(0, 7, 7, 10, 40 * second));
    EXPECT_EQ(40 * second, qz_thread_now(master.get()));
    EXPECT_EQ(41 * second + 7, qz_thread_next_due(master.get()));
}

TEST(DrivenClock, TimerOnTheWayMayBeInsertedAnyNumberOfTimes)
{
    const auto master = make_master(QZ_THREAD_CLOCK_DRIVEN);
    script s;
    int32_t ticks = 0;
    void *tick = nullptr;
    tick = s.keep([&] {
        ++ticks;
        post_after(master, second, tick);
    });
    post_after(master, second, tick);
    EXPECT_EQ(1800, qz_thread_advance(master.get(), 1800 * second));
    EXPECT_EQ(1800, ticks);
    EXPECT_EQ(1801 * second, qz_thread_next_due(master.get()));
}

TEST(DrivenClock, AdvanceRunsMillionsOfPostedCalls)
{
    const auto master = make_master(QZ_THREAD_CLOCK_DRIVEN);
    uint32_t calls = 0;
    const qz_thread_call_func count = [](void *arg) { ++*static_cast<uint32_t *>(arg); };
    for (uint32_t i = 0; i < 2'000'000; ++i)
        ASSERT_EQ(0, qz_thread_call(master.get(), count, &calls));
    for (int64_t i = 0; i < 100'000; ++i)
        ASSERT_EQ(0, qz_thread_call_after(master.get(), i * 18'000, count, &calls));
    EXPECT_EQ(2'100'000, qz_thread_advance(master.get(), 1800 * second));
    EXPECT_EQ(2'100'000U, calls);
}

TEST(DrivenClock, NextDueNamesTheEarliestPendingTimer)
{
    const auto master = make_master(QZ_THREAD_CLOCK_DRIVEN);
    EXPECT_EQ(-1, qz_thread_next_due(master.get()));
    qz_thread_call_after(master.get(), 20, no_call, nullptr);
    qz_thread_call_after(master.get(), 10, no_call, nullptr);
    EXPECT_EQ(10, qz_thread_next_due(master.get()));
    qz_thread_advance(master.get(), 10);
    EXPECT_EQ(20, qz_thread_next_due(master.get()));
}

TEST(DrivenClock, PostedCallsAreNotTimers)
{
    const auto master = make_master(QZ_THREAD_CLOCK_DRIVEN);
    qz_thread_call(master.get(), no_call, nullptr);
    EXPECT_EQ(-1, qz_thread_next_due(master.get()));
}

TEST(DrivenClock, NeverWrapsAround)
{
    const auto master = make_master(QZ_THREAD_CLOCK_DRIVEN);
    constexpr int64_t end = std::numeric_limits<int64_t>::max();
    qz_thread_advance(master.get(), 10);
    EXPECT_EQ(0, qz_thread_call_after(master.get(), end, no_call, nullptr));
    EXPECT_EQ(end, qz_thread_next_due(master.get()));
    EXPECT_EQ(1, qz_thread_advance(master.get(), end));
    EXPECT_EQ(end, qz_thread_now(master.get()));
}

TEST(DrivenClock, StopDoesNotHoldUpAdvance)
{
    const auto master = make_master(QZ_THREAD_CLOCK_DRIVEN);
    script s;
    post(master, s.keep([&] { qz_thread_stop(master.get()); }));
    post(master, s.noting("after"));
    EXPECT_EQ(2, qz_thread_advance(master.get(), 1));
    EXPECT_THAT(s.log, ElementsAre("after"));
}

// ---- timers ---------------------------------------------------------------------------------------------------------

TEST(ThreadTimer, HandsOverArgumentMasterAndName)
{
    struct seen {
        void *arg;
        qz_thread_master *master;
        std::string name;
    };
    static std::vector<seen> events;
    const qz_thread_func note = [](qz_thread_event *event) -> int32_t {
        events.push_back({event->arg, event->master, event->name});
        return -5;  // not looked at
    };
    const auto master = make_master(QZ_THREAD_CLOCK_DRIVEN);
    int argument = 0;
    char name[] = "sw-ebridge-age-timer";
    EXPECT_EQ(0, qz_thread_insert_timer(master.get(), nullptr, note, &argument, 40, name));
    name[0] = 'X';  // the name was copied
    EXPECT_EQ(0, qz_thread_insert_timer(master.get(), nullptr, note, nullptr, 40, nullptr));
    EXPECT_EQ(40 * second, qz_thread_next_due(master.get()));
    EXPECT_EQ(2, qz_thread_advance(master.get(), 40 * second));
    ASSERT_EQ(2U, events.size());
    EXPECT_EQ(&argument, events[0].arg);
    EXPECT_EQ(master.get(), events[0].master);
    EXPECT_EQ("sw-ebridge-age-timer", events[0].name);
    EXPECT_EQ(nullptr, events[1].arg);
    EXPECT_EQ("", events[1].name);
}

TEST(ThreadTimer, OneObjectStandsForAnyNumberOfPendingTimers)
{
    const auto master = make_master(QZ_THREAD_CLOCK_DRIVEN);
    script s;
    qz_thread_timer timer{};
    for (int32_t seconds : {40, 40, 50})
        qz_thread_insert_timer(master.get(), &timer, timer_action, s.noting(std::to_string(seconds)), seconds, "age");
    EXPECT_EQ(3U, timer.inserted);
    EXPECT_EQ(0U, timer.fired);
    qz_thread_advance(master.get(), 40 * second);
    EXPECT_EQ(2U, timer.fired);
    qz_thread_advance(master.get(), 100 * second);
    EXPECT_EQ(3U, timer.inserted);
    EXPECT_EQ(3U, timer.fired);
    EXPECT_THAT(s.log, ElementsAre("40", "40", "50"));
}

TEST(ThreadTimer, MayInsertItselfAgain)
{
    const auto master = make_master(QZ_THREAD_CLOCK_DRIVEN);
    script s;
    qz_thread_timer timer{};
    void *again = nullptr;
    again = s.keep([&] { qz_thread_insert_timer(master.get(), &timer, timer_action, again, 1, "again"); });
    qz_thread_insert_timer(master.get(), &timer, timer_action, again, 1, "again");
    EXPECT_EQ(10, qz_thread_advance(master.get(), 10 * second));
    EXPECT_EQ(11U, timer.inserted);
    EXPECT_EQ(10U, timer.fired);
}

TEST(ThreadTimer, LongestDelayIsAccepted)
{
    const auto master = make_master(QZ_THREAD_CLOCK_DRIVEN);
    constexpr int32_t longest = std::numeric_limits<int32_t>::max();
    EXPECT_EQ(0, qz_thread_insert_timer(master.get(), nullptr, nothing, nullptr, longest, ""));
    EXPECT_EQ(longest * second, qz_thread_next_due(master.get()));
}

// ---- running on the real clock --------------------------------------------------------------------------------------

TEST(ThreadRun, StopThatComesFirstMakesTheNextRunReturnAtOnce)
{
    const auto master = make_master(QZ_THREAD_CLOCK_REAL);
    script s;
    post(master, s.noting("call"));
    qz_thread_stop(master.get());
    EXPECT_EQ(0, qz_thread_run(master.get()));
    EXPECT_THAT(s.log, IsEmpty());
    // It counts for one run only.
    post(master, s.keep([&] { qz_thread_stop(master.get()); }));
    EXPECT_EQ(0, qz_thread_run(master.get()));
    EXPECT_THAT(s.log, ElementsAre("call"));
}

TEST(ThreadRun, StopReturnsAfterTheCurrentCall)
{
    const auto master = make_master(QZ_THREAD_CLOCK_REAL);
    script s;
    post(master, s.keep([&] {
        qz_thread_stop(master.get());
        s.note("stopping");
    }));
    post(master, s.noting("next"));
    EXPECT_EQ(0, qz_thread_run(master.get()));
    EXPECT_THAT(s.log, ElementsAre("stopping"));
    EXPECT_EQ(1, qz_thread_run_pending(master.get(), 0));
    EXPECT_THAT(s.log, ElementsAre("stopping", "next"));
}

TEST(ThreadRun, TimersNeverFireBeforeTheirTime)
{
    const auto master = make_master(QZ_THREAD_CLOCK_REAL);
    script s;
    std::vector<int64_t> early;
    for (int64_t delay : {int64_t{0}, int64_t{1}, int64_t{900}, int64_t{2'500}, int64_t{20'000}}) {
        const int64_t due = qz_thread_now(master.get()) + delay;
        post_after(master, delay, s.keep([&, due] {
            s.note("fired");
            if (qz_thread_now(master.get()) < due)
                early.push_back(due);
            if (s.log.size() == 5)
                qz_thread_stop(master.get());
        }));
    }
    EXPECT_EQ(0, qz_thread_run(master.get()));
    EXPECT_EQ(5U, s.log.size());
    EXPECT_THAT(early, IsEmpty());
}

TEST(ThreadRun, RealClockIsTheSystemsMonotonicClock)
{
    const auto master = make_master(QZ_THREAD_CLOCK_REAL);
    const auto system_now = [] {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return static_cast<int64_t>(now.tv_sec) * second + now.tv_nsec / 1000;
    };
    const int64_t before = system_now();
    const int64_t now = qz_thread_now(master.get());
    EXPECT_LE(before, now);
    EXPECT_LE(now, system_now());
}

TEST(ThreadRun, SleepingRunnerWakesForEarlierTimerOfAnotherThread)
{
    const auto master = make_master(QZ_THREAD_CLOCK_REAL);
    qz_thread_call_after(master.get(), 3600 * second, no_call, nullptr);
    running runner(master);
    std::promise<void> fired;
    qz_thread_call_after(
        master.get(), 1000, [](void *arg) { static_cast<std::promise<void> *>(arg)->set_value(); }, &fired);
    fired.get_future().wait();
    EXPECT_EQ(0, runner.end());
}

TEST(ThreadRun, TimersOutliveTheWakeUpsBeforeThem)
{
    const auto master = make_master(QZ_THREAD_CLOCK_REAL);
    running runner(master);
    for (int again = 0; again < 3; ++again) {
        std::promise<void> fired;
        qz_thread_call_after(
            master.get(), 20'000, [](void *arg) { static_cast<std::promise<void> *>(arg)->set_value(); }, &fired);
        for (int wake = 0; wake < 3; ++wake)
            qz_thread_call_wait(master.get(), no_call, nullptr);
        fired.get_future().wait();
    }
    EXPECT_EQ(0, runner.end());
}

TEST(ThreadRun, ATimerOfTheFarthestFutureMayWaitBehindOthers)
{
    const auto master = make_master(QZ_THREAD_CLOCK_REAL);
    qz_thread_call_after(master.get(), std::numeric_limits<int64_t>::max(), no_call, nullptr);
    running runner(master);
    EXPECT_EQ(0, qz_thread_call_wait(master.get(), no_call, nullptr));
    EXPECT_EQ(0, runner.end());
}

// ---- descriptors ----------------------------------------------------------------------------------------------------

namespace
{

// A pipe that can be read as long as something is in it.
class letter_box
{
  public:
    letter_box() { EXPECT_EQ(0, pipe(ends_)); }
    letter_box(const letter_box &) = delete;
    letter_box &operator=(const letter_box &) = delete;
    ~letter_box()
    {
        ::close(ends_[0]);
        ::close(ends_[1]);
    }
    int descriptor() const { return ends_[0]; }
    void put() const { EXPECT_EQ(1, ::write(ends_[1], "x", 1)); }
    void take() const
    {
        char letter = 0;
        EXPECT_EQ(1, ::read(ends_[0], &letter, 1));
    }

  private:
    int ends_[2] = {-1, -1};
};

int32_t watch(const master_ptr &master, const letter_box &box, void *arg)
{
    return qz_thread_watch(master.get(), box.descriptor(), call_action, arg);
}

}  // namespace

TEST(ThreadWatch, RefusesWhatCannotBeWatched)
{
    const auto real = make_master(QZ_THREAD_CLOCK_REAL);
    const auto driven = make_master(QZ_THREAD_CLOCK_DRIVEN);
    const letter_box box;
    script s;
    EXPECT_EQ(QZ_THREAD_EINVAL, qz_thread_watch(nullptr, box.descriptor(), no_call, nullptr));
    EXPECT_EQ(QZ_THREAD_EINVAL, qz_thread_watch(real.get(), box.descriptor(), nullptr, nullptr));
    EXPECT_EQ(QZ_THREAD_EINVAL, qz_thread_watch(real.get(), -1, no_call, nullptr));
    EXPECT_EQ(QZ_THREAD_EINVAL, qz_thread_watch(real.get(), 1 << 20, no_call, nullptr));
    EXPECT_EQ(QZ_THREAD_EINVAL, qz_thread_watch(driven.get(), box.descriptor(), no_call, nullptr));
    EXPECT_EQ(0, watch(real, box, s.noting("first")));
    EXPECT_EQ(QZ_THREAD_EINVAL, watch(real, box, s.noting("second")));
    EXPECT_EQ(QZ_THREAD_EINVAL, qz_thread_unwatch(nullptr, box.descriptor()));
    EXPECT_EQ(QZ_THREAD_EINVAL, qz_thread_unwatch(real.get(), -1));
    EXPECT_EQ(QZ_THREAD_EINVAL, qz_thread_unwatch(driven.get(), box.descriptor()));
    EXPECT_EQ(0, qz_thread_unwatch(real.get(), box.descriptor()));
    EXPECT_EQ(QZ_THREAD_EINVAL, qz_thread_unwatch(real.get(), box.descriptor()));
}

TEST(ThreadWatch, IsCalledAgainAndAgainUntilNothingIsLeftToRead)
{
    const auto master = make_master(QZ_THREAD_CLOCK_REAL);
    const letter_box box;
    script s;
    EXPECT_EQ(0, watch(master, box, s.keep([&] {
                  s.note("read");
                  box.take();
              })));
    EXPECT_EQ(0, qz_thread_run_pending(master.get(), 0));
    box.put();
    box.put();
    EXPECT_EQ(1, qz_thread_run_pending(master.get(), 0));
    EXPECT_EQ(1, qz_thread_run_pending(master.get(), 0));
    EXPECT_EQ(0, qz_thread_run_pending(master.get(), 0));
    EXPECT_THAT(s.log, ElementsAre("read", "read"));
}

TEST(ThreadWatch, WakesARunnerThatSleeps)
{
    const auto master = make_master(QZ_THREAD_CLOCK_REAL);
    const letter_box box;
    running runner(master);
    std::promise<void> came;
    action read = [&] {
        box.take();
        came.set_value();
    };
    EXPECT_EQ(0, watch(master, box, &read));  // while it sleeps
    box.put();
    came.get_future().wait();
    EXPECT_EQ(0, runner.end());
}

TEST(ThreadWatch, AMasterThatIsAlwaysBusyLooksNowAndThen)
{
    const auto master = make_master(QZ_THREAD_CLOCK_REAL);
    const letter_box box;
    script s;
    action busy = [&] { qz_thread_call(master.get(), call_action, &busy); };
    EXPECT_EQ(0, watch(master, box, s.keep([&] {
                  box.take();
                  qz_thread_stop(master.get());
              })));
    busy();
    box.put();
    EXPECT_EQ(0, qz_thread_run(master.get()));
}

TEST(ThreadWatch, HasOneCallWaitingAtTheMost)
{
    const auto master = make_master(QZ_THREAD_CLOCK_REAL);
    const letter_box one, other;
    int calls = 0;
    action count = [&] { ++calls; };
    EXPECT_EQ(0, watch(master, one, &count));
    EXPECT_EQ(0, watch(master, other, &count));
    one.put();
    other.put();
    for (int i = 0; i < 1000; ++i)
        EXPECT_EQ(1, qz_thread_run_pending(master.get(), 1));
    one.take();
    other.take();
    EXPECT_GE(2, qz_thread_run_pending(master.get(), 0));
    EXPECT_EQ(0, qz_thread_run_pending(master.get(), 0));
}

TEST(ThreadWatch, EndsWithUnwatch)
{
    const auto master = make_master(QZ_THREAD_CLOCK_REAL);
    const letter_box box;
    script s;
    EXPECT_EQ(0, watch(master, box, s.noting("read")));
    EXPECT_EQ(0, qz_thread_unwatch(master.get(), box.descriptor()));
    box.put();
    EXPECT_EQ(0, qz_thread_run_pending(master.get(), 0));
    EXPECT_EQ(0, watch(master, box, s.noting("read again")));
    EXPECT_EQ(1, qz_thread_run_pending(master.get(), 0));
    EXPECT_THAT(s.log, ElementsAre("read again"));
}

TEST(ThreadWatch, MoreDescriptorsThanOneLookTakesAllHaveTheirTurn)
{
    const auto master = make_master(QZ_THREAD_CLOCK_REAL);
    std::vector<std::unique_ptr<letter_box>> boxes;
    int came = 0;
    script s;
    for (int i = 0; i < 40; ++i) {
        const letter_box &box = *boxes.emplace_back(std::make_unique<letter_box>());
        EXPECT_EQ(0, watch(master, box, s.keep([&] {
                      box.take();
                      ++came;
                  })));
        box.put();
    }
    while (qz_thread_run_pending(master.get(), 0) > 0) {
    }
    EXPECT_EQ(40, came);
}

TEST(ThreadRun, SecondThreadFindsItBusy)
{
    const auto master = make_master(QZ_THREAD_CLOCK_REAL);
    const running runner(master);
    EXPECT_EQ(QZ_THREAD_EBUSY, qz_thread_run(master.get()));
    EXPECT_EQ(QZ_THREAD_EBUSY, qz_thread_run_pending(master.get(), 0));
}

TEST(ThreadRun, AdvanceFindsItBusyWhileAnotherThreadAdvances)
{
    const auto master = make_master(QZ_THREAD_CLOCK_DRIVEN);
    script s;
    std::promise<void> inside, leave;
    post(master, s.keep([&] {
        inside.set_value();
        leave.get_future().wait();
    }));
    std::thread other([&] { EXPECT_EQ(1, qz_thread_advance(master.get(), 1)); });
    inside.get_future().wait();
    EXPECT_EQ(QZ_THREAD_EBUSY, qz_thread_advance(master.get(), 1));
    leave.set_value();
    other.join();
    EXPECT_EQ(1, qz_thread_now(master.get()));
}

TEST(ThreadRun, MasterMayRunOnOneThreadAfterAnother)
{
    const auto master = make_master(QZ_THREAD_CLOCK_REAL);
    for (int i = 0; i < 3; ++i) {
        running runner(master);
        bool called = false;
        EXPECT_EQ(0, call_wait(master, [&] { called = true; }));
        EXPECT_TRUE(called);
        EXPECT_EQ(0, runner.end());
    }
}

TEST(ThreadRun, CallsOfManyThreadsRunOneAtATimeAndInEachOnesOrder)
{
    const auto master = make_master(QZ_THREAD_CLOCK_REAL);
    running runner(master);
    constexpr uint32_t threads = 4, calls = 5'000;
    struct shared {
        std::vector<uint32_t> next = std::vector<uint32_t>(threads);  // no lock: the master is the lock
        uint32_t out_of_order = 0;
    } state;
    struct numbered {
        shared *state;
        uint32_t thread, number;
    };
    std::vector<std::vector<numbered>> args(threads);
    std::vector<std::thread> posters;
    for (uint32_t t = 0; t < threads; ++t) {
        for (uint32_t n = 0; n < calls; ++n)
            args[t].push_back({&state, t, n});
        posters.emplace_back([&, t] {
            for (auto &arg : args[t])
                qz_thread_call(
                    master.get(),
                    [](void *p) {
                        const auto *call = static_cast<numbered *>(p);
                        if (call->state->next[call->thread]++ != call->number)
                            ++call->state->out_of_order;
                    },
                    &arg);
        });
    }
    for (auto &poster : posters)
        poster.join();
    EXPECT_EQ(0, call_wait(master, [&] {
                  EXPECT_THAT(state.next, ElementsAre(calls, calls, calls, calls));
                  EXPECT_EQ(0U, state.out_of_order);
              }));
    EXPECT_EQ(0, runner.end());
}

// ---- call and wait --------------------------------------------------------------------------------------------------

TEST(ThreadCallWait, RunsOnTheMastersThreadAfterTheCallsPostedBefore)
{
    const auto master = make_master(QZ_THREAD_CLOCK_REAL);
    running runner(master);
    script s;
    std::thread::id ran_on;
    post(master, s.noting("posted"));
    EXPECT_EQ(0, call_wait(master, [&] {
                  s.note("waited");
                  ran_on = std::this_thread::get_id();
              }));
    EXPECT_THAT(s.log, ElementsAre("posted", "waited"));
    EXPECT_NE(std::this_thread::get_id(), ran_on);
    EXPECT_EQ(0, runner.end());
}

TEST(ThreadCallWait, OnTheMastersOwnThreadRunsWithinTheCall)
{
    const auto master = make_master(QZ_THREAD_CLOCK_DRIVEN);
    script s;
    post(master, s.keep([&] {
        s.note("before");
        EXPECT_EQ(0, call_wait(master, [&] { s.note("waited"); }));
        s.note("after");
    }));
    qz_thread_run_pending(master.get(), 0);
    EXPECT_THAT(s.log, ElementsAre("before", "waited", "after"));
}

TEST(ThreadCallWait, WhenNobodyRunsTheMasterRunsWithinTheCallAndLeavesTheQueueAlone)
{
    const auto master = make_master(QZ_THREAD_CLOCK_REAL);
    script s;
    post(master, s.noting("posted"));
    EXPECT_EQ(0, call_wait(master, [&] {
                  s.note("waited");
                  EXPECT_EQ(1, qz_thread_is_master_thread(master.get()));
                  EXPECT_EQ(0, call_wait(master, [&] { s.note("nested"); }));
              }));
    EXPECT_THAT(s.log, ElementsAre("waited", "nested"));
}

TEST(ThreadCallWait, CountsAsTheMastersCallWhileItRuns)
{
    const auto master = make_master(QZ_THREAD_CLOCK_REAL);
    script s;
    std::promise<void> inside, leave;
    std::thread guest([&] {
        call_wait(master, [&] {
            inside.set_value();
            leave.get_future().wait();
            s.note("guest");
        });
    });
    inside.get_future().wait();
    EXPECT_EQ(0, qz_thread_is_master_thread(master.get()));
    post(master, s.keep([&] {
        s.note("run");
        qz_thread_stop(master.get());
    }));
    std::thread runner([&] { EXPECT_EQ(0, qz_thread_run(master.get())); });
    std::thread second_guest([&] { call_wait(master, [&] { s.note("second guest"); }); });
    leave.set_value();
    guest.join();
    runner.join();
    second_guest.join();
    // The three never overlap (the sanitizers see to that); the first one was there first.
    EXPECT_EQ(3U, s.log.size());
    EXPECT_EQ("guest", s.log.front());
}

TEST(ThreadCallWait, RunnerThatStopsFirstLeavesTheCallToTheWaiter)
{
    const auto master = make_master(QZ_THREAD_CLOCK_REAL);
    script s;
    std::promise<void> inside;
    std::atomic<bool> waiting{false};
    post(master, s.keep([&] {
        inside.set_value();
        while (!waiting)
            std::this_thread::yield();
        qz_thread_stop(master.get());
    }));
    std::thread runner([&] { EXPECT_EQ(0, qz_thread_run(master.get())); });
    inside.get_future().wait();
    waiting = true;
    EXPECT_EQ(0, call_wait(master, [&] { s.note("waited"); }));
    runner.join();
    EXPECT_THAT(s.log, ElementsAre("waited"));
    EXPECT_EQ(0, qz_thread_run_pending(master.get(), 0));  // and it is not queued any more
}

TEST(ThreadCallWait, EveryCallRunsOnceWhileRunnersComeAndGo)
{
    const auto master = make_master(QZ_THREAD_CLOCK_REAL);
    uint32_t count = 0;  // no lock: the master is the lock
    std::atomic<uint32_t> left{3};
    std::vector<std::thread> callers;
    for (int t = 0; t < 3; ++t)
        callers.emplace_back([&] {
            for (int i = 0; i < 500; ++i)
                EXPECT_EQ(0, call_wait(master, [&] { ++count; }));
            --left;
        });
    while (left > 0) {
        qz_thread_stop(master.get());
        EXPECT_EQ(0, qz_thread_run(master.get()));
        EXPECT_LE(0, qz_thread_run_pending(master.get(), 0));
    }
    for (auto &caller : callers)
        caller.join();
    EXPECT_EQ(1500U, count);
}

// ---- threads --------------------------------------------------------------------------------------------------------

TEST(ThreadIdentity, EveryThreadIsTheMastersWhileNobodyRunsIt)
{
    const auto master = make_master(QZ_THREAD_CLOCK_REAL);
    EXPECT_EQ(1, qz_thread_is_master_thread(master.get()));
    running runner(master);
    EXPECT_EQ(0, qz_thread_is_master_thread(master.get()));
    EXPECT_EQ(0, call_wait(master, [&] { EXPECT_EQ(1, qz_thread_is_master_thread(master.get())); }));
    EXPECT_EQ(0, runner.end());
    EXPECT_EQ(1, qz_thread_is_master_thread(master.get()));
}

// A timer may become due between the look at the clock and the sleep.
TEST(Timers, ThatAreDueAlmostAtOnceFire)
{
    const auto master = make_master(QZ_THREAD_CLOCK_REAL);
    const auto stop = [](void *of) { qz_thread_stop(static_cast<qz_thread_master *>(of)); };
    for (int64_t i = 0; i < 1000; ++i) {
        ASSERT_EQ(0, qz_thread_call_after(master.get(), i % 40, stop, master.get()));
        ASSERT_EQ(0, qz_thread_run(master.get()));
    }
}

TEST(ThreadCheckDeathTest, AbortsWithTheCallAndBothThreads)
{
    const auto check_on_other_thread = [] {
        setenv("QZ_THREAD_CHECK", "1", 1);
        const auto master = make_master(QZ_THREAD_CLOCK_REAL);
        const running runner(master);
        qz_thread_check(master.get(), "qz_mom_hmset");
    };
    GTEST_FLAG_SET(death_test_style, EBRIDGE_DEATH_TEST_STYLE);
    EXPECT_DEATH(check_on_other_thread(),
                 "^qz_mom_hmset: called on thread [0-9]+ while thread [0-9]+ runs the thread master "
                 "\\(QZ_THREAD_CHECK=1\\)\n");  // an emulator has a word to add
}

TEST(ThreadCheck, AcceptsTheMastersThreadAndAnIdleMaster)
{
    setenv("QZ_THREAD_CHECK", "1", 1);
    const auto master = make_master(QZ_THREAD_CLOCK_REAL);
    qz_thread_check(master.get(), "idle");
    running runner(master);
    bool passed = false;
    EXPECT_EQ(0, call_wait(master, [&] {
                  qz_thread_check(master.get(), "own");
                  passed = true;
              }));
    EXPECT_TRUE(passed);
    EXPECT_EQ(0, runner.end());
}

TEST(ThreadCheck, DoesNothingUnlessAskedFor)
{
    for (const char *value : {static_cast<const char *>(nullptr), "0", ""}) {
        if (value)
            setenv("QZ_THREAD_CHECK", value, 1);
        else
            unsetenv("QZ_THREAD_CHECK");
        const auto master = make_master(QZ_THREAD_CLOCK_REAL);
        running runner(master);
        qz_thread_check(master.get(), "other thread");
        EXPECT_EQ(0, runner.end());
    }
}

// ---- memory ---------------------------------------------------------------------------------------------------------

TEST(ThreadMemory, CreateGivesNullWithoutMemory)
{
    for (const auto clock : {QZ_THREAD_CLOCK_REAL, QZ_THREAD_CLOCK_DRIVEN}) {
        master_ptr master;
        const auto create = [&] {
            master = make_master(clock);
            return master.get();
        };
        EXPECT_LE(1U, failures_reported(create, nullptr));
        EXPECT_NE(nullptr, master);
    }
}

namespace
{

// Whether the first master of a process is made when the process may have so many descriptors.
[[noreturn]] void make_with_descriptors(rlim_t most)
{
    const rlimit limit{most, most};
    setrlimit(RLIMIT_NOFILE, &limit);
    const bool made = make_master(QZ_THREAD_CLOCK_REAL) != nullptr;
    std::_Exit(made ? 1 : 0);
}

}  // namespace

TEST(ThreadMemoryDeathTest, CreateGivesNullWithoutDescriptors)
{
    GTEST_FLAG_SET(death_test_style, EBRIDGE_DEATH_TEST_STYLE);
    const auto ends = [](int status) { return WIFEXITED(status); };
    for (rlim_t most = 3; most < 16; ++most)
        EXPECT_EXIT(make_with_descriptors(most), ends, "") << most;
    EXPECT_EXIT(make_with_descriptors(3), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(make_with_descriptors(100), testing::ExitedWithCode(1), "");
}

TEST(ThreadMemory, InsertingATimerWithoutMemoryLeavesNothingBehind)
{
    const auto master = make_master(QZ_THREAD_CLOCK_DRIVEN);
    qz_thread_timer timer{};
    const auto insert = [&] {
        return qz_thread_insert_timer(master.get(), &timer, nothing, nullptr, 1, "a name too long for a short string");
    };
    EXPECT_LE(2U, failures_reported(insert, QZ_THREAD_ENOMEM));  // the name, the timer
    EXPECT_EQ(1U, timer.inserted);
    EXPECT_EQ(1, qz_thread_advance(master.get(), 10 * second));
}

TEST(ThreadMemory, PostingWithoutMemoryLeavesNothingBehind)
{
    const auto master = make_master(QZ_THREAD_CLOCK_DRIVEN);
    int32_t accepted = 0;
    fail_allocations_from(1);
    while (qz_thread_call(master.get(), no_call, nullptr) == 0)  // the queue's first block takes some
        ++accepted;
    EXPECT_EQ(QZ_THREAD_ENOMEM, qz_thread_call(master.get(), no_call, nullptr));
    fail_allocations_from(0);
    EXPECT_EQ(0, qz_thread_call(master.get(), no_call, nullptr));
    EXPECT_EQ(accepted + 1, qz_thread_run_pending(master.get(), 0));
}
