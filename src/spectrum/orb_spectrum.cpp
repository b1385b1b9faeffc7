// The C boundary of the calibration and the reconstruction: arguments are
// checked here, exceptions stop here.

#include "orb_spectrum.h"

#include <cmath>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "calibration.h"
#include "engine_error.h"
#include "line_refinement.h"
#include "line_response.h"
#include "reconstruction.h"
#include "spectral_peaks.h"

struct orb_spectrum {
    orb_spectrum(const orbspectrum::Calibration& c, double grid, double strength, int averages)
        : reconstruction(c, grid, strength, averages),
          noise(c, reconstruction.weighted().filters, averages),
          line_response(c, reconstruction) {}
    orbspectrum::Reconstruction reconstruction;
    orbspectrum::FrameNoise noise;
    orbspectrum::LineResponse line_response;
};

namespace {

void put_text(char* buffer, int size, const std::string& text) {
    if (buffer == nullptr || size <= 0) return;
    std::strncpy(buffer, text.c_str(), static_cast<size_t>(size) - 1);
    buffer[size - 1] = '\0';
}

// Runs f, turning what it throws into a result and a message.
template <typename F>
int guarded(char* message, int message_size, F&& f) {
    try {
        f();
        put_text(message, message_size, "");
        return ORB_SPECTRUM_OK;
    } catch (const orbspectrum::EngineError& e) {
        put_text(message, message_size, e.what());
        return e.result();
    } catch (const std::bad_alloc&) {
        put_text(message, message_size, orb_spectrum_result_text(ORB_SPECTRUM_ERR_NO_MEMORY));
        return ORB_SPECTRUM_ERR_NO_MEMORY;
    } catch (const std::exception& e) {
        put_text(message, message_size, std::string("the spectrum could not be computed: ") + e.what());
        return ORB_SPECTRUM_ERR_COMPUTE;
    }
}

// What a frame must be: buffers, finite values and a positive exposure.
int check_frame(const orb_spectrum* spectrum, const double* filters, const double* dark, double exposure_ms,
                const void* value) {
    if (spectrum == nullptr) return ORB_SPECTRUM_ERR_INVALID;
    if (filters == nullptr) return ORB_SPECTRUM_ERR_NULL_FILTER;
    if (dark == nullptr) return ORB_SPECTRUM_ERR_NULL_BACKGROUND;
    if (value == nullptr) return ORB_SPECTRUM_ERR_NULL_SPECTRUM;
    if (!std::isfinite(exposure_ms)) return ORB_SPECTRUM_ERR_NOT_A_NUMBER;
    if (!(exposure_ms > 0)) return ORB_SPECTRUM_ERR_INVALID;
    for (int i = 0; i < ORB_SPECTRUM_FILTERS; ++i)
        if (!std::isfinite(filters[i]) || !std::isfinite(dark[i])) return ORB_SPECTRUM_ERR_NOT_A_NUMBER;
    return ORB_SPECTRUM_OK;
}

}  // namespace

extern "C" int orb_calibration_file_name(const char* sensor_id, char* name, int name_size) {
    if (sensor_id == nullptr || *sensor_id == '\0' || name == nullptr || name_size <= 0) return ORB_SPECTRUM_ERR_INVALID;
    const std::string file = orbspectrum::calibration_file_name(sensor_id);
    if (static_cast<int>(file.size()) >= name_size) return ORB_SPECTRUM_ERR_INVALID;
    put_text(name, name_size, file);
    return ORB_SPECTRUM_OK;
}

extern "C" int orb_calibration_find(const char* sensor_id, char* path, int path_size, char* message,
                                    int message_size) {
    if (sensor_id == nullptr || path == nullptr || path_size <= 0) {
        put_text(message, message_size, orb_spectrum_result_text(ORB_SPECTRUM_ERR_INVALID));
        return ORB_SPECTRUM_ERR_INVALID;
    }
    return guarded(message, message_size, [&] {
        const std::string found = orbspectrum::find_calibration(sensor_id);
        if (static_cast<int>(found.size()) >= path_size)
            throw orbspectrum::EngineError(ORB_SPECTRUM_ERR_INVALID, "the path buffer is too small for " + found);
        put_text(path, path_size, found);
    });
}

extern "C" int orb_calibration_load(orb_calibration** calibration, const char* path, const char* expected_sensor_id,
                                    char* message, int message_size) {
    if (calibration == nullptr || path == nullptr) {
        put_text(message, message_size, orb_spectrum_result_text(ORB_SPECTRUM_ERR_INVALID));
        return ORB_SPECTRUM_ERR_INVALID;
    }
    *calibration = nullptr;
    return guarded(message, message_size, [&] {
        auto loaded = std::make_unique<orb_calibration>();
        loaded->content = orbspectrum::read_calibration(path, expected_sensor_id ? expected_sensor_id : "");
        *calibration = loaded.release();
    });
}

extern "C" void orb_calibration_destroy(orb_calibration* calibration) { delete calibration; }

extern "C" int orb_calibration_get_info(const orb_calibration* calibration, orb_calibration_info* info) {
    if (calibration == nullptr || info == nullptr) return ORB_SPECTRUM_ERR_INVALID;
    const orbspectrum::Calibration& c = calibration->content;
    *info = orb_calibration_info{};
    put_text(info->sensor_id, sizeof info->sensor_id, c.sensor_id);
    put_text(info->created, sizeof info->created, c.created);
    put_text(info->software_version, sizeof info->software_version, c.software_version);
    info->layout_version = c.layout_version;
    info->wavelength_count = static_cast<int>(c.wavelength_nm.size());
    info->first_nm = c.wavelength_nm.front();
    info->last_nm = c.wavelength_nm.back();
    info->sweep_step_nm = c.sweep_step_nm;
    info->frames_averaged = c.frames_averaged;
    info->dark_frames = c.dark_frames;
    for (bool u : c.unusable) info->unusable_filters += u ? 1 : 0;
    return ORB_SPECTRUM_OK;
}

extern "C" int orb_calibration_unusable_filters(const orb_calibration* calibration, int* flags) {
    if (calibration == nullptr || flags == nullptr) return ORB_SPECTRUM_ERR_INVALID;
    for (int i = 0; i < ORB_SPECTRUM_FILTERS; ++i) flags[i] = calibration->content.unusable[static_cast<size_t>(i)];
    return ORB_SPECTRUM_OK;
}

extern "C" int orb_calibration_write(const char* path, const orb_calibration_data* data, char* message,
                                     int message_size) {
    if (path == nullptr || data == nullptr) {
        put_text(message, message_size, orb_spectrum_result_text(ORB_SPECTRUM_ERR_INVALID));
        return ORB_SPECTRUM_ERR_INVALID;
    }
    return guarded(message, message_size, [&] { orbspectrum::write_calibration(path, *data); });
}

extern "C" int orb_spectrum_create(orb_spectrum** spectrum, const orb_calibration* calibration, double grid,
                                   const orb_spectrum_options* options, char* message, int message_size) {
    if (spectrum == nullptr || calibration == nullptr) {
        put_text(message, message_size, orb_spectrum_result_text(ORB_SPECTRUM_ERR_INVALID));
        return ORB_SPECTRUM_ERR_INVALID;
    }
    *spectrum = nullptr;
    const double strength = options ? options->strength : 0;
    const int averages = options ? options->averages : 1;
    if (!(strength >= 0) || !std::isfinite(strength) || averages < 0) {
        put_text(message, message_size, "the strength must be 0 or positive and the averages 0 or more");
        return ORB_SPECTRUM_ERR_INVALID;
    }
    return guarded(message, message_size, [&] {
        *spectrum = new orb_spectrum(calibration->content, grid, strength, averages);
    });
}

extern "C" void orb_spectrum_destroy(orb_spectrum* spectrum) { delete spectrum; }

extern "C" int orb_spectrum_size(const orb_spectrum* spectrum) {
    return spectrum ? static_cast<int>(spectrum->reconstruction.wavelengths().size()) : 0;
}

extern "C" int orb_spectrum_wavelengths(const orb_spectrum* spectrum, double* wavelength_nm) {
    if (spectrum == nullptr) return ORB_SPECTRUM_ERR_INVALID;
    if (wavelength_nm == nullptr) return ORB_SPECTRUM_ERR_NULL_WAVELENGTH;
    const auto& nm = spectrum->reconstruction.wavelengths();
    std::copy(nm.begin(), nm.end(), wavelength_nm);
    return ORB_SPECTRUM_OK;
}

extern "C" int orb_spectrum_get_strength(const orb_spectrum* spectrum, double* strength, int* filters_used) {
    if (spectrum == nullptr || strength == nullptr || filters_used == nullptr) return ORB_SPECTRUM_ERR_INVALID;
    *strength = spectrum->reconstruction.strength();
    *filters_used = spectrum->reconstruction.filters_used();
    return ORB_SPECTRUM_OK;
}

extern "C" int orb_spectrum_apply(const orb_spectrum* spectrum, const double* filters, const double* dark,
                                  double exposure_ms, double* value) {
    const int checked = check_frame(spectrum, filters, dark, exposure_ms, value);
    if (checked != ORB_SPECTRUM_OK) return checked;
    spectrum->reconstruction.apply(filters, dark, exposure_ms, value);
    return ORB_SPECTRUM_OK;
}

extern "C" int orb_spectrum_refine(const orb_spectrum* spectrum, const double* filters, const double* dark,
                                   double exposure_ms, double* value, orb_spectrum_line* lines, int capacity,
                                   int* count) {
    const int checked = check_frame(spectrum, filters, dark, exposure_ms, value);
    if (checked != ORB_SPECTRUM_OK) return checked;
    if (count == nullptr || capacity < 0 || (capacity > 0 && lines == nullptr)) return ORB_SPECTRUM_ERR_INVALID;
    return guarded(nullptr, 0, [&] {
        const orbspectrum::Refined r = orbspectrum::refine_lines(spectrum->reconstruction, spectrum->line_response,
                                                                 spectrum->noise, filters, dark, exposure_ms);
        std::copy(r.density.data(), r.density.data() + r.density.size(), value);
        *count = static_cast<int>(r.lines.size());
        for (int i = 0; i < capacity && i < *count; ++i) lines[i] = r.lines[static_cast<size_t>(i)];
    });
}

extern "C" int orb_spectrum_peaks(const double* wavelength_nm, const double* value, int count, double min_prominence,
                                  orb_spectrum_peak* peaks, int capacity, int* found) {
    if (wavelength_nm == nullptr) return ORB_SPECTRUM_ERR_NULL_WAVELENGTH;
    if (value == nullptr) return ORB_SPECTRUM_ERR_NULL_SPECTRUM;
    if (found == nullptr || count < 0 || capacity < 0 || (capacity > 0 && peaks == nullptr) ||
        !(min_prominence >= 0))
        return ORB_SPECTRUM_ERR_INVALID;
    for (int i = 0; i < count; ++i) {
        if (!std::isfinite(wavelength_nm[i]) || !std::isfinite(value[i])) return ORB_SPECTRUM_ERR_NOT_A_NUMBER;
        if (i > 0 && !(wavelength_nm[i] > wavelength_nm[i - 1])) return ORB_SPECTRUM_ERR_INVALID;
    }
    return guarded(nullptr, 0, [&] {
        const auto p = orbspectrum::find_peaks(wavelength_nm, value, count, min_prominence);
        *found = static_cast<int>(p.size());
        for (int i = 0; i < capacity && i < *found; ++i) peaks[i] = p[static_cast<size_t>(i)];
    });
}

extern "C" int orb_spectrum_line_peaks(const orb_spectrum* spectrum, const double* value, double min_prominence,
                                       orb_spectrum_peak* peaks, int capacity, int* found) {
    if (spectrum == nullptr || found == nullptr || capacity < 0 || (capacity > 0 && peaks == nullptr) ||
        !(min_prominence >= 0))
        return ORB_SPECTRUM_ERR_INVALID;
    if (value == nullptr) return ORB_SPECTRUM_ERR_NULL_SPECTRUM;
    const size_t count = spectrum->reconstruction.wavelengths().size();
    for (size_t i = 0; i < count; ++i)
        if (!std::isfinite(value[i])) return ORB_SPECTRUM_ERR_NOT_A_NUMBER;
    return guarded(nullptr, 0, [&] {
        const auto p = spectrum->line_response.peaks(value, min_prominence);
        *found = static_cast<int>(p.size());
        for (int i = 0; i < capacity && i < *found; ++i) peaks[i] = p[static_cast<size_t>(i)];
    });
}

extern "C" const char* orb_spectrum_result_text(int result) {
    switch (result) {
    case ORB_SPECTRUM_OK: return "done";
    case ORB_SPECTRUM_ERR_LOAD: return "the calibration file cannot be opened or read";
    case ORB_SPECTRUM_ERR_OTHER_SENSOR: return "the calibration is of another sensor";
    case ORB_SPECTRUM_ERR_NULL_SPECTRUM: return "the spectrum buffer is null";
    case ORB_SPECTRUM_ERR_NULL_WAVELENGTH: return "the wavelength buffer is null";
    case ORB_SPECTRUM_ERR_NULL_FILTER: return "the filter data buffer is null";
    case ORB_SPECTRUM_ERR_NOT_A_NUMBER: return "a filter or dark value, or the exposure, is not a number";
    case ORB_SPECTRUM_ERR_NULL_BACKGROUND: return "the dark (background) buffer is null";
    case ORB_SPECTRUM_ERR_COMPUTE: return "the spectrum could not be computed";
    case ORB_SPECTRUM_ERR_NO_MEMORY: return "no memory for the reconstruction's matrix";
    case ORB_SPECTRUM_ERR_INVALID: return "a null object or pointer, or an argument out of range";
    case ORB_SPECTRUM_ERR_VERSION: return "the calibration file has a layout version this library does not read";
    case ORB_SPECTRUM_ERR_DAMAGED: return "the calibration file is damaged or incomplete";
    case ORB_SPECTRUM_ERR_NOT_FOUND: return "no calibration for the sensor in the search path";
    case ORB_SPECTRUM_ERR_STEP: return "the grid step must be 0.5 to 10 nm";
    case ORB_SPECTRUM_ERR_WRITE: return "the calibration file could not be written";
    default: return "unknown result";
    }
}
