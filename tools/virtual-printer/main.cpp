// virtual-printer [options] -- COMMAND [ARG...]
// Runs COMMAND with emulated USB devices in place of the machine's own.
#include "vprinter.h"

#include <getopt.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

using namespace vprinter;

static const char usage_text[] =
    "Usage: virtual-printer [OPTION...] -- COMMAND [ARG...]\n"
    "Runs COMMAND with emulated USB devices in place of the machine's own: by default\n"
    "one printer whose firmware keeps a network configuration and a job log.\n"
    "\n"
    "Scene:\n"
    "  --printers=N          number of printers (default 1)\n"
    "  --no-device           no USB device at all\n"
    "  --other=N             N keyboards listed before the printers\n"
    "  --hostile=KIND        a device listed first with bad descriptors:\n"
    "                        no-interface or no-endpoint\n"
    "  --unopenable          the first printer cannot be opened\n"
    "  --vid=HEX --pid=HEX   the printers' vendor and product (default 1A2B:00C4)\n"
    "  --serial=TEXT         serial number (default VP0001, VP0002, ...)\n"
    "  --no-serial           the printers have no serial-number string\n"
    "  --product=TEXT        product string (default 'Virtual Printer'; empty: none)\n"
    "  --driver=NAME         a kernel driver bound to the printer interface (usblp,\n"
    "                        say); with --busy, the driver that holds it\n"
    "  --interface=N         interface number of the printer interface (default 0)\n"
    "  --endpoints=LIST      endpoint addresses in hex, e.g. 01,82 (default)\n"
    "Any device:\n"
    "  --descriptors=HEX|@FILE  the printers' own descriptors: the device descriptor\n"
    "                        followed by the full configuration descriptor, in hex\n"
    "                        (in FILE: hex text); the options above but --vid,\n"
    "                        --pid, --driver and --unopenable then do not apply\n"
    "  --string=INDEX:TEXT   with --descriptors, string descriptor INDEX; an index\n"
    "                        not given is refused, as is one given by\n"
    "  --refuse-string=INDEX  the device refuses string INDEX (the request stalls)\n"
    "  --corpus=FILE         every device of FILE (one JSON object a line, as in\n"
    "                        tests/data/printers.jsonl), attached at once, in place\n"
    "                        of the virtual printer unless --printers is given\n"
    "  --device=NAME         with --corpus, only the device named NAME (repeatable)\n"
    "Firmware:\n"
    "  --netcfg=HEX          the 13-byte network configuration\n"
    "  --job-log=LIST        the job log, comma-separated Unix times\n"
    "  --device-id=TEXT      the IEEE 1284 device ID\n"
    "  --port-status=BYTE    the port status byte (default 0x18)\n"
    "Faults:\n"
    "  --reply=HEX           answer read commands with these bytes instead; repeated,\n"
    "                        the values are used in turn and the last one repeats\n"
    "  --no-reply            never answer: every read times out\n"
    "  --stall=WHERE         stall 'in', 'out' or 'control' (may be repeated)\n"
    "  --overflow            answer with one byte more than the read asks for\n"
    "  --no-accept[=N]       take no data (after N bulk transfers): every write then\n"
    "                        waits until its time-out\n"
    "  --busy                another program holds the printer interface: claims and\n"
    "                        transfers fail as the kernel makes them fail\n"
    "  --unplug-after=N      unplug the printer after N bulk transfers\n"
    "Plugging while COMMAND runs:\n"
    "  --hotplug=N           the printer that SIGUSR1 unplugs and SIGUSR2 plugs back\n"
    "                        in (same port, new device number); default 1, the first\n"
    "Output:\n"
    "  --record=FILE         write every frame received, one hex line each\n"
    "  --record-serial       begin each recorded line with the printer's serial number\n"
    "  -q, --quiet           no summary lines on standard error\n"
    "  -h, --help            this text\n";

[[noreturn]] static void fail(const std::string& msg)
{
    std::cerr << "virtual-printer: " << msg << "\nTry 'virtual-printer --help'.\n";
    exit(2);
}

static unsigned long number(const char* text, int base, unsigned long max, const char* what)
{
    char* end = nullptr;
    errno = 0;
    const unsigned long v = strtoul(text, &end, base);
    if (errno || end == text || *end || v > max)
        fail(std::string("bad ") + what + ": '" + text + "'");
    return v;
}

static Bytes hex_option(const char* text, const char* what)
{
    Bytes b;
    if (!parse_hex(text, b))
        fail(std::string("bad ") + what + ": '" + text + "' (hex bytes expected)");
    return b;
}

// TEXT itself, or the contents of the file it names after an @.
static std::string read_argument(const char* text)
{
    if (text[0] != '@')
        return text;
    std::ifstream in(text + 1);
    std::stringstream content;
    content << in.rdbuf();
    if (!in)
        fail(std::string("cannot read ") + (text + 1));
    return content.str();
}

// The devices of a corpus file: all of them, or those named, in that order.
static std::vector<DeviceSpec> corpus_devices(const std::string& path, const std::vector<std::string>& names)
{
    std::vector<DeviceSpec> out;
    const std::vector<CorpusDevice> all = load_corpus(path);
    for (const CorpusDevice& c : all)
        if (names.empty())
            out.push_back(c.device);
    for (const std::string& name : names) {
        auto it = std::find_if(all.begin(), all.end(), [&](const CorpusDevice& c) { return c.name == name; });
        if (it == all.end())
            throw std::runtime_error("no device named '" + name + "' in " + path);
        out.push_back(it->device);
    }
    if (out.empty())
        throw std::runtime_error(path + " holds no device");
    return out;
}

int main(int argc, char** argv)
{
    enum { O_PRINTERS = 256, O_NODEV, O_OTHER, O_HOSTILE, O_UNOPEN, O_VID, O_PID, O_SERIAL, O_NOSERIAL, O_ITF,
           O_EPS, O_NETCFG, O_JOBLOG, O_DEVID, O_STATUS, O_REPLY, O_NOREPLY, O_STALL, O_OVERFLOW, O_BUSY,
           O_UNPLUG, O_RECORD, O_PRODUCT, O_NOACCEPT, O_HOTPLUG, O_RECSERIAL, O_DRIVER,
           O_DESCRIPTORS, O_STRING, O_REFUSE, O_CORPUS, O_DEVICE };
    static const option options[] = {
        {"printers", required_argument, nullptr, O_PRINTERS}, {"no-device", no_argument, nullptr, O_NODEV},
        {"other", required_argument, nullptr, O_OTHER},       {"hostile", required_argument, nullptr, O_HOSTILE},
        {"unopenable", no_argument, nullptr, O_UNOPEN},       {"vid", required_argument, nullptr, O_VID},
        {"pid", required_argument, nullptr, O_PID},           {"serial", required_argument, nullptr, O_SERIAL},
        {"no-serial", no_argument, nullptr, O_NOSERIAL},      {"interface", required_argument, nullptr, O_ITF},
        {"endpoints", required_argument, nullptr, O_EPS},     {"netcfg", required_argument, nullptr, O_NETCFG},
        {"job-log", required_argument, nullptr, O_JOBLOG},    {"device-id", required_argument, nullptr, O_DEVID},
        {"port-status", required_argument, nullptr, O_STATUS}, {"reply", required_argument, nullptr, O_REPLY},
        {"no-reply", no_argument, nullptr, O_NOREPLY},        {"stall", required_argument, nullptr, O_STALL},
        {"overflow", no_argument, nullptr, O_OVERFLOW},       {"busy", no_argument, nullptr, O_BUSY},
        {"unplug-after", required_argument, nullptr, O_UNPLUG}, {"record", required_argument, nullptr, O_RECORD},
        {"product", required_argument, nullptr, O_PRODUCT},   {"no-accept", optional_argument, nullptr, O_NOACCEPT},
        {"hotplug", required_argument, nullptr, O_HOTPLUG},   {"record-serial", no_argument, nullptr, O_RECSERIAL},
        {"driver", required_argument, nullptr, O_DRIVER},
        {"descriptors", required_argument, nullptr, O_DESCRIPTORS}, {"string", required_argument, nullptr, O_STRING},
        {"refuse-string", required_argument, nullptr, O_REFUSE}, {"corpus", required_argument, nullptr, O_CORPUS},
        {"device", required_argument, nullptr, O_DEVICE},
        {"quiet", no_argument, nullptr, 'q'},                 {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0}};

    Scene scene;
    DeviceSpec printer;
    unsigned long printers = 1, others = 0, hotplug = 1;
    bool no_device = false, quiet = false, serial_given = false, printers_given = false;
    std::string hostile, corpus;
    std::vector<std::string> picked;

    int c;
    while ((c = getopt_long(argc, argv, "+qh", options, nullptr)) != -1) {
        switch (c) {
        case O_PRINTERS: printers = number(optarg, 10, 16, "--printers"); printers_given = true; break;
        case O_NODEV: no_device = true; break;
        case O_OTHER: others = number(optarg, 10, 16, "--other"); break;
        case O_HOSTILE:
            hostile = optarg;
            if (hostile != "no-interface" && hostile != "no-endpoint")
                fail("--hostile takes no-interface or no-endpoint");
            break;
        case O_UNOPEN: printer.unopenable = true; break;
        case O_VID: printer.vid = static_cast<uint16_t>(number(optarg, 16, 0xFFFF, "--vid")); break;
        case O_PID: printer.pid = static_cast<uint16_t>(number(optarg, 16, 0xFFFF, "--pid")); break;
        case O_SERIAL: printer.serial = optarg; serial_given = true; break;
        case O_NOSERIAL: printer.serial.clear(); serial_given = true; break;
        case O_ITF: printer.interface_number = static_cast<uint8_t>(number(optarg, 0, 255, "--interface")); break;
        case O_EPS:
            printer.endpoints = hex_option(optarg, "--endpoints");
            if (printer.endpoints.empty() || printer.endpoints.size() > 8)
                fail("--endpoints takes one to eight addresses");
            break;
        case O_NETCFG:
            scene.firmware.netcfg = hex_option(optarg, "--netcfg");
            if (scene.firmware.netcfg.size() != 13)
                fail("--netcfg takes exactly 13 bytes");
            break;
        case O_JOBLOG: {
            std::stringstream list(optarg);
            std::string item;
            while (std::getline(list, item, ','))
                scene.firmware.job_log.push_back(static_cast<uint32_t>(number(item.c_str(), 10, 0xFFFFFFFFul, "--job-log time")));
            break;
        }
        case O_DEVID: scene.firmware.device_id = optarg; break;
        case O_STATUS: scene.firmware.port_status = static_cast<uint8_t>(number(optarg, 0, 255, "--port-status")); break;
        case O_REPLY: scene.faults.replies.push_back(hex_option(optarg, "--reply")); break;
        case O_NOREPLY: scene.faults.no_reply = true; break;
        case O_STALL:
            if (!strcmp(optarg, "in")) scene.faults.stall_in = true;
            else if (!strcmp(optarg, "out")) scene.faults.stall_out = true;
            else if (!strcmp(optarg, "control")) scene.faults.stall_control = true;
            else fail("--stall takes in, out or control");
            break;
        case O_OVERFLOW: scene.faults.overflow = true; break;
        case O_BUSY: scene.faults.busy = true; break;
        case O_UNPLUG: scene.faults.unplug_after = static_cast<long>(number(optarg, 10, 1000000, "--unplug-after")); break;
        case O_RECORD: scene.record_path = optarg; break;
        case O_PRODUCT: printer.product = optarg; break;
        case O_NOACCEPT:
            scene.faults.no_accept_after = optarg ? static_cast<long>(number(optarg, 10, 1000000, "--no-accept")) : 0;
            break;
        case O_HOTPLUG: hotplug = number(optarg, 10, 16, "--hotplug"); break;
        case O_RECSERIAL: scene.record_serial = true; break;
        case O_DRIVER: printer.driver = optarg; break;
        case O_DESCRIPTORS:
            printer.descriptors = hex_option(read_argument(optarg).c_str(), "--descriptors");
            if (printer.descriptors.empty())
                fail("--descriptors takes at least one byte");
            break;
        case O_STRING: {
            const char* colon = strchr(optarg, ':');
            if (!colon)
                fail("--string takes INDEX:TEXT");
            const std::string index(optarg, static_cast<size_t>(colon - optarg));
            printer.strings[static_cast<uint8_t>(number(index.c_str(), 0, 255, "--string index"))] = std::string(colon + 1);
            break;
        }
        case O_REFUSE: printer.strings[static_cast<uint8_t>(number(optarg, 0, 255, "--refuse-string"))] = std::nullopt; break;
        case O_CORPUS: corpus = optarg; break;
        case O_DEVICE: picked.push_back(optarg); break;
        case 'q': quiet = true; break;
        case 'h': std::cout << usage_text; return 0;
        default: fail("unknown option");
        }
    }
    std::vector<DeviceSpec> from_corpus;
    if (!corpus.empty()) {
        try {
            from_corpus = corpus_devices(corpus, picked);
        } catch (const std::exception& e) {
            fail(e.what());
        }
        if (!printers_given)
            printers = 0;
    } else if (!picked.empty()) {
        fail("--device takes a device of the --corpus file");
    }
    if (optind >= argc)
        fail("no command given: put it after --, e.g. virtual-printer -- pellavoy");
    const size_t plugged = from_corpus.size() + printers;  // the devices --hotplug counts
    if (plugged > 0 && (hotplug < 1 || hotplug > plugged))
        fail("--hotplug takes the number of one of the printers, 1 to " + std::to_string(plugged));

    try {
        reexec_under_wrapper(argv);
    } catch (const std::exception& e) {
        fail(e.what());
    }

    if (!no_device) {
        if (!hostile.empty()) {
            DeviceSpec bad = printer;
            bad.kind = hostile == "no-interface" ? Kind::NoInterface : Kind::NoEndpoint;
            bad.unopenable = false;
            scene.devices.push_back(bad);
        }
        for (unsigned long i = 0; i < others; ++i) {
            DeviceSpec other;
            other.kind = Kind::Other;
            other.vid = 0x1A2B;
            other.pid = static_cast<uint16_t>(0x0100 + i);
            other.serial = "KB" + std::to_string(i + 1);
            scene.devices.push_back(other);
        }
        scene.devices.insert(scene.devices.end(), from_corpus.begin(), from_corpus.end());
        for (unsigned long i = 0; i < printers; ++i) {
            DeviceSpec p = printer;
            if (!serial_given)
                p.serial = "VP000" + std::to_string(i + 1);
            else if (printers > 1 && !p.serial.empty())
                p.serial += "-" + std::to_string(i + 1);
            p.unopenable = printer.unopenable && i == 0;
            scene.devices.push_back(p);
        }
    }

    // Signals that would end us are passed on to the command, and we wait
    // for it; SIGUSR1 and SIGUSR2 unplug and plug the chosen printer. They are
    // blocked before the emulation starts its threads, which inherit the mask:
    // a signal that one of them took would end us.
    sigset_t forwarded;
    sigemptyset(&forwarded);
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGUSR2})
        sigaddset(&forwarded, sig);
    pthread_sigmask(SIG_BLOCK, &forwarded, nullptr);

    try {
        Testbed bed(scene);
        if (!quiet)
            std::cerr << "virtual-printer: emulating " << bed.describe() << std::endl;
        const size_t hotplugged = plugged > 0 ? scene.devices.size() - plugged + (hotplug - 1) : 0;

        const pid_t child = fork();
        if (child < 0)
            fail(std::string("fork: ") + strerror(errno));
        if (child == 0) {
            pthread_sigmask(SIG_UNBLOCK, &forwarded, nullptr);
            execvp(argv[optind], argv + optind);
            std::cerr << "virtual-printer: cannot run " << argv[optind] << ": " << strerror(errno) << std::endl;
            _exit(127);
        }
        int status = 0;
        const timespec tick = {0, 50 * 1000 * 1000};
        while (waitpid(child, &status, WNOHANG) == 0) {
            const int sig = sigtimedwait(&forwarded, nullptr, &tick);
            if (sig == SIGUSR1)
                bed.unplug(hotplugged);
            else if (sig == SIGUSR2)
                bed.plug(hotplugged);
            else if (sig > 0 && sig != SIGINT)  // the terminal sends Ctrl-C to the command itself
                kill(child, sig);
        }
        if (!quiet)
            std::cerr << "virtual-printer: " << bed.received() << std::endl;
        if (WIFSIGNALED(status))
            return 128 + WTERMSIG(status);
        return WEXITSTATUS(status);
    } catch (const std::exception& e) {
        std::cerr << "virtual-printer: " << e.what() << std::endl;
        return 2;
    }
}
