#include "units.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <map>
#include <mutex>

#include "noise.h"

namespace orbsim {

namespace {

// The magnitudes of a unit's variation (see units.h).
constexpr double kMaxShiftNm = 2;
constexpr double kShiftSigmaNm[] = {0.8, 0.6, 0.4, 0.3};  // per Legendre term, degree 0 to 3
constexpr double kCentreJitterNm = 0.1;
constexpr double kWidthSigma[] = {0.02, 0.015, 0.01};
constexpr double kWidthJitter = 0.01;
constexpr double kPeakSigma[] = {0.03, 0.02, 0.015};
constexpr double kPeakJitter = 0.015;

double legendre(int degree, double x) {
    switch (degree) {
    case 0: return 1;
    case 1: return x;
    case 2: return (3 * x * x - 1) / 2;
    default: return (5 * x * x * x - 3 * x) / 2;
    }
}

// A smooth curve over the array: a sum of Legendre polynomials in the filter
// index mapped to -1..1, with coefficients drawn from `sigma`.
template <std::size_t N>
std::array<double, kFilters> smooth(Noise& noise, const double (&sigma)[N]) {
    std::array<double, N> a;
    for (std::size_t m = 0; m < N; m++) a[m] = sigma[m] * noise.normal();
    std::array<double, kFilters> out;
    for (std::size_t i = 0; i < kFilters; i++) {
        const double x = 2.0 * static_cast<double>(i) / (kFilters - 1) - 1;
        out[i] = 0;
        for (std::size_t m = 0; m < N; m++) out[i] += a[m] * legendre(static_cast<int>(m), x);
    }
    return out;
}

// FNV-1a: the unit's seed is its identity, and nothing else.
uint64_t seed_of(const std::array<uint8_t, 5>& identity) {
    uint64_t h = 0xcbf29ce484222325ull;
    for (uint8_t b : identity) h = (h ^ b) * 0x100000001b3ull;
    return h;
}

}  // namespace

std::string identity_hex(const std::array<uint8_t, 5>& identity) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (uint8_t b : identity) {
        s += digits[b >> 4];
        s += digits[b & 0xF];
    }
    return s;
}

bool parse_identity_hex(const std::string& text, std::array<uint8_t, 5>* out) {
    if (text.size() != 10) return false;
    std::array<uint8_t, 5> bytes{};
    for (std::size_t k = 0; k < 10; k++) {
        const char c = static_cast<char>(std::tolower(static_cast<unsigned char>(text[k])));
        const int v = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
        if (v < 0) return false;
        bytes[k / 2] = static_cast<uint8_t>(bytes[k / 2] << 4 | v);
    }
    *out = bytes;
    return true;
}

const Unit& Unit::nominal() {
    static const Unit unit;
    return unit;
}

const Unit& Unit::of(const std::array<uint8_t, 5>& identity) {
    static std::mutex mu;
    static std::map<std::array<uint8_t, 5>, std::unique_ptr<const Unit>> units;
    std::lock_guard<std::mutex> lock(mu);
    auto& unit = units[identity];
    if (!unit) unit.reset(new Unit(identity));
    return *unit;
}

Unit::Unit() : nominal_(true), name_("nominal"), shapes_(kFilters), bank_(&FilterBank::nominal()) {
    for (std::size_t i = 0; i < kFilters; i++) shapes_[i] = nominal_shape(i);
}

Unit::Unit(const std::array<uint8_t, 5>& identity)
    : nominal_(false), name_(identity_hex(identity)), shapes_(kFilters) {
    Noise noise(seed_of(identity));
    auto shift = smooth(noise, kShiftSigmaNm);
    const double largest = std::max(std::abs(*std::max_element(shift.begin(), shift.end())),
                                    std::abs(*std::min_element(shift.begin(), shift.end())));
    if (largest > kMaxShiftNm)
        for (double& s : shift) s *= kMaxShiftNm / largest;
    const auto width = smooth(noise, kWidthSigma);
    const auto peak = smooth(noise, kPeakSigma);
    for (std::size_t i = 0; i < kFilters; i++) {
        FilterShape f = nominal_shape(i);
        f.centre_nm += shift[i] + kCentreJitterNm * noise.normal();
        f.width_nm *= 1 + width[i] + kWidthJitter * noise.normal();
        f.peak = std::min(1.0, f.peak * (1 + peak[i] + kPeakJitter * noise.normal()));
        shapes_[i] = f;
    }

    const int count = 2 + (noise.uniform() < 0.5 ? 1 : 0);
    while (static_cast<int>(defects_.size()) < count) {
        const auto filter = static_cast<std::size_t>(noise.uniform() * kFilters);
        if (std::any_of(defects_.begin(), defects_.end(), [&](const Defect& d) { return d.filter == filter; }))
            continue;
        const auto kind = static_cast<Defect::Kind>(static_cast<int>(noise.uniform() * 3));
        Defect d{kind, filter, 0};
        FilterShape& f = shapes_[filter];
        if (kind == Defect::Weak) {
            d.amount = 0.1 + 0.4 * noise.uniform();
            f.peak *= d.amount;
        } else if (kind == Defect::Dead) {
            f.peak = 0;
            f.leak = 0;
        } else {
            d.amount = 2 + 6 * noise.uniform();
            dark_current_[filter] = d.amount;
        }
        defects_.push_back(d);
    }
    own_bank_ = std::make_unique<FilterBank>(shapes_);
    bank_ = own_bank_.get();
}

}  // namespace orbsim
