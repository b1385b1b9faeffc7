// The whole colorimetry of one spectrum.

#include "colour_context.h"

#include <algorithm>
#include <cmath>

#include "colour_rendering.h"
#include "integration_grid.h"
#include "peak_centroid.h"
#include "tristimulus.h"

namespace orbspectrum {

namespace {

// The equal-energy white, from which dominant wavelength and purity are seen.
constexpr double kWhiteX = 1.0 / 3.0, kWhiteY = 1.0 / 3.0;
// Grids whose tables are kept: a host alternating between a few grids (two
// sensors, a coarser preview) keeps them all; at 761 points the tables of a
// grid are about 0.2 MB.
constexpr size_t kCachedGrids = 4;

int check_spectrum(const double* wl, const double* value, int count) {
    if (wl == nullptr || value == nullptr || count < 2) return ORB_COLOUR_ERR_INVALID;
    for (int i = 0; i < count; i++)
        if (!std::isfinite(wl[i]) || !std::isfinite(value[i])) return ORB_COLOUR_ERR_NOT_FINITE;
    for (int i = 0; i + 1 < count; i++)
        if (!(wl[i + 1] > wl[i])) return ORB_COLOUR_ERR_ORDER;
    if (wl[0] > kVisibleFromNm || wl[count - 1] < kVisibleToNm) return ORB_COLOUR_ERR_RANGE;
    return ORB_COLOUR_OK;
}

}  // namespace

ColourContext::ColourContext(const std::string& data_dir)
    : tables_(load_cie_tables(data_dir)),
      base_(&tables_, [](const CieTables*) {}),
      locus_(tables_),
      spectrum_locus_(tables_) {}

std::shared_ptr<const CieTables> ColourContext::tables_on(const double* wl, int count) const {
    const auto same_grid = [&](const Cached& c) {
        return c.grid.size() == static_cast<size_t>(count) && std::equal(c.grid.begin(), c.grid.end(), wl);
    };
    {
        std::lock_guard<std::mutex> guard(cache_lock_);
        const auto hit = std::find_if(cache_.begin(), cache_.end(), same_grid);
        if (hit != cache_.end()) {
            cache_.splice(cache_.begin(), cache_, hit);
            return cache_.front().tables;
        }
    }
    // Interpolated outside the lock: another thread's look-up need not wait
    // for it. Two threads meeting a new grid at once both interpolate it.
    auto own = std::make_shared<CieTables>();
    if (&integration_tables(tables_, wl, count, *own) == &tables_) own.reset();
    std::shared_ptr<const CieTables> result = own ? std::shared_ptr<const CieTables>(own) : base_;
    std::lock_guard<std::mutex> guard(cache_lock_);
    if (std::none_of(cache_.begin(), cache_.end(), same_grid)) {
        cache_.push_front(Cached{std::vector<double>(wl, wl + count), result});
        if (cache_.size() > kCachedGrids) cache_.pop_back();
    }
    return result;
}

int ColourContext::compute(const double* wl, const double* value, int count, orb_colorimetry& out) const {
    const int status = check_spectrum(wl, value, count);
    if (status != ORB_COLOUR_OK) return status;
    const std::shared_ptr<const CieTables> tables = tables_on(wl, count);
    const CieTables& on = *tables;
    std::vector<double> s;
    resample(wl, value, count, on.wavelength_nm, s);
    const Xyz c2 = tristimulus(s, on.cmf_2deg, on.weight_nm);
    const Xyz c10 = tristimulus(s, on.cmf_10deg, on.weight_nm);
    const double sum2 = c2.X + c2.Y + c2.Z, sum10 = c10.X + c10.Y + c10.Z;
    if (!(c2.Y > 0) || !(sum2 > 0) || !(sum10 > 0)) return ORB_COLOUR_ERR_DARK;

    out = orb_colorimetry{};
    out.X = c2.X;
    out.Y = c2.Y;
    out.Z = c2.Z;
    out.x = c2.X / sum2;
    out.y = c2.Y / sum2;
    const Uv uv = uv_1960(c2);
    out.u_prime = uv.u;
    out.v_prime = 1.5 * uv.v;
    out.X10 = c10.X;
    out.Y10 = c10.Y;
    out.Z10 = c10.Z;
    out.x10 = c10.X / sum10;
    out.y10 = c10.Y / sum10;

    const CctDuv t = locus_.cct(uv);
    out.cct_k = t.cct_k;
    out.duv = t.duv;
    if (t.in_range) {
        const ColourRendering cri = colour_rendering(on, s, c2, t.cct_k);
        out.ra = cri.ra;
        for (int i = 0; i < kSpecialIndices; i++) out.r[i] = cri.r[static_cast<size_t>(i)];
        out.delta_c = cri.delta_c;
        out.ra_meaningful = cri.delta_c <= ORB_COLOUR_DELTA_C_LIMIT;
    } else {
        out.ra = out.delta_c = NAN;
        for (double& r : out.r) r = NAN;
    }

    out.peak_nm = peak_wavelength(wl, value, count);
    out.centroid_nm = centroid_wavelength(wl, value, count);
    const Dominant d = spectrum_locus_.dominant(out.x, out.y, kWhiteX, kWhiteY);
    out.dominant_nm = d.wavelength_nm;
    out.purity = d.purity;
    return ORB_COLOUR_OK;
}

}  // namespace orbspectrum
