#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <type_traits>

#include "orb_base_exception.h"
#include "orb_error_codes.h"

// Hosts compare return values against these numbers, so they must not drift.
TEST(ErrorCodes, ValuesAreFixed) {
    EXPECT_EQ(vn_ec_fail, -1);
    EXPECT_EQ(vn_ec_success, 1);
    EXPECT_EQ(vn_ec_memory_is_null, 2);
    EXPECT_EQ(vn_ec_fail_to_initialize_device, 6);
    EXPECT_EQ(vn_ec_sensor_id_is_empty, 8);
    EXPECT_EQ(vn_ec_fail_to_calculate_spectrum, 22);
    EXPECT_EQ(vn_ec_wrong_reply, 23);
    EXPECT_EQ(vn_ec_initialization_required, 26);
    EXPECT_EQ(vn_ec_file_open_failed, 27);
    EXPECT_EQ(vn_ec_color_object_is_null, 31);
    EXPECT_EQ(vn_ec_end_code, 32);
    static_assert(sizeof(ORB_ERROR_CODE) == 4 && std::is_signed<std::underlying_type_t<ORB_ERROR_CODE>>::value,
                  "codes travel as signed 32-bit integers");
}

TEST(ErrorCodes, StartCodeAndUndefinedFailShareZero) {
    EXPECT_EQ(vn_ec_start_code, vn_ec_undefined_fail);
    EXPECT_EQ(vn_ec_start_code, 0);
}

TEST(BaseException, CarriesItsCodeAndNamesIt) {
    try {
        throw orb_base_exception(vn_ec_initialization_required);
    } catch (const std::exception& e) {
        auto& orb = dynamic_cast<const orb_base_exception&>(e);
        EXPECT_EQ(orb.m_error_code, vn_ec_initialization_required);
        EXPECT_EQ(orb.error_code(), 26);
        EXPECT_STREQ(e.what(), "vn_ec_initialization_required");
    }
    EXPECT_STREQ(orb_base_exception(vn_ec_memory_is_null).what(), "vn_ec_memory_is_null");
    EXPECT_STREQ(orb_base_exception(vn_ec_undefined_fail).what(), "vn_ec_undefined_fail");
}

TEST(BaseException, EveryCodeInRangeHasItsOwnName) {
    for (int c = vn_ec_fail; c <= vn_ec_end_code; c++) {
        std::string text = orb_base_exception(static_cast<ORB_ERROR_CODE>(c)).what();
        EXPECT_EQ(text.rfind("vn_ec_", 0), 0u) << c;
        EXPECT_NE(text, "vn_ec_unknown_code") << c;
    }
}

// A lower layer passes any status upward by throwing it unchanged.
TEST(BaseException, StatusOutsideTheEnumerationIsCarriedUnchanged) {
    orb_base_exception e(static_cast<ORB_ERROR_CODE>(-110));
    EXPECT_EQ(static_cast<int>(e.m_error_code), -110);
    EXPECT_STREQ(e.what(), "vn_ec_unknown_code");
}
