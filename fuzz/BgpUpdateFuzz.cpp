// The UPDATE decoder of srte-bgp on arbitrary bytes. The first byte sets the session (internal
// or external, 2- or 4-octet AS numbers, the families negotiated); the rest is an UPDATE body.
// Properties: a session-level refusal hands nothing over and names an UPDATE error; every path
// not used has a reason and a field; every usable path is a record the table takes as it is,
// and written again as an UPDATE it decodes to the same path, as a withdrawal does to the same
// withdrawal; decoding the same bytes twice says the same.
#include <cstring>
#include <string>
#include <vector>

#include "Fuzz.h"
#include "SrPolicyDecoder.h"
#include "SrPolicyEncoder.h"

namespace {

using namespace SrTeBgp;

struct Outcome {
  enum Kind { path, withdraw, refused } kind;
  SrPolicyNlri nlri;
  bool hasNlri = true;
  SrTePolicy::PolicyInputEntry record;
  std::string rule;
  bool operator==(Outcome const& o) const {
    return kind == o.kind && hasNlri == o.hasNlri && (!hasNlri || nlri == o.nlri) &&
           record == o.record && rule == o.rule;
  }
};

class Collect : public UpdateSink {
 public:
  std::vector<Outcome> out;
  void onPath(SrPolicyNlri const& nlri, SrPolicyPath const& path) override {
    Fuzz::check(path.noteCount <= SrPolicyPath::maxNotes, "more notes than room");
    out.push_back(Outcome{Outcome::path, nlri, true, path.record, ""});
  }
  void onWithdraw(SrPolicyNlri const& nlri) override {
    out.push_back(Outcome{Outcome::withdraw, nlri, true, {}, ""});
  }
  void onRefused(SrPolicyNlri const* nlri, Rule rule, Problem const& problem) override {
    Fuzz::check(std::memchr(problem.reason, 0, sizeof problem.reason) && problem.reason[0] &&
                    std::memchr(problem.field, 0, sizeof problem.field) && problem.field[0],
                "a refusal without a reason or a field");
    out.push_back(Outcome{
        Outcome::refused, nlri ? *nlri : SrPolicyNlri{}, nlri != nullptr, {}, ruleName(rule)});
  }
};

DecodeContext contextOf(U8 b) {
  DecodeContext c;
  c.localIdentifier = Ludd::IpAddr::parse("10.0.0.1");
  c.internal = b & 1;
  c.fourOctetAs = !(b & 2);
  c.families = Families{!(b & 4), !(b & 8)};
  if (!c.families.any()) c.families.ipv4 = true;
  return c;
}

bool decode(U8 const* p, std::size_t n, DecodeContext const& c, Collect& sink, Refusal& r) {
  SrPolicyDecoder decoder;
  return decoder.decode(p, n, c, sink, r);
}

// Decodes a message the encoder wrote (header included) on a session that takes it.
std::vector<Outcome> again(Bytes const& message) {
  DecodeContext c;
  c.localIdentifier = Ludd::IpAddr::parse("10.0.0.1");
  Collect sink;
  Refusal r;
  Fuzz::check(decode(message.data() + headerSize, message.size() - headerSize, c, sink, r),
              "an UPDATE written from a decoded path was refused: " + r.reason);
  return sink.out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  if (size < 1) return 0;
  DecodeContext const context = contextOf(data[0]);
  // The body in a buffer of its own size, so that a read past it is seen.
  std::vector<U8> const body(data + 1, data + size);
  Collect first;
  Refusal refusal;
  bool const taken = decode(body.data(), body.size(), context, first, refusal);
  if (!taken) {
    Fuzz::check(first.out.empty(), "a refused UPDATE handed something over");
    Fuzz::check(refusal.code == Error::update && !refusal.reason.empty(),
                "a refused UPDATE without an UPDATE error and a reason");
  }
  Collect second;
  Refusal r2;
  Fuzz::check(
      decode(body.data(), body.size(), context, second, r2) == taken && second.out == first.out,
      "the same bytes decoded twice say different things");

  for (Outcome const& o : first.out) {
    if (o.kind == Outcome::path) {
      SrTePolicy::PolicyInputEntry checked = o.record;
      Fuzz::check(!Fuzz::refused([&] { checked.validateRead(); }) && checked == o.record,
                  "a decoded path is not a record the table takes as it is");
      std::vector<Outcome> re = again(updateMessage(o.nlri, o.record, context.localIdentifier));
      Fuzz::check(re.size() == 1 && re[0].kind == Outcome::path && re[0].nlri == o.nlri &&
                      re[0].record == o.record,
                  "a decoded path written again decodes to another path");
    } else if (o.kind == Outcome::withdraw) {
      std::vector<Outcome> re = again(withdrawMessage(o.nlri));
      Fuzz::check(re.size() == 1 && re[0].kind == Outcome::withdraw && re[0].nlri == o.nlri,
                  "a withdrawal written again decodes to something else");
    }
  }
  return 0;
}
