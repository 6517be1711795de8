// Writing UPDATE messages of SR Policy paths.
#include "SrPolicyEncoder.h"

namespace SrTeBgp {

namespace {

void putNlri(Bytes& out, SrPolicyNlri const& nlri) {
  out.push_back(nlri.afi == 1 ? 96 : 192);
  put32(out, nlri.distinguisher);
  put32(out, nlri.color.value());
  if (nlri.afi == 1) {
    put32(out, nlri.endpoint.v4().toU32());
  } else {
    out.insert(out.end(), nlri.endpoint.bytes().begin(), nlri.endpoint.bytes().end());
  }
}

void putAttribute(Bytes& out, U8 flags, U8 type, Bytes const& value) {
  if (value.size() > 255) flags |= 0x10;
  out.push_back(flags);
  out.push_back(type);
  if (flags & 0x10) {
    put16(out, static_cast<U32>(value.size()));
  } else {
    out.push_back(static_cast<U8>(value.size()));
  }
  out.insert(out.end(), value.begin(), value.end());
}

// A sub-TLV with a 1-octet length (types below 128) or a 2-octet one.
void putSub(Bytes& out, U8 type, Bytes const& value) {
  out.push_back(type);
  if (type < 128) {
    out.push_back(static_cast<U8>(value.size()));
  } else {
    put16(out, static_cast<U32>(value.size()));
  }
  out.insert(out.end(), value.begin(), value.end());
}

Bytes message(Bytes const& body) {
  Bytes out;
  appendHeader(out, MessageType::update, body.size());
  out.insert(out.end(), body.begin(), body.end());
  return out;
}

}  // namespace

Bytes updateMessage(SrPolicyNlri const& nlri, SrTePolicy::PolicyInputEntry const& record,
                    Ludd::IpAddr const& routeTarget) {
  Bytes policy;
  Bytes v{0, 0};
  put32(v, record.preference().value());
  putSub(policy, 12, v);
  if (!record.bindingSid().isNone()) {
    v = {0, 0};
    put32(v, record.bindingSid().value() << 12);
    putSub(policy, 13, v);
  }
  for (auto const* l = record.segmentListBegin(); l != record.segmentListEnd(); ++l) {
    Bytes list{0};
    v = {0, 0};
    put32(v, l->weight().value());
    putSub(list, 9, v);
    for (U32 i = 0; i < l->segList().size(); ++i) {
      v = {0, 0};
      put32(v, l->segList().label(i).value() << 12);
      putSub(list, 1, v);
    }
    putSub(policy, 128, list);
  }
  Bytes tunnel;
  put16(tunnel, 15);
  put16(tunnel, static_cast<U32>(policy.size()));
  tunnel.insert(tunnel.end(), policy.begin(), policy.end());

  Bytes reach;
  put16(reach, nlri.afi);
  reach.push_back(safiSrPolicy);
  reach.push_back(nlri.afi == 1 ? 4 : 16);
  reach.insert(reach.end(), nlri.afi == 1 ? 4 : 16, 0);
  reach.push_back(0);
  putNlri(reach, nlri);

  Bytes target{0x01, 0x02};
  put32(target, routeTarget.toU32());
  put16(target, 0);

  Bytes attributes;
  putAttribute(attributes, 0x40, 1, {0});
  putAttribute(attributes, 0x40, 2, {});
  putAttribute(attributes, 0x40, 5, {0, 0, 0, 100});
  putAttribute(attributes, 0x80, 14, reach);
  putAttribute(attributes, 0xc0, 16, target);
  putAttribute(attributes, 0xc0, 23, tunnel);
  Bytes body{0, 0};
  put16(body, static_cast<U32>(attributes.size()));
  body.insert(body.end(), attributes.begin(), attributes.end());
  return message(body);
}

Bytes withdrawMessage(SrPolicyNlri const& nlri) {
  Bytes unreach;
  put16(unreach, nlri.afi);
  unreach.push_back(safiSrPolicy);
  putNlri(unreach, nlri);
  Bytes attributes;
  putAttribute(attributes, 0x80, 15, unreach);
  Bytes body{0, 0};
  put16(body, static_cast<U32>(attributes.size()));
  body.insert(body.end(), attributes.begin(), attributes.end());
  return message(body);
}

}  // namespace SrTeBgp
