#ifndef ORB_STREAM_FRAME_TAP_H
#define ORB_STREAM_FRAME_TAP_H

// Where the streaming layer meets the frame path: the completion callback
// and request_exit call frame_tap() before their own work. The tap is
// installed from the start (the frame watch must see a stall that comes
// before any call of the layer) and costs the callback a few atomic loads
// and compares per completion; it never touches the transfer, the frame
// queue or what the callback does next.

#include <atomic>

#include <libusb.h>

namespace orbstream {

// A completed (or failed) frame transfer, or nullptr when the event loop is
// told to end.
using FrameTap = void (*)(const libusb_transfer* transfer);

extern std::atomic<FrameTap> g_frame_tap;

inline void frame_tap(const libusb_transfer* transfer) {
    if (FrameTap tap = g_frame_tap.load(std::memory_order_acquire)) tap(transfer);
}

}  // namespace orbstream

#endif
