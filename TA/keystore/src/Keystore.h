/*
 * The keystore TA's state and its command handler.
 *
 * One Keystore lives per TA instance (the TA is single-instance and
 * multi-session, so every client shares it). It holds:
 *  - the credential allow-list, read once from the installation property
 *    tessera.keystore.allowed_credentials;
 *  - a randomised secp256k1 context;
 *  - a bounded cache of wallets: each cached wallet keeps its stored record,
 *    its BIP-32 master node (so PBKDF2 runs once per seed, not per command)
 *    and up to kNodesPerWallet derived nodes, so that a key, address or
 *    signature at a path seen before costs no derivation at all. Evicted
 *    entries and replaced seeds are wiped.
 * The persistent record is the truth: every change is written to storage
 * first and enters the cache only once the write succeeded; a failed write
 * evicts the wallet, so the next command reads storage again.
 *
 * Invoke() is the one door: it never crashes on any input, refuses a
 * malformed request with TEE_ERROR_BAD_PARAMETERS and an unknown command
 * with TEE_ERROR_NOT_SUPPORTED, and writes answers with CTzfrWsm into the
 * caller's buffer (see keystore_ta.h for the fields of each command).
 */
#ifndef KEYSTORE_KEYSTORE_H
#define KEYSTORE_KEYSTORE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Keys.h"
#include "Wallet.h"
#include "keystore_ta.h"
#include "tee_internal_api.h"

class CTzfrWsm;

namespace keystore {

class Keystore {
 public:
  static constexpr std::size_t kMaxWallets = 4;
  static constexpr std::size_t kNodesPerWallet = 32;
  /* Largest request that is read (bytes of the shared buffer). */
  static constexpr std::size_t kMaxRequestSize = 64 * 1024;
  /* Accepted PIN lengths. */
  static constexpr uint32_t kMaxPinLength = KEYSTORE_PIN_MAX_SIZE;

  /* Makes the instance's keystore.
   * Returns TEE_SUCCESS and sets *out (owned by the caller), or
   * TEE_ERROR_BAD_FORMAT for an allow-list that does not parse,
   * TEE_ERROR_OUT_OF_MEMORY, or TEE_ERROR_GENERIC when the secp256k1
   * context could not be made. A missing allow-list is an empty one. */
  static TEE_Result Create(std::unique_ptr<Keystore>* out);
  ~Keystore();
  Keystore(const Keystore&) = delete;
  Keystore& operator=(const Keystore&) = delete;

  /* Runs one command. In: params[0] a memref in/out holding the request;
   * params[1..3] none. On success the answer is in params[0]'s buffer and
   * params[0].memref.size is the number of bytes the TA wrote (the answer,
   * and zeros over the rest of the request it overwrote). */
  TEE_Result Invoke(uint32_t command, uint32_t param_types, TEE_Param params[4]) noexcept;

  /* For tests: how many wallets and derived nodes are cached. */
  std::size_t CachedWallets() const;
  std::size_t CachedNodes() const;

 private:
  struct CachedNode {
    bool used = false;
    uint32_t depth = 0;
    uint32_t path[5] = {};
    Node node;
    bool has_pub = false;
    secp256k1_pubkey pub{};
    uint64_t last_use = 0;
    void Clear();
  };
  struct Wallet {
    bool used = false;
    WalletId id{};
    WalletRecord record;
    bool has_master = false;
    CachedNode master;
    std::array<CachedNode, kNodesPerWallet> nodes;
    uint64_t last_use = 0;
    void Clear();
  };
  struct Answer;

  explicit Keystore(Curve* curve);

  TEE_Result Dispatch(uint32_t command, CTzfrWsm& request, Answer* answer);
  TEE_Result RestoreSeed(CTzfrWsm& request);
  TEE_Result GenerateSeed(CTzfrWsm& request);
  TEE_Result DeleteSeed(CTzfrWsm& request);
  TEE_Result SavePin(CTzfrWsm& request);
  TEE_Result CheckPin(CTzfrWsm& request, Answer* answer);
  TEE_Result GetMnemonic(CTzfrWsm& request, Answer* answer);
  TEE_Result CheckMnemonic(CTzfrWsm& request, Answer* answer);
  TEE_Result PathCommand(uint32_t command, CTzfrWsm& request, Answer* answer);

  bool Allowed(const unsigned char token[32]) const;
  /* Checks a credential token against the allow-list and names the wallet
   * of (token, selector). TEE_ERROR_ACCESS_DENIED for a token not listed. */
  TEE_Result Authorize(const unsigned char* token, uint32_t selector, WalletId* id) const;
  /* The wallet, from the cache or from storage. */
  TEE_Result Find(const WalletId& id, Wallet** out);
  /* Authorize, then Find: the wallet of an allowed (token, selector), or
   * TEE_ERROR_ACCESS_DENIED / TEE_ERROR_ITEM_NOT_FOUND (no seed). */
  TEE_Result OpenWallet(const unsigned char* token, uint32_t selector, Wallet** out);
  /* Writes a new seed record (PIN cleared) and caches it. */
  TEE_Result ReplaceSeed(const WalletId& id, const unsigned char* entropy, std::size_t len);
  /* Writes `next` for a cached wallet; evicts the wallet when that fails. */
  TEE_Result Update(Wallet* wallet, const WalletRecord& next);
  /* The node at a five-level path, derived from the nearest cached one. */
  TEE_Result NodeAt(Wallet* wallet, const uint32_t path[5], CachedNode** out);
  bool EnsureMaster(Wallet* wallet);
  bool EnsurePub(CachedNode* node);
  Wallet* CacheSlot(const WalletId& id);
  void Evict(const WalletId& id);

  std::unique_ptr<Curve> curve_;
  std::vector<std::array<unsigned char, 32>> allowed_;
  std::unique_ptr<std::array<Wallet, kMaxWallets>> wallets_;
  uint64_t clock_ = 0;
};

}  // namespace keystore

#endif  // KEYSTORE_KEYSTORE_H
