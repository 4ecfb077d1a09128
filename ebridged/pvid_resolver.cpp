// The resolver of default VLANs. See pvid_resolver.hpp.
#include "pvid_resolver.hpp"

#include <algorithm>
#include <new>

#include "notification.hpp"
#include "numbers.hpp"
#include "service.hpp"

namespace ebridged
{

namespace
{

using resolvers = numbers<pvid_resolver *>;

constexpr int32_t LAST_VLAN = 4094;

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

}  // namespace

void *pvid_resolver::number_arg() const { return resolvers::argument(number_); }

pvid_resolver::pvid_resolver(qz_mom_handle *handle, const ebridged_options *options)
    : handle_(handle), log(options), number_(resolvers::add(this))
{
    for (const uint32_t db : databases_of(options)) {
        tasks_.push_back({db, what::follow_claims});
        tasks_.push_back({db, what::read_claims});
        tables_[db];
    }
    tables_[MIRROR_DB];
    for (const auto &[db, shown] : tables_) {
        tasks_.push_back({db, what::follow_table});
        tasks_.push_back({db, what::read_table});
    }
}

pvid_resolver::~pvid_resolver()
{
    resolvers::remove(number_);
    const claim_record claims(NO_CLAIM, 0);
    const table_record table(NO_ENTRY, 0);
    for (const task &each : tasks_) {
        if (each.state == progress::waiting)
            continue;
        if (each.to_do == what::follow_claims)
            qz_mom_unsubscribe(handle_, each.db, &claims.record.base, on_claim, number_arg());
        else if (each.to_do == what::follow_table)
            qz_mom_unsubscribe(handle_, each.db, &table.record.base, on_table, number_arg());
    }
}

void pvid_resolver::stat(ebridged_stat *out) const
{
    out->pvid_ports = static_cast<uint32_t>(claims_.size());
    out->waiting_pvids = static_cast<uint32_t>(due_.size());
    out->pvids = written_;
}

// ---- the start ------------------------------------------------------------------------------------------------------

int32_t pvid_resolver::start() { return advance(); }

// Begins what may begin. A code that will not pass by itself is returned; else it is tried again.
int32_t pvid_resolver::advance()
{
    for (task &each : tasks_) {
        if (each.state != progress::waiting || !may_begin(each))
            continue;
        const int32_t code = begin(each);
        if (code == QZ_MOM_OK) {
            each.state = progress::under_way;
        } else if (passes(code)) {
            retry_later();
        } else {
            log(EBRIDGED_LOG_ERROR, "database %u: %s", each.db, qz_mom_strerror(code));
            return code;
        }
    }
    return QZ_MOM_OK;
}

// What is followed is scanned.
bool pvid_resolver::may_begin(const task &which) const
{
    if (which.to_do == what::follow_claims || which.to_do == what::follow_table)
        return true;
    const what before = which.to_do == what::read_claims ? what::follow_claims : what::follow_table;
    return std::ranges::any_of(tasks_, [&](const task &other) {
        return other.db == which.db && other.to_do == before && other.state == progress::done;
    });
}

int32_t pvid_resolver::begin(const task &which)
{
    const claim_record claims(NO_CLAIM, 0);
    const table_record table(NO_ENTRY, 0);
    switch (which.to_do) {
        case what::follow_claims:
            return qz_mom_subscribe(handle_, which.db, &claims.record.base, 0, on_claim, number_arg());
        case what::read_claims:
            return qz_mom_scan(handle_, which.db, &claims.record.base, 0, on_claim_scan, number_arg());
        case what::follow_table:
            return qz_mom_subscribe(handle_, which.db, &table.record.base, 0, on_table, number_arg());
        case what::read_table:
            tables_.at(which.db).clear();
            return qz_mom_scan(handle_, which.db, &table.record.base, 0, on_table_scan, number_arg());
    }
    return QZ_MOM_EINVAL;
}

pvid_resolver::task &pvid_resolver::task_of(uint32_t db, what to_do)
{
    return *std::ranges::find_if(tasks_, [=](const task &each) { return each.db == db && each.to_do == to_do; });
}

bool pvid_resolver::is_read(uint32_t db) { return task_of(db, what::read_table).state == progress::done; }

void pvid_resolver::finish(uint32_t db, what done, int32_t error)
{
    task &its = task_of(db, done);
    if (its.state != progress::under_way)
        return;
    if (error != QZ_MOM_OK) {
        log(EBRIDGED_LOG_ERROR, "database %u: %s", db, qz_mom_strerror(error));
        its.state = progress::waiting;
        return retry_later();
    }
    its.state = progress::done;
    try {
        go_on(db, done);
    } catch (const std::bad_alloc &) {
        its.state = progress::under_way;
        throw;
    }
}

void pvid_resolver::go_on(uint32_t db, what done)
{
    advance();
    if (serving_ && done == what::read_table)
        compare(db);
    if (serving_ || !std::ranges::all_of(tasks_, [](const task &each) { return each.state == progress::done; }))
        return;
    order_claims();
    for (const auto &[each, shown] : tables_)
        compare(each);
    serving_ = true;  // last: what failed for lack of memory is done from the beginning
    changed_.clear();
    log(EBRIDGED_LOG_INFO, "default VLANs of %zu ports are set", claims_.size());
}

void pvid_resolver::order_claims()
{
    const shown_table &shown = tables_.begin()->second;
    for (auto &[port, claims] : claims_) {
        const auto entry = shown.find(port);
        const int32_t current = entry == shown.end() ? 0 : entry->second;
        const auto rank = [current](const claim &each) {
            return std::tuple(each.heard, each.heard == 0 && each.pvid == current, std::string_view(each.user),
                              each.db);
        };
        std::ranges::sort(claims, {}, rank);
    }
}

// Brings a database's table up to date.
void pvid_resolver::compare(uint32_t db)
{
    for (const auto &[port, pvid] : tables_.at(db))
        if (pvid != pvid_of(port))
            due_.insert({db, port});
    for (const auto &[port, claims] : claims_)
        if (!tables_.at(db).contains(port))
            due_.insert({db, port});
    write_due();
}

// ---- changes --------------------------------------------------------------------------------------------------------

void pvid_resolver::claim_heard(const qz_mom_notification &msg, bool live)
{
    if (!is_written(msg.cmd) && !is_removed(msg.cmd))
        return;
    const auto *record = record_of(msg, NO_CLAIM);
    if (!record || !record->index) {
        log(EBRIDGED_LOG_ERROR, "database %u, %s: not a default VLAN, skipped", msg.db, msg.key);
        return;
    }
    const auto port = static_cast<port_id>(record->index->port);
    claim heard{msg.db, record->index->t_user ? record->index->t_user : "", record->pvid, live ? ++heard_ : 0};
    const bool sets = is_written(msg.cmd) && heard.pvid >= 1 && heard.pvid <= LAST_VLAN;
    if (is_written(msg.cmd) && !sets)
        log(EBRIDGED_LOG_ERROR, "database %u, %s: %d is no VLAN, taken for none", msg.db, msg.key, heard.pvid);
    if (!serving_ && live)
        changed_.insert({msg.db, heard.user, port});
    else if (!live && changed_.contains({msg.db, heard.user, port}))
        return;
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

void pvid_resolver::entry_read(const qz_mom_notification &msg)
{
    const auto *record = record_of(msg, NO_ENTRY);
    if (record && record->index)
        tables_.at(msg.db)[static_cast<port_id>(record->index->port)] = record->new_pvid;
}

// Mostly what was written here. Of several writes that follow each other closely the older ones are taken for another's,
// too: then a table is read once too often.
void pvid_resolver::entry_heard(const qz_mom_notification &msg)
{
    const auto *record = record_of(msg, NO_ENTRY);
    if (!record || !record->index)
        return;
    const shown_table &shown = tables_.at(msg.db);
    const auto entry = shown.find(static_cast<port_id>(record->index->port));
    const int32_t pvid = entry == shown.end() ? 0 : entry->second;
    if (pvid != (is_written(msg.cmd) ? record->new_pvid : 0))
        read_again(msg.db);
}

void pvid_resolver::read_again(uint32_t db)
{
    task &reading = task_of(db, what::read_table);
    if (reading.state != progress::done)
        return;
    reading.state = progress::waiting;
    retry_later();
}

// ---- writes ---------------------------------------------------------------------------------------------------------

void pvid_resolver::put(port_id port)
{
    for (const auto &[db, shown] : tables_)
        due_.insert({db, port});
    if (!retry_pending_)
        write_due();
}

// Writes what is due until the store takes no more.
void pvid_resolver::write_due()
{
    for (auto next = due_.begin(); next != due_.end();) {
        const auto [db, port] = *next;
        if (!is_read(db)) {
            ++next;
            continue;
        }
        const int32_t code = write(db, port);
        if (passes(code))
            return retry_later();
        if (code == QZ_MOM_EFENCED)
            return;
        if (code != QZ_MOM_OK)
            log(EBRIDGED_LOG_ERROR, "database %u, port 0x%x: cannot be written: %s", db, static_cast<uint32_t>(port),
                qz_mom_strerror(code));
        next = due_.erase(next);
    }
}

int32_t pvid_resolver::write(uint32_t db, port_id port)
{
    shown_table &shown = tables_.at(db);
    int32_t &last = shown[port];  // made first: it may lack memory
    const int32_t pvid = pvid_of(port);
    table_record entry(NO_ENTRY, port);
    entry.record.new_pvid = pvid;
    entry.record.old_pvid = last;
    int32_t code = QZ_MOM_OK;
    if (pvid != last) {
        code = pvid != 0 ? qz_mom_set(handle_, db, &entry.record.base, on_written, number_arg())
                         : qz_mom_del(handle_, db, &entry.record.base, on_written, number_arg());
        if (code != QZ_MOM_OK)
            return code;
        ++written_;
        last = pvid;
    }
    if (pvid == 0)
        shown.erase(port);
    return code;
}

void pvid_resolver::retry_later()
{
    if (retry_pending_)
        return;
    retry_pending_ = qz_thread_call_after(qz_mom_handle_master(handle_), RETRY_USEC, on_retry, number_arg()) == 0;
    if (!retry_pending_)
        log(EBRIDGED_LOG_ERROR, "no timer: default VLANs of %zu ports wait for the next change", due_.size());
}

// ---- callbacks ------------------------------------------------------------------------------------------------------

int32_t pvid_resolver::on_claim(qz_mom_handle *, const qz_mom_notification *msg, void *number)
{
    pvid_resolver *const self = resolvers::find(number);
    if (self && msg->cmd == QZ_MOM_CMD_SUBSCRIBED)
        self->finish(msg->db, what::follow_claims, msg->error);
    else if (self)
        self->claim_heard(*msg, true);
    return 0;
}

int32_t pvid_resolver::on_claim_scan(qz_mom_handle *, const qz_mom_notification *msg, void *number)
{
    pvid_resolver *const self = resolvers::find(number);
    if (self && msg->end == QZ_MOM_END_SCAN)
        self->finish(msg->db, what::read_claims, msg->error);
    else if (self)
        self->claim_heard(*msg, false);
    return 0;
}

int32_t pvid_resolver::on_table(qz_mom_handle *, const qz_mom_notification *msg, void *number)
{
    pvid_resolver *const self = resolvers::find(number);
    if (self && msg->cmd == QZ_MOM_CMD_SUBSCRIBED)
        self->finish(msg->db, what::follow_table, msg->error);
    else if (self && (is_written(msg->cmd) || is_removed(msg->cmd)))
        self->entry_heard(*msg);
    return 0;
}

int32_t pvid_resolver::on_table_scan(qz_mom_handle *, const qz_mom_notification *msg, void *number)
{
    pvid_resolver *const self = resolvers::find(number);
    if (self && msg->end == QZ_MOM_END_SCAN)
        self->finish(msg->db, what::read_table, msg->error);
    else if (self)
        self->entry_read(*msg);
    return 0;
}

int32_t pvid_resolver::on_written(qz_mom_handle *, const qz_mom_notification *msg, void *number)
{
    pvid_resolver *const self = resolvers::find(number);
    if (!self || msg->error == QZ_MOM_OK || msg->error == QZ_MOM_EFENCED)
        return 0;
    self->log(EBRIDGED_LOG_ERROR, "database %u, %s: write failed: %s", msg->db, msg->key, qz_mom_strerror(msg->error));
    if (passes(msg->error))
        self->read_again(msg->db);
    return 0;
}

void pvid_resolver::on_retry(void *number)
{
    pvid_resolver *const self = resolvers::find(number);
    if (!self)
        return;
    self->retry_pending_ = false;
    self->advance();
    if (self->serving_)
        self->write_due();
}

}  // namespace ebridged
