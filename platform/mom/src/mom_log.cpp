// Log lines of the client.
#include "mom_log.hpp"

#include <cstring>

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

void log_foreign(const char *key)
{
    qzdf_zlog(category(), __FILE__, std::strlen(__FILE__), __func__, std::strlen(__func__), __LINE__, QZ_ZLOG_ERROR,
              "skipped, not a record of ours: %s", key);
}

void log_failure(const char *what)
{
    qzdf_zlog(category(), __FILE__, std::strlen(__FILE__), __func__, std::strlen(__func__), __LINE__, QZ_ZLOG_ERROR,
              "%s", what);
}

}  // namespace mom
