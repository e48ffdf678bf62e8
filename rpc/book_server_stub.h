// The daemon's end of the wire: one BookServer capability per login, holding that client's own
// server session. A capability lives on its connection's thread, and so does the session: calls
// of one connection run one after the other, so the session needs no lock of its own. When the
// client lets the capability go, or its connection ends, the session ends with everything it
// holds (handles, open databases, mutexes, logons).
#pragma once

#include <cstdint>
#include <memory>

#include "rpc/book_server.capnp.h"
#include "server/core/book_server.h"

namespace mv::rpc {

// Rows answered inline by executeQuery, openTable, openTableEx and getRecords stop once their
// texts pass this many bytes, whatever the client asked for, so that no answer nears the
// receiving side's message limit; the client asks getRecords for the rest.
inline constexpr std::size_t kRowBytesPerAnswer = std::size_t{8} * 1024 * 1024;

// Cap'n Proto's servers have no virtual destructor: kj::heap's owner deletes them as what they
// are, never through a base pointer.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
class BookServerStub final : public ::BookServer::Server {
 public:
  explicit BookServerStub(std::shared_ptr<server::ServerCore> core);
  ~BookServerStub();
  BookServerStub(const BookServerStub&) = delete;
  BookServerStub& operator=(const BookServerStub&) = delete;

 protected:
  kj::Promise<void> deleteDatabase(DeleteDatabaseContext context) override;
  kj::Promise<void> copyDatabase(CopyDatabaseContext context) override;
  kj::Promise<void> openDatabase(OpenDatabaseContext context) override;
  kj::Promise<void> createTable(CreateTableContext context) override;
  kj::Promise<void> addRecord(AddRecordContext context) override;
  kj::Promise<void> updateRecord(UpdateRecordContext context) override;
  kj::Promise<void> executeQuery(ExecuteQueryContext context) override;
  kj::Promise<void> getRecords(GetRecordsContext context) override;
  kj::Promise<void> downLoadData(DownLoadDataContext context) override;
  kj::Promise<void> carryingInfoBook(CarryingInfoBookContext context) override;
  kj::Promise<void> setBookUpdateCounter(SetBookUpdateCounterContext context) override;
  kj::Promise<void> setMutex(SetMutexContext context) override;
  kj::Promise<void> setUserAdmin(SetUserAdminContext context) override;
  kj::Promise<void> getLoginUsers(GetLoginUsersContext context) override;
  kj::Promise<void> getConnect(GetConnectContext context) override;
  kj::Promise<void> closeDatabase(CloseDatabaseContext context) override;
  kj::Promise<void> getBookUpdateCounter(GetBookUpdateCounterContext context) override;
  kj::Promise<void> tagUpdateCounter(TagUpdateCounterContext context) override;
  kj::Promise<void> upLoadData(UpLoadDataContext context) override;
  kj::Promise<void> getServerFreeSpace(GetServerFreeSpaceContext context) override;
  kj::Promise<void> deleteRecord(DeleteRecordContext context) override;
  kj::Promise<void> carryingOut(CarryingOutContext context) override;
  kj::Promise<void> carryingin(CarryinginContext context) override;
  kj::Promise<void> carryingSetup(CarryingSetupContext context) override;
  kj::Promise<void> openTable(OpenTableContext context) override;
  kj::Promise<void> closeTable(CloseTableContext context) override;
  kj::Promise<void> setCounter(SetCounterContext context) override;
  kj::Promise<void> unlockDatabase(UnlockDatabaseContext context) override;
  kj::Promise<void> executeSQL(ExecuteSQLContext context) override;
  kj::Promise<void> loginMgr(LoginMgrContext context) override;
  kj::Promise<void> getServerInfo(GetServerInfoContext context) override;
  kj::Promise<void> dbBackUpBase(DbBackUpBaseContext context) override;
  kj::Promise<void> openTableEx(OpenTableExContext context) override;
  kj::Promise<void> deleteRecords(DeleteRecordsContext context) override;
  kj::Promise<void> createBookDatabase(CreateBookDatabaseContext context) override;
  kj::Promise<void> getCarryingInfo(GetCarryingInfoContext context) override;
  kj::Promise<void> getOption(GetOptionContext context) override;
  kj::Promise<void> connectCheck(ConnectCheckContext context) override;
  kj::Promise<void> getLastError(GetLastErrorContext context) override;
  kj::Promise<void> imageFileDate(ImageFileDateContext context) override;
  kj::Promise<void> checkTBL(CheckTBLContext context) override;
  kj::Promise<void> getDatabaseSize(GetDatabaseSizeContext context) override;
  kj::Promise<void> openNetShare(OpenNetShareContext context) override;
  kj::Promise<void> closeNetShare(CloseNetShareContext context) override;
  kj::Promise<void> getOrgBookDBInfo(GetOrgBookDBInfoContext context) override;
  kj::Promise<void> addOrgBookDB(AddOrgBookDBContext context) override;
  kj::Promise<void> deleteOrgBookDB(DeleteOrgBookDBContext context) override;
  kj::Promise<void> renameOrgBookDB(RenameOrgBookDBContext context) override;
  kj::Promise<void> repricatOut(RepricatOutContext context) override;
  kj::Promise<void> repricatIn(RepricatInContext context) override;
  kj::Promise<void> getDatabaseSize2(GetDatabaseSize2Context context) override;
  kj::Promise<void> checkRecordableFolder(CheckRecordableFolderContext context) override;
  kj::Promise<void> checkSQLServerType(CheckSQLServerTypeContext context) override;
  kj::Promise<void> getServerInfo2(GetServerInfo2Context context) override;
  kj::Promise<void> getOSVersion(GetOSVersionContext context) override;
  kj::Promise<void> checkOSType(CheckOSTypeContext context) override;
  kj::Promise<void> getServerModuleVersion(GetServerModuleVersionContext context) override;
  kj::Promise<void> checkColumn(CheckColumnContext context) override;

 private:
  std::unique_ptr<server::BookServer> session_;
};
#pragma GCC diagnostic pop

}  // namespace mv::rpc
