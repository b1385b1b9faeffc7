#ifndef ORB_STREAM_SETTINGS_CHANGE_H
#define ORB_STREAM_SETTINGS_CHANGE_H

// Settings changed while a stream runs (or without one), written as the
// link writes them. The arguments are checked by the caller: every value
// here fits its registers, and the time-out is not negative.

namespace orbstream {

// The blank time rides with the shutter speed, kBlankTimeMargin above it.
int set_shutter_speed(int index, int shutter_speed, int timeout_ms);
int set_blank_time(int index, int blank_time, int timeout_ms);
int set_adc(int index, int gain, int range, int resolution, int timeout_ms);
int set_onboard_average(int index, int count, int timeout_ms);

}  // namespace orbstream

#endif
