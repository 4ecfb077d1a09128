// The debug shell's registry: modules, their commands, and the output of a handler while it runs.
#include "ssat.h"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <vector>

namespace
{

constexpr size_t longest_module_name = 127;

struct command {
    std::string name;
    std::string help;
    int32_t argument_count;  // named by the help text
    ssat_handler handler;
};

}  // namespace

struct ssat_module {
    std::vector<command> commands;  // in the order of their registration
};

namespace
{

struct registry {
    std::mutex lock;
    std::map<std::string, ssat_module, std::less<>> modules;  // by name; they keep their addresses
};

// Never destroyed: modules live as long as the process.
registry &all()
{
    static registry *const instance = new registry;
    return *instance;
}

template <typename Function>
int32_t guarded(Function function)
{
    try {
        return function();
    } catch (const std::bad_alloc &) {
        return SSAT_ENOMEM;
    }
}

// ---- commands -------------------------------------------------------------------------------------------------------

// Integer conversions in a help text: '%', flags, width, precision and length modifiers, then one of d i u x X o.
int32_t count_arguments(std::string_view help)
{
    int32_t count = 0;
    for (size_t at = help.find('%'); at != std::string_view::npos; at = help.find('%', at)) {
        at = help.find_first_not_of("-+ #0'123456789.*hlLjzt", at + 1);
        if (at == std::string_view::npos)
            break;
        if (std::string_view("diuxXo").find(help[at]) != std::string_view::npos)
            ++count;
        ++at;  // also over the second half of "%%"
    }
    return count;
}

command *find_command(ssat_module &module, std::string_view name)
{
    const auto of_name = [name](const command &candidate) { return candidate.name == name; };
    const auto found = std::find_if(module.commands.begin(), module.commands.end(), of_name);
    return found == module.commands.end() ? nullptr : &*found;
}

int32_t register_command(ssat_module &module, command added)
{
    const std::lock_guard lock(all().lock);
    if (command *const earlier = find_command(module, added.name))
        *earlier = std::move(added);
    else
        module.commands.push_back(std::move(added));
    return 0;
}

// ---- running a handler ----------------------------------------------------------------------------------------------

// The client whose handler runs on this thread.
struct client {
    ssat_sink sink;
    void *args;
    bool gone = false;  // once the sink has said so it is not called again
};

thread_local client *current_client = nullptr;

// Makes a client the current one until the end of the scope; a handler may run another command for a client of its own.
class serving
{
  public:
    explicit serving(client *served) : before_(current_client) { current_client = served; }
    serving(const serving &) = delete;
    serving &operator=(const serving &) = delete;
    ~serving() { current_client = before_; }

  private:
    client *before_;
};

int32_t find_handler(const char *module, const char *name, command &found)
{
    const std::lock_guard lock(all().lock);
    const auto entry = all().modules.find(module);
    if (entry == all().modules.end())
        return SSAT_ENOENT;
    const command *const wanted = find_command(entry->second, name);
    if (!wanted)
        return SSAT_ENOENT;
    found = *wanted;
    return 0;
}

int32_t print_to(client &to, const char *format, va_list args)
{
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, format, args);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    if (length > 0)
        std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    if (length <= 0)
        return length;
    to.gone = to.sink(text.data(), static_cast<uint32_t>(length), to.args) != 0;
    return to.gone ? SSAT_ENOENT : length;
}

// ---- visiting -------------------------------------------------------------------------------------------------------

struct listed_command {
    std::string module, name, help;
};

std::vector<listed_command> list_commands()
{
    std::vector<listed_command> all_commands;
    const std::lock_guard lock(all().lock);
    for (const auto &[name, module] : all().modules)
        for (const command &each : module.commands)
            all_commands.push_back({name, each.name, each.help});
    return all_commands;
}

bool empty(const char *text) { return !text || *text == '\0'; }

}  // namespace

int32_t ssat_lib_init(const char *name, ssat_module **module)
{
    if (empty(name) || !module || std::string_view(name).size() > longest_module_name)
        return SSAT_EINVAL;
    return guarded([&] {
        const std::lock_guard lock(all().lock);
        *module = &all().modules.try_emplace(name).first->second;
        return 0;
    });
}

int32_t ssat_reg_mod_cmd(ssat_module *module, const char *command, uint32_t flags, const char *help,
                         ssat_handler handler)
{
    if (!module || empty(command) || flags != 0 || !help || !handler)
        return SSAT_EINVAL;
    return guarded([&] { return register_command(*module, {command, help, count_arguments(help), handler}); });
}

int32_t ssat_vprint(const char *format, va_list args)
{
    client *const to = current_client;
    if (!to)
        return std::vprintf(format, args);
    if (to->gone)
        return SSAT_ENOENT;
    const int32_t printed = guarded([&] { return print_to(*to, format, args); });
    // Rather no more than with a hole in it.
    to->gone |= printed == SSAT_ENOMEM;
    return printed;
}

int32_t ssat_for_each(ssat_visitor visitor, void *args)
{
    if (!visitor)
        return SSAT_EINVAL;
    return guarded([&] {
        // A copy, so that the visitor may register and run commands.
        for (const auto &each : list_commands())
            if (const int32_t result = visitor(each.module.c_str(), each.name.c_str(), each.help.c_str(), args))
                return result;
        return 0;
    });
}

int32_t ssat_exec(const char *module, const char *command_name, int32_t argc, const int32_t *argv, ssat_sink sink,
                  void *args, int32_t *result)
{
    if (!module || !command_name || argc < 0 || (argc > 0 && !argv) || !sink)
        return SSAT_EINVAL;
    return guarded([&] {
        command found;
        if (const int32_t code = find_handler(module, command_name, found))
            return code;
        if (argc > found.argument_count)
            return int32_t{SSAT_EARGS};
        std::vector<int32_t> arguments(argv, argv + argc);
        arguments.resize(static_cast<size_t>(found.argument_count));
        client asking{sink, args};
        const serving scope(&asking);
        const int32_t returned = found.handler(found.argument_count, arguments.data());
        if (result)
            *result = returned;
        return 0;
    });
}
