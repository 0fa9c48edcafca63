#include "SimRepository.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

#include "SimServer.h"

namespace oxsim {

namespace fs = std::filesystem;

namespace {

const char kHead[] =
    "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n<CIM CIMVERSION=\"2.0\" DTDVERSION=\"2.0\">\n"
    "<DECLARATION>\n<DECLGROUP>\n";
const char kTail[] = "</DECLGROUP>\n</DECLARATION>\n</CIM>\n";

bool ReadFile(const fs::path& p, std::string& text, std::string& error) {
  std::ifstream in(p, std::ios::binary);
  if (!in) {
    error = "cannot read " + p.string();
    return false;
  }
  std::ostringstream os;
  os << in.rdbuf();
  text = os.str();
  return true;
}

bool WriteFile(const fs::path& p, const std::string& text, std::string& error) {
  std::ofstream out(p, std::ios::binary | std::ios::trunc);
  out << text;
  out.close();
  if (!out) {
    error = "cannot write " + p.string();
    return false;
  }
  return true;
}

// The VALUE.OBJECT children of a repository file, parsed.
bool Objects(const fs::path& p, oxCIM::CIMelement& tree, const char* kind,
             std::vector<oxCIM::CIMelement*>& out, std::string& error) {
  std::string text;
  if (!ReadFile(p, text, error)) return false;
  if (tree.ParseCIMXML(text) != 0) {
    error = p.string() + " is not CIM-XML";
    return false;
  }
  for (oxCIM::CIMelement* e = tree.m_Next; e; e = e->m_Next)
    if (IsKind(e, kind) && IsKind(e->m_Parent, "VALUE.OBJECT")) out.push_back(e);
  return true;
}

}  // namespace

bool LoadRepository(const std::string& dir, SimRepository& repo, std::string& error) {
  std::error_code ec;
  if (!fs::is_directory(dir, ec)) {
    error = dir + " is not a directory";
    return false;
  }
  SimRepository r;
  for (fs::recursive_directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec))
    if (it->path().filename() == "classes.xml")
      r.namespaces.push_back(it->path().parent_path().lexically_relative(dir).generic_string());
  if (ec) {
    error = "cannot read " + dir + ": " + ec.message();
    return false;
  }
  if (r.namespaces.empty()) {
    error = dir + " holds no namespace (no */classes.xml)";
    return false;
  }
  std::sort(r.namespaces.begin(), r.namespaces.end());
  for (const std::string& ns : r.namespaces) {
    const fs::path base = fs::path(dir) / ns;
    oxCIM::CIMelement tree;
    std::vector<oxCIM::CIMelement*> classes;
    if (!Objects(base / "classes.xml", tree, "CLASS", classes, error)) return false;
    for (oxCIM::CIMelement* c : classes) r.classes.push_back(ClassFromTree(c, ns));
    if (!fs::exists(base / "instances.xml", ec)) continue;
    oxCIM::CIMelement itree;
    std::vector<oxCIM::CIMelement*> instances;
    if (!Objects(base / "instances.xml", itree, "INSTANCE", instances, error)) return false;
    for (oxCIM::CIMelement* i : instances) {
      SimClass* c = r.find(ns, Attr(i, "CLASSNAME"));
      if (c == nullptr) {
        error = (base / "instances.xml").string() + ": instance of unknown class " +
                Attr(i, "CLASSNAME");
        return false;
      }
      SimInstance inst;
      if (!InstanceFromTree(i, *c, inst, error)) {
        error = (base / "instances.xml").string() + ": " + error;
        return false;
      }
      c->instances.push_back(inst);
    }
  }
  repo = std::move(r);
  return true;
}

bool SaveRepository(const std::string& dir, const SimRepository& repo, std::string& error) {
  for (const std::string& ns : repo.namespaces) {
    const fs::path base = fs::path(dir) / ns;
    std::error_code ec;
    fs::create_directories(base, ec);
    if (ec) {
      error = "cannot create " + base.string() + ": " + ec.message();
      return false;
    }
    std::string classes = kHead, instances = kHead;
    for (const SimClass& c : repo.classes) {
      if (!SameNoCase(c.ns, ns)) continue;
      classes += "<VALUE.OBJECT>\n" + ClassXml(c) + "</VALUE.OBJECT>\n";
      for (const SimInstance& i : c.instances)
        instances += "<VALUE.OBJECT>\n" + InstanceXml(c, i) + "</VALUE.OBJECT>\n";
    }
    if (!WriteFile(base / "classes.xml", classes + kTail, error) ||
        !WriteFile(base / "instances.xml", instances + kTail, error))
      return false;
  }
  return true;
}

}  // namespace oxsim
