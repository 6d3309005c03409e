/*
 * The teesim test TA: its UUIDs (one build per instance policy) and its
 * commands, with each parameter's type and meaning. Shared by the TA and the
 * conformance suite through the teesim_test_ta_interface target.
 *
 * Every command checks its parameter types first and answers
 * TEE_ERROR_BAD_PARAMETERS when they differ from those listed.
 */
#ifndef TEESIM_TEST_TA_H
#define TEESIM_TEST_TA_H

#include <stdint.h>

/* Single instance, multi-session: the policy of most TAs, the keystore's too. */
#define TEST_TA_UUID \
  { 0x7e57a000, 0x5e55, 0x4d0e, { 0x9a, 0x11, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01 } }
#define TEST_TA_UUID_TEXT "7e57a000-5e55-4d0e-9a11-000000000001"
/* Single instance, one session at a time. */
#define TEST_TA_SINGLE_SESSION_UUID \
  { 0x7e57a000, 0x5e55, 0x4d0e, { 0x9a, 0x11, 0x00, 0x00, 0x00, 0x00, 0x00, 0x02 } }
#define TEST_TA_SINGLE_SESSION_UUID_TEXT "7e57a000-5e55-4d0e-9a11-000000000002"
/* One instance per session. */
#define TEST_TA_MULTI_INSTANCE_UUID \
  { 0x7e57a000, 0x5e55, 0x4d0e, { 0x9a, 0x11, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03 } }
#define TEST_TA_MULTI_INSTANCE_UUID_TEXT "7e57a000-5e55-4d0e-9a11-000000000003"
/* Single instance, multi-session, kept alive without sessions. */
#define TEST_TA_KEEP_ALIVE_UUID \
  { 0x7e57a000, 0x5e55, 0x4d0e, { 0x9a, 0x11, 0x00, 0x00, 0x00, 0x00, 0x00, 0x04 } }
#define TEST_TA_KEEP_ALIVE_UUID_TEXT "7e57a000-5e55-4d0e-9a11-000000000004"
/* The fault TA (fault_ta.c): single instance, multi-session; its process
 * dies at the step named by the installation property TEST_FAULT_TA_PROP:
 * "create-kill", "create-hangup", "open-kill" or "open-hangup" (anything
 * else: it lives). Only TEST_CMD_INFO means something to it: p0
 * VALUE_OUTPUT (a = instance process id). */
#define TEST_FAULT_TA_UUID \
  { 0x7e57a000, 0x5e55, 0x4d0e, { 0x9a, 0x11, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05 } }
#define TEST_FAULT_TA_UUID_TEXT "7e57a000-5e55-4d0e-9a11-000000000005"
#define TEST_FAULT_TA_PROP "teesim.test.fault"

/* Opening a session: parameter 0, when VALUE_INOUT, comes back with a + 1;
 * when a VALUE_INPUT or VALUE_INOUT holds a == TEST_TA_REFUSE, the open fails
 * with TEE_ERROR_ACCESS_DENIED. Parameter 1, when MEMREF_OUTPUT, receives
 * "opened" (6 bytes; TEE_ERROR_SHORT_BUFFER with size 6 if smaller). The
 * parameters seen are kept for TEST_CMD_REPORT. */
#define TEST_TA_REFUSE 0xDEADu

/* Installation property read by the create entry point: when set to a
 * non-zero U32, the create entry point fails with that code. */
#define TEST_TA_PROP_CREATE_RESULT "teesim.test.create_result"

enum teesim_test_command {
  /* p0 MEMREF_INPUT data; p1 MEMREF_OUTPUT receives a copy.
   * TEE_ERROR_SHORT_BUFFER, p1.size = needed, when p1 is too small. */
  TEST_CMD_ECHO = 1,
  /* p0 VALUE_INPUT (a, b); p1 VALUE_OUTPUT (a + b, a - b), mod 2^32. */
  TEST_CMD_ADD = 2,
  /* p0 VALUE_INPUT (a = byte, b = count); p1 MEMREF_OUTPUT receives count
   * bytes of value a. TEE_ERROR_SHORT_BUFFER, p1.size = count, if smaller. */
  TEST_CMD_FILL = 3,
  /* Any parameter types. Per parameter: VALUE_OUTPUT gets (0x1000 + i,
   * 0x2000 + i); VALUE_INOUT gets (a + 1, ~b); MEMREF_OUTPUT is filled with
   * bytes (16 * i + k) & 0xFF; MEMREF_INOUT is reversed in place. Sizes are
   * left as given. What was received is kept for TEST_CMD_REPORT. */
  TEST_CMD_MIRROR = 4,
  /* p0 VALUE_INPUT (a = 0: last TEST_CMD_MIRROR, 1: this session's open);
   * p1 MEMREF_OUTPUT receives a test_ta_report. */
  TEST_CMD_REPORT = 5,
  /* p0 MEMREF_INPUT object id; p1 MEMREF_INPUT data. Creates or replaces. */
  TEST_CMD_STORE_PUT = 6,
  /* p0 MEMREF_INPUT object id; p1 MEMREF_OUTPUT receives the data.
   * Storage errors come back as they are (TEE_ERROR_ITEM_NOT_FOUND,
   * TEE_ERROR_CORRUPT_OBJECT); TEE_ERROR_SHORT_BUFFER with the size needed. */
  TEST_CMD_STORE_GET = 7,
  /* p0 MEMREF_INPUT object id. Deletes it. */
  TEST_CMD_STORE_DELETE = 8,
  /* p0 VALUE_OUTPUT (a = failing step or 0, b = its result). Runs a scripted
   * tour of the persistent-object API inside the TA. */
  TEST_CMD_STORE_SELFTEST = 9,
  /* p0 VALUE_INPUT (a = panic code). Calls TEE_Panic. */
  TEST_CMD_PANIC = 10,
  /* No parameters. Dies of a segmentation fault. */
  TEST_CMD_CRASH = 11,
  /* p0 MEMREF_INPUT property name (no NUL); p1 VALUE_INPUT (a = 0 current TA,
   * 1 current client, 2 TEE implementation); p2 MEMREF_OUTPUT receives the
   * value with its NUL, as TEE_GetPropertyAsString gives it. */
  TEST_CMD_PROPERTY = 12,
  /* p0 MEMREF_OUTPUT filled by TEE_GenerateRandom. */
  TEST_CMD_RANDOM = 13,
  /* p0 VALUE_INPUT (a = milliseconds). Sleeps, then returns. */
  TEST_CMD_SLEEP = 14,
  /* p0 VALUE_OUTPUT (a = instance process id, b = sessions open now);
   * p1 VALUE_OUTPUT (a = create calls in this instance, b = sessions ever
   * opened in this instance). */
  TEST_CMD_INFO = 15,
  /* p0 VALUE_OUTPUT system time (s, ms); p1 VALUE_OUTPUT REE time (s, ms). */
  TEST_CMD_TIME = 16,
  /* p0 MEMREF_INPUT text (no NUL). Logged with TEE_Trace at info level. */
  TEST_CMD_TRACE = 17,
  /* p0 MEMREF_INOUT: its first byte is incremented. The cheapest command
   * that still touches a memref, for round-trip benchmarks. */
  TEST_CMD_BUMP = 18,
  /* p0 MEMREF_INPUT data; p1 VALUE_INPUT (a = milliseconds); p2 VALUE_OUTPUT
   * (a = checksum before the pause, b = checksum after it). Reads the same
   * bytes twice, pausing in between: a = b when the TA has its own copy. */
  TEST_CMD_DOUBLE_READ = 19,
  /* p0 MEMREF_INPUT text (no NUL); p1 VALUE_OUTPUT (a = lines of the
   * instance's own /proc/self/maps that contain the text). Lets a test see
   * what the instance has mapped without reading another process's maps. */
  TEST_CMD_COUNT_MAPS = 20,
};

/* What the TA received for one parameter (TEST_CMD_REPORT). */
struct test_ta_param_report {
  uint32_t size;     /* memref size as received */
  uint32_t checksum; /* FNV-1a of the input bytes of a memref, else 0 */
  uint32_t a, b;     /* value fields as received */
};

struct test_ta_report {
  uint32_t param_types;
  struct test_ta_param_report params[4];
};

/* FNV-1a, 32 bits: the checksum in reports. */
static inline uint32_t test_ta_fnv1a(const void* data, uint32_t size) {
  const uint8_t* p = (const uint8_t*)data;
  uint32_t h = 2166136261u;
  for (uint32_t i = 0; i < size; ++i) {
    h ^= p[i];
    h *= 16777619u;
  }
  return h;
}

#endif /* TEESIM_TEST_TA_H */
