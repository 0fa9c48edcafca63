// Vocabulary tables, module identity, CIMelement, CIMclass and CIMarray.
#include "oxInternal.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

namespace oxCIM {

Brix::Misc::CModuleInfo oxCIM(300, "oxCIM", "P:6.6.11 F:6.6.11");

namespace {
// The library is silent unless asked: the mask comes from the environment at load.
struct TraceMaskFromEnvironment {
  TraceMaskFromEnvironment() {
    const char* v = std::getenv("OXCIM_TRACE");
    if (v && *v) oxCIM.SetTraceMask(std::strtoul(v, nullptr, 0));
  }
} traceMaskFromEnvironment;
}  // namespace

int do_cim_debug = 0;
int ListenerThreadIsActive = 0;
const char* const nsCIMV2 = "root/cimv2";

const char* const known_cim_elements[71] = {
    "?xml", "CIM", "CLASS", "CLASSNAME", "CLASSPATH", "DECLARATION", "DECLGROUP",
    "DECLGROUP.WITHNAME", "DECLGROUP.WITHPATH", "ERROR", "EXPMETHODCALL", "EXPMETHODRESPONSE",
    "EXPPARAMVALUE", "HOST", "IMETHODCALL", "IMETHODRESPONSE", "INSTANCE", "INSTANCENAME",
    "INSTANCEPATH", "IPARAMVALUE", "IRETURNVALUE", "KEYBINDING", "KEYVALUE", "LOCALCLASSPATH",
    "LOCALINSTANCEPATH", "LOCALNAMESPACEPATH", "MESSAGE", "METHOD", "METHODCALL",
    "METHODRESPONSE", "MULTIEXPREQ", "MULTIEXPRSP", "MULTIREQ", "MULTIRSP", "NAMESPACE",
    "NAMESPACEPATH", "OBJECTPATH", "PARAMETER", "PARAMETER.ARRAY", "PARAMETER.REFARRAY",
    "PARAMETER.REFERENCE", "PARAMVALUE", "PROPERTY", "PROPERTY.ARRAY", "PROPERTY.REFERENCE",
    "QUALIFIER", "QUALIFIER.DECLARATION", "RESPONSEDESTINATION", "RETURNVALUE", "SCOPE",
    "SIMPLEEXPREQ", "SIMPLEEXPRSP", "SIMPLEREQ", "SIMPLEREQACK", "SIMPLERSP", "TABLE",
    "TABLECELL.DECLARATION", "TABLECELL.REFERENCE", "TABLEROW", "TABLEROW.DECLARATION", "VALUE",
    "VALUE.ARRAY", "VALUE.NAMEDINSTANCE", "VALUE.NAMEDOBJECT", "VALUE.NULL", "VALUE.OBJECT",
    "VALUE.OBJECTWITHLOCALPATH", "VALUE.OBJECTWITHPATH", "VALUE.REFARRAY", "VALUE.REFERENCE",
    "unknown"};

const char* const known_cim_attributes[34] = {
    "NAME", "TYPE", "ARRAYSIZE", "ASSOCIATION", "CELLPOS", "CIMVERSION", "CLASS", "CLASSNAME",
    "CLASSORIGIN", "CODE", "DESCRIPTION", "DTDVERSION", "ID", "INDICATION", "INSTANCEID",
    "ISARRAY", "METHOD", "OVERRIDABLE", "PARAMETER", "PARAMTYPE", "PROPAGATED", "PROPERTY",
    "PROTOCOLVERSION", "REFERENCE", "REFERENCECLASS", "SORTDIR", "SORTPOS", "SUPERCLASS",
    "VALUETYPE", "TOSUBCLASS", "TOINSTANCE", "TRANSLATABLE", "EmbeddedObject", "unknown"};

const char* const known_cim_types[16] = {
    "boolean", "string", "char16", "uint8", "sint8", "uint16", "sint16", "uint32",
    "sint32", "uint64", "sint64", "datetime", "real32", "real64", "unknown", "reference"};

const char* const known_cim_imethods[24] = {
    "GetClass", "GetInstance", "DeleteClass", "DeleteInstance", "CreateClass",
    "CreateInstance", "ModifyClass", "ModifyInstance", "EnumerateClasses",
    "EnumerateClassNames", "EnumerateInstances", "EnumerateInstanceNames", "ExecQuery",
    "Associators", "AssociatorNames", "References", "ReferenceNames", "GetProperty",
    "SetProperty", "GetQualifier", "SetQualifier", "DeleteQualifier", "EnumarateQualifiers",
    "unknown"};

bool EqualNoCase(const char* a, const char* b) {
  if (a == nullptr || b == nullptr) return false;
  for (;; ++a, ++b) {
    const int ca = std::toupper(static_cast<unsigned char>(*a));
    const int cb = std::toupper(static_cast<unsigned char>(*b));
    if (ca != cb) return false;
    if (ca == 0) return true;
  }
}

}  // namespace oxCIM
