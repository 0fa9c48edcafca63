// oxcim: a command-line CIM client on liboxCIM, with an embedded CIM server simulator.
#include <oxCIM.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "CimSimulator.h"

using oxCIM::CIMelement;
using oxcimtool::Attr;
using oxcimtool::IsInside;
using oxcimtool::IsKind;

namespace {

const char* const kUsage =
    "usage: oxcim [options] <command> [arguments]\n"
    "\n"
    "Commands:\n"
    "  namespaces                     list the namespaces (CIM_Namespace in root/interop)\n"
    "  classes [CLASS]                class names of the namespace (EnumerateClassNames);\n"
    "                                 with CLASS, its direct subclasses\n"
    "  get-class CLASS                properties (key properties marked 'key') and methods\n"
    "                                 with their parameters\n"
    "  enumerate CLASS                every instance: its name (class.key=\"value\",...) and\n"
    "                                 its property values, then a count line\n"
    "  names CLASS                    instance names only (EnumerateInstanceNames)\n"
    "  get-instance CLASS KEY=VALUE...  one instance by its key bindings (GetInstance);\n"
    "                                 the simulator takes any subset of the keys that\n"
    "                                 names exactly one instance\n"
    "  serve [SECONDS]                with --simulator: only run the simulator, in the\n"
    "                                 foreground, for SECONDS or until interrupted; prints\n"
    "                                 \"listening on 127.0.0.1 port N\" first\n"
    "\n"
    "Options:\n"
    "  --simulator        start the embedded CIM server on 127.0.0.1 (ephemeral port, plain\n"
    "                     HTTP, user admin, password secret) and talk to it; --user and\n"
    "                     --password still apply, to try other credentials\n"
    "  --host HOST        CIM server to talk to\n"
    "  --port PORT        its port (default 5988, or 5989 with --https)\n"
    "  --user USER        user name for HTTP basic authentication\n"
    "  --password PASS    password for HTTP basic authentication\n"
    "  --https            use HTTPS\n"
    "  --cafile FILE      CA certificates to verify the server with\n"
    "  --verify           verify the server certificate (host names are never checked)\n"
    "  --no-ip-check      do not resolve addresses before connecting (m_NoIPCheck)\n"
    "  --namespace NS     namespace to work in (default root/cimv2)\n"
    "  --trace MASK       library trace mask (hex or decimal) for lines on stderr:\n"
    "                     0x2 entry/exit, 0x4 errors and dumps, 0x10 details,\n"
    "                     0x40000000 tree, codec and extraction errors\n"
    "  --help             this text\n"
    "\n"
    "Addresses: for a real server the numeric addresses of the server and of this host are\n"
    "resolved first, as the library expects. The library's resolver skips 127.0.0.1, so a\n"
    "server on this machine's loopback address needs --no-ip-check; when only the local\n"
    "host name resolves to 127.0.0.1, the check is switched off with a warning. The\n"
    "simulator listens on 127.0.0.1, so the check is always off for it.\n"
    "\n"
    "Output is plain text on stdout. On failure oxcim prints the CIM status code, the\n"
    "m_Info bits (0x200 NO_Auth, 0x400 NO_Connect, which the library sets after every\n"
    "failed exchange) and the recorded reasons on stderr.\n"
    "Exit status: 0 success, 1 the operation failed, 2 bad usage, 3 setup failed.\n";

struct Options {
  bool simulator = false, https = false, verify = false, help = false, noIPCheck = false;
  bool userSet = false, passwordSet = false;
  std::string host, port, user, password, cafile, ns = "root/cimv2";
  unsigned long trace = 0;
  std::vector<std::string> args;  // command and its arguments
};

int Usage(const std::string& problem) {
  std::fprintf(stderr, "oxcim: %s\n(oxcim --help shows the usage)\n", problem.c_str());
  return 2;
}

// Returns 0, or the exit status for a usage error.
int ParseOptions(int argc, char** argv, Options& o) {
  const std::map<std::string, bool*> flags = {
      {"--help", &o.help},   {"-h", &o.help},         {"--simulator", &o.simulator},
      {"--https", &o.https}, {"--verify", &o.verify}, {"--no-ip-check", &o.noIPCheck}};
  std::string trace;
  const std::map<std::string, std::string*> values = {
      {"--host", &o.host},         {"--port", &o.port},     {"--user", &o.user},
      {"--password", &o.password}, {"--cafile", &o.cafile}, {"--namespace", &o.ns},
      {"--trace", &trace}};
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (flags.count(a)) {
      *flags.at(a) = true;
    } else if (values.count(a)) {
      if (i + 1 >= argc) return Usage("missing value for " + a);
      *values.at(a) = argv[++i];
      o.userSet = o.userSet || a == "--user";
      o.passwordSet = o.passwordSet || a == "--password";
    } else if (a.compare(0, 2, "--") == 0) {
      return Usage("unknown option: " + a);
    } else {
      o.args.push_back(a);
    }
  }
  o.trace = oxCIM::oxCIM.GetTraceMask();  // OXCIM_TRACE still counts
  if (!trace.empty()) {
    char* end = nullptr;
    o.trace = std::strtoul(trace.c_str(), &end, 0);
    if (*end != '\0') return Usage("bad trace mask: " + trace);
  }
  return 0;
}

// --- status reporting ------------------------------------------------------------
// The library traces the reason for every status it records; the tool keeps those lines
// so that a failure can be explained, and prints the records the user asked for.

struct StatusReason {
  long code;
  std::string text;
};
std::mutex g_TraceLock;
std::vector<StatusReason> g_Reasons;
unsigned long g_UserMask = 0;

void TraceSink(const Brix::Internals::TraceRecord& r) {
  std::lock_guard<std::mutex> guard(g_TraceLock);
  if (r.function == "SetCimStatus_FL") {
    const size_t at = r.text.find("ErrCode:");
    if (at != std::string::npos) {
      char* end = nullptr;
      const long code = std::strtol(r.text.c_str() + at + 8, &end, 10);
      std::string text = *end == ' ' ? end + 1 : end;
      bool seen = false;
      for (const StatusReason& s : g_Reasons) seen = seen || (s.code == code && s.text == text);
      if (code != 0 && !seen) g_Reasons.push_back({code, text});
    }
  }
  if (r.level & g_UserMask) {
    const size_t slash = r.file.rfind('/');
    std::fprintf(stderr, "[0x%lx] %s %s:%d %s: %s\n", r.level, r.module.c_str(),
                 r.file.c_str() + (slash == std::string::npos ? 0 : slash + 1), r.line,
                 r.function.c_str(), r.text.c_str());
  }
}

const char* LibraryCodeText(long code) {
  switch (code) {
    case 1001:
      return "generic failure or bad parameter";
    case 5000:
      return "authentication data missing or rejected";
    case 5001:
      return "no data received from server";
    case 5002:
      return "response is not well-formed CIM-XML";
    case 5003:
      return "server address not resolved";
    case 5004:
      return "local address not resolved";
    case 5005:
      return "no usable namespace list in the answer";
    default:
      return nullptr;
  }
}

int Failed(const oxCIM::CIMcontainer& c, const char* what) {
  std::string bits;
  if (c.m_Info & oxCIM::NO_Auth) bits += " NO_Auth";
  if (c.m_Info & oxCIM::NO_Connect) bits += " NO_Connect";
  std::fprintf(stderr, "oxcim: %s failed: CIM status %d, m_Info 0x%x%s%s%s\n", what, c.m_ErrCode,
               c.m_Info, bits.empty() ? "" : " (", bits.empty() ? "" : bits.c_str() + 1,
               bits.empty() ? "" : ")");
  std::lock_guard<std::mutex> guard(g_TraceLock);
  for (const StatusReason& s : g_Reasons)
    std::fprintf(stderr, "oxcim:   status %ld: %s\n", s.code, s.text.c_str());
  if (g_Reasons.empty() && LibraryCodeText(c.m_ErrCode))
    std::fprintf(stderr, "oxcim:   status %d: %s\n", c.m_ErrCode, LibraryCodeText(c.m_ErrCode));
  return 1;
}

void ClearReasons() {
  std::lock_guard<std::mutex> guard(g_TraceLock);
  g_Reasons.clear();
}

// --- printing ----------------------------------------------------------------------

bool Quoted(const char* type) {
  return std::strcmp(type, "string") == 0 || std::strcmp(type, "char16") == 0 ||
         std::strcmp(type, "datetime") == 0;
}

// class.key="value",... from an INSTANCENAME subtree.
std::string InstancePath(CIMelement* name) {
  std::string path = Attr(name, "CLASSNAME");
  char sep = '.';
  for (CIMelement* e = name->m_Next; e && IsInside(e, name); e = e->m_Next) {
    if (!IsKind(e, "KEYBINDING")) continue;
    CIMelement* v = e->m_Next;
    const bool text = IsKind(v, "KEYVALUE") && std::strcmp(Attr(v, "VALUETYPE"), "numeric") != 0 &&
                      std::strcmp(Attr(v, "VALUETYPE"), "boolean") != 0;
    const char* value = IsKind(v, "KEYVALUE") && v->m_Value ? v->m_Value : "";
    path +=
        sep + std::string(Attr(e, "NAME")) + "=" + (text ? "\"" : "") + value + (text ? "\"" : "");
    sep = ',';
  }
  return path;
}

// One "  Name = value" line per property of an INSTANCE subtree.
void PrintProperties(CIMelement* instance) {
  for (CIMelement* p = instance->m_Next; p && IsInside(p, instance); p = p->m_Next) {
    if (p->m_Parent != instance) continue;
    const bool array = IsKind(p, "PROPERTY.ARRAY"), ref = IsKind(p, "PROPERTY.REFERENCE");
    if (!array && !ref && !IsKind(p, "PROPERTY")) continue;
    const bool quote = Quoted(Attr(p, "TYPE"));
    std::vector<std::string> values;
    bool isNull = true;
    for (CIMelement* v = p->m_Next; v && IsInside(v, p); v = v->m_Next) {
      if (IsKind(v, "VALUE.ARRAY")) isNull = false;
      if (IsKind(v, "INSTANCENAME")) values.push_back(InstancePath(v)), isNull = false;
      if (!IsKind(v, "VALUE")) continue;
      const std::string text = v->m_Value ? v->m_Value : "";
      values.push_back(quote ? "\"" + text + "\"" : text);
      isNull = false;
    }
    std::string shown;
    if (isNull) {
      shown = "NULL";
    } else if (array) {
      for (const std::string& v : values) shown += (shown.empty() ? "" : ", ") + v;
      shown = "{" + shown + "}";
    } else {
      shown = values.empty() ? "" : values[0];
    }
    std::printf("  %s = %s\n", Attr(p, "NAME"), shown.c_str());
  }
}

// --- commands ----------------------------------------------------------------------

int Namespaces(oxCIM::CIMcontainer& c) {
  oxCIM::CIMarray names;
  if (c.getNameSpace(names) != 0) return Failed(c, "getNameSpace");
  for (unsigned long i = 0; i < names.argc; ++i) std::printf("%s\n", names.argv[i]);
  return 0;
}

int Classes(oxCIM::CIMcontainer& c, const Options& o) {
  c.setCurrentClass(o.args.size() > 1 ? o.args[1].c_str() : "", o.ns.c_str());
  if (c.Imethod_EnumerateClassNames(-1) != 0) return Failed(c, "EnumerateClassNames");
  for (CIMelement* e = &c.m_ResponseTree; e; e = e->m_Next)
    if (IsKind(e, "CLASSNAME")) std::printf("%s\n", Attr(e, "NAME"));
  return 0;
}

std::string TypeOf(CIMelement* e) {
  if (IsKind(e, "PROPERTY.REFERENCE") || IsKind(e, "PARAMETER.REFERENCE"))
    return std::string("ref ") + Attr(e, "REFERENCECLASS");
  if (IsKind(e, "PARAMETER.REFARRAY"))
    return std::string("ref ") + Attr(e, "REFERENCECLASS") + "[]";
  const bool array = IsKind(e, "PROPERTY.ARRAY") || IsKind(e, "PARAMETER.ARRAY");
  return Attr(e, "TYPE") + std::string(array ? "[]" : "");
}

int GetClass(oxCIM::CIMcontainer& c, const std::string& cls, const Options& o) {
  oxCIM::CIMclass* k = c.setCurrentClass(cls.c_str(), o.ns.c_str());
  if (c.Imethod_GetClass(0, 1, -1, nullptr) != 0 || c.m_ErrCode != 0) {
    if (c.m_ErrCode == 0) {
      std::fprintf(stderr, "oxcim: GetClass: the answer holds no class %s\n", cls.c_str());
      return 1;
    }
    return Failed(c, "GetClass");
  }
  std::printf("class %s\n", cls.c_str());
  if (k->m_Properties)
    for (CIMelement* p = k->m_Properties->m_Next; p; p = p->m_Next) {
      const bool key = p->m_Value && std::strcmp(p->m_Value, "Key") == 0;
      std::printf("  %-4s property %-14s %s\n", key ? "key" : "", TypeOf(p).c_str(),
                  Attr(p, "NAME"));
    }
  for (CIMelement* m = k->m_Methods; m; m = m->m_Next) {
    if (!IsKind(m, "METHOD")) continue;
    std::string params;
    for (CIMelement* p = m->m_Next; p && p->m_Parent == m; p = p->m_Next)
      params += (params.empty() ? "" : ", ") + TypeOf(p) + " " + Attr(p, "NAME");
    std::printf("       method   %-14s %s(%s)\n", Attr(m, "TYPE"), Attr(m, "NAME"), params.c_str());
  }
  return 0;
}

int Enumerate(oxCIM::CIMcontainer& c, const std::string& cls, const Options& o) {
  oxCIM::CIMclass* k = c.setCurrentClass(cls.c_str(), o.ns.c_str());
  if (c.Imethod_EnumerateInstances(0, 0, -1, 1, nullptr) == 0 && c.m_ErrCode != 0)
    return Failed(c, "EnumerateInstances");
  unsigned long n = 0;
  for (; k->m_InstanceNames && k->m_Properties; ++n) {
    CIMelement* name = k->m_InstanceNames->findelement(oxcimtool::ElemId("INSTANCENAME"), n);
    CIMelement* inst = k->m_Properties->findelement(oxcimtool::ElemId("INSTANCE"), n);
    if (!name || !inst) break;
    std::printf("%s%s\n", n ? "\n" : "", InstancePath(name).c_str());
    PrintProperties(inst);
  }
  std::printf("%s%lu instance%s\n", n ? "\n" : "", n, n == 1 ? "" : "s");
  return 0;
}

int Names(oxCIM::CIMcontainer& c, const std::string& cls, const Options& o) {
  oxCIM::CIMclass* k = c.setCurrentClass(cls.c_str(), o.ns.c_str());
  if (c.Imethod_EnumerateInstanceNames() == 0 && c.m_ErrCode != 0)
    return Failed(c, "EnumerateInstanceNames");
  for (unsigned long n = 0; k->m_InstanceNames; ++n) {
    CIMelement* name = k->m_InstanceNames->findelement(oxcimtool::ElemId("INSTANCENAME"), n);
    if (!name) break;
    std::printf("%s\n", InstancePath(name).c_str());
  }
  return 0;
}

int GetInstance(oxCIM::CIMcontainer& c, const std::vector<std::string>& args, const Options& o) {
  const std::string& cls = args[1];
  CIMelement name;  // INSTANCENAME with one KEYBINDING/KEYVALUE pair per argument
  name.m_Name = oxCIM::known_cim_elements[oxcimtool::ElemId("INSTANCENAME")];
  name.attr_put(oxcimtool::AttrId("CLASSNAME"), cls.c_str());
  for (size_t i = 2; i < args.size(); ++i) {
    const size_t eq = args[i].find('=');
    if (eq == std::string::npos || eq == 0) return Usage("expected KEY=VALUE: " + args[i]);
    const std::string key = args[i].substr(0, eq), value = args[i].substr(eq + 1);
    CIMelement* kb = name.makeNextElement();
    kb->m_Name = oxCIM::known_cim_elements[oxcimtool::ElemId("KEYBINDING")];
    kb->attr_put(oxcimtool::AttrId("NAME"), key.c_str());
    CIMelement* kv = kb->makeNextElement();
    kv->m_Name = oxCIM::known_cim_elements[oxcimtool::ElemId("KEYVALUE")];
    const bool numeric =
        !value.empty() && value.find_first_not_of("0123456789") == std::string::npos;
    kv->attr_put(oxcimtool::AttrId("VALUETYPE"), numeric ? "numeric" : "string");
    kv->m_Value = strdup(value.c_str());
  }
  c.setCurrentClass(cls.c_str(), o.ns.c_str());
  const unsigned long r = c.Imethod_GetInstance(&name, -1, nullptr);
  if (r == 0) {
    if (c.m_ErrCode != 0) return Failed(c, "GetInstance");
    std::fprintf(stderr, "oxcim: GetInstance: the answer holds no instance\n");
    return 1;
  }
  std::printf("%s\n", InstancePath(&name).c_str());
  PrintProperties(reinterpret_cast<CIMelement*>(r));
  return 0;
}

int Run(oxCIM::CIMcontainer& c, const Options& o) {
  const std::string& cmd = o.args[0];
  const size_t n = o.args.size();
  if (cmd == "namespaces" && n == 1) return Namespaces(c);
  if (cmd == "classes" && n <= 2) return Classes(c, o);
  if (cmd == "get-class" && n == 2) return GetClass(c, o.args[1], o);
  if (cmd == "enumerate" && n == 2) return Enumerate(c, o.args[1], o);
  if (cmd == "names" && n == 2) return Names(c, o.args[1], o);
  if (cmd == "get-instance" && n >= 3) return GetInstance(c, o.args, o);
  return Usage("unknown command or wrong number of arguments: " + cmd);
}

int Serve(const Options& o) {
  const long seconds = o.args.size() > 1 ? std::strtol(o.args[1].c_str(), nullptr, 10) : -1;
  oxcimtool::CimSimulator sim("admin", "secret");
  std::string error;
  if (!sim.Start(error)) {
    std::fprintf(stderr, "oxcim: simulator: %s\n", error.c_str());
    return 3;
  }
  std::printf("listening on 127.0.0.1 port %d\n", sim.Port());
  std::fflush(stdout);
  for (long left = seconds; left != 0; left -= left > 0 ? 1 : 0) sleep(1);
  return 0;
}

// Server and local addresses, as an application resolves them before its first exchange.
bool ResolveAddresses(oxCIM::CIMcontainer& c) {
  c.setIPAddress(c.m_Host, c.m_ServerIP, &c.m_FQDN);
  if (c.m_ServerIP.empty()) {
    std::fprintf(
        stderr,
        "oxcim: cannot resolve %s (status %d); a loopback-only server needs --no-ip-check\n",
        c.m_Host.c_str(), c.m_ErrCode);
    return false;
  }
  char local[256] = "";
  gethostname(local, sizeof local - 1);
  c.setIPAddress(local, c.m_LocalIP, nullptr);
  if (c.m_LocalIP.empty()) {
    std::fprintf(stderr, "oxcim: warning: no address for local host %s; address check off\n",
                 local);
    c.m_NoIPCheck = true;
  }
  c.m_ErrCode = 0;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  if (const int bad = ParseOptions(argc, argv, o)) return bad;
  if (o.help) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (o.args.empty()) return Usage("no command given");
  if (o.simulator && (o.https || !o.host.empty()))
    return Usage("--simulator speaks plain HTTP on its own address: no --https or --host");
  if (!o.simulator && o.host.empty()) return Usage("give --host or --simulator");

  g_UserMask = o.trace;
  Brix::Internals::SetTraceSink(TraceSink);
  oxCIM::oxCIM.SetTraceMask(o.trace | oxCIM::TRACE_STATUS);  // status reasons are always wanted
  int status = 3;
  if (o.args[0] == "serve") {
    status = o.simulator && o.args.size() <= 2
                 ? Serve(o)
                 : Usage("serve needs --simulator and at most SECONDS");
  } else {
    oxcimtool::CimSimulator sim("admin", "secret");
    oxCIM::CIMcontainer c;
    c.m_Protocol = o.https ? "https" : "http";
    c.m_User = o.simulator && !o.userSet ? "admin" : o.user;
    c.m_Passwd = o.simulator && !o.passwordSet ? "secret" : o.password;
    c.m_CAFile = o.cafile;
    c.m_VerifyPeer = o.verify ? 1 : 0;
    bool ready = true;
    if (o.simulator) {
      std::string error;
      ready = sim.Start(error);
      if (!ready) std::fprintf(stderr, "oxcim: simulator: %s\n", error.c_str());
      c.m_Host = "127.0.0.1";
      c.m_Port = std::to_string(sim.Port());
      c.m_NoIPCheck = true;
    } else {
      c.m_Host = o.host;
      c.m_Port = o.port.empty() ? (o.https ? "5989" : "5988") : o.port;
      c.m_NoIPCheck = o.noIPCheck;
      ready = o.noIPCheck || ResolveAddresses(c);
    }
    ClearReasons();
    if (ready) status = Run(c, o);
  }
  Brix::Internals::SetTraceSink(nullptr);
  return status;
}
