/*
 * State behind the TEE Internal API that a TA instance process offers to its
 * TA. The TA host fills it once (configure) before the TA's create entry
 * point runs, and names the calling client around every entry point.
 * Entry points never run concurrently, so the API functions take no locks
 * beyond what they share with the host's own threads.
 */
#ifndef TEESIM_RUNTIME_RUNTIME_H
#define TEESIM_RUNTIME_RUNTIME_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "common/secret.h"
#include "runtime/object_store.h"
#include "teesim/uuid.h"

namespace teesim::runtime {

/* Exit status of a TA instance process that ended in TEE_Panic. */
inline constexpr int kPanicExitCode = 70;

struct Config {
  Uuid uuid;
  std::string name;           /* short TA name from its descriptor */
  uint32_t ta_flags = 0;      /* TEESIM_TA_FLAG_* */
  std::map<std::string, std::string> properties; /* from <uuid>.props */
  std::unique_ptr<ObjectStore> store;            /* the TA's persistent objects */
  bool deterministic_random = false;
  Key256 random_key;          /* seeds TEE_GenerateRandom when deterministic */
};

/* Installs the configuration (replacing any earlier one) and resets the
 * random generator and the open object handles. */
void configure(Config config);
const Config& config();

/* Names the client on whose behalf the next entry point runs. */
void set_current_client(uint32_t login, const Uuid& identity);

/* Number of object handles open (for tests and diagnostics). */
size_t open_object_handles();

/* Closes every object handle without touching storage (instance teardown). */
void close_all_object_handles();

}  // namespace teesim::runtime

#endif  // TEESIM_RUNTIME_RUNTIME_H
