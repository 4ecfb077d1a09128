// Delivery: what waits to be told to each handle, and the pumps that tell it on the threads of the handles' masters.
//
// Each handle has a queue, in the order in which things happened. Each master has one pump for the handles of a store;
// it takes one delivery at a time under the store's mutex and makes the call without it. Which handle is next is
// decided by the order of arrival, or, for tests that look for trouble, by a seeded draw. All kinds of stores deliver
// through here.
#ifndef MOM_DELIVERY_HPP
#define MOM_DELIVERY_HPP

#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <variant>
#include <vector>

#include "change.hpp"
#include "qz_mom.h"

namespace mom
{

struct client;

struct receiver {
    qz_mom_msg_cb cb;
    void *args;
    bool operator==(const receiver &) const = default;
};

// One call of a notification callback.
struct message {
    change_ptr what;
    receiver to;
    const ProtobufCMessageDescriptor *type = nullptr;  // how to read the record; null where there is none
    const ProtobufCFieldDescriptor *field = nullptr;   // a field subscriber's own field
};

struct connection {
    qz_mom_connected_cb cb;
    void *args;
};

struct reconnection {
    qz_mom_reconnect_cb cb;
    void *args;
    uint32_t db;
    int32_t type;
};

struct lock_news {
    qz_mom_lock_cb cb;
    void *args;
    uint32_t db;
    std::string token;  // empty: the lock is lost
};

// A scan that goes on when its turn in the queue has come, so that it never has more waiting than one piece.
class scan_step
{
  public:
    virtual ~scan_step() = default;
    // Queues the next piece, behind it itself or the end mark. With the mutex; without memory it throws, and nothing is
    // queued.
    virtual void next(client &to) = 0;
};

// What a store does when a master's thread has made its calls, before it turns to something else.
class between_calls
{
  public:
    virtual ~between_calls() = default;
    // With the mutex. May queue deliveries.
    virtual void all_made() noexcept = 0;
};

struct delivery {
    client *to;
    std::variant<message, connection, reconnection, lock_news, std::shared_ptr<scan_step>> what;
    uint64_t arrival = 0;
};
// A list, because moving its nodes cannot fail: once a change and all its deliveries are made, it can be applied.
using deliveries = std::list<delivery>;

// What waits for one handle. Guarded by the mutex of its post office.
struct mailbox {
    deliveries queue;
    deliveries urgent;  // losses and returns of a connection pass what is held back by them
    uint32_t low = 65536;
    uint32_t high = 196608;
    uint32_t hard = 262144;
    qz_mom_queue_cb queue_cb = nullptr;
    void *queue_args = nullptr;
    bool above = false;       // the high mark was reached, and the low one not yet since
    bool told_above = false;  // what queue_cb heard last
    uint32_t counted = 0;     // used while room is looked for

    uint32_t depth() const { return static_cast<uint32_t>(queue.size()); }
    void update_marks();
};

class pump;

// All handles of one store in this process. Every function but the pumps' own expects the mutex to be held.
class post_office : public std::enable_shared_from_this<post_office>
{
  public:
    post_office();
    ~post_office();
    post_office(const post_office &) = delete;
    post_office &operator=(const post_office &) = delete;

    std::mutex mutex;  // guards the whole store, its handles included

    void attach(std::shared_ptr<client> who);
    // Nothing is delivered to the handle any more. The caller keeps it alive during the call.
    void detach(const client &who) noexcept;
    // In the order in which they were opened.
    const std::vector<std::shared_ptr<client>> &clients() const { return clients_; }

    // The handle as long as it is open, else null.
    std::shared_ptr<client> attached(const std::weak_ptr<client> &who) const noexcept;

    // Adds one to `out`, in memory that was used before where there is some: who tells is not the thread that hears, and
    // memory that goes from thread to thread is what an allocator is slowest at.
    void add(deliveries &out, delivery &&what);
    // True when no queue would pass its hard limit.
    bool room_for(const deliveries &out) const noexcept;
    // True when nobody who is to hear of it has anything waiting: then it may pass a limit that is smaller than itself.
    bool nothing_waits(const deliveries &out) const noexcept;
    // Puts each delivery into the queue of its handle; `out` is empty afterwards.
    void send(deliveries &out) noexcept;
    void send_urgent(deliveries &out) noexcept;
    // One delivery, to one handle.
    template <typename News>
    void post(client &to, News what)
    {
        deliveries out;
        out.push_back({&to, std::move(what)});
        send(out);
    }

    // Has the pump of the handle's master come by, also when there is nothing to deliver.
    void wake(const client &who) noexcept;
    // The same for all for whom something waits: a master may have had no memory to be told of it.
    void wake_waiting() noexcept;
    // Null: nobody. Whoever it is stays until it is replaced.
    void set_between_calls(between_calls *done) noexcept { between_calls_ = done; }

    // While held, only what is urgent is delivered.
    void hold(bool held) noexcept;
    bool held() const { return held_; }
    // 0: in the order of arrival.
    void seed(uint64_t seed) noexcept;
    // The limits of a handle were changed.
    void look_at(client &who) noexcept;

  private:
    friend class pump;

    void recycle(deliveries &used) noexcept;
    void calls_made() noexcept;
    deliveries *turn(client &who) const noexcept;
    client *pick(pump &by) const noexcept;
    pump *pump_of(const qz_thread_master *master) const noexcept;

    std::vector<std::shared_ptr<client>> clients_;
    std::vector<std::shared_ptr<pump>> pumps_;
    deliveries spare_;
    between_calls *between_calls_ = nullptr;
    uint64_t arrivals_ = 0;
    uint64_t seed_ = 0;
    bool held_ = false;
};

}  // namespace mom
#endif
