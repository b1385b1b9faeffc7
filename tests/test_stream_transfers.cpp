// The stream's own frame transfers and its count of missed frames: six
// transfers in flight only while a stream runs, frames still in order, one
// transfer again for single shots and the du... calls; frames the sensor
// took with no transfer waiting counted as the emulated bus counts them.

#include <gtest/gtest.h>

#include <libusb.h>

#include <algorithm>
#include <vector>

#include "orb_device_interface_stm.h"
#include "stream_support.h"

using namespace streamtest;

namespace {

bool all_filters_read(const orb_stream_frame& f, int value) {
    return std::all_of(f.values, f.values + ORB_STREAM_FILTERS, [value](uint16_t v) { return v == value; });
}

}  // namespace

// Counter frame k reads k in every filter, and the first two of a stream are
// passed over: frame i of the stream must read i + 3. Frames that completed
// on the six transfers out of their order on the bus would not.
TEST(StreamTransfers, SixInFlightWhileStreamingInOrderThenOneForSingleShotsAndDuCalls) {
    orbsim::Sensor& s = connected();
    s.set_frame_period(1ms);
    testbed().take_most_bulk_in_flight(s);
    ASSERT_EQ(orb_stream_start(0, 0, 2000), ORB_STREAM_OK);
    for (uint64_t i = 0; i < 600; i++) {
        ASSERT_EQ(orb_stream_read(0, &frame(), 1000), ORB_STREAM_OK);
        ASSERT_EQ(frame().sequence, i);
        ASSERT_TRUE(all_filters_read(frame(), static_cast<int>(i + 3))) << "frame " << i << " reads " << frame().values[0];
        ASSERT_EQ(frame().lost_before + frame().stale_before, 0u);
    }
    EXPECT_EQ(testbed().take_most_bulk_in_flight(s), 6u);
    EXPECT_ANSWERS_WITHIN(1000, ORB_STREAM_OK, orb_stream_stop(0, 1000));
    // The stop waited for the cancellation: only the link's transfer is left
    // (a take reads what is in flight now into the next one).
    testbed().take_most_bulk_in_flight(s);
    EXPECT_EQ(testbed().take_most_bulk_in_flight(s), 1u);

    std::vector<double> out(ORB_STREAM_FILTERS);
    EXPECT_ANSWERS_WITHIN(2000, ORB_STREAM_OK, orb_single_shot(0, out.data(), 4, 2000));
    int got = 0;
    printed_by([&] { got = duGetFilterData(out.data(), 4); });
    EXPECT_EQ(got, 1);
    printed_by([&] { got = duSetShutterSpeed(5); });
    EXPECT_EQ(got, 1);
    EXPECT_EQ(testbed().take_most_bulk_in_flight(s), 1u);

    // And six again for the next stream, on the same transfers.
    ASSERT_EQ(orb_stream_start(0, 0, 2000), ORB_STREAM_OK);
    for (int i = 0; i < 50; i++) ASSERT_EQ(orb_stream_read(0, &frame(), 1000), ORB_STREAM_OK);
    EXPECT_EQ(testbed().take_most_bulk_in_flight(s), 6u);
    EXPECT_ANSWERS_WITHIN(1000, ORB_STREAM_OK, orb_stream_stop(0, 1000));
    testbed().take_most_bulk_in_flight(s);
    EXPECT_EQ(testbed().take_most_bulk_in_flight(s), 1u);
}

// A du... acquisition during a stream takes frames from the link's
// transfer: the stream's own ones lapse at their next frame instead of
// sharing them.
TEST(StreamTransfers, ADuAcquisitionDuringAStreamLeavesTheLinkItsOneTransfer) {
    orbsim::Sensor& s = connected();
    s.set_frame_period(1ms);
    ASSERT_EQ(orb_stream_start(0, 0, 2000), ORB_STREAM_OK);
    ASSERT_EQ(orb_stream_read(0, &frame(), 1000), ORB_STREAM_OK);
    std::vector<double> out(ORB_STREAM_FILTERS);
    auto done = within(3000ms, [&] {
        printed_by([&] { duGetFilterData(out.data(), 20); });
        return 0;
    });
    ASSERT_TRUE(done);
    // What is in flight once it has its frames (and has stopped the sensor).
    testbed().take_most_bulk_in_flight(s);
    EXPECT_EQ(testbed().take_most_bulk_in_flight(s), 1u);
    EXPECT_ANSWERS_WITHIN(1000, ORB_STREAM_OK, orb_stream_stop(0, 1000));
    int got = 0;
    printed_by([&] { got = duGetFilterData(out.data(), 4); });
    EXPECT_EQ(got, 1);
    EXPECT_EQ(testbed().take_most_bulk_in_flight(s), 1u);
}

// At the sensor's own pace a host that handles no event for 150 ms misses
// the slots that pass meanwhile; the stream counts them from the gap, as the
// emulated bus counts them, and loses nothing it received.
TEST(StreamTransfers, FramesTakenWhileNoTransferWaitedAreCountedMissed) {
    orbsim::Sensor& s = connected();
    s.set_timing(orbsim::Timing::Realistic);
    ASSERT_EQ(orb_stream_start(0, 0, 2000), ORB_STREAM_OK);
    for (int i = 0; i < 100; i++) ASSERT_EQ(orb_stream_read(0, &frame(), 1000), ORB_STREAM_OK);
    orb_stream_stats st{};
    ASSERT_EQ(orb_stream_get_stats(0, &st), ORB_STREAM_OK);
    const uint64_t slots_before = s.slots_missed();
    const uint32_t missed_before = st.missed;
    // Holding libusb's event lock keeps the event-loop thread from reaping:
    // the transfers fill, and then none waits. About one hold in
    // five leaves no slot missed on either side (the cause is not pinned
    // down; the stream and the emulator then agree on none); a few more
    // holds make sure of one.
    for (int hold = 0; hold < 3 && s.slots_missed() - slots_before < 60; hold++) {
        libusb_lock_events(nullptr);
        std::this_thread::sleep_for(150ms);
        libusb_unlock_events(nullptr);
        std::this_thread::sleep_for(50ms);
    }
    uint64_t missed_read = 0;
    for (int i = 0; i < 200; i++) {
        ASSERT_EQ(orb_stream_read(0, &frame(), 1000), ORB_STREAM_OK);
        missed_read += frame().missed_before;
        EXPECT_EQ(frame().lost_before, 0u);
    }
    ASSERT_EQ(orb_stream_get_stats(0, &st), ORB_STREAM_OK);
    const uint64_t slots = s.slots_missed() - slots_before;
    const uint64_t missed = st.missed - missed_before;
    // A hold of 150 ms is 89 slots, six of them filled before the transfers
    // ran out.
    // A slow host (a sanitizer, valgrind, a loaded machine) misses a few more
    // on its own, each reckoned to a whole slot by either side.
    EXPECT_GT(slots, 60u);
    const uint64_t margin = std::max<uint64_t>(2, slots / 20);
    EXPECT_GE(missed + margin, slots);
    EXPECT_LE(missed, slots + margin);
    EXPECT_EQ(missed_read, missed);
    EXPECT_EQ(st.lost, 0u);
    EXPECT_ANSWERS_WITHIN(1000, ORB_STREAM_OK, orb_stream_stop(0, 1000));
}
