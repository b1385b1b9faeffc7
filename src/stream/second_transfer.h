#ifndef ORB_STREAM_SECOND_TRANSFER_H
#define ORB_STREAM_SECOND_TRANSFER_H

// A stream's second bulk transfer on 0x81, beside the link's one. With one
// transfer the sensor's slot passes with nothing waiting whenever the host
// takes longer than a frame time to reap, run the callback and resubmit;
// with two, one waits while the other is being handled. It exists only
// while a stream of this layer runs: single shots and the du... calls keep
// the link's one transfer. Its completions go through the tap's own path
// (take_locked), in the order the bus completes them, and never reach the
// link's frame queue.

#include <libusb.h>

#include "deadline.h"
#include "stream_session.h"

namespace orbstream {

// Under the lock, once the stream runs: submits the session's second
// transfer on `handle`. False when it could not (the stream then runs on the
// link's transfer alone), among others while one of an earlier stream has
// not been retired.
bool submit_second_locked(Session& s, libusb_device_handle* handle);

// Under the lock: the second transfer is not submitted again after it next
// completes. For a du... acquisition that takes frames from the link's
// transfer meanwhile: cancelling a transfer the sensor is filling would
// leave the rest of that frame to the link's.
void let_second_lapse_locked(Session& s);

// Cancels the second transfer and waits, until `deadline` at most, for its
// callback to have run. Once the event loop has ended nobody else reaps the
// cancellation, so the wait handles libusb's events itself.
void retire_second(Session& s, const Deadline& deadline);

}  // namespace orbstream

#endif
