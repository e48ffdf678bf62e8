#include "live_server.h"

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>

#include "MVCore.h"
#include "certificate.h"
#include "frame/connection.h"

namespace mvtest {

bool namespacedDaemons() {
  static const bool can = ::geteuid() == 0 && ::access("/usr/bin/unshare", X_OK) == 0 &&
                          std::system("/usr/bin/unshare --mount true >/dev/null 2>&1") == 0;
  return can;
}

std::string serverKindName(const ::testing::TestParamInfo<ServerKind>& info) {
  return info.param == ServerKind::Embedded ? "Embedded" : "Remote";
}

void LiveServerTest::SetUp() {
  mv::resetConnectionState();
  ASSERT_EQ(MVSetCodePage("CP932"), 0);
  folder_ = std::make_unique<TempFolder>("live");
  data_ = *folder_ / "data";
  if (remote()) {
    startDaemon();
    if (HasFatalFailure()) return;
  } else {
    ASSERT_EQ(MVSetDataFolder(data_.c_str()), 0);
  }
  ASSERT_EQ(MVInit(host_.c_str()), 0) << "status " << std::hex << mv::connection().lastError;
}

void LiveServerTest::TearDown() {
  if (mv::connection().currentServer) MVExit();
  ::unsetenv("MVCORE_CLIENT_CONF");
  mv::resetConnectionState();
  if (daemon_) {
    daemon_->signal(SIGTERM);
    EXPECT_EQ(daemon_->waitExit(), 0) << daemon_->log();
  }
  daemon_.reset();
  folder_.reset();
}

// The daemon as it would be deployed: TLS with a certificate the client verifies, and a token;
// the client finds both through its configuration file under the name "books". Where it can
// (as root, which CI is), the daemon runs in a mount namespace of its own, in which its data
// folder is a bind mount of a folder the client is never told of: from the client's side the
// data folder is an empty directory, so whatever the client does with the daemon's files goes
// over the link, as it does from another machine. The folder outlives the daemon, so a
// restarted daemon finds its data again.
std::string LiveServerTest::serverDisk() const {
  return remote() && namespacedDaemons() ? std::string(*folder_ / ".daemon-disk") : data_;
}

void LiveServerTest::startDaemon() {
  const TestCertificate& certificate = testCertificate();
  ASSERT_TRUE(certificate.made);
  const std::string token = "token-" + std::to_string(reinterpret_cast<uintptr_t>(this));
  const std::string tokens = folder_->write("tokens", token + "\n");
  std::vector<std::string> args{
      BOOKSERVERD,      "--data",    data_,           "--listen",     "127.0.0.1:0", "--tls-cert",
      certificate.cert, "--tls-key", certificate.key, "--token-file", tokens};
  if (namespacedDaemons()) {
    const std::string hidden = serverDisk();
    ::mkdir(hidden.c_str(), 0700);
    ::mkdir(data_.c_str(), 0700);
    args.insert(args.begin(),
                {"/usr/bin/unshare", "--mount", "--propagation", "private", "--", "/bin/sh", "-c",
                 "mount --bind \"$1\" \"$2\" && shift 2 && exec \"$@\"", "sh", hidden, data_});
  }
  daemon_ = std::make_unique<ChildProcess>(args);
  const uint16_t port = daemon_->waitForPort();
  ASSERT_NE(port, 0) << daemon_->log();
  const std::string conf =
      folder_->write("client.conf", "[books]\naddress = 127.0.0.1\nport = " + std::to_string(port) +
                                        "\nca = " + certificate.cert +
                                        "\ntls-name = localhost\ntoken = " + token + "\n");
  ASSERT_EQ(::setenv("MVCORE_CLIENT_CONF", conf.c_str(), 1), 0);
  host_ = "books";
}

void LiveServerTest::killDaemon() {
  ASSERT_TRUE(daemon_);
  daemon_->signal(SIGKILL);
  daemon_->waitExit();
  daemon_.reset();
}

void LiveServerTest::restartDaemon() { startDaemon(); }

}  // namespace mvtest
