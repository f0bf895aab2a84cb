// The network record: any reply of 13 bytes is a record and encodes back to
// the same bytes; any other length is refused and changes nothing; the write
// frame carries the record with DHCP as 1 or 0.
#include "check.h"
#include "protocol.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    NetRecord record;
    record.dhcp = 0xA5;
    const bool parsed = net_record_parse(data, size, &record);
    FUZZ_CHECK(parsed == (size == net_record_size));
    if (!parsed) {
        FUZZ_CHECK(record.dhcp == 0xA5 && net_record_encode(record) == net_record_encode(NetRecord{0xA5, {}, {}, {}}));
        return 0;
    }
    const Bytes back = net_record_encode(record);
    FUZZ_CHECK(back.size() == size && memcmp(back.data(), data, size) == 0);

    const Bytes frame = net_write_frame(record.dhcp != 0, record.address, record.gateway, record.mask);
    const Bytes header = {0x1B, 0x5E, 0x49, 0x53, 0x57};
    FUZZ_CHECK(frame.size() == header.size() + net_record_size);
    FUZZ_CHECK(std::equal(header.begin(), header.end(), frame.begin()));
    FUZZ_CHECK(frame[5] == (data[0] != 0 ? 1 : 0));
    FUZZ_CHECK(memcmp(frame.data() + 6, data + 1, 12) == 0);
    NetRecord sent;
    FUZZ_CHECK(net_record_parse(frame.data() + 5, net_record_size, &sent));
    FUZZ_CHECK(net_differences(sent, record).empty());
    return 0;
}
