#include "usb_mgr.h"

#include <plog/Log.h>

#include <libusb.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <sstream>

// plog's logging macro, but with the function text given: the records carry
// fixed signature texts whatever the compiler would spell.
#define USB_LOG(severity, func) \
    IF_PLOG_(0, severity)(*plog::get<0>()) += plog::Record(severity, func, __LINE__, PLOG_GET_FILE(), nullptr, 0).ref()
#define USB_LOG_HERE(severity) USB_LOG(severity, PLOG_GET_FUNC())

namespace {

const char open_iter_func[] = "void* UsbManager::open(std::vector<UsbDevInfo>::iterator)";
const char open_idx_func[] = "void* UsbManager::open(size_t)";
const char open_name_func[] = "void* UsbManager::open(const string&)";
const char open_name_cmp_func[] = "UsbManager::open(const string&)::<lambda(const UsbDevInfo&)>";
const char write_func[] = "static int UsbManager::write(const void*, const char*, size_t, size_t)";
const char read_func[] = "static int UsbManager::read(const void*, std::vector<char>&, size_t)";
const char get_1284_id_func[] = "static bool UsbManager::get_1284_id(const void*, std::__cxx11::string&, size_t)";
const char get_lpt_status_func[] = "static bool UsbManager::get_lpt_status(const void*, uint8_t&, size_t)";

void* const invalid_handle = reinterpret_cast<void*>(~uintptr_t(0));

const size_t str_desc_capacity = 1024;
const uint16_t device_id_capacity = 1024;
const uint8_t printer_class_request = LIBUSB_ENDPOINT_IN | LIBUSB_REQUEST_TYPE_CLASS | LIBUSB_RECIPIENT_INTERFACE;
const uint8_t get_device_id_request = 0;
const uint8_t get_port_status_request = 1;

const UsbDevInfo& record_of(const void* handle)
{
    return *static_cast<const UsbDevInfo*>(handle);
}

libusb_device_handle* libusb_handle_of(const void* handle)
{
    return static_cast<libusb_device_handle*>(record_of(handle).hdl);
}

// Interface 0, alternate setting 0: the only one that decides whether a device
// is a printer. Null when the descriptor has no such interface or no endpoint.
const libusb_interface_descriptor* printer_interface(const usb::Config& cfg)
{
    if (cfg.get() == nullptr || cfg->bNumInterfaces == 0 || cfg->interface == nullptr)
        return nullptr;
    const libusb_interface& itf = cfg->interface[0];
    if (itf.num_altsetting < 1 || itf.altsetting == nullptr)
        return nullptr;
    const libusb_interface_descriptor* alt = &itf.altsetting[0];
    if (alt->bInterfaceClass != LIBUSB_CLASS_PRINTER || alt->bNumEndpoints == 0 || alt->endpoint == nullptr)
        return nullptr;
    return alt;
}

// The last bulk endpoint of each direction; interrupt endpoints are status
// channels, never the way for data. A direction without one gives 0.
void bulk_endpoints(const libusb_interface_descriptor& alt, uint8_t& out_ep, uint8_t& in_ep)
{
    out_ep = 0;
    in_ep = 0;
    for (uint8_t e = 0; alt.endpoint != nullptr && e < alt.bNumEndpoints; ++e) {
        const libusb_endpoint_descriptor& ep = alt.endpoint[e];
        if ((ep.bmAttributes & LIBUSB_TRANSFER_TYPE_MASK) != LIBUSB_TRANSFER_TYPE_BULK)
            continue;
        (ep.bEndpointAddress & LIBUSB_ENDPOINT_IN ? in_ep : out_ep) = ep.bEndpointAddress;
    }
}

// Another alternate setting of interface 0 that is of the printer class and
// goes both ways (USB-to-parallel cables, office lasers: setting 0 only takes
// data); null when there is none.
const libusb_interface_descriptor* two_way_setting(const usb::Config& cfg)
{
    const libusb_interface& itf = cfg->interface[0];
    for (int a = 1; a < itf.num_altsetting; ++a) {
        uint8_t out_ep = 0, in_ep = 0;
        bulk_endpoints(itf.altsetting[a], out_ep, in_ep);
        if (itf.altsetting[a].bInterfaceClass == LIBUSB_CLASS_PRINTER && out_ep != 0 && in_ep != 0)
            return &itf.altsetting[a];
    }
    return nullptr;
}

void set_hex_format(std::ios_base& os)
{
    os.setf(std::ios_base::hex, std::ios_base::basefield);
    os.setf(std::ios_base::uppercase);
}

} // namespace

// ---- UsbDevInfo -------------------------------------------------------------

UsbDevInfo::UsbDevInfo() : vid(0), pid(0), hdl(nullptr), itf(0), out_ep(0), in_ep(0), alt(0) {}
UsbDevInfo::UsbDevInfo(const UsbDevInfo& other) = default;
UsbDevInfo::~UsbDevInfo() = default;

plog::Record& operator<<(plog::Record& record, const UsbDevInfo& dev)
{
    std::ostringstream oss;
    set_hex_format(oss);
    oss.fill('0');
    oss << "vid=" << std::setw(4) << dev.vid << ",pid=" << std::setw(4) << dev.pid;
    oss << ",sn=" << dev.sn.c_str() << ",hdl=" << dev.hdl;
    oss << ",itf=" << std::setw(2) << int(dev.itf) << ",out_ep=" << std::setw(2) << int(dev.out_ep)
        << ",in_ep=" << std::setw(2) << int(dev.in_ep);
    return record << oss.str().c_str();
}

std::wostream& operator<<(std::wostream& os, const UsbDevInfo& dev)
{
    std::wostringstream woss;
    set_hex_format(woss);
    woss.fill(L'0');
    woss << L"vid=" << std::setw(4) << dev.vid << L",pid=" << std::setw(4) << dev.pid << L",sn=";
    for (const char* c = dev.sn.c_str(); *c; ++c)
        woss << woss.widen(*c);
    return os << woss.str() << std::endl;
}

// ---- usb:: helpers ------------------------------------------------------------

namespace usb {

std::string get_err_msg(int32_t code)
{
    return libusb_strerror(code);
}

std::string get_str_desc(libusb_device_handle* handle, uint8_t index)
{
    std::vector<unsigned char> buf(str_desc_capacity, 0);
    const int r = libusb_get_string_descriptor_ascii(handle, index, buf.data(), static_cast<int>(buf.size()));
    if (r < 0) {
        USB_LOG_HERE(plog::warning) << get_err_msg(r);
        return std::string();
    }
    const char* text = reinterpret_cast<const char*>(buf.data());
    return std::string(text, strnlen(text, buf.size()));
}

std::string device_id_text(const unsigned char* reply, size_t size)
{
    if (reply == nullptr || size <= 2)
        return std::string();
    const char* text = reinterpret_cast<const char*>(reply) + 2;
    return std::string(text, strnlen(text, size - 2));
}

DeviceList::DeviceList() : _devs(nullptr) {}

DeviceList::~DeviceList()
{
    if (_devs != nullptr)
        libusb_free_device_list(_devs, 1);
}

DeviceList::operator libusb_device**() const
{
    return _devs;
}

DeviceList::operator libusb_device***()
{
    return &_devs;
}

libusb_device* DeviceList::operator[](int i) const
{
    return _devs[i];
}

Config::Config() : _cfg(nullptr) {}

Config::Config(libusb_device* device) : _cfg(nullptr)
{
    if (libusb_get_active_config_descriptor(device, &_cfg) != 0)
        _cfg = nullptr;
}

Config::~Config()
{
    if (_cfg != nullptr)
        libusb_free_config_descriptor(_cfg);
}

const libusb_config_descriptor* Config::operator->() const
{
    return _cfg;
}

const libusb_config_descriptor* Config::get() const
{
    return _cfg;
}

} // namespace usb

// ---- UsbManager: life and enumeration ----------------------------------------

UsbManager::UsbManager() : _vid_filter(0), _ctx(nullptr), _hdl(nullptr), _init_result(0), _claim_result(0)
{
    libusb_context* ctx = nullptr;
    _init_result = libusb_init(&ctx);
    _ctx = _init_result == 0 ? ctx : nullptr;
}

UsbManager::UsbManager(uint16_t vid) : UsbManager()
{
    _vid_filter = vid;
}

UsbManager::~UsbManager()
{
    close_devices();
    if (_ctx != nullptr)
        libusb_exit(static_cast<libusb_context*>(_ctx));
}

void UsbManager::close_devices()
{
    close();
    for (const UsbDevInfo& dev : _devs)
        if (dev.hdl != nullptr)
            libusb_close(static_cast<libusb_device_handle*>(dev.hdl));
    _devs.clear();
    _open_failures.clear();
}

UsbManager& UsbManager::enumerate()
{
    // Handles into the old list would dangle: release them before rebuilding.
    close_devices();

    if (_ctx == nullptr) {  // no usable USB stack on this machine
        USB_LOG_HERE(plog::warning) << usb::get_err_msg(_init_result);
        return *this;
    }

    usb::DeviceList list;
    const ssize_t n = libusb_get_device_list(static_cast<libusb_context*>(_ctx), list);
    if (n == 0) {
        USB_LOG_HERE(plog::debug) << "no printer";
        return *this;
    }
    if (n < 0) {
        USB_LOG_HERE(plog::warning) << usb::get_err_msg(static_cast<int32_t>(n));
        return *this;
    }

    for (ssize_t i = 0; i < n; ++i) {
        libusb_device* device = list[static_cast<int>(i)];
        UsbDevInfo dev;
        usb::Config cfg(device);

        const libusb_interface_descriptor* alt = printer_interface(cfg);
        libusb_device_descriptor desc;
        if (alt == nullptr || libusb_get_device_descriptor(device, &desc) != 0) {
            USB_LOG_HERE(plog::debug) << "not printer, skip";
            continue;
        }
        dev.vid = desc.idVendor;
        dev.pid = desc.idProduct;
        if (_vid_filter != 0 && dev.vid != _vid_filter) {
            USB_LOG_HERE(plog::debug) << "VID is not excepted, skip";
            continue;
        }

        libusb_device_handle* handle = nullptr;
        const int r = libusb_open(device, &handle);
        if (r != 0) {
            USB_LOG_HERE(plog::warning) << "failed to open device: " << usb::get_err_msg(r);
            _open_failures.push_back(
                {dev.vid, dev.pid, libusb_get_bus_number(device), libusb_get_device_address(device), r});
            continue;
        }
        // The kernel's printer driver steps aside while the interface is claimed.
        libusb_set_auto_detach_kernel_driver(handle, 1);
        dev.sn = usb::get_str_desc(handle, desc.iSerialNumber);
        dev.hdl = handle;
        dev.itf = alt->bInterfaceNumber;
        bulk_endpoints(*alt, dev.out_ep, dev.in_ep);
        const libusb_interface_descriptor* two_way = dev.in_ep == 0 ? two_way_setting(cfg) : nullptr;
        if (two_way != nullptr) {  // open() selects it
            bulk_endpoints(*two_way, dev.out_ep, dev.in_ep);
            dev.alt = two_way->bAlternateSetting;
        }
        _devs.push_back(dev);
        USB_LOG_HERE(plog::debug) << dev;
    }
    return *this;
}

size_t UsbManager::size() const
{
    return _devs.size();
}

const UsbDevInfo& UsbManager::operator[](size_t idx) const
{
    return _devs[idx];
}

const std::vector<UsbManager::OpenFailure>& UsbManager::open_failures() const
{
    return _open_failures;
}

int UsbManager::claim_result() const
{
    return _claim_result;
}

bool UsbManager::place(size_t idx, uint8_t& bus, uint8_t& address) const
{
    if (idx >= _devs.size() || _devs[idx].hdl == nullptr)
        return false;
    libusb_device* device = libusb_get_device(static_cast<libusb_device_handle*>(_devs[idx].hdl));
    bus = libusb_get_bus_number(device);
    address = libusb_get_device_address(device);
    return true;
}

// ---- Selection ------------------------------------------------------------------

// A failed claim still selects the record: the first transfer reports the problem.
// Releasing the interface puts it back to setting 0 (the kernel does).
void* UsbManager::open(std::vector<UsbDevInfo>::iterator iter)
{
    libusb_device_handle* handle = static_cast<libusb_device_handle*>(iter->hdl);
    int r = libusb_claim_interface(handle, iter->itf);
    if (r == 0 && iter->alt != 0)
        r = libusb_set_interface_alt_setting(handle, iter->itf, iter->alt);
    _claim_result = r;
    if (r != 0) {
        USB_LOG(plog::warning, open_iter_func) << usb::get_err_msg(r);
    }
    _hdl = &*iter;
    return _hdl;
}

void* UsbManager::open(size_t idx)
{
    if (idx < _devs.size())
        return open(_devs.begin() + static_cast<std::ptrdiff_t>(idx));
    USB_LOG(plog::warning, open_idx_func) << "index is out of range";
    return invalid_handle;
}

void* UsbManager::open(const std::string& name)
{
    if (name.empty()) {
        USB_LOG(plog::info, open_name_func) << "name is blank, open first one";
        return open(size_t(0));
    }
    auto match = std::find_if(_devs.begin(), _devs.end(), [&name](const UsbDevInfo& dev) {
        USB_LOG(plog::debug, open_name_cmp_func) << "compare name: " << name << "," << dev.name;
        return dev.name == name;
    });
    if (match != _devs.end())
        return open(match);
    USB_LOG(plog::warning, open_name_func) << "none of existing devices matched";
    return invalid_handle;
}

bool UsbManager::is_handle_valid(const void* handle)
{
    return handle != nullptr && handle != invalid_handle;
}

bool UsbManager::is_valid() const
{
    return is_handle_valid(_hdl);
}

UsbManager::operator bool() const
{
    return is_valid();
}

const void* UsbManager::get_handle() const
{
    return _hdl;
}

void UsbManager::close(const void* handle)
{
    if (is_handle_valid(handle))
        libusb_release_interface(libusb_handle_of(handle), record_of(handle).itf);
}

void UsbManager::close()
{
    close(_hdl);
    _hdl = nullptr;
}

// ---- Bulk transfers -------------------------------------------------------------

// Each call is one synchronous transfer: no chunking, no retry, no halt clearing.
int UsbManager::write(const void* handle, const char* buf, size_t len, size_t timeout)
{
    int code = 0;
    return write(handle, buf, len, timeout, &code);
}

int UsbManager::write(const void* handle, const char* buf, size_t len, size_t timeout, int* code)
{
    *code = LIBUSB_ERROR_INVALID_PARAM;
    if (!is_handle_valid(handle))
        return -1;
    *code = 0;
    if (buf == nullptr || len == 0)
        return 0;
    if (len > INT_MAX) {
        *code = LIBUSB_ERROR_INVALID_PARAM;
        USB_LOG(plog::warning, write_func) << usb::get_err_msg(*code);
        return -1;
    }
    int sent = 0;
    *code = libusb_bulk_transfer(libusb_handle_of(handle), record_of(handle).out_ep,
                                 reinterpret_cast<unsigned char*>(const_cast<char*>(buf)), static_cast<int>(len),
                                 &sent, static_cast<unsigned int>(timeout));
    if (*code != 0) {
        USB_LOG(plog::warning, write_func) << usb::get_err_msg(*code);
        return -1;
    }
    USB_LOG(plog::debug, write_func) << "wrote " << sent << " bytes";
    return sent;
}

int UsbManager::read(const void* handle, std::vector<char>& buf, size_t timeout)
{
    int code = 0;
    return read(handle, buf, timeout, &code);
}

int UsbManager::read(const void* handle, std::vector<char>& buf, size_t timeout, int* code)
{
    *code = LIBUSB_ERROR_INVALID_PARAM;
    if (!is_handle_valid(handle))
        return -1;
    if (!(record_of(handle).in_ep & LIBUSB_ENDPOINT_IN))  // a printer that only takes data
        *code = LIBUSB_ERROR_NOT_FOUND;
    if (buf.size() > INT_MAX || *code == LIBUSB_ERROR_NOT_FOUND) {
        USB_LOG(plog::warning, read_func) << usb::get_err_msg(*code);
        return -1;
    }
    int received = 0;
    *code = libusb_bulk_transfer(libusb_handle_of(handle), record_of(handle).in_ep,
                                 reinterpret_cast<unsigned char*>(buf.data()), static_cast<int>(buf.size()),
                                 &received, static_cast<unsigned int>(timeout));
    if (*code != 0) {
        USB_LOG(plog::warning, read_func) << usb::get_err_msg(*code);
        return -1;
    }
    USB_LOG(plog::debug, read_func) << "read " << received << " bytes";
    return received;
}

int UsbManager::write(const char* buf, size_t len, size_t timeout) const
{
    return write(_hdl, buf, len, timeout);
}

int UsbManager::read(std::vector<char>& buf, size_t timeout) const
{
    return read(_hdl, buf, timeout);
}

int UsbManager::read(char* buf, size_t len, size_t timeout) const
{
    if (buf == nullptr)
        return -1;
    std::vector<char> tmp(buf, buf + len);
    const int r = read(_hdl, tmp, timeout);
    if (r > 0)
        std::copy(tmp.begin(), tmp.begin() + r, buf);
    return r;
}

// ---- Printer-class requests -------------------------------------------------------

// wIndex stays 0: the requests address interface 0, alternate setting 0.
bool UsbManager::get_1284_id(const void* handle, std::string& out_buf, size_t timeout)
{
    if (!is_handle_valid(handle))
        return false;
    std::vector<unsigned char> buf(device_id_capacity, 0);
    const int r = libusb_control_transfer(libusb_handle_of(handle), printer_class_request, get_device_id_request, 0, 0,
                                          buf.data(), device_id_capacity, static_cast<unsigned int>(timeout));
    if (r < 0) {
        USB_LOG(plog::warning, get_1284_id_func) << usb::get_err_msg(r);
        return false;
    }
    out_buf = usb::device_id_text(buf.data(), buf.size());
    return true;
}

bool UsbManager::get_lpt_status(const void* handle, uint8_t& out_byte, size_t timeout)
{
    if (!is_handle_valid(handle))
        return false;
    unsigned char status = 0;  // what a zero-byte answer reports
    const int r = libusb_control_transfer(libusb_handle_of(handle), printer_class_request, get_port_status_request, 0,
                                          0, &status, 1, static_cast<unsigned int>(timeout));
    if (r < 0) {
        USB_LOG(plog::warning, get_lpt_status_func) << usb::get_err_msg(r);
        return false;
    }
    out_byte = status;
    return true;
}

// ---- Text ---------------------------------------------------------------------------

// Under the caller's locale; a character the locale cannot represent gives "".
std::string UsbManager::wcstombs(const std::wstring& text)
{
    const size_t n = std::wcstombs(nullptr, text.c_str(), 0);
    if (n == static_cast<size_t>(-1))
        return std::string();
    std::vector<char> buf(n + 1, 0);
    std::wcstombs(buf.data(), text.c_str(), n);
    return std::string(buf.data());
}

// ---- Flat interface -----------------------------------------------------------------

extern "C" {

void* usb_mgr_new(void)
{
    return new UsbManager();
}

void usb_mgr_free(void* mgr)
{
    delete static_cast<UsbManager*>(mgr);
}

void usb_mgr_enumerate(void* mgr)
{
    if (mgr != nullptr)
        static_cast<UsbManager*>(mgr)->enumerate();
}

size_t usb_mgr_get_size(void* mgr)
{
    return mgr != nullptr ? static_cast<UsbManager*>(mgr)->size() : 0;
}

const void* usb_mgr_open(void* mgr, size_t idx)
{
    return mgr != nullptr ? static_cast<UsbManager*>(mgr)->open(idx) : nullptr;
}

// The class refuses a null or all-ones handle with -1.
int usb_handle_write(const void* handle, const uint8_t* data, size_t len, size_t timeout)
{
    return usb_handle_write_ex(handle, data, len, timeout, nullptr);
}

int usb_handle_write_ex(const void* handle, const uint8_t* data, size_t len, size_t timeout, int* code)
{
    int ignored = 0;
    return UsbManager::write(handle, reinterpret_cast<const char*>(data), len, timeout, code ? code : &ignored);
}

// On success the whole requested capacity of *buf is overwritten (zeros behind
// the reply) and *len says how much came from the device; on failure neither
// is touched.
int usb_handle_read(const void* handle, uint8_t** buf, int32_t* len, size_t timeout)
{
    return usb_handle_read_ex(handle, buf, len, timeout, nullptr);
}

int usb_handle_read_ex(const void* handle, uint8_t** buf, int32_t* len, size_t timeout, int* code)
{
    int ignored = 0;
    int* result = code ? code : &ignored;
    *result = LIBUSB_ERROR_INVALID_PARAM;
    if (buf == nullptr || *buf == nullptr || len == nullptr || *len < 0)
        return -1;
    std::vector<char> tmp(static_cast<size_t>(*len), 0);
    const int r = UsbManager::read(handle, tmp, timeout, result);
    if (r >= 0) {
        std::copy(tmp.begin(), tmp.end(), reinterpret_cast<char*>(*buf));
        *len = r;
    }
    return r;
}

void usb_handle_free(const void* handle)
{
    UsbManager::close(handle);
}

int usb_mgr_get_record(void* mgr, size_t idx, usb_dev_summary* out)
{
    if (mgr == nullptr || out == nullptr)
        return -1;
    const UsbManager& m = *static_cast<UsbManager*>(mgr);
    if (!m.place(idx, out->bus, out->address))
        return -1;
    out->vid = m[idx].vid;
    out->pid = m[idx].pid;
    out->serial = m[idx].sn.c_str();
    out->in_ep = m[idx].in_ep;
    return 0;
}

int usb_mgr_get_open_failure(void* mgr, size_t i, usb_dev_summary* out)
{
    if (mgr == nullptr || out == nullptr)
        return 0;
    const auto& failures = static_cast<UsbManager*>(mgr)->open_failures();
    if (i >= failures.size())
        return 0;
    const UsbManager::OpenFailure& f = failures[i];
    *out = {f.vid, f.pid, f.bus, f.address, "", 0};
    return f.code;
}

int usb_mgr_get_claim_result(void* mgr)
{
    return mgr != nullptr ? static_cast<UsbManager*>(mgr)->claim_result() : -1;
}

const char* usb_get_err_text(int code)
{
    return libusb_strerror(code);
}

} // extern "C"
