// Output for people and for scripts: text conversion, a progress line that redraws on a
// terminal and prints plain lines elsewhere, columns that line up, and a stop on Ctrl-C.
#ifndef VELMORA_TOOLS_TERMINAL_H
#define VELMORA_TOOLS_TERMINAL_H

#include <cstdio>
#include <string>
#include <vector>

namespace velmora::tool {

// Unit and manufacturer names come in code page 1252 (the degree sign, superscript three).
std::string Utf8FromCp1252(const std::string &text);

bool IsTerminal(std::FILE *stream);

// Progress of a long step on standard error: a bar redrawn on a terminal and nothing elsewhere,
// and notes, which are plain lines in both.
class Progress {
 public:
  explicit Progress(std::FILE *stream = stderr);
  ~Progress();
  void Update(unsigned int done, unsigned int total, const std::string &text);
  void Note(const std::string &text);
  void Finish();

 private:
  std::FILE *stream_;
  bool terminal_;
  bool drawn_ = false;
};

// Rows of cells printed in columns as wide as their widest cell.
void PrintTable(std::FILE *out, const std::vector<std::vector<std::string>> &rows);

// Ctrl-C and SIGTERM ask the running subcommand to stop at its next wait.
void InstallStopSignals();
bool StopRequested();

}  // namespace velmora::tool

#endif
