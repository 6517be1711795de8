// Writing BGP candidate paths into the source's input table.
#include "BgpInputTable.h"

#include <vector>

#include "Mosk/Hash.h"

namespace SrTeBgp {

using SrTePolicy::PolicyId;
using SrTePolicy::PolicyInputEntry;
using SrTePolicy::PolicySource;

std::size_t BgpInputTable::KeyHash::operator()(Key const& k) const {
  U32 h = k.peer * 0x9e3779b1u;
  h ^= k.nlri.afi + 0x7f4a7c15u + (h << 6) + (h >> 2);
  h ^= k.nlri.distinguisher + 0x7f4a7c15u + (h << 6) + (h >> 2);
  h ^= k.nlri.color.value() + 0x7f4a7c15u + (h << 6) + (h >> 2);
  h ^= k.nlri.endpoint.hash() + 0x7f4a7c15u + (h << 6) + (h >> 2);
  return h;
}

BgpInputTable::BgpInputTable(std::string const& name, Skerry::ShmTableOptions const& options)
    : writer_(name, options) {
  std::vector<PolicyId> left;
  PolicyId other;
  bool foreign = false;
  writer_.forEach([&](PolicyInputEntry const& e) {
    if (e.key().source() != PolicySource::sourceBgp && !foreign) {
      foreign = true;
      other = e.key();
    }
    left.push_back(e.key());
  });
  if (foreign) {
    throw Mosk::RangeException("table '" + name + "' holds policy id " +
                               std::to_string(other.value()) +
                               ", which is not of the BGP source: it is another source's table");
  }
  for (PolicyId const& id : left)
    writer_.erase(id);
  cleared_ = static_cast<U32>(left.size());
}

PolicyId BgpInputTable::allocate() {
  U32 next = writer_.counter();
  for (U32 tries = 0; tries <= PolicyId::indexMask; ++tries) {
    next = (next + 1) & PolicyId::indexMask;
    PolicyId const id = PolicyId::make(PolicySource::sourceBgp, next);
    if (writer_.slotOf(id) < 0) {
      writer_.counterIs(next);
      return id;
    }
  }
  throw Mosk::RangeException("table '" + name() + "' has no free policy id left");
}

BgpInputTable::Written BgpInputTable::put(U32 peer, Ludd::IpAddr const& routerId,
                                          SrPolicyNlri const& nlri, PolicyInputEntry const& path) {
  Key const key{peer, nlri};
  auto it = ids_.find(key);
  bool const fresh = it == ids_.end();
  if (fresh && writer_.count() >= writer_.capacity()) {
    throw Mosk::RangeException("table '" + name() + "' is full: it holds " +
                               std::to_string(writer_.capacity()) + " candidate paths");
  }
  PolicyId const id = fresh ? allocate() : it->second;
  PolicyInputEntry record = path;
  record.keyIs(id);
  record.endpointIs(nlri.endpoint);
  record.colorIs(nlri.color);
  record.routerIdIs(routerId);
  bool const changed = writer_.put(record);
  if (fresh) ids_.emplace(key, id);
  return Written{fresh ? Change::added : changed ? Change::replaced : Change::unchanged, id};
}

std::optional<PolicyId> BgpInputTable::erase(U32 peer, SrPolicyNlri const& nlri) {
  auto it = ids_.find(Key{peer, nlri});
  if (it == ids_.end()) return std::nullopt;
  PolicyId const id = it->second;
  ids_.erase(it);
  writer_.erase(id);
  return id;
}

U32 BgpInputTable::erasePeer(U32 peer) {
  U32 n = 0;
  for (auto it = ids_.begin(); it != ids_.end();) {
    if (it->first.peer != peer) {
      ++it;
      continue;
    }
    writer_.erase(it->second);
    it = ids_.erase(it);
    ++n;
  }
  return n;
}

std::optional<PolicyId> BgpInputTable::find(U32 peer, SrPolicyNlri const& nlri) const {
  auto it = ids_.find(Key{peer, nlri});
  if (it == ids_.end()) return std::nullopt;
  return it->second;
}

}  // namespace SrTeBgp
