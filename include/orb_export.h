#ifndef ORB_EXPORT_H
#define ORB_EXPORT_H

/* The library is built with hidden visibility; only what carries this mark is
 * part of its binary interface. */
#define ORB_EXPORT __attribute__((visibility("default")))

#endif /* ORB_EXPORT_H */
