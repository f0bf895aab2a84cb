#include "printer_list.h"

#include "i18n.h"

#include <gudev/gudev.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <map>

struct _PrinterList {
    GObject parent_instance;
    GUdevClient* client;
    std::vector<Printer>* printers;
    std::vector<Printer>* unusable;
};

G_DEFINE_TYPE(PrinterList, printer_list, G_TYPE_OBJECT)

enum { SIGNAL_ADDED, SIGNAL_REMOVED, SIGNAL_CHANGED, N_SIGNALS };
static guint signals[N_SIGNALS];

bool Printer::operator==(const Printer& o) const
{
    return port == o.port && bus == o.bus && address == o.address && vid == o.vid && pid == o.pid &&
           product == o.product && serial == o.serial && may_open == o.may_open && itf == o.itf;
}

// Some devices pad their strings with blanks.
static std::string trimmed(const std::string& text)
{
    gchar* copy = g_strstrip(g_strdup(text.c_str()));
    std::string out(copy);
    g_free(copy);
    return out;
}

std::string printer_name(const std::string& serial, guint16 vid, guint16 pid)
{
    const std::string name = trimmed(serial);
    if (!name.empty())
        return name;
    char ids[16];
    snprintf(ids, sizeof ids, "%04X:%04X", vid, pid);
    return ids;
}

std::string printer_label(const Printer& p)
{
    const std::string product = trimmed(p.product);
    return (product.empty() ? std::string(_("USB printer")) : product) + " (" + printer_name(p.serial, p.vid, p.pid) +
           ")";
}

static std::string attr_text(GUdevDevice* device, const char* name)
{
    const char* value = g_udev_device_get_sysfs_attr(device, name);
    return value != NULL ? value : "";
}

static gulong attr_number(GUdevDevice* device, const char* name, int base)
{
    return strtoul(attr_text(device, name).c_str(), NULL, base);
}

// What the first interface of a device looks like; only that one decides
// whether the device is a printer, as when a click enumerates. A printer
// interface further on makes it a device to name.
struct FirstInterface {
    gulong number = G_MAXULONG;
    gulong cls = 0;
    gulong endpoints = 0;
    gulong other_printer = G_MAXULONG;
};

static bool within(const char* path, const char* removed)
{
    return removed != NULL && g_str_has_prefix(path, removed) &&
           (path[strlen(removed)] == '\0' || path[strlen(removed)] == '/');
}

// libusb lists devices in reverse order of their sysfs paths.
static std::vector<Printer> in_libusb_order(std::vector<std::pair<std::string, Printer>>& found)
{
    std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
    std::vector<Printer> printers;
    for (auto& entry : found)
        printers.push_back(std::move(entry.second));
    return printers;
}

// The printers in sysfs, and the devices it cannot use, less the device (or
// interface) at removed.
static std::vector<Printer> scan(GUdevClient* client, const char* removed, std::vector<Printer>& unusable)
{
    GList* devices = g_udev_client_query_by_subsystem(client, "usb");
    std::map<std::string, FirstInterface> first;  // by the device's sysfs path
    for (GList* l = devices; l != NULL; l = l->next) {
        GUdevDevice* itf = G_UDEV_DEVICE(l->data);
        if (g_strcmp0(g_udev_device_get_devtype(itf), "usb_interface") != 0 ||
            within(g_udev_device_get_sysfs_path(itf), removed))
            continue;
        GUdevDevice* parent = g_udev_device_get_parent(itf);
        if (parent == NULL)
            continue;
        FirstInterface& f = first[g_udev_device_get_sysfs_path(parent)];
        const gulong number = attr_number(itf, "bInterfaceNumber", 16);
        const gulong cls = attr_number(itf, "bInterfaceClass", 16);
        if (number < f.number) {
            f.number = number;
            f.cls = cls;
            f.endpoints = attr_number(itf, "bNumEndpoints", 16);
        }
        if (number != 0 && cls == 7)
            f.other_printer = std::min(f.other_printer, number);
        g_object_unref(parent);
    }

    std::vector<std::pair<std::string, Printer>> found, others;
    for (GList* l = devices; l != NULL; l = l->next) {
        GUdevDevice* device = G_UDEV_DEVICE(l->data);
        const char* node = g_udev_device_get_device_file(device);
        const auto f = first.find(g_udev_device_get_sysfs_path(device));
        if (g_strcmp0(g_udev_device_get_devtype(device), "usb_device") != 0 || node == NULL ||
            within(g_udev_device_get_sysfs_path(device), removed) || f == first.end())
            continue;
        const bool listed = f->second.cls == 7 && f->second.endpoints != 0;
        if (!listed && f->second.other_printer == G_MAXULONG)
            continue;
        Printer p;
        p.itf = listed ? 0 : static_cast<guint>(f->second.other_printer);
        p.port = g_udev_device_get_name(device);
        p.bus = static_cast<guint>(attr_number(device, "busnum", 10));
        p.address = static_cast<guint>(attr_number(device, "devnum", 10));
        p.vid = static_cast<guint16>(attr_number(device, "idVendor", 16));
        p.pid = static_cast<guint16>(attr_number(device, "idProduct", 16));
        p.product = attr_text(device, "product");
        p.serial = attr_text(device, "serial");
        p.may_open = access(node, R_OK | W_OK) == 0;
        (listed ? found : others).emplace_back(g_udev_device_get_sysfs_path(device), p);
    }
    g_list_free_full(devices, g_object_unref);
    unusable = in_libusb_order(others);
    return in_libusb_order(found);
}

const Printer* printer_at_port(const std::vector<Printer>& printers, const std::string& port)
{
    for (const Printer& p : printers)
        if (p.port == port)
            return &p;
    return NULL;
}

const Printer* printer_at_address(const std::vector<Printer>& printers, guint bus, guint address)
{
    for (const Printer& p : printers)
        if (p.bus == bus && p.address == address)
            return &p;
    return NULL;
}

static void on_uevent(GUdevClient* client, const gchar* action, GUdevDevice* device, PrinterList* self)
{
    // A device being removed may still be in sysfs when its event arrives.
    const char* removed = g_strcmp0(action, "remove") == 0 ? g_udev_device_get_sysfs_path(device) : NULL;
    std::vector<Printer> now = scan(client, removed, *self->unusable);
    if (now == *self->printers)
        return;
    const std::vector<Printer> before = std::move(*self->printers);
    *self->printers = std::move(now);
    for (const Printer& p : before)
        if (printer_at_port(*self->printers, p.port) == NULL)
            g_signal_emit(self, signals[SIGNAL_REMOVED], 0, &p);
    for (const Printer& p : *self->printers)
        if (printer_at_port(before, p.port) == NULL)
            g_signal_emit(self, signals[SIGNAL_ADDED], 0, &p);
    g_signal_emit(self, signals[SIGNAL_CHANGED], 0);
}

static void printer_list_dispose(GObject* object)
{
    PrinterList* self = PRINTER_LIST(object);
    if (self->client != NULL)
        g_signal_handlers_disconnect_by_data(self->client, self);
    g_clear_object(&self->client);
    G_OBJECT_CLASS(printer_list_parent_class)->dispose(object);
}

static void printer_list_finalize(GObject* object)
{
    delete PRINTER_LIST(object)->printers;
    delete PRINTER_LIST(object)->unusable;
    G_OBJECT_CLASS(printer_list_parent_class)->finalize(object);
}

static void printer_list_class_init(PrinterListClass* klass)
{
    GObjectClass* object_class = G_OBJECT_CLASS(klass);
    object_class->dispose = printer_list_dispose;
    object_class->finalize = printer_list_finalize;
    // "added" and "removed" pass the printer (a const Printer*, valid during
    // the emission); "changed" follows them once the list is up to date.
    signals[SIGNAL_ADDED] = g_signal_new("added", G_TYPE_FROM_CLASS(klass), G_SIGNAL_RUN_LAST, 0, NULL, NULL, NULL,
                                         G_TYPE_NONE, 1, G_TYPE_POINTER);
    signals[SIGNAL_REMOVED] = g_signal_new("removed", G_TYPE_FROM_CLASS(klass), G_SIGNAL_RUN_LAST, 0, NULL, NULL,
                                           NULL, G_TYPE_NONE, 1, G_TYPE_POINTER);
    signals[SIGNAL_CHANGED] = g_signal_new("changed", G_TYPE_FROM_CLASS(klass), G_SIGNAL_RUN_LAST, 0, NULL, NULL,
                                           NULL, G_TYPE_NONE, 0);
}

static void printer_list_init(PrinterList* self)
{
    static const gchar* const subsystems[] = {"usb", NULL};
    self->client = g_udev_client_new(subsystems);
    self->unusable = new std::vector<Printer>();
    self->printers = new std::vector<Printer>(scan(self->client, NULL, *self->unusable));
    g_signal_connect(self->client, "uevent", G_CALLBACK(on_uevent), self);
}

PrinterList* printer_list_new(void)
{
    return PRINTER_LIST(g_object_new(PRINTER_TYPE_LIST, NULL));
}

const std::vector<Printer>* printer_list_get_printers(PrinterList* self)
{
    g_return_val_if_fail(self != NULL, NULL);
    return self->printers;
}

const Printer* printer_list_find_port(PrinterList* self, const std::string& port)
{
    g_return_val_if_fail(self != NULL, NULL);
    return printer_at_port(*self->printers, port);
}

const std::vector<Printer>* printer_list_get_unusable(PrinterList* self)
{
    g_return_val_if_fail(self != NULL, NULL);
    return self->unusable;
}
