#include "OxcimModel.h"

#include "SimModel.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <strings.h>

using oxCIM::CIMelement;

namespace oxcli {

int ElementId(const char* name) { return oxsim::ElemId(name); }

int AttributeId(const char* name) { return oxsim::AttrId(name); }

bool Is(const CIMelement* e, const char* kind) {
  return e != nullptr && e->m_Name != nullptr && std::strcmp(e->m_Name, kind) == 0;
}

std::string AttrOf(CIMelement* e, const char* name) {
  const char* v = e ? e->attr_find(AttributeId(name)) : nullptr;
  return v ? XmlDecode(v) : std::string();
}

namespace {

bool Inside(const CIMelement* e, const CIMelement* ancestor) {
  for (const CIMelement* p = e ? e->m_Parent : nullptr; p; p = p->m_Parent)
    if (p == ancestor) return true;
  return false;
}

bool SameNoCase(const std::string& a, const char* b) { return strcasecmp(a.c_str(), b) == 0; }

std::string TextOf(CIMelement* e) { return e && e->m_Value ? XmlDecode(e->m_Value) : ""; }

CIMelement* FirstChild(CIMelement* e, const char* kind) {
  for (CIMelement* c : ChildrenOf(e))
    if (Is(c, kind)) return c;
  return nullptr;
}

CIMelement* Append(CIMelement* parent, const char* kind) {
  CIMelement* e = parent->makeNextElement();
  if (e != nullptr) e->m_Name = oxCIM::known_cim_elements[ElementId(kind)];
  return e;
}

void Put(CIMelement* e, const char* attribute, const std::string& value) {
  e->attr_put(AttributeId(attribute), XmlEscape(value).c_str());
}

bool IsTrue(CIMelement* qualifierParent, const char* qualifier) {
  for (CIMelement* q : ChildrenOf(qualifierParent))
    if (Is(q, "QUALIFIER") && SameNoCase(AttrOf(q, "NAME"), qualifier)) {
      CIMelement* v = FirstChild(q, "VALUE");
      return v == nullptr || SameNoCase(TextOf(v), "true");
    }
  return false;
}

bool HasQualifier(CIMelement* e, const char* qualifier) {
  for (CIMelement* q : ChildrenOf(e))
    if (Is(q, "QUALIFIER") && SameNoCase(AttrOf(q, "NAME"), qualifier)) return true;
  return false;
}

}  // namespace

std::vector<CIMelement*> ChildrenOf(CIMelement* e) {
  std::vector<CIMelement*> out;
  for (CIMelement* c = e ? e->m_Next : nullptr; c && Inside(c, e); c = c->m_Next)
    if (c->m_Parent == e) out.push_back(c);
  return out;
}

std::vector<CIMelement*> FindAll(CIMelement* root, const char* kind) {
  std::vector<CIMelement*> out;
  if (Is(root, kind)) out.push_back(root);
  for (CIMelement* c = root ? root->m_Next : nullptr; c && Inside(c, root); c = c->m_Next)
    if (Is(c, kind)) out.push_back(c);
  return out;
}

std::string XmlEscape(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&apos;"; break;
      default: out += c;
    }
  }
  return out;
}

namespace {
void AppendUtf8(std::string& out, unsigned long cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | cp >> 6);
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | cp >> 12);
    out += static_cast<char>(0x80 | (cp >> 6 & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | cp >> 18);
    out += static_cast<char>(0x80 | (cp >> 12 & 0x3F));
    out += static_cast<char>(0x80 | (cp >> 6 & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}
}  // namespace

// The library hands texts over as they stood in the document.
std::string XmlDecode(const std::string& text) {
  static const struct {
    const char* entity;
    char c;
  } named[] = {{"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
  std::string out;
  for (size_t i = 0; i < text.size();) {
    if (text[i] != '&') {
      out += text[i++];
      continue;
    }
    bool done = false;
    for (const auto& n : named)
      if (text.compare(i, std::strlen(n.entity), n.entity) == 0) {
        out += n.c;
        i += std::strlen(n.entity);
        done = true;
        break;
      }
    const size_t semi = text.find(';', i);
    if (!done && text.compare(i, 2, "&#") == 0 && semi != std::string::npos && semi - i <= 10) {
      const bool hex = i + 2 < text.size() && (text[i + 2] == 'x' || text[i + 2] == 'X');
      const std::string digits = text.substr(i + (hex ? 3 : 2), semi - i - (hex ? 3 : 2));
      char* end = nullptr;
      const unsigned long cp = std::strtoul(digits.c_str(), &end, hex ? 16 : 10);
      if (!digits.empty() && *end == '\0' && cp > 0 && cp <= 0x10FFFF) {
        AppendUtf8(out, cp);
        i = semi + 1;
        done = true;
      }
    }
    if (!done) out += text[i++];
  }
  return out;
}

// --- reading -----------------------------------------------------------------------

InstancePath ReadPath(CIMelement* e) {
  InstancePath path;
  if (Is(e, "INSTANCEPATH") || Is(e, "LOCALINSTANCEPATH")) {
    for (CIMelement* c : ChildrenOf(e)) {
      if (Is(c, "INSTANCENAME")) {
        const InstancePath name = ReadPath(c);
        path.className = name.className;
        path.keys = name.keys;
      }
      for (CIMelement* h : FindAll(c, "HOST")) path.host = TextOf(h);
      for (CIMelement* n : FindAll(c, "NAMESPACE"))
        path.ns += (path.ns.empty() ? "" : "/") + AttrOf(n, "NAME");
    }
    return path;
  }
  if (!Is(e, "INSTANCENAME")) return path;
  path.className = AttrOf(e, "CLASSNAME");
  for (CIMelement* kb : ChildrenOf(e)) {
    if (!Is(kb, "KEYBINDING")) continue;
    KeyBinding key;
    key.name = AttrOf(kb, "NAME");
    for (CIMelement* v : ChildrenOf(kb)) {
      if (Is(v, "KEYVALUE")) {
        key.value = TextOf(v);
        key.valueType = AttrOf(v, "VALUETYPE");
        if (key.valueType.empty()) key.valueType = "string";
      } else if (Is(v, "VALUE.REFERENCE")) {
        key.valueType = "reference";
        for (CIMelement* r : ChildrenOf(v)) key.ref.push_back(ReadPath(r));
      }
    }
    path.keys.push_back(key);
  }
  return path;
}

CimValue ReadValue(CIMelement* e, const std::string& type) {
  CimValue v;
  v.type = type;
  if (Is(e, "VALUE")) {
    v.null = false;
    v.items.push_back(TextOf(e));
  } else if (Is(e, "VALUE.ARRAY") || Is(e, "VALUE.REFARRAY")) {
    v.null = false;
    v.array = true;
    for (CIMelement* item : ChildrenOf(e)) {
      if (Is(item, "VALUE")) v.items.push_back(TextOf(item));
      if (Is(item, "VALUE.REFERENCE"))
        for (CIMelement* r : ChildrenOf(item)) v.refs.push_back(ReadPath(r));
    }
    if (Is(e, "VALUE.REFARRAY")) v.type = "reference";
  } else if (Is(e, "VALUE.REFERENCE")) {
    v.null = false;
    v.type = "reference";
    for (CIMelement* r : ChildrenOf(e)) v.refs.push_back(ReadPath(r));
  }
  return v;
}

namespace {
Property ReadProperty(CIMelement* p) {
  Property prop;
  prop.name = AttrOf(p, "NAME");
  const bool ref = Is(p, "PROPERTY.REFERENCE");
  prop.value.type = ref ? "reference" : AttrOf(p, "TYPE");
  prop.value.array = Is(p, "PROPERTY.ARRAY");
  prop.referenceClass = AttrOf(p, "REFERENCECLASS");
  prop.key = IsTrue(p, "Key");
  for (CIMelement* c : ChildrenOf(p)) {
    if (Is(c, "VALUE") || Is(c, "VALUE.ARRAY") || Is(c, "VALUE.REFERENCE")) {
      const bool array = prop.value.array;
      prop.value = ReadValue(c, prop.value.type);
      prop.value.array = prop.value.array || array;
    }
  }
  return prop;
}

bool IsProperty(CIMelement* e) {
  return Is(e, "PROPERTY") || Is(e, "PROPERTY.ARRAY") || Is(e, "PROPERTY.REFERENCE");
}
}  // namespace

Instance ReadInstance(CIMelement* instance) {
  Instance inst;
  inst.className = AttrOf(instance, "CLASSNAME");
  for (CIMelement* p : ChildrenOf(instance))
    if (IsProperty(p)) inst.props.push_back(ReadProperty(p));
  return inst;
}

ClassDef ReadClass(CIMelement* cls) {
  ClassDef def;
  def.name = AttrOf(cls, "NAME");
  def.superclass = AttrOf(cls, "SUPERCLASS");
  for (CIMelement* c : ChildrenOf(cls)) {
    if (IsProperty(c)) def.props.push_back(ReadProperty(c));
    if (!Is(c, "METHOD")) continue;
    Method m;
    m.name = AttrOf(c, "NAME");
    m.type = AttrOf(c, "TYPE");
    for (CIMelement* p : ChildrenOf(c)) {
      Parameter par;
      par.name = AttrOf(p, "NAME");
      par.referenceClass = AttrOf(p, "REFERENCECLASS");
      if (Is(p, "PARAMETER") || Is(p, "PARAMETER.ARRAY")) {
        par.type = AttrOf(p, "TYPE");
        par.array = Is(p, "PARAMETER.ARRAY");
      } else if (Is(p, "PARAMETER.REFERENCE") || Is(p, "PARAMETER.REFARRAY")) {
        par.type = "reference";
        par.array = Is(p, "PARAMETER.REFARRAY");
      } else {
        continue;
      }
      // Without qualifiers a parameter is an input, as the default says.
      par.out = IsTrue(p, "Out");
      par.in = HasQualifier(p, "In") ? IsTrue(p, "In") : true;
      m.params.push_back(par);
    }
    def.methods.push_back(m);
  }
  return def;
}

std::vector<Instance> ReadInstances(CIMelement* root) {
  std::vector<Instance> out;
  for (CIMelement* inst : FindAll(root, "INSTANCE")) {
    // An INSTANCE inside a property value is an embedded object, not an answer of its own.
    bool nested = false;
    for (CIMelement* p = inst->m_Parent; p && !nested; p = p->m_Parent)
      nested = IsProperty(p) || Is(p, "INSTANCE");
    if (nested) continue;
    Instance i = ReadInstance(inst);
    CIMelement* holder = inst->m_Parent;
    if (Is(holder, "VALUE.NAMEDINSTANCE") || Is(holder, "VALUE.OBJECTWITHPATH") ||
        Is(holder, "VALUE.OBJECTWITHLOCALPATH")) {
      for (CIMelement* c : ChildrenOf(holder))
        if (Is(c, "INSTANCENAME") || Is(c, "INSTANCEPATH") || Is(c, "LOCALINSTANCEPATH")) {
          i.path = ReadPath(c);
          i.hasPath = true;
        }
    }
    out.push_back(std::move(i));
  }
  return out;
}

// --- building ----------------------------------------------------------------------

CIMelement* BuildInstanceName(CIMelement* parent, const InstancePath& path) {
  CIMelement* name = Append(parent, "INSTANCENAME");
  if (name == nullptr) return nullptr;
  Put(name, "CLASSNAME", path.className);
  for (const KeyBinding& k : path.keys) {
    CIMelement* kb = Append(name, "KEYBINDING");
    Put(kb, "NAME", k.name);
    if (k.valueType == "reference" && !k.ref.empty()) {
      CIMelement* ref = Append(kb, "VALUE.REFERENCE");
      BuildInstanceName(ref, k.ref[0]);
    } else {
      CIMelement* kv = Append(kb, "KEYVALUE");
      Put(kv, "VALUETYPE", k.valueType);
      kv->m_Value = strdup(XmlEscape(k.value).c_str());
    }
  }
  return name;
}

void BuildInstance(CIMelement& root, const std::string& className,
                   const std::vector<Assignment>& props) {
  CIMelement* inst = Append(&root, "INSTANCE");
  Put(inst, "CLASSNAME", className);
  for (const Assignment& a : props) {
    if (a.type == "reference") {
      CIMelement* p = Append(inst, "PROPERTY.REFERENCE");
      Put(p, "NAME", a.name);
      if (!a.refs.empty()) {
        Put(p, "REFERENCECLASS", a.refs[0].className);
        BuildInstanceName(Append(p, "VALUE.REFERENCE"), a.refs[0]);
      }
      continue;
    }
    CIMelement* p = Append(inst, a.array ? "PROPERTY.ARRAY" : "PROPERTY");
    Put(p, "NAME", a.name);
    Put(p, "TYPE", a.type);
    if (a.null) continue;
    CIMelement* holder = a.array ? Append(p, "VALUE.ARRAY") : p;
    for (const std::string& item : a.items) {
      CIMelement* v = Append(holder, "VALUE");
      v->m_Value = strdup(XmlEscape(item).c_str());
    }
  }
}

// --- command-line text -------------------------------------------------------------

int TypeId(const std::string& name) {
  for (int i = 0; i < 16; ++i)
    if (i != 14 && name == oxCIM::known_cim_types[i]) return i;
  return -1;
}

bool IsCimType(const std::string& name) { return TypeId(name) >= 0; }

namespace {

bool ReadsAsNumber(const std::string& s) {
  if (s.empty()) return false;
  char* end = nullptr;
  errno = 0;
  std::strtod(s.c_str(), &end);
  return *end == '\0' && s.find_first_of("xXnNiI") == std::string::npos;
}

// One key value: "text" (string, \" and \\ escapes) or a bare word up to the next comma.
bool ReadKeyValue(const std::string& text, size_t& i, KeyBinding& key, std::string& error) {
  if (i < text.size() && text[i] == '"') {
    for (++i; i < text.size() && text[i] != '"'; ++i) {
      if (text[i] == '\\' && i + 1 < text.size()) ++i;
      key.value += text[i];
    }
    if (i >= text.size()) {
      error = "unterminated quote in " + text;
      return false;
    }
    ++i;
    key.valueType = "string";
    return true;
  }
  const size_t end = text.find(',', i);
  key.value = text.substr(i, end == std::string::npos ? std::string::npos : end - i);
  i = end == std::string::npos ? text.size() : end;
  key.valueType = key.value == "true" || key.value == "false" ? "boolean"
                  : ReadsAsNumber(key.value)                  ? "numeric"
                                                              : "string";
  return true;
}

}  // namespace

bool ParsePath(const std::string& text, InstancePath& path, std::string& error) {
  path = InstancePath();
  std::string rest = text;
  // An optional host and namespace, as printed: //host/root/cimv2:CIM_X.K="v"
  if (rest.compare(0, 2, "//") == 0) {
    const size_t slash = rest.find('/', 2);
    path.host = rest.substr(2, slash == std::string::npos ? slash : slash - 2);
    rest = slash == std::string::npos ? "" : rest.substr(slash + 1);
  }
  const size_t colon = rest.find(':'), dot = rest.find('.');
  if (colon != std::string::npos && (dot == std::string::npos || colon < dot)) {
    path.ns = rest.substr(0, colon);
    rest = rest.substr(colon + 1);
  }
  const size_t d = rest.find('.');
  path.className = rest.substr(0, d);
  if (path.className.empty() ||
      path.className.find_first_of(" =,\"") != std::string::npos) {
    error = "bad instance path: " + text;
    return false;
  }
  if (d == std::string::npos) return true;
  for (size_t i = d + 1; i <= rest.size();) {
    const size_t eq = rest.find('=', i);
    if (eq == std::string::npos || eq == i) {
      error = "expected KEY=VALUE in " + text;
      return false;
    }
    KeyBinding key;
    key.name = rest.substr(i, eq - i);
    i = eq + 1;
    if (!ReadKeyValue(rest, i, key, error)) return false;
    path.keys.push_back(key);
    if (i >= rest.size()) break;
    if (rest[i] != ',') {
      error = "expected ',' after " + key.name + " in " + text;
      return false;
    }
    ++i;
  }
  return true;
}

bool CheckValue(const std::string& type, const std::string& text, std::string& error) {
  const auto fail = [&] {
    error = "not a " + type + ": " + text;
    return false;
  };
  if (type == "boolean") return text == "true" || text == "false" ? true : fail();
  if (type == "char16") return text.size() == 1 ? true : fail();
  if (type == "real32" || type == "real64") {
    if (text.empty()) return fail();
    char* end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    return *end == '\0' && std::isfinite(v) ? true : fail();
  }
  const bool isSigned = type[0] == 's' && type.compare(0, 4, "sint") == 0;
  if (!isSigned && type.compare(0, 4, "uint") != 0) return true;
  const int bits = std::atoi(type.c_str() + 4);
  if (text.empty() || (!isSigned && text[0] == '-')) return fail();
  char* end = nullptr;
  errno = 0;
  if (isSigned) {
    const long long v = std::strtoll(text.c_str(), &end, 10);
    const long long lim = bits == 64 ? std::numeric_limits<long long>::max()
                                     : (1LL << (bits - 1)) - 1;
    if (*end != '\0' || errno == ERANGE || v > lim || v < -lim - 1) return fail();
  } else {
    const unsigned long long v = std::strtoull(text.c_str(), &end, 10);
    const unsigned long long lim =
        bits == 64 ? std::numeric_limits<unsigned long long>::max() : (1ULL << bits) - 1;
    if (*end != '\0' || errno == ERANGE || v > lim) return fail();
  }
  return true;
}

bool ParseAssignment(const std::string& text, Assignment& out, std::string& error) {
  out = Assignment();
  const size_t eq = text.find('=');
  if (eq == std::string::npos || eq == 0) {
    error = "expected NAME=VALUE[:type]: " + text;
    return false;
  }
  out.name = text.substr(0, eq);
  std::string value = text.substr(eq + 1);
  // The type suffix counts only when it names a type: "12:30" stays a string.
  const size_t colon = value.rfind(':');
  if (colon != std::string::npos) {
    std::string type = value.substr(colon + 1);
    const bool array = type.size() > 2 && type.compare(type.size() - 2, 2, "[]") == 0;
    if (array) type.resize(type.size() - 2);
    if (IsCimType(type)) {
      out.type = type;
      out.array = array;
      value.resize(colon);
    }
  }
  if (out.type == "reference") {
    if (out.array) {
      error = "reference arrays are not supported: " + text;
      return false;
    }
    InstancePath ref;
    if (!ParsePath(value, ref, error)) return false;
    out.refs.push_back(ref);
    return true;
  }
  if (value.empty() && out.type != "string") {
    out.null = true;
    return true;
  }
  if (out.array) {
    for (size_t i = 0; i <= value.size();) {
      const size_t comma = value.find(',', i);
      out.items.push_back(value.substr(i, comma == std::string::npos ? comma : comma - i));
      if (comma == std::string::npos) break;
      i = comma + 1;
    }
    if (value.empty()) out.items.clear();
  } else {
    out.items.push_back(value);
  }
  for (const std::string& item : out.items)
    if (!CheckValue(out.type, item, error)) return false;
  return true;
}

}  // namespace oxcli
