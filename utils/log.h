// The library's record format on top of zullog: every record starts with
// "<module> ", and text is formatted only when the logger accepts the severity.
//
//   CORVANE_LOG(logger, zullog::SeverityInfo, "utils") << "read " << n << " bytes";
//   utils::TraceScope scope(logger, "utils::impl::Socket", "Connect");
//
// A null logger means the module's default (see utils::UtilsLogger).
#pragma once

#include <memory>
#include <ostream>
#include <string>

#include "../zullog/zullog.h"

namespace utils {

// The utilities' default logger when a caller passes null.
inline zullog::AbstractLogger* UtilsLogger(zullog::AbstractLogger* logger = nullptr) {
  return logger != nullptr ? logger : zul_log_logger__utils();
}

// Whether a record of this severity would be written at all.
inline bool LogEnabled(zullog::AbstractLogger* logger, int severity) {
  return logger != nullptr && !zullog::IsLoggingForbidden() && logger->IsEnabledFor(severity);
}

// One record under construction; written when Finish() is called.
class LogLine {
 public:
  LogLine(zullog::AbstractLogger* logger, int severity, const char* module)
      : logger_(logger) {
    if (LogEnabled(logger, severity)) {
      record_ = std::make_shared<zullog::LogRecord>(severity);
      record_->Stream() << '<' << module << "> ";
    }
  }
  LogLine(const LogLine&) = delete;
  LogLine& operator=(const LogLine&) = delete;

  bool Active() const { return record_ != nullptr; }
  std::ostream& Stream() { return record_->Stream(); }
  void Finish() {
    logger_->Write(record_);
    record_.reset();
  }

 private:
  zullog::AbstractLogger* logger_;
  std::shared_ptr<zullog::LogRecord> record_;
};

// Writes "Enter scope `NAME' >>>" now and "Leave scope `NAME' <<<" when it goes
// out of scope, at trace severity.
class TraceScope {
 public:
  TraceScope(zullog::AbstractLogger* logger, const char* module, std::string name);
  ~TraceScope();
  TraceScope(const TraceScope&) = delete;
  TraceScope& operator=(const TraceScope&) = delete;

 private:
  zullog::AbstractLogger* logger_;
  const char* module_;
  std::string name_;
};

}  // namespace utils

// The streamed expression is evaluated only when the record will be written.
#define CORVANE_LOG(logger, severity, module)                                       \
  for (::utils::LogLine corvane_log_line_((logger), (severity), (module));           \
       corvane_log_line_.Active(); corvane_log_line_.Finish())                       \
  corvane_log_line_.Stream()
