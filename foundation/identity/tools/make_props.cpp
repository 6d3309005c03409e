// Writes the keystore TA's installation properties: the allow-list of
// credential tokens, made with the real ss_init_credential from the
// deployment's identity words, so the TA serves exactly the credential the console uses.
//
// Usage: keystore_make_props <output file>
#include <cstdio>

#include "DeploymentCredential.h"
#include "keystore_ta.h"
#include "securestorage.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <output file>\n", argv[0]);
    return 2;
  }
  credential console;
  const uint32_t* w = tessera::kCredentialWords;
  const int rc = ss_init_credential(&console, w[0], w[1], w[2], w[3], w[4],
                                    tessera::kCredentialVersion, tessera::kCredentialFlags);
  if (rc != 0) {
    std::fprintf(stderr, "%s: ss_init_credential failed (%d)\n", argv[0], rc);
    return 1;
  }
  std::FILE* out = std::fopen(argv[1], "w");
  if (out == nullptr) {
    std::perror(argv[1]);
    return 1;
  }
  std::fprintf(out, "# Installation properties of the keystore TA (%s).\n", KEYSTORE_TA_UUID_TEXT);
  std::fprintf(out, "# Generated at build time from foundation/identity/include/DeploymentCredential.h.\n");
  std::fprintf(out, "%s = ", KEYSTORE_PROP_ALLOWED_CREDENTIALS);
  for (unsigned i = 0; i < SS_TOKEN_SIZE; ++i) std::fprintf(out, "%02x", console.token[i]);
  std::fprintf(out, "\n");
  if (std::fclose(out) != 0) {
    std::perror(argv[1]);
    return 1;
  }
  return 0;
}
