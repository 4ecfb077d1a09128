// Log lines of the client.
#include "mom_log.hpp"

#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "qz_zlog.h"

namespace mom
{
namespace
{

qz_zlog_category *category()
{
    static qz_zlog_category *const made = qz_zlog_init("qz_mom");
    return made;
}

}  // namespace

void log_failure(const char *what)
{
    qzdf_zlog(category(), __FILE__, std::strlen(__FILE__), __func__, std::strlen(__func__), __LINE__, QZ_ZLOG_ERROR,
              "%s", what);
}

// Somebody else has chosen the key: control characters, which would break the line or do worse, are shown as \xNN.
void log_foreign(const char *key)
try {
    std::string line = "skipped, not a record of ours: ";
    for (; *key != '\0'; ++key) {
        char shown[8];
        const auto byte = static_cast<unsigned char>(*key);
        std::snprintf(shown, sizeof shown, byte < ' ' || byte == 0x7f ? "\\x%02x" : "%c", byte);
        line += shown;
    }
    log_failure(line.c_str());
} catch (const std::bad_alloc &) {
    log_failure("skipped, not a record of ours; no memory for its key");
}

}  // namespace mom
