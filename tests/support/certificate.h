// Throwaway self-signed certificates for "localhost", made once per test program with the openssl
// program and removed at its end: the daemon's, and a stranger's that signed nothing of it.
#pragma once

#include <string>

namespace mvtest {

struct TestCertificate {
  std::string cert;  // PEM certificate, also the CA a client trusts
  std::string key;   // PEM private key
  bool made = false;
};

const TestCertificate& testCertificate(bool stranger = false);

}  // namespace mvtest
