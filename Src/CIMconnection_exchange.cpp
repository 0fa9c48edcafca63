// One CIM operation over HTTP(S): post m_Request to /cimom, collect and analyse the answer.
#include "oxInternal.h"

#include <curl/curl.h>

#include <boost/format.hpp>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <string>

namespace oxCIM {

namespace {

class PreviousTree;

// Where the body and header callbacks append, and how much each may take. Nothing may
// unwind through libcurl's C frames, so a failed append (length or allocation) aborts the
// transfer instead, and so does passing the limit.
struct Sink {
  std::string* text;
  uint64_t limit;  // 0 = none
  bool tooLarge;
  // Body only: the answer is read while it arrives (a piece is read only once it passed
  // the limit), and the previous tree is freed right before the reading starts.
  codec::BodyReader* reader;
  PreviousTree* previous;
};

void StartReading(Sink* sink);

size_t appendToSink(char* data, size_t size, size_t count, void* userdata) {
  const size_t n = size * count;
  if (n == 0) return 0;
  Sink* sink = static_cast<Sink*>(userdata);
  if (sink->limit != 0 && (n > sink->limit || sink->text->size() > sink->limit - n)) {
    sink->tooLarge = true;
    return 0;
  }
  try {
    sink->text->append(data, n);
  } catch (const std::exception&) {
    return 0;
  }
  if (sink->reader != nullptr) {
    if (sink->previous != nullptr) StartReading(sink);
    sink->reader->Feed(*sink->text);
  }
  return n;
}

size_t bodyCallback(char* data, size_t size, size_t count, void* userdata) {
  return appendToSink(data, size, count, userdata);
}

size_t headerCallback(char* data, size_t size, size_t count, void* userdata) {
  return appendToSink(data, size, count, userdata);
}

// Reads a decimal number as atoi/strtol do (blanks, sign, digits), but saturates instead of
// overflowing: a peer's absurd number must end up out of range, never wrapped into it.
int64_t ReadPeerNumber(const char* p) {
  while (*p == ' ' || (*p >= '\t' && *p <= '\r')) ++p;
  const bool negative = *p == '-';
  if (*p == '-' || *p == '+') ++p;
  int64_t n = 0;
  for (; *p >= '0' && *p <= '9'; ++p)
    if (n <= kMaxPeerStatus) n = n * 10 + (*p - '0');
  return negative ? -n : n;
}

bool InPeerRange(int64_t n) { return n >= 1 && n <= kMaxPeerStatus; }

const char* const kFixedHeaders[] = {
    "Content-type: application/xml; charset=\"utf-8\"",
    "Expect:",
    "CIMOperation: MethodCall",
    nullptr,
};

// Takes over the whole list of a root element (the root's own data and every node after
// it) and frees it on release() or at scope exit, whichever comes first. The nodes'
// parent pointers are not used by the freeing walk, so they need no fixing.
class PreviousTree {
 public:
  explicit PreviousTree(CIMelement& root) {
    m_Held.m_Name = root.m_Name;
    m_Held.m_Value = root.m_Value;
    m_Held.m_Attributes = root.m_Attributes;
    m_Held.m_Next = root.m_Next;
    root.m_Name = nullptr;
    root.m_Parent = nullptr;
    root.m_Value = nullptr;
    root.m_Attributes = nullptr;
    root.m_Next = nullptr;
  }
  PreviousTree(const PreviousTree&) = delete;
  PreviousTree& operator=(const PreviousTree&) = delete;
  void release() { m_Held.eclean(); }

 private:
  CIMelement m_Held;  // its destructor frees whatever release() did not
};

void StartReading(Sink* sink) {
  sink->previous->release();
  sink->previous = nullptr;
}

bool isNoConnectResult(long result) {
  return result == CURLE_COULDNT_CONNECT || result == CURLE_OPERATION_TIMEDOUT ||
         result == CURLE_ABORTED_BY_CALLBACK || result == CURLE_GOT_NOTHING;
}

}  // namespace

int CIMconnection::checkProgress(void* record, double dltotal, double dlnow, double /*ultotal*/,
                                 double /*ulnow*/) {
  CIMprogress* p = static_cast<CIMprogress*>(record);
  const int64_t now = static_cast<int64_t>(std::time(nullptr));
  const char* name = p->name ? p->name : "";

  if (dlnow != 0 && dlnow == dltotal) return 0;

  // First call, or the clock jumped: (re)start the period, a bounded number of times.
  if (p->start == 0 || now < p->last || now - p->last >= 11) {
    ++p->fixups;
    if (p->fixups < 6) {
      p->start = p->last = now;
      return 0;
    }
    OX_TRACE(TRACE_ENTRY, "[%s] Leave checkProgress() too many fixups occurred -> fail", name);
    return 1;
  }
  if (now - p->start < p->timeout) {
    p->last = now;
    return 0;
  }
  OX_TRACE(TRACE_ENTRY, "[%s] Leave checkProgress() now-start=%d >= %d (timeout: fail)", name,
           now - p->start, p->timeout);
  return 1;
}

int CIMconnection::sendRequest_recvResponse(const char* method, char* object) try {
  OX_TRACE(TRACE_ENTRY, "[%s]    Enter sendRequest_recvResponse()", m_Host);

  m_ErrCode = 0;
  m_Header.clear();
  m_Response.clear();
  // The previous tree leaves m_ResponseTree now but is freed only right before the new
  // body is read (its first piece, or after the transfer when nothing came): freed
  // earlier, its hundreds of thousands of small blocks sit in malloc's fast bins while
  // the transfer's large allocations force glibc to coalesce them all, and the read then
  // carves them up again. Nothing can observe the tree in between.
  PreviousTree previous(m_ResponseTree);

  if (m_User.empty() || m_Passwd.empty() || m_Port.empty()) {
    m_Info = (m_Info | NO_Auth) & ~NO_Connect;
    SetCimStatus(5000, "sendRequest_recvResponse: m_User, m_Passwd or m_Port not found");
    return m_ErrCode;
  }

  if (m_Curl == nullptr && initCurlHandle() != 0) {
    SetCimStatus(1001, "sendRequest_recvResponse: curl interface is not initialized.");
    return m_ErrCode;
  }
  CURL* curl = static_cast<CURL*>(m_Curl);

  const std::string url = (boost::format("%s://%s:%s/cimom") % m_Protocol % m_Host % m_Port).str();

  // These must outlive curl_easy_perform only; the next call installs fresh ones.
  CIMprogress progress{};
  codec::BodyReader reader(&m_ResponseTree);
  Sink body{&m_Response, m_MaxResponseBytes, false, &reader, &previous};
  Sink header{&m_Header, kMaxResponseHeaderBytes, false, nullptr, nullptr};

#define OX_SETOPT(option, value)                           \
  do {                                                     \
    const CURLcode rc_ = curl_easy_setopt(curl, option, value); \
    if (rc_ != CURLE_OK) {                                 \
      SetCimStatus(static_cast<int>(rc_), nullptr);        \
      return m_ErrCode;                                    \
    }                                                      \
  } while (0)

  OX_SETOPT(CURLOPT_URL, url.c_str());
  OX_SETOPT(CURLOPT_NOPROGRESS, 0L);
  OX_SETOPT(CURLOPT_POST, 1L);
  OX_SETOPT(CURLOPT_SSL_VERIFYHOST, 0L);
  OX_SETOPT(CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC));
  OX_SETOPT(CURLOPT_USERNAME, m_User.c_str());
  OX_SETOPT(CURLOPT_PASSWORD, m_Passwd.c_str());

  progress.start = 0;
  progress.last = 0;
  progress.fixups = 0;
  progress.name = m_Host.c_str();
  const bool listening = __atomic_load_n(&ListenerThreadIsActive, __ATOMIC_RELAXED) != 0;
  progress.timeout = m_ExtraTimeOut + (listening ? 36 : 18);
  if (progress.timeout <= 4) progress.timeout = 5;
  m_ExtraTimeOut = 0;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  OX_SETOPT(CURLOPT_PROGRESSDATA, static_cast<void*>(&progress));
  OX_SETOPT(CURLOPT_CONNECTTIMEOUT, static_cast<long>(progress.timeout));
  OX_SETOPT(CURLOPT_PROGRESSFUNCTION, &CIMconnection::checkProgress);
#pragma GCC diagnostic pop
  OX_SETOPT(CURLOPT_NOSIGNAL, 1L);

  if (m_HeaderList != nullptr) {
    curl_slist_free_all(m_HeaderList);
    m_HeaderList = nullptr;
  }
  // curl_slist_append leaves the old list alone when it fails, so keep it owned here.
  auto append = [this](const std::string& line) {
    curl_slist* grown = curl_slist_append(m_HeaderList, line.c_str());
    if (grown == nullptr) return false;
    m_HeaderList = grown;
    return true;
  };
  const std::string obj = object ? object : "";
  const size_t slash = obj.find('/');
  std::string objectHeader = (boost::format("CIMObject: %s") % obj.substr(0, slash)).str();
  if (slash != std::string::npos && slash + 1 < obj.size())
    objectHeader += (boost::format("%%2F%s") % obj.substr(slash + 1)).str();
  bool listOk = true;
  for (const char* const* h = kFixedHeaders; *h && listOk; ++h) listOk = append(*h);
  listOk = listOk && append(std::string("CIMMethod: ") + (method ? method : ""));
  listOk = listOk && append(objectHeader);
  if (!listOk) {
    SetCimStatus(0, nullptr);
    return m_ErrCode;
  }

  OX_SETOPT(CURLOPT_HTTPHEADER, m_HeaderList);
  OX_SETOPT(CURLOPT_WRITEFUNCTION, &bodyCallback);
  OX_SETOPT(CURLOPT_WRITEDATA, static_cast<void*>(&body));
  OX_SETOPT(CURLOPT_HEADERFUNCTION, &headerCallback);
  OX_SETOPT(CURLOPT_HEADERDATA, static_cast<void*>(&header));
  OX_SETOPT(CURLOPT_FAILONERROR, 1L);
  curl_easy_setopt(curl, CURLOPT_VERBOSE, static_cast<long>(do_cim_debug & 1));
  OX_SETOPT(CURLOPT_POSTFIELDS, m_Request.c_str());
  OX_SETOPT(CURLOPT_POSTFIELDSIZE, static_cast<long>(m_Request.size()));
#undef OX_SETOPT

  OX_TRACE(TRACE_DETAIL, "[%s]       Before curl_easy_perform()", m_Host);
  const std::time_t before = std::time(nullptr);
  const CURLcode result = curl ? curl_easy_perform(curl) : CURLE_COULDNT_CONNECT;
  const std::time_t after = std::time(nullptr);
  OX_TRACE(TRACE_DETAIL, "[%s] curl_easy_perform took %d sec, err_cnt == %d", m_Host,
           static_cast<int64_t>(std::difftime(after, before)), m_ErrCnt ? *m_ErrCnt : 0);
  OX_TRACE(TRACE_DETAIL, "[%s]       After curl_easy_perform() ret=%d", m_Host,
           static_cast<int>(result));

  m_Info &= ~(NO_Auth | NO_Connect);

  const bool tooLarge = body.tooLarge || header.tooLarge;
  if (result != CURLE_OK) {
    if (tooLarge) {
      // Recorded before libcurl's write error so that the cause wins.
      const std::string why =
          body.tooLarge
              ? (boost::format("sendRequest_recvResponse: response body larger than %u bytes "
                               "(m_MaxResponseBytes), transfer stopped") %
                 m_MaxResponseBytes)
                    .str()
              : (boost::format("sendRequest_recvResponse: response header larger than %u "
                               "bytes, transfer stopped") %
                 kMaxResponseHeaderBytes)
                    .str();
      SetCimStatus(ERR_ResponseTooLarge, why.c_str());
    }
    SetCimStatus(static_cast<int>(result), nullptr);
    long httpCode = -1;
    if (curl) curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &httpCode);
    if (httpCode == 401) {
      m_Info |= NO_Auth;
      SetCimStatus(5000, "Invalid username/password");
    } else if (isNoConnectResult(result)) {
      m_Info |= NO_Connect;
      OX_TRACE(TRACE_STATUS, "[%s] m_Info = 0x%x (NO_Connect)", m_Host, m_Info);
    }
  }

  previous.release();
  // The first ERROR element in list order: the parser notes it while building, which
  // spares a walk over a list that may hold millions of nodes. Without a parse the tree
  // is empty.
  CIMelement* error = nullptr;
  if (tooLarge) {
    // Nothing of a cut answer is parsed; neither is it kept, it may be huge. What was
    // read of it while it arrived goes too.
    reader.GiveUp();
    std::string().swap(m_Response);
  } else if (!m_Response.empty() || result == CURLE_GOT_NOTHING) {
    if (reader.Finish(m_Response, &error) != 0) SetCimStatus(5002, "Can't parse the m_Response");
  } else {
    SetCimStatus(5001, "No data received from server");
  }

  // The ERROR element is read by attribute position: CODE first, DESCRIPTION second.
  if (CIMelement* e = error) {
    char* text = nullptr;
    int code = 1001;
    if (e->attr_get(0, &text) == A_CODE) {
      const int64_t n = ReadPeerNumber(text);
      if (InPeerRange(n)) code = static_cast<int>(n);
    }
    char* desc = nullptr;
    const char* description = e->attr_get(1, &desc) == A_DESCRIPTION
                                  ? desc
                                  : "No Description found in m_Response";
    SetCimStatus(code, description);
  }

  const size_t statusPos = m_Header.find("HTTP/1.");
  if (statusPos != std::string::npos) {
    const char* line = m_Header.c_str() + statusPos;
    const char* p = line + 7;
    while (static_cast<signed char>(*p) > ' ') ++p;
    while (*p >= 1 && *p <= ' ') ++p;
    const int64_t status = ReadPeerNumber(p);
    if (status != 200) {
      const char* end = line;
      while (static_cast<signed char>(*end) >= 32) ++end;
      const std::string statusLine(line, end);
      if (status == 401) m_Info = (m_Info | NO_Auth) & ~NO_Connect;
      SetCimStatus(InPeerRange(status) ? static_cast<int>(10000 + status) : 1001,
                   statusLine.c_str());
    }
  }

  const size_t cimStatusPos = m_Header.find("CIMStatusCode:");
  if (cimStatusPos != std::string::npos) {
    const int64_t n = ReadPeerNumber(m_Header.c_str() + cimStatusPos + 14);
    if (n != 0) {
      const size_t eol = m_Header.find_first_of("\r\n", cimStatusPos);
      const std::string text = m_Header.substr(cimStatusPos, eol == std::string::npos
                                                                 ? std::string::npos
                                                                 : eol - cimStatusPos);
      SetCimStatus(InPeerRange(n) ? static_cast<int>(10000 + n) : 1001, text.c_str());
    }
  }

  OX_TRACE(TRACE_ENTRY, "[%s]    Leave sendRequest_recvResponse() m_ErrCode=%d", m_Host,
           m_ErrCode);
  return m_ErrCode;
}
OX_CATCH_RETURN(m_ErrCode)

}  // namespace oxCIM
