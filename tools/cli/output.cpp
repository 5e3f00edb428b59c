#include "output.h"

#include <json/writer.h>

#include <ctime>
#include <memory>

namespace kovacli {

char const kTimeFormat[] = "%Y-%m-%d %H:%M:%S";

std::string TimeText(long when) {
  if (when == 0) return "";
  time_t const t = static_cast<time_t>(when);
  struct tm local = {};
  char buf[64];
  if (localtime_r(&t, &local) == nullptr || strftime(buf, sizeof buf, kTimeFormat, &local) == 0) {
    return std::to_string(when);
  }
  return buf;
}

std::string OneLine(std::string const& text) {
  std::string out = text;
  for (char& c : out) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = ' ';
  }
  return out;
}

std::string CompactJson(Json::Value const& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value);
}

std::string Cell(Json::Value const& value) {
  if (value.isBool()) return value.asBool() ? "yes" : "no";
  if (value.isString()) return value.asString().empty() ? "-" : OneLine(value.asString());
  if (value.isArray()) {
    std::string out;
    for (auto const& item : value) out += (out.empty() ? "" : ", ") + Cell(item);
    return out.empty() ? "-" : out;
  }
  if (value.isNull()) return "-";
  if (value.isObject()) return CompactJson(value);
  return OneLine(CompactJson(value));
}

void PrintJson(std::ostream& out, Json::Value const& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  builder["emitUTF8"] = true;
  std::unique_ptr<Json::StreamWriter> const writer(builder.newStreamWriter());
  writer->write(value, &out);
  out << "\n";
}

void Table::Print(std::ostream& out) const {
  std::vector<size_t> widths(headers_.size(), 0);
  auto measure = [&widths](std::vector<std::string> const& row) {
    for (size_t i = 0; i < row.size() && i < widths.size(); ++i) {
      if (row[i].size() > widths[i]) widths[i] = row[i].size();
    }
  };
  measure(headers_);
  for (auto const& row : rows_) measure(row);
  auto print = [&out, &widths](std::vector<std::string> const& row) {
    std::string line;
    for (size_t i = 0; i < row.size() && i < widths.size(); ++i) {
      if (i > 0) line += "  ";
      line += row[i];
      if (i + 1 < row.size()) line.append(widths[i] - row[i].size(), ' ');
    }
    out << line << "\n";
  };
  print(headers_);
  for (auto const& row : rows_) print(row);
}

}  // namespace kovacli
