#ifndef ORB_DEVICE_INTERFACE_H
#define ORB_DEVICE_INTERFACE_H

// The object a host holds for one sensor. initialize() creates the sensor's
// orb_device_interface_base and brings the sensor up; almost everything else
// is handed to that object unchanged. The base outlives the facade: neither
// the destructor nor finalize() deletes it, and finalize() is what releases
// the sensor.

#include <string>
#include <vector>

#include <libusb.h>

#include "orb_device_interface_base.h"
#include "orb_export.h"
#include "orb_sdk_common.h"

class ORB_EXPORT orb_device_interface {
public:
    orb_device_interface();
    ~orb_device_interface();

    // 1 when the sensor came up, else -1.
    int initialize(unsigned int iDeviceId);
    void initialize();
    void finalize(unsigned int iDeviceId);
    bool is_initialized(unsigned int iDeviceId);
    int reconnect_device(unsigned int& iDeviceId, std::string dark_data_file, libusb_device* pDev,
                         libusb_context* lctx, bool detach);
    bool test_device(unsigned int iDeviceId);

    // Wavelength range and step of the spectrum, in nm.
    double get_start_lambda();
    double get_end_lambda();
    double get_interval();
    int get_resolution();
    int get_min_shutter_speed(unsigned int iDeviceId);
    int get_max_shutter_speed(unsigned int iDeviceId);

    // Do nothing on a sensor that is not in service.
    void enable_spatial_filtering(bool bEnable, int iSize, unsigned int iDeviceId);
    void enable_frame_moving_average(bool bEnable, unsigned int iDeviceId);

    // saturation_value is capped at 4000 for the search.
    int find_optimal_shutter_speed(std::vector<int>& valid_filter_list, std::vector<double>& background_data,
                                   int saturation_value, int sleep_time, unsigned int iDeviceId);
    void set_auto_exposure_parameters(int target_DN, unsigned int iDeviceId);
    void set_auto_exposure_parameters(int target_DN, int upper_DN, int lower_DN, int mean_DN, int max_integ_DN,
                                      unsigned int iDeviceId);

    void set_frame_acquisition_conditions(SDataAcqCondition& AcqCond, int deviceId);
    double get_filter_data(std::vector<double>& filter_data, int average, int darkcorrectionMode, bool useAE,
                           int deviceId, int useContAcq);
    double get_filter_data(double* filter_buffer, int for_num_averages, int dark_correction_mode, int useContAcq,
                           unsigned int iDeviceId);
    int get_filter_data_2048(std::vector<char>& filter_data, int deviceId);
    void get_background_filter_data(double* filter_buffer, int frame_average, int iDeviceId);
    double get_min_filter_out(unsigned int iDeviceId);
    double get_max_filter_out(unsigned int iDeviceId);
    int get_num_filters(unsigned int iDeviceId);
    std::vector<int> get_abnormal_filters(unsigned int iDeviceId);

    void set_shutter_speed(int set_shutter, unsigned int iDeviceId);
    int get_shutter_speed(unsigned int iDeviceId);
    int shutter_to_exposure_time_ms(int MCLK, int shutter, double* exposure_time_val);
    int exposure_tim_ms_to_shutter(int MCLK, double exposure_time_val, int* shutter);
    void set_blank_time(int blank_time, unsigned int iDeviceId);
    int get_blank_time(unsigned int iDeviceId);
    void set_acq_mode(int acq_mode);
    void get_acq_mode(int* acq_mode);

    void get_sensor_id(char* sensor_id, unsigned int iDeviceId);
    // Leaves the outputs alone (and says so) when initialize() never ran.
    void get_sensor_id(char* lot_char, short* lot_id, short* wafer_id, short* x_coord, short* y_coord,
                       short* sensor_type, unsigned int iDeviceId);
    std::string get_sensor_id(unsigned int iDeviceId);
    std::string decode_sensor_id(char* sensor_id, unsigned int iDeviceId);

    int get_adc_range(unsigned int iDeviceId);
    // Resolution 0 on device 0.
    void set_adc_settings(unsigned char adc_range_index, unsigned char gain);
    void set_adc_settings(unsigned char adc_range_index, unsigned char gain, unsigned char res,
                          unsigned int iDeviceId);
    void get_adcsettings(unsigned char* adc_range_index, unsigned char* gain, unsigned char* res,
                         unsigned int iDeviceId);

    // On-board processing: an orb_base_exception comes back as its (positive) code.
    int set_onboard_frame_average(unsigned char average_count, unsigned int device_id);
    int get_onboard_frame_average(unsigned int device_id);
    int set_onboard_dark_correction(bool bEnable, unsigned int device_id);
    int get_onboard_dark_correction(unsigned int device_id);
    int get_onboard_dark_frame(unsigned int device_id);
    int get_poi_info(std::vector<int>& poi, unsigned int iDeviceId);
    int set_poi_info(std::vector<int>& poi, unsigned int iDeviceId);
    int get_poi_filter_data(std::vector<int>& poi_filter_buffer, int poi_size, std::vector<double>& poi_background,
                            unsigned int iDeviceId);

    // LED module through the sensor.
    void set_led_module_op_mode(int op_mode, unsigned int iDeviceId);
    bool set_led_state(bool* on_array, int num_LED, int intensity, unsigned int iDeviceId);
    bool set_led_opmode(int iOpMode, int iToggleIntervalTime, unsigned int iDeviceId);
    // The LED driver device; intensity 0 switches every channel off.
    int leddriver_isopen();
    int leddriver_close();
    int leddriver_set_led_state(bool* on_array, int num_LED, int intensity);
    int leddriver_turn_off_all();

    void activate_device(unsigned int deviceid);
    unsigned int get_total_devices();

private:
    // Known values before initialize(), so that a host calling too early gets
    // the null-base message rather than a wild pointer.
    orb_device_interface_base* m_device_interface_base = nullptr;
    bool m_interface_is_initialized = false;
};

#endif  // ORB_DEVICE_INTERFACE_H
