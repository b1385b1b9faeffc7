// The C boundary of the colorimetry: exceptions stop here.

#include "orb_colour.h"

#include <cmath>
#include <cstring>
#include <new>

#include "colour_context.h"
#include "colour_error.h"

namespace {

void put_message(char* message, int size, const char* text) {
    if (message == nullptr || size <= 0) return;
    std::strncpy(message, text, static_cast<size_t>(size) - 1);
    message[size - 1] = '\0';
}

}  // namespace

extern "C" int orb_colour_create(orb_colour** colour, const char* data_dir, char* message, int message_size) {
    if (colour == nullptr) {
        put_message(message, message_size, orb_colour_result_text(ORB_COLOUR_ERR_INVALID));
        return ORB_COLOUR_ERR_INVALID;
    }
    *colour = nullptr;
    try {
        *colour = new orb_colour(orbspectrum::colord_dir(data_dir));
        put_message(message, message_size, "");
        return ORB_COLOUR_OK;
    } catch (const orbspectrum::ColourError& e) {
        put_message(message, message_size, e.what());
        return -e.code();
    } catch (const std::bad_alloc&) {
        put_message(message, message_size, "no memory for the colour tables");
        return ORB_COLOUR_ERR_CREATE;
    }
}

extern "C" void orb_colour_destroy(orb_colour* colour) { delete colour; }

extern "C" int orb_colour_compute(const orb_colour* colour, const double* wavelength_nm, const double* value,
                                  int count, orb_colorimetry* result) {
    if (colour == nullptr) return ORB_COLOUR_ERR_NULL;
    if (result == nullptr) return ORB_COLOUR_ERR_INVALID;
    try {
        return colour->context.compute(wavelength_nm, value, count, *result);
    } catch (const std::bad_alloc&) {
        return ORB_COLOUR_ERR_CREATE;
    }
}

extern "C" int orb_colour_cct(const orb_colour* colour, double u, double v, double* cct_k, double* duv) {
    if (colour == nullptr) return ORB_COLOUR_ERR_NULL;
    if (cct_k == nullptr || duv == nullptr) return ORB_COLOUR_ERR_INVALID;
    if (!std::isfinite(u) || !std::isfinite(v)) return ORB_COLOUR_ERR_NOT_FINITE;
    const orbspectrum::CctDuv t = colour->context.cct({u, v});
    *cct_k = t.cct_k;
    *duv = t.duv;
    return t.in_range ? ORB_COLOUR_OK : ORB_COLOUR_ERR_RANGE;
}

extern "C" const char* orb_colour_result_text(int result) {
    switch (result) {
    case ORB_COLOUR_OK: return "done";
    case ORB_COLOUR_ERR_CREATE: return "the colour object could not be created: a colord-data file is missing (install the Debian package colord-data) or there is no memory";
    case ORB_COLOUR_ERR_INITIALISE: return "the colour object could not be initialised: a colord-data file is not a table of the expected shape";
    case ORB_COLOUR_ERR_NULL: return "the colour object is null";
    case ORB_COLOUR_ERR_INVALID: return "a null pointer, or fewer than 2 samples";
    case ORB_COLOUR_ERR_RANGE: return "out of range: the wavelengths do not cover 380 to 780 nm, or the chromaticity is outside 1000 to 100000 K";
    case ORB_COLOUR_ERR_ORDER: return "the wavelengths are not strictly ascending";
    case ORB_COLOUR_ERR_NOT_FINITE: return "a wavelength or value is NaN or infinite";
    case ORB_COLOUR_ERR_DARK: return "no light: the spectrum gives no positive luminance (Y) over 380 to 780 nm";
    default: return "unknown result";
    }
}
