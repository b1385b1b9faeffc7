/* orb-usb-probe: a plain libusb-1.0 host, to show that any program run under
 * orb-emulate reaches the emulated sensors. For every 0483:5740 device it
 * prints bus, address and identity bytes, and with --frame also reads one
 * frame while streaming. Exits 1 when a device fails or when --expect N
 * devices were not found. --rate S instead measures, on the first device,
 * how many register reads and how many frames get through in S seconds each. */

#include <libusb.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

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

int main(int argc, char** argv) {
    int expect = -1, frame = 0, found = 0, failed = 0;
    double seconds = 0;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--expect") == 0 && i + 1 < argc) expect = atoi(argv[++i]);
        else if (strcmp(argv[i], "--frame") == 0) frame = 1;
        else if (strcmp(argv[i], "--rate") == 0 && i + 1 < argc) seconds = atof(argv[++i]);
    }
    libusb_context* ctx;
    if (libusb_init(&ctx) != 0) return 1;
    libusb_device** list;
    ssize_t count = libusb_get_device_list(ctx, &list);
    for (ssize_t i = 0; i < count; i++) {
        struct libusb_device_descriptor d;
        if (libusb_get_device_descriptor(list[i], &d) != 0 || d.idVendor != 0x0483 || d.idProduct != 0x5740) continue;
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
