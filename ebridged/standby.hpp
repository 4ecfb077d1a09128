// Several services on one store: the one that holds the store's lock serves, allocator, arbiter and resolver, the others stand by.
//
// The lock is asked for in every database that the service writes, in the order of their numbers, so that two that start
// together never hold one each. Its writes are fenced: once another has the lock, nothing that this one still sends is
// applied. So the next one may begin with what the store says at that moment, and no id is given twice, however long a
// process was stopped between deciding and writing.
//
// Who loses one of its locks, or cannot ask for the next one, gives the others back: it closes its handle and stands by with
// a new one.
//
// All calls come on the master's thread, or while no thread runs it.
#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "arbiter.hpp"
#include "pvid_resolver.hpp"
#include "service.hpp"

namespace ebridged
{

class standby
{
  public:
    enum class state { connecting, standing_by, serving };

    class observer
    {
      public:
        virtual ~observer() = default;
        virtual void entered(state now) = 0;
    };

    standby(std::string url, qz_thread_master *master, const ebridged_options &options, observer *told);
    ~standby();
    standby(const standby &) = delete;
    standby &operator=(const standby &) = delete;

    // 0, or the store's code for a URL or a database that makes no sense.
    int32_t start();

    state now() const { return now_; }
    // The connection to a database that it writes is lost, so that whatever it does has to wait.
    bool store_is_away() const { return !away_.empty(); }
    // False unless it serves.
    bool get_stat(ebridged_stat *out) const;

  private:
    static int32_t on_connected(qz_mom_handle *handle, void *self);
    static int32_t on_reconnect(qz_mom_handle *handle, uint32_t db, int32_t type, void *self);
    static int32_t on_lock(qz_mom_handle *handle, uint32_t db, int32_t held, void *self);

    int32_t open();
    void enter(state now);
    void follow();
    int32_t ask();
    void serve();
    void end_service();
    void step_down();
    void open_anew();

    const std::string url_;
    qz_thread_master *const master_;
    const ebridged_options options_;
    const service_log log_;
    observer *const told_;
    state now_ = state::connecting;
    std::vector<uint32_t> served_;
    std::vector<uint32_t> written_;  // databases, the mirror's included
    qz_mom_handle *handle_ = nullptr;
    std::set<uint32_t> away_;  // databases
    size_t connected_ = 0;
    size_t held_ = 0;  // so many of the locks, from the front
    std::unique_ptr<service> service_;
    std::unique_ptr<arbiter> arbiter_;
    std::unique_ptr<pvid_resolver> resolver_;
};

}  // namespace ebridged
