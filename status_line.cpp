#include "status_line.h"

#include "i18n.h"

struct _StatusLine {
    GtkBox parent_instance;
    GtkInfoBar* bar;  // holds the rest; shown anew for each outcome
    GtkImage* icon;
    GtkSpinner* spinner;
    GtkLabel* label;
};

G_DEFINE_TYPE(StatusLine, status_line, GTK_TYPE_BOX)

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
    {Outcome::OtherInterface,
     N_("No USB printer that Pellavoy can use: %s has its printer interface on interface %s, and Pellavoy uses "
        "interface 0 only."),
     NULL},
    {Outcome::NotConnected, N_("Printer %s is not connected."), NULL},
    {Outcome::NoWayBack, N_("Printer %s cannot answer: its USB interface only takes data."), NULL},
    {Outcome::OpenDenied,
     N_("Printer %s cannot be opened: permission denied. Install the udev rule (see the README) or run as root."),
     NULL},
    {Outcome::OpenFailed, N_("Printer %s cannot be opened: %s."), NULL},
    {Outcome::Busy, N_("Printer %s is in use by another program."), NULL},
    {Outcome::ReadTimeout, N_("Printer %s did not answer within 1 second."), NULL},
    {Outcome::WriteTimeout, N_("Printer %s did not accept the command within 2 seconds."), NULL},
    {Outcome::Disconnected, N_("Printer %s was disconnected."), NULL},
    {Outcome::Failed, N_("The exchange with printer %s failed: %s."), NULL},
    {Outcome::LongReply, N_("Printer %s sent a longer reply than expected."), NULL},
    {Outcome::BadReply, NP_("Printer %1$s sent an unexpected reply (%2$u byte).",
                            "Printer %1$s sent an unexpected reply (%2$u bytes).")},
};

std::string status_sentence(Outcome outcome, const std::string& printer, const std::string& text, guint count)
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

// The sentence and its mark; the bar's type colours the line and names it on
// the accessibility bus (Information, Warning, Error; nothing while in progress).
static void set_sentence(StatusLine* self, GtkMessageType type, Mark mark, const std::string& text)
{
    gtk_label_set_text(self->label, text.c_str());
    // A screen reader names the mark: the icon alone says nothing to it.
    const char* icon = mark == Mark::Error ? "dialog-error" : mark == Mark::Warning ? "dialog-warning" : NULL;
    const char* name = mark == Mark::Error ? _("Error") : mark == Mark::Warning ? _("Warning") : "";
    gtk_image_set_from_icon_name(self->icon, icon, GTK_ICON_SIZE_BUTTON);
    atk_object_set_name(gtk_widget_get_accessible(GTK_WIDGET(self->icon)), name);
    gtk_widget_set_visible(GTK_WIDGET(self->icon), icon != NULL);
    gtk_info_bar_set_message_type(self->bar, type);
    if (type == GTK_MESSAGE_OTHER)  // GTK leaves the last type's name
        atk_object_set_name(gtk_widget_get_accessible(GTK_WIDGET(self->bar)), "");
}

void status_line_show(StatusLine* self, Mark mark, const std::string& text)
{
    g_return_if_fail(STATUS_IS_LINE(self));
    set_sentence(self, mark == Mark::Error ? GTK_MESSAGE_ERROR : mark == Mark::Warning ? GTK_MESSAGE_WARNING : GTK_MESSAGE_INFO,
                 mark, text);
    // Screen readers speak neither a label whose text changes nor, before
    // Orca 46, an announcement; they do speak an info bar that becomes
    // showing. Hidden and shown in one turn, it is never drawn hidden, and
    // the same outcome twice is spoken twice.
    GtkWidget* label = GTK_WIDGET(self->label);
    const gboolean focused = gtk_widget_has_focus(label);
    gtk_widget_hide(GTK_WIDGET(self->bar));
    gtk_widget_show(GTK_WIDGET(self->bar));
    if (focused)  // hiding took the focus away from the sentence being read
        gtk_widget_grab_focus(label);
    g_signal_emit_by_name(gtk_widget_get_accessible(GTK_WIDGET(self)), "announcement", text.c_str());
}

void status_line_show_progress(StatusLine* self, const std::string& text)
{
    g_return_if_fail(STATUS_IS_LINE(self));
    set_sentence(self, GTK_MESSAGE_OTHER, Mark::None, text);
}

void status_line_set_busy(StatusLine* self, gboolean busy)
{
    g_return_if_fail(STATUS_IS_LINE(self));
    if (busy)
        gtk_spinner_start(self->spinner);
    else
        gtk_spinner_stop(self->spinner);
    gtk_widget_set_visible(GTK_WIDGET(self->spinner), busy);
}

const gchar* status_line_get_text(StatusLine* self)
{
    g_return_val_if_fail(STATUS_IS_LINE(self), NULL);
    return gtk_label_get_text(self->label);
}

static void status_line_class_init(StatusLineClass* klass)
{
    (void)klass;
}

static void status_line_init(StatusLine* self)
{
    gtk_orientable_set_orientation(GTK_ORIENTABLE(self), GTK_ORIENTATION_HORIZONTAL);
    // GtkStatusbar would hide the icon and the spinner from assistive
    // technologies; a box in that role shows them as its children.
    atk_object_set_role(gtk_widget_get_accessible(GTK_WIDGET(self)), ATK_ROLE_STATUSBAR);

    self->bar = GTK_INFO_BAR(gtk_info_bar_new());
    gtk_info_bar_set_message_type(self->bar, GTK_MESSAGE_OTHER);
    GtkBox* content = GTK_BOX(gtk_info_bar_get_content_area(self->bar));
    gtk_box_set_spacing(content, 6);
    gtk_container_set_border_width(GTK_CONTAINER(content), 4);
    gtk_box_pack_start(GTK_BOX(self), GTK_WIDGET(self->bar), TRUE, TRUE, 0);
    gtk_widget_show(GTK_WIDGET(self->bar));

    self->icon = GTK_IMAGE(gtk_image_new());
    self->spinner = GTK_SPINNER(gtk_spinner_new());
    // The whole sentence, wrapped to the window's width, and selectable so
    // that it can be pasted into a support request.
    self->label = GTK_LABEL(gtk_label_new(""));
    gtk_label_set_line_wrap(self->label, TRUE);
    gtk_label_set_line_wrap_mode(self->label, PANGO_WRAP_WORD_CHAR);
    gtk_label_set_selectable(self->label, TRUE);
    gtk_label_set_xalign(self->label, 0);
    gtk_widget_set_hexpand(GTK_WIDGET(self->label), TRUE);
    for (GtkWidget* w : {GTK_WIDGET(self->icon), GTK_WIDGET(self->spinner)}) {
        gtk_widget_set_no_show_all(w, TRUE);  // shown only when there is something to show
        gtk_widget_set_valign(w, GTK_ALIGN_START);
        gtk_box_pack_start(content, w, FALSE, FALSE, 0);
    }
    gtk_box_pack_start(content, GTK_WIDGET(self->label), TRUE, TRUE, 0);
    gtk_widget_show(GTK_WIDGET(self->label));
}

StatusLine* status_line_new(void)
{
    return STATUS_LINE(g_object_new(STATUS_TYPE_LINE, NULL));
}
