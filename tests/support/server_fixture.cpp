#include "server_fixture.h"

#include "MVCore.h"

namespace mvtest {

void ServerFixture::SetUp() {
  mv::resetConnectionState();
  mv::setServerFactory([this](std::string_view host, mv::IBookServer** out) -> int32_t {
    hosts.emplace_back(host);
    if (failActivation != 0) return std::exchange(failActivation, 0);
    servers.push_back(
        std::make_unique<RecordingServer>(host.empty() ? "local" : std::string(host)));
    *out = servers.back().get();
    return 0;
  });
}

void ServerFixture::TearDown() {
  mv::setServerFactory(nullptr);
  mv::resetConnectionState();
}

RecordingServer& ServerFixture::connect() {
  EXPECT_EQ(MVInit(""), 0);
  return *servers.back();
}

}  // namespace mvtest
