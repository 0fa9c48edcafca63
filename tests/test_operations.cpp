// Intrinsic operations: real libcurl against the in-process fake server, asserting the request
// bytes on the wire and what lands on the current class; plus the offline corners.
#include <oxCIM.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "TestSupport.h"

using namespace oxCIM;
using oxtest::CannedResponse;
using oxtest::ScriptedServer;
using oxtest::TraceCapture;
using oxtest::PointAt;

namespace {

// The n-th run of a fixture from `open` through `close`.
std::string Section(const char* fixture, const std::string& open, const std::string& close,
                    int n = 0) {
  const std::string doc = oxtest::ReadFixture(fixture);
  size_t b = doc.find(open);
  while (n-- > 0 && b != std::string::npos) b = doc.find(open, b + 1);
  const size_t e = b == std::string::npos ? b : doc.find(close, b);
  return e == std::string::npos ? "<no section>" : doc.substr(b, e + close.size() - b);
}

const std::string kCimv2 =
    "<LOCALNAMESPACEPATH>\n<NAMESPACE NAME=\"root\"/>\n<NAMESPACE NAME=\"cimv2\"/>\n"
    "</LOCALNAMESPACEPATH>\n";
const std::string kClassParam =
    "<IPARAMVALUE NAME=\"ClassName\"><CLASSNAME NAME=\"OXS_StorageVolume\"/></IPARAMVALUE>\n";
const std::string kPropertyList =
    "<IPARAMVALUE NAME=\"PropertyList\">\n<VALUE.ARRAY>\n<VALUE>ElementName</VALUE>\n"
    "</VALUE.ARRAY>\n</IPARAMVALUE>\n";
const std::string kPropertyName =
    "<IPARAMVALUE NAME=\"PropertyName\">\n<VALUE>ElementName</VALUE>\n</IPARAMVALUE>\n";

std::string Request(int id, const std::string& method, const std::string& params,
                    const std::string& nsPath = kCimv2) {
  return "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n<CIM CIMVERSION=\"2.0\" DTDVERSION=\"2.0\">\n"
         "<MESSAGE ID=\"" + std::to_string(id) + "\" PROTOCOLVERSION=\"1.0\">\n<SIMPLEREQ>\n"
         "<IMETHODCALL NAME=\"" + method + "\">\n" + nsPath + params +
         "</IMETHODCALL>\n</SIMPLEREQ>\n</MESSAGE>\n</CIM>\n";
}

std::string Flag(const char* name, const char* value) {
  return std::string("<IPARAMVALUE NAME=\"") + name + "\"><VALUE>" + value +
         "</VALUE>\n</IPARAMVALUE>\n";
}

// The InstanceName parameter for the i-th name of the enumeration fixture.
std::string NameParam(int i) {
  return "<IPARAMVALUE NAME=\"InstanceName\">\n" +
         Section("op_enuminstancenames.xml", "<INSTANCENAME", "</INSTANCENAME>\n", i) +
         "</IPARAMVALUE>\n";
}

std::string Text(const char* s) { return s ? s : ""; }

// Kind, NAME, key mark and parent NAME of every node of a list, one line each.
std::string Render(CIMelement* list) {
  std::string out;
  for (CIMelement* e = list; e; e = e->m_Next) {
    out += Text(e->m_Name) + " " + Text(e->attr_find(0));
    if (e->m_Value) out += " =" + Text(e->m_Value);
    out += " ^" + (e->m_Parent ? Text(e->m_Parent->attr_find(0)) : "-") + "\n";
  }
  return out;
}

class Operations : public ::testing::Test {
 protected:
  void SetUp() override {
    PointAt(c, srv.port());
    c.setCurrentClass("OXS_StorageVolume", nullptr);
  }
  std::string body(size_t i) {
    srv.waitForRequests(i + 1, 2000);
    auto reqs = srv.requests();
    return i < reqs.size() ? reqs[i].body : "<no request>";
  }
  void answer(const char* fixture) { srv.push(CannedResponse::cimOk(oxtest::ReadFixture(fixture))); }
  CIMelement* name(int i) {
    return c.m_pcls->m_InstanceNames ? c.m_pcls->m_InstanceNames->findelement(17, i) : nullptr;
  }
  CIMelement* instance(int i) {
    return c.m_pcls->m_Properties ? c.m_pcls->m_Properties->findelement(16, i) : nullptr;
  }
  std::string key(int i) { return name(i) ? Text(name(i)->getValueOf(21, "DeviceID")) : "-"; }

  ScriptedServer srv;
  CIMcontainer c;
};

// ---------------------------------------------------------------------------------------

// Every offered operation once on one connection: the exact request of each and its result.
TEST_F(Operations, EveryOfferedOperationOnOneConnection) {
  CIMcontainer holder;  // a parsed CLASS tree, as an application would hold one
  ASSERT_EQ(holder.m_ResponseTree.ParseCIMXML(oxtest::ReadFixture("op_getclass.xml")), 0);
  CIMelement* cls = holder.m_ResponseTree.findelement(2, 0);
  ASSERT_NE(cls, nullptr);
  const std::string classText = Section("op_getclass.xml", "<CLASS ", "</CLASS>\n");
  CIMarray plist;
  plist.putargv("ElementName", -1, 15);
  CIMarray namespaces;

  struct Step {
    const char* answer;
    std::function<unsigned long()> call;
    const char* method;
    std::string params;
    bool object;  // non-zero result expected instead of 0
  };
  const Step steps[] = {
      {"op_getclass.xml", [&] { return c.Imethod_GetClass(0, 1, -1, &plist); }, "GetClass",
       kClassParam + Flag("LocalOnly", "false") + Flag("IncludeQualifiers", "true") +
           kPropertyList,
       false},
      {"op_enuminstancenames.xml", [&] { return c.Imethod_EnumerateInstanceNames(); },
       "EnumerateInstanceNames", kClassParam, true},
      {"op_getinstance.xml", [&] { return c.Imethod_GetInstance(name(1), 1, nullptr); },
       "GetInstance", NameParam(1) + Flag("IncludeClassOrigin", "true"), true},
      {"op_getinstance.xml", [&] { return c.Imethod_GetInstance(name(1), -1, nullptr); },
       "GetInstance", NameParam(1), true},
      {"op_enuminstances.xml",
       [&] { return c.Imethod_EnumerateInstances(-1, 0, 1, -1, nullptr); },
       "EnumerateInstances",
       Flag("IncludeQualifiers", "false") + Flag("IncludeClassOrigin", "true") + kClassParam, true},
      // The named instance stands directly in IMETHODCALL, its InstanceName inside.
      {"op_void.xml", [&] { return c.Imethod_ModifyInstance(name(0), *instance(0), &plist); },
       "ModifyInstance",
       kPropertyList + "<VALUE.NAMEDINSTANCE>\n" + NameParam(0) +
           Section("op_enuminstances.xml", "<INSTANCE ", "</INSTANCE>\n") +
           "</VALUE.NAMEDINSTANCE>\n",
       false},
      {"op_getproperty.xml", [&] { return c.Imethod_GetProperty(name(0), "ElementName"); },
       "GetProperty", kPropertyName + NameParam(0), false},
      {"op_void.xml", [&] { return c.Imethod_SetProperty(name(0), "ElementName", "archive"); },
       "SetProperty",
       kPropertyName + "<IPARAMVALUE NAME=\"NewValue\">\n<VALUE>archive</VALUE>\n</IPARAMVALUE>\n" +
           NameParam(0),
       false},
      {"op_void.xml", [&] { return c.Imethod_SetProperty(name(0), "ElementName", ""); },
       "SetProperty", kPropertyName + NameParam(0), false},
      {"op_void.xml", [&] { return c.Imethod_ExecQuery("DMTF:CQL", "OXS_DiskDrive"); },
       "ExecQuery",
       "<IPARAMVALUE NAME=\"QueryLanguage\"><VALUE>DMTF:CQL</VALUE>\n</IPARAMVALUE>\n"
       "<IPARAMVALUE NAME=\"Query\"><VALUE>select * from OXS_DiskDrive</VALUE>\n</IPARAMVALUE>\n",
       false},
      {"op_enumclasses.xml", [&] { return c.Imethod_EnumerateClasses(1, 0, -1, 1); },
       "EnumerateClasses",
       Flag("LocalOnly", "true") + Flag("IncludeQualifiers", "false") +
           Flag("DeepInheritance", "true") + kClassParam,
       false},
      {"op_void.xml", [&] { return c.Imethod_CreateClass(*cls); }, "CreateClass",
       "<IPARAMVALUE NAME=\"NewClass\">\n" + classText + "</IPARAMVALUE>\n", false},
      {"op_void.xml", [&] { return c.Imethod_ModifyClass(*cls); }, "ModifyClass",
       "<IPARAMVALUE NAME=\"ModifiedClass\">\n" + classText + "</IPARAMVALUE>\n", false},
      {"op_void.xml", [&] { return c.Imethod_DeleteInstance(name(1)); }, "DeleteInstance",
       NameParam(1), false},
      {"op_void.xml", [&] { return c.Imethod_DeleteClass(); }, "DeleteClass", kClassParam, false},
      {"op_namespaces.xml", [&] { return c.getNameSpace(namespaces); }, "EnumerateInstances",
       "<IPARAMVALUE NAME=\"ClassName\"><CLASSNAME NAME=\"CIM_Namespace\"/></IPARAMVALUE>\n",
       false},
      {"op_enumclassnames.xml",
       [&] {
         c.setCurrentClass("", nullptr);  // no class: the parameter is left out
         return c.Imethod_EnumerateClassNames(-1);
       },
       "EnumerateClassNames", "", false},
  };
  const std::string interop =
      "<LOCALNAMESPACEPATH>\n<NAMESPACE NAME=\"root\"/>\n<NAMESPACE NAME=\"interop\"/>\n"
      "</LOCALNAMESPACEPATH>\n";
  for (size_t i = 0; i < sizeof(steps) / sizeof(steps[0]); ++i) {
    const Step& s = steps[i];
    SCOPED_TRACE(std::to_string(i) + " " + s.method);
    answer(s.answer);
    const unsigned long r = s.call();
    if (s.object)
      EXPECT_NE(r, 0u);
    else
      EXPECT_EQ(r, 0u);
    const bool discovery = s.params.find("CIM_Namespace") != std::string::npos;
    EXPECT_EQ(body(i), Request(1001 + i, s.method, s.params, discovery ? interop : kCimv2));
    EXPECT_EQ(srv.requests()[i].header("CIMMethod"), s.method);
    EXPECT_EQ(srv.requests()[i].header("CIMObject"), discovery ? "root%2Finterop" : "root%2Fcimv2");
  }
  // Answers of the status members stay in the response tree.
  ASSERT_NE(c.m_ResponseTree.findelement(3, 2), nullptr);
  EXPECT_STREQ(c.m_ResponseTree.findelement(3, 2)->attr_find(0), "OXS_DiskDrive");
  EXPECT_EQ(namespaces.argc, 3u);
}

TEST_F(Operations, GetClassKeepsPropertyTemplateAndMethodsWithParameters) {
  answer("op_getclass.xml");  // names the class in other letter case: still ours
  ASSERT_EQ(c.Imethod_GetClass(-1, -1, -1, nullptr), 0u);
  EXPECT_EQ(Render(c.m_pcls->m_Properties),
            "INSTANCE  ^-\n"
            "PROPERTY SystemName =Key ^\n"
            "PROPERTY DeviceID =Key ^\n"
            "PROPERTY BlockSize ^\n"
            "PROPERTY.ARRAY OperationalStatus ^\n"
            "PROPERTY.REFERENCE Pool ^\n"
            "PROPERTY ElementName ^\n");
  EXPECT_EQ(c.m_pcls->m_Properties->m_Name, known_cim_elements[16]);
  EXPECT_STREQ(c.m_pcls->m_Properties->attr_find(7), "OXS_StorageVolume");
  EXPECT_STREQ(c.m_pcls->m_Properties->findProperty("Pool")->attr_find(24), "OXS_StoragePool");
  EXPECT_EQ(Render(c.m_pcls->m_Methods),
            "METHOD RequestStateChange ^-\n"
            "PARAMETER RequestedState ^RequestStateChange\n"
            "PARAMETER.REFERENCE Job ^RequestStateChange\n"
            "PARAMETER TimeoutPeriod ^RequestStateChange\n"
            "METHOD Reset ^-\n"
            "METHOD Resize ^-\n"
            "PARAMETER.ARRAY Sizes ^Resize\n"
            "PARAMETER.REFARRAY Extents ^Resize\n");

  TraceCapture traces(TRACE_ERROR);
  c.setCurrentClass("OXS_Other", nullptr);
  answer("op_getclass.xml");
  EXPECT_EQ(c.Imethod_GetClass(-1, -1, -1, nullptr), 1001u);
  EXPECT_EQ(c.m_pcls->m_Properties, nullptr);
  EXPECT_EQ(c.m_pcls->m_Methods, nullptr);
  EXPECT_EQ(traces.count(TRACE_ERROR, "[127.0.0.1] ExtractClassDefinition() Class-ClassName"), 1);
  EXPECT_EQ(traces.count(TRACE_ERROR, "[127.0.0.1] ExtractClassDefinition() OXS_Other"), 1);
}

TEST_F(Operations, EnumerationsFillTheListsPairedByPosition) {
  answer("op_enuminstances.xml");
  const unsigned long first = c.Imethod_EnumerateInstances(-1, -1, -1, -1, nullptr);
  EXPECT_EQ(reinterpret_cast<CIMelement*>(first), name(0));
  const char* labels[] = {"system-lun", "data-lun", "log-lun"};
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(key(i), "vol-000" + std::to_string(i + 1));
    ASSERT_NE(instance(i), nullptr);
    EXPECT_EQ(Text(instance(i)->getValueOfProperty("DeviceID")), key(i));
    EXPECT_EQ(Text(instance(i)->getValueOfProperty("ElementName")), labels[i]);
  }
  EXPECT_EQ(name(3), nullptr);
  EXPECT_EQ(instance(3), nullptr);

  // No instances: 0 without a trace, and the earlier result is gone.
  TraceCapture traces(TRACE_ERROR);
  answer("op_enuminstances_empty.xml");
  EXPECT_EQ(c.Imethod_EnumerateInstances(-1, -1, -1, -1, nullptr), 0u);
  EXPECT_EQ(c.ChkCimStatus(), 0);
  EXPECT_EQ(name(0), nullptr);
  EXPECT_EQ(instance(0), nullptr);
  EXPECT_EQ(traces.count(TRACE_ERROR), 0);

  // No names: 0 with the missing-element trace.
  answer("op_void.xml");
  EXPECT_EQ(c.Imethod_EnumerateInstanceNames(), 0u);
  EXPECT_EQ(traces.count(TRACE_ERROR,
                         "[127.0.0.1] ExtractInstanceNames() missing INSTANCENAME-subelement"),
            1);
}

TEST_F(Operations, CreateInstanceWritesEveryTypeAndAppendsTheNewName) {
  answer("op_enuminstancenames.xml");
  ASSERT_NE(c.Imethod_EnumerateInstanceNames(), 0u);
  const unsigned char yes = 1;
  const uint8_t u8 = 200;
  const int8_t s8[] = {-1, 7};
  const uint16_t u16[] = {2, 32768};
  const int16_t s16 = -300;
  const uint32_t u32 = 4000000000u;
  const int32_t s32 = -5;
  const uint64_t u64 = 26214400;
  const int64_t s64 = -9000000000LL;
  const float r32 = 0.25f;
  const double r64 = 0.1;
  _properties_ props[] = {
      {"Enabled", 0, 1, &yes, nullptr},           {"ElementName", 1, 1, "new-lun", nullptr},
      {"Priority", 3, 1, &u8, nullptr},           {"Offsets", 4 | 0x100, 2, s8, nullptr},
      {"Status", 5 | 0x100, 2, u16, nullptr},     {"Skew", 6, 1, &s16, nullptr},
      {"Quota", 7, 1, &u32, nullptr},             {"Delta", 8, 1, &s32, nullptr},
      {"Blocks", 9, 5, &u64, nullptr},            {"Drift", 10, 1, &s64, nullptr},
      {"Ratio", 12, 1, &r32, nullptr},            {"Weight", 13, 1, &r64, nullptr},
      {"Skipped", 7, 0, nullptr, nullptr},        {"Empty", 7, 0, &u32, nullptr},
      {"Odd", 14, 1, &u32, nullptr},              {"Pool", 15, 1, "OXS_StoragePool", name(0)},
      {nullptr, 0, 0, nullptr, nullptr},
  };
  auto prop = [](const char* n, const char* t, const char* v) {
    return std::string("<PROPERTY NAME=\"") + n + "\" TYPE=\"" + t + "\">\n" + v + "</PROPERTY>\n";
  };
  answer("op_createinstance.xml");
  const unsigned long created = c.Imethod_CreateInstance(props);
  EXPECT_EQ(
      body(1),
      Request(1002, "CreateInstance",
              "<IPARAMVALUE NAME=\"NewInstance\">\n<INSTANCE CLASSNAME=\"OXS_StorageVolume\">\n" +
                  prop("Enabled", "boolean", "<VALUE>true</VALUE>\n") +
                  prop("ElementName", "string", "<VALUE>new-lun</VALUE>\n") +
                  prop("Priority", "uint8", "<VALUE>200</VALUE>\n") +
                  "<PROPERTY.ARRAY NAME=\"Offsets\" TYPE=\"sint8\">\n<VALUE.ARRAY>\n"
                  "<VALUE>4294967295</VALUE>\n<VALUE>7</VALUE>\n</VALUE.ARRAY>\n</PROPERTY.ARRAY>\n"
                  "<PROPERTY.ARRAY NAME=\"Status\" TYPE=\"uint16\">\n<VALUE.ARRAY>\n"
                  "<VALUE>2</VALUE>\n<VALUE>32768</VALUE>\n</VALUE.ARRAY>\n</PROPERTY.ARRAY>\n" +
                  prop("Skew", "sint16", "<VALUE>-300</VALUE>\n") +
                  prop("Quota", "uint32", "<VALUE>4000000000</VALUE>\n") +
                  prop("Delta", "sint32", "<VALUE>-5</VALUE>\n") +
                  prop("Blocks", "uint64", "<VALUE>26214400</VALUE>\n") +
                  prop("Drift", "sint64", "<VALUE>-9000000000</VALUE>\n") +
                  prop("Ratio", "real32", "<VALUE>0.25</VALUE>\n") +
                  prop("Weight", "real64", "<VALUE>0.1</VALUE>\n") + prop("Empty", "uint32", "") +
                  prop("Odd", "unknown", "<VALUE></VALUE>\n") +
                  "<PROPERTY.REFERENCE NAME=\"Pool\" REFERENCECLASS=\"OXS_StoragePool\">\n"
                  "<VALUE.REFERENCE>\n" +
                  Section("op_enuminstancenames.xml", "<INSTANCENAME", "</INSTANCENAME>\n") +
                  "</VALUE.REFERENCE>\n</PROPERTY.REFERENCE>\n</INSTANCE>\n</IPARAMVALUE>\n"));
  EXPECT_EQ(reinterpret_cast<CIMelement*>(created), name(3));
  EXPECT_EQ(key(3), "vol-0042");

  // A bad type or no definition fails before anything is sent.
  TraceCapture traces(TRACE_STATUS);
  _properties_ bad[] = {{"Quota", 7, 1, &u32, nullptr}, {"X", 16, 1, &u32, nullptr},
                        {nullptr, 0, 0, nullptr, nullptr}};
  EXPECT_EQ(c.Imethod_CreateInstance(bad), 0u);
  EXPECT_EQ(c.ChkCimStatus(), 1001);
  EXPECT_EQ(c.Imethod_CreateInstance(nullptr), 0u);
  EXPECT_EQ(traces.count(TRACE_STATUS, "[127.0.0.1] Imethod_CreateInstance() bad Type"), 1);
  EXPECT_EQ(traces.count(TRACE_STATUS,
                         "[127.0.0.1] Imethod_CreateInstance() missing NewInstance definition"),
            1);
  EXPECT_EQ(srv.requestCount(), 2u);
}

TEST_F(Operations, DeleteInstanceUnlinksTheNameAndTheFirstEmptiesTheList) {
  answer("op_enuminstancenames.xml");
  ASSERT_NE(c.Imethod_EnumerateInstanceNames(), 0u);
  answer("op_void.xml");
  EXPECT_EQ(c.Imethod_DeleteInstance(name(1)), 0u);
  EXPECT_EQ(key(0) + key(1) + key(2), "vol-0001vol-0003-");
  answer("op_void.xml");
  EXPECT_EQ(c.Imethod_DeleteInstance(name(0)), 0u);
  EXPECT_EQ(c.m_pcls->m_InstanceNames, nullptr);  // vol-0003 went with it

  answer("op_enuminstancenames.xml");
  ASSERT_NE(c.Imethod_EnumerateInstanceNames(), 0u);
  answer("op_error.xml");
  EXPECT_EQ(c.Imethod_DeleteInstance(name(2)), 6u);
  EXPECT_EQ(c.m_pcls->m_InstanceNames, nullptr);
}

TEST_F(Operations, ParameterChecksFailWithoutSending) {
  TraceCapture traces(TRACE_STATUS);
  CIMelement notAClass;
  notAClass.m_Name = known_cim_elements[16];
  EXPECT_EQ(c.Imethod_ExecQuery("WQL", ""), 1001u);
  EXPECT_EQ(c.Imethod_GetProperty(nullptr, ""), 1001u);
  EXPECT_EQ(c.Imethod_SetProperty(nullptr, nullptr, "x"), 1001u);
  EXPECT_EQ(c.Imethod_CreateClass(notAClass), 1001u);
  EXPECT_EQ(c.Imethod_ModifyClass(notAClass), 1001u);
  notAClass.m_Name = known_cim_elements[2];
  EXPECT_EQ(c.Imethod_ModifyInstance(nullptr, notAClass, nullptr), 1001u);
  EXPECT_EQ(c.Imethod_GetInstance(nullptr, -1, nullptr), 0u);
  c.setCurrentClass("", nullptr);
  c.m_Info = 0;
  EXPECT_EQ(c.Imethod_DeleteClass(), 1001u);
  const char* texts[] = {"ExecQuery() missing QueryLanguage/Query",
                         "Imethod_GetProperty() missing PropertyName",
                         "Imethod_SetProperty() missing PropertyName",
                         "Imethod_CreateClass() missing NewClass definition",
                         "Imethod_ModifyClass() missing ModifiedClass definition",
                         "Imethod_ModifyInstance() missing modifiedinstance",
                         "addInstanceNameParam() InstanceName = NULL",
                         "addClassNameParam() missing parameter: ClassName"};
  for (const char* t : texts)
    EXPECT_EQ(traces.count(TRACE_STATUS, std::string("[127.0.0.1] ") + t), 1) << t;
  EXPECT_EQ(c.m_Info, 0u);  // nothing was exchanged, so no connection verdict
  EXPECT_EQ(c.m_Request, "");
  EXPECT_EQ(srv.connectionCount(), 0u);
}

// ---------------------------------------------------------------------------------------
// The driver's retry rule.

TEST_F(Operations, RefusedTwiceGivesUpWithNoConnect) {
  PointAt(c, oxtest::FreePort());  // nobody listens there
  TraceCapture traces(TRACE_STATUS);
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(c.Imethod_DeleteClass(), 7u);
  const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  EXPECT_GE(secs, 1.9);
  EXPECT_TRUE(c.m_Info & NO_Connect);
  EXPECT_EQ(c.m_Request, "");
  EXPECT_EQ(traces.count(TRACE_STATUS, "[127.0.0.1] performIntrinsicMethod: ret=7 m_Info=0x400 loop=1"),
            1);
  EXPECT_EQ(traces.count(TRACE_STATUS,
                         "[127.0.0.1] performIntrinsicMethod: m_Info=0x400 (NO_Connect) look=0"),
            1);
}

TEST_F(Operations, ServerErrorIsRetriedOnceWithTheSameMessage) {
  srv.push(CannedResponse::http(500, "Internal Server Error"));
  answer("op_enuminstancenames.xml");
  TraceCapture traces(TRACE_STATUS);
  EXPECT_NE(c.Imethod_EnumerateInstanceNames(), 0u);
  EXPECT_EQ(c.ChkCimStatus(), 0);
  EXPECT_FALSE(c.m_Info & NO_Connect);
  ASSERT_EQ(srv.requestCount(), 2u);
  EXPECT_EQ(body(0), body(1));
  EXPECT_EQ(body(1), Request(1001, "EnumerateInstanceNames", kClassParam));
  EXPECT_EQ(traces.count(TRACE_STATUS, "[127.0.0.1] performIntrinsicMethod: ret=22 m_Info=0x0 loop=1"),
            1);
}

TEST_F(Operations, CimErrorIsNotRetriedButMarksNoConnect) {
  answer("op_error.xml");
  TraceCapture traces(TRACE_STATUS);
  EXPECT_EQ(c.Imethod_DeleteClass(), 6u);
  EXPECT_TRUE(c.m_Info & NO_Connect);
  EXPECT_EQ(srv.requestCount(), 1u);
  EXPECT_EQ(traces.count(TRACE_STATUS,
                         "[127.0.0.1] performIntrinsicMethod: m_Info=0x400 (NO_Connect) look=1"),
            1);
}

// ---------------------------------------------------------------------------------------
// Namespace discovery.

TEST_F(Operations, NamespacesInServerOrderWithoutTouchingTheCurrentClass) {
  CIMclass* mine = c.m_pcls;
  answer("op_namespaces.xml");
  CIMarray names;
  EXPECT_EQ(c.getNameSpace(names), 0u);
  EXPECT_EQ(c.m_pcls, mine);
  ASSERT_EQ(names.argc, 3u);
  EXPECT_STREQ(names.argv[0], "root/cimv2");
  EXPECT_STREQ(names.argv[1], "interop");
  EXPECT_STREQ(names.argv[2], "root/interop");
  EXPECT_EQ(names.maxargc, 3u);
  EXPECT_EQ(c.m_Classes.findClassName("CIM_Namespace", "root/interop"), nullptr);
  EXPECT_EQ(mine->m_InstanceNames, nullptr);

  TraceCapture traces(TRACE_ERROR);
  answer("op_namespaces_nokey.xml");
  CIMarray partial;
  EXPECT_EQ(c.getNameSpace(partial), 5005u);
  EXPECT_EQ(c.m_pcls, mine);
  ASSERT_EQ(partial.argc, 1u);
  EXPECT_STREQ(partial.argv[0], "root/cimv2");
  EXPECT_EQ(traces.count(TRACE_ERROR, "[127.0.0.1] getNameSpace: KEYBINDING Name=\"??\""), 1);

  answer("op_enuminstances_empty.xml");
  CIMarray none;
  EXPECT_EQ(c.getNameSpace(none), 5005u);
  EXPECT_EQ(none.argc, 0u);
  EXPECT_EQ(traces.count(TRACE_ERROR,
                         "[127.0.0.1] getNameSpace: missing 'CIM_Namespace' or 'root/interop'"),
            1);

  PointAt(c, oxtest::FreePort());  // nobody listens there
  EXPECT_EQ(c.getNameSpace(none), 7u);
  EXPECT_EQ(c.m_pcls, mine);
}

// ---------------------------------------------------------------------------------------
// Offline corners: value formatting, class bookkeeping, members that are not offered,
// malformed enumerations.

TEST(OperationsOffline, ValueToStringFormatsEachTypeByItsOwnWidthAndSign) {
  const unsigned char flags[] = {1, 0};
  const int8_t s8[] = {-1, -128};
  const int16_t s16[] = {-1};
  const uint64_t u64[] = {std::numeric_limits<uint64_t>::max()};
  const int64_t s64[] = {std::numeric_limits<int64_t>::min()};
  const float r32[] = {1e10f};
  const double r64[] = {0.1, 3.14159265358979};
  const struct {
    const void* v;
    size_t i;
    int type;
    const char* want;
  } cases[] = {{flags, 1, 0, "false"},       {"text", 9, 1, "text"},
               {s8, 0, 4, "4294967295"},     {s8, 1, 4, "4294967168"},
               {s16, 0, 6, "-1"},            {u64, 0, 9, "18446744073709551615"},
               {s64, 0, 10, "-9223372036854775808"},
               {r32, 0, 12, "1e+10"},        {r64, 1, 13, "3.14159"}};
  for (const auto& k : cases) {
    std::string out = "stale";
    EXPECT_EQ(ValueToString(k.v, k.i, k.type, out), std::string(k.want).size()) << k.type;
    EXPECT_EQ(out, k.want) << k.type;
  }
  TraceCapture traces(TRACE_ERROR);
  for (int type : {2, 11, 14, 15, 16}) {
    std::string out = "stale";
    EXPECT_EQ(ValueToString(r64, 0, type, out), 0u);
    EXPECT_EQ(out, "");
  }
  EXPECT_EQ(traces.count(TRACE_ERROR, "ValueToString: Unknown type of value specified"), 5);
}

TEST(OperationsOffline, CurrentClassLookupAssignmentAndRelease) {
  CIMcontainer a;
  CIMclass* vol = a.setCurrentClass("OXS_StorageVolume", nullptr);
  EXPECT_STREQ(vol->m_NameSpace, "root/cimv2");
  EXPECT_EQ(a.setCurrentClass("oxs_storagevolume", "ROOT/CIMV2"), vol);
  EXPECT_NE(a.setCurrentClass("OXS_StorageVolume", "root/a/b"), vol);
  a.m_Request.clear();
  a.addLocalNameSpacePath();  // only the first slash splits
  EXPECT_EQ(a.m_Request,
            "<LOCALNAMESPACEPATH>\n<NAMESPACE NAME=\"root\"/>\n<NAMESPACE NAME=\"a/b\"/>\n"
            "</LOCALNAMESPACEPATH>\n");

  CIMindication listener;
  a.m_Listener = &listener;
  a.m_CurrentMethod = known_cim_imethods[10];
  CIMcontainer b;
  b.setCurrentClass("Other", nullptr);
  b = a;
  EXPECT_EQ(b.m_pcls, a.m_pcls);  // shallow on purpose
  EXPECT_EQ(b.m_CurrentMethod, known_cim_imethods[10]);
  EXPECT_EQ(b.m_Listener, nullptr);
  EXPECT_NE(b.m_Classes.findClassName("OXS_StorageVolume", nullptr), nullptr);
  EXPECT_EQ(b.m_Classes.findClassName("Other", nullptr), nullptr);
  a.m_Listener = nullptr;

  a.m_ErrCode = 77;
  a.free_all();
  EXPECT_EQ(a.m_pcls, nullptr);
  EXPECT_EQ(a.m_ErrCode, 0);
  EXPECT_EQ(a.m_Classes.m_ClassName, nullptr);
}

TEST(OperationsOffline, NotOfferedMembersOnlyTrace) {
  TraceCapture traces(TRACE_ERROR);
  CIMcontainer c;
  c.m_ErrCode = 42;
  using Member = unsigned long (CIMcontainer::*)();
  const std::pair<Member, const char*> members[] = {
      {&CIMcontainer::Imethod_Associators, "Associators"},
      {&CIMcontainer::Imethod_AssociatorNames, "AssociatorNames"},
      {&CIMcontainer::Imethod_References, "References"},
      {&CIMcontainer::Imethod_ReferenceNames, "ReferenceNames"},
      {&CIMcontainer::Imethod_GetQualifier, "GetQualifier"},
      {&CIMcontainer::Imethod_SetQualifier, "SetQualifier"},
      {&CIMcontainer::Imethod_DeleteQualifier, "DeleteQualifier"},
      {&CIMcontainer::Imethod_EnumerateQualifiers, "EnumerateQualifiers"}};
  for (const auto& m : members) {
    EXPECT_EQ((c.*m.first)(), 1001u);
    EXPECT_EQ(traces.count(TRACE_ERROR,
                           std::string("Imethod_") + m.second + ": Not implemented yet!"),
              1);
  }
  EXPECT_EQ(c.m_ErrCode, 42);
  EXPECT_EQ(c.m_MessageID, 1000);
}

TEST(OperationsOffline, MalformedNamedInstancesEmptyBothLists) {
  const std::string nm =
      "<INSTANCENAME CLASSNAME=\"X\">\n<KEYBINDING NAME=\"K\">\n<KEYVALUE>1</KEYVALUE>\n"
      "</KEYBINDING>\n</INSTANCENAME>\n";
  const std::string in = "<INSTANCE CLASSNAME=\"X\">\n<PROPERTY NAME=\"K\" TYPE=\"string\"/>\n"
                         "</INSTANCE>\n";
  const std::string good = "<VALUE.NAMEDINSTANCE>\n" + nm + in + "</VALUE.NAMEDINSTANCE>\n";
  const std::pair<std::string, const char*> cases[] = {
      {good + "<VALUE.NAMEDINSTANCE>\n" + nm + in + "<VALUE>stray</VALUE>\n</VALUE.NAMEDINSTANCE>\n",
       "missing next VALUE_NAMEDINSTANCE-element"},
      {good + "<VALUE.NAMEDINSTANCE>\n" + nm + "</VALUE.NAMEDINSTANCE>\n",
       "missing INSTANCE-subelement"},
      {"<VALUE.NAMEDINSTANCE>\n" + in + "</VALUE.NAMEDINSTANCE>\n",
       "missing INSTANCENAME-subelement"}};
  for (const auto& k : cases) {
    TraceCapture traces(TRACE_ERROR);
    CIMcontainer c;
    c.m_Host = "h";
    c.setCurrentClass("X", nullptr);
    ASSERT_EQ(c.m_ResponseTree.ParseCIMXML(
                  "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n<CIM CIMVERSION=\"2.0\" "
                  "DTDVERSION=\"2.0\">\n<MESSAGE ID=\"1\" PROTOCOLVERSION=\"1.0\">\n<SIMPLERSP>\n"
                  "<IMETHODRESPONSE NAME=\"EnumerateInstances\">\n<IRETURNVALUE>\n" +
                  k.first + "</IRETURNVALUE>\n</IMETHODRESPONSE>\n</SIMPLERSP>\n</MESSAGE>\n</CIM>\n"),
              0);
    EXPECT_EQ(c.ExtractNamedInstances(), 0u) << k.second;
    EXPECT_EQ(c.m_pcls->m_InstanceNames, nullptr) << k.second;
    EXPECT_EQ(c.m_pcls->m_Properties, nullptr) << k.second;
    EXPECT_EQ(traces.count(TRACE_ERROR, std::string("[h] ExtractNamedInstances() ") + k.second), 1);
    EXPECT_EQ(traces.count(TRACE_ERROR, "[h] ExtractNamedInstances() wrong XML data"), 1);
  }
}

}  // namespace
