#ifndef ORB_STREAM_FRAME_WATCH_H
#define ORB_STREAM_FRAME_WATCH_H

// What the frame tap tells of every completion, whoever acquires: counts
// per sensor (a host watching a call without a time-out tells slow from
// stuck by them), the stall that ended the frame path, and which completions
// may have gone into a single shot's average.

#include <cstdint>

#include <libusb.h>

#include "orb_stream.h"

namespace orbstream {

// orb_frame_activity_get for a checked index.
int frame_activity(int index, orb_frame_activity& out);

// The tap's part, on the event-loop thread: one completion (or failure).
void watch_completion(const libusb_transfer* t, uint64_t now_ns);

// Counting for `index` starts (again only when its handle changed).
void watch_index(int index, libusb_device_handle* handle);
// The record of `index`; its handle must be watched already.
void activity_of(int index, orb_frame_activity& out, uint64_t now_ns);
// Whether a completion of `handle` ended the frame path with a stall (seen
// from the process's start: the tap is installed then).
bool stalled(libusb_device_handle* handle);

// A single shot's window: from before the link is armed until its frames
// are taken, the short completions that may be among them. The link counts
// every completion of the process from its arming and queues those from the
// kSingleShotSkip-th on; the watch counts the same way, give or take the one
// completion that may cross the arming, and so takes one more on each side.
void begin_shot_watch(int averages);
// Short frames that may be in the average; the window closes.
uint32_t end_shot_watch();
void count_dropped(int index, uint32_t frames);

uint64_t monotonic_ns();

}  // namespace orbstream

#endif
