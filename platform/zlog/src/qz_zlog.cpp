// Log categories: each is a spdlog logger of its own with one sink. spdlog adds the time, guards the sink, and reports
// a failing one (a full disk) on standard error; the rest of the line is put together here.
#include "qz_zlog.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

struct qz_zlog_category {
    explicit qz_zlog_category(const std::string &name);
    spdlog::logger logger;
};

namespace
{

constexpr char line_pattern[] = "%Y-%m-%d %H:%M:%S.%f %v";

// Throws spdlog::spdlog_ex when a file cannot be opened.
spdlog::sink_ptr make_sink(const std::string &name)
{
    if (name.ends_with("_std"))
        return std::make_shared<spdlog::sinks::stdout_sink_mt>();
    if (const char *folder = std::getenv("QZ_ZLOG_DIR"); folder && *folder != '\0')
        return std::make_shared<spdlog::sinks::basic_file_sink_mt>(std::string(folder) + "/" + name + ".log");
    return std::make_shared<spdlog::sinks::stderr_sink_mt>();
}

const char *level_name(int32_t level)
{
    if (level >= QZ_ZLOG_FATAL)
        return "FATAL";
    if (level >= QZ_ZLOG_ERROR)
        return "ERROR";
    if (level >= QZ_ZLOG_WARN)
        return "WARN";
    return level >= QZ_ZLOG_INFO ? "INFO" : "DEBUG";
}

// A text that printf cannot format (a wide character that the locale lacks) is shown as its format.
std::string formatted(const char *format, va_list args)
{
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, format, args);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    if (length > 0)
        std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return length < 0 ? format : text;
}

struct registry {
    std::mutex lock;
    std::map<std::string, std::unique_ptr<qz_zlog_category>, std::less<>> categories;
};

// Never destroyed: other threads and exit handlers may log until the very end.
registry &all()
{
    static registry *const instance = new registry;
    return *instance;
}

qz_zlog_category *find_or_make(const std::string &name)
{
    registry &registry = all();
    const std::lock_guard lock(registry.lock);
    auto &category = registry.categories[name];
    if (!category)
        category = std::make_unique<qz_zlog_category>(name);
    return category.get();
}

}  // namespace

qz_zlog_category::qz_zlog_category(const std::string &name) : logger(name, make_sink(name))
{
    logger.set_pattern(line_pattern);
    logger.set_level(spdlog::level::trace);  // callers have their own levels
    logger.flush_on(spdlog::level::trace);
}

qz_zlog_category *qz_zlog_init(const char *name, ...)
{
    if (!name || *name == '\0' || std::string_view(name).find('/') != std::string_view::npos)
        return nullptr;
    try {
        return find_or_make(name);
    } catch (const std::exception &) {
        return nullptr;
    }
}

void qzdf_zlog(qz_zlog_category *category, const char *file, size_t file_length, const char *function,
               size_t function_length, long line, int32_t level, const char *format, ...)
{
    if (!category || !format)
        return;
    va_list args;
    va_start(args, format);
    try {
        std::string text = formatted(format, args);
        if (text.ends_with('\n'))
            text.pop_back();
        category->logger.log(spdlog::level::info, "{} {} {}:{} {}: {}", level_name(level), category->logger.name(),
                             std::string_view(file ? file : "", file ? file_length : 0), line,
                             std::string_view(function ? function : "", function ? function_length : 0), text);
    } catch (const std::exception &) {
        // Without memory the message is lost; logging never fails its caller.
    }
    va_end(args);
}
