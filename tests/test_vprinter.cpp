// The virtual printer's own kernel-like behaviour, through the real libusb,
// and the corpus of real printers it is fed.
#include "vprinter.h"

#include <gtest/gtest.h>
#include <libusb.h>

#include <fstream>
#include <memory>
#include <set>
#include <sstream>

using vprinter::Bytes;
using vprinter::DeviceSpec;

namespace {

const uint8_t read_netcfg[] = {0x1B, 0x5E, 0x49, 0x53, 0x52};
const char netcfg_hex[] = "00c0a80164c0a80101ffffff00";

// Interface 0: alternate setting 0 takes data only (bulk OUT 01); setting 1
// answers too (bulk OUT 01, bulk IN 82, interrupt IN 83). String 3, the
// serial number, is refused.
DeviceSpec two_settings()
{
    DeviceSpec d;
    Bytes dev = {18, 1, 0x10, 0x01, 0, 0, 0, 8, 0x34, 0x12, 0x78, 0x56, 0x00, 0x01, 1, 2, 3, 1};
    Bytes cfg = {9, 2, 0, 0, 1, 1, 0, 0xC0, 1,
                 9, 4, 0, 0, 1, 7, 1, 1, 0,
                 7, 5, 0x01, 2, 64, 0, 0,
                 9, 4, 0, 1, 3, 7, 1, 2, 0,
                 7, 5, 0x01, 2, 64, 0, 0,
                 7, 5, 0x82, 2, 64, 0, 0,
                 7, 5, 0x83, 3, 8, 0, 10};
    cfg[2] = static_cast<uint8_t>(cfg.size());
    d.descriptors = dev;
    d.descriptors.insert(d.descriptors.end(), cfg.begin(), cfg.end());
    d.strings = {{1, "Maker"}, {2, "Model  "}, {3, std::nullopt}};
    return d;
}

struct Usb {
    libusb_context* ctx = nullptr;
    libusb_device_handle* h = nullptr;
    Usb()
    {
        if (libusb_init(&ctx) == 0)
            h = libusb_open_device_with_vid_pid(ctx, 0x1234, 0x5678);
    }
    ~Usb()
    {
        if (h)
            libusb_close(h);
        if (ctx)
            libusb_exit(ctx);
    }
};

std::string sysfs(const std::string& attr)
{
    std::ifstream in("/sys/devices/1-10/" + attr);
    if (!in)
        return "(absent)";
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

} // namespace

// One transfer after the claim (and SET_INTERFACE when alt is 1), with the
// read command already sent on bulk OUT.
TEST(VirtualPrinter, EndpointsAsTheKernelServesThem)
{
    struct Case {
        const char* name;
        int alt;
        unsigned char endpoint;
        int expected;
        const char* data;  // read: what comes back, hex
    } const cases[] = {
        {"bulk OUT takes a frame", 0, 0x01, LIBUSB_SUCCESS, ""},
        {"an IN endpoint of another setting is refused", 0, 0x82, LIBUSB_ERROR_IO, ""},
        {"an endpoint no setting declares is refused", 0, 0x05, LIBUSB_ERROR_IO, ""},
        {"a bad endpoint address is refused", 0, 0x31, LIBUSB_ERROR_IO, ""},
        {"SET_INTERFACE brings the bulk IN endpoint: the reply", 1, 0x82, LIBUSB_SUCCESS, netcfg_hex},
        {"interrupt IN never carries the reply", 1, 0x83, LIBUSB_ERROR_TIMEOUT, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        vprinter::Scene scene;
        scene.devices = {two_settings()};
        vprinter::Testbed bed(scene);
        Usb usb;
        ASSERT_NE(usb.h, nullptr);
        ASSERT_EQ(libusb_claim_interface(usb.h, 0), LIBUSB_SUCCESS);
        if (c.alt) {
            ASSERT_EQ(libusb_set_interface_alt_setting(usb.h, 0, c.alt), LIBUSB_SUCCESS);
        }
        int n = 0;
        ASSERT_EQ(libusb_bulk_transfer(usb.h, 0x01, const_cast<uint8_t*>(read_netcfg), sizeof read_netcfg, &n, 1000),
                  LIBUSB_SUCCESS);
        uint8_t buf[64] = {};
        n = 0;
        const int len = c.endpoint & 0x80 ? int(sizeof buf) : int(sizeof read_netcfg);
        if (!(c.endpoint & 0x80))
            memcpy(buf, read_netcfg, sizeof read_netcfg);
        EXPECT_EQ(libusb_bulk_transfer(usb.h, c.endpoint, buf, len, &n, 200), c.expected);
        if (c.endpoint & 0x80) {
            EXPECT_EQ(vprinter::to_hex(buf, size_t(n)), c.data);
        }
        const size_t frames = 1 + (c.endpoint == 0x01 ? 1 : 0);
        EXPECT_EQ(bed.frames().size(), frames);
        if (c.endpoint == 0x83) {  // the reply waits on the bulk IN endpoint all along
            EXPECT_EQ(libusb_bulk_transfer(usb.h, 0x82, buf, sizeof buf, &n, 200), LIBUSB_SUCCESS);
            EXPECT_EQ(vprinter::to_hex(buf, size_t(n)), netcfg_hex);
        }
        libusb_release_interface(usb.h, 0);
    }
}

// Strings the device refuses, settings that do not exist, and what udev sees.
TEST(VirtualPrinter, StringsSettingsAndSysfs)
{
    vprinter::Scene scene;
    scene.devices = {two_settings()};
    vprinter::Testbed bed(scene);
    Usb usb;
    ASSERT_NE(usb.h, nullptr);
    unsigned char text[64];
    EXPECT_EQ(libusb_get_string_descriptor_ascii(usb.h, 2, text, sizeof text), 7);
    EXPECT_EQ(libusb_get_string_descriptor_ascii(usb.h, 3, text, sizeof text), LIBUSB_ERROR_PIPE);
    EXPECT_EQ(sysfs("product"), "Model  \n");
    EXPECT_EQ(sysfs("serial"), "(absent)");
    EXPECT_EQ(sysfs("1-10:1.0/bInterfaceProtocol") + sysfs("1-10:1.0/bNumEndpoints"), "01\n01\n");

    EXPECT_EQ(libusb_claim_interface(usb.h, 1), LIBUSB_ERROR_NOT_FOUND);
    ASSERT_EQ(libusb_claim_interface(usb.h, 0), LIBUSB_SUCCESS);
    EXPECT_EQ(libusb_set_interface_alt_setting(usb.h, 0, 2), LIBUSB_ERROR_NOT_FOUND);
    ASSERT_EQ(libusb_set_interface_alt_setting(usb.h, 0, 1), LIBUSB_SUCCESS);
    EXPECT_EQ(sysfs("1-10:1.0/bAlternateSetting") + sysfs("1-10:1.0/bInterfaceProtocol"), " 1\n02\n");
    ASSERT_EQ(bed.control_requests().size(), 1u);
    EXPECT_EQ(bed.control_requests()[0].request, 11);  // SET_INTERFACE reached the device
    libusb_release_interface(usb.h, 0);
    EXPECT_EQ(sysfs("1-10:1.0/bAlternateSetting"), " 0\n");  // unbound: back to setting 0
}

// Every line of the corpus is the bytes a device returns: a device descriptor,
// then a configuration whose lengths and counts agree with its bytes.
TEST(VirtualPrinter, CorpusIsWellFormed)
{
    const std::vector<vprinter::CorpusDevice> corpus = vprinter::load_corpus(CORPUS);
    EXPECT_GE(corpus.size(), 25u);
    std::set<std::string> names;
    for (const vprinter::CorpusDevice& c : corpus) {
        SCOPED_TRACE(c.name);
        EXPECT_TRUE(names.insert(c.name).second) << "the name is taken";
        EXPECT_FALSE(c.source.empty());
        const Bytes& d = c.device.descriptors;
        ASSERT_GE(d.size(), 27u);
        EXPECT_EQ(vprinter::to_hex(d.data(), 2), "1201");
        EXPECT_EQ(vprinter::to_hex(d.data() + 18, 2), "0902");
        EXPECT_EQ(size_t(d[20] | d[21] << 8), d.size() - 18) << "wTotalLength";
        const vprinter::Layout l = vprinter::walk(d);
        EXPECT_EQ(l.vid, c.device.vid);
        EXPECT_EQ(l.pid, c.device.pid);
        EXPECT_EQ(l.interfaces().size(), size_t(d[22])) << "bNumInterfaces";
        size_t pos = 18, walked = 0;
        unsigned declared = 0, found = 0;
        while (pos + 1 < d.size() && d[pos] >= 2) {
            if (d[pos + 1] == 4) {
                declared += d[pos + 4];
                ++walked;
            }
            found += d[pos + 1] == 5 ? 1 : 0;
            pos += d[pos];
        }
        EXPECT_EQ(pos, d.size()) << "the descriptors' lengths add up to the bytes";
        EXPECT_EQ(walked, l.settings.size());
        EXPECT_EQ(found, declared) << "bNumEndpoints";
        // The same walk on every cut and every spoiled byte stays inside the bytes.
        for (size_t i = 0; i < d.size(); ++i) {
            Bytes bad(d.begin(), d.begin() + long(i));
            vprinter::walk(bad);
            vprinter::usb_interfaces(bad);
            for (uint8_t v : {uint8_t(0), uint8_t(1), uint8_t(0xFF)}) {
                bad = d;
                bad[i] = v;
                vprinter::walk(bad);
                vprinter::usb_interfaces(bad);
            }
        }
    }
}

int main(int argc, char** argv)
{
    vprinter::reexec_under_wrapper(argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
