/* The driver of a card with two chips, simulated: it makes hardware objects behind evlans and eports, reports them, and an
 * application on each chip hears of them.
 *
 * A chip is a unit, and a unit is a slot of the library: the application registers once in each, under one name. It follows
 * no store, being here for the hardware alone. The same evlan is another object on each chip: the application is told which,
 * and the driver, which knows its objects by the chip's numbers, asks the library for the ids.
 */
#include <inttypes.h>
#include <stdio.h>

#include "sw_ebridge.h"

enum { UNITS = 2, SDK_ACCESS = 48 /* what these chips call an attachment */ };

/* The simulated hardware: it numbers what it makes. */
static struct chip {
    int32_t next_vsi;
    int32_t next_vport;
} chips[UNITS] = {{1, 100}, {5, 500}};

/* ---- the application ---------------------------------------------------------------------------------------------- */

static int32_t on_evlan_made(uint32_t unit, UBridge__EvlanIndex *evlan, SBridge__EvlanSdkIndex *sdk)
{
    printf("unit %" PRIu32 ": evlan 0x%08" PRIx32 " is vsi %" PRId32 "\n", unit, (uint32_t)evlan->evlan_id, sdk->vsi);
    return 0;
}

static int32_t on_evlan_gone(uint32_t unit, UBridge__EvlanIndex *evlan, SBridge__EvlanSdkIndex *sdk)
{
    printf("unit %" PRIu32 ": evlan 0x%08" PRIx32 " was vsi %" PRId32 "\n", unit, (uint32_t)evlan->evlan_id, sdk->vsi);
    return 0;
}

static int32_t on_eport_made(uint32_t unit, UBridge__EportIndex *eport, UBridge__EportSdkIndex *sdk)
{
    printf("unit %" PRIu32 ": eport 0x%08" PRIx32 " is vport %" PRId32 "\n", unit, (uint32_t)eport->eport_id,
           sdk->vport);
    return 0;
}

static int32_t on_eport_gone(uint32_t unit, UBridge__EportIndex *eport, UBridge__EportSdkIndex *sdk)
{
    printf("unit %" PRIu32 ": eport 0x%08" PRIx32 " was vport %" PRId32 "\n", unit, (uint32_t)eport->eport_id,
           sdk->vport);
    return 0;
}

/* ---- the driver: the ids come with the replies of the allocator, which is left out here ----------------------------- */

static int32_t make_evlan(uint32_t unit, int32_t evlan_id)
{
    UBridge__EvlanIndex evlan = U_BRIDGE__EVLAN_INDEX__INIT;
    SBridge__EvlanSdkIndex sdk = S_BRIDGE__EVLAN_SDK_INDEX__INIT;
    evlan.evlan_id = evlan_id;
    sdk.type = U_BRIDGE__EVLAN_TYPE__VXLAN;
    sdk.vsi = chips[unit].next_vsi++;
    return sda_evlan_create_callback(unit, &evlan, &sdk);
}

static int32_t make_eport(uint32_t unit, int32_t eport_id)
{
    UBridge__EportIndex eport = U_BRIDGE__EPORT_INDEX__INIT;
    UBridge__EportSdkIndex sdk = U_BRIDGE__EPORT_SDK_INDEX__INIT;
    eport.eport_id = eport_id;
    sdk.type = SDK_ACCESS;
    sdk.vport = chips[unit].next_vport++;
    return sda_eport_create_callback(unit, &eport, &sdk);
}

/* An event of the chip names its own numbers: which eport does it mean? */
static void hear_event(uint32_t unit, int32_t vport)
{
    UBridge__EportSdkIndex sdk = U_BRIDGE__EPORT_SDK_INDEX__INIT;
    UBridge__EportIndex eport = U_BRIDGE__EPORT_INDEX__INIT;
    sdk.type = SDK_ACCESS;
    sdk.vport = vport;
    if (sda_eport_sdk2sdp(unit, &sdk, &eport) == 0 && eport.eport_id != 0)
        printf("unit %" PRIu32 ": an event of vport %" PRId32 " means eport 0x%08" PRIx32 "\n", unit, vport,
               (uint32_t)eport.eport_id);
    else
        printf("unit %" PRIu32 ": an event of vport %" PRId32 " means nothing\n", unit, vport);
}

int main(void)
{
    UBridge__EvlanIndex evlan = U_BRIDGE__EVLAN_INDEX__INIT;
    UBridge__EportIndex eport = U_BRIDGE__EPORT_INDEX__INIT;
    const ebridge_args application = {
        .user_name = "chip_watcher",
        .sda_evlan_create = on_evlan_made,
        .sda_evlan_destroy = on_evlan_gone,
        .sda_eport_create = on_eport_made,
        .sda_eport_destroy = on_eport_gone,
    };
    int32_t failed = 0;

    evlan.evlan_id = 0x20000005; /* VXLAN, number 5 */
    eport.eport_id = 0x30000007; /* an attachment of a VXLAN, number 7 */
    for (uint32_t unit = 0; unit < UNITS; ++unit) {
        failed |= sw_ebridge_init_inst(unit, &application);
        failed |= make_evlan(unit, evlan.evlan_id);
        failed |= make_eport(unit, eport.eport_id);
    }
    hear_event(0, 100);
    hear_event(1, 500);
    hear_event(1, 100); /* a vport of the other chip */
    for (uint32_t unit = 0; unit < UNITS; ++unit) {
        failed |= sda_eport_destroy_callback(unit, &eport, NULL);
        failed |= sda_evlan_destroy_callback(unit, &evlan, NULL);
    }
    hear_event(0, 100);
    return failed == 0 ? 0 : 1;
}
