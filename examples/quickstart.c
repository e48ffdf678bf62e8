/* A first program against libMVCore: log on, make a shelf and a book with a cover, list and
   search them, send the book to the discard shelf and bring it back.

   Usage: mvcore_quickstart [host]     (no host: the server in this process, on its default data
                                        folder; every run adds a shelf and a book of its own)

   Lists that the library hands out belong to the program, which frees each with
   MVGlobalFree(MVGlobalHandle(list)). */
#include <stdio.h>
#include <string.h>
#include <threads.h>
#include <time.h>

#include "MVCore.h"

static const char* kSystemDb = "MarvekSystemCommonDB";

/* The library's message boxes arrive here instead of on standard error. */
static void onMessage(const char* text, const char* caption, void* context) {
  (void)context;
  printf("  [message] %s: %s\n", caption, text);
}

static int fail(const char* step) {
  char message[260] = "";
  int code = MVGetLastError(message);
  printf("%s failed: code %d (0x%X) %s\n", step, code, (unsigned)code, message);
  return 1;
}

static void freeList(void* list) {
  if (list != NULL) MVGlobalFree(MVGlobalHandle(list));
}

/* A book's database is named after the current second, so two books cannot be made in the same
   second: wait for the next one before trying again. */
static void waitForNextSecond(void) {
  const time_t start = time(NULL);
  const struct timespec pause = {0, 50 * 1000 * 1000};
  while (time(NULL) == start) thrd_sleep(&pause, NULL);
}

static void printCover(const CoverInfo* cover) {
  printf("  book %d in database %s: \"%s\" at %s, works %s to %s, ordered by %s\n", cover->T_Index,
         cover->BookName, cover->SiteName, cover->SitePosition, cover->StartDate, cover->EndDate,
         cover->OrderName);
}

static int listShelves(int32_t* discardShelf) {
  ShelfEntry* shelves = NULL;
  int32_t count = 0;
  if (MVGetAllBookshelf(&shelves, &count) != 0) return fail("MVGetAllBookshelf");
  printf("Shelves:\n");
  for (int32_t i = 0; i < count; ++i) {
    printf("  %3d %-44s %d book(s)%s\n", shelves[i].T_Index, shelves[i].BookShelfName,
           shelves[i].BookCount, shelves[i].Attribute == 1 ? "  (discard shelf)" : "");
    if (shelves[i].Attribute == 1) *discardShelf = shelves[i].T_Index;
  }
  freeList(shelves);
  return 0;
}

static int listBooks(int32_t shelfId) {
  CoverInfo* covers = NULL;
  int32_t count = 0;
  if (MVGetAllCoverInfoInBS(shelfId, &covers, &count) != 0) return fail("MVGetAllCoverInfoInBS");
  printf("Books on shelf %d: %d\n", shelfId, count);
  for (int32_t i = 0; i < count; ++i) printCover(&covers[i]);
  freeList(covers);
  return 0;
}

static int search(const char* stamp) {
  CoverInfo* found = NULL;
  int32_t count = 0;
  /* One subject: the name of the works holds the text somewhere. */
  if (MVSearchBook(1, stamp, 0, &found, &count) != 0) return fail("MVSearchBook");
  printf("MVSearchBook, name of the works holding \"%s\": %d\n", stamp, count);
  for (int32_t i = 0; i < count; ++i) printCover(&found[i]);
  freeList(found);

  /* Several subjects: the name again AND a period that overlaps the works. */
  SearchCondition conditions[2];
  memset(conditions, 0, sizeof conditions);
  conditions[0].kind = 1;
  snprintf(conditions[0].text, sizeof conditions[0].text, "%s", stamp);
  conditions[1].kind = 8;
  conditions[1].period.start.wYear = 2025;
  conditions[1].period.start.wMonth = 3;
  conditions[1].period.start.wDay = 1;
  conditions[1].period.end.wYear = 2025;
  conditions[1].period.end.wMonth = 3;
  conditions[1].period.end.wDay = 31;
  found = NULL;
  count = 0;
  if (MVSearchBookEx(1, conditions, 2, &found, &count) != 0) return fail("MVSearchBookEx");
  printf("MVSearchBookEx, that name AND works during March 2025: %d\n", count);
  for (int32_t i = 0; i < count; ++i) printCover(&found[i]);
  freeList(found);
  return 0;
}

static int work(void) {
  int32_t userId = 0;
  if (MVUserLogon("admin", "admin", 0, &userId) != 0) return fail("MVUserLogon");
  printf("Logged on as admin, user id %d\n", userId);

  /* Names of this run's own, so that the program can run again on the same data. A shelf name
     that is taken gives -1 without a message: then this program ran in the same second. */
  char stamp[32];
  char shelfName[44];
  int32_t shelfId = 0;
  for (int attempt = 1;; ++attempt) {
    const time_t now = time(NULL);
    strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", localtime(&now));
    snprintf(shelfName, sizeof shelfName, "Quickstart %s", stamp);
    if (MVCreateBookshelf(shelfName, "admin", &shelfId) == 0) break;
    if (attempt == 2) return fail("MVCreateBookshelf");
    waitForNextSecond();
  }
  printf("Created shelf %d \"%s\"\n", shelfId, shelfName);

  CoverInfo cover;
  memset(&cover, 0, sizeof cover); /* Reserve "" picks the server's default template */
  snprintf(cover.SiteName, sizeof cover.SiteName, "Riverside bridge repair %s", stamp);
  snprintf(cover.SitePosition, sizeof cover.SitePosition, "North bank");
  snprintf(cover.OrderName, sizeof cover.OrderName, "City roads office");
  snprintf(cover.ContractCompany, sizeof cover.ContractCompany, "Example Construction");
  snprintf(cover.Spot, sizeof cover.Spot, "K. Sato");
  snprintf(cover.StartDate, sizeof cover.StartDate, "20241001");
  snprintf(cover.EndDate, sizeof cover.EndDate, "20250331");
  cover.StatureColor = 0xFF0000;

  int32_t bookId = 0;
  if (MVCreateBook(shelfName, 0, &cover, &bookId) != 0) {
    printf("  (a book was made in this very second; trying again in the next one)\n");
    waitForNextSecond();
    if (MVCreateBook(shelfName, 0, &cover, &bookId) != 0) return fail("MVCreateBook");
  }
  printf("Created book %d, database %s, made %s (UTC)\n", bookId, cover.BookName, cover.MakeDate);

  int32_t discardShelf = 0;
  if (listShelves(&discardShelf) != 0 || listBooks(shelfId) != 0 || search(stamp) != 0) return 1;

  /* Deleting from an ordinary shelf sends the book to the discard shelf. */
  if (MVDeleteBook(shelfId, bookId, "admin") != 0) return fail("MVDeleteBook");
  int32_t where = 0;
  int32_t cameFrom = 0;
  if (MVGetBookExistBSID(bookId, &where) != 0) return fail("MVGetBookExistBSID");
  if (MVGetPrevBSID(bookId, &cameFrom) != 0) return fail("MVGetPrevBSID");
  printf("Deleted: book %d is now on shelf %d (the discard shelf is %d), it came from %d\n", bookId,
         where, discardShelf, cameFrom);

  /* And it comes back to the shelf it came from. */
  if (MVMoveBook(where, cameFrom, bookId, 0) != 0) return fail("MVMoveBook");
  if (MVGetBookExistBSID(bookId, &where) != 0) return fail("MVGetBookExistBSID");
  printf("Brought back: book %d is on shelf %d again\n", bookId, where);
  return listBooks(shelfId);
}

int main(int argc, char** argv) {
  const char* host = argc > 1 ? argv[1] : "";
  /* This program's texts are UTF-8; the library's default is the Japanese code page CP932. */
  MVSetCodePage("UTF-8");
  MVSetMessageHandler(onMessage, NULL);

  printf("Connecting to %s...\n", *host ? host : "the server in this process");
  if (MVInit(host) != 0) return fail("MVInit");

  int result;
  if (MVOpenDB(kSystemDb) != 0) {
    result = fail("MVOpenDB");
  } else {
    result = work();
    if (MVCloseDB(kSystemDb) != 0 && result == 0) result = fail("MVCloseDB");
  }
  MVExit();
  printf(result == 0 ? "Done.\n" : "Stopped.\n");
  return result;
}
