#include "CimServer.h"
#include "CimStatusNames.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>

namespace oxsim {

using oxCIM::CIMelement;

namespace {

const char* const kSystemName = "SN-4C3A0012";

// Status codes of DSP0200 with the names their descriptions start with.
enum : int {
  kFailed = 1,
  kInvalidNamespace = 3,
  kInvalidParameter = 4,
  kInvalidClass = 5,
  kNotFound = 6,
  kNotSupported = 7,
  kClassHasChildren = 8,
  kAlreadyExists = 11,
  kNoSuchProperty = 12,
  kQueryLanguageNotSupported = 14,
  kInvalidQuery = 15,
  kMethodNotFound = 17,
  kInvalidSuperclass = 10,
};

const char* CodeName(int code) {
  const char* name = oxcimtool::CimStatusName(code);
  return *name ? name : "CIM error";
}

// A failed operation: the code and its description.
struct CimError {
  int code;
  std::string text;
};

[[noreturn]] void Fail(int code, const std::string& detail) {
  throw CimError{code, std::string(CodeName(code)) + ": " + detail};
}

std::string Envelope(const std::string& id, const std::string& inner) {
  return "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n"
         "<CIM CIMVERSION=\"2.0\" DTDVERSION=\"2.0\">\n<MESSAGE ID=\"" +
         Esc(id) + "\" PROTOCOLVERSION=\"1.0\">\n<SIMPLERSP>\n" + inner +
         "</SIMPLERSP>\n</MESSAGE>\n</CIM>\n";
}

std::string ErrorXml(int code, const std::string& text) {
  return "<ERROR CODE=\"" + std::to_string(code) + "\" DESCRIPTION=\"" + Esc(text) + "\"/>\n";
}

std::string Lower(std::string s) {
  for (char& ch : s) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
  return s;
}

std::string Trim(const std::string& s) {
  const auto b = s.find_first_not_of(" \t\r\n");
  if (b == std::string::npos) return {};
  return s.substr(b, s.find_last_not_of(" \t\r\n") - b + 1);
}

std::string NamespaceOf(CIMelement* path) {
  std::string ns;
  for (CIMelement* n : Children(path, "NAMESPACE"))
    ns += (ns.empty() ? "" : "/") + std::string(Attr(n, "NAME"));
  return ns;
}

// First descendant of e of that kind.
CIMelement* Find(CIMelement* e, const char* kind) {
  for (CIMelement* c = e ? e->m_Next : nullptr; c && IsInside(c, e); c = c->m_Next)
    if (IsKind(c, kind)) return c;
  return nullptr;
}

// The IPARAMVALUE parameters of a call by name.
struct Params {
  std::vector<CIMelement*> all;
  CIMelement* get(const char* name) const {
    for (CIMelement* p : all)
      if (strcasecmp(Attr(p, "NAME"), name) == 0) return p;
    return nullptr;
  }
  std::string className(const char* name = "ClassName") const {
    CIMelement* c = Find(get(name), "CLASSNAME");
    return c ? Attr(c, "NAME") : "";
  }
  bool flag(const char* name, bool dflt) const {
    CIMelement* v = Find(get(name), "VALUE");
    if (v == nullptr || v->m_Value == nullptr) return dflt;
    return strcasecmp(Trim(v->m_Value).c_str(), "true") == 0;
  }
  std::string text(const char* name) const {
    CIMelement* v = Find(get(name), "VALUE");
    return v && v->m_Value ? Unesc(v->m_Value) : "";
  }
  // Null when absent: every property.
  std::unique_ptr<std::vector<std::string>> propertyList() const {
    CIMelement* p = get("PropertyList");
    if (p == nullptr || Find(p, "VALUE.ARRAY") == nullptr) return nullptr;
    auto list = std::make_unique<std::vector<std::string>>();
    for (CIMelement* v : Children(Find(p, "VALUE.ARRAY"), "VALUE"))
      if (v->m_Value) list->push_back(Unesc(v->m_Value));
    return list;
  }
};

bool Listed(const std::vector<std::string>* list, const std::string& name) {
  if (list == nullptr) return true;
  for (const std::string& n : *list)
    if (SameNoCase(n, name)) return true;
  return false;
}

SimClass Filtered(const SimClass& c, const std::vector<std::string>* list) {
  if (list == nullptr) return c;
  SimClass f;
  f.ns = c.ns;
  f.name = c.name;
  for (const SimProperty& p : c.props)
    if (Listed(list, p.name)) f.props.push_back(p);
  return f;
}

bool Matches(const SimClass& c, const SimInstance& i,
             const std::vector<std::pair<std::string, std::string>>& keys) {
  for (const auto& k : keys) {
    const SimProperty* p = c.prop(k.first);
    const auto v = p ? i.find(p->name) : i.end();
    if (v == i.end() || v->second.size() != 1 || Comparable(*p, v->second[0]) != k.second)
      return false;
  }
  return true;
}

std::string Datetime() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t t = std::chrono::system_clock::to_time_t(now);
  const long us = static_cast<long>(
      std::chrono::duration_cast<std::chrono::microseconds>(now.time_since_epoch()).count() %
      1000000);
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buf[96];
  std::snprintf(buf, sizeof buf, "%04d%02d%02d%02d%02d%02d.%06ld+000", tm.tm_year + 1900,
                tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, us);
  return buf;
}

std::string ModelPath(const std::string& ns, const SimClass& c, const SimInstance& i) {
  std::string path = ns + ":" + c.name;
  char sep = '.';
  for (const SimProperty& p : c.props) {
    const auto v = i.find(p.name);
    if (!p.key || v == i.end() || v->second.empty() || p.type == "reference") continue;
    path += sep + p.name + "=\"" + v->second[0] + "\"";
    sep = ',';
  }
  return path;
}

std::string Prop(const char* name, const char* type, const std::string& value,
                 const char* extra = "") {
  return std::string("<PROPERTY NAME=\"") + name + "\" TYPE=\"" + type + "\"" + extra +
         ">\n<VALUE>" + Esc(value) + "</VALUE>\n</PROPERTY>\n";
}

const char* const kIndicationTree[][2] = {{"CIM_InstCreation", "CIM_InstIndication"},
                                          {"CIM_InstModification", "CIM_InstIndication"},
                                          {"CIM_InstDeletion", "CIM_InstIndication"},
                                          {"CIM_InstIndication", "CIM_Indication"},
                                          {"CIM_AlertIndication", "CIM_ProcessIndication"},
                                          {"CIM_ProcessIndication", "CIM_Indication"}};

bool IndicationIsA(std::string cls, const std::string& base) {
  for (int depth = 0; depth < 8 && !cls.empty(); ++depth) {
    if (SameNoCase(cls, base)) return true;
    std::string up;
    for (const auto& e : kIndicationTree)
      if (SameNoCase(cls, e[0])) up = e[1];
    cls = up;
  }
  return false;
}

// The word after keyword (any case) in query, or "".
std::string WordAfter(const std::string& query, const char* keyword) {
  const std::string q = Lower(query), k = std::string(" ") + keyword + " ";
  const std::size_t at = (" " + q + " ").find(k);
  if (at == std::string::npos) return {};
  std::size_t b = at + k.size() - 1;
  while (b < query.size() && std::isspace(static_cast<unsigned char>(query[b]))) ++b;
  std::size_t e = b;
  while (e < query.size() &&
         (std::isalnum(static_cast<unsigned char>(query[e])) || query[e] == '_'))
    ++e;
  return query.substr(b, e - b);
}

bool ParseUrl(const std::string& url, std::string& host, int& port, std::string& path) {
  std::string rest = url;
  if (Lower(rest).compare(0, 7, "http://") == 0)
    rest = rest.substr(7);
  else if (rest.find("://") != std::string::npos)
    return false;  // https and others are not delivered
  const std::size_t slash = rest.find('/');
  path = slash == std::string::npos ? "/" : rest.substr(slash);
  const std::string hostPort = rest.substr(0, slash);
  const std::size_t colon = hostPort.rfind(':');
  host = hostPort.substr(0, colon);
  port = colon == std::string::npos ? 80 : std::atoi(hostPort.c_str() + colon + 1);
  return !host.empty() && port > 0 && port < 65536;
}

}  // namespace

bool ParseFault(const std::string& text, Fault& f, std::string& error) {
  f = Fault{};
  std::string rule = text;
  const std::size_t slash = rule.rfind('/');
  if (slash != std::string::npos) {
    f.everyNth = std::atoi(rule.c_str() + slash + 1);
    rule.resize(slash);
  }
  const std::size_t at = rule.find('@');
  if (at != std::string::npos) {
    f.operation = rule.substr(at + 1);
    rule.resize(at);
  }
  const std::size_t colon = rule.find(':');
  const std::string kind = rule.substr(0, colon);
  int arg = -1;
  bool argOk = true;
  if (colon != std::string::npos) {
    const std::string digits = rule.substr(colon + 1);
    argOk = !digits.empty() && digits.size() < 9 &&
            digits.find_first_not_of("0123456789") == std::string::npos;
    arg = argOk ? std::atoi(digits.c_str()) : -1;
  }
  static const std::pair<const char*, Fault::Kind> kKinds[] = {
      {"delay", Fault::Kind::Delay},       {"drip", Fault::Kind::Drip},
      {"close", Fault::Kind::Close},       {"http500", Fault::Kind::Http500},
      {"http401", Fault::Kind::Http401},   {"garbage", Fault::Kind::Garbage},
      {"cim-error", Fault::Kind::CimError}};
  bool known = false;
  for (const auto& k : kKinds)
    if (kind == k.first) f.kind = k.second, known = true;
  if (!known || f.everyNth < 1 || !argOk) {
    error = "bad fault '" + text +
            "' (KIND[:ARG][@OPERATION][/N]; delay:MS drip:MS close http500 http401 garbage "
            "cim-error:CODE)";
    return false;
  }
  if (f.kind == Fault::Kind::CimError) f.cimCode = arg > 0 ? arg : 1;
  if (f.kind == Fault::Kind::Delay || f.kind == Fault::Kind::Drip)
    f.delayMs = arg >= 0 ? arg : (f.kind == Fault::Kind::Delay ? 1000 : 20);
  return true;
}

CimServer::CimServer(CimServerOptions options, SimRepository repository)
    : opt_(std::move(options)),
      http_(opt_.http, [this](const RecordedRequest& r) { return handle(r); }),
      repo_(std::move(repository)) {
  if (!opt_.user.empty()) authorization_ = "Basic " + Base64(opt_.user + ":" + opt_.password);
}

CimServer::~CimServer() { stop(); }

bool CimServer::start(std::string& error) {
  if (!http_.start(error)) return false;
  deliveryThread_ = std::thread([this] { deliveryLoop(); });
  return true;
}

void CimServer::stop() {
  http_.stop();
  {
    std::lock_guard<std::mutex> lk(exportMu_);
    stopping_ = true;
  }
  exportCv_.notify_all();
  if (deliveryThread_.joinable()) deliveryThread_.join();
}

void CimServer::addFault(const Fault& fault) {
  std::lock_guard<std::mutex> lk(faultMu_);
  faults_.push_back({fault, 0});
}

void CimServer::clearFaults() {
  std::lock_guard<std::mutex> lk(faultMu_);
  faults_.clear();
}

SimRepository CimServer::repository() const {
  std::lock_guard<std::mutex> lk(modelMu_);
  return repo_;
}

std::shared_ptr<const CannedResponse> CimServer::handle(const RecordedRequest& req) {
  ++requests_;
  auto plain = [](int status, const char* reason, HeaderList headers = {}) {
    CannedResponse r = CannedResponse::http(status, reason);
    r.headers = std::move(headers);
    return std::make_shared<const CannedResponse>(std::move(r));
  };
  const std::string& line = req.requestLine;
  if (line.compare(0, 5, "POST ") != 0)
    return plain(405, "Method Not Allowed", {{"Allow", "POST"}});
  const std::size_t sp = line.find(' ', 5);
  if (line.substr(5, sp == std::string::npos ? sp : sp - 5) != "/cimom")
    return plain(404, "Not Found");
  if (!authorization_.empty() && req.header("Authorization") != authorization_)
    return plain(401, "Unauthorized", {{"WWW-Authenticate", "Basic realm=\"cimom\""}});
  if (!SameNoCase(req.header("CIMOperation"), "MethodCall"))
    return plain(400, "Bad Request", {{"CIMError", "header-mismatch"}});

  // Faults, in the order they were added; the first that fires wins.
  Fault fired;
  bool fire = false;
  {
    std::lock_guard<std::mutex> lk(faultMu_);
    for (Faulty& f : faults_) {
      if (!f.fault.operation.empty() && !SameNoCase(f.fault.operation, req.header("CIMMethod")))
        continue;
      if (++f.seen % static_cast<unsigned long>(f.fault.everyNth) == 0 && !fire) {
        fired = f.fault;
        fire = true;
      }
    }
  }
  if (fire) {
    switch (fired.kind) {
      case Fault::Kind::Close:
        return std::make_shared<const CannedResponse>(CannedResponse::closeWithoutReply());
      case Fault::Kind::Http500:
        return plain(500, "Internal Server Error");
      case Fault::Kind::Http401:
        return plain(401, "Unauthorized", {{"WWW-Authenticate", "Basic realm=\"cimom\""}});
      case Fault::Kind::Garbage:
        return std::make_shared<const CannedResponse>(
            CannedResponse::cimOk("<CIM><MESSAGE ID=\"1\"><SIMPLERSP \x01\x02 garbage <<<"));
      case Fault::Kind::CimError: {
        oxCIM::CIMelement tree;
        std::string id = "0";
        if (tree.ParseCIMXML(req.body) == 0) id = Attr(Find(&tree, "MESSAGE"), "ID");
        return std::make_shared<const CannedResponse>(CannedResponse::cimOk(Envelope(
            id,
            "<IMETHODRESPONSE NAME=\"" + Esc(req.header("CIMMethod")) + "\">\n" +
                ErrorXml(fired.cimCode, std::string(CodeName(fired.cimCode)) + ": injected fault") +
                "</IMETHODRESPONSE>\n")));
      }
      case Fault::Kind::Delay:
      case Fault::Kind::Drip:
        break;
    }
  }
  oxCIM::CIMelement tree;
  if (tree.ParseCIMXML(req.body) != 0 || Find(&tree, "MESSAGE") == nullptr)
    return plain(400, "Bad Request", {{"CIMError", "request-not-well-formed"}});
  CannedResponse r = CannedResponse::cimOk(answer(tree));
  if (fire && fired.kind == Fault::Kind::Delay) r.delayMs = fired.delayMs;
  if (fire && fired.kind == Fault::Kind::Drip) {
    r.dripChunk = 64;
    r.dripPauseMs = fired.delayMs;
  }
  return std::make_shared<const CannedResponse>(std::move(r));
}

std::string CimServer::process(const std::string& body) {
  oxCIM::CIMelement tree;
  if (tree.ParseCIMXML(body) != 0)
    return Envelope("0", ErrorXml(kInvalidParameter, "CIM_ERR_INVALID_PARAMETER: not CIM-XML"));
  return answer(tree);
}

std::string CimServer::answer(CIMelement& tree) {
  const std::string id = Attr(Find(&tree, "MESSAGE"), "ID");
  if (CIMelement* call = Find(&tree, "IMETHODCALL")) return intrinsic(call, id);
  if (CIMelement* call = Find(&tree, "METHODCALL")) return extrinsic(call, id);
  return Envelope(id, ErrorXml(kNotSupported, "CIM_ERR_NOT_SUPPORTED: no method call"));
}

// --- intrinsic methods ------------------------------------------------------------

std::string CimServer::intrinsic(CIMelement* call, const std::string& id) {
  const std::string method = Attr(call, "NAME");
  const std::string ns = NamespaceOf(Find(call, "LOCALNAMESPACEPATH"));
  Params params;
  params.all = Children(call, "IPARAMVALUE");
  std::string out;
  try {
    std::lock_guard<std::mutex> lk(modelMu_);
    if (!repo_.hasNamespace(ns)) Fail(kInvalidNamespace, ns);
    auto needClass = [&](const std::string& name) -> SimClass& {
      if (name.empty()) Fail(kInvalidParameter, "no class named");
      SimClass* c = repo_.find(ns, name);
      if (c == nullptr) Fail(kInvalidClass, name);
      return *c;
    };
    auto needName = [&](CIMelement* name) -> std::pair<SimClass*, std::size_t> {
      if (name == nullptr) Fail(kInvalidParameter, "no instance name");
      SimClass& c = needClass(Attr(name, "CLASSNAME"));
      const auto keys = KeysFromTree(name);
      if (keys.empty()) Fail(kInvalidParameter, "no key bindings");
      for (const auto& k : keys) {
        const SimProperty* p = c.prop(k.first);
        if (p == nullptr || !p->key)
          Fail(kInvalidParameter, k.first + " is not a key of " + c.name);
      }
      // Any subset of the keys that picks exactly one instance is accepted.
      std::size_t hit = 0, hits = 0;
      for (std::size_t n = 0; n < c.instances.size(); ++n)
        if (Matches(c, c.instances[n], keys)) hit = n, ++hits;
      if (hits == 0) Fail(kNotFound, "no such instance of " + c.name);
      if (hits > 1) Fail(kInvalidParameter, "the keys match several instances");
      return {&c, hit};
    };
    // Classes of ns that are cls or derive from it.
    auto family = [&](const std::string& cls) {
      std::vector<SimClass*> f;
      for (SimClass& c : repo_.classes)
        if (SameNoCase(c.ns, ns) && repo_.isA(ns, c.name, cls)) f.push_back(&c);
      return f;
    };
    auto classList = [&](bool names) {
      const std::string base = params.className();
      if (!base.empty()) needClass(base);
      const bool deep = params.flag("DeepInheritance", false);
      for (SimClass& c : repo_.classes) {
        if (!SameNoCase(c.ns, ns)) continue;
        bool take;
        if (base.empty())
          take = deep || c.super.empty() || repo_.find(ns, c.super) == nullptr;
        else
          take = deep ? !SameNoCase(c.name, base) && repo_.isA(ns, c.name, base)
                      : SameNoCase(c.super, base);
        if (take) out += names ? "<CLASSNAME NAME=\"" + Esc(c.name) + "\"/>\n" : ClassXml(c);
      }
    };
    if (method == "GetClass") {
      out = ClassXml(needClass(params.className()));
    } else if (method == "EnumerateClassNames") {
      classList(true);
    } else if (method == "EnumerateClasses") {
      classList(false);
    } else if (method == "EnumerateInstances" || method == "EnumerateInstanceNames") {
      needClass(params.className());
      const auto list = params.propertyList();
      for (SimClass* c : family(params.className())) {
        const SimClass shown = Filtered(*c, list.get());
        for (const SimInstance& i : c->instances)
          out += method == "EnumerateInstanceNames"
                     ? NameXml(*c, i)
                     : "<VALUE.NAMEDINSTANCE>\n" + NameXml(*c, i) + InstanceXml(shown, i) +
                           "</VALUE.NAMEDINSTANCE>\n";
      }
    } else if (method == "GetInstance") {
      const auto hit = needName(Find(params.get("InstanceName"), "INSTANCENAME"));
      const auto list = params.propertyList();
      out = InstanceXml(Filtered(*hit.first, list.get()), hit.first->instances[hit.second]);
    } else if (method == "DeleteInstance") {
      const auto hit = needName(Find(params.get("InstanceName"), "INSTANCENAME"));
      SimClass& c = *hit.first;
      const SimInstance gone = c.instances[hit.second];
      c.instances.erase(c.instances.begin() + static_cast<long>(hit.second));
      lifecycle("CIM_InstDeletion", ns, c, gone, nullptr);
    } else if (method == "CreateInstance") {
      CIMelement* inst = Find(params.get("NewInstance"), "INSTANCE");
      if (inst == nullptr) Fail(kInvalidParameter, "no NewInstance");
      SimClass& c = needClass(Attr(inst, "CLASSNAME"));
      SimInstance i;
      std::string why;
      const bool interop = SameNoCase(ns, "root/interop");
      if (!InstanceFromTree(inst, c, i, why, interop)) Fail(kInvalidParameter, why);
      // Keys a client may leave to the server.
      const std::pair<const char*, std::string> fills[] = {
          {"CreationClassName", c.name},
          {"SystemCreationClassName", "CIM_ComputerSystem"},
          {"SystemName", kSystemName},
          {"Name", "oxsim:" + c.name + ":" + std::to_string(nextName_)}};
      for (const auto& f : fills) {
        const SimProperty* p = c.prop(f.first);
        if (p && p->key && i.find(p->name) == i.end()) i[p->name] = {f.second};
      }
      ++nextName_;
      std::vector<std::pair<std::string, std::string>> keys;
      for (const SimProperty& p : c.props) {
        if (!p.key) continue;
        const auto v = i.find(p.name);
        if (v == i.end() || v->second.size() != 1)
          Fail(kInvalidParameter, "key " + p.name + " missing");
        keys.emplace_back(p.name, Comparable(p, v->second[0]));
      }
      for (const SimInstance& other : c.instances)
        if (Matches(c, other, keys))
          Fail(kAlreadyExists, "an instance of " + c.name + " with these keys");
      c.instances.push_back(i);
      out = NameXml(c, i);
      lifecycle("CIM_InstCreation", ns, c, i, nullptr);
    } else if (method == "ModifyInstance") {
      // Either layout: VALUE.NAMEDINSTANCE directly in the call with the InstanceName
      // parameter inside, or inside IPARAMVALUE NAME="ModifiedInstance".
      CIMelement* named = Find(call, "VALUE.NAMEDINSTANCE");
      CIMelement* inst = Find(named, "INSTANCE");
      if (inst == nullptr) Fail(kInvalidParameter, "no ModifiedInstance");
      const auto hit = needName(Find(named, "INSTANCENAME"));
      SimClass& c = *hit.first;
      SimInstance& target = c.instances[hit.second];
      SimInstance changed;
      std::string why;
      if (!InstanceFromTree(inst, c, changed, why)) Fail(kInvalidParameter, why);
      const auto list = params.propertyList();
      SimInstance next = target;
      for (CIMelement* p : Children(inst)) {
        const SimProperty* prop = c.prop(Attr(p, "NAME"));
        if (prop == nullptr || !Listed(list.get(), prop->name)) continue;
        const auto v = changed.find(prop->name);
        const auto old = target.find(prop->name);
        if (prop->key && (v == changed.end() || old == target.end() || v->second != old->second))
          Fail(kInvalidParameter, "key " + prop->name + " cannot change");
        if (v == changed.end())
          next.erase(prop->name);
        else
          next[prop->name] = v->second;
      }
      const SimInstance before = target;
      target = next;
      lifecycle("CIM_InstModification", ns, c, target, &before);
    } else if (method == "GetProperty" || method == "SetProperty") {
      const auto hit = needName(Find(params.get("InstanceName"), "INSTANCENAME"));
      SimClass& c = *hit.first;
      SimInstance& i = c.instances[hit.second];
      const std::string name = params.text("PropertyName");
      const SimProperty* p = c.prop(name);
      if (p == nullptr) Fail(kNoSuchProperty, name + " in class " + c.name);
      if (method == "GetProperty") {
        const auto v = i.find(p->name);
        if (v != i.end() && (p->array || !v->second.empty())) out = ValueXml(*p, v->second);
      } else {
        if (p->key) Fail(kInvalidParameter, "key " + p->name + " cannot change");
        CIMelement* nv = params.get("NewValue");
        std::vector<std::string> values;
        if (CIMelement* a = Find(nv, "VALUE.ARRAY")) {
          for (CIMelement* v : Children(a, "VALUE"))
            values.push_back(v->m_Value ? Unesc(v->m_Value) : "");
        } else if (CIMelement* v = Find(nv, "VALUE")) {
          values.push_back(v->m_Value ? Unesc(v->m_Value) : "");
        }
        const SimInstance before = i;
        if (nv == nullptr || (values.empty() && !p->array))
          i.erase(p->name);
        else
          i[p->name] = values;
        lifecycle("CIM_InstModification", ns, c, i, &before);
      }
    } else if (method == "ExecQuery") {
      const std::string lang = params.text("QueryLanguage"), query = Trim(params.text("Query"));
      if (!SameNoCase(lang, "WQL") && !SameNoCase(lang, "DMTF:CQL"))
        Fail(kQueryLanguageNotSupported, lang);
      const std::string cls = WordAfter(query, "from");
      if (Lower(query).compare(0, 14, "select * from ") != 0 || cls.empty() ||
          Trim(query.substr(14)) != cls)
        Fail(kInvalidQuery, "only \"select * from CLASS\" is understood: " + query);
      needClass(cls);
      std::string nsXml;
      std::size_t from = 0;
      for (std::size_t slash; (slash = ns.find('/', from)) != std::string::npos; from = slash + 1)
        nsXml += "<NAMESPACE NAME=\"" + Esc(ns.substr(from, slash - from)) + "\"/>\n";
      nsXml += "<NAMESPACE NAME=\"" + Esc(ns.substr(from)) + "\"/>\n";
      for (SimClass* c : family(cls))
        for (const SimInstance& i : c->instances)
          out +=
              "<VALUE.OBJECTWITHPATH>\n<INSTANCEPATH>\n<NAMESPACEPATH>\n<HOST>localhost</HOST>\n"
              "<LOCALNAMESPACEPATH>\n" +
              nsXml + "</LOCALNAMESPACEPATH>\n</NAMESPACEPATH>\n" + NameXml(*c, i) +
              "</INSTANCEPATH>\n" + InstanceXml(*c, i) + "</VALUE.OBJECTWITHPATH>\n";
    } else if (method == "CreateClass" || method == "ModifyClass") {
      const bool create = method == "CreateClass";
      CIMelement* cls = Find(params.get(create ? "NewClass" : "ModifiedClass"), "CLASS");
      if (cls == nullptr) Fail(kInvalidParameter, create ? "no NewClass" : "no ModifiedClass");
      SimClass c = ClassFromTree(cls, ns);
      if (c.name.empty()) Fail(kInvalidParameter, "class without a name");
      SimClass* existing = repo_.find(ns, c.name);
      if (create && existing) Fail(kAlreadyExists, c.name);
      if (!create && !existing) Fail(kNotFound, c.name);
      if (!c.super.empty()) {
        const SimClass* super = repo_.find(ns, c.super);
        if (super == nullptr) Fail(kInvalidSuperclass, c.super);
        // Inherited properties come first, as the superclass orders them.
        std::vector<SimProperty> props;
        for (const SimProperty& p : super->props)
          if (c.prop(p.name) == nullptr) props.push_back(p);
        props.insert(props.end(), c.props.begin(), c.props.end());
        c.props = props;
      }
      if (create) {
        repo_.classes.push_back(c);
      } else {
        for (SimInstance& i : existing->instances) {
          SimInstance kept;
          for (const auto& v : i)
            if (c.prop(v.first)) kept[c.prop(v.first)->name] = v.second;
          i = kept;
        }
        c.instances = std::move(existing->instances);
        *existing = c;
      }
    } else if (method == "DeleteClass") {
      const std::string name = needClass(params.className()).name;
      // The class goes with its subclasses and all their instances.
      repo_.classes.erase(std::remove_if(repo_.classes.begin(), repo_.classes.end(),
                                         [&](const SimClass& c) {
                                           return SameNoCase(c.ns, ns) &&
                                                  repo_.isA(ns, c.name, name);
                                         }),
                          repo_.classes.end());
    } else {
      Fail(kNotSupported, method);
    }
  } catch (const CimError& e) {
    return Envelope(id, "<IMETHODRESPONSE NAME=\"" + Esc(method) + "\">\n" +
                            ErrorXml(e.code, e.text) + "</IMETHODRESPONSE>\n");
  }
  return Envelope(id, "<IMETHODRESPONSE NAME=\"" + Esc(method) + "\">\n<IRETURNVALUE>\n" + out +
                          "</IRETURNVALUE>\n</IMETHODRESPONSE>\n");
}

// --- extrinsic methods --------------------------------------------------------------

std::string CimServer::extrinsic(CIMelement* call, const std::string& id) {
  const std::string method = Attr(call, "NAME");
  std::string out;
  int alertSeverity = -1;
  std::string alertText;
  try {
    CIMelement* path = Find(call, "LOCALINSTANCEPATH");
    if (path == nullptr) path = Find(call, "LOCALCLASSPATH");
    if (path == nullptr) Fail(kInvalidParameter, "no LOCALINSTANCEPATH or LOCALCLASSPATH");
    const std::string ns = NamespaceOf(Find(path, "LOCALNAMESPACEPATH"));
    CIMelement* name = Find(path, "INSTANCENAME");
    const std::string cls = name ? Attr(name, "CLASSNAME") : Attr(Find(path, "CLASSNAME"), "NAME");
    std::map<std::string, std::vector<std::string>> in;
    for (CIMelement* p : Children(call, "PARAMVALUE")) {
      std::vector<std::string>& values = in[Lower(Attr(p, "NAME"))];
      for (CIMelement* v = p->m_Next; v && IsInside(v, p); v = v->m_Next)
        if (IsKind(v, "VALUE") && v->m_Value) values.push_back(Unesc(v->m_Value));
    }
    auto number = [&](const char* param) -> long {
      const auto v = in.find(Lower(param));
      if (v == in.end() || v->second.empty())
        Fail(kInvalidParameter, std::string(param) + " missing");
      char* end = nullptr;
      const long n = std::strtol(v->second[0].c_str(), &end, 10);
      if (end == v->second[0].c_str())
        Fail(kInvalidParameter, std::string(param) + " is not a number");
      return n;
    };
    std::lock_guard<std::mutex> lk(modelMu_);
    if (!repo_.hasNamespace(ns)) Fail(kInvalidNamespace, ns);
    SimClass* c = repo_.find(ns, cls);
    if (c == nullptr) Fail(kInvalidClass, cls);
    const SimMethod* m = nullptr;
    for (const SimMethod& x : c->methods)
      if (SameNoCase(x.name, method)) m = &x;
    if (m == nullptr) Fail(kMethodNotFound, method + " of " + c->name);
    SimInstance* target = nullptr;
    if (name) {
      const auto keys = KeysFromTree(name);
      for (SimInstance& i : c->instances)
        if (!keys.empty() && Matches(*c, i, keys)) target = &i;
      if (target == nullptr) Fail(kNotFound, "no such instance of " + c->name);
    }
    unsigned long rc = 1;  // Not Supported
    std::string outParams;
    if (SameNoCase(method, "RequestStateChange")) {
      if (target == nullptr) Fail(kInvalidParameter, "RequestStateChange needs an instance");
      const long state = number("RequestedState");
      if (state == 2 || state == 3) {
        const SimInstance before = *target;
        if (c->prop("EnabledState")) (*target)["EnabledState"] = {std::to_string(state)};
        if (c->prop("OperationalStatus"))
          (*target)["OperationalStatus"] = {state == 2 ? "2" : "10"};
        rc = 0;
        if (before != *target) lifecycle("CIM_InstModification", ns, *c, *target, &before);
      } else if (state == 11) {
        rc = 0;  // reset: nothing to see
      } else {
        rc = 5;  // Invalid Parameter
      }
    } else if (SameNoCase(method, "GetStorageDeviceTree")) {
      // The system as a reference, its devices as embedded instances.
      const SimClass* system = repo_.find(ns, "CIM_ComputerSystem");
      if (system && !system->instances.empty())
        outParams = "<PARAMVALUE NAME=\"Root\" PARAMTYPE=\"reference\">\n<VALUE.REFERENCE>\n" +
                    NameXml(*system, system->instances[0]) + "</VALUE.REFERENCE>\n</PARAMVALUE>\n";
      outParams +=
          "<PARAMVALUE NAME=\"Devices\" PARAMTYPE=\"string\" EmbeddedObject=\"instance\">\n"
          "<VALUE.ARRAY>\n";
      for (const SimClass& k : repo_.classes) {
        if (!SameNoCase(k.ns, ns) || SameNoCase(k.name, "CIM_ComputerSystem")) continue;
        for (const SimInstance& i : k.instances)
          outParams += "<VALUE>" + Esc(InstanceXml(k, i)) + "</VALUE>\n";
      }
      outParams += "</VALUE.ARRAY>\n</PARAMVALUE>\n";
      rc = 0;
    } else if (SameNoCase(method, "RaiseAlert")) {
      const auto msg = in.find("message");
      alertText = msg != in.end() && !msg->second.empty() ? msg->second[0] : "alert";
      alertSeverity =
          in.count("perceivedseverity") ? static_cast<int>(number("PerceivedSeverity")) : 2;
      rc = 0;
    } else if (SameNoCase(method, "Reset")) {
      rc = 0;
    }
    out = "<RETURNVALUE PARAMTYPE=\"" + Esc(m->type.empty() ? "uint32" : m->type) + "\">\n<VALUE>" +
          std::to_string(rc) + "</VALUE>\n</RETURNVALUE>\n" + outParams;
  } catch (const CimError& e) {
    return Envelope(id, "<METHODRESPONSE NAME=\"" + Esc(method) + "\">\n" +
                            ErrorXml(e.code, e.text) + "</METHODRESPONSE>\n");
  }
  if (alertSeverity >= 0) raiseAlert(alertText, alertSeverity);
  return Envelope(id,
                  "<METHODRESPONSE NAME=\"" + Esc(method) + "\">\n" + out + "</METHODRESPONSE>\n");
}

// --- indications ------------------------------------------------------------------------

namespace {

bool Bookkeeping(const SimRepository& repo, const std::string& ns, const std::string& cls) {
  return repo.isA(ns, cls, "CIM_IndicationFilter") ||
         repo.isA(ns, cls, "CIM_ListenerDestination") ||
         repo.isA(ns, cls, "CIM_IndicationSubscription");
}

}  // namespace

void CimServer::lifecycle(const char* indicationClass, const std::string& ns, const SimClass& c,
                          const SimInstance& now, const SimInstance* before) {
  if (Bookkeeping(repo_, ns, c.name)) return;
  std::string props =
      Prop("SourceInstanceModelPath", "string", ModelPath(ns, c, now)) +
      Prop("SourceInstance", "string", InstanceXml(c, now), " EmbeddedObject=\"object\"");
  if (before)
    props +=
        Prop("PreviousInstance", "string", InstanceXml(c, *before), " EmbeddedObject=\"object\"");
  exportIndication(indicationClass, ns, c.name, props);
}

int CimServer::raiseAlert(const std::string& message, int severity) {
  std::lock_guard<std::mutex> lk(modelMu_);
  const std::string props =
      Prop("AlertType", "uint16", "5") +
      Prop("PerceivedSeverity", "uint16", std::to_string(severity)) +
      Prop("Description", "string", message) + Prop("ProbableCause", "uint16", "1") +
      Prop("SystemName", "string", kSystemName) +
      Prop("AlertingManagedElement", "string",
           std::string(
               "root/cimv2:CIM_ComputerSystem.CreationClassName=\"CIM_ComputerSystem\",Name=\"") +
               kSystemName + "\"");
  return exportIndication("CIM_AlertIndication", "root/cimv2", "", props);
}

// Called with modelMu_ held: reads the subscriptions, queues one export per match.
int CimServer::exportIndication(const std::string& indicationClass, const std::string& ns,
                                const std::string& sourceClass, const std::string& props) {
  const std::string interop = "root/interop";
  auto findByRef = [&](const std::string& ref, const char* base) -> const SimInstance* {
    const std::string want = RefKey(ref);
    for (const SimClass& k : repo_.classes) {
      if (!SameNoCase(k.ns, interop) || !repo_.isA(interop, k.name, base)) continue;
      for (const SimInstance& i : k.instances)
        if (RefKey(NameXml(k, i)) == want) return &i;
    }
    return nullptr;
  };
  auto first = [](const SimInstance& i, const char* name) -> std::string {
    const auto v = i.find(name);
    return v == i.end() || v->second.empty() ? "" : v->second[0];
  };
  std::vector<Export> queued;
  for (const SimClass& k : repo_.classes) {
    if (!SameNoCase(k.ns, interop) || !repo_.isA(interop, k.name, "CIM_IndicationSubscription"))
      continue;
    for (const SimInstance& sub : k.instances) {
      if (first(sub, "SubscriptionState") == "4") continue;  // disabled
      const SimInstance* filter = findByRef(first(sub, "Filter"), "CIM_IndicationFilter");
      const SimInstance* dest = findByRef(first(sub, "Handler"), "CIM_ListenerDestination");
      if (filter == nullptr || dest == nullptr) continue;
      const std::string query = first(*filter, "Query");
      const std::string from = WordAfter(query, "from");
      if (!from.empty() && !IndicationIsA(indicationClass, from)) continue;
      const std::string isa = WordAfter(query, "isa");
      if (!isa.empty() && !sourceClass.empty() && !repo_.isA(ns, sourceClass, isa)) continue;
      std::vector<std::string> sources;
      for (const char* p : {"SourceNamespace", "SourceNamespaces"}) {
        const auto v = filter->find(p);
        if (v != filter->end()) sources.insert(sources.end(), v->second.begin(), v->second.end());
      }
      bool fromSource = sources.empty();
      for (const std::string& s : sources) fromSource = fromSource || SameNoCase(s, ns);
      if (!fromSource) continue;
      Export e;
      if (!ParseUrl(first(*dest, "Destination"), e.host, e.port, e.path)) continue;
      queued.push_back(e);
    }
  }
  if (queued.empty()) return 0;
  std::lock_guard<std::mutex> lk(exportMu_);
  int count = 0;
  for (Export& e : queued) {
    const unsigned long n = nextIndication_++;
    e.body =
        "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n"
        "<CIM CIMVERSION=\"2.0\" DTDVERSION=\"2.0\">\n<MESSAGE ID=\"" +
        std::to_string(n) +
        "\" PROTOCOLVERSION=\"1.0\">\n<SIMPLEEXPREQ>\n<EXPMETHODCALL NAME=\"ExportIndication\">\n"
        "<EXPPARAMVALUE NAME=\"NewIndication\">\n<INSTANCE CLASSNAME=\"" +
        indicationClass + "\">\n" +
        Prop("IndicationIdentifier", "string", "oxsim:" + std::to_string(n)) +
        Prop("IndicationTime", "datetime", Datetime()) +
        Prop("SourceInstanceHost", "string", "127.0.0.1") + props +
        "</INSTANCE>\n</EXPPARAMVALUE>\n</EXPMETHODCALL>\n</SIMPLEEXPREQ>\n</MESSAGE>\n</CIM>\n";
    if (stopping_ || exports_.size() >= opt_.deliveryQueue) {
      ++failed_;
      continue;
    }
    exports_.push_back(std::move(e));
    ++count;
  }
  exportCv_.notify_all();
  return count;
}

std::size_t CimServer::indicationsDelivered() const {
  std::lock_guard<std::mutex> lk(exportMu_);
  return delivered_;
}

std::size_t CimServer::indicationsFailed() const {
  std::lock_guard<std::mutex> lk(exportMu_);
  return failed_;
}

bool CimServer::waitDeliveries(int timeoutMs) const {
  std::unique_lock<std::mutex> lk(exportMu_);
  return exportCv_.wait_for(lk, std::chrono::milliseconds(timeoutMs),
                            [&] { return exports_.empty() && !delivering_; });
}

void CimServer::deliveryLoop() {
  for (;;) {
    Export e;
    {
      std::unique_lock<std::mutex> lk(exportMu_);
      exportCv_.wait(lk, [&] { return stopping_ || !exports_.empty(); });
      if (stopping_) {
        failed_ += exports_.size();
        exports_.clear();
        exportCv_.notify_all();
        return;
      }
      e = std::move(exports_.front());
      exports_.pop_front();
      delivering_ = true;
    }
    bool ok = false;
    for (int attempt = 0; attempt < std::max(1, opt_.deliveryAttempts) && !ok; ++attempt) {
      if (attempt > 0) {
        std::unique_lock<std::mutex> lk(exportMu_);
        if (exportCv_.wait_for(lk, std::chrono::milliseconds(opt_.deliveryRetryMs),
                               [&] { return stopping_; }))
          break;
      }
      try {
        ok = deliver(e);
      } catch (...) {
        ok = false;
      }
    }
    std::lock_guard<std::mutex> lk(exportMu_);
    ++(ok ? delivered_ : failed_);
    delivering_ = false;
    exportCv_.notify_all();
  }
}

// One POST of an export message; true when the listener answered 200.
bool CimServer::deliver(const Export& e) {
  addrinfo hints{}, *res = nullptr;
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  if (getaddrinfo(e.host.c_str(), std::to_string(e.port).c_str(), &hints, &res) != 0 || !res)
    return false;
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  struct Closer {
    int fd;
    addrinfo* res;
    ~Closer() {
      if (fd >= 0) close(fd);
      freeaddrinfo(res);
    }
  } closer{fd, res};
  if (fd < 0) return false;
  const int timeout = opt_.deliveryTimeoutMs;
  if (connect(fd, res->ai_addr, res->ai_addrlen) != 0) {
    if (errno != EINPROGRESS) return false;
    pollfd p{fd, POLLOUT, 0};
    int err = 0;
    socklen_t len = sizeof err;
    if (poll(&p, 1, timeout) != 1 || getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0 ||
        err != 0)
      return false;
  }
  const std::string request =
      "POST " + e.path + " HTTP/1.1\r\nHost: " + e.host + ":" + std::to_string(e.port) +
      "\r\nContent-Type: application/xml; charset=\"utf-8\"\r\n"
      "CIMExport: MethodRequest\r\nCIMExportMethod: ExportIndication\r\n"
      "Content-Length: " +
      std::to_string(e.body.size()) + "\r\nConnection: close\r\n\r\n" + e.body;
  for (std::size_t sent = 0; sent < request.size();) {
    pollfd p{fd, POLLOUT, 0};
    if (poll(&p, 1, timeout) != 1) return false;
    const ssize_t n = send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (n <= 0) return false;
    sent += static_cast<std::size_t>(n);
  }
  // The status line is enough; the listener ends its lines with LF alone.
  std::string answer;
  char buf[1024];
  while (answer.find('\n') == std::string::npos && answer.size() < 4096) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, timeout) != 1) return false;
    const ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (n <= 0) break;
    answer.append(buf, static_cast<std::size_t>(n));
  }
  return answer.compare(0, 7, "HTTP/1.") == 0 && answer.size() > 12 &&
         answer.compare(8, 5, " 200 ") == 0;
}

}  // namespace oxsim
