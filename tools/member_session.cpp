// The VLANs of ports of a session of "ebridge run": publishing them, hearing default VLANs, reading what is there. See
// session.hpp.
//
// Each port's VLANs are published at once, however many they are: they are added to the library's tables first, since the
// call that does both does not tell whether the store was only away for a moment. What its default VLAN is then is decided by the service,
// from what all users ask for; the library tells it.
#include <algorithm>

#include "session.hpp"

namespace ebridge_tool
{

namespace
{

constexpr int32_t KEEP_LOCAL = 0;  // send_flag of the library's call

bool read_set(const UBridge__Bitmap *encoded, vlan_set *out)
{
    std::string ignored;
    const auto read =
        encoded ? vlan_set::read(encoded->start, {encoded->value, encoded->n_value}, &ignored) : std::nullopt;
    *out = read.value_or(vlan_set());
    return read.has_value();
}

// False: the record is not as the library writes it.
bool read_vlans(const UBridge__PortVlans &record, member_sight *out)
{
    return read_set(record.vbmp, &out->vlans) && read_set(record.ubmp, &out->untagged) &&
           read_set(record.mcbmp, &out->multicast);
}

}  // namespace

// ---- publishing -------------------------------------------------------------------------------------------------------

void session::publish_members()
{
    for (size_t i = 0; i < members_->size(); ++i) {
        const vlan_port &port = members_->at(i);
        if (port.user != users_.requester || !port.is_wanted())
            continue;
        const auto eport = static_cast<int32_t>(port.eport);
        const auto publish = [&] { return sw_vlan_port_range_vids_set(requester(), eport); };
        const auto set_pvid = [&] { return sw_vlan_pvid_set(requester(), port.eport, port.pvid); };
        int32_t code = sw_vlan_port_range_vids_add_with_flag(requester(), eport, port.vlans.words(),
                                                             port.untagged.words(), port.vlans.words(), KEEP_LOCAL);
        if (code == 0)
            code = patiently(publish);
        // None is wanted: one of an earlier life goes.
        const int32_t pvid_code = patiently(set_pvid);
        members_->set(i, {.code = code, .pvid_code = pvid_code, .pvid = port.asked.pvid});
    }
}

void session::wait_for_pvids()
{
    wait_until([this] { return members_->is_settled(users_.requester); });
    wait_for_writes(SW_EBRIDGE_APP_DB);
}

void session::pvid_changed(uint32_t ifx, int32_t pvid)
{
    const size_t index = members_->find_ifx(ifx);
    if (index == members_->size())
        return;
    member_facts facts = members_->at(index).asked;
    facts.pvid = pvid;
    members_->set(index, facts);
    happened();
}

// ---- reading ----------------------------------------------------------------------------------------------------------

bool session::scan_members(std::string *error)
{
    for (size_t i = 0; i < members_->size(); ++i)
        members_->set(i, member_sight());
    ended_ = 0;
    UBridge__PortIndex any = U_BRIDGE__PORT_INDEX__INIT;
    UBridge__PortVlans vlans = U_BRIDGE__PORT_VLANS__INIT;
    UBridge__PortVid pvids = U_BRIDGE__PORT_VID__INIT;
    UBridge__PvidTable table = U_BRIDGE__PVID_TABLE__INIT;
    vlans.index = pvids.index = table.index = &any;
    const std::pair<uint32_t, const ProtobufCMessage *> wanted[] = {
        {SW_EBRIDGE_APP_DB, &vlans.base}, {SW_EBRIDGE_APP_DB, &pvids.base}, {SW_EBRIDGE_UDP_DB, &table.base}};
    for (const auto &each : wanted) {
        const auto scan = [&] {
            return qz_mom_scan(link_.handle(), each.first, each.second, 0, on_members_read, this);
        };
        if (const int32_t code = patiently(scan); code != 0) {
            *error = std::string("the VLANs of ports cannot be scanned: ") + qz_mom_strerror(code);
            return false;
        }
    }
    return wait_for_ends(std::size(wanted), "VLANs of ports", error);
}

// The default VLANs that there are, for the library: what it subscribes tells of changes alone. It does not tell whether the
// store has taken its scan, so another call asks first; between the two nothing can happen.
bool session::scan_pvids(std::string *error)
{
    ended_ = 0;
    const auto scan = [&] {
        const int32_t code = ask_for_writes(SW_EBRIDGE_UDP_DB, nullptr);
        return code != 0 ? code : sw_vlan_pvid_table_scan(requester(), on_scanned, this);
    };
    if (const int32_t code = patiently(scan); code != 0) {
        *error = std::string("the default VLANs cannot be scanned: ") + qz_mom_strerror(code);
        return false;
    }
    return wait_for_ends(1, "default VLANs", error);
}

int32_t session::on_members_read(qz_mom_handle *, const qz_mom_notification *msg, void *self)
{
    auto *of = static_cast<session *>(self);
    of->ended_ += msg->end == QZ_MOM_END_SCAN;
    const ProtobufCMessage *record = nullptr;
    if (msg->cmd == QZ_MOM_CMD_SET)
        record = static_cast<const ProtobufCMessage *>(msg->value);
    if (msg->cmd == QZ_MOM_CMD_HMSET || msg->cmd == QZ_MOM_CMD_HSET)
        record = static_cast<const qz_mom_hash_value *>(msg->value)->record;
    if (record && record->descriptor == &u_bridge__port_vlans__descriptor)
        of->note_vlans(reinterpret_cast<const UBridge__PortVlans &>(*record), msg->key);
    if (record && record->descriptor == &u_bridge__port_vid__descriptor)
        of->note_claim(reinterpret_cast<const UBridge__PortVid &>(*record), msg->key);
    if (record && record->descriptor == &u_bridge__pvid_table__descriptor)
        of->note_pvid(reinterpret_cast<const UBridge__PvidTable &>(*record));
    of->happened();
    return 0;
}

// The port of a record that one of these users has published, or nothing: then it is somebody else's, or a stranger.
std::optional<size_t> session::own_port(const UBridge__PortIndex *index, const char *key)
{
    if (!index || requests_->find_user(index->t_user) == requests_->users().size())
        return std::nullopt;
    const size_t port = members_->find_eport(static_cast<uint32_t>(index->port));
    if (port < members_->size() && members_->user_of(members_->at(port)) == index->t_user)
        return port;
    strangers_.emplace_back(key);
    return std::nullopt;
}

void session::note_vlans(const UBridge__PortVlans &record, const char *key)
{
    const std::optional<size_t> port = own_port(record.index, key);
    if (!port)
        return;
    member_sight seen = members_->at(*port).seen;
    seen.found = read_vlans(record, &seen);
    members_->set(*port, seen);
}

void session::note_claim(const UBridge__PortVid &record, const char *key)
{
    const size_t port = record.index ? members_->find_eport(static_cast<uint32_t>(record.index->port)) : 0;
    const std::optional<size_t> own = own_port(record.index, key);
    if (!own && (!record.index || port == members_->size()))
        return;
    member_sight seen = members_->at(port).seen;
    if (own)
        seen.claimed = record.pvid;
    else
        seen.contested = true;
    members_->set(port, seen);
}

void session::note_pvid(const UBridge__PvidTable &record)
{
    const size_t port =
        record.index ? members_->find_eport(static_cast<uint32_t>(record.index->port)) : members_->size();
    if (port == members_->size())
        return;
    member_sight seen = members_->at(port).seen;
    seen.pvid = record.new_pvid;
    members_->set(port, seen);
}

}  // namespace ebridge_tool
