#ifndef ORB_STREAM_H
#define ORB_STREAM_H

/* Streaming, bounded acquisition and presence, for hosts in any language.
 *
 * These calls work on a sensor index brought up by duConnect (or the
 * connection helper) and use the same frame transfer on endpoint 0x81 and
 * the same event-loop thread as duGetFilterData. Every call that may wait
 * takes a time-out in milliseconds and returns within it; once the sensor
 * is gone, or the event loop has ended, every call answers at once.
 *
 * Results: ORB_STREAM_OK (1) or one of the negative ORB_STREAM_ERR_...
 * codes below, which never coincide with minus an ORB_ERROR_CODE.
 *
 * Like the du... calls, a sensor is driven from one host thread at a time. */

#include <stdint.h>

#include "orb_export.h"

#ifdef __cplusplus
extern "C" {
#endif

enum orb_stream_result {
    ORB_STREAM_OK = 1,
    ORB_STREAM_ERR_TIMEOUT = -101,       /* nothing came within the time-out */
    ORB_STREAM_ERR_LOST = -102,          /* the sensor left the bus */
    ORB_STREAM_ERR_ENDED = -103,         /* the event loop has ended (a USB error, or the library was closed) */
    ORB_STREAM_ERR_NOT_CONNECTED = -104, /* no open sensor at that index */
    ORB_STREAM_ERR_INVALID = -105,       /* an argument out of range, or a null pointer */
    ORB_STREAM_ERR_BUSY = -106,          /* a stream runs already, or one runs while a single shot is asked for */
    ORB_STREAM_ERR_NOT_STREAMING = -107, /* no stream at that index */
    ORB_STREAM_ERR_USB = -108,           /* the sensor refused a request (a stall, or another transfer error) */
    ORB_STREAM_ERR_VERIFY = -109,        /* a register did not read back what was written, twice */
    ORB_STREAM_ERR_NO_MEMORY = -110,     /* no memory for the ring */
    ORB_STREAM_ERR_UNSUPPORTED = -111    /* the single shot with the frame moving average on */
};

#define ORB_STREAM_FILTERS 1024
/* Frames of the ring when the host asks for 0: 1.7 s at the bus's 594 frames/s. */
#define ORB_STREAM_DEFAULT_RING 1024
#define ORB_STREAM_MAX_RING 1048576
#define ORB_STREAM_SATURATED 4095

/* What a frame was exposed with. */
typedef struct orb_stream_settings {
    int shutter_speed;
    int blank_time;
    int adc_range;
    int adc_gain;
    int adc_resolution;
    int onboard_average;
} orb_stream_settings;

typedef struct orb_stream_frame {
    /* Counts every frame the host received since the stream started, from
     * 0: a gap is lost_before + stale_before frames wide. Frames the sensor
     * took that never reached the host are not numbered (missed_before). */
    uint64_t sequence;
    /* CLOCK_MONOTONIC, ns, when the library saw the transfer complete. */
    uint64_t timestamp_ns;
    /* Since the frame delivered before this one: frames lost because the
     * ring was full or they came short, and frames discarded because a
     * setting changed while they were under way. */
    uint32_t lost_before;
    uint32_t stale_before;
    orb_stream_settings settings;
    int saturated; /* filters at ORB_STREAM_SATURATED */
    uint16_t values[ORB_STREAM_FILTERS];
    /* Since the frame delivered before this one: frames the sensor took
     * while no transfer of the host was waiting for them, reckoned from the
     * interval the sensor keeps (its exposure, at least the bus's 32/19 ms)
     * and the frames that arrived; told once the host is more than three
     * frames behind that pace (the frames that may still be on their way).
     * In what was the record's tail padding: its size is unchanged. */
    uint32_t missed_before;
} orb_stream_frame;

typedef struct orb_stream_stats {
    uint64_t completed;    /* frames since the start, as counted by sequence */
    uint64_t delivered;    /* read by the host */
    uint64_t lost;         /* ring full, or short frames */
    uint64_t short_frames; /* of the lost ones, those that came short */
    uint64_t stale;        /* discarded after a settings change */
    uint32_t queued;       /* waiting in the ring now */
    uint32_t capacity;     /* ring size, frames */
    uint32_t max_queued;   /* the most ever waiting */
    uint32_t missed;       /* taken by the sensor, never received (see missed_before);
                              in what was the tail padding: the size is unchanged */
} orb_stream_stats;

/* Starts the sensor streaming (continuous mode) into a ring of ring_frames
 * frames (0: ORB_STREAM_DEFAULT_RING). Reads the sensor's settings first, so
 * that frames carry them; the two frames that follow the start request are
 * discarded, as a single shot discards them. When the ring is full the
 * newest frames are lost and counted; the ring never grows. The stream is
 * the sensor's continuous mode: a duGetFilterData meanwhile would take its
 * frames from it and then stop the sensor, so stop the stream first. */
ORB_EXPORT int orb_stream_start(int index, int ring_frames, int timeout_ms);
/* The oldest frame waiting, or ORB_STREAM_ERR_TIMEOUT after timeout_ms
 * (0: do not wait). */
ORB_EXPORT int orb_stream_read(int index, orb_stream_frame* frame, int timeout_ms);
/* Stops the sensor streaming and frees the ring; after a loss it only
 * frees. */
ORB_EXPORT int orb_stream_stop(int index, int timeout_ms);
/* Counters of the running (or last lost) stream; answers even after a loss,
 * with the loss as its result. */
ORB_EXPORT int orb_stream_get_stats(int index, orb_stream_stats* stats);

/* The settings the sensor works with: those of the running stream, else
 * read from the sensor's registers (no write, no pause). */
ORB_EXPORT int orb_stream_get_settings(int index, orb_stream_settings* settings, int timeout_ms);

/* Setting changes that take effect without stopping a stream. Frames still
 * waiting and frames under way when the change is made are discarded
 * (stale): every frame read after one of these returns was exposed with
 * the new setting. Without a stream they just set. The shutter speed (1 to
 * 65535) brings the blank time with it (shutter speed + 32), as
 * duSetShutterSpeed does. */
ORB_EXPORT int orb_stream_set_shutter_speed(int index, int shutter_speed, int timeout_ms);
ORB_EXPORT int orb_stream_set_blank_time(int index, int blank_time, int timeout_ms);
ORB_EXPORT int orb_stream_set_adc(int index, int gain, int range, int resolution, int timeout_ms);
ORB_EXPORT int orb_stream_set_onboard_average(int index, int count, int timeout_ms);

/* duGetFilterData for one index, with a time-out: the same requests,
 * pauses and average of `averages` frames written to output (1024
 * doubles). Refused while a stream runs. */
ORB_EXPORT int orb_single_shot(int index, double* output, int averages, int timeout_ms);

/* 1 when the sensor at index is still on the bus; ORB_STREAM_ERR_LOST when
 * it has left, ORB_STREAM_ERR_NOT_CONNECTED when nothing was opened there.
 * Asks the bus's device list, not the sensor: no request is sent. */
ORB_EXPORT int orb_sensor_present(int index);

/* A short English text for a result of these calls. */
ORB_EXPORT const char* orb_stream_result_text(int result);

#ifdef __cplusplus
}
#endif

#endif /* ORB_STREAM_H */
