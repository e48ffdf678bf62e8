// Share folders of a daemon reached over the session's link, as from another machine: bytes go
// both ways in blocks, a connection lost in the middle of a write leaves nothing under the name,
// refusals arrive as the daemon's errno, and a configured mount replaces the link.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "daemon_thread.h"
#include "frame/exchange.h"
#include "platform/files.h"
#include "platform/utf.h"
#include "platform/wide.h"
#include "rpc/remote_book_server.h"
#include "temp_folder.h"

namespace mvtest {
namespace {

using namespace std::chrono_literals;

mv::rpc::ServeOptions serveAs(const char* name) {
  mv::rpc::ServeOptions options;
  options.shareServer = name;
  return options;
}

class RemoteShares : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(daemon.error(), ""); }
  mv::IBookServer* connect(const std::string& mount = "") {
    mv::rpc::ServerEndpoint endpoint;
    endpoint.address = "127.0.0.1";
    endpoint.port = daemon.port();
    endpoint.shareMount = mount;
    mv::IBookServer* server = nullptr;
    EXPECT_EQ(mv::rpc::connectRemote(endpoint, {}, &server), 0);
    return server;
  }
  // The staging folder, as the daemon answers it to `server`.
  static std::string openStaging(mv::IBookServer* server) {
    mv::Bstr folder;
    EXPECT_EQ(server->OpenNetShare(mv::toWide("c").get(), mv::toWide("pc").get(),
                                   mv::toWide("").get(), mv::toWide("").get(), -1, folder.out()),
              0);
    return mv::toAnsi(folder.get());
  }
  std::string onDisk(const std::string& name) const { return daemon.folder() + "/staging/" + name; }

  DaemonThread daemon{serveAs("books-host")};
  TempFolder local{"shares-client"};
};

TEST_F(RemoteShares, FilesCrossBothWaysWithTheirDatesAndRefusalsKeepTheirCause) {
  mv::IBookServer* server = connect();
  const std::string share = openStaging(server);
  ASSERT_EQ(share, "\\\\books-host\\staging");
  // Blocks of the read-ahead and the write stream, and a last short one.
  const std::string bytes = pattern(3 * (1u << 20) + 12345);
  const std::string source = local.write("big.bin", bytes);
  ASSERT_TRUE(mv::fs::setFileTimes(source, 1600000000));
  ASSERT_TRUE(mv::fs::copyFile(source, share + "\\big.bin", true));
  EXPECT_TRUE(content(onDisk("big.bin")) == bytes);
  // A copy within the share stays on the daemon; one back comes with its date.
  ASSERT_TRUE(mv::fs::copyFile(share + "\\big.bin", share + "\\again.bin", true));
  ASSERT_TRUE(mv::fs::copyFile(share + "\\again.bin", local / "back.bin", false));
  EXPECT_TRUE(content(local / "back.bin") == bytes);
  std::time_t when = 0;
  ASSERT_TRUE(mv::fs::lastWriteTime(local / "back.bin", &when));
  EXPECT_EQ(when, 1600000000);
  std::vector<std::string> names;
  for (const auto& e : mv::fs::findFiles(share + "\\*.bin")) names.push_back(e.name);
  EXPECT_EQ(names, (std::vector<std::string>{"again.bin", "big.bin"}));

  EXPECT_FALSE(mv::fs::copyFile(source, share + "\\big.bin", true));
  EXPECT_EQ(errno, EEXIST);
  EXPECT_FALSE(mv::fs::exists(share + "\\..\\db"));
  EXPECT_EQ(errno, EINVAL);
  ASSERT_EQ(server->CloseNetShare(mv::toWide("").get(), mv::toWide("").get(), -1), 0);
  EXPECT_FALSE(mv::fs::exists(share + "\\big.bin"));
  EXPECT_EQ(errno, EACCES);
  server->Release();
  // Without the session, nothing reaches the daemon's shares at all.
  EXPECT_FALSE(mv::fs::exists(share + "\\big.bin"));
  EXPECT_EQ(errno, ENOENT);
}

// Two links to one daemon, as MVChangeServer makes: a share path reaches the session that
// opened its share last.
TEST_F(RemoteShares, APathReachesTheLinkThatOpenedItsShareLast) {
  mv::IBookServer* home = connect();
  mv::IBookServer* other = connect();
  const std::string share = openStaging(home);
  ASSERT_TRUE(mv::fs::copyFile(local.write("h.bin", "home"), share + "\\h.bin", false));
  openStaging(other);
  ASSERT_EQ(other->CloseNetShare(mv::toWide("").get(), mv::toWide("").get(), -1), 0);
  EXPECT_FALSE(mv::fs::exists(share + "\\h.bin"));  // other's session has nothing open
  EXPECT_EQ(errno, EACCES);
  openStaging(home);
  EXPECT_TRUE(mv::fs::exists(share + "\\h.bin"));
  other->Release();
  EXPECT_TRUE(mv::fs::exists(share + "\\h.bin"));
  home->Release();
}

TEST_F(RemoteShares, AConnectionLostInAWriteLeavesNoFileAndTheNextTrySucceeds) {
  mv::IBookServer* server = connect();
  const std::string share = openStaging(server);
  auto writer = mv::fs::openWrite(share + "\\a.bin", false);
  ASSERT_TRUE(writer);
  const std::string half = pattern(1u << 20);
  ASSERT_TRUE(writer->write(half.data(), half.size()));
  server->Release();  // the connection ends in the middle of the file
  EXPECT_FALSE(writer->commit(-1));
  writer.reset();
  for (int i = 0; i < 500 && daemon.liveSessions() != 0; ++i) std::this_thread::sleep_for(10ms);
  ASSERT_EQ(daemon.liveSessions(), 0);
  std::vector<mv::fs::FileInfo> left;
  ASSERT_TRUE(mv::fs::localFiles().list(daemon.folder() + "/staging", left));
  for (const auto& e : left) EXPECT_TRUE(e.isDirectory) << e.name << " left behind";

  server = connect();
  openStaging(server);
  ASSERT_TRUE(mv::fs::copyFile(local.write("a.bin", half), share + "\\a.bin", false));
  EXPECT_TRUE(content(onDisk("a.bin")) == half);
  server->Release();
}

TEST_F(RemoteShares, AConfiguredMountIsUsedWithPlainLocalFiles) {
  mv::IBookServer* server = connect(daemon.folder());
  const std::string share = openStaging(server);
  EXPECT_EQ(share, daemon.folder() + "\\staging");
  ASSERT_TRUE(mv::fs::copyFile(local.write("m.bin", "mounted"), share + "\\m.bin", false));
  EXPECT_EQ(content(onDisk("m.bin")), "mounted");
  EXPECT_EQ(mv::fs::filesFor("\\\\books-host\\staging"), nullptr) << "no link was attached";
  server->Release();
}

}  // namespace
}  // namespace mvtest
