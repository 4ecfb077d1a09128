// Processes of this program that work for it and report: started with fork(), heard over a socket each, never left
// behind.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace ebridge_tool
{

// A report as it is sent: this, then `size` bytes of content. Both ends are the same program, so values go as they are.
struct report_head {
    uint32_t kind;
    uint32_t index;
    uint32_t size;
};

struct received_report {
    uint32_t kind;
    uint32_t index;
    std::string_view content;

    template <typename Value>
    Value as() const
    {
        static_assert(std::is_trivially_copyable_v<Value>);
        Value value{};
        content.copy(reinterpret_cast<char *>(&value), sizeof value);
        return value;
    }
};

// The end of a process that was started: what it reports, and what it is told.
class reporter
{
  public:
    explicit reporter(int fd) : fd_(fd) {}

    // Keeps a report for the next flush(), which comes by itself before too many are kept. True: it is the only one.
    bool add(uint32_t kind, uint32_t index, std::string_view content);
    template <typename Value>
    bool add_value(uint32_t kind, uint32_t index, const Value &value)
    {
        static_assert(std::is_trivially_copyable_v<Value>);
        return add(kind, index, {reinterpret_cast<const char *>(&value), sizeof value});
    }
    void flush();
    // The next byte from the one that started this process; 0 when that one is gone. Waits.
    char told() const;

  private:
    int fd_;
    std::string kept_;
};

// One process that was started.
class worker
{
  public:
    // Runs `work` in a new process, whose exit status is its result. Neither threads nor the library may have been
    // started in this one. The new process dies with this one, and leaves SIGINT and SIGTERM to it. Null when there can
    // be no more processes. The name is also the one that ps shows.
    static std::unique_ptr<worker> start(const std::string &name, const std::function<int(reporter *)> &work);
    // Ends it.
    ~worker();
    worker(const worker &) = delete;
    worker &operator=(const worker &) = delete;

    const std::string &name() const { return name_; }
    int fd() const { return fd_; }
    // Reads what has come, and hands over each whole report. False once there is nobody at the other end.
    bool read_reports(const std::function<void(const received_report &)> &take);
    void tell(char what) const;
    // Waits for its end. True when the status is 0; how it ended.
    bool wait(std::string *how);

  private:
    worker(std::string name, pid_t pid, int fd) : name_(std::move(name)), pid_(pid), fd_(fd) {}

    std::string name_;
    pid_t pid_;
    int fd_;
    std::string received_;
};

// Ends all workers at once. May be called in a signal handler.
void end_workers();

}  // namespace ebridge_tool
