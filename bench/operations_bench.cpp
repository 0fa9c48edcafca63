// EnumerateInstances end to end (write, transfer, parse, extract) against the in-process
// server, beside each stage measured alone in the same run, and the heap peak of one call.
//
// BM_EnumerateInstancesStages gives the stage shares of one call from a single sequence.
// Baselines in the same run: BM_RawTransfer (a bare libcurl POST of the same bytes, the body
// only collected), BM_ParseAnswer, BM_ExtractNamedInstances and BM_FreePreviousResult (each
// stage alone, in a steady loop of its own).
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <oxCIM.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>

#include "../Src/oxInternal.h"
#include "EnumGen.h"
#include "MemCount.h"
#include "TestSupport.h"

namespace {

const std::string& Answer(int64_t instances) {
  static std::string small = MakeEnumerateInstancesResponse(100);
  static std::string large = MakeEnumerateInstancesResponse(10000);
  return instances <= 100 ? small : large;
}

// One server per process; every connection gets the same canned answer.
oxtest::ScriptedServer& Server(int64_t instances) {
  static std::unique_ptr<oxtest::ScriptedServer> srv;
  static int64_t serving = -1;
  if (!srv) srv = std::make_unique<oxtest::ScriptedServer>();
  if (serving != instances) {
    srv->setDefault(oxtest::CannedResponse::cimOk(Answer(instances)));
    serving = instances;
  }
  srv->clearRequests();
  return *srv;
}

void Point(oxCIM::CIMcontainer& c, int port) {
  oxtest::PointAt(c, port);
  c.setCurrentClass("OX_StorageVolume", nullptr);
}

size_t CountNames(oxCIM::CIMcontainer& c) {
  size_t n = 0;
  for (oxCIM::CIMelement* e = c.m_pcls->m_InstanceNames; e; e = e->m_Next)
    if (e->m_Name == oxCIM::known_cim_elements[17]) ++n;
  return n;
}

void BM_EnumerateInstances(benchmark::State& state) {
  const int64_t n = state.range(0);
  oxtest::ScriptedServer& srv = Server(n);
  oxCIM::CIMcontainer c;
  Point(c, srv.port());
  for (auto _ : state) {
    if (c.Imethod_EnumerateInstances(-1, -1, -1, -1, nullptr) == 0)
      state.SkipWithError("EnumerateInstances failed");
  }
  if (CountNames(c) != static_cast<size_t>(n)) state.SkipWithError("wrong instance count");
  state.SetBytesProcessed(static_cast<int64_t>(Answer(n).size()) * state.iterations());
  state.counters["instances"] = static_cast<double>(n);
}
BENCHMARK(BM_EnumerateInstances)->Arg(100)->Arg(10000)->Unit(benchmark::kMillisecond);

double Ms(std::chrono::steady_clock::time_point a, std::chrono::steady_clock::time_point b) {
  return std::chrono::duration<double, std::milli>(b - a).count();
}

// The same call taken apart with the public members, each stage timed in place, so the
// shares come from one sequence in one state: dropping the previous result, writing the
// request, the exchange (transfer + parse), and the extraction. The parse share is measured
// by parsing the received body once more into a scratch tree (not part of the call's time).
void BM_EnumerateInstancesStages(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  const int64_t n = state.range(0);
  oxtest::ScriptedServer& srv = Server(n);
  oxCIM::CIMcontainer c;
  Point(c, srv.port());
  double freeMs = 0, writeMs = 0, exchangeMs = 0, parseMs = 0, extractMs = 0;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    oxCIM::CIMclass::kill_element(&c.m_pcls->m_InstanceNames);
    oxCIM::CIMclass::kill_element(&c.m_pcls->m_Properties);
    const auto t1 = Clock::now();
    c.beginIntrinsicMethod(10);
    c.addClassNameParam(1);
    c.m_Request += "</IMETHODCALL>\n</SIMPLEREQ>\n</MESSAGE>\n</CIM>\n";
    std::string object = c.m_pcls->m_NameSpace;
    const auto t2 = Clock::now();
    if (c.sendRequest_recvResponse(c.m_CurrentMethod, &object[0]) != 0)
      state.SkipWithError("exchange failed");
    const auto t3 = Clock::now();
    if (c.ExtractNamedInstances() == 0) state.SkipWithError("extraction failed");
    const auto t4 = Clock::now();
    {
      oxCIM::CIMelement scratch;
      const auto p0 = Clock::now();
      if (scratch.ParseCIMXML(c.m_Response) != 0) state.SkipWithError("parse failed");
      parseMs += Ms(p0, Clock::now());
    }
    freeMs += Ms(t0, t1);
    writeMs += Ms(t1, t2);
    exchangeMs += Ms(t2, t3);
    extractMs += Ms(t3, t4);
    state.SetIterationTime(std::chrono::duration<double>(t4 - t0).count());
  }
  const double it = static_cast<double>(state.iterations());
  const double total = freeMs + writeMs + exchangeMs + extractMs;
  state.counters["free_ms"] = freeMs / it;
  state.counters["write_ms"] = writeMs / it;
  state.counters["exchange_ms"] = exchangeMs / it;
  state.counters["parse_ms"] = parseMs / it;
  state.counters["transfer_ms"] = (exchangeMs - parseMs) / it;
  state.counters["extract_ms"] = extractMs / it;
  state.counters["share_parse"] = parseMs / total;
  state.counters["share_transfer"] = (exchangeMs - parseMs) / total;
  state.counters["share_extract"] = extractMs / total;
  state.counters["share_free"] = freeMs / total;
}
BENCHMARK(BM_EnumerateInstancesStages)->Arg(10000)->UseManualTime()->Unit(benchmark::kMillisecond);

size_t Collect(char* data, size_t size, size_t count, void* user) {
  static_cast<std::string*>(user)->append(data, size * count);
  return size * count;
}

// The transfer alone: the same POST with libcurl, the body collected and nothing else.
void BM_RawTransfer(benchmark::State& state) {
  const int64_t n = state.range(0);
  oxtest::ScriptedServer& srv = Server(n);
  oxCIM::CIMcontainer c;
  Point(c, srv.port());
  c.beginIntrinsicMethod(10);
  c.addClassNameParam(1);
  const std::string request = c.m_Request + "</IMETHODCALL>\n</SIMPLEREQ>\n</MESSAGE>\n</CIM>\n";
  const std::string url = "http://127.0.0.1:" + std::to_string(srv.port()) + "/cimom";
  std::string body;
  for (auto _ : state) {
    CURL* h = curl_easy_init();
    body.clear();
    curl_easy_setopt(h, CURLOPT_URL, url.c_str());
    curl_easy_setopt(h, CURLOPT_POSTFIELDS, request.c_str());
    curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE, static_cast<long>(request.size()));
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, Collect);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, &body);
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    if (curl_easy_perform(h) != CURLE_OK) state.SkipWithError("transfer failed");
    curl_easy_cleanup(h);
  }
  if (body.size() != Answer(n).size()) state.SkipWithError("short body");
  state.SetBytesProcessed(static_cast<int64_t>(Answer(n).size()) * state.iterations());
}
BENCHMARK(BM_RawTransfer)->Arg(100)->Arg(10000)->Unit(benchmark::kMillisecond);

// The parser on the same answer; each round also drops the tree of the round before.
void BM_ParseAnswer(benchmark::State& state) {
  const std::string& text = Answer(state.range(0));
  oxCIM::CIMelement root;
  for (auto _ : state) {
    if (root.ParseCIMXML(text) != 0) state.SkipWithError("parse failed");
  }
  state.SetBytesProcessed(static_cast<int64_t>(text.size()) * state.iterations());
}
BENCHMARK(BM_ParseAnswer)->Arg(100)->Arg(10000)->Unit(benchmark::kMillisecond);

// Extraction from an already parsed answer; parsing and freeing the previous result stay
// outside the timed region.
void BM_ExtractNamedInstances(benchmark::State& state) {
  const int64_t n = state.range(0);
  const std::string& text = Answer(n);
  oxCIM::CIMcontainer c;
  c.m_Host = "bench";
  c.setCurrentClass("OX_StorageVolume", nullptr);
  for (auto _ : state) {
    state.PauseTiming();
    oxCIM::CIMclass::kill_element(&c.m_pcls->m_InstanceNames);
    oxCIM::CIMclass::kill_element(&c.m_pcls->m_Properties);
    if (c.m_ResponseTree.ParseCIMXML(text) != 0) state.SkipWithError("parse failed");
    state.ResumeTiming();
    if (c.ExtractNamedInstances() == 0) state.SkipWithError("extraction failed");
  }
  if (CountNames(c) != static_cast<size_t>(n)) state.SkipWithError("wrong instance count");
  state.counters["instances"] = static_cast<double>(n);
}
BENCHMARK(BM_ExtractNamedInstances)->Arg(100)->Arg(10000)->Unit(benchmark::kMillisecond);

// Freeing the previous result, which a repeated enumeration pays before its request.
void BM_FreePreviousResult(benchmark::State& state) {
  const int64_t n = state.range(0);
  oxCIM::CIMcontainer c;
  c.m_Host = "bench";
  c.setCurrentClass("OX_StorageVolume", nullptr);
  for (auto _ : state) {
    state.PauseTiming();
    if (c.m_ResponseTree.ParseCIMXML(Answer(n)) != 0 || c.ExtractNamedInstances() == 0)
      state.SkipWithError("setup failed");
    state.ResumeTiming();
    oxCIM::CIMclass::kill_element(&c.m_pcls->m_InstanceNames);
    oxCIM::CIMclass::kill_element(&c.m_pcls->m_Properties);
  }
}
BENCHMARK(BM_FreePreviousResult)->Arg(100)->Arg(10000)->Unit(benchmark::kMillisecond);

// Writing the request (header, parameters) without sending it.
void BM_WriteRequest(benchmark::State& state) {
  oxCIM::CIMcontainer c;
  c.m_Host = "bench";
  c.setCurrentClass("OX_StorageVolume", nullptr);
  for (auto _ : state) {
    c.beginIntrinsicMethod(10);
    c.addOptionalParameter(0, 1);
    c.addOptionalParameter(3, 0);
    c.addClassNameParam(1);
    benchmark::DoNotOptimize(c.m_Request.data());
  }
}
BENCHMARK(BM_WriteRequest)->Unit(benchmark::kMicrosecond);

// Heap peak of one whole call (process-wide, so the in-process server's copy of the answer
// counts too) and the heap held by the extracted lists afterwards. Pooled elements and
// arrays count with the pool's blocks in use at the end of the call (their most).
void BM_EnumerateInstancesPeakMemory(benchmark::State& state) {
  const int64_t n = state.range(0);
  double peak = 0, kept = 0;
  for (auto _ : state) {
    // A fresh server, so no block allocated before counting is freed while counting.
    oxtest::ScriptedServer srv;
    srv.setDefault(oxtest::CannedResponse::cimOk(Answer(n)));
    auto c = std::make_unique<oxCIM::CIMcontainer>();
    Point(*c, srv.port());
    const double pooledBefore = static_cast<double>(oxCIM::PoolBytesInUse());
    memcount::Start();
    const unsigned long r = c->Imethod_EnumerateInstances(-1, -1, -1, -1, nullptr);
    const double pooled = static_cast<double>(oxCIM::PoolBytesInUse()) - pooledBefore;
    peak = static_cast<double>(memcount::Peak()) + pooled;
    const long long before = memcount::Current();
    oxCIM::CIMclass::kill_element(&c->m_pcls->m_InstanceNames);
    oxCIM::CIMclass::kill_element(&c->m_pcls->m_Properties);
    // What the result lists held.
    kept = static_cast<double>(before - memcount::Current()) + pooled -
           (static_cast<double>(oxCIM::PoolBytesInUse()) - pooledBefore);
    memcount::Stop();
    if (r == 0) state.SkipWithError("EnumerateInstances failed");
    c.reset();
    srv.stop();
  }
  const double bytes = static_cast<double>(Answer(n).size());
  state.counters["answer_MB"] = bytes / 1e6;
  state.counters["peak_MB"] = peak / 1e6;
  state.counters["kept_MB"] = kept / 1e6;
  state.counters["peak_per_answer_byte"] = peak / bytes;
}
BENCHMARK(BM_EnumerateInstancesPeakMemory)->Arg(10000)->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
