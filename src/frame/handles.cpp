// Databases and tables: the application's open and close, the held book database and image
// table handle, and the library's own work-table pair.
#include "frame/handles.h"

#include <cstring>

#include "frame/connection.h"
#include "frame/exchange.h"
#include "platform/codepage.h"

namespace mv {

namespace {

bool isHeldSystemDb(const char* dbName) {
  return connection().systemDbHeld == 1 && std::strcmp(dbName, kSystemDb) == 0;
}

// CloseDatabase unless the application holds the database; the status, or 0 when skipped.
int32_t closeUnlessHeld(IBookServer& server, const char* dbName, BSTR wideDb) {
  return isHeldSystemDb(dbName) ? 0 : server.CloseDatabase(wideDb);
}

}  // namespace

int openWorkTable(const char* dbName, const char* tableName, int32_t* rowCount,
                  std::string& handle) {
  IBookServer* server = connection().currentServer;
  if (server == nullptr || dbName == nullptr || tableName == nullptr || rowCount == nullptr) {
    return 0;
  }
  const Bstr db = toWide(dbName);
  const bool openHere = !isHeldSystemDb(dbName);
  if (openHere) {
    int32_t out = 0;
    if (failed(server->OpenDatabase(db.get(), kOpenForWork, &out))) return 0;
  }
  Bstr h;
  if (failed(server->OpenTable(db.get(), toWide(tableName).get(), 0, rowCount, h.out()))) {
    if (openHere) (void)server->CloseDatabase(db.get());
    return 0;
  }
  handle = toAnsi(h.get());
  return 1;
}

int closeWorkTable(const char* dbName, const std::string& handle, int unlock) {
  IBookServer* server = connection().currentServer;
  if (server == nullptr || dbName == nullptr) return 0;
  const Bstr db = toWide(dbName);
  if (failed(server->CloseTable(db.get(), toWide(handle).get()))) {
    if (unlock == 1) (void)server->UnlockDatabase(db.get());
    (void)closeUnlessHeld(*server, dbName, db.get());
    return 0;
  }
  if (unlock == 1 && failed(server->UnlockDatabase(db.get()))) {
    (void)closeUnlessHeld(*server, dbName, db.get());
    return 0;
  }
  return failed(closeUnlessHeld(*server, dbName, db.get())) ? 0 : 1;
}

void abandonWorkTable(const char* dbName, const std::string& handle, int unlock) {
  const int32_t kept = connection().lastError;
  (void)closeWorkTable(dbName, handle, unlock);
  connection().lastError = kept;
}

int openWorkDatabase(const char* dbName) {
  IBookServer* server = connection().currentServer;
  if (server == nullptr || dbName == nullptr) return 0;
  if (isHeldSystemDb(dbName)) return 1;
  int32_t out = 0;
  return failed(server->OpenDatabase(toWide(dbName).get(), kOpenForWork, &out)) ? 0 : 1;
}

int closeWorkDatabase(const char* dbName) {
  IBookServer* server = connection().currentServer;
  if (server == nullptr || dbName == nullptr) return 0;
  return failed(closeUnlessHeld(*server, dbName, toWide(dbName).get())) ? 0 : 1;
}

}  // namespace mv

using mv::connection;
using mv::failed;

extern "C" {

MVAPI int MVOpenDB(const char* dbName) {
  auto* server = connection().currentServer;
  if (server == nullptr || dbName == nullptr) return -1;
  int32_t out = 0;
  if (failed(server->OpenDatabase(mv::toWide(dbName).get(), mv::kOpenForWork, &out))) return -1;
  if (std::strcmp(dbName, mv::kSystemDb) == 0) connection().systemDbHeld = 1;
  return 0;
}

MVAPI int MVCloseDB(const char* dbName) {
  auto* server = connection().currentServer;
  if (server == nullptr || dbName == nullptr) return -1;
  const int32_t status = server->CloseDatabase(mv::toWide(dbName).get());
  // The flag drops whatever the server said: the library then acts as if the db were closed.
  if (std::strcmp(dbName, mv::kSystemDb) == 0) connection().systemDbHeld = 0;
  return failed(status) ? -1 : 0;
}

MVAPI int MVOpenDBEx(const char* dbName) {
  auto& c = connection();
  c.lastError = 0;
  if (c.currentServer == nullptr || dbName == nullptr) return -1;
  // One book at a time: while one is held every book operation acts as if its db were open.
  if (c.bookDbHeld == 1) return 0;
  int32_t out = 0;
  if (failed(c.currentServer->OpenDatabase(mv::toWide(dbName).get(), mv::kOpenHeld, &out))) {
    return -1;
  }
  c.bookDbHeld = 1;
  return 0;
}

MVAPI int MVCloseDBEx(const char* dbName) {
  auto& c = connection();
  c.lastError = 0;
  if (c.currentServer == nullptr || dbName == nullptr) return -1;
  if (c.bookDbHeld == 0) return 0;
  const int32_t status = c.currentServer->CloseDatabase(mv::toWide(dbName).get());
  c.bookDbHeld = 0;
  return failed(status) ? -1 : 0;
}

MVAPI int MVDeleteDB(const char* dbName) {
  auto* server = connection().currentServer;
  if (server == nullptr || dbName == nullptr) return -1;
  const mv::Bstr option = mv::toWide("");
  return failed(server->DeleteDatabase(mv::toWide(dbName).get(), option.get())) ? -1 : 0;
}

MVAPI int MVOpenTBL(const char* dbName, const char* tableName, int32_t ignored, int32_t* rowCount,
                    char* handle) {
  (void)ignored;
  auto* server = connection().currentServer;
  if (server == nullptr || dbName == nullptr || tableName == nullptr || rowCount == nullptr ||
      handle == nullptr) {
    return -1;
  }
  mv::Bstr h;
  if (failed(server->OpenTable(mv::toWide(dbName).get(), mv::toWide(tableName).get(), 0, rowCount,
                               h.out()))) {
    return -1;
  }
  mv::copyToField(handle, mv::kTextBuffer, mv::toAnsi(h.get()));
  return 0;
}

MVAPI int MVCloseTBL(const char* dbName, const char* handle) {
  auto* server = connection().currentServer;
  if (server == nullptr || dbName == nullptr || handle == nullptr) return -1;
  return failed(server->CloseTable(mv::toWide(dbName).get(), mv::toWide(handle).get())) ? -1 : 0;
}

MVAPI int MVOpenTBLEx(int32_t closing, const char* dbName, char* handle) {
  auto& c = connection();
  c.lastError = 0;
  if (c.currentServer == nullptr || dbName == nullptr || handle == nullptr) return -1;
  const mv::Bstr db = mv::toWide(dbName);
  if (closing == 0) {
    if (c.imageTableOpen == 1) return 0;  // the first handle stays; the buffer is not touched
    int32_t rows = 0;
    mv::Bstr h;
    const mv::Bstr table = mv::toWide("ImageDataTBL");
    const mv::Bstr sql = mv::toWide("SELECT * FROM ImageDataTBL WITH (NOLOCK) WHERE TagID = 1");
    if (failed(c.currentServer->OpenTableEx(db.get(), table.get(), sql.get(), 1, &rows, h.out()))) {
      return -1;
    }
    c.imageTableHandle = mv::toAnsi(h.get());
    mv::copyToField(handle, mv::kTextBuffer, c.imageTableHandle);
    c.imageTableOpen = 1;
    return 0;
  }
  c.imageTableHandle = handle;
  if (failed(c.currentServer->CloseTable(db.get(), mv::toWide(c.imageTableHandle).get()))) {
    return -1;
  }
  c.imageTableOpen = 0;
  c.imageTableHandle.clear();
  return 0;
}

MVAPI int MVRecordDelete(const char* dbName, const char* tableName, int32_t tIndex, int32_t phase) {
  auto& c = connection();
  if (c.currentServer == nullptr || dbName == nullptr || tableName == nullptr) return -1;
  switch (phase) {
    case 1: {
      int32_t rows = 0;
      return mv::openWorkTable(dbName, tableName, &rows, c.deleteHandle) == 1 ? 0 : -1;
    }
    case 0: {
      const int32_t status = c.currentServer->DeleteRecord(
          mv::toWide(dbName).get(), mv::toWide(c.deleteHandle).get(), tIndex);
      if (failed(status)) {
        // The handle is gone after a failed delete: the caller must not run phase 2.
        (void)mv::closeWorkTable(dbName, c.deleteHandle, 0);
        return -1;
      }
      return 0;
    }
    case 2:
      (void)mv::closeWorkTable(dbName, c.deleteHandle, 0);
      return 0;
    default:
      return 0;
  }
}

MVAPI int MVCheckTBL(const char* dbName, const char* tableName) {
  auto* server = connection().currentServer;
  if (server == nullptr || dbName == nullptr || tableName == nullptr) return 0;
  return server->CheckTBL(mv::toWide(dbName).get(), mv::toWide(tableName).get()) ==
                 mv::kStatusTableExists
             ? 1
             : 0;
}

}  // extern "C"
