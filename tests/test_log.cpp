// The logger: console bytes, the GLib bridge, the file line and the file itself.
#include "COMMON/plog_ex.h"
#include "support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <iterator>

using testing_support::Capture;

namespace {

// Runs body in a child process whose standard error is `fd`; the logger's
// function-local statics are then fresh for each case.
void in_child(int fd, const std::function<void()>& body)
{
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        dup2(fd, STDERR_FILENO);
        body();
        _exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

std::string read_all(int fd)
{
    std::string out;
    char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0)
        out.append(buf, static_cast<size_t>(n));
    return out;
}

void log_each_severity()
{
    init_plog(nullptr);
    for (int s = plog::none; s <= plog::verbose; ++s)
        PLOG_(0, static_cast<plog::Severity>(s)) << plog::severityToString(static_cast<plog::Severity>(s));
}

std::string slurp(const std::string& path)
{
    std::ifstream f(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

// A record whose time and thread are fixed.
class FixedRecord : public plog::Record {
public:
    FixedRecord(plog::Severity s, time_t t, unsigned short ms, unsigned tid, const std::string& msg)
        : plog::Record(s, "", 0, "", nullptr, 0), tid_(tid)
    {
        time_.time = t;
        time_.millitm = ms;
        *this << msg;
    }
    const plog::util::Time& getTime() const override { return time_; }
    unsigned int getTid() const override { return tid_; }

private:
    plog::util::Time time_;
    unsigned tid_;
};

} // namespace

TEST(Console, ColoursOnlyOnATerminal)
{
    const std::string reset = "\x1b[0m\x1b[0K";
    const std::string on_terminal = "NONE\n" + reset + "\x1b[97m\x1b[41mFATAL\n" + reset + "\x1b[91mERROR\n" + reset +
                                    "\x1b[93mWARN\n" + reset + "INFO\n" + reset + "\x1b[96mDEBUG\n" + reset +
                                    "\x1b[96mVERB\n" + reset;

    int master = -1, slave = -1;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    termios raw;
    tcgetattr(slave, &raw);
    cfmakeraw(&raw);  // no \n -> \r\n on the way through
    tcsetattr(slave, TCSANOW, &raw);
    in_child(slave, log_each_severity);
    close(slave);
    fcntl(master, F_SETFL, O_NONBLOCK);
    EXPECT_EQ(read_all(master), on_terminal);
    close(master);

    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    in_child(fds[1], log_each_severity);
    close(fds[1]);
    EXPECT_EQ(read_all(fds[0]), "NONE\nFATAL\nERROR\nWARN\nINFO\nDEBUG\nVERB\n");
    close(fds[0]);
}

TEST(GlibBridge, EveryLevelValueHasItsLetterAndSeverity)
{
    struct Case {
        int level;
        const char* text;
        plog::Severity severity;
    };
    const Case cases[] = {
        {G_LOG_LEVEL_ERROR, "[E]m", plog::error},
        {G_LOG_LEVEL_CRITICAL, "[C]m", plog::error},
        {G_LOG_LEVEL_WARNING, "[W]m", plog::warning},
        {G_LOG_LEVEL_MESSAGE, "[M]m", plog::info},
        {G_LOG_LEVEL_INFO, "[I]m", plog::info},
        {G_LOG_LEVEL_DEBUG, "[D]m", plog::debug},
        {G_LOG_LEVEL_ERROR | G_LOG_FLAG_FATAL, "[X]m", plog::debug},  // what g_error sends
        {G_LOG_LEVEL_CRITICAL | G_LOG_FLAG_FATAL, "[X]m", plog::debug},
        {G_LOG_LEVEL_INFO | G_LOG_FLAG_RECURSION, "[X]m", plog::debug},
        {1 << 9, "[X]m", plog::debug},  // a user-defined level
    };
    Capture& log = Capture::install();
    for (const Case& c : cases) {
        log.clear();
        my_glib_log_func("domain", static_cast<GLogLevelFlags>(c.level), "m", nullptr);
        const auto lines = log.lines();
        ASSERT_EQ(lines.size(), 1u) << c.level;
        EXPECT_EQ(lines[0].message, c.text) << c.level;
        EXPECT_EQ(lines[0].severity, c.severity) << c.level;
        EXPECT_EQ(lines[0].func, "my_glib_log_func");
    }

    log.clear();
    my_glib_log_func(nullptr, G_LOG_LEVEL_WARNING, nullptr, nullptr);
    my_glib_log_func(nullptr, G_LOG_LEVEL_MESSAGE, "", nullptr);
    EXPECT_EQ(log.messages(), (std::vector<std::string>{"W:[W]", "I:[M]"}));

    // Through GLib: a domain is not printed, debug is not hidden, a failed precondition is an error.
    log.clear();
    GLogFunc old = g_log_set_default_handler(my_glib_log_func, nullptr);
    g_log("Gtk", G_LOG_LEVEL_WARNING, "from %s", "GTK");
    g_debug("debug shows too");
    auto precondition = [](gpointer self) { g_return_if_fail(self != NULL); };
    precondition(nullptr);
    g_log_set_default_handler(old, nullptr);
    const auto messages = log.messages();
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(messages[0], "W:[W]from GTK");
    EXPECT_EQ(messages[1], "D:[D]debug shows too");
    EXPECT_EQ(messages[2].rfind("E:[C]", 0), 0u);
    EXPECT_NE(messages[2].find(": assertion 'self != NULL' failed"), std::string::npos);
}

TEST(FileLine, IsByteExact)
{
    struct Case {
        plog::Severity severity;
        time_t time;
        unsigned short ms;
        unsigned tid;
        const char* message;
        const char* line;
    };
    const Case cases[] = {
        {plog::info, 1794731958, 123, 4711, "loading", "20261115.083918.123 I [4711] loading\n"},
        {plog::warning, 0, 7, 1, "", "19700101.000000.007 W [1] \n"},
        {plog::none, 86399, 999, 42, "x", "19700101.235959.999 N [42] x\n"},
        {plog::fatal, 0, 0, 0, "a\nb", "19700101.000000.000 F [0] a\nb\n"},
        {plog::error, 0, 0, 9, "e", "19700101.000000.000 E [9] e\n"},
        {plog::debug, 0, 0, 9, "d", "19700101.000000.000 D [9] d\n"},
        {plog::verbose, 0, 0, 9, "v", "19700101.000000.000 V [9] v\n"},
        {static_cast<plog::Severity>(7), 0, 0, 9, "?", "19700101.000000.000 N [9] ?\n"},
        {plog::info, -30641760000, 5, 3, "old", "9990101.000000.005 I [3] old\n"},  // year 999
    };
    for (const Case& c : cases) {
        FixedRecord r(c.severity, c.time, c.ms, c.tid, c.message);
        EXPECT_EQ(plog::MyFormatter<true>::format(r), c.line);
    }
    EXPECT_EQ(plog::MyFormatter<true>::header(), "");
}

TEST(LogFile, CreatedAtTheFirstRecordWithAByteOrderMark)
{
    char dir_template[] = "/tmp/pellavoy-log-XXXXXX";
    const std::string dir = mkdtemp(dir_template);
    const std::string path = dir + "/run.log";
    int devnull = open("/dev/null", O_WRONLY);

    // A file from an earlier run goes at set-up; nothing logged, nothing made.
    std::ofstream(path) << "stale";
    in_child(devnull, [&] { init_log_normal("run", true, dir.c_str()); });
    EXPECT_NE(access(path.c_str(), F_OK), 0);

    in_child(devnull, [&] {
        init_log_normal("run", true, dir.c_str());
        PLOGI << "first";
        PLOGW << "second";
    });
    const std::string text = slurp(path);
    ASSERT_GE(text.size(), 3u);
    EXPECT_EQ(text.substr(0, 3), "\xEF\xBB\xBF");
    EXPECT_NE(text.find(" I ["), std::string::npos);
    EXPECT_EQ(text.substr(text.size() - 9), "] second\n");
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2);

    // Without a name, or with the file switched off, the console is all.
    unlink(path.c_str());
    in_child(devnull, [&] {
        init_log_normal("run", false, dir.c_str());
        init_log_normal(nullptr);
        PLOGI << "console only";
    });
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    close(devnull);
    rmdir(dir.c_str());
}
