#include "vprinter.h"

#include <umockdev.h>

#include <errno.h>
#include <linux/ioctl.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>

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

struct Device;

} // namespace

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

namespace {

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

    void finish(UMockdevIoctlData* urb_data, int status, int actual)
    {
        urb_of(urb_data)->status = status;
        urb_of(urb_data)->actual_length = actual;
        ready.push_back(urb_data);
    }

    // What the firmware does with one command frame.
    void receive(const Bytes& f)
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

    // Answers the oldest waiting read, if the firmware has something to say.
    void serve_reads()
    {
        while (!pending_in.empty() && !replies.empty()) {
            UMockdevIoctlData* urb_data = pending_in.front();
            pending_in.erase(pending_in.begin());
            fill_in(urb_data, replies.front());
            replies.pop_front();
        }
    }

    void fill_in(UMockdevIoctlData* urb_data, Bytes reply)
    {
        usbdevfs_urb* urb = urb_of(urb_data);
        const size_t capacity = static_cast<size_t>(urb->buffer_length);
        if (bed->faults.overflow)
            reply.resize(capacity + 1, 0xAA);
        const size_t n = std::min(reply.size(), capacity);
        if (n > 0)
            memcpy(urb->buffer, reply.data(), n);
        ++bed->reads_answered;
        finish(urb_data, reply.size() > capacity ? -EOVERFLOW : 0, static_cast<int>(n));
    }

    // A string the device has; nothing when it refuses it.
    std::optional<std::string> text(uint8_t index) const
    {
        const auto it = strings.find(index);
        return it == strings.end() ? std::nullopt : it->second;
    }

    std::string serial() const { return layout.serial ? text(layout.serial).value_or("") : ""; }

    std::optional<Bytes> control_reply(const ControlRequest& c)
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

    void submit_control(UMockdevIoctlData* urb_data)
    {
        usbdevfs_urb* urb = urb_of(urb_data);
        auto* buf = static_cast<uint8_t*>(urb->buffer);
        if (buf == nullptr || urb->buffer_length < 8) {
            finish(urb_data, -EPIPE, 0);
            return;
        }
        const ControlRequest c = {buf[0], buf[1], static_cast<uint16_t>(buf[2] | buf[3] << 8),
                                  static_cast<uint16_t>(buf[4] | buf[5] << 8),
                                  static_cast<uint16_t>(buf[6] | buf[7] << 8)};
        if (c.request_type != 0x80)
            bed->controls.push_back(c);
        std::optional<Bytes> reply = control_reply(c);
        if (!reply) {
            finish(urb_data, -EPIPE, 0);
            return;
        }
        const size_t n = std::min<size_t>({reply->size(), c.length, size_t(urb->buffer_length - 8)});
        memcpy(buf + 8, reply->data(), n);
        finish(urb_data, 0, static_cast<int>(n));
    }

    // Transfers that the kernel only lets through to the holder of an interface:
    // bulk and interrupt ones, and control requests addressed to an interface
    // or endpoint.
    static bool needs_interface(const usbdevfs_urb* urb)
    {
        if (urb->type != USBDEVFS_URB_TYPE_CONTROL)
            return true;
        const auto* setup = static_cast<const uint8_t*>(urb->buffer);
        return setup != nullptr && urb->buffer_length >= 8 && (setup[0] & 0x1F) != 0;
    }

    void submit_bulk(UMockdevIoctlData* urb_data)
    {
        usbdevfs_urb* urb = urb_of(urb_data);
        ++bed->transfers;
        if (urb->endpoint & 0x80) {
            if (bed->faults.stall_in)
                finish(urb_data, -EPIPE, 0);
            else if (urb->buffer_length == 0)
                finish(urb_data, 0, 0);
            else
                pending_in.push_back(urb_data);
        } else if (bed->faults.no_accept_after >= 0 && bed->transfers > bed->faults.no_accept_after) {
            pending_out.push_back(urb_data);
        } else {
            const auto* buf = static_cast<const uint8_t*>(urb->buffer);
            const Bytes frame(buf, buf + (buf ? urb->buffer_length : 0));
            bed->frames.push_back(to_hex(frame.data(), frame.size()));
            if (bed->record.is_open())
                bed->record << (bed->record_serial ? serial() + " " : "") << bed->frames.back() << std::endl;
            if (bed->faults.stall_out) {
                finish(urb_data, -EPIPE, 0);
            } else {
                receive(frame);
                finish(urb_data, 0, urb->buffer_length);
            }
        }
        serve_reads();
        if (bed->faults.unplug_after >= 0 && bed->transfers >= bed->faults.unplug_after)
            unplug();
    }

    void unplug()
    {
        if (gone)
            return;
        gone = true;
        claimed = 0;  // the kernel forgets the claims of a device that is gone
        // The kernel ends what was pending with a bus error (libusb: an I/O
        // error), and refuses new transfers with ENODEV.
        for (auto* pending : {&pending_in, &pending_out, &pending_int}) {
            for (UMockdevIoctlData* urb_data : *pending)
                finish(urb_data, -EPROTO, 0);
            pending->clear();
        }
        if (!enumerated)
            return;
        // umockdev sends no uevents on removal; the kernel sends the
        // interfaces' before the device's.
        for (auto it = interfaces.rbegin(); it != interfaces.rend(); ++it)
            umockdev_testbed_uevent(bed->testbed, it->c_str(), "remove");
        umockdev_testbed_uevent(bed->testbed, syspath.c_str(), "remove");
        umockdev_testbed_remove_device(bed->testbed, syspath.c_str());
        // Removal leaves the bus links behind, and they would block a re-plug.
        gchar* root = umockdev_testbed_get_root_dir(bed->testbed);
        for (const std::string& path : interfaces)
            unlink((std::string(root) + "/sys/bus/usb/devices/" + path.substr(path.rfind('/') + 1)).c_str());
        unlink((std::string(root) + "/sys/bus/usb/devices/" + name).c_str());
        unlink((std::string(root) + devnode).c_str());  // the kernel removes the node too
        g_free(root);
    }

    void plug()
    {
        devnum = bed->next_devnum++;
        char node[32];
        snprintf(node, sizeof node, "bus/usb/001/%03u", devnum);
        devnode = std::string("/dev/") + node;
        syspath = "/sys/devices/" + name;
        interfaces.clear();

        // The handler first: adding the device makes it visible at once.
        GError* error = nullptr;
        if (!umockdev_testbed_attach_ioctl(bed->testbed, devnode.c_str(), handler, &error))
            fail_with(error);

        alternate.clear();
        enumerated = layout.device.size() == 18 && !layout.config.empty();
        if (!enumerated) {
            gone = false;
            return;  // the kernel gives up on a device whose descriptors it cannot read
        }
        const std::string classes = usb_interfaces(raw);
        // sysfs shows the device descriptor and the configuration as the kernel
        // read it: no more than wTotalLength.
        Bytes d = layout.device;
        d.insert(d.end(), layout.config.begin(), layout.config.end());
        char attrs[256];
        snprintf(attrs, sizeof attrs,
                 "A: idVendor=%04x\\n\nA: idProduct=%04x\\n\nA: bDeviceClass=%02x\\n\n"
                 "A: bNumInterfaces=%2zu\\n\nA: bConfigurationValue=%u\\n\n",
                 layout.vid, layout.pid, layout.device_class, layout.interfaces().size(),
                 layout.configuration_value);
        std::ostringstream rec;
        rec << "P: /devices/" << name << "\n"
            << "N: " << node << "\n"
            << "E: SUBSYSTEM=usb\nE: DRIVER=usb\nE: BUSNUM=001\n"
            << "E: DEVNUM=" << (node + 12) << "\n"
            << "E: DEVNAME=" << devnode << "\n"
            << "E: DEVTYPE=usb_device\n"
            << (classes.empty() ? "" : "E: ID_USB_INTERFACES=" + classes + "\n")
            << "A: busnum=1\\n\n"
            << "A: devnum=" << devnum << "\\n\nA: speed=" << setup.speed_mbps << "\\n\n" << attrs
            << string_attr("manufacturer", layout.manufacturer) << string_attr("product", layout.product)
            << string_attr("serial", layout.serial)
            << "H: descriptors=" << to_hex(d.data(), d.size()) << "\n";
        add(rec.str());

        // One child per interface in its first setting, for whoever asks udev
        // rather than the device.
        const std::string prefix = name + ":" + std::to_string(layout.configuration_value) + ".";
        for (uint8_t number : layout.interfaces()) {
            const AltSetting& itf = *layout.first(number);
            alternate[number] = itf.alternate;
            std::ostringstream child;
            child << "P: /devices/" << name << "/" << prefix << unsigned(number) << "\n"
                  << "E: SUBSYSTEM=usb\nE: DEVTYPE=usb_interface\n"
                  << "E: INTERFACE=" << unsigned(itf.cls) << "/" << unsigned(itf.subclass) << "/"
                  << unsigned(itf.protocol) << "\n"
                  << (classes.empty() ? "" : "E: ID_USB_INTERFACES=" + classes + "\n")
                  << setting_attrs(itf) << string_attr("interface", itf.string);
            add(child.str());
            interfaces.push_back(syspath + "/" + prefix + std::to_string(number));
            if (itf.cls == 7 && !driver().empty())
                umockdev_testbed_set_attribute_link(bed->testbed, interfaces.back().c_str(), "driver",
                                                    ("../../../bus/usb/drivers/" + driver()).c_str());
        }

        if (setup.unopenable) {
            // Unreadable for a user; root ignores the mode, so there the node goes.
            gchar* root = umockdev_testbed_get_root_dir(bed->testbed);
            const std::string path = std::string(root) + devnode;
            g_free(root);
            chmod(path.c_str(), 0);
            if (geteuid() == 0)
                unlink(path.c_str());
        }
        gone = false;
    }

    // The attributes of an interface's current setting, as sysfs prints them.
    static std::string setting_attrs(const AltSetting& s)
    {
        char text[200];
        snprintf(text, sizeof text,
                 "A: bInterfaceNumber=%02x\\n\nA: bAlternateSetting=%2d\\n\nA: bInterfaceClass=%02x\\n\n"
                 "A: bInterfaceSubClass=%02x\\n\nA: bInterfaceProtocol=%02x\\n\nA: bNumEndpoints=%02zx\\n\n",
                 s.number, s.alternate, s.cls, s.subclass, s.protocol, s.endpoints.size());
        return text;
    }

    // A string attribute as the kernel shows it: read once at enumeration,
    // absent when the device refuses it (or its languages) or it is empty.
    std::string string_attr(const char* attr, uint8_t index) const
    {
        if (index == 0 || (strings.count(0) && !text(0)))
            return "";
        const std::optional<std::string> t = text(index);
        if (!t || t->empty())
            return "";
        const std::string value = *t + "\n";
        return std::string("H: ") + attr + "=" +
               to_hex(reinterpret_cast<const uint8_t*>(value.data()), value.size()) + "\n";
    }

    // As sysfs shows it: a program that claimed the interface through usbfs
    // shows as the driver "usbfs".
    std::string driver() const { return bed->faults.busy && setup.driver.empty() ? "usbfs" : setup.driver; }

    void add(const std::string& record)
    {
        GError* error = nullptr;
        if (!umockdev_testbed_add_from_string(bed->testbed, record.c_str(), &error))
            fail_with(error);
    }

    [[noreturn]] static void fail_with(GError* error)
    {
        const std::string msg = error ? error->message : "unknown error";
        g_clear_error(&error);
        throw std::runtime_error("umockdev: " + msg);
    }

    // The first unsigned int that an ioctl's argument points to.
    static unsigned first_word(UMockdevIoctlData* arg)
    {
        UMockdevIoctlData* d = umockdev_ioctl_data_resolve(arg, 0, sizeof(unsigned), nullptr);
        const unsigned v = d ? *reinterpret_cast<const unsigned*>(d->data) : ~0u;
        if (d)
            g_object_unref(d);
        return v;
    }

    // Why usbfs would not claim interface NUMBER: 0 when it would.
    int claim_error(unsigned number) const
    {
        if (gone)
            return ENODEV;
        if (number >= 32)
            return EINVAL;
        if (!layout.first(number))
            return ENOENT;
        return bed->faults.busy ? EBUSY : 0;
    }

    uint8_t current(uint8_t number) const
    {
        const auto it = alternate.find(number);
        return it == alternate.end() ? 0 : it->second;
    }

    // Makes ALT the current setting of interface NUMBER, and sysfs show it.
    void select(unsigned number, uint8_t alt)
    {
        const AltSetting* s = layout.find(number, alt);
        if (!s || current(s->number) == alt)
            return;
        alternate[s->number] = alt;
        const std::string suffix = "." + std::to_string(number);
        for (const std::string& path : interfaces) {
            if (path.size() < suffix.size() || path.compare(path.size() - suffix.size(), suffix.size(), suffix) != 0)
                continue;
            std::istringstream attrs(setting_attrs(*s));
            std::string line;
            while (std::getline(attrs, line)) {  // "A: name=value\n"
                const size_t eq = line.find('=');
                umockdev_testbed_set_attribute(bed->testbed, path.c_str(), line.substr(3, eq - 3).c_str(),
                                               (line.substr(eq + 1, line.size() - eq - 3) + "\n").c_str());
            }
        }
    }

    // The endpoint a bulk or interrupt URB goes to, as usbfs finds it: an
    // address no setting declares, or one that its interface's current
    // setting does not have, is refused; so is one that the claim of its
    // interface fails for. Returns the errno, or 0 and the endpoint.
    int route(uint8_t address, const Endpoint*& found) const
    {
        if (address & ~0x8F)
            return EINVAL;
        const AltSetting* owner = nullptr;
        for (const AltSetting& s : layout.settings)
            for (const Endpoint& e : s.endpoints)
                if (e.address == address && !owner)
                    owner = &s;
        if ((address & 0x0F) == 0)
            return EINVAL;  // endpoint 0 is the control endpoint
        if (!owner)
            return ENOENT;
        if (const int err = claim_error(owner->number))
            return err;
        const AltSetting* now = layout.find(owner->number, current(owner->number));
        if (now)
            for (const Endpoint& e : now->endpoints)
                if (e.address == address) {
                    found = &e;
                    return 0;
                }
        return ENOENT;
    }

    gboolean handle_ioctl(UMockdevIoctlClient* client)
    {
        std::lock_guard<std::mutex> lock(bed->mutex);
        UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
        switch (umockdev_ioctl_client_get_request(client)) {
        case USBDEVFS_GET_CAPABILITIES: {
            UMockdevIoctlData* d = umockdev_ioctl_data_resolve(arg, 0, sizeof(guint32), nullptr);
            *reinterpret_cast<guint32*>(d->data) = USBDEVFS_CAP_BULK_CONTINUATION | USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
                                                   USBDEVFS_CAP_REAP_AFTER_DISCONNECT | USBDEVFS_CAP_ZERO_PACKET;
            umockdev_ioctl_client_complete(client, 0, 0);
            g_object_unref(d);
            return TRUE;
        }
        case USBDEVFS_CLAIMINTERFACE:
        case USBDEVFS_DISCONNECT_CLAIM: {
            const unsigned number = first_word(arg);
            int err = claim_error(number);
            if (err == ENOENT && umockdev_ioctl_client_get_request(client) == USBDEVFS_DISCONNECT_CLAIM)
                err = EINVAL;  // it looks the interface up itself, before claiming
            claimed += err ? 0 : 1;
            umockdev_ioctl_client_complete(client, err ? -1 : 0, err);
            return TRUE;
        }
        case USBDEVFS_RELEASEINTERFACE: {
            const unsigned number = first_word(arg);
            int err = gone ? ENODEV : number >= 32 ? EINVAL : !layout.first(number) ? ENOENT : 0;
            if (!err && claimed > 0) {
                --claimed;
                // Unbound, an interface goes back to its first setting.
                select(number, layout.first(number)->alternate);
            }
            umockdev_ioctl_client_complete(client, err ? -1 : 0, err);
            return TRUE;
        }
        case USBDEVFS_SETINTERFACE: {
            UMockdevIoctlData* d = umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_setinterface), nullptr);
            const auto* set = reinterpret_cast<const usbdevfs_setinterface*>(d->data);
            // The interface is claimed first if it is not yet; the setting must exist.
            int err = claimed > 0 && !gone && set->interface < 32 && layout.first(set->interface) ? 0
                                                                                        : claim_error(set->interface);
            if (!err && !layout.find(set->interface, set->altsetting))
                err = EINVAL;
            if (!err) {
                claimed += claimed > 0 ? 0 : 1;
                bed->controls.push_back({0x01, 11, static_cast<uint16_t>(set->altsetting),
                                         static_cast<uint16_t>(set->interface), 0});
                select(set->interface, static_cast<uint8_t>(set->altsetting));
            }
            umockdev_ioctl_client_complete(client, err ? -1 : 0, err);
            g_object_unref(d);
            return TRUE;
        }
        case USBDEVFS_IOCTL:
        case USBDEVFS_CLEAR_HALT:
        case USBDEVFS_RESET:
        case USBDEVFS_RESETEP:
            umockdev_ioctl_client_complete(client, gone ? -1 : 0, gone ? ENODEV : 0);
            return TRUE;
        case USBDEVFS_GETDRIVER: {
            if (driver().empty()) {
                umockdev_ioctl_client_complete(client, -1, ENODATA);
                return TRUE;
            }
            UMockdevIoctlData* d = umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_getdriver), nullptr);
            auto* get = reinterpret_cast<usbdevfs_getdriver*>(d->data);
            snprintf(get->driver, sizeof get->driver, "%s", driver().c_str());
            umockdev_ioctl_client_complete(client, 0, 0);
            g_object_unref(d);
            return TRUE;
        }
        case USBDEVFS_SUBMITURB: {
            if (gone) {
                umockdev_ioctl_client_complete(client, -1, ENODEV);
                return TRUE;
            }
            UMockdevIoctlData* urb_data = umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_urb), nullptr);
            usbdevfs_urb* urb = urb_of(urb_data);
            ++bed->requests;
            UMockdevIoctlData* buffer = nullptr;
            if (urb->buffer_length > 0)
                buffer = umockdev_ioctl_data_resolve(urb_data, offsetof(usbdevfs_urb, buffer),
                                                     static_cast<gsize>(urb->buffer_length), nullptr);
            int err = 0;
            const Endpoint* ep = nullptr;
            if (urb->type == USBDEVFS_URB_TYPE_CONTROL) {
                // usbfs claims the interface for the caller and fails as the claim does.
                err = bed->faults.busy && needs_interface(urb) ? EBUSY : 0;
            } else if (!(err = route(urb->endpoint, ep))) {
                // A bulk URB to an interrupt endpoint goes as a single interrupt transfer.
                const bool bulk_ok = urb->type == USBDEVFS_URB_TYPE_BULK && (ep->type() == 2 || ep->type() == 3);
                const bool int_ok = urb->type == USBDEVFS_URB_TYPE_INTERRUPT && ep->type() == 3;
                err = bulk_ok || int_ok ? 0 : EINVAL;
            }
            if (err) {
                umockdev_ioctl_client_complete(client, -1, err);
                if (buffer)
                    g_object_unref(buffer);
                g_object_unref(urb_data);
                return TRUE;
            }
            if (urb->type == USBDEVFS_URB_TYPE_CONTROL)
                submit_control(urb_data);
            else if (ep->type() == 2)
                submit_bulk(urb_data);
            else if (urb->endpoint & 0x80)
                pending_int.push_back(urb_data);  // a status channel: replies never come here
            else
                finish(urb_data, 0, urb->buffer_length);
            umockdev_ioctl_client_complete(client, 0, 0);
            if (buffer)
                g_object_unref(buffer);
            return TRUE;  // urb_data's reference now belongs to pending_in or ready
        }
        case USBDEVFS_REAPURB:
        case USBDEVFS_REAPURBNDELAY: {
            if (ready.empty()) {
                umockdev_ioctl_client_complete(client, -1, gone ? ENODEV : EAGAIN);
                return TRUE;
            }
            UMockdevIoctlData* urb_data = ready.front();
            ready.pop_front();
            UMockdevIoctlData* ptr = umockdev_ioctl_data_resolve(arg, 0, sizeof(void*), nullptr);
            umockdev_ioctl_data_set_ptr(ptr, 0, urb_data);
            umockdev_ioctl_client_complete(client, 0, 0);
            g_object_unref(ptr);
            g_object_unref(urb_data);
            return TRUE;
        }
        case USBDEVFS_DISCARDURB: {
            const gulong addr = *reinterpret_cast<gulong*>(arg->data);
            for (auto* pending : {&pending_in, &pending_out, &pending_int}) {
                auto it = std::find_if(pending->begin(), pending->end(),
                                       [addr](UMockdevIoctlData* d) { return d->client_addr == addr; });
                if (it != pending->end()) {
                    UMockdevIoctlData* urb_data = *it;
                    pending->erase(it);
                    finish(urb_data, -ENOENT, 0);
                    umockdev_ioctl_client_complete(client, 0, 0);
                    return TRUE;
                }
            }
            umockdev_ioctl_client_complete(client, -1, EINVAL);
            return TRUE;
        }
        default:
            return FALSE;
        }
    }

    ~Device()
    {
        for (UMockdevIoctlData* d : pending_in)
            g_object_unref(d);
        for (UMockdevIoctlData* d : pending_out)
            g_object_unref(d);
        for (UMockdevIoctlData* d : pending_int)
            g_object_unref(d);
        for (UMockdevIoctlData* d : ready)
            g_object_unref(d);
        if (handler) {
            g_signal_handlers_disconnect_by_data(handler, this);
            g_object_unref(handler);
        }
    }
};

gboolean on_handle_ioctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer user_data)
{
    return static_cast<Device*>(user_data)->handle_ioctl(client);
}

const char* kind_name(Kind k)
{
    switch (k) {
    case Kind::Printer: return "printer";
    case Kind::Other: return "keyboard";
    case Kind::NoInterface: return "device without interfaces";
    case Kind::NoEndpoint: return "printer interface without endpoints";
    }
    return "";
}

} // namespace

bool preloaded()
{
    const char* preload = getenv("LD_PRELOAD");
    return preload != nullptr && strstr(preload, "libumockdev-preload") != nullptr;
}

void reexec_under_wrapper(char** argv)
{
    if (preloaded())
        return;
    // The preload library comes before a sanitizer's runtime.
    const char* asan = getenv("ASAN_OPTIONS");
    const std::string opts = asan ? std::string(asan) + ":" : std::string();
    setenv("ASAN_OPTIONS", (opts + "verify_asan_link_order=0").c_str(), 1);
    std::vector<char*> args = {const_cast<char*>("umockdev-wrapper")};
    for (char** a = argv; *a; ++a)
        args.push_back(*a);
    args.push_back(nullptr);
    execvp(args[0], args.data());
    throw std::runtime_error(std::string("cannot run umockdev-wrapper: ") + strerror(errno) +
                             " (install the umockdev package)");
}

std::string to_hex(const uint8_t* data, size_t len)
{
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < len; ++i) {
        s += digits[data[i] >> 4];
        s += digits[data[i] & 0xF];
    }
    return s;
}

bool parse_hex(const std::string& text, Bytes& out)
{
    std::string digits;
    for (char c : text) {
        if (isxdigit(static_cast<unsigned char>(c)))
            digits += c;
        else if (!isspace(static_cast<unsigned char>(c)) && c != ':' && c != ',')
            return false;
    }
    if (digits.size() % 2 != 0)
        return false;
    out.clear();
    for (size_t i = 0; i < digits.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return true;
}

Testbed::Testbed(const Scene& scene) : state_(new State)
{
    if (!preloaded())
        throw std::runtime_error("not running under umockdev-wrapper");
    State& st = *state_;
    st.faults = scene.faults;
    if (!scene.record_path.empty()) {
        st.record.open(scene.record_path, std::ios::trunc);
        if (!st.record)
            throw std::runtime_error("cannot write " + scene.record_path);
    }
    st.record_serial = scene.record_serial;
    st.testbed = umockdev_testbed_new();

    const size_t n = scene.devices.size();
    std::ostringstream desc;
    for (size_t i = 0; i < n; ++i) {
        auto dev = std::make_unique<Device>();
        dev->bed = &st;
        dev->setup = scene.devices[i];
        dev->raw = descriptors_of(dev->setup);
        dev->layout = walk(dev->raw);
        dev->strings = strings_of(dev->setup);
        dev->fw = scene.firmware;
        // libusb lists umockdev's devices in reverse order of their sysfs
        // paths; two-digit ports keep that order for up to 90 devices.
        dev->name = "1-" + std::to_string(10 + n - 1 - i);
        dev->handler = umockdev_ioctl_base_new();
        g_signal_connect(dev->handler, "handle-ioctl", G_CALLBACK(on_handle_ioctl), dev.get());
        dev->plug();

        const bool raw = !dev->setup.descriptors.empty();
        desc << (i ? "; " : "") << (!dev->setup.name.empty() ? dev->setup.name.c_str() : raw ? "device" : kind_name(dev->setup.kind));
        char ids[32];
        snprintf(ids, sizeof ids, " %04X:%04X", dev->layout.vid, dev->layout.pid);
        desc << ids;
        if (raw && !dev->enumerated)
            desc << " (descriptors unreadable: not enumerated)";
        else if (raw)
            desc << " sn=" << (dev->serial().empty() ? "(none)" : dev->serial());
        else if (dev->setup.kind == Kind::Printer)
            desc << " sn=" << (dev->setup.serial.empty() ? "(none)" : dev->setup.serial) << " itf="
                 << int(dev->setup.interface_number) << " ep=" << to_hex(dev->setup.endpoints.data(), dev->setup.endpoints.size());
        if (dev->setup.unopenable)
            desc << " (cannot be opened)";
        st.devices.push_back(std::move(dev));
    }
    st.description = n ? desc.str() : "no USB device";
}

Testbed::~Testbed()
{
    // Drop the devices first: their handlers refer to the testbed's sockets.
    if (state_->testbed)
        umockdev_testbed_clear(state_->testbed);
    state_->devices.clear();
    if (state_->testbed)
        g_object_unref(state_->testbed);
}

std::vector<std::string> Testbed::frames() const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->frames;
}

std::vector<ControlRequest> Testbed::control_requests() const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->controls;
}

Firmware Testbed::firmware(size_t printer) const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    for (const auto& dev : state_->devices)
        if ((dev->setup.kind == Kind::Printer || !dev->setup.descriptors.empty()) && printer-- == 0)
            return dev->fw;
    return Firmware();
}

void Testbed::unplug(size_t device)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    if (device < state_->devices.size())
        state_->devices[device]->unplug();
}

void Testbed::plug(size_t device)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    if (device < state_->devices.size() && state_->devices[device]->gone)
        state_->devices[device]->plug();
}

long Testbed::transfers() const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->transfers;
}

std::string Testbed::describe() const
{
    return state_->description;
}

std::string Testbed::received() const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    size_t bytes = 0;
    for (const std::string& f : state_->frames)
        bytes += f.size() / 2;
    std::ostringstream s;
    int claimed = 0;
    for (const auto& d : state_->devices)
        claimed += d->claimed;
    s << state_->frames.size() << " frame(s), " << bytes << " byte(s) received; " << state_->reads_answered
      << " read(s) answered; " << state_->requests << " USB request(s) in all; " << claimed
      << " interface(s) left claimed";
    return s.str();
}

} // namespace vprinter
