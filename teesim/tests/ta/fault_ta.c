/*
 * The fault TA: a TA whose instance process dies at a chosen step of its
 * start-up or of opening a session, so tests can check that every open
 * still gets exactly one answer. The step is read from the installation
 * property TEST_FAULT_TA_PROP (see teesim_test_ta.h), so a test picks it by
 * writing the TA's .props file in its own copy of the TA folder.
 *
 * Two ways to die at a step:
 *   kill    the process ends there (SIGKILL to itself);
 *   hangup  the process stops receiving from the daemon there and ends as
 *           soon as the host code reads the hang-up. The daemon then meets a
 *           dead peer when it next sends, before its event loop has seen the
 *           end of the channel: the moment a process killed from outside
 *           can pick, reproduced on every run.
 * The host's control channel to the daemon is descriptor 3 (host_main.cpp).
 */
#define _DEFAULT_SOURCE
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tee_internal_api.h"
#include "teesim_ta.h"
#include "teesim_test_ta.h"

enum { kControlFd = 3 };

/* True when the fault property names `step` ("create-kill", ...). */
static int fault_is(const char* step) {
  char value[32];
  uint32_t len = sizeof value;
  if (TEE_GetPropertyAsString(TEE_PROPSET_CURRENT_TA, TEST_FAULT_TA_PROP, value, &len) != TEE_SUCCESS)
    return 0;
  return strcmp(value, step) == 0;
}

static void die_here(const char* when) {
  char kill_step[32], hangup_step[32];
  strcpy(kill_step, when);
  strcat(kill_step, "-kill");
  strcpy(hangup_step, when);
  strcat(hangup_step, "-hangup");
  if (fault_is(kill_step)) kill(getpid(), SIGKILL);
  if (fault_is(hangup_step)) shutdown(kControlFd, SHUT_RD);
}

TEE_Result TA_CreateEntryPoint(void) {
  die_here("create");
  return TEE_SUCCESS;
}

void TA_DestroyEntryPoint(void) {}

TEE_Result TA_OpenSessionEntryPoint(uint32_t types, TEE_Param params[4], void** ctx) {
  (void)types;
  (void)params;
  *ctx = NULL;
  die_here("open");
  return TEE_SUCCESS;
}

void TA_CloseSessionEntryPoint(void* ctx) { (void)ctx; }

/* TEST_CMD_INFO: p0 VALUE_OUTPUT (a = instance process id); every other
 * command succeeds and does nothing. */
TEE_Result TA_InvokeCommandEntryPoint(void* ctx, uint32_t cmd, uint32_t types, TEE_Param params[4]) {
  (void)ctx;
  if (cmd == TEST_CMD_INFO && TEE_PARAM_TYPE_GET(types, 0) == TEE_PARAM_TYPE_VALUE_OUTPUT) {
    params[0].value.a = (uint32_t)getpid();
    params[0].value.b = 0;
  }
  return TEE_SUCCESS;
}

TEESIM_TA_DESCRIPTOR("test-fault", TEESIM_TA_FLAG_SINGLE_INSTANCE | TEESIM_TA_FLAG_MULTI_SESSION,
                     TEST_FAULT_TA_UUID);
