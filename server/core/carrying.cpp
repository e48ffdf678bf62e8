// A session's files beyond rows: share folders, carrying a book's database out and back in,
// replication files and base backups.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <ctime>
#include <filesystem>

#include "server/core/book_server.h"
#include "server/core/status.h"
#include "server/core/wire.h"

namespace mv::server {

namespace {

namespace stdfs = std::filesystem;

constexpr char kCarriedSuffix[] = ".mvb";

std::string stamp() {
  const std::time_t now = std::time(nullptr);
  std::tm tm{};
  localtime_r(&now, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y%m%d%H%M%S", &tm);
  return buf;
}

}  // namespace

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
  shares_->open(path);
  const std::string& server = core_->shareServer();
  putText(folder, server.empty() ? path : networkPath(server, core_->folder(), path));
  return kOk;
}

int32_t BookServer::CloseNetShare(BSTR dbName, BSTR tableName, int32_t tIndex) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  const std::string db = text(dbName);
  shares_->close(db.empty() ? core_->stagingFolder()
                            : core_->shareFolder(db, text(tableName), tIndex));
  return kOk;
}

std::shared_ptr<fs::FileSystem> BookServer::shareFiles() const {
  if (core_->shareServer().empty()) return nullptr;
  return makeShareFiles(core_->shareServer(), core_->folder(), shares_);
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

}  // namespace mv::server
