// How an actor makes calls of the store that may be away: one after the other, each again until the store takes it.
#pragma once

#include <cstdlib>
#include <deque>
#include <functional>

#include "qz_mom.h"

namespace fault
{

class patient_calls
{
  public:
    // `failed` hears of a code that no waiting will mend; the call is made again all the same.
    explicit patient_calls(void (*failed)(int32_t code)) : failed_(failed) {}

    void put(std::function<int32_t()> call) { calls_.push_back(std::move(call)); }

    // Does what it can.
    void work(qz_thread_master *master)
    {
        while (!waits_ && !calls_.empty()) {
            const int32_t code = calls_.front()();
            if (code == 0) {
                calls_.pop_front();
                continue;
            }
            if (code != QZ_MOM_EDOWN && code != QZ_MOM_EFULL)
                failed_(code);
            waits_ = true;
            master_ = master;
            if (qz_thread_call_after(master, RETRY_USEC, again, this) != 0)
                std::abort();
        }
    }

  private:
    static constexpr int64_t RETRY_USEC = 5000;

    static void again(void *arg)
    {
        auto &self = *static_cast<patient_calls *>(arg);
        self.waits_ = false;
        self.work(self.master_);
    }

    void (*const failed_)(int32_t code);
    std::deque<std::function<int32_t()>> calls_;
    qz_thread_master *master_ = nullptr;
    bool waits_ = false;
};

}  // namespace fault
