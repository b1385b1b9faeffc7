#ifndef ORB_STREAM_PRESENCE_H
#define ORB_STREAM_PRESENCE_H

// Which sensor an index names, whether it is still on the bus, and whether
// the frame path still runs: the checks every call of the layer starts with.

#include <libusb.h>

namespace orbstream {

// Indices a stream can run on: duConnect opens at most 10 sensors.
constexpr int kMaxStreams = 16;

// The device of `handle` is in the bus's current device list.
bool on_bus(libusb_device_handle* handle);
// A failure after the event loop ended or a request found no device:
// ORB_STREAM_ERR_LOST when the sensor has left the bus, STALLED when its
// frame endpoint stalled, else ENDED (NOT_CONNECTED for no handle: the host
// disconnected it).
int loss_result(libusb_device_handle* handle);
// Whether calls on `index` may go ahead: ORB_STREAM_OK with *handle set, or
// the reason they may not. The frame watch counts the sensor from then on.
int usable(int index, libusb_device_handle** handle);
// Whether the sensor at `index` is still on the bus: ORB_STREAM_OK, _LOST,
// or _NOT_CONNECTED when nothing was opened there.
int present(int index);

}  // namespace orbstream

#endif
