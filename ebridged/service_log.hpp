// The service's log: lines go where the options of ebridged.h say.
#pragma once

#include "ebridged.h"

namespace ebridged
{

class service_log
{
  public:
    explicit service_log(const ebridged_options *options)
        : func_(options ? options->log : nullptr), args_(options ? options->log_args : nullptr)
    {
    }

    void operator()(ebridged_log_level level, const char *format, ...) const __attribute__((format(printf, 3, 4)));

  private:
    ebridged_log_func func_;
    void *args_;
};

}  // namespace ebridged
