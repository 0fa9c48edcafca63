// The command-line client, run as a child process against its embedded simulator.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "TestSupport.h"


namespace {

struct Outcome {
  int status = -1;
  std::string out;  // stdout and stderr together
};

Outcome Oxcim(const std::string& args) {
  Outcome r;
  const std::string cmd = std::string(OXCIM_TOOL_DIR) + "/oxcim " + args + " 2>&1";
  FILE* p = popen(cmd.c_str(), "r");
  if (p == nullptr) return r;
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) r.out.append(buf, n);
  const int w = pclose(p);
  r.status = WIFEXITED(w) ? WEXITSTATUS(w) : -1;
  return r;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);) lines.push_back(l);
  return lines;
}

bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// Instance blocks of `enumerate`: path line -> its "  Name = value" lines.
std::map<std::string, std::map<std::string, std::string>> Blocks(const std::string& text) {
  std::map<std::string, std::map<std::string, std::string>> blocks;
  std::string current;
  for (const std::string& l : Lines(text)) {
    if (l.empty() || Has(l, " instance")) continue;
    if (l[0] != ' ') {
      current = l;
      blocks[current];
    } else {
      const size_t eq = l.find(" = ");
      blocks[current][l.substr(2, eq - 2)] = l.substr(eq + 3);
    }
  }
  return blocks;
}

TEST(ToolQueries, NamespacesAndClassNames) {
  const Outcome ns = Oxcim("--simulator namespaces");
  EXPECT_EQ(ns.status, 0) << ns.out;
  EXPECT_EQ(ns.out, "root/cimv2\nroot/interop\n");

  const Outcome cls = Oxcim("--simulator classes");
  EXPECT_EQ(cls.status, 0) << cls.out;
  EXPECT_EQ(Lines(cls.out),
            (std::vector<std::string>{"CIM_ComputerSystem", "CIM_StorageVolume", "CIM_DiskDrive"}));

  const Outcome interop = Oxcim("--simulator --namespace root/interop classes");
  EXPECT_EQ(Lines(interop.out).front(), "CIM_Namespace") << interop.out;
  const Outcome bad = Oxcim("--simulator --namespace root/nowhere classes");
  EXPECT_EQ(bad.status, 1);
  EXPECT_TRUE(Has(bad.out, "CIM status 3")) << bad.out;
}

TEST(ToolQueries, EnumeratePairsEachNameWithItsInstance) {
  const Outcome r = Oxcim("--simulator enumerate CIM_StorageVolume");
  ASSERT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(Lines(r.out).back(), "12 instances");
  const auto blocks = Blocks(r.out);
  ASSERT_EQ(blocks.size(), 12u);
  for (const auto& [path, props] : blocks) {
    // The key in the name line and the DeviceID property come from different lists.
    const size_t at = path.find("DeviceID=");
    ASSERT_NE(at, std::string::npos) << path;
    EXPECT_EQ(path.substr(at + 9), props.at("DeviceID")) << path;
    EXPECT_EQ(props.size(), 13u) << path;
  }
  const std::string vol07 =
      "CIM_StorageVolume.SystemCreationClassName=\"CIM_ComputerSystem\",SystemName=\"SN-4C3A0012\","
      "CreationClassName=\"CIM_StorageVolume\",DeviceID=\"vol07\"";
  ASSERT_EQ(blocks.count(vol07), 1u);
  EXPECT_EQ(blocks.at(vol07).at("OperationalStatus"), "{3, 32768}");
  EXPECT_EQ(blocks.at(vol07).at("ElementName"), "\"scratch\"");
  EXPECT_EQ(blocks.at(vol07).at("BlockSize"), "512");

  const Outcome names = Oxcim("--simulator names CIM_DiskDrive");
  EXPECT_EQ(names.status, 0);
  const auto lines = Lines(names.out);
  ASSERT_EQ(lines.size(), 4u) << names.out;
  EXPECT_TRUE(Has(lines[3], "DeviceID=\"disk0.3\"")) << lines[3];
}

TEST(ToolQueries, GetClassMarksKeysAndListsMethodParameters) {
  const Outcome r = Oxcim("--simulator get-class CIM_StorageVolume");
  ASSERT_EQ(r.status, 0) << r.out;
  int keys = 0;
  for (const std::string& l : Lines(r.out)) {
    if (l.compare(0, 6, "  key ") == 0) {
      ++keys;
      EXPECT_TRUE(Has(l, "Name") || Has(l, "DeviceID")) << l;
    }
    if (Has(l, " ElementName") || Has(l, " BlockSize")) {
      EXPECT_NE(l.compare(0, 6, "  key "), 0) << l;
    }
  }
  EXPECT_EQ(keys, 4);
  EXPECT_TRUE(Has(r.out, "uint16[]       OperationalStatus")) << r.out;
  EXPECT_TRUE(Has(r.out,
                  "uint32         RequestStateChange(uint16 RequestedState, "
                  "ref CIM_ConcreteJob Job, datetime TimeoutPeriod)"))
      << r.out;

  const Outcome unknown = Oxcim("--simulator get-class CIM_Nothing");
  EXPECT_EQ(unknown.status, 1);
  EXPECT_TRUE(Has(unknown.out, "CIM status 5,")) << unknown.out;
  EXPECT_TRUE(Has(unknown.out, "CIM_ERR_INVALID_CLASS")) << unknown.out;
}

TEST(ToolQueries, GetInstanceHitMissAndAmbiguous) {
  const Outcome hit = Oxcim("--simulator get-instance CIM_StorageVolume DeviceID=vol03");
  ASSERT_EQ(hit.status, 0) << hit.out;
  EXPECT_EQ(Lines(hit.out)[0], "CIM_StorageVolume.DeviceID=\"vol03\"");
  EXPECT_TRUE(Has(hit.out, "  ElementName = \"vm-store-a\"\n")) << hit.out;
  EXPECT_TRUE(Has(hit.out, "  NumberOfBlocks = 4294967296\n")) << hit.out;

  const Outcome miss = Oxcim("--simulator get-instance CIM_StorageVolume DeviceID=vol99");
  EXPECT_EQ(miss.status, 1);
  EXPECT_TRUE(Has(miss.out, "GetInstance failed: CIM status 6, m_Info 0x400 (NO_Connect)"))
      << miss.out;
  EXPECT_TRUE(Has(miss.out, "CIM_ERR_NOT_FOUND")) << miss.out;

  // Every volume shares the system name: not one instance.
  const Outcome many = Oxcim("--simulator get-instance CIM_StorageVolume SystemName=SN-4C3A0012");
  EXPECT_EQ(many.status, 1);
  EXPECT_TRUE(Has(many.out, "CIM status 4,")) << many.out;
}

TEST(ToolFailures, BadCredentialsReportHttpAndAuthBits) {
  const Outcome r = Oxcim("--simulator --password wrong namespaces");
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(Has(r.out, "CIM status 22, m_Info 0x600 (NO_Auth NO_Connect)")) << r.out;
  EXPECT_TRUE(Has(r.out, "status 5000: Invalid username/password")) << r.out;
  EXPECT_TRUE(Has(r.out, "status 10401: HTTP/1.1 401 Unauthorized")) << r.out;
  EXPECT_FALSE(Has(r.out, "root/cimv2")) << r.out;
}

TEST(ToolFailures, UsageErrors) {
  EXPECT_EQ(Oxcim("--simulator").status, 2);
  EXPECT_EQ(Oxcim("--simulator frobnicate").status, 2);
  EXPECT_EQ(Oxcim("--simulator get-instance CIM_StorageVolume vol03").status, 2);
  EXPECT_EQ(Oxcim("--simulator --trace 0xZZ namespaces").status, 2);
  EXPECT_EQ(Oxcim("namespaces").status, 2);
  const Outcome help = Oxcim("--help");
  EXPECT_EQ(help.status, 0);
  for (const char* word : {"namespaces", "classes", "get-class", "enumerate", "names",
                           "get-instance", "serve", "--cafile", "--verify", "--trace"})
    EXPECT_TRUE(Has(help.out, word)) << word;
}

// The simulator on its own, reached through --host.
TEST(ToolServers, SimulatorServesOtherClients) {
  const std::string cmd = std::string(OXCIM_TOOL_DIR) + "/oxcim --simulator serve 3";
  FILE* server = popen(cmd.c_str(), "r");
  ASSERT_NE(server, nullptr);
  int port = 0;
  ASSERT_EQ(std::fscanf(server, "listening on 127.0.0.1 port %d", &port), 1);

  const std::string at = "--host 127.0.0.1 --port " + std::to_string(port);
  const Outcome ok =
      Oxcim(at + " --no-ip-check --user admin --password secret names CIM_ComputerSystem");
  EXPECT_EQ(ok.status, 0) << ok.out;
  EXPECT_EQ(ok.out,
            "CIM_ComputerSystem.CreationClassName=\"CIM_ComputerSystem\",Name=\"SN-4C3A0012\"\n");
  // The library's resolver skips 127.0.0.1, so without the option there is no server address.
  const Outcome unresolved = Oxcim(at + " --user admin --password secret namespaces");
  EXPECT_EQ(unresolved.status, 3) << unresolved.out;
  // No credentials: refused by the library before any traffic.
  const Outcome anonymous = Oxcim(at + " --no-ip-check namespaces");
  EXPECT_EQ(anonymous.status, 1);
  EXPECT_TRUE(Has(anonymous.out, "CIM status 5000")) << anonymous.out;

  EXPECT_EQ(pclose(server), 0);
}

// A real server over HTTPS: the TLS options reach libcurl and the request is a proper one.
TEST(ToolServers, HttpsServerWithCaFile) {
  oxtest::TestPki pki;
  oxsim::ScriptedServer::Options tls;
  tls.tls = &pki;
  oxsim::ScriptedServer srv(tls);
  std::string named;
  for (const char* ns : {"root/cimv2", "vendor/storage"})
    named += std::string("<VALUE.NAMEDINSTANCE><INSTANCENAME CLASSNAME=\"CIM_Namespace\">") +
             "<KEYBINDING NAME=\"Name\"><KEYVALUE VALUETYPE=\"string\">" + ns +
             "</KEYVALUE></KEYBINDING></INSTANCENAME><INSTANCE CLASSNAME=\"CIM_Namespace\">"
             "</INSTANCE></VALUE.NAMEDINSTANCE>\n";
  srv.setDefault(oxtest::CannedResponse::cimOk(
      "<?xml version=\"1.0\" ?>\n<CIM CIMVERSION=\"2.0\" DTDVERSION=\"2.0\"><MESSAGE ID=\"1001\" "
      "PROTOCOLVERSION=\"1.0\"><SIMPLERSP><IMETHODRESPONSE NAME=\"EnumerateInstances\">"
      "<IRETURNVALUE>\n" +
      named + "</IRETURNVALUE></IMETHODRESPONSE></SIMPLERSP></MESSAGE></CIM>\n"));
  const std::string at = "--host 127.0.0.1 --port " + std::to_string(srv.port()) +
                         " --no-ip-check --https --verify --user ops --password pw ";

  const Outcome ok = Oxcim(at + "--cafile " + pki.caFile + " namespaces");
  EXPECT_EQ(ok.status, 0) << ok.out;
  EXPECT_EQ(ok.out, "root/cimv2\nvendor/storage\n");
  const auto reqs = srv.requests();
  ASSERT_EQ(reqs.size(), 1u);
  EXPECT_EQ(reqs[0].requestLine, "POST /cimom HTTP/1.1");
  EXPECT_EQ(reqs[0].header("CIMMethod"), "EnumerateInstances");
  EXPECT_EQ(reqs[0].header("CIMObject"), "root%2Finterop");
  EXPECT_EQ(reqs[0].header("Authorization"), "Basic b3BzOnB3");  // ops:pw

  // A CA that did not sign the server's certificate: the handshake fails, nothing is asked.
  const Outcome untrusted = Oxcim(at + "--cafile " + pki.otherCaFile + " namespaces");
  EXPECT_EQ(untrusted.status, 1);
  EXPECT_TRUE(Has(untrusted.out, "CIM status 60,")) << untrusted.out;
  EXPECT_EQ(srv.requests().size(), 1u);
}

}  // namespace
