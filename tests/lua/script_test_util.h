// Small helpers shared by the script runtime and script library tests.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <gtest/gtest.h>
#include <lua.hpp>

#include "lua/object_ref.h"
#include "lua/runtime.h"
#include "support/shared.h"

namespace lua_test {

// The text of the exception of type E that `f` throws.
template <class E = lua::RunTimeError>
std::string ThrownText(const std::function<void()>& f) {
  try {
    f();
  } catch (const E& e) {
    return e.what();
  }
  return "<nothing thrown>";
}

inline bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

// The first result of a chunk as text; the stack is left as it was.
inline std::string Eval(const boost::shared_ptr<lua::RunTime>& rt, const std::string& code) {
  lua::RunTime::StackCleaner cleaner(rt);
  auto results = rt->RunString(code, false);
  return results.empty() ? "<none>" : results.front()->AsString();
}

// A fresh runtime per test that must end with an empty stack.
class ScriptTest : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_TRUE(rt_->IsStackEmpty()); }
  // All results of a chunk joined by " | ".
  std::string Eval(const std::string& code) {
    lua::RunTime::StackCleaner cleaner(rt_);
    std::string text;
    for (const auto& result : rt_->RunString(code, false)) text += (text.empty() ? "" : " | ") + result->AsString();
    return text;
  }

  boost::shared_ptr<lua::RunTime> rt_ = lua::RunTime::Create();
};

// The shared recording sink, its lines read as "<severity> <text>".
class CaptureSink : public testsupport::RecordingSink {
 public:
  std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    for (const auto& record : Records()) lines.push_back(std::to_string(record.first) + " " + record.second);
    return lines;
  }
};

using testsupport::ScopedEnv;

}  // namespace lua_test
