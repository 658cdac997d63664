#pragma once

namespace idle_library {

// Lets the device monitor's thread end, which otherwise rests in its first poll.
void letMonitorGo();

}  // namespace idle_library
