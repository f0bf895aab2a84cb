// pellavoy-probe: lists the attached USB printers with their IEEE 1284 device
// ID and port status, for a technician at a console, and says of every
// printer it cannot use why, and what to do.
#include "COMMON/devmgr/usb_mgr.h"
#include "port_status.h"

#include <libusb.h>

#include <dirent.h>
#include <limits.h>
#include <unistd.h>

#include <clocale>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <vector>

namespace {

const size_t request_timeout_ms = 1000;

const char usage_text[] =
    "Usage: pellavoy-probe [--help | --version]\n"
    "Lists the USB printers attached to this computer with their IEEE 1284 device ID\n"
    "and port status.\n"
    "The printer marked \"first found\" is the one Pellavoy's window uses unless\n"
    "another is chosen. A printer that cannot be used is named with the reason and\n"
    "what to do about it.\n"
    "A device whose printer interface is not interface 0 is named too.\n"
    "Exit status: 0 when every printer found could be used, 1 when no printer was\n"
    "found or none could be opened, 2 when USB could not be used at all, 3 when a\n"
    "printer was found that another program or driver holds.\n";

enum Status { usable = 0, none_usable = 1, no_usb = 2, held = 3 };

std::string bus_place(uint8_t bus, uint8_t address)
{
    char text[40];
    snprintf(text, sizeof text, "bus %03u device %03u", bus, address);
    return text;
}

std::string ids(uint16_t vid, uint16_t pid)
{
    char text[16];
    snprintf(text, sizeof text, "%04X:%04X", vid, pid);
    return text;
}

std::string read_line(const std::string& path)
{
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

std::vector<std::string> entries(const std::string& path)
{
    std::vector<std::string> names;
    if (DIR* dir = opendir(path.c_str())) {
        while (dirent* e = readdir(dir))
            if (e->d_name[0] != '.')
                names.push_back(e->d_name);
        closedir(dir);
    }
    return names;
}

const char sysfs_devices[] = "/sys/bus/usb/devices/";

// The device's sysfs name ("1-4"); empty when sysfs does not show it.
std::string sysfs_name(uint8_t bus, uint8_t address)
{
    for (const std::string& device : entries(sysfs_devices))
        if (device.find(':') == std::string::npos &&
            read_line(sysfs_devices + device + "/busnum") == std::to_string(bus) &&
            read_line(sysfs_devices + device + "/devnum") == std::to_string(address))
            return device;
    return "";
}

// The kernel driver bound to one of the device's interfaces, from sysfs
// ("usbfs" when a program holds it through libusb); empty when none is.
std::string bound_driver(uint8_t bus, uint8_t address)
{
    const std::string device = sysfs_name(bus, address);
    for (const std::string& itf : entries(sysfs_devices)) {
        char target[PATH_MAX] = {0};
        if (!device.empty() && itf.rfind(device + ":", 0) == 0 &&
            readlink((sysfs_devices + itf + "/driver").c_str(), target, sizeof target - 1) > 0)
            return strrchr(target, '/') != nullptr ? strrchr(target, '/') + 1 : target;
    }
    return "";
}

// Without the blanks that some devices pad their strings with.
std::string trimmed(const std::string& text)
{
    const size_t first = text.find_first_not_of(" \t");
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// As the window's chooser names a device: product (serial), from sysfs.
std::string chooser_name(uint8_t bus, uint8_t address, uint16_t vid, uint16_t pid)
{
    const std::string device = sysfs_devices + sysfs_name(bus, address);
    const std::string product = trimmed(read_line(device + "/product"));
    const std::string serial = trimmed(read_line(device + "/serial"));
    return (product.empty() ? "USB printer" : product) + " (" + (serial.empty() ? ids(vid, pid) : serial) + ")";
}

// The number of a printer-class interface other than interface 0, or -1.
int other_printer_interface(libusb_device* device)
{
    usb::Config cfg(device);
    for (int i = 0; cfg.get() != nullptr && cfg->interface != nullptr && i < cfg->bNumInterfaces; ++i)
        for (int a = 0; a < cfg->interface[i].num_altsetting; ++a) {
            const libusb_interface_descriptor& alt = cfg->interface[i].altsetting[a];
            if (alt.bInterfaceNumber != 0 && alt.bInterfaceClass == LIBUSB_CLASS_PRINTER)
                return alt.bInterfaceNumber;
        }
    return -1;
}

std::string holder(uint8_t bus, uint8_t address)
{
    const std::string driver = bound_driver(bus, address);
    if (driver.empty() || driver == "usbfs")
        return "another program holds its interface (a print spooler, say). Stop that program";
    return "the kernel driver " + driver + " holds its interface and could not be detached. Unbind it";
}

std::string open_advice(int code)
{
    if (code == LIBUSB_ERROR_ACCESS)
        return "permission denied.\n  Install the udev rule 70-pellavoy.rules and plug the printer in again, or add\n"
               "  the user to the group lp (adduser USER lp, then log in again), or run as root.";
    if (code == LIBUSB_ERROR_NO_DEVICE)
        return usb::get_err_msg(code) + ".\n  Check the cable, plug the printer in again and run pellavoy-probe again.";
    return usb::get_err_msg(code) + ".";
}

class Probe : public UsbManager {
public:
    // The short description text, made narrow for the console.
    static std::string describe(UsbDevInfo dev)
    {
        dev.sn = trimmed(dev.sn);
        std::wostringstream text;
        text << dev;
        std::string narrow = wcstombs(text.str());
        if (!narrow.empty() && narrow.back() == '\n')
            narrow.pop_back();
        return narrow;
    }

    int run()
    {
        enumerate();
        int status = size() > 0 ? usable : none_usable;
        for (size_t i = 0; i < size(); ++i) {
            const UsbDevInfo& dev = (*this)[i];
            uint8_t bus = 0, address = 0;
            place(i, bus, address);
            std::cout << describe(dev) << (trimmed(dev.sn).empty() ? " (no serial number)" : "")
                      << (i == 0 ? "  [first found: the window uses it unless another is chosen]" : "") << "\n"
                      << "  on USB:      " << bus_place(bus, address) << "\n";
            if (dev.alt != 0)
                std::cout << "  interface:   " << int(dev.itf) << ", alternate setting " << int(dev.alt)
                          << " (setting 0 only takes data)\n";
            if (dev.in_ep == 0)
                std::cout << "  cannot answer: its USB interface only takes data. Pellavoy can send it\n"
                             "  settings but cannot read anything back.\n";
            const void* handle = open(i);
            if (claim_result() == LIBUSB_ERROR_BUSY) {
                std::cout << "  cannot be used: " << holder(bus, address) << ", then run pellavoy-probe again.\n";
                status = held;
                close();
                continue;
            }
            std::string id;
            uint8_t port_status = 0;
            if (get_1284_id(handle, id, request_timeout_ms))
                std::cout << "  device ID:   " << id << "\n";
            else
                std::cout << "  device ID:   (no answer)\n";
            if (get_lpt_status(handle, port_status, request_timeout_ms)) {
                char hex[8];
                snprintf(hex, sizeof hex, "0x%02X", port_status);
                std::cout << "  port status: " << hex << " (" << port_status_words(port_status) << ")\n";
            } else {
                std::cout << "  port status: (no answer)\n";
            }
            close();
        }
        for (const OpenFailure& f : open_failures())
            std::cout << ids(f.vid, f.pid) << " on " << bus_place(f.bus, f.address)
                      << ": a printer that cannot be opened: " << open_advice(f.code) << "\n";
        const bool others = list_other_interfaces();
        if (size() == 0 && open_failures().empty() && !others)
            std::cout << "no USB printer found\n";
        return status;
    }

    // Devices whose printer interface is not interface 0: not listed above,
    // but named, so that nobody wonders why they are missing.
    bool list_other_interfaces()
    {
        usb::DeviceList list;
        const ssize_t n = libusb_get_device_list(static_cast<libusb_context*>(_ctx), list);
        bool any = false;
        for (ssize_t i = 0; i < n; ++i) {
            libusb_device* device = list[static_cast<int>(i)];
            const uint8_t bus = libusb_get_bus_number(device), address = libusb_get_device_address(device);
            const int itf = other_printer_interface(device);
            if (itf < 0 || is_listed(bus, address))
                continue;
            libusb_device_descriptor desc;
            libusb_get_device_descriptor(device, &desc);
            std::cout << ids(desc.idVendor, desc.idProduct) << " on " << bus_place(bus, address) << ", "
                      << chooser_name(bus, address, desc.idVendor, desc.idProduct)
                      << ": a printer that cannot be used: its printer interface is interface " << itf
                      << "; Pellavoy uses interface 0 only.\n";
            any = true;
        }
        return any;
    }

    bool is_listed(uint8_t bus, uint8_t address) const
    {
        uint8_t b = 0, a = 0;
        for (size_t i = 0; i < size(); ++i)
            if (place(i, b, a) && b == bus && a == address)
                return true;
        for (const OpenFailure& f : open_failures())
            if (f.bus == bus && f.address == address)
                return true;
        return false;
    }
};

// Whether libusb can reach the machine's USB devices at all.
bool usb_usable(std::string& why)
{
    libusb_context* ctx = nullptr;
    int r = libusb_init(&ctx);
    if (r == 0) {
        libusb_device** list = nullptr;
        const ssize_t n = libusb_get_device_list(ctx, &list);
        if (n < 0)
            r = static_cast<int>(n);
        else
            libusb_free_device_list(list, 1);
        libusb_exit(ctx);
    }
    why = r == 0 ? "" : usb::get_err_msg(r);
    return r == 0;
}

} // namespace

int main(int argc, char** argv)
{
    setlocale(LC_ALL, "");
    if (argc > 1) {
        if (!strcmp(argv[1], "--help") && argc == 2) {
            std::cout << usage_text;
            return 0;
        }
        if (!strcmp(argv[1], "--version") && argc == 2) {
            std::cout << "pellavoy-probe " << PELLAVOY_VERSION << "\n";
            return 0;
        }
        std::cerr << "pellavoy-probe: unknown argument '" << argv[1] << "'\n" << usage_text;
        return 2;
    }

    std::string why;
    if (!usb_usable(why)) {
        std::cerr << "pellavoy-probe: cannot use USB: " << why << "\n"
                  << "pellavoy-probe: check that /dev/bus/usb exists and that you may read it.\n";
        return no_usb;
    }
    // No logger: the manager's bare libusb texts would name neither the
    // printer nor the fix; the probe says both itself.
    Probe probe;
    return probe.run();
}
