#include "server/core/server_core.h"

#include <algorithm>
#include <filesystem>

#include "platform/file_system.h"
#include "server/core/status.h"

namespace mv::server {

namespace {

namespace stdfs = std::filesystem;

constexpr char kSystemDb[] = "MarvekSystemCommonDB";
constexpr char kCommonDbs[][20] = {"MarvekCommonDB", "MarvekUserCommonDB"};
constexpr char kTemplatesTable[] = "Templates";

constexpr ColumnDef kTemplateColumns[] = {{"T_Index", ColumnType::Int, 0},
                                          {"Name", ColumnType::Varchar, 512},
                                          {"Info", ColumnType::Varchar, 512},
                                          {"Version", ColumnType::Int, 0},
                                          {"DbName", ColumnType::Varchar, 512}};
constexpr TableDef kTemplates{DbKind::System, kTemplatesTable, kTemplateColumns};

// A book's ValueTBL has no columns the library knows; the server makes it with the key only.
constexpr ColumnDef kValueColumns[] = {{"T_Index", ColumnType::Int, 0}};
constexpr TableDef kBookValueTable{DbKind::Book, "ValueTBL", kValueColumns};

// Tables a fresh database leaves to the library to make or extend: it repairs an older layout
// on first use (the view tables and TagAttributeTBL by CreateTable, OrderNo by ALTER TABLE), so
// a fresh folder takes the same road as an old one.
bool madeOnDemand(const TableDef& t) {
  const std::string_view n = t.name;
  return n.rfind("View", 0) == 0 || n == "TagAttributeTBL";
}
const std::vector<std::string> kAddedLater = {"OrderNo"};

bool createMissing(Database& db, const TableDef& t, std::string& error) {
  return db.hasTable(t.name) || db.createTable(t, kAddedLater, error);
}

bool createKind(Database& db, DbKind kind, std::string& error) {
  for (const TableDef& t : catalogue()) {
    if (t.db == kind && !madeOnDemand(t) && !createMissing(db, t, error)) return false;
  }
  return true;
}

Snapshot read(Database& db, const std::string& sql) {
  Snapshot s;
  std::string error;
  db.query(sql, s, error);
  return s;
}

std::string text(const Value& v) { return v.kind == Value::Kind::Text ? v.text : std::string(); }

}  // namespace

bool isClientDatabaseName(const std::string& name) {
  if (name.empty() || name.size() > 128 || name[0] == '_') return false;
  return std::all_of(name.begin(), name.end(),
                     [](unsigned char c) { return std::isalnum(c) || c == '_' || c >= 0x80; });
}

std::shared_ptr<ServerCore> ServerCore::open(const std::string& folder, const InitOptions& init,
                                             const EngineFactory& engine, std::string& error) {
  if (!engine) {
    error = "no storage engine";
    return nullptr;
  }
  std::shared_ptr<ServerCore> core(new ServerCore());
  core->folder_ = folder;
  core->lock_ = FolderLock::acquire(folder, error);
  if (!core->lock_) return nullptr;
  std::error_code ec;
  for (const char* sub : {"/db", "/shares", "/staging", "/staging/uploads", "/backup"}) {
    stdfs::create_directories(folder + sub, ec);
    if (ec) {
      error = "cannot make " + folder + sub + ": " + ec.message();
      return nullptr;
    }
  }
  core->engine_ = engine(folder + "/db", error);
  if (!core->engine_) return nullptr;
  // Leftovers of uploads or carries that a stopped server did not finish, and share files whose
  // writer died before it committed them (they never took their names).
  for (const auto& entry : stdfs::directory_iterator(folder + "/staging/uploads", ec)) {
    stdfs::remove(entry.path(), ec);
  }
  for (const char* sub : {"/shares", "/staging"}) {
    std::vector<stdfs::path> partial;
    for (auto it = stdfs::recursive_directory_iterator(folder + sub, ec);
         !ec && it != stdfs::recursive_directory_iterator(); it.increment(ec)) {
      if (it->is_regular_file(ec) && fs::isUncommittedWrite(it->path().filename().string())) {
        partial.push_back(it->path());
      }
    }
    for (const stdfs::path& p : partial) stdfs::remove(p, ec);
  }
  if (!core->initialise(init, error)) return nullptr;
  return core;
}

ServerCore::~ServerCore() = default;

bool ServerCore::initialise(const InitOptions& init, std::string& error) {
  // The server's own database is made last, so an interrupted first start is finished on the
  // next: every step below leaves what exists alone.
  if (engine_->exists(kOwnDatabase)) return true;

  auto system = engine_->open(kSystemDb, true, error);
  if (!system || !createKind(*system, DbKind::System, error)) return false;
  Snapshot users = read(*system, "SELECT T_Index FROM UserInfoTBL");
  int64_t key = 0;
  if (users.rows.empty() && !system->insert("UserInfoTBL",
                                            {{"UserName", Value::ofText(init.adminName)},
                                             {"Password", Value::ofText(init.adminPassword)},
                                             {"UserAttribute", Value::ofInt(0)}},
                                            &key, error)) {
    return false;
  }
  Snapshot discard = read(*system, "SELECT T_Index FROM BookShelfTBL WHERE Attribute=1");
  if (discard.rows.empty() && !system->insert("BookShelfTBL",
                                              {{"Attribute", Value::ofInt(1)},
                                               {"BookShelfName", Value::ofText(kDiscardShelfName)}},
                                              &key, error)) {
    return false;
  }
  for (const char* name : kCommonDbs) {
    auto common = engine_->open(name, true, error);
    if (!common || !createKind(*common, DbKind::Common, error)) return false;
  }

  const std::string templateDb = std::string(kTemplatePrefix) + "1";
  auto book = engine_->open(templateDb, true, error);
  if (!book || !createKind(*book, DbKind::Book, error) ||
      !createMissing(*book, kBookValueTable, error)) {
    return false;
  }
  book.reset();

  auto own = engine_->open(kOwnDatabase, true, error);
  if (!own || !own->createTable(kTemplates, {}, error)) return false;
  return own->insert(kTemplatesTable,
                     {{"Name", Value::ofText(kDefaultTemplate)},
                      {"Info", Value::ofText(kDefaultTemplateInfo)},
                      {"Version", Value::ofInt(kDefaultTemplateVersion)},
                      {"DbName", Value::ofText(templateDb)}},
                     &key, error);
}

std::shared_ptr<Database> ServerCore::own() {
  std::string error;
  return engine_->open(kOwnDatabase, false, error);
}

std::string ServerCore::shareFolder(const std::string& db, const std::string& table,
                                    int32_t key) const {
  std::string path = folder_ + "/shares/" + db;
  if (!table.empty() || key != -1)
    path += "/" + (table.empty() ? "_" : table) + "/" + std::to_string(key);
  return path;
}

void ServerCore::sessionEnded(uint64_t session) {
  std::lock_guard lock(mutex_);
  --live_;
  std::erase_if(mutexes_, [&](const auto& m) { return m.second == session; });
  std::erase_if(logons_, [&](const auto& l) { return l.first == session; });
  std::erase_if(opens_, [&](const auto& o) { return o.first.second == session; });
}

int32_t ServerCore::mutex(const std::string& name, int32_t op, uint64_t session) {
  std::lock_guard lock(mutex_);
  const auto it = mutexes_.find(name);
  const bool held = it != mutexes_.end();
  const bool mine = held && it->second == session;
  switch (op) {
    case 0:
      return held && !mine ? kMutexHeldByAnother : kMutexFree;
    case 1:
      if (held && !mine) return kMutexHeldByAnother;
      mutexes_[name] = session;
      return kMutexFree;
    case 2:
      if (!held) return kMutexNotHeld;
      if (!mine) return kMutexHeldByAnother;
      mutexes_.erase(it);
      return kMutexFree;
    default:
      return kMutexBadOp;
  }
}

void ServerCore::logon(uint64_t session, const std::string& user, const std::string& text) {
  std::lock_guard lock(mutex_);
  logons_.push_back({session, {user, text}});
}

void ServerCore::logoff(uint64_t session, const std::string& user) {
  std::lock_guard lock(mutex_);
  const auto it = std::find_if(logons_.begin(), logons_.end(), [&](const auto& l) {
    return l.first == session && l.second.first == user;
  });
  if (it != logons_.end()) logons_.erase(it);
}

std::vector<std::pair<std::string, std::string>> ServerCore::loggedOn() {
  std::lock_guard lock(mutex_);
  std::vector<std::pair<std::string, std::string>> out;
  for (const auto& l : logons_) out.push_back(l.second);
  return out;
}

void ServerCore::opened(const std::string& db, uint64_t session) {
  std::lock_guard lock(mutex_);
  ++opens_[{db, session}];
}

void ServerCore::closed(const std::string& db, uint64_t session) {
  std::lock_guard lock(mutex_);
  const auto it = opens_.find({db, session});
  if (it != opens_.end() && --it->second <= 0) opens_.erase(it);
}

bool ServerCore::openElsewhere(const std::string& db, uint64_t session) {
  std::lock_guard lock(mutex_);
  return std::any_of(opens_.begin(), opens_.end(), [&](const auto& o) {
    return o.first.first == db && o.first.second != session;
  });
}

std::vector<TemplateInfo> ServerCore::templates() {
  std::vector<TemplateInfo> out;
  auto db = own();
  if (!db) return out;
  for (const auto& row :
       read(*db, "SELECT Name, Info, Version FROM Templates ORDER BY T_Index").rows) {
    out.push_back({text(row[0]), text(row[1]), static_cast<int32_t>(row[2].i)});
  }
  return out;
}

std::string ServerCore::templateDatabase(const std::string& name) {
  auto db = own();
  if (!db) return {};
  for (const auto& row : read(*db, "SELECT Name, DbName FROM Templates ORDER BY T_Index").rows) {
    if (name.empty() || text(row[0]) == name) return text(row[1]);
  }
  return {};
}

bool ServerCore::addTemplate(const TemplateInfo& info, const std::string& sourceDb,
                             std::string& error) {
  std::lock_guard lock(mutex_);
  auto db = own();
  if (!db) return false;
  for (const auto& row : read(*db, "SELECT Name FROM Templates").rows) {
    if (text(row[0]) == info.name) {
      error = "template exists";
      return false;
    }
  }
  // The engine name is fresh each time: a deleted template's number is never reused.
  int64_t serial = 0;
  if (!db->addMeta("template-serial", 1, &serial, error)) return false;
  const std::string dbName = std::string(kTemplatePrefix) + "n" + std::to_string(serial);
  if (sourceDb.empty()) {
    auto book = engine_->open(dbName, true, error);
    if (!book || !createKind(*book, DbKind::Book, error) ||
        !createMissing(*book, kBookValueTable, error)) {
      return false;
    }
  } else if (!engine_->copy(sourceDb, dbName, error)) {
    return false;
  }
  int64_t key = 0;
  return db->insert(kTemplatesTable,
                    {{"Name", Value::ofText(info.name)},
                     {"Info", Value::ofText(info.info)},
                     {"Version", Value::ofInt(info.version)},
                     {"DbName", Value::ofText(dbName)}},
                    &key, error);
}

bool ServerCore::deleteTemplate(std::size_t position, std::string& error) {
  std::lock_guard lock(mutex_);
  auto db = own();
  if (!db) return false;
  const auto rows = read(*db, "SELECT T_Index, DbName FROM Templates ORDER BY T_Index").rows;
  if (position >= rows.size()) {
    error = "no template at that position";
    return false;
  }
  if (!db->remove(kTemplatesTable, {rows[position][0].i}, error)) return false;
  std::string ignored;
  engine_->remove(text(rows[position][1]), ignored);  // books made from it are not affected
  return true;
}

bool ServerCore::setTemplateVersion(std::size_t position, int32_t version, std::string& error) {
  std::lock_guard lock(mutex_);
  auto db = own();
  if (!db) return false;
  const auto rows = read(*db, "SELECT T_Index FROM Templates ORDER BY T_Index").rows;
  if (position >= rows.size()) {
    error = "no template at that position";
    return false;
  }
  return db->update(kTemplatesTable, rows[position][0].i, {{"Version", Value::ofInt(version)}},
                    error);
}

}  // namespace mv::server
