/* Requests one VXLAN id, prints it, and releases it: the smallest whole application of the library.
 *
 * Everything that touches the library runs on the thread of the store handle's master, here the main thread. The
 * application does its own work on a thread of its own and hands each call over with qz_thread_call_wait(); answers come
 * to callbacks on the main thread, which pass them on through `answers`.
 *
 * Without an argument the store is the embedded one, which lives in this process alone; so the allocator runs in it,
 * too. An argument is the URL of a store that other processes share, where a running ebridged answers:
 *   request_one_evlan redis+unix:///run/redis/redis-server.sock
 */
#include <inttypes.h>
#include <pthread.h>
#include <stdio.h>

#include "ebridged.h"
#include "sw_ebridge.h"

static char user_name[] = "one_evlan";

/* What the callbacks have heard, for the application's thread. */
static struct {
    pthread_mutex_t lock;
    pthread_cond_t changed;
    int replies;
    int releases;
    int32_t evlan_id;
} answers = {.lock = PTHREAD_MUTEX_INITIALIZER, .changed = PTHREAD_COND_INITIALIZER};

static int32_t on_reply(UBridge__EvlanAppIndex *app, UBridge__EvlanIndex *evlan)
{
    (void)app;
    pthread_mutex_lock(&answers.lock);
    answers.evlan_id = evlan->evlan_id;
    answers.replies++;
    pthread_cond_signal(&answers.changed);
    pthread_mutex_unlock(&answers.lock);
    return 0;
}

static int32_t on_release(UBridge__EvlanAppIndex *app, UBridge__EvlanIndex *evlan, int32_t event)
{
    (void)app, (void)evlan, (void)event;
    pthread_mutex_lock(&answers.lock);
    answers.releases++;
    pthread_cond_signal(&answers.changed);
    pthread_mutex_unlock(&answers.lock);
    return 0;
}

/* Returns the id as it was answered last: a reply may be heard again, from a scan for instance. */
static int32_t wait_for(const int *count)
{
    int32_t evlan_id;

    pthread_mutex_lock(&answers.lock);
    while (*count == 0)
        pthread_cond_wait(&answers.changed, &answers.lock);
    evlan_id = answers.evlan_id;
    pthread_mutex_unlock(&answers.lock);
    return evlan_id;
}

/* A call to the library, as it is handed over: its arguments, and room for its result. */
struct library_call {
    UBridge__EvlanAppIndex index;
    int32_t result;
};

static void request(void *arg)
{
    struct library_call *call = arg;
    call->result = sw_evlan_request(&call->index, 0, U_BRIDGE__RES_PRIORITY__LEVEL_0);
}

static void release(void *arg)
{
    struct library_call *call = arg;
    call->result = sw_evlan_release_direct(&call->index);
}

/* The application. */
static void *application(void *arg)
{
    qz_thread_master *master = arg;
    struct library_call call = {.index = U_BRIDGE__EVLAN_APP_INDEX__INIT};
    call.index.t_user = user_name;
    call.index.type = U_BRIDGE__EVLAN_TYPE__VXLAN;
    call.index.keyid = 5010; /* the VNI */

    qz_thread_call_wait(master, request, &call);
    if (call.result == 0) {
        const int32_t evlan_id = wait_for(&answers.replies);
        printf("VNI %" PRId32 " has evlan 0x%08" PRIx32 "\n", call.index.keyid, (uint32_t)evlan_id);
        qz_thread_call_wait(master, release, &call);
    }
    if (call.result == 0) {
        wait_for(&answers.releases);
        printf("released\n");
    }
    qz_thread_stop(master);
    return NULL;
}

int main(int argc, char **argv)
{
    const char *store = argc > 1 ? argv[1] : "mem:one_evlan";
    qz_thread_master *master = qz_thread_master_create(QZ_THREAD_CLOCK_REAL);
    qz_mom_handle *handle = NULL;
    ebridged_service *allocator = NULL;
    pthread_t thread;
    int status = 1;

    if (qz_mom_client_open(store, master, &handle) != 0) {
        fprintf(stderr, "%s: not a store\n", store);
        return 2;
    }

    /* On the embedded store only: the allocator in this process. */
    if (argc == 1 && ebridged_start(handle, NULL, &allocator) != 0)
        return 1;

    const ebridge_args args = {
        .user_name = user_name,
        .handle = handle,
        .mom_db = SW_EBRIDGE_APP_DB,
        .auto_subscribe = 1,
        .evlan_reply = on_reply,
        .evlan_release_reply = on_release,
    };
    /* No thread runs the master yet, so the library may be initialised here. */
    if (sw_ebridge_init(&args) == 0 && pthread_create(&thread, NULL, application, master) == 0) {
        qz_thread_run(master); /* until the application stops it */
        pthread_join(thread, NULL);
        status = answers.releases > 0 ? 0 : 1;
    }

    ebridged_stop(allocator);
    qz_mom_client_close(handle);
    qz_thread_master_free(master);
    return status;
}
