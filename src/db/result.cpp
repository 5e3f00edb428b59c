#include "kovasharing/result.h"

#include <locale>
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

Field::Field(std::string const& value) : value_(value) { stream_.imbue(std::locale::classic()); }

Field::Field(Field const& other) : value_(other.value_) { stream_.imbue(std::locale::classic()); }

Field::~Field() {}

void Field::Clear() {
  // Only the text is reloaded: the state flags of an earlier conversion stay, so a field is
  // converted once.
  stream_.str(value_);
}

int Field::AsInt(int def) {
  Clear();
  int value = 0;
  stream_ >> value;
  return stream_.fail() ? def : value;
}

unsigned int Field::AsUInt(unsigned int def) {
  Clear();
  unsigned int value = 0;
  stream_ >> value;
  return stream_.fail() ? def : value;
}

long Field::AsTime(long def) {
  Clear();
  long value = 0;
  stream_ >> value;
  return stream_.fail() ? def : value;
}

float Field::AsFloat(float def) {
  Clear();
  float value = 0;
  stream_ >> value;
  return stream_.fail() ? def : value;
}

bool Field::AsBool(bool /*def*/) {
  Clear();
  return stream_.str() == "1";
}

std::string const& Field::AsString(std::string const& /*def*/) { return value_; }

}  // namespace db
}  // namespace sharing
}  // namespace KOVA
