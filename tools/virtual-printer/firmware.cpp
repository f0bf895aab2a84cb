// The printer's firmware: what it does with a command frame, and its answers
// to control requests.
#include "device.h"

#include <algorithm>
#include <iterator>

namespace vprinter {

namespace {

const uint8_t esc_netcfg[] = {0x1B, 0x5E, 0x49, 0x53};
const uint8_t log_prefix[] = {0x1B, 0x1D, 0x1E, 0x10};
const uint8_t log_trailer[] = {0x1B, 0x1D, 0x1F};

void put32(Bytes& b, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

uint32_t get32(const uint8_t* p)
{
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

} // namespace

// What the firmware does with one command frame.
void Device::receive(const Bytes& f)
{
    std::optional<Bytes> reply;
    if (f.size() >= 5 && std::equal(std::begin(esc_netcfg), std::end(esc_netcfg), f.begin())) {
        if (f[4] == 'R' && f.size() == 5)
            reply = fw.netcfg;
        else if (f[4] == 'W' && f.size() == 18)
            fw.netcfg.assign(f.begin() + 5, f.end());
    } else if (f.size() >= 8 && std::equal(std::begin(log_prefix), std::end(log_prefix), f.begin()) &&
               std::equal(std::begin(log_trailer), std::end(log_trailer), f.end() - 3)) {
        if (f[4] == 'W' && f.size() == 8) {
            Bytes r;
            put32(r, static_cast<uint32_t>(fw.job_log.size()));
            for (uint32_t t : fw.job_log)
                put32(r, t);
            reply = r;
        } else if (f[4] == 0x1D && f.size() == 12) {
            fw.job_log.push_back(get32(&f[5]));
        } else if (f[4] == 'U' && f.size() == 8) {
            fw.job_log.clear();
        }
    }
    if (!reply || bed->faults.no_reply)
        return;
    const std::vector<Bytes>& given = bed->faults.replies;
    if (!given.empty())
        reply = given[std::min(replies_given++, given.size() - 1)];
    replies.push_back(*reply);
}

std::optional<Bytes> Device::control_reply(const ControlRequest& c)
{
    if (c.request_type == 0x80 && c.request == 6) {
        switch (c.value >> 8) {
        case 1: return layout.device;
        case 2: return layout.config;
        case 3:
            if (setup.raw_strings.count(c.value & 0xFF))
                return setup.raw_strings.at(c.value & 0xFF);
            if ((c.value & 0xFF) == 0 && !strings.count(0))
                return Bytes{4, 3, 0x09, 0x04};
            if (const std::optional<std::string> t = text(c.value & 0xFF))
                return string_descriptor(*t);
            break;
        default: break;
        }
        return std::nullopt;
    }
    if (c.request_type == 0xA1 && !bed->faults.stall_control) {
        if (c.request == 0) {
            const uint16_t len = static_cast<uint16_t>(fw.device_id.size() + 2);
            Bytes r = {static_cast<uint8_t>(len >> 8), static_cast<uint8_t>(len)};
            r.insert(r.end(), fw.device_id.begin(), fw.device_id.end());
            return r;
        }
        if (c.request == 1)
            return Bytes{fw.port_status};
    }
    return std::nullopt;  // a stall
}

} // namespace vprinter
