// The flow of "ebridge run": subscribe, request in slices, wait for every answer, read back, compare. See run.hpp.
#include "run.hpp"

#include <chrono>
#include <cstdio>

#include "session.hpp"

namespace ebridge_tool
{

namespace
{

// How many requests may be open at a time: more would only fill queues.
constexpr size_t MAX_OPEN = 1024;

uint32_t any_id(uint32_t type) { return type << 24; }

std::vector<request> list_requests(const switch_config &config, run_result *result)
{
    std::vector<request> all;
    if (config.vlans) {
        result->tables.push_back({.name = "VLAN", .requested = config.vlans->size()});
        for (const vlan_entry &vlan : *config.vlans)
            all.push_back({.table = result->tables.size() - 1,
                           .key = vlan.key,
                           .type = U_BRIDGE__EVLAN_TYPE__VLAN,
                           .keyid = vlan.number,
                           .wanted = any_id(U_BRIDGE__EVLAN_TYPE__VLAN) | vlan.number,
                           .vid = vlan.number});
    }
    if (config.vxlan_maps) {
        result->tables.push_back({.name = "VXLAN_TUNNEL_MAP", .requested = config.vxlan_maps->size()});
        for (const vxlan_map_entry &map : *config.vxlan_maps)
            all.push_back({.table = result->tables.size() - 1,
                           .key = map.key,
                           .type = U_BRIDGE__EVLAN_TYPE__VXLAN,
                           .keyid = map.vni,
                           .wanted = any_id(U_BRIDGE__EVLAN_TYPE__VXLAN),
                           .vid = 0});
    }
    return all;
}

// Sends one request, again whenever the store's queues are full. 0, or the code that it failed with.
int32_t send_patiently(session *users, const request &wanted, int64_t patience)
{
    for (;;) {
        const int32_t code = users->send(wanted);
        if (code != QZ_MOM_EFULL)
            return code;
        const size_t before = users->done();
        if (!users->wait_until([users, before] { return users->done() > before; }, patience))
            return code;
    }
}

// Requests all, and returns when all are answered and heard, or when nothing has been heard for too long.
void request_all(session *users, std::vector<request> *requests, const run_options &options)
{
    size_t sent = 0, failed = 0;
    const auto report = [&] {
        if (options.progress)
            options.progress(users->done(), requests->size());
    };
    for (request &wanted : *requests) {
        wanted.code = send_patiently(users, wanted, options.patience_usec);
        failed += wanted.code != 0;
        if (++sent % 64 == 0)
            report();
        const auto has_room = [&] { return sent - failed < users->done() + MAX_OPEN / 2; };
        if (sent - failed >= users->done() + MAX_OPEN && !users->wait_until(has_room, options.patience_usec))
            return;
    }
    const auto next = [&, seen = users->done()]() mutable {
        if (users->done() >= seen + 64)
            seen = users->done(), report();
        return users->done() >= sent - failed;
    };
    users->wait_until(next, options.patience_usec);
    report();
}

std::string refusal(const request &of)
{
    if (of.code != 0)
        return "it cannot be requested, code " + std::to_string(of.code);
    if (!of.answered)
        return "no answer";
    if ((of.wanted & 0xffffff) == 0)
        return "no id left";
    char text[64];
    std::snprintf(text, sizeof text, "id 0x%08x cannot be given", of.wanted);
    return text;
}

void evaluate(const session &users, const std::vector<request> &requests, run_result *result)
{
    for (const request &of : requests) {
        table_result &table = result->tables[of.table];
        const std::string name = printable(table.name + '|' + of.key) + ": ";
        if (!of.answered || of.reply == -1) {
            ++table.refused;
            result->problems.push_back(name + "refused: " + refusal(of));
            continue;
        }
        ++table.granted;
        if (const char *difference = users.difference(of))
            result->problems.push_back(name + "differs: " + difference);
        else
            ++table.verified;
    }
}

}  // namespace

bool run_result::all_equal() const { return problems.empty(); }

bool run_config(const switch_config &config, const run_options &options, run_result *out, std::string *error)
{
    const auto start = std::chrono::steady_clock::now();
    std::vector<request> requests = list_requests(config, out);
    session users(&requests);
    if (!users.open(options, error)) {
        out->store_missing = users.store_missing();
        return false;
    }
    request_all(&users, &requests, options);
    if (!users.scan(error))
        return false;
    evaluate(users, requests, out);
    out->seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return true;
}

}  // namespace ebridge_tool
