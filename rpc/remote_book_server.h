// The book server on another machine: an IBookServer whose every method is one call to the
// daemon's BookServer capability. The library drives it from one thread and waits for each
// answer, so the object owns its side of the connection and runs the thread's event loop only
// while it waits.
//
// Rows are the exception to "one method, one call": the library asks for them one GetRecords at
// a time, which over a network would be one round trip per row. Opening a result therefore
// brings its first rows along, and a GetRecords the proxy cannot answer from what it holds asks
// for a whole run of rows from there on. A write through a handle, closing it, or deleting a
// database forgets what was held for it.
//
// Blobs are the other exception: the library asks for a blob's blocks one after the other and
// each would wait a round trip. Once a block comes back that does not end the data, the requests
// for the next few go out before the library asks for them, and the answers wait for it. Any
// other call first lets go of them.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "frame/IBookServer.h"
#include "rpc/client_config.h"

namespace mv::rpc {

// The daemon cannot be reached, or the link to it is known to be broken; nothing was sent.
inline constexpr int32_t kStatusServerUnavailable = static_cast<int32_t>(0x800706BAu);
// The call was sent but no answer came: the link broke while waiting, or the daemon failed the
// call without a status of its own. Whether the server acted on it is unknown.
inline constexpr int32_t kStatusCallFailed = static_cast<int32_t>(0x800706BEu);
// The daemon refused the logon token.
inline constexpr int32_t kStatusAccessDenied = static_cast<int32_t>(0x80070005u);
// The TLS handshake failed: the daemon's certificate did not verify against the configured CA
// or name, or the other end does not speak TLS.
inline constexpr int32_t kStatusCertificateRefused = static_cast<int32_t>(0x800B0109u);
// Memory ran out while building a request or an answer's arrays.
inline constexpr int32_t kStatusOutOfMemory = static_cast<int32_t>(0x8007000Eu);

struct RemoteOptions {
  uint32_t prefetch = 256;            // rows that come with an opened result
  uint32_t refill = 1024;             // rows asked for when GetRecords misses
  uint32_t readAhead = 4;             // blocks of a download requested early (0: none)
  uint32_t connectTimeoutMs = 10000;  // name lookup, connection, handshake and logon together
};

// Dead-peer detection on the socket: the kernel probes after `idle` quiet seconds, every
// `interval` seconds, and gives up after `count` unanswered probes.
struct KeepAlive {
  int idle = 10;
  int interval = 3;
  int count = 3;
};

// MVInit's connector for a non-empty server name: resolves it (client_config.h) and connects.
// 0 with a server holding one reference, else a failure status and null.
int32_t connectRemote(std::string_view host, IBookServer** server);
// Connects to an endpoint already resolved.
int32_t connectRemote(const ServerEndpoint& endpoint, const RemoteOptions& options,
                      IBookServer** server);

// Why the last connectRemote of this thread failed, in words (for logs and tests).
const std::string& lastConnectError();

class RemoteBookServer final : public IBookServer {
 public:
  // Use connectRemote(); a RemoteBookServer that failed to connect is never handed out.
  RemoteBookServer(const ServerEndpoint& endpoint, const RemoteOptions& options);
  int32_t connect(std::string& error);

  // Ends the connection; never throws.
  void Release() override;

  // What the kernel was told about dead-peer detection, read back from the socket; false when
  // there is no socket.
  bool keepAlive(KeepAlive& settings) const;
  // True once the link is known to be broken: every call now fails at once.
  bool broken() const;

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
  ~RemoteBookServer() override;

  struct Link;
  // Sends the request `make` builds and hands its answer to `read`; a status either way.
  template <typename Make, typename Read>
  int32_t call(Make&& make, Read&& read);
  // The open* methods: the answer's first rows become the handle's batch.
  template <typename Make>
  int32_t open(Make&& make, BSTR dbName, int32_t* rowCount, BSTR* handle);

  std::unique_ptr<Link> link_;
};

}  // namespace mv::rpc
