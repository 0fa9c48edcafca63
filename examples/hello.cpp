// Smallest program against the installed library: prints the module identity and
// builds a one-element tree.
#include <oxCIM.h>

#include <cstdio>

int main() {
  oxCIM::CIMelement root;
  root.ParseCIMXML("<?xml version=\"1.0\" ?><CIM CIMVERSION=\"2.0\"></CIM>");
  std::printf("%s %d %s\n", oxCIM::oxCIM.GetName(), oxCIM::oxCIM.GetNumber(),
              oxCIM::oxCIM.GetVersion());
  return 0;
}
