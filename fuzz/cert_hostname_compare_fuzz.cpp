// Certificate name matching: the character walk must agree with a label-wise
// reference (same label count; a '*' keeps the label's prefix before it and
// swallows the rest of the host's label; only more '*' may follow it).
// Input: pattern, NUL, host.
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "utils/net/tls.h"

namespace {

std::vector<std::string> Labels(const std::string& name) {
  std::vector<std::string> labels(1);
  for (char c : name) {
    if (c == '.') {
      labels.emplace_back();
    } else {
      labels.back() += c;
    }
  }
  return labels;
}

bool SameIgnoringCase(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i]))) {
      return false;
    }
  }
  return true;
}

bool ReferenceMatch(const std::string& pattern, const std::string& host) {
  const auto patternLabels = Labels(pattern);
  const auto hostLabels = Labels(host);
  if (patternLabels.size() != hostLabels.size()) return false;
  for (size_t i = 0; i < patternLabels.size(); ++i) {
    const std::string& p = patternLabels[i];
    const std::string& h = hostLabels[i];
    const size_t star = p.find('*');
    if (star == std::string::npos) {
      if (!SameIgnoringCase(p, h)) return false;
      continue;
    }
    if (p.find_first_not_of('*', star) != std::string::npos) return false;
    if (h.size() < star || !SameIgnoringCase(p.substr(0, star), h.substr(0, star))) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const size_t split = input.find('\0');
  const std::string pattern = input.substr(0, split);
  // The host also ends at the next NUL, as a C string would.
  std::string host = split == std::string::npos ? std::string() : input.substr(split + 1);
  host = host.substr(0, host.find('\0'));
  const bool match = utils::CertHostnameCompare(pattern.c_str(), host.c_str(), nullptr);
  if (match != ReferenceMatch(pattern, host)) std::abort();
  return 0;
}
