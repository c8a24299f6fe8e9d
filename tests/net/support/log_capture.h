// Captures every log record written while it is installed as the sink.
#pragma once

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "zullog/zullog.h"

namespace nettest {

class LogCapture {
 public:
  LogCapture() : sink_(std::make_shared<Sink>()) { zullog::SetSink(sink_); }
  ~LogCapture() { zullog::SetSink(nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> Lines() const { return sink_->Lines(); }
  // True when some record's text equals line.
  bool Has(const std::string& line) const {
    const auto lines = Lines();
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  }
  // True when some record's text starts with prefix.
  bool HasPrefix(const std::string& prefix) const {
    for (const auto& line : Lines()) {
      if (line.compare(0, prefix.size(), prefix) == 0) return true;
    }
    return false;
  }

 private:
  class Sink : public zullog::AbstractLogger {
   public:
    bool IsEnabledFor(int) const override { return true; }
    void Write(const std::shared_ptr<zullog::LogRecord>& record) override {
      std::lock_guard<std::mutex> lock(mutex_);
      lines_.push_back(record->Text());
    }
    std::vector<std::string> Lines() const {
      std::lock_guard<std::mutex> lock(mutex_);
      return lines_;
    }

   private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
  };

  std::shared_ptr<Sink> sink_;
};

}  // namespace nettest
