// One click's exchange with a printer: enumerate, pick the chosen printer,
// open it, write the frames, read the replies, release and free. It runs in
// a worker thread and knows no widget: it takes a plain request and gives a
// plain result.
#pragma once

#include "printer_list.h"

#include <gio/gio.h>

#include <any>
#include <functional>
#include <memory>
#include <string>
#include <vector>

// How a click ended, as the status line tells it. The exchange gives the
// failures; the pages give the successes.
enum class Outcome {
    NetcfgRead, NetcfgSent, JobsRead, JobLogEmpty, TimeSent, LogCleared, Connected,
    NoPrinter, OtherInterface, NotConnected, NoWayBack, OpenDenied, OpenFailed, Busy, ReadTimeout, WriteTimeout, Disconnected, Failed, LongReply, BadReply,
};

// One frame, and one reply read after it when reply_capacity is not 0. A
// printer with no way back (no bulk IN endpoint) gets neither: the frame
// would only ask for what it cannot send.
struct Transfer {
    std::vector<guint8> frame;
    gsize reply_capacity = 0;
};

struct ExchangeResult;

struct ExchangeRequest {
    std::string port;               // the chosen USB port; empty: the first printer found
    Printer chosen;                 // the printer last seen at port, to name it while it is away
    std::vector<Printer> attached;  // udev's printers at the click, to name one that cannot be opened
    std::vector<Printer> unusable;  // and the devices whose printer interface is not interface 0
    // The first transfer is the command. The ones after it are follow-ups:
    // they run only when the claim and the first transfer went through.
    std::vector<Transfer> transfers;
    // Optional, run in the worker after the transfers: turns the replies into
    // plain values (never widgets) that the result carries as digest.
    std::function<std::any(const ExchangeResult&)> digest;
};

struct TransferResult {
    bool ran = false;            // false also for a reply the printer has no way to send
    int write_code = 0;          // libusb's; 0 when the frame went out
    int read_code = 0;
    std::vector<guint8> reply;   // reply_capacity bytes, zero-filled behind what came
    gint32 length = 0;           // bytes received; the capacity when the read failed
};

struct ExchangeResult {
    bool sent = false;      // a printer was opened and the first frame written to it (or tried)
    bool failed = true;     // the claim or the first transfer failed: failure says how
    Outcome failure = Outcome::NoPrinter;
    std::string printer;    // its name, for the status line
    std::string text;       // libusb's, for the failures that quote it
    std::vector<TransferResult> transfers;  // one per transfer of the request
    std::any digest;        // what the request's digest made of it; empty without one
};

// What a click says when no printer is attached: that none is, or which
// device is there that cannot be used.
ExchangeResult exchange_no_printer(const ExchangeRequest& request);

// The exchange itself, on the calling thread: it blocks for up to the write
// and read time-outs of each transfer.
ExchangeResult exchange_run(const ExchangeRequest& request);

// The same in a worker thread; callback runs on the calling thread's main
// context. The worker always finishes its transfers and releases the
// printer, also when cancellable is cancelled: then only the result is dropped.
void exchange_run_async(ExchangeRequest request, GObject* source, GCancellable* cancellable,
                        GAsyncReadyCallback callback, gpointer user_data);
// The result, or nullptr when the exchange was cancelled.
std::unique_ptr<ExchangeResult> exchange_run_finish(GAsyncResult* result);
