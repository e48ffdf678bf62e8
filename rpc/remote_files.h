// The share folders of a daemon's session as a file system of the client: every call is one call
// to the session's file service over the session's own link. Reads keep a few blocks on their
// way ahead of the reader, and writes stream under Cap'n Proto's flow control, so that a file of
// any size crosses with a few blocks of memory on either side.
#pragma once

#include <memory>

#include "platform/file_system.h"
#include "rpc/remote_link.h"

namespace mv::rpc {

// Block size of reads and writes, and how many of them are on their way at once.
inline constexpr uint32_t kFileBlock = 256u << 10;
inline constexpr std::size_t kFileReadAhead = 8;
inline constexpr std::size_t kFileWriteAhead = 8;

// Lives no longer than `link`'s owner: disconnect() before the link goes, after which every call
// fails with EIO.
std::shared_ptr<fs::FileSystem> makeRemoteFiles(RemoteLink& link);
void disconnectRemoteFiles(fs::FileSystem& files);

}  // namespace mv::rpc
