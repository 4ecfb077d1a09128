/* sw_ebridge.h - the extended-bridge library (libsw_bridge).
 *
 * Switch applications register as named users, obtain and release bridge ids (evlans, eports) from the allocator
 * service through session records in the message store, and hear what all other users obtain and release.
 *
 * Conventions
 *  1. Users. An application registers once per name with sw_ebridge_init(); a name has at most 31 characters. A process
 *     may hold several users. Only the first 31 characters of a name take part in a look-up.
 *  2. Results. int32_t codes: 0 success; -1 a table is missing or could not be made, or an item was not found; -2 bad
 *     argument or unknown user; -3 a platform registration failed; -4 no memory for callback arguments or a map item;
 *     -5 no memory for a record, or an id that the local database does not hold; -6, returned by a visitor of
 *     sw_ebridge_list_for_each(), stops that walk. Other negative values are the store client's (qz_mom.h), unchanged.
 *  3. Threads. The library takes no lock. In a process everything that touches it runs on one thread, that of the
 *     thread master of the users' store handle (qz_thread.h): callbacks, timers and shell handlers do by construction,
 *     other threads hand their calls over with qz_thread_call() or qz_thread_call_wait(). Initialisation comes first.
 *  4. Callbacks run on that thread. They may call the library, except to register a new user: many run inside a walk over
 *     the users. Their int32_t result is looked at only where said.
 *  5. Ownership. What is passed in is copied where it is kept, except callback arguments, which stay the caller's and
 *     must live as long as they may be used. What is returned belongs to the library; a record stays valid until it is
 *     deleted. Nothing that was made at initialisation is ever freed.
 *  6. Strings are NUL-terminated. The name "" is accepted. A null name is an unknown user.
 *  7. Null pointers are refused with -2 (or a null result) and a message, but for the containers, look-ups and deletions
 *     in the index map of eports, and small helpers, which are silent; nothing dereferences them.
 *  8. Slots. Registry, local databases and index maps exist six times, numbered 0 to 5 ("inst"). Calls without a slot
 *     number use slot 0; chip drivers use one slot per unit.
 *  9. Messages. Every failure is logged before the return, in a line that begins "Assert:" (a few older texts do not)
 *     and names its call site.
 * 10. Ids are unsigned 32-bit values: the type in the top byte, the number within the type in the low 24 bits. Record
 *     fields that hold one are int32_t; shifts and comparisons are done on the unsigned value.
 * 11. IPv4 words are in network byte order, in records, items and texts alike.
 */
#ifndef SW_EBRIDGE_H
#define SW_EBRIDGE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "p_libpub.pb-c.h"
#include "qz_mom.h"
#include "s_bridge.pb-c.h"
#include "u_bridge.pb-c.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    SW_EBRIDGE_NAME_SIZE = 32,   /* user name, terminator included */
    SW_EBRIDGE_SLOTS = 6,        /* tables of the registry, the local databases and the index maps */
    SW_EBRIDGE_APP_DB = 4,       /* store database of the applications ("app_db") */
    SW_EBRIDGE_UDP_DB = 8,       /* store database of the data plane ("udp_db") */
    SW_EBRIDGE_WALK_STOP = -6,   /* a visitor's result that stops sw_ebridge_list_for_each() */
    SW_EBRIDGE_ERR_RECORDS = 5,  /* length of an error ring */
    SW_EBRIDGE_RELEASE_EVENT = 2 /* event of the release callbacks: the session is gone */
};

/* Link of a circular doubly linked list; a link that is on no list points at itself. */
typedef struct sw_list_head {
    struct sw_list_head *next;
    struct sw_list_head *prev;
} sw_list_head;

/* A callback given for a scan or a subscription: called with the store handle, the notification and the argument given
 * beside it, before the library applies the change. */
typedef qz_mom_msg_cb sw_ebridge_mom_func;

/* ---- users: arguments and instance record ----------------------------------------------------------------------- */

struct sw_vlan_pvid_entry;

/* Keys, ids and names given to these callbacks live until they return.
 * A VLAN (or routed subinterface) was granted: `vlan_id` is the number. A request of the user's own that was refused, of
 * whatever type, comes with -1, and to both callbacks that follow. */
typedef int32_t (*sw_vlan_reply_func)(UBridge__VlanAppIndex *index, int32_t vlan_id);
/* An evlan of another type was granted; evlan_id -1 when a request was refused. */
typedef int32_t (*sw_evlan_reply_func)(UBridge__EvlanAppIndex *app, UBridge__EvlanIndex *evlan);
typedef int32_t (*sw_eport_reply_func)(UBridge__EportAppIndex *app, UBridge__EportIndex *eport);
/* A session was removed or expired; event is SW_EBRIDGE_RELEASE_EVENT. */
typedef int32_t (*sw_evlan_release_reply_func)(UBridge__EvlanAppIndex *app, UBridge__EvlanIndex *evlan, int32_t event);
typedef int32_t (*sw_eport_release_reply_func)(UBridge__EportAppIndex *app, UBridge__EportIndex *eport, int32_t event);
typedef int32_t (*sw_ematch_reply_func)(UBridge__EmatchEntry *entry);
/* The default VLAN of a port changed. -6 keeps it from the users after this one. */
typedef int32_t (*sw_pvid_change_func)(uint32_t ifx, uint16_t new_pvid, uint16_t old_pvid,
                                       struct sw_vlan_pvid_entry *change);
typedef int32_t (*sda_evlan_func)(uint32_t unit, UBridge__EvlanIndex *evlan, SBridge__EvlanSdkIndex *sdk);
typedef int32_t (*sda_eport_func)(uint32_t unit, UBridge__EportIndex *eport, UBridge__EportSdkIndex *sdk);
typedef int32_t (*sda_vlan_port_change_func)(uint32_t unit, uint32_t vid, uint32_t lphyid, uint32_t op);
typedef int32_t (*sda_vlan_fid_change_func)(uint32_t unit, uint32_t vid, uint32_t old_fid, uint32_t new_fid);

/* Arguments of sw_ebridge_init(), read during the call only. Zero it, then set what is wanted; every callback may be
 * null. */
typedef struct ebridge_args {
    const char *user_name;      /* mandatory, shorter than 32 characters */
    qz_mom_handle *handle;      /* store handle of the user; must outlive the process's use of the library */
    uint32_t mom_db;            /* the user's own database: sessions, port VLANs, congestion; 0 none */
    uint32_t evlan_attr_mom_db; /* database of evlan attribute records */
    uint32_t eport_attr_mom_db; /* database of eport attribute records */
    uint32_t ematch_mom_db;     /* database of match rules */
    uint8_t auto_subscribe;     /* non-zero: connect, subscribe and scan by itself, see sw_ebridge_init() */
    uint8_t auto_scan;          /* non-zero: the same */
    uint32_t evlan_data_type;   /* whose evlans: 0 own only; 2 all; odd: VLANs of all; other even: none */
    uint32_t eport_data_type;   /* whose eports: 0 own only; 1 all; other: none */
    sw_vlan_reply_func vlan_reply;
    sw_evlan_reply_func evlan_reply;
    sw_eport_reply_func eport_reply;
    sw_evlan_release_reply_func evlan_release_reply;
    sw_eport_release_reply_func eport_release_reply;
    sw_ematch_reply_func ematch_reply;
    sw_pvid_change_func pvid_change;
    sda_evlan_func sda_evlan_create;
    void *reserved_evlan; /* copied, never called */
    sda_evlan_func sda_evlan_destroy;
    sda_eport_func sda_eport_create;
    void *reserved_eport; /* copied, never called */
    sda_eport_func sda_eport_destroy;
    sda_vlan_port_change_func sda_vlan_port_change;
    sda_vlan_fid_change_func sda_vlan_fid_change;
} ebridge_args;

/* Instance record of a user: written at initialisation, read by all other calls. */
typedef struct sw_ebridge_list_item {
    char user_name[SW_EBRIDGE_NAME_SIZE]; /* key, NUL-padded */
    qz_mom_handle *mom_handle;
    uint32_t mod_db; /* ebridge_args.mom_db */
    uint32_t evlan_attr_mom_db;
    uint32_t eport_attr_mom_db;
    uint32_t ematch_mom_db;
    uint32_t evlan_data_type;
    uint32_t eport_data_type;
    uint32_t auto_subscribe;
    uint32_t auto_scan;
    sw_vlan_reply_func vlan_reply;
    sw_evlan_reply_func evlan_reply;
    sw_eport_reply_func eport_reply;
    sw_evlan_release_reply_func evlan_release_reply;
    sw_eport_release_reply_func eport_release_reply;
    sw_ematch_reply_func ematch_reply;
    sw_pvid_change_func pvid_change;
    sda_evlan_func sda_evlan_create;
    void *reserved_evlan;
    sda_evlan_func sda_evlan_destroy;
    sda_eport_func sda_eport_create;
    void *reserved_eport;
    sda_eport_func sda_eport_destroy;
    sda_vlan_port_change_func sda_vlan_port_change;
    sda_vlan_fid_change_func sda_vlan_fid_change;
    sw_ebridge_mom_func subscribe_callback; /* match rules: who hears of the subscription */
    void *subscribe_args;
    sw_ebridge_mom_func scan_callback; /* match rules: who hears of the scan's end */
    void *scan_args;
    void *mom_ds_args[8];    /* callback argument pairs, see sw_evlan_get_mom_ds_args(); the first four are eport's */
    sw_list_head eport_maps; /* the user's eport index map items */
    sw_list_head evlan_maps; /* the user's evlan index map items */
    uint8_t age_timer_armed; /* 1 while the age timer is pending */
    int32_t stat;            /* age timers armed so far */
} sw_ebridge_list_item;

/* ---- evlan records ---------------------------------------------------------------------------------------------- */

/* Ports of a VLAN, bit i of word w standing for port w * 32 + i. Printed only: never allocated or freed here. */
typedef struct sw_vlan_ports {
    uint32_t port[17];
    uint32_t untag_port[17];
    uint32_t flooding_port[17];
    uint32_t apport[8]; /* aggregate ports */
    uint32_t untag_apport[8];
    uint32_t flooding_apport[8];
} sw_vlan_ports;

/* Attributes of an evlan as one user holds them: argument of the attribute calls and record of the local database. */
typedef struct sw_evlan_attr {
    char user_name[SW_EBRIDGE_NAME_SIZE]; /* key, NUL-padded */
    uint32_t evlan_id;                    /* key */
    uint32_t attr_flags;                  /* copied and compared, never merged or printed */
    uint32_t class_id;
    uint32_t type; /* evlan type of the attributes: decides which view is copied */
    union {
        struct {
            int32_t fid; /* filtering database */
            bool svl;    /* shared VLAN learning */
        } underlay;      /* VLAN and L3INTF_SUB */
        struct {
            int32_t vnid;
            int32_t mcid;
            int32_t uucid;
            int32_t bcid;
            int32_t l3iif;
            int32_t mapping_vni;
            int32_t mapping_evlan;
            uint32_t ing_flex_cnt_id;
            uint32_t egr_flex_cnt_id;
        } overlay; /* all other types */
        uint32_t words[9];
    } attr;
    sw_vlan_ports *ports; /* or null */
    sw_list_head link;
} sw_evlan_attr;

/* Direction of an index map item. */
enum sw_index_map_kind {
    SW_INDEX_MAP_APP2UDP = 0, /* application key to bridge id */
    SW_INDEX_MAP_UDP2APP = 1,
    SW_INDEX_MAP_UDP2SDK = 2, /* bridge id to chip key */
    SW_INDEX_MAP_SDK2UDP = 3
};

/* Bits of ds_flag. */
enum {
    SW_INDEX_MAP_GRANTED = 1,  /* filled from a granted reply */
    SW_INDEX_MAP_REQUESTED = 2 /* the application has an active request for it */
};

/* Item of the evlan index map. Key words that a kind does not use are 0.
 *   kind 0: key type, keyid       value evlan_id
 *   kind 1: key evlan_id          value type, keyid
 *   kind 2: key evlan_id          value SDK type, vsi, vid
 *   kind 3: key SDK type, vsi, vid   value evlan_id */
typedef struct sw_evlan_index_map {
    uint32_t kind; /* enum sw_index_map_kind */
    uint32_t key[3];
    uint32_t value[3];
    uint32_t session_arg; /* database that the session reply came from */
    uint32_t priority;    /* UBridge__ResPriority of the answered request */
    char user_name[SW_EBRIDGE_NAME_SIZE];
    uint32_t ds_flag;  /* SW_INDEX_MAP_* bits */
    sw_list_head link; /* in the owner's list of map items */
} sw_evlan_index_map;

/* ---- eport, match rule and pvid records ------------------------------------------------------------------------- */

/* IP address of an attribute record. */
typedef struct sw_ebridge_ip {
    uint8_t address[16]; /* IPv4 in the first four bytes */
    uint32_t is_ipv6;
} sw_ebridge_ip;

/* Attributes of an eport as one user holds them. The two views share storage: VLAN bitmaps exist on underlay eports
 * only (PORT, LOCAL_PORT, AP). */
typedef struct sw_eport_attr {
    char user_name[SW_EBRIDGE_NAME_SIZE]; /* key, NUL-padded */
    uint32_t eport_id;                    /* key */
    uint32_t attr_flags;                  /* copied and compared only */
    uint32_t attr_flags2;                 /* copied and compared only */
    uint32_t vlan_filter;                 /* UBridge__VlanFilterType */
    union {
        struct {
            uint16_t pvid;
            uint16_t carried16;
            uint32_t vt_key;
            uint32_t carried32;
            uint32_t vbmp[128];  /* member VLANs, bit v % 32 of word v / 32 */
            uint32_t ubmp[128];  /* untagged VLANs */
            uint32_t mcbmp[128]; /* multicast VLANs */
        } underlay;
        struct {
            uint32_t match_vid;
            uint32_t match_port;
            uint32_t nhop;
            uint32_t mpath_flag;
            uint32_t encap;
            uint32_t dip;
            uint32_t peer_mode;
            uint32_t evlan_id; /* pseudowires: peer_eport_id */
            uint32_t split_horizon;
            uint32_t mtu;
            uint32_t class_id;
            uint32_t match_inner_vid;
            uint32_t egr_vlan_action;
            uint32_t ovid;
            uint32_t ing_flex_cnt_id;
            uint32_t egr_flex_cnt_id;
            sw_ebridge_ip sip;
            uint8_t is_tagged;
        } overlay;
    } attr;
} sw_eport_attr;

/* Item of the eport index map.
 *   kind 0: key type, keyid1, keyid2   value eport_id
 *   kind 1: key eport_id               value type, keyid1, keyid2
 *   kind 2: key eport_id               value SDK type, vport
 *   kind 3: key 0, vport               value eport_id */
typedef struct sw_eport_index_map {
    uint32_t kind;
    uint32_t key[4];
    uint32_t value[3];
    uint32_t carried[2]; /* copied on update */
    uint32_t priority;
    char user_name[SW_EBRIDGE_NAME_SIZE];
    uint32_t ds_flag;
    sw_list_head link;
} sw_eport_index_map;

/* A match rule of one user. All before action_type is the key, compared byte by byte: zero the item before it is built.
 */
typedef struct sw_ematch_item {
    sw_ebridge_list_item *user;
    int32_t match_type;
    uint32_t match_flag;
    int32_t match_priority; /* 0 to 7 */
    int32_t evlan1;
    int32_t evlan2;
    int32_t eport;
    uint32_t ipv4;
    int32_t vnid;
    int32_t label;
    uint32_t ip_mask;
    uint8_t mac[8]; /* 6 bytes and 2 zero bytes */
    uint32_t frame_type;
    uint32_t ether_type;
    uint8_t ip[16];
    uint32_t ip_ver; /* 0 IPv4, 1 IPv6 */
    int32_t match_id;
    uint8_t mask[8]; /* 6 bytes and 2 zero bytes */
    int32_t action_type;
    int32_t new_evlan1;
    int32_t new_evlan2;
    int32_t new_eport;
    int32_t new_vnid;
    int32_t new_pri;
    int32_t l3_iif;
    int32_t flag;
    int32_t result;         /* as it came in the entry */
    uint32_t mom_db;        /* where the user's record lives */
    int32_t current_result; /* last published */
    int32_t final_result;   /* last calculated */
} sw_ematch_item;

/* Default VLAN of a port; also the change record of the pvid_change callback, each user's own and gone after it. */
typedef struct sw_vlan_pvid_entry {
    uint32_t ifx; /* key: interface index */
    uint16_t new_pvid;
    uint16_t old_pvid; /* before the last change */
} sw_vlan_pvid_entry;

/* ---- hash containers --------------------------------------------------------------------------------------------- *
 * sw_switch_hash: a chained table of item pointers with the caller's hash and compare functions. It never frees an
 * item. A null table is an empty one, to which an insertion gives -2; so does a null item, and a null key is not found.
 */

typedef uint32_t (*sw_switch_hash_func)(const void *item_or_key);
typedef int32_t (*sw_switch_compare_func)(const void *item, const void *key); /* 0 when equal */
typedef int32_t (*sw_switch_visitor)(void *item, void *arg);

typedef struct sw_switch_hash_node {
    sw_list_head all;    /* in the list of all items */
    sw_list_head bucket; /* in its bucket */
    void *item;
} sw_switch_hash_node;

typedef struct sw_switch_hash {
    uint32_t bucket_count;
    uint32_t item_count;
    uint32_t warning_threshold; /* items in one bucket above which an insertion prints a warning; 0 off */
    uint8_t *bucket_items;      /* items per bucket, wrapping at 256 */
    sw_list_head *buckets;
    sw_list_head all;
    sw_switch_hash_func hash;
    sw_switch_compare_func compare;
} sw_switch_hash;

/* A table for `expected` items (expected / 0.75 buckets; 0: 1365 buckets), or null: no memory, a negative count, or a
 * null function. */
sw_switch_hash *sw_switch_create_hash(int32_t expected, sw_switch_hash_func hash, sw_switch_compare_func compare);
/* Adds an item first (or last) in its bucket and in the list of all items; equal items may repeat. 0, -12 without
 * memory, -2 null. */
int32_t sw_switch_hash_insert_item(sw_switch_hash *table, void *item);
int32_t sw_switch_hash_insert_item_tail(sw_switch_hash *table, void *item);
/* The first item of the key's bucket that compares equal, or null. */
void *sw_switch_hash_find_item(sw_switch_hash *table, const void *key);
/* The same under a second name. */
void *sw_switch_hash_get_all_item(sw_switch_hash *table, const void *key);
/* Removes that item's node; the item is the caller's to free. _rt: 0, or -1 when none matched. */
void sw_switch_hash_del_item(sw_switch_hash *table, const void *key);
int32_t sw_switch_hash_del_item_rt(sw_switch_hash *table, const void *key);
/* Visits all items in list order until a visitor's result is not 0, and returns that (else 0). A visitor may delete the
 * item that it is given. */
int32_t sw_switch_hash_each_item_op(sw_switch_hash *table, sw_switch_visitor visitor, void *arg);
/* The same over buckets `first` to first + count - 1, as far as they exist. */
int32_t sw_switch_hash_each_item_op_with_index(sw_switch_hash *table, int32_t first, uint32_t count,
                                               sw_switch_visitor visitor, void *arg);
/* The first item for which the matcher returns 0, or null. */
void *sw_switch_hash_find_item_op(sw_switch_hash *table, sw_switch_visitor matcher, void *arg);
/* Number of buckets. */
uint32_t sw_switch_hash_get_table_size(const sw_switch_hash *table);
/* Frees the table; nodes that are still in it are not freed. */
void sw_switch_destroy_hash(sw_switch_hash *table);

/* Keyed caches: open-addressing sets of record pointers, one family per record type. The key is the first bytes of the
 * record. For each family:
 *   _hash_init                 makes that many empty tables, or keeps those that there are: 0; -1 without memory, and
 *                              then nothing is left behind
 *   _hash_insert               stores the pointer unless an equal key is stored; 0, also when there was no memory
 *   _hash_remove               takes the record of that key out; the record itself is not freed
 *   _hash_find                 the stored record, or null
 *   _hash_traverse             visits the records in bucket order until a result is not 0, and returns that; else 0
 *   _hash_traverse_with_index  the same over `count` buckets from `first` on; nothing when first is negative
 *   _hash_size                 number of records
 *   _cache_create              copies the record over a stored one of the same key, or stores a copy of it;
 *                              *stored takes the stored record, null when nothing could be stored
 *   _cache_destroy             removes the record of that key and frees it
 * A table that does not exist is empty. Tables grow as needed and never shrink. A visitor may remove the record that it
 * is given, and must not insert. Records that the library itself stores may be on lists: they are deleted by its calls
 * (_delete_item), not here. */

/* users of a table (six tables), key: user name, 32 bytes */
typedef int32_t (*sw_ebridge_list_item_visitor)(sw_ebridge_list_item *record, void *arg, int32_t position);
int32_t sw_ebridge_list_item_hash_init(uint32_t tables);
int32_t sw_ebridge_list_item_hash_insert(uint32_t table, sw_ebridge_list_item *record);
void sw_ebridge_list_item_hash_remove(uint32_t table, const sw_ebridge_list_item *key);
sw_ebridge_list_item *sw_ebridge_list_item_hash_find(uint32_t table, const sw_ebridge_list_item *key);
int32_t sw_ebridge_list_item_hash_traverse(uint32_t table, sw_ebridge_list_item_visitor visitor, void *arg);
int32_t sw_ebridge_list_item_hash_traverse_with_index(uint32_t table, int32_t first, uint32_t count,
                                                      sw_ebridge_list_item_visitor visitor, void *arg);
uint32_t sw_ebridge_list_item_hash_size(uint32_t table);
void sw_ebridge_list_item_cache_create(uint32_t table, sw_ebridge_list_item **stored,
                                       const sw_ebridge_list_item *record);
void sw_ebridge_list_item_cache_destroy(uint32_t table, const sw_ebridge_list_item *key);

/* evlan attribute records (six tables), key: user name and evlan_id, 36 bytes */
typedef int32_t (*sw_evlan_visitor)(sw_evlan_attr *record, void *arg, int32_t position);
int32_t sw_evlan_hash_init(uint32_t tables);
int32_t sw_evlan_hash_insert(uint32_t table, sw_evlan_attr *record);
void sw_evlan_hash_remove(uint32_t table, const sw_evlan_attr *key);
sw_evlan_attr *sw_evlan_hash_find(uint32_t table, const sw_evlan_attr *key);
int32_t sw_evlan_hash_traverse(uint32_t table, sw_evlan_visitor visitor, void *arg);
int32_t sw_evlan_hash_traverse_with_index(uint32_t table, int32_t first, uint32_t count, sw_evlan_visitor visitor,
                                          void *arg);
uint32_t sw_evlan_hash_size(uint32_t table);
void sw_evlan_cache_create(uint32_t table, sw_evlan_attr **stored, const sw_evlan_attr *record);
void sw_evlan_cache_destroy(uint32_t table, const sw_evlan_attr *key);

/* eport attribute records (six tables), key: user name and eport_id, 36 bytes */
typedef int32_t (*sw_eport_visitor)(sw_eport_attr *record, void *arg, int32_t position);
int32_t sw_eport_hash_init(uint32_t tables);
int32_t sw_eport_hash_insert(uint32_t table, sw_eport_attr *record);
void sw_eport_hash_remove(uint32_t table, const sw_eport_attr *key);
sw_eport_attr *sw_eport_hash_find(uint32_t table, const sw_eport_attr *key);
int32_t sw_eport_hash_traverse(uint32_t table, sw_eport_visitor visitor, void *arg);
int32_t sw_eport_hash_traverse_with_index(uint32_t table, int32_t first, uint32_t count, sw_eport_visitor visitor,
                                          void *arg);
uint32_t sw_eport_hash_size(uint32_t table);
void sw_eport_cache_create(uint32_t table, sw_eport_attr **stored, const sw_eport_attr *record);
void sw_eport_cache_destroy(uint32_t table, const sw_eport_attr *key);

/* match rules (one table), key: all before action_type, 92 bytes on the 32-bit target */
typedef int32_t (*sw_ematch_item_visitor)(sw_ematch_item *record, void *arg, int32_t position);
int32_t sw_ematch_item_hash_init(uint32_t tables);
int32_t sw_ematch_item_hash_insert(uint32_t table, sw_ematch_item *record);
void sw_ematch_item_hash_remove(uint32_t table, const sw_ematch_item *key);
sw_ematch_item *sw_ematch_item_hash_find(uint32_t table, const sw_ematch_item *key);
int32_t sw_ematch_item_hash_traverse(uint32_t table, sw_ematch_item_visitor visitor, void *arg);
int32_t sw_ematch_item_hash_traverse_with_index(uint32_t table, int32_t first, uint32_t count,
                                                sw_ematch_item_visitor visitor, void *arg);
uint32_t sw_ematch_item_hash_size(uint32_t table);
void sw_ematch_item_cache_create(uint32_t table, sw_ematch_item **stored, const sw_ematch_item *record);
void sw_ematch_item_cache_destroy(uint32_t table, const sw_ematch_item *key);

/* evlan index map (six tables), key: kind and key words, 16 bytes */
typedef int32_t (*sw_evlan_index_map_visitor)(sw_evlan_index_map *record, void *arg, int32_t position);
int32_t sw_evlan_index_map_hash_init(uint32_t tables);
int32_t sw_evlan_index_map_hash_insert(uint32_t table, sw_evlan_index_map *record);
void sw_evlan_index_map_hash_remove(uint32_t table, const sw_evlan_index_map *key);
sw_evlan_index_map *sw_evlan_index_map_hash_find(uint32_t table, const sw_evlan_index_map *key);
int32_t sw_evlan_index_map_hash_traverse(uint32_t table, sw_evlan_index_map_visitor visitor, void *arg);
int32_t sw_evlan_index_map_hash_traverse_with_index(uint32_t table, int32_t first, uint32_t count,
                                                    sw_evlan_index_map_visitor visitor, void *arg);
uint32_t sw_evlan_index_map_hash_size(uint32_t table);
void sw_evlan_index_map_cache_create(uint32_t table, sw_evlan_index_map **stored, const sw_evlan_index_map *record);
void sw_evlan_index_map_cache_destroy(uint32_t table, const sw_evlan_index_map *key);

/* eport index map (six tables), key: kind and key words, 20 bytes */
typedef int32_t (*sw_eport_index_map_visitor)(sw_eport_index_map *record, void *arg, int32_t position);
int32_t sw_eport_index_map_hash_init(uint32_t tables);
int32_t sw_eport_index_map_hash_insert(uint32_t table, sw_eport_index_map *record);
void sw_eport_index_map_hash_remove(uint32_t table, const sw_eport_index_map *key);
sw_eport_index_map *sw_eport_index_map_hash_find(uint32_t table, const sw_eport_index_map *key);
int32_t sw_eport_index_map_hash_traverse(uint32_t table, sw_eport_index_map_visitor visitor, void *arg);
int32_t sw_eport_index_map_hash_traverse_with_index(uint32_t table, int32_t first, uint32_t count,
                                                    sw_eport_index_map_visitor visitor, void *arg);
uint32_t sw_eport_index_map_hash_size(uint32_t table);
void sw_eport_index_map_cache_create(uint32_t table, sw_eport_index_map **stored, const sw_eport_index_map *record);
void sw_eport_index_map_cache_destroy(uint32_t table, const sw_eport_index_map *key);

/* port default VLANs (one table), key: interface index, 4 bytes */
typedef int32_t (*sw_vlan_pvid_entry_visitor)(sw_vlan_pvid_entry *record, void *arg, int32_t position);
int32_t sw_vlan_pvid_entry_hash_init(uint32_t tables);
int32_t sw_vlan_pvid_entry_hash_insert(uint32_t table, sw_vlan_pvid_entry *record);
void sw_vlan_pvid_entry_hash_remove(uint32_t table, const sw_vlan_pvid_entry *key);
sw_vlan_pvid_entry *sw_vlan_pvid_entry_hash_find(uint32_t table, const sw_vlan_pvid_entry *key);
int32_t sw_vlan_pvid_entry_hash_traverse(uint32_t table, sw_vlan_pvid_entry_visitor visitor, void *arg);
int32_t sw_vlan_pvid_entry_hash_traverse_with_index(uint32_t table, int32_t first, uint32_t count,
                                                    sw_vlan_pvid_entry_visitor visitor, void *arg);
uint32_t sw_vlan_pvid_entry_hash_size(uint32_t table);
void sw_vlan_pvid_entry_cache_create(uint32_t table, sw_vlan_pvid_entry **stored, const sw_vlan_pvid_entry *record);
void sw_vlan_pvid_entry_cache_destroy(uint32_t table, const sw_vlan_pvid_entry *key);

/* ---- initialisation and registry -------------------------------------------------------------------------------- */

/* Registers a user in table 0: sw_ebridge_init_inst(0, args). */
int32_t sw_ebridge_init(const ebridge_args *args);
/* Sets up logging, registers the user, and makes the process-wide tables when they are missing. With mom_db it opens
 * the congestion connection on that database. With auto_subscribe or auto_scan it opens the data connection - on
 * database 8 when evlan_data_type or eport_data_type is set, else on mom_db - and follows reconnections (on database 8
 * only when both types are set, else on mom_db). When the data connection is up, the session tables are subscribed, and
 * scanned once all subscriptions are confirmed. The words that say which databases are up and which subscriptions are
 * confirmed are process-wide and never cleared. Users of one process on different databases, or with different sets of
 * callbacks, therefore do not all reach the scan: keep the users of a process alike, or set both automatic flags to 0
 * and subscribe and scan by hand. With n subscribed users in a process each change is applied n times. Subscribe
 * through one of them. A second call for a name replaces the user's settings and returns 0; nothing else is done again,
 * and map items linked to the user's lists leave them: aging no longer meets them. A subscription that was made before stays in the store: one made
 * after the second call is another, and the user hears each change twice. 0; -2 bad argument; -1 tables; -3 reconnect
 * handler; -5 the table does not exist or no memory for the record; or the store's code. A failure undoes nothing. */
int32_t sw_ebridge_init_inst(uint32_t table, const ebridge_args *args);

/* Makes the six tables of the registry on the first call. 0; -1 if one is missing. */
int32_t sw_ebridge_list_init(void);
sw_ebridge_list_item *sw_ebridge_list_item_get_inst(uint32_t table, const char *user_name);
sw_ebridge_list_item *sw_ebridge_list_item_get(const char *user_name);
/* Stores a copy of the record, over an existing one of its name, with empty lists. 0; -2 null; -5 not stored. */
int32_t sw_ebridge_list_add_inst(uint32_t table, const sw_ebridge_list_item *record);
int32_t sw_ebridge_list_add(const sw_ebridge_list_item *record);
/* Visits the users of a table until a visitor returns -6. 0; -1 no such table; -2 null visitor. */
int32_t sw_ebridge_list_for_each(uint32_t table, sw_ebridge_list_item_visitor visitor, void *arg);
/* Prints every user of every table. */
int32_t sw_ebridge_list_item_ut_dump(void);
/* Makes the registry and the local databases, and registers a blank user of that name (may be null) if there is none.
 */
int32_t sw_ebridge_attr_db_init(uint32_t table, const char *user_name);
/* Makes the index maps. 0 or -1. */
int32_t sw_ebridge_map_db_init(uint32_t table);

/* ---- store sessions --------------------------------------------------------------------------------------------- */

/* Argument of a connection request; owned by the callback once the request is accepted. */
typedef struct sw_ebridge_connecting_args {
    uint32_t args; /* flag of the database: 0x1000000 for database 4, 0x2000000 for any other */
    void *args2;   /* the request's own block: user name and flags */
} sw_ebridge_connecting_args;

/* Callbacks of the store client; called by it, and by tests. */
int32_t sw_ebridge_mom_connected_callback(qz_mom_handle *handle, void *connecting_args);
int32_t sw_ebridge_mom_subscribed_callback(qz_mom_handle *handle, const qz_mom_notification *msg, void *args);
int32_t sw_ebridge_mom_reconnect_cb(qz_mom_handle *handle, uint32_t db, int32_t type, void *instance);
/* Registers the reconnect handler of a user. 0, -2, -3. */
int32_t sw_bridge_reg_reconnect(const char *user_name);
/* Subscribes by hand what the user has callbacks for: evlans and eports in its own database, and the table of default
 * VLANs. 0, -2. */
int32_t sw_ebridge_data_subscribe(const char *user_name);

/* ---- congestion ------------------------------------------------------------------------------------------------- */

int32_t sw_ebridge_mom_connected_for_congestion_callback(qz_mom_handle *handle, void *connecting_args);
/* Registers the user as producer of evlan sessions, eport sessions and port pvids. 0; -2; -4 no memory; or the
 * congestion library's code. */
int32_t sw_ebridge_congestion_init(const char *user_name);
/* Registers `module` as producer of port VLANs on a database of `handle`, for programs that publish them in bulk; the
 * library itself does not call it. 0; -3 when the congestion library refuses. */
int32_t sw_ebridge_port_vlans_congest(qz_mom_handle *handle, uint32_t db, const char *module);

/* ---- logging ---------------------------------------------------------------------------------------------------- */

/* Levels: 0 off, 1 errors, 2 warnings, 4 info, 5 and more debug. Plain words, read without a lock. */
extern uint32_t g_sw_vlan_file_zlog_level;
extern uint32_t g_sw_vlan_std_zlog_level;
struct qz_zlog_category;
extern struct qz_zlog_category *g_sw_vlan_file_zlog_category;
extern struct qz_zlog_category *g_sw_vlan_std_zlog_category;

/* Reads the levels from the debug file (text such as 0x17: file level 1, standard output level 7) and opens the two
 * categories. Without a file: file 1, standard output 0; an empty file: 4 and 4. 0. */
int32_t sw_vlan_debug_init(const char *user_name, const char *path);
/* The same for the user of `args` with "/etc/libvlan_<user>_dbg", and registers the debug-shell commands; neither where
 * logging is set up already. 0; -2 null. */
int32_t lib_vlan_debug_init(const ebridge_args *args);
/* Prints both levels, sets them, and logs a line at each level that is open now. 0. */
int32_t sw_switch_vlan_logging_set(int32_t file_level, int32_t std_level);
/* Sends descriptors 0, 1 and 2 into /data/collect/<name>.log; only if that folder is made by this call. 0 or negative.
 */
int32_t sw_bridge_logging_redirect2collectfile(const char *name);
/* Brings the saved standard output back, on descriptors 0, 1 and 2. 0. */
int32_t sw_bridge_logging_redirect2std(void);

/* ---- evlan: ids and local database ------------------------------------------------------------------------------ */

/* 1 for VLAN and L3INTF_SUB, else 0. */
int32_t sw_evlan_type_underlay(uint32_t evlan_type);
int32_t sw_evlan_id_underlay(uint32_t evlan_id);

int32_t sw_evlan_db_init(void);
/* Zeroes the record and sets its key. */
void sw_evlan_init(sw_evlan_attr *record, const char *user_name, uint32_t evlan_id);
/* Record of (user, evlan_id), or null; the user must be registered in the slot. */
sw_evlan_attr *sw_evlan_db_get_item(uint32_t inst, const char *user_name, uint32_t evlan_id);
/* Existing or new record; of `record` only the evlan_id is read, so a new one has all attributes 0. Null: unknown user
 * or no memory. _new sets *created to 1 when it made one, and leaves it alone otherwise. */
sw_evlan_attr *sw_evlan_db_insert_item(uint32_t inst, const char *user_name, const sw_evlan_attr *record);
sw_evlan_attr *sw_evlan_db_insert_item_new(uint32_t inst, const char *user_name, const sw_evlan_attr *record,
                                           uint8_t *created);
void sw_evlan_db_delete_item(uint32_t inst, const char *user_name, uint32_t evlan_id);
/* The same as the inserts, after making sure that the databases exist and the user is registered. */
sw_evlan_attr *sw_evlan_attr_db_verify(uint32_t inst, const UBridge__EvlanIndex *index);
sw_evlan_attr *sw_evlan_attr_db_verify_new(uint32_t inst, const UBridge__EvlanIndex *index, uint8_t *created);
/* Copies attr_flags, class_id, type and the view that src's type names. 0; -2 for null, or for an underlay source with
 * ports (after the copy). */
int32_t sw_evlan_attr_copy(sw_evlan_attr *dst, const sw_evlan_attr *src);
/* 0 equal; other when attr_flags, class_id, type or any of the nine attribute words differ; -2 null. */
int32_t sw_evlan_attr_cmp(const sw_evlan_attr *a, const sw_evlan_attr *b);
/* The evlan as all users of slot 0 hold it together, or null when none does. One static record: valid until the next
 * merge. */
sw_evlan_attr *sw_evlan_attr_merge(uint32_t evlan_id);

/* Arguments of the dump visitors; zero it, then set the filters. */
typedef struct sw_ebridge_dump_args {
    uint32_t type; /* only this type; 0 any */
    uint32_t id;   /* only this id; 0 any */
    uint32_t reserved[3];
    uint32_t count;        /* records printed so far */
    const char *user_name; /* only this user; null any */
    void *reserved2;
} sw_ebridge_dump_args;

int32_t sw_evlan_attr_db_ut_dump_op(sw_evlan_attr *record, void *dump_args, int32_t position);
int32_t sw_evlan_attr_db_ut_dump(int32_t evlan_type, uint32_t evlan_id);
int32_t sda_evlan_attr_db_ut_dump(int32_t evlan_type, uint32_t evlan_id);
int32_t sw_vlan_attr_db_ut_dump(int32_t vid);
/* db_type 0 prints all, 1 the local database, 2 the index map. */
int32_t sw_evlan_db_ut_dump(int32_t db_type, int32_t evlan_type, uint32_t evlan_id);
int32_t sw_vlan_db_ut_dump(int32_t db_type, int32_t vid);

/* ---- evlan: index map ------------------------------------------------------------------------------------------- */

int32_t sw_evlan_index_map_db_init(void);
/* Zero the key of an item and set it: kind 0 from a message whose first field is a UBridge__EvlanAppIndex (an evlan
 * session), kind 1 from an evlan_id. */
void sw_evlan_index_map_init_appkey(sw_evlan_index_map *item, const UBridge__EvlanSession *session);
void sw_evlan_index_map_init_udpkey(sw_evlan_index_map *item, uint32_t evlan_id);
sw_evlan_index_map *sw_evlan_index_map_get_item(uint32_t inst, const sw_evlan_index_map *key);
/* Stores a copy at the head of its user's list. Null without memory. */
sw_evlan_index_map *sw_evlan_index_map_create_item(uint32_t inst, const sw_evlan_index_map *item);
/* Replaces values, user, session_arg and priority of a stored item (not ds_flag), or creates it. */
sw_evlan_index_map *sw_evlan_index_map_update_item(uint32_t inst, const sw_evlan_index_map *item);
/* 0, also when absent; -2 bad argument. */
int32_t sw_evlan_index_map_delete_item(uint32_t inst, const sw_evlan_index_map *key);
/* Translations in slot 0. 0 found (evlan_id 0: requested, not granted yet); -1 not mapped; -2 null. */
int32_t sw_evlan_app2udp(const UBridge__EvlanAppIndex *app, UBridge__EvlanIndex *out);
int32_t sw_evlan_udp2app(const UBridge__EvlanIndex *index, UBridge__EvlanAppIndex *out);
int32_t sw_evlan_index_map_dump_op(sw_evlan_index_map *item, void *dump_args, int32_t position);
int32_t sw_evlan_res_db_ut_dump(uint32_t type, uint32_t id);
int32_t sw_vlan_res_db_ut_dump(int32_t vid);

/* ---- evlan: request, release, reply ----------------------------------------------------------------------------- */

/* Asks for an evlan id under the key (type, keyid) of `app_index`, whose t_user is the requester. `request_value` 0:
 * any id of the type; else the id wanted, type in its top byte. The answer comes to the callbacks of the users that
 * follow the sessions. 0; -2 bad argument; -4 no memory; or the store's code (the key then stays marked as requested).
 */
int32_t sw_evlan_request(UBridge__EvlanAppIndex *app_index, int32_t request_value, UBridge__ResPriority priority);
/* Releases the requester's id: VLAN and L3INTF_SUB at once, other types after the release delay (40 s by default), so
 * that a restarting application can take its id back. Delayed, `app_index->t_user` must live until the delay is over.
 * 0; -2, also without memory; or the store's code. */
int32_t sw_evlan_release(UBridge__EvlanAppIndex *app_index);
/* Releases at once. */
int32_t sw_evlan_release_direct(UBridge__EvlanAppIndex *app_index);
/* delayed 1 or 0. */
int32_t sw_evlan_release_exec(UBridge__EvlanAppIndex *app_index, uint32_t delayed);
/* Plain VLANs: type 112 (L3INTF_SUB) stays, any other means VLAN. */
int32_t sw_vlan_request(UBridge__VlanAppIndex *vlan_index, int32_t vid, UBridge__ResPriority priority);
int32_t sw_vlan_release(UBridge__VlanAppIndex *vlan_index);

/* Callbacks of the store client: a delayed release is over (args: its UBridge__EvlanAppIndex); a session changed (args:
 * a sw_ebridge_callback_args). */
int32_t sw_evlan_release_callback(qz_mom_handle *ctx, const qz_mom_notification *msg, void *args);
int32_t sw_vlan_mom_msg_evlan_session_reply(qz_mom_handle *ctx, const qz_mom_notification *msg, void *args);
/* Applies one session change of database `db`: add 1 written, 0 removed. 0; -2 not answered yet, or no session. */
int32_t sw_evlan_session_reply(uint32_t db, UBridge__EvlanSession *session, int32_t add);

/* ---- evlan: scan and subscribe ---------------------------------------------------------------------------------- */

/* What a scan or subscription carries through the store client: made on first use per instance and (database, command),
 * overwritten by later calls, never freed. */
typedef struct sw_ebridge_callback_args {
    void *arg;
    sw_ebridge_mom_func func; /* or null */
} sw_ebridge_callback_args;

/* The instance's slot for the argument pair of (database 4 or 8, command 29 or 30); null for any other pair. */
void **sw_evlan_get_mom_ds_args(int32_t mom_db, uint32_t cmd, sw_ebridge_list_item *inst);
/* Reads the session table once: `func` (may be null) is called for every session and for the end, and the sessions are
 * applied. 0; -2 unknown user or a database other than 4 and 8; -4; or the store's code. */
int32_t sw_evlan_data_scan_with_db(const char *user_name, int32_t mom_db, sw_ebridge_mom_func func, void *args);
int32_t sw_evlan_data_scan(const char *user_name, sw_ebridge_mom_func func, void *args);
/* Follows the session table: `func` (may be null) hears the confirmation and every answer, removal and expiry. */
int32_t sw_evlan_subscribe_db_exec(const char *user_name, int32_t mom_db, sw_ebridge_mom_func func, void *args);
int32_t sw_evlan_subscribe_with_db(const char *user_name, int32_t mom_db, sw_ebridge_mom_func func, void *args);
int32_t sw_evlan_subscribe(const char *user_name, sw_ebridge_mom_func func, void *args);
int32_t sw_vlan_subscribe(const char *user_name, sw_ebridge_mom_func func, void *args);

/* ---- evlan: attributes ------------------------------------------------------------------------------------------- *
 * The structure's user_name and evlan_id name the evlan. VLANs need not have been requested by the user; any other evlan
 * must be in its local database. -2 null or unknown user; -5 the user does not hold the id. */

/* Fills the structure from the user's local record. No store is asked. */
int32_t sw_evlan_attr_get(sw_evlan_attr *attr);
/* Takes the attributes into the local record and writes them to the user's attribute database. A VLAN without a fid gets
 * its number, in the caller's structure too. 0, -2, -5, or the store's code: then the local record is ahead of the
 * store. */
int32_t sw_evlan_attr_set(sw_evlan_attr *attr);

/* ---- aging: what a restarted application no longer wants ---------------------------------------------------------- *
 * In three steps: mark all records of the user, request or set again what is still wanted (which takes the mark off),
 * delete what is still marked. Sessions and attributes, evlans and eports are marked apart. There is one age timer for the
 * sessions of both kinds, and it deletes whatever is not requested when it fires: mark and request both kinds to the end
 * before either is deleted, and do not mark while `age_timer_armed` is 1. Records that are neither refreshed nor deleted
 * expire at the end of the aging time. `aging_timer` null: 1800 s. A `callback` hears the end of the marks. A key should
 * have one user in a process: items of the index map are shared, and are on the list of the user who came first. To the
 * store a user named "" is any user: he would mark, and delete, what is everybody's. Results: 0; -2 unknown user; or the
 * store's code. */

/* Marks the user's sessions of all types, and clears the active-request bits of its index map items. */
int32_t sw_evlan_aging_flag_set(const char *user_name, const qz_mom_timeval *aging_timer, qz_mom_msg_cb callback,
                                void *args);
/* The same under a second name. */
int32_t sw_vlans_aging_flag_set(const char *user_name, const qz_mom_timeval *aging_timer, qz_mom_msg_cb callback,
                                void *args);
/* Marks the sessions of plain VLANs; no bit is cleared. _sync returns when they are marked. */
int32_t sw_vlan_aging_flag_set(const char *user_name, const qz_mom_timeval *aging_timer, qz_mom_msg_cb callback,
                               void *args);
int32_t sw_vlan_aging_flag_set_sync(const char *user_name, const qz_mom_timeval *aging_timer);
/* Arms the user's age timer: 40 s later the sessions of both kinds that were granted and not requested again are
 * deleted. Also -3 and -4, see sw_ebridge_age_timer_create(). */
int32_t sw_evlan_aged_data_delete(const char *user_name);
int32_t sw_vlan_aged_data_delete(const char *user_name);
/* What the timer does: deletes the sessions of `instance` whose ds_flag is exactly SW_INDEX_MAP_GRANTED. 0, -2 null. */
int32_t sw_evlan_no_request_clear(sw_ebridge_list_item *instance);
/* The callback of sw_evlan_aging_flag_set() when none is given: a line in the log. 0. */
int32_t sw_evlan_aging_default_callbak(qz_mom_handle *ctx, const qz_mom_notification *msg, void *args);
/* Marks the user's attribute records; deletes those still marked. `callback` hears the end. */
int32_t sw_evlan_attr_aging_flag_set(const char *user_name, const qz_mom_timeval *aging_timer, qz_mom_msg_cb callback,
                                     void *args);
int32_t sw_evlan_attr_aging_flag_set_sync(const char *user_name, const qz_mom_timeval *aging_timer);
int32_t sw_evlan_attr_aged_data_delete(const char *user_name, qz_mom_msg_cb callback, void *args);

/* ---- eport: ids and local database ------------------------------------------------------------------------------ */

/* 1 for PORT, LOCAL_PORT and AP, else 0. */
int32_t sw_eport_type_underlay(uint32_t eport_type);
int32_t sw_eport_id_underlay(uint32_t eport_id);

int32_t sw_eport_db_init(void);
/* Zeroes the record, sets its key, and vlan_filter to FILTER_ALL. */
void sw_eport_init(sw_eport_attr *record, const char *user_name, uint32_t eport_id);
/* Record of (user, eport_id), or null; the user must be registered in the slot. */
sw_eport_attr *sw_eport_db_get_item(uint32_t inst, const char *user_name, uint32_t eport_id);
/* Existing or new record. A new one is a copy of `record` with all its attributes; `record`, which must not be a stored
 * one, takes the user's name. Null: unknown user or no memory. _new sets *created to 1 when it made one, and leaves it alone otherwise. */
sw_eport_attr *sw_eport_db_insert_item(uint32_t inst, const char *user_name, sw_eport_attr *record);
sw_eport_attr *sw_eport_db_insert_item_new(uint32_t inst, const char *user_name, sw_eport_attr *record,
                                           uint8_t *created);
/* The same for a user of another process, who need not be registered; the record of such a user is made anew. */
sw_eport_attr *sw_eport_db_insert_glb_item(uint32_t inst, const char *user_name, uint32_t eport_id);
/* An absent record is no error. The global one asks for no registered user. */
void sw_eport_db_delete_item(uint32_t inst, const char *user_name, const UBridge__EportIndex *index);
void sw_eport_db_delete_glb_item(uint32_t inst, const char *user_name, uint32_t eport_id);
/* Empties the local databases of all slots. 0. */
int32_t sw_eport_clear_all_db(void);
/* The inserts of a fresh record, after making sure that the databases exist and the user is registered. _new clears
 * *created first. */
sw_eport_attr *sw_eport_attr_db_verify(uint32_t inst, const char *user_name, uint32_t eport_id);
sw_eport_attr *sw_eport_attr_db_verify_new(uint32_t inst, const char *user_name, uint32_t eport_id, uint8_t *created);
/* Copies attr_flags, attr_flags2, vlan_filter and the view that src's eport_id names. 0; -2 null. */
int32_t sw_eport_attr_copy(sw_eport_attr *dst, const sw_eport_attr *src);
/* 0 equal; other when attr_flags, attr_flags2, vlan_filter or any byte of the whole attribute block differ; -2 null. */
int32_t sw_eport_attr_cmp(const sw_eport_attr *a, const sw_eport_attr *b);
/* The eport as all users of slot 0 hold it together, or null when none does. One static record: valid until the next
 * merge. */
sw_eport_attr *sw_eport_attr_merge(uint32_t eport_id);

/* ---- eport: index map and translations -------------------------------------------------------------------------- */

int32_t sw_eport_index_map_db_init(void);
/* Zero the key of an item and set it: kind 0 from a message whose first field is a UBridge__EportAppIndex (an eport
 * session), kind 1 from an eport_id, kind 3 from a chip key. */
void sw_eport_index_map_init_appkey(sw_eport_index_map *item, const UBridge__EportSession *session);
void sw_eport_index_map_init_udpkey(sw_eport_index_map *item, uint32_t eport_id);
void sw_eport_index_map_init_sdkkey(sw_eport_index_map *item, const UBridge__EportSdkIndex *sdk);
/* The stored item, or null: absent, no such slot, or null. */
sw_eport_index_map *sw_eport_index_map_get_item(uint32_t inst, const sw_eport_index_map *key);
/* Replaces values, carried words, user and priority of a stored item (not ds_flag), or stores a copy at the head of its
 * user's list. Null without memory, and with a message for a bad slot or null. */
sw_eport_index_map *sw_eport_index_map_update_item(uint32_t inst, const sw_eport_index_map *item);
/* 0, also when absent. */
int32_t sw_eport_index_map_delete_item(uint32_t inst, const sw_eport_index_map *key);
/* Application key to eport_id. PORT and AP: keyid2 is an interface index, and the port table decides which of the two
 * the id is (0x20000000 when it has no such interface); the result is the port table's. Other types: 0 found (eport_id
 * 0: requested, not granted yet); -1 not mapped. -2 null. */
int32_t sw_eport_app2udp(const UBridge__EportAppIndex *app, UBridge__EportIndex *out);
/* The reverse. PORT and AP ids: keyid2 takes the interface index, keyid1 is 0, type is left alone. */
int32_t sw_eport_udp2app(const UBridge__EportIndex *index, UBridge__EportAppIndex *out);
/* Between the switch's numbers (PORT) and the card's (LOCAL_PORT); any other id is copied. To the card's numbers: 0, and
 * an unknown port is copied; to the switch's: the port table's result, and an unknown one gives 0x20000000. -2 null. */
int32_t sw_eport_udp2sdp(const UBridge__EportIndex *udp, UBridge__EportIndex *sdp);
int32_t sw_eport_sdp2udp(const UBridge__EportIndex *sdp, UBridge__EportIndex *udp);
int32_t sw_eport_db_ut_dump_op(sw_eport_index_map *item, void *dump_args, int32_t position);
int32_t sw_eport_res_db_ut_dump(uint32_t type, uint32_t id);
/* db_type 0 prints all, 1 the local database, 2 the index map; the other two name the type: PORT or AP. */
int32_t sw_eport_db_ut_dump(int32_t db_type, int32_t eport_type, uint32_t eport_id);
int32_t sw_port_db_ut_dump(int32_t db_type, uint32_t eport_id);
int32_t sw_ap_db_ut_dump(int32_t db_type, uint32_t eport_id);

/* ---- eport: request, release, reply ----------------------------------------------------------------------------- */

/* Asks for an eport id under the key (type, keyid1, keyid2) of `app_index`, whose t_user is the requester.
 * `request_value` 0: any id of the type; else the id wanted, as it stands. The answer comes to the callbacks of the users
 * that follow the sessions. 0; -2 bad argument; -4 no memory; or the store's code (the key then stays marked as
 * requested). */
int32_t sw_eport_request(UBridge__EportAppIndex *app_index, int32_t request_value, UBridge__ResPriority priority);
/* Releases the requester's id after the release delay (40 s by default), whatever its type, so that a restarting
 * application can take it back; `app_index->t_user` must live until then. A removal empties the index map of the key even
 * when it was requested again meanwhile: request once more what is wanted after hearing of its removal. 0; -2; -3 no
 * memory; or the store's code. */
int32_t sw_eport_release(UBridge__EportAppIndex *app_index);
/* Releases at once. */
int32_t sw_eport_release_direct(UBridge__EportAppIndex *app_index);
/* delayed: 0 at once, anything else delayed. */
int32_t sw_eport_release_exec(UBridge__EportAppIndex *app_index, uint32_t delayed);

/* Callbacks of the store client, as their evlan twins. */
int32_t sw_eport_release_callback(qz_mom_handle *ctx, const qz_mom_notification *msg, void *args);
int32_t sw_vlan_mom_msg_eport_session_reply(qz_mom_handle *ctx, const qz_mom_notification *msg, void *args);
/* Applies one session change of database `db`: add 1 written, 0 removed. 0; -2 not answered yet, or no session. */
int32_t sw_eport_session_reply(uint32_t db, UBridge__EportSession *session, int32_t add);

/* ---- eport: scan and subscribe, as their evlan twins --------------------------------------------------------------- */

void **sw_eport_get_mom_ds_args(int32_t mom_db, uint32_t cmd, sw_ebridge_list_item *inst);
int32_t sw_eport_data_scan_with_db(const char *user_name, int32_t mom_db, sw_ebridge_mom_func func, void *args);
int32_t sw_eport_data_scan(const char *user_name, sw_ebridge_mom_func func, void *args);
int32_t sw_eport_subscribe_with_db(const char *user_name, int32_t mom_db, sw_ebridge_mom_func func, void *args);
int32_t sw_eport_subscribe(const char *user_name, sw_ebridge_mom_func func, void *args);

/* ---- eport: attributes --------------------------------------------------------------------------------------------- *
 * The structure's user_name and eport_id name the eport. PORT and AP eports need not have been requested by the user; any
 * other eport must be in its local database. -2 null or unknown user; -5 the user does not hold the id. */

/* Fills the structure from the user's local record. No store is asked. */
int32_t sw_eport_attr_get(sw_eport_attr *attr);
/* Takes the attributes into the local record and writes that to the user's attribute database. */
int32_t sw_eport_attr_set(sw_eport_attr *attr);
/* Fills type, vlan_filter and the view of `record`, whose index the caller has set, from `attr` and writes it. The
 * record's pvid is always 0. The view is taken out again before the return. 0, -2 null, or the store's code. */
int32_t sw_eport_attr_push_udp(qz_mom_handle *mom_handle, int32_t db, UBridge__Eport *record,
                               const sw_eport_attr *attr);
/* Removes the attribute record and the local one, which must be there whatever the type. 0, -2, -5, or the store's code:
 * the local record is gone then, too. */
int32_t sw_eport_attr_del(sw_eport_attr *attr);

/* ---- eport: aging, as their evlan twins ----------------------------------------------------------------------------- */

int32_t sw_eport_aging_flag_set(const char *user_name, const qz_mom_timeval *aging_timer, qz_mom_msg_cb callback,
                                void *args);
int32_t sw_eport_aging_flag_set_sync(const char *user_name, const qz_mom_timeval *aging_timer);
int32_t sw_eport_aged_data_delete(const char *user_name);
int32_t sw_eport_no_request_clear(sw_ebridge_list_item *instance);
int32_t sw_eport_aging_default_callbak(qz_mom_handle *ctx, const qz_mom_notification *msg, void *args);
int32_t sw_eport_attr_aging_flag_set(const char *user_name, const qz_mom_timeval *aging_timer, qz_mom_msg_cb callback,
                                     void *args);
int32_t sw_eport_attr_aging_flag_set_sync(const char *user_name, const qz_mom_timeval *aging_timer);
int32_t sw_eport_attr_aged_data_delete(const char *user_name, qz_mom_msg_cb callback, void *args);

/* ---- ports and their VLANs ------------------------------------------------------------------------------------------ *
 * Which VLANs (0 to 4095) a user's port carries, which of them untagged, and which with the multicast mark: three bitmaps
 * of 128 words in the port's local eport record, VLAN v being bit v % 32 of word v / 32, published as one record per user
 * and port. `ifx` is the port's eport id. Bitmaps share storage with overlay attributes: ports only (PORT, LOCAL_PORT, AP).
 * `send_flag`: bit 0 publishes, bit 1 adds with the multicast mark. Results: 0; -2 unknown user, a VLAN out of range or
 * null; -5 no local record, or none could be made; -3 what was added was not published; or the store's code. What changed
 * locally stays changed when publishing fails. */

/* Adds a VLAN, with the multicast mark, and publishes. tag: UBridge__TagType. */
int32_t sw_vlan_port_add(const char *user_name, int32_t vid, int32_t ifx, int32_t tag);
int32_t sw_vlan_port_add_with_flag(const char *user_name, int32_t vid, int32_t ifx, int32_t tag, int32_t send_flag);
/* Takes a VLAN off, and publishes. */
int32_t sw_vlan_port_del(const char *user_name, int32_t vid, int32_t ifx);
int32_t sw_vlan_port_del_with_flag(const char *user_name, int32_t vid, int32_t ifx, int32_t send_flag);
/* Adds the VLANs of vbmp at the cost of one. Their untagged and multicast marks become those of the other two; VLANs that
 * are not in vbmp keep theirs. A new record takes the bitmaps as they are. */
int32_t sw_vlan_port_range_vids_add_with_flag(const char *user_name, int32_t ifx, const uint32_t vbmp[128],
                                              const uint32_t ubmp[128], const uint32_t mcbmp[128], int32_t send_flag);
/* Takes the VLANs of bmp off, with their marks. */
int32_t sw_vlan_port_range_vids_del_with_flag(const char *user_name, int32_t ifx, const uint32_t bmp[128],
                                              int32_t send_flag);
/* Publishes a port: its record is written, or removed when it carries no VLAN. */
int32_t sw_vlan_port_range_vids_set(const char *user_name, int32_t ifx);
/* Publishes all eport records of slot 0 but those of L3INTF_AC, whoever's they are, under this user's name. 0, -2. */
int32_t sw_vlan_port_range_vids_set_all(const char *user_name);
int32_t sw_vlan_port_range_vids_set_all_op(sw_eport_attr *record, void *instance, int32_t position);
/* Aging of the user's port records, see "aging" above. */
int32_t sw_vlan_port_aging_flag_set_sync(const char *user_name, const qz_mom_timeval *aging_timer);
int32_t sw_vlan_ports_aging_flag_set(const char *user_name, const qz_mom_timeval *aging_timer, qz_mom_msg_cb callback,
                                     void *args);
int32_t sw_vlan_port_aged_data_delete(const char *user_name, qz_mom_msg_cb callback, void *args);

/* ---- default VLANs of ports ------------------------------------------------------------------------------------------- *
 * Users set pvids; the service decides which counts, and publishes a table of one record per port. Of that table the library
 * keeps the current pvid of each interface, once per process, and tells all users of every change through pvid_change.
 * With several users in a process let one of them subscribe: every notification is told to all. */

/* Makes the cache. 0 or -1. */
int32_t sw_vlan_pvid_db_init(void);
/* Sets the user's pvid of a port (its eport id), locally and published: vid 1 or more is written, 0 withdrawn, a negative one
 * only kept locally. Of a circuit's record it takes the place of the low half of match_vid: the views share their storage.
 * 0, -2, or the store's code. */
int32_t sw_vlan_pvid_set(const char *user_name, uint32_t port, int32_t vid);
/* The port's current pvid by its interface index, 0 when it has none; the name takes no part. 0; -2 null. */
int32_t sw_vlan_pvid_get(const char *user_name, uint32_t ifx, int32_t *out);
/* Reads the table of database 8, and follows that of the user's own database. `callback` (may be null) hears of every record,
 * of the scan's end and of the confirmation. 0; -2; -4; a subscription also the store's code. */
int32_t sw_vlan_pvid_table_scan(const char *user_name, sw_ebridge_mom_func callback, void *args);
int32_t sw_vlan_pvid_subscribe(const char *user_name, sw_ebridge_mom_func callback, void *args);
/* What the store calls for both; args is a sw_ebridge_callback_args that goes with the scan's end or the subscription. 0; -1
 * no interface of that id; -2 nothing usable in the message; -4. */
int32_t sw_vlan_mom_msg_port_vid_changed(qz_mom_handle *ctx, const qz_mom_notification *msg, void *args);
/* Aging of the user's pvid records, see "aging" above. The deletion tells 0 whatever the store says. */
int32_t sw_vlan_port_vid_aging_flag_set(const char *user_name, const qz_mom_timeval *aging_timer,
                                        qz_mom_msg_cb callback, void *args);
int32_t sw_vlan_pvid_aging_flag_set_sync(const char *user_name, const qz_mom_timeval *aging_timer);
int32_t sw_vlan_pvid_aged_data_delete(const char *user_name, qz_mom_msg_cb callback, void *args);
/* Dumps the cache, or with an ifx above 0 that port alone. 0. */
int32_t sw_vlan_pvid_ut_dump(int32_t ifx);
/* Prints the counters. 0. */
int32_t sw_vlan_pvid_stats_print(void);

/* Counters of the process: subscriptions, pvids written, look-ups, pvids withdrawn, ports in the cache. _print returns the
 * printed length. */
void sw_brg_stat_pvid_count_subscribe_inc(void);
void sw_brg_stat_pvid_count_subscribe_dec(void);
void sw_brg_stat_pvid_count_subscribe_reset(void);
int32_t sw_brg_stat_pvid_count_subscribe_get(void);
void sw_brg_stat_pvid_count_subscribe_set(int32_t new_value);
int32_t sw_brg_stat_pvid_count_subscribe_print(void);
void sw_brg_stat_pvid_count_set_inc(void);
void sw_brg_stat_pvid_count_set_dec(void);
void sw_brg_stat_pvid_count_set_reset(void);
int32_t sw_brg_stat_pvid_count_set_get(void);
void sw_brg_stat_pvid_count_set_set(int32_t new_value);
int32_t sw_brg_stat_pvid_count_set_print(void);
void sw_brg_stat_pvid_count_get_inc(void);
void sw_brg_stat_pvid_count_get_dec(void);
void sw_brg_stat_pvid_count_get_reset(void);
int32_t sw_brg_stat_pvid_count_get_get(void);
void sw_brg_stat_pvid_count_get_set(int32_t new_value);
int32_t sw_brg_stat_pvid_count_get_print(void);
void sw_brg_stat_pvid_count_delete_inc(void);
void sw_brg_stat_pvid_count_delete_dec(void);
void sw_brg_stat_pvid_count_delete_reset(void);
int32_t sw_brg_stat_pvid_count_delete_get(void);
void sw_brg_stat_pvid_count_delete_set(int32_t new_value);
int32_t sw_brg_stat_pvid_count_delete_print(void);
void sw_brg_stat_pvid_count_nums_inc(void);
void sw_brg_stat_pvid_count_nums_dec(void);
void sw_brg_stat_pvid_count_nums_reset(void);
int32_t sw_brg_stat_pvid_count_nums_get(void);
void sw_brg_stat_pvid_count_nums_set(int32_t new_value);
int32_t sw_brg_stat_pvid_count_nums_print(void);

/* ---- match rules: the table ---------------------------------------------------------------------------------------- *
 * What each user wants done with which traffic: one item per user and key, in one table for the process. A key is all of an
 * item before action_type, the user and the priority among it: one index has one priority, and rules of one user that
 * differ in nothing else are rules apart. Items belong to the table; one that it returns is valid until it is deleted.
 * In an index a mac or mask that is absent is the same as one that is all zero, and an absent ip as IPv4 0. */

/* Visits an item. */
typedef sw_ematch_item_visitor sw_ematch_item_func;

/* Argument of sw_ematch_db_ut_dump_op(): which items are printed, and how many were. */
typedef struct sw_ematch_dump_args {
    int32_t match_type; /* 0 any */
    int32_t count;
    const char *user_name; /* null any */
} sw_ematch_dump_args;

/* Makes the rule table and registers a blank user of that name (may be null) in registry table `list` if there is none;
 * sw_ebridge_init() of that name then only refreshes it, so initialise first. 0, also when the user could not be registered;
 * or -1. */
int32_t sw_ebridge_match_db_init(int32_t list, const char *user_name);
/* Fill a zeroed item: the key from an index, and the action and result from an entry. Of a mac or mask the first 6 bytes,
 * or those that there are; of an ip its v4 word, or the 16 bytes of another form. with_user: the item's user is the index's
 * `t_user`, taken as it is. The item; null for a null argument. */
sw_ematch_item *sw_ematch_entry_index_to_db_item(sw_ematch_item *item, const UBridge__EmatchIndex *index,
                                                 int32_t with_user);
sw_ematch_item *sw_ematch_entry_to_db_item(sw_ematch_item *item, const UBridge__EmatchEntry *entry, int32_t with_user);
/* The reverse. Sub-messages that the destination has are filled: mac, mask and a v6 address then point into `src`; an ip has
 * to come with a p_libpub.ipv4 or ipv6, whichever the item's address is. with_user: the name of src's user, if it has one, is
 * copied to where `t_user` points: 32 bytes of the caller's. The result of an item is not copied. 0; -2 null, or an ip
 * that cannot take the address. */
int32_t sw_ematch_index_copy(UBridge__EmatchIndex *dst, const sw_ematch_item *src, int32_t with_user);
int32_t sw_ematch_copy_entry(UBridge__EmatchEntry *dst, const sw_ematch_item *src, int32_t with_user);
/* Copies the item over the user's stored one of the same key, or stores a copy; the caller's item takes the user. The
 * stored item; null for an unknown user, a null item, without a table or without memory. */
sw_ematch_item *sw_ematch_db_hash_insert_item(const char *user_name, sw_ematch_item *item);
/* The user's item of that key (the index's `t_user` is not looked at), or null. */
sw_ematch_item *sw_ematch_db_hash_get_item(const char *user_name, const UBridge__EmatchIndex *index);
/* 0, also when there is none; -2 unknown user or null. */
int32_t sw_ematch_db_hash_del_item(const char *user_name, const UBridge__EmatchIndex *index);
/* Visits all items until a result is not 0; with a user all of that user's, whose name is compared whole. A visitor may
 * delete the item that it is given. 0; -2 null visitor; -5 no table. */
int32_t sw_ematch_db_hash_each_item(const char *user_name, sw_ematch_item_func callback, void *args);
/* The item of the index's user, made from the index alone if there is none; table and user are made if need be. Null: null
 * argument, no memory, or a user that table 0 does not have: items are those of its users, whatever `list` is. */
sw_ematch_item *sw_ematch_db_verify(int32_t list, const UBridge__EmatchIndex *index);
/* 0 or -1. Kept for its callers, and no equality: -1 also when mac, mask or ip are the same, so that no item is the same as
 * itself. The table uses its key. */
int32_t sw_ematch_db_hash_cmp_key(const sw_ematch_item *a, const sw_ematch_item *b);
/* Dump the items of a type (0 all), once for each user: every header is followed by the items of all users, and counts add
 * up. 0. */
int32_t sw_ematch_db_ut_dump(int32_t match_type);
int32_t sw_ematch_db_ut_dump_op(sw_ematch_item *item, void *dump_args, int32_t position);
/* Log an item, its key, or a record at info level. 0. */
int32_t sw_bridge_printf_ematch_item(const sw_ematch_item *item);
int32_t sw_bridge_printf_ematch_item_key(const sw_ematch_item *item);
int32_t sw_bridge_printf_udp_ematch(const UBridge__EmatchEntry *entry);
int32_t sw_bridge_printf_sdp_ematch(const SBridge__EmatchEntry *entry);

/* ---- match rules: publishing ---------------------------------------------------------------------------------------- *
 * Rules are records of their user's match-rule database. The calls do not touch the table: that is the business of
 * whoever decides among the users, whose verdict comes back in the `result` of each record. 0; -2 bad argument or unknown
 * user; or the store's code. */

/* Writes the rule of the user that its index names, all but its result. Items have 6 bytes of a mac, and IPv4 or IPv6
 * addresses: the verdict on a rule with anything else finds no record. */
int32_t sw_ematch_entry_add(const UBridge__EmatchEntry *entry);
/* Removes it; only the index counts. */
int32_t sw_ematch_entry_del(const UBridge__EmatchEntry *entry);
/* Reads all users' rules. The verdict in each goes to its user's ematch_reply, if that user is of this process, and
 * `callback` hears the end of the scan; so do the scan callbacks of all other users, each with its own argument: look at the
 * handle and the message's database. */
int32_t sw_ematch_scan(const char *user_name, sw_ebridge_mom_func callback, void *args);
int32_t sw_ematch_scan_with_db(const char *user_name, int32_t db, sw_ebridge_mom_func callback, void *args);
/* Follows the verdicts on all users' rules in the same way; `callback` hears of the confirmation. Applications subscribe
 * themselves: initialisation does not. A process that follows them on two handles hears each verdict twice. */
int32_t sw_ematch_subscribe(const char *user_name, sw_ebridge_mom_func callback, void *args);
int32_t sw_ematch_subscribe_with_db(const char *user_name, int32_t db, sw_ebridge_mom_func callback, void *args);
/* What the store calls for both. 0; 1 and -2: nothing usable in the message. */
int32_t sw_ematch_mom_session_reply(qz_mom_handle *ctx, const qz_mom_notification *msg, void *args);
/* Hands a record to the ematch_reply of its user. 0; -2 null. */
int32_t sw_ematch_session_reply(const UBridge__EmatchEntry *entry);
/* After a restart: mark all rules of the user (aging_timer null: 1800 s), add again what is still wanted, delete what is
 * still marked. `callback` hears the end. */
int32_t sw_ematch_aging_flag_set(const char *user_name, const qz_mom_timeval *aging_timer, qz_mom_msg_cb callback,
                                 void *args);
int32_t sw_ematch_aged_data_delete(const char *user_name, qz_mom_msg_cb callback, void *args);

/* ---- match rules: deciding among users ------------------------------------------------------------------------------ */

/* Decides which of the users' rules of one key hold, whatever the priority that `index` names: of each user the item of the
 * highest priority from 7 to 0 counts, and its others stay as they are; one outside of that range counts for an index that
 * names its priority, where the user has none within. The index's `t_user` is registered as by
 * sw_ebridge_match_db_init(): initialise first. Users are compared each with the one before it, in the order of the registry's table: a higher
 * priority wins over it, any other loses to it and lets it win, whatever it had lost to before. So more than one can win
 * (docs/operators.md). publish not 0: the result of every item that counts is written to its user's record (in the database
 * that its mom_db names), changed or not. The item that last beat the one before it, or the first: one static item, valid
 * until the next call, whose `user` is a name of 32 bytes and no instance record. Null when nobody has such a rule, or for
 * a null index. */
sw_ematch_item *sw_ematch_calc_final_values(qz_mom_handle *mom_handle, const UBridge__EmatchIndex *index,
                                            int32_t publish);
/* Writes current_result to the item's record, if there is one. 0, -2 null, or the store's code. */
int32_t sw_ematch_result_reply(qz_mom_handle *mom_handle, sw_ematch_item *item);

/* ---- chip drivers ----------------------------------------------------------------------------------------------------- *
 * A chip driver reports here which hardware object (its "chip key") it made behind an evlan or eport. Per chip unit, which is
 * a slot, the pairs are kept in the index maps, in the name "sdavlan.unit<unit>"; the users of the slot hear of each object,
 * whether there is memory for the pair or not, and what their callbacks return is not looked at. -2 for a unit of 6 or more,
 * and for null, which only the chip key of a destruction may be. */

/* An object was made: keeps the pair, over an earlier one of the same id or chip key, and tells the users. 0, -2. A chip key
 * that the id had before keeps leading to it until it is paired anew. */
int32_t sda_evlan_create_callback(uint32_t unit, UBridge__EvlanIndex *evlan_index, SBridge__EvlanSdkIndex *sdk_index);
int32_t sda_eport_create_callback(uint32_t unit, UBridge__EportIndex *eport_index, UBridge__EportSdkIndex *sdk_index);
/* An object is gone: drops the pair and tells the users its chip key as it was kept, all 0 when there was none. `sdk_index`
 * is not looked at. 0, -2. */
int32_t sda_evlan_destroy_callback(uint32_t unit, UBridge__EvlanIndex *evlan_index, SBridge__EvlanSdkIndex *sdk_index);
int32_t sda_eport_destroy_callback(uint32_t unit, UBridge__EportIndex *eport_index, UBridge__EportSdkIndex *sdk_index);
/* Between an evlan and its chip key; `t_user` of `out` is left alone. To the chip: `type` takes the evlan's own type, `vsi`
 * and `vid` those of the pair. From the chip: type, vsi and vid all count, the type as the driver reported it. 0; -1 without
 * such a pair, and then out is 0; -2. */
int32_t sda_evlan_udp2sdk(uint32_t unit, UBridge__EvlanIndex *in, SBridge__EvlanSdkIndex *out);
int32_t sda_evlan_sdk2udp(uint32_t unit, SBridge__EvlanSdkIndex *in, UBridge__EvlanIndex *out);
/* The same for eports as the card numbers them. A LOCAL_PORT is found in the port table: `unit` and `port`, with type 17. An
 * AP is computed: `tid` is its number and `port` that and 256. Others: `type` and `vport` of the pair. 0; -1 without a pair;
 * -2; or the port table's result, and then `unit` is the argument's and `port` the low byte of the id. */
int32_t sda_eport_sdp2sdk(uint32_t unit, UBridge__EportIndex *in, UBridge__EportSdkIndex *out);
/* By the type: 16 asks the port table for the chip key's own `unit` and `port`; 32 gives tid << 24 | 32, which no other call
 * takes; others: the pair of the `vport`. 0, also without a pair, with eport_id 0; -2; or the port table's result. */
int32_t sda_eport_sdk2sdp(uint32_t unit, UBridge__EportSdkIndex *in, UBridge__EportIndex *out);
/* Tell the users of the unit that a port (its local physical id) entered (op 1) or left a VLAN, or that a VLAN's filtering
 * database changed. 0, -2. */
int32_t sda_vlan_ports_notify(uint32_t unit, uint32_t vid, uint32_t lphyid, uint32_t op);
int32_t sda_vlan_fid_notify(uint32_t unit, uint32_t vid, uint32_t old_fid, uint32_t new_fid);

/* ---- diagnosis -------------------------------------------------------------------------------------------------- */

/* Counters of the request protocol, since start or the last reset. */
typedef struct sw_diagnosis_stat {
    uint32_t evlan_request;
    uint32_t evlan_add_reply;
    uint32_t evlan_del_reply;
    uint32_t evlan_auto_release; /* refused requests */
    uint32_t evlan_total_release;
    uint32_t evlan_reply_vlancb;
    uint32_t evlan_reply_evlancb;
    uint32_t evlan_release_cb;
    uint32_t evlan_err_msg;
    uint32_t eport_request;
    uint32_t eport_add_reply;
    uint32_t eport_del_reply;
    uint32_t eport_auto_release;
    uint32_t eport_total_release;
    uint32_t eport_reply_cb;
    uint32_t eport_release_cb;
    uint32_t eport_err_msg;
} sw_diagnosis_stat;

extern sw_diagnosis_stat g_diagnosis_stat;

/* Sets all counters and both rings to zero. */
void sw_ebridge_reset_stat(void);
/* Stores a copy in the ring of the last five refused requests: kind 1, id -1, type and keys as values, ds_flag 1. */
void sw_evlan_record_err_msg(const sw_evlan_index_map *record);
void sw_eport_record_err_msg(const sw_eport_index_map *record);
/* The ring; the n-th entry ever (from 0) stands at n modulo 5. */
sw_evlan_index_map *sw_evlan_get_err_msg_array(void);
sw_eport_index_map *sw_eport_get_err_msg_array(void);
/* Arms the user's age timer (40 s) unless it is armed. 0; -2 unknown user; -3 refused by the thread library; -4 no
 * memory. */
int32_t sw_ebridge_age_timer_create(const char *user_name);
/* The timer's function: its argument is a copy of the user's name, which it frees. Deletes what was not requested again.
 * 0, -2. */
int32_t sw_ebridge_age_exec(qz_thread_event *event);
/* Prints the codes of evlan and eport types. 0. */
int32_t sw_ebridge_dump_type(void);
/* Translate, and print what came of it. The translation's result. */
int32_t sw_evlan_app2udp_test(int32_t type, int32_t keyid);
int32_t sw_evlan_udp2app_test(uint32_t evlan_id);
int32_t sw_eport_app2udp_test(int32_t type, int32_t keyid1, int32_t keyid2);
int32_t sw_eport_udp2app_test(uint32_t eport_id);
/* Sets the two release delays in seconds, 0 or more: a store refuses an expiry in the past, and with it the release. 0. */
int32_t sw_ebridge_delay_time_set(int32_t evlan_seconds, int32_t eport_seconds);

#ifdef __cplusplus
}
#endif
#endif
