// One client's session with the server: the IBookServer that MVInit gets. It keeps what the
// client has open (databases, handles with their result snapshots), blobs in transit, and the
// text of its last failure; everything else is shared through the ServerCore. Ending the
// session (Release) closes all of it, releases the client's mutexes and logs its users off.
#pragma once

#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "frame/IBookServer.h"
#include "server/core/server_core.h"

namespace mv::server {

class BookServer final : public IBookServer {
 public:
  explicit BookServer(std::shared_ptr<ServerCore> core);
  ~BookServer() override;

  ServerCore& core() { return *core_; }
  // The last failure's text, UTF-8 (GetLastError gives it as UTF-16).
  const std::string& lastErrorText() const { return lastError_; }

  // IBookServer
  int32_t DeleteDatabase(BSTR dbName, BSTR option) override;
  int32_t CopyDatabase(BSTR srcDb, BSTR srcOption, BSTR dstDb, BSTR dstOption,
                       int32_t kind) override;
  int32_t OpenDatabase(BSTR dbName, int32_t mode, int32_t* out) override;
  int32_t CreateTable(BSTR dbName, BSTR tableName, int32_t tableKind) override;
  int32_t ExecuteQuery(BSTR dbName, BSTR tableName, BSTR sql, int32_t flag, int32_t* rowCount,
                       BSTR* handle) override;
  int32_t GetRecords(BSTR dbName, BSTR handle, int32_t rowIndex, VARIANT* row) override;
  int32_t CloseDatabase(BSTR dbName) override;
  int32_t OpenTable(BSTR dbName, BSTR tableName, int32_t mode, int32_t* rowCount,
                    BSTR* handle) override;
  int32_t CloseTable(BSTR dbName, BSTR handle) override;
  int32_t UnlockDatabase(BSTR dbName) override;
  int32_t ExecuteSQL(BSTR dbName, BSTR sql) override;
  int32_t OpenTableEx(BSTR dbName, BSTR tableName, BSTR sql, int32_t flag, int32_t* rowCount,
                      BSTR* handle) override;
  int32_t CreateBookDatabase(BSTR templateName, BSTR option, BSTR newDbName) override;
  int32_t CheckTBL(BSTR dbName, BSTR tableName) override;
  int32_t CheckColumn(BSTR dbName, BSTR tableName, BSTR columnName) override;
  int32_t AddRecord(BSTR dbName, VARIANT* record, int32_t recordCount, int32_t* newIndex) override;
  int32_t UpdateRecord(BSTR dbName, VARIANT* record, int32_t recordCount, int32_t* tIndex) override;
  int32_t DownLoadData(BSTR dbName, BSTR handle, BSTR columnName, int32_t rowIndex, int32_t blockNo,
                       int32_t blockSize, VARIANT* block, int32_t* isEnd, int32_t* bytes) override;
  int32_t UpLoadData(VARIANT* record, int32_t blockNo, int32_t bytes, VARIANT* block,
                     int32_t isLast) override;
  int32_t DeleteRecord(BSTR dbName, BSTR handle, int32_t tIndex) override;
  int32_t DeleteRecords(BSTR dbName, BSTR handle, int32_t firstRow, int32_t lastRow) override;
  int32_t ImageFileDate(BSTR dbName, BSTR handle, int32_t op, int32_t tIndex,
                        double* date) override;
  int32_t SetBookUpdateCounter(BSTR dbName) override;
  int32_t SetMutex(BSTR name, int32_t op) override;
  int32_t GetBookUpdateCounter(BSTR dbName, uint8_t* block16, int32_t* counter) override;
  int32_t TagUpdateCounter(BSTR dbName, int32_t tagIndex, int32_t op, uint8_t* block16,
                           int32_t* counter) override;
  int32_t SetCounter(BSTR name, int32_t op, int32_t* value) override;
  int32_t SetUserAdmin(BSTR first, BSTR second, int32_t third) override;
  int32_t GetLoginUsers(VARIANT* list, int32_t* count) override;
  int32_t GetConnect(int32_t* first, int32_t* second) override;
  int32_t LoginMgr(BSTR first, BSTR second, BSTR third, int32_t fourth) override;
  int32_t CarryingInfoBook(BSTR dbName, int32_t first, int32_t second) override;
  int32_t CarryingOut(BSTR dbName, int32_t blockNo, int32_t blockSize, VARIANT* block,
                      int32_t* isEnd, BSTR* fileName, int32_t* value) override;
  int32_t Carryingin(BSTR dbName, int32_t isFirst, int32_t bytes, VARIANT* block,
                     int32_t isLast) override;
  int32_t CarryingSetup(BSTR first, BSTR second) override;
  int32_t DBBackUpBase(int32_t a, int32_t b, int32_t c) override;
  int32_t GetCarryingInfo(VARIANT* list) override;
  int32_t OpenNetShare(BSTR shareClient, BSTR computerName, BSTR dbName, BSTR tableName,
                       int32_t tIndex, BSTR* folder) override;
  int32_t CloseNetShare(BSTR dbName, BSTR tableName, int32_t tIndex) override;
  int32_t RepricatOut(BSTR dbName, BSTR* fileName) override;
  int32_t RepricatIn(BSTR dbName) override;
  int32_t GetOrgBookDBInfo(VARIANT* first, VARIANT* second, VARIANT* third) override;
  int32_t AddOrgBookDB(BSTR a, BSTR b, BSTR c, int32_t d) override;
  int32_t DeleteOrgBookDB(int32_t a) override;
  int32_t RenameOrgBookDB(int32_t a, int32_t b) override;
  int32_t GetServerFreeSpace(int32_t* freeSpace) override;
  int32_t GetServerInfo(BSTR* info) override;
  int32_t GetOption(int32_t kind, BSTR* text, int32_t* a, int32_t* b) override;
  int32_t ConnectCheck() override;
  int32_t GetLastError(BSTR* message) override;
  int32_t GetDatabaseSize(BSTR dbName, int32_t* size) override;
  int32_t GetDatabaseSize2(BSTR dbName, int64_t* size) override;
  int32_t CheckRecordableFolder(BSTR folder) override;
  int32_t CheckSQLServerType() override;
  int32_t GetServerInfo2(int32_t* a, int32_t* b, int32_t* c, int32_t* d) override;
  int32_t GetOSVersion(int32_t* first, int32_t* second) override;
  int32_t CheckOSType(int32_t* type) override;
  int32_t GetServerModuleVersion(int32_t* v1, int32_t* v2, int32_t* v3, int32_t* v4) override;

  // UpLoadData over bytes the caller holds: the network stub passes a received block as it lies
  // in the message instead of copying it into an array. `data` is null when the block is
  // missing or holds fewer than `bytes` bytes.
  int32_t upLoadBytes(VARIANT* record, int32_t blockNo, const uint8_t* data, int32_t bytes,
                      int32_t isLast);

 private:
  struct Handle {
    std::string db;
    std::shared_ptr<Database> database;
    std::string table;
    Snapshot snapshot;
  };
  // A blob arriving in blocks: the bytes wait in a staging file until the last block (or the
  // session's next other call) stores them in one pass.
  struct Upload {
    std::string handle;
    std::string column;
    int64_t key = 0;
    int32_t nextBlock = 1;
    std::FILE* file = nullptr;
    int64_t size = 0;
  };
  // The blob being downloaded, kept open between its blocks.
  struct Download {
    std::string handle;
    int64_t key = 0;
    std::string column;
    std::unique_ptr<BlobReader> reader;
  };
  struct Carry {
    std::string db;
    std::string path;
    std::FILE* file = nullptr;
  };

  // Records a failure's text and gives its status.
  int32_t fail(int32_t status, const std::string& text);
  // The database a client names, opened in the engine; nullptr after fail().
  std::shared_ptr<Database> database(const std::string& name, int32_t* status);
  Handle* handle(const std::string& text, int32_t* status);
  int32_t openSnapshot(const std::string& db, const std::string& sql, const std::string& table,
                       int32_t* rowCount, BSTR* handleOut);
  int32_t writeRecord(BSTR dbName, VARIANT* record, bool add, int32_t* index);
  // Stores pending blobs; the first failure's status (0 if none).
  int32_t finishUploads();
  // Before any other call: pending blobs stored, an open download ended.
  int32_t settle();
  int32_t finishUpload(Upload& upload);
  void closeCarry(Carry& carry, bool keepFile);

  std::shared_ptr<ServerCore> core_;
  uint64_t id_;
  std::string lastError_;
  std::map<std::string, int> openDbs_;
  std::map<std::string, Handle> handles_;
  uint64_t handleSerial_ = 0;
  std::map<std::string, Upload> uploads_;
  Download download_;
  Carry carryOut_;
  Carry carryIn_;
};

// Makes a session with the embedded server of this process, starting that server on the first
// call (in `folder`, or the default data folder when empty) over the engine `engine` makes; while
// it runs, later calls for the same folder share it. Status 0 and a session with one reference,
// or a failure status with nothing made.
int32_t connectEmbedded(const std::string& folder, const EngineFactory& engine,
                        IBookServer** server);
// The same over the program's default engine (ServerCore::setDefaultEngine).
int32_t connectEmbedded(const std::string& folder, IBookServer** server);

}  // namespace mv::server
