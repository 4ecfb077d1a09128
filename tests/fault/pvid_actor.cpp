// A user with default VLANs as a process of its own, for the fault tests: sets and gives up pvids as it is told on
// standard input, and writes what its pvid_change callback hears to standard output, a line at once, so that a kill
// loses nothing.
//
//   pvid_actor URL NAME PORTS     ports 1 to PORTS
//
// Commands
//   churn SEED COUNT       sets or gives up the pvid of a drawn port, COUNT times
//   set PVID               the pvid of port n is PVID + n, of all ports
//   drop                   gives them all up
//   again                  sets all those that it has once more
//   age NAME SECONDS       registers that name and marks its pvids
//   read                   reads the table of the data plane's database
//   ask NUMBER             once all of it is done: writes which pvids it has, what its cache says, and "done NUMBER"
//
// A line is "WHAT PORT PVID OLD". It is patient: what the store cannot take is tried again until it does.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <sstream>
#include <string>

#include "commands.hpp"
#include "libddm.h"
#include "patient_calls.hpp"
#include "sw_ebridge.h"

namespace
{

constexpr uint32_t GLOBAL = LIBDDM_KIND_GLOBAL << 24, LOCAL = LIBDDM_KIND_LOCAL << 24;
constexpr uint32_t PORT_ID = 0x10000000;  // of the eport id of a port
constexpr uint32_t IFX = 100;             // of port 0
constexpr uint32_t LAST_VLAN = 4094;

std::string name;
int32_t ports;
qz_thread_master *master;
qz_mom_handle *handle;
std::map<int32_t, int32_t> pvids;

void say(const char *what, int32_t port, int32_t pvid = 0, int32_t old = 0)
{
    char line[128];
    const int size = std::snprintf(line, sizeof line, "%s %d %d %d\n", what, port, pvid, old);
    if (write(STDOUT_FILENO, line, static_cast<size_t>(size)) != size)
        std::abort();
}

fault::patient_calls calls([](int32_t code) { say("error", code); });

int32_t on_change(uint32_t ifx, uint16_t new_pvid, uint16_t old_pvid, sw_vlan_pvid_entry *)
{
    say("heard", static_cast<int32_t>(ifx - IFX), new_pvid, old_pvid);
    return 0;
}

int32_t set(int32_t port, int32_t pvid)
{
    const int32_t code = sw_vlan_pvid_set(name.c_str(), PORT_ID | static_cast<uint32_t>(port), pvid);
    if (code == 0 && pvid != 0)
        pvids[port] = pvid;
    else if (code == 0)
        pvids.erase(port);
    return code;
}

int32_t init(const std::string &user)
{
    ebridge_args args{};
    args.user_name = user.c_str();
    args.handle = handle;
    args.mom_db = SW_EBRIDGE_APP_DB;
    args.pvid_change = user == name ? on_change : nullptr;
    return sw_ebridge_init(&args);
}

int32_t age(const std::string &user, int32_t seconds)
{
    const qz_mom_timeval delay{seconds, 0};
    if (sw_ebridge_list_item_get(user.c_str()) == nullptr && init(user) != 0)
        std::abort();
    return sw_vlan_port_vid_aging_flag_set(user.c_str(), &delay, nullptr, nullptr);
}

// What its records say comes when they are written, and so are all that it wrote before.
int32_t on_own_record(qz_mom_handle *, const qz_mom_notification *msg, void *number)
{
    if (msg->end != QZ_MOM_END_SCAN) {
        const auto *record =
            reinterpret_cast<const UBridge__PortVid *>(static_cast<const qz_mom_hash_value *>(msg->value)->record);
        say("has", static_cast<int32_t>(static_cast<uint32_t>(record->index->port) - PORT_ID), record->pvid);
        return 0;
    }
    for (int32_t port = 1; port <= ports; ++port) {
        int32_t pvid = 0;
        sw_vlan_pvid_get(name.c_str(), IFX + static_cast<uint32_t>(port), &pvid);
        say("cached", port, pvid);
    }
    say("done", static_cast<int32_t>(reinterpret_cast<intptr_t>(number)), msg->error);
    return 0;
}

int32_t tell_state(int32_t number)
{
    UBridge__PortIndex index = U_BRIDGE__PORT_INDEX__INIT;
    UBridge__PortVid own = U_BRIDGE__PORT_VID__INIT;
    index.t_user = name.data();
    own.index = &index;
    return qz_mom_scan(handle, SW_EBRIDGE_APP_DB, &own.base, 0, on_own_record,
                       reinterpret_cast<void *>(intptr_t{number}));
}

void churn(uint32_t seed, int32_t count)
{
    std::minstd_rand random(seed);
    while (count-- > 0) {
        const auto port = static_cast<int32_t>(1 + (random() >> 8) % static_cast<uint32_t>(ports));
        const auto pvid = (random() >> 8) % 3 == 0 ? 0 : static_cast<int32_t>(1 + (random() >> 8) % LAST_VLAN);
        calls.put([=] { return set(port, pvid); });
    }
}

void obey(const std::string &line)
{
    std::istringstream words(line);
    std::string command, user;
    int32_t a = 0, b = 0;
    words >> command;
    if (command == "age")
        words >> user;
    words >> a >> b;
    if (command == "churn") {
        churn(static_cast<uint32_t>(a), b);
    } else if (command == "set" || command == "drop") {
        for (int32_t port = 1; port <= ports; ++port)
            calls.put([=, pvid = command == "set" ? a + port : 0] { return set(port, pvid); });
    } else if (command == "again") {
        for (const auto &[port, pvid] : pvids)
            calls.put([its = port, of = pvid] { return set(its, of); });
    } else if (command == "age") {
        calls.put([=] { return age(user, a); });
    } else if (command == "read") {
        calls.put([] { return sw_vlan_pvid_table_scan(name.c_str(), nullptr, nullptr); });
    } else if (command == "ask") {
        calls.put([=] { return tell_state(a); });
    }
    calls.work(master);
}

int32_t on_follow(qz_mom_handle *, const qz_mom_notification *msg, void *)
{
    if (msg->cmd == QZ_MOM_CMD_SUBSCRIBED)
        say("follows", 0);
    return 0;
}

bool start(const char *url)
{
    for (int32_t port = 1; port <= ports; ++port) {
        const auto id = static_cast<uint32_t>(port);
        const libddm_port row{.ifx = IFX + id, .gphyid = GLOBAL | id, .lphyid = LOCAL | id, .unit = 0, .port = port};
        if (libddm_table_add(&row) != 0)
            return false;
    }
    master = qz_thread_master_create(QZ_THREAD_CLOCK_REAL);
    return qz_mom_client_open(url, master, &handle) == 0 && init(name) == 0 &&
           sw_vlan_pvid_subscribe(name.c_str(), on_follow, nullptr) == 0;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc != 4 || (ports = std::atoi(argv[3])) <= 0) {
        std::fputs("usage: pvid_actor URL NAME PORTS\n", stderr);
        return 2;
    }
    name = argv[2];
    if (!start(argv[1])) {
        std::fprintf(stderr, "pvid_actor: %s: the user cannot be started\n", argv[1]);
        return 1;
    }
    if (std::getenv("QZ_ZLOG_DIR") == nullptr)
        g_sw_vlan_file_zlog_level = 0;
    fault::run_on_commands(master, obey);
    return 0;
}
