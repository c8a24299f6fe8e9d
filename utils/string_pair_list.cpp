#include "utils/string_pair_list.h"

#include <algorithm>
#include <iostream>

#include <boost/algorithm/string/replace.hpp>
#include <boost/tokenizer.hpp>

#include "utils/strings.h"

namespace utils {

namespace {

using Pair = std::pair<std::string, std::string>;

bool KeyMatches(const std::string& a, const std::string& b, bool ignoreCase) {
  return ignoreCase ? SameIgnoreCase(a, b) : a == b;
}

void Fill(const std::vector<Pair>& pairs, size_t index, std::string* value, size_t* indexOut) {
  if (value != nullptr) *value = pairs[index].second;
  if (indexOut != nullptr) *indexOut = index;
}

using Separator = boost::escaped_list_separator<char>;
using Tokenizer = boost::tokenizer<Separator>;

// Turns one item's pieces into a pair. Adjacent separators leave empty pieces,
// which carry nothing.
void AddItem(const std::string& item, StringPairList* list) {
  std::string key;
  std::string value;
  for (const std::string& piece : Tokenizer(item, Separator("\\", "= \t", "\""))) {
    if (piece.empty()) continue;
    if (key.empty()) {
      key = piece;
    } else {
      if (!value.empty()) value += ' ';
      value += piece;
    }
  }
  if (!key.empty()) list->AddValue(key, value);
}

}  // namespace

void StringPairList::AddValue(const std::string& key, const std::string& value) {
  pairs_.emplace_back(key, value);
}

bool StringPairList::Value(size_t index, std::string* key, std::string* value) const {
  if (index >= pairs_.size()) return false;
  if (key != nullptr) *key = pairs_[index].first;
  if (value != nullptr) *value = pairs_[index].second;
  return true;
}

bool StringPairList::Value(const std::string& key, std::string* value, bool ignoreCase,
                           size_t* index) const {
  for (size_t i = 0; i < pairs_.size(); ++i) {
    if (KeyMatches(pairs_[i].first, key, ignoreCase)) {
      Fill(pairs_, i, value, index);
      return true;
    }
  }
  return false;
}

bool StringPairList::LastValue(const std::string& key, std::string* value, bool ignoreCase,
                               size_t* index) const {
  for (size_t i = pairs_.size(); i-- > 0;) {
    if (KeyMatches(pairs_[i].first, key, ignoreCase)) {
      Fill(pairs_, i, value, index);
      return true;
    }
  }
  return false;
}

bool StringPairList::ValueList(const std::string& key, std::vector<std::string>& values,
                               bool ignoreCase) const {
  bool found = false;
  for (const Pair& pair : pairs_) {
    if (KeyMatches(pair.first, key, ignoreCase)) {
      values.push_back(pair.second);
      found = true;
    }
  }
  return found;
}

std::set<std::string> StringPairList::Keys() const {
  std::set<std::string> keys;
  for (const Pair& pair : pairs_) keys.insert(pair.first);
  return keys;
}

bool StringPairList::Remove(size_t index) {
  if (index >= pairs_.size()) return false;
  pairs_.erase(pairs_.begin() + static_cast<std::ptrdiff_t>(index));
  return true;
}

bool StringPairList::Remove(const std::string& key, bool ignoreCase) {
  size_t index;
  return Value(key, nullptr, ignoreCase, &index) && Remove(index);
}

bool StringPairList::RemoveAll(const std::string& key, bool ignoreCase) {
  auto kept = std::remove_if(pairs_.begin(), pairs_.end(), [&](const Pair& pair) {
    return KeyMatches(pair.first, key, ignoreCase);
  });
  bool removed = kept != pairs_.end();
  pairs_.erase(kept, pairs_.end());
  return removed;
}

void StringPairList::Join(const StringPairList& other) {
  // Reserving first keeps self-joining safe: no reallocation while copying.
  pairs_.reserve(pairs_.size() + other.pairs_.size());
  size_t count = other.pairs_.size();
  for (size_t i = 0; i < count; ++i) pairs_.push_back(other.pairs_[i]);
}

std::string StringPairList::ToString(const std::string& keyValueSeparator,
                                     const std::string& pairSeparator) const {
  std::string result;
  for (const Pair& pair : pairs_) {
    if (!result.empty()) result += pairSeparator;
    result += pair.first;
    result += keyValueSeparator;
    result += pair.second;
  }
  return result;
}

void StringPairList::Swap(StringPairList* other) { pairs_.swap(other->pairs_); }

size_t StringPairList::Size() const { return pairs_.size(); }

void StringPairList::Clear() { pairs_.clear(); }

bool ParseFromString(const std::string& text, StringPairList* list) {
  if (list == nullptr) return false;
  std::string escaped = boost::replace_all_copy(text, "\r\n", "\n");
  // Quotes and the sequences the tokeniser would consume become literal text
  // for the first tokeniser; the replacements run one after another, in this
  // order, each over the result of the previous one.
  boost::replace_all(escaped, "\"", "\\\"");
  boost::replace_all(escaped, "\\\\", "\\\\\\\\");
  boost::replace_all(escaped, "\\n", "\\\\n");
  try {
    for (const std::string& entry : Tokenizer(escaped, Separator("\\", ";\n", "\""))) {
      for (const std::string& item : Tokenizer(entry, Separator("\\", ",", "\""))) {
        AddItem(item, list);
      }
    }
  } catch (const boost::escaped_list_error& e) {
    // Callers of this parser expect the reason on standard error.
    std::cerr << e.what() << '\n';
    return false;
  }
  return true;
}

}  // namespace utils
