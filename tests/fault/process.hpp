// A program run as a child whose words go into a file, so that nobody has to read them while it runs, and that takes
// commands on its standard input. It ends with its parent.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace fault
{

// Runs `done` again and again until it returns true; false when it never does.
bool wait_until(const std::function<bool()> &done, int seconds = 60);

class process
{
  public:
    // Standard output and standard error go to the end of `file`.
    process(std::vector<std::string> command, std::string file);
    ~process();
    process(const process &) = delete;
    process &operator=(const process &) = delete;

    void say(const std::string &line) const;
    void signal(int number) const;
    // As kill -9 does.
    void kill();
    // Nobody killed it.
    bool ended_by_itself() const;
    // All that it has written.
    const std::string &words() const;
    // How often it has written this.
    size_t count(const std::string &text) const;

  private:
    const std::string file_;
    mutable std::string words_;  // of the file, as far as it was read
    pid_t pid_ = -1;
    int input_ = -1;
};

}  // namespace fault
