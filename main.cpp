#include "COMMON/plog_ex.h"
#include "main_win.h"

#include <gtk/gtk.h>

#include <cstdio>

int main(int argc, char* argv[])
{
    init_plog(nullptr);

    // --help (GTK's own options included) and --version work without a display.
    gboolean version = FALSE;
    const GOptionEntry options[] = {
        {"version", 0, 0, G_OPTION_ARG_NONE, &version, "Print the version and exit", NULL},
        {NULL, 0, 0, G_OPTION_ARG_NONE, NULL, NULL, NULL},
    };
    GError* error = NULL;
    const gboolean ready = gtk_init_with_args(&argc, &argv, "- network settings and job log of a USB printer",
                                              options, "Pellavoy", &error);
    if (version) {
        printf("pellavoy %s\n", PELLAVOY_VERSION);
        g_clear_error(&error);
        return 0;
    }
    // GTK reports a display it cannot open as G_OPTION_ERROR_FAILED.
    if (!ready && error != NULL && error->domain == G_OPTION_ERROR && error->code != G_OPTION_ERROR_FAILED) {
        fprintf(stderr, "pellavoy: %s (try 'pellavoy --help')\n", error->message);
        g_clear_error(&error);
        return 2;
    }
    if (!ready) {
        const char* display = gdk_get_display_arg_name() != NULL ? gdk_get_display_arg_name() : g_getenv("DISPLAY");
        if (display != NULL && display[0] != '\0')
            fprintf(stderr, "pellavoy: cannot open display %s: check that the graphical session is running\n", display);
        else
            fprintf(stderr, "pellavoy: no display (DISPLAY is not set): start Pellavoy from a graphical session\n");
        g_clear_error(&error);
        return 1;
    }

    MainWindow* win = main_window_new();
    g_object_ref_sink(win);
    gtk_widget_show_all(GTK_WIDGET(win));
    gtk_main();
    // A window closed mid-exchange: the printer is released before the program ends.
    while (main_window_get_busy(win))
        g_main_context_iteration(NULL, TRUE);
    g_object_unref(win);
    return 0;
}
