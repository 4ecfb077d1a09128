// A store of a test's own whose sixteen databases are spread over two servers by a map file: 4 and 8 on different ones.
#pragma once

#include <string>

#include "redis_server.hpp"

namespace support
{

class spread_store
{
  public:
    spread_store();

    std::string url() const { return "file://" + file(); }
    std::string file() const { return first_.folder() + "/database_config.json"; }
    redis_server &server_of(int database) { return database / 4 % 2 == 0 ? first_ : second_; }

  private:
    redis_server first_;
    redis_server second_;
};

}  // namespace support
