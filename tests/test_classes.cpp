// Element tree, class list and argument arrays of the object model.
#include <oxCIM.h>

#include <gtest/gtest.h>

#include "../Src/oxInternal.h"
#include "TestSupport.h"

#include <cstring>
#include <string>
#include <utility>
#include <thread>
#include <vector>

using namespace oxCIM;

namespace {

enum { kIRetVal = 20, kInstName = 17, kKeyBinding = 21, kKeyValue = 22, kValue = 60,
       kProperty = 42, kPropertyArray = 43, kValueRef = 69, kClass = 2 };
enum { aName = 0, aClassName = 7 };

// Appends elements in document order; the parent is given explicitly as a parser would.
struct Builder {
  CIMelement& root;
  CIMelement* last = nullptr;
  CIMelement* add(int id, CIMelement* parent, const char* name = nullptr,
                  const char* value = nullptr) {
    CIMelement* e = last ? last->makeNextElement() : root.makeNextElement();
    e->m_Name = known_cim_elements[id];
    e->m_Parent = parent;
    if (name) e->attr_put(aName, name);
    if (value) e->m_Value = strdup(value);
    return last = e;
  }
};

std::vector<CIMelement*> Nodes(CIMelement* e) {
  std::vector<CIMelement*> v;
  for (; e; e = e->m_Next) v.push_back(e);
  return v;
}

long IndexOf(const std::vector<CIMelement*>& v, const CIMelement* e) {
  for (size_t i = 0; i < v.size(); ++i)
    if (v[i] == e) return static_cast<long>(i);
  return -1;
}

}  // namespace

// Public data: this suite linking against the shared library already proves the export.
TEST(Tables, SizesOrderAndSpellings) {
  EXPECT_EQ(sizeof(known_cim_elements) / sizeof(char*), 71u);
  EXPECT_EQ(sizeof(known_cim_attributes) / sizeof(char*), 34u);
  EXPECT_EQ(sizeof(known_cim_types) / sizeof(char*), 16u);
  EXPECT_EQ(sizeof(known_cim_imethods) / sizeof(char*), 24u);
  for (int i = 2; i <= 69; ++i)
    EXPECT_LT(std::strcmp(known_cim_elements[i - 1], known_cim_elements[i]), 0) << i;
  const std::pair<const char*, const char*> spellings[] = {
      {known_cim_elements[0], "?xml"},           {known_cim_elements[70], "unknown"},
      {known_cim_attributes[0], "NAME"},         {known_cim_attributes[1], "TYPE"},
      {known_cim_attributes[32], "EmbeddedObject"}, {known_cim_attributes[33], "unknown"},
      {known_cim_types[14], "unknown"},          {known_cim_types[15], "reference"},
      {known_cim_imethods[22], "EnumarateQualifiers"}, {known_cim_imethods[23], "unknown"},
      {nsCIMV2, "root/cimv2"}};
  for (auto& [have, want] : spellings) EXPECT_STREQ(have, want);
  EXPECT_EQ(oxCIM::oxCIM.GetNumber(), 300);
  EXPECT_STREQ(oxCIM::oxCIM.GetName(), "oxCIM");
  EXPECT_STREQ(oxCIM::oxCIM.GetVersion(), "P:6.6.11 F:6.6.11");
}

TEST(Attributes, LookupBoundariesAndDuplicates) {
  CIMelement e;
  char* v = nullptr;
  EXPECT_EQ(e.attr_get(0, &v), 33);
  EXPECT_STREQ(v, "?");

  ASSERT_EQ(e.attr_put(aName, "first"), 0);
  ASSERT_EQ(e.attr_put(aName, "second"), 0);
  ASSERT_EQ(e.attr_put(33, ""), 0);
  EXPECT_EQ(e.m_Attributes->elemlen, -2);
  EXPECT_EQ(e.m_Attributes->argv[0][0], 1);  // identifier + 1 in the leading byte
  EXPECT_STREQ(e.attr_find(aName), "first");
  EXPECT_EQ(e.attr_get(1, &v), aName);
  EXPECT_STREQ(v, "second");
  EXPECT_EQ(e.attr_get(2, &v), 33);
  EXPECT_STREQ(v, "");
  v = nullptr;
  EXPECT_EQ(e.attr_get(5, &v), 33);
  EXPECT_STREQ(v, "?");
  EXPECT_EQ(e.attr_get(0, nullptr), 33);

  EXPECT_EQ(e.attr_find_exact(aName, "FIRST"), 0);
  EXPECT_EQ(e.attr_find_exact(aName, "firs"), 1001);
  EXPECT_EQ(e.attr_find_exact(aName, "second"), 1001);  // only the first one counts
  EXPECT_EQ(e.attr_find_exact(aClassName, "first"), 1001);

  CIMelement empty;
  empty.attr_put(aName, "");
  EXPECT_EQ(empty.attr_find_exact(aName, ""), 1001);
  EXPECT_STREQ(empty.attr_find(aName), "");

  oxtest::TraceCapture tc(TRACE_ERROR);
  EXPECT_EQ(empty.attr_put(aName, nullptr), 1001);
  EXPECT_TRUE(tc.has(TRACE_ERROR, "putargv: Exception raised: NULL pointer!!"));
  EXPECT_TRUE(tc.has(TRACE_ERROR, "attr_put: Exception raised: cannot alloc memory!"));
}

TEST(ElementTree, MakeNextElementAppendsAtListEnd) {
  CIMelement root;
  EXPECT_EQ(root.makeNextElement(), &root);  // an empty root is reused
  root.m_Name = known_cim_elements[1];
  CIMelement* a = root.makeNextElement();
  a->m_Name = known_cim_elements[26];
  CIMelement* b = a->makeNextElement();
  b->m_Name = known_cim_elements[54];
  CIMelement* c = root.makeNextElement();  // called on the head, lands behind b
  EXPECT_EQ(b->m_Next, c);
  EXPECT_EQ(c->m_Parent, &root);
  EXPECT_EQ(b->m_Parent, a);
  EXPECT_EQ(c->m_Name, nullptr);

  oxtest::TraceCapture tc(TRACE_ERROR);
  EXPECT_EQ(c->makeNextElement(), c);  // empty tail: reused
  CIMelement hole;
  CIMelement* after = new CIMelement();
  hole.m_Next = after;
  EXPECT_EQ(hole.makeNextElement(), nullptr);
  EXPECT_TRUE(
      tc.has(TRACE_ERROR, "makeNextElement: Exception raised: this->m_Next is already set!"));
}

TEST(ElementTree, LastElementUsesParentAndGrandparentOnly) {
  CIMelement root;
  Builder t{root};
  CIMelement* a = t.add(1, nullptr);
  CIMelement* b = t.add(26, a);
  CIMelement* c = t.add(54, b);
  CIMelement* d = t.add(15, c);  // three levels deep
  CIMelement* f = t.add(26, a);  // directly followed by an element two levels higher
  CIMelement* h = t.add(54, f);
  EXPECT_EQ(c->getLastElement(), d);
  EXPECT_EQ(b->getLastElement(), d);
  EXPECT_EQ(a->getLastElement(), h);
  EXPECT_EQ(h->getLastElement(), h);
  // f's parent is d's great-grandparent, so d's walk runs on to the end of the list.
  EXPECT_EQ(d->getLastElement(), h);
  CIMelement* g = t.add(54, c);
  EXPECT_EQ(d->getLastElement(), h);  // still past f and h: only g (parent c) stops it
  EXPECT_EQ(g->getLastElement(), g);
}

// IRETURNVALUE > INSTANCENAME(A, key Id=1, ref key holding an INSTANCENAME) ; INSTANCENAME(B, key Id=2)
static void BuildInstanceNames(Builder& t) {
  CIMelement* ret = t.add(kIRetVal, nullptr);
  CIMelement* in1 = t.add(kInstName, ret);
  in1->attr_put(aClassName, "A");
  CIMelement* kb = t.add(kKeyBinding, in1, "Id");
  t.add(kKeyValue, kb, nullptr, "1");
  CIMelement* kb2 = t.add(kKeyBinding, in1, "Ref");
  CIMelement* vr = t.add(kValueRef, kb2);
  CIMelement* nested = t.add(kInstName, vr);
  nested->attr_put(aClassName, "Nested");
  CIMelement* nkb = t.add(kKeyBinding, nested, "Id");
  t.add(kKeyValue, nkb, nullptr, "2");
  CIMelement* in2 = t.add(kInstName, ret);
  in2->attr_put(aClassName, "B");
  CIMelement* kb3 = t.add(kKeyBinding, in2, "Id");
  t.add(kKeyValue, kb3, nullptr, "two");
}

TEST(ElementTree, FindElementSkipsNestedMatches) {
  CIMelement root;
  Builder t{root};
  BuildInstanceNames(t);
  CIMelement* first = root.findelement(kInstName, 0);
  CIMelement* second = root.findelement(kInstName, 1);
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_STREQ(first->attr_find(aClassName), "A");
  EXPECT_STREQ(second->attr_find(aClassName), "B");
  EXPECT_EQ(root.findelement(kInstName, 2), nullptr);
  EXPECT_EQ(first->findelement(kInstName, 0), first);  // the start node counts
  EXPECT_EQ(root.findelement(kClass, 0), nullptr);

  // Key lookups: within the instance name only, values compared without case.
  EXPECT_STREQ(first->getValueOf(kKeyBinding, "ID"), "1");
  EXPECT_EQ(first->getValueOf(kKeyBinding, "Ref"), nullptr);  // followed by VALUE.REFERENCE
  EXPECT_EQ(first->getValueOf(kProperty, "Id"), nullptr);
  EXPECT_EQ(root.findInstanceName("Id", "TWO"), second);
  EXPECT_EQ(root.findInstanceName("id", "1"), first);
  // The nested instance name has Id=2 but is never a candidate of its own.
  EXPECT_EQ(root.findInstanceName("Id", "2"), nullptr);
  EXPECT_EQ(second->search_elem(kKeyBinding, "Ref"), nullptr);
}

TEST(ElementTree, PropertyValues) {
  CIMelement root;
  Builder t{root};
  CIMelement* inst = t.add(16, nullptr);
  CIMelement* p = t.add(kProperty, inst, "Caption");
  t.add(kValue, p, nullptr, "disk 0");
  CIMelement* pa = t.add(kPropertyArray, inst, "Sizes");
  CIMelement* va = t.add(61, pa);
  t.add(kValue, va, nullptr, "1");
  t.add(kProperty, inst, "Empty");
  CIMelement* odd = t.add(kProperty, inst, "Odd");
  t.add(kKeyValue, odd, nullptr, "kv");  // only a KEYBINDING takes a KEYVALUE as its value
  EXPECT_EQ(root.getValueOf(kProperty, "Odd"), nullptr);
  EXPECT_STREQ(root.getValueOfProperty("caption"), "disk 0");
  EXPECT_STREQ(root.getValueOf(kProperty, "CAPTION"), "disk 0");
  EXPECT_EQ(root.findProperty("SIZES"), pa);
  EXPECT_EQ(root.getValueOfProperty("Sizes"), nullptr);
  EXPECT_EQ(root.getValueOfProperty("Empty"), nullptr);
  EXPECT_EQ(root.getValueOfProperty("Missing"), nullptr);
  // findProperty runs to the end of the list, beyond the start's subtree.
  EXPECT_EQ(p->m_Next->findProperty("Sizes"), pa);
}

TEST(ElementTree, LongListsAreFreedWithoutRecursion) {
  auto* root = new CIMelement();
  Builder t{*root};
  CIMelement* top = t.add(1, nullptr);
  for (int i = 0; i < 1000000; ++i) t.add(kValue, top, nullptr, "v");
  EXPECT_EQ(root->findelement(kValue, 999999), t.last);
  root->eclean();
  EXPECT_EQ(root->m_Name, nullptr);
  EXPECT_EQ(root->m_Next, nullptr);
  t.last = nullptr;
  for (int i = 0; i < 1000000; ++i) t.add(kValue, nullptr);
  delete root;
}

// Nodes and arrays come from pools: whichever thread frees them, every block comes back.
// (Sanitizer builds bypass the pools; there the sanitizer checks the same.)
TEST(ElementTree, PooledNodesComeBackFromAnyThread) {
  const size_t before = PoolBytesInUse();
  auto build = [](int count) {
    auto* root = new CIMelement();
    Builder t{*root};
    CIMelement* top = t.add(1, nullptr, "top");
    for (int i = 0; i < count; ++i) t.add(kValue, top, "n", "v");
    return root;
  };
  std::vector<CIMelement*> lists;
  for (int i = 0; i < 3; ++i) lists.push_back(build(3000));
  // Freed on other threads, while this one makes new nodes from the same pools.
  std::thread a([&] { CIMclass::kill_element(&lists[0]); delete lists[1]; });
  std::thread b([&] { lists[2]->eclean(); delete lists[2]; });
  CIMelement* fresh = build(5000);
  a.join();
  b.join();
  EXPECT_EQ(lists[0], nullptr);
  EXPECT_EQ(fresh->findelement(kValue, 4999)->attr_find(aName), std::string("n"));
  CIMclass::kill_element(&fresh);
  EXPECT_EQ(PoolBytesInUse(), before);
}

TEST(ElementTree, DeleteElementRelinks) {
  CIMelement root;
  Builder t{root};
  CIMelement* a = t.add(1, nullptr);
  CIMelement* b = t.add(26, a);
  CIMelement* c = t.add(54, b);
  CIMelement* d = t.add(54, b);
  CIMelement* e = t.add(26, a);
  EXPECT_EQ(c->deleteElement(false), b);  // parent is the predecessor
  EXPECT_EQ(b->m_Next, d);
  EXPECT_EQ(e->deleteElement(false), d);  // found by walking from the parent's successor
  EXPECT_EQ(d->m_Next, nullptr);
  t.last = d;
  CIMelement* f = t.add(26, a);
  t.add(54, f);
  CIMelement* g = t.add(26, a);
  EXPECT_EQ(b->deleteElement(true), a);
  EXPECT_EQ(a->m_Next, f);
  EXPECT_EQ(f->deleteElement(true), a);
  EXPECT_EQ(a->m_Next, g);

  auto* lone = new CIMelement();
  Builder u{*lone};
  u.add(1, nullptr);
  u.add(26, lone);
  EXPECT_EQ(lone->deleteElement(true), nullptr);
}

TEST(ElementTree, RedirectChainMovesSubtrees) {
  CIMelement root;
  Builder t{root};
  BuildInstanceNames(t);
  CIMelement* first = root.findelement(kInstName, 0);
  CIMelement* second = root.findelement(kInstName, 1);
  CIMelement* anchor = nullptr;

  EXPECT_EQ(first->redirect_chain(nullptr, true), nullptr);
  EXPECT_EQ(first->redirect_chain(&anchor, true), second);
  EXPECT_EQ(anchor, first);
  EXPECT_EQ(first->m_Parent, nullptr);
  EXPECT_EQ(root.m_Next, second);
  EXPECT_STREQ(first->getValueOf(kKeyBinding, "Id"), "1");  // children came along
  EXPECT_EQ(first->findelement(kInstName, 1), nullptr);     // and the list was cut

  EXPECT_EQ(second->redirect_chain(&anchor, false), nullptr);
  EXPECT_EQ(second->m_Next, nullptr);
  EXPECT_EQ(Nodes(&root).size(), 1u);
  EXPECT_EQ(Nodes(anchor).back(), second);

  oxtest::TraceCapture tc(TRACE_ERROR);
  EXPECT_EQ(first->redirect_chain(&anchor, true), nullptr);
  EXPECT_TRUE(tc.has(TRACE_ERROR, "redirect_chain: redirection doesn't make sense if *adr == this"));
  anchor->eclean();
  delete anchor;
}

TEST(ElementTree, DeepCopyRebuildsParents) {
  CIMelement root;
  Builder t{root};
  BuildInstanceNames(t);
  CIMelement copy(root);
  auto src = Nodes(&root), dst = Nodes(&copy);
  ASSERT_EQ(src.size(), dst.size());
  for (size_t i = 0; i < src.size(); ++i) {
    EXPECT_EQ(dst[i]->m_Name, src[i]->m_Name) << i;
    EXPECT_EQ(IndexOf(dst, dst[i]->m_Parent), IndexOf(src, src[i]->m_Parent)) << i;
    if (src[i]->m_Value) {
      EXPECT_STREQ(dst[i]->m_Value, src[i]->m_Value);
      EXPECT_NE(dst[i]->m_Value, src[i]->m_Value);
    }
    char *sv, *dv;
    EXPECT_EQ(dst[i]->attr_get(0, &dv), src[i]->attr_get(0, &sv));
    EXPECT_STREQ(dv, sv);
  }
  root.eclean();  // the copy owns nothing of the original
  EXPECT_STREQ(copy.findInstanceName("Id", "two")->attr_find(aClassName), "B");

  // Assigning over a filled tree, and from a node inside the target's own list.
  CIMelement* second = copy.findelement(kInstName, 1);
  copy = *second;
  EXPECT_EQ(copy.m_Name, known_cim_elements[kInstName]);
  EXPECT_STREQ(copy.getValueOf(kKeyBinding, "Id"), "two");
  EXPECT_EQ(copy.m_Next->m_Parent, &copy);
}

// INSTANCENAME(CLASSNAME) > KEYBINDING > VALUE.REFERENCE > INSTANCENAME > KEYBINDING > KEYVALUE,
// then a second KEYBINDING of the outer INSTANCENAME.
static CIMelement* BuildNestedRef(Builder& t, int innerFirstAttr) {
  CIMelement* outer = t.add(kInstName, nullptr);
  outer->attr_put(aClassName, "Outer");
  CIMelement* kb = t.add(kKeyBinding, outer, "Ref");
  CIMelement* vr = t.add(kValueRef, kb);
  CIMelement* inner = t.add(kInstName, vr);
  inner->attr_put(innerFirstAttr, "Inner");
  CIMelement* ikb = t.add(kKeyBinding, inner, "Id");
  t.add(kKeyValue, ikb, nullptr, "1");
  t.add(kKeyBinding, outer, "Other");
  return inner;
}

TEST(ElementTree, DeepCopyParentSearchComparesKindAndFirstAttributeId) {
  {
    CIMelement root;
    Builder t{root};
    BuildNestedRef(t, aName);
    CIMelement copy(root);
    EXPECT_EQ(Nodes(&copy).back()->m_Parent, &copy);  // inner's first attribute differs
  }
  CIMelement root;
  Builder t{root};
  CIMelement* inner = BuildNestedRef(t, aClassName);
  CIMelement* ikb = inner->m_Next;
  CIMelement copy;
  copy = root;
  auto dst = Nodes(&copy);
  // The nearest INSTANCENAME with a CLASSNAME first attribute wins: the inner one.
  EXPECT_EQ(dst.back()->m_Parent, dst[3]);

  // Copying from a child: its sibling's parent was not copied.
  CIMelement fromChild;
  {
    oxtest::TraceCapture tc(TRACE_ERROR);
    fromChild = *inner;  // the outer INSTANCENAME's stand-in is the copy's head
    EXPECT_FALSE(tc.has(TRACE_ERROR, "CIMelement::operator=: ERROR: Parent in COPY-Constuctor not found!"));
    fromChild = *ikb;
    EXPECT_TRUE(tc.has(TRACE_ERROR, "CIMelement::operator=: ERROR: Parent in COPY-Constuctor not found!"));
  }
  auto fc = Nodes(&fromChild);
  ASSERT_EQ(fc.size(), 3u);
  EXPECT_EQ(fc[1]->m_Parent, fc[0]);
  EXPECT_EQ(fc[2]->m_Parent, nullptr);
}

TEST(Array, LengthCodesAndGrowth) {
  oxtest::TraceCapture tc(TRACE_ERROR);
  CIMarray a;
  char* s = static_cast<char*>(a.putargv("abc", -1, 15));
  ASSERT_NE(s, nullptr);
  EXPECT_STREQ(s, "abc");
  EXPECT_EQ(a.elemlen, -1);
  EXPECT_EQ(a.maxargc, 16u);
  long x = 7;
  EXPECT_EQ(a.putargv(&x, 8, 15), nullptr);
  EXPECT_TRUE(tc.has(TRACE_ERROR, "putargv: Exception raised: different length of array elements!"));
  EXPECT_EQ(a.argc, 1u);
  EXPECT_EQ(a.putargv(nullptr, -1, 15), nullptr);
  EXPECT_TRUE(tc.has(TRACE_ERROR, "putargv: Exception raised: NULL pointer!!"));
  for (int i = 1; i < 16; ++i) ASSERT_NE(a.putargv("x", -1, 15), nullptr);
  EXPECT_EQ(a.maxargc, 16u);
  ASSERT_NE(a.putargv("seventeenth", -1, 15), nullptr);
  EXPECT_EQ(a.maxargc, 32u);
  EXPECT_EQ(a.argc, 17u);
  for (unsigned long i = a.argc; i < a.maxargc; ++i) EXPECT_EQ(a.argv[i], nullptr);

  EXPECT_EQ(a.setmaxargc(0), 0);
  EXPECT_EQ(a.argv, nullptr);
  EXPECT_EQ(a.elemlen, 0);
  const unsigned char* z = static_cast<unsigned char*>(a.putargv(nullptr, 8, 15));
  ASSERT_NE(z, nullptr);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(z[i], 0);
  EXPECT_EQ(std::memcmp(a.putargv(&x, 8, 15), &x, 8), 0);

  CIMarray lead;
  char* l = static_cast<char*>(lead.putargv("txt", -3, 15));
  EXPECT_STREQ(l + 2, "txt");  // two leading bytes left to the caller
}

TEST(Array, ResizeAndTrim) {
  CIMarray a;
  for (const char* s : {"a", "b", "c", "d"}) a.putargv(s, -1, 15);
  EXPECT_EQ(a.setmaxargc(2), 0);
  EXPECT_EQ(a.argc, 2u);
  EXPECT_EQ(a.maxargc, 2u);
  EXPECT_STREQ(a.argv[1], "b");
  EXPECT_EQ(a.setmaxargc(5), 0);
  EXPECT_EQ(a.argv[4], nullptr);
  EXPECT_EQ(a.elemlen, -1);
  a.putargv("e", -1, 15);
  a.FreeUnused();
  EXPECT_EQ(a.maxargc, 3u);
  EXPECT_STREQ(a.argv[2], "e");
  a.setmaxargc(0);
  a.FreeUnused();
  EXPECT_EQ(a.argv, nullptr);
  EXPECT_EQ(a.maxargc, 0u);
}

TEST(Array, AssignmentCopiesLeadingBytes) {
  CIMelement e;
  e.attr_put(aName, "n");
  e.attr_put(aClassName, "c");
  CIMarray copy;
  copy.putargv("old", -1, 15);
  copy = *e.m_Attributes;
  EXPECT_EQ(copy.elemlen, -2);
  EXPECT_EQ(copy.argc, 2u);
  EXPECT_EQ(copy.maxargc, e.m_Attributes->maxargc);
  EXPECT_EQ(copy.argv[1][0], aClassName + 1);
  EXPECT_STREQ(copy.argv[1] + 1, "c");
  EXPECT_NE(copy.argv[1], e.m_Attributes->argv[1]);

  CIMarray blocks;
  long v[2] = {1, 2};
  blocks.putargv(&v[0], 8, 15);
  blocks.putargv(&v[1], 8, 15);
  CIMarray same(blocks);
  EXPECT_EQ(*reinterpret_cast<long*>(same.argv[1]), 2);
  same = CIMarray();  // an empty source leaves an untyped array
  EXPECT_EQ(same.elemlen, 0);
  EXPECT_NE(same.putargv("t", -1, 15), nullptr);
}

TEST(Array, ConcurrentAppends) {
  CIMarray a;
  a.putargv("entry", -1, 15);  // the length code is fixed before the threads race
  auto work = [&a] {
    for (int i = 0; i < 5000; ++i) a.putargv("entry", -1, 15);
  };
  std::thread t1(work), t2(work);
  t1.join();
  t2.join();
  EXPECT_EQ(a.argc, 10001u);
  for (unsigned long i = 0; i < a.argc; ++i) ASSERT_STREQ(a.argv[i], "entry");
}

TEST(ClassList, LookupIgnoresCaseAndDefaultsNamespace) {
  CIMclass head;
  EXPECT_EQ(head.makeNextClass("CIM_Disk", "root/CIMV2"), &head);
  CIMclass* b = head.makeNextClass("Vendor_Disk", "root/vendor");
  CIMclass* noNs = head.makeNextClass("CIM_Fan", "");
  CIMclass* unnamed = head.makeNextClass(nullptr, "root/cimv2");
  EXPECT_EQ(head.m_Next, b);
  EXPECT_EQ(unnamed->m_Next, nullptr);
  EXPECT_EQ(noNs->m_NameSpace, nullptr);

  EXPECT_EQ(head.findClassName("cim_disk", nullptr), &head);
  EXPECT_EQ(head.findClassName("CIM_DISK", "ROOT/cimv2"), &head);
  EXPECT_EQ(head.findClassName("cim_disk", ""), &head);
  EXPECT_EQ(head.findClassName("vendor_disk", "Root/Vendor"), b);
  EXPECT_EQ(head.findClassName("Vendor_Disk", ""), nullptr);
  EXPECT_EQ(head.findClassName("CIM_Fan", ""), nullptr);
  EXPECT_EQ(head.findClassName("CIM_Dis", nullptr), nullptr);
  EXPECT_EQ(head.findClassName("", nullptr), unnamed);

  unnamed->setClassName("", "");
  EXPECT_EQ(unnamed->m_ClassName, nullptr);
  EXPECT_EQ(unnamed->m_NameSpace, nullptr);
  EXPECT_EQ(head.findClassName(nullptr, nullptr), nullptr);

  head.clsClean();
  EXPECT_EQ(head.m_Next, nullptr);
  EXPECT_EQ(head.m_ClassName, nullptr);
  EXPECT_EQ(head.makeNextClass("X", nullptr), &head);
}

TEST(ClassList, AssignmentCopiesListsOntoHead) {
  CIMclass src;
  CIMclass* n1 = src.makeNextClass("A", "ns");
  CIMclass* n2 = src.makeNextClass("B", "ns");
  CIMclass* n3 = src.makeNextClass("C", "ns");
  for (CIMclass* n : {n1, n2}) {
    n->m_Properties = new CIMelement();
    n->m_Properties->m_Name = known_cim_elements[16];
    n->m_Properties->attr_put(aClassName, n->m_ClassName);
  }
  n1->m_Methods = new CIMelement();
  n1->m_Methods->m_Name = known_cim_elements[27];
  n3->m_InstanceNames = new CIMelement();
  n3->m_InstanceNames->m_Name = known_cim_elements[kInstName];

  CIMclass dst;
  dst.makeNextClass("Stale", "ns")->m_Methods = new CIMelement();
  dst = src;
  std::vector<std::string> names;
  for (CIMclass* n = &dst; n; n = n->m_Next) names.push_back(n->m_ClassName);
  EXPECT_EQ(names, (std::vector<std::string>{"A", "B", "C"}));
  ASSERT_NE(dst.m_Properties, nullptr);
  EXPECT_STREQ(dst.m_Properties->attr_find(aClassName), "B");  // the last source with one
  EXPECT_NE(dst.m_Properties, n2->m_Properties);
  ASSERT_NE(dst.m_Methods, nullptr);
  EXPECT_EQ(dst.m_Methods->m_Name, known_cim_elements[27]);
  ASSERT_NE(dst.m_InstanceNames, nullptr);
  EXPECT_EQ(dst.m_Next->m_Properties, nullptr);
  EXPECT_EQ(dst.m_Next->m_Next->m_InstanceNames, nullptr);

  CIMclass::kill_element(&n1->m_Methods);
  EXPECT_EQ(n1->m_Methods, nullptr);
  CIMclass::kill_element(&n1->m_Methods);
}
