/* libddm.h - device data manager: the port table.
 *
 * A port is known by its interface index (ifx), by a physical id, and by chip unit and port number. A physical id has
 * its kind in the top byte and a number in the low 24 bits: 7 a port as the whole switch counts it (global), 8 a port
 * as its own card counts it (local), 12 an aggregate port. Aggregates have an ifx and a physical id, which is both
 * global and local, and no unit and port.
 *
 * Look-ups return 0, or LIBDDM_ENOENT and leave the out arguments alone; LIBDDM_EINVAL for a null out argument. They
 * take constant time and may come from any thread, but not while the table is being filled.
 */
#ifndef LIBDDM_H
#define LIBDDM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { LIBDDM_EINVAL = -1, LIBDDM_ENOENT = -2, LIBDDM_ENOMEM = -3, LIBDDM_EEXIST = -4 };

enum { LIBDDM_KIND_GLOBAL = 7, LIBDDM_KIND_LOCAL = 8, LIBDDM_KIND_AGGREGATE = 12 };

/* One row of the table. */
typedef struct libddm_port {
    uint32_t ifx;    /* interface index */
    uint32_t gphyid; /* kind 7 or 12 */
    uint32_t lphyid; /* kind 8; an aggregate repeats its gphyid */
    int32_t unit;    /* chip unit from 0, -1 for an aggregate */
    int32_t port;    /* port on the unit from 0, -1 for an aggregate */
} libddm_port;

/* Adds a copy of a row. EINVAL for a row that is not as described above, EEXIST when its ifx, one of its physical ids or
 * its unit and port are already there, ENOMEM; nothing is added then. */
int32_t libddm_table_add(const libddm_port *row);
/* Empties the table. */
void libddm_table_clear(void);
/* Rows in the table. */
uint32_t libddm_table_size(void);

/* Interface index to global physical id, and back (a local id is taken too). */
int32_t libddm_get_phyid_by_ifx(uint32_t ifx, uint32_t *phyid);
int32_t libddm_get_ifx_by_phyid(uint32_t phyid, uint32_t *ifx);
/* Global to local physical id, and back. */
int32_t libddm_get_lphyid_by_gphyid(uint32_t gphyid, uint32_t *lphyid);
int32_t libddm_get_gphyid_by_lphyid(uint32_t lphyid, uint32_t *gphyid);
/* Local physical id to chip unit and port (ENOENT for an aggregate), and back. */
int32_t libddm_get_unit_port_by_lphyid(uint32_t lphyid, int32_t *unit, int32_t *port);
int32_t libddm_get_lphyid_by_unit_port(int32_t unit, int32_t port, uint32_t *lphyid);

#ifdef __cplusplus
}
#endif
#endif
