// A session's services beyond rows: counters, mutexes, logons, shares, carrying, replication,
// templates and the questions about the server itself.
#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <mutex>

#include "frame/exchange.h"
#include "server/core/book_server.h"
#include "server/core/status.h"
#include "server/core/wire.h"

namespace mv::server {

namespace {

namespace stdfs = std::filesystem;

constexpr int32_t kVersion[4] = {0, 1, 0, 0};
constexpr char kCarriedSuffix[] = ".mvb";

std::string stamp() {
  const std::time_t now = std::time(nullptr);
  std::tm tm{};
  localtime_r(&now, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y%m%d%H%M%S", &tm);
  return buf;
}

int32_t clampInt(int64_t v) {
  return static_cast<int32_t>(std::clamp<int64_t>(v, INT32_MIN, INT32_MAX));
}

}  // namespace

// --- counters and mutexes ----------------------------------------------------------------------

int32_t BookServer::SetBookUpdateCounter(BSTR dbName) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  int32_t status = kOk;
  auto db = database(text(dbName), &status);
  if (!db) return status;
  int64_t value = 0;
  std::string error;
  if (!db->addMeta("book-update-counter", 1, &value, error)) {
    return fail(kStorageFailed, "更新カウンタを上げられません: " + error);
  }
  return kOk;
}

int32_t BookServer::GetBookUpdateCounter(BSTR dbName, uint8_t* /*block16*/, int32_t* counter) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  int32_t status = kOk;
  auto db = database(text(dbName), &status);
  if (!db) return status;
  if (counter == nullptr) return fail(kBadArgument, "引数が正しくありません");
  Value v;
  *counter = db->getMeta("book-update-counter", v) ? clampInt(v.i) : 0;
  return kOk;
}

int32_t BookServer::TagUpdateCounter(BSTR dbName, int32_t tagIndex, int32_t op,
                                     uint8_t* /*block16*/, int32_t* counter) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  int32_t status = kOk;
  auto db = database(text(dbName), &status);
  if (!db) return status;
  if (counter == nullptr || (op != 0 && op != 1))
    return fail(kBadArgument, "引数が正しくありません");
  // A tag's counter is its page row's Up_DateCounter, so the page reads show it too.
  const std::string key = std::to_string(tagIndex);
  std::string error;
  if (op == 1 && !db->execute({"UPDATE TagPageTBL SET Up_DateCounter=COALESCE(Up_DateCounter,0)+1 "
                               "WHERE T_Index=" +
                               key},
                              true, error)) {
    return fail(kSqlFailed, "更新カウンタを上げられません: " + error);
  }
  Snapshot s;
  if (!db->query("SELECT Up_DateCounter FROM TagPageTBL WHERE T_Index=" + key, s, error)) {
    return fail(kMissingTable, "テーブル「TagPageTBL」がありません");
  }
  if (s.rows.empty()) return fail(kNoRow, "タグ(T_Index=" + key + ")がありません");
  *counter = clampInt(s.rows[0][0].i);
  return kOk;
}

// Named counters: op 0 reads, 1 raises by one, 2 lowers by one; `value` gets the count.
int32_t BookServer::SetCounter(BSTR name, int32_t op, int32_t* value) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  if (op < 0 || op > 2)
    return fail(kBadArgument, "カウンタの操作 " + std::to_string(op) + " は使えません");
  auto own = core_->own();
  if (!own) return fail(kStorageFailed, "サーバーのデータベースを開けません");
  int64_t result = 0;
  std::string error;
  if (!own->addMeta("counter:" + text(name), op == 0 ? 0 : op == 1 ? 1 : -1, &result, error)) {
    return fail(kStorageFailed, "カウンタを更新できません: " + error);
  }
  if (value) *value = clampInt(result);
  return kOk;
}

int32_t BookServer::SetMutex(BSTR name, int32_t op) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  return core_->mutex(text(name), op, id_);
}

// --- users -------------------------------------------------------------------------------------

namespace {

// The account of `name` if its password matches: (found, T_Index, UserAttribute).
struct Account {
  bool found = false;
  int64_t id = 0;
  int64_t attribute = 1;
};

Account account(ServerCore& core, const std::string& name, const std::string& password) {
  Account a;
  std::string error;
  auto db = core.engine().open("MarvekSystemCommonDB", false, error);
  Snapshot s;
  if (!db ||
      !db->query("SELECT T_Index, UserName, Password, UserAttribute FROM UserInfoTBL", s, error)) {
    return a;
  }
  for (const auto& row : s.rows) {
    if (row[1].text == name && row[2].text == password) {
      a.found = true;
      a.id = row[0].i;
      a.attribute = row[3].i;
      break;
    }
  }
  return a;
}

}  // namespace

// LoginMgr(user, text, password, op): op 1 logs the user on to this session (the text is kept
// with the name, GetLoginUsers shows it), op 0 logs them off.
int32_t BookServer::LoginMgr(BSTR first, BSTR second, BSTR third, int32_t fourth) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  const std::string user = text(first);
  if (fourth == 0) {
    core_->logoff(id_, user);
    return kOk;
  }
  if (fourth != 1)
    return fail(kBadArgument, "ログイン操作 " + std::to_string(fourth) + " は使えません");
  if (!account(*core_, user, text(third)).found) {
    return fail(kLogonRefused, "指定のユーザーは登録されていません");
  }
  core_->logon(id_, user, text(second));
  return kOk;
}

int32_t BookServer::GetLoginUsers(VARIANT* list, int32_t* count) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  if (list == nullptr || count == nullptr) return fail(kBadArgument, "引数が正しくありません");
  std::vector<std::string> texts;
  for (const auto& [user, note] : core_->loggedOn()) {
    texts.push_back(user);
    texts.push_back(note);
  }
  if (!putTexts(list, texts)) return fail(kStorageFailed, "メモリが足りません");
  *count = static_cast<int32_t>(texts.size() / 2);
  return kOk;
}

// SetUserAdmin(user, password, op): op 0 asks, 1 makes the user an administrator, 2 makes them
// an ordinary user; the answer is the state afterwards, 3 for administrator, 4 for not.
int32_t BookServer::SetUserAdmin(BSTR first, BSTR second, int32_t third) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  if (third < 0 || third > 2)
    return fail(kBadArgument, "操作 " + std::to_string(third) + " は使えません");
  const Account a = account(*core_, text(first), text(second));
  if (!a.found) return fail(kLogonRefused, "指定のユーザーは登録されていません");
  if (third == 0) return a.attribute == 0 ? kUserIsAdmin : kUserIsNotAdmin;
  std::string error;
  auto db = core_->engine().open("MarvekSystemCommonDB", false, error);
  if (!db || !db->update("UserInfoTBL", a.id, {{"UserAttribute", Value::ofInt(third == 1 ? 0 : 1)}},
                         error)) {
    return fail(kStorageFailed, "ユーザーを更新できません: " + error);
  }
  return third == 1 ? kUserIsAdmin : kUserIsNotAdmin;
}

// GetConnect: the sessions connected now, and this session's number.
int32_t BookServer::GetConnect(int32_t* first, int32_t* second) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  if (first == nullptr || second == nullptr) return fail(kBadArgument, "引数が正しくありません");
  *first = core_->liveSessions();
  *second = clampInt(static_cast<int64_t>(id_));
  return kOk;
}

// --- shares ------------------------------------------------------------------------------------

int32_t BookServer::OpenNetShare(BSTR /*shareClient*/, BSTR /*computerName*/, BSTR dbName,
                                 BSTR tableName, int32_t tIndex, BSTR* folder) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  const std::string db = text(dbName);
  const std::string table = text(tableName);
  std::string path;
  if (db.empty()) {
    path = core_->stagingFolder();
  } else {
    int32_t status = kOk;
    if (!database(db, &status)) return status;
    if (!table.empty() && !std::all_of(table.begin(), table.end(), [](unsigned char c) {
          return std::isalnum(c) || c == '_';
        })) {
      return fail(kBadArgument, "テーブル名「" + table + "」は使えません");
    }
    path = core_->shareFolder(db, table, tIndex);
  }
  std::error_code ec;
  stdfs::create_directories(path, ec);
  if (ec) return fail(kFileFailed, "共有フォルダを作れません: " + ec.message());
  putText(folder, path);
  return kOk;
}

int32_t BookServer::CloseNetShare(BSTR, BSTR, int32_t) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  return kOk;
}

// --- carrying and replication ------------------------------------------------------------------

void BookServer::closeCarry(Carry& carry, bool keepFile) {
  if (carry.file) std::fclose(carry.file);
  if (!keepFile && !carry.path.empty()) std::remove(carry.path.c_str());
  carry = Carry{};
}

int32_t BookServer::CarryingOut(BSTR dbName, int32_t blockNo, int32_t blockSize, VARIANT* block,
                                int32_t* isEnd, BSTR* fileName, int32_t* /*value*/) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  const std::string db = text(dbName);
  if (blockSize <= 0 || blockSize > 64 * 1024 * 1024 || blockNo < 1 || isEnd == nullptr) {
    return fail(kBadArgument, "ブロックの指定が正しくありません");
  }
  if (blockNo == 1) {
    // The carried file is a consistent copy of the book's database taken now.
    closeCarry(carryOut_, false);
    int32_t status = kOk;
    if (!database(db, &status)) return status;
    Carry c;
    c.db = db;
    c.path =
        core_->stagingFolder() + "/uploads/out-" + std::to_string(id_) + "-" + db + kCarriedSuffix;
    std::string error;
    if (!core_->engine().exportFile(db, c.path, error) ||
        (c.file = std::fopen(c.path.c_str(), "rb")) == nullptr) {
      closeCarry(c, false);
      return fail(kStorageFailed, "持ち出しファイルを作れません: " + error);
    }
    carryOut_ = c;
    putText(fileName, db + kCarriedSuffix);
    if (auto own = core_->own()) own->setMeta("carried:" + db, Value::ofInt(1), error);
  }
  if (carryOut_.file == nullptr || carryOut_.db != db) {
    return fail(kBlockOutOfOrder, "持ち出しは 1 番のブロックから始めます");
  }
  std::vector<uint8_t> data(static_cast<std::size_t>(blockSize));
  if (std::fseek(carryOut_.file, static_cast<long>(int64_t{blockNo - 1} * blockSize), SEEK_SET) !=
      0) {
    return fail(kFileFailed, "持ち出しファイルを読めません");
  }
  const std::size_t n = std::fread(data.data(), 1, data.size(), carryOut_.file);
  const bool end = n < data.size() || std::fgetc(carryOut_.file) == EOF;
  *isEnd = end ? 1 : 0;
  if (n > 0 && !putBytes(block, data.data(), n)) return fail(kStorageFailed, "メモリが足りません");
  if (end) closeCarry(carryOut_, false);
  return kOk;
}

int32_t BookServer::Carryingin(BSTR dbName, int32_t isFirst, int32_t bytes, VARIANT* block,
                               int32_t isLast) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  const std::string db = text(dbName);
  if (!isClientDatabaseName(db))
    return fail(kBadArgument, "データベース名「" + db + "」は使えません");
  const uint8_t* data = nullptr;
  if (!blockBytes(block, bytes, &data))
    return fail(kBadArgument, "ブロックの長さが正しくありません");
  if (isFirst == 1) {
    closeCarry(carryIn_, false);
    carryIn_.db = db;
    carryIn_.path =
        core_->stagingFolder() + "/uploads/in-" + std::to_string(id_) + "-" + db + kCarriedSuffix;
    carryIn_.file = std::fopen(carryIn_.path.c_str(), "wb");
    if (carryIn_.file == nullptr) return fail(kFileFailed, "持ち込みファイルを作れません");
  }
  if (carryIn_.file == nullptr || carryIn_.db != db) {
    return fail(kBlockOutOfOrder, "持ち込みは最初のブロックから始めます");
  }
  if (bytes > 0 && std::fwrite(data, 1, static_cast<std::size_t>(bytes), carryIn_.file) !=
                       static_cast<std::size_t>(bytes)) {
    closeCarry(carryIn_, false);
    return fail(kFileFailed, "持ち込みファイルに書けません");
  }
  if (isLast != 1) return kOk;
  // The file is whole only once it is closed: a failing close (a full disk) fails the carry.
  const bool closed = std::fclose(carryIn_.file) == 0;
  carryIn_.file = nullptr;
  if (!closed) {
    closeCarry(carryIn_, false);
    return fail(kFileFailed, "持ち込みファイルに書けません");
  }
  if (core_->openElsewhere(db, id_)) {
    closeCarry(carryIn_, false);
    return fail(kDatabaseInUse, "データベース「" + db + "」は他の接続で使用中です");
  }
  std::string error;
  const bool ok = core_->engine().importFile(db, carryIn_.path, error);
  closeCarry(carryIn_, false);
  if (!ok) return fail(kStorageFailed, "持ち込みファイルを取り込めません: " + error);
  if (auto own = core_->own()) own->setMeta("carried:" + db, Value::ofInt(0), error);
  return kOk;
}

// One text per book database: "name,carried,value", carried 1 while it is taken out.
int32_t BookServer::GetCarryingInfo(VARIANT* list) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  auto own = core_->own();
  if (!own || list == nullptr) return fail(kBadArgument, "引数が正しくありません");
  std::vector<std::string> texts;
  for (const std::string& db : core_->engine().list()) {
    if (!isClientDatabaseName(db) || db.rfind("BOOK", 0) != 0) continue;
    Value carried, value;
    own->getMeta("carried:" + db, carried);
    own->getMeta("carry-value:" + db, value);
    texts.push_back(db + "," + std::to_string(carried.i) + "," + std::to_string(value.i));
  }
  return putTexts(list, texts) ? kOk : fail(kStorageFailed, "メモリが足りません");
}

// CarryingInfoBook(db, carried, value) sets what GetCarryingInfo reports for a book.
int32_t BookServer::CarryingInfoBook(BSTR dbName, int32_t first, int32_t second) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  int32_t status = kOk;
  const std::string db = text(dbName);
  if (!database(db, &status)) return status;
  auto own = core_->own();
  std::string error;
  if (!own || !own->setMeta("carried:" + db, Value::ofInt(first), error) ||
      !own->setMeta("carry-value:" + db, Value::ofInt(second), error)) {
    return fail(kStorageFailed, "持ち出し情報を保存できません: " + error);
  }
  return kOk;
}

// CarryingSetup(name, value) keeps a carrying setting of the server by name.
int32_t BookServer::CarryingSetup(BSTR first, BSTR second) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  auto own = core_->own();
  std::string error;
  if (!own || !own->setMeta("carrying-setup:" + text(first), Value::ofText(text(second)), error)) {
    return fail(kStorageFailed, "設定を保存できません: " + error);
  }
  return kOk;
}

int32_t BookServer::RepricatOut(BSTR dbName, BSTR* fileName) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  const std::string db = text(dbName);
  int32_t status = kOk;
  if (!database(db, &status)) return status;
  const std::string file = db + kCarriedSuffix;
  const std::string path = core_->stagingFolder() + "/" + file;
  std::remove(path.c_str());
  std::string error;
  if (!core_->engine().exportFile(db, path, error)) {
    return fail(kStorageFailed, "複製ファイルを作れません: " + error);
  }
  putText(fileName, file);
  return kOk;
}

int32_t BookServer::RepricatIn(BSTR dbName) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  const std::string db = text(dbName);
  if (!isClientDatabaseName(db))
    return fail(kBadArgument, "データベース名「" + db + "」は使えません");
  const std::string path = core_->stagingFolder() + "/" + db + kCarriedSuffix;
  std::error_code ec;
  if (!stdfs::exists(path, ec))
    return fail(kFileFailed, "複製ファイル「" + db + kCarriedSuffix + "」がありません");
  if (core_->openElsewhere(db, id_)) {
    return fail(kDatabaseInUse, "データベース「" + db + "」は他の接続で使用中です");
  }
  std::string error;
  if (!core_->engine().importFile(db, path, error)) {
    return fail(kStorageFailed, "複製ファイルを取り込めません: " + error);
  }
  stdfs::remove(path, ec);
  return kOk;
}

// DBBackUpBase: a consistent copy of every database into backup/<date and time>/. The three
// values are not used.
int32_t BookServer::DBBackUpBase(int32_t, int32_t, int32_t) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  const std::string folder = core_->folder() + "/backup/" + stamp() + "-" + std::to_string(id_);
  std::error_code ec;
  stdfs::create_directories(folder, ec);
  if (ec) return fail(kFileFailed, "バックアップフォルダを作れません: " + ec.message());
  std::string error;
  for (const std::string& db : core_->engine().list()) {
    if (!core_->engine().exportFile(
            db, std::string(folder).append("/").append(db).append(".sqlite"), error)) {
      return fail(kStorageFailed, "バックアップに失敗しました: " + error);
    }
  }
  return kOk;
}

// --- templates ---------------------------------------------------------------------------------

int32_t BookServer::GetOrgBookDBInfo(VARIANT* first, VARIANT* second, VARIANT* third) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  std::vector<std::string> infos, names;
  std::vector<int32_t> versions;
  for (const TemplateInfo& t : core_->templates()) {
    infos.push_back(t.info);
    names.push_back(t.name);
    versions.push_back(t.version);
  }
  if (!putTexts(first, infos) || !putTexts(second, names) || !putInts(third, versions)) {
    return fail(kBadArgument, "引数が正しくありません");
  }
  return kOk;
}

int32_t BookServer::CreateBookDatabase(BSTR templateName, BSTR /*option*/, BSTR newDbName) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  const std::string name = text(templateName);
  const std::string db = text(newDbName);
  if (!isClientDatabaseName(db))
    return fail(kBadArgument, "データベース名「" + db + "」は使えません");
  const std::string source = core_->templateDatabase(name);
  if (source.empty()) return fail(kNoTemplate, "雛形「" + name + "」がありません");
  std::string error;
  if (core_->engine().exists(db))
    return fail(kDatabaseExists, "データベース「" + db + "」は既に存在します");
  if (!core_->engine().copy(source, db, error)) {
    return fail(kStorageFailed, "雛形からデータベースを作れません: " + error);
  }
  return kOk;
}

// AddOrgBookDB(name, description, source database or empty for an empty book, version).
int32_t BookServer::AddOrgBookDB(BSTR a, BSTR b, BSTR c, int32_t d) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  const std::string source = text(c);
  if (!source.empty()) {
    int32_t status = kOk;
    if (!database(source, &status)) return status;
  }
  const std::string name = text(a);
  if (name.empty()) return fail(kBadArgument, "雛形の名前がありません");
  std::string error;
  if (!core_->addTemplate({name, text(b), d}, source, error)) {
    return fail(kStorageFailed, "雛形を追加できません: " + error);
  }
  return kOk;
}

// DeleteOrgBookDB(position in the list).
int32_t BookServer::DeleteOrgBookDB(int32_t a) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  std::string error;
  if (a < 0 || !core_->deleteTemplate(static_cast<std::size_t>(a), error)) {
    return fail(kNoTemplate, "雛形 " + std::to_string(a) + " を削除できません: " + error);
  }
  return kOk;
}

// RenameOrgBookDB(position, version): gives the template a new version number.
int32_t BookServer::RenameOrgBookDB(int32_t a, int32_t b) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  std::string error;
  if (a < 0 || !core_->setTemplateVersion(static_cast<std::size_t>(a), b, error)) {
    return fail(kNoTemplate, "雛形 " + std::to_string(a) + " を変更できません: " + error);
  }
  return kOk;
}

// --- the server itself -------------------------------------------------------------------------

// Free space of the data folder in megabytes.
int32_t BookServer::GetServerFreeSpace(int32_t* freeSpace) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  struct statvfs s {};
  if (freeSpace == nullptr || ::statvfs(core_->folder().c_str(), &s) != 0) {
    return fail(kFileFailed, "空き容量を調べられません");
  }
  *freeSpace = clampInt(static_cast<int64_t>(s.f_bavail) * static_cast<int64_t>(s.f_frsize) /
                        (int64_t{1024} * 1024));
  return kOk;
}

int32_t BookServer::GetServerInfo(BSTR* info) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  putText(info, "BookServer " + std::to_string(kVersion[0]) + "." + std::to_string(kVersion[1]) +
                    " (" + core_->engine().describe() + ") " + core_->folder());
  return kOk;
}

// GetOption kind 0: a = the server's major version, b = its minor version; kind 0x63: a = the
// sessions connected now. The text names the server.
int32_t BookServer::GetOption(int32_t kind, BSTR* textOut, int32_t* a, int32_t* b) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  if (a == nullptr || b == nullptr) return fail(kBadArgument, "引数が正しくありません");
  if (kind == 0) {
    *a = kVersion[0];
    *b = kVersion[1];
  } else if (kind == 0x63) {
    *a = core_->liveSessions();
  } else {
    return fail(kBadArgument, "オプション " + std::to_string(kind) + " はありません");
  }
  putText(textOut, "BookServer");
  return kOk;
}

int32_t BookServer::ConnectCheck() {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  return kOk;
}

int32_t BookServer::GetLastError(BSTR* message) {
  putText(message, lastError_);
  return kOk;
}

// GetDatabaseSize in kilobytes, GetDatabaseSize2 in bytes.
int32_t BookServer::GetDatabaseSize(BSTR dbName, int32_t* size) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  int32_t status = kOk;
  auto db = database(text(dbName), &status);
  if (!db) return status;
  if (size) *size = clampInt(db->sizeBytes() / 1024);
  return kOk;
}

int32_t BookServer::GetDatabaseSize2(BSTR dbName, int64_t* size) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  int32_t status = kOk;
  auto db = database(text(dbName), &status);
  if (!db) return status;
  if (size) *size = db->sizeBytes();
  return kOk;
}

// 0 when the server can write into the folder, 1 when it cannot.
int32_t BookServer::CheckRecordableFolder(BSTR folder) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  const std::string path = text(folder);
  return !path.empty() && ::access(path.c_str(), W_OK | X_OK) == 0 ? 0 : 1;
}

// 1: SQLite.
int32_t BookServer::CheckSQLServerType() {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  return 1;
}

// a: databases held, b: free megabytes, c: sessions connected, d: 0.
int32_t BookServer::GetServerInfo2(int32_t* a, int32_t* b, int32_t* c, int32_t* d) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  if (!a || !b || !c || !d) return fail(kBadArgument, "引数が正しくありません");
  *a = static_cast<int32_t>(core_->engine().list().size());
  if (GetServerFreeSpace(b) != kOk) *b = 0;
  *c = core_->liveSessions();
  *d = 0;
  return kOk;
}

// The kernel's release, major and minor.
int32_t BookServer::GetOSVersion(int32_t* first, int32_t* second) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  struct utsname u {};
  if (!first || !second || ::uname(&u) != 0) return fail(kBadArgument, "引数が正しくありません");
  char* end = nullptr;
  *first = static_cast<int32_t>(std::strtol(u.release, &end, 10));
  *second = end && *end == '.' ? static_cast<int32_t>(std::strtol(end + 1, nullptr, 10)) : 0;
  return kOk;
}

// 2: Linux.
int32_t BookServer::CheckOSType(int32_t* type) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  if (type == nullptr) return fail(kBadArgument, "引数が正しくありません");
  *type = 2;
  return kOk;
}

int32_t BookServer::GetServerModuleVersion(int32_t* v1, int32_t* v2, int32_t* v3, int32_t* v4) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  if (!v1 || !v2 || !v3 || !v4) return fail(kBadArgument, "引数が正しくありません");
  *v1 = kVersion[0];
  *v2 = kVersion[1];
  *v3 = kVersion[2];
  *v4 = kVersion[3];
  return kOk;
}

// --- the embedded server -----------------------------------------------------------------------

int32_t connectEmbedded(const std::string& folder, IBookServer** server) {
  static std::mutex mutex;
  static std::weak_ptr<ServerCore> running;
  static std::string runningFolder;
  std::lock_guard lock(mutex);
  const std::string path = resolveDataFolder(folder);
  std::shared_ptr<ServerCore> core = running.lock();
  if (core && runningFolder != path) core.reset();  // a new folder: its own server
  if (!core) {
    std::string error;
    core = ServerCore::open(path, InitOptions{}, error);
    if (!core) return kStorageFailed;
    running = core;
    runningFolder = path;
  }
  *server = new BookServer(core);
  return kOk;
}

}  // namespace mv::server
