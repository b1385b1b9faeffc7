// The streaming layer's calls into the sensor link (link_seam.h).

#include "link_seam.h"

#include <pthread.h>
#include <time.h>

#include <algorithm>

#include "orb_device_interface_device_settings.h"
#include "orb_device_interface_stm.h"
#include "orb_device_interface_stm_usb.h"
#include "orb_stream.h"
#include "../efm32com/orb_frame_samples.h"
#include "../efm32com/orb_stm_commands.h"

namespace orbstream::link {

namespace {

// exit_cond is on the realtime clock; waiting on it in short slices, with
// the deadline kept on the steady clock, keeps a clock step from stretching
// the wait, and sees do_exit even when request_exit's one signal woke
// another waiter.
constexpr long kWaitSliceNs = 20 * 1000 * 1000;

timespec realtime_in(long ns) {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    ts.tv_nsec += ns;
    ts.tv_sec += ts.tv_nsec / 1000000000;
    ts.tv_nsec %= 1000000000;
    return ts;
}

// Under exit_cond_lock: until `wanted` frames are queued, the deadline
// passes or the event loop ends.
int wait_for_frames(int wanted, const Deadline& d) {
    while (static_cast<int>(frameDataQueue.size()) < wanted) {
        if (do_exit != 0) return ORB_STREAM_ERR_ENDED;
        const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(d.at - Clock::now()).count();
        if (left <= 0) return ORB_STREAM_ERR_TIMEOUT;
        timespec until = realtime_in(std::min<long long>(left, kWaitSliceNs));
        pthread_cond_timedwait(&exit_cond, &exit_cond_lock, &until);
    }
    return ORB_STREAM_OK;
}

// Under exit_cond_lock.
void empty_queue() {
    frameDataQueue.clear();
    iCurrAvgNum = 0;
}

}  // namespace

libusb_device_handle* handle_at(int index) {
    auto it = UsbDevHandle::pDevH.find(index);
    return it == UsbDevHandle::pDevH.end() ? nullptr : it->second;
}

bool has_frame_transfer(int index) {
    auto it = allocTransferBulkMap.find(index);
    return it != allocTransferBulkMap.end() && it->second;
}

bool ended() { return do_exit != 0; }

bool streaming() { return bulkModeStarted; }

void mark_streaming(bool on) { bulkModeStarted = on; }

void record_shutter_speed(int shutter_speed, int blank_time) {
    g_iCurShutterSpeed = shutter_speed;
    iCurBlankTime = blank_time;
}

void record_blank_time(int blank_time) { iCurBlankTime = blank_time; }

int shutter_speed() { return g_iCurShutterSpeed; }

int register_pause_ms() { return g_iSleepTime; }

int stream_request_pause_ms() { return get_sleep_time_for_shutter_speed(g_iCurShutterSpeed); }

bool collecting_frames() {
    const int skip = iCurrAcqMode == kModeSingleShot ? kSingleShotSkip : 0;
    // Frames passed over after an acquisition that nobody waits for are not
    // an acquisition: only frames asked for are.
    return iCurrAvgNum > 0 && iCurrAvgNum + skip > g_count;
}

bool moving_average_on() { return g_enable_FMA; }

void arm_single_shot(int averages) {
    iCurrAcqMode = kModeSingleShot;
    g_count = 0;
    iCurrAvgNum = averages;
}

int take_single_shot(int averages, const Deadline& deadline, double* sum) {
    pthread_mutex_lock(&exit_cond_lock);
    int r = wait_for_frames(averages, deadline);
    if (r == ORB_STREAM_OK)
        for (int k = 0; k < averages; k++)
            for (int j = 0; j < orbframe::kSamples; j++) sum[j] += frameDataQueue[k][j];
    empty_queue();
    pthread_mutex_unlock(&exit_cond_lock);
    return r;
}

void drop_single_shot() {
    pthread_mutex_lock(&exit_cond_lock);
    empty_queue();
    pthread_mutex_unlock(&exit_cond_lock);
}

}  // namespace orbstream::link
