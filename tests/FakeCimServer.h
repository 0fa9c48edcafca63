// In-process HTTP/1.1 server for tests and benchmarks: answers from a script of canned
// responses and records every request byte for byte. Plain TCP or TLS (OpenSSL), always on
// 127.0.0.1 with an ephemeral port. Free of GoogleTest so benchmarks can link it.
//
// Typical use:
//   oxtest::FakeCimServer srv;                       // listening as soon as constructed
//   srv.push(oxtest::CannedResponse::cimOk(xml));    // next connection gets this
//   conn.m_Port = std::to_string(srv.port());
//   ... run the exchange ...
//   auto reqs = srv.requests();                      // reqs[0].raw == exact wire bytes
//
// One request is read per connection, the answer is written and the connection closed.
// Request bodies are read by Content-Length (what libcurl sends for POSTFIELDS); chunked
// request bodies are not supported. "Expect: 100-continue" is honoured.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace oxtest {

using HeaderList = std::vector<std::pair<std::string, std::string>>;

// One scripted answer.
struct CannedResponse {
  enum class Action {
    Reply,              // write status line, headers, body, then close
    CloseWithoutReply,  // read the request, then close without writing anything
    NeverAnswer,        // read the request, then hold the connection until the server stops
  };

  Action action = Action::Reply;
  int status = 200;
  std::string reason = "OK";
  HeaderList headers;      // sent in this order, then Content-Length
  std::string body;
  std::size_t dripChunk = 0;     // >0: write the body in chunks of this many bytes...
  int dripPauseMs = 0;           // ...with this pause before each chunk

  // 200 with the headers a CIM server sends for an operation response.
  static CannedResponse cimOk(std::string body);
  // Any status with an optional body and no CIM headers.
  static CannedResponse http(int status, std::string reason, std::string body = {});
  static CannedResponse closeWithoutReply();
  static CannedResponse neverAnswer();
};

// One request as received.
struct RecordedRequest {
  std::string raw;          // every byte read, request line to end of body
  std::string requestLine;  // e.g. "POST /cimom HTTP/1.1" (without CRLF)
  HeaderList headers;       // in wire order, names and values as sent (value trimmed)
  std::string body;         // Content-Length bytes after the blank line

  // First header with that name (case-insensitive), or "" when absent.
  std::string header(const std::string& name) const;
};

// A throw-away PKI written as PEM files to a fresh temporary directory (removed again by
// the destructor): a CA, a server certificate for 127.0.0.1/localhost signed by it, a
// client certificate signed by it, and an unrelated second CA. Generating one takes a few
// milliseconds (EC P-256 keys); share one per test suite if you like.
class TestPki {
 public:
  TestPki();  // throws std::runtime_error on failure
  ~TestPki();
  TestPki(const TestPki&) = delete;
  TestPki& operator=(const TestPki&) = delete;

  std::string dir;
  std::string caFile;       // CA certificate
  std::string serverCert;   // server certificate (SAN IP:127.0.0.1, DNS:localhost)
  std::string serverKey;
  std::string clientCert;   // client certificate (CN=oxcim-test-client)
  std::string clientKey;
  std::string otherCaFile;  // a CA that signed nothing here
};

class FakeCimServer {
 public:
  struct Options {
    const TestPki* tls = nullptr;     // non-null: serve HTTPS with pki->serverCert/serverKey
    bool requireClientCert = false;   // TLS only: demand a client certificate signed by the CA
  };

  FakeCimServer();  // plain HTTP
  explicit FakeCimServer(const Options& options);  // throws std::runtime_error on failure
  ~FakeCimServer();  // stop()
  FakeCimServer(const FakeCimServer&) = delete;
  FakeCimServer& operator=(const FakeCimServer&) = delete;

  int port() const { return port_; }

  // Queue an answer; connections take them in arrival order.
  void push(CannedResponse response);
  // Used when the queue is empty. Starts as CannedResponse::cimOk("").
  void setDefault(CannedResponse response);

  std::vector<RecordedRequest> requests() const;
  std::size_t requestCount() const;
  void clearRequests();
  // Connections accepted so far (including ones whose TLS handshake failed).
  std::size_t connectionCount() const;
  // Waits until at least n requests were recorded; false on time-out.
  bool waitForRequests(std::size_t n, int timeoutMs) const;

  // Closes the listener and every open connection, wakes all pauses and joins every
  // thread. Prompt even while connections are stalled. Idempotent.
  void stop();

 private:
  struct Conn;
  void acceptLoop();
  void serve(Conn* conn);
  bool sleepUnlessStopped(int ms);
  std::shared_ptr<const CannedResponse> nextResponse();

  int listenFd_ = -1;
  int port_ = 0;
  void* sslCtx_ = nullptr;  // SSL_CTX*
  std::atomic<bool> stopping_{false};
  std::thread acceptThread_;

  mutable std::mutex mu_;
  mutable std::condition_variable cv_;
  // Shared so that large canned bodies are never copied per connection.
  std::vector<std::shared_ptr<const CannedResponse>> script_;
  std::size_t scriptPos_ = 0;
  std::shared_ptr<const CannedResponse> default_;
  std::vector<RecordedRequest> requests_;
  std::size_t connections_ = 0;
  std::vector<std::unique_ptr<Conn>> conns_;
};

}  // namespace oxtest
