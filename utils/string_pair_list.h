// An ordered list of key/value string pairs (HTTP header lists, URL query
// parameters), and a parser for "key=value" settings text.
#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace utils {

// Pairs stay in insertion order; duplicate keys are kept, nothing is sorted or
// merged. Key matching is exact, or with `ignoreCase` equal length and equal
// bytes once A-Z and a-z are folded together. Null outputs are not written.
// A plain value: concurrent use of one instance needs outside locking.
class StringPairList {
 public:
  // Appends, never replacing an existing pair with the same key.
  void AddValue(const std::string& key, const std::string& value);

  // The pair at `index`; false when `index >= Size()`.
  bool Value(size_t index, std::string* key, std::string* value) const;
  // The first (lowest index) pair whose key matches.
  bool Value(const std::string& key, std::string* value, bool ignoreCase, size_t* index) const;
  // The last (highest index) pair whose key matches.
  bool LastValue(const std::string& key, std::string* value, bool ignoreCase,
                 size_t* index) const;
  // Appends the value of every matching pair, in list order, to `values`
  // without clearing it first; true when at least one matched.
  bool ValueList(const std::string& key, std::vector<std::string>& values, bool ignoreCase) const;
  // Distinct keys, sorted byte-wise; keys differing only in case are all kept.
  std::set<std::string> Keys() const;

  // Erase keeping the order of the rest. Remove(key) erases only the first
  // match; RemoveAll every one. Each is false when nothing was erased.
  bool Remove(size_t index);
  bool Remove(const std::string& key, bool ignoreCase);
  bool RemoveAll(const std::string& key, bool ignoreCase);

  // Appends copies of all of `other`'s pairs, in their order.
  void Join(const StringPairList& other);

  // "k1=v1&k2=v2" for ("=", "&"). Nothing is escaped.
  std::string ToString(const std::string& keyValueSeparator,
                       const std::string& pairSeparator) const;

  void Swap(StringPairList* other);
  size_t Size() const;
  void Clear();

 private:
  std::vector<std::pair<std::string, std::string>> pairs_;
};

// Parses settings text into `*list`, appending with AddValue. Entries are
// separated by ";" or newlines ("\r\n" counts as one), items inside an entry
// by ","; an item is a key and a value separated by "=", blanks or tabs:
//   "host = example.org; port=80, verbose"
// The first non-empty piece of an item is its key; the remaining non-empty
// pieces, joined by one blank, its value ("name = John Smith" gives
// "John Smith"); a lone key gets an empty value; empty items are skipped.
// Double quotes keep a "," inside an item (the quotes are dropped). The only
// backslash sequence is "\n", which stands for a newline character; any other
// backslash stops the parse: the error text and a newline go to std::cerr and
// the result is false, keeping the pairs added before it. False as well for a
// null `list`.
bool ParseFromString(const std::string& text, StringPairList* list);

}  // namespace utils
