// A device's usbfs node: the ioctls libusb sends it, from claims and
// SET_INTERFACE to URBs submitted, discarded and reaped.
#include "device.h"

#include <errno.h>
#include <linux/ioctl.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace vprinter {

namespace {

// Transfers that the kernel only lets through to the holder of an interface:
// bulk and interrupt ones, and control requests addressed to an interface
// or endpoint.
bool needs_interface(const usbdevfs_urb* urb)
{
    if (urb->type != USBDEVFS_URB_TYPE_CONTROL)
        return true;
    const auto* setup = static_cast<const uint8_t*>(urb->buffer);
    return setup != nullptr && urb->buffer_length >= 8 && (setup[0] & 0x1F) != 0;
}

// The first unsigned int that an ioctl's argument points to.
unsigned first_word(UMockdevIoctlData* arg)
{
    UMockdevIoctlData* d = umockdev_ioctl_data_resolve(arg, 0, sizeof(unsigned), nullptr);
    const unsigned v = d ? *reinterpret_cast<const unsigned*>(d->data) : ~0u;
    if (d)
        g_object_unref(d);
    return v;
}

} // namespace

void Device::finish(UMockdevIoctlData* urb_data, int status, int actual)
{
    urb_of(urb_data)->status = status;
    urb_of(urb_data)->actual_length = actual;
    ready.push_back(urb_data);
}

// Answers the oldest waiting read, if the firmware has something to say.
void Device::serve_reads()
{
    while (!pending_in.empty() && !replies.empty()) {
        UMockdevIoctlData* urb_data = pending_in.front();
        pending_in.erase(pending_in.begin());
        fill_in(urb_data, replies.front());
        replies.pop_front();
    }
}

void Device::fill_in(UMockdevIoctlData* urb_data, Bytes reply)
{
    usbdevfs_urb* urb = urb_of(urb_data);
    const size_t capacity = static_cast<size_t>(urb->buffer_length);
    if (bed->faults.overflow)
        reply.resize(capacity + 1, 0xAA);
    const size_t n = std::min(reply.size(), capacity);
    if (n > 0)
        memcpy(urb->buffer, reply.data(), n);
    ++bed->reads_answered;
    finish(urb_data, reply.size() > capacity ? -EOVERFLOW : 0, static_cast<int>(n));
}

void Device::submit_control(UMockdevIoctlData* urb_data)
{
    usbdevfs_urb* urb = urb_of(urb_data);
    auto* buf = static_cast<uint8_t*>(urb->buffer);
    if (buf == nullptr || urb->buffer_length < 8) {
        finish(urb_data, -EPIPE, 0);
        return;
    }
    const ControlRequest c = {buf[0], buf[1], static_cast<uint16_t>(buf[2] | buf[3] << 8),
                              static_cast<uint16_t>(buf[4] | buf[5] << 8),
                              static_cast<uint16_t>(buf[6] | buf[7] << 8)};
    if (c.request_type != 0x80)
        bed->controls.push_back(c);
    std::optional<Bytes> reply = control_reply(c);
    if (!reply) {
        finish(urb_data, -EPIPE, 0);
        return;
    }
    const size_t n = std::min<size_t>({reply->size(), c.length, size_t(urb->buffer_length - 8)});
    memcpy(buf + 8, reply->data(), n);
    finish(urb_data, 0, static_cast<int>(n));
}

void Device::submit_bulk(UMockdevIoctlData* urb_data)
{
    usbdevfs_urb* urb = urb_of(urb_data);
    ++bed->transfers;
    if (urb->endpoint & 0x80) {
        if (bed->faults.stall_in)
            finish(urb_data, -EPIPE, 0);
        else if (urb->buffer_length == 0)
            finish(urb_data, 0, 0);
        else
            pending_in.push_back(urb_data);
    } else if (bed->faults.no_accept_after >= 0 && bed->transfers > bed->faults.no_accept_after) {
        pending_out.push_back(urb_data);
    } else {
        const auto* buf = static_cast<const uint8_t*>(urb->buffer);
        const Bytes frame(buf, buf + (buf ? urb->buffer_length : 0));
        bed->frames.push_back(to_hex(frame.data(), frame.size()));
        if (bed->record.is_open())
            bed->record << (bed->record_serial ? serial() + " " : "") << bed->frames.back() << std::endl;
        if (bed->faults.stall_out) {
            finish(urb_data, -EPIPE, 0);
        } else {
            receive(frame);
            finish(urb_data, 0, urb->buffer_length);
        }
    }
    serve_reads();
    if (bed->faults.unplug_after >= 0 && bed->transfers >= bed->faults.unplug_after)
        unplug();
}

// Why usbfs would not claim interface NUMBER: 0 when it would.
int Device::claim_error(unsigned number) const
{
    if (gone)
        return ENODEV;
    if (number >= 32)
        return EINVAL;
    if (!layout.first(number))
        return ENOENT;
    return bed->faults.busy ? EBUSY : 0;
}

uint8_t Device::current(uint8_t number) const
{
    const auto it = alternate.find(number);
    return it == alternate.end() ? 0 : it->second;
}

// The endpoint a bulk or interrupt URB goes to, as usbfs finds it: an
// address no setting declares, or one that its interface's current
// setting does not have, is refused; so is one that the claim of its
// interface fails for. Returns the errno, or 0 and the endpoint.
int Device::route(uint8_t address, const Endpoint*& found) const
{
    if (address & ~0x8F)
        return EINVAL;
    const AltSetting* owner = nullptr;
    for (const AltSetting& s : layout.settings)
        for (const Endpoint& e : s.endpoints)
            if (e.address == address && !owner)
                owner = &s;
    if ((address & 0x0F) == 0)
        return EINVAL;  // endpoint 0 is the control endpoint
    if (!owner)
        return ENOENT;
    if (const int err = claim_error(owner->number))
        return err;
    const AltSetting* now = layout.find(owner->number, current(owner->number));
    if (now)
        for (const Endpoint& e : now->endpoints)
            if (e.address == address) {
                found = &e;
                return 0;
            }
    return ENOENT;
}

gboolean Device::handle_ioctl(UMockdevIoctlClient* client)
{
    std::lock_guard<std::mutex> lock(bed->mutex);
    UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    switch (umockdev_ioctl_client_get_request(client)) {
    case USBDEVFS_GET_CAPABILITIES: {
        UMockdevIoctlData* d = umockdev_ioctl_data_resolve(arg, 0, sizeof(guint32), nullptr);
        *reinterpret_cast<guint32*>(d->data) = USBDEVFS_CAP_BULK_CONTINUATION | USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
                                               USBDEVFS_CAP_REAP_AFTER_DISCONNECT | USBDEVFS_CAP_ZERO_PACKET;
        umockdev_ioctl_client_complete(client, 0, 0);
        g_object_unref(d);
        return TRUE;
    }
    case USBDEVFS_CLAIMINTERFACE:
    case USBDEVFS_DISCONNECT_CLAIM: {
        const unsigned number = first_word(arg);
        int err = claim_error(number);
        if (err == ENOENT && umockdev_ioctl_client_get_request(client) == USBDEVFS_DISCONNECT_CLAIM)
            err = EINVAL;  // it looks the interface up itself, before claiming
        claimed += err ? 0 : 1;
        umockdev_ioctl_client_complete(client, err ? -1 : 0, err);
        return TRUE;
    }
    case USBDEVFS_RELEASEINTERFACE: {
        const unsigned number = first_word(arg);
        int err = gone ? ENODEV : number >= 32 ? EINVAL : !layout.first(number) ? ENOENT : 0;
        if (!err && claimed > 0) {
            --claimed;
            // Unbound, an interface goes back to its first setting.
            select(number, layout.first(number)->alternate);
        }
        umockdev_ioctl_client_complete(client, err ? -1 : 0, err);
        return TRUE;
    }
    case USBDEVFS_SETINTERFACE: {
        UMockdevIoctlData* d = umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_setinterface), nullptr);
        const auto* set = reinterpret_cast<const usbdevfs_setinterface*>(d->data);
        // The interface is claimed first if it is not yet; the setting must exist.
        int err = claimed > 0 && !gone && set->interface < 32 && layout.first(set->interface) ? 0
                                                                                    : claim_error(set->interface);
        if (!err && !layout.find(set->interface, set->altsetting))
            err = EINVAL;
        if (!err) {
            claimed += claimed > 0 ? 0 : 1;
            bed->controls.push_back({0x01, 11, static_cast<uint16_t>(set->altsetting),
                                     static_cast<uint16_t>(set->interface), 0});
            select(set->interface, static_cast<uint8_t>(set->altsetting));
        }
        umockdev_ioctl_client_complete(client, err ? -1 : 0, err);
        g_object_unref(d);
        return TRUE;
    }
    case USBDEVFS_IOCTL:
    case USBDEVFS_CLEAR_HALT:
    case USBDEVFS_RESET:
    case USBDEVFS_RESETEP:
        umockdev_ioctl_client_complete(client, gone ? -1 : 0, gone ? ENODEV : 0);
        return TRUE;
    case USBDEVFS_GETDRIVER: {
        if (driver().empty()) {
            umockdev_ioctl_client_complete(client, -1, ENODATA);
            return TRUE;
        }
        UMockdevIoctlData* d = umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_getdriver), nullptr);
        auto* get = reinterpret_cast<usbdevfs_getdriver*>(d->data);
        snprintf(get->driver, sizeof get->driver, "%s", driver().c_str());
        umockdev_ioctl_client_complete(client, 0, 0);
        g_object_unref(d);
        return TRUE;
    }
    case USBDEVFS_SUBMITURB: {
        if (gone) {
            umockdev_ioctl_client_complete(client, -1, ENODEV);
            return TRUE;
        }
        UMockdevIoctlData* urb_data = umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_urb), nullptr);
        usbdevfs_urb* urb = urb_of(urb_data);
        ++bed->requests;
        UMockdevIoctlData* buffer = nullptr;
        if (urb->buffer_length > 0)
            buffer = umockdev_ioctl_data_resolve(urb_data, offsetof(usbdevfs_urb, buffer),
                                                 static_cast<gsize>(urb->buffer_length), nullptr);
        int err = 0;
        const Endpoint* ep = nullptr;
        if (urb->type == USBDEVFS_URB_TYPE_CONTROL) {
            // usbfs claims the interface for the caller and fails as the claim does.
            err = bed->faults.busy && needs_interface(urb) ? EBUSY : 0;
        } else if (!(err = route(urb->endpoint, ep))) {
            // A bulk URB to an interrupt endpoint goes as a single interrupt transfer.
            const bool bulk_ok = urb->type == USBDEVFS_URB_TYPE_BULK && (ep->type() == 2 || ep->type() == 3);
            const bool int_ok = urb->type == USBDEVFS_URB_TYPE_INTERRUPT && ep->type() == 3;
            err = bulk_ok || int_ok ? 0 : EINVAL;
        }
        if (err) {
            umockdev_ioctl_client_complete(client, -1, err);
            if (buffer)
                g_object_unref(buffer);
            g_object_unref(urb_data);
            return TRUE;
        }
        if (urb->type == USBDEVFS_URB_TYPE_CONTROL)
            submit_control(urb_data);
        else if (ep->type() == 2)
            submit_bulk(urb_data);
        else if (urb->endpoint & 0x80)
            pending_int.push_back(urb_data);  // a status channel: replies never come here
        else
            finish(urb_data, 0, urb->buffer_length);
        umockdev_ioctl_client_complete(client, 0, 0);
        if (buffer)
            g_object_unref(buffer);
        return TRUE;  // urb_data's reference now belongs to pending_in or ready
    }
    case USBDEVFS_REAPURB:
    case USBDEVFS_REAPURBNDELAY: {
        if (ready.empty()) {
            umockdev_ioctl_client_complete(client, -1, gone ? ENODEV : EAGAIN);
            return TRUE;
        }
        UMockdevIoctlData* urb_data = ready.front();
        ready.pop_front();
        UMockdevIoctlData* ptr = umockdev_ioctl_data_resolve(arg, 0, sizeof(void*), nullptr);
        umockdev_ioctl_data_set_ptr(ptr, 0, urb_data);
        umockdev_ioctl_client_complete(client, 0, 0);
        g_object_unref(ptr);
        g_object_unref(urb_data);
        return TRUE;
    }
    case USBDEVFS_DISCARDURB: {
        const gulong addr = *reinterpret_cast<gulong*>(arg->data);
        for (auto* pending : {&pending_in, &pending_out, &pending_int}) {
            auto it = std::find_if(pending->begin(), pending->end(),
                                   [addr](UMockdevIoctlData* d) { return d->client_addr == addr; });
            if (it != pending->end()) {
                UMockdevIoctlData* urb_data = *it;
                pending->erase(it);
                finish(urb_data, -ENOENT, 0);
                umockdev_ioctl_client_complete(client, 0, 0);
                return TRUE;
            }
        }
        umockdev_ioctl_client_complete(client, -1, EINVAL);
        return TRUE;
    }
    default:
        return FALSE;
    }
}

Device::~Device()
{
    for (UMockdevIoctlData* d : pending_in)
        g_object_unref(d);
    for (UMockdevIoctlData* d : pending_out)
        g_object_unref(d);
    for (UMockdevIoctlData* d : pending_int)
        g_object_unref(d);
    for (UMockdevIoctlData* d : ready)
        g_object_unref(d);
    if (handler) {
        g_signal_handlers_disconnect_by_data(handler, this);
        g_object_unref(handler);
    }
}

gboolean on_handle_ioctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer user_data)
{
    return static_cast<Device*>(user_data)->handle_ioctl(client);
}

} // namespace vprinter
