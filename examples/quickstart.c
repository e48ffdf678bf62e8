/* A first program against libMVCore: connect to a book server, hold the system database for the
   run, look at it, and leave cleanly.

   Usage: mvcore_quickstart [host]     (no host: the server in this process) */
#include <stdio.h>
#include <string.h>

#include "MVCore.h"

/* The library's message boxes arrive here instead of on standard error. */
static void onMessage(const char* text, const char* caption, void* context) {
  (void)context;
  printf("[message] %s: %s\n", caption, text);
}

static int fail(const char* step) {
  char message[260] = "";
  int code = MVGetLastError(message);
  printf("%s failed: code %d (0x%X) %s\n", step, code, (unsigned)code, message);
  return 1;
}

int main(int argc, char** argv) {
  const char* host = argc > 1 ? argv[1] : "";
  MVSetMessageHandler(onMessage, NULL);

  printf("Connecting to %s...\n", *host ? host : "the server in this process");
  if (MVInit(host) != 0) return fail("MVInit");

  int result = 0;
  if (MVConnectCheck() != 0) {
    result = fail("MVConnectCheck");
  } else if (MVOpenDB("MarvekSystemCommonDB") != 0) {
    result = fail("MVOpenDB");
  } else {
    printf("System database held. User table present: %s\n",
           MVCheckTBL("MarvekSystemCommonDB", "UserInfoTBL") == 1 ? "yes" : "no");
    if (MVCloseDB("MarvekSystemCommonDB") != 0) result = fail("MVCloseDB");
  }
  MVExit();
  printf("Done.\n");
  return result;
}
