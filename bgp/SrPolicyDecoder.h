// The decoder of UPDATE messages that carry SR Policy paths (SAFI 73): MP_REACH_NLRI and
// MP_UNREACH_NLRI, communities, extended communities and the Tunnel Encapsulation attribute with
// its SR Policy sub-TLVs, turned into candidate paths in the form of the policy input record.
//
// It reads the body of one UPDATE (after the 19-octet header) as a bounded span: every length is
// checked against what is left before anything is read under it, nothing recurses on the input,
// and nothing is allocated for a path beyond its record (texts of problems go into fixed
// buffers, notes are small codes). The whole message is framed first; only then are its
// withdrawals and paths handed to the sink, so a message refused at the session level hands
// over nothing.
//
// What each path comes to:
//   usable            onPath: the record and the notes on what was left out or read as default
//   withdrawn         onWithdraw: MP_UNREACH_NLRI names it
//   treat-as-withdraw onRefused: the UPDATE is malformed in a way that spares the session (no
//                     Tunnel Encapsulation, a tunnel type other than SR Policy or two of them, a
//                     framing error in the attribute or any sub-TLV, a sub-TLV of a wrong length,
//                     neither a Route Target nor NO_ADVERTISE, a wrong NLRI length, a malformed
//                     ORIGIN, AS_PATH, LOCAL_PREF or (extended) community attribute, a missing
//                     mandatory attribute)
//   not usable        onRefused: Route Targets are present and none is our BGP identifier
//   record limit      onRefused: more than 6 labels in a list, more than 16 lists
// A list with a segment other than type A (or a sub-TLV the list cannot be read without) is
// left out with a note; a path left without lists is still usable. The first copy of a
// single-instance sub-TLV counts; later ones, the Color and Tunnel Egress Endpoint sub-TLVs and
// unknown sub-TLVs of the SR Policy TLV are ignored. A binding SID of label 0 to 15, or an
// SRv6 one, is taken as none, with a note.
//
// Refused at the session level (NOTIFICATION UPDATE message error, decodeUpdate returns false):
// lengths of the withdrawn routes or the attributes that do not fit the message, an attribute
// header that overruns the list, a repeated or malformed MP_REACH_NLRI / MP_UNREACH_NLRI header.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "BgpMessage.h"
#include "SrTePolicy/SrTePolicyTypes.h"

namespace SrTeBgp {

// What the decoder needs to know of the session.
struct DecodeContext {
  // Our BGP identifier: a usable path carries it as a Route Target (or NO_ADVERTISE).
  Ludd::IpAddr localIdentifier;
  // LOCAL_PREF is mandatory on an internal session.
  bool internal = false;
  // AS_PATH carries 4-octet AS numbers (both sides offered the capability).
  bool fourOctetAs = true;
  // Families negotiated on the session; paths of others are skipped.
  Families families{true, true};
};

// The key of a candidate path as the peer names it.
struct SrPolicyNlri {
  U16 afi = 1;
  U32 distinguisher = 0;
  SrTePolicy::Color color;
  SrTePolicy::EndPoint endpoint;
  bool operator==(SrPolicyNlri const&) const = default;
};

// What is wrong and where, as texts in fixed buffers (printf formats, cut to fit).
struct Problem {
  char reason[128];
  char field[80];
  Problem& at(char const* fmt, ...) __attribute__((format(printf, 2, 3)));
  void because(char const* fmt, ...) __attribute__((format(printf, 2, 3)));
};

// Why a path is not used.
enum class Rule : U8 { treatAsWithdraw, notUsable, recordLimit };
char const* ruleName(Rule rule);

// Something of a usable path that was left out or read as its default.
struct Note {
  enum Kind : U8 {
    listLeftOut,      // `list` holds a segment of type `value` that an MPLS headend cannot use
    weightZero,       // `list` carries weight 0, read as 1
    bindingSidLabel,  // the binding SID label `value` (0..15) is reserved: taken as none
    bindingSidSrv6,   // an SRv6 binding SID: taken as none
  };
  Kind kind;
  U16 list;  // the list's place among the Segment List sub-TLVs, from 0
  U32 value;
};
// "segment list 1 left out: segment type 13 is not usable by an MPLS headend" and its field.
std::string noteText(Note const& note);
std::string noteField(Note const& note);

// A usable path as decoded. The record holds the preference, the binding SID and the lists (top
// label first); its key, endpoint, color and router id are the caller's to set.
struct SrPolicyPath {
  static constexpr U32 maxNotes = 20;
  SrTePolicy::PolicyInputEntry record;
  // Into the message; valid while the sink is called.
  std::string_view candidatePathName;
  std::string_view policyName;
  S32 priority = -1;  // -1: absent
  U8 noteCount = 0;
  U32 notesLost = 0;  // notes beyond maxNotes
  Note notes[maxNotes];
};

// Told what each path of an UPDATE comes to, withdrawals first.
class UpdateSink {
 public:
  virtual ~UpdateSink() = default;
  virtual void onPath(SrPolicyNlri const& nlri, SrPolicyPath const& path) = 0;
  virtual void onWithdraw(SrPolicyNlri const& nlri) = 0;
  // `nlri` is null when the problem is the NLRI itself (one that could not be read).
  virtual void onRefused(SrPolicyNlri const* nlri, Rule rule, Problem const& problem) = 0;
};

class SrPolicyDecoder {
 public:
  // Decodes the UPDATE body at `p` (`n` octets). Returns false, having told the sink nothing,
  // when the message calls for a NOTIFICATION (in `refusal`); true otherwise.
  bool decode(U8 const* p, std::size_t n, DecodeContext const& context, UpdateSink& sink,
              Refusal& refusal);

 private:
  SrPolicyPath path_;
  Problem problem_;
};

}  // namespace SrTeBgp
