// The USB printers attached to this computer, as udev sees them: read from
// sysfs, so nothing is sent to any device, and kept up to date from udev's
// plug and unplug events ("added", "removed", then "changed").
#pragma once

#include <glib-object.h>

#include <string>
#include <vector>

struct Printer {
    std::string port;     // sysfs name, e.g. "1-4": the same when plugged back into the same port
    guint bus = 0;
    guint address = 0;    // a new one each time the printer is plugged in
    guint16 vid = 0;
    guint16 pid = 0;
    std::string product;  // empty without one
    std::string serial;   // empty without one
    bool may_open = false;  // this user may read and write the device node
    guint itf = 0;          // its printer interface: not 0 for a device Pellavoy cannot use

    bool operator==(const Printer& other) const;
};

// How the window names a printer: its serial number, else VID:PID in upper-case hex.
std::string printer_name(const std::string& serial, guint16 vid, guint16 pid);
// How the chooser names it: its product (or "USB printer") and its name in brackets.
std::string printer_label(const Printer& p);

// The printer at that USB port, or at that place on the bus; NULL when none.
const Printer* printer_at_port(const std::vector<Printer>& printers, const std::string& port);
const Printer* printer_at_address(const std::vector<Printer>& printers, guint bus, guint address);

G_BEGIN_DECLS

#define PRINTER_TYPE_LIST (printer_list_get_type())
G_DECLARE_FINAL_TYPE(PrinterList, printer_list, PRINTER, LIST, GObject)

PrinterList* printer_list_new(void);

G_END_DECLS

// In the order libusb lists them, so that the first is the "first printer found".
const std::vector<Printer>* printer_list_get_printers(PrinterList* self);
const Printer* printer_list_find_port(PrinterList* self, const std::string& port);
// Devices with a printer interface that is not interface 0: Pellavoy cannot
// use them, but names them rather than saying that no printer is there.
const std::vector<Printer>* printer_list_get_unusable(PrinterList* self);
