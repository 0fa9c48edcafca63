// Extrinsic methods, the storage-device tree, the ModifyInstance layout and indication
// subscriptions: real libcurl against the fake server, real sockets for the listener.
#include <oxCIM.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "TestSupport.h"

using namespace oxCIM;
using oxtest::CannedResponse;
using oxtest::ScriptedServer;
using oxtest::PointAt;
using oxtest::TraceCapture;

namespace {

std::string Text(const char* s) { return s ? s : "<null>"; }

std::string Replace(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
  return text;
}

// The first run of a fixture from `open` through `close`.
std::string Section(const std::string& doc, const std::string& open, const std::string& close) {
  const size_t b = doc.find(open);
  const size_t e = b == std::string::npos ? b : doc.find(close, b);
  return e == std::string::npos ? "<no section>" : doc.substr(b, e + close.size() - b);
}

std::string Envelope(int id, const std::string& call) {
  return "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n<CIM CIMVERSION=\"2.0\" DTDVERSION=\"2.0\">\n"
         "<MESSAGE ID=\"" + std::to_string(id) + "\" PROTOCOLVERSION=\"1.0\">\n<SIMPLEREQ>\n" + call +
         "</SIMPLEREQ>\n</MESSAGE>\n</CIM>\n";
}

const std::string kNs =
    "<LOCALNAMESPACEPATH>\n<NAMESPACE NAME=\"root\"/>\n<NAMESPACE NAME=\"cimv2\"/>\n"
    "</LOCALNAMESPACEPATH>\n";

class Methods : public ::testing::Test {
 protected:
  void SetUp() override {
    PointAt(c, srv.port());
    c.setCurrentClass("OXS_StoragePool", nullptr);
    // An instance name as a server returns it, parsed from a fixture.
    ASSERT_EQ(holder.m_ResponseTree.ParseCIMXML(oxtest::ReadFixture("op_enuminstancenames.xml")), 0);
    vol = holder.m_ResponseTree.findelement(17, 0);
    ASSERT_NE(vol, nullptr);
  }
  void answer(const char* fixture) { srv.push(CannedResponse::cimOk(oxtest::ReadFixture(fixture))); }
  oxtest::RecordedRequest request(size_t i) {
    srv.waitForRequests(i + 1, 2000);
    auto reqs = srv.requests();
    return i < reqs.size() ? reqs[i] : oxtest::RecordedRequest{};
  }

  ScriptedServer srv;
  CIMcontainer c;
  CIMcontainer holder;
  CIMelement* vol = nullptr;
};

TEST_F(Methods, CallOnInstanceAndOnClassWritesTypedParametersAndReadsTheAnswer) {
  const uint16_t goal = 2;
  const uint64_t sizes[] = {1073741824ULL, 2147483648ULL};
  const int8_t delta = -1;
  const unsigned char thin = 1;
  _paramvalue_ params[] = {{"ElementName", 1, 1, "db-lun"},
                           {"Goal", 5, 1, &goal},
                           {"Sizes", 9 | 0x100, 2, sizes},
                           {"Delta", 4, 1, &delta},
                           {"Thin", 0, 1, &thin},
                           {"Skipped", 7, 0, nullptr},
                           {"InPool", 15, 1, vol},
                           {nullptr, 0, 0, nullptr}};
  const std::string volText = Section(oxtest::ReadFixture("op_enuminstancenames.xml"),
                                      "<INSTANCENAME", "</INSTANCENAME>\n");
  const std::string paramText =
      "<PARAMVALUE NAME=\"ElementName\" PARAMTYPE=\"string\">\n<VALUE>db-lun</VALUE>\n</PARAMVALUE>\n"
      "<PARAMVALUE NAME=\"Goal\" PARAMTYPE=\"uint16\">\n<VALUE>2</VALUE>\n</PARAMVALUE>\n"
      "<PARAMVALUE NAME=\"Sizes\" PARAMTYPE=\"uint64\">\n<VALUE.ARRAY>\n<VALUE>1073741824</VALUE>\n"
      "<VALUE>2147483648</VALUE>\n</VALUE.ARRAY>\n</PARAMVALUE>\n"
      "<PARAMVALUE NAME=\"Delta\" PARAMTYPE=\"sint8\">\n<VALUE>4294967295</VALUE>\n</PARAMVALUE>\n"
      "<PARAMVALUE NAME=\"Thin\" PARAMTYPE=\"boolean\">\n<VALUE>true</VALUE>\n</PARAMVALUE>\n"
      "<PARAMVALUE NAME=\"InPool\" PARAMTYPE=\"reference\">\n<VALUE.REFERENCE>\n" + volText +
      "</VALUE.REFERENCE>\n</PARAMVALUE>\n";

  struct Case {
    CIMelement* target;
    std::string path;
    const char* object;
  } cases[] = {
      {vol,
       "<LOCALINSTANCEPATH>\n" + kNs + volText + "</LOCALINSTANCEPATH>\n",
       "root%2Fcimv2:OXS_StorageVolume.SystemName=%22array-01.example.net%22,DeviceID=%22vol-0001%22"},
      {nullptr,
       "<LOCALCLASSPATH>\n" + kNs + "<CLASSNAME NAME=\"OXS_StoragePool\"/>\n</LOCALCLASSPATH>\n",
       "root%2Fcimv2:OXS_StoragePool"},
  };
  for (size_t i = 0; i < 2; ++i) {
    SCOPED_TRACE(i);
    answer("method_resize.xml");
    ASSERT_EQ(c.performExtrinsicMethod("CreateOrModifyElementFromStoragePool", cases[i].target,
                                       params),
              0u);
    const auto req = request(i);
    EXPECT_EQ(req.body,
              Envelope(1001 + static_cast<int>(i),
                       "<METHODCALL NAME=\"CreateOrModifyElementFromStoragePool\">\n" +
                           cases[i].path + paramText + "</METHODCALL>\n"));
    EXPECT_EQ(req.header("CIMMethod"), "CreateOrModifyElementFromStoragePool");
    EXPECT_EQ(req.header("CIMObject"), cases[i].object);
    EXPECT_EQ(req.header("CIMOperation"), "MethodCall");
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
  EXPECT_EQ(traces.count(TRACE_STATUS,
                         "[127.0.0.1] performExtrinsicMethod: m_Info=0x400 (NO_Connect) look=0"),
            1);
  // The failed exchange is dumped once more after the verdict.
  const auto recs = traces.records();
  size_t verdict = recs.size(), lastDump = 0;
  for (size_t i = 0; i < recs.size(); ++i) {
    if (recs[i].text.find("(NO_Connect) look=0") != std::string::npos) verdict = i;
    if (recs[i].function == "Debug_Request_Response") lastDump = i;
  }
  EXPECT_GT(lastDump, verdict);
  EXPECT_NE(recs[lastDump].text.find("503 Service Unavailable"), std::string::npos);
  EXPECT_EQ(c.m_Request, "");
}

TEST_F(Methods, StorageDeviceTreeLandsOnTheCurrentClass) {
  answer("method_sdt.xml");
  c.setCurrentClass("OXS_StorageSystem", nullptr);
  ASSERT_EQ(c.get_sdt_from_core(nullptr, nullptr), 0u);
  const auto req = request(0);
  EXPECT_EQ(req.header("CIMMethod"), "GetStorageDeviceTree");
  EXPECT_EQ(req.header("CIMObject"), "root%2Fcimv2:OXS_StorageSystem");
  EXPECT_NE(req.body.find("<METHODCALL NAME=\"GetStorageDeviceTree\">\n<LOCALCLASSPATH>"),
            std::string::npos);
  // Embedded (escaped) and literal instances, in document order; the reference as a name.
  std::string devices;
  for (int i = 0; CIMelement* d = c.m_pcls->m_Properties->findelement(16, i); ++i)
    devices += Text(d->attr_find(7)) + "/" + Text(d->getValueOfProperty("DeviceID")) + " ";
  EXPECT_EQ(devices,
            "OXS_StorageController/ctrl-0 OXS_DiskDrive/disk-0 OXS_DiskDrive/disk-1 "
            "OXS_StorageVolume/vol-0001 ");
  EXPECT_EQ(Text(c.m_pcls->m_Properties->findelement(16, 2)->getValueOfProperty("Parent")), "ctrl-0");
  EXPECT_EQ(Text(c.m_pcls->m_Properties->findelement(16, 0)->getValueOfProperty("ElementName")),
            "R&amp;D array");
  ASSERT_NE(c.m_pcls->m_InstanceNames, nullptr);
  EXPECT_EQ(Text(c.m_pcls->m_InstanceNames->findelement(17, 0)->getValueOf(21, "DeviceID")),
            "ctrl-0");

  answer("op_void.xml");  // a call that returns no device
  EXPECT_EQ(c.get_sdt_from_core(nullptr, nullptr), 5005u);
  EXPECT_EQ(c.m_pcls->m_Properties, nullptr);
}

TEST_F(Methods, ModifyInstanceInEitherLayout) {
  ASSERT_EQ(holder.m_ResponseTree.ParseCIMXML(oxtest::ReadFixture("op_getinstance.xml")), 0);
  CIMelement* inst = holder.m_ResponseTree.findelement(16, 0);
  CIMelement name;
  ASSERT_EQ(name.ParseCIMXML(oxtest::ReadFixture("op_enuminstancenames.xml")), 0);
  CIMelement* n = name.findelement(17, 0);
  const std::string nameText = Section(oxtest::ReadFixture("op_enuminstancenames.xml"),
                                       "<INSTANCENAME", "</INSTANCENAME>\n");
  const std::string instText =
      Section(oxtest::ReadFixture("op_getinstance.xml"), "<INSTANCE ", "</INSTANCE>\n");
  EXPECT_FALSE(c.m_StandardModifyInstance);
  for (bool standard : {false, true}) {
    c.m_StandardModifyInstance = standard;
    answer("op_void.xml");
    EXPECT_EQ(c.Imethod_ModifyInstance(n, *inst, nullptr), 0u);
    const std::string inner =
        standard ? "<IPARAMVALUE NAME=\"ModifiedInstance\">\n<VALUE.NAMEDINSTANCE>\n" + nameText +
                       instText + "</VALUE.NAMEDINSTANCE>\n</IPARAMVALUE>\n"
                 : "<VALUE.NAMEDINSTANCE>\n<IPARAMVALUE NAME=\"InstanceName\">\n" + nameText +
                       "</IPARAMVALUE>\n" + instText + "</VALUE.NAMEDINSTANCE>\n";
    EXPECT_EQ(request(standard ? 1 : 0).body,
              Envelope(standard ? 1002 : 1001, "<IMETHODCALL NAME=\"ModifyInstance\">\n" + kNs +
                                                   inner + "</IMETHODCALL>\n"));
  }
  TraceCapture traces(TRACE_STATUS);
  EXPECT_EQ(c.Imethod_ModifyInstance(nullptr, *inst, nullptr), 1001u);
  EXPECT_TRUE(traces.has(TRACE_STATUS,
                         "[127.0.0.1] Imethod_ModifyInstance() bad CIMelement: instancename"));
  EXPECT_EQ(srv.requestCount(), 2u);
}

// ---------------------------------------------------------------------------------------
// Subscriptions.

std::mutex g_mu;
std::vector<std::string> g_received;

int OnIndication(std::string& body) {
  std::lock_guard<std::mutex> lock(g_mu);
  g_received.push_back(body);
  return 0;
}

size_t Received() {
  std::lock_guard<std::mutex> lock(g_mu);
  return g_received.size();
}

class Subscriptions : public ::testing::Test {
 protected:
  void SetUp() override {
    PointAt(c, srv.port());
    c.m_LocalIP = "127.0.0.1";
    c.setCurrentClass("OXS_StorageVolume", nullptr);
    port = oxtest::FreePort();
    tag = "oxCIM:127.0.0.1:" + std::to_string(port);
    std::lock_guard<std::mutex> lock(g_mu);
    g_received.clear();
  }
  void answer(const char* fixture) {
    srv.push(CannedResponse::cimOk(
        Replace(oxtest::ReadFixture(fixture), "oxCIM:127.0.0.1:PORT", tag)));
  }
  void answerCreates() {
    answer("ind_created_filter.xml");
    answer("ind_created_destination.xml");
    answer("ind_created_subscription.xml");
  }
  std::vector<oxtest::RecordedRequest> requests(size_t n) {
    srv.waitForRequests(n, 3000);
    return srv.requests();
  }
  // Method and target class of each request, one per line.
  std::string wire() {
    std::string out;
    for (const auto& r : srv.requests()) {
      size_t at = std::min(r.body.find("CLASSNAME=\""), r.body.find("<CLASSNAME NAME=\""));
      at = r.body.find('"', at) + 1;
      out += r.header("CIMMethod") + " " + r.body.substr(at, r.body.find('"', at) - at) + "\n";
    }
    return out;
  }
  bool listening() { return oxtest::RawExchange(port, "") != "<refused>"; }

  ScriptedServer srv;
  CIMcontainer c;
  int port = 0;
  std::string tag;
};

TEST_F(Subscriptions, IndicationArrivesOnceAndUnsubscribeRemovesEverything) {
  answerCreates();
  ASSERT_EQ(c.subscribe("SELECT * FROM CIM_AlertIndication WHERE PerceivedSeverity > 2", nullptr,
                        "root/oxs", port, OnIndication),
            0u);
  auto reqs = requests(3);
  ASSERT_EQ(reqs.size(), 3u);
  EXPECT_EQ(wire(),
            "CreateInstance CIM_IndicationFilter\nCreateInstance CIM_ListenerDestinationCIMXML\n"
            "CreateInstance CIM_IndicationSubscription\n");
  for (const auto& r : reqs) EXPECT_EQ(r.header("CIMObject"), "root%2Finterop");
  const std::string& filter = reqs[0].body;
  for (const std::string& part :
       {"<PROPERTY NAME=\"Name\" TYPE=\"string\">\n<VALUE>" + tag + "</VALUE>\n",
        std::string("<VALUE>SELECT * FROM CIM_AlertIndication WHERE PerceivedSeverity &gt; 2</VALUE>"),
        std::string("<PROPERTY NAME=\"QueryLanguage\" TYPE=\"string\">\n<VALUE>WQL</VALUE>"),
        std::string("<PROPERTY NAME=\"SourceNamespace\" TYPE=\"string\">\n<VALUE>root/oxs</VALUE>"),
        std::string("<PROPERTY.ARRAY NAME=\"SourceNamespaces\" TYPE=\"string\">\n<VALUE.ARRAY>\n"
                    "<VALUE>root/oxs</VALUE>")})
    EXPECT_NE(filter.find(part), std::string::npos) << part;
  // The subscription references the names the server returned, server-filled keys included.
  EXPECT_NE(reqs[2].body.find("<PROPERTY.REFERENCE NAME=\"Handler\" "
                              "REFERENCECLASS=\"CIM_ListenerDestinationCIMXML\">\n<VALUE.REFERENCE>\n"
                              "<INSTANCENAME CLASSNAME=\"CIM_ListenerDestinationCIMXML\">\n"
                              "<KEYBINDING NAME=\"SystemCreationClassName\">"),
            std::string::npos);
  EXPECT_EQ(c.m_Listener, c.m_Subscription.listener);

  // The server side: POST an indication to the destination it was given.
  const std::string dest = Section(reqs[1].body, "<VALUE>http://", "</VALUE>");
  const std::string url = dest.substr(7, dest.size() - 15);
  ASSERT_EQ(url, "http://127.0.0.1:" + std::to_string(port));
  const std::string body =
      "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n<CIM CIMVERSION=\"2.0\" DTDVERSION=\"2.0\">\n"
      "<MESSAGE ID=\"88\" PROTOCOLVERSION=\"1.0\">\n<SIMPLEEXPREQ>\n"
      "<EXPMETHODCALL NAME=\"ExportIndication\">\n<EXPPARAMVALUE NAME=\"NewIndication\">\n"
      "<INSTANCE CLASSNAME=\"CIM_AlertIndication\">\n</INSTANCE>\n</EXPPARAMVALUE>\n"
      "</EXPMETHODCALL>\n</SIMPLEEXPREQ>\n</MESSAGE>\n</CIM>\n";
  const std::string reply = oxtest::RawExchange(
      port, "POST /cimlistener HTTP/1.1\r\nHost: 127.0.0.1\r\nCIMExport: MethodRequest\r\n"
            "CIMExportMethod: ExportIndication\r\nContent-Length: " +
                std::to_string(body.size()) + "\r\n\r\n" + body);
  EXPECT_NE(reply.find("<MESSAGE ID=\"88\""), std::string::npos) << reply;
  ASSERT_TRUE(oxtest::Eventually([] { return Received() >= 1; }));
  EXPECT_EQ(Received(), 1u);
  {
    std::lock_guard<std::mutex> lock(g_mu);
    EXPECT_EQ(g_received[0], body);
  }

  EXPECT_EQ(c.subscribe("SELECT * FROM X", nullptr, nullptr, port, OnIndication), 1001u);
  srv.clearRequests();
  for (int i = 0; i < 3; ++i) answer("op_void.xml");
  EXPECT_EQ(c.unsubscribe(), 0u);
  reqs = requests(3);
  EXPECT_EQ(wire(),
            "DeleteInstance CIM_IndicationSubscription\nDeleteInstance CIM_ListenerDestinationCIMXML\n"
            "DeleteInstance CIM_IndicationFilter\n");
  EXPECT_NE(reqs[1].body.find("<KEYVALUE VALUETYPE=\"string\">array-01.example.net</KEYVALUE>"),
            std::string::npos);
  EXPECT_EQ(c.m_Listener, nullptr);
  EXPECT_FALSE(listening());
  EXPECT_EQ(Received(), 1u);
}

TEST_F(Subscriptions, RefusedDestinationDeletesTheFilterAndReportsTheFirstError) {
  answer("ind_created_filter.xml");
  srv.push(CannedResponse::cimOk(Replace(oxtest::ReadFixture("op_error.xml"), "CODE=\"6\"",
                                         "CODE=\"2\"")));
  answer("op_void.xml");
  EXPECT_EQ(c.subscribe("SELECT * FROM CIM_AlertIndication", "DMTF:CQL", nullptr, port, OnIndication),
            2u);
  EXPECT_EQ(c.ChkCimStatus(), 2);
  requests(3);
  EXPECT_EQ(wire(),
            "CreateInstance CIM_IndicationFilter\nCreateInstance CIM_ListenerDestinationCIMXML\n"
            "DeleteInstance CIM_IndicationFilter\n");
  EXPECT_NE(srv.requests()[0].body.find("<VALUE>DMTF:CQL</VALUE>"), std::string::npos);
  EXPECT_NE(srv.requests()[0].body.find("<VALUE>root/cimv2</VALUE>"), std::string::npos);
  EXPECT_EQ(c.m_Listener, nullptr);
  EXPECT_EQ(c.m_Subscription.filter, nullptr);
  EXPECT_FALSE(listening());
}

TEST_F(Subscriptions, ServerVariantsExistingInstancesOldSchemaAndLostSubscription) {
  // The filter class knows no SourceNamespaces; only the older destination class exists,
  // and our destination already does, found by its name; the server answers the
  // subscription without naming it.
  const std::string error = oxtest::ReadFixture("op_error.xml");
  srv.push(CannedResponse::cimOk(Replace(error, "CODE=\"6\"", "CODE=\"12\"")));
  answer("ind_created_filter.xml");
  srv.push(CannedResponse::cimOk(Replace(error, "CODE=\"6\"", "CODE=\"5\"")));
  srv.push(CannedResponse::cimOk(Replace(error, "CODE=\"6\"", "CODE=\"11\"")));
  const std::string names = Replace(Replace(oxtest::ReadFixture("ind_created_destination.xml"),
                                            "oxCIM:127.0.0.1:PORT", tag),
                                    "CIM_ListenerDestinationCIMXML", "CIM_IndicationHandlerCIMXML");
  srv.push(CannedResponse::cimOk(Replace(Replace(names, "CreateInstance", "EnumerateInstanceNames"),
                                         "<IRETURNVALUE>\n",
                                         "<IRETURNVALUE>\n" + Section(Replace(names, tag, "other"),
                                                                       "<INSTANCENAME", "</INSTANCENAME>\n"))));
  answer("op_void.xml");  // subscription created, no name in the answer
  const std::string subs = Replace(oxtest::ReadFixture("ind_created_subscription.xml"),
                                   "oxCIM:127.0.0.1:PORT", tag);
  srv.push(CannedResponse::cimOk(Replace(subs, "CreateInstance", "EnumerateInstanceNames")));
  TraceCapture traces(TRACE_STATUS);
  ASSERT_EQ(c.subscribe("SELECT * FROM CIM_AlertIndication", nullptr, nullptr, port, OnIndication), 0u);
  requests(7);
  EXPECT_EQ(wire(),
            "CreateInstance CIM_IndicationFilter\nCreateInstance CIM_IndicationFilter\n"
            "CreateInstance CIM_ListenerDestinationCIMXML\n"
            "CreateInstance CIM_IndicationHandlerCIMXML\n"
            "EnumerateInstanceNames CIM_IndicationHandlerCIMXML\n"
            "CreateInstance CIM_IndicationSubscription\n"
            "EnumerateInstanceNames CIM_IndicationSubscription\n");
  EXPECT_EQ(srv.requests()[1].body.find("SourceNamespaces"), std::string::npos);
  EXPECT_EQ(srv.requests()[3].body.find("Protocol"), std::string::npos);
  EXPECT_NE(srv.requests()[5].body.find("REFERENCECLASS=\"CIM_IndicationHandlerCIMXML\""),
            std::string::npos);
  EXPECT_EQ(Text(c.m_Subscription.destination->getValueOf(21, "Name")), tag);
  ASSERT_NE(c.m_Subscription.subscription, nullptr);
  EXPECT_TRUE(traces.has(TRACE_STATUS,
                         "[127.0.0.1] subscribe: using the existing CIM_IndicationHandlerCIMXML"));
  EXPECT_EQ(c.m_pcls, c.m_Classes.findClassName("OXS_StorageVolume", nullptr));

  // subscribe_check: the server lost the subscription; it is made again.
  srv.clearRequests();
  answer("op_getinstance.xml");
  answer("op_getinstance.xml");
  srv.push(CannedResponse::cimOk(error));
  answer("ind_created_subscription.xml");
  EXPECT_EQ(c.subscribe_check(), 0u);
  requests(4);
  EXPECT_EQ(wire(),
            "GetInstance CIM_IndicationFilter\nGetInstance CIM_IndicationHandlerCIMXML\n"
            "GetInstance CIM_IndicationSubscription\nCreateInstance CIM_IndicationSubscription\n");
  EXPECT_TRUE(traces.has(TRACE_STATUS, "[127.0.0.1] subscribe_check: re-creating CIM_IndicationSubscription"));

  // unsubscribe after the server lost the subscription: the rest still goes.
  srv.clearRequests();
  srv.push(CannedResponse::cimOk(error));
  answer("op_void.xml");
  answer("op_void.xml");
  EXPECT_EQ(c.unsubscribe(), 0u);
  requests(3);
  EXPECT_EQ(wire(),
            "DeleteInstance CIM_IndicationSubscription\nDeleteInstance CIM_IndicationHandlerCIMXML\n"
            "DeleteInstance CIM_IndicationFilter\n");
  EXPECT_FALSE(listening());
}

TEST_F(Subscriptions, CheckRestartsAStoppedListenerAndTheDestructorStopsIt) {
  {
    CIMcontainer d;
    PointAt(d, srv.port());
    d.m_LocalIP = "127.0.0.1";
    d.setCurrentClass("OXS_StorageVolume", nullptr);
    answerCreates();
    ASSERT_EQ(d.subscribe("SELECT * FROM CIM_AlertIndication", nullptr, nullptr, port, OnIndication), 0u);
    d.m_Listener->stop_Listener();
    EXPECT_FALSE(listening());
    TraceCapture traces(TRACE_STATUS);
    for (int i = 0; i < 3; ++i) answer("op_getinstance.xml");
    EXPECT_EQ(d.subscribe_check(), 0u);
    EXPECT_TRUE(traces.has(TRACE_STATUS, "[127.0.0.1] subscribe_check: restarting the listener"));
    EXPECT_TRUE(oxtest::Eventually([&] { return d.m_Listener && d.m_Listener->check_Listener(); }));
    EXPECT_EQ(srv.requestCount(), 6u);  // the three checks, nothing created
  }
  EXPECT_FALSE(listening());
}

TEST_F(Subscriptions, UnsubscribeAllRemovesWhatPointsAtThisHost) {
  // Two destinations, one of them ours; two subscriptions, one through ours.
  const std::string dests =
      "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n<CIM CIMVERSION=\"2.0\" DTDVERSION=\"2.0\">\n"
      "<MESSAGE ID=\"1001\" PROTOCOLVERSION=\"1.0\">\n<SIMPLERSP>\n"
      "<IMETHODRESPONSE NAME=\"EnumerateInstances\">\n<IRETURNVALUE>\n";
  std::string body = dests;
  for (const char* who : {"10.1.1.9", "127.0.0.1"}) {
    const std::string name = std::string("oxCIM:") + who + ":5990";
    body += "<VALUE.NAMEDINSTANCE>\n<INSTANCENAME CLASSNAME=\"CIM_ListenerDestinationCIMXML\">\n"
            "<KEYBINDING NAME=\"Name\">\n<KEYVALUE VALUETYPE=\"string\">" + name +
            "</KEYVALUE>\n</KEYBINDING>\n</INSTANCENAME>\n"
            "<INSTANCE CLASSNAME=\"CIM_ListenerDestinationCIMXML\">\n"
            "<PROPERTY NAME=\"Destination\" TYPE=\"string\">\n<VALUE>https://" + who +
            ":5990/cimlistener</VALUE>\n</PROPERTY>\n</INSTANCE>\n</VALUE.NAMEDINSTANCE>\n";
  }
  body += "</IRETURNVALUE>\n</IMETHODRESPONSE>\n</SIMPLERSP>\n</MESSAGE>\n</CIM>\n";
  const std::string sub = Replace(Section(oxtest::ReadFixture("ind_created_subscription.xml"),
                                          "<INSTANCENAME CLASSNAME=\"CIM_IndicationSubscription\">",
                                          "</INSTANCENAME>\n</IRETURNVALUE>"),
                                  "PORT", "5990");
  const std::string ours = sub.substr(0, sub.size() - std::string("</IRETURNVALUE>").size());
  const size_t handler = ours.find("NAME=\"Handler\"");
  // The other host's subscription uses a filter of its own, then one shared with ours:
  // a shared filter stays.
  for (bool shared : {false, true}) {
    SCOPED_TRACE(shared);
    const std::string other =
        shared ? ours.substr(0, handler) + Replace(ours.substr(handler), "127.0.0.1", "10.1.1.9")
               : Replace(ours, "127.0.0.1", "10.1.1.9");
    srv.clearRequests();
    srv.push(CannedResponse::cimOk(body));
    srv.push(CannedResponse::cimOk(
        Replace(oxtest::ReadFixture("op_error.xml"), "CODE=\"6\"", "CODE=\"5\"")));
    srv.push(CannedResponse::cimOk(Replace(dests, "EnumerateInstances", "EnumerateInstanceNames") +
                                   other + ours +
                                   "</IRETURNVALUE>\n</IMETHODRESPONSE>\n</SIMPLERSP>\n</MESSAGE>\n</CIM>\n"));
    for (int i = 0; i < 3; ++i) answer("op_void.xml");
    EXPECT_EQ(c.unsubscribe_all(), 0u);
    auto reqs = requests(shared ? 5 : 6);
    EXPECT_EQ(wire(),
              "EnumerateInstances CIM_ListenerDestinationCIMXML\n"
              "EnumerateInstances CIM_IndicationHandlerCIMXML\n"
              "EnumerateInstanceNames CIM_IndicationSubscription\n"
              "DeleteInstance CIM_IndicationSubscription\n"
              "DeleteInstance CIM_ListenerDestinationCIMXML\n" +
                  std::string(shared ? "" : "DeleteInstance CIM_IndicationFilter\n"));
    for (size_t i = 3; i < reqs.size(); ++i) {
      EXPECT_NE(reqs[i].body.find("oxCIM:127.0.0.1:5990"), std::string::npos) << i;
      EXPECT_EQ(reqs[i].body.find("10.1.1.9"), std::string::npos) << i;
    }
  }
  EXPECT_EQ(c.m_pcls, c.m_Classes.findClassName("OXS_StorageVolume", nullptr));
}

}  // namespace
