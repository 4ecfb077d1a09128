// What tests expect of a call that the library makes of the store for a user who hears nothing.
#pragma once

#include "bridge_fixture.hpp"

namespace bridge_test
{

// Every call that a user makes about its own things refuses a user who is not registered.
inline constexpr char no_such_user[] = "Assert:No user named 'nobody'.\n";

// Users who hear nothing.
template <size_t N>
struct no_ears {
    static void fill(ebridge_args &, unsigned) {}
};

// Of an error the text alone, where it is nobody's promise which function logs it.
inline strings errors() { return recording::logged(100); }

// A callback given to the store.
inline int32_t ended(qz_mom_handle *, const qz_mom_notification *, void *) { return 0; }

// The only call that was made; an empty one when there were none or several.
inline recording::call only_call()
{
    const auto &calls = recording::calls();
    EXPECT_EQ(calls.size(), 1u);
    return calls.size() == 1 ? calls[0] : recording::call{};
}

inline const sw_ebridge_callback_args *pair_of(const recording::call &made)
{
    return static_cast<const sw_ebridge_callback_args *>(made.args);
}

// On the user's own handle.
inline void expect_call(const recording::call &made, const char *function, uint32_t db, const std::string &record)
{
    EXPECT_EQ(made.function, function);
    EXPECT_EQ(made.handle, recording::other_handle());
    EXPECT_EQ(made.db, db);
    EXPECT_EQ(made.record, record);
}

inline void expect_callback(const recording::call &made, qz_mom_msg_cb callback, const void *args)
{
    EXPECT_EQ(made.callback, address(callback));
    EXPECT_EQ(made.args, args);
}

// ---- aging

inline constexpr qz_mom_timeval two_seconds = {.sec = 2, .usec = 250'000};

// Mode 1.
inline void expect_pattern_call(const recording::call &made, const char *function, uint32_t db,
                                const std::string &pattern)
{
    expect_call(made, function, db, pattern);
    EXPECT_EQ(made.mode, 1);
}

inline void expect_delay(const recording::call &made, const qz_mom_timeval &delay)
{
    EXPECT_EQ(made.delay.sec, delay.sec);
    EXPECT_EQ(made.delay.usec, delay.usec);
}

inline void expect_default_delay(const recording::call &made) { expect_delay(made, {.sec = 1800, .usec = 0}); }

}  // namespace bridge_test
