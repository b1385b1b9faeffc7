#include <gtest/gtest.h>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "utils/orb_utils_interface.h"

using U = orb_utils_interface;
using Strings = std::vector<std::string>;

namespace {

std::string make_temp_dir()
{
    char tmpl[] = "/tmp/orb_utils_XXXXXX";
    return mkdtemp(tmpl);
}

std::string read_file(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

}  // namespace

TEST(Tokenise, RunsOfSeparatorsCountOnceAndFieldsAreAppended)
{
    std::string text = ",,a,,b,", comma = ",";
    Strings fields{"kept"};
    U::parse_sentense(text, comma, fields);
    EXPECT_EQ(fields, (Strings{"kept", "a", "b"}));

    std::string only = ",,,";
    U::parse_sentense(only, comma, fields);
    EXPECT_EQ(fields.size(), 3u);

    std::string line = "1;2 3", set = "; ";
    Strings many;
    U::parse_sentense(line, set, many);
    EXPECT_EQ(many, (Strings{"1", "2", "3"}));
}

TEST(Paths, NameAndPathUseBackslashWhenPresentElseSlash)
{
    std::string win = "C:\\dir\\my file.txt", nix = "/a/b.c/name.tar.gz", bare = "archive";
    EXPECT_EQ(U::get_file_name(win), "file.txt");  // a space separates too
    EXPECT_EQ(U::get_file_name(nix), "name.tar.gz");
    std::string none;
    EXPECT_EQ(U::get_file_name(none), "");

    EXPECT_EQ(U::get_file_path(win), "C:\\dir\\");
    EXPECT_EQ(U::get_file_path(nix), "/a/b.c/");
    EXPECT_EQ(U::get_file_path(bare), "");

    EXPECT_EQ(U::get_file_name_only(win), "my file");
    EXPECT_EQ(U::get_file_name_only(nix), "name.tar");
    EXPECT_EQ(U::get_file_name_only(bare), "archive");
    std::string dotted_dir = "/a/b.c/name";
    EXPECT_EQ(U::get_file_name_only(dotted_dir), "name");

    EXPECT_EQ(U::get_file_extension("a.tar.gz"), "gz");
    EXPECT_EQ(U::get_file_extension("archive"), "archive");  // no dot: the whole path
}

TEST(TextHelpers, TrimRemovesOnlySpaces)
{
    std::string s = "  a b  ", tabbed = "\t a \n", blank = "   ";
    EXPECT_EQ(U::trim_string(s), "a b");
    EXPECT_EQ(U::trim_string(tabbed), "\t a \n");
    EXPECT_EQ(U::trim_string(blank), "");
}

TEST(TextHelpers, CaseConversionLeavesNonAsciiBytesAlone)
{
    std::string s = "Ab1-\xC3\xA9";
    EXPECT_EQ(U::to_lower(s), "ab1-\xC3\xA9");
    EXPECT_EQ(U::to_upper(s), "AB1-\xC3\xA9");
}

TEST(TextHelpers, IntegerListTextKeepsTrailingCommaAndRoundTrips)
{
    std::vector<int> one{7}, many{1, -2, 3}, none;
    EXPECT_EQ(U::integer_vector_to_string(one), "7,");
    EXPECT_EQ(U::integer_vector_to_string(none), "");
    std::string text = U::integer_vector_to_string(many);
    EXPECT_EQ(text, "1,-2,3,");
    EXPECT_EQ(U::string_to_integer_vector(text), many);
    std::string odd = ",x,,12,";
    EXPECT_EQ(U::string_to_integer_vector(odd), (std::vector<int>{0, 12}));
}

TEST(SystemHelpers, FixedLocaleAndEffectiveUserName)
{
    EXPECT_EQ(U::get_locale(), "Korea");
    EXPECT_EQ(U::get_system_user_name(), getpwuid(geteuid())->pw_name);
}

TEST(SystemHelpers, AllTimeStampsAreAsctimeTextWithNewline)
{
    const std::regex layout("[A-Z][a-z]{2} [A-Z][a-z]{2} [ 1-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9] [0-9]{4}\n");
    EXPECT_TRUE(std::regex_match(U::get_time_stamp(), layout));
    EXPECT_TRUE(std::regex_match(U::get_time_stamp_simple(), layout));
    EXPECT_TRUE(std::regex_match(U::get_time_stamp_complex(), layout));
    std::string a = "a", b = "b";
    U::get_time_stamp(a, b);
    EXPECT_EQ(a + b, "ab");
}

TEST(Files, MakeDirectoryCreatesParentsFirstAndLeavesUmaskAtZero)
{
    umask(022);
    const std::string root = make_temp_dir();
    const std::string deep = root + "/x/y/z";
    U::make_directory(deep.c_str());
    struct stat st {};
    ASSERT_EQ(stat(deep.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0777u);  // made under a cleared mask
    EXPECT_EQ(umask(0), 0u);              // and the mask is not restored

    U::make_directory(deep.c_str());  // existing directories are no error
    U::make_directory(nullptr);
    std::filesystem::remove_all(root);
}

TEST(Files, FileExistsOnlyWhenReadable)
{
    const std::string root = make_temp_dir();
    std::string file = root + "/f.txt", missing = root + "/none", empty;
    std::ofstream(file) << "x";
    EXPECT_TRUE(U::is_file_exist(file));
    EXPECT_FALSE(U::is_file_exist(missing));
    EXPECT_FALSE(U::is_file_exist(empty));
    std::filesystem::remove_all(root);
}

TEST(Files, DumpWritesTwoRowsAndAlwaysReportsDone)
{
    const std::string root = make_temp_dir();
    std::string file = root + "/dump.txt";
    std::ofstream(file) << "old content that must go\n\n\n";
    std::vector<double> orig{1, 2.5, 1.0 / 3}, corrected;
    testing::internal::CaptureStdout();
    DumpDataToTextFile(file, orig, corrected);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[VarnelPort] File save(" + file + ") is done!\n");
    EXPECT_EQ(read_file(file), "1,2.5,0.333333\n\n");

    std::string unwritable = root + "/no/such/dir.txt";
    testing::internal::CaptureStdout();
    DumpDataToTextFile(unwritable, orig, orig);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[VarnelPort] File save(" + unwritable + ") is done!\n");
    std::filesystem::remove_all(root);
}

TEST(SensorIdText, DecodesLotWaferAndPositionIgnoringType)
{
    char letter = '?';
    short lot = -1, wafer = -1, x = -1, y = -1;
    U::decode_sensor_ID("C1234-7-20-33-1", &letter, &lot, &wafer, &x, &y);
    EXPECT_EQ(letter, 'C');
    EXPECT_EQ(lot, 1234);
    EXPECT_EQ(wafer, 7);
    EXPECT_EQ(x, 20);
    EXPECT_EQ(y, 33);
}

TEST(SensorIdText, UnreadableTextZeroesNumbersButLeavesLetterUntouched)
{
    for (const char* text : {"", "C1234-7-20", "---"}) {
        char letter = 'Q';
        short lot = 5, wafer = 5, x = 5, y = 5;
        U::decode_sensor_ID(text, &letter, &lot, &wafer, &x, &y);
        EXPECT_EQ(letter, 'Q') << text;
        EXPECT_EQ(lot + wafer + x + y, 0) << text;
    }
}

TEST(SensorIdText, NullOutputsAreSkippedAndBareLetterGivesLotZero)
{
    short lot = -1;
    U::decode_sensor_ID("B4486-12-40-21-5", nullptr, nullptr, nullptr, nullptr, nullptr);
    U::decode_sensor_ID("", nullptr, nullptr, nullptr, nullptr, nullptr);
    U::decode_sensor_ID("B-1-2-3", nullptr, &lot, nullptr, nullptr, nullptr);
    EXPECT_EQ(lot, 0);
}
