#ifndef ORB_BENCH_USB_HOOKS_H
#define ORB_BENCH_USB_HOOKS_H

// The bench binary stands in front of two libusb calls the library makes:
// bulk submissions can be swallowed and are timestamped, and control
// transfers are timed.

#include <chrono>
#include <vector>

namespace usbhooks {

// While on, libusb_submit_transfer returns success without submitting.
void swallow_submissions(bool on);
// Seconds spent inside libusb_control_transfer since the last take: the USB
// round trips of the library's register and streaming requests.
double take_control_seconds();
// When each submission of the frame transfer since the last take returned,
// oldest first: from then on the transfer waited for the sensor's next frame.
std::vector<std::chrono::steady_clock::time_point> take_frame_submissions();

}  // namespace usbhooks

#endif
