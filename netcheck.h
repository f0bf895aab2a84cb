// The network page's settings looked over before Save sends them: a fixed
// address that cannot work locks the printer away until someone stands at it
// with a USB cable again. No widgets here: texts in, findings out.
#pragma once

#include "protocol.h"

#include <array>
#include <optional>
#include <string>

enum class Level { Warning, Error };

struct Finding {
    Level level;
    std::string sentence;  // names the entry, the value and the reason; translated
};

// At most one finding for each address entry of the page.
struct NetFindings {
    std::array<std::optional<Finding>, 3> entries;  // address, subnet mask, gateway: the page's order
    std::optional<Finding>& operator[](NetField f) { return entries.at(static_cast<size_t>(f)); }
    const std::optional<Finding>& operator[](NetField f) const { return entries.at(static_cast<size_t>(f)); }
    bool has_error() const;
};

// With DHCP on the printer takes its address from the network: only text that
// Save would send as 0.0.0.0 is marked. With DHCP off an error means the
// printer would not be reachable, a warning that it may work but is worth a
// second look. An empty gateway (or 0.0.0.0) means none. Null texts count as
// empty.
NetFindings netcheck(bool dhcp, const char* address, const char* mask, const char* gateway);
