// The VLANs of ports in "ebridge run": which user publishes those of which port, what it hears of the port's default VLAN,
// and what the observer reads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "config.hpp"
#include "requests.hpp"
#include "vlan_set.hpp"

namespace ebridge_tool
{

// Facts are plain values: processes hand them to each other as they are.
struct member_facts {
    int32_t code = 0;       // of the call that publishes the port's VLANs
    int32_t pvid_code = 0;  // of the one that sets its pvid
    int32_t pvid = 0;       // as the user's library tells, 0 none
};

struct member_sight {
    bool found = false;  // the port's VLANs, by the observer's scan; then what stands there
    vlan_set vlans{};
    vlan_set untagged{};
    vlan_set multicast{};
    int32_t claimed = 0;     // the pvid that the user's own record asks for, 0 none
    int32_t pvid = 0;        // by the table of the data plane, 0 none
    bool contested = false;  // others ask for a pvid of this port, too

    bool operator==(const member_sight &) const = default;
};

// A port with VLANs, all of which one user publishes at once.
struct vlan_port {
    std::string name;
    uint32_t eport;
    uint32_t ifx;
    size_t user;                  // index of its name: who has requested the port
    std::vector<size_t> members;  // indexes in the table VLAN_MEMBER

    // What is wanted: after a restart less. No VLAN: nothing is published.
    vlan_set vlans{};
    vlan_set untagged{};
    int32_t pvid = 0;  // the lowest of those in which it is untagged, 0 none

    member_facts asked{};
    member_sight seen{};

    bool is_wanted() const { return !vlans.empty(); }
    bool is_published() const { return asked.code == 0 && asked.pvid_code == 0; }
    // Nothing more is to be heard of its default VLAN.
    bool is_settled() const { return pvid == 0 || !is_published() || asked.pvid == pvid; }
    // The store says what was asked for.
    bool is_seen() const;
};

class member_book
{
  public:
    // Adds the table to the result, and a note for each port that is untagged in several VLANs. The configuration must
    // outlive the book; `requests` tells who has which port, and its users take the others in turns.
    member_book(const switch_config &config, const request_book &requests, run_result *result);

    bool empty() const { return ports_.empty(); }
    size_t size() const { return ports_.size(); }
    const vlan_port &at(size_t index) const { return ports_[index]; }
    const std::string &user_of(const vlan_port &of) const { return users_[of.user]; }
    const vlan_member &entry(size_t member) const { return (*config_->vlan_members)[member]; }
    // The port with this interface index, or this eport id; size() when there is none.
    size_t find_ifx(uint32_t ifx) const;
    size_t find_eport(uint32_t eport) const;

    void set(size_t index, const member_facts &facts) { ports_[index].asked = facts; }
    void set(size_t index, const member_sight &sight) { ports_[index].seen = sight; }

    // Of all ports of a user, or of all.
    bool is_published(size_t user) const;
    bool is_settled(size_t user) const;
    bool is_seen() const;

    // As request_book::restart().
    void restart(const switch_config &reduced);

  private:
    void list_ports(const request_book &requests);
    void note_wanted();

    const switch_config *config_;
    std::vector<std::string> users_;
    std::vector<vlan_port> ports_;
    std::unordered_map<uint32_t, size_t> by_ifx_;
    std::unordered_map<uint32_t, size_t> by_eport_;
};

}  // namespace ebridge_tool
