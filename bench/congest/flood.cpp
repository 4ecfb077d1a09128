// See flood.hpp.
#include "flood.hpp"

#include <algorithm>
#include <memory>
#include <optional>
#include <stdexcept>

#include "libcgstctrl.h"
#include "notices.hpp"
#include "qz_mom.h"
#include "qz_thread.h"
#include "u_bridge.pb-c.h"

namespace bench
{
namespace
{

using clock = std::chrono::steady_clock;

constexpr int KEYS = 10'000;
constexpr int BURST = 64;  // writes between two looks at the master
constexpr double PROBE_INTERVAL = 0.05;
constexpr double SAMPLE_INTERVAL = 0.01;
constexpr char MODULE[] = "flood";

void check(int32_t code, const char *what)
{
    if (code != 0)
        throw std::runtime_error(std::string(what) + ": " + qz_mom_strerror(code));
}

struct session {
    explicit session(int keyid)
    {
        index.t_user = user;
        index.type = U_BRIDGE__EVLAN_TYPE__L3VPN;
        index.keyid = keyid;
        record.index = &index;
    }
    session(const session &) = delete;
    session &operator=(const session &) = delete;

    char user[6] = "flood";
    UBridge__EvlanAppIndex index = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    UBridge__EvlanSession record = U_BRIDGE__EVLAN_SESSION__INIT;
};

class flood
{
  public:
    flood(const std::string &url, manners of)
        : of_(of), master_(qz_thread_master_create(QZ_THREAD_CLOCK_REAL)), writer_(open(url)), other_(open(url))
    {
        const libcgstctrl_topic topic{&u_bridge__evlan_session__descriptor, {HIGH_MARK, LOW_MARK, 0, 0}};
        check(libcgstctrl_gen_init(writer_, FLOOD_DB, MODULE, &state_), "congestion control");
        check(libcgstctrl_gen_topic_reg(writer_, FLOOD_DB, MODULE, &topic, 0), "congestion control");
        probe();
        run_while([this] { return probing_.has_value(); });
    }

    flood_figures run();
    double count_wrong();

  private:
    qz_mom_handle *open(const std::string &url) const
    {
        qz_mom_handle *handle = nullptr;
        check(qz_mom_client_open(url.c_str(), master_, &handle), "opening the store");
        return handle;
    }
    uint32_t depth() const { return qz_mom_writes_waiting(writer_, FLOOD_DB, &u_bridge__evlan_session__descriptor); }
    bool congested() const
    {
        return libcgstctrl_congested(writer_, FLOOD_DB, MODULE, &u_bridge__evlan_session__descriptor) == 1;
    }
    bool may_write() const { return written_ < WRITES && (of_ == manners::does_not || !congested()); }

    template <typename Condition>
    void run_while(Condition holds)
    {
        while (holds())
            run_a_millisecond();
    }
    void run_a_millisecond()
    {
        qz_thread_call_after(
            master_, 1000, [](void *master) { qz_thread_stop(static_cast<qz_thread_master *>(master)); }, master_);
        qz_thread_run(master_);
    }

    bool write_burst();
    int32_t write_next();
    void probe();
    void hear_probe();
    void look();
    static int32_t hear_record(qz_mom_handle *, const qz_mom_notification *msg, void *self);

    const manners of_;
    qz_thread_master *const master_;
    qz_mom_handle *const writer_;
    qz_mom_handle *const other_;
    libcgstctrl_state state_{};
    flood_figures made_;
    clock::time_point start_ = clock::now();
    int written_ = 0;
    std::optional<clock::time_point> probing_;
    double next_probe_ = 0, next_sample_ = 0;
    std::vector<double> probes_;
    int found_ = 0, wrong_ = 0;
    bool scanned_ = false;
};

int32_t flood::write_next()
{
    static const uint32_t fields[] = {6, 8};
    session next(written_ % KEYS + 1);
    next.record.request_value = written_;
    next.record.request = 1;
    return qz_mom_hmset(writer_, FLOOD_DB, &next.record.base, fields, 2, nullptr, nullptr);
}

// False: it has to wait.
bool flood::write_burst()
{
    for (int i = 0; i < BURST; ++i) {
        if (!may_write())
            return false;
        if (const int32_t code = write_next(); code == QZ_MOM_EFULL) {
            ++made_.refused;
            return false;
        } else {
            check(code, "writing");
        }
        ++written_;
        made_.deepest = std::max(made_.deepest, static_cast<double>(depth()));
    }
    return true;
}

// A write beside the flood, answered.
void flood::probe()
{
    UBridge__EvlanSessionRange range = U_BRIDGE__EVLAN_SESSION_RANGE__INIT;
    const auto heard = [](qz_mom_handle *, const qz_mom_notification *, void *self) {
        static_cast<flood *>(self)->hear_probe();
        return int32_t{0};
    };
    const int32_t code = qz_mom_set(other_, FLOOD_DB, &range.base, heard, this);
    if (code == QZ_MOM_OK)
        probing_ = clock::now();
    else if (code == QZ_MOM_EFULL)
        ++made_.probes_refused;
    else
        check(code, "writing beside the flood");
}

void flood::hear_probe()
{
    probes_.push_back(seconds_since(*probing_));
    probing_.reset();
}

void flood::look()
{
    const double now = seconds_since(start_);
    if (now >= next_sample_) {
        made_.depths.push_back({now, static_cast<double>(depth())});
        next_sample_ = now + SAMPLE_INTERVAL;
    }
    if (now >= next_probe_ && !probing_) {
        probe();
        next_probe_ = now + PROBE_INTERVAL;
    }
}

flood_figures flood::run()
{
    probes_.clear();
    start_ = clock::now();
    while (written_ < WRITES || depth() > 0) {
        if (write_burst())
            qz_thread_run_pending(master_, 0);
        else
            run_a_millisecond();
        look();
    }
    made_.seconds = seconds_since(start_);
    made_.depths.push_back({made_.seconds, 0});
    run_while([this] { return probing_.has_value() || state_.congested != 0; });
    made_.marks = state_.highs;
    made_.probes = static_cast<double>(probes_.size());
    made_.probe_longest = *std::ranges::max_element(probes_);
    made_.probe_median = median(probes_);
    say_that_all_is_written(writer_);
    return made_;
}

int32_t flood::hear_record(qz_mom_handle *, const qz_mom_notification *msg, void *self)
{
    auto &its = *static_cast<flood *>(self);
    its.scanned_ = msg->end == QZ_MOM_END_SCAN;
    if (its.scanned_)
        return 0;
    const auto *value = static_cast<const qz_mom_hash_value *>(msg->value);
    const auto &record = *reinterpret_cast<const UBridge__EvlanSession *>(value->record);
    ++its.found_;
    its.wrong_ += record.request_value != WRITES - KEYS + record.index->keyid - 1;
    return 0;
}

// Each key was written last by one of the last writes.
double flood::count_wrong()
{
    static_assert(WRITES % KEYS == 0);
    UBridge__EvlanAppIndex any = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    UBridge__EvlanSession all = U_BRIDGE__EVLAN_SESSION__INIT;
    all.index = &any;
    check(qz_mom_scan(other_, FLOOD_DB, &all.base, 0, hear_record, this), "reading back");
    run_while([this] { return !scanned_; });
    return wrong_ + KEYS - found_;
}

}  // namespace

void be_the_producer(const channel &parent, const std::string &url, manners of)
{
    // Left to the end of the process, as congestion control wants handles and state blocks.
    auto &its = *std::make_unique<flood>(url, of).release();
    parent.put();
    parent.get();
    const flood_figures made = its.run();
    parent.put();
    parent.get();
    const double wrong = its.count_wrong();
    for (const double each : {made.seconds, made.refused, made.deepest, made.marks, made.probes, made.probe_median,
                              made.probe_longest, made.probes_refused, wrong, static_cast<double>(made.depths.size())})
        parent.put(each);
    for (const depth_at &each : made.depths) {
        parent.put(each.seconds);
        parent.put(each.depth);
    }
    parent.get();
}

flood_figures take_figures(const process &producer)
{
    flood_figures made;
    double samples = 0;
    for (double *each : {&made.seconds, &made.refused, &made.deepest, &made.marks, &made.probes, &made.probe_median,
                         &made.probe_longest, &made.probes_refused, &made.wrong, &samples})
        *each = producer.get();
    for (int i = 0; i < static_cast<int>(samples); ++i) {
        const double seconds = producer.get();
        made.depths.push_back({seconds, producer.get()});
    }
    return made;
}

}  // namespace bench
