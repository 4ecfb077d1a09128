// What an operator can ask the program ebridged in its debug shell.
#pragma once

#include "ssat.h"
#include "standby.hpp"

namespace ebridged
{

// Registers the commands and serves the shell while it lives. One a process; on the thread of the master, or while it does
// not run.
class shell_commands
{
  public:
    shell_commands(qz_thread_master *master, const standby *turns);
    ~shell_commands();
    shell_commands(const shell_commands &) = delete;
    shell_commands &operator=(const shell_commands &) = delete;

    // An errno value: why the shell is not served; 0 when it is.
    int failure() const { return failure_; }

  private:
    static int32_t print_stat(int32_t argc, const int32_t *argv);

    ssat_server *server_ = nullptr;
    int failure_ = 0;
};

}  // namespace ebridged
