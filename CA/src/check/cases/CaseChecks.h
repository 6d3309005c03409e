/*
 * Checks that several areas make the same way: bytes against an expected
 * value, a private key against an address, a signature's signer and form.
 * Each records one or more checks in the case's context and returns
 * whether they all passed; none stops the case.
 */
#ifndef TESSERA_CHECK_CASECHECKS_H
#define TESSERA_CHECK_CASECHECKS_H

#include <cstddef>
#include <string>

#include "cases/CaseContext.h"
#include "cases/KeyMath.h"
#include "cases/SecretBytes.h"

namespace check {

/* Returns the address as 40 hex digits. */
[[nodiscard]] std::string AddressText(const Address& address);

/* `actual` equals `expected` (size bytes each), compared in constant time;
 * a failure shows both in hex. For the compiled-in test vectors, whose
 * values are public. */
bool CheckBytes(CaseContext& ctx, const std::string& name, const unsigned char* expected,
                const unsigned char* actual, std::size_t size);

/* The address the client computes from `key` equals `address`. The key is
 * never shown; a failure shows the two addresses. */
bool CheckKeyGivesAddress(CaseContext& ctx, const std::string& name, const SecretBytes& key,
                          const Address& address);

/* The address recovered from `signature` over `digest` equals `signer`. */
bool CheckSigner(CaseContext& ctx, const std::string& name, const unsigned char digest[32],
                 const Signature& signature, const Address& signer);

/* CheckKeyGivesAddress and CheckSigner deferred (CaseContext::Defer): the
 * arithmetic runs after the case's calls, beside the next case's. They
 * take their own copies; the key is wiped when the check is done. */
void DeferKeyGivesAddress(CaseContext& ctx, std::string name, SecretBytes key, const Address& address);
void DeferSigner(CaseContext& ctx, std::string name, const unsigned char digest[32],
                 const Signature& signature, const Address& signer);

/* S is in the lower half of the group order and v is 0 or 1. */
bool CheckSignatureForm(CaseContext& ctx, const std::string& name, const Signature& signature);

/* Reads the private key and the address at `account` of the seed the
 * keystore holds, signs the test digest there, and checks that the
 * signature has the right form, that the key gives the address and that
 * the signature recovers to it (the last two deferred). A failed call ends
 * the case as the keystore calls do. */
void CheckAccountAgrees(CaseContext& ctx, unsigned account);

}  // namespace check

#endif  // TESSERA_CHECK_CASECHECKS_H
