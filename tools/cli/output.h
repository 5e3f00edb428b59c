// Output of the administrator tool: aligned tables for people, JSON for scripts, and the
// texts of times and values they share.
#ifndef KOVASHARING_TOOLS_CLI_OUTPUT_H
#define KOVASHARING_TOOLS_CLI_OUTPUT_H

#include <json/value.h>

#include <ostream>
#include <string>
#include <vector>

namespace kovacli {

// The local time format of every time the tool reads or prints.
extern char const kTimeFormat[];

// Local time text of `when`; "" for 0 (unset).
std::string TimeText(long when);
// `text` with line breaks and other control characters turned into blanks, so that a
// message stays on one line and a table row in one row.
std::string OneLine(std::string const& text);
// A JSON value as a table cell: strings as they are ("-" when empty), booleans as yes/no,
// arrays joined with ", ", objects as compact JSON.
std::string Cell(Json::Value const& value);
std::string CompactJson(Json::Value const& value);
void PrintJson(std::ostream& out, Json::Value const& value);

class Table {
 public:
  explicit Table(std::vector<std::string> headers) : headers_(std::move(headers)) {}
  void Add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
  size_t size() const { return rows_.size(); }
  // Columns separated by two blanks, padded to the widest cell; no trailing blanks.
  void Print(std::ostream& out) const;

 private:
  std::vector<std::string> headers_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace kovacli

#endif
