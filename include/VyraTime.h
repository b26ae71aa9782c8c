/*
 * libvyra - wall-clock helpers for hosts that time their own runs.
 */
#ifndef VYRA_TIME_H
#define VYRA_TIME_H

#include <chrono>

#include "VyraExport.h"

namespace vyra {

/** std::chrono::system_clock::now(). */
VYRA_API std::chrono::system_clock::time_point GetCurrentTime();

/**
 * Seconds elapsed since @p start (taken with GetCurrentTime()), cut toward
 * zero to whole microseconds; negative for a start in the future.
 */
VYRA_API double GetTimeInterval(std::chrono::system_clock::time_point start);

}  // namespace vyra

#endif /* VYRA_TIME_H */
