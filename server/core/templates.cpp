// A session's book templates: listing them, making a book database from one, and adding,
// deleting and renumbering them.
#include "server/core/book_server.h"
#include "server/core/status.h"
#include "server/core/wire.h"

namespace mv::server {

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

}  // namespace mv::server
