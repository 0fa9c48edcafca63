// CIM-XML reading and writing: the parser's search rules and their traps, the generator's
// layout, and round trips through both.
#include <gtest/gtest.h>

#include "../Src/oxInternal.h"
#include "TestSupport.h"

#include <functional>
#include <map>
#include <random>

using oxCIM::CIMelement;
using oxtest::ReadFixture;

namespace {

constexpr unsigned long kTraced = oxCIM::TRACE_ERROR | oxCIM::TRACE_STATUS;

// One line per list node: name, index of the parent, attributes (id=[value]), value.
std::string Dump(const CIMelement& root) {
  std::map<const CIMelement*, int> index;
  int i = 0;
  for (const CIMelement* e = &root; e; e = e->m_Next) index[e] = i++;
  std::ostringstream os;
  for (const CIMelement* e = &root; e; e = e->m_Next) {
    os << (e->m_Name ? e->m_Name : "(empty)") << " ^"
       << (!e->m_Parent ? "-" : index.count(e->m_Parent) ? std::to_string(index[e->m_Parent]) : "(outside)");
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

// Parses `text` whole: the dump or "rc=N", then the traces. `route`: 'S' when the streaming
// engine read it, 'X' when the exact engine did, '-' when neither ran.
std::string Parsed(const std::string& text, char* route = nullptr) {
  oxtest::TraceCapture t(kTraced);
  const oxCIM::ParseRouteCounts before = oxCIM::ParseRoutes();
  CIMelement root;
  const int rc = root.ParseCIMXML(text);
  const oxCIM::ParseRouteCounts after = oxCIM::ParseRoutes();
  if (route) *route = after.exact != before.exact ? 'X' : after.streamed != before.streamed ? 'S' : '-';
  return (rc == 0 ? Dump(root) : "rc=" + std::to_string(rc) + "\n") + t.dump();
}

// Reading while the body arrives in pieces gives the result, list, traces and ERROR element
// of reading the whole text, and streams exactly when the whole read does.
void ExpectPiecesGiveTheWhole(const std::string& doc, size_t piece) {
  oxtest::TraceCapture t(kTraced);
  CIMelement whole, pieces;
  CIMelement *wholeError = nullptr, *piecesError = nullptr;
  const oxCIM::ParseRouteCounts before = oxCIM::ParseRoutes();
  const int rc = oxCIM::codec::Parse(&whole, doc, true, &wholeError);
  const oxCIM::ParseRouteCounts mid = oxCIM::ParseRoutes();
  const std::string traces = t.dump();
  t.clear();
  oxCIM::codec::BodyReader reader(&pieces, 0);
  std::string body;
  for (size_t at = 0; at < doc.size(); at += piece) reader.Feed(body.append(doc, at, piece));
  ASSERT_EQ(reader.Finish(body, &piecesError), rc) << doc;
  if (doc.find('\0') == std::string::npos)  // else the reader stops early and hands over
    EXPECT_EQ(oxCIM::ParseRoutes().incremental - mid.incremental, mid.streamed - before.streamed) << piece << doc;
  ASSERT_EQ(Dump(pieces), Dump(whole)) << doc;
  ASSERT_EQ(t.dump(), traces) << doc;
  ASSERT_EQ(piecesError == nullptr, wholeError == nullptr) << doc;
  if (wholeError) EXPECT_EQ(Dump(*piecesError), Dump(*wholeError));
}

std::string Unescape(std::string s) {
  for (size_t at = 0; (at = s.find("\\x", at)) != std::string::npos; ++at)
    s.replace(at, 4, 1, static_cast<char>(std::stoi(s.substr(at + 2, 2), nullptr, 16)));
  return s;
}

// tests/data/parse_cases.txt describes its layout.
TEST(CimXmlParse, TableOfCasesWithTheirRoutes) {
  std::istringstream in(ReadFixture("parse_cases.txt") + "\n");
  int cases = 0;
  std::string head, want;
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line[0] == '#') continue;
    if (!line.empty()) {
      (head.empty() ? head : want) += head.empty() ? line : Unescape(line) + "\n";
      continue;
    }
    if (head.empty()) continue;
    const std::string text = head[1] == '|' ? Doc(Unescape(head.substr(3))) : Unescape(head.substr(3));
    char route = '?';
    EXPECT_EQ(Parsed(text, &route), want) << head;
    EXPECT_EQ(route, head[0]) << head;
    for (size_t piece : {1, 7}) ExpectPiecesGiveTheWhole(text, piece);
    head.clear(), want.clear(), ++cases;
  }
  EXPECT_GT(cases, 60);
}

// Quotes and apostrophes that only the close-tag search sees (inside CDATA, behind a
// comment's start) at every offset within 32-byte blocks: the expected list comes from
// the plain search, which looks at every byte from each search's start.
TEST(CimXmlParse, QuotesSeenOnlyByTheSearchAtEveryOffset) {
  std::string body;
  for (int k = 0; k <= 40; ++k) {
    const std::string pad(k, 'p');
    body += "<VALUE.ARRAY><![CDATA[\"" + pad + "]]><VALUE>x'a'</VALUE><![CDATA[\"]]><VALUE>'y'</VALUE></VALUE.ARRAY>\n";
    body += "<VALUE.ARRAY><![CDATA['" + pad + "]]><VALUE>x\"a\"</VALUE><![CDATA[']]><VALUE>y</VALUE></VALUE.ARRAY>\n";
    body += "<VALUE.ARRAY><![CDATA[\"" + pad + "]]><VALUE>x</VALUE><![CDATA[\"'']]><VALUE>y</VALUE></VALUE.ARRAY>\n";
    body += "<VALUE.ARRAY><VALUE>" + pad + "a<!--\"-->b</VALUE><VALUE>c\"d\"e</VALUE></VALUE.ARRAY>\n";
  }
  char route = '?';
  EXPECT_EQ(Parsed(Doc(body), &route), ReadFixture("parse_quoted_stretches.dump"));
  EXPECT_EQ(route, 'X');
}

TEST(CimXmlParse, NestingIsLimitedTo256LevelsAndFailuresDropTheOldList) {
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
  EXPECT_EQ(root.ParseCIMXML("<CIM CIMVERSION=\"2.0\"></CIM>"), 1001);  // the old list goes anyway
  EXPECT_TRUE(root.m_Name == nullptr && root.m_Next == nullptr);
  EXPECT_EQ(root.ParseCIMXML(nested(257)), 1001);
  EXPECT_EQ(root.ParseCIMXML(nested(5000)), 1001);  // no stack exhaustion
}

// The fixtures are what servers typically send: each must be read in one pass, whole and
// piece by piece, and survive a round trip through the generator.
TEST(CimXmlParse, TypicalAnswersTakeTheSinglePassRoutesAndRoundTrip) {
  for (const char* file : {"resp_enum_instances.xml", "resp_associators.xml", "op_getclass.xml",
                           "op_error.xml", "op_enuminstances.xml", "op_namespaces.xml"}) {
    const std::string text = ReadFixture(file);
    char route = '?';
    const std::string dump = Parsed(text, &route);
    EXPECT_EQ(route, 'S') << file;
    ExpectPiecesGiveTheWhole(text, 700);
    if (file == std::string("resp_enum_instances.xml")) EXPECT_EQ(dump, ReadFixture("parse_enum_instances.dump"));
    CIMelement tree;
    std::string once, twice;
    ASSERT_EQ(tree.ParseCIMXML(text), 0);
    ASSERT_EQ(tree.GenerateCIMXML(once), 0);
    EXPECT_EQ(Parsed(once), dump) << file;
    ASSERT_EQ(tree.ParseCIMXML(once), 0);
    ASSERT_EQ(tree.GenerateCIMXML(twice), 0);
    EXPECT_EQ(twice, once) << file;
  }
}

// Inserting comments between elements sends the parser down its search-based route; the
// list must not change, nor must reading piece by piece. Documents come from a seeded
// generator, so failures reproduce.
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

TEST(CimXmlParse, AllRoutesBuildTheSameList) {
  std::mt19937 rng(20261122);
  for (int i = 0; i < 400; ++i) {
    const std::string doc = i == 0 ? ReadFixture("resp_enum_instances.xml") : RandomDocument(rng);
    std::string commented = doc;
    for (size_t at = 0; (at = commented.find("</", at)) != std::string::npos;) {
      const size_t end = commented.find('>', at) + 1;
      if (rng() % 2 && commented.compare(at, 6, "</CIM>") != 0) commented.insert(end, "<!-- > -->");
      at = end;
    }
    ASSERT_EQ(Parsed(commented), Parsed(doc)) << doc << "\n" << commented;
    for (size_t piece : {1, 2, 7, 64}) ExpectPiecesGiveTheWhole(doc, piece);
  }
}

// An answer that arrives in pieces over HTTP is read while it arrives.
TEST(CimXmlParse, AnswersAreReadWhileTheyArrive) {
  // A long enumeration: the fixture's instances many times over.
  std::string text = ReadFixture("resp_enum_instances.xml"), many;
  const size_t from = text.find("<VALUE.NAMEDINSTANCE>"), to = text.find("</IRETURNVALUE>");
  ASSERT_LT(from, to);
  while (many.size() < 4 * oxCIM::codec::BodyReader::kDefaultStep) many += text.substr(from, to - from);
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
  EXPECT_EQ(Dump(c.m_ResponseTree), Parsed(c.m_Response));
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
  EXPECT_EQ(out, ReadFixture("parse_generated_from_name.xml"));
  // From the leaf, the subtree runs on past the path (only a parent or grandparent ends
  // it), so the rest of the document is written and the final walk up finds no ancestor.
  out.clear();
  EXPECT_EQ(name->getLastElement()->GenerateCIMXML(out), 1001);
  EXPECT_EQ(out, ReadFixture("parse_generated_from_leaf.xml"));
}

TEST(CimXmlGenerate, InconsistentTreesAreReported) {
  CIMelement root;
  ASSERT_EQ(root.ParseCIMXML(Doc("<VALUE.ARRAY><VALUE>1</VALUE></VALUE.ARRAY>")), 0);
  CIMelement* array = root.m_Next;
  array->m_Value = strdup("dropped");
  oxtest::TraceCapture t(kTraced);
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

}  // namespace
