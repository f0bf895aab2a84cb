// The USB manager on a real kernel: run inside the VM of tests/kernel/run,
// where the kernel's printer gadget (dummy_hcd) is this machine's only USB
// printer and tools/kernel/responder.c plays its firmware.
#include "COMMON/devmgr/usb_mgr.h"

#include <gtest/gtest.h>
#include <libusb.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

const std::string gadget = getenv("KERNEL_GADGET") ? getenv("KERNEL_GADGET") : "";
const std::string responder_program = getenv("KERNEL_RESPONDER") ? getenv("KERNEL_RESPONDER") : "";
const std::string tools = getenv("KERNEL_TOOLS") ? getenv("KERNEL_TOOLS") : "";
const std::string record = "/tmp/gadget-frames";
const uint8_t read_netcfg[] = {0x1B, 0x5E, 0x49, 0x53, 0x52};

bool wait_until(const std::function<bool()>& ready, int seconds = 20)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!ready()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

std::vector<std::string> lines(const std::string& path)
{
    std::ifstream in(path);
    std::vector<std::string> out;
    for (std::string line; std::getline(in, line);)
        out.push_back(line);
    return out;
}

void write_file(const std::string& path, const std::string& text)
{
    std::ofstream(path) << text << std::endl;
}

// The host side's interface of the gadget in sysfs, e.g. /sys/bus/usb/devices/3-1:1.0.
std::string host_interface()
{
    for (int bus = 1; bus < 10; ++bus)
        for (const char* port : {"1", "2"}) {
            const std::string dev = "/sys/bus/usb/devices/" + std::to_string(bus) + "-" + port;
            if (lines(dev + "/idVendor") == std::vector<std::string>{"1a2b"})
                return dev + ":1.0";
        }
    return "";
}

std::string driver_of(const std::string& interface)
{
    char target[256] = {0};
    if (readlink((interface + "/driver").c_str(), target, sizeof target - 1) <= 0)
        return "";
    return strrchr(target, '/') + 1;
}

// The firmware on the gadget side, for the length of one test.
class Responder {
public:
    Responder()
    {
        unlink(record.c_str());
        int ready[2];
        if (pipe(ready) != 0)
            abort();
        pid_ = fork();
        if (pid_ == 0) {
            dup2(ready[1], 2);
            execl(responder_program.c_str(), "kernel-responder", record.c_str(), gadget.c_str(), nullptr);
            _exit(127);
        }
        close(ready[1]);
        char text[32] = {0};
        if (read(ready[0], text, sizeof text - 1) <= 0)
            ADD_FAILURE() << "the responder did not start";
        close(ready[0]);
    }
    ~Responder()
    {
        kill(pid_, SIGCONT);
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
    void pause() { kill(pid_, SIGSTOP); }
    std::vector<std::string> frames() const { return lines(record); }

private:
    pid_t pid_ = -1;
};

// What one exchange came to, in libusb's codes, as the window sees it.
struct Exchange {
    size_t printers = 0;
    int claim = 1, write = 1, read = 1;
};

Exchange exchange()
{
    Exchange ex;
    void* mgr = usb_mgr_new();
    usb_mgr_enumerate(mgr);
    ex.printers = usb_mgr_get_size(mgr);
    if (ex.printers > 0) {
        const void* h = usb_mgr_open(mgr, 0);
        ex.claim = usb_mgr_get_claim_result(mgr);
        usb_handle_write_ex(h, read_netcfg, sizeof read_netcfg, 2000, &ex.write);
        uint8_t buf[64] = {0};
        uint8_t* p = buf;
        int32_t received = sizeof buf;
        usb_handle_read_ex(h, &p, &received, 1000, &ex.read);
        usb_handle_free(h);
    }
    usb_mgr_free(mgr);
    return ex;
}

int run(const std::string& command, std::string& out)
{
    out.clear();
    FILE* p = popen(command.c_str(), "r");
    char buf[512];
    while (p != nullptr && fgets(buf, sizeof buf, p) != nullptr)
        out += buf;
    const int status = p ? pclose(p) : -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class Kernel : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_FALSE(gadget.empty()) << "run inside the VM: tests/kernel/run";
        ASSERT_TRUE(wait_until([] { return !host_interface().empty(); })) << "the gadget is not on the host side";
    }
};

} // namespace

// The exchange itself is the window's session on this kernel (gui_session.py).
TEST_F(Kernel, TheManagerFindsThePrinterThroughUsbfs)
{
    Responder responder;
    UsbManager mgr;
    mgr.enumerate();
    ASSERT_EQ(mgr.size(), 1u);
    const UsbDevInfo& dev = mgr[0];
    EXPECT_EQ(dev.vid, 0x1A2B);
    EXPECT_EQ(dev.pid, 0x00C4);
    EXPECT_EQ(dev.sn, "K7Q0012");
    EXPECT_EQ(dev.in_ep, 0x81);
    EXPECT_EQ(dev.out_ep, 0x02);
    mgr.open(size_t(0));
    EXPECT_EQ(mgr.claim_result(), 0);
    mgr.close();
    EXPECT_EQ(driver_of(host_interface()), "") << "released: no driver holds it";

    // The printer-class requests, through the manager, as the probe shows them.
    std::string out;
    EXPECT_EQ(run(tools + "/pellavoy-probe", out), 0);
    EXPECT_NE(out.find("vid=1A2B,pid=00C4,sn=K7Q0012  [first found"), std::string::npos) << out;
    EXPECT_NE(out.find("  device ID:   MFG:Pellavoy;CMD:ESC;MDL:KP-1;CLS:PRINTER;\n"), std::string::npos) << out;
    EXPECT_NE(out.find("  port status: 0x18 (selected, no error)\n"), std::string::npos) << out;
}

// Another program claimed the interface: the kernel refuses our claim and,
// because usbfs claims for whoever submits, every transfer too.
TEST_F(Kernel, AnInterfaceHeldByAnotherProgram)
{
    Responder responder;
    FILE* holder = popen((tools + "/hold-printer 1a2b 00c4").c_str(), "r");
    char held[16] = {0};
    ASSERT_TRUE(holder != nullptr && fgets(held, sizeof held, holder) != nullptr);
    ASSERT_STREQ(held, "held\n");

    const Exchange ex = exchange();
    EXPECT_EQ(ex.claim, LIBUSB_ERROR_BUSY);
    EXPECT_EQ(ex.write, LIBUSB_ERROR_IO);
    EXPECT_EQ(ex.read, LIBUSB_ERROR_IO);
    EXPECT_EQ(responder.frames(), std::vector<std::string>{}) << "nothing reaches the printer";
    EXPECT_EQ(driver_of(host_interface()), "usbfs");
    std::ofstream("/results/busy-scene") << "claim=" << ex.claim << " write=" << ex.write << " read=" << ex.read
                                         << std::endl;

    std::string out;
    EXPECT_EQ(run(tools + "/pellavoy-probe", out), 3);
    EXPECT_NE(out.find("cannot be used: another program holds its interface"), std::string::npos) << out;
    run("pkill -TERM -x hold-printer", out);
    pclose(holder);
}

TEST_F(Kernel, APrinterThatTakesNoDataMakesTheWriteTimeOut)
{
    {
        Responder responder;
        responder.pause();
        UsbManager mgr;
        mgr.enumerate();
        ASSERT_EQ(mgr.size(), 1u);
        const void* h = mgr.open(size_t(0));
        // The gadget keeps a few frames in its queue; after that the host's writes wait.
        int code = 0, sent = 0;
        for (int i = 0; i < 30 && code == 0; ++i)
            if (UsbManager::write(h, reinterpret_cast<const char*>(read_netcfg), 5, 300, &code) == 5)
                ++sent;
        EXPECT_EQ(code, LIBUSB_ERROR_TIMEOUT) << "after " << sent << " frames taken";
    }
    // Out and in again: the gadget forgets the frames nobody read.
    write_file(gadget + "/UDC", "");
    write_file(gadget + "/UDC", "dummy_udc.0");
}

// The same scene under the emulation (virtual-printer --busy), compared with
// what the kernel did in AnInterfaceHeldByAnotherProgram.
TEST(Emulation, BusyLikeTheKernel)
{
    const char* kernel = getenv("KERNEL_BUSY_SCENE");
    if (kernel == nullptr)
        GTEST_SKIP() << "run by tests/kernel/run under virtual-printer --busy";
    const Exchange ex = exchange();
    std::ostringstream text;
    text << "claim=" << ex.claim << " write=" << ex.write << " read=" << ex.read;
    EXPECT_EQ(lines(kernel), std::vector<std::string>{text.str()});
}
