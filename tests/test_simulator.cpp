// The simulator's CIM server end to end: real sockets, libcurl and the library's public API.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>

#include "CimServer.h"
#include "SimRepository.h"
#include "Snapshot.h"
#include "TestSupport.h"

namespace {

using oxCIM::CIMcontainer;
using oxCIM::CIMelement;

int Count(const std::string& text, const std::string& what) {
  int n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// The simulator's own credentials, admin:secret.
void Point(CIMcontainer& c, int port, const oxtest::TestPki* pki = nullptr) {
  oxtest::PointAt(c, port, pki ? "https" : "http");
  c.m_User = "admin";
  if (pki) {
    c.m_CAFile = pki->caFile;
    c.m_VerifyPeer = 1;
  }
}

std::unique_ptr<oxsim::CimServer> Serve(const oxtest::TestPki* pki = nullptr,
                                        oxsim::SimRepository repo = oxsim::SimRepository::BuiltIn(),
                                        oxsim::CimServerOptions o = {}) {
  if (pki) {
    o.http.certFile = pki->serverCert;
    o.http.keyFile = pki->serverKey;
  }
  o.deliveryRetryMs = 50;
  auto s = std::make_unique<oxsim::CimServer>(o, std::move(repo));
  std::string error;
  EXPECT_TRUE(s->start(error)) << error;
  return s;
}

using K = CIMcontainer&;
// k, with its current class (and namespace) set first.
K In(K k, const char* cls, const char* ns = "") {
  k.setCurrentClass(cls, ns);
  return k;
}
unsigned long GetClass(K k) { return k.Imethod_GetClass(-1, -1, -1, nullptr); }

// The instance name of a volume or disk as the server lists it (owned by c's class list).
CIMelement* NameOf(CIMcontainer& c, const char* cls, const char* id) {
  if (In(c, cls, "root/cimv2").Imethod_EnumerateInstanceNames() == 0) return nullptr;
  return c.m_pcls->m_InstanceNames->findInstanceName("DeviceID", id);
}

// CIM-XML fragments parsed; element() is the n-th top-level element of that kind.
struct Tree {
  CIMelement root;
  explicit Tree(const std::string& xml) {
    const std::string doc = "<?xml version=\"1.0\" ?>\n<CIM CIMVERSION=\"2.0\" DTDVERSION=\"2.0\">" + xml + "</CIM>\n";
    EXPECT_EQ(root.ParseCIMXML(doc), 0) << xml;
  }
  CIMelement* element(const char* kind, int n = 0) { return root.findelement(oxsim::ElemId(kind), n); }
};

// A request written by hand, posted with the library's transport.
int Post(CIMcontainer& c, const char* method, const std::string& call) {
  c.m_Request = "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n<CIM CIMVERSION=\"2.0\" DTDVERSION=\"2.0\">\n"
                "<MESSAGE ID=\"4711\" PROTOCOLVERSION=\"1.0\">\n<SIMPLEREQ>\n" +
                call + "</SIMPLEREQ>\n</MESSAGE>\n</CIM>\n";
  std::string object = "root/cimv2";
  return c.sendRequest_recvResponse(method, &object[0]);
}

const std::string kCimv2 = "<LOCALNAMESPACEPATH><NAMESPACE NAME=\"root\"/><NAMESPACE NAME=\"cimv2\"/></LOCALNAMESPACEPATH>";
const std::string kSystem = "<INSTANCENAME CLASSNAME=\"CIM_ComputerSystem\"><KEYBINDING NAME=\"Name\"><KEYVALUE>"
                            "SN-4C3A0012</KEYVALUE></KEYBINDING></INSTANCENAME>";

std::string VolumeName(const std::string& id) {
  return "<INSTANCENAME CLASSNAME=\"CIM_StorageVolume\"><KEYBINDING NAME=\"DeviceID\">"
         "<KEYVALUE VALUETYPE=\"string\">" + id + "</KEYVALUE></KEYBINDING></INSTANCENAME>";
}

oxCIM::_properties_ Str(const char* name, const char* value) { return {name, 1, 1, value, nullptr}; }
const oxCIM::_properties_ kEnd{nullptr, 0, 0, nullptr, nullptr};

// What the library's listener handed over.
std::mutex gIndicationMu;
std::vector<std::string> gIndications;
int Collect(std::string& body) {
  std::lock_guard<std::mutex> lk(gIndicationMu);
  gIndications.push_back(body);
  return 0;
}
std::vector<std::string> Indications(bool clear = false) {
  std::lock_guard<std::mutex> lk(gIndicationMu);
  std::vector<std::string> all = gIndications;
  if (clear) gIndications.clear();
  return all;
}

// ---------------------------------------------------------------------------------------
// Every offered operation, over HTTP and HTTPS

class SimOperations : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    static const oxtest::TestPki pki;  // one for both schemes and every test
    tls = GetParam() ? &pki : nullptr;
    server = Serve(tls);
    Point(c, server->port(), tls);
  }
  const oxtest::TestPki* tls = nullptr;
  std::unique_ptr<oxsim::CimServer> server;
  CIMcontainer c;
};

// The status of an operation that hands back an object.
unsigned long Got(K k, unsigned long object) { return object != 0 ? 0ul : k.m_ErrCode; }
CIMelement* Vol(K k, const char* id) { return NameOf(k, "CIM_StorageVolume", id); }

TEST_P(SimOperations, EveryOfferedOperationAndItsErrors) {
  Tree objects(oxtest::ReadFixture("sim_objects.xml"));
  Tree gone(VolumeName("vol99"));
  const std::string modify = oxtest::ReadFixture("sim_modify_standard.xml");
  const struct {
    const char* what;
    std::function<unsigned long(K)> run;  // the operation's status
    int code;                             // expected CIM status
    const char* seen;                     // in the answer, "" for nothing
    int times;                            // how often (0: at least once)
  } cases[] = {
      {"GetClass", [](K k) { return GetClass(In(k, "CIM_StorageVolume")); }, 0,
       "<METHOD NAME=\"RequestStateChange\"", 1},
      {"EnumerateClassNames deep", [](K k) { return In(k, "", "root/interop").Imethod_EnumerateClassNames(1); }, 0,
       "<CLASSNAME NAME=", 6},
      {"EnumerateClasses", [](K k) { return In(k, "").Imethod_EnumerateClasses(0, 1, 0, 1); }, 0, "<CLASS NAME=", 3},
      {"EnumerateInstanceNames", [](K k) { return Got(k, In(k, "CIM_DiskDrive").Imethod_EnumerateInstanceNames()); },
       0, "<INSTANCENAME ", 4},
      {"EnumerateInstances",
       [](K k) { return Got(k, In(k, "CIM_StorageVolume").Imethod_EnumerateInstances(-1, -1, -1, -1, nullptr)); }, 0,
       "<VALUE.NAMEDINSTANCE>", 12},
      {"GetInstance", [](K k) { return Got(k, k.Imethod_GetInstance(Vol(k, "vol07"), -1, nullptr)); }, 0,
       "<VALUE>scratch</VALUE>", 1},
      {"ExecQuery", [](K k) { return In(k, "CIM_DiskDrive").Imethod_ExecQuery("WQL", "CIM_DiskDrive"); }, 0,
       "<VALUE.OBJECTWITHPATH>", 4},
      {"SetProperty", [](K k) { return k.Imethod_SetProperty(Vol(k, "vol05"), "ElementName", "bkp"); }, 0, "", 0},
      {"GetProperty sees it", [](K k) { return k.Imethod_GetProperty(Vol(k, "vol05"), "ElementName"); }, 0,
       "<IRETURNVALUE>\n<VALUE>bkp</VALUE>", 1},
      {"CreateInstance", [](K k) {
         oxCIM::_properties_ p[] = {Str("DeviceID", "vol99"), Str("ElementName", "new"), kEnd};
         return Got(k, In(k, "CIM_StorageVolume").Imethod_CreateInstance(p)); }, 0,
       "<KEYVALUE VALUETYPE=\"string\">SN-4C3A0012<", 1},
      {"CreateInstance again: already exists", [](K k) { oxCIM::_properties_ p[] = {Str("DeviceID", "vol99"), kEnd};
         return Got(k, k.Imethod_CreateInstance(p)); }, 11, "CIM_ERR_ALREADY_EXISTS", 1},
      {"ModifyInstance", [&](K k) { return k.Imethod_ModifyInstance(Vol(k, "vol99"), *objects.element("INSTANCE"),
                                                                      nullptr); }, 0, "", 0},
      {"GetInstance sees it", [](K k) { return Got(k, k.Imethod_GetInstance(Vol(k, "vol99"), -1, nullptr)); }, 0,
       "<VALUE>db-renamed</VALUE>", 1},
      {"DeleteInstance", [](K k) { return k.Imethod_DeleteInstance(Vol(k, "vol99")); }, 0, "", 0},
      {"GetInstance after delete: not found",
       [&](K k) { return Got(k, k.Imethod_GetInstance(gone.element("INSTANCENAME"), -1, nullptr)); }, 6,
       "CIM_ERR_NOT_FOUND", 1},
      {"CreateClass", [&](K k) { return In(k, "OX_Pool").Imethod_CreateClass(*objects.element("CLASS")); }, 0, "", 0},
      {"CreateClass again: already exists", [&](K k) { return k.Imethod_CreateClass(*objects.element("CLASS")); }, 11,
       "CIM_ERR_ALREADY_EXISTS", 1},
      {"ModifyClass", [&](K k) { return k.Imethod_ModifyClass(*objects.element("CLASS", 1)); }, 0, "", 0},
      {"GetClass sees it", GetClass, 0, "<PROPERTY NAME=\"Capacity\"", 1},
      {"DeleteClass", [](K k) { return k.Imethod_DeleteClass(); }, 0, "", 0},
      {"GetClass after delete: invalid class", GetClass, 5, "CIM_ERR_INVALID_CLASS: OX_Pool", 1},
      {"invalid namespace", [](K k) { return GetClass(In(k, "CIM_DiskDrive", "root/nowhere")); }, 3,
       "CIM_ERR_INVALID_NAMESPACE: root/nowhere", 1},
      {"invalid parameter: not a key", [&](K k) {
         return Got(k, In(k, "CIM_DiskDrive").Imethod_GetInstance(objects.element("INSTANCENAME"), -1, nullptr)); },
       4, "CIM_ERR_INVALID_PARAMETER: ElementName is not a key", 1},
      {"invalid query", [](K k) { return In(k, "CIM_DiskDrive").Imethod_ExecQuery("WQL", "CIM_DiskDrive where x=1"); },
       15, "CIM_ERR_INVALID_QUERY", 1},
      {"not supported", [](K k) {
         return Post(k, "References", "<IMETHODCALL NAME=\"References\">" + kCimv2 + "</IMETHODCALL>\n"); },
       7, "CIM_ERR_NOT_SUPPORTED: References", 1},
      {"ModifyInstance, standard layout", [&](K k) { return Post(k, "ModifyInstance", modify); }, 0, "", 0},
      {"GetProperty sees it", [](K k) { return k.Imethod_GetProperty(Vol(k, "vol01"), "HealthState"); }, 0,
       "<VALUE>25</VALUE>", 1},
  };
  for (const auto& t : cases) {
    SCOPED_TRACE(t.what);
    oxtest::TraceCapture trace(oxCIM::TRACE_STATUS);
    EXPECT_EQ(t.run(c), static_cast<unsigned long>(t.code)) << c.m_Response;
    if (t.code != 0) {
      // A failed operation's answer is gone; its description is in the status record.
      bool described = false;
      for (const std::string& s : trace.statusCodes()) described = described || Has(s, t.seen);
      EXPECT_TRUE(described) << trace.dump();
    } else if (*t.seen && t.times) {
      EXPECT_EQ(Count(c.m_Response, t.seen), t.times) << c.m_Response;
    }
  }
}

// Extrinsic methods, written by hand: return value, out parameters, effects and errors; then
// the same through the library's subscription and method members.
TEST_P(SimOperations, ExtrinsicMethodsAndLibrarySubscription) {
  // sim_methods.txt: "status|the answer holds (line breaks left out)|method|volume, or none for the
  // system|requested state, or none".
  std::istringstream rows(oxtest::ReadFixture("sim_methods.txt"));
  for (std::string row; std::getline(rows, row);) {
    SCOPED_TRACE(row);
    std::vector<std::string> f;
    std::istringstream fields(row);
    for (std::string p; std::getline(fields, p, '|');) f.push_back(p);
    f.resize(5);
    const std::string state = f[4].empty() ? "" : "<PARAMVALUE NAME=\"RequestedState\" PARAMTYPE=\"uint16\"><VALUE>" +
                                                      f[4] + "</VALUE></PARAMVALUE>";
    const std::string call = "<METHODCALL NAME=\"" + f[2] + "\"><LOCALINSTANCEPATH>" + kCimv2 +
                             (f[3].empty() ? kSystem : VolumeName(f[3])) + "</LOCALINSTANCEPATH>" + state +
                             "</METHODCALL>\n";
    EXPECT_EQ(Post(c, "Method", call), std::stoi(f[0])) << c.m_Response;
    std::string answer = c.m_Response;
    answer.erase(std::remove(answer.begin(), answer.end(), '\n'), answer.end());
    EXPECT_TRUE(Has(answer, f[1])) << c.m_Response;
  }
  // The stop shows in the model.
  EXPECT_NE(c.Imethod_GetProperty(NameOf(c, "CIM_StorageVolume", "vol03"), "OperationalStatus"), 1u);
  EXPECT_TRUE(Has(c.m_Response, "<VALUE.ARRAY>\n<VALUE>10</VALUE>\n</VALUE.ARRAY>")) << c.m_Response;

  // The library's own subscription and method members.
  Indications(true);
  c.m_LocalIP = "127.0.0.1";
  c.setCurrentClass("CIM_StorageVolume", "root/cimv2");
  ASSERT_EQ(c.subscribe("SELECT * FROM CIM_InstModification", nullptr, nullptr, oxtest::FreePort(), Collect), 0u);
  EXPECT_EQ(c.subscribe_check(), 0u);

  CIMelement* volume = NameOf(c, "CIM_StorageVolume", "vol06");
  ASSERT_NE(volume, nullptr);
  uint16_t stop = 3;
  oxCIM::_paramvalue_ params[] = {{"RequestedState", 5, 1, &stop}, {nullptr, 0, 0, nullptr}};
  ASSERT_EQ(c.performExtrinsicMethod("RequestStateChange", volume, params), 0u) << c.m_Response;
  EXPECT_STREQ(c.getReturnValue(), "0");
  ASSERT_TRUE(oxtest::Eventually([] { return !Indications().empty(); }));
  EXPECT_TRUE(Has(Indications()[0], "CIM_InstModification"));
  EXPECT_TRUE(Has(Indications()[0], "DeviceID=&quot;vol06&quot;"));

  ASSERT_NE(In(c, "CIM_ComputerSystem", "root/cimv2").Imethod_EnumerateInstanceNames(), 0u);
  CIMelement* system = c.m_pcls->m_InstanceNames->findelement(oxsim::ElemId("INSTANCENAME"), 0);
  ASSERT_EQ(c.get_sdt_from_core(system, nullptr), 0u);
  int devices = 0;
  for (int n = 0; c.m_pcls->m_Properties->findelement(oxsim::ElemId("INSTANCE"), n); ++n) ++devices;
  EXPECT_EQ(devices, 16);  // twelve volumes, four disks

  EXPECT_EQ(c.unsubscribe(), 0u);
  const oxsim::SimRepository after = server->repository();
  for (const char* cls : {"CIM_IndicationSubscription", "CIM_IndicationFilter", "CIM_ListenerDestinationCIMXML"})
    EXPECT_TRUE(after.find("root/interop", cls)->instances.empty()) << cls;
}

INSTANTIATE_TEST_SUITE_P(Scheme, SimOperations, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "https" : "http"; });

// ---------------------------------------------------------------------------------------
// Indications

// Creates filter, destination and subscription the way a client does: the server fills
// the keys; the subscription refers to the other two.
void Subscribe(CIMcontainer& c, const std::string& destination, const char* query) {
  oxCIM::_properties_ filter[] = {Str("Query", query), Str("QueryLanguage", "WQL"),
                                  Str("SourceNamespace", "root/cimv2"), kEnd};
  auto* f = reinterpret_cast<CIMelement*>(In(c, "CIM_IndicationFilter", "root/interop").Imethod_CreateInstance(filter));
  ASSERT_NE(f, nullptr) << c.m_Response;
  oxCIM::_properties_ dest[] = {Str("Destination", destination.c_str()), kEnd};
  auto* d = reinterpret_cast<CIMelement*>(
      In(c, "CIM_ListenerDestinationCIMXML", "root/interop").Imethod_CreateInstance(dest));
  ASSERT_NE(d, nullptr) << c.m_Response;
  oxCIM::_properties_ sub[] = {{"Filter", 15, 1, "CIM_IndicationFilter", f},
                               {"Handler", 15, 1, "CIM_ListenerDestinationCIMXML", d}, kEnd};
  ASSERT_NE(In(c, "CIM_IndicationSubscription", "root/interop").Imethod_CreateInstance(sub), 0u) << c.m_Response;
}

// The library's own listener takes the alert too; a dead destination is given up after the
// bounded retries.
TEST(SimIndications, LifecycleAndAlertsReachTheDestinationsWithRetry) {
  auto server = Serve();
  Indications(true);
  oxCIM::CIMindication library;
  library.pCallBack = Collect;
  library.m_Port = oxtest::FreePort();
  ASSERT_EQ(library.start_Listener(), 0);
  ASSERT_TRUE(oxtest::Eventually([&] { return oxtest::Connect(library.m_Port, 1) >= 0; }));
  oxtest::ScriptedServer listener;
  listener.push(oxtest::CannedResponse::closeWithoutReply());  // the first attempt fails
  CIMcontainer c;
  Point(c, server->port());
  const std::string at = "http://127.0.0.1:" + std::to_string(listener.port());
  Subscribe(c, at + "/cimlistener", "SELECT * FROM CIM_Indication");
  // Only volumes: a second subscription filtered by ISA.
  Subscribe(c, at + "/volumes", "SELECT * FROM CIM_InstIndication WHERE SourceInstance ISA CIM_StorageVolume");
  Subscribe(c, "http://127.0.0.1:" + std::to_string(library.m_Port), "SELECT * FROM CIM_AlertIndication");
  Subscribe(c, "http://127.0.0.1:" + std::to_string(oxtest::FreePort()), "SELECT * FROM CIM_AlertIndication");
  EXPECT_EQ(server->indicationsDelivered(), 0u);  // bookkeeping itself is not announced

  oxCIM::_properties_ disk[] = {Str("DeviceID", "disk9.9"), kEnd};
  ASSERT_NE(In(c, "CIM_DiskDrive").Imethod_CreateInstance(disk), 0u);
  ASSERT_EQ(c.Imethod_SetProperty(NameOf(c, "CIM_StorageVolume", "vol02"), "ElementName", "x"), 0u);
  ASSERT_EQ(c.Imethod_DeleteInstance(NameOf(c, "CIM_DiskDrive", "disk9.9")), 0u);
  EXPECT_EQ(server->raiseAlert("fan failure", 6), 3);
  ASSERT_TRUE(server->waitDeliveries(20000));
  EXPECT_EQ(server->indicationsDelivered(), 6u);
  EXPECT_EQ(server->indicationsFailed(), 1u);
  ASSERT_TRUE(oxtest::Eventually([] { return !Indications().empty(); }));
  library.stop_Listener();
  ASSERT_EQ(Indications().size(), 1u);
  EXPECT_TRUE(Has(Indications()[0], "<VALUE>fan failure</VALUE>"));

  const auto requests = listener.requests();
  ASSERT_EQ(requests.size(), 6u);  // one retried
  EXPECT_EQ(requests[0].body, requests[1].body);
  const struct {
    const char *path, *cls, *detail;
  } expected[] = {
      {"/cimlistener", "CIM_InstCreation", "DeviceID=&quot;disk9.9&quot;"},
      {"/cimlistener", "CIM_InstModification", "&lt;VALUE&gt;db-logs&lt;/VALUE&gt;"},
      {"/volumes", "CIM_InstModification", "&lt;VALUE&gt;x&lt;/VALUE&gt;"},
      {"/cimlistener", "CIM_InstDeletion", "DeviceID=&quot;disk9.9&quot;"},
      {"/cimlistener", "CIM_AlertIndication", "<VALUE>fan failure</VALUE>"},
  };
  for (size_t n = 0; n < 5; ++n) {
    const oxtest::RecordedRequest& r = requests[n + 1];
    SCOPED_TRACE(expected[n].cls);
    EXPECT_EQ(r.requestLine, std::string("POST ") + expected[n].path + " HTTP/1.1");
    EXPECT_EQ(r.header("CIMExport"), "MethodRequest");
    EXPECT_EQ(r.header("CIMExportMethod"), "ExportIndication");
    EXPECT_TRUE(Has(r.body, "<EXPMETHODCALL NAME=\"ExportIndication\">\n<EXPPARAMVALUE NAME=\"NewIndication\">\n"
                            "<INSTANCE CLASSNAME=\"" + std::string(expected[n].cls) + "\">")) << r.body;
    EXPECT_TRUE(Has(r.body, expected[n].detail)) << r.body;
  }
}

// ---------------------------------------------------------------------------------------
// Faults

// The cases side by side: four of them wait out the library's retry.
TEST(SimFaults, InjectedFailuresAsTheClientSeesThem) {
  const struct {
    const char* rule;
    unsigned long code;  // of the GetClass
    int requests;        // the server saw for EnumerateClassNames and GetClass
  } cases[] = {
      {"cim-error:6@GetClass", 6, 2},
      {"cim-error:6@EnumerateClasses", 0, 2},
      {"http500@GetClass", 22, 3},  // the driver retries once
      {"http401@GetClass", 22, 3},
      {"close@GetClass", 52, 3},
      {"http500/2", 0, 3},  // the retry of the failed GetClass is answered
      {"delay:150", 0, 2},
      {"drip:2@GetClass", 0, 2},
      {"garbage@GetClass", 5002, 2},
  };
  std::vector<std::future<void>> runs;
  for (const auto& t : cases)
    runs.push_back(std::async(std::launch::async, [t] {
      SCOPED_TRACE(t.rule);
      oxsim::Fault f;
      std::string error;
      ASSERT_TRUE(oxsim::ParseFault(t.rule, f, error)) << error;
      auto server = Serve();
      server->addFault(f);
      CIMcontainer c;
      Point(c, server->port());
      const auto start = std::chrono::steady_clock::now();
      In(c, "CIM_DiskDrive").Imethod_EnumerateClassNames(-1);
      EXPECT_EQ(GetClass(c), t.code);
      if (f.kind == oxsim::Fault::Kind::Delay) {
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
      }
      EXPECT_EQ(Has(c.m_Response, "<CLASS NAME=\"CIM_DiskDrive\""), t.code == 0);
      EXPECT_EQ((c.m_Info & oxCIM::NO_Auth) != 0, f.kind == oxsim::Fault::Kind::Http401);
      EXPECT_EQ(server->requestCount(), static_cast<size_t>(t.requests));
    }));
  for (auto& r : runs) r.get();
  oxsim::Fault f;
  std::string error;
  for (const char* bad : {"explode", "delay:-5", "close/0", "cim-error:x"})
    EXPECT_FALSE(oxsim::ParseFault(bad, f, error)) << bad;
}

// Hostile peers get bounded answers and never stall a stop.
TEST(SimServer, BoundsAndPromptStop) {
  auto server = Serve();
  const std::string auth = "Authorization: Basic YWRtaW46c2VjcmV0\r\nCIMOperation: MethodCall\r\n";
  const struct {
    std::string request;
    const char* status;
  } cases[] = {
      {"POST /cimom HTTP/1.1\r\nX: " + std::string(70000, 'a') + "\r\n\r\n", "HTTP/1.1 431"},
      {"POST /cimom HTTP/1.1\r\nContent-Length: 99999999999\r\n\r\n", "HTTP/1.1 413"},
      {"POST /cimom HTTP/1.1\r\nContent-Length: 12x\r\n\r\n", "HTTP/1.1 400"},
      {"POST /cimom HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", "HTTP/1.1 501"},
      {"POST /other HTTP/1.1\r\nConnection: close\r\nContent-Length: 0\r\n\r\n", "HTTP/1.1 404"},
      {"POST /cimom HTTP/1.1\r\nConnection: close\r\n" + auth + "Content-Length: 3\r\n\r\nabc", "HTTP/1.1 400"},
  };
  for (const auto& t : cases)
    EXPECT_EQ(oxtest::RawExchange(server->port(), t.request).rfind(t.status, 0), 0u) << t.status;
  // Keep-alive, pipelined: both answered on one connection, which the second one closes.
  const std::string pipelined = "GET /cimom HTTP/1.1\r\n\r\nGET /cimom HTTP/1.1\r\nConnection: close\r\n\r\n";
  EXPECT_EQ(Count(oxtest::RawExchange(server->port(), pipelined), "HTTP/1.1 405 "), 2);
  // A silent peer and a half-sent request hold connections; stop is still prompt.
  const int silent = oxtest::Connect(server->port());
  const int half = oxtest::Connect(server->port());
  ASSERT_TRUE(oxtest::SendAll(half, "POST /cimom HTTP/1.1\r\nContent-Length: 100\r\n\r\nab"));
  const auto start = std::chrono::steady_clock::now();
  server->stop();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
  for (int fd : {silent, half}) close(fd);

  // Connections beyond the limit are closed at once, not queued.
  oxsim::CimServerOptions small;
  small.http.threads = 1;
  small.http.maxConnections = 2;
  const auto limited = Serve(nullptr, oxsim::SimRepository::BuiltIn(), small);
  const int first = oxtest::Connect(limited->port()), second = oxtest::Connect(limited->port());
  ASSERT_TRUE(first >= 0 && second >= 0);
  const int third = oxtest::Connect(limited->port(), 5);
  ASSERT_GE(third, 0);
  EXPECT_EQ(oxtest::ReadAll(third), "");  // closed without a word, long before the time-out
  for (int fd : {third, first, second}) close(fd);
  // Once they are gone, requests are served again.
  EXPECT_TRUE(oxtest::Eventually([&] {
    return oxtest::RawExchange(limited->port(), "GET / HTTP/1.1\r\nConnection: close\r\n\r\n")
               .rfind("HTTP/1.1 405", 0) == 0;
  }));
}

// ---------------------------------------------------------------------------------------
// Snapshots

// Everything a client can enumerate, per namespace, with message ids left out.
std::string Everything(const oxsim::CimServer& s) {
  CIMcontainer c;
  Point(c, s.port());
  std::string all;
  for (const char* ns : {"root/cimv2", "root/interop"}) {
    EXPECT_EQ(In(c, "", ns).Imethod_EnumerateClasses(0, 1, 0, 1), 0u);
    all += c.m_Response.substr(c.m_Response.find("<SIMPLERSP>"));
    for (const oxsim::SimClass& k : s.repository().classes) {
      if (k.ns != ns) continue;
      In(c, k.name.c_str(), ns).Imethod_EnumerateInstances(-1, -1, -1, -1, nullptr);
      EXPECT_EQ(c.m_ErrCode, 0);
      all += c.m_Response.substr(c.m_Response.find("<SIMPLERSP>"));
    }
  }
  return all;
}

TEST(SimSnapshot, RoundTripServesWhatWasRecorded) {
  auto original = Serve();
  CIMcontainer c;
  Point(c, original->port());
  // A change and a reference-keyed subscription, so the copy is more than the built-in model.
  ASSERT_EQ(c.Imethod_SetProperty(NameOf(c, "CIM_StorageVolume", "vol04"), "ElementName", "a &amp; b"), 0u);
  Subscribe(c, "http://127.0.0.1:9", "SELECT * FROM CIM_AlertIndication");
  const std::string dir = ::testing::TempDir() + "oxsim-snapshot-" + std::to_string(getpid());
  std::filesystem::remove_all(dir);
  std::string error;
  ASSERT_TRUE(oxsim::TakeSnapshot(c, dir, error)) << error;
  oxsim::SimRepository repo;
  ASSERT_TRUE(oxsim::LoadRepository(dir, repo, error)) << error;
  auto copy = Serve(nullptr, repo);
  const std::string before = Everything(*original), after = Everything(*copy);
  EXPECT_EQ(before, after);
  EXPECT_TRUE(Has(after, "<VALUE>a &amp; b</VALUE>"));
  EXPECT_EQ(Count(after, "<INSTANCE CLASSNAME=\"CIM_IndicationSubscription\">"), 1);

  EXPECT_FALSE(oxsim::LoadRepository(dir + "/nowhere", repo, error));
  std::filesystem::remove_all(dir);
}

// ---------------------------------------------------------------------------------------
// The standalone program

#ifdef OXCIM_SIM_PROGRAM
TEST(SimProgram, ServesARepositoryWithFaultsAndRejectsBadOptions) {
  oxsim::SimRepository repo = oxsim::SimRepository::BuiltIn();
  repo.find("root/cimv2", "CIM_StorageVolume")->instances[0]["ElementName"] = {"from-disk"};
  const std::string dir = ::testing::TempDir() + "oxsim-program-" + std::to_string(getpid());
  std::string error;
  ASSERT_TRUE(oxsim::SaveRepository(dir, repo, error)) << error;
  const std::string program = OXCIM_SIM_PROGRAM;
  FILE* sim = popen((program + " --port 0 --user u --password p --seconds 2 --repository " + dir +
                     " --fault cim-error:8@GetClass").c_str(), "r");
  ASSERT_NE(sim, nullptr);
  char line[256] = {};
  ASSERT_NE(fgets(line, sizeof line, sim), nullptr);
  int port = 0;
  ASSERT_EQ(std::sscanf(line, "listening on 127.0.0.1 port %d (http)", &port), 1) << line;
  {
    CIMcontainer c;
    Point(c, port);
    c.m_User = "u";
    c.m_Passwd = "p";
    Tree name(VolumeName("vol01"));
    EXPECT_NE(In(c, "CIM_StorageVolume").Imethod_GetInstance(name.element("INSTANCENAME"), -1, nullptr), 0u);
    EXPECT_TRUE(Has(c.m_Response, "<VALUE>from-disk</VALUE>")) << c.m_Response;
    EXPECT_EQ(GetClass(c), 8u);
  }

  // While it runs out its time.
  const struct {
    const char* args;
    int status;
  } bad[] = {{"--port x", 2}, {"--fault explode", 2}, {"--https only-one", 2}, {"--frobnicate", 2},
             {"--repository /nonexistent-oxsim", 1}, {"--https /nonexistent.pem /nonexistent.key --port 0", 1}};
  for (const auto& t : bad) {
    const int rc = std::system((program + " " + t.args + " >/dev/null 2>&1").c_str());
    EXPECT_TRUE(WIFEXITED(rc) && WEXITSTATUS(rc) == t.status) << t.args;
  }
  ASSERT_NE(fgets(line, sizeof line, sim), nullptr);  // stops by itself
  EXPECT_STREQ(line, "stopped after 2 requests\n");
  EXPECT_EQ(pclose(sim), 0);
  std::filesystem::remove_all(dir);
}
#endif

// ---------------------------------------------------------------------------------------
// Load: concurrent clients on the worker pool, every answer checked.

TEST(SimulatorLoad, EightClientsMixedOperations) {
  auto server = Serve();
  constexpr int kThreads = 8, kOps = 500;
  std::atomic<int> wrong{0};
  const auto start = std::chrono::steady_clock::now();
  std::vector<std::thread> clients;
  for (int t = 0; t < kThreads; ++t)
    clients.emplace_back([&, t] {
      CIMcontainer c;
      Point(c, server->port());
      const std::string mine = "load-" + std::to_string(t);
      Tree own(VolumeName(mine));
      for (int n = 0; n < kOps; ++n) {
        const std::string id = "vol" + std::string(n % 12 < 9 ? "0" : "") + std::to_string(n % 12 + 1);
        const std::string value = std::to_string(n);
        oxCIM::_properties_ p[] = {Str("DeviceID", mine.c_str()), kEnd};
        Tree name(VolumeName(id));
        const std::function<bool()> ops[] = {
            [&] {
              return In(c, "CIM_DiskDrive").Imethod_EnumerateInstanceNames() != 0 &&
                     Count(c.m_Response, "<INSTANCENAME ") == 4;
            },
            [&] {
              return c.Imethod_GetInstance(name.element("INSTANCENAME"), -1, nullptr) != 0 &&
                     Count(c.m_Response, "<VALUE>" + id + "</VALUE>") == 1;
            },
            [&] { return In(c, "CIM_StorageVolume").Imethod_CreateInstance(p) != 0; },
            [&] {
              return c.Imethod_SetProperty(own.element("INSTANCENAME"), "ElementName", value.c_str()) == 0 &&
                     c.Imethod_GetProperty(own.element("INSTANCENAME"), "ElementName") == 0 &&
                     Count(c.m_Response, "<VALUE>" + value + "</VALUE>") == 1;
            },
            [&] { return c.Imethod_DeleteInstance(NameOf(c, "CIM_StorageVolume", mine.c_str())) == 0; },
        };
        if (!ops[n % 5]()) ++wrong;
      }
    });
  for (auto& th : clients) th.join();
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(server->repository().find("root/cimv2", "CIM_StorageVolume")->instances.size(), 12u);
  EXPECT_LT(elapsed, std::chrono::minutes(5));
  std::printf("load: %d operations in %lld ms, %zu requests on %zu connections\n", kThreads * kOps,
              static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count()),
              server->requestCount(), server->connectionCount());
}

}  // namespace
