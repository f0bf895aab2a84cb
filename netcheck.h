// The network page's settings looked over before Save sends them: a fixed
// address that cannot work locks the printer away until someone stands at it
// with a USB cable again. No widgets here: texts in, findings out.
#pragma once

#include <array>
#include <optional>
#include <string>

enum class Level { Warning, Error };

struct Finding {
    Level level;
    std::string sentence;  // names the entry, the value and the reason; translated
};

// The entries in the page's order.
enum NetField { Address, Mask, Gateway };

// At most one finding for each entry, indexed by NetField.
using NetFindings = std::array<std::optional<Finding>, 3>;

// With DHCP on the printer takes its address from the network: only text that
// Save would send as 0.0.0.0 is marked. With DHCP off an error means the
// printer would not be reachable, a warning that it may work but is worth a
// second look. An empty gateway (or 0.0.0.0) means none. Null texts count as
// empty.
NetFindings netcheck(bool dhcp, const char* address, const char* mask, const char* gateway);

bool has_error(const NetFindings& findings);
