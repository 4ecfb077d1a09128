// See world.hpp.
#include "world.hpp"

#include <array>

namespace road
{

namespace
{

std::array<std::string, 4> names;

std::string to_text(int32_t value)
{
    char text[16];
    std::snprintf(text, sizeof text, value < 0 && value > -100 ? "%d" : "0x%x", static_cast<unsigned>(value));
    return text;
}

std::string asker(const UBridge__EvlanAppIndex *app)
{
    return std::string(app->t_user) + '/' + std::to_string(app->keyid);
}

// The callbacks of user n: the library gives them no argument that says whose they are.
template <int n>
struct listener {
    static int32_t vlan(UBridge__VlanAppIndex *index, int32_t vlan_id);
    static int32_t evlan(UBridge__EvlanAppIndex *app, UBridge__EvlanIndex *evlan);
    static int32_t release(UBridge__EvlanAppIndex *app, UBridge__EvlanIndex *evlan, int32_t event);
};

void add_log(ebridged_log_level, const char *line, void *) { service_log.emplace_back(line); }

template <int n>
int32_t listener<n>::vlan(UBridge__VlanAppIndex *index, int32_t vlan_id)
{
    events.push_back(names[n] + " vlan " + std::to_string(vlan_id) + " for " + index->user + '/' +
                     std::to_string(index->keyid));
    return 0;
}

template <int n>
int32_t listener<n>::evlan(UBridge__EvlanAppIndex *app, UBridge__EvlanIndex *evlan)
{
    events.push_back(names[n] + " evlan " + to_text(evlan->evlan_id) + " for " + asker(app));
    return 0;
}

template <int n>
int32_t listener<n>::release(UBridge__EvlanAppIndex *app, UBridge__EvlanIndex *evlan, int32_t event)
{
    events.push_back(names[n] + " release " + to_text(evlan->evlan_id) + " of " + asker(app) + " event " +
                     std::to_string(event));
    return 0;
}

template <int n>
void set_callbacks(ebridge_args *args)
{
    args->vlan_reply = listener<n>::vlan;
    args->evlan_reply = listener<n>::evlan;
    args->evlan_release_reply = listener<n>::release;
}

uint32_t word(int32_t value) { return static_cast<uint32_t>(value); }

int32_t signed_word(uint32_t value) { return static_cast<int32_t>(value); }

// A session as a message of its kind. It points into the content that it is made from.
class session_message
{
  public:
    explicit session_message(const session &content) : of_(content.of)
    {
        evlan_index_.keyid = eport_index_.keyid2 = signed_word(content.keyid);
        eport_index_.keyid1 = signed_word(content.keyid / 2);
        evlan_.index = &evlan_index_;
        eport_.index = &eport_index_;
        fill(&evlan_, content);
        fill(&eport_, content);
    }
    session_message(const session_message &) = delete;
    session_message &operator=(const session_message &) = delete;

    const ProtobufCMessage *get() const { return of_ == kind::evlan ? &evlan_.base : &eport_.base; }

  private:
    template <typename record>
    static void fill(record *made, const session &content)
    {
        made->index->t_user = const_cast<char *>(content.user.c_str());
        made->index->type = signed_word(content.type);
        made->request_value = signed_word(content.request_value);
        made->request = content.request;
        made->reply_value = signed_word(content.reply_value);
        made->reply = content.reply;
        made->mom_db = content.mom_db;
    }

    kind of_;
    UBridge__EvlanAppIndex evlan_index_ = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    UBridge__EvlanSession evlan_ = U_BRIDGE__EVLAN_SESSION__INIT;
    UBridge__EportAppIndex eport_index_ = U_BRIDGE__EPORT_APP_INDEX__INIT;
    UBridge__EportSession eport_ = U_BRIDGE__EPORT_SESSION__INIT;
};

template <typename record>
session read(const record &from, kind of, int32_t keyid)
{
    return {of,           from.index->t_user,       word(from.index->type),
            word(keyid),  word(from.request_value), from.priority,
            from.request, word(from.reply_value),   from.reply,
            from.mom_db};
}

int32_t collect(qz_mom_handle *, const qz_mom_notification *msg, void *args)
{
    if (msg->cmd != QZ_MOM_CMD_HMSET && msg->cmd != QZ_MOM_CMD_HSET)
        return 0;
    const ProtobufCMessage *message = static_cast<const qz_mom_hash_value *>(msg->value)->record;
    session &found = (*static_cast<std::map<std::string, session> *>(args))[msg->key];
    if (message->descriptor == &u_bridge__evlan_session__descriptor) {
        const auto &evlan = *reinterpret_cast<const UBridge__EvlanSession *>(message);
        found = read(evlan, kind::evlan, evlan.index->keyid);
    } else {
        const auto &eport = *reinterpret_cast<const UBridge__EportSession *>(message);
        found = read(eport, kind::eport, eport.index->keyid2);
    }
    return 0;
}

int32_t note_write(qz_mom_handle *, const qz_mom_notification *msg, void *args)
{
    if (msg->cmd == QZ_MOM_CMD_SUBSCRIBED)
        return 0;
    std::string line = std::to_string(msg->cmd);
    if (msg->field[0] != '\0')
        line += std::string(" ") + msg->field;
    static_cast<std::vector<std::string> *>(args)->push_back(line);
    return 0;
}

}  // namespace

world::world() : master(qz_thread_master_create(QZ_THREAD_CLOCK_DRIVEN))
{
    const std::string url = std::string("mem:") + STORE;
    EXPECT_EQ(qz_mom_client_open(url.c_str(), master, &users), 0);
    EXPECT_EQ(qz_mom_client_open(url.c_str(), master, &serving), 0);
}

world::~world()
{
    ebridged_stop(service);
    qz_mom_client_close(serving);
    qz_mom_client_close(users);
    qz_thread_master_free(master);
}

void world::start_service(std::vector<uint32_t> databases)
{
    if (!serving) {
        ASSERT_EQ(qz_mom_client_open((std::string("mem:") + STORE).c_str(), master, &serving), 0);
    }
    const ebridged_options options{.databases = databases.data(),
                                   .database_count = static_cast<uint32_t>(databases.size()),
                                   .log = add_log,
                                   .log_args = nullptr,
                                   .log_level = 0};
    ASSERT_EQ(ebridged_start(serving, &options, &service), 0);
    settle();
    ASSERT_EQ(stat().serving, 1U);
}

void world::stop_service()
{
    ebridged_stop(service);
    service = nullptr;
}

void world::kill_service()
{
    stop_service();
    qz_mom_client_close(serving);
    serving = nullptr;
}

ebridged_stat world::stat() const
{
    ebridged_stat now{};
    ebridged_get_stat(service, &now);
    return now;
}

ebridge_args world::user(int n, const char *name)
{
    names.at(static_cast<size_t>(n)) = name;
    ebridge_args args{};
    args.user_name = name;
    args.handle = users;
    args.mom_db = APP_DB;
    switch (n) {
        case 0:
            set_callbacks<0>(&args);
            break;
        case 1:
            set_callbacks<1>(&args);
            break;
        case 2:
            set_callbacks<2>(&args);
            break;
        default:
            set_callbacks<3>(&args);
    }
    return args;
}

UBridge__EvlanAppIndex world::index(const char *user, uint32_t type, uint32_t keyid)
{
    UBridge__EvlanAppIndex index = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    index.t_user = const_cast<char *>(user);
    index.type = signed_word(type);
    index.keyid = signed_word(keyid);
    return index;
}

int32_t world::request(const char *user, uint32_t type, uint32_t keyid, uint32_t wanted)
{
    UBridge__EvlanAppIndex app = index(user, type, keyid);
    return sw_evlan_request(&app, signed_word(wanted), U_BRIDGE__RES_PRIORITY__LEVEL_0);
}

int32_t world::release_now(const char *user, uint32_t type, uint32_t keyid)
{
    UBridge__EvlanAppIndex app = index(user, type, keyid);
    return sw_evlan_release_direct(&app);
}

uint32_t world::id_of(uint32_t type, uint32_t keyid)
{
    UBridge__EvlanAppIndex app = index("", type, keyid);
    UBridge__EvlanIndex evlan = U_BRIDGE__EVLAN_INDEX__INIT;
    return sw_evlan_app2udp(&app, &evlan) == 0 ? word(evlan.evlan_id) : 0;
}

std::map<std::string, session> world::sessions(uint32_t db, kind of)
{
    std::map<std::string, session> found;
    session any;
    any.of = of;
    EXPECT_EQ(qz_mom_scan(users, db, session_message(any).get(), 0, collect, &found), 0);
    settle();
    return found;
}

session world::only_session(uint32_t db, kind of)
{
    const auto found = sessions(db, of);
    EXPECT_EQ(found.size(), 1U);
    return found.empty() ? session{} : found.begin()->second;
}

int32_t world::put_session(uint32_t db, const session &content) { return put_session(users, db, content); }

int32_t world::put_session(qz_mom_handle *handle, uint32_t db, const session &content)
{
    const uint32_t fields[] = {6, 7, 8, 10, 11, 12};
    const uint32_t count = content.mom_db != 0 ? 6 : content.reply != 0 ? 5 : 3;
    return qz_mom_hmset(handle, db, session_message(content).get(), fields, count, nullptr, nullptr);
}

void world::delete_session(uint32_t db, const session &which)
{
    ASSERT_EQ(qz_mom_del(users, db, session_message(which).get(), nullptr, nullptr), 0);
}

void world::expire_session(uint32_t db, const session &which, int32_t seconds)
{
    const int32_t mode = which.of == kind::evlan ? QZ_MOM_EXPIRE_EVLAN_SESSION : QZ_MOM_EXPIRE_EPORT_SESSION;
    const qz_mom_timeval delay{.sec = seconds, .usec = 0};
    ASSERT_EQ(qz_mom_pexpire(users, db, session_message(which).get(), mode, &delay, nullptr, nullptr), 0);
}

void world::write_range(uint32_t type, uint32_t min, uint32_t max, kind of, uint32_t db)
{
    UBridge__EvlanSessionRange evlans = U_BRIDGE__EVLAN_SESSION_RANGE__INIT;
    evlans.index = static_cast<UBridge__EvlanType>(type);
    evlans.evlan_id_min = signed_word(min);
    evlans.evlan_id_max = signed_word(max);
    UBridge__EportSessionRange eports = U_BRIDGE__EPORT_SESSION_RANGE__INIT;
    eports.index = static_cast<UBridge__EportType>(type);
    eports.eport_id_min = signed_word(min);
    eports.eport_id_max = signed_word(max);
    ASSERT_EQ(qz_mom_set(users, db, of == kind::evlan ? &evlans.base : &eports.base, nullptr, nullptr), 0);
}

void world::delete_range(uint32_t type, kind of)
{
    UBridge__EvlanSessionRange evlans = U_BRIDGE__EVLAN_SESSION_RANGE__INIT;
    evlans.index = static_cast<UBridge__EvlanType>(type);
    UBridge__EportSessionRange eports = U_BRIDGE__EPORT_SESSION_RANGE__INIT;
    eports.index = static_cast<UBridge__EportType>(type);
    ASSERT_EQ(qz_mom_del(users, APP_DB, of == kind::evlan ? &evlans.base : &eports.base, nullptr, nullptr), 0);
}

void world::spy(uint32_t db, kind of)
{
    session any;
    any.of = of;
    ASSERT_EQ(qz_mom_subscribe(users, db, session_message(any).get(), 0, note_write, &written), 0);
    settle();
}

}  // namespace road
