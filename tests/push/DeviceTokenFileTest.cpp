#include <sys/stat.h>

#include <fstream>

#include "platform/push/DeviceTokenFile.h"
#include "support/PlatformTest.h"

namespace quorvia::testing {
namespace {

using platform::Bytes;

class DeviceTokenFileTest : public PlatformTest {};

mode_t modeOf(const std::filesystem::path& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

Bytes contents(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

// One token per data directory, kept in a private file; any file that is not
// a private 32-byte token is logged and replaced, never trusted, never fatal.
TEST_F(DeviceTokenFileTest, OneTokenPerDirectoryKeptPrivate) {
  const Bytes kept(platform::kDeviceTokenBytes, 0xab);
  struct Case {
    const char* name;
    std::function<void(const std::filesystem::path& file)> prepare;
    bool keepsStored;
    bool logged;
  };
  auto write = [](const std::filesystem::path& file, std::size_t size, mode_t mode) {
    std::ofstream(file, std::ios::binary) << std::string(size, '\xab');
    ::chmod(file.c_str(), mode);
  };
  const Case cases[] = {
      {"missing", [](const auto&) {}, false, false},
      {"stored", [&](const auto& f) { write(f, 32, 0600); }, true, false},
      {"too short", [&](const auto& f) { write(f, 31, 0600); }, false, true},
      {"too long", [&](const auto& f) { write(f, 33, 0600); }, false, true},
      {"readable by others", [&](const auto& f) { write(f, 32, 0644); }, false, true},
      {"symbolic link",
       [&](const auto& f) {
         write(f.string() + ".target", 32, 0600);
         std::filesystem::create_symlink(f.string() + ".target", f);
       },
       false, true},
  };
  int round = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    log_.clear();
    const auto directory = dataDir_ / std::to_string(round++) / "app";
    std::filesystem::create_directories(directory.parent_path());
    if (c.keepsStored || c.logged) {
      std::filesystem::create_directories(directory);
      std::filesystem::permissions(directory, std::filesystem::perms::owner_all);
    }
    const auto file = directory / platform::kDeviceTokenFileName;
    c.prepare(file);

    const std::optional<Bytes> token = platform::loadOrCreateDeviceToken(directory);
    ASSERT_TRUE(token);
    EXPECT_EQ(token->size(), platform::kDeviceTokenBytes);
    EXPECT_EQ(*token == kept, c.keepsStored);
    EXPECT_EQ(contents(file), *token);
    EXPECT_TRUE(S_ISREG(modeOf(file)));
    EXPECT_EQ(modeOf(file) & 07777, 0600u);
    EXPECT_EQ(modeOf(directory) & 07777, 0700u);
    EXPECT_EQ(!log_.lines().empty(), c.logged);
    EXPECT_EQ(platform::loadOrCreateDeviceToken(directory), token) << "the same token next time";
  }
}

}  // namespace
}  // namespace quorvia::testing
