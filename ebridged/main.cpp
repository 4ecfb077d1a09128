// ebridged, the program: allocator, arbiter and resolver in the foreground on a message store.
#include <signal.h>
#include <syslog.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "config_file.hpp"
#include "notify.hpp"
#include "shell_commands.hpp"
#include "standby.hpp"

using config_text::printable;
using config_text::printable_url;

namespace
{

constexpr int BAD_ARGUMENT = 2;
constexpr int NO_STORE = 3;

constexpr const char *FOOTER =
    "Example:\n"
    "  ebridged --store redis+unix:///run/redis/redis-server.sock --db 4 --verbose\n"
    "\n"
    "URL is one of\n"
    "  redis://[USER:PASSWORD@]HOST[:PORT]     a Redis server\n"
    "  redis+unix://[USER:PASSWORD@]/PATH      the same by its unix socket\n"
    "  redis+sentinel://[USER:PASSWORD@]HOST[:PORT][,HOST[:PORT]...]/GROUP\n"
    "                                          the master of a group that these sentinels watch\n"
    "  file:///PATH                            a map of databases to several of these: database_config.json\n"
    "A store \"mem:NAME\" lives in one process: this program would serve nobody but itself. Programs on the embedded\n"
    "store start the service inside (see ebridged.h), as \"ebridge run\" does.\n"
    "\n"
    "Evlans of all databases are one set of ids, eports another. Records of ranges are read in the lowest database.\n"
    "Match rules of all databases are compared with each other; each user reads in its rules which of them hold.\n"
    "Runs in the foreground, logs to standard error, and ends on SIGTERM or SIGINT. Granted ids survive a restart, and\n"
    "match rules are decided anew after one.\n"
    "Several may run on one store: one serves, another takes over when it ends or is not heard of for 1.5 s.\n"
    "A service manager that asks for it is told when the store is there (sd_notify).\n"
    "Exit status: 0 ended by SIGTERM or SIGINT, 2 an argument is wrong or there is no such database, 3 the store cannot\n"
    "be opened. A server that does not answer is waited for.";

struct settings {
    std::string store;
    std::vector<uint32_t> databases{4};
    bool verbose = false;
    bool syslog = false;
};

// -1: go on; otherwise the exit status.
int read_arguments(int argc, char **argv, settings *out)
{
    CLI::App app{
        "ebridged - hands out ids of evlans and eports to the users of a message store, and decides their match rules"};
    app.footer(FOOTER);
    const CLI::Validator is_told(config_text::empty_fault, "");
    app.add_option("--store", out->store, "URL of the message store")->required()->type_name("URL")->check(is_told);
    app.add_option("--db", out->databases, "database to serve, may be repeated")
        ->type_name("N")
        ->capture_default_str()
        ->check(is_told);
    app.add_flag("--verbose", out->verbose, "log every answer and every changed verdict");
    app.add_flag("--syslog", out->syslog, "log to the system's log instead of standard error");
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &help) {
        return app.exit(help);
    } catch (const CLI::ParseError &error) {
        std::fprintf(stderr, "ebridged: %s (see ebridged --help)\n", printable(error.what()).c_str());
        return BAD_ARGUMENT;
    }
    return -1;
}

void log_line(ebridged_log_level level, const char *line, void *args)
{
    const auto *given = static_cast<const settings *>(args);
    if (given->syslog)
        syslog(level == EBRIDGED_LOG_ERROR ? LOG_ERR : level == EBRIDGED_LOG_INFO ? LOG_INFO : LOG_DEBUG, "%s", line);
    else
        std::fprintf(stderr, "ebridged: %s\n", line);
}

// Tells the log, and the service manager that waits for it, what this process is doing.
class reporter : public ebridged::standby::observer
{
  public:
    explicit reporter(settings *given) : given_(given) {}

    void entered(ebridged::standby::state now) override
    {
        switch (now) {
            case ebridged::standby::state::connecting:
                return tell("STATUS=Waiting for the store", "waiting for the store");
            case ebridged::standby::state::standing_by:
                return tell("READY=1\nSTATUS=Standing by: another one serves", "standing by");
            case ebridged::standby::state::serving:
                return tell("READY=1\nSTATUS=Serving", "the store's lock is held");
        }
    }
    void stopping() { tell("STOPPING=1", "stopped"); }

  private:
    void tell(const char *manager, const char *line)
    {
        ebridged::notify_manager(manager);
        log_line(EBRIDGED_LOG_INFO, line, given_);
    }

    settings *given_;
};

// SIGTERM and SIGINT are blocked in all threads but waited for in one, which stops the loop.
sigset_t block_signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

int serve(qz_thread_master *master, settings *given, const sigset_t *signals)
{
    const ebridged_options options{.databases = given->databases.data(),
                                   .database_count = static_cast<uint32_t>(given->databases.size()),
                                   .log = log_line,
                                   .log_args = given,
                                   .log_level = given->verbose ? EBRIDGED_LOG_DEBUG : EBRIDGED_LOG_INFO};
    reporter told(given);
    ebridged::standby turns(given->store, master, options, &told);
    if (const int32_t code = turns.start(); code != QZ_MOM_OK) {
        std::fprintf(stderr, "ebridged: %s: %s\n", printable_url(given->store).c_str(), qz_mom_strerror(code));
        return code == QZ_MOM_EDB || code == QZ_MOM_EINVAL ? BAD_ARGUMENT : NO_STORE;
    }
    const ebridged::shell_commands shell(master, &turns);
    if (shell.failure() != 0)
        log_line(EBRIDGED_LOG_ERROR, (std::string("no debug shell: ") + std::strerror(shell.failure())).c_str(), given);
    std::thread waiter([master, signals] {
        int signal = 0;
        sigwait(signals, &signal);
        qz_thread_stop(master);
    });
    qz_thread_run(master);
    waiter.join();
    told.stopping();
    return 0;
}

}  // namespace

int main(int argc, char **argv)
{
    settings given;
    if (const int status = read_arguments(argc, argv, &given); status >= 0)
        return status;
    const sigset_t signals = block_signals();
    if (given.syslog)
        openlog("ebridged", LOG_PID, LOG_DAEMON);
    qz_thread_master *master = qz_thread_master_create(QZ_THREAD_CLOCK_REAL);
    if (master == nullptr) {
        std::fputs("ebridged: no event loop: out of memory or descriptors\n", stderr);
        return NO_STORE;
    }
    int status = NO_STORE;
    try {
        status = serve(master, &given, &signals);
    } catch (const std::exception &error) {  // no memory, or no thread
        std::fprintf(stderr, "ebridged: %s\n", error.what());
    }
    qz_thread_master_free(master);
    return status;
}
