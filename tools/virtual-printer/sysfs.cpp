// A device's presence in sysfs and udev: plugged in and unplugged, its
// udev records and attributes.
#include "device.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <sstream>
#include <stdexcept>

namespace vprinter {

namespace {

// The attributes of an interface's current setting, as sysfs prints them.
std::string setting_attrs(const AltSetting& s)
{
    char text[200];
    snprintf(text, sizeof text,
             "A: bInterfaceNumber=%02x\\n\nA: bAlternateSetting=%2d\\n\nA: bInterfaceClass=%02x\\n\n"
             "A: bInterfaceSubClass=%02x\\n\nA: bInterfaceProtocol=%02x\\n\nA: bNumEndpoints=%02zx\\n\n",
             s.number, s.alternate, s.cls, s.subclass, s.protocol, s.endpoints.size());
    return text;
}

[[noreturn]] void fail_with(GError* error)
{
    const std::string msg = error ? error->message : "unknown error";
    g_clear_error(&error);
    throw std::runtime_error("umockdev: " + msg);
}

} // namespace

void Device::unplug()
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

void Device::plug()
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

// A string attribute as the kernel shows it: read once at enumeration,
// absent when the device refuses it (or its languages) or it is empty.
std::string Device::string_attr(const char* attr, uint8_t index) const
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

void Device::add(const std::string& record)
{
    GError* error = nullptr;
    if (!umockdev_testbed_add_from_string(bed->testbed, record.c_str(), &error))
        fail_with(error);
}

// Makes ALT the current setting of interface NUMBER, and sysfs show it.
void Device::select(unsigned number, uint8_t alt)
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

} // namespace vprinter
