/* qz_thread.h - the event loop ("thread master") and its one-shot timers.
 *
 * A master is one loop that runs on one thread at a time: the thread inside qz_thread_run(), qz_thread_run_pending()
 * or qz_thread_advance(). Everything that it calls (timers, posted calls, store callbacks) runs there, one at a time,
 * never nested in another call of the same master. A library that takes no lock of its own is safe exactly as long as
 * all its callers are on its master's thread; threads of an application's own hand their calls over with
 * qz_thread_call() or qz_thread_call_wait().
 *
 * Conventions
 *  1. Functions return 0 or a positive count on success and QZ_THREAD_E* (negative) on failure.
 *  2. Unless a comment says otherwise a function may be called from any thread.
 *  3. Times are microseconds in int64_t on the master's own clock, which never goes back. With QZ_THREAD_CLOCK_REAL it
 *     is the system's monotonic clock; with QZ_THREAD_CLOCK_DRIVEN it starts at 0 and moves only in
 *     qz_thread_advance(). A time that would pass the largest one stands at it.
 *  4. Setting QZ_THREAD_CHECK=1 in the environment makes qz_thread_check() abort the process with one clear line on
 *     standard error when it is called on another thread than the one that runs the master. The environment is read
 *     when a master is created.
 *  5. Work is taken in rounds: first the calls that had been posted when the round began, in their order, then the
 *     timers that were due by then. What these calls add belongs to a later round.
 */
#ifndef QZ_THREAD_H
#define QZ_THREAD_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct qz_thread_master qz_thread_master;

/* What a timer function is given. Lives for the length of the call; `arg` is the caller's. */
typedef struct qz_thread_event {
    void *arg;                /* as given to qz_thread_insert_timer() */
    qz_thread_master *master; /* the loop that runs this call */
    const char *name;         /* as given; "" when none was */
} qz_thread_event;

/* Timer object of a caller. The loop keeps only counts in it (for whoever looks with a debugger): every insertion is an
 * independent one-shot, whatever object is handed in, so one object may stand for any number of pending timers. Zero it
 * before its first use; it must outlive the timers inserted with it. */
typedef struct qz_thread_timer {
    uint32_t inserted; /* insertions so far */
    uint32_t fired;    /* calls made so far */
} qz_thread_timer;

typedef int32_t (*qz_thread_func)(qz_thread_event *event); /* the result is not looked at */
typedef void (*qz_thread_call_func)(void *arg);

enum {
    QZ_THREAD_EINVAL = -1, /* null argument, negative delay, or not allowed with this clock */
    QZ_THREAD_ENOMEM = -2,
    QZ_THREAD_EBUSY = -3 /* the master already runs: on another thread, or in a call of which this one is part */
};

enum qz_thread_clock { QZ_THREAD_CLOCK_REAL = 0, QZ_THREAD_CLOCK_DRIVEN = 1 };

/* New master; null without memory or descriptors. Owned by the caller. It does not run by itself. */
qz_thread_master *qz_thread_master_create(enum qz_thread_clock clock);
/* Frees the master. Timers and calls still pending are dropped unrun. The master must not be running. Null is allowed.
 */
void qz_thread_master_free(qz_thread_master *master);

/* Runs the loop on the calling thread until qz_thread_stop(). 0, or EBUSY. Real clock only (EINVAL otherwise). */
int32_t qz_thread_run(qz_thread_master *master);
/* Makes qz_thread_run() return after the current call; a stop that comes first makes the next run return at once. One
 * stop ends one run; qz_thread_run_pending() and qz_thread_advance() do not look at it. */
void qz_thread_stop(qz_thread_master *master);
/* Runs what is due now, and what that makes due, then returns the number of calls made. At most `limit` calls when
 * limit > 0; the rest stays in its order. Either clock. EINVAL, EBUSY. */
int32_t qz_thread_run_pending(qz_thread_master *master, int32_t limit);
/* Driven clock only: runs what is due, then moves the clock on by `usec`, stopping at each timer on the way to run it
 * (and all that it makes due) at exactly its time. Returns the number of calls made (INT32_MAX when there were more).
 * EINVAL, EBUSY. */
int32_t qz_thread_advance(qz_thread_master *master, int64_t usec);
/* The master's clock, in microseconds. 0 for a null master. */
int64_t qz_thread_now(const qz_thread_master *master);
/* The time at which the earliest pending timer is due, or -1 when none is pending. */
int64_t qz_thread_next_due(qz_thread_master *master);

/* One-shot timer: `func` runs on the master's thread `seconds` from now. Timers that are due together run in the order
 * of their times, equal times in the order of insertion. `timer` may be null; `name` is copied and may be null, too. 0,
 * EINVAL, ENOMEM. */
int32_t qz_thread_insert_timer(qz_thread_master *master, qz_thread_timer *timer, qz_thread_func func, void *arg,
                               int32_t seconds, const char *name);
/* The same in microseconds for the platform's own use. */
int32_t qz_thread_call_after(qz_thread_master *master, int64_t usec, qz_thread_call_func func, void *arg);
/* Runs `func` on the master's thread, after the calls posted before it; never within this call. 0, EINVAL, ENOMEM. */
int32_t qz_thread_call(qz_thread_master *master, qz_thread_call_func func, void *arg);
/* The same, and waits until it has run. On the master's own thread, or when no thread runs the master (any more), it
 * runs at once, within this call; this thread then counts as the one that runs the master, and whoever wants to run the
 * master meanwhile waits for the end of `func`. */
int32_t qz_thread_call_wait(qz_thread_master *master, qz_thread_call_func func, void *arg);

/* Watches a descriptor: when something can be read from it (or it is broken), `func` is posted to the master, again and
 * again as long as that is so and the descriptor is watched, though not while a call is still waiting. Somebody else may
 * have read by then: `func` must not wait for something to read. The master looks before it sleeps, now and then while it
 * is busy, and once at the beginning of qz_thread_run_pending(). At most one watch a descriptor; it stays the caller's,
 * who keeps it open until it is unwatched. Real clock only. 0, EINVAL (also when the system cannot watch it, or does already), ENOMEM. */
int32_t qz_thread_watch(qz_thread_master *master, int descriptor, qz_thread_call_func func, void *arg);
/* Ends the watch. A call that was posted before may still come. 0, or EINVAL when it is not watched. */
int32_t qz_thread_unwatch(qz_thread_master *master, int descriptor);

/* 1 when the calling thread runs the master or when no thread does; else 0 (also for a null master). */
int32_t qz_thread_is_master_thread(const qz_thread_master *master);
/* See convention 4; null masters are passed over. `what` names the call for the message, for example "qz_mom_hmset". */
void qz_thread_check(const qz_thread_master *master, const char *what);

#ifdef __cplusplus
}
#endif
#endif
