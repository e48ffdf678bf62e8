// The daemon's end of a session's file service: Files over any file system (the session's share
// folders, see server/core/share_files.h). Failures answer the errno the file system set.
#pragma once

#include <memory>

#include "platform/file_system.h"
#include "rpc/book_server.capnp.h"

namespace mv::rpc {

// Null `files`: a session with no share folders to serve; every call answers ENOSYS.
kj::Own<::Files::Server> makeFilesStub(std::shared_ptr<fs::FileSystem> files);

}  // namespace mv::rpc
