#include "json/OneKey.h"

namespace velko::json {

const boost::json::key_value_pair& onlyMember(const Value& v, const Path& path) {
  const Object* obj = v.if_object();
  if (obj == nullptr) {
    failExpected(v, "an object", path);
  }
  if (obj->size() != 1) {
    path.fail(kInvalidNumberOfKeys);
  }
  return *obj->begin();
}

} // namespace velko::json
