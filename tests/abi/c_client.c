/* A C application's view of the library: the header compiles as C11 and the platform functions
   and connection exports behave at the boundary as documented. */
#include <stdio.h>
#include <string.h>

#include "MVCore.h"

static int failures = 0;
#define CHECK(cond)                                                      \
  do {                                                                   \
    if (!(cond)) {                                                       \
      fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #cond); \
      ++failures;                                                        \
    }                                                                    \
  } while (0)

int main(void) {
  static const OLECHAR hello[] = {'h', 'e', 'l', 'l', 'o', 0};
  BSTR s = MVSysAllocString(hello);
  CHECK(MVSysStringLen(s) == 5);
  MVSysFreeString(s);

  MVHGLOBAL h = MVGlobalAlloc(MV_GMEM_MOVEABLE | MV_GMEM_ZEROINIT, 3 * sizeof(UserRec));
  UserRec* users = (UserRec*)MVGlobalLock(h);
  CHECK(users != NULL && users[2].userAttribute == 0 && users[2].userName[16] == 0);
  CHECK(MVGlobalHandle(users) == h);
  CHECK(MVGlobalUnlock(h) == 0);
  CHECK(MVGlobalFree(h) == NULL);

  VARIANT v;
  MVVariantInit(&v);
  CHECK(v.vt == MV_VT_EMPTY);
  CHECK(MVVariantClear(&v) == 0);

  /* No server is registered under any name: activation fails, and its status is the code. */
  char message[260] = "unchanged";
  CHECK(MVInit("no-such-host") == -1);
  CHECK(MVGetLastError(message) != 0);
  CHECK(strcmp(message, "unchanged") == 0);
  CHECK(MVConnectCheck() == -1);
  CHECK(MVOpenDB("MarvekSystemCommonDB") == -1);
  CHECK(MVCheckTBL("MarvekSystemCommonDB", "UserInfoTBL") == 0);
  CHECK(MVSetCodePage("no-such-code-page") == -1);
  CHECK(MVSetCodePage("CP932") == 0);

  SearchCondition condition;
  memset(&condition, 0, sizeof condition);
  condition.period.end.wYear = 2026;
  CHECK(condition.period.end.wYear == 2026);

  printf("%d failed\n", failures);
  return failures == 0 ? 0 : 1;
}
