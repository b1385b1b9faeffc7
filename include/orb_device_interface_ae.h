#ifndef ORB_DEVICE_INTERFACE_AE_H
#define ORB_DEVICE_INTERFACE_AE_H

// Auto-exposure: find the shutter speed at which the brightest of a chosen set
// of filters sits just below saturation, by driving the sensor itself (set the
// speed, settle, average frames, step the speed on the mean of the chosen
// filters). One parameter record and two look-up tables serve every sensor.

#include <vector>

#include "orb_device_def.h"
#include "orb_export.h"

ORB_EXPORT extern orb_def_auto_exposure_parameters m_gAEParams;
// Entries of the table loaded last; both tables share this one count.
ORB_EXPORT extern int g_aeLUTSize;
// Loaded from ./config at bring-up and kept for hosts; the search does not
// consult them. Null until a file has been read.
ORB_EXPORT extern double* g_intensityLUT;
ORB_EXPORT extern double* g_ssLUT;

// Upper and mean ceiling at saturation_DN, target 300 below it, lower 600
// below. Always 1; the device index does not select anything.
ORB_EXPORT int set_params_for_ae_module(int saturation_DN, unsigned int iDeviceId);
ORB_EXPORT int set_params_for_ae_module(int target_DN, int upper_DN, int lower_DN, int mean_DN, int max_integ_DN,
                                        unsigned int iDeviceId);

// The chosen filters' values out of a frame, in the order of valid_filters.
// 0 (and an empty output) when the list is empty, longer than the frame or
// reaches past it.
ORB_EXPORT int get_valid_filters_only(std::vector<double>& input_frame, std::vector<int>& valid_filters,
                                      std::vector<double>& output_frame);

// valid_filters are 0-based and must lie within 0..1023. Every trial sets the
// speed, sleeps sleep_time ms and averages frame_average frames. -1 when all
// 1024 filters saturate at shutter speed 1.
ORB_EXPORT int find_optimal_shutter_speed_with_ae(std::vector<int>& valid_filters, int frame_average, int sleep_time,
                                                  unsigned int iDeviceId);

// Reads the first non-empty line of each file as comma-separated numbers. A
// file that cannot be read leaves its earlier table. Always 1.
ORB_EXPORT int initialize_ae_module(const char* strFileName_intensityLUT, const char* strFileName_ssLUT);

#endif  // ORB_DEVICE_INTERFACE_AE_H
