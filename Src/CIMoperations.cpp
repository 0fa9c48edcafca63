// CIMcontainer: request writer, intrinsic method driver, response extraction, the intrinsic
// operations and namespace discovery.
#include "oxInternal.h"

#include <boost/format.hpp>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace oxCIM {

namespace {

const char* const kOptionalParameterNames[4] = {"LocalOnly", "IncludeQualifiers",
                                                "IncludeClassOrigin", "DeepInheritance"};

CIMelement* MakeHead(int elementId) {
  CIMelement* head = new CIMelement();
  head->m_Name = known_cim_elements[elementId];
  return head;
}

// Last node of a list (the list must not be empty).
CIMelement* ListTail(CIMelement* node) {
  while (node->m_Next) node = node->m_Next;
  return node;
}

bool IsPropertyKind(const CIMelement* e) {
  return IsKind(e, E_PROPERTY) || IsKind(e, E_PROPERTY_ARRAY) || IsKind(e, E_PROPERTY_REFERENCE);
}

bool IsParameterKind(const CIMelement* e) {
  return IsKind(e, E_PARAMETER) || IsKind(e, E_PARAMETER_ARRAY) ||
         IsKind(e, E_PARAMETER_REFARRAY) || IsKind(e, E_PARAMETER_REFERENCE);
}

}  // namespace

// ---------------------------------------------------------------------------------------
// Lifecycle and current class

CIMcontainer::CIMcontainer() : m_pcls(nullptr), m_Listener(nullptr), m_CurrentMethod(nullptr) {}

// The class list frees itself; the listener belongs to the subscription code that started it.
CIMcontainer::~CIMcontainer() { m_pcls = nullptr; }

CIMcontainer& CIMcontainer::operator=(const CIMcontainer& other) try {
  if (this == &other) return *this;
  CIMconnection::operator=(other);
  m_Classes = other.m_Classes;
  // Shallow on purpose: the current class still points into the source's list.
  m_pcls = other.m_pcls;
  m_CurrentMethod = other.m_CurrentMethod;
  m_Listener = nullptr;
  return *this;
}
OX_CATCH_RETURN(*this)

CIMclass* CIMcontainer::setCurrentClass(const char* className, const char* nameSpace) try {
  const char* ns = (nameSpace && *nameSpace) ? nameSpace : nsCIMV2;
  CIMclass* cls = m_Classes.findClassName(className, ns);
  if (!cls) cls = m_Classes.makeNextClass(className, ns);
  m_pcls = cls;
  return cls;
}
OX_CATCH_RETURN(nullptr)

void CIMcontainer::free_all() try {
  m_pcls = nullptr;
  m_Classes.clsClean();
  releaseCurlHandle();
  m_ErrCode = 0;
}
OX_CATCH_VOID

// ---------------------------------------------------------------------------------------
// Request writer

void CIMcontainer::beginElement(int element, const char* tail) try {
  m_Request += '<';
  m_Request += known_cim_elements[element];
  if (tail) m_Request += tail;
}
OX_CATCH_VOID

void CIMcontainer::endElement(int element) try {
  if (element < 0) {
    m_Request += "/>\n";
    return;
  }
  m_Request += "</";
  m_Request += known_cim_elements[element];
  m_Request += ">\n";
}
OX_CATCH_VOID

void CIMcontainer::addValue(const char* text) try {
  if (!text || !*text) return;
  beginElement(E_VALUE, ">");
  m_Request += text;
  endElement(E_VALUE);
}
OX_CATCH_VOID

void CIMcontainer::addAttribute(int attribute, const char* value, const char* tail) try {
  if (attribute >= 0 && attribute < A_UNKNOWN && value && *value) {
    m_Request += ' ';
    m_Request += known_cim_attributes[attribute];
    m_Request += "=\"";
    m_Request += value;
    m_Request += '"';
  }
  if (tail) m_Request += tail;
}
OX_CATCH_VOID

void CIMcontainer::addOptionalParameter(int which, int flag) try {
  if (flag != 0 && flag != 1) return;
  if (which < 0 || which > 3) return;
  beginElement(E_IPARAMVALUE, nullptr);
  addAttribute(A_NAME, kOptionalParameterNames[which], ">");
  addValue(flag ? "true" : "false");
  endElement(E_IPARAMVALUE);
}
OX_CATCH_VOID

void CIMcontainer::addOptionalPropertyList(CIMarray* list) try {
  if (!list) return;
  beginElement(E_IPARAMVALUE, nullptr);
  addAttribute(A_NAME, "PropertyList", ">\n");
  beginElement(E_VALUE_ARRAY, ">\n");
  // Text entries may carry leading bytes in front of the text (negative length codes).
  const size_t skip = list->elemlen < -1 ? static_cast<size_t>(-list->elemlen - 1) : 0;
  for (unsigned long i = 0; i < list->argc; ++i) {
    if (list->argv[i]) addValue(list->argv[i] + skip);
  }
  endElement(E_VALUE_ARRAY);
  endElement(E_IPARAMVALUE);
}
OX_CATCH_VOID

void CIMcontainer::addCIMXMLheader() try {
  cleanXMLbuffer();
  ++m_MessageID;
  m_ErrCode = 0;
  m_Request += "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n";
  m_Request += "<CIM CIMVERSION=\"2.0\" DTDVERSION=\"2.0\">\n";
  m_Request += "<MESSAGE ID=\"";
  m_Request += std::to_string(m_MessageID);
  m_Request += "\" PROTOCOLVERSION=\"1.0\">\n";
}
OX_CATCH_VOID

// A failed parameter empties the request; performIntrinsicMethod then sends nothing.
static void FailRequest(CIMcontainer& c, const char* func, int line, const char* text) {
  c.cleanXMLbuffer();
  c.m_ErrCode = 1001;
  if (::oxCIM::oxCIM.IsTraced(TRACE_STATUS)) {
    Brix::Internals::CTraceStreamBuffer tb(TRACE_STATUS, ::oxCIM::oxCIM, __FILE__, func, line);
    trace_detail::OxFormat(tb, "[%s] %s", c.m_Host, text);
  }
}
#define FAIL_REQUEST(text) FailRequest(*this, __func__, __LINE__, (text))

void CIMcontainer::addClassNameParam(int required) try {
  if (m_pcls && m_pcls->m_ClassName && *m_pcls->m_ClassName) {
    beginElement(E_IPARAMVALUE, nullptr);
    addAttribute(A_NAME, "ClassName", ">");
    beginElement(E_CLASSNAME, nullptr);
    addAttribute(A_NAME, m_pcls->m_ClassName, "/>");
    endElement(E_IPARAMVALUE);
  } else if (required == 1) {
    FAIL_REQUEST("addClassNameParam() missing parameter: ClassName");
  }
}
OX_CATCH_VOID

void CIMcontainer::addInstanceNameParam(CIMelement* instanceName) try {
  if (!instanceName) {
    FAIL_REQUEST("addInstanceNameParam() InstanceName = NULL");
    return;
  }
  beginElement(E_IPARAMVALUE, nullptr);
  addAttribute(A_NAME, "InstanceName", ">\n");
  if (instanceName->GenerateCIMXML(m_Request) != 0) {
    FAIL_REQUEST("addInstanceNameParam() bad CIMelement: InstanceName");
    return;
  }
  endElement(E_IPARAMVALUE);
}
OX_CATCH_VOID

void CIMcontainer::addLocalNameSpacePath() try {
  if (!m_pcls || !m_pcls->m_NameSpace) {
    FAIL_REQUEST("addLocalNameSpacePath() missing parameter: ClassName/NameSpace");
    return;
  }
  beginElement(E_LOCALNAMESPACEPATH, ">\n");
  // Only the first slash splits: "root/a/b" gives "root" and "a/b".
  const std::string ns(m_pcls->m_NameSpace);
  const size_t slash = ns.find('/');
  beginElement(E_NAMESPACE, nullptr);
  addAttribute(A_NAME, ns.substr(0, slash).c_str(), nullptr);
  endElement(-1);
  if (slash != std::string::npos && slash + 1 < ns.size()) {
    beginElement(E_NAMESPACE, nullptr);
    addAttribute(A_NAME, ns.c_str() + slash + 1, nullptr);
    endElement(-1);
  }
  endElement(E_LOCALNAMESPACEPATH);
}
OX_CATCH_VOID

void CIMcontainer::beginIntrinsicMethod(int method) try {
  m_CurrentMethod = known_cim_imethods[method];
  addCIMXMLheader();
  beginElement(E_SIMPLEREQ, ">\n");
  beginElement(E_IMETHODCALL, nullptr);
  addAttribute(A_NAME, m_CurrentMethod, ">\n");
  addLocalNameSpacePath();
}
OX_CATCH_VOID

namespace {
// values[index] read as T and formatted as Printed.
template <typename T, typename Printed = T>
std::string FormatAt(const void* values, size_t index, const char* format) {
  return (boost::format(format) % static_cast<Printed>(static_cast<const T*>(values)[index])).str();
}
}  // namespace

size_t ValueToString(const void* values, size_t index, int type, std::string& out) {
  out.clear();
  if (!values) return 0;
  // Boost.Format prints each argument by its own type: "%d" on an unsigned value prints it
  // unsigned, which is what sint8 relies on.
  switch (type) {
    case T_BOOLEAN:
      out = static_cast<const unsigned char*>(values)[index] ? "true" : "false";
      break;
    case T_STRING:
      out = static_cast<const char*>(values);
      break;
    case T_UINT8:
      out = FormatAt<uint8_t, uint32_t>(values, index, "%u");
      break;
    case T_SINT8:  // handed over as its 32-bit unsigned complement: -1 prints 4294967295
      out = FormatAt<int8_t, uint32_t>(values, index, "%d");
      break;
    case T_UINT16:
      out = FormatAt<uint16_t>(values, index, "%u");
      break;
    case T_SINT16:
      out = FormatAt<int16_t>(values, index, "%d");
      break;
    case T_UINT32:
      out = FormatAt<uint32_t>(values, index, "%u");
      break;
    case T_SINT32:
      out = FormatAt<int32_t>(values, index, "%d");
      break;
    case T_UINT64:
      out = FormatAt<uint64_t>(values, index, "%u");
      break;
    case T_SINT64:
      out = FormatAt<int64_t>(values, index, "%d");
      break;
    case T_REAL32:
      out = FormatAt<float>(values, index, "%g");
      break;
    case T_REAL64:
      out = FormatAt<double>(values, index, "%g");
      break;
    default:
      OX_TRACE(TRACE_ERROR, "ValueToString: Unknown type of value specified");
      break;
  }
  return out.size();
}

// ---------------------------------------------------------------------------------------
// Intrinsic method driver

unsigned CIMcontainer::performIntrinsicMethod() try {
  endElement(E_IMETHODCALL);
  endElement(E_SIMPLEREQ);
  endElement(E_MESSAGE);
  endElement(E_CIM);

  if (ChkCimStatus() != 0) {
    releaseCurlHandle();
    return static_cast<unsigned>(ChkCimStatus());
  }

  // The exchange briefly writes into the object text, so hand it a private copy.
  const char* ns = (m_pcls && m_pcls->m_NameSpace) ? m_pcls->m_NameSpace : "";
  std::vector<char> object(ns, ns + std::strlen(ns) + 1);
  const char* method = m_CurrentMethod ? m_CurrentMethod : known_cim_imethods[23];

  int r = sendRequest_recvResponse(method, object.data());
  if (r == 0) return 0;

  int look = 1;
  if (r == 7 || r == 22 || r == 28 || r == 42 || r == 52) {
    OX_TRACE(TRACE_STATUS, "[%s] performIntrinsicMethod: ret=%d m_Info=0x%x loop=%d", m_Host, r,
             m_Info, 1);
    // A fresh handle for the retry; the request (and its MESSAGE ID) is sent again as is.
    std::string request(m_Request);
    releaseCurlHandle();
    m_Request += request;
    request.clear();
    m_ErrCode = 0;
    std::this_thread::sleep_for(std::chrono::seconds(2));
    SetExtraTimeOut(5);
    if (ChkCimStatus() != 0) {
      releaseCurlHandle();
      return static_cast<unsigned>(ChkCimStatus());
    }
    r = sendRequest_recvResponse(method, object.data());
    if (r == 0) return 0;
    look = 0;
  }

  m_Info |= NO_Connect;
  OX_TRACE(TRACE_STATUS, "[%s] performIntrinsicMethod: m_Info=0x%x (NO_Connect) look=%d", m_Host,
           m_Info, look);
  releaseCurlHandle();
  return static_cast<unsigned>(r);
}
OX_CATCH_RETURN(1001)

// ---------------------------------------------------------------------------------------
// Response extraction

unsigned long CIMcontainer::ExtractClassDefinition() try {
  if (!m_pcls) {
    OX_TRACE(TRACE_ERROR, "[%s] ExtractClassDefinition() this or m_pcls = NULL", m_Host);
    return 1001;
  }
  CIMclass::kill_element(&m_pcls->m_Properties);
  CIMclass::kill_element(&m_pcls->m_Methods);

  bool ok = true;
  CIMelement* cls = m_ResponseTree.findelement(E_CLASS, 0);
  if (!cls || cls->attr_find_exact(A_NAME, m_pcls->m_ClassName) != 0) {
    OX_TRACE(TRACE_ERROR, "[%s] ExtractClassDefinition() Class-ClassName", m_Host);
    ok = false;
  }

  // Properties keep only their attributes and the key mark; qualifiers and values go.
  CIMelement* propTail = nullptr;
  for (CIMelement* n = ok ? cls->m_Next : nullptr; n && ok;) {
    if (!IsPropertyKind(n)) {
      n = n->m_Next;
      continue;
    }
    CIMelement*& props = m_pcls->m_Properties;
    if (!props) {
      props = MakeHead(E_INSTANCE);
      props->attr_put(A_CLASSNAME, m_pcls->m_ClassName);
      if (props->m_Attributes) props->m_Attributes->FreeUnused();
      propTail = props;
    }
    CIMelement* end = n->getLastElement()->m_Next;
    for (CIMelement* q = n->m_Next; q && q != end; q = q->m_Next) {
      if (IsKind(q, E_QUALIFIER) && q->attr_find_exact(A_NAME, "Key") == 0) {
        std::free(n->m_Value);
        n->m_Value = strdup("Key");
        break;
      }
    }
    // Appending behind the known tail is the same as appending to the list's end.
    if (!propTail) propTail = ListTail(props);
    CIMelement* next = n->redirect_chain(&propTail->m_Next, false);
    n->m_Parent = props;
    propTail = n;
    if (next != end) {
      OX_TRACE(TRACE_ERROR, "[%s] ExtractClassDefinition() Class-m_Properties", m_Host);
      ok = false;
      break;
    }
    n = end;
  }

  // Methods: each METHOD without children, followed by its parameters (also bare).
  CIMelement* params = nullptr;
  for (CIMelement* m = ok ? cls->m_Next : nullptr; m && ok;) {
    if (!IsKind(m, E_METHOD)) {
      m = m->m_Next;
      continue;
    }
    CIMelement* end = m->getLastElement()->m_Next;
    for (CIMelement* p = m->m_Next; p && p != end;) {
      if (IsParameterKind(p))
        p = p->redirect_chain(&params, false);
      else
        p = p->m_Next;
    }
    CIMelement* next = m->redirect_chain(&m_pcls->m_Methods, false);
    if (next != end) {
      OX_TRACE(TRACE_ERROR, "[%s] ExtractClassDefinition() Class-m_Methods", m_Host);
      ok = false;
      break;
    }
    if (params) {
      m->m_Next = params;
      for (CIMelement* p = params; p; p = p->m_Next) p->m_Parent = m;
      params = nullptr;
    }
    m = end;
  }
  if (params) CIMclass::kill_element(&params);

  if (ok) return 0;
  CIMclass::kill_element(&m_pcls->m_Properties);
  CIMclass::kill_element(&m_pcls->m_Methods);
  OX_TRACE(TRACE_ERROR, "[%s] ExtractClassDefinition() %s", m_Host,
           m_pcls->m_ClassName ? m_pcls->m_ClassName : "");
  return 1001;
}
OX_CATCH_RETURN(1001)

namespace {

// Moves a run of consecutive subtrees of one kind onto a list of the current class.
// `tail` caches the list's last node between calls, so long runs stay linear.
struct RunExtractor {
  const char* func;
  const char* missing;  // trace text for a missing element
  int kind;
};

const RunExtractor kNamesRun = {"ExtractInstanceNames",
                                "[%s] ExtractInstanceNames() missing INSTANCENAME-subelement",
                                E_INSTANCENAME};
const RunExtractor kInstancesRun = {"ExtractInstance",
                                    "[%s] ExtractInstance() missing INSTANCE-subelement",
                                    E_INSTANCE};

CIMelement* ExtractRun(const RunExtractor& how, const std::string& host, CIMelement*& list,
                       CIMelement*& tail, CIMelement* from) {
  if (from && IsKind(from, E_CIM)) from = from->findelement(how.kind, 0);
  if (!from || !IsKind(from, how.kind)) {
    OX_TRACE_FN(TRACE_ERROR, how.func, how.missing, host);
    return nullptr;
  }
  for (CIMelement* cur = from; cur && IsKind(cur, how.kind);) {
    if (!list) {
      list = MakeHead(E_CIM);
      tail = list;
    }
    if (!tail) tail = ListTail(list);
    CIMelement* next = cur->redirect_chain(&tail->m_Next, true);
    cur->m_Parent = list;
    tail = ListTail(cur);
    cur = next;
  }
  return from;
}

}  // namespace

unsigned long CIMcontainer::ExtractInstanceNames(CIMelement* from) try {
  if (!m_pcls) {
    OX_TRACE(TRACE_ERROR, "[%s] ExtractInstanceNames() this or m_pcls = NULL", m_Host);
    return 0;
  }
  CIMelement* tail = nullptr;
  return reinterpret_cast<unsigned long>(
      ExtractRun(kNamesRun, m_Host, m_pcls->m_InstanceNames, tail, from));
}
OX_CATCH_RETURN(0)

unsigned long CIMcontainer::ExtractInstance(CIMelement* from) try {
  if (!m_pcls) {
    OX_TRACE(TRACE_ERROR, "[%s] ExtractInstance() this or m_pcls = NULL", m_Host);
    return 0;
  }
  CIMelement* tail = nullptr;
  return reinterpret_cast<unsigned long>(
      ExtractRun(kInstancesRun, m_Host, m_pcls->m_Properties, tail, from));
}
OX_CATCH_RETURN(0)

unsigned long CIMcontainer::ExtractNamedInstances() try {
  if (!m_pcls) {
    OX_TRACE(TRACE_ERROR, "[%s] ExtractNamedInstances() this or m_pcls = NULL", m_Host);
    return 0;
  }
  CIMelement*& names = m_pcls->m_InstanceNames;
  CIMelement*& instances = m_pcls->m_Properties;
  CIMclass::kill_element(&names);
  CIMclass::kill_element(&instances);

  CIMelement* named = m_ResponseTree.findelement(E_VALUE_NAMEDINSTANCE, 0);
  if (!named) return 0;  // no instances: reported like a failure, but silently

  CIMelement* namesTail = nullptr;
  CIMelement* instancesTail = nullptr;
  CIMelement* n = named->m_Next;
  bool ok = true;
  if (!n || !IsKind(n, E_INSTANCENAME)) {
    OX_TRACE(TRACE_ERROR, "[%s] ExtractNamedInstances() missing INSTANCENAME-subelement", m_Host);
    ok = false;
  }
  while (ok) {
    CIMelement* inst = n->getLastElement()->m_Next;
    if (!inst || !IsKind(inst, E_INSTANCE)) {
      OX_TRACE(TRACE_ERROR, "[%s] ExtractNamedInstances() missing INSTANCE-subelement", m_Host);
      ok = false;
      break;
    }
    CIMelement* following = inst->getLastElement()->m_Next;
    if (following && !IsKind(following, E_VALUE_NAMEDINSTANCE)) {
      OX_TRACE(TRACE_ERROR,
               "[%s] ExtractNamedInstances() missing next VALUE_NAMEDINSTANCE-element", m_Host);
      ok = false;
      break;
    }
    if (!ExtractRun(kNamesRun, m_Host, names, namesTail, n) ||
        !ExtractRun(kInstancesRun, m_Host, instances, instancesTail, inst)) {
      ok = false;
      break;
    }
    if (!following) return reinterpret_cast<unsigned long>(names->findelement(E_INSTANCENAME, 0));
    n = following->m_Next;
    if (!n || !IsKind(n, E_INSTANCENAME)) {
      OX_TRACE(TRACE_ERROR, "[%s] ExtractNamedInstances() missing INSTANCENAME-subelement",
               m_Host);
      ok = false;
    }
  }
  CIMclass::kill_element(&names);
  CIMclass::kill_element(&instances);
  OX_TRACE(TRACE_ERROR, "[%s] ExtractNamedInstances() wrong XML data", m_Host);
  return 0;
}
OX_CATCH_RETURN(0)

// ---------------------------------------------------------------------------------------
// Intrinsic operations

#define TRACE_ENTER(name) OX_TRACE(TRACE_ENTRY, "[%s] %s", m_Host, name "()")

unsigned long CIMcontainer::Imethod_GetClass(int localOnly, int includeQualifiers,
                                             int includeClassOrigin, CIMarray* propertyList) try {
  TRACE_ENTER("Imethod_GetClass");
  beginIntrinsicMethod(0);
  addClassNameParam(1);
  addOptionalParameter(0, localOnly);
  addOptionalParameter(1, includeQualifiers);
  addOptionalParameter(2, includeClassOrigin);
  addOptionalPropertyList(propertyList);
  const unsigned r = performIntrinsicMethod();
  if (r != 0) return r;
  return ExtractClassDefinition();
}
OX_CATCH_RETURN(1001)

unsigned long CIMcontainer::Imethod_GetInstance(CIMelement* instanceName, int includeClassOrigin,
                                                CIMarray* propertyList) try {
  TRACE_ENTER("Imethod_GetInstance");
  beginIntrinsicMethod(1);
  addInstanceNameParam(instanceName);
  addOptionalParameter(2, includeClassOrigin);
  addOptionalPropertyList(propertyList);
  if (m_pcls) CIMclass::kill_element(&m_pcls->m_Properties);
  if (performIntrinsicMethod() != 0) return 0;
  return ExtractInstance(&m_ResponseTree);
}
OX_CATCH_RETURN(0)

unsigned long CIMcontainer::Imethod_DeleteClass() try {
  TRACE_ENTER("Imethod_DeleteClass");
  beginIntrinsicMethod(2);
  addClassNameParam(1);
  return performIntrinsicMethod();
}
OX_CATCH_RETURN(1001)

unsigned long CIMcontainer::Imethod_DeleteInstance(CIMelement* instanceName) try {
  TRACE_ENTER("Imethod_DeleteInstance");
  beginIntrinsicMethod(3);
  addInstanceNameParam(instanceName);
  const unsigned r = performIntrinsicMethod();
  if (r != 0) {
    if (m_pcls) CIMclass::kill_element(&m_pcls->m_InstanceNames);
    return r;
  }
  CIMelement* before = instanceName->deleteElement(true);
  if (m_pcls && before && before == m_pcls->m_InstanceNames)
    CIMclass::kill_element(&m_pcls->m_InstanceNames);
  return 0;
}
OX_CATCH_RETURN(1001)

unsigned long CIMcontainer::Imethod_CreateClass(CIMelement& newClass) try {
  TRACE_ENTER("Imethod_CreateClass");
  beginIntrinsicMethod(4);
  if (!IsKind(&newClass, E_CLASS)) {
    FAIL_REQUEST("Imethod_CreateClass() missing NewClass definition");
    return ChkCimStatus();
  }
  beginElement(E_IPARAMVALUE, nullptr);
  addAttribute(A_NAME, "NewClass", ">\n");
  if (newClass.GenerateCIMXML(m_Request) != 0) {
    FAIL_REQUEST("Imethod_CreateClass() bad CIMelement: newclass");
    return ChkCimStatus();
  }
  endElement(E_IPARAMVALUE);
  return performIntrinsicMethod();
}
OX_CATCH_RETURN(1001)

unsigned long CIMcontainer::Imethod_CreateInstance(_properties_* props) try {
  TRACE_ENTER("Imethod_CreateInstance");
  beginIntrinsicMethod(5);
  if (!props) {
    FAIL_REQUEST("Imethod_CreateInstance() missing NewInstance definition");
    return 0;
  }
  beginElement(E_IPARAMVALUE, nullptr);
  addAttribute(A_NAME, "NewInstance", ">\n");
  beginElement(E_INSTANCE, nullptr);
  addAttribute(A_CLASSNAME, m_pcls ? m_pcls->m_ClassName : nullptr, ">\n");

  std::string text;
  for (const _properties_* p = props; p->name; ++p) {
    const uint32_t t = p->type & ~0x100u;
    const bool array = (p->type & 0x100u) != 0;
    uint64_t n = p->count;
    if (t > 15) {
      FAIL_REQUEST("Imethod_CreateInstance() bad Type");
      return 0;
    }
    if (!p->value && n == 0) continue;
    if (!array && n != 0) n = 1;

    if (t == T_REFERENCE) {
      // The value field names the referenced class; the path itself is the tree.
      beginElement(E_PROPERTY_REFERENCE, nullptr);
      addAttribute(A_NAME, p->name, nullptr);
      addAttribute(A_REFERENCECLASS, static_cast<const char*>(p->value), ">\n");
      if (p->value) {
        for (uint64_t i = 0; i < n; ++i) {
          beginElement(E_VALUE_REFERENCE, ">\n");
          if (p->reference) p->reference->GenerateCIMXML(m_Request);
          endElement(E_VALUE_REFERENCE);
        }
      }
      endElement(E_PROPERTY_REFERENCE);
      continue;
    }

    beginElement(array ? E_PROPERTY_ARRAY : E_PROPERTY, nullptr);
    addAttribute(A_NAME, p->name, nullptr);
    addAttribute(A_TYPE, known_cim_types[t], ">\n");
    if (array) beginElement(E_VALUE_ARRAY, ">\n");
    if (p->value) {
      for (uint64_t i = 0; i < n; ++i) {
        ValueToString(p->value, i, static_cast<int>(t), text);
        beginElement(E_VALUE, ">");
        m_Request += text;
        endElement(E_VALUE);
      }
    }
    if (array) {
      endElement(E_VALUE_ARRAY);
      endElement(E_PROPERTY_ARRAY);
    } else {
      endElement(E_PROPERTY);
    }
  }
  endElement(E_INSTANCE);
  endElement(E_IPARAMVALUE);

  if (performIntrinsicMethod() != 0) {
    if (m_pcls) CIMclass::kill_element(&m_pcls->m_InstanceNames);
    return 0;
  }
  return ExtractInstanceNames(&m_ResponseTree);
}
OX_CATCH_RETURN(0)

unsigned long CIMcontainer::Imethod_ModifyClass(CIMelement& modifiedClass) try {
  TRACE_ENTER("Imethod_ModifyClass");
  beginIntrinsicMethod(6);
  if (!IsKind(&modifiedClass, E_CLASS)) {
    FAIL_REQUEST("Imethod_ModifyClass() missing ModifiedClass definition");
    return ChkCimStatus();
  }
  beginElement(E_IPARAMVALUE, nullptr);
  addAttribute(A_NAME, "ModifiedClass", ">\n");
  if (modifiedClass.GenerateCIMXML(m_Request) != 0) {
    FAIL_REQUEST("Imethod_ModifyClass() bad CIMelement: modifiedclass");
    return ChkCimStatus();
  }
  endElement(E_IPARAMVALUE);
  return performIntrinsicMethod();
}
OX_CATCH_RETURN(1001)

unsigned long CIMcontainer::Imethod_ModifyInstance(CIMelement* instanceName,
                                                   CIMelement& modifiedInstance,
                                                   CIMarray* propertyList) try {
  TRACE_ENTER("Imethod_ModifyInstance");
  beginIntrinsicMethod(7);
  if (!IsKind(&modifiedInstance, E_INSTANCE)) {
    FAIL_REQUEST("Imethod_ModifyInstance() missing modifiedinstance");
    return ChkCimStatus();
  }
  addOptionalPropertyList(propertyList);
  // By default the named instance stands directly in IMETHODCALL, with the InstanceName
  // parameter inside; the standard layout wraps it in a ModifiedInstance parameter instead.
  const bool standard = m_StandardModifyInstance;
  if (standard) {
    beginElement(E_IPARAMVALUE, nullptr);
    addAttribute(A_NAME, "ModifiedInstance", ">\n");
  }
  beginElement(E_VALUE_NAMEDINSTANCE, ">\n");
  if (!standard) {
    addInstanceNameParam(instanceName);
  } else if (!instanceName || instanceName->GenerateCIMXML(m_Request) != 0) {
    FAIL_REQUEST("Imethod_ModifyInstance() bad CIMelement: instancename");
    return ChkCimStatus();
  }
  if (modifiedInstance.GenerateCIMXML(m_Request) != 0) {
    FAIL_REQUEST("Imethod_ModifyInstance() bad CIMelement: modifiedinstance");
    return ChkCimStatus();
  }
  endElement(E_VALUE_NAMEDINSTANCE);
  if (standard) endElement(E_IPARAMVALUE);
  return performIntrinsicMethod();
}
OX_CATCH_RETURN(1001)

unsigned long CIMcontainer::Imethod_EnumerateClasses(int localOnly, int includeQualifiers,
                                                     int includeClassOrigin,
                                                     int deepInheritance) try {
  TRACE_ENTER("Imethod_EnumerateClasses");
  beginIntrinsicMethod(8);
  addOptionalParameter(0, localOnly);
  addOptionalParameter(1, includeQualifiers);
  addOptionalParameter(2, includeClassOrigin);
  addOptionalParameter(3, deepInheritance);
  addClassNameParam(0);
  return performIntrinsicMethod();
}
OX_CATCH_RETURN(1001)

unsigned long CIMcontainer::Imethod_EnumerateClassNames(int deepInheritance) try {
  TRACE_ENTER("Imethod_EnumerateClassNames");
  beginIntrinsicMethod(9);
  addOptionalParameter(3, deepInheritance);
  addClassNameParam(0);
  return performIntrinsicMethod();
}
OX_CATCH_RETURN(1001)

unsigned long CIMcontainer::Imethod_EnumerateInstances(int localOnly, int includeQualifiers,
                                                       int includeClassOrigin,
                                                       int deepInheritance,
                                                       CIMarray* propertyList) try {
  TRACE_ENTER("Imethod_EnumerateInstances");
  beginIntrinsicMethod(10);
  addOptionalParameter(0, localOnly);
  addOptionalParameter(1, includeQualifiers);
  addOptionalParameter(2, includeClassOrigin);
  addOptionalParameter(3, deepInheritance);
  addClassNameParam(1);
  addOptionalPropertyList(propertyList);
  if (m_pcls) {
    CIMclass::kill_element(&m_pcls->m_InstanceNames);
    CIMclass::kill_element(&m_pcls->m_Properties);
  }
  if (performIntrinsicMethod() != 0) return 0;
  return ExtractNamedInstances();
}
OX_CATCH_RETURN(0)

unsigned long CIMcontainer::Imethod_EnumerateInstanceNames() try {
  TRACE_ENTER("Imethod_EnumerateInstanceNames");
  beginIntrinsicMethod(11);
  addClassNameParam(1);
  if (m_pcls) CIMclass::kill_element(&m_pcls->m_InstanceNames);
  if (performIntrinsicMethod() != 0) return 0;
  return ExtractInstanceNames(&m_ResponseTree);
}
OX_CATCH_RETURN(0)

unsigned long CIMcontainer::Imethod_ExecQuery(const char* queryLanguage, const char* target) try {
  TRACE_ENTER("Imethod_ExecQuery");
  beginIntrinsicMethod(12);
  if (!queryLanguage || !*queryLanguage || !target || !*target) {
    FAIL_REQUEST("ExecQuery() missing QueryLanguage/Query");
    return ChkCimStatus();
  }
  beginElement(E_IPARAMVALUE, nullptr);
  addAttribute(A_NAME, "QueryLanguage", ">");
  addValue(queryLanguage);
  endElement(E_IPARAMVALUE);
  beginElement(E_IPARAMVALUE, nullptr);
  addAttribute(A_NAME, "Query", ">");
  addValue((boost::format("select * from %s") % target).str().c_str());
  endElement(E_IPARAMVALUE);
  return performIntrinsicMethod();
}
OX_CATCH_RETURN(1001)

namespace {
// Members for operations the library does not offer: they only say so, at error level.
unsigned long NotOffered(const char* function) {
  OX_TRACE_FN(TRACE_ERROR, function, "%s: Not implemented yet!", function);
  return 1001;
}
}  // namespace

unsigned long CIMcontainer::Imethod_Associators() { return NotOffered(__func__); }

unsigned long CIMcontainer::Imethod_AssociatorNames() { return NotOffered(__func__); }

unsigned long CIMcontainer::Imethod_References() { return NotOffered(__func__); }

unsigned long CIMcontainer::Imethod_ReferenceNames() { return NotOffered(__func__); }

unsigned long CIMcontainer::Imethod_GetProperty(CIMelement* instanceName,
                                                const char* propertyName) try {
  TRACE_ENTER("Imethod_GetProperty");
  beginIntrinsicMethod(17);
  if (!propertyName || !*propertyName) {
    FAIL_REQUEST("Imethod_GetProperty() missing PropertyName");
    return ChkCimStatus();
  }
  beginElement(E_IPARAMVALUE, nullptr);
  addAttribute(A_NAME, "PropertyName", ">\n");
  addValue(propertyName);
  endElement(E_IPARAMVALUE);
  addInstanceNameParam(instanceName);
  return performIntrinsicMethod();
}
OX_CATCH_RETURN(1001)

unsigned long CIMcontainer::Imethod_SetProperty(CIMelement* instanceName,
                                                const char* propertyName, const char* newValue) try {
  TRACE_ENTER("Imethod_SetProperty");
  beginIntrinsicMethod(18);
  if (!propertyName || !*propertyName) {
    FAIL_REQUEST("Imethod_SetProperty() missing PropertyName");
    return ChkCimStatus();
  }
  beginElement(E_IPARAMVALUE, nullptr);
  addAttribute(A_NAME, "PropertyName", ">\n");
  addValue(propertyName);
  endElement(E_IPARAMVALUE);
  if (newValue && *newValue) {
    beginElement(E_IPARAMVALUE, nullptr);
    addAttribute(A_NAME, "NewValue", ">\n");
    addValue(newValue);
    endElement(E_IPARAMVALUE);
  }
  addInstanceNameParam(instanceName);
  return performIntrinsicMethod();
}
OX_CATCH_RETURN(1001)

unsigned long CIMcontainer::Imethod_GetQualifier() { return NotOffered(__func__); }

unsigned long CIMcontainer::Imethod_SetQualifier() { return NotOffered(__func__); }

unsigned long CIMcontainer::Imethod_DeleteQualifier() { return NotOffered(__func__); }

unsigned long CIMcontainer::Imethod_EnumerateQualifiers() { return NotOffered(__func__); }

// ---------------------------------------------------------------------------------------
// Namespace discovery

unsigned long CIMcontainer::getNameSpace(CIMarray& names) try {
  OX_TRACE(TRACE_ENTRY, "[%s] %s", m_Host, "getNameSpace()");
  CIMclass probe;
  probe.clsInit();
  probe.setClassName("CIM_Namespace", "root/interop");

  // Borrow the container for one request; the caller's current class is put back always.
  CIMclass* saved = m_pcls;
  m_pcls = &probe;
  const unsigned long found = Imethod_EnumerateInstances(-1, -1, -1, -1, nullptr);
  m_pcls = saved;

  bool ok = found != 0;
  if (!ok) {
    OX_TRACE(TRACE_ERROR, "[%s] getNameSpace: missing 'CIM_Namespace' or 'root/interop'", m_Host);
  }
  for (int index = 0; ok; ++index) {
    CIMelement* name = probe.m_InstanceNames->findelement(E_INSTANCENAME, index);
    if (!name) break;
    const char* text = name->getValueOf(E_KEYBINDING, "Name");
    if (!text) {
      OX_TRACE(TRACE_ERROR, "[%s] getNameSpace: KEYBINDING Name=\"??\"", m_Host);
      ok = false;
      break;
    }
    names.putargv(text, -1, 15);
  }
  if (ok) {
    names.FreeUnused();
    probe.clsClean();
    return 0;
  }
  if (ChkCimStatus() == 0) m_ErrCode = 5005;
  probe.clsClean();
  return ChkCimStatus();
}
OX_CATCH_RETURN(1001)

}  // namespace oxCIM
