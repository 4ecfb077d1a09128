// Calls in an order that nobody thought of, over losses that come anywhere among them.
#include <csignal>
#include <sstream>

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

    // One in three times all connections, else one of them.
    static void cut(uint32_t lot)
    {
        if (lot % 3 == 0) {
            store_server().commands(app_db, "CLIENT KILL TYPE pubsub");
            return;
        }
        std::vector<std::string> ids;
        std::istringstream list(store_server().commands(app_db, "CLIENT LIST TYPE pubsub"));
        for (std::string line; std::getline(list, line);)
            if (line.starts_with("id="))
                ids.push_back(line.substr(3, line.find(' ') - 3));
        if (!ids.empty())
            store_server().commands(app_db, "CLIENT KILL ID " + ids[lot % ids.size()]);
    }
};

TEST_F(RedisDrawn, CallsOnTwoConnectionsEndAsThePromisesSay) { run_sequences(10); }

TEST_F(RedisDrawn, CutConnectionsLoseNothing)
{
    lose_ = cut;
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
