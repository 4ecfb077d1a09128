// Reading a switch configuration: the file, and what its tables mean. See config.hpp.
#include "config.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>

#include "tables.hpp"

namespace ebridge_tool
{

namespace
{

constexpr size_t MAX_FILE = 64U << 20;
constexpr uint32_t MAX_VLAN = 4094;
constexpr uint32_t MAX_VNI = 0xffffff;

bool is_meant(std::string_view table)
{
    return table == "VLAN" || table == "VXLAN_TUNNEL_MAP" || table == "VXLAN_TUNNEL";
}

// Digits alone, nothing around them; 0 when it is not that or too large.
uint32_t read_number(std::string_view digits)
{
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    return error == std::errc() && end == digits.data() + digits.size() ? number : 0;
}

// The number of "Vlan10"; 0 when it names none from 1 to 4094.
uint32_t vlan_number(std::string_view name)
{
    constexpr std::string_view PREFIX = "Vlan";
    if (!name.starts_with(PREFIX))
        return 0;
    const uint32_t number = read_number(name.substr(PREFIX.size()));
    return number <= MAX_VLAN ? number : 0;
}

std::string quoted(const config_field &field)
{
    return field.scalar ? field.name + " \"" + field.text + '"' : field.name;
}

// Gives tables their meaning. A fault is set once, by the first thing that makes no sense.
class interpreter
{
  public:
    explicit interpreter(switch_config *out) : out_(out) {}

    // Nothing is requested for a tunnel, but a map has to be of one that there is.
    void tunnels(const config_table &table);
    bool vlans(const config_table &table);
    bool vxlan_maps(const config_table &table);
    const config_fault &fault() const { return fault_; }

  private:
    bool fail(const config_table &table, const config_entry &entry, const std::string &what)
    {
        fault_ = {entry.line, table.name + '|' + entry.key + ": " + what};
        return false;
    }
    bool vlan(const config_table &table, const config_entry &entry);
    bool vxlan_map(const config_table &table, const config_entry &entry);

    switch_config *out_;
    config_fault fault_;
    std::optional<std::set<std::string>> tunnels_;
    std::map<uint32_t, std::string> vlan_keys_;  // number -> entry that defines it
    std::map<uint32_t, std::string> vni_keys_;
};

void interpreter::tunnels(const config_table &table)
{
    tunnels_.emplace();
    for (const config_entry &entry : table.entries)
        tunnels_->insert(entry.key);
}

bool interpreter::vlans(const config_table &table)
{
    out_->vlans.emplace();
    return std::ranges::all_of(table.entries, [&](const config_entry &entry) { return vlan(table, entry); });
}

bool interpreter::vlan(const config_table &table, const config_entry &entry)
{
    const uint32_t number = vlan_number(entry.key);
    if (number == 0)
        return fail(table, entry, "the name must be Vlan1 to Vlan4094");
    const config_field *vlanid = entry.find("vlanid");
    if (vlanid && (!vlanid->scalar || read_number(vlanid->text) != number))
        return fail(table, entry, quoted(*vlanid) + " is not the number of the name");
    const auto [first, fresh] = vlan_keys_.emplace(number, entry.key);
    if (!fresh)
        return fail(table, entry, "is the same VLAN as " + first->second);
    out_->vlans->push_back({entry.key, number});
    return true;
}

bool interpreter::vxlan_maps(const config_table &table)
{
    out_->vxlan_maps.emplace();
    return std::ranges::all_of(table.entries, [&](const config_entry &entry) { return vxlan_map(table, entry); });
}

bool interpreter::vxlan_map(const config_table &table, const config_entry &entry)
{
    const size_t bar = entry.key.find('|');
    if (bar == 0 || bar == std::string::npos || bar + 1 == entry.key.size())
        return fail(table, entry, "the key must be TUNNEL|MAP");
    if (const std::string tunnel = entry.key.substr(0, bar); tunnels_ && !tunnels_->contains(tunnel))
        return fail(table, entry, "the tunnel \"" + tunnel + "\" is not in the table VXLAN_TUNNEL");
    const config_field *vni = entry.find("vni");
    const config_field *vlan = entry.find("vlan");
    if (!vni || !vlan)
        return fail(table, entry, vni ? "vlan is missing" : "vni is missing");
    const uint32_t vni_number = vni->scalar ? read_number(vni->text) : 0;
    if (vni_number == 0 || vni_number > MAX_VNI)
        return fail(table, entry, quoted(*vni) + " is not a number from 1 to 16777215");
    const uint32_t number = vlan->scalar ? vlan_number(vlan->text) : 0;
    if (number == 0)
        return fail(table, entry, quoted(*vlan) + " is not Vlan1 to Vlan4094");
    if (out_->vlans && !vlan_keys_.contains(number))
        return fail(table, entry, quoted(*vlan) + " is not in the table VLAN");
    const auto [first, fresh] = vni_keys_.emplace(vni_number, entry.key);
    if (!fresh)
        return fail(table, entry, quoted(*vni) + " is that of " + first->second + " already");
    out_->vxlan_maps->push_back({entry.key, vni_number, number});
    return true;
}

// Maps last, wherever they stand: they refer to VLANs and tunnels.
bool interpret(const std::vector<config_table> &tables, switch_config *out, config_fault *fault)
{
    interpreter reader(out);
    const config_table *maps = nullptr;
    for (const config_table &table : tables) {
        if (!table.meant || table.name == "VXLAN_TUNNEL")
            out->skipped.push_back({table.name, table.count});
        if (!table.meant)
            continue;
        if (table.name == "VXLAN_TUNNEL")
            reader.tunnels(table);
        else if (table.name == "VXLAN_TUNNEL_MAP")
            maps = &table;
        else if (!reader.vlans(table)) {
            *fault = reader.fault();
            return false;
        }
    }
    if (!maps || reader.vxlan_maps(*maps))
        return true;
    *fault = reader.fault();
    return false;
}

// Reads at most MAX_FILE bytes. 0 or an errno; EFBIG when there is more.
int read_file(const std::string &path, std::string *out)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return errno;
    std::array<char, 65536> block;
    int result = 0;
    for (;;) {
        const ssize_t got = read(fd, block.data(), block.size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            result = errno;
        if (got <= 0)
            break;
        out->append(block.data(), static_cast<size_t>(got));
        if (out->size() > MAX_FILE) {
            result = EFBIG;
            break;
        }
    }
    close(fd);
    return result;
}

// What the parser would overlook: it takes a NUL byte for the end.
bool check_bytes(std::string_view text, config_fault *fault)
{
    if (text.find_first_not_of(" \t\r\n") == std::string_view::npos) {
        *fault = {0, "the file is empty"};
        return false;
    }
    const size_t nul = text.find('\0');
    if (nul == std::string_view::npos)
        return true;
    const auto lines = std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(nul), '\n');
    *fault = {static_cast<size_t>(lines) + 1, "not JSON: a NUL byte"};
    return false;
}

// Characters that break a line or change its direction: U+200E, U+200F, U+2028 to U+202E, U+2066 to U+2069.
bool turns_lines(std::string_view character)
{
    const auto low_bits = [&](size_t i) { return static_cast<unsigned>(character[i]) & 0x3f; };
    if (character.size() != 3 || character[0] != '\xe2')
        return false;
    const unsigned point = 0x2000 | low_bits(1) << 6 | low_bits(2);
    return point == 0x200e || point == 0x200f || (point >= 0x2028 && point <= 0x202e) ||
           (point >= 0x2066 && point <= 0x2069);
}

// Bytes of the printable UTF-8 character that the text begins with; 0 when it begins with none.
size_t character_length(std::string_view text)
{
    const auto byte = static_cast<unsigned char>(text.front());
    if (byte < 0x80)
        return byte >= 0x20 && byte != 0x7f ? 1 : 0;
    const size_t length = byte >= 0xf0 ? 4 : byte >= 0xe0 ? 3 : 2;
    if (byte < 0xc3 || byte > 0xf4 || text.size() < length)  // below 0xc3: continuation bytes and control characters
        return 0;
    const auto follows = [](char c) { return (static_cast<unsigned char>(c) & 0xc0) == 0x80; };
    if (!std::ranges::all_of(text.substr(1, length - 1), follows))
        return 0;
    return turns_lines(text.substr(0, length)) ? 0 : length;
}

}  // namespace

std::string printable(std::string_view text)
{
    constexpr size_t MAX_TEXT = 240;
    std::string line;
    while (!text.empty()) {
        if (line.size() >= MAX_TEXT)
            return line + "...";
        const size_t length = character_length(text);
        if (length > 0) {
            line += text.substr(0, length);
        } else {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\x%02x", static_cast<unsigned char>(text.front()));
            line += escape;
        }
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return line;
}

bool parse_config(const std::string &name, std::string_view text, switch_config *out, std::string *error)
{
    config_fault fault;
    std::vector<config_table> tables;
    *out = {};
    if (check_bytes(text, &fault) && read_tables(text, is_meant, &tables, &fault) && interpret(tables, out, &fault))
        return true;
    const std::string line = fault.line ? ':' + std::to_string(fault.line) : "";
    *error = printable(name) + line + ": " + printable(fault.what);
    return false;
}

bool read_config(const std::string &path, switch_config *out, std::string *error)
{
    std::string text;
    if (const int code = read_file(path, &text); code != 0) {
        *error = printable(path) + ": " + std::strerror(code);
        return false;
    }
    return parse_config(path, text, out, error);
}

}  // namespace ebridge_tool
