// Services that stand by and serve in turns, on the embedded store. This program's qz_mom_lock() can lack memory.
#include "standby.hpp"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include "qz_mom_embedded.h"

namespace
{

using ebridged::standby;

uint32_t without_memory = 0;  // of the calls for this database the next one; 0: none

class reporter : public standby::observer
{
    void entered(standby::state) override {}
};

class Standby : public testing::Test
{
  protected:
    ~Standby() override { qz_thread_master_free(master); }

    qz_thread_master *const master = qz_thread_master_create(QZ_THREAD_CLOCK_DRIVEN);
    reporter told;
};

}  // namespace

int32_t qz_mom_lock(qz_mom_handle *handle, uint32_t db, const char *name, qz_mom_lock_cb cb, void *args)
{
    static const auto real = reinterpret_cast<decltype(&qz_mom_lock)>(dlsym(RTLD_NEXT, "qz_mom_lock"));
    if (db == without_memory) {
        without_memory = 0;
        return QZ_MOM_ENOMEM;
    }
    return real(handle, db, name, cb, args);
}

// It would keep the first one, and nobody else could serve either.
TEST_F(Standby, ALockThatCannotBeAskedForIsAskedForAgain)
{
    standby one("mem:standby", master, {}, &told);
    without_memory = 8;
    ASSERT_EQ(one.start(), 0);
    qz_thread_advance(master, 1'000'000);
    EXPECT_EQ(without_memory, 0U);
    EXPECT_EQ(one.now(), standby::state::serving);
}

TEST_F(Standby, WithoutMemoryForItsFirstLockItDoesNotStart)
{
    standby one("mem:standby", master, {}, &told);
    without_memory = 4;
    EXPECT_EQ(one.start(), QZ_MOM_ENOMEM);
}

TEST_F(Standby, ItKnowsWhetherTheStoreIsAway)
{
    standby one("mem:standby", master, {}, &told);
    ASSERT_EQ(one.start(), 0);
    qz_thread_advance(master, 1'000'000);
    EXPECT_FALSE(one.store_is_away());
    ASSERT_EQ(qz_mom_embedded_lose("standby"), 0);
    qz_thread_advance(master, 1'000'000);
    EXPECT_TRUE(one.store_is_away());
    EXPECT_EQ(one.now(), standby::state::serving);
    ASSERT_EQ(qz_mom_embedded_restore("standby"), 0);
    qz_thread_advance(master, 1'000'000);
    EXPECT_FALSE(one.store_is_away());
}
