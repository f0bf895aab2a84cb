// Times the manager's enumeration against a bare libusb program that lists
// the same printers, opens them and reads their serial numbers, in turn in
// the same run. Run it under the virtual printer with the whole corpus of
// real printers attached: tools/bench/run does.
#include "COMMON/devmgr/usb_mgr.h"

#include <libusb.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double since(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// Interface 0, alternate setting 0 of the printer class: what the manager lists.
bool printer(libusb_device* dev)
{
    libusb_config_descriptor* cfg = nullptr;
    if (libusb_get_active_config_descriptor(dev, &cfg) != 0)
        return false;
    bool yes = false;
    for (uint8_t i = 0; i < cfg->bNumInterfaces; ++i) {
        const libusb_interface& itf = cfg->interface[i];
        if (itf.num_altsetting > 0 && itf.altsetting[0].bInterfaceNumber == 0 &&
            itf.altsetting[0].bInterfaceClass == LIBUSB_CLASS_PRINTER)
            yes = true;
    }
    libusb_free_config_descriptor(cfg);
    return yes;
}

// The least a program does to list printers by serial number; returns how many.
size_t bare()
{
    libusb_context* ctx = nullptr;
    if (libusb_init(&ctx) != 0)
        return 0;
    libusb_device** list = nullptr;
    const ssize_t n = libusb_get_device_list(ctx, &list);
    std::vector<libusb_device_handle*> open;
    for (ssize_t i = 0; i < n; ++i) {
        libusb_device_descriptor desc;
        libusb_device_handle* h = nullptr;
        if (!printer(list[i]) || libusb_get_device_descriptor(list[i], &desc) != 0 || libusb_open(list[i], &h) != 0)
            continue;
        unsigned char serial[256];
        libusb_get_string_descriptor_ascii(h, desc.iSerialNumber, serial, sizeof serial);
        open.push_back(h);
    }
    for (libusb_device_handle* h : open)
        libusb_close(h);
    if (n >= 0)
        libusb_free_device_list(list, 1);
    libusb_exit(ctx);
    return open.size();
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

} // namespace

int main(int argc, char** argv)
{
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 100;
    if (rounds < 1) {
        std::fprintf(stderr, "usage: bench-enumerate [ROUNDS]\n");
        return 2;
    }
    std::vector<double> mgr_ms, bare_ms;
    size_t listed = 0, opened = 0;
    for (int i = 0; i < rounds; ++i) {
        auto start = Clock::now();
        void* mgr = usb_mgr_new();
        usb_mgr_enumerate(mgr);
        listed = usb_mgr_get_size(mgr);
        usb_mgr_free(mgr);
        mgr_ms.push_back(since(start));

        start = Clock::now();
        opened = bare();
        bare_ms.push_back(since(start));
    }
    const double m = median(mgr_ms), b = median(bare_ms);
    std::printf("enumerate: %d rounds, %zu printer(s) listed; usb_mgr_enumerate median %.2f ms, "
                "bare libusb (list, open, read serial) %zu printer(s) median %.2f ms, ratio %.2f\n",
                rounds, listed, m, opened, b, m / b);
    return listed == opened ? 0 : 1;
}
