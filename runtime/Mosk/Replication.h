// Attribute-log replication of entity trees: the writer's adapter, the reader's mount, and the
// pieces that the generated code of each replicated entity (declared `replicated` in its
// .mosk) builds on.
//
// Writer. A LogAdapter attached to an entity watches it and its elements through the ordinary
// notifications: one node per entity (a notifiee), one dirty bit per attribute and one dirty
// mark per collection key. A key changed several times between two flushes is sent once, with
// its state at the flush; a key that was added and removed again is sent as removed (the reader
// ignores the removal of a key it does not have). flush() writes the marked changes as a delta
// log and clears the marks; snapshot() writes the whole tree for a reader that connects.
//
// Log. A 16-byte header (magic "ML", version, kind, the hash of the root's qualified type name,
// the sequence number, the body length) and the root's records. A record is an op byte, the
// attribute id and its payload; an entity's records end with LogOp::end:
//   attr      value                          a scalar attribute or mutable parameter
//   keySet    key value                      a value collection's key (a `keyed` map: value)
//   keyDel    key                            a key of any collection is gone
//   elemFull  constructor args, records      an element, whole (created or replaced)
//   elemDelta key, records                   changes inside an existing element
//   sync      count, entries                 a whole collection (snapshot): others are dropped
//   ptrKey    present, key                   a reference carried as the key of its element
//   ptrValue  present, records               a reference to an anonymous entity, by value
// Deltas are numbered 1, 2, ...; a snapshot carries the number of the last delta it contains.
// A delta may repeat changes that a snapshot already holds: applying is idempotent.
//
// Reader. A LogMount marks its copy read-only: every generated mutator of the copy and its
// elements raises "write-update from readonly proxy: <fullName> peerName: <peer>". apply()
// reads the log twice: first it decodes and checks everything (lengths, tags, ranges, keys that
// must exist) without touching the copy, then it writes through the generated replica code,
// which stores into the entities directly. Notifications of the copy are held back until the
// whole log is stored, so a reactor of the copy sees a consistent tree.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Mosk/AttributeLog.h"
#include "Mosk/Entity.h"
#include "Mosk/HashMap.h"

namespace Mosk {

enum class LogOp : U8 {
  end = 0,
  attr = 1,
  keySet = 2,
  keyDel = 3,
  elemFull = 4,
  elemDelta = 5,
  sync = 6,
  ptrKey = 7,
  ptrValue = 8,
};

enum class LogKind : U8 { snapshot = 1, delta = 2 };

struct LogHeader {
  static constexpr U16 magic = 0x4d4c;  // "ML"
  static constexpr U8 version = 1;
  static constexpr std::size_t size = 16;
  LogKind kind = LogKind::delta;
  U32 typeHash = 0;
  U32 sequence = 0;
  U32 bodyLength = 0;
};

// The hash that names a root type in a log header.
U32 logTypeHash(char const* qualifiedName);

// One record's op and attribute id.
struct LogRecord {
  LogOp op;
  U8 attr;
};
LogRecord readLogRecord(LogReader& r);
void writeLogRecord(LogWriter& w, LogOp op, U8 attr);
// Raises the format error for a record that the attribute does not take.
[[noreturn]] void badLogRecord(LogReader const& r, LogRecord rec, char const* attr,
                               char const* type);
[[noreturn]] void unknownLogAttribute(LogReader const& r, LogRecord rec, char const* type);

// ---------------------------------------------------------------------------------------------
// Writer side

// The dirty state of one watched entity. Generated nodes derive from it and from the entity's
// NotifieeConst.
class LogNode {
 public:
  LogNode(LogNode const&) = delete;
  LogNode& operator=(LogNode const&) = delete;
  virtual ~LogNode() = default;

  bool dirty() const { return dirty_; }
  // Writes the records of every marked change and LogOp::end, then clears the marks.
  virtual void writeDelta(LogWriter& w) = 0;
  // Clears the marks of this node and of its marked descendants.
  virtual void clearDirty() = 0;

 protected:
  LogNode(LogNode* owner, U8 slot) : owner_(owner), slot_(slot) {}
  // Marks the node; its owner hears of it once between two flushes.
  void markDirty() {
    if (dirty_) return;
    dirty_ = true;
    if (owner_ != nullptr) owner_->childDirty(slot_, *this);
  }
  void dirtyIs(bool dirty) { dirty_ = dirty; }
  // One dirty bit per scalar attribute, reference and mutable parameter, by attribute id.
  void markAttr(U8 id) {
    attrs_ |= U64{1} << id;
    markDirty();
  }
  bool attrMarked(U8 id) const { return (attrs_ >> id) & 1; }
  // Clears the attribute bits and the node's own mark.
  void clearMarks() {
    attrs_ = 0;
    dirty_ = false;
  }
  // An element's node in the collection `slot` has changed inside.
  virtual void childDirty(U8 slot, LogNode& child) = 0;

 private:
  LogNode* owner_;
  U64 attrs_ = 0;
  U8 slot_;
  bool dirty_ = false;
};

// What a collection key's mark asks for at the next flush.
enum class LogMark : U8 {
  delta = 1,  // the element is the same; send what changed inside it
  full = 2,   // the key was added, removed, replaced or re-announced: send its whole state
};

// One dirty mark per key of a hashed collection.
template <class K, class Hasher = KeyHash<K>, class Less = std::less<K>>
class DirtyKeys {
 public:
  void mark(K const& key, LogMark m) {
    LogMark const* old = marks_.find(key);
    if (old == nullptr || *old < m) marks_.set(key, m);
  }
  bool empty() const { return marks_.empty(); }
  template <class F>
  void forEach(F&& f) const {
    for (auto c = marks_.cursor(); c; ++c)
      f(c.key(), c.value());
  }
  void clear() { marks_.clear(); }

 private:
  HashMap<K, LogMark, Hasher, Less> marks_;
};

// One dirty mark per key of an ordered collection, sent in key order.
template <class K, class Less = std::less<K>>
class OrderedDirtyKeys {
 public:
  void mark(K const& key, LogMark m) {
    auto [it, inserted] = marks_.emplace(key, m);
    if (!inserted && it->second < m) it->second = m;
  }
  bool empty() const { return marks_.empty(); }
  template <class F>
  void forEach(F&& f) const {
    for (auto const& [k, m] : marks_)
      f(k, m);
  }
  void clear() { marks_.clear(); }

 private:
  std::map<K, LogMark, Less> marks_;
};

// The nodes of the elements of one entity collection, by key.
template <class K, class Node, class Hasher = KeyHash<K>, class Less = std::less<K>>
class LogChildren {
 public:
  // Points the node of `key` at `element` (a new node when the element is new or replaced);
  // drops it when `element` is null.
  template <class Elem>
  void track(K const& key, Elem const* element, LogNode* owner, U8 slot) {
    if (element == nullptr) {
      nodes_.erase(key);
      return;
    }
    Ptr<Node> const* n = nodes_.find(key);
    if (n != nullptr && &(*n)->entity() == element) return;
    nodes_.set(key, Ptr<Node>(new Node(*element, owner, slot)));
  }
  Node* find(K const& key) const {
    Ptr<Node> const* n = nodes_.find(key);
    return n ? n->ptr() : nullptr;
  }

 private:
  HashMap<K, Ptr<Node>, Hasher, Less> nodes_;
};

// The key-side records of a value collection at a flush: keySet with the current value, or
// keyDel when the key is gone.
template <class K, class V>
void writeKeyChange(LogWriter& w, U8 attr, K const& key, V const* value, bool keyed) {
  if (value == nullptr) {
    writeLogRecord(w, LogOp::keyDel, attr);
    logWrite(w, key);
    return;
  }
  writeLogRecord(w, LogOp::keySet, attr);
  if (!keyed) logWrite(w, key);
  logWrite(w, *value);
}

// The records of one marked key of an entity collection. ElemLog is the element's generated
// replica class (writeArgs, writeFull, Node).
template <class ElemLog, class K, class Elem, class Children>
void writeElementChange(LogWriter& w, U8 attr, K const& key, LogMark mark, Elem const* element,
                        Children const& children) {
  if (element == nullptr) {
    writeLogRecord(w, LogOp::keyDel, attr);
    logWrite(w, key);
    return;
  }
  typename ElemLog::Node* node = children.find(key);
  if (mark == LogMark::full || node == nullptr) {
    writeLogRecord(w, LogOp::elemFull, attr);
    ElemLog::writeArgs(w, *element);
    ElemLog::writeFull(w, *element);
    if (node != nullptr) node->clearDirty();
    return;
  }
  writeLogRecord(w, LogOp::elemDelta, attr);
  logWrite(w, key);
  node->writeDelta(w);
}

// ---------------------------------------------------------------------------------------------
// Reader side

// One pass of applying a log: checking (nothing is written) or applying. Notifications of the
// copy wait in the context until the whole log is stored.
class LogApply {
 public:
  explicit LogApply(bool applying) : applying_(applying) {}
  bool applying() const { return applying_; }
  // Runs `f` (a notification of the copy) once the log is stored.
  template <class F>
  void later(F f) {
    notices_.push_back(std::make_unique<NoticeOf<F>>(std::move(f)));
  }
  // Runs the held notifications in order; a notification that throws stops the rest.
  void fire();

 private:
  struct Notice {
    virtual ~Notice() = default;
    virtual void run() = 0;
  };
  template <class F>
  struct NoticeOf final : Notice {
    explicit NoticeOf(F fn) : f(std::move(fn)) {}
    void run() override { f(); }
    F f;
  };
  bool applying_;
  std::vector<std::unique_ptr<Notice>> notices_;
};

// What one body of records did to the keys of a collection, while checking: a key may appear
// once, and a reference carried by key must name an element that will be there.
template <class K, class Hasher = KeyHash<K>, class Less = std::less<K>>
class KeySeen {
 public:
  // Records `key` (present after the body unless `removed`); refuses a key seen before and
  // records that come after the reference into this collection was read.
  void note(LogReader const& r, K const& key, bool removed, char const* attr) {
    if (sealed_) r.fail(std::string("records of ") + attr + " after the reference into it");
    if (seen_.set(key, !removed) != decltype(seen_)::Change::inserted) {
      r.fail(std::string("key ") + valueToStrep(key) + " of " + attr + " twice in one entity");
    }
  }
  // The collection is given whole: keys not noted are removed.
  void syncIs() { synced_ = true; }
  // Whether `key` names an element after the body, given whether the copy has it now.
  bool present(K const& key, bool inCopy) {
    sealed_ = true;
    bool const* s = seen_.find(key);
    if (s != nullptr) return *s;
    return inCopy && !synced_;
  }

 private:
  HashMap<K, bool, Hasher, Less> seen_;
  bool synced_ = false;
  bool sealed_ = false;
};

// Direct access of the generated replica code to the runtime's internals.
class ReplicaAccess {
 public:
  static void readOnlyIs(Entity const& e, bool readOnly) { e.readOnlyReplicaIs(readOnly); }
  template <class E>
  static void notify(E const& e, void (E::NotifieeConst::*fn)()) {
    static_cast<Entity const&>(e).notify(fn);
  }
};

// Stores a new element of a mounted copy under `key` in the collection `map` of `owner`,
// replacing the element of that key; the element is read-only like its owner.
template <class Map, class K, class Elem>
Elem* replicaInsert(Map& map, K const& key, Ptr<Elem> element, Entity const& owner) {
  ReplicaAccess::readOnlyIs(*element, true);
  if (auto old = map.erase(key)) old->parentIs(nullptr);
  element->parentIs(&owner);
  return map.insert(std::move(element)).first;
}

// Removes the element of `key` from the collection `map` of a mounted copy; false when absent.
template <class Map, class K>
bool replicaErase(Map& map, K const& key) {
  auto old = map.erase(key);
  if (!old) return false;
  old->parentIs(nullptr);
  return true;
}

// Map access of the reader, for hashed maps and fixed arrays alike.
template <class K, class V, class H, class L, U32 N>
V const* replicaFind(HashMap<K, V, H, L, N> const& m, K const& k) {
  return m.find(k);
}
template <class K, class V, class H, class L, U32 N>
bool replicaSet(HashMap<K, V, H, L, N>& m, K const& k, V const& v) {
  return m.set(k, v) != HashMap<K, V, H, L, N>::Change::none;
}
template <class K, class V, class H, class L, U32 N>
bool replicaErase(HashMap<K, V, H, L, N>& m, K const& k) {
  return m.erase(k);
}
template <class K, class V, class H, class L, U32 N, class F>
void replicaKeys(HashMap<K, V, H, L, N> const& m, F&& f) {
  for (auto c = m.cursor(); c; ++c)
    f(c.key());
}
template <class V, class I, U32 N>
V const* replicaFind(Array<V, I, N> const& a, I const& i) {
  return isEmptyValue(a.at(i)) ? nullptr : &a.at(i);
}
template <class V, class I, U32 N>
bool replicaSet(Array<V, I, N>& a, I const& i, V const& v) {
  return a.set(i, v);
}
template <class V, class I, U32 N>
bool replicaErase(Array<V, I, N>& a, I const& i) {
  return a.erase(i);
}
template <class V, class I, U32 N, class F>
void replicaKeys(Array<V, I, N> const& a, F&& f) {
  for (U32 i = 0; i < N; ++i) {
    if (!isEmptyValue(a[i])) f(I(i));
  }
}

// Writes a whole value collection as one sync record.
template <class Map>
void writeValueSync(LogWriter& w, U8 attr, Map const& map, bool keyed) {
  writeLogRecord(w, LogOp::sync, attr);
  std::size_t at = w.placeholderU32();
  U32 n = 0;
  replicaKeys(map, [&](auto const& key) {
    if (!keyed) logWrite(w, key);
    logWrite(w, *replicaFind(map, key));
    ++n;
  });
  w.patchU32(at, n);
}

// Reads one record of a value collection (keySet, keyDel or sync) into `map` (null while
// checking an entity that is not there yet). `keyOf` gives the key of a value of a `keyed`
// map (or is nullptr); `note(key)` holds back the notification of a changed key.
template <class K, class V, class Map, class Seen, class KeyOf, class Note>
void readValueRecord(LogReader& r, LogRecord rec, Map* map, Seen& seen, LogApply& apply,
                     char const* attr, char const* type, KeyOf keyOf, Note note) {
  auto entry = [&]() -> std::pair<K, V> {
    if constexpr (std::is_null_pointer_v<KeyOf>) {
      K k = logReadField<K>(r, attr);
      return {k, logReadField<V>(r, attr)};
    } else {
      V v = logReadField<V>(r, attr);
      return {keyOf(v), v};
    }
  };
  switch (rec.op) {
    case LogOp::keySet: {
      auto [k, v] = entry();
      if (!apply.applying()) {
        seen.note(r, k, false, attr);
      } else if (replicaSet(*map, k, v)) {
        note(k);
      }
      return;
    }
    case LogOp::keyDel: {
      K k = logReadField<K>(r, attr);
      if (!apply.applying()) {
        seen.note(r, k, true, attr);
      } else if (replicaErase(*map, k)) {
        note(k);
      }
      return;
    }
    case LogOp::sync: {
      U32 n = r.u32("entry count");
      if (!apply.applying()) seen.syncIs();
      HashMap<K, bool> listed;
      for (U32 i = 0; i < n; ++i) {
        auto [k, v] = entry();
        if (!apply.applying()) {
          seen.note(r, k, false, attr);
          continue;
        }
        listed.set(k, true);
        if (replicaSet(*map, k, v)) note(k);
      }
      if (!apply.applying()) return;
      std::vector<K> gone;
      replicaKeys(*map, [&](K const& k) {
        if (!listed.contains(k)) gone.push_back(k);
      });
      for (K const& k : gone) {
        replicaErase(*map, k);
        note(k);
      }
      return;
    }
    default:
      badLogRecord(r, rec, attr, type);
  }
}

// Reads an element given whole (its constructor arguments and records) into `map` of `owner`:
// an element of that key whose fixed arguments agree is updated, any other is replaced.
template <class ElemLog, class Map, class Seen, class Note>
auto readFullElement(LogReader& r, Entity const* owner, Map* map, Seen& seen, LogApply& apply,
                     char const* attr, Note& note) {
  auto args = ElemLog::readArgs(r);
  auto key = ElemLog::keyOf(args);
  auto* old = map ? map->find(key) : nullptr;
  auto* target = (old != nullptr && ElemLog::sameFixed(*old, args)) ? old : nullptr;
  if (!apply.applying()) {
    seen.note(r, key, false, attr);
  } else if (target == nullptr) {
    target = replicaInsert(*map, key, ElemLog::make(args), *owner);
    note(key);
  } else {
    ElemLog::assign(*target, args, apply);
  }
  ElemLog::read(r, target, apply);
  return key;
}

// Reads one record of an entity collection (keyDel, elemFull, elemDelta or sync).
template <class ElemLog, class K, class Map, class Seen, class Note>
void readElementRecord(LogReader& r, LogRecord rec, Entity const* owner, Map* map, Seen& seen,
                       LogApply& apply, char const* attr, char const* type, Note note) {
  switch (rec.op) {
    case LogOp::keyDel: {
      K k = logReadField<K>(r, attr);
      if (!apply.applying()) {
        seen.note(r, k, true, attr);
      } else if (replicaErase(*map, k)) {
        note(k);
      }
      return;
    }
    case LogOp::elemFull:
      readFullElement<ElemLog>(r, owner, map, seen, apply, attr, note);
      return;
    case LogOp::elemDelta: {
      K k = logReadField<K>(r, attr);
      if (!apply.applying()) seen.note(r, k, false, attr);
      auto* element = map ? map->find(k) : nullptr;
      if (element == nullptr) {
        r.fail(std::string("changes inside element ") + valueToStrep(k) + " of " + type +
               "::" + attr + " that the copy does not have");
      }
      ElemLog::read(r, element, apply);
      return;
    }
    case LogOp::sync: {
      U32 n = r.u32("element count");
      if (!apply.applying()) seen.syncIs();
      HashMap<K, bool> listed;
      for (U32 i = 0; i < n; ++i) {
        K k = readFullElement<ElemLog>(r, owner, map, seen, apply, attr, note);
        if (apply.applying()) listed.set(k, true);
      }
      if (!apply.applying()) return;
      std::vector<K> gone;
      for (auto c = map->cursor(); c; ++c) {
        if (!listed.contains(c.key())) gone.push_back(c.key());
      }
      for (K const& k : gone) {
        replicaErase(*map, k);
        note(k);
      }
      return;
    }
    default:
      badLogRecord(r, rec, attr, type);
  }
}

// ---------------------------------------------------------------------------------------------
// The generated replica code of an entity type, as the adapter and the mount use it.
struct ReplicaOps {
  char const* typeName;
  // A node watching `root` (and its elements).
  std::pair<Ptr<NotifieeBase>, LogNode*> (*newNode)(Entity const& root);
  void (*writeFull)(LogWriter& w, Entity const& root);
  // Reads the root's records into `root` (null while checking a root that is not there).
  void (*read)(LogReader& r, Entity* root, LogApply& apply);
};

// The writer side of one replicated entity tree.
class LogAdapter : public PtrInterface {
 public:
  LogAdapter(Ptr<Entity const> root, ReplicaOps const& ops) : root_(std::move(root)), ops_(ops) {}
  ~LogAdapter() override;

  // Starts watching the tree; from here on changes are marked. Activating an active adapter
  // raises the internal error "entity reactor is already active".
  void activate();
  // Stops watching and drops the marks; a reader needs a snapshot after a later activate().
  void deactivate();
  bool active() const { return node_ != nullptr; }
  // True when some change waits for the next flush.
  bool dirty() const { return node_ != nullptr && node_->dirty(); }
  // The delta log of the changes since the previous flush, numbered sequence() + 1; empty
  // (and nothing numbered) when nothing changed.
  std::vector<U8> flush();
  // The whole tree as a snapshot log numbered sequence(); the marks stay for the next flush.
  std::vector<U8> snapshot() const;
  // The number of the last delta written.
  U32 sequence() const { return sequence_; }

 private:
  Ptr<Entity const> root_;
  ReplicaOps const& ops_;
  Ptr<NotifieeBase> holder_;
  LogNode* node_ = nullptr;
  U32 sequence_ = 0;
};

// An adapter on `root`, not yet active.
template <class E>
Ptr<LogAdapter> logAdapterFactory(Ptr<E const> const& root) {
  return Ptr<LogAdapter>(new LogAdapter(Ptr<Entity const>(root.ptr()), E::replicaOps()));
}

// The reader side: a copy mounted read-only, fed with the logs of one writer.
class LogMount : public PtrInterface {
 public:
  // Marks `copy` (and every element it gets from logs) read-only on behalf of `peer`.
  LogMount(Ptr<Entity> copy, ReplicaOps const& ops, std::string peer);
  ~LogMount() override;

  // Applies a log whole or not at all: a malformed, truncated, misdirected or out-of-order log
  // raises LogFormatException (a value out of range its range error) and leaves the copy as it
  // was. A delta needs a snapshot applied before it and must follow the last one applied.
  // Notifications of the copy run after the log is stored.
  void apply(std::vector<U8> const& log) { apply(log.data(), log.size()); }
  void apply(U8 const* data, std::size_t size);
  // The number of the last log applied.
  U32 sequence() const { return sequence_; }
  bool synced() const { return synced_; }
  std::string const& peer() const { return peer_; }

 private:
  Ptr<Entity> copy_;
  ReplicaOps const& ops_;
  std::string peer_;
  U32 sequence_ = 0;
  bool synced_ = false;
};

// A mount of `copy` (an empty entity of the writer's type) for the logs of `peer`.
template <class E>
Ptr<LogMount> logMountFactory(Ptr<E> const& copy, std::string peer) {
  return Ptr<LogMount>(new LogMount(Ptr<Entity>(copy.ptr()), E::replicaOps(), std::move(peer)));
}

}  // namespace Mosk
