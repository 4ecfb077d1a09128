/* qz_mom_embedded.h - controls of the embedded store, for tests and tools; the library never includes it.
 *
 * The embedded store keeps its time by the masters of its handles: marks fire by the clock of the master of the oldest
 * open handle. With a driven clock (qz_thread.h) 1800 seconds of aging take no time.
 *
 * `name` is the NAME of "mem:NAME". Each function returns 0, QZ_MOM_EINVAL when no handle of that name is open, or the
 * code its comment names. Any thread.
 */
#ifndef QZ_MOM_EMBEDDED_H
#define QZ_MOM_EMBEDDED_H

#include "qz_mom.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Databases are numbered 0 to QZ_MOM_EMBEDDED_DATABASES - 1, as in a Redis server with its default configuration. */
enum { QZ_MOM_EMBEDDED_DATABASES = 16 };

/* Decides in which order the callbacks of different handles run (each handle keeps its own order). 0: as they came. The
 * same seed and the same calls give the same order. */
int32_t qz_mom_embedded_seed(const char *name, uint64_t seed);
/* Plays a lost connection: every handle's reconnect callbacks hear type 1, calls fail with QZ_MOM_EDOWN, and nothing is
 * delivered until it is restored; then they hear type 2 and all that was held back. Marks run on meanwhile. */
int32_t qz_mom_embedded_lose(const char *name);
int32_t qz_mom_embedded_restore(const char *name);
/* Puts bytes under a key text as some other program might have; nobody is notified. `as_hash` 1: one hash field 6. */
int32_t qz_mom_embedded_put_raw(const char *name, uint32_t db, const char *key, const void *bytes, size_t size,
                                int32_t as_hash);
/* Number of records in a database; negative code on failure. */
int32_t qz_mom_embedded_count(const char *name, uint32_t db);

#ifdef __cplusplus
}
#endif
#endif
