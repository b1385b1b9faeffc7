#ifndef ORB_DEVICE_INTERFACE_DEVICE_INFO_H
#define ORB_DEVICE_INTERFACE_DEVICE_INFO_H

// The sensor's identity: five bytes burnt in at the fab that name the lot
// (letter and number), the wafer, the die's x and y on it and the sensor
// type. Their text form, "C1234-7-20-33-1", is the sensor's name everywhere
// in the library and for hosts.
//
// Neither read checks the transfer: a sensor that does not answer, answers
// short or has no handle reads as zero bytes (text "A0-0-0-0-0"), and both
// still return 1. Outputs passed as null are not written.

#include <string>

#include "orb_export.h"

// Filter positions at the end of the frame that carry the sensor-type
// pattern (highest first), and the three dark reference filters beside them.
ORB_EXPORT extern const int SENSOR_TYPE_FILTER_INDEX[8];
ORB_EXPORT extern const int SENSOR_TYPE_BACKGROUND_FILTER_INDEX[3];

// Copies the 5 raw identity bytes into SensorID, unterminated.
ORB_EXPORT int get_sensor_id_with_index(char* SensorID, unsigned int iDeviceId);
// Reads the identity and unpacks it into its six fields.
ORB_EXPORT int get_sensor_id_with_index(char* lot_char, short* lot_id, short* wafer_id, short* x_coord,
                                        short* y_coord, short* sensor_type, unsigned int iDeviceId);
// Text of 5 raw bytes as the raw read returns them; talks to no device, and
// iDeviceId is only there for the callers' symmetry.
ORB_EXPORT std::string decode_sensor_id_from_string(char* buf, unsigned int iDeviceId);
// The controller has no version request: version is left as it is.
ORB_EXPORT int get_firmware_version(unsigned char* version);

#endif  // ORB_DEVICE_INTERFACE_DEVICE_INFO_H
