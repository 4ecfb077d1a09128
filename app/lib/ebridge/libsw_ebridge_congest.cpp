// Congestion: registers each user as a producer of its record topics once its congestion connection is up; who publishes
// the VLANs of ports registers for them by a call of its own.
#include <cstdio>
#include <cstdlib>

#include "connecting.hpp"
#include "export.hpp"
#include "libcgstctrl.h"
#include "users.hpp"

namespace
{

// Databases whose congestion connection has come up; apart from the data connections' word, never cleared.
constinit uint32_t congestion_db_flags = 0;

// The congestion library keeps what it is given, so module names and topics live as long as the process.
struct module_name {
    char text[40];  // "libvlan_" and the user's name
    module_name *next;
};

constinit module_name *module_names = nullptr;

constexpr libcgstctrl_topic topics[] = {
    {.descriptor = &u_bridge__evlan_session__descriptor, .params = {}},
    {.descriptor = &u_bridge__eport_session__descriptor, .params = {}},
    {.descriptor = &u_bridge__port_vid__descriptor, .params = {}},
};
constexpr libcgstctrl_topic port_vlans_topic = {.descriptor = &u_bridge__port_vlans__descriptor, .params = {}};

// The marks that producers of port VLANs have heard, counted together; `congested` is what the last of them has heard.
constinit libcgstctrl_state port_vlans_state{};

// The kept name of a user's module, made on first use. Null without memory.
const char *module_name_of(const char *user_name)
{
    module_name wanted{};
    std::snprintf(wanted.text, sizeof wanted.text, "libvlan_%s", user_name);
    for (const module_name *known = module_names; known != nullptr; known = known->next)
        if (std::strcmp(known->text, wanted.text) == 0)
            return known->text;
    auto *fresh = static_cast<module_name *>(std::malloc(sizeof(module_name)));
    if (fresh == nullptr)
        return nullptr;
    *fresh = wanted;
    fresh->next = module_names;
    module_names = fresh;
    return fresh->text;
}

}  // namespace

SW_EXPORT int32_t sw_ebridge_mom_connected_for_congestion_callback(qz_mom_handle *, void *connecting_args)
{
    auto *ca = static_cast<sw_ebridge_connecting_args *>(connecting_args);
    if (const int32_t rv = sw::check_connecting_args(SW_HERE, ca); rv != 0)
        return rv;
    const auto *list_args = static_cast<sw::list_args *>(ca->args2);
    sw::note_connected(SW_HERE, congestion_db_flags, ca);
    sw_ebridge_congestion_init(list_args->user_name);
    sw::free_connecting_args(ca);
    return 0;
}

SW_EXPORT int32_t sw_ebridge_congestion_init(const char *user_name)
{
    if (user_name == nullptr) {
        SW_LOG(error, "Assert:Bad args.");
        return -2;
    }
    const sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    const char *module = module_name_of(user_name);
    if (module == nullptr) {
        SW_LOG(error, "Assert:malloc module name failed.");
        return -4;
    }
    SW_LOG(info, "user: %s, mom_db: %d\n", module, user->mod_db);
    if (const int32_t rv = libcgstctrl_gen_init(user->mom_handle, user->mod_db, module, nullptr); rv != 0) {
        SW_LOG(error, "Assert:MOM ctrl failed, error is %d.", rv);
        return rv;
    }
    for (const libcgstctrl_topic &topic : topics)
        libcgstctrl_gen_topic_reg(user->mom_handle, user->mod_db, module, &topic, 0);
    return 0;
}

SW_EXPORT int32_t sw_ebridge_port_vlans_congest(qz_mom_handle *handle, uint32_t db, const char *module)
{
    if (const int32_t rv = libcgstctrl_gen_init(handle, db, module, &port_vlans_state); rv != 0) {
        SW_LOG(error, "Assert:MOM ctrl failed, error is %d.", rv);
        return -3;
    }
    libcgstctrl_gen_topic_reg(handle, db, module, &port_vlans_topic, 0);
    return 0;
}
