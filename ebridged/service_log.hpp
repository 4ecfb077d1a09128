// The service's log: lines go where the options of ebridged.h say.
#pragma once

#include "ebridged.h"

namespace ebridged
{

class service_log
{
  public:
    explicit service_log(const ebridged_options *options)
        : func_(options ? options->log : nullptr),
          args_(options ? options->log_args : nullptr),
          highest_(func_ ? EBRIDGED_LOG_DEBUG : EBRIDGED_LOG_ERROR)
    {
        if (func_ && options->log_level != 0)
            highest_ = options->log_level;
    }

    // For lines whose words take time to find.
    bool wants(ebridged_log_level level) const { return level <= highest_; }

    void operator()(ebridged_log_level level, const char *format, ...) const __attribute__((format(printf, 3, 4)));

  private:
    ebridged_log_func func_;
    void *args_;
    uint32_t highest_;
};

}  // namespace ebridged
