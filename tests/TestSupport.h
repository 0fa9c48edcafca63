// Helpers every suite and some benchmarks share. Free of GoogleTest: the benchmarks link
// them too.
#pragma once

#include <oxCIM.h>

#include "SimServer.h"

#include <chrono>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace oxtest {

// The simulator's scripted mode: canned answers, recorded requests.
using oxsim::CannedResponse;
using oxsim::HeaderList;
using oxsim::RecordedRequest;
using oxsim::ScriptedServer;
using oxsim::TestPki;

// Collects the library's trace records while alive, with `mask` switched on; the previous
// mask and the default sink come back on destruction.
class TraceCapture {
 public:
  explicit TraceCapture(unsigned long mask = ~0UL);
  ~TraceCapture();
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  std::vector<Brix::Internals::TraceRecord> records() const;
  void clear();
  // Texts of the records written by `function` ("" for all), in order.
  std::vector<std::string> texts(const std::string& function = "") const;
  // Records at `level` (0: any) whose text is exactly `text` ("": any).
  int count(unsigned long level, const std::string& text = "") const;
  bool has(unsigned long level, const std::string& text) const { return count(level, text) > 0; }
  // One "hexlevel function: text" line per record.
  std::string dump() const;
  // "code description" of every status record, in order.
  std::vector<std::string> statusCodes() const;

 private:
  // Shared with the sink: a record from another thread may still arrive after the
  // capture has been replaced, and must land in storage that is still alive.
  struct Store {
    std::mutex mu;
    std::vector<Brix::Internals::TraceRecord> records;
  };
  std::shared_ptr<Store> store_ = std::make_shared<Store>();
  unsigned long oldMask_;
};

template <typename Pred>
bool Eventually(Pred pred, std::chrono::milliseconds limit = std::chrono::milliseconds(5000)) {
  for (auto end = std::chrono::steady_clock::now() + limit; std::chrono::steady_clock::now() < end;
       std::this_thread::sleep_for(std::chrono::milliseconds(2)))
    if (pred()) return true;
  return pred();
}

// A loopback port nobody listens on (just released by us).
int FreePort();
// Connected TCP socket to 127.0.0.1:port with a receive time-out, or -1.
int Connect(int port, int recvTimeoutSec = 20);
bool SendAll(int fd, const std::string& data);
// Everything the peer sends until it closes.
std::string ReadAll(int fd);
// Connect, send, read to the end, close; "<refused>" when nobody listens.
std::string RawExchange(int port, const std::string& request);

// Loopback target with credentials user:secret and no address checks.
void PointAt(oxCIM::CIMconnection& c, int port, const char* scheme = "http");

#ifdef OXCIM_TEST_DATA
inline std::string ReadFixture(const std::string& name) {
  std::ifstream in(std::string(OXCIM_TEST_DATA) + "/" + name, std::ios::binary);
  std::ostringstream os;
  os << in.rdbuf();
  return os.str();
}
#endif

}  // namespace oxtest
