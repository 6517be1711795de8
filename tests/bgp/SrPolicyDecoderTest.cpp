// The UPDATE decoder, one table: each row an UPDATE built from the one GoBGP 3.10 sent (captured
// on loopback), edited, and what the decoder makes of it. The builders compute every length, so
// an edit changes one thing; rows that need a wrong length write it by hand.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "SrPolicyDecoder.h"
#include "SrPolicyEncoder.h"

using namespace SrTeBgp;

namespace {

// The bytes of hex digits, spaces between them ignored.
Bytes hex(std::string_view text) {
  std::string digits;
  for (char c : text)
    if (c != ' ') digits += c;
  Bytes out;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
    out.push_back(static_cast<U8>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  return out;
}

Bytes operator+(Bytes a, Bytes const& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Bytes repeat(Bytes const& b, int n) {
  Bytes out;
  for (int i = 0; i < n; ++i)
    out = out + b;
  return out;
}

// A sub-TLV: 1-octet length below type 128, 2-octet from 128.
Bytes sub(U8 type, Bytes const& value) {
  Bytes out{type};
  if (type < 128) {
    out.push_back(static_cast<U8>(value.size()));
  } else {
    put16(out, static_cast<U32>(value.size()));
  }
  return out + value;
}
Bytes segList(Bytes const& subs) {
  return sub(128, Bytes{0} + subs);
}
Bytes weight(U32 w) {
  Bytes v{0, 0};
  put32(v, w);
  return sub(9, v);
}
Bytes typeA(U32 label) {
  Bytes v{0, 0};
  put32(v, label << 12);
  return sub(1, v);
}
Bytes tlv(U16 type, Bytes const& value) {
  Bytes out;
  put16(out, type);
  put16(out, static_cast<U32>(value.size()));
  return out + value;
}
// An attribute; the extended-length flag is set when the value needs it.
Bytes attr(U8 flags, U8 type, Bytes const& value) {
  if (value.size() > 255) flags |= 0x10;
  Bytes out{flags, type};
  if (flags & 0x10) {
    put16(out, static_cast<U32>(value.size()));
  } else {
    out.push_back(static_cast<U8>(value.size()));
  }
  return out + value;
}
Bytes update(Bytes const& attributes) {
  Bytes out{0, 0};
  put16(out, static_cast<U32>(attributes.size()));
  return out + attributes;
}

// The pieces of the captured UPDATE.
Bytes const origin = hex("40 01 01 00"), asPath = hex("40 02 00"),
            localPref = hex("40 05 04 00000064");
Bytes const nlri4 = hex("60 00000002 00000064 0a000009");
Bytes const rt = attr(0xc0, 16, hex("01 02 0a000001 0000"));
Bytes const pref = hex("0c 06 00 00 000000c8"), bsid = hex("0d 06 00 00 00384000"),
            list1 = segList(weight(1) + typeA(16001) + typeA(16009)),
            list2 = segList(weight(3) + typeA(16002) + typeA(24005) + typeA(16009)),
            prio = hex("0f 02 0a 00"), name = hex("81 0008 00 63702d676f6c64"),
            enlp = hex("0e 03 00 00 04");
Bytes const policy = pref + bsid + list1 + list2 + prio + name + enlp;

Bytes reach(Bytes const& nlri) {
  return attr(0x80, 14, hex("0001 49 04 0a000002 00") + nlri);
}
Bytes reach6(Bytes const& nlri) {
  return attr(0x80, 14, hex("0002 49 10") + Bytes(16, 0) + Bytes{0} + nlri);
}
Bytes tunnel(Bytes const& subs) {
  return attr(0xc0, 23, tlv(15, subs));
}
// The captured UPDATE with its SR Policy sub-TLVs, NLRI or extended communities replaced.
Bytes withPolicy(Bytes const& subs) {
  return update(origin + asPath + localPref + reach(nlri4) + rt + tunnel(subs));
}
Bytes withNlri(Bytes const& nlri) {
  return update(origin + asPath + localPref + reach(nlri) + rt + tunnel(policy));
}
Bytes withCommunities(Bytes const& communities) {
  return update(origin + asPath + localPref + reach(nlri4) + communities + tunnel(policy));
}
Bytes captured() {
  return withPolicy(policy);
}

std::string const capturedPath =
    "path 2/100/10.0.0.9 pref 200 bsid 900 lists 1:16001,16009 3:16002,24005,16009";

// Writes what the decoder told it, in order, as text.
class Recorder : public UpdateSink {
 public:
  std::string text;
  void onPath(SrPolicyNlri const& nlri, SrPolicyPath const& path) override {
    std::ostringstream os;
    SrTePolicy::PolicyInputEntry const& r = path.record;
    os << "path " << key(nlri) << " pref " << r.preference().value() << " bsid "
       << (r.bindingSid().isNone() ? "none" : std::to_string(r.bindingSid().value())) << " lists";
    for (auto const* l = r.segmentListBegin(); l != r.segmentListEnd(); ++l) {
      os << ' ' << l->weight().value() << ':';
      for (U32 i = 0; i < l->segList().size(); ++i)
        os << (i ? "," : "") << l->segList().label(i).value();
    }
    for (U32 i = 0; i < path.noteCount; ++i)
      os << " note:" << noteField(path.notes[i]);
    add(os.str());
  }
  void onWithdraw(SrPolicyNlri const& nlri) override { add("withdraw " + key(nlri)); }
  void onRefused(SrPolicyNlri const* nlri, Rule rule, Problem const& problem) override {
    EXPECT_NE(problem.reason[0], 0) << "a refusal without a reason";
    add(std::string(ruleName(rule)) + " " + (nlri ? key(*nlri) : "-") + " @" + problem.field);
  }

 private:
  static std::string key(SrPolicyNlri const& n) {
    return std::to_string(n.distinguisher) + "/" + std::to_string(n.color.value()) + "/" +
           Mosk::valueToStrep(n.endpoint);
  }
  void add(std::string const& s) { text += (text.empty() ? "" : "; ") + s; }
};

struct Row {
  char const* name;
  Bytes body;
  std::string expect;
  bool internal = true;
};

std::string decode(Bytes const& body, bool internal) {
  DecodeContext context;
  context.localIdentifier = Ludd::IpAddr::parse("10.0.0.1");
  context.internal = internal;
  SrPolicyDecoder decoder;
  Recorder r;
  Refusal refusal;
  if (!decoder.decode(body.data(), body.size(), context, r, refusal)) {
    EXPECT_EQ(r.text, "") << "a session-level refusal handed something over";
    EXPECT_FALSE(refusal.reason.empty());
    return "session " + std::to_string(refusal.code) + "/" + std::to_string(refusal.subcode);
  }
  return r.text;
}

char const* const policyField = "tunnel-encapsulation.sr-policy";

std::vector<Row> rows() {
  std::string const tas = "treat-as-withdraw 2/100/10.0.0.9 @";
  std::string const at = std::string(" @") + policyField, inPolicy = tas + policyField;
  std::string const none = "path 2/100/10.0.0.9 pref 200 bsid none lists",
                    note = std::string(" note:") + policyField;
  Bytes const nlri4b = hex("60 00000003 00000064 0a000009");
  Bytes const nlri6 = hex("c0 00000002 00000064 20010db8000000000000000000000009");
  Bytes const seven = repeat(typeA(16001), 7);
  Bytes const srv6Segment = sub(13, Bytes(18, 0));
  std::string sixteen;
  for (int i = 0; i < 16; ++i)
    sixteen += " 1:16001,16009";
  Bytes overrun = captured();
  overrun[3] = 0xff;
  return {
      // Catches: the captured path misread in any field (list order, weights, label shift).
      {"captured", captured(), capturedPath},
      {"captured withdrawal", hex("0000 0013 80 0f 10 0001 49 60 00000002 00000064 0a000009"),
       "withdraw 2/100/10.0.0.9"},
      // Catches: a path of an UPDATE with a bad NLRI used; the NLRIs before it kept.
      {"NLRI of 95 bits", withNlri(hex("5f 00000002 00000064 0a0000")),
       "treat-as-withdraw - @mp-reach.nlri[0]"},
      {"NLRI of 192 bits under AFI 1",
       withNlri(hex("c0 00000002 00000064 0a000009 000000000000000000000000")),
       "treat-as-withdraw - @mp-reach.nlri[0]"},
      {"NLRI cut short", withNlri(hex("60 00000002 00000064 0a00")),
       "treat-as-withdraw - @mp-reach.nlri[0]"},
      {"good NLRI then a bad one", withNlri(nlri4 + hex("61 00")),
       "treat-as-withdraw - @mp-reach.nlri[1]; " + tas + "mp-reach.nlri[1]"},
      {"two NLRIs share the attributes", withNlri(nlri4 + nlri4b),
       capturedPath + "; " + "path 3/100/10.0.0.9" + capturedPath.substr(19)},
      {"IPv6 endpoint", update(origin + asPath + localPref + reach6(nlri6) + rt + tunnel(policy)),
       "path 2/100/2001:db8::9" + capturedPath.substr(19)},
      {"IPv6 withdrawal", update(attr(0x80, 15, hex("0002 49") + nlri6)),
       "withdraw 2/100/2001:db8::9"},
      {"withdrawal with a bad NLRI after a good one",
       update(attr(0x80, 15, hex("0001 49") + nlri4 + hex("c0 00"))),
       "withdraw 2/100/10.0.0.9; treat-as-withdraw - @mp-unreach.nlri[1]"},
      // Catches: an UPDATE whose Tunnel Encapsulation is missing or not one SR Policy used.
      {"no Tunnel Encapsulation", update(origin + asPath + localPref + reach(nlri4) + rt),
       tas + "tunnel-encapsulation"},
      {"another tunnel type as well",
       update(origin + asPath + localPref + reach(nlri4) + rt +
              attr(0xc0, 23, tlv(15, policy) + tlv(7, hex("0000")))),
       tas + "tunnel-encapsulation"},
      {"two SR Policy TLVs",
       update(origin + asPath + localPref + reach(nlri4) + rt +
              attr(0xc0, 23, tlv(15, policy) + tlv(15, pref))),
       tas + "tunnel-encapsulation"},
      // Catches: the Route Target rules read wrong.
      {"neither Route Target nor NO_ADVERTISE", withCommunities({}), tas + "extended-communities"},
      {"NO_ADVERTISE without a Route Target", withCommunities(attr(0xc0, 8, hex("ffffff02"))),
       capturedPath},
      {"a Route Target of another router",
       withCommunities(attr(0xc0, 16, hex("0102 0a000007 0000"))),
       "not-usable 2/100/10.0.0.9 @extended-communities"},
      {"ours among other Route Targets",
       withCommunities(attr(0xc0, 16, hex("0102 0a000007 0000 0102 0a000001 0000"))), capturedPath},
      {"only a 2-octet AS Route Target", withCommunities(attr(0xc0, 16, hex("0002 fde8 0a000001"))),
       "not-usable 2/100/10.0.0.9 @extended-communities"},
      {"extended communities of 7 octets", withCommunities(attr(0xc0, 16, hex("0102 0a000001 00"))),
       tas + "extended-communities"},
      // Catches: a sub-TLV of the wrong length at any level read instead of refused.
      {"tunnel TLV overruns the attribute",
       update(origin + asPath + localPref + reach(nlri4) + rt +
              attr(0xc0, 23, hex("000f 0065") + policy)),
       tas + "tunnel-encapsulation"},
      {"short Preference", withPolicy(hex("0c 05 00 00 000000") + list1), inPolicy + ".preference"},
      {"long Priority", withPolicy(pref + hex("0f 03 0a 00 00")), inPolicy + ".priority"},
      {"ENLP of 2 octets", withPolicy(pref + hex("0e 02 00 00")), inPolicy + ".enlp"},
      {"Binding SID of 4 octets", withPolicy(hex("0d 04 00 00 0038") + list1),
       inPolicy + ".binding-sid"},
      {"name without its reserved octet", withPolicy(pref + hex("81 0000")),
       inPolicy + ".candidate-path-name"},
      {"Segment List overruns the SR Policy TLV",
       withPolicy(pref + bsid + hex("80 0020 00") + Bytes(20, 0)), inPolicy + ".sub-tlv[2]"},
      {"Segment List without its reserved octet", withPolicy(pref + hex("80 0000")),
       inPolicy + ".segment-list[0]"},
      {"short Weight", withPolicy(segList(hex("09 05 00 00 000000") + typeA(16001))),
       inPolicy + ".segment-list[0].weight"},
      {"long type A segment", withPolicy(segList(weight(1) + hex("01 07 00 00 03e81000 00"))),
       inPolicy + ".segment-list[0].segment[0]"},
      {"segment overruns its list", withPolicy(sub(128, hex("00 01 06 00 00 03e8"))),
       inPolicy + ".segment-list[0].sub-tlv[0]"},
      {"sub-TLV header cut short", withPolicy(pref + hex("80")), inPolicy + ".sub-tlv[1]"},
      // Catches: a later copy of a single-instance sub-TLV taking over from the first.
      {"second Preference, Binding SID and Weight ignored",
       withPolicy(pref + bsid + hex("0c 06 00 00 0000012c 0d 06 00 00 00385000") +
                  segList(weight(1) + weight(7) + typeA(16001) + typeA(16009)) + list2),
       capturedPath},
      // Catches: an unknown sub-TLV, Color or Tunnel Egress Endpoint making the path unusable.
      {"unknown sub-TLVs ignored",
       withPolicy(hex("63 02 0000") + sub(200, hex("00 01 02")) + hex("04 08 00 00 00000000 0064") +
                  hex("06 0a 00000000 0001 0a000009") + policy),
       capturedPath},
      // Catches: a list with a segment an MPLS headend cannot use kept, or the path dropped.
      {"SRv6 segment leaves its list out",
       withPolicy(pref + bsid + segList(weight(2) + srv6Segment) + list2),
       "path 2/100/10.0.0.9 pref 200 bsid 900 lists 3:16002,24005,16009" + note +
           ".segment-list[0]"},
      {"no list left", withPolicy(pref + segList(typeA(16001) + sub(3, Bytes(6, 0)))),
       none + note + ".segment-list[0]"},
      {"a list without segments", withPolicy(pref + segList(weight(4))), none + " 4:"},
      // Catches: what the record cannot hold cut down and written.
      {"seven labels", withPolicy(pref + segList(weight(1) + seven)),
       "record-limit 2/100/10.0.0.9" + at + ".segment-list[0]"},
      {"seventeen lists", withPolicy(pref + repeat(list1, 17)), "record-limit 2/100/10.0.0.9" + at},
      {"sixteen lists and an SRv6 one", withPolicy(pref + repeat(list1, 16) + segList(srv6Segment)),
       none + sixteen + note + ".segment-list[16]"},
      // Catches: reserved or SRv6 binding SIDs used as labels; a zero weight stored.
      {"binding SID label 3", withPolicy(pref + hex("0d 06 00 00 00003000") + list1),
       none + " 1:16001,16009" + note + ".binding-sid"},
      {"SRv6 binding SID", withPolicy(pref + sub(13, Bytes(18, 0)) + list1),
       none + " 1:16001,16009" + note + ".binding-sid"},
      {"Binding SID without a SID", withPolicy(pref + hex("0d 02 00 00") + list1),
       none + " 1:16001,16009"},
      {"weight 0", withPolicy(pref + segList(weight(0) + typeA(16001))),
       none + " 1:16001" + note + ".segment-list[0].weight"},
      {"no Preference", withPolicy(list1),
       "path 2/100/10.0.0.9 pref 100 bsid none lists 1:16001,16009"},
      // Catches: the extended-length flag ignored.
      {"extended-length attributes",
       update(attr(0x50, 1, {0}) + asPath + localPref +
              attr(0x90, 14, hex("0001 49 04 0a000002 00") + nlri4) + rt +
              attr(0xd0, 23, tlv(15, policy))),
       capturedPath},
      {"Tunnel Encapsulation over 255 octets",
       withPolicy(policy + repeat(hex("63 06 000000000000"), 20)), capturedPath},
      // Catches: mandatory attributes not checked, or LOCAL_PREF demanded on eBGP.
      {"no ORIGIN", update(asPath + localPref + reach(nlri4) + rt + tunnel(policy)),
       tas + "origin"},
      {"ORIGIN 3",
       update(hex("40 01 01 03") + asPath + localPref + reach(nlri4) + rt + tunnel(policy)),
       tas + "origin"},
      {"no AS_PATH", update(origin + localPref + reach(nlri4) + rt + tunnel(policy)),
       tas + "as-path"},
      {"AS_PATH segment overruns",
       update(origin + hex("40 02 06 02 02 0000fde8 00") + localPref + reach(nlri4) + rt +
              tunnel(policy)),
       tas + "as-path"},
      {"no LOCAL_PREF on iBGP", update(origin + asPath + reach(nlri4) + rt + tunnel(policy)),
       tas + "local-pref"},
      {"no LOCAL_PREF on eBGP",
       update(origin + hex("40 02 06 02 01 0000fde9") + reach(nlri4) + rt + tunnel(policy)),
       capturedPath, false},
      // Catches: a family not negotiated read as ours.
      {"IPv4 unicast MP_REACH ignored",
       update(origin + asPath + attr(0x80, 14, hex("0001 01 04 0a000002 00 18 0a0000"))), ""},
      // Catches: a message that cannot be framed applied in part instead of resetting the session.
      {"attributes overrun the message", overrun, "session 3/1"},
      {"withdrawn routes overrun the message", hex("00ff 0000"), "session 3/1"},
      {"UPDATE of 3 octets", hex("000000"), "session 3/1"},
      {"attribute overruns the list", update(origin + hex("40 02 05 00")), "session 3/1"},
      {"MP_REACH_NLRI twice",
       update(origin + asPath + localPref + reach(nlri4) + reach(nlri4) + rt + tunnel(policy)),
       "session 3/1"},
      {"MP_REACH_NLRI next hop overruns", update(attr(0x80, 14, hex("0001 49 10 0a000002"))),
       "session 3/9"},
      {"MP_UNREACH_NLRI of 2 octets", update(attr(0x80, 15, hex("0001"))), "session 3/9"},
  };
}

}  // namespace

TEST(SrPolicyDecoder, EveryRuleOnEditedCaptures) {
  for (Row const& row : rows())
    EXPECT_EQ(decode(row.body, row.internal), row.expect) << row.name;
}

TEST(SrPolicyDecoder, TheBuilderReproducesTheCapture) {
  // Catches: a builder that does not make the captured bytes (every row would test fiction).
  Bytes const capture =
      hex("0000 009d 40010100 400200 400504 00000064"
          "800e16 0001 49 04 0a000002 00 60 00000002 00000064 0a000009"
          "c01008 0102 0a000001 0000"
          "c01768 000f 0064 0c06 0000 000000c8 0d06 0000 00384000"
          "800019 00 0906 0000 00000001 0106 0000 03e81000 0106 0000 03e89000"
          "800021 00 0906 0000 00000003 0106 0000 03e82000 0106 0000 05dc5000 0106 0000 03e89000"
          "0f02 0a00 810008 00 63702d676f6c64 0e03 0000 04");
  EXPECT_EQ(captured(), capture);
}
