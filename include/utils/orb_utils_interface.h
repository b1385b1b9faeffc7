#ifndef ORB_UTILS_INTERFACE_H
#define ORB_UTILS_INTERFACE_H

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "orb_base_types.h"
#include "orb_export.h"

// Helpers shared by the library and by applications that post-process filter
// data. Stateless: every operation is static. Several keep long-standing
// behaviour that applications already depend on (integer median of an even
// count, by-index normalisation, the two polynomial coefficient orders); do
// not "fix" them without checking the hosts.
class ORB_EXPORT orb_utils_interface {
public:
    // ---- statistics ----
    // Both medians throw the C string "median of an empty vector" on empty input.
    static double find_median_value(std::vector<int> vec);
    static double find_median_value(std::vector<double> vec);
    static double find_min_value(std::vector<double> vec);
    static double find_max_value(std::vector<double> vec);
    static double calculate_mean(std::vector<double>& vec);
    static double calculate_variance(std::vector<double>& vec);
    static double calculate_sample_variance(std::vector<double>& vec);
    static double calculate_std(std::vector<double>& vec);
    static double calculate_sample_std(std::vector<double>& vec);

    // ---- spectra (positions are sample indices) ----
    // Out must already be sized by the caller; it is written by index.
    static void normalize(std::vector<double>& In, std::vector<double>& Out);
    static void get_spectrum_info(std::vector<double>& OneSpectrum, double& fPeakWavelength,
                                  double& fPeakPower, double& fFWHM);
    static void get_spectrum_derivative(std::vector<double>& InSpectrum,
                                        std::vector<double>& OutSpectrum, int iDim);
    static double get_FWHM(std::vector<double>& SpecData, double fHalfPeakPower, int iPeakPosition);
    static void make_gaussian_spectrum(int iSpecLength, double fWavelength, double fBandWidth,
                                       double fIntensity, std::vector<double>& OneSpectrum);
    static void get_wavelength_list(int iStartWL, int iEndWL, int iResolution,
                                    std::vector<double>& OneWavelength);

    // The vector form takes the constant term first, the single-point form
    // takes it last.
    static std::vector<double> polyval(const std::vector<double>& oCoeff, const std::vector<double>& oX);
    static double polyval(const std::vector<double>& oCoeff, const double& oX);

    // Map entries ordered by value; equal values come out in no fixed order.
    static std::vector<IntDataPair> sort(std::map<int, int>& InMap, bool bAscending);
    static std::vector<DoubleDataPair> sort(std::map<int, double>& InMap, bool bAscending);

    // A value in [0, 1) whatever the bounds say.
    static float generate_rand_float(float fMin, float fMax);

    // ---- text, files and system ----
    static void parse_sentense(std::string& mSentence, std::string& mDelimiters,
                               std::vector<std::string>& mFields);
    static std::string get_time_stamp();
    static std::string get_time_stamp_simple();
    static std::string get_time_stamp_complex();
    static void get_time_stamp(std::string& a, std::string& b);
    // Leaves the process umask at 0.
    static void make_directory(const char* _path, size_t pos);
    static void make_directory(const char* path);
    static std::string get_file_name(std::string& path);
    static std::string get_file_path(std::string& path);
    static std::string get_file_name_only(std::string& path);
    static std::string get_file_extension(const std::string& path);
    static bool is_file_exist(std::string& path);
    static std::string trim_string(std::string& s);
    static std::string to_lower(std::string& s);
    static std::string to_upper(std::string& s);
    static std::string integer_vector_to_string(std::vector<int>& v);
    static std::vector<int> string_to_integer_vector(std::string& s);
    static std::string get_locale();
    static std::string get_system_user_name();

    // Sensor ID text ("C1234-7-20-33-1") back to lot letter, lot, wafer, x
    // and y; the sensor type field is not returned.
    static void decode_sensor_ID(const std::string& sensor_id, char* lot_char, short* lot_id,
                                 short* wafer_id, short* x_coord, short* y_coord);
};

// Writes Orig and Corrected as two comma-separated lines to strFileName.
ORB_EXPORT void DumpDataToTextFile(std::string& strFileName, std::vector<double>& Orig,
                                   std::vector<double>& Corrected);

#endif // ORB_UTILS_INTERFACE_H
