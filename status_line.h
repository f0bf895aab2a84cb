// The line at the bottom of the window: what the last click, plug or unplug
// came to, in a sentence that wraps rather than being cut short, with a mark
// after a failure or a warning and a spinner while an exchange runs. Each
// outcome is an info bar of its type that shows anew, and an announcement.
#pragma once

#include "exchange.h"

#include <gtk/gtk.h>

#include <string>

G_BEGIN_DECLS

#define STATUS_TYPE_LINE (status_line_get_type())
G_DECLARE_FINAL_TYPE(StatusLine, status_line, STATUS, LINE, GtkBox)

StatusLine* status_line_new(void);
const gchar* status_line_get_text(StatusLine* self);
// The spinner: on while an exchange runs, whatever the sentence.
void status_line_set_busy(StatusLine* self, gboolean busy);

G_END_DECLS

enum class Mark { None, Warning, Error };

// An outcome: shown, and spoken by screen readers.
void status_line_show(StatusLine* self, Mark mark, const std::string& text);
// A sentence while an exchange runs: shown, not spoken one by one.
void status_line_show_progress(StatusLine* self, const std::string& text);

// The sentence for an outcome, given the printer's name and then libusb's
// text, or for a plural pair a count.
std::string status_sentence(Outcome outcome, const std::string& printer, const std::string& text = "",
                            guint count = 0);
