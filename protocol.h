// The printer's command frames and the parsing of its replies: bytes in,
// plain values out. It knows no widget and no USB, so that every parser here
// can be fed anything (tests/test_protocol.cpp, fuzz/).
#pragma once

#include <glib.h>

#include <vector>

using Bytes = std::vector<guint8>;

// The network configuration record, the same both ways: dhcp, then address,
// gateway and subnet mask (wire order, each four octets in network order).
struct NetRecord {
    guint8 dhcp = 0;  // 0: a fixed address; any other value: DHCP on
    guint8 address[4] = {};
    guint8 gateway[4] = {};
    guint8 mask[4] = {};
};

constexpr gsize net_record_size = 13;
// The bytes asked for in the single read of each reply.
constexpr gsize net_reply_capacity = 64;
constexpr gsize log_reply_capacity = 2048;

Bytes net_read_frame();
// The write frame: its header, then the record with DHCP sent as 1 or 0.
Bytes net_write_frame(bool dhcp, const guint8 address[4], const guint8 gateway[4], const guint8 mask[4]);
Bytes log_read_frame();
Bytes log_reset_frame();
// The trigger carries the time (Unix seconds cut to 32 bits) little-endian.
Bytes log_trigger_frame(guint32 now);

// The little-endian 32-bit number in the first four bytes.
guint32 le32(const guint8* bytes);

Bytes net_record_encode(const NetRecord& record);
// Only exactly 13 bytes are a record: anything else gives false and leaves
// *record as it was.
bool net_record_parse(const guint8* bytes, gsize length, NetRecord* record);

// The job-log reply: a count, then one start time per job.
struct JobLog {
    bool usable = false;          // more than 3 bytes came
    guint32 count = 0;            // as the printer sent it, trusted
    std::vector<guint32> times;   // the records that fit in the buffer
};

// buffer holds the whole read (its capacity); length is what the read
// reported (the capacity after a failed read). The count is the printer's
// word: a record past what came reads as zero, and none lies past the buffer.
JobLog job_log_parse(const Bytes& buffer, gint32 length);

// A field of the network page, in the page's order.
enum class NetField { Address, SubnetMask, Gateway, Dhcp };

// The fields the printer reports otherwise than they were sent, in the
// page's order; DHCP differs only when one is on and the other off.
std::vector<NetField> net_differences(const NetRecord& sent, const NetRecord& reported);
// The octets of an address field (not of Dhcp).
const guint8* net_field_octets(const NetRecord& record, NetField field);
