#include "printer_chooser.h"

#include "i18n.h"

struct _PrinterChooser {
    GtkComboBoxText parent_instance;
    PrinterList* printers;
    std::string* port;  // the choice; empty for the first printer found
    Printer* chosen;    // the printer last seen at port, to name it while it is away
    bool refreshing;    // the items are being rebuilt: no choice is made
};

G_DEFINE_TYPE(PrinterChooser, printer_chooser, GTK_TYPE_COMBO_BOX_TEXT)

static std::string item_label(const Printer& p, const char* mark = NULL)
{
    const std::string label = printer_label(p);
    if (mark == NULL)
        return label;
    gchar* text = g_strdup_printf(mark, label.c_str());
    std::string out(text);
    g_free(text);
    return out;
}

static bool chosen_is_away(PrinterChooser* self)
{
    return !self->port->empty() && printer_list_find_port(self->printers, *self->port) == NULL;
}

// The items: the first printer found, every printer attached, and last the
// chosen printer while it is away.
static void refresh(PrinterList* list, PrinterChooser* self)
{
    (void)list;
    GtkComboBoxText* combo = GTK_COMBO_BOX_TEXT(self);
    self->refreshing = true;
    gtk_combo_box_text_remove_all(combo);
    gtk_combo_box_text_append(combo, "", _("First printer found"));
    for (const Printer& p : *printer_list_get_printers(self->printers)) {
        gtk_combo_box_text_append(combo, p.port.c_str(),
                                  item_label(p, p.may_open ? NULL : _("%s — no permission")).c_str());
        if (p.port == *self->port)
            *self->chosen = p;
    }
    if (chosen_is_away(self))
        gtk_combo_box_text_append(combo, self->port->c_str(), item_label(*self->chosen, _("%s — not connected")).c_str());
    gtk_combo_box_set_active_id(GTK_COMBO_BOX(combo), self->port->c_str());
    self->refreshing = false;
}

static void printer_chooser_changed(GtkComboBox* combo)
{
    PrinterChooser* self = PRINTER_CHOOSER(combo);
    const gchar* id = gtk_combo_box_get_active_id(combo);
    const std::string port = id != NULL ? id : "";
    if (!self->refreshing && port != *self->port) {
        // Choosing another printer lets the one that is away go from the list.
        if (chosen_is_away(self))
            gtk_combo_box_text_remove(GTK_COMBO_BOX_TEXT(combo),
                                      static_cast<gint>(printer_list_get_printers(self->printers)->size()) + 1);
        *self->port = port;
        if (const Printer* p = printer_list_find_port(self->printers, port))
            *self->chosen = *p;
    }
    if (GTK_COMBO_BOX_CLASS(printer_chooser_parent_class)->changed != NULL)
        GTK_COMBO_BOX_CLASS(printer_chooser_parent_class)->changed(combo);
}

void printer_chooser_fill_request(PrinterChooser* self, ExchangeRequest& request)
{
    g_return_if_fail(PRINTER_IS_CHOOSER(self));
    request.port = *self->port;
    request.chosen = *self->chosen;
    request.attached = *printer_list_get_printers(self->printers);
    request.unusable = *printer_list_get_unusable(self->printers);
}

PrinterList* printer_chooser_get_printers(PrinterChooser* self)
{
    g_return_val_if_fail(PRINTER_IS_CHOOSER(self), NULL);
    return self->printers;
}

static void printer_chooser_dispose(GObject* object)
{
    PrinterChooser* self = PRINTER_CHOOSER(object);
    if (self->printers != NULL)
        g_signal_handlers_disconnect_by_data(self->printers, self);
    g_clear_object(&self->printers);
    G_OBJECT_CLASS(printer_chooser_parent_class)->dispose(object);
}

static void printer_chooser_finalize(GObject* object)
{
    PrinterChooser* self = PRINTER_CHOOSER(object);
    delete self->port;
    delete self->chosen;
    G_OBJECT_CLASS(printer_chooser_parent_class)->finalize(object);
}

// The combo box's model exists only once it is constructed.
static void printer_chooser_constructed(GObject* object)
{
    G_OBJECT_CLASS(printer_chooser_parent_class)->constructed(object);
    PrinterChooser* self = PRINTER_CHOOSER(object);
    self->printers = printer_list_new();
    g_signal_connect(self->printers, "changed", G_CALLBACK(refresh), self);
    refresh(self->printers, self);
}

static void printer_chooser_class_init(PrinterChooserClass* klass)
{
    G_OBJECT_CLASS(klass)->constructed = printer_chooser_constructed;
    G_OBJECT_CLASS(klass)->dispose = printer_chooser_dispose;
    G_OBJECT_CLASS(klass)->finalize = printer_chooser_finalize;
    GTK_COMBO_BOX_CLASS(klass)->changed = printer_chooser_changed;
}

static void printer_chooser_init(PrinterChooser* self)
{
    self->port = new std::string();
    self->chosen = new Printer();
}

PrinterChooser* printer_chooser_new(void)
{
    return PRINTER_CHOOSER(g_object_new(PRINTER_TYPE_CHOOSER, NULL));
}
