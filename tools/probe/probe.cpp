// pellavoy-probe: lists the attached USB printers with their IEEE 1284 device
// ID and port status, for a technician at a console.
// Exit status: 0 a printer was found, 1 none, 2 USB could not be used.
#include "COMMON/devmgr/usb_mgr.h"

#include <libusb.h>
#include <plog/Appenders/ConsoleAppender.h>
#include <plog/Formatters/MessageOnlyFormatter.h>
#include <plog/Init.h>

#include <clocale>
#include <cstring>
#include <iostream>
#include <sstream>

namespace {

const size_t request_timeout_ms = 1000;

const char usage_text[] =
    "Usage: pellavoy-probe [--help | --version]\n"
    "Lists the USB printers attached to this computer with their IEEE 1284 device ID\n"
    "and port status.\n"
    "Exit status: 0 when a printer was found, 1 when none was, 2 when USB could not be used.\n";

// The printer class's port status bits.
std::string port_status_words(uint8_t status)
{
    std::string words = status & 0x20 ? "paper empty, " : "";
    words += status & 0x10 ? "selected" : "not selected";
    words += status & 0x08 ? ", no error" : ", error";
    return words;
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
        if (size() == 0) {
            std::cout << "no USB printer found\n";
            return 1;
        }
        for (size_t i = 0; i < size(); ++i) {
            const void* handle = open(i);
            std::string id;
            uint8_t status = 0;
            std::cout << describe((*this)[i]) << "\n";
            if (get_1284_id(handle, id, request_timeout_ms))
                std::cout << "  device ID:   " << id << "\n";
            else
                std::cout << "  device ID:   (no answer)\n";
            if (get_lpt_status(handle, status, request_timeout_ms)) {
                char hex[8];
                snprintf(hex, sizeof hex, "0x%02X", status);
                std::cout << "  port status: " << hex << " (" << port_status_words(status) << ")\n";
            } else {
                std::cout << "  port status: (no answer)\n";
            }
            close();
        }
        return 0;
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
        return 2;
    }
    // The manager's warnings (a printer it may not open, say) tell the technician why.
    static plog::ConsoleAppender<plog::MessageOnlyFormatter> console(plog::streamStdErr);
    plog::init<0>(plog::warning, &console);
    Probe probe;
    return probe.run();
}
