#include <gtest/gtest.h>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "utils/orb_utils_interface.h"

using U = orb_utils_interface;
using Strings = std::vector<std::string>;

static std::string make_temp_dir()
{
    char tmpl[] = "/tmp/orb_utils_XXXXXX";
    return mkdtemp(tmpl);
}

TEST(Text, TokensSkipRunsOfSeparatorsAndAreAppended)
{
    std::string text = ",,a,,b,", only = ",,", comma = ",";
    Strings fields{"kept"};
    U::parse_sentense(text, comma, fields);
    U::parse_sentense(only, comma, fields);
    EXPECT_EQ(fields, (Strings{"kept", "a", "b"}));
}

TEST(Text, PathsSplitAtBackslashWhenPresentElseSlash)
{
    std::string win = "C:\\dir\\my file.txt", nix = "/a/b.c/name.tar.gz", dir_dot = "/a.b/name", bare = "x";
    EXPECT_EQ(U::get_file_name(win), "file.txt");  // a space separates too
    EXPECT_EQ(U::get_file_path(win), "C:\\dir\\");
    EXPECT_EQ(U::get_file_path(bare), "");
    EXPECT_EQ(U::get_file_name_only(win), "my file");
    EXPECT_EQ(U::get_file_name_only(nix), "name.tar");
    EXPECT_EQ(U::get_file_name_only(dir_dot), "name");
    EXPECT_EQ(U::get_file_extension(nix), "gz");
    EXPECT_EQ(U::get_file_extension("archive"), "archive");
}

TEST(Text, TrimCaseAndIntegerListsKeepTheirQuirks)
{
    std::string s = "  a b  ", tabbed = "\ta ", bytes = "Ab-\xC3\xA9";
    EXPECT_EQ(U::trim_string(s), "a b");
    EXPECT_EQ(U::trim_string(tabbed), "\ta");  // only spaces are trimmed
    EXPECT_EQ(U::to_upper(bytes), "AB-\xC3\xA9");
    std::vector<int> one{7}, many{1, -2, 3};
    EXPECT_EQ(U::integer_vector_to_string(one), "7,");  // trailing comma kept
    std::string text = U::integer_vector_to_string(many), odd = ",x,,12,";
    EXPECT_EQ(U::string_to_integer_vector(text), many);
    EXPECT_EQ(U::string_to_integer_vector(odd), (std::vector<int>{0, 12}));
}

TEST(System, FixedLocaleUserNameAndAsctimeStamps)
{
    EXPECT_EQ(U::get_locale(), "Korea");
    const passwd* pw = getpwuid(geteuid());
    EXPECT_EQ(U::get_system_user_name(), pw != nullptr ? pw->pw_name : "");
    for (const std::string& stamp : {U::get_time_stamp(), U::get_time_stamp_simple(), U::get_time_stamp_complex()}) {
        ASSERT_EQ(stamp.size(), 25u) << stamp;  // "Mon Nov 16 05:20:00 2026\n"
        EXPECT_EQ(stamp.substr(3, 1) + stamp.substr(13, 1) + stamp.substr(16, 1) + stamp.substr(24), " ::\n");
    }
    std::string a = "a", b = "b";
    U::get_time_stamp(a, b);
    EXPECT_EQ(a + b, "ab");
}

TEST(Files, MakeDirectoryCreatesParentsFirstAndLeavesTheUmaskAtZero)
{
    umask(022);
    const std::string root = make_temp_dir(), deep = root + "/x/y/z";
    U::make_directory(deep.c_str());
    U::make_directory(deep.c_str());  // already there: silently fine
    U::make_directory(nullptr);
    struct stat st {};
    ASSERT_EQ(stat(deep.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0777u);
    EXPECT_EQ(umask(0), 0u);
    std::filesystem::remove_all(root);
}

TEST(Files, DumpReplacesTheFileWithTwoRowsAndAlwaysReportsDone)
{
    const std::string root = make_temp_dir();
    std::string file = root + "/dump.txt", unwritable = root + "/no/dir.txt";
    std::ofstream(file) << "old\n\n\n";
    std::vector<double> orig{1, 2.5, 1.0 / 3}, none;
    testing::internal::CaptureStdout();
    DumpDataToTextFile(file, orig, none);
    DumpDataToTextFile(unwritable, orig, orig);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[VarnelPort] File save(" + file + ") is done!\n" +
                                                          "[VarnelPort] File save(" + unwritable + ") is done!\n");
    std::stringstream content;
    content << std::ifstream(file).rdbuf();
    EXPECT_EQ(content.str(), "1,2.5,0.333333\n\n");
    EXPECT_TRUE(U::is_file_exist(file));
    EXPECT_FALSE(U::is_file_exist(unwritable));
    std::filesystem::remove_all(root);
}

TEST(SensorIdText, DecodesLotWaferAndPositionAndIgnoresTheType)
{
    char letter = '?';
    short f[4] = {-1, -1, -1, -1};
    U::decode_sensor_ID("C1234-7-20-33-1", &letter, &f[0], &f[1], &f[2], &f[3]);
    EXPECT_EQ(letter, 'C');
    EXPECT_EQ(std::vector<short>(f, f + 4), (std::vector<short>{1234, 7, 20, 33}));
}

TEST(SensorIdText, UnreadableTextZeroesTheNumbersButLeavesTheLetterUntouched)
{
    for (const char* text : {"", "C1234-7-20", "---"}) {
        char letter = 'Q';
        short lot = 5, wafer = 5, x = 5, y = 5;
        U::decode_sensor_ID(text, &letter, &lot, &wafer, &x, &y);
        EXPECT_EQ(letter, 'Q') << text;
        EXPECT_EQ(lot | wafer | x | y, 0) << text;
    }
}

TEST(SensorIdText, NullOutputsAreSkippedAndABareLetterGivesLotZero)
{
    short lot = -1;
    U::decode_sensor_ID("B4486-12-40-21-5", nullptr, nullptr, nullptr, nullptr, nullptr);
    U::decode_sensor_ID("", nullptr, nullptr, nullptr, nullptr, nullptr);
    U::decode_sensor_ID("B-1-2-3", nullptr, &lot, nullptr, nullptr, nullptr);
    EXPECT_EQ(lot, 0);
}
