// Internals of signer address recovery, for its tests and benchmark.
#ifndef TESSERA_UTILS_RESTOREADDRESSIMPL_H
#define TESSERA_UTILS_RESTOREADDRESSIMPL_H

/* The parts of RestoreAddress that its tests and benchmark reach into: the
 * group it keeps, and the recovery on a group given by the caller. Not for
 * use by the console. */

#include <openssl/ec.h>

#include <string>

namespace test::tools::detail {

/* Returns the secp256k1 group that RestoreAddress uses, built on the first
 * call and kept until the program exits; NULL when it could not be built
 * (out of memory), in which case a later call tries again. The group is only
 * read after it is built, so any number of threads may use it at once.
 * Owned by this module: never free it. */
[[nodiscard]] const EC_GROUP* secp256k1Group();

/* RestoreAddress (see RestoreAddress.h) on the given group: the same inputs,
 * result and failure behaviour.
 *  In: group: secp256k1 as built by EC_GROUP_new_by_curve_name, or NULL
 *             (then the result is the all-zero-key address); only read,
 *             still owned by the caller. A group whose cofactor is not 1 is
 *             refused the same way, because the recovery relies on every
 *             curve point having the group's order. */
[[nodiscard]] std::string restoreAddressOn(const EC_GROUP* group, const std::string& digest,
                                           const std::string& sig_r, const std::string& sig_s,
                                           unsigned char sig_v);

}  // namespace test::tools::detail

#endif  // TESSERA_UTILS_RESTOREADDRESSIMPL_H
