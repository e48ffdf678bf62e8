#include "certificate.h"

#include <gtest/gtest.h>

#include "child_process.h"

namespace mvtest {

const TestCertificate& testCertificate() {
  static TempFolder folder("certificate");
  static const TestCertificate made = [] {
    TestCertificate c{folder / "server.crt", folder / "server.key", false};
    std::string output;
    const int status = runProgram(
        {OPENSSL_PROGRAM, "req", "-x509", "-newkey", "ec", "-pkeyopt",
         "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", c.key, "-out", c.cert, "-days", "2",
         "-subj", "/CN=localhost", "-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1"},
        &output);
    EXPECT_EQ(status, 0) << "openssl (scripts/setup.sh installs it): " << output;
    c.made = status == 0;
    return c;
  }();
  return made;
}

}  // namespace mvtest
