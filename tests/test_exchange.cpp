// The request/response exchange against a real HTTP(S) server on loopback.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <ctime>

#include "TestSupport.h"

using namespace oxtest;

namespace {

const std::string kRequest = oxtest::ReadFixture("xchg_request.xml");
const std::string kInstance = oxtest::ReadFixture("xchg_instance.xml");

// The instance answer with an ERROR element of `attributes` in place of its return value.
CannedResponse Error(const std::string& attributes) {
  std::string a = kInstance;
  const size_t b = a.find("<IRETURNVALUE>");
  return CannedResponse::cimOk(a.replace(b, a.find("</IMETHODRESPONSE>") - b, "<ERROR " + attributes + "></ERROR>"));
}

const char* const kNoCredentials =
    "5000 sendRequest_recvResponse: m_User, m_Passwd or m_Port not found";

CannedResponse With(CannedResponse r, const char* header, const char* value) {
  r.headers.push_back({header, value});
  return r;
}

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

  TraceCapture trace;
  ScriptedServer server;
  oxCIM::CIMconnection conn;
};

// ---------------------------------------------------------------------------------------

// The request on the wire, and a good answer parsed.
TEST_F(Exchange, RequestWireBytesAndGoodAnswer) {
  server.push(CannedResponse::cimOk(kInstance));
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(conn.m_Response, kInstance);
  EXPECT_EQ(conn.m_Header.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << conn.m_Header;
  ASSERT_NE(conn.m_ResponseTree.findelement(16, 0), nullptr);  // INSTANCE
  EXPECT_STREQ(conn.m_ResponseTree.findelement(16, 0)->getValueOfProperty("DeviceID"), "disk0");
  const auto r = server.requests().at(0);
  EXPECT_EQ(r.requestLine, "POST /cimom HTTP/1.1");
  EXPECT_EQ(r.header("Authorization"), "Basic dXNlcjpzZWNyZXQ=");  // user:secret
  EXPECT_EQ(r.raw.find("\r\nExpect:"), std::string::npos);
  EXPECT_NE(r.raw.find("\r\nContent-type: application/xml; charset=\"utf-8\"\r\n"
                       "CIMOperation: MethodCall\r\nCIMMethod: GetInstance\r\n"
                       "CIMObject: root%2Fcimv2\r\n"),
            std::string::npos)
      << r.raw;
  EXPECT_EQ(r.header("Content-Length"), std::to_string(kRequest.size()));
  EXPECT_EQ(r.body, kRequest);
}

// What each kind of answer is worth: the code returned, the status records in order and
// the connection bits (stale ones from an earlier call go, others stay). A `*` stands for
// libcurl's own text.
TEST_F(Exchange, AnswersAndTheirVerdicts) {
  const char* kNoData = "5001 No data received from server";  // libcurl drops an error body
  const char* kUnparsed = "5002 Can't parse the m_Response";
  const struct {
    CannedResponse answer;
    int rc;
    std::vector<std::string> codes;
    unsigned info;
  } cases[] = {
      {CannedResponse::cimOk(kInstance), 0, {}, 0},
      // The ERROR element is read by attribute position: CODE first, DESCRIPTION second.
      {Error("DESCRIPTION=\"NOT_FOUND\" CODE=\"6\""), 1001, {"1001 No Description found in m_Response"}, 0},
      {Error("CODE=\"0\" DESCRIPTION=\"zero\""), 1001, {"1001 zero"}, 0},
      // A CIM code 7 is no connection failure.
      {Error("CODE=\"7\""), 7, {"7 No Description found in m_Response"}, 0},
      {CannedResponse::cimOk(""), 5001, {kNoData}, 0},
      {CannedResponse::closeWithoutReply(), 52, {"52 *", kUnparsed}, oxCIM::NO_Connect},
      {CannedResponse::cimOk("<CIM CIMVERSION=2.0><MESSAGE></MESSAGE></CIM>"), 5002, {kUnparsed}, 0},
      {With(CannedResponse::http(401, "Unauthorized"), "WWW-Authenticate", "Basic realm=\"cimom\""),
       22, {"22 *", "5000 Invalid username/password", kNoData, "10401 HTTP/1.1 401 Unauthorized"},
       oxCIM::NO_Auth},
      {CannedResponse::http(400, "Bad Request"), 22, {"22 *", kNoData, "10400 HTTP/1.1 400 Bad Request"}, 0},
      {CannedResponse::http(500, "Internal Server Error", "oops"), 22,
       {"22 *", kNoData, "10500 HTTP/1.1 500 Internal Server Error"}, 0},
      // 2xx other than 200 passes libcurl's fail-on-error and reaches the status-line check.
      {CannedResponse::http(202, "Accepted", kInstance), 10202, {"10202 HTTP/1.1 202 Accepted"}, 0},
      {With(CannedResponse::cimOk(kInstance), "CIMStatusCode", "4"), 10004, {"10004 CIMStatusCode: 4"}, 0},
      // An ERROR element outranks the header.
      {With(Error("CODE=\"4\" DESCRIPTION=\"bad\""), "CIMStatusCode", "4"), 4, {"4 bad", "10004 CIMStatusCode: 4"}, 0},
  };
  for (const auto& k : cases) {
    SCOPED_TRACE(std::to_string(k.answer.status) + " " + k.answer.body);
    server.push(k.answer);
    conn.m_Info = oxCIM::NO_Auth | oxCIM::NO_Connect | 0x1;
    trace.clear();
    EXPECT_EQ(run(), k.rc);
    EXPECT_EQ(conn.m_Info, k.info | 0x1);
    std::vector<std::string> codes = trace.statusCodes();
    if (k.codes.size() && k.codes[0].back() == '*') codes[0] = codes[0].substr(0, 3) + "*";
    EXPECT_EQ(codes, k.codes);
    EXPECT_TRUE(trace.has(2, "[127.0.0.1]    Enter sendRequest_recvResponse()"));
    EXPECT_TRUE(trace.has(2, "[127.0.0.1]    Leave sendRequest_recvResponse() m_ErrCode=" +
                                 std::to_string(k.rc)));
  }
}

// Without credentials or a curl handle nothing is sent.
TEST_F(Exchange, NothingIsSentWithoutCredentialsOrHandle) {
  using C = oxCIM::CIMconnection;
  const struct {
    void (*spoil)(C&);
    int rc;
    unsigned info;
    const char* last;  // status record
  } cases[] = {
      {[](C& c) { c.m_User.clear(); }, 5000, oxCIM::NO_Auth | 0x1, kNoCredentials},
      {[](C& c) { c.m_Passwd.clear(); }, 5000, oxCIM::NO_Auth | 0x1, kNoCredentials},
      {[](C& c) { c.m_Port.clear(); }, 5000, oxCIM::NO_Auth | 0x1, kNoCredentials},
      // No resolved addresses: initCurlHandle refuses.
      {[](C& c) { c.m_NoIPCheck = false; }, 5004, oxCIM::NO_Connect | 0x1,
       "1001 sendRequest_recvResponse: curl interface is not initialized."},
  };
  for (const auto& k : cases) {
    C c;
    configure(c, server.port());
    k.spoil(c);
    c.m_Info = oxCIM::NO_Connect | 0x1;
    std::vector<char> obj{'r', 'o', 'o', 't', 0};
    EXPECT_EQ(c.sendRequest_recvResponse("GetInstance", obj.data()), k.rc);
    EXPECT_EQ(c.m_Info, k.info);
    EXPECT_EQ(c.m_Curl, nullptr);
    EXPECT_EQ(trace.statusCodes().back(), k.last);
  }
  EXPECT_EQ(server.connectionCount(), 0u);
}

// Refused, and a server that accepts and never answers: each silent case costs its budget
// in seconds, so only the two shortest budgets are exercised end to end.
TEST_F(Exchange, TransportFailuresSetNoConnect) {
  const struct {
    bool silent, listener;
    int extra, budget;
    std::vector<int> rcs;  // any of them
    const char* traced;
  } cases[] = {
      {false, false, 0, 0, {7}, "[127.0.0.1] m_Info = 0x400 (NO_Connect)"},
      // 18 - 14 = 4: raised to the 5-second minimum
      {true, false, -14, 5, {42, 28},
       "[127.0.0.1] Leave checkProgress() now-start=5 >= 5 (timeout: fail)"},
      // 36 - 30 = 6: an active listener lengthens the budget
      {true, true, -30, 6, {42},
       "[127.0.0.1] Leave checkProgress() now-start=6 >= 6 (timeout: fail)"},
  };
  server.setDefault(CannedResponse::neverAnswer());
  for (const auto& k : cases) {
    configure(conn, k.silent ? server.port() : oxtest::FreePort());
    __atomic_store_n(&oxCIM::ListenerThreadIsActive, k.listener ? 1 : 0, __ATOMIC_RELAXED);
    conn.SetExtraTimeOut(k.extra);
    const auto t0 = std::chrono::steady_clock::now();
    const int rc = run();
    const std::chrono::duration<double> secs = std::chrono::steady_clock::now() - t0;
    __atomic_store_n(&oxCIM::ListenerThreadIsActive, 0, __ATOMIC_RELAXED);
    EXPECT_NE(std::find(k.rcs.begin(), k.rcs.end(), rc), k.rcs.end()) << rc;
    EXPECT_EQ(conn.m_Info, oxCIM::NO_Connect);
    EXPECT_EQ(conn.m_ExtraTimeOut, 0) << "extra time applies to one exchange only";
    EXPECT_GE(secs.count(), k.budget - 1.0);
    EXPECT_LT(secs.count(), k.budget + 4.0);
    EXPECT_TRUE(trace.has(k.silent ? 2 : 4, k.traced)) << k.traced;
  }
}

// ---------------------------------------------------------------------------------------
// HTTPS

TEST(ExchangeTls, PeerVerificationAndClientCertificates) {
  oxtest::TestPki pki;
  ScriptedServer open(ScriptedServer::Options{&pki, false});
  ScriptedServer strict(ScriptedServer::Options{&pki, true});  // wants a client certificate
  open.setDefault(CannedResponse::cimOk(kInstance));
  strict.setDefault(CannedResponse::cimOk(kInstance));
  const struct {
    ScriptedServer& srv;
    std::string ca;
    int verify;
    bool cert;
    std::vector<int> rcs;  // any of them
    size_t requests;       // the server saw so far
  } cases[] = {
      {open, pki.caFile, 1, false, {0}, 1},
      {open, pki.otherCaFile, 1, false, {60}, 1},  // CURLE_PEER_FAILED_VERIFICATION
      {open, pki.otherCaFile, 0, false, {0}, 2},   // verification off
      {strict, pki.caFile, 1, true, {0}, 1},
      // TLS 1.3 lets the client write before it learns of the refusal, so the alert
      // surfaces as a handshake, send or receive failure depending on timing.
      {strict, pki.caFile, 1, false, {35, 55, 56}, 1},
  };
  for (const auto& k : cases) {
    oxCIM::CIMconnection c;
    configure(c, k.srv.port(), "https");
    c.m_CAFile = k.ca;
    c.m_VerifyPeer = k.verify;
    c.m_CertFile = k.cert ? pki.clientCert : "";
    c.m_KeyFile = k.cert ? pki.clientKey : "";
    char obj[] = "root/cimv2";
    const int rc = c.sendRequest_recvResponse("GetInstance", obj);
    EXPECT_NE(std::find(k.rcs.begin(), k.rcs.end(), rc), k.rcs.end()) << rc;
    EXPECT_EQ(k.srv.requestCount(), k.requests);
    EXPECT_EQ(c.m_Info, 0u);
    if (rc == 0) {
      EXPECT_EQ(k.srv.requests().back().body, kRequest);
      EXPECT_NE(c.m_ResponseTree.findelement(16, 0), nullptr);
    }
  }
}

// ---------------------------------------------------------------------------------------
// The progress callback on its own

// Rows run in order on one record. Ages are seconds before now (negative: ahead of it).
TEST(Progress, BudgetCompletionAndClockJumps) {
  oxCIM::CIMprogress rec{0, 0, 0, 18, "cim.example"};
  auto now = [] { return static_cast<int64_t>(std::time(nullptr)); };
  TraceCapture trace;
  const struct {
    int64_t startAge, lastAge;  // start -1: not started
    uint32_t fixups;
    int timeout;
    double dltotal, dlnow;
    int want;
    uint32_t wantFixups;
    const char* traced;  // part of the checkProgress record, "" for none
  } cases[] = {
      {1000, 0, 0, 18, 512, 512, 0, 0, ""},  // complete body: even over budget, untouched
      {1000, 0, 0, 18, 0, 0, 1, 0, " >= 18 (timeout: fail)"},  // 0 == 0 is no completion
      {1000, 0, 0, 18, 512, 100, 1, 0, " >= 18 (timeout: fail)"},  // partly received
      {2, 0, 1, 5, 0, 0, 0, 1, ""},
      {5, 0, 1, 5, 0, 0, 1, 1, " >= 5 (timeout: fail)"},
      {10, 10, 1, 30, 0, 0, 0, 1, ""},  // a pause of ten seconds is still a regular tick
      {-1, 0, 0, 5, 0, 0, 0, 1, ""},    // the first call starts the period
      {0, 0, 1, 5, 0, 0, 0, 1, ""},     // a regular tick is no fixup
      {111, 11, 1, 5, 0, 0, 0, 2, ""},  // forward jump (or a pause of 11 s): restart
      {100 - 3600, -3600, 2, 5, 0, 0, 0, 3, ""},  // clock set back: restart
      {111, 11, 4, 5, 0, 0, 0, 5, ""},
      {120, 20, 5, 5, 0, 0, 1, 6, "too many fixups occurred -> fail"},
  };
  for (const auto& k : cases) {
    SCOPED_TRACE(k.startAge);
    trace.clear();
    rec.start = k.startAge < 0 ? 0 : now() - k.startAge;
    rec.last = now() - k.lastAge;
    rec.fixups = k.fixups;
    rec.timeout = k.timeout;
    const oxCIM::CIMprogress before = rec;
    EXPECT_EQ(oxCIM::CIMconnection::checkProgress(&rec, k.dltotal, k.dlnow, 0, 0), k.want);
    EXPECT_EQ(rec.fixups, k.wantFixups);
    if (k.dlnow != 0 && k.dlnow == k.dltotal) {
      EXPECT_EQ(std::memcmp(&before, &rec, sizeof rec), 0) << "record must stay untouched";
    } else if (k.want == 0) {
      EXPECT_NEAR(static_cast<double>(rec.last), static_cast<double>(now()), 1);
      EXPECT_TRUE(k.fixups == k.wantFixups || rec.start == rec.last) << "a restart";
    }
    const auto texts = trace.texts("checkProgress");
    ASSERT_EQ(texts.size(), *k.traced ? 1u : 0u);
    EXPECT_TRUE(texts.empty() || (texts[0].rfind("[cim.example] Leave checkProgress() ", 0) == 0 &&
                                  texts[0].find(k.traced) != std::string::npos))
        << texts[0];
  }
}

}  // namespace
