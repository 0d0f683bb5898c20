// Throughput of the frame dump on a typical response and of the data syntax on a typical line.
#include <benchmark/benchmark.h>

#include <vector>

#include "velmora.h"

namespace {

void BM_FrameDumpCommand1Response(benchmark::State &state) {
  std::vector<unsigned char> frame = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x86, 0xA6, 0x06, 0xBC, 0x61, 0x4E, 0x01, 0x07,
                                      0x00, 0x00, 0x27, 0x3F, 0x80, 0x00, 0x00, 0x2B, 0xD2, 0x04, 0x00, 0x00, 0x38,
                                      0x00, 0x00, 0x00};
  static CString syntax[256];
  syntax[1] = "Read PV,UNIT,FLOAT";
  typFrameDumpStruct dump{};
  dump.bUseSyntax = dump.bShowCommandName = 1;
  for (auto _ : state) {
    FrameDump(frame.data(), static_cast<unsigned int>(frame.size()), &dump, syntax, syntax);
    benchmark::DoNotOptimize(dump.sData.GetString());
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FrameDumpCommand1Response);

void BM_DataSyntaxTypicalLine(benchmark::State &state) {
  CString line("HEX16,ABCD,2*BIN8,101,3*DEC8,255,FLOAT,1.5,STR3,ab");
  CString result;
  for (auto _ : state) {
    DataSyntaxToBuffer(line, nullptr, 0, result);
    benchmark::DoNotOptimize(result.GetString());
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DataSyntaxTypicalLine);

}  // namespace
