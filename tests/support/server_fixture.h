// A fixture whose MVInit and MVChangeServer connect to recording servers that the fixture owns.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "frame/connection.h"
#include "recording_server.h"

namespace mvtest {

class ServerFixture : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // MVInit("") and the server it connected to.
  RecordingServer& connect();

  // Every server the factory made, in order, and the host names it was asked for.
  std::vector<std::unique_ptr<RecordingServer>> servers;
  std::vector<std::string> hosts;
  // When non-zero, the next activation fails with this status.
  int32_t failActivation = 0;
};

}  // namespace mvtest
