// Emulated sensors as units of their own: each identity gives its own
// filters (seeded, repeatable), within the variation sim/units.h documents,
// and the nominal unit is the filter model as designed.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <set>

#include "filter_model.h"
#include "scenes.h"
#include "units.h"

namespace {

using orbsim::kFilters;
using Frame = std::array<uint16_t, kFilters>;

// The first two sensors a testbed makes: C1234-7-20-33-1 and C1234-7-21-33-1.
constexpr std::array<uint8_t, 5> kFirst{0x10, 0x9A, 0x47, 0x28, 0x85};
constexpr std::array<uint8_t, 5> kSecond{0x10, 0x9A, 0x47, 0x2A, 0x85};

orbsim::Scene scene(std::vector<std::string> words) {
    orbsim::Scene s;
    std::string why;
    EXPECT_TRUE(orbsim::parse_scene(words, &s, &why)) << why;
    return s;
}

std::vector<Frame> draw(const orbsim::Scene& s, const orbsim::Unit& unit, uint64_t seed, int n) {
    orbsim::FrameGenerator g = orbsim::scene_frames(s, seed, unit);
    std::vector<Frame> frames(n);
    for (int k = 0; k < n; k++) g({static_cast<uint32_t>(k + 1), 300, 0.1 * k}, frames[k]);
    return frames;
}

// The response-weighted mean filter index around the brightest filter: where
// a line falls on the array, to a fraction of a filter.
double centroid(const std::array<double, kFilters>& m) {
    const auto peak = static_cast<std::size_t>(std::max_element(m.begin(), m.end()) - m.begin());
    double sum = 0, weighted = 0;
    for (std::size_t i = peak > 8 ? peak - 8 : 0; i < std::min(kFilters, peak + 9); i++) {
        const double s = m[i] - orbsim::kDarkLevel;
        sum += s;
        weighted += s * static_cast<double>(i);
    }
    return weighted / sum;
}

TEST(Units, AnIdentityIsAlwaysTheSameUnitAndTwoAreTwo) {
    const orbsim::Unit& first = orbsim::Unit::of(kFirst);
    EXPECT_EQ(&first, &orbsim::Unit::of(kFirst));
    EXPECT_EQ(first.name(), "109a472885");
    EXPECT_FALSE(first.is_nominal());
    const auto halogen = scene({"halogen"});
    EXPECT_EQ(draw(halogen, first, 5, 3), draw(halogen, first, 5, 3));  // same ID, seed and light: same frames
    EXPECT_NE(draw(halogen, first, 5, 3), draw(halogen, orbsim::Unit::of(kSecond), 5, 3));

    // Under one line the two units put the light on different filters: by
    // more than a tenth of a filter at every line, and at a different
    // brightest filter at most of them.
    const orbsim::Unit& second = orbsim::Unit::of(kSecond);
    int other_peak = 0;
    for (double nm : {420.0, 532.4, 650.0, 780.0, 905.0}) {
        SCOPED_TRACE(nm);
        const auto line = scene({"line", "--nm", std::to_string(nm), "0.2"});
        const auto a = orbsim::scene_mean(line, 300, 0, first), b = orbsim::scene_mean(line, 300, 0, second);
        EXPECT_GT(std::abs(centroid(a) - centroid(b)), 0.1);
        other_peak += std::max_element(a.begin(), a.end()) - a.begin() != std::max_element(b.begin(), b.end()) - b.begin();
    }
    EXPECT_GE(other_peak, 3);
}

TEST(Units, NominalIsTheFilterModelAsDesigned) {
    const orbsim::Unit& nominal = orbsim::Unit::nominal();
    EXPECT_TRUE(nominal.is_nominal());
    EXPECT_EQ(nominal.name(), "nominal");
    EXPECT_TRUE(nominal.defects().empty());
    EXPECT_EQ(&nominal.bank(), &orbsim::FilterBank::nominal());
    for (std::size_t i : {0, 300, 1023}) {
        EXPECT_EQ(nominal.shape(i).centre_nm, orbsim::filter_centre_nm(i));
        EXPECT_EQ(nominal.shape(i).width_nm, orbsim::filter_width_nm(i));
        EXPECT_EQ(nominal.dark_current(i), 0);
        for (std::size_t k : {0, 200, 760})
            EXPECT_FLOAT_EQ(nominal.bank().curve(i)[k],
                            orbsim::filter_transmission(orbsim::nominal_shape(i), orbsim::grid_nm(k)) *
                                orbsim::silicon_qe(orbsim::grid_nm(k)));
    }
    // A line on the nominal unit peaks at the filter centred on it.
    const auto m = orbsim::scene_mean(scene({"line", "--nm", "650", "0.2"}), 20);
    EXPECT_NEAR(orbsim::filter_centre_nm(std::max_element(m.begin(), m.end()) - m.begin()), 650, 0.4);
}

// The variation stays within what sim/units.h promises, for a handful of
// units: centres within 2 nm (smooth) plus jitter, widths and peaks within a
// few per cent, two or three defects of the three kinds.
TEST(Units, VariationIsPlausibleAndDefectsAreFew) {
    std::set<int> kinds;
    for (uint8_t x = 20; x < 30; x++) {
        const orbsim::Unit& u = orbsim::Unit::of({0x10, 0x9A, 0x47, static_cast<uint8_t>(x << 1), 0x85});
        SCOPED_TRACE(u.name());
        ASSERT_GE(u.defects().size(), 2u);
        ASSERT_LE(u.defects().size(), 3u);
        std::set<std::size_t> defective;
        for (const auto& d : u.defects()) {
            defective.insert(d.filter);
            kinds.insert(d.kind);
            if (d.kind == d.Dead) {
                EXPECT_EQ(*std::max_element(u.bank().curve(d.filter), u.bank().curve(d.filter) + orbsim::kGridPoints), 0.f);
            }
            if (d.kind == d.Hot) {
                EXPECT_EQ(u.dark_current(d.filter), d.amount);
            }
        }
        double largest_shift = 0, step = 0;
        for (std::size_t i = 0; i < kFilters; i++) {
            const orbsim::FilterShape f = u.shape(i), n = orbsim::nominal_shape(i);
            const double shift = f.centre_nm - n.centre_nm;
            ASSERT_LT(std::abs(shift), 2.5) << i;
            largest_shift = std::max(largest_shift, std::abs(shift));
            if (i > 0) step = std::max(step, std::abs(shift - (u.shape(i - 1).centre_nm - orbsim::nominal_shape(i - 1).centre_nm)));
            ASSERT_NEAR(f.width_nm / n.width_nm, 1, 0.1) << i;
            if (!defective.count(i)) {
                ASSERT_NEAR(f.peak / n.peak, 1, 0.15) << i;
            }
            if (!defective.count(i)) {
                ASSERT_EQ(u.dark_current(i), 0) << i;
            }
        }
        EXPECT_GT(largest_shift, 0.2);  // it does vary...
        EXPECT_LT(step, 1.0);           // ...smoothly, with jitter of a tenth of a nm
    }
    EXPECT_EQ(kinds.size(), 3u);  // weak, dead and hot all occur
}

// A hot filter reads high in the dark too, in proportion to the exposure;
// a dead one reads the dark level under any light; a weak one reads at most
// half of what the nominal filter reads under a line at its centre.
TEST(Units, DefectsShowInTheFrames) {
    for (uint8_t x = 20; x < 40; x++) {
        const orbsim::Unit& u = orbsim::Unit::of({0x10, 0x9A, 0x47, static_cast<uint8_t>(x << 1), 0x85});
        for (const auto& d : u.defects()) {
            SCOPED_TRACE(d.filter);
            const auto dark = orbsim::scene_mean(scene({"dark"}), 300, 0, u);
            if (d.kind == d.Hot) {
                EXPECT_NEAR(dark[d.filter] - orbsim::kDarkLevel, d.amount * orbsim::exposure_ms(300), 1e-6);
            } else {
                EXPECT_EQ(dark[d.filter], orbsim::kDarkLevel);
            }
            if (d.kind == d.Dead) {
                EXPECT_EQ(orbsim::scene_mean(scene({"halogen"}), 300, 0, u)[d.filter], orbsim::kDarkLevel);
            }
            if (d.kind == d.Weak) {
                const auto at = [&](const orbsim::Unit& unit) {
                    const std::string nm = std::to_string(unit.shape(d.filter).centre_nm);
                    return orbsim::scene_mean(scene({"line", "--nm", nm, "0.1"}), 20, 0, unit)[d.filter] - orbsim::kDarkLevel;
                };
                EXPECT_LT(at(u), 0.6 * at(orbsim::Unit::nominal()));
                EXPECT_GT(at(u), 0.05 * at(orbsim::Unit::nominal()));
            }
        }
    }
}

TEST(Units, IdentityHexRoundTrips) {
    std::array<uint8_t, 5> bytes{};
    ASSERT_TRUE(orbsim::parse_identity_hex("109A472885", &bytes));
    EXPECT_EQ(bytes, kFirst);
    EXPECT_EQ(orbsim::identity_hex(bytes), "109a472885");
    for (const char* bad : {"", "109a4728", "109a4728851", "109a47288g"}) EXPECT_FALSE(orbsim::parse_identity_hex(bad, &bytes)) << bad;
}

}  // namespace
