#include <Brix/Brix.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <sys/time.h>

namespace Brix {

namespace Misc {

CModuleInfo::CModuleInfo(int number, const char* name, const char* version)
    : m_Number(number), m_Name(name), m_Version(version), m_Mask(0) {}

CFileDescriptorSet::CFileDescriptorSet() { FD_ZERO(&m_Set); }

bool CFileDescriptorSet::Add(int fd) {
  if (fd < 0 || fd >= FD_SETSIZE) return false;
  FD_SET(fd, &m_Set);
  return true;
}

bool CFileDescriptorSet::Contains(int fd) const {
  if (fd < 0 || fd >= FD_SETSIZE) return false;
  return FD_ISSET(fd, &m_Set) != 0;
}

void CFileDescriptorSet::Clear() { FD_ZERO(&m_Set); }

}  // namespace Misc

namespace Internals {

namespace {

using Sink = std::function<void(const TraceRecord&)>;

std::mutex& SinkMutex() {
  static std::mutex m;
  return m;
}

// Held by shared_ptr so a sink can be replaced while another thread is inside it.
std::shared_ptr<const Sink>& CurrentSink() {
  static std::shared_ptr<const Sink> sink;
  return sink;
}

const char* BaseName(const std::string& path) {
  const char* p = path.c_str();
  const char* slash = std::strrchr(p, '/');
  return slash ? slash + 1 : p;
}

void DefaultSink(const TraceRecord& r) {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  struct tm tmv;
  gmtime_r(&tv.tv_sec, &tmv);
  char stamp[64];
  std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tmv.tm_year + 1900,
                tmv.tm_mon + 1, tmv.tm_mday, tmv.tm_hour, tmv.tm_min, tmv.tm_sec,
                static_cast<int>(tv.tv_usec / 1000));
  std::string line = std::string(stamp) + " [0x";
  char level[24];
  std::snprintf(level, sizeof level, "%lx", r.level);
  line += level;
  line += "] " + r.module + " " + BaseName(r.file) + ":" + std::to_string(r.line) + " " +
          r.function + ": " + r.text + "\n";

  // One write per record keeps lines from different threads whole.
  static std::mutex writeMutex;
  std::lock_guard<std::mutex> lock(writeMutex);
  const char* path = std::getenv("OXCIM_TRACE_FILE");
  if (path && *path) {
    if (FILE* f = std::fopen(path, "a")) {
      std::fwrite(line.data(), 1, line.size(), f);
      std::fclose(f);
      return;
    }
  }
  std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace

void SetTraceSink(std::function<void(const TraceRecord&)> sink) {
  std::shared_ptr<const Sink> next;
  if (sink) next = std::make_shared<const Sink>(std::move(sink));
  std::lock_guard<std::mutex> lock(SinkMutex());
  CurrentSink() = std::move(next);
}

void EmitTrace(const TraceRecord& record) {
  std::shared_ptr<const Sink> sink;
  {
    std::lock_guard<std::mutex> lock(SinkMutex());
    sink = CurrentSink();
  }
  if (sink)
    (*sink)(record);
  else
    DefaultSink(record);
}

CTraceStreamBuffer::CTraceStreamBuffer(unsigned long level, const Misc::CModuleInfo& module,
                                       const char* file, const char* function, int line) {
  m_Record.level = level;
  m_Record.module = module.GetName() ? module.GetName() : "";
  m_Record.file = file ? file : "";
  m_Record.function = function ? function : "";
  m_Record.line = line;
}

CTraceStreamBuffer::~CTraceStreamBuffer() {
  try {
    EmitTrace(m_Record);
  } catch (...) {
    // A sink that throws must not take the caller down.
  }
}

}  // namespace Internals

namespace Output_Streams {

CFormatStream::CFormatStream(Internals::CTraceStreamBuffer& buffer, const char* format)
    : m_Buffer(buffer), m_Pos(format ? format : "") {}

CFormatStream::~CFormatStream() {
  // Conversions left without an argument are written as they stand.
  while (*m_Pos) {
    std::string directive = NextDirective();
    if (directive.empty()) break;
    m_Buffer.Append(directive);
  }
}

std::string CFormatStream::NextDirective() {
  for (;;) {
    const char* pct = std::strchr(m_Pos, '%');
    if (!pct) {
      m_Buffer.Append(m_Pos, std::strlen(m_Pos));
      m_Pos += std::strlen(m_Pos);
      return std::string();
    }
    m_Buffer.Append(m_Pos, pct - m_Pos);
    if (pct[1] == '%') {
      m_Buffer.Append("%", 1);
      m_Pos = pct + 2;
      continue;
    }
    const char* p = pct + 1;
    while (*p && std::strchr("-+ #0", *p)) ++p;
    while (*p >= '0' && *p <= '9') ++p;
    if (*p == '.') {
      ++p;
      while (*p >= '0' && *p <= '9') ++p;
    }
    while (*p && std::strchr("hlLqjzt", *p)) ++p;
    if (*p) ++p;  // the conversion letter
    std::string directive(pct, p - pct);
    m_Pos = p;
    return directive;
  }
}

namespace {

// Rebuilds a directive with the given length modifier and conversion letter.
std::string Redirective(const std::string& directive, const char* length, char conv) {
  size_t end = directive.size() - 1;  // drop the conversion letter
  while (end > 1 && std::strchr("hlLqjzt", directive[end - 1])) --end;
  return directive.substr(0, end) + length + conv;
}

template <typename T>
std::string Printf(const std::string& directive, T value) {
  char small[128];
  int n = std::snprintf(small, sizeof small, directive.c_str(), value);
  if (n < 0) return std::string();
  if (static_cast<size_t>(n) < sizeof small) return std::string(small, n);
  std::string big(static_cast<size_t>(n) + 1, '\0');
  std::snprintf(&big[0], big.size(), directive.c_str(), value);
  big.resize(static_cast<size_t>(n));
  return big;
}

bool IsLong(const std::string& directive) {
  return directive.size() >= 2 && (directive[directive.size() - 2] == 'l' || directive[directive.size() - 2] == 'j' ||
                              directive[directive.size() - 2] == 'z' || directive[directive.size() - 2] == 'q');
}

}  // namespace

CFormatStream& CFormatStream::operator<<(const char* text) {
  std::string directive = NextDirective();
  if (directive.empty()) return *this;
  const char* s = text ? text : "(null)";
  if (directive.back() == 's')
    m_Buffer.Append(Printf(Redirective(directive, "", 's'), s));
  else
    m_Buffer.Append(s, std::strlen(s));  // a text for a numeric conversion: shown as it is
  return *this;
}

CFormatStream& CFormatStream::operator<<(const std::string& text) {
  std::string directive = NextDirective();
  if (directive.empty()) return *this;
  if (directive.back() == 's' && directive.size() == 2)
    m_Buffer.Append(text);  // keeps embedded bytes and skips a copy for the common case
  else if (directive.back() == 's')
    m_Buffer.Append(Printf(Redirective(directive, "", 's'), text.c_str()));
  else
    m_Buffer.Append(text);
  return *this;
}

CFormatStream& CFormatStream::operator<<(const FormatInt& number) {
  std::string directive = NextDirective();
  if (directive.empty()) return *this;
  char conv = directive.back();
  const int64_t v = number.value;
  switch (conv) {
    case 'd':
    case 'i':
      if (IsLong(directive))
        m_Buffer.Append(Printf(Redirective(directive, "ll", 'd'), static_cast<long long>(v)));
      else
        m_Buffer.Append(Printf(Redirective(directive, "", 'd'), static_cast<int>(v)));
      break;
    case 'u':
    case 'x':
    case 'X':
    case 'o':
      if (IsLong(directive))
        m_Buffer.Append(Printf(Redirective(directive, "ll", conv), static_cast<unsigned long long>(v)));
      else
        m_Buffer.Append(Printf(Redirective(directive, "", conv), static_cast<unsigned int>(v)));
      break;
    case 'c':
      m_Buffer.Append(Printf(Redirective(directive, "", 'c'), static_cast<int>(v)));
      break;
    case 'g':
    case 'G':
    case 'f':
    case 'e':
      m_Buffer.Append(Printf(Redirective(directive, "", conv), static_cast<double>(v)));
      break;
    default:
      m_Buffer.Append(std::to_string(v));
  }
  return *this;
}

CFormatStream& CFormatStream::operator<<(double number) {
  std::string directive = NextDirective();
  if (directive.empty()) return *this;
  char conv = directive.back();
  if (std::strchr("gGfFeEaA", conv))
    m_Buffer.Append(Printf(Redirective(directive, "", conv), number));
  else
    m_Buffer.Append(Printf(std::string("%g"), number));
  return *this;
}

}  // namespace Output_Streams
}  // namespace Brix
