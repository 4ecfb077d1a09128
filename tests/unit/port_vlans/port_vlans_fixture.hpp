// What the tests of port VLANs share: users, bitmaps, and records as they are published, written and read bit by bit.
#pragma once

#include <bitset>
#include <initializer_list>
#include <sstream>

#include "store_calls.hpp"

namespace port_vlans_test
{

using namespace bridge_test;

// Not the session database nor those of attributes, so that a mistaken one shows.
inline constexpr uint32_t own_db = 6;

inline constexpr int32_t port_3 = 0x10000003, port_4 = 0x10000004;
inline constexpr int32_t routed_subinterface = static_cast<int32_t>(0x90000005);
inline constexpr int32_t tagged = U_BRIDGE__TAG_TYPE__TAGGED, untagged = U_BRIDGE__TAG_TYPE__UNTAGGED;
inline constexpr int32_t publish = 1, multicast = 2;  // send_flag

// A user who hears nothing.
inline sw_ebridge_list_item *add_user(const char *name = "app", uint32_t db = own_db)
{
    return register_user<no_ears>({}, user_with<0>{.name = name, .db = db, .handle = recording::other_handle()});
}

// ---- VLANs

using vlan_set = std::bitset<4096>;

inline vlan_set vlans(std::initializer_list<size_t> vids)
{
    vlan_set set;
    for (const size_t vid : vids)
        set.set(vid);
    return set;
}

inline vlan_set vlan_range(size_t first, size_t last)
{
    vlan_set set;
    for (size_t vid = first; vid <= last; ++vid)
        set.set(vid);
    return set;
}

// The words of a set, as calls take them.
struct bitmap {
    uint32_t words[128] = {};
    explicit bitmap(const vlan_set &set)
    {
        for (size_t vid = 0; vid < set.size(); ++vid)
            if (set[vid])
                words[vid / 32] |= uint32_t{1} << vid % 32;
    }
    operator const uint32_t *() const { return words; }  // NOLINT(google-explicit-constructor)
};

inline vlan_set set_of(const uint32_t *words, size_t count = 128, size_t first_vid = 0)
{
    vlan_set set;
    for (size_t bit = 0; bit < count * 32; ++bit)
        if ((words[bit / 32] >> bit % 32 & 1) != 0)
            set.set(first_vid + bit);
    return set;
}

// The three sets of a port.
struct port_sets {
    vlan_set vbmp, ubmp, mcbmp;
    bool operator==(const port_sets &) const = default;
};

// The numbers of a set, for messages.
inline std::string text_of(const vlan_set &set)
{
    std::ostringstream out;
    for (size_t vid = 0; vid < set.size(); ++vid)
        if (set[vid])
            out << vid << ' ';
    return out.str();
}

inline void PrintTo(const port_sets &sets, std::ostream *out)
{
    *out << "vbmp " << text_of(sets.vbmp) << "ubmp " << text_of(sets.ubmp) << "mcbmp " << text_of(sets.mcbmp);
}

// ---- local records

inline sw_eport_attr *held(int32_t ifx, const char *name = "app")
{
    return sw_eport_db_get_item(0, name, static_cast<uint32_t>(ifx));
}

// What a user's local record holds; nothing without one.
inline port_sets local(int32_t ifx, const char *name = "app")
{
    const sw_eport_attr *record = held(ifx, name);
    if (record == nullptr)
        return {};
    const auto &port = record->attr.underlay;
    return {set_of(port.vbmp), set_of(port.ubmp), set_of(port.mcbmp)};
}

// Gives a user these sets without publishing them.
inline void hold(const port_sets &sets, int32_t ifx = port_3, const char *name = "app")
{
    EXPECT_EQ(
        sw_vlan_port_range_vids_add_with_flag(name, ifx, bitmap(sets.vbmp), bitmap(sets.ubmp), bitmap(sets.mcbmp), 0),
        0);
    EXPECT_EQ(local(ifx, name), sets);
    recording::reset();
}

// ---- records

// A bitmap as it is rendered: the words from the first to the last that is not zero, or one zero word.
inline std::string encoded(const vlan_set &set)
{
    const bitmap of(set);
    size_t first = 0, last = 127;
    while (first < 127 && of.words[first] == 0)
        ++first;
    while (last > 0 && of.words[last] == 0)
        --last;
    if (set.none())
        first = last = 0;
    std::ostringstream out;
    out << '{';
    if (first != 0)
        out << "start:" << first * 32 << ' ';
    out << "value:[" << of.words[first];
    for (size_t word = first + 1; word <= last; ++word)
        out << ' ' << of.words[word];
    out << "]}";
    return out.str();
}

inline std::string record_of(const port_sets &sets, int32_t ifx = port_3, const char *name = "app")
{
    return format("u_bridge.port_vlans{index{t_user:\"%s\" port:%d} vbmp", name, ifx) + encoded(sets.vbmp) + " ubmp" +
           encoded(sets.ubmp) + " mcbmp" + encoded(sets.mcbmp) + "}";
}

// The set that a rendered record carries under a name: what its readers make of it.
inline vlan_set decoded(const std::string &record, const std::string &name)
{
    const size_t begin = record.find(" " + name + "{");
    EXPECT_NE(begin, std::string::npos) << record;
    const std::string of = record.substr(begin, record.find('}', begin) - begin);
    const size_t start_at = of.find("start:"), value_at = of.find("value:[");
    const size_t start = start_at == std::string::npos ? 0 : std::stoul(of.substr(start_at + 6));
    std::istringstream words(of.substr(value_at + 7));
    std::vector<uint32_t> values;
    for (uint32_t word = 0; words >> word;)
        values.push_back(word);
    EXPECT_LE(start + 32 * values.size(), 4096u) << of;
    return set_of(values.data(), values.size(), start);
}

inline port_sets decoded(const std::string &record)
{
    return {decoded(record, "vbmp"), decoded(record, "ubmp"), decoded(record, "mcbmp")};
}

// ---- lines

inline std::string line(const char *level, const char *function, const std::string &text)
{
    return std::string(level) + " sw_vlan_port_" + function + ": " + text;
}

class PortVlansTest : public BridgeTest
{
  protected:
    PortVlansTest() : BridgeTest("app/lib/ebridge/libsw_ebridge_port_vlan.cpp") {}
};

}  // namespace port_vlans_test
