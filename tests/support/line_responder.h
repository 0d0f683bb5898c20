// A field device at the far end of an in-memory line in real time: answers every request frame
// it receives after a turnaround, through a reply function. For stress tests that need many
// lines answered without the full simulator.
#ifndef VELMORA_TESTS_SUPPORT_LINE_RESPONDER_H
#define VELMORA_TESTS_SUPPORT_LINE_RESPONDER_H

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "platform/memory_line.h"

namespace velmora::test {

class LineResponder {
 public:
  using ReplyFn = std::function<std::vector<unsigned char>(const std::vector<unsigned char> &request)>;
  LineResponder(std::shared_ptr<platform::MemoryLine> line, ReplyFn reply, unsigned int turnaround_ms = 5);
  ~LineResponder();
  unsigned int Requests() const { return requests_.load(); }

 private:
  void Run();
  std::shared_ptr<platform::MemoryLine> line_;
  ReplyFn reply_;
  unsigned int turnaround_ms_;
  std::atomic<bool> stop_{false};
  std::atomic<unsigned int> requests_{0};
  std::thread thread_;
};

}  // namespace velmora::test

#endif
