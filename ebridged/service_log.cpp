// Lines of the service's log. See service_log.hpp.
#include "service_log.hpp"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace ebridged
{

void service_log::operator()(ebridged_log_level level, const char *format, ...) const
{
    if (!wants(level))
        return;
    char line[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    // Names come from other programs: what they contain must not end a line or move a terminal's cursor.
    std::replace_if(
        line, line + std::strlen(line), [](unsigned char c) { return c < ' ' || c == 0x7f; }, '?');
    if (func_)
        func_(level, line, args_);
    else
        std::fprintf(stderr, "ebridged: %s\n", line);
}

}  // namespace ebridged
