// The simulator's CIM data: classes and instances per namespace, the built-in storage
// model, and their CIM-XML form (written for answers and repositories, read back from
// requests and repositories with the library's own parser).
#pragma once

#include <oxCIM.h>

#include <map>
#include <string>
#include <vector>

namespace oxsim {

// Kind and attribute tests by name, so the tools need nothing beyond the public tables.
bool IsKind(const oxCIM::CIMelement* e, const char* name);
int AttrId(const char* name);
int ElemId(const char* name);
const char* Attr(oxCIM::CIMelement* e, const char* name);
bool IsInside(const oxCIM::CIMelement* e, const oxCIM::CIMelement* ancestor);
// Children of e in document order (direct children only).
std::vector<oxCIM::CIMelement*> Children(oxCIM::CIMelement* e, const char* kind = nullptr);
// The element and its subtree as CIM-XML, texts as stored (the parser keeps them escaped).
std::string TreeXml(oxCIM::CIMelement* e);

std::string Esc(const std::string& s);
std::string Unesc(const std::string& s);

struct SimProperty {
  std::string name, type;  // type "reference" for a reference
  bool key = false, array = false;
  std::string refClass;
};
struct SimParameter {
  std::string name, type;  // "ref:CLASS" for a reference
  bool array = false, out = false;
};
struct SimMethod {
  std::string name, type;
  std::vector<SimParameter> params;
};
// Property name -> values; a property without an entry is NULL. A reference value is the
// CIM-XML of its INSTANCENAME or INSTANCEPATH.
using SimInstance = std::map<std::string, std::vector<std::string>>;
struct SimClass {
  std::string ns, name, super;
  std::vector<SimProperty> props;
  std::vector<SimMethod> methods;
  std::vector<SimInstance> instances;

  const SimProperty* prop(const std::string& name) const;  // any case
};

// Everything a server holds: namespaces (also those without classes) and classes.
struct SimRepository {
  std::vector<std::string> namespaces;
  std::vector<SimClass> classes;

  // A storage array: root/cimv2 (system, volumes, disks), root/interop (namespaces and the
  // indication classes).
  static SimRepository BuiltIn();

  bool hasNamespace(const std::string& ns) const;
  SimClass* find(const std::string& ns, const std::string& name);
  const SimClass* find(const std::string& ns, const std::string& name) const;
  // True when cls is base or derives from it within ns.
  bool isA(const std::string& ns, const std::string& cls, const std::string& base) const;
};

// CIM-XML of the model.
std::string ClassXml(const SimClass& c);
std::string NameXml(const SimClass& c, const SimInstance& i);
std::string InstanceXml(const SimClass& c, const SimInstance& i);
std::string ValueXml(const SimProperty& p, const std::vector<std::string>& v);

// From a parsed CLASS element.
SimClass ClassFromTree(oxCIM::CIMelement* cls, const std::string& ns);
// Properties of a parsed INSTANCE element into i, names as the class spells them. Unknown
// properties fail with a reason, unless ignoreUnknown.
bool InstanceFromTree(oxCIM::CIMelement* inst, const SimClass& c, SimInstance& i,
                      std::string& error, bool ignoreUnknown = false);
// Key bindings of a parsed INSTANCENAME as (name, comparable value) pairs.
std::vector<std::pair<std::string, std::string>> KeysFromTree(oxCIM::CIMelement* name);
// Comparable form of a reference value: class and sorted keys, host and namespace left out.
std::string RefKey(const std::string& referenceXml);
// A stored value in comparable form (references by RefKey).
std::string Comparable(const SimProperty& p, const std::string& value);

}  // namespace oxsim
