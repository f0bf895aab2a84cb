#include "main_win.h"

#include "COMMON/devmgr/usb_mgr.h"
#include "passwd_dlg.h"

#include <memory>
#include <string.h>
#include <vector>

#define _(text) g_dgettext("Pellavoy", text)

struct _MainWindow {
    GtkApplicationWindow parent_instance;
    GtkEntry* ctl_addr;
    GtkEntry* ctl_subnet;
    GtkEntry* ctl_gateway;
    GtkCheckButton* ctl_dhcp;
    GtkTreeView* ctl_log_view;
    GtkButton* ctl_trigger;
    GtkButton* ctl_reset;
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

static guint32 usb_mgr_get_length(void* self)
{
    g_return_val_if_fail(self != NULL, 0);
    return static_cast<guint32>(usb_mgr_get_size(self));
}

// One click's exchange with the first printer found: write the frame and, when
// a reply buffer is given, read one reply into it (*reply_len: capacity in,
// bytes received out; untouched when the read fails). Returns FALSE when no
// printer was found, in which case nothing was sent.
static gboolean talk_to_printer(const guint8* frame, gsize frame_len, guint8* reply, gint32* reply_len)
{
    std::unique_ptr<void, void (*)(void*)> mgr(usb_mgr_new(), usb_mgr_free);
    usb_mgr_enumerate(mgr.get());
    if (usb_mgr_get_length(mgr.get()) == 0)
        return FALSE;

    const void* handle = usb_mgr_open(mgr.get(), 0);
    usb_handle_write(handle, frame, frame_len, 0);
    if (reply != NULL)
        usb_handle_read(handle, &reply, reply_len, read_timeout_ms);
    if (handle != NULL)
        usb_handle_free(handle);
    return TRUE;
}

guint32 bytes_to_num(const guint8* bytes)
{
    return static_cast<guint32>(bytes[0]) | static_cast<guint32>(bytes[1]) << 8 |
           static_cast<guint32>(bytes[2]) << 16 | static_cast<guint32>(bytes[3]) << 24;
}

guint8* ip_str_to_bytes(MainWindow* self, const gchar* ip_str, gsize* len)
{
    g_return_val_if_fail(self != NULL, NULL);
    g_return_val_if_fail(ip_str != NULL, NULL);
    g_return_val_if_fail(len != NULL, NULL);

    guint8* bytes = static_cast<guint8*>(g_malloc0(4));
    // Text that does not parse goes out as 0.0.0.0, like an IPv6 text.
    GInetAddress* addr = g_inet_address_new_from_string(ip_str);
    if (addr != NULL && g_inet_address_get_native_size(addr) == 4)
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
    if (!talk_to_printer(netcfg_read_frame, sizeof netcfg_read_frame, reply, &len))
        return;
    g_info("main_win:31: read %u bytes", static_cast<guint>(len));
    if (len != netcfg_reply_length)
        return;

    // Wire order: dhcp, address, gateway, subnet mask.
    gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(self->ctl_dhcp), reply[0] != 0);
    set_address_text(self->ctl_addr, reply + 1);
    set_address_text(self->ctl_gateway, reply + 5);
    set_address_text(self->ctl_subnet, reply + 9);
}

static void append_address(GByteArray* frame, MainWindow* self, GtkEntry* entry)
{
    gsize len = 0;
    guint8* bytes = ip_str_to_bytes(self, gtk_entry_get_text(entry), &len);
    if (bytes != NULL)
        g_byte_array_append(frame, bytes, len);
    g_free(bytes);
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

    talk_to_printer(frame->data, frame->len, NULL, NULL);
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
    if (talk_to_printer(log_read_frame, sizeof log_read_frame, reply.data(), &len)) {
        g_info("main_win:75: read %u bytes", static_cast<guint>(len));
        if (len > 3) {
            const guint32 count = bytes_to_num(reply.data());
            g_info("main_win:78: %u records", count);
            // The count is the printer's word; a slot the printer did not fill
            // reads as zero, and nothing past the buffer is ever read.
            for (guint32 i = 0; i < count && 4 + 4 * (static_cast<gsize>(i) + 1) <= reply.size(); ++i) {
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

    talk_to_printer(frame, sizeof frame, NULL, NULL);
}

void main_window_on_log_reset(GtkButton* button, MainWindow* self)
{
    (void)button;
    g_return_if_fail(self != NULL);
    g_info("main_win:95: reset log");
    talk_to_printer(log_reset_frame, sizeof log_reset_frame, NULL, NULL);
}

// The window is gated by the password: one attempt, and a wrong one ends the program.
static void main_window_on_show(GtkWidget* widget, MainWindow* self)
{
    (void)widget;
    g_return_if_fail(self != NULL);

    gtk_widget_hide(GTK_WIDGET(self->ctl_trigger));
    gtk_widget_hide(GTK_WIDGET(self->ctl_reset));

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
    }
    g_object_unref(dialog);
}

static void main_window_class_init(MainWindowClass* klass)
{
    GtkWidgetClass* widget_class = GTK_WIDGET_CLASS(klass);

    gtk_widget_class_set_template_from_resource(widget_class, "/main_win.ui");
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_addr);
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_subnet);
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_gateway);
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_dhcp);
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_log_view);
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_trigger);
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_reset);

    gtk_widget_class_bind_template_callback_full(widget_class, "gtk_main_quit", G_CALLBACK(gtk_main_quit));
    gtk_widget_class_bind_template_callback_full(widget_class, "on_show", G_CALLBACK(main_window_on_show));
    gtk_widget_class_bind_template_callback_full(widget_class, "on_netcfg_load", G_CALLBACK(main_window_on_netcfg_load));
    gtk_widget_class_bind_template_callback_full(widget_class, "on_netcfg_save", G_CALLBACK(main_window_on_netcfg_save));
    gtk_widget_class_bind_template_callback_full(widget_class, "on_log_load", G_CALLBACK(main_window_on_log_load));
    gtk_widget_class_bind_template_callback_full(widget_class, "on_log_trigger", G_CALLBACK(main_window_on_log_trigger));
    gtk_widget_class_bind_template_callback_full(widget_class, "on_log_reset", G_CALLBACK(main_window_on_log_reset));
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
}

MainWindow* main_window_new(void)
{
    return static_cast<MainWindow*>(g_object_new(MAIN_TYPE_WINDOW, NULL));
}
