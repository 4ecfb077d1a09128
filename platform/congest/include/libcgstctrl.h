/* libcgstctrl.h - congestion control: watches the record topics of a producer.
 *
 * A producer registers under a module name on one database of its store handle, then names the record types ("topics")
 * that it writes. All functions are called on the handle's master's thread. What is registered lives as long as the
 * process.
 *
 * The marks are those of the queue in front of the handle (qz_mom_set_queue_limits), and all producers of the handle
 * hear them. This library takes the handle's queue callback (qz_mom_set_queue_cb) for itself.
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
    uint32_t params[4];                           /* the library's own parameters; 0 takes its defaults */
} libcgstctrl_topic;

/* State block that a caller may lend; it must live as long as the process, zeroed at first. */
typedef struct libcgstctrl_state {
    uint32_t congested; /* 1 from a high mark to the low one that follows, else 0 */
    uint32_t highs;     /* high marks so far */
    uint32_t lows;      /* low marks so far */
} libcgstctrl_state;

/* Registers a producer and watches its handle; `state` may be null. Naming it again only takes the new state block (a
 * null one leaves the earlier): its `congested` is set to the present state, its counts go on from where they stand.
 * EINVAL for a null handle, a null or empty module, or a handle that the store client refuses. 0, EINVAL, ENOMEM: then
 * nothing was registered. */
int32_t libcgstctrl_gen_init(qz_mom_handle *handle, uint32_t db, const char *module, libcgstctrl_state *state);
/* Adds a topic to a registered producer (ENOENT otherwise); a topic whose descriptor is already there stays as it is.
 * `flags` must be 0. The topic is copied. 0, EINVAL, ENOENT, ENOMEM. */
int32_t libcgstctrl_gen_topic_reg(qz_mom_handle *handle, uint32_t db, const char *module,
                                  const libcgstctrl_topic *topic, uint32_t flags);

/* For tests and tools: visits all topics in the order of registration, as they stood at the start; ends at the first
 * non-zero result, which is returned. EINVAL, ENOMEM. */
typedef int32_t (*libcgstctrl_visitor)(const qz_mom_handle *handle, uint32_t db, const char *module,
                                       const libcgstctrl_topic *topic, void *args);
int32_t libcgstctrl_for_each(libcgstctrl_visitor visitor, void *args);

#ifdef __cplusplus
}
#endif
#endif
