// Suites that run the library against a real server, once in this process (MVInit("")) and once
// through a bookserverd started for the test on a loopback port. Each test gets a fresh data
// folder of its own; nothing touches the user's.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "child_process.h"

namespace mvtest {

enum class ServerKind { Embedded, Remote };

class LiveServerTest : public ::testing::TestWithParam<ServerKind> {
 protected:
  void SetUp() override;
  void TearDown() override;

  bool remote() const { return GetParam() == ServerKind::Remote; }
  // What MVInit was given: "", or "books", which the client configuration written for the test
  // maps to the daemon's port with TLS and a token.
  const std::string& host() const { return host_; }
  // The server's data folder.
  const std::string& dataFolder() const { return data_; }
  // Where the server's files really are, for a test that looks behind its back: a daemon in a
  // mount namespace of its own keeps them where the client is never told.
  std::string serverDisk() const;

  // The daemon of a remote test: stopped hard (SIGKILL), and started again on the same folder
  // (on a new port, which the client configuration follows).
  void killDaemon();
  void restartDaemon();

 private:
  void startDaemon();

  std::unique_ptr<TempFolder> folder_;
  std::string data_;
  std::unique_ptr<ChildProcess> daemon_;
  std::string host_;
};

// Whether this process may start daemons in mount namespaces of their own (root, unshare).
bool namespacedDaemons();

std::string serverKindName(const ::testing::TestParamInfo<ServerKind>& info);

}  // namespace mvtest

// Runs every test of `Fixture` (a LiveServerTest) against both servers.
#define MVCORE_ON_BOTH_SERVERS(Fixture)                                                \
  INSTANTIATE_TEST_SUITE_P(                                                            \
      Servers, Fixture,                                                                \
      ::testing::Values(::mvtest::ServerKind::Embedded, ::mvtest::ServerKind::Remote), \
      ::mvtest::serverKindName)
