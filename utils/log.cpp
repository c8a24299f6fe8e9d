#include "utils/log.h"

namespace utils {

TraceScope::TraceScope(zullog::AbstractLogger* logger, const char* module, std::string name)
    : logger_(logger), module_(module), name_(std::move(name)) {
  CORVANE_LOG(logger_, zullog::SeverityTrace, module_) << "Enter scope `" << name_ << "' >>>";
}

TraceScope::~TraceScope() {
  CORVANE_LOG(logger_, zullog::SeverityTrace, module_) << "Leave scope `" << name_ << "' <<<";
}

}  // namespace utils
