// liboxCIM: CIM operations over HTTP with the CIM-XML encoding, and an indication listener.
#pragma once

#include <Brix/Brix.h>

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <string>

#define OXCIM_API __attribute__((visibility("default")))

struct curl_slist;

namespace oxCIM {

// Module identity and trace mask of the library (300, "oxCIM", "P:6.6.11 F:6.6.11").
// The mask starts from the environment variable OXCIM_TRACE (hex or decimal), 0 when unset.
extern OXCIM_API Brix::Misc::CModuleInfo oxCIM;

// Vocabulary tables: the position of a name is its identifier.
extern OXCIM_API const char* const known_cim_elements[71];
extern OXCIM_API const char* const known_cim_attributes[34];
extern OXCIM_API const char* const known_cim_types[16];
extern OXCIM_API const char* const known_cim_imethods[24];

extern OXCIM_API const char* const nsCIMV2;  // "root/cimv2"

// Bit 0: libcurl verbose output; any non-zero value: extra debug traces.
extern OXCIM_API int do_cim_debug;

// Readers of the indication listener in flight; lengthens the transport's time-out.
// Shared between threads: access it with __atomic builtins.
extern OXCIM_API int ListenerThreadIsActive;

// Property names used by the subscription operations.
extern OXCIM_API const char* const PROP_NAME;                     // "Name"
extern OXCIM_API const char* const PROP_CREATIONCLASSNAME;        // "CreationClassName"
extern OXCIM_API const char* const PROP_QUERY;                    // "Query"
extern OXCIM_API const char* const PROP_QUERYLANGUAGE;            // "QueryLanguage"
extern OXCIM_API const char* const PROP_SOURCENAMESPACE;          // "SourceNamespace"
extern OXCIM_API const char* const PROP_SOURCENAMESPACES;         // "SourceNamespaces"
extern OXCIM_API const char* const PROP_DESTINATION;              // "Destination"
extern OXCIM_API const char* const PROP_PERSISTENCETYPE;          // "PersistenceType"
extern OXCIM_API const char* const PROP_PROTOCOL;                 // "Protocol"
extern OXCIM_API const char* const PROP_FILTER;                   // "Filter"
extern OXCIM_API const char* const PROP_HANDLER;                  // "Handler"
extern OXCIM_API const char* const PROP_SUBSCRIPTIONSTATE;        // "SubscriptionState"

// m_Info bits.
constexpr unsigned NO_Auth = 0x200;
constexpr unsigned NO_Connect = 0x400;

// Status of an exchange whose response passed m_MaxResponseBytes (or whose header passed
// kMaxResponseHeaderBytes): the transfer is stopped and nothing of the partial body is parsed.
constexpr int32_t ERR_ResponseTooLarge = 5006;  // 5005 is getNameSpace's "no namespace list"
// Default of m_MaxResponseBytes.
constexpr uint64_t kDefaultMaxResponseBytes = 512ULL << 20;
constexpr uint64_t kMaxResponseHeaderBytes = 1ULL << 20;
// The level-4 dump shows at most this much of each buffer, then says how much it left out.
constexpr size_t kDumpLimitBytes = 64 << 10;
// Status numbers a peer sends (ERROR CODE, CIMStatusCode, the HTTP status) are taken only in
// 1..kMaxPeerStatus, so that 10000 + n still fits; anything else is recorded as 1001.
constexpr int64_t kMaxPeerStatus = 2147483647LL - 10000;

// Trace levels.
constexpr unsigned long TRACE_ENTRY = 2;
constexpr unsigned long TRACE_STATUS = 4;
constexpr unsigned long TRACE_DETAIL = 16;
constexpr unsigned long TRACE_ERROR = 0x40000000;

class CIMelement;
class CIMindication;
class CIMcontainer;

// Growable argv/argc array of heap blocks with its own lock.
class OXCIM_API CIMarray {
 public:
  char** argv;
  long elemlen;  // >0: blocks of n bytes; -k: texts behind k-1 leading bytes; 0: untyped
  unsigned long argc;
  unsigned long maxargc;
  Brix::Threading::Native_OS::CCriticalSection m_Lock;

  CIMarray();
  CIMarray(const CIMarray& other);
  ~CIMarray();

  // Arrays and elements come from a per-thread pool: made with new, released with delete.
  static void* operator new(std::size_t size);
  static void operator delete(void* block, std::size_t size) noexcept;

  int setmaxargc(unsigned long n);  // 0 or 1001
  void FreeUnused();
  void* putargv(const void* data, long len, long grow);
  CIMarray& operator=(const CIMarray& other);
};

// One element of a CIM-XML document; a document is one list in document order.
class OXCIM_API CIMelement {
 public:
  const char* m_Name;  // known_cim_elements[id] itself; null = empty node
  CIMelement* m_Parent;
  char* m_Value;
  CIMarray* m_Attributes;
  CIMelement* m_Next;

  CIMelement();
  CIMelement(const CIMelement& other);
  ~CIMelement();

  static void* operator new(std::size_t size);
  static void operator delete(void* block, std::size_t size) noexcept;

  CIMelement* makeNextElement();
  CIMelement* getLastElement();
  CIMelement* findelement(int elemId, int index);
  int attr_get(unsigned long position, char** value);
  char* attr_find(int attrId);
  int attr_find_exact(int attrId, const char* text);
  int attr_put(int attrId, const char* text);
  CIMelement* search_elem(int elemId, const char* name);
  char* getValueOf(int elemId, const char* name);
  CIMelement* findInstanceName(const char* keyName, const char* keyValue);
  CIMelement* findProperty(const char* name);
  char* getValueOfProperty(const char* name);
  void eclean();
  CIMelement* deleteElement(bool withSubtree);
  CIMelement* redirect_chain(CIMelement** anchor, bool keepChildren);
  CIMelement& operator=(const CIMelement& source);

  int ParseCIMXML(const std::string& text);
  int GenerateCIMXML(std::string& out);
};

// Class list node: (class name, namespace) with the element lists extracted for it.
class OXCIM_API CIMclass {
 public:
  char* m_ClassName;
  char* m_NameSpace;
  CIMelement* m_InstanceNames;
  CIMelement* m_Properties;
  CIMelement* m_Methods;
  CIMclass* m_Next;

  CIMclass();
  ~CIMclass();
  CIMclass(const CIMclass&) = delete;

  void setClassName(const char* className, const char* nameSpace);
  void clsInit();
  CIMclass* makeNextClass(const char* className, const char* nameSpace);
  CIMclass* findClassName(const char* className, const char* nameSpace);
  static void kill_element(CIMelement** list);
  void clsClean();
  CIMclass& operator=(const CIMclass& other);
};

// Typed values handed in by callers; each array ends with a null name.
// The type word holds a known_cim_types identifier, plus 0x100 for an array.
struct _properties_ {
  const char* name;
  uint32_t type;
  uint64_t count;
  const void* value;  // for type 15 (reference): the reference class name
  CIMelement* reference;
};

struct _paramvalue_ {
  const char* name;
  uint32_t type;
  uint64_t count;
  const void* value;
};

// Progress record of one exchange.
struct CIMprogress {
  int64_t start;
  int64_t last;
  uint32_t fixups;
  int32_t timeout;
  const char* name;
};

// One connection to a CIM object manager.
class OXCIM_API CIMconnection {
 public:
  std::string m_Host;
  std::string m_User;
  std::string m_Passwd;
  std::string m_Protocol;
  std::string m_Port;
  std::string m_CAFile;
  std::string m_CertFile;
  std::string m_KeyFile;
  int32_t m_VerifyPeer;
  int32_t m_ErrCode;
  uint32_t m_Info;
  int32_t m_MessageID;
  int32_t m_CreationTime;
  int32_t m_ExtraTimeOut;
  boost::shared_ptr<int32_t> m_ErrCnt;
  boost::shared_ptr<Brix::Threading::Native_OS::CCriticalSection> m_SharedLock;
  int32_t m_Reserved;
  bool m_NoIPCheck;
  // Largest response body accepted, in bytes; 0 = no limit. Default kDefaultMaxResponseBytes.
  uint64_t m_MaxResponseBytes;
  std::string m_Request;
  std::string m_Header;
  std::string m_Response;
  CIMelement m_ResponseTree;
  std::string m_LocalIP;
  std::string m_ServerIP;
  std::string m_FQDN;
  std::string m_OSName;
  // ModifyInstance layout: false (default) writes the VALUE.NAMEDINSTANCE directly in
  // IMETHODCALL with an InstanceName IPARAMVALUE inside; true writes DSP0200's
  // IPARAMVALUE NAME="ModifiedInstance" holding VALUE.NAMEDINSTANCE (INSTANCENAME, INSTANCE),
  // which servers that drop the connection on the default layout accept.
  bool m_StandardModifyInstance = false;
  void* m_Curl;  // CURL*
  curl_slist* m_HeaderList;
  Brix::Threading::Native_OS::CCriticalSection m_Lock;

  static int32_t m_MaxESXIConnectionAttempts;

  CIMconnection();
  CIMconnection(const CIMconnection&) = delete;
  virtual ~CIMconnection();
  CIMconnection& operator=(const CIMconnection& other);

  void setOSName(const std::string& name);
  void SetExtraTimeOut(int seconds);
  int initCurlHandle();
  void releaseCurlHandle();
  void duplicateCurlHandle(void* handle);

  int sendRequest_recvResponse(const char* method, char* object);
  static int checkProgress(void* record, double dltotal, double dlnow, double ultotal,
                           double ulnow);

  int SetCimStatus_FL(int code, const char* description, const char* file, int line);
  int ChkCimStatus();
  void Debug_Request_Response();
  void cleanXMLbuffer();

  void setIPAddress(const std::string& host, std::string& address, std::string* fqdn);
};

// The operations object: a connection that knows its current class.
class OXCIM_API CIMcontainer : public CIMconnection {
 public:
  CIMclass m_Classes;
  CIMclass* m_pcls;
  CIMindication* m_Listener;
  const char* m_CurrentMethod;

  CIMcontainer();
  CIMcontainer(const CIMcontainer&) = delete;
  ~CIMcontainer() override;
  CIMcontainer& operator=(const CIMcontainer& other);

  CIMclass* setCurrentClass(const char* className, const char* nameSpace);
  void free_all();

  // Request writer.
  void beginElement(int element, const char* tail);
  void endElement(int element);
  void addValue(const char* text);
  void addAttribute(int attribute, const char* value, const char* tail);
  void addOptionalParameter(int which, int flag);
  void addOptionalPropertyList(CIMarray* list);
  void addCIMXMLheader();
  void addClassNameParam(int required);
  void addInstanceNameParam(CIMelement* instanceName);
  void addLocalNameSpacePath();
  void beginIntrinsicMethod(int method);

  unsigned performIntrinsicMethod();

  // Extractors: move parts of m_ResponseTree onto m_pcls.
  unsigned long ExtractClassDefinition();
  unsigned long ExtractInstanceNames(CIMelement* from);
  unsigned long ExtractInstance(CIMelement* from);
  unsigned long ExtractNamedInstances();

  // Intrinsic operations. Flags: 1 = true, 0 = false, -1 = left out.
  unsigned long Imethod_GetClass(int localOnly, int includeQualifiers, int includeClassOrigin,
                                 CIMarray* propertyList);
  unsigned long Imethod_GetInstance(CIMelement* instanceName, int includeClassOrigin,
                                    CIMarray* propertyList);
  unsigned long Imethod_DeleteClass();
  unsigned long Imethod_DeleteInstance(CIMelement* instanceName);
  unsigned long Imethod_CreateClass(CIMelement& newClass);
  unsigned long Imethod_CreateInstance(_properties_* props);
  unsigned long Imethod_ModifyClass(CIMelement& modifiedClass);
  unsigned long Imethod_ModifyInstance(CIMelement* instanceName, CIMelement& modifiedInstance,
                                       CIMarray* propertyList);
  unsigned long Imethod_EnumerateClasses(int localOnly, int includeQualifiers,
                                         int includeClassOrigin, int deepInheritance);
  unsigned long Imethod_EnumerateClassNames(int deepInheritance);
  unsigned long Imethod_EnumerateInstances(int localOnly, int includeQualifiers,
                                           int includeClassOrigin, int deepInheritance,
                                           CIMarray* propertyList);
  unsigned long Imethod_EnumerateInstanceNames();
  unsigned long Imethod_ExecQuery(const char* queryLanguage, const char* target);
  unsigned long Imethod_Associators();
  unsigned long Imethod_AssociatorNames();
  unsigned long Imethod_References();
  unsigned long Imethod_ReferenceNames();
  unsigned long Imethod_GetProperty(CIMelement* instanceName, const char* propertyName);
  unsigned long Imethod_SetProperty(CIMelement* instanceName, const char* propertyName,
                                    const char* newValue);
  unsigned long Imethod_GetQualifier();
  unsigned long Imethod_SetQualifier();
  unsigned long Imethod_DeleteQualifier();
  unsigned long Imethod_EnumerateQualifiers();

  unsigned long getNameSpace(CIMarray& names);

  // --- Extrinsic methods, the storage-device tree, indication subscriptions -------------
  // (Src/CIMindication.cpp)

  // Invokes methodName on the instance named by instanceName (an INSTANCENAME tree, sent in
  // the namespace of m_pcls) or, when it is null, on the class m_pcls. params: ended by a
  // null name, may be null; each entry becomes a PARAMVALUE with PARAMTYPE and a VALUE (or
  // VALUE.ARRAY) formatted by ValueToString; type 15 (reference) takes a CIMelement*
  // instance name as its value (an array: a CIMelement* const* of count entries) and is
  // written as VALUE.REFERENCE. A type above 15 or a missing target fails with 1001 and
  // sends nothing. Retried once like the intrinsic methods. Returns 0 or the status code;
  // the answer stays in m_ResponseTree until the next exchange.
  unsigned long performExtrinsicMethod(const char* methodName, CIMelement* instanceName,
                                       _paramvalue_* params);
  // Text of the RETURNVALUE of the last method call, or null.
  const char* getReturnValue();
  // The PARAMVALUE element named `name` of the last method response, or null. Its subtree
  // holds the VALUE, VALUE.ARRAY, VALUE.REFERENCE (with its INSTANCENAME, which can be
  // passed on to other operations) or embedded INSTANCE; it lives in m_ResponseTree.
  CIMelement* getOutParameter(const char* name);
  // Moves that PARAMVALUE out of m_ResponseTree: the caller owns the returned tree
  // (delete it) and can pass its INSTANCENAME or INSTANCE on to later operations.
  CIMelement* takeOutParameter(const char* name);
  // The text of a scalar output parameter (its first VALUE), or null.
  const char* getOutParameterValue(const char* name);

  // The prepared "GetStorageDeviceTree" call on the storage system named by storageSystem
  // (an INSTANCENAME tree) or, when it is null, on the class m_pcls. On success the
  // devices of the answer are moved onto m_pcls: every INSTANCE (also those embedded as
  // text in a VALUE) into m_pcls->m_Properties, every INSTANCENAME into
  // m_pcls->m_InstanceNames, in document order. Returns 0 or the status code; 5005 when
  // the call succeeded but the answer held no device.
  unsigned long get_sdt_from_core(CIMelement* storageSystem, _paramvalue_* params);

  // Starts this container's listener (m_Listener, owned by the container) on `port` with
  // `callback` (the port must be free), then creates in "root/interop" an indication
  // filter (query, language, source namespace), a CIM-XML listener destination
  // http://<m_LocalIP>:<port> and a subscription joining them; the listener runs first so
  // that no early indication is lost. language null or empty: "WQL"; sourceNamespace null
  // or empty: the namespace of m_pcls, else "root/cimv2". Returns 0 or the first error; on
  // failure whatever was created is deleted again and the listener stopped. m_pcls is
  // left as it was.
  unsigned long subscribe(const char* query, const char* language, const char* sourceNamespace,
                          int port, int (*callback)(std::string&));
  // 0 when the three instances still exist and the listener runs; otherwise re-creates
  // what is missing (traced) and returns the result of that.
  unsigned long subscribe_check();
  // Deletes the subscription, destination and filter subscribe created, then stops and
  // frees the listener. Returns 0 or the first error (everything is tried).
  unsigned long unsubscribe();
  // Deletes every subscription on the server whose destination points at m_LocalIP, with
  // its destination and filter: the clean-up after a client that died. Returns 0 or the
  // first error.
  unsigned long unsubscribe_all();

  // What subscribe created (instance-name trees owned here) and needs to re-create it.
  // Its destructor stops and frees the listener subscribe started.
  struct OXCIM_API Subscription {
    std::string query, language, sourceNamespace;
    int32_t port = 0;
    int (*callback)(std::string&) = nullptr;
    CIMelement* filter = nullptr;
    CIMelement* destination = nullptr;
    CIMelement* subscription = nullptr;
    CIMindication* listener = nullptr;  // also in m_Listener while running
    Subscription() = default;
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;
    ~Subscription();
    void clear();  // frees the names and the listener
  };
  Subscription m_Subscription;
};

// Formats values[index] of the given type into out (replaced); returns out's new length.
OXCIM_API size_t ValueToString(const void* values, size_t index, int type, std::string& out);

// The HTTP listener that receives exported indications.
class OXCIM_API CIMindication {
 public:
  int (*pCallBack)(std::string&);
  int32_t m_Port;
  int32_t m_ListenSocket;
  int64_t m_ThreadStatus;

  CIMindication();
  CIMindication(const CIMindication&) = delete;
  CIMindication& operator=(const CIMindication&) = delete;

  int start_Listener();
  void stop_Listener();
  bool check_Listener();
  static void* listenerThread(void* owner);
  static void* readerThread(void* args);
};

struct ReaderArgs {
  int32_t socket;
  CIMindication* owner;
};

}  // namespace oxCIM
