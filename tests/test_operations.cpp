// Intrinsic operations: real libcurl against the in-process fake server, asserting the request
// bytes on the wire, the traces and what lands on the current class; plus the offline corners.

#include <gtest/gtest.h>

#include <functional>
#include <limits>

#include "TestSupport.h"

using namespace oxCIM;
using namespace oxtest;

namespace {

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

// The texts of the records at `level`, one line each.
std::string Lines(const TraceCapture& t, unsigned long level) {
  std::string out;
  for (const auto& r : t.records())
    if (r.level == level) out += r.text + "\n";
  return out;
}

// The documents of a data file, each one starting at its XML declaration.
std::vector<std::string> Documents(const char* fixture) {
  const std::string doc = oxtest::ReadFixture(fixture);
  std::vector<std::string> out;
  for (size_t b = doc.find("<?xml"), e; b != std::string::npos; b = e) {
    e = doc.find("<?xml", b + 1);
    out.push_back(doc.substr(b, e == std::string::npos ? e : e - b));
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
  void answer(const char* name) { srv.push(CannedResponse::cimOk(oxtest::ReadFixture(name))); }
  CIMelement* name(int i) {
    return c.m_pcls->m_InstanceNames ? c.m_pcls->m_InstanceNames->findelement(17, i) : nullptr;
  }
  CIMelement* instance(int i) {
    return c.m_pcls->m_Properties ? c.m_pcls->m_Properties->findelement(16, i) : nullptr;
  }
  std::string key(int i) { return name(i) ? Text(name(i)->getValueOf(21, "DeviceID")) : "-"; }
  // Position by position: the name's key and the paired instance's DeviceID.
  std::string lists() {
    std::string out;
    for (int i = 0; name(i) || instance(i); ++i) {
      const char* id = instance(i) ? instance(i)->getValueOfProperty("DeviceID") : "-";
      out += key(i) + "=" + Text(id) + " ";
    }
    return out;
  }

  ScriptedServer srv;
  CIMcontainer c;
};

// ---------------------------------------------------------------------------------------

constexpr int kInstance = -10;              // the result is the first instance
constexpr int Name(int i) { return -1 - i; }  // the result is the i-th instance name

// Every offered operation on one connection: its exact request (in order, from the data
// file), headers, entry and exchange traces, result and what the class lists hold after it.
// Filling operations run a second time to show they replace rather than add.
TEST_F(Operations, EveryOfferedOperationOnOneConnection) {
  CIMcontainer holder;  // a parsed CLASS tree, as an application would hold one
  ASSERT_EQ(holder.m_ResponseTree.ParseCIMXML(oxtest::ReadFixture("op_getclass.xml")), 0);
  CIMelement* cls = holder.m_ResponseTree.findelement(2, 0);
  ASSERT_NE(cls, nullptr);
  CIMarray plist, namespaces, partial, none;
  plist.putargv("ElementName", -1, 15);
  // Values at the edges of their types: each is printed by its own width and sign.
  const unsigned char flags[] = {1, 0};
  const uint8_t u8 = 200;
  const int8_t s8[] = {-1, -128};
  const uint16_t u16[] = {2, 32768};
  const int16_t s16 = -300;
  const uint32_t u32 = 4000000000u;
  const int32_t s32 = -5;
  const uint64_t u64 = std::numeric_limits<uint64_t>::max();
  const int64_t s64 = std::numeric_limits<int64_t>::min();
  const float r32 = 1e10f;
  const double r64 = 3.14159265358979;
  _properties_ props[] = {
      {"Flags", 0 | 0x100, 2, flags, nullptr}, {"ElementName", 1, 1, "new-lun", nullptr},
      {"Priority", 3, 1, &u8, nullptr},        {"Offsets", 4 | 0x100, 2, s8, nullptr},
      {"Status", 5 | 0x100, 2, u16, nullptr},  {"Skew", 6, 1, &s16, nullptr},
      {"Quota", 7, 1, &u32, nullptr},          {"Delta", 8, 1, &s32, nullptr},
      {"Blocks", 9, 5, &u64, nullptr},         {"Drift", 10, 1, &s64, nullptr},
      {"Ratio", 12, 1, &r32, nullptr},         {"Weight", 13, 1, &r64, nullptr},
      {"Skipped", 7, 0, nullptr, nullptr},     {"Empty", 7, 0, &u32, nullptr},
      {"Letter", 2, 1, &u32, nullptr},         {"When", 11, 1, &u32, nullptr},
      {"Odd", 14, 1, &u32, nullptr},           {"Pool", 15, 1, "OXS_StoragePool", nullptr},
      {nullptr, 0, 0, nullptr, nullptr},
  };
  const std::string kUnknown = "ValueToString: Unknown type of value specified\n";  // sent empty
  const std::string enumerated = "vol-0001=vol-0001 vol-0002=vol-0002 vol-0003=vol-0003 ";
  const std::string orphans = "-=vol-0001 -=vol-0002 -=vol-0003 ";  // instances without names
  const char* interop = "root%2Finterop";
  const char* kVoid = "op_void";  // answers with no return value
  const std::string fetched = "vol-0001=vol-0007 vol-0002=- vol-0003=- ";
  auto names = [&] { return c.Imethod_EnumerateInstanceNames(); };
  auto instances = [&] { return c.Imethod_EnumerateInstances(-1, -1, -1, -1, nullptr); };
  auto dropIn = [&](const char* ns) {  // only the first slash splits a namespace
    c.setCurrentClass("OXS_StorageVolume", ns);
    return c.Imethod_DeleteClass();
  };
  auto malformed = [](const std::string& why) {
    return "[127.0.0.1] ExtractNamedInstances() " + why +
           "\n[127.0.0.1] ExtractNamedInstances() wrong XML data\n";
  };
  struct Step {
    const char* answer;  // data file, without .xml
    std::function<unsigned long()> call;
    const char* method;
    int want;  // the status, or which node the result points at
    std::string lists;
    std::string errors = "";  // error records, one a line
    const char* object = "root%2Fcimv2";
  };
  const Step steps[] = {
      {"op_getclass", [&] { return c.Imethod_GetClass(0, 1, -1, &plist); }, "GetClass", 0, "-= "},
      {"op_enuminstancenames", names, "EnumerateInstanceNames", Name(0), "vol-0001= vol-0002=- vol-0003=- "},
      {"op_getinstance", [&] { return c.Imethod_GetInstance(name(1), 1, nullptr); },
       "GetInstance", kInstance, fetched},
      {"op_getinstance", [&] { return c.Imethod_GetInstance(name(1), -1, nullptr); },
       "GetInstance", kInstance, fetched},
      {"op_enuminstances", [&] { return c.Imethod_EnumerateInstances(-1, 0, 1, -1, nullptr); },
       "EnumerateInstances", Name(0), enumerated},
      {"op_enuminstancenames", names, "EnumerateInstanceNames", Name(0), enumerated},
      {kVoid, [&] { return c.Imethod_ModifyInstance(name(0), *instance(0), &plist); },
       "ModifyInstance", 0, enumerated},
      {"op_getproperty", [&] { return c.Imethod_GetProperty(name(0), "ElementName"); },
       "GetProperty", 0, enumerated},
      {kVoid, [&] { return c.Imethod_SetProperty(name(0), "ElementName", "archive"); },
       "SetProperty", 0, enumerated},
      {kVoid, [&] { return c.Imethod_SetProperty(name(0), "ElementName", ""); },
       "SetProperty", 0, enumerated},
      {kVoid, [&] { return c.Imethod_ExecQuery("DMTF:CQL", "OXS_DiskDrive"); },
       "ExecQuery", 0, enumerated},
      {"op_enumclasses", [&] { return c.Imethod_EnumerateClasses(1, 0, -1, 1); },
       "EnumerateClasses", 0, enumerated},
      {kVoid, [&] { return c.Imethod_CreateClass(*cls); }, "CreateClass", 0, enumerated},
      {kVoid, [&] { return c.Imethod_ModifyClass(*cls); }, "ModifyClass", 0, enumerated},
      {"op_createinstance", [&] { props[17].reference = name(0); return c.Imethod_CreateInstance(props); },
       "CreateInstance", Name(3), enumerated + "vol-0042=- ", kUnknown + kUnknown + kUnknown},
      {kVoid, [&] { return c.Imethod_DeleteInstance(name(1)); }, "DeleteInstance", 0,
       "vol-0001=vol-0001 vol-0003=vol-0002 vol-0042=vol-0003 "},
      // Deleting the first name drops the whole list.
      {kVoid, [&] { return c.Imethod_DeleteInstance(name(0)); }, "DeleteInstance", 0, orphans},
      {"op_enuminstancenames", names, "EnumerateInstanceNames", Name(0), enumerated},
      {"op_error", [&] { return c.Imethod_DeleteInstance(name(2)); }, "DeleteInstance", 6, orphans},
      {"op_enuminstancenames", names, "EnumerateInstanceNames", Name(0), enumerated},
      {"op_error", instances, "EnumerateInstances", 0, ""},  // a failure leaves no lists
      // No instances: no trace, and the earlier result is gone.
      {"op_enuminstances_empty", instances, "EnumerateInstances", 0, ""},
      {"ops_malformed_stray", instances, "EnumerateInstances", 0, "",
       malformed("missing next VALUE_NAMEDINSTANCE-element")},
      {"ops_malformed_noinstance", instances, "EnumerateInstances", 0, "", malformed("missing INSTANCE-subelement")},
      {"ops_malformed_noname", instances, "EnumerateInstances", 0, "", malformed("missing INSTANCENAME-subelement")},
      {kVoid, names, "EnumerateInstanceNames", 0, "",
       "[127.0.0.1] ExtractInstanceNames() missing INSTANCENAME-subelement\n"},
      // Discovery borrows the container and leaves the current class alone.
      {"op_namespaces", [&] { return c.getNameSpace(namespaces); }, "EnumerateInstances", 0, "", "", interop},
      {"op_namespaces_nokey", [&] { return c.getNameSpace(partial); }, "EnumerateInstances",
       5005, "", "[127.0.0.1] getNameSpace: KEYBINDING Name=\"??\"\n", interop},
      {"op_enuminstances_empty", [&] { return c.getNameSpace(none); }, "EnumerateInstances",
       5005, "", "[127.0.0.1] getNameSpace: missing 'CIM_Namespace' or 'root/interop'\n", interop},
      {kVoid, [&] { return dropIn("root/a/b"); }, "DeleteClass", 0, "", "", "root%2Fa/b"},
      {kVoid, [&] { return dropIn("interop"); }, "DeleteClass", 0, "", "", "interop"},
      {kVoid, [&] { return dropIn("root/"); }, "DeleteClass", 0, "", "", "root"},
      {kVoid, [&] { return dropIn("/x"); }, "DeleteClass", 0, "", "", "%2Fx"},
      // No class: the parameter is left out.
      {"op_enumclassnames", [&] { c.setCurrentClass("", nullptr); return c.Imethod_EnumerateClassNames(-1); },
       "EnumerateClassNames", 0, ""},
  };
  const auto wanted = Documents("ops_requests.xml");
  ASSERT_EQ(wanted.size(), sizeof(steps) / sizeof(steps[0]));
  for (size_t i = 0; i < wanted.size(); ++i) {
    const Step& s = steps[i];
    SCOPED_TRACE(std::to_string(i) + " " + s.method);
    TraceCapture traces;
    answer((s.answer + std::string(".xml")).c_str());
    const unsigned long r = s.call();
    if (s.want < 0) {
      EXPECT_NE(r, 0u);
      EXPECT_EQ(r, reinterpret_cast<unsigned long>(s.want == kInstance ? instance(0)
                                                                       : name(-1 - s.want)));
    } else {
      EXPECT_EQ(r, static_cast<unsigned long>(s.want));
    }
    EXPECT_EQ(body(i), wanted[i]);
    EXPECT_EQ(srv.requests()[i].header("CIMMethod"), s.method);
    EXPECT_EQ(srv.requests()[i].header("CIMObject"), s.object);
    EXPECT_EQ(lists(), s.lists);
    EXPECT_EQ(Lines(traces, TRACE_ERROR), s.errors);
    const std::string entry = s.object == std::string(interop) ? "[127.0.0.1] getNameSpace()\n" : "";
    EXPECT_EQ(Lines(traces, TRACE_ENTRY),
              entry + "[127.0.0.1] Imethod_" + s.method + "()\n" +
                  "[127.0.0.1]    Enter sendRequest_recvResponse()\n" +
                  "[127.0.0.1]    Leave sendRequest_recvResponse() m_ErrCode=" +
                  (s.answer == std::string("op_error") ? "6\n" : "0\n"));
  }
  EXPECT_STREQ(c.m_ResponseTree.findelement(3, 2)->attr_find(0), "OXS_DiskDrive");
  ASSERT_EQ(namespaces.argc, 3u);  // in the server's order
  EXPECT_EQ(std::string(namespaces.argv[0]) + " " + namespaces.argv[1] + " " + namespaces.argv[2],
            "root/cimv2 interop root/interop");
  EXPECT_EQ(namespaces.maxargc, 3u);
  ASSERT_EQ(partial.argc, 1u);
  EXPECT_STREQ(partial.argv[0], "root/cimv2");
  EXPECT_EQ(none.argc, 0u);
  EXPECT_EQ(c.m_Classes.findClassName("CIM_Namespace", "root/interop"), nullptr);
}

TEST_F(Operations, GetClassKeepsPropertyTemplateAndMethodsWithParameters) {
  answer("op_getclass.xml");  // names the class in other letter case: still ours
  ASSERT_EQ(c.Imethod_GetClass(-1, -1, -1, nullptr), 0u);
  EXPECT_EQ(Render(c.m_pcls->m_Properties) + Render(c.m_pcls->m_Methods),
            oxtest::ReadFixture("ops_getclass_lists.txt"));
  EXPECT_STREQ(c.m_pcls->m_Properties->attr_find(7), "OXS_StorageVolume");
  EXPECT_STREQ(c.m_pcls->m_Properties->findProperty("Pool")->attr_find(24), "OXS_StoragePool");

  TraceCapture traces(TRACE_ERROR);
  c.setCurrentClass("OXS_Other", nullptr);
  answer("op_getclass.xml");
  EXPECT_EQ(c.Imethod_GetClass(-1, -1, -1, nullptr), 1001u);
  EXPECT_EQ(c.m_pcls->m_Properties, nullptr);
  EXPECT_EQ(c.m_pcls->m_Methods, nullptr);
  EXPECT_EQ(Lines(traces, TRACE_ERROR),
            "[127.0.0.1] ExtractClassDefinition() Class-ClassName\n"
            "[127.0.0.1] ExtractClassDefinition() OXS_Other\n");
}

TEST_F(Operations, ParameterChecksFailWithoutSending) {
  CIMelement notAClass, notAnInstance;
  notAClass.m_Name = known_cim_elements[16];
  notAnInstance.m_Name = known_cim_elements[2];
  const uint32_t u32 = 1;
  _properties_ badType[] = {{"Quota", 7, 1, &u32, nullptr}, {"X", 16, 1, &u32, nullptr},
                            {nullptr, 0, 0, nullptr, nullptr}};
  const struct {
    std::function<unsigned long()> call;
    unsigned long want;
    const char* trace;
  } cases[] = {
      {[&] { return c.Imethod_ExecQuery("WQL", ""); }, 1001, "ExecQuery() missing QueryLanguage/Query"},
      {[&] { return c.Imethod_GetProperty(nullptr, ""); }, 1001, "Imethod_GetProperty() missing PropertyName"},
      {[&] { return c.Imethod_SetProperty(nullptr, nullptr, "x"); }, 1001,
       "Imethod_SetProperty() missing PropertyName"},
      {[&] { return c.Imethod_CreateClass(notAClass); }, 1001, "Imethod_CreateClass() missing NewClass definition"},
      {[&] { return c.Imethod_ModifyClass(notAClass); }, 1001,
       "Imethod_ModifyClass() missing ModifiedClass definition"},
      {[&] { return c.Imethod_ModifyInstance(nullptr, notAnInstance, nullptr); }, 1001,
       "Imethod_ModifyInstance() missing modifiedinstance"},
      {[&] { return c.Imethod_GetInstance(nullptr, -1, nullptr); }, 0, "addInstanceNameParam() InstanceName = NULL"},
      {[&] { return c.Imethod_CreateInstance(badType); }, 0, "Imethod_CreateInstance() bad Type"},
      {[&] { return c.Imethod_CreateInstance(nullptr); }, 0, "Imethod_CreateInstance() missing NewInstance definition"},
      {[&] { c.setCurrentClass("", nullptr); return c.Imethod_DeleteClass(); }, 1001,
       "addClassNameParam() missing parameter: ClassName"},
  };
  for (const auto& k : cases) {
    TraceCapture traces(TRACE_STATUS);
    EXPECT_EQ(k.call(), k.want) << k.trace;
    EXPECT_EQ(c.ChkCimStatus(), 1001) << k.trace;
    EXPECT_EQ(Lines(traces, TRACE_STATUS), "[127.0.0.1] " + std::string(k.trace) + "\n");
    EXPECT_EQ(c.m_Request, "");
  }
  EXPECT_EQ(c.m_Info, 0u);  // nothing was exchanged, so no connection verdict
  EXPECT_EQ(srv.connectionCount(), 0u);
}

// The driver's retry rule: a transport failure is retried once, after a pause, on a fresh
// handle, with the same message and extra time; a CIM error is final.
TEST_F(Operations, TransportFailuresAreRetriedOnce) {
  const std::string pre = "[127.0.0.1] performIntrinsicMethod: ";
  const CannedResponse http500 = CannedResponse::http(500, "Internal Server Error");
  const struct {
    const char* what;
    std::function<void()> setUp;
    unsigned long want;
    size_t requests;  // in all, so far
    bool noConnect;
    int extra;  // extra time-out left pending
    std::string traces;
  } cases[] = {
      {"500, then answered", [&] { srv.push(http500); answer("op_void.xml"); }, 0, 2, false, 0,
       pre + "ret=22 m_Info=0x0 loop=1\n"},
      // The handle of the last exchange is reused, the retry cannot make a new one.
      {"500, no new handle", [&] { c.m_NoIPCheck = false; srv.push(http500); }, 5004, 3, true, 5,
       pre + "ret=22 m_Info=0x0 loop=1\n" + pre + "m_Info=0x400 (NO_Connect) look=0\n"},
      {"CIM error", [&] { c.m_NoIPCheck = true; answer("op_error.xml"); }, 6, 4, true, 0,
       pre + "m_Info=0x400 (NO_Connect) look=1\n"},
      {"refused twice", [&] { PointAt(c, oxtest::FreePort()); }, 7, 4, true, 0,
       pre + "ret=7 m_Info=0x400 loop=1\n" + pre + "m_Info=0x400 (NO_Connect) look=0\n"},
  };
  for (const auto& k : cases) {
    SCOPED_TRACE(k.what);
    k.setUp();
    TraceCapture traces(TRACE_STATUS);
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(c.Imethod_DeleteClass(), k.want);
    const std::chrono::duration<double> secs = std::chrono::steady_clock::now() - t0;
    EXPECT_GE(secs.count(), k.traces.find("loop=1") != std::string::npos ? 1.9 : 0);
    EXPECT_EQ(srv.requestCount(), k.requests);
    EXPECT_EQ((c.m_Info & NO_Connect) != 0, k.noConnect);
    EXPECT_EQ(c.m_ExtraTimeOut, k.extra);
    EXPECT_EQ(c.m_Request.empty(), k.want != 0);  // a failure takes the request along
    std::string driver;
    for (const auto& t : traces.texts("performIntrinsicMethod")) driver += t + "\n";
    EXPECT_EQ(driver, k.traces);
  }
  EXPECT_EQ(body(0), body(1));
}

// ---------------------------------------------------------------------------------------
// Offline corners: value formatting, class bookkeeping, members that are not offered.

TEST(OperationsOffline, ValueToStringGivesTheLength) {
  std::string out = "stale";
  const uint64_t big = std::numeric_limits<uint64_t>::max();
  EXPECT_EQ(ValueToString(&big, 0, 9, out), 20u);
  EXPECT_EQ(ValueToString(nullptr, 0, 9, out), 0u);
  EXPECT_EQ(out, "");
}

TEST(OperationsOffline, CurrentClassLookupAssignmentAndRelease) {
  CIMcontainer a;
  CIMclass* vol = a.setCurrentClass("OXS_StorageVolume", nullptr);
  EXPECT_STREQ(vol->m_NameSpace, "root/cimv2");
  EXPECT_EQ(a.setCurrentClass("oxs_storagevolume", "ROOT/CIMV2"), vol);
  EXPECT_NE(a.setCurrentClass("OXS_StorageVolume", "root/a/b"), vol);

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
  using C = CIMcontainer;
  using Member = unsigned long (C::*)();
  const std::pair<Member, const char*> members[] = {
      {&C::Imethod_Associators, "Associators"},   {&C::Imethod_AssociatorNames, "AssociatorNames"},
      {&C::Imethod_References, "References"},     {&C::Imethod_ReferenceNames, "ReferenceNames"},
      {&C::Imethod_GetQualifier, "GetQualifier"}, {&C::Imethod_SetQualifier, "SetQualifier"},
      {&C::Imethod_DeleteQualifier, "DeleteQualifier"},
      {&C::Imethod_EnumerateQualifiers, "EnumerateQualifiers"}};
  for (const auto& m : members) {
    EXPECT_EQ((c.*m.first)(), 1001u);
    EXPECT_EQ(traces.count(TRACE_ERROR,
                           std::string("Imethod_") + m.second + ": Not implemented yet!"),
              1);
  }
  EXPECT_EQ(c.m_ErrCode, 42);
  EXPECT_EQ(c.m_MessageID, 1000);
}

}  // namespace
