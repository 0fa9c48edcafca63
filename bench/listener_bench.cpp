// Indications accepted per second by the listener, one connection per
// indication (as CIM servers send them), beside a minimal accept-reply-close
// responder on the same machine in the same run; and how long a stop takes
// with thousands of connections open in the middle of their requests.
#include <benchmark/benchmark.h>
#include <oxCIM.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

namespace {

std::atomic<long> g_delivered{0};

int Count(std::string&) {
  g_delivered.fetch_add(1, std::memory_order_relaxed);
  return 0;
}

const std::string& RequestText() {
  static const std::string text = [] {
    std::string body =
        "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<CIM CIMVERSION=\"2.0\" DTDVERSION=\"2.0\">"
        "<MESSAGE ID=\"42\" PROTOCOLVERSION=\"1.0\"><SIMPLEEXPREQ><EXPMETHODCALL "
        "NAME=\"ExportIndication\"><EXPPARAMVALUE NAME=\"NewIndication\"><INSTANCE "
        "CLASSNAME=\"CIM_AlertIndication\"><PROPERTY NAME=\"Description\" TYPE=\"string\">"
        "<VALUE>Drive 3 in enclosure 1 reports a predicted failure</VALUE></PROPERTY>"
        "<PROPERTY NAME=\"PerceivedSeverity\" TYPE=\"uint16\"><VALUE>6</VALUE></PROPERTY>"
        "</INSTANCE></EXPPARAMVALUE></EXPMETHODCALL></SIMPLEEXPREQ></MESSAGE></CIM>\n";
    return "POST /cimlistener HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/xml; "
           "charset=\"utf-8\"\r\nContent-Length: " +
           std::to_string(body.size()) +
           "\r\nConnection: close\r\nCIMExport: MethodRequest\r\nCIMExportMethod: "
           "ExportIndication\r\n\r\n" + body;
  }();
  return text;
}

// One indication: connect, send, read the answer to its end, close.
bool SendOne(int port) {
  return oxtest::RawExchange(port, RequestText()).compare(0, 15, "HTTP/1.1 200 OK") == 0;
}

// The baseline: one thread that accepts, reads one request, answers, closes.
class MinimalResponder {
 public:
  MinimalResponder() {
    m_fd = socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    setsockopt(m_fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    socklen_t len = sizeof(a);
    getsockname(m_fd, reinterpret_cast<sockaddr*>(&a), &len);
    m_port = ntohs(a.sin_port);
    listen(m_fd, 128);
    m_thread = std::thread([this] { Run(); });
  }
  ~MinimalResponder() {
    m_stop = true;
    shutdown(m_fd, SHUT_RDWR);
    m_thread.join();
    close(m_fd);
  }
  int port() const { return m_port; }

 private:
  void Run() {
    static const char reply[] = "HTTP/1.1 200 OK\nContent-Length: 0\n\n";
    const size_t want = RequestText().size();
    char buf[8192];
    while (!m_stop) {
      int c = accept(m_fd, nullptr, nullptr);
      if (c < 0) continue;
      size_t got = 0;
      while (got < want) {
        ssize_t n = recv(c, buf, sizeof(buf), 0);
        if (n <= 0) break;
        got += static_cast<size_t>(n);
      }
      send(c, reply, sizeof(reply) - 1, MSG_NOSIGNAL);
      close(c);
    }
  }
  int m_fd = -1;
  int m_port = 0;
  std::atomic<bool> m_stop{false};
  std::thread m_thread;
};

MinimalResponder* g_baseline = nullptr;
oxCIM::CIMindication* g_listener = nullptr;

void BM_MinimalResponder(benchmark::State& state) {
  for (auto _ : state)
    if (!SendOne(g_baseline->port())) state.SkipWithError("baseline exchange failed");
  state.SetItemsProcessed(state.iterations());
}

void BM_Listener(benchmark::State& state) {
  for (auto _ : state)
    if (!SendOne(g_listener->m_Port)) state.SkipWithError("listener exchange failed");
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_MinimalResponder)->Threads(1)->Threads(16)->UseRealTime()->MinTime(0.5)
    ->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_Listener)->Threads(1)->Threads(16)->UseRealTime()->MinTime(0.5)
    ->Repetitions(5)->ReportAggregatesOnly(true);

int ActiveReaders() { return __atomic_load_n(&oxCIM::ListenerThreadIsActive, __ATOMIC_SEQ_CST); }

template <typename Pred>
bool WaitFor(Pred pred, std::chrono::seconds limit) {
  for (auto end = std::chrono::steady_clock::now() + limit; !pred();
       std::this_thread::sleep_for(std::chrono::milliseconds(2)))
    if (std::chrono::steady_clock::now() > end) return false;
  return true;
}

// Opens `n` connections, each waits until its reader is running (the listen
// queue is short); `part` is what each sends first ("" for none).
bool OpenStalled(int port, int n, const std::string& part, std::vector<int>& fds) {
  const int base = ActiveReaders();
  for (int i = 0; i < n; ++i) {
    int s = oxtest::Connect(port);
    if (s == -1) return false;
    fds.push_back(s);
    if (!part.empty() && !oxtest::SendAll(s, part)) return false;
    if (i % 100 == 99 && !WaitFor([&] { return ActiveReaders() >= base + i + 1; }, std::chrono::seconds(3)))
      return false;
  }
  return WaitFor([&] { return ActiveReaders() >= base + n; }, std::chrono::seconds(3));
}

// Time of stop_Listener with range(0) connections open: half of them have sent
// their header and part of the body, half nothing at all (the idle ones go after
// 5 s, so they are opened last). Every repetition restarts the same object on the
// same port.
void BM_StopWithOpenConnections(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  rlimit rl{};
  getrlimit(RLIMIT_NOFILE, &rl);
  rl.rlim_cur = rl.rlim_max;
  setrlimit(RLIMIT_NOFILE, &rl);
  if (rl.rlim_cur < static_cast<rlim_t>(2 * n + 200)) {
    state.SkipWithError("descriptor limit too low");
    return;
  }
  static oxCIM::CIMindication listener;
  static const int port = oxtest::FreePort();
  const std::string& request = RequestText();
  const std::string midBody = request.substr(0, request.find("\r\n\r\n") + 4 + 40);
  for (auto _ : state) {
    listener.pCallBack = &Count;
    listener.m_Port = port;
    if (listener.start_Listener() != 0 ||
        !WaitFor([&] { return SendOne(port); }, std::chrono::seconds(5)) ||
        !WaitFor([] { return ActiveReaders() == 0; }, std::chrono::seconds(5))) {
      state.SkipWithError("listener did not start");
      break;
    }
    std::vector<int> fds;
    bool ok = OpenStalled(port, n / 2, midBody, fds) && OpenStalled(port, n - n / 2, "", fds);
    state.counters["readers"] = ActiveReaders();
    auto t0 = std::chrono::steady_clock::now();
    listener.stop_Listener();
    std::chrono::duration<double> took = std::chrono::steady_clock::now() - t0;
    state.SetIterationTime(took.count());
    state.counters["left"] = ActiveReaders();
    for (int fd : fds) close(fd);
    if (!ok) {
      state.SkipWithError("could not open the connections");
      break;
    }
  }
}

BENCHMARK(BM_StopWithOpenConnections)->Arg(2000)->Iterations(1)->Repetitions(5)->UseManualTime()
    ->ReportAggregatesOnly(true)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  MinimalResponder baseline;
  g_baseline = &baseline;
  oxCIM::CIMindication listener;
  listener.pCallBack = &Count;
  listener.m_Port = oxtest::FreePort();
  if (listener.start_Listener() != 0) return 1;
  // Wait until the listener takes connections.
  for (int i = 0; i < 500 && !SendOne(listener.m_Port); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  g_listener = &listener;
  benchmark::RunSpecifiedBenchmarks();
  listener.stop_Listener();
  benchmark::Shutdown();
  return 0;
}
