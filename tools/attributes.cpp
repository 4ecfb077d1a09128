// Attributes of evlans and eports in one plain form. See attributes.hpp.
//
// A field has its name in the record's descriptor and its place in the library's structure: a table for each view tells
// both, and the order of the words. What is not alike in structure and record (the peer, the address) is told beside.
#include "attributes.hpp"

#include <algorithm>
#include <cstring>
#include <span>

namespace ebridge_tool
{

namespace
{

struct field {
    const char *name;
    size_t offset;  // in the structure
    size_t size = 4;
};

#define EVLAN_FIELD(view, name)                                                               \
    {                                                                                         \
#name, offsetof(sw_evlan_attr, attr.view.name), sizeof(sw_evlan_attr::attr.view.name) \
    }
#define EPORT_FIELD(view, name)                                                               \
    {                                                                                         \
#name, offsetof(sw_eport_attr, attr.view.name), sizeof(sw_eport_attr::attr.view.name) \
    }

constexpr field EVLAN_UNDERLAY[] = {EVLAN_FIELD(underlay, fid), EVLAN_FIELD(underlay, svl)};
constexpr field EVLAN_OVERLAY[] = {EVLAN_FIELD(overlay, vnid),           EVLAN_FIELD(overlay, mcid),
                                   EVLAN_FIELD(overlay, uucid),          EVLAN_FIELD(overlay, bcid),
                                   EVLAN_FIELD(overlay, l3iif),          EVLAN_FIELD(overlay, mapping_vni),
                                   EVLAN_FIELD(overlay, mapping_evlan),  EVLAN_FIELD(overlay, ing_flex_cnt_id),
                                   EVLAN_FIELD(overlay, egr_flex_cnt_id)};
// The default VLAN has records of its own, and none in these.
constexpr field EPORT_UNDERLAY[] = {EPORT_FIELD(underlay, vt_key)};
constexpr field EPORT_OVERLAY[] = {EPORT_FIELD(overlay, match_vid),
                                   EPORT_FIELD(overlay, match_port),
                                   EPORT_FIELD(overlay, mpath_flag),
                                   EPORT_FIELD(overlay, nhop),
                                   EPORT_FIELD(overlay, dip),
                                   EPORT_FIELD(overlay, encap),
                                   EPORT_FIELD(overlay, peer_mode),
                                   EPORT_FIELD(overlay, evlan_id),
                                   EPORT_FIELD(overlay, split_horizon),
                                   EPORT_FIELD(overlay, mtu),
                                   EPORT_FIELD(overlay, class_id),
                                   EPORT_FIELD(overlay, match_inner_vid),
                                   EPORT_FIELD(overlay, egr_vlan_action),
                                   EPORT_FIELD(overlay, ovid),
                                   EPORT_FIELD(overlay, ing_flex_cnt_id),
                                   EPORT_FIELD(overlay, egr_flex_cnt_id),
                                   EPORT_FIELD(overlay, is_tagged)};

#undef EVLAN_FIELD
#undef EPORT_FIELD

// The words before and after those of the view. The peer of an overlay eport is an evlan or an eport, one word in the
// structure and two in the record.
enum place : size_t { TYPE, VIEW, COMMON, FIRST_FIELD };
constexpr size_t PEER_EPORT = FIRST_FIELD + std::size(EPORT_OVERLAY);
constexpr size_t SIP_VERSION = PEER_EPORT + 1;
constexpr size_t SIP = SIP_VERSION + 1;
static_assert(SIP + 4 <= std::tuple_size_v<decltype(attributes::words)>);

// The numbers of the two members of the records' oneof.
constexpr uint32_t UNDERLAY = 8;
constexpr uint32_t OVERLAY = 9;
static_assert(U_BRIDGE__EVLAN__ATTR_UNDERLAY == UNDERLAY && U_BRIDGE__EVLAN__ATTR_OVERLAY == OVERLAY);
static_assert(U_BRIDGE__EPORT__ATTR_UNDERLAY == UNDERLAY && U_BRIDGE__EPORT__ATTR_OVERLAY == OVERLAY);

std::span<const field> fields_of(id_kind kind, uint32_t view)
{
    if (kind == id_kind::evlan)
        return view == UNDERLAY ? std::span<const field>(EVLAN_UNDERLAY) : EVLAN_OVERLAY;
    return view == UNDERLAY ? std::span<const field>(EPORT_UNDERLAY) : EPORT_OVERLAY;
}

size_t place_of(std::span<const field> fields, const char *name)
{
    const auto found =
        std::ranges::find_if(fields, [name](const field &each) { return std::strcmp(each.name, name) == 0; });
    return FIRST_FIELD + static_cast<size_t>(found - fields.begin());
}

uint32_t word(int32_t value) { return static_cast<uint32_t>(value); }

// Fields are one, two or four bytes.
uint32_t read_word(const void *from, size_t size)
{
    uint8_t one = 0;
    uint16_t two = 0;
    uint32_t four = 0;
    std::memcpy(size == 1 ? static_cast<void *>(&one) : size == 2 ? static_cast<void *>(&two) : &four, from, size);
    return one + two + four;
}

template <typename Structure>
void take_structure(id_kind kind, uint32_t id, uint32_t view, const Structure &from, attributes *out)
{
    out->words[TYPE] = id >> 24;
    out->words[VIEW] = view;
    size_t next = FIRST_FIELD;
    for (const field &each : fields_of(kind, view))
        out->words[next++] = read_word(reinterpret_cast<const char *>(&from) + each.offset, each.size);
}

template <typename Record>
void take_record(id_kind kind, const Record &record, attributes *out)
{
    const uint32_t view = record.attr_case;
    const ProtobufCMessage *message = view == UNDERLAY  ? &record.underlay->base
                                      : view == OVERLAY ? &record.overlay->base
                                                        : nullptr;
    out->words[TYPE] = record.type;
    out->words[VIEW] = view;
    size_t next = FIRST_FIELD;
    if (message)
        for (const field &each : fields_of(kind, view)) {
            const auto *described = protobuf_c_message_descriptor_get_field_by_name(message->descriptor, each.name);
            out->words[next++] = read_word(reinterpret_cast<const char *>(message) + described->offset, 4);
        }
}

void take_address(bool v6, const void *bytes, attributes *out)
{
    out->words[SIP_VERSION] = v6;
    std::memcpy(&out->words[SIP], bytes, v6 ? 16 : 4);
}

}  // namespace

const char *kind_name(id_kind kind) { return kind == id_kind::evlan ? "evlan" : "eport"; }

attributes attributes_of(const sw_evlan_attr &attr)
{
    attributes out;
    out.words[COMMON] = attr.class_id;
    const uint32_t view = sw_evlan_id_underlay(attr.evlan_id) != 0 ? UNDERLAY : OVERLAY;
    take_structure(id_kind::evlan, attr.evlan_id, view, attr, &out);
    return out;
}

attributes attributes_of(const sw_eport_attr &attr)
{
    attributes out;
    out.words[COMMON] = attr.vlan_filter;
    const bool underlay = sw_eport_id_underlay(attr.eport_id) != 0;
    take_structure(id_kind::eport, attr.eport_id, underlay ? UNDERLAY : OVERLAY, attr, &out);
    if (underlay)
        return out;
    if (attr.attr.overlay.peer_mode != 0)
        std::swap(out.words[place_of(EPORT_OVERLAY, "evlan_id")], out.words[PEER_EPORT]);
    take_address(attr.attr.overlay.sip.is_ipv6 != 0, attr.attr.overlay.sip.address, &out);
    return out;
}

attributes attributes_of(const UBridge__Evlan &record)
{
    attributes out;
    out.words[COMMON] = word(record.class_id);
    take_record(id_kind::evlan, record, &out);
    return out;
}

attributes attributes_of(const UBridge__Eport &record)
{
    attributes out;
    out.words[COMMON] = record.vlan_filter;
    take_record(id_kind::eport, record, &out);
    if (record.attr_case != U_BRIDGE__EPORT__ATTR_OVERLAY)
        return out;
    out.words[PEER_EPORT] = word(record.overlay->peer_eport_id);
    const PLibpub__Ip *sip = record.overlay->sip;
    if (sip && sip->ip_case == P_LIBPUB__IP__IP_V4)
        take_address(false, &sip->v4->data, &out);
    if (sip && sip->ip_case == P_LIBPUB__IP__IP_V6 && sip->v6->data.len == 16)
        take_address(true, sip->v6->data.data, &out);
    return out;
}

const char *different_field(id_kind kind, const attributes &one, const attributes &other)
{
    const auto differs = [&](size_t place) { return one.words[place] != other.words[place]; };
    if (differs(TYPE))
        return "type";
    if (differs(VIEW))
        return "attr";
    if (differs(COMMON))
        return kind == id_kind::evlan ? "class_id" : "vlan_filter";
    size_t place = FIRST_FIELD;
    for (const field &each : fields_of(kind, one.words[VIEW]))
        if (differs(place++))
            return each.name;
    if (differs(PEER_EPORT))
        return "peer_eport_id";
    return one == other ? nullptr : "sip";
}

}  // namespace ebridge_tool
