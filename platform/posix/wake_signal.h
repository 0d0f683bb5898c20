// A descriptor that polls readable while a mailbox holds notices.
#ifndef VELMORA_PLATFORM_POSIX_WAKE_SIGNAL_H
#define VELMORA_PLATFORM_POSIX_WAKE_SIGNAL_H

namespace velmora::platform {

class WakeSignal {
 public:
  WakeSignal();
  ~WakeSignal();
  WakeSignal(const WakeSignal &) = delete;
  WakeSignal &operator=(const WakeSignal &) = delete;
  bool Valid() const { return read_fd_ >= 0; }
  int Fd() const { return read_fd_; }
  void Raise();  // make the descriptor readable
  void Lower();  // make it unreadable again

 private:
  int read_fd_ = -1;
  int write_fd_ = -1;
  bool raised_ = false;
};

}  // namespace velmora::platform

#endif
