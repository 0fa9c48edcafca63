// The command-line client, run as a child process against the simulator and against the
// scripted server, which shows the requests on the wire.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "CimServer.h"
#include "TestSupport.h"

extern char** environ;

namespace {

using nlohmann::json;
using Args = std::vector<std::string>;

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
  std::vector<std::string> envText;
  for (char** e = environ; *e; ++e)
    if (std::strncmp(*e, "OXCIM_", 6) != 0) envText.push_back(*e);
  envText.insert(envText.end(), env.begin(), env.end());
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

// Reads what is there until the stream ends or the deadline passes; false on the deadline.
bool Drain(int fd, std::string& into, std::chrono::steady_clock::time_point deadline,
           const std::function<bool()>& enough = nullptr) {
  for (;;) {
    if (enough && enough()) return true;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
    char buf[8192];
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n <= 0) return true;
    into.append(buf, static_cast<size_t>(n));
  }
}

struct Result {
  int status = -1;
  std::string out, err;
};

int Reap(pid_t pid, bool finished) {
  if (!finished) kill(pid, SIGKILL);
  int w = 0;
  waitpid(pid, &w, 0);
  return finished && WIFEXITED(w) ? WEXITSTATUS(w) : -1;
}

Result Oxcim(const Args& args, const Args& env = {}) {
  Result r;
  Child c = Spawn(args, env);
  if (c.pid < 0) return r;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  bool ok = Drain(c.err, r.err, deadline);  // stderr is small: read it first, then stdout
  ok = Drain(c.out, r.out, deadline) && ok;
  close(c.out);
  close(c.err);
  r.status = Reap(c.pid, ok);
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

json Parsed(const Result& r) {
  json j = json::parse(r.out, nullptr, false);
  EXPECT_FALSE(j.is_discarded()) << r.out;
  return j;
}

const Args kSim = {"--simulator"};
Args Sim(Args more) {
  more.insert(more.begin(), "--simulator");
  return more;
}

// --- reading: every command in every format ----------------------------------------

TEST(ToolRead, EveryFormatOfEveryReadCommand) {
  struct Case {
    Args args;
    const char* method;  // the operation in the raw answer
    std::function<void(const Result&)> text;
    std::function<void(const json&)> js;
  };
  const Case cases[] = {
      {{"namespaces"}, "EnumerateInstances",
       [](const Result& r) { EXPECT_EQ(r.out, "root/cimv2\nroot/interop\n"); },
       [](const json& j) { EXPECT_EQ(j, json({"root/cimv2", "root/interop"})); }},
      {{"classes"}, "EnumerateClassNames",
       [](const Result& r) {
         EXPECT_EQ(Lines(r.out), (Args{"CIM_ComputerSystem", "CIM_StorageVolume", "CIM_DiskDrive"}));
       },
       [](const json& j) { EXPECT_EQ(j.size(), 3u); }},
      {{"get-class", "CIM_StorageVolume"}, "GetClass",
       [](const Result& r) {
         EXPECT_EQ(Lines(r.out)[0], "class CIM_StorageVolume : CIM_StorageExtent {");
         EXPECT_TRUE(Has(r.out, "    [Key] string DeviceID;\n")) << r.out;
         EXPECT_TRUE(Has(r.out, "    uint16 OperationalStatus[];\n")) << r.out;
         EXPECT_TRUE(Has(r.out, "    uint32 RequestStateChange([IN] uint16 RequestedState, "
                                "[IN, OUT] CIM_ConcreteJob REF Job, [IN] datetime TimeoutPeriod);"))
             << r.out;
       },
       [](const json& j) {
         std::vector<std::string> keys;
         for (const json& p : j["properties"])
           if (p["key"].get<bool>()) keys.push_back(p["name"]);
         EXPECT_EQ(keys, (Args{"SystemCreationClassName", "SystemName", "CreationClassName",
                               "DeviceID"}));
         EXPECT_EQ(j["methods"][0]["parameters"][1],
                   json({{"name", "Job"}, {"type", "reference"}, {"array", false}, {"in", true},
                         {"out", true}, {"referenceclass", "CIM_ConcreteJob"}}));
       }},
      {{"enumerate", "CIM_StorageVolume"}, "EnumerateInstances",
       [](const Result& r) {
         EXPECT_EQ(Lines(r.out).back(), "// 12 instances");
         EXPECT_TRUE(Has(r.out, "    ElementName = \"scratch\";\n"
                                "    Name = \"600A0B80002A6F2C000000075E8F1C42\";\n"))
             << r.out;
         EXPECT_TRUE(Has(r.out, "    OperationalStatus = {3, 32768};\n")) << r.out;
       },
       [](const json& j) {
         ASSERT_EQ(j.size(), 12u);
         for (const json& i : j)  // the names and the instances come from different lists
           EXPECT_EQ(i["path"]["keybindings"]["DeviceID"], i["properties"]["DeviceID"]["value"]);
         const json& vol07 = j[6]["properties"];
         EXPECT_EQ(vol07["OperationalStatus"],
                   json({{"type", "uint16"}, {"array", true}, {"value", {3, 32768}}}));
         EXPECT_EQ(vol07["NumberOfBlocks"]["value"], 134217728u);
         EXPECT_EQ(vol07["Primordial"]["value"], false);
       }},
      {{"names", "CIM_DiskDrive"}, "EnumerateInstanceNames",
       [](const Result& r) {
         ASSERT_EQ(Lines(r.out).size(), 4u);
         EXPECT_TRUE(Has(Lines(r.out)[3], ",DeviceID=\"disk0.3\"")) << r.out;
       },
       [](const json& j) { EXPECT_EQ(j[3]["keybindings"]["DeviceID"], "disk0.3"); }},
      {{"get-instance", "CIM_StorageVolume", "DeviceID=vol03"}, "GetInstance",
       [](const Result& r) {
         EXPECT_EQ(Lines(r.out)[0], "// CIM_StorageVolume.DeviceID=\"vol03\"");
         EXPECT_EQ(Lines(r.out)[1], "instance of CIM_StorageVolume {");
         EXPECT_TRUE(Has(r.out, "    NumberOfBlocks = 4294967296;\n")) << r.out;
       },
       [](const json& j) {
         EXPECT_EQ(j["properties"]["NumberOfBlocks"]["value"], 4294967296u);
         EXPECT_EQ(j["path"]["keybindings"], json({{"DeviceID", "vol03"}}));
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args[0]);
    const Result text = Oxcim(Sim(c.args));
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_EQ(text.err, "");
    c.text(text);
    Args a = Sim(c.args);
    a.insert(a.end(), {"--format", "json"});
    const Result js = Oxcim(a);
    EXPECT_EQ(js.status, 0) << js.err;
    c.js(Parsed(js));
    a.back() = "xml";
    const Result xml = Oxcim(a);
    EXPECT_EQ(xml.status, 0) << xml.err;
    EXPECT_EQ(xml.out.rfind("<?xml", 0), 0u) << xml.out;
    EXPECT_TRUE(Has(xml.out, std::string("<IMETHODRESPONSE NAME=\"") + c.method + "\""));
  }
}

// What names prints is a path that get-instance takes back.
TEST(ToolRead, NamesRoundTripThroughGetInstance) {
  const Result names = Oxcim(Sim({"names", "CIM_StorageVolume"}));
  ASSERT_EQ(names.status, 0) << names.err;
  const auto paths = Lines(names.out);
  ASSERT_EQ(paths.size(), 12u);
  for (const std::string& p : {paths[0], paths[11]}) {
    const Result r = Oxcim(Sim({"get-instance", p, "--format", "json"}));
    ASSERT_EQ(r.status, 0) << p << r.err;
    EXPECT_EQ(Parsed(r)["path"]["path"], p);
  }
}

// --- writes and the other operations, as they go on the wire -------------------------

std::string Answer(const std::string& method, const std::string& inside) {
  return "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n<CIM CIMVERSION=\"2.0\" "
         "DTDVERSION=\"2.0\"><MESSAGE ID=\"1\" PROTOCOLVERSION=\"1.0\"><SIMPLERSP>"
         "<IMETHODRESPONSE NAME=\"" + method + "\">" + inside +
         "</IMETHODRESPONSE></SIMPLERSP></MESSAGE></CIM>\n";
}

Args At(const oxsim::ScriptedServer& srv, Args more) {
  Args a = {"--url", "http://ops@127.0.0.1:" + std::to_string(srv.port()) + "/root/store"};
  a.insert(a.end(), more.begin(), more.end());
  return a;
}
const Args kPw = {"OXCIM_PASSWORD=pw"};

TEST(ToolWrite, RequestsOnTheWireAndWhatIsPrinted) {
  const std::string classFile = testing::TempDir() + "oxcim_class.xml";
  std::ofstream(classFile) << "<?xml version=\"1.0\" ?>\n<CIM CIMVERSION=\"2.0\" DTDVERSION=\"2.0\">"
                              "<CLASS NAME=\"ACME_Shelf\" SUPERCLASS=\"CIM_Chassis\">"
                              "<PROPERTY NAME=\"Slots\" TYPE=\"uint8\"/></CLASS></CIM>\n";
  const std::string vol = "ACME_Vol.Id=\"v<1>\",Pool=3";
  const std::string name =
      "<INSTANCENAME CLASSNAME=\"ACME_Vol\"><KEYBINDING NAME=\"Id\"><KEYVALUE VALUETYPE=\"string\">"
      "v&lt;1&gt;</KEYVALUE></KEYBINDING></INSTANCENAME>";
  struct Case {
    Args args;
    std::string method, answer;
    std::vector<std::string> sent;  // parts of the request body
    std::string printed;
  };
  const Case cases[] = {
      {{"create-instance", "ACME_Vol", "Id=v<1>", "Size=5:uint64", "Levels=1,5:uint16[]",
        "Thin=true:boolean", "Temp=-4:sint32", "Pool=ACME_Pool.Id=\"p1\":reference"},
       "CreateInstance",
       Answer("CreateInstance", "<IRETURNVALUE>" + name + "</IRETURNVALUE>"),
       {"<INSTANCE CLASSNAME=\"ACME_Vol\">", "<PROPERTY NAME=\"Id\" TYPE=\"string\">\n<VALUE>v&lt;1&gt;</VALUE>",
        "<PROPERTY NAME=\"Size\" TYPE=\"uint64\">\n<VALUE>5</VALUE>",
        "<PROPERTY.ARRAY NAME=\"Levels\" TYPE=\"uint16\">\n<VALUE.ARRAY>\n<VALUE>1</VALUE>\n<VALUE>5</VALUE>",
        "<VALUE>true</VALUE>", "<VALUE>-4</VALUE>",
        "<PROPERTY.REFERENCE NAME=\"Pool\" REFERENCECLASS=\"ACME_Pool\">\n<VALUE.REFERENCE>\n"
        "<INSTANCENAME CLASSNAME=\"ACME_Pool\">"},
       "ACME_Vol.Id=\"v<1>\"\n"},
      {{"modify-instance", vol, "Size=7:uint64", "Label=a,b"},
       "ModifyInstance", Answer("ModifyInstance", ""),
       {"<IPARAMVALUE NAME=\"PropertyList\">", "<VALUE>Size</VALUE>", "<VALUE>Label</VALUE>",
        "<KEYVALUE VALUETYPE=\"string\">v&lt;1&gt;</KEYVALUE>",
        "<KEYVALUE VALUETYPE=\"numeric\">3</KEYVALUE>",
        "<PROPERTY NAME=\"Label\" TYPE=\"string\">\n<VALUE>a,b</VALUE>"},
       "modified " + vol + "\n"},
      {{"modify-instance", "--standard-layout", vol, "Size=8:uint64"},
       "ModifyInstance", Answer("ModifyInstance", ""),
       {"<IPARAMVALUE NAME=\"ModifiedInstance\">\n<VALUE.NAMEDINSTANCE>\n<INSTANCENAME"},
       "modified " + vol + "\n"},
      {{"delete-instance", vol}, "DeleteInstance", Answer("DeleteInstance", ""),
       {"<IPARAMVALUE NAME=\"InstanceName\">", "<KEYBINDING NAME=\"Pool\">"},
       "deleted " + vol + "\n"},
      {{"get-property", vol, "Label"}, "GetProperty",
       Answer("GetProperty", "<IRETURNVALUE><VALUE>x &amp; y</VALUE></IRETURNVALUE>"),
       {"<IPARAMVALUE NAME=\"PropertyName\">\n<VALUE>Label</VALUE>"},
       "Label = \"x & y\"\n"},
      {{"set-property", vol, "Label", "fast & thin"}, "SetProperty", Answer("SetProperty", ""),
       {"<IPARAMVALUE NAME=\"NewValue\">\n<VALUE>fast &amp; thin</VALUE>"},
       "set Label of " + vol + "\n"},
      {{"query", "SELECT * FROM ACME_Vol", "--language", "CQL"}, "ExecQuery",
       Answer("ExecQuery", "<IRETURNVALUE><VALUE.OBJECTWITHPATH><INSTANCEPATH><NAMESPACEPATH>"
                           "<HOST>stor01</HOST><LOCALNAMESPACEPATH><NAMESPACE NAME=\"root\"/>"
                           "<NAMESPACE NAME=\"store\"/></LOCALNAMESPACEPATH></NAMESPACEPATH>" +
                               name +
                               "</INSTANCEPATH><INSTANCE CLASSNAME=\"ACME_Vol\"><PROPERTY "
                               "NAME=\"Size\" TYPE=\"uint64\"><VALUE>7</VALUE></PROPERTY>"
                               "</INSTANCE></VALUE.OBJECTWITHPATH></IRETURNVALUE>"),
       {"<VALUE>CQL</VALUE>", "<VALUE>select * from ACME_Vol</VALUE>"},
       "// //stor01/root/store:ACME_Vol.Id=\"v<1>\"\ninstance of ACME_Vol {\n    Size = 7;\n};\n\n"
       "// 1 instance\n"},
      {{"create-class", classFile}, "CreateClass", Answer("CreateClass", ""),
       {"<IPARAMVALUE NAME=\"NewClass\">\n<CLASS NAME=\"ACME_Shelf\" SUPERCLASS=\"CIM_Chassis\">\n"
        "<PROPERTY NAME=\"Slots\" TYPE=\"uint8\"/>\n</CLASS>\n</IPARAMVALUE>"},
       "created class ACME_Shelf\n"},
      {{"modify-class", classFile}, "ModifyClass", Answer("ModifyClass", ""),
       {"<IPARAMVALUE NAME=\"ModifiedClass\">\n<CLASS NAME=\"ACME_Shelf\""},
       "modified class ACME_Shelf\n"},
      {{"delete-class", "ACME_Shelf"}, "DeleteClass", Answer("DeleteClass", ""),
       {"<CLASSNAME NAME=\"ACME_Shelf\"/>"}, "deleted class ACME_Shelf\n"},
      {{"classes", "--full", "--deep", "CIM_Chassis"}, "EnumerateClasses",
       Answer("EnumerateClasses", "<IRETURNVALUE><CLASS NAME=\"ACME_Shelf\"><PROPERTY NAME=\"Slots\" "
                                  "TYPE=\"uint8\"><VALUE>12</VALUE></PROPERTY></CLASS></IRETURNVALUE>"),
       {"<IPARAMVALUE NAME=\"DeepInheritance\"><VALUE>true</VALUE>",
        "<IPARAMVALUE NAME=\"ClassName\"><CLASSNAME NAME=\"CIM_Chassis\"/>"},
       "class ACME_Shelf {\n    uint8 Slots = 12;\n};\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args[0]);
    oxsim::ScriptedServer srv;
    srv.setDefault(oxsim::CannedResponse::cimOk(c.answer));
    const Result r = Oxcim(At(srv, c.args), kPw);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, c.printed);
    const auto reqs = srv.requests();
    ASSERT_EQ(reqs.size(), 1u);
    EXPECT_EQ(reqs[0].header("CIMMethod"), c.method);
    EXPECT_EQ(reqs[0].header("CIMObject"), "root%2Fstore");
    EXPECT_EQ(reqs[0].header("Authorization"), "Basic b3BzOnB3");  // ops:pw
    for (const std::string& part : c.sent) EXPECT_TRUE(Has(reqs[0].body, part)) << part << "\n" << reqs[0].body;

    // The same in JSON: one document, with the operation named for the status operations.
    Args a = At(srv, c.args);
    a.insert(a.end(), {"--format", "json"});
    const json j = Parsed(Oxcim(a, kPw));
    if (j.is_object() && j.contains("operation")) {
      EXPECT_EQ(j["operation"], c.method);
    }
  }
}

TEST(ToolWrite, TypedJsonOfNewPathsAndQueries) {
  oxsim::ScriptedServer srv;
  srv.push(oxsim::CannedResponse::cimOk(Answer(
      "CreateInstance", "<IRETURNVALUE><INSTANCENAME CLASSNAME=\"ACME_Vol\"><KEYBINDING NAME=\"Id\">"
                        "<KEYVALUE VALUETYPE=\"numeric\">-17</KEYVALUE></KEYBINDING><KEYBINDING "
                        "NAME=\"On\"><KEYVALUE VALUETYPE=\"boolean\">true</KEYVALUE></KEYBINDING>"
                        "</INSTANCENAME></IRETURNVALUE>")));
  const json made = Parsed(Oxcim(At(srv, {"--format", "json", "create-instance", "ACME_Vol", "Id=-17:sint32"}), kPw));
  EXPECT_EQ(made["keybindings"], json({{"Id", -17}, {"On", true}}));
  EXPECT_EQ(made["path"], "ACME_Vol.Id=-17,On=true");
}

TEST(ToolWrite, InvokePrintsTheReturnValueAndOutputParameters) {
  oxsim::ScriptedServer srv;
  srv.setDefault(oxsim::CannedResponse::cimOk(
      "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n<CIM CIMVERSION=\"2.0\" DTDVERSION=\"2.0\">"
      "<MESSAGE ID=\"1\" PROTOCOLVERSION=\"1.0\"><SIMPLERSP><METHODRESPONSE "
      "NAME=\"RequestStateChange\"><RETURNVALUE PARAMTYPE=\"uint32\"><VALUE>4096</VALUE>"
      "</RETURNVALUE><PARAMVALUE NAME=\"Job\" PARAMTYPE=\"reference\"><VALUE.REFERENCE>"
      "<INSTANCENAME CLASSNAME=\"CIM_ConcreteJob\"><KEYBINDING NAME=\"InstanceID\"><KEYVALUE "
      "VALUETYPE=\"string\">job-1</KEYVALUE></KEYBINDING></INSTANCENAME></VALUE.REFERENCE>"
      "</PARAMVALUE><PARAMVALUE NAME=\"Codes\" PARAMTYPE=\"uint16\"><VALUE.ARRAY><VALUE>1"
      "</VALUE><VALUE>2</VALUE></VALUE.ARRAY></PARAMVALUE></METHODRESPONSE></SIMPLERSP>"
      "</MESSAGE></CIM>\n"));
  const Args call = {"invoke", "ACME_Vol.Id=v1", "RequestStateChange", "RequestedState=3:uint16",
                     "Owner=ACME_Pool.Id=\"p1\":reference"};
  const Result text = Oxcim(At(srv, call), kPw);
  EXPECT_EQ(text.status, 0) << text.err;
  EXPECT_EQ(text.out, "ReturnValue = 4096;\nJob = \"CIM_ConcreteJob.InstanceID=\\\"job-1\\\"\";\n"
                      "Codes = {1, 2};\n");
  Args a = At(srv, call);
  a.insert(a.end(), {"--format", "json"});
  const json j = Parsed(Oxcim(a, kPw));
  EXPECT_EQ(j["returnvalue"], json({{"type", "uint32"}, {"value", 4096}}));
  EXPECT_EQ(j["out"]["Job"]["value"]["keybindings"]["InstanceID"], "job-1");
  EXPECT_EQ(j["out"]["Codes"]["value"], json({1, 2}));

  const auto reqs = srv.requests();
  ASSERT_EQ(reqs.size(), 2u);
  EXPECT_EQ(reqs[0].header("CIMMethod"), "RequestStateChange");
  for (const char* part :
       {"<METHODCALL NAME=\"RequestStateChange\">", "<KEYVALUE VALUETYPE=\"string\">v1</KEYVALUE>",
        "<PARAMVALUE NAME=\"RequestedState\" PARAMTYPE=\"uint16\">\n<VALUE>3</VALUE>",
        "<PARAMVALUE NAME=\"Owner\" PARAMTYPE=\"reference\">\n<VALUE.REFERENCE>\n"
        "<INSTANCENAME CLASSNAME=\"ACME_Pool\">"})
    EXPECT_TRUE(Has(reqs[0].body, part)) << part << "\n" << reqs[0].body;

  // A class-level call names no instance.
  const Result onClass = Oxcim(At(srv, {"invoke", "ACME_Vol", "RequestStateChange"}), kPw);
  EXPECT_EQ(onClass.status, 0) << onClass.err;
  EXPECT_FALSE(Has(srv.requests().back().body, "INSTANCENAME CLASSNAME=\"ACME_Vol\""));
}

// --- refusals before anything is sent ----------------------------------------------

TEST(ToolUsage, BadCommandLinesPrintTheCommandsUsage) {
  const std::string file = testing::TempDir() + "oxcim_noclass.xml";
  std::ofstream(file) << "<?xml version=\"1.0\" ?>\n<CIM CIMVERSION=\"2.0\" DTDVERSION=\"2.0\">"
                         "<INSTANCE CLASSNAME=\"X\"/></CIM>\n";
  struct Case {
    Args args;
    int status;
    std::string says, usage;
  };
  const Case cases[] = {
      {{}, 2, "A subcommand is required", "Usage: oxcim [OPTIONS] SUBCOMMAND"},
      {{"frobnicate"}, 2, "frobnicate", "Usage: oxcim [OPTIONS] SUBCOMMAND"},
      {{"get-class"}, 2, "CLASS is required", "Usage: oxcim get-class"},
      {{"get-instance", "CIM_X", "vol03"}, 2, "expected KEY=VALUE: vol03", "Usage: oxcim get-instance"},
      {{"get-instance", "CIM_X.Id=\"open"}, 2, "unterminated quote", "Usage: oxcim get-instance"},
      {{"create-instance", "CIM_X", "Size=big:uint32"}, 2, "not a uint32: big",
       "Usage: oxcim create-instance"},
      {{"create-instance", "CIM_X", "Small=256:uint8"}, 2, "not a uint8: 256", ""},
      {{"create-instance", "CIM_X", "Tags=a,b:string[]"}, 2, "cannot send string arrays", ""},
      {{"create-instance", "CIM_X", "At=20261123:datetime"}, 2, "cannot send datetime", ""},
      {{"query", "select Name from CIM_X"}, 2, "only \"select * from CLASS\"", "Usage: oxcim query"},
      {{"--format", "yaml", "namespaces"}, 2, "yaml", ""},
      {{"--trace", "0xZZ", "namespaces"}, 2, "bad trace mask", ""},
      {{"--url", "ftp://host", "namespaces"}, 2, "bad URL", ""},
      {{"--url", "http://u:pw@host", "namespaces"}, 2, "no password in the URL", ""},
      {{"--url", "http://host:99999", "namespaces"}, 2, "bad host or port", ""},
      {{"listen", "0"}, 2, "PORT", "Usage: oxcim listen"},
      {{"serve"}, 2, "give --simulator", "Usage: oxcim serve"},
      {{"create-class", file}, 3, "no CLASS element", ""},
      {{"create-class", testing::TempDir() + "nowhere.xml"}, 3, "cannot read", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args.empty() ? "(none)" : c.args.back());
    Args a = c.args;
    if (a.empty() || (a[0] != "--url" && a[0] != "serve" && a[0] != "listen")) a.insert(a.begin(), "--simulator");
    const Result r = Oxcim(a);
    EXPECT_EQ(r.status, c.status) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.rfind("oxcim: ", 0), 0u) << r.err;
    EXPECT_TRUE(Has(Lines(r.err)[0], c.says)) << r.err;
    EXPECT_TRUE(Has(r.err, c.usage)) << r.err;
  }
}

TEST(ToolUsage, EveryCommandHasHelp) {
  const Result top = Oxcim({"--help"});
  EXPECT_EQ(top.status, 0);
  for (const char* cmd :
       {"namespaces", "classes", "get-class", "create-class", "modify-class", "delete-class",
        "enumerate", "names", "get-instance", "create-instance", "modify-instance",
        "delete-instance", "get-property", "set-property", "query", "invoke", "subscribe",
        "listen", "serve"}) {
    EXPECT_TRUE(Has(top.out, std::string("  ") + cmd + " ")) << cmd;
    const Result r = Oxcim({cmd, "--help"});
    EXPECT_EQ(r.status, 0) << cmd;
    EXPECT_TRUE(Has(r.out, std::string("Usage: oxcim ") + cmd)) << r.out;
  }
}

// --- failures: one line, the status in words and number -----------------------------

TEST(ToolFailures, OneLineNamingWhatWentWrong) {
  oxsim::ScriptedServer http500, silent;
  http500.setDefault(oxsim::CannedResponse::http(500, "Internal Server Error"));
  silent.setDefault(oxsim::CannedResponse::closeWithoutReply());
  const std::string refused = "127.0.0.1:" + std::to_string(oxtest::FreePort());
  struct Case {
    Args args, env;
    std::string line;
  };
  const Case cases[] = {
      {{"--url", "http://ops@" + refused, "namespaces"}, kPw,
       "oxcim: cannot connect to " + refused + " (curl 7)"},
      {Sim({"namespaces"}), {"OXCIM_PASSWORD=wrong"},
       "user name or password refused (HTTP 401) (curl 22)"},
      {Sim({"get-instance", "CIM_StorageVolume.DeviceID=vol99"}), {},
       "oxcim: CIM_ERR_NOT_FOUND (6): no such instance of CIM_StorageVolume"},
      {Sim({"-n", "root/nowhere", "classes"}), {},
       "oxcim: CIM_ERR_INVALID_NAMESPACE (3): root/nowhere"},
      {At(http500, {"namespaces"}), kPw, "answered HTTP/1.1 500 Internal Server Error (curl 22)"},
      {At(silent, {"names", "X"}), kPw, "closed the connection without an answer (curl 52)"},
      {{"--url", "http://127.0.0.1:" + std::to_string(silent.port()), "namespaces"}, {},
       "oxcim: no user name or password for 127.0.0.1:" + std::to_string(silent.port()) + " (5000)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    const Result r = Oxcim(c.args, c.env);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    ASSERT_EQ(Lines(r.err).size(), 1u) << r.err;
    EXPECT_TRUE(Has(r.err, c.line)) << r.err;
  }
}

TEST(ToolFailures, TimeoutBoundsTheWholeRun) {
  oxsim::ScriptedServer srv;
  srv.setDefault(oxsim::CannedResponse::neverAnswer());
  const auto start = std::chrono::steady_clock::now();
  const Result r = Oxcim(At(srv, {"--timeout", "5", "namespaces"}), kPw);
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(Has(r.err, "no answer from 127.0.0.1:" + std::to_string(srv.port()) + " within 5 seconds")) << r.err;
  EXPECT_LT(took, std::chrono::seconds(8));
}

// --- targets ------------------------------------------------------------------------

TEST(ToolTarget, UrlFromTheEnvironmentAndOptionsOverIt) {
  oxsim::ScriptedServer srv;
  srv.setDefault(oxsim::CannedResponse::cimOk(Answer("EnumerateClassNames", "<IRETURNVALUE/>")));
  const std::string url = "OXCIM_URL=http://alice@127.0.0.1:" + std::to_string(srv.port()) + "/vendor/x";
  EXPECT_EQ(Oxcim({"classes"}, {url, "OXCIM_PASSWORD=s3"}).status, 0);
  EXPECT_EQ(Oxcim({"--user", "bob", "-n", "interop", "classes"}, {url, "OXCIM_PASSWORD=s3"}).status, 0);
  const auto reqs = srv.requests();
  ASSERT_EQ(reqs.size(), 2u);
  EXPECT_EQ(reqs[0].header("Authorization"), "Basic YWxpY2U6czM=");  // alice:s3
  EXPECT_EQ(reqs[0].header("CIMObject"), "vendor%2Fx");
  EXPECT_EQ(reqs[1].header("Authorization"), "Basic Ym9iOnMz");  // bob:s3
  EXPECT_EQ(reqs[1].header("CIMObject"), "interop");
}

TEST(ToolTarget, HttpsVerifiesTheServerAndSendsTheClientCertificate) {
  oxsim::TestPki pki;
  oxsim::ScriptedServer::Options tls;
  tls.tls = &pki;
  tls.requireClientCert = true;
  oxsim::ScriptedServer srv(tls);
  srv.setDefault(oxsim::CannedResponse::cimOk(Answer("EnumerateClassNames",
                                                      "<IRETURNVALUE><CLASSNAME NAME=\"A\"/></IRETURNVALUE>")));
  const std::string url = "https://ops@127.0.0.1:" + std::to_string(srv.port());
  const Args client = {"--cert", pki.clientCert, "--key", pki.clientKey};
  struct Case {
    Args args;
    int status;
    std::string says;
  };
  const Case cases[] = {
      {{"--cafile", pki.caFile}, 0, ""},
      {{"--cafile", pki.otherCaFile}, 1, "(curl 60)"},  // verified by default
      {{"--cafile", pki.otherCaFile, "--insecure"}, 0, ""},
  };
  for (const Case& c : cases) {
    Args a = {"--url", url, "classes"};
    a.insert(a.end(), c.args.begin(), c.args.end());
    a.insert(a.end(), client.begin(), client.end());
    const Result r = Oxcim(a, kPw);
    EXPECT_EQ(r.status, c.status) << r.err;
    EXPECT_EQ(r.out, c.status == 0 ? "A\n" : "");
    EXPECT_TRUE(Has(r.err, c.says)) << r.err;
  }
  // Without the client certificate the server ends the handshake.
  const Result anonymous = Oxcim({"--url", url, "--cafile", pki.caFile, "classes"}, kPw);
  EXPECT_EQ(anonymous.status, 1);
  EXPECT_EQ(Lines(anonymous.err).size(), 1u) << anonymous.err;
}

// --- long-running commands ----------------------------------------------------------

// Reads from the child's stream until `done` holds, within the time limit.
bool ReadUntil(int fd, std::string& into, const std::function<bool()>& done, int seconds = 20) {
  return Drain(fd, into, std::chrono::steady_clock::now() + std::chrono::seconds(seconds), done) &&
         done();
}

int Interrupt(Child& c) {
  kill(c.pid, SIGINT);
  std::string rest;
  const bool ended = Drain(c.out, rest, std::chrono::steady_clock::now() + std::chrono::seconds(10));
  close(c.out);
  close(c.err);
  return Reap(c.pid, ended);
}

std::string Indication(const std::string& message) {
  return "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n<CIM CIMVERSION=\"2.0\" DTDVERSION=\"2.0\">"
         "<MESSAGE ID=\"42\" PROTOCOLVERSION=\"1.0\"><SIMPLEEXPREQ><EXPMETHODCALL "
         "NAME=\"ExportIndication\"><EXPPARAMVALUE NAME=\"NewIndication\"><INSTANCE "
         "CLASSNAME=\"CIM_AlertIndication\"><PROPERTY NAME=\"Message\" TYPE=\"string\"><VALUE>" +
         message +
         "</VALUE></PROPERTY><PROPERTY NAME=\"PerceivedSeverity\" TYPE=\"uint16\"><VALUE>6"
         "</VALUE></PROPERTY></INSTANCE></EXPPARAMVALUE></EXPMETHODCALL></SIMPLEEXPREQ></MESSAGE>"
         "</CIM>\n";
}

std::string Post(int port, const std::string& body) {
  return oxtest::RawExchange(port, "POST /cimlistener HTTP/1.1\r\nContent-Type: application/xml\r\n"
                                   "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
}

TEST(ToolIndications, ListenPrintsEachIndicationUntilInterrupted) {
  const int port = oxtest::FreePort();
  Child c = Spawn({"listen", std::to_string(port), "--format", "json"}, {});
  ASSERT_GT(c.pid, 0);
  std::string err, out;
  ASSERT_TRUE(ReadUntil(c.err, err, [&] { return Has(err, "listening"); })) << err;
  for (int n = 0; n < 2; ++n) EXPECT_EQ(Post(port, Indication("disk &amp; shelf")).rfind("HTTP/1.1 200", 0), 0u);
  ASSERT_TRUE(ReadUntil(c.out, out, [&] { return Lines(out).size() >= 2; })) << out;
  for (const std::string& line : Lines(out)) {
    const json j = json::parse(line);
    EXPECT_EQ(j["indication"]["classname"], "CIM_AlertIndication");
    EXPECT_EQ(j["indication"]["properties"]["Message"]["value"], "disk & shelf");
    EXPECT_EQ(j["indication"]["properties"]["PerceivedSeverity"]["value"], 6);
  }
  EXPECT_EQ(Interrupt(c), 0);

  // A port that is taken is a set-up failure.
  oxsim::ScriptedServer busy;
  const Result taken = Oxcim({"listen", std::to_string(busy.port())});
  EXPECT_EQ(taken.status, 3);
  EXPECT_TRUE(Has(taken.err, "cannot listen on port")) << taken.err;
}

// The server side of a subscription as canned answers; the indication is sent by hand.
TEST(ToolIndications, SubscribeUntilInterruptedThenUnsubscribe) {
  oxsim::ScriptedServer srv;
  srv.setDefault(oxsim::CannedResponse::cimOk(Answer(
      "CreateInstance", "<IRETURNVALUE><INSTANCENAME CLASSNAME=\"CIM_Made\"><KEYBINDING NAME=\"Name\">"
                        "<KEYVALUE VALUETYPE=\"string\">m1</KEYVALUE></KEYBINDING></INSTANCENAME>"
                        "</IRETURNVALUE>")));
  // A port found free can be taken by a parallel test before the child binds it: try again.
  int port = 0;
  Child c;
  std::string err, out;
  for (int attempt = 0; attempt < 3; ++attempt) {
    port = oxtest::FreePort();
    srv.clearRequests();
    err.clear();
    c = Spawn(At(srv, {"subscribe", "SELECT * FROM CIM_AlertIndication", "--listen-port",
                       std::to_string(port), "--format", "json"}),
              kPw);
    if (ReadUntil(c.err, err, [&] { return Has(err, "subscribed"); })) break;
    Interrupt(c);
  }
  ASSERT_TRUE(Has(err, "subscribed")) << err;
  const auto made = srv.requests();
  ASSERT_EQ(made.size(), 3u);
  std::string created;
  for (const auto& r : made) created += r.body;
  EXPECT_TRUE(Has(created, "SELECT * FROM CIM_AlertIndication")) << created;
  EXPECT_TRUE(Has(created, "http://127.0.0.1:" + std::to_string(port))) << created;

  EXPECT_EQ(Post(port, Indication("fan &amp; PSU")).rfind("HTTP/1.1 200", 0), 0u);
  ASSERT_TRUE(ReadUntil(c.out, out, [&] { return Has(out, "\n"); })) << out;
  const json j = json::parse(Lines(out)[0]);
  EXPECT_EQ(j["indication"]["properties"]["Message"]["value"], "fan & PSU");
  EXPECT_EQ(j["indication"]["properties"]["PerceivedSeverity"]["value"], 6);

  EXPECT_EQ(Interrupt(c), 0);
  const auto all = srv.requests();
  ASSERT_EQ(all.size(), 6u);
  for (size_t n = 3; n < all.size(); ++n) EXPECT_EQ(all[n].header("CIMMethod"), "DeleteInstance");
}

// The simulator on its own serves other clients, reached by URL.
TEST(ToolIndications, ServeRunsTheSimulatorForOtherClients) {
  Child server = Spawn({"--simulator", "serve"}, {});
  std::string out;
  ASSERT_TRUE(ReadUntil(server.out, out, [&] { return Has(out, "\n"); })) << out;
  int port = 0;
  ASSERT_EQ(std::sscanf(out.c_str(), "listening on 127.0.0.1 port %d", &port), 1) << out;
  const Result r = Oxcim({"--url", "http://admin@127.0.0.1:" + std::to_string(port), "names",
                          "CIM_ComputerSystem"},
                         {"OXCIM_PASSWORD=secret"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "CIM_ComputerSystem.CreationClassName=\"CIM_ComputerSystem\",Name=\"SN-4C3A0012\"\n");
  EXPECT_EQ(Interrupt(server), 0);
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
  Result operator()(Args more) const {
    Args a = at;
    a.insert(a.end(), more.begin(), more.end());
    return Oxcim(a, {"OXCIM_PASSWORD=secret"});
  }
};

const std::string kVol =
    "CIM_StorageVolume.SystemCreationClassName=\"CIM_ComputerSystem\",SystemName=\"SN-4C3A0012\","
    "CreationClassName=\"CIM_StorageVolume\",DeviceID=\"vol42\"";

TEST(ToolLive, InstanceLifeCycle) {
  LiveServer live;
  const Result made = live({"create-instance", "CIM_StorageVolume",
                            "SystemCreationClassName=CIM_ComputerSystem", "SystemName=SN-4C3A0012",
                            "CreationClassName=CIM_StorageVolume", "DeviceID=vol42",
                            "ElementName=fresh & new", "BlockSize=4096:uint64",
                            "OperationalStatus=2,32768:uint16[]"});
  ASSERT_EQ(made.status, 0) << made.err;
  EXPECT_EQ(made.out, kVol + "\n");
  struct Step {
    Args args;
    std::string printed;
  };
  const Step steps[] = {
      {{"get-property", kVol, "ElementName"}, "ElementName = \"fresh & new\"\n"},
      {{"modify-instance", kVol, "ElementName=renamed", "BlockSize=512:uint64"}, "modified " + kVol + "\n"},
      {{"get-property", kVol, "BlockSize"}, "BlockSize = 512\n"},
      {{"set-property", kVol, "ElementName", "third"}, "set ElementName of " + kVol + "\n"},
      {{"get-property", kVol, "ElementName"}, "ElementName = \"third\"\n"},
      {{"delete-instance", kVol}, "deleted " + kVol + "\n"},
  };
  for (const Step& s : steps) {
    const Result r = live(s.args);
    EXPECT_EQ(r.status, 0) << s.args[0] << r.err;
    EXPECT_EQ(r.out, s.printed);
  }
  const Result gone = live({"get-instance", kVol});
  EXPECT_EQ(gone.status, 1);
  EXPECT_TRUE(Has(gone.err, "CIM_ERR_NOT_FOUND (6)")) << gone.err;
}

const std::string kSystem =
    "CIM_ComputerSystem.CreationClassName=\"CIM_ComputerSystem\",Name=\"SN-4C3A0012\"";

TEST(ToolLive, InvokeChangesState) {
  LiveServer live;
  const std::string vol03 =
      "CIM_StorageVolume.SystemCreationClassName=\"CIM_ComputerSystem\",SystemName=\"SN-4C3A0012\","
      "CreationClassName=\"CIM_StorageVolume\",DeviceID=\"vol03\"";
  const Result r = live({"invoke", vol03, "RequestStateChange", "RequestedState=3:uint16"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "ReturnValue = 0;\n");
  EXPECT_EQ(live({"get-property", vol03, "OperationalStatus"}).out, "OperationalStatus = {10}\n");
  const Result bad = live({"invoke", vol03, "Explode"});
  EXPECT_EQ(bad.status, 1);
  EXPECT_TRUE(Has(bad.err, "CIM_ERR_METHOD_NOT_FOUND (17)")) << bad.err;
}

// A real subscription: the server delivers to the client's listener, and nothing of the
// subscription is left on the server once the client was interrupted.
TEST(ToolLive, SubscribeReceivesAnIndicationAndUnsubscribes) {
  LiveServer live;
  const int port = oxtest::FreePort();
  Args args = live.at;
  args.insert(args.end(), {"subscribe", "SELECT * FROM CIM_AlertIndication", "--listen-port",
                           std::to_string(port), "--format", "json"});
  Child c = Spawn(args, {"OXCIM_PASSWORD=secret"});
  std::string err, out;
  ASSERT_TRUE(ReadUntil(c.err, err, [&] { return Has(err, "subscribed"); })) << err;
  const Result raised = live({"invoke", kSystem, "RaiseAlert", "Message=fan failed",
                              "PerceivedSeverity=6:uint16"});
  EXPECT_EQ(raised.status, 0) << raised.err;
  ASSERT_TRUE(ReadUntil(c.out, out, [&] { return Has(out, "\n"); })) << out << err;
  const json j = json::parse(Lines(out)[0]);
  EXPECT_EQ(j["indication"]["classname"], "CIM_AlertIndication");
  EXPECT_EQ(j["indication"]["properties"]["Description"]["value"], "fan failed");
  EXPECT_EQ(Interrupt(c), 0);
  for (const char* cls : {"CIM_IndicationSubscription", "CIM_IndicationFilter"}) {
    const Result left = live({"-n", "root/interop", "names", cls});
    EXPECT_EQ(left.status, 0) << left.err;
    EXPECT_EQ(left.out, "") << cls;
  }
}

TEST(ToolLive, SnapshotServedAgain) {
  LiveServer live;
  const std::string dir = testing::TempDir() + "oxcim_snapshot_" + std::to_string(getpid());
  const Result snap = live({"snapshot", dir});
  ASSERT_EQ(snap.status, 0) << snap.err;
  Child server = Spawn({"--simulator", "--repository", dir, "serve"}, {});
  std::string out;
  ASSERT_TRUE(ReadUntil(server.out, out, [&] { return Has(out, "\n"); })) << out;
  int port = 0;
  ASSERT_EQ(std::sscanf(out.c_str(), "listening on 127.0.0.1 port %d", &port), 1) << out;
  const Args again = {"--url", "http://admin@127.0.0.1:" + std::to_string(port)};
  for (const char* cls : {"CIM_DiskDrive", "CIM_StorageVolume"}) {
    Args a = again;
    a.insert(a.end(), {"names", cls});
    const Result copy = Oxcim(a, {"OXCIM_PASSWORD=secret"});
    EXPECT_EQ(copy.status, 0) << copy.err;
    EXPECT_EQ(copy.out, live({"names", cls}).out);
  }
  EXPECT_EQ(Interrupt(server), 0);
  std::filesystem::remove_all(dir);
}

}  // namespace
