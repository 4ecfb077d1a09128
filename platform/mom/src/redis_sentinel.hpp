// The way to an instance: where its server is now. Of a group of servers its sentinels are asked, in turn and anew
// before each attempt to connect, who the master is; nothing is waited for here. That what they name is a master
// is for whoever connects to check (redis_address::master_only).
#ifndef MOM_REDIS_SENTINEL_HPP
#define MOM_REDIS_SENTINEL_HPP

#include <chrono>
#include <memory>
#include <string>

#include "redis_link.hpp"

namespace mom
{

class redis_guide
{
  public:
    enum class answer { asking, known, nobody };

    redis_guide(std::shared_ptr<const redis_instance> to, link_set &links);

    // Begins to look, or looks on. `known`: server() is where to connect now. `nobody`: each sentinel has been asked and
    // none has named a master; the next call begins again.
    answer look(std::chrono::steady_clock::time_point now);
    bool is_asking() const { return link_.is_open(); }
    // As the last `known` left it.
    const redis_address &server() const { return server_; }

    // Takes in what has come from the sentinel.
    void step();
    void stop();

  private:
    void ask_next(std::chrono::steady_clock::time_point now);
    bool take_reply();
    void give_up_on_sentinel(const std::string &why);
    answer end(answer with);

    const std::shared_ptr<const redis_instance> to_;
    redis_address server_;
    redis_link link_;        // to the sentinel that is being asked
    size_t asked_ = 0;       // sentinels, since it began to look
    size_t current_ = 0;     // the sentinel that is being asked, or was last
    std::string complaint_;  // why the last one that was asked named nobody
    bool complained_ = false;
    std::chrono::steady_clock::time_point since_{};
};

}  // namespace mom
#endif
