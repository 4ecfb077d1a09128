// The port table of this process. See ports.hpp.
#include "ports.hpp"

#include <sys/mman.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>

#include "config_file.hpp"
#include "libddm.h"
#include "u_bridge.pb-c.h"

namespace ebridge_tool
{

using config_text::fault_line;
using config_text::printable;

namespace
{

bool load_file(const std::string &path, std::string *error)
{
    char line[LIBDDM_ERROR_SIZE];
    if (libddm_table_load(path.c_str(), line, sizeof line) == 0)
        return true;
    *error = line;
    return false;
}

// A file in memory, so that CONFIG is read once and may be a pipe.
class memory_file
{
  public:
    explicit memory_file(std::string_view text) : fd_(memfd_create("config", MFD_CLOEXEC))
    {
        for (size_t done = 0; usable() && done < text.size();) {
            const ssize_t wrote = write(fd_, text.data() + done, text.size() - done);
            if (wrote < 0)
                close_it();
            else
                done += static_cast<size_t>(wrote);
        }
    }
    ~memory_file() { close_it(); }
    memory_file(const memory_file &) = delete;
    memory_file &operator=(const memory_file &) = delete;

    bool usable() const { return fd_ >= 0; }
    std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

  private:
    void close_it()
    {
        if (usable())
            close(fd_);
        fd_ = -1;
    }

    int fd_;
};

bool load_text(const std::string &name, std::string_view text, std::string *error)
{
    const memory_file copy(text);
    if (!copy.usable()) {
        *error = printable(name) + ": " + std::strerror(errno);
        return false;
    }
    if (load_file(copy.path(), error))
        return true;
    if (error->starts_with(copy.path()))
        error->replace(0, copy.path().size(), printable(name));
    return false;
}

bool is_listed_port(const std::string &name)
{
    uint32_t ifx = 0;
    return libddm_get_ifx_by_name(name.c_str(), &ifx) == 0;
}

// A list of ports has no LAGs: those of CONFIG get the numbers that they would have by CONFIG's own tables (libddm.h).
bool add_lags(switch_config *config)
{
    for (lag_entry &lag : *config->lags) {
        lag.ifx = 2'000'000 + lag.number;
        lag.phyid = static_cast<uint32_t>(LIBDDM_KIND_AGGREGATE) << 24 | (lag.number + 1);
        const libddm_port row{.ifx = lag.ifx, .gphyid = lag.phyid, .lphyid = lag.phyid, .unit = -1, .port = -1};
        if (libddm_table_add(&row) != 0)
            return false;
    }
    return true;
}

// The numbers of the port table; the first entry that it does not have, or null.
template <typename Entry>
const Entry *find_numbers(std::vector<Entry> *entries)
{
    for (Entry &entry : *entries)
        if (libddm_get_ifx_by_name(entry.key.c_str(), &entry.ifx) != 0 ||
            libddm_get_phyid_by_ifx(entry.ifx, &entry.phyid) != 0)
            return &entry;
    return nullptr;
}

struct port_numbers {
    uint32_t ifx = 0;
    uint32_t phyid = 0;  // 0 none
};

// The numbers of ports by their names, each looked up once: those who name them are many, and ports are few.
class named_ports
{
  public:
    explicit named_ports(const switch_config &config)
    {
        for (size_t i = 0; config.ports && i < config.ports->size(); ++i)
            known_[(*config.ports)[i].key] = {(*config.ports)[i].ifx, (*config.ports)[i].phyid};
        for (size_t i = 0; config.lags && i < config.lags->size(); ++i)
            known_[(*config.lags)[i].key] = {(*config.lags)[i].ifx, (*config.lags)[i].phyid};
    }
    port_numbers find(const std::string &name)
    {
        const auto [at, fresh] = known_.emplace(name, port_numbers());
        if (fresh && libddm_get_ifx_by_name(name.c_str(), &at->second.ifx) == 0)
            libddm_get_phyid_by_ifx(at->second.ifx, &at->second.phyid);
        return at->second;
    }

  private:
    std::map<std::string, port_numbers> known_{};
};

// The first rule of a port that the port table does not have, or null.
const acl_rule *number_rules(switch_config *config, named_ports *ports)
{
    for (size_t i = 0; config->acl_rules && i < config->acl_rules->size(); ++i)
        for (acl_port &port : (*config->acl_rules)[i].in_ports) {
            port.phyid = ports->find(port.name).phyid;
            if (port.phyid == 0)
                return &(*config->acl_rules)[i];
        }
    return nullptr;
}

// The same of members of VLANs.
const vlan_member *number_members(switch_config *config, named_ports *ports)
{
    for (size_t i = 0; config->vlan_members && i < config->vlan_members->size(); ++i) {
        vlan_member &member = (*config->vlan_members)[i];
        const port_numbers found = ports->find(member.port);
        member.ifx = found.ifx;
        member.phyid = found.phyid;
        if (found.phyid == 0)
            return &member;
    }
    return nullptr;
}

bool not_in_port_table(const std::string &name, const char *table, const config_item &item, std::string *error)
{
    *error = fault_line(name, {item.line, table + ('|' + item.key) + ": a port is not in the port table"});
    return false;
}

bool number_ports(const std::string &name, bool listed, switch_config *config, std::string *error)
{
    const port_entry *port = config->ports ? find_numbers(&*config->ports) : nullptr;
    if (port) {
        *error = fault_line(name, {port->line, "PORT|" + port->key + ": is not in the list of ports"});
        return false;
    }
    if (config->lags && !(listed ? add_lags(config) : find_numbers(&*config->lags) == nullptr)) {
        *error = printable(name) + ": the LAGs cannot be added to the port table";
        return false;
    }
    named_ports ports(*config);
    if (const acl_rule *rule = number_rules(config, &ports))
        return not_in_port_table(name, "ACL_RULE", *rule, error);
    if (const vlan_member *member = number_members(config, &ports))
        return not_in_port_table(name, "VLAN_MEMBER", *member, error);
    return true;
}

bool has_ports(const switch_config &config)
{
    return (config.ports && !config.ports->empty()) || (config.lags && !config.lags->empty());
}

// The port table's own tables, with the ports and LAGs that are named as members of VLANs. A lane tells one port from
// another, in the order in which they come.
std::string tables_of_members(const switch_config &config)
{
    nlohmann::json ports = nlohmann::json::object(), lags = nlohmann::json::object();
    for (size_t i = 0; config.lags && i < config.lags->size(); ++i)
        lags[(*config.lags)[i].key] = nlohmann::json::object();
    for (const vlan_member &member : *config.vlan_members)
        if (member.port.starts_with("PortChannel"))
            lags[member.port] = nlohmann::json::object();
        else if (!ports.contains(member.port))
            ports[member.port] = {{"lanes", std::to_string(ports.size())}};
    return nlohmann::json{{"PORT", ports}, {"PORTCHANNEL", lags}}.dump();
}

bool are_ports_told_by_members(const switch_config &config)
{
    return !config.ports && config.vlan_members && !config.vlan_members->empty();
}

bool load_ports(const std::string &name, std::string_view text, const switch_config &config, std::string *error)
{
    if (are_ports_told_by_members(config)) {
        if (load_text(name, tables_of_members(config), error))
            return true;
        // Its line is one of the text that was made here.
        const std::string made_here = printable(name) + ":1: ";
        if (error->starts_with(made_here))
            error->replace(0, made_here.size(), printable(name) + ": the ports in VLAN_MEMBER: ");
        return false;
    }
    return !has_ports(config) || load_text(name, text, error);
}

}  // namespace

uint32_t port_id(uint32_t phyid)
{
    constexpr uint32_t GLOBAL_PORT = 7;
    const uint32_t type = phyid >> 24 == GLOBAL_PORT ? U_BRIDGE__EPORT_TYPE__PORT : U_BRIDGE__EPORT_TYPE__AP;
    return type << 24 | (phyid & 0xffffff);
}

namespace
{

// The interface index of the port that a number stands for, if the port table has it.
std::optional<uint32_t> ifx_of(uint32_t number)
{
    uint32_t phyid = 0, ifx = 0;
    if (libddm_get_phyid_by_ifx(number, &phyid) == 0)
        return number;
    for (const uint32_t kind : {LIBDDM_KIND_GLOBAL, LIBDDM_KIND_AGGREGATE}) {
        phyid = kind << 24 | (number & 0xffffff);
        if (port_id(phyid) == number && libddm_get_ifx_by_phyid(phyid, &ifx) == 0)
            return ifx;
    }
    return std::nullopt;
}

std::optional<uint32_t> number_of(std::string_view text)
{
    const bool hexadecimal = text.starts_with("0x");
    const char *begin = text.data() + (hexadecimal ? 2 : 0), *end = text.data() + text.size();
    uint32_t number = 0;
    const auto read = std::from_chars(begin, end, number, hexadecimal ? 16 : 10);
    return read.ec == std::errc() && read.ptr == end ? std::optional(number) : std::nullopt;
}

}  // namespace

// The port table asks for less of a file than a configuration that is to be brought up has to keep.
bool read_port_table(const std::string &path, std::string *error)
{
    std::string text;
    if (const int code = config_text::read_file(path, &text); code != 0) {
        *error = printable(path) + ": " + std::strerror(code);
        return false;
    }
    switch_config config;
    if (parse_config(path, text, &config, error) && are_ports_told_by_members(config))
        return load_ports(path, text, config, error);
    return load_text(path, text, error);
}

uint32_t known_port(uint32_t number)
{
    uint32_t phyid = 0;
    const std::optional<uint32_t> ifx = ifx_of(number);
    return ifx && libddm_get_phyid_by_ifx(*ifx, &phyid) == 0 ? port_id(phyid) : number;
}

std::string port_name(uint32_t number)
{
    const char *name = nullptr;
    if (const std::optional<uint32_t> ifx = ifx_of(number); ifx && libddm_get_name_by_ifx(*ifx, &name) == 0)
        return printable(name);
    if (number >> 24 == 0)
        return std::to_string(number);
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", number);
    return text;
}

std::optional<uint32_t> find_port(const std::string &text)
{
    uint32_t ifx = 0;
    const bool has_name = libddm_get_ifx_by_name(text.c_str(), &ifx) == 0;
    const std::optional<uint32_t> number = has_name ? ifx : number_of(text);
    return number ? std::optional(known_port(*number)) : std::nullopt;
}

bool read_config(const std::string &path, const std::string &ports_path, switch_config *out, std::string *error)
{
    const bool listed = !ports_path.empty();
    std::string text;
    if (const int code = config_text::read_file(path, &text); code != 0) {
        *error = printable(path) + ": " + std::strerror(code);
        return false;
    }
    libddm_table_clear();
    if (listed && !load_file(ports_path, error))
        return false;
    if (!parse_config(path, text, out, error, listed ? is_listed_port : nullptr))
        return false;
    if (!listed && !load_ports(path, text, *out, error))
        return false;
    return number_ports(path, listed, out, error);
}

}  // namespace ebridge_tool
