#include "Snapshot.h"

#include "SimRepository.h"
#include "SimServer.h"

namespace oxsim {

namespace {

std::string Status(oxCIM::CIMcontainer& conn, const std::string& what) {
  return what + " failed with status " + std::to_string(conn.m_ErrCode);
}

// Elements of kind inside IRETURNVALUE of the last answer, in a tree the caller keeps.
std::vector<oxCIM::CIMelement*> Returned(oxCIM::CIMcontainer& conn, oxCIM::CIMelement& tree,
                                         const char* kind) {
  std::vector<oxCIM::CIMelement*> out;
  if (tree.ParseCIMXML(conn.m_Response) != 0) return out;
  for (oxCIM::CIMelement* e = tree.m_Next; e; e = e->m_Next)
    if (IsKind(e, kind) && !IsKind(e->m_Parent, "VALUE.REFERENCE")) {
      bool returned = false;
      for (oxCIM::CIMelement* p = e->m_Parent; p && !returned; p = p->m_Parent)
        returned = IsKind(p, "IRETURNVALUE");
      if (returned) out.push_back(e);
    }
  return out;
}

}  // namespace

bool TakeSnapshot(oxCIM::CIMcontainer& conn, const std::string& dir, std::string& error) {
  oxCIM::CIMclass* saved = conn.m_pcls;
  struct Restore {
    oxCIM::CIMcontainer& c;
    oxCIM::CIMclass* p;
    ~Restore() { c.m_pcls = p; }
  } restore{conn, saved};

  SimRepository repo;
  oxCIM::CIMarray names;
  if (conn.getNameSpace(names) != 0) {
    error = Status(conn, "listing the namespaces (CIM_Namespace in root/interop)");
    return false;
  }
  for (unsigned long n = 0; n < names.argc; ++n)
    if (names.argv[n] && !repo.hasNamespace(names.argv[n]))
      repo.namespaces.push_back(names.argv[n]);
  if (!repo.hasNamespace("root/interop")) repo.namespaces.push_back("root/interop");

  for (const std::string& ns : repo.namespaces) {
    conn.setCurrentClass("", ns.c_str());
    if (conn.Imethod_EnumerateClasses(0, 1, 0, 1) != 0) {
      error = Status(conn, "EnumerateClasses in " + ns);
      return false;
    }
    oxCIM::CIMelement classes;
    const std::size_t first = repo.classes.size();
    for (oxCIM::CIMelement* c : Returned(conn, classes, "CLASS"))
      repo.classes.push_back(ClassFromTree(c, ns));
    for (std::size_t k = first; k < repo.classes.size(); ++k) {
      SimClass& c = repo.classes[k];
      conn.setCurrentClass(c.name.c_str(), ns.c_str());
      conn.Imethod_EnumerateInstances(0, 0, 0, 1, nullptr);
      const int code = conn.m_ErrCode;
      if (code != 0 && (code > 1000 || (conn.m_Info & oxCIM::NO_Connect))) {
        error = Status(conn, "EnumerateInstances of " + c.name + " in " + ns);
        return false;
      }
      if (code != 0) continue;  // refused for this class: kept without instances
      oxCIM::CIMelement tree;
      for (oxCIM::CIMelement* e : Returned(conn, tree, "INSTANCE")) {
        if (!SameNoCase(Attr(e, "CLASSNAME"), c.name)) continue;  // a subclass: its own turn
        SimInstance i;
        std::string why;
        InstanceFromTree(e, c, i, why, true);
        c.instances.push_back(i);
      }
    }
  }
  return SaveRepository(dir, repo, error);
}

}  // namespace oxsim
