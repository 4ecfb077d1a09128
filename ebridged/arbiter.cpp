// The arbiter of match rules. See arbiter.hpp.
#include "arbiter.hpp"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "notification.hpp"
#include "service.hpp"

namespace ebridged
{

namespace
{

constexpr size_t WINDOW = 512;  // results under way
constexpr size_t KEYS_OF_A_PASS = 256;
constexpr int32_t HIGHEST_PRIORITY = 7;
constexpr int32_t NO_PART = -1;  // no result: the calculation has not looked at this rule
constexpr uint32_t RESULT_FIELD = 30;
constexpr const char *RESULT_NAME = "result";

// The library's rule table has its arbiter.
bool table_is_taken = false;

using arbiters = numbers<arbiter *>;

const char *user_of(const UBridge__EmatchIndex &index) { return index.t_user ? index.t_user : ""; }

}  // namespace

void *arbiter::number_arg() const { return number_.argument(); }

arbiter::arbiter(qz_mom_handle *handle, const ebridged_options *options)
    : handle_(handle), log(options), number_(this), followed_(handle, log, *this)
{
    for (const uint32_t db : databases_of(options))
        followed_.add(0, db, &all_rules().base);
    // Last: one that never comes to be for lack of memory takes no table.
    has_table_ = !std::exchange(table_is_taken, true);
}

arbiter::~arbiter()
{
    if (has_table_)
        table_is_taken = false;
    for (const sw_ematch_item *rule : rules_)
        sw_ematch_item_cache_destroy(0, rule);
}

void arbiter::stat(ebridged_stat *out) const
{
    out->deciding = serving_;
    out->rules = static_cast<uint32_t>(rules_.size());
    out->rule_keys = static_cast<uint32_t>(keys_);
    out->contested_keys = static_cast<uint32_t>(contested_);
    out->waiting_keys = static_cast<uint32_t>(waiting());
    out->waiting_results = static_cast<uint32_t>(under_way_);
    out->calculations = calculations_;
    out->results = results_;
}

// ---- the start ------------------------------------------------------------------------------------------------------

int32_t arbiter::start()
{
    if (has_table_)
        return followed_.start();
    log(EBRIDGED_LOG_ERROR, "match rules are decided by another service of this process");
    return QZ_MOM_OK;
}

void arbiter::all_read()
{
    for_each_key([this](sw_ematch_item *rule, size_t) { note(rule, false); });
    serving_ = true;
    schedule();
}

// ---- changes --------------------------------------------------------------------------------------------------------

void arbiter::heard(int, const qz_mom_notification &msg, bool live)
{
    const bool result_alone = is_written(msg.cmd) && std::strcmp(msg.field, RESULT_NAME) == 0;
    if (serving_ && result_alone)
        return;
    const auto *record = record_of(msg, all_rules());
    if (!record || !record->index)
        log(EBRIDGED_LOG_ERROR, "database %u, %s: not a match rule, skipped", msg.db, msg.key);
    else if (is_removed(msg.cmd))
        rule_removed(msg.db, *record);
    else
        rule_written(msg.db, *record, live && !result_alone);
}

void arbiter::rule_written(uint32_t db, const UBridge__EmatchEntry &record, bool publish)
{
    const char *const user = user_of(*record.index);
    const int32_t priority = record.index->match_priority;
    if (std::strlen(user) >= SW_EBRIDGE_NAME_SIZE || priority < 0 || priority > HIGHEST_PRIORITY) {
        log(EBRIDGED_LOG_ERROR, "database %u, %s: not decided: a user has 31 characters, a priority is 0 to 7", db,
            rule_words(*record.index).text);
        return;
    }
    if (!names_its_record(*record.index)) {
        log(EBRIDGED_LOG_ERROR, "database %u, %s: not decided: a mac has 6 bytes, an address is IPv4 or IPv6", db,
            rule_words(*record.index).text);
        return;
    }
    if (sw_ebridge_match_db_init(0, user) != 0 || !sw_ebridge_list_item_get(user))
        throw std::bad_alloc();
    sw_ematch_item rule = item_of(record);
    rule.mom_db = db;
    rule.current_result = rule.result;
    sw_ematch_item *const stored = sw_ematch_db_hash_insert_item(user, &rule);
    if (!stored)
        throw std::bad_alloc();
    keep(stored);
    note(stored, publish);
}

// Where a rule of the same user and key has been heard from another database since, that one counts.
void arbiter::rule_removed(uint32_t db, const UBridge__EmatchEntry &record)
{
    sw_ematch_item *const rule = names_its_record(*record.index) ? find(record) : nullptr;
    if (!rule || rule->mom_db != db)
        return;
    note(rule, true);  // for its rivals; may lack memory, what follows does not
    drop(rule);
}

// Null also when it is not one of this arbiter's.
sw_ematch_item *arbiter::find(const UBridge__EmatchEntry &record) const
{
    sw_ematch_item key = item_of(record);
    const auto [first, last] = rules_.equal_range(&key);
    const auto found = std::find_if(first, last, [&](const sw_ematch_item *each) {
        return each->match_priority == key.match_priority &&
               std::strcmp(each->user->user_name, user_of(*record.index)) == 0;
    });
    return found == last ? nullptr : *found;
}

void arbiter::keep(sw_ematch_item *stored)
{
    const auto [first, last] = rules_.equal_range(stored);
    if (std::find(first, last, stored) != last)
        return;
    const auto rivals = std::distance(first, last);
    try {
        rules_.insert(stored);
    } catch (const std::bad_alloc &) {
        sw_ematch_item_cache_destroy(0, stored);
        throw;
    }
    keys_ += rivals == 0;
    contested_ += rivals == 1;
}

void arbiter::drop(sw_ematch_item *rule)
{
    const auto [first, last] = rules_.equal_range(rule);
    const auto other = std::find_if(first, last, [rule](const sw_ematch_item *each) { return each != rule; });
    // A key that it stands for is noted by another of its rules, if there is one.
    for (noted_keys *noted : {&deciding_, &noted_}) {
        const auto at = noted->find(rule);
        if (at == noted->end() || at->first != rule)
            continue;
        auto node = noted->extract(at);
        if (other == last)
            continue;
        node.key() = *other;
        noted->insert(std::move(node));
    }
    const auto rivals = std::distance(first, last) - 1;
    keys_ -= rivals == 0;
    contested_ -= rivals == 1;
    rules_.erase(std::find(first, last, rule));
    sw_ematch_item_cache_destroy(0, rule);
}

void arbiter::note(sw_ematch_item *rule, bool publish)
{
    auto at = deciding_.find(rule);
    if (at == deciding_.end())
        at = noted_.try_emplace(rule, false).first;
    at->second = at->second || publish;
    if (serving_)
        schedule();
}

// Visits one rule of each key, with the number of the key's rules.
template <typename Visit>
void arbiter::for_each_key(Visit visit) const
{
    for (auto at = rules_.begin(); at != rules_.end();) {
        const auto last = rules_.equal_range(*at).second;
        visit(*at, static_cast<size_t>(std::distance(at, last)));
        at = last;
    }
}

// ---- verdicts -------------------------------------------------------------------------------------------------------

void arbiter::pass()
{
    follow_order();
    for (size_t i = 0; i < KEYS_OF_A_PASS && under_way_ < WINDOW && waiting() > 0; ++i) {
        if (deciding_.empty())
            deciding_.swap(noted_);
        if (!decide(deciding_.begin()))
            return;
        if (deciding_.empty())
            tell_of_start();
    }
    if (waiting() == 0)
        tell_of_start();
    else if (under_way_ < WINDOW)
        schedule();
}

void arbiter::tell_of_start()
{
    if (!std::exchange(told_of_start_, true))
        log(EBRIDGED_LOG_INFO, "%zu rules with %zu keys are decided", rules_.size(), keys_);
}

void arbiter::follow_order()
{
    std::vector<const sw_ebridge_list_item *> now;
    now.reserve(sw_ebridge_list_item_hash_size(0));  // nothing may be thrown through the library
    sw_ebridge_list_for_each(
        0,
        [](sw_ebridge_list_item *user, void *to, int32_t) {
            static_cast<decltype(now) *>(to)->push_back(user);
            return 0;
        },
        &now);
    if (now == users_)
        return;
    const std::unordered_set<const sw_ebridge_list_item *> known(users_.begin(), users_.end());
    auto left = now;
    std::erase_if(left, [&known](const auto *user) { return !known.contains(user); });
    if (left != users_)
        for_each_key([this](sw_ematch_item *rule, size_t rivals) {
            if (rivals > 1)
                note(rule, false);
        });
    users_ = std::move(now);
}

// False: the store takes no results now.
bool arbiter::decide(noted_keys::iterator noted)
{
    const auto [first, last] = rules_.equal_range(noted->first);
    for (auto each = first; each != last; ++each)
        (*each)->final_result = NO_PART;
    sw_ematch_calc_final_values(handle_, rule_record(*noted->first).index(), 0);
    ++calculations_;
    // From here on, as a part of them may be written.
    noted->second = noted->second || std::any_of(first, last, [](const sw_ematch_item *each) {
                        return each->final_result != NO_PART && each->final_result != each->current_result;
                    });
    for (auto each = first; noted->second && each != last; ++each) {
        if ((*each)->final_result == NO_PART)
            continue;
        tell(**each);
        (*each)->current_result = (*each)->final_result;
        const int32_t code = write_result(**each);
        if (passes(code))
            retry_later();
        if (passes(code) || code == QZ_MOM_EFENCED)
            return false;
    }
    deciding_.erase(noted);
    return true;
}

void arbiter::tell(const sw_ematch_item &rule) const
{
    if (rule.final_result != rule.current_result)
        log(EBRIDGED_LOG_DEBUG, "database %u, %s: %s", rule.mom_db, rule_words(*rule_record(rule).index()).text,
            rule.final_result == U_BRIDGE__MATCH_RESULT__SUCCESS ? "holds" : "lost to a higher priority");
}

// The update leaves an expiry mark alone, and brings no rule back that its owner has deleted meanwhile.
int32_t arbiter::write_result(const sw_ematch_item &rule)
{
    const rule_record written(rule);
    const int32_t code =
        qz_mom_hmupdate(handle_, rule.mom_db, written.message(), &RESULT_FIELD, 1, on_written, number_arg());
    if (code == QZ_MOM_OK) {
        ++under_way_;
        ++results_;
    } else if (!passes(code) && code != QZ_MOM_EFENCED) {
        log(EBRIDGED_LOG_ERROR, "database %u, %s: cannot be written: %s", rule.mom_db,
            rule_words(*written.index()).text, qz_mom_strerror(code));
    }
    return code;
}

// A result that the store had taken over and could not write after all.
void arbiter::write_failed(const qz_mom_notification &msg)
{
    if (msg.error == QZ_MOM_EFENCED)
        return;
    log(EBRIDGED_LOG_ERROR, "database %u, %s: write failed: %s", msg.db, msg.key, qz_mom_strerror(msg.error));
    if (!passes(msg.error))
        return;
    const auto free = [](ProtobufCMessage *each) { protobuf_c_message_free_unpacked(each, nullptr); };
    const std::unique_ptr<ProtobufCMessage, decltype(free)> key(qz_mom_key_parse(all_rules().base.descriptor, msg.key),
                                                                free);
    if (!key)
        return;
    sw_ematch_item *const rule = find(*reinterpret_cast<const UBridge__EmatchEntry *>(key.get()));
    if (!rule)
        return;
    retry_later();
    note(rule, true);
}

// As soon as what waits now has been heard.
void arbiter::schedule()
{
    if (pass_pending_ || retry_pending_)
        return;
    pass_pending_ = qz_thread_call(qz_mom_handle_master(handle_), on_pass, number_arg()) == 0;
    if (!pass_pending_)
        retry_later();
}

void arbiter::retry_later()
{
    if (retry_pending_)
        return;
    retry_pending_ = qz_thread_call_after(qz_mom_handle_master(handle_), RETRY_USEC, on_retry, number_arg()) == 0;
    if (!retry_pending_)
        log(EBRIDGED_LOG_ERROR, "no timer: %zu match keys wait for the next change", waiting());
}

// ---- callbacks ------------------------------------------------------------------------------------------------------

int32_t arbiter::on_written(qz_mom_handle *, const qz_mom_notification *msg, void *number)
{
    arbiter *const self = arbiters::find(number);
    if (!self)
        return 0;
    if (msg->error != QZ_MOM_OK)
        self->write_failed(*msg);
    --self->under_way_;
    if (self->waiting() > 0 && self->under_way_ <= WINDOW / 2)
        self->schedule();
    return 0;
}

void arbiter::on_pass(void *number)
{
    arbiter *const self = arbiters::find(number);
    if (!self)
        return;
    self->pass_pending_ = false;
    try {
        self->pass();
    } catch (const std::bad_alloc &) {
        self->retry_later();
    }
}

void arbiter::on_retry(void *number)
{
    arbiter *const self = arbiters::find(number);
    if (!self)
        return;
    self->retry_pending_ = false;
    self->schedule();
}

}  // namespace ebridged
