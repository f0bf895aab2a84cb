// A USB device's descriptors as the kernel reads them: walked without ever
// reading past the bytes or looping on a bad length, since the same path
// takes real devices' dumps and deliberately broken ones.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vprinter {

using Bytes = std::vector<uint8_t>;

struct Endpoint {
    uint8_t address = 0;
    uint8_t attributes = 0;  // the low two bits: 0 control, 1 isochronous, 2 bulk, 3 interrupt
    uint16_t max_packet = 0;
    uint8_t type() const { return attributes & 3; }
};

struct AltSetting {
    uint8_t number = 0;     // bInterfaceNumber
    uint8_t alternate = 0;  // bAlternateSetting
    uint8_t cls = 0, subclass = 0, protocol = 0;
    uint8_t string = 0;     // iInterface
    std::vector<Endpoint> endpoints;  // those present, at most bNumEndpoints of them
};

struct Layout {
    uint8_t device_class = 0;
    uint16_t vid = 0, pid = 0;
    uint8_t manufacturer = 0, product = 0, serial = 0;  // string indexes
    uint8_t configuration_value = 0;
    Bytes device;  // the device descriptor's bytes (up to 18)
    Bytes config;  // the configuration's bytes, as many as wTotalLength and the data allow
    std::vector<AltSetting> settings;  // in the order the configuration lists them

    const AltSetting* find(unsigned number, unsigned alternate) const;
    // The setting an interface starts in: alternate setting 0, or its first one.
    const AltSetting* first(unsigned number) const;
    std::vector<uint8_t> interfaces() const;  // distinct numbers, in order of appearance
};

// Device descriptor followed by the one configuration descriptor in full.
Layout walk(const Bytes& descriptors);

// udev's ID_USB_INTERFACES for these descriptors: ":ccsspp:" for each distinct
// class/subclass/protocol of every interface descriptor, alternate settings too.
std::string usb_interfaces(const Bytes& descriptors);

// A string descriptor carrying TEXT (UTF-8) as UTF-16LE, cut to fit 255 bytes.
Bytes string_descriptor(const std::string& text);

} // namespace vprinter
