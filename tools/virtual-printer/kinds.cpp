// The built-in kinds of device, as the descriptors and strings they return.
#include "vprinter.h"

namespace vprinter {

namespace {

const char* const manufacturer_text = "Virtual Printers";

void put16(Bytes& b, uint16_t v)
{
    b.push_back(static_cast<uint8_t>(v));
    b.push_back(static_cast<uint8_t>(v >> 8));
}

Bytes interface_desc(uint8_t number, uint8_t cls, const Bytes& endpoints, uint8_t ep_type)
{
    // Subclass 1; protocol 2 (bidirectional) for a printer, 1 (keyboard) otherwise.
    Bytes d = {9, 4, number, 0, static_cast<uint8_t>(endpoints.size()), cls, 1, uint8_t(cls == 7 ? 2 : 1), 0};
    for (uint8_t ep : endpoints) {
        const Bytes e = {7, 5, ep, ep_type, 0x00, 0x02, 0};
        d.insert(d.end(), e.begin(), e.end());
    }
    return d;
}

} // namespace

Bytes descriptors_of(const DeviceSpec& setup)
{
    if (!setup.descriptors.empty())
        return setup.descriptors;
    Bytes d = {18, 1, 0x00, 0x02, 0, 0, 0, 64};
    put16(d, setup.vid);
    put16(d, setup.pid);
    put16(d, 0x0100);
    d.push_back(1);
    d.push_back(setup.product.empty() ? 0 : 2);
    d.push_back(setup.serial.empty() ? 0 : 3);
    d.push_back(1);

    Bytes interfaces;
    uint8_t count = 1;
    switch (setup.kind) {
    case Kind::Printer:
        interfaces = interface_desc(setup.interface_number, 7, setup.endpoints, 2);
        break;
    case Kind::NoEndpoint:
        interfaces = interface_desc(setup.interface_number, 7, {}, 2);
        break;
    case Kind::NoInterface:
        count = 0;
        break;
    case Kind::Other: {
        interfaces = interface_desc(0, 3, {0x83}, 3);
        const Bytes printer = interface_desc(1, 7, {0x04, 0x85}, 2);
        interfaces.insert(interfaces.end(), printer.begin(), printer.end());
        count = 2;
        break;
    }
    }
    Bytes cfg = {9, 2};
    put16(cfg, static_cast<uint16_t>(9 + interfaces.size()));
    cfg.insert(cfg.end(), {count, 1, 0, 0xC0, 50});
    d.insert(d.end(), cfg.begin(), cfg.end());
    d.insert(d.end(), interfaces.begin(), interfaces.end());
    return d;
}

std::map<uint8_t, std::optional<std::string>> strings_of(const DeviceSpec& setup)
{
    if (!setup.descriptors.empty())
        return setup.strings;
    std::map<uint8_t, std::optional<std::string>> s = {{1, std::string(manufacturer_text)}};
    if (!setup.product.empty())
        s[2] = setup.product;
    if (!setup.serial.empty())
        s[3] = setup.serial;
    return s;
}

} // namespace vprinter
