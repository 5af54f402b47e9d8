// Wall-clock timing of the program's stages.
#pragma once

#include <chrono>

using Clock = std::chrono::steady_clock;

// Seconds from t0 to now.
inline double Seconds_Since(Clock::time_point t0) {
  return std::chrono::duration<double>(Clock::now() - t0).count();
}
