// The record interface through which the generic store writes and reads every record.
#ifndef KOVASHARING_OBJECT_H
#define KOVASHARING_OBJECT_H

#include <json/value.h>

#include <map>
#include <string>
#include <vector>

#include "export.h"

namespace KOVA {
namespace sharing {
namespace db {
class Row;
}
namespace record {

class KOVA_EXPORT Object {
 public:
  Object();
  virtual ~Object();

  // Values of every column but "id", in table order, unescaped.
  virtual std::vector<std::string> GetFieldList() const = 0;
  // Column name to value for an update; an "id" entry is ignored.
  virtual std::map<std::string, std::string> GetFieldMap() const = 0;
  virtual bool IsLegal() const = 0;
  virtual void ToJSON(Json::Value& out) const = 0;
  // Fills the record from a row of its table, id included; false when the row is unusable.
  virtual bool FromRow(db::Row const& row) = 0;

  int get_id() const { return id; }
  void set_id(int value) { id = value; }

 protected:
  Object(Object const&) = default;
  Object& operator=(Object const&) = default;

  bool flag_;  // set from construction on and copied with the record; stores do not read it
  int id;      // row id; 0 until stored
};

}  // namespace record
}  // namespace sharing
}  // namespace KOVA

#endif
