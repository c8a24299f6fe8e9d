#include "utils/files.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/shared.h"

namespace {

class TempDir : public ::testing::Test {
 protected:
  std::string Path(const std::string& name) const { return scratch_.File(name); }
  std::vector<std::string> Listing() const {
    std::vector<std::string> names;
    EXPECT_TRUE(utils::GetDirectoryContents(dir_, &names));
    return names;
  }

  testsupport::ScratchDir scratch_;
  const std::string dir_ = scratch_.Path();
};

TEST_F(TempDir, AtomicWriteRoundTripsAndKeepsPermissions) {
  const std::string path = Path("data.bin");
  const std::string data("binary\0bytes\xff\n", 14);
  ASSERT_TRUE(utils::WriteFileAtomically(path, data));
  std::string read;
  ASSERT_TRUE(utils::ReadFile(path, &read));
  EXPECT_EQ(read, data);

  ::chmod(path.c_str(), 0640);
  ASSERT_TRUE(utils::WriteFileAtomically(path, "second"));
  struct stat st;
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  EXPECT_EQ(Listing(), std::vector<std::string>{"data.bin"});

  // Input chosen by others: the cap is inclusive, and only regular files count.
  std::string error;
  EXPECT_TRUE(utils::ReadRegularFile(path, 6, &read, &error)) << error;
  EXPECT_EQ(read, "second");
  EXPECT_FALSE(utils::ReadRegularFile(path, 5, &read, &error));
  EXPECT_FALSE(utils::ReadRegularFile("/dev/zero", 1 << 20, &read, &error));
}

TEST_F(TempDir, FailedWriteLeavesOldContentAndNoTemporaryFile) {
  const std::string path = Path("state.json");
  ASSERT_TRUE(utils::WriteFileAtomically(path, "old"));

  // A file size limit makes write() fail half-way, even for root.
  struct rlimit saved;
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
  auto previousHandler = ::signal(SIGXFSZ, SIG_IGN);
  struct rlimit small = saved;
  small.rlim_cur = 1024;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  std::string error;
  bool written = utils::WriteFileAtomically(path, std::string(65536, 'x'), &error);
  ::setrlimit(RLIMIT_FSIZE, &saved);
  ::signal(SIGXFSZ, previousHandler);

  EXPECT_FALSE(written);
  EXPECT_NE(error.find("write("), std::string::npos) << error;
  std::string read;
  ASSERT_TRUE(utils::ReadFile(path, &read));
  EXPECT_EQ(read, "old");
  EXPECT_EQ(Listing(), std::vector<std::string>{"state.json"});

  // A rename that cannot happen (a directory is in the way) also cleans up.
  std::filesystem::create_directories(Path("taken/inner"));
  EXPECT_FALSE(utils::WriteFileAtomically(Path("taken"), "data", &error));
  EXPECT_NE(error.find("rename("), std::string::npos) << error;
  EXPECT_EQ(Listing(), (std::vector<std::string>{"state.json", "taken"}));

  EXPECT_FALSE(utils::WriteFileAtomically(Path("missing/file"), "data") || utils::ReadFile(Path("absent"), &read));

  // The system would end a path at a NUL (here: at state.json); all refuse it.
  const std::string cut = path + '\0' + ".new";
  std::vector<std::string> names;
  EXPECT_FALSE(utils::WriteFileAtomically(cut, "new") || utils::ReadFile(cut, &read) || utils::GetStatus(cut).exists ||
               utils::GetDirectoryContents(dir_ + '\0', &names) || utils::GetDevNumbers(cut, nullptr, nullptr) ||
               utils::GetDiskSpaceInfo(cut, nullptr, nullptr, nullptr));
}

TEST_F(TempDir, StatusChangesWhenTheFileIsReplacedAndListingsAppend) {
  const std::string path = Path("script.lua");
  EXPECT_FALSE(utils::GetStatus(path).exists);
  ASSERT_TRUE(utils::WriteFileAtomically(path, "return 1"));
  const utils::FileStatus first = utils::GetStatus(path);
  EXPECT_TRUE(first.exists && first.size == 8u);
  EXPECT_EQ(utils::GetStatus(path), first);
  // Same size, written within the same clock tick: the new inode still shows.
  ASSERT_TRUE(utils::WriteFileAtomically(path, "return 2"));
  EXPECT_NE(utils::GetStatus(path), first);
  std::vector<std::string> names = {"kept"};
  ASSERT_TRUE(utils::GetDirectoryContents(dir_, &names));
  EXPECT_FALSE(utils::GetDirectoryContents(Path("nope"), &names) || utils::GetDirectoryContents(path, &names));
  EXPECT_EQ(names, (std::vector<std::string>{"kept", "script.lua"}));
}

TEST(ExpandPath, ExpandsHomeAndVariablesButNothingElse) {
  testsupport::ScopedEnv home("HOME", "/home/tester/"), dir("CORVANE_T_DIR", "value"),
      ref("CORVANE_T_REF", "$CORVANE_T_DIR");
  const std::pair<const char*, const char*> cases[] = {
      {"~", "/home/tester/"},
      {"~/x/y", "/home/tester/x/y"},
      {"$CORVANE_T_DIR/x", "value/x"},
      {"$CORVANE_T_DIRx", ""},               // the name runs to "x"
      {"$CORVANE_T_REF", "$CORVANE_T_DIR"},  // values are not expanded again
      {"~/$CORVANE_T_DIR", "/home/tester/value"},
  };
  for (const auto& [in, out] : cases) EXPECT_EQ(utils::ExpandPath(in), out) << in;
  for (const char* same : {"a/~/b", "$", "$1/x", "${CORVANE_T_DIR", "${}", "${CORVANE-T}", "`id`", "*.lua",
                           "~corvane_no_such_user/x", ""}) {
    EXPECT_EQ(utils::ExpandPath(same), same);
  }
  testsupport::ScopedEnv root("HOME", "/");
  EXPECT_EQ(utils::ExpandPath("~/x"), "/x");
}

}  // namespace
