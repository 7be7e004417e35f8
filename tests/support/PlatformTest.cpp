#include "support/PlatformTest.h"

#include <algorithm>
#include <cstdlib>

namespace quorvia::testing {

void LogCapture::install(platform::ConfigurableEnvironment& env) {
  env.setLogSink([this](std::string_view line) {
    {
      std::lock_guard lock(mu_);
      lines_.emplace_back(line);
    }
    if (onLine) onLine();
  });
}

std::vector<std::string> LogCapture::lines() const {
  std::lock_guard lock(mu_);
  return lines_;
}

int LogCapture::count(const std::string& line) const {
  std::lock_guard lock(mu_);
  return static_cast<int>(std::count(lines_.begin(), lines_.end(), line));
}

void LogCapture::clear() {
  std::lock_guard lock(mu_);
  lines_.clear();
}

std::filesystem::path makeTempDirectory(const std::string& prefix) {
  std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "XXXXXX")).string();
  if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  return pattern;
}

void PlatformTest::SetUp() {
  dataDir_ = makeTempDirectory("quorvia-test-");
  env_ = platform::ConfigurableEnvironment::install(dataDir_ / "data",
                                                    platform::RunLoop::Clock::kVirtual);
  loop_ = &env_->mainRunLoop();
  // 2026-11-21 12:00:00 UTC: a fixed instant, so dates in tests are repeatable.
  wallNow_ = platform::SystemTime(std::chrono::seconds(1795262400));
  env_->setWallClock([mu = wallMu_, now = &wallNow_] {
    std::lock_guard lock(*mu);
    return *now;
  });
  log_.install(*env_);
}

void PlatformTest::TearDown() {
  loop_->drainOnce();
  env_->setLogSink({});
  env_->setWallClock({});
  std::error_code ec;
  std::filesystem::remove_all(dataDir_, ec);
}

void PlatformTest::advanceWallClock(double secondsToAdvance) {
  std::lock_guard lock(*wallMu_);
  wallNow_ += std::chrono::duration_cast<platform::SystemTime::duration>(
      std::chrono::duration<double>(secondsToAdvance));
}

}  // namespace quorvia::testing
