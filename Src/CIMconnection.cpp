// CIMconnection: settings, the libcurl handle's lifecycle, copying, and the CIM status.
#include "oxInternal.h"

#include <curl/curl.h>

#include <boost/format.hpp>
#include <boost/make_shared.hpp>
#include <cstring>
#include <ctime>
#include <locale>
#include <mutex>

namespace oxCIM {

namespace {

using Brix::Threading::CSyncGuard;
using Brix::Threading::Native_OS::CCriticalSection;

// curl_easy_init would initialise libcurl on its own, but not safely from two threads at once.
void EnsureCurlGlobalInit() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_ALL); });
}

inline CURL* AsCurl(void* p) { return static_cast<CURL*>(p); }

// std::ctype<char>::narrow fills a per-character cache on first use, unsynchronised, and
// Boost.Format calls it from every thread that formats. Filled once at load, it is only
// read afterwards.
const bool g_NarrowCacheFilled = [] {
  const auto& ctype = std::use_facet<std::ctype<char>>(std::locale());
  for (int c = 0; c < 256; ++c) ctype.narrow(static_cast<char>(c), 0);
  return true;
}();

}  // namespace

int32_t CIMconnection::m_MaxESXIConnectionAttempts = 5;

CIMconnection::CIMconnection()
    : m_VerifyPeer(0),
      m_ErrCode(0),
      m_Info(0),
      m_MessageID(1000),
      m_CreationTime(static_cast<int32_t>(time(nullptr))),
      m_ExtraTimeOut(0),
      m_ErrCnt(boost::make_shared<int32_t>(0)),
      m_SharedLock(boost::make_shared<CCriticalSection>()),
      m_Reserved(0),
      m_NoIPCheck(false),
      m_MaxResponseBytes(kDefaultMaxResponseBytes),
      m_Curl(nullptr),
      m_HeaderList(nullptr) {
  m_SharedLock->Init(1000);
  m_Lock.Init(1000);
}

CIMconnection::~CIMconnection() { releaseCurlHandle(); }

void CIMconnection::setOSName(const std::string& name) { m_OSName = name; }

void CIMconnection::SetExtraTimeOut(int seconds) { m_ExtraTimeOut = seconds; }

int CIMconnection::initCurlHandle() try {
  m_ErrCode = 0;
  if (!m_NoIPCheck) {
    if (m_LocalIP.empty()) {
      SetCimStatus(5004, "initCurlHandle: bad local-IP-Address");
      return m_ErrCode;
    }
    if (m_ServerIP.empty()) {
      SetCimStatus(5003, "initCurlHandle: bad server-IP-Address");
      return m_ErrCode;
    }
  }
  if (m_HeaderList != nullptr) {
    curl_slist_free_all(m_HeaderList);
    m_HeaderList = nullptr;
  }
  if (m_Curl != nullptr) return m_ErrCode;

  OX_TRACE(TRACE_DETAIL, "[%s]       initCurlHandle: CURL_EASY_INIT done", m_Host);
  EnsureCurlGlobalInit();
  CURL* curl = curl_easy_init();
  if (curl == nullptr) {
    SetCimStatus(CURLE_FAILED_INIT, nullptr);
    return m_ErrCode;
  }
  m_Curl = curl;

  // Each option failure is recorded (the first one wins) but the rest are still applied.
  CURLcode rc;
  unsigned ssl = 0;
  if (!m_CertFile.empty()) {
    curl_easy_setopt(curl, CURLOPT_SSLCERTTYPE, "PEM");
    if ((rc = curl_easy_setopt(curl, CURLOPT_SSLCERT, m_CertFile.c_str())) != CURLE_OK)
      SetCimStatus(rc, nullptr);
    ssl = 1;
  }
  if (!m_KeyFile.empty()) {
    curl_easy_setopt(curl, CURLOPT_SSLKEYTYPE, "PEM");
    if ((rc = curl_easy_setopt(curl, CURLOPT_SSLKEY, m_KeyFile.c_str())) != CURLE_OK)
      SetCimStatus(rc, nullptr);
    ssl = 2;
  }
  if (!m_CAFile.empty()) {
    if ((rc = curl_easy_setopt(curl, CURLOPT_CAINFO, m_CAFile.c_str())) != CURLE_OK)
      SetCimStatus(rc, nullptr);
    ssl = 4;
  }
  if ((rc = curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, m_VerifyPeer != 0 ? 1L : 0L)) !=
      CURLE_OK)
    SetCimStatus(rc, nullptr);
  if ((rc = curl_easy_setopt(curl, CURLOPT_FORBID_REUSE, 1L)) != CURLE_OK)
    SetCimStatus(rc, nullptr);
  if ((rc = curl_easy_setopt(curl, CURLOPT_FRESH_CONNECT, 1L)) != CURLE_OK)
    SetCimStatus(rc, nullptr);

  OX_TRACE(TRACE_DETAIL, "[%s]       initCurlHandle: SSL=0x%x", m_Host, ssl);
  return m_ErrCode;
}
OX_CATCH_RETURN(m_ErrCode)

void CIMconnection::releaseCurlHandle() {
  if (m_HeaderList != nullptr) {
    curl_slist_free_all(m_HeaderList);
    m_HeaderList = nullptr;
  }
  if (m_Curl != nullptr) {
    OX_TRACE(TRACE_DETAIL, "[%s] releaseCurlHandle: CURL_EASY_CLEANUP (m_ErrCode=%d m_Info=0x%x)",
             m_Host, m_ErrCode, m_Info);
    curl_easy_cleanup(AsCurl(m_Curl));
    m_Curl = nullptr;
  }
  cleanXMLbuffer();
}

void CIMconnection::duplicateCurlHandle(void* handle) {
  CURL* old = AsCurl(m_Curl);
  m_Curl = nullptr;
  if (handle != nullptr) {
    m_Curl = curl_easy_duphandle(AsCurl(handle));
    if (m_Curl != nullptr)
      OX_TRACE(TRACE_STATUS, "[%s] duplicateCurlHandle: CURLhandle duplicated", m_Host);
  }
  // Cleaned up after duplicating, so duplicating our own handle stays valid.
  if (old != nullptr) curl_easy_cleanup(old);
}

CIMconnection& CIMconnection::operator=(const CIMconnection& other) try {
  if (this == &other) return *this;
  releaseCurlHandle();
  {
    // Keep other's lock alive through the guard even when it is the last reference we drop.
    boost::shared_ptr<CCriticalSection> lock = other.m_SharedLock;
    CSyncGuard guard(*lock);
    m_ErrCnt = other.m_ErrCnt;
    m_SharedLock = other.m_SharedLock;
  }
  m_VerifyPeer = other.m_VerifyPeer;
  m_ErrCode = other.m_ErrCode;
  m_Info = other.m_Info;
  m_MessageID = other.m_MessageID;
  m_CreationTime = other.m_CreationTime;
  m_ExtraTimeOut = other.m_ExtraTimeOut;
  m_Reserved = other.m_Reserved;
  m_NoIPCheck = other.m_NoIPCheck;
  m_MaxResponseBytes = other.m_MaxResponseBytes;
  m_StandardModifyInstance = other.m_StandardModifyInstance;

  m_Host = other.m_Host;
  m_User = other.m_User;
  m_Passwd = other.m_Passwd;
  m_Protocol = other.m_Protocol;
  m_Port = other.m_Port;
  m_CAFile = other.m_CAFile;
  m_CertFile = other.m_CertFile;
  m_KeyFile = other.m_KeyFile;
  m_OSName = other.m_OSName;
  m_ServerIP = other.m_ServerIP;
  m_FQDN = other.m_FQDN;
  m_LocalIP = other.m_LocalIP;

  if (other.m_Curl != nullptr) duplicateCurlHandle(other.m_Curl);

  for (const curl_slist* item = other.m_HeaderList; item != nullptr; item = item->next) {
    curl_slist* grown = curl_slist_append(m_HeaderList, item->data);
    if (grown == nullptr) break;
    m_HeaderList = grown;
  }

  m_Request = other.m_Request;
  m_Header = other.m_Header;
  m_Response = other.m_Response;
  m_ResponseTree = other.m_ResponseTree;
  return *this;
}
OX_CATCH_RETURN(*this)

int CIMconnection::SetCimStatus_FL(int code, const char* description, const char* file,
                                   int line) {
  if (m_ErrCode == 0 && code != 0) {
    m_ErrCode = code;
    Debug_Request_Response();
  }
  if (oxCIM.IsTraced(TRACE_STATUS)) {
    try {
      std::string curlText;
      if (description == nullptr) {
        // libcurl's text is read-only: clean a copy of it.
        curlText = curl_easy_strerror(static_cast<CURLcode>(code));
        for (char& c : curlText)
          if (static_cast<signed char>(c) < 32) c = ' ';
        description = curlText.c_str();
      }
      const char* base = file != nullptr ? file : "";
      if (const char* p = std::strrchr(base, '\\')) base = p + 1;
      if (const char* p = std::strrchr(base, '/')) base = p + 1;
      OX_TRACE_FN(TRACE_STATUS, "SetCimStatus_FL", "[%s] SetCimStatus: %s@%d  ErrCode:%d %s",
                  m_Host, base, line, code, description);
    } catch (...) {
      // The status is recorded; only its trace is lost.
    }
  }
  return m_ErrCode;
}

int CIMconnection::ChkCimStatus() { return m_ErrCode; }

namespace {
// A buffer as the dump shows it: whole when small, else its head and how much was left out.
std::string DumpPart(const std::string& buffer) {
  if (buffer.size() <= kDumpLimitBytes) return buffer;
  return (boost::format("%s\n[... %u more bytes not shown]\n") %
          buffer.substr(0, kDumpLimitBytes) % (buffer.size() - kDumpLimitBytes))
      .str();
}
}  // namespace

void CIMconnection::Debug_Request_Response() {
  if (!oxCIM.IsTraced(TRACE_STATUS)) return;
  try {
    OX_TRACE(TRACE_STATUS,
             "[%s] ------ REQUEST:\n%s------ RESPONSE-HEADER:\n%s------ RESPONSE:\n%s", m_Host,
             DumpPart(m_Request), DumpPart(m_Header), DumpPart(m_Response));
  } catch (...) {
    // A dump that cannot be built is skipped; the status it accompanies stands.
  }
}

void RecordException(CIMconnection& c, const char* function) noexcept {
  try {
    const std::string text = std::string(function) + ": Exception raised: " +
                             CurrentExceptionText();
    c.SetCimStatus(1001, text.c_str());
  } catch (...) {
    if (c.m_ErrCode == 0) c.m_ErrCode = 1001;
  }
}

void CIMconnection::cleanXMLbuffer() {
  m_Request.clear();
  m_Header.clear();
  m_Response.clear();
  m_ResponseTree.eclean();
}

}  // namespace oxCIM
