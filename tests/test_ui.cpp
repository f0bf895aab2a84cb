// The window and the password dialog in-process, on a real display (Xvfb),
// with an emulated printer for the actions whose buttons never show.
#include "COMMON/plog_ex.h"
#include "main_win.h"
#include "passwd_dlg.h"
#include "protocol.h"
#include "status_line.h"
#include "support.h"
#include "vprinter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <ctime>
#include <libintl.h>
#include <map>

using testing_support::Capture;

namespace {

// A toplevel owned by one test: sunk when made, destroyed and released at the end.
template <typename T>
class Toplevel {
public:
    explicit Toplevel(T* widget) : widget_(static_cast<T*>(g_object_ref_sink(widget))) {}
    Toplevel(const Toplevel&) = delete;
    Toplevel& operator=(const Toplevel&) = delete;
    ~Toplevel()
    {
        gtk_widget_destroy(GTK_WIDGET(widget_));
        g_object_unref(widget_);
    }
    operator T*() const { return widget_; }
    T* get() const { return widget_; }

private:
    T* widget_;
};

GtkEntry* password_entry(PasswdDialog* dialog)
{
    return GTK_ENTRY(gtk_widget_get_template_child(GTK_WIDGET(dialog), PASSWD_TYPE_DIALOG, "ctl_passwd"));
}

// Answers the password dialog as soon as the show handler runs it.
gboolean answer_dialog(gpointer text)
{
    GList* toplevels = gtk_window_list_toplevels();
    for (GList* l = toplevels; l; l = l->next) {
        if (!PASSWD_IS_DIALOG(l->data))
            continue;
        GtkWidget* dialog = GTK_WIDGET(l->data);
        gtk_entry_set_text(password_entry(PASSWD_DIALOG(dialog)), static_cast<const char*>(text));
        gtk_button_clicked(GTK_BUTTON(gtk_dialog_get_widget_for_response(GTK_DIALOG(dialog), GTK_RESPONSE_OK)));
    }
    g_list_free(toplevels);
    return G_SOURCE_REMOVE;
}

GtkWidget* child_of(MainWindow* win, const char* name)
{
    return GTK_WIDGET(gtk_widget_get_template_child(GTK_WIDGET(win), MAIN_TYPE_WINDOW, name));
}

std::string status_text(MainWindow* win)
{
    return status_line_get_text(STATUS_LINE(child_of(win, "ctl_status")));
}

// Runs the main loop until the click's exchange has ended.
void finish_exchange(MainWindow* win)
{
    while (main_window_get_busy(win))
        gtk_main_iteration();
}

// The user interface's own lines ("[I]main_win:..."), without the manager's.
std::vector<std::string> ui_lines(const Capture& log)
{
    std::vector<std::string> out;
    for (const std::string& m : log.messages())
        if (m.rfind("I:[I]", 0) == 0)
            out.push_back(m.substr(2));
    return out;
}

class Ui : public ::testing::Test {
protected:
    void SetUp() override
    {
        log.clear();
        g_log_set_default_handler(my_glib_log_func, nullptr);
    }
    Capture& log = Capture::install();
};

} // namespace

TEST_F(Ui, PasswordDialogAcceptsOnlyTheExactPasswordOnOk)
{
    const int click_ok = 0, press_enter = 1;
    struct Case {
        const char* text;
        int response;  // a click on Ok, Enter in the entry, or a response id
        gboolean is_ok;
    };
    const Case cases[] = {
        {"724918", click_ok, TRUE},
        {"724918 ", click_ok, FALSE},
        {"", click_ok, FALSE},
        {"724919", click_ok, FALSE},
        {"724918", GTK_RESPONSE_DELETE_EVENT, FALSE},  // closed without Ok
        {"724918", press_enter, FALSE},                // Enter does not press Ok
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        Toplevel<PasswdDialog> dialog(passwd_dialog_new());
        EXPECT_EQ(gtk_window_get_window_type(GTK_WINDOW(dialog.get())), GTK_WINDOW_POPUP);
        int closed = 0;
        g_signal_connect_swapped(dialog, "close", G_CALLBACK(+[](int* n) { ++*n; }), &closed);
        gtk_entry_set_text(password_entry(dialog), c.text);
        if (c.response == click_ok)
            gtk_button_clicked(GTK_BUTTON(gtk_dialog_get_widget_for_response(GTK_DIALOG(dialog.get()), GTK_RESPONSE_OK)));
        else if (c.response == press_enter)
            gtk_widget_activate(GTK_WIDGET(password_entry(dialog)));
        else
            gtk_dialog_response(GTK_DIALOG(dialog.get()), c.response);
        gboolean is_ok = !c.is_ok;
        g_object_get(dialog, "is-ok", &is_ok, NULL);
        EXPECT_EQ(is_ok, c.is_ok);
        EXPECT_EQ(closed, c.response == press_enter ? 0 : 1) << "every response closes the dialog";
    }
}

TEST_F(Ui, IsOkNotifiesOnlyOnChange)
{
    Toplevel<PasswdDialog> dialog(passwd_dialog_new());
    int notified = 0;
    g_signal_connect_swapped(dialog, "notify::is-ok", G_CALLBACK(+[](int* n) { ++*n; }), &notified);
    passwd_dialog_set_is_ok(dialog, FALSE);
    g_object_set(dialog, "is-ok", FALSE, NULL);
    EXPECT_EQ(notified, 0);
    g_object_set(dialog, "is-ok", TRUE, NULL);
    passwd_dialog_set_is_ok(dialog, TRUE);
    EXPECT_EQ(notified, 1);
    EXPECT_TRUE(passwd_dialog_get_is_ok(dialog));

    log.clear();
    EXPECT_FALSE(passwd_dialog_get_is_ok(nullptr));
    ASSERT_EQ(log.messages().size(), 1u);
    EXPECT_NE(log.messages()[0].find("assertion 'self != NULL' failed"), std::string::npos);
}

TEST_F(Ui, HiddenActionsSendTheirFramesAndReadNothing)
{
    vprinter::Scene scene;
    scene.devices.emplace_back();
    scene.firmware.job_log = {1, 2};
    vprinter::Testbed bed(scene);
    Toplevel<MainWindow> win(main_window_new());
    log.clear();

    const auto before = static_cast<uint32_t>(time(nullptr));
    main_window_on_log_trigger(nullptr, win);
    const auto after = static_cast<uint32_t>(time(nullptr));
    finish_exchange(win);
    // The frame's layout is the protocol's test; here: the moment of the click.
    const std::string stamp = "[I]main_win:111: timestamp: ";
    ASSERT_GE(log.messages().size(), 2u);
    ASSERT_EQ(log.messages()[1].substr(2, stamp.size()), stamp) << "the time is taken before the device search";
    const auto t = static_cast<uint32_t>(std::stoul(log.messages()[1].substr(2 + stamp.size())));
    EXPECT_GE(t, before);
    EXPECT_LE(t, after);
    EXPECT_EQ(ui_lines(log), (std::vector<std::string>{"[I]main_win:107: trigger timestamp", stamp + std::to_string(t)}));
    std::vector<std::string> frames = bed.frames();
    const Bytes trigger = log_trigger_frame(t);
    EXPECT_EQ(frames, std::vector<std::string>{vprinter::to_hex(trigger.data(), trigger.size())});
    EXPECT_EQ(status_text(win), "Sent the time to printer VP0001.");

    log.clear();
    main_window_on_log_reset(nullptr, win);
    finish_exchange(win);
    frames = bed.frames();
    EXPECT_EQ(frames.back(), "1b1d1e10551b1d1f");
    EXPECT_EQ(ui_lines(log), std::vector<std::string>{"[I]main_win:95: reset log"});
    EXPECT_EQ(status_text(win), "Cleared the job log of printer VP0001.");
    EXPECT_EQ(bed.transfers(), 2) << "neither action reads";
    EXPECT_EQ(bed.firmware().job_log, (std::vector<uint32_t>{})) << "the printer took the reset";

}

// The black-box suite covers the visible buttons without a printer.
TEST_F(Ui, HiddenActionsWithoutAPrinterSendNothing)
{
    vprinter::Testbed bed(vprinter::Scene{});
    Toplevel<MainWindow> win(main_window_new());
    log.clear();
    main_window_on_log_reset(nullptr, win);
    finish_exchange(win);
    main_window_on_log_trigger(nullptr, win);
    finish_exchange(win);
    const std::vector<std::string> lines = ui_lines(log);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "[I]main_win:95: reset log");
    EXPECT_EQ(lines[1], "[I]main_win:107: trigger timestamp");
    EXPECT_EQ(bed.transfers(), 0);
    EXPECT_EQ(status_text(win), "No USB printer found. Check the cable and that the printer is switched on.");

    // A null window: GLib's critical, nothing else.
    log.clear();
    for (auto action : {main_window_on_netcfg_load, main_window_on_netcfg_save, main_window_on_log_load,
                        main_window_on_log_trigger, main_window_on_log_reset})
        action(nullptr, nullptr);
    const std::vector<std::string> criticals = log.messages();
    EXPECT_EQ(criticals.size(), 5u);
    for (const std::string& m : criticals)
        EXPECT_NE(m.find("assertion 'self != NULL' failed"), std::string::npos) << m;
}

TEST_F(Ui, AddressConversionRefusesNullArguments)
{
    Toplevel<MainWindow> win(main_window_new());
    gsize len = 99;
    EXPECT_EQ(ip_str_to_bytes(nullptr, "1.2.3.4", &len), nullptr);
    EXPECT_EQ(ip_str_to_bytes(win, nullptr, &len), nullptr);
    EXPECT_EQ(len, 99u) << "nothing to append";
}

static void collect_labels(GtkWidget* widget, gpointer texts)
{
    if (STATUS_IS_LINE(widget))  // what it says depends on the printers attached
        return;
    // Buttons and column headers show their text through labels too.
    if (GTK_IS_LABEL(widget))
        static_cast<std::vector<std::string>*>(texts)->push_back(gtk_label_get_text(GTK_LABEL(widget)));
    if (GTK_IS_CONTAINER(widget))
        gtk_container_forall(GTK_CONTAINER(widget), collect_labels, texts);
}

TEST_F(Ui, LabelsComeOutInGermanFromTheCatalogue)
{
    bindtextdomain("Pellavoy", LOCALE_BUILD_DIR);
    bind_textdomain_codeset("Pellavoy", "UTF-8");
    setenv("LANGUAGE", "de", 1);
    setlocale(LC_ALL, "C.UTF-8");

    Toplevel<MainWindow> win(main_window_new());
    std::vector<std::string> texts;
    collect_labels(GTK_WIDGET(win.get()), &texts);
    std::sort(texts.begin(), texts.end());
    EXPECT_EQ(texts, (std::vector<std::string>{"Auslösen", "DHCP", "Drucker:", "Ereignis", "Gateway:", "IP-Adresse:",
                                               "Laden", "Laden", "Netzwerkeinstellungen", "Protokoll", "Speichern",
                                               "Subnetzmaske:", "Zeit", "Zurücksetzen"}));

    Toplevel<PasswdDialog> dialog(passwd_dialog_new());
    texts.clear();
    collect_labels(GTK_WIDGET(dialog.get()), &texts);
    EXPECT_NE(std::find(texts.begin(), texts.end(), "Passwort eingeben:"), texts.end());
    EXPECT_STREQ(g_dgettext("Pellavoy", "Invalid password!"), "Ungültiges Passwort!");
    EXPECT_STREQ(g_dngettext("Pellavoy", "Read %2$u job from printer %1$s.", "Read %2$u jobs from printer %1$s.", 2),
                 "%2$u Aufträge von Drucker %1$s gelesen.");

    unsetenv("LANGUAGE");
    setlocale(LC_ALL, "C.UTF-8");
}

// The first label inside a widget: the status line's sentence.
static void find_label(GtkWidget* widget, gpointer found)
{
    GtkWidget** label = static_cast<GtkWidget**>(found);
    if (*label == nullptr && GTK_IS_LABEL(widget))
        *label = widget;
    else if (GTK_IS_CONTAINER(widget))
        gtk_container_forall(GTK_CONTAINER(widget), find_label, found);
}

// At the window's default size every sentence shows whole: wrapped, never
// cut short, the window no wider. The longest are a Save refused for three
// errors, and a Save with DHCP on whose read-back differs in every field,
// with every entry sent as 0.0.0.0.
TEST_F(Ui, EverySentenceIsSeenWholeAtTheDefaultSize)
{
    bindtextdomain("Pellavoy", LOCALE_BUILD_DIR);
    bind_textdomain_codeset("Pellavoy", "UTF-8");
    vprinter::Scene scene;
    scene.devices.emplace_back();
    scene.faults.replies = {{0x00, 255, 255, 255, 255, 255, 255, 255, 254, 255, 255, 255, 0}};
    vprinter::Testbed bed(scene);
    const char* const entries[] = {"ctl_addr", "ctl_subnet", "ctl_gateway"};
    for (const char* language : {"en", "de", "zh_CN"}) {
        SCOPED_TRACE(language);
        setenv("LANGUAGE", language, 1);
        // gettext keeps what it found until the locale really changes: through "C" it does.
        setlocale(LC_ALL, "C");
        setlocale(LC_ALL, "C.UTF-8");
        Toplevel<MainWindow> win(main_window_new());
        g_idle_add(answer_dialog, const_cast<char*>("724918"));
        gtk_widget_show_all(GTK_WIDGET(win.get()));
        const char* refused[] = {"255.255.255.255", "255.255.255.0.255.255.255.0.255.255.255.0", "255.255.255.255"};
        for (int i = 0; i < 3; ++i)
            gtk_entry_set_text(GTK_ENTRY(child_of(win, entries[i])), refused[i]);
        const size_t frames = bed.frames().size();
        main_window_on_netcfg_save(nullptr, win);
        EXPECT_FALSE(main_window_get_busy(win));
        EXPECT_EQ(bed.frames().size(), frames) << "nothing is sent";
        EXPECT_EQ(gtk_window_get_focus(GTK_WINDOW(win.get())), child_of(win, "ctl_addr"));
        std::vector<std::string> texts = {status_text(win)};

        for (const char* entry : entries)
            gtk_entry_set_text(GTK_ENTRY(child_of(win, entry)), "printer.local");
        gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(child_of(win, "ctl_dhcp")), TRUE);
        main_window_on_netcfg_save(nullptr, win);
        finish_exchange(win);
        texts.push_back(status_text(win));
        const std::map<std::string, std::string> refusal = {
            {"de", "An den Drucker wurde nichts gesendet: Die IP-Adresse 255.255.255.255 ist"},
            {"zh_CN", "未向打印机发送任何内容： IP 地址 255.255.255.255 是"}};
        if (refusal.count(language) != 0) {
            EXPECT_EQ(texts[0].substr(0, refusal.at(language).size()), refusal.at(language)) << "translated";
        }
        if (std::string(language) == "en") {
            EXPECT_EQ(texts[0], "Nothing was sent to the printer: The IP address 255.255.255.255 is the broadcast "
                                "address of every network: a printer cannot have it. The subnet mask "
                                "“255.255.255.0.255.255.255.0.255…” is not an IPv4 address such as 255.255.255.0. "
                                "The gateway 255.255.255.255 is the printer's own IP address: it would send to "
                                "itself what is meant for other networks.");
            EXPECT_EQ(texts[1], "Sent the network settings to printer VP0001. It reports other settings: "
                                "IP address 255.255.255.255, subnet mask 255.255.255.0, gateway 255.255.255.254, "
                                "DHCP off. The IP address was not an IPv4 address and was sent as 0.0.0.0. The subnet "
                                "mask was not an IPv4 address and was sent as 0.0.0.0. The gateway was not an IPv4 "
                                "address and was sent as 0.0.0.0.");
        }
        for (int o = 0; o <= static_cast<int>(Outcome::BadReply); ++o)
            texts.push_back(status_sentence(static_cast<Outcome>(o), "K7Q0012-20261123",
                                            "No such device (it may have been disconnected)", 511));

        StatusLine* line = STATUS_LINE(child_of(win, "ctl_status"));
        GtkWidget* label = nullptr;
        gtk_container_forall(GTK_CONTAINER(line), find_label, &label);
        ASSERT_NE(label, nullptr);
        for (const std::string& text : texts) {
            SCOPED_TRACE(text);
            status_line_show(line, Mark::Error, text);
            gtk_container_check_resize(GTK_CONTAINER(win.get()));
            while (gtk_events_pending())
                gtk_main_iteration();
            EXPECT_EQ(gtk_widget_get_allocated_width(GTK_WIDGET(win.get())), 400) << "no wider";
            PangoLayout* layout = gtk_label_get_layout(GTK_LABEL(label));
            EXPECT_FALSE(pango_layout_is_ellipsized(layout));
            int width = 0, height = 0, x = 0, y = 0;
            pango_layout_get_pixel_size(layout, &width, &height);
            EXPECT_LE(width, gtk_widget_get_allocated_width(label));
            EXPECT_LE(height, gtk_widget_get_allocated_height(label));
            gtk_widget_translate_coordinates(label, GTK_WIDGET(win.get()), 0, 0, &x, &y);
            EXPECT_LE(x + gtk_widget_get_allocated_width(label), 400);
            EXPECT_LE(y + gtk_widget_get_allocated_height(label), gtk_widget_get_allocated_height(GTK_WIDGET(win.get())));
        }
    }
    unsetenv("LANGUAGE");
    setlocale(LC_ALL, "C.UTF-8");
}

int main(int argc, char** argv)
{
    vprinter::reexec_under_wrapper(argv);
    gtk_init(&argc, &argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
