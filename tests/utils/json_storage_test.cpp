#include "utils/json_storage.h"

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/shared.h"
#include "utils/files.h"

namespace {

class JsonStore : public ::testing::Test {
 protected:
  std::string FileText() const {
    std::string text;
    EXPECT_TRUE(utils::ReadFile(path_, &text));
    return text;
  }

  testsupport::ScratchDir scratch_;
  const std::string path_ = scratch_.File("store.json");
};

TEST_F(JsonStore, SavedValuesComeBackInANewStore) {
  Json::Value nested(Json::objectValue);
  nested["list"].append(1);
  nested["list"].append("two");
  nested["text"] = "caf\xc3\xa9 \"quoted\"\n";
  {
    utils::JsonPersistentStorage store(path_);
    EXPECT_TRUE(store.IsLoaded());  // no file yet: an empty store
    EXPECT_TRUE(store.Keys().empty());
    store.Set("b", nested);
    store.Set("a", 42);
    store.Set("gone", true);
    EXPECT_TRUE(store.Remove("gone"));
    EXPECT_FALSE(store.Remove("gone"));
    std::string error;
    ASSERT_TRUE(store.Save(&error)) << error;
  }
  utils::JsonPersistentStorage again(path_);
  ASSERT_TRUE(again.IsLoaded());
  EXPECT_EQ(again.Keys(), (std::vector<std::string>{"a", "b"}));
  Json::Value value;
  ASSERT_TRUE(again.Get("b", &value));
  EXPECT_EQ(value, nested);
  ASSERT_TRUE(again.Get("a", &value));
  EXPECT_EQ(value.asInt(), 42);
  EXPECT_FALSE(again.Get("gone", &value));

  // Reload drops what was not saved.
  again.Set("a", 7);
  ASSERT_TRUE(again.Reload());
  ASSERT_TRUE(again.Get("a", &value));
  EXPECT_EQ(value.asInt(), 42);
}

TEST_F(JsonStore, CorruptFileIsReportedAndNeverOverwrittenSilently) {
  for (const char* content : {"{\"a\": 1,", "[1, 2]", "", "{\"a\": 1} trailing"}) {
    ASSERT_TRUE(utils::WriteFileAtomically(path_, content));
    utils::JsonPersistentStorage store(path_);
    std::string error;
    EXPECT_FALSE(store.IsLoaded(&error)) << content;
    EXPECT_NE(error.find(path_), std::string::npos) << error;
    store.Set("a", 2);
    EXPECT_FALSE(store.Save(&error));
    EXPECT_EQ(FileText(), content);
    EXPECT_FALSE(store.Reload(&error));

    store.Clear();
    store.Set("fresh", 1);
    ASSERT_TRUE(store.Save(&error)) << error;
    ASSERT_TRUE(store.Reload());
    EXPECT_EQ(store.Keys(), std::vector<std::string>{"fresh"});
  }
}

TEST_F(JsonStore, FailedReloadKeepsTheContentInMemory) {
  utils::JsonPersistentStorage store(path_);
  store.Set("kept", "yes");
  ASSERT_TRUE(store.Save());
  ASSERT_TRUE(utils::WriteFileAtomically(path_, "not json"));
  std::string error;
  EXPECT_FALSE(store.Reload(&error));
  EXPECT_FALSE(error.empty());
  Json::Value value;
  ASSERT_TRUE(store.Get("kept", &value));
  EXPECT_EQ(value.asString(), "yes");
  EXPECT_FALSE(store.Save());
}

TEST_F(JsonStore, ConcurrentSetsAndSavesLoseNothing) {
  utils::JsonPersistentStorage store(path_);
  constexpr int kThreads = 4;
  constexpr int kKeysPerThread = 200;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&store, t] {
      for (int i = 0; i < kKeysPerThread; ++i) {
        store.Set("k" + std::to_string(t) + "_" + std::to_string(i), i);
        if (i % 50 == 0) {
          EXPECT_TRUE(store.Save());
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(store.Save());
  utils::JsonPersistentStorage again(path_);
  EXPECT_EQ(again.Keys().size(), static_cast<size_t>(kThreads * kKeysPerThread));
  EXPECT_EQ(again.GetAll(), store.GetAll());
}

}  // namespace
