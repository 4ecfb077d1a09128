// A master that a thread of its own runs, for a process that waits for its parent on another.
#pragma once

#include <chrono>
#include <exception>
#include <thread>

#include "qz_thread.h"

namespace bench
{

class running_loop
{
  public:
    running_loop() : thread_([this] { qz_thread_run(master); }) {}
    ~running_loop()
    {
        qz_thread_stop(master);
        thread_.join();
    }
    running_loop(const running_loop &) = delete;
    running_loop &operator=(const running_loop &) = delete;

    template <typename Act>
    void call(Act act) const
    {
        struct outcome {
            Act *act;
            std::exception_ptr thrown;
        } of{&act, nullptr};
        qz_thread_call_wait(
            master,
            [](void *arg) {
                auto *its = static_cast<outcome *>(arg);
                try {
                    (*its->act)();
                } catch (...) {
                    its->thrown = std::current_exception();
                }
            },
            &of);
        if (of.thrown)
            std::rethrow_exception(of.thrown);
    }

    template <typename Is>
    void wait_for(Is is_so) const
    {
        bool so = false;
        do {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            call([&] { so = is_so(); });
        } while (!so);
    }

    qz_thread_master *const master = qz_thread_master_create(QZ_THREAD_CLOCK_REAL);

  private:
    std::thread thread_;
};

}  // namespace bench
