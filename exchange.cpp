#include "exchange.h"

#include "COMMON/devmgr/usb_mgr.h"

#include <libusb.h>

static const gsize read_timeout_ms = 1000;
// A printer out of paper may never take the data: the window must not wait for good.
static const gsize write_timeout_ms = 2000;

static guint32 usb_mgr_get_length(void* self)
{
    g_return_val_if_fail(self != NULL, 0);
    return static_cast<guint32>(usb_mgr_get_size(self));
}

static void fail(ExchangeResult& ex, Outcome outcome, const std::string& printer, const std::string& text = "")
{
    ex.failure = outcome;
    ex.printer = printer;
    ex.text = text;
}

// Nothing could be opened. A printer that enumeration could not open is named
// from udev: its serial cannot be read.
static void open_failure(ExchangeResult& ex, const ExchangeRequest& request, void* mgr, const Printer* at)
{
    const bool any = request.port.empty();
    usb_dev_summary dev = {};
    int code;
    for (size_t i = 0; (any || at != NULL) && (code = usb_mgr_get_open_failure(mgr, i, &dev)) != 0; ++i) {
        if (at != NULL && (dev.bus != at->bus || dev.address != at->address))
            continue;
        const Printer* p = printer_at_address(request.attached, dev.bus, dev.address);
        fail(ex, code == LIBUSB_ERROR_ACCESS ? Outcome::OpenDenied : Outcome::OpenFailed,
             printer_name(p != NULL ? p->serial : "", dev.vid, dev.pid), usb_get_err_text(code));
        return;
    }
    if (!any)
        fail(ex, Outcome::NotConnected, printer_name(request.chosen.serial, request.chosen.vid, request.chosen.pid));
    else {
        const ExchangeResult none = exchange_no_printer(request);
        fail(ex, none.failure, none.printer, none.text);
    }
}

ExchangeResult exchange_no_printer(const ExchangeRequest& request)
{
    ExchangeResult ex;
    if (request.unusable.empty())
        fail(ex, Outcome::NoPrinter, "");
    else
        fail(ex, Outcome::OtherInterface, printer_label(request.unusable[0]), std::to_string(request.unusable[0].itf));
    return ex;
}

// An I/O error is what the kernel reports for a transfer cut short by an
// unplug; the device node then goes, at most a moment later.
static bool node_gone(const usb_dev_summary& dev)
{
    gchar* node = g_strdup_printf("/dev/bus/usb/%03u/%03u", dev.bus, dev.address);
    bool gone = false;
    for (int i = 0; i < 10 && !(gone = !g_file_test(node, G_FILE_TEST_EXISTS)); ++i)
        g_usleep(20 * 1000);
    g_free(node);
    return gone;
}

static Outcome transfer_outcome(int code, Outcome timeout, const usb_dev_summary& dev)
{
    if (code == LIBUSB_ERROR_TIMEOUT)
        return timeout;
    // More came than was asked for: a reply the window cannot use, not a broken exchange.
    if (code == LIBUSB_ERROR_OVERFLOW)
        return Outcome::LongReply;
    if (code == LIBUSB_ERROR_NO_DEVICE || (code == LIBUSB_ERROR_IO && node_gone(dev)))
        return Outcome::Disconnected;
    return Outcome::Failed;
}

// The write's result is not looked at before the read: a reply may come all the same.
static void run_transfer(const void* handle, const Transfer& transfer, TransferResult& result, bool one_way)
{
    if (one_way && transfer.reply_capacity > 0)
        return;
    result.ran = true;
    usb_handle_write_ex(handle, transfer.frame.data(), transfer.frame.size(), write_timeout_ms, &result.write_code);
    if (transfer.reply_capacity > 0) {
        guint8* buf = result.reply.data();
        usb_handle_read_ex(handle, &buf, &result.length, read_timeout_ms, &result.read_code);
    }
}

ExchangeResult exchange_run(const ExchangeRequest& request)
{
    ExchangeResult ex;
    g_return_val_if_fail(!request.transfers.empty(), ex);
    for (const Transfer& t : request.transfers) {
        TransferResult r;
        r.reply.assign(t.reply_capacity, 0);
        r.length = static_cast<gint32>(t.reply_capacity);
        ex.transfers.push_back(std::move(r));
    }

    std::unique_ptr<void, void (*)(void*)> mgr(usb_mgr_new(), usb_mgr_free);
    usb_mgr_enumerate(mgr.get());
    const guint32 count = usb_mgr_get_length(mgr.get());

    // A chosen printer is found by its place on the bus, never replaced by another.
    const Printer* chosen = request.port.empty() ? NULL : printer_at_port(request.attached, request.port);
    usb_dev_summary dev = {};
    size_t index = request.port.empty() ? 0 : count;
    for (size_t i = 0; chosen != NULL && i < count && index == count; ++i)
        if (usb_mgr_get_record(mgr.get(), i, &dev) == 0 && dev.bus == chosen->bus && dev.address == chosen->address)
            index = i;
    if (index >= count) {
        open_failure(ex, request, mgr.get(), chosen);
        return ex;
    }

    usb_mgr_get_record(mgr.get(), index, &dev);
    ex.printer = printer_name(dev.serial, dev.vid, dev.pid);
    ex.sent = true;
    const void* handle = usb_mgr_open(mgr.get(), index);
    const int claim = usb_mgr_get_claim_result(mgr.get());
    TransferResult& first = ex.transfers[0];
    const bool one_way = dev.in_ep == 0;
    run_transfer(handle, request.transfers[0], first, one_way);
    const bool clean = claim == 0 && first.ran && first.write_code == 0 && first.read_code == 0;
    for (size_t i = 1; clean && i < request.transfers.size(); ++i)
        run_transfer(handle, request.transfers[i], ex.transfers[i], one_way);
    if (handle != NULL)
        usb_handle_free(handle);

    // The first problem of the exchange is the one the user is told.
    ex.failed = !clean;
    if (claim == LIBUSB_ERROR_BUSY)
        ex.failure = Outcome::Busy;
    else if (claim == LIBUSB_ERROR_NO_DEVICE)
        ex.failure = Outcome::Disconnected;
    else if (!first.ran)
        ex.failure = Outcome::NoWayBack;
    else if (first.write_code != 0)
        ex.failure = transfer_outcome(first.write_code, Outcome::WriteTimeout, dev);
    else if (first.read_code != 0)
        ex.failure = transfer_outcome(first.read_code, Outcome::ReadTimeout, dev);
    else
        ex.failed = false;  // another claim failure that the transfers did not feel
    ex.text = usb_get_err_text(first.write_code != 0 ? first.write_code : first.read_code);
    return ex;
}

static void run_in_worker(GTask* task, gpointer source, gpointer request, GCancellable* cancellable)
{
    (void)source;
    (void)cancellable;  // a cancelled exchange still ends its transfers and releases the printer
    const auto& req = *static_cast<const ExchangeRequest*>(request);
    auto* result = new ExchangeResult(exchange_run(req));
    if (req.digest)
        result->digest = req.digest(*result);
    g_task_return_pointer(task, result, [](gpointer r) { delete static_cast<ExchangeResult*>(r); });
}

void exchange_run_async(ExchangeRequest request, GObject* source, GCancellable* cancellable,
                        GAsyncReadyCallback callback, gpointer user_data)
{
    GTask* task = g_task_new(source, cancellable, callback, user_data);
    g_task_set_source_tag(task, reinterpret_cast<gpointer>(exchange_run_async));
    g_task_set_task_data(task, new ExchangeRequest(std::move(request)),
                         [](gpointer r) { delete static_cast<ExchangeRequest*>(r); });
    g_task_run_in_thread(task, run_in_worker);
    g_object_unref(task);
}

std::unique_ptr<ExchangeResult> exchange_run_finish(GAsyncResult* result)
{
    g_return_val_if_fail(g_async_result_is_tagged(result, reinterpret_cast<gpointer>(exchange_run_async)), nullptr);
    GError* error = NULL;
    auto* ex = static_cast<ExchangeResult*>(g_task_propagate_pointer(G_TASK(result), &error));
    g_clear_error(&error);  // the only error is the cancellation
    return std::unique_ptr<ExchangeResult>(ex);
}
