// Calls in an order that nobody thought of, over losses that come anywhere among them.
#include <csignal>

#include "drawn_calls.hpp"
#include "fault_fixture.hpp"

namespace contract
{
namespace
{

// Users on two connections.
class RedisDrawn : public DrawnCalls
{
  protected:
    RedisDrawn() { urls_[1] = other_url_of_the_same(urls_[1]); }

    void cut(const std::string &type) { store_server().commands(app_db, "CLIENT KILL TYPE " + type); }
};

TEST_F(RedisDrawn, CallsOnTwoConnectionsEndAsThePromisesSay) { run_sequences(10); }

TEST_F(RedisDrawn, CutConnectionsLoseNothing)
{
    lose_ = [&](uint32_t lot) { cut(lot % 2 == 0 ? "normal" : "pubsub"); };
    run_sequences(10);
}

TEST_F(RedisDrawn, KilledServerThatHasItsDataLosesNothing)
{
    lose_ = [](uint32_t) { store_server().kill(); };
    bring_back_ = [] { store_server().start(); };
    run_sequences(5);
}

TEST_F(RedisDrawn, StoppedServerLosesNothing)
{
    lose_ = [](uint32_t) { store_server().signal(SIGSTOP); };
    bring_back_ = [] { store_server().signal(SIGCONT); };
    run_sequences(10);
}

}  // namespace
}  // namespace contract
