// The network settings check: the first byte's low bit is the DHCP switch,
// the rest the address, subnet mask and gateway texts, one a line (a missing
// one is null). What it says holds whatever was typed: with DHCP on only text
// Save would send as 0.0.0.0 is marked, and only as a warning; with DHCP off
// an address or mask that is not one is an error, a mask whose ones come
// first with 1 to 30 of them passes, no gateway passes, one equal to the
// address is an error; every sentence is valid UTF-8 and short.
#include "check.h"
#include "ipv4.h"
#include "netcheck.h"

#include <algorithm>
#include <string>
#include <vector>

namespace {

bool is_ipv4(const std::string& text)
{
    guint8 octets[4];
    return ipv4_from_text(text.c_str(), octets);
}

guint32 value_of(const std::string& text)
{
    guint8 o[4] = {};
    ipv4_from_text(text.c_str(), o);
    return static_cast<guint32>(o[0]) << 24 | static_cast<guint32>(o[1]) << 16 | static_cast<guint32>(o[2]) << 8 | o[3];
}

int prefix_of(guint32 mask)
{
    int n = 0;
    while (n < 32 && (mask & (0x80000000u >> n)))
        ++n;
    return n < 32 && (mask << n) != 0 ? -1 : n;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    const bool dhcp = data[0] & 1;
    std::vector<std::string> texts;
    std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);
    for (size_t start = 0; texts.size() < 3 && start <= rest.size();) {
        const size_t end = std::min(rest.find('\n', start), rest.size());
        texts.push_back(rest.substr(start, end - start));
        start = end + 1;
    }
    const char* given[3] = {};
    for (size_t i = 0; i < texts.size(); ++i)
        given[i] = texts[i].c_str();
    const NetFindings f = netcheck(dhcp, given[0], given[1], given[2]);

    std::string text[3];  // as the check reads them: up to the first zero byte, null as empty
    for (int i = 0; i < 3; ++i)
        text[i] = given[i] != nullptr ? given[i] : "";
    bool any_error = false;
    for (const auto& finding : f.entries) {
        if (!finding)
            continue;
        any_error = any_error || finding->level == Level::Error;
        FUZZ_CHECK(!finding->sentence.empty());
        FUZZ_CHECK(g_utf8_validate(finding->sentence.c_str(), -1, nullptr));
        FUZZ_CHECK(finding->sentence.size() < 400);
    }
    FUZZ_CHECK(f.has_error() == any_error);

    const auto& address = f[NetField::Address];
    const auto& mask = f[NetField::SubnetMask];
    const auto& gateway = f[NetField::Gateway];
    if (dhcp) {
        for (int i = 0; i < 3; ++i) {
            const bool marked = !text[i].empty() && !is_ipv4(text[i]);
            FUZZ_CHECK(f.entries[i].has_value() == marked);
            FUZZ_CHECK(!f.entries[i] || f.entries[i]->level == Level::Warning);
        }
        return 0;
    }
    if (!is_ipv4(text[0]))
        FUZZ_CHECK(address && address->level == Level::Error);
    if (address == std::nullopt) {
        const guint32 top = value_of(text[0]) >> 24;
        FUZZ_CHECK(top != 0 && top != 127 && top < 224);
    }
    if (!is_ipv4(text[1])) {
        FUZZ_CHECK(mask && mask->level == Level::Error);
    } else {
        const int prefix = prefix_of(value_of(text[1]));
        if (prefix >= 1 && prefix <= 30)
            FUZZ_CHECK(!mask);
        else if (prefix >= 31)
            FUZZ_CHECK(mask && mask->level == Level::Warning);
        else
            FUZZ_CHECK(mask && mask->level == Level::Error);
    }
    if (text[2].empty() || (is_ipv4(text[2]) && value_of(text[2]) == 0))
        FUZZ_CHECK(!gateway);
    else if (!is_ipv4(text[2]))
        FUZZ_CHECK(gateway && gateway->level == Level::Error);
    else if (is_ipv4(text[0]) && value_of(text[0]) == value_of(text[2]))
        FUZZ_CHECK(gateway && gateway->level == Level::Error);
    return 0;
}
