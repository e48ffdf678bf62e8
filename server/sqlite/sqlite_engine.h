// The storage engine on SQLite: one database file per server database in a folder, and each
// database's blobs as files in a folder of its own under content/ (see content_files.h): an
// upload is written once, straight to its file, and a download reads from it.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "server/engine/storage.h"

namespace mv::server {

class SqliteEngine final : public StorageEngine {
 public:
  // `folder` holds the database files; it must exist.
  explicit SqliteEngine(std::string folder);
  ~SqliteEngine() override;

  bool exists(std::string_view name) override;
  std::shared_ptr<Database> open(std::string_view name, bool create, std::string& error) override;
  bool copy(std::string_view from, std::string_view to, std::string& error) override;
  bool remove(std::string_view name, std::string& error) override;
  bool rename(std::string_view from, std::string_view to, std::string& error) override;
  bool exportFile(std::string_view name, const std::string& path, std::string& error) override;
  bool importFile(std::string_view name, const std::string& path, std::string& error) override;
  ContentCheck checkContent(bool repair) override;
  std::vector<std::string> list() override;
  std::string describe() override;

  // The file that holds a database.
  std::string pathOf(std::string_view name) const;
  // The folder that holds the content folders of the databases.
  std::string contentRoot() const;

 private:
  // Drops the cached connection if nobody else uses it; false if someone does.
  bool release(const std::string& name);

  std::string folder_;
  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<Database>, std::less<>> open_;
};

// The engine over `folder`, for ServerCore::open (an EngineFactory), after it has swept away what
// a crash left behind (checkContent with repair).
std::unique_ptr<StorageEngine> openSqliteEngine(const std::string& folder, std::string& error);

}  // namespace mv::server
