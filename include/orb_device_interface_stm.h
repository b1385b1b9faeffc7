#ifndef ORB_DEVICE_INTERFACE_STM_H
#define ORB_DEVICE_INTERFACE_STM_H

// The sensor's firmware commands: every register access of the controller is
// a class request on endpoint 0, sent by do_control_transfer. And the frames:
// once started, the sensor streams 2048-byte frames on bulk endpoint 0x81,
// which one self-resubmitting transfer, serviced by the event-loop thread,
// unpacks into frameDataQueue for get_filter_data_from_sensor to average.

#include <pthread.h>
#include <stdint.h>

#include <atomic>
#include <vector>

#include <libusb.h>

#include "orb_export.h"

// Pause after each register access of the longer sequences, in ms. The
// controller needs it to latch a register before the next request.
ORB_EXPORT extern int g_iSleepTime;
ORB_EXPORT extern bool m_bVerbose;
// Declared for received data; replies land in per-request buffers instead.
ORB_EXPORT extern unsigned char ucEfm32_ReceivedBytes[2048];

// Verified settings (initialisation, shutter speed, ADC) and how they fared.
ORB_EXPORT extern int iTotalCount;
ORB_EXPORT extern int iSuccessCount;
ORB_EXPORT extern int iFailCount;
// Last blank time written to or read from the sensor.
ORB_EXPORT extern int iCurBlankTime;

// Sends request `code` to sensor `index` and returns the first reply byte.
// Codes the controller does not know send nothing and yield 1, as does an
// index without a handle.
ORB_EXPORT unsigned char do_control_transfer(int code, int value, unsigned int index);

ORB_EXPORT int start_sensor(unsigned int index);
ORB_EXPORT int stop_sensor(unsigned int index);

// Registers by number: 1/2 shutter high/low, 3/4 blank time high/low, 9/10
// ADC. 5-8 and 11 are inert; other numbers read 0 and write nothing.
ORB_EXPORT unsigned char read_register_data(unsigned char reg, unsigned int index);
ORB_EXPORT int write_register_data(unsigned char reg, unsigned char value, unsigned int index);

// Default ADC (range 132, gain 0, resolution 0), shutter speed 1 and blank
// time 2, each verified by reading back and written again once on mismatch.
ORB_EXPORT int initialize_sensor(unsigned int index);
// Rewrites the default blank time; the mode is not a register of its own.
ORB_EXPORT int set_frame_data_acq_mode(unsigned int mode, unsigned int index);

// Placeholders that send nothing: read_from_device answers true and
// get_current_shutter_speed 1, which the sensor board check relies on.
ORB_EXPORT void send_command_to_device(int code, int value, unsigned int index);
ORB_EXPORT bool read_from_device(int code, int value, unsigned int index);
ORB_EXPORT int get_current_shutter_speed();

// Brings sensor `index` into service: look-up tables, connection, firmware
// start, default ADC and on-board averaging, the event-loop thread (first
// bring-up of index 0 only), the bulk transfer, the LED module, and streaming
// stopped. 1, or 6 (vn_ec_fail_to_initialize_device) when it cannot connect.
ORB_EXPORT int initialize_device_interface(unsigned int index);
// Takes it out again, closing the LED driver (and libusb's default context)
// and ending the event-loop thread for the whole process. Always 1.
ORB_EXPORT int close_device_interface(unsigned int index);

// ---- Frames -------------------------------------------------------------

// Filter subgroups of the sensor's layout, inclusive filter indices.
typedef struct RANGE {
    double begin;
    double end;
} RANGE;
ORB_EXPORT extern RANGE subgroup_range[18];

// Unpacked frames (1024 values each), oldest first, and the completions
// counted for the current request: both guarded by exit_cond_lock, which
// exit_cond goes with. exit_cond is signalled when the queue holds the frames
// asked for, and by request_exit.
ORB_EXPORT extern std::vector<std::vector<int>> frameDataQueue;
ORB_EXPORT extern pthread_mutex_t exit_cond_lock;
ORB_EXPORT extern pthread_cond_t exit_cond;
// Read before the lock is taken, to let frames outside the request pass cheaply.
ORB_EXPORT extern std::atomic<int> g_count;

// Flags the caller's thread hands to the completion callback.
ORB_EXPORT extern std::atomic<int> iCurrAvgNum;     // frames to queue for the current request
ORB_EXPORT extern std::atomic<int> iCurrAcqMode;    // acquisition mode of the current request
ORB_EXPORT extern std::atomic<bool> bulkModeStarted;  // streaming started and not yet stopped

// Set once the event-loop thread runs; it is started only once per process.
ORB_EXPORT extern bool asyncTransferInitialized;
ORB_EXPORT extern pthread_t usbEventLoop_thread;
// Non-zero ends the event loop: 1 for an orderly close, 2 after a USB error.
ORB_EXPORT extern std::atomic<int> do_exit;
// Ends acquire_frame_data_control's loop early.
ORB_EXPORT extern bool stopFlag;

ORB_EXPORT extern libusb_transfer* gTransfer_in;
ORB_EXPORT extern unsigned char framebuf2048[2048];
ORB_EXPORT extern unsigned char* framebuf[1];

// Frame moving average: a ring of the last frames, primed once by the first
// call after g_enable_FMA is set; each later call adds one new frame.
ORB_EXPORT extern bool g_enable_FMA;
ORB_EXPORT extern double g_FMA_Buffer[100][1024];
ORB_EXPORT extern int g_FMA_FrameCount;  // next ring row to overwrite
ORB_EXPORT extern bool g_FMA_Buffered;

// Acquisition modes (useContAcq): 0 is taken as 3; 1 starts streaming if
// needed and leaves it on; 2 only collects, stopping streaming afterwards if
// it ran; 3 streams for this call only and drops the first 2 frames of the
// fresh stream. Writes the average of iNumOfAverages frames (or the moving
// average) to 1024 doubles and returns 0.0. Blocks until the frames arrive:
// with a dead event loop, or N < 1 outside the moving average, it never
// returns.
ORB_EXPORT double get_filter_data_from_sensor(double* fpFilterValueAveraged, int iNumOfAverages,
                                              int iDarkCorrectionMode, int useContAcq, unsigned int iDeviceId);

// Streaming control: 70 starts, 71 stops. Returns 0.
ORB_EXPORT int acquire_frame_data_bulk(int iCommand, unsigned int iDeviceId);
// Submits the sensor's one bulk transfer on 0x81; it resubmits itself from
// cb_bulkdata for as long as the process lives. -1 when there is no transfer
// to submit (no handle, or none could be allocated).
ORB_EXPORT int alloc_transfer_bulk_l(int num_iso_pack, int length, unsigned char* buffer, unsigned int iDeviceId);
ORB_EXPORT int alloc_transfer_bulk(unsigned int iDeviceId);
ORB_EXPORT void LIBUSB_CALL cb_bulkdata(libusb_transfer* transfer);
// Body of the event-loop thread: handles libusb events until do_exit is set.
ORB_EXPORT void* usbEventLoop_thread_main(void* arg);
ORB_EXPORT void request_exit(int code);

// The older request-per-frame path: reads iCurrAvgNum frames with command
// iCommand into the queue. Returns 1.
ORB_EXPORT int acquire_frame_data_control(int iCommand, unsigned int iDeviceId);

// Unpacks a wire frame into 1024 values and clears the wire buffer.
ORB_EXPORT void convert_2048C_to_1024F(unsigned char* inputC, double* outputF);
// Pause after a streaming request, in ms: a frame period at that shutter
// speed, at least g_iSleepTime.
ORB_EXPORT int get_sleep_time_for_shutter_speed(int iShutterSpeed);

ORB_EXPORT double acquire_frame_data(double* frame, int iNumOfAverages, unsigned int iDeviceId);
ORB_EXPORT int acquire_frame_data_2048(char* frame, unsigned int iDeviceId);

// Simple moving average over the last `period` values.
class ORB_EXPORT SMA {
public:
    explicit SMA(unsigned int period);
    ~SMA();
    SMA(const SMA&) = delete;
    SMA& operator=(const SMA&) = delete;

    void add(double x);
    unsigned int size() const;
    double avg() const;

private:
    void inc(double*& p) const;

    uint32_t period;
    double* window;
    double* head;  // oldest value; null while empty
    double* tail;  // where the next value goes
    double total;
};

#endif  // ORB_DEVICE_INTERFACE_STM_H
