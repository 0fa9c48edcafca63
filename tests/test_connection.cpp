// Connection lifecycle, curl handle management, copying and the CIM status.
#include "TestSupport.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <boost/weak_ptr.hpp>
#include <cstring>

using oxCIM::CIMconnection;
using oxCIM::CIMelement;
using Traces = oxtest::TraceCapture;

namespace {

// CIM > MESSAGE > VALUE "hello", built by hand.
void BuildTree(CIMelement& root) {
  root.m_Name = oxCIM::known_cim_elements[1];
  CIMelement* msg = root.makeNextElement();
  msg->m_Name = oxCIM::known_cim_elements[26];
  CIMelement* val = root.makeNextElement();
  val->m_Name = oxCIM::known_cim_elements[60];
  val->m_Parent = msg;
  val->m_Value = strdup("hello");
}

std::vector<std::string> Headers(const curl_slist* l) {
  std::vector<std::string> out;
  for (; l != nullptr; l = l->next) out.emplace_back(l->data);
  return out;
}

// The first error wins; every call is traced with its own code and file name, libcurl's
// text stands in for a missing description; one dump, and nothing when the level is off.
TEST(CimStatus, FirstErrorWinsEachCallTracedWithItsOwnCodeAndOneDump) {
  Traces t(4);
  CIMconnection c;
  c.m_Host = "srv1";
  c.m_Request = "<CIM/>\n";
  c.m_Header = "HTTP/1.1 500 Internal Server Error\r\n\r\n";
  c.m_Response = "oops";
  const struct { int code; const char* description; const char* file; int result; } calls[] = {
      {0, "nothing", "/b/Src/x.cpp", 0},          {22, "first", "C:\\src\\oxcim\\CIMops.cpp", 22},
      {5002, "second", "/build/Src/CIMops.cpp", 22}, {0, "zero", "a/b\\c/CIMops.cpp", 22},
      {7, nullptr, "f.cpp", 22},                  {12345, nullptr, "f.cpp", 22}};
  for (const auto& k : calls) EXPECT_EQ(c.SetCimStatus_FL(k.code, k.description, k.file, 5), k.result);
  EXPECT_EQ(c.ChkCimStatus(), 22);
  EXPECT_EQ(t.texts("SetCimStatus_FL"),
            (std::vector<std::string>{"[srv1] SetCimStatus: x.cpp@5  ErrCode:0 nothing",
                                      "[srv1] SetCimStatus: CIMops.cpp@5  ErrCode:22 first",
                                      "[srv1] SetCimStatus: CIMops.cpp@5  ErrCode:5002 second",
                                      "[srv1] SetCimStatus: CIMops.cpp@5  ErrCode:0 zero",
                                      std::string("[srv1] SetCimStatus: f.cpp@5  ErrCode:7 ") +
                                          curl_easy_strerror(CURLE_COULDNT_CONNECT),
                                      std::string("[srv1] SetCimStatus: f.cpp@5  ErrCode:12345 ") +
                                          curl_easy_strerror(CURLcode(12345))}));
  c.m_Request.clear();
  c.m_Header.clear();
  c.m_Response.clear();
  c.Debug_Request_Response();
  EXPECT_EQ(t.texts("Debug_Request_Response"),
            (std::vector<std::string>{"[srv1] ------ REQUEST:\n<CIM/>\n------ RESPONSE-HEADER:\n"
                                      "HTTP/1.1 500 Internal Server Error\r\n\r\n------ RESPONSE:\noops",
                                      "[srv1] ------ REQUEST:\n------ RESPONSE-HEADER:\n------ RESPONSE:\n"}));
  oxCIM::oxCIM.SetTraceMask(2 | 16);
  t.clear();
  CIMconnection quiet;
  EXPECT_EQ(quiet.SetCimStatus_FL(5000, "Invalid username/password", "f.cpp", 1), 5000);
  EXPECT_TRUE(t.texts().empty());
}

TEST(CurlHandle, AddressChecksFirstThenCreatedOnceAndKeptWhileHeaderListIsDropped) {
  Traces t(2 | 4 | 16 | 0x40000000);
  CIMconnection c;
  c.m_Host = "srv";
  c.m_HeaderList = curl_slist_append(nullptr, "X-Old: 1");
  EXPECT_EQ(c.initCurlHandle(), 5004);
  c.m_LocalIP = "10.0.0.1";
  EXPECT_EQ(c.initCurlHandle(), 5003);  // the status is reset first
  EXPECT_EQ(c.m_Curl, nullptr);
  EXPECT_NE(c.m_HeaderList, nullptr);  // left alone by the early returns
  EXPECT_EQ(t.statusCodes(), (std::vector<std::string>{"5004 initCurlHandle: bad local-IP-Address",
                                                       "5003 initCurlHandle: bad server-IP-Address"}));
  t.clear();
  c.m_ServerIP = "10.0.0.2";
  EXPECT_EQ(c.initCurlHandle(), 0);
  void* first = c.m_Curl;
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(c.m_HeaderList, nullptr);
  EXPECT_EQ(t.texts("initCurlHandle"), (std::vector<std::string>{
                                           "[srv]       initCurlHandle: CURL_EASY_INIT done",
                                           "[srv]       initCurlHandle: SSL=0x0"}));
  t.clear();
  c.m_HeaderList = curl_slist_append(nullptr, "CIMMethod: GetClass");
  c.m_ErrCode = 5001;
  EXPECT_EQ(c.initCurlHandle(), 0);
  EXPECT_EQ(c.m_Curl, first);
  EXPECT_EQ(c.m_HeaderList, nullptr);
  EXPECT_TRUE(t.texts().empty());

  // Options libcurl refuses are recorded without stopping the sequence.
  c.releaseCurlHandle();
  c.m_Host.clear();
  c.m_CertFile.assign(9u << 20, 'c');  // beyond libcurl's input limit for option strings
  c.m_CAFile.assign(9u << 20, 'a');
  EXPECT_EQ(c.initCurlHandle(), CURLE_BAD_FUNCTION_ARGUMENT);
  EXPECT_NE(c.m_Curl, nullptr);
  EXPECT_EQ(t.statusCodes(),
            std::vector<std::string>(2, "43 " + std::string(curl_easy_strerror(CURLE_BAD_FUNCTION_ARGUMENT))));
  EXPECT_EQ(t.texts("Debug_Request_Response").size(), 1u);
  EXPECT_EQ(t.texts("initCurlHandle").back(), "[]       initCurlHandle: SSL=0x4");
}

TEST(CurlHandle, ReleaseAndDestructionFreeHandleAndAlwaysCleanBuffers) {
  Traces t(16);
  {
    CIMconnection c;
    c.m_Host = "r";
    c.m_NoIPCheck = true;
    for (int round : {0, 1}) {  // the second one is destroyed with all of it (the leak checker watches)
      ASSERT_EQ(c.initCurlHandle(), 0);
      c.m_HeaderList = curl_slist_append(nullptr, "Expect:");
      c.m_ErrCode = round ? 0 : 22;
      c.m_Info = round ? 0 : oxCIM::NO_Connect;
      c.m_Request = c.m_Header = c.m_Response = "x";
      BuildTree(c.m_ResponseTree);
      if (round) break;
      c.releaseCurlHandle();
      EXPECT_TRUE(c.m_Curl == nullptr && c.m_HeaderList == nullptr);
      EXPECT_EQ(c.m_Request + c.m_Header + c.m_Response, "");
      EXPECT_TRUE(c.m_ResponseTree.m_Name == nullptr && c.m_ResponseTree.m_Next == nullptr);
      EXPECT_EQ(c.m_ErrCode, 22);
      c.m_Header = "h";
      c.releaseCurlHandle();  // no handle: nothing traced, buffers still emptied
      EXPECT_EQ(c.m_Header, "");
    }
  }
  EXPECT_EQ(t.texts("releaseCurlHandle"),
            (std::vector<std::string>{"[r] releaseCurlHandle: CURL_EASY_CLEANUP (m_ErrCode=22 m_Info=0x400)",
                                      "[r] releaseCurlHandle: CURL_EASY_CLEANUP (m_ErrCode=0 m_Info=0x0)"}));
}

TEST(CurlHandle, DuplicateReplacesWithoutLeakingAndNullClears) {
  Traces t(4);
  CIMconnection a, b;
  a.m_NoIPCheck = true;
  b.m_Host = "dup";
  ASSERT_EQ(a.initCurlHandle(), 0);
  b.duplicateCurlHandle(a.m_Curl);
  EXPECT_TRUE(b.m_Curl != nullptr && b.m_Curl != a.m_Curl);
  b.duplicateCurlHandle(b.m_Curl);  // duplicate of itself: the old one goes afterwards
  EXPECT_NE(b.m_Curl, nullptr);
  b.duplicateCurlHandle(nullptr);
  EXPECT_EQ(b.m_Curl, nullptr);
  EXPECT_EQ(t.texts(), std::vector<std::string>(2, "[dup] duplicateCurlHandle: CURLhandle duplicated"));
}

// Every text and integer that assignment copies.
std::string CIMconnection::* const kTexts[] = {
    &CIMconnection::m_Host,     &CIMconnection::m_User,     &CIMconnection::m_Passwd,   &CIMconnection::m_Protocol,
    &CIMconnection::m_Port,     &CIMconnection::m_CAFile,   &CIMconnection::m_CertFile, &CIMconnection::m_KeyFile,
    &CIMconnection::m_OSName,   &CIMconnection::m_ServerIP, &CIMconnection::m_FQDN,     &CIMconnection::m_LocalIP,
    &CIMconnection::m_Request,  &CIMconnection::m_Header,   &CIMconnection::m_Response};
int32_t CIMconnection::* const kInts[] = {
    &CIMconnection::m_VerifyPeer,   &CIMconnection::m_ErrCode,      &CIMconnection::m_MessageID,
    &CIMconnection::m_CreationTime, &CIMconnection::m_ExtraTimeOut, &CIMconnection::m_Reserved};

void Fill(CIMconnection& s) {
  int n = 0;
  for (auto m : kTexts) s.*m = "text" + std::to_string(++n);
  for (auto m : kInts) s.*m = 1000 + ++n;
  s.m_Info = oxCIM::NO_Auth;
  s.m_NoIPCheck = true;
  s.m_StandardModifyInstance = true;
  s.m_MaxResponseBytes = 12345;
  BuildTree(s.m_ResponseTree);
}

void ExpectCopied(const CIMconnection& d, const CIMconnection& s) {
  for (auto m : kTexts) EXPECT_EQ(d.*m, s.*m);
  for (auto m : kInts) EXPECT_EQ(d.*m, s.*m);
  EXPECT_EQ(d.m_Info, s.m_Info);
  EXPECT_EQ(d.m_NoIPCheck, s.m_NoIPCheck);
  EXPECT_EQ(d.m_StandardModifyInstance, s.m_StandardModifyInstance);
  EXPECT_EQ(d.m_MaxResponseBytes, s.m_MaxResponseBytes);
  EXPECT_EQ(d.m_ErrCnt.get(), s.m_ErrCnt.get());
  EXPECT_EQ(d.m_SharedLock.get(), s.m_SharedLock.get());
  // The tree is a copy of its own (deep copies are the element tree's tests' business).
  const CIMelement* dm = d.m_ResponseTree.m_Next;
  ASSERT_TRUE(dm != nullptr && dm->m_Next != nullptr && dm->m_Next->m_Value != nullptr);
  EXPECT_NE(dm, s.m_ResponseTree.m_Next);
  EXPECT_STREQ(dm->m_Next->m_Value, "hello");
}

// Without a handle the target drops its own and shares the source's; with one, chained
// assignments give independent duplicates.
TEST(ConnectionAssign, TargetDropsItsOwnSharesTheSourceAndChainsDuplicateTheHandle) {
  auto src = std::make_unique<CIMconnection>();
  Fill(*src);
  CIMconnection dst;
  dst.m_NoIPCheck = true;
  ASSERT_EQ(dst.initCurlHandle(), 0);
  dst.m_HeaderList = curl_slist_append(nullptr, "X-Stale: 1");
  boost::weak_ptr<int32_t> oldCounter = dst.m_ErrCnt;
  boost::weak_ptr<Brix::Threading::Native_OS::CCriticalSection> oldLock = dst.m_SharedLock;
  EXPECT_EQ(&(dst = *src), &dst);
  ExpectCopied(dst, *src);
  EXPECT_TRUE(dst.m_Curl == nullptr && dst.m_HeaderList == nullptr);
  EXPECT_TRUE(oldCounter.expired() && oldLock.expired());
  *src->m_ErrCnt = 3;
  EXPECT_EQ(*dst.m_ErrCnt, 3);

  ASSERT_EQ(src->initCurlHandle(), 0);
  src->m_ErrCode = 1002;
  src->m_HeaderList = curl_slist_append(nullptr, "CIMOperation: MethodCall");
  src->m_HeaderList = curl_slist_append(src->m_HeaderList, "CIMMethod: GetClass");
  CIMconnection a, b;
  a = b = *src;
  ExpectCopied(a, *src);
  ExpectCopied(b, *src);
  EXPECT_EQ(src->m_ErrCnt.use_count(), 4);
  EXPECT_TRUE(a.m_Curl && b.m_Curl && a.m_Curl != b.m_Curl && a.m_Curl != src->m_Curl);
  EXPECT_NE(a.m_HeaderList, src->m_HeaderList);
  EXPECT_EQ(Headers(a.m_HeaderList), Headers(src->m_HeaderList));
  src.reset();
  EXPECT_EQ(Headers(b.m_HeaderList).size(), 2u);
  EXPECT_STREQ(b.m_ResponseTree.m_Next->m_Next->m_Value, "hello");

  void* handle = a.m_Curl;
  CIMconnection& self = a;
  a = self;
  EXPECT_EQ(a.m_Curl, handle);
  EXPECT_EQ(a.m_Port, "text5");
}

// ---- real exchanges: the fixed options and copies on the wire ----

TEST(ConnectionWire, AssignedCopyExchangesAfterTheSourceIsGone) {
  oxtest::ScriptedServer srv;
  auto src = std::make_unique<CIMconnection>();
  oxtest::PointAt(*src, srv.port());
  char object[] = "root/cimv2";
  // An empty body gives 5001: the transfer itself worked.
  ASSERT_EQ(src->sendRequest_recvResponse("GetClass", object), 5001);
  CIMconnection dst;
  dst = *src;
  src.reset();  // the duplicate must not point into the destroyed source
  dst.m_Request = "<CIM/>";
  EXPECT_EQ(dst.sendRequest_recvResponse("EnumerateInstances", object), 5001);
  EXPECT_NE(dst.m_Header.find("HTTP/1.1 200"), std::string::npos);
  ASSERT_TRUE(srv.waitForRequests(2, 5000));
  EXPECT_EQ(srv.requests()[1].header("CIMMethod"), "EnumerateInstances");
  EXPECT_EQ(srv.requests()[1].body, "<CIM/>");
}

}  // namespace
