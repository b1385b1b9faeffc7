#include <dlfcn.h>

#include <mutex>
#include <set>

// The wrappers must be visible to liborb_device, which then calls them in
// place of libusb's own.
#pragma GCC visibility push(default)
#include "usb_ledger.h"
#pragma GCC visibility pop

namespace {

std::mutex g_lock;
std::set<libusb_device_handle*> g_open;
long g_inits = 0;
long g_exits = 0;

template <typename F>
F next_definition(const char* name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

}  // namespace

int LIBUSB_CALL libusb_open(libusb_device* dev, libusb_device_handle** dev_handle) {
    static const auto real = next_definition<int (*)(libusb_device*, libusb_device_handle**)>("libusb_open");
    const int r = real(dev, dev_handle);
    if (r == 0) {
        std::lock_guard<std::mutex> lock(g_lock);
        g_open.insert(*dev_handle);
    }
    return r;
}

void LIBUSB_CALL libusb_close(libusb_device_handle* dev_handle) {
    static const auto real = next_definition<void (*)(libusb_device_handle*)>("libusb_close");
    {
        std::lock_guard<std::mutex> lock(g_lock);
        g_open.erase(dev_handle);
    }
    real(dev_handle);
}

int LIBUSB_CALL libusb_init(libusb_context** ctx) {
    static const auto real = next_definition<int (*)(libusb_context**)>("libusb_init");
    const int r = real(ctx);
    if (r == 0 && ctx == nullptr) {
        std::lock_guard<std::mutex> lock(g_lock);
        g_inits++;
    }
    return r;
}

void LIBUSB_CALL libusb_exit(libusb_context* ctx) {
    static const auto real = next_definition<void (*)(libusb_context*)>("libusb_exit");
    if (ctx == nullptr) {
        std::lock_guard<std::mutex> lock(g_lock);
        g_exits++;
    }
    real(ctx);
}

namespace usb_ledger {

std::vector<libusb_device_handle*> open_handles() {
    std::lock_guard<std::mutex> lock(g_lock);
    return {g_open.begin(), g_open.end()};
}

long default_context_inits() {
    std::lock_guard<std::mutex> lock(g_lock);
    return g_inits;
}

long default_context_exits() {
    std::lock_guard<std::mutex> lock(g_lock);
    return g_exits;
}

}  // namespace usb_ledger
