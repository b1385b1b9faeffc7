// One colour object keeps the tables of the grids it was last given: every
// grid must still get its own, however many grids and threads share it.

#include <algorithm>
#include <thread>

#include "colour_support.h"

namespace {

TEST_F(ColourTest, EveryGridGetsItsOwnTablesWhateverTheObjectComputedBefore) {
    // More grids than the object keeps: two alike but for one sample, and the tables' own 5 nm grid.
    std::vector<Spectrum> lamps = {planckian(2856, 340, 1100, 1), planckian(2856, 340, 1100, 1),
                                   planckian(2856, 340, 1100, 2), planckian(2856, 340, 1100, 0.5),
                                   planckian(2856, 360, 830, 5),  planckian(2856, 341.3, 1100, 3),
                                   planckian(2856, 379.5, 781, 0.7)};
    lamps[1].wavelength[300] += 0.4;
    std::vector<orb_colorimetry> alone;  // each from a fresh object, nothing cached
    for (const Spectrum& s : lamps) {
        orb_colour* fresh = nullptr;
        ASSERT_EQ(orb_colour_create(&fresh, nullptr, nullptr, 0), ORB_COLOUR_OK);
        alone.emplace_back();
        orb_colour_compute(fresh, s.wavelength.data(), s.value.data(), static_cast<int>(s.value.size()), &alone.back());
        orb_colour_destroy(fresh);
    }
    EXPECT_NE(alone[0].X, alone[1].X);  // the shifted sample shows

    // Four threads on the one object, each through the grids in its own order.
    const size_t n = lamps.size();
    std::vector<std::vector<orb_colorimetry>> seen(4);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < seen.size(); t++)
        threads.emplace_back([&, t] {
            for (size_t call = 0; call < 20 * n; call++) {
                const Spectrum& s = lamps[call * (t + 1) % n];
                seen[t].emplace_back();
                orb_colour_compute(colour_, s.wavelength.data(), s.value.data(), static_cast<int>(s.value.size()),
                                   &seen[t].back());
            }
        });
    for (auto& th : threads) th.join();
    for (size_t t = 0; t < seen.size(); t++)
        for (size_t call = 0; call < seen[t].size(); call++) {
            const orb_colorimetry &a = seen[t][call], &b = alone[call * (t + 1) % n];
            ASSERT_TRUE(a.X == b.X && a.Y == b.Y && a.Z == b.Z && a.X10 == b.X10 && a.cct_k == b.cct_k &&
                        a.ra == b.ra && std::equal(a.r, a.r + 14, b.r))
                << "thread " << t << ", call " << call;
        }
}

}  // namespace
