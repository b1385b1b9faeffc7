#ifndef ORB_DEVICE_INTERFACE_ONBOARD_PROCESSINGS_H
#define ORB_DEVICE_INTERFACE_ONBOARD_PROCESSINGS_H

// Processing the sensor's controller can do before frames leave it. Only the
// frame-average count exists in the firmware; dark correction and regions of
// interest are accepted here so hosts can be written against them, and are
// ignored until the firmware offers them.

#include <vector>

#include "orb_export.h"

ORB_EXPORT void set_frame_average_count_for_on_board_processing(unsigned char ucData, unsigned int iDeviceId);
ORB_EXPORT unsigned char get_frame_average_count_for_on_board_processing(unsigned int iDeviceId);

ORB_EXPORT int set_dark_correction_mode_for_on_board_processing(bool bEnable, unsigned int iDeviceId);
ORB_EXPORT bool get_dark_correction_mode_for_on_board_processing(unsigned int iDeviceId);
ORB_EXPORT int get_dark_frame_for_on_board_processing(unsigned int iDeviceId);

ORB_EXPORT int get_roi_info_from_sensor(std::vector<int>& poi, int iDeviceId);
ORB_EXPORT int set_roi_info_to_sensor(std::vector<int>& poi, int iDeviceId);
ORB_EXPORT int get_roi_data_from_sensor(std::vector<int>& poi_data, int iPoiSize, std::vector<double>& poi_background,
                                        int iDeviceId);
ORB_EXPORT double acquire_sub_frame_data(int* frameBuf, int iDarkCorrectionMode, unsigned int iDeviceId);

// The region-of-interest requests of the firmware to come.
ORB_EXPORT int write_roi_info_to_fw(int iCommand, int wValue, unsigned int iDeviceId);
ORB_EXPORT int read_roi_info_from_fw(int iCommand, int wValue, unsigned int iDeviceId);
ORB_EXPORT std::vector<int> get_roi_info_from_sensor(int iCommand, int wValue, unsigned int iDeviceId);
ORB_EXPORT int set_roi_info_to_sensor(int iCommand, std::vector<int> POI, unsigned int iDeviceId);

#endif  // ORB_DEVICE_INTERFACE_ONBOARD_PROCESSINGS_H
