#pragma once

#include <gtk/gtk.h>

G_BEGIN_DECLS

#define MAIN_TYPE_WINDOW (main_window_get_type())
G_DECLARE_FINAL_TYPE(MainWindow, main_window, MAIN, WINDOW, GtkApplicationWindow)

MainWindow* main_window_new(void);
// TRUE while a click's exchange with the printer runs in the background.
gboolean main_window_get_busy(MainWindow* self);

// Button handlers, bound by name in the template.
void main_window_on_netcfg_load(GtkButton* button, MainWindow* self);
void main_window_on_netcfg_save(GtkButton* button, MainWindow* self);
void main_window_on_log_load(GtkButton* button, MainWindow* self);
void main_window_on_log_trigger(GtkButton* button, MainWindow* self);
void main_window_on_log_reset(GtkButton* button, MainWindow* self);

// Dotted-decimal IPv4 text to four octets in network order (anything else:
// four zero bytes). The caller frees the result with g_free.
guint8* ip_str_to_bytes(MainWindow* self, const gchar* ip_str, gsize* len);

// The little-endian 32-bit number in the first four bytes.
guint32 bytes_to_num(const guint8* bytes);

G_END_DECLS
