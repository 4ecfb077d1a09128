// "ebridge show vlan" on the command line. See show_vlan.hpp for what it does.
#include <CLI/CLI.hpp>
#include <memory>

#include "config_file.hpp"
#include "ports.hpp"
#include "show_command.hpp"
#include "show_vlan.hpp"

namespace ebridge_tool
{

namespace
{

constexpr const char *VLAN_FOOTER =
    "Each user publishes for itself which VLANs a port carries, which of them untagged, and which is the port's default\n"
    "VLAN (pvid). All of it is shown; users who say the same share a row. Which pvid counts is decided by ebridged.\n"
    "  --by vlan  a row for each VLAN, or several that follow each other and are alike, and what ports are to it:\n"
    "             untagged, tagged; pvid: it is the default VLAN of these ports; pvid not in force: the user has set it,\n"
    "             and another one counts, or nobody has decided. Is an ebridged running?\n"
    "  --by port  a row for each port and what users say of it; PVID is the default VLAN that counts, SETS the one that\n"
    "             this user has set\n"
    "USER is - where a default VLAN counts that none of the users has set whose records were read. Multicast marks are not\n"
    "shown. A record that makes no sense is named on standard error and left out. No record is written.\n"
    "\n"
    "A port is known by a number, its eport id or its interface index; FILE tells the names. Without it a port that some\n"
    "user knows by its id and another one by its index is shown as two.\n"
    "\n"
    "--json prints the array that \"bridge -compressvlans -json vlan show\" prints for Linux bridges, by port: objects with\n"
    "ifname and vlans (vlan, vlanEnd, flags). PVID is the VLAN that counts. There is an object for each port and what users\n"
    "say of it, with users, db, port (the number), pvid (that counts) and pvid_set beside them.\n"
    "\n"
    "Examples:\n"
    "  ebridge show vlan --store redis://127.0.0.1 --ports config_db.json\n"
    "  ebridge show vlan --store redis://127.0.0.1 --ports config_db.json --by port --port Ethernet0\n"
    "  ebridge show vlan --store redis://127.0.0.1 --vlan 10 --user l2    where l2 has put VLAN 10\n"
    "  ebridge show vlan --store redis://127.0.0.1 --json | jq '.[] | {ifname, vlans}'\n"
    "\n"
    "Exit status: 0 the records were read, also if there are none; 1 one of them makes no sense, the result cannot be\n"
    "written, or memory has run out; 2 an argument or FILE is wrong, or there is no such database; 3 nobody answers at\n"
    "the store's URL, or it makes no sense.";

struct vlan_arguments {
    vlan_query query{};
    std::string by = "vlan";
    std::string ports;  // file
    std::string port;
    bool json = false;
};

std::string text_of(const vlan_arguments &given, const std::vector<port_view> &ports)
{
    if (given.json)
        return vlan_json(ports) + '\n';
    const bool with_db = given.query.databases.size() > 1;
    return given.by == "port" ? vlans_by_port(ports, with_db) : ports_by_vlan(ports, with_db, given.query.vlan);
}

int show_vlan(const vlan_arguments &given)
{
    vlan_query query = given.query;
    std::string error;
    if (!given.ports.empty() && !read_port_table(given.ports, &error))
        return complain(error, BAD_INPUT);
    query.port = given.port.empty() ? std::nullopt : find_port(given.port);
    if (!given.port.empty() && !query.port)
        return complain(
            "--port: " + config_text::printable(given.port) + " is no number, and " +
                (given.ports.empty() ? "without --ports no port has a name" : "no port of that name is known"),
            BAD_INPUT);
    vlan_records records;
    const auto read = [&](std::string *why) { return read_vlans(query, &records, why); };
    const auto text = [&] {
        for (const std::string &fault : records.faults)
            complain(fault, SOMETHING_DIFFERS);
        return text_of(given, ports_of(records, query));
    };
    const int status = show(given.json, read, text);
    return records.faults.empty() ? status : std::max<int>(status, SOMETHING_DIFFERS);
}

}  // namespace

void add_show_vlan(CLI::App *show, std::vector<command> *commands)
{
    const auto given = std::make_shared<vlan_arguments>();
    CLI::App *vlan = show->add_subcommand("vlan", "VLANs of ports: tagged, untagged, default, and whose will it is");
    vlan->footer(VLAN_FOOTER);
    add_store_options(vlan, {&given->query.store, &given->query.databases, &given->json, "array"});
    vlan->add_option("--by", given->by, "what the rows are for: vlan or port")
        ->type_name("WHAT")
        ->check(CLI::IsMember({"vlan", "port"}))
        ->capture_default_str();
    vlan->add_option("--user", given->query.user, "only what this user has published, and what counts there")
        ->type_name("NAME");
    vlan->add_option("--port", given->port, "only this port: its name, interface index or eport id")->type_name("PORT");
    vlan->add_option("--vlan", given->query.vlan, "only what is about this VLAN, 0 to 4095")
        ->type_name("N")
        ->check(CLI::Range(0, 4095));
    vlan->add_option("--ports", given->ports, "names of ports: a list (port_config.ini) or a configuration")
        ->type_name("FILE");
    vlan->callback([given] { remove_repeated(&given->query.databases); });
    commands->push_back({vlan, [given] { return show_vlan(*given); }});
}

}  // namespace ebridge_tool
