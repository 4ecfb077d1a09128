// Congestion control: the registry of producers and their topics, fed by the queue marks of the store handles.
#include "libcgstctrl.h"

#include <algorithm>
#include <chrono>
#include <list>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "u_bridge.pb-c.h"

namespace
{

// Four topics that are congested at once still find room in front of the server.
constexpr uint32_t DEFAULT_HIGH = 16384;

struct producer {
    qz_mom_handle *handle;
    uint32_t db;
    std::string module;
    libcgstctrl_state *state;  // lent by the caller, or null
    bool congested;            // its handle's queue is between the marks
    uint32_t congested_topics = 0;
    libcgstctrl_cb cb = nullptr;
    void *args = nullptr;

    bool any_congested() const { return congested || congested_topics > 0; }
};

struct registered_topic {
    producer *owner;
    libcgstctrl_topic topic;
    std::string name;        // of its notices
    bool congested = false;  // as it was told

    uint32_t high() const { return topic.params[0] != 0 ? topic.params[0] : DEFAULT_HIGH; }
    uint32_t low() const { return topic.params[1] != 0 ? topic.params[1] : high() / 4; }
};

// Handles with masters of their own call from different threads.
struct registry {
    std::mutex lock;
    std::list<producer> producers;       // they keep their addresses
    std::list<registered_topic> topics;  // they, too; in the order of their registration
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

// The caller holds the lock in the functions from here to count().

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
    state->congested = to.any_congested() ? 1 : 0;
}

registered_topic *find_topic(const producer *owner, const ProtobufCMessageDescriptor *descriptor)
{
    auto &topics = all().topics;
    const auto found = std::find_if(topics.begin(), topics.end(), [&](const registered_topic &each) {
        return each.owner == owner && each.topic.descriptor == descriptor;
    });
    return found == topics.end() ? nullptr : &*found;
}

// Brings the producer's state block up to date after a mark.
void count(const producer &of, bool above)
{
    if (!of.state)
        return;
    of.state->congested = of.any_congested() ? 1 : 0;
    ++(above ? of.state->highs : of.state->lows);
}

// A mark that tells nothing new does not count: when the watch begins between the marks, a low one comes first.
void count_mark(producer &of, bool above)
{
    if (of.congested == above)
        return;
    of.congested = above;
    count(of, above);
}

void count_mark_of_handle(const qz_mom_handle *handle, bool above)
{
    for (producer &each : all().producers)
        if (each.handle == handle)
            count_mark(each, above);
}

void hear_mark(qz_mom_handle *handle, int32_t above, uint32_t, void *)
{
    const std::lock_guard lock(all().lock);
    count_mark_of_handle(handle, above != 0);
}

void set_congested(registered_topic &which, bool above)
{
    if (above && !which.congested)
        ++which.owner->congested_topics;
    else if (!above && which.congested)
        --which.owner->congested_topics;
    which.congested = above;
}

uint64_t now_in_milliseconds()
{
    using namespace std::chrono;
    return static_cast<uint64_t>(duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count());
}

// One that finds no memory is not made up for: it tells of a moment.
void write_notice(registered_topic &from, bool above)
{
    UBridge__CongestNotify notice = U_BRIDGE__CONGEST_NOTIFY__INIT;
    notice.notice_from = from.name.data();
    notice.timestamp = above ? now_in_milliseconds() : 0;
    qz_mom_set_ahead(from.owner->handle, from.owner->db, &notice.base);
}

// Topics and producers are never removed; the callback is made without the lock, so that it may call.
void hear_topic_mark(qz_mom_handle *handle, int32_t above, uint32_t, void *args)
{
    auto &which = *static_cast<registered_topic *>(args);
    libcgstctrl_cb cb = nullptr;
    void *cb_args = nullptr;
    {
        const std::lock_guard lock(all().lock);
        set_congested(which, above != 0);
        count(*which.owner, above != 0);
        cb = which.owner->cb;
        cb_args = which.owner->args;
    }
    write_notice(which, above != 0);
    if (cb)
        cb(handle, which.owner->db, which.topic.descriptor, above, cb_args);
}

int32_t code_of(int32_t store_code)
{
    if (store_code == QZ_MOM_OK)
        return 0;
    return store_code == QZ_MOM_ENOMEM ? LIBCGSTCTRL_ENOMEM : LIBCGSTCTRL_EINVAL;
}

// Watches again with every call: a handle may have been closed and another one opened at its address.
int32_t watch(qz_mom_handle *handle) { return code_of(qz_mom_set_queue_cb(handle, hear_mark, nullptr)); }

// What a handle that was closed has left behind is over.
int32_t watch(registered_topic &which)
{
    const producer &owner = *which.owner;
    if (which.congested && qz_mom_writes_waiting(owner.handle, owner.db, which.topic.descriptor) == 0) {
        set_congested(which, false);
        count(owner, false);
    }
    return code_of(qz_mom_watch_writes(owner.handle, owner.db, which.topic.descriptor, which.low(), which.high(),
                                       hear_topic_mark, &which));
}

int32_t register_producer(qz_mom_handle *handle, uint32_t db, const char *module, libcgstctrl_state *state)
{
    const std::lock_guard lock(all().lock);
    // What a handle that was closed has left behind is over; of one that is open the low mark is about to be told.
    if (qz_mom_queue_depth(handle) == 0)
        count_mark_of_handle(handle, false);
    producer *const known = find_producer(handle, db, module);
    take_state(known ? *known : add_producer(handle, db, module), state);
    return 0;
}

int32_t register_topic(const qz_mom_handle *handle, uint32_t db, const char *module, const libcgstctrl_topic &topic)
{
    const std::lock_guard lock(all().lock);
    producer *const owner = find_producer(handle, db, module);
    if (!owner)
        return LIBCGSTCTRL_ENOENT;
    if (auto *const known = find_topic(owner, topic.descriptor))
        return watch(*known);
    std::list<registered_topic> added;
    const char *const type = topic.descriptor->name;
    added.push_back({owner, topic, owner->module + ':' + (type ? type : "")});
    const registered_topic &made = added.front();
    if (made.low() >= made.high())
        return LIBCGSTCTRL_EINVAL;
    if (const int32_t code = watch(added.front()))
        return code;
    all().topics.splice(all().topics.end(), added);
    return 0;
}

struct listed_topic {
    const producer *owner;
    libcgstctrl_topic topic;
};

std::vector<listed_topic> list_topics()
{
    const std::lock_guard lock(all().lock);
    std::vector<listed_topic> listed;
    listed.reserve(all().topics.size());
    for (const registered_topic &each : all().topics)
        listed.push_back({each.owner, each.topic});
    return listed;
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

int32_t libcgstctrl_set_cb(qz_mom_handle *handle, uint32_t db, const char *module, libcgstctrl_cb cb, void *args)
{
    if (!handle || empty(module))
        return LIBCGSTCTRL_EINVAL;
    const std::lock_guard lock(all().lock);
    producer *const owner = find_producer(handle, db, module);
    if (!owner)
        return LIBCGSTCTRL_ENOENT;
    owner->cb = cb;
    owner->args = args;
    return 0;
}

int32_t libcgstctrl_congested(qz_mom_handle *handle, uint32_t db, const char *module,
                              const ProtobufCMessageDescriptor *descriptor)
{
    if (!handle || empty(module) || !descriptor)
        return LIBCGSTCTRL_EINVAL;
    const std::lock_guard lock(all().lock);
    const producer *const owner = find_producer(handle, db, module);
    const registered_topic *const which = owner ? find_topic(owner, descriptor) : nullptr;
    if (!which)
        return LIBCGSTCTRL_ENOENT;
    return which->congested || qz_mom_writes_waiting(handle, db, descriptor) >= which->high() ? 1 : 0;
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
