// The command-line client, run as a child process against the simulator and against the
// scripted server, which shows the requests on the wire.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <map>
#include <nlohmann/json.hpp>

#include "CimServer.h"
#include "TestSupport.h"

extern char** environ;

namespace {

using nlohmann::json;
using Args = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

struct Child {
  pid_t pid = -1;
  int out = -1, err = -1;
};

// The client with its own environment (no OXCIM_* from ours) and no terminal, so it can
// never wait for a password.
Child Spawn(const Args& args, const Args& env) {
  int out[2], err[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return {};
  const std::string tool = std::string(OXCIM_TOOL_DIR) + "/oxcim";
  Args envText = env;
  for (char** e = environ; *e; ++e)
    if (std::strncmp(*e, "OXCIM_", 6) != 0) envText.push_back(*e);
  std::vector<char*> argv{const_cast<char*>(tool.c_str())}, envp;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  for (const std::string& e : envText) envp.push_back(const_cast<char*>(e.c_str()));
  argv.push_back(nullptr);
  envp.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    setsid();
    dup2(out[1], 1);
    dup2(err[1], 2);
    execve(tool.c_str(), argv.data(), envp.data());
    _exit(127);
  }
  close(out[1]);
  close(err[1]);
  return {pid, out[0], err[0]};
}

// Reads until the stream ends, `enough` holds or the time is up; false when time ran out.
bool Drain(int fd, std::string& into, int seconds, const std::function<bool()>& enough = nullptr) {
  for (const auto deadline = Clock::now() + std::chrono::seconds(seconds);;) {
    if (enough && enough()) return true;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) return false;
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
    char buf[8192];
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n <= 0) return !enough;
    into.append(buf, static_cast<size_t>(n));
  }
}

int Reap(Child& c, bool finished) {
  if (!finished) kill(c.pid, SIGKILL);
  close(c.out);
  close(c.err);
  int w = 0;
  waitpid(c.pid, &w, 0);
  return finished && WIFEXITED(w) ? WEXITSTATUS(w) : -1;
}

struct Result {
  int status = -1;
  std::string out, err;
};

Result Oxcim(const Args& args, const Args& env = {}) {
  Result r;
  Child c = Spawn(args, env);
  if (c.pid < 0) return r;
  const bool ok = Drain(c.err, r.err, 60);  // stderr is small: read it first, then stdout
  r.status = Reap(c, Drain(c.out, r.out, 60) && ok);
  return r;
}

// Stops a long-running client as a user would; its exit status.
int Interrupt(Child& c) {
  kill(c.pid, SIGINT);
  std::string rest;
  return Reap(c, Drain(c.out, rest, 10));
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);) lines.push_back(l);
  return lines;
}

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

Args Split(const std::string& text, char by) {
  Args parts;
  std::istringstream in(text);
  for (std::string p; std::getline(in, p, by);) parts.push_back(p);
  return parts;
}

json Parsed(const std::string& text) {
  json j = json::parse(text, nullptr, false);
  EXPECT_FALSE(j.is_discarded()) << text;
  return j;
}

// A data file's blocks: "=== heading" starts one, "--- name" starts a field of it.
struct Block {
  std::string head;
  std::map<std::string, std::string> field;
};
std::vector<Block> Blocks(const std::string& file) {
  std::vector<Block> blocks;
  std::string* into = nullptr;
  for (const std::string& l : Lines(oxtest::ReadFixture(file))) {
    if (l.rfind("=== ", 0) == 0) {
      blocks.push_back({l.substr(4), {}});
      into = nullptr;
    } else if (l.rfind("--- ", 0) == 0) {
      into = &blocks.back().field[l.substr(4)];
    } else if (into) {
      *into += l + "\n";
    }
  }
  EXPECT_FALSE(blocks.empty()) << file;
  return blocks;
}

// "@DATA@/name" stands for a file in the data directory.
Args Expand(Args args) {
  for (std::string& a : args)
    if (a.rfind("@DATA@/", 0) == 0) a = std::string(OXCIM_TEST_DATA) + a.substr(6);
  return args;
}

Args With(Args a, const Args& more) {
  a.insert(a.end(), more.begin(), more.end());
  return a;
}
Args Sim(const Args& more) { return With({"--simulator"}, more); }
Args At(const oxsim::ScriptedServer& srv, const Args& more) {
  return With({"--url", "http://ops@127.0.0.1:" + std::to_string(srv.port()) + "/root/store"}, more);
}
const Args kPw = {"OXCIM_PASSWORD=pw"};

// --- reading: every command in every format ----------------------------------------

// tool_read.txt: one line per command, "the operation in the raw answer|args...".
TEST(ToolRead, EveryFormatOfEveryReadCommand) {
  for (const std::string& line : Lines(oxtest::ReadFixture("tool_read.txt"))) {
    SCOPED_TRACE(line);
    const Args row = Split(line, '|'), args(row.begin() + 1, row.end());
    const std::string expected = "tool_read_" + args[0];
    const Result text = Oxcim(Sim(args));
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_EQ(text.err, "");
    EXPECT_EQ(text.out, oxtest::ReadFixture(expected + ".txt"));
    const Result js = Oxcim(Sim(With(args, {"--format", "json"})));
    EXPECT_EQ(js.status, 0) << js.err;
    EXPECT_EQ(Parsed(js.out), Parsed(oxtest::ReadFixture(expected + ".json")));
    const Result xml = Oxcim(Sim(With(args, {"--format", "xml"})));
    EXPECT_EQ(xml.status, 0) << xml.err;
    EXPECT_EQ(xml.out.rfind("<?xml", 0), 0u) << xml.out;
    EXPECT_TRUE(Has(xml.out, std::string("<IMETHODRESPONSE NAME=\"") + row[0] + "\""));
  }
}

// --- writes and the other operations, as they go on the wire -------------------------

// Per block of tool_write.txt: the arguments ("|" between them), the canned answer, the
// request and its headers, and what is printed as text and as JSON.
TEST(ToolWrite, RequestsOnTheWireAndWhatIsPrinted) {
  for (const Block& b : Blocks("tool_write.txt")) {
    SCOPED_TRACE(b.head);
    const Args args = Expand(Split(b.head, '|'));
    oxsim::ScriptedServer srv;
    srv.setDefault(oxsim::CannedResponse::cimOk(b.field.at("answer")));
    const Result r = Oxcim(At(srv, args), kPw);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, b.field.at("printed"));
    const Result js = Oxcim(At(srv, With({"--format", "json"}, args)), kPw);
    EXPECT_EQ(js.status, 0) << js.err;
    EXPECT_EQ(Parsed(js.out), Parsed(b.field.at("json")));
    const auto reqs = srv.requests();
    ASSERT_EQ(reqs.size(), 2u);
    EXPECT_EQ(reqs[0].body, b.field.at("request"));
    EXPECT_EQ(reqs[0].header("Authorization"), "Basic b3BzOnB3");  // ops:pw
    for (const std::string& h : Lines(b.field.at("headers"))) {
      const size_t colon = h.find(": ");
      EXPECT_EQ(reqs[0].header(h.substr(0, colon)), h.substr(colon + 2));
    }
  }
}

// --- refusals before anything is sent ----------------------------------------------

// tool_usage.txt: one line per command line, "status|first line says|usage shown|args...".
TEST(ToolUsage, BadCommandLinesPrintTheCommandsUsage) {
  const auto lines = Lines(oxtest::ReadFixture("tool_usage.txt"));
  EXPECT_EQ(lines.size(), 19u);
  for (const std::string& line : lines) {
    SCOPED_TRACE(line);
    const Args row = Split(line, '|');
    Args a = Expand(Args(row.begin() + 3, row.end()));
    if (a.empty() || (a[0] != "--url" && a[0] != "serve" && a[0] != "listen")) a = Sim(a);
    const Result r = Oxcim(a);
    EXPECT_EQ(r.status, std::stoi(row[0])) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.rfind("oxcim: ", 0), 0u) << r.err;
    EXPECT_TRUE(Has(Lines(r.err)[0], row[1])) << r.err;
    EXPECT_TRUE(Has(r.err, row[2])) << r.err;
  }
}

TEST(ToolUsage, EveryCommandHasHelp) {
  const Result top = Oxcim({"--help"});
  EXPECT_EQ(top.status, 0);
  for (const std::string& cmd :
       Split("namespaces classes get-class create-class modify-class delete-class enumerate names "
             "get-instance create-instance modify-instance delete-instance get-property "
             "set-property query invoke subscribe listen serve", ' ')) {
    EXPECT_TRUE(Has(top.out, "  " + cmd + " ")) << cmd;
    const Result r = Oxcim({cmd, "--help"});
    EXPECT_EQ(r.status, 0) << cmd;
    EXPECT_TRUE(Has(r.out, "Usage: oxcim " + cmd)) << r.out;
  }
}

// --- failures: one line, the status in words and number -----------------------------

// Run side by side: most of them wait out the library's retry, one the whole time-out.
TEST(ToolFailures, OneLineNamingWhatWentWrong) {
  oxsim::ScriptedServer http500, silent, mute;
  http500.setDefault(oxsim::CannedResponse::http(500, "Internal Server Error"));
  silent.setDefault(oxsim::CannedResponse::closeWithoutReply());
  mute.setDefault(oxsim::CannedResponse::neverAnswer());
  const std::string refused = "127.0.0.1:" + std::to_string(oxtest::FreePort());
  const std::string silentAt = "127.0.0.1:" + std::to_string(silent.port());
  const struct {
    Args args, env;
    std::string line;
  } cases[] = {
      {{"--url", "http://ops@" + refused, "namespaces"}, kPw, "oxcim: cannot connect to " + refused + " (curl 7)"},
      {Sim({"namespaces"}), {"OXCIM_PASSWORD=wrong"}, "user name or password refused (HTTP 401) (curl 22)"},
      {Sim({"get-instance", "CIM_StorageVolume.DeviceID=vol99"}), {},
       "oxcim: CIM_ERR_NOT_FOUND (6): no such instance of CIM_StorageVolume"},
      {Sim({"-n", "root/nowhere", "classes"}), {}, "oxcim: CIM_ERR_INVALID_NAMESPACE (3): root/nowhere"},
      {At(http500, {"namespaces"}), kPw, "answered HTTP/1.1 500 Internal Server Error (curl 22)"},
      {At(silent, {"names", "X"}), kPw, "closed the connection without an answer (curl 52)"},
      {{"--url", "http://" + silentAt, "namespaces"}, {},
       "oxcim: no user name or password for " + silentAt + " (5000)"},
      {At(mute, {"--timeout", "5", "namespaces"}), kPw,
       "no answer from 127.0.0.1:" + std::to_string(mute.port()) + " within 5 seconds"},
  };
  const auto start = Clock::now();
  std::vector<std::future<Result>> runs;
  for (const auto& c : cases) runs.push_back(std::async(std::launch::async, Oxcim, c.args, c.env));
  for (size_t n = 0; n < runs.size(); ++n) {
    SCOPED_TRACE(cases[n].line);
    const Result r = runs[n].get();
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(Lines(r.err).size(), 1u) << r.err;
    EXPECT_TRUE(Has(r.err, cases[n].line)) << r.err;
  }
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(8));  // the time-out bounds the retry too
}

// --- targets ------------------------------------------------------------------------

// Verified by default, with the client's certificate; then the URL and password from the
// environment, with options over them.
TEST(ToolTarget, HttpsAndTheUrlFromTheEnvironment) {
  oxsim::TestPki pki;
  oxsim::ScriptedServer::Options tls;
  tls.tls = &pki;
  tls.requireClientCert = true;
  oxsim::ScriptedServer srv(tls);
  srv.setDefault(oxsim::CannedResponse::cimOk(oxtest::ReadFixture("tool_classnames.xml")));
  const std::string host = "127.0.0.1:" + std::to_string(srv.port()), at = "https://ops@" + host;
  const Args client = {"--cert", pki.clientCert, "--key", pki.clientKey};
  const Args trusted = With({"--cafile", pki.caFile}, client);
  const Args env = {"OXCIM_URL=https://alice@" + host + "/vendor/x", "OXCIM_PASSWORD=s3"};
  const struct {
    Args args, env;
    int status;
    std::string says;
  } cases[] = {
      {With({"--url", at}, trusted), kPw, 0, ""},
      {With({"--url", at, "--cafile", pki.otherCaFile}, client), kPw, 1, "(curl 60)"},
      {With({"--url", at, "--cafile", pki.otherCaFile, "--insecure"}, client), kPw, 0, ""},
      {{"--url", at, "--cafile", pki.caFile}, kPw, 1, "(curl "},  // without the certificate the handshake ends
      {trusted, env, 0, ""},
      {With({"--user", "bob", "-n", "interop"}, trusted), env, 0, ""},
  };
  for (const auto& c : cases) {
    const Result r = Oxcim(With(c.args, {"classes"}), c.env);
    EXPECT_EQ(r.status, c.status) << r.err;
    EXPECT_EQ(r.out, c.status == 0 ? "A\n" : "");
    EXPECT_EQ(Lines(r.err).size(), c.status == 0 ? 0u : 1u) << r.err;
    EXPECT_TRUE(Has(r.err, c.says)) << r.err;
  }
  const auto reqs = srv.requests();
  ASSERT_EQ(reqs.size(), 4u);
  EXPECT_EQ(reqs[2].header("Authorization"), "Basic YWxpY2U6czM=");  // alice:s3
  EXPECT_EQ(reqs[2].header("CIMObject"), "vendor%2Fx");
  EXPECT_EQ(reqs[3].header("Authorization"), "Basic Ym9iOnMz");  // bob:s3
  EXPECT_EQ(reqs[3].header("CIMObject"), "interop");
}

// --- long-running commands ----------------------------------------------------------

void ExpectAlert(const std::string& line, const char* property, const char* message) {
  const json j = Parsed(line);
  EXPECT_EQ(j["indication"]["classname"], "CIM_AlertIndication");
  EXPECT_EQ(j["indication"]["properties"][property]["value"], message);
  EXPECT_EQ(j["indication"]["properties"]["PerceivedSeverity"]["value"], 6);
}

TEST(ToolIndications, ListenPrintsEachIndicationUntilInterrupted) {
  const int port = oxtest::FreePort();
  Child c = Spawn({"listen", std::to_string(port), "--format", "json"}, {});
  ASSERT_GT(c.pid, 0);
  std::string err, out;
  ASSERT_TRUE(Drain(c.err, err, 20, [&] { return Has(err, "listening"); })) << err;
  const std::string alert = oxtest::ReadFixture("tool_indication.xml");
  const std::string post = "POST /cimlistener HTTP/1.1\r\nContent-Type: application/xml\r\nContent-Length: " +
                           std::to_string(alert.size()) + "\r\n\r\n" + alert;
  for (int n = 0; n < 2; ++n)
    EXPECT_EQ(oxtest::RawExchange(port, post).rfind("HTTP/1.1 200", 0), 0u);
  ASSERT_TRUE(Drain(c.out, out, 20, [&] { return Lines(out).size() >= 2; })) << out;
  for (const std::string& line : Lines(out)) ExpectAlert(line, "Message", "disk & shelf");
  EXPECT_EQ(Interrupt(c), 0);

  // A port that is taken is a set-up failure.
  oxsim::ScriptedServer busy;
  const Result taken = Oxcim({"listen", std::to_string(busy.port())});
  EXPECT_EQ(taken.status, 3);
  EXPECT_TRUE(Has(taken.err, "cannot listen on port")) << taken.err;
}

// `serve` in a child; the URL other clients reach it at, "" when it did not come up.
std::string Serve(Child& server, const Args& args) {
  server = Spawn(args, {});
  std::string out;
  int port = 0;
  if (!Drain(server.out, out, 20, [&] { return Has(out, "\n"); }) ||
      std::sscanf(out.c_str(), "listening on 127.0.0.1 port %d", &port) != 1)
    return "";
  return "http://admin@127.0.0.1:" + std::to_string(port);
}

// --- against a simulator that keeps what it is told ----------------------------------

struct LiveServer {
  oxsim::CimServer server;
  Args at;
  LiveServer() {
    std::string error;
    EXPECT_TRUE(server.start(error)) << error;
    at = {"--url", "http://admin@127.0.0.1:" + std::to_string(server.port())};
  }
  Result operator()(const Args& more) const { return Oxcim(With(at, more), {"OXCIM_PASSWORD=secret"}); }
};

const std::string kSystem = "CIM_ComputerSystem.CreationClassName=\"CIM_ComputerSystem\",Name=\"SN-4C3A0012\"";
std::string Volume(const std::string& id) {
  return "CIM_StorageVolume.SystemCreationClassName=\"CIM_ComputerSystem\",SystemName=\"SN-4C3A0012\","
         "CreationClassName=\"CIM_StorageVolume\",DeviceID=\"" + id + "\"";
}

// The simulator alone serves other clients, reached by URL: built in, or a snapshot of a
// live one that went through an instance's life cycle and a method call. Then a real
// subscription: the server delivers to the client's listener, and nothing of the
// subscription is left on the server once the client was interrupted.
TEST(ToolLive, ServeASnapshotAfterALifeCycleAndSubscribe) {
  Child server;
  const std::string url = Serve(server, {"--simulator", "serve"});
  ASSERT_NE(url, "");
  const Result r = Oxcim({"--url", url, "names", "CIM_ComputerSystem"}, {"OXCIM_PASSWORD=secret"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, kSystem + "\n");
  EXPECT_EQ(Interrupt(server), 0);

  // tool_lifecycle.txt: one step per line, "status|printed (or what the error says)|args...";
  // the snapshot then holds what the steps left.
  LiveServer live;
  for (std::string line : Lines(oxtest::ReadFixture("tool_lifecycle.txt"))) {
    SCOPED_TRACE(line);
    for (const auto& [mark, id] : {std::pair{"@VOL@", "vol42"}, std::pair{"@VOL03@", "vol03"}})
      for (size_t at; (at = line.find(mark)) != std::string::npos;) line.replace(at, std::strlen(mark), Volume(id));
    const Args row = Split(line, '|');
    const Result step = live(Args(row.begin() + 2, row.end()));
    EXPECT_EQ(step.status, std::stoi(row[0])) << step.err;
    if (row[0] == "0") EXPECT_EQ(step.out, row[1] + "\n");
    else EXPECT_TRUE(Has(step.err, row[1])) << step.err;
  }
  const std::string dir = testing::TempDir() + "oxcim_snapshot_" + std::to_string(getpid());
  const Result snap = live({"snapshot", dir});
  ASSERT_EQ(snap.status, 0) << snap.err;
  const std::string again = Serve(server, {"--simulator", "--repository", dir, "serve"});
  ASSERT_NE(again, "");
  for (const Args& a : {Args{"names", "CIM_DiskDrive"}, Args{"enumerate", "CIM_StorageVolume"}}) {
    const Result copy = Oxcim(With({"--url", again}, a), {"OXCIM_PASSWORD=secret"});
    EXPECT_EQ(copy.status, 0) << copy.err;
    EXPECT_EQ(copy.out, live(a).out);
  }
  EXPECT_EQ(Interrupt(server), 0);
  std::filesystem::remove_all(dir);

  Child c;
  std::string err, out;
  // A port found free can be taken by a parallel test before the child binds it: try again.
  for (int attempt = 0; attempt < 3 && !Has(err, "subscribed"); ++attempt) {
    if (attempt > 0) Interrupt(c);
    err.clear();
    c = Spawn(With(live.at, {"subscribe", "SELECT * FROM CIM_AlertIndication", "--listen-port",
                             std::to_string(oxtest::FreePort()), "--format", "json"}),
              {"OXCIM_PASSWORD=secret"});
    Drain(c.err, err, 20, [&] { return Has(err, "subscribed"); });
  }
  ASSERT_TRUE(Has(err, "subscribed")) << err;
  const Result raised = live({"invoke", kSystem, "RaiseAlert", "Message=fan & PSU", "PerceivedSeverity=6:uint16"});
  EXPECT_EQ(raised.status, 0) << raised.err;
  ASSERT_TRUE(Drain(c.out, out, 20, [&] { return Has(out, "\n"); })) << out << err;
  ExpectAlert(Lines(out)[0], "Description", "fan & PSU");
  EXPECT_EQ(Interrupt(c), 0);
  for (const char* cls : {"CIM_IndicationSubscription", "CIM_IndicationFilter", "CIM_ListenerDestinationCIMXML"}) {
    const Result left = live({"-n", "root/interop", "names", cls});
    EXPECT_EQ(left.status, 0) << left.err;
    EXPECT_EQ(left.out, "") << cls;
  }
}

}  // namespace
