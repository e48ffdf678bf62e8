// A session's questions about the server and its system: versions, free space, what it runs on,
// the last failure's text, and whether it still answers.
#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdlib>

#include "server/core/book_server.h"
#include "server/core/session_helpers.h"
#include "server/core/status.h"
#include "server/core/wire.h"

namespace mv::server {

namespace {

constexpr int32_t kVersion[4] = {0, 1, 0, 0};

}  // namespace

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

}  // namespace mv::server
