/* libddm.h - device data manager: the port table.
 *
 * A port is known by its interface index (ifx), by a physical id, and by chip unit and port number. A physical id has
 * its kind in the top byte and a number in the low 24 bits: 7 a port as the whole switch counts it (global), 8 a port
 * as its own card counts it (local), 12 an aggregate port. Aggregates have an ifx and a physical id, which is both
 * global and local, and no unit and port.
 *
 * Look-ups return 0, or LIBDDM_ENOENT and leave the out arguments alone; LIBDDM_EINVAL for a null argument. They take
 * constant time, no memory, and may come from any thread, but not while the table is being filled, loaded or emptied.
 */
#ifndef LIBDDM_H
#define LIBDDM_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { LIBDDM_EINVAL = -1, LIBDDM_ENOENT = -2, LIBDDM_ENOMEM = -3, LIBDDM_EEXIST = -4, LIBDDM_EIO = -5 };

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

/* Fills the table from a file
 *
 * A file whose first character, blanks aside, is "{" is a switch configuration in JSON (config_db.json): its tables PORT,
 * PORTCHANNEL and PORTCHANNEL_MEMBER are read. Any other is a list of ports (port_config.ini): rows of fields between
 * blanks, of 4096 bytes at most; "#" at the beginning of a field makes the rest of its line a comment. A comment line that
 * has the words "name" and "lanes" names the columns of the rows below it; fields at the end of a row may be missing.
 *
 * Of a port name and lanes (numbers from 0 to 65535 with commas between them) are needed; alias, index and speed may be
 * there, and whatever else is skipped. No two ports have a name or a lane in common. A member of an aggregate is one of
 * the file's ports and member of one aggregate only.
 *
 * Each number is made of that port's own row, so that it stays the same whatever other rows come and go. LANE is the first
 * of its lanes; chips count their lanes, and a file describes one chip:
 *
 *                                 ifx              number of gphyid    number of lphyid    unit   port
 *   port "EthernetN"              1000000 + N      N + 1               0x400000 + LANE     0      LANE
 *   port of another name          3000000 + LANE   0x800000 + LANE     0x400000 + LANE     0      LANE
 *   aggregate "PortChannelN"      2000000 + N      N + 1               (its gphyid)        -1     -1
 *
 * N is 0 to 999999. No id has the number 0, which is what one has whose translation failed; and interface index, global
 * and local number of a port are never equal, so that who mixes them up notices.
 */

/* Bytes of the longest message, its final 0 included. */
enum { LIBDDM_ERROR_SIZE = 640 };

/* Replaces the table by the rows of a file, all of them or none: after a failure the table is what it was. EINVAL for a
 * file that makes no sense, or a null path; ENOENT for one that makes sense and has no ports and no aggregates; EIO for one
 * that cannot be read or is larger than 64 MiB; ENOMEM. `error` (null: no message) then gets one line without its end, cut
 * to `error_size` bytes: "FILE:LINE: what"; "FILE: what" when the file cannot be read; "out of memory". It is left alone
 * on success. */
int32_t libddm_table_load(const char *path, char *error, size_t error_size);

/* Name of a port or aggregate of the file, as it stands there, to interface index, and back. Rows that were added one by
 * one have no name. The name is the table's, until it is loaded anew or emptied. */
int32_t libddm_get_ifx_by_name(const char *name, uint32_t *ifx);
int32_t libddm_get_name_by_ifx(uint32_t ifx, const char **name);

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
