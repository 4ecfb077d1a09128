// See listener.hpp.
#include "listener.hpp"

#include <algorithm>
#include <bit>
#include <stdexcept>
#include <vector>

#include "ports.hpp"
#include "qz_mom.h"
#include "running_loop.hpp"
#include "sw_ebridge.h"

namespace bench
{

namespace
{

struct heard_port {
    bool heard = false;
    bitmap vlans{};
    bitmap untagged{};
    bitmap multicast{};
};

bitmap decode(const UBridge__Bitmap &from)
{
    bitmap made{};
    const size_t first = from.start / 32;
    if (from.start % 32 != 0 || first + from.n_value > made.size())
        throw std::runtime_error("a bitmap makes no sense");
    std::copy_n(from.value, from.n_value, made.begin() + static_cast<std::ptrdiff_t>(first));
    return made;
}

struct listening {
    std::vector<heard_port> ports{PORTS};
    int heard = 0;
    bool follows = false;

    static int32_t hear(qz_mom_handle *, const qz_mom_notification *msg, void *arg)
    {
        auto *self = static_cast<listening *>(arg);
        self->follows |= msg->cmd == QZ_MOM_CMD_SUBSCRIBED;
        if (msg->cmd == QZ_MOM_CMD_SET)
            self->take(*static_cast<const UBridge__PortVlans *>(msg->value));
        return 0;
    }
    void take(const UBridge__PortVlans &record)
    {
        const auto port = static_cast<size_t>((record.index->port & 0xffffff) - 1);
        if (port >= ports.size())
            throw std::runtime_error("a port of nobody");
        heard += !ports[port].heard;
        ports[port] = {true, decode(*record.vbmp), decode(*record.ubmp), decode(*record.mcbmp)};
    }
};

int differences(const bitmap &one, const bitmap &other)
{
    int count = 0;
    for (size_t word = 0; word < one.size(); ++word)
        count += std::popcount(one[word] ^ other[word]);
    return count;
}

int compare(const std::vector<heard_port> &ports)
{
    int wrong = 0;
    for (int port = 0; port < PORTS; ++port) {
        const port_bitmaps wanted = bitmaps_of(port);
        const heard_port &seen = ports[static_cast<size_t>(port)];
        wrong += differences(seen.vlans, wanted.vlans) + differences(seen.untagged, wanted.untagged) +
                 differences(seen.multicast, wanted.vlans);
    }
    return wrong;
}

}  // namespace

void be_the_listener(const channel &parent, const std::string &url)
{
    running_loop loop;
    listening all;
    qz_mom_handle *handle = nullptr;
    UBridge__PortIndex any = U_BRIDGE__PORT_INDEX__INIT;
    UBridge__PortVlans pattern = U_BRIDGE__PORT_VLANS__INIT;
    pattern.index = &any;
    loop.call([&] {
        if (qz_mom_client_open(url.c_str(), loop.master, &handle) != 0 ||
            qz_mom_subscribe(handle, SW_EBRIDGE_APP_DB, &pattern.base, 0, listening::hear, &all) != 0)
            throw std::runtime_error("the VLANs cannot be subscribed");
    });
    loop.wait_for([&] { return all.follows; });
    parent.put();
    loop.wait_for([&] { return all.heard == PORTS; });
    parent.put();
    const auto start = std::chrono::steady_clock::now();
    const int wrong = compare(all.ports);
    parent.put(seconds_since(start));
    parent.put(wrong);
    parent.get();
    loop.call([&] { qz_mom_client_close(handle); });
}

}  // namespace bench
