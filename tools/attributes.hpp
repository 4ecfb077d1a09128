// The attributes of evlans and eports in one plain form, whatever they come from: the library's structures, or records
// of the store.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "sw_ebridge.h"

namespace ebridge_tool
{

enum class id_kind : uint32_t { evlan, eport };
inline constexpr size_t KINDS = 2;
// "evlan", "eport"
const char *kind_name(id_kind kind);

// What a record carries: its type, which of its views it has, and the fields of that view, in the order of a table. Plain
// values: processes hand them to each other as they are.
struct attributes {
    std::array<uint32_t, 26> words{};
    bool operator==(const attributes &) const = default;
};

attributes attributes_of(const sw_evlan_attr &attr);
attributes attributes_of(const sw_eport_attr &attr);
attributes attributes_of(const UBridge__Evlan &record);
attributes attributes_of(const UBridge__Eport &record);

// The first field in which they differ, by its name; null when they are equal.
const char *different_field(id_kind kind, const attributes &one, const attributes &other);

}  // namespace ebridge_tool
