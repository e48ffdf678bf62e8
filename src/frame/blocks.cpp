#include "frame/blocks.h"

#include "platform/wide.h"

namespace mv {

UploadResult uploadBlocks(IBookServer& server, VARIANT* blockRecord, UploadForm form,
                          const BlockSource& source) {
  UploadResult result;
  for (int32_t blockNo = 1;; ++blockNo) {
    // A fresh zero-filled array per block keeps memory flat whatever the size of the source.
    Variant block;
    if (!block.makeArray(MV_VT_UI1, kBlockSize)) {
      result.outOfMemory = true;
      return result;
    }
    void* data = nullptr;
    std::ptrdiff_t got = -1;
    if (safeArrayAccessData(block.get()->parray, &data) == 0) {
      got = source(static_cast<uint8_t*>(data), kBlockSize);
      safeArrayUnaccessData(block.get()->parray);
    }
    const bool last = got < kBlockSize;
    const int32_t good = got < 0 ? 0 : static_cast<int32_t>(got);
    if (form == UploadForm::Update && good == 0) return result;
    ++result.calls;
    result.status = server.UpLoadData(blockRecord, blockNo, good, block.get(), last ? 1 : 0);
    if (result.status != 0 || last) return result;
  }
}

DownloadResult downloadBlocks(IBookServer& server, BSTR dbName, BSTR handle, BSTR column,
                              const BlockSink& sink) {
  DownloadResult result;
  for (int32_t blockNo = 1;; ++blockNo) {
    Variant block;
    int32_t isEnd = 0;
    int32_t bytes = 0;
    result.status = server.DownLoadData(dbName, handle, column, 0, blockNo, kBlockSize, block.get(),
                                        &isEnd, &bytes);
    if (result.status != 0) return result;
    const VARIANT* v = block.get();
    // Anything but an array of bytes is the end of the data (an empty column sends none).
    if (v->vt != (MV_VT_ARRAY | MV_VT_UI1) || v->parray == nullptr) return result;
    const uint32_t count = safeArrayCount(v->parray);
    void* data = nullptr;
    if (count > 0 && safeArrayAccessData(v->parray, &data) == 0) {
      const bool stored = sink(static_cast<const uint8_t*>(data), count);
      safeArrayUnaccessData(v->parray);
      if (!stored) {
        result.sinkFailed = true;
        return result;
      }
      result.bytes += count;
    }
    if (isEnd == 1) return result;
  }
}

}  // namespace mv
