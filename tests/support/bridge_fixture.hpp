// What the tests of evlans and eports share: users with callbacks that write down what they hear, sessions and
// notifications, and the trace: everything that the library did, in order, as one list of texts.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "recording_platform.hpp"
#include "sw_ebridge.h"

namespace bridge_test
{

using strings = std::vector<std::string>;

// Attribute databases of evlans and eports: two, so that a mistaken one shows.
inline constexpr uint32_t evlan_attr_db = 12, eport_attr_db = 13;

inline constexpr char name_of_40[] = "a-name-of-forty-characters-goes-on-and-on";
inline constexpr char name_of_31[] = "a-name-of-forty-characters-goes";
static_assert(sizeof name_of_31 == SW_EBRIDGE_NAME_SIZE);

// protobuf-c records hold plain char pointers; nothing here writes through them.
inline char *text(const char *name) { return const_cast<char *>(name); }

__attribute__((format(printf, 1, 2))) inline std::string format(const char *pattern, ...)
{
    char out[1024];
    va_list args;
    va_start(args, pattern);
    vsnprintf(out, sizeof out, pattern, args);
    va_end(args);
    return out;
}

template <typename Function>
void *address(Function *function)
{
    return reinterpret_cast<void *>(function);
}

// ---- users and what they hear

template <uint32_t Scope>
struct user_with {
    const char *name = "app";
    uint32_t scope = Scope;    // evlan_data_type or eport_data_type
    unsigned callbacks = ~0u;  // which of them the user has, all if nothing is said
    uint32_t db = SW_EBRIDGE_APP_DB;
    qz_mom_handle *handle = recording::handle();
};

// Callbacks carry no argument of their own, so each user gets functions of its own: the nth those of Ears<n>.
inline constexpr size_t ear_count = 6;
inline std::string ear_names[ear_count];
inline size_t ears_given = 0;
inline std::function<void()> inside_callback;  // runs within each callback, after it was written down

// The result would end a walk over the users if anyone looked at it.
inline int32_t hear(const std::string &what)
{
    recording::sequence().push_back(what);
    if (inside_callback)
        inside_callback();
    return SW_EBRIDGE_WALK_STOP;
}

// What a callback is handed can be encoded: it is a message of its type.
template <typename Message>
void expect_message(const Message *message, const ProtobufCMessageDescriptor &type)
{
    EXPECT_EQ(message->base.descriptor, &type);
}

template <template <size_t> class Ears, size_t... N>
void give_ears(ebridge_args &args, unsigned which, std::index_sequence<N...>)
{
    static constexpr std::array<void (*)(ebridge_args &, unsigned), ear_count> fill = {Ears<N>::fill...};
    fill.at(ears_given)(args, which);
    ear_names[ears_given++] = args.user_name;
}

// Registers a user and forgets what that took. The session database is set afterwards, so that no connection of the
// user's own stands between the test and what it is about.
template <template <size_t> class Ears, uint32_t Scope>
sw_ebridge_list_item *register_user(ebridge_args args, const user_with<Scope> &wanted)
{
    args.user_name = wanted.name;
    args.handle = wanted.handle;
    args.evlan_attr_mom_db = evlan_attr_db;
    args.eport_attr_mom_db = eport_attr_db;
    give_ears<Ears>(args, wanted.callbacks, std::make_index_sequence<ear_count>{});
    EXPECT_EQ(sw_ebridge_init(&args), 0);
    sw_ebridge_list_item *item = sw_ebridge_list_item_get(wanted.name);
    if (item != nullptr)
        item->mod_db = wanted.db;
    g_sw_vlan_file_zlog_level = 7;
    recording::reset();
    return item;
}

// Registers a bare user in a slot other than 0.
inline void add_user_in_slot(uint32_t slot, const char *name)
{
    sw_ebridge_list_item item{};
    snprintf(item.user_name, sizeof item.user_name, "%s", name);
    EXPECT_EQ(sw_ebridge_list_add_inst(slot, &item), 0);
    recording::reset();
}

// Registers a user, callbacks and all, in each slot but 0 too.
inline void add_to_other_slots(const sw_ebridge_list_item *user)
{
    for (uint32_t slot = 1; slot < SW_EBRIDGE_SLOTS; ++slot)
        EXPECT_EQ(sw_ebridge_list_add_inst(slot, user), 0);
    recording::reset();
}

// The users of slot 0 in the order in which walks meet them.
inline strings registry_order()
{
    strings names;
    const auto visit = [](sw_ebridge_list_item *item, void *arg, int32_t) -> int32_t {
        static_cast<strings *>(arg)->push_back(item->user_name);
        return 0;
    };
    sw_ebridge_list_for_each(0, visit, &names);
    return names;
}

inline size_t list_length(const sw_list_head &head)
{
    size_t length = 0;
    for (const sw_list_head *link = head.next; link != &head && length < 1000; link = link->next)
        ++length;
    return length;
}

inline bool linked_to_itself(const sw_list_head &link) { return link.next == &link && link.prev == &link; }

// ---- sessions and notifications

// A session and its key.
template <typename Message, typename Key>
struct session_with : Message {
    Key key;
    session_with(const Message &blank, const Key &of) : Message(blank), key(of) { this->index = &key; }
    session_with(const session_with &) = delete;
    session_with &operator=(const session_with &) = delete;
    session_with &answered(uint32_t value)
    {
        this->reply = 1;
        this->reply_value = static_cast<int32_t>(value);
        return *this;
    }
    session_with &refused() { return answered(0xffffffffu); }
};

struct notice : qz_mom_notification {
    qz_mom_hash_value hash{};
    explicit notice(int32_t command)
        : qz_mom_notification{SW_EBRIDGE_APP_DB, "the key", "the field", command, nullptr, 0, 0}
    {
    }
    notice(const notice &) = delete;
    notice &operator=(const notice &) = delete;
};

// The notification of a session that was written (commands 4 and 6) or is gone (3 and 27).
struct session_notice : notice {
    template <typename Session>
    session_notice(int32_t command, Session &of) : notice(command)
    {
        hash.record = &of.base;
        const bool written = command == QZ_MOM_CMD_HSET || command == QZ_MOM_CMD_HMSET;
        value = written ? static_cast<void *>(&hash) : static_cast<void *>(&of.base);
    }
};

// The function that a program gives with a scan or a subscription, and what it was called with. Its result would end a
// walk over the users, as that of hear() would.
struct func_call {
    qz_mom_handle *ctx;
    const qz_mom_notification *msg;
    void *arg;
};
inline std::vector<func_call> func_calls;

inline int32_t user_func(qz_mom_handle *ctx, const qz_mom_notification *msg, void *arg)
{
    func_calls.push_back({ctx, msg, arg});
    recording::sequence().push_back("user function");
    return SW_EBRIDGE_WALK_STOP;
}

inline int user_argument;
inline sw_ebridge_callback_args with_func{&user_argument, user_func};
inline sw_ebridge_callback_args without_func{&user_argument, nullptr};

// The side that a test is about.
struct side {
    const char *source = "";            // file of its lines, or what the names of its files begin with
    const char *session_function = "";  // callback of its session subscriptions, and that callback's name in the log
    qz_mom_msg_cb session_callback = nullptr;
    qz_mom_msg_cb release_callback = nullptr;
};
inline side own;

inline int32_t deliver(const qz_mom_notification &msg, sw_ebridge_callback_args *args)
{
    return own.session_callback(recording::other_handle(), &msg, args);
}

// A line of the session callback, as the trace shows it.
inline std::string callback_line(const char *level, const std::string &text)
{
    return std::string(level) + " " + own.session_function + ": " + text;
}

inline std::string refusal(const char *what) { return callback_line("error", what); }

inline std::string arrival(const qz_mom_notification &msg, const void *args)
{
    return callback_line("info",
                         format("db: 0x%x, key: the key, field: the field, cmd: %d, args: %p.", msg.db, msg.cmd, args));
}

// The line before the call of a program's function. Its argument is told, not the pair that was handed to the store.
inline std::string func_line(const char *what, sw_ebridge_mom_func func)
{
    return callback_line("info", format("%s callback, func is %p, args is %p.", what, reinterpret_cast<void *>(func),
                                        static_cast<void *>(&user_argument)));
}

// The program's function was called once, with what was delivered and its own argument.
inline void expect_handed_on(const qz_mom_notification &msg)
{
    ASSERT_EQ(func_calls.size(), 1u);
    EXPECT_EQ(func_calls[0].ctx, recording::other_handle());
    EXPECT_EQ(func_calls[0].msg, &msg);
    EXPECT_EQ(func_calls[0].arg, &user_argument);
}

// Ends the delay of each release that the store was asked for, so that their arguments are freed.
inline void end_delays()
{
    for (const auto &pending : recording::calls_of("qz_mom_pexpire")) {
        notice over(QZ_MOM_CMD_NONE);
        over.end = QZ_MOM_END_EXPIRY;
        EXPECT_EQ(own.release_callback(recording::handle(), &over, pending.args), 0);
    }
}

// ---- the trace

inline const char *level_name(int32_t level)
{
    switch (level) {
        case 20:
            return "debug";
        case 40:
            return "info";
        case 80:
            return "warning";
        case 100:
            return "error";
        default:
            return "unknown level";
    }
}

// "info sw_evlan_request: text". What a line should not have shows up too: another source file, no line number, a format
// other than "%s".
inline std::string line_text(const recording::log_line &line)
{
    std::string out = level_name(line.level);
    if (line.file.rfind(own.source, 0) != 0)
        out += " [" + line.file + "]";
    if (line.line <= 0)
        out += " <no line>";
    if (line.format != "%s")
        out += " {" + line.format + "}";
    return out + " " + line.function + ": " + line.text;
}

// "qz_mom_hmset 4 u_bridge.evlan_session{...}"
inline std::string call_text(const recording::call &made)
{
    return made.function + " " + std::to_string(made.db) + " " + made.record;
}

// All log lines of the file category, platform calls and callbacks, in the order in which they happened.
inline strings trace()
{
    strings out;
    size_t line = 0, call = 0;
    for (const std::string &step : recording::sequence()) {
        if (step.rfind("log ", 0) == 0) {
            while (recording::log()[line].category != "sw_vlan_file")
                ++line;
            out.push_back(line_text(recording::log()[line++]));
        } else if (step.rfind("call ", 0) == 0) {
            out.push_back(call_text(recording::calls()[call++]));
        } else {
            out.push_back(step);
        }
    }
    return out;
}

// What the users heard, in order.
inline strings heard()
{
    strings out;
    for (const std::string &step : recording::sequence())
        if (step.find(" hears ") != std::string::npos && step.rfind("log ", 0) != 0)
            out.push_back(step);
    return out;
}

inline bool traced(const std::string &wanted)
{
    for (const std::string &step : trace())
        if (step == wanted)
            return true;
    return false;
}

// ---- callbacks that read the counters: each counts once it has returned, a reply when all that it led to is done

using readings = std::vector<uint32_t>;

// What `read` gives within each callback that `work` leads to.
inline std::vector<readings> seen_within_callbacks(const std::function<readings()> &read,
                                                   const std::function<void()> &work)
{
    std::vector<readings> seen;
    inside_callback = [&] { seen.push_back(read()); };
    work();
    inside_callback = nullptr;
    return seen;
}

// Two users hear of `work`: what each of them reads of the counter of their callbacks and of that of the replies.
inline void expect_omitted_by_their_readers(uint32_t sw_diagnosis_stat::*callbacks,
                                            uint32_t sw_diagnosis_stat::*replies, const std::function<void()> &work)
{
    const auto read = [=] { return readings{g_diagnosis_stat.*callbacks, g_diagnosis_stat.*replies}; };
    EXPECT_THAT(seen_within_callbacks(read, work), testing::ElementsAre(readings{0, 0}, readings{1, 0}));
    EXPECT_EQ(read(), (readings{2, 1}));
}

// ---- dumps

inline std::string dashes(size_t count) { return std::string(count, '-') + "\n"; }

inline std::string take_printed()
{
    std::string out;
    out.swap(recording::printed());
    return out;
}

template <typename Dump>
std::string printed_by(Dump dump)
{
    take_printed();
    EXPECT_EQ(dump(), 0);
    return take_printed();
}

// ---- allocations

inline std::vector<void *> freed;

// Runs `work` and returns the blocks that it freed.
template <typename Work>
std::vector<void *> freed_by(Work work)
{
    freed.clear();
    recording::on_free([](void *block) { freed.push_back(block); });
    work();
    recording::on_free(nullptr);
    return freed;
}

// Runs `work`, and spoils this block when it is freed within, so that whoever reads it afterwards shows.
inline void *spoilt;
inline size_t spoilt_size;
template <typename Record, typename Work>
void spoiling(Record *record, Work work)
{
    spoilt = record;
    spoilt_size = sizeof *record;
    recording::on_free([](void *block) {
        if (block == spoilt)
            std::memset(block, 0x5a, spoilt_size);
    });
    work();
    recording::on_free(nullptr);
}

// The error lines that `work` logs when the nth allocation from now fails.
template <typename Work>
strings errors_when_allocation_fails(uint64_t nth, Work work)
{
    recording::reset();
    recording::fail_allocation(nth);
    work();
    recording::fail_allocation(0);
    return recording::logged(100);
}

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

class BridgeTest : public testing::Test
{
  protected:
    explicit BridgeTest(const side &of) { own = of; }
    explicit BridgeTest(const char *source) { own.source = source; }  // for those that deliver nothing
    void SetUp() override { recording::reset(); }
    void TearDown() override
    {
        recording::fail_allocation(0);
        recording::on_free(nullptr);
        inside_callback = nullptr;
    }
};

}  // namespace bridge_test
