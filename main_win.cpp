#include "main_win.h"

#include "COMMON/devmgr/usb_mgr.h"
#include "passwd_dlg.h"
#include "printer_list.h"

#include <libusb.h>

#include <memory>
#include <string.h>
#include <string>
#include <vector>

#define _(text) g_dgettext("Pellavoy", text)
#define N_(text) text
#define NP_(singular, plural) singular, plural  // a plural pair, translated where used

// The printer chooser's state: the user's choice (a USB port; empty for the
// first printer found) and the printer last seen there, to name it while it
// is away.
struct Chooser {
    std::string port;
    Printer chosen;
};

struct _MainWindow {
    GtkApplicationWindow parent_instance;
    GtkEntry* ctl_addr;
    GtkEntry* ctl_subnet;
    GtkEntry* ctl_gateway;
    GtkCheckButton* ctl_dhcp;
    GtkTreeView* ctl_log_view;
    GtkButton* ctl_trigger;
    GtkButton* ctl_reset;
    GtkComboBoxText* ctl_printer;
    GtkStatusbar* ctl_status;
    GtkWidget* ctl_content;
    PrinterList* printers;
    Chooser* chooser;
};

G_DEFINE_TYPE(MainWindow, main_window, GTK_TYPE_APPLICATION_WINDOW)

// The printer's command frames (all numbers little-endian).
static const guint8 netcfg_read_frame[] = {0x1B, 0x5E, 0x49, 0x53, 0x52};
static const guint8 netcfg_write_header[] = {0x1B, 0x5E, 0x49, 0x53, 0x57};
static const guint8 log_read_frame[] = {0x1B, 0x1D, 0x1E, 0x10, 0x57, 0x1B, 0x1D, 0x1F};
static const guint8 log_reset_frame[] = {0x1B, 0x1D, 0x1E, 0x10, 0x55, 0x1B, 0x1D, 0x1F};
static const guint8 log_trigger_frame[] = {0x1B, 0x1D, 0x1E, 0x10, 0x1D, 0, 0, 0, 0, 0x1B, 0x1D, 0x1F};
static const gsize trigger_time_offset = 5;

static const gsize netcfg_reply_capacity = 64;
static const gint32 netcfg_reply_length = 13;
static const gsize log_reply_capacity = 2048;
static const gsize read_timeout_ms = 1000;
// A printer out of paper may never take the data: the window must not wait for good.
static const gsize write_timeout_ms = 2000;

// How an exchange with the printer ended, as the status line tells it.
enum class Outcome {
    NetcfgRead, NetcfgSent, JobsRead, JobLogEmpty, TimeSent, LogCleared, Connected,
    NoPrinter, NotConnected, OpenDenied, OpenFailed, Busy, ReadTimeout, WriteTimeout, Disconnected, Failed, BadReply,
};

// Every sentence of the status line. Each is given the printer's name and
// then libusb's text, or for a plural pair a count.
struct Sentence {
    Outcome outcome;
    const char* text;
    const char* plural;
};
static const Sentence sentences[] = {
    {Outcome::NetcfgRead, N_("Read the network settings from printer %s."), NULL},
    {Outcome::NetcfgSent, N_("Sent the network settings to printer %s."), NULL},
    {Outcome::JobsRead, NP_("Read %2$u job from printer %1$s.", "Read %2$u jobs from printer %1$s.")},
    {Outcome::JobLogEmpty, N_("The job log of printer %s is empty."), NULL},
    {Outcome::TimeSent, N_("Sent the time to printer %s."), NULL},
    {Outcome::LogCleared, N_("Cleared the job log of printer %s."), NULL},
    {Outcome::Connected, N_("Printer %s connected."), NULL},
    {Outcome::NoPrinter, N_("No USB printer found. Check the cable and that the printer is switched on."), NULL},
    {Outcome::NotConnected, N_("Printer %s is not connected."), NULL},
    {Outcome::OpenDenied,
     N_("Printer %s cannot be opened: permission denied. Install the udev rule (see the README) or run as root."),
     NULL},
    {Outcome::OpenFailed, N_("Printer %s cannot be opened: %s."), NULL},
    {Outcome::Busy, N_("Printer %s is in use by another program."), NULL},
    {Outcome::ReadTimeout, N_("Printer %s did not answer within 1 second."), NULL},
    {Outcome::WriteTimeout, N_("Printer %s did not accept the command within 2 seconds."), NULL},
    {Outcome::Disconnected, N_("Printer %s was disconnected."), NULL},
    {Outcome::Failed, N_("The exchange with printer %s failed: %s."), NULL},
    {Outcome::BadReply, NP_("Printer %1$s sent an unexpected reply (%2$u byte).",
                            "Printer %1$s sent an unexpected reply (%2$u bytes).")},
};

static std::string sentence(Outcome outcome, const std::string& printer, const std::string& text = "", guint count = 0)
{
    for (const Sentence& s : sentences) {
        if (s.outcome != outcome)
            continue;
        gchar* out = s.plural != NULL
                         ? g_strdup_printf(g_dngettext("Pellavoy", s.text, s.plural, count), printer.c_str(), count)
                         : g_strdup_printf(_(s.text), printer.c_str(), text.c_str());
        std::string result(out);
        g_free(out);
        return result;
    }
    return std::string();
}

static void show_status(MainWindow* self, const std::string& text)
{
    const guint context = gtk_statusbar_get_context_id(self->ctl_status, "exchange");
    gtk_statusbar_remove_all(self->ctl_status, context);
    gtk_statusbar_push(self->ctl_status, context, text.c_str());
}

static guint32 usb_mgr_get_length(void* self)
{
    g_return_val_if_fail(self != NULL, 0);
    return static_cast<guint32>(usb_mgr_get_size(self));
}

// What one click's exchange came to. sent: a printer was opened and the frame
// written to it (or tried); otherwise nothing reached any printer.
struct Exchange {
    bool sent = false;
    bool failed = true;
    Outcome failure = Outcome::NoPrinter;
    std::string printer;
    std::string text;  // libusb's, for the failures that quote it
};

static Exchange failure(Outcome outcome, const std::string& printer, const std::string& text = "")
{
    Exchange ex;
    ex.failure = outcome;
    ex.printer = printer;
    ex.text = text;
    return ex;
}

// A printer that could not be opened is named from udev: its serial cannot be read.
static Exchange open_failure(MainWindow* self, void* mgr, const Printer* at)
{
    const bool any = self->chooser->port.empty();
    usb_dev_summary dev = {};
    int code;
    for (size_t i = 0; (any || at != NULL) && (code = usb_mgr_get_open_failure(mgr, i, &dev)) != 0; ++i) {
        if (at != NULL && (dev.bus != at->bus || dev.address != at->address))
            continue;
        const Printer* p = printer_list_find_address(self->printers, dev.bus, dev.address);
        return failure(code == LIBUSB_ERROR_ACCESS ? Outcome::OpenDenied : Outcome::OpenFailed,
                       printer_name(p != NULL ? p->serial : "", dev.vid, dev.pid), usb_get_err_text(code));
    }
    if (!any)
        return failure(Outcome::NotConnected,
                       printer_name(self->chooser->chosen.serial, self->chooser->chosen.vid, self->chooser->chosen.pid));
    return failure(Outcome::NoPrinter, "");
}

// An I/O error is what the kernel reports for a transfer cut short by an
// unplug; the device node then goes, at most a moment later.
static bool node_gone(const usb_dev_summary& dev)
{
    gchar* node = g_strdup_printf("/dev/bus/usb/%03u/%03u", dev.bus, dev.address);
    bool gone = false;
    for (int i = 0; i < 10 && !(gone = !g_file_test(node, G_FILE_TEST_EXISTS)); ++i)
        g_usleep(20 * 1000);
    g_free(node);
    return gone;
}

static Outcome transfer_outcome(int code, Outcome timeout, const usb_dev_summary& dev)
{
    if (code == LIBUSB_ERROR_TIMEOUT)
        return timeout;
    if (code == LIBUSB_ERROR_NO_DEVICE || (code == LIBUSB_ERROR_IO && node_gone(dev)))
        return Outcome::Disconnected;
    return Outcome::Failed;
}

// One click's exchange with the chosen printer (or the first one found):
// write the frame and, when a reply buffer is given, read one reply into it
// (*reply_len: capacity in, bytes received out; untouched when the read fails).
static Exchange talk_to_printer(MainWindow* self, const guint8* frame, gsize frame_len, guint8* reply, gint32* reply_len)
{
    std::unique_ptr<void, void (*)(void*)> mgr(usb_mgr_new(), usb_mgr_free);
    usb_mgr_enumerate(mgr.get());
    const guint32 count = usb_mgr_get_length(mgr.get());

    // A chosen printer is found by its place on the bus, never replaced by another.
    const std::string& port = self->chooser->port;
    const Printer* chosen = port.empty() ? NULL : printer_list_find_port(self->printers, port);
    usb_dev_summary dev = {};
    size_t index = port.empty() ? 0 : count;
    for (size_t i = 0; chosen != NULL && i < count && index == count; ++i)
        if (usb_mgr_get_record(mgr.get(), i, &dev) == 0 && dev.bus == chosen->bus && dev.address == chosen->address)
            index = i;
    if (index >= count)
        return open_failure(self, mgr.get(), chosen);

    Exchange ex;
    usb_mgr_get_record(mgr.get(), index, &dev);
    ex.printer = printer_name(dev.serial, dev.vid, dev.pid);
    ex.sent = true;
    const void* handle = usb_mgr_open(mgr.get(), index);
    const int claim = usb_mgr_get_claim_result(mgr.get());
    int written = 0, received = 0;
    usb_handle_write_ex(handle, frame, frame_len, write_timeout_ms, &written);
    if (reply != NULL)
        usb_handle_read_ex(handle, &reply, reply_len, read_timeout_ms, &received);
    if (handle != NULL)
        usb_handle_free(handle);

    // The first problem of the exchange is the one the user is told.
    if (claim == LIBUSB_ERROR_BUSY)
        ex.failure = Outcome::Busy;
    else if (claim == LIBUSB_ERROR_NO_DEVICE)
        ex.failure = Outcome::Disconnected;
    else if (written != 0)
        ex.failure = transfer_outcome(written, Outcome::WriteTimeout, dev);
    else if (received != 0)
        ex.failure = transfer_outcome(received, Outcome::ReadTimeout, dev);
    else
        ex.failed = false;
    ex.text = usb_get_err_text(written != 0 ? written : received);
    return ex;
}

// The status line after a click: the failure, an unusable reply, or the success.
static void report(MainWindow* self, const Exchange& ex, Outcome success, bool unusable, guint count,
                   const std::string& more = "")
{
    if (ex.failed)
        show_status(self, sentence(ex.failure, ex.printer, ex.text));
    else if (unusable)
        show_status(self, sentence(Outcome::BadReply, ex.printer, "", count));
    else
        show_status(self, sentence(success, ex.printer, "", count) + more);
}

guint32 bytes_to_num(const guint8* bytes)
{
    return static_cast<guint32>(bytes[0]) | static_cast<guint32>(bytes[1]) << 8 |
           static_cast<guint32>(bytes[2]) << 16 | static_cast<guint32>(bytes[3]) << 24;
}

// The text's IPv4 address, or NULL for anything else (an IPv6 text, a host name, nothing).
static GInetAddress* ipv4_address(const gchar* text)
{
    GInetAddress* addr = g_inet_address_new_from_string(text);
    if (addr != NULL && g_inet_address_get_native_size(addr) != 4)
        g_clear_object(&addr);
    return addr;
}

static bool is_ipv4(const gchar* text)
{
    GInetAddress* addr = ipv4_address(text);
    const bool ok = addr != NULL;
    g_clear_object(&addr);
    return ok;
}

guint8* ip_str_to_bytes(MainWindow* self, const gchar* ip_str, gsize* len)
{
    g_return_val_if_fail(self != NULL, NULL);
    g_return_val_if_fail(ip_str != NULL, NULL);
    g_return_val_if_fail(len != NULL, NULL);

    guint8* bytes = static_cast<guint8*>(g_malloc0(4));
    // Text that is not an IPv4 address goes out as 0.0.0.0.
    GInetAddress* addr = ipv4_address(ip_str);
    if (addr != NULL)
        memcpy(bytes, g_inet_address_to_bytes(addr), 4);
    g_clear_object(&addr);
    *len = 4;
    return bytes;
}

static void set_address_text(GtkEntry* entry, const guint8* octets)
{
    GInetAddress* addr = g_inet_address_new_from_bytes(octets, G_SOCKET_FAMILY_IPV4);
    gchar* text = g_inet_address_to_string(addr);
    gtk_entry_set_text(entry, text);
    g_free(text);
    g_object_unref(addr);
}

void main_window_on_netcfg_load(GtkButton* button, MainWindow* self)
{
    (void)button;
    g_return_if_fail(self != NULL);
    g_info("main_win:22: loading net config");

    guint8 reply[netcfg_reply_capacity] = {0};
    gint32 len = netcfg_reply_capacity;
    const Exchange ex = talk_to_printer(self, netcfg_read_frame, sizeof netcfg_read_frame, reply, &len);
    if (ex.sent)
        g_info("main_win:31: read %u bytes", static_cast<guint>(len));
    if (ex.sent && len == netcfg_reply_length) {
        // Wire order: dhcp, address, gateway, subnet mask.
        gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(self->ctl_dhcp), reply[0] != 0);
        set_address_text(self->ctl_addr, reply + 1);
        set_address_text(self->ctl_gateway, reply + 5);
        set_address_text(self->ctl_subnet, reply + 9);
    }
    report(self, ex, Outcome::NetcfgRead, len != netcfg_reply_length, static_cast<guint>(len));
}

static void append_address(GByteArray* frame, MainWindow* self, GtkEntry* entry)
{
    gsize len = 0;
    guint8* bytes = ip_str_to_bytes(self, gtk_entry_get_text(entry), &len);
    if (bytes != NULL)
        g_byte_array_append(frame, bytes, len);
    g_free(bytes);
}

// One sentence for each entry, in the order of the page, that went out as 0.0.0.0.
static std::string zeroed_fields(MainWindow* self)
{
    const struct {
        GtkEntry* entry;
        const char* text;
    } fields[] = {
        {self->ctl_addr, N_("The IP address was not an IPv4 address and was sent as 0.0.0.0.")},
        {self->ctl_subnet, N_("The subnet mask was not an IPv4 address and was sent as 0.0.0.0.")},
        {self->ctl_gateway, N_("The gateway was not an IPv4 address and was sent as 0.0.0.0.")},
    };
    std::string out;
    for (const auto& f : fields)
        if (!is_ipv4(gtk_entry_get_text(f.entry)))
            out = out + " " + _(f.text);
    return out;
}

void main_window_on_netcfg_save(GtkButton* button, MainWindow* self)
{
    (void)button;
    g_return_if_fail(self != NULL);
    g_info("main_win:48: saving net config");

    GByteArray* frame = g_byte_array_new();
    g_byte_array_append(frame, netcfg_write_header, sizeof netcfg_write_header);
    const guint8 dhcp = gtk_toggle_button_get_active(GTK_TOGGLE_BUTTON(self->ctl_dhcp)) ? 1 : 0;
    g_byte_array_append(frame, &dhcp, 1);
    append_address(frame, self, self->ctl_addr);
    append_address(frame, self, self->ctl_gateway);
    append_address(frame, self, self->ctl_subnet);

    const Exchange ex = talk_to_printer(self, frame->data, frame->len, NULL, NULL);
    report(self, ex, Outcome::NetcfgSent, false, 0, zeroed_fields(self));
    g_byte_array_unref(frame);
}

void main_window_on_log_load(GtkButton* button, MainWindow* self)
{
    (void)button;
    g_return_if_fail(self != NULL);
    g_info("main_win:65: loading log");

    GtkListStore* store = gtk_list_store_new(2, G_TYPE_STRING, G_TYPE_STRING);
    std::vector<guint8> reply(log_reply_capacity, 0);
    gint32 len = static_cast<gint32>(reply.size());
    guint rows = 0;
    const Exchange ex = talk_to_printer(self, log_read_frame, sizeof log_read_frame, reply.data(), &len);
    if (ex.sent) {
        g_info("main_win:75: read %u bytes", static_cast<guint>(len));
        if (len > 3) {
            const guint32 count = bytes_to_num(reply.data());
            g_info("main_win:78: %u records", count);
            // The count is the printer's word; a slot the printer did not fill
            // reads as zero, and nothing past the buffer is ever read.
            for (guint32 i = 0; i < count && 4 + 4 * (static_cast<gsize>(i) + 1) <= reply.size(); ++i, ++rows) {
                const guint32 t = bytes_to_num(reply.data() + 4 + 4 * static_cast<gsize>(i));
                GDateTime* moment = g_date_time_new_from_unix_local(t);
                gchar* text = g_date_time_format(moment, "%F %T");
                g_info("main_win:84: %u => %s", t, text);
                gtk_list_store_insert_with_values(store, NULL, -1, 0, text, 1, "start job", -1);
                g_free(text);
                g_date_time_unref(moment);
            }
        }
    }
    // Also on failure: a load that finds nothing empties the list.
    gtk_tree_view_set_model(self->ctl_log_view, GTK_TREE_MODEL(store));
    g_object_unref(store);
    report(self, ex, rows > 0 ? Outcome::JobsRead : Outcome::JobLogEmpty, len <= 3,
           len <= 3 ? static_cast<guint>(len) : rows);
}

void main_window_on_log_trigger(GtkButton* button, MainWindow* self)
{
    (void)button;
    g_return_if_fail(self != NULL);
    g_info("main_win:107: trigger timestamp");

    guint8 frame[sizeof log_trigger_frame];
    memcpy(frame, log_trigger_frame, sizeof frame);
    // Taken before the device search, so the frame carries the moment of the click.
    const guint32 now = static_cast<guint32>(g_get_real_time() / G_USEC_PER_SEC);
    g_info("main_win:111: timestamp: %u", now);
    for (gsize i = 0; i < 4; ++i)
        frame[trigger_time_offset + i] = static_cast<guint8>(now >> (8 * i));

    report(self, talk_to_printer(self, frame, sizeof frame, NULL, NULL), Outcome::TimeSent, false, 0);
}

void main_window_on_log_reset(GtkButton* button, MainWindow* self)
{
    (void)button;
    g_return_if_fail(self != NULL);
    g_info("main_win:95: reset log");
    report(self, talk_to_printer(self, log_reset_frame, sizeof log_reset_frame, NULL, NULL), Outcome::LogCleared,
           false, 0);
}

// ---- The printer chooser ------------------------------------------------------------

static std::string chooser_label(const Printer& p)
{
    return (p.product.empty() ? std::string(_("USB printer")) : p.product) + " (" +
           printer_name(p.serial, p.vid, p.pid) + ")";
}

static std::string marked(const char* format, const std::string& label)
{
    gchar* text = g_strdup_printf(format, label.c_str());
    std::string out(text);
    g_free(text);
    return out;
}

static void main_window_on_printer_changed(GtkComboBox* combo, MainWindow* self);

// The chosen printer is not attached: its item is the last, marked not connected.
static bool chosen_is_away(MainWindow* self)
{
    return !self->chooser->port.empty() && printer_list_find_port(self->printers, self->chooser->port) == NULL;
}

// The items: the first printer found, every printer attached, and the chosen
// printer while it is away.
static void refresh_chooser(MainWindow* self)
{
    Chooser& c = *self->chooser;
    GtkComboBoxText* combo = self->ctl_printer;
    g_signal_handlers_block_by_func(combo, reinterpret_cast<gpointer>(main_window_on_printer_changed), self);
    gtk_combo_box_text_remove_all(combo);
    gtk_combo_box_text_append(combo, "", _("First printer found"));
    for (const Printer& p : *printer_list_get_printers(self->printers)) {
        gtk_combo_box_text_append(combo, p.port.c_str(),
                                  p.may_open ? chooser_label(p).c_str()
                                             : marked(_("%s — no permission"), chooser_label(p)).c_str());
        if (p.port == c.port)
            c.chosen = p;
    }
    if (chosen_is_away(self))
        gtk_combo_box_text_append(combo, c.port.c_str(), marked(_("%s — not connected"), chooser_label(c.chosen)).c_str());
    gtk_combo_box_set_active_id(GTK_COMBO_BOX(combo), c.port.c_str());
    g_signal_handlers_unblock_by_func(combo, reinterpret_cast<gpointer>(main_window_on_printer_changed), self);
}

static void main_window_on_printer_changed(GtkComboBox* combo, MainWindow* self)
{
    g_return_if_fail(self != NULL);
    Chooser& c = *self->chooser;
    const gchar* id = gtk_combo_box_get_active_id(combo);
    const std::string port = id != NULL ? id : "";
    if (port == c.port)
        return;
    // Choosing another printer lets the one that is away go from the list.
    if (chosen_is_away(self))
        gtk_combo_box_text_remove(self->ctl_printer,
                                  static_cast<gint>(printer_list_get_printers(self->printers)->size()) + 1);
    c.port = port;
    if (const Printer* p = printer_list_find_port(self->printers, port))
        c.chosen = *p;
}

// udev's news: the status line says what came and went, and the chooser follows.
static void main_window_on_printer_added(PrinterList* list, const Printer* p, MainWindow* self)
{
    (void)list;
    g_return_if_fail(self != NULL);
    show_status(self, sentence(Outcome::Connected, printer_name(p->serial, p->vid, p->pid)));
}

static void main_window_on_printer_removed(PrinterList* list, const Printer* p, MainWindow* self)
{
    (void)list;
    g_return_if_fail(self != NULL);
    show_status(self, sentence(Outcome::Disconnected, printer_name(p->serial, p->vid, p->pid)));
}

static void main_window_on_printers_changed(PrinterList* list, MainWindow* self)
{
    (void)list;
    g_return_if_fail(self != NULL);
    refresh_chooser(self);
}

// Entries whose text Save would send as 0.0.0.0 show a warning; an empty one does not.
static void on_address_changed(GtkEntry* entry, gpointer user_data)
{
    (void)user_data;
    const gchar* text = gtk_entry_get_text(entry);
    const bool mark = text[0] != '\0' && !is_ipv4(text);
    gtk_entry_set_icon_from_icon_name(entry, GTK_ENTRY_ICON_SECONDARY, mark ? "dialog-warning" : NULL);
    gtk_entry_set_icon_tooltip_text(entry, GTK_ENTRY_ICON_SECONDARY,
                                    mark ? _("Not an IPv4 address: Save sends 0.0.0.0") : NULL);
}

// The window is gated by the password: one attempt, and a wrong one ends the program.
static void main_window_on_show(GtkWidget* widget, MainWindow* self)
{
    (void)widget;
    g_return_if_fail(self != NULL);

    gtk_widget_hide(GTK_WIDGET(self->ctl_trigger));
    gtk_widget_hide(GTK_WIDGET(self->ctl_reset));
    // Nothing in the window answers, not even through the accessibility bus,
    // until the password is accepted.
    gtk_widget_set_sensitive(self->ctl_content, FALSE);

    PasswdDialog* dialog = passwd_dialog_new();
    g_object_ref_sink(dialog);
    gtk_window_set_transient_for(GTK_WINDOW(dialog), GTK_WINDOW(self));
    gtk_dialog_run(GTK_DIALOG(dialog));
    gtk_widget_destroy(GTK_WIDGET(dialog));

    gboolean is_ok = FALSE;
    g_object_get(dialog, "is-ok", &is_ok, NULL);
    if (!is_ok) {
        GtkWidget* message = gtk_message_dialog_new(GTK_WINDOW(self), GTK_DIALOG_MODAL, GTK_MESSAGE_WARNING,
                                                    GTK_BUTTONS_OK, "%s", _("Invalid password!"));
        gtk_dialog_run(GTK_DIALOG(message));
        gtk_widget_destroy(message);
        gtk_window_close(GTK_WINDOW(self));
    } else {
        gtk_widget_set_sensitive(self->ctl_content, TRUE);
    }
    g_object_unref(dialog);
}

static void main_window_dispose(GObject* object)
{
    MainWindow* self = MAIN_WINDOW(object);
    if (self->printers != NULL)
        g_signal_handlers_disconnect_by_data(self->printers, self);
    g_clear_object(&self->printers);
    G_OBJECT_CLASS(main_window_parent_class)->dispose(object);
}

static void main_window_finalize(GObject* object)
{
    delete MAIN_WINDOW(object)->chooser;
    G_OBJECT_CLASS(main_window_parent_class)->finalize(object);
}

static void main_window_class_init(MainWindowClass* klass)
{
    GtkWidgetClass* widget_class = GTK_WIDGET_CLASS(klass);
    G_OBJECT_CLASS(klass)->dispose = main_window_dispose;
    G_OBJECT_CLASS(klass)->finalize = main_window_finalize;

    gtk_widget_class_set_template_from_resource(widget_class, "/main_win.ui");
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_addr);
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_subnet);
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_gateway);
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_dhcp);
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_log_view);
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_trigger);
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_reset);
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_printer);
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_status);
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_content);

    gtk_widget_class_bind_template_callback_full(widget_class, "gtk_main_quit", G_CALLBACK(gtk_main_quit));
    gtk_widget_class_bind_template_callback_full(widget_class, "on_show", G_CALLBACK(main_window_on_show));
    gtk_widget_class_bind_template_callback_full(widget_class, "on_netcfg_load", G_CALLBACK(main_window_on_netcfg_load));
    gtk_widget_class_bind_template_callback_full(widget_class, "on_netcfg_save", G_CALLBACK(main_window_on_netcfg_save));
    gtk_widget_class_bind_template_callback_full(widget_class, "on_log_load", G_CALLBACK(main_window_on_log_load));
    gtk_widget_class_bind_template_callback_full(widget_class, "on_log_trigger", G_CALLBACK(main_window_on_log_trigger));
    gtk_widget_class_bind_template_callback_full(widget_class, "on_log_reset", G_CALLBACK(main_window_on_log_reset));
    gtk_widget_class_bind_template_callback_full(widget_class, "on_printer_changed",
                                                 G_CALLBACK(main_window_on_printer_changed));
}

static void main_window_init(MainWindow* self)
{
    gtk_widget_init_template(GTK_WIDGET(self));

    // One renderer shared by both columns; the columns hold their own references.
    GtkCellRenderer* renderer = gtk_cell_renderer_text_new();
    g_object_ref_sink(renderer);
    gtk_tree_view_insert_column_with_attributes(self->ctl_log_view, -1, _("Time"), renderer, "text", 0, NULL);
    gtk_tree_view_insert_column_with_attributes(self->ctl_log_view, -1, _("Event"), renderer, "text", 1, NULL);
    g_object_unref(renderer);

    for (GtkEntry* entry : {self->ctl_addr, self->ctl_subnet, self->ctl_gateway})
        g_signal_connect(entry, "changed", G_CALLBACK(on_address_changed), NULL);

    self->chooser = new Chooser();
    self->printers = printer_list_new();
    g_signal_connect(self->printers, "added", G_CALLBACK(main_window_on_printer_added), self);
    g_signal_connect(self->printers, "removed", G_CALLBACK(main_window_on_printer_removed), self);
    g_signal_connect(self->printers, "changed", G_CALLBACK(main_window_on_printers_changed), self);
    refresh_chooser(self);
    if (printer_list_get_printers(self->printers)->empty())
        show_status(self, sentence(Outcome::NoPrinter, ""));
}

MainWindow* main_window_new(void)
{
    return static_cast<MainWindow*>(g_object_new(MAIN_TYPE_WINDOW, NULL));
}
