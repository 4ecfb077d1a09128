// Locks: one holder at a time, and writes that only the holder can make.
//
// They are taken in another database than the one through which the fixture waits: a fenced handle writes nothing there.
#include "store_fixture.hpp"

namespace contract
{
namespace
{

constexpr uint32_t locked_db = 5;
const uint32_t value_field[] = {6};

// What a lock's callback has heard.
struct lock_ear {
    std::vector<int32_t> all;

    static int32_t hear(qz_mom_handle *, uint32_t db, int32_t held, void *self)
    {
        EXPECT_EQ(locked_db, db);
        static_cast<lock_ear *>(self)->all.push_back(held);
        return 0;
    }
    bool held() const { return !all.empty() && all.back() == 1; }
};

}  // namespace

class Locks : public StoreTest
{
  protected:
    int32_t ask(qz_mom_handle *by, lock_ear &to, const char *name = "service")
    {
        return qz_mom_lock(by, locked_db, name, lock_ear::hear, &to);
    }

    static int32_t write(qz_mom_handle *by, int32_t value, listener *answer = nullptr, uint32_t db = locked_db)
    {
        const session_record record({.keyid = 1, .request_value = value});
        return qz_mom_hmset(by, db, record.message(), value_field, 1, answer ? listener::hear : nullptr, answer);
    }

    // The code of a write, whichever way it is told.
    int32_t outcome(qz_mom_handle *by, int32_t value)
    {
        listener answer;
        const int32_t code = write(by, value, &answer);
        if (code != 0)
            return code;
        run_until([&] { return !answer.all.empty(); });
        return answer.all.empty() ? QZ_MOM_EDOWN : answer.all.front().error;
    }

    std::vector<session> read()
    {
        listener found;
        const session_record any(any_session());
        EXPECT_EQ(0, qz_mom_scan(open(), locked_db, any.message(), 0, listener::hear, &found));
        run_until([&] { return found.ends(QZ_MOM_END_SCAN) == 1; });
        return sessions(found.changes());
    }
};

TEST_F(Locks, WhoAsksFirstHoldsItUntilItIsClosed)
{
    auto *first = open();
    auto *second = open();
    auto *third = open();
    lock_ear a, b, c;
    EXPECT_EQ(0, ask(first, a));
    run_until([&] { return a.held(); });
    EXPECT_EQ(0, ask(second, b));
    pass_time(500);
    EXPECT_EQ(0, ask(third, c));
    pass_time(500);
    EXPECT_EQ(std::vector<int32_t>{1}, a.all);
    EXPECT_TRUE(b.all.empty() && c.all.empty());
    close(first);
    run_until([&] { return b.held() || c.held(); });
    EXPECT_NE(b.held(), c.held());
    auto *now = b.held() ? second : third;
    close(now);
    run_until([&] { return b.held() && c.held(); });
    EXPECT_EQ(std::vector<int32_t>{1}, a.all);
    EXPECT_EQ(std::vector<int32_t>{1}, b.all);
    EXPECT_EQ(std::vector<int32_t>{1}, c.all);
}

// It tells of the handle, not of what the lock guards.
TEST_F(Locks, ANoticeThatGoesAheadIsWrittenWithoutIt)
{
    auto *first = open();
    auto *second = open();
    auto *reader = open();
    listener hears;
    lock_ear a, b;
    EXPECT_EQ(0, qz_mom_subscribe(reader, locked_db, evlan_record("", 0).message(), 0, listener::hear, &hears));
    EXPECT_EQ(0, ask(first, a));
    run_until([&] { return a.held(); });
    EXPECT_EQ(0, ask(second, b));
    settle();
    EXPECT_EQ(0, qz_mom_set_ahead(second, locked_db, evlan_record("app", 7).message()));
    run_until([&] { return hears.count(QZ_MOM_CMD_SET) == 1; });
    EXPECT_TRUE(b.all.empty());
}

TEST_F(Locks, OneWhoWaitsAndLeavesIsPassedOver)
{
    auto *first = open();
    auto *second = open();
    auto *third = open();
    lock_ear a, b, c;
    ask(first, a);
    run_until([&] { return a.held(); });
    ask(second, b);
    ask(third, c);
    close(second);
    close(first);
    run_until([&] { return c.held(); });
    EXPECT_TRUE(b.all.empty());
}

TEST_F(Locks, OnlyTheHolderWrites)
{
    auto *holder = open();
    auto *other = open();
    auto *free = open();
    lock_ear a, b;
    ask(holder, a);
    run_until([&] { return a.held(); });
    ask(other, b);
    EXPECT_EQ(0, outcome(holder, 1));
    EXPECT_EQ(QZ_MOM_EFENCED, outcome(other, 2));
    EXPECT_EQ(std::vector<session>{(session{.keyid = 1, .request_value = 1})}, read());
    EXPECT_EQ(0, outcome(free, 3));  // who has asked for no lock is not fenced
    EXPECT_EQ(std::vector<session>{(session{.keyid = 1, .request_value = 3})}, read());
    close(holder);
    run_until([&] { return b.held(); });
    EXPECT_EQ(0, outcome(other, 4));
    EXPECT_EQ(std::vector<session>{(session{.keyid = 1, .request_value = 4})}, read());
}

TEST_F(Locks, EveryKindOfWriteIsFenced)
{
    auto *free = open();
    auto *fenced = open();
    lock_ear a, b;
    ask(open(), a);
    run_until([&] { return a.held(); });
    ask(fenced, b);
    write(free, 1);
    listener answers;
    const session_record record({.keyid = 1, .request_value = 9});
    const evlan_record whole("app", 7);
    const std::vector<int32_t> codes{
        qz_mom_set(fenced, locked_db, whole.message(), listener::hear, &answers),
        qz_mom_hmset(fenced, locked_db, record.message(), value_field, 1, listener::hear, &answers),
        qz_mom_hmupdate(fenced, locked_db, record.message(), value_field, 1, listener::hear, &answers),
        qz_mom_del(fenced, locked_db, record.message(), listener::hear, &answers),
        qz_mom_clear_expire(fenced, locked_db, record.message(), listener::hear, &answers)};
    for (const int32_t code : codes)
        EXPECT_EQ(QZ_MOM_EFENCED, code);
    EXPECT_EQ(std::vector<session>{(session{.keyid = 1, .request_value = 1})}, read());
    EXPECT_TRUE(answers.all.empty());
}

TEST_F(Locks, OtherDatabasesAndNamesAreFree)
{
    auto *one = open();
    auto *two = open();
    lock_ear a, b;
    EXPECT_EQ(0, ask(one, a, "one"));
    EXPECT_EQ(0, ask(two, b, "two"));
    run_until([&] { return a.held() && b.held(); });
    EXPECT_EQ(0, write(two, 1, nullptr, app_db));
    EXPECT_EQ(0, outcome(two, 1));
}

TEST_F(Locks, WhatWasWrittenBeforeIsHeardBefore)
{
    constexpr int32_t writes = 300;
    auto *holder = open();
    auto *next = open();
    lock_ear a, b;
    listener heard_by;
    size_t heard_before = 0;
    ask(holder, a);
    const session_record any(any_session());
    EXPECT_EQ(0, qz_mom_subscribe(next, locked_db, any.message(), 0, listener::hear, &heard_by));
    run_until([&] { return a.held() && heard_by.count(QZ_MOM_CMD_SUBSCRIBED) == 1; });
    const auto count = [](qz_mom_handle *, uint32_t, int32_t, void *self) {
        auto &[heard, before, to] = *static_cast<std::tuple<listener *, size_t *, lock_ear *> *>(self);
        *before = heard->changes().size();
        to->all.push_back(1);
        return int32_t{0};
    };
    std::tuple<listener *, size_t *, lock_ear *> ear{&heard_by, &heard_before, &b};
    EXPECT_EQ(0, qz_mom_lock(next, locked_db, "service", count, &ear));
    for (int32_t i = 1; i <= writes; ++i)
        EXPECT_EQ(0, write(holder, i));
    close(holder);
    run_until([&] { return b.held(); });
    EXPECT_EQ(static_cast<size_t>(writes), heard_before);
}

TEST_F(Locks, WhatMakesNoSenseIsRefused)
{
    auto *handle = open();
    lock_ear ear;
    const std::string longest(64, 'x');
    const std::string too_long(65, 'x');
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_lock(nullptr, locked_db, "x", lock_ear::hear, &ear));
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_lock(handle, locked_db, "x", nullptr, &ear));
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_lock(handle, locked_db, nullptr, lock_ear::hear, &ear));
    EXPECT_EQ(QZ_MOM_EDB, qz_mom_lock(handle, 4000000000u, "x", lock_ear::hear, &ear));
    for (const char *name : {"", "two words", "colon:", "\n", too_long.c_str()})
        EXPECT_EQ(QZ_MOM_EINVAL, ask(handle, ear, name)) << name;
    EXPECT_EQ(0, outcome(handle, 1));  // a call that was refused fences nothing
    EXPECT_EQ(0, ask(handle, ear, longest.c_str()));
    EXPECT_EQ(QZ_MOM_EINVAL, ask(handle, ear, "second"));
    run_until([&] { return ear.held(); });
    EXPECT_EQ(std::vector<int32_t>{1}, ear.all);
    EXPECT_STREQ("the handle does not hold its lock", qz_mom_strerror(QZ_MOM_EFENCED));
}

}  // namespace contract
