// The yardstick for Pellavoy's start-up: a bare GTK 3 program with the same
// widgets (chooser, notebook with both pages, status line, and the password
// popup run modally over the window), but no logger, no udev and no templates.
#include <gtk/gtk.h>

static GtkWidget* labelled_entry(GtkGrid* grid, const char* label, int row)
{
    GtkWidget* entry = gtk_entry_new();
    gtk_grid_attach(grid, gtk_label_new(label), 0, row, 1, 1);
    gtk_grid_attach(grid, entry, 1, row, 1, 1);
    return entry;
}

static void on_show(GtkWidget* window, gpointer)
{
    GtkWidget* dialog = GTK_WIDGET(g_object_new(GTK_TYPE_DIALOG, "type", GTK_WINDOW_POPUP, "modal", TRUE, NULL));
    GtkWidget* row = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 0);
    GtkWidget* entry = gtk_entry_new();
    gtk_entry_set_visibility(GTK_ENTRY(entry), FALSE);
    gtk_box_pack_start(GTK_BOX(row), gtk_label_new("Input password:"), FALSE, TRUE, 0);
    gtk_box_pack_start(GTK_BOX(row), entry, FALSE, TRUE, 0);
    gtk_box_pack_start(GTK_BOX(gtk_dialog_get_content_area(GTK_DIALOG(dialog))), row, FALSE, TRUE, 0);
    gtk_dialog_add_button(GTK_DIALOG(dialog), "Ok", GTK_RESPONSE_OK);
    gtk_window_set_transient_for(GTK_WINDOW(dialog), GTK_WINDOW(window));
    gtk_widget_show_all(dialog);
    gtk_dialog_run(GTK_DIALOG(dialog));
    gtk_widget_destroy(dialog);
}

int main(int argc, char** argv)
{
    gtk_init(&argc, &argv);
    GtkWidget* window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    gtk_window_set_default_size(GTK_WINDOW(window), 400, 600);
    GtkWidget* content = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
    GtkWidget* chooser_row = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 4);
    GtkWidget* chooser = gtk_combo_box_text_new();
    gtk_combo_box_text_append(GTK_COMBO_BOX_TEXT(chooser), "", "First printer found");
    gtk_combo_box_set_active(GTK_COMBO_BOX(chooser), 0);
    gtk_box_pack_start(GTK_BOX(chooser_row), gtk_label_new("Printer:"), FALSE, TRUE, 0);
    gtk_box_pack_start(GTK_BOX(chooser_row), chooser, TRUE, TRUE, 0);
    gtk_box_pack_start(GTK_BOX(content), chooser_row, FALSE, TRUE, 0);

    GtkWidget* notebook = gtk_notebook_new();
    GtkWidget* net = gtk_box_new(GTK_ORIENTATION_VERTICAL, 4);
    GtkWidget* grid = gtk_grid_new();
    labelled_entry(GTK_GRID(grid), "IP address:", 0);
    labelled_entry(GTK_GRID(grid), "Subnet mask:", 1);
    labelled_entry(GTK_GRID(grid), "Gateway:", 2);
    gtk_grid_attach(GTK_GRID(grid), gtk_check_button_new_with_label("DHCP"), 0, 3, 1, 1);
    GtkWidget* net_buttons = gtk_button_box_new(GTK_ORIENTATION_HORIZONTAL);
    gtk_container_add(GTK_CONTAINER(net_buttons), gtk_button_new_with_label("Load"));
    gtk_container_add(GTK_CONTAINER(net_buttons), gtk_button_new_with_label("Save"));
    gtk_box_pack_start(GTK_BOX(net), grid, FALSE, TRUE, 0);
    gtk_box_pack_start(GTK_BOX(net), net_buttons, FALSE, TRUE, 0);
    gtk_notebook_append_page(GTK_NOTEBOOK(notebook), net, gtk_label_new("Network Settings"));

    GtkWidget* log = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
    GtkWidget* view = gtk_tree_view_new();
    GtkCellRenderer* renderer = gtk_cell_renderer_text_new();
    gtk_tree_view_insert_column_with_attributes(GTK_TREE_VIEW(view), -1, "Time", renderer, "text", 0, NULL);
    gtk_tree_view_insert_column_with_attributes(GTK_TREE_VIEW(view), -1, "Event", renderer, "text", 1, NULL);
    GtkWidget* log_buttons = gtk_button_box_new(GTK_ORIENTATION_HORIZONTAL);
    gtk_container_add(GTK_CONTAINER(log_buttons), gtk_button_new_with_label("Load"));
    gtk_box_pack_start(GTK_BOX(log), view, TRUE, TRUE, 0);
    gtk_box_pack_start(GTK_BOX(log), log_buttons, FALSE, TRUE, 0);
    gtk_notebook_append_page(GTK_NOTEBOOK(notebook), log, gtk_label_new("Log"));
    gtk_box_pack_start(GTK_BOX(content), notebook, TRUE, TRUE, 0);
    // The status line: an icon, a spinner and a wrapping, selectable label.
    GtkWidget* status = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 6);
    GtkWidget* sentence = gtk_label_new("");
    gtk_label_set_line_wrap(GTK_LABEL(sentence), TRUE);
    gtk_label_set_selectable(GTK_LABEL(sentence), TRUE);
    gtk_box_pack_start(GTK_BOX(status), gtk_image_new(), FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(status), gtk_spinner_new(), FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(status), sentence, TRUE, TRUE, 0);
    gtk_box_pack_start(GTK_BOX(content), status, FALSE, TRUE, 0);
    gtk_container_add(GTK_CONTAINER(window), content);

    g_signal_connect(window, "show", G_CALLBACK(on_show), NULL);
    g_signal_connect(window, "destroy", G_CALLBACK(gtk_main_quit), NULL);
    gtk_widget_show_all(window);
    gtk_main();
    return 0;
}
