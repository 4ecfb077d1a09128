// The resolver of default VLANs. See pvid_resolver.hpp.
#include "pvid_resolver.hpp"

#include <algorithm>
#include <new>
#include <string_view>
#include <tuple>

#include "notification.hpp"
#include "service.hpp"

namespace ebridged
{

namespace
{

using resolvers = numbers<pvid_resolver *>;

constexpr int32_t LAST_VLAN = 4094;
// Of a table record that is not as this service writes them, with a pvid and whole: removed before it is written.
constexpr int32_t FOREIGN = -1;

// A record of either kind whose port is `port`: of 0 a pattern of all.
template <typename Record>
struct port_record {
    UBridge__PortIndex index = U_BRIDGE__PORT_INDEX__INIT;
    Record record;
    port_record(const Record &init, int32_t port) : record(init)
    {
        index.port = static_cast<decltype(index.port)>(port);
        record.index = &index;
    }
    port_record(const port_record &) = delete;
    port_record &operator=(const port_record &) = delete;
};
using claim_record = port_record<UBridge__PortVid>;
using table_record = port_record<UBridge__PvidTable>;
constexpr UBridge__PortVid NO_CLAIM = U_BRIDGE__PORT_VID__INIT;
constexpr UBridge__PvidTable NO_ENTRY = U_BRIDGE__PVID_TABLE__INIT;

// Patterns. They live as long as the process.
const ProtobufCMessage *all_claims()
{
    static const claim_record all(NO_CLAIM, 0);
    return &all.record.base;
}
const ProtobufCMessage *all_entries()
{
    static const table_record all(NO_ENTRY, 0);
    return &all.record.base;
}

std::string_view user_of(const UBridge__PortIndex &index) { return index.t_user ? index.t_user : ""; }

}  // namespace

void *pvid_resolver::number_arg() const { return number_.argument(); }

pvid_resolver::pvid_resolver(qz_mom_handle *handle, const ebridged_options *options)
    : handle_(handle), log(options), number_(this), followed_(handle, log, *this)
{
    for (const uint32_t db : databases_of(options)) {
        followed_.add(CLAIMS, db, all_claims());
        tables_[db];
    }
    tables_[MIRROR_DB];
    for (const auto &[db, its] : tables_)
        followed_.add(TABLE, db, all_entries());
}

void pvid_resolver::stat(ebridged_stat *out) const
{
    out->pvid_ports = static_cast<uint32_t>(claims_.size());
    out->waiting_pvids = static_cast<uint32_t>(waiting());
    out->pvids = written_;
}

// ---- the start ------------------------------------------------------------------------------------------------------

void pvid_resolver::all_read()
{
    if (!read_)
        order_claims();
    read_ = true;
    if (has_turn_)
        serve();
    else
        log(EBRIDGED_LOG_INFO, "default VLANs of %zu ports are read", claims_.size());
}

void pvid_resolver::serve()
{
    has_turn_ = true;
    if (read_ && !serving_)
        begin_serving();
}

void pvid_resolver::begin_serving()
{
    for (auto &[db, its] : tables_)
        compare(its);
    write_due();
    serving_ = true;  // last: what failed for lack of memory is done from the beginning
    log(EBRIDGED_LOG_INFO, "default VLANs of %zu ports are set", claims_.size());
}

// By the first table that knows it: one of them may have been lost. Of tables that differ one is older: before a table that
// another one names as the pvid before counts the one that names it.
pvid_resolver::entry pvid_resolver::shown_for(port_id port) const
{
    std::vector<entry> all;
    for (const auto &[db, its] : tables_)
        if (const auto found = its.entries.find(port); found != its.entries.end() && found->second.pvid > 0)
            all.push_back(found->second);
    const auto age = [&all](const entry &each) {
        const auto comes_after = [&each](const entry &other) { return each.before == other.pvid; };
        const auto comes_before = [&each](const entry &other) { return other.before == each.pvid; };
        return std::ranges::any_of(all, comes_before) - std::ranges::any_of(all, comes_after);
    };
    const auto last = std::ranges::min_element(all, {}, age);
    return last == all.end() ? entry{} : *last;
}

void pvid_resolver::order_claims()
{
    for (auto &[port, claims] : claims_) {
        const auto rank = [shown = shown_for(port)](const claim &each) {
            const int place = each.pvid == shown.pvid ? 2 : each.pvid == shown.before ? 1 : 0;  // of those not heard
            return std::tuple(each.heard, place, std::string_view(each.user), each.db);
        };
        std::ranges::sort(claims, {}, rank);
    }
}

void pvid_resolver::compare(table &its)
{
    for (const auto &[port, shown] : its.entries)
        if (shown.pvid != pvid_of(port))
            its.due.insert(port);
    for (const auto &[port, claims] : claims_)
        if (!its.entries.contains(port))
            its.due.insert(port);
}

// ---- changes --------------------------------------------------------------------------------------------------------

void pvid_resolver::heard(int which, const qz_mom_notification &msg, bool live)
{
    if (which == CLAIMS)
        claim_heard(msg, live);
    else
        entry_heard(msg);
}

void pvid_resolver::claim_heard(const qz_mom_notification &msg, bool live)
{
    const auto *record = record_of(msg, NO_CLAIM);
    if (!record || !record->index || user_of(*record->index).empty()) {
        log(EBRIDGED_LOG_ERROR, "database %u, %s: not a user's default VLAN, skipped", msg.db, msg.key);
        return;
    }
    const auto port = static_cast<port_id>(record->index->port);
    const claim heard{msg.db, std::string(user_of(*record->index)), record->pvid, live ? ++heard_ : 0};
    const bool sets = is_written(msg.cmd) && heard.pvid >= 1 && heard.pvid <= LAST_VLAN;
    if (is_written(msg.cmd) && !sets)
        log(EBRIDGED_LOG_ERROR, "database %u, %s: %d is no VLAN, taken for none", msg.db, msg.key, heard.pvid);
    if (sets)
        set(heard, port);
    else
        let_go(heard, port);
    if (serving_)
        put(port);
}

void pvid_resolver::set(const claim &made, port_id port)
{
    std::vector<claim> &claims = claims_[port];
    claims.push_back(made);
    const auto is_older = [&made](const claim &each) { return each.db == made.db && each.user == made.user; };
    claims.erase(std::remove_if(claims.begin(), claims.end() - 1, is_older), claims.end() - 1);
}

void pvid_resolver::let_go(const claim &gone, port_id port)
{
    const auto of = claims_.find(port);
    if (of == claims_.end())
        return;
    std::erase_if(of->second, [&gone](const claim &each) { return each.db == gone.db && each.user == gone.user; });
    if (of->second.empty())
        claims_.erase(of);
}

// 0: none.
int32_t pvid_resolver::pvid_of(port_id port) const
{
    const auto of = claims_.find(port);
    return of == claims_.end() || of->second.empty() ? 0 : of->second.back().pvid;
}

void pvid_resolver::entry_heard(const qz_mom_notification &msg)
{
    const auto *record = record_of(msg, NO_ENTRY);
    if (!record || !record->index || !user_of(*record->index).empty()) {
        log(EBRIDGED_LOG_ERROR, "database %u, %s: not of the table of default VLANs, skipped", msg.db, msg.key);
        return;
    }
    const auto port = static_cast<port_id>(record->index->port);
    table &its = tables_.at(msg.db);
    entry &shown = its.entries[port];
    const bool is_ours = msg.cmd == QZ_MOM_CMD_SET && record->new_pvid > 0;
    shown.heard = is_removed(msg.cmd) ? 0 : is_ours ? record->new_pvid : FOREIGN;
    shown.before = record->old_pvid;
    if (shown.under_way == 0)
        settle(its, port);
    tidy(its, port);
    if (serving_ && !retry_pending_)
        write_due();
}

// What was heard is what the record says, as all that was sent has been answered.
void pvid_resolver::settle(table &its, port_id port)
{
    entry &shown = its.entries.at(port);
    if (serving_ && shown.heard != pvid_of(port))
        its.due.insert(port);  // first: it may lack memory
    shown.pvid = shown.heard;
}

// No record, and none under way.
void pvid_resolver::tidy(table &its, port_id port)
{
    if (const auto found = its.entries.find(port); found->second.pvid == 0 && found->second.under_way == 0)
        its.entries.erase(found);
}

// ---- writes ---------------------------------------------------------------------------------------------------------

void pvid_resolver::put(port_id port)
{
    for (auto &[db, its] : tables_)
        its.due.insert(port);
    if (!retry_pending_)
        write_due();
}

// The one that is scanned first: who follows another and scans it is then told of nothing older than it has heard, unless
// the two are on their way for long.
void pvid_resolver::write_due()
{
    write_due(MIRROR_DB, tables_.at(MIRROR_DB));
    for (auto &[db, its] : tables_)
        if (db != MIRROR_DB)
            write_due(db, its);
}

// Where nobody makes a call again that lacks memory.
void pvid_resolver::try_write_due()
{
    try {
        write_due();
    } catch (const std::bad_alloc &) {
        retry_later();
    }
}

// Writes what is due in a database until it takes no more.
void pvid_resolver::write_due(uint32_t db, table &its)
{
    while (!its.due.empty()) {
        const port_id port = *its.due.begin();
        const int32_t code = write(db, its, port);
        if (passes(code))
            return retry_later();
        if (code == QZ_MOM_EFENCED)
            return;
        if (code != QZ_MOM_OK)
            log(EBRIDGED_LOG_ERROR, "database %u, port 0x%x: cannot be written: %s", db, static_cast<uint32_t>(port),
                qz_mom_strerror(code));
        its.due.erase(its.due.begin());
    }
}

int32_t pvid_resolver::write(uint32_t db, table &its, port_id port)
{
    const int32_t pvid = pvid_of(port);
    entry &shown = its.entries[port];
    int32_t code = QZ_MOM_OK;
    if (shown.pvid == FOREIGN)
        code = send(db, its, port, 0);
    if (code == QZ_MOM_OK && shown.pvid != pvid)
        code = send(db, its, port, pvid);
    tidy(its, port);
    return code;
}

int32_t pvid_resolver::send(uint32_t db, table &its, port_id port, int32_t pvid)
{
    entry &shown = its.entries.at(port);
    table_record written(NO_ENTRY, port);
    written.record.new_pvid = pvid;
    written.record.old_pvid = shown.pvid;
    its.sent.push_back(port);  // first: it may lack memory
    const int32_t code = pvid != 0 ? qz_mom_set(handle_, db, &written.record.base, on_written, number_arg())
                                   : qz_mom_del(handle_, db, &written.record.base, on_written, number_arg());
    if (code != QZ_MOM_OK) {
        its.sent.pop_back();
        return code;
    }
    shown.pvid = pvid;
    ++shown.under_way;
    ++written_;
    return code;
}

// Answers come in the order of the writes. What will never work is not tried again, unless it was somebody else's record
// that stood in the way.
void pvid_resolver::answered(const qz_mom_notification &msg)
{
    table &its = tables_.at(msg.db);
    const port_id port = its.sent.front();
    entry &shown = its.entries.at(port);
    const bool in_the_way = msg.error == QZ_MOM_EFORM && shown.heard == FOREIGN;
    if (shown.under_way == 1 && (msg.error == QZ_MOM_OK || passes(msg.error) || in_the_way))
        settle(its, port);
    its.sent.pop_front();
    if (--shown.under_way == 0)
        shown.pvid = shown.heard;
    if (msg.error != QZ_MOM_OK && msg.error != QZ_MOM_EFENCED)
        log(EBRIDGED_LOG_ERROR, "database %u, %s: write failed: %s", msg.db, msg.key, qz_mom_strerror(msg.error));
    if (passes(msg.error))
        retry_later();
    tidy(its, port);
    if (!retry_pending_ && msg.error != QZ_MOM_EFENCED)
        try_write_due();
}

size_t pvid_resolver::waiting() const
{
    size_t ports = 0;
    for (const auto &[db, its] : tables_)
        ports += its.due.size();
    return ports;
}

void pvid_resolver::retry_later()
{
    if (retry_pending_)
        return;
    retry_pending_ = qz_thread_call_after(qz_mom_handle_master(handle_), RETRY_USEC, on_retry, number_arg()) == 0;
    if (!retry_pending_)
        log(EBRIDGED_LOG_ERROR, "no timer: default VLANs of %zu ports wait for the next change", waiting());
}

// ---- callbacks ------------------------------------------------------------------------------------------------------

int32_t pvid_resolver::on_written(qz_mom_handle *, const qz_mom_notification *msg, void *number)
{
    if (pvid_resolver *const self = resolvers::find(number))
        self->answered(*msg);
    return 0;
}

void pvid_resolver::on_retry(void *number)
{
    pvid_resolver *const self = resolvers::find(number);
    if (!self)
        return;
    self->retry_pending_ = false;
    self->try_write_due();
}

}  // namespace ebridged
