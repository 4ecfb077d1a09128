// Reading map files. No exception of the JSON library leaves this file.
#include "redis_map.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <vector>

namespace mom
{
namespace
{

using json = nlohmann::json;

constexpr size_t MAX_FILE = 1U << 20;
constexpr uint32_t SERVER_DATABASES = 16;  // of a server named by a URL, as servers come
constexpr uint64_t MAX_DATABASE = INT32_MAX;
constexpr uint64_t MAX_PORT = UINT16_MAX;

// A regular file of bounded size, so that neither a pipe nor a disk is waited for; otherwise why not.
std::optional<std::string> read_file(const std::string &path, std::string &why)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        why = std::strerror(errno);
        return std::nullopt;
    }
    struct stat found {
    };
    std::string text(MAX_FILE + 1, '\0');
    size_t size = 0;
    ssize_t piece = 0;
    if (fstat(fd, &found) != 0 || !S_ISREG(found.st_mode)) {
        why = "not a file";
    } else {
        while (size < text.size() && (piece = read(fd, text.data() + size, text.size() - size)) > 0)
            size += static_cast<size_t>(piece);
        if (piece < 0)
            why = std::strerror(errno);
        else if (size > MAX_FILE)
            why = "larger than 1 MiB";
    }
    close(fd);
    text.resize(size);
    return why.empty() ? std::optional(std::move(text)) : std::nullopt;
}

// A name of the file as it may stand in a log line.
std::string printable(std::string name)
{
    std::ranges::replace_if(
        name, [](char each) { return static_cast<unsigned char>(each) < ' ' || each == '\x7f'; }, '?');
    return name;
}

// Member names of the objects that are open, to find those that stand twice: the parser itself keeps the last.
class duplicate_finder
{
  public:
    bool see(json::parse_event_t event, const json &value)
    {
        if (event == json::parse_event_t::object_start)
            open_.emplace_back();
        else if (event == json::parse_event_t::object_end)
            open_.pop_back();
        else if (event == json::parse_event_t::key)
            add(value.get_ref<const std::string &>());
        return true;
    }
    const std::string &found() const { return found_; }

  private:
    struct level {
        std::set<std::string> names;
        std::string current;
    };

    void add(const std::string &name)
    {
        open_.back().current = name;
        if (open_.back().names.insert(name).second || !found_.empty())
            return;
        for (const level &each : open_)
            found_ += '/' + each.current;
    }

    std::vector<level> open_;
    std::string found_;
};

// Gives the members of a file their meaning. The first thing that makes none is the fault.
class map_reader
{
  public:
    map_reader(const std::string &folder, map_fault &fault) : folder_(folder), fault_(fault) {}

    std::optional<redis_map> read(const json &file);

  private:
    bool fail(const std::string &where, const std::string &what)
    {
        fault_ = {printable(where), what};
        return false;
    }
    const json *table(const json &file, const std::string &upper, const std::string &lower, std::string &path);
    bool read_text(const json &from, const std::string &path, const char *name, std::string &out);
    bool read_number(const json &from, const std::string &path, const char *name, uint64_t least, uint64_t most,
                     uint64_t &out);
    bool read_user(const json &from, const std::string &path, redis_address &out);
    bool read_sentinels(const json &from, const std::string &path, redis_instance &out);
    bool read_instance(const json &from, const std::string &path, redis_instance &out);
    bool read_database(const json &from, const std::string &path);

    const std::string &folder_;
    map_fault &fault_;
    std::map<std::string, std::shared_ptr<const redis_instance>> instances_;
    redis_map databases_;
};

// One of the two tables, under the one or the other name.
const json *map_reader::table(const json &file, const std::string &upper, const std::string &lower, std::string &path)
{
    const bool large = file.contains(upper);
    path = '/' + (large ? upper : lower);
    if (large == file.contains(lower)) {
        fail('/' + upper, large ? "stands in upper and in lower case" : "is missing");
        return nullptr;
    }
    const json &found = file.at(large ? upper : lower);
    if (!found.is_object() || found.empty()) {
        fail(path, "not an object with members");
        return nullptr;
    }
    return &found;
}

// An absent member leaves `out` as it is.
bool map_reader::read_text(const json &from, const std::string &path, const char *name, std::string &out)
{
    const auto at = from.find(name);
    if (at == from.end())
        return true;
    if (!at->is_string())
        return fail(path + '/' + name, "not a text");
    out = at->get_ref<const std::string &>();
    return out.find('\0') == std::string::npos || fail(path + '/' + name, "holds a null byte");
}

bool map_reader::read_number(const json &from, const std::string &path, const char *name, uint64_t least, uint64_t most,
                             uint64_t &out)
{
    const auto at = from.find(name);
    if (at == from.end())
        return true;
    if (at->is_number_unsigned())
        out = at->get<uint64_t>();
    if (!at->is_number_unsigned() || out < least || out > most)
        return fail(path + '/' + name, "not a number from " + std::to_string(least) + " to " + std::to_string(most));
    return true;
}

bool map_reader::read_user(const json &from, const std::string &path, redis_address &out)
{
    std::string file;
    if (!read_text(from, path, "username", out.user) || !read_text(from, path, "password", out.password) ||
        !read_text(from, path, "password_path", file))
        return false;
    if (!file.empty()) {
        if (!out.password.empty())
            return fail(path + "/password_path", "stands beside a password");
        std::string why;
        auto content = read_file((std::filesystem::path(folder_) / file).string(), why);
        if (!content)
            return fail(path + "/password_path", "cannot be read: " + why);
        content->resize(std::min(content->find_first_of(std::string_view("\r\n\0", 3)), content->size()));
        if (content->empty())
            return fail(path + "/password_path", "no password in its first line");
        out.password = std::move(*content);
    }
    return out.user.empty() || !out.password.empty() || fail(path + "/username", "stands without a password");
}

bool map_reader::read_sentinels(const json &from, const std::string &path, redis_instance &out)
{
    if (!read_text(from, path, "group", out.group))
        return false;
    const auto at = from.find("sentinels");
    if (at == from.end())
        return out.group.empty() || fail(path + "/group", "stands without sentinels");
    if (out.group.empty())
        return fail(path + "/sentinels", "stands without a group");
    const bool good = at->is_array() && !at->empty() && std::ranges::all_of(*at, [&](const json &each) {
                          return each.is_string() && out.add_sentinel(each.get_ref<const std::string &>());
                      });
    return good || fail(path + "/sentinels", "not a list of \"host:port\"");
}

bool map_reader::read_instance(const json &from, const std::string &path, redis_instance &out)
{
    if (!from.is_object())
        return fail(path, "not an object");
    redis_address &server = out.server;
    uint64_t port = server.port;
    if (!read_text(from, path, "unix_socket_path", server.path) || !read_text(from, path, "hostname", server.host) ||
        !read_number(from, path, "port", 1, MAX_PORT, port) || !read_user(from, path, server) ||
        !read_sentinels(from, path, out))
        return false;
    server.port = static_cast<uint16_t>(port);
    if (out.sentinels.empty() && server.path.empty() && server.host.empty())
        return fail(path, "has no unix_socket_path, no hostname and no sentinels");
    return true;
}

bool map_reader::read_database(const json &from, const std::string &path)
{
    if (!from.is_object())
        return fail(path, "not an object");
    uint64_t id = MAX_DATABASE + 1;
    std::string name;
    if (!read_number(from, path, "id", 0, MAX_DATABASE, id) || !read_text(from, path, "instance", name))
        return false;
    if (id > MAX_DATABASE || !from.contains("instance"))
        return fail(path, id > MAX_DATABASE ? "has no id" : "has no instance");
    const auto instance = instances_.find(name);
    if (instance == instances_.end())
        return fail(path + "/instance", "names no instance");
    const auto [at, fresh] = databases_.emplace(static_cast<uint32_t>(id), instance->second);
    if (!fresh && at->second != instance->second)
        return fail(path + "/id", "is another database's on another instance");
    return true;
}

std::string below(std::string path, const std::string &name)
{
    path += '/';
    path += name;
    return path;
}

std::optional<redis_map> map_reader::read(const json &file)
{
    std::string path;
    if (!file.is_object()) {
        fail("/", "not an object");
        return std::nullopt;
    }
    const json *instances = table(file, "INSTANCES", "instances", path);
    if (instances == nullptr)
        return std::nullopt;
    for (const auto &[name, value] : instances->items()) {
        redis_instance made;
        if (!read_instance(value, below(path, name), made))
            return std::nullopt;
        instances_.emplace(name, std::make_shared<const redis_instance>(std::move(made)));
    }
    const json *databases = table(file, "DATABASES", "databases", path);
    if (databases == nullptr)
        return std::nullopt;
    for (const auto &[name, value] : databases->items()) {
        if (!read_database(value, below(path, name)))
            return std::nullopt;
    }
    return std::move(databases_);
}

// The parser's own text would do, but quotes what it has read.
std::string place_of(std::string_view text, size_t byte)
{
    const std::string_view before = text.substr(0, byte == 0 ? 0 : byte - 1);
    const size_t line = static_cast<size_t>(std::ranges::count(before, '\n')) + 1;
    const size_t start = before.rfind('\n');
    const size_t column = before.size() - (start == std::string_view::npos ? 0 : start + 1) + 1;
    return "line " + std::to_string(line) + ", column " + std::to_string(column);
}

}  // namespace

std::optional<redis_map> parse_map(std::string_view text, const std::string &folder, map_fault &fault)
{
    duplicate_finder names;
    try {
        const json file =
            json::parse(text, [&](int, json::parse_event_t event, json &value) { return names.see(event, value); });
        if (!names.found().empty()) {
            fault = {printable(names.found()), "stands twice"};
            return std::nullopt;
        }
        return map_reader(folder, fault).read(file);
    } catch (const json::parse_error &error) {
        fault = {place_of(text, error.byte), "not JSON"};
    } catch (const json::exception &) {
        fault = {"/", "holds a number that is out of range"};
    }
    return std::nullopt;
}

std::optional<redis_map> map_of_url(std::string_view url, std::string &fault)
{
    constexpr std::string_view FILE_SCHEME = "file://";
    if (url.starts_with(FILE_SCHEME)) {
        const std::string path(url.substr(FILE_SCHEME.size()));
        std::optional<std::string> text;
        if (!path.starts_with('/'))
            fault = "not an absolute path";
        else
            text = read_file(path, fault);
        map_fault found;
        auto made = text ? parse_map(*text, std::filesystem::path(path).parent_path().string(), found) : std::nullopt;
        if (!made)
            fault = "database map " + path + ": " + (text ? found.where + ": " + found.what : fault);
        return made;
    }
    const auto instance = redis_instance::parse(url);
    if (!instance)
        return std::nullopt;
    const auto shared = std::make_shared<const redis_instance>(*instance);
    redis_map made;
    for (uint32_t db = 0; db < SERVER_DATABASES; ++db)
        made.emplace(db, shared);
    return made;
}

}  // namespace mom
