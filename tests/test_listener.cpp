// Indication listener over real sockets on the loopback interface.
#include <gtest/gtest.h>

#include "TestSupport.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <tuple>
#include <utility>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using namespace oxtest;
using oxCIM::TRACE_DETAIL, oxCIM::TRACE_ERROR, oxCIM::TRACE_STATUS;

// The sanitizer runtimes need descriptors and address space of their own: a test that
// takes them away checks the runtime, not the listener.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SKIP_UNDER_SANITIZERS(what) GTEST_SKIP() << "the sanitizer runtime needs " what
#else
#define SKIP_UNDER_SANITIZERS(what) (void)0
#endif

namespace {

std::mutex g_mu;
std::condition_variable g_cv;
std::vector<std::string> g_bodies;  // what the callback received, in order
bool g_hold = false;                // the callback waits until this is cleared
int g_throw = 0;                    // the next callback throws: 1 runtime_error, 2 bad_alloc

int RecordBody(std::string& body) {
  std::unique_lock<std::mutex> lock(g_mu);
  g_bodies.push_back(body);
  g_cv.notify_all();
  g_cv.wait_for(lock, 10s, [] { return !g_hold; });
  int t = std::exchange(g_throw, 0);
  if (t == 1) throw std::runtime_error("callback failed");
  if (t == 2) throw std::bad_alloc();
  return 0;
}

void SetCallback(bool hold, int throwKind) {
  std::lock_guard<std::mutex> lock(g_mu);
  g_hold = hold;
  g_throw = throwKind;
  g_cv.notify_all();
}

std::vector<std::string> Bodies(bool clear = false) {
  std::lock_guard<std::mutex> lock(g_mu);
  return clear ? std::exchange(g_bodies, {}) : g_bodies;
}

bool WaitForBodies(size_t n) {
  std::unique_lock<std::mutex> lock(g_mu);
  return g_cv.wait_for(lock, 5s, [&] { return g_bodies.size() >= n; });
}

int ActiveReaders() { return __atomic_load_n(&oxCIM::ListenerThreadIsActive, __ATOMIC_SEQ_CST); }

std::string Fill(std::string text, const std::string& key, const std::string& value) {
  return text.replace(text.find(key), key.size(), value);
}

std::string Indication(const std::string& message, const std::string& text = "disk 3 failed") {
  static const std::string form = ReadFixture("lsn_indication.xml");
  return Fill(Fill(form, "@MESSAGE@", message), "@TEXT@", text);
}

std::string WithId(const std::string& id) {
  return Indication("<MESSAGE ID=\"" + id + "\" PROTOCOLVERSION=\"1.0\">");
}

std::string Request(const std::string& body, const std::string& lengthName = "Content-Length") {
  return "POST /cimlistener HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/xml\r\n" +
         lengthName + ": " + std::to_string(body.size()) +
         "\r\nCIMExport: MethodRequest\r\nCIMExportMethod: ExportIndication\r\n\r\n" + body;
}

// The body's length in nine digits.
std::string ExpectedReply(const std::string& id) {
  static const std::string form = ReadFixture("lsn_reply.txt");
  std::string reply = Fill(form, "@ID@", id);
  std::string len = std::to_string(reply.size() - reply.find("\n\n") - 2);
  return Fill(reply, "@LEN@", std::string(9 - len.size(), '0') + len);
}

// Names in a /proc directory. Descriptor numbers, not counts: one leaked and another
// closed by mistake must not cancel out.
std::set<std::string> Entries(const char* dir) {
  std::set<std::string> names;
  for (const auto& e : std::filesystem::directory_iterator(dir)) names.insert(e.path().filename());
  return names;
}

void SetLimit(int resource, rlim_t soft) {
  rlimit rl{};
  getrlimit(resource, &rl);
  rl.rlim_cur = soft < rl.rlim_max ? soft : rl.rlim_max;
  setrlimit(resource, &rl);
}

// Starts a listener and waits until one indication has gone all the way through,
// so no reader of that probe is left over when the test body begins.
void StartAndProbe(oxCIM::CIMindication& l, int port) {
  l.pCallBack = &RecordBody;
  l.m_Port = port;
  ASSERT_EQ(l.start_Listener(), 0);
  ASSERT_EQ(RawExchange(port, Request(WithId("999"))), ExpectedReply("999"));  // accepting already
  ASSERT_TRUE(WaitForBodies(1));
  ASSERT_TRUE(Eventually([] { return ActiveReaders() == 0; }));
  Bodies(true);
}

const char kFinished[] = "listenerThread: Listener: Finished!";
const char kStopped[] = "stop_Listener: Listener-Thread stopped.";

// A listener set up but not started. Whatever the test does, every descriptor it
// opened is closed in the end.
class Unstarted : public ::testing::Test {
 protected:
  void SetUp() override {
    l.pCallBack = &RecordBody;
    l.m_Port = port;
    getrlimit(RLIMIT_NOFILE, &files);
  }
  void TearDown() override {
    setrlimit(RLIMIT_NOFILE, &files);
    l.stop_Listener();
    EXPECT_EQ(Entries("/proc/self/fd"), fds0);
    Bodies(true);
  }
  // The thread has given up: no socket, no callback.
  bool Ended() { return !l.check_Listener() && __atomic_load_n(&l.pCallBack, __ATOMIC_SEQ_CST) == nullptr; }

  const std::set<std::string> fds0 = Entries("/proc/self/fd");
  TraceCapture tc;
  oxCIM::CIMindication l;
  int port = FreePort();
  rlimit files{};
};

class Listener : public Unstarted {
 protected:
  void SetUp() override {
    Unstarted::SetUp();
    StartAndProbe(l, port);
  }
};


}  // namespace

TEST_F(Unstarted, StartAndStopRules) {
  oxCIM::CIMindication fresh;
  EXPECT_TRUE(fresh.pCallBack == nullptr && fresh.m_Port == -1 && fresh.m_ListenSocket == -1 &&
              fresh.m_ThreadStatus == 0);
  l.pCallBack = nullptr;
  EXPECT_EQ(l.start_Listener(), 1001);
  EXPECT_EQ(tc.count(TRACE_ERROR, "start_Listener: pCallBack (null) not set!"), 1);
  EXPECT_FALSE(l.check_Listener());
  l.stop_Listener();  // nothing running: silent
  EXPECT_EQ(tc.count(TRACE_STATUS, kStopped), 0);

  StartAndProbe(l, port);
  EXPECT_EQ(tc.count(TRACE_STATUS, "start_Listener: Listener-Thread started\n"), 1);
  EXPECT_TRUE(l.check_Listener());
  EXPECT_EQ(l.start_Listener(), 1001);
  EXPECT_EQ(tc.count(TRACE_STATUS, "start_Listener: Listener is already running"), 1);
  EXPECT_EQ(RawExchange(port, Request(WithId("3"))), ExpectedReply("3"));  // still serving

  auto t0 = Clock::now();
  l.stop_Listener();
  // Far below the 10-second poll and the 1-second wait round: the thread was woken.
  EXPECT_LT(Clock::now() - t0, 900ms);
  EXPECT_TRUE(Ended());
  EXPECT_EQ(l.m_ThreadStatus, 0);
  EXPECT_EQ(tc.count(TRACE_STATUS, kFinished), 1);
  EXPECT_EQ(tc.count(TRACE_STATUS, kStopped), 1);
  EXPECT_EQ(Connect(port), -1);

  StartAndProbe(l, port);  // same port, at once
  // Back to back, mostly before the thread has opened its socket.
  for (int i = 0; i < 20; ++i) {
    l.stop_Listener();
    ASSERT_FALSE(l.check_Listener());
    l.pCallBack = &RecordBody;
    ASSERT_EQ(l.start_Listener(), 0);
  }
}

// The thread starts, cannot listen, says why and ends.
TEST_F(Unstarted, NoSocketEndsTheListener) {
  SKIP_UNDER_SANITIZERS("descriptors");
  SetLimit(RLIMIT_NOFILE, 0);
  ASSERT_EQ(l.start_Listener(), 0);
  EXPECT_TRUE(Eventually([&] { return Ended() && tc.has(TRACE_STATUS, kFinished); }));
  EXPECT_EQ(tc.count(TRACE_ERROR, "listenerThread: socket"), 1);
}

TEST_F(Unstarted, TakenPortEndsTheListener) {
  oxCIM::CIMindication other;
  StartAndProbe(other, port);
  ASSERT_EQ(l.start_Listener(), 0);
  EXPECT_TRUE(Eventually([&] { return Ended() && tc.has(TRACE_STATUS, kFinished); }));
  EXPECT_EQ(tc.count(TRACE_ERROR, "listenerThread: bind"), 1);
  EXPECT_EQ(RawExchange(port, Request(WithId("4"))), ExpectedReply("4"));  // the other one serves on
  other.stop_Listener();
}

// Without a thread to spare the start fails, and its state goes with what it opened.
TEST_F(Unstarted, NoThreadLeavesNothingOpen) {
  SKIP_UNDER_SANITIZERS("the address space this test takes away");
  long pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  rlimit old{};
  getrlimit(RLIMIT_AS, &old);
  SetLimit(RLIMIT_AS, static_cast<rlim_t>(pages) * sysconf(_SC_PAGESIZE) + (2 << 20));
  int rc = l.start_Listener();  // a new thread's stack does not fit
  SetLimit(RLIMIT_AS, old.rlim_cur);
  if (rc == 0) GTEST_SKIP() << "a cached thread stack was reused; run this test in a process of its own";
  EXPECT_EQ(rc, 1001);
  EXPECT_TRUE(tc.has(TRACE_ERROR, "start_Listener: Cannot start listener-thread"));
  EXPECT_EQ(Entries("/proc/self/fd"), fds0);
  StartAndProbe(l, port);  // nothing left behind blocks a new start
}

// One descriptor to spare: no wake-up pipe, and every accept fails until more are allowed.
TEST_F(Unstarted, OutOfDescriptorsTheListenerWaitsAndServesLater) {
  SKIP_UNDER_SANITIZERS("descriptors");
  int lowest = open("/dev/null", O_RDONLY | O_CLOEXEC);
  close(lowest);
  SetLimit(RLIMIT_NOFILE, lowest + 1);
  ASSERT_EQ(l.start_Listener(), 0);
  SetLimit(RLIMIT_NOFILE, lowest + 2);  // one for our end of the connection
  int s = -1;
  EXPECT_TRUE(Eventually([&] { return (s = Connect(port)) != -1; }));
  EXPECT_TRUE(Eventually([&] { return tc.has(TRACE_ERROR, "listenerThread: ERROR in 'accept'"); }));
  setrlimit(RLIMIT_NOFILE, &files);
  ASSERT_TRUE(SendAll(s, Request(WithId("12"))));
  EXPECT_EQ(ReadAll(s), ExpectedReply("12"));
  close(s);
  EXPECT_TRUE(WaitForBodies(1));
  l.stop_Listener();  // woken by the socket's shutdown alone
  EXPECT_EQ(tc.count(TRACE_STATUS, kStopped), 1);
}

// Answered with the MESSAGE ID (1 when unusable) and delivered from the declaration on,
// or dropped unanswered when no usable length is declared. A callback that throws is
// traced, and serving goes on.
TEST_F(Listener, AnswersOrDropsEachRequest) {
  const std::string body = WithId("5"), pad = "X-Pad: " + std::string(8200, 'p') + "\r\n";
  const std::tuple<std::string, std::string, int> answered[] = {
      {Request(WithId("4711")), "4711", 0},
      {Request(Indication("<MESSAGE PROTOCOLVERSION=\"1.0\">")), "1", 0},
      {Request(WithId("0")), "1", 0},
      {Request(WithId("abc")), "1", 1},
      {Request(Indication("<message id=\"55\" PROTOCOLVERSION=\"1.0\">")), "1", 2},
      {Request(WithId("2147483647"), "cOnTeNt-LeNgTh"), "2147483647", 0},
      {Request(WithId("2147483648")), "1", 0},  // does not fit the reply's number
      {Request(WithId("99999999999999999999999")), "1", 0},
      {Request("<?XML" + WithId("8").substr(5), "content-length"), "8", 0},
      // Several times the 8191-byte read size, in one go.
      {Request(Indication("<MESSAGE ID=\"78\">", std::string(50000, 'x') + "<end>")), "78", 0},
      // A header longer than the read buffer counts as far as the buffer goes.
      {"POST / HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\nX-Pad: " +
           std::string(9000, 'p') + "\r\n\r\n" + body, "5", 0},
  };
  const std::string dropped[] = {
      "Host: x", "Content-Length: 0", "Content-Length: -20", "Content-Length: 67108865",
      // Values that do not fit: never wrapped round to something small.
      "Content-Length: 4294967296", "Content-Length: 4294967297",
      "Content-Length: 18446744073709551617", "Content-Length: " + std::string(400, '9'),
      // Only the first 8191 bytes of a header are read.
      pad + "Content-Length: " + std::to_string(body.size())};
  std::vector<std::string> want;
  for (const auto& [request, id, throwKind] : answered) {
    SCOPED_TRACE(request.substr(request.find("\">") + 2, 60));  // the MESSAGE tag
    SetCallback(false, throwKind);
    EXPECT_EQ(RawExchange(port, request), ExpectedReply(id));
    want.push_back(request.substr(request.find("<?")));
    ASSERT_TRUE(WaitForBodies(want.size()));
  }
  for (const auto& head : dropped)
    EXPECT_EQ(RawExchange(port, "POST / HTTP/1.1\r\n" + head + "\r\n\r\n" + body), "") << head.substr(0, 60);
  EXPECT_TRUE(Eventually([&] {
    return tc.count(TRACE_ERROR, "readerThread: missing Content-Length") == 9 &&
           tc.count(TRACE_ERROR, "readerThread: Exception raised: callback failed") == 1 &&
           tc.count(TRACE_ERROR, "readerThread: Exception raised: std::bad_alloc") == 1 && ActiveReaders() == 0;
  }));
  EXPECT_EQ(Bodies(), want);
}

TEST_F(Listener, RequestsCutAnywhereAreDeliveredOnce) {
  std::string body = WithId("77");
  std::string request = Request(body);
  size_t head = request.size() - body.size();
  size_t length = request.find("Content-Length");
  std::vector<size_t> bytewise, dribble{head + 10};
  for (size_t i = 1; i < request.size(); ++i) bytewise.push_back(i);
  for (size_t i = head + 47; i < request.size(); i += 37) dribble.push_back(i);
  const std::pair<const char*, std::vector<size_t>> cases[] = {
      {"request line alone", {request.find("\r\n") + 2}},
      {"in the Content-Length name", {length + 4}},
      {"in the Content-Length value", {length + 17}},
      {"in the empty line", {head - 1}},
      {"headers alone", {head}},
      {"inside <?xml", {head + 3}},
      {"header, then the body in small pieces", dribble},
      {"one byte per send", bytewise},
  };
  size_t n = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.first);
    int s = Connect(port), one = 1;
    setsockopt(s, SOL_TCP, TCP_NODELAY, &one, sizeof one);  // each piece a segment of its own
    size_t from = 0;
    for (size_t cut : c.second) {
      ASSERT_TRUE(SendAll(s, request.substr(from, cut - from)));
      std::this_thread::sleep_for(c.second.size() > 20 ? 200us : 30ms);
      from = cut;
    }
    ASSERT_TRUE(SendAll(s, request.substr(from)));
    EXPECT_EQ(ReadAll(s), ExpectedReply("77"));
    close(s);
    ASSERT_TRUE(WaitForBodies(++n));
  }
  EXPECT_EQ(Bodies(), std::vector<std::string>(n, body));  // each exactly once, whole
}

TEST_F(Listener, IncompleteRequestsAreDroppedUnanswered) {
  // A short body, then the close.
  int s = Connect(port);
  ASSERT_TRUE(SendAll(s, "POST / HTTP/1.1\r\nContent-Length: 5\r\n\r\n<?x"));
  EXPECT_TRUE(Eventually([] { return ActiveReaders() == 1; }));
  // The trace follows the thread's creation, so it may come after the reader began.
  EXPECT_TRUE(Eventually([&] { return tc.count(TRACE_DETAIL, "listenerThread: start eventreader-thread") >= 2; }));
  pollfd p{s, POLLIN, 0};
  EXPECT_EQ(poll(&p, 1, 100), 0);  // waiting for the rest: no answer yet
  shutdown(s, SHUT_WR);
  EXPECT_EQ(ReadAll(s), "");
  close(s);
  EXPECT_TRUE(Eventually([] { return ActiveReaders() == 0; }));
  EXPECT_EQ(tc.count(TRACE_DETAIL, "readerThread: connection has been gracefully closed"), 1);

  // A peer that never sends: closed by the listener, not by our 20-s receive time-out.
  s = Connect(port);
  ASSERT_TRUE(Eventually([] { return ActiveReaders() == 1; }));
  char c;
  auto t0 = Clock::now();
  EXPECT_EQ(recv(s, &c, 1, 0), 0);
  EXPECT_LT(Clock::now() - t0, 15s);
  close(s);
  EXPECT_TRUE(Eventually([] { return ActiveReaders() == 0; }));
  EXPECT_EQ(tc.count(TRACE_ERROR, "readerThread: receive timed out"), 0);  // only after data
  EXPECT_TRUE(Bodies().empty());

  // A header that never ended, then the close: read as it stands, so a whole body still
  // counts and a short one does not.
  const std::string body = WithId("9");
  for (size_t missing : {0, 1}) {
    s = Connect(port);
    ASSERT_TRUE(SendAll(s, "POST / HTTP/1.1\r\nContent-Length: " + std::to_string(body.size() + missing) + "\r\n" + body));
    shutdown(s, SHUT_WR);
    EXPECT_EQ(ReadAll(s), "");
    close(s);
    EXPECT_TRUE(Eventually([] { return ActiveReaders() == 0; }));
  }
  EXPECT_EQ(Bodies(), std::vector<std::string>{body});
}

TEST_F(Listener, StopWaitsForACallbackInFlight) {
  SetCallback(true, 0);
  int s = Connect(port);
  ASSERT_TRUE(SendAll(s, Request(WithId("31"))));
  ASSERT_TRUE(WaitForBodies(1));
  std::atomic<bool> stopped{false};
  std::thread stopper([&] {
    l.stop_Listener();
    stopped = true;
  });
  std::this_thread::sleep_for(300ms);
  EXPECT_FALSE(stopped.load());
  EXPECT_EQ(Connect(port), -1);  // no new connections once the stop has begun
  SetCallback(false, 0);
  stopper.join();
  EXPECT_EQ(ReadAll(s), ExpectedReply("31"));  // acknowledged before the callback ran
  close(s);
  EXPECT_EQ(Bodies().size(), 1u);
}

// The exported reader count is reset when a listener ends, but never over another
// listener's readers.
TEST_F(Listener, CounterResetSparesOtherListenersReaders) {
  oxCIM::CIMindication b;
  StartAndProbe(b, FreePort());
  int s = Connect(b.m_Port);
  ASSERT_TRUE(SendAll(s, "POST / HTTP/1.1\r\n"));
  ASSERT_TRUE(Eventually([] { return ActiveReaders() == 1; }));
  l.stop_Listener();
  EXPECT_EQ(ActiveReaders(), 1);
  __atomic_add_fetch(&oxCIM::ListenerThreadIsActive, 5, __ATOMIC_SEQ_CST);  // a stale count
  b.stop_Listener();
  EXPECT_EQ(ActiveReaders(), 0);
  EXPECT_EQ(ReadAll(s), "");
  close(s);
}

TEST_F(Unstarted, StalledPeersNeitherDelayNorOutliveTheStop) {
  // Push every socket of the test beyond FD_SETSIZE, where select() cannot go.
  std::vector<int> pads;
  SetLimit(RLIMIT_NOFILE, RLIM_INFINITY);
  for (int fd; pads.size() < 1100 && (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) != -1;) pads.push_back(fd);
  std::string request = Request(WithId("5"));
  size_t head = request.size() - WithId("5").size();
  const std::string stalls[] = {"", request.substr(0, 20), request.substr(0, head),
                                request.substr(0, head + 3), request.substr(0, head + 40)};
  auto* heap = new oxCIM::CIMindication;
  for (int round = 0; round < 2; ++round) {  // the second on the same object and port
    SCOPED_TRACE(round);
    StartAndProbe(*heap, port);
    std::vector<int> peers;
    for (const auto& part : stalls) {
      peers.push_back(Connect(port));
      ASSERT_TRUE(peers.back() != -1 && (part.empty() || SendAll(peers.back(), part)));
    }
    // One more that drips its body, a byte at a time, and never finishes it.
    int dripper = Connect(port);
    ASSERT_TRUE(SendAll(dripper, request.substr(0, head)));
    std::atomic<bool> quit{false};
    std::thread drip([&] {
      for (int i = 0; i < 100 && !quit && SendAll(dripper, "<"); ++i) std::this_thread::sleep_for(20ms);
    });
    ASSERT_TRUE(Eventually([&] { return ActiveReaders() == static_cast<int>(peers.size()) + 1; }));

    auto t0 = Clock::now();
    heap->stop_Listener();
    EXPECT_LT(Clock::now() - t0, 5s);  // not the 60-s receive wait nor the 30-s stop bound
    EXPECT_EQ(ActiveReaders(), 0);     // every reader has returned
    quit = true;
    drip.join();
    for (int s : peers) {
      EXPECT_EQ(ReadAll(s), "");  // dropped, no reply
      close(s);
    }
    close(dripper);
  }
  delete heap;  // at once: no reader or listener thread may reach it any more
  EXPECT_EQ(tc.count(TRACE_STATUS, kStopped), 2);
  EXPECT_EQ(tc.count(TRACE_ERROR, "stop_Listener: Listener-Thread is not stopped yet!"), 0);
  EXPECT_TRUE(Bodies().empty());
  for (int fd : pads) close(fd);
  StartAndProbe(l, port);  // the port is free at once for another object too
}

TEST_F(Unstarted, ConcurrentSendersAreEachAnsweredAndDeliveredOnce) {
  const int kSenders = 16, kPerSender = 1000;
  // Sanitizer runtimes add a helper thread with the first thread created: start one
  // first so the baseline counts it. Earlier tests' readers may still be on their way out.
  std::thread([] {}).join();
  Eventually([] { return Entries("/proc/self/task").size() <= 2; });
  const size_t tasks0 = Entries("/proc/self/task").size();
  StartAndProbe(l, port);

  auto deadline = Clock::now() + 240s;
  std::atomic<int> bad{0};
  std::vector<std::thread> senders;
  for (int t = 0; t < kSenders; ++t)
    senders.emplace_back([&, t] {
      for (int i = 0; i < kPerSender && Clock::now() < deadline; ++i) {
        std::string id = std::to_string(t * 100000 + i + 1);
        bad += RawExchange(port, Request(WithId(id))) != ExpectedReply(id);
      }
    });
  for (auto& th : senders) th.join();
  ASSERT_LT(Clock::now(), deadline);
  EXPECT_EQ(bad.load(), 0);
  l.stop_Listener();

  // Each body differs by its ID: as many distinct bodies as deliveries, one per request.
  const std::vector<std::string> bodies = Bodies(true);
  EXPECT_EQ(bodies.size(), static_cast<size_t>(kSenders * kPerSender));
  EXPECT_EQ(std::set<std::string>(bodies.begin(), bodies.end()).size(), bodies.size());
  EXPECT_TRUE(Eventually([&] { return Entries("/proc/self/task").size() <= tasks0; }));
  EXPECT_EQ(ActiveReaders(), 0);
}
