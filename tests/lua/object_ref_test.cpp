#include "lua/object_ref.h"

#include <functional>
#include <map>
#include <string>
#include <vector>

#include <boost/pointer_cast.hpp>

#include "lua/script_test_util.h"

namespace {

using lua::ObjectRef;
using lua::RunTime;
using lua::TableRef;
using lua_test::ThrownText;

boost::shared_ptr<TableRef> Table(const boost::shared_ptr<RunTime>& rt, const std::string& expression) {
  auto value = rt->RunString("return " + expression, false).front();
  return boost::dynamic_pointer_cast<TableRef>(value);
}

TEST(HandleValidity, OnlySlotsHoldingTheSameValueAreValid) {
  auto rt = RunTime::Create();
  rt->CreateAtStack(1);
  for (int index : {0, 2, -2}) {
    EXPECT_EQ(ThrownText([&] { rt->ObjectAtStack(index); }),
              "ObjectAtStack(): invalid stack index: " + std::to_string(index));
  }
  EXPECT_EQ(rt->ObjectAtStack(-1)->StackIndex(), 1);  // made absolute
  EXPECT_EQ(ThrownText([&] { TableRef(rt, 1); }), "TableRef(): create TableRef from non-table value");

  // A popped and refilled slot is detected.
  rt->PopFromStack(1);
  auto table = rt->CreateTableAtStack();
  auto asObject = rt->ObjectAtStack(1);
  ASSERT_TRUE(boost::dynamic_pointer_cast<TableRef>(asObject));
  EXPECT_EQ(asObject->AsTableRef()->AsPointer(), table->AsPointer());
  rt->PopFromStack(1);
  EXPECT_FALSE(table->IsValid());
  rt->CreateTableAtStack();
  EXPECT_FALSE(table->IsValid());  // same type, another identity
  EXPECT_EQ(ThrownText([&] { asObject->AsTableRef(); }), "Invalid reference");
  EXPECT_EQ(ThrownText([&] { asObject->Check(LUA_TTABLE, "custom"); }), "custom");

  rt->PopFromStack(1);
  auto number = rt->CreateAtStack(5);
  rt->PopFromStack(1);
  rt->CreateAtStack(6);
  EXPECT_TRUE(number->IsValid());  // values without identity are not told apart
  EXPECT_EQ(table->TypeName(), "number");
}

TEST(Conversions, FollowTheStoredTypeWithoutCoercion) {
  auto rt = RunTime::Create();
  RunTime::StackCleaner cleaner(rt);
  const std::pair<const char*, const char*> cases[] = {
      {"5", "5 0"},
      {"2.5", "2.5 0"},
      {"true", "true 0"},
      {"nil", "nil 0"},
      {"'abc'", "abc 3"},
      {"setmetatable({}, {__len = function() return 9 end, __tostring = function() return 'T' end})", "T 9"}};
  for (const auto& [expression, expected] : cases) {
    auto value = rt->RunString(std::string("return ") + expression, false).front();
    EXPECT_EQ(value->AsString() + " " + std::to_string(value->Len()), expected) << expression;
  }
  auto text = rt->CreateAtStack("12");
  EXPECT_EQ(ThrownText([&] { text->AsInteger(); }), "Invalid reference");
  EXPECT_EQ(ThrownText([&] { text->AsBool(); }), "Invalid reference");
  auto real = rt->CreateAtStack(2.5);
  EXPECT_EQ(real->AsInteger(), 0);
  EXPECT_FALSE(real->IsInteger());
  EXPECT_DOUBLE_EQ(real->AsReal(), 2.5);
  EXPECT_TRUE(rt->CreateAtStack(3LL)->IsInteger());
  EXPECT_EQ(rt->CreateAtStack(std::string("a\0b", 3))->AsString(), "a");  // pushed as a C string
  int marker = 0;
  EXPECT_EQ(rt->CreateAtStack(static_cast<void*>(&marker))->AsPointer(), &marker);
  const int top = rt->StackTopIndex();
  text->AsString();
  EXPECT_EQ(rt->StackTopIndex(), top);
}

TEST(TableAccess, RawReadsAddOneSlotAndWritesHonourMetamethods) {
  auto rt = RunTime::Create();
  RunTime::StackCleaner cleaner(rt);
  rt->RunString("log = {}", false);
  auto table = Table(rt, "setmetatable({a = 1}, {__index = function() return 'meta' end,"
                         " __newindex = function(t, k, v) log[#log + 1] = k rawset(t, k, v) end})");
  ASSERT_TRUE(table);

  const int top = rt->StackTopIndex();
  auto key = rt->CreateAtStack("a");
  auto value = (*table)[key];  // key on top: its slot turns into the value
  EXPECT_EQ(rt->StackTopIndex(), top + 1);
  EXPECT_EQ(value->StackIndex(), key->StackIndex());
  EXPECT_EQ(value->AsInteger(), 1);
  auto other = rt->CreateAtStack(1);
  rt->CreateAtStack(99);
  EXPECT_EQ((*table)[other]->StackIndex(), top + 4);  // key not on top: copied first
  EXPECT_TRUE(table->Get("missing")->IsNil());        // raw: __index not consulted

  const int before = rt->StackTopIndex();
  table->Set("b", 2);
  table->Append(std::string("x"));
  table->Append(true);
  table->Erase(rt->CreateAtStack("a"));
  EXPECT_EQ(rt->StackTopIndex(), before + 1);  // only Erase's own key remains
  EXPECT_TRUE(table->Get("a")->IsNil());
  EXPECT_EQ(table->Get(2)->AsBool(), true);
  EXPECT_EQ(rt->RunString("return table.concat(log, ',')", false).front()->AsString(), "b,1,2");

  EXPECT_TRUE(rt->CreateTableAtStack()->Empty());
  EXPECT_FALSE(table->Empty());
  rt->PopFromStack(rt->StackTopIndex() - table->StackIndex() + 1);
  rt->CreateAtStack(1);
  EXPECT_EQ(ThrownText([&] { table->Get("a"); }), "Invalid reference");  // never a raw read of a number
}

// Writes, lengths and texts run metamethods, unprotected when the host calls
// them directly: a raising one is then a panic that the host gets as an
// exception, never an abort. Inside a native function it is a script error.
TEST(TableAccess, RaisingMetamethodsPanicInTheHostAndFailTheCallInAFunction) {
  const std::string meta = "setmetatable({}, {__newindex = fail, __len = fail, __tostring = fail})";
  using Handle = boost::shared_ptr<TableRef>;
  const std::vector<std::function<void(const Handle&)>> operations = {[](const Handle& t) { t->Set("k", 1); },
                                                                      [](const Handle& t) { t->Len(); },
                                                                      [](const Handle& t) { t->AsString(); }};
  for (const auto& operation : operations) {
    for (bool inFunction : {false, true}) {
      auto rt = RunTime::Create();
      RunTime::StackCleaner cleaner(rt);
      lua::NativeFunction call = [&](boost::shared_ptr<RunTime>& inner,
                                     const std::vector<boost::shared_ptr<ObjectRef>>& args) {
        operation(args[0]->AsTableRef());
        return inner->VoidResult();
      };
      rt->SetGlobalObject("call", rt->CreateAtStack(call));
      rt->RunString("function fail() error('meta failed', 0) end", true);
      if (inFunction) {
        EXPECT_EQ(rt->RunString("return select(2, pcall(call, " + meta + "))", false).front()->AsString(),
                  "meta failed");
        EXPECT_EQ(rt->RunString("return 6 * 7", false).front()->AsInteger(), 42);
      } else {
        EXPECT_THROW(operation(rt->RunString("return " + meta, false).front()->AsTableRef()), lua::RunTimePanic);
      }
      EXPECT_EQ(rt->IsValid(), inFunction);
    }
  }
}

TEST(Iterators, FullWalkVisitsEveryPairAndLeavesTheStackAsItStarted) {
  auto rt = RunTime::Create();
  RunTime::StackCleaner cleaner(rt);
  auto table = Table(rt, "{x = 1, y = 2, 10, 20, nested = {}}");
  const int top = rt->StackTopIndex();
  std::map<std::string, std::string> seen;
  auto it = table->Iterator();
  EXPECT_EQ(ThrownText([&] { it.Key(); }), "Key(): invalid iterator position");
  boost::shared_ptr<ObjectRef> keptKey;
  int keptType = LUA_TNONE;
  while (it.Next()) {
    EXPECT_EQ(it.Key()->StackIndex(), rt->StackTopIndex() - 1);
    EXPECT_TRUE(it.Val()->IsAtStackTop());
    seen[it.Key()->AsString()] = boost::dynamic_pointer_cast<TableRef>(it.Val()) ? "table" : it.Val()->AsString();
    if (!keptKey) {
      keptKey = it.Key();
      keptType = keptKey->Type();
    }
  }
  EXPECT_EQ(rt->StackTopIndex(), top);
  EXPECT_EQ(seen, (std::map<std::string, std::string>{
                      {"1", "10"}, {"2", "20"}, {"x", "1"}, {"y", "2"}, {"nested", "table"}}));
  EXPECT_EQ(keptKey->Type(), keptType);  // a handle the caller kept is not rewritten for later keys
  EXPECT_EQ(ThrownText([&] { it.Next(); }), "Next(): invalid iterator position");
  EXPECT_EQ(ThrownText([&] { it.Val(); }), "Val(): invalid iterator position");

  auto empty = rt->CreateTableAtStack()->Iterator();
  EXPECT_FALSE(empty.Next());
  EXPECT_EQ(ThrownText([&] { empty.Next(); }), "Next(): invalid iterator position");

  int count = 0;
  for (auto pushing = table->Iterator(); pushing.Next(); ++count) rt->CreateAtStack(count);  // key, value not on top
  EXPECT_EQ(count, 5);
}

TEST(Iterators, ArrayWalkLeavesOneValuePerElement) {
  auto rt = RunTime::Create();
  RunTime::StackCleaner cleaner(rt);
  auto table = Table(rt, "{10, 20, 30, x = 'ignored'}");
  const int top = rt->StackTopIndex();
  auto it = table->ArrayIterator();
  EXPECT_EQ(ThrownText([&] { it.Index(); }), "Index(): invalid iterator position");
  std::string walk;  // index=value@slot above the start
  boost::shared_ptr<ObjectRef> first;
  while (it.Next()) {
    walk += std::to_string(it.Index()) + "=" + it.Val()->AsString() + "@" +
            std::to_string(it.Val()->StackIndex() - top) + " ";
    if (!first) first = it.Val();
  }
  EXPECT_EQ(walk, "1=10@1 2=20@2 3=30@3 ");
  EXPECT_EQ(rt->StackTopIndex(), top + 3);
  EXPECT_EQ(first->AsInteger(), 10);  // a kept handle is not rewritten for later values
  EXPECT_EQ(ThrownText([&] { it.Val(); }), "Val(): invalid iterator position");
  EXPECT_EQ(ThrownText([&] { it.Next(); }), "Next(): invalid iterator position");

  auto withLen = Table(rt, "setmetatable({}, {__len = function() return 2 end})");
  auto lenWalk = withLen->ArrayIterator();
  ASSERT_TRUE(lenWalk.Next());
  EXPECT_TRUE(lenWalk.Val()->IsNil());  // raw reads of the length __len reports
  EXPECT_TRUE(lenWalk.Next());
  EXPECT_FALSE(lenWalk.Next());

  // The largest length a script can claim must not overflow the walk's end,
  // nor the slot that Append writes.
  auto hugeTable = Table(rt, "setmetatable({5}, {__len = function() return math.maxinteger end})");
  auto huge = hugeTable->ArrayIterator();
  ASSERT_TRUE(huge.Next());
  EXPECT_EQ(huge.Val()->AsInteger(), 5);
  EXPECT_EQ(ThrownText([&] { hugeTable->Append(1); }), "Append(): table length leaves no room");
}

}  // namespace
