#include "support.h"

#include <plog/Init.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace testing_support {

static char severity_letter(plog::Severity s)
{
    return "NFEWIDV"[s <= plog::verbose ? s : 0];
}

void Capture::write(const plog::Record& record)
{
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back({record.getSeverity(), record.getFunc(), record.getMessage()});
}

std::vector<Line> Capture::lines() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

std::vector<std::string> Capture::messages() const
{
    std::vector<std::string> out;
    for (const Line& l : lines())
        out.push_back(std::string(1, severity_letter(l.severity)) + ":" + l.message);
    return out;
}

void Capture::clear()
{
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
}

Capture& Capture::install()
{
    static Capture capture;
    static bool installed = false;
    if (!installed)
        plog::init<0>(plog::verbose, &capture);
    installed = true;
    return capture;
}

} // namespace testing_support
