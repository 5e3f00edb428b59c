// Result sets, rows and typed fields. Every value travels as text; typing happens in Field.
#ifndef KOVASHARING_RESULT_H
#define KOVASHARING_RESULT_H

#include <string>

#include "export.h"

struct DBResult_tag;  // the platform's result set

namespace KOVA {
namespace sharing {
namespace db {

class Row;

// Owns one result set and steps through its rows.
class KOVA_EXPORT Result {
 public:
  Result();
  explicit Result(DBResult_tag* result);
  virtual ~Result();
  Result(Result const&) = delete;
  Result& operator=(Result const&) = delete;

  bool IsGood() const;
  // Takes ownership of `result`; a result set held before is not freed.
  void SetResult(DBResult_tag* result);
  // Advances to the next row; false at the end (or on a fetch error), `row` unchanged then.
  bool NextRow(Row& row);

 private:
  unsigned int row_;
  DBResult_tag* result_;
};

class Field;

// One row of a result set; meaningful only while its Result lives.
class KOVA_EXPORT Row {
 public:
  Row();
  Row(DBResult_tag* result, unsigned int row);
  virtual ~Row();

  bool IsGood() const;
  void SetResult(DBResult_tag* result);
  void SetRow(unsigned int row);
  // The named column's text. A column without text makes constructing the text throw
  // std::logic_error; nothing here catches it.
  Field GetField(std::string const& name) const;

 private:
  DBResult_tag* result_;
  unsigned int row_;
};

// One column's text with conversions that fall back to the caller's default. The numeric
// conversions read exactly as a standard string stream in the classic locale reads the text
// (leading white space, decimal, stopping at the first character that cannot continue the
// number, failing on overflow), and keep that stream's state between conversions: a field
// whose text was read to its end, or whose conversion failed, gives the default on every
// later numeric conversion. It is meant to be converted once.
class KOVA_EXPORT Field {
 public:
  explicit Field(std::string const& value);
  Field(Field const& other);  // copies the text; the copy starts with a fresh state
  virtual ~Field();
  Field& operator=(Field const&) = delete;

  void Clear();  // rereads the text from its start; the state of earlier conversions stays
  int AsInt(int def);
  unsigned int AsUInt(unsigned int def);
  long AsTime(long def);
  float AsFloat(float def);
  bool AsBool(bool def);
  std::string const& AsString(std::string const& def);

 private:
  std::string value_;
  bool ended_ = false;   // an earlier conversion reached the end of the text
  bool failed_ = false;  // an earlier conversion failed
};

}  // namespace db
}  // namespace sharing
}  // namespace KOVA

#endif
