// The IEEE 1284 device ID text of a GET_DEVICE_ID reply: the bytes past the
// two length bytes, up to the first zero byte or the reply's end, never more.
#include "COMMON/devmgr/usb_mgr.h"
#include "check.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text = usb::device_id_text(data, size);
    if (size <= 2) {
        FUZZ_CHECK(text.empty());
        return 0;
    }
    FUZZ_CHECK(text.size() <= size - 2);
    FUZZ_CHECK(memcmp(text.data(), data + 2, text.size()) == 0);
    FUZZ_CHECK(text.find('\0') == std::string::npos);
    FUZZ_CHECK(text.size() == size - 2 || data[2 + text.size()] == 0);
    return 0;
}
