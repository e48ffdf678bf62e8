// A throwaway self-signed certificate for "localhost" and 127.0.0.1, made once per test program
// with the openssl program and removed at its end.
#pragma once

#include <string>

namespace mvtest {

struct TestCertificate {
  std::string cert;  // PEM certificate, also the CA a client trusts
  std::string key;   // PEM private key
  bool made = false;
};

const TestCertificate& testCertificate();

}  // namespace mvtest
