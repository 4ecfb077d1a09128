// A user's eports in the fault tests, written and followed with the store client as the library does it.
//
// It follows its own sessions in the application database, or all in the data-plane database, and tells what it hears
// in the order of the store.
#pragma once

#include <functional>
#include <string>

#include "ledger.hpp"
#include "qz_mom.h"

namespace fault
{

class eport_user
{
  public:
    // `id`: REFUSED when it is refused; of a removal the last one.
    using hearing = std::function<void(event::kind what, const session_name &who, uint32_t id)>;

    // `handle` and `name` outlive it; it must not move.
    eport_user(qz_mom_handle *handle, std::string &name, bool follows_all, hearing tell);
    eport_user(const eport_user &) = delete;
    eport_user &operator=(const eport_user &) = delete;

    // 0, or the store's code.
    int32_t start();
    int32_t request(const bridge_key &key, uint32_t wanted);
    int32_t release(const bridge_key &key);
    int32_t release_later(const bridge_key &key, int32_t seconds);

  private:
    static int32_t on_session(qz_mom_handle *handle, const qz_mom_notification *msg, void *self);
    void hear(const qz_mom_notification &msg);

    qz_mom_handle *handle_;
    std::string &name_;
    const uint32_t db_;  // that it follows
    const bool follows_all_;
    const hearing tell_;
};

}  // namespace fault
