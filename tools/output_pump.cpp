// See output_pump.hpp.
#include "output_pump.hpp"

#include <utility>

#include "patient_output.hpp"

namespace ebridge_tool
{

output_pump::output_pump(int fd) : fd_(fd), writer_([this] { write_all(); }) {}

output_pump::~output_pump() { finish(); }

bool output_pump::take(std::string_view text)
{
    const std::lock_guard guard(lock_);
    if (!failed_)
        kept_ += text;
    changed_.notify_one();
    return !failed_;
}

bool output_pump::finish()
{
    {
        const std::lock_guard guard(lock_);
        over_ = true;
        changed_.notify_one();
    }
    if (writer_.joinable())
        writer_.join();
    return !failed_;
}

void output_pump::write_all()
{
    constexpr int NOBODY = -1;  // has enough
    patient_output to(fd_, NOBODY);
    std::unique_lock guard(lock_);
    while (!failed_) {
        changed_.wait(guard, [this] { return over_ || !kept_.empty(); });
        if (kept_.empty())
            return;
        const std::string taken = std::exchange(kept_, {});
        guard.unlock();
        const bool failed = !to.write(taken);
        guard.lock();
        failed_ = failed;
        unread_ = failed && !to.has_failed();
    }
    kept_.clear();
}

}  // namespace ebridge_tool
