#include "COMMON/plog_ex.h"
#include "main_win.h"

#include <gtk/gtk.h>

int main(int argc, char* argv[])
{
    init_plog(nullptr);
    gtk_init(&argc, &argv);

    MainWindow* win = main_window_new();
    g_object_ref_sink(win);
    gtk_widget_show_all(GTK_WIDGET(win));
    gtk_main();
    g_object_unref(win);
    return 0;
}
