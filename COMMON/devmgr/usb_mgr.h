// USB printer manager on libusb-1.0: finds the attached printers, opens one,
// moves bytes over its bulk endpoints and puts printer-class requests to it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

struct libusb_config_descriptor;
struct libusb_device;
struct libusb_device_handle;

namespace plog {
class Record;
}

// One printer found by enumeration. The manager owns the libusb handle in hdl.
struct UsbDevInfo {
    uint16_t vid;
    uint16_t pid;
    std::string sn;
    std::string name;  // matched by open(name); enumeration leaves it empty
    void* hdl;         // libusb_device_handle*, open while the manager lives
    uint8_t itf;
    uint8_t out_ep;  // bulk; 0 when there is none
    uint8_t in_ep;   // bulk; 0 when there is none: the printer has no way back
    uint8_t alt;     // the alternate setting of itf that the endpoints belong to

    UsbDevInfo();
    UsbDevInfo(const UsbDevInfo& other);
    ~UsbDevInfo();
};

// "vid=1A2B,pid=00C4,sn=K7Q0012,hdl=0xa5e0,itf=00,out_ep=01,in_ep=82"
plog::Record& operator<<(plog::Record& record, const UsbDevInfo& dev);
// "vid=1A2B,pid=00C4,sn=K7Q0012" and a line end
std::wostream& operator<<(std::wostream& os, const UsbDevInfo& dev);

namespace usb {

std::string get_err_msg(int32_t code);
std::string get_str_desc(libusb_device_handle* handle, uint8_t index);
// The IEEE 1284 device ID in a GET_DEVICE_ID reply: past the two length bytes,
// up to the first zero byte or the reply's end.
std::string device_id_text(const unsigned char* reply, size_t size);

// Owns the array from libusb_get_device_list (and the device references in it).
class DeviceList {
public:
    DeviceList();
    DeviceList(const DeviceList&) = delete;
    DeviceList& operator=(const DeviceList&) = delete;
    virtual ~DeviceList();

    operator libusb_device**() const;
    operator libusb_device***();  // out-argument for libusb_get_device_list
    libusb_device* operator[](int i) const;

protected:
    libusb_device** _devs;
};

// Owns the active configuration descriptor of one device; null when it could not be read.
class Config {
public:
    Config();
    explicit Config(libusb_device* device);
    Config(const Config&) = delete;
    Config& operator=(const Config&) = delete;
    virtual ~Config();

    const libusb_config_descriptor* operator->() const;
    const libusb_config_descriptor* get() const;

protected:
    libusb_config_descriptor* _cfg;
};

} // namespace usb

// A device handle is the address of a record inside the manager; null and the
// all-ones value select nothing.
class UsbManager {
public:
    UsbManager();
    explicit UsbManager(uint16_t vid);
    UsbManager(const UsbManager&) = delete;
    UsbManager& operator=(const UsbManager&) = delete;
    ~UsbManager();

    UsbManager& enumerate();
    size_t size() const;
    const UsbDevInfo& operator[](size_t idx) const;

    void* open(std::vector<UsbDevInfo>::iterator iter);
    void* open(size_t idx);
    void* open(const std::string& name);
    bool is_valid() const;
    explicit operator bool() const;
    void close();
    const void* get_handle() const;
    static void close(const void* handle);
    static bool is_handle_valid(const void* handle);

    // Time-outs in milliseconds; 0 waits without limit.
    int write(const char* buf, size_t len, size_t timeout) const;
    static int write(const void* handle, const char* buf, size_t len, size_t timeout);
    int read(std::vector<char>& buf, size_t timeout) const;
    int read(char* buf, size_t len, size_t timeout) const;
    static int read(const void* handle, std::vector<char>& buf, size_t timeout);

    // The same transfers, with libusb's result code (0 on success) in *code:
    // callers that must tell a time-out from an unplug use these.
    static int write(const void* handle, const char* buf, size_t len, size_t timeout, int* code);
    static int read(const void* handle, std::vector<char>& buf, size_t timeout, int* code);

    static bool get_1284_id(const void* handle, std::string& out_buf, size_t timeout);
    static bool get_lpt_status(const void* handle, uint8_t& out_byte, size_t timeout);

    // A printer that enumeration had to skip because it could not be opened.
    struct OpenFailure {
        uint16_t vid;
        uint16_t pid;
        uint8_t bus;
        uint8_t address;
        int code;  // libusb's
    };
    const std::vector<OpenFailure>& open_failures() const;
    // libusb's code for the last open's claim of the interface (0: claimed).
    int claim_result() const;
    // Where record idx sits on the bus; false for an index out of range.
    bool place(size_t idx, uint8_t& bus, uint8_t& address) const;

protected:
    static std::string wcstombs(const std::wstring& text);

    std::vector<UsbDevInfo> _devs;
    uint16_t _vid_filter;
    void* _ctx;  // libusb_context*
    void* _hdl;  // the record last opened

private:
    void close_devices();
    int _init_result;
    int _claim_result;
    std::vector<OpenFailure> _open_failures;
};

// Flat interface for the user interface; every function is quiet on a null first argument.
extern "C" {
void* usb_mgr_new(void);
void usb_mgr_free(void* mgr);
void usb_mgr_enumerate(void* mgr);
size_t usb_mgr_get_size(void* mgr);
const void* usb_mgr_open(void* mgr, size_t idx);
int usb_handle_write(const void* handle, const uint8_t* data, size_t len, size_t timeout);
int usb_handle_read(const void* handle, uint8_t** buf, int32_t* len, size_t timeout);
void usb_handle_free(const void* handle);

// What the user interface needs to say what happened, and to which printer.
// Serial texts stay valid while the manager lives.
struct usb_dev_summary {
    uint16_t vid;
    uint16_t pid;
    uint8_t bus;
    uint8_t address;
    const char* serial;  // "" when unknown
    uint8_t in_ep;       // 0: the printer cannot answer (no bulk IN endpoint)
};
// Record idx; 0, or -1 when there is no such record.
int usb_mgr_get_record(void* mgr, size_t idx, struct usb_dev_summary* out);
// The i-th printer that enumeration could not open: libusb's (negative) code,
// or 0 when there is no i-th one. The serial of an unopened device is unknown.
int usb_mgr_get_open_failure(void* mgr, size_t i, struct usb_dev_summary* out);
// libusb's code for the claim of the last open (0: claimed; -1 without a manager).
int usb_mgr_get_claim_result(void* mgr);
// usb_handle_write and usb_handle_read with libusb's result code in *code (may be null).
int usb_handle_write_ex(const void* handle, const uint8_t* data, size_t len, size_t timeout, int* code);
int usb_handle_read_ex(const void* handle, uint8_t** buf, int32_t* len, size_t timeout, int* code);
// libusb's text for a code.
const char* usb_get_err_text(int code);
}
