// The response tree of an exchange: which ERROR element counts, how the previous tree is
// replaced, and the attribute arrays the parser builds.
#include <gtest/gtest.h>

#include <cstring>

#include "TestSupport.h"

namespace {

std::string Document(const std::string& inner) {
  return "<?xml version=\"1.0\"?>\n<CIM CIMVERSION=\"2.0\" DTDVERSION=\"2.0\"><MESSAGE ID=\"7\">"
         "<SIMPLERSP><IMETHODRESPONSE NAME=\"EnumerateInstances\">" +
         inner + "</IMETHODRESPONSE></SIMPLERSP></MESSAGE></CIM>\n";
}

std::string Instances(int n) {
  std::string s;
  for (int i = 0; i < n; ++i)
    s += "<INSTANCE CLASSNAME=\"OX_Disk\"><PROPERTY NAME=\"ID\" TYPE=\"string\"><VALUE>d" +
         std::to_string(i) + "</VALUE></PROPERTY></INSTANCE>";
  return "<IRETURNVALUE>" + s + "</IRETURNVALUE>";
}

TEST(ResponseTree, FirstErrorInListOrderCountsWhicheverEngineParsed) {
  oxtest::TraceCapture trace;
  oxtest::ScriptedServer server;
  oxCIM::CIMconnection conn;
  oxtest::PointAt(conn, server.port());
  conn.m_Request = "<?xml version=\"1.0\"?><CIM/>";
  const std::pair<std::string, int> cases[] = {
      {Document(Instances(300) + "<ERROR CODE=\"6\" DESCRIPTION=\"gone\"/>"), 6},
      {Document("<IRETURNVALUE><ERROR CODE=\"12\"/></IRETURNVALUE><ERROR CODE=\"5\"/>"), 12},
      {Document("<!-- exact route --><ERROR CODE=\"8\"/><ERROR CODE=\"5\"/>"), 8},
      // The comment is met after the ERROR was built once: the list is built anew.
      {Document(Instances(20) + "<ERROR CODE=\"9\"/><!-- late -->"), 9},
      {Document(Instances(5)), 0},  // no ERROR left over from the answers before
      // Unparsable after the ERROR: the parse failure comes first, the ERROR is traced.
      {Document("<ERROR CODE=\"6\" DESCRIPTION=\"d\"/><VALUE>"), 5002},
  };
  char object[] = "root/cimv2";
  for (const auto& [body, rc] : cases) {
    server.push(oxtest::CannedResponse::cimOk(body));
    EXPECT_EQ(conn.sendRequest_recvResponse("EnumerateInstances", object), rc) << body;
  }
  EXPECT_EQ(trace.statusCodes().back(), "6 d");

  // An early return leaves no tree behind either.
  conn.m_Passwd.clear();
  EXPECT_EQ(conn.sendRequest_recvResponse("EnumerateInstances", object), 5000);
  EXPECT_EQ(conn.m_ResponseTree.m_Name, nullptr);
  EXPECT_EQ(conn.m_ResponseTree.m_Next, nullptr);
}

// Arrays from the parser must be indistinguishable from ones grown by attr_put, since
// callers go on appending to them.
TEST(ResponseTree, ParsedAttributesMatchArraysBuiltByAttrPut) {
  oxCIM::CIMelement root;
  ASSERT_EQ(root.ParseCIMXML(Document("<PROPERTY NAME=\"Size\" TYPE=\"uint64\" PROPAGATED=\"\"/>")),
            0);
  oxCIM::CIMelement* prop = root.findelement(42, 0);
  ASSERT_TRUE(prop && prop->m_Attributes);
  oxCIM::CIMelement built;
  built.attr_put(0, "Size");
  built.attr_put(1, "uint64");
  built.attr_put(20, "");
  built.m_Attributes->FreeUnused();
  const oxCIM::CIMarray& a = *prop->m_Attributes;
  const oxCIM::CIMarray& b = *built.m_Attributes;
  EXPECT_EQ(a.elemlen, b.elemlen);
  EXPECT_EQ(a.maxargc, b.maxargc);
  ASSERT_EQ(a.argc, b.argc);
  for (unsigned long i = 0; i < a.argc; ++i)
    EXPECT_EQ(std::memcmp(a.argv[i], b.argv[i], std::strlen(b.argv[i] + 1) + 2), 0) << i;
  ASSERT_EQ(prop->attr_put(12, "id-1"), 0);
  EXPECT_STREQ(prop->attr_find(12), "id-1");
}

}  // namespace
