// One colour object keeps the tables of the grids it was last given: every
// grid must still get its own, however many grids and threads share it.

#include <thread>

#include "colour_support.h"

namespace {

// Planck at 2856 K plus a narrow line, so that the colour rendering and the
// chromaticity both depend on where the samples fall.
Spectrum lamp_on(const std::vector<double>& grid) {
    Spectrum s = planckian(2856, 340, 1100, 1);
    Spectrum out;
    for (double nm : grid) {
        out.wavelength.push_back(nm);
        const double l = nm * 1e-9;
        out.value.push_back(1e-30 / (l * l * l * l * l) / std::expm1(1.4388e-2 / (l * 2856)) +
                            0.2 * s.value[420] * std::exp(-0.5 * std::pow((nm - 546.1) / 1.5, 2)));
    }
    return out;
}

std::vector<double> uniform(double from, double to, double step) {
    std::vector<double> g;
    for (double nm = from; nm <= to + 1e-9; nm += step) g.push_back(nm);
    return g;
}

void expect_same(const orb_colorimetry& a, const orb_colorimetry& b) {
    EXPECT_EQ(a.X, b.X);
    EXPECT_EQ(a.Y, b.Y);
    EXPECT_EQ(a.Z, b.Z);
    EXPECT_EQ(a.X10, b.X10);
    EXPECT_EQ(a.cct_k, b.cct_k);
    EXPECT_EQ(a.duv, b.duv);
    EXPECT_EQ(a.ra, b.ra);
    for (int i = 0; i < 14; i++) EXPECT_EQ(a.r[i], b.r[i]);
}

TEST_F(ColourTest, EveryGridGetsItsOwnTablesWhateverTheObjectComputedBefore) {
    // More grids than the object keeps, two of them alike but for one sample,
    // and the tables' own 5 nm grid.
    std::vector<std::vector<double>> grids = {uniform(340, 1100, 1), uniform(340, 1100, 1), uniform(340, 1100, 2),
                                              uniform(340, 1100, 0.5), uniform(360, 830, 5), uniform(341.3, 1099, 3),
                                              uniform(379.5, 781, 0.7)};
    grids[1][300] += 0.4;
    std::vector<Spectrum> lamps;
    std::vector<orb_colorimetry> alone;
    for (const auto& g : grids) {
        lamps.push_back(lamp_on(g));
        // A fresh object: nothing cached yet.
        orb_colour* fresh = nullptr;
        ASSERT_EQ(orb_colour_create(&fresh, nullptr, nullptr, 0), ORB_COLOUR_OK);
        orb_colorimetry c{};
        ASSERT_EQ(orb_colour_compute(fresh, g.data(), lamps.back().value.data(), static_cast<int>(g.size()), &c),
                  ORB_COLOUR_OK);
        orb_colour_destroy(fresh);
        alone.push_back(c);
    }
    EXPECT_NE(alone[0].X, alone[1].X);  // the shifted sample shows

    // Four threads on the one object, each through the grids in its own order.
    std::vector<std::vector<orb_colorimetry>> seen(4);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < seen.size(); t++)
        threads.emplace_back([&, t] {
            for (int round = 0; round < 20; round++)
                for (size_t k = 0; k < grids.size(); k++) {
                    const size_t i = (k * (t + 1) + static_cast<size_t>(round)) % grids.size();
                    orb_colorimetry c{};
                    orb_colour_compute(colour_, grids[i].data(), lamps[i].value.data(),
                                       static_cast<int>(grids[i].size()), &c);
                    seen[t].push_back(c);
                }
        });
    for (auto& th : threads) th.join();
    for (size_t t = 0; t < seen.size(); t++)
        for (size_t n = 0; n < seen[t].size(); n++) {
            const size_t k = n % grids.size(), round = n / grids.size();
            SCOPED_TRACE(testing::Message() << "thread " << t << " call " << n);
            expect_same(seen[t][n], alone[(k * (t + 1) + round) % grids.size()]);
        }
}

}  // namespace
