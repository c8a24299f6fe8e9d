#include "utils/json_storage.h"

#include <errno.h>
#include <sys/stat.h>

#include <memory>

#include <json/reader.h>
#include <json/writer.h>

#include "utils/files.h"
#include "utils/log.h"
#include "utils/strings.h"

namespace utils {

namespace {

const char kModule[] = "utils";

// jsoncpp lists errors as "* Line 1, Column 9\n  Missing ...\n"; log records
// and script error texts read better on one line.
std::string OneLine(const std::string& errors) {
  std::string result;
  size_t pos = 0;
  while (pos < errors.size()) {
    size_t end = errors.find('\n', pos);
    if (end == std::string::npos) end = errors.size();
    size_t begin = errors.find_first_not_of(" *", pos);
    if (begin < end) {
      if (!result.empty()) result += ": ";
      result.append(errors, begin, end - begin);
    }
    pos = end + 1;
  }
  return result;
}

bool ParseObject(const std::string& text, Json::Value* object, std::string* error) {
  if (text.empty()) {
    *error = "the file is empty";
    return false;
  }
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value parsed;
  std::string parseErrors;
  if (!reader->parse(text.data(), text.data() + text.size(), &parsed, &parseErrors)) {
    *error = "invalid JSON: " + OneLine(parseErrors);
    return false;
  }
  if (!parsed.isObject()) {
    *error = "the top-level value is not an object";
    return false;
  }
  object->swap(parsed);
  return true;
}

std::string Serialize(const Json::Value& object) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, object) + "\n";
}

}  // namespace

JsonPersistentStorage::JsonPersistentStorage(std::string path)
    : path_(std::move(path)), data_(Json::objectValue) {
  Reload();
}

bool JsonPersistentStorage::IsLoaded(std::string* error) const {
  ThreadMutex::ScopedLock lock(dataMutex_);
  if (error != nullptr) *error = loadError_;
  return loadError_.empty();
}

bool JsonPersistentStorage::Reload(std::string* error) {
  ThreadMutex::ScopedLock fileLock(fileMutex_);
  Json::Value loaded(Json::objectValue);
  std::string text, reason;
  struct stat st;
  // A store that was never saved has no file yet. (A path with a NUL names
  // no file; ReadRegularFile says so.)
  bool missing = path_.find('\0') == std::string::npos && ::stat(path_.c_str(), &st) != 0 &&
                 errno == ENOENT;
  bool ok = missing || (ReadRegularFile(path_, kMaxJsonFileBytes, &text, &reason) &&
                        ParseObject(text, &loaded, &reason));
  if (!ok) {
    std::string message = "cannot load " + path_ + ": " + reason;
    CORVANE_LOG(UtilsLogger(), zullog::SeverityWarning, kModule)
        << "JsonPersistentStorage: " << EscapeForLogLine(message);
    ThreadMutex::ScopedLock lock(dataMutex_);
    loadError_ = message;
    if (error != nullptr) *error = message;
    return false;
  }
  ThreadMutex::ScopedLock lock(dataMutex_);
  data_.swap(loaded);
  loadError_.clear();
  return true;
}

bool JsonPersistentStorage::Save(std::string* error) {
  ThreadMutex::ScopedLock fileLock(fileMutex_);
  std::string text;
  {
    ThreadMutex::ScopedLock lock(dataMutex_);
    if (!loadError_.empty()) {
      if (error != nullptr) {
        *error = "not saving over a file that failed to load (" + loadError_ + ")";
      }
      return false;
    }
    text = Serialize(data_);
  }
  std::string reason;
  if (!WriteFileAtomically(path_, text, &reason)) {
    if (error != nullptr) *error = reason;
    return false;
  }
  return true;
}

bool JsonPersistentStorage::Get(const std::string& key, Json::Value* value) const {
  ThreadMutex::ScopedLock lock(dataMutex_);
  const Json::Value* found = data_.find(key.data(), key.data() + key.size());
  if (found == nullptr) return false;
  if (value != nullptr) *value = *found;
  return true;
}

void JsonPersistentStorage::Set(const std::string& key, const Json::Value& value) {
  ThreadMutex::ScopedLock lock(dataMutex_);
  data_[key] = value;
}

bool JsonPersistentStorage::Remove(const std::string& key) {
  ThreadMutex::ScopedLock lock(dataMutex_);
  return data_.removeMember(key, nullptr);
}

std::vector<std::string> JsonPersistentStorage::Keys() const {
  ThreadMutex::ScopedLock lock(dataMutex_);
  return data_.getMemberNames();
}

Json::Value JsonPersistentStorage::GetAll() const {
  ThreadMutex::ScopedLock lock(dataMutex_);
  return data_;
}

void JsonPersistentStorage::Clear() {
  ThreadMutex::ScopedLock lock(dataMutex_);
  data_ = Json::Value(Json::objectValue);
  loadError_.clear();
}

}  // namespace utils
