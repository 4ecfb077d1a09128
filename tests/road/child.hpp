// Runs a program as a child process, with all that it prints.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace road
{

struct outcome {
    int status = -1;  // exit status; 128 and the signal's number when it was killed
    std::string out;
    std::string err;
};

class child
{
  public:
    // `terminal`: its standard error is one.
    explicit child(std::vector<std::string> command, bool terminal = false);
    ~child();
    child(const child &) = delete;
    child &operator=(const child &) = delete;

    // Reads standard error until it has this text; false when the child ends before.
    bool wait_for_error_text(const std::string &text) { return wait_for(text, &seen_.err); }
    // The same of its standard output.
    bool wait_for_text(const std::string &text) { return wait_for(text, &seen_.out); }
    // Nobody reads its standard output any more.
    void leave_output();
    pid_t pid() const { return pid_; }
    // The process of that name (as ps shows it) that the program has started; -1 when there is none.
    pid_t own_child(const std::string &name) const;
    void signal(int number) const;
    // Reads the rest, and returns when it has ended and no process is left that could still print.
    outcome finish();

  private:
    bool wait_for(const std::string &text, const std::string *in);
    bool read_some();

    pid_t pid_;
    int out_;
    int err_;
    outcome seen_;
};

outcome run(std::vector<std::string> command);

// A file in a folder of its own, both gone at the end.
class temporary_file
{
  public:
    explicit temporary_file(const std::string &content);
    ~temporary_file();
    temporary_file(const temporary_file &) = delete;
    temporary_file &operator=(const temporary_file &) = delete;

    const std::string &path() const { return path_; }
    const std::string &folder() const { return folder_; }

  private:
    std::string folder_;
    std::string path_;
};

}  // namespace road
