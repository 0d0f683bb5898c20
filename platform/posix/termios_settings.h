// The terminal settings of a HART line, kept apart from the device so a test can check them
// flag by flag: a pseudo-terminal carries no parity, so no exchange would notice a wrong one.
#ifndef VELMORA_PLATFORM_POSIX_TERMIOS_SETTINGS_H
#define VELMORA_PLATFORM_POSIX_TERMIOS_SETTINGS_H

#include <termios.h>

#include <cstdint>

namespace velmora::platform::os {

// 1200, 9600 or 19200 baud; anything else falls back to 1200.
speed_t SpeedOf(uint32_t baud);

// Raw 8 data bits, odd parity, 1 stop bit, no flow control, modem lines under program control,
// reads that never block; everything else in tio is kept.
void MakeHartLineSettings(termios &tio, uint32_t baud);

}  // namespace velmora::platform::os

#endif
