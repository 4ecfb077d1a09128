// The ports of the measurement and their VLANs, the same for all who take part.
#pragma once

#include <array>
#include <cstdint>

namespace bench
{

constexpr int PORTS = 512;
constexpr uint32_t VLANS = 4094;
constexpr const char *USER = "vlans_bench";

using bitmap = std::array<uint32_t, 128>;

struct port_bitmaps {
    bitmap vlans{};
    bitmap untagged{};
};

constexpr int32_t eport_of(int port) { return 0x10000000 | (port + 1); }

constexpr void set_bit(bitmap &of, uint32_t vlan) { of[vlan / 32] |= 1U << vlan % 32; }

// All VLANs, and of these another few untagged on each port, so that no two records are alike.
constexpr port_bitmaps bitmaps_of(int port)
{
    port_bitmaps made;
    for (uint32_t vlan = 1; vlan <= VLANS; ++vlan)
        set_bit(made.vlans, vlan);
    for (uint32_t turn = 0; turn < 3; ++turn)
        set_bit(made.untagged, 1 + (static_cast<uint32_t>(port) * 7 + turn * 1000) % VLANS);
    return made;
}

}  // namespace bench
