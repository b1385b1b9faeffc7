#ifndef ORB_DEVICE_API_H
#define ORB_DEVICE_API_H

/* The sensor library for hosts in any language: plain C calls on the current
 * sensor, picked with duActivateSensorWith...; duConnect makes the first one
 * current. A negative result is the negated ORB_ERROR_CODE of the failure
 * (orb_error_codes.h), or -1. Filter data buffers hold 1024 doubles, sensor ID
 * buffers 26 characters. Call from one thread at a time. */

#include "orb_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Connects up to duGetMaxSensorCount() sensors, indices 0 upward, stopping
 * at the first that does not come up. The count, or -1 when there is none. */
ORB_EXPORT int duConnect(void);
ORB_EXPORT int duDisconnect(void);
/* duGetTotalSensors() ID texts. The array and each entry are the caller's to
 * free(). */
ORB_EXPORT char** duGetSensorList(void);
ORB_EXPORT int duGetMaxSensorCount(void);
/* Out-of-range indices are clamped to the connected ones. */
ORB_EXPORT int duActivateSensorWithIndex(int sensor_index);
/* The index of the sensor with that ID text, or -1. */
ORB_EXPORT int duActivateSensorWithID(char* sensor_id_str);
ORB_EXPORT int duGetTotalSensors(void);
ORB_EXPORT int duGetSensorID(char* sensor_id);

ORB_EXPORT int duGetShutterSpeed(void);
ORB_EXPORT int duGetShutterSpeedLimits(int* min_limit, int* max_limit);
ORB_EXPORT int duShutterSpeedToExposureTime(int master_clock, int shutter_speed, double* exposure_time_val);
ORB_EXPORT int duExposureTimeToShutterSpeed(int master_clock, double exposure_time_val, int* shutter_speed);
/* Clamped to 1..3000. */
ORB_EXPORT int duSetShutterSpeed(int shutter);
/* Auto-exposure over 1-based filter numbers (NULL: the sensor's 824 valid
 * filters), peak aimed at 3500 or at target_DN. The shutter speed found. */
ORB_EXPORT int duGetOptimalShutterSpeed(int* valid_filters_in, int num_of_valid_filters);
ORB_EXPORT int duGetOptimalShutterSpeed2(int* valid_filters_in, int num_of_valid_filters, int target_DN);

/* The average of number_of_averages frames into output[1024]. */
ORB_EXPORT int duGetFilterData(double* output, int number_of_averages);
/* Gain 0 or 1 (else 0), range 0..255 (else 132). */
ORB_EXPORT int duSetSensorParameters(int _adc_gain, int _adc_range);
ORB_EXPORT int duGetSensorParameters(int* _adc_gain, int* _adc_range);

#ifdef __cplusplus
}
#endif

#endif /* ORB_DEVICE_API_H */
