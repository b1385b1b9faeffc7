// The streaming layer's auto-exposure against emulated scenes at the
// sensor's own pace: every light ends within its bound with the outcome it
// deserves; the search's steps apart from any sensor.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "scenes.h"
#include "stream_support.h"
#include "../src/stream/exposure_search.h"

using namespace streamtest;

namespace {

orbsim::FrameGenerator scene(std::vector<std::string> words) {
    orbsim::Scene parsed;
    std::string why;
    EXPECT_TRUE(orbsim::parse_scene(words, &parsed, &why)) << why;
    return orbsim::scene_frames(parsed, 7);
}

// The search from `start` on a realistic sensor: its result, bounded by
// its time-out plus the slack.
orb_exposure_result expose(orbsim::FrameGenerator frames, int start, int timeout_ms = 8000,
                           std::vector<int> filters = {}, int target = 0) {
    orbsim::Sensor& s = connected(std::move(frames));
    s.set_timing(orbsim::Timing::Realistic);
    EXPECT_EQ(orb_stream_set_shutter_speed(0, start, 2000), ORB_STREAM_OK);
    // Shared with the search's thread: a search left blocked must not write into a finished test's stack.
    auto kept = std::make_shared<orb_exposure_result>();
    auto chosen = std::make_shared<std::vector<int>>(std::move(filters));
    const auto outcome = within(Ms(timeout_ms + 2000), [=] {
        return orb_stream_auto_expose(0, chosen->empty() ? nullptr : chosen->data(), static_cast<int>(chosen->size()),
                                      target, 0, timeout_ms, kept.get());
    });
    EXPECT_TRUE(outcome.has_value()) << "the search did not return";
    if (!outcome) return {};
    EXPECT_EQ(outcome->result, ORB_STREAM_OK) << orb_stream_result_text(outcome->result);
    EXPECT_LE(outcome->took.count(), timeout_ms + slack_ms());
    const orb_exposure_result r = *kept;
    EXPECT_EQ(s.shutter(), r.shutter_speed) << "the sensor is left at the shutter speed chosen";
    EXPECT_FALSE(s.streaming()) << "a stream the search started is stopped";
    EXPECT_LE(r.rounds, ORB_EXPOSURE_MAX_ROUNDS);
    return r;
}

}  // namespace

// One light, one search from one shutter speed: what it must end with.
struct Case {
    const char* name;
    std::vector<std::string> scene;
    int start;
    int outcome;
    int shutter_low, shutter_high;  // where it must end
    int level_low, level_high;      // the level there, DN
    int max_ms;                     // the time the search may take
};

// The search's own time is mostly the sensor's exposures, but a sanitizer
// slows the host's side of every round.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr double kSanitizerSlowdown = 1.5;
#else
constexpr double kSanitizerSlowdown = 1.0;
#endif

void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }

class StreamExposureScene : public testing::TestWithParam<Case> {};

// Halogen at brightness 1 saturates at shutter speed 900, so the target
// lies near 720; a tenth of it at 9000, past the longest exposure.
const Case kCases[] = {
    {"HalogenFromTheShortest", {"halogen"}, 1, ORB_EXPOSURE_ON_TARGET, 650, 790, 3014, 3538, 500},
    // From the longest, the first frames alone take their 274 ms each.
    {"HalogenFromTheLongest", {"halogen"}, 3000, ORB_EXPOSURE_ON_TARGET, 650, 790, 3014, 3538, 1500},
    {"LaserLine", {"laser", "--nm", "532"}, 1, ORB_EXPOSURE_ON_TARGET, 1, 3000, 3014, 3538, 500},
    {"Laser650FromTheLongest", {"laser"}, 3000, ORB_EXPOSURE_ON_TARGET, 1, 3000, 3014, 3538, 1500},
    {"TwoLines3nmApart", {"laser", "--nm", "532", "+", "laser", "--nm", "535", "0.5"}, 400, ORB_EXPOSURE_ON_TARGET,
     1, 3000, 3014, 3538, 1000},
    {"Fluorescent100HzFlicker", {"fluorescent", "--flicker", "100"}, 5, ORB_EXPOSURE_ON_TARGET, 1, 3000, 3014, 3538,
     1000},
    {"HalogenTenth", {"halogen", "0.1"}, 1, ORB_EXPOSURE_TOO_DIM, 3000, 3000, 1000, 2000, 1500},
    {"HalogenHundredth", {"halogen", "0.01"}, 700, ORB_EXPOSURE_TOO_DIM, 3000, 3000, 0, 500, 2000},
    {"Dark", {"dark"}, 1, ORB_EXPOSURE_TOO_DIM, 3000, 3000, 0, 300, 1500},
    {"SunTooBright", {"sun", "1000"}, 3000, ORB_EXPOSURE_TOO_BRIGHT, 1, 1, 4095, 4095, 1500},
};

TEST_P(StreamExposureScene, EndsWithinItsBoundWithTheRightOutcome) {
    const Case& c = GetParam();
    const orb_exposure_result r = expose(scene(c.scene), c.start);
    EXPECT_EQ(r.outcome, c.outcome) << orb_exposure_outcome_text(r.outcome) << " at " << r.shutter_speed
                                    << ", level " << r.level << ", " << r.rounds << " rounds";
    EXPECT_GE(r.shutter_speed, c.shutter_low);
    EXPECT_LE(r.shutter_speed, c.shutter_high);
    EXPECT_GE(r.level, c.level_low);
    EXPECT_LE(r.level, c.level_high);
    EXPECT_LE(r.elapsed_ms, c.max_ms * kSanitizerSlowdown + slack_ms());
    // The worst the emulator shows: eight frames measured beyond the final one.
    EXPECT_LE(r.frames, 10);
}

INSTANTIATE_TEST_SUITE_P(Lights, StreamExposureScene, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<Case>& info) { return std::string(info.param.name); });

TEST(StreamExposure, BelowTwoFlickerPeriodsTheBrighterOfTwoFramesIsMeasured) {
    // Saturated at the shortest exposure: one round, of two frames (0.1 ms
    // is far below two periods of 100 Hz).
    const orb_exposure_result r = expose(scene({"sun", "1000"}), 1);
    EXPECT_EQ(r.outcome, ORB_EXPOSURE_TOO_BRIGHT);
    EXPECT_EQ(r.rounds, 1);
    EXPECT_EQ(r.frames, 2);
}

TEST(StreamExposure, ChosenFiltersAndTargetAreHonouredOnARunningStream) {
    orbsim::Sensor& s = connected(scene({"halogen"}));
    s.set_timing(orbsim::Timing::Realistic);
    ASSERT_EQ(orb_stream_start(0, 0, 2000), ORB_STREAM_OK);
    static const std::vector<int> filters{500, 501, 502};
    static orb_exposure_result r{};
    EXPECT_ANSWERS_WITHIN(8000, ORB_STREAM_OK, orb_stream_auto_expose(0, filters.data(), 3, 2000, 100, 8000, &r));
    EXPECT_EQ(r.outcome, ORB_EXPOSURE_ON_TARGET);
    EXPECT_NEAR(r.level, 2000, 100);
    EXPECT_TRUE(s.streaming()) << "the host's stream goes on";
    ASSERT_EQ(orb_stream_read(0, &frame(), 2000), ORB_STREAM_OK);
    EXPECT_EQ(frame().settings.shutter_speed, r.shutter_speed);
    EXPECT_EQ(orb_stream_stop(0, 1000), ORB_STREAM_OK);
}

TEST(StreamExposure, SilentSensorIsReportedWithinAReadsBoundAndArgumentsAreChecked) {
    orbsim::Sensor& s = connected(scene({"halogen"}));
    static orb_exposure_result r{};
    const int bad_filter[] = {0};
    EXPECT_EQ(orb_stream_auto_expose(0, bad_filter, 1, 0, 0, 1000, &r), ORB_STREAM_ERR_INVALID);
    EXPECT_EQ(orb_stream_auto_expose(0, nullptr, 1, 0, 0, 1000, &r), ORB_STREAM_ERR_INVALID);
    EXPECT_EQ(orb_stream_auto_expose(0, nullptr, 0, 4096, 0, 1000, &r), ORB_STREAM_ERR_INVALID);
    EXPECT_EQ(orb_stream_auto_expose(0, nullptr, 0, 0, 0, 1000, nullptr), ORB_STREAM_ERR_INVALID);
    EXPECT_EQ(orb_stream_auto_expose(-1, nullptr, 0, 0, 0, 1000, &r), ORB_STREAM_ERR_INVALID);
    ASSERT_EQ(orb_stream_start(0, 0, 2000), ORB_STREAM_OK);
    s.hang();
    auto outcome = within(Ms(ORB_EXPOSURE_READ_BOUND_MS + 3000),
                          [&] { return orb_stream_auto_expose(0, nullptr, 0, 0, 0, 60000, &r); });
    ASSERT_TRUE(outcome.has_value());
    EXPECT_EQ(outcome->result, ORB_STREAM_ERR_TIMEOUT);
    EXPECT_LE(outcome->took.count(), ORB_EXPOSURE_READ_BOUND_MS + slack_ms());
}

TEST(ExposureSearch, StepsDownHardFromSaturationAndEndsAtTheRoundBound) {
    orbstream::ExposureSearch steps(3276, 262, 4);
    orbstream::ExposureStep step = steps.next({3000, 4095, 60, true});
    EXPECT_FALSE(step.done);
    EXPECT_EQ(step.shutter_speed, 187);
    // A light that keeps jumping: predictions far apart end it as changed.
    step = steps.next({187, 1000, 60, false});
    ASSERT_FALSE(step.done);
    step = steps.next({step.shutter_speed, 200, 60, false});
    EXPECT_TRUE(step.done);
    EXPECT_EQ(step.outcome, ORB_EXPOSURE_LIGHT_CHANGED);

    // Too little signal to scale from: a large step up, never a leap to the
    // longest; saturated above an unsaturated measurement: no crawl down.
    orbstream::ExposureSearch faint(3000, 240, 6);
    step = faint.next({1, 68, 65, false});
    ASSERT_FALSE(step.done);
    EXPECT_EQ(step.shutter_speed, 16);
    step = faint.next({3000, 4095, 1579, true});
    ASSERT_FALSE(step.done);
    EXPECT_EQ(step.shutter_speed, 187);  // a sixteenth, not 2999

    // Off target at the round bound: never more rounds than that.
    orbstream::ExposureSearch two(3276, 262, 2);
    step = two.next({100, 1000, 60, false});
    ASSERT_FALSE(step.done);
    step = two.next({step.shutter_speed, 2000, 60, false});
    EXPECT_TRUE(step.done);
    EXPECT_EQ(step.outcome, ORB_EXPOSURE_LIGHT_CHANGED);
}

TEST(ExposureSearch, TwoMeasurementsPinTheBlackLevel) {
    // Black 500 DN, 1 DN per 912 ticks: the darkest filter (600) overstates
    // the black level, the second round's line does not.
    orbstream::ExposureSearch steps(3276, 30, 6);
    auto level = [](int s) { return 500 + (s * 912 + 160) / 912; };
    orbstream::ExposureStep step = steps.next({1000, level(1000), 600, false});
    ASSERT_FALSE(step.done);
    step = steps.next({step.shutter_speed, level(step.shutter_speed), 600, false});
    ASSERT_FALSE(step.done);
    EXPECT_NEAR(step.shutter_speed, 2776, 2);
    step = steps.next({step.shutter_speed, level(step.shutter_speed), 600, false});
    EXPECT_TRUE(step.done);
    EXPECT_EQ(step.outcome, ORB_EXPOSURE_ON_TARGET);
}
