// VLANs of ports: reading them, and who says the same of a port. See show_vlan.hpp; show_vlan_text.cpp has the words.
#include "show_vlan.hpp"

#include <algorithm>
#include <map>
#include <tuple>
#include <utility>

#include "config_file.hpp"
#include "ports.hpp"
#include "table_scan.hpp"
#include "u_bridge.pb-c.h"

namespace ebridge_tool
{

// ---- reading --------------------------------------------------------------------------------------------------------

namespace
{

constexpr int32_t LAST_VLAN = 4094;

// Reads tables of records with a UBridge__PortIndex.
class port_reader
{
  public:
    port_reader(const vlan_query &query, vlan_records *out) : query_(query), out_(out) {}
    int32_t open(std::string *error) { return link_.open(query_.store, query_.databases, error); }

    // Hands over (record, port) of each record of a table, of one user or "" all, and notes what is wrong with it.
    template <typename Record, typename Take>
    int32_t read(Record pattern, std::string user, const Take &take)
    {
        UBridge__PortIndex index = U_BRIDGE__PORT_INDEX__INIT;
        index.t_user = user.data();
        pattern.index = &index;
        const auto heard = [&](uint32_t db, const ProtobufCMessage &message) {
            const auto &record = reinterpret_cast<const Record &>(message);
            const uint32_t port = known_port(static_cast<uint32_t>(record.index->port));
            if (query_.port && port != *query_.port)
                return;
            std::string fault;
            take(record, db, port, &fault);
            if (!fault.empty())
                out_->faults.push_back(place(db, record.index->t_user, port) + fault);
        };
        return read_table(&link_, query_.databases, pattern.base, query_.patience_usec, heard);
    }

  private:
    static std::string place(uint32_t db, const std::string &user, uint32_t port)
    {
        return "database " + std::to_string(db) + (user.empty() ? "" : ", user " + config_text::printable(user)) +
               ", port " + port_name(port) + ": ";
    }

    const vlan_query &query_;
    vlan_records *const out_;
    store_link link_{};
};

std::optional<vlan_set> read_bitmap(const UBridge__Bitmap *bitmap, const char *what, std::string *fault)
{
    if (!bitmap)
        return vlan_set();
    std::string why;
    std::optional<vlan_set> made = vlan_set::read(bitmap->start, {bitmap->value, bitmap->n_value}, &why);
    if (!made)
        *fault += (fault->empty() ? "" : "; ") + std::string(what) + ": " + why;
    return made;
}

void take_vlans(const UBridge__PortVlans &record, uint32_t db, uint32_t port, vlan_records *out, std::string *fault)
{
    const auto vlans = read_bitmap(record.vbmp, "VLANs", fault);
    const auto untagged = read_bitmap(record.ubmp, "untagged VLANs", fault);
    read_bitmap(record.mcbmp, "multicast VLANs", fault);
    if (!fault->empty())
        return;
    vlan_record made{db, port, record.index->t_user, *vlans, *untagged};
    made.untagged &= made.vlans;
    out->vlans.push_back(std::move(made));
}

void take_pvid(int32_t pvid, pvid_record made, std::vector<pvid_record> *to, std::string *fault)
{
    made.pvid = static_cast<uint32_t>(pvid);
    if (pvid < 0 || pvid > LAST_VLAN)
        *fault = "default VLAN: " + std::to_string(pvid) + " is no VLAN";
    else if (pvid != 0)
        to->push_back(std::move(made));
}

}  // namespace

int32_t read_vlans(const vlan_query &query, vlan_records *out, std::string *error)
{
    port_reader reader(query, out);
    int32_t code = reader.open(error);
    if (code != 0)
        return code;
    const auto vlans = [&](const UBridge__PortVlans &record, uint32_t db, uint32_t port, std::string *fault) {
        take_vlans(record, db, port, out, fault);
    };
    const auto set = [&](const UBridge__PortVid &record, uint32_t db, uint32_t port, std::string *fault) {
        take_pvid(record.pvid, {db, port, record.index->t_user}, &out->set, fault);
    };
    const auto counting = [&](const UBridge__PvidTable &record, uint32_t db, uint32_t port, std::string *fault) {
        const auto is_its = [=](const pvid_record &of) { return of.db == db && of.port == port; };
        if (std::ranges::any_of(out->counting, is_its))
            *fault = "default VLAN: " + std::to_string(record.new_pvid) + " stands there under another number of it";
        else
            take_pvid(record.new_pvid, {db, port}, &out->counting, fault);
    };
    code = reader.read(UBridge__PortVlans U_BRIDGE__PORT_VLANS__INIT, query.user, vlans);
    if (code == 0)
        code = reader.read(UBridge__PortVid U_BRIDGE__PORT_VID__INIT, query.user, set);
    if (code == 0)
        code = reader.read(UBridge__PvidTable U_BRIDGE__PVID_TABLE__INIT, "", counting);
    if (code != 0)
        *error = std::string("the VLANs of ports cannot be read: ") + qz_mom_strerror(code);
    std::ranges::sort(out->faults);
    return code;
}

// ---- by port --------------------------------------------------------------------------------------------------------

namespace
{

bool says_the_same(const port_share &a, const port_share &b)
{
    return a.pvid == b.pvid && a.vlans == b.vlans && a.untagged == b.untagged;
}

bool is_about(const port_share &share, uint32_t vlan)
{
    return share.vlans.has(vlan) || (vlan != 0 && share.pvid == vlan);
}

// Of a user whom the store knows under two numbers of one port the pvid goes to what is there already.
void add_pvid(const pvid_record &set, std::vector<port_share> *shares)
{
    const auto its = std::ranges::find_if(
        *shares, [&](const port_share &share) { return share.users.front() == set.user && share.pvid == 0; });
    if (its != shares->end())
        its->pvid = set.pvid;
    else
        shares->push_back({.users = {set.user}, .pvid = set.pvid});
}

void keep_vlan(uint32_t vlan, port_view *port)
{
    std::erase_if(port->shares, [=](const port_share &share) { return !is_about(share, vlan); });
    for (port_share &share : port->shares) {
        share.vlans &= vlan_set(vlan);
        share.untagged &= vlan_set(vlan);
    }
}

// `shares` with one user each. In the order of these, the first of each share.
void join(std::vector<port_share> *shares)
{
    std::ranges::sort(*shares, {}, [](const port_share &share) {
        return std::tuple(std::string_view(share.users.front()), share.vlans.next(0), share.pvid);
    });
    std::vector<port_share> joined;
    for (port_share &share : *shares) {
        const auto same = std::ranges::find_if(joined, [&](const port_share &of) { return says_the_same(of, share); });
        if (same == joined.end())
            joined.push_back(std::move(share));
        else if (same->users.back() != share.users.front())
            same->users.push_back(std::move(share.users.front()));
    }
    *shares = std::move(joined);
}

}  // namespace

std::vector<port_view> ports_of(vlan_records records, const vlan_query &query)
{
    std::map<std::pair<uint32_t, uint32_t>, port_view> ports;  // by number and database
    const auto port_of = [&ports](const auto &record) -> port_view & {
        port_view &port = ports[{record.port, record.db}];
        port.port = record.port;
        port.db = record.db;
        return port;
    };
    for (vlan_record &of : records.vlans)
        port_of(of).shares.push_back({.users = {std::move(of.user)}, .vlans = of.vlans, .untagged = of.untagged});
    for (const pvid_record &of : records.set)
        add_pvid(of, &port_of(of).shares);
    for (const pvid_record &of : records.counting)
        port_of(of).pvid = of.pvid;
    std::vector<port_view> result;
    for (auto &[at, port] : ports) {
        if (query.vlan)
            keep_vlan(*query.vlan, &port);
        const bool counts = port.pvid != 0 && query.user.empty() && port.pvid == query.vlan.value_or(port.pvid);
        if (port.shares.empty() && counts)
            port.shares.emplace_back();
        else
            join(&port.shares);
        if (port.shares.empty())
            continue;
        port.name = port_name(port.port);
        result.push_back(std::move(port));
    }
    return result;
}

}  // namespace ebridge_tool
