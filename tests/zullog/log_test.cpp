#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/shared.h"
#include "utils/log.h"
#include "zullog/zullog.h"

namespace {

using Sink = testsupport::RecordingSink;

class Logging : public ::testing::Test {
 protected:
  void TearDown() override {
    zullog::SetSink(nullptr);
    zullog::SetLoggingForbidden(false);
  }
};

TEST_F(Logging, RecordsCarryModulePrefixAndAreFormattedOnlyWhenAccepted) {
  auto sink = std::make_shared<Sink>(zullog::SeverityInfo);
  zullog::SetSink(sink);
  int calls = 0;
  auto expensive = [&calls] { return ++calls * 42; };
  CORVANE_LOG(zul_log_logger__utils(), zullog::SeverityTrace, "utils") << expensive();
  CORVANE_LOG(zul_log_logger__lua(), zullog::SeverityInfo, "lua") << "value " << expensive();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(sink->Records(), (std::vector<std::pair<int, std::string>>{{zullog::SeverityInfo, "<lua> value 42"}}));
}

TEST_F(Logging, TraceScopeWritesEnterAndLeaveAndForbiddenLoggingNothing) {
  auto sink = std::make_shared<Sink>(zullog::SeverityTrace);
  zullog::SetSink(sink);
  {
    utils::TraceScope scope(zul_log_logger__utils(), "utils::impl::Socket", "Connect");
    CORVANE_LOG(zul_log_logger__utils(), zullog::SeverityInfo, "utils::impl::Socket") << "inside";
  }
  zullog::SetLoggingForbidden(true);
  EXPECT_FALSE(zul_log_logger__utils()->IsEnabledFor(zullog::SeverityError));
  CORVANE_LOG(zul_log_logger__utils(), zullog::SeverityError, "utils") << "dropped";
  zul_log_logger__utils()->Write(std::make_shared<zullog::LogRecord>(zullog::SeverityError));
  EXPECT_EQ(sink->Lines(),
            (std::vector<std::string>{"<utils::impl::Socket> Enter scope `Connect' >>>", "<utils::impl::Socket> inside",
                                      "<utils::impl::Socket> Leave scope `Connect' <<<"}));
}

TEST_F(Logging, SinkCanBeReplacedWhileOtherThreadsWrite) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> writers;
  for (int t = 0; t < 4; ++t) {
    writers.emplace_back([&stop, t] {
      while (!stop.load()) {
        CORVANE_LOG(zul_log_logger__utils(), zullog::SeverityError, "utils") << "thread " << t;
      }
    });
  }
  std::vector<std::shared_ptr<Sink>> sinks;
  for (int i = 0; i < 200; ++i) {
    sinks.push_back(std::make_shared<Sink>(zullog::SeverityTrace));
    zullog::SetSink(sinks.back());
  }
  stop = true;
  for (auto& w : writers) w.join();
  for (const auto& s : sinks) {
    for (const auto& line : s->Lines()) EXPECT_EQ(line.rfind("<utils> thread ", 0), 0u);
  }
}

TEST_F(Logging, DefaultSinkWritesOneLinePerRecordToStderr) {
  if (std::getenv("ZULLOG_LEVEL") != nullptr) GTEST_SKIP() << "the threshold is the default one";
  zullog::SetSink(nullptr);
  ::testing::internal::CaptureStderr();
  CORVANE_LOG(zul_log_logger__utils(), zullog::SeverityError, "utils") << "first";
  CORVANE_LOG(zul_log_logger__utils(), zullog::SeverityWarning, "utils") << "second";  // the threshold itself
  CORVANE_LOG(zul_log_logger__utils(), zullog::SeverityInfo, "utils") << "below";
  std::string out = ::testing::internal::GetCapturedStderr();
  ASSERT_EQ(std::count(out.begin(), out.end(), '\n'), 2);
  EXPECT_NE(out.find("Z ERROR <utils> first\n"), std::string::npos);
  EXPECT_NE(out.find("Z WARNING <utils> second\n"), std::string::npos);
}

}  // namespace
