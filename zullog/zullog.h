// The logging interface the library writes through: severities, one finished
// record per call, a process-wide sink and the two module loggers.
// Thread-safe: records may be written and the sink replaced from any thread.
#pragma once

#include <memory>
#include <ostream>
#include <sstream>
#include <string>

namespace zullog {

enum Severity : int {
  SeverityTrace = 1,
  SeverityDebug = 2,
  SeverityInfo = 4,
  SeverityWarning = 8,
  SeverityError = 16
};

// One finished record.
class LogRecord {
 public:
  explicit LogRecord(int severity);
  int GetSeverity() const;
  std::ostream& Stream();  // appends text to the record
  std::string Text() const;

 private:
  int severity_;
  std::ostringstream text_;
};

class AbstractLogger {
 public:
  virtual ~AbstractLogger() = default;
  virtual bool IsEnabledFor(int severity) const = 0;
  virtual void Write(const std::shared_ptr<LogRecord>& record) = 0;
};

bool IsLoggingForbidden();
void SetLoggingForbidden(bool forbidden);

// Replaces the process-wide sink that the module loggers forward to;
// nullptr goes back to the default standard-error sink.
void SetSink(std::shared_ptr<AbstractLogger> sink);

// The severity name used by the default sink ("TRACE", "INFO", ...).
const char* SeverityName(int severity);

}  // namespace zullog

zullog::AbstractLogger* zul_log_logger__lua();
zullog::AbstractLogger* zul_log_logger__utils();
