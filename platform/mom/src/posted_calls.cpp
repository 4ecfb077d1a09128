// The table of targets that posted calls can still reach.
#include "posted_calls.hpp"

#include <mutex>
#include <new>
#include <unordered_map>

#include "mom_log.hpp"

namespace mom
{
namespace
{

struct target_table {
    std::mutex mutex;
    std::unordered_map<uintptr_t, std::weak_ptr<post_target>> targets;
    uintptr_t last = 0;
};

// Lives as long as the process: a master may run a late call after the end of main().
target_table &table()
{
    static auto *const made = new target_table;
    return *made;
}

std::shared_ptr<post_target> target_of(uintptr_t number)
{
    auto &all = table();
    const std::scoped_lock lock(all.mutex);
    const auto at = all.targets.find(number);
    return at == all.targets.end() ? nullptr : at->second.lock();
}

void run_posted(void *number)
{
    const auto target = target_of(reinterpret_cast<uintptr_t>(number));
    if (target == nullptr)
        return;
    try {
        target->run();
    } catch (const std::bad_alloc &) {
        log_failure("no memory; trying again later");
        target->retry();
    }
}

void *as_argument(uintptr_t number) { return reinterpret_cast<void *>(number); }

}  // namespace

void post_address::open(std::weak_ptr<post_target> target)
{
    close();
    auto &all = table();
    const std::scoped_lock lock(all.mutex);
    all.targets.emplace(all.last + 1, std::move(target));
    number_ = ++all.last;
}

void post_address::close() noexcept
{
    if (number_ == 0)
        return;
    auto &all = table();
    const std::scoped_lock lock(all.mutex);
    all.targets.erase(number_);
    number_ = 0;
}

int32_t post_address::post(qz_thread_master *master) const noexcept
{
    return qz_thread_call(master, run_posted, as_argument(number_));
}

int32_t post_address::watch(qz_thread_master *master, int descriptor) const noexcept
{
    return qz_thread_watch(master, descriptor, run_posted, as_argument(number_));
}

int32_t post_address::post_after(qz_thread_master *master, int64_t usec) const noexcept
{
    return qz_thread_call_after(master, usec, run_posted, as_argument(number_));
}

}  // namespace mom
