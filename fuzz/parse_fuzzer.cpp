// Arbitrary bytes through the CIM-XML reader and writer.
//
// The reader's source is compiled in so that its two engines can be compared: the public
// ParseCIMXML (streaming engine with its fallback) and the body reader fed in pieces (as
// while an answer arrives) must each give exactly the list, result and traces of the
// search-based engine alone, which must give the same with and without its tag index.
// A successful read must write back with result 0, and the written text must be readable
// again without crashing.
#include "CIMXMLparser.cpp"

#include <cstdint>
#include <cstdio>
#include <map>
#include <sstream>

namespace {

std::vector<std::string>* g_traces = nullptr;

std::string Dump(const oxCIM::CIMelement& root) {
  std::map<const oxCIM::CIMelement*, int> index;
  int i = 0;
  for (const oxCIM::CIMelement* e = &root; e; e = e->m_Next) index[e] = i++;
  std::ostringstream os;
  for (const oxCIM::CIMelement* e = &root; e; e = e->m_Next) {
    os << (e->m_Name ? e->m_Name : "-") << '^' << (e->m_Parent ? index.at(e->m_Parent) : -1);
    if (const oxCIM::CIMarray* a = e->m_Attributes) {
      os << '#' << a->argc << '/' << a->maxargc;
      for (unsigned long k = 0; k < a->argc; ++k) {
        char* v = nullptr;
        os << ' ' << const_cast<oxCIM::CIMelement*>(e)->attr_get(k, &v) << '=' << v;
      }
    }
    if (e->m_Value) os << " {" << e->m_Value << '}';
    os << '\n';
  }
  return os.str();
}

void Check(bool ok, const char* what) {
  if (!ok) {
    std::fprintf(stderr, "parse_fuzzer: %s\n", what);
    __builtin_trap();
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_traces = new std::vector<std::string>;
  Brix::Internals::SetTraceSink([](const Brix::Internals::TraceRecord& r) {
    g_traces->push_back(std::to_string(r.level) + ' ' + r.function + ' ' +
                        std::to_string(r.line) + ' ' + r.text);
  });
  oxCIM::oxCIM.SetTraceMask(oxCIM::TRACE_ERROR | oxCIM::TRACE_STATUS);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);

  g_traces->clear();
  oxCIM::CIMelement root;
  const int rc = root.ParseCIMXML(text);
  const std::vector<std::string> traces = *g_traces;

  g_traces->clear();
  oxCIM::CIMelement exact;
  const int rcExact = oxCIM::codec::Parse(&exact, text, false);
  Check(rc == rcExact, "result differs from the search-based engine");
  Check(traces == *g_traces, "traces differ from the search-based engine");
  Check(Dump(root) == Dump(exact), "list differs from the search-based engine");

  // The search-based engine itself: with its index of the tags, as without.
  std::vector<std::string> tracesExact = *g_traces;
  g_traces->clear();
  oxCIM::CIMelement plain;
  oxCIM::codec::g_SearchIndex = false;
  const int rcPlain = oxCIM::codec::Parse(&plain, text, false);
  oxCIM::codec::g_SearchIndex = true;
  Check(rcPlain == rcExact, "result differs without the tag index");
  Check(tracesExact == *g_traces, "traces differ without the tag index");
  Check(Dump(plain) == Dump(exact), "list differs without the tag index");
  *g_traces = tracesExact;

  // Piece lengths from 1 to 61 bytes, chosen by the input itself.
  g_traces->clear();
  oxCIM::CIMelement pieces;
  const size_t piece = size == 0 ? 1 : 1 + data[size / 2] % 61;
  {
    oxCIM::codec::BodyReader reader(&pieces, 0);
    std::string body;
    for (size_t at = 0; at < text.size(); at += piece) {
      body.append(text, at, piece);
      reader.Feed(body);
    }
    Check(reader.Finish(body, nullptr) == rcExact, "result of the pieces differs");
  }
  Check(traces == *g_traces, "traces of the pieces differ");
  Check(Dump(pieces) == Dump(exact), "list of the pieces differs");
  pieces.eclean();
  exact.eclean();

  if (rc == 0) {
    // Every parent in a parsed list is an ancestor in document order, so the walk back up
    // always succeeds. (A value beside "children" can occur: a top-level element after
    // one with a value hangs off it.)
    std::string out;
    Check(root.GenerateCIMXML(out) == 0, "a parsed list does not write back");
    oxCIM::CIMelement again;
    again.ParseCIMXML(out);
  }
  return 0;
}
