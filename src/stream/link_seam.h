#ifndef ORB_STREAM_LINK_SEAM_H
#define ORB_STREAM_LINK_SEAM_H

// Everything the streaming layer asks of the sensor link or tells it, and
// the only way it reaches the link's state: link_seam.cpp is the one file of
// the layer that includes the link's headers. The other direction, the
// link's completions reaching a stream, is the frame tap (frame_tap.h).

#include <libusb.h>

#include "deadline.h"

namespace orbstream::link {

// The open handle at `index`, or nullptr. Looks, never inserts: the link's
// table must not grow entries because this layer asked.
libusb_device_handle* handle_at(int index);
// Whether the link submitted the frame transfer of `index` (a sensor brought
// up before the event loop ran has none).
bool has_frame_transfer(int index);
// The event loop has ended (an orderly close or a USB error): no completion
// comes any more, for any sensor of the process.
bool ended();

// The link's belief that the sensor streams: a later duGetFilterData then
// takes frames of the running stream instead of starting one.
bool streaming();
void mark_streaming(bool on);

// The link's record of what the sensor was asked for: the shutter speed
// paces its streaming requests.
void record_shutter_speed(int shutter_speed, int blank_time);
void record_blank_time(int blank_time);
// The shutter speed the link last asked of the sensor.
int shutter_speed();

// The pauses the link keeps: after a register access of its longer
// sequences (g_iSleepTime), and after a streaming request at the current
// shutter speed.
int register_pause_ms();
int stream_request_pause_ms();

// The link is taking frames into its queue for an acquisition (a du... call
// or a single shot): its callback's own test, as it runs next.
bool collecting_frames();

// The frame moving average is on: duGetFilterData then answers from it.
bool moving_average_on();

// The link's frame queue for a single shot: the callback queues the
// `averages` frames after the first kSingleShotSkip of a fresh stream.
void arm_single_shot(int averages);
// Waits until the frames are queued (ORB_STREAM_OK, their sum added into
// `sum`, kSamples values), the deadline passes (ORB_STREAM_ERR_TIMEOUT) or
// the event loop ends (ORB_STREAM_ERR_ENDED). Either way the queue is
// emptied and the callback queues nothing more for this single shot.
int take_single_shot(int averages, const Deadline& deadline, double* sum);
// The same without waiting: the single shot gave up before its frames.
void drop_single_shot();

}  // namespace orbstream::link

#endif
