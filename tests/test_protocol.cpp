// The frames and the parsing of the replies, byte for byte, without a window
// or a printer. The window's own share (sentences, rows, log lines) is the
// black-box suite's.
#include "protocol.h"
#include "vprinter.h"

#include <gtest/gtest.h>

namespace {

Bytes hex(const std::string& text)
{
    vprinter::Bytes out;
    EXPECT_TRUE(vprinter::parse_hex(text, out)) << text;
    return Bytes(out.begin(), out.end());
}

std::string hex(const Bytes& bytes)
{
    return vprinter::to_hex(bytes.data(), bytes.size());
}

NetRecord record(const std::string& text)
{
    NetRecord r;
    const Bytes b = hex(text);
    EXPECT_TRUE(net_record_parse(b.data(), b.size(), &r)) << text;
    return r;
}

} // namespace

TEST(Protocol, FramesAreByteForByte)
{
    const guint8 addr[] = {10, 0, 0, 1}, gw[] = {10, 0, 0, 254}, mask[] = {255, 0, 0, 0}, zero[4] = {};
    const struct {
        Bytes frame;
        const char* bytes;
    } cases[] = {
        {net_read_frame(), "1b5e495352"},
        {net_write_frame(true, addr, gw, mask), "1b5e495357010a0000010a0000feff000000"},
        {net_write_frame(false, zero, zero, zero), "1b5e49535700000000000000000000000000"},
        {log_read_frame(), "1b1d1e10571b1d1f"},
        {log_reset_frame(), "1b1d1e10551b1d1f"},
        // 1705095875 is 0x65A1B2C3: least significant byte first.
        {log_trigger_frame(1705095875u), "1b1d1e101dc3b2a1651b1d1f"},
        {log_trigger_frame(0xFFFFFFFFu), "1b1d1e101dffffffff1b1d1f"},
        {log_trigger_frame(0), "1b1d1e101d000000001b1d1f"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(hex(c.frame), c.bytes);
}

TEST(Protocol, OnlyThirteenBytesAreANetworkRecord)
{
    const struct {
        std::string reply;
        bool parsed;
        guint8 dhcp;
        std::vector<int> address, gateway, mask;
    } cases[] = {
        {"00c0a80164c0a80101ffffff00", true, 0, {192, 168, 1, 100}, {192, 168, 1, 1}, {255, 255, 255, 0}},
        {"020a0000010a0000feff000000", true, 2, {10, 0, 0, 1}, {10, 0, 0, 254}, {255, 0, 0, 0}},
        {"ffffffffffffffffffffffffff", true, 255, {255, 255, 255, 255}, {255, 255, 255, 255}, {255, 255, 255, 255}},
        {"", false, 7, {}, {}, {}},
        {"000000000000000000000000", false, 7, {}, {}, {}},      // 12 bytes
        {"0000000000000000000000000000", false, 7, {}, {}, {}},  // 14 bytes
        {std::string(128, '0'), false, 7, {}, {}, {}},   // a failed read: the whole capacity
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reply);
        const Bytes reply = hex(c.reply);
        NetRecord r;
        r.dhcp = 7;
        EXPECT_EQ(net_record_parse(reply.data(), reply.size(), &r), c.parsed);
        EXPECT_EQ(r.dhcp, c.dhcp) << "a refused reply changes nothing";
        if (!c.parsed)
            continue;
        EXPECT_EQ(std::vector<int>(r.address, r.address + 4), c.address);
        EXPECT_EQ(std::vector<int>(r.gateway, r.gateway + 4), c.gateway);
        EXPECT_EQ(std::vector<int>(r.mask, r.mask + 4), c.mask);
        EXPECT_EQ(net_record_encode(r), reply) << "the same layout both ways";
    }
    NetRecord r;
    EXPECT_FALSE(net_record_parse(nullptr, 13, &r));
}

// The reply sits in a zero-filled buffer of the read's capacity; length is
// what the read reported (the capacity after a failed read).
TEST(Protocol, JobLogCountIsTrustedUpToTheBuffer)
{
    const struct {
        const char* reply;
        gint32 length;  // -1: the reply's own length
        bool usable;
        guint32 count;
        std::vector<guint32> times;
    } cases[] = {
        {"0100000000000000", -1, true, 1, {0}},
        {"010000003c000000", -1, true, 1, {60}},
        {"01000000ffffffff", -1, true, 1, {0xFFFFFFFFu}},
        {"020000003c000000780000000a000000", -1, true, 2, {60, 120}},  // a record more than the count: not shown
        {"02000000", -1, true, 2, {0, 0}},  // slots the printer did not fill read as zero
        {"00000000", -1, true, 0, {}},
        {"020000", -1, false, 0, {}},
        {"", -1, false, 0, {}},
        {"", 2048, true, 0, {}},  // a failed read: the length stays at the capacity
        {"0200000001000000", 0, false, 0, {}},
        {"0200000001000000", -5, false, 0, {}},  // signed: a negative length is short
        {"0200000001000000", 5, true, 2, {1, 0}},  // what lies past the length reads as zero
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reply);
        Bytes buffer = hex(c.reply);
        const gint32 length = c.length == -1 ? static_cast<gint32>(buffer.size()) : c.length;
        buffer.resize(log_reply_capacity, 0);
        const JobLog log = job_log_parse(buffer, length);
        EXPECT_EQ(log.usable, c.usable);
        EXPECT_EQ(log.count, c.count);
        EXPECT_EQ(log.times, c.times);
    }

    // A count far beyond the reply: every slot of the 2048-byte buffer, no more.
    for (const char* count : {"ffffffff", "00020000", "00000080"}) {
        Bytes buffer = hex(std::string(count) + "01000000");
        buffer.resize(log_reply_capacity, 0);
        const JobLog log = job_log_parse(buffer, 8);
        ASSERT_EQ(log.times.size(), 511u) << count;
        EXPECT_EQ(log.times[0], 1u);
        EXPECT_EQ(log.times[510], 0u);
    }
    const JobLog exact = job_log_parse(Bytes(log_reply_capacity, 0xFF), 2048);
    EXPECT_EQ(exact.times.size(), 511u);
    EXPECT_EQ(exact.times.back(), 0xFFFFFFFFu) << "the last slot ends at the buffer's last byte";
    EXPECT_TRUE(job_log_parse(Bytes{5, 0}, 4).times.empty()) << "no slot fits a buffer this short";
}

TEST(Protocol, ReadBackNamesTheFieldsReportedOtherwise)
{
    const NetRecord sent = record("000a0000010a0000feffffff00");
    using F = NetField;
    const struct {
        const char* reported;
        std::vector<NetField> fields;
    } cases[] = {
        {"000a0000010a0000feffffff00", {}},
        {"000a0000090a0000feffffff00", {F::Address}},
        {"000a0000010a0000feffff0000", {F::SubnetMask}},
        {"000a0000010a000001ffffff00", {F::Gateway}},
        {"020a0000010a0000feffffff00", {F::Dhcp}},
        {"010a0000090a000001ffff0000", {F::Address, F::SubnetMask, F::Gateway, F::Dhcp}},  // the page's order
    };
    for (const auto& c : cases)
        EXPECT_EQ(net_differences(sent, record(c.reported)), c.fields) << c.reported;
    EXPECT_EQ(net_differences(record("010a0000010a0000feffffff00"), record("ff0a0000010a0000feffffff00")),
              std::vector<NetField>{}) << "any DHCP byte but 0 is on";
    const NetRecord reported = record("000a0000090a000001ffff0000");
    EXPECT_EQ(net_field_octets(reported, F::SubnetMask), reported.mask);
    EXPECT_EQ(net_field_octets(reported, F::Gateway), reported.gateway);
    EXPECT_EQ(net_field_octets(reported, F::Dhcp), nullptr);
}
