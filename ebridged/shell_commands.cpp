// See shell_commands.hpp.
#include "shell_commands.hpp"

#include <cerrno>
#include <cinttypes>
#include <cstdarg>

namespace ebridged
{

namespace
{

const standby *asked = nullptr;  // handlers carry no argument

__attribute__((format(printf, 1, 2))) void print(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    ssat_vprint(format, args);
    va_end(args);
}

const char *name_of(standby::state now)
{
    switch (now) {
        case standby::state::connecting:
            return "waiting for the store";
        case standby::state::standing_by:
            return "standing by: another one serves";
        default:
            return "serving";
    }
}

void print_counts(const ebridged_stat &of)
{
    print("ids:   %s, %" PRIu32 " sessions, %" PRIu32 " keys with ids, %" PRIu64 " answers, %" PRIu64
          " refusals, %" PRIu32 " writes waiting\n",
          of.serving != 0 ? "answering" : "reading", of.sessions, of.keys, of.answered, of.refused, of.waiting);
    print("rules: %s, %" PRIu32 " rules, %" PRIu32 " keys, %" PRIu32 " contested, %" PRIu32 " to calculate, %" PRIu32
          " results waiting, %" PRIu64 " calculations, %" PRIu64 " results\n",
          of.deciding != 0 ? "deciding" : "reading", of.rules, of.rule_keys, of.contested_keys, of.waiting_keys,
          of.waiting_results, of.calculations, of.results);
    print("pvids: %" PRIu32 " ports, %" PRIu32 " table records waiting, %" PRIu64 " written\n", of.pvid_ports,
          of.waiting_pvids, of.pvids);
}

}  // namespace

int32_t shell_commands::print_stat(int32_t, const int32_t *)
{
    if (!asked)
        return -1;
    print("state: %s%s\n", name_of(asked->now()), asked->store_is_away() ? ", and the store is away" : "");
    ebridged_stat stat{};
    if (asked->get_stat(&stat))
        print_counts(stat);
    return 0;
}

shell_commands::shell_commands(qz_thread_master *master, const standby *turns)
{
    asked = turns;
    ssat_module *module = nullptr;
    if (ssat_lib_init("ebridged", &module) == 0)
        ssat_reg_mod_cmd(module, "stat", 0, "whether it serves, and what it has and has done", print_stat);
    switch (ssat_serve(master, &server_)) {
        case 0:
            break;
        case SSAT_EIO:
            failure_ = errno;
            break;
        case SSAT_ENOMEM:
            failure_ = ENOMEM;
            break;
        case SSAT_EEXIST:
            failure_ = EEXIST;
            break;
        default:
            failure_ = ENAMETOOLONG;
    }
}

shell_commands::~shell_commands()
{
    ssat_serve_stop(server_);
    asked = nullptr;
}

}  // namespace ebridged
