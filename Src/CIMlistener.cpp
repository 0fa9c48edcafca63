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
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

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
// thread, its reader threads and stop_Listener; it outlives the object if need be.
struct ListenerState {
  std::mutex mu;
  std::condition_variable cv;
  bool stopping = false;
  bool finished = false;
  int readers = 0;  // readers started by this listener and not yet returned
  int wake[2] = {-1, -1};

  ~ListenerState() {
    if (wake[0] != -1) close(wake[0]);
    if (wake[1] != -1) close(wake[1]);
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

int mySelect(int socket, int seconds) {
  if (socket == -1) {
    struct timeval tv;
    tv.tv_sec = seconds;
    tv.tv_usec = 0;
    errno = 0;
    return select(0, nullptr, nullptr, nullptr, &tv);
  }
  return waitReadable(socket, -1, seconds, nullptr);
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

int messageId(const std::string& body) {
  static const char key[] = "<MESSAGE ID=";
  size_t pos = body.find(key);
  if (pos == std::string::npos) return 1;
  pos += sizeof(key) - 1;
  if (pos >= body.size() || body[pos] != '"') return 1;
  const char* digits = body.c_str() + pos + 1;
  if (*digits < '0' || *digits > '9') return 1;
  int id = static_cast<int>(strtol(digits, nullptr, 10));
  return id > 0 ? id : 1;
}

// A reader thread started by a listener: the listener counted it before the
// thread existed, so stop_Listener cannot miss it.
struct ReaderJob {
  ReaderArgs* args;
  std::shared_ptr<ListenerState> state;
};

void readerDone(const std::shared_ptr<ListenerState>& st) {
  std::lock_guard<std::mutex> lock(st->mu);
  --st->readers;
  g_trackedReaders.fetch_sub(1);
  st->cv.notify_all();
}

void* readerTrampoline(void* p) {
  std::unique_ptr<ReaderJob> job(static_cast<ReaderJob*>(p));
  CIMindication::readerThread(job->args);
  readerDone(job->state);
  return nullptr;
}

}  // namespace

CIMindication::CIMindication()
    : pCallBack(nullptr), m_Port(-1), m_ListenSocket(-1), m_ThreadStatus(0) {}

bool CIMindication::check_Listener() {
  return static_cast<uint32_t>(loadSocket(this)) < 0xFFFFFFFFu;
}

int CIMindication::start_Listener() {
  std::shared_ptr<ListenerState> st;
  bool running, noCallBack;
  {
    // Check and register in one step, so two racing starts cannot both succeed.
    std::lock_guard<std::mutex> lock(g_tableMu);
    running = loadSocket(this) != -1 || g_table.count(this) != 0;
    noCallBack = __atomic_load_n(&pCallBack, __ATOMIC_SEQ_CST) == nullptr;
    if (!running && !noCallBack) {
      st = makeState();
      g_table[this] = st;
    }
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
    if (st->wake[1] != -1) {
      char c = 1;
      ssize_t w = write(st->wake[1], &c, 1);
      (void)w;
    }
  }
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
  std::shared_ptr<ListenerState> st = findState(self);
  if (st == nullptr) {
    // Run without start_Listener: register so stop_Listener can find us.
    st = makeState();
    std::lock_guard<std::mutex> lock(g_tableMu);
    g_table[self] = st;
  }

  int fd = -1;
  do {
    {
      std::lock_guard<std::mutex> lock(st->mu);
      if (st->stopping) break;
      fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
      __atomic_store_n(&self->m_ListenSocket, fd, __ATOMIC_SEQ_CST);
    }
    if (fd == -1) {
      OX_TRACE(TRACE_ERROR, "listenerThread: socket");
      break;
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
      OX_TRACE(TRACE_ERROR, "listenerThread: bind");
      break;
    }
    if (listen(fd, kBacklog) != 0) {
      OX_TRACE(TRACE_ERROR, "listenerThread: listen");
      break;
    }
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
        OX_TRACE(TRACE_ERROR, "listenerThread: ERROR in 'accept'");
        // Out of descriptors: the pending connection stays readable, so pause
        // rather than spin.
        if (e == EMFILE || e == ENFILE || e == ENOBUFS || e == ENOMEM)
          boost::this_thread::sleep(boost::posix_time::milliseconds(100));
        continue;
      }
      ReaderArgs* args = static_cast<ReaderArgs*>(malloc(sizeof(ReaderArgs)));
      if (args == nullptr) {
        close(conn);
        continue;
      }
      args->socket = conn;
      args->owner = self;
      {
        std::lock_guard<std::mutex> lock(st->mu);
        ++st->readers;
        g_trackedReaders.fetch_add(1);
      }
      ReaderJob* job = new ReaderJob{args, st};
      pthread_t tid;
      if (pthread_create(&tid, nullptr, &readerTrampoline, job) == 0) {
        pthread_detach(tid);
        OX_TRACE(TRACE_DETAIL, "listenerThread: start eventreader-thread");
      } else {
        // No thread to spare: serve the connection here rather than drop it.
        delete job;
        readerThread(args);
        readerDone(st);
      }
    }
  } while (false);

  OX_TRACE(TRACE_STATUS, "listenerThread: Listener: Finished!");
  if (fd != -1) {
    std::lock_guard<std::mutex> lock(st->mu);
    int32_t expected = fd;
    __atomic_compare_exchange_n(&self->m_ListenSocket, &expected, -1, false, __ATOMIC_SEQ_CST,
                                __ATOMIC_SEQ_CST);
    close(fd);
  }
  {
    // Let the readers in flight deliver what they acknowledged before the
    // callback goes away. They still use the object, so this wait has no bound
    // of its own (each receive has one); stop_Listener gives up after its rounds
    // and says so.
    std::unique_lock<std::mutex> lock(st->mu);
    st->cv.wait(lock, [&] { return st->readers == 0; });
  }
  if (g_trackedReaders.load() == 0) __atomic_store_n(&ListenerThreadIsActive, 0, __ATOMIC_SEQ_CST);
  __atomic_store_n(&self->pCallBack, nullptr, __ATOMIC_SEQ_CST);
  dropState(self, st);
  // Last touch of the object: stop_Listener may return (and the object go) from here on.
  std::lock_guard<std::mutex> lock(st->mu);
  // Reader threads may hold the state a little longer; the pipe goes now.
  if (st->wake[0] != -1) close(st->wake[0]);
  if (st->wake[1] != -1) close(st->wake[1]);
  st->wake[0] = st->wake[1] = -1;
  st->finished = true;
  st->cv.notify_all();
  return nullptr;
}

void* CIMindication::readerThread(void* args) {
  if (args == nullptr) return nullptr;
  __atomic_add_fetch(&ListenerThreadIsActive, 1, __ATOMIC_SEQ_CST);
  ReaderArgs* ra = static_cast<ReaderArgs*>(args);
  int sock = ra->socket;
  CIMindication* owner = ra->owner;
  free(ra);

  std::string body;
  char buffer[kBufferSize];
  bool deliver = false;

  do {
    if (mySelect(sock, kFirstByteWait) < 1) break;
    long declared = 0;
    bool first = true;
    bool failed = false;
    for (;;) {
      if (!first) {
        int w = waitReadable(sock, -1, kReceiveWait, nullptr);
        if (w < 1) {
          if (w == 0) OX_TRACE(TRACE_ERROR, "readerThread: receive timed out");
          failed = true;
          break;
        }
      }
      ssize_t n = recv(sock, buffer, kBufferSize - 1, 0);
      if (n == -1) {
        if (retryAfterSocketError()) continue;
        OX_TRACE(TRACE_ERROR, "readerThread: ERROR in 'recv'");
        failed = true;
        break;
      }
      first = false;
      if (n == 0) {
        close(sock);
        sock = -1;
        OX_TRACE(TRACE_DETAIL, "readerThread: connection has been gracefully closed");
        if (declared != 0 && body.size() >= static_cast<size_t>(declared)) deliver = true;
        failed = true;
        break;
      }
      buffer[n] = '\0';
      if (declared != 0) {
        body.append(buffer, static_cast<size_t>(n));
      } else {
        const char* cl = findNoCase(buffer, static_cast<size_t>(n), "content-length:");
        if (cl != nullptr)
          declared = static_cast<int32_t>(strtol(cl + sizeof("content-length:") - 1, nullptr, 10));
        if (cl == nullptr || declared < 1 || declared > kMaxContentLength) {
          OX_TRACE(TRACE_ERROR, "readerThread: missing Content-Length");
          failed = true;
          break;
        }
        const char* xml = findNoCase(buffer, static_cast<size_t>(n), "<?xml");
        if (xml != nullptr) body.append(xml, static_cast<size_t>(buffer + n - xml));
      }
      if (body.size() >= static_cast<size_t>(declared)) break;
    }
    if (failed) break;

    int id = messageId(body);
    char replyBody[sizeof(kReplyBody) + 16];
    int bodyLen = snprintf(replyBody, sizeof(replyBody), kReplyBody, id);
    if (kReplyHeaderLen + static_cast<size_t>(bodyLen) >= kBufferSize - 2) {
      OX_TRACE(TRACE_ERROR, "readerThread: FATAL ERROR: sizeof(buffer) too small");
      break;
    }
    int total = snprintf(buffer, sizeof(buffer), "%s%09d%s%s", kReplyHead, bodyLen,
                         kReplyHeadTail, replyBody);
    deliver = true;
    uint16_t off = 0;
    while (off < static_cast<uint16_t>(total)) {
      ssize_t s = send(sock, buffer + off, static_cast<size_t>(total - off), MSG_NOSIGNAL);
      if (s == -1 && retryAfterSocketError()) continue;
      if (s <= 0) {
        errno = 0;
        OX_TRACE(TRACE_ERROR, "readerThread: ERROR in 'send'");
        break;
      }
      off = static_cast<uint16_t>(off + s);
    }
  } while (false);

  if (deliver) {
    int (*cb)(std::string&) = __atomic_load_n(&owner->pCallBack, __ATOMIC_SEQ_CST);
    if (cb != nullptr) cb(body);
  }
  if (sock != -1) close(sock);
  __atomic_sub_fetch(&ListenerThreadIsActive, 1, __ATOMIC_SEQ_CST);
  return nullptr;
}

}  // namespace oxCIM
