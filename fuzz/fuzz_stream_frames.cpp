// A stream's bookkeeping under any sequence of completions (any length,
// any bytes, failed ones), reads, settings changes and ring sizes: every
// frame read is whole 12-bit values with its saturation counted, numbers
// rise, each gap is exactly what the frame says was lost or stale, and
// every completion is accounted for, and so is every frame missed.

#include <libusb.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "stream_session.h"
#include "../efm32com/orb_frame_samples.h"

using namespace orbstream;
using orbframe::kFrameBytes;

namespace {

struct Input {
    const uint8_t* data;
    size_t size;
    uint8_t next() {
        if (size == 0) return 0;
        size--;
        return *data++;
    }
};

void check(bool ok) {
    if (!ok) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in{data, size};
    static Session s;  // holds a mutex and a condition: made once
    static unsigned char wire[kFrameBytes];
    FrameRing ring;
    check(ring.allocate(1 + in.next() % 16));
    auto* handle = reinterpret_cast<libusb_device_handle*>(&s);
    orb_stream_settings settings{};
    settings.shutter_speed = 1;
    begin_stream_locked(s, std::move(ring), settings, handle);

    libusb_transfer t{};
    t.dev_handle = handle;
    t.buffer = wire;
    uint64_t next_sequence = 0, now = 0, missed_read = 0;
    bool changing = false;
    static orb_stream_frame f;
    while (in.size > 0) {
        const uint8_t op = in.next();
        switch (op % 5) {
        case 0:
        case 1: {  // a completion: a whole frame, or as many bytes as the input says
            t.status = op % 7 == 6 ? LIBUSB_TRANSFER_ERROR : LIBUSB_TRANSFER_COMPLETED;
            t.actual_length = op & 0x80 ? in.next() * 8 : kFrameBytes;
            for (int i = 0; i < kFrameBytes; i += 61) wire[i] = in.next(), wire[i + 1] = in.next();
            // At the sensor's pace, or up to 255 ms later: frames missed.
            now += op & 0x40 ? 1 + in.next() * 1000000ull : 1684210;
            take_locked(s, &t, now);
            break;
        }
        case 2:  // the host reads
            if (pop_locked(s, f)) {
                check(f.sequence == next_sequence + f.lost_before + f.stale_before);
                next_sequence = f.sequence + 1;
                missed_read += f.missed_before;
                int saturated = 0;
                for (uint16_t v : f.values) {
                    check(v <= ORB_STREAM_SATURATED);
                    saturated += v == ORB_STREAM_SATURATED;
                }
                check(saturated == f.saturated);
                // The newest frame is still in the wire buffer: every sample
                // as the plain formula has it.
                if (f.timestamp_ns == now)
                    for (int i = 0; i < ORB_STREAM_FILTERS; i++) check(f.values[i] == ((wire[2 * i] << 4) | (wire[2 * i + 1] >> 4)));
            }
            break;
        case 3:
            if (!changing) begin_change_locked(s);
            changing = true;
            break;
        case 4:
            if (changing) end_change_locked(s);
            changing = false;
            break;
        }
    }
    const orb_stream_stats& st = s.stats;
    check(st.completed == st.delivered + st.lost + st.stale + s.ring.size());
    // Every frame missed is told by the frame read after it, or still owed.
    while (pop_locked(s, f)) missed_read += f.missed_before;
    check(st.missed == missed_read + s.missed_since);
    check(s.ring.size() <= s.ring.capacity());
    check(st.short_frames <= st.lost);
    s.active = false;
    s.handle.store(nullptr);
    s.ring.release();
    return 0;
}
