// A tag's image data as plain files in the folder that the server shares for the tag: index.bif
// in the folder itself, the image files in "IndexFile", the electronic-delivery files in "EL".
// The bytes never pass through the server; the library works on the folder with file operations.
#include <functional>
#include <string>

#include "contents/images.h"
#include "contents/index_bif.h"
#include "frame/connection.h"
#include "frame/db_work.h"
#include "frame/sql_text.h"
#include "platform/files.h"
#include "transfer/folder_tools.h"

namespace mv {
namespace {

constexpr char kShareTable[] = "TagPageTBL";
constexpr char kImageFolder[] = "IndexFile";
constexpr char kImageBackup[] = "IndexFile_Old";
constexpr char kElFolder[] = "EL";
constexpr char kElBackup[] = "EL_Old";
// The key under which MVCheckIsAccessNetData asks for a folder, whether or not a tag has it.
constexpr int32_t kAccessTestKey = 20;

struct ShareFrame {
  int failValue = -1;
  bool goOnWithoutDatabase = false;  // a failed OpenDatabase is recorded, and the work still runs
  bool closeShareCounts = false;     // a failed CloseNetShare gives the failure value
};

// OpenDatabase unless held, OpenNetShare for the tag, the work on the folder, CloseNetShare,
// CloseDatabase. The failure of OpenNetShare skips the work and is not recorded in lastError.
int inShare(const char* dbName, int32_t tagIndex, const char* shareClient, const ShareFrame& frame,
            const std::function<int(const std::string& folder)>& work) {
  ConnectionState& c = connection();
  IBookServer* server = c.currentServer;
  if (server == nullptr || dbName == nullptr || shareClient == nullptr) return frame.failValue;
  const Bstr db = toWide(dbName);
  bool opened = false;
  if (c.bookDbHeld != 1) {
    int32_t out = 0;
    opened = !failed(server->OpenDatabase(db.get(), kOpenForWork, &out));
    if (!opened && !frame.goOnWithoutDatabase) return frame.failValue;
  }
  const Bstr table = toWide(kShareTable);
  Bstr folder;
  int result = frame.failValue;
  if (server->OpenNetShare(toWide(shareClient).get(), toWide(fs::computerName()).get(), db.get(),
                           table.get(), tagIndex, folder.out()) == 0) {
    result = work(toAnsi(folder.get()));
  }
  if (server->CloseNetShare(db.get(), table.get(), tagIndex) != 0 && frame.closeShareCounts) {
    result = frame.failValue;
  }
  if (opened) (void)failed(server->CloseDatabase(db.get()));
  return result;
}

// The data folder and its backup of a kind of insert or update, or nothing for another kind.
bool dataFolders(const std::string& folder, int32_t kind, std::string& live, std::string& old) {
  if (kind != 1 && kind != 2) return false;
  live = fs::join(folder, kind == 1 ? kImageFolder : kElFolder);
  old = fs::join(folder, kind == 1 ? kImageBackup : kElBackup);
  return true;
}

// The files of `source` (not its folders, nor names that begin with '.' or have no extension)
// into the data folder; index.bif, in any case of letters, into the tag folder under its own
// name. Existing files are replaced. 0, or -1 at the first failed copy.
int copyByFilter(const std::string& source, const std::string& folder, const std::string& data) {
  for (const fs::FoundEntry& entry : fs::findFiles(fs::join(source, "*.*"))) {
    if (entry.name.front() == '.' || entry.isDirectory || !hasExtension(entry.name)) continue;
    const std::string target =
        isIndexFileName(entry.name) ? fs::join(folder, kIndexFileName) : fs::join(data, entry.name);
    if (!copyFileWritable(fs::join(source, entry.name), target, true)) return -1;
  }
  return 0;
}

// A name index.bif may give: one file of the data folder, never a way out of it or of the local
// folder (no separator, drive, "." or "..").
bool isPlainName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of("\\/:") == std::string_view::npos;
}

// The files of index.bif whose Attribute is 1 or 5, from `source` to `localFolder`. 0 without an
// index.bif; -1 for an index that counts 0 files or at the first failed copy. A name that would
// lead out of the folders is skipped, and the result is -1 once the others are copied.
int copySelected(const std::string& folder, const std::string& source,
                 const std::string& localFolder) {
  const std::string indexPath = fs::join(folder, kIndexFileName);
  if (!fs::exists(indexPath)) return 0;
  IndexBif index;
  (void)readIndexBif(indexPath, index);
  if (index.count == 0) return -1;
  int result = 0;
  for (const std::string& name : selectedFiles(index)) {
    if (!isPlainName(name)) {
      result = -1;
      continue;
    }
    if (!copyFileWritable(fs::join(source, name), fs::join(localFolder, name), true)) return -1;
  }
  return result;
}

}  // namespace
}  // namespace mv

extern "C" {

MVAPI int MVInsertImageDataEX2(const char* databaseName, int32_t tagIndex, const char* sourceFolder,
                               int32_t kind, const char* shareClient) {
  if (sourceFolder == nullptr) return -1;
  return mv::inShare(databaseName, tagIndex, shareClient, {}, [&](const std::string& folder) {
    std::string data;
    std::string unused;
    if (!mv::dataFolders(folder, kind, data, unused)) return -1;
    if (!mv::fs::isDirectory(sourceFolder)) return -1;  // nothing changed
    if (mv::fs::isDirectory(data)) {
      (void)mv::DeleteFolderTree(data);
      (void)mv::fs::removeDirectory(data);
    }
    if (mv::CreateFolderPath(data) == 0) return -1;
    return mv::copyByFilter(sourceFolder, folder, data);
  });
}

MVAPI int MVUpDateImageDataEx2(const char* databaseName, int32_t tagIndex, const char* sourceFolder,
                               int32_t kind, const char* shareClient) {
  if (sourceFolder == nullptr) return -1;
  return mv::inShare(databaseName, tagIndex, shareClient, {}, [&](const std::string& folder) {
    std::string live;
    std::string old;
    if (!mv::dataFolders(folder, kind, live, old)) return -1;
    const int backedUp = mv::CopyFolderTree(live, old, 1);
    const int result =
        mv::fs::isDirectory(sourceFolder) ? mv::copyByFilter(sourceFolder, folder, live) : -1;
    if (result == 0) {
      (void)mv::DeleteFolderTree(old);
      (void)mv::fs::removeDirectory(old);
    } else if (backedUp == 1) {
      // The overlay went wrong part way: the backup becomes the data folder again.
      (void)mv::DeleteFolderTree(live);
      (void)mv::fs::removeDirectory(live);
      (void)mv::fs::moveFile(old, live);
    }
    return result;
  });
}

MVAPI int MVDownLoadImageData2(const char* databaseName, int32_t tagIndex, const char* localFolder,
                               int32_t kind, const char* shareClient) {
  if (localFolder == nullptr) return -1;
  return mv::inShare(databaseName, tagIndex, shareClient, {}, [&](const std::string& folder) {
    if (kind < 0 || kind > 3) return -1;
    const std::string source = mv::fs::join(folder, kind == 2 ? mv::kElFolder : mv::kImageFolder);
    int result = 0;
    if (kind == 0) {
      result = mv::copySelected(folder, source, localFolder);
    } else if (kind != 3) {
      for (const mv::fs::FoundEntry& entry : mv::fs::findFiles(mv::fs::join(source, "*.*"))) {
        if (entry.name.front() == '.' || entry.isDirectory) continue;
        if (!mv::copyFileWritable(mv::fs::join(source, entry.name),
                                  mv::fs::join(localFolder, entry.name), true)) {
          result = -1;
          break;
        }
      }
    }
    const std::string index = mv::fs::join(folder, mv::kIndexFileName);
    if (result == 0 && mv::fs::exists(index) &&
        !mv::copyFileWritable(index, mv::fs::join(localFolder, mv::kIndexFileName), true)) {
      result = -1;
    }
    return result;
  });
}

MVAPI int MVDeleteImageData2(const char* databaseName, int32_t tagIndex, const char* fileName,
                             const char* shareClient) {
  // A name that leads out of the data folders deletes nothing.
  if (fileName == nullptr || !mv::isPlainName(fileName)) return -1;
  return mv::inShare(databaseName, tagIndex, shareClient, {}, [&](const std::string& folder) {
    for (const char* sub : {mv::kElFolder, mv::kImageFolder}) {
      const std::string path = mv::fs::join(mv::fs::join(folder, sub), fileName);
      if (mv::fs::exists(path)) (void)mv::fs::deleteFile(path);
    }
    return 0;
  });
}

MVAPI int MVIsImageFilesUpdated(const char* databaseName, int32_t tagIndex, const char* localFolder,
                                const char* shareClient) {
  if (localFolder == nullptr) return 0;
  mv::ShareFrame frame;
  frame.failValue = 0;
  frame.goOnWithoutDatabase = true;
  return mv::inShare(databaseName, tagIndex, shareClient, frame, [&](const std::string& folder) {
    return mv::localFilesStale(folder, localFolder);
  });
}

MVAPI int MVCheckIsAccessNetData(const char* shareClient, const char* databaseName) {
  mv::ShareFrame frame;
  frame.failValue = -2;
  frame.closeShareCounts = true;
  return mv::inShare(databaseName, mv::kAccessTestKey, shareClient, frame,
                     [](const std::string& folder) {
                       const std::string test = mv::fs::join(folder, "Test");
                       if (!mv::fs::createDirectory(test)) return -2;
                       (void)mv::fs::removeDirectory(test);
                       return 0;
                     });
}

MVAPI int MVDeleteTag2(const char* databaseName, int32_t tagIndex, int32_t dispIndex,
                       const char* shareClient) {
  mv::ConnectionState& c = mv::connection();
  c.lastError = 0;
  mv::IBookServer* server = c.currentServer;
  if (server == nullptr || databaseName == nullptr || shareClient == nullptr) return -1;
  mv::DbWork work(databaseName);
  if (!work.openDb()) return -1;
  const mv::Bstr table = mv::toWide(mv::kShareTable);
  mv::Bstr folder;
  const int32_t shared =
      server->OpenNetShare(mv::toWide(shareClient).get(), mv::toWide(mv::fs::computerName()).get(),
                           work.db(), table.get(), tagIndex, folder.out());

  // The page row, then the display row; the image rows stay (the files are the data here).
  const auto deleteRow = [&](const char* tableName, const std::string& sql, int32_t key,
                             bool rowRequired) {
    if (mv::failed(work.openTableEx(tableName, sql, 0))) return false;
    if (rowRequired && work.rowCount() <= 0) return false;  // no such tag: lastError untouched
    if (mv::failed(server->DeleteRecord(work.db(), work.handle(), key))) return false;
    return !mv::failed(work.closeTable());
  };
  const bool rowsGone =
      deleteRow("TagPageTBL",
                mv::sqlFormat("SELECT * FROM TagPageTBL WHERE (T_Index=%d)", tagIndex), tagIndex,
                true) &&
      deleteRow("TagDispTBL", mv::sqlFormat("SELECT * FROM TagDispTBL WHERE (TagID=%d)", tagIndex),
                dispIndex, false);
  if (!rowsGone) (void)work.closeTable();
  // The folder goes only with the rows: a tag whose rows could not be deleted keeps its files.
  int result = rowsGone ? 0 : -1;
  if (rowsGone && shared == 0) (void)mv::DeleteFolderTree(mv::toAnsi(folder.get()));
  if (shared != 0) result = -1;
  (void)server->CloseNetShare(work.db(), table.get(), tagIndex);
  if (result != 0) {
    work.abandon();
    return -1;
  }
  return work.finish() ? 0 : -1;
}

}  // extern "C"
