// Repositories: what a CIM server holds, kept as a directory of CIM-XML files.
//
//   DIR/<namespace>/classes.xml     CIM > DECLARATION > DECLGROUP > VALUE.OBJECT > CLASS ...
//   DIR/<namespace>/instances.xml   CIM > DECLARATION > DECLGROUP > VALUE.OBJECT > INSTANCE ...
//
// <namespace> is the namespace as a relative path (root/cimv2 is DIR/root/cimv2). Classes
// keep their properties (Key qualifiers), methods and parameters; other qualifiers are
// not kept. Instances name their class, which must be in the same namespace.
#pragma once

#include <string>

#include "SimModel.h"

namespace oxsim {

// Replaces repo with the repository in dir; false with a reason.
bool LoadRepository(const std::string& dir, SimRepository& repo, std::string& error);
// Writes repo into dir (created when missing; files of the same names replaced).
bool SaveRepository(const std::string& dir, const SimRepository& repo, std::string& error);

}  // namespace oxsim
