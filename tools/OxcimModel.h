// oxcim's view of CIM objects: plain values read from the library's element trees, the
// element trees it builds from command-line text, and the parsing of that text.
#pragma once

#include <oxCIM.h>

#include <string>
#include <vector>

namespace oxcli {

struct InstancePath;

// A property, parameter or return value. Texts are decoded (no XML entities left).
struct CimValue {
  std::string type;  // a CIM type name; "reference" for references, "" when the answer says none
  bool array = false;
  bool null = true;
  std::vector<std::string> items;   // one text for a scalar
  std::vector<InstancePath> refs;   // reference values
};

struct KeyBinding {
  std::string name, value;
  std::string valueType;  // "string", "numeric", "boolean" or "reference"
  std::vector<InstancePath> ref;  // the path of a reference key (one entry)
};

struct InstancePath {
  std::string host, ns, className;
  std::vector<KeyBinding> keys;
};

struct Property {
  std::string name;
  CimValue value;
  bool key = false;
  std::string referenceClass;
};

struct Instance {
  bool hasPath = false;
  InstancePath path;
  std::string className;
  std::vector<Property> props;
};

struct Parameter {
  std::string name, type, referenceClass;
  bool array = false, in = true, out = false;
};

struct Method {
  std::string name, type;
  std::vector<Parameter> params;
};

struct ClassDef {
  std::string name, superclass;
  std::vector<Property> props;  // the default value, if any, in value
  std::vector<Method> methods;
};

// --- element trees -----------------------------------------------------------------

int ElementId(const char* name);
int AttributeId(const char* name);
bool Is(const oxCIM::CIMelement* e, const char* kind);
std::string AttrOf(oxCIM::CIMelement* e, const char* name);  // decoded; "" when missing
std::vector<oxCIM::CIMelement*> ChildrenOf(oxCIM::CIMelement* e);
// Every element of the kind under (and including) root, in document order.
std::vector<oxCIM::CIMelement*> FindAll(oxCIM::CIMelement* root, const char* kind);

std::string XmlEscape(const std::string& text);
std::string XmlDecode(const std::string& text);

InstancePath ReadPath(oxCIM::CIMelement* e);  // INSTANCENAME, INSTANCEPATH or LOCALINSTANCEPATH
Instance ReadInstance(oxCIM::CIMelement* instance);
ClassDef ReadClass(oxCIM::CIMelement* cls);
// VALUE, VALUE.ARRAY, VALUE.REFERENCE or VALUE.REFARRAY; null when e is none of them.
CimValue ReadValue(oxCIM::CIMelement* e, const std::string& type);
// Every instance an answer carries, with its path where the answer gives one.
std::vector<Instance> ReadInstances(oxCIM::CIMelement* root);

// Appends an INSTANCENAME for the path under parent (or into parent when it is empty).
oxCIM::CIMelement* BuildInstanceName(oxCIM::CIMelement* parent, const InstancePath& path);

// --- command-line text -------------------------------------------------------------

// NAME=VALUE[:type] where type is a CIM type name, with "[]" for an array whose items are
// separated by commas; a reference value is an instance path.
struct Assignment {
  std::string name, type = "string";
  bool array = false, null = false;
  std::vector<std::string> items;
  std::vector<InstancePath> refs;
};

bool IsCimType(const std::string& name);
int TypeId(const std::string& name);  // index in known_cim_types, -1 when unknown

// CLASS[.KEY=VALUE,...]; a value in double quotes is a string and may hold commas and
// \" escapes; an unquoted one is a number or boolean when it reads as one.
bool ParsePath(const std::string& text, InstancePath& path, std::string& error);
bool ParseAssignment(const std::string& text, Assignment& out, std::string& error);
// Checks a value against its type: numbers in range, booleans, and so on.
bool CheckValue(const std::string& type, const std::string& text, std::string& error);

// An INSTANCE of the class holding the assigned properties, built into root (empty).
void BuildInstance(oxCIM::CIMelement& root, const std::string& className,
                   const std::vector<Assignment>& props);

}  // namespace oxcli
