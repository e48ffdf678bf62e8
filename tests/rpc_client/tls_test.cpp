// TLS links: a throwaway CA and a daemon certificate made with the openssl command for the
// suite; the client trusts only the configured CA and checks the daemon's name.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "client_env.h"
#include "frame/blocks.h"
#include "remote_test_util.h"

namespace mvtest {
namespace {

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

class TlsLink : public ClientEnvTest {
 protected:
  static void SetUpTestSuite() {
    certs_ = ::testing::TempDir() + "mvcore-tls-" + std::to_string(::getpid());
    std::filesystem::create_directories(certs_);
    const std::string d = certs_;
    const std::string key = " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
    std::ofstream(d + "/server.ext") << "subjectAltName=DNS:localhost\n"
                                        "basicConstraints=CA:FALSE\n"
                                        "extendedKeyUsage=serverAuth\n";
    const std::string script =
        "cd '" + d + "' && ( " + "openssl req -x509" + key +
        " -keyout ca.key -out ca.pem -days 2 -subj /CN=mvcore-test-ca"
        " -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign" +
        " && openssl req -x509" + key +
        " -keyout other.key -out other-ca.pem -days 2 -subj /CN=mvcore-other-ca"
        " -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign" +
        " && openssl req" + key + " -keyout server.key -out server.csr -subj /CN=localhost" +
        " && openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial"
        " -out server.pem -days 2 -extfile server.ext" +
        " ) > openssl.log 2>&1";
    made_ = std::system(script.c_str()) == 0;
  }

  static void TearDownTestSuite() {
    std::error_code ec;
    std::filesystem::remove_all(certs_, ec);
  }

  void SetUp() override {
    ClientEnvTest::SetUp();
    if (!made_) GTEST_SKIP() << "openssl could not make the test certificates; see " << certs_;
  }

  static DaemonOptions tlsDaemon() {
    DaemonOptions o;
    o.certPem = slurp(certs_ + "/server.pem");
    o.keyPem = slurp(certs_ + "/server.key");
    return o;
  }

  // Connects by name through a configuration that holds `settings` for it.
  int32_t connectNamed(const std::string& settings) {
    useConfig("[secure]\n" + settings);
    mv::IBookServer* server = nullptr;
    const int32_t status = mv::rpc::connectRemote("secure", &server);
    if (server != nullptr) server->Release();
    return status;
  }

  static std::string certs_;
  static bool made_;
};

std::string TlsLink::certs_;
bool TlsLink::made_ = false;

TEST_F(TlsLink, AVerifiedDaemonAnswersOverTls) {
  TestDaemon daemon(tlsDaemon());
  useConfig("[secure]\naddress = 127.0.0.1\nport = " + std::to_string(daemon.port()) +
            "\nca = " + certs_ + "/ca.pem\ntls-name = localhost\ntoken = t\n");
  mv::IBookServer* server = nullptr;
  ASSERT_EQ(mv::rpc::connectRemote("secure", &server), 0) << mv::rpc::lastConnectError();
  EXPECT_EQ(server->ConnectCheck(), 0);
  // Rows come through the TLS stream as they do in the clear.
  const mv::Bstr db(u"Book1"), table(u"TagPageTBL");
  int32_t rows = 0;
  mv::Bstr handle;
  ASSERT_EQ(server->OpenTable(db.get(), table.get(), 0, &rows, handle.out()), 0);
  for (int i = 0; i < rows; ++i) {
    mv::Variant row;
    ASSERT_EQ(server->GetRecords(db.get(), handle.get(), i, row.get()), 0);
    ASSERT_EQ(rowTexts(row), expectedRow(i, 0));
  }
  EXPECT_EQ(daemon.log().getRecords, 3);
  server->Release();
  std::lock_guard<std::mutex> lock(daemon.log().mutex);
  EXPECT_EQ(daemon.log().tokens, std::vector<std::string>{"t"});
}

TEST_F(TlsLink, ABlobReadAheadComesThroughTlsByteForByte) {
  DaemonOptions o = tlsDaemon();
  o.blobBytes = int64_t{mv::kBlockSize} * 5 + 123;
  TestDaemon daemon(o);
  useConfig("[secure]\naddress = 127.0.0.1\nport = " + std::to_string(daemon.port()) +
            "\nca = " + certs_ + "/ca.pem\ntls-name = localhost\n");
  mv::IBookServer* server = nullptr;
  ASSERT_EQ(mv::rpc::connectRemote("secure", &server), 0) << mv::rpc::lastConnectError();
  const mv::Bstr db(u"Book1"), handle(u"H1"), column(u"RealityData");
  std::vector<uint8_t> got;
  const mv::DownloadResult r = mv::downloadBlocks(*server, db.get(), handle.get(), column.get(),
                                                  [&](const uint8_t* data, std::size_t n) {
                                                    got.insert(got.end(), data, data + n);
                                                    return true;
                                                  });
  server->Release();
  EXPECT_EQ(r.status, 0);
  ASSERT_EQ(got.size(), static_cast<std::size_t>(o.blobBytes));
  for (std::size_t i = 0; i < got.size(); ++i) {
    ASSERT_EQ(got[i], blobByte(u"RealityData", 0, static_cast<int64_t>(i))) << i;
  }
  // Read ahead: each block asked for once and in order, some past the sixth and last.
  const std::vector<DownloadRequest> asked = daemon.log().downloadsSoFar();
  ASSERT_GE(asked.size(), 6u);
  EXPECT_LE(asked.size(), 10u);
  for (std::size_t i = 0; i < asked.size(); ++i)
    EXPECT_EQ(asked[i].blockNo, static_cast<int32_t>(i + 1));
}

TEST_F(TlsLink, ACertificateFromAnotherCaOrForAnotherNameIsRefused) {
  TestDaemon daemon(tlsDaemon());
  const std::string at = "address = 127.0.0.1\nport = " + std::to_string(daemon.port()) + "\n";
  EXPECT_EQ(connectNamed(at + "ca = " + certs_ + "/other-ca.pem\ntls-name = localhost\n"),
            mv::rpc::kStatusCertificateRefused)
      << mv::rpc::lastConnectError();
  EXPECT_EQ(connectNamed(at + "ca = " + certs_ + "/ca.pem\ntls-name = books.example\n"),
            mv::rpc::kStatusCertificateRefused)
      << mv::rpc::lastConnectError();
  // The default name is the address, which the certificate does not carry.
  EXPECT_EQ(connectNamed(at + "ca = " + certs_ + "/ca.pem\n"), mv::rpc::kStatusCertificateRefused);
  EXPECT_EQ(daemon.log().logins, 0);
}

TEST_F(TlsLink, TlsAgainstAPlainDaemonIsRefusedAndABadCaFileIsAConfigurationError) {
  TestDaemon plain;
  const std::string at = "address = 127.0.0.1\nport = " + std::to_string(plain.port()) + "\n";
  EXPECT_EQ(connectNamed(at + "ca = " + certs_ + "/ca.pem\ntls-name = localhost\n"),
            mv::rpc::kStatusCertificateRefused);
  EXPECT_EQ(plain.log().logins, 0);
  writeFile("not-a-cert.pem", "hello\n");
  EXPECT_EQ(connectNamed(at + "ca = not-a-cert.pem\n"), mv::rpc::kStatusConfigUnreadable);
  EXPECT_EQ(connectNamed(at + "ca = missing.pem\n"), mv::rpc::kStatusConfigUnreadable);
}

}  // namespace
}  // namespace mvtest
