// A host program that uses corvane through its installed package.
#include <iostream>

#include "corvane.h"

int main() {
  std::cout << "corvane host example running from " << utils::GetProgramExeDir() << "\n";
  CORVANE_LOG(zul_log_logger__utils(), zullog::SeverityWarning, "example") << "logging works";
  return 0;
}
