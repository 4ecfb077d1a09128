// Diagnosis and housekeeping: the counters of the request protocol, the rings of refused requests, the dumps of both, the
// release delays, the age timer.
#include "libsw_ebridge_ds.hpp"

#include <algorithm>
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

// ---- dumps --------------------------------------------------------------------------------------------------------

namespace
{

// What is left of all releases are the applications' own.
void print_releases(uint32_t auto_release, uint32_t total_release, uint32_t err_msg)
{
    sw::print("%12s | %11s | %13s | %9s |\n", "auto_release", "app_release", "total_release", "err_msg");
    sw::print("%12d | %11d | %13d | %9d |\n\n", auto_release, total_release - auto_release, total_release, err_msg);
}

// The name may fill its field.
struct shown_name {
    char text[SW_EBRIDGE_NAME_SIZE + 1];
    explicit shown_name(const char (&name)[SW_EBRIDGE_NAME_SIZE])
    {
        std::memcpy(text, name, sizeof name);
        text[sizeof name] = '\0';
    }
};

void print_header(const sw_evlan_index_map &)
{
    sw::print(" %7s | %16s | %8s | %4s | %5s | %3s | %2s | %4s\n", "pos", "app_name", "evlan_id", "type", "key", "pri",
              "db", "flag");
}

void print_header(const sw_eport_index_map &)
{
    sw::print(" %7s | %16s | %8s | %4s | %5s | %5s | %3s | %2s | %4s\n", "pos", "app_name", "eport_id", "type", "key1",
              "key2", "pri", "db", "flag");
}

void print_record(uint32_t number, const sw_evlan_index_map &of)
{
    sw::print(" %7d | %16s | %8d | %4d | %5d | %3d | %2d | %4d\n", number, shown_name(of.user_name).text, of.key[0],
              of.value[0], of.value[1], of.priority, of.session_arg, of.ds_flag);
}

void print_record(uint32_t number, const sw_eport_index_map &of)
{
    sw::print(" %7d | %16s | %8d | %4d | %5d | %5d | %3d | %2d | %4d\n", number, shown_name(of.user_name).text,
              of.key[0], of.value[0], of.value[1], of.value[2], of.priority, of.carried[0], of.ds_flag);
}

// The oldest first, by their numbers from 1. The first line is the same for both rings; operators' scripts look for it.
template <class Item>
int32_t dump_ring(const Item (&ring)[SW_EBRIDGE_ERR_RECORDS], uint32_t recorded)
{
    const uint32_t kept = std::min<uint32_t>(recorded, SW_EBRIDGE_ERR_RECORDS);
    const uint32_t older = recorded - kept;
    sw::print("dump the evlan_error_msg from %d to %d, total: %d, as follows.\n", older + 1, recorded, kept);
    if (recorded == 0)
        return 0;
    print_header(ring[0]);
    sw::print("%s", sw::kRule81);
    for (uint32_t n = older; n < recorded; ++n)
        print_record(n + 1, ring[n % SW_EBRIDGE_ERR_RECORDS]);
    return 0;
}

}  // namespace

int32_t sw::dump_statistics()
{
    const sw_diagnosis_stat &of = g_diagnosis_stat;
    print("\n************************ evlan diagnosis statistic ******************************\n%s", kRule81);
    print("%7s | %9s | %12s | %13s | %9s | %10s |\n", "request", "add_reply", "reply_vlancb", "reply_evlancb",
          "del_reply", "release_cb");
    print("%7d | %9d | %12d | %13d | %9d | %10d |\n\n", of.evlan_request, of.evlan_add_reply, of.evlan_reply_vlancb,
          of.evlan_reply_evlancb, of.evlan_del_reply, of.evlan_release_cb);
    print_releases(of.evlan_auto_release, of.evlan_total_release, of.evlan_err_msg);
    print("************************ eport diagnosis statistic ******************************\n%s", kRule81);
    print("%7s | %9s | %8s | %9s | %10s |\n", "request", "add_reply", "reply_cb", "del_reply", "release_cb");
    print("%7d | %9d | %8d | %9d | %10d |\n\n", of.eport_request, of.eport_add_reply, of.eport_reply_cb,
          of.eport_del_reply, of.eport_release_cb);
    print_releases(of.eport_auto_release, of.eport_total_release, of.eport_err_msg);
    return 0;
}

int32_t sw::dump_evlan_errors() { return dump_ring(evlan_error_record, g_diagnosis_stat.evlan_err_msg); }
int32_t sw::dump_eport_errors() { return dump_ring(eport_error_record, g_diagnosis_stat.eport_err_msg); }

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
