// Element tree, class list and argument arrays of the object model.
#include <oxCIM.h>

#include <gtest/gtest.h>
#include <malloc.h>

#include "../Src/oxInternal.h"
#include "TestSupport.h"

#include <cstring>
#include <string>
#include <thread>
#include <vector>

using namespace oxCIM;

namespace {

enum { kIRetVal = 20, kInstName = 17, kKeyBinding = 21, kKeyValue = 22, kValue = 60,
       kProperty = 42, kPropertyArray = 43, kValueRef = 69 };
enum { aName = 0, aClassName = 7 };

struct Row {
  int id, parent;  // parent: index of an earlier row, -1 for none
  const char* attr = nullptr;
  const char* value = nullptr;
  int attrId = aName;
};

// Appends the rows in document order behind `v`, parents set explicitly as a parser would.
std::vector<CIMelement*> Tree(CIMelement& root, std::initializer_list<Row> rows,
                              std::vector<CIMelement*> v = {}) {
  for (const Row& r : rows) {
    CIMelement* e = (v.empty() ? &root : v.back())->makeNextElement();
    e->m_Name = known_cim_elements[r.id];
    e->m_Parent = r.parent < 0 ? nullptr : v[r.parent];
    if (r.attr) e->attr_put(r.attrId, r.attr);
    if (r.value) e->m_Value = strdup(r.value);
    v.push_back(e);
  }
  return v;
}

// IRETURNVALUE > INSTANCENAME(A, key Id=1, ref key holding INSTANCENAME Nested Id=2) ; INSTANCENAME(B, Id=two)
std::vector<CIMelement*> InstanceNames(CIMelement& root) {
  return Tree(root, {{kIRetVal, -1}, {kInstName, 0, "A", nullptr, aClassName}, {kKeyBinding, 1, "Id"},
                     {kKeyValue, 2, nullptr, "1"}, {kKeyBinding, 1, "Ref"}, {kValueRef, 4},
                     {kInstName, 5, "Nested", nullptr, aClassName}, {kKeyBinding, 6, "Id"},
                     {kKeyValue, 7, nullptr, "2"}, {kInstName, 0, "B", nullptr, aClassName},
                     {kKeyBinding, 9, "Id"}, {kKeyValue, 10, nullptr, "two"}});
}

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

// `count` VALUE children of `parent` behind `last` (reused when empty); the new last.
CIMelement* Values(CIMelement* last, CIMelement* parent, int count, const char* attr = nullptr) {
  for (int i = 0; i < count; ++i) {
    last = last->makeNextElement();
    last->m_Name = known_cim_elements[kValue];
    last->m_Parent = parent;
    if (attr) last->attr_put(aName, attr);
    last->m_Value = strdup("v");
  }
  return last;
}

const char* kNoParent = "CIMelement::operator=: ERROR: Parent in COPY-Constuctor not found!";

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
      {known_cim_elements[0], "?xml"}, {known_cim_elements[70], "unknown"},
      {known_cim_attributes[0], "NAME"}, {known_cim_attributes[1], "TYPE"},
      {known_cim_attributes[32], "EmbeddedObject"}, {known_cim_attributes[33], "unknown"},
      {known_cim_types[14], "unknown"}, {known_cim_types[15], "reference"},
      {known_cim_imethods[22], "EnumarateQualifiers"}, {known_cim_imethods[23], "unknown"},
      {nsCIMV2, "root/cimv2"}, {oxCIM::oxCIM.GetName(), "oxCIM"},
      {oxCIM::oxCIM.GetVersion(), "P:6.6.11 F:6.6.11"}};
  for (auto& [have, want] : spellings) EXPECT_STREQ(have, want);
  EXPECT_EQ(oxCIM::oxCIM.GetNumber(), 300);
}

TEST(Attributes, LookupBoundariesAndDuplicates) {
  CIMelement e, empty;
  char* v = nullptr;
  EXPECT_EQ(e.attr_get(0, &v), 33);
  EXPECT_STREQ(v, "?");
  for (auto [id, text] : {std::pair<int, const char*>{aName, "first"}, {aName, "second"}, {33, ""}})
    ASSERT_EQ(e.attr_put(id, text), 0);
  EXPECT_EQ(e.m_Attributes->elemlen, -2);
  EXPECT_EQ(e.m_Attributes->argv[0][0], 1);  // identifier + 1 in the leading byte
  EXPECT_STREQ(e.attr_find(aName), "first");
  const std::pair<int, const char*> got[] = {{aName, "second"}, {33, ""}, {33, "?"}};
  for (int i = 1; i <= 3; ++i) {
    v = nullptr;
    EXPECT_EQ(e.attr_get(i == 3 ? 5 : i, &v), got[i - 1].first);
    EXPECT_STREQ(v, got[i - 1].second);
  }
  EXPECT_EQ(e.attr_get(0, nullptr), 33);
  EXPECT_EQ(e.attr_find_exact(aName, "FIRST"), 0);
  EXPECT_EQ(e.attr_find_exact(aName, "firs"), 1001);
  EXPECT_EQ(e.attr_find_exact(aName, "second"), 1001);  // only the first one counts
  EXPECT_EQ(e.attr_find_exact(aClassName, "first"), 1001);
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
  auto n = Tree(root, {{1, -1}, {26, 0}, {54, 1}});
  CIMelement* c = root.makeNextElement();  // called on the head, lands behind the last
  EXPECT_EQ(n[2]->m_Next, c);
  EXPECT_EQ(c->m_Parent, &root);
  EXPECT_EQ(c->m_Name, nullptr);

  oxtest::TraceCapture tc(TRACE_ERROR);
  EXPECT_EQ(c->makeNextElement(), c);  // empty tail: reused
  CIMelement hole;
  hole.m_Next = new CIMelement();
  EXPECT_EQ(hole.makeNextElement(), nullptr);
  EXPECT_TRUE(tc.has(TRACE_ERROR, "makeNextElement: Exception raised: this->m_Next is already set!"));
}

TEST(ElementTree, LastElementUsesParentAndGrandparentOnly) {
  CIMelement root;
  // a > b > c > d (three levels deep), then f (child of a) > h
  auto n = Tree(root, {{1, -1}, {26, 0}, {54, 1}, {15, 2}, {26, 0}, {54, 4}});
  // d's walk: f's parent is d's great-grandparent, so it runs on to the end of the list.
  const std::pair<int, int> lasts[] = {{2, 3}, {1, 3}, {0, 5}, {5, 5}, {3, 5}};
  for (auto [from, last] : lasts) EXPECT_EQ(n[from]->getLastElement(), n[last]) << from;
  n = Tree(root, {{54, 2}}, n);
  EXPECT_EQ(n[3]->getLastElement(), n[5]);  // still past f and h: only g (parent c) stops it
  EXPECT_EQ(n[6]->getLastElement(), n[6]);
}

TEST(ElementTree, DeleteElementRelinks) {
  CIMelement root;
  auto n = Tree(root, {{1, -1}, {26, 0}, {54, 1}, {54, 1}, {26, 0}});  // a b c d e
  EXPECT_EQ(n[2]->deleteElement(false), n[1]);  // parent is the predecessor
  EXPECT_EQ(n[1]->m_Next, n[3]);
  EXPECT_EQ(n[4]->deleteElement(false), n[3]);  // found by walking from the parent's successor
  EXPECT_EQ(n[3]->m_Next, nullptr);
  n.resize(4);
  n = Tree(root, {{26, 0}, {54, 4}, {26, 0}}, n);  // f g h
  EXPECT_EQ(n[1]->deleteElement(true), n[0]);
  EXPECT_EQ(n[0]->m_Next, n[4]);
  EXPECT_EQ(n[4]->deleteElement(true), n[0]);
  EXPECT_EQ(n[0]->m_Next, n[6]);

  auto* lone = new CIMelement();
  Tree(*lone, {{1, -1}, {26, 0}});
  EXPECT_EQ(lone->deleteElement(true), nullptr);
}

TEST(ElementTree, FindElementAndKeysSkipNestedMatches) {
  CIMelement root;
  auto n = InstanceNames(root);
  CIMelement *first = n[1], *second = n[9];
  EXPECT_EQ(root.findelement(kInstName, 0), first);
  EXPECT_EQ(root.findelement(kInstName, 1), second);
  EXPECT_EQ(root.findelement(kInstName, 2), nullptr);
  EXPECT_EQ(first->findelement(kInstName, 0), first);  // the start node counts
  EXPECT_EQ(root.findelement(2, 0), nullptr);
  // Key lookups: within the instance name only, values compared without case.
  EXPECT_STREQ(first->getValueOf(kKeyBinding, "ID"), "1");
  EXPECT_EQ(first->getValueOf(kKeyBinding, "Ref"), nullptr);  // followed by VALUE.REFERENCE
  EXPECT_EQ(first->getValueOf(kProperty, "Id"), nullptr);
  EXPECT_EQ(root.findInstanceName("Id", "TWO"), second);
  EXPECT_EQ(root.findInstanceName("id", "1"), first);
  // The nested instance name has Id=2 but is never a candidate of its own.
  EXPECT_EQ(root.findInstanceName("Id", "2"), nullptr);
  EXPECT_EQ(second->search_elem(kKeyBinding, "Ref"), nullptr);

  CIMelement props;
  auto p = Tree(props, {{16, -1}, {kProperty, 0, "Caption"}, {kValue, 1, nullptr, "disk 0"},
                        {kPropertyArray, 0, "Sizes"}, {61, 3}, {kValue, 4, nullptr, "1"},
                        {kProperty, 0, "Empty"}, {kProperty, 0, "Odd"}, {kKeyValue, 7, nullptr, "kv"}});
  EXPECT_EQ(props.getValueOf(kProperty, "Odd"), nullptr);  // only a KEYBINDING takes a KEYVALUE
  EXPECT_STREQ(props.getValueOfProperty("caption"), "disk 0");
  EXPECT_STREQ(props.getValueOf(kProperty, "CAPTION"), "disk 0");
  EXPECT_EQ(props.findProperty("SIZES"), p[3]);
  for (const char* name : {"Sizes", "Empty", "Missing"}) EXPECT_EQ(props.getValueOfProperty(name), nullptr);
  EXPECT_EQ(p[2]->findProperty("Sizes"), p[3]);  // runs to the end of the list, beyond the subtree
}

TEST(ElementTree, LongListsAreFreedWithoutRecursion) {
  auto* root = new CIMelement();
  CIMelement* top = Tree(*root, {{1, -1}})[0];
  CIMelement* last = Values(top, top, 1000000);
  EXPECT_EQ(root->findelement(kValue, 999999), last);
  root->eclean();
  EXPECT_EQ(root->m_Name, nullptr);
  EXPECT_EQ(root->m_Next, nullptr);
  Values(root, nullptr, 1000000);
  delete root;
}

// Nodes and arrays come from pools: whichever thread frees them, every block comes back.
// (Sanitizer builds bypass the pools; there the sanitizer checks the same.)
TEST(ElementTree, PooledNodesComeBackFromAnyThread) {
  const size_t before = PoolBytesInUse();
  auto build = [](int count) {
    auto* root = new CIMelement();
    CIMelement* top = Tree(*root, {{1, -1, "top"}})[0];
    Values(top, top, count, "n");
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

TEST(ElementTree, RedirectChainMovesSubtrees) {
  CIMelement root;
  auto n = InstanceNames(root);
  CIMelement *first = n[1], *second = n[9], *anchor = nullptr;
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
  InstanceNames(root);
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

  // Assigning over a filled tree from a node inside the target's own list: with
  // children and attributes, then a lone node with a value.
  copy = *copy.findelement(kInstName, 1);
  EXPECT_EQ(copy.m_Name, known_cim_elements[kInstName]);
  EXPECT_STREQ(copy.getValueOf(kKeyBinding, "Id"), "two");
  EXPECT_EQ(copy.m_Next->m_Parent, &copy);
  copy = *Nodes(&copy).back();
  EXPECT_EQ(copy.m_Name, known_cim_elements[kKeyValue]);
  EXPECT_STREQ(copy.m_Value, "two");
  EXPECT_EQ(copy.m_Next, nullptr);
}

TEST(ElementTree, DeepCopyParentSearchComparesKindAndFirstAttributeId) {
  // INSTANCENAME(CLASSNAME) > KEYBINDING > VALUE.REFERENCE > INSTANCENAME > KEYBINDING >
  // KEYVALUE, then a second KEYBINDING of the outer INSTANCENAME.
  auto nested = [](CIMelement& root, int innerAttr) {
    return Tree(root, {{kInstName, -1, "Outer", nullptr, aClassName}, {kKeyBinding, 0, "Ref"},
                       {kValueRef, 1}, {kInstName, 2, "Inner", nullptr, innerAttr},
                       {kKeyBinding, 3, "Id"}, {kKeyValue, 4, nullptr, "1"}, {kKeyBinding, 0, "Other"}});
  };
  {
    CIMelement root;
    nested(root, aName);
    CIMelement copy(root);
    EXPECT_EQ(Nodes(&copy).back()->m_Parent, &copy);  // inner's first attribute differs
  }
  CIMelement root, copy, fromChild;
  auto n = nested(root, aClassName);
  copy = root;
  auto dst = Nodes(&copy);
  EXPECT_EQ(dst.back()->m_Parent, dst[3]);  // the nearest INSTANCENAME with a CLASSNAME first: the inner one

  // Copying from a child: its sibling's parent was not copied.
  oxtest::TraceCapture tc(TRACE_ERROR);
  fromChild = *n[3];  // the outer INSTANCENAME's stand-in is the copy's head
  EXPECT_FALSE(tc.has(TRACE_ERROR, kNoParent));
  fromChild = *n[4];
  EXPECT_TRUE(tc.has(TRACE_ERROR, kNoParent));
  auto fc = Nodes(&fromChild);
  ASSERT_EQ(fc.size(), 3u);
  EXPECT_EQ(fc[1]->m_Parent, fc[0]);
  EXPECT_EQ(fc[2]->m_Parent, nullptr);
}

TEST(Array, LengthCodesAndGrowth) {
  oxtest::TraceCapture tc(TRACE_ERROR);
  CIMarray a, lead, untyped;
  char* s = static_cast<char*>(a.putargv("abc", -1, 15));
  ASSERT_NE(s, nullptr);
  EXPECT_STREQ(s, "abc");
  EXPECT_EQ(a.elemlen, -1);
  EXPECT_EQ(a.maxargc, 16u);
  long x = 7;
  EXPECT_EQ(a.putargv(&x, 8, 15), nullptr);
  EXPECT_TRUE(tc.has(TRACE_ERROR, "putargv: Exception raised: different length of array elements!"));
  EXPECT_EQ(a.argc, 1u);
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
  EXPECT_STREQ(static_cast<char*>(lead.putargv("txt", -3, 15)) + 2, "txt");  // two leading bytes left to the caller
  // Length 0: an empty element, nothing of the data copied, and the array stays untyped.
  EXPECT_NE(untyped.putargv("abc", 0, 15), nullptr);
  EXPECT_EQ(untyped.argc, 1u);
  EXPECT_NE(untyped.putargv("abc", -1, 15), nullptr);
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

  // The elements cut off are freed with the cut (the heap's count; sanitizer builds
  // have their own heap, and their leak check sees the same).
  const size_t inUse = mallinfo2().uordblks;
  {
    CIMarray big;
    const std::string block(5000, 'x');
    for (int i = 0; i < 4; ++i) big.putargv(block.c_str(), -1, 15);
    big.setmaxargc(1);
  }
  EXPECT_LT(mallinfo2().uordblks, inUse + 4000);
}

TEST(Array, AssignmentCopiesLeadingBytes) {
  CIMelement e;
  e.attr_put(aName, "n");
  e.attr_put(aClassName, "c");
  CIMarray copy, blocks;
  copy.putargv("old", -1, 15);
  copy = *e.m_Attributes;
  EXPECT_EQ(copy.elemlen, -2);
  EXPECT_EQ(copy.argc, 2u);
  EXPECT_EQ(copy.maxargc, e.m_Attributes->maxargc);
  EXPECT_EQ(copy.argv[1][0], aClassName + 1);
  EXPECT_STREQ(copy.argv[1] + 1, "c");
  EXPECT_NE(copy.argv[1], e.m_Attributes->argv[1]);

  long v[2] = {1, 2};
  for (long& x : v) blocks.putargv(&x, 8, 15);
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
  const std::tuple<const char*, const char*, CIMclass*> finds[] = {
      {"cim_disk", nullptr, &head}, {"CIM_DISK", "ROOT/cimv2", &head}, {"cim_disk", "", &head},
      {"vendor_disk", "Root/Vendor", b}, {"Vendor_Disk", "", nullptr}, {"CIM_Fan", "", nullptr},
      {"CIM_Dis", nullptr, nullptr}, {"", nullptr, unnamed}};
  for (auto [name, ns, want] : finds) EXPECT_EQ(head.findClassName(name, ns), want) << name;
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
  CIMclass src, dst;
  CIMclass* n[] = {src.makeNextClass("A", "ns"), src.makeNextClass("B", "ns"), src.makeNextClass("C", "ns")};
  auto element = [](int id) {
    auto* e = new CIMelement();
    e->m_Name = known_cim_elements[id];
    return e;
  };
  for (int i : {0, 1}) (n[i]->m_Properties = element(16))->attr_put(aClassName, n[i]->m_ClassName);
  n[0]->m_Methods = element(27);
  n[2]->m_InstanceNames = element(kInstName);
  dst.makeNextClass("Stale", "ns")->m_Methods = element(27);
  dst = src;
  std::vector<std::string> names;
  for (CIMclass* c = &dst; c; c = c->m_Next) names.push_back(c->m_ClassName);
  EXPECT_EQ(names, (std::vector<std::string>{"A", "B", "C"}));
  ASSERT_NE(dst.m_Properties, nullptr);
  EXPECT_STREQ(dst.m_Properties->attr_find(aClassName), "B");  // the last source with one
  EXPECT_NE(dst.m_Properties, n[1]->m_Properties);
  ASSERT_NE(dst.m_Methods, nullptr);
  EXPECT_EQ(dst.m_Methods->m_Name, known_cim_elements[27]);
  ASSERT_NE(dst.m_InstanceNames, nullptr);
  EXPECT_EQ(dst.m_Next->m_Properties, nullptr);
  EXPECT_EQ(dst.m_Next->m_Next->m_InstanceNames, nullptr);

  CIMclass::kill_element(&n[0]->m_Methods);
  EXPECT_EQ(n[0]->m_Methods, nullptr);
  CIMclass::kill_element(&n[0]->m_Methods);
}
