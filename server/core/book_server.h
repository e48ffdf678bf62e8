// One client's session with the server: the IBookServer that MVInit gets. It keeps what the
// client has open (databases, handles with their result snapshots), blobs in transit, and the
// text of its last failure; everything else is shared through the ServerCore. Ending the
// session (Release) closes all of it, releases the client's mutexes and logs its users off.
#pragma once

#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "frame/IBookServer.h"
#include "platform/file_system.h"
#include "server/core/server_core.h"
#include "server/core/share_files.h"

namespace mv::server {

class BookServer final : public IBookServer {
 public:
  explicit BookServer(std::shared_ptr<ServerCore> core);
  ~BookServer() override;

  ServerCore& core() { return *core_; }
  // The last failure's text, UTF-8 (GetLastError gives it as UTF-16).
  const std::string& lastErrorText() const { return lastError_; }
  // The share folders this session has open, for its client on another machine; null when the
  // server answers local paths (ServerCore::shareServer() empty).
  std::shared_ptr<fs::FileSystem> shareFiles() const;

  MV_SERVER_METHOD_OVERRIDES

 private:
  struct Handle {
    std::string db;
    std::shared_ptr<Database> database;
    std::string table;
    Snapshot snapshot;
  };
  // A blob arriving in blocks, written into the engine as they come; it becomes the row's
  // content with the last block, or with the session's next other call.
  struct Upload {
    std::string handle;
    int32_t nextBlock = 1;
    std::unique_ptr<BlobWriter> writer;
  };
  // The series ("<handle>/<key>/<column>") whose block failed last, until a new series starts.
  struct FailedUpload {
    std::string target;
    int32_t status = 0;
  };
  // The blob being downloaded, kept open between its blocks.
  struct Download {
    std::string handle;
    int64_t key = 0;
    std::string column;
    std::unique_ptr<BlobReader> reader;
  };
  struct Carry {
    std::string db;
    std::string path;
    std::FILE* file = nullptr;
  };

  // Records a failure's text and gives its status.
  int32_t fail(int32_t status, const std::string& text);
  // The database a client names, opened in the engine; nullptr after fail().
  std::shared_ptr<Database> database(const std::string& name, int32_t* status);
  Handle* handle(const std::string& text, int32_t* status);
  int32_t openSnapshot(const std::string& db, const std::string& sql, const std::string& table,
                       int32_t* rowCount, BSTR* handleOut);
  int32_t writeRecord(BSTR dbName, VARIANT* record, bool add, int32_t* index);
  // Stores pending blobs; the first failure's status (0 if none).
  int32_t finishUploads();
  // Before any other call: pending blobs stored, an open download ended.
  int32_t settle();
  int32_t finishUpload(Upload& upload);
  void closeCarry(Carry& carry, bool keepFile);

  std::shared_ptr<ServerCore> core_;
  uint64_t id_;
  std::string lastError_;
  std::map<std::string, int> openDbs_;
  std::map<std::string, Handle> handles_;
  uint64_t handleSerial_ = 0;
  std::map<std::string, Upload> uploads_;
  FailedUpload failedUpload_;
  Download download_;
  Carry carryOut_;
  Carry carryIn_;
  std::shared_ptr<OpenShares> shares_ = std::make_shared<OpenShares>();
};

// Makes a session with the embedded server of this process, starting that server on the first
// call (in `folder`, or the default data folder when empty) over the engine `engine` makes; while
// it runs, later calls for the same folder share it. Status 0 and a session with one reference,
// or a failure status with nothing made.
int32_t connectEmbedded(const std::string& folder, const EngineFactory& engine,
                        IBookServer** server);

}  // namespace mv::server
