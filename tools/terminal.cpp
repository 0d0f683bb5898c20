// Text conversion, progress, columns and the stop signal.
#include "terminal.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>

namespace velmora::tool {
namespace {

std::atomic<bool> stop_requested{false};

void OnStopSignal(int) { stop_requested.store(true); }

// Display width of UTF-8 text: one column per character.
size_t Width(const std::string &text) {
  return static_cast<size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

}  // namespace

std::string Utf8FromCp1252(const std::string &text) {
  std::string out;
  for (char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    if (c < 0x80) {
      out += ch;
    } else {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

bool IsTerminal(std::FILE *stream) { return isatty(fileno(stream)) == 1; }

Progress::Progress(std::FILE *stream) : stream_(stream), terminal_(IsTerminal(stream)) {}

Progress::~Progress() { Finish(); }

void Progress::Update(unsigned int done, unsigned int total, const std::string &text) {
  if (!terminal_) return;
  constexpr unsigned int kBar = 24;
  const unsigned int filled = total ? done * kBar / total : kBar;
  std::string bar(filled, '#');
  bar.resize(kBar, '.');
  std::fprintf(stream_, "\r\x1b[K[%s] %s", bar.c_str(), text.c_str());
  std::fflush(stream_);
  drawn_ = true;
}

void Progress::Note(const std::string &text) {
  Finish();
  std::fprintf(stream_, "%s\n", text.c_str());
}

void Progress::Finish() {
  if (drawn_) std::fprintf(stream_, "\r\x1b[K");
  drawn_ = false;
}

void PrintTable(std::FILE *out, const std::vector<std::vector<std::string>> &rows) {
  std::vector<size_t> widths;
  for (const auto &row : rows) {
    if (widths.size() < row.size()) widths.resize(row.size());
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], Width(row[i]));
  }
  for (const auto &row : rows) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) line.append(widths[i] - Width(row[i]) + 2, ' ');
    }
    std::fprintf(out, "%s\n", line.c_str());
  }
}

void InstallStopSignals() {
  struct sigaction action {};
  action.sa_handler = OnStopSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool StopRequested() { return stop_requested.load(); }

}  // namespace velmora::tool
