// Diagnosis and housekeeping: the counters of the request protocol, the rings of refused requests, the release delays,
// the age timer.
#include "libsw_ebridge_ds.hpp"

#include <cstdlib>

#include "export.hpp"
#include "logging.hpp"
#include "names.hpp"
#include "print.hpp"
#include "users.hpp"

SW_EXPORT sw_diagnosis_stat g_diagnosis_stat;
sw_diagnosis_stat g_diagnosis_stat = {};

namespace sw
{

constinit qz_mom_timeval evlan_delay_del_timeval = {.sec = 40, .usec = 0};
constinit qz_mom_timeval eport_delay_del_timeval = {.sec = 40, .usec = 0};
constinit const qz_mom_timeval mom_key_aging_timer = {.sec = 1800, .usec = 0};

}  // namespace sw

// ---- rings of refused requests ------------------------------------------------------------------------------------

namespace
{

constinit sw_evlan_index_map evlan_error_record[SW_EBRIDGE_ERR_RECORDS] = {};
constinit sw_eport_index_map eport_error_record[SW_EBRIDGE_ERR_RECORDS] = {};

template <class Item>
void add_to_ring(Item (&ring)[SW_EBRIDGE_ERR_RECORDS], uint32_t &recorded, const Item *record)
{
    if (record == nullptr)
        return;
    ring[recorded % SW_EBRIDGE_ERR_RECORDS] = *record;
    ++recorded;
}

}  // namespace

SW_EXPORT void sw_evlan_record_err_msg(const sw_evlan_index_map *record)
{
    add_to_ring(evlan_error_record, g_diagnosis_stat.evlan_err_msg, record);
}

SW_EXPORT void sw_eport_record_err_msg(const sw_eport_index_map *record)
{
    add_to_ring(eport_error_record, g_diagnosis_stat.eport_err_msg, record);
}

SW_EXPORT sw_evlan_index_map *sw_evlan_get_err_msg_array(void) { return evlan_error_record; }
SW_EXPORT sw_eport_index_map *sw_eport_get_err_msg_array(void) { return eport_error_record; }

SW_EXPORT void sw_ebridge_reset_stat(void)
{
    g_diagnosis_stat = {};
    for (sw_evlan_index_map &record : evlan_error_record)
        record = {};
    for (sw_eport_index_map &record : eport_error_record)
        record = {};
}

// ---- release delays -----------------------------------------------------------------------------------------------

SW_EXPORT int32_t sw_ebridge_delay_time_set(int32_t evlan_seconds, int32_t eport_seconds)
{
    sw::evlan_delay_del_timeval.sec = evlan_seconds;
    sw::eport_delay_del_timeval.sec = eport_seconds;
    sw::print("evlan_delay_del_second has been set to %d, eport_delay_del_second has been set to %d\n", evlan_seconds,
              eport_seconds);
    return 0;
}

// ---- age timer ----------------------------------------------------------------------------------------------------

// One object stands for the timers of all users. The name is spelled as operators know it.
static constinit qz_thread_timer g_ebidge_age_timer = {};

static constexpr int32_t kAgeTimerSeconds = 40;

SW_EXPORT int32_t sw_ebridge_age_timer_create(const char *user_name)
{
    sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    if (user->age_timer_armed != 0)
        return 0;
    SW_LOG(warning, "create age timer user_name:%s", user->user_name);
    auto *name = static_cast<char *>(std::malloc(sizeof user->user_name));
    if (name == nullptr) {
        SW_LOG(error, "Assert:alloc failed.");
        return -4;
    }
    std::memcpy(name, user->user_name, sizeof user->user_name);
    ++user->stat;
    user->age_timer_armed = 1;
    const int32_t rv = qz_thread_insert_timer(qz_mom_handle_master(user->mom_handle), &g_ebidge_age_timer,
                                              sw_ebridge_age_exec, name, kAgeTimerSeconds, "sw-ebridge-age-timer");
    if (rv != 0) {
        // A timer that will never fire must not keep the next one from being armed.
        SW_LOG(error, "Assert:qz_thread_insert_timer failed, rv: %d.", rv);
        user->age_timer_armed = 0;
        --user->stat;
        std::free(name);
        return -3;
    }
    return 0;
}

SW_EXPORT int32_t sw_ebridge_age_exec(qz_thread_event *event)
{
    if (event == nullptr || event->arg == nullptr) {
        SW_LOG(error, "Assert:age timer arg is NULL");
        return -2;
    }
    char user_name[SW_EBRIDGE_NAME_SIZE];
    sw::copy_name(user_name, static_cast<const char *>(event->arg));
    std::free(event->arg);
    SW_LOG(warning, "age timer exec user_name:%s", user_name);
    sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    user->age_timer_armed = 0;
    sw_evlan_no_request_clear(user);
    sw_eport_no_request_clear(user);
    return 0;
}
