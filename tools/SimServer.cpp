#include "SimServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace oxsim {

bool SameNoCase(const std::string& a, const std::string& b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string Base64(const std::string& in) {
  static const char* digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  std::size_t i = 0;
  for (; i + 2 < in.size(); i += 3) {
    const unsigned v =
        (unsigned char)in[i] << 16 | (unsigned char)in[i + 1] << 8 | (unsigned char)in[i + 2];
    out += {digits[v >> 18], digits[v >> 12 & 63], digits[v >> 6 & 63], digits[v & 63]};
  }
  if (i + 1 == in.size()) {
    const unsigned v = (unsigned char)in[i] << 16;
    out += {digits[v >> 18], digits[v >> 12 & 63], '=', '='};
  } else if (i + 2 == in.size()) {
    const unsigned v = (unsigned char)in[i] << 16 | (unsigned char)in[i + 1] << 8;
    out += {digits[v >> 18], digits[v >> 12 & 63], digits[v >> 6 & 63], '='};
  }
  return out;
}

// ---------------------------------------------------------------------------------------
// Canned responses and recorded requests

CannedResponse CannedResponse::cimOk(std::string body) {
  CannedResponse r;
  r.headers = {{"Content-Type", "application/xml; charset=\"utf-8\""},
               {"CIMOperation", "MethodResponse"}};
  r.body = std::move(body);
  return r;
}

CannedResponse CannedResponse::http(int status, std::string reason, std::string body) {
  CannedResponse r;
  r.status = status;
  r.reason = std::move(reason);
  r.body = std::move(body);
  return r;
}

CannedResponse CannedResponse::closeWithoutReply() {
  CannedResponse r;
  r.action = Action::CloseWithoutReply;
  return r;
}

CannedResponse CannedResponse::neverAnswer() {
  CannedResponse r;
  r.action = Action::NeverAnswer;
  return r;
}

std::string RecordedRequest::header(const std::string& name) const {
  for (const auto& h : headers)
    if (SameNoCase(h.first, name)) return h.second;
  return {};
}

// ---------------------------------------------------------------------------------------
// Throw-away PKI

namespace {

struct PkeyFree {
  void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
};
struct X509Free {
  void operator()(X509* p) const { X509_free(p); }
};
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyFree>;
using X509Ptr = std::unique_ptr<X509, X509Free>;

void fail(const char* what) {
  ERR_clear_error();
  throw std::runtime_error(std::string("test PKI: ") + what);
}

void addExt(X509* cert, X509* issuer, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
  if (!ext) fail("extension");
  X509_add_ext(cert, ext, -1);
  X509_EXTENSION_free(ext);
}

// issuer == nullptr: self-signed CA.
X509Ptr makeCert(EVP_PKEY* key, const char* cn, long serial, X509* issuer, EVP_PKEY* issuerKey,
                 bool isCa, bool server) {
  X509Ptr cert(X509_new());
  if (!cert) fail("X509_new");
  X509_set_version(cert.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), 7L * 24 * 3600);
  X509_set_pubkey(cert.get(), key);
  X509_NAME* subject = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(subject, "O", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("oxCIM tests"), -1, -1, 0);
  X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(cn), -1, -1, 0);
  X509* signer = issuer ? issuer : cert.get();
  X509_set_issuer_name(cert.get(), X509_get_subject_name(signer));
  addExt(cert.get(), signer, NID_subject_key_identifier, "hash");
  if (isCa) {
    addExt(cert.get(), signer, NID_basic_constraints, "critical,CA:TRUE");
    addExt(cert.get(), signer, NID_key_usage, "critical,keyCertSign,cRLSign");
  } else {
    addExt(cert.get(), signer, NID_authority_key_identifier, "keyid:always");
    addExt(cert.get(), signer, NID_basic_constraints, "critical,CA:FALSE");
    addExt(cert.get(), signer, NID_key_usage, "critical,digitalSignature");
    addExt(cert.get(), signer, NID_ext_key_usage, server ? "serverAuth" : "clientAuth");
    if (server) addExt(cert.get(), signer, NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost");
  }
  if (X509_sign(cert.get(), issuerKey ? issuerKey : key, EVP_sha256()) == 0) fail("X509_sign");
  return cert;
}

PkeyPtr makeKey() {
  PkeyPtr key(EVP_EC_gen("P-256"));
  if (!key) fail("EVP_EC_gen");
  return key;
}

void writeCert(const std::string& path, X509* cert) {
  FILE* f = fopen(path.c_str(), "w");
  if (!f) fail("cannot write certificate");
  const int ok = PEM_write_X509(f, cert);
  fclose(f);
  if (!ok) fail("PEM_write_X509");
}

void writeKey(const std::string& path, EVP_PKEY* key) {
  FILE* f = fopen(path.c_str(), "w");
  if (!f) fail("cannot write key");
  const int ok = PEM_write_PrivateKey(f, key, nullptr, nullptr, 0, nullptr, nullptr);
  fclose(f);
  if (!ok) fail("PEM_write_PrivateKey");
}

}  // namespace

TestPki::TestPki() {
  char tmpl[] = "/tmp/oxcim-pki-XXXXXX";
  if (!mkdtemp(tmpl)) throw std::runtime_error("test PKI: mkdtemp failed");
  dir = tmpl;
  caFile = dir + "/ca.pem";
  serverCert = dir + "/server.pem";
  serverKey = dir + "/server.key";
  clientCert = dir + "/client.pem";
  clientKey = dir + "/client.key";
  otherCaFile = dir + "/other-ca.pem";
  try {
    PkeyPtr caKey = makeKey(), srvKey = makeKey(), cliKey = makeKey(), otherKey = makeKey();
    X509Ptr ca = makeCert(caKey.get(), "oxCIM test CA", 1, nullptr, nullptr, true, false);
    X509Ptr srv = makeCert(srvKey.get(), "localhost", 2, ca.get(), caKey.get(), false, true);
    X509Ptr cli =
        makeCert(cliKey.get(), "oxcim-test-client", 3, ca.get(), caKey.get(), false, false);
    X509Ptr other = makeCert(otherKey.get(), "unrelated CA", 4, nullptr, nullptr, true, false);
    writeCert(caFile, ca.get());
    writeCert(serverCert, srv.get());
    writeKey(serverKey, srvKey.get());
    writeCert(clientCert, cli.get());
    writeKey(clientKey, cliKey.get());
    writeCert(otherCaFile, other.get());
  } catch (...) {
    this->~TestPki();
    throw;
  }
}

TestPki::~TestPki() {
  for (const std::string* f :
       {&caFile, &serverCert, &serverKey, &clientCert, &clientKey, &otherCaFile})
    if (!f->empty()) unlink(f->c_str());
  if (!dir.empty()) rmdir(dir.c_str());
}

// ---------------------------------------------------------------------------------------
// Server core

namespace {

// A peer that went away must not kill the process: SIGPIPE is blocked in the server's
// threads (a failed write raises it in the writing thread only).
void blockSigpipe() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

// Waits for input; 1 readable, 0 time-out, -1 error or hang-up without data.
int waitReadable(int fd, SSL* ssl, int timeoutMs) {
  if (ssl && SSL_pending(ssl) > 0) return 1;
  pollfd p{fd, POLLIN, 0};
  for (;;) {
    const int r = poll(&p, 1, timeoutMs);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return r;
    return 1;
  }
}

long ioRead(int fd, SSL* ssl, char* buf, std::size_t len, int timeoutMs) {
  if (waitReadable(fd, ssl, timeoutMs) <= 0) return -1;
  if (ssl) {
    const int n = SSL_read(ssl, buf, static_cast<int>(len));
    return n > 0 ? n : -1;
  }
  for (;;) {
    const ssize_t n = recv(fd, buf, len, 0);
    if (n < 0 && errno == EINTR) continue;
    return n > 0 ? static_cast<long>(n) : -1;
  }
}

bool ioWrite(int fd, SSL* ssl, const char* data, std::size_t len) {
  while (len > 0) {
    long n;
    if (ssl) {
      const int w = SSL_write(ssl, data, static_cast<int>(std::min<std::size_t>(len, 1 << 20)));
      n = w > 0 ? w : -1;
    } else {
      n = send(fd, data, len, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
    }
    if (n <= 0) return false;
    data += n;
    len -= static_cast<std::size_t>(n);
  }
  return true;
}

std::string trim(const std::string& s) {
  const auto b = s.find_first_not_of(" \t");
  if (b == std::string::npos) return {};
  const auto e = s.find_last_not_of(" \t");
  return s.substr(b, e - b + 1);
}

void parseHead(const std::string& head, RecordedRequest& req) {
  std::size_t pos = 0;
  bool first = true;
  while (pos < head.size()) {
    std::size_t eol = head.find("\r\n", pos);
    if (eol == std::string::npos) eol = head.size();
    const std::string line = head.substr(pos, eol - pos);
    pos = eol + 2;
    if (first) {
      req.requestLine = line;
      first = false;
      continue;
    }
    const auto colon = line.find(':');
    if (colon == std::string::npos) continue;
    req.headers.emplace_back(line.substr(0, colon), trim(line.substr(colon + 1)));
  }
}

const char* reasonOf(int status) {
  switch (status) {
    case 400:
      return "Bad Request";
    case 408:
      return "Request Timeout";
    case 413:
      return "Payload Too Large";
    case 431:
      return "Request Header Fields Too Large";
    case 500:
      return "Internal Server Error";
    case 501:
      return "Not Implemented";
    default:
      return "Error";
  }
}

}  // namespace

HttpServer::HttpServer(HttpOptions options, Handler handler)
    : opt_(std::move(options)), handler_(std::move(handler)) {
  if (opt_.threads < 1) opt_.threads = 1;
  if (opt_.maxConnections < 1) opt_.maxConnections = 1;
}

HttpServer::~HttpServer() {
  stop();
  if (sslCtx_) SSL_CTX_free(static_cast<SSL_CTX*>(sslCtx_));
}

bool HttpServer::start(std::string& error) {
  if (started_) {
    error = "already started";
    return false;
  }
  if (!opt_.certFile.empty() || !opt_.keyFile.empty()) {
    SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
    if (!ctx) {
      error = "SSL_CTX_new failed";
      return false;
    }
    sslCtx_ = ctx;
    if (SSL_CTX_use_certificate_chain_file(ctx, opt_.certFile.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(ctx, opt_.keyFile.c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_check_private_key(ctx) != 1) {
      ERR_clear_error();
      error = "cannot load certificate " + opt_.certFile + " with key " + opt_.keyFile;
      return false;
    }
    if (!opt_.clientCaFile.empty()) {
      if (SSL_CTX_load_verify_locations(ctx, opt_.clientCaFile.c_str(), nullptr) != 1) {
        ERR_clear_error();
        error = "cannot load CA file " + opt_.clientCaFile;
        return false;
      }
      SSL_CTX_set_client_CA_list(ctx, SSL_load_client_CA_file(opt_.clientCaFile.c_str()));
      SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    }
  }
  listenFd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(opt_.port));
  socklen_t alen = sizeof addr;
  const int one = 1;
  if (listenFd_ >= 0) setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  if (listenFd_ < 0 || inet_pton(AF_INET, opt_.address.c_str(), &addr.sin_addr) != 1 ||
      bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      listen(listenFd_, 128) != 0 ||
      getsockname(listenFd_, reinterpret_cast<sockaddr*>(&addr), &alen) != 0) {
    error = "cannot listen on " + opt_.address + ":" + std::to_string(opt_.port) + ": " +
            std::strerror(errno);
    if (listenFd_ >= 0) close(listenFd_);
    listenFd_ = -1;
    return false;
  }
  port_ = ntohs(addr.sin_port);
  started_ = true;
  for (int i = 0; i < opt_.threads; ++i) workers_.emplace_back([this] { workerLoop(); });
  acceptThread_ = std::thread([this] { acceptLoop(); });
  return true;
}

void HttpServer::stop() {
  if (!started_) return;
  {
    std::lock_guard<std::mutex> lk(mu_);
    if (stopping_.exchange(true)) return;
    // Wakes accept(), every blocked read or write, then every pause.
    shutdown(listenFd_, SHUT_RDWR);
    for (int fd : open_) shutdown(fd, SHUT_RDWR);
  }
  cv_.notify_all();
  if (acceptThread_.joinable()) acceptThread_.join();
  for (auto& w : workers_)
    if (w.joinable()) w.join();
  for (int fd : pending_) close(fd);
  pending_.clear();
  close(listenFd_);
  listenFd_ = -1;
}

std::size_t HttpServer::connectionCount() const {
  std::lock_guard<std::mutex> lk(mu_);
  return accepted_;
}

bool HttpServer::sleepUnlessStopped(int ms) const {
  std::unique_lock<std::mutex> lk(mu_);
  cv_.wait_for(lk, std::chrono::milliseconds(ms), [&] { return stopping_.load(); });
  return !stopping_.load();
}

void HttpServer::acceptLoop() {
  blockSigpipe();
  while (!stopping_) {
    pollfd pfd{listenFd_, POLLIN, 0};
    if (poll(&pfd, 1, 200) <= 0) continue;
    const int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    std::lock_guard<std::mutex> lk(mu_);
    ++accepted_;
    try {
      if (stopping_ || pending_.size() + open_.size() >= opt_.maxConnections) {
        close(fd);  // over the limit: refused at once rather than queued without bound
        continue;
      }
      pending_.push_back(fd);
    } catch (...) {
      close(fd);
      continue;
    }
    cv_.notify_all();
  }
}

void HttpServer::workerLoop() {
  blockSigpipe();
  for (;;) {
    int fd;
    {
      std::unique_lock<std::mutex> lk(mu_);
      cv_.wait(lk, [&] { return stopping_ || !pending_.empty(); });
      if (stopping_) return;
      fd = pending_.front();
      pending_.pop_front();
      open_.insert(fd);
    }
    try {
      serve(fd);
    } catch (...) {
      // A connection's trouble ends that connection, never the server.
    }
    std::lock_guard<std::mutex> lk(mu_);
    open_.erase(fd);
    close(fd);
  }
}

void HttpServer::serve(int fd) {
  SSL* ssl = nullptr;
  struct SslGuard {
    SSL*& s;
    ~SslGuard() {
      if (s) {
        SSL_shutdown(s);
        SSL_free(s);
      }
      ERR_clear_error();
    }
  } guard{ssl};
  // Bounds the blocking calls poll() does not guard: the TLS handshake and every write.
  const timeval limit{opt_.readTimeoutMs / 1000, (opt_.readTimeoutMs % 1000) * 1000};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  if (sslCtx_) {
    ssl = SSL_new(static_cast<SSL_CTX*>(sslCtx_));
    if (!ssl) return;
    SSL_set_fd(ssl, fd);
    if (waitReadable(fd, nullptr, opt_.readTimeoutMs) <= 0 || SSL_accept(ssl) != 1) {
      SSL_free(ssl);
      ssl = nullptr;
      return;
    }
  }
  std::string raw;  // bytes read but not yet consumed (pipelined requests stay here)
  char buf[16384];
  for (int served = 0;; ++served) {
    // Wait for the next request; give the worker back when others are waiting for one.
    std::size_t headEnd = raw.find("\r\n\r\n");
    if (headEnd == std::string::npos && raw.empty()) {
      int idle = 0;
      for (;;) {
        const int r = waitReadable(fd, ssl, 100);
        if (r < 0 || stopping_) return;
        if (r > 0) break;
        idle += 100;
        std::lock_guard<std::mutex> lk(mu_);
        if (idle >= opt_.idleTimeoutMs || (served > 0 && !pending_.empty())) return;
      }
    }
    while (headEnd == std::string::npos) {
      if (raw.size() > opt_.maxHeaderBytes) {
        CannedResponse r = CannedResponse::http(431, reasonOf(431));
        writeReply(fd, ssl, r, false);
        return;
      }
      const long n = ioRead(fd, ssl, buf, sizeof buf, opt_.readTimeoutMs);
      if (n <= 0) return;
      raw.append(buf, static_cast<std::size_t>(n));
      headEnd = raw.find("\r\n\r\n");
    }
    if (headEnd > opt_.maxHeaderBytes) {
      writeReply(fd, ssl, CannedResponse::http(431, reasonOf(431)), false);
      return;
    }
    RecordedRequest req;
    parseHead(raw.substr(0, headEnd), req);
    if (!req.header("Transfer-Encoding").empty()) {
      writeReply(fd, ssl, CannedResponse::http(501, reasonOf(501)), false);
      return;
    }
    const std::string cl = req.header("Content-Length");
    char* end = nullptr;
    errno = 0;
    const unsigned long long declared = cl.empty() ? 0 : std::strtoull(cl.c_str(), &end, 10);
    if ((!cl.empty() && (end == cl.c_str() || *end != '\0' || errno != 0)) ||
        declared > opt_.maxBodyBytes) {
      const int status = declared > opt_.maxBodyBytes ? 413 : 400;
      writeReply(fd, ssl, CannedResponse::http(status, reasonOf(status)), false);
      return;
    }
    const std::size_t bodyLen = static_cast<std::size_t>(declared);
    const std::size_t total = headEnd + 4 + bodyLen;
    if (SameNoCase(req.header("Expect"), "100-continue") && raw.size() < total) {
      static const char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";
      ioWrite(fd, ssl, kContinue, sizeof kContinue - 1);
    }
    while (raw.size() < total) {
      const long n = ioRead(fd, ssl, buf, sizeof buf, opt_.readTimeoutMs);
      if (n <= 0) return;
      raw.append(buf, static_cast<std::size_t>(n));
    }
    req.body = raw.substr(headEnd + 4, bodyLen);
    req.raw = raw.substr(0, total);
    raw.erase(0, total);
    const bool clientCloses = SameNoCase(req.header("Connection"), "close") ||
                              req.requestLine.find("HTTP/1.0") != std::string::npos;

    std::shared_ptr<const CannedResponse> reply;
    try {
      reply = handler_(req);
    } catch (...) {
      reply.reset();
    }
    if (!reply)
      reply = std::make_shared<const CannedResponse>(CannedResponse::http(500, reasonOf(500)));
    const CannedResponse& r = *reply;
    if (r.action == CannedResponse::Action::CloseWithoutReply) return;
    if (r.action == CannedResponse::Action::NeverAnswer) {
      std::unique_lock<std::mutex> lk(mu_);
      cv_.wait(lk, [&] { return stopping_.load(); });
      return;
    }
    if (r.delayMs > 0 && !sleepUnlessStopped(r.delayMs)) return;
    const bool keepOpen = opt_.keepAlive && !clientCloses && !r.close;
    if (!writeReply(fd, ssl, r, keepOpen) || !keepOpen) return;
  }
}

bool HttpServer::writeReply(int fd, void* sslp, const CannedResponse& r, bool keepOpen) {
  SSL* ssl = static_cast<SSL*>(sslp);
  std::string head = "HTTP/1.1 " + std::to_string(r.status) + " " + r.reason + "\r\n";
  for (const auto& h : r.headers) head += h.first + ": " + h.second + "\r\n";
  head += "Content-Length: " + std::to_string(r.body.size()) + "\r\n";
  head += keepOpen ? "\r\n" : "Connection: close\r\n\r\n";
  if (r.dripChunk == 0 && r.body.size() <= 65536) {
    head += r.body;  // one write for small answers keeps round trips cheap
    return ioWrite(fd, ssl, head.data(), head.size());
  }
  if (!ioWrite(fd, ssl, head.data(), head.size())) return false;
  if (r.dripChunk == 0) return ioWrite(fd, ssl, r.body.data(), r.body.size());
  for (std::size_t off = 0; off < r.body.size(); off += r.dripChunk) {
    if (r.dripPauseMs > 0 && !sleepUnlessStopped(r.dripPauseMs)) return false;
    const std::size_t n = std::min(r.dripChunk, r.body.size() - off);
    if (!ioWrite(fd, ssl, r.body.data() + off, n)) return false;
  }
  return true;
}

// ---------------------------------------------------------------------------------------
// Scripted mode

ScriptedServer::ScriptedServer() : ScriptedServer(Options{}) {}

ScriptedServer::ScriptedServer(const Options& options)
    : default_(std::make_shared<const CannedResponse>(CannedResponse::cimOk(""))) {
  HttpOptions http;
  http.keepAlive = false;
  http.threads = 16;  // stalled answers (never, drip) each hold a worker
  http.maxConnections = 256;
  http.maxBodyBytes = 256u << 20;
  http.maxHeaderBytes = 1 << 20;
  if (options.tls) {
    http.certFile = options.tls->serverCert;
    http.keyFile = options.tls->serverKey;
    if (options.requireClientCert) http.clientCaFile = options.tls->caFile;
  }
  server_ =
      std::make_unique<HttpServer>(http, [this](const RecordedRequest& r) { return answer(r); });
  std::string error;
  if (!server_->start(error)) throw std::runtime_error("ScriptedServer: " + error);
}

ScriptedServer::~ScriptedServer() { stop(); }

void ScriptedServer::stop() { server_->stop(); }

void ScriptedServer::push(CannedResponse response) {
  std::lock_guard<std::mutex> lk(mu_);
  script_.push_back(std::make_shared<const CannedResponse>(std::move(response)));
}

void ScriptedServer::setDefault(CannedResponse response) {
  std::lock_guard<std::mutex> lk(mu_);
  default_ = std::make_shared<const CannedResponse>(std::move(response));
}

std::vector<RecordedRequest> ScriptedServer::requests() const {
  std::lock_guard<std::mutex> lk(mu_);
  return requests_;
}

std::size_t ScriptedServer::requestCount() const {
  std::lock_guard<std::mutex> lk(mu_);
  return requests_.size();
}

void ScriptedServer::clearRequests() {
  std::lock_guard<std::mutex> lk(mu_);
  requests_.clear();
}

bool ScriptedServer::waitForRequests(std::size_t n, int timeoutMs) const {
  std::unique_lock<std::mutex> lk(mu_);
  return cv_.wait_for(lk, std::chrono::milliseconds(timeoutMs),
                      [&] { return requests_.size() >= n; });
}

std::shared_ptr<const CannedResponse> ScriptedServer::answer(const RecordedRequest& request) {
  std::shared_ptr<const CannedResponse> next;
  {
    std::lock_guard<std::mutex> lk(mu_);
    requests_.push_back(request);
    next = scriptPos_ < script_.size() ? script_[scriptPos_++] : default_;
  }
  cv_.notify_all();
  return next;
}

}  // namespace oxsim
