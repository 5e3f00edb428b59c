#include "kovasharing/result.h"

#include <climits>
#include <locale>
#include <sstream>
#include <stdexcept>

#include "kovadb.h"

namespace KOVA {
namespace sharing {
namespace db {

// ---------------------------------------------------------------- Result

Result::Result() : row_(0), result_(nullptr) {}

Result::Result(DBResult_tag* result) : row_(0), result_(result) {}

Result::~Result() {
  if (result_ != nullptr) {
    KOVADBFreeResult(result_);
  }
}

bool Result::IsGood() const { return result_ != nullptr; }

void Result::SetResult(DBResult_tag* result) { result_ = result; }

bool Result::NextRow(Row& row) {
  if (KOVADBFetchRow(result_, &row_) == -1) {
    return false;
  }
  row.SetResult(result_);
  row.SetRow(row_);
  return true;
}

// ---------------------------------------------------------------- Row

Row::Row() : result_(nullptr), row_(0) {}

Row::Row(DBResult_tag* result, unsigned int row) : result_(result), row_(row) {}

Row::~Row() {}

bool Row::IsGood() const { return result_ != nullptr; }

void Row::SetResult(DBResult_tag* result) { result_ = result; }

void Row::SetRow(unsigned int row) { row_ = row; }

Field Row::GetField(std::string const& name) const {
  if (!IsGood()) {
    return Field("");
  }
  char const* text = KOVADBFetchField(result_, row_, name.c_str());
  if (text == nullptr) {
    // A column without text cannot become a field; the caller sees the same logic error a
    // string made from no text gives.
    throw std::logic_error("basic_string::_M_construct null not valid");
  }
  return Field(text);
}

// ---------------------------------------------------------------- Field

namespace {

bool IsBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// A decimal number as the stream's number reading takes it: white space, a sign, then digits up
// to the first other character. The magnitude is kept up to `limit` (beyond it: overflow).
struct Decimal {
  bool digits = false;
  bool negative = false;
  bool overflow = false;
  bool ended = false;  // reading stopped at the end of the text
  unsigned long long magnitude = 0;
};

Decimal ReadDecimal(std::string const& text, unsigned long long limit) {
  Decimal d;
  size_t i = 0;
  size_t const n = text.size();
  while (i < n && IsBlank(text[i])) ++i;
  if (i < n && (text[i] == '+' || text[i] == '-')) d.negative = text[i++] == '-';
  for (; i < n && text[i] >= '0' && text[i] <= '9'; ++i) {
    d.digits = true;
    unsigned const digit = static_cast<unsigned>(text[i] - '0');
    if (d.overflow || d.magnitude > (limit - digit) / 10) {
      d.overflow = true;  // the remaining digits are still read
    } else {
      d.magnitude = d.magnitude * 10 + digit;
    }
  }
  d.ended = i == n;
  return d;
}

// A signed reading into [lo, hi] through `long`, as the stream reads `int` and `long`.
bool ReadSigned(std::string const& text, long lo, long hi, bool& ended, long& out) {
  unsigned long long const top = static_cast<unsigned long long>(LONG_MAX);
  Decimal const d = ReadDecimal(text, top + 1);
  ended = d.ended;
  if (!d.digits || d.overflow) return false;
  if (d.negative) {
    if (d.magnitude > top + 1) return false;
    out = d.magnitude == top + 1 ? LONG_MIN : -static_cast<long>(d.magnitude);
  } else {
    if (d.magnitude > top) return false;
    out = static_cast<long>(d.magnitude);
  }
  return out >= lo && out <= hi;
}

}  // namespace

Field::Field(std::string const& value) : value_(value) {}

Field::Field(Field const& other) : value_(other.value_) {}

Field::~Field() {}

void Field::Clear() {}

int Field::AsInt(int def) {
  long value = 0;
  bool ended = false;
  bool const ok = !ended_ && !failed_ && ReadSigned(value_, INT_MIN, INT_MAX, ended, value);
  if (!ended_ && !failed_) ended_ = ended;
  failed_ = !ok;
  return ok ? static_cast<int>(value) : def;
}

unsigned int Field::AsUInt(unsigned int def) {
  if (ended_ || failed_) {
    failed_ = true;
    return def;
  }
  // A negative text wraps as the stream's unsigned reading does: "-1" is the largest value.
  Decimal const d = ReadDecimal(value_, UINT_MAX);
  ended_ = d.ended;
  failed_ = !d.digits || d.overflow;
  if (failed_) return def;
  unsigned int const magnitude = static_cast<unsigned int>(d.magnitude);
  return d.negative ? 0u - magnitude : magnitude;
}

long Field::AsTime(long def) {
  long value = 0;
  bool ended = false;
  bool const ok = !ended_ && !failed_ && ReadSigned(value_, LONG_MIN, LONG_MAX, ended, value);
  if (!ended_ && !failed_) ended_ = ended;
  failed_ = !ok;
  return ok ? value : def;
}

float Field::AsFloat(float def) {
  // Rare (no column of the library is a float): the stream itself reads it.
  if (ended_ || failed_) {
    failed_ = true;
    return def;
  }
  std::istringstream stream(value_);
  stream.imbue(std::locale::classic());
  float value = 0;
  stream >> value;
  ended_ = stream.eof();
  failed_ = stream.fail();
  return failed_ ? def : value;
}

bool Field::AsBool(bool /*def*/) { return value_ == "1"; }

std::string const& Field::AsString(std::string const& /*def*/) { return value_; }

}  // namespace db
}  // namespace sharing
}  // namespace KOVA
