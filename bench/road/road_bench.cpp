// The whole road of evlans on the embedded store: N requested by one user, granted by the allocator, heard by three
// users, released again, heard again. Prints a table and writes road.json beside the program.
//
// Each run has a process of its own, because the library's tables live as long as the process. The store's clock is a
// driven one, so that nothing ever sleeps. All runs on one thread: processor time beside the wall clock's shows how much
// of a result was somebody else's work.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <nlohmann/json.hpp>
#include <vector>

#include "ebridged.h"
#include "program.hpp"
#include "sw_ebridge.h"

namespace
{

constexpr const char *HELP =
    "usage: road_bench\n"
    "Measures 1,000 to 100,000 evlans on the embedded store: requested by one user, granted, heard by three users, released\n"
    "and heard again. Of three runs the one in the middle. Prints a table, which is also written to road.json beside the\n"
    "program. Exit status 1 when somebody has not heard all.\n";

constexpr std::array<uint32_t, 5> SIZES{1'000, 3'000, 10'000, 30'000, 100'000};
constexpr int RUNS = 3;
constexpr uint32_t SLICE = 256;  // requests between two turns of the loop
constexpr const char *USERS[] = {"requester", "listener_1", "listener_2"};
constexpr uint32_t OWN = 0, ALL = 2;  // whose evlans a user hears
constexpr uint32_t LISTENERS = std::size(USERS);

uint64_t heard_grants, heard_releases;

int32_t on_grant(UBridge__EvlanAppIndex *, UBridge__EvlanIndex *evlan)
{
    heard_grants += evlan->evlan_id != -1;
    return 0;
}

int32_t on_release(UBridge__EvlanAppIndex *, UBridge__EvlanIndex *, int32_t)
{
    ++heard_releases;
    return 0;
}

struct duration {
    double wall;
    double processor;
};

struct timing {
    duration request;
    duration release;
};

duration now()
{
    const auto wall = std::chrono::steady_clock::now().time_since_epoch();
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return {std::chrono::duration<double>(wall).count(),
            static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9};
}

[[noreturn]] void give_up(const char *what)
{
    std::fprintf(stderr, "road_bench: %s\n", what);
    std::exit(1);
}

// One user follows the sessions for the process; each change is told to all three.
void start_users(qz_mom_handle *handle)
{
    for (const char *name : USERS) {
        ebridge_args args{};
        args.user_name = name;
        args.handle = handle;
        args.mom_db = SW_EBRIDGE_APP_DB;
        args.auto_subscribe = name == USERS[0];
        args.evlan_data_type = name == USERS[0] ? OWN : ALL;
        args.evlan_reply = on_grant;
        args.evlan_release_reply = on_release;
        if (sw_ebridge_init(&args) != 0)
            give_up("the library cannot be initialised");
    }
}

// Calls `step` for every key, with a turn of the loop after each slice.
duration time_all(qz_thread_master *master, uint32_t count, int32_t (*step)(UBridge__EvlanAppIndex *app))
{
    const duration start = now();
    UBridge__EvlanAppIndex app = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    app.t_user = const_cast<char *>(USERS[0]);
    app.type = U_BRIDGE__EVLAN_TYPE__VXLAN;
    for (uint32_t key = 1; key <= count; ++key) {
        app.keyid = static_cast<int32_t>(key);
        if (step(&app) != 0)
            give_up("a call failed");
        if (key % SLICE == 0)
            qz_thread_run_pending(master, 0);
    }
    qz_thread_run_pending(master, 0);
    const duration end = now();
    return {end.wall - start.wall, end.processor - start.processor};
}

timing run(uint32_t count)
{
    qz_thread_master *master = qz_thread_master_create(QZ_THREAD_CLOCK_DRIVEN);
    qz_mom_handle *handle = nullptr, *service_handle = nullptr;
    ebridged_service *service = nullptr;
    if (qz_mom_client_open("mem:bench", master, &handle) != 0 ||
        qz_mom_client_open("mem:bench", master, &service_handle) != 0 ||
        ebridged_start(service_handle, nullptr, &service) != 0)
        give_up("the store or the service cannot be started");
    start_users(handle);
    qz_thread_run_pending(master, 0);

    timing taken{};
    taken.request = time_all(master, count, [](UBridge__EvlanAppIndex *app) {
        return sw_evlan_request(app, 0, U_BRIDGE__RES_PRIORITY__LEVEL_0);
    });
    if (heard_grants != uint64_t{LISTENERS} * count)
        give_up("not every grant was heard by every user");
    taken.release = time_all(master, count, sw_evlan_release_direct);
    if (heard_releases != uint64_t{LISTENERS} * count)
        give_up("not every release was heard by every user");

    ebridged_stop(service);
    qz_mom_client_close(service_handle);
    qz_mom_client_close(handle);
    qz_thread_master_free(master);
    return taken;
}

timing run_in_child(uint32_t count)
{
    int ends[2];
    if (pipe(ends) != 0)
        give_up("no pipe");
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        const timing taken = run(count);
        std::_Exit(write(ends[1], &taken, sizeof taken) == sizeof taken ? 0 : 1);
    }
    close(ends[1]);
    timing taken{};
    const bool whole = read(ends[0], &taken, sizeof taken) == sizeof taken;
    close(ends[0]);
    waitpid(child, nullptr, 0);
    if (!whole)
        give_up("a run failed");
    return taken;
}

// The run in the middle by its processor time.
timing median(uint32_t count)
{
    std::vector<timing> all;
    for (int i = 0; i < RUNS; ++i)
        all.push_back(run_in_child(count));
    std::ranges::sort(all, {}, [](const timing &t) { return t.request.processor + t.release.processor; });
    return all[RUNS / 2];
}

}  // namespace

int main(int argc, char **argv)
{
    if (const int status = bench::read_no_arguments(argc, argv, "road_bench", HELP); status >= 0)
        return status;
    nlohmann::ordered_json rows = nlohmann::ordered_json::array();
    std::printf("%8s  %11s  %11s  %14s  %11s  %11s  %14s\n", "EVLANS", "REQUEST s", "REQUESTS/s", "us CPU/REQUEST",
                "RELEASE s", "RELEASES/s", "us CPU/RELEASE");
    for (const uint32_t count : SIZES) {
        const auto [request, release] = median(count);
        std::printf("%8u  %11.4f  %11.0f  %14.2f  %11.4f  %11.0f  %14.2f\n", count, request.wall, count / request.wall,
                    1e6 * request.processor / count, release.wall, count / release.wall,
                    1e6 * release.processor / count);
        std::fflush(stdout);
        rows.push_back({{"evlans", count},
                        {"users", LISTENERS},
                        {"request_seconds", request.wall},
                        {"requests_per_second", count / request.wall},
                        {"request_cpu_seconds", request.processor},
                        {"release_seconds", release.wall},
                        {"releases_per_second", count / release.wall},
                        {"release_cpu_seconds", release.processor}});
    }
    try {
        bench::write_beside("road.json", nlohmann::ordered_json{{"road", rows}}.dump(2) + '\n');
    } catch (const std::exception &error) {
        give_up(error.what());
    }
    return 0;
}
