// See world.hpp.
#include "world.hpp"

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "sw_ebridge.h"

namespace fault
{

namespace
{

constexpr uint32_t LAST_KEY = 9'000'000;  // of the users' last requests
constexpr size_t MOST_SHOWN = 20;

std::string new_folder()
{
    std::string name = (std::filesystem::temp_directory_path() / "ebridge-fault-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
        throw std::runtime_error("no temporary folder");
    return name;
}

uint32_t seed_of_this_run()
{
    const char *wanted = std::getenv("EBRIDGE_FAULT_SEED");
    return wanted != nullptr ? static_cast<uint32_t>(std::strtoul(wanted, nullptr, 10)) : 1;
}

// A scan under way.
struct reading {
    const std::function<void(const qz_mom_notification &)> &each;
    bool over = false;
    bool failed = false;

    static int32_t hear(qz_mom_handle *, const qz_mom_notification *msg, void *self)
    {
        auto &its = *static_cast<reading *>(self);
        its.failed = its.failed || msg->error != 0;
        its.over = its.failed || msg->end == QZ_MOM_END_SCAN;
        if (!its.over)
            its.each(*msg);
        return 0;
    }
};

template <typename session>
void note(const session &record, table of, int32_t keyid, int32_t keyid2, session_ids &found)
{
    const bridge_key key{of, static_cast<uint32_t>(record.index->type), static_cast<uint32_t>(keyid),
                         static_cast<uint32_t>(keyid2)};
    found[{record.index->t_user, key}] = record.reply == 0 ? 0 : static_cast<uint32_t>(record.reply_value);
}

void note(const qz_mom_notification &msg, table of, session_ids &found)
{
    const auto *record = static_cast<const qz_mom_hash_value *>(msg.value)->record;
    if (of == table::evlan) {
        const auto &evlan = *reinterpret_cast<const UBridge__EvlanSession *>(record);
        note(evlan, of, evlan.index->keyid, 0, found);
    } else {
        const auto &eport = *reinterpret_cast<const UBridge__EportSession *>(record);
        note(eport, of, eport.index->keyid1, eport.index->keyid2, found);
    }
}

void add_line(const std::string &line, user_view &to, bool *idle)
{
    using kind = event::kind;
    static const std::map<std::string, kind> events = {{"started", kind::started},   {"requested", kind::requested},
                                                       {"released", kind::released}, {"granted", kind::granted},
                                                       {"refused", kind::refused},   {"removed", kind::removed}};
    std::istringstream words(line);
    std::string what, of;
    session_name who;
    uint32_t id = 0;
    words >> what >> who.user >> of >> who.key.type >> who.key.keyid >> who.key.keyid2 >> id;
    who.key.of = of == "eport" ? table::eport : table::evlan;
    if (const auto known = events.find(what); known != events.end())
        to.events.push_back({known->second, who, id});
    else if (what == "view")
        to.maps = {{table::evlan, {}}};
    else if (what == "forward")
        to.maps.at(who.key.of).id_of[who.key] = id;
    else if (what == "backward")
        to.maps.at(who.key.of).key_of[id] = who.key;
    else if (what == "idle" || what == "busy")
        *idle = what == "idle";
    else if (what == "error")
        ADD_FAILURE() << to.name << ": a call failed: " << line;
}

}  // namespace

FaultWorld::FaultWorld() : folder_(new_folder()), url_(redis_.url()), seed_(seed_of_this_run()), random_(seed_) {}

FaultWorld::~FaultWorld()
{
    users_.clear();
    services_.clear();
    std::error_code ignored;
    if (!HasFailure() || std::getenv("EBRIDGE_FAULT_KEEP") == nullptr)
        std::filesystem::remove_all(folder_, ignored);
}

uint32_t FaultWorld::draw(uint32_t from, uint32_t to)
{
    return from + static_cast<uint32_t>(random_()) % (to - from + 1);
}

process &FaultWorld::start_service()
{
    const std::string file = place("service" + std::to_string(services_.size() + 1));
    services_.push_back(std::make_unique<process>(std::vector<std::string>{EBRIDGED_PROGRAM, "--store", url_}, file));
    process &made = *services_.back();
    const char *const sign = services_.size() == 1 ? "serving, " : "standing by";
    if (!wait_until([&] { return made.count(sign) > 0; }))
        throw std::runtime_error("the allocator does not start: " + made.words());
    return made;
}

process &FaultWorld::start_user(const std::string &name, scope of)
{
    actor &made = users_[name];
    made.of = of;
    made.runs.reset();
    made.runs = std::make_unique<process>(std::vector<std::string>{ACTOR_PROGRAM, url_, name, of == ALL ? "2" : "0"},
                                          place("user-" + name));
    return *made.runs;
}

void FaultWorld::tell_all(const std::string &command)
{
    for (const auto &[name, each] : users_)
        each.runs->say(command);
}

size_t FaultWorld::grants() const
{
    size_t count = 0;
    for (const auto &[name, each] : users_)
        count += each.runs->count("\ngranted ");
    return count;
}

void FaultWorld::wait_for_grants(size_t count, const std::function<void()> &meanwhile)
{
    const bool heard = wait_until([&] {
        if (meanwhile && looks_++ % 20 == 0)
            meanwhile();
        return grants() >= count;
    });
    ASSERT_TRUE(heard) << grants() << " of " << count << " grants were heard";
}

user_view FaultWorld::view_of(const std::string &name, const actor &of, bool *idle)
{
    user_view made{name, of.of == ALL, {}, {}};
    std::istringstream words(of.runs->words());
    for (std::string line; std::getline(words, line);)
        add_line(line, made, idle);
    return made;
}

std::vector<user_view> FaultWorld::look(bool *all_idle)
{
    const std::string number = std::to_string(++looks_);
    tell_all("view " + number);
    *all_idle = true;
    std::vector<user_view> views;
    for (const auto &[name, each] : users_) {
        const process &runs = *each.runs;
        if (!wait_until([&] { return runs.count("\nend - evlan 0 0 0 " + number + '\n') == 1; }))
            throw std::runtime_error(name + " does not answer");
        bool idle = false;
        views.push_back(view_of(name, each, &idle));
        *all_idle = *all_idle && idle;
    }
    return views;
}

void FaultWorld::wait_until_idle(const std::function<void()> &meanwhile)
{
    const bool idle = wait_until([&] {
        if (meanwhile)
            meanwhile();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        bool all_idle = false;
        look(&all_idle);
        return all_idle;
    });
    ASSERT_TRUE(idle) << "some requests are never answered";
}

void FaultWorld::read_records(uint32_t db, const ProtobufCMessage &pattern,
                              const std::function<void(const qz_mom_notification &)> &each) const
{
    qz_thread_master *const master = qz_thread_master_create(QZ_THREAD_CLOCK_REAL);
    qz_mom_handle *handle = nullptr;
    if (master == nullptr || qz_mom_client_open(redis_.url().c_str(), master, &handle) != 0)
        throw std::runtime_error("the store cannot be opened");
    reading its{.each = each};
    if (qz_mom_scan(handle, db, &pattern, 0, reading::hear, &its) != 0)
        throw std::runtime_error("the store cannot be read");
    const bool over = wait_until([&] { return qz_thread_run_pending(master, 0) >= 0 && its.over; });
    qz_mom_client_close(handle);
    qz_thread_master_free(master);
    if (!over || its.failed)
        throw std::runtime_error("the store is not read to its end");
}

store_view FaultWorld::read_store() const
{
    UBridge__EvlanAppIndex evlan_index = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    UBridge__EvlanSession evlans = U_BRIDGE__EVLAN_SESSION__INIT;
    evlans.index = &evlan_index;
    UBridge__EportAppIndex eport_index = U_BRIDGE__EPORT_APP_INDEX__INIT;
    UBridge__EportSession eports = U_BRIDGE__EPORT_SESSION__INIT;
    eports.index = &eport_index;
    store_view seen;
    const auto read = [&](uint32_t db, session_ids *found) {
        read_records(db, evlans.base, [=](const qz_mom_notification &msg) { note(msg, table::evlan, *found); });
        read_records(db, eports.base, [=](const qz_mom_notification &msg) { note(msg, table::eport, *found); });
    };
    read(SW_EBRIDGE_APP_DB, &seen.sessions);
    read(SW_EBRIDGE_UDP_DB, &seen.mirrors);
    return seen;
}

void FaultWorld::expect_the_ledger_to_be_clean(const excuses &excused)
{
    uint32_t key = LAST_KEY;
    for (const auto &[name, each] : users_) {
        each.runs->say("want evlan " + std::to_string(U_BRIDGE__EVLAN_TYPE__VXLAN) + ' ' + std::to_string(++key) +
                       " 1");
        each.runs->say("want eport " + std::to_string(U_BRIDGE__EPORT_TYPE__VXLAN_AC) + ' ' + std::to_string(key) +
                       " 1");
    }
    std::vector<std::string> wrong;
    store_view seen;
    wait_until([&] {
        bool all_idle = false;
        const auto views = look(&all_idle);
        seen = read_store();
        wrong = ledger(seen, views, excused);
        if (!all_idle)
            wrong.push_back("some requests are not answered yet");
        return wrong.empty();
    });
    for (size_t i = 0; i < std::min(wrong.size(), MOST_SHOWN); ++i)
        ADD_FAILURE() << wrong[i] << (i == 0 ? ", seed " + std::to_string(seed_) : "");
    EXPECT_LE(2 * users_.size(), seen.sessions.size());
    for (const auto &[name, each] : users_)
        EXPECT_FALSE(each.runs->ended_by_itself()) << name;
    for (const auto &each : services_)
        EXPECT_FALSE(each->ended_by_itself()) << each->words();
}

}  // namespace fault
