/*
 * The teesim test TA: its entry points and commands (described in
 * teesim_test_ta.h). Compiled once and linked into every variant; each
 * variant adds its own descriptor (test_ta_descriptor.c).
 */
#define _DEFAULT_SOURCE
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "tee_internal_api.h"
#include "teesim_test_ta.h"

#define P(t0, t1, t2, t3) TEE_PARAM_TYPES(t0, t1, t2, t3)
#define NONE TEE_PARAM_TYPE_NONE
#define VIN TEE_PARAM_TYPE_VALUE_INPUT
#define VOUT TEE_PARAM_TYPE_VALUE_OUTPUT
#define VINOUT TEE_PARAM_TYPE_VALUE_INOUT
#define MIN TEE_PARAM_TYPE_MEMREF_INPUT
#define MOUT TEE_PARAM_TYPE_MEMREF_OUTPUT
#define MINOUT TEE_PARAM_TYPE_MEMREF_INOUT

struct session {
  struct test_ta_report open_report;
};

static uint32_t g_creates;
static uint32_t g_sessions_now;
static uint32_t g_sessions_ever;
static struct test_ta_report g_last_mirror;

static void record(struct test_ta_report* r, uint32_t types, const TEE_Param params[4]) {
  TEE_MemFill(r, 0, sizeof *r);
  r->param_types = types;
  for (int i = 0; i < 4; ++i) {
    uint32_t t = TEE_PARAM_TYPE_GET(types, i);
    struct test_ta_param_report* pr = &r->params[i];
    if (t == VIN || t == VINOUT) {
      pr->a = params[i].value.a;
      pr->b = params[i].value.b;
    } else if (t == MIN || t == MOUT || t == MINOUT) {
      pr->size = params[i].memref.size;
      if (t != MOUT) pr->checksum = test_ta_fnv1a(params[i].memref.buffer, params[i].memref.size);
    }
  }
}

TEE_Result TA_CreateEntryPoint(void) {
  uint32_t forced = 0;
  if (TEE_GetPropertyAsU32(TEE_PROPSET_CURRENT_TA, TEST_TA_PROP_CREATE_RESULT, &forced) == TEE_SUCCESS &&
      forced != 0)
    return forced;
  ++g_creates;
  TEE_Trace(TEE_TRACE_DEBUG, "created");
  return TEE_SUCCESS;
}

void TA_DestroyEntryPoint(void) { TEE_Trace(TEE_TRACE_DEBUG, "destroyed"); }

TEE_Result TA_OpenSessionEntryPoint(uint32_t types, TEE_Param params[4], void** ctx) {
  uint32_t t0 = TEE_PARAM_TYPE_GET(types, 0), t1 = TEE_PARAM_TYPE_GET(types, 1);
  if ((t0 == VIN || t0 == VINOUT) && params[0].value.a == TEST_TA_REFUSE) return TEE_ERROR_ACCESS_DENIED;
  struct session* s = TEE_Malloc(sizeof *s, TEE_MALLOC_FILL_ZERO);
  if (s == NULL) return TEE_ERROR_OUT_OF_MEMORY;
  record(&s->open_report, types, params);
  if (t0 == VINOUT) params[0].value.a += 1;
  if (t1 == MOUT) {
    static const char kOpened[] = "opened";
    if (params[1].memref.size < 6) {
      params[1].memref.size = 6;
      TEE_Free(s);
      return TEE_ERROR_SHORT_BUFFER;
    }
    TEE_MemMove(params[1].memref.buffer, kOpened, 6);
    params[1].memref.size = 6;
  }
  ++g_sessions_now;
  ++g_sessions_ever;
  *ctx = s;
  return TEE_SUCCESS;
}

void TA_CloseSessionEntryPoint(void* ctx) {
  --g_sessions_now;
  TEE_Free(ctx);
}

static TEE_Result echo(uint32_t types, TEE_Param p[4]) {
  if (types != P(MIN, MOUT, NONE, NONE)) return TEE_ERROR_BAD_PARAMETERS;
  if (p[1].memref.size < p[0].memref.size) {
    p[1].memref.size = p[0].memref.size;
    return TEE_ERROR_SHORT_BUFFER;
  }
  TEE_MemMove(p[1].memref.buffer, p[0].memref.buffer, p[0].memref.size);
  p[1].memref.size = p[0].memref.size;
  return TEE_SUCCESS;
}

static TEE_Result add(uint32_t types, TEE_Param p[4]) {
  if (types != P(VIN, VOUT, NONE, NONE)) return TEE_ERROR_BAD_PARAMETERS;
  uint32_t a = p[0].value.a, b = p[0].value.b;
  p[1].value.a = a + b;
  p[1].value.b = a - b;
  return TEE_SUCCESS;
}

static TEE_Result fill(uint32_t types, TEE_Param p[4]) {
  if (types != P(VIN, MOUT, NONE, NONE)) return TEE_ERROR_BAD_PARAMETERS;
  uint32_t count = p[0].value.b;
  if (p[1].memref.size < count) {
    p[1].memref.size = count;
    return TEE_ERROR_SHORT_BUFFER;
  }
  TEE_MemFill(p[1].memref.buffer, p[0].value.a, count);
  p[1].memref.size = count;
  return TEE_SUCCESS;
}

static TEE_Result mirror(uint32_t types, TEE_Param p[4]) {
  record(&g_last_mirror, types, p);
  for (uint32_t i = 0; i < 4; ++i) {
    uint32_t t = TEE_PARAM_TYPE_GET(types, i);
    if (t == VOUT) {
      p[i].value.a = 0x1000 + i;
      p[i].value.b = 0x2000 + i;
    } else if (t == VINOUT) {
      p[i].value.a += 1;
      p[i].value.b = ~p[i].value.b;
    } else if (t == MOUT) {
      uint8_t* b = p[i].memref.buffer;
      for (uint32_t k = 0; k < p[i].memref.size; ++k) b[k] = (uint8_t)((16 * i + k) & 0xFF);
    } else if (t == MINOUT) {
      uint8_t* b = p[i].memref.buffer;
      for (uint32_t lo = 0, hi = p[i].memref.size; hi > lo + 1; ++lo, --hi) {
        uint8_t x = b[lo];
        b[lo] = b[hi - 1];
        b[hi - 1] = x;
      }
    }
  }
  return TEE_SUCCESS;
}

static TEE_Result report(struct session* s, uint32_t types, TEE_Param p[4]) {
  if (types != P(VIN, MOUT, NONE, NONE)) return TEE_ERROR_BAD_PARAMETERS;
  const struct test_ta_report* r = p[0].value.a == 1 ? &s->open_report : &g_last_mirror;
  if (p[1].memref.size < sizeof *r) {
    p[1].memref.size = sizeof *r;
    return TEE_ERROR_SHORT_BUFFER;
  }
  TEE_MemMove(p[1].memref.buffer, r, sizeof *r);
  p[1].memref.size = sizeof *r;
  return TEE_SUCCESS;
}

static TEE_Result store_put(uint32_t types, TEE_Param p[4]) {
  if (types != P(MIN, MIN, NONE, NONE)) return TEE_ERROR_BAD_PARAMETERS;
  if (p[0].memref.size > TEE_OBJECT_ID_MAX_LEN) return TEE_ERROR_BAD_PARAMETERS;
  return TEE_CreatePersistentObject(TEE_STORAGE_PRIVATE, p[0].memref.buffer, p[0].memref.size,
                                    TEE_DATA_FLAG_ACCESS_WRITE | TEE_DATA_FLAG_OVERWRITE,
                                    TEE_HANDLE_NULL, p[1].memref.buffer, p[1].memref.size, NULL);
}

static TEE_Result store_get(uint32_t types, TEE_Param p[4]) {
  if (types != P(MIN, MOUT, NONE, NONE)) return TEE_ERROR_BAD_PARAMETERS;
  if (p[0].memref.size > TEE_OBJECT_ID_MAX_LEN) return TEE_ERROR_BAD_PARAMETERS;
  TEE_ObjectHandle h;
  TEE_Result r = TEE_OpenPersistentObject(TEE_STORAGE_PRIVATE, p[0].memref.buffer, p[0].memref.size,
                                          TEE_DATA_FLAG_ACCESS_READ | TEE_DATA_FLAG_SHARE_READ, &h);
  if (r != TEE_SUCCESS) return r;
  TEE_ObjectInfo info;
  r = TEE_GetObjectInfo1(h, &info);
  if (r == TEE_SUCCESS && info.dataSize > p[1].memref.size) {
    p[1].memref.size = info.dataSize;
    r = TEE_ERROR_SHORT_BUFFER;
  } else if (r == TEE_SUCCESS) {
    uint32_t n = 0;
    r = TEE_ReadObjectData(h, p[1].memref.buffer, info.dataSize, &n);
    p[1].memref.size = n;
  }
  TEE_CloseObject(h);
  return r;
}

static TEE_Result store_delete(uint32_t types, TEE_Param p[4]) {
  if (types != P(MIN, NONE, NONE, NONE)) return TEE_ERROR_BAD_PARAMETERS;
  if (p[0].memref.size > TEE_OBJECT_ID_MAX_LEN) return TEE_ERROR_BAD_PARAMETERS;
  TEE_ObjectHandle h;
  TEE_Result r = TEE_OpenPersistentObject(TEE_STORAGE_PRIVATE, p[0].memref.buffer, p[0].memref.size,
                                          TEE_DATA_FLAG_ACCESS_WRITE_META, &h);
  if (r != TEE_SUCCESS) return r;
  return TEE_CloseAndDeletePersistentObject1(h);
}

/* A tour of the object API; each step that can fail has a number. */
static TEE_Result store_selftest(uint32_t types, TEE_Param p[4]) {
  if (types != P(VOUT, NONE, NONE, NONE)) return TEE_ERROR_BAD_PARAMETERS;
  static const char id[] = "selftest", id2[] = "selftest-renamed";
  const uint32_t rw = TEE_DATA_FLAG_ACCESS_READ | TEE_DATA_FLAG_ACCESS_WRITE |
                      TEE_DATA_FLAG_ACCESS_WRITE_META | TEE_DATA_FLAG_OVERWRITE;
  TEE_ObjectHandle h = TEE_HANDLE_NULL, g = TEE_HANDLE_NULL;
  TEE_ObjectInfo info;
  char buf[32];
  uint32_t n = 0, step = 0;
  TEE_Result r;
#define STEP(expr, want)            \
  do {                              \
    ++step;                         \
    r = (expr);                     \
    if (r != (want)) goto failed;   \
  } while (0)
#define CHECK(cond)                          \
  do {                                       \
    ++step;                                  \
    if (!(cond)) {                           \
      r = TEE_ERROR_GENERIC;                 \
      goto failed;                           \
    }                                        \
  } while (0)
  STEP(TEE_CreatePersistentObject(TEE_STORAGE_PRIVATE, id, sizeof id - 1, rw, TEE_HANDLE_NULL,
                                  "0123456789", 10, &h), TEE_SUCCESS);                  /* 1 */
  STEP(TEE_SeekObjectData(h, -4, TEE_DATA_SEEK_END), TEE_SUCCESS);                     /* 2 */
  STEP(TEE_ReadObjectData(h, buf, sizeof buf, &n), TEE_SUCCESS);                       /* 3 */
  CHECK(n == 4 && TEE_MemCompare(buf, "6789", 4) == 0);                                /* 4 */
  STEP(TEE_WriteObjectData(h, "AB", 2), TEE_SUCCESS);                                  /* 5 */
  STEP(TEE_GetObjectInfo1(h, &info), TEE_SUCCESS);                                     /* 6 */
  CHECK(info.dataSize == 12 && info.dataPosition == 12);                               /* 7 */
  STEP(TEE_TruncateObjectData(h, 3), TEE_SUCCESS);                                     /* 8 */
  STEP(TEE_RenamePersistentObject(h, id2, sizeof id2 - 1), TEE_SUCCESS);               /* 9 */
  TEE_CloseObject(h);
  h = TEE_HANDLE_NULL;
  STEP(TEE_OpenPersistentObject(TEE_STORAGE_PRIVATE, id, sizeof id - 1, TEE_DATA_FLAG_ACCESS_READ,
                                &g), TEE_ERROR_ITEM_NOT_FOUND);                        /* 10 */
  STEP(TEE_OpenPersistentObject(TEE_STORAGE_PRIVATE, id2, sizeof id2 - 1, rw, &h),
       TEE_SUCCESS);                                                                   /* 11 */
  STEP(TEE_ReadObjectData(h, buf, sizeof buf, &n), TEE_SUCCESS);                       /* 12 */
  CHECK(n == 3 && TEE_MemCompare(buf, "012", 3) == 0);                                 /* 13 */
  STEP(TEE_OpenPersistentObject(TEE_STORAGE_PRIVATE, id2, sizeof id2 - 1, TEE_DATA_FLAG_ACCESS_READ,
                                &g), TEE_ERROR_ACCESS_CONFLICT);                       /* 14 */
  STEP(TEE_CloseAndDeletePersistentObject1(h), TEE_SUCCESS);                           /* 15 */
  h = TEE_HANDLE_NULL;
  STEP(TEE_OpenPersistentObject(TEE_STORAGE_PRIVATE, id2, sizeof id2 - 1, TEE_DATA_FLAG_ACCESS_READ,
                                &g), TEE_ERROR_ITEM_NOT_FOUND);                        /* 16 */
#undef STEP
#undef CHECK
  p[0].value.a = 0;
  p[0].value.b = TEE_SUCCESS;
  return TEE_SUCCESS;
failed:
  TEE_CloseObject(h);
  TEE_CloseObject(g);
  p[0].value.a = step;
  p[0].value.b = r;
  return TEE_SUCCESS;
}

static TEE_Result property(uint32_t types, TEE_Param p[4]) {
  if (types != P(MIN, VIN, MOUT, NONE)) return TEE_ERROR_BAD_PARAMETERS;
  char name[128];
  if (p[0].memref.size >= sizeof name) return TEE_ERROR_BAD_PARAMETERS;
  TEE_MemMove(name, p[0].memref.buffer, p[0].memref.size);
  name[p[0].memref.size] = '\0';
  TEE_PropSetHandle set = p[1].value.a == 0   ? TEE_PROPSET_CURRENT_TA
                          : p[1].value.a == 1 ? TEE_PROPSET_CURRENT_CLIENT
                                              : TEE_PROPSET_TEE_IMPLEMENTATION;
  uint32_t len = p[2].memref.size;
  TEE_Result r = TEE_GetPropertyAsString(set, name, p[2].memref.buffer, &len);
  if (r == TEE_SUCCESS || r == TEE_ERROR_SHORT_BUFFER) p[2].memref.size = len;
  return r;
}

static TEE_Result info_cmd(uint32_t types, TEE_Param p[4]) {
  if (types != P(VOUT, VOUT, NONE, NONE)) return TEE_ERROR_BAD_PARAMETERS;
  p[0].value.a = (uint32_t)getpid();
  p[0].value.b = g_sessions_now;
  p[1].value.a = g_creates;
  p[1].value.b = g_sessions_ever;
  return TEE_SUCCESS;
}

static TEE_Result count_maps(uint32_t types, TEE_Param p[4]) {
  if (types != P(MIN, VOUT, NONE, NONE)) return TEE_ERROR_BAD_PARAMETERS;
  char needle[64];
  if (p[0].memref.size == 0 || p[0].memref.size >= sizeof needle) return TEE_ERROR_BAD_PARAMETERS;
  TEE_MemMove(needle, p[0].memref.buffer, p[0].memref.size);
  needle[p[0].memref.size] = '\0';
  FILE* maps = fopen("/proc/self/maps", "r");
  if (maps == NULL) return TEE_ERROR_GENERIC;
  char line[512];
  uint32_t n = 0;
  while (fgets(line, sizeof line, maps) != NULL)
    if (strstr(line, needle) != NULL) ++n;
  fclose(maps);
  p[1].value.a = n;
  return TEE_SUCCESS;
}

TEE_Result TA_InvokeCommandEntryPoint(void* ctx, uint32_t cmd, uint32_t types, TEE_Param p[4]) {
  switch (cmd) {
    case TEST_CMD_ECHO: return echo(types, p);
    case TEST_CMD_ADD: return add(types, p);
    case TEST_CMD_FILL: return fill(types, p);
    case TEST_CMD_MIRROR: return mirror(types, p);
    case TEST_CMD_REPORT: return report(ctx, types, p);
    case TEST_CMD_STORE_PUT: return store_put(types, p);
    case TEST_CMD_STORE_GET: return store_get(types, p);
    case TEST_CMD_STORE_DELETE: return store_delete(types, p);
    case TEST_CMD_STORE_SELFTEST: return store_selftest(types, p);
    case TEST_CMD_PANIC:
      if (types != P(VIN, NONE, NONE, NONE)) return TEE_ERROR_BAD_PARAMETERS;
      TEE_Panic(p[0].value.a);
    case TEST_CMD_CRASH: {
      if (types != P(NONE, NONE, NONE, NONE)) return TEE_ERROR_BAD_PARAMETERS;
      raise(SIGSEGV);
      return TEE_ERROR_GENERIC;
    }
    case TEST_CMD_PROPERTY: return property(types, p);
    case TEST_CMD_RANDOM:
      if (types != P(MOUT, NONE, NONE, NONE)) return TEE_ERROR_BAD_PARAMETERS;
      TEE_GenerateRandom(p[0].memref.buffer, p[0].memref.size);
      return TEE_SUCCESS;
    case TEST_CMD_SLEEP:
      if (types != P(VIN, NONE, NONE, NONE)) return TEE_ERROR_BAD_PARAMETERS;
      /* Tests wait for this line to know that the command is running. */
      TEE_Trace(TEE_TRACE_DEBUG, "sleeping for %u ms", (unsigned)p[0].value.a);
      usleep(p[0].value.a * 1000u);
      return TEE_SUCCESS;
    case TEST_CMD_INFO: return info_cmd(types, p);
    case TEST_CMD_TIME: {
      if (types != P(VOUT, VOUT, NONE, NONE)) return TEE_ERROR_BAD_PARAMETERS;
      TEE_Time t;
      TEE_GetSystemTime(&t);
      p[0].value.a = t.seconds;
      p[0].value.b = t.millis;
      TEE_GetREETime(&t);
      p[1].value.a = t.seconds;
      p[1].value.b = t.millis;
      return TEE_SUCCESS;
    }
    case TEST_CMD_TRACE: {
      if (types != P(MIN, NONE, NONE, NONE)) return TEE_ERROR_BAD_PARAMETERS;
      TEE_Trace(TEE_TRACE_INFO, "%.*s", (int)p[0].memref.size, (const char*)p[0].memref.buffer);
      return TEE_SUCCESS;
    }
    case TEST_CMD_BUMP:
      if (types != P(MINOUT, NONE, NONE, NONE)) return TEE_ERROR_BAD_PARAMETERS;
      if (p[0].memref.size > 0) ((uint8_t*)p[0].memref.buffer)[0] += 1;
      return TEE_SUCCESS;
    case TEST_CMD_COUNT_MAPS: return count_maps(types, p);
    case TEST_CMD_DOUBLE_READ:
      if (types != P(MIN, VIN, VOUT, NONE)) return TEE_ERROR_BAD_PARAMETERS;
      p[2].value.a = test_ta_fnv1a(p[0].memref.buffer, p[0].memref.size);
      usleep(p[1].value.a * 1000u);
      p[2].value.b = test_ta_fnv1a(p[0].memref.buffer, p[0].memref.size);
      return TEE_SUCCESS;
    default:
      return TEE_ERROR_NOT_SUPPORTED;
  }
}
