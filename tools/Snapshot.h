// Snapshots: a copy of what a real CIM server holds, for offline tests.
//
//   oxCIM::CIMcontainer conn;               // host, port, credentials, TLS set as usual
//   std::string error;
//   if (!oxsim::TakeSnapshot(conn, "array1.snap", error)) ...
//   // later: oxcim-sim --repository array1.snap  (or LoadRepository + CimServer)
#pragma once

#include <oxCIM.h>

#include <string>

namespace oxsim {

// Records every namespace the server lists (getNameSpace, plus root/interop), all classes
// of each (EnumerateClasses, deep) and every instance of each class (EnumerateInstances)
// into the repository directory dir (SimRepository.h), through the library's public API
// only. A class whose instances the server refuses to enumerate (a CIM error) is kept
// without instances; a transport failure ends the snapshot. The container's current
// class is restored. False with a reason on failure; dir may then be incomplete.
bool TakeSnapshot(oxCIM::CIMcontainer& conn, const std::string& dir, std::string& error);

}  // namespace oxsim
