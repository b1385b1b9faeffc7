// The sensor's identity: its five bytes, their unpacking and its name.

#include <gtest/gtest.h>

#include <cstring>

#include "orb_device_interface_device_info.h"
#include "sensor_conversation.h"

using talk::cmd;

namespace {

std::string text_of(std::array<uint8_t, 5> bytes) {
    return decode_sensor_id_from_string(reinterpret_cast<char*>(bytes.data()), 0);
}

std::string read_back_text(unsigned int index) {
    char c = '?';
    short f[5] = {-1, -1, -1, -1, -1};
    EXPECT_EQ(get_sensor_id_with_index(&c, &f[0], &f[1], &f[2], &f[3], &f[4], index), 1);
    return c + std::to_string(f[0]) + "-" + std::to_string(f[1]) + "-" + std::to_string(f[2]) + "-" +
           std::to_string(f[3]) + "-" + std::to_string(f[4]);
}

}  // namespace

TEST(IdentityBytes, OrdinaryLotsPackTheDieIn7BitsAndTheTypeIn2) {
    EXPECT_EQ(text_of({0x10, 0x9A, 0x47, 0x28, 0x85}), "C1234-7-20-33-1");
    EXPECT_EQ(text_of({0x0A, 0x30, 0xEC, 0xA1, 0x5A}), "B4487-12-80-86-2");
    EXPECT_EQ(text_of({0xFF, 0xFF, 0xFF, 0xFF, 0xFF}), "`15871-31-127-127-3");
    EXPECT_EQ(text_of({0, 0, 0, 0, 0}), "A0-0-0-0-0");
}

TEST(IdentityBytes, Lots4486And6529PackTheDieIn6BitsAndTheTypeIn3) {
    EXPECT_EQ(text_of({0x0A, 0x30, 0xCC, 0xA1, 0x5A}), "B4486-12-40-21-5");
    EXPECT_EQ(text_of({0x1B, 0x30, 0x23, 0xFF, 0xFE}), "D6529-3-63-63-7");
}

TEST(IdentityBytes, LotBitNineIsAlwaysDropped) {
    EXPECT_EQ(text_of({0x00, 0x5F, 0xE1, 0x04, 0x0C}), "A255-1-2-3-0");  // the bits spell 767
}

// The unpacking read goes straight to the transfer; the raw one waits 1 ms first.
TEST(IdentityRead, OnlyTheRawReadPausesFirst) {
    orbsim::Sensor& s = talk::connected_sensor();
    EXPECT_EQ(read_back_text(0), "C1234-7-20-33-1");
    EXPECT_TRUE(talk::pauses_ms().empty());

    s.set_identity({0x0A, 0x30, 0xCC, 0xA1, 0x5A});
    char raw[6];
    memset(raw, 0x7E, sizeof raw);
    EXPECT_EQ(get_sensor_id_with_index(raw, 0), 1);
    EXPECT_EQ(talk::pauses_ms(), (std::vector<uint64_t>{1}));
    EXPECT_SAID(s, {cmd(1, 0, 5), cmd(1, 0, 5)});
    EXPECT_EQ(raw[5], 0x7E);  // five bytes, no terminator
    EXPECT_EQ(decode_sensor_id_from_string(raw, 9), "B4486-12-40-21-5");
}

// Index 7 has no sensor: its lookup leaves a null handle and nothing is sent.
TEST(IdentityRead, StalledOrMissingSensorReadsAsZeroBytes) {
    orbsim::Sensor& s = talk::connected_sensor();
    s.stall(1);
    for (unsigned int index : {0u, 7u}) {
        char raw[5] = {1, 2, 3, 4, 5};
        EXPECT_EQ(get_sensor_id_with_index(raw, index), 1);
        EXPECT_EQ(std::string(raw, 5), std::string(5, '\0'));
        EXPECT_EQ(read_back_text(index), "A0-0-0-0-0");
    }
    EXPECT_EQ(s.requests().size(), 2u);
    EXPECT_EQ(UsbDevHandle::pDevH.count(7), 1u);
}

TEST(IdentityRead, NullOutputsAreSkippedAndTheVersionIsLeftAlone) {
    talk::connected_sensor();
    EXPECT_EQ(get_sensor_id_with_index(nullptr, 0), 1);
    EXPECT_EQ(get_sensor_id_with_index(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 0), 1);
    EXPECT_EQ(decode_sensor_id_from_string(nullptr, 0), "A0-0-0-0-0");
    unsigned char version = 0xC3;
    EXPECT_EQ(get_firmware_version(&version), 1);
    EXPECT_EQ(version, 0xC3);
}
