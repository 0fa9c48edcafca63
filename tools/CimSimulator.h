// A small CIM server for demonstrations: HTTP/1.1 on 127.0.0.1, one thread, plain sockets.
// It reads each CIM-XML request with the library's own parser and answers from an
// in-memory model of a storage server.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <oxCIM.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace oxcimtool {

// Kind and attribute tests by name, so the tool needs nothing beyond the public tables.
inline bool IsKind(const oxCIM::CIMelement* e, const char* name) {
  return e != nullptr && e->m_Name != nullptr && std::strcmp(e->m_Name, name) == 0;
}

inline int AttrId(const char* name) {
  for (int i = 0; i < 34; ++i)
    if (std::strcmp(oxCIM::known_cim_attributes[i], name) == 0) return i;
  return 33;
}

inline int ElemId(const char* name) {
  for (int i = 0; i < 71; ++i)
    if (std::strcmp(oxCIM::known_cim_elements[i], name) == 0) return i;
  return 70;
}

inline const char* Attr(oxCIM::CIMelement* e, const char* name) {
  const char* v = e ? e->attr_find(AttrId(name)) : nullptr;
  return v ? v : "";
}

inline bool IsInside(const oxCIM::CIMelement* e, const oxCIM::CIMelement* ancestor) {
  for (const oxCIM::CIMelement* p = e ? e->m_Parent : nullptr; p; p = p->m_Parent)
    if (p == ancestor) return true;
  return false;
}

inline bool SameNoCase(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (std::toupper(static_cast<unsigned char>(a[i])) !=
        std::toupper(static_cast<unsigned char>(b[i])))
      return false;
  return true;
}

struct SimProperty {
  std::string name, type;
  bool key = false, array = false;
};
struct SimParameter {
  std::string name, type;
  bool array = false, out = false;
};
struct SimMethod {
  std::string name, type;
  std::vector<SimParameter> params;
};
// Property name -> values; a property without an entry is NULL.
using SimInstance = std::map<std::string, std::vector<std::string>>;
struct SimClass {
  std::string ns, name, super;
  std::vector<SimProperty> props;
  std::vector<SimMethod> methods;
  std::vector<SimInstance> instances;
};

class CimSimulator {
 public:
  CimSimulator(std::string user, std::string password)
      : m_User(std::move(user)), m_Password(std::move(password)), m_Classes(BuildModel()) {}
  ~CimSimulator() { Stop(); }
  CimSimulator(const CimSimulator&) = delete;
  CimSimulator& operator=(const CimSimulator&) = delete;

  // Binds an ephemeral port on 127.0.0.1 and starts serving; false with a reason on failure.
  bool Start(std::string& error) {
    m_Listen = socket(AF_INET, SOCK_STREAM, 0);
    if (m_Listen < 0) return Fail(error, "socket");
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (bind(m_Listen, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) return Fail(error, "bind");
    if (listen(m_Listen, 16) != 0) return Fail(error, "listen");
    if (getsockname(m_Listen, reinterpret_cast<sockaddr*>(&a), &len) != 0)
      return Fail(error, "getsockname");
    m_Port = ntohs(a.sin_port);
    m_Running = true;
    m_Thread = std::thread([this] { Serve(); });
    return true;
  }

  void Stop() {
    if (m_Thread.joinable()) {
      m_Running = false;
      m_Thread.join();
    }
    if (m_Listen >= 0) close(m_Listen);
    m_Listen = -1;
  }

  int Port() const { return m_Port; }

  // One HTTP exchange: request head (request line and headers) and body in, response out.
  std::string Answer(const std::string& head, const std::string& body) const {
    const size_t eol = head.find("\r\n");
    const std::string line = head.substr(0, eol);
    if (line.compare(0, 5, "POST ") != 0) return Http("405 Method Not Allowed", "", "");
    const size_t sp = line.find(' ', 5);
    if (line.substr(5, sp == std::string::npos ? std::string::npos : sp - 5) != "/cimom")
      return Http("404 Not Found", "", "");
    if (Header(head, "Authorization") != "Basic " + Base64(m_User + ":" + m_Password))
      return Http("401 Unauthorized", "WWW-Authenticate: Basic realm=\"cimom\"\r\n", "");
    if (!SameNoCase(Header(head, "CIMOperation"), "MethodCall"))
      return Http("400 Bad Request", "CIMError: header-mismatch\r\n", "");
    oxCIM::CIMelement request;
    if (request.ParseCIMXML(body) != 0)
      return Http("400 Bad Request", "CIMError: request-not-well-formed\r\n", "");
    return Http("200 OK", "CIMOperation: MethodResponse\r\n", Dispatch(request));
  }

 private:
  static bool Fail(std::string& error, const char* what) {
    error = std::string(what) + ": " + std::strerror(errno);
    return false;
  }

  static std::string Base64(const std::string& in) {
    static const char* digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    size_t i = 0;
    for (; i + 2 < in.size(); i += 3) {
      const unsigned v =
          (unsigned char)in[i] << 16 | (unsigned char)in[i + 1] << 8 | (unsigned char)in[i + 2];
      out += {digits[v >> 18], digits[v >> 12 & 63], digits[v >> 6 & 63], digits[v & 63]};
    }
    if (i + 1 == in.size()) {
      const unsigned v = (unsigned char)in[i] << 16;
      out += {digits[v >> 18], digits[v >> 12 & 63], '=', '='};
    } else if (i + 2 == in.size()) {
      const unsigned v = (unsigned char)in[i] << 16 | (unsigned char)in[i + 1] << 8;
      out += {digits[v >> 18], digits[v >> 12 & 63], digits[v >> 6 & 63], '='};
    }
    return out;
  }

  // Value of the first header with this name (any case), blanks around it removed.
  static std::string Header(const std::string& head, const std::string& name) {
    for (size_t pos = head.find("\r\n"); pos != std::string::npos;) {
      const size_t start = pos + 2, end = head.find("\r\n", start);
      const std::string line = head.substr(start, end == std::string::npos ? end : end - start);
      const size_t colon = line.find(':');
      if (colon != std::string::npos && SameNoCase(line.substr(0, colon), name)) {
        size_t b = colon + 1, e = line.size();
        while (b < e && (line[b] == ' ' || line[b] == '\t')) ++b;
        while (e > b && (line[e - 1] == ' ' || line[e - 1] == '\t')) --e;
        return line.substr(b, e - b);
      }
      pos = end;
    }
    return "";
  }

  static std::string Http(const std::string& status, const std::string& headers,
                          const std::string& body) {
    std::string r = "HTTP/1.1 " + status + "\r\n";
    if (!body.empty()) r += "Content-Type: application/xml; charset=\"utf-8\"\r\n";
    r += headers + "Content-Length: " + std::to_string(body.size()) +
         "\r\nConnection: close\r\n\r\n";
    return r + body;
  }

  static std::string Esc(const std::string& s) {
    std::string out;
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

  void Serve() {
    while (m_Running) {
      pollfd p{m_Listen, POLLIN, 0};
      if (poll(&p, 1, 100) <= 0) continue;
      const int fd = accept(m_Listen, nullptr, nullptr);
      if (fd < 0) continue;
      timeval tv{5, 0};  // a silent client must not stall the server
      setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
      std::string head, body;
      if (ReadRequest(fd, head, body)) {
        const std::string reply = Answer(head, body);
        for (size_t sent = 0; sent < reply.size();) {
          const ssize_t n = send(fd, reply.data() + sent, reply.size() - sent, MSG_NOSIGNAL);
          if (n <= 0) break;
          sent += static_cast<size_t>(n);
        }
      }
      close(fd);
    }
  }

  static bool ReadRequest(int fd, std::string& head, std::string& body) {
    std::string in;
    char buf[16384];
    size_t end;
    while ((end = in.find("\r\n\r\n")) == std::string::npos) {
      if (in.size() > 65536) return false;
      const ssize_t n = recv(fd, buf, sizeof buf, 0);
      if (n <= 0) return false;
      in.append(buf, static_cast<size_t>(n));
    }
    head = in.substr(0, end);
    body = in.substr(end + 4);
    const unsigned long want = std::strtoul(Header(head, "Content-Length").c_str(), nullptr, 10);
    if (want > (16ul << 20)) return false;
    while (body.size() < want) {
      const ssize_t n = recv(fd, buf, sizeof buf, 0);
      if (n <= 0) return false;
      body.append(buf, static_cast<size_t>(n));
    }
    body.resize(want);
    return true;
  }

  // --- CIM operations ------------------------------------------------------------

  struct Call {
    std::string method, ns, className;
    std::vector<std::pair<std::string, std::string>> keys;
  };

  static Call ReadCall(oxCIM::CIMelement& root) {
    Call call;
    oxCIM::CIMelement* m = root.findelement(ElemId("IMETHODCALL"), 0);
    if (m == nullptr) return call;
    call.method = Attr(m, "NAME");
    for (oxCIM::CIMelement* e = m->m_Next; e && IsInside(e, m); e = e->m_Next) {
      if (IsKind(e, "NAMESPACE") && IsKind(e->m_Parent, "LOCALNAMESPACEPATH")) {
        call.ns += (call.ns.empty() ? "" : "/") + std::string(Attr(e, "NAME"));
      } else if (IsKind(e, "IPARAMVALUE")) {
        const std::string name = Attr(e, "NAME");
        oxCIM::CIMelement* v = e->m_Next;
        if (SameNoCase(name, "ClassName") && IsKind(v, "CLASSNAME")) {
          call.className = Attr(v, "NAME");
        } else if (SameNoCase(name, "InstanceName") && IsKind(v, "INSTANCENAME")) {
          call.className = Attr(v, "CLASSNAME");
          for (oxCIM::CIMelement* k = v->m_Next; k && IsInside(k, v); k = k->m_Next)
            if (IsKind(k, "KEYBINDING") && IsKind(k->m_Next, "KEYVALUE"))
              call.keys.emplace_back(Attr(k, "NAME"), k->m_Next->m_Value ? k->m_Next->m_Value : "");
        }
      }
    }
    return call;
  }

  std::string Dispatch(oxCIM::CIMelement& request) const {
    oxCIM::CIMelement* msg = request.findelement(ElemId("MESSAGE"), 0);
    const std::string id = msg ? Attr(msg, "ID") : "";
    const Call call = ReadCall(request);
    std::string out;
    int code = Execute(call, out);
    if (code != 0)
      out = "<ERROR CODE=\"" + std::to_string(code) + "\" DESCRIPTION=\"" + Esc(out) + "\"/>\n";
    else
      out = "<IRETURNVALUE>\n" + out + "</IRETURNVALUE>\n";
    return "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n"
           "<CIM CIMVERSION=\"2.0\" DTDVERSION=\"2.0\">\n<MESSAGE ID=\"" +
           Esc(id) + "\" PROTOCOLVERSION=\"1.0\">\n<SIMPLERSP>\n<IMETHODRESPONSE NAME=\"" +
           Esc(call.method) + "\">\n" + out +
           "</IMETHODRESPONSE>\n</SIMPLERSP>\n</MESSAGE>\n</CIM>\n";
  }

  const SimClass* Find(const std::string& ns, const std::string& name) const {
    for (const SimClass& c : m_Classes)
      if (SameNoCase(c.ns, ns) && SameNoCase(c.name, name)) return &c;
    return nullptr;
  }

  // Fills out with the IRETURNVALUE content, or with an error description; returns the
  // CIM status code.
  int Execute(const Call& call, std::string& out) const {
    bool knownNs = false;
    for (const SimClass& c : m_Classes) knownNs = knownNs || SameNoCase(c.ns, call.ns);
    if (!knownNs) return Error(out, 3, "CIM_ERR_INVALID_NAMESPACE: " + call.ns);
    if (call.method == "EnumerateClassNames") {
      if (!call.className.empty() && !Find(call.ns, call.className))
        return Error(out, 5, "CIM_ERR_INVALID_CLASS: " + call.className);
      for (const SimClass& c : m_Classes)
        if (SameNoCase(c.ns, call.ns) &&
            (call.className.empty() || SameNoCase(c.super, call.className)))
          out += "<CLASSNAME NAME=\"" + Esc(c.name) + "\"/>\n";
      return 0;
    }
    const bool known = call.method == "GetClass" || call.method == "EnumerateInstances" ||
                       call.method == "EnumerateInstanceNames" || call.method == "GetInstance";
    if (!known) return Error(out, 7, "CIM_ERR_NOT_SUPPORTED: " + call.method);
    if (call.className.empty()) return Error(out, 4, "CIM_ERR_INVALID_PARAMETER: no class named");
    const SimClass* c = Find(call.ns, call.className);
    if (c == nullptr) return Error(out, 5, "CIM_ERR_INVALID_CLASS: " + call.className);
    if (call.method == "GetClass") {
      out = ClassXml(*c);
    } else if (call.method == "EnumerateInstances") {
      for (const SimInstance& i : c->instances)
        out += "<VALUE.NAMEDINSTANCE>\n" + NameXml(*c, i) + InstanceXml(*c, i) +
               "</VALUE.NAMEDINSTANCE>\n";
    } else if (call.method == "EnumerateInstanceNames") {
      for (const SimInstance& i : c->instances) out += NameXml(*c, i);
    } else {
      return GetInstance(*c, call, out);
    }
    return 0;
  }

  // Any subset of the keys that picks exactly one instance is accepted.
  static int GetInstance(const SimClass& c, const Call& call, std::string& out) {
    if (call.keys.empty()) return Error(out, 4, "CIM_ERR_INVALID_PARAMETER: no key bindings");
    for (const auto& k : call.keys) {
      bool isKey = false;
      for (const SimProperty& p : c.props) isKey = isKey || (p.key && SameNoCase(p.name, k.first));
      if (!isKey)
        return Error(out, 4,
                     "CIM_ERR_INVALID_PARAMETER: " + k.first + " is not a key of " + c.name);
    }
    const SimInstance* hit = nullptr;
    int hits = 0;
    for (const SimInstance& i : c.instances) {
      bool all = true;
      for (const auto& k : call.keys) {
        bool match = false;
        for (const auto& v : i)
          match = match ||
                  (SameNoCase(v.first, k.first) && v.second.size() == 1 && v.second[0] == k.second);
        all = all && match;
      }
      if (all) hit = &i, ++hits;
    }
    if (hits == 0) return Error(out, 6, "CIM_ERR_NOT_FOUND: no such instance of " + c.name);
    if (hits > 1)
      return Error(out, 4, "CIM_ERR_INVALID_PARAMETER: the keys match several instances");
    out = InstanceXml(c, *hit);
    return 0;
  }

  static int Error(std::string& out, int code, const std::string& text) {
    out = text;
    return code;
  }

  static std::string TypeAttrs(const std::string& name, const std::string& type) {
    return " NAME=\"" + Esc(name) + "\" TYPE=\"" + type + "\"";
  }

  static std::string ClassXml(const SimClass& c) {
    std::string x = "<CLASS NAME=\"" + Esc(c.name) + "\"";
    if (!c.super.empty()) x += " SUPERCLASS=\"" + Esc(c.super) + "\"";
    x += ">\n";
    for (const SimProperty& p : c.props) {
      const std::string tag = p.array ? "PROPERTY.ARRAY" : "PROPERTY";
      x += "<" + tag + TypeAttrs(p.name, p.type);
      if (p.key)
        x += ">\n<QUALIFIER NAME=\"Key\" TYPE=\"boolean\" "
             "OVERRIDABLE=\"false\">\n<VALUE>true</VALUE>\n"
             "</QUALIFIER>\n</" +
             tag + ">\n";
      else
        x += "/>\n";
    }
    for (const SimMethod& m : c.methods) {
      x += "<METHOD" + TypeAttrs(m.name, m.type) + ">\n";
      for (const SimParameter& p : m.params) {
        const bool ref = p.type.compare(0, 4, "ref:") == 0;
        const std::string tag = ref       ? "PARAMETER.REFERENCE"
                                : p.array ? "PARAMETER.ARRAY"
                                          : "PARAMETER";
        x += "<" + tag +
             (ref ? " NAME=\"" + Esc(p.name) + "\" REFERENCECLASS=\"" + p.type.substr(4) + "\""
                  : TypeAttrs(p.name, p.type)) +
             ">\n<QUALIFIER NAME=\"" + (p.out ? "Out" : "In") +
             "\" TYPE=\"boolean\">\n<VALUE>true</VALUE>\n</QUALIFIER>\n</" + tag + ">\n";
      }
      x += "</METHOD>\n";
    }
    return x + "</CLASS>\n";
  }

  static std::string NameXml(const SimClass& c, const SimInstance& i) {
    std::string x = "<INSTANCENAME CLASSNAME=\"" + Esc(c.name) + "\">\n";
    for (const SimProperty& p : c.props) {
      const auto v = i.find(p.name);
      if (!p.key || v == i.end() || v->second.empty()) continue;
      const char* vt = p.type == "string" ? "string" : p.type == "boolean" ? "boolean" : "numeric";
      x += "<KEYBINDING NAME=\"" + Esc(p.name) + "\">\n<KEYVALUE VALUETYPE=\"" + vt + "\">" +
           Esc(v->second[0]) + "</KEYVALUE>\n</KEYBINDING>\n";
    }
    return x + "</INSTANCENAME>\n";
  }

  static std::string InstanceXml(const SimClass& c, const SimInstance& i) {
    std::string x = "<INSTANCE CLASSNAME=\"" + Esc(c.name) + "\">\n";
    for (const SimProperty& p : c.props) {
      const auto v = i.find(p.name);
      if (v == i.end()) {
        x += std::string("<") + (p.array ? "PROPERTY.ARRAY" : "PROPERTY") +
             TypeAttrs(p.name, p.type) + "/>\n";
      } else if (p.array) {
        x += "<PROPERTY.ARRAY" + TypeAttrs(p.name, p.type) + ">\n<VALUE.ARRAY>\n";
        for (const std::string& e : v->second) x += "<VALUE>" + Esc(e) + "</VALUE>\n";
        x += "</VALUE.ARRAY>\n</PROPERTY.ARRAY>\n";
      } else {
        x += "<PROPERTY" + TypeAttrs(p.name, p.type) + ">\n<VALUE>" + Esc(v->second.at(0)) +
             "</VALUE>\n</PROPERTY>\n";
      }
    }
    return x + "</INSTANCE>\n";
  }

  // --- the model: one storage array ------------------------------------------------

  static std::vector<SimClass> BuildModel() {
    const std::string system = "SN-4C3A0012", cs = "CIM_ComputerSystem";
    const auto key = [](const char* n, const char* t) { return SimProperty{n, t, true, false}; };
    const auto prop = [](const char* n, const char* t) { return SimProperty{n, t, false, false}; };
    const auto arr = [](const char* n, const char* t) { return SimProperty{n, t, false, true}; };
    const SimMethod stateChange{"RequestStateChange",
                                "uint32",
                                {{"RequestedState", "uint16", false, false},
                                 {"Job", "ref:CIM_ConcreteJob", false, true},
                                 {"TimeoutPeriod", "datetime", false, false}}};
    std::vector<SimClass> m;

    SimClass sys{"root/cimv2", cs, "CIM_System", {}, {stateChange}, {}};
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
      vol.instances.push_back(
          {{"SystemCreationClassName", {cs}},
           {"SystemName", {system}},
           {"CreationClassName", {"CIM_StorageVolume"}},
           {"DeviceID", {id}},
           {"ElementName", {names[n]}},
           {"Name", {wwn}},
           {"NameFormat", {"2"}},
           {"BlockSize", {std::to_string(block)}},
           {"NumberOfBlocks", {std::to_string(blocks)}},
           {"ConsumableBlocks", {std::to_string(blocks - 2048)}},
           {"OperationalStatus", degraded  ? std::vector<std::string>{"3", "32768"}
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
    return m;
  }

  std::string m_User, m_Password;
  std::vector<SimClass> m_Classes;
  int m_Listen = -1;
  int m_Port = 0;
  std::atomic<bool> m_Running{false};
  std::thread m_Thread;
};

}  // namespace oxcimtool
