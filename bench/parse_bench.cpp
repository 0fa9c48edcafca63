// Throughput of the CIM-XML parser and generator, beside libxml2's DOM parse of the same
// bytes in the same run, and the parser's peak heap use per input byte.
//
// *UsedHeap: the same parses on a heap that other code has just used: before each timed
// parse, the other parser reads and frees the same document (untimed), as in a process
// that does more than read CIM answers.
#include <benchmark/benchmark.h>
#include <libxml/parser.h>
#include <oxCIM.h>

#include <atomic>
#include <cstdlib>
#include <string>

#include "../Src/oxInternal.h"
#include "EnumGen.h"
#include "MemCount.h"

namespace {

const std::string& Input(int64_t instances) {
  static std::string small = MakeGetInstanceResponse();
  static std::string medium = MakeEnumerateInstancesResponse(500);
  static std::string large = MakeEnumerateInstancesResponse(10000);
  if (instances == 0) return small;
  return instances <= 500 ? medium : large;
}

// Arg: 0 = one GetInstance answer (~1 KB), 500 instances (~1 MB), 10000 (~20 MB).
void BM_ParseCIMXML(benchmark::State& state) {
  const std::string& text = Input(state.range(0));
  oxCIM::CIMelement root;
  for (auto _ : state) {
    if (root.ParseCIMXML(text) != 0) state.SkipWithError("parse failed");
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(text.size()) * state.iterations());
  state.counters["input_bytes"] = static_cast<double>(text.size());
}
BENCHMARK(BM_ParseCIMXML)->Arg(0)->Arg(500)->Arg(10000)->Unit(benchmark::kMicrosecond);

void BM_Libxml2ReadMemory(benchmark::State& state) {
  const std::string& text = Input(state.range(0));
  for (auto _ : state) {
    xmlDocPtr doc = xmlReadMemory(text.data(), static_cast<int>(text.size()), "answer.xml",
                                  nullptr, XML_PARSE_NONET);
    if (doc == nullptr) state.SkipWithError("libxml2 parse failed");
    xmlFreeDoc(doc);
  }
  state.SetBytesProcessed(static_cast<int64_t>(text.size()) * state.iterations());
}
BENCHMARK(BM_Libxml2ReadMemory)->Arg(0)->Arg(500)->Arg(10000)->Unit(benchmark::kMicrosecond);

void Libxml2ParseAndFree(const std::string& text) {
  xmlDocPtr doc = xmlReadMemory(text.data(), static_cast<int>(text.size()), "answer.xml",
                                nullptr, XML_PARSE_NONET);
  xmlFreeDoc(doc);
}

void BM_ParseCIMXMLUsedHeap(benchmark::State& state) {
  const std::string& text = Input(state.range(0));
  oxCIM::CIMelement root;
  for (auto _ : state) {
    state.PauseTiming();
    Libxml2ParseAndFree(text);
    state.ResumeTiming();
    if (root.ParseCIMXML(text) != 0) state.SkipWithError("parse failed");
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(text.size()) * state.iterations());
}
BENCHMARK(BM_ParseCIMXMLUsedHeap)->Arg(0)->Arg(500)->Arg(10000)->Unit(benchmark::kMicrosecond);

void BM_Libxml2ReadMemoryUsedHeap(benchmark::State& state) {
  const std::string& text = Input(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    {
      oxCIM::CIMelement root;
      if (root.ParseCIMXML(text) != 0) state.SkipWithError("parse failed");
    }
    state.ResumeTiming();
    Libxml2ParseAndFree(text);
  }
  state.SetBytesProcessed(static_cast<int64_t>(text.size()) * state.iterations());
}
BENCHMARK(BM_Libxml2ReadMemoryUsedHeap)->Arg(0)->Arg(500)->Arg(10000)->Unit(benchmark::kMicrosecond);

// The same answer with one comment inside: the parser takes its exact (search-based) route.
void BM_ParseCIMXMLExactRoute(benchmark::State& state) {
  std::string text = Input(state.range(0));
  const size_t msg = text.find("<MESSAGE");
  text.insert(msg, "<!-- routed -->\n");
  oxCIM::CIMelement root;
  for (auto _ : state) {
    if (root.ParseCIMXML(text) != 0) state.SkipWithError("parse failed");
  }
  state.SetBytesProcessed(static_cast<int64_t>(text.size()) * state.iterations());
}
BENCHMARK(BM_ParseCIMXMLExactRoute)->Arg(0)->Arg(500)->Arg(10000)->Unit(benchmark::kMicrosecond);

void BM_GenerateCIMXML(benchmark::State& state) {
  const std::string& text = Input(state.range(0));
  oxCIM::CIMelement root;
  if (root.ParseCIMXML(text) != 0) {
    state.SkipWithError("parse failed");
    return;
  }
  std::string out;
  for (auto _ : state) {
    out.clear();
    if (root.GenerateCIMXML(out) != 0) state.SkipWithError("generate failed");
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(out.size()) * state.iterations());
}
BENCHMARK(BM_GenerateCIMXML)->Arg(0)->Arg(500)->Arg(10000)->Unit(benchmark::kMicrosecond);

// Peak heap during one parse, and the heap the finished tree keeps, per input byte. Pooled
// elements and arrays are counted with the pool's blocks in use after the parse (the tree
// only grows during a parse, so that is their peak).
void BM_ParsePeakMemory(benchmark::State& state) {
  const std::string& text = Input(state.range(0));
  double peak = 0, kept = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto* root = new oxCIM::CIMelement;
    const double pooledBefore = static_cast<double>(oxCIM::PoolBytesInUse());
    memcount::Start();
    state.ResumeTiming();
    const int r = root->ParseCIMXML(text);
    state.PauseTiming();
    memcount::Stop();
    if (r != 0) state.SkipWithError("parse failed");
    const double pooled = static_cast<double>(oxCIM::PoolBytesInUse()) - pooledBefore;
    peak = static_cast<double>(memcount::Peak()) + pooled;
    kept = static_cast<double>(memcount::Current()) + pooled;
    delete root;
    state.ResumeTiming();
  }
  state.counters["peak_per_input_byte"] = peak / static_cast<double>(text.size());
  state.counters["tree_per_input_byte"] = kept / static_cast<double>(text.size());
  state.counters["peak_MB"] = peak / 1e6;
}
BENCHMARK(BM_ParsePeakMemory)->Arg(500)->Arg(10000)->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
