#pragma once

#include <gtk/gtk.h>

G_BEGIN_DECLS

#define PASSWD_TYPE_DIALOG (passwd_dialog_get_type())
G_DECLARE_FINAL_TYPE(PasswdDialog, passwd_dialog, PASSWD, DIALOG, GtkDialog)

PasswdDialog* passwd_dialog_new(void);
gboolean passwd_dialog_get_is_ok(PasswdDialog* self);
void passwd_dialog_set_is_ok(PasswdDialog* self, gboolean value);
// Runs the dialog modally over parent, once, and says whether the password was right.
gboolean passwd_dialog_ask(GtkWindow* parent);

G_END_DECLS
