// CIMindication: a small HTTP server that receives exported indications,
// acknowledges each one and hands its body to the application's callback.
#include "oxInternal.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <strings.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/thread/thread.hpp>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_set>

// Reader and listener traces carry the thread routine's name, whichever helper writes them.
#define READER_TRACE(level, ...) OX_TRACE_FN(level, "readerThread", __VA_ARGS__)
#define LISTENER_TRACE(level, ...) OX_TRACE_FN(level, "listenerThread", __VA_ARGS__)

namespace oxCIM {

namespace {

constexpr int kBufferSize = 8192;
constexpr int kFirstByteWait = 5;
constexpr int kReceiveWait = 60;
constexpr int kPollPeriod = 10;
constexpr int kBacklog = 128;
constexpr int kStopRounds = 30;
constexpr long kMaxContentLength = 64L * 1024 * 1024;
constexpr size_t kReplyHeaderLen = 116;

const char kLengthKey[] = "content-length:";
const char kXmlKey[] = "<?xml";
constexpr size_t kXmlKeyLen = sizeof(kXmlKey) - 1;

const char kReplyHead[] =
    "HTTP/1.1 200 OK\nContent-Type: application/xml; charset=\"utf-8\"\ncontent-length: ";
const char kReplyHeadTail[] = "\nCIMExport: MethodResponse\n\n";
const char kReplyBody[] =
    "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n<CIM CIMVERSION=\"2.0\" DTDVERSION=\"2.0\">\n"
    "<MESSAGE ID=\"%d\" PROTOCOLVERSION=\"1.0\">\n<SIMPLEEXPRSP>\n"
    "<EXPMETHODRESPONSE NAME=\"ExportIndication\">\n</EXPMETHODRESPONSE>\n</SIMPLEEXPRSP>\n"
    "</MESSAGE>\n</CIM>\n";
static_assert(sizeof(kReplyHead) - 1 + 9 + sizeof(kReplyHeadTail) - 1 == kReplyHeaderLen,
              "reply header length");

// Book-keeping of one running listener thread, kept beside the object so the
// exported layout of CIMindication stays as it is. Shared by the listener
// thread, its readers and stop_Listener; it outlives the object if need be.
struct ListenerState {
  std::mutex mu;
  std::condition_variable cv;
  std::atomic<bool> stopping{false};
  bool finished = false;  // the listener thread and every reader have returned
  bool ready = false;     // the port accepts, or the listener has given up
  int readers = 0;        // readers started by this listener and not yet returned
  int touching = 0;       // of those, the ones that may still read the object
  // Connections of the readers in flight. A reader takes its socket out before it
  // closes it, so a shutdown from here never hits a reused descriptor number.
  std::unordered_set<int> sockets;
  int wake[2] = {-1, -1};

  ~ListenerState() {
    if (wake[0] != -1) close(wake[0]);
    if (wake[1] != -1) close(wake[1]);
  }

  // With mu held: every reader's wait ends at once (its receive sees an end of
  // stream, its send an error), whatever its peer does.
  void shutDownReaders() {
    for (int fd : sockets) shutdown(fd, SHUT_RDWR);
  }
};

std::mutex g_tableMu;
std::map<const CIMindication*, std::shared_ptr<ListenerState>> g_table;
// Readers in flight over all listeners; the reset of the exported counter at a
// listener's end must not wipe out another listener's readers.
std::atomic<int> g_trackedReaders{0};

std::shared_ptr<ListenerState> findState(const CIMindication* owner) {
  std::lock_guard<std::mutex> lock(g_tableMu);
  auto it = g_table.find(owner);
  return it == g_table.end() ? nullptr : it->second;
}

std::shared_ptr<ListenerState> makeState() {
  auto st = std::make_shared<ListenerState>();
  if (pipe2(st->wake, O_CLOEXEC | O_NONBLOCK) != 0) st->wake[0] = st->wake[1] = -1;
  return st;
}

void dropState(const CIMindication* owner, const std::shared_ptr<ListenerState>& st) {
  std::lock_guard<std::mutex> lock(g_tableMu);
  auto it = g_table.find(owner);
  if (it != g_table.end() && it->second == st) g_table.erase(it);
}

int32_t loadSocket(const CIMindication* o) {
  return __atomic_load_n(&o->m_ListenSocket, __ATOMIC_SEQ_CST);
}

void sleepSeconds(int s) { boost::this_thread::sleep(boost::posix_time::seconds(s)); }

// A trace about an exception must not throw in turn (it formats, so it may allocate).
void traceException(const char* function, const char* what) noexcept {
  try {
    OX_TRACE_FN(TRACE_ERROR, function, "%s: Exception raised: %s", function, what);
  } catch (...) {
  }
}

// After a failed socket call: EINTR is retried at once, EAGAIN after a second's pause
// (true: try again); any other error is the caller's failure. errno is cleared either way.
bool retryAfterSocketError() {
  const int err = errno;
  errno = 0;
  if (err == EAGAIN) sleepSeconds(1);
  return err == EINTR || err == EAGAIN;
}

// select() on up to two descriptors, with EINTR and EAGAIN handled as the
// listener expects. Descriptors beyond FD_SETSIZE fall back to poll().
int waitReadable(int fd, int wakeFd, int seconds, bool* woken) {
  if (woken) *woken = false;
  errno = 0;
  Brix::Misc::CFileDescriptorSet set;
  bool fits = set.Add(fd);
  if (wakeFd != -1) fits = set.Add(wakeFd) && fits;
  for (;;) {
    int r;
    if (fits) {
      struct timeval tv;
      tv.tv_sec = seconds;
      tv.tv_usec = 0;
      Brix::Misc::CFileDescriptorSet work = set;
      r = select((fd > wakeFd ? fd : wakeFd) + 1, work.Get(), nullptr, nullptr, &tv);
      if (r > 0 && woken && wakeFd != -1 && work.Contains(wakeFd)) *woken = true;
    } else {
      struct pollfd p[2] = {{fd, POLLIN, 0}, {wakeFd, POLLIN, 0}};
      r = poll(p, wakeFd != -1 ? 2 : 1, seconds * 1000);
      if (r > 0 && woken && wakeFd != -1 && (p[1].revents & POLLIN)) *woken = true;
    }
    if (r != -1) return r;
    if (retryAfterSocketError()) continue;
    OX_TRACE_FN(TRACE_ERROR, "mySelect", "mySelect: ERROR in 'select'");
    return -1;
  }
}

// Finds `needle` (lower case) in data[0..len) without regard to case.
const char* findNoCase(const char* data, size_t len, const char* needle) {
  size_t n = strlen(needle);
  if (len < n) return nullptr;
  for (size_t i = 0; i + n <= len; ++i) {
    if (tolower(static_cast<unsigned char>(data[i])) != needle[0]) continue;
    if (strncasecmp(data + i, needle, n) == 0) return data + i;
  }
  return nullptr;
}

// Length of the HTTP header in data[0..len): up to and including its empty line
// (CR LF or a bare LF), 0 while that line has not arrived. `from` skips what an
// earlier call has already searched.
size_t headerLength(const char* data, size_t len, size_t from) {
  for (size_t i = from; i < len; ++i) {
    if (data[i] != '\n') continue;
    if (i + 1 < len && data[i + 1] == '\n') return i + 2;
    if (i + 2 < len && data[i + 1] == '\r' && data[i + 2] == '\n') return i + 3;
  }
  return 0;
}

// The declared body length in a header, as strtol reads it; 0 when the header
// has none or its value is not between 1 and the limit (an endless run of
// digits included: it is never converted).
long contentLength(const char* head, size_t len) {
  const char* key = findNoCase(head, len, kLengthKey);
  if (key == nullptr) return 0;
  const char* p = key + sizeof(kLengthKey) - 1;
  const char* end = head + len;
  while (p < end && isspace(static_cast<unsigned char>(*p))) ++p;
  bool negative = false;
  if (p < end && (*p == '+' || *p == '-')) negative = *p++ == '-';
  long value = 0;
  for (; p < end && *p >= '0' && *p <= '9'; ++p) {
    value = value * 10 + (*p - '0');
    if (value > kMaxContentLength) return 0;
  }
  return negative ? 0 : value;
}

// The MESSAGE ID the reply echoes; 1 when there is none, or it is not a number
// above 0 that fits the reply's format.
int messageId(const std::string& body) {
  static const char key[] = "<MESSAGE ID=";
  size_t pos = body.find(key);
  if (pos == std::string::npos) return 1;
  pos += sizeof(key) - 1;
  if (pos >= body.size() || body[pos] != '"') return 1;
  long id = 0;
  bool digits = false;
  for (size_t i = pos + 1; i < body.size() && body[i] >= '0' && body[i] <= '9'; ++i) {
    digits = true;
    id = id * 10 + (body[i] - '0');
    if (id > INT_MAX) return 1;
  }
  return digits && id > 0 ? static_cast<int>(id) : 1;
}

// One accepted connection being served. `st` is null for a reader that was
// called directly rather than started by a listener.
struct Connection {
  int sock;
  CIMindication* owner;
  ListenerState* st;
  bool touching;  // still counted in st->touching

  bool stopping() const { return st != nullptr && st->stopping.load(); }

  void closeSocket() {
    if (sock == -1) return;
    if (st != nullptr) {
      std::lock_guard<std::mutex> lock(st->mu);
      st->sockets.erase(sock);
    }
    close(sock);
    sock = -1;
  }

  // The callback to deliver to, read while the listener still vouches for the
  // object; from here on the reader does not touch the object again.
  int (*takeCallBack())(std::string&) {
    if (st == nullptr) return __atomic_load_n(&owner->pCallBack, __ATOMIC_SEQ_CST);
    std::lock_guard<std::mutex> lock(st->mu);
    int (*cb)(std::string&) = nullptr;
    if (touching) cb = __atomic_load_n(&owner->pCallBack, __ATOMIC_SEQ_CST);
    letGo();
    return cb;
  }

  // With st->mu held.
  void letGo() {
    if (!touching) return;
    touching = false;
    if (--st->touching == 0) st->cv.notify_all();
  }

  void release() {
    if (st == nullptr || !touching) return;
    std::lock_guard<std::mutex> lock(st->mu);
    letGo();
  }
};

// Waits until the connection has something to read (an end of stream or a
// shutdown by stop_Listener included): 1, 0 on time-out, -1 on failure. poll,
// not select: a busy listener's sockets lie beyond FD_SETSIZE.
int waitForData(int sock, int seconds) {
  errno = 0;
  for (;;) {
    struct pollfd p = {sock, POLLIN, 0};
    int r = poll(&p, 1, seconds * 1000);
    if (r != -1) return r;
    if (retryAfterSocketError()) continue;
    OX_TRACE_FN(TRACE_ERROR, "mySelect", "mySelect: ERROR in 'select'");
    return -1;
  }
}

// Receives one request into `body` (everything from "<?xml" on); true when the
// body has reached its declared length. The header is assembled in `buf` before
// it is read, and the body's start is looked for across reads, so how TCP cuts
// the request makes no difference.
bool receiveRequest(Connection& c, char* buf, std::string& body) {
  size_t have = 0;       // bytes in buf, while the body has not begun
  size_t searched = 0;   // of those, already searched for the header's end
  long declared = 0;     // 0 until the header has been read
  bool started = false;  // "<?xml" found; later bytes go straight to the body
  int wait = kFirstByteWait;
  for (;;) {
    if (c.stopping()) break;
    int w = waitForData(c.sock, wait);
    if (w < 1) {
      if (w == 0 && wait != kFirstByteWait) READER_TRACE(TRACE_ERROR, "readerThread: receive timed out");
      return false;
    }
    if (c.stopping()) break;
    char* into = started ? buf : buf + have;
    size_t room = static_cast<size_t>(kBufferSize - 1) - (started ? 0 : have);
    ssize_t n = recv(c.sock, into, room, 0);
    if (n == -1) {
      if (retryAfterSocketError()) continue;
      READER_TRACE(TRACE_ERROR, "readerThread: ERROR in 'recv'");
      return false;
    }
    wait = kReceiveWait;
    const bool ended = n == 0;
    if (ended) {
      if (c.stopping()) break;
      c.closeSocket();
      READER_TRACE(TRACE_DETAIL, "readerThread: connection has been gracefully closed");
      // A header that never ended is read as it stands: no more is coming.
      if (declared != 0 || have == 0) return false;
    }
    if (started) {
      body.append(buf, static_cast<size_t>(n));
    } else {
      have += static_cast<size_t>(n);
      if (declared == 0) {
        size_t head = headerLength(buf, have, searched);
        if (head == 0 && have < static_cast<size_t>(kBufferSize - 1) && !ended) {
          searched = have > 1 ? have - 2 : 0;
          continue;
        }
        // A header that fills the buffer is read as far as it goes.
        declared = contentLength(buf, head != 0 ? head : have);
        if (declared == 0) {
          READER_TRACE(TRACE_ERROR, "readerThread: missing Content-Length");
          return false;
        }
      }
      const char* xml = findNoCase(buf, have, kXmlKey);
      if (xml != nullptr) {
        body.assign(xml, static_cast<size_t>(buf + have - xml));
        started = true;
      } else {
        // Keep what could be the beginning of a "<?xml" cut by the next read.
        size_t keep = have < kXmlKeyLen - 1 ? have : kXmlKeyLen - 1;
        memmove(buf, buf + have - keep, keep);
        have = keep;
      }
    }
    if (started && body.size() >= static_cast<size_t>(declared)) return true;
    if (ended) return false;
  }
  READER_TRACE(TRACE_DETAIL, "readerThread: listener stopped, connection dropped");
  return false;
}

// Acknowledges a complete request (when its socket is still open) and delivers it.
void replyAndDeliver(Connection& c, char* buffer, std::string& body) {
  if (c.sock != -1) {
    int id = messageId(body);
    char replyBody[sizeof(kReplyBody) + 16];
    int bodyLen = snprintf(replyBody, sizeof(replyBody), kReplyBody, id);
    if (kReplyHeaderLen + static_cast<size_t>(bodyLen) >= kBufferSize - 2) {
      READER_TRACE(TRACE_ERROR, "readerThread: FATAL ERROR: sizeof(buffer) too small");
      return;
    }
    int total = snprintf(buffer, kBufferSize, "%s%09d%s%s", kReplyHead, bodyLen, kReplyHeadTail,
                         replyBody);
    uint16_t off = 0;
    while (off < static_cast<uint16_t>(total)) {
      ssize_t s = send(c.sock, buffer + off, static_cast<size_t>(total - off), MSG_NOSIGNAL);
      if (s == -1 && retryAfterSocketError()) continue;
      if (s <= 0) {
        errno = 0;
        READER_TRACE(TRACE_ERROR, "readerThread: ERROR in 'send'");
        break;
      }
      off = static_cast<uint16_t>(off + s);
    }
  }
  int (*cb)(std::string&) = c.takeCallBack();
  if (cb != nullptr) cb(body);
}

// The reader routine proper. Never throws: whatever goes wrong drops the
// connection, and the listener keeps running.
void serve(int sock, CIMindication* owner, ListenerState* st) {
  __atomic_add_fetch(&ListenerThreadIsActive, 1, __ATOMIC_SEQ_CST);
  Connection c{sock, owner, st, st != nullptr};
  try {
    std::string body;
    char buffer[kBufferSize];
    if (receiveRequest(c, buffer, body)) replyAndDeliver(c, buffer, body);
  } catch (const std::exception& e) {
    traceException("readerThread", e.what());
  } catch (...) {
    traceException("readerThread", "unknown exception");
  }
  c.release();
  c.closeSocket();
  __atomic_sub_fetch(&ListenerThreadIsActive, 1, __ATOMIC_SEQ_CST);
}

// A reader started by a listener: the listener counted it before the thread
// existed, so stop_Listener cannot miss it.
struct ReaderJob {
  int sock;
  CIMindication* owner;
  std::shared_ptr<ListenerState> state;
};

void readerDone(ListenerState& st) {
  std::lock_guard<std::mutex> lock(st.mu);
  --st.readers;
  g_trackedReaders.fetch_sub(1);
  st.cv.notify_all();
}

void* readerTrampoline(void* p) {
  std::unique_ptr<ReaderJob> job(static_cast<ReaderJob*>(p));
  serve(job->sock, job->owner, job->state.get());
  readerDone(*job->state);
  return nullptr;
}

// Hands an accepted connection to a reader of its own. Never throws.
void startReader(int conn, CIMindication* self, const std::shared_ptr<ListenerState>& st) {
  ReaderJob* job = nullptr;
  bool refused = false;
  try {
    job = new ReaderJob{conn, self, st};
    std::lock_guard<std::mutex> lock(st->mu);
    refused = st->stopping.load();
    if (!refused) {
      st->sockets.insert(conn);
      ++st->readers;
      ++st->touching;
      g_trackedReaders.fetch_add(1);
    }
  } catch (const std::exception& e) {
    refused = true;
    traceException("listenerThread", e.what());
  }
  if (refused) {
    // Stopping, or out of memory: the peer sees a close without a reply.
    delete job;
    close(conn);
    return;
  }
  pthread_t tid;
  if (pthread_create(&tid, nullptr, &readerTrampoline, job) == 0) {
    pthread_detach(tid);
    try {
      LISTENER_TRACE(TRACE_DETAIL, "listenerThread: start eventreader-thread");
    } catch (...) {
    }
  } else {
    // No thread to spare: serve the connection here rather than drop it.
    readerTrampoline(job);
  }
}

// Accepts connections until the stop; returns the listening socket (or -1).
int acceptLoop(CIMindication* self, const std::shared_ptr<ListenerState>& st) {
  int fd = -1;
  {
    std::lock_guard<std::mutex> lock(st->mu);
    if (st->stopping) return -1;
    fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    __atomic_store_n(&self->m_ListenSocket, fd, __ATOMIC_SEQ_CST);
  }
  if (fd == -1) {
    LISTENER_TRACE(TRACE_ERROR, "listenerThread: socket");
    return -1;
  }
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
  struct sockaddr_in addr;
  memset(&addr, 0, sizeof(addr));
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_ANY);
  addr.sin_port = htons(static_cast<uint16_t>(self->m_Port));
  if (bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) != 0) {
    LISTENER_TRACE(TRACE_ERROR, "listenerThread: bind");
    return fd;
  }
  if (listen(fd, kBacklog) != 0) {
    LISTENER_TRACE(TRACE_ERROR, "listenerThread: listen");
    return fd;
  }
  {
    std::lock_guard<std::mutex> lock(st->mu);
    st->ready = true;
  }
  st->cv.notify_all();
  while (loadSocket(self) != -1) {
    bool woken = false;
    int r = waitReadable(fd, st->wake[0], kPollPeriod, &woken);
    if (r == 0) continue;
    if (r < 0 || woken || loadSocket(self) == -1) break;
    int conn = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (loadSocket(self) == -1) {
      // Stopping: the peer sees a close without a reply.
      if (conn != -1) close(conn);
      break;
    }
    if (conn == -1) {
      int e = errno;
      errno = 0;
      try {
        LISTENER_TRACE(TRACE_ERROR, "listenerThread: ERROR in 'accept'");
      } catch (...) {
      }
      // Out of descriptors: the pending connection stays readable, so pause
      // rather than spin.
      if (e == EMFILE || e == ENFILE || e == ENOBUFS || e == ENOMEM)
        boost::this_thread::sleep(boost::posix_time::milliseconds(100));
      continue;
    }
    startReader(conn, self, st);
  }
  return fd;
}

}  // namespace

CIMindication::CIMindication()
    : pCallBack(nullptr), m_Port(-1), m_ListenSocket(-1), m_ThreadStatus(0) {}

bool CIMindication::check_Listener() {
  return static_cast<uint32_t>(loadSocket(this)) < 0xFFFFFFFFu;
}

int CIMindication::start_Listener() {
  std::shared_ptr<ListenerState> st;
  bool running = false, noCallBack = false;
  try {
    // Check and register in one step, so two racing starts cannot both succeed.
    std::lock_guard<std::mutex> lock(g_tableMu);
    running = loadSocket(this) != -1 || g_table.count(this) != 0;
    noCallBack = __atomic_load_n(&pCallBack, __ATOMIC_SEQ_CST) == nullptr;
    if (!running && !noCallBack) {
      st = makeState();
      g_table[this] = st;
    }
  } catch (const std::exception& e) {
    traceException("start_Listener", e.what());
    return 1001;
  }
  if (running) {
    OX_TRACE(TRACE_STATUS, "start_Listener: Listener is already running");
    return 1001;
  }
  if (noCallBack) {
    OX_TRACE(TRACE_ERROR, "start_Listener: pCallBack (null) not set!");
    return 1001;
  }
  pthread_t tid;
  int rc = pthread_create(&tid, nullptr, &CIMindication::listenerThread, this);
  m_ThreadStatus = rc;
  if (rc != 0) {
    dropState(this, st);
    OX_TRACE(TRACE_ERROR, "start_Listener: Cannot start listener-thread");
    return 1001;
  }
  pthread_detach(tid);
  {
    // The thread binds the port: return once it accepts or has given up, so that a
    // peer the caller tells about the port right away is not refused.
    std::unique_lock<std::mutex> lock(st->mu);
    st->cv.wait_for(lock, std::chrono::seconds(3), [&] { return st->ready; });
  }
  OX_TRACE(TRACE_STATUS, "start_Listener: Listener-Thread started\n");
  return 0;
}

void CIMindication::stop_Listener() {
  std::shared_ptr<ListenerState> st = findState(this);
  if (st == nullptr) {
    int32_t fd = __atomic_exchange_n(&m_ListenSocket, -1, __ATOMIC_SEQ_CST);
    if (fd != -1) {
      // A socket without a thread of ours behind it: nobody else will close it.
      close(fd);
      m_ThreadStatus = 0;
      OX_TRACE(TRACE_STATUS, "stop_Listener: Listener-Thread stopped.");
      return;
    }
    // No listener thread of ours is alive.
    if (m_ThreadStatus == 0) return;
    if (__atomic_load_n(&pCallBack, __ATOMIC_SEQ_CST) != nullptr) {
      int round = 0;
      while (round < kStopRounds && __atomic_load_n(&pCallBack, __ATOMIC_SEQ_CST) != nullptr) {
        sleepSeconds(1);
        ++round;
      }
      m_ThreadStatus = 0;
      if (round == kStopRounds) {
        OX_TRACE(TRACE_ERROR, "stop_Listener: Listener-Thread is not stopped yet!");
        return;
      }
    }
    m_ThreadStatus = 0;
    OX_TRACE(TRACE_STATUS, "stop_Listener: Listener-Thread stopped.");
    return;
  }
  {
    // Under the lock the listener thread cannot close the socket, so the number
    // shut down here is still ours. The thread closes it itself: closing it here
    // could hand the number to another open() while that thread still selects on it.
    std::lock_guard<std::mutex> lock(st->mu);
    st->stopping = true;
    int32_t fd = __atomic_exchange_n(&m_ListenSocket, -1, __ATOMIC_SEQ_CST);
    if (fd != -1) shutdown(fd, SHUT_RDWR);
    st->shutDownReaders();
    if (st->wake[1] != -1) {
      char c = 1;
      ssize_t w = write(st->wake[1], &c, 1);
      (void)w;
    }
  }
  // Only a callback that does not return can hold this up, and even then no
  // thread of this listener reads the object once the callback has been cleared.
  bool done;
  {
    std::unique_lock<std::mutex> lock(st->mu);
    for (int round = 0; round < kStopRounds && !st->finished; ++round)
      st->cv.wait_for(lock, std::chrono::seconds(1), [&] { return st->finished; });
    done = st->finished;
  }
  m_ThreadStatus = 0;
  if (!done) {
    OX_TRACE(TRACE_ERROR, "stop_Listener: Listener-Thread is not stopped yet!");
    return;
  }
  OX_TRACE(TRACE_STATUS, "stop_Listener: Listener-Thread stopped.");
}

void* CIMindication::listenerThread(void* owner) {
  if (owner == nullptr) return nullptr;
  CIMindication* self = static_cast<CIMindication*>(owner);
  std::shared_ptr<ListenerState> st;
  try {
    st = findState(self);
    if (st == nullptr) {
      // Run without start_Listener: register so stop_Listener can find us.
      st = makeState();
      std::lock_guard<std::mutex> lock(g_tableMu);
      g_table[self] = st;
    }
  } catch (const std::exception& e) {
    traceException("listenerThread", e.what());
    __atomic_store_n(&self->pCallBack, nullptr, __ATOMIC_SEQ_CST);
    return nullptr;
  }

  int fd = -1;
  try {
    fd = acceptLoop(self, st);
  } catch (const std::exception& e) {
    traceException("listenerThread", e.what());
  } catch (...) {
    traceException("listenerThread", "unknown exception");
  }

  try {
    LISTENER_TRACE(TRACE_STATUS, "listenerThread: Listener: Finished!");
  } catch (...) {
  }
  {
    // However the loop ended, the readers end with it; the ones that hold a
    // complete request still deliver it before the callback goes.
    std::unique_lock<std::mutex> lock(st->mu);
    st->stopping = true;
    if (fd != -1) {
      int32_t expected = fd;
      __atomic_compare_exchange_n(&self->m_ListenSocket, &expected, -1, false, __ATOMIC_SEQ_CST,
                                  __ATOMIC_SEQ_CST);
      close(fd);
    }
    st->shutDownReaders();
    st->ready = true;
    st->cv.notify_all();
    st->cv.wait(lock, [&] { return st->touching == 0; });
    // The last touch of the object by any thread of this listener.
    __atomic_store_n(&self->pCallBack, nullptr, __ATOMIC_SEQ_CST);
  }
  {
    // Readers still in the callback: stop_Listener returns after them.
    std::unique_lock<std::mutex> lock(st->mu);
    st->cv.wait(lock, [&] { return st->readers == 0; });
    if (g_trackedReaders.load() == 0)
      __atomic_store_n(&ListenerThreadIsActive, 0, __ATOMIC_SEQ_CST);
  }
  dropState(self, st);
  std::lock_guard<std::mutex> lock(st->mu);
  if (st->wake[0] != -1) close(st->wake[0]);
  if (st->wake[1] != -1) close(st->wake[1]);
  st->wake[0] = st->wake[1] = -1;
  st->finished = true;
  st->cv.notify_all();
  return nullptr;
}

void* CIMindication::readerThread(void* args) {
  if (args == nullptr) return nullptr;
  ReaderArgs* ra = static_cast<ReaderArgs*>(args);
  int sock = ra->socket;
  CIMindication* owner = ra->owner;
  free(ra);
  serve(sock, owner, nullptr);
  return nullptr;
}

}  // namespace oxCIM
