// Extrinsic methods, the storage-device tree, the ModifyInstance layout and indication
// subscriptions: real libcurl against the fake server, real sockets for the listener.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "TestSupport.h"

using namespace oxCIM;
using oxtest::CannedResponse;
using oxtest::ReadFixture;
using oxtest::TraceCapture;
using testing::HasSubstr;

namespace {

std::string Text(const char* s) { return s ? s : "<null>"; }

std::string Replace(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
  return text;
}

CannedResponse Error(int code) {
  return CannedResponse::cimOk(
      Replace(ReadFixture("op_error.xml"), "CODE=\"6\"", "CODE=\"" + std::to_string(code) + "\""));
}

class Methods : public ::testing::Test {
 protected:
  void SetUp() override {
    oxtest::PointAt(c, srv.port());
    c.setCurrentClass("OXS_StoragePool", nullptr);
    // An instance name as a server returns it, parsed from a fixture.
    ASSERT_EQ(holder.m_ResponseTree.ParseCIMXML(ReadFixture("op_enuminstancenames.xml")), 0);
    vol = holder.m_ResponseTree.findelement(17, 0);
    ASSERT_NE(vol, nullptr);
  }
  void answer(const char* fixture) { srv.push(CannedResponse::cimOk(ReadFixture(fixture))); }
  oxtest::RecordedRequest request(size_t i) {
    srv.waitForRequests(i + 1, 2000);
    auto reqs = srv.requests();
    return i < reqs.size() ? reqs[i] : oxtest::RecordedRequest{};
  }

  oxtest::ScriptedServer srv;
  CIMcontainer c;
  CIMcontainer holder;
  CIMelement* vol = nullptr;
};

TEST_F(Methods, CallOnInstanceAndOnClassWritesTypedParametersAndReadsTheAnswer) {
  const uint16_t goal = 2;
  const uint64_t sizes[] = {1073741824ULL, 2147483648ULL};
  const int8_t delta = -1;
  const unsigned char thin = 1;
  _paramvalue_ params[] = {{"ElementName", 1, 1, "db-lun"}, {"Goal", 5, 1, &goal},
                           {"Sizes", 9 | 0x100, 2, sizes},  {"Delta", 4, 1, &delta},
                           {"Thin", 0, 1, &thin},           {"Skipped", 7, 0, nullptr},
                           {"InPool", 15, 1, vol},          {nullptr, 0, 0, nullptr}};
  const struct { CIMelement* target; const char* expected; const char* object; } cases[] = {
      {vol, "ind_x_call_instance.xml",
       "root%2Fcimv2:OXS_StorageVolume.SystemName=%22array-01.example.net%22,DeviceID=%22vol-0001%22"},
      {nullptr, "ind_x_call_class.xml", "root%2Fcimv2:OXS_StoragePool"},
  };
  for (size_t i = 0; i < 2; ++i) {
    SCOPED_TRACE(i);
    answer("method_resize.xml");
    ASSERT_EQ(c.performExtrinsicMethod("CreateOrModifyElementFromStoragePool", cases[i].target, params), 0u);
    const auto req = request(i);
    EXPECT_EQ(req.body, ReadFixture(cases[i].expected));
    EXPECT_EQ(req.header("CIMMethod") + " " + req.header("CIMOperation"),
              "CreateOrModifyElementFromStoragePool MethodCall");
    EXPECT_EQ(req.header("CIMObject"), cases[i].object);
  }

  // The answer: return value, scalars, arrays, and a reference to pass on.
  EXPECT_EQ(Text(c.getReturnValue()), "4096");
  EXPECT_EQ(Text(c.getOutParameterValue("size")), "107374182400");
  EXPECT_EQ(Text(c.getOutParameterValue("Messages")), "<null>");
  CIMelement* messages = c.getOutParameter("Messages");
  ASSERT_NE(messages, nullptr);
  EXPECT_EQ(Text(messages->findelement(60, 1)->m_Value), "thin provisioned");
  EXPECT_EQ(c.getOutParameter("Missing"), nullptr);
  std::unique_ptr<CIMelement> jobParam(c.takeOutParameter("Job"));  // survives the next call
  ASSERT_NE(jobParam, nullptr);
  EXPECT_EQ(jobParam->m_Parent, nullptr);  // no link into the tree the next call frees
  EXPECT_EQ(c.getOutParameter("Job"), nullptr);
  CIMelement* job = jobParam->findelement(17, 0);
  ASSERT_NE(job, nullptr);
  c.setCurrentClass("OXS_ConcreteJob", nullptr);
  answer("op_void.xml");
  EXPECT_EQ(c.performExtrinsicMethod("GetErrors", job, nullptr), 0u);
  EXPECT_EQ(request(2).header("CIMObject"), "root%2Fcimv2:OXS_ConcreteJob.InstanceID=%22OXS%3Ajob%3A77%22");
  EXPECT_EQ(c.getReturnValue(), nullptr);
}

TEST_F(Methods, BadParametersSendNothing) {
  TraceCapture traces(TRACE_STATUS);
  const uint32_t v = 1;
  _paramvalue_ badType[] = {{"A", 7, 1, &v}, {"B", 16, 1, &v}, {nullptr, 0, 0, nullptr}};
  EXPECT_EQ(c.performExtrinsicMethod("M", vol, badType), 1001u);
  EXPECT_EQ(c.performExtrinsicMethod("", vol, nullptr), 1001u);
  EXPECT_EQ(c.performExtrinsicMethod("M", vol->m_Next, nullptr), 1001u);  // not an INSTANCENAME
  c.setCurrentClass("", nullptr);
  EXPECT_EQ(c.performExtrinsicMethod("M", nullptr, nullptr), 1001u);
  c.m_pcls = nullptr;
  EXPECT_EQ(c.performExtrinsicMethod("M", vol, nullptr), 1001u);
  EXPECT_EQ(c.ChkCimStatus(), 1001);
  for (const char* t : {"performExtrinsicMethod() bad Type", "performExtrinsicMethod() missing MethodName",
                        "performExtrinsicMethod() bad CIMelement: InstanceName",
                        "performExtrinsicMethod() missing parameter: ClassName",
                        "addLocalNameSpacePath() missing parameter: ClassName/NameSpace"})
    EXPECT_EQ(traces.count(TRACE_STATUS, std::string("[127.0.0.1] ") + t), 1) << t;
  EXPECT_EQ(srv.connectionCount(), 0u);
}

TEST_F(Methods, RetriedOnceWithTheSameMessageThenNoConnectAndDump) {
  TraceCapture traces(TRACE_STATUS);
  srv.push(CannedResponse::http(500, "Internal Server Error"));
  answer("method_resize.xml");
  EXPECT_EQ(c.performExtrinsicMethod("Reset", vol, nullptr), 0u);
  ASSERT_EQ(srv.requestCount(), 2u);
  EXPECT_EQ(request(0).body, request(1).body);
  EXPECT_EQ(Text(c.getReturnValue()), "4096");
  EXPECT_EQ(traces.count(TRACE_STATUS, "[127.0.0.1] performExtrinsicMethod: ret=22 m_Info=0x0 loop=1"), 1);

  srv.push(CannedResponse::http(500, "Internal Server Error"));
  srv.push(CannedResponse::http(503, "Service Unavailable"));
  traces.clear();
  EXPECT_EQ(c.performExtrinsicMethod("Reset", vol, nullptr), 22u);
  EXPECT_TRUE(c.m_Info & NO_Connect);
  EXPECT_EQ(request(3).body, request(2).body);
  EXPECT_NE(request(2).body, request(0).body);  // a new call, a new message id
  EXPECT_EQ(traces.count(TRACE_STATUS, "[127.0.0.1] performExtrinsicMethod: m_Info=0x400 (NO_Connect) look=0"), 1);
  // The failed exchange is dumped once more after the verdict.
  const std::string log = traces.dump();
  const size_t lastDump = log.rfind(" Debug_Request_Response: ");
  ASSERT_NE(lastDump, std::string::npos);
  EXPECT_GT(lastDump, log.find("(NO_Connect) look=0"));
  EXPECT_THAT(log.substr(lastDump), HasSubstr("503 Service Unavailable"));
  EXPECT_EQ(c.m_Request, "");

  // A CIM error is the server's answer, not a failed transfer: no retry.
  answer("op_error.xml");
  EXPECT_EQ(c.performExtrinsicMethod("Reset", vol, nullptr), 6u);
  EXPECT_EQ(srv.requestCount(), 5u);
}

TEST_F(Methods, StorageDeviceTreeLandsOnTheCurrentClass) {
  answer("method_sdt.xml");
  c.setCurrentClass("OXS_StorageSystem", nullptr);
  ASSERT_EQ(c.get_sdt_from_core(nullptr, nullptr), 0u);
  EXPECT_EQ(request(0).header("CIMMethod") + " " + request(0).header("CIMObject"),
            "GetStorageDeviceTree root%2Fcimv2:OXS_StorageSystem");
  // Embedded (escaped) and literal instances, in document order; the reference as a name.
  std::string devices;
  for (int i = 0; CIMelement* d = c.m_pcls->m_Properties->findelement(16, i); ++i)
    devices += Text(d->attr_find(7)) + "/" + Text(d->getValueOfProperty("DeviceID")) + " ";
  EXPECT_EQ(devices, "OXS_StorageController/ctrl-0 OXS_DiskDrive/disk-0 OXS_DiskDrive/disk-1 "
                     "OXS_StorageVolume/vol-0001 ");
  EXPECT_EQ(Text(c.m_pcls->m_Properties->findelement(16, 2)->getValueOfProperty("Parent")), "ctrl-0");
  EXPECT_EQ(Text(c.m_pcls->m_Properties->findelement(16, 0)->getValueOfProperty("ElementName")),
            "R&amp;D array");
  ASSERT_NE(c.m_pcls->m_InstanceNames, nullptr);
  EXPECT_EQ(Text(c.m_pcls->m_InstanceNames->findelement(17, 0)->getValueOf(21, "DeviceID")), "ctrl-0");

  answer("op_void.xml");  // a call that returns no device
  EXPECT_EQ(c.get_sdt_from_core(nullptr, nullptr), 5005u);
  EXPECT_EQ(c.m_pcls->m_Properties, nullptr);
}

TEST_F(Methods, ModifyInstanceInEitherLayout) {
  ASSERT_EQ(holder.m_ResponseTree.ParseCIMXML(ReadFixture("op_getinstance.xml")), 0);
  CIMelement* inst = holder.m_ResponseTree.findelement(16, 0);
  CIMelement name;
  ASSERT_EQ(name.ParseCIMXML(ReadFixture("op_enuminstancenames.xml")), 0);
  EXPECT_FALSE(c.m_StandardModifyInstance);
  for (bool standard : {false, true}) {
    c.m_StandardModifyInstance = standard;
    answer("op_void.xml");
    EXPECT_EQ(c.Imethod_ModifyInstance(name.findelement(17, 0), *inst, nullptr), 0u);
    EXPECT_EQ(request(standard).body,
              ReadFixture(standard ? "ind_x_modify_standard.xml" : "ind_x_modify_default.xml"));
  }
  TraceCapture traces(TRACE_STATUS);
  EXPECT_EQ(c.Imethod_ModifyInstance(nullptr, *inst, nullptr), 1001u);
  EXPECT_TRUE(traces.has(TRACE_STATUS, "[127.0.0.1] Imethod_ModifyInstance() bad CIMelement: instancename"));
  EXPECT_EQ(srv.requestCount(), 2u);
}

// ---------------------------------------------------------------------------------------
// Subscriptions. Delivery to the listener is shown against the simulator.

int OnIndication(std::string&) { return 0; }

class Subscriptions : public ::testing::Test {
 protected:
  void SetUp() override {
    oxtest::PointAt(c, srv.port());
    c.m_LocalIP = "127.0.0.1";
    c.setCurrentClass("OXS_StorageVolume", nullptr);
    port = oxtest::FreePort();
    tag = "oxCIM:127.0.0.1:" + std::to_string(port);
  }
  // A fixture with PORT filled in.
  std::string fixture(const char* name) { return Replace(ReadFixture(name), "PORT", std::to_string(port)); }
  CannedResponse ok(const char* name) { return CannedResponse::cimOk(fixture(name)); }
  void answer(const char* name, int times = 1) {
    for (int i = 0; i < times; ++i) srv.push(ok(name));
  }
  void script(std::initializer_list<CannedResponse> answers) {
    for (const auto& a : answers) srv.push(a);
  }
  void answerCreates() {
    for (const char* f : {"filter", "destination", "subscription"})
      answer(("ind_created_" + std::string(f) + ".xml").c_str());
  }
  unsigned long subscribe(const char* language = nullptr) {
    return c.subscribe("SELECT * FROM CIM_AlertIndication", language, nullptr, port, OnIndication);
  }
  // Method and target class of each request, one per line.
  std::string wire(size_t n) {
    srv.waitForRequests(n, 3000);
    std::string out;
    for (const auto& r : srv.requests()) {
      size_t at = std::min(r.body.find("CLASSNAME=\""), r.body.find("<CLASSNAME NAME=\""));
      at = r.body.find('"', at) + 1;
      out += r.header("CIMMethod") + " " + r.body.substr(at, r.body.find('"', at) - at) + "\n";
    }
    return out;
  }
  bool listening() {
    const int fd = oxtest::Connect(port);
    if (fd >= 0) close(fd);
    return fd >= 0;
  }

  oxtest::ScriptedServer srv;
  CIMcontainer c;
  int port = 0;
  std::string tag;
};

const char* const kDeletes =
    "DeleteInstance CIM_IndicationSubscription\nDeleteInstance CIM_ListenerDestinationCIMXML\n"
    "DeleteInstance CIM_IndicationFilter\n";

TEST_F(Subscriptions, CreatesThreeInstancesAndUnsubscribeReportsTheFirstFailure) {
  answerCreates();
  ASSERT_EQ(c.subscribe("SELECT * FROM CIM_AlertIndication WHERE PerceivedSeverity > 2", nullptr,
                        "root/oxs", port, OnIndication), 0u);
  // The subscription references the names the server returned, server-filled keys included.
  srv.waitForRequests(3, 3000);
  const auto reqs = srv.requests();
  ASSERT_EQ(reqs.size(), 3u);
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(reqs[i].header("CIMObject"), "root%2Finterop");
    EXPECT_EQ(reqs[i].body, fixture(("ind_x_subscribe_" + std::to_string(i) + ".xml").c_str()));
  }
  ASSERT_NE(c.m_Listener, nullptr);
  EXPECT_EQ(c.m_Listener, c.m_Subscription.listener);
  {  // an assigned container drops the listener it had and takes none
    CIMcontainer d;
    d.m_Listener = c.m_Listener;
    d = c;
    EXPECT_EQ(d.m_Listener, nullptr);
  }
  EXPECT_TRUE(c.m_Listener->check_Listener());
  EXPECT_EQ(c.subscribe("SELECT * FROM X", nullptr, nullptr, port, OnIndication), 1001u);

  // Two deletions fail: all three are tried, the first failure is the verdict, the
  // listener stops anyway and the failed ones are tried again next time.
  srv.clearRequests();
  script({Error(2), Error(4), ok("op_void.xml")});
  EXPECT_EQ(c.unsubscribe(), 2u);
  EXPECT_EQ(wire(3), kDeletes);
  EXPECT_THAT(srv.requests()[1].body, HasSubstr("<KEYVALUE VALUETYPE=\"string\">array-01.example.net</KEYVALUE>"));
  EXPECT_EQ(c.m_Listener, nullptr);
  EXPECT_FALSE(listening());
  srv.clearRequests();
  answer("op_void.xml", 2);
  EXPECT_EQ(c.unsubscribe(), 0u);
  EXPECT_EQ(wire(2), Replace(kDeletes, "DeleteInstance CIM_IndicationFilter\n", ""));
}

TEST_F(Subscriptions, BadArgumentsAreRefusedWithoutAnyRequestAndTheDestructorStopsTheListener) {
  const char* q = "SELECT * FROM X";
  const struct { const char* query; int (*callback)(std::string&); int port; const char* localIP; } cases[] = {
      {nullptr, OnIndication, port, "127.0.0.1"}, {"", OnIndication, port, "127.0.0.1"},
      {q, nullptr, port, "127.0.0.1"},            {q, OnIndication, 0, "127.0.0.1"},
      {q, OnIndication, 65536, "127.0.0.1"},      {q, OnIndication, port, ""}};
  for (const auto& k : cases) {
    c.m_LocalIP = k.localIP;
    EXPECT_EQ(c.subscribe(k.query, nullptr, nullptr, k.port, k.callback), 1001u)
        << (k.query ? k.query : "-") << k.port;
    EXPECT_EQ(c.ChkCimStatus(), 1001);
    c.m_ErrCode = 0;
  }
  // The port taken: refused before anything is sent.
  {
    oxCIM::CIMindication squatter;
    squatter.pCallBack = OnIndication;
    squatter.m_Port = port;
    ASSERT_EQ(squatter.start_Listener(), 0);
    ASSERT_TRUE(oxtest::Eventually([&] { return listening(); }));
    c.m_LocalIP = "127.0.0.1";
    EXPECT_EQ(c.subscribe(q, nullptr, nullptr, port, OnIndication), 1001u);
    EXPECT_EQ(c.ChkCimStatus(), 1001);
    squatter.stop_Listener();
  }
  TraceCapture traces(TRACE_STATUS);
  EXPECT_EQ(c.subscribe_check(), 1001u);
  EXPECT_TRUE(traces.has(TRACE_STATUS, "[127.0.0.1] subscribe_check() not subscribed"));
  EXPECT_EQ(srv.connectionCount(), 0u);
  EXPECT_FALSE(listening());
  {
    CIMcontainer d;
    oxtest::PointAt(d, srv.port());
    d.m_LocalIP = "127.0.0.1";
    answerCreates();
    ASSERT_EQ(d.subscribe(q, nullptr, nullptr, port, OnIndication), 0u);
    EXPECT_TRUE(listening());
  }
  EXPECT_FALSE(listening());
}

// A failed subscription reports its first error and leaves nothing behind. Run with stdin
// closed: the listener's port probe gets descriptor 0, a valid one.
TEST_F(Subscriptions, FailureReportsTheFirstErrorAndLeavesNothing) {
  const std::string made = "CreateInstance CIM_IndicationFilter\n";
  const std::string lookup = made + "EnumerateInstanceNames CIM_IndicationFilter\n";
  const struct { std::vector<CannedResponse> answers; unsigned long code; std::string wire; } cases[] = {
      // the destination is refused: the filter made goes again
      {{ok("ind_created_filter.xml"), Error(2), ok("op_void.xml")},
       2, made + "CreateInstance CIM_ListenerDestinationCIMXML\nDeleteInstance CIM_IndicationFilter\n"},
      // created without a name, then not found: the lookup's own error, else 1001
      {{ok("op_void.xml"), Error(3)}, 3, lookup},
      {{ok("op_void.xml"), ok("op_void.xml")}, 1001, lookup},
  };
  const int in = dup(0);
  close(0);
  for (const auto& k : cases) {
    srv.clearRequests();
    for (const auto& a : k.answers) srv.push(a);
    EXPECT_EQ(subscribe("DMTF:CQL"), k.code);
    EXPECT_EQ(c.ChkCimStatus(), static_cast<int>(k.code));
    EXPECT_EQ(wire(k.answers.size()), k.wire);
    EXPECT_THAT(srv.requestCount() ? srv.requests()[0].body : "",
                testing::AllOf(HasSubstr("<VALUE>DMTF:CQL</VALUE>"), HasSubstr("<VALUE>root/cimv2</VALUE>")));
    EXPECT_EQ(c.m_Listener, nullptr);
    EXPECT_EQ(c.m_Subscription.filter, nullptr);
    EXPECT_FALSE(listening());
    c.releaseCurlHandle();
    c.m_ErrCode = 0;
    EXPECT_TRUE(oxtest::Eventually([] { return fcntl(0, F_GETFD) == -1; }));
  }
  dup2(in, 0);
  close(in);
}

TEST_F(Subscriptions, ServerVariantsExistingInstancesOldSchemaAndLostSubscription) {
  // The filter class knows no SourceNamespaces; only the older destination class exists,
  // and our destination already does, found by its name; the server answers the
  // subscription without naming it.
  script({Error(12), ok("ind_created_filter.xml"), Error(5), Error(11), ok("ind_x_handler_names.xml"),
          ok("op_void.xml"),  // subscription created, no name in the answer
          CannedResponse::cimOk(
              Replace(fixture("ind_created_subscription.xml"), "CreateInstance", "EnumerateInstanceNames"))});
  TraceCapture traces(TRACE_STATUS);
  ASSERT_EQ(subscribe(), 0u);
  EXPECT_EQ(wire(7), ReadFixture("ind_x_variants_wire.txt"));
  EXPECT_EQ(srv.requests()[1].body.find("SourceNamespaces"), std::string::npos);
  EXPECT_EQ(srv.requests()[3].body.find("Protocol"), std::string::npos);
  EXPECT_THAT(srv.requests()[5].body, HasSubstr("REFERENCECLASS=\"CIM_IndicationHandlerCIMXML\""));
  EXPECT_EQ(Text(c.m_Subscription.destination->getValueOf(21, "Name")), tag);
  EXPECT_TRUE(traces.has(TRACE_STATUS, "[127.0.0.1] subscribe: using the existing CIM_IndicationHandlerCIMXML"));
  EXPECT_EQ(c.m_pcls, c.m_Classes.findClassName("OXS_StorageVolume", nullptr));

  // subscribe_check: the listener stopped and the server lost the subscription; both come back.
  c.m_Listener->stop_Listener();
  EXPECT_FALSE(listening());
  srv.clearRequests();
  script({ok("op_getinstance.xml"), ok("op_getinstance.xml"), Error(6), ok("ind_created_subscription.xml")});
  EXPECT_EQ(c.subscribe_check(), 0u);
  EXPECT_EQ(wire(4), "GetInstance CIM_IndicationFilter\nGetInstance CIM_IndicationHandlerCIMXML\n"
                     "GetInstance CIM_IndicationSubscription\nCreateInstance CIM_IndicationSubscription\n");
  EXPECT_TRUE(traces.has(TRACE_STATUS, "[127.0.0.1] subscribe_check: re-creating CIM_IndicationSubscription"));
  EXPECT_TRUE(traces.has(TRACE_STATUS, "[127.0.0.1] subscribe_check: restarting the listener"));
  EXPECT_TRUE(oxtest::Eventually([&] { return c.m_Listener && c.m_Listener->check_Listener(); }));

  // The port taken while the listener was down: the check fails and says why.
  c.m_Listener->stop_Listener();
  oxCIM::CIMindication squatter;
  squatter.pCallBack = OnIndication;
  squatter.m_Port = port;
  ASSERT_EQ(squatter.start_Listener(), 0);
  ASSERT_TRUE(oxtest::Eventually([&] { return listening(); }));
  answer("op_getinstance.xml", 3);
  c.m_ErrCode = 0;
  EXPECT_EQ(c.subscribe_check(), 1001u);
  EXPECT_EQ(c.m_ErrCode, 1001);
  EXPECT_TRUE(traces.has(TRACE_STATUS, "[127.0.0.1] subscribe: port " + std::to_string(port) + " is in use"));
  squatter.stop_Listener();

  // unsubscribe after the server lost the subscription: the rest still goes.
  srv.clearRequests();
  script({Error(6), ok("op_void.xml"), ok("op_void.xml")});
  EXPECT_EQ(c.unsubscribe(), 0u);
  EXPECT_EQ(wire(3), Replace(kDeletes, "ListenerDestination", "IndicationHandler"));
  EXPECT_FALSE(listening());
}

TEST_F(Subscriptions, UnsubscribeAllRemovesWhatPointsAtThisHost) {
  // Two destinations, one of them ours; two subscriptions, one through ours. The other
  // host's subscription uses a filter of its own, then one shared with ours: a shared
  // filter stays. The first failed deletion is the verdict.
  for (bool shared : {false, true}) {
    SCOPED_TRACE(shared);
    srv.clearRequests();
    script({ok("ind_x_destinations.xml"), Error(5),
            ok(shared ? "ind_x_subscriptions_shared.xml" : "ind_x_subscriptions_own.xml")});
    if (!shared) srv.push(Error(2)), srv.push(Error(4));
    answer("op_void.xml", shared ? 2 : 1);
    EXPECT_EQ(c.unsubscribe_all(), shared ? 0u : 2u);
    EXPECT_EQ(wire(shared ? 5 : 6), ReadFixture(shared ? "ind_x_unsub_all_shared.txt" : "ind_x_unsub_all_own.txt"));
    const auto reqs = srv.requests();
    for (size_t i = 3; i < reqs.size(); ++i) {
      EXPECT_NE(reqs[i].body.find("oxCIM:127.0.0.1:5990"), std::string::npos) << i;
      EXPECT_EQ(reqs[i].body.find("10.1.1.9"), std::string::npos) << i;
    }
  }
  // The subscriptions cannot be listed: our destination still goes, and that failure is the verdict.
  srv.clearRequests();
  script({ok("ind_x_destinations.xml"), Error(5), Error(8)});
  answer("op_void.xml");
  EXPECT_EQ(c.unsubscribe_all(), 8u);
  EXPECT_EQ(wire(4), "EnumerateInstances CIM_ListenerDestinationCIMXML\nEnumerateInstances CIM_IndicationHandlerCIMXML\n"
                     "EnumerateInstanceNames CIM_IndicationSubscription\nDeleteInstance CIM_ListenerDestinationCIMXML\n");
  EXPECT_EQ(c.m_pcls, c.m_Classes.findClassName("OXS_StorageVolume", nullptr));
}

}  // namespace
