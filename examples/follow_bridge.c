/* Follows everything that is published over a store: a program to look into while others work.
 *
 * It registers as the user "follow_bridge", hears of the ids that others are granted, and serves a debug shell, until it
 * is ended by SIGINT or SIGTERM:
 *   follow_bridge redis+unix:///run/redis/redis-server.sock &
 *   ebridge shell libvlan_follow_bridge dump_list
 *
 * There is one thread: the loop runs on the main one, and everything else comes from there.
 */
#include <inttypes.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "ssat.h"
#include "sw_ebridge.h"

static char user_name[] = "follow_bridge";
static qz_thread_master *master;
static int wake[2]; /* a signal handler may write a byte, and little else */

static int32_t on_evlan(UBridge__EvlanAppIndex *app, UBridge__EvlanIndex *evlan)
{
    printf("evlan of %s: type %" PRId32 ", key %" PRId32 " is 0x%" PRIx32 "\n", app->t_user, app->type, app->keyid,
           (uint32_t)evlan->evlan_id);
    return 0;
}

static int32_t on_vlan(UBridge__VlanAppIndex *app, int32_t vlan_id)
{
    printf("VLAN of %s: %" PRId32 " is %" PRId32 "\n", app->user, app->keyid, vlan_id);
    return 0;
}

static int32_t on_eport(UBridge__EportAppIndex *app, UBridge__EportIndex *eport)
{
    printf("eport of %s: type %" PRId32 ", keys %" PRId32 " %" PRId32 " is 0x%" PRIx32 "\n", app->t_user, app->type,
           app->keyid1, app->keyid2, (uint32_t)eport->eport_id);
    return 0;
}

static void on_signal(int number)
{
    (void)number;
    if (write(wake[1], "", 1) < 0)
        _exit(1);
}

static void stop(void *arg)
{
    (void)arg;
    qz_thread_stop(master);
}

/* The data-plane database (8) has what everybody was granted. */
static int register_user(qz_mom_handle *handle)
{
    ebridge_args args;

    memset(&args, 0, sizeof args);
    args.user_name = user_name;
    args.handle = handle;
    args.mom_db = SW_EBRIDGE_UDP_DB;
    args.evlan_data_type = 2; /* evlans of all users */
    args.eport_data_type = 1; /* eports of all users */
    args.vlan_reply = on_vlan;
    args.evlan_reply = on_evlan;
    args.eport_reply = on_eport;
    args.auto_subscribe = 1;
    args.auto_scan = 1;
    return sw_ebridge_init(&args);
}

int main(int argc, char **argv)
{
    qz_mom_handle *handle = NULL;
    ssat_server *shell = NULL;
    struct sigaction action;

    if (argc != 2) {
        fprintf(stderr, "usage: follow_bridge URL\n");
        return 2;
    }
    master = qz_thread_master_create(QZ_THREAD_CLOCK_REAL);
    if (master == NULL || pipe(wake) != 0 || qz_thread_watch(master, wake[0], stop, NULL) != 0) {
        fprintf(stderr, "follow_bridge: no event loop\n");
        return 1;
    }
    if (qz_mom_client_open(argv[1], master, &handle) != 0) {
        fprintf(stderr, "follow_bridge: %s makes no sense\n", argv[1]);
        return 2;
    }
    if (register_user(handle) != 0 || ssat_serve(master, &shell) != 0)
        fprintf(stderr, "follow_bridge: no user, or no debug shell\n");
    setvbuf(stdout, NULL, _IOLBF, 0);
    memset(&action, 0, sizeof action);
    action.sa_handler = on_signal;
    sigaction(SIGINT, &action, NULL);
    sigaction(SIGTERM, &action, NULL);
    qz_thread_run(master);
    ssat_serve_stop(shell);
    qz_mom_client_close(handle);
    qz_thread_master_free(master);
    return 0;
}
