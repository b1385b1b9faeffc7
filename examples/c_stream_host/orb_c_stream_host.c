/* A streaming host in plain C: connects the sensors, streams frames from the
 * first one for the number of seconds given, then prints the frame rate and
 * how many frames were lost (ring full, short) and missed (taken by the
 * sensor while no transfer waited).
 *   orb_c_stream_host SECONDS
 * Exit status: 0 done, 1 no sensor, 2 bad use, 3 the sensor was lost or the
 * stream failed (at once, not at the end of the time). */
#define _POSIX_C_SOURCE 199309L

#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "orb_device_api.h"
#include "orb_stream.h"

#define SENSOR 0
#define TIMEOUT_MS 1000

static double now_s(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

static int stream_for(double seconds) {
    static orb_stream_frame frame;
    orb_stream_stats stats;
    unsigned long long frames = 0, lost = 0, missed = 0, first_ns = 0, last_ns = 0;
    double end;
    int r;

    r = orb_stream_start(SENSOR, 0, TIMEOUT_MS);
    if (r != ORB_STREAM_OK) {
        fprintf(stderr, "could not start the stream: %s\n", orb_stream_result_text(r));
        return 3;
    }
    end = now_s() + seconds;
    while (now_s() < end) {
        r = orb_stream_read(SENSOR, &frame, TIMEOUT_MS);
        if (r != ORB_STREAM_OK) {
            fprintf(stderr, "stream stopped after %llu frames: %s\n", frames, orb_stream_result_text(r));
            orb_stream_stop(SENSOR, TIMEOUT_MS);
            return 3;
        }
        if (frames++ == 0) first_ns = frame.timestamp_ns;
        last_ns = frame.timestamp_ns;
        lost += frame.lost_before;
        missed += frame.missed_before;
    }
    /* Also the frames lost or missed after the last one read. */
    if (orb_stream_get_stats(SENSOR, &stats) == ORB_STREAM_OK) {
        lost = stats.lost;
        missed = stats.missed;
    }
    r = orb_stream_stop(SENSOR, TIMEOUT_MS);
    if (r != ORB_STREAM_OK) {
        fprintf(stderr, "could not stop the stream: %s\n", orb_stream_result_text(r));
        return 3;
    }
    printf("frames: %llu, rate: %.1f frames/s, lost: %llu, missed: %llu\n", frames,
           frames > 1 ? (frames - 1) / ((last_ns - first_ns) / 1e9) : 0.0, lost, missed);
    return 0;
}

int main(int argc, char** argv) {
    char* rest;
    double seconds;
    int result;

    if (argc != 2 || (seconds = strtod(argv[1], &rest)) <= 0 || *rest != '\0') {
        fprintf(stderr, "usage: %s SECONDS\n", argv[0]);
        return 2;
    }
    if (duConnect() < 1) {
        fprintf(stderr, "no sensor found\n");
        return 1;
    }
    result = stream_for(seconds);
    /* After a loss the event loop has ended; disconnecting is still safe. */
    duDisconnect();
    return result;
}
