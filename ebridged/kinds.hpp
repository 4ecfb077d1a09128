// The kinds of ids that the service hands out, and all that it has to know of their records.
//
// Each kind has a table of sessions and one of ranges. What differs from kind to kind is in the traits structures below;
// the rest of the service sees names, keys and contents, and is the same for both. Fields of a session have the same
// numbers in both, and a request that is a number in one and a flag in the other counts when it is not 0.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <span>
#include <string>
#include <variant>

#include "allocator.hpp"
#include "qz_mom.h"
#include "u_bridge.pb-c.h"

namespace ebridged
{

enum class kind : uint8_t { evlan, eport };
inline constexpr std::array KINDS{kind::evlan, kind::eport};

inline uint32_t id_word(int32_t value) { return static_cast<uint32_t>(value); }

// ---- what differs ---------------------------------------------------------------------------------------------------

struct evlan_traits {
    static constexpr kind of = kind::evlan;
    static constexpr const char *name = "evlan";
    struct records {
        UBridge__EvlanAppIndex index = U_BRIDGE__EVLAN_APP_INDEX__INIT;
        UBridge__EvlanSession session = U_BRIDGE__EVLAN_SESSION__INIT;
        UBridge__EvlanSessionRange range = U_BRIDGE__EVLAN_SESSION_RANGE__INIT;
    };
    static std::span<const id_type> types() { return evlan_types(); }
    // One number names the key.
    static id_key read_key(const UBridge__EvlanAppIndex &index)
    {
        return {id_word(index.type), id_word(index.keyid), 0};
    }
    static void write_key(const id_key &key, UBridge__EvlanAppIndex *index)
    {
        index->type = static_cast<int32_t>(key.type);
        index->keyid = static_cast<int32_t>(key.key1);
    }
    static int print_key(const id_key &key, char *text, size_t size)
    {
        return std::snprintf(text, size, "evlan type %u, key %u", key.type, key.key1);
    }
    static int32_t range_min(const UBridge__EvlanSessionRange &range) { return range.evlan_id_min; }
    static int32_t range_max(const UBridge__EvlanSessionRange &range) { return range.evlan_id_max; }
};

struct eport_traits {
    static constexpr kind of = kind::eport;
    static constexpr const char *name = "eport";
    struct records {
        UBridge__EportAppIndex index = U_BRIDGE__EPORT_APP_INDEX__INIT;
        UBridge__EportSession session = U_BRIDGE__EPORT_SESSION__INIT;
        UBridge__EportSessionRange range = U_BRIDGE__EPORT_SESSION_RANGE__INIT;
    };
    static std::span<const id_type> types() { return eport_types(); }
    // Two numbers, of which a port uses the second one alone: an attachment circuit has a port and a VLAN, say.
    static id_key read_key(const UBridge__EportAppIndex &index)
    {
        return {id_word(index.type), id_word(index.keyid1), id_word(index.keyid2)};
    }
    static void write_key(const id_key &key, UBridge__EportAppIndex *index)
    {
        index->type = static_cast<int32_t>(key.type);
        index->keyid1 = static_cast<int32_t>(key.key1);
        index->keyid2 = static_cast<int32_t>(key.key2);
    }
    static int print_key(const id_key &key, char *text, size_t size)
    {
        return std::snprintf(text, size, "eport type %u, key %u+%u", key.type, key.key1, key.key2);
    }
    static int32_t range_min(const UBridge__EportSessionRange &range) { return range.eport_id_min; }
    static int32_t range_max(const UBridge__EportSessionRange &range) { return range.eport_id_max; }
};

// ---- what is the same -----------------------------------------------------------------------------------------------

// "evlan", "eport"
const char *kind_name(kind of);
std::span<const id_type> types_of(kind of);

// What a session is known by, apart from its database.
struct session_name {
    kind of = kind::evlan;
    id_key key;
    std::string user;
    bool operator==(const session_name &) const = default;
};

// "evlan type 32, key 7", for a log line.
struct key_words {
    explicit key_words(const session_name &name);
    char text[80];
};

// The parts of a session record that the service carries.
struct session {
    int32_t request_value = 0;
    int32_t priority = 0;
    int32_t request = 0;
    int32_t reply_value = 0;
    int32_t reply = 0;
    uint64_t answer = 0;  // number of the write that carries the answer; 0: none yet
};

// Fields of a session record.
inline constexpr uint32_t REQUEST_FIELD = 8;
inline constexpr uint32_t ANSWER_FIELDS[] = {10, 11};               // reply_value, reply
inline constexpr uint32_t MIRROR_FIELDS[] = {6, 7, 8, 10, 11, 12};  // the request, the answer, mom_db

// Patterns that match every record of a kind's tables. They live as long as the process.
const ProtobufCMessage *all_sessions(kind of);
const ProtobufCMessage *all_ranges(kind of);

struct session_reading {
    session_name name;
    session content;
    uint32_t mom_db = 0;
};
// False: what the notification carries is no session of this kind, or one without a key.
bool read_session(kind of, const qz_mom_notification &msg, session_reading *out);
// The same from a key text.
bool read_session_name(kind of, const char *key_text, session_name *out);

struct range_reading {
    uint32_t type = 0;
    number_range numbers;
};
// False: what the notification carries is no range of this kind.
bool read_range(kind of, const qz_mom_notification &msg, range_reading *out);

// A session record on the stack, to be written. It points into the name that it is made from.
class session_record
{
  public:
    explicit session_record(const session_name &name, const session &content = {}, uint32_t mom_db = 0);
    session_record(const session_record &) = delete;
    session_record &operator=(const session_record &) = delete;

    const ProtobufCMessage *message() const { return message_; }

  private:
    std::variant<evlan_traits::records, eport_traits::records> records_;
    const ProtobufCMessage *message_ = nullptr;
};

}  // namespace ebridged
