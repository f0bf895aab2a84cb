#include "device.h"

#include <errno.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

namespace vprinter {

namespace {

const char* kind_name(Kind k)
{
    switch (k) {
    case Kind::Printer: return "printer";
    case Kind::Other: return "keyboard";
    case Kind::NoInterface: return "device without interfaces";
    case Kind::NoEndpoint: return "printer interface without endpoints";
    }
    return "";
}

} // namespace

bool preloaded()
{
    const char* preload = getenv("LD_PRELOAD");
    return preload != nullptr && strstr(preload, "libumockdev-preload") != nullptr;
}

void reexec_under_wrapper(char** argv)
{
    if (preloaded())
        return;
    // The preload library comes before a sanitizer's runtime.
    const char* asan = getenv("ASAN_OPTIONS");
    const std::string opts = asan ? std::string(asan) + ":" : std::string();
    setenv("ASAN_OPTIONS", (opts + "verify_asan_link_order=0").c_str(), 1);
    std::vector<char*> args = {const_cast<char*>("umockdev-wrapper")};
    for (char** a = argv; *a; ++a)
        args.push_back(*a);
    args.push_back(nullptr);
    execvp(args[0], args.data());
    throw std::runtime_error(std::string("cannot run umockdev-wrapper: ") + strerror(errno) +
                             " (install the umockdev package)");
}

std::string to_hex(const uint8_t* data, size_t len)
{
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < len; ++i) {
        s += digits[data[i] >> 4];
        s += digits[data[i] & 0xF];
    }
    return s;
}

bool parse_hex(const std::string& text, Bytes& out)
{
    std::string digits;
    for (char c : text) {
        if (isxdigit(static_cast<unsigned char>(c)))
            digits += c;
        else if (!isspace(static_cast<unsigned char>(c)) && c != ':' && c != ',')
            return false;
    }
    if (digits.size() % 2 != 0)
        return false;
    out.clear();
    for (size_t i = 0; i < digits.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return true;
}

Testbed::Testbed(const Scene& scene) : state_(new State)
{
    if (!preloaded())
        throw std::runtime_error("not running under umockdev-wrapper");
    State& st = *state_;
    st.faults = scene.faults;
    if (!scene.record_path.empty()) {
        st.record.open(scene.record_path, std::ios::trunc);
        if (!st.record)
            throw std::runtime_error("cannot write " + scene.record_path);
    }
    st.record_serial = scene.record_serial;
    st.testbed = umockdev_testbed_new();

    const size_t n = scene.devices.size();
    std::ostringstream desc;
    for (size_t i = 0; i < n; ++i) {
        auto dev = std::make_unique<Device>();
        dev->bed = &st;
        dev->setup = scene.devices[i];
        dev->raw = descriptors_of(dev->setup);
        dev->layout = walk(dev->raw);
        dev->strings = strings_of(dev->setup);
        dev->fw = scene.firmware;
        // libusb lists umockdev's devices in reverse order of their sysfs
        // paths; two-digit ports keep that order for up to 90 devices.
        dev->name = "1-" + std::to_string(10 + n - 1 - i);
        dev->handler = umockdev_ioctl_base_new();
        g_signal_connect(dev->handler, "handle-ioctl", G_CALLBACK(on_handle_ioctl), dev.get());
        dev->plug();

        const bool raw = !dev->setup.descriptors.empty();
        desc << (i ? "; " : "") << (!dev->setup.name.empty() ? dev->setup.name.c_str() : raw ? "device" : kind_name(dev->setup.kind));
        char ids[32];
        snprintf(ids, sizeof ids, " %04X:%04X", dev->layout.vid, dev->layout.pid);
        desc << ids;
        if (raw && !dev->enumerated)
            desc << " (descriptors unreadable: not enumerated)";
        else if (raw)
            desc << " sn=" << (dev->serial().empty() ? "(none)" : dev->serial());
        else if (dev->setup.kind == Kind::Printer)
            desc << " sn=" << (dev->setup.serial.empty() ? "(none)" : dev->setup.serial) << " itf="
                 << int(dev->setup.interface_number) << " ep=" << to_hex(dev->setup.endpoints.data(), dev->setup.endpoints.size());
        if (dev->setup.unopenable)
            desc << " (cannot be opened)";
        st.devices.push_back(std::move(dev));
    }
    st.description = n ? desc.str() : "no USB device";
}

Testbed::~Testbed()
{
    // Drop the devices first: their handlers refer to the testbed's sockets.
    if (state_->testbed)
        umockdev_testbed_clear(state_->testbed);
    state_->devices.clear();
    if (state_->testbed)
        g_object_unref(state_->testbed);
}

std::vector<std::string> Testbed::frames() const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->frames;
}

std::vector<ControlRequest> Testbed::control_requests() const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->controls;
}

Firmware Testbed::firmware(size_t printer) const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    for (const auto& dev : state_->devices)
        if ((dev->setup.kind == Kind::Printer || !dev->setup.descriptors.empty()) && printer-- == 0)
            return dev->fw;
    return Firmware();
}

void Testbed::unplug(size_t device)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    if (device < state_->devices.size())
        state_->devices[device]->unplug();
}

void Testbed::plug(size_t device)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    if (device < state_->devices.size() && state_->devices[device]->gone)
        state_->devices[device]->plug();
}

long Testbed::transfers() const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->transfers;
}

std::string Testbed::describe() const
{
    return state_->description;
}

std::string Testbed::received() const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    size_t bytes = 0;
    for (const std::string& f : state_->frames)
        bytes += f.size() / 2;
    std::ostringstream s;
    int claimed = 0;
    for (const auto& d : state_->devices)
        claimed += d->claimed;
    s << state_->frames.size() << " frame(s), " << bytes << " byte(s) received; " << state_->reads_answered
      << " read(s) answered; " << state_->requests << " USB request(s) in all; " << claimed
      << " interface(s) left claimed";
    return s.str();
}

} // namespace vprinter
