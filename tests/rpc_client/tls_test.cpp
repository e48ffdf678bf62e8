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
  std::ostringstream s;
  s << std::ifstream(path, std::ios::binary).rdbuf();
  return s.str();
}

class TlsLink : public ClientEnvTest {
 protected:
  static void SetUpTestSuite() {
    certs_ = ::testing::TempDir() + "mvcore-tls-" + std::to_string(::getpid());
    std::filesystem::create_directories(certs_);
    std::ofstream(certs_ + "/server.ext")
        << "subjectAltName=DNS:localhost\nbasicConstraints=CA:FALSE\nextendedKeyUsage=serverAuth\n";
    const std::string key = " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
    const std::string ca =
        " -days 2 -addext basicConstraints=critical,CA:TRUE"
        " -addext keyUsage=critical,keyCertSign";
    const std::string script =
        "cd '" + certs_ + "' && ( openssl req -x509" + key + " -keyout ca.key -out ca.pem" + ca +
        " -subj /CN=mvcore-test-ca && openssl req -x509" + key +
        " -keyout other.key -out other-ca.pem -subj /CN=mvcore-other-ca" + ca + " && openssl req" +
        key + " -keyout server.key -out server.csr -subj /CN=localhost" +
        " && openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial"
        " -out server.pem -days 2 -extfile server.ext ) > openssl.log 2>&1";
    haveOpenssl_ = std::system("command -v openssl > /dev/null 2>&1") == 0;
    made_ = haveOpenssl_ && std::system(script.c_str()) == 0;
  }

  static void TearDownTestSuite() {
    std::error_code ec;
    std::filesystem::remove_all(certs_, ec);
  }

  void SetUp() override {
    if (!haveOpenssl_) GTEST_SKIP() << "the openssl program is not installed (scripts/setup.sh)";
    ASSERT_TRUE(made_) << "openssl could not make the test certificates:\n"
                       << slurp(certs_ + "/openssl.log");
  }

  static DaemonOptions tlsDaemon() {
    DaemonOptions o;
    o.certPem = slurp(certs_ + "/server.pem");
    o.keyPem = slurp(certs_ + "/server.key");
    return o;
  }

  // Connects by name through a configuration that holds `settings` for it.
  int32_t connectNamed(const TestDaemon& daemon, const std::string& settings,
                       mv::IBookServer** server = nullptr) {
    useConfig("[secure]\naddress = 127.0.0.1\nport = " + std::to_string(daemon.port()) + "\n" +
              settings);
    mv::IBookServer* s = nullptr;
    const int32_t status = mv::rpc::connectRemote("secure", &s);
    if (server != nullptr) *server = s;
    if (server == nullptr && s != nullptr) s->Release();
    return status;
  }

  static std::string certs_;
  static bool haveOpenssl_;
  static bool made_;
};

std::string TlsLink::certs_;
bool TlsLink::haveOpenssl_ = false;
bool TlsLink::made_ = false;

TEST_F(TlsLink, AVerifiedDaemonAnswersRowsAndABlobByteForByte) {
  DaemonOptions o = tlsDaemon();
  o.blobBytes = int64_t{mv::kBlockSize} * 5 + 123;
  TestDaemon daemon(o);
  mv::IBookServer* server = nullptr;
  ASSERT_EQ(connectNamed(daemon, "ca = " + certs_ + "/ca.pem\ntls-name = localhost\ntoken = t\n",
                         &server),
            0)
      << mv::rpc::lastConnectError();
  EXPECT_EQ(server->ConnectCheck(), 0);
  const mv::Bstr db(u"Book1"), table(u"TagPageTBL"), handle(u"H1"), column(u"RealityData");
  int32_t rows = 0;
  mv::Bstr opened;
  ASSERT_EQ(server->OpenTable(db.get(), table.get(), 0, &rows, opened.out()), 0);
  mv::Variant row;
  ASSERT_EQ(server->GetRecords(db.get(), opened.get(), rows - 1, row.get()), 0);
  EXPECT_EQ(rowTexts(row), expectedRow(rows - 1, 0));
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
  std::lock_guard<std::mutex> lock(daemon.log().mutex);
  EXPECT_EQ(daemon.log().tokens, std::vector<std::string>{"t"});
}

TEST_F(TlsLink, AnUnverifiedDaemonIsRefusedAndABadCaFileIsAConfigurationError) {
  TestDaemon tls(tlsDaemon());
  TestDaemon plain;
  writeFile("not-a-cert.pem", "hello\n");
  const std::string ca = "ca = " + certs_ + "/ca.pem\n";
  const struct {
    const TestDaemon* daemon;
    std::string settings;
    int32_t status;
  } cases[] = {{&tls, "ca = " + certs_ + "/other-ca.pem\ntls-name = localhost\n",
                mv::rpc::kStatusCertificateRefused},
               {&tls, ca + "tls-name = books.example\n", mv::rpc::kStatusCertificateRefused},
               // The default name is the address, which the certificate does not carry.
               {&tls, ca, mv::rpc::kStatusCertificateRefused},
               {&plain, ca + "tls-name = localhost\n", mv::rpc::kStatusCertificateRefused},
               {&plain, "ca = not-a-cert.pem\n", mv::rpc::kStatusConfigUnreadable},
               {&plain, "ca = missing.pem\n", mv::rpc::kStatusConfigUnreadable}};
  for (const auto& c : cases) {
    EXPECT_EQ(connectNamed(*c.daemon, c.settings), c.status)
        << c.settings << mv::rpc::lastConnectError();
  }
  EXPECT_EQ(tls.log().logins, 0);
  EXPECT_EQ(plain.log().logins, 0);
}

}  // namespace
}  // namespace mvtest
