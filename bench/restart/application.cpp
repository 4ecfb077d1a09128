// The application, on the library alone. Nothing of it depends on time: each phase waits for what it leads to.
#include "application.hpp"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <utility>
#include <vector>

#include "qz_mom.h"
#include "sw_ebridge.h"
#include "u_bridge.pb-c.h"

namespace bench
{
namespace
{

constexpr const char *USER = "bench";
constexpr uint32_t OWN_DATABASES[] = {SESSION_DB, EVLAN_ATTR_DB, EPORT_ATTR_DB};
constexpr int IN_FLIGHT = 2048;     // requests of a kind that may wait for their answers
constexpr int64_t A_MOMENT = 1000;  // microseconds until a queue that was full is tried again

void must(int32_t code, const char *what)
{
    if (code != 0)
        throw std::runtime_error(std::string(what) + " failed: " + std::to_string(code));
}

// What is known of one kind's ids, by key. An answer may come twice, and unasked: scans and a service that has begun to
// serve tell of it, too.
struct known_ids {
    std::vector<int32_t> id;
    std::vector<bool> waits;  // for an answer
    int found = 0;            // keys with an id
    int waiting = 0;
    int changed = 0;  // ids that were others before

    explicit known_ids(size_t keys) : id(keys), waits(keys) {}

    void ask(int key)
    {
        waits.at(static_cast<size_t>(key)) = true;
        ++waiting;
    }
    void hear(int key, int32_t given)
    {
        const auto at = static_cast<size_t>(key);
        found += id.at(at) == 0;
        changed += id[at] != 0 && id[at] != given;
        id[at] = given;
        waiting -= waits[at];
        waits[at] = false;
    }
};

class application
{
  public:
    application(const std::string &url, int each, int known);
    ~application();
    application(const application &) = delete;
    application &operator=(const application &) = delete;

    void start();
    void mark();
    void refresh();
    void remove();

    known_ids evlans, eports;
    void heard();

  private:
    static int32_t on_end(qz_mom_handle *, const qz_mom_notification *msg, void *self);
    void until(bool (application::*over)() const);
    bool is_found() const { return evlans.found == known_ && eports.found == known_; }
    bool has_ended() const { return ends_ == wanted_ends_; }
    bool is_refreshed() const { return evlans.waiting == 0 && eports.waiting == 0 && written_ == each_; }
    void refresh_more();
    bool refresh_one(int key);
    int32_t request(int key);
    int32_t write_attributes(int key);
    static int32_t on_reached(qz_mom_handle *, const qz_mom_notification *, void *self);
    bool is_reached() const { return reached_ == std::size(OWN_DATABASES); }
    void reach_server();

    const std::string url_;
    const int each_;
    const int known_;
    qz_thread_master *master_;
    qz_mom_handle *handle_ = nullptr;
    bool (application::*over_)() const = nullptr;
    int ends_ = 0;
    int wanted_ends_ = 0;
    size_t reached_ = 0;
    int requested_ = 0;
    int written_ = 0;
    bool posted_ = false;
    std::string failure_;
};

// The library's callbacks for answers carry no argument.
application *the_application = nullptr;

int32_t on_evlan(UBridge__EvlanAppIndex *app, UBridge__EvlanIndex *evlan)
{
    the_application->evlans.hear(app->keyid, evlan->evlan_id);
    the_application->heard();
    return 0;
}

int32_t on_eport(UBridge__EportAppIndex *app, UBridge__EportIndex *eport)
{
    the_application->eports.hear(app->keyid1, eport->eport_id);
    the_application->heard();
    return 0;
}

application::application(const std::string &url, int each, int known)
    : evlans(static_cast<size_t>(each)),
      eports(static_cast<size_t>(each)),
      url_(url),
      each_(each),
      known_(known),
      master_(qz_thread_master_create(QZ_THREAD_CLOCK_REAL))
{
    the_application = this;
}

application::~application()
{
    qz_mom_client_close(handle_);
    qz_thread_master_free(master_);
}

// Runs the loop until a condition holds.
void application::until(bool (application::*over)() const)
{
    over_ = over;
    while (!(this->*over)() && failure_.empty())
        qz_thread_run(master_);
    over_ = nullptr;
    if (!failure_.empty())
        throw std::runtime_error(failure_);
}

void application::heard()
{
    if (over_ != nullptr && (this->*over_)())
        return qz_thread_stop(master_);
    const bool more = over_ == &application::is_refreshed && !posted_ && written_ < each_;
    if (more)
        posted_ = qz_thread_call(
                      master_, [](void *self) { static_cast<application *>(self)->refresh_more(); }, this) == 0;
}

int32_t application::on_reached(qz_mom_handle *, const qz_mom_notification *, void *args)
{
    auto *self = static_cast<application *>(args);
    ++self->reached_;
    self->heard();
    return 0;
}

// Returns when the server has carried out all that was asked before: a mark that finds nothing ends behind that.
void application::reach_server()
{
    UBridge__EvlanIndex index = U_BRIDGE__EVLAN_INDEX__INIT;
    UBridge__Evlan absent = U_BRIDGE__EVLAN__INIT;
    index.t_user = const_cast<char *>("nobody");
    index.evlan_id = -1;
    absent.index = &index;
    const qz_mom_timeval none{0, 0};
    reached_ = 0;
    for (const uint32_t db : OWN_DATABASES)
        must(qz_mom_pexpire(handle_, db, &absent.base, QZ_MOM_EXPIRE_PATTERN, &none, on_reached, this),
             "a call that waits");
    until(&application::is_reached);
}

void application::start()
{
    must(qz_mom_client_open(url_.c_str(), master_, &handle_), "opening the store");
    ebridge_args args{};
    args.user_name = USER;
    args.handle = handle_;
    args.mom_db = SESSION_DB;
    args.evlan_attr_mom_db = EVLAN_ATTR_DB;
    args.eport_attr_mom_db = EPORT_ATTR_DB;
    args.auto_subscribe = 1;
    args.auto_scan = 1;
    args.evlan_reply = on_evlan;
    args.eport_reply = on_eport;
    must(sw_ebridge_init(&args), "the library's start");
    until(&application::is_found);
}

int32_t application::on_end(qz_mom_handle *, const qz_mom_notification *msg, void *args)
{
    auto *self = static_cast<application *>(args);
    if (msg->error != QZ_MOM_OK)
        self->failure_ = "an expiry call failed";
    self->ends_ += msg->end == QZ_MOM_END_EXPIRY;
    if (self->over_ == &application::has_ended && self->has_ended())
        qz_thread_stop(self->master_);
    return 0;
}

void application::mark()
{
    wanted_ends_ = 4;
    must(sw_evlan_aging_flag_set(USER, nullptr, on_end, this), "marking evlan sessions");
    must(sw_eport_aging_flag_set(USER, nullptr, on_end, this), "marking eport sessions");
    must(sw_evlan_attr_aging_flag_set(USER, nullptr, on_end, this), "marking evlan attributes");
    must(sw_eport_attr_aging_flag_set(USER, nullptr, on_end, this), "marking eport attributes");
    reach_server();
}

int32_t application::request(int key)
{
    UBridge__EvlanAppIndex evlan = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    evlan.t_user = const_cast<char *>(USER);
    evlan.type = U_BRIDGE__EVLAN_TYPE__VXLAN;
    evlan.keyid = key;
    if (const int32_t code = sw_evlan_request(&evlan, 0, U_BRIDGE__RES_PRIORITY__LEVEL_0))
        return code;
    UBridge__EportAppIndex eport = U_BRIDGE__EPORT_APP_INDEX__INIT;
    eport.t_user = const_cast<char *>(USER);
    eport.type = U_BRIDGE__EPORT_TYPE__VXLAN_PW;
    eport.keyid1 = key;
    eport.keyid2 = 1;
    return sw_eport_request(&eport, 0, U_BRIDGE__RES_PRIORITY__LEVEL_0);
}

int32_t application::write_attributes(int key)
{
    const auto at = static_cast<size_t>(key);
    const auto number = static_cast<uint32_t>(key);
    sw_evlan_attr evlan;
    sw_evlan_init(&evlan, USER, static_cast<uint32_t>(evlans.id[at]));
    evlan.attr.overlay.vnid = key;
    evlan.attr.overlay.mcid = 1;
    if (const int32_t code = sw_evlan_attr_set(&evlan))
        return code;
    sw_eport_attr eport;
    sw_eport_init(&eport, USER, static_cast<uint32_t>(eports.id[at]));
    eport.attr.overlay.dip = 0x0a000000 + number;
    eport.attr.overlay.evlan_id = static_cast<uint32_t>(evlans.id[at]);
    eport.attr.overlay.mtu = 9000;
    return sw_eport_attr_set(&eport);
}

// The next of all that is wanted, until too much waits for an answer. Attributes can be set as soon as there is an id;
// a first life hears of it, a second one knows it.
void application::refresh_more()
{
    posted_ = false;
    int32_t code = 0;
    while (code == 0 && requested_ < each_ && std::max(evlans.waiting, eports.waiting) < IN_FLIGHT) {
        code = request(requested_);
        if (code == 0) {
            evlans.ask(requested_);
            eports.ask(requested_++);
        }
    }
    while (code == 0 && written_ < requested_ && evlans.id[static_cast<size_t>(written_)] != 0 &&
           eports.id[static_cast<size_t>(written_)] != 0) {
        code = write_attributes(written_);
        written_ += code == 0;
    }
    if (code == QZ_MOM_EFULL)
        posted_ =
            qz_thread_call_after(
                master_, A_MOMENT, [](void *self) { static_cast<application *>(self)->refresh_more(); }, this) == 0;
    else if (code != 0)
        failure_ = "a request or an attribute was refused: " + std::to_string(code);
    if (!failure_.empty() || is_refreshed())
        qz_thread_stop(master_);
}

void application::refresh()
{
    refresh_more();
    until(&application::is_refreshed);
    reach_server();
    if (evlans.changed != 0 || eports.changed != 0)
        throw std::runtime_error("an id has changed");
}

// What the age timer does when its 40 s are over, and the deletion of attributes; until all of it is over, the marks'
// ends included.
void application::remove()
{
    wanted_ends_ += 2;
    sw_ebridge_list_item *self = sw_ebridge_list_item_get(USER);
    must(sw_evlan_no_request_clear(self), "clearing evlans");
    must(sw_eport_no_request_clear(self), "clearing eports");
    must(sw_evlan_attr_aged_data_delete(USER, on_end, this), "deleting evlan attributes");
    must(sw_eport_attr_aged_data_delete(USER, on_end, this), "deleting eport attributes");
    until(&application::has_ended);
    reach_server();
    if (ends_ != wanted_ends_)
        throw std::runtime_error("an expiry call has not ended exactly once");
}

}  // namespace

process start_application(const std::string &url, int each, int known)
{
    return process([=](const channel &parent) {
        application self(url, each, known);
        void (application::*const phases[])() = {&application::start, &application::mark, &application::refresh,
                                                 &application::remove};
        while (true) {
            const auto next = static_cast<size_t>(parent.get());
            if (next == PHASES)
                break;
            take_call_counts();
            (self.*phases[next])();
            for (const uint64_t count : take_call_counts())
                parent.put(static_cast<double>(count));
        }
        parent.put();
    });
}

call_counts run_phase(const process &application, phase what)
{
    application.put(what);
    call_counts counts{};
    for (uint64_t &count : counts)
        count = static_cast<uint64_t>(application.get());
    return counts;
}

}  // namespace bench
