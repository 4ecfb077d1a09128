// See application.hpp.
#include "application.hpp"

#include <functional>
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

using clock = std::chrono::steady_clock;

constexpr int32_t KEEP_LOCAL = 0;  // send_flag

[[noreturn]] void fail(const char *what) { throw std::runtime_error(what); }

void register_user(qz_mom_handle *handle)
{
    ebridge_args args{};
    args.user_name = USER;
    args.handle = handle;
    args.mom_db = SW_EBRIDGE_APP_DB;
    if (sw_ebridge_init(&args) != 0)
        fail("the user cannot be registered");
    g_sw_vlan_std_zlog_level = g_sw_vlan_file_zlog_level = 0;
}

void apply(int port, const port_bitmaps &of)
{
    if (sw_vlan_port_range_vids_add_with_flag(USER, eport_of(port), of.vlans.data(), of.untagged.data(),
                                              of.vlans.data(), KEEP_LOCAL) != 0)
        fail("VLANs were refused");
}

void remove_from(int port, const port_bitmaps &these)
{
    if (sw_vlan_port_range_vids_del_with_flag(USER, eport_of(port), these.vlans.data(), KEEP_LOCAL) != 0)
        fail("VLANs were not taken off");
}

void publish(int port)
{
    if (sw_vlan_port_range_vids_set(USER, eport_of(port)) != 0)
        fail("VLANs were not published");
}

// Microseconds.
double cost_of(const std::function<void()> &call)
{
    constexpr int CALLS = 200'000;
    const auto start = clock::now();
    for (int n = 0; n < CALLS; ++n)
        call();
    return 1e6 * seconds_since(start) / CALLS;
}

// Publishes all ports, as fast as the store takes them.
struct publisher {
    qz_thread_master *master;
    int next = 0;

    static void turn(void *arg)
    {
        constexpr int64_t PAUSE_USEC = 1000;
        auto *self = static_cast<publisher *>(arg);
        while (self->next < PORTS && sw_vlan_port_range_vids_set(USER, eport_of(self->next)) == 0)
            ++self->next;
        if (self->next < PORTS)
            qz_thread_call_after(self->master, PAUSE_USEC, turn, self);
    }
};

// A call that has an answer is answered after all that was written before it.
void wait_for_store(qz_mom_handle *handle)
{
    UBridge__PortIndex index = U_BRIDGE__PORT_INDEX__INIT;
    index.t_user = const_cast<char *>("nobody");
    UBridge__PortVlans none = U_BRIDGE__PORT_VLANS__INIT;
    none.index = &index;
    const qz_mom_timeval delay{1000, 0};
    while (qz_mom_pexpire_sync(handle, SW_EBRIDGE_APP_DB, &none.base, QZ_MOM_EXPIRE_PATTERN, &delay) != 0) {
    }
}

}  // namespace

void be_the_application(const channel &parent, const std::string &url)
{
    running_loop loop;
    qz_mom_handle *handle = nullptr;
    loop.call([&] {
        if (qz_mom_client_open(url.c_str(), loop.master, &handle) != 0)
            fail("the store cannot be opened");
        register_user(handle);
    });
    wait_for_store(handle);
    std::vector<port_bitmaps> wanted;
    for (int port = 0; port < PORTS; ++port)
        wanted.push_back(bitmaps_of(port));
    parent.put();
    parent.get();
    const auto start = clock::now();
    loop.call([&] {
        for (int port = 0; port < PORTS; ++port)
            apply(port, wanted[static_cast<size_t>(port)]);
    });
    parent.put(seconds_since(start));
    parent.get();
    const auto published = clock::now();
    publisher all{loop.master};
    loop.call([&] { publisher::turn(&all); });
    while (all.next < PORTS)
        loop.wait_for([&] { return all.next == PORTS; });
    parent.put(seconds_since(published));
    wait_for_store(handle);
    parent.put();
    parent.get();
    loop.call([&] { qz_mom_client_close(handle); });
}

call_costs costs_of_calls()
{
    qz_thread_master *const master = qz_thread_master_create(QZ_THREAD_CLOCK_DRIVEN);
    qz_mom_handle *handle = nullptr;
    if (qz_mom_client_open("mem:vlans_bench", master, &handle) != 0)
        fail("the store cannot be opened");
    register_user(handle);
    const port_bitmaps all = bitmaps_of(0);
    port_bitmaps one;
    set_bit(one.vlans, 1);
    const call_cost add{cost_of([&] { apply(0, one); }), cost_of([&] { apply(0, all); })};
    const call_cost remove{cost_of([&] { remove_from(0, one); }), cost_of([&] { remove_from(0, all); })};
    apply(1, one);
    apply(2, all);
    const call_cost publication{cost_of([&] { publish(1); }), cost_of([&] { publish(2); })};
    return {add, remove, publication};
}

}  // namespace bench
