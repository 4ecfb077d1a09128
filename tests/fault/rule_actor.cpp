// A user with match rules as a process of its own, for the fault tests: adds and drops rules as it is told on standard
// input, and writes what it does and which verdicts it hears to standard output, a line at once, so that a kill loses
// nothing.
//
//   rule_actor URL NAME
//
// Commands
//   add SEED FIRST COUNT   a rule for each of COUNT outer VLANs (whatever their number), of a priority that the seed gives
//   drop FIRST COUNT       removes its rules of these VLANs
//   again                  adds all the rules that it has once more
//   age NAME SECONDS       registers that name and marks its rules
//   ask NUMBER             writes "done NUMBER" once it has done what it was told before
//
// A line is "WHAT VLAN PRIORITY RESULT". It is patient: what the store cannot take is tried again until it does.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <sstream>
#include <string>

#include "commands.hpp"
#include "patient_calls.hpp"
#include "sw_ebridge.h"

namespace
{

std::string name;
qz_thread_master *master;
qz_mom_handle *handle;
std::map<int32_t, int32_t> rules;  // VLAN -> priority

void say(const char *what, int32_t vlan, int32_t priority = 0, int32_t result = 0)
{
    char line[128];
    const int size = std::snprintf(line, sizeof line, "%s %d %d %d\n", what, vlan, priority, result);
    if (write(STDOUT_FILENO, line, static_cast<size_t>(size)) != size)
        std::abort();
}

fault::patient_calls calls([](int32_t code) { say("error", code); });

int32_t on_verdict(UBridge__EmatchEntry *entry)
{
    say("verdict", entry->index->evlan1, entry->index->match_priority, static_cast<int32_t>(entry->result));
    return 0;
}

int32_t with_rule(int32_t vlan, int32_t priority, int32_t (*call)(const UBridge__EmatchEntry *))
{
    UBridge__EmatchIndex index = U_BRIDGE__EMATCH_INDEX__INIT;
    index.t_user = name.data();
    index.match_type = U_BRIDGE__MATCH_TYPE__OVID;
    index.evlan1 = vlan;
    index.match_priority = priority;
    UBridge__EmatchEntry entry = U_BRIDGE__EMATCH_ENTRY__INIT;
    entry.index = &index;
    entry.action_type = U_BRIDGE__EMATCH_ACTION_TYPE__REPLACE_OVID;
    return call(&entry);
}

int32_t add(int32_t vlan, int32_t priority)
{
    say("added", vlan, priority);
    rules[vlan] = priority;
    return with_rule(vlan, priority, sw_ematch_entry_add);
}

int32_t drop(int32_t vlan)
{
    const auto found = rules.find(vlan);
    if (found == rules.end())
        return 0;
    const int32_t code = with_rule(vlan, found->second, sw_ematch_entry_del);
    if (code == 0) {
        say("dropped", vlan, found->second);
        rules.erase(found);
    }
    return code;
}

int32_t init(const std::string &user)
{
    ebridge_args args{};
    args.user_name = user.c_str();
    args.handle = handle;
    args.mom_db = args.ematch_mom_db = SW_EBRIDGE_APP_DB;
    args.ematch_reply = on_verdict;
    return sw_ebridge_init(&args);
}

int32_t age(const std::string &user, int32_t seconds)
{
    const qz_mom_timeval delay{seconds, 0};
    if (sw_ebridge_list_item_get(user.c_str()) == nullptr && init(user) != 0)
        std::abort();
    return sw_ematch_aging_flag_set(user.c_str(), &delay, nullptr, nullptr);
}

void obey(const std::string &line)
{
    std::istringstream words(line);
    std::string command, user;
    int32_t a = 0, b = 0, c = 0;
    words >> command;
    if (command == "age")
        words >> user;
    words >> a >> b >> c;
    if (command == "add") {
        std::minstd_rand random(static_cast<uint32_t>(a));
        for (int32_t vlan = b; vlan < b + c; ++vlan) {
            const auto priority = static_cast<int32_t>(random() >> 8 & 7);
            // A rule of another priority is another rule.
            calls.put([=] { return rules.contains(vlan) && rules[vlan] != priority ? drop(vlan) : 0; });
            calls.put([=] { return add(vlan, priority); });
        }
    } else if (command == "drop") {
        for (int32_t vlan = a; vlan < a + b; ++vlan)
            calls.put([=] { return drop(vlan); });
    } else if (command == "again") {
        for (const auto &[vlan, priority] : rules)
            calls.put([its = vlan, of = priority] { return add(its, of); });
    } else if (command == "age") {
        calls.put([=] { return age(user, a); });
    } else if (command == "ask") {
        calls.put([=] {
            say("done", a);
            return 0;
        });
    }
    calls.work(master);
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc != 3) {
        std::fputs("usage: rule_actor URL NAME\n", stderr);
        return 2;
    }
    name = argv[2];
    master = qz_thread_master_create(QZ_THREAD_CLOCK_REAL);
    if (qz_mom_client_open(argv[1], master, &handle) != 0 || init(name) != 0 ||
        sw_ematch_subscribe(name.c_str(), nullptr, nullptr) != 0) {
        std::fprintf(stderr, "rule_actor: %s: the user cannot be started\n", argv[1]);
        return 1;
    }
    if (std::getenv("QZ_ZLOG_DIR") == nullptr)
        g_sw_vlan_file_zlog_level = 0;
    fault::run_on_commands(master, obey);
    return 0;
}
