// Times a click on the log page's Load in the real window, in-process on a
// display, until the list has painted the printer's records; and until the
// main loop has nothing left to do (the list's work on rows out of sight).
// Run it under the virtual printer with the job log to read: tools/bench/run
// does, with one record and with a full printer's 511.
// Usage: bench-log-list RECORDS [ROUNDS]
#include "COMMON/plog_ex.h"
#include "main_win.h"
#include "passwd_dlg.h"

#include <gtk/gtk.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

using Clock = std::chrono::steady_clock;

namespace {

struct Round {
    gint rows = 0;
    GtkTreeModel* before = nullptr;  // the list's model at the click, held so no new one takes its place
    Clock::time_point painted, idle;
    bool done = false, late = false;
};

GtkWidget* child_of(MainWindow* win, const char* name)
{
    return GTK_WIDGET(gtk_widget_get_template_child(GTK_WIDGET(win), MAIN_TYPE_WINDOW, name));
}

gboolean answer_password(gpointer)
{
    GList* toplevels = gtk_window_list_toplevels();
    for (GList* l = toplevels; l; l = l->next)
        if (PASSWD_IS_DIALOG(l->data)) {
            GtkDialog* dialog = GTK_DIALOG(l->data);
            GtkWidget* entry = GTK_WIDGET(gtk_widget_get_template_child(GTK_WIDGET(dialog), PASSWD_TYPE_DIALOG, "ctl_passwd"));
            gtk_entry_set_text(GTK_ENTRY(entry), "724918");
            gtk_button_clicked(GTK_BUTTON(gtk_dialog_get_widget_for_response(dialog, GTK_RESPONSE_OK)));
        }
    g_list_free(toplevels);
    return G_SOURCE_REMOVE;
}

// When the main thread had the reply: the window's first line about it.
Clock::time_point reply;

void log_handler(const gchar* domain, GLogLevelFlags level, const gchar* message, gpointer data)
{
    if (g_str_has_prefix(message, "main_win:75:"))
        reply = Clock::now();
    my_glib_log_func(domain, level, message, data);
}

gboolean on_idle(gpointer data)
{
    auto* round = static_cast<Round*>(data);
    round->idle = Clock::now();
    round->done = true;
    return G_SOURCE_REMOVE;
}

// The first drawing of the list that holds the rows: they are painted.
gboolean on_draw(GtkWidget* view, cairo_t*, gpointer data)
{
    auto* round = static_cast<Round*>(data);
    GtkTreeModel* model = gtk_tree_view_get_model(GTK_TREE_VIEW(view));
    if (round->painted == Clock::time_point() && model != NULL && model != round->before &&
        gtk_tree_model_iter_n_children(model, NULL) == round->rows) {
        round->painted = Clock::now();
        g_idle_add_full(G_PRIORITY_LOW, on_idle, round, NULL);
    }
    return FALSE;
}

gboolean on_late(gpointer data)
{
    auto* round = static_cast<Round*>(data);
    round->done = round->late = true;
    return G_SOURCE_REMOVE;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

double ms(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double, std::milli>(to - from).count();
}

}  // namespace

int main(int argc, char** argv)
{
    const int records = argc > 1 ? std::atoi(argv[1]) : 0;
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 20;
    if (records < 1 || rounds < 1) {
        std::fprintf(stderr, "usage: bench-log-list RECORDS [ROUNDS] (under virtual-printer --job-log)\n");
        return 2;
    }
    init_plog(nullptr);  // the log lines cost what they cost in the program
    g_log_set_default_handler(log_handler, nullptr);
    gtk_init(&argc, &argv);

    MainWindow* win = main_window_new();
    g_object_ref_sink(win);
    g_idle_add(answer_password, NULL);
    gtk_widget_show_all(GTK_WIDGET(win));
    gtk_notebook_set_current_page(GTK_NOTEBOOK(child_of(win, "notebook")), 1);
    while (gtk_events_pending())
        gtk_main_iteration();

    GtkWidget* view = child_of(win, "ctl_log_view");
    GtkButton* load = GTK_BUTTON(child_of(win, "ctl_log_load"));
    std::vector<double> painted, idle, replied;
    for (int i = 0; i < rounds + 1; ++i) {  // the first round warms the caches up
        Round round;
        round.rows = records;
        round.before = gtk_tree_view_get_model(GTK_TREE_VIEW(view));
        if (round.before != NULL)
            g_object_ref(round.before);
        const gulong handler = g_signal_connect_after(view, "draw", G_CALLBACK(on_draw), &round);
        const Clock::time_point start = Clock::now();
        gtk_button_clicked(load);
        const guint late = g_timeout_add_seconds(10, on_late, &round);
        while (!round.done)
            gtk_main_iteration();
        g_signal_handler_disconnect(view, handler);
        g_clear_object(&round.before);
        if (round.late) {
            std::fprintf(stderr, "bench-log-list: no %d rows painted within 10 s: is the printer's job log that long?\n",
                         records);
            return 1;
        }
        g_source_remove(late);
        if (i > 0) {
            painted.push_back(ms(start, round.painted));
            idle.push_back(ms(start, round.idle));
            replied.push_back(ms(start, reply));
        }
    }
    std::printf("job log of %d record(s), click to painted rows: median %.1f ms (the reply on the main thread at "
                "%.1f ms); to an idle window: %.1f ms (%d rounds)\n",
                records, median(painted), median(replied), median(idle), rounds);
    return 0;
}
