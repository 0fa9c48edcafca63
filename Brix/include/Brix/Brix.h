// Brix: the small toolkit liboxCIM is built on (tracing, locks, fd sets, module identity).
#pragma once

#include <sys/select.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#define BRIX_API __attribute__((visibility("default")))

namespace Brix {

namespace Misc {

class BRIX_API CModuleInfo {
 public:
  CModuleInfo(int number, const char* name, const char* version);
  CModuleInfo(const CModuleInfo&) = delete;
  CModuleInfo& operator=(const CModuleInfo&) = delete;

  int GetNumber() const { return m_Number; }
  const char* GetName() const { return m_Name; }
  const char* GetVersion() const { return m_Version; }
  unsigned long GetTraceMask() const { return m_Mask.load(std::memory_order_relaxed); }
  void SetTraceMask(unsigned long mask) { m_Mask.store(mask, std::memory_order_relaxed); }
  // Inline on purpose: a disabled trace must cost this test and nothing else.
  bool IsTraced(unsigned long level) const { return (GetTraceMask() & level) != 0; }

 private:
  int m_Number;
  const char* m_Name;
  const char* m_Version;
  std::atomic<unsigned long> m_Mask;
};

// fd_set wrapper for select(); descriptors at or above FD_SETSIZE are refused
// rather than written past the end of the set.
class BRIX_API CFileDescriptorSet {
 public:
  CFileDescriptorSet();
  bool Add(int fd);
  bool Contains(int fd) const;
  void Clear();
  fd_set* Get() { return &m_Set; }

 private:
  fd_set m_Set;
};

}  // namespace Misc

namespace Threading {
namespace Native_OS {

// Recursive like the platform critical sections it stands in for.
class BRIX_API CCriticalSection {
 public:
  CCriticalSection() = default;
  CCriticalSection(const CCriticalSection&) = delete;
  CCriticalSection& operator=(const CCriticalSection&) = delete;
  // The spin count is a hint for platforms that spin before sleeping; the lock
  // is usable with or without this call.
  void Init(int spin) { m_Spin = spin; }
  int GetSpin() const { return m_Spin; }
  void Enter() { m_Mutex.lock(); }
  void Leave() { m_Mutex.unlock(); }

 private:
  std::recursive_mutex m_Mutex;
  int m_Spin = 0;
};

}  // namespace Native_OS

class BRIX_API CSyncGuard {
 public:
  explicit CSyncGuard(Native_OS::CCriticalSection& cs) : m_Cs(cs) { m_Cs.Enter(); }
  ~CSyncGuard() { m_Cs.Leave(); }
  CSyncGuard(const CSyncGuard&) = delete;
  CSyncGuard& operator=(const CSyncGuard&) = delete;

 private:
  Native_OS::CCriticalSection& m_Cs;
};

}  // namespace Threading

namespace Internals {

struct TraceRecord {
  unsigned long level;
  std::string module;
  std::string file;
  std::string function;
  int line;
  std::string text;
};

// Replaces the process-wide sink; an empty function restores the default sink.
// A record being written by another thread may still reach the old sink after this
// returns, so a sink owns (or shares) whatever it writes to.
BRIX_API void SetTraceSink(std::function<void(const TraceRecord&)> sink);

// Delivers a finished record to the current sink.
BRIX_API void EmitTrace(const TraceRecord& record);

// Collects one record's text; the record goes to the sink when the buffer is destroyed.
class BRIX_API CTraceStreamBuffer {
 public:
  CTraceStreamBuffer(unsigned long level, const Misc::CModuleInfo& module, const char* file,
                     const char* function, int line);
  ~CTraceStreamBuffer();
  CTraceStreamBuffer(const CTraceStreamBuffer&) = delete;
  CTraceStreamBuffer& operator=(const CTraceStreamBuffer&) = delete;

  void Append(const char* text, size_t len) { m_Record.text.append(text, len); }
  void Append(const std::string& text) { m_Record.text += text; }

 private:
  TraceRecord m_Record;
};

}  // namespace Internals

namespace Output_Streams {

struct BRIX_API FormatInt {
  explicit FormatInt(int64_t v) : value(v) {}
  int64_t value;
};

// printf-like: each << fills the next conversion (%s %d %u %x %ld %lu %g %% with the
// usual flags and widths), formatted as printf would format that argument.
// The rest of the format is written when the stream is destroyed.
class BRIX_API CFormatStream {
 public:
  CFormatStream(Internals::CTraceStreamBuffer& buffer, const char* format);
  ~CFormatStream();
  CFormatStream(const CFormatStream&) = delete;
  CFormatStream& operator=(const CFormatStream&) = delete;

  CFormatStream& operator<<(const char* text);
  CFormatStream& operator<<(const std::string& text);
  CFormatStream& operator<<(const FormatInt& number);
  CFormatStream& operator<<(double number);

 private:
  // Copies literal text up to the next conversion and returns the directive ("%-5d"), or "" at the end.
  std::string NextDirective();
  Internals::CTraceStreamBuffer& m_Buffer;
  const char* m_Pos;
};

}  // namespace Output_Streams
}  // namespace Brix
