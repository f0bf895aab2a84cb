#include "passwd_dlg.h"

#include <string.h>

// The one access password; compared whole and case-sensitively.
static const char access_password[] = "724918";

enum { PROP_0, PROP_IS_OK, N_PROPS };

struct _PasswdDialog {
    GtkDialog parent_instance;
    GtkEntry* ctl_passwd;
};

struct PasswdDialogPrivate {
    gboolean _is_ok;
};

G_DEFINE_TYPE_WITH_PRIVATE(PasswdDialog, passwd_dialog, GTK_TYPE_DIALOG)

static GParamSpec* props[N_PROPS];

gboolean passwd_dialog_get_is_ok(PasswdDialog* self)
{
    g_return_val_if_fail(self != NULL, FALSE);
    auto* priv = static_cast<PasswdDialogPrivate*>(passwd_dialog_get_instance_private(self));
    return priv->_is_ok;
}

void passwd_dialog_set_is_ok(PasswdDialog* self, gboolean value)
{
    g_return_if_fail(self != NULL);
    auto* priv = static_cast<PasswdDialogPrivate*>(passwd_dialog_get_instance_private(self));
    value = value != FALSE;
    if (priv->_is_ok == value)
        return;
    priv->_is_ok = value;
    g_object_notify_by_pspec(G_OBJECT(self), props[PROP_IS_OK]);
}

// One attempt only: whatever the response, the dialog closes and the caller
// reads is-ok.
static void on_response(GtkDialog* source, gint response_id, PasswdDialog* self)
{
    g_return_if_fail(self != NULL);
    g_return_if_fail(source != NULL);

    if (response_id == GTK_RESPONSE_OK && strcmp(gtk_entry_get_text(self->ctl_passwd), access_password) == 0)
        passwd_dialog_set_is_ok(self, TRUE);
    g_signal_emit_by_name(source, "close");
}

static void passwd_dialog_get_property(GObject* object, guint prop_id, GValue* value, GParamSpec* pspec)
{
    switch (prop_id) {
    case PROP_IS_OK:
        g_value_set_boolean(value, passwd_dialog_get_is_ok(PASSWD_DIALOG(object)));
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
    }
}

static void passwd_dialog_set_property(GObject* object, guint prop_id, const GValue* value, GParamSpec* pspec)
{
    switch (prop_id) {
    case PROP_IS_OK:
        passwd_dialog_set_is_ok(PASSWD_DIALOG(object), g_value_get_boolean(value));
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
    }
}

static void passwd_dialog_class_init(PasswdDialogClass* klass)
{
    GObjectClass* object_class = G_OBJECT_CLASS(klass);
    GtkWidgetClass* widget_class = GTK_WIDGET_CLASS(klass);

    object_class->get_property = passwd_dialog_get_property;
    object_class->set_property = passwd_dialog_set_property;

    // EXPLICIT_NOTIFY: only a real change notifies.
    props[PROP_IS_OK] = g_param_spec_boolean("is-ok", "is-ok", "is-ok", FALSE,
        static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | G_PARAM_EXPLICIT_NOTIFY));
    g_object_class_install_properties(object_class, N_PROPS, props);

    gtk_widget_class_set_template_from_resource(widget_class, "/passwd_dlg.ui");
    gtk_widget_class_bind_template_child(widget_class, PasswdDialog, ctl_passwd);
    gtk_widget_class_bind_template_callback(widget_class, on_response);
}

static void passwd_dialog_init(PasswdDialog* self)
{
    gtk_widget_init_template(GTK_WIDGET(self));
}

PasswdDialog* passwd_dialog_new(void)
{
    // The window type is fixed at construction: the template cannot set it.
    auto* self = static_cast<PasswdDialog*>(g_object_new(PASSWD_TYPE_DIALOG, "type", GTK_WINDOW_POPUP, NULL));
    passwd_dialog_set_is_ok(self, FALSE);
    return self;
}

gboolean passwd_dialog_ask(GtkWindow* parent)
{
    g_return_val_if_fail(GTK_IS_WINDOW(parent), FALSE);
    PasswdDialog* dialog = passwd_dialog_new();
    g_object_ref_sink(dialog);
    gtk_window_set_transient_for(GTK_WINDOW(dialog), parent);
    gtk_dialog_run(GTK_DIALOG(dialog));
    gtk_widget_destroy(GTK_WIDGET(dialog));
    gboolean is_ok = FALSE;
    g_object_get(dialog, "is-ok", &is_ok, NULL);
    g_object_unref(dialog);
    return is_ok;
}
