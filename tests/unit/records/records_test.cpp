// The record packages as generated: every message, field and enum value of the shared packages equals the tables
// schema_fields.inc and schema_values.inc, in both directions, because numbers and names are on the wire, in the store
// and in other people's programs. The packages that the library only carries are counted.
#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "p_dev.pb-c.h"
#include "p_libpub.pb-c.h"
#include "s_bridge.pb-c.h"
#include "s_frame.pb-c.h"
#include "u_bridge.pb-c.h"
#include "u_intf.pb-c.h"

namespace
{

const ProtobufCMessageDescriptor *const all_messages[] = {
#define MESSAGE_DESCRIPTOR(symbol) &symbol,
#define ENUM_DESCRIPTOR(symbol)
#include "all_descriptors.inc"
#undef MESSAGE_DESCRIPTOR
#undef ENUM_DESCRIPTOR
};

const ProtobufCEnumDescriptor *const all_enums[] = {
#define MESSAGE_DESCRIPTOR(symbol)
#define ENUM_DESCRIPTOR(symbol) &symbol,
#include "all_descriptors.inc"
#undef MESSAGE_DESCRIPTOR
#undef ENUM_DESCRIPTOR
};

// What a table row says of a field besides its place.
struct field_shape {
    std::string name;
    ProtobufCType type;
    std::string referenced;  // full name of the message or enum; "" for scalars
    ProtobufCLabel label;
    bool in_oneof;
    bool packed;

    bool operator==(const field_shape &) const = default;
};

std::ostream &operator<<(std::ostream &out, const field_shape &shape)
{
    return out << shape.name << ": type " << shape.type << " " << shape.referenced << ", label " << shape.label
               << (shape.in_oneof ? ", in a oneof" : "") << (shape.packed ? ", packed" : "");
}

using field_place = std::pair<std::string, uint32_t>;  // full message name, field number
using field_table = std::map<field_place, field_shape>;
using value_table = std::map<std::pair<std::string, std::string>, int>;  // (full enum name, value name) -> number

const std::set<std::string> shared_packages = {"u_bridge", "s_bridge", "p_libpub"};

field_table expected_fields()
{
    struct row {
        const char *message;
        uint32_t number;
        field_shape shape;
    };
    const row rows[] = {
#define FIELD(message, number, name, type, referenced, label, in_oneof, packed) \
    {message, number, {name, PROTOBUF_C_TYPE_##type, referenced, PROTOBUF_C_LABEL_##label, in_oneof, packed}},
#include "schema_fields.inc"
#undef FIELD
    };
    field_table table;
    for (const row &r : rows)
        EXPECT_TRUE(table.emplace(field_place(r.message, r.number), r.shape).second)
            << "two rows for " << r.message << " field " << r.number;
    return table;
}

value_table expected_values()
{
    struct row {
        const char *enumeration;
        const char *name;
        int number;
    };
    const row rows[] = {
#define VALUE(enumeration, name, number) {enumeration, name, number},
#include "schema_values.inc"
#undef VALUE
    };
    value_table table;
    for (const row &r : rows)
        EXPECT_TRUE(table.emplace(std::pair(r.enumeration, r.name), r.number).second)
            << "two rows for " << r.enumeration << " " << r.name;
    return table;
}

std::string referenced_name(const ProtobufCFieldDescriptor &field)
{
    if (field.type == PROTOBUF_C_TYPE_MESSAGE)
        return static_cast<const ProtobufCMessageDescriptor *>(field.descriptor)->name;
    if (field.type == PROTOBUF_C_TYPE_ENUM)
        return static_cast<const ProtobufCEnumDescriptor *>(field.descriptor)->name;
    return "";
}

field_table generated_fields()
{
    field_table table;
    for (const auto *message : all_messages) {
        if (!shared_packages.contains(message->package_name))
            continue;
        for (unsigned i = 0; i < message->n_fields; ++i) {
            const ProtobufCFieldDescriptor &field = message->fields[i];
            table[{message->name, field.id}] = {field.name,
                                                field.type,
                                                referenced_name(field),
                                                field.label,
                                                (field.flags & PROTOBUF_C_FIELD_FLAG_ONEOF) != 0,
                                                (field.flags & PROTOBUF_C_FIELD_FLAG_PACKED) != 0};
        }
    }
    return table;
}

value_table generated_values()
{
    value_table table;
    for (const auto *enumeration : all_enums) {
        if (!shared_packages.contains(enumeration->package_name))
            continue;
        for (unsigned i = 0; i < enumeration->n_values; ++i)
            table[{enumeration->name, enumeration->values[i].name}] = enumeration->values[i].value;
    }
    return table;
}

// Full names of the messages that a table has fields of, without fields that only their message tells apart.
std::set<std::string> messages_of(const field_table &table)
{
    std::set<std::string> names;
    for (const auto &[place, shape] : table)
        names.insert(place.first);
    return names;
}

struct package_size {
    size_t messages;
    size_t enums;
};

package_size size_of_package(const std::string &package)
{
    package_size size{0, 0};
    for (const auto *message : all_messages)
        size.messages += message->package_name == package;
    for (const auto *enumeration : all_enums)
        size.enums += enumeration->package_name == package;
    return size;
}

}  // namespace

TEST(RecordSchema, EveryFieldOfTheTableIsGeneratedAsItSays)
{
    const field_table generated = generated_fields();
    for (const auto &[place, shape] : expected_fields()) {
        const auto found = generated.find(place);
        if (found == generated.end())
            ADD_FAILURE() << "missing: " << place.first << " field " << place.second << " " << shape;
        else
            EXPECT_EQ(found->second, shape) << place.first << " field " << place.second;
    }
}

TEST(RecordSchema, NothingIsGeneratedThatTheTableDoesNotName)
{
    const field_table expected = expected_fields();
    for (const auto &[place, shape] : generated_fields())
        EXPECT_TRUE(expected.contains(place)) << "extra: " << place.first << " field " << place.second << " " << shape;

    // A message without fields has no row to be missed by.
    const std::set<std::string> named = messages_of(expected);
    for (const auto *message : all_messages) {
        if (shared_packages.contains(message->package_name)) {
            EXPECT_TRUE(named.contains(message->name)) << "extra message " << message->name;
        }
    }
}

TEST(RecordSchema, EnumValuesEqualTheTableInBothDirections) { EXPECT_EQ(generated_values(), expected_values()); }

TEST(RecordSchema, MembersOfAOneofShareOneCase)
{
    for (const auto *message : all_messages) {
        if (!shared_packages.contains(message->package_name))
            continue;
        std::set<unsigned> cases;
        for (unsigned i = 0; i < message->n_fields; ++i) {
            if (message->fields[i].flags & PROTOBUF_C_FIELD_FLAG_ONEOF)
                cases.insert(message->fields[i].quantifier_offset);
        }
        EXPECT_LE(cases.size(), 1U) << message->name;
    }
}

TEST(RecordSchema, PackagesHaveAsManyMessagesAndEnumsAsTheirReadersExpect)
{
    const struct {
        const char *package;
        size_t messages;
        size_t enums;
    } rows[] = {
        {"p_libpub", 11, 0}, {"u_bridge", 30, 14}, {"s_bridge", 16, 6},
        {"u_intf", 19, 3},   {"p_dev", 80, 22},    {"s_frame", 28, 0},
    };
    size_t messages = 0;
    for (const auto &row : rows) {
        const package_size size = size_of_package(row.package);
        EXPECT_EQ(size.messages, row.messages) << row.package;
        EXPECT_EQ(size.enums, row.enums) << row.package;
        messages += size.messages;
    }
    EXPECT_EQ(messages, std::size(all_messages)) << "a message of another package";
}

TEST(RecordSchema, DeviceDataPackageHasTheNamedRecords)
{
    const std::set<std::string> expected = {
        "u_intf.ddm_port_bitmap",     "u_intf.ddm_port_bitmap_index",
        "u_intf.ddm_card_address_id", "u_intf.card_address_id_index",
        "u_intf.ddm_mod_cid",         "u_intf.modid_index",
        "u_intf.ddm_card_id",         "u_intf.card_id_index",
        "u_intf.evt_mod_alloc",       "u_intf.mod_alloc_index",
        "u_intf.ddm_mod_tbl",         "u_intf.mod_index",
        "u_intf.ddm_phy_tbl",         "u_intf.phy_index",
        "u_intf.ddm_sub_route_intf",  "u_intf.ddm_sub_ap_intf",
        "u_intf.ddm_ifx_tbl",         "u_intf.ifx_index",
        "u_intf.ddm_fuid_info",       "u_intf.ddm_fuid_type_e",
        "u_intf.slot_modid_st_e",     "u_intf.ddm_port_owner_e",
    };
    std::set<std::string> generated;
    for (const auto *message : all_messages) {
        if (message->package_name == std::string("u_intf"))
            generated.insert(message->name);
    }
    for (const auto *enumeration : all_enums) {
        if (enumeration->package_name == std::string("u_intf"))
            generated.insert(enumeration->name);
    }
    EXPECT_EQ(generated, expected);
}

TEST(RecordSchema, ARecordOfAnyPackageKeepsItsKeyInFieldFive)
{
    for (const auto *message : all_messages) {
        const ProtobufCFieldDescriptor *index = protobuf_c_message_descriptor_get_field_by_name(message, "index");
        if (!index)
            continue;
        EXPECT_EQ(index->id, 5U) << message->name;
        EXPECT_EQ(&message->fields[0], index) << message->name << " has a field before its key";
        if (index->type != PROTOBUF_C_TYPE_MESSAGE)
            continue;
        const auto *key = static_cast<const ProtobufCMessageDescriptor *>(index->descriptor);
        ASSERT_GT(key->n_fields, 0U) << key->name;
        EXPECT_EQ(key->fields[0].id, 1U) << key->name;
    }
}

// Every field of a fresh record holds its default: code that reads a record relies on it instead of on presence.
TEST(RecordDefaults, StringsAreTheSharedEmptyString)
{
    unsigned strings = 0;
    for (const auto *message : all_messages) {
        const auto memory = std::make_unique<std::byte[]>(message->sizeof_message);
        auto *record = static_cast<ProtobufCMessage *>(static_cast<void *>(memory.get()));
        protobuf_c_message_init(message, record);
        for (unsigned i = 0; i < message->n_fields; ++i) {
            const ProtobufCFieldDescriptor &field = message->fields[i];
            if (field.type != PROTOBUF_C_TYPE_STRING || field.label != PROTOBUF_C_LABEL_NONE)
                continue;
            const void *member = memory.get() + field.offset;
            EXPECT_EQ(*static_cast<const char *const *>(member), protobuf_c_empty_string)
                << message->name << "." << field.name;
            ++strings;
        }
    }
    EXPECT_GT(strings, 18U);
}

TEST(RecordDefaults, AnEmptyEncodingGivesARecordThatCanBeFreed)
{
    for (const auto *message : all_messages) {
        ProtobufCMessage *record = protobuf_c_message_unpack(message, nullptr, 0, nullptr);
        ASSERT_NE(record, nullptr) << message->name;
        EXPECT_EQ(protobuf_c_message_get_packed_size(record), 0U) << message->name;
        protobuf_c_message_free_unpacked(record, nullptr);
    }
}

TEST(RecordEncoding, RepeatedWordsArePacked)
{
    uint32_t words[] = {1, 2, 300};
    UBridge__VlanPreRequest request = U_BRIDGE__VLAN_PRE_REQUEST__INIT;
    request.n_vbmp = std::size(words);
    request.vbmp = words;
    std::vector<uint8_t> bytes(u_bridge__vlan_pre_request__get_packed_size(&request));
    u_bridge__vlan_pre_request__pack(&request, bytes.data());
    EXPECT_EQ(bytes, (std::vector<uint8_t>{0x32, 4, 1, 2, 0xac, 2}));
}

TEST(RecordEncoding, FieldsOfANewerWriterAreKept)
{
    const std::vector<uint8_t> bytes = {0x10, 16, 0xf8, 0x01, 7};  // type 16, then field 31, which nobody here knows
    UBridge__EvlanAppIndex *index = u_bridge__evlan_app_index__unpack(nullptr, bytes.size(), bytes.data());
    ASSERT_NE(index, nullptr);
    EXPECT_EQ(index->type, U_BRIDGE__EVLAN_TYPE__VLAN);
    EXPECT_EQ(index->base.n_unknown_fields, 1U);
    std::vector<uint8_t> again(u_bridge__evlan_app_index__get_packed_size(index));
    u_bridge__evlan_app_index__pack(index, again.data());
    EXPECT_EQ(again, bytes);
    u_bridge__evlan_app_index__free_unpacked(index, nullptr);
}

// The library copies these keys as whole structures and cuts cache keys out of them by member, so their layout is
// pinned: the header of every message is three words, a string one word, then the numbers.
TEST(RecordLayout, KeyStructuresHaveTheirPinnedSizes)
{
    constexpr bool wide = sizeof(void *) == 8;
    const struct {
        const char *name;
        size_t size;
        size_t on_64_bit;
        size_t on_32_bit;
    } rows[] = {
        {"UBridge__EvlanAppIndex", sizeof(UBridge__EvlanAppIndex), 40, 24},
        {"UBridge__EvlanIndex", sizeof(UBridge__EvlanIndex), 40, 20},
        {"UBridge__VlanAppIndex", sizeof(UBridge__VlanAppIndex), 40, 24},
        {"UBridge__EportAppIndex", sizeof(UBridge__EportAppIndex), 48, 28},
        {"UBridge__EportIndex", sizeof(UBridge__EportIndex), 40, 20},
        {"UBridge__PortIndex", sizeof(UBridge__PortIndex), 40, 20},
        {"UBridge__EportSdkIndex", sizeof(UBridge__EportSdkIndex), 56, 36},
        {"SBridge__EvlanSdkIndex", sizeof(SBridge__EvlanSdkIndex), 48, 28},
        {"UBridge__EmatchIndex", sizeof(UBridge__EmatchIndex), 112, 80},
    };
    EXPECT_EQ(sizeof(ProtobufCMessage), 3 * sizeof(void *));
    for (const auto &row : rows)
        EXPECT_EQ(row.size, wide ? row.on_64_bit : row.on_32_bit) << row.name;
}

TEST(RecordLayout, AnEvlanKeyIsAHeaderAStringAndTwoNumbersWithoutGaps)
{
    EXPECT_EQ(offsetof(UBridge__EvlanAppIndex, t_user), sizeof(ProtobufCMessage));
    EXPECT_EQ(offsetof(UBridge__EvlanAppIndex, type), sizeof(ProtobufCMessage) + sizeof(char *));
    EXPECT_EQ(offsetof(UBridge__EvlanAppIndex, keyid), offsetof(UBridge__EvlanAppIndex, type) + sizeof(int32_t));
    EXPECT_EQ(sizeof(UBridge__EvlanAppIndex), offsetof(UBridge__EvlanAppIndex, keyid) + sizeof(int32_t));
}
