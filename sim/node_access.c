/* Preloaded by orb-emulate in front of umockdev's preload: opening an
 * emulated device node whose mode grants nobody access fails with EACCES,
 * for root too. Root's CAP_DAC_OVERRIDE would otherwise open it anyway, and
 * the emulator's refused-open fault would reach only programs run by other
 * users. Everything else goes straight through. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

static int refused(const char* path) {
    static const char prefix[] = "/dev/bus/usb/";
    const char* root = getenv("UMOCKDEV_DIR");
    char node[4096];
    struct stat st;
    if (!path || !root || strncmp(path, prefix, sizeof prefix - 1) != 0) return 0;
    if (snprintf(node, sizeof node, "%s%s", root, path) >= (int)sizeof node) return 0;
    return stat(node, &st) == 0 && (st.st_mode & 0777) == 0;
}

static mode_t mode_of(int flags, va_list ap) {
    return (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE ? (mode_t)va_arg(ap, int) : 0;
}

#define REFUSE_IF_BARRED(path) \
    do {                       \
        if (refused(path)) {   \
            errno = EACCES;    \
            return -1;         \
        }                      \
    } while (0)

/* The mode argument exists only when the flags create a file. */
#define TAKE_MODE(flags, mode)       \
    do {                             \
        va_list ap;                  \
        va_start(ap, flags);         \
        mode = mode_of(flags, ap);   \
        va_end(ap);                  \
    } while (0)

#define WRAP_OPEN(name)                                                            \
    int name(const char* path, int flags, ...) {                                   \
        static int (*next)(const char*, int, ...);                                 \
        mode_t mode;                                                               \
        TAKE_MODE(flags, mode);                                                    \
        REFUSE_IF_BARRED(path);                                                    \
        if (!next) next = (int (*)(const char*, int, ...))dlsym(RTLD_NEXT, #name); \
        return next(path, flags, mode);                                            \
    }

#define WRAP_OPENAT(name)                                                               \
    int name(int dir, const char* path, int flags, ...) {                               \
        static int (*next)(int, const char*, int, ...);                                 \
        mode_t mode;                                                                    \
        TAKE_MODE(flags, mode);                                                         \
        REFUSE_IF_BARRED(path);                                                         \
        if (!next) next = (int (*)(int, const char*, int, ...))dlsym(RTLD_NEXT, #name); \
        return next(dir, path, flags, mode);                                            \
    }

#define WRAP_FORTIFIED(name)                                          \
    int name(const char* path, int flags) {                           \
        static int (*next)(const char*, int);                         \
        REFUSE_IF_BARRED(path);                                       \
        if (!next) next = (int (*)(const char*, int))dlsym(RTLD_NEXT, #name); \
        return next(path, flags);                                     \
    }

WRAP_OPEN(open)
WRAP_OPEN(open64)
WRAP_OPENAT(openat)
WRAP_OPENAT(openat64)
WRAP_FORTIFIED(__open_2)
WRAP_FORTIFIED(__open64_2)
