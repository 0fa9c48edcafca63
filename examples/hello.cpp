// Smallest program against the installed library: prints the module identity and the
// trace mask taken from OXCIM_TRACE, after parsing a one-element document.
#include <oxCIM.h>

#include <cstdio>

int main() {
  oxCIM::CIMelement root;
  root.ParseCIMXML("<?xml version=\"1.0\" ?><CIM CIMVERSION=\"2.0\"></CIM>");
  std::printf("%s %d %s\n", oxCIM::oxCIM.GetName(), oxCIM::oxCIM.GetNumber(),
              oxCIM::oxCIM.GetVersion());
  std::printf("trace mask 0x%lx\n", oxCIM::oxCIM.GetTraceMask());
  return 0;
}
