// Reflection: a type record per model type, registered under its qualified name
// ("SrTePolicy::Status") in one process-wide registry, for tools that know types only by name
// (show commands, the agent's debugging hooks). Nothing in the library's logic depends on it.
//
// A record lists the type's attributes (id, name, type, kind) and reads and writes them by id,
// as text forms or as typed values held in std::any; it constructs an instance from its
// constructor arguments (text forms), a value from its text form, from a raw number (scalar
// wrappers and enumerations) or from its attribute-log bytes; and it calls a handler by name on
// a state machine. The generator writes the records of declared types; hand-written state
// machines register their handlers with a MachineRecord.
#pragma once

#include <any>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Mosk/AttributeLog.h"
#include "Mosk/Entity.h"
#include "Mosk/Value.h"

namespace Mosk {

struct ReplicaOps;

enum class TypeKind : U8 { value, enumeration, entity, machine };

enum class AttributeKind : U8 {
  field,       // a field of a value type
  parameter,   // a constructor parameter of an entity
  scalar,      // a scalar or counter attribute
  reference,   // a counted reference
  collection,  // a keyed collection
};

// One attribute of a type. `object` is the entity, or the value held by the caller; the
// setters are null for attributes that cannot be set by id.
struct AttributeInfo {
  U32 id;
  char const* name;
  char const* type;
  AttributeKind kind;
  std::string (*text)(void const* object);
  void (*textIs)(void* object, std::string_view text);
  std::any (*value)(void const* object);
  void (*valueIs)(void* object, std::any const& value);
};

class TypeRecord {
 public:
  using Args = std::vector<std::string>;
  struct Ops {
    // Entities: a new instance from its constructor arguments (a Name is taken as it is).
    Ptr<Entity> (*construct)(Args const& args) = nullptr;
    // Values: from the text forms of the fields, from the value's text form, from a raw
    // number, from attribute-log bytes; and the text form of a value.
    std::any (*constructValue)(Args const& fields) = nullptr;
    std::any (*fromText)(std::string_view text) = nullptr;
    std::any (*fromRaw)(U64 raw) = nullptr;
    std::any (*fromLog)(std::vector<U8> const& bytes) = nullptr;
    std::string (*text)(std::any const& value) = nullptr;
    ReplicaOps const& (*replica)() = nullptr;
  };

  // Registers the record under `name`; a second record of the same name is not registered.
  TypeRecord(char const* name, TypeKind kind, std::vector<AttributeInfo> attributes, Ops ops);
  TypeRecord(TypeRecord const&) = delete;
  TypeRecord& operator=(TypeRecord const&) = delete;
  virtual ~TypeRecord();

  std::string const& name() const { return name_; }
  TypeKind kind() const { return kind_; }
  std::vector<AttributeInfo> const& attributes() const { return attributes_; }
  // The attribute of this id or name; an unknown one raises the range error.
  AttributeInfo const& attribute(U32 id) const;
  AttributeInfo const& attribute(std::string_view name) const;
  // The attribute-log replication of an entity type, or null for a type not replicated.
  ReplicaOps const* replicaOps() const { return ops_.replica ? &ops_.replica() : nullptr; }

  // Get and set by id. `object` must be an instance of this type (an entity of it, or the
  // value inside a std::any of it). An attribute that cannot be set raises the range error.
  std::string attributeText(void const* object, U32 id) const;
  void attributeTextIs(void* object, U32 id, std::string_view text) const;
  std::any attributeValue(void const* object, U32 id) const;
  void attributeValueIs(void* object, U32 id, std::any const& value) const;

  // Construction; a form the type does not offer raises the range error.
  Ptr<Entity> construct(Args const& args) const;
  std::any constructValue(Args const& fields) const;
  std::any fromText(std::string_view text) const;
  std::any fromRaw(U64 raw) const;
  std::any fromLog(std::vector<U8> const& bytes) const;
  std::string text(std::any const& value) const;

  // The handlers offered by name, and calling one; an unknown name raises the range error, an
  // object of another type the internal error.
  virtual std::vector<std::string> handlerNames() const { return {}; }
  virtual void callHandler(PtrInterface& object, std::string_view handler) const;

 protected:
  [[noreturn]] void notOffered(char const* what) const;

 private:
  std::string name_;
  TypeKind kind_;
  std::vector<AttributeInfo> attributes_;
  Ops ops_;
  bool registered_ = false;
};

// The record registered under `name`, or null.
TypeRecord const* typeRecord(std::string_view name);
// The names of all registered records, sorted.
std::vector<std::string> typeNames();

// A state machine's record: its handlers by name.
template <class Sm>
class MachineRecord : public TypeRecord {
 public:
  using Handler = void (Sm::*)();
  MachineRecord(char const* name, std::initializer_list<std::pair<char const*, Handler>> handlers)
      : TypeRecord(name, TypeKind::machine, {}, {}), handlers_(handlers) {}

  std::vector<std::string> handlerNames() const override {
    std::vector<std::string> out;
    for (auto const& h : handlers_)
      out.emplace_back(h.first);
    return out;
  }
  void callHandler(PtrInterface& object, std::string_view handler) const override {
    auto* sm = dynamic_cast<Sm*>(&object);
    if (sm == nullptr) throw InternalException("handler call on an object that is not a " + name());
    for (auto const& h : handlers_) {
      if (handler == h.first) {
        (sm->*h.second)();
        return;
      }
    }
    TypeRecord::callHandler(object, handler);
  }

 private:
  std::vector<std::pair<char const*, Handler>> handlers_;
};

// ---------------------------------------------------------------------------------------------
// Helpers of the generated records.

// Raises the range error unless `args` has `count` entries.
void checkArgCount(TypeRecord::Args const& args, std::size_t count, char const* type);
// The value inside `v`; another type raises the range error naming the attribute.
template <class T>
T const& anyValue(std::any const& v, char const* attr) {
  if (auto const* p = std::any_cast<T>(&v)) return *p;
  throw RangeException(std::string("attribute ") + attr + " takes another type of value");
}

// `raw` as a U; a number wider than U raises the range error.
template <class U>
U rawAs(U64 raw, char const* type) {
  if constexpr (sizeof(U) < sizeof(U64)) {
    if (raw > std::numeric_limits<U>::max()) {
      throw RangeException("raw value " + std::to_string(raw) + " too wide for " + type);
    }
  }
  return static_cast<U>(raw);
}

template <class>
struct MemberOf;
template <class O, class R>
struct MemberOf<R (O::*)() const> {
  using Object = O;
  using Value = std::decay_t<R>;
};

// An attribute read through the getter `Get` and written through the setter `Set` (or not
// at all when `Set` is nullptr).
template <auto Get, auto Set = nullptr>
AttributeInfo attributeInfo(U32 id, char const* name, char const* type, AttributeKind kind) {
  using O = typename MemberOf<decltype(Get)>::Object;
  using T = typename MemberOf<decltype(Get)>::Value;
  AttributeInfo a{id, name, type, kind, nullptr, nullptr, nullptr, nullptr};
  a.text = [](void const* o) { return valueToStrep((static_cast<O const*>(o)->*Get)()); };
  a.value = [](void const* o) { return std::any((static_cast<O const*>(o)->*Get)()); };
  if constexpr (!std::is_null_pointer_v<decltype(Set)>) {
    a.textIs = [](void* o, std::string_view t) { (static_cast<O*>(o)->*Set)(parse<T>(t)); };
    a.valueIs = [](void* o, std::any const& v) {
      (static_cast<O*>(o)->*Set)(anyValue<T>(v, "value"));
    };
  }
  return a;
}

// A collection read as text: "{key: value, ...}" for value maps through the cursor `Iter`,
// "[key, ...]" for collections of entities.
template <auto Iter, bool Values>
AttributeInfo collectionInfo(U32 id, char const* name, char const* type) {
  using O = typename MemberOf<decltype(Iter)>::Object;
  AttributeInfo a{id, name, type, AttributeKind::collection, nullptr, nullptr, nullptr, nullptr};
  a.text = [](void const* o) {
    std::ostringstream os;
    os << (Values ? '{' : '[');
    bool first = true;
    for (auto c = (static_cast<O const*>(o)->*Iter)(); c; ++c) {
      if (!first) os << ", ";
      first = false;
      writeStrep(os, c.key());
      if constexpr (Values) {
        os << ": ";
        writeStrep(os, c.value());
      }
    }
    os << (Values ? '}' : ']');
    return os.str();
  };
  return a;
}

template <class>
struct IndexedMemberOf;
template <class O, class R, class I>
struct IndexedMemberOf<R (O::*)(I) const> {
  using Object = O;
  using Index = std::decay_t<I>;
};

// A fixed array read as text: "{index: value, ...}" over the positions that hold a value.
template <auto At, U32 N>
AttributeInfo arrayInfo(U32 id, char const* name, char const* type) {
  using O = typename IndexedMemberOf<decltype(At)>::Object;
  using I = typename IndexedMemberOf<decltype(At)>::Index;
  AttributeInfo a{id, name, type, AttributeKind::collection, nullptr, nullptr, nullptr, nullptr};
  a.text = [](void const* o) {
    std::ostringstream os;
    os << '{';
    bool first = true;
    for (U32 i = 0; i < N; ++i) {
      auto const& v = (static_cast<O const*>(o)->*At)(I(i));
      if (isEmptyValue(v)) continue;
      if (!first) os << ", ";
      first = false;
      os << i << ": ";
      writeStrep(os, v);
    }
    os << '}';
    return os.str();
  };
  return a;
}

}  // namespace Mosk
