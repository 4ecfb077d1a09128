// The logging step, used at every message site: one message, formatted once for each of the two categories that admits
// its class, file before standard output. The level is tested before any argument is evaluated.
//
//   SW_LOG(error, "Assert:Bad inst[%d].", inst);       at this site, printf-checked
//   SW_LOG_AT(where, info, "...", ...);                 on behalf of the exported function whose site is `where`
//   SW_LOG_UNCHECKED_AT(where, error, "...%]...", ...); for conversions that only at_snprintf knows, or nobody
#pragma once

#include <cstdint>
#include <cstring>

#include "qz_zlog.h"
#include "sw_ebridge.h"

namespace sw
{

// A call site as log lines show it.
struct site {
    const char *file;
    uint32_t file_length;
    const char *function;
    uint32_t function_length;
    long line;
};

#define SW_HERE (::sw::site{__FILE__, sizeof __FILE__ - 1, __func__, sizeof __func__ - 1, __LINE__})

// A message class: the level from which a category admits it, and the level it is written at.
struct log_class {
    uint32_t admitted_from;
    int32_t zlog_level;
};

inline constexpr log_class error{1, QZ_ZLOG_ERROR};
inline constexpr log_class warning{2, QZ_ZLOG_WARN};
inline constexpr log_class info{4, QZ_ZLOG_INFO};
inline constexpr log_class debug{5, QZ_ZLOG_DEBUG};
inline constexpr log_class fatal{0, QZ_ZLOG_FATAL};

inline bool file_admits(const log_class &cls) { return g_sw_vlan_file_zlog_level >= cls.admitted_from; }
inline bool std_admits(const log_class &cls) { return g_sw_vlan_std_zlog_level >= cls.admitted_from; }

inline constexpr size_t kMessageSize = 1024;

// Hands a formatted message to a category; a category that was never opened drops it.
void emit(qz_zlog_category *category, const site &where, int32_t zlog_level, const char *text);

template <typename... Args>
void log_to(qz_zlog_category *category, const site &where, int32_t zlog_level, const char *format, Args... args)
{
    char text[kMessageSize];
    std::memset(text, 0, sizeof text);
    at_snprintf(text, sizeof text, format, args...);
    emit(category, where, zlog_level, text);
}

template <typename... Args>
void log(const site &where, const log_class &cls, const char *format, Args... args)
{
    if (file_admits(cls))
        log_to(g_sw_vlan_file_zlog_category, where, cls.zlog_level, format, args...);
    if (std_admits(cls))
        log_to(g_sw_vlan_std_zlog_category, where, cls.zlog_level, format, args...);
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

#define SW_LOG_UNCHECKED_AT(where, cls, ...)                             \
    do {                                                                 \
        if (::sw::file_admits(::sw::cls) || ::sw::std_admits(::sw::cls)) \
            ::sw::log(where, ::sw::cls, __VA_ARGS__);                    \
    } while (0)

#define SW_LOG_AT(where, cls, ...)                    \
    do {                                              \
        if (false)                                    \
            ::sw::check_format(__VA_ARGS__);          \
        SW_LOG_UNCHECKED_AT(where, cls, __VA_ARGS__); \
    } while (0)

#define SW_LOG(cls, ...) SW_LOG_AT(SW_HERE, cls, __VA_ARGS__)
