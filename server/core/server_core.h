// What all sessions of one data folder share: the storage engine, the named mutexes, who is
// logged on, and the folder's layout. Safe across threads.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "server/core/data_folder.h"
#include "server/engine/storage.h"

namespace mv::server {

struct TemplateInfo {
  std::string name;     // as a person picks it, and as CreateBookDatabase takes it
  std::string info;     // a description kept with it
  int32_t version = 0;  // the BookVer of books made from it
};

class ServerCore {
 public:
  // Locks the folder, makes its layout, the storage engine through `engine` and, on first use,
  // the initial databases.
  static std::shared_ptr<ServerCore> open(const std::string& folder, const InitOptions& init,
                                          const EngineFactory& engine, std::string& error);
  ~ServerCore();

  StorageEngine& engine() { return *engine_; }
  const std::string& folder() const { return folder_; }
  std::string stagingFolder() const { return folder_ + "/staging"; }
  // Set, OpenNetShare answers "\\<server>\shares\..." paths that the sessions' file services
  // serve, instead of local ones. Set before the first session.
  void serveSharesAs(std::string server) { shareServer_ = std::move(server); }
  const std::string& shareServer() const { return shareServer_; }
  // The share folder of a book (`table` empty and key -1) or of one row.
  std::string shareFolder(const std::string& db, const std::string& table, int32_t key) const;

  uint64_t newSession() { return ++sessions_; }
  int32_t liveSessions() const { return live_.load(); }
  void sessionStarted() { ++live_; }
  void sessionEnded(uint64_t session);

  // Named mutexes: op 0 tests, 1 takes, 2 releases.
  int32_t mutex(const std::string& name, int32_t op, uint64_t session);

  // Who is logged on, as (user name, the text given at logon), in order of logon.
  void logon(uint64_t session, const std::string& user, const std::string& text);
  void logoff(uint64_t session, const std::string& user);
  std::vector<std::pair<std::string, std::string>> loggedOn();

  // How often each database is open in some session: a database in use is not deleted.
  void opened(const std::string& db, uint64_t session);
  void closed(const std::string& db, uint64_t session);
  bool openElsewhere(const std::string& db, uint64_t session);

  // Template book databases, in the order clients list them (the first is the default).
  std::vector<TemplateInfo> templates();
  // The engine database behind a template; empty for an unknown name ("" is the default).
  std::string templateDatabase(const std::string& name);
  bool addTemplate(const TemplateInfo& info, const std::string& sourceDb, std::string& error);
  bool deleteTemplate(std::size_t position, std::string& error);
  bool setTemplateVersion(std::size_t position, int32_t version, std::string& error);

  // The server's own database (templates, named counters, carrying state).
  std::shared_ptr<Database> own();

 private:
  ServerCore() = default;
  bool initialise(const InitOptions& init, std::string& error);

  std::string folder_;
  std::string shareServer_;
  std::unique_ptr<FolderLock> lock_;
  std::unique_ptr<StorageEngine> engine_;
  std::atomic<uint64_t> sessions_{0};
  std::atomic<int32_t> live_{0};

  std::mutex mutex_;
  std::map<std::string, uint64_t> mutexes_;
  std::vector<std::pair<uint64_t, std::pair<std::string, std::string>>> logons_;
  std::map<std::pair<std::string, uint64_t>, int> opens_;
};

// Engine names of the server's own databases; a client cannot name them (they start with '_').
inline constexpr char kOwnDatabase[] = "_server";
inline constexpr char kTemplatePrefix[] = "_template_";

// A name a client may give a database: letters, digits and '_', not starting with '_'.
bool isClientDatabaseName(const std::string& name);

}  // namespace mv::server
