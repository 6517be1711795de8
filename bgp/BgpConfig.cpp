// Reading srte-bgp's configuration file.
#include "BgpConfig.h"

#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "Mosk/Exception.h"
#include "Skerry/ShmTable.h"

namespace SrTeBgp {

namespace {

using Json = nlohmann::json;

// One value of the file and its path ("peers[1].holdTime"); every accessor checks what it reads.
class Field {
 public:
  Field(std::string const& file, Json const& value, std::string path)
      : file_(file), value_(value), path_(std::move(path)) {}

  [[noreturn]] void fail(std::string const& reason) const {
    throw ConfigError(file_ + ": " + (path_.empty() ? "(document)" : path_) + ": " + reason);
  }
  Field child(std::string const& key) const {
    return Field(file_, value_.at(key), path_.empty() ? key : path_ + "." + key);
  }
  std::optional<Field> optional(char const* key) const {
    if (!value_.contains(key)) return std::nullopt;
    return child(key);
  }
  Field required(char const* key) const {
    if (!value_.contains(key)) fail(std::string("missing field \"") + key + "\"");
    return child(key);
  }
  void object(std::initializer_list<char const*> allowed) const {
    if (!value_.is_object()) fail("expected an object, not " + value_.dump());
    for (auto const& item : value_.items()) {
      std::string const& key = item.key();
      bool known = false;
      std::string names;
      for (char const* a : allowed) {
        known = known || key == a;
        names += std::string(names.empty() ? "" : ", ") + a;
      }
      if (!known) child(key).fail("unknown field \"" + key + "\" (known here: " + names + ")");
    }
  }
  std::size_t list() const {
    if (!value_.is_array()) fail("expected a list, not " + value_.dump());
    return value_.size();
  }
  Field at(std::size_t i) const {
    return Field(file_, value_.at(i), path_ + "[" + std::to_string(i) + "]");
  }
  bool isNull() const { return value_.is_null(); }

  U64 number(U64 lo, U64 hi) const {
    if (!value_.is_number_unsigned() || value_.get<U64>() < lo || value_.get<U64>() > hi) {
      fail("expected a whole number from " + std::to_string(lo) + " to " + std::to_string(hi) +
           ", not " + value_.dump());
    }
    return value_.get<U64>();
  }
  bool boolean() const {
    if (!value_.is_boolean()) fail("expected true or false, not " + value_.dump());
    return value_.get<bool>();
  }
  std::string string() const {
    if (!value_.is_string()) fail("expected a string, not " + value_.dump());
    return value_.get<std::string>();
  }
  Ludd::IpGenAddr address() const {
    std::string const text = string();
    try {
      Ludd::IpGenAddr a = Ludd::IpGenAddr::parse(text);
      if (!a.isEmpty()) return a;
    } catch (Mosk::Exception const&) {
    }
    fail("'" + text + "' is not an IPv4 or IPv6 address");
  }

 private:
  std::string const& file_;
  Json const& value_;
  std::string path_;
};

PeerConfig peerOf(Field const& f) {
  f.object({"address", "port", "as", "passive", "holdTime", "connectRetry"});
  PeerConfig p;
  p.address = f.required("address").address();
  if (auto v = f.optional("port")) p.port = static_cast<U16>(v->number(1, 65535));
  p.as = static_cast<U32>(f.required("as").number(1, Mosk::maxU32));
  if (auto v = f.optional("passive")) p.passive = v->boolean();
  if (auto v = f.optional("holdTime")) {
    p.holdTime = static_cast<U16>(v->number(0, 65535));
    if (p.holdTime == 1 || p.holdTime == 2) v->fail("a hold time is 0 or 3 to 65535 seconds");
  }
  if (auto v = f.optional("connectRetry")) p.connectRetry = static_cast<U32>(v->number(1, 3600));
  return p;
}

}  // namespace

SpeakerConfig readConfigText(std::string const& text, std::string const& file) {
  Json doc;
  try {
    doc = Json::parse(text);
  } catch (Json::parse_error const& e) {
    throw ConfigError(file + ": (document): not JSON: " + e.what());
  }
  Field const root(file, doc, "");
  root.object(
      {"localAs", "bgpIdentifier", "listenAddress", "listenPort", "table", "capacity", "peers"});
  SpeakerConfig c;
  c.localAs = static_cast<U32>(root.required("localAs").number(1, Mosk::maxU32));
  Field const id = root.required("bgpIdentifier");
  Ludd::IpGenAddr const identifier = id.address();
  if (!identifier.isIpv4() || identifier.v4().isZero()) {
    id.fail("a BGP identifier is a non-zero IPv4 address");
  }
  c.bgpIdentifier = identifier.v4();
  if (auto v = root.optional("listenAddress")) c.listenAddress = v->address();
  if (auto v = root.optional("listenPort")) {
    c.listenPort = v->isNull() ? std::nullopt : std::optional<U16>(v->number(0, 65535));
  }
  if (auto v = root.optional("table")) {
    c.table = v->string();
    try {
      (void)Skerry::shmTablePath(c.table);
    } catch (Mosk::RangeException const& e) {
      v->fail(e.what());
    }
  }
  if (auto v = root.optional("capacity")) c.capacity = static_cast<U32>(v->number(1, 1u << 22));
  Field const peers = root.required("peers");
  std::size_t const n = peers.list();
  // A peer that connects is known by its address alone.
  std::set<Ludd::IpGenAddr> seen;
  for (std::size_t i = 0; i < n; ++i) {
    Field const f = peers.at(i);
    c.peers.push_back(peerOf(f));
    if (!seen.insert(c.peers.back().address).second) {
      f.child("address").fail("the same address as an earlier peer");
    }
  }
  return c;
}

SpeakerConfig readConfigFile(std::string const& path) {
  std::ifstream in(path);
  if (!in) throw ConfigError(path + ": (document): cannot open the file");
  std::stringstream text;
  text << in.rdbuf();
  if (in.bad()) throw ConfigError(path + ": (document): cannot read the file");
  return readConfigText(text.str(), path);
}

}  // namespace SrTeBgp
