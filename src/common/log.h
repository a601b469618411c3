// Library-wide logging. Every line goes through AM_LOG, which prefixes the
// function name and source line and routes the line to the platform's
// console and file logs under module 19, tag "lyra".
//
// The format must be a literal: texts from outside (browser messages, URLs,
// user agents) are always passed as "%s" arguments, never as the format.
#pragma once

#include "hbb_platform.h"

#define AM_LOG_MODULE 19
#define AM_LOG_INFO 2
#define AM_LOG_WARN 3
#define AM_LOG_ERROR 5

namespace appmgr {
constexpr int orb_level(int level) {
    return level == AM_LOG_ERROR ? ORBLOG_LOGLVL_ERROR
           : level == AM_LOG_WARN ? ORBLOG_LOGLVL_WARN
                                  : ORBLOG_LOGLVL_INFO;
}
}  // namespace appmgr

#define AM_LOG(level, fmt, ...)                                                              \
    do {                                                                                     \
        if (log_is_output(AM_LOG_MODULE, (level)))                                           \
            orb_log_printfs("lyra", log_get_cmd(AM_LOG_MODULE), appmgr::orb_level(level),   \
                            "[%s:%d]:" fmt, __func__, __LINE__, ##__VA_ARGS__);              \
        if (log_is_outfile(AM_LOG_MODULE, (level)))                                          \
            fpi_log_printf(log_get_cmd(AM_LOG_MODULE), (level), "[%s:%d]:" fmt, __func__,    \
                           __LINE__, ##__VA_ARGS__);                                         \
    } while (0)

#define AM_INFO(fmt, ...) AM_LOG(AM_LOG_INFO, fmt, ##__VA_ARGS__)
#define AM_WARN(fmt, ...) AM_LOG(AM_LOG_WARN, fmt, ##__VA_ARGS__)
#define AM_ERROR(fmt, ...) AM_LOG(AM_LOG_ERROR, fmt, ##__VA_ARGS__)
