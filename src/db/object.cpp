#include "kovasharing/object.h"

namespace KOVA {
namespace sharing {
namespace record {

Object::Object() : flag_(true), id(0) {}

Object::~Object() {}

}  // namespace record
}  // namespace sharing
}  // namespace KOVA
