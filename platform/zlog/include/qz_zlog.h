/* qz_zlog.h - log categories and the message formatter.
 *
 * A category is a named channel. This implementation sends categories whose name ends in "_std" to standard output and
 * all others to the file NAME.log in the folder that the environment variable QZ_ZLOG_DIR names, or to standard error
 * when it is not set or empty. Each message is one line, written out at once:
 *
 *     2024-03-01 12:00:00.000000 ERROR sw_vlan_file app/lib/ebridge/libsw_ebridge.cpp:120 sw_ebridge_init: the text
 *
 * All functions may be called from any thread.
 */
#ifndef QZ_ZLOG_H
#define QZ_ZLOG_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct qz_zlog_category qz_zlog_category;

enum qz_zlog_level {
    QZ_ZLOG_DEBUG = 20,
    QZ_ZLOG_INFO = 40,
    QZ_ZLOG_WARN = 80,
    QZ_ZLOG_ERROR = 100,
    QZ_ZLOG_FATAL = 120
};

/* The category of that name, made when it is new; null when the name is null, empty or has a '/' in it, or when its
 * file cannot be opened (the folder is made when it is missing, an existing file is continued). The environment is read
 * when a category is made. Further arguments are taken for platforms that want some; this one reads none. Lives as long
 * as the process; naming it again gives the same one. */
qz_zlog_category *qz_zlog_init(const char *name, ...);

/* Writes one message: the call site (source file and function with their text lengths, line), the level, and a printf
 * format with its arguments. One newline at the end of the text is taken for the line's own. A level between two of the
 * list is named after the lower one. Nothing is written for a null category or format. */
void qzdf_zlog(qz_zlog_category *category, const char *file, size_t file_length, const char *function,
               size_t function_length, long line, int32_t level, const char *format, ...)
    __attribute__((format(printf, 8, 9)));

/* snprintf with three conversions more: %a an IPv4 address (uint32_t by value, in network byte order: its four bytes in
 * memory order), %v an IPv6 address (pointer to 16 bytes; its short form, "2001:db8::1"), %m a MAC address (pointer to
 * 6 bytes; "00:1a:2b:3c:4d:5e"); a null pointer prints "(null)". The three take no flags, width, precision or length
 * modifier: with one they are unknown. So is %n, which would write. A conversion that the C standard does not know
 * either is copied as it stands and takes no argument. Cuts to `size` and always terminates (a null text counts as size
 * 0); returns the length that the whole text has, or -1 when a piece cannot be formatted (which is then left out) or
 * the format is null. */
int32_t at_snprintf(char *text, size_t size, const char *format, ...);

#ifdef __cplusplus
}
#endif
#endif
