// Diagnosis: the counters of the request protocol, the ring of refused evlan requests, the release delays.
#include "libsw_ebridge_ds.hpp"

#include "export.hpp"
#include "print.hpp"

SW_EXPORT sw_diagnosis_stat g_diagnosis_stat;
sw_diagnosis_stat g_diagnosis_stat = {};

namespace sw
{

constinit qz_mom_timeval evlan_delay_del_timeval = {.sec = 40, .usec = 0};
constinit qz_mom_timeval eport_delay_del_timeval = {.sec = 40, .usec = 0};

}  // namespace sw

static constinit sw_evlan_index_map evlan_error_record[SW_EBRIDGE_ERR_RECORDS] = {};

SW_EXPORT void sw_evlan_record_err_msg(const sw_evlan_index_map *record)
{
    if (record == nullptr)
        return;
    evlan_error_record[g_diagnosis_stat.evlan_err_msg % SW_EBRIDGE_ERR_RECORDS] = *record;
    ++g_diagnosis_stat.evlan_err_msg;
}

SW_EXPORT sw_evlan_index_map *sw_evlan_get_err_msg_array(void) { return evlan_error_record; }

SW_EXPORT int32_t sw_ebridge_delay_time_set(int32_t evlan_seconds, int32_t eport_seconds)
{
    sw::evlan_delay_del_timeval.sec = evlan_seconds;
    sw::eport_delay_del_timeval.sec = eport_seconds;
    sw::print("evlan_delay_del_second has been set to %d, eport_delay_del_second has been set to %d\n", evlan_seconds,
              eport_seconds);
    return 0;
}
