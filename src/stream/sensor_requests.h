#ifndef ORB_STREAM_SENSOR_REQUESTS_H
#define ORB_STREAM_SENSOR_REQUESTS_H

// The sensor's requests as the link sends them (same request types, codes,
// values and indices), but each bounded by the caller's deadline instead of
// the link's fixed 1 and 2 s, and with its failure reported.

#include <libusb.h>

#include "deadline.h"
#include "../efm32com/orb_stm_commands.h"

namespace orbstream {

// A streaming request (no data stage). ORB_STREAM_OK or an error result.
int stream_request(libusb_device_handle* handle, int code, const Deadline& deadline);
// A register access: `value` for writes (0 for reads); the reply's first
// byte lands in *reply. ORB_STREAM_OK or an error result.
int register_access(libusb_device_handle* handle, int code, int value, const Deadline& deadline,
                    unsigned char* reply);
// Writes both bytes, reads both back and writes once more on a mismatch.
int write_pair_checked(libusb_device_handle* handle, int wr_a, int a, int wr_b, int b, int rd_a, int rd_b,
                       int pause_ms, const Deadline& deadline);

// A pause the sensor's protocol asks for between requests: real time, cut
// short by the deadline (ORB_STREAM_ERR_TIMEOUT) or by the event loop
// ending (ORB_STREAM_ERR_ENDED).
int rest(int ms, const Deadline& deadline);
// Wakes every rest(): the event loop has ended.
void wake_rests();

// ORB_STREAM_ERR_... for a libusb error.
int result_of_usb_error(int error);

}  // namespace orbstream

#endif
