// A server for tests: it records every call with its arguments and answers from a script, so
// that a test can state the exact sequence of server calls an export makes and inject the
// failure of any one of them.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "frame/IBookServer.h"

namespace mvtest {

// One call: method name and arguments rendered as text (texts as UTF-8, integers in decimal,
// arrays of texts as "[a|b|c]", byte arrays as "<n bytes>", out-parameters as "out").
struct Call {
  std::string method;
  std::vector<std::string> args;
  std::string text() const;  // "Method(a, b, c)"
};

class RecordingServer final : public mv::IBookServer {
 public:
  explicit RecordingServer(std::string name = "server") : name_(std::move(name)) {}
  ~RecordingServer() override = default;

  const std::string& name() const { return name_; }

  // --- the script --------------------------------------------------------------------------
  // The next `times` calls of `method` answer `status` (then the default again).
  void failNext(const std::string& method, int32_t status, int times = 1);
  // Every call of `method` answers `status` until changed.
  void answerAlways(const std::string& method, int32_t status) { always_[method] = status; }

  // Result sets, taken in order by each OpenTable, OpenTableEx or ExecuteQuery that succeeds;
  // once none is queued, an open gives an empty result. Each row is the list of element texts
  // (UTF-8 in the test, sent as UTF-16).
  using ResultRows = std::vector<std::vector<std::string>>;
  void queueResult(ResultRows rows);
  // A result whose rows come back as a variant that is not an array (with GetRecords status 0).
  void queueMalformedResult(int32_t rowCount);

  std::string lastErrorText;                                    // GetLastError
  std::string serverInfo;                                       // GetServerInfo
  int32_t connectFirst = 0, connectSecond = 0;                  // GetConnect
  std::map<int32_t, std::pair<int32_t, int32_t>> optionValues;  // GetOption kind -> (a, b)
  std::map<std::string, int32_t> mutexAnswers;                  // SetMutex name -> result
  std::map<std::string, int32_t> counters;                      // SetCounter op 0: name -> value
  int32_t nextIndex = 100;                                      // AddRecord's new T_Index
  // GetLoginUsers: the pairs (user name, second text) of the users logged on now.
  std::vector<std::pair<std::string, std::string>> loginUsers;

  // Blobs: what UpLoadData received (good bytes only), and what DownLoadData serves.
  std::vector<uint8_t> uploaded;
  std::vector<uint8_t> download;
  std::size_t downloadChunk = 0x4B000;  // bytes per DownLoadData answer
  bool flagEndOnLastBlock = true;       // else the end shows by a block without an array
  // ImageFileDate: op 0 answers fileDate, op 1 stores into it. OpenNetShare answers shareFolder.
  double fileDate = 0.0;
  std::string shareFolder;

  // --- what happened -----------------------------------------------------------------------
  std::vector<Call> calls;
  bool released = false;
  bool throwOnRelease = false;

  std::vector<std::string> methods() const;  // the method names in call order
  int count(const std::string& method) const;
  // The calls rendered with text(), one per line: handy in failure messages.
  std::string log() const;

  // --- IBookServer -------------------------------------------------------------------------
  void Release() override;
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

 private:
  struct Result {
    ResultRows rows;
    bool malformed = false;
    int32_t malformedCount = 0;
  };
  // Records the call and gives its scripted status.
  int32_t record(std::string method, std::vector<std::string> args);
  int32_t openResult(int32_t* rowCount, BSTR* handle);

  std::string name_;
  std::map<std::string, std::deque<int32_t>> scripted_;
  std::map<std::string, int32_t> always_;
  std::deque<Result> queued_;
  std::map<std::string, Result> open_;  // by handle text
  int handles_ = 0;
};

}  // namespace mvtest
