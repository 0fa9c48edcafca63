// One exchange over loopback against the in-process server, beside plain libcurl posting the
// same bytes to the same server in the same run:
//   BM_GetInstance_*      round trips per second for a ~1 KB answer (items_per_second)
//   BM_Enumerate20MB_*    seconds for a ~20 MB EnumerateInstances answer; the library's
//                         figure includes parsing, so it is shown beside plain libcurl alone
//                         and plain libcurl followed by a libxml2 parse of the body.
// Compare medians (repetitions are aggregated); the machine is shared and noisy.
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <libxml/parser.h>
#include <oxCIM.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "EnumGen.h"
#include "TestSupport.h"

namespace {

const char kGetInstanceRequest[] =
    "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n"
    "<CIM CIMVERSION=\"2.0\" DTDVERSION=\"2.0\">\n"
    "<MESSAGE ID=\"1001\" PROTOCOLVERSION=\"1.0\">\n"
    "<SIMPLEREQ>\n<IMETHODCALL NAME=\"GetInstance\">\n"
    "<LOCALNAMESPACEPATH>\n<NAMESPACE NAME=\"root\"/>\n<NAMESPACE NAME=\"cimv2\"/>\n"
    "</LOCALNAMESPACEPATH>\n"
    "<IPARAMVALUE NAME=\"InstanceName\">\n<INSTANCENAME CLASSNAME=\"OX_StorageVolume\">\n"
    "<KEYBINDING NAME=\"CreationClassName\">\n"
    "<KEYVALUE VALUETYPE=\"string\">OX_StorageVolume</KEYVALUE>\n</KEYBINDING>\n"
    "<KEYBINDING NAME=\"DeviceID\">\n<KEYVALUE VALUETYPE=\"string\">VOL-0</KEYVALUE>\n"
    "</KEYBINDING>\n</INSTANCENAME>\n</IPARAMVALUE>\n"
    "</IMETHODCALL>\n</SIMPLEREQ>\n</MESSAGE>\n</CIM>\n";

const char kEnumerateRequest[] =
    "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n"
    "<CIM CIMVERSION=\"2.0\" DTDVERSION=\"2.0\">\n"
    "<MESSAGE ID=\"1001\" PROTOCOLVERSION=\"1.0\">\n"
    "<SIMPLEREQ>\n<IMETHODCALL NAME=\"EnumerateInstances\">\n"
    "<LOCALNAMESPACEPATH>\n<NAMESPACE NAME=\"root\"/>\n<NAMESPACE NAME=\"cimv2\"/>\n"
    "</LOCALNAMESPACEPATH>\n"
    "<IPARAMVALUE NAME=\"ClassName\"><CLASSNAME NAME=\"OX_StorageVolume\"/></IPARAMVALUE>\n"
    "</IMETHODCALL>\n</SIMPLEREQ>\n</MESSAGE>\n</CIM>\n";

// One server for every benchmark, so library and baseline see the same peer.
oxtest::ScriptedServer& Server() {
  static oxtest::ScriptedServer server;
  return server;
}

const std::string& EnumerateAnswer() {
  static const std::string answer = MakeEnumerateInstancesResponse(10000);
  return answer;
}

void Configure(oxCIM::CIMconnection& c, const char* request) {
  c.m_Host = "127.0.0.1";
  c.m_User = "user";
  c.m_Passwd = "secret";
  c.m_Port = std::to_string(Server().port());
  c.m_Protocol = "http";
  c.m_NoIPCheck = true;
  c.m_Request = request;
}

size_t Collect(char* data, size_t size, size_t count, void* out) {
  static_cast<std::string*>(out)->append(data, size * count);
  return size * count;
}

// libcurl with the options the library uses for one exchange, minus the progress callback.
struct PlainCurl {
  CURL* curl = curl_easy_init();
  curl_slist* headers = nullptr;
  std::string url = "http://127.0.0.1:" + std::to_string(Server().port()) + "/cimom";
  std::string body;

  PlainCurl(const char* request, const char* method, const char* object) {
    for (const std::string& h : {std::string("Content-type: application/xml; charset=\"utf-8\""),
                                std::string("Expect:"), std::string("CIMOperation: MethodCall"),
                                std::string("CIMMethod: ") + method,
                                std::string("CIMObject: ") + object})
      headers = curl_slist_append(headers, h.c_str());
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_POST, 1L);
    curl_easy_setopt(curl, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC));
    curl_easy_setopt(curl, CURLOPT_USERNAME, "user");
    curl_easy_setopt(curl, CURLOPT_PASSWORD, "secret");
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_FORBID_REUSE, 1L);
    curl_easy_setopt(curl, CURLOPT_FRESH_CONNECT, 1L);
    curl_easy_setopt(curl, CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(std::strlen(request)));
  }
  ~PlainCurl() {
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
  }
  bool Post() {
    body.clear();
    return curl_easy_perform(curl) == CURLE_OK;
  }
};

void Fail(benchmark::State& state, const char* what, int code) {
  char msg[128];
  std::snprintf(msg, sizeof msg, "%s failed: %d", what, code);
  state.SkipWithError(msg);
}

// The server records every request; keep that bounded over long runs.
void Trim(benchmark::State& state) {
  if ((state.iterations() & 255) == 0) Server().clearRequests();
}

void BM_GetInstance_Library(benchmark::State& state) {
  Server().setDefault(oxtest::CannedResponse::cimOk(MakeGetInstanceResponse()));
  oxCIM::CIMconnection conn;
  Configure(conn, kGetInstanceRequest);
  char object[] = "root/cimv2";
  for (auto _ : state) {
    const int rc = conn.sendRequest_recvResponse("GetInstance", object);
    if (rc != 0) return Fail(state, "exchange", rc);
    Trim(state);
  }
  state.SetItemsProcessed(state.iterations());
  Server().clearRequests();
}

void BM_GetInstance_PlainCurl(benchmark::State& state) {
  Server().setDefault(oxtest::CannedResponse::cimOk(MakeGetInstanceResponse()));
  PlainCurl curl(kGetInstanceRequest, "GetInstance", "root%2Fcimv2");
  for (auto _ : state) {
    if (!curl.Post() || curl.body.empty()) return Fail(state, "curl", 0);
    Trim(state);
  }
  state.SetItemsProcessed(state.iterations());
  Server().clearRequests();
}

void BM_Enumerate20MB_Library(benchmark::State& state) {
  Server().setDefault(oxtest::CannedResponse::cimOk(EnumerateAnswer()));
  oxCIM::CIMconnection conn;
  Configure(conn, kEnumerateRequest);
  char object[] = "root/cimv2";
  for (auto _ : state) {
    const int rc = conn.sendRequest_recvResponse("EnumerateInstances", object);
    if (rc != 0) return Fail(state, "exchange", rc);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(EnumerateAnswer().size()));
  Server().clearRequests();
}

void BM_Enumerate20MB_PlainCurl(benchmark::State& state) {
  Server().setDefault(oxtest::CannedResponse::cimOk(EnumerateAnswer()));
  PlainCurl curl(kEnumerateRequest, "EnumerateInstances", "root%2Fcimv2");
  for (auto _ : state) {
    if (!curl.Post() || curl.body.size() != EnumerateAnswer().size())
      return Fail(state, "curl", 0);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(EnumerateAnswer().size()));
  Server().clearRequests();
}

void BM_Enumerate20MB_PlainCurlLibxml2(benchmark::State& state) {
  Server().setDefault(oxtest::CannedResponse::cimOk(EnumerateAnswer()));
  PlainCurl curl(kEnumerateRequest, "EnumerateInstances", "root%2Fcimv2");
  for (auto _ : state) {
    if (!curl.Post()) return Fail(state, "curl", 0);
    xmlDocPtr doc = xmlReadMemory(curl.body.data(), static_cast<int>(curl.body.size()),
                                  "answer.xml", nullptr, XML_PARSE_NONET | XML_PARSE_HUGE);
    if (doc == nullptr) return Fail(state, "libxml2", 0);
    xmlFreeDoc(doc);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(EnumerateAnswer().size()));
  Server().clearRequests();
}

}  // namespace

BENCHMARK(BM_GetInstance_PlainCurl)->Repetitions(5)->ReportAggregatesOnly(true)->UseRealTime();
BENCHMARK(BM_GetInstance_Library)->Repetitions(5)->ReportAggregatesOnly(true)->UseRealTime();
BENCHMARK(BM_Enumerate20MB_PlainCurl)
    ->Repetitions(5)->Iterations(3)->ReportAggregatesOnly(true)->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Enumerate20MB_PlainCurlLibxml2)
    ->Repetitions(5)->Iterations(3)->ReportAggregatesOnly(true)->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Enumerate20MB_Library)
    ->Repetitions(5)->Iterations(3)->ReportAggregatesOnly(true)->UseRealTime()
    ->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  curl_global_cleanup();
  return 0;
}
