#!/usr/bin/python3
"""srte-bgp against a real BGP peer: gobgpd from Debian, driven through its gRPC API.

srte-agent (with a platform whose LFIB resolves the labels used), srte-bgp and gobgpd run on
loopback. gobgpd dials srte-bgp (it listens nowhere itself); the paths go in through gRPC and
come out as the agent's JSON lines. The Python stubs are generated at run time from the .proto
files of Debian's golang-github-osrg-gobgp-dev into the work directory (the build tree).

    gobgp_interop.py --srte-bgp BIN --srte-agent BIN --work DIR           the test
    gobgp_interop.py ... --scale 10000                                    the end-to-end figure

Every wait is bounded. Exit status 0 passed, 1 failed; a missing peer or gRPC tool is a
failure, not a skip: scripts/deps.sh installs them, and a run without the peer proves nothing.
"""

import argparse
import json
import os
import queue
import shutil
import signal
import socket
import subprocess
import sys
import threading
import time

PROTO_DIR = "/usr/share/gocode/src/github.com/osrg/gobgp/api"
LOCAL_ID = "10.0.0.1"
GOBGP_ID = "10.0.0.2"
AS = 65000

# Top labels 16001 and 16002 resolve; the other labels ride below them.
PLATFORM = {"platform": {
    "adjacencies": [
        {"index": 1, "vias": [{"interface": "Ethernet1", "nextHop": "10.0.12.2", "label": 16001}]},
        {"index": 2, "vias": [{"interface": "Ethernet2", "nextHop": "10.0.13.3", "label": 16002}]}],
    "routes": [{"label": 16001, "source": 1, "adjacency": 1},
               {"label": 16002, "source": 1, "adjacency": 2}]}}

failures = []


def missing(why):
    print("FAILED: " + why + " (scripts/deps.sh installs what this test needs)")
    sys.exit(1)


def check(ok, what):
    if not ok:
        failures.append(what)
        print("FAILED: " + what, flush=True)
    return ok


class Process:
    """A child whose standard output is read as JSON lines, each wait bounded."""

    def __init__(self, name, args, log_path=None, json_lines=True):
        self.name = name
        self.lines = queue.Queue()
        self.seen = []
        err = open(log_path, "w") if log_path else subprocess.DEVNULL
        self.proc = subprocess.Popen(args, stdout=subprocess.PIPE if json_lines else err,
                                     stderr=err, stdin=subprocess.DEVNULL, text=True)
        if json_lines:
            threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.proc.stdout:
            try:
                self.lines.put(json.loads(line))
            except ValueError:
                self.lines.put({"event": "not-json", "text": line})
        self.lines.put(None)

    def until(self, predicate, what, timeout):
        """The first line for which predicate holds, within timeout seconds, else None."""
        deadline = time.monotonic() + timeout
        while True:
            left = deadline - time.monotonic()
            try:
                line = self.lines.get(timeout=max(left, 0.001)) if left > 0 else None
            except queue.Empty:
                line = None
            if line is None:
                check(False, "%s: no line for %s within %.0f s" % (self.name, what, timeout))
                return None
            self.seen.append(line)
            if predicate(line):
                return line

    def stop(self, sig=signal.SIGTERM, timeout=10):
        if self.proc.poll() is None:
            self.proc.send_signal(sig)
            try:
                self.proc.wait(timeout)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        return self.proc.returncode


def cpu_seconds(process):
    """User and system CPU seconds of a running child, from /proc."""
    with open("/proc/%d/stat" % process.proc.pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    tick = os.sysconf("SC_CLK_TCK")
    return {"user": int(fields[11]) / tick, "system": int(fields[12]) / tick}


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def generate_stubs(work):
    for tool in ("protoc", "grpc_python_plugin", "gobgpd"):
        if not shutil.which(tool):
            missing("%s is not installed" % tool)
    if not os.path.isdir(PROTO_DIR):
        missing("GoBGP's .proto files are not in " + PROTO_DIR)
    try:
        import grpc  # noqa: F401
        import google.protobuf  # noqa: F401
    except ImportError as e:
        missing("python3 has no gRPC or protobuf module (%s)" % e)
    stubs = os.path.join(work, "stubs")
    os.makedirs(stubs, exist_ok=True)
    subprocess.run(["protoc", "-I", PROTO_DIR, "-I", "/usr/include", "--python_out=" + stubs,
                    "--grpc_out=" + stubs,
                    "--plugin=protoc-gen-grpc=" + shutil.which("grpc_python_plugin"),
                    "gobgp.proto", "attribute.proto", "capability.proto"], check=True)
    sys.path.insert(0, stubs)


class GoBgp:
    """gobgpd as the controller: its configuration, its process and its gRPC API."""

    def __init__(self, work, srte_bgp_port):
        import grpc
        import gobgp_pb2_grpc
        self.grpc_port = free_port()
        conf = os.path.join(work, "gobgpd.toml")
        with open(conf, "w") as f:
            f.write("""[global.config]
  as = %d
  router-id = "%s"
  port = -1
[[neighbors]]
  [neighbors.config]
    neighbor-address = "127.0.0.1"
    peer-as = %d
  [neighbors.transport.config]
    remote-port = %d
  [neighbors.timers.config]
    connect-retry = 1
    hold-time = 30
    keepalive-interval = 10
  [[neighbors.afi-safis]]
    [neighbors.afi-safis.config]
      afi-safi-name = "ipv4-srpolicy"
  [[neighbors.afi-safis]]
    [neighbors.afi-safis.config]
      afi-safi-name = "ipv6-srpolicy"
""" % (AS, GOBGP_ID, AS, srte_bgp_port))
        self.process = Process("gobgpd", [shutil.which("gobgpd"), "-f", conf, "-p", "-l", "info",
                                          "--api-hosts", "127.0.0.1:%d" % self.grpc_port,
                                          "--pprof-disable"],
                               log_path=os.path.join(work, "gobgpd.log"), json_lines=False)
        self.channel = grpc.insecure_channel("127.0.0.1:%d" % self.grpc_port)
        grpc.channel_ready_future(self.channel).result(timeout=20)
        self.api = gobgp_pb2_grpc.GobgpApiStub(self.channel)

    def path(self, endpoint, color, distinguisher, preference, bsid, lists, route_target=LOCAL_ID,
             name=None):
        """An SR Policy path; lists are (weight, [labels top first])."""
        import attribute_pb2 as a
        import gobgp_pb2 as g
        from google.protobuf.any_pb2 import Any

        def pack(m):
            x = Any()
            x.Pack(m)
            return x
        v6 = ":" in endpoint
        family = g.Family(afi=g.Family.AFI_IP6 if v6 else g.Family.AFI_IP,
                          safi=g.Family.SAFI_SR_POLICY)
        nlri = a.SRPolicyNLRI(length=192 if v6 else 96, distinguisher=distinguisher, color=color,
                              endpoint=socket.inet_pton(socket.AF_INET6 if v6 else socket.AF_INET,
                                                        endpoint))
        subs = [pack(a.TunnelEncapSubTLVSRPreference(preference=preference))]
        if bsid is not None:
            subs.append(pack(a.TunnelEncapSubTLVSRBindingSID(bsid=pack(a.SRBindingSID(
                s_flag=False, i_flag=False, sid=bsid.to_bytes(4, "big"))))))
        for weight, labels in lists:
            # GoBGP 3.10 takes a type A segment as the whole label-stack entry.
            subs.append(pack(a.TunnelEncapSubTLVSRSegmentList(
                weight=a.SRWeight(weight=weight),
                segments=[pack(a.SegmentTypeA(flags=a.SegmentFlags(), label=l << 12))
                          for l in labels])))
        if name:
            subs.append(pack(a.TunnelEncapSubTLVSRCandidatePathName(candidate_path_name=name)))
        attrs = [pack(a.OriginAttribute(origin=0)),
                 pack(a.NextHopAttribute(next_hop="::ffff:127.0.0.1" if v6 else "127.0.0.1")),
                 pack(a.ExtendedCommunitiesAttribute(communities=[pack(
                     a.IPv4AddressSpecificExtended(is_transitive=True, sub_type=0x02,
                                                   address=route_target, local_admin=0))])),
                 pack(a.TunnelEncapAttribute(tlvs=[a.TunnelEncapTLV(type=15, tlvs=subs)]))]
        return g.Path(nlri=pack(nlri), pattrs=attrs, family=family)

    def add(self, path):
        import gobgp_pb2 as g
        return self.api.AddPath(g.AddPathRequest(table_type=g.GLOBAL, path=path), timeout=10).uuid

    def add_stream(self, paths, chunk=500):
        import gobgp_pb2 as g
        requests = (g.AddPathStreamRequest(table_type=g.GLOBAL, paths=paths[i:i + chunk])
                    for i in range(0, len(paths), chunk))
        self.api.AddPathStream(requests, timeout=120)

    def delete(self, uuid):
        import gobgp_pb2 as g
        self.api.DeletePath(g.DeletePathRequest(table_type=g.GLOBAL, uuid=uuid), timeout=10)

    def stop(self):
        self.channel.close()
        return self.process.stop()


def start(args, table):
    """srte-agent, srte-bgp and gobgpd, up to the established session."""
    platform = os.path.join(args.work, "interop-platform.json")
    with open(platform, "w") as f:
        json.dump(PLATFORM, f)
    config = os.path.join(args.work, "srte-bgp.json")
    with open(config, "w") as f:
        json.dump({"localAs": AS, "bgpIdentifier": LOCAL_ID, "listenAddress": "127.0.0.1",
                   "listenPort": 0, "table": table, "capacity": max(4096, 2 * args.scale),
                   "peers": [{"address": "127.0.0.1", "as": AS, "passive": True,
                              "holdTime": 30}]}, f)
    agent = Process("srte-agent", [args.srte_agent, "--platform", platform, "--source",
                                   "bgp=" + table, "--poll-ms", "5"])
    agent.until(lambda l: l["event"] == "started", "started", 10)
    bgp = Process("srte-bgp", [args.srte_bgp, config])
    started = bgp.until(lambda l: l["event"] == "started", "started", 10)
    if not started:
        raise SystemExit(1)
    gobgp = GoBgp(args.work, started["listen"]["port"])
    up = bgp.until(lambda l: l["event"] in ("session-up", "session-down"), "session-up", 40)
    check(up is not None and up["event"] == "session-up" and up["identifier"] == GOBGP_ID
          and "ipv4-srpolicy" in up["families"] and "ipv6-srpolicy" in up["families"],
          "the session with gobgpd comes up with both SR Policy families: %s" % up)
    return agent, bgp, gobgp


def policy_line(endpoint, color, change=None):
    return lambda l: (l["event"] == "policy" and l["endpoint"] == endpoint and l["color"] == color
                      and (change is None or l["change"] == change))


def test(args):
    table = "srte-interop-%d" % os.getpid()
    agent, bgp, gobgp = start(args, table)
    try:
        # 1. Two weighted lists and a binding SID, over IPv4 and IPv6 endpoints.
        first = gobgp.add(gobgp.path("10.0.0.9", 100, 2, 200, 900,
                                     [(1, [16001, 16009]), (3, [16002, 24005, 16009])],
                                     name="cp-gold"))
        gobgp.add(gobgp.path("2001:db8::9", 100, 2, 100, 902, [(1, [16002])]))
        written = bgp.until(lambda l: l["event"] == "path" and l["endpoint"] == "10.0.0.9",
                            "the first path", 20)
        check(written and written["change"] == "added" and written["preference"] == 200
              and written["bindingSid"] == 900 and written["candidatePathName"] == "cp-gold"
              and written["segmentLists"] == [{"weight": 1, "labels": [16001, 16009]},
                                              {"weight": 3, "labels": [16002, 24005, 16009]}],
              "srte-bgp writes the first path as sent: %s" % written)
        policy = agent.until(policy_line("10.0.0.9", 100, "added"), "the first policy", 20)
        check(policy and policy["bindingSid"] == 900 and policy["candidate"] ==
              "bgp/%d" % written["id"] and sorted(t["weight"] for t in policy["tunnels"]) == [1, 3],
              "the agent publishes it with both weighted lists: %s" % policy)
        route = agent.until(lambda l: l["event"] == "bsid-route" and l["label"] == 900,
                            "the binding SID route", 5)
        check(route and route["change"] == "added" and policy and route["fec"] == policy["fec"],
              "its binding SID route leads to its FEC: %s" % route)
        v6 = agent.until(policy_line("2001:db8::9", 100, "added"), "the IPv6 policy", 20)
        check(v6 and v6["bindingSid"] == 902, "the IPv6 endpoint's policy: %s" % v6)

        # 2. Another distinguisher with a higher preference becomes active.
        second = gobgp.add(gobgp.path("10.0.0.9", 100, 3, 300, 901, [(1, [16002])]))
        changed = agent.until(policy_line("10.0.0.9", 100, "changed"), "the second path", 20)
        check(changed and changed["bindingSid"] == 901 and changed["candidate"] !=
              policy["candidate"], "the preference 300 path becomes active: %s" % changed)

        # 3. A Route Target that is not our identifier: refused as not usable, never used.
        gobgp.add(gobgp.path("10.0.0.8", 100, 2, 100, 903, [(1, [16001])],
                             route_target="10.9.9.9"))
        refused = bgp.until(lambda l: l["event"] == "path" and l["endpoint"] == "10.0.0.8",
                            "the foreign Route Target path", 20)
        check(refused and refused["change"] == "refused" and refused["rule"] == "not-usable"
              and refused["field"] == "extended-communities",
              "a path for another router is not used: %s" % refused)

        # 4. DeletePath: the withdrawal brings the first path back.
        gobgp.delete(second)
        back = agent.until(policy_line("10.0.0.9", 100, "changed"), "the withdrawal", 20)
        check(back and back["bindingSid"] == 900 and back["candidate"] == policy["candidate"],
              "after DeletePath the first path is active again: %s" % back)
        del first

        # 5. gobgpd stops: the session goes down and takes the rest with it.
        gobgp.stop()
        down = bgp.until(lambda l: l["event"] == "session-down", "session-down", 20)
        check(down and down["withdrawn"] == 2 and down["state"] == "Established",
              "the session goes down with exactly its two paths: %s" % down)
        gone = set()
        while len(gone) < 2:
            line = agent.until(lambda l: l["event"] == "policy" and l["change"] == "removed",
                               "the removals", 20)
            if not line:
                break
            gone.add(line["endpoint"])
        check(gone == {"10.0.0.9", "2001:db8::9"}, "both policies are removed: %s" % gone)
        check(not any(l.get("endpoint") == "10.0.0.8" for l in agent.seen),
              "the agent never saw the path for another router")
        check(bgp.stop() == 0, "srte-bgp stops with status 0 on SIGTERM")
        bgp.until(lambda l: l["event"] == "stopped", "stopped", 5)
        if args.verbose:
            for line in bgp.seen + agent.seen:
                print(json.dumps(line))
    finally:
        gobgp.stop()
        bgp.stop(signal.SIGKILL)
        agent.stop()
        try:
            os.unlink("/dev/shm/" + table)
        except OSError:
            pass


def scale(args):
    """N paths from gobgpd until the agent has published them all; where the time goes."""
    table = "srte-scale-%d" % os.getpid()
    agent, bgp, gobgp = start(args, table)
    n = args.scale
    try:
        paths = [gobgp.path("10.%d.%d.%d" % (i >> 16 & 255, i >> 8 & 255, i & 255), 100, 1, 100,
                            16 + i, [(1, [16001, 20000 + i % 1000]), (2, [16002])])
                 for i in range(n)]
        t0 = time.monotonic()
        gobgp.add_stream(paths)
        t_grpc = time.monotonic()
        first = bgp.until(lambda l: l["event"] == "path", "the first path", 60)
        count = 1
        last = first
        while count < n and last:
            last = bgp.until(lambda l: l["event"] == "path", "path %d" % (count + 1), 60)
            count += last is not None
        published = 0
        while published < n:
            line = agent.until(lambda l: l["event"] == "policy" and l["change"] == "added",
                               "policy %d" % (published + 1), 60)
            if not line:
                break
            published += 1
        t_end = time.monotonic()
        # The lines' "t" is CLOCK_MONOTONIC, as time.monotonic() is on Linux.
        print(json.dumps({
            "paths": n,
            "grpcSeconds": round(t_grpc - t0, 3),
            "firstPathWrittenAfter": round(first["t"] - t0, 3) if first else None,
            "lastPathWrittenAfter": round(last["t"] - t0, 3) if last else None,
            "lastPolicyPublishedAfter": round(line["t"] - t0, 3) if line else None,
            "totalSeconds": round(t_end - t0, 3),
            "written": count, "published": published,
            "cpu": {"gobgpd": cpu_seconds(gobgp.process), "srte-bgp": cpu_seconds(bgp),
                    "srte-agent": cpu_seconds(agent)}}))
        check(count == n and published == n, "every path written and published")
    finally:
        gobgp.stop()
        bgp.stop()
        agent.stop()
        try:
            os.unlink("/dev/shm/" + table)
        except OSError:
            pass


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    p.add_argument("--srte-bgp", required=True)
    p.add_argument("--srte-agent", required=True)
    p.add_argument("--work", required=True, help="a directory of the build tree")
    p.add_argument("--scale", type=int, default=0)
    p.add_argument("--verbose", action="store_true", help="print the lines read")
    args = p.parse_args()
    os.makedirs(args.work, exist_ok=True)
    generate_stubs(args.work)
    t0 = time.monotonic()
    if args.scale:
        scale(args)
    else:
        test(args)
    print("%s in %.1f s" % ("FAILED: %d checks" % len(failures) if failures else "passed",
                            time.monotonic() - t0))
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
