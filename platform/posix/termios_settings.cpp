#include "platform/posix/termios_settings.h"

namespace velmora::platform::os {

speed_t SpeedOf(uint32_t baud) {
  switch (baud) {
    case 9600: return B9600;
    case 19200: return B19200;
    default: return B1200;
  }
}

void MakeHartLineSettings(termios &tio, uint32_t baud) {
  cfmakeraw(&tio);
  // CLOCAL and no HUPCL: the modem's carrier must not hang the line up. No CRTSCTS: with it,
  // RTS requests "succeed" without moving the pin.
  tio.c_cflag &= ~static_cast<tcflag_t>(CSIZE | CSTOPB | HUPCL | CRTSCTS);
  tio.c_cflag |= CS8 | PARENB | PARODD | CLOCAL | CREAD;
  // Damaged bytes go to the parser like any other: no parity check, no marking (PARMRK would
  // double every 0xFF, and preambles are 0xFF).
  tio.c_iflag &= ~static_cast<tcflag_t>(INPCK | PARMRK | IGNPAR | IXON | IXOFF | IXANY | ISTRIP);
  tio.c_cc[VMIN] = 0;
  tio.c_cc[VTIME] = 0;
  cfsetispeed(&tio, SpeedOf(baud));
  cfsetospeed(&tio, SpeedOf(baud));
}

}  // namespace velmora::platform::os
