// Times the tool's whole exchange for one click, as the window does it:
// manager, enumerate, open, write the read-network-configuration frame, read
// the reply, close. Run it under the virtual printer: tools/bench does.
#include "COMMON/devmgr/usb_mgr.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

int main(int argc, char** argv)
{
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 200;
    if (rounds < 1) {
        std::fprintf(stderr, "usage: bench-cycle [ROUNDS]\n");
        return 2;
    }
    static const uint8_t frame[] = {0x1B, 0x5E, 0x49, 0x53, 0x52};
    std::vector<double> ms;
    int failures = 0;
    for (int i = 0; i < rounds; ++i) {
        const auto start = std::chrono::steady_clock::now();
        void* mgr = usb_mgr_new();
        usb_mgr_enumerate(mgr);
        if (usb_mgr_get_size(mgr) > 0) {
            const void* handle = usb_mgr_open(mgr, 0);
            uint8_t reply[64] = {0};
            uint8_t* buf = reply;
            int32_t len = sizeof reply;
            usb_handle_write(handle, frame, sizeof frame, 0);
            if (usb_handle_read(handle, &buf, &len, 1000) != 13)
                ++failures;
            usb_handle_free(handle);
        } else {
            ++failures;
        }
        usb_mgr_free(mgr);
        ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
    }
    std::sort(ms.begin(), ms.end());
    auto at = [&](double q) { return ms[static_cast<size_t>(q * (ms.size() - 1))]; };
    std::printf("enumerate-open-write-read-close: %d rounds, median %.2f ms, p10 %.2f ms, p90 %.2f ms, %d failed\n",
                rounds, at(0.5), at(0.1), at(0.9), failures);
    return failures ? 1 : 0;
}
