/* libcgstctrl.h - congestion control: watches the record topics of a producer.
 *
 * A producer registers under a module name on one database of its store handle, then names the record types ("topics")
 * that it writes. Two kinds of queues are watched, each with a high and a low mark that are told in turns, beginning with
 * the high one:
 *  - of each topic, the writes of the handle that were taken over and that the server has not answered yet. Depths are
 *    in writes; the marks are in the topic. All producers of a topic on one handle and database share its queue. On the
 *    embedded store nothing waits;
 *  - what waits to be delivered to the handle. Its marks are those of qz_mom_set_queue_limits, and all producers of the
 *    handle hear them. This library takes the handle's queue callback (qz_mom_set_queue_cb) for itself.
 *
 * How a producer slows down: it asks libcgstctrl_congested() before it writes, and when that says 1 it stops until its
 * callback (libcgstctrl_set_cb) hears the low mark. Nothing is ever lost of what was taken over; a producer that does
 * not listen gets QZ_MOM_EFULL from the store client when 65,536 calls wait.
 *
 * How others hear of it: with each mark of a topic's queue, one u_bridge.congest_notify record is written into the
 * producer's database, ahead of the writes that wait. `notice_from` is the module's name, a colon, and the topic's;
 * `timestamp` the time of the high mark in milliseconds since 1970, or 0 with the low mark. It has no key, so the store
 * holds the newest notice alone: subscribe to hear all.
 *
 * Threads. Registering and hearing happen on the handle's master's thread; libcgstctrl_congested() may be called from any.
 * Ownership. Names and topics are copied; callback arguments, state blocks and descriptors stay the caller's. What is
 * registered lives as long as the process, the watch of a queue as long as its handle: naming producer and topics again
 * watches a new handle.
 */
#ifndef LIBCGSTCTRL_H
#define LIBCGSTCTRL_H

#include <protobuf-c/protobuf-c.h>
#include <stdint.h>

#include "qz_mom.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { LIBCGSTCTRL_EINVAL = -1, LIBCGSTCTRL_ENOENT = -2, LIBCGSTCTRL_ENOMEM = -3 };

/* A record topic. */
typedef struct libcgstctrl_topic {
    const ProtobufCMessageDescriptor *descriptor; /* the record type; lives as long as the process */
    uint32_t params[4]; /* high mark in writes (0: 16384), low mark (0: a quarter of the high one), 0, 0 */
} libcgstctrl_topic;

/* State block that a caller may lend; it must live as long as the process, zeroed at first. */
typedef struct libcgstctrl_state {
    uint32_t congested; /* 1 while one of the producer's queues is between a high mark and the low one that follows */
    uint32_t highs;     /* high marks so far, of all its queues */
    uint32_t lows;      /* low marks so far */
} libcgstctrl_state;

/* Registers a producer and watches its handle; `state` may be null. Naming it again only takes the new state block (a
 * null one leaves the earlier): its `congested` is set to the present state, its counts go on from where they stand.
 * EINVAL for a null handle, a null or empty module, or a handle that the store client refuses. 0, EINVAL, ENOMEM: then
 * nothing was registered. */
int32_t libcgstctrl_gen_init(qz_mom_handle *handle, uint32_t db, const char *module, libcgstctrl_state *state);
/* Adds a topic to a registered producer (ENOENT otherwise) and watches its queue; a topic whose descriptor is already
 * there stays as it is. `flags` must be 0. EINVAL also for a low mark that is not below the high one, and for a database
 * that the handle does not have. 0, EINVAL, ENOENT, ENOMEM. */
int32_t libcgstctrl_gen_topic_reg(qz_mom_handle *handle, uint32_t db, const char *module,
                                  const libcgstctrl_topic *topic, uint32_t flags);

/* A topic's queue has reached the high mark (`congested` 1) or has fallen to the low one (0). Runs on the master's
 * thread; may make any call of this library and of the store client. */
typedef void (*libcgstctrl_cb)(qz_mom_handle *handle, uint32_t db, const ProtobufCMessageDescriptor *descriptor,
                               int32_t congested, void *args);
/* Who hears of the marks of a producer's topics; one per producer, null ends it. 0, EINVAL, ENOENT. */
int32_t libcgstctrl_set_cb(qz_mom_handle *handle, uint32_t db, const char *module, libcgstctrl_cb cb, void *args);
/* 1 from the moment at which the topic's queue reaches the high mark, also when the callback has not run yet, until the
 * low mark has been told; else 0. `handle` must be open. EINVAL, ENOENT. */
int32_t libcgstctrl_congested(qz_mom_handle *handle, uint32_t db, const char *module,
                              const ProtobufCMessageDescriptor *descriptor);

/* For tests and tools: visits all topics in the order of registration, as they stood at the start; ends at the first
 * non-zero result, which is returned. EINVAL, ENOMEM. */
typedef int32_t (*libcgstctrl_visitor)(const qz_mom_handle *handle, uint32_t db, const char *module,
                                       const libcgstctrl_topic *topic, void *args);
int32_t libcgstctrl_for_each(libcgstctrl_visitor visitor, void *args);

#ifdef __cplusplus
}
#endif
#endif
