// Auto-exposure: a secant search on the mean of the chosen filters, driving
// the sensor trial by trial, and the two look-up tables kept for hosts.

#include "orb_device_interface_ae.h"

#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

#include "orb_device_interface_device_settings.h"
#include "orb_device_interface_stm.h"
#include "orb_frame_samples.h"
#include "utils/orb_utils_interface.h"

orb_def_auto_exposure_parameters m_gAEParams;
int g_aeLUTSize = 0;
double* g_intensityLUT = nullptr;
double* g_ssLUT = nullptr;

namespace {

constexpr int kFilters = orbframe::kSamples;
constexpr int kPrecheckShutterSpeed = 1;

// A double to int as the processor truncates it: a value with no int to go
// to (not finite, or out of range) becomes INT_MIN.
int truncate_to_int(double x) {
    if (!(x > static_cast<double>(INT_MIN) - 1.0 && x < static_cast<double>(INT_MAX) + 1.0)) return INT_MIN;
    return static_cast<int>(x);
}

// Half away from zero.
int round_to_int(double x) { return truncate_to_int(x < 0 ? std::ceil(x - 0.5) : std::floor(x + 0.5)); }

// The running total is an int, truncated at every element. Averaged frames
// carry fractions, so this lowers the means the steps are computed from; the
// search has always stepped on these means and is kept that way.
double int_sum(const std::vector<double>& values) {
    int total = 0;
    for (double v : values) total = truncate_to_int(total + v);
    return total;
}

// An empty set of filters sees nothing: peak and mean 0, which ends the
// search at min_ss instead of leaving it to spin on a mean of 0/0.
double mean_of(const std::vector<double>& values) {
    return values.empty() ? 0.0 : int_sum(values) / static_cast<double>(values.size());
}

double peak_of(const std::vector<double>& values) {
    return values.empty() ? 0.0 : *std::max_element(values.begin(), values.end());
}

// One trial: the new speed, the settle time the caller asked for, then an
// averaged single-shot frame.
void acquire_raw(int shutter_speed, std::vector<double>& frame, int frame_average, int sleep_time,
                 unsigned int iDeviceId) {
    set_shutter_speed_to_sensor(shutter_speed, iDeviceId);
    // A negative settle time has nothing to wait for.
    usleep(static_cast<useconds_t>(std::max(sleep_time, 0)) * 1000u);
    get_filter_data_from_sensor(frame.data(), frame_average, 0, 0, iDeviceId);
}

// The first non-empty line of `path` as comma-separated numbers into `table`
// (and its count into g_aeLUTSize). A file with no such line leaves both.
void load_table(const char* path, std::vector<std::string>& fields, double*& table) {
    if (path == nullptr) return;
    std::ifstream in(path);
    if (!in) return;
    std::string line;
    while (std::getline(in, line) && line.empty()) {
    }
    if (line.empty()) return;

    std::string delimiters = ",";
    orb_utils_interface::parse_sentense(line, delimiters, fields);
    auto values = std::make_unique<double[]>(fields.size());
    for (size_t i = 0; i < fields.size(); i++) values[i] = atof(fields[i].c_str());
    g_aeLUTSize = static_cast<int>(fields.size());
    delete[] table;
    table = values.release();
}

}  // namespace

int set_params_for_ae_module(int saturation_DN, unsigned int /*iDeviceId*/) {
    m_gAEParams.upper_dn_value = saturation_DN;
    m_gAEParams.mean_upper_dn_value = saturation_DN;
    m_gAEParams.target_dn_value = saturation_DN - 300;
    m_gAEParams.lower_dn_value = saturation_DN - 600;
    return 1;
}

int set_params_for_ae_module(int target_DN, int upper_DN, int lower_DN, int mean_DN, int max_integ_DN,
                             unsigned int /*iDeviceId*/) {
    m_gAEParams.target_dn_value = target_DN;
    m_gAEParams.upper_dn_value = upper_DN;
    m_gAEParams.lower_dn_value = lower_DN;
    m_gAEParams.mean_upper_dn_value = mean_DN;
    m_gAEParams.max_ss = max_integ_DN;
    return 1;
}

int get_valid_filters_only(std::vector<double>& input_frame, std::vector<int>& valid_filters,
                           std::vector<double>& output_frame) {
    output_frame.clear();
    if (input_frame.empty() || valid_filters.empty() || valid_filters.size() > input_frame.size()) return 0;
    const int largest = *std::max_element(valid_filters.begin(), valid_filters.end());
    if (largest >= 0 && static_cast<size_t>(largest) >= input_frame.size()) return 0;

    output_frame.resize(valid_filters.size());
    // Negative indices pass the check above; they name no filter and read 0.
    for (size_t i = 0; i < valid_filters.size(); i++)
        output_frame[i] = valid_filters[i] >= 0 ? input_frame[valid_filters[i]] : 0.0;
    return 1;
}

int find_optimal_shutter_speed_with_ae(std::vector<int>& valid_filters, int frame_average, int sleep_time,
                                       unsigned int iDeviceId) {
    const orb_def_auto_exposure_parameters& params = m_gAEParams;  // read live at every use
    std::vector<double> input_frame(kFilters);
    std::vector<double> output_frame(kFilters);
    std::vector<double> cur_frame;
    std::vector<double> prev_frame;
    int iTempSS = params.initial_ss;
    int iCurSS = 0;
    int iPrevSS = 0;
    int iIndicator = 0;
    int nCountForSameSS = 0;
    double fCurMaxVal = 0.0;
    double fCurMeanVal = 0.0;
    double fPrevMeanVal = 0.0;

    auto acquire = [&](int shutter_speed) {
        acquire_raw(shutter_speed, input_frame, frame_average, sleep_time, iDeviceId);
        get_valid_filters_only(input_frame, valid_filters, output_frame);
        cur_frame = output_frame;
    };

    // A sensor saturated at the shortest exposure has no speed to offer.
    // Whole-frame only: the quotient is 0 unless every filter is at the top.
    acquire_raw(kPrecheckShutterSpeed, input_frame, frame_average, sleep_time, iDeviceId);
    const int saturated = static_cast<int>(std::count_if(input_frame.begin(), input_frame.end(),
                                                         [&](double v) { return v >= params.upper_dn_value; }));
    const double saturation_ratio = saturated / kFilters;
    if (saturation_ratio >= 0.5) return -1;

    for (;;) {
        iCurSS = iTempSS;
        iPrevSS = 0;
        std::fill(prev_frame.begin(), prev_frame.end(), 0.0);
        iIndicator = 0;

        while (iIndicator == 0 || iIndicator == 2) {
            acquire(iCurSS);
            const int m = truncate_to_int(peak_of(cur_frame));
            if (params.lower_dn_value <= m && m <= params.upper_dn_value) {
                iIndicator = 0;
                if (params.mode == 1) return iCurSS;
            } else if (iCurSS == params.min_ss && m > params.upper_dn_value) {
                iIndicator = 2;
                if (params.mode == 1) return iCurSS;
            } else {
                iIndicator = -1;
            }
        }

        // Too bright on average for a step to mean anything: start over
        // from the shortest speed.
        fCurMeanVal = mean_of(cur_frame);
        if (fCurMeanVal >= params.mean_upper_dn_value) {
            iTempSS = params.min_ss;
            continue;
        }
        prev_frame.resize(valid_filters.size(), 0.0);

        while (params.mean_upper_dn_value > fCurMeanVal && iCurSS != iPrevSS) {
            fCurMaxVal = peak_of(cur_frame);
            fCurMeanVal = mean_of(cur_frame);
            fPrevMeanVal = mean_of(prev_frame);
            iIndicator = 0;

            // The mean the chosen filters would have with their peak at the
            // target, reached along the line through the last two trials.
            const double fTargetMeanVal = params.target_dn_value * fCurMeanVal / fCurMaxVal;
            const double fTempVal = (fTargetMeanVal - fCurMeanVal) * static_cast<double>(iCurSS - iPrevSS) /
                                        (fCurMeanVal - fPrevMeanVal) +
                                    iCurSS;

            if (iPrevSS == iCurSS)
                nCountForSameSS++;
            else
                nCountForSameSS = 0;
            if (nCountForSameSS == 3) return iCurSS;

            iPrevSS = iCurSS;
            iCurSS = round_to_int(fTempVal);
            if (iCurSS >= params.max_ss)
                iCurSS = params.max_ss;
            else if (iCurSS <= params.min_ss)
                iCurSS = params.min_ss;
            if (iCurSS == params.min_ss) return iCurSS;

            while (iIndicator == 0 || iIndicator == 1 || iIndicator == 2) {
                prev_frame = cur_frame;
                acquire(iCurSS);
                fCurMaxVal = peak_of(cur_frame);
                fCurMeanVal = mean_of(cur_frame);
                const int m = truncate_to_int(fCurMaxVal);
                if (params.lower_dn_value <= m && m <= params.upper_dn_value) {
                    iIndicator = 0;
                    if (params.mode == 1) return iCurSS;
                } else if (iCurSS == params.max_ss && m < params.lower_dn_value) {
                    // Too dark even at the longest exposure.
                    iIndicator = 1;
                    if (params.mode == 1) return iCurSS;
                } else if (iCurSS == params.min_ss && m > params.upper_dn_value) {
                    iIndicator = 2;
                    if (params.mode == 1) return iCurSS;
                } else {
                    iIndicator = -1;
                }
            }

            // Held at a limit: the two trials say nothing about the slope, so
            // the next step runs through the origin again.
            if (iCurSS == iPrevSS) {
                iPrevSS = 0;
                prev_frame.assign(valid_filters.size(), 0.0);
            }
        }

        if (fCurMeanVal >= params.mean_upper_dn_value) iTempSS = params.min_ss;
    }
}

int initialize_ae_module(const char* strFileName_intensityLUT, const char* strFileName_ssLUT) {
    try {
        std::vector<std::string> fields;
        load_table(strFileName_intensityLUT, fields, g_intensityLUT);
        fields.clear();
        load_table(strFileName_ssLUT, fields, g_ssLUT);
    } catch (...) {
        // The tables are optional: a bad file leaves what was loaded before.
    }
    return 1;
}
