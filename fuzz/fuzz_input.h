// Reads typed pieces from a fuzz input, front to back; when the input runs out every read
// gives zeros and empty texts, so each input decodes the same way every time.
#ifndef KOVA_FUZZ_INPUT_H
#define KOVA_FUZZ_INPUT_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

namespace kovafuzz {

class Input {
 public:
  Input(uint8_t const* data, size_t size) : p_(data), end_(data + size) {}

  bool empty() const { return p_ == end_; }
  size_t left() const { return static_cast<size_t>(end_ - p_); }

  uint8_t Byte() { return p_ < end_ ? *p_++ : 0; }
  bool Bool() { return (Byte() & 1) != 0; }
  uint32_t U32() {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v = (v << 8) | Byte();
    return v;
  }
  int32_t I32() { return static_cast<int32_t>(U32()); }
  // A value in [0, n).
  unsigned Below(unsigned n) { return n == 0 ? 0 : Byte() % n; }

  // A text up to the next "\\\n" pair (or the end); a lone backslash stays as it is, so the
  // text may hold any byte, NUL included.
  std::string Text(size_t max = 4096) {
    std::string out;
    while (p_ < end_ && out.size() < max) {
      uint8_t const c = *p_++;
      if (c == '\\' && p_ < end_ && *p_ == '\n') {
        ++p_;
        break;
      }
      out += static_cast<char>(c);
    }
    return out;
  }
  // Everything that is left.
  std::string Rest() {
    std::string out(reinterpret_cast<char const*>(p_), left());
    p_ = end_;
    return out;
  }

 private:
  uint8_t const* p_;
  uint8_t const* end_;
};

// A property of the code under test does not hold: say which and stop the run.
[[noreturn]] inline void Fail(char const* target, std::string const& what) {
  fprintf(stderr, "%s: %s\n", target, what.c_str());
  abort();
}

// Bytes shown with C escapes, for failure messages.
inline std::string Show(std::string const& s) {
  std::string out = "\"";
  for (unsigned char c : s) {
    if (c >= 0x20 && c < 0x7f && c != '"' && c != '\\') {
      out += static_cast<char>(c);
    } else {
      char buf[8];
      snprintf(buf, sizeof buf, "\\x%02x", c);
      out += buf;
    }
  }
  return out + "\"";
}

}  // namespace kovafuzz

#endif
