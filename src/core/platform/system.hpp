// Facts about the system the engine is built for, for the few steps that exist on one system
// only. The code of such a step is compiled everywhere and skipped where it does not apply.
#pragma once

namespace torvik::platform {

// Linux binds its own drivers to USB interfaces; they must let go before a program can claim one.
// Elsewhere the unit's driver is bound by its user (WinUSB on Windows) and nothing is queried.
#if defined(__linux__)
inline constexpr bool kDetachesKernelDrivers = true;
#else
inline constexpr bool kDetachesKernelDrivers = false;
#endif

}  // namespace torvik::platform
