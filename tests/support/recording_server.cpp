#include "recording_server.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "platform/wide.h"
#include "utf8.h"

namespace mvtest {

namespace {

template <typename T>
std::string num(T v) {
  return std::to_string(v);
}
const std::string kOut = "out";

std::string render(const VARIANT* v) {
  if (v == nullptr) return "null";
  if (v->vt == MV_VT_BSTR) return utf8(v->bstrVal);
  if ((v->vt & MV_VT_ARRAY) == 0 || v->parray == nullptr) return "vt" + num(v->vt);
  SAFEARRAY* a = v->parray;
  const uint32_t n = mv::safeArrayCount(a);
  if (mv::safeArrayElementType(a) == MV_VT_UI1) return "<" + num(n) + " bytes>";
  void* data = nullptr;
  if (mv::safeArrayAccessData(a, &data) != 0) return "locked";
  std::string s = "[";
  for (uint32_t i = 0; i < n; ++i) {
    if (i) s += '|';
    if (mv::safeArrayElementType(a) == MV_VT_BSTR) {
      s += utf8(static_cast<BSTR*>(data)[i]);
    } else {
      s += render(&static_cast<VARIANT*>(data)[i]);
    }
  }
  mv::safeArrayUnaccessData(a);
  return s + "]";
}

void putText(BSTR* out, const std::string& text) {
  if (out == nullptr) return;
  MVSysFreeString(*out);
  const std::u16string w = utf16(text);
  *out = MVSysAllocStringLen(w.data(), static_cast<uint32_t>(w.size()));
}

}  // namespace

std::string Call::text() const {
  std::string s = method + "(";
  for (std::size_t i = 0; i < args.size(); ++i) s += (i ? ", " : "") + args[i];
  return s + ")";
}

void RecordingServer::failNext(const std::string& method, int32_t status, int times) {
  for (int i = 0; i < times; ++i) scripted_[method].push_back(status);
}

void RecordingServer::queueResult(ResultRows rows) { queued_.push_back({std::move(rows)}); }

void RecordingServer::queueMalformedResult(int32_t rowCount) {
  queued_.push_back({{}, true, rowCount});
}

std::vector<std::string> RecordingServer::methods() const {
  std::vector<std::string> m;
  for (const Call& c : calls) m.push_back(c.method);
  return m;
}

int RecordingServer::count(const std::string& method) const {
  return static_cast<int>(
      std::count_if(calls.begin(), calls.end(), [&](const Call& c) { return c.method == method; }));
}

std::string RecordingServer::log() const {
  std::string s;
  for (const Call& c : calls) s += c.text() + "\n";
  return s;
}

int32_t RecordingServer::record(std::string method, std::vector<std::string> args) {
  calls.push_back({method, std::move(args)});
  auto& queue = scripted_[method];
  if (!queue.empty()) {
    const int32_t status = queue.front();
    queue.pop_front();
    return status;
  }
  const auto it = always_.find(method);
  return it == always_.end() ? 0 : it->second;
}

int32_t RecordingServer::openResult(int32_t* rowCount, BSTR* handle) {
  Result result;
  if (!queued_.empty()) {
    result = std::move(queued_.front());
    queued_.pop_front();
  }
  const std::string h = "H" + num(++handles_);
  if (rowCount) {
    *rowCount = result.malformed ? result.malformedCount : static_cast<int32_t>(result.rows.size());
  }
  putText(handle, h);
  open_[h] = std::move(result);
  return 0;
}

void RecordingServer::Release() {
  calls.push_back({"Release", {}});
  released = true;
  if (throwOnRelease) throw std::runtime_error("peer gone");
}

int32_t RecordingServer::DeleteDatabase(BSTR dbName, BSTR option) {
  return record("DeleteDatabase", {utf8(dbName), utf8(option)});
}

int32_t RecordingServer::CopyDatabase(BSTR srcDb, BSTR srcOption, BSTR dstDb, BSTR dstOption,
                                      int32_t kind) {
  return record("CopyDatabase",
                {utf8(srcDb), utf8(srcOption), utf8(dstDb), utf8(dstOption), num(kind)});
}

int32_t RecordingServer::OpenDatabase(BSTR dbName, int32_t mode, int32_t* /*out*/) {
  return record("OpenDatabase", {utf8(dbName), num(mode)});
}

int32_t RecordingServer::CreateTable(BSTR dbName, BSTR tableName, int32_t tableKind) {
  return record("CreateTable", {utf8(dbName), utf8(tableName), num(tableKind)});
}

int32_t RecordingServer::ExecuteQuery(BSTR dbName, BSTR tableName, BSTR sql, int32_t flag,
                                      int32_t* rowCount, BSTR* handle) {
  const int32_t s = record("ExecuteQuery", {utf8(dbName), utf8(tableName), utf8(sql), num(flag)});
  return s != 0 ? s : openResult(rowCount, handle);
}

int32_t RecordingServer::GetRecords(BSTR dbName, BSTR handle, int32_t rowIndex, VARIANT* row) {
  const int32_t s = record("GetRecords", {utf8(dbName), utf8(handle), num(rowIndex)});
  if (s != 0) return s;
  const auto it = open_.find(utf8(handle));
  if (it == open_.end()) return 1;
  const Result& r = it->second;
  if (r.malformed) {
    MVVariantClear(row);
    row->vt = MV_VT_I4;
    row->lVal = 0;
    return 0;
  }
  if (rowIndex < 0 || static_cast<std::size_t>(rowIndex) >= r.rows.size()) return 1;
  const auto& elements = r.rows[static_cast<std::size_t>(rowIndex)];
  MVVariantClear(row);
  row->parray = mv::safeArrayCreateVector(MV_VT_VARIANT, 0, static_cast<uint32_t>(elements.size()));
  row->vt = MV_VT_ARRAY | MV_VT_VARIANT;
  void* data = nullptr;
  mv::safeArrayAccessData(row->parray, &data);
  for (std::size_t i = 0; i < elements.size(); ++i) {
    VARIANT& e = static_cast<VARIANT*>(data)[i];
    e.vt = MV_VT_BSTR;
    e.bstrVal = nullptr;
    putText(&e.bstrVal, elements[i]);
  }
  mv::safeArrayUnaccessData(row->parray);
  return 0;
}

int32_t RecordingServer::CloseDatabase(BSTR dbName) {
  return record("CloseDatabase", {utf8(dbName)});
}

int32_t RecordingServer::OpenTable(BSTR dbName, BSTR tableName, int32_t mode, int32_t* rowCount,
                                   BSTR* handle) {
  const int32_t s = record("OpenTable", {utf8(dbName), utf8(tableName), num(mode)});
  return s != 0 ? s : openResult(rowCount, handle);
}

int32_t RecordingServer::CloseTable(BSTR dbName, BSTR handle) {
  const int32_t s = record("CloseTable", {utf8(dbName), utf8(handle)});
  if (s == 0) open_.erase(utf8(handle));
  return s;
}

int32_t RecordingServer::UnlockDatabase(BSTR dbName) {
  return record("UnlockDatabase", {utf8(dbName)});
}

int32_t RecordingServer::ExecuteSQL(BSTR dbName, BSTR sql) {
  return record("ExecuteSQL", {utf8(dbName), utf8(sql)});
}

int32_t RecordingServer::OpenTableEx(BSTR dbName, BSTR tableName, BSTR sql, int32_t flag,
                                     int32_t* rowCount, BSTR* handle) {
  const int32_t s = record("OpenTableEx", {utf8(dbName), utf8(tableName), utf8(sql), num(flag)});
  return s != 0 ? s : openResult(rowCount, handle);
}

int32_t RecordingServer::CreateBookDatabase(BSTR templateName, BSTR option, BSTR newDbName) {
  return record("CreateBookDatabase", {utf8(templateName), utf8(option), utf8(newDbName)});
}

int32_t RecordingServer::CheckTBL(BSTR dbName, BSTR tableName) {
  return record("CheckTBL", {utf8(dbName), utf8(tableName)});
}

int32_t RecordingServer::CheckColumn(BSTR dbName, BSTR tableName, BSTR columnName) {
  return record("CheckColumn", {utf8(dbName), utf8(tableName), utf8(columnName)});
}

int32_t RecordingServer::AddRecord(BSTR dbName, VARIANT* rec, int32_t recordCount,
                                   int32_t* newIndex) {
  const int32_t s = record("AddRecord", {utf8(dbName), render(rec), num(recordCount)});
  if (s == 0 && newIndex) *newIndex = nextIndex++;
  return s;
}

int32_t RecordingServer::UpdateRecord(BSTR dbName, VARIANT* rec, int32_t recordCount,
                                      int32_t* tIndex) {
  return record("UpdateRecord",
                {utf8(dbName), render(rec), num(recordCount), tIndex ? num(*tIndex) : "null"});
}

int32_t RecordingServer::DownLoadData(BSTR dbName, BSTR handle, BSTR columnName, int32_t rowIndex,
                                      int32_t blockNo, int32_t blockSize, VARIANT* block,
                                      int32_t* isEnd, int32_t* /*bytes*/) {
  const int32_t s = record("DownLoadData", {utf8(dbName), utf8(handle), utf8(columnName),
                                            num(rowIndex), num(blockNo), num(blockSize)});
  if (s != 0) return s;
  const std::size_t start = static_cast<std::size_t>(blockNo - 1) * downloadChunk;
  if (start >= download.size()) return 0;  // nothing (more) to send: no array
  const std::size_t n = std::min(downloadChunk, download.size() - start);
  MVVariantClear(block);
  block->parray = mv::safeArrayCreateVector(MV_VT_UI1, 0, static_cast<uint32_t>(n));
  block->vt = MV_VT_ARRAY | MV_VT_UI1;
  void* data = nullptr;
  mv::safeArrayAccessData(block->parray, &data);
  if (n) std::memcpy(data, download.data() + start, n);
  mv::safeArrayUnaccessData(block->parray);
  if (isEnd) *isEnd = flagEndOnLastBlock && start + n >= download.size() ? 1 : 0;
  return 0;
}

int32_t RecordingServer::UpLoadData(VARIANT* rec, int32_t blockNo, int32_t bytes, VARIANT* block,
                                    int32_t isLast) {
  const int32_t s =
      record("UpLoadData", {render(rec), num(blockNo), num(bytes), render(block), num(isLast)});
  if (s != 0) return s;
  if (block && block->parray && bytes > 0) {
    void* data = nullptr;
    mv::safeArrayAccessData(block->parray, &data);
    const auto* p = static_cast<const uint8_t*>(data);
    uploaded.insert(uploaded.end(), p, p + bytes);
    mv::safeArrayUnaccessData(block->parray);
  }
  return 0;
}

int32_t RecordingServer::DeleteRecord(BSTR dbName, BSTR handle, int32_t tIndex) {
  return record("DeleteRecord", {utf8(dbName), utf8(handle), num(tIndex)});
}

int32_t RecordingServer::DeleteRecords(BSTR dbName, BSTR handle, int32_t firstRow,
                                       int32_t lastRow) {
  return record("DeleteRecords", {utf8(dbName), utf8(handle), num(firstRow), num(lastRow)});
}

int32_t RecordingServer::ImageFileDate(BSTR dbName, BSTR handle, int32_t op, int32_t tIndex,
                                       double* date) {
  const int32_t s = record("ImageFileDate", {utf8(dbName), utf8(handle), num(op), num(tIndex),
                                             date ? num(*date) : "null"});
  if (s == 0 && date != nullptr) {
    if (op == 0) *date = fileDate;
    if (op == 1) fileDate = *date;
  }
  return s;
}

int32_t RecordingServer::SetBookUpdateCounter(BSTR dbName) {
  return record("SetBookUpdateCounter", {utf8(dbName)});
}

int32_t RecordingServer::SetMutex(BSTR name, int32_t op) {
  const int32_t s = record("SetMutex", {utf8(name), num(op)});
  const auto it = mutexAnswers.find(utf8(name));
  return s != 0 || it == mutexAnswers.end() ? s : it->second;
}

int32_t RecordingServer::GetBookUpdateCounter(BSTR dbName, uint8_t* /*block16*/,
                                              int32_t* /*counter*/) {
  return record("GetBookUpdateCounter", {utf8(dbName), kOut});
}

int32_t RecordingServer::TagUpdateCounter(BSTR dbName, int32_t tagIndex, int32_t op,
                                          uint8_t* /*block16*/, int32_t* /*counter*/) {
  return record("TagUpdateCounter", {utf8(dbName), num(tagIndex), num(op), kOut});
}

int32_t RecordingServer::SetCounter(BSTR name, int32_t op, int32_t* value) {
  const int32_t s = record("SetCounter", {utf8(name), num(op)});
  const auto it = counters.find(utf8(name));
  if (s == 0 && op == 0 && value != nullptr && it != counters.end()) *value = it->second;
  return s;
}

int32_t RecordingServer::SetUserAdmin(BSTR first, BSTR second, int32_t third) {
  return record("SetUserAdmin", {utf8(first), utf8(second), num(third)});
}

int32_t RecordingServer::GetLoginUsers(VARIANT* list, int32_t* count) {
  const int32_t s = record("GetLoginUsers", {kOut, kOut});
  if (s != 0 || list == nullptr || count == nullptr) return s;
  MVVariantClear(list);
  list->parray =
      mv::safeArrayCreateVector(MV_VT_VARIANT, 0, static_cast<uint32_t>(2 * loginUsers.size()));
  list->vt = MV_VT_ARRAY | MV_VT_VARIANT;
  void* data = nullptr;
  mv::safeArrayAccessData(list->parray, &data);
  for (std::size_t i = 0; i < loginUsers.size(); ++i) {
    auto* pair = static_cast<VARIANT*>(data) + 2 * i;
    pair[0].vt = pair[1].vt = MV_VT_BSTR;
    pair[0].bstrVal = pair[1].bstrVal = nullptr;
    putText(&pair[0].bstrVal, loginUsers[i].first);
    putText(&pair[1].bstrVal, loginUsers[i].second);
  }
  mv::safeArrayUnaccessData(list->parray);
  *count = static_cast<int32_t>(loginUsers.size());
  return 0;
}

int32_t RecordingServer::GetConnect(int32_t* first, int32_t* second) {
  const int32_t s = record("GetConnect", {kOut, kOut});
  if (s == 0) {
    *first = connectFirst;
    *second = connectSecond;
  }
  return s;
}

int32_t RecordingServer::LoginMgr(BSTR first, BSTR second, BSTR third, int32_t fourth) {
  return record("LoginMgr", {utf8(first), utf8(second), utf8(third), num(fourth)});
}

int32_t RecordingServer::CarryingInfoBook(BSTR dbName, int32_t first, int32_t second) {
  return record("CarryingInfoBook", {utf8(dbName), num(first), num(second)});
}

int32_t RecordingServer::CarryingOut(BSTR dbName, int32_t blockNo, int32_t blockSize,
                                     VARIANT* /*block*/, int32_t* /*isEnd*/, BSTR* /*fileName*/,
                                     int32_t* /*value*/) {
  return record("CarryingOut", {utf8(dbName), num(blockNo), num(blockSize)});
}

int32_t RecordingServer::Carryingin(BSTR dbName, int32_t isFirst, int32_t bytes, VARIANT* block,
                                    int32_t isLast) {
  return record("Carryingin", {utf8(dbName), num(isFirst), num(bytes), render(block), num(isLast)});
}

int32_t RecordingServer::CarryingSetup(BSTR first, BSTR second) {
  return record("CarryingSetup", {utf8(first), utf8(second)});
}

int32_t RecordingServer::DBBackUpBase(int32_t a, int32_t b, int32_t c) {
  return record("DBBackUpBase", {num(a), num(b), num(c)});
}

int32_t RecordingServer::GetCarryingInfo(VARIANT* /*list*/) {
  return record("GetCarryingInfo", {kOut});
}

int32_t RecordingServer::OpenNetShare(BSTR shareClient, BSTR computerName, BSTR dbName,
                                      BSTR tableName, int32_t tIndex, BSTR* folder) {
  const int32_t s = record("OpenNetShare", {utf8(shareClient), utf8(computerName), utf8(dbName),
                                            utf8(tableName), num(tIndex)});
  if (s == 0) putText(folder, shareFolder);
  return s;
}

int32_t RecordingServer::CloseNetShare(BSTR dbName, BSTR tableName, int32_t tIndex) {
  return record("CloseNetShare", {utf8(dbName), utf8(tableName), num(tIndex)});
}

int32_t RecordingServer::RepricatOut(BSTR dbName, BSTR* /*fileName*/) {
  return record("RepricatOut", {utf8(dbName), kOut});
}

int32_t RecordingServer::RepricatIn(BSTR dbName) { return record("RepricatIn", {utf8(dbName)}); }

int32_t RecordingServer::GetOrgBookDBInfo(VARIANT* /*first*/, VARIANT* /*second*/,
                                          VARIANT* /*third*/) {
  return record("GetOrgBookDBInfo", {kOut, kOut, kOut});
}

int32_t RecordingServer::AddOrgBookDB(BSTR a, BSTR b, BSTR c, int32_t d) {
  return record("AddOrgBookDB", {utf8(a), utf8(b), utf8(c), num(d)});
}

int32_t RecordingServer::DeleteOrgBookDB(int32_t a) { return record("DeleteOrgBookDB", {num(a)}); }

int32_t RecordingServer::RenameOrgBookDB(int32_t a, int32_t b) {
  return record("RenameOrgBookDB", {num(a), num(b)});
}

int32_t RecordingServer::GetServerFreeSpace(int32_t* /*freeSpace*/) {
  return record("GetServerFreeSpace", {kOut});
}

int32_t RecordingServer::GetServerInfo(BSTR* info) {
  const int32_t s = record("GetServerInfo", {kOut});
  if (s == 0) putText(info, serverInfo);
  return s;
}

int32_t RecordingServer::GetOption(int32_t kind, BSTR* text, int32_t* a, int32_t* b) {
  const int32_t s = record("GetOption", {num(kind), text && *text ? utf8(*text) : "",
                                         a ? num(*a) : "null", b ? num(*b) : "null"});
  if (s != 0) return s;
  const auto it = optionValues.find(kind);
  if (it != optionValues.end()) {
    *a = it->second.first;
    *b = it->second.second;
  }
  putText(text, "option " + num(kind));
  return 0;
}

int32_t RecordingServer::ConnectCheck() { return record("ConnectCheck", {}); }

int32_t RecordingServer::GetLastError(BSTR* message) {
  const int32_t s = record("GetLastError", {kOut});
  if (s == 0) putText(message, lastErrorText);
  return s;
}

int32_t RecordingServer::GetDatabaseSize(BSTR dbName, int32_t* /*size*/) {
  return record("GetDatabaseSize", {utf8(dbName), kOut});
}

int32_t RecordingServer::GetDatabaseSize2(BSTR dbName, int64_t* /*size*/) {
  return record("GetDatabaseSize2", {utf8(dbName), kOut});
}

int32_t RecordingServer::CheckRecordableFolder(BSTR folder) {
  return record("CheckRecordableFolder", {utf8(folder)});
}

int32_t RecordingServer::CheckSQLServerType() { return record("CheckSQLServerType", {}); }

int32_t RecordingServer::GetServerInfo2(int32_t*, int32_t*, int32_t*, int32_t*) {
  return record("GetServerInfo2", {kOut, kOut, kOut, kOut});
}

int32_t RecordingServer::GetOSVersion(int32_t*, int32_t*) {
  return record("GetOSVersion", {kOut, kOut});
}

int32_t RecordingServer::CheckOSType(int32_t*) { return record("CheckOSType", {kOut}); }

int32_t RecordingServer::GetServerModuleVersion(int32_t*, int32_t*, int32_t*, int32_t*) {
  return record("GetServerModuleVersion", {kOut, kOut, kOut, kOut});
}

}  // namespace mvtest
