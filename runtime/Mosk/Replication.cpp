// The non-template half of attribute-log replication: log framing, the adapter, the mount and
// the read-only error of mounted copies.
#include "Mosk/Replication.h"

#include <bit>
#include <cstdio>
#include <unordered_map>

#include "Mosk/Hash.h"

namespace Mosk {

namespace {

// The peer of each mounted copy's root, for the read-only error of any entity below it.
std::unordered_map<Entity const*, std::string>& mountPeers() {
  static std::unordered_map<Entity const*, std::string> peers;
  return peers;
}

std::string hex32(U32 v) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%08x", v);
  return buf;
}

}  // namespace

void Entity::throwReadOnly() const {
  std::string peer;
  for (Entity const* e = this; e != nullptr; e = e->parent()) {
    auto it = mountPeers().find(e);
    if (it != mountPeers().end()) {
      peer = it->second;
      break;
    }
  }
  throw InternalException("write-update from readonly proxy: " + fullName() + " peerName: " + peer);
}

void LogReader::fail(std::string const& what) const {
  throw LogFormatException("attribute log: " + what + " at byte " + std::to_string(base_ + pos_));
}

U8 const* LogReader::need(std::size_t n, char const* what) {
  if (n > size_ - pos_) {
    fail("truncated: " + std::to_string(n) + " bytes of " + what + " needed, " +
         std::to_string(size_ - pos_) + " left");
  }
  U8 const* p = data_ + pos_;
  pos_ += n;
  return p;
}

bool LogTraits<bool>::read(LogReader& r) {
  U8 v = r.u8("bool");
  if (v > 1) r.fail("bool of value " + std::to_string(v));
  return v == 1;
}

void LogTraits<double>::write(LogWriter& w, double v) {
  w.u64(std::bit_cast<U64>(v));
}

double LogTraits<double>::read(LogReader& r) {
  return std::bit_cast<double>(r.u64("double"));
}

void LogTraits<std::string>::write(LogWriter& w, std::string const& v) {
  w.u32(static_cast<U32>(v.size()));
  w.bytes(v.data(), v.size());
}

std::string LogTraits<std::string>::read(LogReader& r) {
  U32 n = r.u32("string length");
  std::string s(n <= r.remaining() ? n : 0, '\0');
  if (n > r.remaining()) {
    r.fail("string of " + std::to_string(n) + " bytes with " + std::to_string(r.remaining()) +
           " left");
  }
  r.bytes(s.data(), n, "string");
  return s;
}

U32 logTypeHash(char const* qualifiedName) {
  return murmur3(qualifiedName, std::char_traits<char>::length(qualifiedName));
}

LogRecord readLogRecord(LogReader& r) {
  U8 op = r.u8("record op");
  if (op > static_cast<U8>(LogOp::ptrValue)) r.fail("unknown record op " + std::to_string(op));
  if (op == 0) return {LogOp::end, 0};
  return {static_cast<LogOp>(op), r.u8("attribute id")};
}

void writeLogRecord(LogWriter& w, LogOp op, U8 attr) {
  w.u8(static_cast<U8>(op));
  w.u8(attr);
}

void badLogRecord(LogReader const& r, LogRecord rec, char const* attr, char const* type) {
  r.fail("record op " + std::to_string(static_cast<U8>(rec.op)) + " not allowed for " + type +
         "::" + attr);
}

void unknownLogAttribute(LogReader const& r, LogRecord rec, char const* type) {
  r.fail("unknown attribute id " + std::to_string(rec.attr) + " of " + type);
}

void LogApply::fire() {
  auto notices = std::move(notices_);
  for (auto& n : notices)
    n->run();
}

// ---------------------------------------------------------------------------------------------

namespace {

void writeHeader(LogWriter& w, LogKind kind, U32 typeHash, U32 sequence) {
  w.u16(LogHeader::magic);
  w.u8(LogHeader::version);
  w.u8(static_cast<U8>(kind));
  w.u32(typeHash);
  w.u32(sequence);
  w.u32(0);  // body length, patched when the body is written
}

std::vector<U8> finish(LogWriter& w) {
  w.patchU32(12, static_cast<U32>(w.size() - LogHeader::size));
  return w.take();
}

}  // namespace

LogAdapter::~LogAdapter() {
  deactivate();
}

void LogAdapter::activate() {
  if (node_ != nullptr) throw InternalException("entity reactor is already active");
  auto [holder, node] = ops_.newNode(*root_);
  holder_ = std::move(holder);
  node_ = node;
}

void LogAdapter::deactivate() {
  node_ = nullptr;
  holder_ = nullptr;
}

std::vector<U8> LogAdapter::flush() {
  if (!dirty()) return {};
  LogWriter w;
  writeHeader(w, LogKind::delta, logTypeHash(ops_.typeName), ++sequence_);
  node_->writeDelta(w);
  return finish(w);
}

std::vector<U8> LogAdapter::snapshot() const {
  LogWriter w;
  writeHeader(w, LogKind::snapshot, logTypeHash(ops_.typeName), sequence_);
  ops_.writeFull(w, *root_);
  return finish(w);
}

LogMount::LogMount(Ptr<Entity> copy, ReplicaOps const& ops, std::string peer)
    : copy_(std::move(copy)), ops_(ops), peer_(std::move(peer)) {
  ReplicaAccess::readOnlyIs(*copy_, true);
  mountPeers()[copy_.ptr()] = peer_;
}

LogMount::~LogMount() {
  mountPeers().erase(copy_.ptr());
}

void LogMount::apply(U8 const* data, std::size_t size) {
  LogReader r(data, size);
  if (r.u16("log magic") != LogHeader::magic) r.fail("not an attribute log (bad magic)");
  U8 version = r.u8("log version");
  if (version != LogHeader::version) r.fail("unknown log version " + std::to_string(version));
  U8 kind = r.u8("log kind");
  if (kind != static_cast<U8>(LogKind::snapshot) && kind != static_cast<U8>(LogKind::delta)) {
    r.fail("unknown log kind " + std::to_string(kind));
  }
  U32 typeHash = r.u32("type hash");
  if (typeHash != logTypeHash(ops_.typeName)) {
    r.fail("log of type hash " + hex32(typeHash) + " applied to a copy of " + ops_.typeName);
  }
  U32 sequence = r.u32("sequence");
  U32 length = r.u32("body length");
  if (length != r.remaining()) {
    r.fail("body of " + std::to_string(length) + " bytes announced, " +
           std::to_string(r.remaining()) + " present");
  }
  if (kind == static_cast<U8>(LogKind::delta)) {
    if (!synced_) r.fail("delta " + std::to_string(sequence) + " before any snapshot");
    if (sequence != sequence_ + 1) {
      r.fail("delta " + std::to_string(sequence) + " out of order after " +
             std::to_string(sequence_));
    }
  }
  LogReader body = r;
  {
    LogApply check(false);
    ops_.read(body, copy_.ptr(), check);
    if (!body.atEnd()) body.fail(std::to_string(body.remaining()) + " bytes after the records");
  }
  LogApply apply(true);
  ops_.read(r, copy_.ptr(), apply);
  sequence_ = sequence;
  synced_ = true;
  apply.fire();
}

}  // namespace Mosk
