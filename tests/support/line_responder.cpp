// The real-time responder: polls the far end every millisecond and parses request frames.
#include "tests/support/line_responder.h"

#include "platform/clock.h"

namespace velmora::test {

LineResponder::LineResponder(std::shared_ptr<platform::MemoryLine> line, ReplyFn reply, unsigned int turnaround_ms)
    : line_(std::move(line)), reply_(std::move(reply)), turnaround_ms_(turnaround_ms), thread_([this] { Run(); }) {}

LineResponder::~LineResponder() {
  stop_ = true;
  thread_.join();
}

void LineResponder::Run() {
  std::vector<unsigned char> in;
  uint64_t last_arrival = 0;
  while (!stop_.load()) {
    platform::MemoryLine::TimedByte bytes[256];
    const uint32_t got = line_->ReadTimed(platform::MemoryLine::kFarEnd, bytes, 256);
    for (uint32_t i = 0; i < got; ++i) {
      // A gap of more than 20 ms ends whatever was half received.
      if (!in.empty() && bytes[i].arrival_us > last_arrival + 20000) in.clear();
      in.push_back(bytes[i].value);
      last_arrival = bytes[i].arrival_us;
    }
    size_t at = 0;
    while (at < in.size() && in[at] == 0xFF) ++at;
    if (at < in.size() && (in[at] & 0x7F) != 0x02) {
      in.clear();  // not a request: drop it
    } else if (at < in.size()) {
      const size_t header = (in[at] & 0x80) ? 8 : 4;
      if (in.size() >= at + header && in.size() >= at + header + in[at + header - 1] + 1) {
        const size_t total = header + in[at + header - 1] + 1;
        std::vector<unsigned char> frame(in.begin() + static_cast<long>(at), in.begin() + static_cast<long>(at + total));
        in.erase(in.begin(), in.begin() + static_cast<long>(at + total));
        ++requests_;
        std::vector<unsigned char> out = reply_(frame);
        if (!out.empty())
          line_->WriteAt(platform::MemoryLine::kFarEnd, out.data(), static_cast<uint32_t>(out.size()),
                         last_arrival + turnaround_ms_ * 1000ull);
      }
    }
    platform::os::SleepMicros(1000);
  }
}

}  // namespace velmora::test
