// What a broken or hostile server can do to a client: endless or huge answers, absurd
// status numbers, and allocation failures anywhere inside an operation.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include "TestSupport.h"

// Allocation failure on demand, on the arming thread only (the servers' threads must
// keep working): the countdown-th allocation from now throws.
namespace {
thread_local long t_countdown = -1;
thread_local long t_allocations = 0;
}  // namespace

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t n) {
  ++t_allocations;
  if (t_countdown >= 0 && t_countdown-- == 0) throw std::bad_alloc();
  if (void* p = std::malloc(n ? n : 1)) return p;
  throw std::bad_alloc();
}
void* operator new[](std::size_t n) { return operator new(n); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
#pragma GCC diagnostic pop

namespace {

std::string errorAnswer(const std::string& code, const std::string& padding = "") {
  return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<CIM CIMVERSION=\"2.0\" DTDVERSION=\"2.0\">"
         "<MESSAGE ID=\"1001\" PROTOCOLVERSION=\"1.0\"><SIMPLERSP>"
         "<IMETHODRESPONSE NAME=\"GetInstance\"><ERROR CODE=\"" +
         code + "\" DESCRIPTION=\"refused\"/>" + padding + "</IMETHODRESPONSE></SIMPLERSP></MESSAGE></CIM>\n";
}

int exchange(oxCIM::CIMconnection& c) {
  char object[] = "root/cimv2";
  c.m_Request = "<?xml version=\"1.0\"?><CIM/>";
  return c.sendRequest_recvResponse("GetInstance", object);
}

// Answers one connection with a chunked body that never ends, until the client goes away
// or the bounds (1 GiB, 20 s) are reached.
class EndlessServer {
 public:
  EndlessServer() : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a);
    listen(fd_, 4);
    getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len);
    port = ntohs(a.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~EndlessServer() {
    shutdown(fd_, SHUT_RDWR);
    thread_.join();
    close(fd_);
  }
  int port = 0;
  std::atomic<uint64_t> sent{0};
  std::atomic<bool> clientLeft{false};

 private:
  void serve() {
    const int c = accept(fd_, nullptr, nullptr);
    if (c < 0) return;
    char buf[4096];
    recv(c, buf, sizeof buf, 0);
    oxtest::SendAll(c, "HTTP/1.1 200 OK\r\nContent-Type: application/xml\r\n"
                       "Transfer-Encoding: chunked\r\n\r\n5\r\n<CIM>\r\n");
    const std::string chunk = "10000\r\n" + std::string(0x10000, 'x') + "\r\n";
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (sent < (1ULL << 30) && std::chrono::steady_clock::now() < end && !clientLeft) {
      clientLeft = send(c, chunk.data(), chunk.size(), MSG_NOSIGNAL) <= 0;
      sent += 0x10000;
    }
    close(c);
  }
  const int fd_;
  std::thread thread_;
};

TEST(ResponseLimit, EndlessBodyIsCutAtTheLimitAndNotParsed) {
  EndlessServer server;
  oxCIM::CIMconnection c;
  oxtest::PointAt(c, server.port);
  EXPECT_EQ(c.m_MaxResponseBytes, oxCIM::kDefaultMaxResponseBytes);
  c.m_MaxResponseBytes = 4 << 20;
  oxtest::TraceCapture trace(oxCIM::TRACE_STATUS);
  EXPECT_EQ(exchange(c), oxCIM::ERR_ResponseTooLarge);
  EXPECT_TRUE(c.m_Response.empty());
  EXPECT_TRUE(c.m_ResponseTree.m_Name == nullptr && c.m_ResponseTree.m_Next == nullptr);
  ASSERT_TRUE(oxtest::Eventually([&] { return server.clientLeft.load(); }));
  EXPECT_LT(server.sent, 64u << 20) << "the client kept reading past its limit";
  const auto codes = trace.statusCodes();
  ASSERT_FALSE(codes.empty());
  EXPECT_THAT(codes[0], testing::StartsWith("5006 sendRequest_recvResponse: response body larger than 4194304"));
}

// The limit's boundary, no limit at all, and the dump that shows only a large body's head.
TEST(ResponseLimit, BoundaryNoLimitAndTheDumpOfALargeBody) {
  oxtest::ScriptedServer server;
  const std::string body = errorAnswer("6", "<!--" + std::string(300000, 'p') + "-->");
  server.setDefault(oxtest::CannedResponse::cimOk(body));
  for (uint64_t limit : {body.size(), body.size() - 1, uint64_t{0}}) {
    oxCIM::CIMconnection c;
    oxtest::PointAt(c, server.port());
    c.m_MaxResponseBytes = limit;
    oxtest::TraceCapture trace(oxCIM::TRACE_STATUS);
    EXPECT_EQ(exchange(c), limit == body.size() - 1 ? oxCIM::ERR_ResponseTooLarge : 6) << "limit " << limit;
    if (limit != 0) continue;
    const auto dumps = trace.texts("Debug_Request_Response");
    ASSERT_EQ(dumps.size(), 1u);
    const std::string& d = dumps[0];
    EXPECT_THAT(d, testing::EndsWith("\n[... " + std::to_string(body.size() - oxCIM::kDumpLimitBytes) +
                                     " more bytes not shown]\n"));
    EXPECT_THAT(d, testing::HasSubstr("------ RESPONSE:\n" + body.substr(0, oxCIM::kDumpLimitBytes)));
    EXPECT_LT(d.size(), oxCIM::kDumpLimitBytes + 4096);
  }
}

// A status number that does not fit must be an error, never success, never overflow.
TEST(PeerNumbers, ErrorCodesAndStatusHeaders) {
  // A null errorCode: no ERROR element; a null statusHeader: no CIMStatusCode header.
  const struct { const char* errorCode; const char* statusHeader; int expected; } cases[] = {
      {"2147473647", nullptr, 2147473647}, {"2147473648", nullptr, 1001}, {"4294967296", nullptr, 1001},
      {"4294967302", nullptr, 1001}, {"99999999999999999999999", nullptr, 1001}, {"-4294967290", nullptr, 1001},
      {nullptr, "2147473647", 2147483647}, {nullptr, "2147483647", 1001}, {nullptr, "4294967296", 1001},
      {nullptr, "4294967300", 1001}, {nullptr, "-10000", 1001}};
  oxtest::ScriptedServer server;
  for (const auto& k : cases) {
    auto r = oxtest::CannedResponse::cimOk(k.errorCode ? errorAnswer(k.errorCode) : oxtest::ReadFixture("op_void.xml"));
    if (k.statusHeader) r.headers.emplace_back("CIMStatusCode", k.statusHeader);
    server.push(r);
    oxCIM::CIMconnection c;
    oxtest::PointAt(c, server.port());
    EXPECT_EQ(exchange(c), k.expected)
        << (k.errorCode ? k.errorCode : "") << (k.statusHeader ? k.statusHeader : "");
  }
}

// An answer with `copies` times the named instances of the fixture.
std::string enumerationOf(int copies) {
  const std::string fixture = oxtest::ReadFixture("op_enuminstances.xml");
  const size_t from = fixture.find("<VALUE.NAMEDINSTANCE>");
  const size_t to = fixture.rfind("</VALUE.NAMEDINSTANCE>") + 22;
  std::string body = fixture.substr(0, from);
  for (int i = 0; i < copies; ++i) body += fixture.substr(from, to - from);
  return body + fixture.substr(to);
}

// Allocations of an operation failed in turn (every one of a small answer, a sample of a
// large one that is read while it arrives): the operation returns, reports a failure or a
// complete result, and the container works normally afterwards.
TEST(AllocationFailure, NeverEscapesNorReadsAsSuccess) {
  for (const auto& [copies, samples] : {std::pair<int, long>{1, 100000}, {1500, 150}}) {
    SCOPED_TRACE(copies);
    oxtest::ScriptedServer server;
    server.setDefault(oxtest::CannedResponse::cimOk(enumerationOf(copies)));
    auto run = [&](oxCIM::CIMcontainer& c, long failAt) {
      oxtest::PointAt(c, server.port());
      c.setCurrentClass("OX_Disk", "root/cimv2");
      t_allocations = 0;
      t_countdown = failAt;
      const unsigned long first = c.Imethod_EnumerateInstances(-1, -1, -1, -1, nullptr);
      t_countdown = -1;
      size_t n = 0;
      for (oxCIM::CIMelement* e = c.m_pcls ? c.m_pcls->m_Properties : nullptr; e; e = e->m_Next)
        if (e->m_Name && std::strcmp(e->m_Name, "INSTANCE") == 0) ++n;
      return std::make_pair(first, n);
    };
    oxCIM::CIMcontainer clean;
    const auto reference = run(clean, -1);
    const long total = t_allocations;
    ASSERT_NE(reference.first, 0u);
    ASSERT_GT(reference.second, 1u);

    oxtest::TraceCapture trace(oxCIM::TRACE_STATUS);
    int failed = 0;
    for (long k = 0; k < total; k += total / samples + 1) {
      oxCIM::CIMcontainer c;
      std::pair<unsigned long, size_t> r;
      ASSERT_NO_THROW(r = run(c, k)) << "allocation " << k;
      if (c.m_ErrCode == 0) {
        EXPECT_NE(r.first, 0u) << "allocation " << k;
        EXPECT_EQ(r.second, reference.second)
            << "allocation " << k << ": partial result read as success";
      } else {
        EXPECT_EQ(r.first, 0u) << "allocation " << k;
        ++failed;
      }
      EXPECT_EQ(run(c, -1).second, reference.second) << "unusable after allocation " << k;
    }
    EXPECT_GT(failed, 0) << total << " allocations";
    EXPECT_THAT(trace.statusCodes(), testing::Contains(testing::HasSubstr(": Exception raised: std::bad_alloc")))
        << "no failure was reported as the exception it was";
  }
}

}  // namespace
