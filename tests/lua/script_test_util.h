// Small helpers shared by the script runtime and script library tests.
#pragma once

#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <gtest/gtest.h>
#include <lua.hpp>

#include "lua/object_ref.h"
#include "lua/runtime.h"
#include "zullog/zullog.h"

namespace lua_test {

// The text of the RunTimeError that `f` throws.
inline std::string ThrownText(const std::function<void()>& f) {
  try {
    f();
  } catch (const lua::RunTimeError& e) {
    return e.what();
  }
  return "<no RunTimeError>";
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

// All results of a chunk joined by " | ".
inline std::string EvalAll(const boost::shared_ptr<lua::RunTime>& rt, const std::string& code) {
  lua::RunTime::StackCleaner cleaner(rt);
  std::string text;
  for (const auto& result : rt->RunString(code, false)) text += (text.empty() ? "" : " | ") + result->AsString();
  return text;
}

inline void Expose(const boost::shared_ptr<lua::RunTime>& rt, const std::string& name, lua_CFunction f) {
  lua::RunTime::StackCleaner cleaner(rt);
  rt->SetGlobalObject(name, rt->CreateAtStack(f));
}

// A fresh runtime per test that must end with an empty stack.
class ScriptTest : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_TRUE(rt_->IsStackEmpty()); }
  std::string Eval(const std::string& code) { return EvalAll(rt_, code); }

  boost::shared_ptr<lua::RunTime> rt_ = lua::RunTime::Create();
};

// Records "<severity> <text>" of every log record while installed.
class CaptureSink : public zullog::AbstractLogger {
 public:
  bool IsEnabledFor(int) const override { return true; }
  void Write(const std::shared_ptr<zullog::LogRecord>& record) override {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(std::to_string(record->GetSeverity()) + " " + record->Text());
  }
  std::vector<std::string> Lines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

// Sets an environment variable for one scope and puts the old value back.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    const char* old = std::getenv(name);
    had_ = old != nullptr;
    if (had_) old_ = old;
    ::setenv(name, value, 1);
  }
  ~ScopedEnv() { had_ ? ::setenv(name_.c_str(), old_.c_str(), 1) : ::unsetenv(name_.c_str()); }

 private:
  std::string name_;
  std::string old_;
  bool had_ = false;
};

}  // namespace lua_test
