#include "OxcimTarget.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "CimStatusNames.h"
#include "OxcimModel.h"

namespace oxcli {

bool ParseUrl(const std::string& url, Target& t, std::string& error) {
  const size_t scheme = url.find("://");
  const std::string proto = scheme == std::string::npos ? "" : url.substr(0, scheme);
  if (proto != "http" && proto != "https") {
    error = "bad URL (http[s]://[user@]host[:port][/namespace]): " + url;
    return false;
  }
  t.protocol = proto;
  std::string rest = url.substr(scheme + 3);
  const size_t slash = rest.find('/');
  if (slash != std::string::npos) {
    std::string ns = rest.substr(slash + 1);
    while (!ns.empty() && ns.back() == '/') ns.pop_back();
    for (size_t at; (at = ns.find("%2F")) != std::string::npos || (at = ns.find("%2f")) != std::string::npos;)
      ns.replace(at, 3, "/");
    if (!ns.empty()) t.ns = ns;
    rest.resize(slash);
  }
  const size_t at = rest.rfind('@');
  if (at != std::string::npos) {
    t.user = rest.substr(0, at);
    if (t.user.find(':') != std::string::npos) {
      error = "no password in the URL, please: use OXCIM_PASSWORD or the prompt";
      return false;
    }
    rest = rest.substr(at + 1);
  }
  std::string host = rest, port;
  if (!rest.empty() && rest[0] == '[') {  // [IPv6]:port
    const size_t close = rest.find(']');
    if (close == std::string::npos) {
      error = "bad host in URL: " + url;
      return false;
    }
    host = rest.substr(1, close - 1);
    if (close + 1 < rest.size() && rest[close + 1] == ':') port = rest.substr(close + 2);
  } else if (const size_t colon = rest.find(':'); colon != std::string::npos) {
    host = rest.substr(0, colon);
    port = rest.substr(colon + 1);
  }
  if (host.empty() || (rest.find(':') != std::string::npos && rest[0] != '[' && port.empty()) ||
      port.find_first_not_of("0123456789") != std::string::npos || port.size() > 5 ||
      (!port.empty() && std::atoi(port.c_str()) > 65535)) {
    error = "bad host or port in URL: " + url;
    return false;
  }
  t.host = host;
  if (!port.empty()) t.port = port;
  return true;
}

bool PromptPassword(const std::string& prompt, std::string& password) {
  const int fd = open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return false;
  termios saved{};
  const bool isTty = tcgetattr(fd, &saved) == 0;
  if (isTty) {
    termios quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(fd, TCSAFLUSH, &quiet);
  }
  if (write(fd, prompt.data(), prompt.size()) < 0) {
    // the prompt is a courtesy; reading still works
  }
  password.clear();
  char c;
  bool gotLine = false;
  while (password.size() < 4096) {
    const ssize_t n = read(fd, &c, 1);
    if (n <= 0) break;
    if (c == '\n' || c == '\r') {
      gotLine = true;
      break;
    }
    password += c;
  }
  if (isTty) tcsetattr(fd, TCSAFLUSH, &saved);
  if (write(fd, "\n", 1) < 0) {
  }
  close(fd);
  return gotLine || !password.empty();
}

// --- status --------------------------------------------------------------------------

namespace {

struct Reason {
  long code;
  std::string text;
};
std::mutex g_Lock;
std::vector<Reason> g_Reasons;
std::string g_FailedAnswer;  // the body of the exchange that recorded the first error
unsigned long g_UserMask = 0;

void Sink(const Brix::Internals::TraceRecord& r) {
  std::lock_guard<std::mutex> guard(g_Lock);
  if (r.function == "SetCimStatus_FL") {
    const size_t at = r.text.find("ErrCode:");
    if (at != std::string::npos) {
      char* end = nullptr;
      const long code = std::strtol(r.text.c_str() + at + 8, &end, 10);
      if (code != 0) g_Reasons.push_back({code, *end == ' ' ? end + 1 : end});
    }
  }
  // The library drops the answer of a failed operation; its dump of it is all there is.
  if (r.function == "Debug_Request_Response") {
    const char* const mark = "------ RESPONSE:\n";
    const size_t at = r.text.rfind(mark);
    g_FailedAnswer = at == std::string::npos ? "" : r.text.substr(at + std::strlen(mark));
  }
  if (r.level & g_UserMask) {
    const size_t slash = r.file.rfind('/');
    std::fprintf(stderr, "[0x%lx] %s %s:%d %s: %s\n", r.level, r.module.c_str(),
                 r.file.c_str() + (slash == std::string::npos ? 0 : slash + 1), r.line,
                 r.function.c_str(), r.text.c_str());
  }
}

std::string ReasonFor(long code) {
  std::lock_guard<std::mutex> guard(g_Lock);
  for (const Reason& r : g_Reasons)
    if (r.code == code) return r.text;
  return "";
}

std::string ReasonBetween(long low, long high) {
  std::lock_guard<std::mutex> guard(g_Lock);
  for (const Reason& r : g_Reasons)
    if (r.code >= low && r.code < high) return r.text;
  return "";
}

std::string Trim(std::string s) {
  while (!s.empty() && (s.back() == ' ' || s.back() == '\r' || s.back() == '\n')) s.pop_back();
  return s;
}

// "CIM_ERR_NOT_FOUND: no such instance" says its name twice once we put it in front.
std::string WithoutName(const std::string& description, const char* name) {
  const size_t n = std::strlen(name);
  if (n == 0 || description.compare(0, n, name) != 0) return description;
  size_t i = n;
  while (i < description.size() && (description[i] == ':' || description[i] == ' ')) ++i;
  return description.substr(i);
}

std::string CimText(long code, const std::string& description) {
  const char* name = oxcimtool::CimStatusName(code);
  std::string out = *name ? std::string(name) + " (" + std::to_string(code) + ")"
                          : "CIM status " + std::to_string(code);
  const std::string rest = WithoutName(description, name);
  return rest.empty() ? out : out + ": " + rest;
}

}  // namespace

void CaptureStatus(unsigned long userMask) {
  g_UserMask = userMask;
  Brix::Internals::SetTraceSink(Sink);
  oxCIM::oxCIM.SetTraceMask(userMask | oxCIM::TRACE_STATUS);
}

void ClearReasons() {
  std::lock_guard<std::mutex> guard(g_Lock);
  g_Reasons.clear();
  g_FailedAnswer.clear();
}

std::string FailureText(const oxCIM::CIMcontainer& c) {
  const long code = c.m_ErrCode;
  const std::string at = c.m_Host + ":" + c.m_Port;
  const std::string reason = Trim(ReasonFor(code));
  if (code == 0) return "unexpected answer from " + at;

  // A status of the answer's ERROR element; small codes are libcurl's otherwise.
  std::string answer;
  {
    std::lock_guard<std::mutex> guard(g_Lock);
    answer = g_FailedAnswer;
  }
  oxCIM::CIMelement doc;
  oxCIM::CIMelement* error =
      !answer.empty() && doc.ParseCIMXML(answer) == 0 ? doc.findelement(ElementId("ERROR"), 0)
                                                      : nullptr;
  if (error != nullptr && AttrOf(error, "CODE") == std::to_string(code))
    return CimText(code, AttrOf(error, "DESCRIPTION"));

  const std::string curl = " (curl " + std::to_string(code) + ")";
  if (code < 100) {
    if (c.m_Info & oxCIM::NO_Auth)
      return "access denied by " + at + ": user name or password refused (HTTP 401)" + curl;
    switch (code) {
      case 6:
        return "cannot resolve host " + c.m_Host + curl;
      case 7:
        return "cannot connect to " + at + curl;
      case 28:
      case 42:
        return "no answer from " + at + " in time" + curl;
      case 52:
        return at + " closed the connection without an answer" + curl;
      case 22: {
        const std::string line = Trim(ReasonBetween(10100, 10600));
        return at + " answered " + (line.empty() ? "with an HTTP error" : line) + curl;
      }
      default:
        return (reason.empty() ? std::string("transfer failed") : reason) + " (" + at + ")" + curl;
    }
  }
  if (code > 10000 && code < 11000) {
    if (reason.compare(0, 14, "CIMStatusCode:") == 0)
      return CimText(code - 10000, "") + " (" + reason + ")";
    return at + " answered " + (reason.empty() ? "HTTP " + std::to_string(code - 10000) : reason) +
           " (" + std::to_string(code) + ")";
  }
  const std::string num = " (" + std::to_string(code) + ")";
  switch (code) {
    case 5000:
      return (c.m_User.empty() || c.m_Passwd.empty() ? "no user name or password for " + at
                                                      : "access denied by " + at) +
             num;
    case 5001:
      return "no data received from " + at + num;
    case 5002:
      return "the answer from " + at + " is not well-formed CIM-XML" + num;
    case 5003:
      return "cannot resolve the address of " + c.m_Host + num;
    case 5004:
      return "cannot resolve the address of this host" + num;
    case 5005:
      return "no usable namespace list in the answer from " + at + num;
    case oxCIM::ERR_ResponseTooLarge:
      return "the answer from " + at + " is larger than the client accepts" + num;
    default:
      return (reason.empty() ? std::string("the request failed") : reason) + num;
  }
}

}  // namespace oxcli
