// Starting, hearing and ending processes of this program. See processes.hpp.
//
// They are forked and do not execute the program anew: this process has then read the configuration and checked the
// arguments, and nothing else (no library, no thread, no store), so there is nothing that a fork could carry over half
// done, and no list of requests that would have to be handed over. A socket pair and not two pipes: a write to one that
// has died is then an error and no signal.
#include "processes.hpp"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace ebridge_tool
{

namespace
{

constexpr size_t MAX_WORKERS = 128;
constexpr size_t FLUSH_AT = 32768;

// Known to the signal handler; 0 is free.
std::array<std::atomic<pid_t>, MAX_WORKERS> running;
static_assert(std::atomic<pid_t>::is_always_lock_free);

bool replace_running(pid_t before, pid_t after)
{
    for (std::atomic<pid_t> &slot : running)
        if (slot.load() == before) {
            slot.store(after);
            return true;
        }
    return false;
}

void wait_for(pid_t pid, int *status)
{
    while (waitpid(pid, status, 0) < 0 && errno == EINTR) {
    }
}

// Keeps signals out while a process is started: one that came between would miss it.
class signals_held
{
  public:
    signals_held()
    {
        sigset_t held;
        sigemptyset(&held);
        sigaddset(&held, SIGINT);
        sigaddset(&held, SIGTERM);
        sigprocmask(SIG_BLOCK, &held, &before_);
    }
    ~signals_held() { sigprocmask(SIG_SETMASK, &before_, nullptr); }
    signals_held(const signals_held &) = delete;
    signals_held &operator=(const signals_held &) = delete;

  private:
    sigset_t before_{};
};

// What a new process does before its work: the terminal's signals reach it too, but the one that started it decides.
void settle_in(const std::string &name, pid_t parent)
{
    signal(SIGINT, SIG_IGN);
    signal(SIGTERM, SIG_IGN);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)
        _exit(1);
    prctl(PR_SET_NAME, name.c_str());
}

}  // namespace

void end_workers()
{
    for (std::atomic<pid_t> &slot : running)
        if (slot.load() != 0)
            kill(slot.load(), SIGKILL);
    for (std::atomic<pid_t> &slot : running)
        if (const pid_t pid = slot.exchange(0); pid != 0)
            wait_for(pid, nullptr);
}

// ---- the one that started it ----------------------------------------------------------------------------------------

std::unique_ptr<worker> worker::start(const std::string &name, const std::function<int(reporter *)> &work)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        return nullptr;
    std::fflush(nullptr);      // or it would be printed twice
    signal(SIGCHLD, SIG_DFL);  // where it is ignored nobody is told how a process has ended
    const pid_t parent = getpid();
    pid_t pid;
    {
        const signals_held held;
        pid = fork();
        if (pid > 0)
            replace_running(0, pid);
        if (pid == 0)
            settle_in(name, parent);
    }
    if (pid == 0) {
        close(ends[0]);
        reporter to_parent(ends[1]);
        _exit(work(&to_parent));
    }
    close(ends[1]);
    if (pid < 0) {
        close(ends[0]);
        return nullptr;
    }
    return std::unique_ptr<worker>(new worker(name, pid, ends[0]));
}

worker::~worker()
{
    if (pid_ != 0) {
        kill(pid_, SIGKILL);
        std::string ignored;
        wait(&ignored);
    }
    close(fd_);
}

bool worker::read_reports(const std::function<void(const received_report &)> &take)
{
    std::array<char, 65536> block;
    const ssize_t got = recv(fd_, block.data(), block.size(), 0);
    if (got <= 0)
        return got < 0 && errno == EINTR;
    received_.append(block.data(), static_cast<size_t>(got));
    size_t taken = 0;
    report_head head;
    while (received_.size() - taken >= sizeof head) {
        std::memcpy(&head, received_.data() + taken, sizeof head);
        if (received_.size() - taken - sizeof head < head.size)
            break;
        take({head.kind, head.index, std::string_view(received_).substr(taken + sizeof head, head.size)});
        taken += sizeof head + head.size;
    }
    received_.erase(0, taken);
    return true;
}

// One that is gone is noticed when it is read from.
void worker::tell(char what) const { send(fd_, &what, 1, MSG_NOSIGNAL); }

bool worker::wait(std::string *how)
{
    int status = 0;
    const pid_t pid = pid_;
    pid_ = 0;
    // First out of the signal handler's reach: once it is waited for its number may become another's.
    replace_running(pid, 0);
    wait_for(pid, &status);
    if (WIFSIGNALED(status))
        *how = std::string("killed by signal ") + std::to_string(WTERMSIG(status)) + ", " + strsignal(WTERMSIG(status));
    else
        *how = "ended with status " + std::to_string(WEXITSTATUS(status));
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// ---- the process itself ---------------------------------------------------------------------------------------------

bool reporter::add(uint32_t kind, uint32_t index, std::string_view content)
{
    const bool only = kept_.empty();
    const report_head head{kind, index, static_cast<uint32_t>(content.size())};
    kept_.append(reinterpret_cast<const char *>(&head), sizeof head).append(content);
    if (kept_.size() >= FLUSH_AT)
        flush();
    return only;
}

void reporter::flush()
{
    for (size_t done = 0; done < kept_.size();) {
        const ssize_t sent = send(fd_, kept_.data() + done, kept_.size() - done, MSG_NOSIGNAL);
        if (sent < 0 && errno != EINTR)
            break;  // nobody is there any more: this process is about to be ended
        done += sent > 0 ? static_cast<size_t>(sent) : 0;
    }
    kept_.clear();
}

char reporter::told() const
{
    char what = 0;
    while (recv(fd_, &what, 1, 0) < 0 && errno == EINTR) {
    }
    return what;
}

}  // namespace ebridge_tool
