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
    ORB_STREAM_ERR_UNSUPPORTED = -111,   /* the single shot with the frame moving average on */
    ORB_STREAM_ERR_SHORT_FRAME = -112,   /* frames came short, and whole ones did not replace them in time */
    ORB_STREAM_ERR_STALLED = -113        /* the frame endpoint stalled (the sensor is on the bus); the event loop has ended */
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
     * and the frames that arrived; told once the host is more than seven
     * frames behind that pace (the frames that may still be on their way:
     * one in each of the six transfers a stream keeps, one in the sensor).
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
 * doubles). Refused while a stream runs. An average never holds a frame
 * that came short: when one may be among its frames, they are all dropped
 * and taken again while the time-out allows (the short ones are counted in
 * orb_frame_activity's dropped_short), else the result is
 * ORB_STREAM_ERR_SHORT_FRAME. A start request the sensor refused, and no
 * frame after it, gives ORB_STREAM_ERR_USB rather than a time-out. */
ORB_EXPORT int orb_single_shot(int index, double* output, int averages, int timeout_ms);

/* What the frame path of a sensor has done, whoever drove it: a stream, a
 * single shot, or duGetFilterData and the calls built on it (the
 * auto-exposure search), which have no time-out. A host running one of
 * those watches idle_ms against patience_ms to tell a slow call from a
 * stuck one. Counting starts with the first call of this layer on the
 * index. Answers OK, or why the frame path cannot deliver any more
 * (ORB_STREAM_ERR_LOST, _STALLED, _ENDED, _NOT_CONNECTED), with the
 * record filled in either way when the index has a sensor. */
typedef struct orb_frame_activity {
    uint64_t completed;      /* frame transfers completed since counting started */
    uint64_t short_frames;   /* of them, those that came short */
    uint64_t dropped_short;  /* short frames the single shot dropped from its averages */
    uint32_t idle_ms;        /* since the last completion, or since counting started */
    /* The longest a working sensor goes without a completion while the
     * library acquires at the shutter speed it uses now: its pauses around
     * a trial of the auto-exposure search, the frames, and a margin. */
    uint32_t patience_ms;
} orb_frame_activity;

ORB_EXPORT int orb_frame_activity_get(int index, orb_frame_activity* activity);

/* 1 when the sensor at index is still on the bus; ORB_STREAM_ERR_LOST when
 * it has left, ORB_STREAM_ERR_NOT_CONNECTED when nothing was opened there.
 * Asks the bus's device list, not the sensor: no request is sent. */
ORB_EXPORT int orb_sensor_present(int index);

/* Auto-exposure on a stream: searches the shutter speed (1 to 3000) that
 * puts the brightest of the chosen filters at `target` DN within
 * `tolerance` DN, and leaves the sensor at it. It changes the shutter speed
 * and takes only frames exposed with it; it works on the running stream
 * (taking its frames from it) or, when none runs, on a stream of its own
 * that it stops at the end. Bounded in rounds (ORB_EXPOSURE_MAX_ROUNDS) and
 * in time (timeout_ms): it ends with an outcome, never a hang.
 *
 * filters: numbers 1..1024, filter_count of them; NULL and 0 for all.
 * target: 1..4095, 0 for ORB_EXPOSURE_DEFAULT_TARGET; tolerance: 1..4095,
 * 0 for ORB_EXPOSURE_DEFAULT_TOLERANCE_PERCENT of the target.
 * Returns ORB_STREAM_OK with *result filled whenever a frame was measured,
 * whatever the outcome; ORB_STREAM_ERR_TIMEOUT when the sensor sent no
 * frame within a read's bound (ORB_EXPOSURE_READ_BOUND_MS, or what was left
 * of timeout_ms); the stream's results otherwise.
 *
 * Beside duGetOptimalShutterSpeed, which keeps its own search. */

enum orb_exposure_outcome {
    ORB_EXPOSURE_ON_TARGET = 0,     /* within the tolerance, or as near as the shutter's steps allow */
    ORB_EXPOSURE_TOO_DIM = 1,       /* below the target at the longest exposure: `level` says how far */
    ORB_EXPOSURE_TOO_BRIGHT = 2,    /* saturated at the shortest exposure */
    ORB_EXPOSURE_LIGHT_CHANGED = 3  /* the light did not hold still: the bound was reached off target */
};

#define ORB_EXPOSURE_DEFAULT_TARGET 3276 /* 80 % of full scale */
#define ORB_EXPOSURE_DEFAULT_TOLERANCE_PERCENT 8
#define ORB_EXPOSURE_MAX_ROUNDS 6
#define ORB_EXPOSURE_READ_BOUND_MS 3000

typedef struct orb_exposure_result {
    int outcome;       /* enum orb_exposure_outcome */
    int shutter_speed; /* chosen and set */
    int level;         /* the brightest chosen filter at that shutter speed, DN */
    int target;        /* the target and tolerance used */
    int tolerance;
    int rounds;        /* shutter speeds measured, the final one included */
    int frames;        /* frames measured (fresh ones; those passed over after a change not counted) */
    int elapsed_ms;
} orb_exposure_result;

ORB_EXPORT int orb_stream_auto_expose(int index, const int* filters, int filter_count, int target, int tolerance,
                                      int timeout_ms, orb_exposure_result* result);
/* A short English text for an outcome. */
ORB_EXPORT const char* orb_exposure_outcome_text(int outcome);

/* A short English text for a result of these calls. */
ORB_EXPORT const char* orb_stream_result_text(int result);

#ifdef __cplusplus
}
#endif

#endif /* ORB_STREAM_H */
