// Hears of congestion as a process of its own, for the fault tests: follows the notices of a database, and the sessions
// written there beside them, and writes what it hears to standard output in the order in which it hears it, a line at once.
//
//   notice_listener URL DB
//
// A line is "following", "session KEYID", or "notice FROM since" at a high mark and "notice FROM over" at a low one.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "qz_mom.h"
#include "qz_thread.h"
#include "u_bridge.pb-c.h"

namespace
{

void say(const char *line, size_t size)
{
    if (write(STDOUT_FILENO, line, size) != static_cast<ssize_t>(size))
        std::abort();
}

int32_t hear_notice(qz_mom_handle *, const qz_mom_notification *msg, void *)
{
    char line[128];
    int size = 0;
    if (msg->cmd == QZ_MOM_CMD_SUBSCRIBED) {
        size = std::snprintf(line, sizeof line, "following\n");
    } else if (msg->cmd == QZ_MOM_CMD_SET) {
        const auto &notice = *static_cast<const UBridge__CongestNotify *>(msg->value);
        size = std::snprintf(line, sizeof line, "notice %s %s\n", notice.notice_from,
                             notice.timestamp != 0 ? "since" : "over");
    }
    say(line, static_cast<size_t>(size));
    return 0;
}

int32_t hear_session(qz_mom_handle *, const qz_mom_notification *msg, void *)
{
    if (msg->cmd != QZ_MOM_CMD_HMSET)
        return 0;
    const auto *value = static_cast<const qz_mom_hash_value *>(msg->value);
    char line[64];
    const auto *record = reinterpret_cast<const UBridge__EvlanSession *>(value->record);
    const int size = std::snprintf(line, sizeof line, "session %d\n", record->index->keyid);
    say(line, static_cast<size_t>(size));
    return 0;
}

}  // namespace

int main(int count, char **words)
{
    if (count != 3) {
        std::fputs("usage: notice_listener URL DB\n", stderr);
        return 2;
    }
    qz_thread_master *const master = qz_thread_master_create(QZ_THREAD_CLOCK_REAL);
    qz_mom_handle *handle = nullptr;
    if (master == nullptr || qz_mom_client_open(words[1], master, &handle) != 0)
        return 1;
    const auto db = static_cast<uint32_t>(std::strtoul(words[2], nullptr, 10));
    UBridge__EvlanAppIndex any = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    UBridge__EvlanSession sessions = U_BRIDGE__EVLAN_SESSION__INIT;
    sessions.index = &any;
    const UBridge__CongestNotify notices = U_BRIDGE__CONGEST_NOTIFY__INIT;
    if (qz_mom_subscribe(handle, db, &sessions.base, 0, hear_session, nullptr) != 0 ||
        qz_mom_subscribe(handle, db, &notices.base, 0, hear_notice, nullptr) != 0)
        return 1;
    return qz_thread_run(master);
}
