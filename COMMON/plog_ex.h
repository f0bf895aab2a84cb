// The program's one logger: coloured console on standard error, an optional
// file under /tmp, and a bridge that carries GLib's messages into it.
#pragma once

#include <plog/Appenders/ColorConsoleAppender.h>
#include <plog/Appenders/RollingFileAppender.h>
#include <plog/Converters/NativeEOLConverter.h>
#include <plog/Converters/UTF8Converter.h>
#include <plog/Formatters/MessageOnlyFormatter.h>
#include <plog/Formatters/TxtFormatter.h>
#include <plog/Init.h>
#include <plog/Log.h>

#include <glib.h>

#include <cstdio>
#include <ctime>
#include <iomanip>
#include <sstream>
#include <string>
#include <type_traits>

namespace plog {

// One dense line per record: 20261115.083918.123 I [4711] message
template <bool useUtcTime>
class MyFormatter : public std::conditional_t<useUtcTime, TxtFormatterUtcTime, TxtFormatter> {
public:
    static const char* severityToString(Severity severity)
    {
        switch (severity) {
        case fatal: return "F";
        case error: return "E";
        case warning: return "W";
        case info: return "I";
        case debug: return "D";
        case verbose: return "V";
        default: return "N";
        }
    }

    static util::nstring format(const Record& record)
    {
        tm t;
        if (useUtcTime)
            util::gmtime_s(&t, &record.getTime().time);
        else
            util::localtime_s(&t, &record.getTime().time);

        util::nostringstream ss;
        ss << t.tm_year + 1900;
        ss << std::setfill('0') << std::setw(2) << t.tm_mon + 1;
        ss << std::setfill('0') << std::setw(2) << t.tm_mday;
        ss << ".";
        ss << std::setfill('0') << std::setw(2) << t.tm_hour;
        ss << std::setfill('0') << std::setw(2) << t.tm_min;
        ss << std::setfill('0') << std::setw(2) << t.tm_sec;
        ss << ".";
        ss << std::setfill('0') << std::setw(3) << static_cast<int>(record.getTime().millitm);
        ss << " " << severityToString(record.getSeverity()) << " ";
        ss << "[" << record.getTid() << "] ";
        ss << record.getMessage() << "\n";
        return ss.str();
    }
};

} // namespace plog

// Console on standard error; with a name, also the file <dir><name>.log, where
// dir is log_path (a directory) or /tmp/. use_file false keeps to the console.
inline void init_log_normal(const char* name, bool use_file, const char* log_path)
{
    static plog::ColorConsoleAppender<plog::MessageOnlyFormatter> console_appender(plog::streamStdErr);
    plog::Logger<0>& logger = plog::init<0>(plog::verbose, &console_appender);

    if (name == nullptr || !use_file)
        return;

    std::string file_path = log_path ? log_path : "/tmp/";
    if (file_path.empty() || file_path.back() != '/')
        file_path += '/';
    file_path += name;
    file_path += ".log";

    // Every run starts a new file; the appender only creates it at the first record.
    std::remove(file_path.c_str());
    static plog::RollingFileAppender<plog::MyFormatter<true>, plog::NativeEOLConverter<plog::UTF8Converter>>
        file_appender(file_path.c_str());
    logger.addAppender(&file_appender);
}

inline void init_log_normal(const char* name)
{
    init_log_normal(name, true, nullptr);
}

void init_plog(const char* name);

// GLib's default log handler: "[L]message" at the severity of GLib's level.
// The level is compared whole, so a level carrying a flag bit (g_error arrives
// as error|fatal) falls through to "X" at debug.
[[maybe_unused]] static void my_glib_log_func(const gchar* log_domain, GLogLevelFlags log_level,
                                              const gchar* message, gpointer user_data)
{
    static const char func[] = "void my_glib_log_func(const gchar*, GLogLevelFlags, const gchar*, gpointer)";
    (void)log_domain;
    (void)user_data;

    const char* letter = "X";
    plog::Severity severity = plog::debug;
    switch (static_cast<int>(log_level)) {
    case G_LOG_LEVEL_ERROR: letter = "E"; severity = plog::error; break;
    case G_LOG_LEVEL_CRITICAL: letter = "C"; severity = plog::error; break;
    case G_LOG_LEVEL_WARNING: letter = "W"; severity = plog::warning; break;
    case G_LOG_LEVEL_MESSAGE: letter = "M"; severity = plog::info; break;
    case G_LOG_LEVEL_INFO: letter = "I"; severity = plog::info; break;
    case G_LOG_LEVEL_DEBUG: letter = "D"; severity = plog::debug; break;
    default: break;
    }

    std::ostringstream oss;
    oss << "[" << letter << "]";
    if (message)
        oss << message;

    IF_PLOG_(0, severity)
    (*plog::get<0>()) += plog::Record(severity, func, __LINE__, "", nullptr, 0).ref() << oss.str();
}
