// The emulated devices behind a Testbed, shared by the units that play them:
// the firmware (firmware.cpp), the usbfs node (usbfs.cpp) and the device's
// presence in sysfs and udev (sysfs.cpp).
#pragma once

#include "vprinter.h"

#include <umockdev.h>

#include <linux/usbdevice_fs.h>

#include <deque>
#include <fstream>
#include <mutex>

namespace vprinter {

struct Device;

struct Testbed::State {
    mutable std::mutex mutex;
    Faults faults;
    UMockdevTestbed* testbed = nullptr;
    std::vector<std::unique_ptr<Device>> devices;
    std::vector<std::string> frames;
    std::vector<ControlRequest> controls;
    std::ofstream record;
    bool record_serial = false;
    unsigned next_devnum = 2;  // 1 is the root hub
    long transfers = 0;
    long reads_answered = 0;
    long requests = 0;  // every URB submitted: control, bulk and the rest
    std::string description;
};

// One emulated USB device and, for printers, its firmware.
struct Device {
    Testbed::State* bed;
    DeviceSpec setup;
    Bytes raw;      // what the device returns for GET_DESCRIPTOR
    Layout layout;  // what the kernel makes of it
    std::map<uint8_t, std::optional<std::string>> strings;
    std::map<uint8_t, uint8_t> alternate;  // interface number -> its current alternate setting
    Firmware fw;
    std::string name;      // sysfs name: the USB port, kept across re-plugging
    unsigned devnum = 0;   // a new one each time the device is plugged in
    std::string syspath;
    std::string devnode;
    std::vector<std::string> interfaces;  // sysfs paths of the interfaces
    UMockdevIoctlBase* handler = nullptr;
    std::deque<Bytes> replies;
    int claimed = 0;  // claims not released: what a program that ended mid-exchange leaves
    std::vector<UMockdevIoctlData*> pending_in;   // IN URBs waiting for a reply
    std::vector<UMockdevIoctlData*> pending_out;  // OUT URBs the printer does not take
    std::deque<UMockdevIoctlData*> ready;        // finished URBs, waiting to be reaped
    size_t replies_given = 0;
    std::vector<UMockdevIoctlData*> pending_int;  // interrupt IN URBs: they NAK until discarded
    bool gone = false;
    bool enumerated = false;  // the kernel could read its descriptors

    usbdevfs_urb* urb_of(UMockdevIoctlData* d) { return reinterpret_cast<usbdevfs_urb*>(d->data); }

    // A string the device has; nothing when it refuses it.
    std::optional<std::string> text(uint8_t index) const
    {
        const auto it = strings.find(index);
        return it == strings.end() ? std::nullopt : it->second;
    }

    std::string serial() const { return layout.serial ? text(layout.serial).value_or("") : ""; }

    // As sysfs shows it: a program that claimed the interface through usbfs
    // shows as the driver "usbfs".
    std::string driver() const { return bed->faults.busy && setup.driver.empty() ? "usbfs" : setup.driver; }

    // The firmware: firmware.cpp.
    void receive(const Bytes& f);
    std::optional<Bytes> control_reply(const ControlRequest& c);

    // The usbfs node: usbfs.cpp.
    void finish(UMockdevIoctlData* urb_data, int status, int actual);
    void serve_reads();
    void fill_in(UMockdevIoctlData* urb_data, Bytes reply);
    void submit_control(UMockdevIoctlData* urb_data);
    void submit_bulk(UMockdevIoctlData* urb_data);
    int claim_error(unsigned number) const;
    uint8_t current(uint8_t number) const;
    int route(uint8_t address, const Endpoint*& found) const;
    gboolean handle_ioctl(UMockdevIoctlClient* client);
    ~Device();

    // Its presence in sysfs and udev: sysfs.cpp.
    void unplug();
    void plug();
    std::string string_attr(const char* attr, uint8_t index) const;
    void add(const std::string& record);
    void select(unsigned number, uint8_t alt);
};

// The "handle-ioctl" signal of a device's handler; USER_DATA is the Device.
gboolean on_handle_ioctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer user_data);

} // namespace vprinter
