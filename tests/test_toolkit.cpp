// The toolkit: format streams, trace records and sinks, locks, fd sets.

#include <gtest/gtest.h>

#include <unistd.h>

#include "TestSupport.h"

#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <regex>

using Brix::Internals::CTraceStreamBuffer;
using Brix::Internals::TraceRecord;
using Brix::Output_Streams::CFormatStream;
using Brix::Output_Streams::FormatInt;

namespace {

using Sink = oxtest::TraceCapture;

Brix::Misc::CModuleInfo testModule(7, "unit", "v1");

template <typename... Args>
std::string Format(const char* format, const Args&... args) {
  Sink sink(0);
  {
    CTraceStreamBuffer buffer(4, testModule, "dir/file.cpp", "fn", 12);
    CFormatStream fs(buffer, format);
    ((void)(fs << args), ...);
  }
  const auto recs = sink.records();
  EXPECT_EQ(recs.size(), 1u);
  return recs.empty() ? std::string() : recs[0].text;
}

template <typename T>
std::string Printf(const char* format, T value) {
  char buf[256];
  std::snprintf(buf, sizeof buf, format, value);
  return buf;
}

// A library call that is certain to write one error trace.
void FailPutargv() {
  oxCIM::CIMarray a;
  EXPECT_EQ(a.putargv(nullptr, -1, 15), nullptr);
}

}  // namespace

TEST(FormatStream, ConversionsMatchPrintf) {
  for (const char* f : {"%d", "%i", "%09d", "%-6d|", "%+d", "% d"})
    for (int v : {0, 42, -7, INT_MAX, INT_MIN}) EXPECT_EQ(Format(f, FormatInt(v)), Printf(f, v)) << f;
  for (const char* f : {"%u", "%x", "%X", "%08x", "%#x"})
    for (int v : {0, 255, -1, -42})
      EXPECT_EQ(Format(f, FormatInt(v)), Printf(f, static_cast<unsigned>(v))) << f << v;
  // Every length modifier that means 64 bits: j, z and q too.
  for (const char* f : {"%ld", "%lu", "%lx", "%12ld", "%lld", "%jd", "%ju", "%zd", "%zx", "%qd", "%qu"})
    for (long v : {0L, 5000000000L, -5000000000L, LONG_MIN, LONG_MAX})
      EXPECT_EQ(Format(f, FormatInt(v)), Printf(f, v)) << f << v;
  for (const char* f : {"%g", "%.3g", "%10g", "%-10g|", "%e", "%.2f"})
    for (double v : {0.0, 3.5, -1e-5, 123456789.0, 1.0 / 3})
      EXPECT_EQ(Format(f, v), Printf(f, v)) << f << v;
  for (const char* f : {"%s", "%8s|", "%-8s|", "%.2s"}) {
    EXPECT_EQ(Format(f, "abc"), Printf(f, "abc")) << f;
    EXPECT_EQ(Format(f, std::string("abc")), Printf(f, "abc")) << f;
  }
}

TEST(FormatStream, LiteralsArgumentsAndLeftovers) {
  EXPECT_EQ(Format("100%% of %s, %d%%", "disks", FormatInt(3)), "100% of disks, 3%");
  EXPECT_EQ(Format("[%s]", static_cast<const char*>(nullptr)), "[(null)]");
  EXPECT_EQ(Format("host %s port %d tail", std::string("h1"), FormatInt(5988)),
            "host h1 port 5988 tail");
  EXPECT_EQ(Format("%s and %d", "only"), "only and %d");  // a missing argument stays as written
  EXPECT_EQ(Format("no conversions", "extra", FormatInt(1)), "no conversions");
  EXPECT_EQ(Format(""), "");
  std::string withNul("a\0b", 3);
  EXPECT_EQ(Format("<%s>", withNul), std::string("<a\0b>", 5));
}

TEST(Tracing, OneRecordPerEnabledTraceWithItsOrigin) {
  Sink sink(0);
  {
    CTraceStreamBuffer buffer(16, testModule, "src/x.cpp", "Work", 99);
    CFormatStream fs(buffer, "step %d");
    fs << FormatInt(2);
    EXPECT_TRUE(sink.records().empty());  // emitted when the buffer is done
  }
  for (unsigned long mask : {0UL, oxCIM::TRACE_ENTRY | oxCIM::TRACE_STATUS | oxCIM::TRACE_DETAIL, oxCIM::TRACE_ERROR}) {
    oxCIM::oxCIM.SetTraceMask(mask);
    FailPutargv();  // traced with the last mask only
  }
  const auto recs = sink.records();
  ASSERT_EQ(recs.size(), 2u);
  auto origin = [](const TraceRecord& r) {
    return std::to_string(r.level) + " " + r.module + " " + r.file.substr(r.file.rfind('/') + 1) + " " +
           r.function + " " + r.text;
  };
  EXPECT_EQ(origin(recs[0]), "16 unit x.cpp Work step 2");
  EXPECT_EQ(recs[0].file + std::to_string(recs[0].line), "src/x.cpp99");
  EXPECT_EQ(origin(recs[1]), "1073741824 oxCIM CIMclasses.cpp putargv putargv: Exception raised: NULL pointer!!");
  EXPECT_GT(recs[1].line, 0);
}

TEST(Tracing, DefaultSinkAppendsLinesToTraceFile) {
  char path[] = "/tmp/oxcim_trace_XXXXXX";
  int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  close(fd);
  const char* old = std::getenv("OXCIM_TRACE_FILE");
  std::string saved = old ? old : "";
  setenv("OXCIM_TRACE_FILE", path, 1);
  {
    Sink sink(0);  // a replaced sink, then restored: the file must get the records
    Brix::Internals::SetTraceSink({});
    oxCIM::oxCIM.SetTraceMask(oxCIM::TRACE_ERROR);
    FailPutargv();
    { CTraceStreamBuffer b(4, oxCIM::oxCIM, "/a/b/CIMconnection.cpp", "SetCimStatus_FL", 312); }
    EXPECT_TRUE(sink.records().empty());
  }
  if (old) setenv("OXCIM_TRACE_FILE", saved.c_str(), 1);
  else unsetenv("OXCIM_TRACE_FILE");

  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  std::remove(path);
  const std::string stamp = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z )";
  EXPECT_TRUE(std::regex_match(
      text.str(), std::regex(stamp + R"(\[0x40000000\] oxCIM CIMclasses\.cpp:\d+ putargv: putargv: Exception )"
                             R"(raised: NULL pointer!!\n)" + stamp + R"(\[0x4\] oxCIM CIMconnection\.cpp:312 SetCimStatus_FL: \n)")))
      << text.str();
}

TEST(Locks, CriticalSectionIsRecursiveAndExclusive) {
  Brix::Threading::Native_OS::CCriticalSection cs;
  cs.Init(1000);
  std::atomic<bool> entered{false};
  cs.Enter();
  std::thread other;
  {
    Brix::Threading::CSyncGuard again(cs);  // taken a second time by its holder
    other = std::thread([&] {
      Brix::Threading::CSyncGuard guard(cs);
      entered = true;
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(entered.load());  // the guard gave back one level only
  cs.Leave();
  EXPECT_TRUE(oxtest::Eventually([&] { return entered.load(); }));
  other.join();
}

TEST(FileDescriptorSet, AddContainsAndSelect) {
  Brix::Misc::CFileDescriptorSet set;
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  EXPECT_FALSE(set.Contains(p[0]));
  EXPECT_TRUE(set.Add(p[0]));
  EXPECT_TRUE(set.Contains(p[0]));
  EXPECT_FALSE(set.Contains(p[1]));
  for (int outside : {-1, FD_SETSIZE}) EXPECT_FALSE(set.Add(outside) || set.Contains(outside)) << outside;
  ASSERT_EQ(write(p[1], "x", 1), 1);
  timeval tv{1, 0};
  EXPECT_EQ(select(p[0] + 1, set.Get(), nullptr, nullptr, &tv), 1);
  EXPECT_TRUE(set.Contains(p[0]));
  set.Clear();
  EXPECT_FALSE(set.Contains(p[0]));
  EXPECT_TRUE(set.Add(0) && set.Contains(0));  // descriptor 0 is an ordinary member
  close(p[0]);
  close(p[1]);
}
