// Differential: every conversion of a column's text against the standard string stream it
// must read exactly like (classic locale, the stream reloaded before each conversion with its
// state flags kept), on arbitrary text and on two conversions in a row of the same field;
// and the numbers the records write, against a default-formatted stream in the classic locale.
#include <stdint.h>

#include <cstring>
#include <locale>
#include <sstream>
#include <string>

#include "fuzz_input.h"
#include "kovasharing/result.h"
#include "kovasharing/utils.h"

namespace {

char const kTarget[] = "field";
using KOVA::sharing::db::Field;

// The text a default-formatted stream in the classic locale writes for `value`.
template <class T>
std::string Written(T value) {
  std::ostringstream stream;
  stream.imbue(std::locale::classic());
  stream << value;
  return stream.str();
}

// The reading a field must match: one stream per field, reloaded before every conversion.
class Reference {
 public:
  explicit Reference(std::string const& text) : text_(text) {
    stream_.imbue(std::locale::classic());
  }
  template <class T>
  T Read(T def) {
    stream_.str(text_);
    T value{};
    stream_ >> value;
    return stream_.fail() ? def : value;
  }

 private:
  std::string text_;
  std::stringstream stream_;
};

// Conversion `kind` of both, compared; returns false on a difference.
bool Same(int kind, Field& field, Reference& reference, int32_t seed, std::string& what) {
  switch (kind % 4) {
    case 0: {
      int const a = field.AsInt(seed), b = reference.Read<int>(seed);
      what = "AsInt " + std::to_string(a) + " instead of " + std::to_string(b);
      return a == b;
    }
    case 1: {
      unsigned const def = static_cast<unsigned>(seed) ^ 0x5a5a5a5au;
      unsigned const a = field.AsUInt(def), b = reference.Read<unsigned>(def);
      what = "AsUInt " + std::to_string(a) + " instead of " + std::to_string(b);
      return a == b;
    }
    case 2: {
      long const def = -static_cast<long>(seed) - 7;
      long const a = field.AsTime(def), b = reference.Read<long>(def);
      what = "AsTime " + std::to_string(a) + " instead of " + std::to_string(b);
      return a == b;
    }
    default: {
      float const def = static_cast<float>(seed) / 3;
      float const a = field.AsFloat(def), b = reference.Read<float>(def);
      what = "AsFloat " + std::to_string(a) + " instead of " + std::to_string(b);
      return std::memcmp(&a, &b, sizeof a) == 0;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  kovafuzz::Input input(data, size);
  int32_t const seed = input.I32();
  int const kinds = static_cast<int>(static_cast<uint32_t>(input.I32()) % 16);

  int const number = seed;
  long const wide = static_cast<long>(static_cast<uint64_t>(static_cast<uint32_t>(seed)) << 32 |
                                      static_cast<uint32_t>(input.I32()));
  std::string const text = input.Rest();
  if (KOVA::sharing::ToString<int const>(number) != Written(number) ||
      KOVA::sharing::ToString<long const>(wide) != Written(wide)) {
    kovafuzz::Fail(kTarget, "number written as " + KOVA::sharing::ToString<long const>(wide) +
                                " instead of " + Written(wide));
  }

  Field field(text);
  Reference reference(text);
  std::string what;
  if (!Same(kinds, field, reference, seed, what)) {
    kovafuzz::Fail(kTarget, what + " for " + kovafuzz::Show(text));
  }
  if (!Same(kinds / 4, field, reference, seed, what)) {
    kovafuzz::Fail(kTarget, "second conversion: " + what + " for " + kovafuzz::Show(text));
  }
  Field copy(field);  // a copy starts afresh
  Reference fresh(text);
  if (!Same(kinds / 4, copy, fresh, seed, what)) {
    kovafuzz::Fail(kTarget, "copy: " + what + " for " + kovafuzz::Show(text));
  }
  bool const one = text == "1";
  if (field.AsBool(!one) != one || field.AsString("default") != text) {
    kovafuzz::Fail(kTarget, "AsBool or AsString wrong for " + kovafuzz::Show(text));
  }
  return 0;
}
