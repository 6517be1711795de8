// The BGP source's input table: candidate paths learned from BGP peers written as policy input
// records into the source's table in shared memory, through the table service's writer.
//
// A candidate path is one (peer, AFI, distinguisher, color, endpoint). It keeps its policy id
// for as long as it exists: a replacement rewrites the record under the same id, a withdrawal
// deletes it. New ids take the index bits from the table's counter and move on from it, so an
// id is not handed out again soon after its path went (a reader that has not yet seen the
// deletion never sees the id move to another policy); the counter lives with the table, so a
// later run goes on from it. Opening the table clears what an earlier run left in it.
#pragma once

#include <optional>
#include <string>
#include <unordered_map>

#include "SrPolicyDecoder.h"
#include "SrTePolicy/SrTePolicyInputShm.h"

namespace SrTeBgp {

class BgpInputTable {
 public:
  enum class Change : U8 { added, replaced, unchanged };
  struct Written {
    Change change;
    SrTePolicy::PolicyId id;
  };

  // Opens table `name` for writing, creating it with `options` when absent, and deletes every
  // record in it. Raises Skerry::ShmTableException when another writer holds the table or it is
  // not an input table, and Mosk::RangeException when it holds records of another source.
  explicit BgpInputTable(std::string const& name, Skerry::ShmTableOptions const& options = {});

  std::string const& name() const { return writer_.name(); }
  // Records deleted when the table was opened.
  U32 cleared() const { return cleared_; }
  U32 count() const { return static_cast<U32>(ids_.size()); }

  // Writes `record` (its lists, preference and binding SID) as the path `nlri` of `peer`, with
  // the peer's BGP identifier as its router id. Raises Mosk::RangeException, having written
  // nothing, when the table has no room for a new path.
  Written put(U32 peer, Ludd::IpAddr const& routerId, SrPolicyNlri const& nlri,
              SrTePolicy::PolicyInputEntry const& record);
  // Deletes the path; its id, or nothing when there was no such path.
  std::optional<SrTePolicy::PolicyId> erase(U32 peer, SrPolicyNlri const& nlri);
  // Deletes every path of `peer`; how many there were.
  U32 erasePeer(U32 peer);
  // The id of a path, if it exists.
  std::optional<SrTePolicy::PolicyId> find(U32 peer, SrPolicyNlri const& nlri) const;

 private:
  struct Key {
    U32 peer;
    SrPolicyNlri nlri;
    bool operator==(Key const&) const = default;
  };
  struct KeyHash {
    std::size_t operator()(Key const& k) const;
  };

  SrTePolicy::PolicyId allocate();

  SrTePolicy::PolicyInputShmWriter writer_;
  std::unordered_map<Key, SrTePolicy::PolicyId, KeyHash> ids_;
  U32 cleared_ = 0;
};

}  // namespace SrTeBgp
