// Presence of a sensor.

#include "presence.h"

#include "frame_watch.h"
#include "link_seam.h"
#include "orb_stream.h"

namespace orbstream {

bool on_bus(libusb_device_handle* handle) {
    // libusb keeps one device object per attached device and drops it from
    // the list when the device leaves (the handle's reference keeps it
    // alive), so identity is the test: a replugged sensor is a new device
    // that this handle cannot reach. The list comes from libusb's hotplug
    // bookkeeping; nothing is sent to the sensor.
    libusb_device* device = libusb_get_device(handle);
    libusb_device** list = nullptr;
    ssize_t n = libusb_get_device_list(nullptr, &list);
    if (n < 0) return false;
    bool found = false;
    for (ssize_t i = 0; i < n && !found; i++) found = list[i] == device;
    libusb_free_device_list(list, 1);
    // The list follows the bus's uevents, which may lag a failed transfer;
    // the device node itself knows at once. Asking it which driver holds
    // interface 0 is an ioctl of the host's, not a request to the sensor.
    return found && libusb_kernel_driver_active(handle, 0) != LIBUSB_ERROR_NO_DEVICE;
}

int loss_result(libusb_device_handle* handle) {
    // Disconnected by the host meanwhile: the index names no sensor now.
    if (handle == nullptr) return ORB_STREAM_ERR_NOT_CONNECTED;
    if (!on_bus(handle)) return ORB_STREAM_ERR_LOST;
    return stalled(handle) ? ORB_STREAM_ERR_STALLED : ORB_STREAM_ERR_ENDED;
}

int usable(int index, libusb_device_handle** handle) {
    if (index < 0 || index >= kMaxStreams) return ORB_STREAM_ERR_INVALID;
    *handle = link::handle_at(index);
    if (*handle == nullptr) return ORB_STREAM_ERR_NOT_CONNECTED;
    // From the first call on a sensor, the tap counts its completions,
    // whoever acquires.
    watch_index(index, *handle);
    if (link::ended()) return loss_result(*handle);
    return ORB_STREAM_OK;
}

int present(int index) {
    libusb_device_handle* handle = link::handle_at(index);
    if (handle == nullptr) return ORB_STREAM_ERR_NOT_CONNECTED;
    return on_bus(handle) ? ORB_STREAM_OK : ORB_STREAM_ERR_LOST;
}

}  // namespace orbstream
