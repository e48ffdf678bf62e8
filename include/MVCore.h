/*
 * MVCore: client library of the construction-document filing system.
 *
 * The one public header. Plain C (C11 or later), usable from C++. Every export returns 0 for
 * success and -1 for failure unless its comment says otherwise; the code of a failure is read
 * with MVGetLastError. All text at this boundary is zero-terminated, in the library's
 * multi-byte code page (CP932 unless MVSetCodePage chose another).
 *
 * Text fields of the records are fixed-width and their width counts the terminator. Where the
 * library copies a longer value into such a field (a buffer of the caller's included) it cuts
 * the value at the last whole character that fits and always writes the terminator.
 */
#ifndef MVCORE_H
#define MVCORE_H

#include <stddef.h>
#include <stdint.h>
#ifndef __cplusplus
#include <uchar.h>
#endif

#if defined(MVCORE_BUILDING)
#define MVAPI __attribute__((visibility("default")))
#else
#define MVAPI
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------------------------------
 * Platform types and functions: the library's own stand-ins for movable global memory,
 * length-prefixed wide strings, variants and safe arrays.
 * ------------------------------------------------------------------------------------------- */

/* Movable global memory. Blocks never move in memory; a handle stays valid until freed.
   Lists that the library hands out are such blocks, and the application frees them. */
typedef void* MVHGLOBAL;
#define MV_GMEM_MOVEABLE 0x0002
#define MV_GMEM_ZEROINIT 0x0040
MVAPI MVHGLOBAL MVGlobalAlloc(uint32_t flags, size_t bytes); /* NULL when out of memory */
MVAPI void* MVGlobalLock(MVHGLOBAL h);         /* NULL for a handle that is not a live block */
MVAPI int MVGlobalUnlock(MVHGLOBAL h);         /* nonzero while still locked */
MVAPI size_t MVGlobalSize(MVHGLOBAL h);        /* 0 for a handle that is not a live block */
MVAPI MVHGLOBAL MVGlobalHandle(const void* p); /* handle of a locked block's address */
MVAPI MVHGLOBAL MVGlobalFree(MVHGLOBAL h);     /* NULL on success, h itself on failure */

/* Length-prefixed UTF-16 text. A NULL BSTR is a valid empty text. */
typedef char16_t OLECHAR;
typedef OLECHAR* BSTR;
MVAPI BSTR MVSysAllocString(const OLECHAR* s);
MVAPI BSTR MVSysAllocStringLen(const OLECHAR* s, uint32_t len); /* s may be NULL: zero-filled */
MVAPI uint32_t MVSysStringLen(BSTR s);                          /* in code units */
MVAPI void MVSysFreeString(BSTR s);

/* Variants: VT_EMPTY 0, VT_I4 3, VT_R8 5, VT_BSTR 8, VT_VARIANT 12, VT_UI1 17, VT_ARRAY 0x2000. */
typedef uint16_t VARTYPE;
#define MV_VT_EMPTY 0
#define MV_VT_I4 3
#define MV_VT_R8 5
#define MV_VT_BSTR 8
#define MV_VT_VARIANT 12
#define MV_VT_UI1 17
#define MV_VT_ARRAY 0x2000
typedef struct SAFEARRAYBOUND {
  uint32_t cElements;
  int32_t lLbound;
} SAFEARRAYBOUND;
typedef struct SAFEARRAY {
  uint16_t cDims;
  uint16_t fFeatures;
  uint32_t cbElements;
  uint32_t cLocks;
  void* pvData;
  SAFEARRAYBOUND rgsabound[1];
} SAFEARRAY;
typedef struct VARIANT {
  VARTYPE vt;
  uint16_t wReserved1, wReserved2, wReserved3;
  union {
    int32_t lVal;
    double dblVal;
    BSTR bstrVal;
    SAFEARRAY* parray;
  };
} VARIANT;
MVAPI void MVVariantInit(VARIANT* v);
/* Frees the strings and arrays the variant holds and leaves it empty; 0 on success, nonzero
   (and nothing freed) for an array that is still locked. */
MVAPI int32_t MVVariantClear(VARIANT* v);

typedef struct SYSTEMTIME {
  uint16_t wYear, wMonth, wDayOfWeek, wDay, wHour, wMinute, wSecond, wMilliseconds;
} SYSTEMTIME;

/* Message boxes: the library's fixed texts go to the handler (code-page text, caption), which
   stands for the modal box and returns when it is dismissed. With no handler they go to
   standard error. A NULL handler restores that default. */
typedef void (*MVMessageHandler)(const char* text, const char* caption, void* context);
MVAPI void MVSetMessageHandler(MVMessageHandler handler, void* context);

/* The boundary's code page, "CP932" by default; "UTF-8" for UTF-8 applications. 0 on success,
   -1 for a code page the C library cannot convert (the previous one stays). Call before
   MVInit. */
MVAPI int MVSetCodePage(const char* name);

/* ---------------------------------------------------------------------------------------------
 * Records that cross the boundary.
 * ------------------------------------------------------------------------------------------- */

typedef struct UserRec {
  int32_t tIndex;
  char userName[17];
  char password[35];
  int32_t userAttribute;
} UserRec;

typedef struct NameRecord {
  int32_t T_Index;
  char DataName[44];
} NameRecord;

typedef struct SpecRecord {
  int32_t T_Index;
  char SpcificationName[52];
  int32_t SpcificationID;
  int32_t Attribute;
} SpecRecord;

typedef struct TrafficRecord {
  int32_t T_Index;
  char TrafficName[52];
  int32_t TrafficID;
  int32_t SpcificationID;
  int32_t Attribute;
} TrafficRecord;

typedef struct FigureRecord {
  int32_t T_Index, SpcificationID, TrafficID;
  char Figure1ID[513], Figure2ID[513], Figure3ID[513], Figure4ID[513], Figure5ID[513],
      Figure6ID[513], Figure7ID[513], Figure8ID[513], Figure9ID[513], Figure10ID[513],
      Figure11ID[513], Figure12ID[513], Figure13ID[513], Figure14ID[513], Figure15ID[513],
      Figure16ID[513], ServerID[513];
  int32_t Up_DateCount, Attribute;
  char RealityDataInfo[513];
  int32_t ImgFType;
  char FileName[129];
} FigureRecord;

typedef struct FormRecord {
  int32_t T_Index;
  char DataName[260];
  int32_t Up_DateCount;
  char Up_Date[20];
  char AplName[260];
  int32_t PrefectualAppoint;
  char Various[260];
  char Group1[260], Group2[260], Group3[260], Group4[260], Group5[260];
  int32_t Attribute;
  char RealityDataInfo[256];
} FormRecord;

typedef struct RegApl {
  int32_t AplID;
  char AplName[261];
  char AplExe[261];
  char DefFilePath[261];
  char AplCommand[261];
} RegApl;

typedef struct ShelfEntry {
  int32_t T_Index;
  int32_t Attribute;
  int32_t BookCount;
  char BookShelfName[44];
} ShelfEntry;

typedef struct CoverInfo {
  int32_t T_Index;
  char BookName[260];
  char Year[21];
  char BookNo[21];
  char SiteName[255];
  char SitePosition[51];
  char StartDate[33];
  char EndDate[33];
  char OrderName[61];
  char ContractCompany[255];
  char Spot[21];
  char Prefectual[51];
  char Access[51];
  int32_t StatureColor;
  char MakeDate[20];
  char Up_Date[20];
  char Reserve[64];
  int32_t BookVer;
} CoverInfo;

typedef struct SearchCondition {
  int32_t kind;
  union {
    char text[260];
    struct {
      SYSTEMTIME start, end;
    } period;
    int32_t color;
  };
} SearchCondition;

typedef struct OrderEntry {
  int32_t id;
  int32_t position;
} OrderEntry;

typedef struct ServerModuleVersion {
  int32_t number[4];
} ServerModuleVersion;

typedef struct TagDispRecord {
  int32_t T_Index;
  char TagName[32];
  int32_t TagID, Attribute, Relation, T_Order, UpTagID;
} TagDispRecord;

typedef struct TagInfoRecord {
  int32_t Attribute, T_Index, Up_DateCounter;
  char TagName[32];
  int32_t TagNameAttribute, TagRenewAttribute, TagMakeAttribute, Relation, UpTagID, DispDataID,
      MasterDispType, ThumbnailID, AplAttribute;
  char TagStartUpApl[256];
  int32_t SrcFileID, CadAttribute, DynaCadFileID, PageCount;
  char TagAplOption[256];
  char TemplateName[256];
  int32_t RefFileInfo, Kensetu, PdfConvert, NewRelation;
} TagInfoRecord;

typedef struct ImageInfoRecord {
  int32_t T_Index, Up_DateCounter, Attribute;
  char ImageDataInfo[256];
} ImageInfoRecord;

typedef struct ImageInfoRecordEX {
  int32_t T_Index, Up_DateCounter, Attribute;
  char ImageDataInfo[256];
  char Various[256];
} ImageInfoRecordEX;

typedef struct TagAttributeRecord {
  int32_t T_Index, TagPageID, ViewAttributeID;
  char Value[64];
} TagAttributeRecord;

typedef struct ViewAttributeRecord {
  int32_t T_Index;
  char AttributeName[64];
  int32_t AttributeType, OfferInfo, ELLinkID;
} ViewAttributeRecord;

typedef struct ViewItemRecord {
  int32_t T_Index, ViewAttriID, ViewItemID;
  char ItemName[64];
  char ItemName2[64];
  int32_t SortNo;
} ViewItemRecord;

typedef struct ViewManageRecord {
  int32_t T_Index;
  char ViewName[64];
  int32_t OfferInfo;
} ViewManageRecord;

typedef struct ViewDataRecord {
  int32_t T_Index, ViewManageID, ViewAttriID, SortNo;
} ViewDataRecord;

/* ---------------------------------------------------------------------------------------------
 * Connection and errors.
 *
 * MVInit("") makes the link to the server in this process; MVInit("host") to a server on
 * another machine: the daemon bookserverd that the client configuration names "host"
 * ($MVCORE_CLIENT_CONF, else ~/.config/mvcore/client.conf, else /etc/mvcore/client.conf), or,
 * without configuration, "127.0.0.1:port", "localhost:port" or "[::1]:port" on this machine
 * (port 7340 when left out). A failed MVInit leaves in MVGetLastError 0x80040154 (a name that
 * means nothing), 0x80040150 (configuration or token file unusable), 0x800706BA (daemon
 * unreachable), 0x80070005 (token refused) or 0x800B0109 (TLS certificate refused). A lost link
 * is not remade: the call under way fails with 0x800706BE, every later one with 0x800706BA.
 * Every export that touches the server returns -1 while there is no link.
 * MVExit releases the link and forgets it: after MVExit the exports fail with -1 until the
 * next MVInit (they never reach a released server). A second MVInit over a standing link
 * replaces it without releasing the old one.
 * ------------------------------------------------------------------------------------------- */

MVAPI int MVInit(const char* serverName);
MVAPI int MVChangeServer(const char* serverName);
MVAPI int MVResetServer(void);
MVAPI int MVExit(void);
/* The server's description, at most 259 bytes + 0. */
MVAPI int MVGetServerInfo(char* info);
MVAPI int MVConnectCheck(void);
MVAPI int MVGetConnect(int32_t* first, int32_t* second);
/* `third` is never touched. */
MVAPI int MVGetOption(int32_t* first, int32_t* second, int32_t* third, int32_t* fourth);
/* Returns the stored failure code; copies the server's text for it into `message` (cut to 259
   bytes + 0) when the server has one, else leaves `message` as it stands. */
MVAPI int MVGetLastError(char* message);
MVAPI int MVGetLastErrorImage(void);
/* op 0 tests, 1 takes, 2 releases a named mutex of the server. Result 0, 1 (held by another),
   2 or -1. */
MVAPI int MVSetMutex(const char* name, int32_t op);

/* The data folder of the server in this process (MVInit("")): call before MVInit. Without it
   the folder is $MVCORE_HOME, else $XDG_DATA_HOME/mvcore, else ~/.local/share/mvcore. A fresh
   folder is set up on first use with the administrator "admin" (password "admin"), the discard
   shelf and the book template "標準". 0, or -1 for a null folder. */
MVAPI int MVSetDataFolder(const char* folder);

/* ---------------------------------------------------------------------------------------------
 * Databases and tables.
 *
 * `handle` buffers receive the server's handle text cut to 259 bytes + 0: give at least 260.
 * ------------------------------------------------------------------------------------------- */

MVAPI int MVOpenDB(const char* dbName);
MVAPI int MVCloseDB(const char* dbName);
MVAPI int MVOpenDBEx(const char* dbName);
MVAPI int MVCloseDBEx(const char* dbName);
MVAPI int MVDeleteDB(const char* dbName);
MVAPI int MVOpenTBL(const char* dbName, const char* tableName, int32_t ignored, int32_t* rowCount,
                    char* handle);
MVAPI int MVCloseTBL(const char* dbName, const char* handle);
/* closing 0 opens the held ImageDataTBL handle, anything else closes it. */
MVAPI int MVOpenTBLEx(int32_t closing, const char* dbName, char* handle);
/* phase 1 opens, 0 deletes the row tIndex, 2 closes. */
MVAPI int MVRecordDelete(const char* dbName, const char* tableName, int32_t tIndex, int32_t phase);
/* 1 if the table exists, else 0. */
MVAPI int MVCheckTBL(const char* dbName, const char* tableName);

/* ---------------------------------------------------------------------------------------------
 * Users and logon.
 *
 * Accounts live in the system database: the application holds it with
 * MVOpenDB("MarvekSystemCommonDB") for the whole run. The logon is decided by the library from
 * the stored password; the library keeps no logged-on user, the application keeps the id that
 * MVUserLogon gives. UserAttribute 0 marks the administrator, 1 an ordinary user. Names and
 * passwords may hold any character, an apostrophe included. Lists are freed by the application
 * with MVGlobalFree(MVGlobalHandle(p)).
 * ------------------------------------------------------------------------------------------- */

/* The administrator's name, cut to 16 bytes + 0: give at least 17. With no administrator the
   result is 0 and `name` is left as it was. */
MVAPI int MVGetAdmin(char* name);
/* Demotes the present administrator, then promotes `name`; an unknown name leaves the system
   without an administrator. */
MVAPI int MVSetAdmin(const char* name, int32_t ignored);
/* Promotes `userId`, then demotes the old administrator; 0 without a change if it is already. */
MVAPI int MVSetAdmin2(int32_t userId);
/* Adds an ordinary user; a name that exists already shows a message and gives -1. */
MVAPI int MVRegistUser(const char* name, const char* password, int32_t* userId);
/* Changes name and password, never UserAttribute. A user who is logged on now (by name) cannot
   be changed: a message, -1. */
MVAPI int MVUpdateUser(int32_t userId, const char* name, const char* password);
/* `found` 1 with the record filled, or 0 for an unknown name (result 0: no failure). */
MVAPI int MVGetUserInfo(const char* name, UserRec* record, int32_t* found);
/* Every user in the server's order; no users gives an empty list and a count of 0. */
MVAPI int MVGetUserList(UserRec** list, int32_t* count);
/* 0 with a link, -1 without. */
MVAPI int MVGetAdminLogon(int32_t ignored);
/* 0 with the user's id when name and password match exactly; an unknown name and a wrong
   password show the same message and give -1. */
MVAPI int MVUserLogon(const char* name, const char* password, int32_t ignored, int32_t* userId);
/* Forwarded to the server. */
MVAPI int MVLoginMgr(const char* a, const char* b, const char* c, int32_t d);
/* Forwarded to the server; its answers 3 and 4 set `state` to 1 and 0, an answer of 0 leaves it
   alone. */
MVAPI int MVSetUserAdmin(const char* a, const char* b, int32_t c, int32_t* state);

/* ---------------------------------------------------------------------------------------------
 * Bookshelf permissions.
 *
 * Values: 0 read only, 1 read and write (what deleting a book or a shelf requires), 2 neither.
 * The administrator has 1 on every shelf whatever is stored. A user with no stored value has 2
 * on the shelf whose id is 1 and 0 on every other. A book has the permissions of its shelf.
 * ------------------------------------------------------------------------------------------- */

/* -1 with `power` -1 when the server fails. */
MVAPI int MVGetUserPermissionOfBS(int32_t shelfId, int32_t userId, int32_t* power);
/* The value on the book's (first) shelf; 0 for a book on no shelf, 1 for the administrator. */
MVAPI int MVGetUserPermissionOfBook(int32_t bookId, const char* userName, int32_t* power);
/* Makes `users` the exact set with value 1 on the shelf: the others get the shelf's default.
   Entries that already had value 1 come back with tIndex -1. */
MVAPI int MVUpdateUserPermissionOfBS(int32_t shelfId, UserRec* users, int32_t count);
MVAPI int MVUpdateUserPermissionOfBS2(int32_t shelfId, int32_t userId, int32_t power);
/* The users whose value on the shelf is `power`, in ascending order of id; on a failure
   `list` is NULL and `count` 0. */
MVAPI int MVGetPowerUserListOfBS(int32_t shelfId, int32_t power, UserRec** list, int32_t* count);
MVAPI int MVGetRWUserOfBS(int32_t shelfId, UserRec** list, int32_t* count); /* value 1 */
MVAPI int MVGetROUserOfBS(int32_t shelfId, UserRec** list, int32_t* count); /* value 0 */
/* Deletes the user's permission rows, then the user; neither a logged-on user nor the
   administrator is refused. */
MVAPI int MVDeleteUser(int32_t userId);

/* ---------------------------------------------------------------------------------------------
 * Bookshelves.
 *
 * A shelf is a named group of books and the unit of permissions. The shelf whose Attribute is 1
 * is the discard shelf: books deleted from any other shelf go there. Names are compared byte
 * for byte, so names that differ only in case are different shelves; a name longer than
 * BookShelfName's 43 bytes is cut (at a character boundary) when read into a ShelfEntry.
 * These exports count on the application holding the system database (MVOpenDB).
 * ------------------------------------------------------------------------------------------- */

/* Creates a shelf; `userName` gets read and write on it. A name that is taken gives -1 with no
   message. A failure after the shelf was made leaves it (its id in `shelfId`). */
MVAPI int MVCreateBookshelf(const char* shelfName, const char* userName, int32_t* shelfId);
/* As MVCreateBookshelf, and every other user gets "neither right" (2) on the new shelf. */
MVAPI int MVCreateBookshelf2(const char* shelfName, const char* userName, int32_t* shelfId);
/* A new shelf with the permissions of `sourceShelfId` (none of its books); `userName` gets 1. */
MVAPI int MVCopyBookshelfSurface(const char* newShelfName, int32_t sourceShelfId,
                                 const char* userName, int32_t* shelfId);
/* Renames a shelf; another shelf's name is not refused here. */
MVAPI int MVChangeBookshelfName(const char* newName, int32_t shelfId, int32_t unused);
/* Deletes an empty shelf and its permission rows; `userName` needs read and write on it. A shelf
   with books, or an unknown name, shows a message and gives -1. */
MVAPI int MVDeleteBookshelf(const char* shelfName, const char* userName);
/* Every shelf with its book count, the discard shelf included; in display order once
   MVSetBookShelfOrder has run (the discard shelf first, shelves never placed last). With no
   shelf the result is 0 and `list` and `count` are left as they were. */
MVAPI int MVGetAllBookshelf(ShelfEntry** list, int32_t* count);
/* `rowCount` 1 for a shelf that exists, 0 for one that does not. */
MVAPI int MVIsExistBS(int32_t shelfId, int32_t* rowCount);
/* MVRegistUser, then "neither right" (2) for the new user on every shelf but the discard shelf;
   0 once the user exists, even if a permission could not be written. */
MVAPI int MVRegistUser2(const char* name, const char* password, int32_t* userId);

/* ---------------------------------------------------------------------------------------------
 * Books.
 *
 * A book is its own database on the server (named "BOOK" and the local time of its making as
 * MMDDhhmmss: so at most one book a second), the copy of its cover in that database, the
 * central copy whose T_Index is the book id, and the link that puts it on one shelf. A failure
 * between two steps leaves the steps before it done.
 * ------------------------------------------------------------------------------------------- */

/* Makes a book on the shelf `shelfName` from the template named by cover->Reserve (empty: the
   server's default template). Sets cover->BookName and cover->MakeDate (UTC), also when a later
   step fails; `bookId` gets the id once the central cover exists. An unknown shelf or a template
   that cannot be copied shows a message. */
MVAPI int MVCreateBook(const char* shelfName, int32_t unused, CoverInfo* cover, int32_t* bookId);
/* A new shelf holding copies of every book of `sourceShelfId`; only `userName` gets a
   permission (1). */
MVAPI int MVCopyBookshelf(const char* newShelfName, int32_t sourceShelfId, const char* userName,
                          int32_t* shelfId);
/* Copies the database `bookName` and the cover of `bookId` into a new book on `shelfId`. */
MVAPI int MVCopyBook(int32_t unused1, int32_t shelfId, int32_t bookId, const char* bookName,
                     int32_t unused2, int32_t* newBookId);
/* `userName` needs read and write on `shelfId`. From an ordinary shelf the book moves to the
   discard shelf (MVGetPrevBSID then tells where it came from); from the discard shelf it is
   ended: database, cover and link are removed. -1 while another client holds the mutex named
   by the book id. */
MVAPI int MVDeleteBook(int32_t shelfId, int32_t bookId, const char* userName);
/* Puts a book on `toShelfId`, last, and records `fromShelfId` as the shelf it came from. Bring
   a discarded book back with MVMoveBook(discard shelf, MVGetPrevBSID's shelf, book, 0). */
MVAPI int MVMoveBook(int32_t fromShelfId, int32_t toShelfId, int32_t bookId, int32_t unused);
/* The covers of a shelf's books in display order. An empty shelf gives 0, a NULL list and a
   count of 0. */
MVAPI int MVGetAllCoverInfoInBS(int32_t shelfId, CoverInfo** list, int32_t* count);
/* The number of books on a shelf; 0 when it cannot be counted (the result is still 0). */
MVAPI int MVGetBookCntInBS(int32_t shelfId, int32_t* count);
/* The shelf a book is on; 0 for a book on no shelf. */
MVAPI int MVGetBookExistBSID(int32_t bookId, int32_t* shelfId);
/* Id, Attribute and name of the shelf a book is on (BookCount is not filled). */
MVAPI int MVGetBookExistBSInfo(int32_t bookId, ShelfEntry* entry);
/* The shelf a book last came from; 0 for a book that never moved, and `shelfId` untouched for a
   book with no link. */
MVAPI int MVGetPrevBSID(int32_t bookId, int32_t* shelfId);
/* `exists` 1 or 0; -1 only when the server cannot tell. */
MVAPI int MVIsExistDB(const char* dbName, int32_t* exists);
/* Removes a book's central cover and then its link, leaving its database (MVDeleteDB removes
   that): for clearing what a failed creation or deletion left. */
MVAPI int MVDeleteBookInfoRecord(int32_t bookId);

/* ---------------------------------------------------------------------------------------------
 * Covers.
 *
 * A cover is kept twice: centrally, where lists and searches read it, and in the book's own
 * database. Dates: StartDate and EndDate are eight digits YYYYMMDD; MakeDate and Up_Date go out
 * as 14 digits and come back as the server writes them.
 * ------------------------------------------------------------------------------------------- */

/* The central cover. Only the fields the server sends are written: clear the buffer first. */
MVAPI int MVGetCoverInfo(int32_t bookId, CoverInfo* cover);
/* Writes both copies. The central copy keeps its BookName, BookVer and MakeDate; the book's own
   copy is found by cover->BookName, so pass a cover read for this very book. No date is changed
   by the library: Up_Date goes out as the record holds it. */
MVAPI int MVSetCoverInfo(int32_t bookId, const CoverInfo* cover);
/* The cover as the book's own database holds it (T_Index is not filled). A book database with
   no cover gives 0 and leaves the buffer alone. */
MVAPI int MVGetBookDBCoverInfo(const char* dbName, CoverInfo* cover);

/* ---------------------------------------------------------------------------------------------
 * Searching covers, across all shelves (the discard shelf included).
 *
 * Results are lists of CoverInfo in the server's order, without BookVer and Reserve. No match
 * gives 0, a NULL list and a count of 0. Apostrophes in texts are taken literally; '%' and '_'
 * are wildcards.
 * ------------------------------------------------------------------------------------------- */

/* kind: 1 SiteName, 2 OrderName, 4 Spot, 8 StartDate or EndDate; exact non-zero compares the
   whole text, 0 finds it anywhere in the column. Another kind gives -1. BookNo is not filled. */
MVAPI int MVSearchBook(int32_t kind, const char* text, int32_t exact, CoverInfo** list,
                       int32_t* count);
/* Conditions joined by AND (joinMode 1) or OR (2). kind: 1 SiteName, 2 OrderName, 4 Spot,
   16 Year, 32 BookNo, 64 SitePosition, 128 ContractCompany, 256 Prefectual, 512 Access (text
   found anywhere in the column; an empty text is refused); 8 the period (start, end), which
   finds the books whose works overlap it; 1024 StatureColor equal to `color`. -4 for bad
   arguments, before anything is sent. */
MVAPI int MVSearchBookEx(int16_t joinMode, const SearchCondition* conditions,
                         int32_t conditionCount, CoverInfo** list, int32_t* count);

/* ---------------------------------------------------------------------------------------------
 * Display order and counters.
 *
 * Lower positions come first, ties by id; rows never placed come last. The first call adds the
 * order column to a table that lacks it.
 * ------------------------------------------------------------------------------------------- */

/* Positions of shelves (id: shelf T_Index); the discard shelf always comes first. -4 for a NULL
   array or a count below 1 (even without a link); else the server's status, 0 on success. */
MVAPI int MVSetBookShelfOrder(const OrderEntry* entries, int32_t count);
/* Positions of the books on a shelf (id: book id); results as MVSetBookShelfOrder. */
MVAPI int MVSetBookOrder(int32_t shelfId, const OrderEntry* entries, int32_t count);
/* A book's update counter, which only MVSetBookUpdateCounter raises: the application decides
   which changes count. */
MVAPI int MVGetBookUpdateCounter(const char* dbName, int32_t* counter);
MVAPI int MVSetBookUpdateCounter(const char* dbName);
/* The server's named counters: op 0 reads the counter into `value`; other ops are passed on. A
   shelf cannot be created under a name whose counter is above 0. */
MVAPI int MVSetCounter(const char* name, int32_t op, int32_t* value);

/* ---------------------------------------------------------------------------------------------
 * Tags, pages, tag attributes and views.
 *
 * A tag is two rows of the book's database: its page (TagPageTBL), whose T_Index is the tag's
 * identity (tagIndex), and its display row (TagDispTBL, key dispIndex), which points to the page
 * through TagID. Both rows are written by one export, page first; a failure between the two
 * steps leaves the first done. The library gives UpTagID, Relation, T_Order, Attribute and the
 * carried page fields no meaning: it stores what it is given and hands it back in the server's
 * order. Each export opens and closes the book's database itself unless MVOpenDBEx holds one.
 *
 * Texts: a text that goes to the server is taken up to its terminator or the end of its field
 * and cut at a character boundary to what its field holds with a terminator (TagName 31 bytes,
 * the 256-byte fields 255, the 64-byte fields 63); newName and option are cut the same way to
 * their fields. keyLine goes as it is. A text read into a record is cut at a character boundary
 * to fit its field and always terminated. A NULL pointer argument gives -1 with no server call.
 * ------------------------------------------------------------------------------------------- */

/* The display rows of all tags, as a movable block of TagDispRecord handed over by its handle,
   unlocked: lock it to read, free it with MVGlobalFree. An empty tree gives 0, a block of no
   records and a count of 0; a failure gives -1 with `block` NULL and `count` 0. */
MVAPI int MVGetAllTag(const char* databaseName, MVHGLOBAL* block, int32_t* count);
/* The same for the pages, as TagInfoRecord; Attribute is 0 in every record. */
MVAPI int MVGetAllTagInfo(const char* databaseName, MVHGLOBAL* block, int32_t* count);
/* Makes a tag: the page from `info` (T_Index, Up_DateCounter and Attribute are not sent to it),
   then the display row with info's TagName, Attribute and Relation, T_Order 0 and `upTagID`.
   `tagIndex` is 0 after a failure; if the display row failed the page row stays. */
MVAPI int MVCreateTag(const char* databaseName, TagInfoRecord info, int32_t upTagID,
                      int32_t* tagIndex, int32_t* dispIndex);
/* Renames the page, then the display row. */
MVAPI int MVChangeTagName(const char* databaseName, int32_t tagIndex, const char* newName,
                          int32_t dispIndex);
/* Sets T_Order of the display row; leaves lastError as it was on entry. */
MVAPI int MVChangeTagOrder(const char* databaseName, int32_t tagIndex, int32_t dispIndex,
                           int32_t order);
/* Deletes the page, the display row and the image rows of the tag, in this order; child tags and
   attribute values stay. An unknown tagIndex gives -1 with lastError 0. */
MVAPI int MVDeleteTag(const char* databaseName, int32_t tagIndex, int32_t dispIndex);

/* Reads the page into `info` (not cleared first; Attribute untouched). On a failure `info` is
   untouched. */
MVAPI int MVGetTag(const char* databaseName, int32_t tagIndex, TagInfoRecord* info);
/* Rewrites both rows as MVCreateTag writes them (T_Order and Up_DateCounter go as 0). A missing
   page or display row gives -1 with lastError 0. */
MVAPI int MVChangeTagInfo(const char* databaseName, TagInfoRecord info, int32_t upTagID,
                          int32_t tagIndex, int32_t dispIndex);
MVAPI int MVChangePageCount(const char* databaseName, int32_t tagIndex, int32_t pageCount);
MVAPI int MVChangeAppParam(const char* databaseName, int32_t tagIndex, const char* option);
/* Sends `keyLine` ("KEY=" column TAB typecode TAB value) to the page row of tagIndex, through a
   handle opened on `tableName`. */
MVAPI int MVChangeFieldData(const char* databaseName, const char* tableName, int32_t tagIndex,
                            const char* keyLine);
/* The tag's update counter, which only MVSetTagUpdateCounter raises. */
MVAPI int MVGetTagUpdateCounter(const char* databaseName, int32_t tagIndex, int32_t* counter);
MVAPI int MVSetTagUpdateCounter(const char* databaseName, int32_t tagIndex);

/* Attribute values of tags: -1 on a failure with the code in lastError: 103 no link, 126 an add
   on a T_Index that exists, 100 a list whose `count` is below the rows found (`count` then holds
   that number and nothing is read), else the server's. The first add into a book without the
   table makes it. An add stores the new key in info->T_Index. */
MVAPI int MVAddTagAttribute(const char* databaseName, TagAttributeRecord* info);
MVAPI int MVUpdateTagAttribute(const char* databaseName, TagAttributeRecord* info);
/* The values of one tag into `records` (NULL allowed with `*count` 0); `count` in: the array's
   size, out: the rows read. A row that cannot be read ends the list without a failure. */
MVAPI int MVGetTagAttributeList(const char* databaseName, int32_t tagPageID,
                                TagAttributeRecord* records, int32_t* count);
MVAPI int MVDeleteTagAttribute(const char* databaseName, int32_t tIndex);

/* Views, in the system database: every export returns 0 or a code, also left in lastError: 103
   no link, 126 an add on a T_Index that exists, 100 a list whose `count` is below the rows found
   (`count` then holds that number: call with 0 to learn it), else the server's code; -1 for a
   NULL argument. An add into a database that lacks the table, and a list of ViewAttributeTBL or
   ViewManageTBL, make the table. Names are matched without regard to case on reading. Lists
   come in the server's order; a list whose reading fails part-way gives the rows read in
   `records` and their number in `count` (MVGetViewItemList leaves an unreadable row out and goes
   on). A close that fails after a good write gives its code; the add's key is stored all the
   same. Nothing is deleted in cascade. */
MVAPI int MVAddViewAttribute(ViewAttributeRecord* info);
MVAPI int MVUpdateViewAttribute(ViewAttributeRecord* info);
MVAPI int MVGetViewAttribute(int32_t tIndex, ViewAttributeRecord* info);
MVAPI int MVGetViewAttributeList(ViewAttributeRecord* records, int32_t* count);
MVAPI int MVDeleteViewAttribute(int32_t tIndex);
MVAPI int MVAddViewItem(ViewItemRecord* info);
MVAPI int MVUpdateViewItem(ViewItemRecord* info);
MVAPI int MVGetViewItem(int32_t tIndex, ViewItemRecord* info);
MVAPI int MVGetViewItemList(int32_t parentID, ViewItemRecord* records, int32_t* count);
MVAPI int MVDeleteViewItem(int32_t tIndex);
MVAPI int MVAddViewManage(ViewManageRecord* info);
MVAPI int MVUpdateViewManage(ViewManageRecord* info);
MVAPI int MVGetViewManage(int32_t tIndex, ViewManageRecord* info);
MVAPI int MVGetViewManageList(ViewManageRecord* records, int32_t* count);
MVAPI int MVDeleteViewManage(int32_t tIndex);
MVAPI int MVAddViewData(ViewDataRecord* info);
MVAPI int MVUpdateViewData(ViewDataRecord* info);
MVAPI int MVGetViewData(int32_t tIndex, ViewDataRecord* info);
MVAPI int MVGetViewDataList(int32_t parentID, ViewDataRecord* records, int32_t* count);
MVAPI int MVDeleteViewData(int32_t tIndex);

/* ---------------------------------------------------------------------------------------------
 * Images: rows of the book's ImageDataTBL whose bytes (RealityData) move between a local file
 * and the server in blocks of 307,200 bytes; electronic-delivery rows (TagID 0, grouped by
 * GroupNo) in the same table; and a tag's image files kept as plain files in the folder that the
 * server shares for the tag.
 *
 * Rows. Each export opens and closes the book's database itself unless MVOpenDBEx holds one
 * (MVSetImageUpdateCounter and MVSetImageVariousData open and close it in any case), and clears
 * lastError on entry. A NULL pointer argument gives -1 with no server call. Lists are movable
 * blocks handed over by their handle, unlocked: lock to read, free with MVGlobalFree; no row
 * gives 0 with `count` 0 and `block` untouched. Texts sent: ImageDataInfo is cut at a character
 * boundary to 239 bytes, Various to 245 (what a 260-byte record element holds); texts read are
 * cut to fit their fields and always terminated. `tableName` must be a plain table name
 * (letters, digits, '_'), else -1.
 *
 * Uploads. A local file that does not exist is created empty. The file's last-write time goes
 * with the bytes (as local time) and comes back as the downloaded file's times. An insert sends
 * a last, possibly empty, block; an update of an empty file sends nothing and keeps the bytes.
 * An insert whose file cannot be opened, or whose blocks fail, leaves the new row (its key in
 * info->T_Index) with the bytes sent so far.
 *
 * Downloads. The local file is created or emptied first, so that it ends with exactly the row's
 * bytes: an older, longer file keeps no tail. A failed write stops the download with -1 and
 * lastError 0x70 (112) when the disk is full, 0x1D (29) for another write failure; what was
 * written stays.
 * ------------------------------------------------------------------------------------------- */

/* The images of a tag: ImageInfoRecord (MVGetImageInfo) or ImageInfoRecordEX records. */
MVAPI int MVGetImageInfo(const char* databaseName, int32_t tagID, MVHGLOBAL* block,
                         int32_t* count);
MVAPI int MVGetImageInfoEX(const char* databaseName, int32_t tagID, MVHGLOBAL* block,
                           int32_t* count);
/* Adds a row for the tag (Up_DateCounter 0) with the file's bytes; the new key goes to
   info->T_Index (0 when the row could not be added). While MVOpenTBLEx holds its ImageDataTBL
   handle, the insert writes through it. MVInsertImageData sends an empty Various. */
MVAPI int MVInsertImageData(const char* databaseName, int32_t tagID, ImageInfoRecord* info,
                            const char* localPath);
MVAPI int MVInsertImageDataEX(const char* databaseName, int32_t tagID, ImageInfoRecordEX* info,
                              const char* localPath);
/* Replaces the bytes of row tIndex of `tableName` and writes info's Up_DateCounter and
   Attribute; ImageDataInfo and Various are not sent. A missing row gives -1 with lastError 0. */
MVAPI int MVUpDateImageData(const char* databaseName, const char* tableName, int32_t tIndex,
                            const char* localPath, ImageInfoRecord* info);
MVAPI int MVUpDateImageDataEX(const char* databaseName, const char* tableName, int32_t tIndex,
                              const char* localPath, ImageInfoRecordEX* info);
/* Writes the bytes of row tIndex to `localPath` and stamps the stored file date on it. */
MVAPI int MVDownLoadImageData(const char* databaseName, const char* tableName, int32_t tIndex,
                              const char* localPath);
/* A missing row gives -1 with lastError 0 in these four (the two setters send no update). */
MVAPI int MVDeleteImageData(const char* databaseName, int32_t tIndex);
MVAPI int MVGetImageUpdateCounter(const char* databaseName, int32_t tIndex, int32_t* counter);
MVAPI int MVSetImageUpdateCounter(const char* databaseName, int32_t tIndex, int32_t counter);
MVAPI int MVSetImageVariousData(const char* databaseName, int32_t tIndex, const char* various);

/* Files on the share. The server names the tag's folder: index.bif in it, the image files in
   "IndexFile" (kind 1), the electronic-delivery files in "EL" (kind 2). index.bif is text: a
   first line "[DataCnt],<count>", then one line per file "[Data],<name>,<Attribute>,<Various>,
   <Up_DateCounter>", lines ending in LF or CR LF, empty lines skipped; a missing or unreadable
   count is 0. These exports do not clear lastError; a failure to get the share folder gives the
   export's failure value without a code. `shareClient` is passed to the server as it is.
   Insert and update copy the files of `sourceFolder` that have an extension (not its folders,
   not names that begin with '.'), replacing; index.bif, in any case of letters, goes to the tag
   folder under the name "index.bif". All copies are made writable. */
/* Replaces the data folder of `kind` (1 or 2) as a whole; a missing sourceFolder changes
   nothing. -1 for another kind or at the first failed copy (the folder then holds the files
   copied so far). */
MVAPI int MVInsertImageDataEX2(const char* databaseName, int32_t tagIndex,
                               const char* sourceFolder, int32_t kind, const char* shareClient);
/* Overlays the data folder of `kind`: its files that sourceFolder lacks stay. The folder is
   first copied to "IndexFile_Old" or "EL_Old"; if the overlay fails, the copy is put back, and
   else removed. A tag without its data folder fails at the first data file. */
MVAPI int MVUpDateImageDataEx2(const char* databaseName, int32_t tagIndex,
                               const char* sourceFolder, int32_t kind, const char* shareClient);
/* Copies to `localFolder` (which is not emptied): kind 0 the files of "IndexFile" whose
   Attribute in index.bif is 1 or 5 (no index.bif: nothing, 0; a count of 0: -1), kind 1 all of
   "IndexFile", kind 2 all of "EL", kind 3 none; then index.bif if the share has one. */
MVAPI int MVDownLoadImageData2(const char* databaseName, int32_t tagIndex,
                               const char* localFolder, int32_t kind, const char* shareClient);
/* Deletes `fileName` from "EL" and from "IndexFile" where it is; a file in neither is no
   failure. */
MVAPI int MVDeleteImageData2(const char* databaseName, int32_t tagIndex, const char* fileName,
                             const char* shareClient);
/* Deletes the tag's page and display rows (not its image rows), then empties its share folder.
   The folder is kept when the rows could not be deleted; without the share folder the rows go
   and the result is -1. Clears lastError on entry. */
MVAPI int MVDeleteTag2(const char* databaseName, int32_t tagIndex, int32_t dispIndex,
                       const char* shareClient);
/* 1 if the local copy must be fetched again: the share has an index.bif and localFolder none;
   or the share's count is above the local count or above the number of local files with an
   extension (index.bif not counted); or a line of the share's index.bif has a higher
   Up_DateCounter than the local line at the same position. Else 0, also on a failure. */
MVAPI int MVIsImageFilesUpdated(const char* databaseName, int32_t tagIndex,
                                const char* localFolder, const char* shareClient);
/* 0 if a folder can be made and removed in the share folder of key 20, else -2. */
MVAPI int MVCheckIsAccessNetData(const char* shareClient, const char* databaseName);

/* Electronic-delivery rows: MVGetELImageInfo lists group 9999 as ImageInfoRecord,
   MVGetELImageInfoEX the group `groupNo` as ImageInfoRecordEX. An insert writes TagID 0 and the
   group, through a handle of its own (never the one MVOpenTBLEx holds), and stamps no file
   date. A delete of a missing row is no failure. */
MVAPI int MVGetELImageInfo(const char* databaseName, MVHGLOBAL* block, int32_t* count);
MVAPI int MVGetELImageInfoEX(const char* databaseName, MVHGLOBAL* block, int32_t* count,
                             int32_t groupNo);
MVAPI int MVInsertELImageData(const char* databaseName, ImageInfoRecord* info,
                              const char* localPath, int32_t groupNo);
MVAPI int MVInsertELImageDataEX(const char* databaseName, ImageInfoRecordEX* info,
                                const char* localPath, int32_t groupNo);
MVAPI int MVDeleteELData(const char* databaseName, int32_t tIndex);

#ifdef __cplusplus
}
#endif

#endif /* MVCORE_H */
