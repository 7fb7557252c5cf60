#include "core/shell_spool.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <utility>

#include <gtest/gtest.h>

#include "agent_process.h"

namespace tervain {
namespace {

// The result without the identities of the taken files, for comparing with a literal.
ShellSpool::DrainResult taken(ShellSpool::DrainResult result) {
  result.drainedFiles.clear();
  return result;
}

class ShellSpoolDrainTest : public ::testing::Test {
 protected:
  void write(const std::string& name, std::size_t bytes, char fill = 'x') {
    std::ofstream(dir.file(name), std::ios::binary) << std::string(bytes, fill);
  }
  std::string path(const std::string& name) const { return dir.file(name); }

  testing::TempDir dir;
};

TEST_F(ShellSpoolDrainTest, TakesEventFilesInNameOrderAndNothingElse) {
  write("b.jsonl", 10, 'b');
  write("a.jsonl", 10, 'a');
  write("notes.txt", 10, 'n');
  write("x.JSONL", 10, 'X');
  write("c.jsonl.tmp", 10, 't');
  EXPECT_EQ(taken(ShellSpool::drain(dir.path(), 100)),
            (ShellSpool::DrainResult{std::string(10, 'a') + std::string(10, 'b'), 2, false,
                                     {path("a.jsonl"), path("b.jsonl")}}));
  // Each taken file is named in the folder with its size and identity as read.
  const auto files = ShellSpool::drain(dir.path(), 100).drainedFiles;
  ASSERT_EQ(files.size(), 2u);
  struct stat info {};
  ASSERT_EQ(::stat(path("b.jsonl").c_str(), &info), 0);
  EXPECT_EQ(files[1], (ShellSpool::DrainedFile{"b.jsonl", 10, static_cast<std::uint64_t>(info.st_dev),
                                               static_cast<std::uint64_t>(info.st_ino)}));
}

// The byte budget: a file that does not fit is skipped (truncated) while smaller ones after it
// are taken, empty files count until the budget is used, and a used budget ends the walk.
TEST(ShellSpoolBudgetTest, TakesWhatFitsInNameOrder) {
  const struct {
    std::vector<std::pair<const char*, std::size_t>> files;  // each filled with its first letter
    std::int64_t budget;
    std::string data;
    int taken;
    bool truncated;
  } cases[] = {
      {{{"1.jsonl", 10}, {"2.jsonl", 10}, {"3.jsonl", 5}}, 15, std::string(10, '1') + "33333", 2, true},
      {{{"1.jsonl", 10}, {"2.jsonl", 1}, {"3.jsonl", 0}}, 10, std::string(10, '1'), 1, true},
      {{{"1.jsonl", 0}, {"2.jsonl", 4}, {"3.jsonl", 0}}, 5, "2222", 3, false},
      {{{"1.jsonl", 0}, {"2.jsonl", 4}, {"3.jsonl", 0}}, 4, "2222", 2, true},
      {{{"a.jsonl", 0}}, 0, "", 0, true},
      {{{"a.jsonl", 0}}, -1, "", 0, true},
      {{{"a.jsonl", 0}}, INT64_MIN, "", 0, true},
      {{{"big.jsonl", 100}}, 99, "", 0, true},
      {{{"big.jsonl", 100}}, 100, std::string(100, 'b'), 1, false},
  };
  for (const auto& c : cases) {
    testing::TempDir dir;
    for (const auto& [name, bytes] : c.files) {
      std::ofstream(dir.file(name), std::ios::binary) << std::string(bytes, name[0]);
    }
    const auto result = ShellSpool::drain(dir.path(), c.budget);
    EXPECT_EQ(result.data, c.data) << c.budget;
    EXPECT_EQ(result.files, c.taken) << c.budget;
    EXPECT_EQ(result.truncated, c.truncated) << c.budget;
    EXPECT_EQ(result.drainedPaths.size(), static_cast<std::size_t>(c.taken)) << c.budget;
  }
}

TEST_F(ShellSpoolDrainTest, OnlyRegularFilesOfTheFolderItselfAreEventFiles) {
  // Links are never followed, wherever they point: a readable file elsewhere, a directory, a
  // device that never ends, a file of the proc file system, nothing. A FIFO nobody writes to
  // would block an ordinary open for good. None of them counts, not even for the budget.
  testing::TempDir outside;
  std::ofstream(outside.file("secret.jsonl")) << "secret\n";
  const std::pair<const char*, std::string> links[] = {
      {"a.jsonl", outside.file("secret.jsonl")}, {"b.jsonl", "../" + std::string(
          std::filesystem::path(outside.path()).filename()) + "/secret.jsonl"},
      {"c.jsonl", outside.path()}, {"d.jsonl", "/dev/zero"}, {"e.jsonl", "/proc/self/status"},
      {"f.jsonl", path("missing")}};
  for (const auto& [name, target] : links) {
    ASSERT_EQ(::symlink(target.c_str(), path(name).c_str()), 0) << name;
  }
  ASSERT_EQ(::mkdir(path("g.jsonl").c_str(), 0755), 0);
  ASSERT_EQ(::mkfifo(path("h.jsonl").c_str(), 0600), 0);
  write("z.jsonl", 3);
  EXPECT_EQ(taken(ShellSpool::drain(dir.path(), 100)),
            (ShellSpool::DrainResult{"xxx", 1, false, {path("z.jsonl")}}));
}

// A directory that cannot be listed gives the empty result; a trailing slash, clean paths.
TEST_F(ShellSpoolDrainTest, TheDirectoryAsGiven) {
  write("a.jsonl", 1);
  EXPECT_EQ(ShellSpool::drain(path("missing"), 100), ShellSpool::DrainResult{});
  EXPECT_EQ(ShellSpool::drain(path("a.jsonl"), 100), ShellSpool::DrainResult{});
  EXPECT_EQ(ShellSpool::drain(dir.path() + "/", 10).drainedPaths,
            std::vector<std::string>{path("a.jsonl")});
}

TEST_F(ShellSpoolDrainTest, ADeliveredFileIsRemovedOnlyWhileItIsAsDelivered) {
  testing::TempDir outside;
  std::ofstream(outside.file("t.jsonl")) << "xxxx";
  for (const char* name : {"same", "grown", "shrunk", "replaced", "anonymous"}) {
    write(std::string(name) + ".jsonl", 4);
  }
  ASSERT_EQ(::symlink(outside.file("t.jsonl").c_str(), path("link.jsonl").c_str()), 0);
  const auto delivered = ShellSpool::drain(dir.path(), 100).drainedFiles;
  ASSERT_EQ(delivered.size(), 5u);
  const auto identity = [&](std::string_view name) {
    for (const auto& file : delivered) {
      if (file.name == name) return file;
    }
    return ShellSpool::DrainedFile{std::string(name), 4, 0, 0};
  };
  std::ofstream(path("grown.jsonl"), std::ios::app) << "y";
  write("shrunk.jsonl", 3);
  // Made before the old one goes, so it cannot get the old inode number back.
  write("replacement", 4);
  ASSERT_EQ(::rename(path("replacement").c_str(), path("replaced.jsonl").c_str()), 0);
  write("other", 4);

  struct Case {
    std::string name;
    bool withIdentity;
    bool removed;
  } const cases[] = {
      {"same.jsonl", true, true},
      {"grown.jsonl", true, false},      // appended after the read: delivered again later
      {"shrunk.jsonl", true, false},
      {"replaced.jsonl", true, false},   // another file of the same size
      {"anonymous.jsonl", false, true},  // without an identity, the size alone decides
      {"link.jsonl", false, false},      // never through a link
      {"missing.jsonl", false, false},
      {"../" + std::string(std::filesystem::path(outside.path()).filename()) + "/t.jsonl", false,
       false},
      {"other", false, false},  // not an event file's name
  };
  for (const Case& c : cases) {
    const ShellSpool::DrainedFile mark = identity(c.name);
    const bool existed = std::filesystem::exists(std::filesystem::symlink_status(path(c.name)));
    EXPECT_EQ(ShellSpool::removeDelivered(dir.path(), c.name, 4, c.withIdentity ? &mark : nullptr),
              c.removed)
        << c.name;
    EXPECT_EQ(std::filesystem::exists(std::filesystem::symlink_status(path(c.name))),
              existed && !c.removed)
        << c.name;
  }
  EXPECT_TRUE(std::filesystem::exists(outside.file("t.jsonl")));
}

// ---- Where the spool is ----------------------------------------------------------------------

class HomeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const char* home = std::getenv("HOME")) saved = home;
  }
  void TearDown() override {
    if (saved) {
      ::setenv("HOME", saved->c_str(), 1);
    } else {
      ::unsetenv("HOME");
    }
  }
  std::optional<std::string> saved;
};

TEST_F(HomeTest, TheSpoolLivesUnderTheHomeDirectory) {
  for (const auto& [home, spool] : {std::pair{"/Users/tester", "/Users/tester"},
                                    {"/Users/tester/", "/Users/tester"}, {"/", ""}}) {
    ::setenv("HOME", home, 1);
    EXPECT_EQ(ShellSpool::defaultDir(), std::string(spool) + "/Library/Caches/tervain-dulk");
  }
}

TEST_F(HomeTest, WithoutHomeThePasswordDatabaseAnswers) {
  ::unsetenv("HOME");
  const std::string home = ShellSpool::homeDirectory();
  EXPECT_FALSE(home.empty());
  EXPECT_EQ(home.front(), '/');
  ::setenv("HOME", "", 1);
  EXPECT_EQ(ShellSpool::homeDirectory(), home);
}

}  // namespace
}  // namespace tervain
