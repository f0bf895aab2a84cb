// The printer chooser at the top of the window: "First printer found", every
// USB printer udev sees, and the chosen printer while it is away. A choice is
// a USB port: the printer plugged back into it is chosen again, and no other
// printer ever takes its place.
#pragma once

#include "exchange.h"
#include "printer_list.h"

#include <gtk/gtk.h>

G_BEGIN_DECLS

#define PRINTER_TYPE_CHOOSER (printer_chooser_get_type())
G_DECLARE_FINAL_TYPE(PrinterChooser, printer_chooser, PRINTER, CHOOSER, GtkComboBoxText)

PrinterChooser* printer_chooser_new(void);
// The printers it lists; its "added" and "removed" signals tell udev's news.
PrinterList* printer_chooser_get_printers(PrinterChooser* self);

G_END_DECLS

// The printer part of a click's request: the choice now, and what is attached.
void printer_chooser_fill_request(PrinterChooser* self, ExchangeRequest& request);
