#include "SimModel.h"

#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "SimServer.h"

namespace oxsim {

using oxCIM::CIMelement;

bool IsKind(const CIMelement* e, const char* name) {
  return e != nullptr && e->m_Name != nullptr && std::strcmp(e->m_Name, name) == 0;
}

int AttrId(const char* name) {
  for (int i = 0; i < 34; ++i)
    if (std::strcmp(oxCIM::known_cim_attributes[i], name) == 0) return i;
  return 33;
}

int ElemId(const char* name) {
  for (int i = 0; i < 71; ++i)
    if (std::strcmp(oxCIM::known_cim_elements[i], name) == 0) return i;
  return 70;
}

const char* Attr(CIMelement* e, const char* name) {
  const char* v = e ? e->attr_find(AttrId(name)) : nullptr;
  return v ? v : "";
}

bool IsInside(const CIMelement* e, const CIMelement* ancestor) {
  for (const CIMelement* p = e ? e->m_Parent : nullptr; p; p = p->m_Parent)
    if (p == ancestor) return true;
  return false;
}

std::vector<CIMelement*> Children(CIMelement* e, const char* kind) {
  std::vector<CIMelement*> out;
  for (CIMelement* c = e ? e->m_Next : nullptr; c && IsInside(c, e); c = c->m_Next)
    if (c->m_Parent == e && (kind == nullptr || IsKind(c, kind))) out.push_back(c);
  return out;
}

std::string TreeXml(CIMelement* e) {
  if (e == nullptr || e->m_Name == nullptr) return {};
  std::string x = std::string("<") + e->m_Name;
  char* value = nullptr;
  for (unsigned long i = 0;; ++i) {
    const int id = e->attr_get(i, &value);
    if (id < 0 || id >= 33) break;
    x += std::string(" ") + oxCIM::known_cim_attributes[id] + "=\"" + value + "\"";
  }
  const std::vector<CIMelement*> kids = Children(e);
  if (kids.empty()) {
    if (e->m_Value == nullptr) return x + "/>";
    return x + ">" + e->m_Value + "</" + e->m_Name + ">";
  }
  x += ">";
  for (CIMelement* k : kids) x += TreeXml(k);
  return x + "</" + e->m_Name + ">";
}

std::string Esc(const std::string& s) {
  std::string out;
  out.reserve(s.size());
  for (char c : s) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&apos;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string Unesc(const std::string& s) {
  if (s.find('&') == std::string::npos) return s;
  static const std::pair<const char*, char> kNamed[] = {
      {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
  std::string out;
  for (std::size_t i = 0; i < s.size();) {
    bool done = false;
    if (s[i] == '&') {
      for (const auto& n : kNamed) {
        const std::size_t len = std::strlen(n.first);
        if (s.compare(i, len, n.first) == 0) {
          out += n.second;
          i += len;
          done = true;
          break;
        }
      }
      if (!done && s.compare(i, 2, "&#") == 0) {
        const std::size_t semi = s.find(';', i);
        if (semi != std::string::npos && semi - i < 10) {
          const bool hex = s[i + 2] == 'x' || s[i + 2] == 'X';
          const unsigned long v =
              std::strtoul(s.c_str() + i + (hex ? 3 : 2), nullptr, hex ? 16 : 10);
          if (v > 0 && v < 128) {
            out += static_cast<char>(v);
            i = semi + 1;
            done = true;
          }
        }
      }
    }
    if (!done) out += s[i++];
  }
  return out;
}

const SimProperty* SimClass::prop(const std::string& n) const {
  for (const SimProperty& p : props)
    if (SameNoCase(p.name, n)) return &p;
  return nullptr;
}

bool SimRepository::hasNamespace(const std::string& ns) const {
  for (const std::string& n : namespaces)
    if (SameNoCase(n, ns)) return true;
  return false;
}

SimClass* SimRepository::find(const std::string& ns, const std::string& name) {
  for (SimClass& c : classes)
    if (SameNoCase(c.ns, ns) && SameNoCase(c.name, name)) return &c;
  return nullptr;
}

const SimClass* SimRepository::find(const std::string& ns, const std::string& name) const {
  return const_cast<SimRepository*>(this)->find(ns, name);
}

bool SimRepository::isA(const std::string& ns, const std::string& cls,
                        const std::string& base) const {
  std::string c = cls;
  for (int depth = 0; depth < 64 && !c.empty(); ++depth) {
    if (SameNoCase(c, base)) return true;
    const SimClass* k = find(ns, c);
    if (k == nullptr) return false;
    c = k->super;
  }
  return false;
}

// --- CIM-XML writers -------------------------------------------------------------

namespace {

std::string TypeAttrs(const std::string& name, const std::string& type) {
  return " NAME=\"" + Esc(name) + "\" TYPE=\"" + type + "\"";
}

const char* ValueType(const std::string& type) {
  if (type == "boolean") return "boolean";
  if (type.compare(0, 4, "uint") == 0 || type.compare(0, 4, "sint") == 0 ||
      type.compare(0, 4, "real") == 0)
    return "numeric";
  return "string";
}

}  // namespace

std::string ClassXml(const SimClass& c) {
  std::string x = "<CLASS NAME=\"" + Esc(c.name) + "\"";
  if (!c.super.empty()) x += " SUPERCLASS=\"" + Esc(c.super) + "\"";
  x += ">\n";
  for (const SimProperty& p : c.props) {
    const bool ref = p.type == "reference";
    const std::string tag = ref ? "PROPERTY.REFERENCE" : p.array ? "PROPERTY.ARRAY" : "PROPERTY";
    x += "<" + tag +
         (ref ? " NAME=\"" + Esc(p.name) + "\" REFERENCECLASS=\"" + Esc(p.refClass) + "\""
              : TypeAttrs(p.name, p.type));
    if (p.key)
      x += ">\n<QUALIFIER NAME=\"Key\" TYPE=\"boolean\" OVERRIDABLE=\"false\">\n"
           "<VALUE>true</VALUE>\n</QUALIFIER>\n</" +
           tag + ">\n";
    else
      x += "/>\n";
  }
  for (const SimMethod& m : c.methods) {
    x += "<METHOD" + TypeAttrs(m.name, m.type) + ">\n";
    for (const SimParameter& p : m.params) {
      const bool ref = p.type.compare(0, 4, "ref:") == 0;
      const std::string tag = ref       ? (p.array ? "PARAMETER.REFARRAY" : "PARAMETER.REFERENCE")
                              : p.array ? "PARAMETER.ARRAY"
                                        : "PARAMETER";
      x += "<" + tag +
           (ref ? " NAME=\"" + Esc(p.name) + "\" REFERENCECLASS=\"" + Esc(p.type.substr(4)) + "\""
                : TypeAttrs(p.name, p.type)) +
           ">\n<QUALIFIER NAME=\"" + (p.out ? "Out" : "In") +
           "\" TYPE=\"boolean\">\n<VALUE>true</VALUE>\n</QUALIFIER>\n</" + tag + ">\n";
    }
    x += "</METHOD>\n";
  }
  return x + "</CLASS>\n";
}

std::string NameXml(const SimClass& c, const SimInstance& i) {
  std::string x = "<INSTANCENAME CLASSNAME=\"" + Esc(c.name) + "\">\n";
  for (const SimProperty& p : c.props) {
    const auto v = i.find(p.name);
    if (!p.key || v == i.end() || v->second.empty()) continue;
    x += "<KEYBINDING NAME=\"" + Esc(p.name) + "\">\n";
    if (p.type == "reference")
      x += "<VALUE.REFERENCE>\n" + v->second[0] + "\n</VALUE.REFERENCE>\n";
    else
      x += std::string("<KEYVALUE VALUETYPE=\"") + ValueType(p.type) + "\">" + Esc(v->second[0]) +
           "</KEYVALUE>\n";
    x += "</KEYBINDING>\n";
  }
  return x + "</INSTANCENAME>\n";
}

std::string ValueXml(const SimProperty& p, const std::vector<std::string>& v) {
  if (p.type == "reference") return "<VALUE.REFERENCE>\n" + v.at(0) + "\n</VALUE.REFERENCE>\n";
  if (!p.array) return "<VALUE>" + Esc(v.at(0)) + "</VALUE>\n";
  std::string x = "<VALUE.ARRAY>\n";
  for (const std::string& e : v) x += "<VALUE>" + Esc(e) + "</VALUE>\n";
  return x + "</VALUE.ARRAY>\n";
}

std::string InstanceXml(const SimClass& c, const SimInstance& i) {
  std::string x = "<INSTANCE CLASSNAME=\"" + Esc(c.name) + "\">\n";
  for (const SimProperty& p : c.props) {
    const bool ref = p.type == "reference";
    const std::string tag = ref ? "PROPERTY.REFERENCE" : p.array ? "PROPERTY.ARRAY" : "PROPERTY";
    const std::string attrs =
        ref ? " NAME=\"" + Esc(p.name) + "\" REFERENCECLASS=\"" + Esc(p.refClass) + "\""
            : TypeAttrs(p.name, p.type);
    const auto v = i.find(p.name);
    if (v == i.end() || (!p.array && v->second.empty()))
      x += "<" + tag + attrs + "/>\n";
    else
      x += "<" + tag + attrs + ">\n" + ValueXml(p, v->second) + "</" + tag + ">\n";
  }
  return x + "</INSTANCE>\n";
}

// --- CIM-XML readers -------------------------------------------------------------

namespace {

bool QualifierTrue(CIMelement* owner, const char* name) {
  for (CIMelement* q : Children(owner, "QUALIFIER")) {
    if (strcasecmp(Attr(q, "NAME"), name) != 0) continue;
    for (CIMelement* v : Children(q, "VALUE"))
      return v->m_Value && strcasecmp(v->m_Value, "true") == 0;
  }
  return false;
}

std::string ValueOf(CIMelement* v) { return v && v->m_Value ? Unesc(v->m_Value) : ""; }

}  // namespace

SimClass ClassFromTree(CIMelement* cls, const std::string& ns) {
  SimClass c;
  c.ns = ns;
  c.name = Attr(cls, "NAME");
  c.super = Attr(cls, "SUPERCLASS");
  for (CIMelement* e : Children(cls)) {
    if (IsKind(e, "PROPERTY") || IsKind(e, "PROPERTY.ARRAY") || IsKind(e, "PROPERTY.REFERENCE")) {
      SimProperty p;
      p.name = Attr(e, "NAME");
      p.array = IsKind(e, "PROPERTY.ARRAY");
      if (IsKind(e, "PROPERTY.REFERENCE")) {
        p.type = "reference";
        p.refClass = Attr(e, "REFERENCECLASS");
      } else {
        p.type = Attr(e, "TYPE");
      }
      p.key = QualifierTrue(e, "Key");
      c.props.push_back(p);
    } else if (IsKind(e, "METHOD")) {
      SimMethod m{Attr(e, "NAME"), Attr(e, "TYPE"), {}};
      for (CIMelement* a : Children(e)) {
        SimParameter p;
        p.name = Attr(a, "NAME");
        if (IsKind(a, "PARAMETER") || IsKind(a, "PARAMETER.ARRAY")) {
          p.type = Attr(a, "TYPE");
          p.array = IsKind(a, "PARAMETER.ARRAY");
        } else if (IsKind(a, "PARAMETER.REFERENCE") || IsKind(a, "PARAMETER.REFARRAY")) {
          p.type = std::string("ref:") + Attr(a, "REFERENCECLASS");
          p.array = IsKind(a, "PARAMETER.REFARRAY");
        } else {
          continue;
        }
        p.out = QualifierTrue(a, "Out");
        m.params.push_back(p);
      }
      c.methods.push_back(m);
    }
  }
  return c;
}

bool InstanceFromTree(CIMelement* inst, const SimClass& c, SimInstance& i, std::string& error,
                      bool ignoreUnknown) {
  for (CIMelement* e : Children(inst)) {
    const bool plain = IsKind(e, "PROPERTY"), array = IsKind(e, "PROPERTY.ARRAY"),
               ref = IsKind(e, "PROPERTY.REFERENCE");
    if (!plain && !array && !ref) continue;
    const SimProperty* p = c.prop(Attr(e, "NAME"));
    if (p == nullptr) {
      if (ignoreUnknown) continue;
      error = std::string("no property ") + Attr(e, "NAME") + " in class " + c.name;
      return false;
    }
    std::vector<std::string> values;
    bool isNull = true;
    for (CIMelement* v : Children(e)) {
      if (IsKind(v, "VALUE")) {
        values.push_back(ValueOf(v));
        isNull = false;
      } else if (IsKind(v, "VALUE.ARRAY")) {
        for (CIMelement* a : Children(v, "VALUE")) values.push_back(ValueOf(a));
        isNull = false;
      } else if (IsKind(v, "VALUE.REFERENCE")) {
        const std::vector<CIMelement*> target = Children(v);
        if (!target.empty()) {
          values.push_back(TreeXml(target[0]));
          isNull = false;
        }
      }
    }
    if (isNull)
      i.erase(p->name);
    else
      i[p->name] = values;
  }
  return true;
}

std::vector<std::pair<std::string, std::string>> KeysFromTree(CIMelement* name) {
  std::vector<std::pair<std::string, std::string>> keys;
  for (CIMelement* k : Children(name, "KEYBINDING")) {
    for (CIMelement* v : Children(k)) {
      if (IsKind(v, "KEYVALUE")) {
        keys.emplace_back(Attr(k, "NAME"), ValueOf(v));
        break;
      }
      if (IsKind(v, "VALUE.REFERENCE")) {
        const std::vector<CIMelement*> target = Children(v);
        keys.emplace_back(Attr(k, "NAME"), target.empty() ? "" : RefKey(TreeXml(target[0])));
        break;
      }
    }
  }
  return keys;
}

namespace {

std::string Lower(std::string s) {
  for (char& ch : s) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
  return s;
}

// Value of attr="..." after pos, or "".
std::string AttrAfter(const std::string& x, std::size_t pos, const char* attr) {
  const std::string pat = std::string(attr) + "=\"";
  const std::size_t a = x.find(pat, pos);
  if (a == std::string::npos) return {};
  const std::size_t b = x.find('"', a + pat.size());
  return b == std::string::npos ? std::string() : x.substr(a + pat.size(), b - a - pat.size());
}

}  // namespace

std::string RefKey(const std::string& x) {
  const std::size_t in = x.find("<INSTANCENAME");
  if (in == std::string::npos) return Lower(x);
  std::string out = Lower(Unesc(AttrAfter(x, in, "CLASSNAME")));
  std::vector<std::string> keys;
  for (std::size_t kb = x.find("<KEYBINDING", in); kb != std::string::npos;
       kb = x.find("<KEYBINDING", kb + 1)) {
    const std::string name = Lower(AttrAfter(x, kb, "NAME"));
    const std::size_t kv = x.find("<KEYVALUE", kb);
    const std::size_t gt = kv == std::string::npos ? kv : x.find('>', kv);
    const std::size_t end = gt == std::string::npos ? gt : x.find("</KEYVALUE>", gt);
    if (end == std::string::npos) continue;
    keys.push_back(name + "=" + Unesc(x.substr(gt + 1, end - gt - 1)));
  }
  std::sort(keys.begin(), keys.end());
  for (const std::string& k : keys) out += "|" + k;
  return out;
}

std::string Comparable(const SimProperty& p, const std::string& value) {
  return p.type == "reference" ? RefKey(value) : value;
}

// --- the built-in model: one storage array -----------------------------------------

SimRepository SimRepository::BuiltIn() {
  const std::string system = "SN-4C3A0012", cs = "CIM_ComputerSystem";
  const auto key = [](const char* n, const char* t) { return SimProperty{n, t, true, false, ""}; };
  const auto prop = [](const char* n, const char* t) {
    return SimProperty{n, t, false, false, ""};
  };
  const auto arr = [](const char* n, const char* t) { return SimProperty{n, t, false, true, ""}; };
  const auto ref = [](const char* n, const char* c, bool k) {
    return SimProperty{n, "reference", k, false, c};
  };
  const SimMethod stateChange{"RequestStateChange",
                              "uint32",
                              {{"RequestedState", "uint16", false, false},
                               {"Job", "ref:CIM_ConcreteJob", false, true},
                               {"TimeoutPeriod", "datetime", false, false}}};
  SimRepository r;
  r.namespaces = {"root/cimv2", "root/interop"};
  std::vector<SimClass>& m = r.classes;

  SimClass sys{"root/cimv2", cs, "CIM_System", {}, {stateChange}, {}};
  sys.methods.push_back(
      {"GetStorageDeviceTree",
       "uint32",
       {{"Root", "ref:CIM_ComputerSystem", false, true}, {"Devices", "string", true, true}}});
  sys.methods.push_back(
      {"RaiseAlert",
       "uint32",
       {{"Message", "string", false, false}, {"PerceivedSeverity", "uint16", false, false}}});
  sys.props = {key("CreationClassName", "string"), key("Name", "string"),
               prop("ElementName", "string"),      prop("NameFormat", "string"),
               arr("Dedicated", "uint16"),         arr("OperationalStatus", "uint16"),
               prop("EnabledState", "uint16"),     prop("HealthState", "uint16")};
  sys.instances.push_back({{"CreationClassName", {cs}},
                           {"Name", {system}},
                           {"ElementName", {"stor01 storage array"}},
                           {"NameFormat", {"Other"}},
                           {"Dedicated", {"3", "15"}},
                           {"OperationalStatus", {"2"}},
                           {"EnabledState", {"2"}},
                           {"HealthState", {"5"}}});
  m.push_back(sys);

  const std::vector<SimProperty> deviceKeys = {
      key("SystemCreationClassName", "string"), key("SystemName", "string"),
      key("CreationClassName", "string"), key("DeviceID", "string")};

  SimClass vol{"root/cimv2", "CIM_StorageVolume", "CIM_StorageExtent",
               deviceKeys,   {stateChange},       {}};
  for (const SimProperty& p :
       {prop("ElementName", "string"), prop("Name", "string"), prop("NameFormat", "uint16"),
        prop("BlockSize", "uint64"), prop("NumberOfBlocks", "uint64"),
        prop("ConsumableBlocks", "uint64"), arr("OperationalStatus", "uint16"),
        prop("HealthState", "uint16"), prop("Primordial", "boolean")})
    vol.props.push_back(p);
  const char* names[12] = {"db-data", "db-logs", "vm-store-a", "vm-store-b", "backup",  "home",
                           "scratch", "mail",    "web",        "ci-cache",   "archive", "spare"};
  const unsigned gib[12] = {500, 100, 2048, 2048, 4096, 250, 64, 200, 50, 128, 8192, 10};
  for (int n = 0; n < 12; ++n) {
    char id[8], wwn[40];
    std::snprintf(id, sizeof id, "vol%02d", n + 1);
    std::snprintf(wwn, sizeof wwn, "600A0B80002A6F2C00000%03X5E8F1C42", n + 1);
    const unsigned block = n == 10 ? 4096 : 512;
    const unsigned long long blocks = gib[n] * (1073741824ull / block);
    const bool degraded = n == 6, stopped = n == 11;
    vol.instances.push_back({{"SystemCreationClassName", {cs}},
                             {"SystemName", {system}},
                             {"CreationClassName", {"CIM_StorageVolume"}},
                             {"DeviceID", {id}},
                             {"ElementName", {names[n]}},
                             {"Name", {wwn}},
                             {"NameFormat", {"2"}},
                             {"BlockSize", {std::to_string(block)}},
                             {"NumberOfBlocks", {std::to_string(blocks)}},
                             {"ConsumableBlocks", {std::to_string(blocks - 2048)}},
                             {"OperationalStatus", degraded ? std::vector<std::string>{"3", "32768"}
                                                   : stopped ? std::vector<std::string>{"10"}
                                                             : std::vector<std::string>{"2"}},
                             {"HealthState", {degraded ? "10" : "5"}},
                             {"Primordial", {"false"}}});
  }
  m.push_back(vol);

  SimClass disk{"root/cimv2", "CIM_DiskDrive", "CIM_MediaAccessDevice", deviceKeys, {}, {}};
  for (const SimProperty& p : {prop("ElementName", "string"), prop("MaxMediaSize", "uint64"),
                               arr("Capabilities", "uint16"), arr("OperationalStatus", "uint16"),
                               prop("HealthState", "uint16")})
    disk.props.push_back(p);
  disk.methods.push_back({"Reset", "uint32", {}});
  for (int n = 0; n < 4; ++n) {
    const std::string id = "disk0." + std::to_string(n);
    disk.instances.push_back({{"SystemCreationClassName", {cs}},
                              {"SystemName", {system}},
                              {"CreationClassName", {"CIM_DiskDrive"}},
                              {"DeviceID", {id}},
                              {"ElementName", {"Disk 0." + std::to_string(n) + " SAS 3.84 TB"}},
                              {"MaxMediaSize", {"3750000000"}},
                              {"Capabilities", {"3", "4"}},
                              {"OperationalStatus", {"2"}},
                              {"HealthState", {"5"}}});
  }
  m.push_back(disk);

  SimClass ns{"root/interop", "CIM_Namespace", "CIM_ManagedElement", {}, {}, {}};
  ns.props = {key("SystemCreationClassName", "string"),
              key("SystemName", "string"),
              key("ObjectManagerCreationClassName", "string"),
              key("ObjectManagerName", "string"),
              key("CreationClassName", "string"),
              key("Name", "string"),
              prop("ClassInfo", "uint16")};
  for (const char* name : {"root/cimv2", "root/interop"})
    ns.instances.push_back({{"SystemCreationClassName", {cs}},
                            {"SystemName", {system}},
                            {"ObjectManagerCreationClassName", {"CIM_ObjectManager"}},
                            {"ObjectManagerName", {"stor01-cimom"}},
                            {"CreationClassName", {"CIM_Namespace"}},
                            {"Name", {name}},
                            {"ClassInfo", {"0"}}});
  m.push_back(ns);

  // Indication bookkeeping: the server fills the keys a client leaves out.
  const std::vector<SimProperty> systemKeys = {
      key("SystemCreationClassName", "string"), key("SystemName", "string"),
      key("CreationClassName", "string"), key("Name", "string")};
  SimClass filter{"root/interop", "CIM_IndicationFilter", "CIM_ManagedElement", systemKeys, {}, {}};
  for (const SimProperty& p :
       {prop("ElementName", "string"), prop("Query", "string"), prop("QueryLanguage", "string"),
        prop("SourceNamespace", "string"), arr("SourceNamespaces", "string")})
    filter.props.push_back(p);
  m.push_back(filter);
  SimClass dest{
      "root/interop", "CIM_ListenerDestination", "CIM_ManagedElement", systemKeys, {}, {}};
  for (const SimProperty& p : {prop("ElementName", "string"), prop("Destination", "string"),
                               prop("PersistenceType", "uint16"), prop("Protocol", "uint16")})
    dest.props.push_back(p);
  m.push_back(dest);
  SimClass xmlDest = dest;
  xmlDest.name = "CIM_ListenerDestinationCIMXML";
  xmlDest.super = "CIM_ListenerDestination";
  m.push_back(xmlDest);
  SimClass oldDest = dest;  // the older name of the same thing
  oldDest.name = "CIM_IndicationHandlerCIMXML";
  oldDest.super = "CIM_ListenerDestination";
  m.push_back(oldDest);
  SimClass sub{"root/interop", "CIM_IndicationSubscription", "", {}, {}, {}};
  sub.props = {ref("Filter", "CIM_IndicationFilter", true),
               ref("Handler", "CIM_ListenerDestination", true),
               prop("OnFatalErrorPolicy", "uint16"), prop("SubscriptionState", "uint16"),
               prop("RepeatNotificationPolicy", "uint16")};
  m.push_back(sub);
  return r;
}

}  // namespace oxsim
