// The logging step, used at every message site: one message, formatted once, for each of the two categories that admits its
// class, file before standard output. The level is tested before any argument is evaluated.
//
//   SW_LOG(error, "Assert:Bad inst[%d].", inst);       at this site, printf-checked
//   SW_LOG_AT(where, info, "...", ...);                 on behalf of the exported function whose site is `where`
//   SW_LOG_UNCHECKED_AT(where, error, "...%]...", ...); for conversions that only at_snprintf knows, or nobody
#pragma once

#include <cstdint>
#include <cstring>
#include <iterator>
#include <string_view>

#include "qz_zlog.h"
#include "sw_ebridge.h"

namespace sw
{

// The sources that log by a site of their own, as log lines name them. One that is missing here does not compile.
inline constexpr char kSources[][sizeof "app/lib/ebridge/libsw_ebridge_port_vlan.cpp"] = {
    "app/lib/ebridge/libsw_ebridge.cpp",
    "app/lib/ebridge/libsw_ebridge_congest.cpp",
    "app/lib/ebridge/libsw_ebridge_debug.cpp",
    "app/lib/ebridge/libsw_ebridge_ds.cpp",
    "app/lib/ebridge/libsw_ebridge_eport.cpp",
    "app/lib/ebridge/libsw_ebridge_evlan.cpp",
    "app/lib/ebridge/libsw_ebridge_port_vid.cpp",
    "app/lib/ebridge/libsw_ebridge_port_vlan.cpp",
    "app/lib/ebridge/libsw_ebridge_sda.cpp",
    "app/lib/ebridge/libsw_ematch.cpp",
    "app/lib/ebridge/libsw_ematch_print.cpp",
    "app/lib/ebridge/libsw_ematch_session.cpp",
    "sw_bridge/ebridge/sw_ebridge.h",
};

// A call site as log lines show it. Small, and known when it is compiled but for one address, because there are
// hundreds: `place` is the source's number in kSources and, in its lower bits, the line.
struct site {
    const char *function;
    uint32_t place;
};

inline constexpr uint32_t kLineBits = 11;  // 16 bits in all, which one instruction loads
inline constexpr uint32_t kLineMask = (1u << kLineBits) - 1;

void site_is_unknown();  // never defined: what calls it is no constant

consteval uint32_t place_of(std::string_view source, uint32_t line)
{
    uint32_t number = 0;
    while (number < std::size(kSources) && source != kSources[number])
        ++number;
    if (number == std::size(kSources) || line > kLineMask)
        site_is_unknown();
    return number << kLineBits | line;
}

#define SW_HERE (::sw::site{__func__, ::sw::place_of(__FILE__, __LINE__)})

// A message class: its value is the level from which a category admits it.
enum log_class : uint32_t { fatal = 0, error = 1, warning = 2, info = 4, debug = 5 };

inline bool file_admits(log_class cls) { return g_sw_vlan_file_zlog_level >= cls; }
inline bool std_admits(log_class cls) { return g_sw_vlan_std_zlog_level >= cls; }

// Whether any category does. A call, not code at each of the many sites.
[[gnu::noinline]] inline bool admits(log_class cls) { return file_admits(cls) || std_admits(cls); }

inline constexpr size_t kMessageSize = 1024;

// Hands a formatted message to each category that admits its class; one that was never opened drops it.
void emit(site where, log_class cls, const char *text);

// What goes through a variadic call in the same way has the same type here, so that one function serves many sites.
constexpr uint32_t passed(uint32_t value) { return value; }
constexpr uint32_t passed(int32_t value) { return static_cast<uint32_t>(value); }
// Where a pointer is a word like any other (the target), only the number of arguments tells functions apart.
#if UINTPTR_MAX == UINT32_MAX
inline uint32_t passed(const void *value) { return reinterpret_cast<uintptr_t>(value); }
#else
inline const void *passed(const void *value) { return value; }
#endif

template <typename... Args>
[[gnu::noinline]] void log_passed(site where, log_class cls, const char *format, Args... args)
{
    char text[kMessageSize] = {};
    at_snprintf(text, sizeof text, format, args...);
    emit(where, cls, text);
}

template <typename... Args>
inline void log(site where, log_class cls, const char *format, Args... args)
{
    log_passed(where, cls, format, passed(args)...);
}

// Never called: lets the compiler compare a format with its arguments.
__attribute__((format(printf, 1, 2))) inline void check_format(const char *, ...) {}

// A name for a message: a null one prints as "NULL".
inline const char *printable(const char *name) { return name != nullptr ? name : "NULL"; }

// A function's address for %p.
template <typename Result, typename... Args>
inline const void *address(Result (*function)(Args...))
{
    return reinterpret_cast<const void *>(function);
}

}  // namespace sw

#define SW_LOG_UNCHECKED_AT(where, cls, ...)          \
    do {                                              \
        if (::sw::admits(::sw::cls))                  \
            ::sw::log(where, ::sw::cls, __VA_ARGS__); \
    } while (0)

#define SW_LOG_AT(where, cls, ...)                    \
    do {                                              \
        if (false)                                    \
            ::sw::check_format(__VA_ARGS__);          \
        SW_LOG_UNCHECKED_AT(where, cls, __VA_ARGS__); \
    } while (0)

#define SW_LOG(cls, ...) SW_LOG_AT(SW_HERE, cls, __VA_ARGS__)
