// The scene model: light sources through the filter model, exposure, noise,
// flicker and drift, and the words of the `scene` command. No USB.

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <tuple>
#include <vector>

#include "filter_model.h"
#include "scenes.h"

namespace {

using orbsim::kDarkLevel;
using orbsim::kFilters;
using Frame = std::array<uint16_t, kFilters>;
using Means = std::array<double, kFilters>;

orbsim::Scene scene(std::vector<std::string> words) {
    orbsim::Scene s;
    std::string why;
    EXPECT_TRUE(orbsim::parse_scene(words, &s, &why)) << why;
    return s;
}

std::size_t filter_at(double nm) {
    std::size_t best = 0;
    for (std::size_t i = 1; i < kFilters; i++)
        if (std::abs(orbsim::filter_centre_nm(i) - nm) < std::abs(orbsim::filter_centre_nm(best) - nm)) best = i;
    return best;
}

// Signal above dark at a wavelength.
double signal(const Means& m, double nm) { return m[filter_at(nm)] - kDarkLevel; }

std::size_t brightest(const Means& m) { return std::max_element(m.begin(), m.end()) - m.begin(); }

// n frames whose exposures end `step` seconds apart.
std::vector<Frame> draw(const orbsim::Scene& s, uint64_t seed, uint16_t shutter, int n, double step = 0.1,
                        const orbsim::Unit& unit = orbsim::Unit::nominal()) {
    orbsim::FrameGenerator g = orbsim::scene_frames(s, seed, unit);
    std::vector<Frame> frames(n);
    for (int k = 0; k < n; k++) g({static_cast<uint32_t>(k + 1), shutter, step * k}, frames[k]);
    return frames;
}

TEST(Scenes, LaserLightsOnlyTheFiltersAtItsLine) {
    for (double nm : {405.0, 532.0, 650.0, 808.0, 980.0}) {
        SCOPED_TRACE(nm);
        const Means m = orbsim::scene_mean(scene({"laser", "--nm", std::to_string(nm)}), 300);
        const std::size_t peak = brightest(m);
        EXPECT_NEAR(orbsim::filter_centre_nm(peak), nm, 1.0);
        // Side lobes and leakage only, away from the line.
        for (std::size_t i = 0; i < kFilters; i++) {
            if (std::abs(orbsim::filter_centre_nm(i) - nm) > 30) {
                ASSERT_LT(m[i] - kDarkLevel, 0.1 * (m[peak] - kDarkLevel)) << i;
            }
        }
    }
    // Silicon stops absorbing toward 1100 nm: the same laser power reads far less.
    const Means red = orbsim::scene_mean(scene({"laser"}), 300);
    const Means ir = orbsim::scene_mean(scene({"laser", "--nm", "1064"}), 300);
    EXPECT_LT(*std::max_element(ir.begin(), ir.end()) - kDarkLevel, 0.2 * (red[brightest(red)] - kDarkLevel));
}

TEST(Scenes, SpectraLookLikeTheirSources) {
    const Means halogen = orbsim::scene_mean(scene({"halogen"}), 600);
    EXPECT_LT(signal(halogen, 400), signal(halogen, 500));
    EXPECT_LT(signal(halogen, 500), signal(halogen, 600));
    EXPECT_LT(signal(halogen, 600), signal(halogen, 700));
    EXPECT_GT(orbsim::filter_centre_nm(brightest(halogen)), 700);
    EXPECT_LT(orbsim::filter_centre_nm(brightest(halogen)), 950);  // where silicon gives out

    // The LED: the blue die, a valley, the phosphor's hump, no infrared.
    const Means led = orbsim::scene_mean(scene({"white-led"}), 600);
    EXPECT_NEAR(orbsim::filter_centre_nm(brightest(led)), 450, 5);
    EXPECT_LT(signal(led, 485), 0.4 * signal(led, 450));
    EXPECT_GT(signal(led, 570), 2 * signal(led, 485));
    EXPECT_LT(signal(led, 900), 0.05 * signal(led, 450));

    // The tube: lines as narrow as the filters, standing well above their surroundings.
    const Means tube = orbsim::scene_mean(scene({"fluorescent"}), 600);
    for (double line : {435.8, 545.0, 611.6}) {
        SCOPED_TRACE(line);
        EXPECT_GT(signal(tube, line), 3 * signal(tube, line - 20));
        EXPECT_GT(signal(tube, line), 3 * signal(tube, line + 20));
    }

    // The sun through the air: the water band at 940 nm cuts deep.
    const Means sun = orbsim::scene_mean(scene({"sun"}), 600);
    EXPECT_LT(signal(sun, 940), 0.5 * signal(sun, 870));
    EXPECT_LT(signal(sun, 940), 0.8 * signal(sun, 990));
}

TEST(Scenes, OutputFollowsExposureUntilFullScale) {
    const auto s = scene({"halogen"});
    const Means base = orbsim::scene_mean(s, 100);
    for (uint16_t shutter : {1, 50, 200, 400, 700}) {
        const Means m = orbsim::scene_mean(s, shutter);
        const double ratio = orbsim::exposure_ms(shutter) / orbsim::exposure_ms(100);
        for (std::size_t i = 0; i < kFilters; i++)
            ASSERT_NEAR(m[i] - kDarkLevel, ratio * (base[i] - kDarkLevel), 1e-9 * base[i]) << shutter << " " << i;
    }
    // Halogen at brightness 1 fills its brightest filter between 800 and 1000.
    EXPECT_LT(orbsim::scene_mean(s, 800)[brightest(base)], 4095);
    EXPECT_EQ(orbsim::scene_mean(s, 1000)[brightest(base)], 4095);
    const Frame f = draw(s, 1, 3000, 1)[0];
    EXPECT_EQ(f[brightest(base)], 4095);
    // Brightness scales the light, not the dark level.
    const Means half = orbsim::scene_mean(scene({"halogen", "0.5"}), 100);
    EXPECT_NEAR(half[500] - kDarkLevel, 0.5 * (base[500] - kDarkLevel), 1e-9 * base[500]);
}

TEST(Scenes, DarkAndBrightnessZeroGiveTheDarkLevelAndReadNoise) {
    const auto dark = draw(scene({"dark"}), 5, 500, 50);
    EXPECT_EQ(dark, draw(scene({"halogen", "0"}), 5, 500, 50));
    for (double v : orbsim::scene_mean(scene({"sun", "0"}), 500)) ASSERT_EQ(v, kDarkLevel);
    double sum = 0, squares = 0;
    for (const Frame& f : dark) {
        for (uint16_t v : f) {
            sum += v;
            squares += double(v) * v;
        }
    }
    const double n = 50.0 * kFilters, mean = sum / n;
    EXPECT_NEAR(mean, kDarkLevel, 0.05);
    EXPECT_NEAR(std::sqrt(squares / n - mean * mean), orbsim::kReadNoiseDn, 0.1);
}

TEST(Scenes, FramesRepeatForASeedOnly) {
    const auto s = scene({"halogen", "--flicker", "100"});
    const auto a = draw(s, 42, 600, 3);
    EXPECT_EQ(a, draw(s, 42, 600, 3));
    const auto b = draw(s, 43, 600, 3);
    int differ = 0, fresh = 0;
    for (std::size_t i = 0; i < kFilters; i++) {
        differ += a[0][i] != b[0][i];
        fresh += a[0][i] != a[1][i];  // the noise is drawn anew for every frame
    }
    EXPECT_GT(differ, 800);
    EXPECT_GT(fresh, 800);
}

// Per filter over many frames: the mean is the model's, the variance is the
// shot noise of the electrons plus the read noise, in dim light and bright.
TEST(Scenes, NoiseIsShotPlusReadNoise) {
    constexpr int kFrames = 400;
    for (const auto& words : {std::vector<std::string>{"halogen"}, std::vector<std::string>{"laser", "0.02"}}) {
        SCOPED_TRACE(words[0]);
        const auto s = scene(words);
        const Means expected = orbsim::scene_mean(s, 700);
        const auto frames = draw(s, 9, 700, kFrames);
        // Filters grouped by signal, so that each group's average variance is precise.
        std::vector<double> mean_sum(9), var_sum(9), model_sum(9), count(9);
        for (std::size_t i = 0; i < kFilters; i++) {
            const double sig = expected[i] - kDarkLevel;
            if (sig >= 3900) continue;  // clipped
            double m = 0, q = 0;
            for (const Frame& f : frames) {
                m += f[i];
                q += double(f[i]) * f[i];
            }
            m /= kFrames;
            const double var = (q - kFrames * m * m) / (kFrames - 1);
            const int bin = std::min(8, static_cast<int>(std::log10(1 + sig) * 2.5));
            mean_sum[bin] += m - expected[i];
            var_sum[bin] += var;
            model_sum[bin] += sig / orbsim::kConversionGain + orbsim::kReadNoiseDn * orbsim::kReadNoiseDn + 1.0 / 12;
            count[bin]++;
        }
        int checked = 0;
        for (int b = 0; b < 9; b++) {
            if (count[b] < 20) continue;
            checked++;
            SCOPED_TRACE(b);
            const double model = model_sum[b] / count[b];
            EXPECT_NEAR(var_sum[b] / count[b], model, 0.08 * model);
            EXPECT_NEAR(mean_sum[b] / count[b], 0, 3 * std::sqrt(model / kFrames / count[b]) + 0.05);
        }
        EXPECT_GE(checked, 2);
    }
}

TEST(Scenes, FlickerShowsInShortExposuresAndAveragesOutOverAPeriod) {
    const auto flicker = scene({"halogen", "--flicker", "100", "--depth", "0.5"});
    const double steady = signal(orbsim::scene_mean(scene({"halogen"}), 20), 800);
    auto spread = [&](uint16_t shutter) {
        double lo = 1e9, hi = 0, sum = 0;
        for (int k = 0; k < 20; k++) {
            const double v = signal(orbsim::scene_mean(flicker, shutter, 1 + k * 0.0005), 800);
            lo = std::min(lo, v), hi = std::max(hi, v), sum += v;
        }
        return std::array<double, 2>{(hi - lo) / (sum / 20), sum / 20};
    };
    // 1.8 ms catches bright and dark moments of a 10 ms period; over a whole
    // period (shutter 109: 9.96 ms) the light averages to the steady one.
    const auto short_exposure = spread(20);
    EXPECT_GT(short_exposure[0], 0.6);
    EXPECT_NEAR(short_exposure[1], steady, 0.01 * steady);
    EXPECT_LT(spread(109)[0], 0.01);
    // Frames flicker too.
    const auto frames = draw(flicker, 3, 20, 20, 0.0013);  // each at a new phase
    std::vector<double> peak;
    for (const Frame& f : frames) peak.push_back(f[filter_at(800)]);
    EXPECT_GT(*std::max_element(peak.begin(), peak.end()) - *std::min_element(peak.begin(), peak.end()), 0.3 * steady);
}

TEST(Scenes, DriftDimsTheLightAndBringsItBack) {
    const Means start = orbsim::scene_mean(scene({"halogen"}), 300);
    const auto drifting = scene({"halogen", "--drift", "60"});
    const double half = orbsim::exposure_ms(300) / 2000;  // exposures centred on 0, 30 s, 60 s
    const Means at_start = orbsim::scene_mean(drifting, 300, half);
    const Means middle = orbsim::scene_mean(drifting, 300, 30 + half);
    const Means back = orbsim::scene_mean(drifting, 300, 60 + half);
    for (std::size_t i : {200, 500, 900}) {
        EXPECT_NEAR(at_start[i], start[i], 1e-6);
        EXPECT_NEAR(back[i], start[i], 1e-6);
    }
    // A cooler filament: dimmer, and dimmer still in the blue.
    const double blue = signal(middle, 450) / signal(start, 450), red = signal(middle, 850) / signal(start, 850);
    EXPECT_LT(red, 0.9);
    EXPECT_LT(blue, red);
    // Other lights dim evenly.
    const Means tube = orbsim::scene_mean(scene({"fluorescent"}), 300);
    const Means dimmed = orbsim::scene_mean(scene({"fluorescent", "--drift", "60"}), 300, 30 + half);
    EXPECT_NEAR(signal(dimmed, 546), orbsim::kDriftDim * signal(tube, 546), 1e-6 * signal(tube, 546));
}

TEST(Scenes, SensorModelStampsFramesWithItsClock) {
    orbsim::SensorModel model;
    std::vector<orbsim::FrameInfo> seen;
    model.set_frame_generator([&](const orbsim::FrameInfo& f, Frame& v) {
        seen.push_back(f);
        v.fill(0);
    });
    model.handle_control({0x21, orbsim::kStartStreaming, 0, 0, 0});
    const auto now = orbsim::SensorModel::Clock::now();
    model.bulk_in(now, orbsim::kFrameBytes);
    model.handle_control({0x21, orbsim::kStopStreaming, 0, 0, 0});
    model.handle_control({0x21, orbsim::kStartStreaming, 0, 0, 0});
    model.bulk_in(now + std::chrono::milliseconds(2500), orbsim::kFrameBytes);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[1].number, 1u);  // a new stream...
    EXPECT_NEAR(seen[1].seconds - seen[0].seconds, 2.5, 1e-6);  // ...on the same clock
    EXPECT_GE(seen[0].seconds, 0);
}

TEST(Scenes, ParseReadsNameBrightnessAndOptions) {
    const auto parsed = scene({"laser", "0.25", "--flicker", "120", "--nm", "532.5", "--depth", "1", "--drift", "30"});
    ASSERT_EQ(parsed.lights.size(), 1u);
    const orbsim::SceneSettings& s = parsed.lights[0];
    EXPECT_EQ(s.name, "laser");
    EXPECT_EQ(s.brightness, 0.25);
    EXPECT_EQ(s.nm, 532.5);
    EXPECT_EQ(s.flicker_hz, 120);
    EXPECT_EQ(s.flicker_depth, 1);
    EXPECT_EQ(s.drift_s, 30);
    const auto plain = scene({"sun"}).lights.at(0);
    EXPECT_EQ(plain.brightness, 1);
    EXPECT_EQ(plain.flicker_hz, 0);
    EXPECT_EQ(plain.drift_s, 0);
    for (const std::string& name : orbsim::scene_names()) scene({name});
}

TEST(Scenes, ParseRefusesBadWordsAndNamesThem) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> bad = {
        {{"candle"}, "candle"},
        {{"halogen", "bright"}, "bright"},
        {{"halogen", "-1"}, "-1"},
        {{"halogen", "1e9"}, "1e9"},
        {{"halogen", "nan"}, "nan"},
        {{"halogen", "0.5", "0.7"}, "0.7"},
        {{"halogen", "--glow", "1"}, "--glow"},
        {{"halogen", "--flicker"}, "--flicker"},
        {{"halogen", "--flicker", "fast"}, "fast"},
        {{"halogen", "--flicker", "-50"}, "-50"},
        {{"halogen", "--depth", "1.5"}, "1.5"},
        {{"halogen", "--drift", "0.2"}, "0.2"},
        {{"halogen", "--nm", "532"}, "--nm"},
        {{"laser", "--nm", "1200"}, "1200"},
        {{"laser", "--nm", "532nm"}, "532nm"},
        {{"line", "0.5"}, "line"},
        {{"line", "--nm", "339.9"}, "339.9"},
        {{"line", "--nm", "500", "--fwhm", "0.05"}, "0.05"},
        {{"laser", "--fwhm", "2"}, "--fwhm"},
        {{"file"}, "file"},
        {{"halogen", "+"}, "+"},
        {{"+", "halogen"}, "+"},
        {{"halogen", "+", "candle"}, "candle"},
    };
    for (const auto& [words, named] : bad) {
        SCOPED_TRACE(named);
        orbsim::Scene s = scene({"sun"});
        std::string why;
        EXPECT_FALSE(orbsim::parse_scene(words, &s, &why));
        EXPECT_NE(why.find("'" + named + "'"), std::string::npos) << why;
        EXPECT_EQ(why.find('\n'), std::string::npos);
        ASSERT_EQ(s.lights.size(), 1u);
        EXPECT_EQ(s.lights[0].name, "sun");  // untouched
    }
    std::string why;
    orbsim::Scene s;
    EXPECT_FALSE(orbsim::parse_scene({}, &s, &why));
    EXPECT_FALSE(why.empty());
}

// A monochromator's line carries the same photons wherever it is centred:
// the light summed over the filters, over what the filters and the silicon
// under them make of one photon at its centre, is flat across the whole
// range, ends included, for a centre on the grid or between points. A wider
// band averages the response over its width, which bends where the response
// does (toward the ends), so it is held to that only well inside the range.
// (Dividing by the silicon alone would not be flat: the pass bands widen
// toward the red, so more of the array sees a line there.)
TEST(Scenes, LineFluxIsTheSameAtEveryWavelength) {
    const orbsim::FilterBank& bank = orbsim::FilterBank::nominal();
    for (const auto& [fwhm, margin, tolerance] : {std::tuple<double, double, double>{0.1, 0, 0.01}, {1, 3, 0.03}, {3, 9, 0.03}}) {
        double lo = 1e300, hi = 0;
        for (double nm = 340 + margin; nm <= 1100 - margin + 1e-9; nm += (760 - 2 * margin) / 97) {
            const Means m = orbsim::scene_mean(scene({"line", "--nm", std::to_string(nm), "--fwhm", std::to_string(fwhm)}), 1);
            double out = 0, response = 0;
            for (std::size_t i = 0; i < kFilters; i++) {
                out += m[i] - kDarkLevel;
                response += bank.at(i, nm);
            }
            lo = std::min(lo, out / response), hi = std::max(hi, out / response);
        }
        SCOPED_TRACE(fwhm);
        EXPECT_LT(hi / lo - 1, tolerance);
    }
}

// A line between two filters lights both, in proportion to how close it is;
// a wider line lights more filters less; brightness scales it.
TEST(Scenes, LineFallsBetweenFiltersAndWidensAsSet) {
    const std::size_t i = 300;
    const double a = orbsim::filter_centre_nm(i), b = orbsim::filter_centre_nm(i + 1);
    double before = 1e9;
    for (double f : {0.0, 0.25, 0.5, 0.75, 1.0}) {
        const Means m = orbsim::scene_mean(scene({"line", "--nm", std::to_string(a + f * (b - a)), "0.1"}), 20);
        const double ratio = (m[i] - kDarkLevel) / (m[i + 1] - kDarkLevel);
        EXPECT_LT(ratio, before) << f;  // the light moves from filter i to i + 1
        before = ratio;
    }
    const Means narrow = orbsim::scene_mean(scene({"line", "--nm", "600", "--fwhm", "0.1", "0.1"}), 20);
    const Means wide = orbsim::scene_mean(scene({"line", "--nm", "600", "--fwhm", "30", "0.1"}), 20);
    EXPECT_LT(wide[filter_at(600)] - kDarkLevel, 0.7 * (narrow[filter_at(600)] - kDarkLevel));
    EXPECT_GT(wide[filter_at(625)] - kDarkLevel, 3 * (narrow[filter_at(625)] - kDarkLevel));
    const Means dimmer = orbsim::scene_mean(scene({"line", "--nm", "600", "--fwhm", "0.1", "0.05"}), 20);
    EXPECT_NEAR(dimmer[filter_at(600)] - kDarkLevel, 0.5 * (narrow[filter_at(600)] - kDarkLevel), 1e-6);
}

// At brightness 1 a line exposes fast (sim/README.md, "The monochromator"):
// the brightest filter saturates after about kLineSaturationMs where the
// sensor responds best, and no sooner anywhere. With no brightness word it is
// a dim monochromator: below saturation at shutter speed 1500 everywhere.
TEST(Scenes, LineBrightnessKeepsSweepExposuresShortAndTheDefaultLineDim) {
    double fastest = 1e9, fastest_default = 1e9;
    for (double nm = 340; nm <= 1100; nm += 5) {
        for (const bool given : {true, false}) {
            std::vector<std::string> words = {"line", "--nm", std::to_string(nm)};
            if (given) words.push_back("1");
            const Means m = orbsim::scene_mean(scene(words), 1);
            const double rate = (*std::max_element(m.begin(), m.end()) - kDarkLevel) / orbsim::exposure_ms(1);
            double& f = given ? fastest : fastest_default;
            f = std::min(f, (orbsim::kMaxSample - kDarkLevel) / rate);
        }
    }
    EXPECT_NEAR(fastest, orbsim::kLineSaturationMs, 0.05 * orbsim::kLineSaturationMs);
    EXPECT_GT(fastest_default, orbsim::exposure_ms(1500));
    EXPECT_LT(fastest_default, orbsim::exposure_ms(3000));
}

struct SpectrumFile : testing::Test {
    std::string path = testing::TempDir() + "orb_spectrum_" + std::to_string(::getpid()) + ".csv";
    void write(const std::string& text) {
        std::ofstream(path) << text;
    }
    ~SpectrumFile() override { std::remove(path.c_str()); }
};

// A spectrum from a file is a light like any other: linear between its
// points, nothing outside them, scaled to saturate at shutter speed 900.
TEST_F(SpectrumFile, ReadsAnyAscendingGridAndScalesLikeTheOtherScenes) {
    write("# a lamp\nwavelength_nm,value\n\n500,0\n500.5,2 # the peak\n501.25,0\r\n");
    const orbsim::Scene s = scene({"file", path, "0.5"});
    ASSERT_EQ(s.lights.size(), 1u);
    EXPECT_EQ(s.lights[0].samples, (std::vector<std::pair<double, double>>{{500, 0}, {500.5, 2}, {501.25, 0}}));
    EXPECT_EQ(s.lights[0].brightness, 0.5);
    const Means full = orbsim::scene_mean(scene({"file", path}), orbsim::kSaturatingShutter);
    EXPECT_NEAR(*std::max_element(full.begin(), full.end()), orbsim::kMaxSample, 1e-6);
    EXPECT_NEAR(orbsim::filter_centre_nm(brightest(full)), 500.6, 1.0);
    // Nothing outside its points: a spectrum that covers only the red leaves the blue dark.
    write("700,1\n1100,1\n");
    const Means red = orbsim::scene_mean(scene({"file", path}), 600);
    EXPECT_LT(signal(red, 450), 0.01 * signal(red, 800));
    // The points of a named light, written out, are that light.
    std::string text;
    const orbsim::Spectrum halogen = orbsim::scene_spectrum(scene({"halogen"}));
    for (std::size_t k = 0; k < orbsim::kGridPoints; k++) {
        char row[64];
        std::snprintf(row, sizeof row, "%g,%.9g\n", orbsim::grid_nm(k), halogen.continuum[k]);
        text += row;
    }
    write(text);
    const Means from_file = orbsim::scene_mean(scene({"file", path}), 600), named = orbsim::scene_mean(scene({"halogen"}), 600);
    for (std::size_t i = 25; i < kFilters; i += 50) EXPECT_NEAR(from_file[i], named[i], 0.01 * named[i]) << i;
}

TEST_F(SpectrumFile, RefusesABadFileNamingTheLineAndWhy) {
    const std::vector<std::pair<std::string, std::string>> bad = {
        {"500,1\n501,one\n", " line 2: value 'one' is not a number"},
        {"nm,value\n5OO,1\n", " line 2: wavelength '5OO' is not a number"},
        {"500,1\n600,2\n550,3\n", " line 3: wavelength 550 nm is not above the one before (600 nm)"},
        {"500,1\n500,2\n", " line 2: wavelength 500 nm is not above"},
        {"500,1\n600,-0.5\n", " line 2: value -0.5 is negative"},
        {"330,1\n600,1\n", " line 1: wavelength 330 nm is outside 340 to 1100 nm"},
        {"500,1\n1100.5,1\n", " line 2: wavelength 1100.5 nm is outside"},
        {"500,1,2\n", " line 1: want 'wavelength_nm,value'"},
        {"500 1\n", " line 1: want 'wavelength_nm,value'"},
        {"# nothing\n\n", ": no rows of data"},
        {"nm,value\n500,1\n", ": one row of data is no spectrum"},
    };
    for (const auto& [text, why] : bad) {
        SCOPED_TRACE(text);
        write(text);
        orbsim::Scene s = scene({"sun"});
        std::string reason;
        EXPECT_FALSE(orbsim::parse_scene({"file", path}, &s, &reason));
        EXPECT_EQ(reason.rfind(path + why, 0), 0u) << reason;
        EXPECT_EQ(reason.find('\n'), std::string::npos);
        EXPECT_EQ(s.lights.at(0).name, "sun");  // the scene in place stays
    }
    std::string reason;
    orbsim::Scene s;
    EXPECT_FALSE(orbsim::parse_scene({"file", path + ".missing"}, &s, &reason));
    EXPECT_EQ(reason, path + ".missing: cannot read it (No such file or directory)");
    EXPECT_FALSE(orbsim::parse_scene({"file", testing::TempDir()}, &s, &reason));
    EXPECT_EQ(reason.rfind(testing::TempDir() + ": cannot read it", 0), 0u) << reason;
}

// Two lights at once add up, each with its own brightness and options.
TEST(Scenes, TwoLightsAddUp) {
    const Means lamp = orbsim::scene_mean(scene({"halogen", "0.5"}), 300);
    const Means laser = orbsim::scene_mean(scene({"laser", "--nm", "532", "0.2"}), 300);
    const Means both = orbsim::scene_mean(scene({"halogen", "0.5", "+", "laser", "--nm", "532", "0.2"}), 300);
    for (std::size_t i = 0; i < kFilters; i += 7)
        ASSERT_NEAR(both[i] - kDarkLevel, (lamp[i] - kDarkLevel) + (laser[i] - kDarkLevel), 1e-6) << i;
    // Two lines 3 nm apart: two peaks with a dip between them.
    const auto pair = scene({"line", "--nm", "600", "--fwhm", "0.5", "0.2", "+", "line", "--nm", "603", "--fwhm", "0.5", "0.2"});
    ASSERT_EQ(pair.lights.size(), 2u);
    const orbsim::Spectrum light = orbsim::scene_spectrum(pair);
    EXPECT_GT(light.continuum[260], 5 * light.continuum[261]);  // 600 nm, and the dip at 601 and 602
    EXPECT_GT(light.continuum[263], 5 * light.continuum[262]);
    EXPECT_NEAR(light.continuum[260] * 600, light.continuum[263] * 603, 1e-6 * light.continuum[260] * 600);
    // Frames of the sum draw one noise for the whole.
    EXPECT_EQ(draw(scene({"halogen", "+", "dark"}), 4, 300, 2), draw(scene({"halogen"}), 4, 300, 2));
}

}  // namespace
