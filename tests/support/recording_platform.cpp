// The recording platform (see recording_platform.hpp): the platform calls that the library makes, each of which writes
// itself down and gives the programmed result, and the allocator that the --wrap options put before the real one.
#include "recording_platform.hpp"

#include <cinttypes>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <utility>

#include "libcgstctrl.h"
#include "libddm.h"
#include "qz_thread.h"
#include "qz_zlog.h"
#include "ssat.h"

struct qz_thread_master {
    int unused;
};
struct qz_zlog_category {
    std::string name;
};
struct ssat_module {
    std::string name;
};

namespace recording
{
namespace
{

struct programmed_result {
    uint32_t nth;  // calls from now; 0: every call
    int32_t result;
};

struct recorder {
    std::vector<call> calls;
    std::vector<log_line> log;
    std::vector<std::string> sequence;
    std::string printed;
    std::map<std::string, std::vector<programmed_result>> results;
    std::vector<std::string> failing_categories;
    std::vector<libddm_port> ports;
};

// What outlives reset(): the handles, and the arguments that a real platform would hold from an accepted call until its
// callback, which so are no leaks.
struct platform_objects {
    qz_thread_master master{};
    qz_mom_handle handles[2] = {{&master}, {&master}};
    std::map<std::string, qz_zlog_category> categories;
    std::map<std::string, ssat_module> modules;
    std::vector<void *> accepted_args;
};

recorder &the()
{
    static auto *instance = new recorder;
    return *instance;
}

platform_objects &objects()
{
    static auto *instance = new platform_objects;
    return *instance;
}

// While one lives, allocations on this thread are the recorder's own: neither counted nor failed nor reported.
thread_local uint32_t own_depth = 0;
struct own_allocations {
    own_allocations() { ++own_depth; }
    ~own_allocations() { --own_depth; }
    own_allocations(const own_allocations &) = delete;
    own_allocations &operator=(const own_allocations &) = delete;
};

template <typename Function>
void *address(Function *function)
{
    return reinterpret_cast<void *>(function);
}

int32_t take_result(const std::string &function)
{
    auto &rules = the().results[function];
    int32_t always = 0;
    std::optional<int32_t> now;
    for (auto rule = rules.begin(); rule != rules.end();) {
        if (rule->nth == 0) {
            always = (rule++)->result;
        } else if (--rule->nth == 0) {
            now = rule->result;
            rule = rules.erase(rule);
        } else {
            ++rule;
        }
    }
    return now.value_or(always);
}

int32_t record(call made)
{
    const own_allocations own;
    the().sequence.push_back("call " + made.function);
    made.printed_before = the().printed.size();
    const int32_t result = take_result(made.function);
    if (result == 0 && made.args)
        objects().accepted_args.push_back(made.args);
    the().calls.push_back(std::move(made));
    return result;
}

call store_call(const char *function, const qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *message,
                qz_mom_msg_cb cb, void *args)
{
    call made;
    made.function = function;
    made.handle = handle;
    made.db = db;
    made.record = render(message);
    made.callback = address(cb);
    made.args = args;
    return made;
}

std::string formatted(const char *format, va_list args)
{
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (length < 0)
        return {};
    std::string text(static_cast<size_t>(length) + 1, '\0');
    vsnprintf(text.data(), text.size(), format, args);
    text.pop_back();
    return text;
}

// ---- rendering of messages

std::string quoted(const char *text)
{
    std::string out = "\"";
    for (; *text; ++text) {
        if (*text == '"' || *text == '\\')
            out += '\\';
        out += *text;
    }
    return out + '"';
}

std::string fields_of(const ProtobufCMessage *message);

// What stands there in a record.
template <typename Value>
const Value &value_at(const char *place)
{
    return *static_cast<const Value *>(static_cast<const void *>(place));
}

// One value of a field; empty when it is at its default.
std::string value_text(const ProtobufCFieldDescriptor &field, const char *at)
{
    const auto number = [](auto value) { return value == 0 ? std::string() : std::to_string(value); };
    switch (field.type) {
        case PROTOBUF_C_TYPE_INT32:
        case PROTOBUF_C_TYPE_SINT32:
        case PROTOBUF_C_TYPE_SFIXED32:
        case PROTOBUF_C_TYPE_ENUM:
            return number(value_at<int32_t>(at));
        case PROTOBUF_C_TYPE_UINT32:
        case PROTOBUF_C_TYPE_FIXED32:
            return number(value_at<uint32_t>(at));
        case PROTOBUF_C_TYPE_INT64:
        case PROTOBUF_C_TYPE_SINT64:
        case PROTOBUF_C_TYPE_SFIXED64:
            return number(value_at<int64_t>(at));
        case PROTOBUF_C_TYPE_UINT64:
        case PROTOBUF_C_TYPE_FIXED64:
            return number(value_at<uint64_t>(at));
        case PROTOBUF_C_TYPE_FLOAT:
            return number(value_at<float>(at));
        case PROTOBUF_C_TYPE_DOUBLE:
            return number(value_at<double>(at));
        case PROTOBUF_C_TYPE_BOOL:
            return value_at<protobuf_c_boolean>(at) ? "1" : "";
        case PROTOBUF_C_TYPE_STRING: {
            const char *text = value_at<char *>(at);
            return text && *text ? quoted(text) : "";
        }
        case PROTOBUF_C_TYPE_BYTES: {
            const auto *bytes = &value_at<ProtobufCBinaryData>(at);
            std::string out;
            for (size_t i = 0; i < bytes->len; ++i) {
                char pair[3];
                snprintf(pair, sizeof pair, "%02x", bytes->data[i]);
                out += pair;
            }
            return out;
        }
        case PROTOBUF_C_TYPE_MESSAGE: {
            const auto *message = value_at<ProtobufCMessage *>(at);
            return message ? "{" + fields_of(message) + "}" : "";
        }
    }
    return {};
}

size_t element_size(const ProtobufCFieldDescriptor &field)
{
    switch (field.type) {
        case PROTOBUF_C_TYPE_INT64:
        case PROTOBUF_C_TYPE_SINT64:
        case PROTOBUF_C_TYPE_SFIXED64:
        case PROTOBUF_C_TYPE_UINT64:
        case PROTOBUF_C_TYPE_FIXED64:
        case PROTOBUF_C_TYPE_DOUBLE:
            return 8;
        case PROTOBUF_C_TYPE_BOOL:
            return sizeof(protobuf_c_boolean);
        case PROTOBUF_C_TYPE_STRING:
        case PROTOBUF_C_TYPE_MESSAGE:
            return sizeof(void *);
        case PROTOBUF_C_TYPE_BYTES:
            return sizeof(ProtobufCBinaryData);
        default:
            return 4;
    }
}

std::string list_text(const ProtobufCFieldDescriptor &field, const char *base)
{
    const size_t count = value_at<size_t>(base + field.quantifier_offset);
    const char *elements = value_at<char *>(base + field.offset);
    if (count == 0)
        return {};
    std::string out = "[";
    for (size_t i = 0; i < count; ++i) {
        const std::string element = value_text(field, elements + i * element_size(field));
        out += (i == 0 ? "" : " ") + (element.empty() ? "0" : element);
    }
    return out + "]";
}

std::string fields_of(const ProtobufCMessage *message)
{
    const auto *base = reinterpret_cast<const char *>(message);
    std::string out;
    for (unsigned i = 0; i < message->descriptor->n_fields; ++i) {
        const auto &field = message->descriptor->fields[i];
        const bool of_oneof = (field.flags & PROTOBUF_C_FIELD_FLAG_ONEOF) != 0;
        if (of_oneof && value_at<uint32_t>(base + field.quantifier_offset) != field.id)
            continue;
        const std::string value =
            field.label == PROTOBUF_C_LABEL_REPEATED ? list_text(field, base) : value_text(field, base + field.offset);
        if (value.empty())
            continue;
        out += (out.empty() ? "" : " ") + std::string(field.name);
        out += (field.type == PROTOBUF_C_TYPE_MESSAGE && value[0] == '{' ? "" : ":") + value;
    }
    return out;
}

// ---- at_snprintf

// One conversion of a format text: "%-08lx".
struct conversion {
    std::string spec;
    std::vector<int> stars;  // values of '*', in order
    int length = 0;          // negative: hh, h; 1: l, 2: ll; 'z', 'j', 't'
    char letter = 0;
};

conversion parse_conversion(const char *&at, va_list &args)
{
    conversion found;
    const char *begin = at++;
    for (; *at && std::strchr("-+ #0123456789.*", *at); ++at)
        if (*at == '*')
            found.stars.push_back(va_arg(args, int));
    for (; *at && std::strchr("hlzjt", *at); ++at) {
        if (*at == 'h')
            --found.length;
        else if (*at == 'l')
            ++found.length;
        else
            found.length = *at;
    }
    found.letter = *at;
    if (*at)
        ++at;
    found.spec.assign(begin, at);
    return found;
}

template <typename Value>
std::string print_one(const conversion &one, Value value)
{
    char text[4096];
    switch (one.stars.size()) {
        case 0:
            snprintf(text, sizeof text, one.spec.c_str(), value);
            break;
        case 1:
            snprintf(text, sizeof text, one.spec.c_str(), one.stars[0], value);
            break;
        default:
            snprintf(text, sizeof text, one.spec.c_str(), one.stars[0], one.stars[1], value);
            break;
    }
    return text;
}

std::string ipv4_text(uint32_t word)
{
    uint8_t b[4];
    std::memcpy(b, &word, sizeof b);
    char text[16];
    snprintf(text, sizeof text, "%d.%d.%d.%d", b[0], b[1], b[2], b[3]);
    return text;
}

// Full form, without compression: tests compare it with what they computed themselves.
std::string ipv6_text(const uint8_t *b)
{
    std::string out;
    char group[8];
    for (int i = 0; b && i < 16; i += 2) {
        snprintf(group, sizeof group, "%s%x", i ? ":" : "", b[i] << 8 | b[i + 1]);
        out += group;
    }
    return b ? out : "(null)";
}

std::string mac_text(const uint8_t *b)
{
    char text[18] = "(null)";
    if (b)
        snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", b[0], b[1], b[2], b[3], b[4], b[5]);
    return text;
}

std::string integer_text(const conversion &one, va_list &args)
{
    switch (one.length) {
        case 1:
            return print_one(one, va_arg(args, long));
        case 2:
            return print_one(one, va_arg(args, long long));
        case 'j':
            return print_one(one, va_arg(args, intmax_t));
        case 'z':
            return print_one(one, va_arg(args, size_t));
        case 't':
            return print_one(one, va_arg(args, ptrdiff_t));
        default:
            return print_one(one, va_arg(args, int));
    }
}

std::string conversion_text(const conversion &one, va_list &args)
{
    const bool bare = one.spec.size() == 2;
    switch (one.letter) {
        case '%':
            return "%";
        case 'd':
        case 'i':
        case 'o':
        case 'u':
        case 'x':
        case 'X':
        case 'c':
            return integer_text(one, args);
        case 's':
            return print_one(one, va_arg(args, const char *));
        case 'p':
            return print_one(one, va_arg(args, const void *));
        case 'e':
        case 'E':
        case 'f':
        case 'F':
        case 'g':
        case 'G':
            return print_one(one, va_arg(args, double));
        case 'a':
            return bare ? ipv4_text(va_arg(args, uint32_t)) : one.spec;
        case 'v':
            return bare ? ipv6_text(va_arg(args, const uint8_t *)) : one.spec;
        case 'm':
            return bare ? mac_text(va_arg(args, const uint8_t *)) : one.spec;
        default:
            return one.spec;
    }
}

// ---- allocations

uint64_t counted = 0;
uint64_t failing = 0;  // which counted allocation fails, 0 none
uint64_t refused = 0;  // bytes
bool failing_on = false;
void (*free_hook)(void *) = nullptr;

bool allocation_fails(uint64_t size, uint64_t count = 1)
{
    if (own_depth != 0)
        return false;
    ++counted;
    const bool fails = failing != 0 && (counted == failing || (failing_on && counted > failing));
    if (fails)
        refused += size * count;
    return fails;
}

}  // namespace

void reset()
{
    const own_allocations own;
    the() = recorder{};
}

qz_mom_handle *handle() { return &objects().handles[0]; }

qz_mom_handle *other_handle() { return &objects().handles[1]; }

qz_thread_master *master() { return &objects().master; }

std::vector<call> &calls() { return the().calls; }

std::vector<call> calls_of(const std::string &function)
{
    std::vector<call> found;
    for (const auto &made : the().calls)
        if (made.function == function)
            found.push_back(made);
    return found;
}

std::vector<log_line> &log() { return the().log; }

std::vector<std::string> logged(int32_t level)
{
    std::vector<std::string> texts;
    for (const auto &line : the().log)
        if (line.category == "sw_vlan_file" && (level == 0 || line.level == level))
            texts.push_back(line.text);
    return texts;
}

bool has_logged(const std::string &text, int32_t level)
{
    for (const auto &line : logged(level))
        if (line == text)
            return true;
    return false;
}

std::string &printed() { return the().printed; }

std::vector<std::string> &sequence() { return the().sequence; }

std::vector<libddm_port> &ports() { return the().ports; }

void set_result(const std::string &function, int32_t result, uint32_t nth)
{
    const own_allocations own;
    the().results[function].push_back({nth, result});
}

void fail_category(const std::string &name)
{
    const own_allocations own;
    the().failing_categories.push_back(name);
}

void fail_allocation(uint64_t nth, bool all_after)
{
    counted = 0;
    refused = 0;
    failing = nth;
    failing_on = all_after;
}

uint64_t allocations() { return counted; }

uint64_t refused_bytes() { return refused; }

void on_free(void (*hook)(void *)) { free_hook = hook; }

std::string render(const ProtobufCMessage *message)
{
    const own_allocations own;
    return message ? std::string(message->descriptor->name) + "{" + fields_of(message) + "}" : "null";
}

}  // namespace recording

using recording::call;
using recording::own_allocations;

extern "C" {

// ---- allocations: the linker sends every reference to malloc, calloc, realloc and free here

void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *block, size_t size);
void __real_free(void *block);

void *__wrap_malloc(size_t size) { return recording::allocation_fails(size) ? nullptr : __real_malloc(size); }

void *__wrap_calloc(size_t count, size_t size)
{
    return recording::allocation_fails(size, count) ? nullptr : __real_calloc(count, size);
}

void *__wrap_realloc(void *block, size_t size)
{
    return recording::allocation_fails(size) ? nullptr : __real_realloc(block, size);
}

void __wrap_free(void *block)
{
    if (block && recording::free_hook && recording::own_depth == 0) {
        const own_allocations own;
        recording::free_hook(block);
    }
    __real_free(block);
}

// ---- store client

int32_t qz_mom_client_connect(qz_mom_handle *handle, uint32_t db, qz_mom_connected_cb cb, void *args)
{
    const own_allocations own;
    call made;
    made.function = "qz_mom_client_connect";
    made.handle = handle;
    made.db = db;
    made.callback = recording::address(cb);
    made.args = args;
    return recording::record(made);
}

int32_t qz_mom_client_set_reconnect_cb(qz_mom_handle *handle, uint32_t db, qz_mom_reconnect_cb cb, void *args)
{
    const own_allocations own;
    call made;
    made.function = "qz_mom_client_set_reconnect_cb";
    made.handle = handle;
    made.db = db;
    made.callback = recording::address(cb);
    made.args = args;
    return recording::record(made);
}

int32_t qz_mom_set(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, qz_mom_msg_cb cb, void *args)
{
    const own_allocations own;
    return recording::record(recording::store_call("qz_mom_set", handle, db, record, cb, args));
}

int32_t qz_mom_hmset(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, const uint32_t *fields,
                     uint32_t count, qz_mom_msg_cb cb, void *args)
{
    const own_allocations own;
    call made = recording::store_call("qz_mom_hmset", handle, db, record, cb, args);
    made.fields.assign(fields, fields + count);
    made.count = count;
    return recording::record(made);
}

int32_t qz_mom_hmupdate(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, const uint32_t *fields,
                        uint32_t count, qz_mom_msg_cb cb, void *args)
{
    const own_allocations own;
    call made = recording::store_call("qz_mom_hmupdate", handle, db, record, cb, args);
    made.fields.assign(fields, fields + count);
    made.count = count;
    return recording::record(made);
}

int32_t qz_mom_del(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, qz_mom_msg_cb cb, void *args)
{
    const own_allocations own;
    return recording::record(recording::store_call("qz_mom_del", handle, db, record, cb, args));
}

int32_t qz_mom_scan(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *pattern, uint32_t flags,
                    qz_mom_msg_cb cb, void *args)
{
    const own_allocations own;
    call made = recording::store_call("qz_mom_scan", handle, db, pattern, cb, args);
    made.flags = flags;
    return recording::record(made);
}

int32_t qz_mom_subscribe(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *pattern, uint32_t flags,
                         qz_mom_msg_cb cb, void *args)
{
    const own_allocations own;
    call made = recording::store_call("qz_mom_subscribe", handle, db, pattern, cb, args);
    made.flags = flags;
    return recording::record(made);
}

int32_t qz_mom_subscribe_field(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *pattern, uint32_t flags,
                               const uint32_t *fields, const qz_mom_msg_cb *cbs, void *const *args, uint32_t count)
{
    const own_allocations own;
    call made = recording::store_call("qz_mom_subscribe_field", handle, db, pattern, cbs[0], args ? args[0] : nullptr);
    made.flags = flags;
    made.fields.assign(fields, fields + count);
    made.count = count;
    return recording::record(made);
}

int32_t qz_mom_unsubscribe(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *pattern, qz_mom_msg_cb cb,
                           void *args)
{
    const own_allocations own;
    return recording::record(recording::store_call("qz_mom_unsubscribe", handle, db, pattern, cb, args));
}

int32_t qz_mom_pexpire(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, int32_t mode,
                       const qz_mom_timeval *delay, qz_mom_msg_cb cb, void *args)
{
    const own_allocations own;
    call made = recording::store_call("qz_mom_pexpire", handle, db, record, cb, args);
    made.mode = mode;
    made.delay = *delay;
    return recording::record(made);
}

int32_t qz_mom_pexpire_sync(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, int32_t mode,
                            const qz_mom_timeval *delay)
{
    const own_allocations own;
    call made = recording::store_call("qz_mom_pexpire_sync", handle, db, record, nullptr, nullptr);
    made.mode = mode;
    made.delay = *delay;
    return recording::record(made);
}

int32_t qz_mom_clear_expire(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, qz_mom_msg_cb cb,
                            void *args)
{
    const own_allocations own;
    return recording::record(recording::store_call("qz_mom_clear_expire", handle, db, record, cb, args));
}

int32_t qz_mom_del_expire(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, int32_t mode,
                          qz_mom_msg_cb cb, void *args)
{
    const own_allocations own;
    call made = recording::store_call("qz_mom_del_expire", handle, db, record, cb, args);
    made.mode = mode;
    return recording::record(made);
}

// ---- timers

int32_t qz_thread_insert_timer(qz_thread_master *master, qz_thread_timer *timer, qz_thread_func func, void *arg,
                               int32_t seconds, const char *name)
{
    const own_allocations own;
    call made;
    made.function = "qz_thread_insert_timer";
    made.handle = master;
    made.seconds = seconds;
    made.name = name ? name : "";
    made.callback = recording::address(func);
    made.args = arg;
    made.extra = timer;
    return recording::record(made);
}

// ---- logging

qz_zlog_category *qz_zlog_init(const char *name, ...)
{
    const own_allocations own;
    call made;
    made.function = "qz_zlog_init";
    made.name = name;
    recording::record(made);
    for (const auto &failing : recording::the().failing_categories)
        if (failing == name)
            return nullptr;
    auto &category = recording::objects().categories[name];
    category.name = name;
    return &category;
}

void qzdf_zlog(qz_zlog_category *category, const char *file, size_t file_length, const char *function,
               size_t function_length, long line, int32_t level, const char *format, ...)
{
    if (!category)
        return;
    const own_allocations own;
    recording::log_line made;
    made.category = category->name;
    made.file.assign(file, file_length);
    made.function.assign(function, function_length);
    made.line = line;
    made.level = level;
    made.format = format;
    va_list args;
    va_start(args, format);
    made.text = recording::formatted(format, args);
    va_end(args);
    made.printed_before = recording::the().printed.size();
    if (made.category == "sw_vlan_file")
        recording::the().sequence.push_back("log " + std::to_string(level) + " " + made.text);
    recording::the().log.push_back(std::move(made));
}

int32_t at_snprintf(char *text, size_t size, const char *format, ...)
{
    const own_allocations own;
    std::string out;
    va_list args;
    va_start(args, format);
    for (const char *at = format; *at;) {
        if (*at != '%')
            out += *at++;
        else
            out += recording::conversion_text(recording::parse_conversion(at, args), args);
    }
    va_end(args);
    if (size > 0) {
        const size_t kept = out.size() < size ? out.size() : size - 1;
        std::memcpy(text, out.data(), kept);
        text[kept] = '\0';
    }
    return static_cast<int32_t>(out.size());
}

// ---- debug shell

int32_t ssat_lib_init(const char *name, ssat_module **module)
{
    const own_allocations own;
    auto &known = recording::objects().modules[name];
    known.name = name;
    *module = &known;
    call made;
    made.function = "ssat_lib_init";
    made.handle = &known;
    made.name = name;
    return recording::record(made);
}

int32_t ssat_reg_mod_cmd(ssat_module *module, const char *command, uint32_t flags, const char *help,
                         ssat_handler handler)
{
    const own_allocations own;
    call made;
    made.function = "ssat_reg_mod_cmd";
    made.handle = module;
    made.name = command;
    made.flags = flags;
    made.text = help;
    made.callback = recording::address(handler);
    return recording::record(made);
}

int32_t ssat_vprint(const char *format, va_list args)
{
    const own_allocations own;
    if (const int32_t result = recording::take_result("ssat_vprint"))
        return result;
    const std::string text = recording::formatted(format, args);
    recording::the().printed += text;
    return static_cast<int32_t>(text.size());
}

// ---- congestion control

int32_t libcgstctrl_gen_init(qz_mom_handle *handle, uint32_t db, const char *module, libcgstctrl_state *state)
{
    const own_allocations own;
    call made;
    made.function = "libcgstctrl_gen_init";
    made.handle = handle;
    made.db = db;
    made.name = module;
    made.args = const_cast<char *>(module);
    made.extra = state;
    return recording::record(made);
}

int32_t libcgstctrl_gen_topic_reg(qz_mom_handle *handle, uint32_t db, const char *module,
                                  const libcgstctrl_topic *topic, uint32_t flags)
{
    const own_allocations own;
    call made;
    made.function = "libcgstctrl_gen_topic_reg";
    made.handle = handle;
    made.db = db;
    made.name = module;
    made.args = const_cast<char *>(module);
    made.extra = const_cast<libcgstctrl_topic *>(topic);
    made.record = topic->descriptor->name;
    made.fields.assign(topic->params, topic->params + 4);
    made.flags = flags;
    return recording::record(made);
}

}  // extern "C"

// ---- port table: look-ups in recording::ports()

namespace
{

// 0 and the row that matches, or ENOENT and null. What the test chose comes with the row all the same: whoever asked is
// not to use what a failed look-up left behind.
struct found_port {
    int32_t result;
    const libddm_port *row;
};

template <typename Matches>
found_port find_port(const char *function, Matches matches)
{
    const own_allocations own;
    call made;
    made.function = function;
    const int32_t result = recording::record(made);
    for (const auto &port : recording::the().ports)
        if (matches(port))
            return {result, &port};
    return {result != 0 ? result : LIBDDM_ENOENT, nullptr};
}

template <typename Value>
int32_t give(const found_port &found, Value libddm_port::*member, Value *out)
{
    if (found.row != nullptr)
        *out = found.row->*member;
    return found.result;
}

}  // namespace

extern "C" {

int32_t libddm_get_phyid_by_ifx(uint32_t ifx, uint32_t *phyid)
{
    const auto port = find_port(__func__, [=](const libddm_port &p) { return p.ifx == ifx; });
    return give(port, &libddm_port::gphyid, phyid);
}

int32_t libddm_get_ifx_by_phyid(uint32_t phyid, uint32_t *ifx)
{
    const auto matches = [=](const libddm_port &p) { return p.gphyid == phyid || p.lphyid == phyid; };
    return give(find_port(__func__, matches), &libddm_port::ifx, ifx);
}

int32_t libddm_get_lphyid_by_gphyid(uint32_t gphyid, uint32_t *lphyid)
{
    const auto port = find_port(__func__, [=](const libddm_port &p) { return p.gphyid == gphyid; });
    return give(port, &libddm_port::lphyid, lphyid);
}

int32_t libddm_get_gphyid_by_lphyid(uint32_t lphyid, uint32_t *gphyid)
{
    const auto port = find_port(__func__, [=](const libddm_port &p) { return p.lphyid == lphyid; });
    return give(port, &libddm_port::gphyid, gphyid);
}

int32_t libddm_get_unit_port_by_lphyid(uint32_t lphyid, int32_t *unit, int32_t *port)
{
    const auto found = find_port(__func__, [=](const libddm_port &p) { return p.lphyid == lphyid; });
    give(found, &libddm_port::unit, unit);
    return give(found, &libddm_port::port, port);
}

int32_t libddm_get_lphyid_by_unit_port(int32_t unit, int32_t port, uint32_t *lphyid)
{
    const auto found = find_port(__func__, [=](const libddm_port &p) { return p.unit == unit && p.port == port; });
    return give(found, &libddm_port::lphyid, lphyid);
}

}  // extern "C"
