// Listening sockets. The vsock test only creates, binds and listens: it never connects.
#include "vsock/tervain_vsock.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "agent_process.h"

namespace tervain {
namespace {

TEST(VsockTest, ListensOnAHighPortOrReportsTheErrno) {
  const int fd = tervain_vsock_listen(52035, 4);
  if (fd < 0) {
    // A machine without a vsock transport: the function reports a negated errno, nothing else.
    EXPECT_TRUE(fd == -ENODEV || fd == -EAFNOSUPPORT || fd == -EADDRINUSE) << fd;
    GTEST_SKIP() << "no vsock transport here: " << std::strerror(-fd);
  }
  EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  int listening = 0;
  socklen_t len = sizeof listening;
  ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &len), 0);
  EXPECT_EQ(listening, 1);
  // The same port again is taken.
  EXPECT_EQ(tervain_vsock_listen(52035, 4), -EADDRINUSE);
  close(fd);
}

TEST(UnixListenTest, PrivateSocketThatReplacesOnlyStaleSockets) {
  testing::TempDir dir;
  const std::string path = dir.file("a.sock");
  // A file of someone else's next to the path, under the name a side name might have had.
  std::ofstream(path + ".new") << "user data";
  int fd = tervain_unix_listen(path.c_str(), 8);
  ASSERT_GE(fd, 0);
  struct stat st {};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  // The path appears only once the socket listens, under its own name alone, and the other file
  // is untouched.
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
    names.push_back(entry.path().filename());
  }
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"a.sock", "a.sock.new"}));
  std::string kept;
  std::getline(std::ifstream(path + ".new"), kept);
  EXPECT_EQ(kept, "user data");

  // Live: someone accepts there.
  EXPECT_EQ(tervain_unix_listen(path.c_str(), 8), -EADDRINUSE);
  close(fd);
  // Stale: the file is left behind by a listener that is gone.
  fd = tervain_unix_listen(path.c_str(), 8);
  EXPECT_GE(fd, 0);
  close(fd);

  const std::string plain = dir.file("plain");
  std::ofstream(plain) << "keep me";
  EXPECT_EQ(tervain_unix_listen(plain.c_str(), 8), -EEXIST);
  std::ifstream in(plain);
  std::string content;
  std::getline(in, content);
  EXPECT_EQ(content, "keep me");

  EXPECT_EQ(tervain_unix_listen((dir.path() + "/" + std::string(200, 'x')).c_str(), 8),
            -ENAMETOOLONG);
  EXPECT_EQ(tervain_unix_listen(dir.file("missing/a.sock").c_str(), 8), -ENOENT);
  // A path with no room for the side name is bound directly.
  const std::size_t room = sizeof(sockaddr_un{}.sun_path);
  const std::string longest = dir.path() + "/" + std::string(room - 3 - dir.path().size(), 'y');
  ASSERT_EQ(longest.size(), room - 2);
  fd = tervain_unix_listen(longest.c_str(), 8);
  EXPECT_GE(fd, 0);
  EXPECT_TRUE(std::filesystem::exists(longest));
  close(fd);
}

}  // namespace
}  // namespace tervain
