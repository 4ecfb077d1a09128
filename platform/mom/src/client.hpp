// What stands behind a qz_mom_handle.
#ifndef MOM_CLIENT_HPP
#define MOM_CLIENT_HPP

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "backlog.hpp"
#include "delivery.hpp"
#include "qz_mom.h"

namespace mom
{

class packed_texts;
class store;

// The lock that a handle has asked for in a database.
struct wanted_lock {
    std::string name;
    // Each time of holding the lock has a token, unlike any other; empty while it is not held.
    std::string given;  // as the store has it
    std::string told;   // as the callback has been told; the fence of the writes, which are decided by what was told
    std::shared_ptr<const packed_texts> fence;  // made of that, when it is first needed
    bool announced = false;                     // the callback has been told, or is about to be, that it is held
    lock_news news;

    void becomes(const std::string &token)
    {
        told = token;
        fence.reset();
    }
};

struct client : qz_mom_handle, std::enable_shared_from_this<client> {
    std::shared_ptr<store> kept_in;  // set once, when the handle is opened
    // Guarded by the store's mutex:
    mailbox box;
    uint32_t owed = 0;                           // answers to writes that are under way
    std::map<uint32_t, reconnection> reconnect;  // by database
    std::map<uint32_t, wanted_lock> locks;       // by database
    std::vector<std::shared_ptr<backlog>> backlogs;
    bool marks_crossed = false;  // of a backlog; its watches are to be looked through

    // Null: nobody watches such writes.
    std::shared_ptr<backlog> backlog_of(uint32_t db, const ProtobufCMessageDescriptor &type) const noexcept;
};

}  // namespace mom
#endif
