// CIMconnection::setIPAddress: a host name to one numeric address text and its FQDN.
#include "oxInternal.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <boost/format.hpp>
#include <cerrno>
#include <cstring>

namespace oxCIM {

namespace {

// Empty when the entry is not usable as the connection's address.
std::string NumericAddress(const addrinfo* entry) {
  if (entry->ai_family == AF_INET && entry->ai_addr != nullptr) {
    const auto* sin = reinterpret_cast<const sockaddr_in*>(entry->ai_addr);
    unsigned char b[4];
    std::memcpy(b, &sin->sin_addr, sizeof b);
    if (b[0] == 127 && b[1] == 0 && b[2] == 0 && b[3] == 1) return std::string();
    return boost::str(boost::format("%d.%d.%d.%d") % int(b[0]) % int(b[1]) % int(b[2]) %
                      int(b[3]));
  }
  if (entry->ai_family == AF_INET6 && entry->ai_addr != nullptr) {
    const auto* sin6 = reinterpret_cast<const sockaddr_in6*>(entry->ai_addr);
    uint16_t raw[8];
    std::memcpy(raw, &sin6->sin6_addr, sizeof raw);
    unsigned g[8];
    for (int i = 0; i < 8; ++i) g[i] = ntohs(raw[i]);
    // Deliberately narrow: only 0:0:0:n:0:0:0:1 (n != 0) is treated as loopback; ::1 is kept.
    if (g[0] == 0 && g[1] == 0 && g[2] == 0 && g[3] != 0 && g[4] == 0 && g[5] == 0 &&
        g[6] == 0 && g[7] == 1)
      return std::string();
    return boost::str(boost::format("%x:%x:%x:%x:%x:%x:%x:%x") % g[0] % g[1] % g[2] % g[3] %
                      g[4] % g[5] % g[6] % g[7]);
  }
  return std::string();
}

}  // namespace

void CIMconnection::setIPAddress(const std::string& host, std::string& address,
                                 std::string* fqdn) try {
  address.clear();
  if (fqdn != nullptr) fqdn->clear();

  int ret = 0;
  if (!host.empty()) {
    addrinfo* list = nullptr;
    ret = getaddrinfo(host.c_str(), nullptr, nullptr, &list);
    if (ret == 0) {
      for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
        if (address.empty()) address = NumericAddress(entry);

        if (fqdn == nullptr || !fqdn->empty()) continue;
        char name[1025];
        const int iret = getnameinfo(entry->ai_addr, entry->ai_addrlen, name, sizeof name,
                                     nullptr, 0, 0);
        if (iret != 0) {
          OX_TRACE(TRACE_STATUS,
                   "setIPAddress: getnameinfo: Error in '%s' iret=%d WSAGetLastError=%d", host,
                   iret, errno);
          continue;
        }
        if (address == name)
          OX_TRACE(TRACE_STATUS, "setIPAddress: [%s] ipAdrr:'%s' m_FQDN:'%s', Error???", host,
                   address, name);
        if (!EqualNoCase(name, host.c_str()))
          OX_TRACE(TRACE_DETAIL, "setIPAddress: [%s] -> '%s'", host, name);
        *fqdn = name;
      }
      freeaddrinfo(list);
    }
  }
  if (!address.empty()) return;

  // Recorded directly: this overrides an earlier code and must not dump the exchange.
  m_ErrCode = 5003;
  OX_TRACE(TRACE_STATUS, "[%s] setIPAddress: cannot get IP-Address. ret=%d WSAGetLastError=%d",
           host, ret, errno);
}
OX_CATCH_VOID

}  // namespace oxCIM
