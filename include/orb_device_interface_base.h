#ifndef ORB_DEVICE_INTERFACE_BASE_H
#define ORB_DEVICE_INTERFACE_BASE_H

// One object per connected sensor. It keeps the sensor's initialisation flag
// and acquisition conditions and hands everything that touches hardware to
// the sensor link, turning a failed status into orb_base_exception. Most
// operations take the sensor index last; the shutter speed, the smoothing
// switches and the moving-average ring behind them are shared by every
// sensor of the process.

#include <map>
#include <string>
#include <vector>

#include <libusb.h>

#include "orb_base_types.h"
#include "orb_export.h"
#include "orb_sdk_common.h"

ORB_EXPORT extern bool g_bEnableSpatialFiltering;
ORB_EXPORT extern int g_iSpatialFilterSize;
// The last shutter speed asked of set_shutter_speed, whatever the sensor said.
ORB_EXPORT extern int g_current_shutter_speed;

class ORB_EXPORT orb_device_interface_base {
public:
    // Zeroes the frame moving-average ring of every sensor.
    explicit orb_device_interface_base(unsigned int iDeviceId);
    // Closes sensor index 0, whichever sensor this object stood for.
    ~orb_device_interface_base();
    orb_device_interface_base(const orb_device_interface_base&) = delete;
    orb_device_interface_base& operator=(const orb_device_interface_base&) = delete;

    virtual void initialize();
    virtual int initialize(unsigned int iDeviceId);
    virtual bool is_initialized(unsigned int iDeviceId);
    virtual void finalize(unsigned int iDeviceId);
    virtual int reconnect_device(unsigned int& iDeviceId, std::string dark_data_file, libusb_device* pDev,
                                 libusb_context* lctx, bool detach);
    virtual void enable_spatial_filtering(bool bEnable, int iSize, unsigned int iDeviceId);
    virtual int find_optimal_shutter_speed(std::vector<int>& valid_filter_list, std::vector<double>& background_data,
                                           int saturation_value, int sleep_time, unsigned int iDeviceId);
    virtual void set_auto_exposure_parameters(int saturation_DN, unsigned int iDeviceId);
    virtual void set_auto_exposure_parameters(int target_DN, int upper_DN, int lower_DN, int mean_DN,
                                              int max_integ_DN, unsigned int iDeviceId);
    virtual void enable_frame_moving_average(bool bEnable, unsigned int iDeviceId);
    virtual void get_background_filter_data(FLOAT64_TYPE* filter_buffer, int frame_average, int iDeviceId);
    virtual double get_filter_data(FLOAT64_TYPE* filter_buffer, int for_num_averages, int dark_correction_mode,
                                   int useContAcq, unsigned int iDeviceId);
    virtual double get_filter_data(std::vector<double>& filter_data, int average, int darkcorrectionMode, bool useAE,
                                   int deviceId, int useContAcq);
    virtual int get_filter_data_2048(std::vector<char>& filter_data, int deviceId);
    virtual int get_shutter_speed(unsigned int iDeviceId);
    virtual void set_shutter_speed(int set_shutter, unsigned int iDeviceId);
    virtual void set_blank_time(int blank_time, unsigned int iDeviceId);
    virtual int get_blank_time(unsigned int iDeviceId);
    virtual int get_min_shutter_speed(unsigned int iDeviceId);
    virtual int get_max_shutter_speed(unsigned int iDeviceId);
    virtual FLOAT64_TYPE get_min_filter_out(unsigned int iDeviceId);
    virtual FLOAT64_TYPE get_max_filter_out(unsigned int iDeviceId);
    virtual int get_num_filters(unsigned int iDeviceId);
    virtual std::vector<int> get_abnormal_filters(unsigned int iDeviceId);
    virtual void set_led_module_op_mode(int op_mode, unsigned int iDeviceId);
    virtual int set_onboard_frame_average(unsigned char average_count, unsigned int device_id);
    virtual int get_onboard_frame_average(unsigned int device_id);
    virtual int set_onboard_dark_correction(bool bEnable, unsigned int device_id);
    virtual int get_onboard_dark_correction(unsigned int device_id);
    virtual int get_onboard_dark_frame(unsigned int device_id);
    virtual int get_poi_info(std::vector<int>& poi, unsigned int iDeviceId);
    virtual int set_poi_info(std::vector<int>& poi, unsigned int iDeviceId);
    virtual int get_poi_filter_data(std::vector<int>& poi_filter_buffer, int poi_size,
                                    std::vector<double>& poi_background, unsigned int iDeviceId);
    virtual int leddriver_isopen();
    virtual int leddriver_close();
    virtual int leddriver_set_led_state(bool* on_array, int num_LED, int intensity);
    virtual int leddriver_turn_off_all();

    void set_acq_mode(int acq_mode);
    void get_acq_mode(int* acq_mode);
    int get_adc_range(unsigned int iDeviceId);
    // (shutter x 912 + 160) / (MCLK x 1000) in integers; the quotient as ms.
    int shutter_to_exposure_time_ms(int MCLK, int shutter, double* exposure_time_val);
    // (MCLK x 1000 x ms - 544) / 528, truncated. Not the inverse of the above:
    // the two come from different calibrations of the sensor's clocking.
    int exposure_tim_ms_to_shutter(int MCLK, double exposure_time_val, int* shutter);
    void set_adc_settings(unsigned char adc_range_index, unsigned char gain);
    void set_adc_settings(unsigned char adc_range_index, unsigned char gain, unsigned char res,
                          unsigned int iDeviceId);
    void get_adcsettings(unsigned char* adc_range_index, unsigned char* gain, unsigned char* res,
                         unsigned int iDeviceId);
    void test_device(bool& bSensorBoardOk, bool& bControllerBoardOk, unsigned int iDeviceId);
    bool set_led_state(bool* on_array, int num_LED, int intensity, unsigned int iDeviceId);
    bool set_led_opmode(int iOpMode, int iToggleIntervalTime, unsigned int iDeviceId);
    void set_frame_acquisition_conditions(SDataAcqCondition& AcqCond, int deviceId);
    unsigned int get_total_devices();
    void activate_device(unsigned int deviceid);
    void get_sensor_id(char* sensor_id, unsigned int iDeviceId);
    void get_sensor_id(char* lot_char, short* lot_id, short* wafer_id, short* x_coord, short* y_coord,
                       short* sensor_type, unsigned int iDeviceId);
    std::string decode_sensor_id(char* sensor_id, unsigned int iDeviceId);
    std::string get_sensor_id(unsigned int iDeviceId);

protected:
    // Throws vn_ec_initialization_required until initialize() succeeded.
    void require_initialized() const;

    bool m_interface_is_initialized;
    double m_dark_average_val;
    double m_current_filter_data[1024];
    double m_current_dark_map[1024];
    int m_ShutterSpeed2;
    int m_adc_range;
    int m_adc_gain;
    int m_adc_res;
    std::string m_sensor_id;
    bool m_bEnableOBDC;
    bool m_bFilterDataAtSS1IsReady;
    std::map<int, SDataAcqCondition> m_AcqCond;
};

#endif  // ORB_DEVICE_INTERFACE_BASE_H
