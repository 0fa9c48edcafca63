// Element tree, class list and argument arrays of the object model.
#include <gtest/gtest.h>
#include <malloc.h>

#include "../Src/oxInternal.h"
#include "TestSupport.h"

#include <cstring>

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

// (have, want) pairs checked in one go: identities, numbers, texts.
void Same(std::initializer_list<std::pair<const void*, const void*>> pairs) {
  int i = 0;
  for (auto& [have, want] : pairs) EXPECT_EQ(have, want) << "pair " << i++;
}
void Equal(std::initializer_list<std::pair<long, long>> pairs) {
  int i = 0;
  for (auto& [have, want] : pairs) EXPECT_EQ(have, want) << "pair " << i++;
}
void Texts(std::initializer_list<std::pair<const char*, const char*>> pairs) {
  int i = 0;
  for (auto& [have, want] : pairs) EXPECT_STREQ(have, want) << "pair " << i++;
}

const char* kNoParent = "CIMelement::operator=: ERROR: Parent in COPY-Constuctor not found!";

}  // namespace

// Public data: this suite linking against the shared library already proves the export.
TEST(Tables, SizesOrderAndSpellings) {
  Equal({{sizeof(known_cim_elements) / sizeof(char*), 71}, {sizeof(known_cim_attributes) / sizeof(char*), 34},
         {sizeof(known_cim_types) / sizeof(char*), 16}, {sizeof(known_cim_imethods) / sizeof(char*), 24},
         {oxCIM::oxCIM.GetNumber(), 300}});
  for (int i = 2; i <= 69; ++i)
    EXPECT_LT(std::strcmp(known_cim_elements[i - 1], known_cim_elements[i]), 0) << i;
  Texts({{known_cim_elements[0], "?xml"}, {known_cim_elements[70], "unknown"},
         {known_cim_attributes[0], "NAME"}, {known_cim_attributes[1], "TYPE"},
         {known_cim_attributes[32], "EmbeddedObject"}, {known_cim_attributes[33], "unknown"},
         {known_cim_types[14], "unknown"}, {known_cim_types[15], "reference"},
         {known_cim_imethods[22], "EnumarateQualifiers"}, {known_cim_imethods[23], "unknown"},
         {nsCIMV2, "root/cimv2"}, {oxCIM::oxCIM.GetName(), "oxCIM"},
         {oxCIM::oxCIM.GetVersion(), "P:6.6.11 F:6.6.11"}});
}

TEST(Attributes, LookupBoundariesAndDuplicates) {
  CIMelement e, empty;
  char* v = nullptr;
  EXPECT_EQ(e.attr_get(0, &v), 33);
  EXPECT_STREQ(v, "?");
  for (auto [id, text] : {std::pair<int, const char*>{aName, "first"}, {aName, "second"}, {33, ""}})
    ASSERT_EQ(e.attr_put(id, text), 0);
  // Past the end: the unknown identifier and "?".
  for (auto [i, id, text] : {std::tuple<int, int, const char*>{1, aName, "second"}, {2, 33, ""}, {5, 33, "?"}}) {
    v = nullptr;
    EXPECT_EQ(e.attr_get(i, &v), id);
    EXPECT_STREQ(v, text);
  }
  // The identifier + 1 in the leading byte; only the first of two NAMEs counts.
  Equal({{e.m_Attributes->elemlen, -2}, {e.m_Attributes->argv[0][0], 1}, {e.attr_get(0, nullptr), 33},
         {e.attr_find_exact(aName, "FIRST"), 0}, {e.attr_find_exact(aName, "firs"), 1001},
         {e.attr_find_exact(aName, "second"), 1001}, {e.attr_find_exact(aClassName, "first"), 1001}});
  EXPECT_STREQ(e.attr_find(aName), "first");
  empty.attr_put(aName, "");
  EXPECT_EQ(empty.attr_find_exact(aName, ""), 1001);
  EXPECT_STREQ(empty.attr_find(aName), "");

  oxtest::TraceCapture tc(TRACE_ERROR);
  EXPECT_EQ(empty.attr_put(aName, nullptr), 1001);
  EXPECT_TRUE(tc.has(TRACE_ERROR, "putargv: Exception raised: NULL pointer!!"));
  EXPECT_TRUE(tc.has(TRACE_ERROR, "attr_put: Exception raised: cannot alloc memory!"));
}

TEST(ElementTree, MakeNextElementAppendsAtListEnd) {
  CIMelement root, hole;
  EXPECT_EQ(root.makeNextElement(), &root);  // an empty root is reused
  auto n = Tree(root, {{1, -1}, {26, 0}, {54, 1}});
  CIMelement* c = root.makeNextElement();  // called on the head, lands behind the last
  Same({{n[2]->m_Next, c}, {c->m_Parent, &root}, {c->m_Name, nullptr}, {c->makeNextElement(), c}});  // empty tail: reused
  oxtest::TraceCapture tc(TRACE_ERROR);
  hole.m_Next = new CIMelement();
  EXPECT_EQ(hole.makeNextElement(), nullptr);
  EXPECT_TRUE(tc.has(TRACE_ERROR, "makeNextElement: Exception raised: this->m_Next is already set!"));
}

TEST(ElementTree, LastElementUsesParentAndGrandparentOnly) {
  CIMelement root;
  // a > b > c > d (three levels deep), then f (child of a) > h
  auto n = Tree(root, {{1, -1}, {26, 0}, {54, 1}, {15, 2}, {26, 0}, {54, 4}});
  // d's walk: f's parent is d's great-grandparent, so it runs on to the end of the list.
  Same({{n[2]->getLastElement(), n[3]}, {n[1]->getLastElement(), n[3]}, {n[0]->getLastElement(), n[5]},
        {n[5]->getLastElement(), n[5]}, {n[3]->getLastElement(), n[5]}});
  n = Tree(root, {{54, 2}}, n);
  // d still runs past f and h: only g (parent c) stops it.
  Same({{n[3]->getLastElement(), n[5]}, {n[6]->getLastElement(), n[6]}});
}

TEST(ElementTree, DeleteElementRelinks) {
  CIMelement root;
  auto n = Tree(root, {{1, -1}, {26, 0}, {54, 1}, {54, 1}, {26, 0}});  // a b c d e
  // c's predecessor is its parent; e's is found by walking from the parent's successor.
  Same({{n[2]->deleteElement(false), n[1]}, {n[1]->m_Next, n[3]}, {n[4]->deleteElement(false), n[3]},
        {n[3]->m_Next, nullptr}});
  n.resize(4);
  n = Tree(root, {{26, 0}, {54, 4}, {26, 0}}, n);  // f g h
  Same({{n[1]->deleteElement(true), n[0]}, {n[0]->m_Next, n[4]}, {n[4]->deleteElement(true), n[0]},
        {n[0]->m_Next, n[6]}});
  auto* lone = new CIMelement();
  Tree(*lone, {{1, -1}, {26, 0}});
  EXPECT_EQ(lone->deleteElement(true), nullptr);
}

TEST(ElementTree, FindElementAndKeysSkipNestedMatches) {
  CIMelement root, props;
  auto n = InstanceNames(root);
  // The start node counts; key values are compared without case, within the instance name
  // only, and the nested instance name (Id=2) is never a candidate of its own.
  Same({{root.findelement(kInstName, 0), n[1]}, {root.findelement(kInstName, 1), n[9]},
        {root.findelement(kInstName, 2), nullptr}, {n[1]->findelement(kInstName, 0), n[1]},
        {root.findelement(2, 0), nullptr}, {root.findInstanceName("Id", "TWO"), n[9]},
        {root.findInstanceName("id", "1"), n[1]}, {root.findInstanceName("Id", "2"), nullptr},
        {n[9]->search_elem(kKeyBinding, "Ref"), nullptr}});
  // A KEYBINDING followed by VALUE.REFERENCE has no value.
  Texts({{n[1]->getValueOf(kKeyBinding, "ID"), "1"}, {n[1]->getValueOf(kKeyBinding, "Ref"), nullptr},
         {n[1]->getValueOf(kProperty, "Id"), nullptr}});

  auto p = Tree(props, {{16, -1}, {kProperty, 0, "Caption"}, {kValue, 1, nullptr, "disk 0"},
                        {kPropertyArray, 0, "Sizes"}, {61, 3}, {kValue, 4, nullptr, "1"},
                        {kProperty, 0, "Empty"}, {kProperty, 0, "Odd"}, {kKeyValue, 7, nullptr, "kv"}});
  // Only a KEYBINDING takes a KEYVALUE as its value.
  Texts({{props.getValueOf(kProperty, "Odd"), nullptr}, {props.getValueOfProperty("caption"), "disk 0"},
         {props.getValueOf(kProperty, "CAPTION"), "disk 0"}, {props.getValueOfProperty("Sizes"), nullptr},
         {props.getValueOfProperty("Empty"), nullptr}, {props.getValueOfProperty("Missing"), nullptr}});
  // findProperty runs to the end of the list, beyond the start's subtree.
  Same({{props.findProperty("SIZES"), p[3]}, {p[2]->findProperty("Sizes"), p[3]}});
}

TEST(ElementTree, LongListsAreFreedWithoutRecursion) {
  auto* root = new CIMelement();
  CIMelement* top = Tree(*root, {{1, -1}})[0];
  CIMelement* last = Values(top, top, 1000000);
  EXPECT_EQ(root->findelement(kValue, 999999), last);
  root->eclean();
  Same({{root->m_Name, nullptr}, {root->m_Next, nullptr}});
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
  EXPECT_STREQ(fresh->findelement(kValue, 4999)->attr_find(aName), "n");
  CIMclass::kill_element(&fresh);
  EXPECT_EQ(PoolBytesInUse(), before);
}

// The copy owns nothing of the original, which is then cut up by redirect_chain.
TEST(ElementTree, DeepCopyRebuildsParentsAndRedirectChainMovesSubtrees) {
  CIMelement root;
  auto n = InstanceNames(root);
  CIMelement copy(root);
  auto src = Nodes(&root), dst = Nodes(&copy);
  ASSERT_EQ(src.size(), dst.size());
  for (size_t i = 0; i < src.size(); ++i) {
    SCOPED_TRACE(i);
    char *sv, *dv;
    Equal({{IndexOf(dst, dst[i]->m_Parent), IndexOf(src, src[i]->m_Parent)},
           {dst[i]->attr_get(0, &dv), src[i]->attr_get(0, &sv)},
           {dst[i]->m_Value == src[i]->m_Value, src[i]->m_Value == nullptr}});
    Texts({{dst[i]->m_Name, src[i]->m_Name}, {dst[i]->m_Value, src[i]->m_Value}, {dv, sv}});
  }

  CIMelement *first = n[1], *second = n[9], *anchor = nullptr;
  // Children come along, and the list is cut behind them.
  Same({{first->redirect_chain(nullptr, true), nullptr}, {first->redirect_chain(&anchor, true), second},
        {anchor, first}, {first->m_Parent, nullptr}, {root.m_Next, second},
        {first->findelement(kInstName, 1), nullptr}});
  EXPECT_STREQ(first->getValueOf(kKeyBinding, "Id"), "1");
  Same({{second->redirect_chain(&anchor, false), nullptr}, {second->m_Next, nullptr},
        {Nodes(anchor).back(), second}});
  EXPECT_EQ(Nodes(&root).size(), 1u);
  {
    oxtest::TraceCapture tc(TRACE_ERROR);
    EXPECT_EQ(first->redirect_chain(&anchor, true), nullptr);
    EXPECT_TRUE(tc.has(TRACE_ERROR, "redirect_chain: redirection doesn't make sense if *adr == this"));
  }
  anchor->eclean();
  delete anchor;
  root.eclean();
  EXPECT_STREQ(copy.findInstanceName("Id", "two")->attr_find(aClassName), "B");

  // Assigning over a filled tree from a node inside the target's own list: with
  // children and attributes, then a lone node with a value.
  copy = *copy.findelement(kInstName, 1);
  Same({{copy.m_Name, known_cim_elements[kInstName]}, {copy.m_Next->m_Parent, &copy}});
  EXPECT_STREQ(copy.getValueOf(kKeyBinding, "Id"), "two");
  copy = *Nodes(&copy).back();
  Same({{copy.m_Name, known_cim_elements[kKeyValue]}, {copy.m_Next, nullptr}});
  EXPECT_STREQ(copy.m_Value, "two");
}

TEST(ElementTree, DeepCopyParentSearchComparesKindAndFirstAttributeId) {
  // INSTANCENAME(CLASSNAME) > KEYBINDING > VALUE.REFERENCE > INSTANCENAME > KEYBINDING >
  // KEYVALUE, then a second KEYBINDING of the outer INSTANCENAME.
  auto nested = [](CIMelement& root, int innerAttr) {
    return Tree(root, {{kInstName, -1, "Outer", nullptr, aClassName}, {kKeyBinding, 0, "Ref"},
                       {kValueRef, 1}, {kInstName, 2, "Inner", nullptr, innerAttr},
                       {kKeyBinding, 3, "Id"}, {kKeyValue, 4, nullptr, "1"}, {kKeyBinding, 0, "Other"}});
  };
  CIMelement byName, root, copy, fromChild;
  nested(byName, aName);
  CIMelement nameCopy(byName);
  EXPECT_EQ(Nodes(&nameCopy).back()->m_Parent, &nameCopy);  // inner's first attribute differs
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
  Same({{fc[1]->m_Parent, fc[0]}, {fc[2]->m_Parent, nullptr}});
}

TEST(Array, LengthCodesAndGrowth) {
  oxtest::TraceCapture tc(TRACE_ERROR);
  CIMarray a, lead, untyped;
  long x = 7;
  EXPECT_STREQ(static_cast<char*>(a.putargv("abc", -1, 15)), "abc");
  Equal({{a.elemlen, -1}, {a.maxargc, 16}, {a.putargv(&x, 8, 15) == nullptr, 1}, {a.argc, 1}});
  EXPECT_TRUE(tc.has(TRACE_ERROR, "putargv: Exception raised: different length of array elements!"));
  for (int i = 1; i < 16; ++i) ASSERT_NE(a.putargv("x", -1, 15), nullptr);
  EXPECT_EQ(a.maxargc, 16u);
  ASSERT_NE(a.putargv("seventeenth", -1, 15), nullptr);
  Equal({{a.maxargc, 32}, {a.argc, 17}});
  for (unsigned long i = a.argc; i < a.maxargc; ++i) EXPECT_EQ(a.argv[i], nullptr);

  EXPECT_EQ(a.setmaxargc(0), 0);
  Equal({{a.argv == nullptr, 1}, {a.elemlen, 0}});
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
  Equal({{a.setmaxargc(2), 0}, {a.argc, 2}, {a.maxargc, 2}});
  EXPECT_STREQ(a.argv[1], "b");
  Equal({{a.setmaxargc(5), 0}, {a.argv[4] == nullptr, 1}, {a.elemlen, -1}});
  a.putargv("e", -1, 15);
  a.FreeUnused();
  EXPECT_EQ(a.maxargc, 3u);
  EXPECT_STREQ(a.argv[2], "e");
  a.setmaxargc(0);
  a.FreeUnused();
  Equal({{a.argv == nullptr, 1}, {a.maxargc, 0}});

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
  Equal({{copy.elemlen, -2}, {copy.argc, 2}, {copy.maxargc, e.m_Attributes->maxargc},
         {copy.argv[1][0], aClassName + 1}, {copy.argv[1] == e.m_Attributes->argv[1], 0}});
  EXPECT_STREQ(copy.argv[1] + 1, "c");

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
  Same({{head.m_Next, b}, {unnamed->m_Next, nullptr}, {noNs->m_NameSpace, nullptr},
        {head.findClassName("cim_disk", nullptr), &head}, {head.findClassName("CIM_DISK", "ROOT/cimv2"), &head},
        {head.findClassName("cim_disk", ""), &head}, {head.findClassName("vendor_disk", "Root/Vendor"), b},
        {head.findClassName("Vendor_Disk", ""), nullptr}, {head.findClassName("CIM_Fan", ""), nullptr},
        {head.findClassName("CIM_Dis", nullptr), nullptr}, {head.findClassName("", nullptr), unnamed}});
  unnamed->setClassName("", "");
  Same({{unnamed->m_ClassName, nullptr}, {unnamed->m_NameSpace, nullptr},
        {head.findClassName(nullptr, nullptr), nullptr}});
  head.clsClean();
  Same({{head.m_Next, nullptr}, {head.m_ClassName, nullptr}, {head.makeNextClass("X", nullptr), &head}});
}

TEST(ClassList, AssignmentCopiesListsOntoHead) {
  CIMclass src, dst;
  CIMclass* n[] = {src.makeNextClass("A", "ns"), src.makeNextClass("B", "ns"), src.makeNextClass("C", "ns")};
  auto element = [](int id) { return Tree(*new CIMelement(), {{id, -1}})[0]; };
  for (int i : {0, 1}) (n[i]->m_Properties = element(16))->attr_put(aClassName, n[i]->m_ClassName);
  n[0]->m_Methods = element(27);
  n[2]->m_InstanceNames = element(kInstName);
  dst.makeNextClass("Stale", "ns")->m_Methods = element(27);
  dst = src;
  std::vector<std::string> names;
  for (CIMclass* c = &dst; c; c = c->m_Next) names.push_back(c->m_ClassName);
  EXPECT_EQ(names, (std::vector<std::string>{"A", "B", "C"}));
  ASSERT_TRUE(dst.m_Properties && dst.m_Methods && dst.m_InstanceNames);
  EXPECT_STREQ(dst.m_Properties->attr_find(aClassName), "B");  // the last source with one
  EXPECT_NE(dst.m_Properties, n[1]->m_Properties);
  Same({{dst.m_Methods->m_Name, known_cim_elements[27]}, {dst.m_Next->m_Properties, nullptr},
        {dst.m_Next->m_Next->m_InstanceNames, nullptr}});
  CIMclass::kill_element(&n[0]->m_Methods);
  EXPECT_EQ(n[0]->m_Methods, nullptr);
  CIMclass::kill_element(&n[0]->m_Methods);
}
