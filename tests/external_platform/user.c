/* An application on the platform that does nothing: its calls succeed, and nobody answers. */
#include <stdio.h>

#include "sw_ebridge.h"

int main(void)
{
    static char name[] = "nobody_answers";
    qz_mom_handle handle = {NULL};
    const ebridge_args args = {.user_name = name, .handle = &handle, .mom_db = SW_EBRIDGE_APP_DB, .auto_subscribe = 1};
    UBridge__EvlanAppIndex index = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    index.t_user = name;
    index.type = U_BRIDGE__EVLAN_TYPE__VXLAN;
    index.keyid = 5010;

    const int registered = sw_ebridge_init(&args);
    const int requested = sw_evlan_request(&index, 0, U_BRIDGE__RES_PRIORITY__LEVEL_0);
    printf("registered: %d, requested: %d\n", registered, requested);
    return 0;
}
