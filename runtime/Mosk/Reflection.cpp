// The process-wide registry of type records and the by-id operations of a record.
#include "Mosk/Reflection.h"

#include <algorithm>
#include <map>

namespace Mosk {

namespace {

std::map<std::string, TypeRecord const*, std::less<>>& registry() {
  static std::map<std::string, TypeRecord const*, std::less<>> records;
  return records;
}

}  // namespace

TypeRecord::TypeRecord(char const* name, TypeKind kind, std::vector<AttributeInfo> attributes,
                       Ops ops)
    : name_(name), kind_(kind), attributes_(std::move(attributes)), ops_(ops) {
  registered_ = registry().emplace(name_, this).second;
}

TypeRecord::~TypeRecord() {
  if (registered_) registry().erase(name_);
}

AttributeInfo const& TypeRecord::attribute(U32 id) const {
  if (id >= attributes_.size()) {
    throw RangeException(name_ + " has no attribute of id " + std::to_string(id));
  }
  return attributes_[id];
}

AttributeInfo const& TypeRecord::attribute(std::string_view name) const {
  for (auto const& a : attributes_) {
    if (name == a.name) return a;
  }
  throw RangeException(name_ + " has no attribute named " + std::string(name));
}

std::string TypeRecord::attributeText(void const* object, U32 id) const {
  AttributeInfo const& a = attribute(id);
  if (a.text == nullptr) throw RangeException(name_ + "::" + a.name + " has no text form");
  return a.text(object);
}

void TypeRecord::attributeTextIs(void* object, U32 id, std::string_view text) const {
  AttributeInfo const& a = attribute(id);
  if (a.textIs == nullptr) {
    throw RangeException(name_ + "::" + a.name + " cannot be set by id");
  }
  a.textIs(object, text);
}

std::any TypeRecord::attributeValue(void const* object, U32 id) const {
  AttributeInfo const& a = attribute(id);
  if (a.value == nullptr) {
    throw RangeException(name_ + "::" + a.name + " has no single value");
  }
  return a.value(object);
}

void TypeRecord::attributeValueIs(void* object, U32 id, std::any const& value) const {
  AttributeInfo const& a = attribute(id);
  if (a.valueIs == nullptr) {
    throw RangeException(name_ + "::" + a.name + " cannot be set by id");
  }
  a.valueIs(object, value);
}

void TypeRecord::notOffered(char const* what) const {
  throw RangeException(name_ + " offers no " + what);
}

Ptr<Entity> TypeRecord::construct(Args const& args) const {
  if (ops_.construct == nullptr) notOffered("construction from constructor arguments");
  return ops_.construct(args);
}

std::any TypeRecord::constructValue(Args const& fields) const {
  if (ops_.constructValue == nullptr) notOffered("construction from fields");
  return ops_.constructValue(fields);
}

std::any TypeRecord::fromText(std::string_view text) const {
  if (ops_.fromText == nullptr) notOffered("construction from a text form");
  return ops_.fromText(text);
}

std::any TypeRecord::fromRaw(U64 raw) const {
  if (ops_.fromRaw == nullptr) notOffered("construction from a raw value");
  return ops_.fromRaw(raw);
}

std::any TypeRecord::fromLog(std::vector<U8> const& bytes) const {
  if (ops_.fromLog == nullptr) notOffered("construction from attribute-log bytes");
  return ops_.fromLog(bytes);
}

std::string TypeRecord::text(std::any const& value) const {
  if (ops_.text == nullptr) notOffered("text form");
  return ops_.text(value);
}

void TypeRecord::callHandler(PtrInterface&, std::string_view handler) const {
  throw RangeException(name_ + " has no handler named " + std::string(handler));
}

TypeRecord const* typeRecord(std::string_view name) {
  auto it = registry().find(name);
  return it == registry().end() ? nullptr : it->second;
}

std::vector<std::string> typeNames() {
  std::vector<std::string> out;
  for (auto const& [name, record] : registry())
    out.push_back(name);
  return out;
}

void checkArgCount(TypeRecord::Args const& args, std::size_t count, char const* type) {
  if (args.size() != count) {
    throw RangeException(std::string(type) + " takes " + std::to_string(count) +
                         " constructor arguments, not " + std::to_string(args.size()));
  }
}

}  // namespace Mosk
