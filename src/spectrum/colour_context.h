#ifndef ORB_SPECTRUM_COLOUR_CONTEXT_H
#define ORB_SPECTRUM_COLOUR_CONTEXT_H

#include <string>

#include "cie_tables.h"
#include "dominant_wavelength.h"
#include "orb_colour.h"
#include "planckian_locus.h"

namespace orbspectrum {

// What orb_colour_create builds once: the tables and what is derived from
// them alone. Immutable afterwards, so shared by threads without a lock.
class ColourContext {
public:
    explicit ColourContext(const std::string& data_dir);
    // Returns ORB_COLOUR_OK or the result code of the input's fault.
    int compute(const double* wl, const double* value, int count, orb_colorimetry& out) const;
    CctDuv cct(Uv p) const { return locus_.cct(p); }

private:
    CieTables tables_;
    PlanckianLocus locus_;
    SpectrumLocus spectrum_locus_;
};

}  // namespace orbspectrum

// The handle hosts hold.
struct orb_colour {
    explicit orb_colour(const std::string& data_dir) : context(data_dir) {}
    orbspectrum::ColourContext context;
};

#endif
