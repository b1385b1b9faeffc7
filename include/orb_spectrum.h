#ifndef ORB_SPECTRUM_H
#define ORB_SPECTRUM_H

/* From filter data to a spectrum, for hosts in any language (liborb_spectrum;
 * no sensor and no USB needed). docs/spectra.md gives the calibration file's
 * layout, the reconstruction and its limits.
 *
 * A calibration (orb_calibration) is one sensor unit's measured response to a
 * swept narrow line, read from its HDF5 file. From it an operator
 * (orb_spectrum) is built once per output grid; applying it to a frame is one
 * matrix-vector product. Neither changes after it is made, so any number of
 * threads may apply one operator at once. Loading and writing files use
 * libhdf5, which is not thread-safe: do not load or write from two threads at
 * once, nor while another part of the process uses libhdf5.
 *
 * Spectra are spectral densities: the calibration source's power unit per nm.
 * Lines found by the refinement carry their power in that unit.
 *
 * Results: ORB_SPECTRUM_OK (1), minus the ORB_ERROR_CODE that names the
 * failure (12, 15, 17 to 22, 28), or one of the ORB_SPECTRUM_ERR_... codes from
 * -301 on, which never coincide with minus an ORB_ERROR_CODE, an
 * ORB_STREAM_ERR_... or an ORB_COLOUR_ERR_... code. Calls that take a message
 * buffer write a text saying what was found into it (at most message_size
 * bytes, terminated; "" on success). */

#include "orb_export.h"

#ifdef __cplusplus
extern "C" {
#endif

enum orb_spectrum_result {
    ORB_SPECTRUM_OK = 1,
    ORB_SPECTRUM_ERR_LOAD = -12,             /* the calibration file cannot be opened or read */
    ORB_SPECTRUM_ERR_OTHER_SENSOR = -15,     /* the calibration is of another sensor */
    ORB_SPECTRUM_ERR_NULL_SPECTRUM = -17,    /* the spectrum (output) buffer is null */
    ORB_SPECTRUM_ERR_NULL_WAVELENGTH = -18,  /* the wavelength buffer is null */
    ORB_SPECTRUM_ERR_NULL_FILTER = -19,      /* the filter data buffer is null */
    ORB_SPECTRUM_ERR_NOT_A_NUMBER = -20,     /* a filter or dark value, or the exposure, is NaN or infinite */
    ORB_SPECTRUM_ERR_NULL_BACKGROUND = -21,  /* the dark (background) buffer is null */
    ORB_SPECTRUM_ERR_COMPUTE = -22,          /* the operator or the refinement could not be computed */
    ORB_SPECTRUM_ERR_NO_MEMORY = -28,        /* no memory for the operator's matrix */
    ORB_SPECTRUM_ERR_INVALID = -301,         /* a null object or pointer, or an argument out of range */
    ORB_SPECTRUM_ERR_VERSION = -302,         /* the file has another layout version */
    ORB_SPECTRUM_ERR_DAMAGED = -303,         /* the file is damaged or incomplete */
    ORB_SPECTRUM_ERR_NOT_FOUND = -304,       /* no calibration for the sensor in the search path */
    ORB_SPECTRUM_ERR_STEP = -305,            /* a grid step outside 0.5 to 10 nm */
    ORB_SPECTRUM_ERR_WRITE = -306            /* the calibration file could not be written */
};

#define ORB_SPECTRUM_FILTERS 1024
/* The calibration file layout this library reads and writes. */
#define ORB_CALIBRATION_LAYOUT_VERSION 1
/* The environment variable searched first for calibration files (directories
 * separated by ':'). */
#define ORB_CALIBRATION_PATH_VARIABLE "ORB_CALIBRATION_PATH"

/* Output grids of orb_spectrum_create, besides a step in nm. */
#define ORB_SPECTRUM_GRID_CALIBRATION 0.0 /* the calibration's own wavelengths */
#define ORB_SPECTRUM_GRID_LIBRARY -1.0    /* the library's 340 to 1100 nm in 5 nm steps */
#define ORB_SPECTRUM_MIN_STEP_NM 0.5
#define ORB_SPECTRUM_MAX_STEP_NM 10.0

typedef struct orb_calibration orb_calibration;
typedef struct orb_spectrum orb_spectrum;

/* What a calibration file holds, for writing one. Arrays are row-major. */
typedef struct orb_calibration_data {
    const char* sensor_id;
    int wavelength_count;          /* N, at least 8 */
    const double* wavelength_nm;   /* [N], strictly ascending */
    const double* response;        /* [1024][N]: dark-subtracted counts per ms per unit of source power */
    const double* response_error;  /* [1024][N]: the standard error of each response value, same unit */
    const double* noise;           /* [1024]: standard deviation of one dark frame, counts */
    const double* step_exposure_ms; /* [N]: the exposure used at each step */
    int dark_count;                /* E, at least 1 */
    const double* dark_exposure_ms; /* [E] */
    const double* dark;            /* [E][1024]: mean dark frame at each exposure, counts */
    int adc_gain, adc_range, adc_resolution, onboard_average;
    double sweep_start_nm, sweep_stop_nm, sweep_step_nm;
    int frames_averaged;           /* frames averaged per step */
    int dark_frames;               /* dark frames averaged per exposure */
    const char* source;            /* how the line was driven, e.g. "emulator", "command: ...", "manual" */
    const char* source_power;      /* the source power file applied, or "" for a flat source */
    const char* created;           /* ISO 8601 UTC; NULL: now */
    const char* software_version;  /* NULL: this library's version */
} orb_calibration_data;

/* A loaded calibration, summarised. */
typedef struct orb_calibration_info {
    char sensor_id[64];
    char created[32];
    char software_version[32];
    int layout_version;
    int wavelength_count;
    double first_nm, last_nm;
    double sweep_step_nm;
    int frames_averaged, dark_frames;
    int unusable_filters;          /* dead (no response) or hot (huge noise): left out of every reconstruction */
} orb_calibration_info;

/* The file name a sensor's calibration has in the search path: the ID with
 * every character other than A-Z a-z 0-9 . _ - replaced by '_', then ".h5". */
ORB_EXPORT int orb_calibration_file_name(const char* sensor_id, char* name, int name_size);
/* Looks for the sensor's calibration in each directory of
 * $ORB_CALIBRATION_PATH, then $XDG_DATA_HOME/orb-sensor/calibrations (or
 * ~/.local/share/orb-sensor/calibrations), then the installed tree's
 * share/orb-sensor/calibrations, and writes the first file that exists into
 * path. ORB_SPECTRUM_ERR_NOT_FOUND names the places searched. */
ORB_EXPORT int orb_calibration_find(const char* sensor_id, char* path, int path_size, char* message,
                                    int message_size);
/* Reads a calibration file. With expected_sensor_id neither NULL nor "", a
 * calibration of another sensor is refused (ORB_SPECTRUM_ERR_OTHER_SENSOR). */
ORB_EXPORT int orb_calibration_load(orb_calibration** calibration, const char* path, const char* expected_sensor_id,
                                    char* message, int message_size);
ORB_EXPORT void orb_calibration_destroy(orb_calibration* calibration);
ORB_EXPORT int orb_calibration_get_info(const orb_calibration* calibration, orb_calibration_info* info);
/* 1 for each filter left out (dead or hot), else 0: flags[1024]. */
ORB_EXPORT int orb_calibration_unusable_filters(const orb_calibration* calibration, int* flags);
/* Writes a calibration file in the current layout; a file written half is
 * never left at path (it is written beside it and renamed). */
ORB_EXPORT int orb_calibration_write(const char* path, const orb_calibration_data* data, char* message,
                                     int message_size);

/* Options of an operator. */
typedef struct orb_spectrum_options {
    /* 0: chosen by generalised cross-validation (docs/spectra.md);
     * otherwise the smoothness prior's strength itself. */
    double strength;
    /* Frames averaged in the spectra to come: their noise, which the choice
     * of strength weighs (0 counts as 1). */
    int averages;
} orb_spectrum_options;

/* Builds the reconstruction operator of a calibration for an output grid:
 * ORB_SPECTRUM_GRID_CALIBRATION, ORB_SPECTRUM_GRID_LIBRARY, or a step of 0.5
 * to 10 nm over the calibration's range. options may be NULL (GCV, 1 frame).
 * The operator keeps no reference to the calibration. */
ORB_EXPORT int orb_spectrum_create(orb_spectrum** spectrum, const orb_calibration* calibration, double grid,
                                   const orb_spectrum_options* options, char* message, int message_size);
ORB_EXPORT void orb_spectrum_destroy(orb_spectrum* spectrum);
/* The number of output samples (0 for a null operator). */
ORB_EXPORT int orb_spectrum_size(const orb_spectrum* spectrum);
/* The output grid, orb_spectrum_size values. */
ORB_EXPORT int orb_spectrum_wavelengths(const orb_spectrum* spectrum, double* wavelength_nm);
/* The smoothness prior's strength used (given, or chosen by GCV) and the
 * number of filters the reconstruction uses. */
ORB_EXPORT int orb_spectrum_get_strength(const orb_spectrum* spectrum, double* strength, int* filters_used);

/* A spectrum from one frame: filters and dark are 1024 values in counts (the
 * dark taken at the same exposure, or 0s when filters are dark-subtracted
 * already), exposure_ms > 0; spectrum receives orb_spectrum_size values. Grid
 * points outside the calibration's range are 0. */
ORB_EXPORT int orb_spectrum_apply(const orb_spectrum* spectrum, const double* filters, const double* dark,
                                  double exposure_ms, double* value);

/* A line found by the refinement. */
typedef struct orb_spectrum_line {
    double wavelength_nm;
    double power; /* the calibration source's power unit */
} orb_spectrum_line;

/* The non-negative refinement for line spectra (slower): the spectrum of
 * orb_spectrum_apply, then within windows around its peaks a non-negative fit
 * on a 0.25 nm grid and a fit of each line's position and power, which resolves
 * lines closer than a filter's width. value receives the spectrum with the
 * windows refitted (lines drawn as densities on the output grid); lines
 * receives up to capacity lines, strongest first, and *count how many were
 * found (lines may be NULL when capacity is 0). */
ORB_EXPORT int orb_spectrum_refine(const orb_spectrum* spectrum, const double* filters, const double* dark,
                                   double exposure_ms, double* value, orb_spectrum_line* lines, int capacity,
                                   int* count);

/* A peak of a spectrum. */
typedef struct orb_spectrum_peak {
    double wavelength_nm; /* vertex of a Gaussian (or, near zero, a parabola) through the top 3 samples */
    double height;        /* at the vertex */
    double fwhm_nm;       /* between the half-height crossings, interpolated linearly */
    double prominence;    /* above the higher of the lowest points to either side */
} orb_spectrum_peak;

/* Peaks of any spectrum (count samples, ascending wavelengths) whose
 * prominence is at least min_prominence times the spectrum's highest value,
 * highest first; up to capacity written, *found how many there are. */
ORB_EXPORT int orb_spectrum_peaks(const double* wavelength_nm, const double* value, int count,
                                  double min_prominence, orb_spectrum_peak* peaks, int capacity, int* found);

/* Peaks of a spectrum this operator made with orb_spectrum_apply (value has
 * orb_spectrum_size samples), as orb_spectrum_peaks finds them, except that a
 * peak as narrow as a line is moved to the wavelength of the line that makes
 * it. The smoothness prior pulls a line's peak toward where the filters see
 * more (by up to a few nm past 1000 nm, where they are widest and silicon
 * fades); the operator's own spectra of the calibration's lines tell by how
 * much. A peak twice a line's width or wider (a band) is left where it is,
 * and one in between is moved part of the way. */
ORB_EXPORT int orb_spectrum_line_peaks(const orb_spectrum* spectrum, const double* value, double min_prominence,
                                       orb_spectrum_peak* peaks, int capacity, int* found);

/* A short English text for a result of these calls. */
ORB_EXPORT const char* orb_spectrum_result_text(int result);

#ifdef __cplusplus
}
#endif

#endif /* ORB_SPECTRUM_H */
