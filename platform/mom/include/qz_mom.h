/* qz_mom.h - client of the message store (MOM).
 *
 * The store holds numbered databases of records. A record is a protobuf-c message whose field 5, `index`, is its key;
 * subscribers hear every change of the records that they follow, and any record can carry a mark after which it
 * expires.
 *
 * Conventions
 *  1. Handles. Opened from a URL, tied to one thread master (qz_thread.h); all callbacks of a handle run on that
 *     master's thread, one at a time, and never from inside a call of this client. All handles of one process that
 *     serve users of one library share one master.
 *  2. Codes. 0 means taken over: it will be applied in order, or its failure reported to the call's callback (or, where
 *     the caller gave none, logged). Any other value means that nothing happened.
 *  3. Order. Writes of one handle to one record are applied, and heard by everyone, in call order. A write of several
 *     fields is seen whole or not at all. Every notification carries the whole record as of that change. Writes of one
 *     handle to one database are answered in call order; a handle that follows what it writes hears a change before the
 *     answer to it.
 *  4. Ownership. Records, field lists and names given to a call are read during the call only. Notifications, and all
 *     that they point to, live until the callback returns. Callback arguments stay the caller's.
 *  5. Threads. Every call may come from any thread. Set QZ_THREAD_CHECK=1 (qz_thread.h) to have the asynchronous ones
 *     abort when they meet another thread than the master's.
 *  6. Patterns. Where a call takes a pattern, key fields at their default (0, "", absent) match anything; elsewhere the
 *     key is taken exactly as it stands. A pattern, too, carries its key message, if only an empty one.
 *  7. Null. A null handle, record, key message or mandatory callback is refused with QZ_MOM_EINVAL, never a crash.
 *  8. Bounds. What waits to be delivered to a handle is bounded (qz_mom_set_queue_limits); past the hard limit the
 *     calls that would add to it are refused with QZ_MOM_EFULL. Only the ends of expiry calls already accepted may come
 *     on top. On Redis a full queue refuses no write but one that wants an answer: the log of changes is read on when
 *     there is room. There EFULL means that the handle's answers, waiting and under way, have reached the limit (of
 *     writes), that twice the limit waits (of all other calls), or that 65,536 calls wait for the server; and what a
 *     table that is read anew after a loss differs in may come on top.
 *  9. Keys. The key of a record that is delivered is read from its key text (see below). So an address in a key that
 *     was written as zeros comes back as null.
 * 10. Foreign data. Records whose key text or content is not of the type asked for are skipped; each is logged once per
 *     delivery that it is left out of.
 */
#ifndef QZ_MOM_H
#define QZ_MOM_H

#include <protobuf-c/protobuf-c.h>
#include <stddef.h>
#include <stdint.h>

#include "qz_thread.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The handle begins with its master; what follows belongs to the implementation. */
typedef struct qz_mom_handle {
    qz_thread_master *master;
} qz_mom_handle;

static inline qz_thread_master *qz_mom_handle_master(const qz_mom_handle *handle)
{
    return handle ? handle->master : (qz_thread_master *)0;
}

/* Time value: two signed 32-bit words on every target. Negative values are refused; usec is 0 to 999999. */
typedef struct qz_mom_timeval {
    int32_t sec;
    int32_t usec;
} qz_mom_timeval;

enum qz_mom_code {
    QZ_MOM_OK = 0,
    QZ_MOM_EINVAL = -101, /* null or malformed argument, or a record that cannot be encoded */
    QZ_MOM_EDB = -102,    /* no such database */
    QZ_MOM_ENOMEM = -103, /* no memory */
    QZ_MOM_EFULL = -104,  /* a queue is at its hard limit; try again later */
    QZ_MOM_EDOWN = -105,  /* the store cannot be reached */
    QZ_MOM_EFORM = -106,  /* the record exists in the other form (written with set, now hmset, or the reverse) */
    QZ_MOM_EURL = -107,   /* malformed URL, unknown scheme, or a map file that makes no sense */
    QZ_MOM_EFENCED = -108 /* the handle does not hold its lock (qz_mom_lock) */
};

/* Command of a notification. */
enum qz_mom_cmd {
    QZ_MOM_CMD_NONE = 0,     /* no change: an end mark or the answer to a call */
    QZ_MOM_CMD_SET = 1,      /* whole record written (qz_mom_set) */
    QZ_MOM_CMD_DEL = 3,      /* record removed */
    QZ_MOM_CMD_HSET = 4,     /* one field of a hash record written */
    QZ_MOM_CMD_HMSET = 6,    /* several fields of a hash record written, or a hash record found by a scan */
    QZ_MOM_CMD_EXPIRED = 27, /* record removed because its mark fired */
    QZ_MOM_CMD_UNSUBSCRIBED = 28,
    QZ_MOM_CMD_SUBSCRIBED = 29, /* subscription confirmed; exactly once per subscribe call */
    QZ_MOM_CMD_SCAN = 30        /* never sent: callers use it to name their scan arguments */
};

enum qz_mom_end {
    QZ_MOM_END_NONE = 0,
    QZ_MOM_END_SCAN = 1,  /* the scan has delivered everything */
    QZ_MOM_END_EXPIRY = 2 /* the expiry call is over: none of its marks is left */
};

/* Mode of an expiry call. */
enum qz_mom_expire_mode {
    QZ_MOM_EXPIRE_PATTERN = 1,       /* all records that match the pattern */
    QZ_MOM_EXPIRE_EVLAN_SESSION = 3, /* exactly this evlan session */
    QZ_MOM_EXPIRE_EPORT_SESSION = 4  /* exactly this eport session */
};

/* Value of commands 4 and 6. */
typedef struct qz_mom_hash_value {
    int32_t error;            /* 0, or why the record could not be decoded */
    ProtobufCMessage *record; /* the whole record; null when error is not 0 */
} qz_mom_hash_value;

/* What every callback is handed. */
typedef struct qz_mom_notification {
    uint32_t db;       /* database number */
    const char *key;   /* key text of the record, or of the pattern for an end mark; never null */
    const char *field; /* names of the written fields, joined with commas; a field subscriber's own field; "" if none */
    int32_t cmd;       /* enum qz_mom_cmd */
    void *value;       /* commands 1, 3, 27: ProtobufCMessage *, the record (as it last was); 4, 6: qz_mom_hash_value *;
                          else null */
    int32_t end;       /* enum qz_mom_end */
    int32_t error;     /* 0 or an enum qz_mom_code */
} qz_mom_notification;

/* Notification callback; the result is not looked at. */
typedef int32_t (*qz_mom_msg_cb)(qz_mom_handle *handle, const qz_mom_notification *msg, void *args);
/* The database that was asked for is connected; called once per connect call. */
typedef int32_t (*qz_mom_connected_cb)(qz_mom_handle *handle, void *args);
/* type 1: connection error; type 2: connected again; type 3: changes have left the server's log before they were heard here:
 * what is followed is compared anew, and told as after a lost connection. */
typedef int32_t (*qz_mom_reconnect_cb)(qz_mom_handle *handle, uint32_t db, int32_t type, void *args);

enum { QZ_MOM_RECONNECT_ERROR = 1, QZ_MOM_RECONNECT_DONE = 2, QZ_MOM_RECONNECT_MISSED = 3 };

/* ---- handles ---------------------------------------------------------------------------------------------------- */

/* Opens a handle. `url` is
 *   mem:NAME                                 the embedded store, shared by all handles of that name in the process; it
 *                                            lives as long as one of them is open
 *   redis://[USER:PASSWORD@]HOST[:PORT]      a Redis server (7.0 or later), shared by processes; databases 0 to 15
 *   redis+unix://[USER:PASSWORD@]/PATH       the same by its unix socket. %XX in USER and PASSWORD stands for a byte
 *   redis+sentinel://[USER:PASSWORD@]HOST[:PORT][,HOST[:PORT]...]/GROUP
 *                                            the same on whichever server these sentinels (port 26379) name as the
 *                                            master of GROUP. What a new master lacks of that which the old one had
 *                                            acknowledged is told as changed and removed, too
 *   file:///PATH                             databases spread over several of these by a map file (docs/operators.md), in
 *                                            JSON: {"INSTANCES": {"redis": {"hostname": "127.0.0.1", "port": 6379}},
 *                                            "DATABASES": {"APPL_DB": {"id": 4, "instance": "redis"}}}. It is read when
 *                                            no handle of that URL is open; other databases than it names do not exist
 * A Redis server is connected when a database is first used, and again whenever the connection is lost: calls made
 * before the first connection wait for it, calls made after a loss are refused with EDOWN until it is back. Calls that
 * were under way are then made again, and none is done twice. Made again are also the last writes that were answered, if
 * the server has lost them (docs/operators.md); who follows hears them a second time. What changed meanwhile is told as
 * changed, what was removed as removed. *out is set on 0 only. EINVAL, EURL (for a map file the log says why), ENOMEM. */
int32_t qz_mom_client_open(const char *url, qz_thread_master *master, qz_mom_handle **out);
/* Closes a handle, on its master's thread or while nobody runs the master. No callback of it runs afterwards; expiry
 * marks that it set go on. Null is allowed. */
void qz_mom_client_close(qz_mom_handle *handle);
/* One line for a code; "unknown code" for any other value. Static text. */
const char *qz_mom_strerror(int32_t code);

/* Asks for a database; `cb` runs once it is connected, or connected again: a loss is no EDOWN here. Other calls work on a
 * database that nobody connected, too. */
int32_t qz_mom_client_connect(qz_mom_handle *handle, uint32_t db, qz_mom_connected_cb cb, void *args);
/* `cb` hears every loss and return of the connection to `db`; a second call for the same db replaces the first. */
int32_t qz_mom_client_set_reconnect_cb(qz_mom_handle *handle, uint32_t db, qz_mom_reconnect_cb cb, void *args);

/* ---- writes ----------------------------------------------------------------------------------------------------- *
 * `cb` may be null. Otherwise it is called once: command 0, the record's key, and error 0 or why the write failed. */

/* Writes the whole record in one piece and clears its mark. Subscribers hear command 1. */
int32_t qz_mom_set(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, qz_mom_msg_cb cb, void *args);
/* As qz_mom_set, without an answer, but ahead of all that waits for the server: for the few notices that tell of just
 * that. In call order among themselves only, so a record is written either always this way or never. Taken over also
 * while the server is away, of a handle that is fenced, and when 65,536 other calls wait; EFULL when another 1,024
 * notices do. */
int32_t qz_mom_set_ahead(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record);
/* Writes the named fields (numbers of the record's descriptor, not the key's, `count` >= 1; a number given twice counts
 * once) of a hash record, creates it when absent, leaves its other fields alone and clears its mark. Writing the set
 * member of a oneof clears the other members. Subscribers hear command 4 (one field) or 6. */
int32_t qz_mom_hmset(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, const uint32_t *fields,
                     uint32_t count, qz_mom_msg_cb cb, void *args);
/* Like hmset, but leaves the mark alone, and writes nothing where no record is (which is no failure). */
int32_t qz_mom_hmupdate(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, const uint32_t *fields,
                        uint32_t count, qz_mom_msg_cb cb, void *args);
/* Removes the record. Subscribers hear command 3 with the record as it last was. An absent record is no failure. */
int32_t qz_mom_del(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, qz_mom_msg_cb cb, void *args);

/* ---- reading and following -------------------------------------------------------------------------------------- */

/* Delivers each record that matches and exists throughout the scan once (command 6 for a hash record, 1 for a record
 * written whole), then exactly one notification with `end` 1. A table may be larger than the queue: it is read piece by
 * piece, each in its turn between the other notifications, so that a scan never shows a record older than it was heard
 * before. `flags` must be 0. */
int32_t qz_mom_scan(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *pattern, uint32_t flags,
                    qz_mom_msg_cb cb, void *args);
/* Follows all records that match. Command 29 confirms, exactly once per call and never for a reconnection. A call with
 * the same database, pattern, callback and argument replaces the earlier one. `flags` must be 0. */
int32_t qz_mom_subscribe(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *pattern, uint32_t flags,
                         qz_mom_msg_cb cb, void *args);
/* Follows single fields: cbs[i] hears every write that names fields[i], whether or not it changes it (a whole-record
 * write names them all), and every removal and expiry of a matching record. Each notification carries the whole record.
 * `args` may be null (all arguments null). One command 29 confirms the call, to cbs[0]. What replaces an earlier
 * subscription here is the same database, pattern, field, callback and argument. */
int32_t qz_mom_subscribe_field(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *pattern, uint32_t flags,
                               const uint32_t *fields, const qz_mom_msg_cb *cbs, void *const *args, uint32_t count);
/* Ends the subscriptions of this database, pattern, callback and argument, whole or by field. Command 28 confirms, once
 * per call, and is the last that the callback hears of them; 28 also comes when there was none. */
int32_t qz_mom_unsubscribe(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *pattern, qz_mom_msg_cb cb,
                           void *args);

/* ---- expiry marks ----------------------------------------------------------------------------------------------- *
 * A mark fires once, within a second of its time, whoever set it: the record is removed and subscribers hear command
 * 27 with the record as it last was. set and hmset clear a mark; hmupdate does not. While a subscriber of an
 * embedded store has no room for the news, its mark waits. Modes 3 and 4 take records of u_bridge.evlan_session and u_bridge.eport_session only. */

/* Marks one record or all that match (`mode`). An accepted call ends with exactly one notification to `cb` with `end`
 * 2, once none of its marks is left: fired, cleared, replaced by another call, or their records deleted; at once when
 * nothing matched. A delay of 0 fires before any later call is applied. `cb` may be null. */
int32_t qz_mom_pexpire(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, int32_t mode,
                       const qz_mom_timeval *delay, qz_mom_msg_cb cb, void *args);
/* Returns when the marks are set, or with the reason why they are not; nothing tells of their end. After five seconds
 * without an answer EDOWN: then they may be set yet. */
int32_t qz_mom_pexpire_sync(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, int32_t mode,
                            const qz_mom_timeval *delay);
/* Takes the mark off one record; a record without one, or none at all, is no failure. `cb` as for writes. */
int32_t qz_mom_clear_expire(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, qz_mom_msg_cb cb,
                            void *args);
/* Deletes, of the records that match, exactly those that still carry a mark (subscribers hear command 3). `cb` is
 * called once, with `end` 2, when that is done; it may be null. mode: QZ_MOM_EXPIRE_*. */
int32_t qz_mom_del_expire(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, int32_t mode,
                          qz_mom_msg_cb cb, void *args);

/* ---- locks ------------------------------------------------------------------------------------------------------- *
 * For services of which one at a time may write. Of all handles, of all processes, that ask for a lock of a database one
 * holds it. It lets go when it is closed; one whose process is killed, or out of touch for 1.5 s, loses it. */

/* `held` 1: the handle holds its lock from here on; all that was written before has been delivered to it. 0: it has lost
 * the lock; it goes on asking. In turns, beginning with 1. */
typedef int32_t (*qz_mom_lock_cb)(qz_mom_handle *handle, uint32_t db, int32_t held, void *args);
/* Asks for the lock `name` (letters, digits, '.', '_', '-', 64 at most), one per handle and database. From this call on
 * the handle is fenced there: its writes (set, hmset, hmupdate, del, clear_expire) are applied only while it holds the
 * lock, whatever it believes itself; others are refused with EFENCED, at once or to their callback. */
int32_t qz_mom_lock(qz_mom_handle *handle, uint32_t db, const char *name, qz_mom_lock_cb cb, void *args);

/* ---- bounds ------------------------------------------------------------------------------------------------------ */

/* `above` 1: the queue has reached the high mark; 0: it has fallen to the low mark. In turns, beginning with 1. */
typedef void (*qz_mom_queue_cb)(qz_mom_handle *handle, int32_t above, uint32_t depth, void *args);
/* Limits of what waits to be delivered to this handle, in notifications: low < high <= hard, EINVAL otherwise. */
int32_t qz_mom_set_queue_limits(qz_mom_handle *handle, uint32_t low, uint32_t high, uint32_t hard);
/* Who hears of the marks (congestion control); runs on the master's thread. Null ends it. The same callback and argument
 * again change nothing: who has heard the high mark hears the low one next. */
int32_t qz_mom_set_queue_cb(qz_mom_handle *handle, qz_mom_queue_cb cb, void *args);
/* Notifications that wait for this handle. */
uint32_t qz_mom_queue_depth(qz_mom_handle *handle);
/* Watches the writes of this handle to records of one type in one database that were taken over and that the server has
 * not answered yet: `cb` hears, on the master's thread, when they reach `high` and when they have fallen to `low` (low <
 * high, else EINVAL), in turns, beginning with high. Counted are writes made since the first such call. A call with the
 * same database, type, callback and argument changes the marks only; others are independent. It ends with the handle.
 * The embedded store applies a write within the call: nothing waits there. EINVAL, EDB, ENOMEM. */
int32_t qz_mom_watch_writes(qz_mom_handle *handle, uint32_t db, const ProtobufCMessageDescriptor *type, uint32_t low,
                            uint32_t high, qz_mom_queue_cb cb, void *args);
/* Such writes at this moment; 0 when nobody watches them. From any thread. */
uint32_t qz_mom_writes_waiting(qz_mom_handle *handle, uint32_t db, const ProtobufCMessageDescriptor *type);

/* ---- key texts --------------------------------------------------------------------------------------------------- *
 * "u_bridge.evlan_session:app:32:7": package and record name, then the key fields in their order. Bytes of a name other
 * than letters, digits, '.', '_' and '-' are written %XX. A number at its default is written 0, a text that is empty
 * and a sub-message that is absent, empty or all zero are written as nothing; any other sub-message is
 * (number=value,...).  */

/* Writes the key text of a record (cut to `size`, always terminated) and returns its full length, or EINVAL. */
int32_t qz_mom_key_text(const ProtobufCMessage *record, char *text, size_t size);
/* Builds a record of the given type that holds nothing but the key read from the text; null when the text is not a key
 * of that type. Freed with protobuf_c_message_free_unpacked(). */
ProtobufCMessage *qz_mom_key_parse(const ProtobufCMessageDescriptor *type, const char *text);

#ifdef __cplusplus
}
#endif
#endif
