// Blobs move in fixed blocks: up as arrays of exactly kBlockSize bytes with a separate count of
// good bytes, down as arrays whose element count is the good bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "frame/IBookServer.h"

namespace mv {

inline constexpr int32_t kBlockSize = 0x4B000;  // 307,200 bytes

// An insert marks the end with a block flagged last even when that block is empty; an update
// never sends an empty block, so a source of a multiple of kBlockSize bytes ends without one.
enum class UploadForm { Insert, Update };

// Fills up to `size` bytes; returns how many came, or -1 when the source failed.
using BlockSource = std::function<std::ptrdiff_t(uint8_t* data, std::size_t size)>;
// Takes the bytes of one block; false when they could not be stored.
using BlockSink = std::function<bool(const uint8_t* data, std::size_t size)>;

struct UploadResult {
  int32_t status = 0;  // the failing UpLoadData status, else 0
  int32_t calls = 0;   // UpLoadData calls made
  bool outOfMemory = false;
};

// Reads the source block by block and sends each with UpLoadData(record, blockNo, ...), blockNo
// from 1. The first block that comes up short, or whose read fails, is the last.
UploadResult uploadBlocks(IBookServer& server, VARIANT* blockRecord, UploadForm form,
                          const BlockSource& source);

struct DownloadResult {
  int32_t status = 0;       // the failing DownLoadData status, else 0
  bool sinkFailed = false;  // the sink refused a block; the loop stopped there
  int64_t bytes = 0;        // bytes handed to the sink
};

// Reads `column` of row 0 of an open handle with DownLoadData, blockNo from 1, until the server
// flags the end or sends a block with no array.
DownloadResult downloadBlocks(IBookServer& server, BSTR dbName, BSTR handle, BSTR column,
                              const BlockSink& sink);

}  // namespace mv
