// utils::JsonPersistentStorage: a JSON object kept in a file, for settings and
// small state that must survive restarts.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <json/value.h>

#include "noncopyable.h"
#include "thread_mutex.h"

namespace utils {

// The largest JSON file that the store (and the json script library) reads:
// the text and the values made of it take several times this much memory.
constexpr size_t kMaxJsonFileBytes = size_t{256} << 20;

// Key/value store over one file holding a JSON object. Every method may be
// called from any thread. Changes stay in memory until Save(), which replaces
// the file atomically: a crash during a save leaves the previous content.
//
// A file that exists but cannot be read or is not a JSON object is never
// overwritten behind the caller's back: after such a load, Save() fails until
// a Reload() succeeds or Clear() states that the old content may go.
class JsonPersistentStorage : private Noncopyable {
 public:
  // Loads `path` at once (see Reload); IsLoaded() tells how that went.
  explicit JsonPersistentStorage(std::string path);

  const std::string& Path() const { return path_; }

  // Whether the last load succeeded; otherwise *error (when not null) says why.
  bool IsLoaded(std::string* error = nullptr) const;

  // Re-reads the file, dropping unsaved changes. A missing file gives an empty
  // store; one that is not a regular file, or larger than kMaxJsonFileBytes,
  // fails. On failure the content in memory stays as it was, and the reason is
  // returned in *error and logged.
  bool Reload(std::string* error = nullptr);

  // Writes the content to the file.
  bool Save(std::string* error = nullptr);

  // False when there is no such key.
  bool Get(const std::string& key, Json::Value* value) const;
  void Set(const std::string& key, const Json::Value& value);
  // False when there was no such key.
  bool Remove(const std::string& key);
  // Sorted bytewise.
  std::vector<std::string> Keys() const;
  // A copy of the whole object.
  Json::Value GetAll() const;
  // Empties the store and allows Save() to replace a file that failed to load.
  void Clear();

 private:
  const std::string path_;
  // Held across a whole Save or Reload so that files reach the disk in the
  // order their snapshots were taken; data_ is not locked during the I/O.
  // Taken before dataMutex_; both are leaf locks (docs/embedding.md, "Locks
  // and their order").
  ThreadMutex fileMutex_;
  mutable ThreadMutex dataMutex_;
  Json::Value data_;
  std::string loadError_;  // empty after a successful load
};

}  // namespace utils
