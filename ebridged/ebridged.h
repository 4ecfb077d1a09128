/* ebridged.h - the bridge's service: allocator of ids, arbiter of match rules and resolver of default VLANs, inside a process
 * of one's own.
 *
 * The allocator answers the session records of the databases that it is told, those of evlans and those of eports: it
 * decides which id each request gets, writes the answer into the same record, and a moment later (2 ms) mirrors every
 * answered session into the data-plane database (8). Evlans and eports have ids of their own; what is counted below
 * counts both.
 *
 * The arbiter follows the match rules of the same databases: it decides which of the users' rules of one key hold, and
 * writes the result into the record of each. A user registers here by the first rule of its name, unless it has been
 * initialised before (sw_ebridge_init() then only refreshes it: initialise first). In its process the library's rule
 * table is the arbiter's, and of several services the first one's. Of two rules with the same user and key in two
 * databases the one counts that was written last.
 *
 * The resolver follows the default VLANs that users set for ports in the same databases, and publishes for each port the one
 * that was set last, or once its user lets go the one before it: in a table in each of these databases, which applications
 * follow, and in the data plane's (8), which they scan. When it starts, of what was there before the one that the table
 * shows counts as the last; the others by the names of their users.
 *
 * The program `ebridged` runs all beside a store server; on the embedded store ("mem:NAME"), which one process has for
 * itself, a program starts them with these calls.
 *
 * Calls come on the thread of the handle's master, or while no thread runs it. C and C++.
 */
#ifndef EBRIDGED_H
#define EBRIDGED_H

#include <stdint.h>

#include "qz_mom.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ebridged_service ebridged_service;

enum ebridged_log_level { EBRIDGED_LOG_ERROR = 1, EBRIDGED_LOG_INFO = 2, EBRIDGED_LOG_DEBUG = 3 };

/* One line, without its newline; valid during the call. */
typedef void (*ebridged_log_func)(enum ebridged_log_level level, const char *line, void *args);

/* Zero it, then set what is wanted. Read during the call; `log_args` stays the caller's. */
typedef struct ebridged_options {
    const uint32_t *databases; /* whose sessions and match rules are served; null: database 4 alone. Range records count
                                  in the lowest of them only: the ids of all are one set */
    uint32_t database_count;
    ebridged_log_func log; /* null: errors go to standard error, the rest nowhere */
    void *log_args;
    uint32_t log_level; /* lines of higher levels are not even made up; 0: all are, where there is a `log` */
} ebridged_options;

typedef struct ebridged_stat {
    uint32_t serving;  /* 1 once all sessions of the store are known and requests are answered */
    uint32_t sessions; /* known sessions */
    uint32_t keys;     /* keys that hold an id */
    uint32_t waiting;  /* writes that the store could not take yet; they are tried again until it does */
    uint64_t answered; /* answers decided since the start, refusals included */
    uint64_t refused;
    uint32_t deciding;        /* 1 once all match rules of the store are known and are decided */
    uint32_t rules;           /* known match rules */
    uint32_t rule_keys;       /* keys among them: what they match, whatever their user and priority */
    uint32_t contested_keys;  /* keys of more than one rule */
    uint32_t waiting_keys;    /* keys that have changed and are not calculated yet */
    uint32_t waiting_results; /* results that the store has not acknowledged yet */
    uint64_t calculations;    /* keys calculated since the start, a key again after each change */
    uint64_t results;         /* results written since the start */
    uint32_t pvid_ports;      /* ports with a default VLAN */
    uint32_t waiting_pvids;   /* table records that differ and are not written yet */
    uint64_t pvids;           /* table records written or removed since the start */
} ebridged_stat;

/* Starts the service on a handle, which may have other users and must outlive it; `options` may be null. It serves once
 * it has read the session tables (ebridged_get_stat()); requests written before that are answered then. It decides once
 * it has read the match rules; of rules written before that, those keys are published whose results are not what their
 * records say. 0, QZ_MOM_ENOMEM or what else the store says; *service is set on 0 only. */
int32_t ebridged_start(qz_mom_handle *handle, const ebridged_options *options, ebridged_service **service);
/* Ends it. Ids stay granted: the next service reads them from the sessions. Results stay in their records. Null is
 * allowed. */
void ebridged_stop(ebridged_service *service);
void ebridged_get_stat(const ebridged_service *service, ebridged_stat *stat);

#ifdef __cplusplus
}
#endif
#endif
