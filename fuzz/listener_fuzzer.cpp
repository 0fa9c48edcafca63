// Arbitrary bytes as one request to a reader of the indication listener.
#include <oxCIM.h>

#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

int g_calls = 0;
std::string g_body;

int Deliver(std::string& body) {
  ++g_calls;
  g_body = body;
  return 0;
}

bool WriteAll(int fd, const uint8_t* data, size_t size) {
  while (size > 0) {
    ssize_t n = write(fd, data, size);
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The whole request is written before the reader runs: keep it within the
  // socket buffer so the write cannot block.
  if (size > 64 * 1024) return 0;
  static oxCIM::CIMindication owner;
  owner.pCallBack = &Deliver;
  g_calls = 0;
  g_body.clear();

  int sv[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) abort();
  int buf = 256 * 1024;
  setsockopt(sv[0], SOL_SOCKET, SO_SNDBUF, &buf, sizeof(buf));
  setsockopt(sv[1], SOL_SOCKET, SO_RCVBUF, &buf, sizeof(buf));
  if (!WriteAll(sv[0], data, size)) abort();
  // EOF after the request, so the reader never waits for more.
  shutdown(sv[0], SHUT_WR);

  auto* args = static_cast<oxCIM::ReaderArgs*>(malloc(sizeof(oxCIM::ReaderArgs)));
  args->socket = sv[1];
  args->owner = &owner;
  oxCIM::CIMindication::readerThread(args);

  std::string reply;
  char chunk[4096];
  for (;;) {
    ssize_t n = recv(sv[0], chunk, sizeof(chunk), MSG_DONTWAIT);
    if (n <= 0) break;
    reply.append(chunk, static_cast<size_t>(n));
  }
  close(sv[0]);

  // An answered request is delivered exactly once, and its body is the XML.
  if (!reply.empty()) {
    static const char head[] = "HTTP/1.1 200 OK\n";
    if (reply.compare(0, sizeof(head) - 1, head) != 0) abort();
    if (g_calls != 1) abort();
    if (g_body.size() < 5 || strncasecmp(g_body.c_str(), "<?xml", 5) != 0) abort();
  }
  if (g_calls > 1) abort();
  if (__atomic_load_n(&oxCIM::ListenerThreadIsActive, __ATOMIC_SEQ_CST) != 0) abort();
  return 0;
}
