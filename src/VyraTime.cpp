#include "VyraTime.h"

namespace vyra {

std::chrono::system_clock::time_point GetCurrentTime() {
    return std::chrono::system_clock::now();
}

double GetTimeInterval(std::chrono::system_clock::time_point start) {
    const auto elapsed = GetCurrentTime() - start;
    const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(elapsed);
    return static_cast<double>(micros.count()) / 1000000.0;
}

}  // namespace vyra
