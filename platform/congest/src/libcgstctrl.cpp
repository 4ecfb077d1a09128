// Congestion control: the registry of producers and their topics, fed by the queue marks of the store handles.
#include "libcgstctrl.h"

#include <algorithm>
#include <list>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <vector>

namespace
{

struct producer {
    qz_mom_handle *handle;
    uint32_t db;
    std::string module;
    libcgstctrl_state *state;  // lent by the caller, or null
    bool congested;            // its handle's queue is between the marks
};

struct registered_topic {
    const producer *owner;
    libcgstctrl_topic topic;
};

// Handles with masters of their own call from different threads.
struct registry {
    std::mutex lock;
    std::list<producer> producers;         // they keep their addresses
    std::vector<registered_topic> topics;  // in the order of their registration
};

// Never destroyed: what is registered lives as long as the process.
registry &all()
{
    static registry *const instance = new registry;
    return *instance;
}

template <typename Function>
int32_t guarded(Function function)
{
    try {
        return function();
    } catch (const std::bad_alloc &) {
        return LIBCGSTCTRL_ENOMEM;
    }
}

bool empty(const char *text) { return !text || *text == '\0'; }

// The caller holds the lock in the functions from here to hear_mark().

producer *find_producer(const qz_mom_handle *handle, uint32_t db, std::string_view module)
{
    auto &producers = all().producers;
    const auto found = std::find_if(producers.begin(), producers.end(), [&](const producer &each) {
        return each.handle == handle && each.db == db && each.module == module;
    });
    return found == producers.end() ? nullptr : &*found;
}

producer &add_producer(qz_mom_handle *handle, uint32_t db, const char *module)
{
    auto &producers = all().producers;
    const bool congested = std::any_of(producers.begin(), producers.end(), [handle](const producer &each) {
        return each.handle == handle && each.congested;
    });
    return producers.emplace_back(producer{handle, db, module, nullptr, congested});
}

void take_state(producer &to, libcgstctrl_state *state)
{
    if (!state)
        return;
    to.state = state;
    state->congested = to.congested ? 1 : 0;
}

// A mark that tells nothing new does not count: when the watch begins between the marks, a low one comes first.
void count_mark(producer &of, bool above)
{
    if (of.congested == above)
        return;
    of.congested = above;
    if (!of.state)
        return;
    of.state->congested = above ? 1 : 0;
    ++(above ? of.state->highs : of.state->lows);
}

void hear_mark(qz_mom_handle *handle, int32_t above, uint32_t, void *)
{
    const std::lock_guard lock(all().lock);
    for (producer &each : all().producers)
        if (each.handle == handle)
            count_mark(each, above != 0);
}

// Watches again with every call: a handle may have been closed and another one opened at its address.
int32_t watch(qz_mom_handle *handle)
{
    const int32_t code = qz_mom_set_queue_cb(handle, hear_mark, nullptr);
    if (code == 0)
        return 0;
    return code == QZ_MOM_ENOMEM ? LIBCGSTCTRL_ENOMEM : LIBCGSTCTRL_EINVAL;
}

int32_t register_producer(qz_mom_handle *handle, uint32_t db, const char *module, libcgstctrl_state *state)
{
    const std::lock_guard lock(all().lock);
    producer *const known = find_producer(handle, db, module);
    take_state(known ? *known : add_producer(handle, db, module), state);
    return 0;
}

int32_t register_topic(const qz_mom_handle *handle, uint32_t db, const char *module, const libcgstctrl_topic &topic)
{
    const std::lock_guard lock(all().lock);
    const producer *const owner = find_producer(handle, db, module);
    if (!owner)
        return LIBCGSTCTRL_ENOENT;
    auto &topics = all().topics;
    const bool known = std::any_of(topics.begin(), topics.end(), [&](const registered_topic &each) {
        return each.owner == owner && each.topic.descriptor == topic.descriptor;
    });
    if (!known)
        topics.push_back({owner, topic});
    return 0;
}

std::vector<registered_topic> list_topics()
{
    const std::lock_guard lock(all().lock);
    return all().topics;
}

}  // namespace

int32_t libcgstctrl_gen_init(qz_mom_handle *handle, uint32_t db, const char *module, libcgstctrl_state *state)
{
    if (!handle || empty(module))
        return LIBCGSTCTRL_EINVAL;
    return guarded([&] {
        if (const int32_t code = watch(handle))
            return code;
        return register_producer(handle, db, module, state);
    });
}

int32_t libcgstctrl_gen_topic_reg(qz_mom_handle *handle, uint32_t db, const char *module,
                                  const libcgstctrl_topic *topic, uint32_t flags)
{
    if (!handle || empty(module) || !topic || !topic->descriptor || flags != 0)
        return LIBCGSTCTRL_EINVAL;
    return guarded([&] { return register_topic(handle, db, module, *topic); });
}

int32_t libcgstctrl_for_each(libcgstctrl_visitor visitor, void *args)
{
    if (!visitor)
        return LIBCGSTCTRL_EINVAL;
    return guarded([&] {
        // A copy, so that the visitor may register.
        for (const auto &[owner, topic] : list_topics())
            if (const int32_t result = visitor(owner->handle, owner->db, owner->module.c_str(), &topic, args))
                return result;
        return 0;
    });
}
