// "ebridge watch" on the command line. See watch.hpp for what it does.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <memory>

#include "config_file.hpp"
#include "patient_output.hpp"
#include "show_command.hpp"
#include "watch.hpp"

namespace ebridge_tool
{

namespace
{

constexpr const char *WATCH_FOOTER =
    "A line for each change: when it was heard, database, what has happened, table, user, type, key, content:\n"
    "  fields   these fields were written, set to what the line says\n"
    "  set      the record was written whole; of it the fields that are set\n"
    "  removed  the record as it last was\n"
    "  expired  the same: its mark has fired, nobody has asked for it again\n"
    "  is       with --now: it is there. A change of it that comes meanwhile is told before or after, never out of order\n"
    "Numbers with a type in their top byte are ids, in hexadecimal. Long lines are cut; with --json nothing is.\n"
    "\n"
    "Every single change is told as long as the connection holds. Where that is not sure a line that begins with -- says\n"
    "so: connection to database N lost, and is back; or changes of database N have left its log unheard, because this\n"
    "command did not get to read them for too long. Then a record that has changed meanwhile is told once, as it is\n"
    "now, and one that has gone as removed. Records of a table may be told again that have not changed.\n"
    "\n"
    "Who does not read the output keeps the command waiting; nothing is dropped. 16384 changes are kept for it, what comes\n"
    "on top waits in the store's log, some 4000 entries. When these do not suffice it is as after a lost connection; the\n"
    "line \"the output is not read fast enough\" tells that it may come to that.\n"
    "\n"
    "--json prints an object a line:\n"
    "  time      when it was heard, UTC\n"
    "  change    fields, set, removed, expired, is; beside it db, table, user, type, key (as in the store), fields\n"
    "  record    the whole record by the names of its fields; bytes are hexadecimal, values of enums are their names\n"
    "  gap       instead of change: lost, back, missed (with db), behind, caught up (the reader)\n"
    "  told      instead of change: with --now, all that was there has been told\n"
    "\n"
    "Examples:\n"
    "  ebridge watch --store redis://127.0.0.1\n"
    "  ebridge watch --store redis://127.0.0.1 --db 4 --table evlan_session --type VXLAN    who asks for VXLAN evlans\n"
    "  ebridge watch --store redis://127.0.0.1 --now --user app                first what app has, then what it does\n"
    "  ebridge watch --store redis://127.0.0.1 --table pvid_table --count 1    until a default VLAN changes\n"
    "  ebridge watch --store redis://127.0.0.1 --json | jq -c 'select(.gap or .change == \"expired\")'\n"
    "\n"
    "Exit status: 0 ended by SIGINT, SIGTERM, --count, or because nobody reads the output any more; 1 it cannot be\n"
    "written, or memory has run out; 2 an argument is wrong, or there is no such database; 3 nobody answers at the\n"
    "store's URL, or it makes no sense.";

struct watch_arguments {
    watch_query query{};
    std::string type;
    std::vector<std::string> tables;
};

// ---- signals --------------------------------------------------------------------------------------------------------

int signalled[2] = {-1, -1};  // a pipe: something can be read once a signal has come

void on_signal(int)
{
    const int before = errno;
    [[maybe_unused]] const ssize_t wrote = write(signalled[1], "", 1);
    errno = before;
}

// A signal that is ignored (by nohup, say) stays so.
void end_on(int number)
{
    struct sigaction action = {};
    sigaction(number, nullptr, &action);
    if (action.sa_handler == SIG_IGN)
        return;
    action.sa_handler = on_signal;
    sigaction(number, &action, nullptr);
}

void end_on_signals()
{
    end_on(SIGINT);
    end_on(SIGTERM);
}

// ---- the command ----------------------------------------------------------------------------------------------------

std::string number_list(const std::vector<uint32_t> &numbers)
{
    std::string text;
    for (const uint32_t number : numbers)
        text += (text.empty() ? "" : ", ") + std::to_string(number);
    return text;
}

// What ends a watch from outside.
struct ending {
    watch *of;
    const patient_output *output;
};

void on_end(void *self) { static_cast<ending *>(self)->of->end(); }

void on_output(void *self)
{
    const auto *now = static_cast<ending *>(self);
    if (now->output->is_unread())
        now->of->end();
}

int watch_it(const watch_arguments &given)
{
    const watch_query &query = given.query;
    const int fd = keep_output_clean();
    if (fd < 0)
        return complain("standard output cannot be kept apart", SOMETHING_DIFFERS);
    if (pipe2(signalled, O_CLOEXEC | O_NONBLOCK) != 0)
        return complain("no descriptors are left", SOMETHING_DIFFERS);
    signal(SIGPIPE, SIG_IGN);
    patient_output output(fd, signalled[0]);
    watch now(query, [&](std::string_view lines) { return output.write(lines); });
    std::string error;
    if (const int32_t code = now.follow(&error); code != 0)
        return complain(error, status_of(code));
    end_on_signals();
    ending from_outside{&now, &output};
    qz_thread_watch(now.master(), signalled[0], on_end, &from_outside);
    if (output.is_pipe())
        qz_thread_watch(now.master(), fd, on_output, &from_outside);
    std::fprintf(stderr, "ebridge: watching %zu tables of database%s %s\n", now.tables(),
                 query.databases.size() == 1 ? "" : "s", number_list(query.databases).c_str());
    now.run();
    return output.has_failed() ? complain("the output cannot be written", SOMETHING_DIFFERS) : DONE;
}

// Names to tables; throws what the command line throws.
void read_tables(const std::vector<std::string> &names, std::vector<const bridge_table *> *to)
{
    for (const std::string &name : names) {
        const bridge_table *found = find_table(name);
        if (!found)
            throw CLI::ValidationError("--table", name + " is not a table, such as evlan_session or s_bridge.evlan");
        if (std::ranges::find(*to, found) == to->end())
            to->push_back(found);
    }
}

}  // namespace

void add_watch(CLI::App *ebridge, std::vector<command> *commands)
{
    const auto given = std::make_shared<watch_arguments>();
    CLI::App *watch = ebridge->add_subcommand("watch", "Tell every change of a store as it comes");
    watch->footer(WATCH_FOOTER);
    add_store_options(watch, {&given->query.store, &given->query.databases, &given->query.json, "object a line"});
    watch->add_option("--table", given->tables, "only changes of this table, may be repeated")->type_name("NAME");
    watch->add_option("--user", given->query.user, "only records of this user")->type_name("NAME");
    watch->add_option("--type", given->type, "only records of this type of evlan or eport, by name or number")
        ->type_name("TYPE");
    watch->add_flag("--now", given->query.now, "tell first what is there");
    watch->add_option("--count", given->query.count, "end after so many changes")
        ->type_name("N")
        ->check(CLI::Range(uint64_t{1}, uint64_t{1'000'000'000'000}));
    watch->callback([given] {
        remove_repeated(&given->query.databases);
        read_tables(given->tables, &given->query.tables);
        given->query.type = find_bridge_type(given->type);
        if (!given->type.empty() && !given->query.type)
            throw CLI::ValidationError("--type", given->type + " is not a type of evlans or eports, such as VXLAN");
        if (tables_of(given->query).empty())
            throw CLI::ValidationError("--table", "no table is left");
    });
    commands->push_back({watch, [given] { return watch_it(*given); }});
}

}  // namespace ebridge_tool
