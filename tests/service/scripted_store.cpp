// See scripted_store.hpp. Key texts here are "evlan:USER/32/KEYID", "eport:USER/32/KEYID", "rule:USER/VLAN/PRIORITY",
// "claim:USER/PORT" and "pvid:USER/PORT".
#include "scripted_store.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <tuple>
#include <utility>

#include "allocation_failure.hpp"

namespace scripted
{

namespace
{

qz_mom_handle the_handle{};

std::string prefix(table of) { return of == table::evlan ? "evlan:" : "eport:"; }

// A session of either table.
struct record {
    UBridge__EvlanAppIndex evlan_index = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    UBridge__EvlanSession evlan = U_BRIDGE__EVLAN_SESSION__INIT;
    UBridge__EportAppIndex eport_index = U_BRIDGE__EPORT_APP_INDEX__INIT;
    UBridge__EportSession eport = U_BRIDGE__EPORT_SESSION__INIT;
    std::string user;
    std::string key;
    table of;

    record(table its, const char *name, uint32_t keyid, uint32_t request_value = 0x20000000, uint32_t reply_value = 0)
        : user(name), key(prefix(its) + user + "/32/" + std::to_string(keyid)), of(its)
    {
        evlan_index.keyid = eport_index.keyid2 = static_cast<int32_t>(keyid);
        eport_index.keyid1 = 1;
        evlan.index = &evlan_index;
        eport.index = &eport_index;
        fill(&evlan, request_value, reply_value);
        fill(&eport, request_value, reply_value);
    }
    record(const record &) = delete;
    record &operator=(const record &) = delete;

    ProtobufCMessage *message() { return of == table::evlan ? &evlan.base : &eport.base; }

  private:
    template <typename session>
    void fill(session *made, uint32_t request_value, uint32_t reply_value)
    {
        made->index->t_user = user.data();
        made->index->type = 32;
        made->request_value = static_cast<int32_t>(request_value);
        made->request = 1;
        made->reply = reply_value != 0;
        made->reply_value = static_cast<int32_t>(reply_value);
    }
};

// A match rule.
struct rule_message {
    UBridge__EmatchIndex index = U_BRIDGE__EMATCH_INDEX__INIT;
    UBridge__EmatchEntry entry = U_BRIDGE__EMATCH_ENTRY__INIT;
    std::string user;
    std::string mac_bytes, v6_bytes;
    std::string key;
    PLibpub__Mac mac = P_LIBPUB__MAC__INIT;
    PLibpub__Ip ip = P_LIBPUB__IP__INIT;
    PLibpub__Ipv6 v6 = P_LIBPUB__IPV6__INIT;

    explicit rule_message(const rule &of)
        : user(of.user),
          mac_bytes(of.mac),
          v6_bytes(of.v6),
          key("rule:" + user + '/' + std::to_string(of.vlan) + '/' + std::to_string(of.priority))
    {
        index.t_user = user.data();
        index.match_type = U_BRIDGE__MATCH_TYPE__OVID;
        index.evlan1 = of.vlan;
        index.match_priority = of.priority;
        if (!mac_bytes.empty()) {
            mac.data = binary(mac_bytes);
            index.mac = &mac;
        }
        if (!v6_bytes.empty()) {
            v6.data = binary(v6_bytes);
            ip.ip_case = P_LIBPUB__IP__IP_V6;
            ip.v6 = &v6;
            index.ip = &ip;
        }
        entry.index = &index;
        entry.result = static_cast<UBridge__MatchResult>(of.result);
    }
    static ProtobufCBinaryData binary(std::string &bytes)
    {
        return {bytes.size(), static_cast<uint8_t *>(static_cast<void *>(bytes.data()))};
    }
    rule_message(const rule_message &) = delete;
    rule_message &operator=(const rule_message &) = delete;
};

// A record of a port, of either kind.
template <typename Record>
struct port_message {
    UBridge__PortIndex index = U_BRIDGE__PORT_INDEX__INIT;
    Record record;
    std::string user;
    std::string key;

    port_message(const char *kind, const Record &init, const std::string &of, int32_t port)
        : record(init), user(of), key(kind + user + '/' + std::to_string(port))
    {
        index.t_user = user.data();
        index.port = port;
        record.index = &index;
    }
    port_message(const port_message &) = delete;
    port_message &operator=(const port_message &) = delete;
};

struct claim_message : port_message<UBridge__PortVid> {
    explicit claim_message(const claim &of) : port_message("claim:", U_BRIDGE__PORT_VID__INIT, of.user, of.port)
    {
        record.pvid = of.pvid;
    }
};

struct entry_message : port_message<UBridge__PvidTable> {
    explicit entry_message(const pvid_entry &of) : port_message("pvid:", U_BRIDGE__PVID_TABLE__INIT, of.user, of.port)
    {
        record.old_pvid = of.old_pvid;
        record.new_pvid = of.new_pvid;
    }
};

ProtobufCMessage *copy(const ProtobufCMessage &message)
{
    uint8_t packed[256];
    const size_t size = protobuf_c_message_pack(&message, packed);
    return protobuf_c_message_unpack(message.descriptor, nullptr, size, packed);
}

table table_of(const ProtobufCMessageDescriptor &type)
{
    if (&type == &u_bridge__ematch_entry__descriptor)
        return table::rules;
    if (&type == &u_bridge__port_vid__descriptor)
        return table::claims;
    if (&type == &u_bridge__pvid_table__descriptor)
        return table::pvids;
    const bool eport =
        &type == &u_bridge__eport_session__descriptor || &type == &u_bridge__eport_session_range__descriptor;
    return eport ? table::eport : table::evlan;
}

void tell(const listener &to, const qz_mom_notification &msg)
{
    for (uint64_t nth = the_store().lacks_memory ? 1 : 0;; ++nth) {
        fail_allocations_from(nth);
        try {
            to.cb(&the_handle, &msg, to.args);
            return fail_allocations_from(0);
        } catch (const std::bad_alloc &) {
            fail_allocations_from(0);
        }
    }
}

// A posted call that lacks memory has itself called later: that is now.
void run(qz_thread_call_func func, void *arg)
{
    store &here = the_store();
    for (uint64_t nth = here.lacks_memory ? 1 : 0;; ++nth) {
        const uint64_t failed = failed_allocations();
        fail_allocations_from(nth);
        func(arg);
        fail_allocations_from(0);
        if (failed_allocations() == failed)
            return;
        const auto [again, number] = here.timers.back();
        here.timers.pop_back();
        again(number);
        std::tie(func, arg) = here.posted.back();
        here.posted.pop_back();
    }
}

// A timer that lacks memory is set again.
void fire(qz_thread_call_func func, void *arg)
{
    store &here = the_store();
    for (uint64_t nth = here.lacks_memory ? 1 : 0;; ++nth) {
        const uint64_t failed = failed_allocations();
        fail_allocations_from(nth);
        func(arg);
        fail_allocations_from(0);
        if (failed_allocations() == failed)
            return;
        std::tie(func, arg) = here.timers.back();
        here.timers.pop_back();
    }
}

// A record that was written or removed.
void tell_change(const listener &to, uint32_t db, const std::string &key, ProtobufCMessage *record, int32_t cmd)
{
    const bool in_fields = cmd == QZ_MOM_CMD_HSET || cmd == QZ_MOM_CMD_HMSET;
    qz_mom_hash_value hash{0, record};
    void *const value = in_fields ? static_cast<void *>(&hash) : record;
    tell(to, {.db = db, .key = key.c_str(), .field = "", .cmd = cmd, .value = value, .end = 0, .error = 0});
}

void tell_outcome(const store_write &which, uint32_t db, const std::string &key, int32_t error)
{
    tell(which.done, {.db = db,
                      .key = key.c_str(),
                      .field = "",
                      .cmd = QZ_MOM_CMD_NONE,
                      .value = nullptr,
                      .end = 0,
                      .error = error});
}

int32_t code_of(const std::string &call)
{
    const auto found = the_store().codes.find(call);
    return found == the_store().codes.end() ? 0 : found->second;
}

int32_t code_of(const char *call, uint32_t db)
{
    const int32_t of_all = code_of(call);
    return of_all != 0 ? of_all : code_of(call + (' ' + std::to_string(db)));
}

int32_t note_follow(const char *call, uint32_t db, const ProtobufCMessage *pattern, const listener &given)
{
    const memory_for_the_test mine;
    const int32_t code = code_of(call, db);
    if (code != 0)
        return code;
    const std::string name = std::strchr(pattern->descriptor->name, '.') + 1;
    listener &to = the_store().follows[call + (' ' + std::to_string(db)) + ' ' + name];
    to = given;
    to.of = table_of(*pattern->descriptor);
    return 0;
}

std::string text_of(const UBridge__EvlanAppIndex &index) { return std::to_string(index.keyid); }

std::string text_of(const UBridge__EportAppIndex &index)
{
    return (index.keyid1 == 1 ? "" : std::to_string(index.keyid1) + '+') + std::to_string(index.keyid2);
}

template <typename session>
std::string text_of(const char *call, uint32_t db, const session &written)
{
    std::string text = std::string(call) + ' ' + std::to_string(db) + ' ' + written.index->t_user + '/' +
                       std::to_string(written.index->type) + '/' + text_of(*written.index);
    char id[16] = "";
    if (std::strcmp(call, "del") != 0)
        std::snprintf(id, sizeof id, " 0x%x", static_cast<uint32_t>(written.reply_value));
    return text + id;
}

std::string text_of(const char *call, uint32_t db, const UBridge__EmatchEntry &written)
{
    return std::string(call) + ' ' + std::to_string(db) + ' ' + written.index->t_user + '/' +
           std::to_string(written.index->evlan1) + '/' + std::to_string(written.index->match_priority) + " = " +
           std::to_string(written.result);
}

std::string text_of(const char *call, uint32_t db, const UBridge__PvidTable &written)
{
    const std::string text = std::string(call) + ' ' + std::to_string(db) + ' ' + std::to_string(written.index->port);
    if (std::strcmp(call, "del") == 0)
        return text;
    return text + ": " + std::to_string(written.old_pvid) + " -> " + std::to_string(written.new_pvid);
}

std::string text_of(const char *call, uint32_t db, const ProtobufCMessage *message)
{
    switch (table_of(*message->descriptor)) {
        case table::evlan:
            return text_of(call, db, *reinterpret_cast<const UBridge__EvlanSession *>(message));
        case table::eport:
            return text_of(call, db, *reinterpret_cast<const UBridge__EportSession *>(message));
        case table::rules:
            return text_of(call, db, *reinterpret_cast<const UBridge__EmatchEntry *>(message));
        default:
            return text_of(call, db, *reinterpret_cast<const UBridge__PvidTable *>(message));
    }
}

int32_t note_write(const char *call, uint32_t db, const ProtobufCMessage *message, listener given)
{
    const memory_for_the_test mine;
    const int32_t code = code_of(call, db);
    if (code != 0)
        return code;
    if (the_store().writes.size() >= the_store().room)
        return QZ_MOM_EFULL;
    given.of = table_of(*message->descriptor);
    the_store().writes.push_back({text_of(call, db, message), given});
    return 0;
}

}  // namespace

store &the_store()
{
    static store one;
    return one;
}

qz_mom_handle *store::handle() { return &the_handle; }

std::vector<std::string> store::texts() const
{
    std::vector<std::string> all;
    for (const store_write &w : writes)
        all.push_back(w.text);
    return all;
}

void store::run_timers()
{
    for (const auto &[func, arg] : std::exchange(timers, {}))
        fire(func, arg);
}

void store::run_posted()
{
    while (!posted.empty()) {
        for (const auto &[func, arg] : std::exchange(posted, {}))
            run(func, arg);
    }
}

void store::confirm(const listener &to, uint32_t db) const
{
    tell(to, {.db = db, .key = "", .field = "", .cmd = QZ_MOM_CMD_SUBSCRIBED, .value = nullptr, .end = 0, .error = 0});
}

void store::end_scan(const listener &to, uint32_t db, int32_t error) const
{
    tell(to, {.db = db,
              .key = "",
              .field = "",
              .cmd = QZ_MOM_CMD_NONE,
              .value = nullptr,
              .end = QZ_MOM_END_SCAN,
              .error = error});
}

void store::written(const listener &to, uint32_t db, const char *user, uint32_t keyid, uint32_t reply_value,
                    uint32_t request_value) const
{
    record content(to.of, user, keyid, request_value, reply_value);
    qz_mom_hash_value hash{0, content.message()};
    tell(to, {.db = db,
              .key = content.key.c_str(),
              .field = "request",
              .cmd = QZ_MOM_CMD_HMSET,
              .value = &hash,
              .end = 0,
              .error = 0});
}

void store::removed(const listener &to, uint32_t db, const char *user, uint32_t keyid) const
{
    record content(to.of, user, keyid);
    tell(to, {.db = db,
              .key = content.key.c_str(),
              .field = "",
              .cmd = QZ_MOM_CMD_DEL,
              .value = content.message(),
              .end = 0,
              .error = 0});
}

void store::rule_written(const listener &to, uint32_t db, const rule &which, const char *fields) const
{
    rule_message content(which);
    qz_mom_hash_value hash{0, &content.entry.base};
    tell(to, {.db = db,
              .key = content.key.c_str(),
              .field = fields,
              .cmd = QZ_MOM_CMD_HMSET,
              .value = &hash,
              .end = 0,
              .error = 0});
}

void store::rule_removed(const listener &to, uint32_t db, const rule &which, int32_t cmd) const
{
    rule_message content(which);
    tell(to, {.db = db,
              .key = content.key.c_str(),
              .field = "",
              .cmd = cmd,
              .value = &content.entry.base,
              .end = 0,
              .error = 0});
}

void store::claim_told(const listener &to, uint32_t db, const claim &which, int32_t cmd) const
{
    claim_message content(which);
    tell_change(to, db, content.key, &content.record.base, cmd);
}

void store::entry_told(const listener &to, uint32_t db, const pvid_entry &which, int32_t cmd) const
{
    entry_message content(which);
    tell_change(to, db, content.key, &content.record.base, cmd);
}

void store::write_done(const store_write &which, uint32_t db, int32_t error) const
{
    tell_outcome(which, db, which.text, error);
}

void store::write_done(const store_write &which, uint32_t db, const char *user, uint32_t keyid, int32_t error) const
{
    tell_outcome(which, db, record(which.done.of, user, keyid).key, error);
}

void store::write_done(const store_write &which, uint32_t db, const rule &of, int32_t error) const
{
    tell_outcome(which, db, rule_message(of).key, error);
}

}  // namespace scripted

using namespace scripted;

extern "C" {

int32_t qz_mom_subscribe(qz_mom_handle *, uint32_t db, const ProtobufCMessage *pattern, uint32_t, qz_mom_msg_cb cb,
                         void *args)
{
    return note_follow("subscribe", db, pattern, {cb, args});
}

int32_t qz_mom_subscribe_field(qz_mom_handle *, uint32_t db, const ProtobufCMessage *pattern, uint32_t,
                               const uint32_t *, const qz_mom_msg_cb *cbs, void *const *args, uint32_t)
{
    return note_follow("subscribe_field", db, pattern, {cbs[0], args[0]});
}

int32_t qz_mom_unsubscribe(qz_mom_handle *, uint32_t, const ProtobufCMessage *, qz_mom_msg_cb, void *) { return 0; }

int32_t qz_mom_scan(qz_mom_handle *, uint32_t db, const ProtobufCMessage *pattern, uint32_t, qz_mom_msg_cb cb,
                    void *args)
{
    return note_follow("scan", db, pattern, {cb, args});
}

int32_t qz_mom_hmset(qz_mom_handle *, uint32_t db, const ProtobufCMessage *record, const uint32_t *, uint32_t,
                     qz_mom_msg_cb cb, void *args)
{
    return note_write("hmset", db, record, {cb, args});
}

int32_t qz_mom_set(qz_mom_handle *, uint32_t db, const ProtobufCMessage *record, qz_mom_msg_cb cb, void *args)
{
    return note_write("set", db, record, {cb, args});
}

int32_t qz_mom_hmupdate(qz_mom_handle *, uint32_t db, const ProtobufCMessage *record, const uint32_t *, uint32_t,
                        qz_mom_msg_cb cb, void *args)
{
    return note_write("hmupdate", db, record, {cb, args});
}

int32_t qz_mom_del(qz_mom_handle *, uint32_t db, const ProtobufCMessage *record, qz_mom_msg_cb cb, void *args)
{
    return note_write("del", db, record, {cb, args});
}

const char *qz_mom_strerror(int32_t) { return "code"; }

ProtobufCMessage *qz_mom_key_parse(const ProtobufCMessageDescriptor *type, const char *text)
{
    const memory_for_the_test mine;
    char user[32];
    rule which;
    if (std::sscanf(text, "rule:%31[^/]/%d/%d", user, &which.vlan, &which.priority) == 3) {
        which.user = user;
        return copy(rule_message(which).entry.base);
    }
    const table of = table_of(*type);
    const std::string begin = prefix(of);
    uint32_t keyid;
    if (std::strncmp(text, begin.c_str(), begin.size()) != 0 ||
        std::sscanf(text + begin.size(), "%31[^/]/32/%u", user, &keyid) != 2)
        return nullptr;
    return copy(*record(of, user, keyid).message());
}

int64_t qz_thread_now(const qz_thread_master *) { return 0; }

int32_t qz_thread_call_after(qz_thread_master *, int64_t, qz_thread_call_func func, void *arg)
{
    const memory_for_the_test mine;
    const int32_t code = code_of("timer");
    if (code == 0)
        the_store().timers.emplace_back(func, arg);
    return code;
}

int32_t qz_thread_call(qz_thread_master *, qz_thread_call_func func, void *arg)
{
    const memory_for_the_test mine;
    const int32_t code = code_of("post");
    if (code == 0)
        the_store().posted.emplace_back(func, arg);
    return code;
}
}
