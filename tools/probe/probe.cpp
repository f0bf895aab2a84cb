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

// The kernel driver bound to one of the device's interfaces, from sysfs
// ("usbfs" when a program holds it through libusb); empty when none is.
std::string bound_driver(uint8_t bus, uint8_t address)
{
    const std::string root = "/sys/bus/usb/devices/";
    const std::vector<std::string> names = entries(root);
    for (const std::string& device : names) {
        if (device.find(':') != std::string::npos || read_line(root + device + "/busnum") != std::to_string(bus) ||
            read_line(root + device + "/devnum") != std::to_string(address))
            continue;
        for (const std::string& itf : names) {
            char target[PATH_MAX] = {0};
            if (itf.rfind(device + ":", 0) == 0 && readlink((root + itf + "/driver").c_str(), target, sizeof target - 1) > 0)
                return strrchr(target, '/') != nullptr ? strrchr(target, '/') + 1 : target;
        }
    }
    return "";
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
    static std::string describe(const UsbDevInfo& dev)
    {
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
            std::cout << describe(dev) << (dev.sn.empty() ? " (no serial number)" : "")
                      << (i == 0 ? "  [first found: the window uses it unless another is chosen]" : "") << "\n"
                      << "  on USB:      " << bus_place(bus, address) << "\n";
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
        if (size() == 0 && open_failures().empty())
            std::cout << "no USB printer found\n";
        return status;
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
