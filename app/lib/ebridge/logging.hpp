// The logging step, used at every message site: one message, formatted once for each of the two categories that admits
// its class, file before standard output. The level is tested before any argument is evaluated.
//
//   SW_LOG(error, "Assert:Bad inst[%d].", inst);       at this site, printf-checked
//   SW_LOG_AT(where, info, "...", ...);                 on behalf of the exported function whose site is `where`
//   SW_LOG_UNCHECKED_AT(where, error, "...%]...", ...); for conversions that only at_snprintf knows, or nobody
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>

#include "qz_zlog.h"
#include "sw_ebridge.h"

namespace sw
{

// A call site as log lines show it.
struct site {
    const char *file;
    const char *function;
    long line;
};

#define SW_HERE (::sw::site{__FILE__, __func__, __LINE__})

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

// Whether any category does. A call, not code at each of the many sites.
[[gnu::noinline]] inline bool admits(const log_class &cls) { return file_admits(cls) || std_admits(cls); }

inline constexpr size_t kMessageSize = 1024;

// The two categories, with the level of each.
struct category_state {
    const uint32_t *level;
    qz_zlog_category *const *category;
};
inline category_state file_category() { return {&g_sw_vlan_file_zlog_level, &g_sw_vlan_file_zlog_category}; }
inline category_state std_category() { return {&g_sw_vlan_std_zlog_level, &g_sw_vlan_std_zlog_category}; }

// Hands a formatted message to a category; a category that was never opened drops it.
void emit(qz_zlog_category *category, const site &where, int32_t zlog_level, const char *text);

// What goes through a variadic call in the same way has the same type here, so that one function serves many sites.
constexpr uint32_t passed(uint32_t value) { return value; }
constexpr uint32_t passed(int32_t value) { return static_cast<uint32_t>(value); }
inline const void *passed(const void *value) { return value; }

template <typename... Args>
[[gnu::noinline]] void log_passed(const site &where, const log_class &cls, const char *format, Args... args)
{
    char text[kMessageSize];
    for (const category_state &category : {file_category(), std_category()}) {
        if (*category.level < cls.admitted_from)
            continue;
        std::memset(text, 0, sizeof text);
        at_snprintf(text, sizeof text, format, args...);
        emit(*category.category, where, cls.zlog_level, text);
    }
}

template <typename... Args>
inline void log(const site &where, const log_class &cls, const char *format, Args... args)
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

#define SW_LOG(cls, ...)                                   \
    do {                                                   \
        static constexpr ::sw::site sw_log_site = SW_HERE; \
        SW_LOG_AT(sw_log_site, cls, __VA_ARGS__);          \
    } while (0)
