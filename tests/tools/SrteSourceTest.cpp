// srte-source end to end: the program run as a user runs it, against a table in /dev/shm named
// for this test process and removed by the fixture; what it wrote is read back as the agent
// reads it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "SrTePolicy/SrTePolicyInputShm.h"
#include "TestTable.h"

using namespace SrTePolicy;

namespace {

using TestSupport::Outcome;

class SrteSource : public ::testing::Test {
 protected:
  ~SrteSource() override { std::remove(file.c_str()); }

  // Runs the program with `--table NAME` and `args`.
  Outcome run(std::vector<std::string> args, bool withTable = true) {
    if (withTable) args.insert(args.begin(), {"--table", name});
    return TestSupport::runProgram(SRTE_SOURCE, std::move(args));
  }
  void writeFile(std::string const& text) { std::ofstream(file) << text; }
  std::vector<std::string> bgp(std::vector<std::string> args) {
    args.insert(args.begin(), {"--source", "bgp"});
    return args;
  }

  TestSupport::TestTable const name{"tool"};
  std::string const file = "/tmp/" + name + ".json";
};

// Faults: fields written to the wrong place or not at all; ids not taken from policyIdx; a
// change that drops the fields it was not given; list output that does not match the table;
// destroy leaving the table behind, or claiming success for a table that is not there; a
// reader that has the table open not told.
TEST_F(SrteSource, AddChangeDeleteListAndDestroy) {
  Outcome r = run(bgp({"add", "--endpoint", "10.0.0.1", "--color", "5", "--preference", "200",
                       "--router-id", "1.1.1.1", "--binding-sid", "900", "--segment-list",
                       "2:16001,16002", "--segment-list", "16003"}));
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "added id 1 (policy id 1073741825)\n");
  r = run(bgp({"add", "--endpoint=2001:db8::1", "--color=7", "--id", "40"}));
  EXPECT_EQ(r.out, "added id 40 (policy id 1073741864)\n");
  EXPECT_EQ(run(bgp({"add", "--endpoint", "10.0.0.3", "--color", "5"})).out,
            "added id 2 (policy id 1073741826)\n");
  EXPECT_EQ(run(bgp({"change", "--id", "1", "--preference", "300"})).out, "changed id 1\n");
  EXPECT_EQ(run(bgp({"change", "--id", "1", "--preference", "300"})).out, "id 1 unchanged\n");
  EXPECT_EQ(run(bgp({"delete", "--id", "2"})).out, "deleted id 2\n");

  PolicyInputShmTable reader(name);
  EXPECT_EQ(reader.counter(), 2u);
  std::optional<PolicyInputEntry> e =
      Skerry::readRecord(reader, PolicyId::make(PolicySource::sourceBgp, 1));
  ASSERT_TRUE(e);
  EXPECT_EQ(Mosk::valueToStrep(*e),
            "Value('SrTePolicy::PolicyInputEntry', ** {'key': 1073741825, 'endpoint': 10.0.0.1, "
            "'color': 5, 'preference': 300, 'routerId': 1.1.1.1, 'bindingSid': 900, "
            "'segmentList': [Value('SrTePolicy::WeightedSegList', ** {'weight': 2, 'segList': "
            "[16001, 16002]}), Value('SrTePolicy::WeightedSegList', ** {'weight': 1, 'segList': "
            "[16003]})]})");
  EXPECT_EQ(reader.count(), 2u);
  EXPECT_EQ(run({"list"}).out,
            "table " + name +
                ": 2 candidate paths, policyIdx 2\n"
                "id 1 (policy id 1073741825, bgp): endpoint 10.0.0.1 color 5 preference 300 "
                "router-id 1.1.1.1 binding-sid 900 segment-lists 2:16001,16002 1:16003\n"
                "id 40 (policy id 1073741864, bgp): endpoint 2001:db8::1 color 7 preference 100 "
                "router-id 0.0.0.0 binding-sid none segment-lists none\n");

  r = run({"destroy"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "removed table " + name + "\n");
  EXPECT_FALSE(Skerry::shmTableExists(name));
  EXPECT_TRUE(reader.removed());
  r = run({"destroy"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "srte-source: no table '" + name + "'\n");
  EXPECT_EQ(run({"destroy", "--json"}).status, 2);
}

// Faults: bad input written in part, or refused without saying which argument and why; a
// table created by a command that was then refused.
TEST_F(SrteSource, BadInputIsRefusedAndNothingIsWritten) {
  std::string const prefix = "srte-source: ";
  Outcome r = run(bgp({"add", "--endpoint", "1.2.3", "--color", "1"}));
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, prefix + "--endpoint: '1.2.3' is not an IPv4 or IPv6 address\n");
  EXPECT_FALSE(Skerry::shmTableExists(name)) << "a refused add left a table behind";

  ASSERT_EQ(run(bgp({"add", "--endpoint", "10.0.0.1", "--color", "5"})).status, 0);
  PolicyInputShmTable reader(name);
  std::vector<std::string> seventeen = bgp({"add", "--endpoint", "10.0.0.2", "--color", "1"});
  for (int i = 0; i < 17; ++i)
    seventeen.insert(seventeen.end(), {"--segment-list", "1:" + std::to_string(16001 + i)});
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string err;
    std::string file = "";  // what the file holds, when the case loads one
  } const cases[] = {
      {bgp({"add", "--endpoint", "10.0.0.2", "--color", "x"}), 2,
       "--color: 'x' is not a number from 0 to 4294967295"},
      {bgp({"add", "--endpoint", "10.0.0.2", "--color", "1", "--segment-list", "2:16001,1048576"}),
       2, "--segment-list '2:16001,1048576': label: '1048576' is not a number from 0 to 1048575"},
      {bgp({"add", "--endpoint", "10.0.0.2", "--color", "1", "--segment-list", "0:16001"}), 2,
       "--segment-list '0:16001': weight: '0' is not a number from 1 to 4294967295"},
      {bgp({"add", "--endpoint", "10.0.0.2", "--color", "1", "--segment-list", "1,2,3,4,5,6,7"}), 2,
       "--segment-list '1,2,3,4,5,6,7': 7 labels; a segment list has 1 to 6"},
      {bgp({"add", "--endpoint", "10.0.0.2", "--color", "1", "--binding-sid", "15"}), 2,
       "--binding-sid: label 15 is reserved (0 to 15); a binding SID is 16 to 1048575"},
      {bgp({"add", "--endpoint", "10.0.0.2", "--color", "1", "--segment-list", "16001,16002",
            "--segment-list", "2:16001,16002"}),
       2,
       "--segment-list '2:16001,16002': the same labels as --segment-list 1; a candidate path "
       "names each segment list once"},
      {seventeen, 2, "--segment-list: more than 16 segment lists"},
      {bgp({"add", "--endpoint", "10.0.0.2"}), 2, "add: --color is required"},
      {bgp({"add", "--endpoint", "10.0.0.2", "--colour", "1"}), 2,
       "add: unknown option '--colour'"},
      {bgp({"add", "--endpoint", "10.0.0.2", "--color", "1", "--id", "1"}), 1,
       "add: id 1 is already in the table; use change"},
      {bgp({"change", "--id", "1", "--color", "6"}), 2,
       "change: id 1 is 10.0.0.1 color 5; a candidate path keeps its endpoint and color (delete "
       "it and add one under a new id)"},
      {bgp({"delete", "--id", "9"}), 1, "delete: no candidate path with id 9"},
      {{"--source", "pcep", "delete", "--id", "1"},
       1,
       "table '" + name + "' holds candidate paths of source bgp, not pcep"},
      {{"--source", "ospf", "delete", "--id", "1"},
       2,
       "--source: 'ospf' is not a source (static, bgp, pcep or other)"},
      {bgp({"load", file}), 2,
       file + ": candidate 1: 'color': expected a number from 0 to 4294967295, got \"blue\"",
       R"([{"endpoint": "10.0.0.9", "color": 1}, {"endpoint": "10.0.0.8", "color": "blue"}])"},
      {bgp({"load", file}), 2, file + ": not JSON: number overflow parsing '1e400'",
       R"([{"endpoint": "10.0.0.9", "color": 1e400}])"},
      {bgp({"load", file}), 2, file + ": nested deeper than 32 levels",
       std::string(100000, '[') + std::string(100000, ']')},
      {bgp({"load", file}), 2,
       file + ": candidate 0: 'bindingSid': label 3 is reserved (0 to 15); a binding SID is 16 "
              "to 1048575",
       R"([{"endpoint": "10.0.0.9", "color": 1, "bindingSid": 3}])"},
      {bgp({"load", file}), 2,
       file + ": candidate 0: 'segmentLists'[1]: the same labels as segment list 1; a "
              "candidate path names each segment list once",
       R"([{"endpoint": "10.0.0.9", "color": 1,
            "segmentLists": [{"labels": [16001]}, {"weight": 2, "labels": [16001]}]}])"},
      {bgp({"load", "/tmp"}), 2, "/tmp: a directory, not a file"},
      {{"--table", "a/b", "list"},
       2,
       "--table: table name 'a/b' is not allowed: use 1 to 200 letters, digits, '.', '_' or "
       "'-'"},
  };
  for (Case const& c : cases) {
    if (!c.file.empty()) writeFile(c.file);
    r = run(c.args, c.args[0] != "--table");
    EXPECT_EQ(r.status, c.status) << c.err;
    EXPECT_EQ(r.err, prefix + c.err + "\n");
    EXPECT_EQ(r.out, "");
  }
  EXPECT_FALSE(reader.pending()) << "a refused command wrote to the table";
  EXPECT_EQ(reader.count(), 1u);
  EXPECT_EQ(run({"--help"}, false).status, 0);
}

// Faults: list --json that load does not take back; load that half-applies or leaves the
// source's other candidates behind with --replace.
TEST_F(SrteSource, LoadTakesBackListJsonAndReplaces) {
  writeFile(R"([{"endpoint": "10.0.0.1", "color": 5, "bindingSid": 900,
                 "segmentLists": [{"weight": 3, "labels": [16001, 16002]}]},
                {"id": 7, "endpoint": "2001:db8::7", "color": 1, "preference": 50,
                 "routerId": "9.9.9.9"}])");
  Outcome r = run(bgp({"load", file}));
  EXPECT_EQ(r.out, "loaded 2 candidate paths: 2 added, 0 changed, 0 unchanged, 0 deleted\n")
      << r.err;
  std::string const json = run({"list", "--json"}).out;
  writeFile(json);
  EXPECT_EQ(run(bgp({"load", file})).out,
            "loaded 2 candidate paths: 0 added, 0 changed, 2 unchanged, 0 deleted\n");
  Skerry::shmTableRemove(name);
  EXPECT_EQ(run(bgp({"load", file})).out,
            "loaded 2 candidate paths: 2 added, 0 changed, 0 unchanged, 0 deleted\n");
  EXPECT_EQ(run({"list", "--json"}).out, json);

  writeFile(R"([{"id": 7, "endpoint": "2001:db8::7", "color": 1, "preference": 60}])");
  EXPECT_EQ(run(bgp({"load", file, "--replace"})).out,
            "loaded 1 candidate path: 0 added, 1 changed, 0 unchanged, 1 deleted\n");
  PolicyInputShmTable reader(name);
  EXPECT_EQ(reader.count(), 1u);
  EXPECT_EQ(
      Skerry::readRecord(reader, PolicyId::make(PolicySource::sourceBgp, 7))->preference().value(),
      60u);
}

}  // namespace
