// IPv4 text: an accepted text is the dotted-decimal text of its octets, and
// anything refused gives four zero bytes; four octets make a text that is
// accepted and gives them back.
#include "check.h"
#include "ipv4.h"

#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);  // ends at a zero byte as C text
    guint8 octets[4] = {1, 2, 3, 4};
    const bool ok = ipv4_from_text(text.c_str(), octets);
    if (ok) {
        FUZZ_CHECK(ipv4_to_text(octets) == std::string(text.c_str()));
    } else {
        const guint8 zero[4] = {};
        FUZZ_CHECK(memcmp(octets, zero, 4) == 0);
    }

    if (size >= 4) {
        const std::string made = ipv4_to_text(data);
        char expected[16];
        snprintf(expected, sizeof expected, "%u.%u.%u.%u", data[0], data[1], data[2], data[3]);
        FUZZ_CHECK(made == expected);
        guint8 back[4] = {};
        FUZZ_CHECK(ipv4_from_text(made.c_str(), back) && memcmp(back, data, 4) == 0);
    }
    return 0;
}
