// Calls that a thread master still holds when their target is gone.
//
// A master cannot be asked to forget a posted call or a timer, and drops those that are pending when it is freed. So
// what is posted is a number, which leads to the target only as long as it lives.
#ifndef MOM_POSTED_CALLS_HPP
#define MOM_POSTED_CALLS_HPP

#include <cstdint>
#include <memory>

#include "qz_thread.h"

namespace mom
{

class post_target
{
  public:
    virtual ~post_target() = default;
    // Runs on the master's thread. May throw std::bad_alloc; `retry` is then asked.
    virtual void run() = 0;
    // The call failed for lack of memory: come again later.
    virtual void retry() noexcept = 0;
};

// The number of one target. Posts of a closed address reach nobody.
class post_address
{
  public:
    post_address() = default;
    ~post_address() { close(); }
    post_address(const post_address &) = delete;
    post_address &operator=(const post_address &) = delete;

    void open(std::weak_ptr<post_target> target);
    void close() noexcept;
    // Results are those of qz_thread_call() and qz_thread_call_after().
    int32_t post(qz_thread_master *master) const noexcept;
    // As qz_thread_watch() does; `run` is to read.
    int32_t watch(qz_thread_master *master, int descriptor) const noexcept;
    int32_t post_after(qz_thread_master *master, int64_t usec) const noexcept;

  private:
    uintptr_t number_ = 0;
};

}  // namespace mom
#endif
