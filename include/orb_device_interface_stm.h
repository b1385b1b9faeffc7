#ifndef ORB_DEVICE_INTERFACE_STM_H
#define ORB_DEVICE_INTERFACE_STM_H

// The sensor's firmware commands: every register access of the controller is
// a class request on endpoint 0, sent by do_control_transfer. And the frames:
// once started, the sensor streams 2048-byte frames on bulk endpoint 0x81,
// which one self-resubmitting transfer, serviced by the event-loop thread,
// unpacks into frameDataQueue for get_filter_data_from_sensor to average.

#include "orb_export.h"

// Pause after each register access of the longer sequences, in ms. The
// controller needs it to latch a register before the next request.
ORB_EXPORT extern int g_iSleepTime;
ORB_EXPORT extern bool m_bVerbose;
// Kept for hosts built against the controller's receive buffer; replies land
// in per-request buffers instead.
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

// Register numbers 1-11 as the controller's documentation counts them.
ORB_EXPORT unsigned char read_register_data(unsigned char reg, unsigned int index);
ORB_EXPORT int write_register_data(unsigned char reg, unsigned char value, unsigned int index);

// Default ADC (range 132, gain 0, resolution 0), shutter speed 1 and blank
// time 2, each verified by reading back and written again once on mismatch.
ORB_EXPORT int initialize_sensor(unsigned int index);
// Rewrites the default blank time; the mode is not a register of its own.
ORB_EXPORT int set_frame_data_acq_mode(unsigned int mode, unsigned int index);

// Entry points of a protocol generation the firmware never shipped.
ORB_EXPORT void send_command_to_device(int code, int value, unsigned int index);
ORB_EXPORT bool read_from_device(int code, int value, unsigned int index);
ORB_EXPORT int get_current_shutter_speed();

#endif  // ORB_DEVICE_INTERFACE_STM_H
