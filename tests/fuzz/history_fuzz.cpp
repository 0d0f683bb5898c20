// The history store with arbitrary records (request and response frames of any bytes, detail
// lines of any text), rendered plain and decoded with every detail list.
//
// Input: steps of a code byte, a length byte and that many bytes. Codes (low three bits):
// request frame, response frame, receive details, state trace, service details, queue details,
// close the record, response preambles (the length byte).
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "velmora.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  for (size_t at = 0; at + 2 <= size;) {
    const uint8_t code = data[at] & 7;
    const size_t len = std::min<size_t>(data[at + 1], size - at - 2);
    // Exact copies, so that a read past the given length is caught.
    std::vector<unsigned char> bytes(data + at + 2, data + at + 2 + len);
    std::string text(bytes.begin(), bytes.end());
    char *line = text.data();  // up to its first NUL
    switch (code) {
      case 0:
        putHistRequest(bytes.data(), static_cast<unsigned int>(len));
        break;
      case 1:
        putHistResponse(bytes.data(), static_cast<unsigned int>(len));
        break;
      case 2:
        addHistReceiveDetails(line);
        break;
      case 3:
        addHistStates(line);
        break;
      case 4:
        addHistServiceDetails(line);
        break;
      case 5:
        addHistQueueDetails(line);
        break;
      case 6:
        IncrementHistory();
        StartHistory();
        break;
      default:
        SetRspPAs(data[at + 1]);
        break;
    }
    at += 2 + (code == 6 || code == 7 ? 0 : len);
  }
  IncrementHistory();
  if (GetHistorySize() > 100) std::abort();
  for (unsigned int flags : {0u, 16u, 14u, 30u}) GetHistory(flags);
  FlushHistory();
  return 0;
}
