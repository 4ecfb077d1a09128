// A message store, opened by its URL on a loop of its own, and waiting for what it tells.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "qz_mom.h"

namespace ebridge_tool
{

class store_link
{
  public:
    store_link() = default;
    ~store_link();
    store_link(const store_link &) = delete;
    store_link &operator=(const store_link &) = delete;

    // Opens the store and waits until these databases are connected. 0, or a qz_mom_code and a line in *error. Whoever needs
    // to hear of losses of one of them himself sets its reconnect callback afterwards, and away_since() leaves it out.
    int32_t open(const std::string &url, std::span<const uint32_t> databases, std::string *error);

    // Runs the loop until the condition holds. False when nothing has happened for `patience_usec`.
    bool wait_until(const std::function<bool()> &condition, int64_t patience_usec);
    // On the loop's thread: the condition that is waited for may hold now.
    void happened();
    // Makes a call of the store, or of the library, again as long as the store cannot take it. 0, or the code that it
    // failed with. Patience ends once: after that calls are made once each until one is taken, or who has thousands to make
    // would wait for each of them.
    int32_t patiently(const std::function<int32_t()> &call, int64_t patience_usec);

    // Since when one of the databases is lost; 0 while all are connected. It is heard of when the loop runs.
    int64_t away_since() const { return lost_ == 0 ? 0 : away_since_; }

    qz_thread_master *master() const { return master_; }
    qz_mom_handle *handle() const { return handle_; }

  private:
    static void on_wake(void *self);
    static int32_t on_connection(qz_mom_handle *handle, uint32_t db, int32_t type, void *self);
    void wake_at(int64_t time);

    uint64_t happenings_ = 0;  // so far
    int64_t quiet_since_ = 0;  // when something was heard last
    int64_t wake_time_ = 0;    // of the latest timer that ends a turn of the loop
    bool waited_in_vain_ = false;
    const std::function<bool()> *condition_ = nullptr;
    qz_thread_master *master_ = nullptr;
    qz_mom_handle *handle_ = nullptr;
    size_t connected_ = 0;  // databases
    uint64_t lost_ = 0;     // a bit each
    int64_t away_since_ = 0;
};

}  // namespace ebridge_tool
