// CString and CByteArray: the byte text and byte array that cross the library's boundary.
//
// Both are header-only so that the library and its clients share one definition. A CString holds
// bytes, not characters: code page 1252 texts (the degree sign 0xB0, superscript three 0xB3) are
// kept byte for byte, and a text may hold any byte but 0 where it is used as a C string.
// Allocation failure throws std::bad_alloc inside these classes; the library catches it at every
// export, so no exception leaves a library call.
#ifndef VELMORA_STRINGS_H
#define VELMORA_STRINGS_H

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

class CString {
 public:
  CString() = default;
  CString(const char *text) : text_(text ? text : "") {}
  CString(const char *bytes, int length) : text_(bytes, length > 0 ? static_cast<size_t>(length) : 0) {}
  CString(char ch, int repeat = 1) : text_(repeat > 0 ? static_cast<size_t>(repeat) : 0, ch) {}
  explicit CString(const std::string &text) : text_(text) {}

  int GetLength() const { return static_cast<int>(text_.size()); }
  bool IsEmpty() const { return text_.empty(); }
  void Empty() { text_.clear(); }
  const char *GetString() const { return text_.c_str(); }
  operator const char *() const { return text_.c_str(); }
  const std::string &str() const { return text_; }

  // Byte access, the byte as its unsigned value widened to char's range.
  char GetAt(int index) const { return text_[static_cast<size_t>(index)]; }
  void SetAt(int index, char ch) { text_[static_cast<size_t>(index)] = ch; }
  char operator[](int index) const { return GetAt(index); }

  CString &operator=(const char *text) {
    text_ = text ? text : "";
    return *this;
  }
  CString &operator+=(const CString &other) {
    text_ += other.text_;
    return *this;
  }
  CString &operator+=(const char *text) {
    if (text) text_ += text;
    return *this;
  }
  CString &operator+=(char ch) {
    text_ += ch;
    return *this;
  }
  void AppendBytes(const char *bytes, int length) {
    if (bytes && length > 0) text_.append(bytes, static_cast<size_t>(length));
  }

  friend CString operator+(const CString &a, const CString &b) { return CString(a.text_ + b.text_); }
  friend CString operator+(const CString &a, const char *b) { return CString(a.text_ + (b ? b : "")); }
  friend CString operator+(const char *a, const CString &b) { return CString((a ? a : "") + b.text_); }
  friend bool operator==(const CString &a, const CString &b) { return a.text_ == b.text_; }
  friend bool operator==(const CString &a, const char *b) { return a.text_ == (b ? b : ""); }
  friend bool operator!=(const CString &a, const CString &b) { return !(a == b); }
  friend bool operator!=(const CString &a, const char *b) { return !(a == b); }

  // Position of the first ch at or after start, or -1.
  int Find(char ch, int start = 0) const {
    if (start < 0) start = 0;
    size_t at = text_.find(ch, static_cast<size_t>(start));
    return at == std::string::npos ? -1 : static_cast<int>(at);
  }
  int Find(const char *sub, int start = 0) const {
    if (!sub || start < 0 || static_cast<size_t>(start) > text_.size()) return -1;
    size_t at = text_.find(sub, static_cast<size_t>(start));
    return at == std::string::npos ? -1 : static_cast<int>(at);
  }
  CString Left(int count) const {
    if (count <= 0) return CString();
    return CString(text_.substr(0, static_cast<size_t>(count)));
  }
  CString Right(int count) const {
    if (count <= 0) return CString();
    if (static_cast<size_t>(count) >= text_.size()) return *this;
    return CString(text_.substr(text_.size() - static_cast<size_t>(count)));
  }
  CString Mid(int first) const {
    if (first < 0) first = 0;
    if (static_cast<size_t>(first) >= text_.size()) return CString();
    return CString(text_.substr(static_cast<size_t>(first)));
  }
  CString Mid(int first, int count) const {
    if (first < 0) first = 0;
    if (count <= 0 || static_cast<size_t>(first) >= text_.size()) return CString();
    return CString(text_.substr(static_cast<size_t>(first), static_cast<size_t>(count)));
  }
  void Delete(int index, int count = 1) {
    if (index < 0 || count <= 0 || static_cast<size_t>(index) >= text_.size()) return;
    text_.erase(static_cast<size_t>(index), static_cast<size_t>(count));
  }

  // Case changes touch ASCII letters only, so code page 1252 bytes stay as they are.
  void MakeUpper() {
    for (char &c : text_)
      if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  void MakeLower() {
    for (char &c : text_)
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  // White space: blank, tab, carriage return, line feed, vertical tab, form feed.
  void TrimLeft() {
    size_t first = 0;
    while (first < text_.size() && IsSpace(text_[first])) ++first;
    text_.erase(0, first);
  }
  void TrimRight() {
    size_t end = text_.size();
    while (end > 0 && IsSpace(text_[end - 1])) --end;
    text_.erase(end);
  }
  void Trim() {
    TrimRight();
    TrimLeft();
  }

  // printf-style formatting; the result replaces the text.
  void Format(const char *format, ...) __attribute__((format(printf, 2, 3))) {
    va_list args;
    va_start(args, format);
    FormatV(format, args);
    va_end(args);
  }
  void FormatV(const char *format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    char small[256];
    int needed = std::vsnprintf(small, sizeof small, format, copy);
    va_end(copy);
    if (needed < 0) {
      text_.clear();
    } else if (static_cast<size_t>(needed) < sizeof small) {
      text_.assign(small, static_cast<size_t>(needed));
    } else {
      std::string big(static_cast<size_t>(needed) + 1, '\0');
      std::vsnprintf(big.data(), big.size(), format, args);
      big.resize(static_cast<size_t>(needed));
      text_.swap(big);
    }
  }

 private:
  static bool IsSpace(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
  }
  std::string text_;
};

class CByteArray {
 public:
  CByteArray() = default;
  int GetSize() const { return static_cast<int>(bytes_.size()); }
  int GetCount() const { return GetSize(); }
  // A negative size empties the array; grow_by is accepted for compatibility and ignored.
  void SetSize(int size, int grow_by = -1) {
    (void)grow_by;
    bytes_.resize(size > 0 ? static_cast<size_t>(size) : 0);
  }
  unsigned char *GetData() { return bytes_.empty() ? nullptr : bytes_.data(); }
  const unsigned char *GetData() const { return bytes_.empty() ? nullptr : bytes_.data(); }
  unsigned char &operator[](int index) { return bytes_[static_cast<size_t>(index)]; }
  unsigned char operator[](int index) const { return bytes_[static_cast<size_t>(index)]; }
  unsigned char GetAt(int index) const { return bytes_[static_cast<size_t>(index)]; }
  void SetAt(int index, unsigned char value) { bytes_[static_cast<size_t>(index)] = value; }
  int Add(unsigned char value) {
    bytes_.push_back(value);
    return static_cast<int>(bytes_.size()) - 1;
  }
  void RemoveAll() { bytes_.clear(); }

 private:
  std::vector<unsigned char> bytes_;
};

#endif  // VELMORA_STRINGS_H
