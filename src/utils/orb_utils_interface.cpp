#include "utils/orb_utils_interface.h"

#include <pwd.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <limits>

bool AscendingSortByIntVal(const IntDataPair& a, const IntDataPair& b) { return a.val < b.val; }
bool DescendingSortByIntVal(const IntDataPair& a, const IntDataPair& b) { return a.val > b.val; }
bool AscendingSortByDoubleVal(const DoubleDataPair& a, const DoubleDataPair& b) { return a.val < b.val; }
bool DescendingSortByDoubleVal(const DoubleDataPair& a, const DoubleDataPair& b) { return a.val > b.val; }

namespace {

const char* const kEmptyMedian = "median of an empty vector";

// Host-supplied doubles (wavelengths, band widths) can be NaN or far outside
// int; converting those directly is undefined, so saturate instead. NaN maps
// to 0.
int truncate_to_int(double v)
{
    if (std::isnan(v)) return 0;
    if (v <= static_cast<double>(INT_MIN)) return INT_MIN;
    if (v >= static_cast<double>(INT_MAX)) return INT_MAX;
    return static_cast<int>(v);
}

// atoi for every text atoi defines; out-of-range digits saturate instead of
// being undefined.
int text_to_int(const std::string& text)
{
    long v = std::strtol(text.c_str(), nullptr, 10);
    if (v < INT_MIN) return INT_MIN;
    if (v > INT_MAX) return INT_MAX;
    return static_cast<int>(v);
}

template <typename Pair, typename Value>
std::vector<Pair> sort_by_value(const std::map<int, Value>& in, bool (*order)(const Pair&, const Pair&))
{
    std::vector<Pair> out;
    out.reserve(in.size());
    for (const auto& kv : in) out.push_back(Pair{kv.first, kv.second});
    // A NaN value breaks the strict weak ordering std::sort relies on and can
    // send it past the ends of the vector; keep such rows out of the sort and
    // leave them at the tail.
    auto numbers_end = std::stable_partition(out.begin(), out.end(), [](const Pair& p) {
        return !std::isnan(static_cast<double>(p.val));
    });
    std::sort(out.begin(), numbers_end, order);
    return out;
}

std::string local_asctime()
{
    time_t now = time(nullptr);
    struct tm local {};
    char text[64] = {0};
    localtime_r(&now, &local);
    asctime_r(&local, text);
    return text;
}

} // namespace

// ---------------------------------------------------------------- statistics

double orb_utils_interface::find_median_value(std::vector<int> vec)
{
    if (vec.empty()) throw kEmptyMedian;
    std::sort(vec.begin(), vec.end());
    const size_t n = vec.size();
    if (n % 2 == 1) return vec[n / 2];
    // Hosts have always received the truncated integer mean of the middle
    // pair ({1, 2} -> 1.0), with the 32-bit sum wrapping; wrap explicitly
    // rather than through signed overflow.
    const int32_t sum = static_cast<int32_t>(static_cast<uint32_t>(vec[n / 2]) +
                                             static_cast<uint32_t>(vec[n / 2 - 1]));
    return static_cast<double>(sum / 2);
}

double orb_utils_interface::find_median_value(std::vector<double> vec)
{
    if (vec.empty()) throw kEmptyMedian;
    std::sort(vec.begin(), vec.end());
    const size_t n = vec.size();
    if (n % 2 == 1) return vec[n / 2];
    return (vec[n / 2 - 1] + vec[n / 2]) / 2.0;
}

// With no element there is no extreme; NaN says so without reading past the
// end of the vector.
double orb_utils_interface::find_min_value(std::vector<double> vec)
{
    if (vec.empty()) return std::numeric_limits<double>::quiet_NaN();
    double m = vec[0];
    for (size_t i = 1; i < vec.size(); ++i)
        if (vec[i] < m) m = vec[i];
    return m;
}

double orb_utils_interface::find_max_value(std::vector<double> vec)
{
    if (vec.empty()) return std::numeric_limits<double>::quiet_NaN();
    double m = vec[0];
    for (size_t i = 1; i < vec.size(); ++i)
        if (vec[i] > m) m = vec[i];
    return m;
}

double orb_utils_interface::calculate_mean(std::vector<double>& vec)
{
    double sum = 0.0;
    for (double v : vec) sum += v;
    return sum / static_cast<double>(vec.size());
}

double orb_utils_interface::calculate_variance(std::vector<double>& vec)
{
    const double mean = calculate_mean(vec);
    double sum = 0.0;
    for (double v : vec) sum += (v - mean) * (v - mean);
    return sum / static_cast<double>(vec.size());
}

double orb_utils_interface::calculate_sample_variance(std::vector<double>& vec)
{
    const double mean = calculate_mean(vec);
    double sum = 0.0;
    for (double v : vec) sum += (v - mean) * (v - mean);
    return sum / (static_cast<double>(vec.size()) - 1.0);
}

double orb_utils_interface::calculate_std(std::vector<double>& vec)
{
    return std::sqrt(calculate_variance(vec));
}

double orb_utils_interface::calculate_sample_std(std::vector<double>& vec)
{
    return std::sqrt(calculate_sample_variance(vec));
}

// ------------------------------------------------------------------- spectra

void orb_utils_interface::normalize(std::vector<double>& In, std::vector<double>& Out)
{
    if (In.empty()) return;
    const std::vector<double> copy = In; // In and Out may be the same vector
    // The maximum starts at zero, not at the first sample: an all-negative
    // spectrum divides by zero, which is how callers have always seen it.
    double max = 0.0;
    for (double v : copy)
        if (v > max) max = v;
    // Out belongs to the caller and keeps its size; rows it has no room for
    // are not written.
    const size_t n = std::min(copy.size(), Out.size());
    for (size_t i = 0; i < n; ++i) Out[i] = copy[i] / max;
}

void orb_utils_interface::get_spectrum_info(std::vector<double>& OneSpectrum, double& fPeakWavelength,
                                            double& fPeakPower, double& fFWHM)
{
    if (OneSpectrum.empty()) return;
    fPeakWavelength = 0.0;
    fPeakPower = 0.0;
    fFWHM = 0.0;
    int peak = 0;
    for (size_t i = 0; i < OneSpectrum.size(); ++i) {
        if (OneSpectrum[i] > fPeakPower) {
            fPeakWavelength = static_cast<double>(i);
            fPeakPower = OneSpectrum[i];
            peak = static_cast<int>(i);
        }
    }
    fFWHM = get_FWHM(OneSpectrum, fPeakPower / 2.0, peak);
}

void orb_utils_interface::get_spectrum_derivative(std::vector<double>& /*InSpectrum*/,
                                                  std::vector<double>& OutSpectrum, int iDim)
{
    // No derivative has ever been computed here; applications rely on the
    // supported orders leaving their output alone.
    if (iDim == 1 || iDim == 2) return;
    OutSpectrum.clear();
    printf("[orb_utils_interface] Error: wrong derivative dimension. 1-D or 2-D only supported. (%d)\n", iDim);
}

double orb_utils_interface::get_FWHM(std::vector<double>& SpecData, double fHalfPeakPower, int iPeakPosition)
{
    // -1 is "no peak". Other negative positions, and positions past the end,
    // would read outside the data and get no width either; position 0 of an
    // empty spectrum reads nothing and keeps its width of one sample.
    if (iPeakPosition < 0) return 0.0;
    if (iPeakPosition > 0 && static_cast<size_t>(iPeakPosition) >= SpecData.size()) return 0.0;
    size_t left = static_cast<size_t>(iPeakPosition);
    while (left > 0 && SpecData[left] >= fHalfPeakPower) --left;
    size_t right = static_cast<size_t>(iPeakPosition);
    while (right + 1 < SpecData.size() && SpecData[right] >= fHalfPeakPower) ++right;
    // Both borders are the first samples below half height (or the edges),
    // and both are counted.
    return static_cast<double>(right - left + 1);
}

void orb_utils_interface::make_gaussian_spectrum(int iSpecLength, double fWavelength, double fBandWidth,
                                                 double fIntensity, std::vector<double>& OneSpectrum)
{
    OneSpectrum.clear();
    if (iSpecLength <= 0 || truncate_to_int(fBandWidth + 2.0) > iSpecLength) return;
    const int centre = truncate_to_int(fWavelength);
    if (fBandWidth == 1.0) {
        OneSpectrum.resize(static_cast<size_t>(iSpecLength), 0.0);
        if (centre >= 0 && centre < iSpecLength) OneSpectrum[static_cast<size_t>(centre)] = fIntensity;
        return;
    }
    // 0.4253 turns a full width at half maximum into sigma. The squares are
    // taken in single precision so synthetic spectra match, bit for bit, the
    // ones applications generated before.
    const float sigma = static_cast<float>(0.4253 * fBandWidth);
    const float sigma2 = sigma * sigma;
    OneSpectrum.reserve(static_cast<size_t>(iSpecLength));
    for (int i = 0; i < iSpecLength; ++i) {
        const float d = static_cast<float>(static_cast<int64_t>(i) - centre);
        const float d2 = d * d;
        OneSpectrum.push_back(fIntensity * std::exp(-static_cast<double>(d2) / (2.0 * static_cast<double>(sigma2))));
    }
}

void orb_utils_interface::get_wavelength_list(int iStartWL, int iEndWL, int iResolution,
                                              std::vector<double>& OneWavelength)
{
    OneWavelength.clear();
    // A zero step has no list; dividing by it would kill the host.
    if (iStartWL >= iEndWL || iResolution == 0) return;
    const int64_t n = (static_cast<int64_t>(iEndWL) - iStartWL) / iResolution + 1;
    for (int64_t k = 0; k < n; ++k)
        OneWavelength.push_back(static_cast<double>(k * iResolution + iStartWL));
}

std::vector<double> orb_utils_interface::polyval(const std::vector<double>& oCoeff, const std::vector<double>& oX)
{
    std::vector<double> out;
    out.reserve(oX.size());
    for (double x : oX) {
        double sum = 0.0;
        double power = 1.0;
        for (double c : oCoeff) {
            sum += c * power;
            power *= x;
        }
        out.push_back(sum);
    }
    return out;
}

double orb_utils_interface::polyval(const std::vector<double>& oCoeff, const double& oX)
{
    // The last coefficient is the constant term and is summed first. Powers
    // come from pow(), not from the running product of the vector form; the
    // two differ in the last bits, and calibrations were fitted with this one.
    const size_t n = oCoeff.size();
    double sum = 0.0;
    for (size_t k = 1; k <= n; ++k) sum += oCoeff[n - k] * std::pow(oX, static_cast<double>(k - 1));
    return sum;
}

std::vector<IntDataPair> orb_utils_interface::sort(std::map<int, int>& InMap, bool bAscending)
{
    return sort_by_value(InMap, bAscending ? AscendingSortByIntVal : DescendingSortByIntVal);
}

std::vector<DoubleDataPair> orb_utils_interface::sort(std::map<int, double>& InMap, bool bAscending)
{
    return sort_by_value(InMap, bAscending ? AscendingSortByDoubleVal : DescendingSortByDoubleVal);
}

float orb_utils_interface::generate_rand_float(float /*fMin*/, float /*fMax*/)
{
    // The bounds stay in the signature for existing callers but are not
    // applied: the result is always in [0, 1). Unsigned arithmetic keeps the
    // 32-bit shift, and r2 + 15 near RAND_MAX, well defined.
    const uint32_t r1 = static_cast<uint32_t>(rand());
    const uint32_t r2 = static_cast<uint32_t>(rand());
    const uint32_t bits = (r1 << ((r2 + 15u) % 32u)) & 0xFFFFFFu;
    return static_cast<float>(bits) / 16777216.0f;
}

// ------------------------------------------------------ text, files, system

void orb_utils_interface::parse_sentense(std::string& mSentence, std::string& mDelimiters,
                                         std::vector<std::string>& mFields)
{
    size_t start = mSentence.find_first_not_of(mDelimiters);
    while (start != std::string::npos) {
        const size_t end = mSentence.find_first_of(mDelimiters, start);
        mFields.push_back(mSentence.substr(start, end == std::string::npos ? std::string::npos : end - start));
        start = mSentence.find_first_not_of(mDelimiters, end);
    }
}

std::string orb_utils_interface::get_time_stamp() { return local_asctime(); }

std::string orb_utils_interface::get_time_stamp_simple() { return local_asctime(); }

std::string orb_utils_interface::get_time_stamp_complex() { return local_asctime(); }

void orb_utils_interface::get_time_stamp(std::string& /*a*/, std::string& /*b*/)
{
    // Hosts built against this overload expect it to read the clock and hand
    // nothing back; the arguments stay as they were.
    local_asctime();
}

void orb_utils_interface::make_directory(const char* _path, size_t pos)
{
    if (_path == nullptr) return;
    const std::string path(_path);
    const size_t slash = path.find('/', pos + 1);
    // Output folders are made open to every user of the machine: the mask is
    // cleared and intentionally not restored, so files the host writes into
    // them afterwards are open too.
    umask(0);
    if (slash == std::string::npos) {
        mkdir(path.c_str(), 0777);
        return;
    }
    mkdir(path.substr(0, slash).c_str(), 0777);
    make_directory(_path, slash);
}

void orb_utils_interface::make_directory(const char* path) { make_directory(path, 0); }

std::string orb_utils_interface::get_file_name(std::string& path)
{
    // Space separates too: a name with a blank yields only its last word.
    std::string separators = "\\ /";
    std::vector<std::string> parts;
    parse_sentense(path, separators, parts);
    return parts.empty() ? std::string() : parts.back();
}

std::string orb_utils_interface::get_file_path(std::string& path)
{
    const char sep = path.find('\\') != std::string::npos ? '\\' : '/';
    const size_t last = path.rfind(sep);
    return last == std::string::npos ? std::string() : path.substr(0, last + 1);
}

std::string orb_utils_interface::get_file_name_only(std::string& path)
{
    const char sep = path.find('\\') != std::string::npos ? '\\' : '/';
    const size_t last_sep = path.rfind(sep);
    const size_t start = last_sep == std::string::npos ? 0 : last_sep + 1;
    const size_t dot = path.rfind('.');
    // A dot inside a directory name is not an extension.
    if (dot == std::string::npos || dot < start) return path.substr(start);
    return path.substr(start, dot - start);
}

std::string orb_utils_interface::get_file_extension(const std::string& path)
{
    const size_t dot = path.rfind('.');
    return dot == std::string::npos ? path : path.substr(dot + 1);
}

bool orb_utils_interface::is_file_exist(std::string& path)
{
    if (path.empty()) return false;
    std::ifstream file(path);
    return file.is_open();
}

std::string orb_utils_interface::trim_string(std::string& s)
{
    const size_t first = s.find_first_not_of(' ');
    if (first == std::string::npos) return std::string();
    const size_t last = s.find_last_not_of(' ');
    return s.substr(first, last - first + 1);
}

// Bytes above 0x7F arrive as negative chars; tolower/toupper are only defined
// for unsigned char values.
std::string orb_utils_interface::to_lower(std::string& s)
{
    std::string out = s;
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

std::string orb_utils_interface::to_upper(std::string& s)
{
    std::string out = s;
    for (char& c : out) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return out;
}

std::string orb_utils_interface::integer_vector_to_string(std::vector<int>& v)
{
    // The last value keeps its comma too; string_to_integer_vector skips the
    // empty tail, so the two round-trip.
    std::string out;
    char text[16];
    for (int value : v) {
        snprintf(text, sizeof text, "%d,", value);
        out += text;
    }
    return out;
}

std::vector<int> orb_utils_interface::string_to_integer_vector(std::string& s)
{
    std::string separators = ",";
    std::vector<std::string> fields;
    parse_sentense(s, separators, fields);
    std::vector<int> out;
    out.reserve(fields.size());
    for (const std::string& f : fields) out.push_back(text_to_int(f));
    return out;
}

std::string orb_utils_interface::get_locale()
{
    // A fixed region name, not the process locale: applications compare it
    // as text.
    return "Korea";
}

std::string orb_utils_interface::get_system_user_name()
{
    const struct passwd* pw = getpwuid(geteuid());
    return (pw != nullptr && pw->pw_name != nullptr) ? std::string(pw->pw_name) : std::string();
}

void orb_utils_interface::decode_sensor_ID(const std::string& sensor_id, char* lot_char, short* lot_id,
                                           short* wafer_id, short* x_coord, short* y_coord)
{
    // Any output the host passes as null is simply not written.
    auto put = [](short* out, int value) {
        if (out != nullptr) *out = static_cast<short>(value);
    };
    try {
        std::vector<std::string> fields;
        if (!sensor_id.empty()) {
            std::string text = sensor_id;
            std::string separators = "-";
            parse_sentense(text, separators, fields);
        }
        // An unreadable ID zeroes the numbers but leaves the letter exactly as
        // the caller had it.
        if (fields.size() < 4) {
            put(lot_id, 0);
            put(wafer_id, 0);
            put(x_coord, 0);
            put(y_coord, 0);
            return;
        }
        if (lot_char != nullptr) *lot_char = fields[0][0];
        put(lot_id, text_to_int(fields[0].substr(1)));
        put(wafer_id, text_to_int(fields[1]));
        put(x_coord, text_to_int(fields[2]));
        put(y_coord, text_to_int(fields[3]));
    } catch (...) {
        puts("[Exception] Error happened during sensor ID decoding...");
    }
}

void DumpDataToTextFile(std::string& strFileName, std::vector<double>& Orig, std::vector<double>& Corrected)
{
    std::ofstream out(strFileName, std::ios::out | std::ios::trunc);
    if (out.is_open()) {
        orb_utils_interface::get_time_stamp();
        for (const std::vector<double>* row : {&Orig, &Corrected}) {
            for (size_t i = 0; i < row->size(); ++i) {
                if (i > 0) out << ",";
                out << (*row)[i];
            }
            out << std::endl;
        }
        out.close();
    }
    // Reported even when the file could not be opened; callers only log it.
    printf("[VarnelPort] File save(%s) is done!\n", strFileName.c_str());
}
