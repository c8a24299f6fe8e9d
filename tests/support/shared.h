// Support shared by the test suites of every layer: a scratch folder, elapsed
// time, a recording log sink, a scoped environment variable and a child
// process run to completion.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "zullog/zullog.h"

extern char** environ;

namespace testsupport {

// A fresh folder under $TMPDIR (or /tmp), removed with its contents.
class ScratchDir {
 public:
  ScratchDir() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/corvane-test-XXXXXX";
    if (::mkdtemp(&pattern[0]) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::string& Path() const { return path_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline std::string ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline long ElapsedMs(std::chrono::steady_clock::time_point start) {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count());
}

// Keeps the severity and text of every record at or above its level.
class RecordingSink : public zullog::AbstractLogger {
 public:
  explicit RecordingSink(int level = zullog::SeverityTrace) : level_(level) {}
  bool IsEnabledFor(int severity) const override { return severity >= level_; }
  void Write(const std::shared_ptr<zullog::LogRecord>& record) override {
    std::lock_guard<std::mutex> lock(mutex_);
    records_.emplace_back(record->GetSeverity(), record->Text());
  }
  std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    for (const auto& record : Records()) lines.push_back(record.second);
    return lines;
  }
  std::vector<std::pair<int, std::string>> Records() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return records_;
  }

 private:
  int level_;
  mutable std::mutex mutex_;
  std::vector<std::pair<int, std::string>> records_;
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
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_;
  std::string old_;
  bool had_ = false;
};

struct ProcessOutcome {
  int status = -1;  // the exit status; -1 when it did not exit
  std::string out;
  std::string err;
};

// Starts argv (looked up in PATH) with its standard streams on files; an
// empty errPath sends errors to outPath too. posix_spawn rather than fork:
// tests may already run threads. Throws when it cannot start.
inline pid_t StartProcess(const std::vector<std::string>& argv, const std::string& inPath,
                          const std::string& outPath, const std::string& errPath = "", bool append = false) {
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  const int mode = O_WRONLY | O_CREAT | (append ? O_APPEND : O_TRUNC);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, inPath.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), mode, 0644);
  if (errPath.empty()) {
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
  } else {
    posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), mode, 0644);
  }
  pid_t pid = -1;
  const int error = ::posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(error));
  return pid;
}

// Runs argv to its end with `input` on its standard input; the files for the
// streams go in `dir`.
inline ProcessOutcome RunProcess(const std::vector<std::string>& argv, const std::string& input,
                                 const std::string& dir) {
  const std::string inPath = dir + "/stdin", outPath = dir + "/stdout", errPath = dir + "/stderr";
  std::ofstream(inPath, std::ios::binary) << input;
  const pid_t pid = StartProcess(argv, inPath, outPath, errPath);
  ProcessOutcome outcome;
  int status = 0;
  if (::waitpid(pid, &status, 0) == pid && WIFEXITED(status)) outcome.status = WEXITSTATUS(status);
  outcome.out = ReadWholeFile(outPath);
  outcome.err = ReadWholeFile(errPath);
  return outcome;
}

}  // namespace testsupport
