// The second process: hears of the congestion of the first.
#pragma once

#include <string>

#include "processes.hpp"
#include "qz_mom.h"

namespace bench
{

struct notice_figures {
    double highs = 0;
    double lows = 0;
    double latest = 0;  // seconds from a high mark to its notice, at most
};

// The producer's last write.
void say_that_all_is_written(qz_mom_handle *handle);

// The child. It says when it follows, and hands over its figures when it has heard that all is written.
void be_the_listener(const channel &parent, const std::string &url);
notice_figures take_notices(const process &listener);

}  // namespace bench
