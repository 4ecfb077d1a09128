// The tables of one database of a Redis server. See redis_tables.hpp.
#include "redis_tables.hpp"

#include <algorithm>
#include <utility>

#include "key_text.hpp"
#include "mom_log.hpp"

namespace mom
{
namespace
{

constexpr uint32_t SCAN_PIECE = 64;
constexpr uint32_t SCAN_VISITS = 1024;

// How many values a write has sent that names these fields; one where it names none.
size_t values_of(std::string_view written)
{
    written.remove_prefix(written.find('|') + 1);
    return static_cast<size_t>(std::ranges::count(written, ',')) + 1;
}

std::vector<uint32_t> numbers_of(std::string_view joined)
{
    std::vector<uint32_t> numbers;
    while (!joined.empty()) {
        const size_t comma = std::min(joined.find(','), joined.size());
        numbers.push_back(static_cast<uint32_t>(number_of(joined.substr(0, comma))));
        joined.remove_prefix(std::min(comma + 1, joined.size()));
    }
    return numbers;
}

std::vector<uint32_t> data_numbers(const ProtobufCMessageDescriptor &type)
{
    std::vector<uint32_t> numbers;
    for (unsigned i = 0; i < type.n_fields; ++i) {
        if (&type.fields[i] != key_field(type))
            numbers.push_back(type.fields[i].id);
    }
    return numbers;
}

// The newest change of a block, taken back when it was not told after all.
class newest_told
{
  public:
    newest_told(change_block &block, change &&what) : made(block.add(std::move(what))), block_(&block) {}
    ~newest_told()
    {
        made.reset();
        if (block_ != nullptr)
            block_->take_back();
    }
    newest_told(const newest_told &) = delete;
    newest_told &operator=(const newest_told &) = delete;
    void keep() { block_ = nullptr; }

    change_ptr made;

  private:
    change_block *block_;
};

}  // namespace

// A scan reads the replica piece by piece, each in its turn in the queue. It keeps the slot that it has come to.
class replica_scan : public scan_step, public std::enable_shared_from_this<replica_scan>
{
  public:
    replica_scan(redis_tables &owner, std::string name, const target &of, const receiver &to)
        : owner_(owner), name_(std::move(name)), of_(of), to_(to)
    {
    }

    void next(client &to) override;

  private:
    bool collect(replica &records, uint32_t room, size_t &at, std::vector<const replica::record *> &found) const;
    void tell(const std::vector<const replica::record *> &found, client &to, deliveries &out) const;

    redis_tables &owner_;
    const std::string name_;
    const target of_;
    const receiver to_;
    size_t next_ = 0;  // slot
};

// The next piece, of so many at the most. True: there is no more behind it.
bool replica_scan::collect(replica &records, uint32_t room, size_t &at,
                           std::vector<const replica::record *> &found) const
{
    if (of_.keys.exact()) {
        if (const auto *record = records.find(of_.keys.text()))
            found.push_back(record);
        return true;
    }
    found.reserve(room);
    for (uint32_t seen = 0; seen < SCAN_VISITS && found.size() < room && at < records.slots(); ++seen, ++at) {
        const auto *record = records.slot(at);
        if (record != nullptr && of_.keys.match(record->key) != key_pattern::verdict::differs)
            found.push_back(record);
    }
    return at >= records.slots();
}

void replica_scan::tell(const std::vector<const replica::record *> &found, client &to, deliveries &out) const
{
    size_t size = 0;
    for (const auto *record : found)
        size += record->key.size() + 1;
    const auto told = std::make_shared<change_block>(size);
    for (const auto *record : found) {
        const int32_t cmd = record->body->kind == form::hash ? QZ_MOM_CMD_HMSET : QZ_MOM_CMD_SET;
        auto what = told->add({of_.db, cmd, 0, record->key, {}, record->body});
        owner_.office_.add(out, {&to, message{std::move(what), to_, &of_.keys.type()}});
    }
}

void replica_scan::next(client &to)
{
    deliveries out;
    bool over = true;
    size_t at = next_;
    if (const auto in = owner_.tables_.find(name_); in != owner_.tables_.end()) {
        const uint32_t room = to.box.hard > to.box.depth() ? to.box.hard - to.box.depth() : 1;
        std::vector<const replica::record *> found;
        over = collect(in->second.records, std::min(SCAN_PIECE, room), at, found);
        tell(found, to, out);
    }
    if (over) {
        auto end = make_change({of_.db, 0, QZ_MOM_END_SCAN, of_.keys.text(), {}, nullptr});
        out.push_back({&to, message{std::move(end), to_}});
    } else {
        out.push_back({&to, shared_from_this()});
    }
    next_ = at;
    owner_.office_.send(out);
    if (over)
        owner_.scan_ended(*this, name_);
}

redis_tables::redis_tables(uint32_t db, asker &server, post_office &office, subscription_table &subscriptions)
    : db_(db), server_(server), office_(office), subscriptions_(subscriptions)
{
}

// ---- who follows, and who scans ------------------------------------------------------------------------------------

// What needs the table to be known. Where nobody has asked for it yet its first page comes in the same call: the server
// tells whole records from there on until the last page, and parts of them before.
int32_t redis_tables::put_for_table(const ProtobufCMessageDescriptor &type, redis_operation &&asked)
{
    const std::string name = type.name;
    table &in = tables_[name];
    in.type = &type;
    ++in.awaited;
    int32_t code = QZ_MOM_ENOMEM;
    try {
        const bool begins = !in.loaded && in.loading == 0;
        redis_operation put_now = begins ? first_step(name, last_load_ + 1) : redis_operation();
        put_now.finish = [this, name, page = std::move(put_now.finish),
                          answer = std::move(asked.finish)](const redis_outcome &outcome) {
            if (page)
                page(outcome);
            answer(outcome);
            answered_for_table(name);
        };
        code = server_.put(std::move(put_now));
        if (code == QZ_MOM_OK && begins)
            in.loading = in.good_from = ++last_load_;
    } catch (const std::bad_alloc &) {
        code = QZ_MOM_ENOMEM;
    }
    if (code != QZ_MOM_OK) {
        --in.awaited;
        drop_unused(name);
    }
    return code;
}

void redis_tables::answered_for_table(const std::string &name)
{
    const auto in = tables_.find(name);
    in->second.begun = true;
    --in->second.awaited;
    drop_unused(name);
}

int32_t redis_tables::follow(std::vector<subscription> &&added)
{
    redis_operation asked;
    const auto &type = added.front().pattern.type();
    const auto shared = std::make_shared<std::vector<subscription>>(std::move(added));
    asked.finish = [this, who = shared->front().owner->weak_from_this(), shared](const redis_outcome &) {
        if (office_.attached(who))
            activate(*shared);
    };
    return put_for_table(type, std::move(asked));
}

void redis_tables::activate(std::vector<subscription> added)
{
    const subscription &first = added.front();
    auto what = make_change({db_, QZ_MOM_CMD_SUBSCRIBED, 0, first.pattern.text(), {}, nullptr});
    deliveries out;
    out.push_back({first.owner, message{std::move(what), first.to, nullptr, first.field}});
    subscriptions_.add(db_, std::move(added));
    office_.send(out);
}

int32_t redis_tables::scan(client &from, const target &of, const receiver &to)
{
    redis_operation asked;
    asked.finish = [this, wanted = waiting_scan{from.weak_from_this(), of, to}](const redis_outcome &) {
        table &in = tables_.find(wanted.of.keys.type().name)->second;
        if (in.loaded && in.loading == 0)
            start_scan(in, wanted);
        else
            in.scans.push_back(wanted);
    };
    return put_for_table(of.keys.type(), std::move(asked));
}

void redis_tables::start_scan(table &in, const waiting_scan &scan)
{
    const auto from = office_.attached(scan.from);
    if (!from)
        return;
    const auto step = std::make_shared<replica_scan>(*this, in.type->name, scan.of, scan.to);
    std::erase_if(in.running, [](const auto &each) { return each.expired(); });
    in.running.push_back(step);
    office_.post(*from, step);
}

void redis_tables::scan_ended(const replica_scan &scan, const std::string &name)
{
    if (const auto in = tables_.find(name); in != tables_.end())
        std::erase_if(in->second.running, [&](const auto &each) { return each.lock().get() == &scan; });
    drop_unused(name);
}

// A table that nobody follows and no scan reads is not kept.
bool redis_tables::is_used(std::string_view name, table &in) noexcept
{
    std::erase_if(in.running, [](const auto &each) { return each.expired(); });
    std::erase_if(in.scans, [this](const auto &each) { return office_.attached(each.from) == nullptr; });
    return in.awaited != 0 || !in.scans.empty() || !in.running.empty() || subscriptions_.any(db_, name);
}

void redis_tables::drop_unused(std::string_view name) noexcept
{
    if (const auto at = tables_.find(name); at != tables_.end() && !is_used(name, at->second))
        tables_.erase(at);
}

void redis_tables::drop_unused() noexcept
{
    for (auto at = tables_.begin(); at != tables_.end();)
        at = is_used(at->first, at->second) ? std::next(at) : tables_.erase(at);
}

bool redis_tables::any() const
{
    return std::ranges::any_of(tables_, [](const auto &each) { return each.second.begun; });
}

// ---- the log -------------------------------------------------------------------------------------------------------

void redis_tables::written_fields::become(std::string_view other, const ProtobufCMessageDescriptor &type)
{
    if (text == other)
        return;
    const size_t bar = std::min(other.find('|'), other.size());
    written_fields made{std::string(other), numbers_of(other.substr(0, bar)), {}, nullptr};
    made.all = bar == other.size() ? made.named : numbers_of(other.substr(bar + 1));
    made.names = std::make_shared<std::string>(names_of(type, made.named));
    *this = std::move(made);
}

void redis_tables::written_fields::become_all(const ProtobufCMessageDescriptor &type)
{
    auto numbers = data_numbers(type);
    auto all_names = std::make_shared<std::string>(names_of(type, numbers));
    *this = {"*", numbers, numbers, std::move(all_names)};
}

// Null: it is not ours.
std::shared_ptr<const content> redis_tables::take_content(const told_row &row, size_t fields, log_entry &entry)
{
    if (!entry.as_sent)
        return entry.rows.body();
    if (row.cmd == QZ_MOM_CMD_SET)
        return std::make_shared<const content>(content{form::whole, std::string(entry.rows.text())});
    return entry.rows.values(fields);
}

bool redis_tables::tell(const told_row &row, log_entry &entry)
{
    const auto at = tables_.find(record_name(row.key));
    if (at == tables_.end() || !at->second.begun) {
        entry.as_sent ? entry.rows.skip(values_of(row.written)) : entry.rows.skip_body();
        return true;
    }
    table &in = at->second;
    in.written.become(row.written, *in.type);
    in.records.fetch_entry(row.key);
    auto body = take_content(row, in.written.all.size(), entry);
    if (body == nullptr) {
        log_foreign(std::string(row.key).c_str());
        return true;
    }
    auto *known = in.records.find(row.key);
    const bool by_field = !row.written.empty();
    const bool missed = in.loading != 0 && (known == nullptr || known->seen < in.good_from);
    if (row.is_part && by_field) {
        if (missed)
            return true;  // a page is still to show it
        body = merge(known != nullptr ? known->body.get() : nullptr, std::move(body), in.written.all);
    }
    int32_t cmd = row.cmd;
    if (missed && known != nullptr && by_field) {
        // It may have gone meanwhile, and come back: any field may be another than it was.
        in.written.become_all(*in.type);
        cmd = QZ_MOM_CMD_HMSET;
    }
    if (entry.told == nullptr)
        entry.told = std::make_shared<change_block>(entry.bytes.size());
    newest_told what(*entry.told, {db_, cmd, 0, row.key, by_field ? in.written.names : nullptr, body});
    deliveries out;
    subscriptions_.address(what.made, in.written.named, office_, out);
    if (!has_room(out))
        return false;
    if (row.cmd == QZ_MOM_CMD_DEL || row.cmd == QZ_MOM_CMD_EXPIRED) {
        if (known != nullptr)
            in.records.erase(*known);
    } else if (known != nullptr) {
        known->body = body;
        known->seen = in.loading;
    } else {
        in.records.put(row.key, body).seen = in.loading;
    }
    office_.send(out);
    what.keep();
    return true;
}

// ---- pages ---------------------------------------------------------------------------------------------------------

redis_tables::record_page::record_page(table_step &read, bool last, const ProtobufCMessageDescriptor &type)
    : name(read.name),
      load(read.load),
      is_last(last),
      numbers(data_numbers(type)),
      names(std::make_shared<std::string>(names_of(type, numbers))),
      records(read.take_records())
{
}

bool redis_tables::is_loading() const
{
    return std::ranges::any_of(tables_, [](const auto &each) { return each.second.loading != 0; });
}

// All of them first: without memory for what follows the next connection finds that.
void redis_tables::missed()
{
    for (auto &[name, in] : tables_) {
        in.again = in.begun;
        if (in.begun)
            in.good_from = last_load_ + 1;
    }
}

void redis_tables::load(const std::string &name)
{
    server_.ask(first_step(name, last_load_ + 1));
    tables_[name].loading = ++last_load_;
}

// A cursor means nothing to another server. What was written meanwhile may have been told in parts, and passed over.
void redis_tables::load_again()
{
    for (auto &[name, in] : tables_) {
        if (!in.begun || (in.loading == 0 && !in.again))
            continue;
        in.again = true;
        load(name);
    }
}

redis_operation redis_tables::operation_of(std::shared_ptr<table_step> step)
{
    redis_operation asked;
    asked.what = redis_operation::kind::read;
    asked.words = {step->cursor == table_step::START ? "begin" : "go on", step->name};
    asked.finish = [this, step](const redis_outcome &) { take_page(*step); };
    asked.step = std::move(step);
    return asked;
}

redis_operation redis_tables::first_step(const std::string &name, uint64_t number)
{
    return operation_of(
        std::make_shared<table_step>(name, number, std::string(table_step::START), std::vector<table_step::wanted>()));
}

void redis_tables::take_page(table_step &read)
{
    const auto at = tables_.find(read.name);
    if (at == tables_.end() || at->second.loading == 0)
        return say_read(read.name);
    if (at->second.loading != read.load)
        return;
    if (read.was_refused()) {
        load(read.name);
        return server_.lose("a page of records was refused");
    }
    if (read.has_lapsed()) {
        at->second.again = true;
        return load(read.name);
    }
    const bool is_last = read.next_cursor().empty() && read.found().empty() && read.doubtful().empty();
    is_last ? say_read(read.name) : read_on(at->second, read);
    page_ = std::make_unique<record_page>(read, is_last, *at->second.type);
}

// Reads what was found, and what is of another form than was believed.
void redis_tables::read_on(table &in, const table_step &read)
{
    std::vector<table_step::wanted> keys = read.doubtful();
    const auto newly = std::ranges::find(keys, 1, &table_step::wanted::doubts);
    if (newly != keys.end())
        in.whole = newly->whole;
    keys.reserve(keys.size() + read.found().size());
    for (const std::string &key : read.found())
        keys.push_back({key, in.whole});
    server_.ask(operation_of(std::make_shared<table_step>(read.name, read.load, read.next_cursor(), std::move(keys))));
}

// The server need not tell whole records any more.
void redis_tables::say_read(const std::string &name)
{
    redis_operation said;
    said.what = redis_operation::kind::read;
    said.words = {"end", name};
    server_.ask(std::move(said));
}

bool redis_tables::tell_page()
{
    record_page &page = *page_;
    const auto at = tables_.find(page.name);
    if (at == tables_.end() || at->second.loading != page.load) {
        page_.reset();
        return true;
    }
    for (; page.next_record < page.records.size(); ++page.next_record) {
        if (!tell_record(at->second))
            return false;
    }
    if (page.is_last && !tell_gone(at->second))
        return false;
    if (page.is_last)
        finish_load(at->second);
    page_.reset();
    return true;
}

// A record as it is. Who has missed changes is told of each, also when it is as it was known: it may have been written
// anew, as who asks once more for what he has does, and waits for his answer.
bool redis_tables::tell_record(table &in)
{
    const auto &[key, body] = page_->records[page_->next_record];
    if (page_->next_record + 2 < page_->records.size())
        in.records.fetch_entry(page_->records[page_->next_record + 2].key);
    if (body == nullptr) {
        log_foreign(key.c_str());
        return true;
    }
    deliveries out;
    if (in.again) {
        const int32_t cmd = body->kind == form::hash ? QZ_MOM_CMD_HMSET : QZ_MOM_CMD_SET;
        subscriptions_.address(make_change({db_, cmd, 0, key, page_->names, body}), page_->numbers, office_, out);
    }
    if (!has_room(out))
        return false;
    in.records.put(key, body).seen = in.loading;
    office_.send(out);
    return true;
}

// What no page has shown is gone.
bool redis_tables::tell_gone(table &in)
{
    for (size_t &at = page_->next_slot; at < in.records.slots(); ++at) {
        auto *record = in.records.slot(at);
        if (record == nullptr || record->seen == in.loading)
            continue;
        deliveries out;
        subscriptions_.address(make_change({db_, QZ_MOM_CMD_DEL, 0, record->key, {}, record->body}), {}, office_, out);
        if (!has_room(out))
            return false;
        office_.send(out);
        in.records.erase(*record);
    }
    return true;
}

bool redis_tables::has_room(const deliveries &out) const { return office_.room_for(out) || office_.nothing_waits(out); }

void redis_tables::finish_load(table &in)
{
    while (!in.scans.empty()) {
        start_scan(in, in.scans.front());
        in.scans.erase(in.scans.begin());
    }
    in.loading = 0;
    in.loaded = true;
    in.again = false;
    drop_unused(in.type->name);
}

}  // namespace mom
