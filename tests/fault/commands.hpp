// How an actor is told what to do: commands on standard input, each carried out on the thread of its master.
#pragma once

#include <iostream>
#include <string>
#include <thread>

#include "qz_thread.h"

namespace fault
{

// Runs the master until standard input ends; each line goes to `obey`, on the master's thread.
inline void run_on_commands(qz_thread_master *master, void (*obey)(const std::string &line))
{
    struct command {
        void (*obey)(const std::string &line);
        std::string line;
    };
    std::thread reader([=] {
        for (command next{obey, {}}; std::getline(std::cin, next.line);)
            qz_thread_call_wait(
                master,
                [](void *arg) {
                    const auto *its = static_cast<const command *>(arg);
                    its->obey(its->line);
                },
                &next);
        qz_thread_stop(master);
    });
    qz_thread_run(master);
    reader.join();
}

}  // namespace fault
