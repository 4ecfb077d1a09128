// What stands behind a qz_mom_handle.
#ifndef MOM_CLIENT_HPP
#define MOM_CLIENT_HPP

#include <map>
#include <memory>

#include "delivery.hpp"
#include "qz_mom.h"

namespace mom
{

class store;

struct client : qz_mom_handle, std::enable_shared_from_this<client> {
    std::shared_ptr<store> kept_in;  // set once, when the handle is opened
    // Guarded by the store's mutex:
    mailbox box;
    std::map<uint32_t, reconnection> reconnect;  // by database
};

}  // namespace mom
#endif
