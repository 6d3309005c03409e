/*
 * Key material of a teesim installation. The installation key (32 random
 * bytes in <storage>/installation.key, readable by its owner only) never
 * leaves the daemon; each TA instance gets keys derived for its TA alone.
 */
#ifndef TEESIM_DAEMON_KEYS_H
#define TEESIM_DAEMON_KEYS_H

#include <string>

#include "common/secret.h"
#include "teesim/uuid.h"

namespace teesim::daemon {

inline constexpr const char* kInstallationKeyFile = "installation.key";

/* True when <storage_dir>/installation.key does not exist (false when it
 * exists or cannot be looked at; load_or_create_installation_key then says
 * why). */
[[nodiscard]] bool installation_key_missing(const std::string& storage_dir);

/* Reads the installation key, or makes one when the file does not exist.
 * Refuses a file that is not a regular file of 32 bytes owned by the
 * effective user with no permission for others.
 * Returns true; or false with the reason in *error.
 * Out: key; created, true when a new key was made. */
[[nodiscard]] bool load_or_create_installation_key(const std::string& storage_dir, Key256* key,
                                                   bool* created, std::string* error);

struct TaKeys {
  Key256 storage; /* encrypts the TA's objects */
  Key256 names;   /* names the TA's object files */
};

/* HKDF-SHA-256 of the installation key with the TA's UUID as context.
 * Returns false on an OpenSSL failure. */
[[nodiscard]] bool derive_ta_keys(const Key256& installation, const Uuid& ta, TaKeys* out);

/* The generator key of instance `instance_no` of a TA when random numbers
 * are deterministic: HMAC-SHA-256(SHA-256(label | seed), uuid | instance_no).
 * The same seed gives every run the same sequence per TA and instance. */
[[nodiscard]] bool deterministic_random_key(const std::string& seed, const Uuid& ta,
                                            uint32_t instance_no, Key256* out);

}  // namespace teesim::daemon

#endif  // TEESIM_DAEMON_KEYS_H
