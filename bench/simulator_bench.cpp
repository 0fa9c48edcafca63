// The simulator's CIM server under load, through the library's public API over loopback:
//   BM_SimGetInstance/threads:N        GetInstance round trips per second with N clients,
//                                      each on its own keep-alive connection
//   BM_SimEnumerateInstances           EnumerateInstances of the twelve volumes
//   BM_SimCreateDelete/threads:N       CreateInstance + DeleteInstance pairs (model writes)
// Compare medians; the machine is shared and noisy.
#include <benchmark/benchmark.h>
#include <oxCIM.h>

#include <cstdio>
#include <string>

#include "CimServer.h"

namespace {

oxsim::CimServer& Server() {
  static oxsim::CimServer* server = [] {
    oxsim::CimServerOptions o;
    o.http.threads = 8;
    auto* s = new oxsim::CimServer(o);
    std::string error;
    if (!s->start(error)) std::fprintf(stderr, "simulator: %s\n", error.c_str());
    return s;
  }();
  return *server;
}

void Point(oxCIM::CIMcontainer& c) {
  c.m_Host = "127.0.0.1";
  c.m_User = "admin";
  c.m_Passwd = "secret";
  c.m_Protocol = "http";
  c.m_Port = std::to_string(Server().port());
  c.m_NoIPCheck = true;
}

oxCIM::CIMelement* Volume(oxCIM::CIMcontainer& c, const char* id) {
  c.setCurrentClass("CIM_StorageVolume", "root/cimv2");
  if (c.Imethod_EnumerateInstanceNames() == 0) return nullptr;
  return c.m_pcls->m_InstanceNames->findInstanceName("DeviceID", id);
}

void BM_SimGetInstance(benchmark::State& state) {
  oxCIM::CIMcontainer c;
  Point(c);
  oxCIM::CIMelement* name = Volume(c, "vol07");
  if (name == nullptr) {
    state.SkipWithError("no volume");
    return;
  }
  for (auto _ : state)
    if (c.Imethod_GetInstance(name, -1, nullptr) == 0) state.SkipWithError("GetInstance failed");
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SimGetInstance)->ThreadRange(1, 8)->UseRealTime();

void BM_SimEnumerateInstances(benchmark::State& state) {
  oxCIM::CIMcontainer c;
  Point(c);
  c.setCurrentClass("CIM_StorageVolume", "root/cimv2");
  for (auto _ : state)
    if (c.Imethod_EnumerateInstances(-1, -1, -1, -1, nullptr) == 0) state.SkipWithError("failed");
  state.SetItemsProcessed(state.iterations() * 12);
}
BENCHMARK(BM_SimEnumerateInstances)->UseRealTime();

void BM_SimCreateDelete(benchmark::State& state) {
  oxCIM::CIMcontainer c;
  Point(c);
  const std::string id = "bench-" + std::to_string(state.thread_index());
  oxCIM::_properties_ props[] = {{"DeviceID", 1, 1, id.c_str(), nullptr},
                                 {nullptr, 0, 0, nullptr, nullptr}};
  for (auto _ : state) {
    c.setCurrentClass("CIM_StorageVolume", "root/cimv2");
    oxCIM::CIMelement* name = reinterpret_cast<oxCIM::CIMelement*>(c.Imethod_CreateInstance(props));
    if (name == nullptr || c.Imethod_DeleteInstance(name) != 0) state.SkipWithError("failed");
  }
  state.SetItemsProcessed(state.iterations() * 2);
}
BENCHMARK(BM_SimCreateDelete)->ThreadRange(1, 8)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
