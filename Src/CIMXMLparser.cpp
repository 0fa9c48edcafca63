// CIM-XML codec: ParseCIMXML reads a response into an element list, GenerateCIMXML writes one.
//
// The parser has two engines that build the same list. The exact engine follows the
// forward close-tag search with its quote, apostrophe and comment rules; rather than
// reading each element's content once per level above it, it records the search's stops
// in one scan and looks them up (TagIndex). The streaming engine reads a plain document in
// one pass with a stack and bails out to the exact engine at anything whose result would
// depend on those search rules (quotes or apostrophes in text, comments, CDATA,
// processing instructions, a tag nested in a tag of the same name, any error). Because
// it only accepts documents where every close-tag search ends at the matching tag, both
// engines yield the same list and the same traces for everything it accepts.
//
// This file deliberately depends only on exported symbols, so the fuzzer can compile it
// in and compare the engines directly.
#include "oxInternal.h"

#include <atomic>
#include <cstdint>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace oxCIM {
namespace codec {

constexpr int kMaxDepth = 256;  // CIM counts as level 1

std::atomic<unsigned long> g_Streamed{0}, g_Incremental{0}, g_Exact{0};
constexpr size_t kNameMax = 63;

// Blank: signed char below 33 but not NUL, so every byte from 0x80 up counts.
inline bool IsBlank(char c) { return static_cast<signed char>(c) < 33 && c != 0; }

inline const char* SkipBlanks(const char* p) {
  while (IsBlank(*p)) ++p;
  return p;
}
inline char* SkipBlanks(char* p) {
  while (IsBlank(*p)) ++p;
  return p;
}

// ---------------------------------------------------------------------------------------
// Name tables: open addressing over the vocabulary, first match by construction since
// every name in a table is distinct.

class NameIndex {
 public:
  NameIndex(const char* const* names, int count) : m_Names(names) {
    for (int& s : m_Slot) s = -1;
    for (int i = 0; i < count; ++i) {
      size_t len = std::strlen(names[i]);
      unsigned h = Hash(names[i], len) & kMask;
      while (m_Slot[h] >= 0) h = (h + 1) & kMask;
      m_Slot[h] = i;
      m_Len[h] = static_cast<unsigned char>(len);
    }
  }
  // Identifier of the name [s, s+len) or -1.
  int Find(const char* s, size_t len) const {
    unsigned h = Hash(s, len) & kMask;
    while (m_Slot[h] >= 0) {
      if (m_Len[h] == len && std::memcmp(m_Names[m_Slot[h]], s, len) == 0) return m_Slot[h];
      h = (h + 1) & kMask;
    }
    return -1;
  }

 private:
  static constexpr unsigned kMask = 255;
  static unsigned Hash(const char* s, size_t len) {
    unsigned h = 2166136261u ^ static_cast<unsigned>(len);
    for (size_t i = 0; i < len; ++i) h = (h ^ static_cast<unsigned char>(s[i])) * 16777619u;
    return h ^ (h >> 11);
  }
  const char* const* m_Names;
  int m_Slot[kMask + 1];
  unsigned char m_Len[kMask + 1] = {};
};

const NameIndex& Elements() {
  static const NameIndex index(known_cim_elements, E_UNKNOWN);  // entries 0 to 69
  return index;
}
const NameIndex& Attributes() {
  static const NameIndex index(known_cim_attributes, A_UNKNOWN);  // entries 0 to 32
  return index;
}

// Locale upper-case mapping, whole strings.
bool SameNoCase(const char* a, size_t alen, const char* b) {
  size_t i = 0;
  for (; i < alen; ++i) {
    if (b[i] == 0) return false;
    if (std::toupper(static_cast<unsigned char>(a[i])) !=
        std::toupper(static_cast<unsigned char>(b[i])))
      return false;
  }
  return b[i] == 0;
}

// Attribute identifier without the trace: 0..32, or 33.
int AttributeId(const char* name, size_t len) {
  int id = Attributes().Find(name, len);
  if (id >= 0) return id;
  if (SameNoCase(name, len, known_cim_attributes[A_EMBEDDEDOBJECT])) return A_EMBEDDEDOBJECT;
  return A_UNKNOWN;
}

// ---------------------------------------------------------------------------------------
// Traces, one place each so that both engines emit identical records.

__attribute__((noinline)) void TraceError(const char* function, const char* text) {
  OX_TRACE_FN(TRACE_ERROR, function, text);
}
__attribute__((noinline)) void TraceMissingClose(const char* name) {
  OX_TRACE_FN(TRACE_STATUS, "findNextElement", "findNextElement: Missing correspending keyword </%s>",
              name);
}
__attribute__((noinline)) void TraceUnknownAttribute(const char* name) {
  OX_TRACE_FN(TRACE_ERROR, "ParseAttribute", "ParseAttribute: unknown CIM Attribute: %s", name);
}

// ---------------------------------------------------------------------------------------
// The search used for every token that may sit inside quoted text.

// Bytes at which findUnquoted has to look closer besides the needle's first byte.
struct Specials {
  bool stop[256];
};
constexpr Specials MakeSpecials() {
  Specials s{};
  s.stop[0] = true;
  s.stop[static_cast<unsigned char>('"')] = true;
  s.stop[static_cast<unsigned char>('\'')] = true;
  s.stop[static_cast<unsigned char>('<')] = true;
  return s;
}
constexpr Specials kSpecials = MakeSpecials();

inline bool NameAt(const char* m, const char* name, size_t nlen) {
  for (size_t i = 0; i < nlen; ++i)  // stops at a NUL in m, which no name holds
    if (m[i] != name[i]) return false;
  return true;
}

inline bool CommentAt(const char* s) { return s[1] == '!' && s[2] == '-' && s[3] == '-'; }

// Where the search goes on after the quote or comment that starts at s; null when it
// is not closed before the NUL.
inline const char* Resume(const char* s) {
  if (*s == '<') {
    const char* e = std::strstr(s + 4, "-->");
    return e == nullptr ? nullptr : e + 3;
  }
  const char* e = std::strchr(s + 1, *s);
  return e == nullptr ? nullptr : e + 1;
}

const char* FindUnquoted(const char* p, const char* needle, size_t nlen) {
  const char first = needle[0];
  for (;;) {
    while (!kSpecials.stop[static_cast<unsigned char>(*p)] && *p != first) ++p;
    const char c = *p;
    if (c == 0) return nullptr;
    if (c == '"' || c == '\'' || (c == '<' && CommentAt(p))) {
      p = Resume(p);  // an empty "" pair is stepped over the same way
      if (p == nullptr) return nullptr;
      continue;
    }
    if (c == first && std::strncmp(p, needle, nlen) == 0) return p;
    ++p;
  }
}
inline char* FindUnquoted(char* p, const char* needle, size_t nlen) {
  return const_cast<char*>(FindUnquoted(static_cast<const char*>(p), needle, nlen));
}

// The close-tag search of the exact engine: FindUnquoted for the element name, except that
// only occurrences right behind "<" or "</" are returned. The others change nothing there:
// the search just goes on behind them, and as a name holds no quote and no "<", no
// quote, comment or tag can start inside one.
char* FindTagName(char* p, const char* name, size_t nlen) {
  for (;;) {
    while (!kSpecials.stop[static_cast<unsigned char>(*p)]) ++p;
    if (*p == 0) return nullptr;
    if (*p != '<' || CommentAt(p)) {
      p = const_cast<char*>(Resume(p));
      if (p == nullptr) return nullptr;
      continue;
    }
    char* m = p + (p[1] == '/' ? 2 : 1);
    if (NameAt(m, name, nlen)) return m;
    ++p;
  }
}

// The stops of the close-tag search, found once. The exact engine searches the content of
// every element again for each level above it; but two searches that stand outside any
// quote or comment at the same place see the same stops from there on. So one scan from
// the document element records every "<" it stops at (with the first letter of the name
// behind it) and every stretch it skipped inside quotes and comments; a later search that
// starts outside those stretches walks the recorded "<" with that letter instead of the
// text. The exact engine only ever writes NULs behind its cursor, except where it ends the
// content it recurses into, so the first NUL such a search meets is the end of that
// content (`limit`).
class TagIndex {
 public:
  // Records the stops of a scan from `from` to the NUL that ends `text`.
  bool Build(const char* text, const char* from, size_t size) {
    if (size >= UINT32_MAX) return false;
    m_Text = text;
    m_From = static_cast<uint32_t>(from - text);
    m_Base = reinterpret_cast<const char*>(reinterpret_cast<uintptr_t>(text) & ~uintptr_t{31});
    m_Skipped.assign(static_cast<size_t>(text + size - m_Base) / 32 + 2, 0);
    m_At.clear();
    m_Letter.clear();
    m_At.reserve(size / 16);
    m_Letter.reserve(size / 16);
    const char* end = Record(from);
    m_End = static_cast<uint32_t>(end - text);
    Skip(end + 1, text + size + 1);  // nothing behind a dead end is what the scan saw
    m_First.assign(size / kBlock + 2, 0);
    size_t at = 0;
    for (size_t b = 0; b < m_First.size(); ++b) {
      while (at < m_At.size() && m_At[at] < b * kBlock) ++at;
      m_First[b] = static_cast<uint32_t>(at);
    }
    return true;
  }

  // Frees the buffers when they have grown past what a typical answer needs.
  void Trim() {
    if (m_At.capacity() <= kKeep) return;
    std::vector<uint32_t>().swap(m_At);
    std::vector<char>().swap(m_Letter);
    std::vector<uint32_t>().swap(m_First);
    std::vector<uint32_t>().swap(m_Skipped);
  }

  // FindTagName(p, name, nlen), when the first NUL at or after p is at `limit`.
  char* Find(char* p, const char* name, size_t nlen, const char* limit) const {
    const size_t off = static_cast<size_t>(p - m_Text);
    if (p < m_Text + m_From || off > m_End || Skipped(p)) return FindTagName(p, name, nlen);
    size_t i = m_First[off / kBlock];
    while (i < m_At.size() && m_At[i] < off) ++i;
    const char* const letters = m_Letter.data();
    for (;;) {
      const void* hit =
          i < m_Letter.size() ? std::memchr(letters + i, name[0], m_Letter.size() - i) : nullptr;
      if (hit == nullptr) return nullptr;  // the search runs into its NUL or its dead end
      i = static_cast<size_t>(static_cast<const char*>(hit) - letters);
      char* s = const_cast<char*>(m_Text) + m_At[i];
      if (s >= limit) return nullptr;
      if (s[0] != '<' || s[1] == 0) return FindTagName(p, name, nlen);  // not as recorded
      char* m = s + (s[1] == '/' ? 2 : 1);
      if (NameAt(m, name, nlen)) return m;
      ++i;
    }
  }

 private:
  static constexpr size_t kBlock = 64;
  static constexpr size_t kKeep = 16 * 1024;  // tags of an answer of about 256 KB

  void Tag(const char* s) {
    m_At.push_back(static_cast<uint32_t>(s - m_Text));
    m_Letter.push_back(s[1] == '/' ? s[2] : s[1]);
  }
  // The skipped bytes, a bit each, in 32-byte words from the aligned start of the text.
  bool Skipped(const char* at) const {
    const size_t bit = static_cast<size_t>(at - m_Base);
    return (m_Skipped[bit / 32] >> (bit % 32)) & 1;
  }
  void Skip(const char* from, const char* to) {
    for (size_t bit = static_cast<size_t>(from - m_Base), end = static_cast<size_t>(to - m_Base);
         bit < end; ++bit) {
      if (bit % 32 == 0 && end - bit >= 32) {
        m_Skipped[bit / 32] = ~uint32_t{0};
        bit += 31;
      } else {
        m_Skipped[bit / 32] |= uint32_t{1} << (bit % 32);
      }
    }
  }

  // One stop at a time, up to the first stop at or after `until`; returns there, or
  // null with `*end` set where the scan ends.
  const char* Step(const char* p, const char* until, const char** end) {
    for (;;) {
      while (!kSpecials.stop[static_cast<unsigned char>(*p)]) ++p;
      if (p >= until) return p;
      if (*p == 0) return *end = p, nullptr;
      if (*p == '<' && !CommentAt(p)) {
        Tag(p++);
        continue;
      }
      const char* resume = Resume(p);
      if (resume == nullptr) return *end = p, nullptr;
      Skip(p + 1, resume);
      p = resume;
    }
  }

  // Returns where the scan ends: its NUL, or an unclosed quote or comment.
  const char* Record(const char* p);

  const char* m_Text = nullptr;
  const char* m_Base = nullptr;
  uint32_t m_From = 0;
  uint32_t m_End = 0;
  std::vector<uint32_t> m_At;       // offsets of the "<" the scan stopped at
  std::vector<char> m_Letter;       // the first letter of the name behind each
  std::vector<uint32_t> m_First;    // per kBlock bytes of the text: first entry at or after them
  std::vector<uint32_t> m_Skipped;  // inside a quote or comment the scan stepped over
};

#if defined(__SSE2__)
struct StopBits {
  uint32_t lt, dq, sq, nul;
};
// An aligned block never crosses a page, so reading the whole block that holds the
// terminating NUL cannot fault; the sanitizers would still call the bytes behind it an
// overflow (or a race with their owner), so they are told to look away here.
__attribute__((no_sanitize("address", "thread"))) inline StopBits BlockStops(const char* block) {
  const __m128i a = _mm_load_si128(reinterpret_cast<const __m128i*>(block));
  const __m128i b = _mm_load_si128(reinterpret_cast<const __m128i*>(block + 16));
  auto bits = [&](char c) {
    const __m128i v = _mm_set1_epi8(c);
    return static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(a, v))) |
           static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(b, v))) << 16;
  };
  return {bits('<'), bits('"'), bits('\''), bits(0)};
}

// Bit i set: an odd number of the bits up to and including i are set.
inline uint32_t PrefixParity(uint32_t x) {
  x ^= x << 1;
  x ^= x << 2;
  x ^= x << 4;
  x ^= x << 8;
  x ^= x << 16;
  return x;
}

// 32 bytes at a time, as bit masks: without apostrophes the quotes pair up in order, so
// what they enclose is one mask. Apostrophes and comments go one stop at a time.
const char* TagIndex::Record(const char* p) {
  const char* end = nullptr;
  for (;;) {  // p stands outside any quote or comment
    const char* base = reinterpret_cast<const char*>(reinterpret_cast<uintptr_t>(p) & ~uintptr_t{31});
    uint32_t from = ~uint32_t{0} << (p - base);
    bool inQuote = false;          // a '"' of an earlier block is still open
    const char* opened = nullptr;  // where the last '"' opened
    for (;;) {
      const StopBits b = BlockStops(base);
      if ((b.sq & from) != 0) break;
      const uint32_t quotes = b.dq & from;
      uint32_t inside = quotes == 0 ? 0 : PrefixParity(quotes);
      if (inQuote) inside = ~inside;
      const uint32_t nul = b.nul & from;
      const uint32_t before = nul == 0 ? ~uint32_t{0} : (nul & (~nul + 1)) - 1;
      uint32_t skip = ((inside << 1) | (inQuote ? 1u : 0u)) & from & before;
      if (quotes & inside & before) opened = base + 31 - __builtin_clz(quotes & inside & before);
      const char* comment = nullptr;
      for (uint32_t tags = b.lt & from & ~inside & before; tags != 0; tags &= tags - 1) {
        const char* s = base + __builtin_ctz(tags);
        if (CommentAt(s)) {
          comment = s;
          skip &= (uint32_t{1} << (s - base)) - 1;
          break;
        }
        Tag(s);
      }
      m_Skipped[static_cast<size_t>(base - m_Base) / 32] |= skip;
      if (comment != nullptr) {
        p = comment;
        inQuote = false;
        break;
      }
      if (nul != 0) {
        const char* at = base + __builtin_ctz(nul);
        return (at == base ? inQuote : ((inside >> (at - base - 1)) & 1) != 0) ? opened : at;
      }
      inQuote = (inside >> 31) != 0;
      base += 32;
      from = ~uint32_t{0};
    }
    // A comment or an apostrophe: one stop at a time to the next block, after ending a
    // quote that was open when the block began.
    if (inQuote) {
      const char* close = std::strchr(base, '"');
      if (close == nullptr) return opened;
      Skip(base, close + 1);
      p = close + 1;
    } else if (p < base) {
      p = base;
    }
    p = Step(p, base + 32, &end);
    if (p == nullptr) return end;
  }
}
#else
const char* TagIndex::Record(const char* p) {
  const char* end = nullptr;
  Step(p, reinterpret_cast<const char*>(UINTPTR_MAX), &end);
  return end;
}
#endif

// Appends a fresh node behind the tail of the list being built. makeNextElement walks to
// the end of the list from the node it is called on, so calling it on the tail keeps
// the build linear; the parent it assigns is then corrected to the one the walk from
// `previous` would have given.
inline CIMelement* AppendElement(CIMelement*& tail, CIMelement* previous) {
  CIMelement* e = tail->makeNextElement();
  if (e == nullptr) return nullptr;
  if (e != tail) e->m_Parent = previous;
  tail = e;
  return e;
}

// ---------------------------------------------------------------------------------------
// Exact engine.

class ExactParser {
 public:
  // `index`: the stops of the text's close-tag searches, or null to search the text.
  ExactParser(CIMelement* root, const TagIndex* index) : m_Tail(root), m_Index(index) {}

  // The text at *cursor ends at `limit` (a NUL).
  int ParseBuffer(char** cursor, CIMelement* previous, int depth, char* limit);
  CIMelement* FirstError() const { return m_FirstError; }

 private:
  int ParseAttribute(char** cursor, CIMelement* element, size_t slots);
  char* FindClose(char* from, const char* name, size_t nlen, char* limit);
  CIMelement* m_Tail;
  const TagIndex* m_Index;
  CIMelement* m_FirstError = nullptr;
};

// Adds "id+1, text, NUL" as the next entry of a new attribute array that nobody else can
// see yet (so without its lock) and that has a free slot; null without memory.
char* AppendAttribute(CIMarray* attrs, int id, const char* text, size_t len) {
  char* block = static_cast<char*>(std::malloc(len + 2));
  if (block == nullptr) return nullptr;
  block[0] = static_cast<char>(id + 1);
  std::memcpy(block + 1, text, len);
  block[len + 1] = 0;
  attrs->elemlen = -2;
  attrs->argv[attrs->argc++] = block;
  return block;
}

// Gives a new element's attribute array `slots` entries at once, where attr_put would grow
// it to 16 and FreeUnused shrink it again: on a large answer those two reallocations
// cost more than the search. Without memory the puts go their usual way.
void ReserveAttributes(CIMelement* element, size_t slots) {
  try {
    auto* attrs = new CIMarray;
    attrs->argv = static_cast<char**>(std::calloc(slots, sizeof(char*)));
    if (attrs->argv == nullptr) {
      delete attrs;
      return;
    }
    attrs->maxargc = slots;
    element->m_Attributes = attrs;
  } catch (...) {
  }
}

int ExactParser::ParseAttribute(char** cursor, CIMelement* element, size_t slots) {
  char* a = *cursor;
  char* eq = FindUnquoted(a, "=", 1);
  if (eq == nullptr) {
    TraceError("ParseAttribute", "ParseAttribute: missing '='");
    return -1;
  }
  *eq = 0;
  int id = AttributeId(a, static_cast<size_t>(eq - a));
  if (id == A_UNKNOWN) TraceUnknownAttribute(a);
  *eq = '=';
  char* v = SkipBlanks(eq + 1);
  if (*v != '"') {
    TraceError("ParseAttribute", "ParseAttribute: 1. missing '\"'");
    return -1;
  }
  char* close = std::strchr(v + 1, '"');
  if (close == nullptr) {
    TraceError("ParseAttribute", "ParseAttribute: 2. missing '\"'");
    return -1;
  }
  *close = 0;
  if (element->m_Attributes == nullptr) ReserveAttributes(element, slots);
  CIMarray* attrs = element->m_Attributes;
  const bool room = attrs != nullptr && attrs->argc < attrs->maxargc;
  const int r = room && AppendAttribute(attrs, id, v + 1, static_cast<size_t>(close - v - 1)) != nullptr
                    ? 0
                    : element->attr_put(id, v + 1);
  *close = '"';
  if (r != 0) {
    TraceError("parseXMLbuffer", "parseXMLbuffer: bad Attribute!");
    return -1;
  }
  *cursor = close + 1;
  return 0;
}

// Each thread keeps its index between parses, so that a small answer makes no allocations
// for it; what a large one needed is given back afterwards.
TagIndex& ThreadIndex() {
  static thread_local TagIndex index;
  return index;
}

// Search engine switch, for the fuzzer to compare the index with the plain search.
bool g_SearchIndex = true;

char* ExactParser::FindClose(char* from, const char* name, size_t nlen, char* limit) {
  return m_Index != nullptr ? m_Index->Find(from, name, nlen, limit) : FindTagName(from, name, nlen);
}

int ExactParser::ParseBuffer(char** cursor, CIMelement* previous, int depth, char* limit) {
  if (cursor == nullptr || *cursor == nullptr) {
    TraceError("findNextElement", "findNextElement: AddressPointer = NULL");
    return -1;
  }
  char* p = *cursor;
  CIMelement* siblingParent = nullptr;
  for (;;) {
    char* content = nullptr;
    char* contentEnd = nullptr;
    if (p[0] != 0 && p[1] == '!') {
      while (std::strncmp(p, "<!--", 4) == 0) {
        char* end = std::strstr(p + 4, "-->");
        if (end == nullptr) {
          TraceError("findNextElement", "findNextElement: missing '-->'");
          return -1;
        }
        p = SkipBlanks(end + 3);
      }
      while (std::strncmp(p, "<![CDATA[", 9) == 0) {
        char* end = std::strstr(p + 9, "]]>");
        if (end == nullptr) {
          TraceError("findNextElement", "findNextElement: missing ']]>'");
          return -1;
        }
        p = SkipBlanks(end + 3);
      }
    }
    if (*p == 0) {
      *cursor = p;
      return E_UNKNOWN;
    }
    if (*p != '<') {
      TraceError("findNextElement", "findNextElement: missing '<' sign at begin.");
      return -1;
    }

    char name[kNameMax + 1];
    size_t nlen = 0;
    char* q = p + 1;
    while (nlen < kNameMax && *q != 0 && !IsBlank(*q) && *q != '/' && *q != '>')
      name[nlen++] = *q++;
    name[nlen] = 0;
    const int id = Elements().Find(name, nlen);
    if (id < 0) {
      TraceError("findNextElement", "findNextElement: Unknown CIM Elementname");
      return -1;
    }

    char* attrText = nullptr;
    char* contentStart = nullptr;
    bool empty = false;
    if (*q == '>') {
      contentStart = SkipBlanks(q + 1);
    } else {
      q = SkipBlanks(q);
      if (q[0] == '/' && q[1] == '>') {
        q[0] = 0;
        p = SkipBlanks(q + 2);
        empty = true;
      } else {
        attrText = q;
        char* gt = FindUnquoted(q, ">", 1);
        if (gt == nullptr) {
          TraceError("findNextElement", "findNextElement: missing according '>' sign!");
          return -1;
        }
        *gt = 0;
        contentStart = SkipBlanks(gt + 1);
        if (gt[-1] == '/' || (name[0] == '?' && gt[-1] == '?')) {
          gt[-1] = 0;
          p = contentStart;
          empty = true;
        }
      }
    }

    if (!empty) {
      int level = 1;
      char* s = contentStart;
      char* closeLt = nullptr;
      char* after = nullptr;
      for (;;) {
        char* m = FindClose(s, name, nlen, limit);
        if (m == nullptr) {
          TraceMissingClose(name);
          return -1;
        }
        after = m + nlen;
        if (m[-2] == '<' && m[-1] == '/') {
          if (*after == '>') {
            if (level == 1) {
              closeLt = m - 2;
              break;
            }
            --level;
          }
        } else if (m[-1] == '<' && (*after == '>' || *after == ' ')) {
          ++level;
        }
        s = after;
      }
      if (closeLt > contentStart) content = contentStart;
      *closeLt = 0;
      contentEnd = closeLt;
      p = SkipBlanks(after + 1);
    }

    if (depth > kMaxDepth) return -1;
    CIMelement* e = AppendElement(m_Tail, previous);
    if (e == nullptr) {
      TraceError("parseXMLbuffer", "parseXMLbuffer: MakeNextElement = NULL!!");
      return -1;
    }
    e->m_Name = known_cim_elements[id];
    if (id == E_ERROR && m_FirstError == nullptr) m_FirstError = e;
    if (siblingParent != nullptr) e->m_Parent = siblingParent;

    if (attrText != nullptr) {
      size_t slots = 0;  // at most one attribute per "="
      for (const char* c = attrText; (c = std::strchr(c, '=')) != nullptr; ++c) ++slots;
      char* a = attrText;
      for (;;) {
        a = SkipBlanks(a);
        if (*a == 0) break;
        if (ParseAttribute(&a, e, slots) < 0) return -1;
      }
    }
    if (e->m_Attributes != nullptr) e->m_Attributes->FreeUnused();
    if (content != nullptr) {
      if (*content != '<') {
        e->m_Value = strdup(content);
      } else {
        char* inner = content;
        if (ParseBuffer(&inner, e, depth + 1, contentEnd) < 0) return -1;
      }
    }

    if (*p == 0) {
      *cursor = p;
      return id;
    }
    siblingParent = e->m_Parent;
    previous = e;
  }
}

// ---------------------------------------------------------------------------------------
// Streaming engine. Works on the caller's text without writing to it, and can take the
// text in pieces: it reads whole units only (a start tag; a value with its close tag; a
// close tag) and stops in front of one that the text so far does not complete. The text
// it is given is always the whole document so far, NUL-terminated at its end. Until it
// has accepted the whole document it traces nothing; when it bails out, the list may be
// partly built and the exact engine has to decide.

class StreamParser {
 public:
  enum Status { kAccepted = 0, kBail = -1, kMore = 1 };

  explicit StreamParser(CIMelement* root) : m_Tail(root) { m_Stack.reserve(32); }
  // For a caller that has found the frame itself: reading starts at "<CIM " at `offset`.
  void StartAt(size_t offset) {
    m_State = kTag;
    m_Pos = offset;
  }
  // Reads on from where the last call stopped; `final`: the text is complete.
  Status Feed(const char* text, size_t size, bool final);
  // Traces owed for unknown attribute names, in document order.
  const std::vector<std::string>& Unknown() const { return m_Unknown; }
  CIMelement* FirstError() const { return m_FirstError; }

 private:
  struct Open {
    CIMelement* element;
    int id;
  };
  struct PendingAttribute {
    int id;
    const char* begin;
    const char* end;
    const char* name;
    size_t nameLen;
  };
  enum State { kFrame, kTag, kContent, kAfter };

  // Where a scan ran into a NUL: the end of the text so far, or a byte of the text.
  static Status AtNul(const char* q, const char* end) { return q == end ? kMore : kBail; }
  // Reads "<NAME ...>" or "<NAME .../>" at p and appends its element.
  Status StartTag(const char*& p, const char* end, CIMelement* parent, int& id, bool& empty);
  static Status CloseOf(const char* p, const char* end, int id, const char*& after) {
    if (p[1] != '/') return p + 1 == end ? kMore : kBail;
    const char* n = known_cim_elements[id];
    const char* q = p + 2;
    while (*n != 0 && *q == *n) ++q, ++n;
    if (*n != 0 || *q != '>') return AtNul(q, end);
    after = q + 1;
    return kAccepted;
  }
  bool FillAttributes(CIMelement* e);

  CIMelement* m_Tail;
  CIMelement* m_FirstError = nullptr;
  State m_State = kFrame;
  size_t m_Pos = 0;       // where the next unit starts
  size_t m_Scanned = 0;   // content bytes of the current unit already seen to be plain text
  int m_Current = 0;      // element whose content comes next (kContent)
  std::vector<Open> m_Stack;
  std::vector<PendingAttribute> m_Attrs;
  std::vector<std::string> m_Unknown;
  unsigned short m_OpenCount[E_UNKNOWN + 1] = {};
};

StreamParser::Status StreamParser::StartTag(const char*& p, const char* end, CIMelement* parent,
                                            int& id, bool& empty) {
  const char* q = p + 1;
  const char* n = q;
  while (!IsBlank(*q) && *q != 0 && *q != '/' && *q != '>') {
    if (q - n >= static_cast<long>(kNameMax)) return kBail;
    ++q;
  }
  if (*q == 0) return AtNul(q, end);
  id = Elements().Find(n, static_cast<size_t>(q - n));
  // "?xml" inside a document, and any tag inside one of the same name (whose close-tag
  // search counts depth by its own rules), are left to the exact engine.
  if (id <= E_XML || m_OpenCount[id] != 0) return kBail;

  empty = false;
  m_Attrs.clear();
  if (*q != '>') {
    q = SkipBlanks(q);
    for (;;) {
      if (*q == '>') break;
      if (*q == 0) return AtNul(q, end);
      if (*q == '/') {
        if (q[1] != '>') return AtNul(q + 1, end);
        empty = true;
        ++q;
        break;
      }
      const char* an = q;
      for (;; ++q) {
        const char c = *q;
        if (c == '=') break;
        if (c == 0) return AtNul(q, end);
        if (IsBlank(c) || c == '"' || c == '\'' || c == '<' || c == '>' || c == '/') return kBail;
      }
      const size_t alen = static_cast<size_t>(q - an);
      const char* v = SkipBlanks(q + 1);
      if (*v != '"') return AtNul(v, end);
      const char* close = v + 1;
      while (*close != '"') {
        if (*close == 0) return AtNul(close, end);
        ++close;
      }
      m_Attrs.push_back({AttributeId(an, alen), v + 1, close, an, alen});
      q = SkipBlanks(close + 1);
    }
  }

  // The whole tag is there: only now does the list change.
  CIMelement* e = AppendElement(m_Tail, parent);
  if (e == nullptr) return kBail;
  e->m_Name = known_cim_elements[id];
  if (id == E_ERROR && m_FirstError == nullptr) m_FirstError = e;
  if (!m_Attrs.empty()) {
    for (const PendingAttribute& a : m_Attrs)
      if (a.id == A_UNKNOWN) m_Unknown.emplace_back(a.name, a.nameLen);
    if (!FillAttributes(e)) return kBail;
  }
  p = q + 1;
  return kAccepted;
}

// Builds, in one go, the array that attr_put per attribute followed by FreeUnused would
// leave: exactly sized, entries in order, each "id+1, text, NUL" in its own malloc block.
// The array is new and not yet shared, so its lock is not needed; this is the parser's
// hottest allocation path. A failed allocation bails out: the exact engine then runs
// into it again and traces it.
bool StreamParser::FillAttributes(CIMelement* e) {
  auto* attrs = new CIMarray;
  e->m_Attributes = attrs;
  const size_t count = m_Attrs.size();
  attrs->argv = static_cast<char**>(std::malloc(count * sizeof(char*)));
  if (attrs->argv == nullptr) return false;
  attrs->maxargc = count;
  for (const PendingAttribute& a : m_Attrs)
    if (AppendAttribute(attrs, a.id, a.begin, static_cast<size_t>(a.end - a.begin)) == nullptr)
      return false;
  m_Attrs.clear();
  return true;
}

// A unit longer than this that the text does not complete yet is left to the read of the
// whole text: rescanning it for every piece would grow with its square.
constexpr size_t kMaxPendingUnit = 1 << 20;

StreamParser::Status StreamParser::Feed(const char* text, size_t size, bool final) {
  const char* const end = text + size;
  const char* p = text + m_Pos;
  Status s = kAccepted;
  for (;;) {
    s = kAccepted;
    switch (m_State) {
      case kFrame: {
        // The frame search of the exact engine, on the text so far: a match it finds is
        // the one the whole text gives, as every byte before it was complete.
        const char* decl = FindUnquoted(text, "<?xml ", 6);
        const char* cim = decl ? FindUnquoted(decl, "<CIM ", 5) : nullptr;
        if (cim == nullptr) {
          if (final || size > kMaxPendingUnit / 16) return kBail;
          return kMore;
        }
        p = cim;
        m_State = kTag;
        break;
      }
      case kTag: {
        if (p[1] == 0) {
          s = AtNul(p + 1, end);
          break;
        }
        if (p[1] == '/' || p[1] == '!' || p[1] == '?') return kBail;
        if (m_Stack.size() >= static_cast<size_t>(kMaxDepth)) return kBail;
        CIMelement* parent = m_Stack.empty() ? nullptr : m_Stack.back().element;
        int id = 0;
        bool empty = false;
        s = StartTag(p, end, parent, id, empty);
        if (s != kAccepted) break;
        m_Current = id;
        m_Scanned = 0;
        m_State = empty ? kAfter : kContent;
        break;
      }
      case kContent: {
        const char* c = SkipBlanks(p);
        const char* after = nullptr;
        if (*c == 0) {
          s = AtNul(c, end);
          break;
        }
        if (*c == '<') {
          if (c[1] != '/') {
            if (c[1] == 0) {
              s = AtNul(c + 1, end);
              break;
            }
            m_Stack.push_back({m_Tail, m_Current});
            ++m_OpenCount[m_Current];
            p = c;
            m_State = kTag;
            break;
          }
          s = CloseOf(c, end, m_Current, after);
          if (s != kAccepted) break;
          p = after;
          m_State = kAfter;
          break;
        }
        const char* t = c + m_Scanned;
        for (;; ++t) {
          const char ch = *t;
          if (ch == '<') break;
          if (ch == 0 || ch == '"' || ch == '\'') break;
        }
        if (*t != '<') {
          s = *t == 0 ? AtNul(t, end) : kBail;
          m_Scanned = static_cast<size_t>(t - c);
          break;
        }
        s = CloseOf(t, end, m_Current, after);
        if (s != kAccepted) {
          m_Scanned = static_cast<size_t>(t - c);
          break;
        }
        const size_t len = static_cast<size_t>(t - c);
        char* value = static_cast<char*>(std::malloc(len + 1));
        if (value == nullptr) return kBail;
        std::memcpy(value, c, len);
        value[len] = 0;
        m_Tail->m_Value = value;
        p = after;
        m_State = kAfter;
        break;
      }
      case kAfter: {
        // Behind a finished element: close the open ones whose close tags follow.
        p = SkipBlanks(p);
        if (m_Stack.empty()) {
          if (*p != 0) return kBail;
          if (p < end || final) return kAccepted;
          s = kMore;
          break;
        }
        if (*p != '<') {
          s = *p == 0 ? AtNul(p, end) : kBail;
          break;
        }
        if (p[1] != '/') {
          if (p[1] == 0) {
            s = AtNul(p + 1, end);
            break;
          }
          m_State = kTag;
          break;
        }
        const char* after = nullptr;
        s = CloseOf(p, end, m_Stack.back().id, after);
        if (s != kAccepted) break;
        --m_OpenCount[m_Stack.back().id];
        m_Stack.pop_back();
        p = after;
        break;
      }
    }
    if (s == kBail) return kBail;
    if (s == kMore) {
      if (final || static_cast<size_t>(end - p) > kMaxPendingUnit) return kBail;
      m_Pos = static_cast<size_t>(p - text);
      return kMore;
    }
  }
}

namespace {
void Accepted(const StreamParser& stream, CIMelement** firstError) {
  for (const std::string& name : stream.Unknown()) TraceUnknownAttribute(name.c_str());
  *firstError = stream.FirstError();
}
}  // namespace

// The whole read: frame search, then the streaming engine when allowed, else (or when it
// bails out) the exact engine on a private copy. Both engines only ever append, so the
// first ERROR element they make is the first in list order; *firstError gets it (or null),
// sparing the caller a walk over a list that may hold millions of nodes.
int Parse(CIMelement* root, const std::string& text, bool allowStream, CIMelement** firstError) {
  CIMelement* unused = nullptr;
  if (firstError == nullptr) firstError = &unused;
  *firstError = nullptr;
  root->eclean();
  const char* src = text.c_str();
  const char* decl = FindUnquoted(src, "<?xml ", 6);
  if (decl == nullptr) return 1001;
  const char* cim = FindUnquoted(decl, "<CIM ", 5);
  if (cim == nullptr) return 1001;

  if (allowStream) {
    StreamParser stream(root);
    stream.StartAt(static_cast<size_t>(cim - src));
    if (stream.Feed(src, text.size(), true) == StreamParser::kAccepted) {
      Accepted(stream, firstError);
      g_Streamed.fetch_add(1, std::memory_order_relaxed);
      return 0;
    }
    root->eclean();
  }

  g_Exact.fetch_add(1, std::memory_order_relaxed);
  const size_t size = std::strlen(src);
  std::unique_ptr<char, void (*)(void*)> copy(static_cast<char*>(std::malloc(size + 1)), std::free);
  if (copy == nullptr) return 1001;
  std::memcpy(copy.get(), src, size + 1);
  char* cursor = copy.get() + (cim - src);
  TagIndex* index = nullptr;
  if (g_SearchIndex) {
    try {
      if (ThreadIndex().Build(copy.get(), cursor, size)) index = &ThreadIndex();
    } catch (const std::bad_alloc&) {  // the plain search needs no memory
    }
  }
  ExactParser exact(root, index);
  const int r = exact.ParseBuffer(&cursor, root, 1, copy.get() + size);
  if (index != nullptr) index->Trim();
  *firstError = exact.FirstError();  // a failed parse keeps what it built, ERROR included
  return r == E_CIM ? 0 : 1001;
}

int Parse(CIMelement* root, const std::string& text, bool allowStream) {
  return Parse(root, text, allowStream, nullptr);
}

// ---------------------------------------------------------------------------------------
// Reading a body while it arrives.

struct BodyReader::Engine {
  explicit Engine(CIMelement* root) : stream(root) {}
  StreamParser stream;
};

BodyReader::BodyReader(CIMelement* root, size_t step) : m_Root(root), m_Step(step) {}

BodyReader::~BodyReader() { delete m_Engine; }

void BodyReader::Feed(const std::string& body) noexcept {
  if (m_GaveUp || body.size() - m_Fed < m_Step) return;
  m_Fed = body.size();
  try {
    if (m_Engine == nullptr) {
      m_Root->eclean();
      m_Engine = new Engine(m_Root);
    }
    if (m_Engine->stream.Feed(body.c_str(), body.size(), false) != StreamParser::kMore)
      GiveUp();
  } catch (...) {
    GiveUp();
  }
}

void BodyReader::GiveUp() noexcept {
  m_GaveUp = true;
  delete m_Engine;
  m_Engine = nullptr;
  m_Root->eclean();
}

int BodyReader::Finish(const std::string& body, CIMelement** firstError) {
  if (m_Engine != nullptr && !m_GaveUp) {
    const StreamParser::Status s = m_Engine->stream.Feed(body.c_str(), body.size(), true);
    if (s == StreamParser::kAccepted) {
      CIMelement* unused = nullptr;
      Accepted(m_Engine->stream, firstError ? firstError : &unused);
      g_Incremental.fetch_add(1, std::memory_order_relaxed);
      delete m_Engine;
      m_Engine = nullptr;
      return 0;
    }
  }
  GiveUp();
  return Parse(m_Root, body, true, firstError);
}

}  // namespace codec

ParseRouteCounts ParseRoutes() {
  return {codec::g_Streamed.load(std::memory_order_relaxed),
          codec::g_Incremental.load(std::memory_order_relaxed),
          codec::g_Exact.load(std::memory_order_relaxed)};
}

// ---------------------------------------------------------------------------------------

int CIMelement::ParseCIMXML(const std::string& text) try {
  return codec::Parse(this, text, true);
} catch (...) {
  OX_TRACE_EXCEPTION();
  return 1001;
}

// Appends piece by piece: the same bytes the per-line formats would give, without
// building a temporary string for every line.
int CIMelement::GenerateCIMXML(std::string& out) try {
  CIMelement* last = getLastElement();
  if (IsKind(this, E_CIM)) out.assign("<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n", 40);

  for (CIMelement* e = this; e != nullptr; e = e->m_Next) {
    const char* name = e->m_Name != nullptr ? e->m_Name : "";
    out += '<';
    out += name;
    if (const CIMarray* a = e->m_Attributes) {
      // attr_get by position: stops at the first empty slot or unknown identifier.
      for (unsigned long pos = 0; pos < a->argc; ++pos) {
        const char* entry = a->argv[pos];
        if (entry == nullptr) break;
        const int id = static_cast<unsigned char>(entry[0]) - 1;
        if (id == A_UNKNOWN) break;
        out += ' ';
        out += known_cim_attributes[id];
        out += "=\"";
        out += entry + 1;
        out += '"';
      }
    }
    CIMelement* next = e->m_Next != nullptr ? e->m_Next : this;
    CIMelement* np = next->m_Parent;
    if (np == e) {
      out += ">\n";
      if (e->m_Value != nullptr)
        OX_TRACE(TRACE_ERROR, "GenerateCIMXML: (#PCDATA) not allowed here!");
    } else {
      if (e->m_Value == nullptr) {
        out += "/>\n";
      } else {
        out += '>';
        out += e->m_Value;
        out += "</";
        out += name;
        out += ">\n";
      }
      CIMelement* a = e->m_Parent;
      while (a != nullptr && a != np) {
        out += "</";
        out += a->m_Name != nullptr ? a->m_Name : "";
        out += ">\n";
        a = a->m_Parent;
      }
      if (a == nullptr && np != nullptr) {
        OX_TRACE(TRACE_ERROR, "GenerateCIMXML: bad data in CIMelement found!");
        return 1001;
      }
    }
    if (e == last) return 0;
  }
  return 0;
} catch (...) {
  OX_TRACE_EXCEPTION();
  return 1001;
}

}  // namespace oxCIM
