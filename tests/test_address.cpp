// Resolution of host names to the address texts a connection works with.

#include <gtest/gtest.h>

#include "TestSupport.h"

#include <regex>
#include <set>

using oxCIM::CIMconnection;
using Traces = oxtest::TraceCapture;

namespace {

// Expects exactly the 5003 failure trace for the host; the resolver result must be zero or not.
void ExpectFailureTrace(const std::vector<Brix::Internals::TraceRecord>& recs,
                        const std::string& host, bool retZero) {
  ASSERT_EQ(recs.size(), 1u);
  EXPECT_EQ(std::to_string(recs[0].level) + " " + recs[0].function, "4 setIPAddress");
  std::smatch m;
  ASSERT_TRUE(std::regex_match(recs[0].text, m, std::regex(R"(\[(.*)\] setIPAddress: cannot get IP-Address\. )"
                                                           R"(ret=(-?\d+) WSAGetLastError=-?\d+)")))
      << recs[0].text;
  EXPECT_EQ(m[1].str(), host);
  EXPECT_EQ(m[2].str() == "0", retZero) << recs[0].text;
}

TEST(SetIPAddress, NumericIPv4GivesSameTextAndReverseNameOrErrorTrace) {
  Traces t(4 | 16);
  CIMconnection c;
  std::string address = "stale", fqdn = "stale";
  c.setIPAddress("127.0.1.1", address, &fqdn);  // only 127.0.0.1 itself is skipped
  EXPECT_EQ(address + " " + std::to_string(c.m_ErrCode), "127.0.1.1 0");
  // Without a reverse name the numeric form is flagged but still taken.
  EXPECT_EQ(t.dump(), fqdn != address ? "10 setIPAddress: setIPAddress: [127.0.1.1] -> '" + fqdn + "'\n"
                                      : "4 setIPAddress: setIPAddress: [127.0.1.1] ipAdrr:'127.0.1.1' "
                                        "m_FQDN:'127.0.1.1', Error???\n");
  // Without an FQDN pointer there is no reverse lookup; an earlier status survives success.
  t.clear();
  c.m_ErrCode = 5001;
  c.setIPAddress("10.20.30.40", address, nullptr);
  EXPECT_EQ(address + " " + std::to_string(c.m_ErrCode), "10.20.30.40 5001");  // an earlier status survives
  EXPECT_TRUE(t.records().empty());
}

TEST(SetIPAddress, IPv6UncompressedLowerCaseOnlyTheOddLoopbackSkipped) {
  Traces t(4);
  CIMconnection c;
  std::string a;
  for (const auto& [host, want] : {std::pair<const char*, const char*>{"::1", "0:0:0:0:0:0:0:1"},
                                   {"2001:DB8::A:0BCD", "2001:db8:0:0:0:0:a:bcd"},
                                   {"0:0:0:5:0:0:0:2", "0:0:0:5:0:0:0:2"},
                                   {"0:0:0:5:0:0:0:1", ""}}) {
    c.setIPAddress(host, a, nullptr);
    EXPECT_EQ(a, want);
    EXPECT_EQ(c.m_ErrCode, *want ? 0 : 5003);
  }
  ExpectFailureTrace(t.records(), "0:0:0:5:0:0:0:1", true);  // no trace for the others
}

TEST(SetIPAddress, LoopbackV4SkippedButStillGivesFqdn) {
  Traces t(4);
  CIMconnection c;
  c.m_Host = "connection-host";  // the trace names the host asked for instead
  std::string address = "old", fqdn;
  c.setIPAddress("127.0.0.1", address, &fqdn);
  EXPECT_EQ(address, "");
  EXPECT_FALSE(fqdn.empty());  // the reverse lookup also runs for a skipped entry
  EXPECT_EQ(c.m_ErrCode, 5003);
  std::vector<Brix::Internals::TraceRecord> fails;
  for (const auto& r : t.records())
    if (r.text.find("cannot get") != std::string::npos) fails.push_back(r);
  ExpectFailureTrace(fails, "127.0.0.1", true);
}

TEST(SetIPAddress, EmptyOrUnresolvableHostOverridesStatusWithoutDump) {
  Traces t(4 | 16);
  CIMconnection c;
  c.m_Request = "<req/>";
  c.SetCimStatus_FL(22, "earlier", "x.cpp", 1);
  for (const auto& [host, retZero] : {std::pair<const char*, bool>{"", true}, {"no-such-host.invalid", false}}) {
    t.clear();
    c.m_ErrCode = 22;
    std::string address = "1.2.3.4", fqdn = "old.example";
    c.setIPAddress(host, address, &fqdn);
    EXPECT_EQ(address + fqdn, "");
    EXPECT_EQ(c.m_ErrCode, 5003);
    ExpectFailureTrace(t.records(), host, retZero);  // ret: the resolver's own code, if any
  }
}

TEST(SetIPAddress, LocalhostFromTheHostsFile) {
  std::set<std::string> listed;
  std::ifstream hosts("/etc/hosts");
  for (std::string line; std::getline(hosts, line);) {
    std::istringstream f(line.substr(0, line.find('#')));
    std::string addr, alias;
    for (f >> addr; f >> alias;)
      if (alias == "localhost") listed.insert(addr);
  }
  if (listed.empty()) GTEST_SKIP() << "/etc/hosts does not list localhost";
  for (const auto& a : listed)
    if (a != "127.0.0.1" && a != "::1") GTEST_SKIP() << "/etc/hosts maps localhost to " << a;

  CIMconnection c;
  std::string address, fqdn;
  c.setIPAddress("localhost", address, &fqdn);
  const bool v6 = listed.count("::1") != 0;
  EXPECT_EQ(address, v6 ? "0:0:0:0:0:0:0:1" : "");
  EXPECT_EQ(c.m_ErrCode, v6 ? 0 : 5003);
  EXPECT_FALSE(fqdn.empty());
}

}  // namespace
