#include "descriptors.h"

#include <algorithm>
#include <cstdio>

namespace vprinter {

namespace {

const uint8_t dt_config = 2, dt_interface = 4, dt_endpoint = 5;
const size_t max_interfaces = 32;  // what the kernel keeps of one configuration

uint16_t le16(const Bytes& b, size_t at)
{
    return at + 1 < b.size() ? uint16_t(b[at] | b[at + 1] << 8) : 0;
}

uint8_t byte_at(const Bytes& b, size_t at)
{
    return at < b.size() ? b[at] : 0;
}

} // namespace

const AltSetting* Layout::find(unsigned number, unsigned alternate) const
{
    for (const AltSetting& s : settings)
        if (s.number == number && s.alternate == alternate)
            return &s;
    return nullptr;
}

const AltSetting* Layout::first(unsigned number) const
{
    if (const AltSetting* s = find(number, 0))
        return s;
    for (const AltSetting& s : settings)
        if (s.number == number)
            return &s;
    return nullptr;
}

std::vector<uint8_t> Layout::interfaces() const
{
    std::vector<uint8_t> out;
    for (const AltSetting& s : settings)
        if (std::find(out.begin(), out.end(), s.number) == out.end())
            out.push_back(s.number);
    return out;
}

// As the kernel parses a configuration: a descriptor shorter than 2 bytes or
// running past the end ends the walk; short interface and endpoint descriptors,
// endpoints past bNumEndpoints, endpoint 0, duplicate endpoints and duplicate
// alternate settings are skipped.
Layout walk(const Bytes& d)
{
    Layout l;
    l.device.assign(d.begin(), d.begin() + std::min<size_t>(d.size(), 18));
    l.device_class = byte_at(l.device, 4);
    l.vid = le16(l.device, 8);
    l.pid = le16(l.device, 10);
    l.manufacturer = byte_at(l.device, 14);
    l.product = byte_at(l.device, 15);
    l.serial = byte_at(l.device, 16);
    if (d.size() <= 18)
        return l;
    l.config.assign(d.begin() + 18, d.end());
    if (l.config.size() < 9 || l.config[1] != dt_config || l.config[0] < 9 || l.config[0] > l.config.size())
        return l;  // the kernel cannot use a configuration without its header
    l.config.resize(std::min<size_t>(l.config.size(), std::max<size_t>(le16(l.config, 2), l.config[0])));
    l.configuration_value = l.config[5];

    AltSetting* current = nullptr;
    size_t declared = 0;
    size_t pos = l.config[0];
    while (pos + 2 <= l.config.size()) {
        const uint8_t len = l.config[pos], type = l.config[pos + 1];
        if (len < 2 || pos + len > l.config.size())
            break;
        const uint8_t* p = &l.config[pos];
        pos += len;
        if (type == dt_interface) {
            current = nullptr;
            if (len < 9 || l.find(p[2], p[3]))
                continue;
            const std::vector<uint8_t> numbers = l.interfaces();
            if (numbers.size() >= max_interfaces && std::find(numbers.begin(), numbers.end(), p[2]) == numbers.end())
                continue;
            AltSetting s;
            s.number = p[2];
            s.alternate = p[3];
            s.cls = p[5];
            s.subclass = p[6];
            s.protocol = p[7];
            s.string = p[8];
            declared = p[4];
            l.settings.push_back(s);
            current = &l.settings.back();
        } else if (type == dt_endpoint && current && len >= 7 && current->endpoints.size() < declared &&
                   (p[2] & 0x0F) != 0) {
            const bool duplicate = std::any_of(current->endpoints.begin(), current->endpoints.end(),
                                               [p](const Endpoint& e) { return e.address == p[2]; });
            if (!duplicate)
                current->endpoints.push_back({p[2], p[3], uint16_t(p[4] | p[5] << 8)});
        }
    }
    return l;
}

// Walks from the first byte, the device descriptor included, as udev does.
std::string usb_interfaces(const Bytes& d)
{
    std::string out;
    size_t pos = 0;
    while (pos + 9 < d.size() && out.size() + 7 < 510) {
        const uint8_t len = d[pos];
        if (len < 3)
            break;
        if (len > d.size() - 9)
            return "";  // udev gives up on data it takes for corrupt
        const uint8_t* p = &d[pos];
        pos += len;
        if (p[1] != dt_interface)
            continue;
        char item[8];
        snprintf(item, sizeof item, ":%02x%02x%02x", p[5], p[6], p[7]);
        if (out.find(item) == std::string::npos)
            out += item;
    }
    return out.empty() ? out : out + ":";
}

Bytes string_descriptor(const std::string& text)
{
    Bytes d = {2, 3};
    for (size_t i = 0; i < text.size();) {
        // Decode one UTF-8 sequence; a malformed byte stands for itself.
        const auto c = static_cast<unsigned char>(text[i]);
        uint32_t cp = c;
        size_t n = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC0 ? 2 : 1;
        if (n > 1 && i + n <= text.size()) {
            cp = c & (0x3F >> (n - 1));
            for (size_t k = 1; k < n; ++k)
                cp = cp << 6 | (static_cast<unsigned char>(text[i + k]) & 0x3F);
        } else {
            n = 1;
        }
        i += n;
        std::vector<uint16_t> units;
        if (cp >= 0x10000) {
            cp -= 0x10000;
            units = {uint16_t(0xD800 | cp >> 10), uint16_t(0xDC00 | (cp & 0x3FF))};
        } else {
            units = {uint16_t(cp)};
        }
        if (d.size() + 2 * units.size() > 254)
            break;
        for (uint16_t u : units) {
            d.push_back(static_cast<uint8_t>(u));
            d.push_back(static_cast<uint8_t>(u >> 8));
        }
    }
    d[0] = static_cast<uint8_t>(d.size());
    return d;
}

} // namespace vprinter
