#include <gtest/gtest.h>

#include <errno.h>

#include <string>
#include <vector>

#include "emulated_bus.h"
#include "lusbi.h"
#include "orb_error_codes.h"

extern "C" int orb_c_header_check(void);

namespace {

struct usb_bus* find_bus(const char* dirname) {
    for (struct usb_bus* bus = usb_get_busses(); bus; bus = bus->next)
        if (std::string(bus->dirname) == dirname) return bus;
    return nullptr;
}

struct usb_device* find_sensor(struct usb_bus* bus, const char* filename) {
    for (struct usb_device* dev = bus ? bus->devices : nullptr; dev; dev = dev->next)
        if (std::string(dev->filename) == filename) return dev;
    return nullptr;
}

// Opens the first 0483:5740 device through the 0.1 interface.
usb_dev_handle* open_first_sensor() {
    usb_init();
    usb_find_busses();
    usb_find_devices();
    for (struct usb_bus* bus = usb_get_busses(); bus; bus = bus->next)
        for (struct usb_device* dev = bus->devices; dev; dev = dev->next)
            if (dev->descriptor.idVendor == 0x0483 && dev->descriptor.idProduct == 0x5740) return usb_open(dev);
    return nullptr;
}

orbsim::ControlRequest last_request(const orbsim::Sensor& s) {
    auto log = s.requests();
    return log.empty() ? orbsim::ControlRequest{} : log.back();
}

}  // namespace

TEST(LusbLists, NothingIsFoundBeforeInit) {
    testbed().add_sensor();
    EXPECT_EQ(usb_find_busses(), 0);
    EXPECT_EQ(usb_find_devices(), 0);
    EXPECT_EQ(usb_get_busses(), nullptr);
}

TEST(LusbLists, BussesAndDevicesMirrorTheSystem) {
    testbed().add_sensor(1);
    testbed().add_sensor(3, 12);
    usb_init();
    EXPECT_EQ(usb_find_busses(), 2);
    EXPECT_EQ(usb_find_busses(), 0) << "an unchanged system reports no changes";

    struct usb_bus* bus3 = find_bus("003");
    ASSERT_NE(bus3, nullptr);
    EXPECT_EQ(bus3->location, 3u);
    ASSERT_NE(find_bus("001"), nullptr);

    int added = usb_find_devices();
    EXPECT_GE(added, 2);
    EXPECT_EQ(usb_find_devices(), 0);

    struct usb_device* dev = find_sensor(bus3, "012");
    ASSERT_NE(dev, nullptr);
    EXPECT_EQ(dev->devnum, 12);
    EXPECT_EQ(dev->bus, bus3);
    EXPECT_EQ(dev->descriptor.idVendor, 0x0483);
    EXPECT_EQ(dev->descriptor.idProduct, 0x5740);
    ASSERT_EQ(dev->descriptor.bNumConfigurations, 1);
    const usb_config_descriptor& config = dev->config[0];
    ASSERT_EQ(config.bNumInterfaces, 1);
    ASSERT_EQ(config.interface[0].num_altsetting, 1);
    const usb_interface_descriptor& iface = config.interface[0].altsetting[0];
    EXPECT_EQ(iface.bInterfaceNumber, 0);
    ASSERT_GE(iface.bNumEndpoints, 1);
    bool bulk_in = false;
    for (int i = 0; i < iface.bNumEndpoints; i++)
        bulk_in |= iface.endpoint[i].bEndpointAddress == 0x81 && (iface.endpoint[i].bmAttributes & 3) == 2;
    EXPECT_TRUE(bulk_in);
}

TEST(LusbLists, UnpluggedDeviceLeavesTheList) {
    testbed().add_sensor();
    auto& gone = testbed().add_sensor();
    usb_init();
    usb_find_busses();
    int before = usb_find_devices();
    testbed().unplug(gone);
    EXPECT_EQ(usb_find_devices(), 1);
    int left = 0;
    for (struct usb_bus* bus = usb_get_busses(); bus; bus = bus->next)
        for (struct usb_device* dev = bus->devices; dev; dev = dev->next) left++;
    EXPECT_EQ(left, before - 1);
}

TEST(LusbControl, PassesOnlyTheLowBitsOfEachField) {
    auto& sensor = testbed().add_sensor();
    usb_dev_handle* dev = open_first_sensor();
    ASSERT_NE(dev, nullptr);
    char buf[8] = {};
    // 0x1A1 -> 0xA1, 0x101 -> 1 (the identity read), 0x10005 bytes -> 5.
    int n = usb_control_msg(dev->handle, 0x1A1, 0x101, 0x12345, 0x10000, buf, 0x10005, 1000);
    EXPECT_EQ(n, 5);
    orbsim::ControlRequest r = last_request(sensor);
    EXPECT_EQ(r.bmRequestType, 0xA1);
    EXPECT_EQ(r.bRequest, 1);
    EXPECT_EQ(r.wValue, 0x2345);
    EXPECT_EQ(r.wIndex, 0);
    EXPECT_EQ(r.wLength, 5);
    EXPECT_EQ(usb_close(dev), 0);
}

TEST(LusbControl, FailuresBecomeNegativeErrno) {
    auto& sensor = testbed().add_sensor();
    sensor.stall(36);
    sensor.no_reply(4);
    usb_dev_handle* dev = open_first_sensor();
    ASSERT_NE(dev, nullptr);
    char buf[1];
    EXPECT_EQ(usb_control_msg(dev->handle, 0xA1, 36, 0, 0, buf, 1, 1000), -EPIPE);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(usb_control_msg(dev->handle, 0xA1, 4, 0, 0, buf, 1, 100), -ETIMEDOUT);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_STREQ(usb_strerror(), strerror(ETIMEDOUT));
    // A null handle is refused, never dereferenced.
    EXPECT_EQ(usb_control_msg(nullptr, 0xA1, 1, 0, 0, buf, 1, 1000), -EINVAL);
    EXPECT_EQ(usb_bulk_read(nullptr, 1, buf, 1, 10), -EINVAL);
    EXPECT_EQ(usb_bulk_write(nullptr, 1, buf, 1, 10), -EINVAL);
    EXPECT_EQ(usb_claim_interface(nullptr, 0), -EINVAL);
    usb_close(dev);
}

TEST(LusbControl, DescriptorByEndpointIsAStandardRequest) {
    auto& sensor = testbed().add_sensor();
    usb_dev_handle* dev = open_first_sensor();
    ASSERT_NE(dev, nullptr);
    unsigned char buf[18];
    usb_get_descriptor_by_endpoint(dev, 0x02, USB_DT_STRING, 3, buf, 0x10012);
    orbsim::ControlRequest r = last_request(sensor);
    EXPECT_EQ(r.bmRequestType, 0x82);
    EXPECT_EQ(r.bRequest, 6);
    EXPECT_EQ(r.wValue, 0x0303);
    EXPECT_EQ(r.wIndex, 0);
    EXPECT_EQ(r.wLength, 0x12);
    usb_close(dev);
}

TEST(LusbHandles, RefusedOpenSetsErrno) {
    auto& sensor = testbed().add_sensor();
    testbed().refuse_open(sensor);
    orbsim::DropDacOverride not_root;
    errno = 0;
    EXPECT_EQ(open_first_sensor(), nullptr);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(usb_open(nullptr), nullptr);
}

// Claiming goes through the raw handle, so a usb_dev_handle never learns
// which interface it holds and refuses alternate settings.
TEST(LusbHandles, AltSettingIsRefusedOnAFreshHandle) {
    auto& sensor = testbed().add_sensor();
    usb_dev_handle* dev = open_first_sensor();
    ASSERT_NE(dev, nullptr);
    EXPECT_EQ(dev->last_claimed_interface, -1);
    EXPECT_EQ(usb_device(dev)->descriptor.idProduct, 0x5740);
    EXPECT_EQ(usb_claim_interface(dev->handle, 0), 0);
    EXPECT_EQ(usb_set_altinterface(dev, 0), -EINVAL);
    EXPECT_EQ(usb_release_interface(dev, 0), 0);
    EXPECT_TRUE(seen(sensor, orbsim::Event::SetInterface).empty());
    usb_close(dev);
}

TEST(LusbHandles, RefusedClaimIsBusy) {
    testbed().add_sensor().refuse_claim();
    usb_dev_handle* dev = open_first_sensor();
    ASSERT_NE(dev, nullptr);
    EXPECT_EQ(usb_claim_interface(dev->handle, 0), -EBUSY);
    usb_close(dev);
}

// Whatever configuration is asked for, the active one is applied again.
TEST(LusbHandles, SetConfigurationReappliesTheActiveOne) {
    auto& sensor = testbed().add_sensor();
    usb_dev_handle* dev = open_first_sensor();
    ASSERT_NE(dev, nullptr);
    EXPECT_EQ(usb_set_configuration(dev, 2), 0);
    EXPECT_EQ(seen(sensor, orbsim::Event::SetConfiguration), std::vector<int>{1});
    usb_close(dev);
}

TEST(LusbHandles, HaltAndResetReachTheDevice) {
    auto& sensor = testbed().add_sensor();
    usb_dev_handle* dev = open_first_sensor();
    ASSERT_NE(dev, nullptr);
    EXPECT_EQ(usb_clear_halt(dev, 0x181), 0);
    EXPECT_EQ(usb_resetep(dev, 0x81), 0);
    EXPECT_EQ(seen(sensor, orbsim::Event::ClearHalt), (std::vector<int>{0x81, 0x81}));
    usb_close(dev);
}

TEST(LusbErrno, EveryLibusbCodeMaps) {
    const std::vector<std::pair<int, int>> table = {
        {LIBUSB_SUCCESS, 0},           {LIBUSB_ERROR_IO, EIO},           {LIBUSB_ERROR_INVALID_PARAM, EINVAL},
        {LIBUSB_ERROR_ACCESS, EACCES}, {LIBUSB_ERROR_NO_DEVICE, ENXIO},  {LIBUSB_ERROR_NOT_FOUND, ENOENT},
        {LIBUSB_ERROR_BUSY, EBUSY},    {LIBUSB_ERROR_TIMEOUT, ETIMEDOUT}, {LIBUSB_ERROR_OVERFLOW, EOVERFLOW},
        {LIBUSB_ERROR_PIPE, EPIPE},    {LIBUSB_ERROR_INTERRUPTED, EINTR}, {LIBUSB_ERROR_NO_MEM, ENOMEM},
        {LIBUSB_ERROR_NOT_SUPPORTED, ENOSYS}, {LIBUSB_ERROR_OTHER, ERANGE}, {-42, ERANGE}, {7, ERANGE},
    };
    for (auto [code, err] : table) EXPECT_EQ(libusb_to_errno(code), err) << code;
}

TEST(LusbLog, SilentUntilDebugIsOn) {
    testing::internal::CaptureStderr();
    std::string out = printed_by([] { usbi_log(LOG_LEVEL_INFO, "usb_open", "quiet %d", 1); });
    EXPECT_EQ(out, "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

    usb_set_debug(1);
    testing::internal::CaptureStderr();
    out = printed_by([] {
        usbi_log(LOG_LEVEL_INFO, "usb_open", "opened %03d", 7);
        usbi_log(LOG_LEVEL_DEBUG, "f", "a");
        usbi_log(LOG_LEVEL_WARNING, "f", "b");
        usbi_log(LOG_LEVEL_ERROR, "f", "c");
        usbi_log(static_cast<usbi_log_level>(9), "f", "d");
    });
    fflush(stderr);
    EXPECT_EQ(out, "triodri info: usb_open: opened 007\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "triodri debug: f: a\ntriodri warning: f: b\ntriodri error: f: c\ntriodri unknown: f: d\n");
    EXPECT_EQ(usb_debug, 1);
}

TEST(LusbHeaders, CompileAsC) { EXPECT_EQ(orb_c_header_check(), vn_ec_success); }

// A time-out after part of the data arrived still hands over that part.
TEST(LusbBulk, ReadsCountPartialTransfersAsSuccess) {
    auto& sensor = testbed().add_sensor();
    sensor.set_frame_generator(orbsim::constant_frames(0xABC));
    usb_dev_handle* dev = open_first_sensor();
    ASSERT_NE(dev, nullptr);
    ASSERT_EQ(usb_claim_interface(dev->handle, 0), 0);
    char start[1];
    usb_control_msg(dev->handle, 0x21, orbsim::kStartStreaming, 0, 1, start, 0, 1000);

    std::vector<char> frame(2048);
    // Endpoint 1 is taken as IN 0x81 for a read.
    EXPECT_EQ(usb_bulk_read(dev->handle, 0x01, frame.data(), 2048, 1000), 2048);
    EXPECT_EQ(static_cast<unsigned char>(frame[0]), 0xAB);
    EXPECT_EQ(static_cast<unsigned char>(frame[1]), 0xC5);

    sensor.trickle(10);
    EXPECT_EQ(usb_bulk_read(dev->handle, 0x81, frame.data(), 2048, 100), 10);

    sensor.trickle(0);
    EXPECT_EQ(usb_bulk_read(dev->handle, 0x81, frame.data(), 2048, 100), -ETIMEDOUT);

    // Writing clears the IN bit: endpoint 0x81 becomes OUT 0x01, which the sensor does not have.
    EXPECT_LT(usb_bulk_write(dev->handle, 0x81, frame.data(), 4, 100), 0);
    usb_close(dev);
}
