// The HTTP/1.1 server core of the CIM simulator, and its scripted mode.
//
// HttpServer: loopback (or any address) listener, keep-alive, a bounded pool of worker
// threads, optional TLS (OpenSSL) with an optional client-certificate demand. It hands each
// request to a handler and carries out the reply the handler returns, faults included
// (delay, slow drip, close without reply, never answer). Every limit is bounded: header
// size, body size, open connections, idle time.
//
// ScriptedServer: the same core answering from a script of canned responses and recording
// every request byte for byte, for tests and benchmarks:
//   oxsim::ScriptedServer srv;                      // listening as soon as constructed
//   srv.push(oxsim::CannedResponse::cimOk(xml));    // next request gets this
//   conn.m_Port = std::to_string(srv.port());
//   auto reqs = srv.requests();                     // reqs[0].raw == exact wire bytes
// One request per connection ("Connection: close"), as a strict test wants to see them.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace oxsim {

using HeaderList = std::vector<std::pair<std::string, std::string>>;

// One request as received.
struct RecordedRequest {
  std::string raw;          // every byte read, request line to end of body
  std::string requestLine;  // e.g. "POST /cimom HTTP/1.1" (without CRLF)
  HeaderList headers;       // in wire order, values trimmed
  std::string body;         // Content-Length bytes after the blank line

  // First header with that name (case-insensitive), or "" when absent.
  std::string header(const std::string& name) const;
};

// One answer, or a way of not answering.
struct CannedResponse {
  enum class Action {
    Reply,              // status line, headers, body
    CloseWithoutReply,  // close without writing anything
    NeverAnswer,        // hold the connection until the server stops
  };

  Action action = Action::Reply;
  int status = 200;
  std::string reason = "OK";
  HeaderList headers;  // sent in this order, then Content-Length (and Connection)
  std::string body;
  std::size_t dripChunk = 0;  // >0: write the body in chunks of this many bytes...
  int dripPauseMs = 0;        // ...with this pause before each chunk
  int delayMs = 0;            // pause before anything is written
  bool close = false;         // close the connection after this answer

  // 200 with the headers a CIM server sends for an operation response.
  static CannedResponse cimOk(std::string body);
  // Any status with an optional body and no CIM headers.
  static CannedResponse http(int status, std::string reason, std::string body = {});
  static CannedResponse closeWithoutReply();
  static CannedResponse neverAnswer();
};

// A throw-away PKI written as PEM files to a fresh temporary directory (removed by the
// destructor): a CA, a server certificate for 127.0.0.1/localhost signed by it, a client
// certificate signed by it, and an unrelated second CA.
class TestPki {
 public:
  TestPki();  // throws std::runtime_error on failure
  ~TestPki();
  TestPki(const TestPki&) = delete;
  TestPki& operator=(const TestPki&) = delete;

  std::string dir;
  std::string caFile;
  std::string serverCert;  // SAN IP:127.0.0.1, DNS:localhost
  std::string serverKey;
  std::string clientCert;  // CN=oxcim-test-client
  std::string clientKey;
  std::string otherCaFile;
};

struct HttpOptions {
  std::string address = "127.0.0.1";
  int port = 0;                     // 0: ephemeral
  std::string certFile, keyFile;    // both set: HTTPS
  std::string clientCaFile;         // set (with TLS): demand a client certificate from this CA
  int threads = 8;                  // worker pool: connections served at the same time
  std::size_t maxConnections = 64;  // served + waiting; more are closed at once
  std::size_t maxHeaderBytes = 64 * 1024;
  std::size_t maxBodyBytes = 32u << 20;
  int idleTimeoutMs = 5000;   // keep-alive connection without a request
  int readTimeoutMs = 10000;  // a request that stops arriving half-way
  bool keepAlive = true;      // false: one request per connection
};

class HttpServer {
 public:
  // Runs on a worker thread; what it throws becomes a 500. Shared, so that large canned
  // bodies are never copied per request.
  using Handler = std::function<std::shared_ptr<const CannedResponse>(const RecordedRequest&)>;

  HttpServer(HttpOptions options, Handler handler);
  ~HttpServer();  // stop()
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Loads the certificate, binds, listens and starts the threads; false with a reason.
  bool start(std::string& error);
  // Closes the listener and every connection, wakes every pause, joins every thread.
  // Prompt even while connections are stalled. Idempotent.
  void stop();

  int port() const { return port_; }
  bool tls() const { return sslCtx_ != nullptr; }
  // Connections accepted so far (including refused ones and failed TLS handshakes).
  std::size_t connectionCount() const;
  // Sleeps ms unless the server stops first; false when it stopped.
  bool sleepUnlessStopped(int ms) const;

 private:
  void acceptLoop();
  void workerLoop();
  void serve(int fd);
  bool writeReply(int fd, void* ssl, const CannedResponse& r, bool keepOpen);

  HttpOptions opt_;
  Handler handler_;
  int listenFd_ = -1;
  int port_ = 0;
  void* sslCtx_ = nullptr;  // SSL_CTX*
  std::atomic<bool> stopping_{false};
  bool started_ = false;
  std::thread acceptThread_;
  std::vector<std::thread> workers_;

  mutable std::mutex mu_;
  mutable std::condition_variable cv_;
  std::deque<int> pending_;  // accepted, waiting for a worker
  std::set<int> open_;       // being served
  std::size_t accepted_ = 0;
};

// Canned answers in order, then the default; every request recorded.
class ScriptedServer {
 public:
  struct Options {
    const TestPki* tls = nullptr;    // non-null: HTTPS with its server certificate
    bool requireClientCert = false;  // TLS only: demand a client certificate from its CA
  };

  ScriptedServer();
  explicit ScriptedServer(const Options& options);  // throws std::runtime_error on failure
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  int port() const { return server_->port(); }
  void push(CannedResponse response);
  // Used when the queue is empty. Starts as CannedResponse::cimOk("").
  void setDefault(CannedResponse response);

  std::vector<RecordedRequest> requests() const;
  std::size_t requestCount() const;
  void clearRequests();
  std::size_t connectionCount() const { return server_->connectionCount(); }
  // Waits until at least n requests were recorded; false on time-out.
  bool waitForRequests(std::size_t n, int timeoutMs) const;
  void stop();

 private:
  std::shared_ptr<const CannedResponse> answer(const RecordedRequest& request);

  mutable std::mutex mu_;
  mutable std::condition_variable cv_;
  std::vector<std::shared_ptr<const CannedResponse>> script_;
  std::size_t scriptPos_ = 0;
  std::shared_ptr<const CannedResponse> default_;
  std::vector<RecordedRequest> requests_;
  std::unique_ptr<HttpServer> server_;
};

// Text helpers shared by the simulator's parts.
bool SameNoCase(const std::string& a, const std::string& b);
std::string Base64(const std::string& in);

}  // namespace oxsim
