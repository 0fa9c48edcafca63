// oxcim: a command-line CIM client on liboxCIM, with an embedded CIM server simulator.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <oxCIM.h>
#include <signal.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "CimSimulator.h"
#include "OxcimModel.h"
#include "OxcimOutput.h"
#include "OxcimTarget.h"

using oxCIM::CIMelement;
using namespace oxcli;

namespace {

// Exit statuses.
constexpr int kOk = 0, kFailed = 1, kUsage = 2, kSetup = 3;

struct Settings {
  std::string url, host, user, ns, cafile, cert, key, format = "text", trace, repository;
  int port = 0, timeout = 0;
  bool https = false, insecure = false, noIPCheck = false, simulator = false;
};

// A command line that parses but does not make sense; main prints the command's usage.
struct UsageError {
  std::string text;
};

// Problems on this side (files, ports, the simulator): no usage, exit 3.
struct SetupError {
  std::string text;
};

struct Ctx {
  Settings s;
  bool untilInterrupted = false;  // runs until a signal: --timeout bounds its requests only
  std::unique_ptr<oxcimtool::CimSimulator> sim;  // --simulator; outlives the connection
  oxCIM::CIMcontainer c;
  std::string ns;
  bool Json() const { return s.format == "json"; }
  bool Xml() const { return s.format == "xml"; }
};

// --- reporting ----------------------------------------------------------------------

void PrintJson(const Json& j) { std::cout << j.dump(2) << "\n"; }

int Failed(Ctx& x) {
  std::cout.flush();
  std::cerr << "oxcim: " << FailureText(x.c) << "\n";
  return kFailed;
}

// The answer again, whole: the library moves parts of its own tree out as it extracts.
struct Answer {
  CIMelement root;
  CIMelement* result = nullptr;  // IRETURNVALUE, or null
  explicit Answer(const std::string& body) {
    if (root.ParseCIMXML(body) != 0) return;
    result = root.findelement(ElementId("IRETURNVALUE"), 0);
  }
};

// Prints the raw answer for --format xml; true when that was the output.
bool RawAnswer(Ctx& x) {
  if (!x.Xml()) return false;
  std::cout << x.c.m_Response;
  if (!x.c.m_Response.empty() && x.c.m_Response.back() != '\n') std::cout << "\n";
  return true;
}

// --- arguments --------------------------------------------------------------------

InstancePath PathArg(const std::string& text, const std::vector<std::string>& extraKeys) {
  InstancePath path;
  std::string error;
  if (!ParsePath(text, path, error)) throw UsageError{error};
  for (const std::string& kv : extraKeys) {
    InstancePath one;
    if (!ParsePath(path.className + "." + kv, one, error) || one.keys.size() != 1)
      throw UsageError{"expected KEY=VALUE: " + kv};
    path.keys.push_back(one.keys[0]);
  }
  return path;
}

std::vector<Assignment> Assignments(const std::vector<std::string>& args) {
  std::vector<Assignment> out;
  for (const std::string& a : args) {
    Assignment one;
    std::string error;
    if (!ParseAssignment(a, one, error)) throw UsageError{error};
    out.push_back(one);
  }
  return out;
}

// The PropertyList parameter; without names the parameter is left out (all properties).
struct PropertyList {
  oxCIM::CIMarray names;
  bool used = false;
  explicit PropertyList(const std::vector<std::string>& list) {
    for (const std::string& n : list) names.putargv(n.c_str(), -1, 15), used = true;
  }
  oxCIM::CIMarray* get() { return used ? &names : nullptr; }
};

std::string Namespace(const Ctx& x, const InstancePath& path) {
  return path.ns.empty() ? x.ns : path.ns;
}

// --- commands ----------------------------------------------------------------------

int Namespaces(Ctx& x) {
  oxCIM::CIMarray names;
  if (x.c.getNameSpace(names) != 0) return Failed(x);
  if (RawAnswer(x)) return kOk;
  Json list = Json::array();
  for (unsigned long i = 0; i < names.argc; ++i) list.push_back(names.argv[i]);
  if (x.Json()) return PrintJson(list), kOk;
  for (const auto& n : list) std::cout << n.get<std::string>() << "\n";
  return kOk;
}

int Classes(Ctx& x, const std::string& cls, bool deep, bool full) {
  x.c.setCurrentClass(cls.c_str(), x.ns.c_str());
  const unsigned long r = full ? x.c.Imethod_EnumerateClasses(0, 1, -1, deep ? 1 : -1)
                               : x.c.Imethod_EnumerateClassNames(deep ? 1 : -1);
  if (r != 0 || x.c.ChkCimStatus() != 0) return Failed(x);
  if (RawAnswer(x)) return kOk;
  Answer a(x.c.m_Response);
  Json list = Json::array();
  if (full) {
    bool first = true;
    for (CIMelement* e : FindAll(a.result, "CLASS")) {
      const ClassDef def = ReadClass(e);
      if (x.Json()) {
        list.push_back(ClassJson(def));
      } else {
        if (!first) std::cout << "\n";
        WriteClass(std::cout, def);
      }
      first = false;
    }
  } else {
    for (CIMelement* e : FindAll(a.result, "CLASSNAME")) {
      if (x.Json())
        list.push_back(AttrOf(e, "NAME"));
      else
        std::cout << AttrOf(e, "NAME") << "\n";
    }
  }
  if (x.Json()) PrintJson(list);
  return kOk;
}

int GetClass(Ctx& x, const std::string& cls, bool localOnly) {
  x.c.setCurrentClass(cls.c_str(), x.ns.c_str());
  // The library's own extraction keeps less than we print, so its verdict is not ours.
  x.c.Imethod_GetClass(localOnly ? 1 : 0, 1, -1, nullptr);
  if (x.c.ChkCimStatus() != 0) return Failed(x);
  Answer a(x.c.m_Response);
  CIMelement* e = a.result ? a.result->findelement(ElementId("CLASS"), 0) : nullptr;
  if (e == nullptr) {
    std::cerr << "oxcim: the answer from " << x.c.m_Host << ":" << x.c.m_Port
              << " holds no class " << cls << "\n";
    return kFailed;
  }
  if (RawAnswer(x)) return kOk;
  if (x.Json())
    PrintJson(ClassJson(ReadClass(e)));
  else
    WriteClass(std::cout, ReadClass(e));
  return kOk;
}

void PrintInstances(Ctx& x, std::vector<Instance> list, bool count) {
  if (x.Json()) {
    Json j = Json::array();
    for (const Instance& i : list) j.push_back(InstanceJson(i));
    PrintJson(j);
    return;
  }
  for (size_t n = 0; n < list.size(); ++n) {
    if (n) std::cout << "\n";
    WriteInstance(std::cout, list[n]);
  }
  if (count)
    std::cout << (list.empty() ? "" : "\n") << "// " << list.size() << " instance"
              << (list.size() == 1 ? "" : "s") << "\n";
}

int Enumerate(Ctx& x, const std::string& cls, bool shallow, const std::vector<std::string>& props) {
  PropertyList plist(props);
  x.c.setCurrentClass(cls.c_str(), x.ns.c_str());
  x.c.Imethod_EnumerateInstances(0, 0, -1, shallow ? 0 : 1, plist.get());
  if (x.c.ChkCimStatus() != 0) return Failed(x);
  if (RawAnswer(x)) return kOk;
  Answer a(x.c.m_Response);
  PrintInstances(x, ReadInstances(a.result), true);
  return kOk;
}

int Names(Ctx& x, const std::string& cls) {
  x.c.setCurrentClass(cls.c_str(), x.ns.c_str());
  x.c.Imethod_EnumerateInstanceNames();
  if (x.c.ChkCimStatus() != 0) return Failed(x);
  if (RawAnswer(x)) return kOk;
  Answer a(x.c.m_Response);
  Json list = Json::array();
  for (CIMelement* e : FindAll(a.result, "INSTANCENAME")) {
    const InstancePath p = ReadPath(e);
    if (x.Json())
      list.push_back(PathJson(p));
    else
      std::cout << PathText(p) << "\n";
  }
  if (x.Json()) PrintJson(list);
  return kOk;
}

int GetInstance(Ctx& x, const InstancePath& path, const std::vector<std::string>& props) {
  PropertyList plist(props);
  CIMelement name;
  BuildInstanceName(&name, path);
  x.c.setCurrentClass(path.className.c_str(), Namespace(x, path).c_str());
  x.c.Imethod_GetInstance(&name, -1, plist.get());
  if (x.c.ChkCimStatus() != 0) return Failed(x);
  if (RawAnswer(x)) return kOk;
  Answer a(x.c.m_Response);
  std::vector<Instance> found = ReadInstances(a.result);
  if (found.empty()) {
    std::cerr << "oxcim: the answer holds no instance\n";
    return kFailed;
  }
  found[0].hasPath = true;
  found[0].path = path;
  if (x.Json())
    PrintJson(InstanceJson(found[0]));
  else
    WriteInstance(std::cout, found[0]);
  return kOk;
}

// What a status operation says when it worked.
int Done(Ctx& x, const std::string& operation, const std::string& what, Json detail) {
  if (RawAnswer(x)) return kOk;
  if (x.Json()) {
    detail["operation"] = operation;
    detail["status"] = 0;
    PrintJson(detail);
  } else {
    std::cout << what << "\n";
  }
  return kOk;
}

// Values as the library takes them for new instances and method parameters: one typed
// block per value, alive as long as this object.
struct TypedValues {
  TypedValues(std::string command, std::string hint)
      : command(std::move(command)), hint(std::move(hint)) {}
  std::string command, hint;  // for the refusals
  std::deque<std::vector<unsigned char>> blocks;
  std::deque<std::string> texts;
  std::deque<CIMelement> refs;

  // The items were checked against their type when they were read.
  template <typename T>
  const void* Block(const std::vector<std::string>& items) {
    blocks.emplace_back(items.size() * sizeof(T) + 1);
    for (size_t i = 0; i < items.size(); ++i) {
      T v;
      if constexpr (std::is_floating_point_v<T>)
        v = static_cast<T>(std::strtod(items[i].c_str(), nullptr));
      else if constexpr (std::is_signed_v<T>)
        v = static_cast<T>(std::strtoll(items[i].c_str(), nullptr, 10));
      else
        v = static_cast<T>(std::strtoull(items[i].c_str(), nullptr, 10));
      std::memcpy(blocks.back().data() + i * sizeof(T), &v, sizeof(T));
    }
    return blocks.back().data();
  }

  const void* Values(const Assignment& a) {
    switch (TypeId(a.type)) {
      case 0: {
        blocks.emplace_back(a.items.size() + 1);
        for (size_t i = 0; i < a.items.size(); ++i) blocks.back()[i] = a.items[i] == "true";
        return blocks.back().data();
      }
      case 1:
        if (a.array && a.items.size() > 1)
          throw UsageError{a.name + ": " + command + " cannot send string arrays (the library "
                                                     "writes one text in every item)" + hint};
        texts.push_back(XmlEscape(a.items.empty() ? "" : a.items[0]));
        return texts.back().c_str();
      case 3: return Block<uint8_t>(a.items);
      case 4:
        for (const std::string& i : a.items)
          if (!i.empty() && i[0] == '-')
            throw UsageError{a.name + ": " + command + " cannot send negative sint8 values" + hint};
        return Block<int8_t>(a.items);
      case 5: return Block<uint16_t>(a.items);
      case 6: return Block<int16_t>(a.items);
      case 7: return Block<uint32_t>(a.items);
      case 8: return Block<int32_t>(a.items);
      case 9: return Block<uint64_t>(a.items);
      case 10: return Block<int64_t>(a.items);
      case 12: return Block<float>(a.items);
      case 13: return Block<double>(a.items);
      default:
        throw UsageError{a.name + ": " + command + " cannot send " + a.type + " values" + hint};
    }
  }

  // Name, type, count and value of one property or parameter record; a reference's value is
  // left to the caller, as the two records carry it differently.
  template <typename Record>
  Record Common(const Assignment& a) {
    Record r{};
    texts.push_back(a.name);
    r.name = texts.back().c_str();
    r.type = static_cast<uint32_t>(TypeId(a.type)) | (a.array ? 0x100u : 0u);
    r.count = a.type == "reference" ? 1 : a.items.size();
    if (a.type != "reference" && !a.null) r.value = Values(a);
    return r;
  }

  // The records of a new instance, ended by a null name.
  std::vector<oxCIM::_properties_> Properties(const std::vector<Assignment>& props) {
    std::vector<oxCIM::_properties_> records;
    for (const Assignment& a : props) {
      auto r = Common<oxCIM::_properties_>(a);
      if (a.type == "reference") {
        texts.push_back(a.refs[0].className);
        r.value = texts.back().c_str();
        BuildInstanceName(&refs.emplace_back(), a.refs[0]);
        r.reference = &refs.back();
      }
      records.push_back(r);
    }
    records.push_back(oxCIM::_properties_{});
    return records;
  }

  // The parameters of a method call, ended by a null name.
  std::vector<oxCIM::_paramvalue_> Parameters(const std::vector<Assignment>& params) {
    std::vector<oxCIM::_paramvalue_> records;
    for (const Assignment& a : params) {
      auto r = Common<oxCIM::_paramvalue_>(a);
      if (a.type == "reference") r.value = BuildInstanceName(&refs.emplace_back(), a.refs[0]);
      records.push_back(r);
    }
    records.push_back(oxCIM::_paramvalue_{});
    return records;
  }
};

int CreateInstance(Ctx& x, const std::string& cls, const std::vector<std::string>& args) {
  TypedValues values("create-instance", "; set it with modify-instance");
  std::vector<oxCIM::_properties_> records = values.Properties(Assignments(args));
  x.c.setCurrentClass(cls.c_str(), x.ns.c_str());
  x.c.Imethod_CreateInstance(records.data());
  if (x.c.ChkCimStatus() != 0) return Failed(x);
  if (RawAnswer(x)) return kOk;
  Answer a(x.c.m_Response);
  CIMelement* name = a.result ? a.result->findelement(ElementId("INSTANCENAME"), 0) : nullptr;
  if (name == nullptr) {
    std::cerr << "oxcim: the answer names no new instance\n";
    return kFailed;
  }
  const InstancePath path = ReadPath(name);
  if (x.Json()) return PrintJson(PathJson(path)), kOk;
  std::cout << PathText(path) << "\n";
  return kOk;
}

int ModifyInstance(Ctx& x, const InstancePath& path, const std::vector<std::string>& args,
                   bool standardLayout) {
  const std::vector<Assignment> props = Assignments(args);
  std::vector<std::string> names;
  for (const Assignment& a : props) names.push_back(a.name);
  PropertyList plist(names);
  CIMelement name, inst;
  BuildInstanceName(&name, path);
  BuildInstance(inst, path.className, props);
  x.c.setCurrentClass(path.className.c_str(), Namespace(x, path).c_str());
  x.c.m_StandardModifyInstance = standardLayout;
  x.c.Imethod_ModifyInstance(&name, inst, plist.get());
  if (x.c.ChkCimStatus() != 0) return Failed(x);
  return Done(x, "ModifyInstance", "modified " + PathText(path),
              {{"path", PathJson(path)}, {"properties", names}});
}

int DeleteInstance(Ctx& x, const InstancePath& path) {
  oxCIM::CIMclass* k = x.c.setCurrentClass(path.className.c_str(), Namespace(x, path).c_str());
  // The library unlinks the name from the class's list when the server has deleted it.
  oxCIM::CIMclass::kill_element(&k->m_InstanceNames);
  k->m_InstanceNames = new CIMelement;
  k->m_InstanceNames->m_Name = oxCIM::known_cim_elements[ElementId("CIM")];
  CIMelement* name = BuildInstanceName(k->m_InstanceNames, path);
  x.c.Imethod_DeleteInstance(name);
  if (x.c.ChkCimStatus() != 0) return Failed(x);
  return Done(x, "DeleteInstance", "deleted " + PathText(path), {{"path", PathJson(path)}});
}

int GetProperty(Ctx& x, const InstancePath& path, const std::string& prop) {
  CIMelement name;
  BuildInstanceName(&name, path);
  x.c.setCurrentClass(path.className.c_str(), Namespace(x, path).c_str());
  x.c.Imethod_GetProperty(&name, prop.c_str());
  if (x.c.ChkCimStatus() != 0) return Failed(x);
  if (RawAnswer(x)) return kOk;
  Answer a(x.c.m_Response);
  CimValue v;
  for (CIMelement* e : ChildrenOf(a.result))
    if (!(v = ReadValue(e, "")).null) break;
  if (x.Json()) return PrintJson({{"name", prop}, {"value", ValueJson(v)}}), kOk;
  std::cout << prop << " = " << ValueText(v) << "\n";
  return kOk;
}

int SetProperty(Ctx& x, const InstancePath& path, const std::string& prop,
                const std::vector<std::string>& value) {
  if (value.size() > 1) throw UsageError{"one VALUE, please (quote it when it has blanks)"};
  CIMelement name;
  BuildInstanceName(&name, path);
  x.c.setCurrentClass(path.className.c_str(), Namespace(x, path).c_str());
  const std::string text = value.empty() ? "" : XmlEscape(value[0]);
  x.c.Imethod_SetProperty(&name, prop.c_str(), text.empty() ? nullptr : text.c_str());
  if (x.c.ChkCimStatus() != 0) return Failed(x);
  return Done(x, "SetProperty",
              "set " + prop + " of " + PathText(path) + (value.empty() ? " to NULL" : ""),
              {{"path", PathJson(path)}, {"name", prop}});
}

// The library asks only "select * from CLASS"; anything else would be sent as something else.
int Query(Ctx& x, const std::string& query, const std::string& language) {
  std::istringstream words(query);
  std::vector<std::string> w;
  for (std::string s; words >> s;) w.push_back(s);
  std::string cls;
  if (w.size() == 1 && w[0].find_first_of("*=()'\"") == std::string::npos) {
    cls = w[0];
  } else if (w.size() == 4 && strcasecmp(w[0].c_str(), "select") == 0 && w[1] == "*" &&
             strcasecmp(w[2].c_str(), "from") == 0) {
    cls = w[3];
  } else {
    throw UsageError{"the library sends only \"select * from CLASS\" queries: " + query};
  }
  x.c.setCurrentClass(cls.c_str(), x.ns.c_str());
  const std::string target = XmlEscape(cls);
  x.c.Imethod_ExecQuery(XmlEscape(language).c_str(), target.c_str());
  if (x.c.ChkCimStatus() != 0) return Failed(x);
  if (RawAnswer(x)) return kOk;
  Answer a(x.c.m_Response);
  PrintInstances(x, ReadInstances(a.result), true);
  return kOk;
}

// --- methods ------------------------------------------------------------------------

// One value of a method's answer: its RETURNVALUE or an output PARAMVALUE.
Property MethodValue(CIMelement* e, const std::string& name) {
  Property p;
  p.name = name;
  p.value.type = AttrOf(e, "PARAMTYPE");
  for (CIMelement* c : ChildrenOf(e)) {
    const CimValue v = ReadValue(c, p.value.type);
    if (!v.null) {
      p.value = v;
      break;
    }
  }
  return p;
}

int Invoke(Ctx& x, const InstancePath& target, const std::string& method,
           const std::vector<std::string>& args) {
  TypedValues values("invoke", "");
  std::vector<oxCIM::_paramvalue_> params = values.Parameters(Assignments(args));
  CIMelement name;
  const bool onInstance = !target.keys.empty();
  if (onInstance) BuildInstanceName(&name, target);
  x.c.setCurrentClass(target.className.c_str(), Namespace(x, target).c_str());
  x.c.performExtrinsicMethod(method.c_str(), onInstance ? &name : nullptr, params.data());
  if (x.c.ChkCimStatus() != 0) return Failed(x);
  if (RawAnswer(x)) return kOk;
  Answer a(x.c.m_Response);
  CIMelement* response = a.root.findelement(ElementId("METHODRESPONSE"), 0);
  Json out = Json::object(), returned = nullptr;
  std::ostringstream text;
  for (CIMelement* e : ChildrenOf(response)) {
    const bool isReturn = Is(e, "RETURNVALUE");
    if (!isReturn && !Is(e, "PARAMVALUE")) continue;
    const Property p = MethodValue(e, isReturn ? "ReturnValue" : AttrOf(e, "NAME"));
    text << p.name << " = " << ValueText(p.value) << ";\n";
    (isReturn ? returned : out[p.name]) = PropertyJson(p);
  }
  if (x.Json()) return PrintJson({{"method", method}, {"returnvalue", returned}, {"out", out}}), kOk;
  std::cout << text.str();
  return kOk;
}

std::string ReadClassFile(const std::string& file, CIMelement& doc, CIMelement*& cls) {
  std::ifstream in(file, std::ios::binary);
  if (!in) throw SetupError{"cannot read " + file + ": " + std::strerror(errno)};
  std::string text;
  char buf[65536];
  while (in.read(buf, sizeof buf) || in.gcount() > 0) {
    text.append(buf, static_cast<size_t>(in.gcount()));
    if (text.size() > (16u << 20)) throw SetupError{file + ": larger than 16 MiB"};
  }
  if (doc.ParseCIMXML(text) != 0) throw SetupError{file + ": not well-formed CIM-XML"};
  cls = doc.findelement(ElementId("CLASS"), 0);
  if (cls == nullptr) throw SetupError{file + ": no CLASS element"};
  return AttrOf(cls, "NAME");
}

int PutClass(Ctx& x, const std::string& file, bool create) {
  CIMelement doc;
  CIMelement* cls = nullptr;
  const std::string name = ReadClassFile(file, doc, cls);
  x.c.setCurrentClass(name.c_str(), x.ns.c_str());
  const unsigned long r = create ? x.c.Imethod_CreateClass(*cls) : x.c.Imethod_ModifyClass(*cls);
  if (r != 0 || x.c.ChkCimStatus() != 0) return Failed(x);
  return Done(x, create ? "CreateClass" : "ModifyClass",
              (create ? "created class " : "modified class ") + name, {{"class", name}});
}

int DeleteClass(Ctx& x, const std::string& cls) {
  x.c.setCurrentClass(cls.c_str(), x.ns.c_str());
  if (x.c.Imethod_DeleteClass() != 0 || x.c.ChkCimStatus() != 0) return Failed(x);
  return Done(x, "DeleteClass", "deleted class " + cls, {{"class", cls}});
}

// --- indications --------------------------------------------------------------------

std::mutex g_OutLock;
std::string g_Format = "text";

std::string Now() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t t = std::chrono::system_clock::to_time_t(now);
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return buf;
}

// Runs on the listener's reader threads.
int OnIndication(std::string& body) {
  std::lock_guard<std::mutex> guard(g_OutLock);
  if (g_Format == "xml") {
    std::cout << body << (body.empty() || body.back() != '\n' ? "\n" : "");
  } else {
    CIMelement doc;
    std::vector<Instance> found;
    if (doc.ParseCIMXML(body) == 0) found = ReadInstances(&doc);
    const std::string when = Now();
    if (found.empty()) std::cerr << "oxcim: an indication without an instance arrived\n";
    for (const Instance& i : found) {
      if (g_Format == "json") {
        std::cout << Json({{"received", when}, {"indication", InstanceJson(i)}}).dump() << "\n";
      } else {
        std::cout << "// indication received " << when << "\n";
        WriteInstance(std::cout, i);
        std::cout << "\n";
      }
    }
  }
  std::cout.flush();
  return 0;
}

// SIGINT and SIGTERM are taken by sigwait, so they are blocked before any thread starts.
sigset_t StopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

void PortFree(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  const int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_ANY);
  const bool ok = fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  const int err = errno;
  if (fd >= 0) close(fd);
  if (!ok) throw SetupError{"cannot listen on port " + std::to_string(port) + ": " + std::strerror(err)};
}

int Listen(const std::string& format, int port) {
  PortFree(port);
  g_Format = format;
  oxCIM::CIMindication listener;
  listener.pCallBack = OnIndication;
  listener.m_Port = port;
  if (listener.start_Listener() != 0) throw SetupError{"cannot start the indication listener"};
  // It returns once the port accepts or the thread has given up.
  if (!listener.check_Listener()) {
    listener.stop_Listener();
    throw SetupError{"cannot listen on port " + std::to_string(port)};
  }
  std::cerr << "oxcim: listening for indications on port " << port << "\n";
  const sigset_t stop = StopSignals();
  int sig = 0;
  sigwait(&stop, &sig);
  listener.stop_Listener();
  return kOk;
}

int Subscribe(Ctx& x, const std::string& query, const std::string& language,
              const std::string& sourceNs, int port, const std::string& listenAddress) {
  if (!listenAddress.empty()) x.c.m_LocalIP = listenAddress;
  if (x.c.m_LocalIP.empty()) {
    char local[256] = "";
    gethostname(local, sizeof local - 1);
    x.c.setIPAddress(local, x.c.m_LocalIP, nullptr);
    x.c.m_ErrCode = 0;
  }
  if (x.c.m_LocalIP.empty())
    throw SetupError{"no address of this host for the server to send to: give --listen-address"};
  PortFree(port);
  g_Format = x.s.format;
  x.c.setCurrentClass("", x.ns.c_str());
  if (x.c.subscribe(query.c_str(), language.c_str(), sourceNs.c_str(), port, OnIndication) != 0)
    return Failed(x);
  std::cerr << "oxcim: subscribed; indications arrive on port " << port << " (interrupt to end)"
            << std::endl;
  const sigset_t stop = StopSignals();
  int sig = 0;
  sigwait(&stop, &sig);
  ClearReasons();
  if (x.c.unsubscribe() != 0) return Failed(x);
  std::cerr << "oxcim: unsubscribed" << std::endl;
  return kOk;
}

// --- snapshots -------------------------------------------------------------------------

int Snapshot(Ctx& x, const std::string& dir) {
  std::string error;
  if (!oxsim::TakeSnapshot(x.c, dir, error)) {
    if (x.c.ChkCimStatus() != 0) return Failed(x);
    std::cerr << "oxcim: snapshot: " << error << "\n";
    return kFailed;
  }
  if (x.Json()) return PrintJson({{"operation", "Snapshot"}, {"status", 0}, {"directory", dir}}), kOk;
  std::cout << "snapshot of " << x.c.m_Host << ":" << x.c.m_Port << " in " << dir << "\n";
  return kOk;
}

// --- the simulator on its own ----------------------------------------------------------

// The simulator's model: the built-in storage array, or the repository in --repository.
std::unique_ptr<oxcimtool::CimSimulator> MakeSimulator(const Settings& s) {
  oxsim::SimRepository repo = oxsim::SimRepository::BuiltIn();
  std::string error;
  if (!s.repository.empty() && !oxsim::LoadRepository(s.repository, repo, error))
    throw SetupError{"repository " + s.repository + ": " + error};
  auto sim = std::make_unique<oxcimtool::CimSimulator>("admin", "secret", std::move(repo));
  if (!sim->Start(error)) throw SetupError{"simulator: " + error};
  return sim;
}

int Serve(const Settings& s, long seconds) {
  const auto sim = MakeSimulator(s);
  std::cout << "listening on 127.0.0.1 port " << sim->Port() << std::endl;
  const sigset_t stop = StopSignals();
  if (seconds > 0) {
    const timespec limit{seconds, 0};
    sigtimedwait(&stop, nullptr, &limit);
  } else {
    int sig = 0;
    sigwait(&stop, &sig);
  }
  return kOk;
}

// --- connection --------------------------------------------------------------------

bool IsLoopback(const std::string& host) {
  return host == "localhost" || host == "::1" || host.compare(0, 4, "127.") == 0;
}

// Server and local addresses, as an application resolves them before its first exchange.
void ResolveAddresses(oxCIM::CIMcontainer& c) {
  c.setIPAddress(c.m_Host, c.m_ServerIP, &c.m_FQDN);
  if (c.m_ServerIP.empty())
    throw SetupError{"cannot resolve " + c.m_Host + " (5003); --no-ip-check skips the check"};
  char local[256] = "";
  gethostname(local, sizeof local - 1);
  c.setIPAddress(local, c.m_LocalIP, nullptr);
  if (c.m_LocalIP.empty()) c.m_NoIPCheck = true;  // a host known only by its loopback name
  c.m_ErrCode = 0;
}

std::string g_AlarmText;
void OnAlarm(int) {
  if (write(2, g_AlarmText.data(), g_AlarmText.size()) < 0) {
  }
  _exit(kFailed);
}

void Connect(Ctx& x) {
  const Settings& s = x.s;
  Target t;
  if (!s.url.empty()) {
    std::string error;
    if (!ParseUrl(s.url, t, error)) throw UsageError{error};
  }
  if (s.simulator) {
    if (!s.url.empty() || !s.host.empty() || s.https)
      throw UsageError{"--simulator speaks plain HTTP on its own address: no URL, --host or --https"};
    x.sim = MakeSimulator(s);
    t.host = "127.0.0.1";
    t.port = std::to_string(x.sim->Port());
    t.user = "admin";
  }
  if (!s.host.empty()) t.host = s.host;
  if (s.https) t.protocol = "https";
  if (s.port) t.port = std::to_string(s.port);
  if (!s.user.empty()) t.user = s.user;
  if (!s.ns.empty()) t.ns = s.ns;
  if (t.host.empty()) throw UsageError{"no server: give a URL (--url or OXCIM_URL), --host or --simulator"};
  if (t.port.empty()) t.port = t.protocol == "https" ? "5989" : "5988";
  x.ns = t.ns.empty() ? oxCIM::nsCIMV2 : t.ns;

  oxCIM::CIMcontainer& c = x.c;
  c.m_Protocol = t.protocol;
  c.m_Host = t.host;
  c.m_Port = t.port;
  c.m_User = t.user;
  if (const char* pw = std::getenv("OXCIM_PASSWORD"))
    c.m_Passwd = pw;
  else if (s.simulator)
    c.m_Passwd = "secret";
  else if (!t.user.empty())
    PromptPassword("Password for " + t.user + "@" + t.host + ": ", c.m_Passwd);
  c.m_CAFile = s.cafile;
  c.m_CertFile = s.cert;
  c.m_KeyFile = s.key;
  c.m_VerifyPeer = t.protocol == "https" && !s.insecure ? 1 : 0;
  c.m_NoIPCheck = s.noIPCheck || s.simulator || IsLoopback(t.host);
  if (!c.m_NoIPCheck) ResolveAddresses(c);
  // The library's resolver skips loopback addresses, which are the right ones here.
  if (s.simulator || IsLoopback(t.host)) c.m_LocalIP = t.host == "::1" ? "::1" : "127.0.0.1";

  if (s.timeout > 0) c.SetExtraTimeOut(s.timeout - 18);
  if (s.timeout > 0 && !x.untilInterrupted) {
    // The library's own limit is per exchange and it retries once; this bounds the whole run.
    g_AlarmText = "oxcim: no answer from " + t.host + ":" + t.port + " within " +
                  std::to_string(s.timeout) + " seconds\n";
    signal(SIGALRM, OnAlarm);
    alarm(static_cast<unsigned>(s.timeout));
  }
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"oxcim: a command-line client for CIM servers (CIM-XML over HTTP)", "oxcim"};
  app.footer(
      "Target: a URL http[s]://[user@]host[:port][/namespace] from --url or OXCIM_URL; --host,\n"
      "--port, --https, --user and --namespace override its parts. The password comes from\n"
      "OXCIM_PASSWORD or is asked for on the terminal. --simulator talks to an embedded\n"
      "simulated server (user admin, password secret).\n"
      "Exit status: 0 success, 1 the operation failed, 2 bad usage, 3 local set-up failed.\n"
      "oxcim COMMAND --help describes a command.");
  app.require_subcommand(1);
  app.fallthrough();
  Settings s;
  app.add_option("--url", s.url, "the server, http[s]://[user@]host[:port][/namespace]")
      ->envname("OXCIM_URL");
  app.add_option("--host", s.host, "server host name or address");
  app.add_option("--port", s.port, "server port (default 5988, 5989 with HTTPS)")
      ->check(CLI::Range(1, 65535));
  app.add_option("--user", s.user, "user name for HTTP basic authentication");
  app.add_option("-n,--namespace", s.ns, "namespace (default root/cimv2)");
  app.add_flag("--https", s.https, "use HTTPS");
  app.add_option("--cafile", s.cafile, "CA certificates to verify the server with")
      ->check(CLI::ExistingFile);
  app.add_option("--cert", s.cert, "client certificate (PEM)")->check(CLI::ExistingFile);
  app.add_option("--key", s.key, "private key of the client certificate (PEM)")
      ->check(CLI::ExistingFile);
  app.add_flag("--insecure", s.insecure, "do not verify the server's certificate");
  app.add_flag("--no-ip-check", s.noIPCheck, "do not resolve addresses before connecting");
  app.add_option("--timeout", s.timeout, "give up after SECONDS (at least 5)")
      ->check(CLI::Range(5, 86400));
  app.add_option("--format", s.format, "output: text (default), json or xml (the raw answer)")
      ->check(CLI::IsMember({"text", "json", "xml"}));
  app.add_option("--trace", s.trace, "library trace mask for stderr (0x2, 0x4, 0x10, 0x40000000)");
  app.add_flag("--simulator", s.simulator, "talk to an embedded simulated CIM server");
  app.add_option("--repository", s.repository,
                 "with --simulator: serve this repository (a snapshot) instead of the "
                 "built-in storage array")
      ->check(CLI::ExistingDirectory);

  // Command arguments.
  std::string cls, path, prop, file, query, language = "WQL", method, sourceNs, listenAddress;
  std::vector<std::string> keys, props, values;
  bool deep = false, full = false, shallow = false, localOnly = false, standardLayout = false;
  int port = 0, listenPort = 5990;
  long seconds = 0;
  std::function<int(Ctx&)> run;
  bool needsServer = true, untilInterrupted = false;

  auto command = [&](const char* name, const char* what) {
    CLI::App* sub = app.add_subcommand(name, what);
    sub->fallthrough();
    sub->footer("The options of oxcim (target, TLS, --format, --timeout) may come before or "
                "after the command: see oxcim --help.");
    return sub;
  };
  auto pathArg = [&](CLI::App* sub) {
    sub->add_option("PATH", path, "instance path CLASS.KEY=VALUE,... (as names prints it)")
        ->required();
  };

  CLI::App* sub = command("namespaces", "list the namespaces (CIM_Namespace in root/interop)");
  sub->callback([&] { run = [&](Ctx& x) { return Namespaces(x); }; });

  sub = command("classes", "class names of the namespace, or the subclasses of CLASS");
  sub->add_option("CLASS", cls, "list the subclasses of this class");
  sub->add_flag("--deep", deep, "all subclasses, not only the direct ones");
  sub->add_flag("--full", full, "whole class definitions (EnumerateClasses)");
  sub->callback([&] { run = [&](Ctx& x) { return Classes(x, cls, deep, full); }; });

  sub = command("get-class", "a class: properties (keys marked), methods and their parameters");
  sub->add_option("CLASS", cls, "class name")->required();
  sub->add_flag("--local-only", localOnly, "only what the class itself defines");
  sub->callback([&] { run = [&](Ctx& x) { return GetClass(x, cls, localOnly); }; });

  sub = command("create-class", "create a class from a CIM-XML file holding a CLASS element");
  sub->add_option("FILE", file, "CIM-XML file")->required();
  sub->callback([&] { run = [&](Ctx& x) { return PutClass(x, file, true); }; });

  sub = command("modify-class", "replace a class by the CLASS element of a CIM-XML file");
  sub->add_option("FILE", file, "CIM-XML file")->required();
  sub->callback([&] { run = [&](Ctx& x) { return PutClass(x, file, false); }; });

  sub = command("delete-class", "delete a class");
  sub->add_option("CLASS", cls, "class name")->required();
  sub->callback([&] { run = [&](Ctx& x) { return DeleteClass(x, cls); }; });

  sub = command("enumerate", "every instance of a class, with its property values");
  sub->add_option("CLASS", cls, "class name")->required();
  sub->add_flag("--shallow", shallow, "leave out properties that only subclasses define");
  sub->add_option("-p,--property", props, "only this property (repeatable)");
  sub->callback([&] { run = [&](Ctx& x) { return Enumerate(x, cls, shallow, props); }; });

  sub = command("names", "the instance names (paths) of a class, one a line");
  sub->add_option("CLASS", cls, "class name")->required();
  sub->callback([&] { run = [&](Ctx& x) { return Names(x, cls); }; });

  sub = command("get-instance", "one instance by its path");
  pathArg(sub);
  sub->add_option("KEY=VALUE", keys, "more key bindings");
  sub->add_option("-p,--property", props, "only this property (repeatable)");
  sub->callback([&] {
    run = [&](Ctx& x) { return GetInstance(x, PathArg(path, keys), props); };
  });

  sub = command("create-instance", "create an instance; prints the path of the new instance");
  sub->add_option("CLASS", cls, "class name")->required();
  sub->add_option("NAME=VALUE[:type]", values,
                  "property values; type a CIM type (default string), with [] for an array "
                  "of comma-separated items; a reference is a path")
      ->required();
  sub->callback([&] { run = [&](Ctx& x) { return CreateInstance(x, cls, values); }; });

  sub = command("modify-instance", "change the given properties of an instance");
  pathArg(sub);
  sub->add_option("NAME=VALUE[:type]", values, "new property values (as for create-instance)")
      ->required();
  sub->add_flag("--standard-layout", standardLayout,
                "send the ModifiedInstance parameter as DSP0200 lays it out (for servers "
                "that refuse the library's layout)");
  sub->callback([&] {
    run = [&](Ctx& x) { return ModifyInstance(x, PathArg(path, {}), values, standardLayout); };
  });

  sub = command("delete-instance", "delete an instance");
  pathArg(sub);
  sub->callback([&] { run = [&](Ctx& x) { return DeleteInstance(x, PathArg(path, {})); }; });

  sub = command("get-property", "one property value of an instance");
  pathArg(sub);
  sub->add_option("NAME", prop, "property name")->required();
  sub->callback([&] { run = [&](Ctx& x) { return GetProperty(x, PathArg(path, {}), prop); }; });

  sub = command("set-property", "set one property of an instance (no VALUE: NULL)");
  pathArg(sub);
  sub->add_option("NAME", prop, "property name")->required();
  sub->add_option("VALUE", values, "the new value, as text");
  sub->callback([&] {
    run = [&](Ctx& x) { return SetProperty(x, PathArg(path, {}), prop, values); };
  });

  sub = command("query", "instances that a query selects (the library sends select * from CLASS)");
  sub->add_option("QUERY", query, "\"select * from CLASS\", or just CLASS")->required();
  sub->add_option("--language", language, "query language (default WQL)");
  sub->callback([&] { run = [&](Ctx& x) { return Query(x, query, language); }; });

  sub = command("invoke", "call a method of an instance (a path with keys) or of a class; "
                          "prints the return value and the output parameters");
  sub->add_option("TARGET", path, "CLASS or instance path CLASS.KEY=VALUE,...")->required();
  sub->add_option("METHOD", method, "method name")->required();
  sub->add_option("NAME=VALUE[:type]", values, "input parameters (as for create-instance)");
  sub->callback([&] {
    run = [&](Ctx& x) { return Invoke(x, PathArg(path, {}), method, values); };
  });

  sub = command("subscribe", "subscribe to the indications a query selects and print each as "
                             "it arrives; unsubscribes when interrupted");
  sub->add_option("QUERY", query, "indication filter query, e.g. \"SELECT * FROM CIM_AlertIndication\"")
      ->required();
  sub->add_option("--language", language, "query language (default WQL)");
  sub->add_option("--source-namespace", sourceNs, "namespace the filter watches (default: -n)");
  sub->add_option("--listen-port", listenPort, "local port for the indications (default 5990)")
      ->check(CLI::Range(1, 65535));
  sub->add_option("--listen-address", listenAddress,
                  "address the server sends to (default: this host's address)");
  sub->callback([&] {
    untilInterrupted = true;
    run = [&](Ctx& x) {
      return Subscribe(x, query, language, sourceNs, listenPort, listenAddress);
    };
  });

  sub = command("listen", "receive indications on PORT and print each as it arrives, until "
                          "interrupted");
  sub->add_option("PORT", port, "TCP port (all interfaces)")->required()->check(CLI::Range(1, 65535));
  sub->callback([&] {
    needsServer = false;
    untilInterrupted = true;
    run = [&](Ctx& x) { return Listen(x.s.format, port); };
  });

  sub = command("snapshot", "record the server's namespaces, classes and instances into DIR "
                            "(oxcim --simulator --repository DIR serves them)");
  sub->add_option("DIR", file, "repository directory (created when missing)")->required();
  sub->callback([&] { run = [&](Ctx& x) { return Snapshot(x, file); }; });

  sub = command("serve", "with --simulator: only run the simulator, for SECONDS or until "
                         "interrupted; prints \"listening on 127.0.0.1 port N\" first");
  sub->add_option("SECONDS", seconds, "how long")->check(CLI::PositiveNumber);
  sub->callback([&] {
    needsServer = false;
    untilInterrupted = true;
    run = [&](Ctx& x) {
      if (!x.s.simulator) throw UsageError{"serve runs the simulator: give --simulator"};
      return Serve(x.s, seconds);
    };
  });

  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    const auto left = app.remaining();
    if (app.get_subcommands().empty() && !left.empty() && left[0][0] != '-')
      std::cerr << "oxcim: unknown command: " << left[0] << "\n" << app.help();
    else
      std::cerr << "oxcim: " << e.what() << "\n" << app.help();
    return kUsage;
  }

  // Stop signals go to sigwait (listen, subscribe, serve); threads started later inherit
  // the mask.
  const sigset_t stop = StopSignals();
  if (untilInterrupted) pthread_sigmask(SIG_BLOCK, &stop, nullptr);

  unsigned long mask = oxCIM::oxCIM.GetTraceMask();  // OXCIM_TRACE still counts
  if (!s.trace.empty()) {
    char* end = nullptr;
    mask = std::strtoul(s.trace.c_str(), &end, 0);
    if (*end != '\0') {
      std::cerr << "oxcim: bad trace mask: " << s.trace << "\n" << app.help();
      return kUsage;
    }
  }
  CaptureStatus(mask);
  int status = kSetup;
  {
    Ctx x;
    x.s = s;
    x.untilInterrupted = untilInterrupted;
    try {
      if (needsServer) Connect(x);
      ClearReasons();
      status = run(x);
    } catch (const UsageError& e) {
      std::cerr << "oxcim: " << e.text << "\n" << app.help();
      status = kUsage;
    } catch (const SetupError& e) {
      std::cerr << "oxcim: " << e.text << "\n";
      status = kSetup;
    }
    std::cout.flush();
  }
  Brix::Internals::SetTraceSink(nullptr);
  return status;
}
