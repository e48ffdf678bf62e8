#include "rpc/files_stub.h"

#include <algorithm>
#include <cerrno>

#include "rpc/convert.h"

namespace mv::rpc {
namespace {

// A read answers at most this much, whatever it asks for, so that no answer nears the message
// limit.
constexpr uint32_t kMaxRead = 4u << 20;

std::string_view text(capnp::Text::Reader t) { return {t.begin(), t.size()}; }

int32_t error() { return errno != 0 ? errno : EIO; }

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
class ReaderStub final : public ::FileReader::Server {
 public:
  explicit ReaderStub(std::unique_ptr<fs::FileReader> reader) : reader_(std::move(reader)) {}

 protected:
  kj::Promise<void> read(ReadContext context) override {
    auto results = context.getResults();
    const uint32_t size = std::min(context.getParams().getSize(), kMaxRead);
    auto data = results.initData(size);
    const std::ptrdiff_t got = reader_->read(reinterpret_cast<char*>(data.begin()), size);
    if (got < 0) {
      results.setError(error());
      results.disownData();
    } else if (static_cast<uint32_t>(got) < size) {
      auto orphan = results.disownData();
      orphan.truncate(static_cast<unsigned>(got));
      results.adoptData(kj::mv(orphan));
    }
    return kj::READY_NOW;
  }

 private:
  std::unique_ptr<fs::FileReader> reader_;
};

// A write that fails is remembered and the rest are dropped: the stream goes on, and commit
// answers the failure (the file never takes its name).
class WriterStub final : public ::FileWriter::Server {
 public:
  explicit WriterStub(std::unique_ptr<fs::FileWriter> writer) : writer_(std::move(writer)) {}

 protected:
  kj::Promise<void> write(WriteContext context) override {
    const auto data = context.getParams().getData();
    if (error_ == 0 && !writer_->write(reinterpret_cast<const char*>(data.begin()), data.size())) {
      error_ = error();
    }
    return kj::READY_NOW;
  }
  kj::Promise<void> commit(CommitContext context) override {
    if (error_ == 0 && writer_ != nullptr && !writer_->commit(context.getParams().getLastWrite()))
      error_ = error();
    writer_.reset();
    context.getResults().setError(error_);
    if (error_ == 0) error_ = EBADF;  // committed: nothing more goes to this file
    return kj::READY_NOW;
  }

 private:
  std::unique_ptr<fs::FileWriter> writer_;
  int32_t error_ = 0;
};

class FilesStub final : public ::Files::Server {
 public:
  explicit FilesStub(std::shared_ptr<fs::FileSystem> files) : files_(std::move(files)) {}

 protected:
  kj::Promise<void> stat(StatContext context) override {
    fs::FileInfo info;
    return answer(context, [&](fs::FileSystem& f) {
      if (!f.stat(text(context.getParams().getPath()), info)) return false;
      putEntry(info, context.getResults().initEntry());
      return true;
    });
  }
  kj::Promise<void> list(ListContext context) override {
    std::vector<fs::FileInfo> entries;
    return answer(context, [&](fs::FileSystem& f) {
      if (!f.list(text(context.getParams().getPath()), entries)) return false;
      auto out = context.getResults().initEntries(static_cast<unsigned>(entries.size()));
      for (unsigned i = 0; i < entries.size(); ++i) putEntry(entries[i], out[i]);
      return true;
    });
  }
  kj::Promise<void> openRead(OpenReadContext context) override {
    return answer(context, [&](fs::FileSystem& f) {
      auto reader = f.openRead(text(context.getParams().getPath()));
      if (reader == nullptr) return false;
      putEntry(reader->info(), context.getResults().initEntry());
      context.getResults().setReader(kj::heap<ReaderStub>(std::move(reader)));
      return true;
    });
  }
  kj::Promise<void> openWrite(OpenWriteContext context) override {
    return answer(context, [&](fs::FileSystem& f) {
      const auto p = context.getParams();
      auto writer = f.openWrite(text(p.getPath()), p.getFailIfExists());
      if (writer == nullptr) return false;
      context.getResults().setWriter(kj::heap<WriterStub>(std::move(writer)));
      return true;
    });
  }
  kj::Promise<void> copy(CopyContext context) override {
    return answer(context, [&](fs::FileSystem& f) {
      const auto p = context.getParams();
      return f.copy(text(p.getFrom()), text(p.getTo()), p.getFailIfExists());
    });
  }
  kj::Promise<void> setTimes(SetTimesContext context) override {
    return answer(context, [&](fs::FileSystem& f) {
      const auto p = context.getParams();
      return f.setTimes(text(p.getPath()), static_cast<std::time_t>(p.getLastWrite()));
    });
  }
  kj::Promise<void> makeWritable(MakeWritableContext context) override {
    return onPath(context, &fs::FileSystem::makeWritable);
  }
  kj::Promise<void> createDirectory(CreateDirectoryContext context) override {
    return onPath(context, &fs::FileSystem::createDirectory);
  }
  kj::Promise<void> removeDirectory(RemoveDirectoryContext context) override {
    return onPath(context, &fs::FileSystem::removeDirectory);
  }
  kj::Promise<void> deleteFile(DeleteFileContext context) override {
    return onPath(context, &fs::FileSystem::deleteFile);
  }
  kj::Promise<void> rename(RenameContext context) override {
    return answer(context, [&](fs::FileSystem& f) {
      const auto p = context.getParams();
      return f.rename(text(p.getFrom()), text(p.getTo()));
    });
  }

 private:
  template <typename Context, typename Work>
  kj::Promise<void> answer(Context& context, Work&& work) {
    if (files_ == nullptr) {
      context.getResults().setError(ENOSYS);
      return kj::READY_NOW;
    }
    errno = 0;
    context.getResults().setError(work(*files_) ? 0 : error());
    return kj::READY_NOW;
  }
  template <typename Context>
  kj::Promise<void> onPath(Context& context, bool (fs::FileSystem::*op)(std::string_view)) {
    return answer(context,
                  [&](fs::FileSystem& f) { return (f.*op)(text(context.getParams().getPath())); });
  }

  std::shared_ptr<fs::FileSystem> files_;
};
#pragma GCC diagnostic pop

}  // namespace

kj::Own<::Files::Server> makeFilesStub(std::shared_ptr<fs::FileSystem> files) {
  return kj::heap<FilesStub>(std::move(files));
}

}  // namespace mv::rpc
