// ebridged, the program: the allocator service in the foreground on a message store.
#include <signal.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "ebridged.h"

namespace
{

constexpr int BAD_ARGUMENT = 2;
constexpr int NO_STORE = 3;

constexpr const char *FOOTER =
    "Example:\n"
    "  ebridged --store redis+unix:///run/redis/redis-server.sock --db 4 --verbose\n"
    "\n"
    "URL is redis://[USER:PASSWORD@]HOST[:PORT] or redis+unix://[USER:PASSWORD@]/PATH. A store \"mem:NAME\" lives in\n"
    "one process: this program would serve nobody but itself. Programs on the embedded store start the service inside\n"
    "(see ebridged.h), as \"ebridge run\" does.\n"
    "\n"
    "Ids of all databases are one set. Records of ranges are read in the lowest database.\n"
    "Runs in the foreground, logs to standard error, and ends on SIGTERM or SIGINT. Granted ids survive a restart.\n"
    "Exit status: 0 ended by a signal, 2 bad argument, 3 the store cannot be opened.";

struct settings {
    std::string store;
    std::vector<uint32_t> databases{4};
    bool verbose = false;
};

// -1: go on; otherwise the exit status.
int read_arguments(int argc, char **argv, settings *out)
{
    CLI::App app{"ebridged - hands out bridge ids to the users of a message store"};
    app.footer(FOOTER);
    app.add_option("--store", out->store, "URL of the message store")->required()->type_name("URL");
    app.add_option("--db", out->databases, "database to serve, may be repeated")->type_name("N")->capture_default_str();
    app.add_flag("--verbose", out->verbose, "log every answer");
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &help) {
        return app.exit(help);
    } catch (const CLI::ParseError &error) {
        std::fprintf(stderr, "ebridged: %s (see ebridged --help)\n", error.what());
        return BAD_ARGUMENT;
    }
    return -1;
}

void log_line(ebridged_log_level level, const char *line, void *args)
{
    const auto *given = static_cast<const settings *>(args);
    if (level < EBRIDGED_LOG_DEBUG || given->verbose)
        std::fprintf(stderr, "ebridged: %s\n", line);
}

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

int serve(qz_thread_master *master, qz_mom_handle *handle, settings *given, const sigset_t *signals)
{
    const ebridged_options options{.databases = given->databases.data(),
                                   .database_count = static_cast<uint32_t>(given->databases.size()),
                                   .log = log_line,
                                   .log_args = given};
    ebridged_service *service = nullptr;
    if (const int32_t code = ebridged_start(handle, &options, &service); code != QZ_MOM_OK)
        return code == QZ_MOM_EDB || code == QZ_MOM_EINVAL ? BAD_ARGUMENT : NO_STORE;
    std::thread waiter([master, signals] {
        int signal = 0;
        sigwait(signals, &signal);
        qz_thread_stop(master);
    });
    qz_thread_run(master);
    waiter.join();
    ebridged_stop(service);
    std::fputs("ebridged: stopped\n", stderr);
    return 0;
}

}  // namespace

int main(int argc, char **argv)
{
    settings given;
    if (const int status = read_arguments(argc, argv, &given); status >= 0)
        return status;
    const sigset_t signals = block_signals();
    qz_thread_master *master = qz_thread_master_create(QZ_THREAD_CLOCK_REAL);
    qz_mom_handle *handle = nullptr;
    const int32_t code = qz_mom_client_open(given.store.c_str(), master, &handle);
    int status = NO_STORE;
    if (code == QZ_MOM_OK)
        status = serve(master, handle, &given, &signals);
    else
        std::fprintf(stderr, "ebridged: %s: %s\n", given.store.c_str(), qz_mom_strerror(code));
    qz_mom_client_close(handle);
    qz_thread_master_free(master);
    return status;
}
