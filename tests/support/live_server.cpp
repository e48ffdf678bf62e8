#include "live_server.h"

#include <csignal>

#include "MVCore.h"
#include "frame/connection.h"

namespace mvtest {

std::string serverKindName(const ::testing::TestParamInfo<ServerKind>& info) {
  return info.param == ServerKind::Embedded ? "Embedded" : "Remote";
}

void LiveServerTest::SetUp() {
  mv::resetConnectionState();
  ASSERT_EQ(MVSetCodePage("CP932"), 0);
  folder_ = std::make_unique<TempFolder>("live");
  if (remote()) {
    startDaemon();
    if (HasFatalFailure()) return;
  } else {
    ASSERT_EQ(MVSetDataFolder(folder().c_str()), 0);
  }
  ASSERT_EQ(MVInit(host_.c_str()), 0) << "status " << std::hex << mv::connection().lastError;
}

void LiveServerTest::TearDown() {
  if (mv::connection().currentServer) MVExit();
  mv::resetConnectionState();
  if (daemon_) {
    daemon_->signal(SIGTERM);
    EXPECT_EQ(daemon_->waitExit(), 0) << daemon_->log();
  }
  daemon_.reset();
  folder_.reset();
}

void LiveServerTest::startDaemon() {
  daemon_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{BOOKSERVERD, "--data", folder(), "--listen", "127.0.0.1:0"});
  const uint16_t port = daemon_->waitForPort();
  ASSERT_NE(port, 0) << daemon_->log();
  host_ = "127.0.0.1:" + std::to_string(port);
}

void LiveServerTest::killDaemon() {
  ASSERT_TRUE(daemon_);
  daemon_->signal(SIGKILL);
  daemon_->waitExit();
  daemon_.reset();
}

void LiveServerTest::restartDaemon() { startDaemon(); }

}  // namespace mvtest
