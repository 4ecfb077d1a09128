// What "ebridge show vlan" tells of VLANs and ports: two tables for people, an array for programs. See show_vlan.hpp.
#include <map>
#include <set>
#include <string_view>
#include <utility>

#include "config_file.hpp"
#include "json_text.hpp"
#include "ports.hpp"
#include "show_vlan.hpp"
#include "text_columns.hpp"

namespace ebridge_tool
{

namespace
{

constexpr const char *NONE = "-";

std::string user_list(const std::vector<std::string> &users)
{
    std::string text;
    for (const std::string &user : users)
        text += (text.empty() ? "" : ",") + config_text::printable(user);
    return text.empty() ? NONE : text;
}

std::string pvid_text(uint32_t pvid) { return pvid == 0 ? NONE : std::to_string(pvid); }

vlan_set tagged(const port_share &share)
{
    vlan_set vlans = share.vlans;
    vlans -= share.untagged;
    return vlans;
}

std::string summary(const std::vector<port_view> &ports)
{
    vlan_set vlans;
    std::set<uint32_t> numbers;
    std::set<std::string_view> users;
    for (const port_view &port : ports) {
        numbers.insert(port.port);
        for (const port_share &share : port.shares) {
            vlans |= share.vlans;
            users.insert(share.users.begin(), share.users.end());
        }
    }
    return counted(vlans.size(), "VLAN") + " on " + counted(numbers.size(), "port") + ", " +
           counted(users.size(), "user") + '\n';
}

}  // namespace

// ---- by port --------------------------------------------------------------------------------------------------------

std::string vlans_by_port(const std::vector<port_view> &ports, bool with_db)
{
    std::vector<text_columns::cells> rows;
    for (const port_view &port : ports)
        for (const port_share &share : port.shares)
            rows.push_back({port.name, std::to_string(port.db), pvid_text(port.pvid), user_list(share.users),
                            pvid_text(share.pvid), share.untagged.text(), tagged(share).text()});
    const text_columns columns(
        {{"PORT"}, {"DB", true, with_db}, {"PVID", true}, {"USER"}, {"SETS", true}, {"UNTAGGED"}, {"TAGGED"}});
    return aligned(columns, rows) + summary(ports);
}

// ---- by VLAN --------------------------------------------------------------------------------------------------------

namespace
{

// What a port is to a VLAN.
enum class role : uint8_t { untagged, tagged, pvid, pvid_not_in_force };
constexpr const char *NAME_OF_ROLE[] = {"untagged", "tagged", "pvid", "pvid not in force"};

using port_list = std::vector<const port_view *>;

std::string name_list(const port_list &ports)
{
    std::string text;
    for (const port_view *port : ports)
        text += (text.empty() ? "" : ",") + port->name;
    return text;
}

// The rows of a VLAN.
class vlan_rows
{
  public:
    void add(const port_view &port, uint32_t vlan)
    {
        bool is_set = false;
        for (const port_share &share : port.shares)
            for (const std::string &user : share.users) {
                if (share.vlans.has(vlan))
                    add(port, share.untagged.has(vlan) ? role::untagged : role::tagged, user);
                if (share.pvid == vlan && vlan != 0)
                    add(port, port.pvid == vlan ? role::pvid : role::pvid_not_in_force, user);
                is_set = is_set || share.pvid == vlan;
            }
        if (port.pvid == vlan && vlan != 0 && !is_set)
            add(port, role::pvid, "");
    }

    // One for all users who say the same of the same ports.
    void print(const std::string &vlans, std::vector<text_columns::cells> *to) const
    {
        for (const auto &[key, ports_of] : ports_) {
            std::map<port_list, std::vector<std::string>> users_of;
            for (const auto &[user, ports] : ports_of)
                users_of[ports].emplace_back(user);
            for (const auto &[ports, users] : users_of)
                to->push_back({vlans, std::to_string(key.first), user_list(users),
                               NAME_OF_ROLE[static_cast<size_t>(key.second)], name_list(ports)});
        }
    }

  private:
    void add(const port_view &port, role as, std::string_view user)
    {
        port_list &ports = ports_[{port.db, as}][user];
        if (ports.empty() || ports.back() != &port)
            ports.push_back(&port);
    }

    std::map<std::pair<uint32_t, role>, std::map<std::string_view, port_list>> ports_{};  // by database
};

// Where a run of VLANs ends: where the port begins or ends to carry them, or to carry them untagged.
void cut(const port_share &share, vlan_set *cuts)
{
    *cuts |= share.vlans.edges();
    *cuts |= share.untagged.edges();
}

// A VLAN that stands alone, as default VLANs do.
void cut_out(uint32_t vlan, vlan_set *cuts)
{
    cuts->add(vlan);
    if (vlan + 1 < vlan_set::SIZE)
        cuts->add(vlan + 1);
}

}  // namespace

std::string ports_by_vlan(const std::vector<port_view> &ports, bool with_db, std::optional<uint32_t> only)
{
    vlan_set cuts, shown;
    const auto stand_alone = [&](uint32_t pvid) {
        if (pvid == 0)
            return;
        cut_out(pvid, &cuts);
        shown.add(pvid);
    };
    for (const port_view &port : ports) {
        stand_alone(port.pvid);
        for (const port_share &share : port.shares) {
            cut(share, &cuts);
            stand_alone(share.pvid);
            shown |= share.vlans;
        }
    }
    if (only)
        shown &= vlan_set(*only);
    std::vector<text_columns::cells> rows;
    shown.for_each_run(cuts, [&](uint32_t first, uint32_t last) {
        vlan_rows of;
        for (const port_view &port : ports)
            of.add(port, first);
        of.print(run_text(first, last), &rows);
    });
    const text_columns columns({{"VLAN"}, {"DB", true, with_db}, {"USER"}, {"AS"}, {"PORTS"}});
    return aligned(columns, rows) + summary(ports);
}

// ---- for programs ---------------------------------------------------------------------------------------------------

namespace
{

using json = nlohmann::ordered_json;

json run_object(uint32_t first, uint32_t last, bool is_pvid, bool is_untagged)
{
    json object{{"vlan", first}};
    if (last != first)
        object["vlanEnd"] = last;
    if (is_pvid)
        object["flags"].push_back("PVID");
    if (is_untagged)
        object["flags"].push_back("Egress Untagged");
    return object;
}

json share_object(const port_view &port, const port_share &share)
{
    json vlans = json::array();
    vlan_set cuts;
    cut(share, &cuts);
    if (port.pvid != 0)
        cut_out(port.pvid, &cuts);
    share.vlans.for_each_run(cuts, [&](uint32_t first, uint32_t last) {
        vlans.push_back(run_object(first, last, first == port.pvid && first != 0, share.untagged.has(first)));
    });
    json object{{"ifname", port.name},
                {"vlans", std::move(vlans)},
                {"users", share.users},
                {"db", port.db},
                {"port", port.port}};
    if (port.pvid != 0)
        object["pvid"] = port.pvid;
    if (share.pvid != 0)
        object["pvid_set"] = share.pvid;
    return object;
}

}  // namespace

// Object by object, so that what is held beside the text is one.
std::string vlan_json(const std::vector<port_view> &ports)
{
    std::string text = "[";
    for (const port_view &port : ports)
        for (const port_share &share : port.shares)
            text += (text.size() == 1 ? "" : ",") + json_text(share_object(port, share));
    return text + ']';
}

}  // namespace ebridge_tool
