// A trace scope whose entry line carries details after the usual text:
// "Enter scope `NAME' >>> DETAILS", then "Leave scope `NAME' <<<" on exit.
// The details are formatted only when trace records are written.
#pragma once

#include <ostream>

#include "utils/log.h"

namespace utils {
namespace impl {

class DetailedTraceScope {
 public:
  // describe(std::ostream&) appends the details.
  template <typename Describe>
  DetailedTraceScope(zullog::AbstractLogger* logger, const char* module, const char* name,
                     Describe describe)
      : logger_(logger), module_(module), name_(name) {
    LogLine line(logger_, zullog::SeverityTrace, module_);
    if (!line.Active()) return;
    line.Stream() << "Enter scope `" << name_ << "' >>> ";
    describe(line.Stream());
    line.Finish();
  }
  ~DetailedTraceScope() {
    CORVANE_LOG(logger_, zullog::SeverityTrace, module_) << "Leave scope `" << name_ << "' <<<";
  }
  DetailedTraceScope(const DetailedTraceScope&) = delete;
  DetailedTraceScope& operator=(const DetailedTraceScope&) = delete;

 private:
  zullog::AbstractLogger* logger_;
  const char* module_;
  const char* name_;
};

}  // namespace impl
}  // namespace utils
