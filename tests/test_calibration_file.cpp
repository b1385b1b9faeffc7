// The calibration file: what is written is read back, every refusal of the
// loader with what it says, a file written by h5py from the documented
// layout, and the search path.

#include <hdf5.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>

#include "spectrum_support.h"

namespace {

class CalibrationFile : public ::testing::Test {
protected:
    std::string written(const std::string& name, const std::string& id = "SYNTH-1") {
        const std::string path = dir_.path() + "/" + name;
        unit_.calibrate(path, 400, 700, 5, id);
        return path;
    }
    // The result of loading path, its message in message_.
    int load(const std::string& path, const char* expected = "SYNTH-1") {
        orb_calibration* c = nullptr;
        const int r = orb_calibration_load(&c, path.c_str(), expected, message_, sizeof message_);
        EXPECT_EQ(c != nullptr, r == ORB_SPECTRUM_OK);
        orb_calibration_destroy(c);
        return r;
    }
    std::string message() const { return message_; }

    synthetic::TempDir dir_;
    synthetic::Unit unit_;
    char message_[1024] = "";
};

// Opens a file written by the library and changes it with libhdf5.
template <typename F>
void edit(const std::string& path, F&& change) {
    const hid_t file = H5Fopen(path.c_str(), H5F_ACC_RDWR, H5P_DEFAULT);
    ASSERT_GE(file, 0);
    change(file);
    H5Fclose(file);
}

TEST_F(CalibrationFile, WhatIsWrittenIsReadBack) {
    const std::string path = written("unit.h5");
    orb_calibration* c = nullptr;
    ASSERT_EQ(orb_calibration_load(&c, path.c_str(), nullptr, message_, sizeof message_), ORB_SPECTRUM_OK) << message_;
    EXPECT_STREQ(message_, "");
    orb_calibration_info info;
    ASSERT_EQ(orb_calibration_get_info(c, &info), ORB_SPECTRUM_OK);
    EXPECT_STREQ(info.sensor_id, "SYNTH-1");
    EXPECT_EQ(info.layout_version, ORB_CALIBRATION_LAYOUT_VERSION);
    EXPECT_EQ(info.wavelength_count, 61);
    EXPECT_DOUBLE_EQ(info.first_nm, 400);
    EXPECT_DOUBLE_EQ(info.last_nm, 700);
    EXPECT_DOUBLE_EQ(info.sweep_step_nm, 5);
    EXPECT_EQ(info.frames_averaged, 16);
    EXPECT_EQ(info.dark_frames, 256);
    EXPECT_STREQ(info.software_version, "1.0.0");
    EXPECT_EQ(std::string(info.created).size(), 20u);  // 2026-01-02T03:04:05Z
    orb_calibration_destroy(c);
    EXPECT_FALSE(std::filesystem::exists(path + ".partial"));
}

TEST_F(CalibrationFile, AMissingOrForeignFileIsRefusedSayingWhatWasFound) {
    EXPECT_EQ(load(dir_.path() + "/none.h5"), ORB_SPECTRUM_ERR_LOAD);
    EXPECT_NE(message().find("none.h5"), std::string::npos) << message();
    EXPECT_NE(message().find("no such file"), std::string::npos) << message();

    std::ofstream(dir_.path() + "/text.h5") << "wavelength_nm,value\n500,1\n";
    EXPECT_EQ(load(dir_.path() + "/text.h5"), ORB_SPECTRUM_ERR_DAMAGED);
    EXPECT_NE(message().find("not an HDF5 file"), std::string::npos) << message();

    const std::string path = written("unit.h5", "C1234-7-20-33-1");
    EXPECT_EQ(load(path, "C1234-7-21-33-1"), ORB_SPECTRUM_ERR_OTHER_SENSOR);
    EXPECT_NE(message().find("is of sensor C1234-7-20-33-1, not of C1234-7-21-33-1"), std::string::npos) << message();
    EXPECT_EQ(load(path, ""), ORB_SPECTRUM_OK);  // no sensor named: any
}

TEST_F(CalibrationFile, AnotherLayoutVersionIsRefused) {
    const std::string path = written("unit.h5");
    edit(path, [](hid_t file) {
        const hid_t a = H5Aopen(file, "layout_version", H5P_DEFAULT);
        const int two = 2;
        H5Awrite(a, H5T_NATIVE_INT, &two);
        H5Aclose(a);
    });
    EXPECT_EQ(load(path), ORB_SPECTRUM_ERR_VERSION);
    EXPECT_NE(message().find("layout version 2; this library reads 1"), std::string::npos) << message();
}

TEST_F(CalibrationFile, AnIncompleteOrDamagedFileIsRefusedNamingWhatIsWrong) {
    struct Case {
        const char* what;
        std::function<void(hid_t)> change;
        const char* said;
    };
    const Case cases[] = {
        {"no noise", [](hid_t f) { H5Ldelete(f, "noise", H5P_DEFAULT); }, "no dataset noise"},
        {"no version", [](hid_t f) { H5Adelete(f, "layout_version"); }, "no attribute layout_version"},
        {"no sweep step", [](hid_t f) { H5Adelete_by_name(f, "sweep", "step_nm", H5P_DEFAULT); }, "no attribute step_nm"},
        {"short response",
         [](hid_t f) {
             H5Ldelete(f, "response", H5P_DEFAULT);
             const hsize_t dims[2] = {1024, 60};
             const hid_t space = H5Screate_simple(2, dims, nullptr);
             const hid_t d = H5Dcreate2(f, "response", H5T_IEEE_F64LE, space, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT);
             H5Dclose(d);
             H5Sclose(space);
         },
         "the response has 60 wavelengths, not 61"},
        {"NaN wavelength",
         [](hid_t f) {
             const hid_t d = H5Dopen2(f, "wavelength_nm", H5P_DEFAULT);
             std::vector<double> nm(61, NAN);
             H5Dwrite(d, H5T_NATIVE_DOUBLE, H5S_ALL, H5S_ALL, H5P_DEFAULT, nm.data());
             H5Dclose(d);
         },
         "a wavelength is not a number"},
        {"repeated wavelength",
         [](hid_t f) {
             const hid_t d = H5Dopen2(f, "wavelength_nm", H5P_DEFAULT);
             std::vector<double> nm(61);
             for (size_t j = 0; j < nm.size(); ++j) nm[j] = 400 + 5.0 * static_cast<double>(j == 30 ? j - 1 : j);
             H5Dwrite(d, H5T_NATIVE_DOUBLE, H5S_ALL, H5S_ALL, H5P_DEFAULT, nm.data());
             H5Dclose(d);
         },
         "not strictly ascending at 545"},
    };
    for (const Case& c : cases) {
        const std::string path = written(std::string(c.what) + ".h5");
        edit(path, c.change);
        EXPECT_EQ(load(path), ORB_SPECTRUM_ERR_DAMAGED) << c.what;
        EXPECT_NE(message().find(c.said), std::string::npos) << c.what << ": " << message();
    }

    // Cut short, as a copy that stopped half way.
    const std::string whole = written("whole.h5"), cut = dir_.path() + "/cut.h5";
    std::filesystem::copy_file(whole, cut);
    std::filesystem::resize_file(cut, std::filesystem::file_size(whole) / 2);
    const int r = load(cut);
    EXPECT_TRUE(r == ORB_SPECTRUM_ERR_DAMAGED || r == ORB_SPECTRUM_ERR_LOAD) << r << ": " << message();
}

TEST_F(CalibrationFile, TheWriterRefusesWhatTheLoaderWouldAndLeavesNothingBehind) {
    orb_calibration_data data{};
    EXPECT_EQ(orb_calibration_write((dir_.path() + "/x.h5").c_str(), &data, message_, sizeof message_),
              ORB_SPECTRUM_ERR_INVALID);
    EXPECT_EQ(orb_calibration_write(nullptr, &data, message_, sizeof message_), ORB_SPECTRUM_ERR_INVALID);
    // Into a directory that does not exist: no file, no partial one.
    const std::string path = dir_.path() + "/missing/unit.h5";
    EXPECT_THROW(unit_.calibrate(path, 400, 700, 5), std::runtime_error);
    EXPECT_TRUE(std::filesystem::is_empty(dir_.path()));
}

TEST_F(CalibrationFile, AFileWrittenByH5pyFromTheDocumentedLayoutLoads) {
    if (std::system("/usr/bin/python3 -c 'import h5py, numpy' 2>/dev/null") != 0) GTEST_SKIP() << "no h5py";
    const std::string path = dir_.path() + "/py.h5";
    const std::string script = R"(
import sys, h5py, numpy as np
n = 40
with h5py.File(sys.argv[1], 'w') as f:
    f.attrs['layout_version'] = np.int32(1)
    f.attrs['sensor_id'] = 'C1234-7-20-33-1'
    f.attrs['created'] = '2026-01-02T03:04:05Z'
    f.attrs['software_version'] = '1.0.0'
    nm = np.linspace(500, 578, n)
    f['wavelength_nm'] = nm
    centres = np.linspace(480, 600, 1024)
    f['response'] = np.exp(-0.5 * ((nm[None, :] - centres[:, None]) / 4) ** 2)
    f['response_error'] = np.full((1024, n), 1e-3)
    f['noise'] = np.full(1024, 2.0)
    f['step_exposure_ms'] = np.full(n, 10.0)
    f['dark_exposure_ms'] = np.array([10.0])
    f['dark'] = np.full((1, 1024), 100.0, dtype=np.float32)
    adc = f.create_group('adc')
    for k in ('gain', 'range', 'resolution', 'onboard_average'):
        adc.attrs[k] = np.int32(1)
    s = f.create_group('sweep')
    s.attrs['start_nm'] = 500.0; s.attrs['stop_nm'] = 578.0; s.attrs['step_nm'] = 2.0
    s.attrs['frames_averaged'] = np.int32(16); s.attrs['dark_frames'] = np.int32(256)
    s.attrs['source'] = 'emulator'; s.attrs['source_power'] = ''
)";
    std::ofstream(dir_.path() + "/write.py") << script;
    ASSERT_EQ(std::system(("/usr/bin/python3 " + dir_.path() + "/write.py " + path).c_str()), 0);
    orb_calibration* c = nullptr;
    ASSERT_EQ(orb_calibration_load(&c, path.c_str(), "C1234-7-20-33-1", message_, sizeof message_), ORB_SPECTRUM_OK)
        << message_;
    orb_calibration_info info;
    ASSERT_EQ(orb_calibration_get_info(c, &info), ORB_SPECTRUM_OK);
    EXPECT_STREQ(info.created, "2026-01-02T03:04:05Z");
    EXPECT_EQ(info.wavelength_count, 40);
    orb_spectrum* s = nullptr;
    EXPECT_EQ(orb_spectrum_create(&s, c, ORB_SPECTRUM_GRID_CALIBRATION, nullptr, message_, sizeof message_),
              ORB_SPECTRUM_OK)
        << message_;
    orb_spectrum_destroy(s);
    orb_calibration_destroy(c);
}

TEST_F(CalibrationFile, TheSearchPathIsTheVariableThenTheUsersDataDirectory) {
    char name[64];
    ASSERT_EQ(orb_calibration_file_name("C1234-7-20/33 1", name, sizeof name), ORB_SPECTRUM_OK);
    EXPECT_STREQ(name, "C1234-7-20_33_1.h5");
    EXPECT_EQ(orb_calibration_file_name("C1234-7-20-33-1", name, 10), ORB_SPECTRUM_ERR_INVALID);

    const std::string first = dir_.path() + "/first", second = dir_.path() + "/second", data = dir_.path() + "/data";
    for (const auto& d : {first, second, data + "/orb-sensor/calibrations"}) std::filesystem::create_directories(d);
    unit_.calibrate(second + "/C1234-7-20-33-1.h5", 400, 700, 5, "C1234-7-20-33-1");
    unit_.calibrate(data + "/orb-sensor/calibrations/C1234-7-21-33-1.h5", 400, 700, 5, "C1234-7-21-33-1");
    setenv("ORB_CALIBRATION_PATH", (first + "::" + second).c_str(), 1);
    setenv("XDG_DATA_HOME", data.c_str(), 1);

    char path[512];
    ASSERT_EQ(orb_calibration_find("C1234-7-20-33-1", path, sizeof path, message_, sizeof message_), ORB_SPECTRUM_OK)
        << message_;
    EXPECT_EQ(std::string(path), second + "/C1234-7-20-33-1.h5");
    ASSERT_EQ(orb_calibration_find("C1234-7-21-33-1", path, sizeof path, message_, sizeof message_), ORB_SPECTRUM_OK);
    EXPECT_EQ(std::string(path), data + "/orb-sensor/calibrations/C1234-7-21-33-1.h5");

    EXPECT_EQ(orb_calibration_find("C1234-7-22-33-1", path, sizeof path, message_, sizeof message_),
              ORB_SPECTRUM_ERR_NOT_FOUND);
    for (const std::string& searched : {first, second, data + "/orb-sensor/calibrations"})
        EXPECT_NE(message().find(searched), std::string::npos) << message();
    EXPECT_NE(message().find("orb-sensor calibrate"), std::string::npos) << message();
    EXPECT_NE(message().find("share/orb-sensor/calibrations"), std::string::npos) << message();

    unsetenv("XDG_DATA_HOME");
    setenv("HOME", data.c_str(), 1);
    std::filesystem::create_directories(data + "/.local/share/orb-sensor/calibrations");
    std::filesystem::rename(data + "/orb-sensor/calibrations/C1234-7-21-33-1.h5",
                            data + "/.local/share/orb-sensor/calibrations/C1234-7-21-33-1.h5");
    ASSERT_EQ(orb_calibration_find("C1234-7-21-33-1", path, sizeof path, message_, sizeof message_), ORB_SPECTRUM_OK);
    EXPECT_EQ(std::string(path), data + "/.local/share/orb-sensor/calibrations/C1234-7-21-33-1.h5");
    EXPECT_EQ(orb_calibration_find("C1234-7-20-33-1", path, 8, message_, sizeof message_), ORB_SPECTRUM_ERR_INVALID);
}

}  // namespace
