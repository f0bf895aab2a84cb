// Save's read-back: given the record sent and the one reported (the first
// 26 bytes), the comparison names exactly the fields whose octets differ, once
// each, in the page's order, and DHCP only when one is on and the other off.
#include "check.h"
#include "protocol.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2 * net_record_size)
        return 0;
    NetRecord sent, reported;
    FUZZ_CHECK(net_record_parse(data, net_record_size, &sent));
    FUZZ_CHECK(net_record_parse(data + net_record_size, net_record_size, &reported));
    const uint8_t* a = data;
    const uint8_t* b = data + net_record_size;

    std::vector<NetField> expected;
    // Wire offsets of the page's fields: address, subnet mask, gateway.
    const struct {
        NetField field;
        size_t offset;
    } fields[] = {{NetField::Address, 1}, {NetField::SubnetMask, 9}, {NetField::Gateway, 5}};
    for (const auto& f : fields) {
        if (memcmp(a + f.offset, b + f.offset, 4) != 0)
            expected.push_back(f.field);
        FUZZ_CHECK(memcmp(net_field_octets(reported, f.field), b + f.offset, 4) == 0);
    }
    if ((a[0] == 0) != (b[0] == 0))
        expected.push_back(NetField::Dhcp);
    FUZZ_CHECK(net_differences(sent, reported) == expected);
    FUZZ_CHECK(net_differences(reported, sent) == expected);
    FUZZ_CHECK(net_differences(sent, sent).empty());
    FUZZ_CHECK(net_field_octets(reported, NetField::Dhcp) == nullptr);
    return 0;
}
