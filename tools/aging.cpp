// A restart of a requester: what it had is marked, and what it did not ask for again is deleted. See session.hpp.
#include <algorithm>

#include "session.hpp"
#include "twin_calls.hpp"

namespace ebridge_tool
{

namespace
{

using mark_call = decltype(&sw_ematch_aging_flag_set);
// Match rules, VLANs of ports and default VLANs; sessions and attributes are marked beside them.
constexpr mark_call MARKS[] = {sw_ematch_aging_flag_set, sw_vlan_ports_aging_flag_set, sw_vlan_port_vid_aging_flag_set};
constexpr decltype(&sw_ematch_aged_data_delete) DELETIONS[] = {
    sw_ematch_aged_data_delete, sw_vlan_port_aged_data_delete, sw_vlan_pvid_aged_data_delete};
constexpr int ALL_MARKS = static_cast<int>(2 * std::size(TWINS) + std::size(MARKS));

bool is_refreshed(const request &of)
{
    return of.requester.answered && of.requester.code == 0 && of.requester.attr_code == 0;
}

}  // namespace

// Each mark tells once when none of what it has marked is left to be refreshed or deleted.
int32_t session::on_marks_ended(qz_mom_handle *, const qz_mom_notification *msg, void *self)
{
    auto *of = static_cast<session *>(self);
    if (msg->error != 0)
        of->marks_error_ = msg->error;
    of->marks_ended_ += msg->end == QZ_MOM_END_EXPIRY;
    of->happened();
    return 0;
}

// The sessions are read first: what the index map does not know of is neither refreshed nor deleted. The marks are set
// before anything that is written after them, so nobody has to wait for them.
bool session::mark_all(std::string *error)
{
    if (!read_own(error))
        return false;
    std::vector<mark_call> marks(std::begin(MARKS), std::end(MARKS));
    for (const twin_calls &twin : TWINS)
        marks.insert(marks.end(), {twin.mark_sessions, twin.mark_attributes});
    for (const auto mark : marks) {
        const auto call = [&] { return mark(requester(), nullptr, on_marks_ended, this); };
        if (const int32_t code = patiently(call); code != 0) {
            *error = "what it had cannot be marked: " + std::to_string(code) + ", " + qz_mom_strerror(code);
            return false;
        }
    }
    return true;
}

// Deletes nothing when something wanted may still be marked.
bool session::delete_marked(const run_options &options, std::string *error)
{
    if (!std::ranges::all_of(own_wanted(), [&](size_t i) { return is_refreshed(requests_->at(i)); }) ||
        !std::ranges::all_of(own_rules(), [&](size_t i) { return rules_->at(i).asked.code == 0; }) ||
        !members_->is_published(users_.requester)) {
        *error = "nothing was deleted: not all that is wanted could be asked for again";
        return false;
    }
    for (const twin_calls &twin : TWINS)
        patiently([&] { return twin.delete_attributes(requester(), nullptr, nullptr); });
    for (const auto deletion : DELETIONS)
        patiently([&] { return deletion(requester(), nullptr, nullptr); });
    if (options.delete_now)
        delete_sessions_now();
    else
        wait_for_age_timer();
    constexpr int64_t DELETED_USEC = 5'000'000;
    constexpr int TRIES = 4;
    const auto over = [this] { return marks_ended_ == ALL_MARKS || marks_error_ != 0; };
    for (int tries = 0; tries < TRIES && !look_until(over, DELETED_USEC); ++tries)
        if (!delete_what_is_left(error))
            return false;
    if (marks_ended_ == ALL_MARKS)
        return true;
    *error = marks_error_ != 0 ? std::string("what it had cannot be marked: ") + qz_mom_strerror(marks_error_)
                               : "some of what was dropped cannot be deleted";
    return false;
}

// The sessions are deleted by the library's own timer, 40 s from now; when nothing is marked any more, nobody waits for
// it.
void session::wait_for_age_timer()
{
    for (const twin_calls &twin : TWINS)
        twin.delete_sessions(requester());
    const sw_ebridge_list_item *user = sw_ebridge_list_item_get(requester());
    constexpr int64_t LOOK_USEC = 100'000;
    const auto over = [&] { return user->age_timer_armed == 0 || marks_ended_ == ALL_MARKS; };
    while (!look_until(over, LOOK_USEC)) {
    }
}

void session::delete_sessions_now()
{
    for (const twin_calls &twin : TWINS)
        twin.delete_sessions_now(sw_ebridge_list_item_get(requester()));
}

// The store was away when the timer fired, or another user's removal has taken a key that both had out of the map. So the
// map is read again; what is wanted in it counts as asked for before anything else can happen.
bool session::delete_what_is_left(std::string *error)
{
    if (!read_own(error))
        return false;
    for (size_t i : own_wanted())
        send(requests_->at(i));
    delete_sessions_now();
    return true;
}

}  // namespace ebridge_tool
