// See notices.hpp.
#include "notices.hpp"

#include <algorithm>
#include <chrono>
#include <stdexcept>

#include "flood.hpp"
#include "qz_thread.h"
#include "u_bridge.pb-c.h"

namespace bench
{
namespace
{

struct hearing {
    qz_thread_master *master;
    notice_figures made;
    bool follows = false;
    bool over = false;
};

double seconds_of_the_day()
{
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

void take(const UBridge__CongestNotify &notice, notice_figures &to)
{
    if (notice.timestamp == 0) {
        ++to.lows;
        return;
    }
    ++to.highs;
    to.latest = std::max(to.latest, seconds_of_the_day() - static_cast<double>(notice.timestamp) / 1000);
}

int32_t hear_notice(qz_mom_handle *, const qz_mom_notification *msg, void *args)
{
    auto &its = *static_cast<hearing *>(args);
    if (msg->cmd == QZ_MOM_CMD_SET)
        take(*static_cast<const UBridge__CongestNotify *>(msg->value), its.made);
    return 0;
}

// The confirmation of this subscription, the later one, and the end of the flood.
int32_t hear_end(qz_mom_handle *, const qz_mom_notification *msg, void *args)
{
    auto &its = *static_cast<hearing *>(args);
    its.follows = its.follows || msg->cmd == QZ_MOM_CMD_SUBSCRIBED;
    its.over = its.over || msg->cmd == QZ_MOM_CMD_SET;
    qz_thread_stop(its.master);
    return 0;
}

}  // namespace

void say_that_all_is_written(qz_mom_handle *handle)
{
    const UBridge__VlanEnd end = U_BRIDGE__VLAN_END__INIT;
    if (qz_mom_set(handle, FLOOD_DB, &end.base, nullptr, nullptr) != 0)
        throw std::runtime_error("the end is refused");
}

void be_the_listener(const channel &parent, const std::string &url)
{
    hearing its{qz_thread_master_create(QZ_THREAD_CLOCK_REAL), {}};
    qz_mom_handle *handle = nullptr;
    const UBridge__CongestNotify notices = U_BRIDGE__CONGEST_NOTIFY__INIT;
    const UBridge__VlanEnd end = U_BRIDGE__VLAN_END__INIT;
    if (qz_mom_client_open(url.c_str(), its.master, &handle) != 0 ||
        qz_mom_subscribe(handle, FLOOD_DB, &notices.base, 0, hear_notice, &its) != 0 ||
        qz_mom_subscribe(handle, FLOOD_DB, &end.base, 0, hear_end, &its) != 0)
        throw std::runtime_error("the listener cannot follow");
    while (!its.follows)
        qz_thread_run(its.master);
    parent.put();
    while (!its.over)
        qz_thread_run(its.master);
    for (const double each : {its.made.highs, its.made.lows, its.made.latest})
        parent.put(each);
    qz_mom_client_close(handle);
    qz_thread_master_free(its.master);
}

notice_figures take_notices(const process &listener)
{
    notice_figures made;
    for (double *each : {&made.highs, &made.lows, &made.latest})
        *each = listener.get();
    return made;
}

}  // namespace bench
