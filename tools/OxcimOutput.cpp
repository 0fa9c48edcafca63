#include "OxcimOutput.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

namespace oxcli {

namespace {

std::string Quote(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default: out += c;
    }
  }
  return out + "\"";
}

bool IsTextType(const std::string& type) {
  return type == "string" || type == "char16" || type == "datetime" || type.empty();
}

std::string ItemText(const std::string& type, const std::string& text) {
  if (!IsTextType(type)) return text;
  // Without a type in the answer, a number stays bare.
  if (type.empty() && !text.empty() && text.find_first_not_of("-0123456789.") == std::string::npos)
    return text;
  return Quote(text);
}

std::string KeyText(const KeyBinding& k) {
  if (k.valueType == "reference") return Quote(k.ref.empty() ? "" : PathText(k.ref[0]));
  if (k.valueType == "numeric" || k.valueType == "boolean") return k.value;
  return Quote(k.value);
}

}  // namespace

std::string PathText(const InstancePath& path) {
  std::string out;
  if (!path.host.empty()) out += "//" + path.host + "/";
  if (!path.ns.empty()) out += path.ns + ":";
  out += path.className;
  char sep = '.';
  for (const KeyBinding& k : path.keys) {
    out += sep + k.name + "=" + KeyText(k);
    sep = ',';
  }
  return out;
}

std::string ValueText(const CimValue& value) {
  if (value.null) return "NULL";
  std::vector<std::string> items;
  if (value.type == "reference") {
    for (const InstancePath& r : value.refs) items.push_back(Quote(PathText(r)));
  } else {
    for (const std::string& i : value.items) items.push_back(ItemText(value.type, i));
  }
  if (!value.array) return items.empty() ? "NULL" : items[0];
  std::string out;
  for (const std::string& i : items) out += (out.empty() ? "" : ", ") + i;
  return "{" + out + "}";
}

void WriteInstance(std::ostream& out, const Instance& instance) {
  if (instance.hasPath) out << "// " << PathText(instance.path) << "\n";
  out << "instance of " << instance.className << " {\n";
  for (const Property& p : instance.props) out << "    " << p.name << " = " << ValueText(p.value) << ";\n";
  out << "};\n";
}

namespace {
std::string Declared(const std::string& type, const std::string& referenceClass,
                     const std::string& name, bool array) {
  const std::string t = type == "reference" ? (referenceClass.empty() ? "object" : referenceClass) + " REF"
                                            : type;
  return t + " " + name + (array ? "[]" : "");
}
}  // namespace

void WriteClass(std::ostream& out, const ClassDef& cls) {
  out << "class " << cls.name;
  if (!cls.superclass.empty()) out << " : " << cls.superclass;
  out << " {\n";
  for (const Property& p : cls.props) {
    out << "    " << (p.key ? "[Key] " : "")
        << Declared(p.value.type, p.referenceClass, p.name, p.value.array);
    if (!p.value.null) out << " = " << ValueText(p.value);
    out << ";\n";
  }
  for (const Method& m : cls.methods) {
    out << "    " << m.type << " " << m.name << "(";
    for (size_t i = 0; i < m.params.size(); ++i) {
      const Parameter& p = m.params[i];
      out << (i ? ", " : "") << (p.in && p.out ? "[IN, OUT] " : p.out ? "[OUT] " : "[IN] ")
          << Declared(p.type, p.referenceClass, p.name, p.array);
    }
    out << ");\n";
  }
  out << "};\n";
}

Json Typed(const std::string& type, const std::string& text) {
  if (type == "boolean") {
    if (text == "true" || text == "TRUE" || text == "True") return true;
    if (text == "false" || text == "FALSE" || text == "False") return false;
    return text;
  }
  if (text.empty()) return text;
  char* end = nullptr;
  errno = 0;
  if (type.compare(0, 4, "uint") == 0 && text[0] != '-') {
    const unsigned long long v = std::strtoull(text.c_str(), &end, 10);
    if (*end == '\0' && errno == 0) return v;
  } else if (type.compare(0, 4, "sint") == 0) {
    const long long v = std::strtoll(text.c_str(), &end, 10);
    if (*end == '\0' && errno == 0) return v;
  } else if (type == "real32" || type == "real64") {
    const double v = std::strtod(text.c_str(), &end);
    if (*end == '\0' && std::isfinite(v)) return v;
  }
  return text;
}

Json PathJson(const InstancePath& path) {
  Json j = Json::object();
  if (!path.host.empty()) j["host"] = path.host;
  if (!path.ns.empty()) j["namespace"] = path.ns;
  j["classname"] = path.className;
  Json keys = Json::object();
  for (const KeyBinding& k : path.keys) {
    if (k.valueType == "reference")
      keys[k.name] = k.ref.empty() ? Json() : PathJson(k.ref[0]);
    else if (k.valueType == "numeric")
      keys[k.name] = Typed(k.value.find_first_of(".eE") == std::string::npos
                               ? (k.value[0] == '-' ? "sint64" : "uint64")
                               : "real64",
                           k.value);
    else
      keys[k.name] = Typed(k.valueType, k.value);
  }
  j["keybindings"] = keys;
  j["path"] = PathText(path);
  return j;
}

Json ValueJson(const CimValue& value) {
  if (value.null) return nullptr;
  Json items = Json::array();
  if (value.type == "reference") {
    for (const InstancePath& r : value.refs) items.push_back(PathJson(r));
  } else {
    for (const std::string& i : value.items) items.push_back(Typed(value.type, i));
  }
  if (value.array) return items;
  return items.empty() ? Json() : items[0];
}

Json PropertyJson(const Property& p) {
  Json j = Json::object();
  j["type"] = p.value.type;
  if (p.value.array) j["array"] = true;
  if (!p.referenceClass.empty()) j["referenceclass"] = p.referenceClass;
  j["value"] = ValueJson(p.value);
  return j;
}

Json InstanceJson(const Instance& instance) {
  Json j = Json::object();
  j["classname"] = instance.className;
  if (instance.hasPath) j["path"] = PathJson(instance.path);
  Json props = Json::object();
  for (const Property& p : instance.props) props[p.name] = PropertyJson(p);
  j["properties"] = props;
  return j;
}

Json ClassJson(const ClassDef& cls) {
  Json j = Json::object();
  j["name"] = cls.name;
  j["superclass"] = cls.superclass.empty() ? Json() : Json(cls.superclass);
  Json props = Json::array();
  for (const Property& p : cls.props) {
    Json e = PropertyJson(p);
    e["name"] = p.name;
    e["key"] = p.key;
    if (p.value.null) e.erase("value");
    else e["default"] = e["value"], e.erase("value");
    props.push_back(e);
  }
  j["properties"] = props;
  Json methods = Json::array();
  for (const Method& m : cls.methods) {
    Json params = Json::array();
    for (const Parameter& p : m.params) {
      Json e = {{"name", p.name}, {"type", p.type}, {"array", p.array}, {"in", p.in},
                {"out", p.out}};
      if (!p.referenceClass.empty()) e["referenceclass"] = p.referenceClass;
      params.push_back(e);
    }
    methods.push_back({{"name", m.name}, {"type", m.type}, {"parameters", params}});
  }
  j["methods"] = methods;
  return j;
}

}  // namespace oxcli
