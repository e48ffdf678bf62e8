#include "certificate.h"

#include <gtest/gtest.h>

#include "child_process.h"

namespace mvtest {

namespace {

TestCertificate make(const TempFolder& folder, const std::string& name) {
  TestCertificate c{folder / (name + ".crt"), folder / (name + ".key"), false};
  std::string output;
  const int status = runProgram(
      {OPENSSL_PROGRAM, "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
       "-nodes", "-keyout", c.key, "-out", c.cert, "-days", "2", "-subj", "/CN=localhost",
       "-addext", "subjectAltName=DNS:localhost"},
      &output);
  EXPECT_EQ(status, 0) << "openssl (scripts/setup.sh installs it): " << output;
  c.made = status == 0;
  return c;
}

}  // namespace

const TestCertificate& testCertificate(bool stranger) {
  static TempFolder folder("certificate");
  if (stranger) {
    static const TestCertificate other = make(folder, "stranger");
    return other;
  }
  static const TestCertificate daemon = make(folder, "daemon");
  return daemon;
}

}  // namespace mvtest
