// What the colorimetry refuses, and the colour object's own failures: a
// missing or malformed colord-data file, a null object.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>

#include "colour_support.h"

extern "C" int orb_colour_header_compiles_as_c(void);

namespace {

int compute_status(orb_colour* colour, const Spectrum& s) {
    orb_colorimetry c;
    return orb_colour_compute(colour, s.wavelength.data(), s.value.data(), static_cast<int>(s.value.size()), &c);
}

TEST_F(ColourTest, SpectraThatCannotBeMeasuredAreRefusedWithTheirReason) {
    // Short of 380 or of 780 nm by one sample.
    EXPECT_EQ(compute_status(colour_, planckian(3000, 385, 830, 5)), ORB_COLOUR_ERR_RANGE);
    EXPECT_EQ(compute_status(colour_, planckian(3000, 360, 775, 5)), ORB_COLOUR_ERR_RANGE);
    Spectrum s = planckian(3000, 380, 780, 5);
    EXPECT_EQ(compute_status(colour_, s), ORB_COLOUR_OK);

    Spectrum repeated = s;
    repeated.wavelength[10] = repeated.wavelength[9];
    EXPECT_EQ(compute_status(colour_, repeated), ORB_COLOUR_ERR_ORDER);
    Spectrum descending = s;
    std::reverse(descending.wavelength.begin(), descending.wavelength.end());
    EXPECT_EQ(compute_status(colour_, descending), ORB_COLOUR_ERR_ORDER);

    for (double bad : {NAN, INFINITY, -INFINITY}) {
        Spectrum v = s, w = s;
        v.value[40] = bad;
        w.wavelength[40] = bad;
        EXPECT_EQ(compute_status(colour_, v), ORB_COLOUR_ERR_NOT_FINITE);
        EXPECT_EQ(compute_status(colour_, w), ORB_COLOUR_ERR_NOT_FINITE);
    }

    Spectrum dark = s;
    std::fill(dark.value.begin(), dark.value.end(), 0.0);
    EXPECT_EQ(compute_status(colour_, dark), ORB_COLOUR_ERR_DARK);
    // Light only outside the visible range is no light either.
    Spectrum infrared = planckian(3000, 340, 1100, 1);
    for (size_t i = 0; i < infrared.value.size(); i++)
        if (infrared.wavelength[i] < 840) infrared.value[i] = 0;
    EXPECT_EQ(compute_status(colour_, infrared), ORB_COLOUR_ERR_DARK);

    orb_colorimetry c;
    EXPECT_EQ(orb_colour_compute(colour_, nullptr, s.value.data(), 81, &c), ORB_COLOUR_ERR_INVALID);
    EXPECT_EQ(orb_colour_compute(colour_, s.wavelength.data(), nullptr, 81, &c), ORB_COLOUR_ERR_INVALID);
    EXPECT_EQ(orb_colour_compute(colour_, s.wavelength.data(), s.value.data(), 81, nullptr), ORB_COLOUR_ERR_INVALID);
    EXPECT_EQ(orb_colour_compute(colour_, s.wavelength.data(), s.value.data(), 1, &c), ORB_COLOUR_ERR_INVALID);
}

TEST_F(ColourTest, NoiseBelowZeroIsMeasuredNotRefused) {
    Spectrum s = planckian(4000);
    const orb_colorimetry clean = compute(s);
    for (size_t i = 0; i < s.value.size(); i += 7) s.value[i] -= 1e-3 * clean.Y / 100;
    const orb_colorimetry noisy = compute(s);
    EXPECT_NEAR(noisy.cct_k, 4000, 20);
}

TEST(ColourObject, NullObjectAndNullArgumentsAreRefused) {
    orb_colorimetry c;
    double w[2] = {380, 780}, v[2] = {1, 1}, cct, duv;
    EXPECT_EQ(orb_colour_compute(nullptr, w, v, 2, &c), ORB_COLOUR_ERR_NULL);
    EXPECT_EQ(orb_colour_cct(nullptr, 0.2, 0.3, &cct, &duv), ORB_COLOUR_ERR_NULL);
    EXPECT_EQ(orb_colour_create(nullptr, nullptr, nullptr, 0), ORB_COLOUR_ERR_INVALID);
    orb_colour_destroy(nullptr);
}

TEST(ColourObject, EveryResultHasItsOwnText) {
    std::set<std::string> texts;
    for (int r : {ORB_COLOUR_OK, ORB_COLOUR_ERR_CREATE, ORB_COLOUR_ERR_INITIALISE, ORB_COLOUR_ERR_NULL,
                  ORB_COLOUR_ERR_INVALID, ORB_COLOUR_ERR_RANGE, ORB_COLOUR_ERR_ORDER, ORB_COLOUR_ERR_NOT_FINITE,
                  ORB_COLOUR_ERR_DARK})
        texts.insert(orb_colour_result_text(r));
    EXPECT_EQ(texts.size(), 9u);
    EXPECT_EQ(std::string(orb_colour_result_text(12345)), "unknown result");
}

// A copy of the four tables the colour object reads, in a directory of the
// test's own, to take away or spoil.
class ColordCopy : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/orb_colord_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        ASSERT_EQ(std::system(("mkdir -p " + dir_ + "/cmf " + dir_ + "/ref && cp /usr/share/colord/cmf/*.cmf " + dir_ +
                               "/cmf/ && cp /usr/share/colord/ref/* " + dir_ + "/ref/")
                                  .c_str()),
                  0);
    }
    void TearDown() override { std::system(("rm -rf " + dir_).c_str()); }

    int create(const char* data_dir, std::string& message) {
        char text[512];
        orb_colour* colour = reinterpret_cast<orb_colour*>(1);
        const int r = orb_colour_create(&colour, data_dir, text, sizeof text);
        message = text;
        if (r != ORB_COLOUR_OK) {
            EXPECT_EQ(colour, nullptr);
        }
        orb_colour_destroy(colour);
        return r;
    }

    std::string dir_;
};

TEST_F(ColordCopy, EachMissingFileIsNamedWithThePackageToInstall) {
    std::string message;
    ASSERT_EQ(create(dir_.c_str(), message), ORB_COLOUR_OK) << message;
    for (const char* file : {"cmf/CIE1931-2deg-XYZ.cmf", "cmf/CIE1964-10deg-XYZ.cmf", "ref/CIE-1986-daylight-SPD.cmf",
                             "ref/CIE-TCS.sp"}) {
        const std::string path = dir_ + "/" + file;
        ASSERT_EQ(std::rename(path.c_str(), (path + ".away").c_str()), 0);
        EXPECT_EQ(create(dir_.c_str(), message), ORB_COLOUR_ERR_CREATE) << file;
        EXPECT_NE(message.find(path), std::string::npos) << message;
        EXPECT_NE(message.find("colord-data"), std::string::npos) << message;
        ASSERT_EQ(std::rename((path + ".away").c_str(), path.c_str()), 0);
    }
}

TEST_F(ColordCopy, TheEnvironmentPointsAtTheTablesAndTheArgumentWinsOverIt) {
    std::string message;
    ASSERT_EQ(setenv("ORB_COLORD_DIR", (dir_ + "/nowhere").c_str(), 1), 0);
    EXPECT_EQ(create(nullptr, message), ORB_COLOUR_ERR_CREATE);
    EXPECT_NE(message.find(dir_ + "/nowhere/cmf/CIE1931-2deg-XYZ.cmf"), std::string::npos) << message;
    EXPECT_EQ(create(dir_.c_str(), message), ORB_COLOUR_OK) << message;
}

TEST_F(ColordCopy, ASpoiltTableIsRefusedAsUninitialisable) {
    std::string message;
    const std::string tcs = dir_ + "/ref/CIE-TCS.sp";
    // Thirteen samples where CIE 13.3 has fourteen.
    ASSERT_EQ(std::system(("sed -i '/^TCS14/d; s/NUMBER_OF_SETS\t15/NUMBER_OF_SETS\t14/' " + tcs).c_str()), 0);
    EXPECT_EQ(create(dir_.c_str(), message), ORB_COLOUR_ERR_INITIALISE);
    EXPECT_NE(message.find("TCS14"), std::string::npos) << message;

    const std::string cmf = dir_ + "/cmf/CIE1931-2deg-XYZ.cmf";
    ASSERT_EQ(std::system(("sed -i 's/0.0001299/zero/' " + cmf).c_str()), 0);
    EXPECT_EQ(create(dir_.c_str(), message), ORB_COLOUR_ERR_INITIALISE);
    EXPECT_NE(message.find(cmf), std::string::npos) << message;
    std::ofstream(cmf) << "CMF\nBEGIN_DATA\n1 2 3\nEND_DATA\n";
    EXPECT_EQ(create(dir_.c_str(), message), ORB_COLOUR_ERR_INITIALISE);
}

TEST(ColourHeader, CompilesAsCAndLinks) { EXPECT_EQ(orb_colour_header_compiles_as_c(), ORB_COLOUR_ERR_NULL); }

}  // namespace
