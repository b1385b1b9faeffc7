// Bringing one sensor index into service and taking it out again.

#include <pthread.h>
#include <unistd.h>

#include <libusb.h>

#include "orb_device_interface_ae.h"
#include "orb_device_interface_device_settings.h"
#include "orb_device_interface_led.h"
#include "orb_device_interface_onboard_processings.h"
#include "orb_device_interface_stm.h"
#include "orb_device_interface_stm_usb.h"
#include "orb_error_codes.h"
#include "orb_frame_samples.h"
#include "orb_stm_commands.h"

namespace {

constexpr int kBringUpAdcRange = 132;
constexpr int kBringUpAdcGain = 1;
constexpr int kBringUpAdcRes = 0;
constexpr int kCloseStopGapMs = 20;
constexpr int kCloseSettleMs = 10;

// The event-loop thread exists from the first bring-up of index 0 until the
// first shut-down joins it; it is never started again in this process.
bool g_event_loop_running = false;

void start_event_loop() {
    g_event_loop_running = pthread_create(&usbEventLoop_thread, nullptr, usbEventLoop_thread_main, nullptr) == 0;
    asyncTransferInitialized = true;
    for (int i = 0; i < maxNumOfDevice; i++) allocTransferBulkMap.insert({i, false});
}

void stop_event_loop() {
    request_exit(1);
    if (!g_event_loop_running) return;
    // Wakes libusb so that the loop sees the request now rather than at the
    // end of its 1 s wait.
    libusb_interrupt_event_handler(nullptr);
    pthread_join(usbEventLoop_thread, nullptr);
    g_event_loop_running = false;
}

}  // namespace

int initialize_device_interface(unsigned int index) {
    int status = vn_ec_success;
    initialize_ae_module("./config/intensity_LUT.csv", "./config/ss_LUT.csv");

    bool connected = connect_device(index) == 1;
    if (connected) {
        initialize_sensor(index);
        start_sensor(index);
        set_adc_setting_values(kBringUpAdcRange, kBringUpAdcGain, kBringUpAdcRes, index);
        set_frame_average_count_for_on_board_processing(0, index);
        get_frame_average_count_for_on_board_processing(index);
    } else {
        status = vn_ec_fail_to_initialize_device;
    }

    if (index == 0 && !asyncTransferInitialized) start_event_loop();

    // Only sensors brought up after index 0 started the event loop get a
    // frame transfer; each gets one for the life of the process.
    if (connected && !allocTransferBulkMap.empty() && !allocTransferBulkMap[index]) {
        alloc_transfer_bulk_l(0, orbframe::kFrameBytes, nullptr, index);
        allocTransferBulkMap[index] = true;
    }

    connect_LED_device();

    // A sensor may still be streaming for an earlier host: leave it idle.
    if (connected && !allocTransferBulkMap.empty()) acquire_frame_data_bulk(kCmdStreamStop, index);
    return status;
}

int close_device_interface(unsigned int index) {
    stop_sensor(index);
    disconnect_device(index);
    is_led_driver_close();
    // The handle is gone by now, so these stops send nothing; looking it up
    // leaves the index in the handle table with a null handle.
    acquire_frame_data_bulk(kCmdStreamStop, index);
    pause_ms(kCloseStopGapMs);
    acquire_frame_data_bulk(kCmdStreamStop, index);
    pause_ms(kCloseStopGapMs);
    acquire_frame_data_bulk(kCmdStreamStop, index);

    stop_event_loop();
    pause_ms(kCloseSettleMs);
    delete[] framebuf[0];
    framebuf[0] = nullptr;
    return vn_ec_success;
}
