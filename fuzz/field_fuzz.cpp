// Typed conversions of a column's text against a reference reading of the same rules: decimal
// numbers after leading white space, trailing text ignored, out of range or unreadable gives
// the default, unsigned reading of a negative number wraps, "1" alone is true, and a second
// conversion of a field whose text was read to the end (or failed) gives the default.
#include <stdint.h>

#include <climits>
#include <cmath>
#include <string>

#include "fuzz_input.h"
#include "kovasharing/result.h"

namespace {

char const kTarget[] = "field";
using KOVA::sharing::db::Field;

struct Number {
  bool digits = false;  // at least one digit read
  bool negative = false;
  bool overflow = false;  // magnitude beyond 64 bits
  uint64_t magnitude = 0;
  bool to_end = false;  // reading stopped at the end of the text
};

Number Read(std::string const& s) {
  Number n;
  size_t i = 0;
  while (i < s.size() && (s[i] == ' ' || s[i] == '\t' || s[i] == '\n' || s[i] == '\v' ||
                          s[i] == '\f' || s[i] == '\r')) {
    ++i;
  }
  if (i < s.size() && (s[i] == '+' || s[i] == '-')) n.negative = s[i++] == '-';
  while (i < s.size() && s[i] >= '0' && s[i] <= '9') {
    n.digits = true;
    unsigned const d = static_cast<unsigned>(s[i] - '0');
    if (n.magnitude > (UINT64_MAX - d) / 10) n.overflow = true;
    n.magnitude = n.magnitude * 10 + d;
    ++i;
  }
  n.to_end = i == s.size();
  return n;
}

// The signed reading within [lo, hi], or false.
bool Signed(Number const& n, int64_t lo, int64_t hi, int64_t& out) {
  if (!n.digits || n.overflow) return false;
  if (n.negative) {
    if (n.magnitude > static_cast<uint64_t>(-(lo + 1)) + 1) return false;
    out = n.magnitude == 0 ? 0 : -static_cast<int64_t>(n.magnitude - 1) - 1;
  } else {
    if (n.magnitude > static_cast<uint64_t>(hi)) return false;
    out = static_cast<int64_t>(n.magnitude);
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  kovafuzz::Input input(data, size);
  int const def = input.I32();
  std::string const text = input.Rest();
  Number const n = Read(text);

  int64_t v = 0;
  bool const int_ok = Signed(n, INT_MIN, INT_MAX, v);
  int const want_int = int_ok ? static_cast<int>(v) : def;
  Field f(text);
  int const got_int = f.AsInt(def);
  if (got_int != want_int) {
    kovafuzz::Fail(kTarget, "AsInt " + std::to_string(got_int) + " instead of " +
                                std::to_string(want_int) + " for " + kovafuzz::Show(text));
  }
  // Converted once more: the state of the first reading stays.
  int const want_again = (!int_ok || n.to_end) ? def : want_int;
  if (f.AsInt(def) != want_again) {
    kovafuzz::Fail(kTarget, "second AsInt differs for " + kovafuzz::Show(text));
  }

  unsigned const udef = static_cast<unsigned>(def) ^ 0x5a5a5a5au;
  unsigned want_uint = udef;
  if (n.digits && !n.overflow && n.magnitude <= UINT_MAX) {
    want_uint = n.negative ? static_cast<unsigned>(0u - static_cast<unsigned>(n.magnitude))
                           : static_cast<unsigned>(n.magnitude);
  }
  unsigned const got_uint = Field(text).AsUInt(udef);
  if (got_uint != want_uint) {
    kovafuzz::Fail(kTarget, "AsUInt " + std::to_string(got_uint) + " instead of " +
                                std::to_string(want_uint) + " for " + kovafuzz::Show(text));
  }

  long const tdef = -static_cast<long>(def) - 7;
  long const want_time = Signed(n, LONG_MIN, LONG_MAX, v) ? static_cast<long>(v) : tdef;
  long const got_time = Field(text).AsTime(tdef);
  if (got_time != want_time) {
    kovafuzz::Fail(kTarget, "AsTime " + std::to_string(got_time) + " instead of " +
                                std::to_string(want_time) + " for " + kovafuzz::Show(text));
  }

  // Floats: no reference beyond sanity; whatever is read is a finite number or the default.
  float const fdef = 1.5f;
  float const got_float = Field(text).AsFloat(fdef);
  if (!std::isfinite(got_float)) kovafuzz::Fail(kTarget, "AsFloat gave a non-finite number");
  if (int_ok && n.to_end && n.magnitude < (1u << 24) && got_float != static_cast<float>(v)) {
    kovafuzz::Fail(kTarget, "AsFloat of an integer text differs for " + kovafuzz::Show(text));
  }

  bool const want_bool = text == "1";
  if (Field(text).AsBool(!want_bool) != want_bool || Field(text).AsBool(want_bool) != want_bool) {
    kovafuzz::Fail(kTarget, "AsBool wrong for " + kovafuzz::Show(text));
  }
  Field s(text);
  if (s.AsString("default") != text) kovafuzz::Fail(kTarget, "AsString changed the text");
  Field copy(s);
  if (copy.AsInt(def) != want_int) kovafuzz::Fail(kTarget, "a copy converts differently");
  return 0;
}
