#include "FakeCimServer.h"

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
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <strings.h>

namespace oxtest {

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
    if (strcasecmp(h.first.c_str(), name.c_str()) == 0) return h.second;
  return {};
}

// ---------------------------------------------------------------------------------------
// Throw-away PKI

namespace {

struct PkeyFree { void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); } };
struct X509Free { void operator()(X509* p) const { X509_free(p); } };
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
  for (const std::string* f : {&caFile, &serverCert, &serverKey, &clientCert, &clientKey,
                               &otherCaFile})
    if (!f->empty()) unlink(f->c_str());
  if (!dir.empty()) rmdir(dir.c_str());
}

// ---------------------------------------------------------------------------------------
// Server

struct FakeCimServer::Conn {
  int fd = -1;
  SSL* ssl = nullptr;
  std::thread thread;
  std::atomic<bool> done{false};
};

namespace {

// A peer that went away must not kill the process: block SIGPIPE in the server threads only
// (the signal from a failed write is delivered to the writing thread).
void blockSigpipe() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

long ioRead(int fd, SSL* ssl, char* buf, std::size_t len) {
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

// Splits the head (up to, not including, the blank line) into request line and headers.
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

constexpr std::size_t kMaxHead = 1 << 20;

}  // namespace

FakeCimServer::FakeCimServer() : FakeCimServer(Options{}) {}

FakeCimServer::FakeCimServer(const Options& options)
    : default_(std::make_shared<const CannedResponse>(CannedResponse::cimOk(""))) {
  if (options.tls) {
    SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
    if (!ctx) throw std::runtime_error("FakeCimServer: SSL_CTX_new failed");
    sslCtx_ = ctx;
    if (SSL_CTX_use_certificate_chain_file(ctx, options.tls->serverCert.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(ctx, options.tls->serverKey.c_str(), SSL_FILETYPE_PEM) != 1) {
      SSL_CTX_free(ctx);
      ERR_clear_error();
      throw std::runtime_error("FakeCimServer: cannot load server certificate");
    }
    if (options.requireClientCert) {
      SSL_CTX_load_verify_locations(ctx, options.tls->caFile.c_str(), nullptr);
      SSL_CTX_set_client_CA_list(ctx, SSL_load_client_CA_file(options.tls->caFile.c_str()));
      SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    }
  }

  listenFd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = 0;
  socklen_t alen = sizeof addr;
  if (listenFd_ < 0 || bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      listen(listenFd_, 64) != 0 ||
      getsockname(listenFd_, reinterpret_cast<sockaddr*>(&addr), &alen) != 0) {
    if (listenFd_ >= 0) close(listenFd_);
    if (sslCtx_) SSL_CTX_free(static_cast<SSL_CTX*>(sslCtx_));
    throw std::runtime_error("FakeCimServer: cannot listen on 127.0.0.1");
  }
  port_ = ntohs(addr.sin_port);
  acceptThread_ = std::thread([this] { acceptLoop(); });
}

FakeCimServer::~FakeCimServer() {
  stop();
  if (sslCtx_) SSL_CTX_free(static_cast<SSL_CTX*>(sslCtx_));
}

void FakeCimServer::push(CannedResponse response) {
  std::lock_guard<std::mutex> lk(mu_);
  script_.push_back(std::make_shared<const CannedResponse>(std::move(response)));
}

void FakeCimServer::setDefault(CannedResponse response) {
  std::lock_guard<std::mutex> lk(mu_);
  default_ = std::make_shared<const CannedResponse>(std::move(response));
}

std::vector<RecordedRequest> FakeCimServer::requests() const {
  std::lock_guard<std::mutex> lk(mu_);
  return requests_;
}

std::size_t FakeCimServer::requestCount() const {
  std::lock_guard<std::mutex> lk(mu_);
  return requests_.size();
}

void FakeCimServer::clearRequests() {
  std::lock_guard<std::mutex> lk(mu_);
  requests_.clear();
}

std::size_t FakeCimServer::connectionCount() const {
  std::lock_guard<std::mutex> lk(mu_);
  return connections_;
}

bool FakeCimServer::waitForRequests(std::size_t n, int timeoutMs) const {
  std::unique_lock<std::mutex> lk(mu_);
  return cv_.wait_for(lk, std::chrono::milliseconds(timeoutMs),
                      [&] { return requests_.size() >= n; });
}

std::shared_ptr<const CannedResponse> FakeCimServer::nextResponse() {
  std::lock_guard<std::mutex> lk(mu_);
  if (scriptPos_ < script_.size()) return script_[scriptPos_++];
  return default_;
}

bool FakeCimServer::sleepUnlessStopped(int ms) {
  std::unique_lock<std::mutex> lk(mu_);
  cv_.wait_for(lk, std::chrono::milliseconds(ms), [&] { return stopping_.load(); });
  return !stopping_.load();
}

void FakeCimServer::stop() {
  if (stopping_.exchange(true)) {
    if (acceptThread_.joinable()) acceptThread_.join();
    return;
  }
  // Wake accept() and every blocked read/write, then every pause.
  shutdown(listenFd_, SHUT_RDWR);
  {
    std::lock_guard<std::mutex> lk(mu_);
    for (auto& c : conns_)
      if (c->fd >= 0) shutdown(c->fd, SHUT_RDWR);
  }
  cv_.notify_all();
  if (acceptThread_.joinable()) acceptThread_.join();
  // No new connections from here on.
  for (auto& c : conns_)
    if (c->thread.joinable()) c->thread.join();
  conns_.clear();
  close(listenFd_);
  listenFd_ = -1;
}

void FakeCimServer::acceptLoop() {
  blockSigpipe();
  for (;;) {
    pollfd pfd{listenFd_, POLLIN, 0};
    const int pr = poll(&pfd, 1, 200);
    if (stopping_) break;
    if (pr <= 0) continue;
    const int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      if (stopping_) break;
      continue;
    }
    std::lock_guard<std::mutex> lk(mu_);
    if (stopping_) {
      close(fd);
      break;
    }
    ++connections_;
    // Reap finished connections so long runs (benchmarks) stay small.
    conns_.erase(std::remove_if(conns_.begin(), conns_.end(),
                                [](std::unique_ptr<Conn>& c) {
                                  if (!c->done) return false;
                                  c->thread.join();
                                  return true;
                                }),
                 conns_.end());
    auto conn = std::make_unique<Conn>();
    conn->fd = fd;
    Conn* raw = conn.get();
    conns_.push_back(std::move(conn));
    raw->thread = std::thread([this, raw] { serve(raw); });
  }
}

void FakeCimServer::serve(Conn* conn) {
  blockSigpipe();
  const int fd = conn->fd;
  SSL* ssl = nullptr;
  auto finish = [&] {
    if (ssl) {
      SSL_shutdown(ssl);
      SSL_free(ssl);
      ERR_clear_error();
    }
    std::lock_guard<std::mutex> lk(mu_);
    close(conn->fd);
    conn->fd = -1;
    conn->done = true;
  };

  if (sslCtx_) {
    ssl = SSL_new(static_cast<SSL_CTX*>(sslCtx_));
    SSL_set_fd(ssl, fd);
    if (SSL_accept(ssl) != 1) {
      SSL_free(ssl);
      ssl = nullptr;
      ERR_clear_error();
      finish();
      return;
    }
  }

  // Read the head, then Content-Length bytes of body.
  std::string raw;
  char buf[16384];
  std::size_t headEnd = std::string::npos;
  while (headEnd == std::string::npos && raw.size() < kMaxHead) {
    const long n = ioRead(fd, ssl, buf, sizeof buf);
    if (n <= 0) break;
    raw.append(buf, static_cast<std::size_t>(n));
    headEnd = raw.find("\r\n\r\n");
  }
  if (headEnd == std::string::npos) {
    finish();
    return;
  }
  RecordedRequest req;
  parseHead(raw.substr(0, headEnd), req);
  std::size_t bodyLen = 0;
  const std::string cl = req.header("Content-Length");
  if (!cl.empty()) bodyLen = std::strtoull(cl.c_str(), nullptr, 10);
  if (strcasecmp(req.header("Expect").c_str(), "100-continue") == 0 &&
      raw.size() < headEnd + 4 + bodyLen) {
    static const char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";
    ioWrite(fd, ssl, kContinue, sizeof kContinue - 1);
  }
  while (raw.size() < headEnd + 4 + bodyLen) {
    const long n = ioRead(fd, ssl, buf, sizeof buf);
    if (n <= 0) break;
    raw.append(buf, static_cast<std::size_t>(n));
  }
  req.body = raw.substr(headEnd + 4, bodyLen);
  req.raw = std::move(raw);
  {
    std::lock_guard<std::mutex> lk(mu_);
    requests_.push_back(std::move(req));
  }
  cv_.notify_all();

  const std::shared_ptr<const CannedResponse> next = nextResponse();
  const CannedResponse& resp = *next;
  switch (resp.action) {
    case CannedResponse::Action::CloseWithoutReply:
      finish();
      return;
    case CannedResponse::Action::NeverAnswer: {
      std::unique_lock<std::mutex> lk(mu_);
      cv_.wait(lk, [&] { return stopping_.load(); });
      lk.unlock();
      finish();
      return;
    }
    case CannedResponse::Action::Reply:
      break;
  }

  std::string head = "HTTP/1.1 " + std::to_string(resp.status) + " " + resp.reason + "\r\n";
  for (const auto& h : resp.headers) head += h.first + ": " + h.second + "\r\n";
  head += "Content-Length: " + std::to_string(resp.body.size()) + "\r\n";
  head += "Connection: close\r\n\r\n";

  if (resp.dripChunk == 0 && resp.body.size() <= 65536) {
    // One write for small answers keeps round trips cheap.
    head += resp.body;
    ioWrite(fd, ssl, head.data(), head.size());
  } else if (resp.dripChunk == 0) {
    if (ioWrite(fd, ssl, head.data(), head.size()))
      ioWrite(fd, ssl, resp.body.data(), resp.body.size());
  } else if (ioWrite(fd, ssl, head.data(), head.size())) {
    for (std::size_t off = 0; off < resp.body.size(); off += resp.dripChunk) {
      if (resp.dripPauseMs > 0 && !sleepUnlessStopped(resp.dripPauseMs)) break;
      const std::size_t n = std::min(resp.dripChunk, resp.body.size() - off);
      if (!ioWrite(fd, ssl, resp.body.data() + off, n)) break;
    }
  }
  finish();
}

}  // namespace oxtest
