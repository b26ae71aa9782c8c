/*
 * libvyra - launch-time measurement from screen recordings.
 *
 * Symbol visibility. The library is built with hidden visibility by default;
 * everything that belongs to the public interface is marked VYRA_API.
 */
#ifndef VYRA_EXPORT_H
#define VYRA_EXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define VYRA_API __attribute__((visibility("default")))
#else
#define VYRA_API
#endif

#endif /* VYRA_EXPORT_H */
