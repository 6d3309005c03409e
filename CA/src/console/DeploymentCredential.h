#ifndef TESSERA_CONSOLE_DEPLOYMENTCREDENTIAL_H
#define TESSERA_CONSOLE_DEPLOYMENTCREDENTIAL_H

#include <cstdint>

namespace test {

/* The console's identity words, given to ss_init_credential (followed by the
 * values 1 and 0) before the first keystore call of a scenario. They are a
 * property of the deployment: the keystore TA's installation lists the token
 * that these words give, and the build derives that list from this header,
 * so the two cannot drift apart. */
constexpr uint32_t kCredentialWords[5] = {0x54455353u, 0x45524101u, 0x0000E5A7u, 0x00000154u,
                                          0x2C3C0000u};

}  // namespace test

#endif  // TESSERA_CONSOLE_DEPLOYMENTCREDENTIAL_H
