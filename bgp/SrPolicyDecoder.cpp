// Decoding UPDATE messages of SR Policy paths. See SrPolicyDecoder.h for the rules.
#include "SrPolicyDecoder.h"

#include <cstdarg>
#include <cstdio>

namespace SrTeBgp {

using SrTePolicy::PolicyInputEntry;

namespace {

constexpr U8 attrOrigin = 1, attrAsPath = 2, attrLocalPref = 5, attrCommunities = 8,
             attrMpReach = 14, attrMpUnreach = 15, attrExtCommunities = 16, attrTunnelEncap = 23;
constexpr U8 flagExtendedLength = 0x10;
constexpr U32 noAdvertise = 0xFFFFFF02;
constexpr U16 tunnelSrPolicy = 15;
constexpr U8 subPreference = 12, subBindingSid = 13, subEnlp = 14, subPriority = 15,
             subSegmentList = 128, subCandidatePathName = 129, subPolicyName = 130;
constexpr U8 segTypeA = 1, segWeight = 9;

constexpr char const* policyTlv = "tunnel-encapsulation.sr-policy";

struct Span {
  U8 const* p = nullptr;
  std::size_t n = 0;
  bool present = false;
};

// An MP_REACH_NLRI or MP_UNREACH_NLRI of our SAFI and a negotiated AFI: its NLRI field.
struct MpNlri {
  U16 afi = 0;
  Span nlri;
  char const* name = "";
};

// A sub-TLV's type and value within [at, end). False when its header or length does not fit;
// `out` then holds the type, and `length` what the sub-TLV claims (0 for a header cut short).
struct SubTlv {
  U8 type;
  std::size_t length;
  U8 const* value;
  std::size_t left;  // octets after the header (or in all, for a header cut short)
};
bool readSubTlv(U8 const* p, std::size_t& at, std::size_t end, SubTlv& out) {
  out.type = p[at];
  std::size_t const header = out.type < 128 ? 2 : 3;
  if (end - at < header) {
    out.length = 0;
    out.left = end - at;
    return false;
  }
  out.length = out.type < 128 ? p[at + 1] : get16(p + at + 1);
  out.left = end - at - header;
  if (out.length > out.left) return false;
  out.value = p + at + header;
  at += header + out.length;
  return true;
}

// The problem of a sub-TLV that readSubTlv refused: the `index`th in `where` (with the list's
// index when `list` is not negative).
void framing(Problem& problem, SubTlv const& s, char const* where, int list, unsigned index) {
  if (list >= 0) {
    problem.at("%s.segment-list[%d].sub-tlv[%u]", where, list, index);
  } else {
    problem.at("%s.sub-tlv[%u]", where, index);
  }
  if (s.length == 0) {
    problem.because("sub-TLV header of type %u cut short: %zu octets left", s.type, s.left);
  } else {
    problem.because("sub-TLV type %u of length %zu overruns the %zu octets left", s.type, s.length,
                    s.left);
  }
}

}  // namespace

Problem& Problem::at(char const* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  std::vsnprintf(field, sizeof field, fmt, args);
  va_end(args);
  return *this;
}

void Problem::because(char const* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  std::vsnprintf(reason, sizeof reason, fmt, args);
  va_end(args);
}

char const* ruleName(Rule rule) {
  switch (rule) {
    case Rule::treatAsWithdraw:
      return "treat-as-withdraw";
    case Rule::notUsable:
      return "not-usable";
    case Rule::recordLimit:
      return "record-limit";
  }
  return "?";
}

std::string noteText(Note const& note) {
  switch (note.kind) {
    case Note::listLeftOut:
      return "segment list " + std::to_string(note.list) + " left out: segment type " +
             std::to_string(note.value) + " is not usable by an MPLS headend";
    case Note::weightZero:
      return "segment list " + std::to_string(note.list) + " has weight 0, taken as 1";
    case Note::bindingSidLabel:
      return "binding SID label " + std::to_string(note.value) +
             " is a reserved label (0 to 15), taken as none";
    case Note::bindingSidSrv6:
      return "an SRv6 binding SID is not an MPLS label, taken as none";
  }
  return "?";
}

std::string noteField(Note const& note) {
  std::string const list = std::string(policyTlv) + ".segment-list[" + std::to_string(note.list);
  switch (note.kind) {
    case Note::listLeftOut:
      return list + "]";
    case Note::weightZero:
      return list + "].weight";
    case Note::bindingSidLabel:
    case Note::bindingSidSrv6:
      return std::string(policyTlv) + ".binding-sid";
  }
  return "?";
}

namespace {

// One UPDATE at a time: the attributes it framed and the path it decodes.
class Decoding {
 public:
  Decoding(DecodeContext const& context, SrPolicyPath& path, Problem& problem, Refusal& refusal)
      : context_(context), path_(path), problem_(problem), refusal_(refusal) {}

  // Frames the message: the withdrawn routes, the attribute list and the MP attributes. False
  // with the refusal set when the session must go.
  bool frame(U8 const* p, std::size_t n) {
    if (n < 4) return sessionError(Error::malformedAttributeList, "UPDATE shorter than 4 octets");
    std::size_t const withdrawn = get16(p);
    if (withdrawn > n - 4) {
      return sessionError(
          Error::malformedAttributeList,
          "withdrawn routes length " + std::to_string(withdrawn) + " overruns the message");
    }
    std::size_t at = 2 + withdrawn;
    std::size_t const attributes = get16(p + at);
    at += 2;
    if (attributes > n - at) {
      return sessionError(
          Error::malformedAttributeList,
          "path attributes length " + std::to_string(attributes) + " overruns the message");
    }
    std::size_t const end = at + attributes;
    while (at < end) {
      if (end - at < 3) return sessionError(Error::malformedAttributeList, "attribute cut short");
      U8 const flags = p[at];
      U8 const type = p[at + 1];
      std::size_t header = 3, length = p[at + 2];
      if (flags & flagExtendedLength) {
        if (end - at < 4) return sessionError(Error::malformedAttributeList, "attribute cut short");
        header = 4;
        length = get16(p + at + 2);
      }
      if (length > end - at - header) {
        return sessionError(Error::malformedAttributeList,
                            "attribute type " + std::to_string(type) + " of length " +
                                std::to_string(length) + " overruns the attribute list");
      }
      Span const value{p + at + header, length, true};
      at += header + length;
      switch (type) {
        case attrMpReach:
        case attrMpUnreach: {
          Span& slot = type == attrMpReach ? reach_ : unreach_;
          if (slot.present) {
            return sessionError(
                Error::malformedAttributeList,
                std::string(type == attrMpReach ? "MP_REACH_NLRI" : "MP_UNREACH_NLRI") +
                    " appears twice");
          }
          slot = value;
          break;
        }
        // The first copy of any other attribute counts.
        case attrOrigin:
          keepFirst(origin_, value);
          break;
        case attrAsPath:
          keepFirst(asPath_, value);
          break;
        case attrLocalPref:
          keepFirst(localPref_, value);
          break;
        case attrCommunities:
          keepFirst(communities_, value);
          break;
        case attrExtCommunities:
          keepFirst(extCommunities_, value);
          break;
        case attrTunnelEncap:
          keepFirst(tunnel_, value);
          break;
        default:
          break;
      }
    }
    return frameMp(unreach_, false, unreachNlri_) && frameMp(reach_, true, reachNlri_);
  }

  void deliver(UpdateSink& sink) {
    if (unreachNlri_.afi) withdraw(sink);
    if (reachNlri_.afi) advertise(sink);
  }

 private:
  static void keepFirst(Span& slot, Span const& value) {
    if (!slot.present) slot = value;
  }

  bool sessionError(U8 subcode, std::string reason) {
    refusal_ = Refusal{Error::update, subcode, {}, std::move(reason)};
    return false;
  }

  // AFI (2), SAFI (1), and for MP_REACH_NLRI the next hop and the reserved octet.
  bool frameMp(Span const& attr, bool isReach, MpNlri& out) {
    if (!attr.present) return true;
    char const* const name = isReach ? "MP_REACH_NLRI" : "MP_UNREACH_NLRI";
    std::size_t const fixed = isReach ? 4 : 3;
    if (attr.n < fixed) {
      return sessionError(Error::optionalAttribute,
                          std::string(name) + " of " + std::to_string(attr.n) + " octets");
    }
    std::size_t at = 3;
    if (isReach) {
      std::size_t const nextHop = attr.p[3];
      if (nextHop + 1 > attr.n - 4) {
        return sessionError(Error::optionalAttribute, std::string(name) + ": next hop length " +
                                                          std::to_string(nextHop) +
                                                          " overruns the attribute");
      }
      at = 4 + nextHop + 1;
    }
    U16 const afi = get16(attr.p);
    bool const ours = attr.p[2] == safiSrPolicy && ((afi == 1 && context_.families.ipv4) ||
                                                    (afi == 2 && context_.families.ipv6));
    if (!ours) return true;  // a family not negotiated: not ours to read
    out.afi = afi;
    out.nlri = Span{attr.p + at, attr.n - at, true};
    out.name = isReach ? "mp-reach" : "mp-unreach";
    return true;
  }

  // Reads the NLRI at `at` of `mp`; false with the problem set when it cannot be read.
  bool readNlri(MpNlri const& mp, std::size_t& at, unsigned index, SrPolicyNlri& out) {
    U8 const* p = mp.nlri.p + at;
    std::size_t const left = mp.nlri.n - at;
    unsigned const expected = mp.afi == 1 ? 96 : 192;
    if (p[0] != expected) {
      problem_.at("%s.nlri[%u]", mp.name, index)
          .because("NLRI length %u bits; %u expected for AFI %u", p[0], expected, mp.afi);
      return false;
    }
    std::size_t const size = 1 + expected / 8;
    if (left < size) {
      problem_.at("%s.nlri[%u]", mp.name, index)
          .because("NLRI of %zu octets cut short: %zu left", size, left);
      return false;
    }
    out.afi = mp.afi;
    out.distinguisher = get32(p + 1);
    out.color = SrTePolicy::Color(get32(p + 5));
    if (mp.afi == 1) {
      out.endpoint = Ludd::IpAddr::fromU32(get32(p + 9));
    } else {
      std::array<U8, 16> a;
      std::copy(p + 9, p + 25, a.begin());
      out.endpoint = Ludd::IpGenAddr::ipv6(a);
    }
    at += size;
    return true;
  }

  void withdraw(UpdateSink& sink) {
    std::size_t at = 0;
    SrPolicyNlri nlri;
    for (unsigned i = 0; at < unreachNlri_.nlri.n; ++i) {
      if (!readNlri(unreachNlri_, at, i, nlri)) {
        sink.onRefused(nullptr, Rule::treatAsWithdraw, problem_);
        return;
      }
      sink.onWithdraw(nlri);
    }
  }

  void advertise(UpdateSink& sink) {
    // Every NLRI must be readable, or the whole UPDATE is treated as withdraw.
    std::size_t at = 0;
    SrPolicyNlri nlri;
    unsigned count = 0;
    bool nlriOk = true;
    for (; at < reachNlri_.nlri.n; ++count) {
      if (!readNlri(reachNlri_, at, count, nlri)) {
        nlriOk = false;
        break;
      }
    }
    Rule rule = Rule::treatAsWithdraw;
    bool usable = nlriOk && decodeAttributes(rule);
    if (!nlriOk) {
      sink.onRefused(nullptr, Rule::treatAsWithdraw, problem_);
    }
    at = 0;
    for (unsigned i = 0; i < count; ++i) {
      readNlri(reachNlri_, at, i, nlri);
      if (usable) {
        sink.onPath(nlri, path_);
      } else {
        sink.onRefused(&nlri, rule, problem_);
      }
    }
  }

  // Checks the attributes of a path and decodes its SR Policy; false with the rule and the
  // problem when the paths of this UPDATE are not to be used.
  bool decodeAttributes(Rule& rule) {
    rule = Rule::treatAsWithdraw;
    if (!origin_.present) return missing("origin", "ORIGIN");
    if (origin_.n != 1 || origin_.p[0] > 2) {
      problem_.at("origin").because("ORIGIN of length %zu, value %u", origin_.n,
                                    origin_.n ? origin_.p[0] : 0);
      return false;
    }
    if (!asPath_.present) return missing("as-path", "AS_PATH");
    if (!asPathWellFormed()) return false;
    if (context_.internal && !localPref_.present) return missing("local-pref", "LOCAL_PREF");
    if (localPref_.present && localPref_.n != 4) {
      problem_.at("local-pref").because("LOCAL_PREF of length %zu; 4 expected", localPref_.n);
      return false;
    }
    if (communities_.n % 4) {
      problem_.at("communities")
          .because("COMMUNITIES of length %zu, not a multiple of 4", communities_.n);
      return false;
    }
    if (extCommunities_.n % 8) {
      problem_.at("extended-communities")
          .because("EXTENDED COMMUNITIES of length %zu, not a multiple of 8", extCommunities_.n);
      return false;
    }
    if (!tunnel_.present) return missing("tunnel-encapsulation", "Tunnel Encapsulation");
    bool limited = false;
    if (!decodeTunnel(limited)) return false;

    bool advertiseNot = false;
    for (std::size_t i = 0; i + 4 <= communities_.n; i += 4)
      advertiseNot = advertiseNot || get32(communities_.p + i) == noAdvertise;
    bool targets = false, ours = false;
    U32 const local = context_.localIdentifier.toU32();
    for (std::size_t i = 0; i + 8 <= extCommunities_.n; i += 8) {
      U8 const* c = extCommunities_.p + i;
      if (c[1] != 0x02 || c[0] > 0x02) continue;  // a Route Target of any format
      targets = true;
      ours = ours || (c[0] == 0x01 && get32(c + 2) == local && get16(c + 6) == 0);
    }
    if (!targets && !advertiseNot) {
      problem_.at("extended-communities")
          .because("neither a Route Target nor the NO_ADVERTISE community");
      return false;
    }
    if (targets && !ours) {
      rule = Rule::notUsable;
      problem_.at("extended-communities")
          .because("no Route Target is this speaker's BGP identifier %s",
                   Mosk::valueToStrep(context_.localIdentifier).c_str());
      return false;
    }
    if (limited) {
      rule = Rule::recordLimit;
      problem_ = limit_;
      return false;
    }
    return true;
  }

  bool missing(char const* field, char const* name) {
    problem_.at("%s", field).because("the %s attribute is missing", name);
    return false;
  }

  bool asPathWellFormed() {
    std::size_t const asSize = context_.fourOctetAs ? 4 : 2;
    for (std::size_t at = 0; at < asPath_.n;) {
      if (asPath_.n - at < 2 || asPath_.p[at] < 1 || asPath_.p[at] > 4) {
        problem_.at("as-path").because("AS_PATH segment at octet %zu is malformed", at);
        return false;
      }
      std::size_t const size = 2 + asPath_.p[at + 1] * asSize;
      if (size > asPath_.n - at) {
        problem_.at("as-path").because("AS_PATH segment at octet %zu overruns the attribute", at);
        return false;
      }
      at += size;
    }
    return true;
  }

  // The Tunnel Encapsulation attribute: exactly one TLV, of the SR Policy type.
  bool decodeTunnel(bool& limited) {
    path_.record = PolicyInputEntry();
    path_.candidatePathName = path_.policyName = {};
    path_.priority = -1;
    path_.noteCount = 0;
    path_.notesLost = 0;
    U8 const* p = tunnel_.p;
    std::size_t const n = tunnel_.n;
    bool seen = false;
    for (std::size_t at = 0; at < n;) {
      if (n - at < 4) {
        problem_.at("tunnel-encapsulation")
            .because("tunnel TLV header cut short: %zu octets left", n - at);
        return false;
      }
      U16 const type = get16(p + at);
      std::size_t const length = get16(p + at + 2);
      if (length > n - at - 4) {
        problem_.at("tunnel-encapsulation")
            .because("tunnel TLV of length %zu overruns the %zu octets left", length, n - at - 4);
        return false;
      }
      if (type != tunnelSrPolicy) {
        problem_.at("tunnel-encapsulation").because("tunnel type %u is not SR Policy (15)", type);
        return false;
      }
      if (seen) {
        problem_.at("tunnel-encapsulation").because("a second SR Policy tunnel TLV");
        return false;
      }
      seen = true;
      if (!decodePolicy(p + at + 4, length, limited)) return false;
      at += 4 + length;
    }
    if (!seen) {
      problem_.at("tunnel-encapsulation").because("no SR Policy tunnel TLV");
      return false;
    }
    return true;
  }

  bool decodePolicy(U8 const* p, std::size_t n, bool& limited) {
    bool preference = false, bindingSid = false, priority = false, cpName = false,
         policyName = false;
    unsigned lists = 0, written = 0;
    SubTlv s;
    for (std::size_t at = 0, i = 0; at < n; ++i) {
      if (!readSubTlv(p, at, n, s)) {
        framing(problem_, s, policyTlv, -1, static_cast<unsigned>(i));
        return false;
      }
      switch (s.type) {
        case subPreference:
          if (!fixedLength(s, 6, "preference")) return false;
          if (!preference) path_.record.preferenceIs(SrTePolicy::Preference(get32(s.value + 2)));
          preference = true;
          break;
        case subBindingSid:
          if (s.length != 2 && s.length != 6 && s.length != 18) {
            problem_.at("%s.binding-sid", policyTlv)
                .because("Binding SID sub-TLV of length %zu; 2, 6 or 18 expected", s.length);
            return false;
          }
          if (!bindingSid) takeBindingSid(s);
          bindingSid = true;
          break;
        case subEnlp:
          // Checked, not kept: the record has no place for it.
          if (!fixedLength(s, 3, "enlp")) return false;
          break;
        case subPriority:
          if (!fixedLength(s, 2, "priority")) return false;
          if (!priority) path_.priority = s.value[0];
          priority = true;
          break;
        case subCandidatePathName:
        case subPolicyName: {
          bool& seenName = s.type == subCandidatePathName ? cpName : policyName;
          if (s.length < 1) {
            problem_
                .at("%s.%s", policyTlv,
                    s.type == subCandidatePathName ? "candidate-path-name" : "policy-name")
                .because("name sub-TLV without its reserved octet");
            return false;
          }
          std::string_view const name(reinterpret_cast<char const*>(s.value + 1), s.length - 1);
          if (!seenName) {
            (s.type == subCandidatePathName ? path_.candidatePathName : path_.policyName) = name;
          }
          seenName = true;
          break;
        }
        case subSegmentList:
          if (!decodeList(s, lists++, written, limited)) return false;
          break;
        default:  // Color, Tunnel Egress Endpoint and sub-TLVs without SR Policy meaning
          break;
      }
    }
    if (written > PolicyInputEntry::maxSegmentLists && !limited) {
      limited = true;
      limit_.at("%s", policyTlv)
          .because("%u segment lists; a candidate path holds at most %u", written,
                   PolicyInputEntry::maxSegmentLists);
    }
    return true;
  }

  bool fixedLength(SubTlv const& s, std::size_t length, char const* name) {
    if (s.length == length) return true;
    problem_.at("%s.%s", policyTlv, name)
        .because("sub-TLV type %u of length %zu; %zu expected", s.type, s.length, length);
    return false;
  }

  void note(Note::Kind kind, unsigned list, U32 value) {
    if (path_.noteCount < SrPolicyPath::maxNotes) {
      path_.notes[path_.noteCount++] = Note{kind, static_cast<U16>(list), value};
    } else {
      ++path_.notesLost;
    }
  }

  void takeBindingSid(SubTlv const& s) {
    if (s.length == 18) {
      note(Note::bindingSidSrv6, 0, 0);
    } else if (s.length == 6) {
      U32 const label = get32(s.value + 2) >> 12;
      if (label < 16) {
        note(Note::bindingSidLabel, 0, label);
      } else {
        path_.record.bindingSidIs(Ludd::MplsLabel(label));
      }
    }
  }

  // One Segment List sub-TLV: the reserved octet, then the weight and the segments.
  bool decodeList(SubTlv const& s, unsigned index, unsigned& written, bool& limited) {
    if (s.length < 1) {
      problem_.at("%s.segment-list[%u]", policyTlv, index)
          .because("Segment List sub-TLV without its reserved octet");
      return false;
    }
    U32 weight = 0, labels = 0, otherType = 0;
    bool weighted = false;
    Ludd::MplsLabelOperation stack;
    SubTlv seg;
    for (std::size_t at = 1, i = 0; at < s.length; ++i) {
      if (!readSubTlv(s.value, at, s.length, seg)) {
        framing(problem_, seg, policyTlv, static_cast<int>(index), static_cast<unsigned>(i));
        return false;
      }
      if (seg.type == segWeight) {
        if (seg.length != 6) {
          problem_.at("%s.segment-list[%u].weight", policyTlv, index)
              .because("Weight sub-TLV of length %zu; 6 expected", seg.length);
          return false;
        }
        if (!weighted) weight = get32(seg.value + 2);
        weighted = true;
      } else if (seg.type == segTypeA) {
        if (seg.length != 6) {
          problem_.at("%s.segment-list[%u].segment[%u]", policyTlv, index, labels)
              .because("type A segment of length %zu; 6 expected", seg.length);
          return false;
        }
        if (labels < Ludd::MplsLabelOperation::capacity) {
          stack.push(Ludd::MplsLabel(get32(seg.value + 2) >> 12));
        }
        ++labels;
      } else if (otherType == 0) {
        // Another segment type, or a sub-TLV the list cannot be read without.
        otherType = seg.type;
      }
    }
    if (otherType) {
      note(Note::listLeftOut, index, otherType);
      return true;
    }
    if (labels > Ludd::MplsLabelOperation::capacity) {
      if (!limited) {
        limited = true;
        limit_.at("%s.segment-list[%u]", policyTlv, index)
            .because("%u labels; a segment list holds at most %u", labels,
                     Ludd::MplsLabelOperation::capacity);
      }
      return true;
    }
    if (weighted && weight == 0) note(Note::weightZero, index, 0);
    if (written++ < PolicyInputEntry::maxSegmentLists) {
      path_.record.segmentListPush(
          SrTePolicy::WeightedSegList(SrTePolicy::Weight(weight ? weight : 1), stack));
    }
    return true;
  }

  DecodeContext const& context_;
  SrPolicyPath& path_;
  Problem& problem_;
  Refusal& refusal_;
  Problem limit_;
  Span origin_, asPath_, localPref_, communities_, extCommunities_, tunnel_, reach_, unreach_;
  MpNlri reachNlri_, unreachNlri_;
};

}  // namespace

bool SrPolicyDecoder::decode(U8 const* p, std::size_t n, DecodeContext const& context,
                             UpdateSink& sink, Refusal& refusal) {
  Decoding d(context, path_, problem_, refusal);
  if (!d.frame(p, n)) return false;
  d.deliver(sink);
  return true;
}

}  // namespace SrTeBgp
