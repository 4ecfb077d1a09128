// Requests through the library. The library's tables live as long as the process, so a requester serves all demands.
#include "grants.hpp"

#include <stdexcept>
#include <unordered_map>

#include "grant_clock.hpp"
#include "ours.hpp"
#include "sw_ebridge.h"

namespace bench
{
namespace
{

constexpr const char *USER = "bench";

class requester
{
  public:
    explicit requester(const std::string &url);
    grants serve(const demand &wanted);
    void heard(int key);
    void refused();

  private:
    void request_more();

    endpoint store_;
    grant_clock clock_;
    bool posted_ = false;
    bool refused_ = false;
};

// The library's callbacks for answers carry no argument.
requester *the_requester = nullptr;

int32_t on_grant(UBridge__EvlanAppIndex *app, UBridge__EvlanIndex *evlan)
{
    if (evlan->evlan_id == -1)
        the_requester->refused();
    else
        the_requester->heard(app->keyid);
    return 0;
}

requester::requester(const std::string &url) : store_(url)
{
    the_requester = this;
    ebridge_args args{};
    args.user_name = USER;
    args.handle = store_.handle();
    args.mom_db = SW_EBRIDGE_APP_DB;
    args.auto_subscribe = 1;
    args.evlan_reply = on_grant;
    if (sw_ebridge_init(&args) != 0)
        throw std::runtime_error("the library cannot be initialised");
}

void requester::refused()
{
    refused_ = true;
    qz_thread_stop(store_.master());
}

// Requests go out from the loop, not from inside the library's walk over its users.
void requester::heard(int key)
{
    if (!clock_.heard(key))
        return;
    if (clock_.over())
        return qz_thread_stop(store_.master());
    if (!posted_ && clock_.may_send())
        posted_ = qz_thread_call(
                      store_.master(), [](void *self) { static_cast<requester *>(self)->request_more(); }, this) == 0;
}

void requester::request_more()
{
    posted_ = false;
    UBridge__EvlanAppIndex app = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    app.t_user = const_cast<char *>(USER);
    app.type = U_BRIDGE__EVLAN_TYPE__VXLAN;
    while (clock_.may_send()) {
        app.keyid = clock_.send();
        if (sw_evlan_request(&app, 0, U_BRIDGE__RES_PRIORITY__LEVEL_0) != 0)
            return refused();
    }
}

grants requester::serve(const demand &wanted)
{
    clock_.begin(wanted);
    request_more();
    qz_thread_run(store_.master());
    if (refused_)
        throw std::runtime_error("a request was refused");
    return clock_.result();
}

}  // namespace

process start_requester(const std::string &url)
{
    return process([=](const channel &parent) {
        requester self(url);
        serve_demands(parent, [&](const demand &wanted) { return self.serve(wanted); });
    });
}

}  // namespace bench
