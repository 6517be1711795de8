// Everything generated model code uses: entities, notifiees, collections, value traits.
#pragma once

#include "Mosk/Array.h"
#include "Mosk/AttributeLog.h"
#include "Mosk/Entity.h"
#include "Mosk/Exception.h"
#include "Mosk/HashMap.h"
#include "Mosk/Ptr.h"
#include "Mosk/RbTreeMap.h"
#include "Mosk/Value.h"

namespace Mosk {

// The range check of scalar wrappers, written generically so that a bound equal to the type's
// own limit is still checked without tripping the compiler's always-false warnings.
template <class T>
bool outOfRange(T value, T min, T max) {
  return value < min || value > max;
}

// A counted reference prints as the address it holds; it has no text to be parsed from.
template <class T>
struct ValueTraits<Ptr<T>> {
  static void write(std::ostream& os, Ptr<T> const& p) { os << static_cast<void const*>(p.ptr()); }
  static Ptr<T> read(TextReader& r) { r.fail("a reference has no text form to parse"); }
  static U32 hash(Ptr<T> const& p) { return KeyHash<Ptr<T>>()(p); }
};

}  // namespace Mosk
