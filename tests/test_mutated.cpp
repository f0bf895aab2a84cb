// The real printers' descriptors, spoiled the ways a broken or hostile device
// spoils them, fed through the virtual printer to the manager's enumeration
// and to pellavoy-probe. Nothing may crash or read outside a buffer (the
// sanitized build), every device is listed by the rule or skipped with a log
// line, and the probe ends with one of its documented exit statuses.
// The seed is printed; PELLAVOY_SEED=N replays a run.
#include "COMMON/devmgr/usb_mgr.h"
#include "support.h"
#include "vprinter.h"

#include <glib.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <random>

using testing_support::Capture;
using vprinter::Bytes;

namespace {

using Rng = std::mt19937;

unsigned pick(Rng& rng, unsigned n)
{
    return n == 0 ? 0 : std::uniform_int_distribution<unsigned>(0, n - 1)(rng);
}

// Offsets of the descriptors of TYPE inside the configuration (after the
// 18-byte device descriptor), walked as far as the lengths allow.
std::vector<size_t> offsets_of(const Bytes& d, int type)
{
    std::vector<size_t> out;
    for (size_t pos = 18; pos + 1 < d.size() && d[pos] >= 2; pos += d[pos])
        if (type < 0 || d[pos + 1] == type)
            out.push_back(pos);
    return out;
}

void set_total_length(Bytes& d, size_t total)
{
    if (d.size() >= 22) {
        d[20] = static_cast<uint8_t>(total);
        d[21] = static_cast<uint8_t>(total >> 8);
    }
}

struct Mutation {
    const char* name;
    // Spoils the descriptors (and may give raw string descriptors).
    std::function<void(Rng&, vprinter::DeviceSpec&)> apply;
};

const Mutation mutations[] = {
    {"truncated", [](Rng& r, vprinter::DeviceSpec& s) { s.descriptors.resize(1 + pick(r, s.descriptors.size() - 1)); }},
    {"bLength 0/1/255",
     [](Rng& r, vprinter::DeviceSpec& s) {
         std::vector<size_t> at = offsets_of(s.descriptors, -1);
         at.push_back(0);
         at.push_back(18);
         s.descriptors[at[pick(r, at.size())]] = std::vector<uint8_t>{0, 1, 255}[pick(r, 3)];
     }},
    {"wTotalLength larger", [](Rng& r, vprinter::DeviceSpec& s) { set_total_length(s.descriptors, s.descriptors.size() - 18 + 1 + pick(r, 600)); }},
    {"wTotalLength smaller", [](Rng& r, vprinter::DeviceSpec& s) { set_total_length(s.descriptors, pick(r, s.descriptors.size() - 18)); }},
    {"bNumInterfaces larger", [](Rng& r, vprinter::DeviceSpec& s) { s.descriptors[22] = static_cast<uint8_t>(std::min(255u, s.descriptors[22] + 1 + pick(r, 40))); }},
    {"bNumEndpoints larger",
     [](Rng& r, vprinter::DeviceSpec& s) {
         const std::vector<size_t> at = offsets_of(s.descriptors, 4);
         uint8_t& n = s.descriptors[at[pick(r, at.size())] + 4];
         n = static_cast<uint8_t>(std::min(255u, n + 1 + pick(r, 40)));
     }},
    {"endpoint address 00/80/FF",
     [](Rng& r, vprinter::DeviceSpec& s) {
         const std::vector<size_t> at = offsets_of(s.descriptors, 5);
         if (!at.empty())
             s.descriptors[at[pick(r, at.size())] + 2] = std::vector<uint8_t>{0x00, 0x80, 0xFF}[pick(r, 3)];
     }},
    {"many alternate settings",
     [](Rng& r, vprinter::DeviceSpec& s) {
         // Interface 0's first setting with its endpoints, again and again.
         Bytes& d = s.descriptors;
         const size_t begin = offsets_of(d, 4).at(0);
         size_t end = d.size();
         for (size_t p : offsets_of(d, 4))
             if (p > begin) {
                 end = p;
                 break;
             }
         const Bytes block(d.begin() + long(begin), d.begin() + long(end));
         const unsigned n = 20 + pick(r, 20);
         for (unsigned i = 1; i <= n; ++i) {
             Bytes copy = block;
             copy[3] = static_cast<uint8_t>(i);
             copy[5] = pick(r, 2) ? copy[5] : static_cast<uint8_t>(pick(r, 256));  // class
             d.insert(d.end(), copy.begin(), copy.end());
         }
         set_total_length(d, d.size() - 18);
     }},
    {"string of odd or maximum length",
     [](Rng& r, vprinter::DeviceSpec& s) {
         Bytes text;
         const unsigned len = std::vector<unsigned>{3, 5, 7, 9, 255, 254, 2, 0, 1}[pick(r, 9)];
         text = {static_cast<uint8_t>(len), 3};
         const unsigned body = std::max(len, 2u) - 2 + pick(r, 3);  // sometimes more or fewer bytes than it says
         for (unsigned i = 0; i < body; ++i)
             text.push_back(static_cast<uint8_t>(pick(r, 2) ? 'A' + pick(r, 26) : pick(r, 256)));
         for (uint8_t index : {s.descriptors[14], s.descriptors[15], s.descriptors[16]})
             if (index != 0)
                 s.raw_strings[index] = text;
         s.raw_strings[0] = pick(r, 2) ? Bytes{3, 3, 9} : Bytes{4, 3, 9, 4};
     }},
    {"a few bytes spoiled",
     [](Rng& r, vprinter::DeviceSpec& s) {
         for (unsigned i = 0, n = 1 + pick(r, 4); i < n; ++i)
             s.descriptors[pick(r, s.descriptors.size())] = static_cast<uint8_t>(pick(r, 256));
     }},
};

// The interface descriptors in the bytes with this number and the printer class.
bool printer_interface_in(const Bytes& d, uint8_t number)
{
    for (size_t pos = 18; pos + 6 <= d.size() && d[pos] >= 2; pos += d[pos])
        if (d[pos + 1] == 4 && d[pos + 2] == number && d[pos + 5] == 7)
            return true;
    return false;
}

struct ProbeRun {
    int status = -1;
    std::string output;
};

// pellavoy-probe against the devices of the testbed that lives in this process.
ProbeRun run_probe()
{
    gchar** env = g_get_environ();
    const char* asan = g_environ_getenv(env, "ASAN_OPTIONS");
    // A sanitizer's report must not pass for one of the probe's own statuses.
    // The probe's leaks are looked for whatever this test's own setting, but
    // for libusb's own on a hostile descriptor (libusb-leaks.supp).
    env = g_environ_setenv(env, "ASAN_OPTIONS", (std::string(asan ? asan : "") + ":detect_leaks=1:exitcode=86").c_str(),
                           TRUE);
    env = g_environ_setenv(env, "LSAN_OPTIONS", "suppressions=" LIBUSB_LEAKS, TRUE);
    env = g_environ_setenv(env, "UBSAN_OPTIONS", "halt_on_error=1:print_stacktrace=1:exitcode=87", TRUE);
    gchar* argv[] = {const_cast<gchar*>(PROBE), nullptr};
    gchar *out = nullptr, *err = nullptr;
    ProbeRun o;
    GError* error = nullptr;
    if (!g_spawn_sync(nullptr, argv, env, G_SPAWN_DEFAULT, nullptr, nullptr, &out, &err, &o.status, &error)) {
        o.output = error->message;
        g_error_free(error);
    } else {
        o.output = std::string(out) + err;
    }
    g_free(out);
    g_free(err);
    g_strfreev(env);
    return o;
}

unsigned seed()
{
    const char* given = getenv("PELLAVOY_SEED");
    return given ? static_cast<unsigned>(strtoul(given, nullptr, 10)) : static_cast<unsigned>(time(nullptr));
}

} // namespace

TEST(MutatedDescriptors, TheManagerAndTheProbeSurviveEveryOne)
{
    const unsigned s = seed();
    std::printf("seed %u (PELLAVOY_SEED=%u replays this run)\n", s, s);
    RecordProperty("seed", std::to_string(s));
    const std::vector<vprinter::CorpusDevice> corpus = vprinter::load_corpus(CORPUS);
    ASSERT_FALSE(corpus.empty());
    Capture& log = Capture::install();
    Rng rng(s);
    unsigned listed = 0, skipped = 0, unseen = 0, probed = 0;
    for (const Mutation& m : mutations) {
        for (size_t i = 0; i < corpus.size(); ++i) {
            vprinter::DeviceSpec device = corpus[i].device;
            m.apply(rng, device);
            const std::string what = std::string(m.name) + " " + corpus[i].name + ": " +
                                     vprinter::to_hex(device.descriptors.data(), device.descriptors.size());
            SCOPED_TRACE(what);
            vprinter::Scene scene;
            scene.devices = {device};
            vprinter::Testbed bed(scene);
            const bool seen = bed.describe().find("not enumerated") == std::string::npos;

            log.clear();
            UsbManager mgr;
            mgr.enumerate();
            ASSERT_LE(mgr.size(), 1u);
            if (mgr.size() == 1) {
                ++listed;
                const UsbDevInfo& dev = mgr[0];
                EXPECT_TRUE(seen);
                EXPECT_EQ(dev.vid, device.descriptors[8] | device.descriptors[9] << 8);
                EXPECT_EQ(dev.pid, device.descriptors[10] | device.descriptors[11] << 8);
                EXPECT_TRUE(printer_interface_in(device.descriptors, dev.itf)) << "listed: interface " << int(dev.itf);
                EXPECT_TRUE(dev.out_ep == 0 || !(dev.out_ep & 0x80)) << int(dev.out_ep);
                EXPECT_TRUE(dev.in_ep == 0 || (dev.in_ep & 0x80)) << int(dev.in_ep);
                EXPECT_EQ(dev.sn.find('\0'), std::string::npos);
            } else if (seen) {
                ++skipped;
                const std::vector<testing_support::Line> lines = log.lines();
                EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const testing_support::Line& l) {
                    return l.func.find("enumerate") != std::string::npos;
                })) << "skipped without a line";
            } else {
                ++unseen;  // the kernel could not read it: nothing to list
            }
            ++probed;
            const ProbeRun o = run_probe();
            EXPECT_TRUE(o.status >= 0 && WIFEXITED(o.status) && WEXITSTATUS(o.status) <= 3)
                << "status " << o.status << "\n" << o.output;
            EXPECT_EQ(o.output.find("Sanitizer"), std::string::npos) << o.output;
            EXPECT_EQ(o.output.find("runtime error"), std::string::npos) << o.output;
            if (mgr.size() == 1) {
                char ids[32];
                snprintf(ids, sizeof ids, "vid=%04X,pid=%04X", mgr[0].vid, mgr[0].pid);
                EXPECT_NE(o.output.find(ids), std::string::npos) << "the probe lists what the manager lists\n" << o.output;
            }
        }
    }
    std::printf("seed %u: %u listed, %u skipped with a line, %u not enumerated by the kernel, %u probe runs\n", s,
                listed, skipped, unseen, probed);
    EXPECT_GT(listed, 0u);
    EXPECT_GT(skipped, 0u);
}

int main(int argc, char** argv)
{
    vprinter::reexec_under_wrapper(argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
