// Our side: writers, subscribers and readers on the store client. Each runs in a process of its own.
#pragma once

#include <string>

#include "processes.hpp"
#include "qz_mom.h"

namespace bench
{

constexpr uint32_t DB = 4;

// A handle on a loop of its own. Throws std::runtime_error when the store does not answer.
class endpoint
{
  public:
    explicit endpoint(const std::string &url);
    ~endpoint();
    endpoint(const endpoint &) = delete;
    endpoint &operator=(const endpoint &) = delete;

    qz_mom_handle *handle() const { return handle_; }
    qz_thread_master *master() const { return master_; }

    // Writes `count` records over and over the same keys, and returns when all are answered. Few enough are under way
    // that they stay in the processor's cache.
    void write(int count, int keys);
    // Follows the table; returns when it is all known.
    void follow();
    // Returns when so many changes have been heard since the last call.
    void hear(int count);
    // Scans the table; the number of records.
    int scan();

  private:
    static int32_t on_change(qz_mom_handle *, const qz_mom_notification *msg, void *self);
    static int32_t on_answer(qz_mom_handle *, const qz_mom_notification *msg, void *self);
    void write_more();

    qz_thread_master *master_;
    qz_mom_handle *handle_ = nullptr;
    int heard_ = 0;
    int wanted_ = 0;
    bool confirmed_ = false;
    struct {
        int count, keys, sent, answered;
        int32_t code;
    } writing_{};
};

// Says when it is connected; writes when it is told to; says when all is answered; ends when it is told to.
process start_writer(const std::string &url, int count, int keys);
// Says when it follows; says when it has heard so many changes; ends when it is told to.
process start_subscriber(const std::string &url, int count);

}  // namespace bench
