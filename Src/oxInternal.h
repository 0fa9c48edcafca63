// Internal helpers shared by the library's sources: identifiers and tracing.
#pragma once

#include <oxCIM.h>

#include <exception>
#include <string>
#include <type_traits>

namespace oxCIM {

// Positions in known_cim_elements.
enum ElementId : int {
  E_XML = 0, E_CIM = 1, E_CLASS = 2, E_CLASSNAME = 3, E_CLASSPATH = 4, E_DECLARATION = 5,
  E_DECLGROUP = 6, E_DECLGROUP_WITHNAME = 7, E_DECLGROUP_WITHPATH = 8, E_ERROR = 9,
  E_EXPMETHODCALL = 10, E_EXPMETHODRESPONSE = 11, E_EXPPARAMVALUE = 12, E_HOST = 13,
  E_IMETHODCALL = 14, E_IMETHODRESPONSE = 15, E_INSTANCE = 16, E_INSTANCENAME = 17,
  E_INSTANCEPATH = 18, E_IPARAMVALUE = 19, E_IRETURNVALUE = 20, E_KEYBINDING = 21,
  E_KEYVALUE = 22, E_LOCALCLASSPATH = 23, E_LOCALINSTANCEPATH = 24, E_LOCALNAMESPACEPATH = 25,
  E_MESSAGE = 26, E_METHOD = 27, E_METHODCALL = 28, E_METHODRESPONSE = 29, E_MULTIEXPREQ = 30,
  E_MULTIEXPRSP = 31, E_MULTIREQ = 32, E_MULTIRSP = 33, E_NAMESPACE = 34, E_NAMESPACEPATH = 35,
  E_OBJECTPATH = 36, E_PARAMETER = 37, E_PARAMETER_ARRAY = 38, E_PARAMETER_REFARRAY = 39,
  E_PARAMETER_REFERENCE = 40, E_PARAMVALUE = 41, E_PROPERTY = 42, E_PROPERTY_ARRAY = 43,
  E_PROPERTY_REFERENCE = 44, E_QUALIFIER = 45, E_QUALIFIER_DECLARATION = 46,
  E_RESPONSEDESTINATION = 47, E_RETURNVALUE = 48, E_SCOPE = 49, E_SIMPLEEXPREQ = 50,
  E_SIMPLEEXPRSP = 51, E_SIMPLEREQ = 52, E_SIMPLEREQACK = 53, E_SIMPLERSP = 54, E_TABLE = 55,
  E_TABLECELL_DECLARATION = 56, E_TABLECELL_REFERENCE = 57, E_TABLEROW = 58,
  E_TABLEROW_DECLARATION = 59, E_VALUE = 60, E_VALUE_ARRAY = 61, E_VALUE_NAMEDINSTANCE = 62,
  E_VALUE_NAMEDOBJECT = 63, E_VALUE_NULL = 64, E_VALUE_OBJECT = 65,
  E_VALUE_OBJECTWITHLOCALPATH = 66, E_VALUE_OBJECTWITHPATH = 67, E_VALUE_REFARRAY = 68,
  E_VALUE_REFERENCE = 69, E_UNKNOWN = 70
};

// Positions in known_cim_attributes.
enum AttributeId : int {
  A_NAME = 0, A_TYPE = 1, A_ARRAYSIZE = 2, A_ASSOCIATION = 3, A_CELLPOS = 4, A_CIMVERSION = 5,
  A_CLASS = 6, A_CLASSNAME = 7, A_CLASSORIGIN = 8, A_CODE = 9, A_DESCRIPTION = 10,
  A_DTDVERSION = 11, A_ID = 12, A_INDICATION = 13, A_INSTANCEID = 14, A_ISARRAY = 15,
  A_METHOD = 16, A_OVERRIDABLE = 17, A_PARAMETER = 18, A_PARAMTYPE = 19, A_PROPAGATED = 20,
  A_PROPERTY = 21, A_PROTOCOLVERSION = 22, A_REFERENCE = 23, A_REFERENCECLASS = 24,
  A_SORTDIR = 25, A_SORTPOS = 26, A_SUPERCLASS = 27, A_VALUETYPE = 28, A_TOSUBCLASS = 29,
  A_TOINSTANCE = 30, A_TRANSLATABLE = 31, A_EMBEDDEDOBJECT = 32, A_UNKNOWN = 33
};

// Positions in known_cim_types.
enum TypeId : int {
  T_BOOLEAN = 0, T_STRING = 1, T_CHAR16 = 2, T_UINT8 = 3, T_SINT8 = 4, T_UINT16 = 5,
  T_SINT16 = 6, T_UINT32 = 7, T_SINT32 = 8, T_UINT64 = 9, T_SINT64 = 10, T_DATETIME = 11,
  T_REAL32 = 12, T_REAL64 = 13, T_UNKNOWN = 14, T_REFERENCE = 15
};

// True when the element is of the given kind (kinds compare by table pointer).
inline bool IsKind(const CIMelement* e, int id) {
  return e != nullptr && e->m_Name == known_cim_elements[id];
}

// Called from a catch handler: records the exception in flight as status 1001, traced as
// "<function>: Exception raised: <what>". Nothing escapes, not even from an allocation.
void RecordException(CIMconnection& c, const char* function) noexcept;

// Locale-aware, whole-string, case-insensitive equality used for user data.
bool EqualNoCase(const char* a, const char* b);

// Diagnostics for the tests and benchmarks (exported, not part of the public header).
// Bytes of pooled elements and arrays in use, as the calling thread sees it: blocks that
// other threads keep on their own free lists count as in use.
OXCIM_API size_t PoolBytesInUse();
// Documents read so far by each route of the parser, process-wide.
struct ParseRouteCounts {
  unsigned long streamed;     // whole text in one pass
  unsigned long incremental;  // in one pass, chunk by chunk while the body arrived
  unsigned long exact;        // search-based route (fallback or by request)
};
OXCIM_API ParseRouteCounts ParseRoutes();

namespace codec {

// ParseCIMXML that also hands back the list's first ERROR element (null if none).
OXCIM_API int Parse(CIMelement* root, const std::string& text, bool allowStream,
                    CIMelement** firstError);

// Reads a CIM-XML body into `root` while it arrives. Feed takes the whole body received so
// far after each piece; Finish, on the complete body, gives exactly what Parse would give
// (result, list, traces, ERROR element): the pieces read in one pass when that pass
// accepts the document, else a read of the whole body. Feed never throws; trouble there
// only means the whole body is read at the end.
class OXCIM_API BodyReader {
 public:
  // step: a read step waits until this many bytes came in since the last one. Each step
  // has a cost of its own, and on loopback larger steps read faster.
  static constexpr size_t kDefaultStep = 256 * 1024;
  explicit BodyReader(CIMelement* root, size_t step = kDefaultStep);
  ~BodyReader();
  BodyReader(const BodyReader&) = delete;
  BodyReader& operator=(const BodyReader&) = delete;

  void Feed(const std::string& bodySoFar) noexcept;
  int Finish(const std::string& body, CIMelement** firstError);
  void GiveUp() noexcept;  // drops what was read; Finish then reads the whole body

 private:
  struct Engine;
  CIMelement* m_Root;
  Engine* m_Engine = nullptr;
  size_t m_Step;
  size_t m_Fed = 0;  // body length at the last read step
  bool m_GaveUp = false;
};

}  // namespace codec

namespace trace_detail {

inline void Feed(Brix::Output_Streams::CFormatStream&) {}

template <typename T, typename... Rest>
void Feed(Brix::Output_Streams::CFormatStream& fs, const T& first, const Rest&... rest) {
  using D = std::decay_t<T>;
  if constexpr (std::is_same_v<D, bool>)
    fs << Brix::Output_Streams::FormatInt(first ? 1 : 0);
  else if constexpr (std::is_integral_v<D> || std::is_enum_v<D>)
    fs << Brix::Output_Streams::FormatInt(static_cast<int64_t>(first));
  else if constexpr (std::is_floating_point_v<D>)
    fs << static_cast<double>(first);
  else
    fs << first;
  Feed(fs, rest...);
}

}  // namespace trace_detail
}  // namespace oxCIM

// Builds and emits one trace record, only when the level is switched on.
// OX_TRACE_FN names the function explicitly (for helpers whose messages carry another name).
#define OX_TRACE_FN(level, func, ...)                                                       \
  do {                                                                                     \
    if (::oxCIM::oxCIM.IsTraced(level)) {                                                  \
      ::Brix::Internals::CTraceStreamBuffer ox_tb_((level), ::oxCIM::oxCIM, __FILE__, (func), \
                                                   __LINE__);                              \
      ::oxCIM::trace_detail::OxFormat(ox_tb_, __VA_ARGS__);                                 \
    }                                                                                      \
  } while (0)

#define OX_TRACE(level, ...) OX_TRACE_FN(level, __func__, __VA_ARGS__)

// Closes a function-try-block of a member of CIMconnection or CIMcontainer, so that no
// exception crosses the library's interface: `failure` is what the function then returns.
#define OX_CATCH_RETURN(failure)                  \
  catch (...) {                                   \
    ::oxCIM::RecordException(*this, __func__);    \
    return failure;                               \
  }
#define OX_CATCH_VOID                             \
  catch (...) {                                   \
    ::oxCIM::RecordException(*this, __func__);    \
  }

// Records a CIM status with the caller's file and line.
#define SetCimStatus(code, desc) SetCimStatus_FL((code), (desc), __FILE__, __LINE__)

namespace oxCIM {
namespace trace_detail {
template <typename... Args>
void OxFormat(Brix::Internals::CTraceStreamBuffer& tb, const char* format, const Args&... args) {
  Brix::Output_Streams::CFormatStream fs(tb, format);
  Feed(fs, args...);
}
}  // namespace trace_detail
}  // namespace oxCIM

namespace oxCIM {

// Called from a catch handler: the text of the exception in flight.
inline const char* CurrentExceptionText() noexcept {
  try {
    throw;
  } catch (const std::exception& e) {
    return e.what();
  } catch (const char* text) {
    return text;
  } catch (...) {
    return "unknown exception";
  }
}

// Called from a catch handler: traces "<function>: Exception raised: <what>" at the level
// of the object model and the codec. Inline, so the codec needs nothing hidden elsewhere.
inline void TraceException(const char* function, const char* file, int line) noexcept {
  if (!oxCIM.IsTraced(TRACE_ERROR)) return;
  try {
    Brix::Internals::CTraceStreamBuffer tb(TRACE_ERROR, oxCIM, file, function, line);
    trace_detail::OxFormat(tb, "%s: Exception raised: %s", function, CurrentExceptionText());
  } catch (...) {
  }
}

}  // namespace oxCIM

#define OX_TRACE_EXCEPTION() ::oxCIM::TraceException(__func__, __FILE__, __LINE__)
