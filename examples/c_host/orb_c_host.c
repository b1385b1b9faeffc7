/* A host in plain C: connects the sensors, names the current one, reads one
 * averaged frame of filter data and summarises it, then disconnects.
 * Exit status: 0 on success, 1 when no sensor came up, 2 when the sensor
 * could not be named or read. */
#include <stdio.h>

#include "orb_device_api.h"

#define NUM_FILTERS 1024
#define SENSOR_ID_SIZE 26
#define FRAME_AVERAGES 10

static int read_and_summarise(void) {
    char sensor_id[SENSOR_ID_SIZE];
    static double frame[NUM_FILTERS];
    double min, max, sum = 0.0;
    int status, i;

    status = duGetSensorID(sensor_id);
    if (status != 1) {
        fprintf(stderr, "could not read the sensor's ID: %d\n", status);
        return 2;
    }
    printf("current sensor: %s\n", sensor_id);

    status = duGetFilterData(frame, FRAME_AVERAGES);
    if (status != 1) {
        fprintf(stderr, "could not read filter data: %d\n", status);
        return 2;
    }
    min = max = frame[0];
    for (i = 0; i < NUM_FILTERS; i++) {
        if (frame[i] < min) min = frame[i];
        if (frame[i] > max) max = frame[i];
        sum += frame[i];
    }
    printf("filter data, %d frames averaged: min %.2f, mean %.2f, max %.2f\n", FRAME_AVERAGES, min,
           sum / NUM_FILTERS, max);
    return 0;
}

int main(void) {
    int result;

    if (duConnect() < 1) {
        fprintf(stderr, "no sensor found\n");
        return 1;
    }
    printf("sensors: %d\n", duGetTotalSensors());
    result = read_and_summarise();
    duDisconnect();
    return result;
}
