// The per-sensor object: initialisation, exposure, ADC, identity, LED and
// on-board processing forwarded to the sensor link, and the filter data
// delivered from it.

#include "orb_device_interface_base.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <numeric>

#include "orb_base_exception.h"
#include "orb_guarded_call.h"
#include "orb_device_interface_ae.h"
#include "orb_device_interface_device_info.h"
#include "orb_device_interface_device_settings.h"
#include "orb_device_interface_led.h"
#include "orb_device_interface_onboard_processings.h"
#include "orb_device_interface_stm.h"
#include "orb_device_interface_stm_usb.h"
#include "orb_error_codes.h"
#include "efm32com/orb_exposure.h"
#include "efm32com/orb_frame_samples.h"
#include "efm32com/orb_sensor_id_text.h"

bool g_bEnableSpatialFiltering = false;
int g_iSpatialFilterSize = 5;
int g_current_shutter_speed = 1;

namespace {

constexpr int kFilters = orbframe::kSamples;
constexpr int kWireFrameBytes = orbframe::kFrameBytes;
// The ADC output one above its maximum: a filter whose average comes to
// exactly this at the shortest exposure is taken as broken.
constexpr double kSaturatedValue = orbframe::kSampleMax + 1.0;
constexpr int kAbnormalScanFrames = 20;
constexpr int kAutoExposureFrames = 10;
// A saturation value that leaves the auto-exposure targets as they are.
constexpr int kKeepAutoExposureParams = -1;
constexpr int kLedDriverChannels = 8;

void throw_on_failure(int status) {
    if (status != vn_ec_success) throw orb_base_exception(static_cast<ORB_ERROR_CODE>(status));
}

// Host values are worked in 32-bit two's complement, as the sensor's clock
// formulas were defined; wrapping keeps their extremes defined.
int32_t wrap32(int64_t value) { return static_cast<int32_t>(static_cast<uint32_t>(value)); }

int32_t master_clock_ticks(int MCLK) { return wrap32(static_cast<int64_t>(MCLK) * 1000); }

}  // namespace

orb_device_interface_base::orb_device_interface_base(unsigned int)
    : m_interface_is_initialized(false),
      m_dark_average_val(0.0),
      m_ShutterSpeed2(20),
      m_adc_range(132),
      m_adc_gain(1),
      m_adc_res(0),
      m_bEnableOBDC(false),
      m_bFilterDataAtSS1IsReady(false) {
    memset(g_FMA_Buffer, 0, sizeof g_FMA_Buffer);
}

// Index 0 whatever this object stood for: the shut-down ends the event loop
// and the LED driver for every sensor anyway.
orb_device_interface_base::~orb_device_interface_base() {
    try {
        close_device_interface(0);
    } catch (...) {
    }
}

void orb_device_interface_base::require_initialized() const {
    if (!m_interface_is_initialized) throw orb_base_exception(vn_ec_initialization_required);
}

void orb_device_interface_base::initialize() { initialize(0u); }

int orb_device_interface_base::initialize(unsigned int iDeviceId) {
    set_device_index(iDeviceId);
    if (initialize_device_interface(iDeviceId) != vn_ec_success) return -1;
    m_interface_is_initialized = true;
    // Every sensor starts at the shortest exposure. What get_shutter_speed
    // reports stays the process-wide value, which this does not touch.
    set_shutter_speed_to_sensor(1, iDeviceId);
    return 1;
}

bool orb_device_interface_base::is_initialized(unsigned int) { return m_interface_is_initialized; }

// The flag stays set: later calls go to the closed sensor and find no handle.
void orb_device_interface_base::finalize(unsigned int iDeviceId) {
    require_initialized();
    close_device_interface(iDeviceId);
}

int orb_device_interface_base::reconnect_device(unsigned int& iDeviceId, std::string, libusb_device* pDev,
                                                libusb_context* lctx, bool detach) {
    return ::reconnect_device(iDeviceId, pDev, lctx, detach) == vn_ec_success ? 1 : -1;
}

// Stored for hosts that query it; no stage of the data path filters spatially.
void orb_device_interface_base::enable_spatial_filtering(bool bEnable, int iSize, unsigned int) {
    g_bEnableSpatialFiltering = bEnable;
    g_iSpatialFilterSize = iSize;
}

int orb_device_interface_base::find_optimal_shutter_speed(std::vector<int>& valid_filter_list, std::vector<double>&,
                                                          int saturation_value, int sleep_time,
                                                          unsigned int iDeviceId) {
    // Hosts number filters from 1; the search indexes the frame from 0.
    std::vector<int> filters = valid_filter_list;
    if (filters.empty()) {
        filters.resize(kFilters);
        std::iota(filters.begin(), filters.end(), 0);
    } else {
        // Wrapping: a host's INT_MIN lands past the frame, where the search reads nothing.
        for (int& f : filters) f = wrap32(static_cast<int64_t>(f) - 1);
    }
    if (saturation_value != kKeepAutoExposureParams) set_params_for_ae_module(saturation_value, iDeviceId);
    return find_optimal_shutter_speed_with_ae(filters, kAutoExposureFrames, sleep_time, iDeviceId);
}

void orb_device_interface_base::set_auto_exposure_parameters(int saturation_DN, unsigned int iDeviceId) {
    set_params_for_ae_module(saturation_DN, iDeviceId);
}

void orb_device_interface_base::set_auto_exposure_parameters(int target_DN, int upper_DN, int lower_DN, int mean_DN,
                                                             int max_integ_DN, unsigned int iDeviceId) {
    set_params_for_ae_module(target_DN, upper_DN, lower_DN, mean_DN, max_integ_DN, iDeviceId);
}

// The ring itself is kept and averaged by the frame acquisition.
void orb_device_interface_base::enable_frame_moving_average(bool bEnable, unsigned int) { g_enable_FMA = bEnable; }

// Taken at the shortest exposure; a failed acquisition leaves it there.
void orb_device_interface_base::get_background_filter_data(FLOAT64_TYPE* filter_buffer, int frame_average,
                                                           int iDeviceId) {
    int previous = get_shutter_speed(iDeviceId);
    set_shutter_speed(1, iDeviceId);
    get_filter_data_from_sensor(filter_buffer, frame_average, 0, 0, iDeviceId);
    set_shutter_speed(previous, iDeviceId);
}

// No dark frame is subtracted here, whatever the mode: mode 1 only stages the
// frame in the object, where it stays for a later look.
double orb_device_interface_base::get_filter_data(FLOAT64_TYPE* filter_buffer, int for_num_averages,
                                                  int dark_correction_mode, int useContAcq, unsigned int iDeviceId) {
    require_initialized();
    if (dark_correction_mode != 1) {
        get_filter_data_from_sensor(filter_buffer, for_num_averages, dark_correction_mode, useContAcq, iDeviceId);
        return 1.0;
    }
    // A dark map would be chosen by this shutter speed; the sensor offers
    // none yet, so the frame is only staged.
    get_shutter_speed(iDeviceId);
    get_filter_data_from_sensor(m_current_filter_data, for_num_averages, 0, useContAcq, iDeviceId);
    if (filter_buffer != nullptr) memcpy(filter_buffer, m_current_filter_data, sizeof m_current_filter_data);
    return 1.0;
}

// Delivers the configured number of filters (all 1024 unless the device's
// acquisition conditions say otherwise); the rest of the vector stays 0.0.
double orb_device_interface_base::get_filter_data(std::vector<double>& filter_data, int average,
                                                  int darkcorrectionMode, bool, int deviceId, int useContAcq) {
    filter_data.clear();
    filter_data.resize(kFilters, 0.0);
    // Zeros where a failed acquisition leaves the frame untouched.
    double frame[kFilters] = {};
    get_filter_data_from_sensor(frame, average, darkcorrectionMode, useContAcq, deviceId);
    int datasize = std::clamp(m_AcqCond[deviceId].datasize, 0, kFilters);
    std::copy(frame, frame + datasize, filter_data.begin());
    return 0.0;
}

int orb_device_interface_base::get_filter_data_2048(std::vector<char>& filter_data, int deviceId) {
    filter_data.clear();
    filter_data.resize(kWireFrameBytes);
    char frame[kWireFrameBytes] = {};
    acquire_frame_data_2048(frame, deviceId);
    std::copy(frame, frame + kWireFrameBytes, filter_data.begin());
    return 0;
}

// The last speed asked for, not one read back from the sensor.
int orb_device_interface_base::get_shutter_speed(unsigned int) {
    require_initialized();
    return g_current_shutter_speed;
}

// Recorded before the outcome is known: a failed setting is still what
// get_shutter_speed reports afterwards.
void orb_device_interface_base::set_shutter_speed(int set_shutter, unsigned int iDeviceId) {
    require_initialized();
    int status = set_shutter_speed_to_sensor(set_shutter, iDeviceId);
    g_current_shutter_speed = set_shutter;
    throw_on_failure(status);
}

void orb_device_interface_base::set_blank_time(int blank_time, unsigned int iDeviceId) {
    require_initialized();
    throw_on_failure(set_blank_time_to_sensor(blank_time, iDeviceId));
}

int orb_device_interface_base::get_blank_time(unsigned int iDeviceId) {
    require_initialized();
    int blank_time = 0;
    throw_on_failure(get_blank_time_from_sensor(&blank_time, iDeviceId));
    return blank_time;
}

int orb_device_interface_base::get_min_shutter_speed(unsigned int) { return 1; }

int orb_device_interface_base::get_max_shutter_speed(unsigned int) { return 0xFFFFFF; }

FLOAT64_TYPE orb_device_interface_base::get_min_filter_out(unsigned int) { return 0.0; }

FLOAT64_TYPE orb_device_interface_base::get_max_filter_out(unsigned int) { return orbframe::kSampleMax; }

int orb_device_interface_base::get_num_filters(unsigned int) { return kFilters; }

// A filter saturated even at the shortest exposure is broken, not lit.
std::vector<int> orb_device_interface_base::get_abnormal_filters(unsigned int iDeviceId) {
    std::vector<int> abnormal;
    int previous = get_shutter_speed(iDeviceId);
    set_shutter_speed(1, iDeviceId);
    std::vector<double> frame;
    get_filter_data(frame, kAbnormalScanFrames, 0, false, iDeviceId, 0);
    for (size_t i = 0; i < frame.size(); i++)
        if (frame[i] == kSaturatedValue) abnormal.push_back(static_cast<int>(i));
    set_shutter_speed(previous, iDeviceId);
    return abnormal;
}

void orb_device_interface_base::set_led_module_op_mode(int op_mode, unsigned int iDeviceId) {
    require_initialized();
    set_LED_module_op_mode(op_mode, iDeviceId);
}

// The on-board and region-of-interest calls report a failure as its code
// instead of throwing it.

int orb_device_interface_base::set_onboard_frame_average(unsigned char average_count, unsigned int device_id) {
    require_initialized();
    return guarded_call([&] {
        set_frame_average_count_for_on_board_processing(average_count, device_id);
        return 1;
    });
}

int orb_device_interface_base::get_onboard_frame_average(unsigned int device_id) {
    require_initialized();
    return guarded_call([&] {
        return get_frame_average_count_for_on_board_processing(device_id);
    });
}

// Always device 0: the firmware keeps a single dark-correction switch.
int orb_device_interface_base::set_onboard_dark_correction(bool bEnable, unsigned int) {
    require_initialized();
    m_bEnableOBDC = bEnable;
    return guarded_call([&] {
        set_dark_correction_mode_for_on_board_processing(m_bEnableOBDC, 0);
        return 1;
    });
}

int orb_device_interface_base::get_onboard_dark_correction(unsigned int) { return m_bEnableOBDC; }

int orb_device_interface_base::get_onboard_dark_frame(unsigned int device_id) {
    require_initialized();
    return guarded_call([&] {
        get_dark_frame_for_on_board_processing(device_id);
        return 1;
    });
}

int orb_device_interface_base::get_poi_info(std::vector<int>& poi, unsigned int iDeviceId) {
    return guarded_call([&] {
        get_roi_info_from_sensor(poi, iDeviceId);
        return 1;
    });
}

int orb_device_interface_base::set_poi_info(std::vector<int>& poi, unsigned int iDeviceId) {
    return guarded_call([&] {
        set_roi_info_to_sensor(poi, iDeviceId);
        return 1;
    });
}

int orb_device_interface_base::get_poi_filter_data(std::vector<int>& poi_filter_buffer, int poi_size,
                                                   std::vector<double>& poi_background, unsigned int iDeviceId) {
    return guarded_call([&] {
        get_roi_data_from_sensor(poi_filter_buffer, poi_size, poi_background, iDeviceId);
        return 1;
    });
}

// The LED driver calls report a failure as its negated code.

int orb_device_interface_base::leddriver_isopen() {
    try {
        return is_led_driver_open() ? 1 : 0;
    } catch (const orb_base_exception&) {
        return -1;
    }
}

int orb_device_interface_base::leddriver_close() {
    return guarded_call([&] {
        is_led_driver_close();
        return 1;
    }, -1);
}

int orb_device_interface_base::leddriver_set_led_state(bool* on_array, int num_LED, int intensity) {
    if (!is_led_driver_open()) return 0;
    return guarded_call([&] {
        set_state_to_led_device(on_array, num_LED, intensity);
        return 1;
    }, -1);
}

// -1 rather than set_led_state's 0 for a closed driver; hosts tell the two apart.
int orb_device_interface_base::leddriver_turn_off_all() {
    if (!is_led_driver_open()) return -1;
    return guarded_call([&] {
        bool off[kLedDriverChannels] = {};
        set_state_to_led_device(off, kLedDriverChannels, 1);
        return 1;
    }, -1);
}

// The mode goes to device 0 whatever sensor this object stands for.
void orb_device_interface_base::set_acq_mode(int acq_mode) {
    require_initialized();
    throw_on_failure(set_frame_data_acq_mode(acq_mode, 0));
}

// The sensor has no mode register to read: the caller's value stays as it was.
void orb_device_interface_base::get_acq_mode(int*) { require_initialized(); }

int orb_device_interface_base::get_adc_range(unsigned int) { return m_adc_range; }

int orb_device_interface_base::shutter_to_exposure_time_ms(int MCLK, int shutter, double* exposure_time_val) {
    if (exposure_time_val == nullptr) throw orb_base_exception(vn_ec_ill_defined_output);
    int32_t ticks = master_clock_ticks(MCLK);
    if (ticks == 0) throw orb_base_exception(vn_ec_ill_defined_input);
    int32_t numerator = exposure_ticks(shutter);
    // Whole milliseconds only: the quotient is truncated before it becomes a double.
    *exposure_time_val = wrap32(static_cast<int64_t>(numerator) / ticks);
    return 1;
}

int orb_device_interface_base::exposure_tim_ms_to_shutter(int MCLK, double exposure_time_val, int* shutter) {
    if (shutter == nullptr) throw orb_base_exception(vn_ec_ill_defined_output);
    double ticks = master_clock_ticks(MCLK);
    double steps = std::trunc((ticks * exposure_time_val - kExposureBaseTicks - 384.0) / 528.0);
    // NaN fails both comparisons.
    if (!(steps >= INT32_MIN && steps <= INT32_MAX)) throw orb_base_exception(vn_ec_ill_defined_input);
    *shutter = static_cast<int>(steps);
    return 1;
}

void orb_device_interface_base::set_adc_settings(unsigned char adc_range_index, unsigned char gain) {
    require_initialized();
    throw_on_failure(set_adc_setting_values(adc_range_index, gain, 0, 0));
}

void orb_device_interface_base::set_adc_settings(unsigned char adc_range_index, unsigned char gain,
                                                 unsigned char res, unsigned int iDeviceId) {
    require_initialized();
    throw_on_failure(set_adc_setting_values(adc_range_index, gain, res, iDeviceId));
}

void orb_device_interface_base::get_adcsettings(unsigned char* adc_range_index, unsigned char* gain,
                                                unsigned char* res, unsigned int iDeviceId) {
    require_initialized();
    throw_on_failure(get_adc_setting_values(adc_range_index, gain, res, iDeviceId));
}

void orb_device_interface_base::test_device(bool& bSensorBoardOk, bool& bControllerBoardOk, unsigned int) {
    if (!m_interface_is_initialized) {
        bSensorBoardOk = false;
        bControllerBoardOk = false;
        throw orb_base_exception(vn_ec_initialization_required);
    }
    bControllerBoardOk = true;
    bSensorBoardOk = get_current_shutter_speed() == 1;
}

bool orb_device_interface_base::set_led_state(bool* on_array, int num_LED, int intensity, unsigned int iDeviceId) {
    require_initialized();
    throw_on_failure(set_led_state_values(on_array, num_LED, intensity, iDeviceId));
    return true;
}

bool orb_device_interface_base::set_led_opmode(int iOpMode, int iToggleIntervalTime, unsigned int iDeviceId) {
    require_initialized();
    throw_on_failure(set_led_op_mode_values(iOpMode, iToggleIntervalTime, iDeviceId));
    return true;
}

// Only the shutter speed goes to the sensor now; the data size shapes the
// vector form of get_filter_data.
void orb_device_interface_base::set_frame_acquisition_conditions(SDataAcqCondition& AcqCond, int deviceId) {
    m_AcqCond[deviceId] = AcqCond;
    activate_device(deviceId);
    set_shutter_speed(m_AcqCond[deviceId].ss, deviceId);
}

unsigned int orb_device_interface_base::get_total_devices() { return get_connected_total_devices(); }

void orb_device_interface_base::activate_device(unsigned int deviceid) { set_device_index(deviceid); }

void orb_device_interface_base::get_sensor_id(char* sensor_id, unsigned int iDeviceId) {
    require_initialized();
    get_sensor_id_with_index(sensor_id, iDeviceId);
}

void orb_device_interface_base::get_sensor_id(char* lot_char, short* lot_id, short* wafer_id, short* x_coord,
                                              short* y_coord, short* sensor_type, unsigned int iDeviceId) {
    require_initialized();
    get_sensor_id_with_index(lot_char, lot_id, wafer_id, x_coord, y_coord, sensor_type, iDeviceId);
}

std::string orb_device_interface_base::decode_sensor_id(char* sensor_id, unsigned int iDeviceId) {
    require_initialized();
    return decode_sensor_id_from_string(sensor_id, iDeviceId);
}

// Needs no initialisation: hosts list sensors by this text before using them.
std::string orb_device_interface_base::get_sensor_id(unsigned int iDeviceId) {
    char lot_char = 0;
    short lot_id = 0, wafer_id = 0, x_coord = 0, y_coord = 0, sensor_type = 0;
    get_sensor_id_with_index(&lot_char, &lot_id, &wafer_id, &x_coord, &y_coord, &sensor_type, iDeviceId);
    return sensor_id_text(lot_char, lot_id, wafer_id, x_coord, y_coord, sensor_type);
}
