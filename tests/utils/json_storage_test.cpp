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
  testsupport::ScratchDir scratch_;
  const std::string path_ = scratch_.File("store.json");
};

// Saving, reloading and reading back are the json library's (its storage
// example runs as a test); here the failures and threads.
TEST_F(JsonStore, CorruptFileIsReportedKeptInMemoryAndNeverOverwrittenSilently) {
  utils::JsonPersistentStorage loaded(path_);
  loaded.Set("kept", "yes");
  ASSERT_TRUE(loaded.Save());
  for (const char* content : {"{\"a\": 1,", "[1, 2]", "", "{\"a\": 1} trailing"}) {
    ASSERT_TRUE(utils::WriteFileAtomically(path_, content));
    EXPECT_FALSE(loaded.Reload());
    Json::Value value;
    EXPECT_TRUE(loaded.Get("kept", &value) && value.asString() == "yes");
    utils::JsonPersistentStorage store(path_);
    std::string error;
    EXPECT_FALSE(store.IsLoaded(&error)) << content;
    EXPECT_NE(error.find(path_), std::string::npos) << error;
    store.Set("a", 2);
    EXPECT_FALSE(store.Save(&error) || loaded.Save());
    EXPECT_EQ(testsupport::ReadWholeFile(path_), content);
    EXPECT_FALSE(store.Reload(&error));

    store.Clear();
    store.Set("fresh", 1);
    ASSERT_TRUE(store.Save(&error)) << error;
    ASSERT_TRUE(store.Reload());
    EXPECT_EQ(store.Keys(), std::vector<std::string>{"fresh"});
  }
}

TEST_F(JsonStore, ConcurrentSetsAndSavesLoseNothing) {
  utils::JsonPersistentStorage store(path_);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&store, t] {
      for (int i = 0; i < 200; ++i) {
        store.Set("k" + std::to_string(t) + "_" + std::to_string(i), i);
        EXPECT_TRUE(i % 50 != 0 || store.Save());
      }
    });
  }
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(store.Save());
  utils::JsonPersistentStorage again(path_);
  EXPECT_EQ(again.Keys().size(), 800u);
  EXPECT_EQ(again.GetAll(), store.GetAll());
}

}  // namespace
