// The one interface of the book server. Every operation of the library ends in these methods;
// the embedded server, the network proxy and the tests' recording server implement it.
//
// Conventions of every method: the result is a status, 0 for success and anything else a
// failure code of the server; on failure out-parameters are left as they were. BSTR arguments
// are owned by the caller. BSTR* out-parameters receive a text allocated with MVSysAllocString
// that the caller frees; the caller passes a holder that is null or holds an empty text.
// VARIANT* out-parameters receive arrays that the caller clears; VARIANT* in-parameters stay
// the caller's. The numbers are the methods' places in the interface table: 0 to 2 are the
// object's own (Release is kept), and numbers the library never calls are left out.
#pragma once

#include <cstdint>

#include "MVCore.h"

namespace mv {

class IBookServer {
 public:
  IBookServer() = default;
  IBookServer(const IBookServer&) = delete;
  IBookServer& operator=(const IBookServer&) = delete;

  // 2: drops the caller's reference. The default deletes the object; a proxy may throw when its
  // peer is gone, which the library catches.
  virtual void Release() { delete this; }

  // Group 1: databases and tables.
  virtual int32_t DeleteDatabase(BSTR dbName, BSTR option) = 0;                         // 8
  virtual int32_t CopyDatabase(BSTR srcDb, BSTR srcOption, BSTR dstDb, BSTR dstOption,  // 9
                               int32_t kind) = 0;
  virtual int32_t OpenDatabase(BSTR dbName, int32_t mode, int32_t* out) = 0;         // 10
  virtual int32_t CreateTable(BSTR dbName, BSTR tableName, int32_t tableKind) = 0;   // 16
  virtual int32_t ExecuteQuery(BSTR dbName, BSTR tableName, BSTR sql, int32_t flag,  // 24
                               int32_t* rowCount, BSTR* handle) = 0;
  virtual int32_t GetRecords(BSTR dbName, BSTR handle, int32_t rowIndex, VARIANT* row) = 0;  // 25
  virtual int32_t CloseDatabase(BSTR dbName) = 0;                                            // 37
  virtual int32_t OpenTable(BSTR dbName, BSTR tableName, int32_t mode, int32_t* rowCount,    // 46
                            BSTR* handle) = 0;
  virtual int32_t CloseTable(BSTR dbName, BSTR handle) = 0;                         // 47
  virtual int32_t UnlockDatabase(BSTR dbName) = 0;                                  // 53
  virtual int32_t ExecuteSQL(BSTR dbName, BSTR sql) = 0;                            // 55
  virtual int32_t OpenTableEx(BSTR dbName, BSTR tableName, BSTR sql, int32_t flag,  // 60
                              int32_t* rowCount, BSTR* handle) = 0;
  virtual int32_t CreateBookDatabase(BSTR templateName, BSTR option, BSTR newDbName) = 0;  // 63
  virtual int32_t CheckTBL(BSTR dbName, BSTR tableName) = 0;                               // 80
  virtual int32_t CheckColumn(BSTR dbName, BSTR tableName, BSTR columnName) = 0;           // 103

  // Group 2: rows and blobs.
  virtual int32_t AddRecord(BSTR dbName, VARIANT* record, int32_t recordCount,  // 19
                            int32_t* newIndex) = 0;
  virtual int32_t UpdateRecord(BSTR dbName, VARIANT* record, int32_t recordCount,  // 20
                               int32_t* tIndex) = 0;
  virtual int32_t DownLoadData(BSTR dbName, BSTR handle, BSTR columnName, int32_t rowIndex,  // 26
                               int32_t blockNo, int32_t blockSize, VARIANT* block, int32_t* isEnd,
                               int32_t* bytes) = 0;
  virtual int32_t UpLoadData(VARIANT* record, int32_t blockNo, int32_t bytes,  // 40
                             VARIANT* block, int32_t isLast) = 0;
  virtual int32_t DeleteRecord(BSTR dbName, BSTR handle, int32_t tIndex) = 0;  // 42
  virtual int32_t DeleteRecords(BSTR dbName, BSTR handle, int32_t firstRow,    // 62
                                int32_t lastRow) = 0;
  virtual int32_t ImageFileDate(BSTR dbName, BSTR handle, int32_t op, int32_t tIndex,  // 76
                                double* date) = 0;

  // Group 3: counters and mutual exclusion. The 16-byte blocks are zeroed by the caller and
  // whatever comes back in them is ignored.
  virtual int32_t SetBookUpdateCounter(BSTR dbName) = 0;                                      // 30
  virtual int32_t SetMutex(BSTR name, int32_t op) = 0;                                        // 31
  virtual int32_t GetBookUpdateCounter(BSTR dbName, uint8_t* block16, int32_t* counter) = 0;  // 38
  virtual int32_t TagUpdateCounter(BSTR dbName, int32_t tagIndex, int32_t op,                 // 39
                                   uint8_t* block16, int32_t* counter) = 0;
  virtual int32_t SetCounter(BSTR name, int32_t op, int32_t* value) = 0;  // 48

  // Group 4: users and logon.
  virtual int32_t SetUserAdmin(BSTR first, BSTR second, int32_t third) = 0;           // 33
  virtual int32_t GetLoginUsers(VARIANT* list, int32_t* count) = 0;                   // 34
  virtual int32_t GetConnect(int32_t* first, int32_t* second) = 0;                    // 35
  virtual int32_t LoginMgr(BSTR first, BSTR second, BSTR third, int32_t fourth) = 0;  // 57

  // Group 5: carrying, replication, shared folders.
  virtual int32_t CarryingInfoBook(BSTR dbName, int32_t first, int32_t second) = 0;  // 29
  virtual int32_t CarryingOut(BSTR dbName, int32_t blockNo, int32_t blockSize,       // 43
                              VARIANT* block, int32_t* isEnd, BSTR* fileName, int32_t* value) = 0;
  virtual int32_t Carryingin(BSTR dbName, int32_t isFirst, int32_t bytes, VARIANT* block,  // 44
                             int32_t isLast) = 0;
  virtual int32_t CarryingSetup(BSTR first, BSTR second) = 0;                     // 45
  virtual int32_t DBBackUpBase(int32_t a, int32_t b, int32_t c) = 0;              // 59
  virtual int32_t GetCarryingInfo(VARIANT* list) = 0;                             // 65
  virtual int32_t OpenNetShare(BSTR shareClient, BSTR computerName, BSTR dbName,  // 82
                               BSTR tableName, int32_t tIndex, BSTR* folder) = 0;
  virtual int32_t CloseNetShare(BSTR dbName, BSTR tableName, int32_t tIndex) = 0;  // 83
  virtual int32_t RepricatOut(BSTR dbName, BSTR* fileName) = 0;                    // 93
  virtual int32_t RepricatIn(BSTR dbName) = 0;                                     // 94

  // Group 6: template book databases.
  virtual int32_t GetOrgBookDBInfo(VARIANT* first, VARIANT* second, VARIANT* third) = 0;  // 84
  virtual int32_t AddOrgBookDB(BSTR a, BSTR b, BSTR c, int32_t d) = 0;                    // 85
  virtual int32_t DeleteOrgBookDB(int32_t a) = 0;                                         // 86
  virtual int32_t RenameOrgBookDB(int32_t a, int32_t b) = 0;                              // 87

  // Group 7: server and system queries. The server's description comes back as text: an
  // application's raw buffer cannot cross a network, so the library copies the text into it.
  virtual int32_t GetServerFreeSpace(int32_t* freeSpace) = 0;                          // 41
  virtual int32_t GetServerInfo(BSTR* info) = 0;                                       // 58
  virtual int32_t GetOption(int32_t kind, BSTR* text, int32_t* a, int32_t* b) = 0;     // 68
  virtual int32_t ConnectCheck() = 0;                                                  // 72
  virtual int32_t GetLastError(BSTR* message) = 0;                                     // 73
  virtual int32_t GetDatabaseSize(BSTR dbName, int32_t* size) = 0;                     // 81
  virtual int32_t GetDatabaseSize2(BSTR dbName, int64_t* size) = 0;                    // 95
  virtual int32_t CheckRecordableFolder(BSTR folder) = 0;                              // 96
  virtual int32_t CheckSQLServerType() = 0;                                            // 98
  virtual int32_t GetServerInfo2(int32_t* a, int32_t* b, int32_t* c, int32_t* d) = 0;  // 99
  virtual int32_t GetOSVersion(int32_t* first, int32_t* second) = 0;                   // 100
  virtual int32_t CheckOSType(int32_t* type) = 0;                                      // 101
  virtual int32_t GetServerModuleVersion(int32_t* v1, int32_t* v2, int32_t* v3,        // 102
                                         int32_t* v4) = 0;

 protected:
  // Only Release ends an object's life.
  virtual ~IBookServer() = default;
};

// Statuses the library itself knows by value.
inline constexpr int32_t kStatusMissingDatabase = 0x8A;  // OpenDatabase mode 0x63: no such db
inline constexpr int32_t kStatusTableExists = 10;        // CheckTBL: yes
inline constexpr int32_t kStatusColumnExists = 14;       // CheckColumn: yes

// OpenDatabase modes.
inline constexpr int32_t kOpenForWork = 0;
inline constexpr int32_t kOpenHeld = 1;
inline constexpr int32_t kOpenTestExists = 0x63;

}  // namespace mv
