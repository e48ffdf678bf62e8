#include "rpc/book_server_stub.h"

#include <array>
#include <climits>
#include <cstring>
#include <deque>

#include "platform/wide.h"
#include "rpc/convert.h"

namespace mv::rpc {

namespace {

Bstr in(capnp::Data::Reader bytes) { return Bstr::adopt(toBstr(bytes)); }

// A BSTR out-parameter: it starts as the client's text (or null) and goes back as the method
// left it. Bstr::out() would free the client's text first, so the holder is kept bare.
class InOut {
 public:
  InOut() = default;
  explicit InOut(capnp::Data::Reader bytes) : text_(toBstr(bytes)) {}
  ~InOut() { MVSysFreeString(text_); }
  InOut(const InOut&) = delete;
  InOut& operator=(const InOut&) = delete;

  BSTR* out() { return &text_; }
  BSTR get() const { return text_; }
  capnp::Data::Reader bytes() const { return bytesOf(text_); }

 private:
  BSTR text_ = nullptr;
};

// Bytes the texts of a row take: what the answer grows by.
std::size_t textBytes(const VARIANT* row) {
  if (row == nullptr || (row->vt & MV_VT_ARRAY) == 0 || row->parray == nullptr) return 0;
  const VARTYPE type = safeArrayElementType(row->parray);
  const uint32_t n = safeArrayCount(row->parray);
  std::size_t total = 0;
  for (uint32_t i = 0; i < n; ++i) {
    BSTR s = nullptr;
    if (type == MV_VT_BSTR) {
      s = static_cast<BSTR*>(row->parray->pvData)[i];
    } else if (type == MV_VT_VARIANT) {
      const VARIANT& e = static_cast<const VARIANT*>(row->parray->pvData)[i];
      if (e.vt == MV_VT_BSTR) s = e.bstrVal;
    }
    // Each text also costs its list pointer and padding; 16 bytes covers both.
    total += MVSysStringLen(s) * sizeof(OLECHAR) + 16;
  }
  return total;
}

// Rows of a handle from `first` on: at most `count`, none from the first one that fails, and
// none once the texts pass the answer's budget. The status is the first row's.
template <typename Results>
int32_t answerRows(server::BookServer& session, BSTR db, BSTR handle, int64_t first, uint64_t count,
                   Results results) {
  std::deque<Variant> rows;
  int32_t status = 0;
  std::size_t bytes = 0;
  for (uint64_t i = 0; i < count && bytes < kRowBytesPerAnswer; ++i) {
    const int64_t index = first + static_cast<int64_t>(i);
    if (index > INT32_MAX) break;
    Variant& row = rows.emplace_back();
    const int32_t s = session.GetRecords(db, handle, static_cast<int32_t>(index), row.get());
    if (s != 0) {
      rows.pop_back();
      if (i == 0) status = s;
      break;
    }
    bytes += textBytes(row.get());
  }
  auto list = results.initRows(static_cast<unsigned>(rows.size()));
  for (unsigned i = 0; i < rows.size(); ++i) copyRow(rows[i].get(), list[i]);
  return status;
}

// A received block as the session's raw upload takes it: null when it is missing or shorter
// than the bytes it claims.
const uint8_t* goodBytes(Block::Reader block, int32_t bytes) {
  static constexpr uint8_t kNoBytes = 0;
  if (!block.getPresent() || bytes < 0) return nullptr;
  const auto data = block.getData();
  if (data.size() < static_cast<std::size_t>(bytes)) return nullptr;
  return data.size() ? data.begin() : &kNoBytes;
}

// The 16-byte blocks of the counters: the client's bytes go in, what the method leaves comes
// back.
std::array<uint8_t, 16> block16(capnp::Data::Reader bytes) {
  std::array<uint8_t, 16> b{};
  std::memcpy(b.data(), bytes.begin(), std::min(bytes.size(), b.size()));
  return b;
}

capnp::Data::Reader bytesOfBlock(const std::array<uint8_t, 16>& b) { return {b.data(), b.size()}; }

// A record of texts as the session reads it.
void recordOf(capnp::List<capnp::Data>::Reader texts, Variant& record) {
  setTexts(record.get(), texts);
}

}  // namespace

BookServerStub::BookServerStub(std::shared_ptr<server::ServerCore> core)
    : session_(std::make_unique<server::BookServer>(std::move(core))) {}

BookServerStub::~BookServerStub() = default;

// --- databases and tables ----------------------------------------------------------------------

kj::Promise<void> BookServerStub::deleteDatabase(DeleteDatabaseContext context) {
  const auto p = context.getParams();
  context.getResults().setStatus(
      session_->DeleteDatabase(in(p.getDbName()).get(), in(p.getOption()).get()));
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::copyDatabase(CopyDatabaseContext context) {
  const auto p = context.getParams();
  context.getResults().setStatus(
      session_->CopyDatabase(in(p.getSrcDb()).get(), in(p.getSrcOption()).get(),
                             in(p.getDstDb()).get(), in(p.getDstOption()).get(), p.getKind()));
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::openDatabase(OpenDatabaseContext context) {
  const auto p = context.getParams();
  int32_t out = 0;
  auto r = context.getResults();
  r.setStatus(session_->OpenDatabase(in(p.getDbName()).get(), p.getMode(), &out));
  r.setOut(out);
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::createTable(CreateTableContext context) {
  const auto p = context.getParams();
  context.getResults().setStatus(
      session_->CreateTable(in(p.getDbName()).get(), in(p.getTableName()).get(), p.getTableKind()));
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::executeQuery(ExecuteQueryContext context) {
  const auto p = context.getParams();
  const Bstr db = in(p.getDbName());
  int32_t rowCount = 0;
  InOut handle;
  auto r = context.getResults();
  const int32_t status =
      session_->ExecuteQuery(db.get(), in(p.getTableName()).get(), in(p.getSql()).get(),
                             p.getFlag(), &rowCount, handle.out());
  r.setStatus(status);
  r.setRowCount(rowCount);
  r.setHandle(handle.bytes());
  if (status == 0) answerRows(*session_, db.get(), handle.get(), 0, p.getPrefetch(), r);
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::getRecords(GetRecordsContext context) {
  const auto p = context.getParams();
  auto r = context.getResults();
  r.setStatus(answerRows(*session_, in(p.getDbName()).get(), in(p.getHandle()).get(),
                         p.getRowIndex(), p.getCount(), r));
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::closeDatabase(CloseDatabaseContext context) {
  context.getResults().setStatus(
      session_->CloseDatabase(in(context.getParams().getDbName()).get()));
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::openTable(OpenTableContext context) {
  const auto p = context.getParams();
  const Bstr db = in(p.getDbName());
  int32_t rowCount = 0;
  InOut handle;
  auto r = context.getResults();
  const int32_t status = session_->OpenTable(db.get(), in(p.getTableName()).get(), p.getMode(),
                                             &rowCount, handle.out());
  r.setStatus(status);
  r.setRowCount(rowCount);
  r.setHandle(handle.bytes());
  if (status == 0) answerRows(*session_, db.get(), handle.get(), 0, p.getPrefetch(), r);
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::closeTable(CloseTableContext context) {
  const auto p = context.getParams();
  context.getResults().setStatus(
      session_->CloseTable(in(p.getDbName()).get(), in(p.getHandle()).get()));
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::unlockDatabase(UnlockDatabaseContext context) {
  context.getResults().setStatus(
      session_->UnlockDatabase(in(context.getParams().getDbName()).get()));
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::executeSQL(ExecuteSQLContext context) {
  const auto p = context.getParams();
  context.getResults().setStatus(
      session_->ExecuteSQL(in(p.getDbName()).get(), in(p.getSql()).get()));
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::openTableEx(OpenTableExContext context) {
  const auto p = context.getParams();
  const Bstr db = in(p.getDbName());
  int32_t rowCount = 0;
  InOut handle;
  auto r = context.getResults();
  const int32_t status =
      session_->OpenTableEx(db.get(), in(p.getTableName()).get(), in(p.getSql()).get(), p.getFlag(),
                            &rowCount, handle.out());
  r.setStatus(status);
  r.setRowCount(rowCount);
  r.setHandle(handle.bytes());
  if (status == 0) answerRows(*session_, db.get(), handle.get(), 0, p.getPrefetch(), r);
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::createBookDatabase(CreateBookDatabaseContext context) {
  const auto p = context.getParams();
  context.getResults().setStatus(session_->CreateBookDatabase(
      in(p.getTemplateName()).get(), in(p.getOption()).get(), in(p.getNewDbName()).get()));
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::checkTBL(CheckTBLContext context) {
  const auto p = context.getParams();
  context.getResults().setStatus(
      session_->CheckTBL(in(p.getDbName()).get(), in(p.getTableName()).get()));
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::checkColumn(CheckColumnContext context) {
  const auto p = context.getParams();
  context.getResults().setStatus(session_->CheckColumn(
      in(p.getDbName()).get(), in(p.getTableName()).get(), in(p.getColumnName()).get()));
  return kj::READY_NOW;
}

// --- rows and blobs ----------------------------------------------------------------------------

kj::Promise<void> BookServerStub::addRecord(AddRecordContext context) {
  const auto p = context.getParams();
  Variant record;
  recordOf(p.getRecord(), record);
  int32_t newIndex = 0;
  auto r = context.getResults();
  r.setStatus(
      session_->AddRecord(in(p.getDbName()).get(), record.get(), p.getRecordCount(), &newIndex));
  r.setNewIndex(newIndex);
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::updateRecord(UpdateRecordContext context) {
  const auto p = context.getParams();
  Variant record;
  recordOf(p.getRecord(), record);
  int32_t tIndex = p.getTIndex();
  auto r = context.getResults();
  r.setStatus(
      session_->UpdateRecord(in(p.getDbName()).get(), record.get(), p.getRecordCount(), &tIndex));
  r.setTIndex(tIndex);
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::downLoadData(DownLoadDataContext context) {
  const auto p = context.getParams();
  Variant block;
  int32_t isEnd = 0;
  int32_t bytes = 0;
  auto r = context.getResults();
  r.setStatus(session_->DownLoadData(in(p.getDbName()).get(), in(p.getHandle()).get(),
                                     in(p.getColumnName()).get(), p.getRowIndex(), p.getBlockNo(),
                                     p.getBlockSize(), block.get(), &isEnd, &bytes));
  copyBlock(block.get(), r.initBlock());
  r.setIsEnd(isEnd);
  r.setBytes(bytes);
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::upLoadData(UpLoadDataContext context) {
  const auto p = context.getParams();
  Variant record;
  recordOf(p.getRecord(), record);
  // The block's bytes stay where they arrived: the session stages them from the message.
  context.getResults().setStatus(session_->upLoadBytes(record.get(), p.getBlockNo(),
                                                       goodBytes(p.getBlock(), p.getBytes()),
                                                       p.getBytes(), p.getIsLast()));
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::deleteRecord(DeleteRecordContext context) {
  const auto p = context.getParams();
  context.getResults().setStatus(
      session_->DeleteRecord(in(p.getDbName()).get(), in(p.getHandle()).get(), p.getTIndex()));
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::deleteRecords(DeleteRecordsContext context) {
  const auto p = context.getParams();
  context.getResults().setStatus(session_->DeleteRecords(
      in(p.getDbName()).get(), in(p.getHandle()).get(), p.getFirstRow(), p.getLastRow()));
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::imageFileDate(ImageFileDateContext context) {
  const auto p = context.getParams();
  double date = p.getDate();
  auto r = context.getResults();
  r.setStatus(session_->ImageFileDate(in(p.getDbName()).get(), in(p.getHandle()).get(), p.getOp(),
                                      p.getTIndex(), &date));
  r.setDate(date);
  return kj::READY_NOW;
}

// --- counters and mutual exclusion -------------------------------------------------------------

kj::Promise<void> BookServerStub::setBookUpdateCounter(SetBookUpdateCounterContext context) {
  context.getResults().setStatus(
      session_->SetBookUpdateCounter(in(context.getParams().getDbName()).get()));
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::setMutex(SetMutexContext context) {
  const auto p = context.getParams();
  context.getResults().setStatus(session_->SetMutex(in(p.getName()).get(), p.getOp()));
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::getBookUpdateCounter(GetBookUpdateCounterContext context) {
  const auto p = context.getParams();
  auto block = block16(p.getBlock16());
  int32_t counter = p.getCounter();
  auto r = context.getResults();
  r.setStatus(session_->GetBookUpdateCounter(in(p.getDbName()).get(), block.data(), &counter));
  r.setBlock16(bytesOfBlock(block));
  r.setCounter(counter);
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::tagUpdateCounter(TagUpdateCounterContext context) {
  const auto p = context.getParams();
  auto block = block16(p.getBlock16());
  int32_t counter = p.getCounter();
  auto r = context.getResults();
  r.setStatus(session_->TagUpdateCounter(in(p.getDbName()).get(), p.getTagIndex(), p.getOp(),
                                         block.data(), &counter));
  r.setBlock16(bytesOfBlock(block));
  r.setCounter(counter);
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::setCounter(SetCounterContext context) {
  const auto p = context.getParams();
  int32_t value = p.getValue();
  auto r = context.getResults();
  r.setStatus(session_->SetCounter(in(p.getName()).get(), p.getOp(), &value));
  r.setValue(value);
  return kj::READY_NOW;
}

// --- users and logon ---------------------------------------------------------------------------

kj::Promise<void> BookServerStub::setUserAdmin(SetUserAdminContext context) {
  const auto p = context.getParams();
  context.getResults().setStatus(
      session_->SetUserAdmin(in(p.getFirst()).get(), in(p.getSecond()).get(), p.getThird()));
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::getLoginUsers(GetLoginUsersContext context) {
  Variant list;
  int32_t count = 0;
  auto r = context.getResults();
  r.setStatus(session_->GetLoginUsers(list.get(), &count));
  copyValue(list.get(), r.initList());
  r.setCount(count);
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::getConnect(GetConnectContext context) {
  const auto p = context.getParams();
  int32_t first = p.getFirst();
  int32_t second = p.getSecond();
  auto r = context.getResults();
  r.setStatus(session_->GetConnect(&first, &second));
  r.setFirst(first);
  r.setSecond(second);
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::loginMgr(LoginMgrContext context) {
  const auto p = context.getParams();
  context.getResults().setStatus(session_->LoginMgr(in(p.getFirst()).get(), in(p.getSecond()).get(),
                                                    in(p.getThird()).get(), p.getFourth()));
  return kj::READY_NOW;
}

// --- carrying, replication, shared folders -----------------------------------------------------

kj::Promise<void> BookServerStub::carryingInfoBook(CarryingInfoBookContext context) {
  const auto p = context.getParams();
  context.getResults().setStatus(
      session_->CarryingInfoBook(in(p.getDbName()).get(), p.getFirst(), p.getSecond()));
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::carryingOut(CarryingOutContext context) {
  const auto p = context.getParams();
  Variant block;
  int32_t isEnd = p.getIsEnd();
  int32_t value = p.getValue();
  InOut fileName;
  auto r = context.getResults();
  r.setStatus(session_->CarryingOut(in(p.getDbName()).get(), p.getBlockNo(), p.getBlockSize(),
                                    block.get(), &isEnd, fileName.out(), &value));
  copyBlock(block.get(), r.initBlock());
  r.setIsEnd(isEnd);
  r.setFileName(fileName.bytes());
  r.setValue(value);
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::carryingin(CarryinginContext context) {
  const auto p = context.getParams();
  Variant block;
  setBlock(block.get(), p.getBlock());
  context.getResults().setStatus(session_->Carryingin(in(p.getDbName()).get(), p.getIsFirst(),
                                                      p.getBytes(), block.get(), p.getIsLast()));
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::carryingSetup(CarryingSetupContext context) {
  const auto p = context.getParams();
  context.getResults().setStatus(
      session_->CarryingSetup(in(p.getFirst()).get(), in(p.getSecond()).get()));
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::dbBackUpBase(DbBackUpBaseContext context) {
  const auto p = context.getParams();
  context.getResults().setStatus(session_->DBBackUpBase(p.getA(), p.getB(), p.getC()));
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::getCarryingInfo(GetCarryingInfoContext context) {
  Variant list;
  auto r = context.getResults();
  r.setStatus(session_->GetCarryingInfo(list.get()));
  copyValue(list.get(), r.initList());
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::openNetShare(OpenNetShareContext context) {
  const auto p = context.getParams();
  InOut folder;
  auto r = context.getResults();
  r.setStatus(session_->OpenNetShare(in(p.getShareClient()).get(), in(p.getComputerName()).get(),
                                     in(p.getDbName()).get(), in(p.getTableName()).get(),
                                     p.getTIndex(), folder.out()));
  r.setFolder(folder.bytes());
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::closeNetShare(CloseNetShareContext context) {
  const auto p = context.getParams();
  context.getResults().setStatus(
      session_->CloseNetShare(in(p.getDbName()).get(), in(p.getTableName()).get(), p.getTIndex()));
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::repricatOut(RepricatOutContext context) {
  InOut fileName;
  auto r = context.getResults();
  r.setStatus(session_->RepricatOut(in(context.getParams().getDbName()).get(), fileName.out()));
  r.setFileName(fileName.bytes());
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::repricatIn(RepricatInContext context) {
  context.getResults().setStatus(session_->RepricatIn(in(context.getParams().getDbName()).get()));
  return kj::READY_NOW;
}

// --- template book databases -------------------------------------------------------------------

kj::Promise<void> BookServerStub::getOrgBookDBInfo(GetOrgBookDBInfoContext context) {
  Variant first, second, third;
  auto r = context.getResults();
  r.setStatus(session_->GetOrgBookDBInfo(first.get(), second.get(), third.get()));
  copyValue(first.get(), r.initFirst());
  copyValue(second.get(), r.initSecond());
  copyValue(third.get(), r.initThird());
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::addOrgBookDB(AddOrgBookDBContext context) {
  const auto p = context.getParams();
  context.getResults().setStatus(
      session_->AddOrgBookDB(in(p.getA()).get(), in(p.getB()).get(), in(p.getC()).get(), p.getD()));
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::deleteOrgBookDB(DeleteOrgBookDBContext context) {
  context.getResults().setStatus(session_->DeleteOrgBookDB(context.getParams().getA()));
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::renameOrgBookDB(RenameOrgBookDBContext context) {
  const auto p = context.getParams();
  context.getResults().setStatus(session_->RenameOrgBookDB(p.getA(), p.getB()));
  return kj::READY_NOW;
}

// --- the server itself -------------------------------------------------------------------------

kj::Promise<void> BookServerStub::getServerFreeSpace(GetServerFreeSpaceContext context) {
  int32_t freeSpace = context.getParams().getFreeSpace();
  auto r = context.getResults();
  r.setStatus(session_->GetServerFreeSpace(&freeSpace));
  r.setFreeSpace(freeSpace);
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::getServerInfo(GetServerInfoContext context) {
  InOut info;
  auto r = context.getResults();
  r.setStatus(session_->GetServerInfo(info.out()));
  r.setInfo(info.bytes());
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::getOption(GetOptionContext context) {
  const auto p = context.getParams();
  InOut text(p.getText());
  int32_t a = p.getA();
  int32_t b = p.getB();
  auto r = context.getResults();
  r.setStatus(session_->GetOption(p.getKind(), text.out(), &a, &b));
  r.setText(text.bytes());
  r.setA(a);
  r.setB(b);
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::connectCheck(ConnectCheckContext context) {
  context.getResults().setStatus(session_->ConnectCheck());
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::getLastError(GetLastErrorContext context) {
  InOut message;
  auto r = context.getResults();
  r.setStatus(session_->GetLastError(message.out()));
  r.setMessage(message.bytes());
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::getDatabaseSize(GetDatabaseSizeContext context) {
  const auto p = context.getParams();
  int32_t size = p.getSize();
  auto r = context.getResults();
  r.setStatus(session_->GetDatabaseSize(in(p.getDbName()).get(), &size));
  r.setSize(size);
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::getDatabaseSize2(GetDatabaseSize2Context context) {
  const auto p = context.getParams();
  int64_t size = p.getSize();
  auto r = context.getResults();
  r.setStatus(session_->GetDatabaseSize2(in(p.getDbName()).get(), &size));
  r.setSize(size);
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::checkRecordableFolder(CheckRecordableFolderContext context) {
  context.getResults().setStatus(
      session_->CheckRecordableFolder(in(context.getParams().getFolder()).get()));
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::checkSQLServerType(CheckSQLServerTypeContext context) {
  context.getResults().setStatus(session_->CheckSQLServerType());
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::getServerInfo2(GetServerInfo2Context context) {
  const auto p = context.getParams();
  int32_t a = p.getA(), b = p.getB(), c = p.getC(), d = p.getD();
  auto r = context.getResults();
  r.setStatus(session_->GetServerInfo2(&a, &b, &c, &d));
  r.setA(a);
  r.setB(b);
  r.setC(c);
  r.setD(d);
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::getOSVersion(GetOSVersionContext context) {
  const auto p = context.getParams();
  int32_t first = p.getFirst();
  int32_t second = p.getSecond();
  auto r = context.getResults();
  r.setStatus(session_->GetOSVersion(&first, &second));
  r.setFirst(first);
  r.setSecond(second);
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::checkOSType(CheckOSTypeContext context) {
  int32_t type = context.getParams().getType();
  auto r = context.getResults();
  r.setStatus(session_->CheckOSType(&type));
  r.setType(type);
  return kj::READY_NOW;
}

kj::Promise<void> BookServerStub::getServerModuleVersion(GetServerModuleVersionContext context) {
  int32_t v1 = 0, v2 = 0, v3 = 0, v4 = 0;
  auto r = context.getResults();
  r.setStatus(session_->GetServerModuleVersion(&v1, &v2, &v3, &v4));
  r.setV1(v1);
  r.setV2(v2);
  r.setV3(v3);
  r.setV4(v4);
  return kj::READY_NOW;
}

}  // namespace mv::rpc
