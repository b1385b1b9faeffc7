#ifndef ORB_SPECTRUM_COLOUR_CONTEXT_H
#define ORB_SPECTRUM_COLOUR_CONTEXT_H

#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "cie_tables.h"
#include "dominant_wavelength.h"
#include "orb_colour.h"
#include "planckian_locus.h"

namespace orbspectrum {

// What orb_colour_create builds once: the tables and what is derived from
// them alone, immutable afterwards; and the tables interpolated onto the
// grids of the last spectra computed, since a host sends one grid frame after
// frame and interpolating them costs twenty times the rest. Threads share it:
// the cache takes a lock only to look up and to insert.
class ColourContext {
public:
    explicit ColourContext(const std::string& data_dir);
    // Returns ORB_COLOUR_OK or the result code of the input's fault.
    int compute(const double* wl, const double* value, int count, orb_colorimetry& out) const;
    CctDuv cct(Uv p) const { return locus_.cct(p); }

private:
    // The tables to sum a spectrum on this grid on: `tables_` itself, or
    // interpolated onto it (integration_tables), from the cache if there.
    std::shared_ptr<const CieTables> tables_on(const double* wl, int count) const;

    CieTables tables_;
    // Not owned by the shared pointer: the context outlives every use.
    std::shared_ptr<const CieTables> base_;
    struct Cached {
        std::vector<double> grid;
        std::shared_ptr<const CieTables> tables;
    };
    mutable std::mutex cache_lock_;
    mutable std::list<Cached> cache_;  // the most recently used first
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
