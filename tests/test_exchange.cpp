// The request/response exchange against a real HTTP(S) server on loopback.
#include <gtest/gtest.h>
#include <oxCIM.h>


#include <chrono>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "TestSupport.h"

using oxtest::CannedResponse;
using oxtest::ScriptedServer;
using oxtest::TraceCapture;

namespace {

constexpr const char* kRequest =
    "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n"
    "<CIM CIMVERSION=\"2.0\" DTDVERSION=\"2.0\">\n"
    "<MESSAGE ID=\"1001\" PROTOCOLVERSION=\"1.0\">\n"
    "<SIMPLEREQ>\n<IMETHODCALL NAME=\"GetInstance\">\n"
    "<LOCALNAMESPACEPATH><NAMESPACE NAME=\"root\"/><NAMESPACE NAME=\"cimv2\"/>"
    "</LOCALNAMESPACEPATH>\n"
    "<IPARAMVALUE NAME=\"InstanceName\"><INSTANCENAME CLASSNAME=\"OX_Disk\">"
    "<KEYBINDING NAME=\"DeviceID\"><KEYVALUE VALUETYPE=\"string\">disk0</KEYVALUE>"
    "</KEYBINDING></INSTANCENAME></IPARAMVALUE>\n"
    "</IMETHODCALL>\n</SIMPLEREQ>\n</MESSAGE>\n</CIM>\n";

std::string wrapResponse(const std::string& inner) {
  return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
         "<CIM CIMVERSION=\"2.0\" DTDVERSION=\"2.0\">"
         "<MESSAGE ID=\"1001\" PROTOCOLVERSION=\"1.0\"><SIMPLERSP>"
         "<IMETHODRESPONSE NAME=\"GetInstance\">" +
         inner + "</IMETHODRESPONSE></SIMPLERSP></MESSAGE></CIM>\n";
}

const std::string kInstanceResponse = wrapResponse(
    "<IRETURNVALUE><INSTANCE CLASSNAME=\"OX_Disk\">"
    "<PROPERTY NAME=\"DeviceID\" TYPE=\"string\"><VALUE>disk0</VALUE></PROPERTY>"
    "<PROPERTY NAME=\"Size\" TYPE=\"uint64\"><VALUE>1099511627776</VALUE></PROPERTY>"
    "</INSTANCE></IRETURNVALUE>");

void configure(oxCIM::CIMconnection& c, int port, const char* protocol = "http") {
  oxtest::PointAt(c, port, protocol);
  c.m_Request = kRequest;
}

class Exchange : public ::testing::Test {
 protected:
  void SetUp() override { configure(conn, server.port()); }


  int run(const char* object = "root/cimv2", const char* method = "GetInstance") {
    std::vector<char> obj(object, object + std::strlen(object) + 1);
    const int rc = conn.sendRequest_recvResponse(method, obj.data());
    EXPECT_STREQ(obj.data(), object) << "object must be unchanged on return";
    return rc;
  }

  bool statusTraced(const std::string& codeAndText) const {
    for (const auto& s : trace.statusCodes())
      if (s == codeAndText) return true;
    return false;
  }

  TraceCapture trace;
  ScriptedServer server;
  oxCIM::CIMconnection conn;
};

const oxCIM::CIMelement* findElement(const oxCIM::CIMelement& root, const char* name) {
  for (const oxCIM::CIMelement* e = &root; e; e = e->m_Next)
    if (e->m_Name && std::strcmp(e->m_Name, name) == 0) return e;
  return nullptr;
}

// ---------------------------------------------------------------------------------------

TEST_F(Exchange, RequestWireBytes) {
  server.push(CannedResponse::cimOk(kInstanceResponse));
  ASSERT_EQ(run(), 0);
  const auto reqs = server.requests();
  ASSERT_EQ(reqs.size(), 1u);
  const auto& r = reqs[0];
  EXPECT_EQ(r.requestLine, "POST /cimom HTTP/1.1");
  EXPECT_EQ(r.header("Authorization"), "Basic dXNlcjpzZWNyZXQ=");  // user:secret
  EXPECT_EQ(r.raw.find("\r\nExpect:"), std::string::npos);
  EXPECT_NE(r.raw.find("\r\nContent-type: application/xml; charset=\"utf-8\"\r\n"
                       "CIMOperation: MethodCall\r\n"
                       "CIMMethod: GetInstance\r\n"
                       "CIMObject: root%2Fcimv2\r\n"),
            std::string::npos)
      << r.raw;
  EXPECT_EQ(r.header("Content-Length"), std::to_string(std::strlen(kRequest)));
  EXPECT_EQ(r.body, kRequest);
}

TEST_F(Exchange, OnlyFirstSlashOfObjectIsEscaped) {
  const struct {
    const char* object;
    const char* header;
  } cases[] = {
      {"root/cimv2", "root%2Fcimv2"}, {"root/a/b", "root%2Fa/b"}, {"root/", "root"},
      {"interop", "interop"},         {"/x", "%2Fx"},
  };
  for (const auto& c : cases) {
    server.clearRequests();
    EXPECT_EQ(run(c.object, "EnumerateInstances"), 5001) << c.object;  // default: empty body
    const auto reqs = server.requests();
    ASSERT_EQ(reqs.size(), 1u);
    EXPECT_EQ(reqs[0].header("CIMObject"), c.header) << c.object;
    EXPECT_EQ(reqs[0].header("CIMMethod"), "EnumerateInstances");
  }
}

TEST_F(Exchange, GoodAnswerIsParsedAndTraced) {
  server.push(CannedResponse::cimOk(kInstanceResponse));
  conn.m_Info = oxCIM::NO_Auth | oxCIM::NO_Connect | 0x1;  // stale bits from an earlier call
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(conn.m_ErrCode, 0);
  EXPECT_EQ(conn.m_Info, 0x1u) << "only the transport's own bits are cleared";
  EXPECT_EQ(conn.m_Response, kInstanceResponse);
  EXPECT_EQ(conn.m_Header.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << conn.m_Header;
  const oxCIM::CIMelement* inst = findElement(conn.m_ResponseTree, "INSTANCE");
  ASSERT_NE(inst, nullptr);
  const oxCIM::CIMelement* value = findElement(*inst, "VALUE");
  ASSERT_NE(value, nullptr);
  EXPECT_STREQ(value->m_Value, "disk0");

  EXPECT_TRUE(trace.has(2, "[127.0.0.1]    Leave sendRequest_recvResponse() m_ErrCode=0"));
  EXPECT_TRUE(trace.statusCodes().empty());
}

TEST_F(Exchange, SlowlyDrippedBodyIsCollectedWhole) {
  CannedResponse r = CannedResponse::cimOk(kInstanceResponse);
  r.dripChunk = 97;
  r.dripPauseMs = 15;
  server.push(r);
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(conn.m_Response, kInstanceResponse);
  EXPECT_NE(findElement(conn.m_ResponseTree, "INSTANCE"), nullptr);
}

TEST_F(Exchange, ErrorElementIsReadByPosition) {
  const struct {
    const char* error;
    int rc;
    const char* traced;
  } cases[] = {
      {"<ERROR CODE=\"6\" DESCRIPTION=\"CIM_ERR_NOT_FOUND\"></ERROR>", 6, "6 CIM_ERR_NOT_FOUND"},
      {"<ERROR DESCRIPTION=\"CIM_ERR_NOT_FOUND\" CODE=\"6\"></ERROR>", 1001,
       "1001 No Description found in m_Response"},
      {"<ERROR CODE=\"0\" DESCRIPTION=\"zero\"></ERROR>", 1001, "1001 zero"},
      // A CIM code 7 is no connection failure.
      {"<ERROR CODE=\"7\"></ERROR>", 7, "7 No Description found in m_Response"},
  };
  for (const auto& c : cases) {
    trace.clear();
    server.push(CannedResponse::cimOk(wrapResponse(c.error)));
    EXPECT_EQ(run(), c.rc) << c.error;
    EXPECT_EQ(trace.statusCodes(), std::vector<std::string>{c.traced}) << c.error;
    EXPECT_EQ(conn.m_Info, 0u) << c.error;
  }
}

TEST_F(Exchange, BodyProblems) {
  server.push(CannedResponse::cimOk(""));
  EXPECT_EQ(run(), 5001);
  EXPECT_EQ(trace.statusCodes().back(), "5001 No data received from server");

  trace.clear();
  server.push(CannedResponse::cimOk("<CIM CIMVERSION=2.0><MESSAGE></MESSAGE></CIM>"));
  EXPECT_EQ(run(), 5002);
  EXPECT_EQ(trace.statusCodes().front(), "5002 Can't parse the m_Response");
  EXPECT_EQ(conn.m_Info, 0u);
}

TEST_F(Exchange, HttpErrorsKeepLibcurlCodeFirst) {
  CannedResponse unauthorized = CannedResponse::http(401, "Unauthorized");
  unauthorized.headers = {{"WWW-Authenticate", "Basic realm=\"cimom\""}};
  server.push(unauthorized);
  conn.m_Info = oxCIM::NO_Connect;
  EXPECT_EQ(run(), 22);
  EXPECT_EQ(conn.m_Info, oxCIM::NO_Auth);
  const auto first = trace.statusCodes();
  ASSERT_GE(first.size(), 2u);
  EXPECT_EQ(first[0].substr(0, 3), "22 ");
  EXPECT_EQ(first[1], "5000 Invalid username/password");
  EXPECT_TRUE(statusTraced("10401 HTTP/1.1 401 Unauthorized"));

  trace.clear();
  server.push(CannedResponse::http(500, "Internal Server Error", "oops"));
  EXPECT_EQ(run(), 22);
  EXPECT_EQ(conn.m_Info, 0u) << "a new exchange clears NO_Auth";
  EXPECT_TRUE(statusTraced("10500 HTTP/1.1 500 Internal Server Error"));
  EXPECT_TRUE(trace.has(2, "[127.0.0.1]    Leave sendRequest_recvResponse() m_ErrCode=22"));
}

TEST_F(Exchange, ResponseHeaderAnalysis) {
  CannedResponse r = CannedResponse::cimOk(kInstanceResponse);
  r.headers.push_back({"CIMStatusCode", "4"});
  r.headers.push_back({"CIMStatusCodeDescription", "CIM_ERR_INVALID_PARAMETER"});
  server.push(r);
  EXPECT_EQ(run(), 10004);
  EXPECT_EQ(trace.statusCodes(), std::vector<std::string>{"10004 CIMStatusCode: 4"});

  // An ERROR element outranks the header.
  r.body = wrapResponse("<ERROR CODE=\"4\" DESCRIPTION=\"bad\"></ERROR>");
  server.push(r);
  EXPECT_EQ(run(), 4);

  // A zero status header is no error.
  r = CannedResponse::cimOk(kInstanceResponse);
  r.headers.push_back({"CIMStatusCode", "0"});
  server.push(r);
  EXPECT_EQ(run(), 0);

  // 2xx other than 200 passes libcurl's fail-on-error and reaches the status-line check.
  r.status = 202;
  r.reason = "Accepted";
  server.push(r);
  EXPECT_EQ(run(), 10202);
  EXPECT_TRUE(statusTraced("10202 HTTP/1.1 202 Accepted"));
  EXPECT_EQ(conn.m_Info, 0u);
}

TEST_F(Exchange, MissingCredentialsFailBeforeConnecting) {
  for (auto clear : {+[](oxCIM::CIMconnection& c) { c.m_User.clear(); },
                     +[](oxCIM::CIMconnection& c) { c.m_Passwd.clear(); },
                     +[](oxCIM::CIMconnection& c) { c.m_Port.clear(); }}) {
    oxCIM::CIMconnection c;
    configure(c, server.port());
    clear(c);
    c.m_Info = oxCIM::NO_Connect | 0x1;
    std::vector<char> obj{'r', 'o', 'o', 't', 0};
    EXPECT_EQ(c.sendRequest_recvResponse("GetInstance", obj.data()), 5000);
    EXPECT_EQ(c.m_Info, oxCIM::NO_Auth | 0x1);
    EXPECT_EQ(c.m_Curl, nullptr);
  }
  EXPECT_EQ(server.connectionCount(), 0u);
  EXPECT_EQ(trace.statusCodes().back(),
            "5000 sendRequest_recvResponse: m_User, m_Passwd or m_Port not found");
}

TEST_F(Exchange, HandleSetupFailureIsReportedWithItsOwnCode) {
  conn.m_NoIPCheck = false;  // no resolved addresses: initCurlHandle refuses
  EXPECT_EQ(run(), 5004);
  EXPECT_EQ(conn.m_Curl, nullptr);
  const auto codes = trace.statusCodes();
  ASSERT_EQ(codes.size(), 2u);
  EXPECT_EQ(codes[1], "1001 sendRequest_recvResponse: curl interface is not initialized.");
  EXPECT_EQ(server.connectionCount(), 0u);
}

TEST_F(Exchange, ConnectionFailuresSetNoConnect) {
  conn.m_Port = std::to_string(oxtest::FreePort());
  EXPECT_EQ(run(), 7);
  EXPECT_EQ(conn.m_Info, oxCIM::NO_Connect);
  EXPECT_TRUE(trace.has(4, "[127.0.0.1] m_Info = 0x400 (NO_Connect)"));

  // Back to a live server: the bit is cleared by the next transfer.
  conn.m_Port = std::to_string(server.port());
  server.push(CannedResponse::cimOk(kInstanceResponse));
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(conn.m_Info, 0u);

  server.push(CannedResponse::closeWithoutReply());
  EXPECT_EQ(run(), 52);
  EXPECT_EQ(conn.m_Info, oxCIM::NO_Connect);
}

// Time budget: a server that accepts and never answers. Each case costs its budget in
// seconds, so only the two shortest budgets are exercised end to end.
TEST_F(Exchange, SilentServerTimesOutAtTheBudget) {
  server.setDefault(CannedResponse::neverAnswer());
  conn.SetExtraTimeOut(-20);  // 18 - 20 → raised to the 5-second minimum
  const auto t0 = std::chrono::steady_clock::now();
  const int rc = run();
  const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  EXPECT_TRUE(rc == 42 || rc == 28) << rc;
  EXPECT_EQ(conn.m_Info, oxCIM::NO_Connect);
  EXPECT_EQ(conn.m_ExtraTimeOut, 0) << "extra time applies to one exchange only";
  EXPECT_GE(secs, 4.0);
  EXPECT_LT(secs, 9.0);
  EXPECT_TRUE(trace.has(2, "[127.0.0.1] Leave checkProgress() now-start=5 >= 5 (timeout: fail)"));
}

TEST_F(Exchange, ActiveListenerLengthensTheBudget) {
  server.setDefault(CannedResponse::neverAnswer());
  __atomic_store_n(&oxCIM::ListenerThreadIsActive, 1, __ATOMIC_RELAXED);
  conn.SetExtraTimeOut(-30);  // 36 - 30 = 6 (it would be the 5 s minimum without a listener)
  const int rc = run();
  __atomic_store_n(&oxCIM::ListenerThreadIsActive, 0, __ATOMIC_RELAXED);
  EXPECT_EQ(rc, 42);
  EXPECT_TRUE(trace.has(2, "[127.0.0.1] Leave checkProgress() now-start=6 >= 6 (timeout: fail)"));
}

// ---------------------------------------------------------------------------------------
// HTTPS

class ExchangeTls : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { pki = new oxtest::TestPki(); }
  static void TearDownTestSuite() {
    delete pki;
    pki = nullptr;
  }
  static oxtest::TestPki* pki;

  // One exchange trusting `ca`; the client certificate is offered when asked for.
  int run(ScriptedServer& srv, oxCIM::CIMconnection& c, const std::string& ca, int verify,
          bool clientCert = false) {
    configure(c, srv.port(), "https");
    c.m_CAFile = ca;
    c.m_VerifyPeer = verify;
    if (clientCert) {
      c.m_CertFile = pki->clientCert;
      c.m_KeyFile = pki->clientKey;
    }
    char obj[] = "root/cimv2";
    return c.sendRequest_recvResponse("GetInstance", obj);
  }
  TraceCapture trace;
};
oxtest::TestPki* ExchangeTls::pki = nullptr;

TEST_F(ExchangeTls, VerifiedPeer) {
  ScriptedServer srv(ScriptedServer::Options{pki, false});
  srv.setDefault(CannedResponse::cimOk(kInstanceResponse));
  oxCIM::CIMconnection good, wrongCa, unverified;
  EXPECT_EQ(run(srv, good, pki->caFile, 1), 0);
  EXPECT_NE(findElement(good.m_ResponseTree, "INSTANCE"), nullptr);
  ASSERT_EQ(srv.requestCount(), 1u);
  EXPECT_EQ(srv.requests()[0].body, kRequest);

  EXPECT_EQ(run(srv, wrongCa, pki->otherCaFile, 1), 60);  // CURLE_PEER_FAILED_VERIFICATION
  EXPECT_EQ(wrongCa.m_Info, 0u);
  EXPECT_EQ(srv.requestCount(), 1u);
  EXPECT_EQ(run(srv, unverified, pki->otherCaFile, 0), 0);  // verification off
}

TEST_F(ExchangeTls, ClientCertificateRequiredByServer) {
  ScriptedServer srv(ScriptedServer::Options{pki, true});
  srv.setDefault(CannedResponse::cimOk(kInstanceResponse));
  oxCIM::CIMconnection withCert, without;
  EXPECT_EQ(run(srv, withCert, pki->caFile, 1, true), 0);
  EXPECT_EQ(srv.requestCount(), 1u);
  const int rc = run(srv, without, pki->caFile, 1);
  // TLS 1.3 lets the client write before it learns of the refusal, so the alert surfaces
  // as a handshake, send or receive failure depending on timing.
  EXPECT_TRUE(rc == 35 || rc == 55 || rc == 56) << rc;
  EXPECT_EQ(srv.requestCount(), 1u) << "no request may get through without a certificate";
}

// ---------------------------------------------------------------------------------------
// The progress callback on its own

class Progress : public ::testing::Test {
 protected:
  oxCIM::CIMprogress rec{0, 0, 0, 18, "cim.example"};
  static int64_t now() { return static_cast<int64_t>(std::time(nullptr)); }
  int call(double dltotal = 0, double dlnow = 0) {
    return oxCIM::CIMconnection::checkProgress(&rec, dltotal, dlnow, 0, 0);
  }
  TraceCapture trace;
};

TEST_F(Progress, CompleteBodyShortCircuits) {
  rec.start = now() - 1000;  // long over budget
  rec.last = now();
  const oxCIM::CIMprogress before = rec;
  EXPECT_EQ(call(512, 512), 0);
  EXPECT_EQ(std::memcmp(&before, &rec, sizeof rec), 0) << "record must stay untouched";
  // Nothing received yet: 0 == 0 is no completion.
  EXPECT_EQ(call(0, 0), 1);
  // Partly received: still subject to the budget.
  EXPECT_EQ(call(512, 100), 1);
}

TEST_F(Progress, BudgetCoversThePeriod) {
  const int64_t t = now();
  rec.fixups = 1;
  rec.timeout = 5;
  rec.start = t - 2;
  rec.last = t;
  EXPECT_EQ(call(), 0);
  EXPECT_GE(rec.last, t);

  rec.start = rec.last - 5;
  EXPECT_EQ(call(), 1);
  bool traced = false;
  for (const auto& r : trace.records())
    traced |= r.level == 2 && r.function == "checkProgress" &&
              r.text.rfind("[cim.example] Leave checkProgress() now-start=", 0) == 0 &&
              r.text.find(" >= 5 (timeout: fail)") != std::string::npos;
  EXPECT_TRUE(traced);
  EXPECT_EQ(rec.fixups, 1u);

  // A pause of ten seconds is still a regular tick (no restart, so the budget holds).
  rec.start = rec.last = now() - 10;
  rec.timeout = 30;
  EXPECT_EQ(call(), 0);
  EXPECT_EQ(rec.fixups, 1u);
}

TEST_F(Progress, ClockJumpsRestartUpToFiveTimes) {
  rec.timeout = 5;
  EXPECT_EQ(call(), 0);  // the first call starts the period: fixup 1
  EXPECT_EQ(rec.fixups, 1u);
  EXPECT_EQ(rec.last, rec.start);
  EXPECT_EQ(call(), 0);
  EXPECT_EQ(rec.fixups, 1u) << "a regular tick is no fixup";
  for (uint32_t i = 2; i <= 5; ++i) {
    if (i % 2)
      rec.last = now() - 11;    // forward jump (or a pause of 11 s)
    else
      rec.last = now() + 3600;  // clock set back
    rec.start = rec.last - 100;  // would be over budget without the restart
    EXPECT_EQ(call(), 0) << i;
    EXPECT_EQ(rec.fixups, i);
    EXPECT_NEAR(static_cast<double>(rec.start), static_cast<double>(now()), 1);
  }
  EXPECT_FALSE(trace.has(2, "[cim.example] Leave checkProgress() too many fixups occurred -> fail"));
  rec.last = now() - 20;
  EXPECT_EQ(call(), 1);
  EXPECT_EQ(rec.fixups, 6u);
  EXPECT_TRUE(trace.has(2, "[cim.example] Leave checkProgress() too many fixups occurred -> fail"));
}

}  // namespace
