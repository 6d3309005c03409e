// The keystore TA's command handler: requests parsed from a private copy,
// wallets, answers.
#include "Keystore.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string>

#include "Bip39.h"
#include "CTzfrWsm.h"
#include "Faults.h"
#include "keystore_ta.h"

namespace keystore {
namespace {

constexpr uint32_t kParamTypes = TEE_PARAM_TYPES(TEE_PARAM_TYPE_MEMREF_INOUT, TEE_PARAM_TYPE_NONE,
                                                 TEE_PARAM_TYPE_NONE, TEE_PARAM_TYPE_NONE);
constexpr std::size_t kMaxAnswerData = 256;  // the longest answer is a 24-word phrase
static_assert(kMaxAnswerData >= KEYSTORE_PHRASE_MAX_SIZE, "room for the longest phrase");
constexpr std::size_t kAddressSize = KEYSTORE_ADDRESS_SIZE;
constexpr std::size_t kKeySize = KEYSTORE_PRIVATE_KEY_SIZE;
constexpr std::size_t kSignatureSize = KEYSTORE_SIGNATURE_SIZE;
constexpr std::size_t kDigestSize = KEYSTORE_DIGEST_SIZE;

std::size_t Padded(std::size_t n) { return (n + 3) & ~std::size_t{3}; }

// Room an answer of the command needs in the caller's buffer, at most; 0
// for a command that does not exist.
std::size_t MaxAnswerSize(uint32_t command) {
  const std::size_t header = CTzfrWsm::kHeaderSize;
  const std::size_t value = CTzfrWsm::kFieldHeaderSize + 4;
  const auto data = [&](std::size_t n) { return header + value + CTzfrWsm::kFieldHeaderSize + Padded(n); };
  switch (command) {
    case KEYSTORE_CMD_RESTORE_SEED:
    case KEYSTORE_CMD_DELETE_SEED:
    case KEYSTORE_CMD_SAVE_PIN:
    case KEYSTORE_CMD_GENERATE_SEED:
      return header;
    case KEYSTORE_CMD_CHECK_PIN:
    case KEYSTORE_CMD_CHECK_MNEMONIC:
      return header + value;
    case KEYSTORE_CMD_GET_MNEMONIC:
      return data(bip39::kMaxPhraseLength);
    case KEYSTORE_CMD_GET_ADDRESS:
      return data(kAddressSize);
    case KEYSTORE_CMD_SIGN:
      return data(kSignatureSize);
    case KEYSTORE_CMD_GET_PRIVATE_KEY:
      return data(kKeySize);
    default:
      return 0;
  }
}

// Credential (32-byte blob) and selector word, the start of most requests.
bool ReadHeader(CTzfrWsm& request, const unsigned char** token, uint32_t* selector) {
  *token = static_cast<const unsigned char*>(request.GetBlob(KEYSTORE_CREDENTIAL_SIZE));
  unsigned value = 0;
  if (*token == nullptr || !request.GetUint(&value)) return false;
  *selector = value;
  return true;
}

// A length field and a blob of that length.
bool ReadSized(CTzfrWsm& request, const unsigned char** bytes, uint32_t* len) {
  unsigned n = 0;
  if (!request.GetUint(&n)) return false;
  *bytes = static_cast<const unsigned char*>(request.GetBlob(n));
  *len = n;
  return *bytes != nullptr;
}

// The request of both PIN commands: header, then a PIN of 1 to kMaxPinLength
// bytes, and nothing after it.
bool ReadPinRequest(CTzfrWsm& request, const unsigned char** token, uint32_t* selector,
                    const unsigned char** pin, uint32_t* len) {
  return ReadHeader(request, token, selector) && ReadSized(request, pin, len) &&
         request.AtEnd() && *len != 0 && *len <= Keystore::kMaxPinLength;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// "hex64, hex64, ..." into tokens; false when an entry is not 64 hex digits.
bool ParseAllowList(const std::string& text, std::vector<std::array<unsigned char, 32>>* out) {
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find(',', start);
    if (end == std::string::npos) end = text.size();
    std::size_t a = start, b = end;
    while (a < b && (text[a] == ' ' || text[a] == '\t')) ++a;
    while (b > a && (text[b - 1] == ' ' || text[b - 1] == '\t')) --b;
    if (b > a) {
      if (b - a != 64) return false;
      std::array<unsigned char, 32> token{};
      for (std::size_t i = 0; i < 32; ++i) {
        const int hi = HexDigit(text[a + 2 * i]);
        const int lo = HexDigit(text[a + 2 * i + 1]);
        if (hi < 0 || lo < 0) return false;
        token[i] = static_cast<unsigned char>(hi << 4 | lo);
      }
      out->push_back(token);
    } else if (end != text.size() || start != 0) {
      return false;  // an empty entry between commas
    }
    start = end + 1;
  }
  return true;
}

TEE_Result ReadAllowList(std::vector<std::array<unsigned char, 32>>* out) {
  std::string text(1024, '\0');
  uint32_t len = static_cast<uint32_t>(text.size());
  TEE_Result r = TEE_GetPropertyAsString(TEE_PROPSET_CURRENT_TA, KEYSTORE_PROP_ALLOWED_CREDENTIALS,
                                         &text[0], &len);
  if (r == TEE_ERROR_SHORT_BUFFER && len > text.size() && len <= 1024 * 1024) {
    text.assign(len, '\0');
    r = TEE_GetPropertyAsString(TEE_PROPSET_CURRENT_TA, KEYSTORE_PROP_ALLOWED_CREDENTIALS, &text[0], &len);
  }
  if (r == TEE_ERROR_ITEM_NOT_FOUND) {
    TEE_Trace(TEE_TRACE_ERROR, "no credential is allowed: property %s is missing",
              KEYSTORE_PROP_ALLOWED_CREDENTIALS);
    return TEE_SUCCESS;
  }
  if (r != TEE_SUCCESS) return r;
  text.resize(std::min<std::size_t>(std::strlen(text.c_str()), text.size()));
  if (!ParseAllowList(text, out)) {
    TEE_Trace(TEE_TRACE_ERROR, "property %s is not a list of 64-digit hex tokens",
              KEYSTORE_PROP_ALLOWED_CREDENTIALS);
    return TEE_ERROR_BAD_FORMAT;
  }
  return TEE_SUCCESS;
}

}  // namespace

struct Keystore::Answer {
  enum class Kind { kNone, kVerdict, kData } kind = Kind::kNone;
  uint32_t verdict = 0;
  Secret<kMaxAnswerData> data;
  std::size_t len = 0;
};

void Keystore::CachedNode::Clear() {
  node.key.Clear();
  node.chain.Clear();
  tessera_secure_wipe(&pub, sizeof pub);
  tessera_secure_wipe(path, sizeof path);
  used = false;
  has_pub = false;
  depth = 0;
  last_use = 0;
}

void Keystore::Wallet::Clear() {
  record.entropy.Clear();
  record.pin_salt.Clear();
  record.pin_mac.Clear();
  record.entropy_len = 0;
  record.pin_set = false;
  record.pin_failures = 0;
  master.Clear();
  for (CachedNode& n : nodes) n.Clear();
  has_master = false;
  used = false;
  last_use = 0;
  tessera_secure_wipe(&id, sizeof id);
}

Keystore::Keystore(Curve* curve)
    : curve_(curve), wallets_(new std::array<Wallet, kMaxWallets>()) {}

Keystore::~Keystore() {
  for (Wallet& w : *wallets_) w.Clear();
}

TEE_Result Keystore::Create(std::unique_ptr<Keystore>* out) {
  try {
    std::vector<std::array<unsigned char, 32>> allowed;
    const TEE_Result r = ReadAllowList(&allowed);
    if (r != TEE_SUCCESS) return r;
    Secret<32> blinding;
    TEE_GenerateRandom(blinding.data(), static_cast<uint32_t>(blinding.size()));
    Curve* curve = Curve::Create(blinding.data());
    if (curve == nullptr) return TEE_ERROR_GENERIC;
    std::unique_ptr<Keystore> keystore(new Keystore(curve));
    keystore->allowed_ = std::move(allowed);
    *out = std::move(keystore);
    return TEE_SUCCESS;
  } catch (const std::bad_alloc&) {
    return TEE_ERROR_OUT_OF_MEMORY;
  }
}

std::size_t Keystore::CachedWallets() const {
  return static_cast<std::size_t>(
      std::count_if(wallets_->begin(), wallets_->end(), [](const Wallet& w) { return w.used; }));
}

std::size_t Keystore::CachedNodes() const {
  std::size_t n = 0;
  for (const Wallet& w : *wallets_) {
    if (!w.used) continue;
    n += w.has_master ? 1 : 0;
    for (const CachedNode& c : w.nodes) n += c.used ? 1 : 0;
  }
  return n;
}

TEE_Result Keystore::Invoke(uint32_t command, uint32_t param_types, TEE_Param params[4]) noexcept {
  try {
    const std::size_t max_answer = MaxAnswerSize(command);
    if (max_answer == 0) return TEE_ERROR_NOT_SUPPORTED;
    if (params == nullptr || param_types != kParamTypes) return TEE_ERROR_BAD_PARAMETERS;
    TEE_Param& shared = params[0];
    if (shared.memref.buffer == nullptr || shared.memref.size < CTzfrWsm::kHeaderSize) {
      return TEE_ERROR_BAD_PARAMETERS;
    }
    if (shared.memref.size < max_answer) {
      shared.memref.size = static_cast<uint32_t>(max_answer);  // the size that is needed
      return TEE_ERROR_SHORT_BUFFER;
    }

    // Parse a private copy: the caller's memory is never read twice.
    SecretBuffer copy(std::min<std::size_t>(shared.memref.size, kMaxRequestSize));
    std::memcpy(copy.data(), shared.memref.buffer, copy.size());
    CTzfrWsm request(copy.data(), copy.size());
    if (!request.PrepareReset(1)) return TEE_ERROR_BAD_PARAMETERS;
    const std::size_t request_size = request.MessageSize();

    Answer answer;
    const TEE_Result result = Dispatch(command, request, &answer);
    if (result != TEE_SUCCESS) {
      TEE_Trace(TEE_TRACE_INFO, "command %u refused: 0x%08x", command, result);
      return result;
    }

    CTzfrWsm reply(shared.memref.buffer, shared.memref.size);
    bool written = reply.PrepareReset(0);
    if (answer.kind == Answer::Kind::kVerdict) {
      written = written && reply.PutUint(answer.verdict);
    } else if (answer.kind == Answer::Kind::kData) {
      const unsigned n = static_cast<unsigned>(answer.len);
      written = written && reply.PutUint(n) && reply.PutBlob(answer.data.data(), n);
    }
    if (!written) return TEE_ERROR_GENERIC;  // cannot happen: the room was checked above
    // Zero what is left of the request (it may have carried a seed or a PIN)
    // and hand back exactly the bytes written.
    const std::size_t reply_size = reply.MessageSize();
    if (request_size > reply_size) {
      std::memset(static_cast<unsigned char*>(shared.memref.buffer) + reply_size, 0,
                  request_size - reply_size);
    }
    shared.memref.size = static_cast<uint32_t>(std::max(reply_size, request_size));
    return TEE_SUCCESS;
  } catch (const std::bad_alloc&) {
    return TEE_ERROR_OUT_OF_MEMORY;
  } catch (...) {
    return TEE_ERROR_GENERIC;
  }
}

TEE_Result Keystore::Dispatch(uint32_t command, CTzfrWsm& request, Answer* answer) {
  switch (command) {
    case KEYSTORE_CMD_RESTORE_SEED: return RestoreSeed(request);
    case KEYSTORE_CMD_GENERATE_SEED: return GenerateSeed(request);
    case KEYSTORE_CMD_DELETE_SEED: return DeleteSeed(request);
    case KEYSTORE_CMD_SAVE_PIN: return SavePin(request);
    case KEYSTORE_CMD_CHECK_PIN: return CheckPin(request, answer);
    case KEYSTORE_CMD_GET_MNEMONIC: return GetMnemonic(request, answer);
    case KEYSTORE_CMD_CHECK_MNEMONIC: return CheckMnemonic(request, answer);
    case KEYSTORE_CMD_GET_ADDRESS:
    case KEYSTORE_CMD_SIGN:
    case KEYSTORE_CMD_GET_PRIVATE_KEY: return PathCommand(command, request, answer);
    default: return TEE_ERROR_NOT_SUPPORTED;
  }
}

bool Keystore::Allowed(const unsigned char token[32]) const {
  bool hit = false;
  for (const auto& a : allowed_) hit |= ConstantTimeEqual(a.data(), token, 32);  // no early exit
  return hit;
}

TEE_Result Keystore::Authorize(const unsigned char* token, uint32_t selector, WalletId* id) const {
  if (!Allowed(token)) return TEE_ERROR_ACCESS_DENIED;
  return MakeWalletId(token, selector, id) ? TEE_SUCCESS : TEE_ERROR_GENERIC;
}

TEE_Result Keystore::RestoreSeed(CTzfrWsm& request) {
  const unsigned char* token = nullptr;
  const unsigned char* entropy = nullptr;
  uint32_t selector = 0, len = 0;
  if (!ReadHeader(request, &token, &selector) || !ReadSized(request, &entropy, &len) ||
      !request.AtEnd() || !bip39::IsValidEntropyLength(len)) {
    return TEE_ERROR_BAD_PARAMETERS;
  }
  WalletId id;
  const TEE_Result r = Authorize(token, selector, &id);
  if (r != TEE_SUCCESS) return r;
  return ReplaceSeed(id, entropy, len);
}

TEE_Result Keystore::GenerateSeed(CTzfrWsm& request) {
  const unsigned char* token = nullptr;
  uint32_t selector = 0;
  if (!ReadHeader(request, &token, &selector) || !request.AtEnd()) return TEE_ERROR_BAD_PARAMETERS;
  WalletId id;
  const TEE_Result r = Authorize(token, selector, &id);
  if (r != TEE_SUCCESS) return r;
  Secret<16> entropy;
  TEE_GenerateRandom(entropy.data(), static_cast<uint32_t>(entropy.size()));
  return ReplaceSeed(id, entropy.data(), entropy.size());
}

TEE_Result Keystore::DeleteSeed(CTzfrWsm& request) {
  const unsigned char* token = nullptr;
  uint32_t selector = 0;
  if (!ReadHeader(request, &token, &selector) || !request.AtEnd()) return TEE_ERROR_BAD_PARAMETERS;
  WalletId id;
  const TEE_Result r = Authorize(token, selector, &id);
  if (r != TEE_SUCCESS) return r;
  const TEE_Result erased = EraseRecord(id);
  Evict(id);  // whatever storage says, the next command reads it afresh
  return erased;
}

TEE_Result Keystore::SavePin(CTzfrWsm& request) {
  const unsigned char* token = nullptr;
  const unsigned char* pin = nullptr;
  uint32_t selector = 0, len = 0;
  if (!ReadPinRequest(request, &token, &selector, &pin, &len)) return TEE_ERROR_BAD_PARAMETERS;
  Wallet* wallet = nullptr;
  TEE_Result r = OpenWallet(token, selector, &wallet);
  if (r != TEE_SUCCESS) return r;

  WalletRecord next;
  CopyRecord(wallet->record, &next);
  TEE_GenerateRandom(next.pin_salt.data(), static_cast<uint32_t>(next.pin_salt.size()));
  if (!PinMac(next, pin, len, next.pin_salt.data(), next.pin_mac.data())) return TEE_ERROR_GENERIC;
  next.pin_set = true;
  next.pin_failures = 0;
  return Update(wallet, next);
}

TEE_Result Keystore::CheckPin(CTzfrWsm& request, Answer* answer) {
  const unsigned char* token = nullptr;
  const unsigned char* pin = nullptr;
  uint32_t selector = 0, len = 0;
  if (!ReadPinRequest(request, &token, &selector, &pin, &len)) return TEE_ERROR_BAD_PARAMETERS;
  Wallet* wallet = nullptr;
  TEE_Result r = OpenWallet(token, selector, &wallet);
  if (r != TEE_SUCCESS) return r;
  if (!wallet->record.pin_set) return TEE_ERROR_ITEM_NOT_FOUND;

  answer->kind = Answer::Kind::kVerdict;
  if (!fault::kPinNeverLocks && wallet->record.pin_failures >= kMaxPinFailures) {
    answer->verdict = KEYSTORE_PIN_LOCKED;
    return TEE_SUCCESS;
  }
  // The attempt is counted durably before the comparison, so stopping the
  // TA in between never gives a free try.
  WalletRecord next;
  CopyRecord(wallet->record, &next);
  next.pin_failures = static_cast<uint8_t>(next.pin_failures + 1);
  r = Update(wallet, next);
  if (r != TEE_SUCCESS) return r;

  Secret<kPinMacSize> mac;
  if (!PinMac(next, pin, len, next.pin_salt.data(), mac.data())) return TEE_ERROR_GENERIC;
  if (!ConstantTimeEqual(mac.data(), next.pin_mac.data(), kPinMacSize)) {
    answer->verdict = KEYSTORE_PIN_MISMATCH;
    return TEE_SUCCESS;
  }
  next.pin_failures = 0;
  r = Update(wallet, next);
  if (r != TEE_SUCCESS) return r;
  answer->verdict = KEYSTORE_PIN_MATCH;
  return TEE_SUCCESS;
}

TEE_Result Keystore::GetMnemonic(CTzfrWsm& request, Answer* answer) {
  const unsigned char* token = nullptr;
  uint32_t selector = 0;
  if (!ReadHeader(request, &token, &selector) || !request.AtEnd()) return TEE_ERROR_BAD_PARAMETERS;
  Wallet* wallet = nullptr;
  TEE_Result r = OpenWallet(token, selector, &wallet);
  if (r != TEE_SUCCESS) return r;
  std::size_t n = bip39::EntropyToPhrase(wallet->record.entropy.data(), wallet->record.entropy_len,
                                         reinterpret_cast<char*>(answer->data.data()),
                                         answer->data.size());
  if (n == 0) return TEE_ERROR_GENERIC;
  if constexpr (fault::kMnemonicOffByOne) {
    fault::SwapLastWord(reinterpret_cast<char*>(answer->data.data()), &n, answer->data.size());
  }
  answer->kind = Answer::Kind::kData;
  answer->len = n;
  return TEE_SUCCESS;
}

TEE_Result Keystore::CheckMnemonic(CTzfrWsm& request, Answer* answer) {
  const unsigned char* text = nullptr;
  uint32_t len = 0;
  if (!ReadSized(request, &text, &len) || !request.AtEnd()) return TEE_ERROR_BAD_PARAMETERS;
  if constexpr (fault::kHangOn13Words) {
    if (std::count(text, text + len, ' ') == 12) fault::Hang();
  }
  answer->kind = Answer::Kind::kVerdict;
  answer->verdict = bip39::IsValidPhrase(reinterpret_cast<const char*>(text), len) ? 1u : 0u;
  return TEE_SUCCESS;
}

TEE_Result Keystore::PathCommand(uint32_t command, CTzfrWsm& request, Answer* answer) {
  const unsigned char* token = nullptr;
  uint32_t selector = 0;
  if (!ReadHeader(request, &token, &selector)) return TEE_ERROR_BAD_PARAMETERS;
  const void* path_blob = request.GetBlob(KEYSTORE_PATH_SIZE);
  if (path_blob == nullptr) return TEE_ERROR_BAD_PARAMETERS;
  const unsigned char* digest = nullptr;
  uint32_t digest_len = 0;
  if (command == KEYSTORE_CMD_SIGN &&
      (!ReadSized(request, &digest, &digest_len) || digest_len != kDigestSize)) {
    return TEE_ERROR_BAD_PARAMETERS;
  }
  if (!request.AtEnd()) return TEE_ERROR_BAD_PARAMETERS;
  uint32_t path[5];
  std::memcpy(path, path_blob, sizeof path);  // five levels in the host's byte order

  Wallet* wallet = nullptr;
  TEE_Result r = OpenWallet(token, selector, &wallet);
  if (r != TEE_SUCCESS) return r;
  CachedNode* node = nullptr;
  r = NodeAt(wallet, path, &node);
  if (r != TEE_SUCCESS) return r;
  if constexpr (fault::kWrongSigner) {
    if (command == KEYSTORE_CMD_SIGN) {
      uint32_t neighbour[5];
      std::memcpy(neighbour, path, sizeof neighbour);
      neighbour[4] ^= 1u;
      r = NodeAt(wallet, neighbour, &node);
      if (r != TEE_SUCCESS) return r;
    }
  }

  answer->kind = Answer::Kind::kData;
  switch (command) {
    case KEYSTORE_CMD_GET_PRIVATE_KEY:
      std::memcpy(answer->data.data(), node->node.key.data(), kKeySize);
      answer->len = kKeySize;
      return TEE_SUCCESS;
    case KEYSTORE_CMD_GET_ADDRESS:
      if (!EnsurePub(node) || !curve_->Address(node->pub, answer->data.data())) return TEE_ERROR_GENERIC;
      if constexpr (fault::kWrongAddress) {
        if (path[4] == fault::kWrongAddressAccount) answer->data[kAddressSize - 1] ^= 1u;
      }
      answer->len = kAddressSize;
      return TEE_SUCCESS;
    default:
      if (!curve_->Sign(node->node.key.data(), digest, answer->data.data())) return TEE_ERROR_GENERIC;
      if constexpr (fault::kHighS) {
        fault::NegateS(answer->data.data() + KEYSTORE_SIGNATURE_R_SIZE);
        answer->data[KEYSTORE_SIGNATURE_V_OFFSET] ^= 1u;
      }
      answer->len = kSignatureSize;
      return TEE_SUCCESS;
  }
}

Keystore::Wallet* Keystore::CacheSlot(const WalletId& id) {
  Wallet* slot = &(*wallets_)[0];
  for (Wallet& w : *wallets_) {
    if (!w.used) {
      slot = &w;
      break;
    }
    if (w.last_use < slot->last_use) slot = &w;
  }
  slot->Clear();
  slot->used = true;
  slot->id = id;
  slot->last_use = ++clock_;
  return slot;
}

void Keystore::Evict(const WalletId& id) {
  for (Wallet& w : *wallets_) {
    if (w.used && w.id == id) w.Clear();
  }
}

TEE_Result Keystore::OpenWallet(const unsigned char* token, uint32_t selector, Wallet** out) {
  WalletId id;
  const TEE_Result r = Authorize(token, selector, &id);
  if (r != TEE_SUCCESS) return r;
  return Find(id, out);
}

TEE_Result Keystore::Find(const WalletId& id, Wallet** out) {
  for (Wallet& w : *wallets_) {
    if (w.used && w.id == id) {
      w.last_use = ++clock_;
      *out = &w;
      return TEE_SUCCESS;
    }
  }
  WalletRecord record;
  const TEE_Result r = LoadRecord(id, &record);
  if (r != TEE_SUCCESS) {
    if (r != TEE_ERROR_ITEM_NOT_FOUND) TEE_Trace(TEE_TRACE_ERROR, "wallet read failed: 0x%08x", r);
    return r;
  }
  Wallet* slot = CacheSlot(id);
  CopyRecord(record, &slot->record);
  *out = slot;
  return TEE_SUCCESS;
}

TEE_Result Keystore::ReplaceSeed(const WalletId& id, const unsigned char* entropy, std::size_t len) {
  WalletRecord next;
  next.entropy_len = static_cast<uint8_t>(len);
  std::memcpy(next.entropy.data(), entropy, len);
  const TEE_Result r = StoreRecord(id, next);
  Evict(id);  // the old seed's nodes go, whatever storage now holds
  if (r != TEE_SUCCESS) {
    TEE_Trace(TEE_TRACE_ERROR, "wallet write failed: 0x%08x", r);
    return r;
  }
  Wallet* wallet = CacheSlot(id);
  CopyRecord(next, &wallet->record);
  // Derive the master node now, while the seed is at hand: the key commands
  // that follow a restore then never wait for PBKDF2. A failure here shows
  // again (and is reported) at the first key command.
  (void)EnsureMaster(wallet);
  return TEE_SUCCESS;
}

TEE_Result Keystore::Update(Wallet* wallet, const WalletRecord& next) {
  const TEE_Result r = StoreRecord(wallet->id, next);
  if (r != TEE_SUCCESS) {
    TEE_Trace(TEE_TRACE_ERROR, "wallet write failed: 0x%08x", r);
    wallet->Clear();
    return r;
  }
  CopyRecord(next, &wallet->record);
  return TEE_SUCCESS;
}

bool Keystore::EnsureMaster(Wallet* wallet) {
  if (wallet->has_master) return true;
  Secret<kMaxAnswerData> phrase;
  const std::size_t n = bip39::EntropyToPhrase(wallet->record.entropy.data(), wallet->record.entropy_len,
                                               reinterpret_cast<char*>(phrase.data()), phrase.size());
  if (n == 0) return false;
  Secret<bip39::kSeedSize> seed;
  if (!bip39::PhraseToSeed(reinterpret_cast<const char*>(phrase.data()), n, "", 0, seed.data())) {
    return false;
  }
  if (!curve_->Master(seed.data(), seed.size(), &wallet->master.node)) return false;
  wallet->master.used = true;
  wallet->master.depth = 0;
  wallet->has_master = true;
  return true;
}

bool Keystore::EnsurePub(CachedNode* node) {
  if (node->has_pub) return true;
  node->has_pub = curve_->PublicKey(node->node.key.data(), &node->pub);
  return node->has_pub;
}

TEE_Result Keystore::NodeAt(Wallet* wallet, const uint32_t path[5], CachedNode** out) {
  if (!EnsureMaster(wallet)) return TEE_ERROR_GENERIC;
  // The deepest cached node on the way to the path.
  CachedNode* from = &wallet->master;
  for (CachedNode& c : wallet->nodes) {
    if (c.used && c.depth > from->depth && std::memcmp(c.path, path, c.depth * sizeof(uint32_t)) == 0) {
      from = &c;
    }
  }
  from->last_use = ++clock_;
  for (uint32_t depth = from->depth + 1; depth <= 5; ++depth) {
    const uint32_t index = path[depth - 1];
    const bool hardened = (index & 0x80000000u) != 0;
    if (!hardened && !EnsurePub(from)) return TEE_ERROR_GENERIC;
    // The least recently used slot (never `from`, which was just used).
    CachedNode* slot = &wallet->nodes[0];
    for (CachedNode& c : wallet->nodes) {
      if (!c.used) {
        slot = &c;
        break;
      }
      if (c.last_use < slot->last_use) slot = &c;
    }
    Node child;
    if (!curve_->Child(from->node, hardened ? nullptr : &from->pub, index, &child)) {
      TEE_Trace(TEE_TRACE_ERROR, "no valid key at level %u of the path", depth);
      return TEE_ERROR_GENERIC;
    }
    slot->Clear();
    std::memcpy(slot->node.key.data(), child.key.data(), 32);
    std::memcpy(slot->node.chain.data(), child.chain.data(), 32);
    std::memcpy(slot->path, path, depth * sizeof(uint32_t));
    slot->depth = depth;
    slot->used = true;
    slot->last_use = ++clock_;
    from = slot;
  }
  *out = from;
  return TEE_SUCCESS;
}

}  // namespace keystore
