// The sensor controller's firmware commands, and frame acquisition.

// SMA's window check guards memory, so it stays on in release builds too.
#undef NDEBUG

#include "orb_device_interface_stm.h"

#include <assert.h>
#include <math.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <string>

#include "orb_device_interface_device_settings.h"

#include "lusb.h"
#include "orb_device_interface_stm_usb.h"
#include "orb_exposure.h"
#include "orb_frame_samples.h"
#include "orb_stm_commands.h"
#include "../stream/frame_tap.h"

// What initialisation puts into the registers.
constexpr int kInitAdcRange = 132;
constexpr int kInitAdcGainRes = 0;
constexpr int kInitShutterHigh = 0;
constexpr int kInitShutterLow = 1;
constexpr int kInitBlankTime = 2;

int g_iSleepTime = 30;
bool m_bVerbose = true;
unsigned char ucEfm32_ReceivedBytes[2048];

int iTotalCount = 0;
int iSuccessCount = 0;
int iFailCount = 0;
int iCurBlankTime = 0;

namespace {

struct RequestShape {
    int length;      // bytes of the data stage (and of the reply zeroed first)
    int timeout_ms;
    bool sends_value;
};

// The data stage and patience the controller needs per command; false for
// codes it does not implement.
bool shape_of(int code, RequestShape& shape) {
    switch (code) {
    case kCmdIdentity:
        shape = {5, 2000, false};
        return true;
    case 2:
    case 27:
        shape = {2048, 2000, false};
        return true;
    case 11:
        shape = {2048, 1000, false};
        return true;
    case 8:
        shape = {4, 1000, false};
        return true;
    case 12:
    case 13:
        shape = {12, 1000, false};
        return true;
    case kRdShutterLow:
    case 6:
    case 7:
    case 10:
    case kRdAdcRange:
    case kRdShutterHigh:
    case kRdBlankLow:
    case kRdBlankHigh:
    case kRdAdcGainRes:
    case kRdFrameAverage:
    case 58:
        shape = {1, kRegisterTimeoutMs, false};
        return true;
    case kCmdOperation:
    case kWrShutterLow:
    case kWrAdcRange:
    case kWrAdcGainRes:
    case kWrBlankLow:
    case kWrBlankHigh:
    case kWrShutterHigh:
    case kWrFrameAverage:
    case 56:
    case 57:
    case 80:
    case 81:
    case 255:
        shape = {1, kRegisterTimeoutMs, true};
        return true;
    default:
        return false;
    }
}

// One request followed by the controller's latch pause.
unsigned char paced(int code, int value, unsigned int index) {
    unsigned char reply = do_control_transfer(code, value, index);
    pause_ms(g_iSleepTime);
    return reply;
}

bool initialize_blank_time(unsigned int index) {
    return write_pair_verified(kWrBlankHigh, (kInitBlankTime >> 8) & 0xFF, kWrBlankLow, kInitBlankTime & 0xFF,
                               kRdBlankHigh, kRdBlankLow, index);
}

}  // namespace

bool write_pair_verified(int wr_a, int a, int wr_b, int b, int rd_a, int rd_b, unsigned int index) {
    bool matched = false;
    for (int attempt = 0; attempt < 2 && !matched; attempt++) {
        paced(wr_a, a, index);
        paced(wr_b, b, index);
        unsigned char got_a = paced(rd_a, 0, index);
        unsigned char got_b = paced(rd_b, 0, index);
        matched = got_a == a && got_b == b;
    }
    return matched;
}

unsigned char do_control_transfer(int code, int value, unsigned int index) {
    libusb_device_handle* handle = UsbDevHandle::pDevH[index];
    if (handle == nullptr) return 1;
    RequestShape shape;
    if (!shape_of(code, shape)) return 1;

    unsigned char reply[2048];
    memset(reply, 0, shape.length);
    // A failed transfer leaves the zeroed reply: the callers verify by
    // reading back, not by the transfer's status.
    usb_control_msg(handle, kRequestTypeIn, code, shape.sends_value ? value : 0, 0, reinterpret_cast<char*>(reply),
                    shape.length, shape.timeout_ms);
    return code == kCmdIdentity ? 1 : reply[0];
}

int start_sensor(unsigned int index) {
    do_control_transfer(kCmdOperation, kOpStart, index);
    pause_ms(10);
    return 1;
}

int stop_sensor(unsigned int index) {
    do_control_transfer(kCmdOperation, kOpStop, index);
    pause_ms(10);
    return 1;
}

unsigned char read_register_data(unsigned char reg, unsigned int index) {
    // Registers 5-8 and 11 map to codes do_control_transfer does not send:
    // deliberately inert, they read as 1 without traffic.
    static const int kReadCodes[] = {0, kRdShutterHigh, kRdShutterLow, kRdBlankHigh, kRdBlankLow, 42, 43,
                                     44, 45, kRdAdcRange, kRdAdcGainRes, 41};
    if (reg < 1 || reg > 11) return 0;
    return do_control_transfer(kReadCodes[reg], 0, index);
}

int write_register_data(unsigned char reg, unsigned char value, unsigned int index) {
    // Registers 5-8 are inert here too.
    static const int kWriteCodes[] = {0, kWrShutterHigh, kWrShutterLow, kWrBlankHigh, kWrBlankLow, 49, 50,
                                      51, 52, kWrAdcRange, kWrAdcGainRes};
    if (reg < 1 || reg > 10) return 1;
    do_control_transfer(kWriteCodes[reg], value & 0xFF, index);
    return 1;
}

int initialize_sensor(unsigned int index) {
    iCurBlankTime = kInitBlankTime;
    write_pair_verified(kWrAdcRange, kInitAdcRange, kWrAdcGainRes, kInitAdcGainRes, kRdAdcRange, kRdAdcGainRes,
                        index);
    bool shutter_ok = write_pair_verified(kWrShutterHigh, kInitShutterHigh, kWrShutterLow, kInitShutterLow,
                                          kRdShutterHigh, kRdShutterLow, index);
    initialize_blank_time(index);
    iTotalCount++;
    if (shutter_ok)
        iSuccessCount++;
    else
        iFailCount++;
    return 1;
}

int set_frame_data_acq_mode(unsigned int, unsigned int index) {
    initialize_blank_time(index);
    return 1;
}

void send_command_to_device(int, int, unsigned int) {}

bool read_from_device(int, int, unsigned int) { return true; }

int get_current_shutter_speed() { return 1; }

// ---- Frames -------------------------------------------------------------

using orbframe::kFrameBytes;
using orbframe::kSamples;

// Every request of the request-per-frame path carries this value.
constexpr int kControlFrameValue = 0x84;
constexpr int kControlFrameTimeoutMs = 2000;

constexpr int kFmaRows = 100;

RANGE subgroup_range[18] = {{4, 255},   {257, 272}, {274, 305}, {307, 322}, {330, 387}, {388, 447},
                            {450, 483}, {485, 506}, {508, 574}, {577, 600}, {602, 649}, {651, 674},
                            {680, 701}, {704, 727}, {730, 767}, {768, 783}, {816, 859}, {862, 898}};

std::vector<std::vector<int>> frameDataQueue;
pthread_mutex_t exit_cond_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t exit_cond = PTHREAD_COND_INITIALIZER;
std::atomic<int> g_count{0};
std::atomic<int> iCurrAvgNum{0};
std::atomic<int> iCurrAcqMode{0};
std::atomic<bool> bulkModeStarted{false};
bool asyncTransferInitialized = false;
pthread_t usbEventLoop_thread;
std::atomic<int> do_exit{0};
bool stopFlag = false;
libusb_transfer* gTransfer_in = nullptr;
unsigned char framebuf2048[2048];
unsigned char* framebuf[1] = {nullptr};
bool g_enable_FMA = false;
double g_FMA_Buffer[100][1024];
int g_FMA_FrameCount = 0;
bool g_FMA_Buffered = false;

namespace {

// The callback's hot loop, eight samples at a time.
void unpack_frame(const unsigned char* wire, int* values) { orbframe::unpack_to_int(wire, values); }

// A stop first, so that a sensor still streaming for an earlier host starts
// a fresh stream.
void start_streaming(unsigned int index) {
    acquire_frame_data_bulk(kCmdStreamStop, index);
    pause_ms(kStreamGapMs);
    acquire_frame_data_bulk(kCmdStreamStart, index);
}

// Three stops: the controller can miss one while it is busy with a frame.
void stop_streaming(unsigned int index) {
    acquire_frame_data_bulk(kCmdStreamStop, index);
    pause_ms(kStreamGapMs);
    acquire_frame_data_bulk(kCmdStreamStop, index);
    pause_ms(kStreamGapMs);
    acquire_frame_data_bulk(kCmdStreamStop, index);
    bulkModeStarted = false;
}

void print_rule_pair() {
    static const std::string rule(57, '@');
    puts(rule.c_str());
    puts(rule.c_str());
}

libusb_device_handle* handle_of(unsigned int index) { return UsbDevHandle::pDevH[index]; }

int submit_frame_transfer(libusb_device_handle* handle, libusb_transfer* transfer, unsigned char* buffer,
                          int length) {
    // No time-out: the sensor sends only while streaming, which may be
    // stopped for as long as the host likes.
    libusb_fill_bulk_transfer(transfer, handle, kFrameEndpoint, buffer, length, cb_bulkdata, nullptr, 0);
    // A refused submission shows as frames that never arrive; there is no
    // second transfer to fall back on.
    libusb_submit_transfer(transfer);
    return 0;
}

}  // namespace

int get_sleep_time_for_shutter_speed(int iShutterSpeed) {
    // A wrapped exposure of an absurd shutter speed falls back to g_iSleepTime.
    int32_t exposure = exposure_ticks(iShutterSpeed);
    int frame_ms = static_cast<int>(ceil(exposure / 5000.0 * 3.0));
    return std::max(g_iSleepTime, frame_ms);
}

int acquire_frame_data_bulk(int iCommand, unsigned int iDeviceId) {
    int settle_ms = get_sleep_time_for_shutter_speed(g_iCurShutterSpeed);
    libusb_device_handle* handle = handle_of(iDeviceId);
    if (handle == nullptr) return 0;
    usb_control_msg(handle, kRequestTypeOut, iCommand & 0xFF, 0, kStreamInterface, nullptr, 0, kStreamTimeoutMs);
    pause_ms(settle_ms);
    return 0;
}

int alloc_transfer_bulk_l(int num_iso_pack, int length, unsigned char*, unsigned int iDeviceId) {
    libusb_device_handle* handle = handle_of(iDeviceId);
    if (handle == nullptr || num_iso_pack < 0 || length < 0) return -1;
    // The callback unpacks and clears a whole frame whatever length was asked
    // for, so the buffer never holds less.
    unsigned char* buffer = new (std::nothrow) unsigned char[std::max(length, kFrameBytes)]();
    if (buffer == nullptr) return -1;
    libusb_transfer* transfer = libusb_alloc_transfer(num_iso_pack);
    if (transfer == nullptr) {
        delete[] buffer;
        return -1;
    }
    return submit_frame_transfer(handle, transfer, buffer, length);
}

int alloc_transfer_bulk(unsigned int iDeviceId) {
    libusb_device_handle* handle = handle_of(iDeviceId);
    if (handle == nullptr) return -1;
    memset(framebuf2048, 0, sizeof framebuf2048);
    gTransfer_in = libusb_alloc_transfer(0);
    if (gTransfer_in == nullptr) return -1;
    return submit_frame_transfer(handle, gTransfer_in, framebuf2048, kFrameBytes);
}

void LIBUSB_CALL cb_bulkdata(libusb_transfer* transfer) {
    // A running stream needs every completion, not only those inside this
    // request's window, and must hear of a failed one; the tap reads the
    // transfer before the buffer is cleared below and changes nothing here.
    orbstream::frame_tap(transfer);
    if (transfer->status != LIBUSB_TRANSFER_COMPLETED) {
        fprintf(stderr, "bulk data transfer status %d?\n", transfer->status);
        request_exit(2);
        return;
    }
    int skip = iCurrAcqMode == kModeSingleShot ? kSingleShotSkip : 0;
    // Frames past the request cost no lock: the stream runs on in
    // continuous mode while nobody waits.
    if (iCurrAvgNum + skip > g_count) {
        pthread_mutex_lock(&exit_cond_lock);
        int wanted = iCurrAvgNum;
        // A short frame must not show the previous frame's tail: the buffer
        // goes back zeroed, cleared as it is unpacked when the frame is kept.
        if (g_count >= skip && static_cast<int>(frameDataQueue.size()) < wanted) {
            int values[kSamples];
            orbframe::unpack_to_int_clearing(transfer->buffer, values);
            frameDataQueue.emplace_back(values, values + kSamples);
        } else {
            memset(transfer->buffer, 0, kFrameBytes);
        }
        if (static_cast<int>(frameDataQueue.size()) == wanted) pthread_cond_signal(&exit_cond);
        g_count++;
        pthread_mutex_unlock(&exit_cond_lock);
    }
    if (libusb_submit_transfer(transfer) < 0) {
        puts("===>>>> libusb_submit_transfer fail!!!");
        request_exit(2);
    }
}

void* usbEventLoop_thread_main(void*) {
    while (do_exit == 0) {
        timeval timeout = {1, 0};
        if (libusb_handle_events_timeout(nullptr, &timeout) < 0) {
            request_exit(2);
            break;
        }
    }
    return nullptr;
}

void request_exit(int code) {
    do_exit = code;
    pthread_cond_signal(&exit_cond);
    // Streams wait on their own condition: wake them to see do_exit.
    orbstream::frame_tap(nullptr);
}

double get_filter_data_from_sensor(double* fpFilterValueAveraged, int iNumOfAverages, int, int useContAcq,
                                   unsigned int iDeviceId) {
    int mode = useContAcq == 0 ? kModeSingleShot : useContAcq;
    iCurrAcqMode = mode;
    g_count = 0;
    // Once primed, the moving average takes one new frame per call, which
    // priming left in iCurrAvgNum.
    bool moving = g_enable_FMA && g_FMA_Buffered;
    if (!moving) iCurrAvgNum = iNumOfAverages;
    int wanted = std::max(iNumOfAverages, 1);

    if ((mode == kModeContinuous || mode == kModeSingleShot) && !bulkModeStarted) {
        bulkModeStarted = true;
        try {
            start_streaming(iDeviceId);
        } catch (...) {
            puts("=========== Exception =============!!!");
            puts("=========== Exception occurs in get_filter_data_from_sensor!!!");
            puts("=========== Exception =============!!!");
            stop_streaming(iDeviceId);
        }
    }
    bool stop_after = mode == kModeCollect || mode == kModeSingleShot;
    bool stop_now = false;

    double sum[kSamples] = {};
    int divisor = wanted;
    pthread_mutex_lock(&exit_cond_lock);
    try {
        if (moving) {
            while (frameDataQueue.empty()) pthread_cond_wait(&exit_cond, &exit_cond_lock);
            if (frameDataQueue.size() == 1) {
                stop_now = stop_after && bulkModeStarted;
            } else {
                print_rule_pair();
                printf("===========> ERROR: frameDataQueue.size() = %d\n", static_cast<int>(frameDataQueue.size()));
                print_rule_pair();
            }
        } else {
            while (static_cast<int>(frameDataQueue.size()) < wanted) pthread_cond_wait(&exit_cond, &exit_cond_lock);
            if (static_cast<int>(frameDataQueue.size()) == wanted) {
                stop_now = stop_after && bulkModeStarted;
            } else {
                print_rule_pair();
                puts("-----------> ERROR: frameDataQueue.size() != iAvgNum");
                print_rule_pair();
            }
        }

        if (!g_enable_FMA) {
            for (int k = 0; k < wanted; k++)
                for (int j = 0; j < kSamples; j++) sum[j] += frameDataQueue[k].at(j);
            iCurrAvgNum = 0;
        } else {
            int rows = std::min(wanted, kFmaRows);
            if (!g_FMA_Buffered) {
                for (int r = 0; r < rows; r++)
                    for (int j = 0; j < kSamples; j++) g_FMA_Buffer[r][j] = frameDataQueue[r].at(j);
                g_FMA_Buffered = true;
                iCurrAvgNum = 1;
            } else {
                for (int j = 0; j < kSamples; j++) g_FMA_Buffer[g_FMA_FrameCount][j] = frameDataQueue[0].at(j);
                g_FMA_FrameCount++;
            }
            if (g_FMA_FrameCount >= rows) g_FMA_FrameCount = 0;
            for (int r = 0; r < rows; r++)
                for (int j = 0; j < kSamples; j++) sum[j] += static_cast<int>(g_FMA_Buffer[r][j]);
            divisor = rows;
        }
        frameDataQueue.clear();
    } catch (...) {
        pthread_mutex_unlock(&exit_cond_lock);
        puts("----------- Exception -------------!!!");
        puts("----------- Exception occurs in get_filter_data_from_sensor!!!");
        puts("----------- Exception -------------!!!");
        stop_streaming(iDeviceId);
        return 0.0;
    }
    pthread_mutex_unlock(&exit_cond_lock);
    // Stop requests wait for libusb's event lock, which the event-loop thread
    // holds while it runs cb_bulkdata, which takes exit_cond_lock: stopping
    // with that lock held would order the two locks both ways round.
    if (stop_now) stop_streaming(iDeviceId);

    if (fpFilterValueAveraged != nullptr)
        for (int j = 0; j < kSamples; j++) fpFilterValueAveraged[j] = sum[j] / divisor;
    return 0.0;
}

int acquire_frame_data_control(int iCommand, unsigned int iDeviceId) {
    int settle_ms = get_sleep_time_for_shutter_speed(g_iCurShutterSpeed);
    for (int count = 0; !stopFlag && count < iCurrAvgNum; count++) {
        unsigned char frame[kFrameBytes] = {};
        usb_control_msg(handle_of(iDeviceId), kRequestTypeIn, iCommand & 0xFF, kControlFrameValue, kStreamInterface,
                        reinterpret_cast<char*>(frame), kFrameBytes, kControlFrameTimeoutMs);
        pause_ms(settle_ms);
        if (count == 0 || count == iCurrAvgNum - 1) {
            printf("Received data Count = %d\n", count);
            printf("===>>>> curent count : %d\n", count);
        }
        int values[kSamples];
        unpack_frame(frame, values);
        // The event loop may be servicing the bulk endpoint at the same time.
        pthread_mutex_lock(&exit_cond_lock);
        if (static_cast<int>(frameDataQueue.size()) < iCurrAvgNum)
            frameDataQueue.emplace_back(values, values + kSamples);
        pthread_mutex_unlock(&exit_cond_lock);
    }
    return 1;
}

void convert_2048C_to_1024F(unsigned char* inputC, double* outputF) {
    if (inputC == nullptr || outputF == nullptr) return;
    // Copied aside first, so a caller may hand in overlapping buffers.
    unsigned char frame[kFrameBytes];
    memcpy(frame, inputC, kFrameBytes);
    memset(inputC, 0, kFrameBytes);
    for (int i = 0; i < kSamples; i++) outputF[i] = orbframe::sample_at(frame, i);
}

double acquire_frame_data(double*, int, unsigned int) { return 0.0; }

int acquire_frame_data_2048(char*, unsigned int) { return 1; }

SMA::SMA(unsigned int period) : period(period), window(nullptr), head(nullptr), tail(nullptr), total(0.0) {
    assert(period >= 1);
    window = new double[period];
}

SMA::~SMA() { delete[] window; }

void SMA::add(double x) {
    if (head == nullptr) {
        head = window;
        *head = x;
        tail = head;
        inc(tail);
        total = x;
        return;
    }
    if (head == tail) {
        total -= *head;
        inc(head);
    }
    *tail = x;
    inc(tail);
    total += x;
}

void SMA::inc(double*& p) const {
    if (++p == window + period) p = window;
}

unsigned int SMA::size() const {
    if (head == nullptr) return 0;
    if (head == tail) return period;
    return static_cast<unsigned int>((tail - head + period) % period);
}

double SMA::avg() const {
    unsigned int n = size();
    return n == 0 ? 0.0 : total / n;
}
