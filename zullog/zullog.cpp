#include "zullog/zullog.h"

#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace zullog {
namespace {

int LevelFromEnvironment() {
  const char* value = std::getenv("ZULLOG_LEVEL");
  if (value == nullptr || *value == '\0') return SeverityWarning;
  struct Name { const char* name; int level; };
  static const Name kNames[] = {
      {"trace", SeverityTrace}, {"debug", SeverityDebug}, {"info", SeverityInfo},
      {"warning", SeverityWarning}, {"error", SeverityError},
      {"off", SeverityError + 1}};
  for (const Name& n : kNames) {
    if (strcasecmp(value, n.name) == 0) return n.level;
  }
  return SeverityWarning;
}

// Writes "YYYY-MM-DDTHH:MM:SS.mmmZ SEVERITY text\n" with one write() so that
// lines from concurrent threads never interleave.
class StderrLogger : public AbstractLogger {
 public:
  StderrLogger() : level_(LevelFromEnvironment()) {}

  bool IsEnabledFor(int severity) const override { return severity >= level_; }

  void Write(const std::shared_ptr<LogRecord>& record) override {
    if (!record || !IsEnabledFor(record->GetSeverity())) return;
    struct timeval now;
    gettimeofday(&now, nullptr);
    struct tm utc;
    gmtime_r(&now.tv_sec, &utc);
    char stamp[96];
    std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ ",
                  utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour,
                  utc.tm_min, utc.tm_sec, static_cast<int>(now.tv_usec / 1000));
    std::string line = stamp;
    line += SeverityName(record->GetSeverity());
    line += ' ';
    line += record->Text();
    line += '\n';
    const char* p = line.data();
    size_t left = line.size();
    while (left > 0) {
      ssize_t n = ::write(STDERR_FILENO, p, left);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      p += n;
      left -= static_cast<size_t>(n);
    }
  }

 private:
  const int level_;
};

std::atomic<bool> g_forbidden{false};

struct SinkSlot {
  std::mutex mutex;
  std::shared_ptr<AbstractLogger> sink;
  std::shared_ptr<AbstractLogger> fallback = std::make_shared<StderrLogger>();

  std::shared_ptr<AbstractLogger> Get() {
    std::lock_guard<std::mutex> lock(mutex);
    return sink ? sink : fallback;
  }
};

SinkSlot& Slot() {
  // Leaked on purpose: records may be written from static destructors.
  static SinkSlot* slot = new SinkSlot;
  return *slot;
}

// A module logger forwards to whatever sink is current at the time of the call.
class ForwardingLogger : public AbstractLogger {
 public:
  bool IsEnabledFor(int severity) const override {
    if (g_forbidden.load(std::memory_order_relaxed)) return false;
    return Slot().Get()->IsEnabledFor(severity);
  }
  void Write(const std::shared_ptr<LogRecord>& record) override {
    if (g_forbidden.load(std::memory_order_relaxed) || !record) return;
    Slot().Get()->Write(record);
  }
};

}  // namespace

LogRecord::LogRecord(int severity) : severity_(severity) {}
int LogRecord::GetSeverity() const { return severity_; }
std::ostream& LogRecord::Stream() { return text_; }
std::string LogRecord::Text() const { return text_.str(); }

bool IsLoggingForbidden() { return g_forbidden.load(std::memory_order_relaxed); }
void SetLoggingForbidden(bool forbidden) { g_forbidden.store(forbidden); }

void SetSink(std::shared_ptr<AbstractLogger> sink) {
  SinkSlot& slot = Slot();
  std::lock_guard<std::mutex> lock(slot.mutex);
  slot.sink = std::move(sink);
}

const char* SeverityName(int severity) {
  switch (severity) {
    case SeverityTrace: return "TRACE";
    case SeverityDebug: return "DEBUG";
    case SeverityInfo: return "INFO";
    case SeverityWarning: return "WARNING";
    case SeverityError: return "ERROR";
    default: return "LOG";
  }
}

}  // namespace zullog

zullog::AbstractLogger* zul_log_logger__lua() {
  static zullog::AbstractLogger* logger = new zullog::ForwardingLogger;
  return logger;
}

zullog::AbstractLogger* zul_log_logger__utils() {
  static zullog::AbstractLogger* logger = new zullog::ForwardingLogger;
  return logger;
}
