// The job-log reply, as it came (the input) and as it lies in the read's
// zero-filled buffer: the count is the printer's, no record lies past the
// buffer, every record is the four bytes at its slot, and what lies past the
// received length reads as zero.
#include "check.h"
#include "protocol.h"

#include <algorithm>

namespace {

// The number at offset, with everything from `came` on read as zero.
guint32 expected_at(const Bytes& buffer, gsize came, gsize offset)
{
    guint32 n = 0;
    for (gsize k = 0; k < 4; ++k)
        if (offset + k < came)
            n |= static_cast<guint32>(buffer[offset + k]) << (8 * k);
    return n;
}

void check(const Bytes& buffer, gint32 length)
{
    const JobLog log = job_log_parse(buffer, length);
    FUZZ_CHECK(log.usable == (length > 3));
    if (!log.usable) {
        FUZZ_CHECK(log.count == 0 && log.times.empty());
        return;
    }
    const gsize came = std::min(static_cast<gsize>(length), buffer.size());
    FUZZ_CHECK(log.count == expected_at(buffer, came, 0));
    const gsize slots = buffer.size() < 4 ? 0 : (buffer.size() - 4) / 4;
    FUZZ_CHECK(log.times.size() == std::min(static_cast<gsize>(log.count), slots));
    for (gsize i = 0; i < log.times.size(); ++i) {
        FUZZ_CHECK(4 + 4 * i + 4 <= buffer.size());
        FUZZ_CHECK(log.times[i] == expected_at(buffer, came, 4 + 4 * i));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // The bytes alone, in a buffer of exactly their size.
    const Bytes exact(data, data + size);
    check(exact, static_cast<gint32>(std::min<size_t>(size, G_MAXINT32)));
    if (size > 0)
        check(exact, static_cast<gint32>(size / 2) - static_cast<gint32>(data[0] & 1) * 8);

    // As the window reads them: at most the capacity arrives, behind it zeros.
    Bytes buffer(log_reply_capacity, 0);
    const size_t came = std::min(size, log_reply_capacity);
    std::copy(data, data + came, buffer.begin());
    check(buffer, static_cast<gint32>(came));
    check(buffer, static_cast<gint32>(log_reply_capacity));  // a failed read
    return 0;
}
