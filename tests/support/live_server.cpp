#include "live_server.h"

#include <csignal>
#include <cstdlib>
#include <fstream>

#include "MVCore.h"
#include "certificate.h"
#include "frame/connection.h"

namespace mvtest {

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
// the client finds both through its configuration file under the name "books".
void LiveServerTest::startDaemon() {
  const TestCertificate& certificate = testCertificate();
  ASSERT_TRUE(certificate.made);
  const std::string token = "token-" + std::to_string(reinterpret_cast<uintptr_t>(this));
  const std::string tokens = folder_->write("tokens", token + "\n");
  daemon_ = std::make_unique<ChildProcess>(std::vector<std::string>{
      BOOKSERVERD, "--data", data_, "--listen", "127.0.0.1:0", "--tls-cert", certificate.cert,
      "--tls-key", certificate.key, "--token-file", tokens});
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
