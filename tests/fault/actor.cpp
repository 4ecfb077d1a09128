// A user of the library as a process of its own, for the fault tests: requests and releases as it is told on standard
// input, and writes what it does and what its callbacks hear to standard output, a line at once, so that a kill loses
// nothing.
//
//   fault_actor URL NAME SCOPE      SCOPE 0: follows its own sessions; 2: all, in the data-plane database
//
// Commands
//   churn SEED COUNT FIRST KEYS SHARED   makes COUNT requests, with releases in between, of KEYS keys of its own and of
//                                        SHARED ones that others use, too; half of them are eports
//   want TABLE TYPE FIRST COUNT          requests keys; TABLE is "evlan" or "eport"
//   drop TABLE TYPE FIRST COUNT          releases keys at once
//   again                                requests what it wants and does not hold
//   view NUMBER                          writes its index map, whether it is busy, and "end NUMBER"
//
// A line is "WHAT USER TABLE TYPE KEYID KEYID2 ID", whatever of it means something.
//
// It is patient: what the store cannot take is tried again until it does.
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <optional>
#include <random>
#include <sstream>
#include <string>

#include "commands.hpp"
#include "eport_user.hpp"
#include "ledger.hpp"
#include "sw_ebridge.h"

namespace
{

using fault::bridge_key;
using fault::event;
using fault::table;

constexpr uint32_t VLAN = U_BRIDGE__EVLAN_TYPE__VLAN, VXLAN = U_BRIDGE__EVLAN_TYPE__VXLAN,
                   L3VPN = U_BRIDGE__EVLAN_TYPE__L3VPN;
constexpr uint32_t PORT = U_BRIDGE__EPORT_TYPE__PORT, AP = U_BRIDGE__EPORT_TYPE__AP,
                   VXLAN_AC = U_BRIDGE__EPORT_TYPE__VXLAN_AC;
constexpr uint32_t FIRST_SHARED = 1;
constexpr int64_t RETRY_USEC = 5000;
constexpr size_t WINDOW = 64;  // requests that wait for their answer

struct holding {
    bool wanted = false;
    bool asked = false;
    uint32_t id = 0;
};

struct operation {
    enum class kind { request, release, delayed_release };
    kind what;
    bridge_key key;
};

std::string name;  // lives as long as the process, as a delayed release needs it
qz_thread_master *master;
std::map<bridge_key, holding> holdings;
std::deque<operation> queue;
size_t asked;  // holdings that wait for their answer
bool retry_pending;
fault::eport_user *eports;  // lives as long as the process

struct churning {
    std::minstd_rand random;
    uint32_t left, first, keys, shared;
};
std::optional<churning> churn;

void work();

void say(const char *what, const char *user = "-", const bridge_key &key = {}, uint32_t id = 0)
{
    char line[256];
    const int size = std::snprintf(line, sizeof line, "%s %s %s %u %u %u %u\n", what, user,
                                   key.of == table::evlan ? "evlan" : "eport", key.type, key.keyid, key.keyid2, id);
    if (write(STDOUT_FILENO, line, static_cast<size_t>(size)) != size)
        std::abort();
}

// ---- what the callbacks hear ----------------------------------------------------------------------------------------

void answered(const bridge_key &key, uint32_t id)
{
    holding &of = holdings[key];
    asked -= of.asked;
    of.asked = false;
    of.id = id == fault::REFUSED ? 0 : id;
    of.wanted = of.wanted && id != fault::REFUSED;
    work();
}

void heard(const char *user, const bridge_key &key, uint32_t id)
{
    if (id == fault::REFUSED)
        say("refused", user, key);
    else
        say("granted", user, key, id);
    if (user == name)
        answered(key, id);
}

void heard_removal(const char *user, const bridge_key &key, uint32_t id)
{
    say("removed", user, key, id);
    if (user == name)
        holdings[key].id = 0;
}

bridge_key evlan_key(int32_t type, int32_t keyid)
{
    return {table::evlan, static_cast<uint32_t>(type), static_cast<uint32_t>(keyid)};
}

int32_t on_vlan(UBridge__VlanAppIndex *index, int32_t vlan_id)
{
    const bridge_key key = evlan_key(index->type, index->keyid);
    if (vlan_id != -1)  // else the other callback says so, too
        heard(index->user, key, key.type << 24 | static_cast<uint32_t>(vlan_id));
    return 0;
}

int32_t on_evlan(UBridge__EvlanAppIndex *app, UBridge__EvlanIndex *evlan)
{
    heard(app->t_user, evlan_key(app->type, app->keyid), static_cast<uint32_t>(evlan->evlan_id));
    return 0;
}

int32_t on_release(UBridge__EvlanAppIndex *app, UBridge__EvlanIndex *evlan, int32_t)
{
    heard_removal(app->t_user, evlan_key(app->type, app->keyid), static_cast<uint32_t>(evlan->evlan_id));
    return 0;
}

void put(operation::kind what, const bridge_key &key);

// The library withdraws a refused evlan by itself; here a refused eport is withdrawn in its turn.
void on_eport(event::kind what, const fault::session_name &who, uint32_t id)
{
    if (what == event::kind::removed)
        return heard_removal(who.user.c_str(), who.key, id);
    if (id == fault::REFUSED && who.user == name)
        put(operation::kind::release, who.key);
    heard(who.user.c_str(), who.key, id);
}

// ---- what it does ---------------------------------------------------------------------------------------------------

// Some ports want an id of their own choice, which is an aggregate port's; two of them the same.
uint32_t wanted_id(const bridge_key &key)
{
    const bool chooses = key.type == PORT && key.keyid2 % 8 == 2;
    return chooses ? AP << 24 | (0x100000 + key.keyid2 / 16) : key.type << 24;
}

int32_t change_eport(const operation &next)
{
    switch (next.what) {
        case operation::kind::request:
            return eports->request(next.key, wanted_id(next.key));
        case operation::kind::release:
            return eports->release(next.key);
        default:
            return eports->release_later(next.key, 1);
    }
}

int32_t change_evlan(const operation &next)
{
    UBridge__EvlanAppIndex index = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    index.t_user = name.data();
    index.type = static_cast<int32_t>(next.key.type);
    index.keyid = static_cast<int32_t>(next.key.keyid);
    if (next.what == operation::kind::request)
        return sw_evlan_request(&index, 0, U_BRIDGE__RES_PRIORITY__LEVEL_0);
    return next.what == operation::kind::release ? sw_evlan_release_direct(&index) : sw_evlan_release(&index);
}

void retry_later()
{
    if (retry_pending)
        return;
    retry_pending = true;
    const auto again = [](void *) {
        retry_pending = false;
        work();
    };
    if (qz_thread_call_after(master, RETRY_USEC, again, nullptr) != 0)
        std::abort();
}

// False: the store takes nothing now.
bool carry_out(const operation &next)
{
    say(next.what == operation::kind::request ? "requested" : "released", name.c_str(), next.key);
    const int32_t code = next.key.of == table::evlan ? change_evlan(next) : change_eport(next);
    if (code == QZ_MOM_EDOWN || code == QZ_MOM_EFULL) {
        retry_later();
        return false;
    }
    if (code != 0)
        say("error", name.c_str(), next.key, static_cast<uint32_t>(code));
    holding &of = holdings[next.key];
    const bool requests = code == 0 && next.what == operation::kind::request;
    asked = asked - of.asked + requests;
    of.asked = requests;
    return true;
}

void put(operation::kind what, const bridge_key &key)
{
    holdings[key].wanted = what == operation::kind::request;
    queue.push_back({what, key});
}

bridge_key eport_key(uint32_t type, uint32_t keyid) { return {table::eport, type, keyid % 7, keyid}; }

// Every key that is drawn is one evlan or one eport.
bridge_key key_of(uint32_t keyid)
{
    if (keyid % 2 == 0)
        return {table::evlan, keyid % 16 == 0 ? VLAN : keyid % 16 == 2 ? L3VPN : VXLAN, keyid};
    return eport_key(keyid % 4 == 1 ? VXLAN_AC : PORT, keyid & ~1U);
}

// The next step of a churn: most keys are requested when they are not held, and released when they are.
void churn_on()
{
    auto &random = churn->random;
    const uint32_t at = static_cast<uint32_t>(random() % (churn->keys + churn->shared));
    const uint32_t keyid = at < churn->keys ? churn->first + at : FIRST_SHARED + at - churn->keys;
    const bridge_key key = key_of(keyid);
    const holding &of = holdings[key];
    const auto draw = random() % 10;
    if (of.wanted && draw < 8) {
        put(draw < 6 ? operation::kind::release : operation::kind::delayed_release, key);
        return;
    }
    put(operation::kind::request, key);
    if (--churn->left == 0)
        churn.reset();
}

// Does what it can.
void work()
{
    while (!retry_pending && asked < WINDOW) {
        if (queue.empty() && churn)
            churn_on();
        if (queue.empty() || !carry_out(queue.front()))
            return;
        queue.pop_front();
    }
}

// ---- commands -------------------------------------------------------------------------------------------------------

int32_t show_map_item(sw_evlan_index_map *item, void *, int32_t)
{
    if (item->kind == 0)
        say("forward", "-", {table::evlan, item->key[0], item->key[1]}, item->value[0]);
    else if (item->kind == 1)
        say("backward", "-", {table::evlan, item->value[0], item->value[1]}, item->key[0]);
    return 0;
}

void obey(const std::string &line)
{
    std::istringstream words(line);
    std::string command, kind;
    uint32_t a = 0, b = 0, c = 0, d = 0, e = 0;
    words >> command;
    if (command == "want" || command == "drop")
        words >> kind;
    words >> a >> b >> c >> d >> e;
    if (command == "churn") {
        churn = churning{std::minstd_rand(a), b, c, d, e};
    } else if (command == "want" || command == "drop") {
        for (uint32_t keyid = b; keyid < b + c; ++keyid)
            put(command == "want" ? operation::kind::request : operation::kind::release,
                kind == "eport" ? eport_key(a, keyid) : bridge_key{table::evlan, a, keyid});
    } else if (command == "again") {
        for (auto &[key, of] : holdings) {
            asked -= of.asked && of.wanted;
            of.asked = of.asked && !of.wanted;
            if (of.wanted && of.id == 0)
                queue.push_back({operation::kind::request, key});
        }
    } else if (command == "view") {
        say("view");
        sw_evlan_index_map_hash_traverse(0, show_map_item, nullptr);
        say(queue.empty() && !churn && asked == 0 ? "idle" : "busy");
        say("end", "-", {}, a);
    }
    work();
}

bool start(const char *url, bool follows_all)
{
    master = qz_thread_master_create(QZ_THREAD_CLOCK_REAL);
    qz_mom_handle *handle = nullptr;
    if (qz_mom_client_open(url, master, &handle) != 0)
        return false;
    ebridge_args user{};
    user.user_name = name.c_str();
    user.handle = handle;
    user.mom_db = SW_EBRIDGE_APP_DB;
    user.auto_subscribe = 1;
    // Both, so that reconnections are followed on the database that is subscribed.
    user.evlan_data_type = follows_all ? 2 : 0;
    user.eport_data_type = follows_all ? 1 : 0;
    user.vlan_reply = on_vlan;
    user.evlan_reply = on_evlan;
    user.evlan_release_reply = on_release;
    say("started", name.c_str());
    if (sw_ebridge_init(&user) != 0 || sw_ebridge_delay_time_set(1, 1) != 0)
        return false;
    eports = new fault::eport_user(handle, name, follows_all, on_eport);
    if (eports->start() != 0)
        return false;
    if (std::getenv("QZ_ZLOG_DIR") == nullptr)
        g_sw_vlan_file_zlog_level = 0;
    return true;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc != 4 || (std::strcmp(argv[3], "0") != 0 && std::strcmp(argv[3], "2") != 0)) {
        std::fputs("usage: fault_actor URL NAME 0|2\n", stderr);
        return 2;
    }
    name = argv[2];
    if (!start(argv[1], argv[3][0] == '2')) {
        std::fprintf(stderr, "fault_actor: %s: the user cannot be started\n", argv[1]);
        return 1;
    }
    fault::run_on_commands(master, obey);
    return 0;
}
