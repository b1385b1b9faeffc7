#ifndef ORB_COLOUR_H
#define ORB_COLOUR_H

/* Colorimetry of a spectrum, for hosts in any language (liborb_spectrum; no
 * sensor and no USB needed): CIE XYZ for the 1931 2 degree and 1964 10 degree
 * observers, chromaticity, correlated colour temperature and Duv, the CIE
 * colour rendering index (CIE 13.3), dominant wavelength, purity, peak and
 * centroid. docs/colour.md gives the methods and their measured accuracy.
 *
 * A colour object holds the CIE tables, read once from Debian's colord-data
 * (by default /usr/share/colord, or $ORB_COLORD_DIR). It never changes after
 * orb_colour_create, so any number of threads may compute with one at once.
 *
 * Results: ORB_COLOUR_OK (1), minus the ORB_ERROR_CODE of colour objects
 * (29 to 31), or one of the ORB_COLOUR_ERR_... codes from -201 on, which
 * never coincide with minus an ORB_ERROR_CODE or with an ORB_STREAM_ERR_...
 * code. */

#include "orb_export.h"

#ifdef __cplusplus
extern "C" {
#endif

enum orb_colour_result {
    ORB_COLOUR_OK = 1,
    ORB_COLOUR_ERR_CREATE = -29,     /* a colord-data file could not be opened (or no memory) */
    ORB_COLOUR_ERR_INITIALISE = -30, /* a colord-data file was read but is not a table of the expected shape */
    ORB_COLOUR_ERR_NULL = -31,       /* the colour object is null */
    ORB_COLOUR_ERR_INVALID = -201,   /* a null pointer, or fewer than 2 samples */
    ORB_COLOUR_ERR_RANGE = -202,     /* the wavelengths do not cover 380 to 780 nm */
    ORB_COLOUR_ERR_ORDER = -203,     /* the wavelengths are not strictly ascending */
    ORB_COLOUR_ERR_NOT_FINITE = -204, /* a wavelength or value is NaN or infinite */
    ORB_COLOUR_ERR_DARK = -205       /* no light: the luminance-weighted sum (Y) is not positive */
};

/* R1 to R14 of CIE 13.3; Ra is the mean of R1 to R8. */
#define ORB_COLOUR_SPECIAL_INDICES 14
/* CIE 13.3: beyond this distance in the CIE 1960 UCS between a source and its
 * reference illuminant, Ra is not meaningful. */
#define ORB_COLOUR_DELTA_C_LIMIT 0.0054

typedef struct orb_colour orb_colour;

typedef struct orb_colorimetry {
    /* CIE 1931 2 degree observer. X, Y, Z are the sums of S(l) xbar(l) dl
     * (see orb_colour_compute for the grid), in the spectrum's own unit
     * times nm (with S in W/(sr m^2 nm), 683 Y is the luminance in cd/m^2). */
    double X, Y, Z;
    double x, y;
    double u_prime, v_prime; /* CIE 1976 UCS */
    /* CIE 1964 10 degree observer, the same sums. */
    double X10, Y10, Z10;
    double x10, y10;
    /* Correlated colour temperature (K) and Duv, the signed distance from the
     * Planckian locus in the CIE 1960 UCS (positive above it), by Ohno's
     * combined method. Both NaN outside 1000 to 100000 K. */
    double cct_k;
    double duv;
    /* CIE 13.3 colour rendering: Ra and R1..R14 (NaN when there is no CCT).
     * delta_c is the CIE 1960 UCS distance from the source to its reference
     * illuminant; ra_meaningful is 1 when it is within
     * ORB_COLOUR_DELTA_C_LIMIT, else 0. Below 5000 K delta_c equals |duv|. */
    double ra;
    double r[ORB_COLOUR_SPECIAL_INDICES];
    double delta_c;
    int ra_meaningful;
    /* Over 380 to 780 nm: the wavelength of the highest value (the vertex of
     * the parabola through it and its neighbours), and the power-weighted
     * mean wavelength. */
    double peak_nm;
    double centroid_nm;
    /* Dominant wavelength and excitation purity relative to the equal-energy
     * white (x = y = 1/3), on the 1931 spectrum locus from 380 to 780 nm.
     * For purples (a point towards the line joining 380 and 780 nm) the
     * complementary wavelength is given as a negative number. NaN and 0 within
     * 2e-5 of the white point. */
    double dominant_nm;
    double purity;
} orb_colorimetry;

/* Reads the CIE tables from data_dir (NULL: $ORB_COLORD_DIR, or
 * /usr/share/colord when unset) into a new colour object. On failure *colour
 * is NULL and, when message is not NULL, a text naming the file at fault and
 * what to do is written into it (at most message_size bytes, terminated). */
ORB_EXPORT int orb_colour_create(orb_colour** colour, const char* data_dir, char* message, int message_size);
ORB_EXPORT void orb_colour_destroy(orb_colour* colour);

/* The colorimetry of a spectrum given as count samples (wavelength in nm,
 * strictly ascending, covering 380 to 780 nm; value in any relative unit).
 * A spectrum whose samples all fall on the CIE tables' 5 nm grid, or that is
 * coarser, is interpolated linearly onto that grid and summed there; one
 * sampled between its points is summed on its own samples and the tables'
 * points, the tables interpolated onto them, so that a line narrower than
 * 5 nm keeps its weight. Outside the samples the spectrum counts as zero. */
ORB_EXPORT int orb_colour_compute(const orb_colour* colour, const double* wavelength_nm, const double* value,
                                  int count, orb_colorimetry* result);

/* Correlated colour temperature and Duv of a chromaticity in the CIE 1960 UCS
 * (u = u', v = 2/3 v'); ORB_COLOUR_ERR_RANGE outside 1000 to 100000 K. */
ORB_EXPORT int orb_colour_cct(const orb_colour* colour, double u, double v, double* cct_k, double* duv);

/* A short English text for a result of these calls. */
ORB_EXPORT const char* orb_colour_result_text(int result);

#ifdef __cplusplus
}
#endif

#endif /* ORB_COLOUR_H */
