#include "main_win.h"

#include "exchange.h"
#include "i18n.h"
#include "ipv4.h"
#include "netcheck.h"
#include "passwd_dlg.h"
#include "printer_chooser.h"
#include "protocol.h"
#include "status_line.h"

#include <any>
#include <memory>
#include <string.h>
#include <string>
#include <vector>

struct _MainWindow {
    GtkApplicationWindow parent_instance;
    GtkEntry* ctl_addr;
    GtkEntry* ctl_subnet;
    GtkEntry* ctl_gateway;
    GtkCheckButton* ctl_dhcp;
    GtkTreeView* ctl_log_view;
    GtkButton* ctl_trigger;
    GtkButton* ctl_reset;
    GtkButton* ctl_netcfg_load;
    GtkButton* ctl_netcfg_save;
    GtkButton* ctl_log_load;
    PrinterChooser* ctl_printer;
    GtkNotebook* notebook;
    StatusLine* ctl_status;
    GCancellable* closing;  // cancelled when the window goes: a late result is dropped
    gboolean unlocked;      // the password was accepted
    gboolean busy;          // an exchange runs
    GtkWidget* focus;       // the keyboard focus when the exchange started (weak)
};

G_DEFINE_TYPE(MainWindow, main_window, GTK_TYPE_APPLICATION_WINDOW)

// What a click keeps for the end of its exchange.
struct Click {
    using Done = void (*)(MainWindow* self, const Click& click, const ExchangeResult& ex);
    explicit Click(Done d, Outcome s = Outcome::TimeSent) : done(d), success(s) {}
    Done done;
    Outcome success;                      // for the actions that read nothing
    NetRecord record;                     // Save: the record sent, to compare with what the printer reports
    std::string notes;                    // Save: the entries that went out as 0.0.0.0
};

// Nothing acts or edits until the password is accepted; while an exchange
// runs, no second one can start and the entries stay editable. Each control is
// made insensitive itself, never through a container: GTK 3 tells the
// accessibility bus only of the widget whose own state changed, and a screen
// reader would go on calling the controls inside a container grayed.
static void update_sensitivity(MainWindow* self)
{
    const gboolean actions = self->unlocked && !self->busy;
    for (GtkWidget* w : {GTK_WIDGET(self->ctl_netcfg_load), GTK_WIDGET(self->ctl_netcfg_save),
                         GTK_WIDGET(self->ctl_log_load), GTK_WIDGET(self->ctl_trigger), GTK_WIDGET(self->ctl_reset),
                         GTK_WIDGET(self->ctl_printer)})
        gtk_widget_set_sensitive(w, actions);
    for (GtkWidget* w : {GTK_WIDGET(self->ctl_addr), GTK_WIDGET(self->ctl_subnet), GTK_WIDGET(self->ctl_gateway),
                         GTK_WIDGET(self->ctl_dhcp)})
        gtk_widget_set_sensitive(w, self->unlocked);
}

static void on_exchange_done(GObject* source, GAsyncResult* result, gpointer data)
{
    const std::unique_ptr<Click> click(static_cast<Click*>(data));
    MainWindow* self = MAIN_WINDOW(source);  // the task holds a reference
    const std::unique_ptr<ExchangeResult> ex = exchange_run_finish(result);
    self->busy = FALSE;
    if (ex == nullptr)
        return;  // the window was closed meanwhile: there is nothing left to show the result
    update_sensitivity(self);
    // The control that started the exchange lost the keyboard focus when it
    // became insensitive: it gets it back unless the focus has moved on since.
    if (self->focus != NULL && gtk_window_get_focus(GTK_WINDOW(self)) == NULL)
        gtk_widget_grab_focus(self->focus);
    g_clear_weak_pointer(&self->focus);
    status_line_set_busy(self->ctl_status, FALSE);
    click->done(self, *click, *ex);
}

// Runs one click's exchange with the printer chosen now, in the background;
// click->done shows what it came to, with what digest made of the replies in the worker.
static void start_exchange(MainWindow* self, const char* progress, std::vector<Transfer> transfers, Click* click,
                           std::any (*digest)(const ExchangeResult&) = nullptr)
{
    ExchangeRequest request;
    printer_chooser_fill_request(self->ctl_printer, request);
    request.transfers = std::move(transfers);
    request.digest = digest;
    self->busy = TRUE;
    g_set_weak_pointer(&self->focus, gtk_window_get_focus(GTK_WINDOW(self)));
    update_sensitivity(self);
    status_line_set_busy(self->ctl_status, TRUE);
    status_line_show_progress(self->ctl_status, _(progress));
    exchange_run_async(std::move(request), G_OBJECT(self), self->closing, on_exchange_done, click);
}

// The status line after a click: the failure, an unusable reply, or the success.
static void report(MainWindow* self, const ExchangeResult& ex, Outcome success, bool unusable, guint count)
{
    if (ex.failed)
        status_line_show(self->ctl_status, Mark::Error, status_sentence(ex.failure, ex.printer, ex.text));
    else if (unusable)
        status_line_show(self->ctl_status, Mark::Error, status_sentence(Outcome::BadReply, ex.printer, "", count));
    else
        status_line_show(self->ctl_status, Mark::None, status_sentence(success, ex.printer, "", count));
}

static void written(MainWindow* self, const Click& click, const ExchangeResult& ex)
{
    report(self, ex, click.success, false, 0);
}

guint32 bytes_to_num(const guint8* bytes)
{
    return le32(bytes);
}

guint8* ip_str_to_bytes(MainWindow* self, const gchar* ip_str, gsize* len)
{
    g_return_val_if_fail(self != NULL, NULL);
    g_return_val_if_fail(ip_str != NULL, NULL);
    g_return_val_if_fail(len != NULL, NULL);
    // Text that is not an IPv4 address goes out as 0.0.0.0.
    guint8* bytes = static_cast<guint8*>(g_malloc0(4));
    ipv4_from_text(ip_str, bytes);
    *len = 4;
    return bytes;
}

static bool is_ipv4(const gchar* text)
{
    guint8 octets[4];
    return ipv4_from_text(text, octets);
}

static void netcfg_loaded(MainWindow* self, const Click& click, const ExchangeResult& ex)
{
    (void)click;
    const TransferResult& r = ex.transfers[0];
    if (ex.sent)
        g_info("main_win:31: read %u bytes", static_cast<guint>(r.length));
    NetRecord record;
    const bool parsed = ex.sent && net_record_parse(r.reply.data(), static_cast<gsize>(r.length), &record);
    if (parsed) {
        gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(self->ctl_dhcp), record.dhcp != 0);
        gtk_entry_set_text(self->ctl_addr, ipv4_to_text(record.address).c_str());
        gtk_entry_set_text(self->ctl_gateway, ipv4_to_text(record.gateway).c_str());
        gtk_entry_set_text(self->ctl_subnet, ipv4_to_text(record.mask).c_str());
    }
    report(self, ex, Outcome::NetcfgRead, !parsed, static_cast<guint>(r.length));
}

void main_window_on_netcfg_load(GtkButton* button, MainWindow* self)
{
    (void)button;
    g_return_if_fail(self != NULL);
    g_return_if_fail(!self->busy);
    g_info("main_win:22: loading net config");
    start_exchange(self, N_("Reading the network settings…"), {{net_read_frame(), net_reply_capacity}},
                   new Click{netcfg_loaded});
}

static void entry_octets(MainWindow* self, GtkEntry* entry, guint8 octets[4])
{
    gsize len = 0;
    guint8* bytes = ip_str_to_bytes(self, gtk_entry_get_text(entry), &len);
    if (bytes != NULL && len == 4)
        memcpy(octets, bytes, 4);
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

// The fields that the printer reports otherwise than they were sent, in the
// page's order, with the printer's values; empty when all match.
static std::string differences(const NetRecord& sent, const NetRecord& reported)
{
    // By NetField: address, subnet mask, gateway.
    static const char* const formats[] = {N_("IP address %s"), N_("subnet mask %s"), N_("gateway %s")};
    std::string out;
    for (NetField field : net_differences(sent, reported)) {
        gchar* item = field == NetField::Dhcp
                          ? g_strdup(reported.dhcp != 0 ? _("DHCP on") : _("DHCP off"))
                          : g_strdup_printf(_(formats[static_cast<int>(field)]),
                                            ipv4_to_text(net_field_octets(reported, field)).c_str());
        out += (out.empty() ? "" : ", ") + std::string(item);
        g_free(item);
    }
    return out;
}

// What the check says of the page as it stands.
static NetFindings check_page(MainWindow* self)
{
    return netcheck(gtk_toggle_button_get_active(GTK_TOGGLE_BUTTON(self->ctl_dhcp)), gtk_entry_get_text(self->ctl_addr),
                    gtk_entry_get_text(self->ctl_subnet), gtk_entry_get_text(self->ctl_gateway));
}

// The entry a finding is about, by its place in the page's order.
static GtkEntry* entry_of(MainWindow* self, size_t field)
{
    GtkEntry* const entries[] = {self->ctl_addr, self->ctl_subnet, self->ctl_gateway};
    return entries[field];
}

// The findings of one level, in the page's order, each after a space.
static std::string sentences_of(const NetFindings& findings, Level level)
{
    std::string out;
    for (const auto& f : findings.entries)
        if (f && f->level == level)
            out += " " + f->sentence;
    return out;
}

// The protocol has no acknowledgement: what the printer reads back after the
// write tells whether it took the settings.
static void netcfg_saved(MainWindow* self, const Click& click, const ExchangeResult& ex)
{
    if (ex.failed) {
        report(self, ex, Outcome::NetcfgSent, false, 0);
        return;
    }
    const TransferResult& back = ex.transfers[1];
    std::string text = status_sentence(Outcome::NetcfgSent, ex.printer) + " ";
    bool doubtful = true;
    NetRecord reported;
    if (!back.ran) {  // the printer has no way back
        text += _("It cannot report them back: its USB interface only takes data.");
    } else if (back.read_code != 0 || !net_record_parse(back.reply.data(), static_cast<gsize>(back.length), &reported)) {
        text += _("It did not report them back.");
    } else {
        const std::string others = differences(click.record, reported);
        gchar* sentence = g_strdup_printf(_("It reports other settings: %s."), others.c_str());
        doubtful = !others.empty();
        text += doubtful ? sentence : _("It reports them back as sent.");
        g_free(sentence);
    }
    doubtful = doubtful || !click.notes.empty();
    status_line_show(self->ctl_status, doubtful ? Mark::Warning : Mark::None, text + click.notes);
}

void main_window_on_netcfg_save(GtkButton* button, MainWindow* self)
{
    (void)button;
    g_return_if_fail(self != NULL);
    g_return_if_fail(!self->busy);
    g_info("main_win:48: saving net config");

    // Settings that would leave the printer unreachable never go out.
    const NetFindings findings = check_page(self);
    if (findings.has_error()) {
        status_line_show(self->ctl_status, Mark::Error,
                         _("Nothing was sent to the printer:") + sentences_of(findings, Level::Error));
        for (size_t i = 0; i < findings.entries.size(); ++i)
            if (findings.entries[i] && findings.entries[i]->level == Level::Error) {
                gtk_widget_grab_focus(GTK_WIDGET(entry_of(self, i)));
                break;
            }
        return;
    }

    // The entries stay editable during the exchange: what is said of them is decided now.
    Click* click = new Click{netcfg_saved};
    NetRecord& r = click->record;
    r.dhcp = gtk_toggle_button_get_active(GTK_TOGGLE_BUTTON(self->ctl_dhcp)) ? 1 : 0;
    entry_octets(self, self->ctl_addr, r.address);
    entry_octets(self, self->ctl_gateway, r.gateway);
    entry_octets(self, self->ctl_subnet, r.mask);
    click->notes = r.dhcp != 0 ? zeroed_fields(self) : sentences_of(findings, Level::Warning);
    start_exchange(self, N_("Sending the network settings…"),
                   {{net_write_frame(r.dhcp != 0, r.address, r.gateway, r.mask), 0},
                    {net_read_frame(), net_reply_capacity}},
                   click);
}

// The job log as the list shows it, made in the worker, away from the main
// loop: the parse and each record's local time in words.
struct LogRecord {
    guint32 time;
    std::string text;
};

struct LogRows {
    JobLog log;
    std::vector<LogRecord> records;
};

static std::any log_rows(const ExchangeResult& ex)
{
    LogRows rows;
    if (!ex.sent)
        return rows;
    rows.log = job_log_parse(ex.transfers[0].reply, ex.transfers[0].length);
    for (const guint32 t : rows.log.times) {
        GDateTime* moment = g_date_time_new_from_unix_local(t);
        gchar* text = g_date_time_format(moment, "%F %T");
        rows.records.push_back({t, text});
        g_free(text);
        g_date_time_unref(moment);
    }
    return rows;
}

static void log_loaded(MainWindow* self, const Click& click, const ExchangeResult& ex)
{
    (void)click;
    const TransferResult& r = ex.transfers[0];
    const LogRows* rows = std::any_cast<LogRows>(&ex.digest);
    g_return_if_fail(rows != nullptr);
    // Filled before the list shows it: one model change, not one per row.
    GtkListStore* store = gtk_list_store_new(2, G_TYPE_STRING, G_TYPE_STRING);
    if (ex.sent) {
        g_info("main_win:75: read %u bytes", static_cast<guint>(r.length));
        if (rows->log.usable) {
            g_info("main_win:78: %u records", rows->log.count);
            for (const LogRecord& record : rows->records) {
                g_info("main_win:84: %u => %s", record.time, record.text.c_str());
                gtk_list_store_insert_with_values(store, NULL, -1, 0, record.text.c_str(), 1, "start job", -1);
            }
        }
    }
    // Also on failure: a load that finds nothing empties the list.
    gtk_tree_view_set_model(self->ctl_log_view, GTK_TREE_MODEL(store));
    g_object_unref(store);
    const guint count = static_cast<guint>(rows->records.size());
    report(self, ex, count > 0 ? Outcome::JobsRead : Outcome::JobLogEmpty, r.length <= 3,
           r.length <= 3 ? static_cast<guint>(r.length) : count);
}

void main_window_on_log_load(GtkButton* button, MainWindow* self)
{
    (void)button;
    g_return_if_fail(self != NULL);
    g_return_if_fail(!self->busy);
    g_info("main_win:65: loading log");
    start_exchange(self, N_("Reading the job log…"), {{log_read_frame(), log_reply_capacity}},
                   new Click{log_loaded}, log_rows);
}

void main_window_on_log_trigger(GtkButton* button, MainWindow* self)
{
    (void)button;
    g_return_if_fail(self != NULL);
    g_return_if_fail(!self->busy);
    g_info("main_win:107: trigger timestamp");

    // Taken before the device search, so the frame carries the moment of the click.
    const guint32 now = static_cast<guint32>(g_get_real_time() / G_USEC_PER_SEC);
    g_info("main_win:111: timestamp: %u", now);
    start_exchange(self, N_("Sending the time…"), {{log_trigger_frame(now), 0}}, new Click{written, Outcome::TimeSent});
}

void main_window_on_log_reset(GtkButton* button, MainWindow* self)
{
    (void)button;
    g_return_if_fail(self != NULL);
    g_return_if_fail(!self->busy);
    g_info("main_win:95: reset log");
    start_exchange(self, N_("Clearing the job log…"), {{log_reset_frame(), 0}},
                   new Click{written, Outcome::LogCleared});
}

gboolean main_window_get_busy(MainWindow* self)
{
    g_return_val_if_fail(MAIN_IS_WINDOW(self), FALSE);
    return self->busy;
}

// udev's news: the status line says what came and went. An exchange cut short
// by an unplug has said the same words already, with its mark; udev's event
// may come after it, and then adds nothing.
static void show_news(MainWindow* self, Outcome news, const Printer* p)
{
    const std::string sentence = status_sentence(news, printer_name(p->serial, p->vid, p->pid));
    if (sentence != status_line_get_text(self->ctl_status))
        status_line_show(self->ctl_status, Mark::None, sentence);
}

static void main_window_on_printer_added(PrinterList* list, const Printer* p, MainWindow* self)
{
    (void)list;
    show_news(self, Outcome::Connected, p);
}

static void main_window_on_printer_removed(PrinterList* list, const Printer* p, MainWindow* self)
{
    (void)list;
    show_news(self, Outcome::Disconnected, p);
}

// Each entry shows what the check says of it, to the eye (the icon and its
// tooltip) and to a screen reader (the entry's description); any edit of the
// page can change what is said of every entry.
static void mark_entries(MainWindow* self)
{
    const NetFindings findings = check_page(self);
    for (size_t i = 0; i < findings.entries.size(); ++i) {
        const auto& f = findings.entries[i];
        GtkEntry* entry = entry_of(self, i);
        const char* icon = !f ? NULL : f->level == Level::Error ? "dialog-error" : "dialog-warning";
        gtk_entry_set_icon_from_icon_name(entry, GTK_ENTRY_ICON_SECONDARY, icon);
        gtk_entry_set_icon_tooltip_text(entry, GTK_ENTRY_ICON_SECONDARY, f ? f->sentence.c_str() : NULL);
        atk_object_set_description(gtk_widget_get_accessible(GTK_WIDGET(entry)), f ? f->sentence.c_str() : "");
    }
}

// The window is gated by the password: one attempt, and a wrong one ends the program.
static void main_window_on_show(GtkWidget* widget, MainWindow* self)
{
    (void)widget;
    g_return_if_fail(self != NULL);

    gtk_widget_hide(GTK_WIDGET(self->ctl_trigger));
    gtk_widget_hide(GTK_WIDGET(self->ctl_reset));

    if (!passwd_dialog_ask(GTK_WINDOW(self))) {
        GtkWidget* message = gtk_message_dialog_new(GTK_WINDOW(self), GTK_DIALOG_MODAL, GTK_MESSAGE_WARNING,
                                                    GTK_BUTTONS_OK, "%s", _("Invalid password!"));
        gtk_dialog_run(GTK_DIALOG(message));
        gtk_widget_destroy(message);
        gtk_window_close(GTK_WINDOW(self));
    } else {
        self->unlocked = TRUE;
        update_sensitivity(self);
    }
}

static void main_window_dispose(GObject* object)
{
    MainWindow* self = MAIN_WINDOW(object);
    // An exchange under way still ends and releases the printer; its result is dropped.
    if (self->closing != NULL)
        g_cancellable_cancel(self->closing);
    g_clear_object(&self->closing);
    g_clear_weak_pointer(&self->focus);
    // GTK's notebook page accessibles ask the notebook for the tab label of a
    // page already removed, a critical for each page; without tabs they do not ask.
    if (self->notebook != NULL)
        gtk_notebook_set_show_tabs(self->notebook, FALSE);
    G_OBJECT_CLASS(main_window_parent_class)->dispose(object);
}

static void main_window_class_init(MainWindowClass* klass)
{
    GtkWidgetClass* widget_class = GTK_WIDGET_CLASS(klass);
    G_OBJECT_CLASS(klass)->dispose = main_window_dispose;

    // Built by the template.
    g_type_ensure(PRINTER_TYPE_CHOOSER);
    g_type_ensure(STATUS_TYPE_LINE);
    gtk_widget_class_set_template_from_resource(widget_class, "/main_win.ui");
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_addr);
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_subnet);
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_gateway);
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_dhcp);
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_log_view);
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_trigger);
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_reset);
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_netcfg_load);
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_netcfg_save);
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_log_load);
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_printer);
    gtk_widget_class_bind_template_child(widget_class, MainWindow, notebook);
    gtk_widget_class_bind_template_child(widget_class, MainWindow, ctl_status);

    gtk_widget_class_bind_template_callback_full(widget_class, "gtk_main_quit", G_CALLBACK(gtk_main_quit));
    gtk_widget_class_bind_template_callback_full(widget_class, "on_show", G_CALLBACK(main_window_on_show));
    gtk_widget_class_bind_template_callback_full(widget_class, "on_netcfg_load", G_CALLBACK(main_window_on_netcfg_load));
    gtk_widget_class_bind_template_callback_full(widget_class, "on_netcfg_save", G_CALLBACK(main_window_on_netcfg_save));
    gtk_widget_class_bind_template_callback_full(widget_class, "on_log_load", G_CALLBACK(main_window_on_log_load));
    gtk_widget_class_bind_template_callback_full(widget_class, "on_log_trigger", G_CALLBACK(main_window_on_log_trigger));
    gtk_widget_class_bind_template_callback_full(widget_class, "on_log_reset", G_CALLBACK(main_window_on_log_reset));
}

// The list measures no row, which for a full printer cost more than all the
// rest: each column is as wide as its widest text (or its header), as a
// sample row measures it, and every row as high as the first. Measured again
// when the style, and so the font, changes.
static void size_log_columns(GtkWidget* view, gpointer user_data)
{
    (void)user_data;
    GtkListStore* sample = gtk_list_store_new(2, G_TYPE_STRING, G_TYPE_STRING);
    GtkTreeIter row;
    gtk_list_store_insert_with_values(sample, &row, -1, 0, "0000-00-00 00:00:00", 1, "start job", -1);
    gint separator = 0;
    gtk_widget_style_get(view, "horizontal-separator", &separator, NULL);
    for (guint i = 0; i < gtk_tree_view_get_n_columns(GTK_TREE_VIEW(view)); ++i) {
        GtkTreeViewColumn* column = gtk_tree_view_get_column(GTK_TREE_VIEW(view), static_cast<gint>(i));
        gtk_tree_view_column_cell_set_cell_data(column, GTK_TREE_MODEL(sample), &row, FALSE, FALSE);
        gint cell = 0, header = 0;
        gtk_tree_view_column_cell_get_size(column, NULL, NULL, NULL, &cell, NULL);
        gtk_widget_get_preferred_width(gtk_tree_view_column_get_button(column), NULL, &header);
        const gint width = MAX(cell + separator, header);
        if (gtk_tree_view_column_get_fixed_width(column) != width)
            gtk_tree_view_column_set_fixed_width(column, width);
    }
    g_object_unref(sample);
}

static void main_window_init(MainWindow* self)
{
    gtk_widget_init_template(GTK_WIDGET(self));
    update_sensitivity(self);  // locked until the password is accepted

    // One renderer shared by both columns; the columns hold their own references.
    GtkCellRenderer* renderer = gtk_cell_renderer_text_new();
    g_object_ref_sink(renderer);
    gtk_tree_view_insert_column_with_attributes(self->ctl_log_view, -1, _("Time"), renderer, "text", 0, NULL);
    gtk_tree_view_insert_column_with_attributes(self->ctl_log_view, -1, _("Event"), renderer, "text", 1, NULL);
    g_object_unref(renderer);
    for (gint i = 0; i < 2; ++i)
        gtk_tree_view_column_set_sizing(gtk_tree_view_get_column(self->ctl_log_view, i), GTK_TREE_VIEW_COLUMN_FIXED);
    gtk_tree_view_set_fixed_height_mode(self->ctl_log_view, TRUE);
    size_log_columns(GTK_WIDGET(self->ctl_log_view), NULL);
    g_signal_connect(self->ctl_log_view, "style-updated", G_CALLBACK(size_log_columns), NULL);

    for (GtkEntry* entry : {self->ctl_addr, self->ctl_subnet, self->ctl_gateway})
        g_signal_connect_swapped(entry, "changed", G_CALLBACK(mark_entries), self);
    g_signal_connect_swapped(self->ctl_dhcp, "toggled", G_CALLBACK(mark_entries), self);
    mark_entries(self);

    self->closing = g_cancellable_new();
    PrinterList* printers = printer_chooser_get_printers(self->ctl_printer);
    g_signal_connect_object(printers, "added", G_CALLBACK(main_window_on_printer_added), self, static_cast<GConnectFlags>(0));
    g_signal_connect_object(printers, "removed", G_CALLBACK(main_window_on_printer_removed), self, static_cast<GConnectFlags>(0));
    if (printer_list_get_printers(printers)->empty()) {
        ExchangeRequest request;
        printer_chooser_fill_request(self->ctl_printer, request);
        const ExchangeResult none = exchange_no_printer(request);
        status_line_show(self->ctl_status, Mark::None, status_sentence(none.failure, none.printer, none.text));
    }
}

MainWindow* main_window_new(void)
{
    return static_cast<MainWindow*>(g_object_new(MAIN_TYPE_WINDOW, NULL));
}
