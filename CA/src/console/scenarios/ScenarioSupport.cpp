// What the two scenarios share: the credential, output lines and the signature
// layout.
#include "ScenarioSupport.h"

#include "DeploymentCredential.h"
#include "HexUtils.h"


#include <algorithm>
#include <cstring>
#include <iostream>

namespace test {
namespace scenario {

Credential::Credential() { std::memset(&cred_, 0, sizeof cred_); }

Credential::~Credential() { tessera_secure_wipe(&cred_, sizeof cred_); }

bool Credential::init() {
  const int result =
      ss_init_credential(&cred_, tessera::kCredentialWords[0], tessera::kCredentialWords[1],
                         tessera::kCredentialWords[2], tessera::kCredentialWords[3],
                         tessera::kCredentialWords[4], tessera::kCredentialVersion,
                         tessera::kCredentialFlags);
  if (result != 0) {
    printLine("ss_init_credential: FAIL");
    return false;
  }
  return true;
}

void printLine(const std::string& text) { std::cout << text << std::endl; }

void printTextLine(const std::string& label, const char* text, unsigned int length) {
  std::cout << label;
  std::cout.write(text, static_cast<std::streamsize>(length));
  std::cout << "]" << std::endl;
}

void printHexLine(const std::string& label, const unsigned char* data, unsigned int length) {
  std::string hex = uint8_to_hex_string(data, length);
  std::cout << label << hex << "]" << std::endl;
  tessera_secure_wipe(hex.data(), hex.size());
}

void copySignature(unsigned char (&signature)[kSignatureSize], const unsigned char* data,
                   unsigned int length) {
  std::memset(signature, 0, sizeof signature);
  std::memcpy(signature, data, std::min(length, kSignatureSize));
}

}  // namespace scenario
}  // namespace test
