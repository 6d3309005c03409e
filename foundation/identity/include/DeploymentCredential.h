/*
 * The console's deployment identity: the words a normal-world client gives
 * ss_init_credential to obtain its credential. They are a property of the
 * deployment, not of either side: the keystore TA's installation lists the
 * token these words give (tools/make_props derives that list at build time),
 * and the console and the checker make their credential from them, so the
 * two cannot drift apart.
 */
#ifndef TESSERA_IDENTITY_DEPLOYMENTCREDENTIAL_H
#define TESSERA_IDENTITY_DEPLOYMENTCREDENTIAL_H

#include <cstdint>

namespace tessera {

/* The five identity words, in the order ss_init_credential takes them. */
constexpr uint32_t kCredentialWords[5] = {0x54455353u, 0x45524101u, 0x0000E5A7u, 0x00000154u,
                                          0x2C3C0000u};
/* The version and flags that follow the words. */
constexpr uint32_t kCredentialVersion = 1;
constexpr uint32_t kCredentialFlags = 0;

}  // namespace tessera

#endif  // TESSERA_IDENTITY_DEPLOYMENTCREDENTIAL_H
