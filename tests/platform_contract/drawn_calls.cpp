// The calls, the states that they lead to, and the comparison with what was heard.
#include "drawn_calls.hpp"

#include <algorithm>
#include <cstdlib>

namespace contract
{
namespace
{

constexpr uint32_t FIELDS[] = {6, 8, 10, 11};
// Names that would match each other as patterns.
const char *const USERS[] = {"w*", "w?", "w[*?]"};
constexpr int32_t TYPES[] = {16, 32};
constexpr int32_t KEYIDS = 4;  // 0, which matches any in a pattern, among them
constexpr int64_t AGE_FOR_GOOD = 3600;

uint32_t from_environment(const char *name, uint32_t otherwise)
{
    const char *given = std::getenv(name);
    return given == nullptr ? otherwise : static_cast<uint32_t>(std::strtoul(given, nullptr, 10));
}

int32_t &field_of(session &what, uint32_t field)
{
    switch (field) {
        case 6:
            return what.request_value;
        case 8:
            return what.request;
        case 10:
            return what.reply_value;
        default:
            return what.reply;
    }
}

std::string name_of(uint32_t field)
{
    return protobuf_c_message_descriptor_get_field(&u_bridge__evlan_session__descriptor, field)->name;
}

std::string names_of(const std::vector<uint32_t> &fields)
{
    std::string names;
    for (const uint32_t field : fields)
        names += (names.empty() ? "" : ",") + name_of(field);
    return names;
}

session key_of(const session &what) { return {.user = what.user, .type = what.type, .keyid = what.keyid}; }

bool matches(const session &pattern, const session &key)
{
    return (pattern.user.empty() || pattern.user == key.user) && (pattern.type == 0 || pattern.type == key.type) &&
           (pattern.keyid == 0 || pattern.keyid == key.keyid);
}

bool removes(int32_t cmd) { return cmd == QZ_MOM_CMD_DEL || cmd == QZ_MOM_CMD_EXPIRED; }

std::string text_of(const session &what) { return testing::PrintToString(what); }

std::map<session, std::vector<heard>> by_record(const std::vector<heard> &all)
{
    std::map<session, std::vector<heard>> found;
    for (const auto &each : all)
        for (const auto &what : sessions({each})) {
            char text[200];
            qz_mom_key_text(session_record(what).message(), text, sizeof text);
            EXPECT_EQ(text, each.key);
            EXPECT_EQ(app_db, each.db);
            found[key_of(what)].push_back(each);
        }
    return found;
}

std::string text_of(const std::vector<heard> &told)
{
    std::string text;
    for (const auto &each : told)
        text += "\n    " + std::to_string(each.cmd) + ' ' + each.field + ' ' + text_of(session_of(*each.record));
    return text;
}

}  // namespace

bool DrawnCalls::change::is_removal() const { return removes(cmd); }

bool DrawnCalls::change::concerns(uint32_t field) const
{
    return field == 0 || fields.empty() || std::ranges::find(fields, field) != fields.end();
}

bool DrawnCalls::asked::is_over() const { return !has_callback || marks != 0 || !heard.all.empty(); }

// ---- sequences ------------------------------------------------------------------------------------------------------

void DrawnCalls::run_sequences(uint32_t count)
{
    const uint32_t first = from_environment("EBRIDGE_DRAWN_SEED", 1);
    count = from_environment("EBRIDGE_DRAWN_SEQUENCES", count);
    ASSERT_NE(0u, count) << "EBRIDGE_DRAWN_SEQUENCES";
    if (lose_)
        store_may_be_away();
    for (uint32_t seed = first; seed != first + count; ++seed) {
        SCOPED_TRACE("EBRIDGE_DRAWN_SEED=" + std::to_string(seed));
        random_.seed(seed);
        before_each_(seed);
        run_sequence();
        if (HasFailure())
            return;
    }
}

void DrawnCalls::run_sequence()
{
    open_writers();
    for (uint32_t rounds = 2 + below(4); rounds != 0 && !HasFailure(); --rounds)
        draw_round();
    if (HasFailure())
        return;
    remove_all();
    settle_all();
    for (auto *each : writers_)
        close(each);
    writers_.clear();
    records_.clear();
    asked_.clear();
    followings_.clear();
    last_answered_.clear();
}

void DrawnCalls::open_writers()
{
    for (size_t i = 0; i < urls_.size(); ++i) {
        writers_.push_back(open(urls_[i]));
        for (const int32_t type : TYPES)
            for (int32_t keyid = 0; keyid < KEYIDS; ++keyid)
                records_.push_back({writers_[i], {.user = USERS[i], .type = type, .keyid = keyid}});
    }
    settle();
}

void DrawnCalls::draw_round()
{
    for (uint32_t calls = 1 + below(100); calls != 0; --calls) {
        draw_call();
        if (one_in(8))
            run_once();
        if (lose_ && one_in(50))
            lose_or_bring_back();
    }
    if (one_in(3)) {  // only these are left in the round: it does not matter when they fire, nor which
        expire_in(draw_record(), {0, 100000});
        expire_in(draw_record(), {0, 100000});
        pass_time(150);
    }
    settle_all();
}

void DrawnCalls::lose_or_bring_back()
{
    calls_.emplace_back(is_away_ ? "(back)" : "(away)");
    if (is_away_)
        bring_back_();
    else
        lose_(below(1000));
    is_away_ = !is_away_ && bring_back_;
    was_lost_ = true;
}

void DrawnCalls::draw_call()
{
    auto &of = draw_record();
    const uint32_t lot = below(100);
    if (lot < 50)
        write_fields(of);
    else if (lot < 57)
        write_whole(of);
    else if (lot < 69)
        remove(of);
    else if (lot < 79)
        expire_in(of, one_in(2) ? qz_mom_timeval{0, 0} : qz_mom_timeval{AGE_FOR_GOOD, 0});
    else if (lot < 84)
        clear_mark(of);
    else if (lot < 88)
        remove_marked(of);
    else if (lot < 92)
        begin_scan();
    else if (lot < 97)
        begin_to_follow();
    else
        end_following();
}

// One call for all writers' records: nothing else is under way.
void DrawnCalls::remove_all()
{
    const qz_mom_timeval now{0, 0};
    auto *by = writers_.front();
    auto *call =
        make_call({.call = "all expire", .end = QZ_MOM_END_EXPIRY, .has_callback = true}, [&](auto *cb, void *args) {
            return qz_mom_pexpire(by, app_db, session_record(any_session()).message(), QZ_MOM_EXPIRE_PATTERN, &now, cb,
                                  args);
        });
    ASSERT_NE(nullptr, call);
    for (auto *each : matching(any_session(), false, nullptr)) {
        unmark(*each);
        each->history.push_back({QZ_MOM_CMD_EXPIRED, {}, each->history.back().what});
    }
}

// ---- calls ----------------------------------------------------------------------------------------------------------

DrawnCalls::record &DrawnCalls::draw_record() { return records_[below(static_cast<uint32_t>(records_.size()))]; }

qz_mom_handle *DrawnCalls::draw_writer() { return writers_[below(static_cast<uint32_t>(writers_.size()))]; }

session DrawnCalls::draw_pattern(const session &key)
{
    session pattern = key;
    if (one_in(2))
        pattern.keyid = 0;
    if (one_in(3))
        pattern.type = 0;
    return pattern;
}

// Of one user's records, or of all users'.
session DrawnCalls::draw_pattern_of_any()
{
    session pattern = draw_pattern(draw_record().key);
    if (one_in(2))
        pattern.user.clear();
    return pattern;
}

// Most are used once.
int32_t DrawnCalls::draw_value() { return one_in(4) ? static_cast<int32_t>(below(4)) : ++last_value_; }

std::vector<uint32_t> DrawnCalls::draw_fields()
{
    std::vector<uint32_t> fields;
    while (fields.empty())
        std::ranges::copy_if(FIELDS, std::back_inserter(fields), [&](uint32_t) { return one_in(2); });
    return fields;
}

// Null: the call was refused, as it may be at once for what it would be answered, and while the store is away.
DrawnCalls::asked *DrawnCalls::make_call(asked what, const maker &make)
{
    auto &call = asked_.emplace_back(std::move(what));
    if (call.end == QZ_MOM_END_NONE) {
        call.heard.also = [this, &call, number = ++calls_made_](qz_mom_handle *by, const qz_mom_notification &) {
            EXPECT_LT(last_answered_[by], number) << "not in call order" << about(call.call);
            last_answered_[by] = number;
        };
    }
    const int32_t code = call.has_callback ? make(listener::hear, &call.heard) : make(nullptr, nullptr);
    if (is_taken(code, call.call, call.error))
        return &call;
    asked_.pop_back();
    return nullptr;
}

bool DrawnCalls::is_taken(int32_t code, const std::string &call, int32_t error)
{
    calls_.push_back(call + (code != 0 ? std::string(": ") + qz_mom_strerror(code) : ""));
    EXPECT_TRUE(code == 0 || code == error || (code == QZ_MOM_EDOWN && was_lost_)) << about(call);
    return code == 0;
}

void DrawnCalls::write_fields(record &of)
{
    const bool is_update = one_in(4);
    const auto fields = draw_fields();
    session what = of.key;
    session now = of.exists() ? of.history.back().what : of.key;
    for (const uint32_t field : fields)
        field_of(now, field) = field_of(what, field) = draw_value();
    const int32_t error = of.is_whole() ? QZ_MOM_EFORM : 0;
    const auto *call = make_call({.call = (is_update ? "hmupdate " : "hmset ") + text_of(what) + ' ' + names_of(fields),
                                  .has_callback = one_in(2),
                                  .error = error},
                                 [&](auto *cb, void *args) {
                                     return (is_update ? qz_mom_hmupdate : qz_mom_hmset)(
                                         of.writer, app_db, session_record(what).message(), fields.data(),
                                         static_cast<uint32_t>(fields.size()), cb, args);
                                 });
    if (call == nullptr || error != 0 || (is_update && !of.exists()))
        return;
    if (!is_update)
        unmark(of);
    of.history.push_back({fields.size() == 1 ? QZ_MOM_CMD_HSET : QZ_MOM_CMD_HMSET, fields, now});
}

void DrawnCalls::write_whole(record &of)
{
    session what = of.key;
    what.request_value = draw_value();
    const int32_t error = of.exists() && !of.is_whole() ? QZ_MOM_EFORM : 0;
    const auto *call = make_call(
        {.call = "set " + text_of(what), .has_callback = one_in(2), .error = error},
        [&](auto *cb, void *args) { return qz_mom_set(of.writer, app_db, session_record(what).message(), cb, args); });
    if (call == nullptr || error != 0)
        return;
    unmark(of);
    of.history.push_back({QZ_MOM_CMD_SET, {}, what});
}

void DrawnCalls::remove(record &of)
{
    const auto *call =
        make_call({.call = "del " + text_of(of.key), .has_callback = one_in(2)}, [&](auto *cb, void *args) {
            return qz_mom_del(of.writer, app_db, session_record(of.key).message(), cb, args);
        });
    if (call == nullptr || !of.exists())
        return;
    unmark(of);
    of.history.push_back({QZ_MOM_CMD_DEL, {}, of.history.back().what});
}

// With a delay that has passed when anything else is done, they are gone.
void DrawnCalls::expire_in(record &of, qz_mom_timeval delay)
{
    const bool is_exact = one_in(2);
    const session what = is_exact ? of.key : draw_pattern(of.key);
    const bool is_waited_for = delay.usec != 0;
    auto *call = make_call({.call = (is_exact ? "expire " : "expire all ") + text_of(what) + " in " +
                                    std::to_string(delay.sec) + '.' + std::to_string(delay.usec),
                            .end = QZ_MOM_END_EXPIRY,
                            .has_callback = is_waited_for || one_in(2)},
                           [&](auto *cb, void *args) {
                               return qz_mom_pexpire(of.writer, app_db, session_record(what).message(),
                                                     is_exact ? QZ_MOM_EXPIRE_EVLAN_SESSION : QZ_MOM_EXPIRE_PATTERN,
                                                     &delay, cb, args);
                           });
    if (call == nullptr)
        return;
    for (auto *each : matching(what, is_exact, of.writer)) {
        unmark(*each);
        if (delay.sec < AGE_FOR_GOOD) {
            each->history.push_back({QZ_MOM_CMD_EXPIRED, {}, each->history.back().what});
        } else {
            each->mark = call;
            ++call->marks;
        }
    }
}

void DrawnCalls::clear_mark(record &of)
{
    const auto *call =
        make_call({.call = "clear " + text_of(of.key), .has_callback = one_in(2)}, [&](auto *cb, void *args) {
            return qz_mom_clear_expire(of.writer, app_db, session_record(of.key).message(), cb, args);
        });
    if (call != nullptr)
        unmark(of);
}

void DrawnCalls::remove_marked(record &of)
{
    const bool is_exact = one_in(2);
    const session what = is_exact ? of.key : draw_pattern(of.key);
    const auto *call = make_call({.call = (is_exact ? "del_expire " : "del_expire all ") + text_of(what),
                                  .end = QZ_MOM_END_EXPIRY,
                                  .has_callback = one_in(2)},
                                 [&](auto *cb, void *args) {
                                     return qz_mom_del_expire(
                                         of.writer, app_db, session_record(what).message(),
                                         is_exact ? QZ_MOM_EXPIRE_EVLAN_SESSION : QZ_MOM_EXPIRE_PATTERN, cb, args);
                                 });
    if (call == nullptr)
        return;
    for (auto *each : matching(what, is_exact, of.writer)) {
        if (each->mark != nullptr) {
            unmark(*each);
            each->history.push_back({QZ_MOM_CMD_DEL, {}, each->history.back().what});
        }
    }
}

void DrawnCalls::begin_scan()
{
    auto *by = draw_writer();
    const session pattern = draw_pattern_of_any();
    auto &scan = scans_.emplace_back(scanning{.call = "scan " + text_of(pattern), .pattern = pattern});
    for (const auto &each : records_)
        scan.begun.push_back(each.writer == by ? each.history.size() : each.settled);
    const int32_t code = qz_mom_scan(by, app_db, session_record(pattern).message(), 0, listener::hear, &scan.heard);
    if (!is_taken(code, scan.call))
        scans_.pop_back();
}

// All that others do behind the confirmation is told; of what they did shortly before it may be told, or be known.
void DrawnCalls::begin_to_follow()
{
    auto *by = draw_writer();
    const session pattern = draw_pattern_of_any();
    const uint32_t field = one_in(2) ? FIELDS[below(std::size(FIELDS))] : 0;
    auto &made = followings_.emplace_back(
        following{.call = "follow " + text_of(pattern) + (field != 0 ? ' ' + name_of(field) : ""),
                  .by = by,
                  .pattern = pattern,
                  .field = field});
    for (const auto &each : records_)
        made.begins.push_back({each.settled, each.history.size()});
    made.heard.also = [this, &made, by](qz_mom_handle *, const qz_mom_notification &what) {
        for (size_t i = 0; what.cmd == QZ_MOM_CMD_SUBSCRIBED && i < records_.size(); ++i)
            if (records_[i].writer != by)
                made.begins[i].to = records_[i].history.size();
    };
    const int32_t code = field == 0 ? follow(by, pattern, made.heard) : follow_field(by, pattern, field, made.heard);
    if (!is_taken(code, made.call))
        followings_.pop_back();
}

void DrawnCalls::end_following()
{
    if (followings_.empty())
        return;
    auto each = followings_.begin();
    std::advance(each, below(static_cast<uint32_t>(followings_.size())));
    if (!each->goes_on)
        return;
    const int32_t code =
        qz_mom_unsubscribe(each->by, app_db, session_record(each->pattern).message(), listener::hear, &each->heard);
    each->goes_on = !is_taken(code, "no more of " + each->call);
}

// ---- what has to be ---------------------------------------------------------------------------------------------------

std::vector<DrawnCalls::record *> DrawnCalls::matching(const session &pattern, bool is_exact,
                                                       const qz_mom_handle *writer)
{
    std::vector<record *> found;
    for (auto &each : records_)
        if ((writer == nullptr || each.writer == writer) && each.exists() &&
            (is_exact ? each.key == pattern : matches(pattern, each.key)))
            found.push_back(&each);
    return found;
}

void DrawnCalls::unmark(record &what)
{
    if (what.mark != nullptr)
        --what.mark->marks;
    what.mark = nullptr;
}

void DrawnCalls::settle_all()
{
    if (is_away_)
        lose_or_bring_back();
    settle();
    run_until([&] { return is_all_over(); });
    compare_with_store();  // a table that is read anew is read to its end before a scan is
    settle();
    if (HasFatalFailure()) {
        ADD_FAILURE() << about("this round");
        return;
    }
    std::ranges::for_each(asked_, [&](const auto &each) { check_answer(each); });
    std::ranges::for_each(scans_, [&](const auto &each) { check_scan(each); });
    std::ranges::for_each(followings_, [&](const auto &each) { check_following(each); });
    begin_next_round();
}

bool DrawnCalls::is_all_over() const
{
    return std::ranges::all_of(asked_, &asked::is_over) &&
           std::ranges::all_of(scans_, [](const auto &each) { return each.heard.ends(QZ_MOM_END_SCAN) != 0; }) &&
           std::ranges::all_of(followings_, [](const auto &each) {
               return (each.is_confirmed || each.heard.count(QZ_MOM_CMD_SUBSCRIBED) != 0) &&
                      (each.goes_on || each.heard.count(QZ_MOM_CMD_UNSUBSCRIBED) != 0);
           });
}

void DrawnCalls::compare_with_store()
{
    std::vector<session> expected;
    for (const auto *each : matching(any_session(), false, nullptr))
        expected.push_back(each->history.back().what);
    std::ranges::sort(expected);
    for (auto *each : writers_)
        EXPECT_EQ(expected, scan(each, any_session())) << about("all that is there");
}

// What is known to have been told is not looked at again.
void DrawnCalls::begin_next_round()
{
    for (auto &each : records_)
        each.settled = each.history.size();
    for (auto &each : followings_) {
        each.heard.all.clear();
        each.is_confirmed = true;
        for (size_t i = 0; i < records_.size(); ++i)
            each.begins[i] = {records_[i].settled, records_[i].settled};
    }
    scans_.clear();
    asked_.remove_if([](const auto &each) { return each.marks == 0; });
    followings_.remove_if([](const auto &each) { return !each.goes_on; });
    calls_.clear();
    was_lost_ = false;
}

void DrawnCalls::check_answer(const asked &what) const
{
    EXPECT_EQ(what.has_callback && what.marks == 0 ? 1u : 0u, what.heard.all.size()) << about(what.call);
    for (const auto &answer : what.heard.all) {
        EXPECT_EQ(what.error, answer.error) << about(what.call);
        EXPECT_EQ(what.end, answer.end) << about(what.call);
        EXPECT_EQ(QZ_MOM_CMD_NONE, answer.cmd) << about(what.call);
    }
}

void DrawnCalls::check_following(const following &by) const
{
    EXPECT_EQ(by.is_confirmed ? 0u : 1u, by.heard.count(QZ_MOM_CMD_SUBSCRIBED)) << about(by.call);
    EXPECT_EQ(by.goes_on ? 0u : 1u, by.heard.count(QZ_MOM_CMD_UNSUBSCRIBED)) << about(by.call);
    if (!by.goes_on) {
        ASSERT_FALSE(by.heard.all.empty()) << about(by.call);
        EXPECT_EQ(QZ_MOM_CMD_UNSUBSCRIBED, by.heard.all.back().cmd) << about(by.call);
    }
    auto told = by_record(by.heard.changes());
    for (size_t i = 0; i < records_.size(); ++i) {
        const auto of_this = told.extract(records_[i].key);
        if (!matches(by.pattern, records_[i].key))
            EXPECT_TRUE(of_this.empty()) << text_of(records_[i].key) << about(by.call);
        else if (was_lost_)
            check_last_change(by, i, of_this.empty() ? std::vector<heard>{} : of_this.mapped());
        else
            check_every_change(by, i, of_this.empty() ? std::vector<heard>{} : of_this.mapped());
    }
    EXPECT_TRUE(told.empty()) << "heard of a record that nobody wrote" << about(by.call);
}

bool DrawnCalls::tells(const heard &told, const change &of, uint32_t field)
{
    const std::string names = field != 0 ? name_of(field) : names_of(of.fields);
    return told.cmd == of.cmd && told.error == 0 && session_of(*told.record) == of.what && told.field == names;
}

void DrawnCalls::check_every_change(const following &by, size_t number, const std::vector<heard> &told) const
{
    const auto &history = records_[number].history;
    for (size_t begin = by.begins[number].from; begin <= by.begins[number].to; ++begin) {
        size_t at = 0;
        bool is_told = true;
        for (size_t i = begin; i < history.size() && is_told; ++i) {
            if (!history[i].concerns(by.field))
                continue;
            if (at == told.size() && !by.goes_on)
                break;  // how much of the round was told before the end is left open
            is_told = at < told.size() && tells(told[at], history[i], by.field);
            ++at;
        }
        if (is_told && at == told.size())
            return;
    }
    ADD_FAILURE() << "not what happened: " << text_of(told) << about(by.call, &records_[number]);
}

void DrawnCalls::check_last_change(const following &by, size_t number, const std::vector<heard> &told) const
{
    const auto &of = records_[number];
    const auto [from, to] = by.begins[number];
    const auto concerns = [&](const change &each) { return each.concerns(by.field); };
    if (!by.goes_on)
        return;
    const bool is_removed = !told.empty() && removes(told.back().cmd);
    bool is_right = false;
    if (told.empty()) {
        // Whoever began when there was no record need not hear of one that came and went.
        const auto was_absent = [&](size_t i) { return i == 0 || of.history[i - 1].is_removal(); };
        bool may_have_begun_without = false;
        for (size_t i = from; i <= to; ++i)
            may_have_begun_without = may_have_begun_without || was_absent(i);
        is_right = std::none_of(of.history.begin() + static_cast<ptrdiff_t>(to), of.history.end(), concerns) ||
                   (!of.exists() && may_have_begun_without);
    } else if (is_removed || !of.exists()) {
        const auto last =
            std::find_if(of.history.rbegin(), of.history.rend(), [](auto &each) { return each.is_removal(); });
        is_right = is_removed && std::none_of(of.history.rbegin(), last, concerns);
    } else {
        session heard_of = session_of(*told.back().record);
        session now = of.history.back().what;
        is_right = by.field == 0 ? heard_of == now : field_of(heard_of, by.field) == field_of(now, by.field);
    }
    EXPECT_TRUE(is_right) << "ends otherwise than the store: " << text_of(told) << about(by.call, &of);
}

void DrawnCalls::check_scan(const scanning &by) const
{
    ASSERT_EQ(1u, by.heard.ends(QZ_MOM_END_SCAN)) << about(by.call);
    EXPECT_EQ(QZ_MOM_END_SCAN, by.heard.all.back().end) << about(by.call);
    EXPECT_EQ(0, by.heard.all.back().error) << about(by.call);
    auto found = by_record(by.heard.changes());
    for (size_t i = 0; i < records_.size(); ++i) {
        const auto &of = records_[i];
        const auto of_this = found.extract(of.key);
        if (!matches(by.pattern, of.key)) {
            EXPECT_TRUE(of_this.empty()) << text_of(of.key) << about(by.call);
            continue;
        }
        bool is_right = of_this.empty() && by.begun[i] == 0;
        for (size_t state = std::max<size_t>(by.begun[i], 1); state <= of.history.size() && !is_right; ++state)
            is_right = of_this.empty()
                           ? of.history[state - 1].is_removal()
                           : of_this.mapped().size() == 1 && shows(of_this.mapped()[0], of.history[state - 1]);
        EXPECT_TRUE(is_right) << "found: " << (of_this.empty() ? "nothing" : text_of(of_this.mapped()))
                              << about(by.call, &of);
    }
    EXPECT_TRUE(found.empty()) << "found a record that nobody wrote" << about(by.call);
}

// As a scan does.
bool DrawnCalls::shows(const heard &found, const change &of)
{
    return !of.is_removal() && session_of(*found.record) == of.what && found.error == 0 &&
           found.cmd == (of.cmd == QZ_MOM_CMD_SET ? QZ_MOM_CMD_SET : QZ_MOM_CMD_HMSET);
}

// What a failure is told with: the calls of the round, and all that happened to the record.
std::string DrawnCalls::about(const std::string &call, const record *of) const
{
    std::string text = "\n  of: " + call + "\n  calls:";
    for (const auto &each : calls_)
        text += "\n    " + each;
    if (of == nullptr)
        return text;
    text += "\n  " + text_of(of->key) + ", of which " + std::to_string(of->settled) + " changes were heard before:";
    for (const auto &each : of->history)
        text += "\n    " + std::to_string(each.cmd) + ' ' + names_of(each.fields) + ' ' + text_of(each.what);
    return text;
}

}  // namespace contract
