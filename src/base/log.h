// The levelled log of the daemon and its platform: lines
// "<level> <file>:<line> <function>: <text>" on standard error (or the file
// named by WLOG_FILE) for levels up to WLOG_LEVEL (default 6, info), and the
// system log.
#pragma once

// Log levels of wlog_log_f.
enum { WLOG_ERR = 3, WLOG_NOTICE = 5, WLOG_INFO = 6, WLOG_DEBUG = 7 };

bool wlog_levelAllow(int level);
void wlog_log_f(int level, const char* file, int line, const char* func, const char* fmt, ...)
    __attribute__((format(printf, 5, 6)));
// System log line (syslog(3)), mirrored to standard error.
void wlog_syslog(int priority, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// A log line of `level` from source `src`, formatted only when the level is
// logged.
#define WLOG(level, src, ...)                                        \
    do {                                                             \
        if (wlog_levelAllow(level))                                  \
            wlog_log_f(level, src, __LINE__, __func__, __VA_ARGS__); \
    } while (0)

// The source names the daemon's lines carry: its REST core and its extended
// objects.
#define WHTTPD_SRC "whttpd_rest.c"
#define VX_SRC "whttpd_extobj.c"
