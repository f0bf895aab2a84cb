// The probe's port status words: each input byte is a status; the words say
// exactly the three bits that mean something and nothing of the others.
#include "check.h"
#include "tools/probe/port_status.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    for (size_t i = 0; i < size; ++i) {
        const uint8_t s = data[i];
        const std::string words = port_status_words(s);
        const bool paper_empty = words.rfind("paper empty, ", 0) == 0;
        const std::string rest = paper_empty ? words.substr(13) : words;
        FUZZ_CHECK(paper_empty == ((s & 0x20) != 0));
        FUZZ_CHECK(rest == std::string(s & 0x10 ? "selected" : "not selected") + (s & 0x08 ? ", no error" : ", error"));
        FUZZ_CHECK(words == port_status_words(s & 0x38));
    }
    return 0;
}
