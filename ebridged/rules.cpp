// Rivals, and records of rules. See rules.hpp.
#include "rules.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace ebridged
{

namespace
{

// The key without its user and, in the midst of it, the priority: two pieces of it.
struct piece {
    size_t begin;
    size_t end;
};
constexpr piece PIECES[] = {{offsetof(sw_ematch_item, match_type), offsetof(sw_ematch_item, match_priority)},
                            {offsetof(sw_ematch_item, evlan1), offsetof(sw_ematch_item, action_type)}};

std::string_view bytes(const sw_ematch_item *rule, const piece &of)
{
    return {reinterpret_cast<const char *>(rule) + of.begin, of.end - of.begin};
}

}  // namespace

size_t rival_hash::operator()(const sw_ematch_item *rule) const
{
    size_t hash = 0;
    for (const piece &each : PIECES)
        hash = hash * 31 + std::hash<std::string_view>()(bytes(rule, each));
    return hash;
}

bool are_rivals::operator()(const sw_ematch_item *a, const sw_ematch_item *b) const noexcept
{
    for (const piece &each : PIECES) {
        if (bytes(a, each) != bytes(b, each))
            return false;
    }
    return true;
}

const UBridge__EmatchEntry &all_rules()
{
    static const struct pattern {
        pattern() { entry.index = &index; }
        UBridge__EmatchIndex index = U_BRIDGE__EMATCH_INDEX__INIT;
        UBridge__EmatchEntry entry = U_BRIDGE__EMATCH_ENTRY__INIT;
    } all;
    return all.entry;
}

rule_record::rule_record(const sw_ematch_item &rule)
{
    if (rule.ip_ver != 0)
        ip_.v6 = &v6_;
    else
        ip_.v4 = &v4_;
    index_.t_user = user_;
    index_.mac = &mac_;
    index_.mask = &mask_;
    index_.ip = &ip_;
    sw_ematch_index_copy(&index_, &rule, 1);
    entry_.index = &index_;
    entry_.result = static_cast<UBridge__MatchResult>(rule.current_result);
}

namespace
{

bool is_whole_or_none(const ProtobufCBinaryData &bytes, size_t whole)
{
    return bytes.len == whole || bytes.data == nullptr ||
           std::all_of(bytes.data, bytes.data + bytes.len, [](uint8_t each) { return each == 0; });
}

bool is_item_ip(const PLibpub__Ip &ip)
{
    switch (ip.ip_case) {
        case P_LIBPUB__IP__IP_V6:
            return !ip.v6 || is_whole_or_none(ip.v6->data, sizeof sw_ematch_item::ip);
        case P_LIBPUB__IP__IP_V4B:
            return !ip.v4b || is_whole_or_none(ip.v4b->data, 0);
        default:
            return true;
    }
}

}  // namespace

bool names_its_record(const UBridge__EmatchIndex &index)
{
    constexpr size_t mac_size = 6;
    return (!index.mac || is_whole_or_none(index.mac->data, mac_size)) &&
           (!index.mask || is_whole_or_none(index.mask->data, mac_size)) && (!index.ip || is_item_ip(*index.ip));
}

sw_ematch_item item_of(const UBridge__EmatchEntry &record)
{
    sw_ematch_item made{};
    sw_ematch_entry_to_db_item(&made, &record, 0);
    if (std::ranges::all_of(made.ip, [](uint8_t each) { return each == 0; }))
        made.ip_ver = 0;
    return made;
}

rule_words::rule_words(const UBridge__EmatchIndex &index)
{
    std::snprintf(text, sizeof text, "user %.40s, match type %d, priority %d", index.t_user, index.match_type,
                  index.match_priority);
}

}  // namespace ebridged
