// The transcript: what it records of an exchange, its text form, its bound and its live sink.
#include <gtest/gtest.h>

#include "raw_peer.h"

namespace velmora::sim::testing {
namespace {

TEST(SimTranscript, RecordsWhatWasHeardAndSentWithTimes) {
  VirtualBench bench;
  uint64_t end = bench.Send(ShortRequest(0, 0));
  bench.Collect(1000);
  const auto &entries = bench.Core().Log().Entries();
  ASSERT_EQ(entries.size(), 2u) << bench.Core().Log().Format();
  EXPECT_EQ(entries[0].kind, TranscriptKind::kHeard);
  EXPECT_EQ(entries[0].time_us, end);
  EXPECT_EQ(entries[0].bytes, (Bytes{0x02, 0x80, 0x00, 0x00, 0x82}));
  EXPECT_EQ(entries[1].kind, TranscriptKind::kReply);
  EXPECT_EQ(entries[1].time_us, end + 20000);
  EXPECT_EQ(entries[1].bytes.size(), 5u + 29);
}

TEST(SimTranscript, TextFormShowsTimeKindBytesAndNote) {
  TranscriptEntry entry{1234567, TranscriptKind::kReply, {0xFF, 0x06}, "device 0"};
  EXPECT_EQ(Transcript::FormatEntry(entry), "        1234.567 ms  reply   FF 06  | device 0");
  EXPECT_EQ(Transcript::FormatEntry({5000, TranscriptKind::kNote, {}, "hello"}), "           5.000 ms  note    hello");
}

TEST(SimTranscript, KeepsOnlyTheNewestEntriesAndFeedsTheSink) {
  Transcript transcript(3);
  size_t seen = 0;
  transcript.SetSink([&seen](const TranscriptEntry &) { ++seen; });
  for (uint64_t i = 0; i < 5; ++i) transcript.Note(i, "n" + std::to_string(i));
  EXPECT_EQ(seen, 5u);
  ASSERT_EQ(transcript.Entries().size(), 3u);
  EXPECT_EQ(transcript.Entries().front().note, "n2");
  EXPECT_EQ(transcript.Count(TranscriptKind::kNote), 3u);
  transcript.Clear();
  EXPECT_TRUE(transcript.Entries().empty());
}

}  // namespace
}  // namespace velmora::sim::testing
