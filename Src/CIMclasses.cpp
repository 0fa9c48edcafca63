// Vocabulary tables, module identity, CIMelement, CIMclass and CIMarray.
#include "oxInternal.h"

#include <atomic>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <mutex>
#include <new>
#include <vector>

namespace oxCIM {

Brix::Misc::CModuleInfo oxCIM(300, "oxCIM", "P:6.6.11 F:6.6.11");

namespace {
// The library is silent unless asked: the mask comes from the environment at load.
struct TraceMaskFromEnvironment {
  TraceMaskFromEnvironment() {
    const char* v = std::getenv("OXCIM_TRACE");
    if (v && *v) oxCIM.SetTraceMask(std::strtoul(v, nullptr, 0));
  }
} traceMaskFromEnvironment;
}  // namespace

int do_cim_debug = 0;
int ListenerThreadIsActive = 0;
const char* const nsCIMV2 = "root/cimv2";

const char* const known_cim_elements[71] = {
    "?xml", "CIM", "CLASS", "CLASSNAME", "CLASSPATH", "DECLARATION", "DECLGROUP",
    "DECLGROUP.WITHNAME", "DECLGROUP.WITHPATH", "ERROR", "EXPMETHODCALL", "EXPMETHODRESPONSE",
    "EXPPARAMVALUE", "HOST", "IMETHODCALL", "IMETHODRESPONSE", "INSTANCE", "INSTANCENAME",
    "INSTANCEPATH", "IPARAMVALUE", "IRETURNVALUE", "KEYBINDING", "KEYVALUE", "LOCALCLASSPATH",
    "LOCALINSTANCEPATH", "LOCALNAMESPACEPATH", "MESSAGE", "METHOD", "METHODCALL",
    "METHODRESPONSE", "MULTIEXPREQ", "MULTIEXPRSP", "MULTIREQ", "MULTIRSP", "NAMESPACE",
    "NAMESPACEPATH", "OBJECTPATH", "PARAMETER", "PARAMETER.ARRAY", "PARAMETER.REFARRAY",
    "PARAMETER.REFERENCE", "PARAMVALUE", "PROPERTY", "PROPERTY.ARRAY", "PROPERTY.REFERENCE",
    "QUALIFIER", "QUALIFIER.DECLARATION", "RESPONSEDESTINATION", "RETURNVALUE", "SCOPE",
    "SIMPLEEXPREQ", "SIMPLEEXPRSP", "SIMPLEREQ", "SIMPLEREQACK", "SIMPLERSP", "TABLE",
    "TABLECELL.DECLARATION", "TABLECELL.REFERENCE", "TABLEROW", "TABLEROW.DECLARATION", "VALUE",
    "VALUE.ARRAY", "VALUE.NAMEDINSTANCE", "VALUE.NAMEDOBJECT", "VALUE.NULL", "VALUE.OBJECT",
    "VALUE.OBJECTWITHLOCALPATH", "VALUE.OBJECTWITHPATH", "VALUE.REFARRAY", "VALUE.REFERENCE",
    "unknown"};

const char* const known_cim_attributes[34] = {
    "NAME", "TYPE", "ARRAYSIZE", "ASSOCIATION", "CELLPOS", "CIMVERSION", "CLASS", "CLASSNAME",
    "CLASSORIGIN", "CODE", "DESCRIPTION", "DTDVERSION", "ID", "INDICATION", "INSTANCEID",
    "ISARRAY", "METHOD", "OVERRIDABLE", "PARAMETER", "PARAMTYPE", "PROPAGATED", "PROPERTY",
    "PROTOCOLVERSION", "REFERENCE", "REFERENCECLASS", "SORTDIR", "SORTPOS", "SUPERCLASS",
    "VALUETYPE", "TOSUBCLASS", "TOINSTANCE", "TRANSLATABLE", "EmbeddedObject", "unknown"};

const char* const known_cim_types[16] = {
    "boolean", "string", "char16", "uint8", "sint8", "uint16", "sint16", "uint32",
    "sint32", "uint64", "sint64", "datetime", "real32", "real64", "unknown", "reference"};

const char* const known_cim_imethods[24] = {
    "GetClass", "GetInstance", "DeleteClass", "DeleteInstance", "CreateClass",
    "CreateInstance", "ModifyClass", "ModifyInstance", "EnumerateClasses",
    "EnumerateClassNames", "EnumerateInstances", "EnumerateInstanceNames", "ExecQuery",
    "Associators", "AssociatorNames", "References", "ReferenceNames", "GetProperty",
    "SetProperty", "GetQualifier", "SetQualifier", "DeleteQualifier", "EnumarateQualifiers",
    "unknown"};

bool EqualNoCase(const char* a, const char* b) {
  if (a == nullptr || b == nullptr) return false;
  for (;; ++a, ++b) {
    const int ca = std::toupper(static_cast<unsigned char>(*a));
    const int cb = std::toupper(static_cast<unsigned char>(*b));
    if (ca != cb) return false;
    if (ca == 0) return true;
  }
}

// ---------------------------------------------------------------------------------------
// Node pools. A large answer makes hundreds of thousands of elements and attribute arrays;
// taken one by one from malloc they cost much of the parse and of the free, and far more
// on a heap that other code has fragmented. Blocks come from 64 KiB slabs, each with a
// bitmap of its free blocks. A thread takes blocks from one slab in address order, so a
// tree is built, walked and freed in memory order whatever order its nodes were freed
// in; a block may be freed by any thread (one atomic bit). Slabs stay with the pool for
// the life of the process. Sanitizer builds use the global heap, so that every misuse of
// a node is still caught.

#ifndef OXCIM_POOL
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define OXCIM_POOL 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define OXCIM_POOL 0
#endif
#endif
#endif
#ifndef OXCIM_POOL
#define OXCIM_POOL 1
#endif

namespace {

template <size_t kSize>
class SlabPool {
 public:
  static void* Take() {
    for (;;) {
      if (Slab* s = t_Current) {
        for (size_t w = t_Word; w < kWords; ++w) {
          uint64_t bits = s->free[w].load(std::memory_order_relaxed);
          while (bits != 0) {
            const uint64_t bit = bits & (~bits + 1);
            const uint64_t old = s->free[w].fetch_and(~bit, std::memory_order_acquire);
            if (old & bit) {
              t_Word = w;
              return reinterpret_cast<char*>(s) + kHeader +
                     (w * 64 + static_cast<size_t>(__builtin_ctzll(bit))) * kSize;
            }
            bits = old & ~bit;
          }
        }
      }
      NextSlab();
    }
  }

  static void Give(void* block) {
    const uintptr_t at = reinterpret_cast<uintptr_t>(block);
    Slab* s = reinterpret_cast<Slab*>(at & ~static_cast<uintptr_t>(kSlabBytes - 1));
    const size_t index = (at - reinterpret_cast<uintptr_t>(s) - kHeader) / kSize;
    s->free[index / 64].fetch_or(uint64_t{1} << (index % 64), std::memory_order_release);
  }

  static size_t InUse() {
    std::lock_guard<std::mutex> lock(s_Lock);
    size_t used = 0;
    for (Slab* s : Slabs()) used += kBlocks - FreeBlocks(s);
    return used * kSize;
  }

 private:
  static constexpr size_t kSlabBytes = 64 * 1024;
  static constexpr size_t kHeader = 256;
  static constexpr size_t kBlocks = (kSlabBytes - kHeader) / kSize;
  static constexpr size_t kWords = (kBlocks + 63) / 64;
  static_assert(kWords * sizeof(uint64_t) <= kHeader, "bitmap fits the slab header");

  struct Slab {
    std::atomic<uint64_t> free[kWords];  // a set bit: that block is free
  };

  static size_t FreeBlocks(Slab* s) {
    size_t n = 0;
    for (size_t w = 0; w < kWords; ++w)
      n += static_cast<size_t>(__builtin_popcountll(s->free[w].load(std::memory_order_relaxed)));
    return n;
  }

  // Never destroyed: blocks may be freed during static destruction.
  static std::vector<Slab*>& Slabs() {
    static std::vector<Slab*>* slabs = new std::vector<Slab*>;
    return *slabs;
  }

  // Moves this thread on to a slab with a fair share of free blocks (so that a nearly
  // full slab is not visited again and again), or to a new one.
  static void NextSlab() {
    std::lock_guard<std::mutex> lock(s_Lock);
    std::vector<Slab*>& slabs = Slabs();
    for (size_t i = 0; i < slabs.size(); ++i) {
      t_Cursor = (t_Cursor + 1) % slabs.size();
      Slab* s = slabs[t_Cursor];
      if (s != t_Current && FreeBlocks(s) >= kBlocks / 8) {
        t_Current = s;
        t_Word = 0;
        return;
      }
    }
    void* memory = std::aligned_alloc(kSlabBytes, kSlabBytes);
    if (memory == nullptr) throw std::bad_alloc();
    Slab* s = new (memory) Slab;
    for (size_t w = 0; w < kWords; ++w) {
      const size_t left = kBlocks - w * 64;
      s->free[w].store(left >= 64 ? ~uint64_t{0} : (uint64_t{1} << left) - 1,
                       std::memory_order_relaxed);
    }
    slabs.push_back(s);
    t_Cursor = slabs.size() - 1;
    t_Current = s;
    t_Word = 0;
  }

  static std::mutex s_Lock;
  static thread_local Slab* t_Current;
  static thread_local size_t t_Word;    // first bitmap word that may still hold a free bit
  static thread_local size_t t_Cursor;  // where the search for the next slab goes on
};

template <size_t kSize> std::mutex SlabPool<kSize>::s_Lock;
template <size_t kSize> thread_local typename SlabPool<kSize>::Slab* SlabPool<kSize>::t_Current = nullptr;
template <size_t kSize> thread_local size_t SlabPool<kSize>::t_Word = 0;
template <size_t kSize> thread_local size_t SlabPool<kSize>::t_Cursor = 0;

template <typename T>
using PoolFor = SlabPool<(sizeof(T) + 7) / 8 * 8>;

template <typename T>
void* PoolNew(std::size_t size) {
#if OXCIM_POOL
  if (size == sizeof(T)) return PoolFor<T>::Take();
#endif
  return ::operator new(size);
}

template <typename T>
void PoolDelete(void* block, [[maybe_unused]] std::size_t size) noexcept {
  if (block == nullptr) return;
#if OXCIM_POOL
  if (size == sizeof(T)) return PoolFor<T>::Give(block);
#endif
  ::operator delete(block);
}

}  // namespace

size_t PoolBytesInUse() {
#if OXCIM_POOL
  return PoolFor<CIMelement>::InUse() + PoolFor<CIMarray>::InUse();
#else
  return 0;
#endif
}

void* CIMarray::operator new(std::size_t size) { return PoolNew<CIMarray>(size); }
void CIMarray::operator delete(void* block, std::size_t size) noexcept {
  PoolDelete<CIMarray>(block, size);
}
void* CIMelement::operator new(std::size_t size) { return PoolNew<CIMelement>(size); }
void CIMelement::operator delete(void* block, std::size_t size) noexcept {
  PoolDelete<CIMelement>(block, size);
}

// ---------------------------------------------------------------------------------------
// CIMarray

CIMarray::CIMarray() : argv(nullptr), elemlen(0), argc(0), maxargc(0) { m_Lock.Init(1000); }

CIMarray::CIMarray(const CIMarray& other) : argv(nullptr), elemlen(0), argc(0), maxargc(0) {
  m_Lock.Init(1000);
  *this = other;
}

// Nobody may use an array while it is destroyed, so the lock is not taken: freeing a large
// tree destroys one array per element.
CIMarray::~CIMarray() {
  for (unsigned long i = 0; i < argc; ++i) std::free(argv[i]);
  std::free(argv);
}

int CIMarray::setmaxargc(unsigned long n) {
  Brix::Threading::CSyncGuard guard(m_Lock);
  for (unsigned long i = argc; i > n; --i) {
    std::free(argv[i - 1]);
    argv[i - 1] = nullptr;
  }
  if (argc > n) argc = n;
  if (n == 0) {
    std::free(argv);
    argv = nullptr;
    maxargc = 0;
    elemlen = 0;
    return 0;
  }
  if (n != maxargc) {
    void* grown = std::realloc(argv, n * sizeof(char*));
    if (grown == nullptr) {
      OX_TRACE(TRACE_ERROR, "cannot alloc memory!");
      return 1001;
    }
    argv = static_cast<char**>(grown);
    for (unsigned long i = maxargc; i < n; ++i) argv[i] = nullptr;
    maxargc = n;
  }
  return 0;
}

void CIMarray::FreeUnused() {
  if (setmaxargc(argc) != 0) OX_TRACE(TRACE_ERROR, "FreeUnused: cannot alloc memory!");
}

void* CIMarray::putargv(const void* data, long len, long grow) {
  bool locked = false;
  try {
    if (data == nullptr && len < 1) throw "NULL pointer!!";
    if (elemlen == 0)
      elemlen = len;
    else if (elemlen != len)
      throw "different length of array elements!";

    size_t size;
    size_t offset;
    if (len < 0) {
      size = std::strlen(static_cast<const char*>(data)) + static_cast<size_t>(-len);
      offset = static_cast<size_t>(-len - 1);
    } else {
      size = static_cast<size_t>(len);
      offset = 0;
    }

    m_Lock.Enter();
    locked = true;
    if (argc + 1 > maxargc) {
      const unsigned long slots = argc + static_cast<unsigned long>(grow > 0 ? grow : 0) + 1;
      void* grown = std::realloc(argv, slots * sizeof(char*));
      if (grown == nullptr) throw "cannot realloc array!";
      argv = static_cast<char**>(grown);
      for (unsigned long i = maxargc; i < slots; ++i) argv[i] = nullptr;
      maxargc = slots;
    }
    char* block = static_cast<char*>(std::malloc(size ? size : 1));
    if (block == nullptr) throw "cannot alloc array!";
    argv[argc++] = block;
    if (data != nullptr)
      std::memcpy(block + offset, data, size - offset);
    else
      std::memset(block + offset, 0, size - offset);
    m_Lock.Leave();
    return block;
  } catch (...) {
    if (locked) m_Lock.Leave();
    OX_TRACE_EXCEPTION();
    return nullptr;
  }
}

CIMarray& CIMarray::operator=(const CIMarray& other) try {
  if (this == &other) return *this;
  if (setmaxargc(0) != 0 || setmaxargc(other.maxargc) != 0 || other.argc == 0) return *this;
  const long code = other.elemlen;
  for (unsigned long i = 0; i < other.argc; ++i) {
    const char* entry = other.argv[i];
    if (code >= -1) {
      putargv(entry, code, 15);
    } else {
      // The leading bytes are the owner's (e.g. attribute ids): the text goes behind them.
      const size_t lead = static_cast<size_t>(-code - 1);
      char* block = static_cast<char*>(putargv(entry ? entry + lead : nullptr, code, 15));
      if (block != nullptr) std::memcpy(block, entry, lead);
    }
  }
  return *this;
} catch (...) {
  OX_TRACE_EXCEPTION();
  return *this;
}

// ---------------------------------------------------------------------------------------
// CIMelement

CIMelement::CIMelement()
    : m_Name(nullptr), m_Parent(nullptr), m_Value(nullptr), m_Attributes(nullptr),
      m_Next(nullptr) {}

CIMelement::CIMelement(const CIMelement& other)
    : m_Name(nullptr), m_Parent(nullptr), m_Value(nullptr), m_Attributes(nullptr),
      m_Next(nullptr) {
  *this = other;
}

CIMelement::~CIMelement() { eclean(); }

void CIMelement::eclean() {
  // Iterative on purpose: lists hold millions of nodes.
  CIMelement* node = this;
  while (node != nullptr) {
    CIMelement* next = node->m_Next;
    node->m_Name = nullptr;
    node->m_Next = nullptr;
    node->m_Parent = nullptr;
    std::free(node->m_Value);
    node->m_Value = nullptr;
    delete node->m_Attributes;
    node->m_Attributes = nullptr;
    if (node != this) delete node;
    node = next;
  }
}

CIMelement* CIMelement::makeNextElement() {
  try {
    CIMelement* node = this;
    if (m_Name != nullptr) {
      CIMelement* last = this;
      while (last->m_Next != nullptr) last = last->m_Next;
      node = new CIMelement();
      last->m_Next = node;
      node->m_Parent = this;
    }
    if (node->m_Next != nullptr) throw "this->m_Next is already set!";
    return node;
  } catch (...) {
    OX_TRACE_EXCEPTION();
    return nullptr;
  }
}

CIMelement* CIMelement::getLastElement() {
  const CIMelement* parent = m_Parent;
  const CIMelement* grand = parent != nullptr ? parent->m_Parent : nullptr;
  CIMelement* last = this;
  for (CIMelement* node = m_Next; node != nullptr; node = node->m_Next) {
    if (node->m_Parent == parent || node->m_Parent == grand) break;
    last = node;
  }
  return last;
}

int CIMelement::attr_get(unsigned long position, char** value) {
  if (value == nullptr) return A_UNKNOWN;
  *value = const_cast<char*>("?");
  const CIMarray* a = m_Attributes;
  if (a == nullptr || position >= a->argc || a->argv[position] == nullptr) return A_UNKNOWN;
  *value = a->argv[position] + 1;
  return static_cast<unsigned char>(a->argv[position][0]) - 1;
}

char* CIMelement::attr_find(int attrId) {
  if (m_Attributes == nullptr) return nullptr;
  for (unsigned long i = 0; i < m_Attributes->argc; ++i) {
    char* entry = m_Attributes->argv[i];
    if (entry != nullptr && static_cast<unsigned char>(entry[0]) - 1 == attrId) return entry + 1;
  }
  return nullptr;
}

int CIMelement::attr_find_exact(int attrId, const char* text) {
  if (text == nullptr || *text == '\0') return 1001;
  const char* mine = attr_find(attrId);
  if (mine == nullptr) return 1001;
  return EqualNoCase(mine, text) ? 0 : 1001;
}

int CIMelement::attr_put(int attrId, const char* text) {
  try {
    if (m_Attributes == nullptr) m_Attributes = new CIMarray();
    char* block = static_cast<char*>(m_Attributes->putargv(text, -2, 15));
    if (block == nullptr) throw "cannot alloc memory!";
    block[0] = static_cast<char>(attrId + 1);
    return 0;
  } catch (...) {
    OX_TRACE_EXCEPTION();
    return 1001;
  }
}

CIMelement* CIMelement::findelement(int elemId, int index) {
  if (elemId < 0 || elemId > E_UNKNOWN) return nullptr;
  int found = 0;
  CIMelement* node = this;
  while (node != nullptr) {
    if (IsKind(node, elemId)) {
      if (found++ == index) return node;
      // Matches nested in a match are not counted.
      node = node->getLastElement()->m_Next;
    } else {
      node = node->m_Next;
    }
  }
  return nullptr;
}

CIMelement* CIMelement::search_elem(int elemId, const char* name) {
  if (elemId < 0 || elemId > E_UNKNOWN) return nullptr;
  const CIMelement* end = getLastElement()->m_Next;
  for (CIMelement* node = this; node != nullptr && node != end; node = node->m_Next) {
    if (IsKind(node, elemId) && node->attr_find_exact(A_NAME, name) == 0) return node;
  }
  return nullptr;
}

char* CIMelement::getValueOf(int elemId, const char* name) {
  CIMelement* found = search_elem(elemId, name);
  if (found == nullptr || found->m_Next == nullptr) return nullptr;
  CIMelement* after = found->m_Next;
  if (IsKind(after, E_VALUE)) return after->m_Value;
  if (elemId == E_KEYBINDING && IsKind(after, E_KEYVALUE)) return after->m_Value;
  return nullptr;
}

CIMelement* CIMelement::findInstanceName(const char* keyName, const char* keyValue) {
  // One walk visits the same INSTANCENAMEs, in the same order, as findelement(17, 0, 1, ...).
  CIMelement* node = this;
  while (node != nullptr) {
    if (IsKind(node, E_INSTANCENAME)) {
      const char* v = node->getValueOf(E_KEYBINDING, keyName);
      if (v != nullptr && EqualNoCase(v, keyValue)) return node;
      node = node->getLastElement()->m_Next;
    } else {
      node = node->m_Next;
    }
  }
  return nullptr;
}

CIMelement* CIMelement::findProperty(const char* name) {
  for (CIMelement* node = this; node != nullptr; node = node->m_Next) {
    if ((IsKind(node, E_PROPERTY) || IsKind(node, E_PROPERTY_ARRAY) ||
         IsKind(node, E_PROPERTY_REFERENCE)) &&
        node->attr_find_exact(A_NAME, name) == 0)
      return node;
  }
  return nullptr;
}

char* CIMelement::getValueOfProperty(const char* name) {
  CIMelement* p = findProperty(name);
  if (p == nullptr || !IsKind(p->m_Next, E_VALUE)) return nullptr;
  return p->m_Next->m_Value;
}

namespace {
// The node whose m_Next is `node`, searched from its parent; null without a parent.
CIMelement* PredecessorOf(CIMelement* node) {
  CIMelement* parent = node->m_Parent;
  if (parent == nullptr) return nullptr;
  if (parent->m_Next == node) return parent;
  for (CIMelement* p = parent->m_Next; p != nullptr; p = p->m_Next)
    if (p->m_Next == node) return p;
  return nullptr;
}
}  // namespace

CIMelement* CIMelement::deleteElement(bool withSubtree) {
  CIMelement* last = withSubtree ? getLastElement() : this;
  CIMelement* pred = PredecessorOf(this);
  if (pred != nullptr) pred->m_Next = last->m_Next;
  last->m_Next = nullptr;
  eclean();
  delete this;
  return pred;
}

CIMelement* CIMelement::redirect_chain(CIMelement** anchor, bool keepChildren) {
  if (anchor == nullptr) return nullptr;
  if (*anchor == this) {
    OX_TRACE(TRACE_ERROR, "redirect_chain: redirection doesn't make sense if *adr == this");
    return nullptr;
  }
  CIMelement* last = getLastElement();
  CIMelement* rest = last->m_Next;
  last->m_Next = nullptr;
  if (m_Parent != nullptr) {
    CIMelement* pred = PredecessorOf(this);
    if (pred != nullptr) pred->m_Next = rest;
  }
  if (!keepChildren && m_Next != nullptr) {
    CIMelement* children = m_Next;
    m_Next = nullptr;
    delete children;  // frees the run up to `last`, which ends the cut list
  }
  m_Parent = nullptr;
  if (*anchor == nullptr) {
    *anchor = this;
  } else {
    CIMelement* tail = *anchor;
    while (tail->m_Next != nullptr) tail = tail->m_Next;
    tail->m_Next = this;
  }
  return rest;
}

namespace {
int FirstAttributeId(CIMelement* e) {
  char* unused = nullptr;
  return e->attr_get(0, &unused);
}
}  // namespace

CIMelement& CIMelement::operator=(const CIMelement& source) try {
  if (this == &source) return *this;
  // Cleaning this list first would free a source that lives inside it: copy via a temporary.
  for (const CIMelement* n = m_Next; n != nullptr; n = n->m_Next) {
    if (n == &source) {
      CIMelement copy(source);
      eclean();
      m_Name = copy.m_Name;
      m_Value = copy.m_Value;
      m_Attributes = copy.m_Attributes;
      m_Next = copy.m_Next;
      for (CIMelement* c = m_Next; c != nullptr; c = c->m_Next)
        if (c->m_Parent == &copy) c->m_Parent = this;
      copy.m_Value = nullptr;
      copy.m_Attributes = nullptr;
      copy.m_Next = nullptr;
      return *this;
    }
  }

  eclean();
  CIMelement* target = this;
  const CIMelement* src = &source;
  for (;;) {
    // A target reused by makeNextElement (empty source node) may already hold data.
    std::free(target->m_Value);
    target->m_Value = nullptr;
    delete target->m_Attributes;
    target->m_Attributes = nullptr;
    target->m_Name = src->m_Name;
    if (src->m_Value != nullptr) target->m_Value = strdup(src->m_Value);
    if (src->m_Attributes != nullptr) {
      target->m_Attributes = new CIMarray();
      *target->m_Attributes = *src->m_Attributes;
    }
    if (src->m_Next == nullptr) break;

    CIMelement* next = target->makeNextElement();
    if (next == nullptr) break;
    target = next;
    CIMelement* wanted = src->m_Next->m_Parent;
    if (wanted == nullptr) {
      target->m_Parent = nullptr;
    } else {
      const int wantedAttr = FirstAttributeId(wanted);
      CIMelement* candidate = target->m_Parent;
      while (candidate != nullptr) {
        target->m_Parent = candidate;
        if (candidate->m_Name == wanted->m_Name && FirstAttributeId(candidate) == wantedAttr)
          break;
        candidate = candidate->m_Parent;
      }
      if (candidate == nullptr) {
        target->m_Parent = nullptr;
        OX_TRACE_FN(TRACE_ERROR, "CIMelement::operator=",
                    "CIMelement::operator=: ERROR: Parent in COPY-Constuctor not found!");
      }
    }
    src = src->m_Next;
  }
  return *this;
} catch (...) {
  OX_TRACE_EXCEPTION();
  return *this;
}

// ---------------------------------------------------------------------------------------
// CIMclass

CIMclass::CIMclass() { clsInit(); }

CIMclass::~CIMclass() { clsClean(); }

void CIMclass::clsInit() {
  m_ClassName = nullptr;
  m_NameSpace = nullptr;
  m_InstanceNames = nullptr;
  m_Properties = nullptr;
  m_Methods = nullptr;
  m_Next = nullptr;
}

void CIMclass::setClassName(const char* className, const char* nameSpace) {
  std::free(m_ClassName);
  std::free(m_NameSpace);
  m_ClassName = (className != nullptr && *className != '\0') ? strdup(className) : nullptr;
  m_NameSpace = (nameSpace != nullptr && *nameSpace != '\0') ? strdup(nameSpace) : nullptr;
}

CIMclass* CIMclass::makeNextClass(const char* className, const char* nameSpace) try {
  CIMclass* node = this;
  if (m_ClassName != nullptr) {
    CIMclass* last = this;
    while (last->m_Next != nullptr) last = last->m_Next;
    node = new CIMclass();
    last->m_Next = node;
  }
  node->setClassName(className, nameSpace);
  return node;
} catch (...) {
  OX_TRACE_EXCEPTION();
  return nullptr;
}

CIMclass* CIMclass::findClassName(const char* className, const char* nameSpace) {
  const char* ns = (nameSpace != nullptr && *nameSpace != '\0') ? nameSpace : nsCIMV2;
  const bool noName = className == nullptr || *className == '\0';
  for (CIMclass* node = this; node != nullptr; node = node->m_Next) {
    if (node->m_NameSpace == nullptr || !EqualNoCase(node->m_NameSpace, ns)) continue;
    if (node->m_ClassName == nullptr) {
      if (noName) return node;
    } else if (EqualNoCase(node->m_ClassName, className)) {
      return node;
    }
  }
  return nullptr;
}

void CIMclass::kill_element(CIMelement** list) {
  if (list == nullptr || *list == nullptr) return;
  (*list)->eclean();
  (*list)->eclean();
  delete *list;
  *list = nullptr;
}

void CIMclass::clsClean() {
  CIMclass* node = this;
  while (node != nullptr) {
    CIMclass* next = node->m_Next;
    std::free(node->m_ClassName);
    std::free(node->m_NameSpace);
    node->m_ClassName = nullptr;
    node->m_NameSpace = nullptr;
    node->m_Next = nullptr;
    kill_element(&node->m_InstanceNames);
    kill_element(&node->m_Properties);
    kill_element(&node->m_Methods);
    if (node != this) delete node;
    node = next;
  }
}

CIMclass& CIMclass::operator=(const CIMclass& other) try {
  if (this == &other) return *this;
  clsClean();
  for (const CIMclass* src = &other; src != nullptr; src = src->m_Next) {
    makeNextClass(src->m_ClassName, src->m_NameSpace);
    // The copies land on the head; a later node's copy replaces (and frees) an earlier one.
    for (CIMelement* CIMclass::*list :
         {&CIMclass::m_InstanceNames, &CIMclass::m_Properties, &CIMclass::m_Methods}) {
      if (src->*list == nullptr) continue;
      CIMelement* copy = new CIMelement();
      *copy = *(src->*list);
      kill_element(&(this->*list));
      this->*list = copy;
    }
  }
  return *this;
} catch (...) {
  OX_TRACE_EXCEPTION();
  return *this;
}

}  // namespace oxCIM
