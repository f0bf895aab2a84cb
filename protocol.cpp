#include "protocol.h"

#include <algorithm>
#include <string.h>

// Network frames open with ESC ^ I S and an operation letter; job-log frames
// stand between ESC GS RS DLE and ESC GS US.
static const guint8 net_header[] = {0x1B, 0x5E, 0x49, 0x53};
static const guint8 log_prefix[] = {0x1B, 0x1D, 0x1E, 0x10};
static const guint8 log_trailer[] = {0x1B, 0x1D, 0x1F};

static Bytes net_frame(guint8 operation)
{
    Bytes frame(net_header, net_header + sizeof net_header);
    frame.push_back(operation);
    return frame;
}

static Bytes log_frame(guint8 operation, const Bytes& payload = {})
{
    Bytes frame(log_prefix, log_prefix + sizeof log_prefix);
    frame.push_back(operation);
    frame.insert(frame.end(), payload.begin(), payload.end());
    frame.insert(frame.end(), log_trailer, log_trailer + sizeof log_trailer);
    return frame;
}

Bytes net_read_frame()
{
    return net_frame('R');
}

Bytes net_write_frame(bool dhcp, const guint8 address[4], const guint8 gateway[4], const guint8 mask[4])
{
    NetRecord record;
    record.dhcp = dhcp ? 1 : 0;
    memcpy(record.address, address, 4);
    memcpy(record.gateway, gateway, 4);
    memcpy(record.mask, mask, 4);
    Bytes frame = net_frame('W');
    const Bytes bytes = net_record_encode(record);
    frame.insert(frame.end(), bytes.begin(), bytes.end());
    return frame;
}

Bytes log_read_frame()
{
    return log_frame('W');
}

Bytes log_reset_frame()
{
    return log_frame('U');
}

Bytes log_trigger_frame(guint32 now)
{
    Bytes time(4);
    for (gsize i = 0; i < 4; ++i)
        time[i] = static_cast<guint8>(now >> (8 * i));
    return log_frame(0x1D, time);
}

guint32 le32(const guint8* bytes)
{
    return static_cast<guint32>(bytes[0]) | static_cast<guint32>(bytes[1]) << 8 |
           static_cast<guint32>(bytes[2]) << 16 | static_cast<guint32>(bytes[3]) << 24;
}

Bytes net_record_encode(const NetRecord& record)
{
    Bytes bytes{record.dhcp};
    for (const guint8* octets : {record.address, record.gateway, record.mask})
        bytes.insert(bytes.end(), octets, octets + 4);
    return bytes;
}

bool net_record_parse(const guint8* bytes, gsize length, NetRecord* record)
{
    if (bytes == NULL || record == NULL || length != net_record_size)
        return false;
    record->dhcp = bytes[0];
    memcpy(record->address, bytes + 1, 4);
    memcpy(record->gateway, bytes + 5, 4);
    memcpy(record->mask, bytes + 9, 4);
    return true;
}

JobLog job_log_parse(const Bytes& buffer, gint32 length)
{
    JobLog log;
    if (length <= 3)
        return log;
    log.usable = true;
    // What came, as a zero-filled buffer of the read's size.
    const gsize came = std::min(static_cast<gsize>(length), buffer.size());
    const auto number_at = [&](gsize offset) {
        guint8 b[4] = {};
        for (gsize k = 0; k < 4 && offset + k < came; ++k)
            b[k] = buffer[offset + k];
        return le32(b);
    };
    log.count = number_at(0);
    const gsize slots = buffer.size() < 4 ? 0 : (buffer.size() - 4) / 4;
    const gsize n = std::min(static_cast<gsize>(log.count), slots);
    for (gsize i = 0; i < n; ++i)
        log.times.push_back(number_at(4 + 4 * i));
    return log;
}

const guint8* net_field_octets(const NetRecord& record, NetField field)
{
    switch (field) {
    case NetField::Address:
        return record.address;
    case NetField::SubnetMask:
        return record.mask;
    case NetField::Gateway:
        return record.gateway;
    case NetField::Dhcp:
        break;
    }
    return NULL;
}

std::vector<NetField> net_differences(const NetRecord& sent, const NetRecord& reported)
{
    std::vector<NetField> out;
    for (NetField f : {NetField::Address, NetField::SubnetMask, NetField::Gateway})
        if (memcmp(net_field_octets(sent, f), net_field_octets(reported, f), 4) != 0)
            out.push_back(f);
    if ((sent.dhcp != 0) != (reported.dhcp != 0))
        out.push_back(NetField::Dhcp);
    return out;
}
