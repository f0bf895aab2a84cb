// Helpers shared by the test programs.
#pragma once

#include <plog/Appenders/IAppender.h>
#include <plog/Record.h>

#include <mutex>
#include <string>
#include <vector>

namespace testing_support {

struct Line {
    plog::Severity severity;
    std::string func;  // as plog shortens it
    std::string message;
};

// Collects the logger's records; install() makes it the logger's only appender.
class Capture : public plog::IAppender {
public:
    void write(const plog::Record& record) override;
    std::vector<Line> lines() const;
    std::vector<std::string> messages() const;  // "W:text" etc.
    void clear();
    static Capture& install();

private:
    mutable std::mutex mutex_;
    std::vector<Line> lines_;
};

} // namespace testing_support
