// The calibration file in HDF5 (docs/spectra.md, "File layout"), through
// libhdf5's C API. HDF5's own error stack is kept off stderr: every failure
// becomes an EngineError that says what was found.

#include <hdf5.h>
#include <sys/stat.h>

#include <cstdio>
#include <ctime>

#include "calibration.h"
#include "engine_error.h"

namespace orbspectrum {

namespace {

// An HDF5 identifier closed with its own close call.
class Hid {
public:
    Hid(hid_t id, herr_t (*close)(hid_t)) : id_(id), close_(close) {}
    ~Hid() {
        if (id_ >= 0) close_(id_);
    }
    Hid(Hid&& other) noexcept : id_(other.id_), close_(other.close_) { other.id_ = -1; }
    Hid(const Hid&) = delete;
    Hid& operator=(const Hid&) = delete;
    Hid& operator=(Hid&&) = delete;
    operator hid_t() const { return id_; }
    bool ok() const { return id_ >= 0; }

private:
    hid_t id_;
    herr_t (*close_)(hid_t);
};

// Runs an HDF5 step with the library's error printing off.
template <typename F>
auto quiet(F&& f) {
    H5E_auto2_t func = nullptr;
    void* data = nullptr;
    H5Eget_auto2(H5E_DEFAULT, &func, &data);
    H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
    auto r = f();
    H5Eset_auto2(H5E_DEFAULT, func, data);
    return r;
}

class Reader {
public:
    Reader(const std::string& path, hid_t file) : path_(path), file_(file) {}

    [[noreturn]] void damaged(const std::string& what) const {
        throw EngineError(ORB_SPECTRUM_ERR_DAMAGED, "calibration " + path_ + " is damaged or incomplete: " + what);
    }

    bool has_attribute(const char* object, const char* name) const {
        return quiet([&] { return H5Aexists_by_name(file_, object, name, H5P_DEFAULT); }) > 0;
    }

    Hid attribute(const char* object, const char* name) const {
        if (!has_attribute(object, name)) damaged(std::string("no attribute ") + name + " on " + object);
        Hid a(quiet([&] { return H5Aopen_by_name(file_, object, name, H5P_DEFAULT, H5P_DEFAULT); }), H5Aclose);
        if (!a.ok()) damaged(std::string("attribute ") + name + " of " + object + " cannot be read");
        return a;
    }

    template <typename T>
    T number(const char* object, const char* name, hid_t memtype) const {
        Hid a = attribute(object, name);
        Hid space(H5Aget_space(a), H5Sclose);
        T value{};
        if (H5Sget_simple_extent_npoints(space) != 1 || quiet([&] { return H5Aread(a, memtype, &value); }) < 0)
            damaged(std::string("attribute ") + name + " of " + object + " is not one number");
        return value;
    }
    int integer(const char* object, const char* name) const { return number<int>(object, name, H5T_NATIVE_INT); }
    double real(const char* object, const char* name) const {
        return number<double>(object, name, H5T_NATIVE_DOUBLE);
    }

    std::string text(const char* object, const char* name) const {
        Hid a = attribute(object, name);
        Hid type(H5Aget_type(a), H5Tclose);
        if (H5Tget_class(type) != H5T_STRING) damaged(std::string("attribute ") + name + " is not a string");
        if (H5Tis_variable_str(type) > 0) {
            Hid mem(H5Tcopy(H5T_C_S1), H5Tclose);
            H5Tset_size(mem, H5T_VARIABLE);
            H5Tset_cset(mem, H5Tget_cset(type));
            char* s = nullptr;
            if (quiet([&] { return H5Aread(a, mem, &s); }) < 0 || s == nullptr)
                damaged(std::string("attribute ") + name + " cannot be read");
            std::string out(s);
            H5free_memory(s);
            return out;
        }
        const size_t size = H5Tget_size(type);
        std::string out(size, '\0');
        Hid mem(H5Tcopy(type), H5Tclose);
        if (quiet([&] { return H5Aread(a, mem, out.data()); }) < 0)
            damaged(std::string("attribute ") + name + " cannot be read");
        out.resize(out.find('\0') == std::string::npos ? size : out.find('\0'));
        return out;
    }

    // A dataset of doubles of the given rank: its values and its dimensions.
    std::vector<double> dataset(const char* name, int rank, std::vector<hsize_t>& dims) const {
        if (quiet([&] { return H5Lexists(file_, name, H5P_DEFAULT); }) <= 0) damaged(std::string("no dataset ") + name);
        Hid d(quiet([&] { return H5Dopen2(file_, name, H5P_DEFAULT); }), H5Dclose);
        if (!d.ok()) damaged(std::string("dataset ") + name + " cannot be opened");
        Hid space(H5Dget_space(d), H5Sclose);
        if (H5Sget_simple_extent_ndims(space) != rank)
            damaged(std::string("dataset ") + name + " does not have " + std::to_string(rank) + " dimension(s)");
        dims.assign(rank, 0);
        H5Sget_simple_extent_dims(space, dims.data(), nullptr);
        hsize_t count = 1;
        for (hsize_t n : dims) count *= n;
        std::vector<double> values(count);
        if (count > 0 &&
            quiet([&] { return H5Dread(d, H5T_NATIVE_DOUBLE, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data()); }) < 0)
            damaged(std::string("dataset ") + name + " cannot be read (truncated, or not numbers)");
        return values;
    }

private:
    std::string path_;
    hid_t file_;
};

Eigen::MatrixXd row_major(const std::vector<double>& v, hsize_t rows, hsize_t cols) {
    Eigen::MatrixXd m(rows, cols);
    for (hsize_t r = 0; r < rows; ++r)
        for (hsize_t c = 0; c < cols; ++c) m(r, c) = v[r * cols + c];
    return m;
}

class Writer {
public:
    Writer(const std::string& path, hid_t file) : path_(path), file_(file) {}

    void check(herr_t status, const char* what) const {
        if (status < 0) throw EngineError(ORB_SPECTRUM_ERR_WRITE, "cannot write " + std::string(what) + " to " + path_);
    }

    void dataset(const char* name, const double* values, std::vector<hsize_t> dims) const {
        Hid space(H5Screate_simple(static_cast<int>(dims.size()), dims.data(), nullptr), H5Sclose);
        Hid d(quiet([&] {
                  return H5Dcreate2(file_, name, H5T_IEEE_F64LE, space, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT);
              }),
              H5Dclose);
        check(d.ok() ? 0 : -1, name);
        check(quiet([&] { return H5Dwrite(d, H5T_NATIVE_DOUBLE, H5S_ALL, H5S_ALL, H5P_DEFAULT, values); }), name);
    }

    void attribute(hid_t object, const char* name, hid_t file_type, hid_t mem_type, const void* value) const {
        Hid space(H5Screate(H5S_SCALAR), H5Sclose);
        Hid a(quiet([&] { return H5Acreate2(object, name, file_type, space, H5P_DEFAULT, H5P_DEFAULT); }), H5Aclose);
        check(a.ok() ? 0 : -1, name);
        check(quiet([&] { return H5Awrite(a, mem_type, value); }), name);
    }
    void integer(hid_t object, const char* name, int v) const {
        attribute(object, name, H5T_STD_I32LE, H5T_NATIVE_INT, &v);
    }
    void real(hid_t object, const char* name, double v) const {
        attribute(object, name, H5T_IEEE_F64LE, H5T_NATIVE_DOUBLE, &v);
    }
    // Variable-length UTF-8, as h5py writes a Python str.
    void text(hid_t object, const char* name, const std::string& v) const {
        Hid type(H5Tcopy(H5T_C_S1), H5Tclose);
        H5Tset_size(type, H5T_VARIABLE);
        H5Tset_cset(type, H5T_CSET_UTF8);
        const char* s = v.c_str();
        attribute(object, name, type, type, &s);
    }

    Hid group(const char* name) const {
        Hid g(quiet([&] { return H5Gcreate2(file_, name, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT); }), H5Gclose);
        check(g.ok() ? 0 : -1, name);
        return g;
    }

private:
    std::string path_;
    hid_t file_;
};

std::string utc_now() {
    const std::time_t now = std::time(nullptr);
    std::tm tm{};
    gmtime_r(&now, &tm);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return text;
}

std::string or_empty(const char* s) { return s ? s : ""; }

}  // namespace

Calibration read_calibration(const std::string& path, const std::string& expected_sensor_id) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0)
        throw EngineError(ORB_SPECTRUM_ERR_LOAD, "calibration " + path + " cannot be loaded: no such file");
    if (quiet([&] { return H5Fis_hdf5(path.c_str()); }) <= 0)
        throw EngineError(ORB_SPECTRUM_ERR_DAMAGED, "calibration " + path + " is damaged: not an HDF5 file");
    Hid file(quiet([&] { return H5Fopen(path.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT); }), H5Fclose);
    if (!file.ok())
        throw EngineError(ORB_SPECTRUM_ERR_LOAD, "calibration " + path + " cannot be loaded: libhdf5 cannot open it");
    const Reader in(path, file);

    Calibration c;
    c.layout_version = in.integer("/", "layout_version");
    if (c.layout_version != ORB_CALIBRATION_LAYOUT_VERSION)
        throw EngineError(ORB_SPECTRUM_ERR_VERSION, "calibration " + path + " has layout version " +
                                                        std::to_string(c.layout_version) + "; this library reads " +
                                                        std::to_string(ORB_CALIBRATION_LAYOUT_VERSION));
    c.sensor_id = in.text("/", "sensor_id");
    if (!expected_sensor_id.empty() && c.sensor_id != expected_sensor_id)
        throw EngineError(ORB_SPECTRUM_ERR_OTHER_SENSOR, "calibration " + path + " is of sensor " + c.sensor_id +
                                                             ", not of " + expected_sensor_id);
    c.created = in.text("/", "created");
    c.software_version = in.text("/", "software_version");

    std::vector<hsize_t> dims;
    c.wavelength_nm = in.dataset("wavelength_nm", 1, dims);
    const hsize_t n = dims[0];
    std::vector<double> v = in.dataset("response", 2, dims);
    if (dims[1] != n) in.damaged("the response has " + std::to_string(dims[1]) + " wavelengths, not " + std::to_string(n));
    c.response = row_major(v, dims[0], dims[1]);
    v = in.dataset("response_error", 2, dims);
    c.response_error = row_major(v, dims[0], dims[1]);
    v = in.dataset("noise", 1, dims);
    c.noise = Eigen::Map<Eigen::VectorXd>(v.data(), static_cast<Eigen::Index>(v.size()));
    c.step_exposure_ms = in.dataset("step_exposure_ms", 1, dims);
    c.dark_exposure_ms = in.dataset("dark_exposure_ms", 1, dims);
    v = in.dataset("dark", 2, dims);
    c.dark = row_major(v, dims[0], dims[1]);

    c.adc_gain = in.integer("adc", "gain");
    c.adc_range = in.integer("adc", "range");
    c.adc_resolution = in.integer("adc", "resolution");
    c.onboard_average = in.integer("adc", "onboard_average");
    c.sweep_start_nm = in.real("sweep", "start_nm");
    c.sweep_stop_nm = in.real("sweep", "stop_nm");
    c.sweep_step_nm = in.real("sweep", "step_nm");
    c.frames_averaged = in.integer("sweep", "frames_averaged");
    c.dark_frames = in.integer("sweep", "dark_frames");
    c.source = in.text("sweep", "source");
    c.source_power = in.text("sweep", "source_power");

    c.validate_and_flag(path);
    return c;
}

void write_calibration(const std::string& path, const orb_calibration_data& d) {
    if (d.sensor_id == nullptr || d.wavelength_nm == nullptr || d.response == nullptr || d.response_error == nullptr || d.noise == nullptr ||
        d.step_exposure_ms == nullptr || d.dark_exposure_ms == nullptr || d.dark == nullptr ||
        d.wavelength_count < 1 || d.dark_count < 1)
        throw EngineError(ORB_SPECTRUM_ERR_INVALID, "the calibration to write has a null array or no samples");
    Calibration c;
    const size_t n = static_cast<size_t>(d.wavelength_count), e = static_cast<size_t>(d.dark_count);
    c.wavelength_nm.assign(d.wavelength_nm, d.wavelength_nm + n);
    c.response = Eigen::Map<const Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>>(
        d.response, kFilters, d.wavelength_count);
    c.response_error = Eigen::Map<const Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>>(
        d.response_error, kFilters, d.wavelength_count);
    c.noise = Eigen::Map<const Eigen::VectorXd>(d.noise, kFilters);
    c.step_exposure_ms.assign(d.step_exposure_ms, d.step_exposure_ms + n);
    c.dark_exposure_ms.assign(d.dark_exposure_ms, d.dark_exposure_ms + e);
    c.dark = Eigen::Map<const Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>>(
        d.dark, d.dark_count, kFilters);
    try {
        c.validate_and_flag(path);
    } catch (const EngineError& err) {
        throw EngineError(ORB_SPECTRUM_ERR_INVALID, std::string("refused to write: ") + err.what());
    }

    // Written beside the target and renamed, so that an interrupted write
    // never leaves a file at path that a later load would take.
    const std::string partial = path + ".partial";
    try {
        Hid file(quiet([&] { return H5Fcreate(partial.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT); }),
                 H5Fclose);
        if (!file.ok()) throw EngineError(ORB_SPECTRUM_ERR_WRITE, "cannot create " + partial);
        const Writer out(path, file);
        Hid root(H5Gopen2(file, "/", H5P_DEFAULT), H5Gclose);
        out.integer(root, "layout_version", ORB_CALIBRATION_LAYOUT_VERSION);
        out.text(root, "sensor_id", d.sensor_id);
        out.text(root, "created", d.created ? d.created : utc_now());
        out.text(root, "software_version", d.software_version ? d.software_version : ORB_SOFTWARE_VERSION);
        out.dataset("wavelength_nm", d.wavelength_nm, {n});
        out.dataset("response", d.response, {static_cast<hsize_t>(kFilters), n});
        out.dataset("response_error", d.response_error, {static_cast<hsize_t>(kFilters), n});
        out.dataset("noise", d.noise, {static_cast<hsize_t>(kFilters)});
        out.dataset("step_exposure_ms", d.step_exposure_ms, {n});
        out.dataset("dark_exposure_ms", d.dark_exposure_ms, {e});
        out.dataset("dark", d.dark, {e, static_cast<hsize_t>(kFilters)});
        Hid adc = out.group("adc");
        out.integer(adc, "gain", d.adc_gain);
        out.integer(adc, "range", d.adc_range);
        out.integer(adc, "resolution", d.adc_resolution);
        out.integer(adc, "onboard_average", d.onboard_average);
        Hid sweep = out.group("sweep");
        out.real(sweep, "start_nm", d.sweep_start_nm);
        out.real(sweep, "stop_nm", d.sweep_stop_nm);
        out.real(sweep, "step_nm", d.sweep_step_nm);
        out.integer(sweep, "frames_averaged", d.frames_averaged);
        out.integer(sweep, "dark_frames", d.dark_frames);
        out.text(sweep, "source", or_empty(d.source));
        out.text(sweep, "source_power", or_empty(d.source_power));
        if (H5Fflush(file, H5F_SCOPE_GLOBAL) < 0) throw EngineError(ORB_SPECTRUM_ERR_WRITE, "cannot flush " + partial);
    } catch (...) {
        std::remove(partial.c_str());
        throw;
    }
    if (std::rename(partial.c_str(), path.c_str()) != 0) {
        std::remove(partial.c_str());
        throw EngineError(ORB_SPECTRUM_ERR_WRITE, "cannot rename " + partial + " to " + path);
    }
}

}  // namespace orbspectrum
