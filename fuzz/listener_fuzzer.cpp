// Arbitrary bytes as one request to a reader of the indication listener, once
// as they come and once cut into small pieces: the verdict must be the same.
#include <oxCIM.h>

#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
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

struct Outcome {
  bool written = false;
  std::string reply;
  int calls = 0;
  std::string body;
};

// Runs one reader on `data`, followed by an end of stream. piece 0: one stream;
// otherwise a packet socket, so that every read the reader makes returns at most
// one piece of that many bytes, wherever a piece ends.
Outcome Serve(const uint8_t* data, size_t size, size_t piece) {
  static oxCIM::CIMindication owner;
  owner.pCallBack = &Deliver;
  g_calls = 0;
  g_body.clear();
  Outcome out;

  int sv[2];
  if (socketpair(AF_UNIX, piece ? SOCK_SEQPACKET : SOCK_STREAM, 0, sv) != 0) abort();
  int buf = 256 * 1024;
  setsockopt(sv[0], SOL_SOCKET, SO_SNDBUF, &buf, sizeof(buf));
  setsockopt(sv[1], SOL_SOCKET, SO_RCVBUF, &buf, sizeof(buf));
  // The whole request is queued before the reader runs; a write that would block
  // skips the run rather than hang.
  out.written = true;
  for (size_t off = 0; off < size && out.written;) {
    size_t n = piece ? std::min(piece, size - off) : size - off;
    ssize_t w = send(sv[0], data + off, n, MSG_DONTWAIT | MSG_NOSIGNAL);
    out.written = w > 0;
    off += w > 0 ? static_cast<size_t>(w) : 0;
  }
  if (!out.written) {
    close(sv[0]);
    close(sv[1]);
    return out;
  }
  shutdown(sv[0], SHUT_WR);

  auto* args = static_cast<oxCIM::ReaderArgs*>(malloc(sizeof(oxCIM::ReaderArgs)));
  args->socket = sv[1];
  args->owner = &owner;
  oxCIM::CIMindication::readerThread(args);

  char chunk[4096];
  for (bool reset = false;;) {
    ssize_t n = recv(sv[0], chunk, sizeof(chunk), MSG_DONTWAIT);
    // A packet socket closed with data still unread reports that first, once,
    // before the packets queued for us.
    if (n < 0 && errno == ECONNRESET && !reset) {
      reset = true;
      continue;
    }
    if (n <= 0) break;
    out.reply.append(chunk, static_cast<size_t>(n));
  }
  close(sv[0]);
  out.calls = g_calls;
  out.body = g_body;

  // An answered request is delivered exactly once, and its body is the XML.
  if (!out.reply.empty()) {
    static const char head[] = "HTTP/1.1 200 OK\n";
    if (out.reply.compare(0, sizeof(head) - 1, head) != 0) abort();
    if (out.calls != 1) abort();
    if (out.body.size() < 5 || strncasecmp(out.body.c_str(), "<?xml", 5) != 0) abort();
  }
  if (out.calls > 1) abort();
  if (__atomic_load_n(&oxCIM::ListenerThreadIsActive, __ATOMIC_SEQ_CST) != 0) abort();
  return out;
}

bool StartsWith(const std::string& s, const std::string& prefix) {
  return s.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 64 * 1024) return 0;
  Outcome whole = Serve(data, size, 0);
  // The same bytes cut into small pieces (their size taken from the last byte,
  // at most 128 of them) give the same verdict. Within one read buffer no piece
  // can be longer than a read.
  if (size == 0 || size > 8191 || !whole.written) return 0;
  size_t piece = std::max<size_t>(1 + data[size - 1] % 64, (size + 127) / 128);
  Outcome cut = Serve(data, size, piece);
  if (!cut.written) return 0;
  if (cut.calls != whole.calls || cut.reply.empty() != whole.reply.empty()) abort();
  // Bytes beyond the declared length may join the body or not, depending on the cut.
  if (!StartsWith(cut.body, whole.body) && !StartsWith(whole.body, cut.body)) abort();
  return 0;
}
