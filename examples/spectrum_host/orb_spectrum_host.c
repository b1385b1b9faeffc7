/* A spectrum host in plain C: loads a sensor unit's calibration and prints
 * the spectrum and the peaks of one frame read from a file.
 *   orb_spectrum_host CALIBRATION.h5 FRAME EXPOSURE_MS [DARK]
 * FRAME and DARK hold 1024 filter values in counts (separated by blanks,
 * commas or line ends; # comments allowed), the dark taken covered at the
 * same exposure (without one the frame is taken as dark-subtracted).
 * Prints wavelength_nm,value per line, then "# peak ..." lines.
 * Exit status: 0 done, 1 a file cannot be read, 2 bad use, 3 the
 * calibration cannot be used, 4 the spectrum cannot be computed. */
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "orb_spectrum.h"

#define MAX_PEAKS 16

/* Reads exactly 1024 numbers; 1 on success. */
static int read_frame(const char* path, double* values) {
    char line[4096];
    int count = 0, number = 0;
    FILE* f = fopen(path, "r");
    if (f == NULL) {
        perror(path);
        return 0;
    }
    while (fgets(line, sizeof line, f) != NULL) {
        char* p = line;
        number++;
        for (;;) {
            char* end;
            double v;
            while (isspace((unsigned char)*p) || *p == ',') p++;
            if (*p == '\0' || *p == '#') break;
            v = strtod(p, &end);
            if (end == p || count == ORB_SPECTRUM_FILTERS) {
                fprintf(stderr, "%s:%d: %s\n", path, number,
                        end == p ? "not a number" : "more than 1024 values");
                fclose(f);
                return 0;
            }
            values[count++] = v;
            p = end;
        }
    }
    fclose(f);
    if (count != ORB_SPECTRUM_FILTERS) {
        fprintf(stderr, "%s: %d values, not 1024\n", path, count);
        return 0;
    }
    return 1;
}

int main(int argc, char** argv) {
    static double filters[ORB_SPECTRUM_FILTERS], dark[ORB_SPECTRUM_FILTERS];
    orb_calibration* calibration = NULL;
    orb_calibration_info info;
    orb_spectrum* spectrum = NULL;
    orb_spectrum_peak peaks[MAX_PEAKS];
    double *wavelength = NULL, *value = NULL, exposure_ms;
    char message[1024], *end;
    int status, size, found, i;

    if (argc < 4 || argc > 5 || argv[1][0] == '-') {
        fprintf(stderr, "usage: orb_spectrum_host CALIBRATION.h5 FRAME EXPOSURE_MS [DARK]\n");
        return 2;
    }
    exposure_ms = strtod(argv[3], &end);
    if (end == argv[3] || *end != '\0' || !(exposure_ms > 0)) {
        fprintf(stderr, "EXPOSURE_MS must be a number above 0, not %s\n", argv[3]);
        return 2;
    }
    if (!read_frame(argv[2], filters) || (argc == 5 && !read_frame(argv[4], dark))) return 1;

    status = orb_calibration_load(&calibration, argv[1], NULL, message, sizeof message);
    if (status != ORB_SPECTRUM_OK) {
        fprintf(stderr, "%s\n", message);
        return 3;
    }
    orb_calibration_get_info(calibration, &info);
    status = orb_spectrum_create(&spectrum, calibration, ORB_SPECTRUM_GRID_CALIBRATION, NULL, message, sizeof message);
    /* The operator keeps nothing of the calibration. */
    orb_calibration_destroy(calibration);
    if (status != ORB_SPECTRUM_OK) {
        fprintf(stderr, "%s\n", message);
        return 4;
    }
    size = orb_spectrum_size(spectrum);
    wavelength = malloc(size * sizeof(double));
    value = malloc(size * sizeof(double));
    if (wavelength == NULL || value == NULL) {
        fprintf(stderr, "no memory\n");
        status = 0;
    } else {
        orb_spectrum_wavelengths(spectrum, wavelength);
        status = orb_spectrum_apply(spectrum, filters, dark, exposure_ms, value);
        if (status == ORB_SPECTRUM_OK)
            status = orb_spectrum_line_peaks(spectrum, value, 0.05, peaks, MAX_PEAKS, &found);
        if (status != ORB_SPECTRUM_OK) fprintf(stderr, "%s\n", orb_spectrum_result_text(status));
    }
    if (status == ORB_SPECTRUM_OK) {
        printf("# calibration of %s, made %s: %d wavelengths, %.6g to %.6g nm\n", info.sensor_id, info.created,
               info.wavelength_count, info.first_nm, info.last_nm);
        printf("wavelength_nm,value\n");
        for (i = 0; i < size; i++) printf("%.6g,%.6g\n", wavelength[i], value[i]);
        for (i = 0; i < found && i < MAX_PEAKS; i++)
            printf("# peak %.2f nm height %.6g fwhm %.2f nm\n", peaks[i].wavelength_nm, peaks[i].height,
                   peaks[i].fwhm_nm);
    }
    free(wavelength);
    free(value);
    orb_spectrum_destroy(spectrum);
    return status == ORB_SPECTRUM_OK ? 0 : 4;
}
