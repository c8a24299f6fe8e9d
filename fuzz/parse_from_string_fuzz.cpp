// Settings parsing must never crash, must only append, and must report
// failure exactly when it wrote an error line.
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <sstream>
#include <string>

#include "utils/string_pair_list.h"

namespace {

// Collects what the parser writes to std::cerr for the duration of one call.
class CaptureCerr {
 public:
  CaptureCerr() : saved_(std::cerr.rdbuf(captured_.rdbuf())) {}
  ~CaptureCerr() { std::cerr.rdbuf(saved_); }
  std::string Text() const { return captured_.str(); }

 private:
  std::ostringstream captured_;
  std::streambuf* saved_;
};

bool Parse(const std::string& text, utils::StringPairList* list, std::string* errors) {
  CaptureCerr capture;
  bool ok = utils::ParseFromString(text, list);
  *errors = capture.Text();
  return ok;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  utils::StringPairList list;
  list.AddValue("first", "pair");
  std::string errors;
  bool ok = Parse(text, &list, &errors);

  if (ok != errors.empty()) __builtin_trap();
  if (!ok && errors.back() != '\n') __builtin_trap();
  // Without a backslash there is nothing the tokenisers could reject.
  if (!ok && text.find('\\') == std::string::npos) __builtin_trap();

  std::string key, value;
  if (!list.Value(0, &key, &value) || key != "first" || value != "pair") __builtin_trap();
  for (size_t i = 1; list.Value(i, &key, &value); ++i) {
    if (key.empty()) __builtin_trap();
  }

  utils::StringPairList again;
  std::string againErrors;
  if (Parse(text, &again, &againErrors) != ok || again.Size() + 1 != list.Size()) __builtin_trap();
  for (size_t i = 0; i < again.Size(); ++i) {
    std::string k1, v1, k2, v2;
    again.Value(i, &k1, &v1);
    list.Value(i + 1, &k2, &v2);
    if (k1 != k2 || v1 != v2) __builtin_trap();
  }
  return 0;
}
