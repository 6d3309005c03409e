/*
 * The keystore's calls as the cases make them: each runs one poc_* function
 * on the wallet the console uses, through the case's context (timed and
 * reported), requires that it succeeded, checks the size of what came back
 * before using it, and hands the answer over in a holder that wipes it.
 * A failed call or a wrongly sized answer is recorded as a failed check
 * and ends the case (CaseContext::Stop).
 *
 * `what` names the step in the recorded check ("restore data set 2").
 */
#ifndef TESSERA_CHECK_KEYSTORECALLS_H
#define TESSERA_CHECK_KEYSTORECALLS_H

#include <string>

#include "HDPath.h"
#include "cases/CaseContext.h"
#include "cases/KeyMath.h"
#include "cases/SecretBytes.h"

namespace check {
namespace keystore {

/* The wallet selector of every call: the console's wallet (1 * 256 + 84). */
constexpr unsigned char kSelectorHi = 1;
constexpr unsigned char kSelectorLo = 84;

/* Returns the path m/44'/60'/0'/0/account (the console's test paths),
 * account 0..4. */
[[nodiscard]] hd_path_param PathOf(unsigned account);
/* Returns "m/44'/60'/0'/0/<account>". */
[[nodiscard]] std::string PathText(unsigned account);

/* poc_restore_seed with seed[0..len) (borrowed). */
void Restore(CaseContext& ctx, const unsigned char* seed, unsigned len, const std::string& what);
/* poc_generate_seed. */
void Generate(CaseContext& ctx, const std::string& what);
/* poc_delete_seed. */
void Delete(CaseContext& ctx, const std::string& what);
/* poc_getMnemonic: the phrase, 1 to KEYSTORE_PHRASE_MAX_SIZE bytes. */
[[nodiscard]] SecretBytes Mnemonic(CaseContext& ctx, const std::string& what);
/* poc_check_mnemonic of text[0..len): the TA's verdict (1 valid). */
[[nodiscard]] unsigned CheckMnemonic(CaseContext& ctx, const char* text, unsigned len,
                                     const std::string& what);
/* poc_getAddress at PathOf(account): 20 bytes. */
[[nodiscard]] Address GetAddress(CaseContext& ctx, unsigned account);
/* poc_getPrivateKey at PathOf(account): 32 bytes. */
[[nodiscard]] SecretBytes PrivateKey(CaseContext& ctx, unsigned account);
/* poc_signTransaction of a 32-byte digest at PathOf(account): 65 bytes. */
[[nodiscard]] Signature Sign(CaseContext& ctx, unsigned account, const unsigned char digest[32],
                             const std::string& what);
/* poc_save_pin of pin[0..len). */
void SavePin(CaseContext& ctx, const char* pin, unsigned len, const std::string& what);
/* poc_check_pin of pin[0..len): the TA's verdict (KEYSTORE_PIN_*). */
[[nodiscard]] unsigned CheckPin(CaseContext& ctx, const char* pin, unsigned len,
                                const std::string& what);

}  // namespace keystore
}  // namespace check

#endif  // TESSERA_CHECK_KEYSTORECALLS_H
