// An emulated USB printer for the real libusb: umockdev provides the sysfs
// tree and device nodes, and an in-process ioctl handler plays the printer's
// firmware on its usbfs node. Used by the virtual-printer tool and the tests.
#pragma once

#include "descriptors.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vprinter {

enum class Kind {
    Printer,      // interface 0 of the printer class with the given endpoints
    Other,        // a keyboard whose second interface is of the printer class
    NoInterface,  // a configuration without any interface
    NoEndpoint,   // a printer-class interface without endpoints
};

struct DeviceSpec {
    Kind kind = Kind::Printer;
    uint16_t vid = 0x1A2B;
    uint16_t pid = 0x00C4;
    std::string serial = "VP0001";  // empty: no serial-number string (index 0)
    std::string product = "Virtual Printer";  // empty: no product string
    std::string driver;  // kernel driver bound to the printer interface; empty: none
    uint8_t interface_number = 0;
    Bytes endpoints = {0x01, 0x82};
    bool unopenable = false;
    // A real device instead: its device descriptor followed by its full
    // configuration descriptor, exactly the bytes it returns. The kind and the
    // fields above but vid, pid, driver and unopenable are then unused.
    Bytes descriptors;
    // With descriptors: its string descriptors by index; std::nullopt is one
    // the device refuses (the request stalls), as is an index not listed.
    std::map<uint8_t, std::optional<std::string>> strings;
    // String descriptors returned byte for byte, before those above: an odd
    // or wrong bLength, say.
    std::map<uint8_t, Bytes> raw_strings;
    std::string name;        // how the summary names it; empty: by its kind
    unsigned speed_mbps = 480;
};

// The descriptors a device returns and its strings, built from the kind and
// fields when no raw descriptors are given: the one shape the emulation runs.
Bytes descriptors_of(const DeviceSpec& device);
std::map<uint8_t, std::optional<std::string>> strings_of(const DeviceSpec& device);

// A device from the corpus of real printers (one JSON object a line: name,
// category, source, vid, pid, speed_mbps, strings, descriptors).
struct CorpusDevice {
    std::string name, category, source;
    DeviceSpec device;
};
// Throws std::runtime_error naming the file and line of what it cannot read.
std::vector<CorpusDevice> load_corpus(const std::string& path);
CorpusDevice parse_corpus_line(const std::string& line);

// What the printer keeps between commands.
struct Firmware {
    Bytes netcfg = {0x00, 192, 168, 1, 100, 192, 168, 1, 1, 255, 255, 255, 0};
    std::vector<uint32_t> job_log;
    std::string device_id = "MFG:Virtual;CMD:ESC;MDL:VP-1;CLS:PRINTER;";
    uint8_t port_status = 0x18;  // selected, no error
};

struct Faults {
    std::vector<Bytes> replies;  // sent in turn in place of the firmware's replies; the last repeats
    bool no_reply = false;       // the firmware never answers: reads time out
    bool stall_in = false;
    bool stall_out = false;
    bool stall_control = false;  // printer-class requests stall
    bool overflow = false;       // every reply is one byte longer than the read asks for
    long no_accept_after = -1;   // after this many bulk transfers the printer takes no data (out of
                                 // paper, say): writes wait until their time-out; 0: from the start
    bool busy = false;           // another program holds the interface: claims and transfers fail
    long unplug_after = -1;      // the printer is unplugged after this many bulk transfers
};

struct Scene {
    std::vector<DeviceSpec> devices;  // in the order libusb lists them
    Firmware firmware;                // each printer starts with a copy
    Faults faults;
    std::string record_path;          // every bulk OUT frame, one hex line each
    bool record_serial = false;       // prefix each recorded line with the printer's serial number
};

struct ControlRequest {
    uint8_t request_type;
    uint8_t request;
    uint16_t value;
    uint16_t index;
    uint16_t length;
};

// Whether umockdev's preload library is in this process (umockdev-wrapper).
bool preloaded();

// Restarts this program under umockdev-wrapper unless it runs there already;
// returns only when it does.
void reexec_under_wrapper(char** argv);

std::string to_hex(const uint8_t* data, size_t len);
bool parse_hex(const std::string& text, Bytes& out);

class Testbed {
public:
    // Needs the umockdev preload library in the process (umockdev-wrapper).
    explicit Testbed(const Scene& scene);
    ~Testbed();
    Testbed(const Testbed&) = delete;
    Testbed& operator=(const Testbed&) = delete;

    std::vector<std::string> frames() const;  // bulk OUT frames, lower-case hex, in order
    std::vector<ControlRequest> control_requests() const;
    Firmware firmware(size_t printer = 0) const;
    long transfers() const;  // bulk transfers, all devices
    // Unplugs or plugs back device N (0-based, in list order). A device comes
    // back at the same port with a new device number, as on a real bus.
    void unplug(size_t device);
    void plug(size_t device);
    std::string describe() const;
    std::string received() const;

    struct State;

private:
    std::unique_ptr<State> state_;
};

} // namespace vprinter
