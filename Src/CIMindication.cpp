// CIMcontainer: extrinsic methods, the storage-device-tree query and indication
// subscriptions.
#include "oxInternal.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/format.hpp>

#include <cctype>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <set>
#include <unordered_map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace oxCIM {

const char* const PROP_NAME = "Name";
const char* const PROP_CREATIONCLASSNAME = "CreationClassName";
const char* const PROP_QUERY = "Query";
const char* const PROP_QUERYLANGUAGE = "QueryLanguage";
const char* const PROP_SOURCENAMESPACE = "SourceNamespace";
const char* const PROP_SOURCENAMESPACES = "SourceNamespaces";
const char* const PROP_DESTINATION = "Destination";
const char* const PROP_PERSISTENCETYPE = "PersistenceType";
const char* const PROP_PROTOCOL = "Protocol";
const char* const PROP_FILTER = "Filter";
const char* const PROP_HANDLER = "Handler";
const char* const PROP_SUBSCRIPTIONSTATE = "SubscriptionState";

namespace {

const char* const kInterop = "root/interop";
const char* const kFilterClass = "CIM_IndicationFilter";
const char* const kDestinationClass = "CIM_ListenerDestinationCIMXML";
const char* const kOldDestinationClass = "CIM_IndicationHandlerCIMXML";
const char* const kSubscriptionClass = "CIM_IndicationSubscription";

// DSP0200 status codes the subscription code reacts to.
constexpr int kErrInvalidParameter = 4;
constexpr int kErrInvalidClass = 5;
constexpr int kErrNotFound = 6;
constexpr int kErrNotSupported = 7;
constexpr int kErrAlreadyExists = 11;
constexpr int kErrNoSuchProperty = 12;

void Fail(CIMcontainer& c, const char* func, int line, const char* text) {
  c.cleanXMLbuffer();
  c.m_ErrCode = 1001;
  if (::oxCIM::oxCIM.IsTraced(TRACE_STATUS)) {
    Brix::Internals::CTraceStreamBuffer tb(TRACE_STATUS, ::oxCIM::oxCIM, __FILE__, func, line);
    trace_detail::OxFormat(tb, "[%s] %s", c.m_Host, text);
  }
}
#define FAIL(c, text) Fail((c), __func__, __LINE__, (text))

// Subtree bounds by ancestry: getLastElement compares only parent and grandparent, which
// runs past the end for elements nested deeper in an answer.
bool Within(const CIMelement* n, const CIMelement* root) {
  for (const CIMelement* p = n->m_Parent; p; p = p->m_Parent)
    if (p == root) return true;
  return false;
}

CIMelement* LastOf(CIMelement* root) {
  CIMelement* last = root;
  while (last->m_Next && Within(last->m_Next, root)) last = last->m_Next;
  return last;
}

// Node after the subtree of e.
CIMelement* After(CIMelement* e) { return LastOf(e)->m_Next; }

// Unlinks the subtree of e, whose predecessor in its list is prev; e keeps its children.
void Unlink(CIMelement* prev, CIMelement* e) {
  CIMelement* last = LastOf(e);
  prev->m_Next = last->m_Next;
  last->m_Next = nullptr;
  e->m_Parent = nullptr;
}

// First element of a kind inside the subtree of root (root excluded), or null.
CIMelement* FindInside(CIMelement* root, int kind) {
  if (!root) return nullptr;
  CIMelement* end = After(root);
  for (CIMelement* e = root->m_Next; e && e != end; e = e->m_Next)
    if (IsKind(e, kind)) return e;
  return nullptr;
}

// A standalone heap copy of one subtree (the caller owns the root).
CIMelement* CopySubtree(CIMelement* src) {
  if (!src) return nullptr;
  CIMelement* end = After(src);
  std::unordered_map<const CIMelement*, CIMelement*> map;
  CIMelement* root = nullptr;
  CIMelement* prev = nullptr;
  for (CIMelement* s = src; s && s != end; s = s->m_Next) {
    CIMelement* d = new CIMelement();
    d->m_Name = s->m_Name;
    if (s->m_Value) d->m_Value = strdup(s->m_Value);
    char* v = nullptr;
    for (unsigned long i = 0;; ++i) {
      const int id = s->attr_get(i, &v);
      if (id == A_UNKNOWN) break;
      d->attr_put(id, v);
    }
    auto parent = map.find(s->m_Parent);
    if (parent != map.end()) d->m_Parent = parent->second;
    if (prev) prev->m_Next = d; else root = d;
    prev = d;
    map.emplace(s, d);
  }
  return root;
}

void FreeTree(CIMelement*& tree) {
  delete tree;  // the destructor frees the rest of the list
  tree = nullptr;
}

std::string Lower(const char* s) {
  std::string out(s ? s : "");
  for (char& ch : out) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
  return out;
}

// Percent-escapes everything outside RFC 3986's unreserved characters.
std::string UriEscape(const std::string& text) {
  std::string out;
  for (unsigned char ch : text) {
    if (std::isalnum(ch) || ch == '-' || ch == '.' || ch == '_' || ch == '~')
      out += static_cast<char>(ch);
    else
      out += (boost::format("%%%02X") % static_cast<unsigned>(ch)).str();
  }
  return out;
}

std::string ModelPath(CIMelement* instanceName);

// One key value of a model path: strings (and references) quoted with \ and " escaped.
std::string KeyValueText(CIMelement* binding) {
  CIMelement* v = binding->m_Next;
  if (v && v->m_Parent == binding && IsKind(v, E_KEYVALUE)) {
    const char* type = v->attr_find(A_VALUETYPE);
    const std::string text = v->m_Value ? v->m_Value : "";
    if (type && (EqualNoCase(type, "numeric") || EqualNoCase(type, "boolean"))) return text;
    std::string q = "\"";
    for (char ch : text) {
      if (ch == '"' || ch == '\\') q += '\\';
      q += ch;
    }
    return q + "\"";
  }
  CIMelement* ref = FindInside(binding, E_INSTANCENAME);
  return ref ? "\"" + ModelPath(ref) + "\"" : "\"\"";
}

// class.key=value,... of an INSTANCENAME (unescaped).
std::string ModelPath(CIMelement* instanceName) {
  std::string path = instanceName->attr_find(A_CLASSNAME) ? instanceName->attr_find(A_CLASSNAME) : "";
  bool first = true;
  CIMelement* end = After(instanceName);
  for (CIMelement* e = instanceName->m_Next; e && e != end; e = e->m_Next) {
    if (!IsKind(e, E_KEYBINDING) || e->m_Parent != instanceName) continue;
    path += first ? '.' : ',';
    first = false;
    path += e->attr_find(A_NAME) ? e->attr_find(A_NAME) : "";
    path += '=';
    path += KeyValueText(e);
  }
  return path;
}

// The CIMObject header of a method call: namespace:class or namespace:class.key=value,
// each part percent-escaped, the separators ':' '.' ',' '=' kept.
std::string ObjectHeader(const char* nameSpace, const char* className, CIMelement* instanceName) {
  std::string out = UriEscape(nameSpace ? nameSpace : "") + ":";
  if (!instanceName) return out + UriEscape(className ? className : "");
  out += UriEscape(instanceName->attr_find(A_CLASSNAME) ? instanceName->attr_find(A_CLASSNAME) : "");
  bool first = true;
  CIMelement* end = After(instanceName);
  for (CIMelement* e = instanceName->m_Next; e && e != end; e = e->m_Next) {
    if (!IsKind(e, E_KEYBINDING) || e->m_Parent != instanceName) continue;
    out += first ? "." : ",";
    first = false;
    out += UriEscape(e->attr_find(A_NAME) ? e->attr_find(A_NAME) : "") + "=" +
           UriEscape(KeyValueText(e));
  }
  return out;
}

std::string XmlEscape(const std::string& text) {
  std::string out;
  for (char ch : text) {
    switch (ch) {
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '&': out += "&amp;"; break;
      case '"': out += "&quot;"; break;
      default: out += ch;
    }
  }
  return out;
}

// Undoes the escaping of an embedded object's text. &apos; stays: the parser keeps
// entities as they are, so values read the same as in a literal instance.
std::string EmbeddedText(const char* text) {
  static const std::pair<const char*, char> kEntities[] = {
      {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&amp;", '&'}};
  std::string out;
  for (const char* p = text; *p;) {
    bool done = false;
    for (const auto& en : kEntities) {
      const size_t n = std::strlen(en.first);
      if (std::strncmp(p, en.first, n) == 0) {
        out += en.second;
        p += n;
        done = true;
        break;
      }
    }
    if (!done) out += *p++;
  }
  return out;
}

// Writes, sends and retries one METHODCALL. The request body must already hold
// everything up to the parameters.
unsigned long SendMethodCall(CIMcontainer& c, const char* func, const char* method,
                             const std::string& object, int extraTimeOut) {
  c.endElement(E_METHODCALL);
  c.endElement(E_SIMPLEREQ);
  c.endElement(E_MESSAGE);
  c.endElement(E_CIM);
  if (c.ChkCimStatus() != 0) {
    c.releaseCurlHandle();
    return static_cast<unsigned long>(c.ChkCimStatus());
  }
  // No '/' is left in the escaped object, so the transport sends it as it is.
  std::vector<char> obj(object.begin(), object.end());
  obj.push_back('\0');
  int r = c.sendRequest_recvResponse(method, obj.data());
  if (r == 0) return 0;
  int look = 1;
  if (r == 7 || r == 22 || r == 28 || r == 42 || r == 52) {
    OX_TRACE_FN(TRACE_STATUS, func, "[%s] %s: ret=%d m_Info=0x%x loop=%d", c.m_Host, func, r,
                c.m_Info, 1);
    std::string request(c.m_Request);
    c.releaseCurlHandle();
    c.m_Request = request;
    c.m_ErrCode = 0;
    std::this_thread::sleep_for(std::chrono::seconds(2));
    c.SetExtraTimeOut(extraTimeOut);
    r = c.sendRequest_recvResponse(method, obj.data());
    if (r == 0) return 0;
    look = 0;
  }
  c.m_Info |= NO_Connect;
  OX_TRACE_FN(TRACE_STATUS, func, "[%s] %s: m_Info=0x%x (NO_Connect) look=%d", c.m_Host, func,
              c.m_Info, look);
  c.Debug_Request_Response();
  c.releaseCurlHandle();
  return static_cast<unsigned long>(r);
}

// The whole extrinsic call: target path, parameters, exchange.
unsigned long MethodCall(CIMcontainer& c, const char* func, const char* method,
                         CIMelement* instanceName, _paramvalue_* params, int extraTimeOut) {
  OX_TRACE_FN(TRACE_ENTRY, func, "[%s] %s(%s)", c.m_Host, func, method ? method : "");
  c.addCIMXMLheader();
  if (!method || !*method) {
    FAIL(c, "performExtrinsicMethod() missing MethodName");
    return 1001;
  }
  c.beginElement(E_SIMPLEREQ, ">\n");
  c.beginElement(E_METHODCALL, nullptr);
  c.addAttribute(A_NAME, method, ">\n");
  const char* cls = c.m_pcls ? c.m_pcls->m_ClassName : nullptr;
  if (instanceName) {
    if (!IsKind(instanceName, E_INSTANCENAME)) {
      FAIL(c, "performExtrinsicMethod() bad CIMelement: InstanceName");
      return 1001;
    }
    c.beginElement(E_LOCALINSTANCEPATH, ">\n");
    c.addLocalNameSpacePath();
    if (c.ChkCimStatus() != 0) return 1001;
    if (instanceName->GenerateCIMXML(c.m_Request) != 0) {
      FAIL(c, "performExtrinsicMethod() bad CIMelement: InstanceName");
      return 1001;
    }
    c.endElement(E_LOCALINSTANCEPATH);
  } else {
    if (!cls || !*cls) {
      FAIL(c, "performExtrinsicMethod() missing parameter: ClassName");
      return 1001;
    }
    c.beginElement(E_LOCALCLASSPATH, ">\n");
    c.addLocalNameSpacePath();
    c.beginElement(E_CLASSNAME, nullptr);
    c.addAttribute(A_NAME, cls, "/>\n");
    c.endElement(E_LOCALCLASSPATH);
  }
  if (c.ChkCimStatus() != 0) return 1001;

  std::string text;
  for (const _paramvalue_* p = params; p && p->name; ++p) {
    const uint32_t t = p->type & ~0x100u;
    const bool array = (p->type & 0x100u) != 0;
    if (t > 15) {
      FAIL(c, "performExtrinsicMethod() bad Type");
      return 1001;
    }
    if (!p->value && p->count == 0) continue;
    c.beginElement(E_PARAMVALUE, nullptr);
    c.addAttribute(A_NAME, p->name, nullptr);
    c.addAttribute(A_PARAMTYPE, known_cim_types[t], ">\n");
    if (t == T_REFERENCE) {
      // One CIMelement*, or for an array count of them.
      const uint64_t n = array ? p->count : 1;
      CIMelement* single = static_cast<CIMelement*>(const_cast<void*>(p->value));
      CIMelement* const* refs = array ? static_cast<CIMelement* const*>(p->value) : &single;
      if (array) c.beginElement(E_VALUE_REFARRAY, ">\n");
      for (uint64_t i = 0; refs && i < n; ++i) {
        if (!refs[i]) continue;
        c.beginElement(E_VALUE_REFERENCE, ">\n");
        if (refs[i]->GenerateCIMXML(c.m_Request) != 0) {
          FAIL(c, "performExtrinsicMethod() bad CIMelement: reference");
          return 1001;
        }
        c.endElement(E_VALUE_REFERENCE);
      }
      if (array) c.endElement(E_VALUE_REFARRAY);
    } else {
      uint64_t n = p->count;
      if (!array && n != 0) n = 1;
      if (array) c.beginElement(E_VALUE_ARRAY, ">\n");
      for (uint64_t i = 0; p->value && i < n; ++i) {
        ValueToString(p->value, i, static_cast<int>(t), text);
        c.beginElement(E_VALUE, ">");
        c.m_Request += text;
        c.endElement(E_VALUE);
      }
      if (array) c.endElement(E_VALUE_ARRAY);
    }
    c.endElement(E_PARAMVALUE);
  }
  const char* ns = c.m_pcls ? c.m_pcls->m_NameSpace : nullptr;
  return SendMethodCall(c, func, method, ObjectHeader(ns, cls, instanceName), extraTimeOut);
}

// Where the devices of one answer go: a class's two lists with their last nodes.
struct DeviceLists {
  CIMclass& cls;
  CIMelement* instancesTail = nullptr;
  CIMelement* namesTail = nullptr;
};

// Moves the subtree of e (predecessor prev) behind tail, the list head made with a "CIM"
// name when the list is empty.
void MoveTo(CIMelement* prev, CIMelement* e, CIMelement*& list, CIMelement*& tail) {
  if (!list) {
    list = new CIMelement();
    list->m_Name = known_cim_elements[E_CIM];
    tail = list;
  }
  Unlink(prev, e);
  tail->m_Next = e;
  e->m_Parent = list;
  tail = LastOf(e);
}

// Embedded objects inside embedded objects are read this deep, no deeper.
constexpr int kEmbeddingDepth = 4;

// Moves every INSTANCE and INSTANCENAME after prev (not nested in one already moved) onto
// the class; returns how many.
int MoveDevices(DeviceLists& to, CIMelement* prev, int depth) {
  int moved = 0;
  for (CIMelement* e = prev->m_Next; e; e = prev->m_Next) {
    if (IsKind(e, E_INSTANCE)) {
      MoveTo(prev, e, to.cls.m_Properties, to.instancesTail);
      ++moved;
      continue;
    }
    if (IsKind(e, E_INSTANCENAME)) {
      MoveTo(prev, e, to.cls.m_InstanceNames, to.namesTail);
      ++moved;
      continue;
    }
    if (depth < kEmbeddingDepth && IsKind(e, E_VALUE) && e->m_Value &&
        std::strstr(e->m_Value, "&lt;INSTANCE")) {
      // An embedded object arrives as escaped text: read it as a document of its own.
      CIMelement doc;
      const std::string text =
          "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n<CIM CIMVERSION=\"2.0\" "
          "DTDVERSION=\"2.0\">\n" + EmbeddedText(e->m_Value) + "\n</CIM>\n";
      if (doc.ParseCIMXML(text) == 0) moved += MoveDevices(to, &doc, depth + 1);
    }
    prev = e;
  }
  return moved;
}

// ---------------------------------------------------------------------------------------
// Subscription helpers: each borrows the container with a temporary class of root/interop
// and puts the caller's current class back.

struct Borrow {
  CIMcontainer& c;
  CIMclass* saved;
  CIMclass cls;
  Borrow(CIMcontainer& owner, const char* className) : c(owner), saved(owner.m_pcls) {
    cls.clsInit();
    cls.setClassName(className, kInterop);
    c.m_pcls = &cls;
  }
  ~Borrow() {
    c.m_pcls = saved;
    cls.clsClean();
  }
  Borrow(const Borrow&) = delete;
  Borrow& operator=(const Borrow&) = delete;
};

const char* KeyOf(CIMelement* instanceName, const char* key) {
  return instanceName ? instanceName->getValueOf(E_KEYBINDING, key) : nullptr;
}

// The INSTANCENAME a reference key of instanceName points at.
CIMelement* RefKey(CIMelement* instanceName, const char* key) {
  CIMelement* binding = instanceName ? instanceName->search_elem(E_KEYBINDING, key) : nullptr;
  return FindInside(binding, E_INSTANCENAME);
}

bool SameName(CIMelement* a, const char* name) {
  const char* v = KeyOf(a, PROP_NAME);
  return v && name && EqualNoCase(v, name);
}

// Finds an existing instance of the borrowed class: by its Name key, or (subscriptions)
// by the Name keys of its Filter and Handler. Returns a copy or null.
CIMelement* Lookup(Borrow& b, const char* name, const char* filterName, const char* handlerName) {
  if (b.c.Imethod_EnumerateInstanceNames() == 0) return nullptr;
  for (int i = 0;; ++i) {
    CIMelement* n = b.cls.m_InstanceNames->findelement(E_INSTANCENAME, i);
    if (!n) return nullptr;
    const bool match = name ? SameName(n, name)
                            : SameName(RefKey(n, PROP_FILTER), filterName) &&
                                  SameName(RefKey(n, PROP_HANDLER), handlerName);
    if (match) return CopySubtree(n);
  }
}

// Creates one instance in root/interop; an instance that already exists (or a server
// that names none in its answer) is looked up and reused. *out gets an owned copy.
unsigned long CreateOne(CIMcontainer& c, const char* className, std::vector<_properties_> props,
                        const char* name, const char* filterName, const char* handlerName,
                        CIMelement** out) {
  props.push_back({nullptr, 0, 0, nullptr, nullptr});
  Borrow b(c, className);
  const unsigned long created = c.Imethod_CreateInstance(props.data());
  if (created != 0) {
    *out = CopySubtree(reinterpret_cast<CIMelement*>(created));
    return 0;
  }
  const int code = c.ChkCimStatus();
  if (code != 0 && code != kErrAlreadyExists) return static_cast<unsigned long>(code);
  *out = Lookup(b, name, filterName, handlerName);
  if (*out) {
    OX_TRACE(TRACE_STATUS, "[%s] subscribe: using the existing %s", c.m_Host, className);
    c.m_ErrCode = 0;
    return 0;
  }
  const int failed = code != 0 ? code : (c.ChkCimStatus() != 0 ? c.ChkCimStatus() : 1001);
  c.m_ErrCode = failed;
  return static_cast<unsigned long>(failed);
}

// Deletes one instance; one the server no longer has counts as deleted. The tree is freed
// unless the deletion failed otherwise.
unsigned long DeleteOne(CIMcontainer& c, CIMelement*& tree) {
  if (!tree) return 0;
  const char* cls = tree->attr_find(A_CLASSNAME);
  Borrow b(c, cls ? cls : kSubscriptionClass);
  const unsigned long r = c.Imethod_DeleteInstance(tree);
  if (r == 0) {
    tree = nullptr;  // DeleteInstance released it
    return 0;
  }
  if (r == static_cast<unsigned long>(kErrNotFound)) {
    c.m_ErrCode = 0;
    FreeTree(tree);
    return 0;
  }
  return r;
}

// True when the instance still exists; *error gets a failure other than "not found".
bool Exists(CIMcontainer& c, CIMelement* tree, unsigned long* error) {
  if (!tree) return false;
  const char* cls = tree->attr_find(A_CLASSNAME);
  Borrow b(c, cls ? cls : kSubscriptionClass);
  if (c.Imethod_GetInstance(tree, -1, nullptr) != 0) return true;
  const int code = c.ChkCimStatus();
  if (code == 0) return true;  // answered without the instance: not a verdict on it
  if (code != kErrNotFound && *error == 0) *error = static_cast<unsigned long>(code ? code : 1001);
  return false;
}

std::string OurName(const CIMcontainer& c, int port) {
  return (boost::format("oxCIM:%s:%d") % c.m_LocalIP % port).str();
}

// Whether a Destination URL names this host (scheme and path optional).
bool PointsAt(const char* destination, const std::string& ip) {
  if (!destination || ip.empty()) return false;
  std::string d(destination);
  const size_t scheme = d.find("://");
  if (scheme != std::string::npos) d = d.substr(scheme + 3);
  std::string host;
  if (!d.empty() && d[0] == '[') {
    const size_t close = d.find(']');
    host = d.substr(1, close == std::string::npos ? std::string::npos : close - 1);
  } else {
    host = d.substr(0, d.find_first_of(":/"));
  }
  return EqualNoCase(host.c_str(), ip.c_str());
}

// Whether the port can be bound now (the listener binds it on its own thread).
bool PortFree(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
  if (fd < 0) return false;
  int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_ANY);
  a.sin_port = htons(static_cast<uint16_t>(port));
  const bool ok = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  close(fd);
  return ok;
}

}  // namespace

// ---------------------------------------------------------------------------------------
// Extrinsic methods

unsigned long CIMcontainer::performExtrinsicMethod(const char* methodName,
                                                   CIMelement* instanceName,
                                                   _paramvalue_* params) {
  try {
    return MethodCall(*this, "performExtrinsicMethod", methodName, instanceName, params, 5);
  } catch (...) {
    RecordException(*this, "performExtrinsicMethod");
    return 1001;
  }
}

const char* CIMcontainer::getReturnValue() {
  CIMelement* r = m_ResponseTree.findelement(E_RETURNVALUE, 0);
  CIMelement* v = r ? r->m_Next : nullptr;
  return v && v->m_Parent == r && IsKind(v, E_VALUE) ? v->m_Value : nullptr;
}

CIMelement* CIMcontainer::getOutParameter(const char* name) {
  if (!name || !*name) return nullptr;
  for (CIMelement* e = &m_ResponseTree; e; e = e->m_Next)
    if (IsKind(e, E_PARAMVALUE) && IsKind(e->m_Parent, E_METHODRESPONSE) &&
        e->attr_find_exact(A_NAME, name) == 0)
      return e;
  return nullptr;
}

CIMelement* CIMcontainer::takeOutParameter(const char* name) {
  CIMelement* p = getOutParameter(name);
  if (!p) return nullptr;
  CIMelement* prev = &m_ResponseTree;
  while (prev->m_Next != p) prev = prev->m_Next;
  Unlink(prev, p);
  return p;
}

const char* CIMcontainer::getOutParameterValue(const char* name) {
  CIMelement* p = getOutParameter(name);
  CIMelement* v = p ? p->m_Next : nullptr;
  return v && v->m_Parent == p && IsKind(v, E_VALUE) ? v->m_Value : nullptr;
}

unsigned long CIMcontainer::get_sdt_from_core(CIMelement* storageSystem, _paramvalue_* params) {
  try {
    const unsigned long r =
        MethodCall(*this, "get_sdt_from_core", "GetStorageDeviceTree", storageSystem, params, 3);
    if (r != 0) return r;
    CIMclass::kill_element(&m_pcls->m_InstanceNames);
    CIMclass::kill_element(&m_pcls->m_Properties);
    CIMelement* response = m_ResponseTree.findelement(E_METHODRESPONSE, 0);
    DeviceLists lists{*m_pcls};
    if (response && MoveDevices(lists, response, 0) > 0) return 0;
    OX_TRACE(TRACE_ERROR, "[%s] get_sdt_from_core: no device in the answer", m_Host);
    m_ErrCode = 5005;
    return 5005;
  } catch (...) {
    RecordException(*this, "get_sdt_from_core");
    return 1001;
  }
}

// ---------------------------------------------------------------------------------------
// Subscriptions

CIMcontainer::Subscription::~Subscription() { clear(); }

void CIMcontainer::Subscription::clear() {
  if (listener) {
    listener->stop_Listener();
    delete listener;
    listener = nullptr;
  }
  FreeTree(subscription);
  FreeTree(destination);
  FreeTree(filter);
}

namespace {

// Creates what is missing of the three instances, in dependency order. On failure the
// instances made by this call are deleted again and the first error is returned.
unsigned long CreateMissing(CIMcontainer& c, CIMcontainer::Subscription& s) {
  const std::string name = OurName(c, s.port);
  const bool v6 = c.m_LocalIP.find(':') != std::string::npos;
  const std::string url =
      (boost::format(v6 ? "http://[%s]:%d" : "http://%s:%d") % c.m_LocalIP % s.port).str();
  const std::string query = XmlEscape(s.query);
  bool madeFilter = false, madeDestination = false;
  unsigned long r = 0;

  if (!s.filter) {
    const char* ns = s.sourceNamespace.c_str();
    std::vector<_properties_> props = {
        {PROP_NAME, T_STRING, 1, name.c_str(), nullptr},
        {PROP_CREATIONCLASSNAME, T_STRING, 1, kFilterClass, nullptr},
        {PROP_QUERY, T_STRING, 1, query.c_str(), nullptr},
        {PROP_QUERYLANGUAGE, T_STRING, 1, s.language.c_str(), nullptr},
        {PROP_SOURCENAMESPACE, T_STRING, 1, ns, nullptr},
        {PROP_SOURCENAMESPACES, T_STRING | 0x100, 1, ns, nullptr}};
    r = CreateOne(c, kFilterClass, props, name.c_str(), nullptr, nullptr, &s.filter);
    if (r == static_cast<unsigned long>(kErrInvalidParameter) ||
        r == static_cast<unsigned long>(kErrNoSuchProperty)) {
      // An older schema without SourceNamespaces: the single namespace alone.
      OX_TRACE(TRACE_STATUS, "[%s] subscribe: filter without SourceNamespaces", c.m_Host);
      props.pop_back();
      r = CreateOne(c, kFilterClass, props, name.c_str(), nullptr, nullptr, &s.filter);
    }
    if (r != 0) return r;
    madeFilter = true;
  }
  if (!s.destination) {
    const uint16_t persistence = 2, protocol = 2;  // permanent, CIM-XML
    for (const char* cls : {kDestinationClass, kOldDestinationClass}) {
      std::vector<_properties_> props = {
          {PROP_NAME, T_STRING, 1, name.c_str(), nullptr},
          {PROP_CREATIONCLASSNAME, T_STRING, 1, cls, nullptr},
          {PROP_DESTINATION, T_STRING, 1, url.c_str(), nullptr},
          {PROP_PERSISTENCETYPE, T_UINT16, 1, &persistence, nullptr}};
      if (cls == kDestinationClass) props.push_back({PROP_PROTOCOL, T_UINT16, 1, &protocol, nullptr});
      r = CreateOne(c, cls, props, name.c_str(), nullptr, nullptr, &s.destination);
      // Servers that only know the older handler class say so with these codes.
      if (r != static_cast<unsigned long>(kErrInvalidClass) &&
          r != static_cast<unsigned long>(kErrNotSupported))
        break;
    }
    if (r != 0) {
      if (madeFilter) DeleteOne(c, s.filter);
      c.m_ErrCode = static_cast<int32_t>(r);
      return r;
    }
    madeDestination = true;
  }
  if (!s.subscription) {
    const uint16_t enabled = 2;
    const char* filterClass = s.filter->attr_find(A_CLASSNAME);
    const char* destinationClass = s.destination->attr_find(A_CLASSNAME);
    std::vector<_properties_> props = {
        {PROP_FILTER, T_REFERENCE, 1, filterClass ? filterClass : kFilterClass, s.filter},
        {PROP_HANDLER, T_REFERENCE, 1, destinationClass ? destinationClass : kDestinationClass,
         s.destination},
        {PROP_SUBSCRIPTIONSTATE, T_UINT16, 1, &enabled, nullptr}};
    r = CreateOne(c, kSubscriptionClass, props, nullptr, KeyOf(s.filter, PROP_NAME),
                  KeyOf(s.destination, PROP_NAME), &s.subscription);
    if (r != 0) {
      if (madeDestination) DeleteOne(c, s.destination);
      if (madeFilter) DeleteOne(c, s.filter);
      c.m_ErrCode = static_cast<int32_t>(r);
      return r;
    }
  }
  return 0;
}

unsigned long StartListener(CIMcontainer& c, CIMcontainer::Subscription& s) {
  if (s.listener && s.listener->check_Listener()) return 0;
  if (s.listener) {
    s.listener->stop_Listener();
    delete s.listener;
    s.listener = nullptr;
    c.m_Listener = nullptr;
  }
  if (!PortFree(s.port)) {
    OX_TRACE(TRACE_STATUS, "[%s] subscribe: port %d is in use", c.m_Host, s.port);
    return 1001;
  }
  s.listener = new CIMindication();
  s.listener->m_Port = s.port;
  s.listener->pCallBack = s.callback;
  if (s.listener->start_Listener() != 0) {
    delete s.listener;
    s.listener = nullptr;
    return 1001;
  }
  c.m_Listener = s.listener;
  return 0;
}

}  // namespace

unsigned long CIMcontainer::subscribe(const char* query, const char* language,
                                      const char* sourceNamespace, int port,
                                      int (*callback)(std::string&)) {
  try {
    OX_TRACE(TRACE_ENTRY, "[%s] %s", m_Host, "subscribe()");
    Subscription& s = m_Subscription;
    if (!query || !*query || !callback || port <= 0 || port > 65535 || m_LocalIP.empty()) {
      OX_TRACE(TRACE_STATUS, "[%s] subscribe() missing Query, callback, port or m_LocalIP", m_Host);
      m_ErrCode = 1001;
      return 1001;
    }
    if (s.filter || s.destination || s.subscription || s.listener) {
      OX_TRACE(TRACE_STATUS, "[%s] subscribe() already subscribed", m_Host);
      m_ErrCode = 1001;
      return 1001;
    }
    s.query = query;
    s.language = language && *language ? language : "WQL";
    s.sourceNamespace = sourceNamespace && *sourceNamespace
                            ? sourceNamespace
                            : (m_pcls && m_pcls->m_NameSpace ? m_pcls->m_NameSpace : nsCIMV2);
    s.port = port;
    s.callback = callback;
    // The listener first, so that an indication sent right after the subscription exists
    // finds it.
    unsigned long r = StartListener(*this, s);
    if (r == 0) r = CreateMissing(*this, s);
    if (r != 0) {
      s.clear();
      m_Listener = nullptr;
      s.query.clear();
      if (m_ErrCode == 0) m_ErrCode = static_cast<int32_t>(r);
      return r;
    }
    return 0;
  } catch (...) {
    RecordException(*this, "subscribe");
    return 1001;
  }
}

unsigned long CIMcontainer::subscribe_check() {
  try {
    OX_TRACE(TRACE_ENTRY, "[%s] %s", m_Host, "subscribe_check()");
    Subscription& s = m_Subscription;
    if (s.query.empty()) {
      OX_TRACE(TRACE_STATUS, "[%s] subscribe_check() not subscribed", m_Host);
      m_ErrCode = 1001;
      return 1001;
    }
    unsigned long error = 0;
    const bool filter = Exists(*this, s.filter, &error);
    const bool destination = Exists(*this, s.destination, &error);
    const bool subscription = Exists(*this, s.subscription, &error);
    if (error != 0) {
      m_ErrCode = static_cast<int32_t>(error);
      return error;
    }
    const bool listening = s.listener && s.listener->check_Listener();
    if (filter && destination && subscription && listening) return 0;

    const struct { bool ok; CIMelement** tree; const char* what; } parts[] = {
        {filter, &s.filter, kFilterClass},
        {destination, &s.destination, kDestinationClass},
        {subscription, &s.subscription, kSubscriptionClass}};
    for (const auto& p : parts) {
      if (p.ok) continue;
      OX_TRACE(TRACE_STATUS, "[%s] subscribe_check: re-creating %s", m_Host, p.what);
      FreeTree(*p.tree);
    }
    // A subscription whose filter or destination went must be made again with the new ones.
    if (subscription && (!filter || !destination)) DeleteOne(*this, s.subscription);
    if (!listening) OX_TRACE(TRACE_STATUS, "[%s] subscribe_check: restarting the listener", m_Host);
    unsigned long r = listening ? 0 : StartListener(*this, s);
    if (r == 0) r = CreateMissing(*this, s);
    if (r != 0 && m_ErrCode == 0) m_ErrCode = static_cast<int32_t>(r);
    return r;
  } catch (...) {
    RecordException(*this, "subscribe_check");
    return 1001;
  }
}

unsigned long CIMcontainer::unsubscribe() {
  try {
    OX_TRACE(TRACE_ENTRY, "[%s] %s", m_Host, "unsubscribe()");
    Subscription& s = m_Subscription;
    unsigned long first = 0;
    for (CIMelement** tree : {&s.subscription, &s.destination, &s.filter}) {
      const unsigned long r = DeleteOne(*this, *tree);
      if (first == 0) first = r;
    }
    if (s.listener) {
      s.listener->stop_Listener();
      delete s.listener;
      s.listener = nullptr;
    }
    m_Listener = nullptr;
    if (first == 0) s.query.clear();
    m_ErrCode = static_cast<int32_t>(first);
    return first;
  } catch (...) {
    RecordException(*this, "unsubscribe");
    return 1001;
  }
}

unsigned long CIMcontainer::unsubscribe_all() {
  std::vector<CIMelement*> subscriptions, destinations, filters;
  std::set<std::string> ours;  // Name keys of our destinations
  std::set<std::string> kept;  // Name keys of filters other subscriptions use
  unsigned long first = 0;
  try {
    OX_TRACE(TRACE_ENTRY, "[%s] %s", m_Host, "unsubscribe_all()");
    for (const char* cls : {kDestinationClass, kOldDestinationClass}) {
      Borrow b(*this, cls);
      if (Imethod_EnumerateInstances(-1, -1, -1, -1, nullptr) == 0) {
        const int code = ChkCimStatus();
        // A server without the older class, or without any destination, is fine.
        if (code != 0 && code != kErrInvalidClass && code != kErrNotSupported && first == 0)
          first = static_cast<unsigned long>(code);
        m_ErrCode = 0;
        continue;
      }
      for (int i = 0;; ++i) {
        CIMelement* n = b.cls.m_InstanceNames->findelement(E_INSTANCENAME, i);
        CIMelement* inst = b.cls.m_Properties ? b.cls.m_Properties->findelement(E_INSTANCE, i) : nullptr;
        if (!n || !inst) break;
        if (!PointsAt(inst->getValueOfProperty(PROP_DESTINATION), m_LocalIP)) continue;
        destinations.push_back(CopySubtree(n));
        ours.insert(Lower(KeyOf(n, PROP_NAME)));
      }
    }
    if (!destinations.empty()) {
      Borrow b(*this, kSubscriptionClass);
      if (Imethod_EnumerateInstanceNames() != 0) {
        for (int i = 0;; ++i) {
          CIMelement* n = b.cls.m_InstanceNames->findelement(E_INSTANCENAME, i);
          if (!n) break;
          const std::string handler = Lower(KeyOf(RefKey(n, PROP_HANDLER), PROP_NAME));
          CIMelement* f = RefKey(n, PROP_FILTER);
          if (ours.count(handler) == 0) {
            kept.insert(Lower(KeyOf(f, PROP_NAME)));  // in use by someone else
            continue;
          }
          subscriptions.push_back(CopySubtree(n));
          if (f) filters.push_back(CopySubtree(f));
        }
      } else if (ChkCimStatus() != 0 && first == 0) {
        first = static_cast<unsigned long>(ChkCimStatus());
      }
    }
    OX_TRACE(TRACE_STATUS, "[%s] unsubscribe_all: %d subscriptions, %d destinations", m_Host,
             subscriptions.size(), destinations.size());
    for (auto* list : {&subscriptions, &destinations, &filters}) {
      for (CIMelement*& tree : *list) {
        if (list == &filters && kept.count(Lower(KeyOf(tree, PROP_NAME))) != 0) {
          FreeTree(tree);
          continue;
        }
        const unsigned long r = DeleteOne(*this, tree);
        if (first == 0) first = r;
        FreeTree(tree);
      }
    }
    m_ErrCode = static_cast<int32_t>(first);
    return first;
  } catch (...) {
    for (auto* list : {&subscriptions, &destinations, &filters})
      for (CIMelement*& tree : *list) FreeTree(tree);
    RecordException(*this, "unsubscribe_all");
    return 1001;
  }
}

}  // namespace oxCIM
