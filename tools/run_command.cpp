// "ebridge run" on the command line. See run.hpp for what it does.
#include <signal.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <memory>

#include "command.hpp"
#include "ports.hpp"
#include "processes.hpp"
#include "report.hpp"
#include "run.hpp"
#include "u_bridge.pb-c.h"

namespace ebridge_tool
{

namespace
{

constexpr const char *RUN_FOOTER =
    "One user requests an id for each port, LAG, VLAN, VXLAN tunnel and VXLAN map of CONFIG and publishes what it\n"
    "is; a second one hears every answer and reads everything back. Without --store both, the store and the id\n"
    "allocator run inside this command, and nothing else is touched. With it a running ebridged answers, and what\n"
    "was granted stays in the store; the one who observes is then a process of its own, and so is each of the N\n"
    "users (ebridge_run, or ebridge_run_1 and so on) who share the requests. --dump then prints the tables of the\n"
    "observer. Tables that have no meaning yet are counted as skipped.\n"
    "\n"
    "The entries of VLAN_MEMBER become the VLANs of ports, tagged or untagged; each port is published once, however\n"
    "many they are. The lowest VLAN in which a port is untagged is its default VLAN: it is set, and what the service\n"
    "makes of it is heard and read. Without a table PORT the ports are those that the members name.\n"
    "\n"
    "The rules of ACL_RULE are published as match rules: in-port, outer and inner VLAN, ether type, source and\n"
    "destination address, as far as one type of match rule has what a rule asks for. What cannot be expressed is\n"
    "counted, and named on standard error; that is no failure. Priorities 0 to 7 are levels as they are; where there\n"
    "are others, those that occur are cut into eight levels in their order. With several users these contest each\n"
    "other's rules, and what each hears of its own is compared with a calculation of this command.\n"
    "\n"
    "--restart then kills the users and starts them again with CONFIG less the entries of --without, as an\n"
    "application that has crashed and was configured otherwise meanwhile: they mark what they had, ask again for\n"
    "what they want, and have deleted what is still marked, its sessions by a timer after 40 s.\n"
    "\n"
    "URL of a store: redis://[USER:PASSWORD@]HOST[:PORT], redis+unix://[USER:PASSWORD@]/PATH,\n"
    "redis+sentinel://[USER:PASSWORD@]HOST[:PORT],.../GROUP, or file:///PATH of a database_config.json that maps\n"
    "databases to several servers.\n"
    "\n"
    "Examples:\n"
    "  ebridge run leaf.json                        a table of what was granted and read back\n"
    "  ebridge run --json leaf.json | jq .tables    the same for programs\n"
    "  ebridge run --dump leaf.json                 and what the library holds afterwards\n"
    "  ebridge run --range VXLAN=1-10 leaf.json     with ten VXLAN ids only: what is refused?\n"
    "  ebridge run --store redis+unix:///run/redis/redis-server.sock leaf.json\n"
    "  ebridge run --store redis://127.0.0.1 --users 4 leaf.json    requested by four processes, whose rules collide\n"
    "  ebridge run --ports port_config.ini leaf.json                on the ports of this list\n"
    "  ebridge run --store redis://127.0.0.1 --restart --without 'VLAN|Vlan10' leaf.json\n"
    "\n"
    "Exit status:\n"
    "  0  all that was requested was granted and read back equal, and match rules were decided as calculated; after a\n"
    "     restart exactly what was dropped has gone\n"
    "  1  something was refused, differs or is left over; each such entry is named on standard error. Or a process\n"
    "     of this command has died, and is named; or the result cannot be written, or memory has run out\n"
    "  2  CONFIG or a list of ports is missing or makes no sense, or an argument is wrong; nothing was requested\n"
    "  3  nobody answers at the store's URL, or it makes no sense; or the store was lost and has not come back for as\n"
    "     long as --patience says";

struct arguments {
    std::string config;
    std::string ports;
    bool json = false;
    bool dump = false;
    std::string store;
    size_t users = 1;
    bool restart = false;
    bool delete_now = false;
    int64_t patience = 30;  // seconds
    std::vector<std::string> without;
    std::vector<std::string> range_texts;
    std::vector<range_setting> ranges;
};

// A type by its name, or one of evlans by its number; type 0 when there is none.
range_setting read_type(const std::string &text)
{
    for (const bool of_eports : {false, true}) {
        const auto &types = of_eports ? u_bridge__eport_type__descriptor : u_bridge__evlan_type__descriptor;
        if (const auto *named = protobuf_c_enum_descriptor_get_value_by_name(&types, text.c_str()))
            return {of_eports, static_cast<uint32_t>(named->value), 0, 0};
    }
    uint32_t number = 0;
    const char *end = text.data() + text.size();
    const auto read = std::from_chars(text.data(), end, number);
    const bool known =
        read.ec == std::errc() && read.ptr == end &&
        protobuf_c_enum_descriptor_get_value(&u_bridge__evlan_type__descriptor, static_cast<int>(number));
    return {false, known ? number : 0, 0, 0};
}

// "TYPE=MIN-MAX".
range_setting read_range(const std::string &text)
{
    const size_t equals = text.find('=');
    const size_t dash = text.find('-', equals == std::string::npos ? 0 : equals);
    range_setting range{};
    if (equals != std::string::npos && dash != std::string::npos) {
        const char *end = text.data() + text.size();
        range = read_type(text.substr(0, equals));
        const auto min = std::from_chars(text.data() + equals + 1, text.data() + dash, range.min);
        const auto max = std::from_chars(text.data() + dash + 1, end, range.max);
        const bool whole =
            min.ec == std::errc() && max.ec == std::errc() && min.ptr == text.data() + dash && max.ptr == end;
        if (whole && range.type != 0 && range.min >= 1 && range.min <= range.max && range.max <= 0xffffff)
            return range;
    }
    throw CLI::ValidationError("--range", text + " is not TYPE=MIN-MAX, as in VXLAN=1-1000");
}

// Ends as a signal ends a program, but leaves neither a process nor a half written line.
void on_signal(int number)
{
    end_workers();
    end_progress();
    raise(number);
}

// A signal that is ignored (by nohup, say) stays so.
void end_tidily_on(int number)
{
    struct sigaction action = {};
    sigaction(number, nullptr, &action);
    if (action.sa_handler == SIG_IGN)
        return;
    action.sa_handler = on_signal;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaddset(&action.sa_mask, SIGINT);
    sigaddset(&action.sa_mask, SIGTERM);
    sigaction(number, &action, nullptr);
}

int run_it(const arguments &given)
{
    switch_config config;
    run_result result;
    std::string error;
    if (!read_config(given.config, given.ports, &config, &error))
        return complain(error, BAD_INPUT);
    switch_config restarted = config;
    for (const std::string &entry : given.without)
        if (!drop_entry(entry, &restarted, &error))
            return complain("--without " + error, BAD_INPUT);
    const int json_output = given.json ? keep_output_clean() : -1;
    if (given.json && json_output < 0)
        return complain("standard output cannot be kept apart", SOMETHING_DIFFERS);
    end_tidily_on(SIGINT);
    end_tidily_on(SIGTERM);
    run_options options{.ranges = given.ranges, .patience_usec = given.patience * 1'000'000, .progress = show_progress};
    if (!given.store.empty()) {
        options.store = given.store;
        options.serve = false;
        options.users = given.users;
        options.restarted = given.restart ? &restarted : nullptr;
        options.delete_now = given.delete_now;
        options.phase = show_phase;
    }
    const bool ran = run_config(config, options, &result, &error);
    end_progress();
    if (!ran)
        return complain(error, result.store_missing ? NO_STORE : SOMETHING_DIFFERS);
    for (const std::string &problem : result.problems)
        std::fprintf(stderr, "%s\n", problem.c_str());
    for (const std::string &note : result.notes)
        std::fprintf(stderr, "%s\n", note.c_str());
    if (given.json && !write_all(json_output, to_json(config, result) + '\n'))
        return complain("the result cannot be written", SOMETHING_DIFFERS);
    if (!given.json)
        print_table(stdout, config, result);
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
        return complain("the result cannot be written", SOMETHING_DIFFERS);
    if (given.dump && !result.dump())
        return complain("the tables cannot be printed", SOMETHING_DIFFERS);
    return result.all_equal() ? DONE : SOMETHING_DIFFERS;
}

}  // namespace

void add_run(CLI::App *ebridge, std::vector<command> *commands)
{
    const auto given = std::make_shared<arguments>();
    CLI::App *run = ebridge->add_subcommand("run", "Bring up a switch configuration and read it back");
    run->footer(RUN_FOOTER);
    run->add_option("CONFIG", given->config, "configuration in the config_db.json form")->required()->type_name("");
    run->add_flag("--json", given->json, "print one JSON object, and nothing else, on standard output");
    run->add_flag("--dump", given->dump, "print the library's users and tables at the end");
    CLI::Option *store = run->add_option("--store", given->store, "URL of the message store of a running ebridged");
    store->type_name("URL")->check(CLI::Validator(shared_store_fault, ""));
    run->add_option("--users", given->users, "processes that share the requests, 1 to 64; 1 unless given")
        ->type_name("N")
        ->check(CLI::Range(1, 64))
        ->needs(store);
    run->add_option("--ports", given->ports, "list of the ports (port_config.ini); CONFIG tells them unless given")
        ->type_name("FILE");
    CLI::Option *restart =
        run->add_flag("--restart", given->restart, "kill the users, and start them again without what is dropped");
    restart->needs(store);
    run->add_option("--without", given->without, "entry that is dropped by the restart, may be repeated")
        ->type_name("TABLE|KEY")
        ->needs(restart);
    run->add_flag("--delete-now", given->delete_now, "delete what is dropped at once, not by the timer")
        ->needs(restart);
    run->add_option(
           "--patience", given->patience,
           "without any answer for so long, what is open counts as refused, and a lost store as gone for good, "
           "1 to 3600; 30 unless given")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, 3600));
    run->add_option("--range", given->range_texts, "numbers that the allocator may give, may be repeated")
        ->type_name("TYPE=MIN-MAX")
        ->excludes(store);
    run->callback(
        [given] { std::ranges::transform(given->range_texts, std::back_inserter(given->ranges), read_range); });
    commands->push_back({run, [given] { return run_it(*given); }});
}

}  // namespace ebridge_tool
