// The history store and its writers. One store for the whole library; writers are the worker
// threads and application threads, the reader is a viewer that renders and flushes. A mutex
// keeps them apart; every critical section is short, since readers copy and render outside.
#include "diag/history_store.h"

#include <cstdio>
#include <cstring>

#include "platform/clock.h"

namespace velmora {
namespace {

typHistoryRecord HistoryTable[kHistoryRecords];
unsigned int nHistoryIndex = 0;  // the open record; 100 when the store is full

std::mutex &StoreMutex() {
  static std::mutex *mutex = new std::mutex;  // never destroyed: unload flushes after statics go
  return *mutex;
}

bool Full() { return nHistoryIndex >= kHistoryRecords; }
typHistoryRecord &Open() { return HistoryTable[nHistoryIndex]; }

// "%06d: " with the milliseconds since the open record's start, signed.
void Stamp(CString &out) {
  const int ms = static_cast<int>(platform::ElapsedMs(platform::NowMs(), Open().tRecordStart));
  out.Format("%06d: ", ms);
}

void ClearRecord(typHistoryRecord &record, bool free_objects) {
  if (free_objects) {
    delete record.pRequestBytes;
    delete record.psRequestTime;
    delete record.pResponseBytes;
    delete record.psResponseTime;
    delete record.psReceiveDetails;
    delete record.psStates;
    delete record.psQueueDetails;
    delete record.psServiceDetails;
  }
  record = typHistoryRecord{};
}

// The most a record keeps of a frame: the receiver's whole buffer. A longer length is a
// caller's mistake, and must not turn into a huge copy.
constexpr unsigned int kRecordedBytesMax = 512;

void SetBytes(CByteArray *&array, const unsigned char *bytes, unsigned int length) {
  if (!array) array = new CByteArray;
  if (length > kRecordedBytesMax) length = kRecordedBytesMax;
  array->SetSize(static_cast<int>(length));
  if (length != 0 && bytes) std::memcpy(array->GetData(), bytes, length);
}

void SetStamp(CString *&text) {
  if (!text) text = new CString;
  Stamp(*text);
}

// The four detail lists: the first line is stamp + text, later ones "\r\n" + stamp + text.
void AddLine(CString *typHistoryRecord::*field, const char *line) {
  if (!line) return;
  std::lock_guard<std::mutex> lock(StoreMutex());
  if (Full()) return;
  CString stamped;
  Stamp(stamped);
  stamped += line;
  CString *&list = Open().*field;
  if (!list) {
    list = new CString(stamped);
  } else {
    *list += "\r\n";
    *list += stamped;
  }
}

// Runs a writer; an allocation failure drops what it was writing, nothing more.
template <typename Fn>
void Guarded(Fn &&fn) noexcept {
  try {
    fn();
  } catch (...) {
  }
}

}  // namespace

void WithHistory(const std::function<void(typHistoryRecord *, unsigned int)> &fn) {
  std::lock_guard<std::mutex> lock(StoreMutex());
  fn(HistoryTable, nHistoryIndex);
}

}  // namespace velmora

using namespace velmora;

extern "C" {

void InitHistory(void) noexcept {
  std::lock_guard<std::mutex> lock(StoreMutex());
  for (typHistoryRecord &record : HistoryTable) ClearRecord(record, false);
  nHistoryIndex = 0;
}

void FlushHistory(void) noexcept {
  std::lock_guard<std::mutex> lock(StoreMutex());
  for (typHistoryRecord &record : HistoryTable) ClearRecord(record, true);
  nHistoryIndex = 0;
}

void StartHistory(void) noexcept {
  std::lock_guard<std::mutex> lock(StoreMutex());
  if (!Full()) Open().tRecordStart = platform::NowMs();
}

unsigned int IncrementHistory(void) noexcept {
  std::lock_guard<std::mutex> lock(StoreMutex());
  if (Full()) return 0;
  ++nHistoryIndex;
  return 1;
}

unsigned int GetHistorySize(void) noexcept {
  std::lock_guard<std::mutex> lock(StoreMutex());
  return nHistoryIndex;
}

void SetRspPAs(unsigned int nPreambles) noexcept {
  std::lock_guard<std::mutex> lock(StoreMutex());
  if (!Full()) Open().nRspPreambles = nPreambles;
}

unsigned int GetRspPAs(void) noexcept {
  std::lock_guard<std::mutex> lock(StoreMutex());
  return Full() ? 0 : Open().nRspPreambles;
}

void putHistRequest(unsigned char *pBytes, unsigned int nLength) noexcept {
  Guarded([&] {
    std::lock_guard<std::mutex> lock(StoreMutex());
    if (Full()) return;
    typHistoryRecord &record = Open();
    SetBytes(record.pRequestBytes, pBytes, nLength);
    SetStamp(record.psRequestTime);
    SetBytes(record.pResponseBytes, nullptr, 0);
    SetStamp(record.psResponseTime);
  });
}

void putHistResponse(unsigned char *pBytes, unsigned int nLength) noexcept {
  Guarded([&] {
    std::lock_guard<std::mutex> lock(StoreMutex());
    if (Full()) return;
    typHistoryRecord &record = Open();
    if (!record.pRequestBytes) record.pRequestBytes = new CByteArray;
    SetBytes(record.pResponseBytes, pBytes, nLength);
    SetStamp(record.psResponseTime);
  });
}

void addHistReceiveDetails(char *szLine) noexcept {
  Guarded([&] { AddLine(&typHistoryRecord::psReceiveDetails, szLine); });
}
void addHistStates(char *szLine) noexcept {
  Guarded([&] { AddLine(&typHistoryRecord::psStates, szLine); });
}
void addHistQueueDetails(char *szLine) noexcept {
  Guarded([&] { AddLine(&typHistoryRecord::psQueueDetails, szLine); });
}
void addHistServiceDetails(char *szLine) noexcept {
  Guarded([&] { AddLine(&typHistoryRecord::psServiceDetails, szLine); });
}

}  // extern "C"
