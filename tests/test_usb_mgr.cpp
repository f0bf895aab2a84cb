// The USB manager on the real libusb, against emulated printers.
#include "COMMON/devmgr/usb_mgr.h"
#include "support.h"
#include "vprinter.h"

#include <gtest/gtest.h>
#include <libusb.h>
#include <plog/Log.h>

#include <clocale>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

using testing_support::Capture;
using vprinter::DeviceSpec;
using vprinter::Kind;
using vprinter::Scene;
using vprinter::Testbed;

namespace {

void* const all_ones = reinterpret_cast<void*>(~uintptr_t(0));
const char read_netcfg[] = "\x1B\x5E\x49\x53\x52";
const char netcfg_hex[] = "00c0a80164c0a80101ffffff00";

Scene scene_of(std::vector<DeviceSpec> devices)
{
    Scene s;
    s.devices = std::move(devices);
    return s;
}

DeviceSpec printer(const std::string& serial = "VP0001")
{
    DeviceSpec p;
    p.serial = serial;
    return p;
}

DeviceSpec of_kind(Kind kind)
{
    DeviceSpec d;
    d.kind = kind;
    return d;
}

std::string hdl_text(const void* p)
{
    std::ostringstream s;
    s << p;
    return s.str();
}

// Exposes the protected parts that the tests look at.
class Probe : public UsbManager {
public:
    using UsbManager::UsbManager;
    using UsbManager::wcstombs;
    const void* current() const { return _hdl; }
    void set_current(void* h) { _hdl = h; }
    void set_names(const std::vector<std::string>& names)
    {
        for (size_t i = 0; i < names.size() && i < _devs.size(); ++i)
            _devs[i].name = names[i];
    }
};

// An emulated scene with its first printer opened.
struct Opened {
    explicit Opened(const Scene& scene) : bed(scene)
    {
        mgr.enumerate();
        handle = mgr.open(size_t(0));
    }
    Testbed bed;
    UsbManager mgr;
    const void* handle = nullptr;
};

class UsbMgr : public ::testing::Test {
protected:
    void SetUp() override { log.clear(); }
    Capture& log = Capture::install();
};

} // namespace

TEST_F(UsbMgr, EnumerationListsPrintersAndLogsEverySkip)
{
    struct Case {
        const char* name;
        std::vector<DeviceSpec> devices;
        uint16_t vid_filter;
        std::vector<std::string> serials;  // of the listed printers, in order
        std::vector<std::string> log;      // expected lines, "*" for a printer record
    };
    DeviceSpec no_serial = printer("");
    DeviceSpec unopenable = printer("VP0009");
    unopenable.unopenable = true;
    const std::string open_failure = std::string("W:failed to open device: ") +
                                     (geteuid() == 0 ? "No such device (it may have been disconnected)"
                                                     : "Access denied (insufficient permissions)");
    const std::vector<Case> cases = {
        {"no device", {}, 0, {}, {"D:no printer"}},
        {"keyboards only", {of_kind(Kind::Other), of_kind(Kind::Other)}, 0, {}, {"D:not printer, skip", "D:not printer, skip"}},
        {"two printers keep the list order", {printer("A1"), printer("B2")}, 0, {"A1", "B2"}, {"*", "*"}},
        {"vendor filter", {printer()}, 0x04B8, {}, {"D:VID is not excepted, skip"}},
        {"vendor filter match", {printer()}, 0x1A2B, {"VP0001"}, {"*"}},
        {"cannot open", {unopenable, printer("VP0002")}, 0, {"VP0002"}, {open_failure, "*"}},
        {"no interface", {of_kind(Kind::NoInterface), printer()}, 0, {"VP0001"}, {"D:not printer, skip", "*"}},
        {"no endpoint", {of_kind(Kind::NoEndpoint), printer()}, 0, {"VP0001"}, {"D:not printer, skip", "*"}},
        {"no serial string", {no_serial}, 0, {""}, {"W:Invalid parameter", "*"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Testbed bed(scene_of(c.devices));
        log.clear();
        {
            UsbManager mgr = c.vid_filter ? UsbManager(c.vid_filter) : UsbManager();
            mgr.enumerate();
            ASSERT_EQ(mgr.size(), c.serials.size());
            const std::vector<std::string> got = log.messages();
            ASSERT_EQ(got.size(), c.log.size());
            size_t rec = 0;
            for (size_t i = 0; i < got.size(); ++i) {
                if (c.log[i] != "*") {
                    EXPECT_EQ(got[i], c.log[i]);
                    continue;
                }
                const UsbDevInfo& d = mgr[rec++];
                EXPECT_EQ(got[i], "D:vid=1A2B,pid=00C4,sn=" + d.sn + ",hdl=" + hdl_text(d.hdl) +
                                      ",itf=00,out_ep=01,in_ep=82");
            }
            for (size_t i = 0; i < mgr.size(); ++i) {
                EXPECT_EQ(mgr[i].sn, c.serials[i]);
                EXPECT_NE(mgr[i].hdl, nullptr);
                EXPECT_TRUE(mgr[i].name.empty());
            }
        }
    }
}

TEST_F(UsbMgr, EndpointChoiceTakesTheLastOfEachDirection)
{
    DeviceSpec p = printer();
    p.interface_number = 3;
    p.endpoints = {0x81, 0x02, 0x83, 0x04};
    Testbed bed(scene_of({p}));
    UsbManager mgr;
    mgr.enumerate();
    ASSERT_EQ(mgr.size(), 1u);
    EXPECT_EQ(mgr[0].itf, 3);
    EXPECT_EQ(mgr[0].in_ep, 0x83);
    EXPECT_EQ(mgr[0].out_ep, 0x04);
}

// The expectations for the corpus of real printers: one row a printer.
struct Expected {
    std::string name;
    bool listed = false;
    unsigned itf = 0, alt = 0, out_ep = 0, in_ep = 0;
};

std::vector<Expected> expected_table()
{
    std::ifstream in(CORPUS_EXPECTED);
    std::vector<Expected> rows;
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#' || line.rfind("name\t", 0) == 0)
            continue;
        std::vector<std::string> cell;
        std::stringstream cells(line);
        for (std::string c; std::getline(cells, c, '\t');)
            cell.push_back(c);
        Expected e;
        e.name = cell.at(0);
        e.listed = cell.at(1) == "yes";
        e.itf = std::stoul(cell.at(2));
        if (e.listed) {
            e.alt = std::stoul(cell.at(3));
            e.out_ep = std::stoul(cell.at(4), nullptr, 16);
            e.in_ep = std::stoul(cell.at(5), nullptr, 16);
        }
        rows.push_back(e);
    }
    return rows;
}

// Every real printer attached at once: which are listed, the endpoints and
// setting each record takes, the record line, and one exchange with each,
// which reaches the firmware only through the right endpoints of the right
// setting (the emulation refuses the others, and an interrupt IN never answers).
TEST_F(UsbMgr, CorpusPrinters)
{
    const std::vector<vprinter::CorpusDevice> corpus = vprinter::load_corpus(CORPUS);
    const std::vector<Expected> rows = expected_table();
    ASSERT_GE(rows.size(), 25u);
    ASSERT_EQ(rows.size(), corpus.size()) << "one row for each printer of the corpus";
    Scene scene;
    for (const vprinter::CorpusDevice& c : corpus)
        scene.devices.push_back(c.device);
    Testbed bed(scene);
    Probe mgr;
    mgr.enumerate();

    std::vector<std::string> records;
    size_t skipped = 0;
    for (const std::string& m : log.messages()) {
        if (m.rfind("D:vid=", 0) == 0)
            records.push_back(m);
        skipped += m == "D:not printer, skip";
    }
    size_t rec = 0;
    for (size_t i = 0; i < rows.size(); ++i) {
        const Expected& e = rows[i];
        SCOPED_TRACE(e.name);
        ASSERT_EQ(e.name, corpus[i].name) << "the rows follow the corpus";
        if (!e.listed)
            continue;
        ASSERT_LT(rec, mgr.size());
        const UsbDevInfo& d = mgr[rec];
        EXPECT_EQ(d.vid, corpus[i].device.vid);
        EXPECT_EQ(d.pid, corpus[i].device.pid);
        EXPECT_EQ(d.itf, e.itf);
        EXPECT_EQ(d.alt, e.alt);
        EXPECT_EQ(d.out_ep, e.out_ep);
        EXPECT_EQ(d.in_ep, e.in_ep);
        char text[80];
        snprintf(text, sizeof text, ",itf=%02X,out_ep=%02X,in_ep=%02X", e.itf, e.out_ep, e.in_ep);
        char ids[32];
        snprintf(ids, sizeof ids, "D:vid=%04X,pid=%04X,sn=", d.vid, d.pid);
        ASSERT_LT(rec, records.size());
        EXPECT_EQ(records[rec], ids + d.sn + ",hdl=" + hdl_text(d.hdl) + text);

        const void* h = mgr.open(rec);
        EXPECT_EQ(mgr.claim_result(), 0);
        EXPECT_EQ(UsbManager::write(h, read_netcfg, 5, 1000), 5);
        std::vector<char> buf(64, 0);
        if (e.in_ep != 0) {
            ASSERT_EQ(UsbManager::read(h, buf, 1000), 13);
            EXPECT_EQ(vprinter::to_hex(reinterpret_cast<const uint8_t*>(buf.data()), 13), netcfg_hex);
        }
        mgr.close();
        ++rec;
    }
    EXPECT_EQ(rec, mgr.size());
    EXPECT_EQ(skipped, rows.size() - rec);
}

// A printer with no way back has no IN endpoint: a read is refused before
// any transfer, with libusb's text for a missing entity.
TEST_F(UsbMgr, AReadWithoutAnInEndpointIsRefused)
{
    DeviceSpec p = printer();
    p.endpoints = {0x01};
    Opened o(scene_of({p}));
    EXPECT_EQ(o.mgr[0].in_ep, 0);
    log.clear();
    std::vector<char> buf(64, 0);
    int code = 0;
    EXPECT_EQ(UsbManager::read(o.handle, buf, 1000, &code), -1);
    EXPECT_EQ(code, LIBUSB_ERROR_NOT_FOUND);
    EXPECT_EQ(o.bed.transfers(), 0);
    EXPECT_EQ(log.messages(), std::vector<std::string>{"W:Entity not found"});
}

TEST_F(UsbMgr, SecondEnumerationReleasesTheOldRecords)
{
    Testbed bed(scene_of({printer()}));
    Probe mgr;
    mgr.enumerate();
    ASSERT_NE(mgr.open(size_t(0)), all_ones);
    mgr.enumerate();
    EXPECT_EQ(mgr.size(), 1u);
    EXPECT_EQ(mgr.current(), nullptr);
}

TEST_F(UsbMgr, OpeningByIndexAndName)
{
    Testbed bed(scene_of({printer("A"), printer("B"), printer("C")}));
    Probe mgr;
    mgr.enumerate();
    log.clear();

    void* h = mgr.open(size_t(1));
    EXPECT_EQ(h, &mgr[1]);
    EXPECT_EQ(mgr.current(), h);
    EXPECT_TRUE(log.messages().empty());

    EXPECT_EQ(mgr.open(size_t(3)), all_ones);
    EXPECT_EQ(mgr.current(), h) << "a failed selection leaves the current handle";
    EXPECT_EQ(log.messages(), std::vector<std::string>{"W:index is out of range"});

    log.clear();
    EXPECT_EQ(mgr.open(std::string("")), &mgr[0]);
    EXPECT_EQ(log.messages(), std::vector<std::string>{"I:name is blank, open first one"});

    // Enumeration leaves every name empty: a real name never matches.
    log.clear();
    EXPECT_EQ(mgr.open(std::string("P1")), all_ones);
    EXPECT_EQ(log.messages(), (std::vector<std::string>{"D:compare name: P1,", "D:compare name: P1,",
                                                        "D:compare name: P1,", "W:none of existing devices matched"}));
    const std::vector<testing_support::Line> lines = log.lines();
    EXPECT_EQ(lines[3].func, "UsbManager::open");

    // The first of two equal names wins, and the walk stops there.
    mgr.set_names({"x", "dup", "dup"});
    log.clear();
    EXPECT_EQ(mgr.open(std::string("dup")), &mgr[1]);
    EXPECT_EQ(log.messages(), (std::vector<std::string>{"D:compare name: dup,x", "D:compare name: dup,dup"}));
    log.clear();
    EXPECT_EQ(mgr.open(std::string("Dup")), all_ones);
    EXPECT_EQ(mgr.open(std::string("dup ")), all_ones);
}

TEST_F(UsbMgr, OpeningAnEmptyList)
{
    Testbed bed(scene_of({}));
    Probe mgr;
    mgr.enumerate();
    log.clear();
    EXPECT_EQ(mgr.open(size_t(0)), all_ones);
    EXPECT_EQ(mgr.open(std::string("")), all_ones);
    EXPECT_EQ(mgr.open(std::string("x")), all_ones);
    EXPECT_EQ(log.messages(), (std::vector<std::string>{"W:index is out of range", "I:name is blank, open first one",
                                                        "W:index is out of range", "W:none of existing devices matched"}));
    EXPECT_EQ(mgr.current(), nullptr);
}

TEST_F(UsbMgr, BusyInterfaceStillGivesAValidHandle)
{
    Scene s = scene_of({printer()});
    s.faults.busy = true;
    Testbed bed(s);
    UsbManager mgr;
    mgr.enumerate();
    log.clear();
    const void* h = mgr.open(size_t(0));
    EXPECT_TRUE(UsbManager::is_handle_valid(h));
    EXPECT_EQ(log.messages(), std::vector<std::string>{"W:Resource busy"});
}

TEST_F(UsbMgr, HandleValidityAndClose)
{
    int anything = 0;
    EXPECT_FALSE(UsbManager::is_handle_valid(nullptr));
    EXPECT_FALSE(UsbManager::is_handle_valid(all_ones));
    EXPECT_TRUE(UsbManager::is_handle_valid(&anything));
    EXPECT_TRUE(UsbManager::is_handle_valid(reinterpret_cast<void*>(~uintptr_t(0) - 1)));

    Testbed bed(scene_of({printer()}));
    Probe mgr;
    mgr.enumerate();
    log.clear();
    UsbManager::close(nullptr);
    UsbManager::close(all_ones);
    const void* h = mgr.open(size_t(0));
    UsbManager::close(h);
    UsbManager::close(h);
    EXPECT_EQ(mgr.current(), h) << "the static close leaves the current handle";
    EXPECT_TRUE(log.messages().empty());
    mgr.set_current(all_ones);
    mgr.close();
    EXPECT_EQ(mgr.current(), nullptr);
    EXPECT_FALSE(mgr.is_valid());
}

TEST_F(UsbMgr, WriteThenReadPutsExactBytesOnTheBus)
{
    Opened o(scene_of({printer()}));
    const void* h = o.handle;
    log.clear();

    EXPECT_EQ(UsbManager::write(h, read_netcfg, 5, 0), 5);
    std::vector<char> buf(64, '\x55');
    EXPECT_EQ(UsbManager::read(h, buf, 1000), 13);
    EXPECT_EQ(vprinter::to_hex(reinterpret_cast<const uint8_t*>(buf.data()), 13), netcfg_hex);
    EXPECT_EQ(buf.size(), 64u);
    for (size_t i = 13; i < buf.size(); ++i)
        ASSERT_EQ(buf[i], '\x55') << "byte " << i << " behind the reply changed";
    EXPECT_EQ(o.bed.frames(), std::vector<std::string>{"1b5e495352"});
    EXPECT_EQ(log.messages(), (std::vector<std::string>{"D:wrote 5 bytes", "D:read 13 bytes"}));
    const std::vector<testing_support::Line> lines = log.lines();
    EXPECT_EQ(lines[0].func, "UsbManager::write");
    EXPECT_EQ(lines[1].func, "UsbManager::read");

    // Nothing to send: no transfer at all.
    log.clear();
    EXPECT_EQ(UsbManager::write(h, read_netcfg, 0, 0), 0);
    EXPECT_EQ(UsbManager::write(h, nullptr, 5, 0), 0);
    EXPECT_EQ(o.bed.transfers(), 2);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(UsbMgr, PrinterClassRequests)
{
    struct Case {
        const char* name;
        std::string device_id;  // as the printer sends it after the length bytes
        std::string expected;   // "old": the outputs are left as they were
        bool stall;
    };
    const std::string full(1022, 'A');
    const std::vector<Case> cases = {
        {"usual ID", "MFG:Acme;MDL:P1;CMD:ESC;", "MFG:Acme;MDL:P1;CMD:ESC;", false},
        {"cut at a zero byte", std::string("MFG:A\0MDL:B;", 12), "MFG:A", false},
        {"empty", "", "", false},
        {"fills the buffer", full + "overflow", full, false},
        {"stalled", "MFG:Acme;", "old", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        DeviceSpec p = printer();
        p.interface_number = 2;
        Scene s = scene_of({p});
        s.firmware.device_id = c.device_id;
        s.firmware.port_status = 0x08;
        s.faults.stall_control = c.stall;
        Opened o(s);
        const void* h = o.handle;
        log.clear();
        std::string id = "old";
        EXPECT_EQ(UsbManager::get_1284_id(h, id, 1000), !c.stall);
        EXPECT_EQ(id, c.expected);
        uint8_t status = 0x42;
        EXPECT_EQ(UsbManager::get_lpt_status(h, status, 1000), !c.stall);
        EXPECT_EQ(status, c.stall ? 0x42 : 0x08);
        for (const vprinter::ControlRequest& r : o.bed.control_requests()) {
            EXPECT_EQ(r.request_type, 0xA1);
            EXPECT_EQ(r.index, 0) << "the requests always address interface 0";
        }
        if (c.stall) {
            EXPECT_EQ(log.messages(), (std::vector<std::string>{"W:Pipe error", "W:Pipe error"}));
            EXPECT_EQ(log.lines()[0].func, "UsbManager::get_1284_id");
        }
    }
}

TEST_F(UsbMgr, FlatInterface)
{
    // Quiet results without a manager or handle.
    EXPECT_EQ(usb_mgr_get_size(nullptr), 0u);
    EXPECT_EQ(usb_mgr_open(nullptr, 0), nullptr);
    usb_mgr_enumerate(nullptr);
    usb_mgr_free(nullptr);
    usb_handle_free(nullptr);
    uint8_t byte = 1;
    uint8_t* p = &byte;
    int32_t len = 1;
    for (const void* bad : {static_cast<const void*>(nullptr), static_cast<const void*>(all_ones)}) {
        EXPECT_EQ(usb_handle_write(bad, &byte, 1, 0), -1);
        EXPECT_EQ(usb_handle_read(bad, &p, &len, 0), -1);
        EXPECT_EQ(len, 1);
        usb_handle_free(bad);
    }

    Testbed bed(scene_of({printer()}));
    void* mgr = usb_mgr_new();
    EXPECT_EQ(usb_mgr_get_size(mgr), 0u);
    usb_mgr_enumerate(mgr);
    ASSERT_EQ(usb_mgr_get_size(mgr), 1u);
    const void* h = usb_mgr_open(mgr, 0);
    EXPECT_EQ(usb_handle_write(h, reinterpret_cast<const uint8_t*>(read_netcfg), 5, 0), 5);

    std::vector<uint8_t> buf(64, 0xEE);
    uint8_t* data = buf.data();
    len = 64;
    EXPECT_EQ(usb_handle_read(h, &data, &len, 1000), 13);
    EXPECT_EQ(len, 13);
    EXPECT_EQ(vprinter::to_hex(buf.data(), 13), netcfg_hex);
    EXPECT_EQ(std::vector<uint8_t>(buf.begin() + 13, buf.end()), std::vector<uint8_t>(51, 0))
        << "the whole capacity is overwritten";

    // A failed read (nothing to answer) touches neither buffer nor length.
    std::fill(buf.begin(), buf.end(), 0xEE);
    len = 64;
    EXPECT_EQ(usb_handle_read(h, &data, &len, 100), -1);
    EXPECT_EQ(len, 64);
    EXPECT_EQ(buf, std::vector<uint8_t>(64, 0xEE));
    usb_handle_free(h);
    usb_mgr_free(mgr);
}

TEST(UsbText, RecordAndWideForms)
{
    UsbDevInfo d;
    plog::Record r1(plog::debug, "", 0, "", nullptr, 0);
    r1 << d;
    EXPECT_STREQ(r1.getMessage(), "vid=0000,pid=0000,sn=,hdl=0,itf=00,out_ep=00,in_ep=00");

    d.vid = 0xFFFF;
    d.pid = 0x00C4;
    d.sn = std::string("K7Q0012\0junk", 12);
    d.hdl = reinterpret_cast<void*>(0xa5e0);
    d.out_ep = 0x01;
    d.in_ep = 0x8F;
    plog::Record r2(plog::debug, "", 0, "", nullptr, 0);
    r2 << d << " then " << 255;
    EXPECT_STREQ(r2.getMessage(), "vid=FFFF,pid=00C4,sn=K7Q0012,hdl=0xa5e0,itf=00,out_ep=01,in_ep=8F then 255");

    std::wostringstream w;
    w << d << 255;
    EXPECT_EQ(w.str(), L"vid=FFFF,pid=00C4,sn=K7Q0012\n255");
}

TEST(UsbText, NarrowConversionFollowsTheLocale)
{
    const std::string saved = setlocale(LC_CTYPE, nullptr);
    ASSERT_NE(setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
    EXPECT_EQ(Probe::wcstombs(L""), "");
    EXPECT_EQ(Probe::wcstombs(L"abc"), "abc");
    EXPECT_EQ(Probe::wcstombs(L"Gr\u00fc\u00dfe"), "Gr\xc3\xbc\xc3\x9f" "e");
    setlocale(LC_CTYPE, "C");
    EXPECT_EQ(Probe::wcstombs(L"abc"), "abc");
    EXPECT_EQ(Probe::wcstombs(L"Gr\u00fc\u00dfe"), "") << "no partial text";
    setlocale(LC_CTYPE, saved.c_str());
}

int main(int argc, char** argv)
{
    vprinter::reexec_under_wrapper(argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
