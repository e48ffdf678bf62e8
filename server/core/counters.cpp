// A session's counters and mutexes: a book's and a tag's update counters, the server's named
// counters, and the named mutexes the core keeps.
#include "server/core/book_server.h"
#include "server/core/session_helpers.h"
#include "server/core/status.h"
#include "server/core/wire.h"

namespace mv::server {

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

}  // namespace mv::server
