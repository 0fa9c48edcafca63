#include "TestSupport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace oxtest {

TraceCapture::TraceCapture(unsigned long mask) : oldMask_(oxCIM::oxCIM.GetTraceMask()) {
  Brix::Internals::SetTraceSink([store = store_](const Brix::Internals::TraceRecord& r) {
    std::lock_guard<std::mutex> lock(store->mu);
    store->records.push_back(r);
  });
  oxCIM::oxCIM.SetTraceMask(mask);
}

TraceCapture::~TraceCapture() {
  oxCIM::oxCIM.SetTraceMask(oldMask_);
  Brix::Internals::SetTraceSink({});
}

std::vector<Brix::Internals::TraceRecord> TraceCapture::records() const {
  std::lock_guard<std::mutex> lock(store_->mu);
  return store_->records;
}

void TraceCapture::clear() {
  std::lock_guard<std::mutex> lock(store_->mu);
  store_->records.clear();
}

std::vector<std::string> TraceCapture::texts(const std::string& function) const {
  std::vector<std::string> out;
  for (const auto& r : records())
    if (function.empty() || r.function == function) out.push_back(r.text);
  return out;
}

int TraceCapture::count(unsigned long level, const std::string& text) const {
  int n = 0;
  for (const auto& r : records())
    n += (level == 0 || r.level == level) && (text.empty() || r.text == text);
  return n;
}

std::string TraceCapture::dump() const {
  std::ostringstream os;
  for (const auto& r : records()) os << std::hex << r.level << ' ' << r.function << ": " << r.text << '\n';
  return os.str();
}

std::vector<std::string> TraceCapture::statusCodes() const {
  std::vector<std::string> out;
  for (const auto& t : texts("SetCimStatus_FL")) {
    const auto pos = t.find("ErrCode:");
    if (pos != std::string::npos) out.push_back(t.substr(pos + 8));
  }
  return out;
}

namespace {
sockaddr_in Loopback(int port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons(static_cast<uint16_t>(port));
  return a;
}
}  // namespace

int FreePort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a = Loopback(0);
  socklen_t len = sizeof a;
  bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  close(fd);
  return ntohs(a.sin_port);
}

int Connect(int port, int recvTimeoutSec) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a = Loopback(port);
  timeval tv{recvTimeoutSec, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) return fd;
  close(fd);
  return -1;
}

bool SendAll(int fd, const std::string& data) {
  return send(fd, data.data(), data.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(data.size());
}

std::string ReadAll(int fd) {
  std::string out;
  char buf[4096];
  for (ssize_t n; (n = recv(fd, buf, sizeof buf, 0)) > 0;) out.append(buf, static_cast<size_t>(n));
  return out;
}

std::string RawExchange(int port, const std::string& request) {
  const int fd = Connect(port);
  if (fd < 0) return "<refused>";
  SendAll(fd, request);
  std::string reply = ReadAll(fd);
  close(fd);
  return reply;
}

void PointAt(oxCIM::CIMconnection& c, int port, const char* scheme) {
  c.m_Host = "127.0.0.1";
  c.m_User = "user";
  c.m_Passwd = "secret";
  c.m_Protocol = scheme;
  c.m_Port = std::to_string(port);
  c.m_NoIPCheck = true;
}

}  // namespace oxtest
