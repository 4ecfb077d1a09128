// The world of the fault tests: a private store server, allocators and users as processes, and the ledger at the end.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "ledger.hpp"
#include "process.hpp"
#include "qz_mom.h"
#include "redis_server.hpp"

namespace fault
{

class FaultWorld : public testing::Test
{
  protected:
    enum scope { OWN = 0, ALL = 2 };

    FaultWorld();
    ~FaultWorld() override;

    // A file or socket of this test's own.
    std::string place(const std::string &name) const { return folder_ + '/' + name; }
    // A number from `from` to `to`; what is drawn follows from the test's seed. EBRIDGE_FAULT_SEED is another one.
    uint32_t draw(uint32_t from, uint32_t to);
    uint32_t seed() const { return seed_; }

    // The store's URL for processes that are started from here on.
    void connect_through(const std::string &url) { url_ = url; }

    const std::string &url() const { return url_; }

    // An allocator: the first one serves when this returns, the others stand by.
    process &start_service();
    // A user; again under the same name after its process was killed.
    process &start_user(const std::string &name, scope of);
    process &user(const std::string &name) { return *users_.at(name).runs; }
    void tell_all(const std::string &command);

    // Grants that all users have heard, repeats included.
    size_t grants() const;
    void wait_for_grants(size_t count, const std::function<void()> &meanwhile = {});
    // All that was asked for is answered. Both call `meanwhile` now and then.
    void wait_until_idle(const std::function<void()> &meanwhile = {});
    // Has every user make one more request, and compares everything with the store once it was heard. The faults are
    // over by then.
    void expect_the_ledger_to_be_clean(const excuses &excused = {});

    // Scans the server itself, whatever the processes' way there; throws when it cannot be read.
    void read_records(uint32_t db, const ProtobufCMessage &pattern,
                      const std::function<void(const qz_mom_notification &)> &each) const;

    support::redis_server redis_;

  private:
    struct actor {
        scope of = OWN;
        std::unique_ptr<process> runs;
    };

    user_view view_of(const std::string &name, const actor &of, bool *idle);
    // What all users say at about the same time.
    std::vector<user_view> look(bool *all_idle);
    store_view read_store() const;

    std::string folder_;
    std::string url_;
    uint32_t seed_;
    std::minstd_rand random_;
    std::vector<std::unique_ptr<process>> services_;
    uint32_t looks_ = 0;
    std::map<std::string, actor> users_;
};

}  // namespace fault
