// A port opened on an in-memory line without a worker, in virtual time: tests run the worker's
// passes themselves and script the far end byte by byte.
#ifndef VELMORA_TESTS_SUPPORT_LINK_FIXTURE_H
#define VELMORA_TESTS_SUPPORT_LINK_FIXTURE_H

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <vector>

#include "platform/clock.h"
#include "platform/memory_line.h"
#include "velmora.h"

namespace velmora::test {

using Bytes = std::vector<unsigned char>;

// Builds a frame: preambles, then delimiter..data and the checksum worked out here.
Bytes Frame(unsigned int preambles, Bytes body);
// A short response from polling address `address` to a master (bit 7 = master_bit).
Bytes ShortResponse(unsigned char address, unsigned char command, Bytes data, bool primary = true,
                    unsigned int preambles = 5, bool burst = false);

// Every message waiting in a window, removed.
std::vector<MSG> Drain(HWND window);

// Puts every row the tests touch back to its start value.
void ResetDriverTables();
// Service rows not free.
unsigned int TakenServiceRows();

class LinkFixture : public ::testing::Test {
 protected:
  static constexpr unsigned int kPort = 3;  // port number; row 2
  static constexpr unsigned int kApp = 7;
  static constexpr unsigned int kReplyMsg = 0x401;
  static constexpr unsigned int kLinkMsg = 0x402;
  static constexpr unsigned int kHistoryMsg = 0x403;
  static constexpr unsigned int kMonitorMsg = 0x404;

  void SetUp() override { OpenAt(0); }
  void TearDown() override;

  // Opens the port at baud code `baud_code` with the application row kApp registered on it;
  // closes what an earlier call opened.
  void OpenAt(unsigned int baud_code);
  tagCOMPORTINFO &Port();
  typRxFrameStruct &Rx() { return *Port().pRxFrame; }

  // One worker pass (noting a state change in states_ and the application's notices in
  // notices_); passes until the clock has moved by at least ms.
  void Pass();
  void RunFor(unsigned int ms);
  // Passes until pred holds or ms have passed; true if it held.
  bool RunUntil(const std::function<bool()> &pred, unsigned int ms);
  // The notices of one message number the application's window got during passes.
  std::vector<MSG> Notices(unsigned int message) const;

  // The far end sends bytes from now on.
  void FarSend(const Bytes &bytes);

  // Sends a request without data to address 0 for kApp, with application id 0x00120034.
  unsigned int Send(unsigned char command);
  uint64_t NowUs() const { return clock_->NowMicros(); }

  // Answers every complete request the far end receives with reply(request_frame), after a
  // turnaround of turnaround_us from the request's last byte; an empty reply sends nothing.
  void AutoReply(std::function<Bytes(const Bytes &)> reply, uint64_t turnaround_us = 20000);

  std::unique_ptr<platform::VirtualClock> clock_;
  std::shared_ptr<platform::MemoryLine> line_;
  HWND app_window_ = nullptr;
  HWND history_window_ = nullptr;
  Bytes far_in_;  // the bytes the far end has received, and when
  std::vector<uint64_t> far_in_times_;
  std::vector<unsigned int> states_;  // the state machine's states, each change once
  std::vector<MSG> notices_;
  int listener_ = 0;
};

}  // namespace velmora::test

#endif
