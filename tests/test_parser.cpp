// CIM-XML reading and writing: the parser's search rules and their traps, the generator's
// layout, and round trips through both.
#include <gtest/gtest.h>
#include <oxCIM.h>

#include "../Src/oxInternal.h"
#include "TestSupport.h"

#include <functional>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

using oxCIM::CIMelement;
using oxCIM::known_cim_elements;
using oxtest::ReadFixture;

namespace {

constexpr unsigned long kError = oxCIM::TRACE_ERROR;
constexpr unsigned long kStatus = oxCIM::TRACE_STATUS;

// One line per list node: name, index of the parent, attributes (id=[value]), value.
std::string Dump(const CIMelement& root) {
  std::map<const CIMelement*, int> index;
  int i = 0;
  for (const CIMelement* e = &root; e; e = e->m_Next) index[e] = i++;
  std::ostringstream os;
  for (const CIMelement* e = &root; e; e = e->m_Next) {
    os << (e->m_Name ? e->m_Name : "(empty)") << " ^";
    if (e->m_Parent == nullptr)
      os << '-';
    else if (index.count(e->m_Parent))
      os << index[e->m_Parent];
    else
      os << "(outside)";
    if (const oxCIM::CIMarray* a = e->m_Attributes) {
      for (unsigned long k = 0; k < a->argc; ++k) {
        char* v = nullptr;
        const int id = const_cast<CIMelement*>(e)->attr_get(k, &v);
        os << ' ' << id << "=[" << v << ']';
      }
      if (a->argc != a->maxargc) os << " (untrimmed)";
    }
    if (e->m_Value) os << " {" << e->m_Value << '}';
    os << '\n';
  }
  return os.str();
}

const std::string kDecl = "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n";
std::string Doc(const std::string& body) { return kDecl + "<CIM CIMVERSION=\"2.0\">" + body + "</CIM>\n"; }
const std::string kCim = "CIM ^- 5=[2.0]\n";

// Parses `text` and returns the dump, or "rc=N" with the traces when the result is not 0.
std::string Parsed(const std::string& text, std::string* traces = nullptr) {
  oxtest::TraceCapture t(kError | kStatus);
  CIMelement root;
  const int rc = root.ParseCIMXML(text);
  if (traces) *traces = t.dump();
  return rc == 0 ? Dump(root) : "rc=" + std::to_string(rc) + "\n" + t.dump();
}

TEST(CimXmlParse, ContentIsKeptVerbatimWithLeadingBlanksDropped) {
  EXPECT_EQ(Parsed(Doc("<VALUE>  a&amp;b </VALUE>")), kCim + "VALUE ^0 {a&amp;b }\n");
  // Every byte from 0x80 up counts as blank.
  EXPECT_EQ(Parsed(Doc("<VALUE>\t\xC3\xA9t\xC3\xA9</VALUE>")), kCim + "VALUE ^0 {t\xC3\xA9}\n");
  EXPECT_EQ(Parsed(Doc("<VALUE>x > y</VALUE>")), kCim + "VALUE ^0 {x > y}\n");
  // Text that starts with text keeps whatever follows, tags included.
  EXPECT_EQ(Parsed(Doc("<VALUE>a<VALUE.NULL/></VALUE>")), kCim + "VALUE ^0 {a<VALUE.NULL/>}\n");
  for (const char* empty : {"<VALUE></VALUE>", "<VALUE/>", "<VALUE />", "<VALUE>\n  </VALUE>",
                            "<VALUE><![CDATA[x]]></VALUE>", "<VALUE>\xA0</VALUE>"})
    EXPECT_EQ(Parsed(Doc(empty)), kCim + "VALUE ^0\n") << empty;
}

TEST(CimXmlParse, ChildrenFollowTheirParentInTheList) {
  EXPECT_EQ(Parsed(Doc("<PROPERTY.ARRAY NAME=\"p\"><VALUE.ARRAY> <VALUE>a</VALUE>\n<VALUE>VALUE"
                       "</VALUE></VALUE.ARRAY></PROPERTY.ARRAY><KEYVALUE>k</KEYVALUE>")),
            kCim + "PROPERTY.ARRAY ^0 0=[p]\nVALUE.ARRAY ^1\nVALUE ^2 {a}\nVALUE ^2 {VALUE}\n"
                   "KEYVALUE ^0 {k}\n");
  // A close tag of the same name nested inside is counted, not taken.
  EXPECT_EQ(Parsed(Doc("<VALUE><VALUE>x</VALUE> </VALUE>")), kCim + "VALUE ^0\nVALUE ^1 {x}\n");
}

TEST(CimXmlParse, TopLevelSiblingsHangOffTheElementBefore) {
  const std::string cim = "<CIM CIMVERSION=\"2.0\"></CIM>";
  EXPECT_EQ(Parsed(kDecl + cim + cim + " " + cim + "\n"), kCim + kCim.substr(0, 4) + "^0 5=[2.0]\n" +
                                                              kCim.substr(0, 4) + "^0 5=[2.0]\n");
  // The last top-level element decides: anything but CIM fails.
  EXPECT_EQ(Parsed(kDecl + cim + "<MESSAGE/>"), "rc=1001\n");
}

TEST(CimXmlParse, DocumentFrameRejectsWithoutTrace) {
  for (const std::string& text :
       std::vector<std::string>{"<CIM CIMVERSION=\"2.0\"></CIM>", "<?xml?><CIM CIMVERSION=\"2.0\"></CIM>",
        kDecl + "<CIM></CIM>", kDecl + "<CIM/>", kDecl + "<!-- <CIM x=\"1\"></CIM> -->",
        kDecl + "<VALUE x=\"<CIM \"/>", std::string("<?xml \0 <CIM ></CIM>", 20)}) {
    EXPECT_EQ(Parsed(text), "rc=1001\n") << text;
  }
  // A comment after the document leaves the top level without an element.
  EXPECT_EQ(Parsed(Doc("") + "<!-- trailer -->"), "rc=1001\n");
  EXPECT_EQ(Parsed("junk " + kDecl + "<!-- c --> <CIM  ></CIM> \r\n"), "CIM ^-\n");
}

TEST(CimXmlParse, CloseTagSearchFollowsQuotesApostrophesAndComments) {
  // An apostrophe hides everything up to the next one: CIM's own close tag is never seen.
  EXPECT_EQ(Parsed(Doc("<VALUE>don't</VALUE>")),
            "rc=1001\n4 findNextElement: findNextElement: Missing correspending keyword </CIM>\n");
  EXPECT_EQ(Parsed(Doc("<VALUE>it's Bob's</VALUE>")), kCim + "VALUE ^0 {it's Bob's}\n");
  EXPECT_EQ(Parsed(Doc("<VALUE>a'</VALUE><VALUE>'b</VALUE>")),
            kCim + "VALUE ^0 {a'</VALUE><VALUE>'b}\n");
  EXPECT_EQ(Parsed(Doc("<VALUE>\"</VALUE>\"</VALUE>")), kCim + "VALUE ^0 {\"</VALUE>\"}\n");
  EXPECT_EQ(Parsed(Doc("<VALUE>a<!--</VALUE>--></VALUE>")), kCim + "VALUE ^0 {a<!--</VALUE>-->}\n");
  // Only "<NAME>" and "<NAME " open a nested level; a close tag needs ">" right after the name.
  EXPECT_EQ(Parsed(Doc("<VALUE><VALUE\tTYPE=\"a\">x</VALUE></VALUE>")),
            "rc=1001\n4 findNextElement: findNextElement: Missing correspending keyword </VALUE>\n");
  EXPECT_EQ(Parsed(Doc("<VALUE>x</VALUE ></VALUE>")), kCim + "VALUE ^0 {x</VALUE >}\n");
  // Comments and CDATA between elements are skipped; a comment after CDATA is not.
  EXPECT_EQ(Parsed(Doc("<!-- a --> <!--b--><![CDATA[<x>]]><VALUE>1</VALUE><!--c-->")),
            kCim + "VALUE ^0 {1}\n");
  EXPECT_EQ(Parsed(Doc("<![CDATA[x]]><!-- c --><VALUE/>")),
            "rc=1001\n40000000 findNextElement: findNextElement: Unknown CIM Elementname\n");
}

TEST(CimXmlParse, StructuralAndAttributeErrorsTraceOnceAndFail) {
  const std::string f = "40000000 findNextElement: findNextElement: ";
  const std::string p = "40000000 ParseAttribute: ParseAttribute: ";
  const std::pair<std::string, std::string> cases[] = {
      {Doc("<VALUE/>text"), f + "missing '<' sign at begin."},
      {Doc("<unknown/>"), f + "Unknown CIM Elementname"},
      {Doc("<" + std::string(64, 'V') + "/>"), f + "Unknown CIM Elementname"},
      {Doc("<" + std::string(300, 'V') + ">x</VALUE>"), f + "Unknown CIM Elementname"},
      {Doc("<VALUE/>") + "<!-- open", f + "missing '-->'"},
      {Doc("<VALUE/>") + "<![CDATA[ open", f + "missing ']]>'"},
      {kDecl + "<CIM CIMVERSION=\"2.0\"", f + "missing according '>' sign!"},
      {Doc("<VALUE>x"), "4 findNextElement: findNextElement: Missing correspending keyword </VALUE>"},
      // An unterminated comment inside an element hides its close tag.
      {Doc("<VALUE/><!-- open"), "4 findNextElement: findNextElement: Missing correspending keyword </CIM>"},
      {Doc("<VALUE TYPE/>"), p + "missing '='"},
      {Doc("<VALUE TYPE=string>x</VALUE>"), p + "1. missing '\"'"},
      {Doc("<VALUE TYPE='string'/>"), p + "1. missing '\"'"},
  };
  for (const auto& [text, trace] : cases) EXPECT_EQ(Parsed(text), "rc=1001\n" + trace + "\n") << text;
}

TEST(CimXmlParse, AttributesKeepOrderAndUnknownNames) {
  std::string traces;
  EXPECT_EQ(Parsed(Doc("<PROPERTY NAME=\"a\" name=\"b\" NAME =\"c\" TYPE= \"x>'y\"NAME=\"\" "
                       "embeddedOBJECT=\"object\" EMBEDDEDOBJECT=\"o\" Foo=\"1\"/>"),
                   &traces),
            kCim + "PROPERTY ^0 0=[a] 33=[b] 33=[c] 1=[x>'y] 0=[] 32=[object] 32=[o] 33=[1]\n");
  const std::string u = "40000000 ParseAttribute: ParseAttribute: unknown CIM Attribute: ";
  EXPECT_EQ(traces, u + "name\n" + u + "NAME \n" + u + "Foo\n");
}

TEST(CimXmlParse, NestingIsLimitedTo256LevelsCountingCim) {
  auto nested = [](int levels) {
    std::string open, close;
    for (int i = 1; i < levels; ++i) open += "<VALUE.ARRAY>", close += "</VALUE.ARRAY>";
    return Doc(open + close);
  };
  CIMelement root;
  ASSERT_EQ(root.ParseCIMXML(nested(256)), 0);
  int depth = 0;
  for (const CIMelement* e = root.getLastElement(); e; e = e->m_Parent) ++depth;
  EXPECT_EQ(depth, 256);
  EXPECT_EQ(root.ParseCIMXML(nested(257)), 1001);
  EXPECT_EQ(root.ParseCIMXML(nested(5000)), 1001);  // no stack exhaustion
}

TEST(CimXmlParse, OldTreeIsDiscardedEvenWhenTheParseFails) {
  CIMelement root;
  ASSERT_EQ(root.ParseCIMXML(ReadFixture("resp_associators.xml")), 0);
  EXPECT_EQ(root.ParseCIMXML("<CIM CIMVERSION=\"2.0\"></CIM>"), 1001);
  EXPECT_EQ(root.m_Name, nullptr);
  EXPECT_EQ(root.m_Next, nullptr);
}

TEST(CimXmlParse, RealisticAnswerBecomesOneList) {
  CIMelement root;
  ASSERT_EQ(root.ParseCIMXML(ReadFixture("resp_enum_instances.xml")), 0);
  const std::string dump = Dump(root);
  EXPECT_EQ(dump.rfind("CIM ^- 5=[2.0] 11=[2.0]\nMESSAGE ^0 12=[4711] 22=[1.0]\nSIMPLERSP ^1\n"
                       "IMETHODRESPONSE ^2 0=[EnumerateInstances]\nIRETURNVALUE ^3\n"
                       "VALUE.NAMEDINSTANCE ^4\nINSTANCENAME ^5 7=[OX_PhysicalDisk]\n",
                       0),
            0u)
      << dump;
  EXPECT_NE(dump.find("\nVALUE ^14 {ST600MM0208 &amp; spare}\n"), std::string::npos) << dump;
  EXPECT_NE(dump.find("\nPROPERTY ^11 0=[Location] 1=[string]\nPROPERTY ^11 0=[Settings] "
                      "1=[string] 32=[object]\nVALUE ^23 {&lt;INSTANCE"),
            std::string::npos);
  EXPECT_EQ(root.findelement(62, 1)->m_Parent, root.findelement(20, 0));
}

// Inserting comments between elements sends the parser down its search-based route; the
// list must not change. Documents come from a seeded generator, so failures reproduce.
std::string RandomDocument(std::mt19937& rng) {
  static const char* const names[] = {"VALUE", "VALUE.ARRAY", "PROPERTY", "KEYVALUE", "INSTANCE",
                                      "KEYBINDING", "VALUE.NULL", "QUALIFIER"};
  static const char* const attrs[] = {"NAME", "TYPE", "name", "EmbeddedObject", "Foo", "CLASSNAME"};
  static const char* const texts[] = {"x", " a&amp;b  ", "\xC3\xA9t\xC3\xA9", "1 > 0", "VALUE", "\t"};
  static const char* const blanks[] = {"", " ", "\n", "\r\n  ", "\t"};
  auto pick = [&](auto& arr) { return arr[rng() % (sizeof(arr) / sizeof(arr[0]))]; };
  std::string out;
  std::function<void(int)> element = [&](int depth) {
    const std::string name = pick(names);
    out += std::string(pick(blanks)) + "<" + name;
    for (unsigned n = rng() % 3; n > 0; --n) out += std::string(" ") + pick(attrs) + "=\"v'>" + pick(texts) + "\"";
    switch (depth > 3 ? rng() % 3 : rng() % 5) {
      case 0: out += "/>"; return;
      case 1: out += ">" + std::string(pick(blanks)); break;
      case 2: out += ">" + std::string(pick(texts)); break;
      default:
        out += ">";
        for (unsigned n = 1 + rng() % 3; n > 0; --n) element(depth + 1);
    }
    out += "</" + name + ">";
  };
  out = kDecl + "<CIM CIMVERSION=\"2.0\">";
  for (unsigned n = 1 + rng() % 3; n > 0; --n) element(1);
  return out + "</CIM>";
}

TEST(CimXmlParse, SearchRouteAndStreamingRouteBuildTheSameList) {
  std::mt19937 rng(20261122);
  for (int i = 0; i < 400; ++i) {
    const std::string doc = i == 0 ? ReadFixture("resp_enum_instances.xml") : RandomDocument(rng);
    std::string commented = doc;
    for (size_t at = 0; (at = commented.find("</", at)) != std::string::npos;) {
      const size_t end = commented.find('>', at) + 1;
      if (rng() % 2 && commented.compare(at, 6, "</CIM>") != 0) commented.insert(end, "<!-- > -->");
      at = end;
    }
    std::string t1, t2;
    const std::string plain = Parsed(doc, &t1);
    ASSERT_EQ(Parsed(commented, &t2), plain) << doc << "\n" << commented;
    ASSERT_EQ(t2, t1);
  }
}

// The fixtures are what servers typically send: each must be read in one pass, whole and
// piece by piece, and never by the search-based route.
TEST(CimXmlParse, TypicalAnswersTakeTheSinglePassRoutes) {
  for (const char* file : {"resp_enum_instances.xml", "resp_associators.xml", "op_getclass.xml",
                           "op_error.xml", "op_enuminstances.xml", "op_namespaces.xml"}) {
    const std::string text = ReadFixture(file);
    const oxCIM::ParseRouteCounts before = oxCIM::ParseRoutes();
    CIMelement whole, pieces;
    ASSERT_EQ(whole.ParseCIMXML(text), 0) << file;
    oxCIM::codec::BodyReader reader(&pieces, 0);
    std::string body;
    for (size_t at = 0; at < text.size(); at += 700) {
      body.append(text, at, 700);
      reader.Feed(body);
    }
    ASSERT_EQ(reader.Finish(body, nullptr), 0) << file;
    const oxCIM::ParseRouteCounts after = oxCIM::ParseRoutes();
    EXPECT_EQ(after.streamed - before.streamed, 1u) << file;
    EXPECT_EQ(after.incremental - before.incremental, 1u) << file;
    EXPECT_EQ(after.exact - before.exact, 0u) << file;
    EXPECT_EQ(Dump(pieces), Dump(whole)) << file;
  }
}

// An answer that arrives in pieces over HTTP is read while it arrives.
TEST(CimXmlParse, AnswersAreReadWhileTheyArrive) {
  // A long enumeration: the fixture's instances many times over.
  std::string text = ReadFixture("resp_enum_instances.xml");
  const size_t from = text.find("<VALUE.NAMEDINSTANCE>");
  const size_t to = text.find("</IRETURNVALUE>");
  ASSERT_LT(from, to);
  const std::string instances = text.substr(from, to - from);
  std::string many;
  while (many.size() < 4 * oxCIM::codec::BodyReader::kDefaultStep) many += instances;
  text.replace(from, to - from, many);
  oxsim::ScriptedServer server;
  oxtest::CannedResponse answer = oxtest::CannedResponse::cimOk(text);
  answer.dripChunk = 64 * 1024;
  server.setDefault(answer);
  oxCIM::CIMconnection c;
  oxtest::PointAt(c, server.port());
  c.m_Request = "<?xml version=\"1.0\"?><CIM/>";
  char object[] = "root/cimv2";
  const oxCIM::ParseRouteCounts before = oxCIM::ParseRoutes();
  ASSERT_EQ(c.sendRequest_recvResponse("EnumerateInstances", object), 0);
  const oxCIM::ParseRouteCounts after = oxCIM::ParseRoutes();
  EXPECT_EQ(after.incremental - before.incremental, 1u);
  EXPECT_EQ(after.streamed + after.exact, before.streamed + before.exact);
  CIMelement whole;
  ASSERT_EQ(whole.ParseCIMXML(c.m_Response), 0);
  EXPECT_EQ(Dump(c.m_ResponseTree), Dump(whole));
}

// Whatever the document and wherever the pieces end, reading while the body arrives gives
// the result, list, traces and ERROR element of reading the whole text.
TEST(CimXmlParse, ReadingPieceByPieceGivesWhatTheWholeTextGives) {
  std::mt19937 rng(20261123);
  std::vector<std::string> docs = {Doc("<VALUE>don't</VALUE>"), Doc("<VALUE>x"),
                                   Doc("<ERROR CODE=\"6\"/><VALUE Foo=\"1\"/>") + "\n\n",
                                   Doc("<VALUE/>") + std::string("\0<x>", 4),
                                   kDecl + "<CIM CIMVERSION=\"2.0\"><VALUE>a</VALUE></CIM><VALUE/>"};
  for (int i = 0; i < 300; ++i) docs.push_back(RandomDocument(rng));
  for (const std::string& doc : docs) {
    for (size_t piece : {size_t{1}, size_t{2}, size_t{7}, size_t{64}}) {
      oxtest::TraceCapture t(kError | kStatus);
      CIMelement whole, pieces;
      CIMelement* wholeError = nullptr;
      CIMelement* piecesError = nullptr;
      const int rcWhole = oxCIM::codec::Parse(&whole, doc, true, &wholeError);
      const std::string tracesWhole = t.dump();
      t.clear();
      oxCIM::codec::BodyReader reader(&pieces, 0);
      std::string body;
      for (size_t at = 0; at < doc.size(); at += piece) {
        body.append(doc, at, piece);
        reader.Feed(body);
      }
      ASSERT_EQ(reader.Finish(body, &piecesError), rcWhole) << doc;
      ASSERT_EQ(Dump(pieces), Dump(whole)) << doc;
      ASSERT_EQ(t.dump(), tracesWhole) << doc;
      ASSERT_EQ(piecesError == nullptr, wholeError == nullptr) << doc;
      if (wholeError) {
        EXPECT_EQ(Dump(*piecesError), Dump(*wholeError));
      }
    }
  }
}

// --- generator ---------------------------------------------------------------------------

TEST(CimXmlGenerate, WritesOneElementPerLineFromCim) {
  CIMelement root;
  ASSERT_EQ(root.ParseCIMXML(Doc("<MESSAGE ID=\"7\" Foo=\"x\" PROTOCOLVERSION=\"1.0\"><SIMPLEREQ/>"
                                 "</MESSAGE><VALUE>a&b<c </VALUE>")),
            0);
  std::string out = "discarded";
  EXPECT_EQ(root.GenerateCIMXML(out), 0);
  EXPECT_EQ(out, kDecl + "<CIM CIMVERSION=\"2.0\">\n<MESSAGE ID=\"7\">\n<SIMPLEREQ/>\n</MESSAGE>\n"
                         "<VALUE>a&b<c </VALUE>\n</CIM>\n");
}

TEST(CimXmlGenerate, SubtreeAppendsAndClosesUpToTheNextElementsParent) {
  CIMelement root;
  ASSERT_EQ(root.ParseCIMXML(ReadFixture("resp_associators.xml")), 0);
  std::string out = "keep\n";
  EXPECT_EQ(root.findelement(34, 0)->GenerateCIMXML(out), 0);  // first NAMESPACE, a sibling follows
  EXPECT_EQ(out, "keep\n<NAMESPACE NAME=\"root\"/>\n");
  // INSTANCENAME of the path: the INSTANCE after it hangs two levels up.
  CIMelement* name = root.findelement(17, 0);
  out.clear();
  EXPECT_EQ(name->GenerateCIMXML(out), 0);
  EXPECT_EQ(out, "<INSTANCENAME CLASSNAME=\"OX_StoragePool\">\n<KEYBINDING NAME=\"InstanceID\">\n"
                 "<KEYVALUE VALUETYPE=\"string\">POOL-1</KEYVALUE>\n</KEYBINDING>\n</INSTANCENAME>\n"
                 "</INSTANCEPATH>\n");
  // From the leaf, the subtree runs on past the path (only a parent or grandparent ends
  // it), so the rest of the document is written and the final walk up finds no ancestor.
  out.clear();
  EXPECT_EQ(name->getLastElement()->GenerateCIMXML(out), 1001);
  EXPECT_EQ(out.rfind("<KEYVALUE VALUETYPE=\"string\">POOL-1</KEYVALUE>\n</KEYBINDING>\n"
                      "</INSTANCENAME>\n</INSTANCEPATH>\n<INSTANCE CLASSNAME=",
                      0),
            0u);
  EXPECT_EQ(out.substr(out.size() - 18), "</MESSAGE>\n</CIM>\n");
}

TEST(CimXmlGenerate, InconsistentTreesAreReported) {
  CIMelement root;
  ASSERT_EQ(root.ParseCIMXML(Doc("<VALUE.ARRAY><VALUE>1</VALUE></VALUE.ARRAY>")), 0);
  CIMelement* array = root.m_Next;
  array->m_Value = strdup("dropped");
  oxtest::TraceCapture t(kError | kStatus);
  std::string out;
  EXPECT_EQ(array->GenerateCIMXML(out), 0);
  EXPECT_EQ(out, "<VALUE.ARRAY>\n<VALUE>1</VALUE>\n</VALUE.ARRAY>\n");
  CIMelement stranger;
  array->m_Next->m_Parent = &stranger;  // VALUE's parent is no ancestor of VALUE.ARRAY
  out.clear();
  EXPECT_EQ(array->GenerateCIMXML(out), 1001);
  EXPECT_EQ(out, "<VALUE.ARRAY>dropped</VALUE.ARRAY>\n</CIM>\n");
  EXPECT_EQ(t.dump(), "40000000 GenerateCIMXML: GenerateCIMXML: (#PCDATA) not allowed here!\n"
                      "40000000 GenerateCIMXML: GenerateCIMXML: bad data in CIMelement found!\n");
  array->m_Next->m_Parent = array;
}

TEST(CimXmlGenerate, FixturesSurviveARoundTrip) {
  for (const char* file : {"resp_enum_instances.xml", "resp_associators.xml"}) {
    CIMelement first, second;
    ASSERT_EQ(first.ParseCIMXML(ReadFixture(file)), 0) << file;
    std::string once, twice;
    ASSERT_EQ(first.GenerateCIMXML(once), 0);
    ASSERT_EQ(second.ParseCIMXML(once), 0) << once;
    EXPECT_EQ(Dump(second), Dump(first)) << file;
    ASSERT_EQ(second.GenerateCIMXML(twice), 0);
    EXPECT_EQ(twice, once);
  }
}

}  // namespace
