#ifndef ORB_STREAM_STREAM_TRANSFERS_H
#define ORB_STREAM_STREAM_TRANSFERS_H

// A stream's own bulk transfers on 0x81, beside the link's one. With one
// transfer the sensor's slot passes with nothing waiting whenever the host
// takes longer than a frame time to reap, run the callback and resubmit;
// with more, one waits while another is being handled, and a host kept from
// running for a few frame times (a busy machine) finds its frames in them.
// They exist only while a stream of this layer runs: single shots and the
// du... calls keep the link's one transfer. Their completions go through the
// tap's own path (take_locked), in the order the bus completes them, and
// never reach the link's frame queue.

#include <libusb.h>

#include "deadline.h"
#include "stream_session.h"

namespace orbstream {

// Under the lock, once the stream runs: submits the session's own transfers
// on `handle`; how many are in flight. A stream whose transfers could not
// all be submitted runs on those that were (or on the link's alone), among
// others while those of an earlier stream have not all been retired.
int submit_own_locked(Session& s, libusb_device_handle* handle);

// Under the lock: the stream's transfers are not submitted again after they
// next complete. For a du... acquisition that takes frames from the link's
// transfer meanwhile: cancelling a transfer the sensor is filling would
// leave the rest of that frame to the link's.
void let_own_lapse_locked(Session& s);

// Cancels the stream's transfers and waits, until `deadline` at most, for
// their callbacks to have run. Once the event loop has ended nobody else
// reaps the cancellations, so the wait handles libusb's events itself.
void retire_own(Session& s, const Deadline& deadline);

}  // namespace orbstream

#endif
