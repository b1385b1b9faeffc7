/* orb-usb-probe: a plain libusb-1.0 host, to show that any program run under
 * orb-emulate reaches the emulated sensors. For every 0483:5740 device it
 * prints bus, address and identity bytes, and with --frame also reads one
 * frame while streaming. Exits 1 when a device fails or when --expect N
 * devices were not found. On the first device instead:
 *   --set CODE=VALUE   sends a register write (repeatable), --get CODE a read;
 *   --rate S           measures how many register reads and frames get
 *                      through in S seconds each;
 *   --watch S          streams for S seconds, or until it is ended, and says
 *                      when the sensor gets stuck, goes and comes back. */

#include <libusb.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

enum { kTimeoutMs = 1000, kStuckMs = 500 };

static double now_s(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

static int rate(libusb_device* dev, double seconds) {
    libusb_device_handle* h;
    unsigned char buf[2048];
    int n, r = libusb_open(dev, &h);
    if (r != 0 || libusb_claim_interface(h, 0) != 0) return 1;
    long reads = 0, frames = 0;
    double start = now_s();
    while (now_s() - start < seconds && libusb_control_transfer(h, 0xA1, 36, 0, 0, buf, 1, 1000) == 1) reads++;
    double took = now_s() - start;
    printf("register reads/s: %.0f\n", reads / took);
    libusb_control_transfer(h, 0x21, 70, 0, 1, NULL, 0, 1000);
    start = now_s();
    while (now_s() - start < seconds && libusb_bulk_transfer(h, 0x81, buf, sizeof buf, &n, 2000) == 0 &&
           n == (int)sizeof buf)
        frames++;
    took = now_s() - start;
    libusb_control_transfer(h, 0x21, 71, 0, 1, NULL, 0, 1000);
    printf("frames/s: %.0f (%.1f MB/s)\n", frames / took, frames * 2048.0 / took / 1e6);
    libusb_release_interface(h, 0);
    libusb_close(h);
    return reads == 0 || frames == 0;
}

static int probe(libusb_device* dev, int frame) {
    libusb_device_handle* h;
    unsigned char id[5] = {0};
    unsigned char buf[2048];
    int n = 0, r = libusb_open(dev, &h);
    if (r != 0) {
        fprintf(stderr, "open: %s\n", libusb_error_name(r));
        return 1;
    }
    r = libusb_claim_interface(h, 0);
    if (r == 0) r = libusb_control_transfer(h, 0xA1, 1, 0, 0, id, sizeof id, 1000);
    if (r >= 0 && frame) {
        r = libusb_control_transfer(h, 0x21, 70, 0, 1, NULL, 0, 1000);
        if (r == 0) r = libusb_bulk_transfer(h, 0x81, buf, sizeof buf, &n, 2000);
        libusb_control_transfer(h, 0x21, 71, 0, 1, NULL, 0, 1000);
    }
    if (r < 0) {
        fprintf(stderr, "bus %03d address %03d: %s\n", libusb_get_bus_number(dev), libusb_get_device_address(dev),
                libusb_error_name(r));
    } else {
        printf("bus %03d address %03d identity %02x%02x%02x%02x%02x", libusb_get_bus_number(dev),
               libusb_get_device_address(dev), id[0], id[1], id[2], id[3], id[4]);
        if (frame) printf(" frame %d bytes", n);
        printf("\n");
    }
    libusb_release_interface(h, 0);
    libusb_close(h);
    return r < 0 || (frame && n != (int)sizeof buf);
}

static int is_sensor(libusb_device* dev) {
    struct libusb_device_descriptor d;
    return libusb_get_device_descriptor(dev, &d) == 0 && d.idVendor == 0x0483 && d.idProduct == 0x5740;
}

/* Opens and claims the first sensor on the buses now; NULL when there is none. */
static libusb_device_handle* open_first(libusb_context* ctx) {
    libusb_device** list;
    libusb_device_handle* h = NULL;
    ssize_t count = libusb_get_device_list(ctx, &list);
    for (ssize_t i = 0; i < count && !h; i++) {
        if (!is_sensor(list[i]) || libusb_open(list[i], &h) != 0) continue;
        if (libusb_claim_interface(h, 0) != 0) {
            libusb_close(h);
            h = NULL;
        }
    }
    if (count >= 0) libusb_free_device_list(list, 1);
    return h;
}

static void close_sensor(libusb_device_handle* h) {
    libusb_release_interface(h, 0);
    libusb_close(h);
}

static int registers(libusb_context* ctx, int argc, char** argv) {
    libusb_device_handle* h = open_first(ctx);
    if (!h) {
        fprintf(stderr, "no sensor\n");
        return 1;
    }
    int failed = 0;
    for (int i = 1; i < argc; i++) {
        int code, value = 0, set = strcmp(argv[i], "--set") == 0;
        if ((!set && strcmp(argv[i], "--get") != 0) || i + 1 >= argc) continue;
        const char* arg = argv[++i];
        if (set ? sscanf(arg, "%d=%d", &code, &value) != 2 : sscanf(arg, "%d", &code) != 1) continue;
        unsigned char reply = 0;
        int r = libusb_control_transfer(h, 0xA1, code & 0xFF, set ? value & 0xFF : 0, 0, &reply, 1, kTimeoutMs);
        if (r == 1) printf("register %s %d: %d\n", set ? "write" : "read", code, reply);
        else fprintf(stderr, "register %d: %s\n", code, libusb_error_name(r));
        failed |= r != 1;
    }
    close_sensor(h);
    return failed;
}

static void report(libusb_device_handle* h, const char* what) {
    libusb_device* dev = libusb_get_device(h);
    printf("%s %03d/%03d\n", what, libusb_get_bus_number(dev), libusb_get_device_address(dev));
}

/* Streams from the first sensor, and says so once each time the stream gets
 * stuck (no frame for kStuckMs), stalls, recovers, or the sensor goes and
 * comes back, as a host that must survive such a sensor would. */
static int watch(libusb_context* ctx, double seconds) {
    const struct timespec pause = {0, 50 * 1000 * 1000};
    unsigned char buf[2048];
    libusb_device_handle* h = NULL;
    long frames = 0;
    int stuck = 0, n;
    double end = now_s() + seconds;
    while (now_s() < end) {
        if (!h) {
            h = open_first(ctx);
            if (!h) {
                nanosleep(&pause, NULL);
                continue;
            }
            libusb_control_transfer(h, 0x21, 70, 0, 1, NULL, 0, kTimeoutMs);
            report(h, "streaming");
            stuck = 0;
        }
        int r = libusb_bulk_transfer(h, 0x81, buf, sizeof buf, &n, kStuckMs);
        if (r == 0) {
            if (stuck) report(h, "frames again");
            stuck = 0;
            frames++;
        } else if (r == LIBUSB_ERROR_TIMEOUT) {
            if (!stuck) report(h, "stuck");
            stuck = 1;
        } else if (r == LIBUSB_ERROR_PIPE) {
            report(h, "stalled");
            libusb_clear_halt(h, 0x81);
        } else {
            report(h, "gone");
            close_sensor(h);
            h = NULL;
        }
    }
    if (h) {
        libusb_control_transfer(h, 0x21, 71, 0, 1, NULL, 0, kTimeoutMs);
        close_sensor(h);
    }
    printf("%ld frames\n", frames);
    return frames == 0;
}

int main(int argc, char** argv) {
    int expect = -1, frame = 0, found = 0, failed = 0, regs = 0;
    double seconds = 0, watch_s = 0;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--expect") == 0 && i + 1 < argc) expect = atoi(argv[++i]);
        else if (strcmp(argv[i], "--frame") == 0) frame = 1;
        else if (strcmp(argv[i], "--rate") == 0 && i + 1 < argc) seconds = atof(argv[++i]);
        else if (strcmp(argv[i], "--watch") == 0 && i + 1 < argc) watch_s = atof(argv[++i]);
        else if (strcmp(argv[i], "--set") == 0 || strcmp(argv[i], "--get") == 0) regs = 1;
    }
    setvbuf(stdout, NULL, _IOLBF, 0);
    libusb_context* ctx;
    if (libusb_init(&ctx) != 0) return 1;
    if (regs || watch_s > 0) {
        failed = regs ? registers(ctx, argc, argv) : watch(ctx, watch_s);
        libusb_exit(ctx);
        return failed;
    }
    libusb_device** list;
    ssize_t count = libusb_get_device_list(ctx, &list);
    for (ssize_t i = 0; i < count; i++) {
        if (!is_sensor(list[i])) continue;
        found++;
        if (seconds > 0) {
            if (found == 1) failed += rate(list[i], seconds);
        } else {
            failed += probe(list[i], frame);
        }
    }
    libusb_free_device_list(list, 1);
    libusb_exit(ctx);
    printf("%d devices\n", found);
    return failed || (expect >= 0 && found != expect);
}
